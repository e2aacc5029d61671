"""Airborne LiDAR over a canopy: waveforms, a point cloud and a LAS file.

Trees with turbid crowns (volumes of leaves) stand on a soil; an airborne line scanner
flies over them at 60 m. Each pulse's beam is sampled by a grid of rays; the surface
returns of soil and stems and the volume returns of the crowns are binned by range,
convolved with a 4 ns pulse and peak-picked into points. vesk.simulate_lidar gives each
point its return energy (the whole return, as in direct mode), a range refined between
bin centres, and the material its pulse axis meets there; vesk.write_las writes them to
out/canopy.las (LAS 1.4, point format 6) with LAS classes from the material names
(soil 2, leaves and bark 5) and the scan angles. One pulse's waveform through a crown
is plotted to out/lidar_waveform.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/lidar.py
"""
import matplotlib.pyplot as plt
import numpy as np

import vesk

vk = vesk.vk
scene = vk.EmbreeSceneManager()
spectra = vesk.Spectra(scene, [1064])  # one wavelength: the laser's
soil = vesk.lambertian(spectra, "soil", 0.35)
leaf = vesk.leaf(spectra, "leaf", 0.45, 0.42, back_reflectance=0.43)
bark = vesk.lambertian(spectra, "bark", 0.5)
scene.add_instance(scene.add_mesh(**vk.make_ground_plane(30.0, 30.0, soil, 5.0)))
stem = scene.add_mesh(**vk.make_cylinder(0.25, 6.0, 12), material_id=bark)
trees = np.random.default_rng(7).uniform(-20.0, 20.0, size=(12, 2))
for x, y in trees:
    scene.add_instance(stem, x, y, 0.0)
# Turbid crowns 6 m wide and 5 m tall (spherical leaves) with a leaf area index of 0.25
# over the 60 m x 60 m ground: about 0.8 m2 of leaf per m3 of crown.
crowns = vesk.turbid_crowns(spectra, leaf, trees[:, 0], trees[:, 1], lai=0.25, crown_radius=3.0,
                            crown_height=5.0, crown_base=5.5, ground_area=3600.0)
print(f"crown leaf area density {crowns['leaf_area_density']:.2f} m2 m-3")
scene.build()

# 2 s of flight northward at 20 m/s, 2000 pulses/s, +-20 degrees across track.
origins, directions, times = vesk.airborne_line_scan((0.0, -20.0), 0.0, 60.0, 20.0, 2000.0,
                                                     20.0, 25.0, 2.0)
n = len(times)
points, r = vesk.simulate_lidar(scene, origins, directions, beam_half_angle_rad=0.00025,
                                beam_samples_per_dim=6, range_resolution=0.15, min_range=40.0,
                                max_range=80.0, max_returns_per_pulse=5)
first = points[points["return_number"] == 1]  # one record a pulse that returned anything
counts = np.bincount(first["num_returns"])
print(f"{n} pulses, {len(points)} returns; pulses by number of returns: "
      f"{ {k: int(c) for k, c in enumerate(counts) if k and c} }")
classes = vesk.las_classes(spectra)
print("points by LAS class:", {c: int(sum(classes.get(int(m), 1) == c for m in points["material"]))
                               for c in (1, 2, 5)})
vesk.write_las("out/canopy.las", points, scale=0.001, pulse_times=times, classes=classes)
print("wrote out/canopy.las")

# The pulse with the most returns: crown top, inside the crown, the soil.
p = int(np.bincount(points["pulse"]).argmax())
ranges = r["waveform"].shape[1]
rr = 40.0 + (np.arange(ranges) + 0.5) * 0.15
fig, ax = plt.subplots(figsize=(7, 3.5))
ax.plot(rr, r["waveform"][p, :, 0], color="darkgreen")
mine = r["points"][r["points"][:, 7] == p]
ax.plot(mine[:, 6], mine[:, 3], "o", color="crimson", label="returns (peak bin)")
ax.set_xlabel("range (m)")
ax.set_ylabel("received energy per bin (J)")
ax.set_title(f"waveform of pulse {p}")
ax.legend()
fig.tight_layout()
vesk.save_figure("out/lidar_waveform.png", fig)
print("wrote out/lidar_waveform.png")
