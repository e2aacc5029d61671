#pragma once
// The flux tracer: photons from the sun and sky charge every surface they touch to the
// horizontal grid cell under the touch point, giving downwelling and upwelling energy.

#include <cstdint>
#include <vector>

#include "core/execution.h"
#include "core/progress.h"

namespace vesk::embree {

class EmbreeSceneManager;

// Grids are [ny][nx][num_bands], 32-bit, in energy units (the sun spectrum times area).
struct FluxResult {
  std::vector<float> downwelling, upwelling, downwelling_direct, downwelling_diffuse;
  int32_t nx = 0, ny = 0, num_bands = 0;
  bool decompose = false;
  ExecutionRecord execution;
};

FluxResult render_flux(const EmbreeSceneManager& scene, int32_t nx, int32_t ny,
                       int64_t num_photons, int32_t num_bands, float prob_sun,
                       int32_t max_bounces, int32_t max_depth, int32_t rr_depth, int32_t threads,
                       const ProgressFn& progress, bool decompose);

// Photons run in rounds of this many; progress comes at the end of each round and every
// PROGRESS_INTERVAL_MS within one.
constexpr int64_t PHOTON_ROUND = 1000000;

}  // namespace vesk::embree
