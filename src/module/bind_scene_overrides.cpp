// EmbreeSceneManager: per-primitive and per-instance overrides of the thermal and SIF paths.
#include "core/array_check.h"
#include "embree/scene_manager.h"
#include "module/bind_common.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

// The binding's form of the checks on instance SIF source tables, shared by both scene
// classes: dimensions, then lengths, then values and grids, with this entry's texts.
vesk::embree::InstanceSifSourceFields sif_source_fields(
    const FloatArray& spatial_spectra, const FloatArray& orientation_spectra,
    const FloatArray& joint_spectra, const FloatArray& direct_joint_spectra,
    const FloatArray& bounds_min, const FloatArray& bounds_max, const IntArray& grid_dims,
    int32_t n_sif_bands, int32_t spatial_cell_stride, int32_t orientation_theta_bins,
    int32_t orientation_phi_bins, size_t num_instances) {
  if (n_sif_bands < 1 || spatial_cell_stride < 1 || orientation_theta_bins < 1 ||
      orientation_phi_bins < 1)
    throw py::value_error("set_instance_sif_source_fields: dimensions must be positive");
  // Products in double: exact below 2^53, and above it larger than any array, so huge
  // dimensions cannot wrap into a match.
  using real = double;
  const real n = real(size_t(grid_dims.size()) / 3);
  const real bands = real(n_sif_bands), cells = real(spatial_cell_stride);
  const real bins = real(orientation_theta_bins) * real(orientation_phi_bins);
  if (real(grid_dims.size()) != 3 * n || n != real(num_instances) ||
      real(bounds_min.size()) != 3 * n || real(bounds_max.size()) != 3 * n ||
      real(spatial_spectra.size()) != n * cells * bands ||
      real(orientation_spectra.size()) != n * bins * bands ||
      real(joint_spectra.size()) != n * cells * bins * bands ||
      real(direct_joint_spectra.size()) != n * cells * bins * bands)
    throw py::value_error("set_instance_sif_source_fields: array length mismatch");
  vesk::embree::InstanceSifSourceFields f;
  f.spatial_spectra = to_vector(spatial_spectra);
  f.orientation_spectra = to_vector(orientation_spectra);
  f.joint_spectra = to_vector(joint_spectra);
  f.direct_joint_spectra = to_vector(direct_joint_spectra);
  f.bounds_min = to_vector(bounds_min);
  f.bounds_max = to_vector(bounds_max);
  f.grid_dims = to_vector(grid_dims);
  f.n_sif_bands = n_sif_bands;
  f.spatial_cell_stride = spatial_cell_stride;
  f.orientation_theta_bins = orientation_theta_bins;
  f.orientation_phi_bins = orientation_phi_bins;
  // The scene's own checks again, in the same order, with this entry's texts.
  check_finite("spatial_spectra", f.spatial_spectra.data(), f.spatial_spectra.size());
  check_finite("orientation_spectra", f.orientation_spectra.data(), f.orientation_spectra.size());
  check_finite("joint_spectra", f.joint_spectra.data(), f.joint_spectra.size());
  check_finite("direct_joint_spectra", f.direct_joint_spectra.data(), f.direct_joint_spectra.size());
  if (!vesk::embree::sif_source_grids_valid(f))
    throw py::value_error("set_instance_sif_source_fields: invalid instance grid");
  return f;
}

void bind_scene_overrides(SceneClass& cls) {
  cls.def(
      "set_primitive_emissivities",
      [](EmbreeSceneManager& s, const FloatArray& emissivities) {
        if (emissivities.ndim() != 1) throw py::value_error("emissivities must be 1D");
        s.set_primitive_emissivities(to_vector(emissivities));
      },
      py::arg("emissivities"),
      "Upload per-primitive emissivities: (n_primitives(),) float32, 0..1.");
  cls.def(
      "get_primitive_emissivities",
      [](const EmbreeSceneManager& s) { return to_numpy(s.primitive_emissivities()); },
      "Per-primitive emissivities as uploaded (empty when none).");
  cls.def(
      "set_primitive_temperatures",
      [](EmbreeSceneManager& s, const FloatArray& temperatures) {
        if (temperatures.ndim() != 1) throw py::value_error("temperatures must be 1D");
        s.set_primitive_temperatures(to_vector(temperatures));
      },
      py::arg("temperatures"),
      "Upload per-primitive temperatures (K). Length must equal n_primitives(). Closesthit "
      "thermal mode reads these in preference to mat.params[2..4] when set.");
  cls.def("clear_primitive_temperatures", &EmbreeSceneManager::clear_primitive_temperatures,
          "Clear the per-primitive temperature override (kernel reverts to mat.params[2..4]).");
  cls.def(
      "get_primitive_temperatures",
      [](const EmbreeSceneManager& s) { return to_numpy(s.primitive_temperatures()); },
      "Return host-side per-primitive temperatures (mostly for testing).");
  cls.def(
      "set_primitive_sif_spectra",
      [](EmbreeSceneManager& s, const FloatArray& spectra, int32_t n_sif_bands) {
        s.set_primitive_sif_spectra(to_vector(spectra), n_sif_bands);
      },
      py::arg("spectra"), py::arg("n_sif_bands"),
      "Upload per-primitive SIF emission spectra. spectra: float32[n_sif_bands * n_primitives] "
      "SoA (band-major). After upload, the backward kernel emits SIF from each hit primitive.");
  cls.def("clear_primitive_sif_spectra", &EmbreeSceneManager::clear_primitive_sif_spectra,
          "Remove the per-primitive SIF spectra.");

  cls.def(
      "set_instance_turbid_thermal_state",
      [](EmbreeSceneManager& s, const FloatArray& temperature_sunlit,
         const FloatArray& temperature_shaded, const FloatArray& sunlit_fraction,
         const FloatArray& emissivity) {
        s.set_instance_turbid_thermal_state({to_vector(temperature_sunlit),
                                             to_vector(temperature_shaded),
                                             to_vector(sunlit_fraction), to_vector(emissivity)});
      },
      py::arg("temperature_sunlit"), py::arg("temperature_shaded"), py::arg("sunlit_fraction"),
      py::arg("emissivity"), "Upload conditional TurbidBoundary thermal state by instance.");
  cls.def("clear_instance_turbid_thermal_state",
          &EmbreeSceneManager::clear_instance_turbid_thermal_state,
          "Remove the per-instance TurbidBoundary thermal state.");
  cls.def(
      "set_instance_sif_spectra",
      [](EmbreeSceneManager& s, const FloatArray& spectra, int32_t n_sif_bands) {
        s.set_instance_sif_spectra(to_vector(spectra), n_sif_bands);
      },
      py::arg("spectra"), py::arg("n_sif_bands"),
      "Upload per-instance TurbidBoundary SIF spectra in band-major layout [n_sif_bands * "
      "num_instances].");
  cls.def("clear_instance_sif_spectra", &EmbreeSceneManager::clear_instance_sif_spectra,
          "Remove the per-instance TurbidBoundary SIF spectra.");
  cls.def(
      "set_instance_sif_source_fields",
      [](EmbreeSceneManager& s, const FloatArray& spatial_spectra,
         const FloatArray& orientation_spectra, const FloatArray& joint_spectra,
         const FloatArray& direct_joint_spectra, const FloatArray& bounds_min,
         const FloatArray& bounds_max, const IntArray& grid_dims, int32_t n_sif_bands,
         int32_t spatial_cell_stride, int32_t orientation_theta_bins,
         int32_t orientation_phi_bins) {
        s.set_instance_sif_source_fields(sif_source_fields(
            spatial_spectra, orientation_spectra, joint_spectra, direct_joint_spectra, bounds_min,
            bounds_max, grid_dims, n_sif_bands, spatial_cell_stride, orientation_theta_bins,
            orientation_phi_bins, size_t(s.num_instances())));
      },
      py::arg("spatial_spectra"), py::arg("orientation_spectra"), py::arg("joint_spectra"),
      py::arg("direct_joint_spectra"), py::arg("bounds_min"), py::arg("bounds_max"),
      py::arg("grid_dims"), py::arg("n_sif_bands"), py::arg("spatial_cell_stride"),
      py::arg("orientation_theta_bins"), py::arg("orientation_phi_bins"),
      "Upload per-instance SIF source tables, band fastest, one instance after another:\n"
      "spatial_spectra [num_instances * spatial_cell_stride * n_sif_bands], orientation_spectra\n"
      "[num_instances * theta_bins * phi_bins * n_sif_bands], joint_spectra and\n"
      "direct_joint_spectra [num_instances * spatial_cell_stride * theta_bins * phi_bins *\n"
      "n_sif_bands]; bounds_min, bounds_max: 3 floats and grid_dims: 3 int32 per instance.");
  cls.def("clear_instance_sif_source_fields",
          &EmbreeSceneManager::clear_instance_sif_source_fields,
          "Remove the per-instance SIF source tables.");
}

}  // namespace vesk::module
