"""A small canopy at noon: light, leaf temperature and photosynthesis, and what a thermal
camera sees.

1. The multi-band energy-balance transport gives every leaf the shortwave it absorbs on
   each side, in a PAR band (400-700 nm) and a near-infrared band, with the light that
   leaves scatter (they reflect and transmit) followed to the end.
2. The dynamic photosynthesis process couples each leaf's energy balance to its
   neighbours through the longwave they exchange, and solves temperature, stomata and
   assimilation together.
3. The canopy means are printed, with how well the leaves close their energy balance.
4. The solved temperatures go back into the scene, and simulate_cpu in thermal mode
   (10 um) renders a false-colour thermal image: out/canopy_energy.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/canopy_energy.py
"""
import os

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import vesk_gpu as vk  # noqa: E402

F = np.float32
rng = np.random.default_rng(11)
TILE = 6.0  # the canopy repeats in a 6 m x 6 m tile, like a stand that goes on

# ---- the geometry: a ground and four crowns of 1200 small leaves each ----
ground = vk.make_ground_plane(TILE / 2, TILE / 2, 0, 0.2)
ground["vertices"] = (ground["vertices"] + np.array([TILE / 2, TILE / 2, 0], F)).astype(F)
leaves = []
for cx, cy in [(1.5, 1.5), (4.5, 1.6), (1.6, 4.4), (4.4, 4.5)]:
    n = 1200
    centre = rng.normal(size=(n, 3))
    centre *= rng.uniform(size=(n, 1)) ** (1 / 3) / np.linalg.norm(centre, axis=1, keepdims=True)
    centre = centre * [1.1, 1.1, 0.9] + [cx, cy, 2.2]
    leaves.append(centre[:, None, :] + 0.07 * rng.normal(size=(n, 3, 3)))
leaf_vertices = np.concatenate(leaves).reshape(-1, 3).astype(F)
leaf_indices = np.arange(len(leaf_vertices), dtype=np.int32).reshape(-1, 3)


def scene_with(spectra, materials, thermal=False):
    """The canopy with one band per spectral entry: materials[i] = (type, offset, params)."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1 if thermal else 2)
    s.upload_spectral_params(np.array(spectra, F))
    soil, leaf = (s.add_material(*m) for m in materials)
    s.add_instance(s.add_mesh(**{**ground, "material_id": soil}))
    s.add_instance(s.add_mesh(leaf_vertices, np.zeros((0, 3), F), leaf_indices, leaf))
    s.set_repetitive(20, TILE, TILE)
    return s


scene = scene_with([0.1, 0.25], [(0, 0, []), (0, 0, [])])
scene.build()
n = scene.n_primitives()
n_ground = len(ground["indices"])
is_leaf = np.arange(n) >= n_ground

# ---- 1. absorbed shortwave in two bands: PAR and near infrared ----
sun = np.array([0.15, -0.2, 0.97])
sun /= np.linalg.norm(sun)
band = lambda leaf_value, soil_value: np.where(is_leaf, leaf_value, soil_value).astype(F)
refl = np.stack([band(0.09, 0.10), band(0.45, 0.25)])   # front and back alike
trans = np.stack([band(0.06, 0.0), band(0.42, 0.0)])
top, bot, sunlit = vk.run_energy_balance_multiband_cpu(
    scene, 2, n_samples=32, max_depth=8,
    sun_irradiance=np.array([420.0, 380.0], F),           # W m-2, PAR and NIR
    sky_diffuse_radiance=np.array([25.0, 12.0], F),       # W m-2 sr-1
    sun_dir_x=sun[0], sun_dir_y=sun[1], sun_dir_z=sun[2],
    sw_reflectance=refl, sw_back_reflectance=refl, sw_transmittance=trans)
absorbed = (top + bot) * (1 - refl - trans)               # W m-2 per band
absorbed[:, ~is_leaf] = top[:, ~is_leaf] * (1 - refl[:, ~is_leaf])
apar = absorbed[0] * 4.57                                # W m-2 of PAR to umol m-2 s-1

# ---- 2. leaf temperature and photosynthesis, coupled through the longwave ----
full = lambda v: np.full(n, v, F)
result = vk.execute_photosynthesis_process_dynamic_cpu(scene, dict(
    active=is_leaf.astype(np.uint8), fluorescent=is_leaf.astype(np.uint8),
    apar=apar.astype(F), absorbed_shortwave=absorbed.sum(axis=0).astype(F),
    # The soil takes no part in the solve: its temperature is prescribed, from 24 C in
    # shade to 36 C in full sun, and it still radiates on the leaves.
    initial_temperature=np.where(is_leaf, 298.0, 297.15 + 12.0 * np.minimum(sunlit, 1)).astype(F),
    emissivity=np.where(is_leaf, 0.97, 0.95).astype(F), sidedness=np.where(is_leaf, 2.0, 1.0).astype(F),
    leaf_width=full(0.05), stomata_sides=full(1), vcmax25=full(60), jmax25=full(110), rd25=full(0.9),
    ball_berry_slope=full(9), ball_berry_intercept=full(0.01), quantum_yield=full(0.03),
    co2=415.0, relative_humidity=0.55, air_temperature=298.15, vapor_pressure=1740.0,
    pressure=101.3, wind=1.5, sky_lw_radiance=105.0, n_samples=16, max_iterations=30,
    convergence_tolerance=0.01, damping=0.8))

# ---- 3. canopy means ----
T = result["temperature"][is_leaf]
closure = (result["net_radiation"] - result["sensible_heat"] - result["latent_heat"])[is_leaf]
print(f"coupling: {result['iterations']} rounds, converged {result['converged']}")
print(f"canopy-mean leaf temperature {T.mean() - 273.15:.2f} C "
      f"(range {T.min() - 273.15:.1f} to {T.max() - 273.15:.1f} C, air 25.0 C)")
print(f"canopy-mean assimilation {result['an'][is_leaf].mean():.2f} umol m-2 s-1, "
      f"sunlit share {sunlit[is_leaf].mean():.2f}")
print(f"energy closure: mean |Rn - H - LE| {np.abs(closure).mean():.3f} W m-2 "
      f"(Rn {result['net_radiation'][is_leaf].mean():.1f}, H {result['sensible_heat'][is_leaf].mean():.1f}, "
      f"LE {result['latent_heat'][is_leaf].mean():.1f} W m-2)")

# ---- 4. a thermal image with the solved temperatures ----
# In thermal mode a material's block holds its emissivity; the sky is a cold 10 um radiance.
wavelength = 10000.0
thermal = scene_with([0.95, 0.97, 0.0035], [(0, 0, [0, 0, 300.0]), (0, 1, [0, 0, 300.0])],
                     thermal=True)
thermal.set_sky(2)
thermal.set_thermal_mode(True, [wavelength])
eye = np.array([TILE / 2 - 7.0, TILE / 2 - 7.0, 7.5])
back = eye - [TILE / 2, TILE / 2, 1.5]
back /= np.linalg.norm(back)
right = np.cross([0.0, 0.0, 1.0], back)
right /= np.linalg.norm(right)
cam = np.eye(4)
cam[:3, 0], cam[:3, 1], cam[:3, 2], cam[:3, 3] = right, np.cross(back, right), back, eye
thermal.set_sensor(1, 240, 180, 0.0, 0.0, cam.astype(F).ravel(), fov=50.0)
thermal.build()
thermal.set_primitive_temperatures(result["temperature"])
radiance = vk.simulate_cpu(thermal, spp=8, max_depth=4)["payload"][::-1, :, 0]
# Brightness temperature: the blackbody temperature with that radiance at 10 um.
c1, c2 = 1.191042972e-16, 1.438776877e-2  # 2 h c^2 (W m2 sr-1) and h c / k (m K)
lam = wavelength * 1e-9
bt = c2 / (lam * np.log1p(c1 / (lam**5 * np.maximum(radiance, 1e-12) * 1e9)))
os.makedirs("out", exist_ok=True)
fig, ax = plt.subplots(figsize=(6.4, 4.4))
image = ax.imshow(bt - 273.15, cmap="inferno", vmin=np.percentile(bt, 2) - 273.15,
                  vmax=np.percentile(bt, 99.5) - 273.15)
ax.set_axis_off()
ax.set_title("Canopy at noon, 10 um brightness temperature")
fig.colorbar(image, ax=ax, label="degrees C")
fig.tight_layout()
fig.savefig("out/canopy_energy.png", dpi=100)
print("wrote out/canopy_energy.png")
