#pragma once
// The leaf model: Farquhar photosynthesis with Ball-Berry stomata, a fluorescence yield,
// and optionally the leaf temperature from a one-leaf energy balance by Newton's method.
// One pure function per element, in 32-bit float; elements are independent.
//
// Farquhar, von Caemmerer and Berry (1980), Planta 149; Ball, Woodrow and Berry (1987);
// temperature responses of Vcmax and Jmax with high-temperature deactivation (Arrhenius
// with S = 490 J mol-1 K-1, H = 150 kJ mol-1); the energy balance uses a boundary-layer
// resistance rb = 200 sqrt(width / wind) s m-1 and the Magnus saturation vapour pressure.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/execution.h"
#include "core/span.h"

namespace vesk::backend {

// Units: apar umol m-2 s-1 per band (element-major); temperatures K; co2 umol mol-1;
// relative_humidity 0..1; vpd carried, unused; pressure kPa; wind m s-1; rates at 25 C
// umol m-2 s-1; ball_berry_intercept mol m-2 s-1; quantum_yield 0..1 (reference 0.03).
// Energy balance: absorbed short- and longwave W m-2 of leaf, air temperature K,
// vapour pressure Pa, emissivity, sidedness and stomata_sides (counts), leaf_width m.
struct PhysiologyRequestView {
  int32_t n_elements = 0;
  int32_t n_bands = 0;
  FloatSpan apar, temperature, co2, relative_humidity, vpd, pressure, wind;
  FloatSpan vcmax25, jmax25, rd25, ball_berry_slope, ball_berry_intercept, quantum_yield;
  bool dynamic_energy_balance = false;
  bool solve_leaf_temperature = true;
  bool read_back_outputs = true;  // read by device backends only
  FloatSpan absorbed_shortwave, absorbed_longwave, air_temperature, vapor_pressure;
  FloatSpan emissivity, sidedness, leaf_width, stomata_sides;
  int32_t max_iterations = 0;
  float tolerance = 0.0f;  // umol mol-1 for ci, K for temperature
};

// an, gs (mol m-2 s-1), ci (umol mol-1), phi_f, converged per element; temperature and
// the fluxes (W m-2) only with the energy balance, empty otherwise.
struct PhysiologyResult {
  std::vector<float> an, gs, ci, phi_f;
  std::vector<uint8_t> converged;
  std::vector<float> temperature, net_radiation, sensible_heat, latent_heat;
  ExecutionRecord execution;
};

// The one validator; throws std::invalid_argument with the first failure, changes nothing.
void validate_physiology_request(const PhysiologyRequestView& view);

// Validates, then solves every element (OpenMP, equal contiguous ranges). The second form
// reuses the result's storage, for coupling loops that solve the same shape repeatedly.
PhysiologyResult solve_physiology(const PhysiologyRequestView& view);
void solve_physiology(const PhysiologyRequestView& view, PhysiologyResult& result);

}  // namespace vesk::backend

namespace vesk::physiology {

// One element's inputs, gathered from a view or built by a process driver.
struct LeafInput {
  float apar_sum = 0.0f;  // umol m-2 s-1, summed over bands
  float temperature = 0.0f, co2 = 0.0f, relative_humidity = 0.0f, pressure = 0.0f, wind = 0.0f;
  float vcmax25 = 0.0f, jmax25 = 0.0f, rd25 = 0.0f;
  float ball_berry_slope = 0.0f, ball_berry_intercept = 0.0f, quantum_yield = 0.0f;
  // Energy balance only.
  float absorbed_shortwave = 0.0f, absorbed_longwave = 0.0f, air_temperature = 0.0f;
  float vapor_pressure = 0.0f, emissivity = 0.0f, sidedness = 0.0f, leaf_width = 0.0f;
  float stomata_sides = 0.0f;
};

struct LeafSettings {
  bool energy_balance = false;
  bool solve_temperature = true;
  int32_t max_iterations = 50;
  float tolerance = 1e-3f;
};

struct LeafOutput {
  float an = 0.0f, gs = 0.0f, ci = 0.0f, phi_f = 0.0f;
  bool converged = false;
  float temperature = 0.0f, net_radiation = 0.0f, sensible_heat = 0.0f, latent_heat = 0.0f;
};

// The whole per-element solve. Inputs are assumed valid (see the validator). It runs the
// same code as the batch kernel, so both give identical results.
LeafOutput solve_leaf(const LeafInput& in, const LeafSettings& settings);

// out[i] = solve_leaf(in[i], settings) for i < count, bit for bit, but in the batch
// kernel's lane blocks: many times faster for drivers that gather their own leaves.
void solve_leaves(const LeafInput* in, LeafOutput* out, size_t count,
                  const LeafSettings& settings);

// The solver's exponential: branch-free so that element loops vectorise, within about
// 1 ulp of exp over [-87.3, 88.3] and clamped outside.
float exp_float(float x);

}  // namespace vesk::physiology
