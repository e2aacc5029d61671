"""Shared pieces of the benchmarks: JSON output, procedural canopies, and the raw
Embree baseline helper (bench/raw_embree_loop.cpp) run on the same scene and rays."""
import importlib
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[1]
F = np.float32


def best_seconds(fn, repeat):
    """The fastest of `repeat` runs of fn(): these machines are noisy, and the minimum is the
    figure least disturbed by other load."""
    best = float("inf")
    for _ in range(repeat):
        t0 = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - t0)
    return best


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


def import_bench_module(build_dir):
    """The benchmark build of the module (ray counters, thread-count entries), or None."""
    sys.path.insert(0, str(pathlib.Path(build_dir).resolve() / "bench_python"))
    vk = importlib.import_module("vesk_gpu")
    return vk if hasattr(vk, "_bench_render_backward") else None


def build_canopy(vk, rng, n_meshes=12, tris=2000, n_instances=120, scene=None):
    """The benchmark canopy: 120 instances of 12 leaf-cluster meshes (2000 leaves each,
    240k instanced leaf triangles) over a ground, in a repeated 40 m tile, sun and sky,
    3 bands, a perspective camera. Returns (scene, meshes, instances) for the raw loop.
    scene: an empty scene of another class to fill (a CPU scene by default)."""
    s = vk.EmbreeSceneManager() if scene is None else scene
    bands = 3
    s.set_num_bands(bands)
    spectra = np.concatenate([[0.08, 0.15, 0.3],                       # ground
                           [0.05, 0.1, 0.45], [0.07, 0.12, 0.4],     # leaf front, back
                           [0.04, 0.09, 0.42],                       # leaf transmittance
                           [1200, 1500, 900], [30, 40, 25]]).astype(F)  # sun, sky
    s.upload_spectral_params(spectra)
    s.add_material(0, 0, [0.18, 0.0])
    s.add_material(13, 3, [0.2, 0.18])
    meshes = []
    instances = []
    ground = vk.make_ground_plane(20.0, 20.0, 0, 10.0)
    gid = s.add_mesh(**ground)
    meshes.append((ground["vertices"], ground["indices"]))
    centre = np.array([1, 0, 0, 20, 0, 1, 0, 20, 0, 0, 1, 0], F)  # the tile is [0, 40]^2
    s.add_instance_xform(gid, centre)
    instances.append((gid, centre))
    leaf_ids = []
    for _ in range(n_meshes):
        v, idx = leaf_cluster(rng, tris, leaf_size=0.08)
        leaf_ids.append(s.add_mesh(v, np.zeros((0, 3), F), idx, material_id=1))
        meshes.append((v, idx))
    side = int(np.ceil(np.sqrt(n_instances)))
    for i in range(n_instances):
        m = random_rotation(rng) * np.diag([1.6, 1.6, 1.2])
        t = [2 + 36 * ((i % side) + 0.5) / side + rng.uniform(-0.6, 0.6),
             2 + 36 * ((i // side) + 0.5) / side + rng.uniform(-0.6, 0.6), rng.uniform(2.5, 4.0)]
        xf = np.hstack([m, np.array(t)[:, None]]).astype(F).ravel()
        mid = leaf_ids[i % n_meshes]
        s.add_instance_xform(mid, xf)
        instances.append((mid, xf))
    sun = np.array([0.35, 0.25, 0.9], F)
    s.set_emitter(0, sun / np.linalg.norm(sun), 12)
    s.set_sky(15)
    cam = np.eye(4, dtype=F)
    c, sn = np.cos(0.5), np.sin(0.5)  # tilted 0.5 rad about x, looking down at the canopy
    cam[:3, :3] = [[1, 0, 0], [0, c, -sn], [0, sn, c]]
    cam[:3, 3] = [20.0, 6.0, 24.0]
    s.set_sensor(1, 96, 64, 0.0, 0.0, cam.ravel(), fov=55.0)
    # Repeated 3 tiles out each way; photons start just above the canopy.
    s.set_repetitive(3, 40.0, 40.0)
    s.build()
    s.set_measurement_plane(s.max_height())
    return s, meshes, instances


def random_rays(rng, scene, n):
    """Rays with origins uniform in the scene box and isotropic directions."""
    lo, hi = (np.array(v, float) for v in scene.aabb())
    origins = rng.uniform(lo, hi, size=(n, 3)).astype(F)
    dirs = rng.normal(size=(n, 3))
    return origins, (dirs / np.linalg.norm(dirs, axis=1, keepdims=True)).astype(F)


def count_and_record(vk, run):
    """Runs run() once on the benchmark build with counters and recording on; returns
    (closest-hit rays, shadow rays) as (N, 6) arrays of origin and direction."""
    vk._bench_reset_ray_counts()
    vk._bench_set_ray_recording(True)
    run()
    vk._bench_set_ray_recording(False)
    closest, occluded = vk._bench_take_recorded_rays()
    assert (len(closest), len(occluded)) == vk._bench_ray_counts()
    return closest, occluded


def compare_with_raw(bench, tag, seconds, recorded, build_dir, meshes, instances, random,
                     threads, repeat):
    """Segments/s of a run that took `seconds` against two raw Embree baselines on the
    same scene: random closest-hit rays, and a replay of the run's own recorded rays."""
    closest, occluded = recorded
    segments = len(closest) + len(occluded)
    rate = segments / seconds
    emit(bench, f"{tag}_segments_per_s_{threads}t", round(rate, 1), "segments/s",
         closest=len(closest), occluded=len(occluded))
    raw = run_raw_embree(build_dir, meshes, instances, random[0], random[1], repeat, threads)
    if raw is None:
        emit(bench, "error", None, "", error="raw_embree_loop missing: run `make bench`")
        return
    raw_rate = raw["closest_hit_rate"]["value"]
    emit(bench, f"raw_embree_random_rays_per_s_{threads}t", raw_rate, "rays/s")
    emit(bench, f"{tag}_segments_vs_random_{threads}t", round(rate / raw_rate, 3), "ratio",
         target=">= 0.6", baseline="random rays in the scene box")
    embree_seconds = 0.0
    for mode, rays in (("closest", closest), ("occluded", occluded)):
        if len(rays) == 0:
            continue
        r = run_raw_embree(build_dir, meshes, instances, rays[:, :3], rays[:, 3:6], repeat,
                           threads, mode)
        key = "closest_hit_rate" if mode == "closest" else "occluded_rate"
        embree_seconds += len(rays) / r[key]["value"]
    emit(bench, f"{tag}_segments_vs_replay_{threads}t", round(embree_seconds / seconds, 3),
         "ratio", target=">= 0.6", baseline="the run's own rays, raw Embree")
