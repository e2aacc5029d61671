"""The workflow helpers: physical input checks, the energy balance read from the scene
itself, thermal images on the same scene, and the Planck inversion."""
import numpy as np
import pytest

import vesk
import vesk_gpu as vk

F = np.float32


def canopy(sky=True):
    """A 4 m tile of soil under 300 small leaves, two bands (PAR and near infrared)."""
    rng = np.random.default_rng(3)
    s = vk.EmbreeSceneManager()
    sp = vesk.Spectra(s, [550, 1150], widths_nm=[300, 900])
    soil = vesk.lambertian(sp, "soil", [0.1, 0.25])
    leaf = vesk.leaf(sp, "leaf", [0.09, 0.45], [0.06, 0.42], back_reflectance=[0.1, 0.4])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(2, 2, soil, 1.0)), 2, 2, 0)
    v = (rng.normal(size=(300, 1, 3)) * 0.5 + [2, 2, 1.5]
         + 0.08 * rng.normal(size=(300, 3, 3))).reshape(-1, 3).astype(F)
    s.add_instance(s.add_mesh(v, np.zeros((0, 3), F), np.arange(900, dtype=np.int32).reshape(-1, 3),
                              leaf))
    sp.set_sun(vesk.sun_direction(20, 150), [1.4, 0.42])
    if sky:
        sp.set_sky([0.08, 0.013])
    s.set_repetitive(10, 4.0, 4.0)
    s.set_sensor(0, 16, 16, 4.0, 4.0, vesk.look_at([2, 2, 10], [2, 2, 0], (0, 1, 0)))
    s.build()
    return s, sp, soil, leaf


AIR = dict(air_temperature=298.15, relative_humidity=0.55)


def test_microclimate_derives_the_missing_humidity_from_the_leaf_solvers_saturation():
    es25 = 610.78 * np.exp(17.27 * 25 / (25 + 237.3))
    a = vesk.microclimate(298.15, relative_humidity=0.5)
    b = vesk.microclimate(298.15, vapor_pressure=0.5 * es25)
    assert a.vapor_pressure == pytest.approx(0.5 * es25) and b.relative_humidity == pytest.approx(0.5)
    # Both given and consistent: accepted as given.
    assert vesk.microclimate(298.15, 0.55, 1740.0).vapor_pressure == 1740.0
    # A clear sky at 25 C and 1740 Pa radiates about 370 W m-2 (Brutsaert).
    assert np.pi * vesk.microclimate(298.15, vapor_pressure=1740.0).sky_lw_radiance == pytest.approx(370, abs=5)


def _bad_leaf():
    s = vk.EmbreeSceneManager()
    vesk.leaf(vesk.Spectra(s, [650, 850]), "leaf", [0.1, 0.5], [0.1, 0.55])


def _bad_back():
    s = vk.EmbreeSceneManager()
    vesk.leaf(vesk.Spectra(s, [650]), "leaf", 0.1, 0.5, back_reflectance=0.6)


def _bad_sun():
    s = vk.EmbreeSceneManager()
    vesk.Spectra(s, [650]).set_sun([0.3, 0.0, -0.1], 1.0)


@pytest.mark.parametrize("bad, message", [
    (_bad_leaf, "leaf: reflectance \\+ transmittance must lie in \\[0, 1\\]"),
    (_bad_back, "leaf: back reflectance \\+ transmittance"),
    (lambda: vesk.lambertian(vesk.Spectra(vk.EmbreeSceneManager(), [650]), "soil", -0.1),
     "soil: the reflectance must lie in \\[0, 1\\]"),
    (lambda: vesk.lambertian(vesk.Spectra(vk.EmbreeSceneManager(), [650]), "soil", 25.0),
     "soil: the reflectance"),
    (lambda: vesk.sun_direction(95, 180), "below the horizon"),
    (_bad_sun, "the sun is below the horizon"),
    (lambda: vesk.microclimate(25.0, 0.5), "air_temperature must be in kelvin.*Celsius"),
    (lambda: vesk.microclimate(298.15, 0.55, 1200.0), "relative_humidity 0.550 and vapor_pressure 1200 Pa disagree"),
    (lambda: vesk.microclimate(298.15, 55.0), "a fraction, not percent"),
    (lambda: vesk.microclimate(298.15), "give relative_humidity"),
    (lambda: vesk.microclimate(298.15, 0.5, pressure=101300.0), "pressure is in kPa"),
])
def test_each_input_check_fires_on_its_bad_input(bad, message):
    with pytest.raises(ValueError, match=message):
        bad()


def test_temperatures_in_celsius_are_refused_by_the_scene_helpers():
    s, sp, soil, _ = canopy(sky=False)
    air = vesk.microclimate(**AIR)
    with pytest.raises(ValueError, match="ground_temperature must be in kelvin"):
        vesk.energy_balance(sp, air, ground_temperature={soil: 30.0}, n_samples=2)
    with pytest.raises(ValueError, match="temperatures must be in kelvin"):
        vesk.thermal_image(sp, np.full(s.n_primitives(), 25.0))


def test_energy_helper_absorbs_what_a_hand_set_up_run_absorbs():
    s, sp, soil, leaf = canopy()
    ds = vesk.energy_balance(sp, vesk.microclimate(**AIR), n_samples=8, max_depth=4,
                             n_longwave_samples=4, max_iterations=3)
    # The same step set up by hand, as a user would without the helper.
    mids = s.get_primitive_mat_ids()
    is_leaf = mids == leaf
    band = lambda lv, sv: np.where(is_leaf, lv, sv).astype(F)  # noqa: E731
    r = np.stack([band(0.09, 0.1), band(0.45, 0.25)])
    rb = np.stack([band(0.1, 0.1), band(0.4, 0.25)])
    t = np.stack([band(0.06, 0), band(0.42, 0)])
    d = vesk.sun_direction(20, 150).astype(np.float64)
    d /= np.linalg.norm(d)
    top, bot, sunlit = vk.run_energy_balance_multiband_cpu(
        s, 2, n_samples=8, max_depth=4, sun_irradiance=np.array([1.4 * 300, 0.42 * 900], F),
        sky_diffuse_radiance=np.array([0.08 * 300, 0.013 * 900], F),
        sun_dir_x=d[0], sun_dir_y=d[1], sun_dir_z=d[2],
        sw_reflectance=r, sw_back_reflectance=rb, sw_transmittance=t)
    absorbed = np.where(is_leaf, top * (1 - r - t) + bot * (1 - rb - t), top * (1 - r))
    np.testing.assert_allclose(ds.absorbed_shortwave, absorbed.sum(axis=0), rtol=1e-6, atol=1e-4)
    np.testing.assert_array_equal(ds.sunlit_fraction, sunlit)
    # PAR photons at 550 nm: 4.60 umol per joule.
    np.testing.assert_allclose(ds.apar, absorbed[0] * 550e-9 / 0.11962656 * 1e6, rtol=1e-6)
    assert ds.apar.attrs["units"] == "umol m-2 s-1" and ds.absorbed_bottom.attrs["side"] == "bottom"
    leaves = ds.where(ds.is_leaf, drop=True)
    assert (leaves.an > 0).all() and (leaves.phi_f > 0).all()
    assert float(ds.absorbed_bottom.where(~ds.is_leaf).max()) == 0.0, "the soil absorbs on top only"


def test_fixed_coefficient_process_warms_sunlit_leaves_above_the_air():
    s, sp, _, _ = canopy()
    ds = vesk.energy_balance(sp, vesk.microclimate(**AIR), "energy_balance", n_samples=8,
                             max_depth=4, n_longwave_samples=4, max_iterations=10)
    leaves = ds.where(ds.is_leaf, drop=True)
    sunny = leaves.sunlit_fraction > 0.9
    assert float(leaves.temperature.where(sunny).mean()) > 298.15 + 0.5
    closure = leaves.net_radiation - leaves.sensible_heat - leaves.latent_heat
    assert float(np.abs(closure).mean()) < 0.05 * float(np.abs(leaves.net_radiation).mean())


def test_thermal_image_of_a_uniform_blackbody_scene_reads_its_temperature_and_restores_the_scene():
    s, sp, soil, leaf = canopy()
    before = vk.simulate_cpu(s, spp=1)["payload"]
    img = vesk.thermal_image(sp, np.full(s.n_primitives(), 310.0), 10000.0,
                             emissivity=1.0, sky_radiance=vesk.planck(10000.0, 310.0), spp=1)
    assert img.shape == (16, 16)
    np.testing.assert_allclose(vesk.brightness_temperature(img, 10000.0), 310.0, atol=0.02)
    assert not s.thermal_mode() and s.band_wavelengths() == [550.0, 1150.0]
    np.testing.assert_array_equal(vk.simulate_cpu(s, spp=1)["payload"], before)


@pytest.mark.parametrize("wavelength, temperature, radiance", [
    (10000.0, 300.0, 9.924e-3), (4000.0, 300.0, 7.220e-4), (10000.0, 250.0, 3.783e-3)])
def test_brightness_temperature_inverts_planck(wavelength, temperature, radiance):
    assert vesk.planck(wavelength, temperature) == pytest.approx(radiance, rel=2e-3)
    assert vesk.brightness_temperature(radiance, wavelength) == pytest.approx(temperature, abs=0.1)
    assert vesk.brightness_temperature([0.0, -1.0], wavelength).tolist() == [0.0, 0.0]


def test_tone_map_row_order_is_chosen_and_stated():
    img = np.zeros((4, 3, 1))
    img[0] = 1.0  # the payload's row 0: the bottom of the picture
    top_first, _ = vesk.tone_map(img, exposure=1.0)
    as_payload, _ = vesk.tone_map(img, exposure=1.0, flip=False)
    assert top_first[-1].min() > 0 and top_first[0].max() == 0
    np.testing.assert_array_equal(as_payload, top_first[::-1])


def test_fluorescence_chain_lights_the_leaves_and_leaves_the_optical_scene_as_it_was():
    s, sp, _, _ = canopy()
    before = vk.simulate_cpu(s, spp=1)["payload"]
    air = vesk.microclimate(**AIR)
    with pytest.raises(ValueError, match="leaf_temperature must be in kelvin"):
        vesk.fluorescence(sp, air, leaf_temperature=25.0)
    out = vesk.fluorescence(sp, air, num_photons=20000, spp=1)
    leaves = out["is_leaf"]
    assert (out["photosynthesis"]["phi_f"][leaves] > 0).all() and out["image"][..., 0].mean() > 0
    # Emitted photons: phi_f times the absorbed photons of the one exciting band (550 nm).
    photons = out["finalized"]["phi_f"] * out["absorbed"][:, 0] * 550e-9 / 0.11962656 * 1e6
    np.testing.assert_allclose(out["emission"]["photons"], photons, rtol=1e-5)
    np.testing.assert_array_equal(vk.simulate_cpu(s, spp=1)["payload"], before)


def test_flux_helper_gives_the_sky_its_photons_and_the_module_default_leaves_it_out():
    s = vk.EmbreeSceneManager()
    sp = vesk.Spectra(s, [650])
    black = vesk.lambertian(sp, "black", 0.0)
    s.add_instance(s.add_mesh(**vk.make_ground_plane(2, 2, black, 1.0)), 2, 2, 0)
    sp.set_sun(vesk.sun_direction(30, 180), 1.0)
    sp.set_sky(0.1)
    s.set_repetitive(5, 4.0, 4.0)
    s.build()
    sun, sky = np.cos(np.radians(30)), np.pi * 0.1  # W m-2 nm-1 on the ground
    assert vesk.sun_share(sp) == pytest.approx(sun / (sun + sky), rel=1e-6)
    n = 20000
    both = vesk.simulate_flux(sp, 2, 2, n)
    sun_only = vesk.simulate_flux(sp, 2, 2, n, prob_sun=1.0)
    tol = 4 / np.sqrt(n)  # four standard deviations of the photon split
    assert float(both.downwelling.sum()) == pytest.approx(16 * (sun + sky), rel=tol)
    assert float(sun_only.downwelling.sum()) == pytest.approx(16 * sun, rel=1e-3)
    assert both.attrs["prob_sun"] == vesk.sun_share(sp)


def test_turbid_crowns_of_black_leaves_absorb_the_vertical_sun_as_beers_law_says():
    s = vk.EmbreeSceneManager()
    sp = vesk.Spectra(s, [650])
    soil, leaf = vesk.lambertian(sp, "soil", 0.0), vesk.leaf(sp, "leaf", 0.0, 0.0)
    s.add_instance(s.add_mesh(**vk.make_ground_plane(5, 5, soil, 1.0)), 5, 5, 0)
    sp.set_sun([0, 0, 1], 1.0)
    s.set_repetitive(10, 10.0, 10.0)
    with pytest.raises(ValueError, match="leaf_material must be a leaf"):
        vesk.turbid_crowns(sp, soil, 3, 3, lai=1.0)
    out = vesk.turbid_crowns(sp, leaf, [3, 7, 3, 7], [3, 3, 7, 7], lai=1.5, crown_radius=1.8,
                             crown_height=3.0)
    assert out["leaf_area_density"] * out["crown_volume"] == pytest.approx(150.0)
    assert s.optical_turbid_medium(0)["leaf_area_density"] == pytest.approx(out["leaf_area_density"])
    s.build()
    n = 50000
    r = vk.simulate_forward_cpu(s, num_photons=n, num_bands=1, terrain_instance_id=0)
    # Spherical leaves (G = 1/2) over a vertical chord 2c sqrt(1 - (rho/a)^2) of each crown.
    rho = np.linspace(0, 1.8, 20001)
    chord = 3.0 * np.sqrt(1 - (rho / 1.8) ** 2)
    hit = (1 - np.exp(-0.5 * out["leaf_area_density"] * chord)) * 2 * np.pi * rho
    expected = 4 * np.sum((hit[1:] + hit[:-1]) / 2 * np.diff(rho)) / 100.0
    # The bounding icosphere is a little narrower than the ellipsoid: 1 % less cross-section.
    assert r["grid"].sum() / r["incident"][0] == pytest.approx(expected, rel=0.015 + 4 / np.sqrt(n))
