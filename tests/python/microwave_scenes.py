"""Small microwave scenes shared by the CPU and the Vulkan microwave tests: a flat soil,
optionally under a closed vegetation slab and among vertical trunks, seen by an
orthographic sensor at a chosen incidence angle."""
import numpy as np

import vesk_gpu as vk

F = np.float32
SLAB_BASE = 0.01  # the slab floats just above the soil so that its floor is a real surface


def soil_row(model=0, mv=0.25, h=0.0, q=0.0, s=0.01, t=295.0):
    """One soil material; surface and deep temperature equal, so T_eff = t."""
    return np.array([0.3, 0.2, mv, h, 1.0, 1.5, q, t, t, model, s, 0.0], F)


def box(x0, x1, y0, y1, z0, z1):
    v = np.array([[(x0, x1)[i & 1], (y0, y1)[(i >> 1) & 1], (z0, z1)[(i >> 2) & 1]]
                  for i in range(8)], F)
    idx = np.array([[0, 2, 3], [0, 3, 1], [4, 5, 7], [4, 7, 6], [0, 1, 5], [0, 5, 4],
                    [2, 6, 7], [2, 7, 3], [0, 4, 6], [0, 6, 2], [1, 3, 7], [1, 7, 5]], np.int32)
    return {"vertices": v, "normals": np.zeros((0, 3), F), "indices": idx}


def camera(theta, distance=40.0, target=(0.31, 0.17, 0.0)):
    """Orthographic camera looking down at incidence theta (radians) in the x-z plane, at
    a target off the ground's triangle edges (a ray exactly on an edge may miss both)."""
    d = np.array([np.sin(theta), 0.0, -np.cos(theta)])
    z = -d
    x = np.cross([0.0, 0.0, 1.0], z) if abs(z[2]) < 0.999 else np.array([1.0, 0.0, 0.0])
    x /= np.linalg.norm(x)
    y = np.cross(z, x)
    m = np.eye(4)
    m[:3, 0], m[:3, 1], m[:3, 2], m[:3, 3] = x, y, z, np.asarray(target) - d * distance
    return m.astype(F).ravel()


def make_scene(theta, slab_height=None, trunks=0, pixels=(4, 3), footprint=2.0,
               scene_class=None, half=60.0):
    """Optical materials: 0 soil, 1 vegetation slab, 2 trunks. Trunks (radius 0.15 m,
    height 8 m) stand on a regular grid with 4 m spacing, their bases 5 cm into the soil."""
    s = (scene_class or vk.EmbreeSceneManager)()
    for _ in range(3):
        s.add_material(0, 0, [])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(half, half, 0)))
    if slab_height is not None:
        s.add_instance(s.add_mesh(**box(-half, half, -half, half, SLAB_BASE,
                                        SLAB_BASE + slab_height), material_id=1))
    if trunks:
        cyl = vk.make_cylinder(0.15, 8.0, 12)
        t = s.add_mesh(cyl["vertices"], cyl["normals"], cyl["indices"], 2)
        n = int(np.ceil(np.sqrt(trunks)))
        for k in range(trunks):
            s.add_instance(t, x=4.0 * (k % n - n / 2) + 0.3, y=4.0 * (k // n - n / 2) + 0.7,
                           z=-0.05)
    s.set_sensor(0, pixels[0], pixels[1], footprint, footprint, camera(theta))
    s.build()
    return s


def trunk_row(moisture=0.5, t=295.0):
    return np.array([[0.15, 8.0, moisture, t, 0.0, 0.0, 1.0]], F)


def diagonal_mueller(p_co, p_cross=0.0, shape=(8, 8, 4)):
    """A vegetation Mueller table with the same 4x4 block everywhere: co-polarised
    phase function p_co (1/(m sr)) on I_v and I_h, cross-polarised p_cross, with CDFs."""
    lut = np.zeros(shape + (4, 4), F)
    lut[..., 0, 0] = lut[..., 1, 1] = p_co
    lut[..., 0, 1] = lut[..., 1, 0] = p_cross
    n_cti, n_cts, n_dphi = shape
    cos_cdf = np.tile(np.linspace(1.0 / n_cts, 1.0, n_cts, dtype=F), n_cti)
    az_cdf = np.tile(np.linspace(1.0 / n_dphi, 1.0, n_dphi, dtype=F), n_cti * n_cts)
    return lut, cos_cdf, az_cdf
