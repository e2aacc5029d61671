"""Airborne LiDAR over a canopy: waveforms, a point cloud and a LAS file.

Trees with turbid crowns (volumes of leaves) stand on a soil; an airborne line scanner
flies over them at 60 m. Each pulse's beam is sampled by a grid of rays; the surface
returns of soil and stems and the volume returns of the crowns are binned by range,
convolved with a 4 ns pulse and peak-picked into points, written to out/canopy.las
(LAS 1.4, point format 6). One pulse's waveform through a crown is plotted to
out/lidar_waveform.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/lidar.py
"""
import os

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np

import vesk
import vesk_gpu as vk

F = np.float32
scene = vk.EmbreeSceneManager()
scene.set_num_bands(1)  # one wavelength: the laser's, 1064 nm
# soil; leaf front, back, transmittance; bark
scene.upload_spectral_params(np.array([0.35, 0.45, 0.43, 0.42, 0.5], F))
soil = scene.add_material(0, 0, [])
leaf = scene.add_material(13, 1, [0.45, 0.42])
bark = scene.add_material(0, 4, [])
scene.add_instance(scene.add_mesh(**vk.make_ground_plane(30.0, 30.0, soil, 5.0)))
crown = scene.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 3), material_id=leaf)
stem = scene.add_mesh(**vk.make_cylinder(0.25, 6.0, 12), material_id=bark)
rng = np.random.default_rng(7)
trees = rng.uniform(-20.0, 20.0, size=(12, 2))
for x, y in trees:
    scene.add_instance(stem, x, y, 0.0)
    scene.add_instance_xform(crown, np.array([3.0, 0, 0, x, 0, 3.0, 0, y, 0, 0, 2.5, 8.0], F))
# The leaf material bounds a turbid medium: 0.8 m2 of leaf per m3, spherical leaves.
scene.set_optical_turbid_media([0.8], [0], [1], [0.05], [-1, 0, -1])
scene.build()

# 2 s of flight northward at 20 m/s, 2000 pulses/s, +-20 degrees across track.
origins, directions, times = vesk.airborne_line_scan((0.0, -20.0), 0.0, 60.0, 20.0, 2000.0,
                                                     20.0, 25.0, 2.0)
n = len(times)
r = vk.simulate_lidar_cpu(scene, origins, directions, n, beam_half_angle_rad=0.00025,
                          beam_samples_per_dim=6, range_resolution=0.15, min_range=40.0,
                          max_range=80.0, max_returns_per_pulse=5)
points = r["points"]
first = points[points[:, 4] == 1]  # one record a pulse that returned anything
counts = np.bincount(first[:, 5].astype(int))
print(f"{n} pulses, {r['num_returns']} returns; pulses by number of returns: "
      f"{ {k: int(c) for k, c in enumerate(counts) if k and c} }")

os.makedirs("out", exist_ok=True)
vesk.write_las("out/canopy.las", points, scale=0.001, pulse_times=times)
print("wrote out/canopy.las")

# The pulse with the most returns: crown top, inside the crown, the soil.
p = int(np.bincount(points[:, 7].astype(int)).argmax())
ranges = r["waveform"].shape[1]
rr = 40.0 + (np.arange(ranges) + 0.5) * 0.15
fig, ax = plt.subplots(figsize=(7, 3.5))
ax.plot(rr, r["waveform"][p, :, 0], color="darkgreen")
mine = points[points[:, 7] == p]
ax.plot(mine[:, 6], mine[:, 3], "o", color="crimson", label="returns")
ax.set_xlabel("range (m)")
ax.set_ylabel("received energy per bin (J)")
ax.set_title(f"waveform of pulse {p}")
ax.legend()
fig.tight_layout()
fig.savefig("out/lidar_waveform.png", dpi=100)
print("wrote out/lidar_waveform.png")
