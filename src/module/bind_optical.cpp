// Optical simulations on the CPU scene: simulate_cpu (backward images).
#include "embree/backward.h"
#include "embree/scene_manager.h"
#include "module/bind_scene_surface.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

void bind_optical(py::module_& m) {
  m.def(
      "simulate_cpu",
      [](const EmbreeSceneManager& scene, int spp, int max_depth, const py::object& progress,
         const py::object& outputs, int max_output_order) {
        return optical_product_dict(embree::render_backward(
            scene, spp, max_depth, /*rr_depth=*/3, /*threads=*/0, progress_bridge(progress),
            optical_request(outputs, max_output_order)));
      },
      py::arg("scene"), py::arg("spp") = 16, py::arg("max_depth") = 16,
      py::arg("progress") = py::none(),
      py::arg("outputs") = std::vector<std::string>{"radiance"}, py::arg("max_output_order") = 0,
      "Render the sensor image by backward path tracing with sun next-event estimation, all\n"
      "bands in one path, on every CPU this process may use, or VESK_NUM_THREADS (else\n"
      "OMP_NUM_THREADS) threads; the image does not depend on their number. Ctrl-C stops\n"
      "the run within a fraction of a second and raises KeyboardInterrupt. While it runs the\n"
      "scene is read-only: a progress callback that changes it gets RuntimeError.\n"
      "Image rows run bottom to top: row 0 (payload[0]) is the bottom of the picture, so\n"
      "flip it (payload[::-1]) to show it the usual way up.\n"
      "spp: samples per pixel; max_depth: scattering events, on surfaces and on leaves of\n"
      "turbid media (VESK_MAX_DEPTH overrides it);\n"
      "progress: None or a callable (done, total, elapsed_ms), called after each sample pass;\n"
      "outputs: one or a list of 'radiance', 'standard_error', 'event_aov', 'scattering_order';\n"
      "max_output_order: highest scattering order kept on its own.\n"
      "Returns {'payload': (height, width, bands) float32 mean radiance (W m-2 sr-1 nm-1 for a\n"
      "sun spectrum in W m-2 nm-1), 'standard_error': same shape, 'event_aov': {'surface',\n"
      "'medium', 'environment', 'emission'} each (height, width, bands) (sun light scattered\n"
      "by surfaces, by leaves of turbid media, seen in the sky or sun, and emitted),\n"
      "'scattering_order':\n"
      "(max_output_order + 2, height, width, bands) (unscattered, orders 1..max, the rest),\n"
      "'_execution': dict}; the optional keys only when requested.");

  m.def(
      "_simulate_cpu_rows",
      [](const EmbreeSceneManager& scene, int spp, int max_depth, const py::object& outputs,
         int max_output_order, int32_t first_row, int32_t num_rows) {
        return optical_product_dict(embree::render_backward(
            scene, spp, max_depth, /*rr_depth=*/3, /*threads=*/0, {},
            optical_request(outputs, max_output_order), first_row, num_rows));
      },
      py::arg("scene"), py::arg("spp") = 16, py::arg("max_depth") = 16,
      py::arg("outputs") = "radiance", py::arg("max_output_order") = 0, py::arg("first_row") = 0,
      py::arg("num_rows") = -1,
      "Private, for distributed runs (vesk.distributed): simulate_cpu for image rows\n"
      "first_row .. first_row + num_rows - 1 only (num_rows -1: up to the top), which are\n"
      "then the result's rows. They equal those rows of the whole image bit for bit.");
}

}  // namespace vesk::module
