"""Vulkan backend benchmark on the benchmark canopy (bench_util.build_canopy: 240k
instanced leaf triangles over a ground, repeated tiles, sun and sky): closest-hit rays/s
of trace_closest, samples/s of simulate_backward (also through a turbid leaf layer,
build_turbid_layer) and photons/s of simulate_flux, simulate_forward_radiation and
simulate_brf on the first ranked Vulkan device,
on each trace path it offers (ray queries, ray-tracing pipelines), against the CPU
scene's trace_closest (one thread), simulate_cpu and the photon entries (every thread:
simulate_flux_cpu, simulate_forward_cpu, simulate_brf_cpu) on the same scene in
the same run. On a smaller canopy of the same make (8k leaves), primitives/s of the
energy-balance transports and pulses/s of the LiDAR scanner, device against CPU; then
elements/s of the ray-free element programs and of the two coupled processes (energy
balance, dynamic photosynthesis: the host loop over the device transport) on a small
canopy (--coupled-tris). Runs are interleaved (CPU, then each path,
repeated), and each figure is the
median of the repeats with its spread (min and max) beside it; the ratios are medians of
the per-round ratios.

Uses the plain build of the module (build/python). On a machine without a GPU the device
is lavapipe, Mesa's CPU driver.
"""
import argparse
import importlib
import os
import statistics
import sys
import time

import numpy as np

from bench_util import ROOT, build_canopy, emit, random_rays

PATHS = {"ray_query": "query", "ray_pipeline": "pipeline"}


def seconds(fn):
    t = time.perf_counter()
    fn()
    return time.perf_counter() - t


# The photon processes: (CPU entry, Vulkan method, arguments after the scene).
BRF_DIRS = np.array([0, 0, 1, 0.5, 0, 0.85], np.float32)
PHOTON_RUNS = {
    "flux": ("simulate_flux_cpu", "simulate_flux",
             lambda n: dict(nx=16, ny=16, num_photons=n, num_bands=1, prob_sun=0.7)),
    "forward": ("simulate_forward_cpu", "simulate_forward_radiation",
                lambda n: dict(nx=16, ny=16, num_photons=n, prob_sun=0.7)),
    "brf": ("simulate_brf_cpu", "simulate_brf",
            lambda n: dict(directions=BRF_DIRS, num_photons=n)),
}


def photon_runs(vk, cpu, scenes, photons):
    """Runs of every photon process on the CPU and on each path, and their work units."""
    runs, work = {}, {}
    for kind, (cpu_entry, method, kwargs) in PHOTON_RUNS.items():
        runs[kind] = {"cpu": lambda e=getattr(vk, cpu_entry), k=kwargs(photons): e(cpu, **k)}
        for p, (_, scene, _) in scenes.items():
            getattr(scene, method)(**kwargs(64))  # the program compiled outside the timing
            runs[kind][p] = lambda m=getattr(scene, method), k=kwargs(photons): m(**k)
        work[kind] = (photons, "photons/s", f"{kind}_photons_per_s")
    return runs, work


def build_turbid_layer(vk, scene):
    """A turbid leaf layer (LAI 3, spherical leaves, a hot spot) 0-2 m up filling a
    repeated 10 m tile over a soil, under sun and sky, seen obliquely at 64 x 48."""
    f = np.float32
    scene.set_num_bands(2)
    scene.upload_spectral_params(np.array([0.15, 0.3, 0.08, 0.45, 0.05, 0.4, 1000.0, 800.0,
                                           30.0, 20.0], f))
    scene.add_material(0, 0, [0.15])
    scene.add_material(13, 2, [0.3, 0.25])
    scene.add_instance(scene.add_mesh(**vk.make_ground_plane(5, 5, 0, 10.0)), 5.0, 5.0, 0.0)
    cube = {"vertices": np.array([[x, y, z] for z in (-.5, .5) for y in (-.5, .5) for x in (-.5, .5)], f),
            "normals": np.zeros((0, 3), f),
            "indices": np.array([[0, 2, 3], [0, 3, 1], [4, 5, 7], [4, 7, 6], [0, 1, 5], [0, 5, 4],
                                 [2, 6, 7], [2, 7, 3], [0, 4, 6], [0, 6, 2], [1, 3, 7], [1, 7, 5]],
                                np.int32), "material_id": 1}  # outward winding
    scene.add_instance_xform(scene.add_mesh(**cube),
                             np.array([10, 0, 0, 5, 0, 10, 0, 5, 0, 0, 2, 1], f))
    scene.set_optical_turbid_media([1.5], [0], [1], [0.2], [-1, 0])
    scene.set_emitter(0, np.array([0.3, 0.1, 0.95], f) / np.linalg.norm([0.3, 0.1, 0.95]), 6)
    scene.set_sky(8)
    scene.set_repetitive(100, 10.0, 10.0)
    cam = np.array([[1, 0, 0, 5], [0, 0.8, -0.6, -5], [0, 0.6, 0.8, 15], [0, 0, 0, 1]], f).ravel()
    scene.set_sensor(0, 64, 48, 10.0, 7.5, cam)
    scene.build()
    return scene


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--spp", type=int, default=4)
    ap.add_argument("--max-depth", type=int, default=8)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--rays", type=int, default=200_000)
    ap.add_argument("--elements", type=int, default=100_000)
    ap.add_argument("--sampler-budget", type=int, default=16384)
    ap.add_argument("--coupled-tris", type=int, default=500,
                    help="leaf triangles per mesh of the coupled processes' canopy (4 meshes, "
                         "4 instances, over an 800-triangle ground)")
    ap.add_argument("--only-elements", action="store_true",
                    help="only the element processes and the sampler")
    ap.add_argument("--photons", type=int, default=20_000)
    args = ap.parse_args()
    sys.path.insert(0, f"{args.build}/python")
    vk = importlib.import_module("vesk_gpu")
    devices = [d for d in vk.list_vulkan_devices() if d["compatible"]]
    if not devices:
        emit("vulkan", "error", None, "", error="no compatible Vulkan device")
        return
    first = devices[0]
    if args.only_elements:
        bench_elements(vk, args, first["name"])
        return
    paths = [p for p, have in (("ray_query", first["has_ray_query"]),
                               ("ray_pipeline", first["has_ray_tracing_pipeline"])) if have]
    forced = os.environ.get("VESK_VULKAN_TRACE")
    cpu, _, _ = build_canopy(vk, np.random.default_rng(2))
    cpu_layer = build_turbid_layer(vk, vk.EmbreeSceneManager())
    layer_samples = 64 * 48 * args.spp
    scenes = {}
    for p in paths:
        os.environ["VESK_VULKAN_TRACE"] = PATHS[p]
        context = vk.VulkanContext(0)
        scene, _, _ = build_canopy(vk, np.random.default_rng(2), scene=vk.VulkanSceneManager(context))
        scenes[p] = (context, scene, build_turbid_layer(vk, vk.VulkanSceneManager(context)))
    if forced is None:
        os.environ.pop("VESK_VULKAN_TRACE")
    else:
        os.environ["VESK_VULKAN_TRACE"] = forced
    device = first["name"]
    origins, dirs = random_rays(np.random.default_rng(3), cpu, args.rays)
    w, h = cpu.sensor_config()["width"], cpu.sensor_config()["height"]
    samples = w * h * args.spp
    for _, scene, layer in scenes.values():  # programs compiled once, outside the timing
        scene.trace_closest(origins[:64], dirs[:64])
        scene.simulate_backward(1, 1)
        layer.simulate_backward(1, 1)

    runs = {"trace": {"cpu": lambda: cpu.trace_closest(origins, dirs)},
            "backward": {"cpu": lambda: vk.simulate_cpu(cpu, args.spp, args.max_depth)},
            "backward_media": {"cpu": lambda: vk.simulate_cpu(cpu_layer, args.spp, args.max_depth)}}
    for p, (_, scene, layer) in scenes.items():
        runs["trace"][p] = lambda s=scene: s.trace_closest(origins, dirs)
        runs["backward"][p] = lambda s=scene: s.simulate_backward(args.spp, args.max_depth)
        runs["backward_media"][p] = lambda s=layer: s.simulate_backward(args.spp, args.max_depth)
    more_runs, photon_work = photon_runs(vk, cpu, scenes, args.photons)
    runs.update(more_runs)
    times = {k: {n: [] for n in v} for k, v in runs.items()}
    for _ in range(args.repeat):
        for kind, fns in runs.items():
            for name, fn in fns.items():
                times[kind][name].append(seconds(fn))

    work = {"trace": (args.rays, "rays/s", "trace_closest_rays_per_s"),
            "backward": (samples, "samples/s", "backward_samples_per_s"),
            "backward_media": (layer_samples, "samples/s", "backward_media_samples_per_s"),
            **photon_work}
    for kind, per in times.items():
        n, unit, figure = work[kind]
        for name, ts in per.items():
            rates = [n / t for t in ts]
            emit("vulkan", f"{figure}_{name}", round(statistics.median(rates), 1), unit,
                 spread=[round(min(rates), 1), round(max(rates), 1)],
                 device=device if name != "cpu" else
                 ("calling thread" if kind == "trace" else "every CPU thread"),
                 repeats=args.repeat, **({"spp": args.spp, "max_depth": args.max_depth}
                                         if kind.startswith("backward") else {"rays": args.rays}
                                         if kind == "trace" else {"photons": n}))
        for name in per:
            if name == "cpu":
                continue
            ratios = [c / g for c, g in zip(per["cpu"], per[name])]
            emit("vulkan", f"{kind}_{name}_over_cpu", round(statistics.median(ratios), 4), "ratio",
                 spread=[round(min(ratios), 4), round(max(ratios), 4)],
                 baseline="the CPU scene on the same scene, in the same rounds")
    transport_figures(vk, {p: v[0] for p, v in scenes.items()}, device, args.repeat)
    bench_elements(vk, args, device)


# ---- element processes and the leaf-area sampler: compute programs without rays -------------
# elements/s (samples/s for the sampler and the SIF assembly) of each *_vulkan entry next to
# its CPU twin (every thread), end to end through the module: validation, uploads, the
# dispatch and the read-back. Medians of interleaved repeats, as above.

def element_requests(rng, n):
    u = lambda lo, hi, k=n: rng.uniform(lo, hi, k).astype(np.float32)  # noqa: E731
    leaf = dict(apar=np.stack([u(0, 1200), u(0, 800)], 1), temperature=u(275, 315), co2=u(200, 800),
                relative_humidity=u(0.2, 1.0), vpd=u(0, 3), pressure=u(80, 105), wind=u(0, 6),
                vcmax25=u(10, 150), jmax25=u(20, 300), rd25=u(0, 3), ball_berry_slope=u(4, 14),
                ball_berry_intercept=u(0, 0.05), quantum_yield=u(0, 0.06), max_iterations=50,
                tolerance=1e-4)
    energy = dict(leaf, dynamic_energy_balance=True, absorbed_shortwave=u(0, 800),
                  absorbed_longwave=u(280, 420), air_temperature=u(280, 310),
                  vapor_pressure=u(500, 2500), emissivity=u(0.94, 0.99),
                  sidedness=np.full(n, 2, np.float32), leaf_width=u(0.01, 0.1),
                  stomata_sides=np.ones(n, np.float32))
    wl = np.array([450, 550, 650, 800], np.float32)
    top = rng.uniform(0, 3, (n, 4)).astype(np.float32)
    m = lambda lo, hi: rng.uniform(lo, hi, 3).astype(np.float32)  # noqa: E731
    static = dict(absorbed_top=top, absorbed_bottom=top * np.float32(0.3),
                  absorbed_direct=top * np.float32(0.5), wavelengths=wl,
                  sunlit_fraction=u(0, 1), material_ids=rng.integers(-1, 3, n).astype(np.int32),
                  material_active=np.ones(3, np.uint8), material_fluorescent=np.ones(3, np.uint8),
                  temperature_sunlit=u(290, 310), temperature_shaded=u(285, 300),
                  vcmax25=m(30, 90), jmax25=m(60, 180), rd25=m(0.5, 2), ball_berry_slope=m(6, 10),
                  ball_berry_intercept=m(0.005, 0.02), quantum_yield=m(0.01, 0.05), co2=410.0,
                  relative_humidity=0.6, max_iterations=50, tolerance=1e-4)
    finalize = dict(absorbed_top=top, absorbed_bottom=top[:, ::-1].copy(),
                    material_ids=static["material_ids"], material_phi_f=m(0.01, 0.05),
                    selected_band_indices=np.array([1, 3], np.int32))
    bands = 4
    assembly = dict(positions=rng.uniform(0, 2, (n, 3)).astype(np.float32),
                    normals=rng.normal(size=(n, 3)).astype(np.float32),
                    instance_ids=rng.integers(0, 4, n).astype(np.int32),
                    grid_dims=np.tile(np.array([[8, 8, 4]], np.int32), (4, 1)),
                    source=rng.uniform(0, 2, (bands, n)).astype(np.float32),
                    direct_source=rng.uniform(0, 1, (bands, n)).astype(np.float32),
                    bounds_min=np.zeros((4, 3), np.float32), bounds_max=np.full((4, 3), 2, np.float32),
                    cell_stride=256, theta_bins=4, phi_bins=8)
    return dict(physiology=(leaf, n), physiology_energy_balance=(energy, n),
                photosynthesis_static=(static, n), sif_finalize=(finalize, n),
                sif_assembly=(assembly, n))


def coupled_requests(rng, n):
    """The two coupled processes over every primitive of a canopy: three damped rounds
    (a tolerance no round reaches) and the final block, eight samples per side."""
    u = lambda lo, hi: rng.uniform(lo, hi, n).astype(np.float32)  # noqa: E731
    full = lambda v: np.full(n, v, np.float32)  # noqa: E731
    loop = dict(n_samples=8, max_iterations=3, convergence_tolerance=1e-6, damping=0.7)
    eb = dict(active=np.ones(n, np.uint8), initial_temperature=full(295), emissivity=full(0.96),
              sidedness=full(2), sensible_derivative=full(15), latent_coefficient=full(0.02),
              ground_heat=full(5), sw_albedo=full(0.2), air_temperature=297.0,
              vapor_pressure=1400.0, sky_lw_radiance=105.0, sw_direct=700.0,
              sw_diffuse_radiance=30.0, sun_dir_x=0.3, sun_dir_y=-0.2, sun_dir_z=0.93, **loop)
    dyn = dict(active=np.ones(n, np.uint8), fluorescent=np.ones(n, np.uint8), apar=u(50, 1500),
               absorbed_shortwave=u(30, 600), initial_temperature=full(295),
               emissivity=full(0.97), sidedness=full(2), leaf_width=full(0.05),
               stomata_sides=full(1), vcmax25=u(30, 90), jmax25=u(60, 180), rd25=full(1),
               ball_berry_slope=full(9), ball_berry_intercept=full(0.01), quantum_yield=full(0.03),
               co2=400.0, relative_humidity=0.6, air_temperature=298.0, vapor_pressure=1500.0,
               pressure=101.3, wind=1.5, sky_lw_radiance=110.0, **loop)
    return {"energy_balance_process": eb, "photosynthesis_process_dynamic": dyn}


def bench_elements(vk, args, device):
    cpu = vk.EmbreeSceneManager()
    context = vk.VulkanContext(0)
    gpu = vk.VulkanSceneManager(context)
    entries = {"physiology": "solve_physiology", "physiology_energy_balance": "solve_physiology",
               "photosynthesis_static": "execute_photosynthesis_process_static",
               "sif_finalize": "finalize_sif_process", "sif_assembly": "assemble_sif_source"}
    runs = {}
    for kind, (request, n) in element_requests(np.random.default_rng(5), args.elements).items():
        unit = "samples/s" if kind == "sif_assembly" else "elements/s"
        for form, scene in (("cpu", cpu), ("vulkan", gpu)):
            fn = getattr(vk, f"{entries[kind]}_{form}")
            runs[(kind, form)] = (lambda f=fn, s=scene, r=request: f(s, r), n, unit)
    # The coupled processes trace: elements/s is the canopy's primitives over the seconds of
    # one whole process call (shortwave, rounds, final block, diagnostic solve).
    shape = dict(n_meshes=4, tris=args.coupled_tris, n_instances=4)
    canopies = {"cpu": build_canopy(vk, np.random.default_rng(6), **shape)[0],
                "vulkan": build_canopy(vk, np.random.default_rng(6),
                                       scene=vk.VulkanSceneManager(context), **shape)[0]}
    n_coupled = canopies["cpu"].n_primitives()
    coupled = coupled_requests(np.random.default_rng(7), n_coupled)
    for kind, request in coupled.items():
        for form, scene in canopies.items():
            fn = getattr(vk, f"execute_{kind}_{form}")
            runs[(kind, form)] = (lambda f=fn, s=scene, r=request: f(s, r), n_coupled,
                                  "elements/s")
    # The sampler: candidates/s (every candidate tested) and samples/s (accepted ones) over
    # a sphere owner; the candidate sequence is the same for both forms.
    g = vk.make_sphere(1.0, np.zeros(3, np.float32), 3)
    owner = dict(owner_id=1, leaf_area_density=1.5, leaf_length=0.05, leaf_angle_distribution=1,
                 vertices=g["vertices"], triangles=g["indices"])
    sampling = dict(owners=[owner], seed=7)
    budget = args.sampler_budget
    for form, scene in (("cpu", cpu), ("vulkan", gpu)):
        fn = getattr(vk, "_debug_turbid_samples_embree" if form == "cpu" else
                     "_debug_turbid_samples_vulkan")
        runs[("turbid_sampling", form)] = (
            lambda f=fn, s=scene: f(s, sampling, "high", 7, budget), budget, "samples/s")
    for fn, _, _ in runs.values():  # programs compiled and workspaces built outside the timing
        fn()
    tested = runs[("turbid_sampling", "cpu")][0]()["payload"]["candidates_tested"].sum()
    times = {key: [] for key in runs}
    for _ in range(args.repeat):
        for key, (fn, _, _) in runs.items():
            times[key].append(seconds(fn))
    for (kind, form), ts in times.items():
        _, n, unit = runs[(kind, form)]
        rates = [n / t for t in ts]
        extra = {"candidates_tested": int(tested)} if kind == "turbid_sampling" else {"elements": n}
        emit("vulkan", f"{kind}_{unit.split('/')[0]}_per_s_{form}",
             round(statistics.median(rates), 1), unit,
             spread=[round(min(rates), 1), round(max(rates), 1)],
             device=device if form == "vulkan" else "every CPU thread", repeats=args.repeat,
             **extra)
        if form == "vulkan":
            ratios = [c / v for c, v in zip(times[(kind, "cpu")], ts)]
            emit("vulkan", f"{kind}_vulkan_over_cpu", round(statistics.median(ratios), 4), "ratio",
                 spread=[round(min(ratios), 4), round(max(ratios), 4)],
                 baseline="the CPU form on the same request, in the same rounds")


def transport_figures(vk, contexts, device, repeat):
    """Energy balance (longwave single band, 3-band walk with sun and leaf optics) in
    primitives/s and LiDAR (waveform, direct, waveform through the turbid layer) in
    pulses/s, each form on every path against its CPU form on every thread, interleaved
    as above."""
    small = dict(n_meshes=4, tris=500, n_instances=16)
    cpu, _, _ = build_canopy(vk, np.random.default_rng(4), **small)
    scenes = {p: build_canopy(vk, np.random.default_rng(4), scene=vk.VulkanSceneManager(c),
                              **small)[0] for p, c in contexts.items()}
    n = cpu.n_primitives()
    rng = np.random.default_rng(5)
    refl = rng.uniform(0.05, 0.45, (3, n)).astype(np.float32).ravel()
    eb = dict(n_samples=4, band_type=1, sky_lw_radiance=90.0)
    mb = dict(n_bands=3, n_samples=4, max_depth=4,
              sun_irradiance=np.array([1200, 1500, 900], np.float32),
              sky_diffuse_radiance=np.array([30, 40, 25], np.float32),
              sun_dir_x=0.35, sun_dir_y=0.25, sun_dir_z=0.9, sw_reflectance=refl,
              sw_back_reflectance=refl, sw_transmittance=refl)
    n_pulses = 2000
    o = np.column_stack([rng.uniform(0, 40, n_pulses), rng.uniform(0, 40, n_pulses),
                         np.full(n_pulses, 30.0)]).astype(np.float32).ravel()
    d = np.column_stack([rng.uniform(-0.2, 0.2, (n_pulses, 2)), -np.ones(n_pulses)])
    d = (d / np.linalg.norm(d, axis=1)[:, None]).astype(np.float32).ravel()
    lid = dict(beam_samples_per_dim=4, max_range=40.0)
    cpu_layer = build_turbid_layer(vk, vk.EmbreeSceneManager())
    layers = {p: build_turbid_layer(vk, vk.VulkanSceneManager(c)) for p, c in contexts.items()}
    n_turbid = 500
    ot = np.column_stack([rng.uniform(0, 10, n_turbid), rng.uniform(0, 10, n_turbid),
                          np.full(n_turbid, 30.0)]).astype(np.float32).ravel()
    dt = d[:3 * n_turbid]
    forms = {
        "energy_balance": (n, "primitives/s", eb, lambda: vk.run_energy_balance_cpu(cpu, **eb),
                           lambda s: s.run_energy_balance_gpu(**eb)),
        "energy_balance_multiband": (n, "primitives/s", mb,
                                     lambda: vk.run_energy_balance_multiband_cpu(cpu, **mb),
                                     lambda s: s.run_energy_balance_multiband_gpu(**mb)),
        "lidar_waveform": (n_pulses, "pulses/s", lid,
                           lambda: vk.simulate_lidar_cpu(cpu, o, d, n_pulses, **lid),
                           lambda s: s.simulate_lidar(o, d, n_pulses, **lid)),
        "lidar_direct": (n_pulses, "pulses/s", {},
                         lambda: vk.simulate_lidar_cpu(cpu, o, d, n_pulses, direct_mode=True),
                         lambda s: s.simulate_lidar(o, d, n_pulses, direct_mode=True)),
        "lidar_waveform_turbid": (n_turbid, "pulses/s", lid,
                                  lambda: vk.simulate_lidar_cpu(cpu_layer, ot, dt, n_turbid, **lid),
                                  lambda s: layers[s].simulate_lidar(ot, dt, n_turbid, **lid)),
    }
    def target(kind, p):
        return p if kind == "lidar_waveform_turbid" else scenes[p]

    for kind, (_, _, _, _, gpu) in forms.items():  # programs compiled once, outside the timing
        for p in scenes:
            gpu(target(kind, p))
    times = {k: {name: [] for name in ["cpu", *scenes]} for k in forms}
    for _ in range(repeat):
        for kind, (_, _, _, run_cpu, gpu) in forms.items():
            times[kind]["cpu"].append(seconds(run_cpu))
            for p in scenes:
                times[kind][p].append(seconds(lambda: gpu(target(kind, p))))
    for kind, (work, unit, options, _, _) in forms.items():
        settings = {k: v for k, v in options.items() if np.isscalar(v)}
        for name, ts in times[kind].items():
            rates = [work / t for t in ts]
            emit("vulkan", f"{kind}_{unit.split('/')[0]}_per_s_{name}",
                 round(statistics.median(rates), 1), unit,
                 spread=[round(min(rates), 1), round(max(rates), 1)],
                 device=device if name != "cpu" else "every CPU thread", repeats=repeat,
                 primitives=n if kind != "lidar_waveform_turbid" else cpu_layer.n_primitives(),
                 **settings)
        for name in scenes:
            ratios = [c / g for c, g in zip(times[kind]["cpu"], times[kind][name])]
            emit("vulkan", f"{kind}_{name}_over_cpu", round(statistics.median(ratios), 4), "ratio",
                 spread=[round(min(ratios), 4), round(max(ratios), 4)],
                 baseline="the CPU form on the same scene, in the same rounds")


if __name__ == "__main__":
    main()
