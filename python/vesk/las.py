"""LAS 1.4 point clouds (ASPRS LAS 1.4 R15), point data record format 6, written by hand.

Each point record holds scaled int32 XYZ, intensity scaled to uint16, return number and
number of returns, the classification (from the material each point hit, through a
user map), the scan angle (0.006 degree steps off nadir, + east), GPS time (the pulse
time, or the pulse index) and a point source id, followed by two extra-byte float32
fields, `energy` (the return energy in J, as vesk.lidar defines it) and `range`
(metres). The WKT bit is set, with a WKT VLR: a local engineering
coordinate system in metres unless one is given.
"""
import datetime
import struct

import numpy as np

HEADER_SIZE = 375
POINT_FORMAT = 6
BASE_RECORD = 30
EXTRA_FIELDS = (("energy", "simulated return energy (J)"), ("range", "range from the scanner (m)"))
RECORD_LENGTH = BASE_RECORD + 4 * len(EXTRA_FIELDS)
LOCAL_WKT = ('LOCAL_CS["vesk scene",LOCAL_DATUM["scene coordinates",0],UNIT["metre",1],'
             'AXIS["X",EAST],AXIS["Y",NORTH],AXIS["Z",UP]]')

RECORD = np.dtype([("X", "<i4"), ("Y", "<i4"), ("Z", "<i4"), ("intensity", "<u2"),
                   ("returns", "u1"), ("flags", "u1"), ("classification", "u1"),
                   ("user_data", "u1"), ("scan_angle", "<i2"), ("point_source_id", "<u2"),
                   ("gps_time", "<f8"), ("energy", "<f4"), ("range", "<f4")])
assert RECORD.itemsize == RECORD_LENGTH


def _vlr(user_id, record_id, description, payload):
    return struct.pack("<H16sHH32s", 0, user_id.encode(), record_id, len(payload),
                       description.encode()) + payload


def _extra_bytes_descriptor(name, description):
    # data_type 9 is float32; options 0: no no-data, min, max, scale or offset.
    return struct.pack("<HBB32s4s24s24s24s24s24s32s", 0, 9, 0, name.encode(), b"", b"", b"",
                       b"", b"", b"", description.encode())


def write_las(path, points, scale=0.001, offset=None, wkt=None, pulse_times=None,
              point_source_id=0, intensity_max=None, classes=None):
    """Write LiDAR points to a LAS 1.4 file.

    points: the returns of vesk.simulate_lidar / vesk.lidar_returns (a structured array,
    with the return energy, hit material and scan angle), or the (N, 8) float records of
    simulate_lidar_cpu: x, y, z, intensity, return number, returns of the pulse, range,
    pulse index (classification 0 and scan angle 0 then).
    classes: {material id: LAS class} (vesk.las_classes(spectra) gives ground 2,
    vegetation 5, building 6 by the material names); materials not in it, and points
    that hit nothing known, get 1 (unclassified). scale: metres per coordinate step (all three axes); offset: the
    coordinate offsets (default: the minimum corner, rounded down to whole metres).
    wkt: an OGC WKT coordinate system (default: a local engineering system in metres).
    pulse_times: seconds for each pulse index, written as GPS time (default: the pulse
    index itself). intensity_max: the energy that maps to 65535 (default: the largest).
    Folders in `path` are created as needed. Returns the number of points written.
    """
    material = angle = None
    if getattr(points, "dtype", None) is not None and points.dtype.names:
        r = points
        pts = np.stack([r["x"], r["y"], r["z"], r["energy"], r["return_number"],
                        r["num_returns"], r["range"], r["pulse"]], axis=1).astype(np.float64)
        material, angle = np.asarray(r["material"]), np.asarray(r["scan_angle"], np.float64)
    else:
        pts = np.asarray(points, np.float64).reshape(-1, 8)
    if not np.isfinite(pts).all():
        raise ValueError("points contains a non-finite value")
    n = len(pts)
    xyz = pts[:, :3]
    lo = xyz.min(axis=0) if n else np.zeros(3)
    hi = xyz.max(axis=0) if n else np.zeros(3)
    offset = np.floor(lo) if offset is None else np.asarray(offset, np.float64)
    scale = float(scale)
    steps = np.round((xyz - offset) / scale)
    if n and np.abs(steps).max() > 2**31 - 1:
        raise ValueError("coordinates do not fit in int32 at this scale and offset")
    energy = pts[:, 3]
    top = float(intensity_max) if intensity_max else (energy.max() if n else 0.0)
    rn = np.clip(pts[:, 4], 1, 15).astype(np.uint8)
    nr = np.clip(pts[:, 5], 1, 15).astype(np.uint8)
    pulse = pts[:, 7].astype(np.int64)
    times = pulse.astype(np.float64) if pulse_times is None else \
        np.asarray(pulse_times, np.float64)[pulse]

    rec = np.zeros(n, RECORD)
    rec["X"], rec["Y"], rec["Z"] = steps.T.astype(np.int32)
    rec["intensity"] = np.clip(np.round(energy / top * 65535) if top > 0 else 0, 0, 65535)
    rec["returns"] = rn | (nr << 4)
    if material is not None:
        table = classes or {}
        if any(not 0 <= int(c) <= 255 for c in table.values()):
            raise ValueError("classes: LAS classes are 0..255")
        rec["classification"] = [table.get(int(m), 1) if m >= 0 else 1 for m in material]
        rec["scan_angle"] = np.clip(np.round(angle / 0.006), -30000, 30000)
    rec["point_source_id"] = point_source_id
    rec["gps_time"] = times
    rec["energy"], rec["range"] = energy, pts[:, 6]

    wkt_vlr = _vlr("LASF_Projection", 2112, "OGC WKT coordinate system",
                   (wkt or LOCAL_WKT).encode() + b"\0")
    extra_vlr = _vlr("LASF_Spec", 4, "Extra bytes",
                     b"".join(_extra_bytes_descriptor(*f) for f in EXTRA_FIELDS))
    by_return = [int((rn == k).sum()) for k in range(1, 16)]
    today = datetime.date.today()
    header = struct.pack(
        "<4sHH16sBB32s32sHHHIIBHI5I3d3d6dQQIQ15Q",
        b"LASF", 0, 16, b"", 1, 4, b"vesk_gpu simulation", b"vesk_gpu 3.0.0rc1",
        today.timetuple().tm_yday, today.year, HEADER_SIZE,
        HEADER_SIZE + len(wkt_vlr) + len(extra_vlr), 2, POINT_FORMAT, RECORD_LENGTH, 0,
        0, 0, 0, 0, 0, scale, scale, scale, *offset,
        hi[0], lo[0], hi[1], lo[1], hi[2], lo[2], 0, 0, 0, n, *by_return)
    assert len(header) == HEADER_SIZE
    import os

    folder = os.path.dirname(os.fspath(path))
    if folder:
        os.makedirs(folder, exist_ok=True)
    with open(path, "wb") as f:
        f.write(header + wkt_vlr + extra_vlr + rec.tobytes())
    return n
