"""Backward tracer benchmark on the benchmark canopy (bench_util.build_canopy: 240k
instanced leaf triangles over a ground): samples/s at 1 and 2 threads, and path
segments/s (closest-hit plus shadow rays, counted by the benchmark build) against two
raw Embree baselines in the same run: random closest-hit rays in the scene box, and a
replay of the tracer's own recorded rays (the share of the render Embree itself needs).

Uses the benchmark build of the module (build/bench_python, made by `make bench`).
"""
import argparse

import numpy as np

from bench_util import (ROOT, best_seconds, build_canopy, compare_with_raw, count_and_record, emit,
                        import_bench_module, random_rays)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--spp", type=int, default=16)
    ap.add_argument("--max-depth", type=int, default=8)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--rays", type=int, default=1_000_000)
    args = ap.parse_args()
    vk = import_bench_module(args.build)
    if vk is None:
        emit("backward", "error", None, "", error="benchmark build missing: run `make bench`")
        return

    rng = np.random.default_rng(2)
    scene, meshes, instances = build_canopy(vk, rng)
    samples = 96 * 64 * args.spp
    run = lambda threads: vk._bench_render_backward(scene, args.spp, args.max_depth, threads)
    recorded = count_and_record(vk, lambda: run(1))
    times = {}
    for threads in (1, 2):
        times[threads] = best_seconds(lambda: run(threads), args.repeat)
        emit("backward", f"samples_per_s_{threads}t", round(samples / times[threads], 1),
             "samples/s", spp=args.spp, max_depth=args.max_depth,
             leaf_triangles=scene.total_triangles() - 32)
    emit("backward", "thread_scaling_2t_over_1t", round(times[1] / times[2], 3), "ratio",
         target=">= 1.8")
    rays = random_rays(rng, scene, args.rays)
    for threads in (1, 2):
        compare_with_raw("backward", "path", times[threads], recorded, args.build, meshes,
                         instances, rays, threads, args.repeat)


if __name__ == "__main__":
    main()
