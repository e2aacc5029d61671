"""The BRF of a stand of trees in the sun's principal plane, in red and near-infrared.

A 12 m tile of soil with 3 porous crowns, repeated to cover the ground; the sun 30
degrees from the zenith in the south. Forward photons give the bidirectional
reflectance factor towards 17 view directions from -80 to 80 degrees: positive angles
look from the sun's side, where the hot spot (no shadows in view) peaks at +30.
Plotted to out/brf_principal_plane.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/brf_principal_plane.py
"""
import matplotlib.pyplot as plt
import numpy as np

import vesk
import vesk_gpu as vk

scene = vk.EmbreeSceneManager()
spectra = vesk.Spectra(scene, wavelengths_nm=[670, 860])  # red, near-infrared
soil = vesk.lambertian(spectra, "soil", [0.25, 0.32])
leaf = vesk.leaf(spectra, "leaf", reflectance=[0.05, 0.45], transmittance=[0.03, 0.45])
tree = vesk.make_tree(scene, leaf, vesk.lambertian(spectra, "bark", [0.20, 0.30]))
tree.plant(x=[3.0, 9.0, 5.0], y=[3.0, 5.0, 9.5])
scene.add_instance(scene.add_mesh(**vk.make_ground_plane(6, 6, soil, 3.0)), 6, 6, 0)
scene.set_repetitive(100, 12.0, 12.0)  # the 12 m tile repeats in x and y
scene.set_emitter(0, vesk.sun_direction(30, 180), spectra.add("sun", [1.5, 1.0]))
scene.build()

vza = np.linspace(-80, 80, 17)
r = vk.simulate_brf_cpu(scene, vesk.principal_plane(vza, sun_azimuth_deg=180), 200_000)
for band, wl in enumerate(spectra.wavelengths):
    plt.plot(vza, r["brf"][:, band], "o-", label=f"{wl:.0f} nm")
plt.legend()
plt.gca().set(xlabel="view zenith (deg), + on the sun's side", ylabel="BRF",
              title="Principal plane, sun at 30 deg zenith")
vesk.save_figure("out/brf_principal_plane.png", dpi=80)
print(f"albedo {r['albedo'].round(3)}, hot spot BRF {r['brf'][list(vza).index(30)].round(3)}")
