"""solve_physiology_cpu: the dictionary rules, shapes and outputs of the leaf solver."""
import numpy as np
import pytest

import vesk_gpu as vk

F = np.float32


def leaf_request(n=4, bands=2, energy=False):
    full = lambda v: np.full(n, v, F)
    r = dict(apar=np.full((n, bands), 250.0, F), temperature=full(298.15), co2=full(400),
             relative_humidity=full(0.65), vpd=full(1.0), pressure=full(101.3), wind=full(2.0),
             vcmax25=full(55), jmax25=full(110), rd25=full(1.0), ball_berry_slope=full(9),
             ball_berry_intercept=full(0.01), quantum_yield=full(0.03), max_iterations=80,
             tolerance=1e-4)
    if energy:
        r.update(dynamic_energy_balance=True, absorbed_shortwave=full(300),
                 absorbed_longwave=full(360), air_temperature=full(297), vapor_pressure=full(1600),
                 emissivity=full(0.96), sidedness=full(2), leaf_width=full(0.04),
                 stomata_sides=full(1))
    return r


def test_outputs_with_and_without_the_energy_balance():
    scene = vk.EmbreeSceneManager()
    plain = vk.solve_physiology_cpu(scene, leaf_request())
    assert set(plain) == {"an", "gs", "ci", "phi_f", "converged", "_execution"}
    assert plain["converged"].dtype == np.bool_ and plain["an"].dtype == np.float32
    assert plain["_execution"]["workflow"] == "physiology_solver"
    eb = vk.solve_physiology_cpu(scene, leaf_request(energy=True))
    assert {"temperature", "net_radiation", "sensible_heat", "latent_heat"} <= set(eb)
    assert eb["converged"].all()
    closure = eb["net_radiation"] - eb["sensible_heat"] - eb["latent_heat"]
    np.testing.assert_allclose(closure, 0.0, atol=0.05)
    # Only the band sum matters: the same light split differently gives the same leaf.
    split = leaf_request(bands=5)
    split["apar"] = np.tile(np.array([100, 200, 100, 50, 50], F), (4, 1))
    np.testing.assert_array_equal(vk.solve_physiology_cpu(scene, split)["an"], plain["an"])
    # float64 input is narrowed, not refused; `dynamic_energy_balance: False` is the default.
    r = {k: (v.astype(np.float64) if isinstance(v, np.ndarray) else v)
         for k, v in leaf_request().items()}
    r["dynamic_energy_balance"] = False
    np.testing.assert_array_equal(vk.solve_physiology_cpu(scene, r)["gs"], plain["gs"])


def test_shape_rules_and_validator_messages():
    scene = vk.EmbreeSceneManager()
    r = leaf_request()
    r["apar"] = r["apar"].ravel()
    with pytest.raises(RuntimeError, match=r"^apar must have shape \[element, band\]$"):
        vk.solve_physiology_cpu(scene, r)
    r = leaf_request()
    r["temperature"] = np.full(3, 300, F)
    with pytest.raises(RuntimeError, match=r"^temperature must have shape \[element\] matching apar$"):
        vk.solve_physiology_cpu(scene, r)
    r = leaf_request()
    r["wind"] = np.full(5, 1, F)
    with pytest.raises(ValueError, match="^wind buffer length mismatch$"):
        vk.solve_physiology_cpu(scene, r)
    r = leaf_request()
    r["co2"][2] = np.nan
    with pytest.raises(ValueError, match="^co2 contains a non-finite value$"):
        vk.solve_physiology_cpu(scene, r)
    r = leaf_request()
    r["tolerance"] = 0.0
    with pytest.raises(ValueError, match="^tolerance must be finite and positive$"):
        vk.solve_physiology_cpu(scene, r)
    r = leaf_request(energy=True)
    del r["stomata_sides"]
    with pytest.raises(KeyError):
        vk.solve_physiology_cpu(scene, r)


def test_a_converged_temperature_is_kept_as_it_stands():
    # Start Newton at its own answer: the first step is within tolerance, so the element
    # has converged and its temperature must come back bit for bit.
    scene = vk.EmbreeSceneManager()
    first = vk.solve_physiology_cpu(scene, leaf_request(energy=True))
    again = leaf_request(energy=True)
    again["temperature"] = first["temperature"]
    second = vk.solve_physiology_cpu(scene, again)
    assert second["converged"].all()
    np.testing.assert_array_equal(second["temperature"], first["temperature"])


def test_solve_leaf_temperature_false_gives_the_fluxes_at_the_given_temperature():
    scene = vk.EmbreeSceneManager()
    solved = vk.solve_physiology_cpu(scene, leaf_request(energy=True))
    held = leaf_request(energy=True)
    held.update(solve_leaf_temperature=False, read_back_outputs=True)
    fixed = vk.solve_physiology_cpu(scene, held)
    np.testing.assert_array_equal(fixed["temperature"], held["temperature"])
    # Away from its balance the leaf does not close it; at the solved temperature it does.
    residual = fixed["net_radiation"] - fixed["sensible_heat"] - fixed["latent_heat"]
    assert np.abs(residual).min() > 1.0, "the given temperature is not the balance"
    held["temperature"] = solved["temperature"]
    at_root = vk.solve_physiology_cpu(scene, held)
    np.testing.assert_allclose(at_root["net_radiation"], solved["net_radiation"], rtol=1e-5)
