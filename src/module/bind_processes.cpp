// Process entries on the CPU scene: solve_physiology_cpu, then the photosynthesis,
// energy-balance and SIF processes in their documented order.
#include "embree/scene_manager.h"
#include "module/bind_common.h"
#include "module/bind_request.h"
#include "physiology/leaf_solver.h"
#include "vulkan/scene_manager.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

namespace {

// The dictionary form of both backends: the request read into the view, the scene's
// solver run, the result moved into NumPy.
template <class Scene>
py::dict solve_physiology_entry(const Scene& scene, const py::dict& request, const char* name) {
  warn_unread_keys(request,
                   {"n_elements",
                    "n_bands",
                    "apar",
                    "temperature",
                    "co2",
                    "relative_humidity",
                    "vpd",
                    "pressure",
                    "wind",
                    "vcmax25",
                    "jmax25",
                    "rd25",
                    "ball_berry_slope",
                    "ball_berry_intercept",
                    "quantum_yield",
                    "max_iterations",
                    "tolerance",
                    "dynamic_energy_balance",
                    "absorbed_shortwave",
                    "absorbed_longwave",
                    "air_temperature",
                    "vapor_pressure",
                    "emissivity",
                    "sidedness",
                    "leaf_width",
                    "stomata_sides",
                    "solve_leaf_temperature",
                    "read_back_outputs"},
                   name);
  RequestArrays arrays;
  const FloatArray apar = get<FloatArray>(request, "apar", "a float array");
  const FloatArray temperature = get<FloatArray>(request, "temperature", "a float array");
  if (apar.ndim() != 2) throw std::runtime_error("apar must have shape [element, band]");
  // The counts are the view's own fields; given, they must agree with apar.
  RequestCount elements(request, "n_elements"), bands(request, "n_bands");
  elements.agree(apar, 0, "apar");
  bands.agree(apar, 1, "apar");
  if (temperature.ndim() != 1 || temperature.shape(0) != apar.shape(0))
    throw std::runtime_error("temperature must have shape [element] matching apar");
  backend::PhysiologyRequestView v;
  v.n_elements = int32_t(apar.shape(0));
  v.n_bands = int32_t(apar.shape(1));
  v.apar = {apar.data(), size_t(apar.size())};
  v.temperature = {temperature.data(), size_t(temperature.size())};
  v.co2 = arrays.take(request, "co2");
  v.relative_humidity = arrays.take(request, "relative_humidity");
  v.vpd = arrays.take(request, "vpd");
  v.pressure = arrays.take(request, "pressure");
  v.wind = arrays.take(request, "wind");
  v.vcmax25 = arrays.take(request, "vcmax25");
  v.jmax25 = arrays.take(request, "jmax25");
  v.rd25 = arrays.take(request, "rd25");
  v.ball_berry_slope = arrays.take(request, "ball_berry_slope");
  v.ball_berry_intercept = arrays.take(request, "ball_berry_intercept");
  v.quantum_yield = arrays.take(request, "quantum_yield");
  v.max_iterations = get<int32_t>(request, "max_iterations", "an int");
  v.tolerance = get<float>(request, "tolerance", "a float");
  v.dynamic_energy_balance = request.contains("dynamic_energy_balance") &&
                             get<bool>(request, "dynamic_energy_balance", "a bool");
  // The dictionary form always solves for the leaf temperature and reads every output
  // back (on the host every output is always filled); the keys are accepted and
  // change nothing.
  if (request.contains("solve_leaf_temperature"))
    get<bool>(request, "solve_leaf_temperature", "a bool");
  v.solve_leaf_temperature = true;
  if (request.contains("read_back_outputs")) get<bool>(request, "read_back_outputs", "a bool");
  v.read_back_outputs = true;
  if (v.dynamic_energy_balance) {
    v.absorbed_shortwave = arrays.take(request, "absorbed_shortwave");
    v.absorbed_longwave = arrays.take(request, "absorbed_longwave");
    v.air_temperature = arrays.take(request, "air_temperature");
    v.vapor_pressure = arrays.take(request, "vapor_pressure");
    v.emissivity = arrays.take(request, "emissivity");
    v.sidedness = arrays.take(request, "sidedness");
    v.leaf_width = arrays.take(request, "leaf_width");
    v.stomata_sides = arrays.take(request, "stomata_sides");
  }
  backend::PhysiologyResult r = scene.solve_physiology(v);
  const std::vector<py::ssize_t> shape{py::ssize_t(v.n_elements)};
  py::dict d;
  d["an"] = move_to_numpy(std::move(r.an), shape);
  d["gs"] = move_to_numpy(std::move(r.gs), shape);
  d["ci"] = move_to_numpy(std::move(r.ci), shape);
  d["phi_f"] = move_to_numpy(std::move(r.phi_f), shape);
  // One byte of 0 or 1 per element is exactly NumPy's bool.
  d["converged"] = move_to_numpy<uint8_t, bool>(std::move(r.converged), shape);
  if (v.dynamic_energy_balance) {
    d["temperature"] = move_to_numpy(std::move(r.temperature), shape);
    d["net_radiation"] = move_to_numpy(std::move(r.net_radiation), shape);
    d["sensible_heat"] = move_to_numpy(std::move(r.sensible_heat), shape);
    d["latent_heat"] = move_to_numpy(std::move(r.latent_heat), shape);
  }
  d["_execution"] = execution_dict(r.execution);
  return d;
}

const char* PHYSIOLOGY_DOC =
    "Leaf physiology per element: Farquhar photosynthesis, Ball-Berry stomata, a\n"
    "fluorescence yield and, with 'dynamic_energy_balance', the leaf temperature from a\n"
    "one-leaf energy balance (Newton). request: dict of float32 arrays, one value per\n"
    "element unless noted: 'apar' (elements, bands) absorbed PAR, umol m-2 s-1, summed\n"
    "over bands; 'temperature' (elements,) K; 'co2' umol mol-1; 'relative_humidity' 0..1;\n"
    "'vpd'; 'pressure' kPa; 'wind' m s-1; 'vcmax25', 'jmax25', 'rd25' umol m-2 s-1 at\n"
    "25 C; 'ball_berry_slope'; 'ball_berry_intercept' mol m-2 s-1; 'quantum_yield' 0..1;\n"
    "'max_iterations' int and 'tolerance' float shared by the ci and temperature\n"
    "iterations; optional 'dynamic_energy_balance' bool, which needs\n"
    "'absorbed_shortwave', 'absorbed_longwave' W m-2, 'air_temperature' K,\n"
    "'vapor_pressure' Pa, 'emissivity', 'sidedness', 'leaf_width' m, 'stomata_sides',\n"
    "with the leaf temperature solved by Newton. Optional 'n_elements', 'n_bands' must\n"
    "match apar's shape; 'solve_leaf_temperature' and 'read_back_outputs' are accepted\n"
    "and change nothing here (this form always solves and reads everything back).\n"
    "Returns float32 'an' umol m-2 s-1, 'gs' mol m-2 s-1, 'ci' umol mol-1, 'phi_f', bool\n"
    "'converged' (non-convergence is reported here, never raised), with the energy\n"
    "balance also 'temperature' K, 'net_radiation', 'sensible_heat', 'latent_heat'\n"
    "W m-2, and '_execution'.";

}  // namespace

void bind_processes(py::module_& m) {
  m.def(
      "solve_physiology_cpu",
      [](const EmbreeSceneManager& scene, const py::dict& request) {
        return solve_physiology_entry(scene, request, "solve_physiology_cpu");
      },
      py::arg("scene"), py::arg("request"), PHYSIOLOGY_DOC);
  bind_photosynthesis_static(m);
  bind_energy_balance_processes(m);
  bind_sif_processes(m);
}

void bind_processes_vulkan(py::module_& m) {
  m.def(
      "solve_physiology_vulkan",
      [](const vulkan::VulkanSceneManager& scene, const py::dict& request) {
        return solve_physiology_entry(scene, request, "solve_physiology_vulkan");
      },
      py::arg("scene"), py::arg("request"),
      (std::string("solve_physiology_cpu on the Vulkan device: one compute invocation per\n"
                   "element, the same float operations in the same order (bit-equal where the\n"
                   "device rounds division and square root as IEEE 754 does, as lavapipe\n"
                   "does); executor 'vulkan.slang.physiology_solver'. The scene's device\n"
                   "workspace is kept for the next call of the same shape.\n") +
       PHYSIOLOGY_DOC)
          .c_str());
  bind_photosynthesis_static_vulkan(m);
  bind_energy_balance_processes_vulkan(m);
  bind_sif_processes_vulkan(m);
}

}  // namespace vesk::module
