"""Energy and photosynthesis process benchmarks, one function per figure.

transport: the energy-balance transports (longwave and shortwave single band, the 3-band
walk with split leaf optics) on the benchmark canopy (bench_util.build_canopy), at 1 and
2 threads: primitives/s, and segments/s (closest-hit plus shadow rays, counted by the
benchmark build) against raw Embree in the same run, on random rays and on a replay of
the transport's own rays.

coupling: rounds/s of execute_energy_balance_process_cpu on a 100k-primitive canopy
(4 samples per primitive and side, 3 rounds that never close, then the final block).

static_photosynthesis: elements/s of execute_photosynthesis_process_static_cpu at 2 threads
on 1M elements with 5 bands, against NumPy doing the same arithmetic (PAR integral, sunlit
and shaded leaf through the leaf model of bench_physiology, blends) in the same run. Module
and NumPy runs alternate, so drifting machine load hits both alike; the figure is the median
with the spread of the repeats. The NumPy answers are checked against the module's.

Uses the benchmark build of the module (build/bench_python, made by `make bench`).
"""
import argparse
import os
import time

import numpy as np

from bench_physiology import np_biochemistry, np_ci_solve
from bench_util import (ROOT, best_seconds, build_canopy, compare_with_raw, count_and_record, emit,
                        import_bench_module, random_rays)

F = np.float32
BENCH = "energy"


def timed_repeats(runs, repeat):
    """Seconds of each function in `runs`, repeat times, interleaved run by run."""
    seconds = {name: [] for name in runs}
    for _ in range(repeat):
        for name, fn in runs.items():
            t0 = time.perf_counter()
            fn()
            seconds[name].append(time.perf_counter() - t0)
    return seconds


def rate_figure(figure, n, seconds, **extra):
    rates = n / np.array(seconds)
    emit(BENCH, figure, round(float(np.median(rates)), 1), "elements/s",
         min=round(float(rates.min()), 1), max=round(float(rates.max()), 1),
         repeats=len(rates), **extra)
    return float(np.median(rates))


# ---- static photosynthesis -------------------------------------------------------------

def photosynthesis_request(rng, n, n_materials=8):
    wavelengths = np.array([450.0, 550.0, 650.0, 700.0, 800.0], F)
    top = rng.uniform(0, 60, (n, wavelengths.size)).astype(F)
    m = lambda lo, hi: rng.uniform(lo, hi, n_materials).astype(F)  # noqa: E731
    active = np.ones(n_materials, np.uint8)
    active[-1] = 0
    return dict(absorbed_top=top, absorbed_bottom=(top * rng.uniform(0.1, 0.4, (n, 1))).astype(F),
                absorbed_direct=(top * rng.uniform(0, 1, (n, 1))).astype(F),
                wavelengths=wavelengths, sunlit_fraction=rng.uniform(0, 1, n).astype(F),
                material_ids=rng.integers(-1, n_materials, n).astype(np.int32),
                material_active=active, material_fluorescent=(np.arange(n_materials) % 3 != 2)
                .astype(np.uint8), temperature_sunlit=rng.uniform(290, 312, n).astype(F),
                temperature_shaded=rng.uniform(286, 306, n).astype(F), vcmax25=m(30, 90),
                jmax25=m(60, 180), rd25=m(0.5, 2), ball_berry_slope=m(6, 11),
                ball_berry_intercept=m(0.005, 0.02), quantum_yield=m(0.02, 0.04), co2=410.0,
                relative_humidity=0.6, max_iterations=100, tolerance=1e-3)


def np_fluorescence(an, apar_sum, jmax25, qy):
    a2 = F(0.425) * apar_sum
    x = np.minimum(4 * np.maximum(an, 0) / np.maximum(a2, F(1e-6)), F(0.8))
    l = jmax25 / F(0.8)
    e = np.maximum(0, a2 - l)
    n = 2 * e / (l + e + F(1e-12))
    base = np.where(a2 < F(1e-6), F(0.01), F(0.05) / (1 + 4 * (x / F(0.8)) + n))
    return np.where(qy <= 0, F(0), base * (qy / F(0.03))).astype(F)


def np_photosynthesis_static(r):
    """The static process in NumPy, float32, vectorised over the active elements."""
    n = r["sunlit_fraction"].size
    f, t_sun, t_shade = r["sunlit_fraction"], r["temperature_sunlit"], r["temperature_shaded"]
    out = {k: np.zeros(n, F) for k in ("an", "gs", "phi_f", "apar", "apar_sunlit", "apar_shaded")}
    out["temperature"] = f * t_sun + (1 - f) * t_shade
    ids = r["material_ids"]
    act = (ids >= 0) & (r["material_active"][np.maximum(ids, 0)] == 1)
    mid = ids[act]
    wl = r["wavelengths"]
    par = (wl >= 400) & (wl <= 700)
    c = ((wl[par] * F(1e-9)) / F(0.11962656)) * F(1e6)
    apar = ((r["absorbed_top"][act][:, par] + r["absorbed_bottom"][act][:, par]) * c).sum(1, F)
    adir = (r["absorbed_direct"][act][:, par] * c).sum(1, F)
    fa = f[act]
    shaded = np.maximum(apar - fa * adir, F(0))
    sunlit = adir + shaded
    fluorescent = r["material_fluorescent"][mid] == 1
    leaf = {k: r[k][mid] for k in ("vcmax25", "jmax25", "rd25", "ball_berry_slope",
                                   "ball_berry_intercept")}
    leaf.update(co2=np.full(mid.size, r["co2"], F),
                relative_humidity=np.full(mid.size, r["relative_humidity"], F),
                max_iterations=r["max_iterations"], tolerance=r["tolerance"])
    qy = np.where(fluorescent, r["quantum_yield"][mid], F(0))
    branch = {}
    for name, light, temperature in (("sun", sunlit, t_sun[act]), ("shade", shaded, t_shade[act])):
        an, gs, _, _ = np_ci_solve(np_biochemistry(temperature, light, leaf), leaf)
        branch[name] = an, gs, np_fluorescence(an, light, leaf["jmax25"], qy)
    blend = lambda k: fa * branch["sun"][k] + (1 - fa) * branch["shade"][k]  # noqa: E731
    out["an"][act], out["gs"][act] = blend(0), blend(1)
    out["phi_f"][act] = np.where(fluorescent, blend(2), F(0))
    out["apar"][act], out["apar_sunlit"][act], out["apar_shaded"][act] = apar, sunlit, shaded
    return out


def static_photosynthesis(vk, n, repeat, threads=2):
    os.environ["VESK_NUM_THREADS"] = str(threads)  # read by the process at every call
    vk._bench_set_omp_threads(threads)
    scene = vk.EmbreeSceneManager()
    req = photosynthesis_request(np.random.default_rng(11), n)
    run = lambda: vk.execute_photosynthesis_process_static_cpu(scene, req)  # noqa: E731
    seconds = timed_repeats({"module": run, "numpy": lambda: np_photosynthesis_static(req)},
                            repeat)
    module = rate_figure(f"static_photosynthesis_elements_per_s_{threads}t", n,
                         seconds["module"], bands=req["wavelengths"].size)
    numpy = rate_figure("static_photosynthesis_numpy_elements_per_s", n, seconds["numpy"])
    emit(BENCH, f"static_photosynthesis_vs_numpy_{threads}t", round(module / numpy, 2), "ratio",
         baseline="NumPy float32, same arithmetic, same run")
    # Same arithmetic in float32; only the order of the band sums differs.
    ours, ref = run(), np_photosynthesis_static(req)
    worst = {k: float(np.max(np.abs(ours[k] - ref[k]) / (np.abs(ref[k]) + 1.0)))
             for k in ("temperature", "apar", "apar_shaded", "an", "gs", "phi_f")}
    emit(BENCH, "static_photosynthesis_max_rel_difference_vs_numpy", max(worst.values()),
         "relative", per_output=worst)


# ---- energy-balance transports and the coupling loop ------------------------------------

def transport_figures(vk, build_dir, repeat, rng):
    """rays/s of both transports on the benchmark canopy against raw Embree in the same run."""
    scene, meshes, instances = build_canopy(vk, rng)
    n = scene.n_primitives()
    scene.set_primitive_temperatures(rng.uniform(285, 310, n).astype(F))
    scene.set_primitive_emissivities(np.full(n, 0.97, F))
    sun = np.array([0.35, 0.25, 0.9]) / np.linalg.norm([0.35, 0.25, 0.9])
    sun_kw = dict(sun_dir_x=sun[0], sun_dir_y=sun[1], sun_dir_z=sun[2])
    bands = 3
    refl = np.tile(np.array([0.05, 0.1, 0.45], F)[:, None], (1, n))
    trans = np.tile(np.array([0.04, 0.09, 0.42], F)[:, None], (1, n))
    runs = {
        "longwave": lambda: vk.run_energy_balance_cpu(scene, n_samples=2, band_type=1,
                                                      sky_lw_radiance=100.0),
        "shortwave": lambda: vk.run_energy_balance_cpu(
            scene, n_samples=2, sun_irradiance=800.0, sky_diffuse_radiance=30.0,
            sw_albedos=np.full(n, 0.2, F), **sun_kw),
        "multiband": lambda: vk.run_energy_balance_multiband_cpu(
            scene, bands, n_samples=1, max_depth=8, sun_irradiance=np.array([1200, 1500, 900], F),
            sky_diffuse_radiance=np.array([30, 40, 25], F), sw_reflectance=refl,
            sw_back_reflectance=refl, sw_transmittance=trans, **sun_kw),
    }
    random = random_rays(rng, scene, 1_000_000)
    for name, run in runs.items():
        os.environ["VESK_NUM_THREADS"] = "1"
        recorded = count_and_record(vk, run)
        for threads in (1, 2):
            os.environ["VESK_NUM_THREADS"] = str(threads)
            seconds = best_seconds(run, repeat)
            emit("energy", f"{name}_primitives_per_s_{threads}t", round(n / seconds, 1),
                 "primitives/s", primitives=n)
            compare_with_raw("energy", name, seconds, recorded, build_dir, meshes, instances,
                             random, threads, repeat)
    os.environ.pop("VESK_NUM_THREADS", None)


def coupling_figures(vk, repeat, rng):
    """Coupling rounds per second of the energy-balance process on a 100k-primitive canopy."""
    scene, _, _ = build_canopy(vk, rng, n_instances=50)
    n = scene.n_primitives()
    request = dict(primitive_material_ids=np.zeros(n, np.int32), material_active=np.ones(1, np.uint8),
                   material_initial_temperature=np.full(1, 290, F),
                   material_emissivity=np.full(1, 0.97, F), material_sidedness=np.full(1, 2, F),
                   material_sensible_derivative=np.full(1, 20, F),
                   material_latent_coefficient=np.full(1, 0.02, F),
                   material_ground_heat=np.zeros(1, F), material_sw_albedo=np.full(1, 0.2, F),
                   air_temperature=298.0, vapor_pressure=1500.0, sky_lw_radiance=100.0,
                   sw_direct=800.0, sw_diffuse_radiance=30.0, n_samples=4, max_iterations=3,
                   convergence_tolerance=1e-9, damping=0.5)
    for threads in (1, 2):
        os.environ["VESK_NUM_THREADS"] = str(threads)
        times = []
        for _ in range(repeat):
            t0 = time.perf_counter()
            r = vk.execute_energy_balance_process_cpu(scene, request)
            times.append(time.perf_counter() - t0)
        rounds = r["iterations"]
        emit("energy", f"coupling_rounds_per_s_{threads}t", round(rounds / np.median(times), 3),
             "rounds/s", primitives=n, n_samples=4, rounds=rounds,
             spread_s=[round(min(times), 3), round(max(times), 3)],
             note="each call: shortwave once, 3 rounds, then the final longwave and solves")
    os.environ.pop("VESK_NUM_THREADS", None)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--elements", type=int, default=1_000_000)
    ap.add_argument("--repeat", type=int, default=5)
    args = ap.parse_args()
    vk = import_bench_module(args.build)
    if vk is None:
        emit(BENCH, "error", None, "", error="benchmark build missing: run `make bench`")
        return
    static_photosynthesis(vk, args.elements, args.repeat)
    transport_figures(vk, args.build, args.repeat, np.random.default_rng(2))
    coupling_figures(vk, args.repeat, np.random.default_rng(3))


if __name__ == "__main__":
    main()
