"""SIF steps: the finalisation gather and the source assembly into per-instance tables."""
import numpy as np
import pytest

import vesk_gpu as vk
from conftest import unit_cube

F = np.float32
I = np.int32


def sif_request(n=4, n_bands=5, **over):
    top = np.arange(n * n_bands, dtype=F).reshape(n, n_bands) * F(0.25)
    r = dict(absorbed_top=top, absorbed_bottom=top[:, ::-1].copy(),
             material_ids=np.resize(np.array([0, 1, -1], I), n),
             material_phi_f=np.array([0.02, 0.05], F), selected_band_indices=np.array([1, 3], I))
    r.update(over)
    return r


def assembly_request(n=8, n_bands=2, **over):
    """Two instances in unit boxes, 2 x 2 x 1 and 1 x 1 x 1 cells, 2 x 3 bins."""
    rng = np.random.default_rng(5)
    r = dict(positions=rng.uniform(0.05, 0.95, (n, 3)).astype(F),
             normals=rng.normal(size=(n, 3)).astype(F),
             instance_ids=np.arange(n, dtype=I) % 2, grid_dims=np.array([[2, 2, 1], [1, 1, 1]], I),
             source=rng.uniform(0, 1, (n_bands, n)).astype(F),
             direct_source=rng.uniform(0, 0.5, (n_bands, n)).astype(F),
             bounds_min=np.zeros((2, 3), F), bounds_max=np.ones((2, 3), F), cell_stride=4,
             theta_bins=2, phi_bins=3)
    r.update(over)
    return r


@pytest.fixture(scope="module")
def scene():
    return vk.EmbreeSceneManager()  # neither step reads the scene; it need not be built


def changed(request, key, index, value):
    a = np.array(request[key])
    a[index] = value
    return {**request, key: a}


# ---- finalisation ----------------------------------------------------------------------

@pytest.mark.parametrize("selected", [[0, 1, 2, 3, 4], [0, 2, 4], [4]])
def test_the_gather_copies_the_selected_bands_bit_for_bit(scene, selected):
    req = sif_request(selected_band_indices=np.array(selected, I))
    r = vk.finalize_sif_process_cpu(scene, req)
    np.testing.assert_array_equal(r["absorbed_top_selected"], req["absorbed_top"][:, selected])
    np.testing.assert_array_equal(r["absorbed_bottom_selected"],
                                  req["absorbed_bottom"][:, selected])
    # Yields by material; no material means no yield, while the spectra stay.
    np.testing.assert_array_equal(r["phi_f"], np.array([0.02, 0.05, 0, 0.02], F))
    assert r["_execution"]["executor"] == "embree.cpu.sif_process_finalization"


def test_per_element_yields_override_every_material_even_none(scene):
    yields = np.array([0.1, 0.0, 0.7, 1.0], F)
    r = vk.finalize_sif_process_cpu(scene, sif_request(element_phi_f=yields))
    np.testing.assert_array_equal(r["phi_f"], yields)
    assert r["absorbed_top_selected"][2].tolist() == [2.75, 3.25], "material -1 keeps spectra"


FINALISATION_FAULTS = [
    (dict(absorbed_top=np.zeros((0, 5), F), absorbed_bottom=np.zeros((0, 5), F)),
     "SIF n_elements must be positive"),
    (dict(absorbed_top=np.zeros((4, 0), F), absorbed_bottom=np.zeros((4, 0), F),
          material_phi_f=np.zeros(0, F)), "SIF n_bands must be positive"),
    (dict(selected_band_indices=np.zeros(0, I), material_phi_f=np.zeros(0, F)),
     "SIF selected-band count must be in [1, n_bands]"),
    (dict(selected_band_indices=np.arange(6, dtype=I)),
     "SIF selected-band count must be in [1, n_bands]"),
    (dict(material_phi_f=np.zeros(0, F), material_ids=np.zeros(3, I)),
     "SIF n_materials must be positive"),
    (dict(material_ids=np.zeros(3, I), absorbed_top=np.full((4, 5), np.nan, F)),
     "material_ids buffer length mismatch"),
    (dict(absorbed_bottom=np.full((4, 5), np.inf, F), material_phi_f=np.array([np.nan, 0], F)),
     "absorbed_bottom contains a non-finite value"),
    (dict(material_phi_f=np.array([np.nan, 0], F), element_phi_f=np.zeros(3, F)),
     "material_phi_f contains a non-finite value"),
    (dict(element_phi_f=np.zeros(0, F)), "element_phi_f buffer length mismatch"),
    (dict(element_phi_f=np.array([0, np.nan, 0, 0], F), absorbed_top=-np.ones((4, 5), F)),
     "element_phi_f contains a non-finite value"),
    (dict(absorbed_bottom=-np.ones((4, 5), F), material_phi_f=np.array([1.5, 0], F)),
     "SIF absorbed spectra cannot be negative"),
    (dict(material_phi_f=np.array([0.1, 1.5], F), material_ids=np.array([0, 7, 0, 0], I)),
     "material_phi_f must be in [0, 1]"),
    # Per element: element 0's yield comes before element 1's material.
    (dict(element_phi_f=np.array([1.5, 0, 0, 0], F), material_ids=np.array([0, -2, 0, 0], I)),
     "element_phi_f must be in [0, 1]"),
    (dict(material_ids=np.array([2, 0, 0, 0], I), element_phi_f=np.array([0, -0.1, 0, 0], F),
          selected_band_indices=np.array([3, 1], I)), "material_ids is out of range"),
    (dict(selected_band_indices=np.array([1, 1], I)),
     "selected_band_indices must be strictly increasing and in range"),
    (dict(selected_band_indices=np.array([3, 1], I)),
     "selected_band_indices must be strictly increasing and in range"),
    (dict(selected_band_indices=np.array([-1, 2], I)),
     "selected_band_indices must be strictly increasing and in range"),
    (dict(selected_band_indices=np.array([2, 5], I)),
     "selected_band_indices must be strictly increasing and in range"),
    (dict(absorbed_top=np.zeros(20, F)), "absorbed_top must have shape (n_elements, n_bands), "
     "or be flat with 'n_elements' and 'n_bands' given"),
    (dict(absorbed_bottom=np.zeros((5, 4), F)),
     "n_elements = 4 from absorbed_top does not match absorbed_bottom of shape (5, 4)"),
]


@pytest.mark.parametrize("change, text", FINALISATION_FAULTS)
def test_finalisation_refuses_the_first_fault_in_order(scene, change, text):
    with pytest.raises(ValueError) as err:
        vk.finalize_sif_process_cpu(scene, sif_request(**change))
    assert str(err.value) == text


# ---- assembly ----------------------------------------------------------------------------

UP, DOWN, EAST, ZERO = [0, 0, 1], [0, 0, -1], [1, 0, 0], [0, 0, 0]


@pytest.mark.parametrize("x, normal, cell, tbin, pbin", [
    (2.0, UP, 3, 0, 0),            # exactly on bounds_max: the last cell
    (2.0 + 1.5e-6, UP, 3, 0, 0),   # within 2^-20 of the extent (2) above it
    (-1.5e-6, UP, 0, 0, 0),        # and below bounds_min
    (2.0 + 5e-6, UP, None, 0, 0),  # further out: dropped
    (0.5, UP, 1, 0, 0),            # on an inner face: the upper cell
    (1.3, ZERO, None, 0, 0),       # good position, no orientation: dropped
    (1.3, DOWN, 2, 0, 2),          # folds to (-0, -0, 1): theta 0, atan2(-0, -0) + 2 pi = pi
    (1.3, [0.3, -0.4, -1.0], 2, 0, 1),  # folds to (-0.3, 0.4, 1): phi 2.21 rad
    (1.3, EAST, 2, 2, 0),          # theta = pi / 2 limits to the last theta bin
])
def test_one_sample_lands_in_its_cell_and_bin_or_nowhere(scene, x, normal, cell, tbin, pbin):
    req = dict(positions=np.array([[x, 0.5, 0.5]], F), normals=np.array([normal], F),
               instance_ids=np.zeros(1, I), grid_dims=np.array([[4, 1, 1]], I),
               source=np.array([[2.0], [3.0]], F), direct_source=np.array([[1.0], [0.5]], F),
               bounds_min=np.zeros((1, 3), F), bounds_max=np.array([[2, 1, 1]], F),
               cell_stride=5, theta_bins=3, phi_bins=4)
    r = vk.assemble_sif_source_cpu(scene, req)
    expected = np.zeros((1, 5, 3, 4), np.uint32)
    if cell is None:  # no usable sample: every table takes its 0 branch
        for k in ("spatial_field", "orientation_field", "joint_field", "direct_joint_field"):
            assert not r[k].any(), f"{k} is not all zero for an instance without samples"
    else:
        expected[0, cell, tbin, pbin] = 1
        # One sample: every slot, filled or estimated, carries its spectrum.
        assert (r["joint_field"] == [2.0, 3.0]).all() and (r["spatial_field"] == [2, 3]).all()
        assert (r["direct_joint_field"] == [1.0, 0.5]).all()
    np.testing.assert_array_equal(r["joint_counts"], expected)
    assert r["spatial_counts"].dtype == np.uint32 and r["joint_counts"].dtype == np.uint32


def numpy_assembly(req):
    """The same tables by np.add.at, with the bins from float64 trigonometry."""
    pos, nrm, ids = req["positions"], req["normals"].astype(float), req["instance_ids"]
    dims, lo, hi = req["grid_dims"], req["bounds_min"][ids], req["bounds_max"][ids]
    K, C, T, P = len(dims), req["cell_stride"], req["theta_bins"], req["phi_bins"]
    src, dsrc = req["source"].T.astype(float), req["direct_source"].T.astype(float)
    e, x = hi - lo, pos - lo
    ok = ((x >= -e * 2.0**-20) & (x <= e * (1 + 2.0**-20))).all(axis=1)
    ijk = np.minimum((np.clip(x, 0, e) / e * dims[ids]).astype(int), dims[ids] - 1)
    cell = (ijk[:, 2] * dims[ids, 1] + ijk[:, 1]) * dims[ids, 0] + ijk[:, 0]
    length = np.linalg.norm(nrm, axis=1)
    ok &= length > 0
    u = nrm / np.where(length > 0, length, 1)[:, None] * np.where(nrm[:, 2] < 0, -1, 1)[:, None]
    ti = np.minimum((np.arccos(np.clip(u[:, 2], 0, 1)) / (np.pi / 2) * T).astype(int), T - 1)
    pj = np.minimum((np.arctan2(u[:, 1], u[:, 0]) % (2 * np.pi) / (2 * np.pi) * P).astype(int),
                    P - 1)
    k, c, o = ids[ok], cell[ok], (ti * P + pj)[ok]
    src, dsrc = src[ok], dsrc[ok]
    nb = src.shape[1]
    n_j, s_j = np.zeros((K, C, T * P)), np.zeros((K, C, T * P, nb))
    d_j = np.zeros_like(s_j)
    n_s, s_s = np.zeros((K, C)), np.zeros((K, C, nb))
    n_o, s_o = np.zeros((K, T * P)), np.zeros((K, T * P, nb))
    n_k, s_k, d_k = np.zeros(K), np.zeros((K, nb)), np.zeros((K, nb))
    for counts, sums, index in ((n_j, s_j, (k, c, o)), (n_s, s_s, (k, c)), (n_o, s_o, (k, o)),
                                (n_k, s_k, (k,))):
        np.add.at(counts, index, 1)
        np.add.at(sums, index, src)
    np.add.at(d_j, (k, c, o), dsrc)
    np.add.at(d_k, (k,), dsrc)
    with np.errstate(invalid="ignore", divide="ignore"):
        mean_k = np.nan_to_num(s_k / n_k[:, None])
        spatial = np.where(n_s[..., None] > 0, s_s / n_s[..., None], mean_k[:, None])
        orient = np.where(n_o[..., None] > 0, s_o / n_o[..., None], mean_k[:, None])
        estimate = np.maximum(spatial[:, :, None] + orient[:, None] - mean_k[:, None, None], 0)
        joint = np.where(n_j[..., None] > 0, s_j / n_j[..., None], estimate)
        direct = np.where(n_j[..., None] > 0, d_j / n_j[..., None],
                          np.nan_to_num(d_k / n_k[:, None])[:, None, None])
    return dict(spatial_counts=n_s, orientation_counts=n_o.reshape(K, T, P),
                joint_counts=n_j.reshape(K, C, T, P), spatial_field=spatial,
                orientation_field=orient.reshape(K, T, P, nb),
                joint_field=joint.reshape(K, C, T, P, nb),
                direct_joint_field=direct.reshape(K, C, T, P, nb))


def random_assembly(rng, n=3000, n_bands=3):
    """Three instances; a fifth of the samples outside their boxes, some without normal,
    and the third instance's box far from every sample."""
    normals = rng.normal(size=(n, 3))
    normals[::50] = 0
    return dict(positions=rng.uniform(-0.25, 1.25, (n, 3)).astype(F),
                normals=normals.astype(F), instance_ids=rng.integers(0, 3, n).astype(I),
                grid_dims=np.array([[3, 2, 1], [1, 1, 1], [2, 2, 2]], I),
                source=rng.gamma(2.0, 1.0, (n_bands, n)).astype(F),
                direct_source=rng.uniform(0, 1, (n_bands, n)).astype(F),
                bounds_min=np.array([[0, 0, 0], [0.2, 0.1, 0], [5, 5, 5]], F),
                bounds_max=np.array([[1, 1, 1], [0.9, 1, 1], [6, 6, 6]], F),
                cell_stride=10, theta_bins=3, phi_bins=5)


def test_every_mean_is_its_sum_over_its_count_as_numpy_adds_them(scene, rng):
    req = random_assembly(rng)
    r, ref = vk.assemble_sif_source_cpu(scene, req), numpy_assembly(req)
    for key, want in ref.items():
        if "counts" in key:
            np.testing.assert_array_equal(r[key], want, err_msg=key)
        else:
            np.testing.assert_allclose(r[key], want, rtol=2e-6, atol=1e-6, err_msg=key)
    assert r["joint_counts"][0].sum() > 0 and (r["joint_counts"][0] == 0).any(), \
        "the check needs both filled and estimated joint slots"
    assert r["joint_counts"][2].sum() == 0 and not r["joint_field"][2].any()
    # The tables are what the tracer's setter takes.
    s = vk.EmbreeSceneManager()
    m = s.add_mesh(**unit_cube())
    for _ in range(3):
        s.add_instance(m)
    s.set_instance_sif_source_fields(
        r["spatial_field"], r["orientation_field"], r["joint_field"], r["direct_joint_field"],
        req["bounds_min"], req["bounds_max"], req["grid_dims"], 3, 10, 3, 5)


def test_an_empty_joint_slot_below_the_instance_mean_is_cut_at_zero(scene):
    # Cell 0 is bright only in bin 0; cell 1 and bin 1 are each seen once, dark; so the
    # empty (cell 1, bin 1) gets 0 + 0 - mean < 0, cut to 0.
    pos = np.array([[0.25, 0.5, 0.5]] * 4 + [[0.75, 0.5, 0.5], [0.25, 0.5, 0.5]], F)
    nrm = np.array([UP] * 5 + [EAST], F)
    req = dict(positions=pos, normals=nrm, instance_ids=np.zeros(6, I),
               grid_dims=np.array([[2, 1, 1]], I), source=np.array([[9, 9, 9, 9, 0, 0]], F),
               direct_source=np.array([[3, 3, 3, 3, 0, 0]], F), bounds_min=np.zeros((1, 3), F),
               bounds_max=np.ones((1, 3), F), cell_stride=2, theta_bins=2, phi_bins=1)
    r = vk.assemble_sif_source_cpu(scene, req)
    assert r["joint_counts"][0, 1, 1, 0] == 0 and r["joint_field"][0, 1, 1, 0, 0] == 0
    assert r["direct_joint_field"][0, 1, 1, 0, 0] == F(2.0), "the instance's direct mean"
    assert r["joint_field"][0, 0, 0, 0, 0] == 9 and r["spatial_field"][0, 1, 0] == 0


def test_results_do_not_depend_on_the_thread_count(scene, rng, monkeypatch):
    req = random_assembly(rng, n=20000, n_bands=40)  # several blocks of bands
    fin = sif_request(n=301, n_bands=7, selected_band_indices=np.array([0, 3, 6], I))
    runs = []
    for threads in ("1", "2", "13"):
        monkeypatch.setenv("VESK_NUM_THREADS", threads)
        runs.append({**vk.assemble_sif_source_cpu(scene, req),
                     **vk.finalize_sif_process_cpu(scene, fin)})
    for run in runs[1:]:
        for key in runs[0]:
            if key != "_execution":
                np.testing.assert_array_equal(run[key], runs[0][key], err_msg=key)


ASSEMBLY_FAULTS = [
    (dict(grid_dims=np.zeros((0, 3), I), positions=np.zeros((0, 3), F)),
     "n_instances must be positive"),
    (dict(positions=np.zeros((0, 3), F), cell_stride=0), "n_samples must be positive"),
    (dict(source=np.zeros((0, 8), F), cell_stride=0), "n_bands must be positive"),
    (dict(cell_stride=0, theta_bins=0), "SIF cell_stride must be positive"),
    (dict(phi_bins=-1), "SIF orientation dimensions must be positive"),
    (dict(theta_bins=65536, phi_bins=65536), "SIF orientation exceeds native device indexing"),
    (dict(source=np.zeros((2**31 - 1, 0), F), cell_stride=2**31 - 1, phi_bins=2**31 - 1,
          theta_bins=1), "SIF joint field size overflows size_t"),
    (dict(cell_stride=2**28, positions=np.zeros((8, 4), F)),
     "SIF joint field exceeds native device indexing"),
    (dict(positions=np.zeros((8, 4), F), normals=np.zeros((7, 3), F)),
     "positions buffer length mismatch"),
    (dict(normals=np.zeros((7, 3), F)), "normals buffer length mismatch"),
    (dict(instance_ids=np.zeros(9, I)), "instance_ids buffer length mismatch"),
    (dict(grid_dims=np.ones((2, 4), I)), "grid_dims buffer length mismatch"),
    (dict(source=np.zeros((2, 7), F)), "source_band_major buffer length mismatch"),
    (dict(direct_source=np.zeros(15, F)), "direct_source_band_major buffer length mismatch"),
    (dict(bounds_min=np.zeros((1, 3), F)), "bounds_min buffer length mismatch"),
    (dict(bounds_max=np.ones(5, F), positions=np.full((8, 3), np.nan, F)),
     "bounds_max buffer length mismatch"),
    (dict(positions=np.full((8, 3), np.nan, F), normals=np.full((8, 3), np.inf, F)),
     "positions contains a non-finite value"),
    (dict(direct_source=np.full((2, 8), np.nan, F), bounds_min=np.full((2, 3), np.nan, F)),
     "direct_source_band_major contains a non-finite value"),
    (dict(bounds_max=np.full((2, 3), np.inf, F)), "bounds_max contains a non-finite value"),
    # A sample that is dropped (outside its box) still has its source checked.
    (dict(positions=np.vstack([[5, 5, 5], np.full((7, 3), 0.5)]).astype(F),
          source=np.vstack([np.ones(8), np.r_[np.nan, np.ones(7)]]).astype(F)),
     "source_band_major contains a non-finite value"),
    (dict(instance_ids=np.full(8, 2, I), source=-np.ones((2, 8), F)),
     "instance_ids is out of range"),
    (dict(instance_ids=np.full(8, -1, I)), "instance_ids is out of range"),
    (dict(source=-np.ones((2, 8), F), grid_dims=np.zeros((2, 3), I)),
     "SIF source cannot be negative"),
    (dict(direct_source=-np.ones((2, 8), F)), "SIF source cannot be negative"),
    (dict(grid_dims=np.array([[2, 0, 1], [1, 1, 1]], I)), "SIF grid_dims must be positive"),
    (dict(grid_dims=np.array([[2**31 - 1] * 3, [1, 1, 1]], I)),
     "SIF instance cell size overflows size_t"),
    (dict(grid_dims=np.array([[65536, 65536, 1], [1, 1, 1]], I)),
     "SIF instance cell exceeds native device indexing"),
    (dict(grid_dims=np.array([[3, 2, 1], [0, 1, 1]], I)),
     "SIF grid_dims must be positive and fit cell_stride"),
    # Per instance: instance 0's box is refused before instance 1's grid.
    (dict(bounds_max=np.array([[1, 1, 0], [1, 1, 1]], F),
          grid_dims=np.array([[2, 2, 1], [0, 1, 1]], I)),
     "SIF instance bounds must have positive extent"),
]


@pytest.mark.parametrize("change, text", ASSEMBLY_FAULTS)
def test_assembly_refuses_the_first_fault_in_order(scene, change, text):
    with pytest.raises(ValueError) as err:
        vk.assemble_sif_source_cpu(scene, assembly_request(**change))
    assert str(err.value) == text
