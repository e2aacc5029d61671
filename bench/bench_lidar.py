"""LiDAR benchmark on the benchmark canopy: pulses/s of an airborne scan in direct mode
and in waveform mode (113 beam samples a pulse) at 1 and 2 threads; beam rays/s against
a raw Embree loop replaying the same rays, in the same run; and waveform pulses/s over
the turbid-crown canopy.

Uses the benchmark build of the module (build/bench_python, made by `make bench`).
"""
import argparse
import sys

import numpy as np

from bench_util import (ROOT, best_seconds, build_canopy, compare_with_raw, count_and_record, emit,
                        import_bench_module, random_rays)
from bench_turbid import turbid_canopy


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--pulses", type=int, default=20000)
    ap.add_argument("--repeat", type=int, default=3)
    args = ap.parse_args()
    vk = import_bench_module(args.build)
    if vk is None:
        emit("lidar", "error", None, "", error="benchmark build missing: run `make bench`")
        return
    sys.path.insert(0, str(ROOT / "python"))
    import vesk

    rng = np.random.default_rng(4)
    scene, meshes, instances = build_canopy(vk, rng)
    # Across the 40 m tile at 60 m, +-20 degrees.
    o, d, t = vesk.airborne_line_scan((20.0, 2.0), 0.0, 60.0, 18.0, args.pulses / 2.0, 20.0,
                                      30.0, 2.0)
    random = random_rays(rng, scene, 1_000_000)
    for mode, n, direct in (("direct", 0, True), ("waveform", 12, False)):
        run = lambda threads: vk._bench_simulate_lidar(scene, o, d, n, direct, threads)
        recorded = count_and_record(vk, lambda: run(1))
        times = {}
        for threads in (1, 2):
            times[threads] = best_seconds(lambda: run(threads), args.repeat)
            emit("lidar", f"{mode}_pulses_per_s_{threads}t", round(len(t) / times[threads], 1),
                 "pulses/s", beam_samples=1 if direct else 113)
        for threads in (1, 2):
            compare_with_raw("lidar", f"{mode}_beam", times[threads], recorded, args.build,
                             meshes, instances, random, threads, args.repeat)

    turbid = turbid_canopy(vk, np.random.default_rng(5))
    for threads in (1, 2):
        s = best_seconds(lambda: vk._bench_simulate_lidar(turbid, o, d, 12, False, threads),
                         args.repeat)
        emit("lidar", f"turbid_waveform_pulses_per_s_{threads}t", round(len(t) / s, 1),
             "pulses/s", beam_samples=113)


if __name__ == "__main__":
    main()
