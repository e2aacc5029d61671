#pragma once
// SIF process finalisation: per leaf element, the fluorescence yield and the absorbed
// spectra reduced to the bands that excite fluorescence, ready for the source assembly.

#include <cstdint>
#include <vector>

#include "core/execution.h"
#include "core/span.h"

namespace vesk::backend {

// absorbed_top / absorbed_bottom: absorbed flux per element and band, element-major
// (n_elements * n_bands), in the caller's units (copied, never rescaled).
// material_ids: per element, -1 for none. material_phi_f: fluorescence yield 0..1 per
// material. selected_band_indices: strictly increasing band indices, n_selected of them.
// element_phi_f: optional per-element yield 0..1 that overrides the material's; absent
// only when both the pointer is null and the count is 0.
struct SifProcessRequestView {
  int32_t n_elements = 0;
  int32_t n_bands = 0;
  int32_t n_selected = 0;
  int32_t n_materials = 0;
  FloatSpan absorbed_top, absorbed_bottom;
  IntSpan material_ids;
  FloatSpan material_phi_f;
  IntSpan selected_band_indices;
  FloatSpan element_phi_f;
};

// phi_f per element; the selected spectra n_selected per element, element-major.
struct SifProcessResult {
  std::vector<float> phi_f;
  std::vector<float> absorbed_top_selected, absorbed_bottom_selected;
  ExecutionRecord execution;
};

// The one validator; throws std::invalid_argument with the first failure.
void validate_sif_process_request(const SifProcessRequestView& view);

// Validates, then gathers every element (OpenMP, equal contiguous ranges).
SifProcessResult finalize_sif_process(const SifProcessRequestView& view);

}  // namespace vesk::backend
