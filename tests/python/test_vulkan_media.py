"""Optical turbid media on the Vulkan device against the CPU tracer: a leaf layer filling
a repeated tile (and one wider than its tile), overlapping crowns, more than eight
overlapping media, and the table's refusals."""
import numpy as np
import pytest

import vesk_gpu as vk
from conftest import unit_cube
from test_media import BAD_MEDIA
from test_vulkan import COMPATIBLE

F = np.float32
pytestmark = [pytest.mark.usefixtures("no_vulkan_validation_messages"),
              pytest.mark.skipif(not COMPATIBLE, reason="no Vulkan device with ray queries")]


@pytest.fixture(scope="module")
def context():
    return vk.VulkanContext(0)


def sun_and_sky(s, bands=2):
    """Soil, a two-sided leaf (front and back blocks), sun and sky spectra."""
    s.set_num_bands(bands)
    s.upload_spectral_params(np.array([0.15, 0.3, 0.08, 0.45, 0.05, 0.4, 0.1, 0.42, 0.06, 0.38,
                                       1000.0, 800.0, 30.0, 20.0], F))
    s.add_material(0, 0, [0.15, 0.0, 300.0])
    s.set_emitter(0, np.array([0.3, 0.1, 0.95], F) / np.linalg.norm([0.3, 0.1, 0.95]), 10)
    s.set_sky(12)


def layer(s, wide=False, floor=0.2):
    """A leaf layer `floor` to `floor` + 2 m up filling a repeated 4 m tile over a soil, with a
    hot spot; `wide`: the layer reaches 0.5 m over two walls into the neighbouring tiles."""
    sun_and_sky(s)
    s.add_material(13, 2, [0.3, 0.25, 295.0])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(2, 2, 0, 4.0)), 2.0, 2.0, 0.0)
    box = s.add_mesh(**unit_cube(), material_id=1)
    w, shift = (4.5, 0.25) if wide else (4.0, 0.0)
    s.add_instance_xform(box, np.array([w, 0, 0, 2 + shift, 0, w, 0, 2 + shift, 0, 0, 2, floor + 1.0], F))
    s.set_optical_turbid_media([1.0], [0], [1], [0.3], [-1, 0])
    s.set_repetitive(30, 4.0, 4.0)
    cam = np.array([[1, 0, 0, 2], [0, 0.8, -0.6, -2], [0, 0.6, 0.8, 8], [0, 0, 0, 1]], F).ravel()
    s.set_sensor(0, 12, 10, 4.0, 3.0, cam)


def crowns(s, thermal=False):
    """Two overlapping crowns of different leaf angle distributions over a soil, one of
    them a crown of plagiophile leaves (rejection-sampled normals), seen obliquely."""
    sun_and_sky(s)
    s.add_material(13, 2, [0.3, 0.25, 295.0])
    s.add_material(13, 2, [0.2, 0.3, 305.0])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(4, 4, 0, 8.0)), 4.0, 4.0, 0.0)
    for c, m in (([3.3, 4.0, 2.5], 1), ([4.6, 4.2, 2.8], 2)):
        s.add_instance(s.add_mesh(**vk.make_sphere(1.4, np.array(c, F), 2), material_id=m))
    s.set_optical_turbid_media([1.5, 0.8], [3, 0], [1, 1], [0.1, 0.0], [-1, 0, 1])
    look = np.array([[1, 0, 0, 4], [0, 0.8, -0.6, -1], [0, 0.6, 0.8, 9], [0, 0, 0, 1]], F).ravel()
    s.set_sensor(0, 12, 10, 6.0, 5.0, look)
    if thermal:
        s.set_thermal_mode(True, [9000.0, 11000.0])


SCENES = {"turbid layer": layer, "layer on the ground": lambda s: layer(s, floor=0.0),
          "layer wider than its tile": lambda s: layer(s, wide=True),
          "crowns": crowns, "thermal crowns": lambda s: crowns(s, thermal=True)}


@pytest.mark.parametrize("name", list(SCENES))
def test_turbid_media_render_as_on_the_cpu(context, name):
    cpu, gpu = vk.EmbreeSceneManager(), vk.VulkanSceneManager(context, "trace_closest.spv")
    for s in (cpu, gpu):
        SCENES[name](s)
        s.build()
    outputs = ["standard_error", "event_aov"]
    a = vk.simulate_cpu(cpu, spp=8, max_depth=6, outputs=outputs)
    b = gpu.simulate_backward(spp=8, max_depth=6, outputs=outputs)
    assert b["_execution"]["executor"].endswith(".optical_backward")
    if name.startswith("thermal"):
        assert a["event_aov"]["emission"].sum() > 0, "the leaves of the media glow"
    else:
        assert a["event_aov"]["medium"].sum() > 0.1 * a["payload"].sum(), "the leaves of the media show"
    # A pixel of nearly constant samples (thermal leaves) has a standard error near 0: float
    # rounding (1e-5) bounds what its z-score may count.
    se = np.maximum(np.hypot(a["standard_error"], b["standard_error"]), 1e-5 * np.abs(a["payload"]))
    z = (a["payload"] - b["payload"]) / np.where(se > 0, se, 1)
    assert np.abs(z).max() < 5, f"a pixel {np.abs(z).max():.1f} sigma from the CPU's"
    # Same seeds, same draws, same walk: paths part only where rounding turns one, so
    # nearly every pixel agrees to float rounding. A floor on the ground turns more: whether
    # a query from the ground meets the floor at 1e-7 or passes it is rounding; before the
    # two walks settled a floor-ground tie alike, over half the pixels differed.
    rel = np.abs(a["payload"] - b["payload"]) / np.maximum(np.abs(a["payload"]), 1e-6)
    share = 0.25 if name == "layer on the ground" else 0.05
    assert np.mean(rel > 1e-3) < share, f"{np.mean(rel > 1e-3):.1%} of pixels differ"
    for k, v in a["event_aov"].items():
        np.testing.assert_allclose(b["event_aov"][k].sum(), v.sum(), rtol=1e-2, atol=1e-6, err_msg=k)


def nested_boxes(s, n):
    """n nested boxes, each bounding its own medium, above a white soil, seen from above:
    a camera ray enters them one after the other."""
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([0.9, 0.4, 0.3, 1000.0, 20.0], F))
    s.add_material(0, 0, [0.9])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(3, 3, 0, 6.0)), 3.0, 3.0, 0.0)
    cube = unit_cube()
    for k in range(n):
        s.add_material(13, 1, [0.4, 0.3])
        h = 2.0 - 0.15 * k  # half width; each box inside the one before
        s.add_instance_xform(s.add_mesh(**cube, material_id=k + 1),
                             np.array([2 * h, 0, 0, 3, 0, 2 * h, 0, 3, 0, 0, h, 2.2], F))
    # Leafless media: only the count of media entered decides what the camera sees.
    s.set_optical_turbid_media([0.0] * n, [0] * n, [1] * n, [0.0] * n, [-1] + list(range(n)))
    s.set_emitter(0, np.array([0.0, 0.2, 0.98], F) / np.linalg.norm([0.0, 0.2, 0.98]), 3)
    s.set_sky(4)
    s.set_sensor(0, 8, 8, 6.0, 6.0, np.array([1, 0, 0, 3, 0, 1, 0, 3, 0, 0, 1, 10, 0, 0, 0, 1], F))
    s.build()
    return s


def test_a_ninth_overlapping_medium_ends_the_path_as_on_the_cpu(context):
    images = {}
    for n in (8, 9):
        cpu = nested_boxes(vk.EmbreeSceneManager(), n)
        gpu = nested_boxes(vk.VulkanSceneManager(context, "trace_closest.spv"), n)
        a, b = (f(spp=2, max_depth=4) for f in (lambda **k: vk.simulate_cpu(cpu, **k),
                                                  gpu.simulate_backward))
        rel = np.abs(a["payload"] - b["payload"]) / np.maximum(np.abs(a["payload"]), 1e-6)
        assert np.mean(rel > 1e-3) < 0.05, f"{n} media: {np.mean(rel > 1e-3):.1%} of pixels differ"
        images[n] = b["payload"]
    # Inside the innermost box the ninth medium cannot be entered: those paths end dark.
    centre = images[9][3:5, 3:5]
    assert not centre.any() and images[8][3:5, 3:5].min() > 0, "the ninth medium must end the path"


@pytest.mark.parametrize("change,text", BAD_MEDIA[:2] + BAD_MEDIA[4:])
def test_bad_media_are_refused_with_the_cpu_words_and_change_nothing(context, change, text):
    s = vk.VulkanSceneManager(context, "trace_closest.spv")
    for _ in range(3):
        s.add_material(0, 0, [0.3])
    args = dict(leaf_area_density=[0.5, 1.5], leaf_angle_types=[0, 5], orientations=[1, 1],
                leaf_characteristic_lengths=[0.0, 0.0], material_medium_ids=[-1, 0, 1])
    s.set_optical_turbid_media(**args)
    before = (s.num_optical_turbid_media(), s.material_medium_ids(), s.optical_turbid_medium(1))
    args.update(change)
    with pytest.raises(ValueError) as e:
        s.set_optical_turbid_media(**args)
    assert str(e.value) == text
    assert (s.num_optical_turbid_media(), s.material_medium_ids(), s.optical_turbid_medium(1)) == before


def test_media_set_after_the_build_and_unknown_leaf_materials(context):
    cpu, gpu = vk.EmbreeSceneManager(), vk.VulkanSceneManager(context, "trace_closest.spv")
    for s in (cpu, gpu):
        layer(s)
        s.set_optical_turbid_media([], [], [], [], [-1, -1])
        s.build()
        # Media named after the build: the boundaries stop being surfaces at once.
        s.set_optical_turbid_media([1.0], [0], [1], [0.3], [-1, 0])
    a = vk.simulate_cpu(cpu, spp=2, max_depth=4)["payload"]
    b = gpu.simulate_backward(spp=2, max_depth=4)["payload"]
    assert np.mean(np.abs(a - b) > 1e-3 * np.abs(a)) < 0.05
    # Leaves scatter with their medium's material, which the device must know.
    gpu.add_material(7, 0, [])
    gpu.set_optical_turbid_media([1.0], [0], [1], [0.3], [-1, 0, 0])
    with pytest.raises(ValueError, match="^Vulkan: material 2 has type 7"):
        gpu.simulate_backward(spp=1)
    # Conditional temperatures of the leaves in media are the host tracer's alone: the
    # device refuses them rather than render the material's temperature in their place.
    thermal = vk.VulkanSceneManager(context, "trace_closest.spv")
    crowns(thermal, thermal=True)
    thermal.build()
    n = thermal.num_instances()
    thermal.set_instance_turbid_thermal_state(*(np.full(n, v, F) for v in (300, 290, 0.5, 0.97)))
    with pytest.raises(ValueError, match="does not read instance turbid thermal states"):
        thermal.simulate_backward(spp=1)
