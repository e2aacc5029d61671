"""fPAR per cell on a 4 x 4 grid: the fraction of the incoming PAR that the trees absorb
in each 5 m x 5 m column of a 20 m plot of 8 trees.

One PAR band, the sun 30 degrees from the zenith in the south-west plus a sky. Forward
photons give the energy absorbed by everything but the ground in each cell ('grid')
and the energy that came into each column ('incident_grid'): fPAR per cell is one
division. (Light that comes in slanted can be absorbed in the next column, so a cell
can absorb more than came in through its top.) The table is printed, north at the
top, and drawn to out/fpar_cells.png.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/fpar_cells.py
"""
import numpy as np

import vesk
import vesk_gpu as vk

scene = vk.EmbreeSceneManager()
spectra = vesk.Spectra(scene, wavelengths_nm=[550])  # one band for 400-700 nm
soil = vesk.lambertian(spectra, "soil", 0.12)
leaf = vesk.leaf(spectra, "leaf", reflectance=0.08, transmittance=0.06)
tree = vesk.make_tree(scene, leaf, vesk.lambertian(spectra, "bark", 0.15))
rng = np.random.default_rng(7)
tree.plant(*rng.uniform(2, 18, size=(2, 8)), scale=rng.uniform(0.8, 1.2, size=8))
ground = scene.add_instance(scene.add_mesh(**vk.make_ground_plane(10, 10, soil, 5.0)), 10, 10)
scene.set_repetitive(20, 20.0, 20.0)  # a stand that goes on: the grid is the tile
scene.set_emitter(0, vesk.sun_direction(30, 225), spectra.add("sun", 1.0))
scene.set_sky(spectra.add("sky", 0.05))
scene.build()

r = vk.simulate_forward_cpu(scene, nx=4, ny=4, num_photons=400_000, prob_sun=0.8,
                            terrain_instance_id=ground, progress=vesk.progress_bar("photons"))
ds = vesk.to_xarray(r, scene)
fpar = (ds.grid.sum("z") / ds.incident_grid).isel(wavelength=0)  # absorbed / incident
print(np.round(fpar.values[::-1], 3))
fpar.plot(vmin=0, vmax=1, cmap="Greens").axes.set_title("fPAR per 5 m cell")
vesk.save_figure("out/fpar_cells.png", dpi=80)
print(f"stand fPAR {float(ds.grid.sum() / ds.incident.sum()):.3f} -> out/fpar_cells.png")
