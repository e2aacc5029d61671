"""Turbid workflow benchmark: samples/s of the radiation state and of the leaf longwave
transport on a 16k-sample domain (16 turbid crowns of 1024 samples each), at 1 and 2
threads. The baseline, measured in the same run on the same scene, is the backward
tracer's camera paths/s: each reverse ray of the workflow is one such path, so
`*_paths_per_s` against `backward_paths_per_s` says what the workflow's own bookkeeping
costs.

Run with:  PYTHONPATH=build/python /usr/bin/python3 bench/bench_turbid_workflow.py
"""
import argparse

import numpy as np

from bench_util import best_seconds, emit

F = np.float32


def crowns_scene(vk, n_side=4):
    """Ground and n_side^2 ellipsoid crowns (spherical leaves, LAD 1.2) on a 20 m tile,
    sun and sky in three bands, a camera above."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(3)
    s.set_thermal_mode(False, [450.0, 550.0, 650.0])
    s.upload_spectral_params(np.array([0.08, 0.15, 0.3, 0.05, 0.1, 0.05, 0.07, 0.12, 0.07,
                                       0.04, 0.09, 0.04, 1200, 1500, 900, 30, 40, 25], F))
    s.add_material(0, 0, [0.18])
    s.add_material(13, 3, [0.07, 0.06])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(10.0, 10.0, 0, 10.0)), 10, 10, 0)
    crown = s.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 3), material_id=1)
    step = 20.0 / n_side
    instances = [s.add_instance_xform(crown, np.array(
        [1.8, 0, 0, step * (i + 0.5), 0, 1.8, 0, step * (j + 0.5), 0, 0, 1.5, 3.5], F))
        for i in range(n_side) for j in range(n_side)]
    s.set_optical_turbid_media([1.2], [0], [1], [0.05], [-1, 0])
    s.set_emitter(0, np.array([0.35, 0.25, 0.9], F) / np.linalg.norm([0.35, 0.25, 0.9]), 12)
    s.set_sky(15)
    cam = np.eye(4)
    cam[:3, 3] = [10, 10, 30]
    s.set_sensor(0, 128, 128, 20.0, 20.0, cam.astype(F).ravel())
    s.set_repetitive(3, 20.0, 20.0)
    s.build()
    return s, instances


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--budget", type=int, default=1024, help="samples per crown")
    ap.add_argument("--rays", type=int, default=8, help="rays per leaf side")
    ap.add_argument("--repeat", type=int, default=3)
    args = ap.parse_args()
    import vesk_gpu as vk

    scene, instances = crowns_scene(vk)
    domain = vk._build_turbid_domain_embree(scene, {"seed": 1, "sample_budget": args.budget, "owners": [
        {"owner_id": 100 + k, "leaf_area_density": 1.2, "leaf_length": 0.05, "instance_id": i}
        for k, i in enumerate(instances)]})
    n = domain["n_samples"]
    emit("turbid_workflow", "samples", n, "samples")
    paths = 2 * args.rays * n
    for threads in (1, 2):
        t = best_seconds(lambda: vk._build_turbid_state_embree(scene, {
            "domain_id": domain["domain_id"], "rays_per_side": args.rays, "threads": threads}),
            args.repeat)
        emit("turbid_workflow", f"state_samples_per_s_{threads}t", round(n / t, 1), "samples/s")
        emit("turbid_workflow", f"state_paths_per_s_{threads}t", round(paths / t, 1), "paths/s")
        t = best_seconds(lambda: vk.run_turbid_leaf_rrt_cpu(scene, {
            "domain_id": domain["domain_id"], "temperature": 300.0, "rays_per_side": args.rays,
            "sky_lw_radiance": 100.0, "threads": threads}), args.repeat)
        # The ground's faces are traced too (the crowns' boundaries are no matter).
        ground = scene.instance_triangle_counts()[0]
        emit("turbid_workflow", f"leaf_rrt_samples_per_s_{threads}t", round(n / t, 1), "samples/s",
             note="the ground's rays included in the time")
        emit("turbid_workflow", f"leaf_rrt_paths_per_s_{threads}t",
             round((paths + 2 * args.rays * ground) / t, 1), "paths/s")
    # Baseline: camera paths of the backward tracer on the same scene (2 threads).
    spp = max(1, paths // (128 * 128))
    t = best_seconds(lambda: vk.simulate_cpu(scene, spp=spp, max_depth=8), args.repeat)
    emit("turbid_workflow", "backward_paths_per_s_baseline", round(128 * 128 * spp / t, 1), "paths/s")


if __name__ == "__main__":
    main()
