"""Microwave inputs from physical quantities: soil, vegetation and trunk tables for
vesk_gpu.simulate_microwave_cpu / simulate_active_microwave_cpu (and the Vulkan scene's
simulate_microwave / simulate_active_microwave), with the responses the module's soil and
trunk evaluators give for them, for a look before rendering.

    tables = vesk.microwave_tables(1.4e9, soil_moisture=0.25, sand=0.4, clay=0.2,
                                   canopy_water_content=2.0, canopy_height=6.0,
                                   trunk_radius=0.15, trunk_length=8.0)
    tb = vk.simulate_microwave_cpu(scene, material_map=mapping, **tables.inputs)

The material order is soil, vegetation, trunk (one of each here), so a material_map
entry is 0 for the soil, 1 for the crowns and 2 for the stems, and -1 for surfaces with
no microwave response.
"""
from dataclasses import dataclass, field

import numpy as np

import vesk_gpu as vk

F = np.float32
L_BAND_WAVELENGTH_M = 0.214  # 1.4 GHz
LIGHT_SPEED = 2.998e8
DIELECTRIC_MODELS = {"mironov": 0, "dobson": 1, "hallikainen": 2}


def soil_parameters(soil_moisture, sand, clay, temperature=295.0, deep_temperature=None,
                    roughness_h=0.0, polarisation_mixing=0.0, exponent_v=0.0, exponent_h=2.0,
                    rms_height=0.01, dielectric="mironov"):
    """The 12 soil fields of the evaluators: fractions 0..1, volumetric moisture m3/m3,
    kelvin, RMS height in metres. roughness_h, polarisation_mixing and the cosine
    exponents are the passive h-Q roughness model's (Wang & Choudhury 1981; smooth by
    default); rms_height drives the active model."""
    if dielectric not in DIELECTRIC_MODELS:
        raise ValueError(f"dielectric must be one of {sorted(DIELECTRIC_MODELS)}, got {dielectric!r}")
    for name, v, lo, hi in (("soil_moisture", soil_moisture, 0.0, 0.6), ("sand", sand, 0.0, 1.0),
                            ("clay", clay, 0.0, 1.0)):
        if not lo <= v <= hi:
            raise ValueError(f"{name} must lie in [{lo}, {hi}], got {v}")
    if sand + clay > 1.0:
        raise ValueError(f"sand + clay must not exceed 1, got {sand + clay}")
    if soil_moisture <= 0.0 and dielectric == "dobson":
        raise ValueError("the Dobson model needs soil_moisture > 0")
    deep = temperature if deep_temperature is None else deep_temperature
    return np.array([sand, clay, soil_moisture, roughness_h, exponent_v, exponent_h,
                     polarisation_mixing, temperature, deep, DIELECTRIC_MODELS[dielectric],
                     rms_height, 0.0], F)


def vegetation_optical_depth(frequency, canopy_water_content):
    """Nadir optical depth tau = b W of a canopy holding W kg/m2 of water (Jackson &
    Schmugge 1991), with b = 0.12 m2/kg at L band scaled as wavelength^-1.08, their fit
    over 1-10 GHz."""
    wavelength = LIGHT_SPEED / frequency
    return 0.12 * (L_BAND_WAVELENGTH_M / wavelength) ** 1.08 * canopy_water_content


def vegetation_parameters(frequency, canopy_water_content, canopy_height, albedo=0.06,
                          temperature=295.0):
    """One mw_veg_params row: extinction coefficient kappa_e = tau / height (1/m) of a
    layer canopy_height metres deep, single-scattering albedo, temperature (K)."""
    if canopy_height <= 0.0:
        raise ValueError(f"canopy_height must be positive (m), got {canopy_height}")
    if canopy_water_content < 0.0:
        raise ValueError(f"canopy_water_content must not be negative (kg/m2), got {canopy_water_content}")
    tau = vegetation_optical_depth(frequency, canopy_water_content)
    return np.array([tau / canopy_height, albedo, temperature], F)


def isotropic_mueller(scattering_coefficient, cross_fraction=0.15, bins=(8, 8, 8)):
    """A Mueller table (cti, cts, dphi, 4, 4) and its CDFs for a cloud of randomly oriented
    small scatterers: the phase matrix is the same for every pair of directions, its
    co-polarised part (1 - cross_fraction) and cross-polarised part cross_fraction of
    kappa_s / (4 pi) (1/(m sr)), so that it integrates to the scattering coefficient
    kappa_s (1/m). The CDFs are those of a uniform sampler."""
    n_cti, n_cts, n_dphi = bins
    p = scattering_coefficient / (4 * np.pi)
    lut = np.zeros((n_cti, n_cts, n_dphi, 4, 4), F)
    lut[..., 0, 0] = lut[..., 1, 1] = (1 - cross_fraction) * p
    lut[..., 0, 1] = lut[..., 1, 0] = cross_fraction * p
    lut[..., 2, 2] = lut[..., 3, 3] = (1 - 2 * cross_fraction) * p
    cos_cdf = np.tile(np.arange(1, n_cts + 1, dtype=F) / n_cts, n_cti)
    azimuth_cdf = np.tile(np.arange(1, n_dphi + 1, dtype=F) / n_dphi, n_cti * n_cts)
    return lut, cos_cdf, azimuth_cdf


def trunk_parameters(radius, length, moisture=0.5, temperature=295.0, axis=(0.0, 0.0, 1.0)):
    """One mw_trunk_params row: radius and length in metres, gravimetric wood moisture,
    kelvin, and the unit axis."""
    a = np.asarray(axis, float)
    if radius <= 0 or length <= 0:
        raise ValueError("trunk radius and length must be positive (m)")
    if not np.isfinite(a).all() or np.linalg.norm(a) == 0:
        raise ValueError(f"axis must be a non-zero direction, got {axis}")
    a = a / np.linalg.norm(a)
    return np.array([radius, length, moisture, temperature, *a], F)


@dataclass
class MicrowaveTables:
    """inputs: the keyword arguments of the simulations (frequency and the tables);
    angles_deg with soil_passive (H, V brightness K, H, V reflectivity), soil_active
    (sigma0 HH, HV, VH, VV) and trunk (H, V brightness K, H, V reflectivity): what the
    evaluators give at those incidence angles."""
    inputs: dict
    angles_deg: np.ndarray
    soil_passive: np.ndarray
    soil_active: np.ndarray
    trunk: np.ndarray = field(default=None)
    optical_depth: float = 0.0


def microwave_tables(frequency, soil_moisture, sand, clay, canopy_water_content=0.0,
                     canopy_height=1.0, trunk_radius=None, trunk_length=None,
                     wood_moisture=0.5, temperature=295.0, canopy_albedo=0.06,
                     cross_fraction=0.15, rms_height=0.01, dielectric="mironov"):
    """Soil, vegetation (a canopy of canopy_water_content kg/m2 of water over
    canopy_height m) and, with trunk_radius and trunk_length, trunk tables at frequency
    (Hz), one material of each, all at one temperature (K)."""
    if not frequency > 0:
        raise ValueError(f"frequency must be positive (Hz), got {frequency}")
    soil = soil_parameters(soil_moisture, sand, clay, temperature, rms_height=rms_height,
                           dielectric=dielectric)
    veg = vegetation_parameters(frequency, canopy_water_content, canopy_height, canopy_albedo,
                                temperature)
    inputs = {"frequency": float(frequency), "mw_soil_params": soil[None],
              "mw_veg_params": veg[None],
              "mw_veg_mueller_luts": [isotropic_mueller(veg[0] * veg[1], cross_fraction)],
              "mw_trunk_params": None}
    angles = np.arange(0.0, 81.0, 10.0)
    cos = np.cos(np.radians(angles)).astype(F)
    trunk = None
    if trunk_radius is not None or trunk_length is not None:
        if trunk_radius is None or trunk_length is None:
            raise ValueError("give both trunk_radius and trunk_length, or neither")
        row = trunk_parameters(trunk_radius, trunk_length, wood_moisture, temperature)
        inputs["mw_trunk_params"] = row[None]
        trunk = vk._evaluate_microwave_trunk(frequency, row, cos)
    return MicrowaveTables(inputs=inputs, angles_deg=angles,
                           soil_passive=vk._evaluate_microwave_soil(frequency, soil, cos, False),
                           soil_active=vk._evaluate_microwave_soil(frequency, soil, cos, True),
                           trunk=trunk,
                           optical_depth=float(vegetation_optical_depth(frequency,
                                                                        canopy_water_content)))
