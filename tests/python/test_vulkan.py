"""The Vulkan backend: device listing, the context, and (on a device with ray queries,
lavapipe in CI) the scene against the CPU scene."""
import numpy as np
import pytest

import vesk_gpu as vk

DEVICES = vk.list_vulkan_devices()
COMPATIBLE = [d for d in DEVICES if d["compatible"]]
needs_device = pytest.mark.skipif(not COMPATIBLE, reason="no Vulkan device with ray queries")


@pytest.fixture(autouse=True)
def no_validation_messages():
    before = vk._vulkan_validation_message_count()
    yield
    after = vk._vulkan_validation_message_count()
    assert after == before, f"the Vulkan validation layer reported {after - before} message(s)"


@pytest.fixture(scope="module")
def context():
    if not COMPATIBLE:
        pytest.skip("no Vulkan device with ray queries")
    return vk.VulkanContext(0)


def test_devices_are_listed_ranked_with_their_reasons():
    keys = {"device_index", "physical_index", "name", "vendor_id", "device_id", "device_type",
            "is_discrete", "api_version", "device_local_memory_mb", "has_compute_queue",
            "has_acceleration_structure", "has_ray_query", "has_buffer_device_address",
            "compatible", "unavailable_reason"}
    for d in DEVICES:
        assert set(d) == keys
        assert d["compatible"] == (d["unavailable_reason"] == ""), d
    flags = [d["compatible"] for d in DEVICES]
    assert flags == sorted(flags, reverse=True), "an incompatible device ranks before a compatible one"
    assert [d["device_index"] for d in COMPATIBLE] == list(range(len(COMPATIBLE)))
    assert sorted(d["physical_index"] for d in DEVICES) == list(range(len(DEVICES)))
    for i, d in enumerate(DEVICES):
        assert vk.device_info(i) == d
    with pytest.raises(IndexError, match=f"Vulkan device id {len(DEVICES)} is outside"):
        vk.device_info(len(DEVICES))


@needs_device
def test_context_opens_the_ranked_device_and_refuses_bad_indices(context):
    assert context.device_name == COMPATIBLE[0]["name"]
    assert context.device_index == 0
    assert context.physical_device_index == COMPATIBLE[0]["physical_index"]
    assert context.api_version == COMPATIBLE[0]["api_version"]
    assert context.total_vram_mb == COMPATIBLE[0]["device_local_memory_mb"]
    assert context.queue_family_index >= 0
    with pytest.raises(IndexError, match="^Vulkan device index must be non-negative$"):
        vk.VulkanContext(-1)
    n = len(COMPATIBLE)
    with pytest.raises(IndexError, match=f"^Vulkan compatible device index {n} is outside \\[0, {n}$"):
        vk.VulkanContext(n)


def test_a_machine_without_a_vulkan_loader_lists_nothing_and_refuses_a_context(tmp_path):
    """The module imports and the CPU works where libvulkan cannot be found."""
    import os
    import subprocess
    import sys
    code = ("import vesk_gpu as vk, numpy as np\n"
            "assert vk.HAS_VULKAN and vk.list_vulkan_devices() == []\n"
            "try:\n    vk.VulkanContext(0)\nexcept RuntimeError as e:\n    print(e)\n"
            "s = vk.EmbreeSceneManager(); s.add_instance(s.add_mesh(**vk.make_ground_plane())); s.build()\n"
            "print(s.trace_closest(np.array([[0, 0, 1.0]]), np.array([[0, 0, -1.0]]))['hit'][0])\n")
    # An empty file found first under the loader's name: opening it fails, as it does
    # where no Vulkan is installed.
    (tmp_path / "libvulkan.so.1").write_bytes(b"")
    env = dict(os.environ, LD_LIBRARY_PATH=str(tmp_path), VESK_VULKAN_VALIDATION="")
    out = subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True)
    assert out.returncode == 0, out.stderr
    refusal, hit = out.stdout.splitlines()
    assert refusal.startswith("Vulkan: the Vulkan loader libvulkan.so.1 could not be opened")
    assert hit == "True", "the CPU backend must work without Vulkan"
