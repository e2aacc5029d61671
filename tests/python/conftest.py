"""Shared fixtures: the module, small meshes and a seeded random generator."""
import numpy as np
import pytest

import vesk_gpu as vk


@pytest.fixture
def no_vulkan_validation_messages():
    """Fails the test on any message the Vulkan validation layer reports during it."""
    before = vk._vulkan_validation_message_count()
    yield
    after = vk._vulkan_validation_message_count()
    assert after == before, f"the Vulkan validation layer reported {after - before} message(s)"


@pytest.fixture
def rng():
    return np.random.default_rng(20261121)


def unit_cube():
    """Axis-aligned cube [-0.5, 0.5]^3, 12 triangles wound outward, flat-shaded."""
    v = np.array([[(i & 1) - 0.5, ((i >> 1) & 1) - 0.5, ((i >> 2) & 1) - 0.5] for i in range(8)],
                 np.float32)
    idx = np.array([[0, 2, 3], [0, 3, 1], [4, 5, 7], [4, 7, 6], [0, 1, 5], [0, 5, 4],
                    [2, 6, 7], [2, 7, 3], [0, 4, 6], [0, 6, 2], [1, 3, 7], [1, 7, 5]], np.int32)
    return {"vertices": v, "normals": np.zeros((0, 3), np.float32), "indices": idx}


@pytest.fixture
def cube():
    return unit_cube()


@pytest.fixture
def cube_scene():
    """Two unit cubes side by side, built."""
    s = vk.EmbreeSceneManager()
    m = s.add_mesh(**unit_cube())
    s.add_instance(m)
    s.add_instance(m, x=3.0)
    s.build()
    return s


def scene_state(s):
    """Everything a failed call must leave unchanged, as comparable Python values."""
    geo = s.primitive_geometry()
    return {
        "instances": s.num_instances(),
        "primitives": s.n_primitives(),
        "vertices": geo["vertices"].tobytes(),
        "materials": geo["material_ids"].tobytes(),
        "temperatures": s.get_primitive_temperatures().tobytes(),
        "emissivities": s.get_primitive_emissivities().tobytes(),
        "sensor": s.sensor_config(),
        "repetitive": s.repetitive_config(),
        "built": s.is_built(),
        "revision": s.geometry_build_revision(),
        "has_meshes": s.has_meshes(),
    }
