"""Microwave images on the CPU scene against closed forms: bare soil, a tau-omega slab over
soil, the atmosphere, backscatter of soil, slab and trunks, and the argument checks."""
import numpy as np
import pytest

import vesk_gpu as vk
from microwave_scenes import F, box, camera, diagonal_mueller, make_scene, soil_row, trunk_row

FREQ = 1.4e9
MAP_SOIL_VEG = np.array([0, 1, -1], np.int32)
MAP_SOIL = np.array([0, -1, -1], np.int32)


def mironov(clay, mv, freq):
    """Mironov et al. (2009) soil permittivity, written out from the published model."""
    w0 = 2 * np.pi * freq
    nd = 1.634 - 0.539 * clay + 0.2748 * clay ** 2
    kd = 0.03952 - 0.04038 * clay
    mvt = 0.02863 + 0.30673 * clay
    e0 = 8.854e-12

    def debye(eps_s, tau, sigma=0.0):
        e = 4.9 + (eps_s - 4.9) / (1 - 1j * w0 * tau) + 1j * sigma / (w0 * e0)
        r = np.sqrt(e)
        return r.real, r.imag

    nb, kb = debye(79.8 - 85.4 * clay + 32.7 * clay ** 2, 1.062e-11 + 3.45e-12 * clay,
                   0.3112 + 0.467 * clay)
    nu, ku = debye(95.1 + 4.9, 8.837e-12)
    if mv > mvt:
        n = nd + (nb - 1) * mvt + (nu - 1) * (mv - mvt)
        k = kd + kb * mvt + ku * (mv - mvt)
    else:
        n, k = nd + (nb - 1) * mv, kd + kb * mv
    return complex(n * n - k * k, 2 * n * k)


def fresnel(eps, theta):
    c = np.cos(theta)
    w = np.sqrt(eps - np.sin(theta) ** 2)
    return abs((c - w) / (c + w)) ** 2, abs((eps * c - w) / (eps * c + w)) ** 2


@pytest.mark.parametrize("deg", [0.0, 25.0, 40.0, 55.0])
def test_bare_smooth_soil_emits_one_minus_fresnel_reflectivity(deg):
    theta = np.radians(deg)
    s = make_scene(theta)
    tb = vk.simulate_microwave_cpu(s, FREQ, soil_row(t=295.0)[None], None, None, MAP_SOIL)
    gh, gv = fresnel(mironov(0.2, 0.25, FREQ), theta)
    assert tb.shape == (3, 4, 2) and tb.dtype == np.float32
    np.testing.assert_allclose(tb[..., 0], (1 - gh) * 295.0, atol=0.05,
                               err_msg="bare soil H brightness is (1 - Gamma_H) T")
    np.testing.assert_allclose(tb[..., 1], (1 - gv) * 295.0, atol=0.05,
                               err_msg="bare soil V brightness is (1 - Gamma_V) T")
    if deg == 40.0:
        assert (tb[..., 1] > tb[..., 0] + 20).all(), "V outshines H at 40 degrees"
    # The channel layouts describe the same two temperatures.
    one = vk.simulate_microwave_cpu(s, FREQ, soil_row()[None], None, None, MAP_SOIL,
                                    n_channels=1)
    stokes = vk.simulate_microwave_cpu(s, FREQ, soil_row()[None], None, None, MAP_SOIL,
                                       n_channels=4)
    np.testing.assert_allclose(one[..., 0], tb.mean(axis=2), rtol=1e-6)
    np.testing.assert_allclose(stokes[..., 0], tb.sum(axis=2), rtol=1e-6)
    np.testing.assert_allclose(stokes[..., 1], tb[..., 1] - tb[..., 0], rtol=1e-5, atol=1e-4)
    assert (stokes[..., 2:] == 0).all()


def layer_over_soil(tb, soil, theta, tau, omega, tc):
    """Checks tb against the tau-omega closed form of a uniform layer over smooth soil at
    291 K, Tb_p = Ts (1 - Rp) g + Tc (1 - w)(1 - g)(1 + Rp g), within 0.5 K; returns Rp."""
    refl = vk._evaluate_microwave_soil_reflectivity(FREQ, soil, np.array([np.cos(theta)], F),
                                                    False)[0]
    g = np.exp(-tau / np.cos(theta))
    expected = 291.0 * (1 - refl) * g + tc * (1 - omega) * (1 - g) * (1 + refl * g)
    np.testing.assert_allclose(tb, np.broadcast_to(expected, tb.shape), atol=0.5,
                               err_msg="Tb_p = Ts (1 - Rp) g + Tc (1 - w)(1 - g)(1 + Rp g)")
    return refl


@pytest.mark.parametrize("tau", [0.1, 0.5, 1.0])
@pytest.mark.parametrize("omega", [0.0, 0.2])
@pytest.mark.parametrize("deg", [30.0, 50.0])
def test_uniform_layer_over_smooth_soil_matches_tau_omega_closed_form(tau, omega, deg):
    theta, height, tc = np.radians(deg), 3.0, 302.0
    s = make_scene(theta, slab_height=height)
    soil = soil_row(t=291.0)
    veg = np.array([[tau / height, omega, tc, 7.0]], F)  # a 4th column is carried, unread
    tb = vk.simulate_microwave_cpu(s, FREQ, soil[None], veg, None, MAP_SOIL_VEG)
    refl = layer_over_soil(tb, soil, theta, tau, omega, tc)
    # A vegetation surface mapped to -1 is not there at all.
    bare = vk.simulate_microwave_cpu(s, FREQ, soil[None], veg, None,
                                     np.array([0, -1, -1], np.int32))
    np.testing.assert_allclose(bare, np.broadcast_to(291.0 * (1 - refl), tb.shape), atol=0.05)


def test_atmosphere_adds_up_and_downwelling_emission():
    theta, tau_atm, t_air = np.radians(35.0), 0.4, 275.0
    s = make_scene(theta)
    soil = soil_row(t=293.0)
    tb = vk.simulate_microwave_cpu(s, FREQ, soil[None], None, None, MAP_SOIL,
                                   include_atmosphere=True, atm_tau=tau_atm,
                                   air_temperature=t_air)
    refl = vk._evaluate_microwave_soil_reflectivity(FREQ, soil, np.array([np.cos(theta)], F),
                                                    False)[0]
    a = np.exp(-tau_atm / np.cos(theta))
    down = t_air * (1 - a)
    expected = (293.0 * (1 - refl) + refl * down) * a + t_air * (1 - a)
    np.testing.assert_allclose(tb, np.broadcast_to(expected, tb.shape), atol=0.05)
    # Without the flag, atm_tau changes nothing.
    off = vk.simulate_microwave_cpu(s, FREQ, soil[None], None, None, MAP_SOIL, atm_tau=tau_atm)
    np.testing.assert_allclose(off, np.broadcast_to(293.0 * (1 - refl), tb.shape), atol=0.05)


@pytest.mark.parametrize("deg", [20.0, 45.0])
def test_backscatter_of_soil_slab_and_volume(deg):
    theta = np.radians(deg)
    mu = np.cos(theta)
    soil = soil_row(model=1, s=0.02)
    bare = vk._evaluate_microwave_soil(FREQ, soil, np.array([mu], F), True)[0]
    s0 = make_scene(theta)
    got = vk.simulate_active_microwave_cpu(s0, FREQ, soil[None], None, None, MAP_SOIL, spp=2)
    assert got.shape == (3, 4, 4)
    np.testing.assert_allclose(got, np.broadcast_to(bare, got.shape), rtol=5e-4,
                               err_msg="bare-soil sigma0 is the soil model's at that angle")
    tau, height, p = 0.6, 4.0, 2e-3
    s = make_scene(theta, slab_height=height)
    veg = np.array([[tau / height, 0.1, 300.0]], F)
    attenuated = vk.simulate_active_microwave_cpu(s, FREQ, soil[None], veg, None, MAP_SOIL_VEG)
    # (rtol: the soil table is interpolated in cosine)
    np.testing.assert_allclose(attenuated, np.broadcast_to(bare * np.exp(-2 * tau / mu), got.shape),
                               rtol=5e-4, err_msg="the slab attenuates the soil by exp(-2 tau/mu)")
    # A non-depolarising canopy adds sigma_v mu (1 - exp(-2 tau / mu)) / (2 kappa) to HH and
    # VV, nothing to HV: over a soil without cross-polarisation in this check (mapped -1).
    veg_only = vk.simulate_active_microwave_cpu(s, FREQ, soil[None], veg, None,
                                                np.array([-1, 1, -1], np.int32),
                                                mw_veg_mueller_luts=[diagonal_mueller(p)])
    volume = 4 * np.pi * p * mu * (1 - np.exp(-2 * tau / mu)) / (2 * tau / height)
    np.testing.assert_allclose(veg_only[..., [0, 3]], volume, rtol=1e-4)
    assert (veg_only[..., [1, 2]] == 0).all(), "HV is zero without depolarisation"
    total = vk.simulate_active_microwave_cpu(s, FREQ, soil[None], veg, None, MAP_SOIL_VEG,
                                             mw_veg_mueller_luts=[diagonal_mueller(p)],
                                             n_channels=1)
    np.testing.assert_allclose(total[..., 0], 0.5 * (attenuated + veg_only)[..., [0, 3]].sum(-1),
                               rtol=1e-4)


def test_double_bounce_needs_trunks_and_is_thread_independent():
    # The double bounce of a thick trunk swings by orders of magnitude within a degree;
    # at a cosine of the response table's grid the table holds the evaluator's value.
    theta = np.arccos(196 / 255)
    mu, sn = np.cos(theta), np.sin(theta)
    soil = soil_row(model=1, s=0.01)
    args = (FREQ, soil[None], None, trunk_row())
    mapping = np.array([0, -1, 1], np.int32)
    # A footprint inside one trunk's face: every ray meets the trunk, whose specular ray
    # goes down to the soil at the ray's own incidence, so each carries mu times the
    # trunk-ground evaluator's value, co-polarised only.
    s = make_scene(theta, trunks=1, pixels=(3, 3), footprint=0.1)
    s.set_sensor(0, 3, 3, 0.1, 0.1, camera(theta, target=(0.3 - 2.0, 0.7 - 2.0, 4.0)))
    on_trunk = vk.simulate_active_microwave_cpu(s, *args, mapping, spp=3)
    db = vk._evaluate_microwave_trunk_ground(FREQ, soil, trunk_row()[0],
                                             np.array([[sn, 0, mu]], F),
                                             np.array([[sn, 0, -mu]], F),
                                             np.array([[0, 0, 1]], F))[0]
    np.testing.assert_allclose(on_trunk[..., 0], mu * db[0], rtol=5e-4)
    np.testing.assert_allclose(on_trunk[..., 3], mu * db[1], rtol=5e-4)
    assert (on_trunk[..., 1:3] == 0).all()
    no_soil = vk.simulate_active_microwave_cpu(s, *args, np.array([-1, -1, 1], np.int32))
    assert (no_soil == 0).all(), "no double bounce without a ground"
    # Trunks mapped to no response, or trunks absent, leave the bare soil.
    bare = vk._evaluate_microwave_soil(FREQ, soil, np.array([mu], F), True)[0]
    hidden = vk.simulate_active_microwave_cpu(s, *args, np.array([0, -1, -1], np.int32))
    np.testing.assert_allclose(hidden, np.broadcast_to(bare, hidden.shape), rtol=5e-4)
    forest = make_scene(theta, trunks=36, pixels=(24, 24), footprint=24.0)
    image = vk.simulate_active_microwave_cpu(forest, *args, mapping, spp=4, threads=2)
    again = vk.simulate_active_microwave_cpu(forest, *args, mapping, spp=4, threads=1)
    np.testing.assert_array_equal(image, again, err_msg="results depend on the thread count")
    open_field = make_scene(theta, pixels=(24, 24), footprint=24.0)
    bare_image = vk.simulate_active_microwave_cpu(open_field, *args, mapping, spp=4)
    np.testing.assert_allclose(bare_image, np.broadcast_to(bare, bare_image.shape), rtol=5e-4)
    hh_ratio = image[..., 0] / image[..., 3]
    assert (hh_ratio > 1).any() and (bare[0] < bare[3]), \
        "only with trunks do pixels with HH above VV (the double bounce) appear"


def _bad_tables(n):
    """Argument sets with the first n of the four table faults repaired."""
    good_lut = diagonal_mueller(1e-3)
    veg = [good_lut] if n >= 1 else [(good_lut[0][0], good_lut[1], good_lut[2])]
    spec_good, spec_bad = np.zeros((5, 4, 4), F), np.zeros((5, 16), F)
    trunk_lut = good_lut if n >= 2 else (good_lut[0][..., 0], good_lut[1], good_lut[2])
    trunk = [(*trunk_lut, spec_good if n >= 3 else spec_bad)]
    params = trunk_row() if n >= 4 else trunk_row()[:, :6]
    return veg, trunk, params


@pytest.mark.parametrize("active", [False, True])
def test_table_messages_in_order(active):
    s = make_scene(0.3)
    run = vk.simulate_active_microwave_cpu if active else vk.simulate_microwave_cpu
    width = ("mw_trunk_params must have 7 columns (active path)" if active else
             "mw_trunk_params must have 7 columns (radius, length, moisture, temperature, "
             "ax_x, ax_y, ax_z)")
    texts = ["mueller_lut must be 5-D (cti,cts,dphi,4,4)",
             "trunk mueller_lut must be 5-D (cti,cts,dphi,4,4)",
             "trunk specular_mueller must be 3-D (n_cos, 4, 4)", width]
    veg_row = np.array([[0.1, 0.1, 300.0]], F)
    for n, text in enumerate(texts):
        veg, trunk, params = _bad_tables(n)
        with pytest.raises(RuntimeError) as e:
            run(s, FREQ, soil_row()[None], veg_row, params, np.array([0, 1, 2], np.int32),
                mw_veg_mueller_luts=veg, mw_trunk_mueller_luts=trunk)
        assert str(e.value) == text
    veg, trunk, params = _bad_tables(4)
    ok = run(s, FREQ, soil_row()[None], veg_row, params, np.array([0, 1, 2], np.int32),
             mw_veg_mueller_luts=veg, mw_trunk_mueller_luts=[None])
    assert np.isfinite(ok).all(), "a None trunk table selects the Fresnel fallback"
    with pytest.raises(ValueError, match="material_map has 2 entries but the scene has 3"):
        run(s, FREQ, soil_row()[None], veg_row, params, np.array([0, 1], np.int32))
    with pytest.raises(ValueError, match=r"material_map\[1\] = 3 is not -1"):
        run(s, FREQ, soil_row()[None], veg_row, params, np.array([0, 3, 2], np.int32))
    with pytest.raises(ValueError, match="n_channels must be 1"):
        run(s, FREQ, soil_row()[None], veg_row, params, np.array([0, 1, 2], np.int32),
            n_channels=3)
    with pytest.raises(ValueError, match="mw_soil_params row 0 gives non-finite responses"):
        run(s, FREQ, soil_row(model=1, mv=0.0)[None], veg_row, params, np.array([0, 1, 2], np.int32))
    thin = params.copy()
    thin[0, 0] = 0.0
    with pytest.raises(ValueError, match="mw_trunk_params row 0: radius and length must be positive"):
        run(s, FREQ, soil_row()[None], veg_row, thin, np.array([0, 1, 2], np.int32))
    unbuilt = vk.EmbreeSceneManager()
    with pytest.raises(RuntimeError, match="scene not built"):
        run(unbuilt, FREQ, soil_row()[None], veg_row, params, np.array([0, 1, 2], np.int32))


def test_optical_medium_boundary_mapped_to_vegetation_is_the_same_volume():
    theta = np.radians(30.0)
    veg = np.array([[0.2, 0.1, 300.0]], F)
    plain = make_scene(theta, slab_height=2.0)
    medium = make_scene(theta, slab_height=2.0)
    medium.set_optical_turbid_media([0.8], [0], [1], [0.05], [-1, 0, -1])
    runs = [vk.simulate_microwave_cpu(s, FREQ, soil_row()[None], veg, None, MAP_SOIL_VEG)
            for s in (plain, medium)]
    np.testing.assert_array_equal(runs[0], runs[1])
    assert (runs[0] > 200).all()


@pytest.mark.parametrize("deg", [30.0, 60.0])
def test_a_layer_on_the_walls_of_a_repeated_tile_is_horizontally_infinite(deg):
    # A 4 m tile: the soil and the slab exactly cover it, so without repetition slanted
    # rays would leave through the slab's sides; across the walls it is an infinite layer.
    theta, height, tau, omega, tc, w = np.radians(deg), 3.0, 0.6, 0.1, 302.0, 4.0
    s = vk.EmbreeSceneManager()
    for _ in range(3):
        s.add_material(0, 0, [])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(w / 2, w / 2, 0)), w / 2, w / 2, 0.0)
    s.add_instance(s.add_mesh(**box(0, w, 0, w, 0.01, 0.01 + height), material_id=1))
    s.set_repetitive(1000, w, w)
    s.set_sensor(0, 5, 4, 3.0, 3.0, camera(theta, target=(1.31, 2.17, 0.0)))
    s.build()
    soil = soil_row(t=291.0)
    veg = np.array([[tau / height, omega, tc]], F)
    tb = vk.simulate_microwave_cpu(s, FREQ, soil[None], veg, None, MAP_SOIL_VEG)
    layer_over_soil(tb, soil, theta, tau, omega, tc)  # fails where rays leave by the sides
