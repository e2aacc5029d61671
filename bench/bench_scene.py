"""Scene benchmark: build time of 1M triangles in 1000 instances, and trace_closest
rays/s on that scene against a plain Embree loop over the same rays in the same run.

Every mesh is distinct (1000 meshes of 1000 triangles, one instance each), the costly
case for the build. Prints one JSON line per figure.
Run:  make bench   (or PYTHONPATH=build/python /usr/bin/python3 bench/bench_scene.py)
"""
import argparse
import time

import numpy as np

from bench_util import ROOT, best_seconds, emit, leaf_cluster, random_rotation, run_raw_embree

import vesk_gpu as vk


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--meshes", type=int, default=1000)
    ap.add_argument("--tris", type=int, default=1000)
    ap.add_argument("--rays", type=int, default=1_000_000)
    ap.add_argument("--repeat", type=int, default=5, help="timed passes; the best one counts")
    args = ap.parse_args()
    rng = np.random.default_rng(1)

    meshes = [leaf_cluster(rng, args.tris) for _ in range(args.meshes)]
    side = int(np.ceil(np.sqrt(args.meshes)))
    xforms = np.zeros((args.meshes, 12), np.float32)
    for i in range(args.meshes):
        m = random_rotation(rng) * rng.uniform(0.8, 1.2)
        t = [(i % side) * 3.0 + rng.uniform(-0.5, 0.5), (i // side) * 3.0 + rng.uniform(-0.5, 0.5),
             rng.uniform(1.5, 3.0)]
        xforms[i] = np.hstack([m, np.array(t)[:, None]]).ravel()

    scene = vk.EmbreeSceneManager()
    t0 = time.perf_counter()
    ids = [scene.add_mesh(v, np.zeros((0, 3), np.float32), idx) for v, idx in meshes]
    for i, mid in enumerate(ids):
        scene.add_instance_xform(mid, xforms[i])
    t_add = time.perf_counter() - t0
    t0 = time.perf_counter()
    scene.build()
    t_build = time.perf_counter() - t0
    emit("scene", "build_time", round(t_build, 4), "s", triangles=scene.total_triangles(),
         instances=scene.num_instances(), target="< 2 s")
    emit("scene", "add_time", round(t_add, 4), "s", note="add_mesh + add_instance_xform")

    extent = side * 3.0
    origins = np.column_stack([rng.uniform(-2, extent, args.rays), rng.uniform(-2, extent, args.rays),
                               np.full(args.rays, 10.0)]).astype(np.float32)
    dirs = rng.normal(size=(args.rays, 3))
    dirs[:, 2] = -np.abs(dirs[:, 2]) - 1.0
    dirs = (dirs / np.linalg.norm(dirs, axis=1, keepdims=True)).astype(np.float32)

    scene.trace_closest(origins[:1000], dirs[:1000])  # warm up
    t_trace = best_seconds(lambda: scene.trace_closest(origins, dirs), args.repeat)
    hits = scene.trace_closest(origins, dirs)
    rate = args.rays / t_trace
    n_hit = int(hits["hit"].sum())
    t_sum = float(hits["t"][hits["hit"]].astype(np.float64).sum())
    emit("scene", "trace_closest_rate", round(rate, 1), "rays/s", hits=n_hit, threads=1,
         note="includes array conversion in and the result dict out")

    raw = run_raw_embree(args.build, meshes, list(zip(ids, xforms)), origins, dirs, args.repeat)
    if raw is None:
        emit("scene", "raw_embree_rate", None, "rays/s", error="raw_embree_loop missing: make bench")
        return
    raw_rate = raw["closest_hit_rate"]["value"]
    emit("scene", "raw_embree_build_time", raw["build_time"]["value"], "s")
    emit("scene", "raw_embree_rate", raw_rate, "rays/s", hits=raw["closest_hit_rate"]["hits"],
         same_hits=raw["closest_hit_rate"]["hits"] == n_hit,
         t_sum_rel_diff=abs(raw["closest_hit_rate"]["t_sum"] - t_sum) / t_sum)
    emit("scene", "trace_closest_vs_raw", round(rate / raw_rate, 3), "ratio")


if __name__ == "__main__":
    main()
