"""Thermal and SIF images of turbid crowns, from their leaf-area samples.

Nine ellipsoidal crowns of statistically described leaves (vesk.turbid_crowns) stand on
a 20 m tile repeated to the horizon. A Turbid domain samples each crown into leaf-area
points; vesk.turbid_chain then gives every point its absorbed sunlight and sky light
(a sunlit probability from the transmittance to the sun), the longwave it trades with
the other leaves, the soil and the sky, and the photosynthesis and temperature of a
sunlit and a shaded leaf there. From those states come the two sources images read:
per crown the temperatures of its sunlit and shaded leaves, and fluorescence tables over
each crown's volume and leaf orientation. The same scene then renders

  out/turbid_crowns_sif.png      far-red SIF (740 nm) seen from above, SIF-only mode
  out/turbid_crowns_thermal.png  10 um radiance as brightness temperature, thermal mode

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/turbid_crowns_sif.py
"""
import matplotlib.pyplot as plt
import numpy as np

import vesk

vk = vesk.vk
F = np.float32

# ---- the stand: soil, nine crowns, sun and sky -------------------------------------------
scene = vk.EmbreeSceneManager()
# Blue, green, red light drive photosynthesis; 740 nm is where the far-red SIF is seen.
spectra = vesk.Spectra(scene, [470, 550, 660, 740], widths_nm=[100, 100, 100, 80])
soil = vesk.lambertian(spectra, "soil", [0.08, 0.12, 0.18, 0.25])
leaf = vesk.leaf(spectra, "leaf", [0.05, 0.12, 0.05, 0.45], [0.03, 0.10, 0.03, 0.45])
scene.add_instance(scene.add_mesh(**vk.make_ground_plane(10.0, 10.0, soil, 10.0)), 10.0, 10.0, 0.0)
scene.set_repetitive(50, 20.0, 20.0)
xy = np.array([[4, 4], [10, 4], [16, 4], [4, 10], [10, 10], [16, 10], [4, 16], [10, 16], [16, 16]], float)
crowns = vesk.turbid_crowns(spectra, leaf, xy[:, 0], xy[:, 1], lai=0.9, crown_radius=2.2,
                            crown_height=4.0, crown_base=2.0, leaf_size=0.05)
spectra.set_sun(vesk.sun_direction(35.0, 150.0), [1.6, 1.8, 1.6, 1.3])  # W m-2 nm-1
spectra.set_sky([0.04, 0.04, 0.03, 0.02])                               # W m-2 sr-1 nm-1
scene.set_sensor(0, 160, 160, 20.0, 20.0, vesk.look_at([10, 10, 40], [10, 10, 0], up=[0, 1, 0]))
scene.build()

# ---- samples, states and sources ----------------------------------------------------------
domain = vesk.turbid_domain(scene, crowns, budget=1024, quality="preview")
air = vesk.microclimate(300.0, relative_humidity=0.45)
chain = vesk.turbid_chain(spectra, domain, air, ground_temperature=312.0, rays_per_side=8)
ph, rad = chain["physiology"], chain["radiation"]
print(f"{len(ph['an'])} leaf-area samples in {len(crowns['instances'])} crowns: "
      f"mean sunlit probability {rad['sunlit_probability'].mean():.2f}, "
      f"APAR {rad['apar'].mean():.0f} umol m-2 s-1")
print(f"assimilation {ph['an'].mean():.1f} umol m-2 s-1; sunlit leaves "
      f"{ph['temperature_sunlit'].mean():.1f} K, shaded {ph['temperature_shaded'].mean():.1f} K "
      f"(air {air.air_temperature:.1f} K)")
print(f"SIF emitted by all leaves at 740 nm: {chain['sif']['emitted_power'][3]:.2f} W nm-1")

# ---- the SIF image: only fluorescence, scattered on its way out ----------------------------
scene.set_sif_only_mode(True)
sif = vk.simulate_cpu(scene, spp=16, max_depth=4)["payload"][..., 3]
scene.set_sif_only_mode(False)

# ---- the thermal image: the same instances, their sources read by the tracer ---------------
# In thermal mode a Lambertian block holds the emissivity and a leaf's blocks its
# reflectance and transmittance; the soil's temperature comes per primitive.
scene.set_thermal_mode(True, [10000.0] * 4)
thermal = spectra.buffer.copy()
thermal[spectra["soil"]:][:4] = 0.95                           # soil emissivity
thermal[spectra["leaf"]:][:12] = np.r_[[0.02] * 8, [0.0] * 4]  # leaf reflectance, no transmittance
thermal[spectra["sky"]:][:4] = vesk.planck(10000.0, 250.0)     # a cold clear sky
scene.upload_spectral_params(thermal)
temperatures = np.zeros(scene.n_primitives(), F)
temperatures[:scene.instance_triangle_counts()[0]] = 312.0  # the soil; crown boundaries carry none
scene.set_primitive_temperatures(temperatures)
radiance = vk.simulate_cpu(scene, spp=16, max_depth=3)["payload"][..., 0]
brightness = vesk.brightness_temperature(radiance, 10000.0)

# Pixels over the crowns' middles and over the open soil between them.
centre = (np.arange(160) + 0.5) * 20.0 / 160
gx, gy = np.meshgrid(centre, centre)
gap = np.min([np.hypot(gx - x, gy - y) for x, y in xy], axis=0)
crown, soil_px = gap < 1.6, gap > 2.8
print(f"SIF at 740 nm over crowns {sif[crown].mean() * 1e3:.2f}, over soil "
      f"{sif[soil_px].mean() * 1e3:.2f} mW m-2 sr-1 nm-1")
print(f"brightness temperature over crowns {brightness[crown].mean():.1f} K, over soil "
      f"{brightness[soil_px].mean():.1f} K")

for name, image, label, cmap in (("sif", sif * 1e3, "SIF at 740 nm (mW m-2 sr-1 nm-1)", "magma"),
                                 ("thermal", brightness, "brightness temperature at 10 um (K)", "inferno")):
    fig, ax = plt.subplots(figsize=(5.2, 4.4))
    shown = ax.imshow(image, origin="lower", extent=(0, 20, 0, 20), cmap=cmap,
                      vmax=np.percentile(image, 99.5))
    fig.colorbar(shown, ax=ax, label=label)
    ax.set(xlabel="x (m)", ylabel="y (m)", title=f"turbid crowns from above: {name}")
    vesk.save_figure(f"out/turbid_crowns_{name}.png", fig, dpi=80)
print("wrote out/turbid_crowns_sif.png and out/turbid_crowns_thermal.png")
