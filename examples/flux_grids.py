"""Flux grids: where light arrives and where it leaves, cell by cell, over a plot of
trees, in red and near-infrared; also saved as a labelled netCDF file.

The flux grid lies over [0, W] x [0, H] from the world origin, W and H being the tile
of a repeated scene (here 24 m) or else the orthographic sensor's extent: it does not
follow the camera, so the plot is built over that square. 'downwelling' is the energy
arriving at surfaces in each cell, 'upwelling' the energy leaving it; both are energy
per cell (W nm-1 for a sun in W m-2 nm-1). Drawn to out/flux_grids.png, written to
out/flux_grids.nc.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/flux_grids.py
"""
import matplotlib.pyplot as plt
import numpy as np

import vesk
import vesk_gpu as vk

scene = vk.EmbreeSceneManager()
spectra = vesk.Spectra(scene, wavelengths_nm=[670, 860])
soil = vesk.lambertian(spectra, "soil", [0.25, 0.32])
leaf = vesk.leaf(spectra, "leaf", reflectance=[0.05, 0.45], transmittance=[0.03, 0.45])
tree = vesk.make_tree(scene, leaf, vesk.lambertian(spectra, "bark", [0.2, 0.3]))
tree.plant(*np.random.default_rng(5).uniform(2, 22, size=(2, 10)))
scene.add_instance(scene.add_mesh(**vk.make_ground_plane(12, 12, soil, 4.0)), 12, 12, 0)
scene.set_repetitive(20, 24.0, 24.0)  # the grid covers this 24 m tile
scene.set_emitter(0, vesk.sun_direction(40, 135), spectra.add("sun", [1.5, 1.0]))
scene.build()

r = vk.simulate_flux_cpu(scene, 24, 24, 1_000_000, 2, progress=vesk.progress_bar("flux"))
ds = vesk.to_xarray(r, scene)
fig, axes = plt.subplots(1, 3, figsize=(13, 3.6), sharey=True)
for ax, (name, wl) in zip(axes, [("downwelling", 670), ("upwelling", 670), ("upwelling", 860)]):
    ds[name].sel(wavelength=wl).plot(ax=ax, cmap="magma")
    ax.set(title=f"{name}, {wl} nm", aspect="equal")
vesk.save_figure("out/flux_grids.png", fig, dpi=70)  # creates out/
ds.to_netcdf("out/flux_grids.nc")
print(f"{ds.cell_area:g} m2 cells, red arriving {float(ds.downwelling[..., 0].sum()):.0f} W nm-1")
