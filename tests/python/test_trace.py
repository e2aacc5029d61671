"""Rays against built scenes: analytic hits through instance transforms, global
primitive ids, bounds, refits and the generators' geometry."""
import numpy as np
import pytest

import vesk_gpu as vk

F = np.float32
KEYS = {"t", "position", "shading_normal", "geometric_normal", "material_id", "instance_id",
        "primitive_id", "hit"}


def rot_z(deg, scale=1.0, t=(0, 0, 0)):
    c, s = np.cos(np.radians(deg)), np.sin(np.radians(deg))
    m = np.array([[c, -s, 0], [s, c, 0], [0, 0, 1]]) * scale
    return np.hstack([m, np.array(t, float)[:, None]]).astype(F)


def test_closest_hits_through_transformed_instances(cube):
    s = vk.EmbreeSceneManager()
    m = s.add_mesh(**cube, material_id=4)
    s.add_instance_xform(m, rot_z(30, 2.0, (0, 0, 1)).ravel())       # top at z = 2
    s.add_instance_xform(m, rot_z(0, 1.0, (5, 0, 0)).ravel().tolist())  # plain, at x = 5
    mirror = np.hstack([np.diag([1.0, 1.0, -4.0]), [[10], [0], [0]]]).astype(F)
    s.add_instance_xform(m, mirror)                                     # mirrored in z
    s.build()
    o = np.array([[0.3, 0.2, 10], [5, 0, -10], [10.1, 0, 10], [8, 0, 10], [50, 0, 10]], F)
    d = np.array([[0, 0, -1], [0, 0, 1], [0, 0, -1], [-1, 0, -1], [0, 0, -1]], F)
    d /= np.linalg.norm(d, axis=1, keepdims=True)
    h = s.trace_closest(o, d)
    assert set(h) == KEYS
    assert h["hit"].dtype == np.bool_ and h["primitive_id"].dtype == np.int32
    assert list(h["hit"]) == [True, True, True, True, False]
    np.testing.assert_allclose(h["t"][:3], [8.0, 9.5, 8.0], rtol=1e-6)
    # The oblique ray meets the rotated box's top face z = 2 above its centre.
    np.testing.assert_allclose(h["t"][3], 8 * np.sqrt(2), rtol=1e-6)
    np.testing.assert_allclose(h["geometric_normal"][:3], [[0, 0, 1], [0, 0, -1], [0, 0, 1]],
                               atol=1e-6)
    np.testing.assert_array_equal(h["instance_id"], [0, 1, 2, 0, -1])
    np.testing.assert_array_equal(h["material_id"], [4, 4, 4, 4, -1])
    # Misses report the documented defaults.
    assert h["t"][4] == np.finfo(F).max and h["primitive_id"][4] == -1
    np.testing.assert_array_equal(h["shading_normal"][4], [0, 0, 1])
    # Global ids: instance k owns primitives 12k .. 12k + 11.
    assert all(12 * k <= p < 12 * k + 12 for k, p in zip(h["instance_id"][:4], h["primitive_id"]))


def test_t_range_and_primitive_bookkeeping(cube_scene):
    s = cube_scene
    assert s.get_instance_primitive_offsets() == [0, 12]
    assert s.instance_triangle_counts() == [12, 12]
    o = np.array([[3, 0, 10], [3, 0, 10], [3, 0, 10]], F)
    d = np.array([[0, 0, -1]] * 3, F)
    near = s.trace_closest(o, d)
    short = s.trace_closest(o, d, t_max=9.0)
    inside = s.trace_closest(o, d, t_min=9.6)  # starts past the top face: hits the bottom
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


def test_refit_moves_instances_and_raises_the_revision(cube_scene):
    s = cube_scene
    rev = s.geometry_build_revision()
    s.update_instance_transform(1, rot_z(45, 1.0, (3, 0, 2)).ravel())
    s.refit_ias()
    assert s.geometry_build_revision() == rev + 1
    h = s.trace_closest(np.array([[3, 0, 10]], F), np.array([[0, 0, -1]], F))
    assert h["t"][0] == pytest.approx(7.5, rel=1e-6)
    lo, hi = s.aabb()
    assert hi[2] == pytest.approx(2.5)
    # The rotated box's corner box reaches sqrt(2) / 2 from its centre on x.
    assert hi[0] == pytest.approx(3 + np.sqrt(0.5), rel=1e-6)
    assert s.max_height() == pytest.approx(2.5) and s.min_height() == pytest.approx(-0.5)


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
