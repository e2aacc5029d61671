"""Distributed runs on a LocalCluster of two worker processes: every kind equals one
process bit for bit, for units that cut the work anywhere, and a worker killed mid-run
changes nothing."""
import os
import signal

import numpy as np
import pytest

import vesk_gpu as vk
from test_scene_state import assert_same, rich_scene

distributed = pytest.importorskip("distributed")
from vesk.distributed import add_photon_sums, simulate  # noqa: E402

F = np.float32
CHUNK = vk.PHOTON_CHUNK
# Debian's Dask 2022.12 on its Tornado: a deprecation of theirs, not ours.
pytestmark = pytest.mark.filterwarnings("ignore:make_current is deprecated:DeprecationWarning")


@pytest.fixture(scope="module")
def client():
    # One thread per worker and per tracer: two processes share this machine's cores.
    with distributed.LocalCluster(n_workers=2, processes=True, threads_per_worker=1,
                                  dashboard_address=None, env={"VESK_NUM_THREADS": "1"}) as cluster, \
            distributed.Client(cluster) as c:
        yield c


def lidar_pulses(n=23):
    rng = np.random.default_rng(5)
    o = np.column_stack([rng.uniform(1, 9, n), rng.uniform(1, 9, n), np.full(n, 20)]).astype(F)
    d = np.tile(np.array([0.05, 0.0, -1.0], F) / np.float32(np.hypot(0.05, 1)), (n, 1))
    return {"pulse_origins": o.ravel(), "pulse_directions": d.ravel(), "num_pulses": n,
            "num_wavelengths": 2}


def test_every_kind_equals_one_process_bit_for_bit(client):
    s = rich_scene()
    dirs = np.array([0, 0, 1, 0.5, 0.2, 0.84], F)
    photons = 5 * CHUNK + 123  # the last unit is not whole
    runs = {
        "backward": (vk.simulate_cpu, 2, dict(spp=2, max_depth=5, outputs=[
            "radiance", "standard_error", "event_aov", "scattering_order"], max_output_order=1)),
        "flux": (vk.simulate_flux_cpu, 2 * CHUNK, dict(
            nx=3, ny=2, num_photons=photons, num_bands=2, prob_sun=0.7, decompose=True)),
        "forward": (vk.simulate_forward_cpu, CHUNK, dict(
            nx=3, ny=2, layer_heights=np.array([-2, 1, 5], F), num_photons=photons, num_bands=2,
            per_leaf=True, brf_directions=dirs, num_brf_dirs=2, prob_sun=0.8,
            terrain_instance_id=0, first_photon=3 * CHUNK)),
        "brf": (vk.simulate_brf_cpu, 3 * CHUNK, dict(directions=dirs, num_photons=photons)),
        "lidar": (vk.simulate_lidar_cpu, 7, lidar_pulses()),
    }
    for kind, (single, unit, kwargs) in runs.items():
        seen = []
        out = simulate(client, s, kind, unit=unit, progress=lambda d, n: seen.append((d, n)),
                       **kwargs)
        assert_same(out, single(s, **kwargs), kind)
        assert seen[-1][0] == seen[-1][1] == len(seen) > 1, kind
    with pytest.raises(ValueError, match="multiple of 4096"):
        simulate(client, s, "flux", unit=1000, **runs["flux"][2])
    with pytest.raises(ValueError, match="first_photon must be a non-negative multiple"):
        simulate(client, s, "flux", progress=False, **{**runs["flux"][2], "first_photon": 7})


def test_photon_sums_add_exactly_with_a_carry():
    def sums(values, first):
        return {"hi": np.array([v >> 64 for v in values], np.int64),
                "lo": np.array([v & (2**64 - 1) for v in values], np.uint64),
                "unit_exponents": np.array([-60], np.int32), "first_photon": first,
                "num_photons": CHUNK}
    x = [2**64 - 1, -2**64 + 5, 2**126, -3]
    y = [1, 2**64 - 6, 2**126 - 2**64 + 3, -2**100]
    c = add_photon_sums(sums(x, 0), sums(y, CHUNK))
    assert [(int(h) << 64) + int(lo) for h, lo in zip(c["hi"], c["lo"])] == \
        [a + b for a, b in zip(x, y)]
    assert (c["first_photon"], c["num_photons"]) == (0, 2 * CHUNK)
    with pytest.raises(OverflowError):
        add_photon_sums(c, sums([0, 0, 2**64, 0], 2 * CHUNK))
    with pytest.raises(ValueError, match="photon order"):
        add_photon_sums(c, sums(x, CHUNK))


def test_a_worker_killed_mid_run_is_replaced_and_changes_nothing(client):
    s = rich_scene()
    kwargs = dict(nx=4, ny=4, num_photons=24 * CHUNK, num_bands=2, prob_sun=0.7)
    pids = client.run(os.getpid)
    killed = []

    def kill_a_busy_worker(done, total):
        if killed:
            return
        busy = [w for w, keys in client.processing().items() if keys and w in pids]
        if busy:
            os.kill(pids[busy[0]], signal.SIGKILL)
            killed.append(busy[0])

    out = simulate(client, s, "flux", unit=CHUNK, progress=kill_a_busy_worker, **kwargs)
    assert killed, "no worker was busy when the first unit came back"
    assert_same(out, vk.simulate_flux_cpu(s, **kwargs))
    client.wait_for_workers(2, timeout=60)
    assert pids[killed[0]] not in client.run(os.getpid).values(), "the worker was not replaced"
