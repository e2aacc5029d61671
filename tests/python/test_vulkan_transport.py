"""Energy-balance transport and LiDAR on the Vulkan scene against the CPU scene: the same
random streams (per primitive) and rays (per pulse), so the results agree to float
rounding; the same refusals in the same words."""
import numpy as np
import pytest

import vesk
import vesk_gpu as vk

F = np.float32
COMPATIBLE = [d for d in vk.list_vulkan_devices() if d["compatible"]]
pytestmark = [pytest.mark.usefixtures("no_vulkan_validation_messages"),
              pytest.mark.skipif(not COMPATIBLE, reason="no Vulkan device with ray queries")]


@pytest.fixture(scope="module")
def context():
    return vk.VulkanContext(0)


def leaf_plot(s, repeated=False, n_leaves=50, built=True):
    """A 6 x 6 m grey ground under randomly turned two-sided leaves (materials at 300 K and
    295 K), a two-band uniform sky, optionally repeated as a 2-tile-deep canopy."""
    rng = np.random.default_rng(7)
    s.set_num_bands(2)
    s.upload_spectral_params(np.array([0.2, 0.3, 0.1, 0.45, 0.05, 0.4, 30.0, 20.0], F))
    s.add_material(0, 0, [0.25, 0.0, 300.0])
    s.add_material(13, 2, [0.3, 0.25, 295.0])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(3, 3, 0, 6.0)), x=3.0, y=3.0)
    leaf = s.add_mesh(np.array([[0, 0, 0], [0.5, 0, 0], [0, 0.5, 0]], F), np.zeros((0, 3), F),
                      np.array([[0, 1, 2]], np.int32), material_id=1)
    xf = np.zeros((n_leaves, 12), F)
    for row in xf:
        q, _ = np.linalg.qr(rng.normal(size=(3, 3)))
        row[:] = np.hstack([q, rng.uniform([0, 0, 0.8], [6, 6, 3])[:, None]]).ravel()
    s.add_instances_xform(leaf, xf)
    s.set_sky(6)
    if repeated:
        s.set_repetitive(2, 6.0, 6.0)
    if built:
        s.build()
    return s


def pair(context, **kw):
    return (leaf_plot(vk.EmbreeSceneManager(), **kw),
            leaf_plot(vk.VulkanSceneManager(context), **kw))


def assert_rounding(a, b, what):
    """Same draws on both backends: values agree to float rounding (the device's acos and
    atan in the directional sky differ from libm by up to ~1e-5), except where a hit
    decided by a rounding error sent one sample elsewhere (rare)."""
    a, b = np.asarray(a), np.asarray(b)
    assert a.shape == b.shape, what
    if a.size == 0:
        return
    off = np.abs(a - b) > 1e-4 * np.abs(a) + 1e-6 * (np.abs(a).max() + 1e-30)
    assert off.mean() <= 0.02, f"{what}: {off.sum()} of {a.size} values differ beyond rounding"
    np.testing.assert_allclose(b.sum(), a.sum(), rtol=2e-3, err_msg=f"{what}: totals differ")


SUN = dict(sun_dir_x=0.3, sun_dir_y=-0.2, sun_dir_z=0.93)


def single_band_case(kind, n):
    rng = np.random.default_rng(11)
    if kind == "shortwave":
        return dict(band_type=0, sun_irradiance=800.0, sky_diffuse_radiance=40.0,
                    sw_albedos=rng.uniform(0.1, 0.5, n).astype(F), **SUN)
    return dict(band_type=1, sky_lw_radiance=95.0)


@pytest.mark.parametrize("repeated", [False, True], ids=["plain", "repeated"])
@pytest.mark.parametrize("kind", ["shortwave", "longwave"])
def test_single_band_energy_balance_equals_the_cpu(context, kind, repeated):
    cpu, gpu = pair(context, repeated=repeated)
    n = cpu.n_primitives()
    if kind == "longwave":  # per-primitive temperatures and emissivities override the materials
        for s in (cpu, gpu):
            s.set_primitive_temperatures(np.linspace(280, 310, n).astype(F))
            s.set_primitive_emissivities(np.linspace(0.9, 1.0, n).astype(F))
    kw = dict(n_samples=16, **single_band_case(kind, n))
    a, b = vk.run_energy_balance_cpu(cpu, **kw), gpu.run_energy_balance_gpu(**kw)
    assert_rounding(a[0], b[0], "top")
    assert_rounding(a[1], b[1], "bot")
    one = gpu.run_energy_balance_gpu(**dict(kw, two_sided=False))
    assert one[1].size == 0 and np.array_equal(one[0], b[0]), "the top side draws the same"


@pytest.mark.parametrize("optics", ["split", "albedo"])
def test_multiband_energy_balance_equals_the_cpu(context, optics):
    cpu, gpu = pair(context, repeated=True)
    n, nb = cpu.n_primitives(), 2
    rng = np.random.default_rng(5)
    r = rng.uniform(0.05, 0.5, (nb, n)).astype(F)
    kw = dict(n_bands=nb, n_samples=12, max_depth=4, sun_irradiance=np.array([600, 400], F), **SUN)
    if optics == "split":
        sky = np.outer([30.0, 20.0], np.linspace(1.5, 0.5, 512)).astype(F).ravel()
        kw.update(sw_reflectance=r.ravel(), sw_back_reflectance=(0.8 * r).ravel(),
                  sw_transmittance=rng.uniform(0.0, 0.45, (nb, n)).astype(F).ravel(),
                  sky_directional_table=sky)
    else:  # the scene's own sky, one side
        kw.update(sw_albedos=r.ravel(), two_sided=False)
    a = vk.run_energy_balance_multiband_cpu(cpu, **kw)
    b = gpu.run_energy_balance_multiband_gpu(**kw)
    for x, y, what in zip(a, b, ("top", "bot", "sunlit_fraction")):
        assert_rounding(x, y, what)
    assert b[1].shape == ((nb, n) if optics == "split" else (0,))


def test_an_open_plane_receives_pi_sky_and_the_sun_on_both_backends(context):
    """A lone plane: every sample ray escapes, so top = pi L + E cos(sun) exactly within
    rounding, and the underside sees the (downward) sky alone."""
    for s in (vk.EmbreeSceneManager(), vk.VulkanSceneManager(context)):
        s.add_instance(s.add_mesh(**vk.make_ground_plane(1, 1, 0, 2.0)))
        s.build()
        run = vk.run_energy_balance_cpu if isinstance(s, vk.EmbreeSceneManager) else \
            lambda _s, **k: _s.run_energy_balance_gpu(**k)
        top, bot = run(s, n_samples=8, sun_irradiance=500.0, sky_diffuse_radiance=20.0, **SUN)
        np.testing.assert_allclose(top, np.pi * 20 + 500 * 0.93 / np.sqrt(0.3**2 + 0.2**2 + 0.93**2),
                                   rtol=1e-5)
        np.testing.assert_allclose(bot, np.pi * 20, rtol=1e-5)


def pulses(n=60, seed=3):
    rng = np.random.default_rng(seed)
    o = np.column_stack([rng.uniform(0, 6, n), rng.uniform(0, 6, n), np.full(n, 15.0)])
    d = np.column_stack([rng.uniform(-0.3, 0.3, (n, 2)), -np.ones(n)])
    return o.astype(F).ravel(), (d / np.linalg.norm(d, axis=1)[:, None]).astype(F).ravel()


LIDAR = dict(beam_half_angle_rad=0.02, beam_samples_per_dim=4, max_range=30.0,
             num_wavelengths=2, peak_threshold=1e-9)


@pytest.mark.parametrize("repeated", [False, True], ids=["plain", "repeated"])
@pytest.mark.parametrize("direct", [False, True], ids=["waveform", "direct"])
def test_lidar_equals_the_cpu_ray_for_ray(context, direct, repeated):
    cpu, gpu = pair(context, repeated=repeated, n_leaves=120)
    o, d = pulses()
    kw = dict(LIDAR, direct_mode=direct)
    a = vk.simulate_lidar_cpu(cpu, o, d, len(o) // 3, **kw)
    b = gpu.simulate_lidar(o, d, len(o) // 3, **kw)
    mode = "lidar_point_cloud" if direct else "lidar_waveform"
    assert b["_execution"] == {"backend": "vulkan", "workflow": mode, "native": True,
                               "executor": f"vulkan.{context.trace_path}.{mode}"}
    assert b["num_bins"] == a["num_bins"] and b["waveform"].shape == a["waveform"].shape
    if not direct:
        w = a["waveform"]
        np.testing.assert_allclose(b["waveform"], w, rtol=1e-4, atol=1e-6 * w.max())
    # Direct points come in worker order on the CPU, in pulse order on the device.
    pa = a["points"][np.lexsort((a["points"][:, 4], a["points"][:, 7]))]
    pb = b["points"]
    assert a["num_returns"] == b["num_returns"] > 20
    assert np.array_equal(pb[:, [4, 5, 7]], pa[:, [4, 5, 7]]), "returns, counts or pulses differ"
    np.testing.assert_allclose(pb[:, :3], pa[:, :3], atol=1e-4, err_msg="positions")
    np.testing.assert_allclose(pb[:, 6], pa[:, 6], atol=1e-4, err_msg="ranges")
    np.testing.assert_allclose(pb[:, 3], pa[:, 3], rtol=1e-4, err_msg="intensities")


def test_vesk_returns_and_las_from_a_vulkan_scene(context, tmp_path):
    cpu, gpu = pair(context, n_leaves=120)
    o, d = pulses(40)
    ra, _ = vesk.simulate_lidar(cpu, o.reshape(-1, 3), d.reshape(-1, 3), **LIDAR)
    rb, res = vesk.simulate_lidar(gpu, o.reshape(-1, 3), d.reshape(-1, 3), **LIDAR)
    assert res["_execution"]["backend"] == "vulkan" and len(rb) == len(ra) > 20
    for k in ("pulse", "return_number", "num_returns", "instance", "material"):
        assert np.array_equal(rb[k], ra[k]), k
    for k in ("x", "y", "z", "range", "energy"):
        np.testing.assert_allclose(rb[k], ra[k], rtol=1e-4, atol=1e-5, err_msg=k)
    files = [tmp_path / "cpu.las", tmp_path / "gpu.las"]
    for path, pts in zip(files, (ra, rb)):
        vesk.write_las(str(path), pts, classes={0: vesk.lidar.GROUND, 1: vesk.lidar.HIGH_VEGETATION})
    assert files[0].stat().st_size == files[1].stat().st_size


EB = "run_energy_balance_cpu"
MB = "run_energy_balance_multiband_cpu"
LI = "simulate_lidar_cpu"
O3 = np.zeros(3, F)
D3 = np.array([0, 0, -1], F)
BAD_CALLS = [
    (EB, dict(n_samples=0)),
    (EB, dict(sw_albedos=np.ones(3, F))),
    (EB, dict(sw_albedos=np.ones((2, 2), F))),
    (EB, dict(sun_irradiance=100.0, sun_dir_x=0.0, sun_dir_y=0.0, sun_dir_z=0.0)),
    (MB, dict(n_bands=2, max_depth=0)),
    (MB, dict(n_bands=65)),
    (MB, dict(n_bands=2, sw_reflectance=np.ones(4, F))),
    (MB, dict(n_bands=2, sky_directional_table=np.ones(10, F))),
    (MB, dict(n_bands=2, sun_irradiance=np.array([1.0, np.nan], F))),
    (LI, dict(pulse_origins=O3, pulse_directions=D3, num_pulses=2)),
    (LI, dict(pulse_origins=O3, pulse_directions=np.zeros(3, F), num_pulses=1)),
    (LI, dict(pulse_origins=O3, pulse_directions=D3, num_pulses=1, range_resolution=0.0)),
]


def vulkan_call(scene, name, kw):
    method = {EB: "run_energy_balance_gpu", MB: "run_energy_balance_multiband_gpu",
              LI: "simulate_lidar"}[name]
    return getattr(scene, method)(**kw)


def refusal(call):
    try:
        call()
    except Exception as e:  # noqa: BLE001 - the type is what is compared
        return type(e), str(e)
    return None


@pytest.mark.parametrize("built", [True, False], ids=["built", "not built"])
def test_refusals_match_the_cpu_and_change_nothing(context, built):
    cpu, gpu = pair(context, built=built)
    for name, kw in BAD_CALLS:
        want = refusal(lambda: getattr(vk, name)(cpu, **kw))
        assert want is not None, (name, kw)
        assert refusal(lambda: vulkan_call(gpu, name, kw)) == want, (name, kw)
    with pytest.raises(ValueError, match="^Vulkan energy balance band_type must be 0 or 1$"):
        gpu.run_energy_balance_gpu(band_type=2)
    if built:  # the refusals left the scene as it was
        kw = dict(n_samples=4, band_type=1, sky_lw_radiance=90.0)
        assert_rounding(vk.run_energy_balance_cpu(cpu, **kw)[0], gpu.run_energy_balance_gpu(**kw)[0],
                        "top after the refusals")


def turbid_layer(s, repeated):
    """A planophile leaf layer 0.5-2.5 m up filling a 4 m tile (repeated or not) over a
    grey ground; the layer's faces lie on the tile walls. (A layer whose bottom lies on the
    ground meets the ground's tie with its bottom face, which the two backends' scans can
    break differently for a ray that enters the layer through a tile wall.)"""
    from conftest import unit_cube
    s.set_num_bands(2)
    s.upload_spectral_params(np.array([0.15, 0.3, 0.08, 0.45, 0.05, 0.4], F))
    s.add_material(0, 0, [0.15, 0.0, 300.0])
    s.add_material(13, 2, [0.3, 0.25, 295.0])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(2, 2, 0, 4.0)), 2.0, 2.0, 0.0)
    box = s.add_mesh(**unit_cube(), material_id=1)
    s.add_instance_xform(box, np.array([4, 0, 0, 2, 0, 4, 0, 2, 0, 0, 2, 1.5], F))
    s.set_optical_turbid_media([1.0], [1], [1], [0.1], [-1, 0])
    if repeated:
        s.set_repetitive(30, 4.0, 4.0)
    s.build()
    return s


@pytest.mark.parametrize("repeated", [False, True], ids=["plain", "repeated"])
def test_lidar_through_a_turbid_layer_equals_the_cpu(context, repeated):
    """Extinction and leaf backscatter bin by bin along the march through the layer (and
    across the tile walls), the ground seen through it; direct mode meets the layer's
    boundary like a surface on both backends."""
    cpu, gpu = (turbid_layer(s, repeated)
                for s in (vk.EmbreeSceneManager(), vk.VulkanSceneManager(context)))
    o, d = pulses(30)
    if not repeated:  # pulses over the one tile
        o = o.reshape(-1, 3)
        o[:, :2] *= 4.0 / 6.0
        o = o.ravel()
    for direct in (False, True):
        kw = dict(LIDAR, beam_samples_per_dim=3, direct_mode=direct)
        a = vk.simulate_lidar_cpu(cpu, o, d, 30, **kw)
        b = gpu.simulate_lidar(o, d, 30, **kw)
        assert b["num_returns"] == a["num_returns"] > 0
        pa = a["points"][np.lexsort((a["points"][:, 4], a["points"][:, 7]))]
        np.testing.assert_allclose(b["points"], pa, rtol=1e-4, atol=1e-4)
        if not direct:
            w = a["waveform"]
            volume = w[:, :, 0].sum(axis=0)[int(12.5 / 0.15):int(14.5 / 0.15)]
            assert volume.min() > 0, "the leaves of the layer return nothing"
            np.testing.assert_allclose(b["waveform"], w, rtol=1e-4, atol=1e-6 * w.max())
    # The energy balance meets media boundaries as surfaces, on both backends.
    kw = dict(n_samples=8, band_type=1, sky_lw_radiance=90.0)
    assert_rounding(vk.run_energy_balance_cpu(cpu, **kw)[0], gpu.run_energy_balance_gpu(**kw)[0],
                    "top with media")
