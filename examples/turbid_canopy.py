"""Turbid crowns: the quickstart's trees with crowns of statistically described leaves.

Each crown is a closed ellipsoid mesh whose material names an optical turbid medium: a
volume of leaves (spherical leaf angle distribution, 5 cm leaves for the hot spot) that
rays enter and leave through the mesh, colliding with leaves along exponential free
paths. vesk.turbid_crowns places them and sets their leaf area density so that the
stand has a leaf area index of 0.2 over its 40 m x 40 m ground. The picture puts the turbid canopy beside the
quickstart's solid-crowned one (left), and the forward tracer prints the canopy's fAPAR.
Written to out/turbid_canopy.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/turbid_canopy.py
"""
import numpy as np

import vesk

vk = vesk.vk


def canopy(turbid):
    scene = vk.EmbreeSceneManager()
    spectra = vesk.Spectra(scene, [650, 550, 470])  # red, green, blue
    soil = vesk.lambertian(spectra, "soil", [0.25, 0.20, 0.14])
    leaf = vesk.leaf(spectra, "leaf", [0.06, 0.14, 0.04], [0.05, 0.13, 0.03],
                     back_reflectance=[0.09, 0.17, 0.06])
    bark = vesk.lambertian(spectra, "bark", [0.22, 0.16, 0.10])
    scene.add_instance(scene.add_mesh(**vk.make_ground_plane(20.0, 20.0, soil, 4.0)))
    stem = scene.add_mesh(**vk.make_cylinder(0.2, 3.0, segments=12), material_id=bark)
    rng = np.random.default_rng(3)
    xy = rng.uniform(-14.0, 14.0, size=(9, 2))
    size = np.array([rng.uniform(0.7, 1.3) for _ in range(9)])
    for (x, y), s in zip(xy, size):
        scene.add_instance(stem, x, y, 0.0, s)
    if turbid:  # ellipsoids 3.6 m wide and 3 m tall at size 1
        vesk.turbid_crowns(spectra, leaf, xy[:, 0], xy[:, 1], lai=0.2, crown_radius=1.8 * size,
                           crown_height=3.0 * size, crown_base=2.7 * size, ground_area=40.0 * 40.0)
    else:
        crown = scene.add_mesh(**vk.make_sphere(1.0, np.zeros(3, np.float32), subdivisions=3), material_id=leaf)
        for (x, y), s in zip(xy, size):
            scene.add_instance(crown, x, y, 4.2 * s, 1.5 * s)
    spectra.set_sun([0.45, -0.35, 0.82], [1.55, 1.80, 1.95])  # W m-2 nm-1
    spectra.set_sky([0.03, 0.05, 0.09])                       # W m-2 sr-1 nm-1
    scene.set_sensor(1, 320, 240, 0.0, 0.0, vesk.look_at([-26, -26, 16], [0, 0, 0]), fov=45.0)
    scene.build()
    return scene


images = []
for turbid in (False, True):
    scene = canopy(turbid)
    images.append(vk.simulate_cpu(scene, spp=12, max_depth=6)["payload"])
    # fAPAR in the red band: what the crowns absorb over what reaches the scene.
    r = vk.simulate_forward_cpu(scene, num_photons=200000, num_bands=3, terrain_instance_id=0)
    kind = "turbid" if turbid else "solid"
    print(f"{kind} crowns: red-band fAPAR {r['grid'][..., 0].sum() / r['incident'][0]:.3f}")

# Both halves side by side in one picture, under one exposure.
vesk.save_image("out/turbid_canopy.png", np.concatenate(images, axis=1))
print("wrote out/turbid_canopy.png (solid crowns left, turbid crowns right)")
