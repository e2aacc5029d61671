// VulkanSceneManager's photon methods: simulate_flux, simulate_forward_radiation and
// simulate_brf, with the arguments, defaults and dicts of the CPU entries.
#include "module/bind_photon_requests.h"
#include "vulkan/scene_manager.h"

namespace vesk::module {

using vesk::vulkan::VulkanSceneManager;

void bind_vulkan_photons(py::module_& m) {
  auto cls = py::reinterpret_borrow<py::class_<VulkanSceneManager>>(m.attr("VulkanSceneManager"));
  cls.def(
      "simulate_flux",
      [](VulkanSceneManager& s, int32_t nx, int32_t ny, int64_t num_photons, int32_t num_bands,
         float prob_sun, int32_t max_bounces, int32_t max_depth, int32_t rr_depth, bool decompose,
         const py::object& progress, int64_t first_photon) {
        const scene::FluxRequest q = flux_request(nx, ny, num_photons, num_bands, prob_sun,
                                                  max_bounces, max_depth, rr_depth, decompose,
                                                  first_photon);
        return flux_dict(s.simulate_flux(q, progress_bridge(progress)));
      },
      py::arg("nx"), py::arg("ny"), py::arg("num_photons"), py::arg("num_bands"),
      py::arg("prob_sun") = 1.0f, py::arg("max_bounces") = 0, py::arg("max_depth") = 16,
      py::arg("rr_depth") = 3, py::arg("decompose") = false, py::arg("progress") = py::none(),
      py::arg("first_photon") = 0,
      "Hemispheric flux grids of simulate_flux_cpu on the device: the same photons (the\n"
      "generator of each global photon index), grid, arguments and dict, one invocation per\n"
      "photon. Sums are exact fixed-point counts, so they do not depend on how photons fall\n"
      "on dispatches; they agree with the CPU's to float rounding. progress(done, total,\n"
      "elapsed_ms) runs between dispatches. '_execution' names the trace path, as\n"
      "'vulkan.ray_query.optical_flux'. Optical turbid media are followed as on the CPU.");
  cls.def(
      "simulate_forward_radiation",
      [](VulkanSceneManager& s, int32_t nx, int32_t ny, const py::object& layer_heights,
         int64_t num_photons, int32_t num_bands, bool per_leaf, const py::object& brf_directions,
         int32_t num_brf_dirs, float prob_sun, int32_t max_depth, int32_t terrain_instance_id,
         const py::object& progress, int64_t first_photon) {
        const scene::ForwardRequest q =
            forward_request(nx, ny, layer_heights, num_photons, num_bands, per_leaf,
                            brf_directions, num_brf_dirs, prob_sun, max_depth,
                            terrain_instance_id, first_photon);
        return forward_dict(s.simulate_forward_radiation(q, progress_bridge(progress)));
      },
      py::arg("nx") = 1, py::arg("ny") = 1, py::arg("layer_heights") = py::none(),
      py::arg("num_photons") = 10000000, py::arg("num_bands") = 1, py::arg("per_leaf") = false,
      py::arg("brf_directions") = py::none(), py::arg("num_brf_dirs") = 0,
      py::arg("prob_sun") = 1.0f, py::arg("max_depth") = 16, py::arg("terrain_instance_id") = -1,
      py::arg("progress") = py::none(), py::arg("first_photon") = 0,
      "Forward photons of simulate_forward_cpu on the device: absorption by layered grid\n"
      "cell, per leaf and on the terrain, incident, escaped, transmitted, truncated, albedo\n"
      "and the BRF towards brf_directions, through the repeated tiles. Same photons,\n"
      "arguments and dict as the CPU entry; exact fixed-point sums, equal to the CPU's to\n"
      "float rounding. '_execution' as 'vulkan.ray_query.optical_forward'. Optical turbid\n"
      "media are followed as on the CPU, with the hot spot in the BRF estimates.");
  cls.def(
      "simulate_brf",
      [](VulkanSceneManager& s, const FloatArray& directions, int64_t num_photons,
         int32_t max_depth, const py::object& progress, int64_t first_photon) {
        const scene::ForwardRequest q =
            brf_request(s, directions, num_photons, max_depth, first_photon);
        return brf_dict(s.simulate_forward_radiation(q, progress_bridge(progress)));
      },
      py::arg("directions"), py::arg("num_photons"), py::arg("max_depth") = 16,
      py::arg("progress") = py::none(), py::arg("first_photon") = 0,
      "The BRF of simulate_brf_cpu on the device: forward photons under the sun and sky with\n"
      "the local estimate towards each direction (flat float3, upward). Returns 'brf'\n"
      "(n_directions, bands), 'albedo', 'incident', 'escaped' and '_execution' (as\n"
      "'vulkan.ray_query.optical_brf'). Optical turbid media are followed as on the CPU.");
}

}  // namespace vesk::module
