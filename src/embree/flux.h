#pragma once
// The flux tracer: photons from the sun and sky charge every surface they touch to the
// horizontal grid cell under the touch point, giving downwelling and upwelling energy.

#include <cstdint>
#include <vector>

#include "core/exact_sums.h"
#include "core/execution.h"
#include "core/progress.h"
#include "scene/photon_requests.h"

namespace vesk::embree {

class EmbreeSceneManager;

using scene::FluxRequest;
using scene::FluxResult;
using scene::validate_photon_range;

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

}  // namespace vesk::embree
