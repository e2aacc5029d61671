"""execute_photosynthesis_process_static_cpu: light accounting, the sunlit and shaded
leaves, material flags and the validator's order."""
import numpy as np
import pytest

import vesk_gpu as vk
from test_physiology import leaf_request

F = np.float32
# Materials: 0 an ordinary leaf, 1 the same leaf without fluorescence, 2 inactive.
LEAF = dict(vcmax25=55.0, jmax25=110.0, rd25=1.0, ball_berry_slope=9.0,
            ball_berry_intercept=0.01, quantum_yield=0.03)


def photosynthesis_request(n=5, wavelengths=(450.0, 550.0, 650.0, 850.0)):
    top = np.full((n, len(wavelengths)), 40.0, F)
    return dict(absorbed_top=top, absorbed_bottom=top * F(0.25), absorbed_direct=top * F(0.8),
                wavelengths=np.array(wavelengths, F), sunlit_fraction=np.full(n, 0.6, F),
                material_ids=np.zeros(n, np.int32), material_active=np.array([1, 1, 0], np.uint8),
                material_fluorescent=np.array([1, 0, 1], np.uint8),
                temperature_sunlit=np.full(n, 301.0, F), temperature_shaded=np.full(n, 297.0, F),
                **{k: np.full(3, v, F) for k, v in LEAF.items()},
                co2=400.0, relative_humidity=0.65, max_iterations=80, tolerance=1e-4)


def run(request):
    return vk.execute_photosynthesis_process_static_cpu(vk.EmbreeSceneManager(), request)


def test_band_energy_counts_as_photons_inside_400_to_700_nm_only():
    # Element i receives 1 W m-2 in band i alone, on the top side, none of it direct.
    bands = [399.9, 400.0, 550.0, 700.0, 700.1]
    r = photosynthesis_request(n=5, wavelengths=bands)
    r.update(absorbed_top=np.eye(5, dtype=F), absorbed_bottom=np.zeros((5, 5), F),
             absorbed_direct=np.zeros((5, 5), F))
    out = run(r)
    # A mole of photons at wavelength w carries N_A h c / w joules.
    umol_per_joule = np.array(bands) * 1e-9 / (6.02214076e23 * 6.62607015e-34 * 299792458) * 1e6
    expected = np.where([0, 1, 1, 1, 0], umol_per_joule, 0.0)
    np.testing.assert_allclose(out["apar"], expected, rtol=1e-5)
    assert out["apar"][2] == pytest.approx(4.598, abs=5e-4), "1 W m-2 at 550 nm"
    np.testing.assert_array_equal(out["apar_shaded"], out["apar"], "no direct light: all shade")
    assert set(out) == {"temperature", "an", "gs", "phi_f", "apar", "temperature_sunlit",
                        "temperature_shaded", "sunlit_fraction", "apar_sunlit", "apar_shaded",
                        "an_sunlit", "an_shaded", "active_mask", "converged", "_execution"}
    assert out["active_mask"].dtype == np.bool_ and out["converged"].dtype == np.bool_
    assert out["_execution"]["executor"] == "embree.cpu.photosynthesis_process_static"


@pytest.mark.parametrize("f, branch", [(1.0, "sunlit"), (0.0, "shaded")])
def test_a_pure_sunlit_or_shaded_element_is_that_leaf_alone(f, branch):
    r = photosynthesis_request()
    r["sunlit_fraction"][:] = f
    out = run(r)
    leaf_temperature = r[f"temperature_{branch}"]
    np.testing.assert_array_equal(out["temperature"], leaf_temperature)
    np.testing.assert_array_equal(out["an"], out[f"an_{branch}"])
    # The same leaf through the leaf solver, given the branch's light in one band.
    n = leaf_temperature.size
    leaf = leaf_request(n=n, bands=1)
    leaf.update({k: np.full(n, v, F) for k, v in LEAF.items()}, co2=np.full(n, 400.0, F),
                relative_humidity=np.full(n, 0.65, F), temperature=leaf_temperature,
                apar=out[f"apar_{branch}"][:, None], max_iterations=80, tolerance=1e-4)
    alone = vk.solve_physiology_cpu(vk.EmbreeSceneManager(), leaf)
    for key in ("an", "gs", "phi_f", "converged"):
        np.testing.assert_array_equal(out[key], alone[key], key)
    assert (out["apar_sunlit"] > out["apar_shaded"]).all(), "the sunlit leaf gets the beam"


def test_material_flags_decide_activity_and_fluorescence():
    r = photosynthesis_request(n=4)
    r["material_ids"] = np.array([0, 1, 2, -1], np.int32)
    r["sunlit_fraction"] = np.array([0.6, 0.6, 0.3, 0.9], F)
    out = run(r)
    np.testing.assert_array_equal(out["active_mask"], [True, True, False, False])
    np.testing.assert_array_equal(out["converged"], [True, True, False, False])
    # Without fluorescence the leaf photosynthesises just the same but yields nothing.
    assert out["phi_f"][0] > 0 and out["phi_f"][1] == 0
    assert out["an"][0] == out["an"][1] > 0
    # Inactive elements (inactive material, no material) keep only their temperatures.
    f = r["sunlit_fraction"][2:]
    np.testing.assert_allclose(out["temperature"][2:], f * 301.0 + (1 - f) * 297.0, rtol=1e-6)
    np.testing.assert_array_equal(out["sunlit_fraction"][2:], f)
    for key in ("an", "gs", "phi_f", "apar", "apar_sunlit", "apar_shaded", "an_sunlit",
                "an_shaded"):
        np.testing.assert_array_equal(out[key][2:], 0.0, key)


def test_a_direct_beam_beyond_the_sunlit_share_leaves_the_shade_dark():
    r = photosynthesis_request()
    r["sunlit_fraction"][:] = 1.0
    r["absorbed_direct"] = r["absorbed_top"] * F(2.0)  # more than top + bottom
    r["temperature_shaded"][:] = 298.15
    out = run(r)
    np.testing.assert_array_equal(out["apar_shaded"], 0.0)
    np.testing.assert_allclose(out["apar_sunlit"], out["apar"] * 2 / 1.25, rtol=1e-6)
    # A dark leaf at 25 C respires at its rate at 25 C.
    np.testing.assert_allclose(out["an_shaded"], -LEAF["rd25"], rtol=1e-6)


def nan_first(a):
    a = a.copy()
    a.flat[0] = np.nan
    return a


# (changes to a valid request, the error); two faults at once pin which is checked first.
REFUSALS = [
    (lambda r: dict(absorbed_top=r["absorbed_top"].ravel()), RuntimeError,
     r"absorbed_top must have shape \[element, band\], or be flat with 'n_elements' and "
     r"'n_bands' given"),
    (lambda r: dict(absorbed_bottom=r["absorbed_bottom"].T.copy()), ValueError,
     r"n_elements = 5 from absorbed_top does not match absorbed_bottom of shape \(4, 5\)"),
    (lambda r: {k: r[k][:0] for k in ("absorbed_top", "absorbed_bottom", "absorbed_direct")},
     ValueError, "photosynthesis n_elements must be positive"),
    (lambda r: {k: r[k][:, :0] for k in ("absorbed_top", "absorbed_bottom", "absorbed_direct")},
     ValueError, "photosynthesis n_bands must be positive"),
    (lambda r: dict(material_active=r["material_active"][:0]), ValueError,
     "photosynthesis n_materials must be positive"),
    (lambda r: dict(wavelengths=r["wavelengths"][:3], sunlit_fraction=r["sunlit_fraction"][:4]),
     ValueError, "wavelengths buffer length mismatch"),
    (lambda r: dict(material_fluorescent=r["material_fluorescent"][:2]), ValueError,
     "material_fluorescent buffer length mismatch"),
    (lambda r: dict(temperature_shaded=r["temperature_shaded"][:4],
                    vcmax25=nan_first(r["vcmax25"])), ValueError,
     "element_temperature_shaded buffer length mismatch"),
    (lambda r: dict(jmax25=nan_first(r["jmax25"]), rd25=r["rd25"][:2]), ValueError,
     "jmax25 contains a non-finite value"),
    (lambda r: dict(absorbed_top=nan_first(r["absorbed_top"]),
                    quantum_yield=nan_first(r["quantum_yield"])), ValueError,
     "quantum_yield contains a non-finite value"),
    (lambda r: dict(temperature_sunlit=nan_first(r["temperature_sunlit"]), co2=0.0), ValueError,
     "element_temperature contains a non-finite value"),
    (lambda r: dict(relative_humidity=1.5), ValueError,
     "photosynthesis scalar input is outside its physical domain"),
    (lambda r: dict(tolerance=float("nan")), ValueError,
     "photosynthesis scalar input is outside its physical domain"),
    (lambda r: dict(absorbed_direct=-r["absorbed_direct"], max_iterations=0), ValueError,
     "photosynthesis scalar input is outside its physical domain"),
    (lambda r: dict(absorbed_direct=-r["absorbed_direct"], material_ids=r["material_ids"] - 2),
     ValueError, "photosynthesis absorbed spectra cannot be negative"),
    (lambda r: dict(material_ids=r["material_ids"] + 3, quantum_yield=r["quantum_yield"] + 2),
     ValueError, "photosynthesis element input is outside its domain"),
    (lambda r: dict(sunlit_fraction=r["sunlit_fraction"] + 1), ValueError,
     "photosynthesis element input is outside its domain"),
    (lambda r: dict(temperature_shaded=r["temperature_shaded"] * 0), ValueError,
     "photosynthesis element input is outside its domain"),
    (lambda r: dict(material_fluorescent=r["material_fluorescent"] * 2), ValueError,
     "photosynthesis material input is outside its domain"),
    (lambda r: dict(ball_berry_intercept=-r["ball_berry_intercept"]), ValueError,
     "photosynthesis material input is outside its domain"),
]


@pytest.mark.parametrize("change, error, message", REFUSALS)
def test_refusals_come_in_order_with_their_exact_text(change, error, message):
    r = photosynthesis_request()
    r.update(change(r))
    with pytest.raises(error, match=f"^{message}$"):
        run(r)


def test_results_do_not_depend_on_the_thread_count(monkeypatch, rng):
    n = 20001
    r = photosynthesis_request(n=n)
    r["absorbed_top"] = rng.uniform(0, 120, r["absorbed_top"].shape).astype(F)
    r["absorbed_direct"] = (r["absorbed_top"] * rng.uniform(0, 1, (n, 1))).astype(F)
    r["sunlit_fraction"] = rng.uniform(0, 1, n).astype(F)
    r["material_ids"] = rng.integers(-1, 3, n).astype(np.int32)
    r["temperature_sunlit"] = rng.uniform(285, 315, n).astype(F)
    runs = []
    for threads in ("1", "2"):
        monkeypatch.setenv("VESK_NUM_THREADS", threads)
        runs.append(run(r))
    for key, value in runs[0].items():
        if key != "_execution":
            np.testing.assert_array_equal(value, runs[1][key], key)
