#pragma once
// The flux tracer: photons from the sun and sky charge every surface they touch to the
// horizontal grid cell under the touch point, giving downwelling and upwelling energy.

#include <cstdint>
#include <vector>

#include "core/exact_sums.h"
#include "core/execution.h"
#include "core/progress.h"

namespace vesk::embree {

class EmbreeSceneManager;

struct FluxRequest {
  int32_t nx = 1, ny = 1;
  // Photons first_photon .. first_photon + num_photons - 1 of the global numbering;
  // first_photon is a multiple of PHOTON_CHUNK.
  int64_t num_photons = 0, first_photon = 0;
  int32_t num_bands = 1;
  float prob_sun = 1.0f;
  int32_t max_bounces = 0, max_depth = 16, rr_depth = 3;
  int32_t threads = 0;
  bool decompose = false;
};

// Grids are [ny][nx][num_bands], 32-bit, in energy units (the sun spectrum times area).
struct FluxResult {
  std::vector<float> downwelling, upwelling, downwelling_direct, downwelling_diffuse;
  int32_t nx = 0, ny = 0, num_bands = 0;
  bool decompose = false;
  ExecutionRecord execution;
};

// The exact sums of the request's photons: fields down, up (and direct, diffuse with
// decompose), each [ny][nx][num_bands], one after the other.
PhotonSums trace_flux(const EmbreeSceneManager& scene, const FluxRequest& request,
                      const ProgressFn& progress);
// The grids from sums of the request's photons, which may be the sums of several
// ranges appended in order: the same bits as render_flux. Throws std::invalid_argument
// for sums of another layout, unit or photon range.
FluxResult finish_flux(const EmbreeSceneManager& scene, const FluxRequest& request,
                       const PhotonSums& sums);
FluxResult render_flux(const EmbreeSceneManager& scene, const FluxRequest& request,
                       const ProgressFn& progress);

// Photons run in rounds of this many (a whole number of chunks); progress comes at each
// end of a batch of PROGRESS_BATCH photons, every PROGRESS_INTERVAL_MS, and at the end.
constexpr int64_t PHOTON_ROUND = 256 * PHOTON_CHUNK;

// Checks a photon range against the global numbering: a positive count, a first photon
// at a chunk boundary, and an end that stays in int64.
void validate_photon_range(int64_t first_photon, int64_t num_photons, const char* what);

}  // namespace vesk::embree
