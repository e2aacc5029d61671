"""LAS 1.4 files from simulated points, read back by an independent reader (npm's copc,
installed outside the source tree by scripts/install-deps.sh) and by the header's own
layout."""
import json
import os
import pathlib
import shutil
import struct
import subprocess

import numpy as np
import pytest

import vesk
import vesk_gpu as vk
from test_lidar import roof_and_ground

F = np.float32
TOOLS = os.environ.get("VESK_TEST_TOOLS", "/opt/vesk-test-tools")
READER = pathlib.Path(__file__).parent / "tools" / "read_las.mjs"


@pytest.fixture
def cloud():
    """Two returns per pulse where a raised roof covers part of the footprint."""
    s = roof_and_ground(edge=0.03)
    origins, dirs, times = vesk.airborne_line_scan((-2.0, 0.0), 90.0, 20.0, 10.0, 200.0, 2.0,
                                                   5.0, 0.2)
    r = vk.simulate_lidar_cpu(s, origins, dirs, len(times), beam_half_angle_rad=0.01)
    return r["points"], times


def test_las_file_reads_back_with_an_independent_reader(cloud, tmp_path):
    points, times = cloud
    assert (points[:, 5] == 2).any(), "the scene should give pulses with two returns"
    path = tmp_path / "cloud.las"
    assert vesk.write_las(path, points, scale=0.001, pulse_times=times) == len(points)
    raw = path.read_bytes()
    # Header: WKT bit, format 6, the 64-bit count and counts by return, bounds.
    assert raw[:4] == b"LASF" and struct.unpack_from("<H", raw, 6)[0] == 16 and raw[104] == 6
    assert struct.unpack_from("<Q", raw, 247)[0] == len(points)
    by_return = struct.unpack_from("<15Q", raw, 255)
    assert by_return[:2] == (int((points[:, 4] == 1).sum()), int((points[:, 4] == 2).sum()))
    max_x, min_x = struct.unpack_from("<2d", raw, 179)
    assert (max_x, min_x) == (points[:, 0].max(), points[:, 0].min())
    if shutil.which("node") is None or not (pathlib.Path(TOOLS) / "node_modules/copc").is_dir():
        pytest.skip("node or the copc reader is absent: the independent read-back is skipped")
    out = subprocess.run(["node", str(READER), TOOLS, str(path)], capture_output=True, text=True,
                         timeout=60)
    assert out.returncode == 0, out.stderr
    back = json.loads(out.stdout)
    got = np.array(back["points"], np.float64)
    assert back["pointCount"] == len(points)
    np.testing.assert_allclose(got[:, :3], points[:, :3], atol=0.0005 + 1e-6)
    np.testing.assert_array_equal(got[:, 4:6], points[:, 4:6])
    np.testing.assert_array_equal(got[:, 3], np.round(points[:, 3] / points[:, 3].max() * 65535))
    np.testing.assert_array_equal(got[:, 6], points[:, 6].astype(F))


def test_scan_patterns_cover_their_swath_and_grid():
    o, d, t = vesk.airborne_line_scan((0.0, 0.0), 0.0, 100.0, 50.0, 1000.0, 15.0, 20.0, 1.0)
    o, d = o.reshape(-1, 3), d.reshape(-1, 3)
    assert len(t) == 1000 and np.allclose(np.linalg.norm(d, axis=1), 1, atol=1e-6)
    # Heading 0 flies north (+y); the mirror sweeps east-west within +-15 degrees of nadir.
    np.testing.assert_allclose(o[-1, :2] - o[0, :2], [0.0, 50.0 * t[-1]], atol=1e-3)
    off_nadir = np.degrees(np.arctan2(d[:, 0], -d[:, 2]))
    assert off_nadir.max() == pytest.approx(15.0, abs=0.5)
    assert off_nadir.min() == pytest.approx(-15.0, abs=0.5)
    assert np.allclose(d[:, 1], 0.0, atol=1e-7)
    o, d, t = vesk.terrestrial_scan((1.0, 2.0, 1.5), (0, 360), (40, 140), 2.0)
    d = d.reshape(-1, 3)
    assert len(d) == 180 * 50 and np.allclose(o.reshape(-1, 3), [1.0, 2.0, 1.5])
    zen = np.degrees(np.arccos(d[:, 2]))
    assert zen.min() == pytest.approx(40.0, abs=1e-3) and zen.max() == pytest.approx(138.0, abs=1e-3)


def ground_leaves_roof():
    """Ground at 0 m, a roof at 3 m over x < 0, a layer of leaves at 1.5 m over y > 2."""
    s = vk.EmbreeSceneManager()
    sp = vesk.Spectra(s, [1064])
    ground = vesk.lambertian(sp, "ground", 0.3)
    roof = vesk.lambertian(sp, "roof", 0.5)
    leaf = vesk.leaf(sp, "leaf", 0.45, 0.45)
    s.add_instance(s.add_mesh(**vk.make_ground_plane(10, 10, ground, 5)))
    s.add_instance(s.add_mesh(**vk.make_ground_plane(2, 2, roof, 4)), -2.0, -3.0, 3.0)
    s.add_instance(s.add_mesh(**vk.make_ground_plane(2, 1, leaf, 4)), 3.0, 3.5, 1.5)
    s.build()
    return s, sp, {ground: 2, roof: 6, leaf: 5}


def test_las_classes_and_scan_angles_follow_the_hit_materials(tmp_path):
    s, sp, truth = ground_leaves_roof()
    assert vesk.las_classes(sp) == truth
    g = np.linspace(-4.5, 4.5, 10)
    x, y = np.meshgrid(g, g)
    origins = np.stack([np.zeros(x.size), np.zeros(x.size), np.full(x.size, 20.0)], 1)
    dirs = np.stack([x.ravel(), y.ravel(), -np.full(x.size, 20.0)], 1)
    dirs /= np.linalg.norm(dirs, axis=1, keepdims=True)
    returns, _ = vesk.simulate_lidar(s, origins, dirs, direct_mode=True)
    # Which surface each point lies on, from its position alone.
    z = returns["z"]
    expected = np.where(z > 2.9, 6, np.where(z > 1.4, 5, 2))
    classes = np.array([truth[m] for m in returns["material"]])
    np.testing.assert_array_equal(classes, expected)
    assert set(expected) == {2, 5, 6}
    path = tmp_path / "classes.las"
    vesk.write_las(path, returns, classes=vesk.las_classes(sp))
    if shutil.which("node") is None or not (pathlib.Path(TOOLS) / "node_modules/copc").is_dir():
        pytest.skip("node or the copc reader is absent: the independent read-back is skipped")
    out = subprocess.run(["node", str(READER), TOOLS, str(path)], capture_output=True, text=True,
                         timeout=60)
    assert out.returncode == 0, out.stderr
    got = np.array(json.loads(out.stdout)["points"], np.float64)
    np.testing.assert_array_equal(got[:, 7], expected)
    np.testing.assert_allclose(got[:, 8], returns["scan_angle"], atol=0.0031)
    off = np.degrees(np.arctan(np.hypot(x.ravel(), y.ravel()) / 20.0))
    np.testing.assert_allclose(np.abs(returns["scan_angle"]), off[returns["pulse"]], atol=1e-3)
