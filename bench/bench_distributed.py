"""Distributed benchmark (vesk.distributed on a Dask LocalCluster): the efficiency of two
worker processes against one process on a flux job of about a minute on the benchmark
canopy, and Dask's own cost per unit.

Efficiency: one process on one thread takes T1; two workers of one thread each take T2
for the same photons in units of about 1.5 s; linear would be T1 / 2, so the efficiency
is T1 / (2 T2) (target >= 0.85). For reference, one process on two threads on the same
job (the same two cores, no Dask), and the CPU-time efficiency, which other load on the
machine does not change: the CPU seconds of one process over those of the workers, the
client and the scheduler for the same work. Overhead per unit: many one-chunk units on
a plain ground, where tracing costs almost nothing, against the same photons in one
process. The machine's load average is printed with the figures: other work on these
cores lowers the wall-clock efficiency.
"""
import argparse
import os
import resource
import time

import numpy as np

from bench_util import ROOT, best_seconds, build_canopy, emit

BENCH = "distributed"


def timed(fn):
    t0 = time.perf_counter()
    out = fn()
    return time.perf_counter() - t0, out


def cpu_seconds():
    """CPU time of this process so far, all its threads."""
    r = resource.getrusage(resource.RUSAGE_SELF)
    return r.ru_utime + r.ru_stime


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--seconds", type=float, default=60.0,
                    help="length of the one-process, one-thread flux job")
    ap.add_argument("--unit-seconds", type=float, default=1.5)
    ap.add_argument("--small-units", type=int, default=200)
    args = ap.parse_args()
    try:
        import distributed
    except ImportError:
        emit(BENCH, "error", None, "", error="python3-distributed is not installed")
        return
    import vesk_gpu as vk
    from vesk.distributed import simulate

    scene, _, _ = build_canopy(vk, np.random.default_rng(3))
    chunk = vk.PHOTON_CHUNK
    flux = dict(nx=32, ny=32, num_bands=3, prob_sun=0.8)
    os.environ["VESK_NUM_THREADS"] = "1"
    # Photons per second of one thread, from a short run, size the job and its units.
    probe = 16 * chunk
    rate = probe / best_seconds(lambda: vk.simulate_flux_cpu(scene, num_photons=probe, **flux), 2)
    unit = max(chunk, int(rate * args.unit_seconds) // chunk * chunk)
    photons = max(2, round(rate * args.seconds / unit)) * unit
    emit(BENCH, "cores", os.cpu_count(), "cpus", load_average_1min=os.getloadavg()[0])

    c0 = cpu_seconds()
    t1, single = timed(lambda: vk.simulate_flux_cpu(scene, num_photons=photons, **flux))
    cpu1 = cpu_seconds() - c0
    emit(BENCH, "one_process_1t_seconds", round(t1, 2), "s", photons=photons,
         cpu_seconds=round(cpu1, 2))
    os.environ["VESK_NUM_THREADS"] = "2"
    t1x2, _ = timed(lambda: vk.simulate_flux_cpu(scene, num_photons=photons, **flux))
    emit(BENCH, "one_process_2t_seconds", round(t1x2, 2), "s")

    with distributed.LocalCluster(n_workers=2, processes=True, threads_per_worker=1,
                                  dashboard_address=None,
                                  env={"VESK_NUM_THREADS": "1"}) as cluster, \
            distributed.Client(cluster) as client:
        simulate(client, scene, "flux", unit=chunk, progress=False, num_photons=2 * chunk,
                 **flux)  # workers warm: modules imported, first scene built
        load = os.getloadavg()[0]
        before = client.run(cpu_seconds), cpu_seconds()
        t2, out = timed(lambda: simulate(client, scene, "flux", unit=unit, progress=False,
                                         num_photons=photons, **flux))
        after = client.run(cpu_seconds), cpu_seconds()
        # Every CPU second of the run: workers, and this process (client and scheduler).
        cpu_workers = sum(after[0][w] - before[0][w] for w in after[0])
        cpu2 = cpu_workers + after[1] - before[1]
        same = all(np.array_equal(out[k], single[k]) for k in ("downwelling", "upwelling"))
        units = photons // unit
        emit(BENCH, "two_workers_seconds", round(t2, 2), "s", units=units,
             unit_seconds=round(t1 / units, 2), identical_to_one_process=same)
        emit(BENCH, "efficiency_2_workers", round(t1 / (2 * t2), 3), "ratio", target=">= 0.85",
             load_average_1min_before=load, load_average_1min_after=os.getloadavg()[0])
        emit(BENCH, "two_workers_vs_one_process_2t", round(t1x2 / t2, 3), "ratio",
             baseline="one process, two threads, same photons")
        # What load on the machine cannot change: the CPU time the same work costs.
        emit(BENCH, "cpu_time_efficiency_2_workers", round(cpu1 / cpu2, 3), "ratio",
             cpu_seconds=round(cpu2, 2), workers_cpu_seconds=round(cpu_workers, 2),
             baseline="one process, one thread")

        # Dask's cost per unit: units that trace almost nothing.
        plain = vk.EmbreeSceneManager()
        plain.upload_spectral_params(np.array([0.3, 1000.0], np.float32))
        plain.add_material(0, 0, [0.3])
        plain.add_instance(plain.add_mesh(**vk.make_ground_plane(5, 5, 0, 10)), 5.0, 5.0, 0.0)
        plain.set_emitter(0, np.array([0.3, 0.2, 0.9], np.float32), 1)
        plain.set_repetitive(1, 10.0, 10.0)
        plain.build()
        small = dict(nx=4, ny=4, num_bands=1, num_photons=args.small_units * chunk)
        os.environ["VESK_NUM_THREADS"] = "1"
        t_local = best_seconds(lambda: vk.simulate_flux_cpu(plain, **small), 3)
        t_dask = best_seconds(lambda: simulate(client, plain, "flux", unit=chunk,
                                               progress=False, **small), 3)
        overhead = (2 * t_dask - t_local) / args.small_units
        emit(BENCH, "overhead_per_unit_ms", round(1e3 * overhead, 2), "ms",
             units=args.small_units, trace_ms_per_unit=round(1e3 * t_local / args.small_units, 2),
             note="worker time per unit beyond tracing, two workers")


if __name__ == "__main__":
    main()
