"""The Vulkan backend: device listing, the context, and (on a device with ray queries,
lavapipe in CI) the scene against the CPU scene."""
from pathlib import Path

import numpy as np
import pytest

import vesk_gpu as vk

DEVICES = vk.list_vulkan_devices()
COMPATIBLE = [d for d in DEVICES if d["compatible"]]
needs_device = pytest.mark.skipif(not COMPATIBLE, reason="no Vulkan device with ray queries")


pytestmark = pytest.mark.usefixtures("no_vulkan_validation_messages")


@pytest.fixture(scope="module")
def context():
    if not COMPATIBLE:
        pytest.skip("no Vulkan device with ray queries")
    return vk.VulkanContext(0)


def test_devices_are_listed_ranked_with_their_reasons():
    keys = {"device_index", "physical_index", "name", "vendor_id", "device_id", "device_type",
            "is_discrete", "api_version", "device_local_memory_mb", "has_compute_queue",
            "has_acceleration_structure", "has_ray_query", "has_buffer_device_address",
            "compatible", "unavailable_reason", "has_ray_tracing_pipeline", "trace_path"}
    for d in DEVICES:
        assert set(d) == keys
        assert d["compatible"] == (d["unavailable_reason"] == ""), d
        assert d["compatible"] == (d["has_ray_query"] or d["has_ray_tracing_pipeline"]) or \
            d["unavailable_reason"] != "ray query unavailable", d
        assert d["trace_path"] in (("ray_query", "ray_pipeline", "") if d["compatible"] else ("",)), d
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
    "s.set_instance_turbid_thermal_state([300.0], [290.0], [0.5], [0.9])",
    "s.set_primitive_temperatures(np.full(3, 300.0))", "s.set_primitive_sif_spectra([1.0], 0)",
    "s.set_instance_sif_source_fields(*[np.zeros(1)] * 6, np.zeros(3, np.int32), 1, 1, 1, 1)",
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


# ---- the backward tracer against physics and against simulate_cpu ----------------------

F = np.float32
TOP_CAMERA = np.array([[1, 0, 0, 0], [0, 1, 0, 0], [0, 0, 1, 5], [0, 0, 0, 1]], F).ravel()


def lit_plane(s, sun=1000.0, sky=0.0, mode="optical", temperature=300.0):
    """A Lambertian ground (reflectance 0.3 and 0.6, or emissivity in thermal mode) seen
    from above, under a sun 25 degrees from the zenith and a uniform sky."""
    s.set_num_bands(2)
    s.upload_spectral_params(np.array([0.3, 0.6, sun, sun / 2, sky, sky * 2, 1.0, 1.0], F))
    s.add_material(0, 6 if mode == "thermal" else 0, [0.45, 0.0, temperature])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(5, 5, 0, 10.0)))
    s.set_emitter(0, np.array([np.sin(0.436), 0.0, np.cos(0.436)], F), 2 if sun else -1)
    if sky:
        s.set_sky(4)
    if mode == "thermal":
        s.set_thermal_mode(True, [10000.0, 12000.0])
    s.set_sensor(0, 6, 4, 4.0, 3.0, TOP_CAMERA)
    s.build()
    return s


def planck(wavelength_nm, t):
    lam = wavelength_nm * 1e-9
    return 1.1910429723971884e-16 / (lam**5 * np.expm1(0.014387768775039337 / (t * lam))) * 1e-9


@needs_device
@pytest.mark.parametrize("sun, sky", [(1000.0, 0.0), (0.0, 20.0), (800.0, 15.0)])
def test_a_lambertian_plane_reflects_sun_and_sky_as_the_cpu_does(context, sun, sky):
    cpu, gpu = (lit_plane(s, sun, sky) for s in both(context))
    b = gpu.simulate_backward(spp=8, max_depth=3, outputs=["event_aov"])
    a = vk.simulate_cpu(cpu, spp=8, max_depth=3, outputs=["event_aov"])
    rho = np.array([0.3, 0.6])
    expected = rho * (np.array([sun, sun / 2]) * np.cos(0.436) / np.pi + np.array([sky, 2 * sky]))
    np.testing.assert_allclose(b["payload"], np.broadcast_to(expected, (4, 6, 2)), rtol=1e-5,
                               err_msg="rho (E cos / pi + L) off the plane")
    np.testing.assert_allclose(b["payload"], a["payload"], rtol=1e-6)
    for k in a["event_aov"]:
        np.testing.assert_allclose(b["event_aov"][k], a["event_aov"][k], rtol=1e-6, atol=1e-9,
                                   err_msg=f"event slot {k}")
    assert b["_execution"] == {"backend": "vulkan", "workflow": "optical_backward",
                               "executor": f"vulkan.{context.trace_path}.optical_backward",
                               "native": True}


@needs_device
@pytest.mark.parametrize("override", [None, 310.0, "sif"])
def test_a_black_body_emits_planck_radiance(context, override):
    cpu, gpu = (lit_plane(s, sun=0.0, mode="thermal", temperature=290.0) for s in both(context))
    for s in (cpu, gpu):
        if override == "sif":
            s.set_sif_only_mode(True)
            s.set_primitive_sif_spectra(np.repeat(np.array([0.5, 1.5], F), s.n_primitives()), 2)
        elif override:
            s.set_primitive_temperatures(np.full(s.n_primitives(), override, F))
    b = gpu.simulate_backward(spp=2, max_depth=2)["payload"]
    expected = ([0.5, 1.5] if override == "sif" else
                planck(np.array([10000.0, 12000.0]), override or 290.0))
    np.testing.assert_allclose(b, np.broadcast_to(expected, b.shape), rtol=1e-5)
    np.testing.assert_allclose(b, vk.simulate_cpu(cpu, spp=2, max_depth=2)["payload"], rtol=1e-5)


def leaf_canopy(s, leaves):
    """Leaf triangles (two-sided, reflecting and transmitting) over a grey ground, in a
    repeated 6 x 6 tile under sun and sky, seen obliquely."""
    s.set_num_bands(2)
    s.upload_spectral_params(np.array([0.2, 0.3, 0.1, 0.45, 0.05, 0.4, 0.08, 0.42, 900.0,
                                       700.0, 30.0, 20.0], F))
    s.add_material(0, 0, [0.25, 0.0])
    s.add_material(13, 2, [0.3, 0.25])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(3, 3, 0, 6.0)), x=3.0, y=3.0)
    leaf = s.add_mesh(np.array([[0, 0, 0], [0.4, 0, 0], [0, 0.4, 0]], F), np.zeros((0, 3), F),
                      np.array([[0, 1, 2]], np.int32), material_id=1)
    s.add_instances_xform(leaf, leaves)
    s.set_emitter(0, np.array([0.4, 0.3, 0.87], F), 8)
    s.set_sky(10)
    s.set_repetitive(2, 6.0, 6.0)
    cam = np.array([[1, 0, 0, 3], [0, 0.8, -0.6, -2], [0, 0.6, 0.8, 8], [0, 0, 0, 1]], F).ravel()
    s.set_sensor(0, 16, 12, 6.0, 4.5, cam)
    s.build()
    return s


@needs_device
def test_a_canopy_image_agrees_with_the_cpu_pixel_by_pixel(context, rng):
    leaves = canopy(rng, 400)
    leaves[:, [3, 7]] = rng.uniform(0, 6, (400, 2))
    cpu, gpu = (leaf_canopy(s, leaves) for s in both(context))
    outputs = ["standard_error", "scattering_order"]
    a = vk.simulate_cpu(cpu, spp=48, max_depth=6, outputs=outputs, max_output_order=2)
    b = gpu.simulate_backward(spp=48, max_depth=6, outputs=outputs, max_output_order=2)
    se = np.hypot(a["standard_error"], b["standard_error"])
    z = (a["payload"] - b["payload"]) / np.where(se > 0, se, 1)
    assert np.mean(np.abs(z) > 4) < 0.005, f"pixels beyond 4 sigma: {np.mean(np.abs(z) > 4):.3%}"
    assert abs(z.mean()) < 4 / np.sqrt(z.size), f"mean z {z.mean():.3f}: a bias between backends"
    # Same seeds and draws: nearly every path makes the same choices on both backends, so
    # most pixels agree to float rounding (a 3 % change in one leaf band shows here).
    assert np.median(np.abs(a["payload"] - b["payload"]) / a["payload"]) < 1e-5
    np.testing.assert_allclose(b["scattering_order"].sum(axis=0), b["payload"], rtol=1e-4)


@needs_device
def test_backward_refusals_and_progress(context):
    s = lit_plane(vk.VulkanSceneManager(context, "trace_closest.spv"), sky=10.0)
    calls = []
    s.simulate_backward(spp=3, max_depth=1, progress=lambda *a: calls.append(a[:2]))
    assert calls == [(1, 3), (2, 3), (3, 3)]
    with pytest.raises(ValueError, match="^spp must be positive$"):
        s.simulate_backward(spp=0)
    with pytest.raises(ValueError, match="^unknown optical output name: depth$"):
        s.simulate_backward(outputs=["depth"])
    s.add_material(7, 0, [])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(1, 1, 1, 2.0)), z=1.0)
    s.build()
    with pytest.raises(ValueError, match="^Vulkan: material 1 has type 7"):
        s.simulate_backward(spp=1)


def variant_scene(s, variant):
    """A cube and a leaf over an RPV or Lambertian ground, lit and seen as `variant` says:
    every sensor, every sky, RPV, the sunlit and shaded temperatures, repeated tiles."""
    from conftest import unit_cube
    s.set_num_bands(2)
    table = np.linspace(5.0, 40.0, 2 * 512)
    hw = np.array([-1.0, -0.3, -0.8, -2.0, 0.4, 0.3, -1.5, 0.2, 0.1, 25.0] * 2)
    spectral = np.concatenate([[0.3, 0.5], [0.1, 0.4, 0.15, 0.45, 0.05, 0.35], [900.0, 700.0],
                               [20.0, 10.0], table, hw, [0.2, 0.3, 0.8, 0.9, -0.1, 0.2, 0.6, 0.7],
                               [0.95, 0.9]]).astype(F)
    s.upload_spectral_params(spectral)
    rpv = variant == "rpv"
    s.add_material(1 if rpv else 0, 1056 if rpv else 0, [0.4, 0.0, 300.0, 310.0, 290.0])
    s.add_material(13, 2, [0.25, 0.2, 295.0])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(4, 4, 0, 2.0)), 4.0, 4.0)
    s.add_instance(s.add_mesh(**unit_cube(), material_id=1), 3.0, 4.0, 0.8, 1.2)
    s.add_instance(s.add_mesh(**vk.make_sphere(0.6, np.array([0, 0, 0], F), 1), material_id=1),
                   5.5, 3.5, 1.5)
    s.set_emitter(0, np.array([0.5, 0.2, 0.84], F), 8)
    sky = {"directional sky": "s.set_directional_sky(12)", "hosek-wilkie sky": "s.set_hw_sky(1036, 0.5, 0.2, 0.84)"}
    exec(sky.get(variant, "s.set_sky(10)"), {"s": s})
    look = np.array([[1, 0, 0, 4], [0, 1, 0, 4], [0, 0, 1, 9], [0, 0, 0, 1]], F).ravel()
    sensors = {"perspective": (1, 50.0, 0), "pushbroom": (3, 40.0, 0),
               "fisheye equisolid": (4, 170.0, 0), "fisheye stereographic": (4, 150.0, 3)}
    kind, fov, mapping = sensors.get(variant, (0, 60.0, 0))
    s.set_sensor(kind, 12, 10, 8.0, 8.0, look, fov, mapping)
    if variant == "thermal":
        s.set_thermal_mode(True, [9000.0, 11000.0])
        s.upload_spectral_params(np.where(np.arange(spectral.size) < 2, 0.9, spectral).astype(F))
    if variant == "repeated tiles":
        s.set_repetitive(3, 8.0, 8.0)
        s.set_emitter(0, np.array([0.3, 0.1, 0.95], F), 8)  # sun paths through the tiles
    s.build()
    return s


@needs_device
@pytest.mark.parametrize("variant", ["orthographic", "perspective", "pushbroom", "fisheye equisolid",
                                     "fisheye stereographic", "directional sky", "hosek-wilkie sky",
                                     "rpv", "thermal", "repeated tiles"])
def test_sensors_skies_and_materials_render_as_on_the_cpu(context, variant):
    cpu, gpu = (variant_scene(s, variant) for s in both(context))
    a = vk.simulate_cpu(cpu, spp=6, max_depth=4, outputs=["event_aov"])
    b = gpu.simulate_backward(spp=6, max_depth=4, outputs=["event_aov"])
    assert a["payload"].max() > 0
    rel = np.abs(a["payload"] - b["payload"]) / np.maximum(np.abs(a["payload"]), 1e-6)
    # The same seeds and draws: a pixel differs only where float rounding turned a path.
    assert np.mean(rel > 1e-3) < 0.02, f"{np.mean(rel > 1e-3):.1%} of pixels differ"
    for k in a["event_aov"]:
        assert np.isclose(a["event_aov"][k].sum(), b["event_aov"][k].sum(), rtol=2e-3, atol=1e-6), k


@needs_device
@pytest.mark.parametrize("case", ["max_depth 0", "VESK_MAX_DEPTH", "terrain following",
                                  "sun disc", "reused structure", "one sample"])
def test_edge_cases_of_the_backward_tracer_match_the_cpu(context, rng, monkeypatch, capfd, case):
    leaves = canopy(rng, 60)
    leaves[:, [3, 7]] = rng.uniform(0, 6, (60, 2))
    cpu, gpu = (leaf_canopy(s, leaves) for s in both(context))
    spp, depth, outputs = 4, 5, ["standard_error", "scattering_order"]
    if case == "max_depth 0":
        depth = 0
    elif case == "VESK_MAX_DEPTH":
        monkeypatch.setenv("VESK_MAX_DEPTH", "2")
    elif case == "one sample":
        spp = 1
    elif case == "terrain following":
        spp = 32
    for s in (cpu, gpu):
        if case == "terrain following":
            s.set_sensor(0, 16, 12, 6.0, 4.5, TOP_CAMERA, 60.0, 0, True)
        elif case == "sun disc":  # looking straight at the sun through the canopy gaps
            s.set_emitter(0, np.array([0.0, 0.0, 1.0], F), 8)
            s.set_sensor(0, 16, 12, 6.0, 4.5, np.diag([1, 1, -1, 1]).astype(F).ravel())
        elif case == "reused structure":  # other materials on the same structure
            s.clear_for_reuse()
            s.set_num_bands(1)
            s.upload_spectral_params(np.array([0.5, 0.2, 0.1, 0.3, 600.0, 10.0], F))
            s.add_material(0, 0, [0.5])
            s.add_material(13, 1, [0.2, 0.3])
            s.set_emitter(0, np.array([0.2, 0.1, 0.97], F), 4)
            s.set_sky(5)
            s.build_reuse_gas()
    a = vk.simulate_cpu(cpu, spp=spp, max_depth=depth, outputs=outputs)
    b = gpu.simulate_backward(spp=spp, max_depth=depth, outputs=outputs)
    if case == "terrain following":
        # Rays start 1e5 back along the view: the two ray tracers round their distances
        # differently there, so paths part ways and only the statistics must agree.
        se = np.hypot(a["standard_error"], b["standard_error"])
        z = (a["payload"] - b["payload"]) / np.where(se > 0, se, 1)
        assert np.mean(np.abs(z) > 4) < 0.01 and abs(z.mean()) < 4 / np.sqrt(z.size), z.mean()
        return
    rel = np.abs(a["payload"] - b["payload"]) / np.maximum(np.abs(a["payload"]), 1e-6)
    assert np.mean(rel > 1e-3) < 0.02, f"{np.mean(rel > 1e-3):.1%} of pixels differ"
    np.testing.assert_allclose(b["scattering_order"], a["scattering_order"], rtol=0.05, atol=1e-3)
    if case == "max_depth 0":
        assert not b["payload"].any(), "no ray may be traced without a bounce allowed"
    if case == "one sample":
        assert not b["standard_error"].any()
    if case == "sun disc":
        assert b["payload"].max() > 900.0 / 6.794e-05 * 0.99, "the disc is seen between the leaves"
    if case == "VESK_MAX_DEPTH":
        assert "[Vulkan bwd] VESK_MAX_DEPTH=2" in capfd.readouterr().out


# ---- the two trace paths: ray queries and ray-tracing pipelines --------------------------

BOTH_PATHS = [d for d in COMPATIBLE if d["has_ray_query"] and d["has_ray_tracing_pipeline"]]


def path_context(monkeypatch, path):
    monkeypatch.setenv("VESK_VULKAN_TRACE", path)
    c = vk.VulkanContext(0)
    assert c.trace_path == {"query": "ray_query", "pipeline": "ray_pipeline"}[path]
    assert vk.list_vulkan_devices()[0]["trace_path"] == c.trace_path
    return c


@pytest.mark.skipif(not BOTH_PATHS, reason="no Vulkan device with both trace paths")
def test_both_trace_paths_give_the_same_hits_and_the_same_image(monkeypatch, rng):
    leaves = canopy(rng, 400)
    leaves[:, [3, 7]] = rng.uniform(0, 6, (400, 2))
    o, d = rays(rng)
    hits, images = {}, {}
    for path in ("query", "pipeline"):
        s = leaf_canopy(vk.VulkanSceneManager(path_context(monkeypatch, path)), leaves)
        hits[path] = s.trace_closest(o, d)
        images[path] = s.simulate_backward(spp=16, max_depth=6, outputs=["event_aov"])
        assert images[path]["_execution"]["executor"] == f"vulkan.ray_{path}.optical_backward"
    a, b = hits["query"], hits["pipeline"]
    assert a["hit"].mean() > 0.2
    for k in ("hit", "instance_id", "primitive_id", "material_id"):
        assert np.array_equal(a[k], b[k]), f"{k} differs on {(a[k] != b[k]).sum()} rays"
    np.testing.assert_allclose(b["t"], a["t"], rtol=1e-6, err_msg="distance")
    # Same program text, same draws: the images agree to float rounding, pixel by pixel.
    np.testing.assert_allclose(images["pipeline"]["payload"], images["query"]["payload"], rtol=1e-5)
    for k, v in images["query"]["event_aov"].items():
        np.testing.assert_allclose(images["pipeline"]["event_aov"][k], v, rtol=1e-5, atol=1e-9)


@pytest.mark.skipif(not BOTH_PATHS, reason="no Vulkan device with both trace paths")
@pytest.mark.parametrize("path, missing", [("query", "trace_closest.spv"),
                                           ("pipeline", "trace_closest.rgen.spv"),
                                           ("pipeline", "miss.rmiss.spv")])
def test_a_missing_program_of_the_chosen_path_is_named(monkeypatch, tmp_path, path, missing):
    import shutil
    built = Path(vk.__file__).parent
    for name in ("trace_closest.spv", "trace_closest.rgen.spv", "hit.rchit.spv", "miss.rmiss.spv"):
        if name != missing:
            shutil.copy(built / name, tmp_path / name)
    with pytest.raises(RuntimeError, match=f"^Vulkan: cannot read the device program .*/{missing}$"):
        vk.VulkanSceneManager(path_context(monkeypatch, path), str(tmp_path / "trace_closest.spv"))


def test_a_bad_trace_setting_is_refused(monkeypatch):
    monkeypatch.setenv("VESK_VULKAN_TRACE", "rtx")
    message = "^VESK_VULKAN_TRACE must be 'query' or 'pipeline' \\(or unset\\), not 'rtx'$"
    with pytest.raises(ValueError, match=message):
        vk.list_vulkan_devices()
    with pytest.raises(ValueError, match=message):
        vk.VulkanContext(0)
