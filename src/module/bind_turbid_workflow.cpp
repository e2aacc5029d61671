// The Turbid workflow on the CPU scene: radiation states, physiology on them, fields,
// thermal and SIF sources for images, and the leaf longwave transport. Tokens travel as
// dicts of their fields.
#include <stdexcept>

#include "embree/scene_manager.h"
#include "embree/turbid_workflow.h"
#include "module/bind_common.h"
#include "module/bind_request.h"
#include "turbid/domain.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;
namespace tb = vesk::turbid;
namespace eb = vesk::embree;

namespace {

constexpr const char* REVISION_KEYS[] = {
    "workflow_revision",     "domain_revision",   "transport_revision",
    "geometry_revision",     "property_revision", "illumination_revision",
    "microclimate_revision", "sampling_revision", "state_revision"};

py::dict token_dict(const tb::TurbidStateToken& t) {
  py::dict d;
  d["token_id"] = t.token_id;
  d["domain_id"] = t.domain_id;
  d["workflow_stage"] = int(t.workflow_stage);
  const uint64_t values[] = {t.workflow_revision,     t.domain_revision,   t.transport_revision,
                             t.geometry_revision,     t.property_revision, t.illumination_revision,
                             t.microclimate_revision, t.sampling_revision, t.state_revision};
  for (size_t i = 0; i < 9; ++i) d[REVISION_KEYS[i]] = values[i];
  return d;
}

py::dict as_token_dict(const py::dict& request, const char* key) {
  if (!request.contains(key))
    throw py::key_error(std::string("request is missing the key '") + key + "'");
  const py::object o = request[key];
  if (!py::isinstance<py::dict>(o))
    throw py::type_error(std::string("request['") + key + "'] must be a token dict");
  return py::reinterpret_borrow<py::dict>(o);
}

tb::TurbidStateToken parse_token(const py::dict& d) {
  tb::TurbidStateToken t;
  t.token_id = get<uint64_t>(d, "token_id", "an int");
  t.domain_id = get<uint64_t>(d, "domain_id", "an int");
  const uint64_t stage = get<uint64_t>(d, "workflow_stage", "an int");
  if (stage > tb::STAGE_LAST) throw std::invalid_argument("reserved Turbid workflow stage");
  t.workflow_stage = uint8_t(stage);
  uint64_t* fields[] = {&t.workflow_revision,     &t.domain_revision,   &t.transport_revision,
                        &t.geometry_revision,     &t.property_revision, &t.illumination_revision,
                        &t.microclimate_revision, &t.sampling_revision, &t.state_revision};
  for (size_t i = 0; i < 9; ++i) *fields[i] = get<uint64_t>(d, REVISION_KEYS[i], "an int");
  return t;
}

backend::TurbidFieldToken parse_field_token(const py::dict& d) {
  return {parse_token(as_token_dict(d, "state")), get<uint64_t>(d, "field_revision", "an int")};
}

py::dict field_token_dict(const backend::TurbidFieldToken& f) {
  py::dict d;
  d["state"] = token_dict(f.state);
  d["field_revision"] = f.field_revision;
  return d;
}

py::array_t<float> rows(const std::vector<float>& v, py::ssize_t n, py::ssize_t cols) {
  return to_numpy(v, {n, cols});
}

py::dict state_arrays(const tb::TurbidStateRecord& s) {
  const py::ssize_t n = s.n_samples, b = s.n_bands;
  py::dict d;
  d["state"] = token_dict(s.token);
  d["band_wavelengths"] = to_numpy(s.band_wavelengths);
  d["band_widths"] = to_numpy(s.band_widths);
  d["absorbed_top"] = rows(s.absorbed_top, n, b);
  d["absorbed_bottom"] = rows(s.absorbed_bottom, n, b);
  d["absorbed_direct_sunlit"] = rows(s.absorbed_direct_sunlit, n, b);
  for (const auto& [key, v] : {std::pair<const char*, const std::vector<float>*>{
                                   "sunlit_probability", &s.sunlit_probability},
                               {"direct_share", &s.direct_share},
                               {"apar", &s.apar},
                               {"apar_sunlit", &s.apar_sunlit},
                               {"apar_shaded", &s.apar_shaded},
                               {"shortwave_sunlit", &s.shortwave_sunlit},
                               {"shortwave_shaded", &s.shortwave_shaded},
                               {"an", &s.an},
                               {"gs", &s.gs},
                               {"phi_f", &s.phi_f},
                               {"temperature", &s.temperature},
                               {"an_sunlit", &s.an_sunlit},
                               {"an_shaded", &s.an_shaded},
                               {"gs_sunlit", &s.gs_sunlit},
                               {"gs_shaded", &s.gs_shaded},
                               {"phi_f_sunlit", &s.phi_f_sunlit},
                               {"phi_f_shaded", &s.phi_f_shaded},
                               {"temperature_sunlit", &s.temperature_sunlit},
                               {"temperature_shaded", &s.temperature_shaded},
                               {"emissivity", &s.emissivity},
                               {"absorbed_longwave", &s.absorbed_longwave},
                               {"net_radiation", &s.net_radiation},
                               {"sensible_heat", &s.sensible_heat},
                               {"latent_heat", &s.latent_heat}})
    if (!v->empty()) d[key] = to_numpy(*v);
  if (!s.converged.empty()) {
    py::array_t<bool> c(n);
    for (py::ssize_t i = 0; i < n; ++i) c.mutable_data()[i] = s.converged[size_t(i)] != 0;
    d["converged"] = c;
  }
  return d;
}

py::dict execution(uint8_t workflow, const char* executor) {
  ExecutionRecord r;
  r.backend = BACKEND_EMBREE, r.workflow = workflow, r.executor = executor;
  return execution_dict(r);
}

// A per-sample float array: one number broadcast, or an array (its length is the
// validator's to check). `fallback` < 0 means required.
struct PerSample {
  std::vector<std::vector<float>> keep;
  backend::FloatSpan take(const py::dict& d, const char* key, size_t n, double fallback = -1.0) {
    std::vector<float> v;
    if (!d.contains(key)) {
      if (fallback < 0.0)
        throw py::key_error(std::string("request is missing the key '") + key + "'");
      v.assign(n, float(fallback));
    } else if (py::isinstance<py::float_>(d[key]) || py::isinstance<py::int_>(d[key])) {
      v.assign(n, get<float>(d, key, "a float or a float array"));
    } else {
      v = to_vector(get<FloatArray>(d, key, "a float or a float array"));
    }
    keep.push_back(std::move(v));
    return {keep.back().data(), keep.back().size()};
  }
};

void grid_of(const py::dict& d, int32_t dims[3], int32_t& theta, int32_t& phi) {
  const std::vector<int32_t> g =
      get_or<std::vector<int32_t>>(d, "grid_dims", {4, 4, 4}, "three ints");
  if (g.size() != 3) throw py::value_error("request['grid_dims'] must hold three ints");
  std::copy(g.begin(), g.end(), dims);
  theta = get_or<int32_t>(d, "theta_bins", 4, "an int");
  phi = get_or<int32_t>(d, "phi_bins", 8, "an int");
}

}  // namespace

void bind_turbid_workflow(py::module_& m) {
  m.def(
      "_build_turbid_state_embree",
      [](EmbreeSceneManager& scene, const py::dict& request) {
        warn_unread_keys(
            request, {"domain_id", "rays_per_side", "max_depth", "seed", "threads", "band_widths"},
            "_build_turbid_state_embree");
        eb::TurbidRadiationRequestView v;
        const uint64_t domain = get<uint64_t>(request, "domain_id", "an int");
        v.rays_per_side = get_or<int32_t>(request, "rays_per_side", 32, "an int");
        v.max_depth = get_or<int32_t>(request, "max_depth", 8, "an int");
        v.seed = get_or<uint64_t>(request, "seed", 0, "an int");
        v.threads = get_or<int32_t>(request, "threads", 0, "an int");
        FloatArray widths;
        if (request.contains("band_widths")) {
          widths = get<FloatArray>(request, "band_widths", "a float array");
          v.band_widths = {widths.data(), size_t(widths.size())};
        }
        const tb::TurbidStateToken t = eb::build_turbid_state(scene, domain, v);
        py::dict out = state_arrays(eb::check_turbid_state(scene, t, 1, tb::STAGE_LAST));
        out["_execution"] = execution(WORKFLOW_TURBID_STATE, "embree.cpu.turbid_state");
        return out;
      },
      py::arg("scene"), py::arg("request"),
      "Radiation state of a committed Turbid domain under the scene's sun and sky (stage 1).\n"
      "request: 'domain_id'; 'rays_per_side' (32) diffuse reverse rays per leaf side;\n"
      "'max_depth' (8) scattering events per ray; 'seed' (0); 'threads' (0: all);\n"
      "'band_widths' (b,) nm when the scene's spectra are per nm (default: per band).\n"
      "Estimator: the sunlit probability is the transmittance to the sun through media and\n"
      "mesh (Beer-Lambert, computed); a sunlit leaf absorbs E_sun |n.s| (1 - R - T) on the\n"
      "side facing the sun; the diffuse irradiance of each side is pi x the mean radiance\n"
      "of cosine-weighted reverse paths (sky at escape, sun by next-event estimation with\n"
      "the hot-spot at the first event). Returns {'state': token dict, 'band_wavelengths'\n"
      "(b,) nm, 'band_widths' (b,) nm, 'absorbed_top', 'absorbed_bottom' (n, b) float32\n"
      "expected absorbed per m2 of leaf in the sun spectrum's units,\n"
      "'absorbed_direct_sunlit' (n, b) the direct beam a sunlit leaf absorbs,\n"
      "'sunlit_probability', 'direct_share' (n,) 0..1, 'apar', 'apar_sunlit', 'apar_shaded'\n"
      "(n,) umol m-2 s-1, 'shortwave_sunlit', 'shortwave_shaded' (n,) W m-2\n"
      "summed over bands, '_execution'}. Samples are in the domain's order.");

  m.def(
      "_turbid_state_arrays_embree",
      [](EmbreeSceneManager& scene, const py::dict& token) {
        return state_arrays(eb::check_turbid_state(scene, parse_token(token), 1, tb::STAGE_LAST));
      },
      py::arg("scene"), py::arg("state"),
      "The arrays of a held, current state (any stage) by its token dict, as the entry\n"
      "that made it returned them. A stale token raises RuntimeError.");

  m.def(
      "_solve_turbid_physiology_embree",
      [](EmbreeSceneManager& scene, const py::dict& request) {
        const tb::TurbidStateToken token = parse_token(as_token_dict(request, "state"));
        const tb::TurbidStateRecord& rad = eb::check_turbid_state(scene, token, 1, 1);
        const size_t n = size_t(rad.n_samples);
        PerSample keep;
        tb::TurbidPhysiologyRequestView v;
        v.n_samples = rad.n_samples;
        const bool has_t = request.contains("temperature");
        v.temperature_sunlit = keep.take(
            request,
            has_t && !request.contains("temperature_sunlit") ? "temperature" : "temperature_sunlit",
            n);
        v.temperature_shaded = keep.take(
            request,
            has_t && !request.contains("temperature_shaded") ? "temperature" : "temperature_shaded",
            n);
        v.co2 = keep.take(request, "co2", n);
        v.relative_humidity = keep.take(request, "relative_humidity", n);
        v.pressure = keep.take(request, "pressure", n, 101.325);
        v.wind = keep.take(request, "wind", n, 1.0);
        v.vcmax25 = keep.take(request, "vcmax25", n);
        v.jmax25 = keep.take(request, "jmax25", n);
        v.rd25 = keep.take(request, "rd25", n);
        v.ball_berry_slope = keep.take(request, "ball_berry_slope", n);
        v.ball_berry_intercept = keep.take(request, "ball_berry_intercept", n);
        v.quantum_yield = keep.take(request, "quantum_yield", n, 0.03);
        v.emissivity = keep.take(request, "emissivity", n, 0.98);
        v.energy_balance = get_or<bool>(request, "energy_balance", false, "a bool");
        if (v.energy_balance) {
          v.absorbed_longwave = keep.take(request, "absorbed_longwave", n);
          v.air_temperature = keep.take(request, "air_temperature", n);
          v.vapor_pressure = keep.take(request, "vapor_pressure", n);
          v.sidedness = keep.take(request, "sidedness", n, 2.0);
          v.leaf_width = keep.take(request, "leaf_width", n, 0.05);
          v.stomata_sides = keep.take(request, "stomata_sides", n, 1.0);
        }
        v.max_iterations = get_or<int32_t>(request, "max_iterations", 100, "an int");
        v.tolerance = get_or<float>(request, "tolerance", 1e-3f, "a float");
        const tb::TurbidStateToken next = eb::build_turbid_physiology_state(scene, token, v);
        py::dict out = state_arrays(eb::check_turbid_state(scene, next, 2, tb::STAGE_LAST));
        out["_execution"] = execution(WORKFLOW_TURBID_STATE, "embree.cpu.turbid_physiology");
        return out;
      },
      py::arg("scene"), py::arg("request"),
      "Physiology on a radiation state (stage 1 in; stage 2 out, or 3 with the energy\n"
      "balance). Every sample is a sunlit and a shaded leaf, solved by the leaf solver\n"
      "(solve_physiology_cpu) with the state's apar_sunlit / apar_shaded and blended by the\n"
      "sunlit probability. request: 'state' (token dict); per sample, one number or an (n,)\n"
      "float array: 'temperature' (K, both branches) or 'temperature_sunlit' and\n"
      "'temperature_shaded', 'co2' umol mol-1, 'relative_humidity' 0..1, 'pressure' kPa\n"
      "(101.325), 'wind' m s-1 (1), 'vcmax25', 'jmax25', 'rd25' umol m-2 s-1,\n"
      "'ball_berry_slope', 'ball_berry_intercept' mol m-2 s-1, 'quantum_yield' (0.03),\n"
      "'emissivity' (0.98); 'energy_balance' (False): then the branch temperatures are\n"
      "solved (the given ones are first guesses) from the branch shortwave plus\n"
      "'absorbed_longwave' W m-2, with 'air_temperature' K, 'vapor_pressure' Pa,\n"
      "'sidedness' (2), 'leaf_width' m (0.05), 'stomata_sides' (1); 'max_iterations' (100),\n"
      "'tolerance' (1e-3). Returns the state arrays with 'an', 'gs', 'phi_f',\n"
      "'temperature' and their '_sunlit' / '_shaded' branches, 'converged', and with the\n"
      "energy balance 'net_radiation', 'sensible_heat', 'latent_heat' (W m-2).");

  m.def(
      "_build_turbid_field_embree",
      [](EmbreeSceneManager& scene, const py::dict& request) {
        int32_t dims[3], theta, phi;
        grid_of(request, dims, theta, phi);
        const backend::TurbidFieldToken t = eb::build_turbid_field(
            scene, parse_token(as_token_dict(request, "state")), dims, theta, phi);
        const tb::TurbidFieldRecord& f = eb::check_turbid_field(scene, t);
        py::dict out;
        out["field"] = field_token_dict(t);
        py::list names;
        for (const char* q : f.quantities) names.append(q);
        out["quantities"] = names;
        const py::ssize_t K = f.n_owners, C = f.cell_stride,
                          B = py::ssize_t(f.theta_bins) * f.phi_bins, Q = f.n_quantities;
        out["spatial"] = to_numpy(f.spatial, {K, C, Q});
        out["orientation"] = to_numpy(f.orientation, {K, B, Q});
        out["joint"] = to_numpy(f.joint, {K, C, B, Q});
        out["leaf_area"] = to_numpy(f.leaf_area, {K, C});
        std::vector<int32_t> counts(f.joint_counts.begin(), f.joint_counts.end());
        out["joint_counts"] = to_numpy(counts);
        out["grid_dims"] = to_numpy(f.grid_dims);
        out["bounds_min"] = to_numpy(f.bounds_min, {K, 3});
        out["bounds_max"] = to_numpy(f.bounds_max, {K, 3});
        return out;
      },
      py::arg("scene"), py::arg("request"),
      "Aggregates a current state (any stage) over each owner's volume and leaf\n"
      "orientation into a field token. request: 'state' (token dict), 'grid_dims' ([4, 4,\n"
      "4]) cells over each owner's sample box, 'theta_bins' (4), 'phi_bins' (8) leaf-normal\n"
      "bins (the SIF source tables' cell and bin rules). Returns {'field': token dict\n"
      "{'state', 'field_revision'}, 'quantities' (names of the last axis), 'spatial'\n"
      "(owners, cells, q), 'orientation' (owners, bins, q), 'joint' (owners, cells, bins,\n"
      "q) float32 leaf-area-weighted means (0 where empty), 'leaf_area' (owners, cells) m2,\n"
      "'joint_counts', 'grid_dims', 'bounds_min', 'bounds_max'}.");

  m.def(
      "_check_turbid_field_embree",
      [](EmbreeSceneManager& scene, const py::dict& field) {
        return field_token_dict(eb::check_turbid_field(scene, parse_field_token(field)).token);
      },
      py::arg("scene"), py::arg("field"),
      "Returns the field token if it is held and its state current; else RuntimeError.");

  m.def(
      "_build_turbid_thermal_source_embree",
      [](EmbreeSceneManager& scene, const py::dict& request) {
        const scene::InstanceTurbidThermalState s =
            eb::build_turbid_thermal_source(scene, parse_token(as_token_dict(request, "state")),
                                            get_or<bool>(request, "apply", true, "a bool"));
        py::dict out;
        out["temperature_sunlit"] = to_numpy(s.temperature_sunlit);
        out["temperature_shaded"] = to_numpy(s.temperature_shaded);
        out["sunlit_fraction"] = to_numpy(s.sunlit_fraction);
        out["emissivity"] = to_numpy(s.emissivity);
        return out;
      },
      py::arg("scene"), py::arg("request"),
      "Per-instance conditional thermal state from a state of stage 2 or 3: for each\n"
      "owner's instance the radiometric mean temperature (sum w T^4 / sum w)^(1/4) of its\n"
      "sunlit leaves (w = leaf area x sunlit probability) and of its shaded ones, the\n"
      "sunlit fraction and the mean emissivity; 0 for other instances. request: 'state',\n"
      "'apply' (True: set_instance_turbid_thermal_state on the scene). Returns the four\n"
      "(num_instances,) float32 arrays that setter takes.");

  m.def(
      "_build_turbid_sif_source_embree",
      [](EmbreeSceneManager& scene, const py::dict& request) {
        int32_t dims[3], theta, phi;
        grid_of(request, dims, theta, phi);
        const eb::TurbidSifSource s =
            eb::build_turbid_sif_source(scene, parse_token(as_token_dict(request, "state")), dims,
                                        theta, phi, get_or<bool>(request, "apply", true, "a bool"));
        const py::ssize_t b = s.fields.n_sif_bands, n = py::ssize_t(s.samples.photons.size());
        py::dict out;
        out["sample_shaded"] = to_numpy(s.samples.shaded, {b, n});
        out["sample_extra_sunlit"] = to_numpy(s.samples.extra_sunlit, {b, n});
        std::vector<float> photons(s.samples.photons.begin(), s.samples.photons.end());
        out["sample_photons"] = to_numpy(photons);
        std::vector<float> power(s.emitted_power.begin(), s.emitted_power.end());
        out["emitted_power"] = to_numpy(power);
        out["spatial_spectra"] = to_numpy(s.fields.spatial_spectra);
        out["orientation_spectra"] = to_numpy(s.fields.orientation_spectra);
        out["joint_spectra"] = to_numpy(s.fields.joint_spectra);
        out["direct_joint_spectra"] = to_numpy(s.fields.direct_joint_spectra);
        std::vector<int32_t> counts(s.joint_counts.begin(), s.joint_counts.end());
        out["joint_counts"] = to_numpy(counts);
        out["bounds_min"] = to_numpy(s.fields.bounds_min);
        out["bounds_max"] = to_numpy(s.fields.bounds_max);
        out["grid_dims"] = to_numpy(s.fields.grid_dims);
        out["n_sif_bands"] = s.fields.n_sif_bands;
        out["spatial_cell_stride"] = s.fields.spatial_cell_stride;
        out["orientation_theta_bins"] = s.fields.orientation_theta_bins;
        out["orientation_phi_bins"] = s.fields.orientation_phi_bins;
        return out;
      },
      py::arg("scene"), py::arg("request"),
      "Fluorescence of a state of stage 2 or 3 as the per-instance SIF source tables of\n"
      "set_instance_sif_source_fields, at the scene's bands. Per sample, photons emitted =\n"
      "phi_f x absorbed PAR photons per branch, spread by the leaf emission shape (685 and\n"
      "740 nm) and emitted half through each Lambertian side: 'sample_shaded' (b, n) is the\n"
      "shaded leaf's radiance W m-2 sr-1 nm-1 and 'sample_extra_sunlit' (b, n) what a\n"
      "sunlit leaf adds (the tracer weights it by the sun's visibility at the leaf).\n"
      "Both are binned by assemble_sif_source_cpu over each owner instance's world box.\n"
      "request: 'state', 'grid_dims' ([4, 4, 4]), 'theta_bins' (4), 'phi_bins' (8),\n"
      "'apply' (True: set on the scene). Returns the sample spectra, 'sample_photons' (n,)\n"
      "umol m-2 s-1, 'emitted_power' (b,) W nm-1 of all samples (both sides, expected),\n"
      "the four tables, 'joint_counts' and the grid arguments of the setter.");
}

// Registered with the CPU transport entries, after the energy balance.
void bind_turbid_leaf_rrt(py::module_& m) {
  m.def(
      "run_turbid_leaf_rrt_cpu",
      [](EmbreeSceneManager& scene, const py::dict& request) {
        const uint64_t domain = get<uint64_t>(request, "domain_id", "an int");
        const eb::DomainSamples d = eb::domain_samples(scene, domain);
        const size_t n = d.leaf_area.size();
        PerSample keep;
        eb::TurbidLeafRrtRequestView v;
        if (request.contains("state")) {
          const tb::TurbidStateRecord& s =
              eb::check_turbid_state(scene, parse_token(as_token_dict(request, "state")),
                                     tb::STAGE_PHYSIOLOGY, tb::STAGE_LAST);
          if (s.token.domain_id != domain) throw std::runtime_error(tb::STALE_STATE);
          keep.keep.push_back(s.temperature), keep.keep.push_back(s.emissivity);
          v.temperature = {keep.keep[0].data(), keep.keep[0].size()};
          v.emissivity = {keep.keep[1].data(), keep.keep[1].size()};
        }
        if (request.contains("temperature")) v.temperature = keep.take(request, "temperature", n);
        if (request.contains("emissivity") || !v.emissivity.data)
          v.emissivity = keep.take(request, "emissivity", n, 0.98);
        if (!v.temperature.data)
          throw py::key_error(
              "request is missing the key 'temperature' (or a 'state' of stage 2 or 3)");
        FloatArray pt, pe;
        if (request.contains("primitive_temperature")) {
          pt = get<FloatArray>(request, "primitive_temperature", "a float array");
          v.primitive_temperature = {pt.data(), size_t(pt.size())};
        }
        if (request.contains("primitive_emissivity")) {
          pe = get<FloatArray>(request, "primitive_emissivity", "a float array");
          v.primitive_emissivity = {pe.data(), size_t(pe.size())};
        }
        v.sky_lw_radiance = get_or<float>(request, "sky_lw_radiance", 0.0f, "a float");
        v.emission_cells = get_or<int32_t>(request, "emission_cells", 4, "an int");
        v.rays_per_side = get_or<int32_t>(request, "rays_per_side", 16, "an int");
        v.max_depth = get_or<int32_t>(request, "max_depth", 64, "an int");
        v.two_sided = get_or<bool>(request, "two_sided", true, "a bool");
        v.seed = get_or<uint64_t>(request, "seed", 0, "an int");
        v.threads = get_or<int32_t>(request, "threads", 0, "an int");
        eb::TurbidLeafRrtResult r = eb::run_turbid_leaf_rrt(scene, d.view(), v);
        py::dict out;
        const py::ssize_t N = py::ssize_t(n), P = py::ssize_t(r.absorbed_front.size());
        std::vector<float> total(n);
        for (size_t i = 0; i < n; ++i) total[i] = r.absorbed_top[i] + r.absorbed_bottom[i];
        out["absorbed_top"] = move_to_numpy(std::move(r.absorbed_top), {N});
        out["absorbed_bottom"] = move_to_numpy(std::move(r.absorbed_bottom), {N});
        out["absorbed"] = move_to_numpy(std::move(total), {N});
        out["emitted"] = move_to_numpy(std::move(r.emitted), {N});
        out["primitive_absorbed_front"] = move_to_numpy(std::move(r.absorbed_front), {P});
        out["primitive_absorbed_back"] = move_to_numpy(std::move(r.absorbed_back), {P});
        out["_execution"] = execution_dict(r.execution);
        return out;
      },
      py::arg("scene"), py::arg("request"),
      "Longwave exchange between the samples of a committed Turbid domain, the mesh\n"
      "primitives (terrain included) and the sky. Each sample is a leaf of its weight's\n"
      "area emitting emissivity sigma T^4 / pi from each side; its owner medium gives the\n"
      "extinction along paths. Estimator: cosine-weighted reverse rays from each sample\n"
      "side and primitive face; at the first leaf collision, surface or escape the path\n"
      "collects that emitter's radiance (leaves: the leaf-area mean exitance of the\n"
      "bounding instance's samples in the cell of an emission_cells^3 grid over their box),\n"
      "then reflects with probability 1 - emissivity;\n"
      "absorbed = emissivity x pi x mean radiance. request: 'domain_id'; 'temperature' (n,)\n"
      "K or a number, or 'state' (stage 2 or 3: its temperature and emissivity);\n"
      "'emissivity' (0.98); 'primitive_temperature', 'primitive_emissivity'\n"
      "(n_primitives,) (default the scene's overrides, else the material's temperature and\n"
      "1); 'sky_lw_radiance' W m-2 sr-1 (0); 'emission_cells' (4); 'rays_per_side' (16);\n"
      "'max_depth' (64);\n"
      "'two_sided' (True); 'seed'; 'threads'. Returns float32 'absorbed_top',\n"
      "'absorbed_bottom', 'absorbed' (n,) W m-2 of leaf, 'emitted' (n,) W m-2 per side,\n"
      "'primitive_absorbed_front', 'primitive_absorbed_back' (n_primitives,) W m-2 (0 on\n"
      "media boundaries), '_execution'.");
}

}  // namespace vesk::module
