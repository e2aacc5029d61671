// Microwave transport on the CPU scene: simulate_microwave_cpu (brightness temperature)
// and simulate_active_microwave_cpu (backscatter).
#include <functional>

#include "embree/scene_manager.h"
#include "microwave/transport.h"
#include "module/bind_common.h"
#include "vulkan/scene_manager.h"

namespace vesk::module {
namespace {

// The arrays a microwave request points into, kept alive for the call.
struct MicrowaveArrays {
  std::vector<FloatArray> keep;
  const float* hold(const py::handle& h) {
    keep.push_back(FloatArray::ensure(h));
    if (!keep.back()) throw py::type_error("expected a float32 array");
    return keep.back().data();
  }
};

// A [rows, columns] parameter table; None or an empty array is no rows.
const float* param_rows(MicrowaveArrays& a, const py::object& o, int32_t& rows, int32_t& cols) {
  rows = 0;
  cols = 0;
  if (o.is_none()) return nullptr;
  const float* p = a.hold(o);
  const FloatArray& arr = a.keep.back();
  if (arr.size() == 0) return p;
  if (arr.ndim() == 1) {  // one material given as a row
    rows = 1;
    cols = int32_t(arr.shape(0));
  } else if (arr.ndim() == 2) {
    rows = int32_t(arr.shape(0));
    cols = int32_t(arr.shape(1));
  } else {
    throw std::invalid_argument("microwave parameter tables must be 2-D [materials, columns]");
  }
  return p;
}

std::vector<microwave::MuellerTableView> mueller_list(MicrowaveArrays& a, const py::object& o,
                                                      bool trunk) {
  std::vector<microwave::MuellerTableView> out;
  if (o.is_none()) return out;
  for (const py::handle entry : o) {
    microwave::MuellerTableView v;
    if (entry.is_none()) {
      out.push_back(v);
      continue;
    }
    const py::sequence t = py::reinterpret_borrow<py::sequence>(entry);
    if (t.size() < 3)
      throw std::invalid_argument(
          std::string(trunk ? "mw_trunk_mueller_luts" : "mw_veg_mueller_luts") +
          " entries must be (mueller_lut, cos_cdf, azimuth_cdf" +
          (trunk ? "[, specular_mueller])" : ")"));
    v.values = a.hold(t[0]);
    const FloatArray& lut = a.keep.back();
    if (lut.ndim() != 5 || lut.shape(3) != 4 || lut.shape(4) != 4)
      throw std::runtime_error(trunk ? "trunk mueller_lut must be 5-D (cti,cts,dphi,4,4)"
                                     : "mueller_lut must be 5-D (cti,cts,dphi,4,4)");
    v.n_cti = int32_t(lut.shape(0));
    v.n_cts = int32_t(lut.shape(1));
    v.n_dphi = int32_t(lut.shape(2));
    v.cos_cdf = a.hold(t[1]);
    v.cos_cdf_size = size_t(a.keep.back().size());
    v.azimuth_cdf = a.hold(t[2]);
    v.azimuth_cdf_size = size_t(a.keep.back().size());
    if (trunk && t.size() > 3 && !t[3].is_none()) {
      v.specular = a.hold(t[3]);
      const FloatArray& sp = a.keep.back();
      if (sp.ndim() != 3 || sp.shape(1) != 4 || sp.shape(2) != 4)
        throw std::runtime_error("trunk specular_mueller must be 3-D (n_cos, 4, 4)");
      v.n_specular = int32_t(sp.shape(0));
    }
    out.push_back(v);
  }
  return out;
}

// Reads the Python arguments shared by both modes into a request; the checks of table
// shapes come first, in a fixed order, then the request's own validation.
microwave::MicrowaveRequest microwave_request(MicrowaveArrays& a, float frequency,
                                              const py::object& soil, const py::object& veg,
                                              const py::object& trunk, const IntArray& material_map,
                                              const py::object& veg_luts,
                                              const py::object& trunk_luts, bool active) {
  microwave::MicrowaveRequest q;
  q.active = active;
  q.frequency = frequency;
  q.veg_luts = mueller_list(a, veg_luts, false);
  q.trunk_luts = mueller_list(a, trunk_luts, true);
  int32_t trunk_cols = 0;
  q.trunk_params = param_rows(a, trunk, q.trunk_count, trunk_cols);
  if (q.trunk_count > 0 && trunk_cols != microwave::TRUNK_FIELDS)
    throw std::runtime_error(
        active ? "mw_trunk_params must have 7 columns (active path)"
               : "mw_trunk_params must have 7 columns (radius, length, moisture, temperature, "
                 "ax_x, ax_y, ax_z)");
  q.soil_params = param_rows(a, soil, q.soil_count, q.soil_columns);
  q.veg_params = param_rows(a, veg, q.veg_count, q.veg_columns);
  if (material_map.ndim() != 1)
    throw std::invalid_argument("material_map must be a 1-D int32 array");
  q.material_map = material_map.data();
  q.material_map_size = size_t(material_map.size());
  return q;
}

constexpr const char* MW_TABLES_DOC =
    "mw_soil_params: float32 [n_soil, >= 10], the soil fields of the evaluators (sand,\n"
    "clay, mv, h, nV, nH, Q, T_surface K, T_deep K, dielectric model, rms height m);\n"
    "mw_veg_params: float32 [n_veg, >= 3]: 0 extinction coefficient kappa_e (1/m), 1\n"
    "single-scattering albedo omega, 2 physical temperature (K); later columns are not read.\n"
    "A vegetation material's surfaces bound a volume: a front face enters, a back face\n"
    "leaves (optical turbid media whose boundary material maps to vegetation likewise).\n"
    "mw_trunk_params: float32 [n_trunk, 7] radius m, length m, moisture, temperature K, axis.\n"
    "material_map: int32 per optical material: soil rows first, then vegetation, then\n"
    "trunks, as one list; -1 means no microwave response (the surface is crossed).\n"
    "mw_veg_mueller_luts: None or one entry per vegetation material, None or\n"
    "(mueller (cti, cts, dphi, 4, 4) per unit volume 1/(m sr) in (I_v, I_h, U, V), cos_cdf\n"
    "(cti*cts), azimuth_cdf (cti*cts*dphi)); bins uniform in the z cosine over [-1, 1] and\n"
    "in azimuth difference over [0, 2 pi). mw_trunk_mueller_luts: the same per trunk, with\n"
    "an optional 4th item specular_mueller (n_cos, 4, 4); None selects the Fresnel fallback.\n"
    "Tables are evaluated at response_table_size cosines and interpolated linearly.\n";

}  // namespace

void bind_microwave_transport(py::module_& m) {
  static const std::string passive_doc =
      std::string(
          "Passive microwave image: brightness temperature (K), float32 [height, width,\n"
          "n_channels], one ray through each pixel centre. n_channels 1: (T_H + T_V) / 2;\n"
          "2: T_H, T_V; 4: Stokes I = T_V + T_H, Q = T_V - T_H, U = V = 0. Vegetation\n"
          "is a tau-omega medium; soil and trunks emit and reflect specularly (up to\n"
          "max_depth surface events); escaping rays see 0 K or, with include_atmosphere\n"
          "and atm_tau > 0, an isothermal layer at air_temperature (K), also between the\n"
          "scene and the sensor. frequency in Hz.\n") +
      MW_TABLES_DOC;
  static const std::string active_doc =
      std::string(
          "Active microwave image: linear sigma0 per unit horizontal area, float32\n"
          "[height, width, n_channels]; n_channels 4: HH, HV, VH, VV (Sinclair matrix\n"
          "powers), 1: (HH + VV) / 2. Single bounce: soil surface scattering, first-order\n"
          "vegetation volume backscatter, the trunk-ground double bounce, two-way canopy\n"
          "attenuation; spp jittered rays per pixel (PCG32 per pixel and sample).\n") +
      MW_TABLES_DOC;
  // One body for both scene classes: the CPU reference and the device form.
  auto passive = [](auto run) {
    return [run](const auto& scene, float frequency, const py::object& soil, const py::object& veg,
                 const py::object& trunk, const IntArray& material_map, const py::object& veg_luts,
                 const py::object& trunk_luts, int32_t n_channels, bool include_atmosphere,
                 float atm_tau, float air_temperature, int32_t max_depth,
                 int32_t response_table_size, int32_t threads) {
      MicrowaveArrays a;
      microwave::MicrowaveRequest q = microwave_request(a, frequency, soil, veg, trunk,
                                                        material_map, veg_luts, trunk_luts, false);
      q.n_channels = n_channels;
      q.include_atmosphere = include_atmosphere;
      q.atm_tau = atm_tau;
      q.air_temperature = air_temperature;
      q.max_depth = max_depth;
      q.response_table_size = response_table_size;
      q.threads = threads;
      std::vector<float> image = run(scene, q);
      return move_to_numpy(std::move(image),
                           {py::ssize_t(scene.sensor().height), py::ssize_t(scene.sensor().width),
                            py::ssize_t(n_channels)});
    };
  };
  auto active = [](auto run) {
    return [run](const auto& scene, float frequency, const py::object& soil, const py::object& veg,
                 const py::object& trunk, const IntArray& material_map, const py::object& veg_luts,
                 const py::object& trunk_luts, int32_t n_channels, int32_t spp,
                 int32_t response_table_size, int32_t threads) {
      MicrowaveArrays a;
      microwave::MicrowaveRequest q = microwave_request(a, frequency, soil, veg, trunk,
                                                        material_map, veg_luts, trunk_luts, true);
      q.n_channels = n_channels;
      q.spp = spp;
      q.max_depth = 1;
      q.response_table_size = response_table_size;
      q.threads = threads;
      std::vector<float> image = run(scene, q);
      return move_to_numpy(std::move(image),
                           {py::ssize_t(scene.sensor().height), py::ssize_t(scene.sensor().width),
                            py::ssize_t(n_channels)});
    };
  };
  auto cpu = [](const embree::EmbreeSceneManager& s, const microwave::MicrowaveRequest& q) {
    return microwave::simulate_microwave(s, q);
  };
  auto device = [](const vulkan::VulkanSceneManager& s, const microwave::MicrowaveRequest& q) {
    return s.simulate_microwave(q);
  };
  using Cpu = const embree::EmbreeSceneManager&;
  using Dev = const vulkan::VulkanSceneManager&;
  std::function<py::array_t<float>(
      Cpu, float, const py::object&, const py::object&, const py::object&, const IntArray&,
      const py::object&, const py::object&, int32_t, bool, float, float, int32_t, int32_t, int32_t)>
      cpu_passive = passive(cpu);
  std::function<py::array_t<float>(Cpu, float, const py::object&, const py::object&,
                                   const py::object&, const IntArray&, const py::object&,
                                   const py::object&, int32_t, int32_t, int32_t, int32_t)>
      cpu_active = active(cpu);
  std::function<py::array_t<float>(
      Dev, float, const py::object&, const py::object&, const py::object&, const IntArray&,
      const py::object&, const py::object&, int32_t, bool, float, float, int32_t, int32_t, int32_t)>
      dev_passive = passive(device);
  std::function<py::array_t<float>(Dev, float, const py::object&, const py::object&,
                                   const py::object&, const IntArray&, const py::object&,
                                   const py::object&, int32_t, int32_t, int32_t, int32_t)>
      dev_active = active(device);

#define MW_PASSIVE_ARGS                                                                            \
  py::arg("frequency"), py::arg("mw_soil_params"), py::arg("mw_veg_params"),                       \
      py::arg("mw_trunk_params"), py::arg("material_map"),                                         \
      py::arg("mw_veg_mueller_luts") = py::none(), py::arg("mw_trunk_mueller_luts") = py::none(),  \
      py::arg("n_channels") = 2, py::arg("include_atmosphere") = false, py::arg("atm_tau") = 0.0f, \
      py::arg("air_temperature") = 290.0f, py::arg("max_depth") = 4,                               \
      py::arg("response_table_size") = 256, py::arg("threads") = 0
#define MW_ACTIVE_ARGS                                                                            \
  py::arg("frequency"), py::arg("mw_soil_params"), py::arg("mw_veg_params"),                      \
      py::arg("mw_trunk_params"), py::arg("material_map"),                                        \
      py::arg("mw_veg_mueller_luts") = py::none(), py::arg("mw_trunk_mueller_luts") = py::none(), \
      py::arg("n_channels") = 4, py::arg("spp") = 4, py::arg("response_table_size") = 256,        \
      py::arg("threads") = 0

  m.def("simulate_microwave_cpu", cpu_passive, py::arg("scene"), MW_PASSIVE_ARGS,
        passive_doc.c_str());
  m.def("simulate_active_microwave_cpu", cpu_active, py::arg("scene"), MW_ACTIVE_ARGS,
        active_doc.c_str());
  auto cls =
      py::reinterpret_borrow<py::class_<vulkan::VulkanSceneManager>>(m.attr("VulkanSceneManager"));
  static const std::string device_note =
      "\nOn the device (microwave_wavefront.spv, one invocation per ray) with the CPU form's "
      "rays, tables and arithmetic; threads is not read.\n";
  static const std::string dev_passive_doc = passive_doc + device_note;
  static const std::string dev_active_doc = active_doc + device_note;
  cls.def("simulate_microwave", dev_passive, MW_PASSIVE_ARGS, dev_passive_doc.c_str());
  cls.def("simulate_active_microwave", dev_active, MW_ACTIVE_ARGS, dev_active_doc.c_str());
#undef MW_PASSIVE_ARGS
#undef MW_ACTIVE_ARGS
  cls.def(
      "run_microwave_wavefront",
      [](const vulkan::VulkanSceneManager& s, bool active_mode, int max_depth,
         float air_temperature, float atmosphere_tau, int soil_count, int vegetation_count,
         int trunk_count, int response_table_size, const FloatArray& origins,
         const FloatArray& directions, const IntArray& material_map,
         const FloatArray& passive_soil_table, const FloatArray& active_soil_table,
         const FloatArray& smooth_soil_table, const FloatArray& vegetation_parameters,
         const FloatArray& trunk_response_table, const FloatArray& trunk_dihedral_scattering,
         const FloatArray& dihedral_ground_table, const IntArray& lut_info,
         const FloatArray& mueller_lut, const FloatArray& cosine_cdf,
         const FloatArray& azimuth_cdf) {
        std::vector<float> out = s.run_microwave_wavefront(
            active_mode, max_depth, air_temperature, atmosphere_tau, soil_count, vegetation_count,
            trunk_count, response_table_size, to_vector(origins), to_vector(directions),
            to_vector(material_map), to_vector(passive_soil_table), to_vector(active_soil_table),
            to_vector(smooth_soil_table), to_vector(vegetation_parameters),
            to_vector(trunk_response_table), to_vector(trunk_dihedral_scattering),
            to_vector(dihedral_ground_table), to_vector(lut_info), to_vector(mueller_lut),
            to_vector(cosine_cdf), to_vector(azimuth_cdf));
        const py::ssize_t n = py::ssize_t(out.size());
        return move_to_numpy(std::move(out), {n});
      },
      py::arg("active_mode"), py::arg("max_depth"), py::arg("air_temperature"),
      py::arg("atmosphere_tau"), py::arg("soil_count"), py::arg("vegetation_count"),
      py::arg("trunk_count"), py::arg("response_table_size"), py::arg("origins"),
      py::arg("directions"), py::arg("material_map"), py::arg("passive_soil_table"),
      py::arg("active_soil_table"), py::arg("smooth_soil_table"), py::arg("vegetation_parameters"),
      py::arg("trunk_response_table"), py::arg("trunk_dihedral_scattering"),
      py::arg("dihedral_ground_table"), py::arg("lut_info"), py::arg("mueller_lut"),
      py::arg("cosine_cdf"), py::arg("azimuth_cdf"),
      "The device program of the microwave images on flat arrays: 4 floats a ray in origins\n"
      "and directions (x, y, z, unused); returns 4 floats a ray, (T_H, T_V, 0, 0) in K or,\n"
      "when active_mode, sigma0 (HH, HV, VH, VV). Tables as the CPU form builds them:\n"
      "soil [soil, size, 4|4|2], vegetation_parameters [veg, 4] (kappa_e 1/m, omega,\n"
      "temperature K, has a Mueller table), trunk_response_table [trunk, size, 4],\n"
      "trunk_dihedral_scattering the trunks' specular Mueller tables, dihedral_ground_table\n"
      "[soil, trunk, size, 2], lut_info 9 ints per material (type, Mueller offset, n_cti,\n"
      "n_cts, n_dphi, cosine CDF offset, azimuth CDF offset, specular offset, n_specular).");
  m.attr("_mw_veg_lut_dims") = py::make_tuple("cti", "cts", "dphi", 4, 4);
}

}  // namespace vesk::module
