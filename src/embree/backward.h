#pragma once
// The backward path tracer: for each pixel and sample a path from the sensor through
// the scene, with next-event estimation of the sun, all bands in one path.

#include "core/optical_products.h"
#include "core/progress.h"

namespace vesk::embree {

class EmbreeSceneManager;

// Renders the sensor image. threads < 1 uses every hardware thread; the image does not
// depend on the thread count. VESK_MAX_DEPTH, when a positive integer, replaces
// max_depth. Throws std::invalid_argument for a scene that cannot be rendered
// (unbuilt, spectral blocks outside the buffer, missing band wavelengths in thermal mode).
backend::OpticalProductResult render_backward(const EmbreeSceneManager& scene, int spp,
                                              int max_depth, int rr_depth, int threads,
                                              const ProgressFn& progress,
                                              const backend::OpticalProductRequest& request);

}  // namespace vesk::embree
