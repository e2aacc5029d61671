"""Scenes as values: a pickle or a .npz file carries every setting, and the copy traces the
same bits; broken states are refused, not half-loaded."""
import pickle

import numpy as np
import pytest

import vesk_gpu as vk
from conftest import scene_state, unit_cube
from test_backward import nadir_camera

F = np.float32
OUTPUTS = ["radiance", "standard_error", "event_aov", "scattering_order"]


def rich_scene(kind="optical"):
    """A repeated tile with a ground, an RPV sphere and a leaf medium, a sun and a sky, in
    two bands; each kind sets what its tracer reads on top. Some settings are made in an
    order that leaves them stale (a material after the media, overrides before the last
    instance), as a user may."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(2)
    s.upload_spectral_params(np.array(
        [0.3, 0.5, 0.1, 0.4, 0.15, 0.45, 0.05, 0.35, 0.08, 0.1, 0.9, 0.8, -0.1, 0.2, 0.9, 0.9,
         1000, 800, 20, 30], F))
    s.add_material(0, 0, [0.4, 0.0, 300.0])
    s.add_material(13, 2, [0.25, 0.2, 305.0])
    s.add_material(1, 8, [0.1, 0.0, 295.0])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(5, 5, 0, 10)), 5.0, 5.0, 0.0)
    s.add_instance(s.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 2), material_id=2),
                   3.0, 4.0, 2.5, 1.2)
    cube = s.add_mesh(**unit_cube(), material_id=1)
    s.add_instance_xform(cube, np.array([3, 0, 0, 7, 0, 3, 0, 6, 0, 0, 2, 2], F))
    s.set_optical_turbid_media([1.2], [3], [1], [0.05], [-1, 0, -1])
    s.add_material(0, 0, [0.2])
    s.set_emitter(0, np.array([0.3, 0.2, 0.9], F), 16)  # stored normalised
    s.set_sky(18)
    s.set_sensor(0, 6, 5, 10.0, 10.0, nadir_camera(20.0, 5.0, 5.0))
    s.set_repetitive(3, 10.0, 10.0)
    s.set_measurement_plane(4.0)
    s.build()
    s.set_primitive_emissivities(np.full(s.n_primitives(), 0.9, F))
    s.set_instance_sif_spectra(np.full(2 * s.num_instances(), 0.3, F), 2)
    s.add_instance(0, 5.0, 5.0, -1.0)  # the two above are stale from here on
    s.build()
    if kind == "thermal":
        s.set_thermal_mode(True, [10000.0, 11000.0])
        s.set_primitive_temperatures(np.linspace(290, 310, s.n_primitives()).astype(F))
        s.set_primitive_emissivities(np.full(s.n_primitives(), 0.95, F))
    if kind == "sif":
        s.set_primitive_sif_spectra(np.tile(np.array([0.7, 1.9], F), s.n_primitives()), 2)
        s.set_sif_only_mode(True)
    return s


def readable(s):
    """What the getters say; a setting the copy forgot shows here or in the traces."""
    media = [s.optical_turbid_medium(k) for k in range(s.num_optical_turbid_media())]
    return [scene_state(s), s.aabb(), s.band_wavelengths(), s.thermal_mode(), media,
            s.material_medium_ids(), s.get_primitive_mat_ids().tolist()]


def traces(s, kind):
    """Every tracer on the scene, small."""
    out = [vk.simulate_cpu(s, spp=2, max_depth=4, outputs=OUTPUTS, max_output_order=2)]
    if kind == "optical":
        dirs = np.array([0, 0, 1, 0.5, 0.2, 0.84], F)
        out += [vk.simulate_flux_cpu(s, 3, 2, 20000, 2, 0.7, decompose=True),
                vk.simulate_forward_cpu(s, 3, 2, np.array([-2, 1, 5], F), 20000, 2, True, dirs,
                                        2, 0.8, 6, 0),
                vk.simulate_brf_cpu(s, dirs, 10000),
                vk.simulate_lidar_cpu(s, np.tile(np.array([4, 5, 20], F), 3),
                                      np.tile(np.array([0, 0.1, -1], F) / np.float32(1.005), 3),
                                      3, num_wavelengths=2)]
    return out


def assert_same(a, b, where="result"):
    """Equal bit for bit, through nested dicts and lists of arrays."""
    if isinstance(a, dict):
        assert a.keys() == b.keys(), where
        for k in a:
            assert_same(a[k], b[k], f"{where}[{k!r}]")
    elif isinstance(a, (list, tuple)):
        assert len(a) == len(b), where
        for k, (x, y) in enumerate(zip(a, b)):
            assert_same(x, y, f"{where}[{k}]")
    elif isinstance(a, np.ndarray):
        assert a.dtype == b.dtype, where
        np.testing.assert_array_equal(a, b, err_msg=where)
    else:
        assert a == b, where


@pytest.mark.parametrize("kind", ["optical", "thermal", "sif"])
def test_copies_carry_every_setting_and_trace_the_same_bits(kind, tmp_path):
    s = rich_scene(kind)
    path = tmp_path / "scene"
    s.save(path)
    assert path.exists(), "the file is written where asked, without a suffix"
    expected = traces(s, kind)
    for copy in (pickle.loads(pickle.dumps(s)), vk.EmbreeSceneManager.load(path)):
        assert_same(copy.__getstate__(), s.__getstate__())
        assert_same(readable(copy), readable(s))
        assert_same(traces(copy, kind), expected)


def test_build_states_travel():
    # Instances added after the build: not traced until built again, on the copy too.
    s = rich_scene()
    s.add_instance(0, 5.0, 5.0, -2.0)
    c = pickle.loads(pickle.dumps(s))
    assert not c.is_built() and c.geometry_build_revision() == s.geometry_build_revision()
    assert c.aabb() == s.aabb(), "the bounds are those of the last build"
    with pytest.raises(RuntimeError, match="scene not built"):
        vk.simulate_cpu(c, spp=1)
    # Cleared for reuse: the copy keeps a structure that build_reuse_gas can take up.
    s.build()
    s.clear_for_reuse()
    c = pickle.loads(pickle.dumps(s))
    for scene in (s, c):
        scene.set_num_bands(1)
        scene.upload_spectral_params(np.array([0.3, 1000.0], F))
        for _ in range(3):
            scene.add_material(0, 0, [0.3])
        scene.set_emitter(0, np.array([0, 0, 1], F), 1)
        scene.build_reuse_gas()
    assert_same(vk.simulate_cpu(c, spp=1), vk.simulate_cpu(s, spp=1))
    # A scene never built stays so, and builds like the original.
    s = vk.EmbreeSceneManager()
    s.add_instance(s.add_mesh(**unit_cube()))
    c = pickle.loads(pickle.dumps(s))
    assert not c.is_built()
    c.build()
    assert c.aabb() == ((-0.5, -0.5, -0.5), (0.5, 0.5, 0.5))


def test_broken_states_and_paths_are_refused(tmp_path):
    state = rich_scene().__getstate__()
    cases = [({"version": 2}, ValueError, "version 2"),
             ({"spectral": state["spectral"].astype(np.float64)}, TypeError,
              "'spectral' must be a float32 array"),
             ({"num_bands": 2.0}, TypeError, "'num_bands' must be an int"),
             ({"mesh_indices": state["mesh_indices"] + 10**6}, ValueError,
              "references a vertex outside"),
             ({"mesh_sizes": state["mesh_sizes"] * 2}, ValueError, "mesh sizes exceed"),
             ({"emitter_direction": np.array([0, 0, 2], F)}, ValueError, "not a unit vector"),
             ({"primitive_emissivities": np.ones(10**4, F)}, ValueError, "does not fit"),
             ({"built": True, "structure_current": False}, ValueError, "current structure")]
    def restore(state):
        vk.EmbreeSceneManager.__new__(vk.EmbreeSceneManager).__setstate__(state)
    for change, error, text in cases:
        with pytest.raises(error, match=text):
            restore({**state, **change})
    del state["box"]
    with pytest.raises(KeyError, match="missing the key 'box'"):
        restore(state)
    for path in (1, b"scene.npz", None):
        with pytest.raises(TypeError):
            rich_scene().save(path)
    junk = tmp_path / "junk.npz"
    junk.write_bytes(b"not a scene")
    with pytest.raises(ValueError):
        vk.EmbreeSceneManager.load(junk)


def test_an_empty_scene_reports_the_empty_box_built_or_not():
    empty = ((1e30, 1e30, 1e30), (-1e30, -1e30, -1e30))
    s = vk.EmbreeSceneManager()
    assert np.allclose(s.aabb(), empty, rtol=1e-6), s.aabb()
    s.build()
    assert np.allclose(s.aabb(), empty, rtol=1e-6), s.aabb()
