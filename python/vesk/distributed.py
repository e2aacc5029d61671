"""Simulations larger than one machine, on a Dask cluster, with results identical bit for
bit to one process running the same call.

    from distributed import Client
    from vesk.distributed import simulate
    client = Client("tcp://scheduler-host:8786")  # or Client(LocalCluster(...))
    flux = simulate(client, scene, "flux", nx=64, ny=64, num_photons=10**9, num_bands=3)

The work is cut into units fixed by the problem (never by the number of workers):
image row blocks for "backward", photon ranges for "flux", "forward" and "brf" (whole
chunks of vesk_gpu.PHOTON_CHUNK photons, each chunk summed in photon order and then
exactly, in fixed point), pulse ranges for "lidar". The scene travels once to every
worker (pickled: its recipe; the acceleration structure is built again there), units
run as Dask tasks, and their results are merged in unit order: image rows and
waveforms by concatenation, photon sums by exact integer addition. A worker that dies
mid-run loses nothing: Dask runs its units again elsewhere, and they give the same bits.

Workers need `vesk_gpu` and this package importable, as the client does.
"""
import functools
import sys

import numpy as np

import vesk_gpu as vk

KINDS = ("backward", "flux", "forward", "brf", "lidar")

# Default units: big enough that a unit's own cost dwarfs Dask's (a few ms), small
# enough that a run of any size spreads over a cluster.
DEFAULT_UNITS = {"backward": 16, "flux": 256 * vk.PHOTON_CHUNK, "forward": 256 * vk.PHOTON_CHUNK,
                 "brf": 256 * vk.PHOTON_CHUNK, "lidar": 1024}

_EXACT = {"flux": vk._simulate_flux_exact, "forward": vk._simulate_forward_exact,
          "brf": vk._simulate_brf_exact}


def simulate(client, scene, kind, unit=None, progress=True, **kwargs):
    """Run one simulation on the cluster behind `client`; returns what the single-process
    entry returns for the same keyword arguments, bit for bit:

      "backward": vk.simulate_cpu (spp, max_depth, outputs, max_output_order); unit:
                  image rows per task;
      "flux":     vk.simulate_flux_cpu (nx, ny, num_photons, num_bands, ...);
      "forward":  vk.simulate_forward_cpu (num_photons is required here);
      "brf":      vk.simulate_brf_cpu (directions, num_photons, max_depth);
                  for these three, unit is photons per task, a multiple of
                  vk.PHOTON_CHUNK; first_photon offsets the whole run;
      "lidar":    vk.simulate_lidar_cpu (pulse_origins, pulse_directions, num_pulses,
                  ...); unit: pulses per task. Waveforms and waveform-mode points are
                  exact; direct-mode points come in unit order, and within a unit in the
                  order its threads found them (as in one process, where it is theirs).

    Arguments go by keyword. progress: True for a progress bar over units (tqdm when it
    is installed, else a line of text on stderr), False for none, or a callable
    progress(done, total) called as units finish. The scene is not changed.
    """
    if kind not in KINDS:
        raise ValueError(f"kind must be one of {', '.join(KINDS)}, not {kind!r}")
    if "progress" in kwargs:
        raise TypeError("progress is simulate's own argument: True, False or a callable")
    unit = DEFAULT_UNITS[kind] if unit is None else unit
    if isinstance(unit, bool) or not isinstance(unit, (int, np.integer)) or unit < 1:
        raise ValueError(f"unit must be a positive int, not {unit!r}")
    unit = int(unit)
    if kind in _EXACT and unit % vk.PHOTON_CHUNK:
        raise ValueError(f"a photon unit must be a multiple of {vk.PHOTON_CHUNK}, not {unit}")
    plan = _PLANS[kind](scene, unit, kwargs)

    # The scene once to every worker: each unit then needs only its own arguments.
    scene_future = client.scatter(scene, broadcast=True, hash=False)
    futures = [client.submit(_run_unit, scene_future, kind, plan.arguments(part), pure=False)
               for part in plan.parts]
    index = {f.key: i for i, f in enumerate(futures)}
    report = _reporter(progress, len(futures), kind)
    done = {}
    try:
        from distributed import as_completed
        for finished, future in enumerate(as_completed(futures), 1):
            # Merged in unit order as the units arrive: only early ones wait.
            done[index[future.key]] = future.result()
            plan.take(done)
            report(finished, len(futures))
    except BaseException:
        client.cancel(futures)
        raise
    finally:
        report(None, None)
        client.cancel(scene_future)
    return plan.finish()


def _run_unit(scene, kind, kwargs):
    if kind == "backward":
        return vk._simulate_cpu_rows(scene, **kwargs)
    if kind == "lidar":
        return vk.simulate_lidar_cpu(scene, **kwargs)
    return _EXACT[kind](scene, **kwargs)


def _ranges(first, total, unit):
    """[(start, count)] over [first, first + total), at least one (which may be empty)."""
    return [(first + k, min(unit, total - k)) for k in range(0, total, unit)] or [(first, 0)]


class _Plan:
    """The units of one run, the arguments of each, and their merge in unit order: `take`
    folds the units that are next in line, `finish` makes the result."""

    def __init__(self, parts, kwargs):
        self.parts, self.kwargs = parts, kwargs
        self.taken = 0

    def take(self, done):
        while self.taken in done:
            self.fold(done.pop(self.taken))
            self.taken += 1


class _Rows(_Plan):
    def __init__(self, scene, unit, kwargs):
        super().__init__(_ranges(0, scene.sensor_config()["height"], unit), kwargs)
        self.blocks = []

    def arguments(self, part):
        return {**self.kwargs, "first_row": part[0], "num_rows": part[1]}

    def fold(self, r):
        self.blocks.append(r)

    def finish(self):
        first = self.blocks[0]
        out = {"payload": np.concatenate([b["payload"] for b in self.blocks])}
        if "standard_error" in first:
            out["standard_error"] = np.concatenate([b["standard_error"] for b in self.blocks])
        if "event_aov" in first:
            out["event_aov"] = {k: np.concatenate([b["event_aov"][k] for b in self.blocks])
                                for k in first["event_aov"]}
        if "scattering_order" in first:
            out["scattering_order"] = np.concatenate(
                [b["scattering_order"] for b in self.blocks], axis=1)
        out["_execution"] = first["_execution"]
        return out


class _Photons(_Plan):
    def __init__(self, kind, scene, unit, kwargs):
        if "num_photons" not in kwargs:
            raise TypeError(f"a distributed {kind} run needs num_photons")
        self.kind, self.scene = kind, scene
        super().__init__(_ranges(kwargs.get("first_photon", 0), kwargs["num_photons"], unit),
                         kwargs)
        self.sums = None

    def arguments(self, part):
        return {**self.kwargs, "first_photon": part[0], "num_photons": part[1]}

    def fold(self, s):
        self.sums = s if self.sums is None else add_photon_sums(self.sums, s)

    def finish(self):
        return _EXACT[self.kind](self.scene, **{**self.kwargs, "sums": self.sums})


class _Pulses(_Plan):
    def __init__(self, scene, unit, kwargs):
        super().__init__(_ranges(0, kwargs.get("num_pulses", 0), unit), kwargs)
        # Each unit carries only its own pulses (converted as the entry converts them).
        self.pulses = {k: np.asarray(kwargs[k], np.float32).ravel()
                       for k in ("pulse_origins", "pulse_directions")}
        self.blocks = []

    def arguments(self, part):
        first, n = part
        cut = {k: v[3 * first:3 * (first + n)] for k, v in self.pulses.items()}
        return {**self.kwargs, **cut, "num_pulses": n}

    def fold(self, r):
        self.blocks.append(r)

    def finish(self):
        points = []
        for (first, _), b in zip(self.parts, self.blocks):
            p = b["points"].copy()
            # Pulse indices are the unit's own; the global index is exact in float32 as
            # long as one process would have it exact.
            p[:, 7] = (p[:, 7].astype(np.int64) + first).astype(np.float32)
            points.append(p)
        first = self.blocks[0]
        return {"waveform": np.concatenate([b["waveform"] for b in self.blocks]),
                "points": np.concatenate(points), "num_bins": first["num_bins"],
                "num_returns": sum(b["num_returns"] for b in self.blocks),
                "_execution": first["_execution"]}


_PLANS = {"backward": _Rows, "lidar": _Pulses, "flux": functools.partial(_Photons, "flux"),
          "forward": functools.partial(_Photons, "forward"), "brf": functools.partial(_Photons, "brf")}


def add_photon_sums(a, b):
    """The exact sums of two consecutive photon ranges (as the private _simulate_*_exact
    entries return them): 128-bit totals as int64 'hi' and uint64 'lo' halves, added with a
    carry. Raises ValueError for sums of other units or ranges that do not follow, and
    OverflowError where a total leaves the 128-bit range."""
    if not np.array_equal(a["unit_exponents"], b["unit_exponents"]) or a["hi"].shape != b["hi"].shape:
        raise ValueError("photon sums of different layouts or units cannot be added")
    if b["first_photon"] != a["first_photon"] + a["num_photons"]:
        raise ValueError("photon sums must be added in photon order, without gaps")
    lo = a["lo"] + b["lo"]  # uint64: wraps, and the wrap is the carry
    carry = (lo < a["lo"]).astype(np.int64)
    hi = a["hi"] + b["hi"]
    overflow = ((a["hi"] ^ hi) & (b["hi"] ^ hi)) < 0  # both signs differ from the sum's
    overflow |= (carry == 1) & (hi == np.iinfo(np.int64).max)
    if overflow.any():
        raise OverflowError("photon sums exceed their fixed-point range")
    return {"hi": hi + carry, "lo": lo, "unit_exponents": a["unit_exponents"],
            "first_photon": a["first_photon"], "num_photons": a["num_photons"] + b["num_photons"]}


def _reporter(progress, total, kind):
    """report(done, total) per finished unit, report(None, None) at the end."""
    if callable(progress):
        return lambda done, n: done is not None and progress(done, n)
    if not progress:
        return lambda done, n: None
    try:
        from tqdm import tqdm
        bar = tqdm(total=total, desc=f"vesk {kind}", unit="unit")

        def report(done, n):
            if done is None:
                bar.close()
            else:
                bar.update(done - bar.n)
        return report
    except ImportError:
        def report(done, n):
            if done is None:
                print(file=sys.stderr)
            else:
                print(f"\rvesk {kind}: {done}/{n} units", end="", file=sys.stderr, flush=True)
        return report
