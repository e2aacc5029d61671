"""simulate_lidar_cpu against physics: the lidar equation of a Lambertian target, the
inverse square law, broadening by tilt, footprints split between two surfaces, and the
single-scattering return of a leaf slab with the ground behind it."""
import numpy as np
import pytest

import vesk
import vesk_gpu as vk
from conftest import unit_cube

F = np.float32
E, A = 2.0, 0.1  # pulse energy and sensor area


def planes(*layers, leaves=None):
    """Horizontal Lambertian planes (rho, height, x_min); a leaf slab (lai, z0, z1) of
    spherically oriented white-ish leaves if given."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([l[0] for l in layers] + [0.4, 0.3, 0.2], F))
    quad = vk.make_ground_plane(40.0, 40.0, 0, 10.0)
    for i, (rho, z, x_min) in enumerate(layers):
        s.add_material(0, i, [rho])
        m = s.add_mesh(quad["vertices"], quad["normals"], quad["indices"], i)
        s.add_instance(m, x_min + 40.0, 0.0, z)
    if leaves:
        lai, z0, z1 = leaves
        s.add_material(13, len(layers), [0.4, 0.2])
        box = s.add_mesh(**unit_cube(), material_id=len(layers))
        s.add_instance_xform(box, np.array([150, 0, 0, 0, 0, 150, 0, 0, 0, 0, z1 - z0,
                                            (z0 + z1) / 2], F))
        s.set_optical_turbid_media([lai / (z1 - z0)], [0], [1], [0.0], [-1] * len(layers) + [0])
    s.build()
    return s


def shoot(s, height=20.0, **kw):
    kw.setdefault("pulse_energy", E)
    kw.setdefault("sensor_area", A)
    return vk.simulate_lidar_cpu(s, np.array([0, 0, height], F), np.array([0, 0, -1], F), 1,
                                 **kw)


@pytest.mark.parametrize("R", [8.0, 20.0, 45.0])
def test_lambertian_target_follows_the_lidar_equation_and_inverse_square(R):
    rho = 0.4
    r = shoot(planes((rho, 0.0, -40.0)), height=R)
    # rho E A cos / (pi R^2), summed over beam weights that sum to 1; the beam is narrow.
    np.testing.assert_allclose(r["waveform"].sum(), rho * E * A / (np.pi * R * R), rtol=1e-4)
    wf = r["waveform"][0, :, 0]
    assert int(np.argmax(wf)) == int(R / 0.15)
    assert r["num_returns"] == 1 and abs(r["points"][0, 6] - R) <= 0.075 + 1e-5
    np.testing.assert_allclose(r["points"][0, :3], [0, 0, R - r["points"][0, 6]], atol=1e-5)
    direct = shoot(planes((rho, 0.0, -40.0)), height=R, direct_mode=True)
    np.testing.assert_allclose(direct["points"][0, [3, 6]], [rho * E * A / (np.pi * R * R), R],
                               rtol=1e-5)
    assert direct["_execution"]["workflow"] == "lidar_point_cloud"
    assert r["_execution"]["executor"] == "embree.cpu.lidar_waveform"


def test_a_tilted_target_broadens_the_waveform():
    def spread(tilt):
        s = vk.EmbreeSceneManager()
        s.upload_spectral_params(np.array([0.4], F))
        s.add_material(0, 0, [0.4])
        c, sn = np.cos(tilt), np.sin(tilt)
        s.add_instance_xform(s.add_mesh(**vk.make_ground_plane(50, 50, 0, 10)),
                             np.array([c, 0, sn, 0, 0, 1, 0, 0, -sn, 0, c, 0], F))
        s.build()
        w = shoot(s, beam_half_angle_rad=0.01, pulse_fwhm_ns=1.0)["waveform"][0, :, 0]
        b = np.arange(len(w))
        mean = (w * b).sum() / w.sum()
        return np.sqrt((w * (b - mean) ** 2).sum() / w.sum())
    assert spread(1.0) > 1.5 * spread(0.0)


def roof_and_ground(edge=0.05):
    """A flat roof of reflectance 0.5 at 3 m over x < edge, a ground of 0.3 beyond."""
    s = vk.EmbreeSceneManager()
    s.upload_spectral_params(np.array([0.5, 0.3], F))
    s.add_material(0, 0, [0.5])
    s.add_material(0, 1, [0.3])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(30, 30, 0, 10)), edge - 30.0, 0.0, 3.0)
    s.add_instance(s.add_mesh(**vk.make_ground_plane(40, 40, 1, 10)), 0.0, 0.0, 0.0)
    s.build()
    return s


def test_a_split_footprint_gives_two_returns_weighted_by_the_beam():
    # The beam (radius 0.2 m at 20 m) covers both sides of the roof's edge. Beam x maps to
    # world x for a pulse straight down.
    s = roof_and_ground()
    n, t = 9, np.tan(0.01)
    r = shoot(s, beam_half_angle_rad=0.01, beam_samples_per_dim=n)
    # The documented beam grid, to split its weight at the roof edge.
    x = np.array([[2 * ix / n - 1 for ix in range(n + 1)] for _ in range(n + 1)], F)
    y = x.T
    keep = x * x + y * y <= F(1.0001)
    w = np.exp(-0.5 * (x * x + y * y) / 0.50016385)[keep]
    roof = x[keep] * t * 17.0 < 0.05
    share = w[roof].sum() / w.sum()
    wf = r["waveform"][0, :, 0]
    near, far = wf[: int(18.5 / 0.15)].sum(), wf[int(18.5 / 0.15):].sum()
    np.testing.assert_allclose(near, 0.5 * E * A * share / (np.pi * 17.0**2), rtol=0.01)
    np.testing.assert_allclose(far, 0.3 * E * A * (1 - share) / (np.pi * 20.0**2), rtol=0.01)
    assert r["num_returns"] == 2 and list(r["points"][:, 4]) == [1.0, 2.0]


def test_a_leaf_slab_returns_single_scattering_and_dims_the_ground():
    # Slab from range 12 to 15 m (bin edges), spherical leaves, LAI 1.5, over a ground at
    # 20 m. Extinction sigma = G * LAD = 0.5 * 0.5; leaf backscatter per unit length
    # beta = (r_front + r_back) * LAD * (1/3) / 2 / pi, attenuated once on the way out.
    s = planes((0.3, 0.0, -40.0), leaves=(1.5, 5.0, 8.0))
    r = shoot(s)
    wf = r["waveform"][0, :, 0].astype(np.float64)
    volume, ground = wf[: int(17.0 / 0.15)].sum(), wf[int(17.0 / 0.15):].sum()
    sigma, beta = 0.5 * 0.5, (0.4 + 0.3) * 0.5 / 3 / 2 / np.pi
    np.testing.assert_allclose(ground, 0.3 * E * A / (np.pi * 400) * np.exp(-0.5 * 1.5),
                               rtol=1e-3)
    rr = np.linspace(12.0, 15.0, 30001)
    expected = np.trapz(E * A * beta * np.exp(-sigma * (rr - 12.0)) / rr**2, rr)
    np.testing.assert_allclose(volume, expected, rtol=2e-3)
    assert r["num_returns"] >= 2


def test_results_do_not_depend_on_threads_and_bad_pulses_are_refused(monkeypatch, rng):
    s = planes((0.3, 0.0, -40.0), (0.5, 2.0, 10.0), leaves=(1.0, 4.0, 6.0))
    n = 40
    o = np.tile(np.array([0, 0, 20], F), n) + rng.uniform(-30, 30, 3 * n).astype(F) * \
        np.tile(np.array([1, 1, 0], F), n)
    d = np.tile(np.array([0, 0, -1], F), n)
    runs = []
    for threads in ("1", "2"):
        monkeypatch.setenv("VESK_NUM_THREADS", threads)
        for direct in (False, True):
            r = vk.simulate_lidar_cpu(s, o, d, n, direct_mode=direct)
            pts = r["points"][np.lexsort((r["points"][:, 6], r["points"][:, 7]))]
            runs.append((r["waveform"] if not direct else None, pts))
    np.testing.assert_array_equal(runs[0][0], runs[2][0])
    for a, b in ((runs[0][1], runs[2][1]), (runs[1][1], runs[3][1])):
        np.testing.assert_array_equal(a, b)
    with pytest.raises(ValueError, match="^pulse_origins and pulse_directions must be flat "
                                         "arrays with num_pulses \\* 3 values$"):
        vk.simulate_lidar_cpu(s, o, d, n + 1)
    with pytest.raises(ValueError, match="^pulse_directions contains a non-finite value$"):
        vk.simulate_lidar_cpu(s, o, np.full_like(d, np.nan), n)


def test_degenerate_beam_grids_fall_back_to_one_central_ray(capfd):
    s = planes((0.4, 0.0, -40.0))
    axis = shoot(s, beam_half_angle_rad=0.0)["waveform"]
    for n in (0, 1, -3):
        np.testing.assert_allclose(shoot(s, beam_samples_per_dim=n)["waveform"], axis, rtol=1e-5)
        assert "1 beam samples, waveform mode" in capfd.readouterr().out
    shoot(s, direct_mode=True)
    assert "1 beam samples, direct mode" in capfd.readouterr().out


@pytest.mark.parametrize("height", [20.0, 20.05, 19.93])
def test_flat_nadir_target_has_one_intensity_in_both_modes(height):
    s = vk.EmbreeSceneManager()
    sp = vesk.Spectra(s, [1064])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(20, 20, vesk.lambertian(sp, "ground", 0.3), 5)))
    s.build()
    o, d = np.array([[0.3, 0.2, height]], F), np.array([[0, 0, -1]], F)
    waveform, raw = vesk.simulate_lidar(s, o, d)
    direct, _ = vesk.simulate_lidar(s, o, d, direct_mode=True)
    # The range equation: rho E A / (pi R^2) at normal incidence.
    assert direct["energy"][0] == pytest.approx(0.3 * 1.0 * 0.1 / (np.pi * height**2), rel=1e-5)
    # The peak bin alone holds about a quarter of it; the return's lobe holds all of it
    # (the beam's edge rays run a little longer, hence the 1e-4).
    assert raw["points"][0, 3] < 0.3 * direct["energy"][0]
    assert waveform["energy"][0] == pytest.approx(direct["energy"][0], rel=1e-4)
    assert waveform["material"][0] == direct["material"][0] == 0


@pytest.mark.parametrize("n, direct", [(10, False), (3, False), (0, False), (10, True)])
def test_the_logged_beam_sample_count_is_what_is_traced(n, direct, capfd):
    s = vk.EmbreeSceneManager()
    sp = vesk.Spectra(s, [1064])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(20, 20, vesk.lambertian(sp, "g", 0.3), 5)))
    s.build()
    vesk.simulate_lidar(s, [[0, 0, 10]], [[0, 0, -1]], beam_samples_per_dim=n, direct_mode=direct)
    logged = capfd.readouterr()
    line = [ln for ln in (logged.out + logged.err).splitlines() if ln.startswith("LiDAR (CPU)")][0]
    assert f" {vesk.beam_sample_count(n, direct)} beam samples" in line, line
