// Energy balance on the CPU scene: the reverse transports run_energy_balance_cpu and
// run_energy_balance_multiband_cpu, and the coupled processes
// execute_photosynthesis_process_dynamic_cpu and execute_energy_balance_process_cpu, with
// their twins on the Vulkan scene, which read the same request dictionaries.
#include <optional>
#include <stdexcept>

#include "embree/energy_balance.h"
#include "embree/scene_manager.h"
#include "module/bind_request.h"
#include "module/bind_transport_args.h"
#include "physiology/energy_balance_process.h"
#include "physiology/photosynthesis_dynamic.h"
#include "vulkan/scene_manager.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

namespace {

py::list history_list(const std::vector<float>& history) {
  py::list out;
  for (size_t k = 0; k < history.size(); ++k) {
    py::dict round;
    round["iteration"] = int(k + 1);
    round["max_dT"] = history[k];
    out.append(round);
  }
  return out;
}

// Per-material values spread over the elements by their material ids.
template <class T>
std::vector<T> fan_out(const py::dict& request, const char* key, const std::vector<int32_t>& ids,
                       const char* expected) {
  using Array = py::array_t<T, py::array::c_style | py::array::forcecast>;
  Array per_material;
  if constexpr (std::is_integral_v<T>)
    per_material = get_int_array<T>(request, key, expected);
  else
    per_material = get<Array>(request, key, expected);
  std::vector<T> out(ids.size());
  for (size_t i = 0; i < ids.size(); ++i) {
    if (ids[i] < 0 || ids[i] >= per_material.size())
      throw py::value_error(std::string("primitive_material_ids names a material beyond ") + key);
    out[i] = per_material.data()[ids[i]];
  }
  return out;
}

// The energy-balance process's per-element inputs under the view's names.
constexpr const char* PER_ELEMENT_KEYS[] = {"active",
                                            "initial_temperature",
                                            "emissivity",
                                            "sidedness",
                                            "sensible_derivative",
                                            "latent_coefficient",
                                            "ground_heat",
                                            "sw_albedo"};

template <class T>
backend::Span<T> span_of(const std::vector<T>& v) {
  return {v.data(), v.size()};
}

py::array_t<float> per_element(std::vector<float>&& v) {
  const py::ssize_t n = py::ssize_t(v.size());
  return move_to_numpy(std::move(v), {n});
}
py::array_t<bool> per_element_flags(std::vector<uint8_t>&& v) {
  const py::ssize_t n = py::ssize_t(v.size());
  return move_to_numpy<uint8_t, bool>(std::move(v), {n});
}

// The keys both coupled processes share: the longwave, the fluxes and the loop's record.
template <class Result>
void put_coupled(py::dict& d, Result& r) {
  d["absorbed_longwave_top"] = per_element(std::move(r.absorbed_longwave_top));
  d["absorbed_longwave_bottom"] = per_element(std::move(r.absorbed_longwave_bottom));
  d["absorbed_longwave"] = per_element(std::move(r.absorbed_longwave));
  d["emitted_longwave"] = per_element(std::move(r.emitted_longwave));
  d["net_radiation"] = per_element(std::move(r.net_radiation));
  d["sensible_heat"] = per_element(std::move(r.sensible_heat));
  d["latent_heat"] = per_element(std::move(r.latent_heat));
  d["history"] = history_list(r.history);
  d["active_mask"] = per_element_flags(std::move(r.active_mask));
  d["element_converged"] = per_element_flags(std::move(r.element_converged));
  d["iterations"] = r.iterations;
  d["converged"] = r.converged;
  d["final_max_temperature_change"] = r.final_max_temperature_change;
  d["_execution"] = execution_dict(r.execution);
}

}  // namespace

void bind_energy_balance_transport(py::module_& m) {
  m.def(
      "run_energy_balance_cpu",
      [](const EmbreeSceneManager& scene, int32_t n_samples, int32_t max_depth, int32_t band_type,
         const py::object& sun_irradiance, const py::object& sky_diffuse_radiance,
         float sky_lw_radiance, float sun_dir_x, float sun_dir_y, float sun_dir_z, bool two_sided,
         const py::object& sw_albedos, const py::object&, const py::object&, const py::object&) {
        EnergyBalanceArgs a(n_samples, max_depth, band_type, sun_irradiance, sky_diffuse_radiance,
                            sky_lw_radiance, sun_dir_x, sun_dir_y, sun_dir_z, two_sided,
                            sw_albedos);
        embree::validate_energy_balance(scene, a.request, a.albedos.size());
        embree::EnergyBalanceResult out;
        embree::render_energy_balance(scene, a.request, out);
        return energy_balance_tuple(std::move(out));
      },
      py::arg("scene"), py::arg("n_samples") = 64, py::arg("max_depth") = 8,
      py::arg("band_type") = 0, py::arg("sun_irradiance") = py::none(),
      py::arg("sky_diffuse_radiance") = py::none(), py::arg("sky_lw_radiance") = 0.0f,
      py::arg("sun_dir_x") = 0.0f, py::arg("sun_dir_y") = 0.0f, py::arg("sun_dir_z") = 1.0f,
      py::arg("two_sided") = true, py::arg("sw_albedos") = py::none(),
      py::arg("sw_reflectance") = py::none(), py::arg("sw_back_reflectance") = py::none(),
      py::arg("sw_transmittance") = py::none(),
      "Run the energy balance reverse RT kernel. Returns (top, bot) numpy arrays of length "
      "n_primitives. bot is empty when two_sided=False. sw_albedos: optional "
      "float32[n_primitives] for 2-bounce SW NEE.\n\n"
      "Flux density in W m-2 reaching each primitive from the hemisphere above (top) and\n"
      "below (bot), by n_samples cosine-weighted rays per primitive and side.\n"
      "band_type 0 (shortwave): sun_irradiance W m-2 at normal incidence toward\n"
      "(sun_dir_x, sun_dir_y, sun_dir_z), sky_diffuse_radiance W m-2 sr-1, and light once\n"
      "reflected by primitives of albedo sw_albedos. band_type 1 (longwave): sky_lw_radiance\n"
      "W m-2 sr-1 and the emission e sigma T^4 of the primitives hit, from the scene's\n"
      "per-primitive temperatures and emissivities (0.97 where none are set). max_depth and\n"
      "the split optics are accepted and not read here. Each primitive has its own random\n"
      "stream, so results are the same for any thread count.");

  m.def(
      "run_energy_balance_multiband_cpu",
      [](const EmbreeSceneManager& scene, int32_t n_bands, int32_t n_samples, int32_t max_depth,
         const py::object& sun_irradiance, const py::object& sky_diffuse_radiance,
         const py::object& sky_directional_table, float sun_dir_x, float sun_dir_y, float sun_dir_z,
         bool two_sided, const py::object& sw_albedos, const py::object& sw_reflectance,
         const py::object& sw_back_reflectance, const py::object& sw_transmittance) {
        MultibandEnergyBalanceArgs a(n_bands, n_samples, max_depth, sun_irradiance,
                                     sky_diffuse_radiance, sky_directional_table, sun_dir_x,
                                     sun_dir_y, sun_dir_z, two_sided, sw_albedos, sw_reflectance,
                                     sw_back_reflectance, sw_transmittance);
        embree::validate_energy_balance_multiband(scene, a.request);
        embree::MultibandEnergyBalanceResult out;
        embree::render_energy_balance_multiband(scene, a.request, out);
        return multiband_energy_balance_tuple(std::move(out), n_bands, scene.n_primitives());
      },
      py::arg("scene"), py::arg("n_bands"), py::arg("n_samples") = 64, py::arg("max_depth") = 8,
      py::arg("sun_irradiance") = py::none(), py::arg("sky_diffuse_radiance") = py::none(),
      py::arg("sky_directional_table") = py::none(), py::arg("sun_dir_x") = 0.0f,
      py::arg("sun_dir_y") = 0.0f, py::arg("sun_dir_z") = 1.0f, py::arg("two_sided") = true,
      py::arg("sw_albedos") = py::none(), py::arg("sw_reflectance") = py::none(),
      py::arg("sw_back_reflectance") = py::none(), py::arg("sw_transmittance") = py::none(),
      "Run the multi-band energy-balance reverse-transport kernel. Returns (top, bot, "
      "sunlit_fraction). Spectral arrays have shape [n_bands, n_primitives] and "
      "sunlit_fraction is per primitive. bot is empty when two_sided=False. Split "
      "reflectance/transmittance arrays enable true Mesh multi-scattering; sw_albedos is "
      "retained for legacy callers.\n\n"
      "Up to 64 bands share one random walk per sample and side, scattering at most\n"
      "max_depth times, with the sun added at every event it sees (next-event estimation).\n"
      "sun_irradiance, sky_diffuse_radiance: float32[n_bands], W m-2 and W m-2 sr-1.\n"
      "sky_directional_table: float32[n_bands * 16 * 32] sky radiance, zenith rows by\n"
      "azimuth columns; without it or sky_diffuse_radiance, escaping walks see the\n"
      "scene's own sky. Leaf optics, float32[n_bands * n_primitives] band-major:\n"
      "sw_reflectance (front), sw_back_reflectance, sw_transmittance, all three or none;\n"
      "or sw_albedos, which reflect and never transmit. sunlit_fraction: the share of\n"
      "samples that see the sun, both sides added. Each primitive has its own random\n"
      "stream, so results are the same for any thread count.");
}

namespace {

template <class Scene>
py::dict dynamic_photosynthesis_entry(Scene& scene, const py::dict& request, const char* entry) {
  warn_unread_keys(request,
                   {"n_elements",
                    "active",
                    "fluorescent",
                    "apar",
                    "absorbed_shortwave",
                    "initial_temperature",
                    "emissivity",
                    "sidedness",
                    "leaf_width",
                    "stomata_sides",
                    "vcmax25",
                    "jmax25",
                    "rd25",
                    "ball_berry_slope",
                    "ball_berry_intercept",
                    "quantum_yield",
                    "conditional",
                    "sunlit_fraction",
                    "apar_sunlit",
                    "apar_shaded",
                    "shortwave_sunlit",
                    "shortwave_shaded",
                    "co2",
                    "relative_humidity",
                    "air_temperature",
                    "vapor_pressure",
                    "pressure",
                    "wind",
                    "sky_lw_radiance",
                    "n_samples",
                    "max_iterations",
                    "convergence_tolerance",
                    "damping",
                    "physiology_max_iterations",
                    "physiology_tolerance"},
                   entry);
  RequestArrays a;
  backend::DynamicPhotosynthesisProcessRequestView v;
  v.active = a.take_bytes(request, "active");
  v.n_elements = int32_t(std::min<size_t>(v.active.size, 0x7fffffff));
  RequestCount elements(request, "n_elements");
  if (elements.given && elements.value != int64_t(v.active.size))
    throw py::value_error("request['n_elements'] = " + std::to_string(elements.value) +
                          " does not match active of shape (" +
                          std::to_string(v.active.size) + ",)");
  v.fluorescent = a.take_bytes(request, "fluorescent");
  v.apar = a.take(request, "apar");
  v.absorbed_shortwave = a.take(request, "absorbed_shortwave");
  v.initial_temperature = a.take(request, "initial_temperature");
  v.emissivity = a.take(request, "emissivity");
  v.sidedness = a.take(request, "sidedness");
  v.leaf_width = a.take(request, "leaf_width");
  v.stomata_sides = a.take(request, "stomata_sides");
  v.vcmax25 = a.take(request, "vcmax25");
  v.jmax25 = a.take(request, "jmax25");
  v.rd25 = a.take(request, "rd25");
  v.ball_berry_slope = a.take(request, "ball_berry_slope");
  v.ball_berry_intercept = a.take(request, "ball_berry_intercept");
  v.quantum_yield = a.take(request, "quantum_yield");
  v.conditional = get_or<bool>(request, "conditional", false, "a bool");
  if (v.conditional) {
    v.sunlit_fraction = a.take(request, "sunlit_fraction");
    v.apar_sunlit = a.take(request, "apar_sunlit");
    v.apar_shaded = a.take(request, "apar_shaded");
    v.shortwave_sunlit = a.take(request, "shortwave_sunlit");
    v.shortwave_shaded = a.take(request, "shortwave_shaded");
  }
  v.co2 = get<float>(request, "co2", "a float");
  v.relative_humidity = get<float>(request, "relative_humidity", "a float");
  v.air_temperature = get<float>(request, "air_temperature", "a float");
  v.vapor_pressure = get<float>(request, "vapor_pressure", "a float");
  v.pressure = get<float>(request, "pressure", "a float");
  v.wind = get<float>(request, "wind", "a float");
  v.sky_lw_radiance = get<float>(request, "sky_lw_radiance", "a float");
  v.n_samples = get_or<int32_t>(request, "n_samples", 64, "an int");
  v.max_iterations = get_or<int32_t>(request, "max_iterations", 20, "an int");
  v.convergence_tolerance = get_or<float>(request, "convergence_tolerance", 0.01f, "a float");
  v.damping = get_or<float>(request, "damping", 1.0f, "a float");
  v.physiology_max_iterations =
      get_or<int32_t>(request, "physiology_max_iterations", 50, "an int");
  v.physiology_tolerance = get_or<float>(request, "physiology_tolerance", 1e-3f, "a float");
  backend::DynamicPhotosynthesisResult r = scene.execute_photosynthesis_process_dynamic(v);
  py::dict d;
  d["temperature"] = per_element(std::move(r.temperature));
  d["an"] = per_element(std::move(r.an));
  d["gs"] = per_element(std::move(r.gs));
  d["ci"] = per_element(std::move(r.ci));
  d["phi_f"] = per_element(std::move(r.phi_f));
  d["apar"] = per_element(std::move(r.apar));
  d["temperature_sunlit"] = per_element(std::move(r.temperature_sunlit));
  d["temperature_shaded"] = per_element(std::move(r.temperature_shaded));
  d["sunlit_fraction"] = per_element(std::move(r.sunlit_fraction));
  d["apar_sunlit"] = per_element(std::move(r.apar_sunlit));
  d["apar_shaded"] = per_element(std::move(r.apar_shaded));
  d["an_sunlit"] = per_element(std::move(r.an_sunlit));
  d["an_shaded"] = per_element(std::move(r.an_shaded));
  put_coupled(d, r);
  return d;
}

template <class Scene>
py::dict energy_balance_process_entry(Scene& scene, const py::dict& request, const char* entry) {
  warn_unread_keys(request,
                   {"n_elements",
                    "active",
                    "initial_temperature",
                    "emissivity",
                    "sidedness",
                    "sensible_derivative",
                    "latent_coefficient",
                    "ground_heat",
                    "sw_albedo",
                    "primitive_material_ids",
                    "material_active",
                    "material_initial_temperature",
                    "material_emissivity",
                    "material_sidedness",
                    "material_sensible_derivative",
                    "material_latent_coefficient",
                    "material_ground_heat",
                    "material_sw_albedo",
                    "precomputed_shortwave",
                    "absorbed_shortwave_top",
                    "absorbed_shortwave_bottom",
                    "air_temperature",
                    "vapor_pressure",
                    "sky_lw_radiance",
                    "sw_direct",
                    "sw_diffuse_radiance",
                    "sun_dir_x",
                    "sun_dir_y",
                    "sun_dir_z",
                    "n_samples",
                    "max_iterations",
                    "convergence_tolerance",
                    "damping",
                    "newton_max_iterations",
                    "newton_tolerance"},
                   entry);
  RequestArrays a;
  backend::EnergyBalanceProcessRequestView v;
  // Per material (primitive_material_ids and material_*), or per element under the
  // view's own names; the vectors hold the fanned-out values of the first form.
  std::vector<uint8_t> active;
  std::vector<float> t0, emis, sides, gh, le, g, alb;
  RequestCount elements(request, "n_elements");
  if (request.contains("primitive_material_ids")) {
    for (const char* k : PER_ELEMENT_KEYS)
      if (request.contains(k))
        throw py::value_error(std::string("request['") + k +
                              "'] is per element, but the request gives per-material "
                              "values with primitive_material_ids");
    const backend::IntSpan ids_span = a.take_ints(request, "primitive_material_ids");
    const std::vector<int32_t> ids(ids_span.data, ids_span.data + ids_span.size);
    if (elements.given && elements.value != int64_t(ids.size()))
      throw py::value_error("request['n_elements'] = " + std::to_string(elements.value) +
                            " does not match primitive_material_ids of shape (" +
                            std::to_string(ids.size()) + ",)");
    active = fan_out<uint8_t>(request, "material_active", ids, "an array of 0/1 flags");
    const char* fl = "a float array";
    t0 = fan_out<float>(request, "material_initial_temperature", ids, fl);
    emis = fan_out<float>(request, "material_emissivity", ids, fl);
    sides = fan_out<float>(request, "material_sidedness", ids, fl);
    gh = fan_out<float>(request, "material_sensible_derivative", ids, fl);
    le = fan_out<float>(request, "material_latent_coefficient", ids, fl);
    g = fan_out<float>(request, "material_ground_heat", ids, fl);
    alb = fan_out<float>(request, "material_sw_albedo", ids, fl);
    v.n_elements = int32_t(std::min<size_t>(ids.size(), 0x7fffffff));
    v.active = span_of(active);
    v.initial_temperature = span_of(t0), v.emissivity = span_of(emis);
    v.sidedness = span_of(sides), v.sensible_derivative = span_of(gh);
    v.latent_coefficient = span_of(le), v.ground_heat = span_of(g);
    v.sw_albedo = span_of(alb);
  } else {
    v.active = a.take_bytes(request, "active");
    v.n_elements = elements.given ? elements.get32()
                                  : int32_t(std::min<size_t>(v.active.size, 0x7fffffff));
    v.initial_temperature = a.take(request, "initial_temperature");
    v.emissivity = a.take(request, "emissivity");
    v.sidedness = a.take(request, "sidedness");
    v.sensible_derivative = a.take(request, "sensible_derivative");
    v.latent_coefficient = a.take(request, "latent_coefficient");
    v.ground_heat = a.take(request, "ground_heat");
    v.sw_albedo = a.take(request, "sw_albedo");
  }
  v.precomputed_shortwave = get_or<bool>(request, "precomputed_shortwave", false, "a bool");
  if (v.precomputed_shortwave) {
    v.absorbed_shortwave_top = a.take(request, "absorbed_shortwave_top");
    v.absorbed_shortwave_bottom = a.take(request, "absorbed_shortwave_bottom");
  }
  v.air_temperature = get<float>(request, "air_temperature", "a float");
  v.vapor_pressure = get<float>(request, "vapor_pressure", "a float");
  v.sky_lw_radiance = get<float>(request, "sky_lw_radiance", "a float");
  v.sw_direct = get_or<float>(request, "sw_direct", 0.0f, "a float");
  v.sw_diffuse_radiance = get_or<float>(request, "sw_diffuse_radiance", 0.0f, "a float");
  v.sun_dir_x = get_or<float>(request, "sun_dir_x", 0.0f, "a float");
  v.sun_dir_y = get_or<float>(request, "sun_dir_y", 0.0f, "a float");
  v.sun_dir_z = get_or<float>(request, "sun_dir_z", 1.0f, "a float");
  v.n_samples = get_or<int32_t>(request, "n_samples", 64, "an int");
  v.max_iterations = get_or<int32_t>(request, "max_iterations", 20, "an int");
  v.convergence_tolerance = get_or<float>(request, "convergence_tolerance", 0.01f, "a float");
  v.damping = get_or<float>(request, "damping", 1.0f, "a float");
  v.newton_max_iterations = get_or<int32_t>(request, "newton_max_iterations", 50, "an int");
  v.newton_tolerance = get_or<float>(request, "newton_tolerance", 1e-3f, "a float");
  backend::EnergyBalanceProcessResult r = scene.execute_energy_balance_process(v);
  py::dict d;
  d["temperature"] = per_element(std::move(r.temperature));
  d["absorbed_shortwave_top"] = per_element(std::move(r.absorbed_shortwave_top));
  d["absorbed_shortwave_bottom"] = per_element(std::move(r.absorbed_shortwave_bottom));
  d["absorbed_shortwave"] = per_element(std::move(r.absorbed_shortwave));
  d["ground_heat"] = per_element(std::move(r.ground_heat));
  put_coupled(d, r);
  return d;
}

constexpr const char* DYNAMIC_PHOTOSYNTHESIS_DOC =
      "Leaf temperature and photosynthesis of every scene primitive, coupled through the\n"
      "longwave they exchange: each round runs the longwave transport at the current\n"
      "temperatures, then the leaf solver (Farquhar, Ball-Berry, energy balance by Newton)\n"
      "per element, and moves the temperatures by 'damping' toward the solved ones until\n"
      "they change by less than 'convergence_tolerance' K. The scene must be built; it\n"
      "keeps the emissivities and the coupled temperatures as its per-primitive values.\n"
      "request, one float32 value per primitive unless noted: 'active', 'fluorescent'\n"
      "0/1 flags (inactive elements keep their temperature and report zeros);\n"
      "optional 'n_elements' int, which must equal the length of 'active';\n"
      "'apar' umol m-2 s-1; 'absorbed_shortwave' W m-2; 'initial_temperature' K;\n"
      "'emissivity' 0..1; 'sidedness' 1..2; 'leaf_width' m; 'stomata_sides';\n"
      "'vcmax25', 'jmax25', 'rd25' umol m-2 s-1; 'ball_berry_slope';\n"
      "'ball_berry_intercept' mol m-2 s-1; 'quantum_yield' 0..1. Scalars: 'co2'\n"
      "umol mol-1, 'relative_humidity' 0..1, 'air_temperature' K, 'vapor_pressure' Pa,\n"
      "'pressure' kPa, 'wind' m s-1, 'sky_lw_radiance' W m-2 sr-1; optional 'n_samples'\n"
      "(64), 'max_iterations' (20), 'convergence_tolerance' (0.01 K), 'damping' (1.0),\n"
      "'physiology_max_iterations' (50), 'physiology_tolerance' (1e-3). With 'conditional'\n"
      "True, also 'sunlit_fraction', 'apar_sunlit', 'apar_shaded', 'shortwave_sunlit',\n"
      "'shortwave_shaded': the result is then the blend f * sunlit + (1 - f) * shaded of two\n"
      "leaf solves at the coupled temperature. Returns per-element 'temperature' K, 'an'\n"
      "umol m-2 s-1, 'gs' mol m-2 s-1, 'ci', 'phi_f', 'apar', 'active_mask',\n"
      "'element_converged', the branch arrays (empty unless conditional),\n"
      "'absorbed_longwave_top', '_bottom', 'absorbed_longwave', 'emitted_longwave',\n"
      "'net_radiation', 'sensible_heat', 'latent_heat' W m-2, 'history' (per round\n"
      "{'iteration', 'max_dT'}), 'iterations', 'converged', 'final_max_temperature_change'\n"
      "and '_execution'. Non-convergence is reported, never raised.";

constexpr const char* ENERGY_BALANCE_PROCESS_DOC =
      "Steady surface temperature of every scene primitive with fixed exchange\n"
      "coefficients, the primitives trading longwave with each other and the sky. Per\n"
      "element, Newton on Rabs - e s sigma T^4 - Gh (T - Ta) - C (es(T) - ea) - G = 0, inside\n"
      "a coupling loop that reruns the longwave transport at the current temperatures.\n"
      "The scene must be built; it keeps the emissivities and the final temperatures as\n"
      "its per-primitive values. request: 'primitive_material_ids' int32 per primitive\n"
      "(optional 'n_elements' must equal its length),\n"
      "and per material 'material_active' 0/1, 'material_initial_temperature' K,\n"
      "'material_emissivity' 0..1, 'material_sidedness' 1..2 (above 1 the underside takes\n"
      "in radiation too), 'material_sensible_derivative' W m-2 K-1 (Gh),\n"
      "'material_latent_coefficient' W m-2 Pa-1 (C), 'material_ground_heat' W m-2 (G, a\n"
      "sink), 'material_sw_albedo' 0..1; or, without 'primitive_material_ids', the same\n"
      "per primitive as 'active', 'initial_temperature', 'emissivity', 'sidedness',\n"
      "'sensible_derivative', 'latent_coefficient', 'ground_heat', 'sw_albedo' (with an\n"
      "optional 'n_elements' that their lengths must match). Scalars 'air_temperature' K,\n"
      "'vapor_pressure' Pa,\n"
      "'sky_lw_radiance' W m-2 sr-1; optional 'sw_direct' W m-2 (0), 'sw_diffuse_radiance'\n"
      "W m-2 sr-1 (0), 'sun_dir_x', 'sun_dir_y', 'sun_dir_z' toward the sun (0, 0, 1),\n"
      "'n_samples' (64), 'max_iterations' (20), 'convergence_tolerance' K (0.01), 'damping'\n"
      "(1.0), 'newton_max_iterations' (50), 'newton_tolerance' K (1e-3), and\n"
      "'precomputed_shortwave' (False) with 'absorbed_shortwave_top' and '_bottom' per\n"
      "primitive in place of the shortwave transport. Returns per-primitive float32\n"
      "'temperature', the absorbed short- and longwave (top, bottom, sum), 'emitted_longwave',\n"
      "'net_radiation', 'sensible_heat', 'latent_heat', 'ground_heat' W m-2, bool\n"
      "'active_mask' and 'element_converged', 'history' (per round {'iteration', 'max_dT'}),\n"
      "'iterations', 'converged', 'final_max_temperature_change' and '_execution'.";

}  // namespace

void bind_energy_balance_processes(py::module_& m) {
  m.def(
      "execute_photosynthesis_process_dynamic_cpu",
      [](EmbreeSceneManager& scene, const py::dict& request) {
        return dynamic_photosynthesis_entry(scene, request,
                                            "execute_photosynthesis_process_dynamic_cpu");
      },
      py::arg("scene"), py::arg("request"), DYNAMIC_PHOTOSYNTHESIS_DOC);
  m.def(
      "execute_energy_balance_process_cpu",
      [](EmbreeSceneManager& scene, const py::dict& request) {
        return energy_balance_process_entry(scene, request, "execute_energy_balance_process_cpu");
      },
      py::arg("scene"), py::arg("request"), ENERGY_BALANCE_PROCESS_DOC);
}

void bind_energy_balance_processes_vulkan(py::module_& m) {
  m.def(
      "execute_photosynthesis_process_dynamic_vulkan",
      [](vulkan::VulkanSceneManager& scene, const py::dict& request) {
        return dynamic_photosynthesis_entry(scene, request,
                                            "execute_photosynthesis_process_dynamic_vulkan");
      },
      py::arg("scene"), py::arg("request"),
      (std::string("execute_photosynthesis_process_dynamic_cpu on the Vulkan scene: the same\n"
                   "coupling loop on the host, with the longwave transport of\n"
                   "run_energy_balance_gpu and the leaf solves of solve_physiology_vulkan, one\n"
                   "device workspace for all rounds; executor\n"
                   "'vulkan.slang.photosynthesis_process_dynamic'.\n") +
       DYNAMIC_PHOTOSYNTHESIS_DOC)
          .c_str());
  m.def(
      "execute_energy_balance_process_vulkan",
      [](vulkan::VulkanSceneManager& scene, const py::dict& request) {
        return energy_balance_process_entry(scene, request,
                                            "execute_energy_balance_process_vulkan");
      },
      py::arg("scene"), py::arg("request"),
      (std::string("execute_energy_balance_process_cpu on the Vulkan scene: the same coupling\n"
                   "loop and Newton solve on the host, with the shortwave and longwave\n"
                   "transports of run_energy_balance_gpu; executor\n"
                   "'vulkan.slang.energy_balance_process'.\n") +
       ENERGY_BALANCE_PROCESS_DOC)
          .c_str());
}

}  // namespace vesk::module
