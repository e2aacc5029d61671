"""Runs every example in a scratch folder and copies the pictures they write into
examples/pictures/, the ones examples/README.md shows, made small enough to commit
(at most 640 pixels wide, 256 colours):

    PYTHONPATH=build/python /usr/bin/python3 scripts/example_pictures.py
"""
import os
import pathlib
import subprocess
import sys
import tempfile

from PIL import Image

ROOT = pathlib.Path(__file__).resolve().parents[1]
PICTURES = ROOT / "examples" / "pictures"


def main():
    PICTURES.mkdir(exist_ok=True)
    env = dict(os.environ)  # the examples run elsewhere: make the module path absolute
    env["PYTHONPATH"] = os.pathsep.join(os.path.abspath(p) for p in
                                        env.get("PYTHONPATH", "").split(os.pathsep) if p)
    with tempfile.TemporaryDirectory() as scratch:
        for script in sorted((ROOT / "examples").glob("*.py")):
            run = subprocess.run([sys.executable, str(script)], cwd=scratch, env=env,
                                 capture_output=True, text=True)
            if run.returncode != 0:
                sys.exit(f"{script.name} failed:\n{run.stderr}")
        for png in sorted(pathlib.Path(scratch, "out").glob("*.png")):
            image = Image.open(png).convert("RGB")
            if image.width > 640:
                image = image.resize((640, round(image.height * 640 / image.width)),
                                     Image.LANCZOS)
            image.quantize(256).save(PICTURES / png.name, optimize=True)
            print(f"examples/pictures/{png.name}: {(PICTURES / png.name).stat().st_size} bytes")


if __name__ == "__main__":
    main()
