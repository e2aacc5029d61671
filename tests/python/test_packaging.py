"""What a user installs: the committed type stubs match the module, and `pip install .`
(offline, into a fresh venv) gives a vesk_gpu and a vesk that import and run."""
import importlib.util
import json
import os
import pathlib
import subprocess
import sys
import textwrap

import pytest

import vesk_gpu as vk

ROOT = pathlib.Path(__file__).resolve().parents[2]


def load_script(name):
    found = importlib.util.spec_from_file_location(name, ROOT / "scripts" / f"{name}.py")
    module = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    return module


def test_committed_stubs_match_the_module():
    stubs = load_script("make_stubs")
    text = stubs.make_stubs(vk)
    assert stubs.STUBS.read_text() == text, (
        f"python/vesk_gpu.pyi no longer matches the module's signatures and docstrings: "
        f"run `{stubs.COMMAND}` and commit python/vesk_gpu.pyi")
    compile(text, "vesk_gpu.pyi", "exec")  # and they are Python
    public = {n for n in dir(vk) if not n.startswith("__")}
    assert all(f"def {n}(" in text or f"{n}:" in text or f"class {n}:" in text
               for n in public)


def plain_env():
    """The environment of a user's shell: no sanitizer preloads, no PYTHONPATH into the
    build tree, no wheel folder for pip to find, and at most 2 compile jobs."""
    drop = {"LD_PRELOAD", "ASAN_OPTIONS", "UBSAN_OPTIONS", "PYTHONPATH", "PIP_FIND_LINKS"}
    env = {k: v for k, v in os.environ.items() if k not in drop}
    env["CMAKE_BUILD_PARALLEL_LEVEL"] = "2"
    return env


CHECK = textwrap.dedent("""
    import json, pathlib, sys
    import vesk, vesk_gpu as vk
    site = pathlib.Path(vk.__file__).parent
    scene = vk.EmbreeSceneManager()
    spectra = vesk.Spectra(scene, [550])
    ground = vesk.lambertian(spectra, "ground", 0.3)
    scene.add_instance(scene.add_mesh(**vk.make_ground_plane(5, 5, ground, 10)), 5, 5)
    scene.set_emitter(0, vesk.sun_direction(0, 0), spectra.add("sun", 100.0))
    scene.set_repetitive(2, 10.0, 10.0)
    scene.build()
    brf = vk.simulate_brf_cpu(scene, vesk.principal_plane([0]), 1000)["brf"]
    print(json.dumps({"module": vk.__file__, "vesk": vesk.__file__,
                      "stubs": (site / "vesk_gpu.pyi").is_file(),
                      "spv": sorted(str(p.relative_to(site)) for p in site.rglob("*.spv")),
                      "brf": float(brf[0, 0])}))
""")


@pytest.mark.slow
@pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""),
                    reason="the sanitizer run would only repeat make test's plain build")
def test_pip_install_gives_the_module_stubs_shaders_and_helpers(tmp_path):
    venv, env = tmp_path / "venv", plain_env()
    python = str(venv / "bin" / "python")
    subprocess.run(["/usr/bin/python3", "-m", "venv", "--system-site-packages", str(venv)],
                   check=True, env=env, timeout=300)
    # A build folder of its own that outlives the test: later runs only recompile changes.
    build = ROOT / "build-pip"
    probes = [build / "python" / "probe_install.spv",
              build / "python" / "probe_shaders" / "probe_install.spv"]

    def install_and_check():
        pip = subprocess.run(
            [python, "-m", "pip", "install", "--no-build-isolation", "--no-index",
             "--force-reinstall", "--no-deps", f"--config-settings=build-dir={build}",
             str(ROOT)], env=env, cwd=tmp_path, capture_output=True, text=True, timeout=3600)
        assert pip.returncode == 0, pip.stdout[-4000:] + pip.stderr[-4000:]
        out = subprocess.run([python, "-c", CHECK], env=env, cwd=tmp_path,
                             capture_output=True, text=True, timeout=300)
        assert out.returncode == 0, out.stderr
        got = json.loads(out.stdout.strip().splitlines()[-1])
        for key in ("module", "vesk"):
            assert got[key].startswith(str(venv)), f"{key} was not imported from the venv: {got}"
        assert got["stubs"], "vesk_gpu.pyi is installed beside the module"
        assert abs(got["brf"] - 0.3) < 1e-5, "the installed module computes a Lambertian BRF"
        return got["spv"]

    for p in probes:  # device programs left by an earlier run of this test
        p.unlink(missing_ok=True)
    installed = install_and_check()
    built = sorted(str(p.relative_to(build / "python")) for p in build.glob("python/**/*.spv"))
    assert installed == built, "the build's device programs, and nothing else"
    # Each tracing program in both trace forms, the pipeline's hit and miss stages, and
    # the programs that trace no rays in their one compute form.
    shaders = sorted([p.stem + ext for p in (ROOT / "shaders").glob("*.comp")
                      for ext in (".spv", ".rgen.spv")] +
                     [p.name + ".spv" for p in (ROOT / "shaders").glob("*.r*")] +
                     [p.stem + ".spv" for p in (ROOT / "shaders" / "compute").glob("*.comp")])
    assert [b for b in built if "/" not in b] == shaders, "every shader is built and installed"
    # Device programs that a build puts beside the module, at any depth, are installed.
    try:
        for p in probes:
            p.parent.mkdir(exist_ok=True)
            p.write_bytes(b"\x03\x02\x23\x07")
        installed = install_and_check()
    finally:
        for p in probes:
            p.unlink(missing_ok=True)
    assert {"probe_install.spv", "probe_shaders/probe_install.spv"} <= set(installed)
