"""Solar-induced fluorescence of a small canopy, end to end.

1. The forward photon tracer gives the light each leaf absorbs, per band
   (simulate_forward_cpu with per_leaf=True).
2. The static photosynthesis process turns the absorbed spectra into assimilation and a
   fluorescence yield phi_f per leaf.
3. Finalisation gathers each leaf's yield and its absorbed spectrum in the bands that
   excite fluorescence (here those inside 400-700 nm).
4. vesk.sif_emission turns those into emission spectra: phi_f is a photon yield, so each
   leaf emits phi_f times the PAR photons it absorbed, spread over wavelength by a
   two-peak shape (685 nm and 740 nm, vesk.sif_emission_shape) and converted back to
   energy at the emission wavelength; the red photons absorbed carry more energy than
   the far-red ones emitted. A leaf emits evenly from its two sides, each Lambertian.
5. simulate_cpu in SIF-only mode renders what a nadir camera sees of the fluorescence
   alone: out/fluorescence_740nm.png, and out/fluorescence_spectrum.png plots the canopy's
   mean emission spectrum.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/fluorescence.py
"""
import os

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import vesk  # noqa: E402
import vesk_gpu as vk  # noqa: E402

F = np.float32
rng = np.random.default_rng(5)
TILE = 4.0
wavelengths = np.array([450, 500, 550, 600, 650, 685, 700, 740, 760, 800], F)  # nm
bands = len(wavelengths)
width = np.full(bands, 50.0)  # nm each band stands for
# Leaf optics: green-peaked in the visible, bright in the near infrared.
leaf_r = np.interp(wavelengths, [450, 550, 650, 700, 740, 800], [0.05, 0.12, 0.06, 0.15, 0.42, 0.47])
leaf_t = np.interp(wavelengths, [450, 550, 650, 700, 740, 800], [0.03, 0.10, 0.04, 0.14, 0.40, 0.44])
soil = np.interp(wavelengths, [450, 800], [0.10, 0.30])
sun = np.interp(wavelengths, [450, 550, 700, 800], [1.9, 1.85, 1.45, 1.15])  # W m-2 nm-1
sky = 0.02 * sun  # W m-2 sr-1 nm-1

# ---- the canopy: a ground and three crowns of small leaves in a repeated tile ----
scene = vk.EmbreeSceneManager()
scene.set_num_bands(bands)
blocks = np.concatenate([soil, leaf_r, leaf_r, leaf_t, sun, sky]).astype(F)
scene.upload_spectral_params(blocks)
soil_id = scene.add_material(0, 0, [])
leaf_id = scene.add_material(13, bands, [0.1, 0.08])  # front, back, transmittance blocks
ground = vk.make_ground_plane(TILE / 2, TILE / 2, soil_id, 0.5)
scene.add_instance(scene.add_mesh(**ground), TILE / 2, TILE / 2, 0.0)
leaves = []
for cx, cy in [(1.0, 1.1), (3.0, 1.4), (2.0, 3.0)]:
    c = rng.normal(size=(700, 3))
    c *= rng.uniform(size=(700, 1)) ** (1 / 3) / np.linalg.norm(c, axis=1, keepdims=True)
    centres = c * [0.8, 0.8, 0.7] + [cx, cy, 1.6]
    leaves.append(centres[:, None, :] + 0.05 * rng.normal(size=(700, 3, 3)))  # one triangle each
v = np.concatenate(leaves).reshape(-1, 3).astype(F)
scene.add_instance(scene.add_mesh(v, np.zeros((0, 3), F), np.arange(len(v), dtype=np.int32).reshape(-1, 3),
                                  leaf_id))
sun_dir = np.array([0.2, -0.25, 0.95], F)
scene.set_emitter(0, sun_dir / np.linalg.norm(sun_dir), 4 * bands)
scene.set_sky(5 * bands)
scene.set_repetitive(20, TILE, TILE)
scene.build()
n = scene.n_primitives()
is_leaf = scene.primitive_geometry()["material_ids"] == leaf_id
area = scene.primitive_geometry()["areas"].astype(np.float64)

# ---- 1. absorbed light per leaf and band ----
fwd = vk.simulate_forward_cpu(scene, num_photons=300000, num_bands=bands, per_leaf=True)
absorbed = fwd["leaf"] / area[:, None] * width  # W m-2 of leaf, per band
absorbed[~is_leaf] = 0.0

# ---- 2. photosynthesis and the fluorescence yield ----
m = lambda v: np.array([v], F)  # noqa: E731  (one leaf material)
ps = vk.execute_photosynthesis_process_static_cpu(scene, dict(
    absorbed_top=absorbed.astype(F), absorbed_bottom=np.zeros((n, bands), F),
    absorbed_direct=np.zeros((n, bands), F), wavelengths=wavelengths,
    sunlit_fraction=np.zeros(n, F), material_ids=np.where(is_leaf, 0, -1).astype(np.int32),
    material_active=np.ones(1, np.uint8), material_fluorescent=np.ones(1, np.uint8),
    temperature_sunlit=np.full(n, 300.0, F), temperature_shaded=np.full(n, 298.0, F),
    vcmax25=m(60), jmax25=m(110), rd25=m(1.0), ball_berry_slope=m(9), ball_berry_intercept=m(0.01),
    quantum_yield=m(0.03), co2=410.0, relative_humidity=0.6, max_iterations=100, tolerance=1e-3))

# ---- 3. yields and absorbed spectra at the excitation bands ----
excitation = np.flatnonzero((wavelengths >= 400) & (wavelengths <= 700)).astype(np.int32)
fin = vk.finalize_sif_process_cpu(scene, dict(
    absorbed_top=absorbed.astype(F), absorbed_bottom=np.zeros((n, bands), F),
    material_ids=np.where(is_leaf, 0, -1).astype(np.int32), material_phi_f=np.zeros(1, F),
    selected_band_indices=excitation, element_phi_f=ps["phi_f"]))


# ---- 4. emission spectra per leaf, counted in photons ----
sif = vesk.sif_emission(fin["absorbed_top_selected"], fin["absorbed_bottom_selected"],
                        wavelengths[excitation], fin["phi_f"], emission_wavelengths=wavelengths)
scene.set_primitive_sif_spectra(sif["spectra"], bands)  # band-major, W m-2 sr-1 nm-1

# ---- 5. a SIF-only nadir image at 740 nm and the canopy spectrum ----
cam = np.array([1, 0, 0, TILE / 2, 0, 1, 0, TILE / 2, 0, 0, 1, 10, 0, 0, 0, 1], F)
scene.set_sensor(0, 160, 160, TILE, TILE, cam)
scene.set_sif_only_mode(True)
image = vk.simulate_cpu(scene, spp=8, max_depth=4)["payload"][::-1]
k740 = int(np.flatnonzero(wavelengths == 740)[0])
os.makedirs("out", exist_ok=True)
fig, ax = plt.subplots(figsize=(5.2, 4.4))
sif740 = image[:, :, k740] * 1e3
shown = ax.imshow(sif740, cmap="magma", extent=[0, TILE, 0, TILE], vmin=0,
                  vmax=np.percentile(sif740, 99.5))  # a few sunlit leaf edges would wash it out
ax.set_title("SIF at 740 nm, nadir view")
ax.set_xlabel("x (m)"), ax.set_ylabel("y (m)")
fig.colorbar(shown, ax=ax, label="mW m-2 sr-1 nm-1")
fig.tight_layout()
fig.savefig("out/fluorescence_740nm.png", dpi=100)

fig, ax = plt.subplots(figsize=(5.6, 3.6))
fine = np.linspace(640, 820, 200)
leaf_emission = vesk.sif_emission(fin["absorbed_top_selected"][is_leaf],
                                  fin["absorbed_bottom_selected"][is_leaf], wavelengths[excitation],
                                  fin["phi_f"][is_leaf], emission_wavelengths=fine)["top"]
ax.plot(fine, 1e3 * leaf_emission.mean(axis=0), label="leaf emission (mean)")
ax.plot(wavelengths, 1e3 * image.mean(axis=(0, 1)), "o", label="canopy, seen from above")
ax.set_xlabel("wavelength (nm)"), ax.set_ylabel("radiance (mW m-2 sr-1 nm-1)")
ax.set_title("Canopy fluorescence spectrum")
ax.legend()
fig.tight_layout()
fig.savefig("out/fluorescence_spectrum.png", dpi=100)

print(f"leaves {is_leaf.sum()}, mean phi_f {fin['phi_f'][is_leaf].mean():.4f}, mean assimilation "
      f"{ps['an'][is_leaf].mean():.2f} umol m-2 s-1")
print(f"canopy SIF at 740 nm seen from above: {1e3 * image[:, :, k740].mean():.3f} mW m-2 sr-1 nm-1")
print("wrote out/fluorescence_740nm.png and out/fluorescence_spectrum.png")
