"""Quickstart: build a small scene and look at it.

A ground plane, a few trees (a sphere crown on a cylinder stem, each placed as an
instance of the same two meshes), then a depth picture traced with trace_closest
and written to out/quickstart.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/quickstart.py
"""
import os

import numpy as np
from PIL import Image

import vesk_gpu as vk

scene = vk.EmbreeSceneManager()

# Meshes come back as dicts of arrays ready for add_mesh(**mesh).
ground = scene.add_mesh(**vk.make_ground_plane(half_w=20.0, half_h=20.0, max_tri_edge=4.0))
crown = scene.add_mesh(**vk.make_sphere(1.5, np.zeros(3, np.float32), subdivisions=3))
stem = scene.add_mesh(**vk.make_cylinder(0.2, 3.0, segments=12))

scene.add_instance(ground)
rng = np.random.default_rng(3)
for x, y in rng.uniform(-14.0, 14.0, size=(9, 2)):
    s = rng.uniform(0.7, 1.3)  # tree size
    scene.add_instance(stem, x, y, 0.0, s)
    scene.add_instance(crown, x, y, 4.2 * s, s)

scene.build()
print(f"{scene.num_instances()} instances, {scene.total_triangles()} triangles, "
      f"bounds {scene.aabb()}")

# A perspective view from the south-west corner, looking at the scene centre.
width, height = 480, 320
eye = np.array([-26.0, -26.0, 16.0])
forward = -eye / np.linalg.norm(eye)
right = np.cross(forward, [0.0, 0.0, 1.0])
right /= np.linalg.norm(right)
up = np.cross(right, forward)
tan_half = np.tan(np.radians(45.0) / 2)
u = (np.arange(width) + 0.5) / width - 0.5
v = 0.5 - (np.arange(height) + 0.5) / height
uu, vv = np.meshgrid(u, v)
dirs = (forward[None, None, :]
        + (2 * uu * tan_half * width / height)[..., None] * right
        + (2 * vv * tan_half)[..., None] * up)
dirs /= np.linalg.norm(dirs, axis=-1, keepdims=True)
origins = np.broadcast_to(eye, dirs.shape)

hits = scene.trace_closest(origins.reshape(-1, 3).astype(np.float32),
                           dirs.reshape(-1, 3).astype(np.float32))
depth = hits["t"].reshape(height, width)
hit = hits["hit"].reshape(height, width)

# Near is bright, far is dark, sky is black; shade by the normal a little for shape.
near, far = depth[hit].min(), depth[hit].max()
shade = 0.25 + 0.75 * np.clip(hits["shading_normal"][:, 2], 0, 1).reshape(height, width)
img = np.where(hit, (1.0 - 0.8 * (depth - near) / (far - near)) * shade, 0.0)

os.makedirs("out", exist_ok=True)
Image.fromarray((255 * img).astype(np.uint8), mode="L").save("out/quickstart.png")
print(f"wrote out/quickstart.png ({width}x{height}, {hit.mean():.0%} of pixels hit)")
