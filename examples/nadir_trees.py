"""A nadir RGB image of 20 trees: an orthographic camera looks straight down on a
40 m x 40 m plot of soil with 20 trees of porous leaf crowns, under a sun 25 degrees
from the zenith in the south-east, so that shadows fall to the north-west. Written to
out/nadir_trees.png, north up.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/nadir_trees.py
"""
import numpy as np

import vesk
import vesk_gpu as vk

scene = vk.EmbreeSceneManager()
spectra = vesk.Spectra(scene, wavelengths_nm=[650, 550, 470])
soil = vesk.lambertian(spectra, "soil", [0.32, 0.22, 0.12])
leaf = vesk.leaf(spectra, "leaf", reflectance=[0.06, 0.14, 0.04], transmittance=[0.05, 0.13, 0.03])
bark = vesk.lambertian(spectra, "bark", [0.22, 0.16, 0.10])
scene.set_emitter(0, vesk.sun_direction(25, 135), spectra.add("sun", [1.55, 1.80, 1.95]))
scene.set_sky(spectra.add("sky", [0.03, 0.05, 0.09]))

scene.add_instance(scene.add_mesh(**vk.make_ground_plane(20, 20, soil, 4.0)))
tree = vesk.make_tree(scene, leaf, bark)
rng = np.random.default_rng(1)
for x, y in rng.uniform(-17, 17, size=(20, 2)):
    tree.plant(x, y, scale=rng.uniform(0.7, 1.3), rotation_deg=rng.uniform(0, 360))

# Orthographic (type 0), 40 m across, from 30 m up; up=(0, 1, 0) puts north at the top.
camera = vesk.look_at(eye=[0, 0, 30], target=[0, 0, 0], up=[0, 1, 0])
scene.set_sensor(0, 400, 400, 40.0, 40.0, camera)
scene.build()
image = vk.simulate_cpu(scene, spp=8, max_depth=6)["payload"]
vesk.save_image("out/nadir_trees.png", image)
print(f"20 trees, {tree.n_leaves} leaves a crown: out/nadir_trees.png")
