"""The Turbid workflow: radiation states on leaf-area samples, physiology on them, leaf
longwave transport, fields, thermal and SIF sources, and the token rules."""
import numpy as np
import pytest

import vesk_gpu as vk
from conftest import unit_cube
from test_backward import camera_towards

F = np.float32
W = H = 2.0
SIGMA = 5.670374e-8
LEAF = dict(vcmax25=55.0, jmax25=110.0, rd25=1.0, ball_berry_slope=9.0,
            ball_berry_intercept=0.01, co2=400.0, relative_humidity=0.6)
STALE_STATE = ("Stale TurbidState token belongs to another scene/domain or revision. "
               "No fallback was performed.")
STALE_FIELD = "Stale TurbidField token belongs to another scene/domain/state. No fallback was performed."


def layer(zenith_deg=30.0, leaf=(0.1, 0.1, 0.1), lai=2.0, budget=1500):
    """A horizontally homogeneous leaf layer 1-3 m up filling a repeated tile, no ground,
    under a sun of 1000 W m-2 per band at 550 and 650 nm; one domain over it."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(2)
    s.set_thermal_mode(False, [550.0, 650.0])
    front, back, trans = leaf
    s.upload_spectral_params(np.array([0, 0, front, front, back, back, trans, trans, 1000, 1000], F))
    s.add_material(0, 0, [0.0])
    s.add_material(13, 2, [front, trans])
    box = s.add_mesh(**unit_cube(), material_id=1)
    inst = s.add_instance_xform(box, np.array([W, 0, 0, W / 2, 0, H, 0, H / 2, 0, 0, 2.0, 2.0], F))
    s.set_optical_turbid_media([lai / 2.0], [0], [1], [0.0], [-1, 0])
    z = np.radians(zenith_deg)
    s.set_emitter(0, np.array([np.sin(z), 0, np.cos(z)], F), 8)
    s.set_repetitive(200, W, H)
    s.build()
    d = vk._build_turbid_domain_embree(s, {"seed": 3, "sample_budget": budget, "owners": [
        {"owner_id": 5, "leaf_area_density": lai / 2.0, "leaf_length": 0.05, "instance_id": inst}]})
    return s, d["domain_id"]


def state(s, domain, **extra):
    return vk._build_turbid_state_embree(s, dict(domain_id=domain, rays_per_side=8, **extra))


def physiology(s, token, **extra):
    return vk._solve_turbid_physiology_embree(s, {"state": token, "temperature": 298.0, **LEAF, **extra})


def test_layer_sunlit_probability_is_beer_lambert_and_absorption_matches_the_flux_tracer():
    s, domain = layer()
    st = state(s, domain)
    samples = vk._debug_turbid_domain_samples_embree(s, domain)
    depth_lai = 3.0 - samples["position"][:, 2]  # cumulative leaf area from the top, LAD 1
    g = np.interp(30.0, np.arange(91), s.optical_turbid_medium(0)["projection_g"])
    expected = np.exp(-g * depth_lai / np.cos(np.radians(30.0)))
    bins = np.digitize(depth_lai, np.linspace(0, 2, 9))
    for b in np.unique(bins):
        k = bins == b
        got, want = st["sunlit_probability"][k].mean(), expected[k].mean()
        # The transmittance is computed, not sampled: only float rounding remains.
        assert abs(got - want) < 1e-4, f"sunlit probability {got} vs Beer-Lambert {want} in bin {b}"
    # Total absorbed by the layer's leaves against the photons of the flux tracer: with no
    # ground every event it charges is a leaf, which absorbs 1 - R - T = 0.8 of it.
    absorbed = (samples["leaf_area"][:, None] * (st["absorbed_top"] + st["absorbed_bottom"])).sum(0)
    photons = 200000
    flux = vk.simulate_flux_cpu(s, 1, 1, photons, 2)
    reference = 0.8 * flux["downwelling"].reshape(2)
    incident = 1000 * W * H * np.cos(np.radians(30.0))
    tolerance = 4 * incident / np.sqrt(photons) + 0.01 * reference
    assert (abs(absorbed - reference) < tolerance).all(), \
        f"leaf absorption of the state {absorbed} W against the flux tracer's {reference} W"
    # Direct share and PAR: the direct beam a sunlit leaf takes, counted at 550 and 650 nm.
    assert (st["direct_share"] > 0).all() and (st["direct_share"] <= 1).all()
    np.testing.assert_allclose(st["apar_sunlit"] - st["apar_shaded"],
                               (st["absorbed_direct_sunlit"] * [4.5977, 5.4336]).sum(1), rtol=1e-3)
    # Same seed, one thread or two: the same bits.
    again = state(s, domain, threads=1)
    np.testing.assert_array_equal(again["absorbed_top"], st["absorbed_top"])


@pytest.mark.parametrize("energy", [False, True])
def test_a_sample_is_two_leaves_of_the_leaf_solver(energy):
    s, domain = layer(budget=64)
    st = state(s, domain)
    extra = dict(energy_balance=True, absorbed_longwave=350.0, air_temperature=297.0,
                 vapor_pressure=1500.0, sidedness=2.0, leaf_width=0.05, stomata_sides=1.0) if energy else {}
    ph = physiology(s, st["state"], emissivity=0.97, **extra)
    assert ph["state"]["workflow_stage"] == (3 if energy else 2)
    i = int(np.argmax(st["apar_sunlit"] - st["apar_shaded"]))
    req = {k: np.full(2, v, F) for k, v in LEAF.items()}
    req.update(apar=np.array([[st["apar_sunlit"][i]], [st["apar_shaded"][i]]], F),
               temperature=np.full(2, 298.0, F), vpd=np.zeros(2, F), pressure=np.full(2, 101.325, F),
               wind=np.full(2, 1.0, F), quantum_yield=np.full(2, 0.03, F), max_iterations=100,
               tolerance=1e-3)
    if energy:
        req.update(dynamic_energy_balance=True,
                   absorbed_shortwave=np.array([st["shortwave_sunlit"][i], st["shortwave_shaded"][i]], F),
                   absorbed_longwave=np.full(2, 350.0, F), air_temperature=np.full(2, 297.0, F),
                   vapor_pressure=np.full(2, 1500.0, F), emissivity=np.full(2, 0.97, F),
                   sidedness=np.full(2, 2.0, F), leaf_width=np.full(2, 0.05, F),
                   stomata_sides=np.full(2, 1.0, F))
    ref = vk.solve_physiology_cpu(s, req)
    for key in ("an", "gs", "phi_f") + (("temperature",) if energy else ()):
        got = [ph[key + "_sunlit"][i], ph[key + "_shaded"][i]]
        np.testing.assert_array_equal(got, ref[key], err_msg=f"{key} of sample {i}'s two leaves")
    f = st["sunlit_probability"][i]
    assert ph["an"][i] == pytest.approx(f * ref["an"][0] + (1 - f) * ref["an"][1], rel=1e-6)


def closed_box(n_samples=400):
    """A closed room (inward faces, the floor is the terrain) holding a turbid crown."""
    s = vk.EmbreeSceneManager()
    s.set_num_bands(1)
    s.upload_spectral_params(np.array([0.5, 0.1, 0.1, 0.1], F))
    s.add_material(0, 0, [0.5])
    s.add_material(13, 1, [0.1, 0.1])
    c = unit_cube()
    s.add_instance(s.add_mesh(c["vertices"], c["normals"], c["indices"][:, ::-1].copy(), 0), 0, 0, 2.0, 4.0)
    crown = s.add_instance(s.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 2), material_id=1), 0, 0, 1.5, 1.0)
    s.set_optical_turbid_media([2.0], [0], [1], [0.0], [-1, 0])
    s.build()
    d = vk._build_turbid_domain_embree(s, {"seed": 1, "sample_budget": n_samples, "owners": [
        {"owner_id": 9, "leaf_area_density": 2.0, "leaf_length": 0.05, "instance_id": crown}]})
    return s, d["domain_id"]


@pytest.mark.parametrize("leaf_eps, wall_eps", [(0.95, 0.9), (0.7, 1.0)])
def test_isothermal_closed_box_absorbs_what_it_emits(leaf_eps, wall_eps):
    s, domain = closed_box()
    T, n, rays = 300.0, s.n_primitives(), 32
    r = vk.run_turbid_leaf_rrt_cpu(s, dict(
        domain_id=domain, temperature=T, emissivity=leaf_eps, primitive_temperature=np.full(n, T, F),
        primitive_emissivity=np.full(n, wall_eps, F), two_sided=False, rays_per_side=rays, seed=4))
    for side in ("absorbed_top", "absorbed_bottom"):
        a = r[side]
        want = leaf_eps * SIGMA * T**4
        assert abs(a.mean() - want) < 4 * a.std() / np.sqrt(a.size) + 1e-3 * want, \
            f"{side}: {a.mean()} W m-2 against eps sigma T^4 = {want}"
    np.testing.assert_allclose(r["emitted"], leaf_eps * SIGMA * T**4, rtol=1e-6)
    walls = r["primitive_absorbed_front"][:12]  # the room; the crown's boundary is no matter
    assert abs(walls.mean() - wall_eps * SIGMA * T**4) < 4 * walls.std() / np.sqrt(12) + 1e-3 * SIGMA * T**4
    assert (r["primitive_absorbed_front"][12:] == 0).all() and (r["primitive_absorbed_back"] == 0).all()
    one = vk.run_turbid_leaf_rrt_cpu(s, dict(
        domain_id=domain, temperature=T, emissivity=leaf_eps, primitive_temperature=np.full(n, T, F),
        primitive_emissivity=np.full(n, wall_eps, F), two_sided=False, rays_per_side=rays, seed=4,
        threads=1))
    np.testing.assert_array_equal(one["absorbed_top"], r["absorbed_top"], err_msg="thread count matters")


def test_leaves_met_emit_as_the_samples_near_them():
    # Half the crown hot, half cold, in a cold black room: samples on the hot side see
    # more longwave than those on the cold side, as the nearby leaves they see are hot.
    s, domain = closed_box()
    x = vk._debug_turbid_domain_samples_embree(s, domain)["position"][:, 0]
    T = np.where(x > 0, 320.0, 280.0).astype(F)
    n = s.n_primitives()
    r = vk.run_turbid_leaf_rrt_cpu(s, dict(domain_id=domain, temperature=T, emissivity=1.0,
                                           primitive_temperature=np.zeros(n, F), rays_per_side=16))
    hot, cold = r["absorbed"][x > 0.5].mean(), r["absorbed"][x < -0.5].mean()
    assert hot > 1.1 * cold, f"absorbed longwave {hot} W m-2 on the hot side, {cold} on the cold"
    one = vk.run_turbid_leaf_rrt_cpu(s, dict(domain_id=domain, temperature=T, emissivity=1.0,
                                             primitive_temperature=np.zeros(n, F), rays_per_side=16,
                                             emission_cells=1))
    assert one["absorbed"][x > 0.5].mean() < hot, "one cell averages the two halves"


def test_sif_source_keeps_the_samples_emission_and_renders_like_explicit_leaves(rng):
    # A crown under a uniform sky (no sun): the turbid crown's SIF-only image against the
    # same crown of small explicit leaves, each leaf given the assembled field's value at
    # its cell and orientation. What differs is only the leaves' geometry.
    def scene():
        s = vk.EmbreeSceneManager()
        s.set_num_bands(2)
        s.set_thermal_mode(False, [680.0, 740.0])
        s.upload_spectral_params(np.array([0, 0, .05, .3, .05, .3, .03, .3, 300, 300], F))
        s.add_material(0, 0, [0.0])
        s.add_material(13, 2, [0.17, 0.16])
        s.set_sky(8)
        s.set_sensor(0, 24, 24, 2.4, 2.4, camera_towards([0, 0, -1], [0, 0, 10]))
        return s

    turbid = scene()
    crown = turbid.add_instance(turbid.add_mesh(**vk.make_sphere(1.0, np.zeros(3, F), 3), material_id=1))
    turbid.set_optical_turbid_media([1.5], [0], [1], [0.0], [-1, 0])
    turbid.build()
    d = vk._build_turbid_domain_embree(turbid, {"seed": 2, "sample_budget": 1024, "owners": [
        {"owner_id": 1, "leaf_area_density": 1.5, "leaf_length": 0.05, "instance_id": crown}]})
    # The sky alone lights 400..700 nm: give the two bands PAR-like wavelengths for light.
    st = state(turbid, d["domain_id"])
    ph = physiology(turbid, st["state"])
    src = vk._build_turbid_sif_source_embree(turbid, dict(state=ph["state"], grid_dims=[3, 3, 3]))
    samples = vk._debug_turbid_domain_samples_embree(turbid, d["domain_id"])
    # Total emission: the field's cells hold exactly the samples' sources.
    B = src["orientation_theta_bins"] * src["orientation_phi_bins"]
    joint = src["joint_spectra"].reshape(-1, B, 2)[:27]
    counts = src["joint_counts"].reshape(-1, B)[:27]
    np.testing.assert_allclose((joint * counts[..., None]).sum((0, 1)), src["sample_shaded"].sum(1), rtol=1e-5)
    area = samples["leaf_area"][0]
    np.testing.assert_allclose(src["emitted_power"], 2 * np.pi * area * src["sample_shaded"].sum(1), rtol=1e-5)
    assert src["emitted_power"].min() > 0
    turbid.set_sif_only_mode(True)
    img_t = vk.simulate_cpu(turbid, spp=48, max_depth=8)["payload"].astype(np.float64)

    explicit = scene()
    side = 0.08
    quad = dict(vertices=np.array([[-1, -1, 0], [1, -1, 0], [1, 1, 0], [-1, 1, 0]], F) * F(side / 2),
                normals=np.zeros((0, 3), F), indices=np.array([[0, 1, 2], [0, 2, 3]], np.int32), material_id=1)
    n = int(round(1.5 * 4 / 3 * np.pi / side**2))
    pos = rng.normal(size=(n, 3))
    pos *= (rng.uniform(size=n) ** (1 / 3) / np.linalg.norm(pos, axis=1))[:, None]
    nrm = rng.normal(size=(n, 3))
    nrm /= np.linalg.norm(nrm, axis=1, keepdims=True)
    xf = np.zeros((n, 12), F)
    for i, z in enumerate(nrm):
        x = np.cross(z, [0.0, 0.0, 1.0] if abs(z[2]) < 0.9 else [1.0, 0.0, 0.0])
        x /= np.linalg.norm(x)
        xf[i] = np.c_[np.c_[x, np.cross(z, x), z], pos[i]].ravel()
    explicit.add_instances_xform(explicit.add_mesh(**quad), xf)
    explicit.build()
    # Each leaf's emission from the field, by the assembly's cell and bin rules.
    lo, hi = src["bounds_min"][:3], src["bounds_max"][:3]
    cell = np.clip(((pos - lo) / (hi - lo) * 3).astype(int), 0, 2)
    c = (cell[:, 2] * 3 + cell[:, 1]) * 3 + cell[:, 0]
    up = np.where(nrm[:, 2:3] < 0, -nrm, nrm)
    ti = np.minimum((np.arccos(np.clip(up[:, 2], 0, 1)) / (np.pi / 2) * 4).astype(int), 3)
    pj = np.minimum((np.mod(np.arctan2(up[:, 1], up[:, 0]), 2 * np.pi) / (2 * np.pi) * 8).astype(int), 7)
    per_leaf = joint[c, ti * 8 + pj]  # (n, 2)
    explicit.set_primitive_sif_spectra(np.repeat(per_leaf.T, 2, axis=1).ravel().astype(F), 2)
    explicit.set_sif_only_mode(True)
    img_e = vk.simulate_cpu(explicit, spp=48, max_depth=8)["payload"].astype(np.float64)
    # Monte Carlo error of the image sums is under 1 %; the explicit crown is one random
    # draw of 980 finite leaves, whose clumping the turbid medium averages out (a few %).
    np.testing.assert_allclose(img_t.sum((0, 1)), img_e.sum((0, 1)), rtol=0.04,
                               err_msg="SIF of the turbid crown against explicit leaves")


def test_thermal_source_is_the_radiometric_mean_and_images_see_it():
    s, domain = layer(budget=128)
    st = state(s, domain)
    ph = physiology(s, st["state"], temperature_sunlit=305.0, temperature_shaded=295.0, emissivity=0.96)
    th = vk._build_turbid_thermal_source_embree(s, dict(state=ph["state"]))
    f = vk._debug_turbid_domain_samples_embree(s, domain)["leaf_area"] * 0 + st["sunlit_probability"]
    assert th["temperature_sunlit"][0] == pytest.approx(305.0, rel=1e-5)
    assert th["temperature_shaded"][0] == pytest.approx(295.0, rel=1e-5)
    assert th["sunlit_fraction"][0] == pytest.approx(f.mean(), rel=1e-5)
    assert th["emissivity"][0] == pytest.approx(0.96, rel=1e-6)
    # A thermal image from straight above the layer of black leaves (no ground, no sky):
    # along the view, leaves at cumulative leaf area l are seen with density
    # G exp(-G l) and are sunlit with probability exp(-G l / cos 30), each emitting the
    # Planck radiance of its branch's temperature.
    s.set_thermal_mode(True, [10000.0, 11000.0])
    s.upload_spectral_params(np.array([1, 1, 0, 0, 0, 0, 0, 0, 0, 0], F))
    s.set_sensor(0, 8, 8, 1.0, 1.0, camera_towards([0, 0, -1], [1, 1, 20]))
    img = vk.simulate_cpu(s, spp=64)["payload"][..., 0].astype(np.float64)
    planck = lambda T: 2 * 6.62607015e-34 * 2.99792458e8**2 / 1e-5**5 / (  # noqa: E731
        np.exp(6.62607015e-34 * 2.99792458e8 / (1e-5 * 1.380649e-23 * T)) - 1) * 1e-9
    l = np.linspace(0, 2, 2001)
    p = np.exp(-0.5 * l / np.cos(np.radians(30.0)))
    want = np.trapz(0.5 * np.exp(-0.5 * l) * 0.96 * (p * planck(305.0) + (1 - p) * planck(295.0)), l)
    assert abs(img.mean() - want) < 4 * img.std() / np.sqrt(img.size) + 0.01 * want, \
        f"thermal radiance {img.mean()} against {want} W m-2 sr-1 nm-1"


def test_tokens_stale_rules_and_stage_rules():
    s, domain = layer(budget=64)
    st = state(s, domain)
    token = st["state"]
    # Fields of a token: every revision non-zero, a known stage, all present.
    for key, label in [("domain_id", "state token domain id"), ("workflow_revision", "workflow revision"),
                       ("transport_revision", "transport revision"), ("state_revision", "state revision")]:
        with pytest.raises(ValueError, match=f"^{label} must be non-zero$"):
            physiology(s, {**token, key: 0})
    with pytest.raises(ValueError, match="^reserved Turbid workflow stage$"):
        physiology(s, {**token, "workflow_stage": 4})
    with pytest.raises(KeyError, match="state"):
        vk._solve_turbid_physiology_embree(s, dict(temperature=298.0, **LEAF))
    # Stages: physiology takes a radiation state; sources take a physiology state.
    ph = physiology(s, token)
    with pytest.raises(ValueError, match="^Turbid workflow stage mismatch$"):
        physiology(s, ph["state"])
    with pytest.raises(ValueError, match="^Turbid workflow stage mismatch$"):
        vk._build_turbid_thermal_source_embree(s, dict(state=token))
    with pytest.raises(ValueError, match="^Turbid workflow stage mismatch$"):
        vk._build_turbid_sif_source_embree(s, dict(state=token))
    with pytest.raises(ValueError, match="^Turbid workflow stage mismatch$"):
        vk.run_turbid_leaf_rrt_cpu(s, dict(domain_id=domain, state=token))
    # A token that names no held state (another revision, another domain).
    for forged in ({**token, "state_revision": 99}, {**token, "domain_id": 77},
                   {**token, "token_id": 5}, {**token, "illumination_revision": 9}):
        with pytest.raises(RuntimeError, match=f"^{STALE_STATE}$"):
            physiology(s, forged)
    field = vk._build_turbid_field_embree(s, dict(state=ph["state"], grid_dims=[2, 2, 2]))["field"]
    with pytest.raises(RuntimeError, match=f"^{STALE_FIELD}$"):
        vk._check_turbid_field_embree(s, {**field, "field_revision": 42})
    # A failed call leaves everything as it was: wrong length, non-finite value.
    before = vk._debug_turbid_residency_embree(s)
    with pytest.raises(ValueError, match="^co2 buffer length mismatch$"):
        physiology(s, token, co2=np.full(3, 400.0, F))
    with pytest.raises(ValueError, match="^vcmax25 contains a non-finite value$"):
        physiology(s, token, vcmax25=np.full(64, np.nan, F))
    assert vk._debug_turbid_residency_embree(s) == before

    # What makes a state stale: the sun, the optics, the geometry, the domain.
    def changes():
        yield "sun", lambda: s.update_emitter_direction(np.array([0.0, 0.5, 0.866], F))
        yield "optics", lambda: s.upload_spectral_params(np.array([0, 0, .2, .2, .1, .1, .1, .1, 1000, 1000], F))
        yield "geometry", s.build
        yield "domain", lambda: vk._extend_turbid_samples_embree(s, domain, 128)
    for what, change in changes():
        st = state(s, domain)
        ph = physiology(s, st["state"])
        field = vk._build_turbid_field_embree(s, dict(state=ph["state"]))["field"]
        change()
        for tok in (st["state"], ph["state"]):
            with pytest.raises(RuntimeError, match=f"^{STALE_STATE}$"):
                vk._turbid_state_arrays_embree(s, tok)
        with pytest.raises(RuntimeError, match=f"^{STALE_FIELD}$"):
            vk._check_turbid_field_embree(s, field)
        with pytest.raises(RuntimeError, match=f"^{STALE_STATE}$"):
            vk._build_turbid_thermal_source_embree(s, dict(state=ph["state"])), what
    # The extension's commit pruned the domain's derived states and fields.
    held = vk._debug_turbid_residency_embree(s)
    assert held["n_states"] == 0 and held["n_fields"] == 0


def test_field_means_keep_the_leaf_area_totals_of_the_state():
    s, domain = layer(budget=256)
    ph = physiology(s, state(s, domain)["state"])
    f = vk._build_turbid_field_embree(s, dict(state=ph["state"], grid_dims=[2, 2, 3]))
    area = vk._debug_turbid_domain_samples_embree(s, domain)["leaf_area"].astype(np.float64)
    for name in ("apar", "an", "temperature"):
        q = f["quantities"].index(name)
        total = (f["spatial"][..., q] * f["leaf_area"]).sum()
        np.testing.assert_allclose(total, (area * ph[name]).sum(), rtol=1e-5,
                                   err_msg=f"leaf-area total of {name} over the field's cells")
    # The orientation bins partition the same leaves.
    assert f["joint_counts"].sum() == len(area)


def test_committing_another_domain_keeps_states_of_the_others():
    s, domain = layer(budget=64)
    st = state(s, domain)
    other = vk._build_turbid_domain_embree(s, {"seed": 9, "sample_budget": 32, "owners": [
        {"owner_id": 6, "leaf_area_density": 1.0, "leaf_length": 0.05,
         "vertices": unit_cube()["vertices"] + F(5), "triangles": unit_cube()["indices"]}]})
    assert other["domain_id"] != domain
    assert vk._turbid_state_arrays_embree(s, st["state"])["state"] == st["state"]
    with pytest.raises(RuntimeError, match="^Stale TurbidDomain handle"):
        state(s, 12345)
