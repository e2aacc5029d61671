// The LiDAR request's validator, beam pattern, range bins and host post-processing.
#include "lidar/lidar_request.h"

#include <cmath>
#include <stdexcept>
#include <string>

#include "core/array_check.h"
#include "core/memory_limit.h"
#include "lidar/waveform.h"
#include "scene/scene_model.h"

namespace vesk::lidar {

Beam beam_pattern(int32_t n) {
  Beam b;
  if (n >= 0) {
    for (int32_t iy = 0; iy <= n; ++iy)
      for (int32_t ix = 0; ix <= n; ++ix) {
        const float x = float(ix + ix) / float(n) - 1.0f, y = float(iy + iy) / float(n) - 1.0f;
        const float r2 = x * x + y * y;
        if (!(r2 <= 1.0001f)) continue;
        b.xy.push_back(x);
        b.xy.push_back(y);
        b.weights.push_back(std::exp((r2 * -0.5f) / 0.50016385f));
      }
  }
  if (b.weights.empty()) b.xy = {0.0f, 0.0f}, b.weights = {1.0f};
  float sum = 0.0f;
  for (const float w : b.weights) sum += w;
  for (float& w : b.weights) w /= sum;
  return b;
}

int32_t bin_count(const LidarRequest& q) {
  return int32_t((q.max_range - q.min_range) / q.range_resolution) + 1;
}

void validate_lidar_request(const scene::SceneModel& scene, const LidarRequest& q,
                            const char* entry) {
  if (!scene.is_built()) throw std::runtime_error("scene not built. Call build() first.");
  if (q.num_pulses < 0) throw std::invalid_argument("num_pulses must not be negative");
  check_coordinates("pulse_origins", q.pulse_origins, 3 * size_t(q.num_pulses));
  check_coordinates("pulse_directions", q.pulse_directions, 3 * size_t(q.num_pulses));
  for (int32_t p = 0; p < q.num_pulses; ++p) {
    const float* d = q.pulse_directions + 3 * size_t(p);
    if (!(d[0] * d[0] + d[1] * d[1] + d[2] * d[2] > 1e-12f))
      throw std::invalid_argument("pulse_directions contains a zero direction");
  }
  if (!(q.range_resolution > 0.0f) || !std::isfinite(q.range_resolution) ||
      !std::isfinite(q.min_range) || !std::isfinite(q.max_range) || !(q.max_range >= q.min_range))
    throw std::invalid_argument(
        "range gate needs finite min_range <= max_range and a positive range_resolution");
  for (const float v : {q.beam_half_angle_rad, q.pulse_energy, q.sensor_area, q.peak_threshold})
    if (!std::isfinite(v)) throw std::invalid_argument("LiDAR settings must be finite");
  if (q.num_wavelengths < 1) throw std::invalid_argument("num_wavelengths must be positive");
  // The kernel has 2 trunc(3 sigma / range_resolution) + 3 taps.
  if (!(q.pulse_fwhm_ns >= 0.0f) || !std::isfinite(q.pulse_fwhm_ns) ||
      !(double(q.pulse_fwhm_ns) * lidar::LIGHT_M_PER_NS * 0.5 / 2.35482 * 3.0 / q.range_resolution <
        1e6))
    throw std::invalid_argument(
        "pulse_fwhm_ns must be finite, not negative, and span under a million range bins");
  // (n + 1)^2 rays a pulse: a million is already far beyond any footprint's detail.
  if (q.beam_samples_per_dim > 1000)
    throw std::invalid_argument("beam_samples_per_dim must not exceed 1000");
  const double bins = std::floor(double(q.max_range - q.min_range) / q.range_resolution) + 1.0;
  if (bins > 1073741824.0) throw std::invalid_argument("the range gate holds more than 2^30 bins");
  if (!q.direct_mode)
    check_request_memory(std::string(entry) + ": " + std::to_string(q.num_pulses) +
                             " waveforms of " + std::to_string(int64_t(bins)) + " bins",
                         2.0 * double(q.num_pulses) * bins * q.num_wavelengths * 4.0);
  // Every spectrum a return may read: band 0 in direct mode, num_wavelengths bands (and a
  // leaf's back side) in waveform mode.
  const size_t size = scene.spectral_params().size();
  const auto& mats = scene.materials();
  for (size_t i = 0; i < mats.size(); ++i) {
    const int64_t reach =
        q.direct_mode ? 1
                      : q.num_wavelengths + (mats[i].type == MaterialType::DiffuseTransmitting
                                                 ? int64_t(scene.num_bands())
                                                 : 0);
    if (mats[i].spectral_offset < 0 || size_t(mats[i].spectral_offset) + size_t(reach) > size)
      throw std::invalid_argument("the spectrum of material " + std::to_string(i) +
                                  " holds fewer "
                                  "than the bands a LiDAR return reads");
  }
  for (const auto& info : scene.instance_info())
    if (info.material_id < 0 || size_t(info.material_id) >= mats.size())
      throw std::invalid_argument("mesh " + std::to_string(info.mesh_id) + " uses material " +
                                  std::to_string(info.material_id) + ", but the scene has " +
                                  std::to_string(mats.size()) + " materials");
}

void finish_waveforms(const LidarRequest& q, const std::vector<int32_t>& ranges, LidarResult& r) {
  const std::vector<float> kernel = pulse_kernel(q.pulse_fwhm_ns, q.range_resolution);
  if (q.num_pulses > 0) {
    convolve_waveform(r.waveform, q.num_pulses, r.num_bins, q.num_wavelengths, kernel, ranges);
    extract_peaks(r.waveform, ranges, int32_t(kernel.size() / 2), q.num_pulses, r.num_bins,
                  q.num_wavelengths, q.pulse_origins, q.pulse_directions, q.min_range,
                  q.range_resolution, q.peak_threshold, q.max_returns_per_pulse, r.points);
  }
  r.num_returns = int32_t(r.points.size() / POINT_FLOATS);
}

}  // namespace vesk::lidar
