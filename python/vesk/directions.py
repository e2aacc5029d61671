"""Directions and camera frames: a camera looking at a point, the sun from its angles,
and view directions in the principal plane.

Conventions (the scene's): +z is up; azimuths are compass bearings in degrees, clockwise
from +y (north) towards +x (east), as in the scan patterns; zenith angles in degrees
from +z. Directions returned here point away from the scene (towards the sun, towards
an observer), as set_emitter and simulate_brf_cpu take them.
"""
import numpy as np


def _unit(v, what):
    v = np.asarray(v, np.float64).reshape(3)
    n = np.linalg.norm(v)
    if not np.isfinite(n) or n == 0.0:
        raise ValueError(f"{what} must be a finite, nonzero vector")
    return v / n


def look_at(eye, target, up=(0.0, 0.0, 1.0)):
    """The cam_xform of a camera at `eye` looking at `target`, with `up` pointing up in
    the picture: 16 float32, a row-major 4x4 camera-to-world matrix whose columns are
    the camera's right, up and backward axes and its position (the camera looks down its
    own -z). Pass it to scene.set_sensor(..., cam_xform, ...).

    For a nadir (straight down) view, give an `up` that is not vertical, such as
    (0, 1, 0): north then points to the top of the picture."""
    eye = np.asarray(eye, np.float64).reshape(3)
    back = _unit(eye - np.asarray(target, np.float64).reshape(3), "eye - target")
    right = np.cross(_unit(up, "up"), back)
    if np.linalg.norm(right) < 1e-6:
        raise ValueError("up is parallel to the viewing direction; give another up vector")
    right /= np.linalg.norm(right)
    m = np.eye(4)
    m[:3, 0], m[:3, 1], m[:3, 2], m[:3, 3] = right, np.cross(back, right), back, eye
    return m.astype(np.float32).ravel()


def sun_direction(zenith_deg, azimuth_deg):
    """Unit vector towards the sun (float32, 3) for set_emitter: zenith angle from the
    vertical, azimuth as a compass bearing (0 north = +y, 90 east = +x, 180 south = -y).
    A sun in the south at 30 degrees zenith is sun_direction(30, 180) = (0, -0.5, 0.87).
    Photon tracers emit nothing for a sun within 0.6 degrees of the horizon; a zenith
    angle outside [0, 90) degrees (a sun at or below the horizon) is refused."""
    if not (np.isfinite(zenith_deg) and 0.0 <= zenith_deg < 90.0):
        raise ValueError(f"zenith_deg must lie in [0, 90): {zenith_deg} puts the sun at or "
                         "below the horizon")
    z, a = np.radians(zenith_deg), np.radians(azimuth_deg)
    return np.array([np.sin(z) * np.sin(a), np.sin(z) * np.cos(a), np.cos(z)], np.float32)


def view_direction(zenith_deg, azimuth_deg):
    """Unit vector towards an observer (float32, (..., 3)), with the angle conventions of
    sun_direction; arrays of angles give one direction per element."""
    z, a = np.radians(zenith_deg), np.radians(azimuth_deg)
    return np.stack([np.sin(z) * np.sin(a), np.sin(z) * np.cos(a), np.cos(z)],
                    axis=-1).astype(np.float32)


def principal_plane(vza_deg, sun_azimuth_deg=180.0):
    """BRF view directions in the sun's principal plane, flat float32 (3 per angle) as
    simulate_brf_cpu takes them. vza_deg: view zenith angles in (-90, 90); positive
    angles look from the sun's side (backscatter, where the hot spot is, at the sun's
    zenith angle), negative from the opposite side (forward scatter).
    sun_azimuth_deg: the sun's compass azimuth, as given to sun_direction."""
    vza = np.atleast_1d(np.asarray(vza_deg, np.float64))
    if not np.all(np.abs(vza) < 90.0):
        raise ValueError("view zenith angles must lie strictly between -90 and 90 degrees")
    azimuth = np.where(vza >= 0.0, sun_azimuth_deg, sun_azimuth_deg + 180.0)
    return view_direction(np.abs(vza), azimuth).ravel()
