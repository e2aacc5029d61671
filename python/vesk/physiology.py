"""Requests for the leaf solver (solve_physiology_cpu) with typical values filled in, and
fluorescence emission spectra from the light the leaves absorbed."""
import numpy as np

# A C3 broadleaf at 25 C in a mild, moist afternoon: units as solve_physiology_cpu reads.
TYPICAL_LEAF = dict(
    temperature=298.15,         # K
    co2=400.0,                  # umol mol-1
    relative_humidity=0.6,      # 0..1
    vpd=1.2,                    # kPa
    pressure=101.3,             # kPa
    wind=1.5,                   # m s-1
    vcmax25=60.0,               # umol m-2 s-1 at 25 C
    jmax25=120.0,               # umol m-2 s-1 at 25 C
    rd25=1.0,                   # umol m-2 s-1 at 25 C
    ball_berry_slope=9.0,
    ball_berry_intercept=0.01,  # mol m-2 s-1
    quantum_yield=0.03,         # 0..1
)


def leaf_request(apar, max_iterations=80, tolerance=1e-4, **values):
    """The request of solve_physiology_cpu for leaves with the absorbed PAR `apar`
    (umol m-2 s-1: one value a leaf, or (leaves, bands) summed over bands).
    Any value of TYPICAL_LEAF can be overridden by keyword, with one number for all
    leaves or one per leaf; other request keys ('dynamic_energy_balance' and its
    inputs) pass through as given."""
    from vesk.workflows import check_temperature

    apar = np.asarray(apar, np.float32)
    apar = apar[:, None] if apar.ndim == 1 else apar
    if "temperature" in values:
        check_temperature("temperature", values["temperature"])
    n = len(apar)
    request = {"apar": apar, "max_iterations": max_iterations, "tolerance": tolerance}
    for key, value in {**TYPICAL_LEAF, **values}.items():
        v = np.asarray(value)
        request[key] = np.broadcast_to(v, (n,)).astype(np.float32) if v.dtype != bool else value
    return request


# ---- solar-induced fluorescence --------------------------------------------------------

# Planck constant x speed of light x Avogadro constant, J m mol-1: a mole of photons of
# wavelength w (m) carries H_C_NA / w joules.
H_C_NA = 0.11962656
PAR_NM = (400.0, 700.0)  # the absorbed bands that excite fluorescence, inclusive


def sif_emission_shape(wavelengths_nm):
    """Photon spectrum of leaf fluorescence, nm-1, unit area over wavelength.

    A double Gaussian, the form fitted to leaf emission spectra by Zarco-Tejada et al.
    (2000, Remote Sens. Environ. 74, 582-595): a red peak at 685 nm (sigma 10 nm, mostly
    photosystem II) and a far-red peak at 740 nm (sigma 25 nm, photosystems I and II),
    the far-red peak holding two thirds of the photons, as leaves emit after their own
    chlorophyll has reabsorbed part of the red. Densities are per photon, not per watt.
    """
    wl = np.asarray(wavelengths_nm, np.float64)
    g = lambda mu, s: np.exp(-0.5 * ((wl - mu) / s) ** 2) / (s * np.sqrt(2 * np.pi))  # noqa: E731
    return (g(685.0, 10.0) + 2.0 * g(740.0, 25.0)) / 3.0


def _array(value, name, shape=None):
    a = np.asarray(value, np.float64)
    if shape is not None:
        try:
            a = np.broadcast_to(a, shape)
        except ValueError:
            raise ValueError(f"{name} has shape {np.shape(value)}, expected {shape}") from None
    if not np.isfinite(a).all():
        raise ValueError(f"{name} contains a non-finite value")
    return a


def sif_emission(absorbed_top, absorbed_bottom, wavelengths, phi_f, emission_wavelengths=None,
                 same_side_fraction=0.5):
    """Per-primitive fluorescence emission from absorbed light, counted in photons.

    absorbed_top, absorbed_bottom: (n, bands) energy absorbed on each side of every
    primitive in each band, W m-2 (per band, as the photosynthesis process takes it).
    wavelengths: (bands,) nm; the bands in 400..700 nm (inclusive) excite fluorescence.
    phi_f: (n,) or one number, the fluorescence yield in photons emitted per absorbed
    photon, as the photosynthesis process returns it. emission_wavelengths: (m,) nm at
    which to give the emission (default: `wavelengths`).

    Emitted photons = phi_f x absorbed PAR photons, with each band's energy turned into
    photons at its own wavelength; they are spread over wavelength by
    sif_emission_shape and turned back into energy at the emission wavelength, so the
    emitted energy is the absorbed energy x phi_f x (absorbing / emitting wavelength).
    Of the photons excited by light absorbed on one side, `same_side_fraction` leaves
    through that side and the rest through the other (0.5: evenly); each side emits as
    a Lambertian surface, radiance = spectral exitance / pi.

    Returns a dict: 'top', 'bottom' (n, m) radiance leaving each side, W m-2 sr-1 nm-1;
    'spectra' float32 (m * n,) band-major, the mean of the two sides, which is what
    set_primitive_sif_spectra takes (the backward tracer emits one radiance from both
    sides, so the mean keeps the emitted total); 'photons' (n,) emitted photons,
    umol m-2 s-1; and 'wavelengths' (m,) nm.
    """
    top = _array(absorbed_top, "absorbed_top")
    if top.ndim != 2:
        raise ValueError(f"absorbed_top must have shape (n, bands), not {top.shape}")
    bottom = _array(absorbed_bottom, "absorbed_bottom", top.shape)
    wl = _array(wavelengths, "wavelengths", top.shape[1:])
    phi = _array(phi_f, "phi_f", top.shape[:1])
    out_wl = wl if emission_wavelengths is None else _array(emission_wavelengths,
                                                            "emission_wavelengths")
    if out_wl.ndim != 1:
        raise ValueError("emission_wavelengths must be one-dimensional")
    if (top < 0).any() or (bottom < 0).any():
        raise ValueError("absorbed spectra cannot be negative")
    if not ((wl > 0).all() and (out_wl > 0).all()):
        raise ValueError("wavelengths must be positive (nm)")
    if ((phi < 0) | (phi > 1)).any():
        raise ValueError("phi_f must lie in [0, 1]")
    if not 0.0 <= same_side_fraction <= 1.0:
        raise ValueError("same_side_fraction must lie in [0, 1]")
    # umol of photons per joule in each exciting band; the others excite nothing.
    per_joule = np.where((wl >= PAR_NM[0]) & (wl <= PAR_NM[1]), wl * 1e-9 / H_C_NA * 1e6, 0.0)
    excited_top = phi * (top @ per_joule)  # umol m-2 s-1 emitted
    excited_bottom = phi * (bottom @ per_joule)
    f = same_side_fraction
    leaving_top = f * excited_top + (1 - f) * excited_bottom
    leaving_bottom = f * excited_bottom + (1 - f) * excited_top
    # W m-2 sr-1 nm-1 per umol m-2 s-1 emitted: the shape's photons at each wavelength,
    # in joules there, from a Lambertian side.
    joules = sif_emission_shape(out_wl) * 1e-6 * H_C_NA / (out_wl * 1e-9) / np.pi
    radiance_top = leaving_top[:, None] * joules[None, :]
    radiance_bottom = leaving_bottom[:, None] * joules[None, :]
    mean = 0.5 * (radiance_top + radiance_bottom)
    return {"top": radiance_top, "bottom": radiance_bottom,
            "spectra": np.ascontiguousarray(mean.T, np.float32).ravel(),
            "photons": excited_top + excited_bottom, "wavelengths": out_wl}
