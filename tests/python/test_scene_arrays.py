"""Host arrays in, native errors out: shape rules, their exact texts, exception types,
narrowing, and a scene left exactly as it was by every failed call."""
import numpy as np
import pytest

import vesk_gpu as vk
from conftest import scene_state, unit_cube

F = np.float32
XF = np.eye(3, 4, dtype=F).ravel()


def sif_fields(n_inst, **over):
    args = dict(spatial_spectra=np.zeros(n_inst * 8 * 2, F),
                orientation_spectra=np.zeros(n_inst * 6 * 2, F),
                joint_spectra=np.zeros(n_inst * 8 * 6 * 2, F),
                direct_joint_spectra=np.zeros(n_inst * 8 * 6 * 2, F),
                bounds_min=np.zeros(3 * n_inst, F), bounds_max=np.ones(3 * n_inst, F),
                grid_dims=np.full(3 * n_inst, 2, np.int32), n_sif_bands=2,
                spatial_cell_stride=8, orientation_theta_bins=2, orientation_phi_bins=3)
    args.update(over)
    return args


BAD_CALLS = [
    ("add_mesh", lambda s, c: s.add_mesh(np.zeros((0, 4), F), c["normals"], c["indices"]),
     "vertices, normals, and indices must have shape (N, 3)"),
    ("add_mesh", lambda s, c: s.add_mesh(c["vertices"], np.zeros(3, F), c["indices"]),
     "vertices, normals, and indices must have shape (N, 3)"),
    ("add_mesh", lambda s, c: s.add_mesh(c["vertices"], c["normals"], c["indices"][:, :2]),
     "vertices, normals, and indices must have shape (N, 3)"),
    ("add_instance_xform", lambda s, c: s.add_instance_xform(0, np.zeros(11, F)),
     "transform must contain 12 floats"),
    ("update_instance_transform", lambda s, c: s.update_instance_transform(0, XF.reshape(3, 4)),
     "xform must have shape (12,)"),
    ("add_instances_xform", lambda s, c: s.add_instances_xform(0, np.zeros(12, F)),
     "add_instances_xform: expected (N, 12) float32 array"),
    ("add_instances_xform", lambda s, c: s.add_instances_xform(0, np.zeros((2, 11), F)),
     "transforms must have shape (N, 12)"),
    ("set_emitter", lambda s, c: s.set_emitter(0, np.zeros(2, F), 0),
     "direction must contain three values"),
    ("update_emitter_direction", lambda s, c: s.update_emitter_direction(np.zeros(4, F)),
     "direction must contain three values"),
    ("trace_closest", lambda s, c: s.trace_closest(np.zeros((2, 3), F), np.zeros((3, 3), F)),
     "origins and directions must have matching shape (N, 3)"),
    ("trace_closest", lambda s, c: s.trace_closest(np.zeros(3, F), np.zeros(3, F)),
     "origins and directions must have matching shape (N, 3)"),
    ("set_primitive_emissivities", lambda s, c: s.set_primitive_emissivities(np.ones((2, 12), F)),
     "emissivities must be 1D"),
    ("set_primitive_temperatures", lambda s, c: s.set_primitive_temperatures(np.ones((24, 1), F)),
     "temperatures must be 1D"),
    ("set_primitive_temperatures", lambda s, c: s.set_primitive_temperatures(np.ones(23, F)),
     "Embree primitive temperature count must equal n_primitives()"),
    ("add_mesh", lambda s, c: s.add_mesh(c["vertices"], c["normals"], c["indices"] + 1),
     "mesh triangle 2 references a vertex outside the vertex buffer"),
    ("set_instance_sif_source_fields",
     lambda s, c: s.set_instance_sif_source_fields(**sif_fields(2, orientation_phi_bins=0)),
     "set_instance_sif_source_fields: dimensions must be positive"),
    ("set_instance_sif_source_fields",
     lambda s, c: s.set_instance_sif_source_fields(**sif_fields(1)),
     "set_instance_sif_source_fields: array length mismatch"),
    ("set_instance_sif_source_fields",
     lambda s, c: s.set_instance_sif_source_fields(
         **sif_fields(2, grid_dims=np.array([3, 3, 1, 2, 2, 2], np.int32))),
     "set_instance_sif_source_fields: invalid instance grid"),
    ("set_instance_sif_source_fields",  # values are checked before the grids
     lambda s, c: s.set_instance_sif_source_fields(**sif_fields(
         2, spatial_spectra=np.full(32, np.nan, F),
         grid_dims=np.array([3, 3, 1, 2, 2, 2], np.int32))),
     "spatial_spectra contains a non-finite value"),
    ("set_instance_turbid_thermal_state",
     lambda s, c: s.set_instance_turbid_thermal_state(np.ones(2, F), np.ones(2, F),
                                                      np.full(2, 1.5, F), np.ones(2, F)),
     "instance turbid thermal state is outside its domain"),
    ("set_sensor", lambda s, c: s.set_sensor(0, -4, 4, 1.0, 1.0, np.eye(4, dtype=F).ravel()),
     "sensor width and height must not be negative"),
]

NAN, INF = float("nan"), float("inf")
I4 = np.eye(4, dtype=F).ravel()


def with_value(a, i, v):
    a = np.array(a, F)
    a.flat[i] = v
    return a


# Numbers Embree cannot trace, or that make no physical sense, refused where they enter.
BAD_NUMBERS = [
    ("add_mesh", lambda s, c: s.add_mesh(with_value(c["vertices"], 4, NAN), c["normals"],
                                         c["indices"]), "vertices contains a non-finite value"),
    ("add_mesh", lambda s, c: s.add_mesh(with_value(c["vertices"], 4, 1e20), c["normals"],
                                         c["indices"]),
     "vertices contains a value beyond 1e9 in magnitude"),
    ("add_instance", lambda s, c: s.add_instance(0, x=NAN), "x contains a non-finite value"),
    ("add_instance", lambda s, c: s.add_instance(0, scale=0.0), "scale must be nonzero"),
    ("add_instance_xform", lambda s, c: s.add_instance_xform(0, with_value(XF, 3, INF)),
     "xform contains a non-finite value"),
    ("add_instances_xform", lambda s, c: s.add_instances_xform(0, np.stack([XF, 0 * XF])),
     "xforms is singular"),
    ("update_instance_transform", lambda s, c: s.update_instance_transform(0, 2e9 * XF),
     "xform contains a value beyond 1e9 in magnitude"),
    ("update_instance_transform", lambda s, c: s.update_instance_transform(0, 1e-12 * XF),
     "xform is singular"),
    ("set_emitter", lambda s, c: s.set_emitter(0, np.array([0, NAN, 1], F), 0),
     "direction contains a non-finite value"),
    ("set_emitter", lambda s, c: s.set_emitter(0, np.array([0, 0, 1], F), -2**31),
     "spectral_offset must be -1 (absent) or a buffer index"),
    ("update_emitter_direction", lambda s, c: s.update_emitter_direction(np.array([INF, 0, 1])),
     "direction contains a non-finite value"),
    ("set_repetitive", lambda s, c: s.set_repetitive(2**31 - 1, 10.0, 10.0),
     "num_repetitions must lie in [0, 100000]"),
    ("set_repetitive", lambda s, c: s.set_repetitive(5, INF, 10.0),
     "scene_x_size contains a non-finite value"),
    ("set_repetitive", lambda s, c: s.set_repetitive(5, 10.0, 1e-40),
     "scene_y_size must be 0 or lie in [0.01, 1e9]"),
    ("set_measurement_plane", lambda s, c: s.set_measurement_plane(NAN),
     "height contains a non-finite value"),
    ("set_sensor", lambda s, c: s.set_sensor(2, 4, 4, 1.0, 1.0, I4),
     "sensor type must be 0 (orthographic), 1 (perspective), 3 (pushbroom) or 4 (fisheye)"),
    ("set_sensor", lambda s, c: s.set_sensor(0, 4, 4, 1.0, 1.0, with_value(I4, 3, NAN)),
     "cam_xform contains a non-finite value"),
    ("set_primitive_temperatures", lambda s, c: s.set_primitive_temperatures(np.full(24, -1, F)),
     "temperatures contains a negative value"),
    ("upload_spectral_params", lambda s, c: s.upload_spectral_params(np.array([0.1, NAN], F)),
     "values contains a non-finite value"),
    ("add_material", lambda s, c: s.add_material(0, 0, [INF]),
     "scalar_params contains a non-finite value"),
    ("set_num_bands", lambda s, c: s.set_num_bands(-1), "num_bands must lie in [1, 100000]"),
    ("trace_closest", lambda s, c: s.trace_closest(np.array([[0, 0, 1e19]], F),
                                                   np.array([[0, 0, -1]], F)),
     "origins contains a value beyond 1e9 in magnitude"),
    ("trace_closest", lambda s, c: s.trace_closest(np.zeros((1, 3), F), np.ones((1, 3), F),
                                                   t_min=-1.0),
     "t_min must be finite and non-negative"),
    ("trace_closest", lambda s, c: s.trace_closest(np.zeros((1, 3), F), np.ones((1, 3), F),
                                                   t_max=NAN), "t_max must not be NaN"),
    ("set_instance_sif_source_fields",
     lambda s, c: s.set_instance_sif_source_fields(**sif_fields(
         2, grid_dims=np.array([2**31 - 1, 2**31 - 1, 4, 2, 2, 2], np.int32))),
     "set_instance_sif_source_fields: invalid instance grid"),
]
BAD_CALLS += BAD_NUMBERS


@pytest.mark.parametrize("name,call,text", BAD_CALLS, ids=[b[0] for b in BAD_CALLS])
def test_bad_input_raises_value_error_and_changes_nothing(cube_scene, cube, name, call, text):
    cube_scene.set_primitive_temperatures(np.full(24, 300.0, F))
    before = scene_state(cube_scene)
    with pytest.raises(ValueError) as err:
        call(cube_scene, cube)
    assert str(err.value) == text, f"{name} raised the wrong text"
    assert scene_state(cube_scene) == before, f"{name} changed the scene although it failed"


def test_bad_indices_and_bad_state_map_to_index_and_runtime_errors(cube):
    s = vk.EmbreeSceneManager()
    with pytest.raises(IndexError, match=r"^instance mesh id 0 is outside \[0, 0\)$"):
        s.add_instance(0)
    m = s.add_mesh(**cube)
    with pytest.raises(IndexError, match=r"^instance mesh id -2 is outside \[0, 1\)$"):
        s.add_instances_xform(-2, np.zeros((1, 12), F))
    # An empty batch answers the instance count and never looks at the mesh id.
    assert s.add_instances_xform(99, np.zeros((0, 12), F)) == 0
    s.add_instance(m)
    with pytest.raises(IndexError, match="^update_instance_transform: id out of range$"):
        s.update_instance_transform(1, XF)
    with pytest.raises(RuntimeError, match=r"^refit_ias: scene not built\. Call build\(\) first\.$"):
        s.refit_ias()
    with pytest.raises(RuntimeError):
        s.trace_closest(np.zeros((1, 3), F), np.ones((1, 3), F))
    with pytest.raises(ValueError, match="^mesh must contain at least one vertex$"):
        s.add_mesh(np.zeros((0, 3), F), np.zeros((0, 3), F), np.zeros((0, 3), np.int32))
    with pytest.raises(ValueError, match="^center must contain three values$"):
        vk.make_sphere(1.0, np.zeros(2, F))


def test_float64_and_strided_input_is_narrowed_not_refused():
    s = vk.EmbreeSceneManager()
    v = np.array([[0.1, 0.2, 0.3], [1.1, 0.2, 0.3], [0.1, 1.2, 0.3]], np.float64)
    idx = np.array([[0, 1, 2]], np.int64)
    m = s.add_mesh(v, np.zeros((0, 3)), idx)
    xf = np.zeros((2, 24))[:, ::2]  # a non-contiguous float64 view
    xf[:, [0, 5, 10]] = 1.0
    xf[1, 3] = 5.0
    assert s.add_instances_xform(m, xf) == 0
    geo = s.primitive_geometry()
    assert geo["vertices"].dtype == np.float32
    np.testing.assert_array_equal(geo["vertices"][0], v.astype(np.float32))
    assert geo["vertices"][1, 0, 0] == np.float32(np.float32(0.1) + np.float32(5.0))


def test_empty_normals_give_flat_shading_and_given_normals_smooth_it():
    quad = {"vertices": np.array([[-1, -1, 0], [1, -1, 0], [1, 1, 0], [-1, 1, 0]], F),
            "indices": np.array([[0, 1, 2], [0, 2, 3]], np.int32)}
    tilted = np.tile(np.array([0.0, 0.6, 0.8], F), (4, 1))
    s = vk.EmbreeSceneManager()
    flat = s.add_mesh(quad["vertices"], np.zeros((0, 3), F), quad["indices"])
    smooth = s.add_mesh(quad["vertices"], tilted, quad["indices"])
    s.add_instance(flat)
    s.add_instance(smooth, x=5.0)
    s.build()
    h = s.trace_closest(np.array([[0.2, 0.1, 3], [5.2, 0.1, 3]], F),
                        np.array([[0, 0, -1], [0, 0, -1]], F))
    np.testing.assert_allclose(h["shading_normal"][0], [0, 0, 1], atol=1e-7)
    np.testing.assert_allclose(h["shading_normal"][1], [0, 0.6, 0.8], atol=1e-6)


def test_short_camera_matrices_and_long_material_lists(cube):
    s = vk.EmbreeSceneManager()
    s.set_sensor(1, 8, 4, 0.0, 0.0, np.arange(1, 7, dtype=F), fov=90.0, projection_type=2,
                 terrain_following=True)
    cfg = s.sensor_config()
    assert cfg["camera_to_world"] == [1, 2, 3, 4, 5, 6] + [0] * 10
    assert (cfg["type"], cfg["width"], cfg["height"], cfg["projection_type"]) == (1, 8, 4, 2)
    assert cfg["fov"] == pytest.approx(np.pi / 2, rel=1e-6)
    # Nine entries: eight are kept, the ninth is ignored without complaint.
    assert s.add_material(0, 5, [0.1] * 9) == 0
    assert s.add_material(13, 0, [0.4, 0.5]) == 1
    with pytest.raises(TypeError):
        s.add_material(0, 0, ["warm"])
