"""Vulkan backend benchmark on the benchmark canopy (bench_util.build_canopy: 240k
instanced leaf triangles over a ground, repeated tiles, sun and sky): closest-hit rays/s
of trace_closest and samples/s of simulate_backward on the first ranked Vulkan device
(lavapipe, Mesa's CPU driver, on a machine without a GPU), against the CPU scene's
trace_closest (one thread) and simulate_cpu (every thread) on the same scene in the same
run.

Uses the plain build of the module (build/python).
"""
import argparse
import importlib
import sys

import numpy as np

from bench_util import ROOT, best_seconds, build_canopy, emit, random_rays


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--spp", type=int, default=4)
    ap.add_argument("--max-depth", type=int, default=8)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--rays", type=int, default=200_000)
    args = ap.parse_args()
    sys.path.insert(0, f"{args.build}/python")
    vk = importlib.import_module("vesk_gpu")
    devices = [d for d in vk.list_vulkan_devices() if d["compatible"]]
    if not devices:
        emit("vulkan", "error", None, "", error="no Vulkan device with ray queries")
        return
    context = vk.VulkanContext(0)
    cpu, _, _ = build_canopy(vk, np.random.default_rng(2))
    gpu, _, _ = build_canopy(vk, np.random.default_rng(2),
                             scene=vk.VulkanSceneManager(context, "trace_closest.spv"))
    device = context.device_name
    origins, dirs = random_rays(np.random.default_rng(3), cpu, args.rays)

    gpu.trace_closest(origins[:64], dirs[:64])  # compiles the program once, outside the timing
    for name, scene in (("vulkan", gpu), ("cpu", cpu)):
        t = best_seconds(lambda: scene.trace_closest(origins, dirs), args.repeat)
        emit("vulkan", f"trace_closest_rays_per_s_{name}", round(args.rays / t, 1), "rays/s",
             rays=args.rays, device=device if name == "vulkan" else "calling thread")

    w, h = cpu.sensor_config()["width"], cpu.sensor_config()["height"]
    samples = w * h * args.spp
    gpu.simulate_backward(1, 1)
    runs = {"vulkan": lambda: gpu.simulate_backward(args.spp, args.max_depth),
            "cpu": lambda: vk.simulate_cpu(cpu, args.spp, args.max_depth)}
    times = {}
    for name, run in runs.items():
        times[name] = best_seconds(run, args.repeat)
        emit("vulkan", f"backward_samples_per_s_{name}", round(samples / times[name], 1),
             "samples/s", spp=args.spp, max_depth=args.max_depth,
             device=device if name == "vulkan" else "every CPU thread")
    emit("vulkan", "backward_vulkan_over_cpu", round(times["cpu"] / times["vulkan"], 3), "ratio",
         baseline="simulate_cpu on the same scene")


if __name__ == "__main__":
    main()
