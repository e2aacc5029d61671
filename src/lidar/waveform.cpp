#include "lidar/waveform.h"

#include <algorithm>
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

std::vector<int32_t> active_ranges(const std::vector<float>& raw, int32_t num_pulses,
                                   int32_t num_bins, int32_t num_wavelengths) {
  const size_t W = size_t(num_wavelengths);
  std::vector<int32_t> ranges(2 * size_t(num_pulses));
  for (int32_t p = 0; p < num_pulses; ++p) {
    const float* w = raw.data() + size_t(p) * size_t(num_bins) * W;
    int32_t first = num_bins, last = -1;
    for (int32_t b = 0; b < num_bins; ++b)
      for (size_t k = 0; k < W; ++k)
        if (w[size_t(b) * W + k] > 0.0f) first = std::min(first, b), last = b;
    ranges[2 * size_t(p)] = first, ranges[2 * size_t(p) + 1] = last;
  }
  return ranges;
}

void convolve_waveform(std::vector<float>& waveform, int32_t num_pulses, int32_t num_bins,
                       int32_t num_wavelengths, const std::vector<float>& kernel,
                       const std::vector<int32_t>& ranges) {
  const int32_t R = int32_t(kernel.size() / 2);
  const size_t W = size_t(num_wavelengths), slab = size_t(num_bins) * W;
  std::vector<float> raw(slab);
  for (int32_t p = 0; p < num_pulses; ++p) {
    const int32_t first = ranges[2 * size_t(p)], last = ranges[2 * size_t(p) + 1];
    if (last < first) continue;
    float* out = waveform.data() + size_t(p) * slab;
    const int32_t lo = std::max(first - R, 0), hi = std::min(num_bins - 1, last + R);
    std::copy(out + size_t(lo) * W, out + size_t(hi + 1) * W, raw.begin() + long(size_t(lo) * W));
    for (int32_t b = lo; b <= hi; ++b)
      for (size_t w = 0; w < W; ++w) {
        float acc = 0.0f;
        for (int32_t j = b - R; j <= b + R; ++j)
          if (j >= lo && j <= hi) acc += kernel[size_t(j - b + R)] * raw[size_t(j) * W + w];
        out[size_t(b) * W + w] = acc;
      }
  }
}

void extract_peaks(const std::vector<float>& conv, const std::vector<int32_t>& ranges,
                   int32_t R, int32_t num_pulses, int32_t num_bins, int32_t num_wavelengths,
                   const float* origins, const float* directions, float min_range,
                   float range_resolution, float peak_threshold, int32_t max_returns,
                   std::vector<float>& points) {
  if (num_bins < 3 || max_returns < 1) return;
  const size_t W = size_t(num_wavelengths);
  std::vector<int32_t> peaks;
  std::vector<float> S(static_cast<size_t>(num_bins));  // each bin summed over wavelengths
  for (int32_t p = 0; p < num_pulses; ++p) {
    const int32_t first = ranges[2 * size_t(p)], last = ranges[2 * size_t(p) + 1];
    if (last < first) continue;
    const int32_t lo = std::max(first - R, 1), hi = std::min(num_bins - 2, last + R);
    const size_t base = size_t(p) * size_t(num_bins) * W;
    for (int32_t b = lo - 1; b <= hi + 1; ++b) {
      float s = 0.0f;
      for (size_t w = 0; w < W; ++w) s += conv[base + size_t(b) * W + w];
      S[size_t(b)] = s;
    }
    peaks.clear();
    for (int32_t b = lo; b <= hi && int32_t(peaks.size()) < max_returns; ++b) {
      const float s = S[size_t(b)];
      if (s > S[size_t(b - 1)] && s > S[size_t(b + 1)] && s > peak_threshold) peaks.push_back(b);
    }
    const float* o = origins + 3 * size_t(p);
    const float* d = directions + 3 * size_t(p);
    for (size_t k = 0; k < peaks.size(); ++k) {
      const int32_t b = peaks[k];
      const float range = (float(b) + 0.5f) * range_resolution + min_range;
      const float rec[POINT_FLOATS] = {o[0] + d[0] * range, o[1] + d[1] * range,
                                       o[2] + d[2] * range, S[size_t(b)],
                                       float(k + 1),       float(peaks.size()),
                                       range,              float(p)};
      points.insert(points.end(), rec, rec + POINT_FLOATS);
    }
  }
}

}  // namespace vesk::lidar
