"""Backward images checked against what physics guarantees independently of the code:
analytic radiances of lit planes and leaves, Planck's law from SciPy's constants,
decompositions that add up, the sun disc, and noise that falls as 1/sqrt(spp)."""
import numpy as np
import pytest
from scipy import constants as sc

import vesk_gpu as vk

F = np.float32


def nadir_camera(height=10.0, x=0.0, y=0.0):
    m = np.eye(4, dtype=F)
    m[:3, 3] = (x, y, height)
    return m.ravel()


def upward_camera(z=-10.0, x=0.0, y=0.0):
    """Looks along +z: the camera's -z axis maps to world +z."""
    m = np.diag([1.0, -1.0, -1.0, 1.0]).astype(F)
    m[:3, 3] = (x, y, z)
    return m.ravel()


def camera_towards(d, pos):
    """Camera whose -z axis points along the unit vector d."""
    z = -np.asarray(d, float)
    x = np.cross([0.0, 0.0, 1.0] if abs(z[2]) < 0.9 else [1.0, 0.0, 0.0], z)
    x /= np.linalg.norm(x)
    y = np.cross(z, x)
    m = np.eye(4)
    m[:3, 0], m[:3, 1], m[:3, 2], m[:3, 3] = x, y, z, pos
    return m.astype(F).ravel()


def sun_dir(zenith, azimuth=0.7):
    return np.array([np.sin(zenith) * np.cos(azimuth), np.sin(zenith) * np.sin(azimuth),
                     np.cos(zenith)], F)


def quad(material_id=0, half=1.0):
    v = np.array([[-half, -half, 0], [half, -half, 0], [half, half, 0], [-half, half, 0]], F)
    return {"vertices": v, "normals": np.zeros((0, 3), F),
            "indices": np.array([[0, 1, 2], [0, 2, 3]], np.int32), "material_id": material_id}


def plane_scene(spectral, materials, sun=None, sun_offset=0, repetitive=None, half=50.0):
    s = vk.EmbreeSceneManager()
    s.upload_spectral_params(np.asarray(spectral, F))
    for mtype, offset, params in materials:
        s.add_material(mtype, offset, params)
    g = s.add_mesh(**vk.make_ground_plane(half, half, 0, 2 * half))
    if repetitive:
        s.add_instance(g, x=half, y=half)
        s.set_repetitive(*repetitive)
    else:
        s.add_instance(g)
    if sun is not None:
        s.set_emitter(0, sun, sun_offset)
    return s


@pytest.mark.parametrize("zenith", [0.0, 0.45, 1.2])
@pytest.mark.parametrize("repeat", [False, True])
def test_lambertian_plane_radiance_is_rho_e_cos_over_pi(zenith, repeat):
    rho, E = np.array([0.08, 0.45], F), np.array([1400.0, 950.0], F)
    sun = sun_dir(zenith)
    s = plane_scene(np.concatenate([rho, E]), [(0, 0, [0.3, 0.0])], sun, sun_offset=2,
                    repetitive=(4, 10.0, 10.0) if repeat else None, half=5.0 if repeat else 50.0)
    s.set_num_bands(2)
    # Repeated: the footprint lies far outside the 10 x 10 tile and must be wrapped in.
    cam = nadir_camera(12.0, 41.0, -27.0) if repeat else nadir_camera(12.0)
    s.set_sensor(0, 6, 5, 30.0, 20.0, cam)
    s.build()
    r = vk.simulate_cpu(s, spp=3, outputs=["standard_error"])
    expected = rho * E * np.float32(np.cos(zenith)) / np.pi
    assert r["payload"].shape == (5, 6, 2)
    np.testing.assert_allclose(r["payload"], np.broadcast_to(expected, (5, 6, 2)), rtol=2e-6,
                               err_msg="every pixel of a sunlit Lambertian plane is rho E cos / pi")
    # Identical samples: the standard error is zero up to the rounding of Q - S^2 / n.
    assert np.all(r["standard_error"] <= 1e-7 * r["payload"])


def canopy(bands=2, sky=0.2, leaf_mean=(0.25, 0.2)):
    """Ground and leaf crowns, sun and a uniform sky, seen by an oblique perspective camera."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(bands)
    ground, front, back, trans = (np.linspace(0.1, 0.3, bands), np.linspace(0.05, 0.45, bands),
                                  np.linspace(0.08, 0.4, bands), np.linspace(0.04, 0.42, bands))
    sun_e, sky_l = np.linspace(1000, 1500, bands), np.full(bands, sky)
    s.upload_spectral_params(np.concatenate([ground, front, back, trans, sun_e, sky_l]).astype(F))
    s.add_material(0, 0, [])
    s.add_material(13, bands, list(leaf_mean))
    g = s.add_mesh(**vk.make_ground_plane(6, 6, 0, 3))
    c = s.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 2), material_id=1)
    s.add_instance(g)
    for x, y, z in [(-2, -1, 2.0), (2, 1.5, 2.5), (0.5, -2.5, 1.8)]:
        s.add_instance(c, x, y, z)
    s.set_emitter(0, sun_dir(0.5), 4 * bands)
    s.set_sky(5 * bands)
    view = np.array([0.3, 0.2, -1.0]) / np.linalg.norm([0.3, 0.2, -1.0])
    s.set_sensor(1, 16, 12, 0.0, 0.0, camera_towards(view, [-3.0, -2.0, 14.0]), fov=50.0)
    s.build()
    return s


def test_event_and_order_splits_add_up_to_the_payload():
    s = canopy()
    r = vk.simulate_cpu(s, spp=4, max_depth=6, outputs=["event_aov", "scattering_order"],
                        max_output_order=1)
    pay = r["payload"].astype(np.float64)
    aov = r["event_aov"]
    assert set(aov) == {"surface", "medium", "environment", "emission"}
    total = sum(aov[k].astype(np.float64) for k in aov)
    np.testing.assert_allclose(total, pay, rtol=1e-5, atol=1e-6)
    assert r["scattering_order"].shape == (3, 12, 16, 2)
    np.testing.assert_allclose(r["scattering_order"].sum(axis=0, dtype=np.float64), pay,
                               rtol=1e-5, atol=1e-6)
    assert np.all(aov["medium"] == 0) and np.all(aov["emission"] == 0)
    assert aov["surface"].sum() > 0 and aov["environment"].sum() > 0
    # Camera rays that see the sky directly are unscattered; nothing else reaches them.
    order0 = r["scattering_order"][0]
    assert np.all(order0 <= r["payload"] * (1 + 1e-6))
    open_sky = np.all(np.isclose(order0, 0.2, rtol=1e-6), axis=-1)  # every sample saw sky
    assert open_sky.any(), "the view should include some open sky"
    np.testing.assert_allclose(r["payload"][open_sky], 0.2, rtol=1e-6)
    # One bounce: the first hit's sun term is all of order 1, and the only environment
    # left is the sky seen directly, order 0.
    one = vk.simulate_cpu(s, spp=2, max_depth=1, outputs=["event_aov", "scattering_order"],
                          max_output_order=0)
    np.testing.assert_array_equal(one["scattering_order"][1], one["event_aov"]["surface"])
    np.testing.assert_array_equal(one["scattering_order"][0], one["event_aov"]["environment"])


def test_sun_disc_is_seen_only_by_unscattered_rays():
    E = np.array([1361.0], F)
    sun = sun_dir(0.6)
    s = plane_scene(np.concatenate([[0.3], E]), [(0, 0, [0.3, 0])], sun, sun_offset=1,
                    repetitive=(2, 10.0, 10.0), half=5.0)
    s.set_num_bands(1)
    s.set_sensor(0, 3, 3, 1.0, 1.0, camera_towards(sun, [5.0, 5.0, 3.0]))
    s.build()
    r = vk.simulate_cpu(s, spp=2, outputs=["event_aov", "scattering_order"])
    np.testing.assert_allclose(r["payload"], E[0] / np.float32(6.794e-05), rtol=1e-6)
    np.testing.assert_array_equal(r["event_aov"]["environment"], r["payload"])
    np.testing.assert_array_equal(r["scattering_order"][0], r["payload"])
    # Two degrees off the sun the disc is gone, and there is no sky.
    off = sun_dir(0.6 + np.radians(2.0))
    s.set_sensor(0, 3, 3, 1.0, 1.0, camera_towards(off, [5.0, 5.0, 3.0]))
    assert vk.simulate_cpu(s, spp=2)["payload"].max() == 0
    # Looking down at the ground, bounced rays never see the disc, only next-event sun.
    s.set_sensor(0, 3, 3, 1.0, 1.0, nadir_camera(3.0, 5.0, 5.0))
    r = vk.simulate_cpu(s, spp=32, outputs=["event_aov"])
    assert r["event_aov"]["environment"].max() == 0
    np.testing.assert_allclose(r["payload"], 0.3 * E[0] * np.cos(0.6) / np.pi, rtol=2e-6)


def planck_scipy(wavelength_nm, T):
    lam = wavelength_nm * 1e-9
    return 2 * sc.h * sc.c ** 2 / lam ** 5 / np.expm1(sc.h * sc.c / (lam * sc.k * T)) * 1e-9


def test_thermal_plane_emits_planck_and_reflects_only_the_sky():
    wl = [8000.0, 11000.0]
    eps, sky = np.array([1.0, 0.9], F), np.array([2.0, 3.0], F)
    s = plane_scene(np.concatenate([eps, [500.0, 500.0], sky]), [(0, 0, [0, 0, 300.0])],
                    sun_dir(0.3), sun_offset=2)
    s.set_num_bands(2)
    s.set_sky(4)
    s.set_thermal_mode(True, wl)
    s.set_sensor(0, 4, 4, 10.0, 10.0, nadir_camera())
    s.build()
    r = vk.simulate_cpu(s, spp=2, outputs=["event_aov"])
    B = planck_scipy(np.array(wl), 300.0)
    # Kirchhoff: emission eps B, plus the sky reflected by 1 - eps; the sun is not seen.
    np.testing.assert_allclose(r["payload"][0, 0], eps * B + (1 - eps) * sky, rtol=1e-5)
    np.testing.assert_allclose(r["event_aov"]["emission"][0, 0], eps * B, rtol=1e-5)
    assert r["event_aov"]["surface"].max() == 0
    # A per-primitive override takes precedence over the material temperature.
    s.set_primitive_temperatures(np.full(s.n_primitives(), 250.0, F))
    r = vk.simulate_cpu(s, spp=1, outputs=["event_aov"])
    np.testing.assert_allclose(r["event_aov"]["emission"][2, 1], eps * planck_scipy(
        np.array(wl), 250.0), rtol=1e-5)
    s.clear_primitive_temperatures()


def test_thermal_sunlit_and_shaded_temperatures_follow_the_shadow():
    wl = [10000.0]
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([1.0, 500.0, 0.5], F))
    s.add_material(0, 0, [0, 0, 300.0, 320.0, 280.0])
    s.add_material(0, 2, [0, 0, 0.0])  # a cold roof: emits nothing
    s.add_instance(s.add_mesh(**vk.make_ground_plane(20, 20, 0, 40)))
    s.add_instance(s.add_mesh(**quad(1, 2.0)), x=5.0, y=0.0, z=3.0)
    s.set_emitter(0, np.array([0, 0, 1], F), 1)
    s.set_thermal_mode(True, wl)
    s.set_sensor(0, 20, 1, 20.0, 1.0, nadir_camera(1.0, -0.5, 0.0))  # below the roof
    s.build()
    row = vk.simulate_cpu(s, spp=1, max_depth=1)["payload"][0, :, 0]
    x = -0.5 + (np.arange(20) + 0.5) - 10.0
    shaded = np.abs(x - 5.0) < 2.0
    np.testing.assert_allclose(row[shaded], planck_scipy(1e4, 280.0), rtol=1e-5)
    np.testing.assert_allclose(row[~shaded], planck_scipy(1e4, 320.0), rtol=1e-5)


@pytest.mark.parametrize("camera_below,sun_below,block", [
    (False, False, "front"), (True, True, "back"), (True, False, "trans"), (False, True, "trans")])
def test_leaf_sides_use_front_back_and_transmittance_blocks(camera_below, sun_below, block):
    values = {"front": 0.1, "back": 0.4, "trans": 0.2}
    E, zen = 800.0, 0.4
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([values["front"], values["back"], values["trans"], E], F))
    s.add_material(13, 0, [0.25, 0.2])
    s.add_instance(s.add_mesh(**quad(0, 5.0)))
    sun = sun_dir(zen)
    if sun_below:
        sun[2] = -sun[2]
    s.set_emitter(0, sun, 3)
    s.set_sensor(0, 3, 3, 2.0, 2.0, upward_camera(-5.0) if camera_below else nadir_camera(5.0))
    s.build()
    r = vk.simulate_cpu(s, spp=2, max_depth=1)
    np.testing.assert_allclose(r["payload"], values[block] * E * np.cos(zen) / np.pi, rtol=2e-6)


def test_standard_error_vanishes_at_one_sample_and_falls_as_one_over_root_spp():
    s = canopy()
    one = vk.simulate_cpu(s, spp=1, outputs=["standard_error"])
    assert one["standard_error"].shape == one["payload"].shape
    assert np.all(one["standard_error"] == 0)
    se16 = vk.simulate_cpu(s, spp=16, outputs=["standard_error"])["standard_error"]
    se64 = vk.simulate_cpu(s, spp=64, outputs=["standard_error"])["standard_error"]
    noisy = se16 > 0
    assert noisy.mean() > 0.3, "the canopy must be noisy for this test to mean anything"
    ratio = np.sqrt(np.mean(se16[noisy] ** 2) / np.mean(se64[noisy] ** 2))
    assert ratio == pytest.approx(2.0, rel=0.15)


def test_output_names_and_their_errors():
    s = canopy()
    with pytest.raises(ValueError, match="^unknown optical output name: albedo$"):
        vk.simulate_cpu(s, spp=1, outputs=["radiance", "albedo"])
    with pytest.raises(ValueError, match="^max_output_order must be non-negative$"):
        vk.simulate_cpu(s, spp=1, outputs=["scattering_order"], max_output_order=-1)
    assert set(vk.simulate_cpu(s, spp=1, outputs=[], max_output_order=-3)) == {"payload",
                                                                            "_execution"}
    r = vk.simulate_cpu(s, spp=1, outputs=("radiance", "radiance"))
    assert r["_execution"] == {"backend": "embree", "workflow": "optical_backward",
                               "executor": "embree.cpu.optical_backward", "native": True}
    two = vk.simulate_cpu(s, spp=1, outputs=["scattering_order"], max_output_order=0)
    assert two["scattering_order"].shape[0] == 2
    with pytest.raises(RuntimeError):
        vk.simulate_cpu(vk.EmbreeSceneManager(), spp=1)
    bad = vk.EmbreeSceneManager()
    bad.add_instance(bad.add_mesh(**quad(3)))
    bad.build()
    with pytest.raises(ValueError, match="uses material 3"):
        vk.simulate_cpu(bad, spp=1)


def test_vesk_max_depth_overrides_and_logs(monkeypatch, capfd):
    s = canopy()
    shallow = vk.simulate_cpu(s, spp=2, max_depth=1)["payload"]
    deep = vk.simulate_cpu(s, spp=2, max_depth=6)["payload"]
    capfd.readouterr()
    monkeypatch.setenv("VESK_MAX_DEPTH", "1")
    overridden = vk.simulate_cpu(s, spp=2, max_depth=6)["payload"]
    assert capfd.readouterr().out == "[CPU bwd] VESK_MAX_DEPTH=1\n"
    np.testing.assert_array_equal(overridden, shallow)
    for ignored in ("0", "-3", "deep"):
        monkeypatch.setenv("VESK_MAX_DEPTH", ignored)
        np.testing.assert_array_equal(vk.simulate_cpu(s, spp=2, max_depth=6)["payload"], deep)
        assert capfd.readouterr().out == ""


def test_progress_reports_every_sample_and_its_errors_propagate():
    s = canopy()
    calls = []
    vk.simulate_cpu(s, spp=5, progress=lambda *a: calls.append(a))
    assert [c[:2] for c in calls] == [(k, 5) for k in range(1, 6)]
    assert all(isinstance(c[2], float) for c in calls)
    assert [c[2] for c in calls] == sorted(c[2] for c in calls)

    def boom(done, total, elapsed):
        if done == 2:
            raise ZeroDivisionError("host says stop")
    with pytest.raises(ZeroDivisionError, match="host says stop"):
        vk.simulate_cpu(s, spp=40, progress=boom)


def test_sif_only_mode_shows_pure_fluorescence():
    s = plane_scene([0.4, 0.5, 1000.0, 1000.0, 5.0, 5.0], [(0, 0, [0.45, 0])], sun_dir(0.3),
                    sun_offset=2)
    s.set_num_bands(2)
    s.set_sky(4)
    s.set_sensor(0, 3, 2, 4.0, 4.0, nadir_camera())
    s.build()
    sif = np.array([0.7, 1.9], F)
    s.set_primitive_sif_spectra(np.repeat(sif, s.n_primitives()), 2)
    s.set_sif_only_mode(True)
    r = vk.simulate_cpu(s, spp=2, outputs=["event_aov"])
    np.testing.assert_allclose(r["payload"], np.broadcast_to(sif, (2, 3, 2)), rtol=1e-6)
    np.testing.assert_array_equal(r["event_aov"]["emission"], r["payload"])
    s.set_sif_only_mode(False)
    lit = vk.simulate_cpu(s, spp=2)["payload"]
    assert lit.min() > 50, "back in optical mode the sun and sky return"


def test_row_blocks_are_the_rows_of_the_whole_image():
    s = canopy()
    out = ["radiance", "standard_error", "event_aov", "scattering_order"]
    whole = vk.simulate_cpu(s, spp=3, outputs=out, max_output_order=1)
    for first, n in ((0, 5), (5, 6), (11, -1)):
        part = vk._simulate_cpu_rows(s, 3, 16, out, 1, first, n)
        rows = slice(first, None if n < 0 else first + n)
        np.testing.assert_array_equal(part["payload"], whole["payload"][rows])
        np.testing.assert_array_equal(part["standard_error"], whole["standard_error"][rows])
        np.testing.assert_array_equal(part["event_aov"]["surface"],
                                      whole["event_aov"]["surface"][rows])
        np.testing.assert_array_equal(part["scattering_order"], whole["scattering_order"][:, rows])
    for first, n in ((-1, 2), (11, 2), (0, 0)):
        with pytest.raises(ValueError, match="are not rows of the 12-row sensor"):
            vk._simulate_cpu_rows(s, 1, 16, "radiance", 0, first, n)
