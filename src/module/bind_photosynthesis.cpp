// Photosynthesis process entries on the CPU scene: execute_photosynthesis_process_static_cpu.
#include "embree/scene_manager.h"
#include "module/bind_common.h"
#include "module/bind_request.h"
#include "physiology/photosynthesis_static.h"
#include "vulkan/scene_manager.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

namespace {

// The three spectra: [element, band] arrays, or flat element-major ones with the
// counts. A transposed array has the right length and would otherwise pass unnoticed.
FloatArray spectrum(const py::dict& request, const char* key, RequestCount& elements,
                    RequestCount& bands) {
  return rows_by_cols<std::runtime_error>(
      request, key, elements, bands,
      std::string(key) +
          " must have shape [element, band], or be flat with 'n_elements' and "
          "'n_bands' given");
}

backend::FloatSpan span_of(const FloatArray& a) {
  return {a.data(), size_t(a.size())};
}

py::dict result_dict(backend::PhotosynthesisStaticResult&& r, py::ssize_t n) {
  const std::vector<py::ssize_t> shape{n};
  py::dict d;
  d["temperature"] = move_to_numpy(std::move(r.temperature), shape);
  d["an"] = move_to_numpy(std::move(r.an), shape);
  d["gs"] = move_to_numpy(std::move(r.gs), shape);
  d["phi_f"] = move_to_numpy(std::move(r.phi_f), shape);
  d["apar"] = move_to_numpy(std::move(r.apar), shape);
  d["temperature_sunlit"] = move_to_numpy(std::move(r.temperature_sunlit), shape);
  d["temperature_shaded"] = move_to_numpy(std::move(r.temperature_shaded), shape);
  d["sunlit_fraction"] = move_to_numpy(std::move(r.sunlit_fraction), shape);
  d["apar_sunlit"] = move_to_numpy(std::move(r.apar_sunlit), shape);
  d["apar_shaded"] = move_to_numpy(std::move(r.apar_shaded), shape);
  d["an_sunlit"] = move_to_numpy(std::move(r.an_sunlit), shape);
  d["an_shaded"] = move_to_numpy(std::move(r.an_shaded), shape);
  d["active_mask"] = move_to_numpy<uint8_t, bool>(std::move(r.active_mask), shape);
  d["converged"] = move_to_numpy<uint8_t, bool>(std::move(r.converged), shape);
  d["_execution"] = execution_dict(r.execution);
  return d;
}

template <class Scene>
py::dict photosynthesis_static_entry(const Scene& scene, const py::dict& request,
                                     const char* name) {
  warn_unread_keys(request,
                   {"n_elements",
                    "n_bands",
                    "n_materials",
                    "absorbed_top",
                    "absorbed_bottom",
                    "absorbed_direct",
                    "wavelengths",
                    "sunlit_fraction",
                    "material_ids",
                    "material_active",
                    "material_fluorescent",
                    "temperature_sunlit",
                    "temperature_shaded",
                    "vcmax25",
                    "jmax25",
                    "rd25",
                    "ball_berry_slope",
                    "ball_berry_intercept",
                    "quantum_yield",
                    "co2",
                    "relative_humidity",
                    "max_iterations",
                    "tolerance"},
                   name);
  RequestArrays arrays;
  RequestCount elements(request, "n_elements"), bands(request, "n_bands"),
      materials(request, "n_materials");
  const FloatArray top = spectrum(request, "absorbed_top", elements, bands);
  const FloatArray bottom = spectrum(request, "absorbed_bottom", elements, bands);
  const FloatArray direct = spectrum(request, "absorbed_direct", elements, bands);
  backend::PhotosynthesisProcessRequestView v;
  v.absorbed_top = span_of(top);
  v.absorbed_bottom = span_of(bottom);
  v.absorbed_direct = span_of(direct);
  v.n_elements = elements.get32();
  v.n_bands = bands.get32();
  v.wavelengths = arrays.take(request, "wavelengths");
  v.sunlit_fraction = arrays.take(request, "sunlit_fraction");
  v.material_ids = arrays.take_ints(request, "material_ids");
  v.material_active = arrays.take_bytes(request, "material_active");
  v.material_fluorescent = arrays.take_bytes(request, "material_fluorescent");
  v.n_materials = materials.given ? materials.get32()
                                  : int32_t(std::min<size_t>(v.material_active.size, 0x7fffffff));
  v.element_temperature = arrays.take(request, "temperature_sunlit");
  v.element_temperature_shaded = arrays.take(request, "temperature_shaded");
  v.vcmax25 = arrays.take(request, "vcmax25");
  v.jmax25 = arrays.take(request, "jmax25");
  v.rd25 = arrays.take(request, "rd25");
  v.ball_berry_slope = arrays.take(request, "ball_berry_slope");
  v.ball_berry_intercept = arrays.take(request, "ball_berry_intercept");
  v.quantum_yield = arrays.take(request, "quantum_yield");
  v.co2 = get<float>(request, "co2", "a float");
  v.relative_humidity = get<float>(request, "relative_humidity", "a float");
  v.max_iterations = get<int32_t>(request, "max_iterations", "an int");
  v.tolerance = get<float>(request, "tolerance", "a float");
  return result_dict(scene.execute_photosynthesis_process_static(v), py::ssize_t(v.n_elements));
}

const char* PHOTOSYNTHESIS_STATIC_DOC =
    "Photosynthesis of leaf elements from the spectra they absorbed, at given sunlit and\n"
    "shaded leaf temperatures. Each element is solved twice by the leaf model of\n"
    "solve_physiology_cpu (no energy balance): as a sunlit leaf, which receives the whole\n"
    "direct beam, and as a shaded leaf, which receives the diffuse light alone; the two are\n"
    "weighed by the element's sunlit fraction. The scene is not read.\n"
    "request: dict of\n"
    "  'absorbed_top', 'absorbed_bottom', 'absorbed_direct': float32 (elements, bands),\n"
    "      W m-2 per band absorbed on each side, and the part of their sum that came\n"
    "      straight from the sun; or flat, element-major, with 'n_elements' and 'n_bands'\n"
    "      given (counts given beside 2-D arrays must match their shapes);\n"
    "  'wavelengths': float32 (bands,) nm; only bands in 400..700 nm (inclusive) count as\n"
    "      PAR, converted to umol m-2 s-1 of photons at the band's wavelength;\n"
    "  'sunlit_fraction': float32 (elements,) 0..1;\n"
    "  'temperature_sunlit', 'temperature_shaded': float32 (elements,) K;\n"
    "  'material_ids': int32 (elements,), -1 for none (the element is then inactive);\n"
    "  'material_active', 'material_fluorescent': 0/1 flags (materials,); their length is\n"
    "      the number of materials unless 'n_materials' gives it;\n"
    "  'vcmax25', 'jmax25', 'rd25' umol m-2 s-1 at 25 C, 'ball_berry_slope',\n"
    "      'ball_berry_intercept' mol m-2 s-1, 'quantum_yield' 0..1: float32 (materials,);\n"
    "  'co2' float umol mol-1, 'relative_humidity' float 0..1, 'max_iterations' int and\n"
    "      'tolerance' float (umol mol-1) of the ci iteration.\n"
    "Returns a dict of (elements,) arrays: float32 'temperature' K (blend, set for\n"
    "inactive elements too), 'an' umol m-2 s-1 and 'gs' mol m-2 s-1 (blends), 'phi_f'\n"
    "(blend, 0 for non-fluorescent materials), 'apar' umol m-2 s-1 (total, not a blend),\n"
    "'temperature_sunlit', 'temperature_shaded', 'sunlit_fraction' (as given),\n"
    "'apar_sunlit', 'apar_shaded', 'an_sunlit', 'an_shaded'; bool 'active_mask' and\n"
    "'converged' (both ci solves converged; never raised); and '_execution'.";

}  // namespace

void bind_photosynthesis_static(py::module_& m) {
  m.def(
      "execute_photosynthesis_process_static_cpu",
      [](const EmbreeSceneManager& scene, const py::dict& request) {
        return photosynthesis_static_entry(scene, request,
                                           "execute_photosynthesis_process_static_cpu");
      },
      py::arg("scene"), py::arg("request"), PHOTOSYNTHESIS_STATIC_DOC);
}

void bind_photosynthesis_static_vulkan(py::module_& m) {
  m.def(
      "execute_photosynthesis_process_static_vulkan",
      [](const vulkan::VulkanSceneManager& scene, const py::dict& request) {
        return photosynthesis_static_entry(scene, request,
                                           "execute_photosynthesis_process_static_vulkan");
      },
      py::arg("scene"), py::arg("request"),
      (std::string("execute_photosynthesis_process_static_cpu on the Vulkan device, one compute\n"
                   "invocation per element with both leaves; executor\n"
                   "'vulkan.slang.photosynthesis_process_static'.\n") +
       PHOTOSYNTHESIS_STATIC_DOC)
          .c_str());
}

}  // namespace vesk::module
