"""The examples run as smoke tests: they must finish and write what they promise."""
import os
import pathlib
import subprocess
import sys

import vesk_gpu as vk

ROOT = pathlib.Path(__file__).resolve().parents[2]


def test_quickstart_writes_a_picture(tmp_path):
    env = dict(os.environ)
    # The module under test, whichever build it came from.
    env["PYTHONPATH"] = os.pathsep.join(p for p in (os.path.dirname(vk.__file__),
                                                    env.get("PYTHONPATH")) if p)
    out = subprocess.run([sys.executable, str(ROOT / "examples" / "quickstart.py")], cwd=tmp_path,
                         env=env, capture_output=True, text=True, timeout=300)
    assert out.returncode == 0, out.stderr
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
