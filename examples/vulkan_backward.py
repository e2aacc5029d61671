"""The Vulkan backend beside the CPU one: the devices this machine offers, and one small
image rendered on a device and on the CPUs from the same scene description.

1. list_vulkan_devices() ranks the devices; each says whether it is compatible and which
   trace path a context on it takes ('ray_query' compute shaders, or 'ray_pipeline' on
   GPUs without ray queries).
2. The same scene (ground, a tree, sun and sky, a perspective camera) is built twice:
   EmbreeSceneManager for the CPU and VulkanSceneManager on the first compatible device.
3. simulate_cpu and VulkanSceneManager.simulate_backward render it; the two follow the
   same paths draw for draw, so the images agree to float rounding.
   out/vulkan_backward.png shows them side by side.
On a machine without a Vulkan device the device part is skipped with a message.

Run with:  PYTHONPATH=build/python /usr/bin/python3 examples/vulkan_backward.py
"""
import time

import numpy as np

import vesk

vk = vesk.vk


def scene_on(scene):
    spectra = vesk.Spectra(scene, [650, 550, 470])
    soil = vesk.lambertian(spectra, "soil", [0.30, 0.22, 0.12])
    leaf = vesk.leaf(spectra, "leaf", [0.06, 0.14, 0.04], [0.05, 0.12, 0.03])
    bark = vesk.lambertian(spectra, "bark", [0.22, 0.16, 0.10])
    scene.add_instance(scene.add_mesh(**vk.make_ground_plane(4, 4, soil, 1.0)))
    vesk.make_tree(scene, leaf, bark, crown_radius=1.2, crown_height=2.0, trunk_height=1.0).plant(0, 0)
    spectra.set_sun(vesk.sun_direction(35, 135), [1.55, 1.80, 1.95])
    spectra.set_sky([0.03, 0.05, 0.09])
    scene.set_sensor(1, 160, 120, 0, 0, vesk.look_at([-4, -4, 2.5], [0, 0, 1.5]), fov=50.0)
    scene.build()
    return scene


KINDS = {0: "other", 1: "integrated GPU", 2: "discrete GPU", 3: "virtual GPU", 4: "CPU"}
for d in vk.list_vulkan_devices():
    print(f"device {d['device_index']}: {d['name']} ({KINDS.get(d['device_type'], '?')}), "
          f"{'trace path ' + d['trace_path'] if d['compatible'] else 'not usable: ' + d['unavailable_reason']}")
start = time.perf_counter()
cpu = vk.simulate_cpu(scene_on(vk.EmbreeSceneManager()), spp=4, max_depth=4)["payload"]
print(f"CPU: {1e3 * (time.perf_counter() - start):.0f} ms")
images = [cpu]
if not any(d["compatible"] for d in vk.list_vulkan_devices()):
    print("no compatible Vulkan device here: the device render is skipped")
else:
    context = vk.VulkanContext(0)
    start = time.perf_counter()
    gpu = scene_on(vk.VulkanSceneManager(context)).simulate_backward(spp=4, max_depth=4)["payload"]
    print(f"Vulkan on {context.device_name} ({context.trace_path}): "
          f"{1e3 * (time.perf_counter() - start):.0f} ms, largest difference from the CPU "
          f"{np.abs(gpu - cpu).max() / cpu.max():.1e} of the brightest pixel")
    images.append(gpu)
vesk.save_image("out/vulkan_backward.png", np.concatenate(images, axis=1), exposure=vesk.image.auto_exposure(cpu))
print("wrote out/vulkan_backward.png (CPU on the left" + (", Vulkan on the right)" if len(images) > 1 else ")"))
