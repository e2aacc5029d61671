"""A small canopy at noon: light, leaf temperature and photosynthesis, and what a thermal
camera sees.

1. vesk.energy_balance reads the scene's own leaves, soil, sun and sky: a multi-band
   reverse transport gives every leaf the shortwave it absorbs on each side, in a PAR
   band (400-700 nm) and a near-infrared band, with the light leaves scatter followed
   to the end; the absorbed PAR is counted in photons.
2. The dynamic photosynthesis process then couples each leaf's energy balance to its
   neighbours through the longwave they exchange, and solves temperature, stomata and
   assimilation together; the soil's temperature is prescribed from its sunlit share.
3. The canopy means are printed, with how well the leaves close their energy balance.
4. vesk.thermal_image renders the solved temperatures at 10 um on the same scene, and
   vesk.brightness_temperature turns radiance into degrees: out/canopy_energy.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/canopy_energy.py
"""
import matplotlib.pyplot as plt
import numpy as np

import vesk

vk = vesk.vk
rng = np.random.default_rng(11)
TILE = 6.0  # the canopy repeats in a 6 m x 6 m tile, like a stand that goes on

# ---- a ground and four crowns of 1200 small leaves each, in PAR and near infrared ----
scene = vk.EmbreeSceneManager()
spectra = vesk.Spectra(scene, [550, 1150], widths_nm=[300, 900])
soil = vesk.lambertian(spectra, "soil", [0.10, 0.25])
leaf = vesk.leaf(spectra, "leaf", reflectance=[0.09, 0.45], transmittance=[0.06, 0.42])
scene.add_instance(scene.add_mesh(**vk.make_ground_plane(TILE / 2, TILE / 2, soil, 0.2)), TILE / 2, TILE / 2)
for x, y in [(1.5, 1.5), (4.5, 1.6), (1.6, 4.4), (4.4, 4.5)]:
    scene.add_instance(scene.add_mesh(**vesk.leaf_cloud(1200, [x, y, 2.2], [1.1, 1.1, 0.9], 0.07, rng), material_id=leaf))
spectra.set_sun([0.15, -0.2, 0.97], [1.4, 0.42])    # W m-2 nm-1: 420 and 380 W m-2
spectra.set_sky([25 / 300, 12 / 900])               # W m-2 sr-1 nm-1
scene.set_repetitive(20, TILE, TILE)
scene.set_sensor(1, 240, 180, 0, 0, vesk.look_at([TILE / 2 - 7, TILE / 2 - 7, 7.5], [TILE / 2, TILE / 2, 1.5]), fov=50.0)
scene.build()

# ---- 1-2. absorbed light, then leaf temperature and photosynthesis ----
air = vesk.microclimate(298.15, relative_humidity=0.55, co2=415.0, wind=1.5, sky_lw_radiance=105.0)
ds = vesk.energy_balance(spectra, air, leaf=dict(jmax25=110, rd25=0.9), n_longwave_samples=16,
                         ground_temperature=lambda sunlit: 297.15 + 12.0 * np.minimum(sunlit, 1))

# ---- 3. canopy means ----
L = ds.where(ds.is_leaf, drop=True)
mean = lambda name: float(L[name].mean())  # noqa: E731
print(f"coupling: {ds.iterations} rounds, converged {bool(ds.converged)}\ncanopy-mean leaf temperature "
      f"{mean('temperature') - 273.15:.2f} C (range {float(L.temperature.min()) - 273.15:.1f} to "
      f"{float(L.temperature.max()) - 273.15:.1f} C, air 25.0 C)\ncanopy-mean assimilation {mean('an'):.2f} "
      f"umol m-2 s-1, sunlit share {mean('sunlit_fraction'):.2f}\nenergy closure: mean |Rn - H - LE| "
      f"{float(abs(L.net_radiation - L.sensible_heat - L.latent_heat).mean()):.3f} W m-2 (Rn "
      f"{mean('net_radiation'):.1f}, H {mean('sensible_heat'):.1f}, LE {mean('latent_heat'):.1f} W m-2)")

# ---- 4. a thermal image with the solved temperatures ----
T = vesk.brightness_temperature(vesk.thermal_image(spectra, ds.temperature.values, 10000.0, sky_radiance=0.0035), 10000.0) - 273.15
fig, ax = plt.subplots(figsize=(6.4, 4.4))
shown = ax.imshow(T, origin="lower", cmap="inferno", vmin=np.percentile(T, 2), vmax=np.percentile(T, 99.5))
ax.set_axis_off(), ax.set_title("Canopy at noon, 10 um brightness temperature"), fig.colorbar(shown, ax=ax, label="degrees C")
fig.tight_layout(), vesk.save_figure("out/canopy_energy.png", fig), print("wrote out/canopy_energy.png")
