"""Rays from the host against built scenes: the hit dict, global primitive ids and the
generated meshes' geometry."""
import numpy as np
import pytest

import vesk_gpu as vk

F = np.float32
KEYS = {"t", "position", "shading_normal", "geometric_normal", "material_id", "instance_id",
        "primitive_id", "hit"}


def test_hit_dict_t_range_and_primitive_bookkeeping(cube_scene):
    # Transforms, normals and ids are checked against analytic boxes in the C++ suite;
    # here the dict the binding builds: keys, dtypes, miss defaults, the t range.
    s = cube_scene
    assert s.get_instance_primitive_offsets() == [0, 12]
    assert s.instance_triangle_counts() == [12, 12]
    o = np.array([[3, 0, 10], [3, 0, 10], [3, 0, 10]], F)
    d = np.array([[0, 0, -1]] * 3, F)
    near = s.trace_closest(o, d)
    short = s.trace_closest(o, d, t_max=9.0)
    inside = s.trace_closest(o, d, t_min=9.6)  # starts past the top face: hits the bottom
    assert set(near) == KEYS
    assert near["hit"].dtype == np.bool_ and near["primitive_id"].dtype == np.int32
    assert near["position"].shape == (3, 3) and near["t"].dtype == np.float32
    assert short["t"][0] == np.finfo(F).max and short["primitive_id"][0] == -1
    assert short["instance_id"][0] == -1 and short["material_id"][0] == -1
    np.testing.assert_array_equal(short["shading_normal"][0], [0, 0, 1])
    assert near["t"][0] == pytest.approx(9.5) and near["instance_id"][0] == 1
    assert not short["hit"][0]
    assert inside["t"][0] == pytest.approx(10.5)
    # Seen from inside the bottom face is a back face: its normal is turned to the ray.
    np.testing.assert_allclose(inside["geometric_normal"][0], [0, 0, 1], atol=1e-6)
    geo = s.primitive_geometry()
    assert geo["vertices"].shape == (24, 3, 3) and geo["normals"].shape == (24, 3)
    np.testing.assert_array_equal(geo["instance_ids"], np.repeat([0, 1], 12))
    np.testing.assert_array_equal(geo["primitive_ids"], np.arange(24))
    np.testing.assert_allclose(geo["areas"].sum(), 12.0, rtol=1e-6)
    np.testing.assert_array_equal(s.get_primitive_areas(), geo["areas"])
    np.testing.assert_array_equal(s.get_primitive_normals(), geo["normals"])
    assert s.get_primitive_mat_ids().dtype == np.int32


def test_generated_meshes_trace_where_their_shapes_are():
    s = vk.EmbreeSceneManager()
    plane = vk.make_ground_plane(5.0, 5.0, material_id=2, max_tri_edge=1.0)
    sphere = vk.make_sphere(1.0, np.array([0, 0, 3.5], F), subdivisions=4)
    stem = vk.make_cylinder(0.25, 2.0, segments=16)
    for mesh in (plane, sphere, stem):
        s.add_instance(s.add_mesh(**mesh))
    s.build()
    o = np.array([[4, 4, 10], [0, 0, 10], [0.1, 0, 10], [3, 0, 1], [0, 0, 1.5]], F)
    d = np.array([[0, 0, -1], [0, 0, -1], [0, 0, -1], [-1, 0, 0], [0, 0, 1]], F)
    h = s.trace_closest(o, d)
    assert h["material_id"][0] == 2 and h["t"][0] == pytest.approx(10)
    assert h["t"][1] == pytest.approx(5.5, abs=2e-3)  # top of the sphere, z = 4.5
    np.testing.assert_allclose(h["shading_normal"][1], [0, 0, 1], atol=1e-3)
    assert h["t"][3] == pytest.approx(2.75, abs=5e-3)  # stem side at radius 0.25
    np.testing.assert_allclose(h["shading_normal"][3], [1, 0, 0], atol=1e-6)
    # From inside the stem the top cap is a back face, its normal turned to the ray.
    assert h["instance_id"][4] == 2 and h["t"][4] == pytest.approx(0.5)
    np.testing.assert_allclose(h["geometric_normal"][4], [0, 0, -1], atol=1e-6)
