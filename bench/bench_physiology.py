"""Leaf physiology benchmark: elements/s of solve_physiology_cpu on 1M elements (2 bands)
with fixed temperature and with the energy balance, at 1 and 2 threads, against a NumPy
implementation of the same equations (vectorised over elements, iterating until every
element has converged) in the same run. The NumPy results are checked against the module's.

Uses the benchmark build of the module (build/bench_python, made by `make bench`).
"""
import argparse
import os
import time

import numpy as np

from bench_util import ROOT, best_seconds, emit, import_bench_module

F = np.float32


def make_request(rng, n, energy):
    u = lambda lo, hi: rng.uniform(lo, hi, n).astype(F)
    r = dict(apar=rng.uniform(0, 900, (n, 2)).astype(F), temperature=u(285, 305), co2=u(380, 420),
             relative_humidity=u(0.4, 0.9), vpd=u(0.5, 2), pressure=u(95, 102), wind=u(0.2, 4),
             vcmax25=u(30, 90), jmax25=u(60, 180), rd25=u(0.5, 2), ball_berry_slope=u(6, 11),
             ball_berry_intercept=u(0.005, 0.02), quantum_yield=u(0.02, 0.04),
             max_iterations=100, tolerance=1e-3)
    if energy:
        r.update(dynamic_energy_balance=True, absorbed_shortwave=u(0, 500),
                 absorbed_longwave=u(300, 420), air_temperature=u(285, 305),
                 vapor_pressure=u(800, 2000), emissivity=u(0.94, 0.98), sidedness=np.full(n, 2, F),
                 leaf_width=u(0.02, 0.1), stomata_sides=np.full(n, 1, F))
    return r


# ---- the same model in NumPy, float32, as a scientist would vectorise it ----

def np_biochemistry(T, apar_sum, r):
    d, q = T - F(298.15), T * F(2478.819)
    D = 1 + np.exp((F(490) * T - F(150000)) / (F(8.314) * T))
    vcmax = r["vcmax25"] * np.exp(d * F(65330) / q) * F(1.2068106) / D
    jmax = r["jmax25"] * np.exp(d * F(43540) / q) * F(1.2068106) / D
    rd = r["rd25"] * np.exp(d * F(46390) / q)
    kc = F(404.9) * np.exp(d * F(79430) / q)
    ko = F(278.4) * np.exp(d * F(36380) / q)
    gstar = F(42.7) * np.exp(d * F(37830) / q)
    km = kc * (1 + F(209) / ko)
    I = F(0.3) * apar_sum
    S = I + jmax
    J = (S - np.sqrt(np.maximum(0, S * S - F(2.8) * I * jmax))) / F(1.4)
    return vcmax, rd, km, gstar, J


def np_ci_solve(b, r):
    vcmax, rd, km, gstar, J = b
    co2, g0 = r["co2"], r["ball_berry_intercept"]
    mh = r["ball_berry_slope"] * r["relative_humidity"]
    ci = F(0.7) * co2
    an = np.zeros_like(ci)
    gs = np.zeros_like(ci)
    done = np.zeros(ci.shape, bool)
    for _ in range(r["max_iterations"]):
        ac = vcmax * (ci - gstar) / (km + ci + F(1e-12))
        aj = F(0.25) * J * (ci - gstar) / (2 * gstar + ci + F(1e-12))
        an_new = np.minimum(ac, aj) - rd
        p = np.maximum(an_new, 0)
        gs_new = np.maximum(g0, g0 + mh * p / (co2 + F(1e-12)))
        ci_new = np.minimum(co2, np.maximum(F(10), co2 - F(1.6) * p / (gs_new + F(1e-12))))
        live = ~done
        an = np.where(live, an_new, an)
        gs = np.where(live, gs_new, gs)
        done |= live & (np.abs(ci_new - ci) < r["tolerance"])
        ci = np.where(live, ci_new, ci)
        if done.all():
            break
    return an, gs, ci, done


def np_physiology(r):
    apar_sum = r["apar"].sum(axis=1, dtype=F)
    if not r.get("dynamic_energy_balance"):
        return np_ci_solve(np_biochemistry(r["temperature"], apar_sum, r), r)
    rb = F(200) * np.sqrt(r["leaf_width"] / np.maximum(r["wind"], F(0.1)))
    gh = r["sidedness"] * F(1.225 * 1005) / rb
    ge = r["stomata_sides"] * F(1.225 * 1005) / F(66)
    rabs = r["absorbed_shortwave"] + r["absorbed_longwave"]
    eps_sig = r["emissivity"] * r["sidedness"] * F(5.670374e-8)
    T = r["temperature"].copy()
    done = np.zeros(T.shape, bool)
    for _ in range(r["max_iterations"]):
        _, gs, _, _ = np_ci_solve(np_biochemistry(T, apar_sum, r), r)
        t = T - F(273.15)
        es = F(610.78) * np.exp(F(17.27) * t / (t + F(237.3)))
        rs = (r["pressure"] * 1000 / (F(8.314) * T)) / np.maximum(gs, F(1e-12))
        c = ge / (rb + rs)
        f = rabs - eps_sig * T ** 4 - gh * (T - r["air_temperature"]) - c * (es - r["vapor_pressure"])
        df = -4 * eps_sig * T ** 3 - gh - c * (es * F(17.27 * 237.3) / (t + F(237.3)) ** 2)
        step = np.clip(np.where(np.abs(df) > 1e-12, f / df, 0), -10, 10).astype(F)
        new_t = np.clip(T - step, 200, 350).astype(F)
        live = ~done
        done |= live & (np.abs(new_t - T) < r["tolerance"])
        T = np.where(live, new_t, T)
        if done.all():
            break
    an, gs, ci, ok = np_ci_solve(np_biochemistry(T, apar_sum, r), r)
    return an, gs, ci, T


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--elements", type=int, default=1_000_000)
    ap.add_argument("--repeat", type=int, default=3)
    args = ap.parse_args()
    vk = import_bench_module(args.build)
    if vk is None:
        emit("physiology", "error", None, "", error="benchmark build missing: run `make bench`")
        return
    scene = vk.EmbreeSceneManager()
    rng = np.random.default_rng(7)
    n = args.elements
    for mode, energy in (("fixed_temperature", False), ("energy_balance", True)):
        req = make_request(rng, n, energy)
        t0 = time.perf_counter()
        ref = np_physiology(req)
        t_np = time.perf_counter() - t0
        emit("physiology", f"{mode}_numpy_elements_per_s", round(n / t_np, 1), "elements/s")
        for threads in (1, 2):
            os.environ["VESK_NUM_THREADS"] = str(threads)  # read by the solver at every call
            best = best_seconds(lambda: vk.solve_physiology_cpu(scene, req), args.repeat)
            out = vk.solve_physiology_cpu(scene, req)
            emit("physiology", f"{mode}_elements_per_s_{threads}t", round(n / best, 1),
                 "elements/s")
            emit("physiology", f"{mode}_vs_numpy_{threads}t", round(t_np / best, 2), "ratio",
                 target=">= 20 at 2 threads" if not energy else None)
        # Same equations, same float32: the answers agree to rounding.
        an_err = float(np.max(np.abs(out["an"] - ref[0])))
        emit("physiology", f"{mode}_max_abs_an_difference_vs_numpy", an_err, "umol m-2 s-1")


if __name__ == "__main__":
    main()
