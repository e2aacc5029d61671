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


# ---- the scene: the CPU scene's surface, its refusals, and its hits --------------------

def both(context):
    return vk.EmbreeSceneManager(), vk.VulkanSceneManager(context, "trace_closest.spv")


def canopy(rng, n=300):
    """Random rotations (mirrors among them) and places of n leaf triangles."""
    xf = np.zeros((n, 12), np.float32)
    for row in xf:
        q, _ = np.linalg.qr(rng.normal(size=(3, 3)))
        row[:] = np.hstack([q, rng.uniform([-3, -3, 1], [3, 3, 4])[:, None]]).ravel()
    return xf


def placed_scene(s, leaves=None):
    """A cube, a mirrored and scaled cube, a rotated smooth sphere, and leaf triangles
    placed by the (N, 12) transforms `leaves`."""
    from conftest import unit_cube
    cube = s.add_mesh(**unit_cube())
    s.add_instance(cube)
    s.add_instance(cube, x=3.0, scale=-1.5)
    sphere = s.add_mesh(**vk.make_sphere(1.0, np.zeros(3, np.float32), 2), material_id=1)
    s.add_instance_xform(sphere, np.array([[0, -1, 0, 1], [1, 0, 0, -2], [0, 0, 2, 0.5]],
                                          np.float32))
    if leaves is not None:
        leaf = s.add_mesh(np.array([[0, 0, 0], [0.2, 0, 0], [0, 0.2, 0]], np.float32),
                          np.zeros((0, 3), np.float32), np.array([[0, 1, 2]], np.int32))
        s.add_instances_xform(leaf, leaves)
    s.build()
    return s


def rays(rng, n=3000):
    o = rng.uniform(-4, 5, (n, 3)).astype(np.float32)
    toward = rng.uniform(-1, 1, (n, 3)) * [1, 1, 2] - o  # most rays meet something
    return o, (toward / np.linalg.norm(toward, axis=1)[:, None]).astype(np.float32)


def assert_same_hits(a, b):
    assert np.array_equal(a["hit"], b["hit"]), f"{(a['hit'] != b['hit']).sum()} rays hit on one side only"
    for k in ("instance_id", "primitive_id", "material_id"):
        assert np.array_equal(a[k], b[k]), f"{k} differs on {(a[k] != b[k]).sum()} rays"
    h = a["hit"]
    np.testing.assert_allclose(b["t"][h], a["t"][h], rtol=1e-5, atol=1e-6, err_msg="distance")
    assert np.all(b["t"][~h] == a["t"][~h]), "a miss reports FLT_MAX"
    for k in ("position", "shading_normal", "geometric_normal"):
        np.testing.assert_allclose(b[k], a[k], atol=2e-5, err_msg=k)


@needs_device
@pytest.mark.parametrize("with_canopy", [False, True], ids=["placed instances", "random canopy"])
def test_closest_hits_equal_the_cpu_scene(context, rng, with_canopy):
    leaves = canopy(rng) if with_canopy else None
    cpu, gpu = (placed_scene(s, leaves) for s in both(context))
    o, d = rays(rng)
    a, b = cpu.trace_closest(o, d), gpu.trace_closest(o, d)
    assert a["hit"].mean() > 0.3
    assert_same_hits(a, b)
    assert gpu.aabb() == cpu.aabb() and gpu.n_primitives() == cpu.n_primitives()
    geo_a, geo_b = cpu.primitive_geometry(), gpu.primitive_geometry()
    assert all(np.array_equal(geo_a[k], geo_b[k]) for k in geo_a)
    # t_min, t_max and a ray along which nothing lies.
    far = cpu.trace_closest(o, d, 1e-4, 2.0), gpu.trace_closest(o, d, 1e-4, 2.0)
    assert_same_hits(*far)


@needs_device
def test_moved_instances_are_traced_after_refit_only(context, rng):
    cpu, gpu = (placed_scene(s) for s in both(context))
    o, d = rays(rng, 500)
    before = gpu.trace_closest(o, d)
    xf = np.array([1, 0, 0, 0.3, 0, 1, 0, 0.2, 0, 0, 1, 1.0], np.float32)
    for s in (cpu, gpu):
        s.update_instance_transform(0, xf)
    assert_same_hits(before, gpu.trace_closest(o, d))  # not yet in the structure
    rev = gpu.geometry_build_revision()
    for s in (cpu, gpu):
        s.refit_ias()
    assert gpu.geometry_build_revision() == rev + 1
    assert_same_hits(cpu.trace_closest(o, d), gpu.trace_closest(o, d))
    assert gpu.aabb() == cpu.aabb()


@needs_device
@pytest.mark.parametrize("call", [
    "s.add_mesh(np.zeros((0, 3)), np.zeros((0, 3)), np.zeros((0, 3), np.int32))",
    "s.add_mesh(np.zeros((3, 3)), np.zeros((2, 3)), np.array([[0, 1, 2]]))",
    "s.add_mesh(np.zeros((3, 3)), np.zeros((0, 3)), np.array([[0, 1, 3]]))",
    "s.add_instance(7)", "s.add_instance(0, scale=0.0)", "s.add_instance_xform(0, np.zeros(12))",
    "s.update_instance_transform(5, np.eye(3, 4).ravel())", "s.refit_ias()",
    "s.trace_closest(np.zeros((1, 3)), np.ones((1, 3)))", "s.set_num_bands(0)",
    "s.add_material(0, -2, [0.5])", "s.set_emitter(0, np.array([np.nan, 0, 1]), 0)",
    "s.set_sensor(2, 4, 4, 1.0, 1.0, np.eye(4).ravel())", "s.set_repetitive(1, 0.001, 1.0)",
    "s.set_optical_turbid_media([1.0], [9], [1], [0.0], [0])",
    "s.set_sif_only_mode(True); s.set_thermal_mode(True, [np.inf])",
])
def test_refusals_match_the_cpu_scene(context, call):
    texts = []
    for s in both(context):
        s.add_mesh(**vk.make_ground_plane())
        s.add_material(0, 0, [0.5])
        with pytest.raises(Exception) as e:
            exec(call, {"s": s, "np": np})
        texts.append((type(e.value), str(e.value)))
    assert texts[0] == texts[1]


@needs_device
def test_spectral_patches_stay_inside_the_buffer(context):
    s = vk.VulkanSceneManager(context, "trace_closest.spv")
    s.upload_spectral_params(np.arange(4, dtype=np.float32))
    s.update_spectral_params(2, np.array([9, 8], np.float32))
    s.update_spectral_params(4, np.zeros(0, np.float32))
    for offset, n in ((3, 2), (5, 0), (2**40, 1)):
        with pytest.raises(IndexError, match="^Vulkan spectral update is outside the buffer$"):
            s.update_spectral_params(offset, np.ones(n, np.float32))
    with pytest.raises(RuntimeError, match="cannot read the device program"):
        vk.VulkanSceneManager(context, "no_such_program.spv")
