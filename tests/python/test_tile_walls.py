"""A turbid layer whose sides lie on the walls of a repeated tile is horizontally
infinite: every tracer must keep it across the walls, as it does a layer set back from
them, and no photon may pass under the ground that covers the tile."""
import numpy as np
import pytest

import vesk_gpu as vk
from conftest import unit_cube
from test_backward import camera_towards, sun_dir

F = np.float32
W = 4.0
Z0, Z1 = 0.5, 2.5  # the layer's floor and top, m


def layer(density=0.0, lad=0, inset=0.0, zen=np.radians(30), az=0.0, leaf=(0.0, 0.0, 0.0),
          soil=0.0, reps=40, z0=Z0):
    """A turbid box from z0 to Z1 over a ground quad covering the W x W tile; inset moves
    its sides in from the walls (0: on them). Spectra: soil, leaf front/back/transmit, sun."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([soil, *leaf, 1000.0], F))
    s.add_material(0, 0, [soil])
    s.add_material(13, 1, [0.5, 0.5])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(W / 2, W / 2, 0, W)), W / 2, W / 2, 0.0)
    w = W - 2 * inset
    s.add_instance_xform(s.add_mesh(**unit_cube(), material_id=1),
                         np.array([w, 0, 0, W / 2, 0, w, 0, W / 2, 0, 0, Z1 - z0, (z0 + Z1) / 2], F))
    s.set_optical_turbid_media([density], [lad], [1], [0.0], [-1, 0])
    s.set_emitter(0, sun_dir(zen, az), 4)
    s.set_repetitive(reps, W, W)
    s.build()
    return s


def chunks(run, n, k=6):
    """Mean and standard error of a photon estimate over k independent runs of n photons."""
    v = np.array([run(n, i * n) for i in range(k)], np.float64)
    return v.mean(axis=0), v.std(axis=0, ddof=1) / np.sqrt(k)


@pytest.mark.parametrize("az", [0.0, 30.0, 45.0])
def test_a_clear_layer_on_the_walls_lets_all_sunlight_reach_the_ground(az):
    # Density 0: the layer is air, so the ground takes every photon, at every sun angle,
    # including rays through the tile corners (45 degrees).
    n = 100000  # one lost photon would show
    for zen in range(0, 71, 10):
        s = layer(zen=np.radians(zen), az=np.radians(az))
        r = vk.simulate_forward_cpu(s, 1, 1, None, n, 1, terrain_instance_id=0)
        got = r["terrain"].sum() / r["incident"][0]
        assert abs(got - 1.0) < 1e-5, \
            f"zenith {zen}, azimuth {az}: ground gets {got} of the light, the rest left the layer"


@pytest.mark.parametrize("lad", [0, 1, 2])  # spherical, planophile, erectophile
def test_a_black_layer_on_the_walls_transmits_by_beer_lambert(lad):
    n, zen = 20000, np.radians(40)
    s = layer(density=0.75, lad=lad, zen=zen, az=np.radians(20))
    r = vk.simulate_forward_cpu(s, 1, 1, None, n, 1, terrain_instance_id=0)
    g = np.interp(40.0, np.arange(91), s.optical_turbid_medium(0)["projection_g"])
    expected = np.exp(-g * 0.75 * (Z1 - Z0) / np.cos(zen))
    got = r["terrain"].sum() / r["incident"][0]
    # Black leaves and soil: each photon reaches the soil uncollided or not at all.
    sigma = np.sqrt(expected * (1 - expected) / n)
    assert abs(got - expected) < 4 * sigma, \
        f"transmittance {got} vs exp(-G L / mu) = {expected} (sigma {sigma})"
    assert r["transmitted"][0] == 0, "light passed under the ground"


@pytest.mark.parametrize("lai, floor", [(1.5, Z0), (4.5, Z0), (4.5, 0.0), (1.5, 1e-4)],
                         ids=["LAI 1.5", "LAI 4.5", "on the ground", "a hair above it"])
def test_a_white_furnace_layer_on_the_walls_returns_all_light(lai, floor):
    # Leaves and soil absorb nothing: all light leaves upward. The repetition budget is
    # large so that grazing photons under the layer do not run out of walls to cross. A
    # floor on the ground, or closer to it than any step a tracer takes, keeps it too.
    s = layer(density=lai / (Z1 - floor), leaf=(0.5, 0.5, 0.5), soil=1.0, reps=100000,
              az=np.radians(30), z0=floor)

    def run(n, first):
        r = vk.simulate_forward_cpu(s, 1, 1, None, n, 1, max_depth=10000, first_photon=first,
                                    terrain_instance_id=0)
        return r["escaped"][0] / r["incident"][0], r["transmitted"][0] / r["incident"][0]

    (albedo, below), (sigma, _) = chunks(run, 4 * 4096)
    assert abs(albedo - 1.0) < 4 * sigma, f"albedo {albedo} +- {sigma} of a white furnace"
    assert below <= 1e-5, f"{below} of the light passed under the ground"


def walls_and_set_back(**kw):
    return layer(inset=0.0, **kw), layer(inset=0.001, **kw)


GREEN = dict(density=0.75, leaf=(0.1, 0.1, 0.05), soil=0.3, zen=np.radians(30),
             az=np.radians(30))


def test_images_of_a_layer_on_the_walls_and_one_set_back_agree():
    images = []
    v = sun_dir(np.radians(40), np.radians(200))
    for s in walls_and_set_back(**GREEN):
        s.set_sensor(0, 24, 24, W, W, camera_towards(-v, list(np.array([2, 2, 1.5]) + 20 * v)))
        r = vk.simulate_cpu(s, spp=8, outputs=["standard_error"])
        images.append((r["payload"][..., 0].astype(np.float64),
                       r["standard_error"][..., 0].astype(np.float64)))
    (a, ea), (b, eb) = images
    # Column and row means: a wall that drops the layer shows as stripes along it.
    for axis in (0, 1):
        diff = a.mean(axis=axis) - b.mean(axis=axis)
        noise = np.sqrt((ea**2).sum(axis=axis) + (eb**2).sum(axis=axis)) / a.shape[axis]
        assert np.all(np.abs(diff) < 4 * noise + 1e-6), \
            f"image means along axis {axis} differ beyond noise: {diff} vs {noise}"


def test_brf_and_flux_of_a_layer_on_the_walls_and_one_set_back_agree():
    views = np.array([sun_dir(np.radians(55), np.radians(75)),
                      sun_dir(np.radians(35), np.radians(250))], F).ravel()
    brf, flux = [], []
    for s in walls_and_set_back(**GREEN):
        brf.append(chunks(lambda n, first: vk.simulate_brf_cpu(s, views, n, first_photon=first)
                          ["brf"][:, 0], 4 * 4096, 4))
        flux.append(chunks(lambda n, first: vk.simulate_flux_cpu(s, 2, 2, n, 1, first_photon=first)
                           ["downwelling"][..., 0], 4 * 4096, 4))
    for name, ((a, ea), (b, eb)) in (("BRF", brf), ("downwelling flux", flux)):
        noise = np.sqrt(ea**2 + eb**2)
        assert np.all(np.abs(a - b) < 4 * noise + 1e-6 * np.abs(b)), \
            f"{name} differs beyond noise: {a} vs {b} (sigma {noise})"


def test_copies_of_a_layer_wider_than_its_tile_overlap_and_add_up():
    # A black layer 1.5 tiles wide: near the walls its copies from the neighbouring tiles
    # overlap it, and in the corners four copies do. The uncollided sunlight is the mean
    # over the tile of exp(-G * density * (copies along the slant path)).
    n, zen, az, density, grow = 20000, np.radians(35), np.radians(20), 0.3, W / 4
    s = layer(density=density, inset=-grow, zen=zen, az=az)
    r = vk.simulate_forward_cpu(s, 1, 1, None, n, 1, terrain_instance_id=0)
    g = np.interp(35.0, np.arange(91), s.optical_turbid_medium(0)["projection_g"])

    def copies(x):
        x = np.mod(x, W)
        return 1 + (x < grow) + (x > W - grow)

    length, steps = (Z1 - Z0) / np.cos(zen), 400
    x, y = np.meshgrid((np.arange(200) + 0.5) * W / 200, (np.arange(200) + 0.5) * W / 200)
    tau = sum(copies(x + t * np.sin(zen) * np.cos(az)) * copies(y + t * np.sin(zen) * np.sin(az))
              for t in (np.arange(steps) + 0.5) * length / steps) * g * density * length / steps
    expected = np.exp(-tau).mean()
    got = r["terrain"].sum() / r["incident"][0]
    sigma = np.sqrt(expected * (1 - expected) / n)
    assert abs(got - expected) < 4 * sigma, \
        f"transmittance {got} vs {expected} of overlapping copies (sigma {sigma}); " \
        f"one copy alone would give {np.exp(-g * density * length)}"


def test_lidar_pulses_cross_the_walls_of_a_repeated_layer():
    # A slant pulse from 20 m up meets the repeated scene tiles away from where it starts,
    # crosses walls inside the layer and returns from the ground at 20 m / cos(40 deg).
    zen, az = np.radians(40), np.radians(30)
    d = -sun_dir(zen, az)
    grounds = []
    for s in walls_and_set_back(density=0.3, leaf=(0.4, 0.4, 0.1), soil=0.3):
        r = vk.simulate_lidar_cpu(s, np.array([2, 2, 20], F), d.astype(F), 1,
                                  beam_samples_per_dim=4, range_resolution=0.05, max_range=40.0)
        last = r["points"][r["points"][:, 6].argmax()]
        assert abs(last[6] - 20 / np.cos(zen)) < 0.1, f"no ground return at its range: {last}"
        grounds.append(last[3])
        point = vk.simulate_lidar_cpu(s, np.array([2, 2, 20], F), d.astype(F), 1,
                                      direct_mode=True)["points"]
        assert point.shape[0] == 1 and abs(point[0, 6] - (20 - Z1) / np.cos(zen)) < 1e-3, \
            f"the first surface is the layer's top: {point}"
    np.testing.assert_allclose(grounds[0], grounds[1], rtol=2e-3,
                               err_msg="the ground echo through a layer on the walls")
