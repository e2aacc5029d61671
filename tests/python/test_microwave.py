"""Microwave soil and trunk evaluators: physical checks, the entries' rules, and the
cylinder series against an independent SciPy evaluation at normal incidence."""
import numpy as np
import pytest
from scipy import special

import vesk_gpu as vk

F = np.float32


def soil(model=0, mv=0.25, h=0.0, q=0.0, s=0.01, ts=295.0, td=290.0):
    return np.array([0.3, 0.2, mv, h, 1.0, 1.5, q, ts, td, model, s, 0.0], F)


COS = np.cos(np.radians(np.arange(0, 80, 10))).astype(F)


def test_smooth_soil_emits_one_minus_reflectivity_and_v_outshines_h():
    p = soil(model=0)  # Mironov: no temperature enters the permittivity
    bt = vk._evaluate_microwave_soil(1.4e9, p, COS, False)
    refl = vk._evaluate_microwave_soil_reflectivity(1.4e9, p, COS, False)
    wt = min(min(0.25 / 0.3, 10) ** 0.3, 1.0)
    t_eff = (295 - 290) * wt + 290
    np.testing.assert_allclose(bt[:, 2:], refl, rtol=1e-6)
    np.testing.assert_allclose(bt[:, 0], (1 - refl[:, 0]) * t_eff, rtol=1e-5)
    np.testing.assert_allclose(bt[:, 1], (1 - refl[:, 1]) * t_eff, rtol=1e-5)
    assert (bt[1:, 1] > bt[1:, 0]).all(), "V brightness exceeds H away from nadir"
    np.testing.assert_allclose(bt[0, 0], bt[0, 1], rtol=1e-5)
    # Roughness lowers reflectivity and raises emission.
    rough = vk._evaluate_microwave_soil(1.4e9, soil(model=0, h=0.5), COS, False)
    assert (rough[:, 0] > bt[:, 0]).all()
    # Cosines of 0 behave as 0.001 and negative ones as their absolute value.
    edge = vk._evaluate_microwave_soil(1.4e9, p, np.array([0.0, 0.001, -0.5, 0.5], F), False)
    np.testing.assert_array_equal(edge[0], edge[1])
    np.testing.assert_array_equal(edge[2], edge[3])


def test_active_soil_models_and_cross_polarisation():
    hh, hv, vh, vv = vk._evaluate_microwave_soil(5.3e9, soil(model=1), COS, True).T
    np.testing.assert_array_equal(hv, vh)
    assert (vv >= hh).all() and (hv < vv).all()
    assert (np.diff(vv) < 0).all(), "backscatter falls with incidence angle"
    # Code 2: Hallikainen when active, Dobson in the passive model.
    active2 = vk._evaluate_microwave_soil(5.3e9, soil(model=2), COS, True)
    active1 = vk._evaluate_microwave_soil(5.3e9, soil(model=1), COS, True)
    assert not np.allclose(active2, active1)
    np.testing.assert_array_equal(vk._evaluate_microwave_soil(5.3e9, soil(model=2), COS, False),
                                  vk._evaluate_microwave_soil(5.3e9, soil(model=1), COS, False))
    refl = vk._evaluate_microwave_soil_reflectivity
    assert not np.allclose(refl(5.3e9, soil(model=2), COS, True),
                           refl(5.3e9, soil(model=2), COS, False))
    # A perfectly smooth surface is clamped to ks = 0.1, so it still returns something.
    assert (vk._evaluate_microwave_soil(5.3e9, soil(model=1, s=0.0), COS, True)[:, 3] > 0).all()


def test_trunk_and_double_bounce():
    trunk = lambda mv, axis=(0, 0, 1), r=0.15: np.array([r, 6.0, mv, 295.0, *axis], F)
    t = vk._evaluate_microwave_trunk(1.4e9, trunk(0.5), COS)
    np.testing.assert_allclose(t[:, 0], (1 - t[:, 2]) * 295.0, rtol=1e-5)
    d_in = np.array([[0.7, 0.0, -0.714], [0.5, 0.4, -0.768]], F)
    d_out = np.array([[0.7, 0.0, -0.714], [-0.2, 0.6, -0.774]], F)
    n = np.tile(np.array([0, 0, 1], F), (2, 1))
    s = soil(model=1)
    # A thin stem (ka ~ 0.6, near the Rayleigh regime) scatters with the permittivity
    # contrast: dry wood much less than wet. Thick trunks resonate, and need not.
    dry = vk._evaluate_microwave_trunk_ground(1.4e9, s, trunk(0.05, r=0.02), d_in, d_out, n)
    wet = vk._evaluate_microwave_trunk_ground(1.4e9, s, trunk(0.4, r=0.02), d_in, d_out, n)
    assert dry.shape == (2, 2) and np.isfinite(wet).all()
    assert (wet > 2 * dry).all(), "a wet stem scatters more than a dry one"
    leaning = vk._evaluate_microwave_trunk_ground(1.4e9, s, trunk(0.5, (0.3, 0.1, 0.95)),
                                                  d_in, d_out, n)
    assert np.isfinite(leaning).all()


def test_entry_rules_and_messages():
    p = soil()
    longer = np.concatenate([p, [7.0, 8.0]]).astype(F)
    np.testing.assert_array_equal(vk._evaluate_microwave_soil(1e9, longer, COS, False),
                                  vk._evaluate_microwave_soil(1e9, p, COS, False))
    bad = [
        (lambda: vk._evaluate_microwave_soil(1e9, p[:11], COS, False),
         "soil parameters must be a 1D array with 12 values"),
        (lambda: vk._evaluate_microwave_soil_reflectivity(1e9, p.reshape(3, 4), COS, True),
         "soil parameters must be a 1D array with 12 values"),
        (lambda: vk._evaluate_microwave_soil(1e9, p, COS.reshape(2, 4), True),
         "cosines must be a 1D array"),
        (lambda: vk._evaluate_microwave_trunk(1e9, np.zeros(6, F), COS),
         "trunk parameters must be a 1D array with 7 values"),
        (lambda: vk._evaluate_microwave_trunk_ground(1e9, p, np.zeros(7, F), np.zeros((2, 3), F),
                                                     np.zeros((3, 3), F), np.zeros((2, 3), F)),
         "direction and normal arrays must all have shape (N, 3)"),
    ]
    for call, text in bad:
        with pytest.raises(RuntimeError) as e:
            call()
        assert str(e.value) == text


@pytest.mark.parametrize("x", [0.4, 3.0, 18.0, 40.0])
def test_cylinder_series_matches_scipy_at_normal_incidence(x):
    # Bohren and Huffman's normal-incidence coefficients, evaluated with SciPy's Bessel
    # functions, summed far past convergence.
    eps = 8.0 + 2.5j
    m = np.sqrt(eps)
    n = np.arange(0, int(x + 4 * x ** (1 / 3) + 40))
    jx, jpx = special.jv(n, x), special.jvp(n, x)
    hx, hpx = special.hankel1(n, x), special.h1vp(n, x)
    jm, jpm = special.jv(n, m * x), special.jvp(n, m * x)
    b = (jm * jpx - m * jpm * jx) / (jm * hpx - m * jpm * hx)
    a = (m * jpx * jm - jx * jpm) / (m * jm * hpx - jpm * hx)
    radius = 0.1
    freq = x / radius * 2.998e8 / (2 * np.pi)
    for phi in (0.0, 0.7, np.pi):
        t1 = b[0] + 2 * np.sum(b[1:] * np.cos(n[1:] * phi))
        t2 = a[0] + 2 * np.sum(a[1:] * np.cos(n[1:] * phi))
        got = vk._microwave_cylinder_amplitude(freq, radius, eps, 0.0, 0.0, phi)
        np.testing.assert_allclose(got[0, 0], t1, rtol=1e-8, atol=1e-12)
        np.testing.assert_allclose(got[1, 1], t2, rtol=1e-8, atol=1e-12)
        assert abs(got[0, 1]) < 1e-12 and abs(got[1, 0]) < 1e-12


def test_dobson_sandy_soil_stays_finite():
    # Sand-rich, clay-poor: the regression's effective conductivity would go negative.
    sandy = soil(model=1)
    sandy[0], sandy[1], sandy[2] = 0.7, 0.1, 0.2
    bt = vk._evaluate_microwave_soil(1.4e9, sandy, COS, False)
    sigma = vk._evaluate_microwave_soil(1.4e9, sandy, COS, True)
    assert np.isfinite(bt).all() and (bt[:, :2] > 50).all() and (bt[:, :2] < 300).all()
    assert (sigma[:, 0] > 0).all(), "a finite soil must backscatter"
