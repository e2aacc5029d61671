"""Flux, forward and BRF photons on the Vulkan device against the CPU forms: the same
photons (each global index has the CPU's generator), so results agree to float rounding
on surfaces and within Monte Carlo error through a turbid layer; energy closure on a
white furnace. The Makefile runs this file on both trace paths."""
import numpy as np
import pytest

import vesk_gpu as vk
from test_vulkan import COMPATIBLE, canopy, leaf_canopy, lit_plane
from test_vulkan_media import layer

pytestmark = [pytest.mark.usefixtures("no_vulkan_validation_messages"),
              pytest.mark.skipif(not COMPATIBLE, reason="no Vulkan device with ray queries")]

F = np.float32
DIRS = np.array([0, 0, 1, 0.5, 0.2, 0.8, -0.6, 0.1, 0.5], F)


@pytest.fixture(scope="module")
def context():
    return vk.VulkanContext(0)


@pytest.fixture(scope="module")
def scenes(context):
    """Pairs of (CPU, Vulkan) scenes built alike: a Lambertian plane in a finite box under
    sun and sky, and a repeated leaf canopy under sun and sky."""
    rng = np.random.default_rng(7)
    leaves = canopy(rng, 150)
    leaves[:, [3, 7]] = rng.uniform(0, 6, (150, 2))
    out = {}
    for name, make in [("plane", lambda s: lit_plane(s, 800.0, 15.0)),
                       ("canopy", lambda s: leaf_canopy(s, leaves))]:
        out[name] = tuple(make(s) for s in (vk.EmbreeSceneManager(),
                                            vk.VulkanSceneManager(context, "trace_closest.spv")))
    return out


# Each process with its CPU entry, on the same arguments.
LAYERS = np.array([0.0, 1.5, 3.0, 5.0], F)
RUNS = {
    "flux": (lambda c, n: vk.simulate_flux_cpu(c, 5, 4, n, 2, prob_sun=0.6, max_bounces=3,
                                               decompose=True),
             lambda g, n: g.simulate_flux(5, 4, n, 2, prob_sun=0.6, max_bounces=3, decompose=True)),
    "forward": (lambda c, n: vk.simulate_forward_cpu(c, 3, 2, LAYERS, n, 2, per_leaf=True,
                                                     brf_directions=DIRS, num_brf_dirs=3,
                                                     prob_sun=0.6, max_depth=8,
                                                     terrain_instance_id=0),
                lambda g, n: g.simulate_forward_radiation(3, 2, LAYERS, n, 2, per_leaf=True,
                                                          brf_directions=DIRS, num_brf_dirs=3,
                                                          prob_sun=0.6, max_depth=8,
                                                          terrain_instance_id=0)),
    "brf": (lambda c, n: vk.simulate_brf_cpu(c, DIRS, n, max_depth=8),
            lambda g, n: g.simulate_brf(DIRS, n, max_depth=8)),
}
WORKFLOW = {"flux": "optical_flux", "forward": "optical_forward", "brf": "optical_brf"}


@pytest.mark.parametrize("scene", ["plane", "canopy"])
@pytest.mark.parametrize("process", ["flux", "forward", "brf"])
def test_photons_agree_with_the_cpu_to_float_rounding(scenes, context, scene, process):
    cpu, gpu = scenes[scene]
    n = 6000 if scene == "canopy" else 3000
    cpu_run, gpu_run = RUNS[process]
    a, b = cpu_run(cpu, n), gpu_run(gpu, n)
    assert b.keys() == a.keys()
    assert b["_execution"] == {"backend": "vulkan", "workflow": WORKFLOW[process],
                               "executor": f"vulkan.{context.trace_path}.{WORKFLOW[process]}",
                               "native": True}
    for k in a:
        if k == "_execution":
            continue
        assert b[k].shape == a[k].shape and b[k].dtype == a[k].dtype, k
        scale = np.abs(a[k]).max()
        # The plane is the terrain: its absorption is in 'terrain', none in the layers.
        empty_here = k in ("truncated", "transmitted", "absorbed_outside") or (scene == "plane" and k.startswith("grid"))
        assert scale > 0 or empty_here, f"{k} is empty: the scene tests nothing"
        # Same photons and draws: a path differs only where float rounding tips a branch,
        # which moves one photon's share in a cell, never a whole grid.
        rel = np.abs(b[k] - a[k]) / np.where(a[k] != 0, np.abs(a[k]), 1)
        if rel.size >= 8:
            assert np.median(rel) < 1e-6, f"{k}: device and CPU photons differ (median {np.median(rel):.2e})"
        np.testing.assert_allclose(b[k], a[k], rtol=1e-3, atol=1e-6 * scale, err_msg=k)
    if scene == "plane" and process != "flux":
        # A Lambertian plane reflects rho in every direction, whatever the light.
        rho = np.array([0.3, 0.6])
        np.testing.assert_allclose(b["albedo"], rho, rtol=1e-5, err_msg="albedo of the plane")
        np.testing.assert_allclose(b["brf"], np.broadcast_to(rho, (3, 2)), rtol=1e-5,
                                   err_msg="BRF of a Lambertian plane")


def white_furnace(s):
    """A white Lambertian ground that is exactly a repeated 4 x 4 tile, under a sun 30
    degrees from the zenith."""
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([1.0, 500.0], F))
    s.add_material(0, 0, [])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(2, 2, 0, 4.0)), x=2.0, y=2.0)
    s.set_emitter(0, np.array([0.5, 0.0, np.sqrt(0.75)], F), 1)
    s.set_repetitive(2, 4.0, 4.0)
    s.build()
    return s


def test_a_white_furnace_sends_up_all_it_receives(context):
    s = white_furnace(vk.VulkanSceneManager(context, "trace_closest.spv"))
    n = 8192
    r = s.simulate_flux(4, 3, n, 1, max_depth=4, rr_depth=16)
    incident = 500.0 * np.sqrt(0.75) * 16.0  # irradiance on the tile times its area
    down, up = r["downwelling"].sum(dtype=np.float64), r["upwelling"].sum(dtype=np.float64)
    assert down == pytest.approx(incident, rel=1e-6), "every sun photon lands on the ground once"
    assert up == pytest.approx(down, rel=1e-6), "a white ground without roulette sends all of it up"
    # Each cell receives its area's share, within Monte Carlo error.
    cell = incident / 12.0
    counts = r["downwelling"][..., 0] / (incident / n)
    z = (counts - n / 12.0) / np.sqrt(n / 12.0 * (1 - 1 / 12.0))  # binomial per cell
    assert np.abs(z).max() < 5, f"cells off their share: z = {z.round(2)}"
    assert r["downwelling"].mean() == pytest.approx(cell, rel=1e-6)
    # A deep limit (never reached here: one bounce, then the sky) makes the device run the
    # same photons in several smaller dispatches; the fixed-point sums must not notice.
    calls = []
    deep = s.simulate_flux(4, 3, n, 1, max_depth=2000, rr_depth=16,
                           progress=lambda *a: calls.append(a[0]))
    assert len(calls) > 1, "the deep run should take several dispatches"
    for k in ("downwelling", "upwelling"):
        assert np.array_equal(deep[k], r[k]), f"{k} depends on the dispatch size"


@pytest.mark.parametrize("call, error, message", [
    (lambda s: s.simulate_flux(0, 2, 100, 1), ValueError,
     "flux grid dimensions and band count must be positive"),
    (lambda s: s.simulate_flux(2, 2, 0, 1), ValueError, "Embree flux photon count must be positive"),
    (lambda s: s.simulate_flux(2, 2, 100, 1, prob_sun=1.5), ValueError, "prob_sun must lie in [0, 1]"),
    (lambda s: s.simulate_forward_radiation(2, 2, np.array([1.0], F), 100), ValueError,
     "layer_heights must hold at least two finite, strictly increasing boundaries"),
    (lambda s: s.simulate_forward_radiation(2, 2, None, 100, terrain_instance_id=5), IndexError,
     "terrain_instance_id 5 is outside [-1, 1)"),
    (lambda s: s.simulate_brf(np.array([0, 0, -1.0], F), 100), ValueError,
     "BRF observation directions must point upward"),
    (lambda s: s.simulate_brf(np.zeros(0, F), 100), ValueError,
     "directions must be a nonempty flat float3 array"),
    (lambda s: s.simulate_brf(DIRS, 100, max_depth=0), ValueError,
     "BRF photon count and maximum depth must be positive"),
], ids=["grid", "photons", "prob_sun", "layers", "terrain", "downward", "empty", "depth"])
def test_bad_input_gets_the_cpu_message_and_leaves_the_scene_as_it_was(context, call, error, message):
    cpu, gpu = (lit_plane(s) for s in (vk.EmbreeSceneManager(),
                                       vk.VulkanSceneManager(context, "trace_closest.spv")))
    cpu_entry = {"simulate_flux": vk.simulate_flux_cpu,
                 "simulate_forward_radiation": vk.simulate_forward_cpu,
                 "simulate_brf": vk.simulate_brf_cpu}

    class OnCpu:
        def __getattr__(self, name):
            return lambda *a, **k: cpu_entry[name](cpu, *a, **k)

    for target in (OnCpu(), gpu):
        with pytest.raises(error) as caught:
            call(target)
        assert str(caught.value).strip("'\"") == message
    before = gpu.geometry_build_revision()
    assert gpu.simulate_brf(DIRS[:3], 64)["brf"].shape == (1, 2), "the scene still works"
    assert gpu.geometry_build_revision() == before


def test_unbuilt_scenes_and_progress(context):
    cpu, gpu = vk.EmbreeSceneManager(), vk.VulkanSceneManager(context, "trace_closest.spv")
    errors = []
    for run in (lambda: vk.simulate_flux_cpu(cpu, 2, 2, 10, 1), lambda: gpu.simulate_flux(2, 2, 10, 1)):
        with pytest.raises(Exception) as caught:
            run()
        errors.append((type(caught.value), str(caught.value)))
    assert errors[0] == errors[1], "an unbuilt scene is refused as on the CPU"
    s = lit_plane(gpu, sky=10.0)
    calls = []
    s.simulate_flux(2, 2, 300, 2, prob_sun=0.5, progress=lambda *a: calls.append(a[:2]))
    assert calls and calls[-1] == (300, 300), "the last report is the whole run"


@pytest.fixture(scope="module")
def turbid(context):
    """A leaf layer with a hot spot filling a repeated tile over a soil, under sun and sky,
    on both backends."""
    out = []
    for s in (vk.EmbreeSceneManager(), vk.VulkanSceneManager(context, "trace_closest.spv")):
        layer(s)
        s.build()
        out.append(s)
    return out


TURBID_LAYERS = np.array([0.0, 1.2, 2.5], F)
TURBID_RUNS = {
    "flux": lambda s, first: (vk.simulate_flux_cpu if isinstance(s, vk.EmbreeSceneManager) else
                              lambda s, *a, **k: s.simulate_flux(*a, **k))(
        s, 4, 4, CHUNK, 2, prob_sun=0.6, decompose=True, first_photon=first),
    "forward": lambda s, first: (vk.simulate_forward_cpu if isinstance(s, vk.EmbreeSceneManager) else
                                 lambda s, *a, **k: s.simulate_forward_radiation(*a, **k))(
        s, 2, 2, TURBID_LAYERS, CHUNK, 2, brf_directions=DIRS, num_brf_dirs=3, prob_sun=0.6,
        terrain_instance_id=0, first_photon=first),
    "brf": lambda s, first: (vk.simulate_brf_cpu if isinstance(s, vk.EmbreeSceneManager) else
                             lambda s, *a, **k: s.simulate_brf(*a, **k))(
        s, DIRS, CHUNK, first_photon=first),
}
CHUNK = vk.PHOTON_CHUNK
BATCHES = 6


@pytest.mark.parametrize("process", ["flux", "forward", "brf"])
def test_photons_through_a_turbid_layer_agree_with_the_cpu(turbid, process):
    """Through media a float rounding can tip a free path past a boundary or a rejected
    leaf normal, after which a photon takes another path: the backends then agree within
    Monte Carlo error, judged by the spread of the CPU's results over batches of photons,
    while emission (no medium involved) stays equal to rounding."""
    cpu, gpu = turbid
    run = TURBID_RUNS[process]
    for k in range(BATCHES):
        a, b = run(cpu, k * CHUNK), run(gpu, k * CHUNK)
        if k == 0:
            cpu_runs, gpu_runs = {n: [] for n in a if n != "_execution"}, {n: [] for n in a if n != "_execution"}
        for n in cpu_runs:
            cpu_runs[n].append(a[n].astype(np.float64))
            gpu_runs[n].append(b[n].astype(np.float64))
    assert b["_execution"]["executor"].endswith("optical_" + process)
    for n in cpu_runs:
        c, g = np.array(cpu_runs[n]), np.array(gpu_runs[n])
        if n in ("incident", "incident_grid"):
            np.testing.assert_allclose(g, c, rtol=1e-6, err_msg=f"{n}: emission differs")
            continue
        scale = np.abs(c).max()
        assert scale > 0 or n in ("truncated", "transmitted", "absorbed_outside"), f"{n} is empty"
        # The batches' mean error and the difference of the two means, cell by cell.
        sigma = c.std(axis=0, ddof=1) / np.sqrt(BATCHES)
        diff = g.mean(axis=0) - c.mean(axis=0)
        z = diff / np.sqrt(2 * sigma**2 + (1e-6 * scale) ** 2 + 1e-30)
        assert np.abs(z).max() < 5, f"{n}: the device departs from the CPU by {np.abs(z).max():.1f} sigma"
