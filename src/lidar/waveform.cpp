#include "lidar/waveform.h"

#include <cmath>

namespace vesk::lidar {

std::vector<float> pulse_kernel(float pulse_fwhm_ns, float range_resolution) {
  const float sigma = (pulse_fwhm_ns * LIGHT_M_PER_NS * 0.5f) / 2.35482f;
  const int32_t h = int32_t((sigma * 3.0f) / range_resolution);
  const int32_t radius = h + 1;
  std::vector<float> k(size_t(2 * radius + 1));
  float sum = 0.0f;
  for (int32_t i = -radius; i <= radius; ++i) {
    const float x = float(i) * range_resolution;
    const float v = std::exp((x * -0.5f * x) / (sigma * sigma));
    k[size_t(i + radius)] = v;
    sum += v;
  }
  for (float& v : k) v /= sum;
  return k;
}

std::vector<float> convolve_waveform(const std::vector<float>& raw, int32_t num_pulses,
                                     int32_t num_bins, int32_t num_wavelengths,
                                     const std::vector<float>& kernel) {
  std::vector<float> out(raw.size(), 0.0f);
  const int32_t R = int32_t(kernel.size() / 2);
  const size_t W = size_t(num_wavelengths);
  for (int32_t p = 0; p < num_pulses; ++p) {
    const size_t base = size_t(p) * size_t(num_bins) * W;
    for (int32_t b = 0; b < num_bins; ++b)
      for (size_t w = 0; w < W; ++w) {
        float acc = 0.0f;
        for (int32_t j = b - R; j <= b + R; ++j)
          if (j >= 0 && j < num_bins)
            acc += kernel[size_t(j - b + R)] * raw[base + size_t(j) * W + w];
        out[base + size_t(b) * W + w] = acc;
      }
  }
  return out;
}

void extract_peaks(const std::vector<float>& conv, int32_t num_pulses, int32_t num_bins,
                   int32_t num_wavelengths, const float* origins, const float* directions,
                   float min_range, float range_resolution, float peak_threshold,
                   int32_t max_returns, std::vector<float>& points) {
  if (num_bins < 3 || max_returns < 1) return;
  const size_t W = size_t(num_wavelengths);
  std::vector<int32_t> peaks;
  for (int32_t p = 0; p < num_pulses; ++p) {
    const size_t base = size_t(p) * size_t(num_bins) * W;
    auto summed = [&](int32_t b) {
      float s = 0.0f;
      for (size_t w = 0; w < W; ++w) s += conv[base + size_t(b) * W + w];
      return s;
    };
    peaks.clear();
    for (int32_t b = 1; b <= num_bins - 2 && int32_t(peaks.size()) < max_returns; ++b) {
      const float s = summed(b);
      if (s > summed(b - 1) && s > summed(b + 1) && s > peak_threshold) peaks.push_back(b);
    }
    const float* o = origins + 3 * size_t(p);
    const float* d = directions + 3 * size_t(p);
    for (size_t k = 0; k < peaks.size(); ++k) {
      const int32_t b = peaks[k];
      const float range = (float(b) + 0.5f) * range_resolution + min_range;
      const float rec[POINT_FLOATS] = {o[0] + d[0] * range, o[1] + d[1] * range,
                                       o[2] + d[2] * range, summed(b),
                                       float(k + 1),       float(peaks.size()),
                                       range,              float(p)};
      points.insert(points.end(), rec, rec + POINT_FLOATS);
    }
  }
}

}  // namespace vesk::lidar
