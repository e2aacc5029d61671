"""Scan patterns: pulse origins, unit directions and times for simulate_lidar_cpu.

Angles in degrees; azimuths clockwise from +y (north) towards +x (east); times in
seconds from the first pulse. Arrays come back flat (3 floats a pulse), as the
simulation takes them, with the pulse times beside them.
"""
import numpy as np


def airborne_line_scan(start, heading_deg, altitude, speed, pulse_rate, scan_angle_deg,
                       scan_rate, duration):
    """An oscillating line scanner flying a straight line at `altitude` over `start`
    (x, y): pulses at `pulse_rate` Hz while the mirror sweeps across track between
    -scan_angle_deg and +scan_angle_deg off nadir, `scan_rate` full sweeps (there and
    back) a second, for `duration` seconds at `speed` m/s along `heading_deg`.
    Returns (origins, directions, times)."""
    n = int(round(duration * pulse_rate))
    t = np.arange(n) / float(pulse_rate)
    h = np.radians(heading_deg)
    along = np.array([np.sin(h), np.cos(h), 0.0])
    across = np.array([np.cos(h), -np.sin(h), 0.0])  # to the right of the track
    # A triangle wave: -1 .. 1 .. -1 once per sweep.
    phase = (t * scan_rate) % 1.0
    swing = np.where(phase < 0.5, 4 * phase - 1, 3 - 4 * phase)
    angle = np.radians(scan_angle_deg) * swing
    origins = np.array([start[0], start[1], altitude]) + np.outer(speed * t, along)
    dirs = np.outer(np.sin(angle), across) + np.outer(np.cos(angle), [0.0, 0.0, -1.0])
    return (origins.astype(np.float32).ravel(), dirs.astype(np.float32).ravel(), t)


def terrestrial_scan(position, azimuth_deg=(0.0, 360.0), zenith_deg=(30.0, 130.0),
                     step_deg=0.5, pulse_rate=100000.0):
    """A terrestrial scanner at `position` (x, y, z): a grid of directions, azimuth
    outer and zenith inner (zenith 0 is straight up, 90 level), `step_deg` apart over
    the half-open ranges given. Returns (origins, directions, times)."""
    az = np.radians(np.arange(azimuth_deg[0], azimuth_deg[1], step_deg))
    zen = np.radians(np.arange(zenith_deg[0], zenith_deg[1], step_deg))
    a, z = np.meshgrid(az, zen, indexing="ij")
    dirs = np.stack([np.sin(z) * np.sin(a), np.sin(z) * np.cos(a), np.cos(z)], axis=-1)
    dirs = dirs.reshape(-1, 3)
    origins = np.tile(np.asarray(position, np.float64), (len(dirs), 1))
    times = np.arange(len(dirs)) / float(pulse_rate)
    return (origins.astype(np.float32).ravel(), dirs.astype(np.float32).ravel(), times)
