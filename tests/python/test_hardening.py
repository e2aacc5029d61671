"""What users run into first: runs that must refuse rather than crash, hang, or return
quiet nonsense; callbacks that misbehave; Ctrl-C; huge requests; the thread count."""
import os
import signal
import subprocess
import sys
import textwrap
import time
import warnings

import numpy as np
import pytest

import vesk_gpu as vk
from conftest import scene_state

F = np.float32
CAMERA = np.array([1, 0, 0, 5, 0, 1, 0, 5, 0, 0, 1, 10, 0, 0, 0, 1], F)


def ground(rho=0.3, sun=(0.0, 0.0, 1.0), sun_offset=1, pixels=4):
    """A 10 m Lambertian ground of reflectance rho under the sun, seen from above."""
    s = vk.EmbreeSceneManager()
    s.upload_spectral_params(np.array([rho, 1000.0], F))
    s.add_material(0, 0, [rho])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(5, 5, 0, 10)), 5.0, 5.0, 0.0)
    s.set_emitter(0, np.array(sun, F), sun_offset)
    s.set_sensor(0, pixels, pixels, 10.0, 10.0, CAMERA)
    s.build()
    return s


RUNS = {
    "backward": lambda s, cb: vk.simulate_cpu(s, spp=3, progress=cb),
    "flux": lambda s, cb: vk.simulate_flux_cpu(s, 1, 1, 2_500_000, 1, progress=cb),
    "forward": lambda s, cb: vk.simulate_forward_cpu(s, num_photons=2_500_000, progress=cb),
}


@pytest.mark.parametrize("run", RUNS)
def test_callbacks_that_raise_or_change_the_scene_stop_the_run_cleanly(run):
    s = ground()
    with pytest.raises(ZeroDivisionError):
        RUNS[run](s, lambda *a: 1 / 0)
    before = scene_state(s)
    # The scene is read-only while its run lasts: the mutation fails inside the callback.
    with pytest.raises(RuntimeError, match="^the scene cannot be changed while a simulation "
                                           "is running on it$"):
        RUNS[run](s, lambda *a: s.upload_spectral_params(np.zeros(2, F)))
    with pytest.raises(RuntimeError, match="while a simulation is running"):
        RUNS[run](s, lambda *a: s.build())
    assert scene_state(s) == before
    RUNS[run](s, None)  # and the scene is fine for the next run


def test_stale_and_reused_structures_are_refused():
    s = vk.EmbreeSceneManager()
    s.add_instance(s.add_mesh(**vk.make_ground_plane(5, 5, 0, 10)))
    with pytest.raises(RuntimeError, match="^build_reuse_gas: no acceleration structure"):
        s.build_reuse_gas()
    s = ground()
    s.add_instance(0, x=20.0)  # not traced until the next build
    assert not s.is_built()
    with pytest.raises(RuntimeError, match=r"^scene not built\. Call build\(\) first\.$"):
        vk.simulate_cpu(s, spp=1)
    with pytest.raises(RuntimeError, match="^build_reuse_gas: no acceleration structure"):
        s.build_reuse_gas()
    s.build()
    s.clear_for_reuse()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([0.3, 1000.0], F))
    s.add_material(0, 0, [0.3])
    s.build_reuse_gas()
    assert vk.simulate_cpu(s, spp=1)["payload"].shape == (4, 4, 1)


def test_settings_that_used_to_give_quiet_nonsense():
    rho, E = 0.3, 1000.0
    # A sun direction of any length means the same sun.
    s = ground(sun=(0.0, 0.0, 5.0))
    np.testing.assert_allclose(vk.simulate_cpu(s, spp=2)["payload"], rho * E / np.pi, rtol=1e-5)
    s.set_sensor(0, 0, 0, 1.0, 1.0, CAMERA)
    with pytest.raises(ValueError, match="^the sensor has no pixels"):
        vk.simulate_cpu(s)
    s = ground(rho=-0.3)
    with pytest.raises(ValueError, match="^the spectral block of material 0 contains a negative"):
        vk.simulate_cpu(s, spp=1)
    # A sun without a spectrum (offset -1) is no sun: nothing is read before the buffer.
    dark = vk.simulate_flux_cpu(ground(sun_offset=-1), 2, 2, 1000, 1)
    assert not dark["downwelling"].any()
    # One output name may be given as a plain string.
    r = vk.simulate_cpu(ground(), spp=2, outputs="standard_error")
    assert set(r) == {"payload", "standard_error", "_execution"}
    with pytest.raises(TypeError, match="^outputs must hold strings, not int$"):
        vk.simulate_cpu(ground(), outputs=["radiance", 3])
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        far = vk.EmbreeSceneManager()
        far.add_instance(far.add_mesh(**vk.make_ground_plane(5, 5, 0, 10)), 500.0, 0.0, 0.0)
        far.build()
    assert [str(w.message) for w in caught] == [
        "the scene box reaches 505 scene units from the origin; float precision there biases "
        "results (centre the scene near the origin)"]


def test_thermal_photon_runs_need_no_band_wavelengths():
    s = ground()
    s.set_thermal_mode(True, [])
    assert vk.simulate_flux_cpu(s, 1, 1, 100, 1)["downwelling"].sum() > 0
    vk.simulate_brf_cpu(s, np.array([0, 0, 1], F), 100)
    with pytest.raises(ValueError, match="^thermal mode needs one band wavelength per band$"):
        vk.simulate_cpu(s, spp=1)


@pytest.mark.parametrize("call,size", [
    (lambda s: (s.set_sensor(0, 100000, 100000, 1.0, 1.0, CAMERA), vk.simulate_cpu(s)),
     "a 100000 x 100000 x 1 image needs 120 GB"),
    (lambda s: vk.simulate_flux_cpu(s, 46340, 46340, 10, 1), "a 46340 x 46340 x 1 grid needs"),
    (lambda s: vk.simulate_forward_cpu(s, 46340, 46340, num_photons=10),
     "a 46340 x 46340 x 1 x 1 grid needs"),
])
def test_requests_that_cannot_fit_in_memory_are_refused_up_front(call, size):
    with pytest.raises(MemoryError, match=size):
        call(ground())


def test_index_products_that_would_overflow_are_refused():
    with pytest.raises(ValueError, match="^max_output_order must not exceed 100000$"):
        vk.simulate_cpu(ground(), outputs=["scattering_order"], max_output_order=2**31 - 1)
    # A 0.5 m trunk at 10 THz: a million orders, refused rather than run for minutes.
    trunk = np.array([0.5, 6.0, 0.5, 295.0, 0.0, 0.0, 1.0], F)
    soil = np.array([0.3, 0.2, 0.25, 0.0, 1.0, 1.5, 0.0, 295.0, 290.0, 1, 0.01, 0.0], F)
    d = np.array([[0.7, 0.0, -0.714]], F)
    with pytest.raises(ValueError, match="^trunk too large for the frequency"):
        vk._evaluate_microwave_trunk_ground(1e13, soil, trunk, d, d, np.array([[0, 0, 1]], F))


def run_python(code, env=None, **kwargs):
    full = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path), **(env or {}))
    return subprocess.Popen([sys.executable, "-c", textwrap.dedent(code)], env=full,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kwargs)


@pytest.mark.parametrize("run", [
    "vk.simulate_cpu(s, spp=10**8)",
    "vk.simulate_cpu(s, spp=10**8, progress=lambda *a: None)",
    "vk.simulate_flux_cpu(s, 2, 2, 10**12, 1)",
    # A few primitives with billions of samples each: only a check between samples stops it.
    "vk.run_energy_balance_cpu(s, n_samples=2**31 - 1, sky_diffuse_radiance=100.0)",
    "vk.run_energy_balance_multiband_cpu(s, 1, n_samples=2**31 - 1, sky_diffuse_radiance="
    "np.ones(1, np.float32), sw_albedos=np.full(s.n_primitives(), 0.3, np.float32))",
])
def test_ctrl_c_stops_a_long_run_within_half_a_second(run):
    p = run_python(f"""
        import sys, time; sys.path.insert(0, {os.path.dirname(__file__)!r})
        import numpy as np
        from test_hardening import ground, vk
        s = ground(pixels=32)
        print("running", flush=True)
        try:
            {run}
        except KeyboardInterrupt:
            print("interrupted at %.6f" % time.time())
    """)
    assert p.stdout.readline().strip() == "running"
    time.sleep(1.0)
    sent = time.time()
    p.send_signal(signal.SIGINT)
    out, _ = p.communicate(timeout=30)
    assert "interrupted at" in out, out
    lag = float(out.split("interrupted at")[1].split()[0]) - sent
    assert lag < 0.5, f"the run went on {lag:.2f} s after Ctrl-C"


def test_thread_count_follows_the_environment_and_the_affinity_mask():
    code = """
        import sys; sys.path.insert(0, {here!r})
        from test_hardening import ground, vk
        vk.simulate_forward_cpu(ground(), num_photons=10)
    """.format(here=os.path.dirname(__file__))
    def threads(env=None, cpus=None):
        preexec = (lambda: os.sched_setaffinity(0, cpus)) if cpus else None
        out, _ = run_python(code, env, preexec_fn=preexec).communicate(timeout=60)
        return out.split(" bands, ")[1].split(" threads")[0]
    clean = {"VESK_NUM_THREADS": "", "OMP_NUM_THREADS": ""}
    assert threads(dict(clean, VESK_NUM_THREADS="3", OMP_NUM_THREADS="5")) == "3"
    assert threads(dict(clean, OMP_NUM_THREADS="5,2")) == "5"
    assert threads(clean, cpus={0}) == "1"


def test_images_and_photon_results_do_not_depend_on_the_thread_count(monkeypatch):
    s = ground(sun=(0.3, 0.2, 0.9), pixels=6)
    up = np.array([0, 0, 1, 0.5, 0.2, 0.84], F)
    runs = []
    for n in ("1", "3"):
        monkeypatch.setenv("VESK_NUM_THREADS", n)
        runs.append([vk.simulate_cpu(s, spp=3)["payload"],
                     vk.simulate_flux_cpu(s, 3, 3, 20000, 1)["downwelling"],
                     vk.simulate_forward_cpu(s, 3, 3, None, 20000, 1, True, up, 2)["grid"],
                     vk.simulate_brf_cpu(s, up, 20000)["brf"]])
    for one, three in zip(*runs):
        np.testing.assert_array_equal(one, three)


def test_request_keys_are_named_when_missing_mistyped_or_misspelled():
    from test_physiology import leaf_request
    s = vk.EmbreeSceneManager()
    r = leaf_request()
    del r["co2"]
    with pytest.raises(KeyError, match="request is missing the key 'co2'"):
        vk.solve_physiology_cpu(s, r)
    for key, value, expected in [("max_iterations", None, "an int"),
                                 ("tolerance", "small", "a float"),
                                 ("wind", None, "a float array")]:
        r = leaf_request()
        r[key] = value
        with pytest.raises(TypeError, match=f"^request\\['{key}'\\] must be {expected}, not "):
            vk.solve_physiology_cpu(s, r)
    r = leaf_request()
    r["dynamic_energy_ballance"] = True
    with pytest.warns(UserWarning, match="^request key 'dynamic_energy_ballance' is not read by "
                                         "solve_physiology_cpu$"):
        vk.solve_physiology_cpu(s, r)


@pytest.mark.parametrize("quiet", [None, "0", "1"])
def test_vesk_quiet_silences_the_tracers_log_lines(quiet):
    # A child process, so that the environment is that of a user's shell.
    env = {k: v for k, v in os.environ.items() if k != "VESK_QUIET"}
    if quiet is not None:
        env["VESK_QUIET"] = quiet
    script = textwrap.dedent("""
        import numpy as np, vesk_gpu as vk
        s = vk.EmbreeSceneManager()
        s.upload_spectral_params(np.array([0.3, 1000.0], np.float32))
        s.add_material(0, 0, [0.3])
        s.add_instance(s.add_mesh(**vk.make_ground_plane(5, 5, 0, 10)), 5.0, 5.0, 0.0)
        s.set_emitter(0, np.array([0, 0, 1], np.float32), 1)
        s.set_repetitive(2, 10.0, 10.0)
        s.build()
        vk.simulate_flux_cpu(s, 2, 2, 100, 1)
        vk.simulate_forward_cpu(s, num_photons=100)
        print("done")
    """)
    out = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True,
                         text=True, timeout=60)
    assert out.returncode == 0, out.stderr
    logged = [line for line in out.stdout.splitlines() if line != "done"]
    if quiet == "1":
        assert logged == [], "VESK_QUIET=1 must silence every tracer line"
    else:
        assert [line.split(":")[0] for line in logged] == ["Forward flux (CPU)",
                                                           "Forward fPAR (CPU)"]


def request_forms():
    """Per process entry: the call, a request in 2-D form, the counts of the flat form,
    the arrays it flattens, and a count changed to contradict the 2-D shapes."""
    from test_energy_balance import dyn_request, eb_request, leaf, scene_of
    from test_photosynthesis import photosynthesis_request
    from test_physiology import leaf_request
    from test_sif import assembly_request, sif_request
    spectra = ("absorbed_top", "absorbed_bottom")
    return {
        "static": (vk.execute_photosynthesis_process_static_cpu, photosynthesis_request(),
                   dict(n_elements=5, n_bands=4, n_materials=3),
                   spectra + ("absorbed_direct",), dict(n_bands=3)),
        "sif": (vk.finalize_sif_process_cpu, sif_request(),
                dict(n_elements=4, n_bands=5, n_selected=2, n_materials=2), spectra,
                dict(n_elements=3)),
        "assembly": (vk.assemble_sif_source_cpu, assembly_request(),
                     dict(n_instances=2, n_samples=8, n_bands=2),
                     ("positions", "normals", "grid_dims", "source", "direct_source",
                      "bounds_min", "bounds_max"), dict(n_samples=9)),
        "leaf": (vk.solve_physiology_cpu, leaf_request(), dict(n_elements=4, n_bands=2), (),
                 dict(n_bands=1)),
        "dynamic": (lambda s, r: vk.execute_photosynthesis_process_dynamic_cpu(scene_of(leaf()), r),
                    dyn_request(2, n_samples=4, max_iterations=3), dict(n_elements=2), (),
                    dict(n_elements=3)),
        "energy": (lambda s, r: vk.execute_energy_balance_process_cpu(scene_of(leaf()), r),
                   eb_request(2, n_samples=4, max_iterations=3), dict(n_elements=2), (),
                   dict(n_elements=1)),
    }


@pytest.mark.parametrize("entry", ["static", "sif", "assembly", "leaf", "dynamic", "energy"])
def test_process_requests_take_flat_arrays_with_counts_or_2d_arrays(entry):
    run, request, counts, flattened, wrong = request_forms()[entry]
    s = vk.EmbreeSceneManager()
    flat = {**request, **counts, **{k: np.ravel(request[k]) for k in flattened}}
    with warnings.catch_warnings():
        warnings.simplefilter("error")  # no key the documentation names may draw a warning
        shaped, given = run(s, request), run(s, flat)
    for key in shaped:
        if key != "_execution":
            np.testing.assert_array_equal(given[key], shaped[key], err_msg=f"{entry}: {key}")
    (key, value), = wrong.items()
    with pytest.raises(ValueError, match=rf"^request\['{key}'\] = {value} does not match "):
        run(s, {**request, **counts, **wrong})


def media_ground():
    s = ground()
    s.set_optical_turbid_media([1.0], [0], [1], [0.05], [-1])
    return s


UP = np.array([0.0, 0.0, 1.0], F)
ROWS = np.array([[5.0, 5.0, 3.0], [1.0, 2.0, 3.0]], F)
# Every query entry (the scene's and the microwave evaluators) with working arguments; the
# sweep puts NaN, inf and (in directions) zero in one argument, or in one coordinate of
# it, at a time.
QUERIES = {
    "trace_closest": (lambda s, **a: s.trace_closest(**a), dict(
        origins=ROWS, directions=-ROWS / np.linalg.norm(ROWS, axis=1)[:, None], t_min=1e-4,
        t_max=1e30), {"directions"}),
    "sample_combined_free_path": (lambda s, **a: s.sample_combined_free_path(**a), dict(
        active_medium_ids=np.array([0], np.int32), direction=UP, distance_sample=0.5,
        selection_sample=0.5), {"direction"}),
    "conditional_hotspot_transmittance": (lambda s, **a: s.conditional_hotspot_transmittance(
        **a), dict(medium_id=0, optical_depth=1.0, initial_medium_distance=1.0,
                   observation_distance=0.5, source_direction=np.array([0.3, 0.2, 0.93], F),
                   observation_direction=UP), {"source_direction", "observation_direction"}),
}
SOIL = np.array([0.3, 0.2, 0.25, 0, 1, 1.5, 0, 295, 290, 1, 0.01, 0], F)
TRUNK = np.array([0.15, 6.0, 0.4, 295.0, 0.0, 0.0, 1.0], F)
COSINES = np.cos(np.radians([0.0, 30.0, 60.0])).astype(F)
QUERIES.update({
    "_evaluate_microwave_soil": (lambda s, **a: vk._evaluate_microwave_soil(**a), dict(
        frequency=1.4e9, parameters=SOIL, cosines=COSINES, active=True), set()),
    "_evaluate_microwave_soil_reflectivity": (
        lambda s, **a: vk._evaluate_microwave_soil_reflectivity(**a),
        dict(frequency=5.3e9, parameters=SOIL, cosines=COSINES, allow_hallikainen=True), set()),
    "_evaluate_microwave_trunk": (lambda s, **a: vk._evaluate_microwave_trunk(**a), dict(
        frequency=1.4e9, parameters=TRUNK, cosines=COSINES), set()),
    "_evaluate_microwave_trunk_ground": (lambda s, **a: vk._evaluate_microwave_trunk_ground(**a),
                                         dict(frequency=1.4e9, soil_parameters=SOIL,
                                              trunk_parameters=TRUNK,
                                              directions_to_trunk=np.array([[0.7, 0, -0.714]], F),
                                              directions_to_ground=np.array([[0.7, 0, -0.714]], F),
                                              ground_normals=UP[None]),
                                         {"directions_to_trunk", "directions_to_ground",
                                          "ground_normals"}),
    "_microwave_cylinder_amplitude": (lambda s, **a: vk._microwave_cylinder_amplitude(**a), dict(
        frequency=1.4e9, radius=0.1, permittivity=8 + 2.5j, elevation_incident=0.3,
        elevation_scattered=0.2, phi=0.7), set()),
})


def bad_arguments():
    for name, (_, args, directions) in QUERIES.items():
        for arg, value in args.items():
            if isinstance(value, (int, complex)) or isinstance(value, np.ndarray) and \
                    value.dtype != F:
                continue
            bad = ["nan", "inf", "-inf"] + (["zero"] if arg in directions else [])
            if arg == "t_max":  # any t_max but NaN is an interval: infinite or empty
                bad = ["nan"]
            for what in bad:
                yield name, arg, what


@pytest.mark.parametrize("name, arg, what", list(bad_arguments()))
def test_queries_refuse_non_finite_numbers_and_zero_directions_by_name(name, arg, what):
    call, args, _ = QUERIES[name]
    s = media_ground()
    value = args[arg]
    if what == "zero":
        value = np.zeros_like(value)
    elif isinstance(value, np.ndarray):  # one coordinate is enough to spoil a vector
        value = value.copy()
        value.flat[-1] = float(what)
    else:
        value = float(what)
    before = scene_state(s)
    with pytest.raises(ValueError, match=f"^{arg} "):
        call(s, **{**args, arg: value})
    assert scene_state(s) == before
    call(s, **args)  # and the working call still works
