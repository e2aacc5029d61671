"""Requests for the leaf solver (solve_physiology_cpu) with typical values filled in."""
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
    apar = np.asarray(apar, np.float32)
    apar = apar[:, None] if apar.ndim == 1 else apar
    n = len(apar)
    request = {"apar": apar, "max_iterations": max_iterations, "tolerance": tolerance}
    for key, value in {**TYPICAL_LEAF, **values}.items():
        v = np.asarray(value)
        request[key] = np.broadcast_to(v, (n,)).astype(np.float32) if v.dtype != bool else value
    return request
