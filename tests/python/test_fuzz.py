"""Bounded fuzzing of every public entry point. The seeded cases of fuzz_cases.py run in
child workers, so a crash or a hang is blamed on the statement it happened in."""
import os
import pathlib
import queue
import re
import signal
import subprocess
import sys
import tempfile
import threading

import vesk_gpu as vk
from fuzz_cases import ENTRIES, VULKAN_DEVICES, build_cases, call, make_scene, namespace, working_kind

HERE = pathlib.Path(__file__).resolve().parent
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")
# Instrumented code runs a few times slower; huge requests would be fatal to ASan's
# allocator rather than a MemoryError, so those cases stay with the plain build.
TIMEOUT = 60.0 if SANITIZED else 15.0
ENV = dict(os.environ, PYTHONPATH=os.pathsep.join(
    p for p in (os.path.dirname(vk.__file__), str(HERE), os.environ.get("PYTHONPATH")) if p))
if SANITIZED:
    ENV["ASAN_OPTIONS"] = ENV.get("ASAN_OPTIONS", "") + ":max_allocation_size_mb=6144"


def excerpt(err):
    """What the worker wrote to stderr during its last case: from a sanitizer's report on,
    else the last lines."""
    err.seek(0)
    lines = [ln.rstrip() for ln in err.read().decode("utf-8", "replace").rsplit(
        "--- case ", 1)[-1].splitlines()[1:] if ln.strip()]
    at = [k for k, ln in enumerate(lines) if re.search(r"ERROR: |runtime error:", ln)]
    keep = lines[at[0]:at[0] + 8] if at else lines[-4:]
    return "".join(f"\n        | {ln[:220]}" for ln in keep)


def run_worker(todo, problems):
    """Runs the cases through one worker after another: a crash or hang is blamed on the
    case and phase the worker announced last, and the next worker goes on after it."""
    while todo:
        read_fd, write_fd = os.pipe()
        err = tempfile.TemporaryFile()
        proc = subprocess.Popen(
            [sys.executable, str(HERE / "fuzz_cases.py"), str(write_fd), ",".join(map(str, todo))],
            pass_fds=(write_fd,), stdout=subprocess.DEVNULL, stderr=err, env=ENV, cwd=HERE,
            start_new_session=True)
        os.close(write_fd)
        lines = queue.Queue()
        threading.Thread(target=lambda f: [*map(lines.put, f), lines.put("")],
                         args=(os.fdopen(read_fd),), daemon=True).start()
        current, phase, hung = None, "start-up", False
        try:
            for line in iter(lambda: lines.get(timeout=TIMEOUT), ""):
                tag, i, text = (line.rstrip("\n").split(" ", 2) + [""])[:3]
                current, phase = int(i), text
                if tag == "D":
                    problems += [(current, text)] if text else []
                    todo, phase = todo[1:], "the worker's work after this case"
        except queue.Empty:
            hung = True
            os.killpg(proc.pid, signal.SIGKILL)
        rc = proc.wait()
        if not hung and rc == 0 and not todo:
            return
        what = (f"HANG: no answer within {TIMEOUT:.0f} s" if hung else
                f"CRASH: {signal.Signals(-rc).name}" if rc < 0 else f"CRASH: exit status {rc}")
        if current is None:  # not a case's fault: stop here
            return problems.append((todo[0], f"worker {what} at start-up{excerpt(err)}"))
        problems.append((current, f"{what} during {phase}{excerpt(err)}"))
        todo = [i for i in todo if i != current]


def test_cases_reach_every_entry_point_whose_working_call_works():
    text = " ".join(st for case in build_cases() for st in case[1])
    functions = {n for n, f in vars(vk).items() if n[:2] != "__" and callable(f)
                 and not isinstance(f, type)}
    methods = {n for cls in (vk.EmbreeSceneManager, vk.VulkanSceneManager) for n in dir(cls)
               if not n.startswith("_")}
    if not VULKAN_DEVICES:  # no Vulkan scene can be made: its own methods go unreached
        methods -= set(dir(vk.VulkanSceneManager)) - set(dir(vk.EmbreeSceneManager))
    missing = sorted(n for n in functions | methods if f".{n}(" not in text)
    assert not missing, f"no fuzz cases for {missing}"
    for target in ENTRIES:  # a mutated call only tests something if the original works
        if VULKAN_DEVICES or working_kind(target) == "ready":
            exec(call(target), namespace(make_scene(working_kind(target))))


def test_no_call_crashes_hangs_or_changes_the_scene_when_it_fails():
    cases = build_cases()
    todo = [i for i, c in enumerate(cases) if not (SANITIZED and c[2])]
    problems = []
    workers = [threading.Thread(target=run_worker, args=(todo[k::2], problems)) for k in (0, 1)]
    for w in workers:
        w.start()
    for w in workers:
        w.join()
    report = "\n".join(f"  [{cases[i][0]} scene] {'; '.join(cases[i][1])}\n    -> {text}"
                       for i, text in sorted(problems))
    assert not problems, f"{len(problems)} of {len(todo)} fuzz cases misbehaved:\n{report}"
