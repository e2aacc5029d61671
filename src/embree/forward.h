#pragma once
// The forward photon tracer: photons from the sun and sky deposit their absorbed energy
// in layered grid cells, on primitives and on the terrain, and the light they scatter
// towards chosen directions gives the bidirectional reflectance factor (BRF).

#include <cstdint>
#include <vector>

#include "core/exact_sums.h"
#include "core/execution.h"
#include "core/progress.h"
#include "core/types.h"
#include "scene/photon_requests.h"

namespace vesk::embree {

class EmbreeSceneManager;

using scene::ForwardRequest;
using scene::ForwardResult;

// The exact sums of the request's photons, per band: the grids, leaf, terrain and BRF
// fields the request asks for, then incident, escaped, transmitted, absorbed outside
// and truncated.
PhotonSums trace_forward(const EmbreeSceneManager& scene, const ForwardRequest& request,
                         const ProgressFn& progress);
// The result from sums of the request's photons, which may be the sums of several
// ranges appended in order: the same bits as render_forward. Throws
// std::invalid_argument for sums of another layout, unit or photon range.
ForwardResult finish_forward(const EmbreeSceneManager& scene, const ForwardRequest& request,
                             const PhotonSums& sums);
ForwardResult render_forward(const EmbreeSceneManager& scene, const ForwardRequest& request,
                             const ProgressFn& progress);

}  // namespace vesk::embree
