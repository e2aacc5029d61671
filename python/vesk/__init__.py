"""vesk: the friendly side of the vesk_gpu simulator.

The simulations live in the compiled module `vesk_gpu` (imported here as `vesk.vk`);
this package helps set them up and read what they return:

  scene set-up   Spectra (named spectral blocks), lambertian, leaf, rpv (materials),
                 sun_direction, look_at, principal_plane, view_direction,
                 load_mesh (OBJ, PLY), make_tree (porous crowns of leaves), leaf_cloud
                 (a crown of small random leaves), turbid_crowns (crowns of
                 statistically described leaves that make a target leaf area index)
  running        progress_bar (tqdm), leaf_request (the leaf solver's inputs with
                 typical values), sif_emission (fluorescence spectra per primitive
                 from absorbed light, through photons)
  results        save_image (tone-mapped PNG), save_figure, to_xarray (labelled
                 Datasets, with .to_netcdf()), flux_extent
  workflows      microclimate (checked air state), energy_balance (shortwave, then leaf
                 temperature and photosynthesis, from the scene's own optics and sun;
                 an xarray Dataset per primitive), thermal_image (the solved
                 temperatures rendered on the same scene), brightness_temperature,
                 fluorescence (SIF from absorbed light to a SIF-only image),
                 simulate_flux (flux grids with sun and sky photons by their energy),
                 turbid_domain and turbid_chain (turbid crowns' leaf-area samples
                 through radiation, longwave, physiology and the thermal and SIF
                 sources that images of them read)
  LiDAR          simulate_lidar / lidar_returns (one intensity definition, sub-bin
                 ranges, hit instance and material), las_classes, write_las (LAS 1.4),
                 airborne_line_scan, terrestrial_scan
  microwave      microwave_tables (soil, vegetation and trunk inputs from moisture,
                 texture and canopy water content), vesk.microwave for the pieces

  distributed    vesk.distributed.simulate (imported on its own, since it needs Dask):
                 runs on a Dask cluster, identical bit for bit to one process

Conventions: +z up, metres, nanometres, kelvin; azimuths are compass bearings
(0 = north = +y, 90 = east = +x); image row 0 is the bottom of the picture.
"""
import vesk_gpu as vk

from vesk.directions import look_at, principal_plane, sun_direction, view_direction
from vesk.image import save_figure, save_image, tone_map
from vesk.labels import flux_extent, to_xarray
from vesk.las import write_las
from vesk.lidar import beam_sample_count, las_classes, lidar_returns, simulate_lidar
from vesk.mesh import Tree, leaf_cloud, load_mesh, make_tree, turbid_crowns
from vesk.microwave import MicrowaveTables, microwave_tables
from vesk.physiology import leaf_request, sif_emission, sif_emission_shape
from vesk.progress import progress_bar
from vesk.scan import airborne_line_scan, terrestrial_scan
from vesk.spectra import Spectra, lambertian, leaf, rpv
from vesk.workflows import (Microclimate, absorbed_shortwave, brightness_temperature,
                            energy_balance, fluorescence, microclimate, planck,
                            simulate_flux, sun_share, thermal_image)
from vesk.turbid import turbid_chain, turbid_domain

__version__ = vk.__version__

__all__ = ["vk", "Spectra", "lambertian", "leaf", "rpv", "sun_direction", "look_at",
           "principal_plane", "view_direction", "load_mesh", "make_tree", "leaf_cloud", "turbid_crowns", "Tree",
           "save_image", "save_figure", "tone_map", "leaf_request", "sif_emission",
           "sif_emission_shape", "to_xarray", "flux_extent", "progress_bar",
           "write_las", "las_classes", "lidar_returns", "simulate_lidar", "beam_sample_count",
           "airborne_line_scan", "terrestrial_scan", "microclimate", "Microclimate",
           "absorbed_shortwave", "energy_balance", "thermal_image", "brightness_temperature",
           "planck", "fluorescence", "simulate_flux", "sun_share", "microwave_tables",
           "MicrowaveTables", "turbid_domain", "turbid_chain"]
