#pragma once
// The dynamic photosynthesis process: leaf temperature, photosynthesis and stomata of
// every scene primitive at once, the leaf solver inside the radiative coupling loop so
// that each leaf's temperature answers to the longwave of its neighbours; optionally
// resolved afterwards into a sunlit and a shaded branch at the coupled temperature.

#include <cstdint>
#include <vector>

#include "core/execution.h"
#include "core/span.h"
#include "physiology/coupling.h"
#include "physiology/leaf_solver.h"

namespace vesk::backend {

// Per element unless noted. apar umol m-2 s-1; absorbed_shortwave W m-2; temperatures K;
// leaf_width m; rates at 25 C umol m-2 s-1; ball_berry_intercept mol m-2 s-1.
struct DynamicPhotosynthesisProcessRequestView {
  int32_t n_elements = 0;  // must equal the scene's primitive count
  ByteSpan active, fluorescent;
  FloatSpan apar, absorbed_shortwave, initial_temperature, emissivity, sidedness;
  FloatSpan leaf_width, stomata_sides;
  FloatSpan vcmax25, jmax25, rd25, ball_berry_slope, ball_berry_intercept, quantum_yield;
  bool conditional = false;
  FloatSpan sunlit_fraction, apar_sunlit, apar_shaded, shortwave_sunlit, shortwave_shaded;
  // co2 umol mol-1, relative_humidity 0..1, air_temperature K, vapor_pressure Pa,
  // pressure kPa, wind m s-1, sky_lw_radiance W m-2 sr-1.
  float co2 = 0.0f, relative_humidity = 0.0f, air_temperature = 0.0f, vapor_pressure = 0.0f;
  float pressure = 0.0f, wind = 0.0f, sky_lw_radiance = 0.0f;
  int32_t n_samples = 64, max_iterations = 20;
  float convergence_tolerance = 0.01f, damping = 1.0f;
  int32_t physiology_max_iterations = 50;
  float physiology_tolerance = 1e-3f;
};

struct DynamicPhotosynthesisResult {
  std::vector<float> temperature, an, gs, ci, phi_f, apar;
  std::vector<uint8_t> active_mask, element_converged;
  // Empty unless conditional.
  std::vector<float> temperature_sunlit, temperature_shaded, sunlit_fraction;
  std::vector<float> apar_sunlit, apar_shaded, an_sunlit, an_shaded;
  std::vector<float> absorbed_longwave_top, absorbed_longwave_bottom, absorbed_longwave;
  std::vector<float> emitted_longwave, net_radiation, sensible_heat, latent_heat;
  std::vector<float> history;  // per coupling round, K
  int32_t iterations = 0;
  bool converged = false;
  float final_max_temperature_change = 0.0f;
  ExecutionRecord execution;
};

void validate_dynamic_photosynthesis_request(const DynamicPhotosynthesisProcessRequestView& v);

}  // namespace vesk::backend

namespace vesk::physiology {

// Where the loop's leaf solves run: the host solver unless a caller brings another (the
// device's). Every call of one process has the same element count and the same leaf
// parameters; only apar, temperatures and the absorbed radiation change between calls.
class LeafBatchSolver {
 public:
  virtual ~LeafBatchSolver() = default;
  virtual void solve(const backend::PhysiologyRequestView& view, backend::PhysiologyResult& out) = 0;
};

// Validates, checks the element count against the scene, sets the scene's emissivities
// and runs the coupling with the leaf solver. The scene's primitive temperatures end at
// the returned temperatures.
backend::DynamicPhotosynthesisResult execute_photosynthesis_process_dynamic(
    ThermalScene& scene, const backend::DynamicPhotosynthesisProcessRequestView& view,
    LeafBatchSolver* solver = nullptr);

}  // namespace vesk::physiology
