"""Forward photons, BRF and flux grids against physics: a Lambertian tile's BRF and
albedo, flux that sums to the irradiance, energy conservation on a canopy, the sun /
sky split, and a non-Lambertian BRF cross-checked with backward rendering."""
import numpy as np
import pytest

import vesk_gpu as vk
from test_backward import camera_towards, nadir_camera, sun_dir

F = np.float32
W = H = 10.0


def tile_scene(rho=(0.3, 0.6), E=(1000.0, 800.0), sky=None, zenith=0.5, plane=0.0,
               repetitions=6, crowns=(), material=(0, [0.45, 0.0])):
    """Ground of reflectance rho in a repeated W x H tile; optional leaf crowns
    (x, y, z, radius) and uniform sky. Spectral layout: ground, leaf x3, sun, sky."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(2)
    leaf = [0.1, 0.4, 0.15, 0.45, 0.05, 0.35]
    s.upload_spectral_params(np.array(list(rho) + leaf + list(E) + list(sky or (0, 0)), F))
    s.add_material(material[0], 0, material[1])
    s.add_material(13, 2, [0.25, 0.2])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(W / 2, H / 2, 0, W)), W / 2, H / 2, 0.0)
    if crowns:
        c = s.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 2), material_id=1)
        for x, y, z, r in crowns:
            s.add_instance(c, x, y, z, r)
    s.set_emitter(0, sun_dir(zenith), 8)
    if sky:
        s.set_sky(10)
    s.set_repetitive(repetitions, W, H)
    s.set_measurement_plane(plane)
    s.build()
    return s


CROWNS = [(3.0, 4.0, 2.5, 1.5), (8.0, 7.5, 3.0, 1.2), (6.0, 1.5, 9.0, 0.8)]


@pytest.mark.parametrize("zenith", [0.3, 1.2])
def test_lambertian_tile_has_brf_and_albedo_rho_and_flux_sums_to_irradiance(zenith):
    rho, E = np.array([0.3, 0.6]), np.array([1000.0, 800.0])
    # Photons start 30 m up: at 1.2 rad they drift ~77 m sideways, crossing many walls.
    s = tile_scene(zenith=zenith, plane=30.0, repetitions=40)
    dirs = np.array([0, 0, 1, 0.5, 0.2, 0.84, -0.9, 0.1, 0.34], F)
    b = vk.simulate_brf_cpu(s, dirs, 20000)
    np.testing.assert_allclose(b["brf"], np.tile(rho, (3, 1)), rtol=2e-6)
    np.testing.assert_allclose(b["albedo"], rho, rtol=2e-6)
    assert b["_execution"]["executor"] == "embree.cpu.optical_brf"

    r = vk.simulate_flux_cpu(s, 4, 4, 160000, 2)
    down, up = r["downwelling"].astype(np.float64), r["upwelling"].astype(np.float64)
    assert down.shape == (4, 4, 2)
    total = E * np.cos(zenith) * W * H
    np.testing.assert_allclose(down.sum(axis=(0, 1)), total, rtol=1e-4)
    # Uniform light: every cell gets its share, within Monte Carlo noise (~1 %).
    np.testing.assert_allclose(down, np.broadcast_to(total / 16, down.shape), rtol=0.05)
    # Each photon bounces once and leaves its cell upward with rho of its energy.
    np.testing.assert_allclose(up, down * rho, rtol=1e-5)
    assert r["_execution"]["workflow"] == "optical_flux"


def test_forward_conserves_energy_on_a_canopy():
    # Photons of a repeated scene start 0.1 above the measurement plane: put it on top.
    s = tile_scene(sky=(20.0, 30.0), crowns=CROWNS, plane=10.0, repetitions=1000)
    layers = np.array([0.0, 2.0, 4.0, 8.0], F)  # the third crown floats above them
    for max_depth in (16, 2):
        r = vk.simulate_forward_cpu(s, 3, 2, layers, 200000, 2, per_leaf=True, prob_sun=0.6,
                                    max_depth=max_depth, terrain_instance_id=0)
        g = {k: v.astype(np.float64) for k, v in r.items() if k != "_execution"}
        assert g["grid"].shape == (3, 2, 3, 2) and g["terrain"].shape == (2, 3, 2)
        assert g["leaf"].shape == (s.n_primitives(), 2)
        absorbed = g["grid"].sum(axis=(0, 1, 2)) + g["terrain"].sum(axis=(0, 1)) + \
            g["absorbed_outside"]
        budget = absorbed + g["escaped"] + g["transmitted"] + g["truncated"]
        np.testing.assert_allclose(budget, g["incident"], rtol=0.015,
                                   err_msg="energy in must equal energy absorbed and out")
        # Every absorption is charged to its primitive and to exactly one place.
        np.testing.assert_allclose(g["leaf"].sum(axis=0), absorbed, rtol=1e-6)
        np.testing.assert_allclose(g["grid_direct"] + g["grid_diffuse"], g["grid"], rtol=1e-6,
                                   atol=1e-3)
        assert (g["absorbed_outside"] > 0).all(), "the floating crown lies above the layers"
        # A closed ground lets nothing through, as long as the repetitions last.
        assert (g["transmitted"] < 1e-4 * g["incident"]).all()
        if max_depth == 2:
            assert (g["truncated"] > 0).all(), "a depth limit leaves energy in flight"
        else:
            np.testing.assert_allclose(g["albedo"], g["escaped"] / g["incident"], rtol=1e-6)


def test_decompose_splits_sun_and_sky_photons():
    E, L, zen = np.array([1000.0, 800.0]), np.array([20.0, 30.0]), 0.5
    for prob_sun in (0.5, 1.0, 0.0):
        s = tile_scene(sky=tuple(L), zenith=zen)
        r = vk.simulate_flux_cpu(s, 2, 2, 200000, 2, prob_sun=prob_sun, decompose=True)
        direct = r["downwelling_direct"].sum(axis=(0, 1))
        diffuse = r["downwelling_diffuse"].sum(axis=(0, 1))
        np.testing.assert_allclose(direct + diffuse, r["downwelling"].sum(axis=(0, 1)),
                                   rtol=1e-5)
        # First arrivals on a flat ground: E cos(theta) from the sun, pi L from a uniform sky,
        # plus nothing else since one bounce escapes.
        sun_part = E * np.cos(zen) * W * H if prob_sun > 0 else np.zeros(2)
        sky_part = np.pi * L * W * H if prob_sun < 1 else np.zeros(2)
        np.testing.assert_allclose(direct, sun_part, rtol=0.02, atol=1e-3)
        np.testing.assert_allclose(diffuse, sky_part, rtol=0.02, atol=1e-3)
    plain = vk.simulate_flux_cpu(s, 2, 2, 1000, 2)
    assert set(plain) == {"downwelling", "upwelling", "_execution"}


def test_max_bounces_charges_only_the_first_events():
    s = tile_scene(crowns=CROWNS[:2], plane=5.0)
    first = vk.simulate_flux_cpu(s, 3, 3, 100000, 2, max_bounces=1)
    every = vk.simulate_flux_cpu(s, 3, 3, 100000, 2)
    # Every photon's first event lands in the tile: exactly the incident energy.
    total = np.array([1000.0, 800.0]) * np.cos(0.5) * W * H
    np.testing.assert_allclose(first["downwelling"].sum(axis=(0, 1)), total, rtol=1e-4)
    assert (every["downwelling"].sum(axis=(0, 1)) > 1.05 * total).all()
    # Escapes still count upward, bounces after the first do not.
    assert (first["upwelling"].sum() > 0) and first["upwelling"].sum() < every["upwelling"].sum()


def test_non_lambertian_brf_matches_backward_rendering():
    # RPV ground, flat: BRF(v) = pi * f(v, sun). The backward tracer measures the same
    # radiance by next-event estimation, so both estimators must agree closely.
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([0.12, 0.7, -0.2, 0.3, 900.0], F))
    s.add_material(1, 0, [])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(W / 2, H / 2, 0, W)), W / 2, H / 2, 0.0)
    zen = 0.6
    s.set_emitter(0, sun_dir(zen, 0.0), 4)
    s.set_repetitive(8, W, H)
    s.build()
    views = [sun_dir(0.0, 0.0), sun_dir(0.5, np.pi), sun_dir(0.6, 0.0), sun_dir(1.0, 2.0)]
    brf = vk.simulate_brf_cpu(s, np.array(views, F).ravel(), 20000)["brf"][:, 0]
    for v, value in zip(views, brf):
        s.set_sensor(0, 2, 2, 1.0, 1.0, camera_towards(-v, list(5.0 + 3.0 * v)))
        L = vk.simulate_cpu(s, spp=1, max_depth=1)["payload"].mean()
        np.testing.assert_allclose(value, np.pi * L / (900.0 * np.cos(zen)), rtol=1e-4)
    assert brf.max() > 1.2 * brf.min(), "RPV must not look Lambertian here"


def test_canopy_nadir_brf_agrees_with_a_backward_image_of_the_tile():
    s = tile_scene(crowns=CROWNS[:2], zenith=0.4, plane=5.0, repetitions=1000)
    fwd = vk.simulate_brf_cpu(s, np.array([0, 0, 1], F), 400000)["brf"][0]
    s.set_sensor(0, 40, 40, W, H, nadir_camera(20.0, W / 2, H / 2))
    img = vk.simulate_cpu(s, spp=16, max_depth=16)["payload"].astype(np.float64)
    bwd = np.pi * img.mean(axis=(0, 1)) / (np.array([1000.0, 800.0]) * np.cos(0.4))
    np.testing.assert_allclose(fwd, bwd, rtol=0.03)


def test_photon_entries_reject_bad_input_with_their_texts(capfd):
    s = tile_scene()
    bad_brf = [
        (dict(directions=np.zeros((1, 3), F), num_photons=10),
         "directions must be a nonempty flat float3 array"),
        (dict(directions=np.zeros(0, F), num_photons=10),
         "directions must be a nonempty flat float3 array"),
        (dict(directions=np.zeros(4, F), num_photons=10),
         "directions must be a nonempty flat float3 array"),
        (dict(directions=np.array([0, 0, 1], F), num_photons=0),
         "BRF photon count and maximum depth must be positive"),
        (dict(directions=np.array([0, 0, 1], F), num_photons=5, max_depth=0),
         "BRF photon count and maximum depth must be positive"),
        (dict(directions=np.array([0, 0, 1, 0, 0, 0], F), num_photons=5),
         "BRF observation directions must be nonzero"),
        (dict(directions=np.array([0.3, 0, -1], F), num_photons=5),
         "BRF observation directions must point upward"),
    ]
    for kwargs, text in bad_brf:
        with pytest.raises(ValueError) as e:
            vk.simulate_brf_cpu(s, **kwargs)
        assert str(e.value) == text
    with pytest.raises(ValueError, match="^layer_heights must be 1D$"):
        vk.simulate_forward_cpu(s, layer_heights=np.zeros((2, 2), F), num_photons=10)
    with pytest.raises(ValueError, match="^directions must be a flat float3 array$"):
        vk.simulate_forward_cpu(s, num_photons=10, brf_directions=np.zeros((1, 3), F),
                                num_brf_dirs=1)
    with pytest.raises(ValueError, match="strictly increasing"):
        vk.simulate_forward_cpu(s, layer_heights=np.array([0, 2, 1], F), num_photons=10)
    with pytest.raises(IndexError):
        vk.simulate_forward_cpu(s, num_photons=10, terrain_instance_id=5)
    with pytest.raises(ValueError, match="^flux grid dimensions and band count must be positive$"):
        vk.simulate_flux_cpu(s, 0, 1, 10, 1)
    with pytest.raises(OverflowError,
                       match="^flux grid element count exceeds signed device index range$"):
        vk.simulate_flux_cpu(s, 50000, 50000, 10, 1)
    with pytest.raises(ValueError, match="^Embree flux photon count must be positive$"):
        vk.simulate_flux_cpu(s, 1, 1, 0, 1)
    with pytest.raises(RuntimeError):
        vk.simulate_flux_cpu(vk.EmbreeSceneManager(), 1, 1, 10, 1)
    capfd.readouterr()
    vk.simulate_flux_cpu(s, 3, 2, 10, 2, max_bounces=4)
    vk.simulate_forward_cpu(s, 2, 1, np.array([0, 1, 5], F), 10, 2)
    out = capfd.readouterr().out.splitlines()
    assert out[0].startswith("Forward flux (CPU): 10 photons, grid 3x2, 2 bands, "
                             "max_bounces_record=4, ")
    assert out[1].startswith("Forward fPAR (CPU): 10 photons, grid 2x1x2, 2 bands, ")


def test_vesk_max_depth_reaches_the_photon_tracers(monkeypatch, capfd):
    s = tile_scene(crowns=CROWNS[:1])
    monkeypatch.setenv("VESK_MAX_DEPTH", "1")
    capfd.readouterr()
    r = vk.simulate_forward_cpu(s, num_photons=20000, num_bands=2, max_depth=16)
    vk.simulate_flux_cpu(s, 1, 1, 10, 2)
    out = capfd.readouterr().out
    assert "[CPU fwd] VESK_MAX_DEPTH=1\n" in out and "[CPU flux] VESK_MAX_DEPTH=1\n" in out
    # One bounce allowed: everything scattered once is still in flight, not escaped.
    assert r["escaped"].sum() == 0 and (r["truncated"] > 0).all()


def crown_tile(rho_soil=0.5):
    """Repeated 10 m tile: soil of reflectance rho_soil, two leaf crowns 3-7 m up, sun at
    30 degrees in the x-z plane. The measurement plane is left at its default."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([rho_soil, 0.45, 0.4, 0.45, 1000.0], F))
    s.add_material(0, 0, [rho_soil])
    s.add_material(13, 1, [0.45, 0.45])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(W / 2, H / 2, 0, W)), W / 2, H / 2, 0.0)
    crown = s.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 2), material_id=1)
    s.add_instance(crown, 3.0, 4.0, 5.0, 2.0)
    s.add_instance(crown, 8.0, 8.5, 5.0, 2.0)
    s.set_emitter(0, sun_dir(np.radians(30), 0.0), 4)
    s.set_repetitive(1000, W, H)
    s.build()
    return s


def test_default_plane_brf_matches_a_backward_image_of_one_tile_around_the_hot_spot():
    # Photons must start above the crowns by default, or there is no shadow and no hot
    # spot. Backward: an orthographic image whose footprint is exactly one tile, so its
    # mean radiance is the tile's; BRF = pi L / (E cos(theta_s)).
    s = crown_tile()
    views = [sun_dir(np.radians(30), 0.0), sun_dir(np.radians(5), 0.0),
             sun_dir(np.radians(30), np.pi)]
    fwd = vk.simulate_brf_cpu(s, np.array(views, F).ravel(), 300000)["brf"][:, 0]
    bwd = []
    for v in views:
        s.set_sensor(0, 32, 32, H, W * v[2], camera_towards(-v, list(np.array([5, 5, 0]) + 30 * v)))
        img = vk.simulate_cpu(s, spp=24)["payload"].astype(np.float64)
        bwd.append(np.pi * img.mean() / (1000.0 * np.cos(np.radians(30))))
    np.testing.assert_allclose(fwd, bwd, rtol=0.035, err_msg="photon and image BRF disagree")
    assert fwd[0] > 1.1 * fwd[2], "the hot spot must stand out against the opposite view"


@pytest.mark.parametrize("azimuth", [0.0, 0.7, 2.0, 4.0])
def test_finite_scene_over_an_opaque_ground_sends_nothing_down(azimuth):
    # A black crown over a reflecting ground that covers the whole box: every photon
    # that meets the scene is absorbed or leaves upward. Light passing beside the scene
    # (through the box's sides) was never incident on it.
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([0.3, 0.0, 0.0, 0.0, 1000.0], F))
    s.add_material(0, 0, [0.3])
    s.add_material(13, 1, [0.0, 0.0])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(20, 20, 0, 40)))
    s.add_instance(s.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 2), material_id=1),
                   12.0, -6.0, 5.0, 2.0)
    s.set_emitter(0, sun_dir(np.radians(30), azimuth), 4)
    s.build()
    r = vk.simulate_forward_cpu(s, 1, 1, None, 100000, 1, terrain_instance_id=0)
    g = {k: v.astype(np.float64) for k, v in r.items() if k != "_execution"}
    assert g["transmitted"][0] <= 1e-6 * g["incident"][0]
    budget = g["grid"].sum() + g["terrain"].sum() + g["escaped"] + g["truncated"]
    np.testing.assert_allclose(budget, g["incident"], rtol=1e-5)
    # The ground receives the sun over its whole area, however the photons entered.
    ground_in = g["terrain"].sum() / 0.7
    assert ground_in < 1000.0 * np.cos(np.radians(30)) * 1600.0
    assert ground_in > 0.97 * 1000.0 * np.cos(np.radians(30)) * 1600.0


@pytest.mark.parametrize("repeated", [True, False])
def test_incident_per_column_divides_absorption_into_fapar_per_cell(repeated):
    # A black ground under a nadir sun: each photon is absorbed in the column it came in
    # by, so absorbed / incident is exactly 1 in every cell, whatever the noise.
    s = tile_scene(rho=(0.0, 0.0), zenith=0.0, plane=2.0, repetitions=6 if repeated else 0)
    r = vk.simulate_forward_cpu(s, 4, 4, num_photons=40000, num_bands=2, terrain_instance_id=0)
    cells = r["incident_grid"].astype(np.float64)
    assert cells.shape == (4, 4, 2)
    np.testing.assert_allclose(r["terrain"] / cells, 1.0, rtol=1e-5)
    np.testing.assert_allclose(cells.sum(axis=(0, 1)), r["incident"], rtol=1e-5)


@pytest.mark.parametrize("repeated", [True, False])
def test_incident_columns_add_up_under_a_slanted_sun_and_sky(repeated):
    # Sky photons and a low sun come in through the sides of a finite box and across the
    # walls of a tile: each is still charged to exactly one column, the nearer the sun's
    # share the more uniform.
    s = tile_scene(sky=(50.0, 40.0), zenith=1.1, plane=6.0, crowns=CROWNS[:2],
                   repetitions=6 if repeated else 0)
    r = vk.simulate_forward_cpu(s, 5, 3, [0.0, 1.0, 8.0], 60000, 2, prob_sun=0.6)
    cells = r["incident_grid"].astype(np.float64)
    np.testing.assert_allclose(cells.sum(axis=(0, 1)), r["incident"], rtol=1e-5)
    assert (cells > 0).all(), "every column of the scene receives light"
    if repeated:  # a tile is lit evenly: each column gets its share within noise
        np.testing.assert_allclose(cells, np.broadcast_to(cells.mean(axis=(0, 1)), cells.shape),
                                   rtol=0.1)


@pytest.mark.parametrize("run", ["flux", "forward", "brf"])
def test_photon_runs_report_every_batch_end_and_within_a_batch(run, monkeypatch):
    # 1.2 million photons on one thread over a tile with crowns: the first batch of a
    # million photons takes about a second here, and reports must come while it runs.
    monkeypatch.setenv("VESK_NUM_THREADS", "1")
    s = tile_scene(crowns=CROWNS)
    calls = []
    call = {"flux": lambda cb: vk.simulate_flux_cpu(s, 2, 2, 1_200_000, 2, progress=cb),
            "forward": lambda cb: vk.simulate_forward_cpu(s, num_photons=1_200_000,
                                                          num_bands=2, progress=cb),
            "brf": lambda cb: vk.simulate_brf_cpu(s, np.array([0, 0, 1], F), 1_200_000,
                                                  progress=cb)}[run]
    call(lambda done, total, ms: calls.append((done, total, ms)))
    done, ms = [c[0] for c in calls], [c[2] for c in calls]
    batch_end = 1_000_000
    assert done == sorted(done) and done[-1] == 1_200_000 and batch_end in done
    assert all(c[1] == 1_200_000 for c in calls)
    if ms[done.index(batch_end)] > 500.0:
        assert done[0] < batch_end, f"no report inside a batch that took over 0.5 s: {calls}"
        gaps = np.diff([0.0] + ms)
        assert np.median(gaps) < 500.0, f"reports should come every quarter second: {gaps}"


def test_flux_progress_comes_at_both_batch_ends_of_a_million_and_one_photons():
    # A bare ground under the sun: a million photons take well under a quarter second on
    # two threads, so only the batch ends report.
    s = vk.EmbreeSceneManager()
    s.upload_spectral_params(np.array([0.3, 1000.0], F))
    s.add_material(0, 0, [0.3])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(5, 5, 0, 10)), 5.0, 5.0, 0.0)
    s.set_emitter(0, np.array([0, 0, 1], F), 1)
    s.set_repetitive(0, 10.0, 10.0)
    s.build()
    calls = []
    vk.simulate_flux_cpu(s, 1, 1, 1_000_001, 1, progress=lambda *a: calls.append(a))
    assert [c[:2] for c in calls if c[0] % 1_000_000 in (0, 1)][-2:] == [
        (1_000_000, 1_000_001), (1_000_001, 1_000_001)], calls
    if calls[-1][2] < 250.0:
        assert len(calls) == 2, f"a quick run reports its two batch ends alone: {calls}"
