#pragma once
// The energy-balance and LiDAR arguments as the CPU and the Vulkan entries both take
// them: Python arguments in, a request view (whose arrays these holders keep alive) out,
// and the result tuples and dicts back, so the two backends read and answer alike.

#include <optional>
#include <string>

#include "lidar/lidar_request.h"
#include "module/bind_common.h"
#include "scene/energy_balance_request.h"

namespace vesk::module {

// An optional float array argument: None is absent.
struct OptionalArray {
  std::optional<FloatArray> array;
  explicit OptionalArray(const py::object& o) {
    if (!o.is_none()) array = py::cast<FloatArray>(o);
  }
  const float* data() const { return array ? array->data() : nullptr; }
  int64_t size() const { return array ? int64_t(array->size()) : -1; }
  int ndim() const { return array ? int(array->ndim()) : 1; }
};

struct EnergyBalanceArgs {
  OptionalArray albedos;
  std::optional<float> sun, sky;
  scene::EnergyBalanceRequest request;

  EnergyBalanceArgs(int32_t n_samples, int32_t max_depth, int32_t band_type,
                    const py::object& sun_irradiance, const py::object& sky_diffuse_radiance,
                    float sky_lw_radiance, float sun_dir_x, float sun_dir_y, float sun_dir_z,
                    bool two_sided, const py::object& sw_albedos)
      : albedos(sw_albedos) {
    if (albedos.ndim() != 1)
      throw py::value_error("sw_albedos must be 1D (flattened [n_bands * n_prims])");
    if (!sun_irradiance.is_none()) sun = py::cast<float>(sun_irradiance);
    if (!sky_diffuse_radiance.is_none()) sky = py::cast<float>(sky_diffuse_radiance);
    scene::EnergyBalanceRequest& r = request;
    r.n_samples = n_samples;
    r.depth = max_depth;
    r.band_type = band_type;
    r.sun_irradiance = sun ? &*sun : nullptr;
    r.sky_diffuse_radiance = sky ? &*sky : nullptr;
    r.sky_lw_radiance = sky_lw_radiance;
    r.sun_dir_x = sun_dir_x, r.sun_dir_y = sun_dir_y, r.sun_dir_z = sun_dir_z;
    r.two_sided = two_sided;
    r.sw_albedos = albedos.data();
  }
  EnergyBalanceArgs(const EnergyBalanceArgs&) = delete;
};

struct MultibandEnergyBalanceArgs {
  OptionalArray albedos, front, back, trans, sun, sky, table;
  scene::MultibandEnergyBalanceRequest request;

  MultibandEnergyBalanceArgs(int32_t n_bands, int32_t n_samples, int32_t max_depth,
                             const py::object& sun_irradiance,
                             const py::object& sky_diffuse_radiance,
                             const py::object& sky_directional_table, float sun_dir_x,
                             float sun_dir_y, float sun_dir_z, bool two_sided,
                             const py::object& sw_albedos, const py::object& sw_reflectance,
                             const py::object& sw_back_reflectance,
                             const py::object& sw_transmittance)
      : albedos(sw_albedos),
        front(sw_reflectance),
        back(sw_back_reflectance),
        trans(sw_transmittance),
        sun(sun_irradiance),
        sky(sky_diffuse_radiance),
        table(sky_directional_table) {
    if (albedos.ndim() != 1)
      throw py::value_error("sw_albedos must be 1D (flattened [n_bands * n_prims])");
    const int split =
        int(front.data() != nullptr) + int(back.data() != nullptr) + int(trans.data() != nullptr);
    if (split != 0 && split != 3)
      throw py::value_error(
          "split Mesh optics require sw_reflectance, sw_back_reflectance, and "
          "sw_transmittance");
    scene::MultibandEnergyBalanceRequest& r = request;
    r.n_bands = n_bands, r.n_samples = n_samples, r.max_depth = max_depth;
    r.sun_irradiance = sun.data(), r.sun_irradiance_size = sun.size();
    r.sky_diffuse_radiance = sky.data(), r.sky_diffuse_size = sky.size();
    r.sky_directional_table = table.data(), r.sky_table_size = table.size();
    r.sun_dir_x = sun_dir_x, r.sun_dir_y = sun_dir_y, r.sun_dir_z = sun_dir_z;
    r.two_sided = two_sided;
    r.sw_albedos = albedos.data(), r.albedo_size = albedos.size();
    r.sw_reflectance = front.data(), r.reflectance_size = front.size();
    r.sw_back_reflectance = back.data(), r.back_reflectance_size = back.size();
    r.sw_transmittance = trans.data(), r.transmittance_size = trans.size();
  }
  MultibandEnergyBalanceArgs(const MultibandEnergyBalanceArgs&) = delete;
};

inline py::array_t<float> per_primitive(std::vector<float>&& v) {
  const py::ssize_t n = py::ssize_t(v.size());
  return move_to_numpy(std::move(v), {n});
}

// (top, bot)
inline py::tuple energy_balance_tuple(scene::EnergyBalanceResult&& out) {
  return py::make_tuple(per_primitive(std::move(out.top)), per_primitive(std::move(out.bot)));
}

// (top, bot, sunlit_fraction), the spectral ones [n_bands, n_primitives]
inline py::tuple multiband_energy_balance_tuple(scene::MultibandEnergyBalanceResult&& out,
                                                int32_t bands, size_t n) {
  auto spectral = [&](std::vector<float>&& v) {
    if (v.empty()) return move_to_numpy(std::move(v), {0});
    return move_to_numpy(std::move(v), {py::ssize_t(bands), py::ssize_t(n)});
  };
  return py::make_tuple(spectral(std::move(out.top)), spectral(std::move(out.bot)),
                        per_primitive(std::move(out.sunlit_fraction)));
}

// The request of a scanner call; the arrays stay the caller's.
inline lidar::LidarRequest lidar_request(
    const FloatArray& pulse_origins, const FloatArray& pulse_directions, int32_t num_pulses,
    float beam_half_angle_rad, int32_t beam_samples_per_dim, float pulse_energy, float sensor_area,
    float range_resolution, float min_range, float max_range, int32_t num_wavelengths,
    float pulse_fwhm_ns, float peak_threshold, int32_t max_returns_per_pulse, bool direct_mode) {
  const py::ssize_t values = py::ssize_t(std::max(num_pulses, 0)) * 3;
  if (pulse_origins.ndim() != 1 || pulse_directions.ndim() != 1 || pulse_origins.size() != values ||
      pulse_directions.size() != values)
    throw py::value_error(
        "pulse_origins and pulse_directions must be flat arrays with num_pulses * 3 values");
  lidar::LidarRequest q;
  q.pulse_origins = pulse_origins.data();
  q.pulse_directions = pulse_directions.data();
  q.num_pulses = num_pulses;
  q.beam_half_angle_rad = beam_half_angle_rad;
  q.beam_samples_per_dim = beam_samples_per_dim;
  q.pulse_energy = pulse_energy;
  q.sensor_area = sensor_area;
  q.range_resolution = range_resolution;
  q.min_range = min_range;
  q.max_range = max_range;
  q.num_wavelengths = num_wavelengths;
  q.pulse_fwhm_ns = pulse_fwhm_ns;
  q.peak_threshold = peak_threshold;
  q.max_returns_per_pulse = max_returns_per_pulse;
  q.direct_mode = direct_mode;
  return q;
}

// {"waveform", "points", "num_bins", "num_returns", "_execution"}
inline py::dict lidar_dict(lidar::LidarResult&& r, const lidar::LidarRequest& q) {
  py::dict d;
  const py::ssize_t pulses = std::max(q.num_pulses, 0);
  if (q.direct_mode) {
    d["waveform"] =
        py::array_t<float>({pulses, py::ssize_t(r.num_bins), py::ssize_t(q.num_wavelengths)});
  } else {
    d["waveform"] =
        move_to_numpy(std::move(r.waveform), {pulses, r.num_bins, py::ssize_t(q.num_wavelengths)});
  }
  d["points"] = move_to_numpy(std::move(r.points), {py::ssize_t(r.num_returns), 8});
  d["num_bins"] = r.num_bins;
  d["num_returns"] = r.num_returns;
  d["_execution"] = execution_dict(r.execution);
  return d;
}

}  // namespace vesk::module
