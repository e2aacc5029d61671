#pragma once
// Per-instance state that the thermal and SIF paths read in place of the materials:
// conditional temperatures of turbid instances and SIF source tables, with their checks.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vesk::scene {

// Conditional thermal state of TurbidBoundary instances, one entry per instance.
struct InstanceTurbidThermalState {
  std::vector<float> temperature_sunlit, temperature_shaded;  // K, 0 where absent
  std::vector<float> sunlit_fraction, emissivity;             // 0..1
};

// Per-instance SIF source tables, band fastest: spatial [instance][cell][band],
// orientation [instance][bin][band], joint and direct joint [instance][cell][bin][band].
struct InstanceSifSourceFields {
  std::vector<float> spatial_spectra, orientation_spectra, joint_spectra, direct_joint_spectra;
  std::vector<float> bounds_min, bounds_max;  // 3 per instance
  std::vector<int32_t> grid_dims;             // nx, ny, nz per instance
  int32_t n_sif_bands = 0;
  int32_t spatial_cell_stride = 0;
  int32_t orientation_theta_bins = 0, orientation_phi_bins = 0;
  bool empty() const { return grid_dims.empty(); }
};

// Whether every instance's grid can be looked up: dimensions of at least 1 whose cell
// count fits spatial_cell_stride, and finite bounds with an extent above 0 that a float
// holds. grid_dims, bounds_min and bounds_max must hold 3 values per instance.
bool sif_source_grids_valid(const InstanceSifSourceFields& fields);

// The checks of the setters, for n instances; std::invalid_argument on failure.
void check_turbid_thermal_state(const InstanceTurbidThermalState& state, size_t n);
void check_sif_source_fields(const InstanceSifSourceFields& fields, size_t n);

}  // namespace vesk::scene
