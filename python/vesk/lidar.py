"""LiDAR returns with one intensity definition in both modes, sub-bin ranges, the hit
instance and material of each point, and LAS classes from the materials.

    returns, result = vesk.simulate_lidar(scene, origins, directions, beam_half_angle_rad=0.002)
    vesk.write_las("cloud.las", returns, classes=vesk.las_classes(spectra))

Intensity ('energy', J): the pulse energy the sensor receives from that return, the
range equation rho E A |cos| / (pi R^2) summed over what the return gathers, in the
first band. Direct mode gives it per point. In waveform mode it is the sum of the
convolved waveform over the return's lobe (from the peak down to the nearest minimum on
each side): the pulse kernel sums to one, so a lone return keeps its whole energy,
where the peak bin alone holds only the kernel's peak share (about a quarter with the
default 4 ns pulse and 0.15 m bins). Returns that overlap share their lobes' border.

Range: waveform points are moved along the pulse axis by a Gaussian fit through the
peak bin and its two neighbours (a parabola through their logarithms, exact for the
Gaussian pulse kernel; a parabola through the values where a neighbour is empty),
so the range no longer snaps to bin centres. The module deposits each surface return
in the one bin its range falls into, so a flat target is located to within that bin;
the fit recovers where the energy of neighbouring bins puts it.

Beam samples: beam_samples_per_dim = n lays an (n + 1) x (n + 1) grid over the square
around the beam's cross-section; the points inside the circle (the cone) are traced,
Gaussian-weighted, and the log line "LiDAR (CPU): ... beam samples" prints their number:
beam_sample_count(n), 81 for the default n = 10 (1 in direct mode).

Ground truth: the pulse axis is traced again (trace_closest) within two bins of each
return's range (from the origin in direct mode); the surface found gives 'instance'
and 'material'. A return with no surface there that lies inside a turbid medium takes
the instance and material of the medium's boundary (looking back along the axis, the
first surface met); otherwise both are -1 (beam samples off the axis).
"""
import numpy as np

RETURN = np.dtype([("x", "f8"), ("y", "f8"), ("z", "f8"), ("energy", "f8"),
                   ("return_number", "i4"), ("num_returns", "i4"), ("range", "f8"),
                   ("pulse", "i8"), ("instance", "i4"), ("material", "i4"),
                   ("scan_angle", "f4")])

# LAS 1.4 classes (ASPRS): 1 unclassified, 2 ground, 3-5 low, medium, high vegetation,
# 6 building.
GROUND, LOW_VEGETATION, MEDIUM_VEGETATION, HIGH_VEGETATION, BUILDING, UNCLASSIFIED = 2, 3, 4, 5, 6, 1
_NAMES = ((("soil", "ground", "terrain", "grass"), GROUND),
          (("roof", "building", "wall", "house"), BUILDING),
          (("leaf", "bark", "trunk", "wood", "stem", "branch", "crown", "veg"), HIGH_VEGETATION))


def las_classes(spectra, overrides=None):
    """A {material id: LAS class} map for write_las from the materials of `spectra`, by
    their names: soil, ground, terrain, grass -> 2 (ground); roof, building, wall,
    house -> 6 (building); leaf, bark, trunk, wood, stem, branch, crown, veg... -> 5
    (high vegetation), and every leaf material (vesk.leaf) -> 5; anything else 1
    (unclassified). overrides: {material id: class} that take precedence (3 and 4 for
    low and medium vegetation)."""
    classes = {}
    for mid, (type_, name, _) in spectra.materials.items():
        low = name.lower()
        cls = HIGH_VEGETATION if type_ == 13 else UNCLASSIFIED
        for words, code in _NAMES:
            if any(w in low for w in words):
                cls = code
                break
        classes[mid] = cls
    classes.update(overrides or {})
    return classes


def beam_sample_count(beam_samples_per_dim=10, direct_mode=False):
    """How many rays a waveform pulse traces: the points of the (n + 1) x (n + 1) grid
    over [-1, 1]^2 with x^2 + y^2 <= 1 (1.0001, against rounding), at least one."""
    if direct_mode:
        return 1
    n = int(beam_samples_per_dim)
    if n < 1:
        return 1
    g = (2.0 * np.arange(n + 1, dtype=np.float32) / np.float32(n) - 1.0).astype(np.float32)
    x, y = np.meshgrid(g, g)
    return max(1, int((x * x + y * y <= np.float32(1.0001)).sum()))


def _scan_angle(directions):
    """Degrees off nadir, positive where the pulse leans east (+x), negative west."""
    d = np.asarray(directions, np.float64).reshape(-1, 3)
    off = np.degrees(np.arccos(np.clip(-d[:, 2], -1.0, 1.0)))
    return np.where(d[:, 0] < 0, -off, off)


def lidar_returns(scene, result, pulse_origins, pulse_directions, *, direct_mode=False,
                  min_range=0.0, range_resolution=0.15):
    """The points of a simulate_lidar_cpu result (or a VulkanSceneManager's
    simulate_lidar, with that scene) as a structured array (dtype RETURN):
    x, y, z (m), energy (J, see the module's definition), return_number, num_returns,
    range (m, interpolated in waveform mode), pulse, instance, material, scan_angle
    (degrees off nadir, + east). Give the run's direct_mode, min_range and
    range_resolution."""
    pts = np.asarray(result["points"], np.float64).reshape(-1, 8)
    origins = np.asarray(pulse_origins, np.float64).reshape(-1, 3)
    dirs = np.asarray(pulse_directions, np.float64).reshape(-1, 3)
    out = np.zeros(len(pts), RETURN)
    if len(pts) == 0:
        return out
    pulse = pts[:, 7].astype(np.int64)
    rng = pts[:, 6].copy()
    energy = pts[:, 3].copy()
    if not direct_mode:
        wave = np.asarray(result["waveform"], np.float64)
        total = wave.sum(axis=2)
        first = wave[:, :, 0]
        nb = total.shape[1]
        for k, (p, r) in enumerate(zip(pulse, rng)):
            b = int(round((r - min_range) / range_resolution - 0.5))
            s = total[p]
            lo = b
            while lo > 0 and s[lo - 1] < s[lo]:
                lo -= 1
            hi = b
            while hi < nb - 1 and s[hi + 1] < s[hi]:
                hi += 1
            energy[k] = first[p, lo:hi + 1].sum()
            if 0 < b < nb - 1:
                y0, y1, y2 = s[b - 1], s[b], s[b + 1]
                if y0 > 0 and y2 > 0:
                    y0, y1, y2 = np.log(y0), np.log(y1), np.log(y2)
                curve = y0 - 2 * y1 + y2
                if curve < 0:
                    rng[k] = r + range_resolution * float(np.clip(0.5 * (y0 - y2) / curve, -0.5, 0.5))
    xyz = origins[pulse] + rng[:, None] * dirs[pulse]
    window = 0.0 if direct_mode else 2.0 * range_resolution
    t_min = np.maximum(rng - window, 0.0) if window else 0.0
    hits = _trace(scene, origins[pulse], dirs[pulse], t_min, rng + max(window, 1e-3))
    media = np.asarray(scene.material_medium_ids(), np.int64)
    lost = np.flatnonzero(hits[0] < 0)
    if len(lost) and (media >= 0).any():
        # A volume return: looking back from the point, the first surface is the boundary
        # of the medium it lies in.
        back = scene.trace_closest(xyz[lost].astype(np.float32), (-dirs[pulse][lost]).astype(np.float32),
                                   0.0, float(rng[lost].max()) + 1.0)
        m = np.where(back["hit"], back["material_id"], -1)
        inside = (m >= 0) & (media[np.maximum(m, 0)] >= 0)
        hits[0][lost[inside]] = back["instance_id"][inside]
        hits[1][lost[inside]] = m[inside]
    out["x"], out["y"], out["z"] = xyz.T
    out["energy"], out["range"], out["pulse"] = energy, rng, pulse
    out["return_number"], out["num_returns"] = pts[:, 4], pts[:, 5]
    out["instance"], out["material"] = hits
    out["scan_angle"] = _scan_angle(dirs)[pulse]
    return out


def _trace(scene, origins, dirs, t_min, t_max):
    """Instance and material ids where each ray meets a surface within [t_min, t_max]."""
    o = (origins + np.broadcast_to(t_min, (len(origins),))[:, None] * dirs).astype(np.float32)
    hit = scene.trace_closest(o, dirs.astype(np.float32), 0.0, float(np.max(t_max - t_min)) + 1.0)
    inside = hit["hit"] & (hit["t"] <= (t_max - t_min))
    return [np.where(inside, hit["instance_id"], -1), np.where(inside, hit["material_id"], -1)]


def simulate_lidar(scene, pulse_origins, pulse_directions, **options):
    """simulate_lidar_cpu on a CPU scene (its simulate_lidar on a VulkanSceneManager,
    which traces on the device and post-processes alike), then lidar_returns on its
    points. options: the keywords of simulate_lidar_cpu. Returns (returns, result): the
    structured array and the module's dict (waveform and raw point records)."""
    import vesk_gpu as vk

    o = np.ascontiguousarray(pulse_origins, np.float32).ravel()
    d = np.ascontiguousarray(pulse_directions, np.float32).ravel()
    if isinstance(scene, vk.VulkanSceneManager):
        result = scene.simulate_lidar(o, d, len(o) // 3, **options)
    else:
        result = vk.simulate_lidar_cpu(scene, o, d, len(o) // 3, **options)
    returns = lidar_returns(scene, result, o, d, direct_mode=options.get("direct_mode", False),
                            min_range=options.get("min_range", 0.0),
                            range_resolution=options.get("range_resolution", 0.15))
    return returns, result
