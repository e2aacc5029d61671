"""Microwave evaluator benchmark: rows per second of each soil and trunk evaluator on
100k cosines (and 100k direction rows for the trunk-ground double bounce), one thread,
as the evaluators run on the calling thread. Prints one JSON line per figure.
"""
import argparse

import numpy as np

from bench_util import best_seconds, emit

import vesk_gpu as vk

F = np.float32


def rate(fn, rows, repeat):
    return round(rows / best_seconds(fn, repeat), 1)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=None, help="unused; the module comes from PYTHONPATH")
    ap.add_argument("--rows", type=int, default=100_000)
    ap.add_argument("--repeat", type=int, default=3)
    args = ap.parse_args()
    n = args.rows
    rng = np.random.default_rng(5)
    cos = rng.uniform(0.05, 1.0, n).astype(F)
    trunk = np.array([0.12, 8.0, 0.45, 293.0, 0.05, 0.02, 0.998], F)
    for code, name in ((0, "mironov"), (1, "dobson"), (2, "hallikainen")):
        soil = np.array([0.35, 0.2, 0.22, 0.15, 1.0, 1.6, 0.1, 295, 289, code, 0.012, 0], F)
        emit("microwave", f"soil_passive_{name}_rows_per_s",
             rate(lambda: vk._evaluate_microwave_soil(1.4e9, soil, cos, False), n, args.repeat),
             "rows/s")
        emit("microwave", f"soil_active_{name}_rows_per_s",
             rate(lambda: vk._evaluate_microwave_soil(5.4e9, soil, cos, True), n, args.repeat),
             "rows/s")
        emit("microwave", f"soil_reflectivity_{name}_rows_per_s",
             rate(lambda: vk._evaluate_microwave_soil_reflectivity(1.4e9, soil, cos, True), n,
                  args.repeat), "rows/s")
    emit("microwave", "trunk_rows_per_s",
         rate(lambda: vk._evaluate_microwave_trunk(1.4e9, trunk, cos), n, args.repeat), "rows/s")
    sin = np.sqrt(1 - cos ** 2)
    az = rng.uniform(0, 2 * np.pi, n)
    to_trunk = np.column_stack([sin * np.cos(az), sin * np.sin(az), -cos]).astype(F)
    to_ground = np.column_stack([-sin * np.cos(az), -sin * np.sin(az), -cos]).astype(F)
    normals = np.tile(np.array([0, 0, 1], F), (n, 1))
    soil = np.array([0.35, 0.2, 0.22, 0.15, 1.0, 1.6, 0.1, 295, 289, 1, 0.012, 0], F)
    for freq, band in ((1.4e9, "L"), (5.4e9, "C")):
        emit("microwave", f"trunk_ground_{band}_band_rows_per_s",
             rate(lambda: vk._evaluate_microwave_trunk_ground(freq, soil, trunk, to_trunk,
                                                              to_ground, normals), n, 1),
             "rows/s", ka=round(2 * np.pi * freq / 2.998e8 * 0.12, 2))


if __name__ == "__main__":
    main()
