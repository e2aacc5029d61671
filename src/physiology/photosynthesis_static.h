#pragma once
// The static photosynthesis process: absorbed spectra of leaf elements turned into PAR and
// run through the leaf model twice, as a sunlit and a shaded leaf at given temperatures.

#include <cstdint>
#include <vector>

#include "core/execution.h"
#include "core/span.h"

namespace vesk::backend {

// Spectra are element-major ([element][band]), W m-2 per band; absorbed_direct is the
// part of top + bottom that came straight from the sun. Material arrays have one entry
// per material; material_ids of -1 mark elements without one.
struct PhotosynthesisProcessRequestView {
  int32_t n_elements = 0;
  int32_t n_bands = 0;
  int32_t n_materials = 0;
  FloatSpan absorbed_top, absorbed_bottom, absorbed_direct;
  FloatSpan wavelengths;      // nm, per band
  FloatSpan sunlit_fraction;  // 0..1, per element
  IntSpan material_ids;
  ByteSpan material_active, material_fluorescent;  // 0 or 1, per material
  FloatSpan element_temperature;                   // K, the sunlit leaf
  FloatSpan element_temperature_shaded;            // K
  // Per material, in the units of the leaf model (umol m-2 s-1, mol m-2 s-1, 0..1).
  FloatSpan vcmax25, jmax25, rd25, ball_berry_slope, ball_berry_intercept, quantum_yield;
  float co2 = 0.0f;                // umol mol-1
  float relative_humidity = 0.0f;  // 0..1
  int32_t max_iterations = 0;
  float tolerance = 0.0f;  // umol mol-1, on ci
};

// Per element. Blends (temperature, an, gs, phi_f) weigh the sunlit branch by
// sunlit_fraction; apar is the unblended total in umol m-2 s-1. Inactive elements carry
// their temperatures and zeros everywhere else.
struct PhotosynthesisStaticResult {
  std::vector<float> temperature, an, gs, phi_f, apar;
  std::vector<float> temperature_sunlit, temperature_shaded, sunlit_fraction;
  std::vector<float> apar_sunlit, apar_shaded, an_sunlit, an_shaded;
  std::vector<uint8_t> active_mask, converged;
  ExecutionRecord execution;
};

// The one validator; throws std::invalid_argument with the first failure.
void validate_photosynthesis_static_request(const PhotosynthesisProcessRequestView& view);

// Validates, then runs every element (OpenMP, equal contiguous ranges; the result does
// not depend on the thread count).
PhotosynthesisStaticResult execute_photosynthesis_process_static(
    const PhotosynthesisProcessRequestView& view);

}  // namespace vesk::backend
