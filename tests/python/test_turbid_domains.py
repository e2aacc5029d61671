"""Turbid domains: closed leaf volumes, their leaf-area samples, and transactional commits."""
import numpy as np
import pytest

import vesk_gpu as vk
from conftest import unit_cube

F = np.float32


def sphere(radius=1.0, center=(0, 0, 0), subdivisions=3, inward=False):
    g = vk.make_sphere(radius, np.array(center, F), subdivisions)
    return g["vertices"], (g["indices"][:, ::-1].copy() if inward else g["indices"])


def torus(R=2.0, r=0.5, nu=24, nv=12):
    u, v = np.meshgrid(np.arange(nu) * 2 * np.pi / nu, np.arange(nv) * 2 * np.pi / nv, indexing="ij")
    verts = np.stack([(R + r * np.cos(v)) * np.cos(u), (R + r * np.cos(v)) * np.sin(u),
                      r * np.sin(v)], -1).reshape(-1, 3).astype(F)
    idx = lambda i, j: (i % nu) * nv + (j % nv)  # noqa: E731
    tris = [t for i in range(nu) for j in range(nv)
            for t in ([idx(i, j), idx(i + 1, j), idx(i + 1, j + 1)],
                      [idx(i, j), idx(i + 1, j + 1), idx(i, j + 1)])]
    return verts, np.array(tris, np.int32)


def owner(mesh, owner_id=1, **extra):
    v, t = mesh
    return dict(owner_id=owner_id, medium_id=owner_id, leaf_area_density=1.5, leaf_length=0.05,
                vertices=v, triangles=t, **extra)


def request(*owners, **config):
    return dict(owners=list(owners), seed=7, sample_budget=256, **config)


def cube():
    c = unit_cube()
    return c["vertices"], c["indices"]


def shell_with_cavity():
    (vo, to), (vi, ti) = sphere(2.0), sphere(1.0, inward=True)
    return np.concatenate([vo, vi]), np.concatenate([to, ti + len(vo)])


@pytest.mark.parametrize("mesh, shells", [(cube(), 1), (torus(), 1), (shell_with_cavity(), 2)])
def test_closed_boundaries_pass_with_their_volume(mesh, shells):
    s = vk.EmbreeSceneManager()
    r = vk._preflight_turbid_sampling_embree(s, request(owner(mesh)))["owners"][0]
    assert r["n_shells"] == shells
    v, t = mesh
    a, b, c = (v[t[:, k]].astype(np.float64) for k in range(3))
    expected = np.einsum("ij,ij->i", a, np.cross(b, c)).sum() / 6
    assert r["volume"] == pytest.approx(expected, rel=1e-12)
    assert r["target_leaf_area"] == pytest.approx(1.5 * expected, rel=1e-12)


def broken(kind):
    v, t = cube()
    if kind == "open":
        return v, t[:-1]
    if kind == "flipped":
        t = t.copy()
        t[0] = t[0][::-1]
        return v, t
    if kind == "degenerate":
        return np.concatenate([v, v[:1]]), np.concatenate([t, [[0, 1, 8]]]).astype(np.int32)
    if kind == "bow-tie":  # two cubes sharing one corner vertex
        w = v + 1.0
        w[0] = v[7]
        return np.concatenate([v, w[1:]]), np.concatenate(
            [t, np.where(t == 0, 7, t + 7)]).astype(np.int32)
    # two cubes through each other
    return np.concatenate([v, v + 0.3]), np.concatenate([t, t + 8]).astype(np.int32)


@pytest.mark.parametrize("kind, text", [
    ("open", "is open"), ("flipped", "has inconsistent orientation"),
    ("degenerate", "contains a degenerate triangle"),
    ("bow-tie", "has a bow-tie/non-manifold vertex"),
    ("intersecting", "has an intersection or overlap beyond the shared adjacent simplex"),
])
def test_broken_boundaries_are_refused(kind, text):
    with pytest.raises(ValueError, match="Turbid closed triangle boundary " + text):
        vk._preflight_turbid_sampling_embree(vk.EmbreeSceneManager(), request(owner(broken(kind))))


def test_a_cavity_wound_like_its_shell_breaks_the_nesting():
    (vo, to), (vi, ti) = sphere(2.0), sphere(1.0)
    mesh = np.concatenate([vo, vi]), np.concatenate([to, ti + len(vo)])
    with pytest.raises(ValueError, match="connected shell orientation does not match"):
        vk._preflight_turbid_sampling_embree(vk.EmbreeSceneManager(), request(owner(mesh)))


def samples(s, req, **kw):
    return vk._debug_turbid_samples_embree(s, req, kw.pop("quality", "standard"),
                                           kw.pop("seed", 7), **kw)["payload"]


def test_samples_fill_a_sphere_uniformly_and_carry_its_leaf_area(monkeypatch):
    s = vk.EmbreeSceneManager()
    req = request(owner(sphere(1.0, (3, 0, 1))))
    got = {}
    for threads in ("1", "2"):
        monkeypatch.setenv("VESK_NUM_THREADS", threads)
        got[threads] = samples(s, req, sample_budget=4096)
    for k in got["1"]:
        if k != "semantics":
            np.testing.assert_array_equal(got["1"][k], got["2"][k], err_msg=k)
    p = got["1"]
    assert p["semantics"] == "scientific_leaf_area_integration_point"
    x = p["position"].astype(np.float64) - [3, 0, 1]
    r = np.linalg.norm(x, axis=1)
    assert r.max() <= 1.0 + 1e-6, "a sample lies outside the crown"
    volume = vk._preflight_turbid_sampling_embree(s, req)["owners"][0]["volume"]
    # Uniform in the (polyhedral) ball: r^3 uniform, octants equal.
    assert abs((r**3).mean() - 0.5 * volume / (4 / 3 * np.pi)) < 0.015
    octants = np.bincount((x > 0) @ [1, 2, 4], minlength=8) / len(x)
    np.testing.assert_allclose(octants, 1 / 8, atol=0.012)
    assert p["leaf_area"].astype(np.float64).sum() == pytest.approx(1.5 * volume, rel=1e-6)
    np.testing.assert_allclose(np.linalg.norm(p["normal"], axis=1), 1, atol=1e-6)
    assert (p["sample_id"] >> np.uint64(32) == p["sample_id"][0] >> np.uint64(32)).all()


def test_budget_prefix_and_orientation_invariance():
    s = vk.EmbreeSceneManager()
    out = sphere(1.0, (0, 0, 2))
    small, large = (samples(s, request(owner(out)), sample_budget=b) for b in (300, 900))
    for k in ("sample_id", "position", "normal"):
        np.testing.assert_array_equal(large[k][:300], small[k], err_msg=k)
    v, t = out
    flipped = samples(s, request(owner((v, t[:, ::-1].copy()), closed_orientation=-1)),
                      sample_budget=300)
    for k in ("sample_id", "position", "normal", "leaf_area"):
        np.testing.assert_array_equal(flipped[k], small[k], err_msg=k)


def two_crowns(scene=None):
    return request(owner(sphere(1.0, (0, 0, 3)), owner_id=11), owner(sphere(1.2, (4, 0, 3)), owner_id=12))


@pytest.mark.parametrize("stage", ["derived_prune_stage", "table_stage", "table_replace", "removal"])
def test_an_armed_commit_stage_fails_once_and_changes_nothing(stage):
    s = vk.EmbreeSceneManager()
    first = vk._build_turbid_domain_embree(s, two_crowns())
    held = vk._debug_turbid_domain_samples_embree(s, first["domain_id"])
    before = (vk._debug_turbid_residency_embree(s)["domains"], vk._debug_turbid_scene_relations_embree(s),
              vk._turbid_domain_revisions_embree(s, first["domain_id"]))
    vk._set_turbid_commit_failure_embree(s, stage)
    with pytest.raises(RuntimeError, match="Injected Embree Turbid commit failure: " + stage):
        vk._extend_turbid_samples_embree(s, first["domain_id"], 512)
    after = (vk._debug_turbid_residency_embree(s)["domains"], vk._debug_turbid_scene_relations_embree(s),
             vk._turbid_domain_revisions_embree(s, first["domain_id"]))
    assert after == before
    np.testing.assert_array_equal(vk._debug_turbid_domain_samples_embree(s, first["domain_id"])["position"],
                                  held["position"])
    grown = vk._extend_turbid_samples_embree(s, first["domain_id"], 512)  # disarmed: passes
    assert grown["n_samples"] == 1024 and grown["extension_count"] == 1
    assert vk._turbid_domain_revisions_embree(s, first["domain_id"])["domain_revision"] == 2


@pytest.mark.parametrize("change, error, text", [
    (dict(quality="best"), ValueError, "unknown Turbid sampling quality: best"),
    (dict(sample_budget=4194304), ValueError, "budget exceeds the native candidate/index limit"),
    (dict(max_candidates=2**32), ValueError, "candidate limit exceeds uint32 candidate indexing"),
    (dict(orientation_phi_bins=0), ValueError, "Turbid orientation dimensions must be positive"),
    (dict(max_candidates=10), RuntimeError, "acceptance was too low for the checked candidate limit"
                                            ". No fallback was performed."),
    (dict(contract_revision=2), ValueError, "incompatible Turbid contract revision"),
])
def test_request_refusals_leave_no_domain(change, error, text):
    s = vk.EmbreeSceneManager()
    with pytest.raises(error, match=text):
        vk._build_turbid_domain_embree(s, {**two_crowns(), **change})
    assert vk._debug_turbid_residency_embree(s)["domains"] == {}


@pytest.mark.parametrize("edit, text", [
    (lambda o: o[1].update(owner_id=11), "Turbid stable owner tag collision"),
    (lambda o: o[1].update(medium_id=11), "duplicate Turbid scene owner or medium identifier"),
    (lambda o: o[0].update(leaf_length=5.0), "Turbid domain must remain a continuous statistical medium"),
    (lambda o: o[0].update(sidedness=3), "Turbid sidedness must be one or two"),
    (lambda o: o[0].update(closed_orientation=0), "Turbid closed-boundary orientation must be -1 or"),
    (lambda o: o[0].update(leaf_area_density=0.0), "Turbid leaf density and dimensions must be positive"),
    (lambda o: o[0].update(property_ids=[1, 2]), "property_ids must contain four stable identifiers"),
    (lambda o: o[0].update(bounds_min=[0, 0, 0], bounds_max=[1, 1, 1]),
     "Turbid component bounds do not match closed triangle boundary"),
])
def test_owner_refusals(edit, text):
    req = two_crowns()
    edit(req["owners"])
    with pytest.raises(ValueError, match=text):
        vk._build_turbid_domain_embree(vk.EmbreeSceneManager(), req)


def test_identifiers_handles_and_relations():
    assert vk.TURBID_MAX_SAMPLE_BUDGET == 4194303
    assert vk._test_turbid_domain_id_exhaustion() == {"first_exhausted": True, "second_exhausted": True}
    s = vk.EmbreeSceneManager()
    with pytest.raises(RuntimeError, match="Stale TurbidDomain handle .* No fallback was performed."):
        vk._extend_turbid_samples_embree(s, 5, 100)
    # A scene instance can be the owner's geometry; a second domain in one commit, with a
    # global overlap between their media.
    mid = s.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 2))
    inst = s.add_instance(mid, 8.0, 0.0, 3.0)
    second = request(dict(owner_id=21, medium_id=21, leaf_area_density=2.0, leaf_length=0.05,
                          instance_id=inst))
    built = vk._build_turbid_domains_embree(s, {"domains": [two_crowns(), second],
                                                "global_overlaps": [[11, 21]]})
    assert [b["n_samples"] for b in built] == [512, 256]
    rel = vk._debug_turbid_scene_relations_embree(s)
    assert [o["owner_id"] for o in rel["owners"]] == [11, 12, 21] and rel["overlaps"] == [(11, 21)]
    with pytest.raises(ValueError, match="duplicate Turbid global overlap relation"):
        vk._build_turbid_domains_embree(s, {"domains": [request(owner(cube(), owner_id=31))],
                                            "global_overlaps": [[11, 21]]})
