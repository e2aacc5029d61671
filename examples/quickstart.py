"""Quickstart: render a small canopy in three bands under sun and sky.

A soil ground plane, a few trees (a leafy crown on a bark stem, each placed as an
instance of the same two meshes), lit by the sun and a uniform sky, seen by a
perspective camera. The backward path tracer renders red, green and blue bands in
one pass; the picture is written to out/quickstart.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/quickstart.py
"""
import os

import numpy as np
from PIL import Image

import vesk_gpu as vk

F = np.float32
BANDS = 3  # red 650 nm, green 550 nm, blue 470 nm

scene = vk.EmbreeSceneManager()
scene.set_num_bands(BANDS)

# One flat buffer holds every spectrum; materials, sun and sky point into it.
spectra = {
    "soil": [0.25, 0.20, 0.14],
    "leaf_front": [0.06, 0.14, 0.04], "leaf_back": [0.09, 0.17, 0.06],
    "leaf_transmit": [0.05, 0.13, 0.03],
    "bark": [0.22, 0.16, 0.10],
    "sun": [1.55, 1.80, 1.95],   # irradiance at normal incidence, W m-2 nm-1
    "sky": [0.03, 0.05, 0.09],   # radiance, W m-2 sr-1 nm-1
}
offset, buffer = {}, []
for name, values in spectra.items():
    offset[name] = len(buffer)
    buffer += values
scene.upload_spectral_params(np.array(buffer, F))

# Type 0 is a Lambertian reflector, type 13 a leaf that reflects and transmits; the
# leaf's first two scalars are its band-mean reflectance and transmittance.
soil = scene.add_material(0, offset["soil"], [])
leaf = scene.add_material(13, offset["leaf_front"], [0.10, 0.07])
bark = scene.add_material(0, offset["bark"], [])

ground = scene.add_mesh(**vk.make_ground_plane(half_w=20.0, half_h=20.0, material_id=soil,
                                               max_tri_edge=4.0))
crown = scene.add_mesh(**vk.make_sphere(1.5, np.zeros(3, F), subdivisions=3), material_id=leaf)
stem = scene.add_mesh(**vk.make_cylinder(0.2, 3.0, segments=12), material_id=bark)

scene.add_instance(ground)
rng = np.random.default_rng(3)
for x, y in rng.uniform(-14.0, 14.0, size=(9, 2)):
    s = rng.uniform(0.7, 1.3)  # tree size
    scene.add_instance(stem, x, y, 0.0, s)
    scene.add_instance(crown, x, y, 4.2 * s, s)

sun = np.array([0.45, -0.35, 0.82], F)
scene.set_emitter(0, sun / np.linalg.norm(sun), offset["sun"])
scene.set_sky(offset["sky"])

# A camera in the south-west looking at the scene centre: columns are the camera's
# right, up and backward axes, then its position (it looks down its own -z).
width, height = 480, 320
eye = np.array([-26.0, -26.0, 16.0])
back = eye / np.linalg.norm(eye)
right = np.cross([0.0, 0.0, 1.0], back)
right /= np.linalg.norm(right)
up = np.cross(back, right)
cam = np.eye(4)
cam[:3, 0], cam[:3, 1], cam[:3, 2], cam[:3, 3] = right, up, back, eye
scene.set_sensor(1, width, height, 0.0, 0.0, cam.astype(F).ravel(), fov=45.0)
scene.build()
print(f"{scene.num_instances()} instances, {scene.total_triangles()} triangles")


def progress(done, total, elapsed_ms):
    if done % 4 == 0 or done == total:
        print(f"  sample pass {done}/{total}  ({elapsed_ms / 1000:.1f} s)", flush=True)


result = vk.simulate_cpu(scene, spp=16, max_depth=6, progress=progress)
radiance = result["payload"]  # (height, width, bands), row 0 at the bottom of the view

# Scale for viewing: the 99th percentile maps to white, then a display gamma.
rgb = radiance[::-1] / np.percentile(radiance, 99)
rgb = np.clip(rgb, 0.0, 1.0) ** (1 / 2.2)
os.makedirs("out", exist_ok=True)
Image.fromarray((255 * rgb).astype(np.uint8), mode="RGB").save("out/quickstart.png")
print(f"wrote out/quickstart.png ({width}x{height}, executor "
      f"{result['_execution']['executor']})")
