"""Bounded fuzzing of every public entry point. The seeded cases of fuzz_cases.py run in
child workers, so a crash or a hang is caught and blamed on the call that caused it; the
workers themselves check the outcome of each call and that a failed call changed nothing."""
import os
import pathlib
import re
import select
import signal
import subprocess
import sys
import tempfile
import threading
import time

import vesk_gpu as vk
from fuzz_cases import READERS, build_cases

HERE = pathlib.Path(__file__).resolve().parent
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")
# Instrumented code runs a few times slower; its huge requests would be fatal to ASan's
# allocator rather than a MemoryError, so those cases stay with the plain build.
SCALE = 4.0 if SANITIZED else 1.0
STARTUP = 60.0
WORKERS = max(1, min(2, os.cpu_count() or 1))


def worker_env():
    env = dict(os.environ)
    env["PYTHONPATH"] = os.pathsep.join(
        p for p in (os.path.dirname(vk.__file__), str(HERE), env.get("PYTHONPATH")) if p)
    if SANITIZED:
        env["ASAN_OPTIONS"] = env.get("ASAN_OPTIONS", "") + ":max_allocation_size_mb=6144"
    return env


def clip(line, keep=110):
    return line if len(line) <= 2 * keep else f"{line[:keep]} ... {line[-keep:]}"


def excerpt(err_file, start):
    """What the worker's stderr says about the case since it began: a sanitizer's report
    with the top frames of its first stack, or the last lines a crash printed."""
    size = os.fstat(err_file.fileno()).st_size
    text = os.pread(err_file.fileno(), min(size - start, 1 << 20), start).decode(
        "utf-8", "replace")
    lines = [ln.rstrip() for ln in text.splitlines() if ln.strip()]
    keep = []
    for k, line in enumerate(lines):
        if "ERROR: AddressSanitizer" in line or "runtime error:" in line:
            keep, frames = [line], 0
            for f in lines[k + 1:k + 20]:
                if re.match(r"\s*#\d+ ", f):
                    frames += 1
                    if frames <= 5:
                        keep.append(f)
                elif frames:
                    break  # the end of the first stack
                else:
                    keep.append(f)  # what was accessed, and by which thread
            keep += [f for f in lines if f.startswith("SUMMARY")][:1]
            break
    if not keep:
        keep = [ln for ln in lines if not ln.startswith(("Forward ", "  File ", "Thread 0x",
                                                         "Extension modules"))][-4:]
    return "".join(f"\n        | {clip(ln)}" for ln in keep)


def run_shard(cases, indices, problems, lock):
    """Runs the cases through workers, one worker at a time, restarting after each crash
    or hang from the next case."""
    pending = list(indices)
    while pending:
        read_fd, write_fd = os.pipe()
        err = tempfile.TemporaryFile()
        cmd = [sys.executable, str(HERE / "fuzz_cases.py"), str(write_fd),
               ",".join(map(str, pending))]
        if not SANITIZED:
            cmd[1:1] = ["-X", "faulthandler"]
        proc = subprocess.Popen(cmd, pass_fds=(write_fd,), stdout=subprocess.DEVNULL,
                                stderr=err, env=worker_env(), cwd=HERE, start_new_session=True)
        os.close(write_fd)
        current, phase, started, err_at, last_done = None, "start-up", False, 0, None
        deadline, buf, outcome = time.monotonic() + STARTUP, b"", None
        while outcome is None:
            left = deadline - time.monotonic()
            if left <= 0:
                outcome = "hang"
                break
            if not select.select([read_fd], [], [], left)[0]:
                continue
            chunk = os.read(read_fd, 1 << 16)
            if not chunk:
                outcome = "exit"
                break
            *lines, buf = (buf + chunk).split(b"\n")
            for line in lines:
                tag, i, text = (line.decode().split(" ", 2) + [""])[:3]
                i = int(i)
                if tag == "S":
                    current, phase, started, err_at = i, "start", True, int(text)
                    deadline = time.monotonic() + cases[i].timeout * SCALE
                elif tag == "P":
                    phase = text
                elif tag == "D":
                    if text:
                        with lock:
                            problems.append((i, text))
                    pending.remove(i)
                    last_done, current, deadline = i, None, time.monotonic() + STARTUP
        os.close(read_fd)
        if outcome == "hang":
            os.killpg(proc.pid, signal.SIGKILL)
        rc = proc.wait()
        if current is None and not pending and rc == 0:
            break
        if current is None and not started:
            with lock:
                problems.append((pending[0], f"worker failed to start (exit {rc}), "
                                             f"cases {pending} not run{excerpt(err, 0)}"))
            break
        if current is None:
            # Past its last report: the worker failed on its way out, after case last_done.
            current, phase = last_done, "the worker's exit after this case"
        if outcome == "hang":
            what = f"HANG: no answer within {cases[current].timeout * SCALE:.0f} s"
        elif rc < 0:
            what = f"CRASH: {signal.Signals(-rc).name}"
        else:
            what = f"CRASH: worker exited with status {rc}"
        with lock:
            problems.append((current, f"{what} during {phase}{excerpt(err, err_at)}"))
        if current in pending:
            pending.remove(current)
        err.close()


def run_cases(cases, indices):
    problems, lock = [], threading.Lock()
    shards = [indices[k::WORKERS] for k in range(WORKERS)]
    threads = [threading.Thread(target=run_shard, args=(cases, s, problems, lock))
               for s in shards if s]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return sorted(problems)


def test_cases_reach_every_public_entry_point():
    reached = {c.target.split(".", 1)[1] for case in build_cases() for c in case.calls}
    functions = {n for n in dir(vk) if not n.startswith("__") and callable(getattr(vk, n))
                 and not isinstance(getattr(vk, n), type)}
    methods = {n for n in dir(vk.EmbreeSceneManager) if not n.startswith("_")}
    # Argument-free readers are called by every case's snapshot.
    missing = (functions | methods) - reached - set(READERS)
    assert not missing, f"no fuzz cases for {sorted(missing)}"


def test_no_call_crashes_hangs_or_changes_the_scene_when_it_fails():
    cases = build_cases()
    indices = [i for i, c in enumerate(cases) if not (SANITIZED and c.huge)]
    problems = run_cases(cases, indices)
    report = "\n".join(f"  {cases[i].text()}\n    -> {text}" for i, text in problems)
    assert not problems, f"{len(problems)} of {len(indices)} fuzz cases misbehaved:\n{report}"
