// Optical simulations on the CPU scene: simulate_cpu (backward images).
#include "embree/backward.h"
#include "embree/scene_manager.h"
#include "module/bind_common.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

void bind_optical(py::module_& m) {
  m.def(
      "simulate_cpu",
      [](const EmbreeSceneManager& scene, int spp, int max_depth, const py::object& progress,
         const py::iterable& outputs, int max_output_order) {
        std::vector<std::string> names;
        for (const py::handle& h : outputs) names.push_back(py::cast<std::string>(h));
        const backend::OpticalProductRequest request =
            backend::parse_optical_outputs(names, max_output_order);
        return optical_product_dict(embree::render_backward(
            scene, spp, max_depth, /*rr_depth=*/3, /*threads=*/0, progress_bridge(progress),
            request));
      },
      py::arg("scene"), py::arg("spp") = 16, py::arg("max_depth") = 16,
      py::arg("progress") = py::none(),
      py::arg("outputs") = std::vector<std::string>{"radiance"}, py::arg("max_output_order") = 0,
      "Render the sensor image by backward path tracing with sun next-event estimation, all\n"
      "bands in one path, on every hardware thread (the image does not depend on their number).\n"
      "spp: samples per pixel; max_depth: surface bounces (VESK_MAX_DEPTH overrides it);\n"
      "progress: None or a callable (done, total, elapsed_ms), called after each sample pass;\n"
      "outputs: any of 'radiance', 'standard_error', 'event_aov', 'scattering_order';\n"
      "max_output_order: highest scattering order kept on its own.\n"
      "Returns {'payload': (height, width, bands) float32 mean radiance (W m-2 sr-1 nm-1 for a\n"
      "sun spectrum in W m-2 nm-1), 'standard_error': same shape, 'event_aov': {'surface',\n"
      "'medium', 'environment', 'emission'} each (height, width, bands), 'scattering_order':\n"
      "(max_output_order + 2, height, width, bands) (unscattered, orders 1..max, the rest),\n"
      "'_execution': dict}; the optional keys only when requested.");
}

}  // namespace vesk::module
