// Per-primitive and per-instance overrides that the thermal and SIF paths read.
// Every setter checks its whole input before it stores anything.
#include <cmath>
#include <limits>
#include <stdexcept>

#include "core/array_check.h"
#include "embree/scene_manager.h"

namespace vesk::embree {

void EmbreeSceneManager::set_primitive_emissivities(std::vector<float> values) {
  if (values.size() != n_primitives())
    throw std::invalid_argument("Embree primitive emissivity count must equal n_primitives()");
  primitive_emissivities_ = std::move(values);
}

void EmbreeSceneManager::set_primitive_temperatures(std::vector<float> values) {
  if (values.size() != n_primitives())
    throw std::invalid_argument("Embree primitive temperature count must equal n_primitives()");
  primitive_temperatures_ = std::move(values);
}

void EmbreeSceneManager::set_primitive_sif_spectra(std::vector<float> spectra,
                                                   int32_t n_sif_bands) {
  if (n_sif_bands < 1) throw std::invalid_argument("Embree SIF band count must be positive");
  if (spectra.size() != size_t(n_sif_bands) * n_primitives())
    throw std::invalid_argument(
        "Embree primitive SIF spectrum size must equal bands * n_primitives()");
  primitive_sif_spectra_ = std::move(spectra);
  n_sif_bands_ = n_sif_bands;
}

void EmbreeSceneManager::clear_primitive_sif_spectra() {
  primitive_sif_spectra_.clear();
  n_sif_bands_ = 0;
}

void EmbreeSceneManager::set_instance_turbid_thermal_state(InstanceTurbidThermalState s) {
  const size_t n = instances_.size();
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
  instance_turbid_thermal_ = std::move(s);
}

void EmbreeSceneManager::set_instance_sif_spectra(std::vector<float> spectra,
                                                  int32_t n_sif_bands) {
  if (n_sif_bands < 1) throw std::invalid_argument("Embree SIF band count must be positive");
  if (spectra.size() != size_t(n_sif_bands) * instances_.size())
    throw std::invalid_argument(
        "Embree instance SIF spectrum size must equal bands * num_instances()");
  check_finite("spectra", spectra.data(), spectra.size());
  instance_sif_spectra_ = std::move(spectra);
  instance_n_sif_bands_ = n_sif_bands;
}

void EmbreeSceneManager::clear_instance_sif_spectra() {
  instance_sif_spectra_.clear();
  instance_n_sif_bands_ = 0;
}

void EmbreeSceneManager::set_instance_sif_source_fields(InstanceSifSourceFields f) {
  if (f.n_sif_bands < 1 || f.spatial_cell_stride < 1 || f.orientation_theta_bins < 1 ||
      f.orientation_phi_bins < 1)
    throw std::invalid_argument("set_instance_sif_source_fields: dimensions must be positive");
  const size_t n = instances_.size();
  const size_t bands = size_t(f.n_sif_bands), cells = size_t(f.spatial_cell_stride);
  const size_t bins = size_t(f.orientation_theta_bins) * size_t(f.orientation_phi_bins);
  if (f.grid_dims.size() != 3 * n || f.bounds_min.size() != 3 * n ||
      f.bounds_max.size() != 3 * n || f.spatial_spectra.size() != n * cells * bands ||
      f.orientation_spectra.size() != n * bins * bands ||
      f.joint_spectra.size() != n * cells * bins * bands ||
      f.direct_joint_spectra.size() != n * cells * bins * bands)
    throw std::invalid_argument("set_instance_sif_source_fields: array length mismatch");
  constexpr float FMAX = std::numeric_limits<float>::max();
  for (size_t k = 0; k < n; ++k) {
    int64_t product = 1;
    bool bad = false;
    for (size_t a = 0; a < 3; ++a) {
      const int32_t dim = f.grid_dims[3 * k + a];
      const float e = f.bounds_max[3 * k + a] - f.bounds_min[3 * k + a];
      bad |= dim < 1 || !std::isfinite(f.bounds_min[3 * k + a]) ||
             !std::isfinite(f.bounds_max[3 * k + a]) || !(e > 0.0f) || e > FMAX;
      product *= std::max<int32_t>(dim, 1);
    }
    if (bad || product > int64_t(cells))
      throw std::invalid_argument("set_instance_sif_source_fields: invalid instance grid");
  }
  instance_sif_source_fields_ = std::move(f);
}

}  // namespace vesk::embree
