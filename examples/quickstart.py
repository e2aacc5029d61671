"""Quickstart: a stand of trees in three bands under sun and sky.

A 30 m square of soil with 14 trees on it, repeated in every direction so that the
ground reaches the horizon. Each tree is a trunk and a porous crown of ~800 small
leaves that reflect and transmit light; four crown shapes are planted at random sizes
and turns. The sun stands 35 degrees from the zenith in the south-south-west, behind a
perspective camera in the south-west corner. The backward path tracer renders red,
green and blue (650, 550, 470 nm) in one pass, and the picture is tone-mapped to
out/quickstart.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/quickstart.py
(after `pip install .`, plain `python3 examples/quickstart.py`)
"""
import time

import numpy as np

import vesk
import vesk_gpu as vk

start = time.time()
scene = vk.EmbreeSceneManager()

# Every spectrum lives in one buffer; Spectra names the entries and keeps the offsets.
spectra = vesk.Spectra(scene, wavelengths_nm=[650, 550, 470])
soil = vesk.lambertian(spectra, "soil", [0.32, 0.22, 0.12])
leaf = vesk.leaf(spectra, "leaf", reflectance=[0.06, 0.14, 0.04],
                 back_reflectance=[0.09, 0.17, 0.06], transmittance=[0.05, 0.13, 0.03])
bark = vesk.lambertian(spectra, "bark", [0.22, 0.16, 0.10])
sun = spectra.add("sun", [1.55, 1.80, 1.95])  # irradiance at normal incidence, W m-2 nm-1
sky = spectra.add("sky", [0.03, 0.05, 0.09])  # radiance, W m-2 sr-1 nm-1
scene.set_emitter(0, vesk.sun_direction(zenith_deg=35, azimuth_deg=200), sun)
scene.set_sky(sky)

# One tile of the stand: soil over [0, 30] x [0, 30] m and the trees on it.
TILE, TREES = 30.0, 14
scene.add_instance(scene.add_mesh(**vk.make_ground_plane(TILE / 2, TILE / 2, soil, 4.0)),
                   TILE / 2, TILE / 2, 0.0)
shapes = [vesk.make_tree(scene, leaf, bark, seed=k) for k in range(4)]
rng = np.random.default_rng(3)
for k, (x, y) in enumerate(rng.uniform(2.0, TILE - 2.0, size=(TREES, 2))):
    shapes[k % 4].plant(x, y, scale=rng.uniform(0.8, 1.2), rotation_deg=rng.uniform(0, 360))
scene.set_repetitive(20, TILE, TILE)  # rays cross up to 20 tile walls

width, height = 480, 320
camera = vesk.look_at(eye=[-6.0, -6.0, 9.0], target=[TILE / 2, TILE / 2, 1.5])
scene.set_sensor(1, width, height, 0.0, 0.0, camera, fov=50.0)  # 1: perspective
scene.build()

result = vk.simulate_cpu(scene, spp=8, max_depth=6, progress=vesk.progress_bar("rendering"))
exposure = vesk.save_image("out/quickstart.png", result["payload"])
print(f"quickstart: {TREES} trees ({scene.total_triangles()} triangles), "
      f"{width}x{height} px x 8 samples in {time.time() - start:.1f} s, "
      f"exposure {exposure:.2f} -> out/quickstart.png")
