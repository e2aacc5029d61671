"""Optical turbid media against physics: the projection function G in closed form,
exponential free paths, Beer-Lambert through a leaf slab, a white furnace, the hot spot,
and the table's validation texts."""
import numpy as np
import pytest
from scipy import stats

import vesk_gpu as vk
from conftest import scene_state, unit_cube
from test_backward import camera_towards, sun_dir

F = np.float32
W = H = 10.0
PI = np.pi


def media_scene(n_materials=3):
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([0.3, 1000.0], F))
    for _ in range(n_materials):
        s.add_material(0, 0, [0.3])
    return s


def g_row(lad):
    s = media_scene(1)
    s.set_optical_turbid_media([1.0], [lad], [1], [0.0], [0])
    return np.array(s.optical_turbid_medium(0)["projection_g"], np.float64)


@pytest.mark.parametrize("lad,g0,g90", [
    (0, 0.5, 0.5), (1, 8 / (3 * PI), 8 / (3 * PI**2)), (2, 4 / (3 * PI), 16 / (3 * PI**2)),
    (5, 2 / PI, 4 / PI**2), (3, None, None), (4, None, None)])
def test_projection_function_closed_forms_and_normalisation(lad, g0, g90):
    g = g_row(lad)
    if lad == 0:
        np.testing.assert_allclose(g, 0.5, atol=1e-6)
    if g0 is not None:
        np.testing.assert_allclose([g[0], g[90]], [g0, g90], rtol=1e-5)
    # Every leaf projects half its area on average over the hemisphere of directions.
    mu = np.cos(np.radians(np.arange(91)))
    np.testing.assert_allclose(np.sum(0.5 * (g[1:] + g[:-1]) * (mu[:-1] - mu[1:])), 0.5, atol=1e-4)


def two_media(densities=(0.5, 1.5), lads=(0, 5)):
    s = media_scene()
    s.set_optical_turbid_media(list(densities), list(lads), [1, 1], [0.0, 0.0], [-1, 0, 1])
    return s


def test_free_paths_are_exponential_and_pick_media_by_their_share(rng):
    s = two_media()
    d = sun_dir(0.7, 0.2)
    u = rng.random((4000, 2))
    out = [s.sample_combined_free_path(np.array([0, 1], np.int32), d, a, b) for a, b in u]
    sigma = out[0]["sigma_total"]
    g = [np.interp(np.degrees(0.7), np.arange(91), s.optical_turbid_medium(k)["projection_g"])
         for k in (0, 1)]
    np.testing.assert_allclose(sigma, 0.5 * g[0] + 1.5 * g[1], rtol=1e-4)
    dist = np.array([o["distance"] for o in out])
    edges = np.quantile(rng.exponential(1 / sigma, 200000), np.linspace(0, 1, 21))
    edges[-1] = np.inf
    counts = np.histogram(dist, edges)[0]
    assert stats.chisquare(counts).pvalue > 1e-3, "free paths are not exponential in sigma_total"
    share = np.mean([o["medium_id"] == 1 for o in out])
    assert abs(share - 1.5 * g[1] / sigma) < 0.03
    # Edge values: a sample of 1 stays finite; a selection of 1 takes the last slot.
    one = s.sample_combined_free_path(np.array([0, 1], np.int32), d, 1.0, 1.0)
    np.testing.assert_allclose(one["distance"], -np.log(np.float32(1e-7)) / sigma, rtol=1e-5)
    assert (one["selected_slot"], one["medium_id"]) == (1, 1)
    # Only the vertical component matters: level rays read G(90), up and down G(0).
    row = s.optical_turbid_medium(1)["projection_g"]
    for v, g90 in (([1, 0, 0], True), ([0, 0, 1], False), ([0, 0, -1], False)):
        sig = s.sample_combined_free_path(np.array([1], np.int32), np.array(v, F), 0.5, 0.5)
        np.testing.assert_allclose(sig["sigma_total"], 1.5 * row[90 if g90 else 0], rtol=1e-6)
    empty = media_scene()
    empty.set_optical_turbid_media([0.0], [0], [1], [0.0], [-1, -1, 0])
    none = empty.sample_combined_free_path(np.array([0], np.int32), d, 0.5, 0.5)
    assert none == {"distance": np.finfo(np.float32).max, "sigma_total": 0.0,
                    "selected_slot": -1, "medium_id": -1}


def test_hotspot_transmittance_limits(rng):
    s = media_scene()
    s.set_optical_turbid_media([1.0, 1.0], [0, 0], [1, 1], [0.1, 0.0], [-1, 0, 1])
    d = np.array([0.3, 0.1, 0.95], F)
    # The same way back: only the shadow length beyond what the path ran costs.
    np.testing.assert_allclose(s.conditional_hotspot_transmittance(0, 7.0, 2.0, 1.5, d, d),
                               np.exp(-0.5 * 0.5), rtol=1e-5)
    np.testing.assert_allclose(s.conditional_hotspot_transmittance(1, 0.8, 2.0, 1.5, d, -d),
                               np.exp(-0.8), rtol=1e-6)
    for _ in range(200):
        a, b, tau = rng.random(3) * [3, 3, 4]
        o = rng.normal(size=3).astype(F)
        t = s.conditional_hotspot_transmittance(0, tau, a, b, d, o / np.linalg.norm(o))
        assert np.exp(-tau) - 1e-6 <= t <= 1.0


BAD_MEDIA = [
    (dict(leaf_angle_types=[0]), "Optical turbid-medium parameter arrays must have equal length."),
    (dict(material_medium_ids=[0]), "material_medium_ids length must equal the material count."),
    (dict(leaf_area_density=[0.5, -1.0]),
     "Optical turbid-medium leaf area density must be finite and >= 0."),
    (dict(leaf_characteristic_lengths=[0.0, np.nan]),
     "Optical turbid-medium leaf characteristic length must be finite and >= 0."),
    # All four checks of medium 0 run before any check of medium 1.
    (dict(leaf_area_density=[0.5, -1.0], leaf_angle_types=[6, 0]),
     "Optical turbid-medium leaf angle type must be in [0, 5]."),
    (dict(orientations=[1, 0]), "Optical turbid-medium orientation must be -1 or 1."),
    (dict(material_medium_ids=[-1, 2, 0]), "material_medium_ids contains an invalid medium index."),
]


@pytest.mark.parametrize("change,text", BAD_MEDIA)
def test_media_table_refuses_bad_input_and_keeps_the_old_table(change, text):
    s = two_media()
    before = (s.num_optical_turbid_media(), s.material_medium_ids(), s.optical_turbid_medium(1))
    args = dict(leaf_area_density=[0.5, 1.5], leaf_angle_types=[0, 5], orientations=[1, 1],
                leaf_characteristic_lengths=[0.0, 0.0], material_medium_ids=[-1, 0, 1])
    args.update(change)
    with pytest.raises(ValueError) as e:
        s.set_optical_turbid_media(**args)
    assert str(e.value) == text
    assert (s.num_optical_turbid_media(), s.material_medium_ids(),
            s.optical_turbid_medium(1)) == before


def test_media_queries_and_their_errors():
    s = two_media()
    # Two materials naming one medium: the later one gives the leaves their scattering.
    s.set_optical_turbid_media([1.0], [0], [1], [0.0], [0, -1, 0])
    assert s.optical_turbid_medium(0)["material_id"] == 2
    with pytest.raises(IndexError):
        s.optical_turbid_medium(1)
    ids, d = np.array([0], np.int32), np.array([0, 0, 1], F)
    for args, text in [((np.zeros((1, 1), np.int32), d), "active medium ids must be one-dimensional"),
                       ((np.zeros(9, np.int32), np.zeros(2, F)),
                        "At most 8 overlapping active turbid media are supported."),
                       ((ids, np.zeros(2, F)), "direction must contain three values"),
                       ((np.array([1], np.int32), d), "active medium ids contains an invalid id")]:
        with pytest.raises(RuntimeError, match=f"^{text}$"):
            s.sample_combined_free_path(*args, 0.5, 0.5)
    with pytest.raises(RuntimeError, match="^source and observation directions need 3 values$"):
        s.conditional_hotspot_transmittance(0, 1.0, 1.0, 1.0, d, np.zeros(2, F))
    s.clear_for_reuse()
    assert s.num_optical_turbid_media() == 0 and s.material_medium_ids() == []


def slab(lai=2.0, lad=0, zen=0.5, leaf=(0.0, 0.0, 0.0), soil=0.0, sky=0.0, sun=True,
         length=0.0, reps=200):
    """A leaf slab 1-3 m up filling the repeated tile, over a Lambertian soil. The slab's
    bounding material names the medium and gives its leaves their scattering: front and
    back reflectance and transmittance of a two-sided leaf."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([soil, *leaf, 1000.0, sky], F))
    s.add_material(0, 0, [soil])
    s.add_material(13, 1, [leaf[0], leaf[2]] if sum(leaf) > 0 else [0.5, 0.5])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(W / 2, H / 2, 0, W)), W / 2, H / 2, 0.0)
    box = s.add_mesh(**unit_cube(), material_id=1)
    # Its sides lie on the tile walls: the layer goes on across them, with no gap.
    s.add_instance_xform(box, np.array([W, 0, 0, W / 2, 0, H, 0, H / 2, 0, 0, 2.0, 2.0], F))
    s.set_optical_turbid_media([lai / 2.0], [lad], [1], [length], [-1, 0])
    s.set_emitter(0, sun_dir(zen, 0.0), 4 if sun else -1)
    if sky:
        s.set_sky(5)
    s.set_repetitive(reps, W, H)
    s.build()
    return s


@pytest.mark.parametrize("lad", range(6))
def test_direct_transmittance_of_a_leaf_slab_follows_beer_lambert(lad):
    for zen in (0.0, 0.6, 1.1):
        s = slab(lad=lad, zen=zen)
        r = vk.simulate_forward_cpu(s, 1, 1, None, 40000, 1, terrain_instance_id=0)
        g = np.interp(np.degrees(zen), np.arange(91), s.optical_turbid_medium(0)["projection_g"])
        expected = np.exp(-g * 2.0 / np.cos(zen))
        # Black leaves and soil: what reaches the soil came through uncollided.
        got = r["terrain"].sum() / r["incident"][0]
        assert abs(got - expected) < 4 * np.sqrt(expected * (1 - expected) / 40000) + 1e-4, \
            f"slab transmittance {got} vs exp(-G L / mu) = {expected} at zenith {zen}"
        np.testing.assert_allclose(r["grid"].sum() + r["terrain"].sum(), r["incident"][0],
                                   rtol=1e-3, err_msg="absorption in the medium goes missing")


def test_white_furnace_returns_the_sky_in_every_direction():
    # Leaves that absorb nothing over a white soil under a uniform sky: every path ends in
    # the sky, so every direction sees its radiance.
    s = slab(leaf=(0.6, 0.6, 0.4), soil=1.0, sky=50.0, sun=False, reps=1000)
    for v in (sun_dir(0.0, 0.0), sun_dir(0.9, 2.0)):
        s.set_sensor(0, 16, 16, 4.0, 4.0, camera_towards(-v, list(np.array([5, 5, 3]) + 20 * v)))
        L = vk.simulate_cpu(s, spp=16, max_depth=400)["payload"].mean()
        np.testing.assert_allclose(L, 50.0, rtol=0.025)


def test_hot_spot_brightens_the_retro_direction_and_threads_do_not_matter(monkeypatch):
    zen = 0.5
    views = np.array([sun_dir(zen, 0.0), sun_dir(zen, np.pi)], F).ravel()
    brf = {}
    for length in (0.0, 0.3):
        s = slab(leaf=(0.45, 0.45, 0.45), soil=0.1, length=length)
        brf[length] = vk.simulate_brf_cpu(s, views, 100000)["brf"][:, 0]
    gain = brf[0.3] / brf[0.0]
    assert gain[0] > 1.1, f"no hot spot in the sun's own direction: {gain}"
    assert gain[0] > gain[1] + 0.05, f"the correlation must fade away from the sun: {gain}"
    s.set_sensor(0, 6, 6, W, H, np.array([1, 0, 0, 5, 0, 1, 0, 5, 0, 0, 1, 20, 0, 0, 0, 1], F))
    images = []
    for n in ("1", "3"):
        monkeypatch.setenv("VESK_NUM_THREADS", n)
        images.append(vk.simulate_cpu(s, spp=4, outputs=["event_aov"]))
    np.testing.assert_array_equal(images[0]["payload"], images[1]["payload"])
    assert images[0]["event_aov"]["medium"].mean() > 0, "leaves lit by the sun go to slot 1"


def test_photon_and_image_brf_of_a_slab_agree():
    # Two estimators, two walks through the same medium: forward local estimates and a
    # backward orthographic image of exactly one tile.
    zen = 0.5
    s = slab(leaf=(0.45, 0.45, 0.45), soil=0.1, length=0.3, reps=1000)
    for v in (sun_dir(zen, 0.0), sun_dir(0.3, np.pi)):
        fwd = vk.simulate_brf_cpu(s, v, 100000)["brf"][0, 0]
        s.set_sensor(0, 32, 32, H, W * v[2], camera_towards(-v, list(np.array([5, 5, 0]) + 30 * v)))
        img = vk.simulate_cpu(s, spp=16)["payload"].astype(np.float64)
        np.testing.assert_allclose(fwd, np.pi * img.mean() / (1000 * np.cos(zen)), rtol=0.03)


def test_turbid_slab_agrees_with_a_slab_of_small_discrete_leaves(rng):
    # LAI 2 of spherically oriented 8 cm leaves, 1-3 m up, against the turbid slab. Band 0
    # is PAR-like, band 1 NIR-like; views stay away from the hot spot.
    leaves = np.array([0.08, 0.45, 0.08, 0.45, 0.05, 0.45], F)  # front, back, transmittance
    soil, sun_e, zen = np.array([0.1, 0.2], F), np.array([1000.0, 1000.0], F), 0.5
    views = np.array([sun_dir(0.4, np.pi), sun_dir(0.0, 0.0)], F).ravel()

    def scene(turbid):
        s = vk.EmbreeSceneManager()
        s.set_num_bands(2)
        s.upload_spectral_params(np.concatenate([soil, leaves, sun_e]))
        s.add_material(0, 0, [0.15])
        s.add_material(13, 2, [0.26, 0.25])
        s.add_instance(s.add_mesh(**vk.make_ground_plane(W / 2, H / 2, 0, W)), W / 2, H / 2, 0)
        if turbid:
            box = s.add_mesh(**unit_cube(), material_id=1)
            s.add_instance_xform(box, np.array([W, 0, 0, W / 2, 0, H, 0, H / 2,
                                                0, 0, 2.0, 2.0], F))
            s.set_optical_turbid_media([1.0], [0], [1], [0.0], [-1, 0])
        else:
            side = 0.08
            quad = {"vertices": np.array([[-1, -1, 0], [1, -1, 0], [1, 1, 0], [-1, 1, 0]], F) *
                    F(side / 2), "normals": np.zeros((0, 3), F),
                    "indices": np.array([[0, 1, 2], [0, 2, 3]], np.int32), "material_id": 1}
            n = int(2.0 * W * H / side**2)
            normals = rng.normal(size=(n, 3))
            normals /= np.linalg.norm(normals, axis=1, keepdims=True)
            xf = np.zeros((n, 12), F)
            for i, z in enumerate(normals):
                x = np.cross(z, [0.0, 0.0, 1.0] if abs(z[2]) < 0.9 else [1.0, 0.0, 0.0])
                x /= np.linalg.norm(x)
                y = np.cross(z, x)
                xf[i] = np.c_[np.c_[x, y, z], [0, 0, 0]].ravel()
            xf[:, [3, 7, 11]] = rng.uniform([0.05, 0.05, 1.0], [W - 0.05, H - 0.05, 3.0], (n, 3))
            s.add_instances_xform(s.add_mesh(**quad), xf)
        s.set_emitter(0, sun_dir(zen, 0.0), 8)
        s.set_repetitive(1000, W, H)
        s.build()
        r = vk.simulate_forward_cpu(s, 1, 1, None, 150000, 2, brf_directions=views,
                                    num_brf_dirs=2, terrain_instance_id=0)
        return r["grid"].sum(axis=(0, 1, 2))[0] / r["incident"][0], r["brf"][:, 1]

    fapar_t, brf_t = scene(True)
    fapar_d, brf_d = scene(False)
    np.testing.assert_allclose(fapar_t, fapar_d, rtol=0.03, err_msg="fAPAR")
    np.testing.assert_allclose(brf_t, brf_d, rtol=0.05, err_msg="NIR BRF")


@pytest.mark.parametrize("view_zenith", [0.0, 0.7])
def test_a_uniform_source_field_in_black_leaves_solves_transfer_without_scattering(view_zenith):
    # Radiance leaving a slab of optical depth tau with a uniform source S and nothing
    # scattered: S (1 - exp(-tau)), tau = G L / mu along the view.
    S, lai = 0.25, 2.0
    s = slab(lai=lai)
    n = s.num_instances()
    per = lambda v, k, dtype=F: np.full(n * k, v, dtype)
    joint = np.array([0.0, S], F)  # the ground instance carries nothing
    s.set_instance_sif_source_fields(joint, joint, joint, np.zeros(2, F),
                                     np.array([0, 0, 0, -0.01, -0.01, 1.0], F),
                                     np.array([1, 1, 1, W + 0.01, H + 0.01, 3.0], F),
                                     per(1, 3, np.int32), 1, 1, 1, 1)
    v = np.array([np.sin(view_zenith), 0.0, np.cos(view_zenith)])
    s.set_sensor(0, 8, 8, 4.0, 4.0 * v[2], camera_towards(-v, list(np.array([5, 5, 2]) + 30 * v)))
    s.set_sif_only_mode(True)
    img = vk.simulate_cpu(s, spp=64)["payload"].astype(np.float64)
    tau = 0.5 * lai / np.cos(view_zenith)
    np.testing.assert_allclose(img.mean(), S * (1 - np.exp(-tau)), rtol=0.02)
    # In optical mode the emission comes on top of the (here black) reflected light.
    s.set_sif_only_mode(False)
    np.testing.assert_allclose(vk.simulate_cpu(s, spp=64)["payload"].mean(), img.mean(), rtol=0.02)
    two = np.repeat(joint, 2)
    s.set_instance_sif_source_fields(two, two, two, two * 0, per(0, 3), np.tile([W, H, 3.0], n).astype(F),
                                     per(1, 3, np.int32), 2, 1, 1, 1)
    with pytest.raises(ValueError, match="n_sif_bands is 2, but the scene renders 1 bands"):
        vk.simulate_cpu(s, spp=1)
