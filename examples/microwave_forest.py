"""L-band images of a forest stand: brightness temperature and radar backscatter.

Forty trees (wet wooden stems with crowns that hold water) on a moist loam, seen by an
orthographic sensor at 40 degrees incidence. vesk.microwave_tables turns moisture, soil
texture and canopy water content into the simulations' tables; the crowns are closed
volumes of a tau-omega medium, the stems dielectric cylinders. The passive image gives
T_H and T_V in kelvin, the active one sigma0 HH, VV and HV in decibels, where the stems'
double bounce with the ground shows in HH. Written to out/microwave_forest.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/microwave_forest.py
"""
import os

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np

import vesk
import vesk_gpu as vk

F = np.float32
FREQUENCY = 1.4e9  # Hz, L band
INCIDENCE = np.radians(40.0)

scene = vk.EmbreeSceneManager()
soil = scene.add_material(0, 0, [])
crown_material = scene.add_material(0, 0, [])
stem_material = scene.add_material(0, 0, [])
scene.add_instance(scene.add_mesh(**vk.make_ground_plane(40.0, 40.0, soil, 10.0)))
crown = scene.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 2), material_id=crown_material)
stem = scene.add_mesh(**vk.make_cylinder(0.15, 8.0, 12), material_id=stem_material)
rng = np.random.default_rng(3)
for x, y in rng.uniform(-22.0, 22.0, size=(40, 2)):
    scene.add_instance(stem, x, y, -0.05)  # set 5 cm into the soil
    scene.add_instance_xform(crown, np.array([2.0, 0, 0, x, 0, 2.0, 0, y, 0, 0, 2.5, 8.0], F))
# Looking down at 40 degrees from the south, over a 40 m x 40 m footprint.
d = np.array([0.0, np.sin(INCIDENCE), -np.cos(INCIDENCE)])
camera = np.eye(4)
camera[:3, 0] = [1.0, 0.0, 0.0]
camera[:3, 2] = -d
camera[:3, 1] = np.cross(camera[:3, 2], camera[:3, 0])
camera[:3, 3] = -60.0 * d
scene.set_sensor(0, 80, 80, 40.0, 40.0 * np.cos(INCIDENCE), camera.astype(F).ravel())
scene.build()

# 6 kg/m2 of water in the crowns, which are 5 m deep: the extinction of a 5 m layer that
# holds it. Crowns scatter more than a crop (albedo 0.1), with 15 % cross-polarised.
tables = vesk.microwave_tables(FREQUENCY, soil_moisture=0.25, sand=0.4, clay=0.2,
                               canopy_water_content=6.0, canopy_height=5.0, canopy_albedo=0.1,
                               trunk_radius=0.15, trunk_length=8.0, rms_height=0.02)
mapping = np.array([0, 1, 2], np.int32)  # soil, crowns, stems
tb = vk.simulate_microwave_cpu(scene, material_map=mapping, n_channels=2, **tables.inputs)
sigma = vk.simulate_active_microwave_cpu(scene, material_map=mapping, spp=4, **tables.inputs)

db = 10 * np.log10(np.maximum(sigma, 1e-6))
fig, axes = plt.subplots(1, 4, figsize=(16, 4))
panels = [(tb[..., 0], "T_H (K)", "inferno"), (tb[..., 1], "T_V (K)", "inferno"),
          (db[..., 0], "sigma0 HH (dB)", "viridis"), (db[..., 1], "sigma0 HV (dB)", "viridis")]
for ax, (image, title, cmap) in zip(axes, panels):
    # The colour range leaves out the few darkest pixels (stems seen edge-on return
    # almost nothing) so that soil and crowns stay apart.
    shown = ax.imshow(image, origin="lower", cmap=cmap, vmin=np.percentile(image, 3),
                      vmax=np.percentile(image, 99.5))
    ax.set_title(title)
    ax.set_xticks([])
    ax.set_yticks([])
    fig.colorbar(shown, ax=ax, shrink=0.8)
fig.suptitle(f"L band over a forest stand, {np.degrees(INCIDENCE):.0f} deg incidence, "
             f"canopy optical depth {tables.optical_depth:.2f}")
os.makedirs("out", exist_ok=True)
vesk.save_figure("out/microwave_forest.png", fig)
bare = tables.soil_passive[4]  # the soil alone at 40 degrees
print(f"microwave_forest: mean T_H {tb[..., 0].mean():.1f} K, T_V {tb[..., 1].mean():.1f} K "
      f"(bare soil {bare[0]:.1f} K, {bare[1]:.1f} K); mean sigma0 HH "
      f"{10 * np.log10(sigma[..., 0].mean()):.1f} dB, VV {10 * np.log10(sigma[..., 3].mean()):.1f} dB, "
      f"HV {10 * np.log10(sigma[..., 1].mean()):.1f} dB -> out/microwave_forest.png")
