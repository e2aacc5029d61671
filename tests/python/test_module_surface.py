"""The module's attributes, entries, keyword names and the docstrings users rely on."""
import inspect

import numpy as np
import pytest

import vesk_gpu as vk


def test_module_attributes_and_flags():
    assert vk.__doc__ == "VESK - multi-backend 3D Radiative Transfer Model"
    assert vk.__version__ == "3.0.0rc1"
    assert vk.HAS_EMBREE is True
    # No OptiX backend in this build, and then none of its classes either.
    assert vk.HAS_OPTIX is False and vk.HAS_VULKAN is True
    for name in ("SceneManager", "OptiXContext", "Simulator"):
        assert not hasattr(vk, name), name
    # Blocks: microwave evaluators, Vulkan (its flag just ahead), generators, CPU.
    names = list(vars(vk))
    order = ["_evaluate_microwave_trunk_ground", "HAS_VULKAN", "list_vulkan_devices",
             "VulkanContext", "HAS_OPTIX", "make_ground_plane", "HAS_EMBREE",
             "EmbreeSceneManager"]
    assert [names.index(n) for n in order] == sorted(names.index(n) for n in order)


def test_keywords_and_defaults_of_the_scene_surface(cube):
    s = vk.EmbreeSceneManager()
    m = s.add_mesh(vertices=cube["vertices"], normals=cube["normals"], indices=cube["indices"])
    assert s.add_instance(mesh_id=m) == 0
    assert s.add_instance_xform(mesh_id=m, xform=np.eye(3, 4, dtype=np.float32)) == 1
    assert s.add_instances_xform(mesh_id=m, xforms=np.zeros((0, 12), np.float32)) == 2
    s.set_sensor(type=0, width=4, height=2, ortho_w=1.0, ortho_h=1.0,
                 cam_xform=np.eye(4, dtype=np.float32).ravel())
    cfg = s.sensor_config()
    # fov defaults to 60 degrees even for an orthographic sensor, stored in radians.
    assert cfg["fov"] == pytest.approx(np.float32(60.0) * np.float32(3.1415927) / 180, rel=1e-7)
    assert cfg["projection_type"] == 0
    s.set_repetitive(num_repetitions=2, scene_x_size=5.0, scene_y_size=6.0)
    assert s.repetitive_config() == (2, 5.0, 6.0)
    s.set_hw_sky(spectral_offset=3, sun_x=0.0, sun_y=0.0, sun_z=1.0)
    s.set_thermal_mode(enabled=True, wavelengths=[10000.0])
    assert s.thermal_mode() and s.band_wavelengths() == [10000.0]
    s.set_measurement_plane(height=2.0)
    s.set_num_bands(3)  # positional only
    with pytest.raises(TypeError):
        s.set_num_bands(n=3)
    g = vk.make_ground_plane()
    assert g["vertices"][:, 0].max() == 50.0 and g["material_id"] == 0


def test_docstrings_of_the_override_setters():
    docs = {
        "set_primitive_temperatures": "Upload per-primitive temperatures (K). Length must equal "
        "n_primitives(). Closesthit thermal mode reads these in preference to mat.params[2..4] "
        "when set.",
        "clear_primitive_temperatures": "Clear the per-primitive temperature override (kernel "
        "reverts to mat.params[2..4]).",
        "get_primitive_temperatures": "Return host-side per-primitive temperatures (mostly for "
        "testing).",
        "set_primitive_sif_spectra": "Upload per-primitive SIF emission spectra. spectra: "
        "float32[n_sif_bands * n_primitives] SoA (band-major). After upload, the backward kernel "
        "emits SIF from each hit primitive.",
        "set_sif_only_mode": "Enable/disable SIF-only mode. When true the backward kernel returns "
        "pure SIF emission and suppresses optical reflectance (BSDF/NEE/sky).",
        "set_instance_sif_spectra": "Upload per-instance TurbidBoundary SIF spectra in band-major "
        "layout [n_sif_bands * num_instances].",
        "set_instance_turbid_thermal_state": "Upload conditional TurbidBoundary thermal state by "
        "instance.",
        "add_instances_xform": "Batch-add N instances of one mesh from a (N, 12) row-major float32 "
        "array. Returns the index of the FIRST added instance.",
        "is_populate_primitive_soa": "Whether the per-primitive SoA will be (or has been) "
        "populated on the next build (true if explicitly enabled or implied by thermal/SIF mode).",
        "set_populate_primitive_soa": "Enable per-primitive SoA + per-instance lookup tables for "
        "the next build(). Required by EB / SIF / RRT-based paths.",
    }
    for name, text in docs.items():
        doc = inspect.getdoc(getattr(vk.EmbreeSceneManager, name))
        # pybind11 puts the signature first; the text follows it unchanged.
        assert doc.split("\n", 2)[-1].strip() == text, name


def test_cpu_entries_are_registered_in_their_documented_order():
    names = list(vars(vk))
    order = ["simulate_cpu", "simulate_brf_cpu", "simulate_forward_cpu", "simulate_flux_cpu",
             "run_energy_balance_cpu", "run_energy_balance_multiband_cpu", "run_turbid_leaf_rrt_cpu",
             "solve_physiology_cpu",
             "execute_photosynthesis_process_static_cpu",
             "execute_photosynthesis_process_dynamic_cpu", "execute_energy_balance_process_cpu",
             "finalize_sif_process_cpu", "assemble_sif_source_cpu"]
    assert [names.index(n) for n in order] == sorted(names.index(n) for n in order)
    kept = {"run_energy_balance_cpu": "Run the energy balance reverse RT kernel. Returns (top, "
            "bot) numpy arrays of length n_primitives. bot is empty when two_sided=False. "
            "sw_albedos: optional float32[n_primitives] for 2-bounce SW NEE.",
            "run_energy_balance_multiband_cpu": "Run the multi-band energy-balance "
            "reverse-transport kernel. Returns (top, bot, sunlit_fraction). Spectral arrays "
            "have shape [n_bands, n_primitives] and sunlit_fraction is per primitive. bot is "
            "empty when two_sided=False. Split reflectance/transmittance arrays enable true Mesh "
            "multi-scattering; sw_albedos is retained for legacy callers."}
    for name, text in kept.items():
        assert inspect.getdoc(getattr(vk, name)).split("\n", 2)[-1].startswith(text), name
