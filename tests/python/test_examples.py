"""The examples run as smoke tests: they must finish and write what they promise."""
import os
import pathlib
import subprocess
import sys

import numpy as np
import pytest

import vesk_gpu as vk

ROOT = pathlib.Path(__file__).resolve().parents[2]


def run_example(name, cwd):
    env = dict(os.environ)
    # The module under test, whichever build it came from.
    env["PYTHONPATH"] = os.pathsep.join(p for p in (os.path.dirname(vk.__file__),
                                                    env.get("PYTHONPATH")) if p)
    out = subprocess.run([sys.executable, str(ROOT / "examples" / name)], cwd=cwd, env=env,
                         capture_output=True, text=True, timeout=300)
    assert out.returncode == 0, out.stderr
    return out


def picture(path):
    from PIL import Image
    assert path.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n", f"{path.name} is not a PNG"
    return np.asarray(Image.open(path)).astype(int)


def test_quickstart_shows_sky_leaves_and_brown_soil(tmp_path):
    out = run_example("quickstart.py", tmp_path)
    img = picture(tmp_path / "out" / "quickstart.png")
    assert img.shape == (320, 480, 3)
    r, g, b = img[..., 0], img[..., 1], img[..., 2]
    assert (b[0] > r[0]).all(), "the top row is open sky, which is blue"
    assert ((g > r + 10) & (g > b + 10)).mean() > 0.05, "the leaf crowns should show green"
    # The repeated ground fills the lower half: brown soil (red over green over blue),
    # neither sky nor white.
    low = img[200:]
    soil = (low[..., 0] > low[..., 1] + 8) & (low[..., 1] > low[..., 2] + 8)
    assert soil.mean() > 0.3, "the soil should fill the foreground, and stay brown"
    assert (img.max(axis=2) < 250).mean() > 0.99, "nothing over-exposed"
    summary = out.stdout.strip().splitlines()[-1]
    assert summary.startswith("quickstart: 14 trees") and "out/quickstart.png" in summary
    assert "8/8" in out.stderr, "the progress bar is drawn while rendering"


def brf_check(out, _):
    brf = [float(v) for v in out.split("hot spot BRF [")[1].split("]")[0].split()]
    assert 0.1 < brf[0] < brf[1] < 0.6, "over leaves the red is darker than the infrared"


def fpar_check(out, _):
    assert 0.03 < float(out.split("stand fPAR ")[1].split()[0]) < 0.5, out


def flux_check(_, folder):
    import xarray as xr
    ds = xr.load_dataset(folder / "flux_grids.nc")
    assert ds.downwelling.dims == ("y", "x", "wavelength") and float(ds.x[-1]) == 23.5


def physiology_check(out, _):
    rows = np.array([[float(v) for v in line.strip(" []").split()]
                     for line in out.split("phi_f:")[1].strip().splitlines()])
    assert rows.shape == (10, 4) and (np.diff(rows[:, 0]) >= 0).all()
    assert (np.diff(rows[:, 1]) > -1e-3).all(), "assimilation rises with light, then levels"


TASKS = {  # the five tasks of a new user: picture, and what the printout must say
    "nadir_trees.py": ("nadir_trees.png", lambda out, _: "20 trees" in out),
    "brf_principal_plane.py": ("brf_principal_plane.png", brf_check),
    "fpar_cells.py": ("fpar_cells.png", fpar_check),
    "flux_grids.py": ("flux_grids.png", flux_check),
    "leaf_physiology.py": ("leaf_physiology.png", physiology_check),
}


@pytest.mark.parametrize("name", TASKS)
def test_task_examples_run_draw_and_report(tmp_path, name):
    png, check = TASKS[name]
    out = run_example(name, tmp_path).stdout
    assert picture(tmp_path / "out" / png)[..., :3].std() > 10, f"{png} is blank"
    assert check(out, tmp_path / "out") is not False, out


def test_turbid_canopy_renders_leafy_crowns_and_reports_fapar(tmp_path):
    out = run_example("turbid_canopy.py", tmp_path)
    fapar = [float(line.split()[-1]) for line in out.stdout.splitlines() if "fAPAR" in line]
    assert len(fapar) == 2 and all(0.01 < f < 0.5 for f in fapar), out.stdout
    img = picture(tmp_path / "out" / "turbid_canopy.png")
    assert img.shape == (240, 640, 3)
    right = img[:, 320:]
    assert ((right[..., 1] > right[..., 0] + 10) & (right[..., 1] > right[..., 2] + 10)).mean() > 0.01


def test_lidar_example_writes_a_las_file_and_a_waveform_plot(tmp_path):
    out = run_example("lidar.py", tmp_path)
    assert "pulses by number of returns" in out.stdout
    las = (tmp_path / "out" / "canopy.las").read_bytes()
    assert las[:4] == b"LASF" and las[24:26] == bytes([1, 4])
    assert (tmp_path / "out" / "lidar_waveform.png").read_bytes()[:4] == b"\x89PNG"


def test_microwave_forest_example_renders_both_images(tmp_path):
    out = run_example("microwave_forest.py", tmp_path).stdout
    k = [float(v) for v in out.replace("(", " ").replace(",", " ").split()
         if v.replace(".", "", 1).replace("-", "", 1).isdigit()]
    th, tv, bare_h, bare_v, hh, vv, hv = k[:7]
    assert th > bare_h and tv > bare_v, "the emitting canopy warms the scene above bare soil"
    assert tv > th and vv > hv and hh > hv, out
    assert picture(tmp_path / "out" / "microwave_forest.png").shape[:2] == (400, 1600)


def test_canopy_energy_closes_the_balance_and_writes_a_thermal_image(tmp_path):
    out = run_example("canopy_energy.py", tmp_path)
    assert "converged True" in out.stdout, out.stdout
    closure = float(out.stdout.split("mean |Rn - H - LE| ")[1].split()[0])
    assert closure < 0.5, out.stdout
    assert (tmp_path / "out" / "canopy_energy.png").read_bytes()[:4] == b"\x89PNG"


def test_turbid_domain_example_extends_and_survives_a_failed_commit(tmp_path):
    out = run_example("turbid_domain.py", tmp_path).stdout
    assert picture(tmp_path / "out" / "turbid_domain.png").std() > 10
    for line in ("earlier samples kept as prefix: True", "domain unchanged after the failure: True",
                 "the same extension then passes: 8192 samples"):
        assert line in out, out


def test_turbid_crowns_sif_example_shows_fluorescent_cool_crowns(tmp_path):
    out = run_example("turbid_crowns_sif.py", tmp_path).stdout
    line = out.split("SIF at 740 nm over crowns ")[1].split()
    crowns, soil = float(line[0].rstrip(",")), float(line[3])
    assert crowns > 10 * soil and 0.5 < crowns < 20, out  # mW m-2 sr-1 nm-1
    line = out.split("brightness temperature over crowns ")[1].split()
    t_crowns, t_soil = float(line[0]), float(line[4])
    assert 298.0 < t_crowns < t_soil - 3.0, out  # leaves near the air's 300 K, soil 312 K
    for name in ("turbid_crowns_sif.png", "turbid_crowns_thermal.png"):
        assert picture(tmp_path / "out" / name).std() > 10


def test_fluorescence_example_renders_sif_where_the_leaves_are(tmp_path):
    out = run_example("fluorescence.py", tmp_path).stdout
    sif = float(out.split("seen from above: ")[1].split()[0])
    assert 0.1 < sif < 20, out  # mW m-2 sr-1 nm-1: a canopy's far-red SIF
    for name in ("fluorescence_740nm.png", "fluorescence_spectrum.png"):
        assert (tmp_path / "out" / name).read_bytes()[:4] == b"\x89PNG"


def test_vulkan_example_matches_the_cpu_or_says_why_it_cannot(tmp_path):
    out = run_example("vulkan_backward.py", tmp_path).stdout
    img = picture(tmp_path / "out" / "vulkan_backward.png")
    if "skipped" in out:
        assert img.shape == (120, 160, 3)
    else:
        assert img.shape == (120, 320, 3)
        assert float(out.split("largest difference from the CPU ")[1].split()[0]) < 1e-4, out
        assert np.abs(img[:, :160] - img[:, 160:]).max() <= 1, "the two halves are one picture"
