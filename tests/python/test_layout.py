"""Source layout: the backends build on the shared scene model, never on each other."""
import pathlib
import re

import pytest

SRC = pathlib.Path(__file__).resolve().parents[2] / "src"
INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', re.M)


@pytest.mark.parametrize("folder, forbidden", [
    ("vulkan", ("embree",)),            # the CPU backend's headers and Embree's own
    ("scene", ("embree", "vulkan")),    # neither backend, nor either library
])
def test_backend_folders_include_no_other_backend(folder, forbidden):
    files = sorted(p for p in (SRC / folder).rglob("*") if p.suffix in (".h", ".cpp"))
    assert files, f"src/{folder} holds no sources"
    bad = [f"{p.relative_to(SRC)}: {h}" for p in files
           for h in INCLUDE.findall(p.read_text()) if h.startswith(forbidden)]
    assert not bad, f"src/{folder} includes headers it must not depend on: {bad}"
