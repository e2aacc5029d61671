"""Photon benchmark on the benchmark canopy (bench_util.build_canopy, repeated 40 m
tile): photons/s of the flux tracer and of the BRF tracer at 1 and 2 threads, and
their segments/s (counted by the benchmark build) against two raw Embree baselines in
the same run: random closest-hit rays in the scene box, and a replay of the run's own
recorded rays.

Uses the benchmark build of the module (build/bench_python, made by `make bench`).
"""
import argparse

import numpy as np

from bench_util import (ROOT, best_seconds, build_canopy, compare_with_raw, count_and_record, emit,
                        import_bench_module, random_rays)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--photons", type=int, default=400_000)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--rays", type=int, default=1_000_000)
    args = ap.parse_args()
    vk = import_bench_module(args.build)
    if vk is None:
        emit("forward", "error", None, "", error="benchmark build missing: run `make bench`")
        return

    rng = np.random.default_rng(3)
    scene, meshes, instances = build_canopy(vk, rng)
    dirs = np.array([0, 0, 1, 0.5, 0.0, 0.866, -0.3, 0.4, 0.866], np.float32)
    runs = {
        "flux": lambda t: vk._bench_render_flux(scene, 32, args.photons, 3, 0.8, t),
        "brf": lambda t: vk._bench_render_brf(scene, dirs, args.photons, t),
    }
    rays = random_rays(rng, scene, args.rays)
    for name, run in runs.items():
        recorded = count_and_record(vk, lambda: run(1))
        times = {}
        for threads in (1, 2):
            times[threads] = best_seconds(lambda: run(threads), args.repeat)
            emit("forward", f"{name}_photons_per_s_{threads}t",
                 round(args.photons / times[threads], 1), "photons/s")
        emit("forward", f"{name}_thread_scaling_2t_over_1t", round(times[1] / times[2], 3),
             "ratio")
        for threads in (1, 2):
            compare_with_raw("forward", name, times[threads], recorded, args.build, meshes,
                             instances, rays, threads, args.repeat)


if __name__ == "__main__":
    main()
