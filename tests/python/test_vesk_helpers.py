"""The companion package's helpers, checked against the module and against physics:
picture orientation, compass conventions, BRF-scale RPV, crown porosity, mesh files,
labelled outputs and progress bars."""
import io
import struct

import numpy as np
import pytest

import vesk
import vesk_gpu as vk
from conftest import unit_cube

F = np.float32


def patch_scene(camera_up=(0, 1, 0)):
    """Dark 20 m ground with a bright 4 m patch in its north-east quarter, under a
    vertical sun, seen from straight above by a 20 m orthographic camera."""
    s = vk.EmbreeSceneManager()
    sp = vesk.Spectra(s, [650, 550, 470])
    dark = vesk.lambertian(sp, "dark", 0.05)
    bright = vesk.lambertian(sp, "bright", [0.6, 0.4, 0.2])
    s.add_instance(s.add_mesh(**vk.make_ground_plane(10, 10, dark, 20)))
    s.add_instance(s.add_mesh(**vk.make_ground_plane(2, 2, bright, 4)), 6.0, 6.0, 0.01)
    s.set_emitter(0, vesk.sun_direction(0, 0), sp.add("sun", 1.0))
    s.set_sensor(0, 20, 20, 20.0, 20.0, vesk.look_at([0, 0, 30], [0, 0, 0], camera_up))
    s.build()
    return s, sp


def test_nadir_picture_has_north_up_and_keeps_the_colour_of_bright_soil(tmp_path):
    s, _ = patch_scene()
    img = vk.simulate_cpu(s, spp=2)["payload"]
    exposure = vesk.save_image(tmp_path / "a" / "nadir.png", img)
    from PIL import Image
    px = np.asarray(Image.open(tmp_path / "a" / "nadir.png")).astype(int)
    assert px.shape == (20, 20, 3)
    patch = px[2:6, 14:18].reshape(-1, 3)  # north-east: top right of the picture
    assert (patch.sum(axis=1) > 1.5 * px[14:18, 2:6].reshape(-1, 3).sum(axis=1)).all()
    r, g, b = patch.mean(axis=0)
    assert r > g + 15 > b + 30, f"bright soil must stay brown, not clip to white: {r, g, b}"
    assert (px < 255).all(), "the tone curve never saturates"
    # Same exposure, same picture; the automatic one puts the log-mean luminance at KEY.
    again, used = vesk.tone_map(img, exposure=exposure)
    assert used == exposure and np.allclose(again, vesk.tone_map(img)[0])
    # Turning the camera's up to east turns the patch to the top left.
    s.set_sensor(0, 20, 20, 20.0, 20.0, vesk.look_at([0, 0, 30], [0, 0, 0], (1, 0, 0)))
    view, _ = vesk.tone_map(vk.simulate_cpu(s, spp=2)["payload"])
    assert view[2:6, 2:6].mean() > 1.5 * view[2:6, 14:18].mean()


@pytest.mark.parametrize("azimuth,expected", [(0, (0, 1)), (90, (1, 0)), (180, (0, -1)),
                                              (270, (-1, 0))])
def test_sun_azimuth_is_a_compass_bearing_and_the_principal_plane_holds_the_hot_spot(
        azimuth, expected):
    d = vesk.sun_direction(60, azimuth)
    np.testing.assert_allclose(d, [np.sin(np.pi / 3) * expected[0],
                                   np.sin(np.pi / 3) * expected[1], 0.5], atol=1e-6)
    dirs = vesk.principal_plane([60, 0, -60], sun_azimuth_deg=azimuth).reshape(3, 3)
    np.testing.assert_allclose(dirs[0], d, atol=1e-6, err_msg="+vza looks from the sun")
    np.testing.assert_allclose(dirs[1], [0, 0, 1], atol=1e-6)
    np.testing.assert_allclose(dirs[2], d * [-1, -1, 1], atol=1e-6)


def test_look_at_and_principal_plane_refuse_degenerate_input():
    with pytest.raises(ValueError, match="parallel"):
        vesk.look_at([0, 0, 10], [0, 0, 0])  # straight down with the default up
    with pytest.raises(ValueError, match="between -90 and 90"):
        vesk.principal_plane([0, 90])


def test_spectra_layout_and_materials_on_the_brf_scale():
    s = vk.EmbreeSceneManager()
    sp = vesk.Spectra(s, [670, 860])
    assert sp.add("sun", 1000.0) == 0
    leaf = vesk.leaf(sp, "leaf", [0.05, 0.45], [0.03, 0.40])
    assert sp["leaf"] == 2 and list(sp.values("leaf", 1)) == pytest.approx([0.05, 0.45])
    np.testing.assert_array_equal(s.band_wavelengths(), [670, 860])
    assert leaf == 0 and s.thermal_mode() is False
    with pytest.raises(ValueError, match="already"):
        sp.add("sun", 1.0)
    with pytest.raises(ValueError, match="needs 2 values"):
        sp.add("soil", [0.1, 0.2, 0.3])
    # RPV's rho0 on the BRF scale: with k = 1, Theta = 0, rho_c = 1 it is Lambertian,
    # so a tile of it has BRF rho0 in every direction, like the Lambertian tile.
    brf = {}
    for kind in ("lambertian", "rpv"):
        t = vk.EmbreeSceneManager()
        tp = vesk.Spectra(t, [670, 860])
        m = getattr(vesk, kind)(tp, "ground", [0.2, 0.35])
        t.add_instance(t.add_mesh(**vk.make_ground_plane(5, 5, m, 10)), 5, 5, 0)
        t.set_emitter(0, vesk.sun_direction(30, 180), tp.add("sun", 1.0))
        t.set_repetitive(4, 10, 10)
        t.build()
        brf[kind] = vk.simulate_brf_cpu(t, vesk.principal_plane([-50, 0, 40]), 4000)["brf"]
    for kind, value in brf.items():
        np.testing.assert_allclose(value, np.tile([0.2, 0.35], (3, 1)), rtol=1e-5, err_msg=kind)


def test_a_crown_is_porous_as_beer_lambert_says():
    # Vertical rays through the middle of a spherical crown 3 m deep, leaf area density
    # 1 m2 m-3 with random leaf orientations (G = 0.5): gap fraction exp(-1.5) = 0.22.
    s = vk.EmbreeSceneManager()
    sp = vesk.Spectra(s, [550])
    tree = vesk.make_tree(s, vesk.leaf(sp, "leaf", 0.1, 0.1), vesk.lambertian(sp, "bark", 0.1),
                          crown_radius=1.5, crown_height=3.0, trunk_radius=0.01, seed=4)
    assert tree.leaf_area == pytest.approx(4 / 3 * np.pi * 1.5**3, rel=0.01)
    crowns, trunks = tree.plant([0.0, 20.0], [0.0, 0.0], rotation_deg=[0.0, 77.0])
    s.build()
    rng = np.random.default_rng(1)
    hits = []
    for x0 in (0.0, 20.0):
        xy = rng.uniform(-0.4, 0.4, size=(4000, 2)) + [x0, 0.0]
        o = np.column_stack([xy, np.full(4000, 10.0)]).astype(F)
        h = s.trace_closest(o, np.tile(np.array([0, 0, -1], F), (4000, 1)))
        hits.append(np.isin(h["instance_id"], crowns).mean())
    gap = 1 - np.mean(hits)
    assert 0.15 < gap < 0.3, f"gap fraction {gap:.3f}, Beer-Lambert says 0.22"
    assert abs(hits[0] - hits[1]) < 0.05, "a turned copy is as dense as the original"
    assert tree.leaf_primitives(crowns[1]).stop - tree.leaf_primitives(crowns[1]).start == \
        2 * tree.n_leaves


def cube_files(tmp_path):
    """The unit cube of conftest written as OBJ (quads, v//vn) and as ASCII and binary
    PLY files (the binary one big-endian, with an extra property to skip)."""
    c = unit_cube()
    v, tri = c["vertices"], c["indices"]
    obj = ["# cube", *(f"v {x} {y} {z}" for x, y, z in v), "vn 0 0 1"]
    obj += [f"f {a + 1}//1 {b + 1}//1 {c_ + 1}//1" for a, b, c_ in tri[:2]]
    obj += ["f %d %d %d %d" % (a + 1, b + 1, c_ + 1, d + 1)
            for (a, b, c_), (_, _, d) in zip(tri[2::2], tri[3::2])]
    files = {"cube.obj": "\n".join(obj).encode()}
    head = ("ply\nformat {}\ncomment cube\nelement vertex 8\nproperty float x\n"
            "property float y\nproperty float z\nproperty uchar red\n"
            "element face 12\nproperty list uchar int vertex_indices\nend_header\n")
    body = "".join(f"{x} {y} {z} 7\n" for x, y, z in v) + \
        "".join(f"3 {a} {b} {c_}\n" for a, b, c_ in tri)
    files["ascii.ply"] = head.format("ascii 1.0").encode() + body.encode()
    binary = b"".join(struct.pack(">fffB", *p, 7) for p in v) + \
        b"".join(struct.pack(">Biii", 3, *t) for t in tri)
    files["big.ply"] = head.format("binary_big_endian 1.0").encode() + binary
    for name, data in files.items():
        (tmp_path / name).write_bytes(data)
    return files


@pytest.mark.parametrize("name", ["cube.obj", "ascii.ply", "big.ply"])
def test_mesh_files_give_the_same_closed_cube(tmp_path, name):
    cube_files(tmp_path)
    m = vesk.load_mesh(tmp_path / name)
    c = unit_cube()
    assert m["indices"].shape == (12, 3)
    assert {tuple(sorted(map(tuple, t))) for t in m["vertices"][m["indices"]]} == \
        {tuple(sorted(map(tuple, t))) for t in c["vertices"][c["indices"]]}
    s = vk.EmbreeSceneManager()
    s.add_instance(s.add_mesh(**m))
    s.build()
    h = s.trace_closest(np.array([[0.1, 0.2, 5.0]], F), np.array([[0, 0, -1]], F))
    assert h["t"][0] == pytest.approx(4.5)
    with pytest.raises(ValueError, match=r"\.obj and \.ply"):
        vesk.load_mesh(tmp_path / "cube.stl")


def tile(crowns=True):
    s = vk.EmbreeSceneManager()
    sp = vesk.Spectra(s, [670, 860])
    soil = vesk.lambertian(sp, "soil", [0.2, 0.3])
    ground = s.add_instance(s.add_mesh(**vk.make_ground_plane(5, 5, soil, 10)), 5, 5, 0)
    if crowns:
        tree = vesk.make_tree(s, vesk.leaf(sp, "leaf", [0.05, 0.45], [0.03, 0.4]),
                              vesk.lambertian(sp, "bark", 0.2))
        tree.plant([3.0, 7.0], [3.0, 6.0])
    s.set_emitter(0, vesk.sun_direction(20, 150), sp.add("sun", [1.5, 1.0]))
    s.set_repetitive(10, 10.0, 10.0)
    s.set_sensor(0, 8, 8, 10.0, 10.0, vesk.look_at([5, 5, 20], [5, 5, 0], (0, 1, 0)))
    s.build()
    return s, ground


def test_labelled_outputs_place_cells_and_survive_netcdf(tmp_path):
    import xarray as xr
    s, ground = tile()
    flux = vesk.to_xarray(vk.simulate_flux_cpu(s, 5, 2, 20000, 2), s)
    np.testing.assert_allclose(flux.x, [1, 3, 5, 7, 9])
    np.testing.assert_allclose(flux.y, [2.5, 7.5])
    assert list(flux.wavelength) == [670, 860] and flux.downwelling.attrs["units"] == "W nm-1"
    assert flux.cell_area == pytest.approx(10.0)
    flux.to_netcdf(tmp_path / "flux.nc")
    back = xr.load_dataset(tmp_path / "flux.nc")
    xr.testing.assert_identical(back, flux)

    fwd = vk.simulate_forward_cpu(s, 2, 2, [0.0, 2.5, 8.0], 20000, 2, terrain_instance_id=ground)
    with pytest.raises(ValueError, match="layer_heights"):
        vesk.to_xarray(fwd, s)
    ds = vesk.to_xarray(fwd, s, layer_heights=[0.0, 2.5, 8.0])
    np.testing.assert_allclose(ds.z, [1.25, 5.25])
    fpar = ds.grid.sum("z") / ds.incident_grid
    assert fpar.dims == ("y", "x", "wavelength") and float(fpar.max()) > 0.1

    dirs = vesk.principal_plane([-30, 30], sun_azimuth_deg=150)
    brf = vesk.to_xarray(vk.simulate_brf_cpu(s, dirs, 2000), s, directions=dirs)
    np.testing.assert_allclose(brf.view_zenith, [30, 30], atol=1e-4)
    np.testing.assert_allclose(brf.view_azimuth, [330, 150], atol=1e-3)

    img = vesk.to_xarray(vk.simulate_cpu(s, spp=1, outputs=["radiance", "scattering_order"],
                                         max_output_order=1), s)
    assert img.radiance.dims == ("row", "column", "wavelength")
    assert list(img.order.values) == ["unscattered", "1", "higher"]
    with pytest.raises(ValueError, match="needs the scene"):
        vesk.to_xarray(vk.simulate_flux_cpu(s, 1, 1, 10, 2))


def test_progress_bar_follows_runs_one_after_another():
    s, _ = tile(crowns=False)
    out = io.StringIO()
    bar = vesk.progress_bar("flux", file=out, mininterval=0)
    vk.simulate_flux_cpu(s, 2, 2, 1_100_000, 2, progress=bar)
    vk.simulate_cpu(s, spp=3, progress=bar)
    text = out.getvalue()
    assert "1.10M/1.10M" in text and "3/3" in text and bar.bar is None


def test_leaf_request_gives_a_light_response_curve():
    r = vk.solve_physiology_cpu(vk.EmbreeSceneManager(),
                                vesk.leaf_request([0.0, 100.0, 400.0, 2000.0], co2=[400] * 4))
    an = r["an"]
    assert r["converged"].all() and an[0] < 0 < an[1] < an[2] <= an[3] + 1e-3, an


@pytest.mark.parametrize("same_side", [0.5, 1.0])
def test_sif_emission_conserves_photons_and_splits_them_between_the_sides(same_side):
    rng = np.random.default_rng(3)
    wl = np.array([380.0, 450.0, 550.0, 650.0, 720.0])  # only the middle three excite
    top, bottom = rng.uniform(0, 50, (2, 3, 5))  # W m-2 per band
    phi = np.array([0.01, 0.02, 0.0])
    fine = np.arange(550.0, 950.0, 0.25)  # nm: both peaks and their tails
    out = vesk.sif_emission(top, bottom, wl, phi, emission_wavelengths=fine,
                            same_side_fraction=same_side)
    mol_per_joule = lambda w: w * 1e-9 / (6.62607015e-34 * 299792458.0 * 6.02214076e23)  # noqa: E731
    par = (wl >= 400) & (wl <= 700)
    absorbed = [(side[:, par] * mol_per_joule(wl[par])).sum(axis=1) for side in (top, bottom)]

    def emitted(radiance):  # photons leaving a Lambertian side, umol m-2 s-1
        return np.trapz(np.pi * radiance * mol_per_joule(fine), fine, axis=1) * 1e6

    np.testing.assert_allclose(emitted(out["top"]) + emitted(out["bottom"]),
                               phi * (absorbed[0] + absorbed[1]) * 1e6, rtol=1e-4,
                               err_msg="emitted photons must be phi_f times absorbed PAR photons")
    np.testing.assert_allclose(out["photons"], phi * (absorbed[0] + absorbed[1]) * 1e6, rtol=1e-6)
    if same_side == 1.0:  # each side gives back what it absorbed
        np.testing.assert_allclose(emitted(out["bottom"]), phi * absorbed[1] * 1e6, rtol=1e-4)
    # The scene takes the two sides' mean, band-major, for one radiance on both sides.
    np.testing.assert_allclose(out["spectra"].reshape(len(fine), 3).T,
                               (out["top"] + out["bottom"]) / 2, rtol=1e-6)
    with pytest.raises(ValueError, match="^phi_f contains a non-finite value$"):
        vesk.sif_emission(top, bottom, wl, [0.01, np.nan, 0.0])


def test_microwave_tables_from_physical_inputs():
    from microwave_scenes import make_scene
    t = vesk.microwave_tables(1.4e9, soil_moisture=0.25, sand=0.4, clay=0.2,
                              canopy_water_content=2.0, canopy_height=4.0, trunk_radius=0.15,
                              trunk_length=8.0)
    assert t.optical_depth == pytest.approx(0.24, rel=0.01), "b = 0.12 m2/kg at L band"
    kappa, omega, temp = t.inputs["mw_veg_params"][0]
    assert kappa * 4.0 == pytest.approx(t.optical_depth, rel=1e-6) and temp == 295.0
    # The volume table integrates to the scattering coefficient over the sphere.
    lut = t.inputs["mw_veg_mueller_luts"][0][0]
    assert 4 * np.pi * (lut[0, 0, 0, 0, 0] + lut[0, 0, 0, 1, 0]) == pytest.approx(kappa * omega)
    assert (t.soil_passive[1:, 1] > t.soil_passive[1:, 0]).all() and t.trunk.shape == (9, 4)
    wetter = vesk.microwave_tables(1.4e9, 0.35, 0.4, 0.2)
    assert (wetter.soil_passive[:, 0] < t.soil_passive[:, 0]).all(), "wet soil is colder"
    assert vesk.microwave_tables(5.3e9, 0.25, 0.4, 0.2, 2.0).optical_depth > 3 * t.optical_depth
    # What the helper gives, the simulations take.
    s = make_scene(0.5, slab_height=4.0)
    tb = vk.simulate_microwave_cpu(s, material_map=np.array([0, 1, -1], np.int32), **t.inputs)
    assert np.isfinite(tb).all() and (tb > 150).all()
    for bad, text in [(dict(sand=0.7, clay=0.5), "sand \\+ clay"),
                      (dict(soil_moisture=0.9), "soil_moisture"),
                      (dict(trunk_radius=0.1), "both trunk_radius and trunk_length"),
                      (dict(dielectric="x"), "dielectric must be one of")]:
        args = dict(frequency=1.4e9, soil_moisture=0.2, sand=0.3, clay=0.2) | bad
        with pytest.raises(ValueError, match=text):
            vesk.microwave_tables(**args)
