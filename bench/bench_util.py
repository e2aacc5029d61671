"""Shared pieces of the benchmarks: JSON output, procedural canopies, and the raw
Embree baseline helper (bench/raw_embree_loop.cpp) run on the same scene and rays."""
import json
import os
import pathlib
import subprocess
import tempfile

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[1]


def emit(bench, figure, value, unit, **extra):
    print(json.dumps({"bench": bench, "figure": figure, "value": value, "unit": unit, **extra}),
          flush=True)


def leaf_cluster(rng, n_tris, leaf_size=0.06):
    """A crown-like soup of small triangles in the unit ball, each about 2 * leaf_size wide."""
    centres = rng.normal(size=(n_tris, 3))
    centres *= (rng.uniform(size=(n_tris, 1)) ** (1 / 3)) / np.linalg.norm(centres, axis=1,
                                                                           keepdims=True)
    corners = centres[:, None, :] + leaf_size * rng.normal(size=(n_tris, 3, 3))
    return (corners.reshape(-1, 3).astype(np.float32),
            np.arange(3 * n_tris, dtype=np.int32).reshape(-1, 3))


def random_rotation(rng):
    q = rng.normal(size=4)
    q /= np.linalg.norm(q)
    w, x, y, z = q
    return np.array([[1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)],
                     [2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)],
                     [2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)]])


def run_raw_embree(build_dir, meshes, instances, origins, dirs, repeat=3, threads=1,
                   mode="closest"):
    """meshes: [(vertices (N, 3) f32, indices (M, 3) i32)]; instances: [(mesh_id, 12 floats)];
    mode "closest" (rtcIntersect1) or "occluded" (rtcOccluded1, as sun tests trace).
    Returns the helper's figures by name, or None when the helper is not built."""
    helper = pathlib.Path(build_dir) / "raw_embree_loop"
    if not helper.exists():
        return None
    with tempfile.NamedTemporaryFile(suffix=".bin", delete=False) as f:
        f.write(np.array([len(meshes), len(instances), len(origins)], np.int32).tobytes())
        for v, idx in meshes:
            f.write(np.array([len(v), len(idx)], np.int32).tobytes())
            f.write(np.ascontiguousarray(v, np.float32).tobytes())
            f.write(np.ascontiguousarray(idx, np.int32).tobytes())
        for mid, xf in instances:
            f.write(np.int32(mid).tobytes())
            f.write(np.ascontiguousarray(xf, np.float32).tobytes())
        f.write(np.ascontiguousarray(origins, np.float32).tobytes())
        f.write(np.ascontiguousarray(dirs, np.float32).tobytes())
        path = f.name
    try:
        out = subprocess.run([str(helper), path, str(repeat), str(threads), mode], capture_output=True,
                             text=True, check=True)
    finally:
        os.unlink(path)
    return {r["figure"]: r for r in map(json.loads, out.stdout.splitlines())}
