"""The examples run as smoke tests: they must finish and write what they promise."""
import os
import pathlib
import subprocess
import sys

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


def test_quickstart_writes_a_picture(tmp_path):
    out = run_example("quickstart.py", tmp_path)
    png = tmp_path / "out" / "quickstart.png"
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    from PIL import Image
    import numpy as np
    img = np.asarray(Image.open(png)).astype(int)
    assert img.shape == (320, 480, 3)
    r, g, b = img[..., 0], img[..., 1], img[..., 2]
    assert (b[0] > r[0]).all(), "the top row is open sky, which is blue"
    assert ((g > r + 10) & (g > b + 10)).mean() > 0.01, "the leaf crowns should show green"
    assert "sample pass 16/16" in out.stdout, "progress is reported while rendering"


def test_turbid_canopy_renders_leafy_crowns_and_reports_fapar(tmp_path):
    out = run_example("turbid_canopy.py", tmp_path)
    fapar = [float(line.split()[-1]) for line in out.stdout.splitlines() if "fAPAR" in line]
    assert len(fapar) == 2 and all(0.01 < f < 0.5 for f in fapar), out.stdout
    from PIL import Image
    import numpy as np
    img = np.asarray(Image.open(tmp_path / "out" / "turbid_canopy.png")).astype(int)
    assert img.shape == (240, 640, 3)
    right = img[:, 320:]
    assert ((right[..., 1] > right[..., 0] + 10) & (right[..., 1] > right[..., 2] + 10)).mean() > 0.01


def test_lidar_example_writes_a_las_file_and_a_waveform_plot(tmp_path):
    out = run_example("lidar.py", tmp_path)
    assert "pulses by number of returns" in out.stdout
    las = (tmp_path / "out" / "canopy.las").read_bytes()
    assert las[:4] == b"LASF" and las[24:26] == bytes([1, 4])
    assert (tmp_path / "out" / "lidar_waveform.png").read_bytes()[:4] == b"\x89PNG"


def test_canopy_energy_closes_the_balance_and_writes_a_thermal_image(tmp_path):
    out = run_example("canopy_energy.py", tmp_path)
    assert "converged True" in out.stdout, out.stdout
    closure = float(out.stdout.split("mean |Rn - H - LE| ")[1].split()[0])
    assert closure < 0.5, out.stdout
    assert (tmp_path / "out" / "canopy_energy.png").read_bytes()[:4] == b"\x89PNG"


def test_turbid_domain_example_extends_and_survives_a_failed_commit(tmp_path):
    out = run_example("turbid_domain.py", tmp_path).stdout
    for line in ("earlier samples kept as prefix: True", "domain unchanged after the failure: True",
                 "the same extension then passes: 8192 samples"):
        assert line in out, out


def test_fluorescence_example_renders_sif_where_the_leaves_are(tmp_path):
    out = run_example("fluorescence.py", tmp_path).stdout
    sif = float(out.split("seen from above: ")[1].split()[0])
    assert 0.1 < sif < 20, out  # mW m-2 sr-1 nm-1: a canopy's far-red SIF
    for name in ("fluorescence_740nm.png", "fluorescence_spectrum.png"):
        assert (tmp_path / "out" / name).read_bytes()[:4] == b"\x89PNG"
