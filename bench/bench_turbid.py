"""Turbid-media benchmark: backward samples/s and flux photons/s on a canopy of turbid
crowns at 1 and 2 threads; free-path samples/s of the sampler itself; and the cost of the
media-aware routines on the benchmark canopy with one medium that no ray enters, against
the same canopy without it, interleaved in the same run.

Uses the benchmark build of the module (build/bench_python, made by `make bench`).
"""
import argparse
import statistics
import time

import numpy as np

from bench_util import ROOT, best_seconds, build_canopy, emit, import_bench_module

F = np.float32


def turbid_canopy(vk, rng, n_crowns=60):
    """Ellipsoid crowns bounding a spherical leaf medium (leaf area density 1.2) over a
    ground, in the repeated 40 m tile of the benchmark canopy, with its sun, sky, bands and
    camera."""
    s, _, _ = build_canopy(vk, rng, n_meshes=1, tris=10, n_instances=1)
    plain = vk.EmbreeSceneManager()
    plain.set_num_bands(3)
    spectra = np.array([0.08, 0.15, 0.3, 0.05, 0.1, 0.45, 0.07, 0.12, 0.4, 0.04, 0.09, 0.42,
                        1200, 1500, 900, 30, 40, 25], F)
    plain.upload_spectral_params(spectra)
    plain.add_material(0, 0, [0.18])
    plain.add_material(13, 3, [0.2, 0.18])
    plain.add_instance(plain.add_mesh(**vk.make_ground_plane(20.0, 20.0, 0, 10.0)), 20, 20, 0)
    crown = plain.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 3), material_id=1)
    side = int(np.ceil(np.sqrt(n_crowns)))
    for i in range(n_crowns):
        x = 2 + 36 * ((i % side) + 0.5) / side + rng.uniform(-0.6, 0.6)
        y = 2 + 36 * ((i // side) + 0.5) / side + rng.uniform(-0.6, 0.6)
        plain.add_instance_xform(crown, np.array([2.0, 0, 0, x, 0, 2.0, 0, y, 0, 0, 1.5,
                                                  rng.uniform(3.0, 4.5)], F))
    plain.set_optical_turbid_media([1.2], [0], [1], [0.1], [-1, 0])
    sc = s.sensor_config()
    plain.set_emitter(0, np.array([0.35, 0.25, 0.9], F) / np.linalg.norm([0.35, 0.25, 0.9]), 12)
    plain.set_sky(15)
    plain.set_sensor(1, 96, 64, 0.0, 0.0, np.array(sc["camera_to_world"], F), fov=55.0)
    plain.set_repetitive(3, 40.0, 40.0)
    plain.build()
    return plain


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--spp", type=int, default=8)
    ap.add_argument("--photons", type=int, default=200_000)
    ap.add_argument("--repeat", type=int, default=3)
    args = ap.parse_args()
    vk = import_bench_module(args.build)
    if vk is None:
        emit("turbid", "error", None, "", error="benchmark build missing: run `make bench`")
        return
    rng = np.random.default_rng(5)

    scene = turbid_canopy(vk, rng)
    samples = 96 * 64 * args.spp
    for threads in (1, 2):
        t = best_seconds(lambda: vk._bench_render_backward(scene, args.spp, 8, threads),
                         args.repeat)
        emit("turbid", f"backward_samples_per_s_{threads}t", round(samples / t, 1), "samples/s")
        t = best_seconds(lambda: vk._bench_render_flux(scene, 32, args.photons, 3, 0.8, threads),
                         args.repeat)
        emit("turbid", f"flux_photons_per_s_{threads}t", round(args.photons / t, 1), "photons/s")

    n = 5_000_000
    for ids in ([0], [0, 0, 0]):
        t = best_seconds(lambda: vk._bench_free_paths(scene, np.array(ids, np.int32), n),
                         args.repeat)
        emit("turbid", f"free_path_samples_per_s_{len(ids)}_media", round(n / t, 1), "samples/s")

    # The media-aware routines where no ray meets a medium: one medium crown buried under
    # the ground of the benchmark canopy. Interleaved runs; the ratio of medians.
    canopy, _, _ = build_canopy(vk, np.random.default_rng(2))
    buried, _, _ = build_canopy(vk, np.random.default_rng(2))
    buried.add_material(13, 3, [0.2, 0.18])
    buried.add_instance(buried.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 2), material_id=2),
                        20.0, 20.0, -3.0)
    buried.set_optical_turbid_media([1.0], [0], [1], [0.0], [-1, -1, 0])
    buried.build()
    for name, run in {
        "backward": lambda s: vk._bench_render_backward(s, args.spp, 8, 1),
        "flux": lambda s: vk._bench_render_flux(s, 32, args.photons, 3, 0.8, 1),
    }.items():
        ratios = []
        for _ in range(args.repeat + 2):
            times = []
            for s in (canopy, buried):
                t0 = time.perf_counter()
                run(s)
                times.append(time.perf_counter() - t0)
            ratios.append(times[0] / times[1])
        emit("turbid", f"{name}_unentered_media_speed_vs_none_1t", round(statistics.median(ratios), 3),
             "ratio", spread=[round(min(ratios), 3), round(max(ratios), 3)], target=">= 0.95")


if __name__ == "__main__":
    main()
