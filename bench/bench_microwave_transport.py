"""Microwave transport benchmark: pixels/s of the passive (brightness temperature) and the
active (sigma0, spp jittered rays a pixel) images on a forest stand of 1000 trunks with
crowns over a 200 m x 200 m soil, for the CPU reference (every thread) and the Vulkan form
on each trace path the first ranked device offers. Runs are interleaved (CPU, then each
path, repeated); each figure is the median of the repeats with its spread (min and max),
and each device form's ratio to the CPU is the median of the per-round ratios.

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

from bench_util import ROOT, emit

F = np.float32
PATHS = {"ray_query": "query", "ray_pipeline": "pipeline"}


def forest(vk, scene, pixels, trunks=1000, half=100.0):
    """Soil, crowns (vegetation volumes) and stems: optical materials 0, 1, 2."""
    for _ in range(3):
        scene.add_material(0, 0, [])
    scene.add_instance(scene.add_mesh(**vk.make_ground_plane(half, half, 0, 20.0)))
    crown = scene.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 2), material_id=1)
    stem = scene.add_mesh(**vk.make_cylinder(0.15, 8.0, 12), material_id=2)
    rng = np.random.default_rng(11)
    for x, y in rng.uniform(-0.95 * half, 0.95 * half, size=(trunks, 2)):
        scene.add_instance(stem, float(x), float(y), -0.05)
        scene.add_instance_xform(crown, np.array([2, 0, 0, x, 0, 2, 0, y, 0, 0, 2.5, 8.0], F))
    theta = np.radians(40.0)
    d = np.array([0.0, np.sin(theta), -np.cos(theta)])
    cam = np.eye(4)
    cam[:3, 2] = -d
    cam[:3, 1] = np.cross(cam[:3, 2], cam[:3, 0])
    cam[:3, 3] = -150.0 * d
    scene.set_sensor(0, pixels, pixels, 1.6 * half, 1.6 * half * np.cos(theta),
                     cam.astype(F).ravel())
    scene.build()
    return scene


def seconds(fn):
    t = time.perf_counter()
    fn()
    return time.perf_counter() - t


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=str(ROOT / "build"))
    ap.add_argument("--pixels", type=int, default=128, help="image width and height")
    ap.add_argument("--spp", type=int, default=4, help="active rays per pixel")
    ap.add_argument("--repeat", type=int, default=3)
    args = ap.parse_args()
    sys.path.insert(0, f"{args.build}/python")
    vk = importlib.import_module("vesk_gpu")
    sys.path.insert(0, str(ROOT / "python"))
    import vesk

    tables = vesk.microwave_tables(1.4e9, soil_moisture=0.25, sand=0.4, clay=0.2,
                                   canopy_water_content=6.0, canopy_height=5.0,
                                   canopy_albedo=0.1, trunk_radius=0.15, trunk_length=8.0)
    mapping = np.array([0, 1, 2], np.int32)
    cpu = forest(vk, vk.EmbreeSceneManager(), args.pixels)
    scenes = {}
    devices = [d for d in vk.list_vulkan_devices() if d["compatible"]]
    forced = os.environ.get("VESK_VULKAN_TRACE")
    device = devices[0]["name"] if devices else None
    if devices:
        first = devices[0]
        paths = [p for p, have in (("ray_query", first["has_ray_query"]),
                                   ("ray_pipeline", first["has_ray_tracing_pipeline"])) if have]
        for p in paths:
            os.environ["VESK_VULKAN_TRACE"] = PATHS[p]
            context = vk.VulkanContext(0)
            scenes[p] = (context, forest(vk, vk.VulkanSceneManager(context), args.pixels))
        if forced is None:
            os.environ.pop("VESK_VULKAN_TRACE")
        else:
            os.environ["VESK_VULKAN_TRACE"] = forced
    else:
        emit("microwave_transport", "device", None, "", error="no compatible Vulkan device")

    def passive(run):
        return lambda: run(material_map=mapping, **tables.inputs)

    def active(run):
        return lambda: run(material_map=mapping, spp=args.spp, **tables.inputs)

    runs = {"passive": {"cpu": passive(lambda **k: vk.simulate_microwave_cpu(cpu, **k))},
            "active": {"cpu": active(lambda **k: vk.simulate_active_microwave_cpu(cpu, **k))}}
    for p, (_, s) in scenes.items():
        runs["passive"][p] = passive(s.simulate_microwave)
        runs["active"][p] = active(s.simulate_active_microwave)
        runs["passive"][p]()  # programs compiled once, outside the timing
    times = {k: {n: [] for n in v} for k, v in runs.items()}
    for _ in range(args.repeat):
        for kind, fns in runs.items():
            for name, fn in fns.items():
                times[kind][name].append(seconds(fn))
    pixels = args.pixels * args.pixels
    for kind, per in times.items():
        for name, ts in per.items():
            rates = [pixels / t for t in ts]
            emit("microwave_transport", f"{kind}_pixels_per_s_{name}",
                 round(statistics.median(rates), 1), "pixels/s",
                 spread=[round(min(rates), 1), round(max(rates), 1)],
                 device=device if name != "cpu" else "every CPU thread", repeats=args.repeat,
                 trunks=1000, image=[args.pixels, args.pixels],
                 **({"spp": args.spp} if kind == "active" else {}))
        for name in per:
            if name == "cpu":
                continue
            ratios = [c / g for c, g in zip(per["cpu"], per[name])]
            emit("microwave_transport", f"{kind}_{name}_over_cpu",
                 round(statistics.median(ratios), 4), "ratio",
                 spread=[round(min(ratios), 4), round(max(ratios), 4)],
                 baseline="the CPU reference on the same scene, in the same rounds")


if __name__ == "__main__":
    main()
