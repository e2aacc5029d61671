// Per-primitive and per-instance overrides that the thermal and SIF paths read.
// Every setter checks its whole input before it stores anything.
#include "scene/overrides.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <stdexcept>

#include "core/array_check.h"
#include "scene/scene_model.h"

namespace vesk::scene {

void SceneModel::set_primitive_emissivities(std::vector<float> values) {
  require_idle_();
  if (values.size() != n_primitives())
    throw std::invalid_argument("Embree primitive emissivity count must equal n_primitives()");
  check_non_negative("emissivities", values.data(), values.size());
  primitive_emissivities_ = std::move(values);
}

void SceneModel::set_primitive_temperatures(std::vector<float> values) {
  require_idle_();
  if (values.size() != n_primitives())
    throw std::invalid_argument("Embree primitive temperature count must equal n_primitives()");
  check_non_negative("temperatures", values.data(), values.size());
  primitive_temperatures_ = std::move(values);
}

void SceneModel::set_primitive_sif_spectra(std::vector<float> spectra, int32_t n_sif_bands) {
  require_idle_();
  if (n_sif_bands < 1) throw std::invalid_argument("Embree SIF band count must be positive");
  if (spectra.size() != size_t(n_sif_bands) * n_primitives())
    throw std::invalid_argument(
        "Embree primitive SIF spectrum size must equal bands * n_primitives()");
  check_finite("spectra", spectra.data(), spectra.size());
  primitive_sif_spectra_ = std::move(spectra);
  n_sif_bands_ = n_sif_bands;
}

void SceneModel::clear_primitive_emissivities() {
  require_idle_();
  primitive_emissivities_.clear();
}

void SceneModel::clear_primitive_temperatures() {
  require_idle_();
  primitive_temperatures_.clear();
}

void SceneModel::clear_primitive_sif_spectra() {
  require_idle_();
  primitive_sif_spectra_.clear();
  n_sif_bands_ = 0;
}

void check_turbid_thermal_state(const InstanceTurbidThermalState& s, size_t n) {
  check_length("temperature_sunlit", s.temperature_sunlit.size(), n);
  check_length("temperature_shaded", s.temperature_shaded.size(), n);
  check_length("sunlit_fraction", s.sunlit_fraction.size(), n);
  check_length("emissivity", s.emissivity.size(), n);
  check_finite("temperature_sunlit", s.temperature_sunlit.data(), n);
  check_finite("temperature_shaded", s.temperature_shaded.data(), n);
  check_finite("sunlit_fraction", s.sunlit_fraction.data(), n);
  check_finite("emissivity", s.emissivity.data(), n);
  for (size_t i = 0; i < n; ++i) {
    // A temperature of 0 marks an instance without turbid thermal state.
    if (s.temperature_sunlit[i] < 0.0f || s.temperature_shaded[i] < 0.0f ||
        s.sunlit_fraction[i] < 0.0f || s.sunlit_fraction[i] > 1.0f || s.emissivity[i] < 0.0f ||
        s.emissivity[i] > 1.0f)
      throw std::invalid_argument("instance turbid thermal state is outside its domain");
  }
}

void SceneModel::set_instance_turbid_thermal_state(InstanceTurbidThermalState s) {
  require_idle_();
  check_turbid_thermal_state(s, instances_.size());
  instance_turbid_thermal_ = std::move(s);
}

void SceneModel::clear_instance_turbid_thermal_state() {
  require_idle_();
  instance_turbid_thermal_ = {};
}

void SceneModel::set_instance_sif_spectra(std::vector<float> spectra, int32_t n_sif_bands) {
  require_idle_();
  if (n_sif_bands < 1) throw std::invalid_argument("Embree SIF band count must be positive");
  if (spectra.size() != size_t(n_sif_bands) * instances_.size())
    throw std::invalid_argument(
        "Embree instance SIF spectrum size must equal bands * num_instances()");
  check_finite("spectra", spectra.data(), spectra.size());
  instance_sif_spectra_ = std::move(spectra);
  instance_n_sif_bands_ = n_sif_bands;
}

void SceneModel::clear_instance_sif_spectra() {
  require_idle_();
  instance_sif_spectra_.clear();
  instance_n_sif_bands_ = 0;
}

namespace {

// A size as a product that cannot wrap: a product past SIZE_MAX matches no array.
size_t saturating_product(std::initializer_list<size_t> factors) {
  size_t p = 1;
  for (const size_t f : factors)
    if (__builtin_mul_overflow(p, f, &p)) return SIZE_MAX;
  return p;
}

}  // namespace

bool sif_source_grids_valid(const InstanceSifSourceFields& f) {
  constexpr float FMAX = std::numeric_limits<float>::max();
  const size_t n = f.grid_dims.size() / 3;
  for (size_t k = 0; k < n; ++k) {
    size_t grid_cells = 1;
    for (size_t a = 0; a < 3; ++a) {
      const int32_t dim = f.grid_dims[3 * k + a];
      const float e = f.bounds_max[3 * k + a] - f.bounds_min[3 * k + a];
      if (dim < 1 || !std::isfinite(f.bounds_min[3 * k + a]) ||
          !std::isfinite(f.bounds_max[3 * k + a]) || !(e > 0.0f) || e > FMAX)
        return false;
      grid_cells = saturating_product({grid_cells, size_t(dim)});
    }
    if (grid_cells > size_t(std::max(f.spatial_cell_stride, 0))) return false;
  }
  return true;
}

void check_sif_source_fields(const InstanceSifSourceFields& f, size_t n) {
  if (f.n_sif_bands < 1 || f.spatial_cell_stride < 1 || f.orientation_theta_bins < 1 ||
      f.orientation_phi_bins < 1)
    throw std::invalid_argument("Embree instance SIF source fields: dimensions must be positive");
  const size_t bands = size_t(f.n_sif_bands), cells = size_t(f.spatial_cell_stride);
  const size_t bins =
      saturating_product({size_t(f.orientation_theta_bins), size_t(f.orientation_phi_bins)});
  const size_t joint = saturating_product({n, cells, bins, bands});
  if (f.grid_dims.size() != 3 * n || f.bounds_min.size() != 3 * n || f.bounds_max.size() != 3 * n ||
      f.spatial_spectra.size() != saturating_product({n, cells, bands}) ||
      f.orientation_spectra.size() != saturating_product({n, bins, bands}) ||
      f.joint_spectra.size() != joint || f.direct_joint_spectra.size() != joint)
    throw std::invalid_argument("Embree instance SIF source fields: array length mismatch");
  check_finite("spatial_spectra", f.spatial_spectra.data(), f.spatial_spectra.size());
  check_finite("orientation_spectra", f.orientation_spectra.data(), f.orientation_spectra.size());
  check_finite("joint_spectra", f.joint_spectra.data(), f.joint_spectra.size());
  check_finite("direct_joint_spectra", f.direct_joint_spectra.data(),
               f.direct_joint_spectra.size());
  if (!sif_source_grids_valid(f))
    throw std::invalid_argument("Embree instance SIF source fields: invalid instance grid");
}

void SceneModel::set_instance_sif_source_fields(InstanceSifSourceFields f) {
  require_idle_();
  check_sif_source_fields(f, instances_.size());
  instance_sif_source_fields_ = std::move(f);
}

void SceneModel::clear_instance_sif_source_fields() {
  require_idle_();
  instance_sif_source_fields_ = {};
}

}  // namespace vesk::scene
