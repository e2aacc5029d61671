#pragma once
// The energy-balance process: a steady surface temperature for every scene primitive
// with fixed exchange coefficients, the primitives trading longwave with each other and
// the sky. Newton on the balance
//   Rabs - e s sigma T^4 - Gh (T - Ta) - C (es(T) - ea) - G = 0
// per element, inside the radiative coupling loop.

#include <cstdint>
#include <vector>

#include "core/execution.h"
#include "core/span.h"
#include "physiology/coupling.h"

namespace vesk::backend {

// Per element unless noted. Units: K, W m-2, W m-2 K-1 (sensible_derivative),
// W m-2 Pa-1 (latent_coefficient), Pa, W m-2 sr-1 (radiances).
struct EnergyBalanceProcessRequestView {
  int32_t n_elements = 0;  // must equal the scene's primitive count
  ByteSpan active;
  FloatSpan initial_temperature, emissivity, sidedness, sensible_derivative, latent_coefficient;
  FloatSpan ground_heat, sw_albedo;
  bool precomputed_shortwave = false;
  FloatSpan absorbed_shortwave_top, absorbed_shortwave_bottom;
  float air_temperature = 0.0f, vapor_pressure = 0.0f, sky_lw_radiance = 0.0f;
  float sw_direct = 0.0f, sw_diffuse_radiance = 0.0f;
  float sun_dir_x = 0.0f, sun_dir_y = 0.0f, sun_dir_z = 1.0f;
  int32_t n_samples = 64, max_iterations = 20;
  float convergence_tolerance = 0.01f, damping = 1.0f;
  int32_t newton_max_iterations = 50;
  float newton_tolerance = 1e-3f;
};

struct EnergyBalanceElementResult {
  float temperature = 0.0f, net_radiation = 0.0f, sensible_heat = 0.0f, latent_heat = 0.0f;
  float emitted_longwave = 0.0f;
  uint8_t converged = 0;
};

struct EnergyBalanceProcessResult {
  std::vector<float> temperature;
  std::vector<float> absorbed_shortwave_top, absorbed_shortwave_bottom, absorbed_shortwave;
  std::vector<float> absorbed_longwave_top, absorbed_longwave_bottom, absorbed_longwave;
  std::vector<float> emitted_longwave, net_radiation, sensible_heat, latent_heat, ground_heat;
  std::vector<float> history;
  std::vector<uint8_t> active_mask, element_converged;
  int32_t iterations = 0;
  bool converged = false;
  float final_max_temperature_change = 0.0f;
  ExecutionRecord execution;
};

// The one validator (std::invalid_argument, first failure, nothing changed).
void validate_energy_balance_process_request(const EnergyBalanceProcessRequestView& view);

}  // namespace vesk::backend

namespace vesk::physiology {

// One element's fixed-coefficient balance.
struct FixedEnergyInput {
  bool active = true;
  float temperature = 0.0f;  // K, the start of Newton
  float absorbed = 0.0f;     // short- plus longwave, W m-2
  float emissivity = 0.0f, sidedness = 1.0f, sensible_derivative = 0.0f;
  float latent_coefficient = 0.0f, ground_heat = 0.0f;
};
struct FixedEnergySettings {
  float air_temperature = 0.0f, vapor_pressure = 0.0f;
  bool solve_temperature = true;
  int32_t max_iterations = 50;
  float tolerance = 1e-3f;
};
backend::EnergyBalanceElementResult solve_fixed_energy(const FixedEnergyInput& in,
                                                       const FixedEnergySettings& s);

// Validates, checks the element count against the scene, sets the scene's emissivities,
// and runs: shortwave once, then the coupling loop. The scene's primitive temperatures
// end at the returned temperatures.
backend::EnergyBalanceProcessResult execute_energy_balance_process(
    ThermalScene& scene, const backend::EnergyBalanceProcessRequestView& view);

}  // namespace vesk::physiology
