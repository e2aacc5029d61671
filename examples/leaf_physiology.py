"""The physiology of 10 leaves of a tree: the light each one absorbs, then its
photosynthesis, stomatal conductance and fluorescence yield.

A tree stands alone on soil under a sun 30 degrees from the zenith. The forward tracer
runs in one PAR band whose sun "spectrum" is the PAR photon flux at normal incidence,
1800 umol m-2 s-1, so the energy each leaf triangle absorbs ('leaf', per primitive)
comes out in umol s-1, and over the triangle's area it is the leaf's APAR. Ten leaves
from the most shaded to the most sunlit go to the leaf solver with typical C3 values
(vesk.physiology.TYPICAL_LEAF). Printed as a table, drawn to out/leaf_physiology.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/leaf_physiology.py
"""
import matplotlib.pyplot as plt
import numpy as np

import vesk
import vesk_gpu as vk

scene = vk.EmbreeSceneManager()
spectra = vesk.Spectra(scene, wavelengths_nm=[550])  # one band for 400-700 nm
leaf = vesk.leaf(spectra, "leaf", reflectance=0.08, transmittance=0.06)
tree = vesk.make_tree(scene, leaf, vesk.lambertian(spectra, "bark", 0.15), leaf_size=0.3)
crown, _ = tree.plant(0.0, 0.0)
soil = vesk.lambertian(spectra, "soil", 0.1)
scene.add_instance(scene.add_mesh(**vk.make_ground_plane(3, 3, soil)))
scene.set_emitter(0, vesk.sun_direction(30, 180), spectra.add("sun", 1800.0))  # umol m-2 s-1
scene.build()

r = vk.simulate_forward_cpu(scene, num_photons=2_000_000, per_leaf=True)
leaves = tree.leaf_primitives(crown)  # the crown's triangles, two a leaf
apar = r["leaf"][leaves, 0] / scene.get_primitive_areas()[leaves]
apar = np.sort(apar)[np.linspace(0, len(apar) - 1, 10).astype(int)]  # shaded .. sunlit
out = vk.solve_physiology_cpu(scene, vesk.leaf_request(apar, temperature=298.15))
print("APAR, An (umol m-2 s-1), gs (mol m-2 s-1), phi_f:\n" + np.array2string(
    np.column_stack([apar, out["an"], out["gs"], out["phi_f"]]), precision=3, suppress_small=True))
plt.plot(apar, out["an"], "o-")
plt.gca().set(xlabel="absorbed PAR (umol m-2 s-1)", ylabel="net assimilation (umol m-2 s-1)",
              title="10 leaves of one crown, shaded to sunlit")
vesk.save_figure("out/leaf_physiology.png", dpi=80)
