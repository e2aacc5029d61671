"""Turbid crowns: the quickstart's trees with crowns of statistically described leaves.

Each crown is a closed ellipsoid mesh whose material names an optical turbid medium: a
volume of leaves (here 1.5 m2 of leaf per m3, spherical leaf angle distribution, 5 cm
leaves for the hot spot) that rays enter and leave through the mesh, colliding with
leaves along exponential free paths. The picture puts the turbid canopy beside the
quickstart's solid-crowned one (left), and the forward tracer prints the canopy's fAPAR.
Written to out/turbid_canopy.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/turbid_canopy.py
"""
import numpy as np

import vesk
import vesk_gpu as vk

F = np.float32
spectra = {  # red, green, blue
    "soil": [0.25, 0.20, 0.14],
    "leaf_front": [0.06, 0.14, 0.04], "leaf_back": [0.09, 0.17, 0.06],
    "leaf_transmit": [0.05, 0.13, 0.03],
    "bark": [0.22, 0.16, 0.10],
    "sun": [1.55, 1.80, 1.95],   # W m-2 nm-1
    "sky": [0.03, 0.05, 0.09],   # W m-2 sr-1 nm-1
}


def canopy(turbid):
    scene = vk.EmbreeSceneManager()
    scene.set_num_bands(3)
    offset, buffer = {}, []
    for name, values in spectra.items():
        offset[name] = len(buffer)
        buffer += values
    scene.upload_spectral_params(np.array(buffer, F))
    soil = scene.add_material(0, offset["soil"], [])
    leaf = scene.add_material(13, offset["leaf_front"], [0.10, 0.07])
    bark = scene.add_material(0, offset["bark"], [])
    ground = scene.add_mesh(**vk.make_ground_plane(20.0, 20.0, soil, 4.0))
    crown = scene.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), subdivisions=3),
                           material_id=leaf)
    stem = scene.add_mesh(**vk.make_cylinder(0.2, 3.0, segments=12), material_id=bark)
    scene.add_instance(ground)
    rng = np.random.default_rng(3)
    for x, y in rng.uniform(-14.0, 14.0, size=(9, 2)):
        s = rng.uniform(0.7, 1.3)
        scene.add_instance(stem, x, y, 0.0, s)
        if turbid:  # an ellipsoid, 1.8 m wide and 1.5 m tall at size 1
            scene.add_instance_xform(crown, np.array([1.8 * s, 0, 0, x, 0, 1.8 * s, 0, y,
                                                      0, 0, 1.5 * s, 4.2 * s], F))
        else:
            scene.add_instance(crown, x, y, 4.2 * s, 1.5 * s)
    if turbid:
        # The leaf material bounds medium 0; its leaves scatter with that material.
        scene.set_optical_turbid_media(leaf_area_density=[1.5], leaf_angle_types=[0],
                                       orientations=[1], leaf_characteristic_lengths=[0.05],
                                       material_medium_ids=[-1, 0, -1])
    sun = np.array([0.45, -0.35, 0.82], F)
    scene.set_emitter(0, sun / np.linalg.norm(sun), offset["sun"])
    scene.set_sky(offset["sky"])
    eye = np.array([-26.0, -26.0, 16.0])
    back = eye / np.linalg.norm(eye)
    right = np.cross([0.0, 0.0, 1.0], back)
    right /= np.linalg.norm(right)
    cam = np.eye(4)
    cam[:3, 0], cam[:3, 1], cam[:3, 2], cam[:3, 3] = right, np.cross(back, right), back, eye
    scene.set_sensor(1, 320, 240, 0.0, 0.0, cam.astype(F).ravel(), fov=45.0)
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
