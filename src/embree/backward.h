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
// first_row, num_rows: only image rows first_row .. first_row + num_rows - 1 (num_rows
// -1: up to the top), as the result's rows. Every pixel sample has its own random
// stream, so these rows are exactly those of the whole image.
backend::OpticalProductResult render_backward(const EmbreeSceneManager& scene, int spp,
                                              int max_depth, int rr_depth, int threads,
                                              const ProgressFn& progress,
                                              const backend::OpticalProductRequest& request,
                                              int32_t first_row = 0, int32_t num_rows = -1);

}  // namespace vesk::embree
