// The scenes' per-primitive and per-instance overrides of the thermal and SIF paths.
#include "core/array_check.h"
#include "embree/scene_manager.h"
#include "module/bind_common.h"
#include "module/bind_scene_surface.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

// The binding's form of the checks on instance SIF source tables, shared by both scene
// classes: dimensions, then lengths, then values and grids, with this entry's texts.
vesk::scene::InstanceSifSourceFields sif_source_fields(
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
  if (!vesk::scene::sif_source_grids_valid(f))
    throw py::value_error("set_instance_sif_source_fields: invalid instance grid");
  return f;
}

void bind_scene_overrides(SceneClass& cls) {
  bind_scene_overrides_of(
      cls,
      "Upload per-instance SIF source tables, band fastest, one instance after another:\n"
      "spatial_spectra [num_instances * spatial_cell_stride * n_sif_bands], orientation_spectra\n"
      "[num_instances * theta_bins * phi_bins * n_sif_bands], joint_spectra and\n"
      "direct_joint_spectra [num_instances * spatial_cell_stride * theta_bins * phi_bins *\n"
      "n_sif_bands]; bounds_min, bounds_max: 3 floats and grid_dims: 3 int32 per instance.");
}

}  // namespace vesk::module
