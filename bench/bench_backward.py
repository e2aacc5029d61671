"""Backward tracer benchmark on a canopy of 240k instanced leaf triangles over a ground:
samples/s at 1 and 2 threads, and path segments/s (closest-hit plus shadow rays, as
counted by the benchmark build's ray counters) against a plain Embree loop of random
closest-hit rays on the same scene in the same run.

A second baseline replays the tracer's own recorded rays (closest-hit and shadow)
through the raw loop: the ratio of that Embree-only time to the render time is the
share of the render that Embree itself needs, independent of the ray mix.

Uses the benchmark build of the module (build/bench_python, made by `make bench`).
"""
import argparse
import sys
import time

import numpy as np

from bench_util import ROOT, emit, leaf_cluster, random_rotation, run_raw_embree

F = np.float32


def build_canopy(vk, rng, n_meshes=12, tris=2000, n_instances=120):
    s = vk.EmbreeSceneManager()
    bands = 3
    s.set_num_bands(bands)
    spec = np.concatenate([[0.08, 0.15, 0.3],                       # ground
                           [0.05, 0.1, 0.45], [0.07, 0.12, 0.4],     # leaf front, back
                           [0.04, 0.09, 0.42],                       # leaf transmittance
                           [1200, 1500, 900], [30, 40, 25]]).astype(F)  # sun, sky
    s.upload_spectral_params(spec)
    s.add_material(0, 0, [0.18, 0.0])
    s.add_material(13, 3, [0.2, 0.18])
    meshes = []
    instances = []
    ground = vk.make_ground_plane(20.0, 20.0, 0, 10.0)
    gid = s.add_mesh(**ground)
    meshes.append((ground["vertices"], ground["indices"]))
    ident = np.array([1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0], F)
    s.add_instance_xform(gid, ident)
    instances.append((gid, ident))
    leaf_ids = []
    for _ in range(n_meshes):
        v, idx = leaf_cluster(rng, tris, leaf_size=0.08)
        leaf_ids.append(s.add_mesh(v, np.zeros((0, 3), F), idx, material_id=1))
        meshes.append((v, idx))
    side = int(np.ceil(np.sqrt(n_instances)))
    for i in range(n_instances):
        m = random_rotation(rng) * np.diag([1.6, 1.6, 1.2])
        t = [-18 + 36 * ((i % side) + 0.5) / side + rng.uniform(-0.6, 0.6),
             -18 + 36 * ((i // side) + 0.5) / side + rng.uniform(-0.6, 0.6), rng.uniform(2.5, 4.0)]
        xf = np.hstack([m, np.array(t)[:, None]]).astype(F).ravel()
        mid = leaf_ids[i % n_meshes]
        s.add_instance_xform(mid, xf)
        instances.append((mid, xf))
    sun = np.array([0.35, 0.25, 0.9], F)
    s.set_emitter(0, sun / np.linalg.norm(sun), 12)
    s.set_sky(15)
    cam = np.eye(4, dtype=F)
    c, sn = np.cos(0.5), np.sin(0.5)  # tilted 0.5 rad about x, looking down at the canopy
    cam[:3, :3] = [[1, 0, 0], [0, c, -sn], [0, sn, c]]
    cam[:3, 3] = [0.0, -14.0, 24.0]
    s.set_sensor(1, 96, 64, 0.0, 0.0, cam.ravel(), fov=55.0)
    s.build()
    return s, meshes, instances


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--spp", type=int, default=4)
    ap.add_argument("--max-depth", type=int, default=8)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--rays", type=int, default=1_000_000)
    args = ap.parse_args()
    sys.path.insert(0, str(ROOT / args.build / "bench_python") if not args.build.startswith("/")
                    else args.build + "/bench_python")
    import vesk_gpu as vk
    if not hasattr(vk, "_bench_render_backward"):
        emit("backward", "error", None, "", error="benchmark build missing: run `make bench`")
        return

    rng = np.random.default_rng(2)
    scene, meshes, instances = build_canopy(vk, rng)
    leaf_tris = scene.total_triangles() - 8 * 8  # minus the ground plane's cells
    samples = 96 * 64 * args.spp

    vk._bench_reset_ray_counts()
    vk._bench_set_ray_recording(True)
    vk._bench_render_backward(scene, args.spp, args.max_depth, 1)
    vk._bench_set_ray_recording(False)
    closest, occluded = vk._bench_ray_counts()
    segments = closest + occluded
    rec_closest, rec_occluded = vk._bench_take_recorded_rays()
    assert len(rec_closest) == closest and len(rec_occluded) == occluded

    times = {}
    for threads in (1, 2):
        best = float("inf")
        for _ in range(args.repeat):
            t0 = time.perf_counter()
            vk._bench_render_backward(scene, args.spp, args.max_depth, threads)
            best = min(best, time.perf_counter() - t0)
        times[threads] = best
        emit("backward", f"samples_per_s_{threads}t", round(samples / best, 1), "samples/s",
             threads=threads, spp=args.spp, max_depth=args.max_depth, leaf_triangles=leaf_tris)
    emit("backward", "thread_scaling_2t_over_1t", round(times[1] / times[2], 3), "ratio",
         target=">= 1.8")

    lo, hi = (np.array(v, float) for v in scene.aabb())
    origins = rng.uniform(lo, hi, size=(args.rays, 3)).astype(F)
    dirs = rng.normal(size=(args.rays, 3))
    dirs = (dirs / np.linalg.norm(dirs, axis=1, keepdims=True)).astype(F)
    for threads in (1, 2):
        seg_rate = segments / times[threads]
        emit("backward", f"segments_per_s_{threads}t", round(seg_rate, 1), "segments/s",
             closest=closest, occluded=occluded)
        raw = run_raw_embree(args.build, meshes, instances, origins, dirs, args.repeat, threads)
        if raw is None:
            emit("backward", "raw_embree_rate", None, "rays/s", error="make bench first")
            return
        raw_rate = raw["closest_hit_rate"]["value"]
        emit("backward", f"raw_embree_rays_per_s_{threads}t", raw_rate, "rays/s")
        emit("backward", f"segments_vs_raw_{threads}t", round(seg_rate / raw_rate, 3), "ratio",
             target=">= 0.6", baseline="random rays in the scene box")
        replay = {}
        for mode, rays in (("closest", rec_closest), ("occluded", rec_occluded)):
            r = run_raw_embree(args.build, meshes, instances, rays[:, :3], rays[:, 3:6],
                               args.repeat, threads, mode)
            replay[mode] = len(rays) / r[("closest_hit" if mode == "closest" else mode) + "_rate"][
                "value"]
        embree_time = replay["closest"] + replay["occluded"]
        emit("backward", f"replayed_rays_per_s_{threads}t", round(segments / embree_time, 1),
             "rays/s", note="raw loop over the tracer's own recorded rays")
        emit("backward", f"segments_vs_replay_{threads}t", round(embree_time / times[threads], 3),
             "ratio", target=">= 0.6", baseline="the same rays, raw Embree")


if __name__ == "__main__":
    main()
