"""Microwave images on the Vulkan device against the CPU reference (same rays, same
tables), and the device entry's checks in their order. Run on both trace paths."""
import numpy as np
import pytest

import vesk_gpu as vk
from microwave_scenes import F, box, camera, diagonal_mueller, make_scene, soil_row, trunk_row

COMPATIBLE = [d for d in vk.list_vulkan_devices() if d["compatible"]]
pytestmark = [pytest.mark.skipif(not COMPATIBLE, reason="no compatible Vulkan device"),
              pytest.mark.usefixtures("no_vulkan_validation_messages")]
FREQ = 1.4e9




@pytest.fixture(scope="module")
def context():
    return vk.VulkanContext(0)


def forest(scene_class):
    return make_scene(np.radians(35.0), slab_height=3.0, trunks=16, pixels=(20, 14),
                      footprint=14.0, scene_class=scene_class)


def forest_tile(scene_class):
    """Four trunks in a canopy layer that fills an 8 m tile, repeated: slanted rays cross
    the walls inside the layer and between the trunks."""
    s = (scene_class or vk.EmbreeSceneManager)()
    for _ in range(3):
        s.add_material(0, 0, [])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(4.0, 4.0, 0)), 4.0, 4.0, 0.0)
    s.add_instance(s.add_mesh(**box(0, 8, 0, 8, 0.01, 3.01), material_id=1))
    cyl = vk.make_cylinder(0.15, 8.0, 12)
    t = s.add_mesh(cyl["vertices"], cyl["normals"], cyl["indices"], 2)
    for x, y in ((2.3, 2.1), (6.2, 1.7), (1.8, 6.3), (6.1, 5.9)):
        s.add_instance(t, x=x, y=y, z=-0.05)
    s.set_repetitive(200, 8.0, 8.0)
    s.set_sensor(0, 20, 14, 30.0, 21.0, camera(np.radians(55.0), target=(4.1, 3.9, 0.0)))
    s.build()
    return s


@pytest.mark.parametrize("active", [False, True])
@pytest.mark.parametrize("scene", [forest, forest_tile], ids=["stand", "repeated tile"])
def test_device_image_matches_cpu_reference(context, active, scene):
    forest = scene
    soil = soil_row(model=1, s=0.02)[None]
    veg = np.array([[0.08, 0.1, 300.0]], F)
    args = (FREQ, soil, veg, trunk_row(), np.array([0, 1, 2], np.int32))
    if active:
        kw = dict(mw_veg_mueller_luts=[diagonal_mueller(1e-3, 1e-4)], spp=3)
        cpu = vk.simulate_active_microwave_cpu(forest(None), *args, **kw)
        dev = forest(lambda: vk.VulkanSceneManager(context)).simulate_active_microwave(*args, **kw)
    else:
        kw = dict(include_atmosphere=True, atm_tau=0.05, n_channels=4)
        cpu = vk.simulate_microwave_cpu(forest(None), *args, **kw)
        dev = forest(lambda: vk.VulkanSceneManager(context)).simulate_microwave(*args, **kw)
    assert dev.shape == cpu.shape and dev.dtype == np.float32
    assert (cpu.max(axis=(0, 1)) > 0).sum() >= 2, "the scene shows something"
    # The same rays through the same tables: pixels agree to float rounding, except where
    # the two traversals split a ray grazing an edge differently.
    scale = np.abs(cpu).max()
    close = np.abs(dev - cpu) <= 1e-4 * scale
    assert close.mean() > 0.98, f"{(~close).sum()} values differ from the CPU reference"
    n = cpu.shape[0] * cpu.shape[1]
    spread = cpu.reshape(n, -1).std(axis=0) / np.sqrt(n)
    assert (np.abs(dev.mean(axis=(0, 1)) - cpu.mean(axis=(0, 1))) <= 3 * spread + 1e-6 * scale).all()


def wavefront_args(**over):
    """A valid call for one soil, one vegetation, one trunk material over a built scene,
    at response_table_size 2."""
    a = dict(active_mode=False, max_depth=2, air_temperature=290.0, atmosphere_tau=0.0,
             soil_count=1, vegetation_count=1, trunk_count=1, response_table_size=2,
             origins=np.array([0.3, 0.2, 5.0, 0.0], F), directions=np.array([0, 0, -1.0, 0], F),
             material_map=np.array([0, 1, 2], np.int32),
             passive_soil_table=np.array([200, 250, 0.3, 0.15] * 2, F),
             active_soil_table=np.full(8, 0.01, F), smooth_soil_table=np.full(4, 0.3, F),
             vegetation_parameters=np.array([0.1, 0.1, 300.0, 0.0], F),
             trunk_response_table=np.array([200, 250, 0.3, 0.15] * 2, F),
             trunk_dihedral_scattering=np.zeros(0, F), dihedral_ground_table=np.zeros(0, F),
             lut_info=np.array([1, -1, 0, 0, 0, -1, -1, -1, 0,
                                2, -1, 0, 0, 0, -1, -1, -1, 0,
                                3, -1, 0, 0, 0, -1, -1, -1, 0], np.int32),
             mueller_lut=np.zeros(0, F), cosine_cdf=np.zeros(0, F), azimuth_cdf=np.zeros(0, F))
    a.update(over)
    return a


def test_wavefront_checks_in_order_and_empty_rays(context):
    s = make_scene(0.0, scene_class=lambda: vk.VulkanSceneManager(context))
    # A nadir ray onto the soil at cos 1: the table's second row.
    out = s.run_microwave_wavefront(**wavefront_args())
    np.testing.assert_allclose(out, [200, 250, 0, 0], rtol=1e-6)
    empty = np.zeros(0, F)
    faults = [  # each with every later fault present too
        (dict(max_depth=0), ValueError, "Vulkan microwave wavefront received invalid dimensions"),
        (dict(origins=np.zeros(6, F)), ValueError,
         "Vulkan microwave origins and directions must have shape (N, 4)"),
        (dict(passive_soil_table=np.zeros(7, F)), ValueError,
         "Vulkan microwave soil response tables have invalid sizes"),
        (dict(material_map=np.array([0, 1], np.int32)), ValueError,
         "Vulkan microwave material map does not cover scene materials"),
        (dict(vegetation_parameters=np.zeros(3, F)), ValueError,
         "Vulkan microwave vegetation/trunk data has invalid sizes"),
    ]
    for k, (_, error, text) in enumerate(faults):
        bad = {}
        for fault, _, _ in faults[k:]:
            bad.update(fault)
        if k > 1:
            bad["origins"] = wavefront_args()["origins"]
        with pytest.raises(error) as e:
            s.run_microwave_wavefront(**wavefront_args(**bad))
        assert str(e.value) == text
    # No whole ray: an empty result before any table is looked at.
    got = s.run_microwave_wavefront(**wavefront_args(origins=empty, directions=empty,
                                                     passive_soil_table=empty))
    assert got.shape == (0,)
    # A Mueller table pointing past the end, or active trunks without the double-bounce table.
    info = wavefront_args()["lut_info"].copy()
    info[9 + 1:9 + 5] = [0, 2, 2, 2]
    with pytest.raises(ValueError, match="vegetation/trunk data has invalid sizes"):
        s.run_microwave_wavefront(**wavefront_args(lut_info=info, mueller_lut=np.zeros(100, F)))
    with pytest.raises(ValueError, match="vegetation/trunk data has invalid sizes"):
        s.run_microwave_wavefront(**wavefront_args(active_mode=True))
    unbuilt = vk.VulkanSceneManager(context)
    with pytest.raises(RuntimeError, match="^Vulkan: build the scene before microwave transport$"):
        unbuilt.run_microwave_wavefront(**wavefront_args(max_depth=0))
    with pytest.raises(RuntimeError, match="^Vulkan: build the scene before microwave transport$"):
        unbuilt.simulate_microwave(FREQ, soil_row()[None], None, None, np.zeros(0, np.int32))
    assert vk._mw_veg_lut_dims == ("cti", "cts", "dphi", 4, 4)
