"""SIF source assembly benchmark: samples/s of assemble_sif_source_cpu at 1 and 2 threads
against a NumPy implementation of the same binning, accumulation and finalisation
(np.bincount, the fastest NumPy scatter-add, in float64 like the module), in the same run.
Repeats are interleaved (NumPy, 1 thread, 2 threads, NumPy, ...) so that drift in the
machine's load hits all three alike; each figure is the median with its spread. The NumPy
tables are checked against the module's.

Uses the benchmark build of the module (build/bench_python, made by `make bench`) when it
exists, else the normal build in build/python: this benchmark needs no ray counters.
"""
import argparse
import os
import pathlib
import sys
import time

import numpy as np

from bench_util import ROOT, emit, import_bench_module

F = np.float32
BENCH = "sif_assembly"


def make_request(rng, n, n_bands, instances=8, grid=(4, 4, 2), theta_bins=6, phi_bins=12):
    """Samples spread over `instances` unit boxes side by side, 2% of them just outside
    their box (dropped), leaf normals isotropic."""
    ids = rng.integers(0, instances, n).astype(np.int32)
    lo = np.stack([np.arange(instances) * 1.5, np.zeros(instances), np.zeros(instances)], 1)
    pos = lo[ids] + rng.uniform(0.0, 1.0, (n, 3))
    pos[rng.uniform(size=n) < 0.02, 2] += 1.01
    return dict(positions=pos.astype(F), normals=rng.normal(size=(n, 3)).astype(F),
                instance_ids=ids, grid_dims=np.tile(np.array(grid, np.int32), (instances, 1)),
                source=rng.gamma(2.0, 0.5, (n_bands, n)).astype(F),
                direct_source=rng.uniform(0.0, 0.6, (n_bands, n)).astype(F),
                bounds_min=lo.astype(F), bounds_max=(lo + 1.0).astype(F),
                cell_stride=int(np.prod(grid)), theta_bins=theta_bins, phi_bins=phi_bins)


def numpy_assembly(req):
    """The module's tables, vectorised: float32 binning as the module does it, then one
    bincount per band and table in float64, and the finalisation rules as array selects."""
    pos, nrm, ids = req["positions"], req["normals"], req["instance_ids"]
    dims, lo, hi = req["grid_dims"][ids], req["bounds_min"][ids], req["bounds_max"][ids]
    K, C = len(req["grid_dims"]), req["cell_stride"]
    T, P = req["theta_bins"], req["phi_bins"]
    B = T * P
    e, x = hi - lo, pos - lo
    ok = ((x >= -e * F(2.0**-20)) & (x <= e + e * F(2.0**-20))).all(axis=1)
    ijk = np.minimum((np.clip(x, 0, e) / e * dims.astype(F)).astype(np.int64), dims - 1)
    cell = (ijk[:, 2] * dims[:, 1] + ijk[:, 1]) * dims[:, 0] + ijk[:, 0]
    length = np.sqrt((nrm * nrm).sum(axis=1))
    ok &= length > 0
    u = nrm / np.where(ok, length, F(1))[:, None]
    u *= np.where(u[:, 2] < 0, F(-1), F(1))[:, None]
    ti = np.minimum((np.arccos(np.clip(u[:, 2], 0, 1)) / F(np.pi / 2) * T).astype(np.int64),
                    T - 1)
    phi = np.arctan2(u[:, 1], u[:, 0])
    phi = np.where(phi < 0, phi + F(2 * np.pi), phi)
    pj = np.minimum((phi / F(2 * np.pi) * P).astype(np.int64), P - 1)
    slot = ((ids.astype(np.int64) * C + cell) * B + ti * P + pj)[ok]
    slots = K * C * B
    jc = np.bincount(slot, minlength=slots)
    js = np.stack([np.bincount(slot, s[ok], slots) for s in req["source"]], -1)
    jd = np.stack([np.bincount(slot, d[ok], slots) for d in req["direct_source"]], -1)
    nb = js.shape[-1]
    jc4, js4, jd4 = jc.reshape(K, C, B), js.reshape(K, C, B, nb), jd.reshape(K, C, B, nb)
    sc, oc, nk = jc4.sum(2), jc4.sum(1), jc4.sum((1, 2))
    ss, os_, ks, kd = js4.sum(2), js4.sum(1), js4.sum((1, 2)), jd4.sum((1, 2))
    with np.errstate(invalid="ignore", divide="ignore"):
        mean = np.where(nk[:, None] > 0, ks / nk[:, None], 0)
        direct_mean = np.where(nk[:, None] > 0, kd / nk[:, None], 0)
        spatial = np.where(sc[..., None] > 0, ss / sc[..., None], mean[:, None]).astype(F)
        orient = np.where(oc[..., None] > 0, os_ / oc[..., None], mean[:, None]).astype(F)
        estimate = np.maximum(spatial[:, :, None].astype(float) + orient[:, None] -
                              mean[:, None, None], 0)
        filled = jc4[..., None] > 0
        joint = np.where(filled, js4 / jc4[..., None], estimate).astype(F)
        direct = np.where(filled, jd4 / jc4[..., None], direct_mean[:, None, None]).astype(F)
    return dict(spatial_field=spatial, orientation_field=orient.reshape(K, T, P, nb),
                joint_field=joint.reshape(K, C, T, P, nb),
                direct_joint_field=direct.reshape(K, C, T, P, nb), spatial_counts=sc,
                orientation_counts=oc.reshape(K, T, P), joint_counts=jc.reshape(K, C, T, P))


def import_module(build_dir):
    """(module, the build folder it came from)."""
    try:
        vk = import_bench_module(build_dir)
    except ImportError:
        vk = None
    if vk is not None:
        return vk, "bench_python"
    sys.path.insert(0, str(pathlib.Path(build_dir).resolve() / "python"))
    import vesk_gpu
    return vesk_gpu, pathlib.Path(vesk_gpu.__file__).parent.name


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--samples", type=int, default=1_000_000)
    ap.add_argument("--bands", type=int, default=16)
    ap.add_argument("--repeat", type=int, default=7)
    args = ap.parse_args()
    vk, which = import_module(args.build)
    scene = vk.EmbreeSceneManager()
    req = make_request(np.random.default_rng(11), args.samples, args.bands)
    n = args.samples

    def native(threads):
        # The module reads the variable at every call.
        os.environ["VESK_NUM_THREADS"] = str(threads)
        return vk.assemble_sif_source_cpu(scene, req)

    runs = {"numpy": lambda: numpy_assembly(req), "1t": lambda: native(1),
            "2t": lambda: native(2)}
    times = {k: [] for k in runs}
    for _ in range(args.repeat):
        for name, run in runs.items():
            t0 = time.perf_counter()
            run()
            times[name].append(time.perf_counter() - t0)

    ref, out = numpy_assembly(req), native(2)
    worst = 0.0
    for key, want in ref.items():
        if "counts" in key:
            assert np.array_equal(out[key], want), f"{key} differs from NumPy"
        else:
            np.testing.assert_allclose(out[key], want, rtol=1e-5, atol=1e-6, err_msg=key)
            worst = max(worst, float(np.max(np.abs(out[key] - want))))

    median = {k: float(np.median(v)) for k, v in times.items()}
    common = dict(samples=n, bands=args.bands, repeats=args.repeat, module=which)
    for name, label in (("numpy", "numpy"), ("1t", "1t"), ("2t", "2t")):
        t = np.array(times[name])
        emit(BENCH, f"samples_per_s_{label}", round(n / median[name], 1), "samples/s",
             spread=[round(n / t.max(), 1), round(n / t.min(), 1)], **common)
    for threads in ("1t", "2t"):
        emit(BENCH, f"vs_numpy_{threads}", round(median["numpy"] / median[threads], 2), "ratio",
             target=">= 10 at 2 threads" if threads == "2t" else None)
    emit(BENCH, "max_abs_difference_vs_numpy", worst, "source units")


if __name__ == "__main__":
    main()
