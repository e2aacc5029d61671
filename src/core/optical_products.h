#pragma once
// What a backward simulation may return and how it is computed from the film: the
// mean radiance, its standard error, the split by event kind and by scattering order.

#include <cstdint>
#include <string>
#include <vector>

#include "core/execution.h"

namespace vesk::backend {

struct OpticalProductRequest {
  bool standard_error = false;
  bool event_aov = false;
  bool scattering_order = false;
  int32_t max_output_order = 0;
  std::string to_string() const;
};

// Event slots of the event_aov split.
enum EventSlot : int32_t { SLOT_SURFACE = 0, SLOT_MEDIUM = 1, SLOT_ENVIRONMENT = 2, SLOT_EMISSION = 3 };
constexpr int32_t EVENT_SLOTS = 4;
// Orders kept on their own at most; paths this deep do not occur in practice.
constexpr int32_t MAX_OUTPUT_ORDER = 100000;

// Names: "radiance", "standard_error", "event_aov", "scattering_order"; anything else
// throws std::invalid_argument "unknown optical output name: <name>".
OpticalProductRequest parse_optical_outputs(const std::vector<std::string>& names,
                                            int32_t max_output_order);

// Images are [height][width][bands]; event_aov is 4 such planes (surface, medium,
// environment, emission) and scattering_order order_count planes.
struct OpticalProductResult {
  std::vector<float> payload, standard_error, event_aov, scattering_order;
  int32_t order_count = 0, width = 0, height = 0, bands = 0;
  OpticalProductRequest request;  // which of the optional products are present
  ExecutionRecord execution;
};

// 64-bit sums over samples, with memory only for the requested products.
struct OpticalFilm {
  int32_t width = 0, height = 0, bands = 0, order_count = 0;
  OpticalProductRequest request;
  std::vector<double> sum, sum_sq, aov, orders;

  OpticalFilm(const OpticalProductRequest& request, int32_t width, int32_t height, int32_t bands);
  size_t plane() const { return size_t(width) * size_t(height) * size_t(bands); }
  // Mean over spp samples, narrowed once; standard error per the unbiased variance.
  OpticalProductResult finish(int32_t spp) const;
};

}  // namespace vesk::backend
