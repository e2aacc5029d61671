"""The element processes on the Vulkan device (leaf solver, static photosynthesis, SIF
finalisation and assembly, the leaf-area sampler) against their CPU forms. They trace no
rays, so one trace path covers them. The coupled processes (energy balance, dynamic
photosynthesis) do trace, through the energy-balance transport whose two trace paths the
transport suite compares with the CPU."""
import numpy as np
import pytest

import vesk_gpu as vk
from conftest import unit_cube
from test_turbid_domains import cube, owner, sphere, torus
from test_turbid_domains import request as domain_request

F, I = np.float32, np.int32
COMPATIBLE = [d for d in vk.list_vulkan_devices() if d["compatible"]]
# lavapipe rounds division and square root as IEEE 754 does, so there the device's float
# arithmetic is the host's to the bit; other devices may round them within a few ulp.
IEEE_DEVICE = bool(COMPATIBLE) and "llvmpipe" in COMPATIBLE[0]["name"]

pytestmark = [pytest.mark.usefixtures("no_vulkan_validation_messages"),
              pytest.mark.skipif(not COMPATIBLE, reason="no compatible Vulkan device")]


@pytest.fixture(scope="module")
def scenes():
    context = vk.VulkanContext(0)
    return vk.EmbreeSceneManager(), vk.VulkanSceneManager(context), context


def assert_same(got, ref, what=""):
    """Every array of ref in got with the same shape, type and bytes."""
    for k in ref:
        if k == "_execution":
            continue
        a, b = np.ascontiguousarray(got[k]), np.ascontiguousarray(ref[k])
        assert a.shape == b.shape and a.dtype == b.dtype, f"{what}{k}: {a.shape} {a.dtype} vs {b.shape} {b.dtype}"
        bad = np.flatnonzero((a.view(np.uint8) != b.view(np.uint8)).reshape(a.size, -1).any(1)) \
            if a.size else []
        assert len(bad) == 0, f"{what}{k} differs from the CPU at {bad[:5]}: " \
                              f"{a.ravel()[bad[:5]]} vs {b.ravel()[bad[:5]]}"


# ---- leaf solver ------------------------------------------------------------------------

def leaf_elements(rng, n, energy):
    """Leaves across the physiological range, with the edge cases in the first rows: dark,
    zero intercept and dark, zero yield, ci below Gamma star, calm air, clamped hot and cold
    leaves, and saturating light."""
    u = lambda lo, hi: rng.uniform(lo, hi, n).astype(F)  # noqa: E731
    r = dict(apar=np.stack([u(0, 1200), u(0, 800)], 1), temperature=u(268, 318), co2=u(80, 900),
             relative_humidity=u(0.05, 1.0), vpd=u(0, 3), pressure=u(60, 105), wind=u(0, 8),
             vcmax25=u(0, 150), jmax25=u(0, 300), rd25=u(0, 3), ball_berry_slope=u(0, 16),
             ball_berry_intercept=u(0, 0.1), quantum_yield=u(0, 1), max_iterations=40,
             tolerance=1e-4)
    edge = [("apar", 0.0), ("ball_berry_intercept", 0.0), ("quantum_yield", 0.0), ("co2", 20.0),
            ("wind", 0.0), ("apar", 5000.0), ("temperature", 200.0), ("temperature", 350.0)]
    for row, (key, value) in enumerate(edge):
        r[key][row] = value
    r["apar"][1] = 0.0
    if energy:
        r.update(dynamic_energy_balance=True, absorbed_shortwave=u(0, 900),
                 absorbed_longwave=u(250, 450), air_temperature=u(270, 315),
                 vapor_pressure=u(200, 3000), emissivity=u(0.9, 1.0),
                 sidedness=rng.choice(F([1, 2]), n), leaf_width=u(0.005, 0.2),
                 stomata_sides=rng.choice(F([1, 2]), n))
        r["absorbed_shortwave"][6], r["absorbed_longwave"][6] = 0.0, 0.0   # pressed to 200 K
        r["absorbed_shortwave"][7] = 5e5                                   # pressed to 350 K
    return r


@pytest.mark.parametrize("energy", [False, True])
def test_leaf_solver_matches_the_cpu_lane_for_lane(scenes, rng, energy):
    cpu, gpu, _ = scenes
    req = leaf_elements(rng, 100_000, energy)
    ref, got = vk.solve_physiology_cpu(cpu, req), vk.solve_physiology_vulkan(gpu, req)
    assert got["_execution"]["executor"] == "vulkan.slang.physiology_solver"
    assert set(got) == set(ref)
    assert np.array_equal(got["converged"], ref["converged"]), "a convergence flag differs"
    assert not ref["converged"].all() or energy, "the set has no non-converging element"
    assert np.abs(got["an"] - ref["an"]).max() <= 1e-3, "net assimilation differs beyond 1e-3"
    if energy:
        assert np.abs(got["temperature"] - ref["temperature"]).max() <= 1e-3
    if IEEE_DEVICE:
        assert_same(got, ref)


def test_the_workspace_follows_new_values_shapes_and_modes(scenes, rng):
    cpu, gpu, _ = scenes
    for n, energy in [(300, False), (300, False), (301, True), (300, False)]:
        req = leaf_elements(rng, n, energy)  # fresh values every call, same shape twice
        ref, got = vk.solve_physiology_cpu(cpu, req), vk.solve_physiology_vulkan(gpu, req)
        assert np.abs(got["an"] - ref["an"]).max() <= 1e-3, f"stale inputs at n={n}"
        assert np.array_equal(got["converged"], ref["converged"])


@pytest.mark.parametrize("key, index, value, error, text", [
    ("apar", (0, 0), -1.0, ValueError, "^apar cannot be negative$"),
    ("co2", 3, np.nan, ValueError, "^co2 contains a non-finite value$"),
    ("relative_humidity", 2, 1.5, ValueError, "^physiology input is outside its physical domain$"),
    ("temperature", slice(None), None, RuntimeError, "^temperature must have shape"),
])
def test_the_solver_refuses_with_the_cpu_messages(scenes, rng, key, index, value, error, text):
    cpu, gpu, _ = scenes
    req = leaf_elements(rng, 8, False)
    if value is None:
        req[key] = req[key][:5]
    else:
        req[key][index] = value
    for entry, scene in [(vk.solve_physiology_cpu, cpu), (vk.solve_physiology_vulkan, gpu)]:
        with pytest.raises(error, match=text):
            entry(scene, req)


# ---- static photosynthesis ----------------------------------------------------------------

def test_static_photosynthesis_matches_the_cpu(scenes, rng):
    cpu, gpu, _ = scenes
    n, wl = 3000, F([380.0, 400.0, 550.0, 700.0, 700.1, 850.0])
    spectrum = lambda hi: rng.uniform(0, hi, (n, len(wl))).astype(F)  # noqa: E731
    top, bottom = spectrum(3.0), spectrum(1.0)
    m = lambda lo, hi: rng.uniform(lo, hi, 4).astype(F)  # noqa: E731
    req = dict(absorbed_top=top, absorbed_bottom=bottom,
               absorbed_direct=((top + bottom) * rng.uniform(0, 1.2, (n, 1))).astype(F),
               wavelengths=wl, sunlit_fraction=rng.choice(F([0, 0.3, 1]), n),
               material_ids=rng.integers(-1, 4, n).astype(I),
               material_active=np.array([1, 1, 0, 1], np.uint8),
               material_fluorescent=np.array([1, 0, 1, 1], np.uint8),
               temperature_sunlit=rng.uniform(285, 315, n).astype(F),
               temperature_shaded=rng.uniform(280, 305, n).astype(F),
               vcmax25=m(20, 120), jmax25=m(40, 240), rd25=m(0.5, 2), ball_berry_slope=m(4, 12),
               ball_berry_intercept=m(0, 0.05), quantum_yield=m(0, 0.06), co2=410.0,
               relative_humidity=0.6, max_iterations=40, tolerance=1e-4)
    ref = vk.execute_photosynthesis_process_static_cpu(cpu, req)
    got = vk.execute_photosynthesis_process_static_vulkan(gpu, req)
    assert got["_execution"]["executor"] == "vulkan.slang.photosynthesis_process_static"
    assert set(got) == set(ref)
    for k in ("active_mask", "converged", "temperature", "apar", "apar_sunlit", "apar_shaded"):
        assert np.array_equal(got[k], ref[k]), k
    for k in ("an", "an_sunlit", "an_shaded"):
        assert np.abs(got[k] - ref[k]).max() <= 1e-3, k
    if IEEE_DEVICE:
        assert_same(got, ref)
    with pytest.raises(ValueError, match="^photosynthesis material input is outside its domain$"):
        vk.execute_photosynthesis_process_static_vulkan(
            gpu, {**req, "material_active": np.array([1, 2, 0, 1], np.uint8)})


# ---- SIF ----------------------------------------------------------------------------------

@pytest.mark.parametrize("element_phi_f", [False, True])
def test_sif_finalisation_is_the_cpu_gather_exactly(scenes, rng, element_phi_f):
    cpu, gpu, _ = scenes
    n, bands = 500, 7
    req = dict(absorbed_top=rng.uniform(0, 5, (n, bands)).astype(F),
               absorbed_bottom=rng.uniform(0, 2, (n, bands)).astype(F),
               material_ids=rng.integers(-1, 3, n).astype(I),
               material_phi_f=F([0.01, 0.02, 0.04]), selected_band_indices=I([0, 3, 6]))
    if element_phi_f:
        req["element_phi_f"] = rng.uniform(0, 1, n).astype(F)
    ref, got = vk.finalize_sif_process_cpu(cpu, req), vk.finalize_sif_process_vulkan(gpu, req)
    assert got["_execution"]["executor"] == "vulkan.slang.sif_process_finalization"
    assert_same(got, ref)
    with pytest.raises(ValueError, match="^selected_band_indices must be strictly increasing"):
        vk.finalize_sif_process_vulkan(gpu, {**req, "selected_band_indices": I([3, 3])})


def assembly_samples(rng, n):
    """Samples over two instances, with the rule's edge cases: points on faces, on the
    box's faces and just past them, normals on bin edges, vertical and zero normals."""
    pos = rng.uniform(-0.01, 2.01, (n, 3)).astype(F)
    nrm = rng.normal(size=(n, 3)).astype(F)
    pos[:40, 0] = F([0.0, 0.5, 1.0, 1.5, 2.0, 2.0 + 1.5e-6, -1.5e-6, 2.0 + 5e-6] * 5)
    nrm[40:60] = F([[0, 0, 1], [0, 0, -1], [1, 0, 0], [0, 1, 0], [-1, 0, 0], [0, -1, 0],
                    [1, 1, 0], [1, -1, 0], [0, 0, 0], [0.5, 0.5, 0.70710677]] * 2)
    nrm[60:80] = np.stack([np.cos(np.arange(20) * np.pi / 6), np.sin(np.arange(20) * np.pi / 6),
                           np.full(20, 0.3)], 1).astype(F)  # on azimuth edges of 12 bins
    bands = 3
    return dict(positions=pos, normals=nrm, instance_ids=rng.integers(0, 2, n).astype(I),
                grid_dims=I([[4, 3, 2], [2, 2, 2]]), source=rng.uniform(0, 4, (bands, n)).astype(F),
                direct_source=rng.uniform(0, 1, (bands, n)).astype(F),
                bounds_min=np.zeros((2, 3), F), bounds_max=np.full((2, 3), 2.0, F),
                cell_stride=26, theta_bins=3, phi_bins=12)


def test_source_assembly_tables_are_the_cpu_bits_on_every_run(scenes, rng):
    cpu, gpu, _ = scenes
    req = assembly_samples(rng, 20000)
    ref = vk.assemble_sif_source_cpu(cpu, req)
    runs = [vk.assemble_sif_source_vulkan(gpu, req) for _ in range(2)]
    assert runs[0]["_execution"]["executor"] == "vulkan.slang.sif_source_assembly"
    assert ref["joint_counts"].sum() < 20000, "no sample was dropped: the edge cases are missing"
    for got in runs:
        assert_same(got, ref, what="assembly ")
    with pytest.raises(ValueError, match="^SIF grid_dims must be positive and fit cell_stride$"):
        vk.assemble_sif_source_vulkan(gpu, {**req, "cell_stride": 20})


# ---- leaf-area sampler --------------------------------------------------------------------

@pytest.mark.parametrize("mesh, lad, quality, seed, budget", [
    (cube(), 0, "preview", 7, 0),
    (sphere(1.0, (3, 0, 1)), 1, "standard", 11, 700),
    (sphere(1.0, inward=True), 3, "high", 2 ** 40 + 5, 300),
    (torus(), 4, "standard", 123, 500),
    (cube(), 2, "high", 0, 64),
    (cube(), 5, "preview", 99, 1000),
])
def test_sampler_candidates_and_samples_equal_the_cpu_bit_for_bit(scenes, mesh, lad, quality,
                                                                  seed, budget):
    cpu, gpu, _ = scenes
    o = owner(mesh, leaf_angle_distribution=lad)
    if mesh[1][0][0] != cube()[1][0][0] and lad == 3:
        o["closed_orientation"] = -1
    req = domain_request(o, owner(cube(), owner_id=2, leaf_angle_distribution=(lad + 1) % 6))
    ref = vk._debug_turbid_samples_embree(cpu, req, quality, seed, budget)
    got = vk._debug_turbid_samples_vulkan(gpu, req, quality, seed, budget)
    assert got["_execution"]["executor"] == "vulkan.slang.turbid_sampling"
    assert_same(got["payload"], {k: v for k, v in ref["payload"].items() if k != "semantics"})
    assert got["payload"]["semantics"] == ref["payload"]["semantics"]


def test_sampler_refuses_as_the_cpu_does(scenes):
    cpu, gpu, _ = scenes
    req = domain_request(owner(sphere()))  # about half the candidates fall inside
    for entry, scene in [(vk._debug_turbid_samples_embree, cpu),
                         (vk._debug_turbid_samples_vulkan, gpu)]:
        with pytest.raises(RuntimeError, match="acceptance was too low"):
            entry(scene, req, "preview", 7, 512, 600)


# ---- coupled processes: the host loop over the device transport (and leaf solver) ---------

@pytest.fixture(scope="module")
def canopies(scenes):
    from test_vulkan_transport import leaf_plot
    _, _, context = scenes
    return (leaf_plot(vk.EmbreeSceneManager(), n_leaves=300),
            leaf_plot(vk.VulkanSceneManager(context), n_leaves=300))


def coupled_request(process, n, rng):
    from test_energy_balance import dyn_request, eb_request
    # A tolerance no round reaches: both backends run every round and the final block.
    loop = dict(n_samples=8, max_iterations=3, convergence_tolerance=1e-6, damping=0.7)
    if process == "energy_balance":
        return eb_request(n, sw_direct=700.0, sw_diffuse_radiance=30.0, sun_dir_x=0.3,
                          sun_dir_y=-0.2, sun_dir_z=0.93, **loop)
    u = lambda lo, hi: rng.uniform(lo, hi, n).astype(F)  # noqa: E731
    active = (rng.uniform(size=n) > 0.1).astype(np.uint8)
    r = dyn_request(n, active=active, apar=u(50, 1500), absorbed_shortwave=u(30, 600),
                    emissivity=np.where(active, u(0.9, 1.0), 0).astype(F), **loop)
    if process == "dynamic_conditional":
        r.update(conditional=True, sunlit_fraction=u(0, 1), apar_sunlit=u(500, 1800),
                 apar_shaded=u(0, 300), shortwave_sunlit=u(300, 700), shortwave_shaded=u(0, 100))
    return r


ENTRIES = {"energy_balance": ("execute_energy_balance_process", "energy_balance_process"),
           "dynamic": ("execute_photosynthesis_process_dynamic", "photosynthesis_process_dynamic"),
           "dynamic_conditional": ("execute_photosynthesis_process_dynamic",
                                   "photosynthesis_process_dynamic")}


@pytest.mark.parametrize("process", list(ENTRIES))
def test_coupled_processes_match_the_cpu(canopies, rng, process):
    """The device transport draws the CPU's streams, so the loop takes the same path: the
    same rounds, and the elements within float rounding of the CPU, except the few whose
    longwave saw a sample sent elsewhere by a hit that rounding decided (rare in this
    sparse canopy, a few per cent of a dense one, where the longwave spreads each such
    sample to the neighbours)."""
    cpu, gpu = canopies
    entry, label = ENTRIES[process]
    req = coupled_request(process, cpu.n_primitives(), rng)
    ref = getattr(vk, entry + "_cpu")(cpu, req)
    got = getattr(vk, entry + "_vulkan")(gpu, req)
    assert got["_execution"]["executor"] == f"vulkan.slang.{label}"
    assert set(got) == set(ref)
    assert got["iterations"] == ref["iterations"] == 3 and got["converged"] == ref["converged"]
    np.testing.assert_allclose([h["max_dT"] for h in got["history"]],
                               [h["max_dT"] for h in ref["history"]], rtol=0.05)
    for k, v in ref.items():
        if isinstance(v, np.ndarray):
            a = got[k]
            assert a.shape == v.shape and a.dtype == v.dtype, k
            if v.dtype == bool:
                off = a != v
            else:
                off = np.abs(a - v) > 1e-4 * np.abs(v) + 1e-5 * (np.abs(v).max() if v.size else 0)
                np.testing.assert_allclose(a.sum(dtype=float), v.sum(dtype=float), rtol=2e-3,
                                           atol=1e-6, err_msg=f"{k}: totals differ")
            assert off.mean() <= 0.02 if off.size else True, \
                f"{k}: {off.sum()} of {off.size} elements differ beyond rounding"
    if process == "dynamic_conditional":
        assert ref["an_sunlit"].size and np.abs(ref["an_sunlit"] - ref["an_shaded"]).max() > 1
    # As on the CPU, the scene keeps the request's emissivities and the final temperatures.
    np.testing.assert_array_equal(gpu.get_primitive_temperatures(), got["temperature"])
    np.testing.assert_array_equal(gpu.get_primitive_emissivities(),
                                  cpu.get_primitive_emissivities())


@pytest.mark.parametrize("process, over, text", [
    ("dynamic", dict(co2=np.nan, damping=0.0), "dynamic photosynthesis scalar must be finite"),
    ("dynamic", dict(apar=np.ones(5, F)), "apar buffer length mismatch"),
    ("dynamic", "count", "dynamic photosynthesis element count must match the scene"),
    # Refused by the leaf solver inside the loop, after the emissivities were set.
    ("dynamic", "black", "dynamic physiology input is outside its physical domain"),
    ("energy_balance", dict(damping=2.0), "energy balance scalar is outside its domain"),
    ("energy_balance", "count", "energy balance element count must match the scene"),
])
def test_coupled_refusals_are_the_cpus_and_leave_the_scene_unchanged(canopies, rng, process,
                                                                     over, text):
    from conftest import scene_state
    cpu, gpu = canopies
    n = cpu.n_primitives()
    if over == "count":
        req = coupled_request(process, n + 1, rng)
    else:
        req = coupled_request(process, n, rng)
        if over == "black":
            req["emissivity"] = np.zeros(n, F)
        else:
            req.update(over)
    gpu.set_primitive_temperatures(np.full(n, 301, F))
    before = scene_state(gpu)
    entry = ENTRIES[process][0]
    for scene, suffix in [(cpu, "_cpu"), (gpu, "_vulkan")]:
        with pytest.raises(ValueError, match=f"^{text}$"):
            getattr(vk, entry + suffix)(scene, req)
    assert scene_state(gpu) == before
