"""Whole science chains on a scene built with vesk.Spectra: the energy balance of every
primitive, thermal images and brightness temperatures, and solar-induced fluorescence.

    spectra = vesk.Spectra(scene, [550, 1150], widths_nm=[300, 900])
    ...materials through vesk.lambertian / vesk.leaf, spectra.set_sun, spectra.set_sky...
    scene.build()
    air = vesk.microclimate(298.15, relative_humidity=0.55)
    ds = vesk.energy_balance(spectra, air)          # an xarray Dataset per primitive
    bt = vesk.brightness_temperature(vesk.thermal_image(spectra, ds.temperature), 10000)

The helpers read the optics, the band wavelengths and widths, the sun and the sky from
`spectra`, so the scene must be lit through Spectra.set_sun and Spectra.set_sky and its
materials made by vesk.lambertian, vesk.leaf or vesk.rpv. Leaves (vesk.leaf) are the
living, two-sided elements; every other material is opaque ground or wood whose
temperature is prescribed.

Sides: 'top' is the side a primitive's normal faces, 'bottom' the other. Opaque
materials absorb on their top side only (the ground's underside sees nothing).
"""
import dataclasses

import numpy as np

from vesk.physiology import H_C_NA, PAR_NM, TYPICAL_LEAF, sif_emission

F = np.float32
SIGMA = 5.670374419e-8        # Stefan-Boltzmann, W m-2 K-4
MIN_TEMPERATURE = 150.0       # K; below this a temperature is most likely in Celsius
C1, C2 = 1.1910429723971884e-16, 0.014387768775039337  # 2 h c^2 (W m2 sr-1), h c / k (m K)
LEAF_EMISSIVITY, OPAQUE_EMISSIVITY = 0.97, 0.95


def leaf_parameters(leaf):
    """The photosynthesis parameters: typical values, overridden by the dict `leaf`, whose
    keys must be among them."""
    physiology = {k: TYPICAL_LEAF[k] for k in ("vcmax25", "jmax25", "rd25", "ball_berry_slope",
                                               "ball_berry_intercept", "quantum_yield")}
    unknown = set(leaf or {}) - set(physiology)
    if unknown:
        raise ValueError(f"leaf: unknown parameters {sorted(unknown)}; known: {sorted(physiology)}")
    physiology.update(leaf or {})
    return physiology


def saturation_vapor_pressure(temperature_k):
    """Saturation vapour pressure over water, Pa, by the Magnus formula the leaf solver
    uses (610.78 Pa, 17.27, 237.3 K)."""
    t = np.asarray(temperature_k, np.float64) - 273.15
    return 610.78 * np.exp(17.27 * t / (t + 237.3))


def check_temperature(name, values):
    """Refuse temperatures that are not finite or lie below 150 K: those are most likely
    degrees Celsius."""
    v = np.asarray(values, np.float64)
    if not np.isfinite(v).all():
        raise ValueError(f"{name} contains a non-finite value")
    if (v < MIN_TEMPERATURE).any():
        raise ValueError(f"{name} must be in kelvin: {v.min():.2f} is below {MIN_TEMPERATURE:.0f} "
                         "K (is it in degrees Celsius? 25 C = 298.15 K)")
    return v


@dataclasses.dataclass(frozen=True)
class Microclimate:
    """The air around the canopy, given once for every step: air_temperature K,
    relative_humidity 0..1 and vapor_pressure Pa (consistent with each other), co2 umol
    mol-1, pressure kPa, wind m s-1, sky_lw_radiance W m-2 sr-1 (longwave from the sky).
    Make it with vesk.microclimate, which checks and completes it."""
    air_temperature: float
    relative_humidity: float
    vapor_pressure: float
    co2: float
    pressure: float
    wind: float
    sky_lw_radiance: float

    def request(self):
        """The scalar keys of the process requests."""
        return {k: float(v) for k, v in dataclasses.asdict(self).items()}


def microclimate(air_temperature, relative_humidity=None, vapor_pressure=None, co2=415.0,
                 pressure=101.3, wind=1.5, sky_lw_radiance=None, humidity_tolerance=0.02):
    """A checked Microclimate. air_temperature in K (values below 150 K are refused as
    probably Celsius). Give relative_humidity (0..1) or vapor_pressure (Pa), or both:
    the missing one is derived through the saturation vapour pressure at the air
    temperature, and two that differ by more than `humidity_tolerance` in relative
    humidity (0.02: two percentage points) are refused. co2 umol mol-1, pressure kPa,
    wind m s-1. sky_lw_radiance W m-2 sr-1: by default a clear sky of emissivity
    1.24 (e_a / T_a)^(1/7) (Brutsaert 1975, e_a in hPa), radiating eps sigma T_a^4 / pi."""
    ta = float(check_temperature("air_temperature", air_temperature))
    es = float(saturation_vapor_pressure(ta))
    if relative_humidity is None and vapor_pressure is None:
        raise ValueError("give relative_humidity (0..1) or vapor_pressure (Pa)")
    if relative_humidity is not None:
        rh = float(relative_humidity)
        if not 0.0 <= rh <= 1.0:
            hint = " (a fraction, not percent)" if 1.0 < rh <= 100.0 else ""
            raise ValueError(f"relative_humidity must lie in [0, 1]{hint}, not {rh}")
    if vapor_pressure is not None:
        ea = float(vapor_pressure)
        if not (np.isfinite(ea) and 0.0 <= ea <= 1.05 * es):
            raise ValueError(f"vapor_pressure must lie in [0, {es:.0f}] Pa (saturation at "
                             f"{ta:.2f} K), not {ea}")
    if relative_humidity is None:
        rh = min(ea / es, 1.0)
    elif vapor_pressure is None:
        ea = rh * es
    elif abs(ea / es - rh) > humidity_tolerance:
        raise ValueError(f"relative_humidity {rh:.3f} and vapor_pressure {ea:.0f} Pa disagree: "
                         f"at {ta:.2f} K that vapour pressure is a relative humidity of "
                         f"{ea / es:.3f} (saturation {es:.0f} Pa); give one of them")
    for name, value, low in (("co2", co2, 0.0), ("pressure", pressure, 1.0), ("wind", wind, 0.0)):
        if not (np.isfinite(value) and value >= low):
            raise ValueError(f"{name} must be a finite number of at least {low}, not {value}")
    if pressure > 200.0:
        raise ValueError(f"pressure is in kPa (101.3 at sea level), not {pressure}")
    if sky_lw_radiance is None:
        eps = min(1.24 * (ea / 100.0 / ta) ** (1.0 / 7.0), 1.0)
        sky_lw_radiance = eps * SIGMA * ta**4 / np.pi
    if not (np.isfinite(sky_lw_radiance) and sky_lw_radiance >= 0):
        raise ValueError("sky_lw_radiance must be a finite, non-negative radiance (W m-2 sr-1)")
    return Microclimate(ta, rh, ea, float(co2), float(pressure), float(wind), float(sky_lw_radiance))


def _per_material(scene_mids, values, leaf_mask, leaf_default, other_default, name):
    """One value per primitive from a number, a {material id: value} dict or an array."""
    if values is None:
        return np.where(leaf_mask, leaf_default, other_default)
    if isinstance(values, dict):
        out = np.where(leaf_mask, leaf_default, other_default).astype(np.float64)
        for mid, v in values.items():
            out[scene_mids == mid] = v
        return out
    v = np.asarray(values, np.float64)
    try:
        return np.broadcast_to(v, scene_mids.shape).copy()
    except ValueError:
        raise ValueError(f"{name}: give one number, a dict by material id, or one value per "
                         f"primitive ({len(scene_mids)}), not shape {v.shape}") from None


def scene_optics(spectra):
    """Per-primitive optics of the built scene, (bands, primitives) float32 each: front
    reflectance, back reflectance, transmittance; and the bool leaf mask."""
    mids = np.asarray(spectra.scene.get_primitive_mat_ids())
    n, nb = len(mids), spectra.n_bands
    r, rb, t = (np.zeros((nb, n), F) for _ in range(3))
    is_leaf = np.zeros(n, bool)
    for mid in np.unique(mids):
        front, back, trans, two_sided = spectra.optics(int(mid))
        sel = mids == mid
        r[:, sel], rb[:, sel], t[:, sel] = front[:, None], back[:, None], trans[:, None]
        is_leaf[sel] = two_sided
    return r, rb, t, is_leaf


def par_photons_per_joule(wavelengths):
    """umol of photons per joule in each band: at the band's wavelength inside 400..700
    nm (inclusive), 0 outside."""
    wl = np.asarray(wavelengths, np.float64)
    return np.where((wl >= PAR_NM[0]) & (wl <= PAR_NM[1]), wl * 1e-9 / H_C_NA * 1e6, 0.0)


def absorbed_shortwave(spectra, n_samples=32, max_depth=8):
    """The shortwave step on the built scene: multi-band reverse transport with the scene's
    own optics, sun and sky. Returns a dict of float64 arrays: 'incident_top',
    'incident_bottom' (bands, n) W m-2 arriving on each side; 'absorbed_top',
    'absorbed_bottom' (bands, n) W m-2 absorbed there (incident x (1 - r - t) on that
    side; opaque materials absorb on top only); 'sunlit_fraction' (n,); 'is_leaf' (n,)."""
    import vesk_gpu as vk

    scene = spectra.scene
    if not scene.is_built():
        raise ValueError("build the scene (scene.build()) before the shortwave step")
    if spectra.sun_name is None and spectra.sky_name is None:
        raise ValueError("the scene has no light: set it with spectra.set_sun / spectra.set_sky")
    r, rb, t, is_leaf = scene_optics(spectra)
    sun = spectra.sun_vector if spectra.sun_vector is not None else np.array([0.0, 0.0, 1.0])
    top, bot, sunlit = vk.run_energy_balance_multiband_cpu(
        scene, spectra.n_bands, n_samples=n_samples, max_depth=max_depth,
        sun_irradiance=spectra.sun_irradiance().astype(F),
        sky_diffuse_radiance=spectra.sky_radiance().astype(F),
        sun_dir_x=float(sun[0]), sun_dir_y=float(sun[1]), sun_dir_z=float(sun[2]),
        sw_reflectance=r, sw_back_reflectance=rb, sw_transmittance=t)
    top = np.asarray(top, np.float64).reshape(spectra.n_bands, -1)
    bot = np.asarray(bot, np.float64).reshape(spectra.n_bands, -1)
    abs_top = top * (1.0 - r - t)
    abs_bot = np.where(is_leaf, bot * (1.0 - rb - t), 0.0)
    return {"incident_top": top, "incident_bottom": bot, "absorbed_top": abs_top,
            "absorbed_bottom": abs_bot, "sunlit_fraction": np.asarray(sunlit, np.float64),
            "is_leaf": is_leaf}


# name: (unit, side, meaning) of every array energy_balance returns
ENERGY_VARIABLES = {
    "incident_top": ("W m-2", "top", "shortwave arriving per band"),
    "incident_bottom": ("W m-2", "bottom", "shortwave arriving per band"),
    "absorbed_top": ("W m-2", "top", "shortwave absorbed per band"),
    "absorbed_bottom": ("W m-2", "bottom", "shortwave absorbed per band"),
    "absorbed_shortwave": ("W m-2", "both", "shortwave absorbed, all bands and both sides"),
    "apar": ("umol m-2 s-1", "both", "PAR photons absorbed (bands in 400-700 nm)"),
    "sunlit_fraction": ("1", "both", "share of sample rays that see the sun"),
    "temperature": ("K", "element", "solved temperature (prescribed for non-leaves)"),
    "absorbed_longwave_top": ("W m-2", "top", "longwave absorbed"),
    "absorbed_longwave_bottom": ("W m-2", "bottom", "longwave absorbed"),
    "absorbed_longwave": ("W m-2", "both", "longwave absorbed"),
    "emitted_longwave": ("W m-2", "both", "longwave emitted"),
    "net_radiation": ("W m-2", "both", "absorbed short- and longwave minus emitted"),
    "sensible_heat": ("W m-2", "both", "sensible heat to the air"),
    "latent_heat": ("W m-2", "both", "latent heat of transpiration"),
    "ground_heat": ("W m-2", "element", "heat sink into the ground"),
    "an": ("umol m-2 s-1", "element", "net CO2 assimilation"),
    "gs": ("mol m-2 s-1", "element", "stomatal conductance to water vapour"),
    "ci": ("umol mol-1", "element", "intercellular CO2"),
    "phi_f": ("1", "element", "fluorescence yield, photons emitted per absorbed photon"),
    "is_leaf": ("", "element", "a living, two-sided leaf (vesk.leaf)"),
    "material_id": ("", "element", "the primitive's material"),
    "area": ("m2", "element", "one-sided area"),
}


def energy_balance(spectra, climate, process="photosynthesis", *, ground_temperature=None,
                   emissivity=None, leaf=None, leaf_width=0.05, stomatal_conductance=0.2,
                   n_samples=32, max_depth=8, n_longwave_samples=16, max_iterations=30,
                   convergence_tolerance=0.01, damping=0.8):
    """Energy balance of every primitive of the built scene, from its own materials, bands,
    sun and sky, under `climate` (vesk.microclimate). Three steps:

    1. absorbed_shortwave: multi-band reverse transport (n_samples rays per primitive and
       side, max_depth scattering events), then absorbed = incident x (1 - r - t) per
       side and band, and the absorbed PAR in photons at each band's wavelength;
    2. process "photosynthesis": execute_photosynthesis_process_dynamic_cpu solves leaf
       temperature, stomata and assimilation together, coupled through the longwave the
       primitives exchange; process "energy_balance": execute_energy_balance_process_cpu
       with fixed exchange coefficients: a sensible-heat derivative 2 cp g_Ha and a
       latent coefficient lambda g_v / P per leaf, g_Ha = 0.135 sqrt(wind / leaf_width)
       and g_v the boundary layer (0.147 sqrt(wind / leaf_width)) in series with
       `stomatal_conductance` (mol m-2 s-1; Campbell and Norman 1998, ch. 7);
    3. the results, labelled.

    Only leaves (vesk.leaf) are solved; other primitives keep `ground_temperature` (K:
    a number, one per primitive, a {material id: K} dict, or a callable of the sunlit
    fraction; default the air temperature) and radiate on the leaves. emissivity: a
    number, dict by material id or array (default 0.97 for leaves, 0.95 otherwise).
    leaf: overrides of the leaf's physiology (vcmax25, jmax25, rd25, ball_berry_slope,
    ball_berry_intercept, quantum_yield; defaults vesk.physiology.TYPICAL_LEAF).

    Returns an xarray.Dataset over 'primitive' (and 'wavelength' for per-band arrays);
    every variable's attrs give its 'units' and 'side' (top, bottom, both summed, or
    element for a property of the whole primitive); the names, as listed in
    ENERGY_VARIABLES: incident_top, incident_bottom, absorbed_top, absorbed_bottom
    (W m-2 per band), absorbed_shortwave (W m-2), apar (umol m-2 s-1), sunlit_fraction,
    temperature (K), absorbed_longwave_top/_bottom, absorbed_longwave,
    emitted_longwave, net_radiation, sensible_heat, latent_heat (W m-2), an (umol m-2
    s-1), gs (mol m-2 s-1), ci (umol mol-1), phi_f (photosynthesis) or ground_heat
    (energy_balance), is_leaf, material_id and area (m2). Attrs: 'process',
    'iterations', 'converged' and the microclimate.
    """
    import xarray as xr

    import vesk_gpu as vk

    if not isinstance(climate, Microclimate):
        raise ValueError("climate must come from vesk.microclimate(...)")
    if process not in ("photosynthesis", "energy_balance"):
        raise ValueError(f"process must be 'photosynthesis' or 'energy_balance', not {process!r}")
    scene = spectra.scene
    sw = absorbed_shortwave(spectra, n_samples, max_depth)
    is_leaf = sw["is_leaf"]
    mids = np.asarray(scene.get_primitive_mat_ids())
    n = len(mids)
    if callable(ground_temperature):
        ground_temperature = ground_temperature(sw["sunlit_fraction"])
    ground = _per_material(mids, ground_temperature, is_leaf, climate.air_temperature,
                           climate.air_temperature, "ground_temperature")
    check_temperature("ground_temperature", ground)
    initial = np.where(is_leaf, climate.air_temperature, ground)
    eps = _per_material(mids, emissivity, is_leaf, LEAF_EMISSIVITY, OPAQUE_EMISSIVITY, "emissivity")
    if ((eps < 0) | (eps > 1)).any():
        raise ValueError("emissivity must lie in [0, 1]")
    absorbed = sw["absorbed_top"] + sw["absorbed_bottom"]
    apar = par_photons_per_joule(spectra.wavelengths) @ absorbed
    full = lambda v: np.broadcast_to(np.asarray(v, F), (n,)).copy()  # noqa: E731
    loop = dict(n_samples=n_longwave_samples, max_iterations=max_iterations,
                convergence_tolerance=convergence_tolerance, damping=damping)
    if process == "photosynthesis":
        physiology = leaf_parameters(leaf)
        result = vk.execute_photosynthesis_process_dynamic_cpu(scene, dict(
            active=is_leaf.astype(np.uint8), fluorescent=is_leaf.astype(np.uint8),
            apar=apar.astype(F), absorbed_shortwave=absorbed.sum(axis=0).astype(F),
            initial_temperature=initial.astype(F), emissivity=eps.astype(F),
            sidedness=np.where(is_leaf, 2.0, 1.0).astype(F), leaf_width=full(leaf_width),
            stomata_sides=full(1), **{k: full(v) for k, v in physiology.items()},
            **climate.request(), **loop))
    else:
        g_ha = 0.135 * np.sqrt(climate.wind / leaf_width)       # mol m-2 s-1, one side
        g_va = 0.147 * np.sqrt(climate.wind / leaf_width)
        g_v = 1.0 / (1.0 / g_va + 1.0 / stomatal_conductance)
        result = vk.execute_energy_balance_process_cpu(scene, dict(
            active=is_leaf.astype(np.uint8), initial_temperature=initial.astype(F),
            emissivity=eps.astype(F), sidedness=np.where(is_leaf, 2.0, 1.0).astype(F),
            sensible_derivative=full(2.0 * 29.3 * g_ha),           # W m-2 K-1
            latent_coefficient=full(44000.0 * g_v / (climate.pressure * 1e3)),  # W m-2 Pa-1
            ground_heat=full(0.0), sw_albedo=full(0.0),
            air_temperature=climate.air_temperature, vapor_pressure=climate.vapor_pressure,
            sky_lw_radiance=climate.sky_lw_radiance, precomputed_shortwave=True,
            absorbed_shortwave_top=sw["absorbed_top"].sum(axis=0).astype(F),
            absorbed_shortwave_bottom=sw["absorbed_bottom"].sum(axis=0).astype(F), **loop))
    arrays = {k: sw[k] for k in ("incident_top", "incident_bottom", "absorbed_top",
                                 "absorbed_bottom", "sunlit_fraction", "is_leaf")}
    arrays.update(absorbed_shortwave=absorbed.sum(axis=0), apar=apar, material_id=mids,
                  area=np.asarray(scene.get_primitive_areas(), np.float64))
    for key in ENERGY_VARIABLES:
        if key not in arrays and key in result:
            arrays[key] = np.asarray(result[key])
    data = {}
    for key, value in arrays.items():
        unit, side, meaning = ENERGY_VARIABLES[key]
        dims = ("wavelength", "primitive") if np.ndim(value) == 2 else ("primitive",)
        data[key] = (dims, value, {"units": unit, "side": side, "long_name": meaning})
    attrs = {"process": process, "iterations": int(result["iterations"]),
             "converged": int(bool(result["converged"])), **climate.request()}
    return xr.Dataset(data, coords={
        "primitive": np.arange(n),
        "wavelength": ("wavelength", spectra.wavelengths.astype(np.float64),
                       {"units": "nm", "long_name": "band centre"}),
        "band_width": ("wavelength", spectra.widths, {"units": "nm"})}, attrs=attrs)


# ---- thermal images ----------------------------------------------------------------------

def planck(wavelength_nm, temperature):
    """Blackbody spectral radiance, W m-2 sr-1 nm-1, with the module's constants."""
    lam = np.asarray(wavelength_nm, np.float64) * 1e-9
    t = np.asarray(temperature, np.float64)
    with np.errstate(over="ignore", divide="ignore"):
        return np.where(t > 0, C1 / (lam**5 * np.expm1(C2 / (lam * np.where(t > 0, t, 1.0)))) * 1e-9,
                        0.0)


def brightness_temperature(radiance, wavelength_nm):
    """The temperature (K) of the blackbody with spectral radiance `radiance` (W m-2 sr-1
    nm-1) at `wavelength_nm`: Planck inverted, T = c2 / (lambda ln(1 + c1 / (lambda^5 L))),
    with the module's constants. Non-positive radiances give 0 K (what emits nothing)."""
    L = np.asarray(radiance, np.float64)
    lam = np.asarray(wavelength_nm, np.float64) * 1e-9
    if not np.all(lam > 0):
        raise ValueError("wavelength_nm must be positive")
    positive = np.isfinite(L) & (L > 0)
    safe = np.where(positive, L, 1.0) * 1e9  # per metre of wavelength
    return np.where(positive, C2 / (lam * np.log1p(C1 / (lam**5 * safe))), 0.0)


def thermal_image(spectra, temperatures, wavelength_nm=10000.0, *, emissivity=None,
                  sky_radiance=None, spp=8, max_depth=4):
    """Publish per-primitive temperatures (K, one per primitive: an energy_balance
    'temperature') onto the scene and render its sensor in thermal mode at one wavelength.
    Returns the (height, width) radiance image, W m-2 sr-1 nm-1, rows as the payloads
    (row 0 at the bottom). emissivity: one number or a {material id: value} dict
    (default 0.97 for leaves, 0.95 otherwise); each material reflects 1 - emissivity
    diffusely and transmits nothing; sky_radiance W m-2 sr-1 nm-1 (default a 245 K blackbody).

    The same scene is re-lit for the render (clear_for_reuse, thermal materials, then
    back): its optical materials, sun, sky and band wavelengths are restored afterwards
    and the temperatures stay on it; SIF-only mode is left off. Scenes with turbid media
    are refused (the re-lighting would drop them)."""
    import vesk_gpu as vk

    scene = spectra.scene
    if not scene.is_built():
        raise ValueError("build the scene before rendering it")
    if scene.num_optical_turbid_media():
        raise ValueError("thermal_image re-lights the scene and cannot keep its turbid media")
    n, nb = scene.n_primitives(), spectra.n_bands
    temps = np.asarray(temperatures, np.float64)
    if temps.shape != (n,):
        raise ValueError(f"temperatures must hold one value per primitive ({n}), not shape {temps.shape}")
    check_temperature("temperatures", temps)
    if not (np.isfinite(wavelength_nm) and wavelength_nm > 0):
        raise ValueError("wavelength_nm must be positive")
    ids = sorted(spectra.materials)
    if ids != list(range(len(ids))):
        raise ValueError("every material of the scene must be made through this Spectra")
    leaf_ids = {m for m in ids if spectra.materials[m][0] == 13}
    eps = {m: (LEAF_EMISSIVITY if m in leaf_ids else OPAQUE_EMISSIVITY) for m in ids}
    if isinstance(emissivity, dict):
        eps.update(emissivity)
    elif emissivity is not None:
        eps = {m: float(emissivity) for m in ids}
    if any(not 0.0 <= e <= 1.0 for e in eps.values()):
        raise ValueError("emissivity must lie in [0, 1]")
    sky = planck(wavelength_nm, 245.0) if sky_radiance is None else float(sky_radiance)
    if not (np.isfinite(sky) and sky >= 0):
        raise ValueError("sky_radiance must be finite and non-negative")
    wavelengths = [float(w) for w in spectra.wavelengths]
    was_thermal = scene.thermal_mode()
    scene.clear_for_reuse()
    try:
        scene.set_num_bands(nb)
        thermal = np.repeat([eps[m] for m in ids] + [sky], nb).astype(F)
        scene.upload_spectral_params(thermal)
        for m in ids:
            scene.add_material(0, m * nb, [0.0, 0.0, 0.0])
        scene.set_sky(len(ids) * nb)
        scene.set_thermal_mode(True, [float(wavelength_nm)] * nb)
        scene.build_reuse_gas()
        scene.set_primitive_temperatures(temps.astype(F))
        image = vk.simulate_cpu(scene, spp=spp, max_depth=max_depth)["payload"][:, :, 0]
    finally:
        scene.clear_for_reuse()
        scene.set_num_bands(nb)
        scene.upload_spectral_params(spectra.buffer)
        for m in ids:
            type_, name, params = spectra.materials[m]
            scene.add_material(type_, spectra[name], params)
        if spectra.sun_name is not None:
            scene.set_emitter(0, spectra.sun_vector.astype(F), spectra[spectra.sun_name])
        if spectra.sky_name is not None:
            scene.set_sky(spectra[spectra.sky_name])
        scene.set_thermal_mode(was_thermal, wavelengths)
        scene.build_reuse_gas()
    return np.asarray(image, np.float64)


# ---- solar-induced fluorescence -----------------------------------------------------------

def fluorescence(spectra, climate, *, leaf_temperature=None, leaf=None, num_photons=300000,
                 emission_wavelengths=None, same_side_fraction=0.5, spp=8, max_depth=4):
    """Solar-induced fluorescence of the built scene's leaves, and what its sensor sees of
    it. Five steps on the scene's own optics, sun and sky:

    1. simulate_forward_cpu with per_leaf=True: the light each primitive absorbs, per
       band, turned into W m-2 of leaf (energy / area x band width);
    2. execute_photosynthesis_process_static_cpu: assimilation and the fluorescence
       yield phi_f per leaf (vesk.leaf materials) at `leaf_temperature` K (default the
       air temperature), with climate's co2 and relative humidity; `leaf` overrides the
       physiology of TYPICAL_LEAF;
    3. finalize_sif_process_cpu: the yields and the absorbed spectra in the bands that
       excite fluorescence (400-700 nm);
    4. vesk.sif_emission: emission spectra counted in photons, at the scene's band
       wavelengths, uploaded with set_primitive_sif_spectra;
    5. simulate_cpu in SIF-only mode (spp, max_depth), which is switched off again after.

    In SIF-only mode the emitted light still scatters on its way to the sensor, so the
    soil under a canopy shows the fluorescence it reflects, although it emits none.

    Returns a dict: 'image' (height, width, bands) W m-2 sr-1 nm-1, rows as the payloads
    (row 0 at the bottom); 'emission' the vesk.sif_emission dict ('top', 'bottom' per
    primitive, W m-2 sr-1 nm-1); 'photosynthesis' the static process result ('an',
    'phi_f', ...); 'finalized' the finalisation result; 'absorbed' (n, bands) W m-2;
    'is_leaf' (n,) bool; 'excitation' the indices of the exciting bands.
    emission_wavelengths: also give 'emission_fine', the emission of the leaves at these
    wavelengths (nm), e.g. to plot their spectrum finely.
    """
    import vesk_gpu as vk

    if not isinstance(climate, Microclimate):
        raise ValueError("climate must come from vesk.microclimate(...)")
    scene = spectra.scene
    if not scene.is_built():
        raise ValueError("build the scene before the fluorescence chain")
    if spectra.sun_name is None:
        raise ValueError("fluorescence needs a sun: spectra.set_sun(...)")
    t_leaf = climate.air_temperature if leaf_temperature is None else leaf_temperature
    t_leaf = float(check_temperature("leaf_temperature", t_leaf))
    _, _, _, is_leaf = scene_optics(spectra)
    n, nb, wl = scene.n_primitives(), spectra.n_bands, spectra.wavelengths
    area = np.asarray(scene.get_primitive_areas(), np.float64)
    fwd = vk.simulate_forward_cpu(scene, num_photons=num_photons, num_bands=nb, per_leaf=True)
    absorbed = np.asarray(fwd["leaf"], np.float64).reshape(n, nb) / np.maximum(area, 1e-30)[:, None]
    absorbed = np.where(is_leaf[:, None], absorbed * spectra.widths, 0.0).astype(F)
    physiology = leaf_parameters(leaf)
    zeros = np.zeros((n, nb), F)
    material = np.where(is_leaf, 0, -1).astype(np.int32)  # one leaf kind
    ps = vk.execute_photosynthesis_process_static_cpu(scene, dict(
        absorbed_top=absorbed, absorbed_bottom=zeros, absorbed_direct=zeros, wavelengths=wl,
        sunlit_fraction=np.zeros(n, F), material_ids=material,
        material_active=np.ones(1, np.uint8), material_fluorescent=np.ones(1, np.uint8),
        temperature_sunlit=np.full(n, t_leaf, F), temperature_shaded=np.full(n, t_leaf, F),
        **{k: np.array([v], F) for k, v in physiology.items()}, co2=climate.co2,
        relative_humidity=climate.relative_humidity, max_iterations=100, tolerance=1e-3))
    excitation = np.flatnonzero((wl >= PAR_NM[0]) & (wl <= PAR_NM[1])).astype(np.int32)
    if len(excitation) == 0:
        raise ValueError("no band lies in 400-700 nm, so nothing excites fluorescence")
    fin = vk.finalize_sif_process_cpu(scene, dict(
        absorbed_top=absorbed, absorbed_bottom=zeros, material_ids=material,
        material_phi_f=np.zeros(1, F), selected_band_indices=excitation,
        element_phi_f=ps["phi_f"]))
    args = (fin["absorbed_top_selected"], fin["absorbed_bottom_selected"], wl[excitation], fin["phi_f"])
    emission = sif_emission(*args, emission_wavelengths=wl, same_side_fraction=same_side_fraction)
    scene.set_primitive_sif_spectra(emission["spectra"], nb)
    scene.set_sif_only_mode(True)
    try:
        image = vk.simulate_cpu(scene, spp=spp, max_depth=max_depth)["payload"]
    finally:
        scene.set_sif_only_mode(False)
    out = {"image": image, "emission": emission, "photosynthesis": ps, "finalized": fin,
           "absorbed": absorbed, "is_leaf": is_leaf, "excitation": excitation}
    if emission_wavelengths is not None:
        out["emission_fine"] = sif_emission(*(a[is_leaf] for a in args[:2]), args[2], args[3][is_leaf],
                                            emission_wavelengths=emission_wavelengths,
                                            same_side_fraction=same_side_fraction)
    return out


# ---- flux grids ---------------------------------------------------------------------------

def sun_share(spectra):
    """The share of the light reaching a horizontal plane that comes straight from the
    sun, summed over bands: E_sun cos(sun zenith) / (E_sun cos(sun zenith) + pi L_sky),
    with the band widths as weights (1 without a sky, 0 without a sun)."""
    sun = spectra.sun_irradiance().sum() * (spectra.sun_vector[2] if spectra.sun_vector is not None else 0.0)
    sky = np.pi * spectra.sky_radiance().sum()
    if sun + sky <= 0:
        raise ValueError("the scene has no light: set it with spectra.set_sun / spectra.set_sky")
    return float(sun / (sun + sky))


def simulate_flux(spectra, nx, ny, num_photons, prob_sun=None, **options):
    """simulate_flux_cpu on the scene of `spectra`, labelled by vesk.to_xarray.

    prob_sun, the share of photons started from the sun rather than the sky: by default
    the sun's share of the light on a horizontal plane (sun_share), so that sun and sky
    both get photons in proportion to their energy. (The module's own default, 1.0,
    starts every photon from the sun and so leaves a set sky out.) The choice is
    recorded in the Dataset's attrs as 'prob_sun'. options: the other keywords of
    simulate_flux_cpu (max_bounces, max_depth, rr_depth, decompose, progress,
    first_photon).

    What the grids sum, per cell and band, in W nm-1 (sun in W m-2 nm-1; divide by
    'cell_area' for W m-2 nm-1): 'downwelling' is the energy of every arrival of a
    photon at a surface, of every scattering order, charged to the cell under that
    surface; a photon that crosses several leaves of a column is counted at each, so a
    cell under a canopy can gather more than the light falling on it from above.
    'upwelling' is the energy leaving surfaces of the cell, to another cell or out of
    the scene. With decompose=True, 'downwelling_direct' holds what sun photons bring
    (all their scattering orders) and 'downwelling_diffuse' what sky photons bring.
    """
    import vesk_gpu as vk

    from vesk.labels import to_xarray

    if prob_sun is None:
        prob_sun = sun_share(spectra)
    if not 0.0 <= prob_sun <= 1.0:
        raise ValueError(f"prob_sun must lie in [0, 1], not {prob_sun}")
    result = vk.simulate_flux_cpu(spectra.scene, nx, ny, num_photons, spectra.n_bands,
                                  prob_sun=prob_sun, **options)
    ds = to_xarray(result, spectra.scene)
    ds.attrs["prob_sun"] = prob_sun
    return ds
