#pragma once
// The photon entries' arguments and result dicts, shared by the CPU entries and the
// Vulkan scene's methods so that both read and return the same.

#include "module/bind_common.h"
#include "scene/photon_requests.h"

namespace vesk::module {

scene::ForwardRequest brf_request(const scene::SceneModel& scene, const FloatArray& directions,
                                  int64_t num_photons, int32_t max_depth, int64_t first_photon);
py::dict brf_dict(const scene::ForwardResult& r);
scene::ForwardRequest forward_request(int32_t nx, int32_t ny, const py::object& layer_heights,
                                      int64_t num_photons, int32_t num_bands, bool per_leaf,
                                      const py::object& brf_directions, int32_t num_brf_dirs,
                                      float prob_sun, int32_t max_depth,
                                      int32_t terrain_instance_id, int64_t first_photon);
py::dict forward_dict(const scene::ForwardResult& r);
scene::FluxRequest flux_request(int32_t nx, int32_t ny, int64_t num_photons, int32_t num_bands,
                                float prob_sun, int32_t max_bounces, int32_t max_depth,
                                int32_t rr_depth, bool decompose, int64_t first_photon);
py::dict flux_dict(const scene::FluxResult& r);

}  // namespace vesk::module
