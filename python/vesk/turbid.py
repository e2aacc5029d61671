"""The Turbid workflow in one call: a committed domain of leaf-area samples through
radiation, leaf longwave, physiology, and the thermal and SIF sources that images of
turbid crowns read.

    crowns = vesk.turbid_crowns(spectra, leaf, x, y, lai=0.5)
    scene.build()
    domain = vesk.turbid_domain(scene, crowns, budget=2048)
    chain = vesk.turbid_chain(spectra, domain, vesk.microclimate(298.15, 0.5))
    scene.set_sif_only_mode(True)        # the crowns now fluoresce in simulate_cpu
"""
import numpy as np

from vesk.workflows import (LEAF_EMISSIVITY, OPAQUE_EMISSIVITY, Microclimate, check_temperature,
                            leaf_parameters)

F = np.float32


def turbid_domain(scene, crowns, budget=2048, seed=0, quality="standard"):
    """Builds and commits one Turbid domain over the crowns that vesk.turbid_crowns made:
    one owner per crown instance, with the crowns' leaf area density and leaf angle
    distribution, `budget` samples per crown. Returns the domain id."""
    import vesk_gpu as vk

    medium = scene.optical_turbid_medium(0)
    owners = [{"owner_id": 1000 + k, "leaf_area_density": float(crowns["leaf_area_density"]),
               "leaf_length": max(float(medium["leaf_characteristic_length"]), 1e-3),
               "leaf_angle_distribution": int(medium["leaf_angle_type"]), "instance_id": int(inst)}
              for k, inst in enumerate(crowns["instances"])]
    return vk._build_turbid_domain_embree(scene, {"owners": owners, "sample_budget": int(budget),
                                                  "seed": int(seed), "quality": quality})["domain_id"]


def turbid_chain(spectra, domain_id, climate, *, leaf=None, leaf_temperature=None,
                 energy_balance=True, ground_temperature=None, rays_per_side=16,
                 longwave_rays=8, grid_dims=(4, 4, 4), apply=True, seed=0):
    """Radiation, physiology and image sources of a committed Turbid domain, under the
    sun and sky set through `spectra` (band widths turn its per-nm spectra into energy).

    1. _build_turbid_state_embree: absorbed shortwave per sample and side, sunlit
       probability, PAR of a sunlit and of a shaded leaf (rays_per_side reverse rays).
    2. With energy_balance: run_turbid_leaf_rrt_cpu with every leaf at the air temperature
       (or leaf_temperature) and every surface at ground_temperature (default: the air's),
       under climate's sky longwave: the longwave each sample absorbs (longwave_rays).
    3. _solve_turbid_physiology_embree: every sample a sunlit and a shaded leaf (the leaf
       solver), with `leaf` overriding TYPICAL_LEAF; with energy_balance their (5 cm)
       temperatures are solved from their own shortwave plus that longwave (one pass, the
       longwave at the first-guess temperatures).
    4. _build_turbid_thermal_source_embree and _build_turbid_sif_source_embree on the
       result, set on the scene when `apply`: a thermal render (set_thermal_mode) and a
       SIF-only render (set_sif_only_mode) then show the crowns' leaves.

    Returns a dict of the entries' results: 'radiation', 'longwave' (None without the
    energy balance), 'physiology', 'thermal', 'sif'; every array in the domain's sample
    order, states named by their token dicts under 'state'."""
    import vesk_gpu as vk

    if not isinstance(climate, Microclimate):
        raise ValueError("climate must come from vesk.microclimate(...)")
    scene = spectra.scene
    t_leaf = float(check_temperature("leaf_temperature", climate.air_temperature
                                     if leaf_temperature is None else leaf_temperature))
    t_ground = float(check_temperature("ground_temperature", climate.air_temperature
                                       if ground_temperature is None else ground_temperature))
    radiation = vk._build_turbid_state_embree(scene, {
        "domain_id": domain_id, "rays_per_side": rays_per_side, "seed": seed,
        "band_widths": np.asarray(spectra.widths, F)})
    request = {"state": radiation["state"], "temperature": t_leaf, "co2": climate.co2,
               "relative_humidity": climate.relative_humidity, "pressure": climate.pressure,
               "wind": climate.wind, "emissivity": LEAF_EMISSIVITY, **leaf_parameters(leaf)}
    longwave = None
    if energy_balance:
        n = scene.n_primitives()
        longwave = vk.run_turbid_leaf_rrt_cpu(scene, {
            "domain_id": domain_id, "temperature": t_leaf, "emissivity": LEAF_EMISSIVITY,
            "primitive_temperature": np.full(n, t_ground, F),
            "primitive_emissivity": np.full(n, OPAQUE_EMISSIVITY, F),
            "sky_lw_radiance": climate.sky_lw_radiance, "rays_per_side": longwave_rays,
            "seed": seed})
        request.update(energy_balance=True, absorbed_longwave=longwave["absorbed"],
                       air_temperature=climate.air_temperature,
                       vapor_pressure=climate.vapor_pressure,
                       leaf_width=0.05)
    physiology = vk._solve_turbid_physiology_embree(scene, request)
    thermal = vk._build_turbid_thermal_source_embree(scene, {"state": physiology["state"],
                                                             "apply": apply})
    sif = vk._build_turbid_sif_source_embree(scene, {"state": physiology["state"],
                                                     "grid_dims": list(grid_dims), "apply": apply})
    return {"radiation": radiation, "longwave": longwave, "physiology": physiology,
            "thermal": thermal, "sif": sif}
