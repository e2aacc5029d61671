// The SIF steps on the CPU scene: finalize_sif_process_cpu (per-element yields and the
// absorbed spectra at the exciting bands) and assemble_sif_source_cpu (per-instance
// source tables for set_instance_sif_source_fields).
#include <algorithm>

#include "embree/scene_manager.h"
#include "module/bind_common.h"
#include "module/bind_request.h"
#include "physiology/sif_assembly.h"
#include "physiology/sif_finalization.h"
#include "vulkan/scene_manager.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

namespace {

// Counts beyond int32 saturate; the validators then refuse them as mismatches.
int32_t count_of(py::ssize_t n) {
  return int32_t(std::min<py::ssize_t>(n, 0x7fffffff));
}

// Rows of an (N, 3) array, or a third of a flat one; a wrong width shows up as a length
// mismatch in the validator.
int32_t rows_of_three(const py::array& a) {
  return count_of(a.ndim() == 2 ? a.shape(0) : a.size() / 3);
}

template <class T>
backend::Span<T> span_of(const py::array_t<T, py::array::c_style | py::array::forcecast>& a) {
  return {a.data(), size_t(a.size())};
}

py::ssize_t dim(int32_t n) {
  return py::ssize_t(n);
}

template <class Scene>
py::dict finalize_sif_entry(const Scene& scene, const py::dict& request, const char* name) {
  warn_unread_keys(
      request,
      {"n_elements", "n_bands", "n_selected", "n_materials", "absorbed_top", "absorbed_bottom",
       "material_ids", "material_phi_f", "selected_band_indices", "element_phi_f"},
      name);
  RequestArrays a;
  RequestCount elements(request, "n_elements"), bands(request, "n_bands");
  const RequestCount selected(request, "n_selected"), materials(request, "n_materials");
  const char* rule =
      " must have shape (n_elements, n_bands), or be flat with 'n_elements' "
      "and 'n_bands' given";
  const FloatArray top = rows_by_cols<py::value_error>(request, "absorbed_top", elements, bands,
                                                       std::string("absorbed_top") + rule);
  const FloatArray bottom = rows_by_cols<py::value_error>(
      request, "absorbed_bottom", elements, bands, std::string("absorbed_bottom") + rule);
  backend::SifProcessRequestView v;
  v.n_elements = elements.get32();
  v.n_bands = bands.get32();
  v.absorbed_top = span_of(top);
  v.absorbed_bottom = span_of(bottom);
  v.material_ids = a.take_ints(request, "material_ids");
  v.material_phi_f = a.take(request, "material_phi_f");
  v.n_materials =
      materials.given ? materials.get32() : count_of(py::ssize_t(v.material_phi_f.size));
  v.selected_band_indices = a.take_ints(request, "selected_band_indices");
  v.n_selected =
      selected.given ? selected.get32() : count_of(py::ssize_t(v.selected_band_indices.size));
  if (request.contains("element_phi_f") && !request["element_phi_f"].is_none())
    v.element_phi_f = a.take(request, "element_phi_f");
  backend::SifProcessResult r = scene.finalize_sif_process(v);
  const py::ssize_t n = dim(v.n_elements), ns = dim(v.n_selected);
  py::dict d;
  d["phi_f"] = move_to_numpy(std::move(r.phi_f), {n});
  d["absorbed_top_selected"] = move_to_numpy(std::move(r.absorbed_top_selected), {n, ns});
  d["absorbed_bottom_selected"] = move_to_numpy(std::move(r.absorbed_bottom_selected), {n, ns});
  d["_execution"] = execution_dict(r.execution);
  return d;
}

const char* SIF_FINALIZE_DOC =
    "Prepare leaf elements for the SIF source: each element's fluorescence yield and its\n"
    "absorbed spectra at the bands that excite fluorescence. A validated gather, no\n"
    "physics; the scene is not read and need not be built.\n"
    "request: 'absorbed_top', 'absorbed_bottom' float32 (n_elements, n_bands), absorbed\n"
    "flux per band on each side (any unit, copied as is, never negative), or flat,\n"
    "element-major, with 'n_elements' and 'n_bands' given; optional 'n_selected' and\n"
    "'n_materials' (counts given must match the arrays);\n"
    "'material_ids' int32 (n_elements,), -1 for no material; 'material_phi_f' float32\n"
    "(n_materials,) yields 0..1; 'selected_band_indices' int32 (n_selected,), strictly\n"
    "increasing band indices; optional 'element_phi_f' float32 (n_elements,) yields 0..1\n"
    "that replace the materials' for every element (None or absent: use the materials).\n"
    "An element without material and without 'element_phi_f' has yield 0 but keeps its\n"
    "spectra. Returns 'phi_f' float32 (n_elements,), 'absorbed_top_selected' and\n"
    "'absorbed_bottom_selected' float32 (n_elements, n_selected), the absorbed spectra\n"
    "at the selected bands in their order, and '_execution'.";

template <class Scene>
py::dict assemble_sif_entry(const Scene& scene, const py::dict& request, const char* name) {
  warn_unread_keys(request,
                   {"n_instances", "n_samples", "n_bands", "positions", "normals", "instance_ids",
                    "grid_dims", "source", "direct_source", "bounds_min", "bounds_max",
                    "cell_stride", "theta_bins", "phi_bins"},
                   name);
  RequestArrays a;
  RequestCount instances(request, "n_instances"), samples(request, "n_samples"),
      bands(request, "n_bands");
  const FloatArray positions = get<FloatArray>(request, "positions", "a float array");
  const FloatArray normals = get<FloatArray>(request, "normals", "a float array");
  const IntArray grid_dims = get<IntArray>(request, "grid_dims", "an int array");
  const FloatArray source = get<FloatArray>(request, "source", "a float array");
  const FloatArray direct = get<FloatArray>(request, "direct_source", "a float array");
  const FloatArray lo = get<FloatArray>(request, "bounds_min", "a float array");
  const FloatArray hi = get<FloatArray>(request, "bounds_max", "a float array");
  // Counts given beside 2-D arrays must match them; a flat array's length is the
  // validator's to check.
  samples.check_given(positions, 0, "positions");
  samples.check_given(normals, 0, "normals");
  instances.check_given(grid_dims, 0, "grid_dims");
  instances.check_given(lo, 0, "bounds_min");
  instances.check_given(hi, 0, "bounds_max");
  bands.check_given(source, 0, "source");
  bands.check_given(direct, 0, "direct_source");
  samples.check_given(source, 1, "source");
  samples.check_given(direct, 1, "direct_source");
  backend::SifSourceAssemblyRequestView v;
  v.n_samples = samples.given ? samples.get32() : rows_of_three(positions);
  v.n_instances = instances.given ? instances.get32() : rows_of_three(grid_dims);
  // (n_bands, n_samples), or flat band after band.
  v.n_bands = bands.given          ? bands.get32()
              : source.ndim() == 2 ? count_of(source.shape(0))
              : v.n_samples > 0    ? count_of(source.size() / v.n_samples)
                                   : 0;
  v.positions = span_of(positions);
  v.normals = span_of(normals);
  v.instance_ids = a.take_ints(request, "instance_ids");
  v.grid_dims = span_of(grid_dims);
  v.source_band_major = span_of(source);
  v.direct_source_band_major = span_of(direct);
  v.bounds_min = span_of(lo);
  v.bounds_max = span_of(hi);
  v.cell_stride = get<int32_t>(request, "cell_stride", "an int");
  v.theta_bins = get<int32_t>(request, "theta_bins", "an int");
  v.phi_bins = get<int32_t>(request, "phi_bins", "an int");
  backend::SifSourceAssemblyResult r = scene.assemble_sif_source(v);
  const py::ssize_t k = dim(v.n_instances), c = dim(v.cell_stride), nb = dim(v.n_bands);
  const py::ssize_t th = dim(v.theta_bins), ph = dim(v.phi_bins);
  py::dict d;
  d["spatial_field"] = move_to_numpy(std::move(r.spatial_field), {k, c, nb});
  d["orientation_field"] = move_to_numpy(std::move(r.orientation_field), {k, th, ph, nb});
  d["joint_field"] = move_to_numpy(std::move(r.joint_field), {k, c, th, ph, nb});
  d["direct_joint_field"] = move_to_numpy(std::move(r.direct_joint_field), {k, c, th, ph, nb});
  d["spatial_counts"] = move_to_numpy(std::move(r.spatial_counts), {k, c});
  d["orientation_counts"] = move_to_numpy(std::move(r.orientation_counts), {k, th, ph});
  d["joint_counts"] = move_to_numpy(std::move(r.joint_counts), {k, c, th, ph});
  d["_execution"] = execution_dict(r.execution);
  return d;
}

const char* SIF_ASSEMBLE_DOC =
    "Bin per-sample SIF source spectra into per-instance lookup tables: means over each\n"
    "instance's voxel grid (spatial), over leaf-normal orientation bins (orientation),\n"
    "and over both (joint), plus the joint table of the directly sunlit share. A joint\n"
    "slot without samples is estimated as max(spatial + orientation - instance mean, 0);\n"
    "a cell or bin without samples takes the instance mean, an instance without samples\n"
    "zeros. Sums are kept in double precision; results are the same for any thread\n"
    "count. The scene is not read and need not be built.\n"
    "request: 'positions', 'normals' float32 (n_samples, 3) in the instance's frame\n"
    "(normals of any length; a zero normal drops the sample, a downward one counts as\n"
    "its upward opposite); 'instance_ids' int32 (n_samples,); 'grid_dims' int32\n"
    "(n_instances, 3) cells nx, ny, nz; 'bounds_min', 'bounds_max' float32\n"
    "(n_instances, 3), the grid's box (a sample outside it by more than 2^-20 of the\n"
    "extent is dropped; one on a cell face belongs to the upper cell); 'source',\n"
    "'direct_source' float32 (n_bands, n_samples) or flat band after band, the source\n"
    "and its directly sunlit share (any unit, never negative, carried through);\n"
    "'cell_stride' int, cell slots per instance (at least nx * ny * nz of every instance);\n"
    "'theta_bins', 'phi_bins' int, bins of the zenith angle over [0, pi/2] and of the\n"
    "azimuth over [0, 2 pi). Returns float32 'spatial_field' (n_instances, cell_stride,\n"
    "n_bands), 'orientation_field' (n_instances, theta_bins, phi_bins, n_bands),\n"
    "'joint_field' and 'direct_joint_field' (n_instances, cell_stride, theta_bins,\n"
    "phi_bins, n_bands) in the source's unit; uint32 sample counts 'spatial_counts'\n"
    "(n_instances, cell_stride), 'orientation_counts' (n_instances, theta_bins, phi_bins),\n"
    "'joint_counts' (n_instances, cell_stride, theta_bins, phi_bins); and '_execution'.\n"
    "Optional 'n_instances', 'n_samples', 'n_bands' give the counts (then every array\n"
    "may be flat; 2-D arrays must match them).\n"
    "Cell (ix, iy, iz) is slot (iz * ny + iy) * nx + ix. The tables, with n_sif_bands =\n"
    "n_bands, are what set_instance_sif_source_fields takes.";

}  // namespace

void bind_sif_processes(py::module_& m) {
  m.def(
      "finalize_sif_process_cpu",
      [](const EmbreeSceneManager& scene, const py::dict& request) {
        return finalize_sif_entry(scene, request, "finalize_sif_process_cpu");
      },
      py::arg("scene"), py::arg("request"), SIF_FINALIZE_DOC);

  m.def(
      "assemble_sif_source_cpu",
      [](const EmbreeSceneManager& scene, const py::dict& request) {
        return assemble_sif_entry(scene, request, "assemble_sif_source_cpu");
      },
      py::arg("scene"), py::arg("request"), SIF_ASSEMBLE_DOC);
}

void bind_sif_processes_vulkan(py::module_& m) {
  m.def(
      "finalize_sif_process_vulkan",
      [](const vulkan::VulkanSceneManager& scene, const py::dict& request) {
        return finalize_sif_entry(scene, request, "finalize_sif_process_vulkan");
      },
      py::arg("scene"), py::arg("request"),
      (std::string("finalize_sif_process_cpu on the Vulkan device, one compute invocation per\n"
                   "element; the same values exactly. Executor\n"
                   "'vulkan.slang.sif_process_finalization'.\n") +
       SIF_FINALIZE_DOC)
          .c_str());
  m.def(
      "assemble_sif_source_vulkan",
      [](const vulkan::VulkanSceneManager& scene, const py::dict& request) {
        return assemble_sif_entry(scene, request, "assemble_sif_source_vulkan");
      },
      py::arg("scene"), py::arg("request"),
      (std::string("assemble_sif_source_cpu on the Vulkan device: the same cells, bins and\n"
                   "face rule, the double sums in the host's order (one invocation per table\n"
                   "value), so the tables are the host's bit for bit on every run. Executor\n"
                   "'vulkan.slang.sif_source_assembly'.\n") +
       SIF_ASSEMBLE_DOC)
          .c_str());
}

}  // namespace vesk::module
