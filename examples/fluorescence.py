"""Solar-induced fluorescence of a small canopy, end to end.

vesk.fluorescence runs the whole chain on the scene's own leaves, sun and sky:
1. the forward photon tracer gives the light each leaf absorbs, per band;
2. the static photosynthesis process turns the absorbed spectra into assimilation and a
   fluorescence yield phi_f per leaf;
3. finalisation gathers each leaf's yield and its absorbed spectrum in the bands that
   excite fluorescence (those inside 400-700 nm);
4. vesk.sif_emission turns those into emission spectra: phi_f is a photon yield, so each
   leaf emits phi_f times the PAR photons it absorbed, spread over wavelength by a
   two-peak shape (685 nm and 740 nm, vesk.sif_emission_shape) and converted back to
   energy at the emission wavelength; the red photons absorbed carry more energy than
   the far-red ones emitted. A leaf emits evenly from its two sides, each Lambertian;
5. simulate_cpu in SIF-only mode renders what a nadir camera sees of the fluorescence
   alone (the soil shows the SIF it reflects): out/fluorescence_740nm.png, and
   out/fluorescence_spectrum.png plots the canopy's mean emission spectrum.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/fluorescence.py
"""
import matplotlib.pyplot as plt
import numpy as np

import vesk

vk = vesk.vk
rng = np.random.default_rng(5)
wl = np.array([450, 500, 550, 600, 650, 685, 700, 740, 760, 800])  # nm, each band 50 nm wide

# ---- the canopy: a ground and three crowns of small leaves in a repeated tile ----
scene = vk.EmbreeSceneManager()
spectra = vesk.Spectra(scene, wl, widths_nm=50.0)
soil = vesk.lambertian(spectra, "soil", np.interp(wl, [450, 800], [0.10, 0.30]))
leaf = vesk.leaf(spectra, "leaf", np.interp(wl, [450, 550, 650, 700, 740, 800], [0.05, 0.12, 0.06, 0.15, 0.42, 0.47]),
                 np.interp(wl, [450, 550, 650, 700, 740, 800], [0.03, 0.10, 0.04, 0.14, 0.40, 0.44]))
scene.add_instance(scene.add_mesh(**vk.make_ground_plane(2.0, 2.0, soil, 0.5)), 2.0, 2.0)
for x, y in [(1.0, 1.1), (3.0, 1.4), (2.0, 3.0)]:
    scene.add_instance(scene.add_mesh(**vesk.leaf_cloud(700, [x, y, 1.6], [0.8, 0.8, 0.7], 0.05, rng), material_id=leaf))
spectra.set_sun([0.2, -0.25, 0.95], np.interp(wl, [450, 550, 700, 800], [1.9, 1.85, 1.45, 1.15]))  # W m-2 nm-1
spectra.set_sky(0.02 * spectra.values("sun"))  # W m-2 sr-1 nm-1
scene.set_repetitive(20, 4.0, 4.0)
scene.set_sensor(0, 160, 160, 4.0, 4.0, vesk.look_at([2.0, 2.0, 10], [2.0, 2.0, 0], (0, 1, 0)))
scene.build()

# ---- absorbed light, photosynthesis, fluorescence yield, emission and a SIF-only image ----
sif = vesk.fluorescence(spectra, vesk.microclimate(298.0, relative_humidity=0.6, co2=410.0), leaf=dict(jmax25=110),
                        emission_wavelengths=np.linspace(640, 820, 200))
sif740 = sif["image"][:, :, 7] * 1e3  # mW m-2 sr-1 nm-1 at 740 nm
fig, ax = plt.subplots(figsize=(5.2, 4.4))  # a few sunlit leaf edges would wash out the top of the scale
shown = ax.imshow(sif740, origin="lower", cmap="magma", extent=[0, 4.0, 0, 4.0], vmin=0, vmax=np.percentile(sif740, 99.5))
ax.set_title("SIF at 740 nm, nadir view"), ax.set_xlabel("x (m)"), ax.set_ylabel("y (m)")
fig.colorbar(shown, ax=ax, label="mW m-2 sr-1 nm-1"), fig.tight_layout(), vesk.save_figure("out/fluorescence_740nm.png", fig)
fig, ax = plt.subplots(figsize=(5.6, 3.6))
ax.plot(sif["emission_fine"]["wavelengths"], 1e3 * sif["emission_fine"]["top"].mean(axis=0), label="leaf emission (mean)")
ax.plot(wl, 1e3 * sif["image"].mean(axis=(0, 1)), "o", label="canopy, seen from above")
ax.set_xlabel("wavelength (nm)"), ax.set_ylabel("radiance (mW m-2 sr-1 nm-1)"), ax.set_title("Canopy fluorescence spectrum")
ax.legend(), fig.tight_layout(), vesk.save_figure("out/fluorescence_spectrum.png", fig)
print(f"leaves {sif['is_leaf'].sum()}, mean phi_f {sif['finalized']['phi_f'][sif['is_leaf']].mean():.4f}, mean "
      f"assimilation {sif['photosynthesis']['an'][sif['is_leaf']].mean():.2f} umol m-2 s-1\ncanopy SIF at 740 nm seen "
      f"from above: {sif740.mean():.3f} mW m-2 sr-1 nm-1\nwrote out/fluorescence_740nm.png and out/fluorescence_spectrum.png")
