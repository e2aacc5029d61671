"""Energy-balance transports and the processes that couple leaf temperatures through them."""
import numpy as np
import pytest
from scipy.optimize import brentq

import vesk_gpu as vk
from conftest import scene_state

F = np.float32
SIGMA = 5.6703744e-08


def leaf(z=0.0, tilt=0.0, size=1.0, flip=False):
    """A square leaf facing up (down if flipped), tilted about the x axis by `tilt`."""
    c, s = np.cos(tilt), np.sin(tilt)
    v = np.array([[0, 0, 0], [size, 0, 0], [size, size * c, size * s], [0, size * c, size * s]], F)
    v[:, 2] += z
    i = np.array([[0, 1, 2], [0, 2, 3]], np.int32)
    return v, (i[:, ::-1].copy() if flip else i)


def scene_of(*meshes, reps=0, tile=1.0):
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([0.5], F))
    m = s.add_material(0, 0, [0.0, 0.0, 300.0])
    for v, i in meshes:
        s.add_instance(s.add_mesh(v, np.zeros((0, 3), F), i, m))
    if reps:
        s.set_repetitive(reps, tile, tile)
    s.build()
    return s


def sun(zenith):
    return dict(sun_dir_x=0.0, sun_dir_y=-np.sin(zenith), sun_dir_z=np.cos(zenith))


@pytest.mark.parametrize("tilt", [0.0, 0.5, 1.2])
def test_a_lone_leaf_receives_sky_and_sun_exactly(tilt):
    s = scene_of(leaf(tilt=tilt))
    E, L = 800.0, 30.0
    # The sun stands in the plane of the tilt, at zenith: the leaf's normal leans away by tilt.
    top, bot = vk.run_energy_balance_cpu(s, n_samples=16, sun_irradiance=E,
                                         sky_diffuse_radiance=L, sun_dir_x=0.0)
    np.testing.assert_allclose(top, E * np.cos(tilt) + np.pi * L, rtol=1e-5)
    np.testing.assert_allclose(bot, np.pi * L, rtol=1e-5)
    top, bot, lit = vk.run_energy_balance_multiband_cpu(
        s, 2, n_samples=16, sun_irradiance=np.array([E, 2 * E], F),
        sky_diffuse_radiance=np.array([L, 0], F))
    np.testing.assert_allclose(top, [[E * np.cos(tilt) + np.pi * L] * 2, [2 * E * np.cos(tilt)] * 2],
                               rtol=1e-5)
    np.testing.assert_allclose(bot, [[np.pi * L] * 2, [0, 0]], atol=1e-3)
    np.testing.assert_array_equal(lit, 1.0)
    # No sun given: nothing is sunlit, even in full light.
    assert not vk.run_energy_balance_multiband_cpu(s, 1, sky_diffuse_radiance=np.ones(1, F))[2].any()


def test_a_shaded_leaf_gets_no_direct_sun_and_is_not_sunlit():
    roof = leaf(z=1.0, size=3.0)
    roof[0][:, :2] -= 1.0
    s = scene_of(leaf(), roof)
    top, bot, lit = vk.run_energy_balance_multiband_cpu(s, 1, n_samples=64,
                                                        sun_irradiance=np.array([900], F))
    # The leaf (first two primitives) sees only a black roof and a sunless sky.
    np.testing.assert_array_equal(top[0, :2], 0.0)
    np.testing.assert_array_equal(lit, [0, 0, 1, 1])
    np.testing.assert_allclose(top[0, 2:], 900, rtol=1e-6)
    # Half the sky is cut: the sky from below still reaches the underside in full.
    t1, b1 = vk.run_energy_balance_cpu(s, n_samples=64, sky_diffuse_radiance=10.0)
    np.testing.assert_allclose(b1[:2], 10 * np.pi, rtol=1e-5)
    assert (t1[:2] < 0.5 * 10 * np.pi).all(), "a roof 1 m above a 1 m leaf hides most of its sky"


def test_a_closed_isothermal_cavity_returns_its_own_emission():
    g = vk.make_sphere(2.0, [0.0, 0.0, 0.0], 2)
    inward = g["indices"][:, ::-1].copy()
    s = scene_of((g["vertices"], inward))
    n = s.n_primitives()
    T, e = 310.0, 0.9
    s.set_primitive_temperatures(np.full(n, T, F))
    s.set_primitive_emissivities(np.full(n, e, F))
    top, _ = vk.run_energy_balance_cpu(s, n_samples=8, band_type=1, sky_lw_radiance=1000.0)
    np.testing.assert_allclose(top, e * SIGMA * T**4, rtol=1e-5)


def test_infinite_parallel_plates_exchange_sigma_delta_t4():
    T1, T2 = 320.0, 280.0
    s = scene_of(leaf(size=4.0), leaf(z=0.5, size=4.0, flip=True), reps=100, tile=4.0)
    s.set_primitive_temperatures(np.array([T1, T1, T2, T2], F))
    s.set_primitive_emissivities(np.ones(4, F))
    top, _ = vk.run_energy_balance_cpu(s, n_samples=2000, band_type=1)
    net_lower = top[:2] - SIGMA * T1**4
    np.testing.assert_allclose(net_lower, SIGMA * (T2**4 - T1**4), rtol=0.01)
    np.testing.assert_allclose(top[2:] - SIGMA * T2**4, SIGMA * (T1**4 - T2**4), rtol=0.01)


def test_white_furnace_conserves_energy():
    # Leaves that absorb nothing, in a uniform sky: the radiance is L everywhere, so every
    # side of every leaf receives pi L, however the walks scatter between them.
    meshes = [leaf(z=0.3 * k, tilt=0.4 * k) for k in range(4)]
    s = scene_of(*meshes)
    n, L = s.n_primitives(), 5.0
    r = np.array([[0.3] * n, [0.9] * n], F)
    top, bot, _ = vk.run_energy_balance_multiband_cpu(
        s, 2, n_samples=3000, max_depth=200, sky_diffuse_radiance=np.array([L, L], F),
        sw_reflectance=r, sw_back_reflectance=r, sw_transmittance=1 - r)
    for side in (top, bot):
        np.testing.assert_allclose(side, np.pi * L, rtol=0.03)


def test_transports_do_not_depend_on_the_thread_count(monkeypatch):
    s = scene_of(*[leaf(z=0.3 * k, tilt=0.5 * k) for k in range(3)])
    n = s.n_primitives()
    s.set_primitive_temperatures(np.linspace(280, 320, n).astype(F))
    runs = []
    for threads in ("1", "3"):
        monkeypatch.setenv("VESK_NUM_THREADS", threads)
        runs.append(vk.run_energy_balance_cpu(s, n_samples=32, band_type=1, sky_lw_radiance=90.0)
                    + vk.run_energy_balance_multiband_cpu(
                        s, 1, sun_irradiance=np.ones(1, F), **sun(0.6),
                        sw_albedos=np.full(n, 0.4, F), sky_diffuse_radiance=np.ones(1, F)))
    for a, b in zip(*runs):
        np.testing.assert_array_equal(a, b)


@pytest.mark.parametrize("kwargs, error, text", [
    (dict(n_samples=0, band_type=3), ValueError, "run_energy_balance: n_samples must be > 0"),
    (dict(band_type=2), ValueError, "band_type must be 0 (shortwave) or 1 (longwave)"),
    (dict(sw_albedos=np.ones((2, 1), F)), ValueError, "sw_albedos must be 1D (flattened"),
    (dict(sw_albedos=np.ones(3, F)), ValueError, "sw_albedos must have n_primitives values"),
    (dict(sky_diffuse_radiance=-1.0), ValueError, "sky_diffuse_radiance contains a negative"),
    # A NaN is refused by name even where no sun would read it.
    (dict(sun_dir_y=float("nan")), ValueError, "sun_dir_y contains a non-finite value"),
])
def test_single_band_refusals(kwargs, error, text):
    with pytest.raises(error, match=text.replace("(", r"\(").replace(")", r"\)")):
        vk.run_energy_balance_cpu(scene_of(leaf()), **kwargs)


@pytest.mark.parametrize("kwargs, text", [
    (dict(max_depth=0, n_samples=0, n_bands=0), "max_depth must be > 0"),
    (dict(n_samples=0, n_bands=0), "n_samples must be > 0"),
    (dict(n_bands=0), "n_bands must be > 0"),
    (dict(n_bands=65), "n_bands must be <= 64"),
    (dict(sw_reflectance=np.ones(3, F), sw_back_reflectance=np.ones(3, F),
          sw_transmittance=np.ones(3, F), sw_albedos=np.ones(3, F)),
     "sw_reflectance, sw_back_reflectance and sw_transmittance must have"),
    (dict(sw_albedos=np.ones(3, F), sky_directional_table=np.ones(3, F)),
     "sw_albedos must have n_bands \\* n_primitives values"),
    (dict(sky_directional_table=np.ones(3, F)), "directional sky must have n_bands \\* 16 \\* 32"),
    (dict(sw_reflectance=np.ones(2, F)), "split Mesh optics require sw_reflectance"),
    (dict(sun_dir_z=float("inf"), sky_diffuse_radiance=np.ones(1, F)),
     "sun_dir_z contains a non-finite value"),
])
def test_multiband_refusals_in_order(kwargs, text):
    kwargs = dict(dict(n_bands=1), **kwargs)
    with pytest.raises(ValueError, match=text):
        vk.run_energy_balance_multiband_cpu(scene_of(leaf()), **kwargs)


def test_unbuilt_and_empty_scenes_are_refused():
    s = vk.EmbreeSceneManager()
    with pytest.raises(RuntimeError, match="run_energy_balance: scene has 0 primitives"):
        vk.run_energy_balance_cpu(s)
    v, i = leaf()
    s.add_instance(s.add_mesh(v, np.zeros((0, 3), F), i, 0))
    with pytest.raises(RuntimeError, match=r"EB RRT: scene has no geometry. Call scene.build\(\)"):
        vk.run_energy_balance_cpu(s)
    with pytest.raises(RuntimeError, match="EB multiband RRT: scene has no geometry"):
        vk.run_energy_balance_multiband_cpu(s, 1, sky_diffuse_radiance=np.ones(1, F))


# ---------------------------------------------------------------- the coupled processes

def eb_request(n=2, n_materials=1, **over):
    per = lambda v: np.full(n_materials, v, F)
    r = dict(primitive_material_ids=np.zeros(n, np.int32), material_active=np.ones(n_materials, np.uint8),
             material_initial_temperature=per(290), material_emissivity=per(0.95),
             material_sidedness=per(2), material_sensible_derivative=per(15),
             material_latent_coefficient=per(0.02), material_ground_heat=per(5),
             material_sw_albedo=per(0.2), air_temperature=297.0, vapor_pressure=1400.0,
             sky_lw_radiance=105.0, n_samples=16, convergence_tolerance=1e-3)
    r.update(over)
    return r


def es(T):
    t = T - 273.15
    return 610.78 * np.exp(17.27 * t / (t + 237.3))


def test_an_isolated_leaf_reaches_the_root_of_its_balance():
    s = scene_of(leaf())
    sw = 450.0
    r = vk.execute_energy_balance_process_cpu(
        s, eb_request(precomputed_shortwave=True, absorbed_shortwave_top=np.full(2, sw, F),
                      absorbed_shortwave_bottom=np.zeros(2, F)))
    e, L = 0.95, 105.0
    lw = 2 * e * np.pi * L  # both sides see only sky
    f = lambda T: sw + lw - 2 * e * SIGMA * T**4 - 15 * (T - 297) - 0.02 * (es(T) - 1400) - 5
    T = brentq(f, 250, 350)
    assert r["converged"] and r["element_converged"].all()
    np.testing.assert_allclose(r["temperature"], T, atol=5e-3)
    np.testing.assert_allclose(r["absorbed_longwave"], lw, rtol=1e-5)
    np.testing.assert_allclose(
        r["net_radiation"] - r["sensible_heat"] - r["latent_heat"] - r["ground_heat"], 0, atol=0.05)
    # The scene keeps the solved temperatures and the emissivities of the request.
    np.testing.assert_array_equal(s.get_primitive_temperatures(), r["temperature"])
    np.testing.assert_allclose(s.get_primitive_emissivities(), 0.95)


@pytest.mark.parametrize("over, iterations, converged", [
    # The first change is below the tolerance: closure, final block, one round.
    (dict(max_iterations=1, material_initial_temperature=None), 1, True),
    # Heavy damping from far away never gets below the tolerance in two rounds.
    (dict(max_iterations=2, damping=0.05, material_initial_temperature=np.full(1, 250, F)), 2, False),
    # Nothing active: every change is 0 and the first round closes.
    (dict(material_active=np.zeros(1, np.uint8)), 1, True),
    # Nothing couples the leaf to anything: Newton has no slope, T stays and converges.
    (dict(material_emissivity=np.zeros(1, F), material_sensible_derivative=np.zeros(1, F),
          material_latent_coefficient=np.zeros(1, F)), 1, True),
])
def test_coupling_loop_edge_cases(over, iterations, converged):
    s = scene_of(leaf())
    if over.get("material_initial_temperature", 0) is None:
        over["material_initial_temperature"] = np.full(
            1, vk.execute_energy_balance_process_cpu(s, eb_request())["temperature"][0], F)
    r = vk.execute_energy_balance_process_cpu(s, eb_request(**over))
    assert r["iterations"] == iterations and r["converged"] == converged
    assert len(r["history"]) == iterations
    assert r["history"][-1]["max_dT"] == pytest.approx(r["final_max_temperature_change"])
    if not r["active_mask"].any():
        np.testing.assert_array_equal(r["temperature"], 290)
        assert not r["net_radiation"].any() and not r["emitted_longwave"].any()
    if over.get("damping") == 0.05:
        assert r["final_max_temperature_change"] > 1e-3 and not r["converged"]


@pytest.mark.parametrize("over, error, text", [
    (dict(primitive_material_ids=np.zeros(3, np.int32)), ValueError,
     "energy balance element count must match the scene"),
    (dict(material_emissivity=np.full(1, np.nan, F), damping=2.0), ValueError,
     "emissivity contains a non-finite value"),
    (dict(damping=2.0, material_sidedness=np.full(1, 3, F)), ValueError,
     "energy balance scalar is outside its domain"),
    (dict(sun_dir_z=np.inf), ValueError, "energy balance scalar must be finite"),
    # Integers that do not fit are refused, never wrapped to a valid id or count.
    (dict(primitive_material_ids=np.array([0, 2**32])), ValueError, "must hold whole numbers in"),
    (dict(material_active=np.array([257])), ValueError, r"must hold whole numbers in \[0, 255\]"),
    (dict(max_iterations=2**31), ValueError, r"request\['max_iterations'\] must lie in"),
    (dict(material_sidedness=np.full(1, 3, F)), ValueError,
     "energy balance element is outside its domain"),
    (dict(precomputed_shortwave=True, absorbed_shortwave_top=np.ones(2, F),
          absorbed_shortwave_bottom=np.ones(1, F)), ValueError,
     "absorbed_shortwave_bottom buffer length mismatch"),
])
def test_energy_balance_refusals_leave_the_scene_unchanged(over, error, text):
    s = scene_of(leaf())
    s.set_primitive_temperatures(np.full(2, 301, F))
    before = scene_state(s)
    with pytest.raises(error, match=text):
        vk.execute_energy_balance_process_cpu(s, eb_request(**over))
    assert scene_state(s) == before


def dyn_request(n, **over):
    full = lambda v: np.full(n, v, F)
    r = dict(active=np.ones(n, np.uint8), fluorescent=np.ones(n, np.uint8), apar=full(1200),
             absorbed_shortwave=full(450), initial_temperature=full(295), emissivity=full(0.97),
             sidedness=full(2), leaf_width=full(0.05), stomata_sides=full(1), vcmax25=full(60),
             jmax25=full(120), rd25=full(1), ball_berry_slope=full(9),
             ball_berry_intercept=full(0.01), quantum_yield=full(0.03), co2=400.0,
             relative_humidity=0.6, air_temperature=298.0, vapor_pressure=1500.0, pressure=101.3,
             wind=1.5, sky_lw_radiance=110.0, n_samples=16, convergence_tolerance=1e-3)
    r.update(over)
    return r


@pytest.fixture(scope="module")
def canopy():
    return scene_of(*[leaf(z=0.4 * k, tilt=0.3 * k) for k in range(4)])


def test_dynamic_photosynthesis_closes_the_balance_and_answers_to_the_air(canopy):
    n = canopy.n_primitives()
    r = vk.execute_photosynthesis_process_dynamic_cpu(canopy, dyn_request(n))
    assert r["converged"] and r["element_converged"].all()
    closure = r["net_radiation"] - r["sensible_heat"] - r["latent_heat"]
    assert np.abs(closure).max() < 0.5, f"converged leaves must balance, residual {closure}"
    assert (r["an"] > 0).all() and (r["phi_f"] > 0).all()
    warm = vk.execute_photosynthesis_process_dynamic_cpu(canopy, dyn_request(n, air_temperature=303.0))
    assert (warm["temperature"] > r["temperature"] + 2).all(), "warmer air must warm the leaves"
    shut = vk.execute_photosynthesis_process_dynamic_cpu(
        canopy, dyn_request(n, ball_berry_slope=np.zeros(n, F), ball_berry_intercept=np.full(n, 1e-4, F)))
    assert (shut["temperature"] > r["temperature"] + 1).all(), "closed stomata must warm the leaves"
    assert (shut["latent_heat"] < 0.1 * r["latent_heat"]).all()


def test_dynamic_branches_inactive_elements_and_threads(canopy, monkeypatch):
    n = canopy.n_primitives()
    active = np.ones(n, np.uint8)
    active[0] = 0
    f = np.linspace(0, 1, n).astype(F)
    req = dyn_request(n, active=active, emissivity=np.where(active, 0.97, 0).astype(F),
                       conditional=True, sunlit_fraction=f, apar_sunlit=np.full(n, 1500, F),
                       apar_shaded=np.full(n, 200, F), shortwave_sunlit=np.full(n, 500, F),
                       shortwave_shaded=np.full(n, 80, F))
    runs = []
    for threads in ("1", "2"):
        monkeypatch.setenv("VESK_NUM_THREADS", threads)
        runs.append(vk.execute_photosynthesis_process_dynamic_cpu(canopy, req))
    for k in ("temperature", "an", "absorbed_longwave", "latent_heat"):
        np.testing.assert_array_equal(runs[0][k], runs[1][k], err_msg=k)
    r = runs[0]
    # An inactive element keeps its temperature, reports no leaf fluxes, still emits.
    assert r["temperature"][0] == 295 and r["an"][0] == 0 and r["emitted_longwave"][0] == 0
    assert not r["active_mask"][0] and r["emitted_longwave"][1] > 0
    blend = f * r["an_sunlit"] + (1 - f) * r["an_shaded"]
    np.testing.assert_allclose(r["an"][1:], blend[1:], rtol=1e-6)
    assert r["an"][-1] == r["an_sunlit"][-1], "f = 1 is the sunlit branch alone"


@pytest.mark.parametrize("over, text", [
    (dict(apar=np.ones(3, F), co2=np.nan), "apar buffer length mismatch"),
    (dict(co2=np.nan, damping=0.0), "dynamic photosynthesis scalar must be finite"),
    (dict(damping=0.0), "dynamic photosynthesis scalar is outside its domain"),
    (dict(sidedness=np.full(8, 3, F)), "dynamic photosynthesis element is outside its domain"),
    (dict(conditional=True, sunlit_fraction=np.full(8, 2, F), apar_sunlit=np.ones(8, F),
          apar_shaded=np.ones(8, F), shortwave_sunlit=np.ones(8, F), shortwave_shaded=np.ones(8, F)),
     "conditional photosynthesis input is outside its domain"),
    (dict(emissivity=np.zeros(8, F)), "dynamic physiology input is outside its physical domain"),
])
def test_dynamic_refusals_leave_the_scene_unchanged(canopy, over, text):
    before = scene_state(canopy)
    with pytest.raises(ValueError, match=text):
        vk.execute_photosynthesis_process_dynamic_cpu(canopy, dyn_request(8, **over))
    assert scene_state(canopy) == before


def test_energy_balance_process_takes_per_element_arrays_as_well_as_per_material():
    s = scene_of(leaf())
    n = s.n_primitives()
    by_material = eb_request(n, n_materials=2, n_samples=4, max_iterations=3,
                             primitive_material_ids=np.arange(n, dtype=np.int32) % 2,
                             material_emissivity=np.array([0.95, 0.9], F))
    ids = by_material["primitive_material_ids"]
    by_element = {k[len("material_"):] if k.startswith("material_") else k: v
                  for k, v in by_material.items() if k != "primitive_material_ids"}
    by_element = {k: (v[ids] if k in ("active", "initial_temperature", "emissivity", "sidedness",
                                      "sensible_derivative", "latent_coefficient", "ground_heat",
                                      "sw_albedo") else v) for k, v in by_element.items()}
    a = vk.execute_energy_balance_process_cpu(s, by_material)
    b = vk.execute_energy_balance_process_cpu(s, {**by_element, "n_elements": n})
    for key in ("temperature", "net_radiation", "absorbed_longwave", "element_converged"):
        np.testing.assert_array_equal(a[key], b[key], err_msg=key)
    with pytest.raises(ValueError, match=r"^request\['emissivity'\] is per element, but "):
        vk.execute_energy_balance_process_cpu(s, {**by_material, "emissivity": by_element["emissivity"]})
