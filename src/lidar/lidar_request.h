#pragma once
// What a LiDAR run is asked for and gives back, shared by the CPU and the device forms:
// the request and its validator, the beam pattern and range bins every form traces
// with, and the host post-processing that turns raw waveforms into points.

#include <cstdint>
#include <vector>

#include "core/execution.h"

namespace vesk::scene {
class SceneModel;
}

namespace vesk::lidar {

struct LidarRequest {
  const float* pulse_origins = nullptr;     // 3 per pulse
  const float* pulse_directions = nullptr;  // 3 per pulse, unit
  int32_t num_pulses = 0;
  float beam_half_angle_rad = 0.0005f;
  int32_t beam_samples_per_dim = 10;
  float pulse_energy = 1.0f;                                             // J
  float sensor_area = 0.1f;                                              // m2
  float range_resolution = 0.15f, min_range = 0.0f, max_range = 100.0f;  // m
  int32_t num_wavelengths = 1;
  float pulse_fwhm_ns = 4.0f;
  float peak_threshold = 1e-8f;
  int32_t max_returns_per_pulse = 5;
  bool direct_mode = false;
  int32_t num_threads = 0;
};

struct LidarResult {
  std::vector<float> waveform;  // (pulse * num_bins + bin) * num_wavelengths + wavelength
  std::vector<float> points;    // 8 floats a record
  int32_t num_bins = 0;
  int32_t num_returns = 0;
  ExecutionRecord execution;
};

// Checks what the binding cannot: a built scene, finite pulses, a usable range gate,
// spectra that hold num_wavelengths bands for every material a ray may read, and memory
// (entry names the call in the memory refusal).
void validate_lidar_request(const scene::SceneModel& scene, const LidarRequest& request,
                            const char* entry = "simulate_lidar_cpu");

// The footprint's ray grid: a square of n + 1 points a side over [-1, 1]^2, kept inside
// the unit disc, with Gaussian weights summing to 1; one central ray when the grid keeps
// nothing.
struct Beam {
  std::vector<float> xy;       // sample positions in the unit disc, interleaved
  std::vector<float> weights;  // summing to 1
};
Beam beam_pattern(int32_t beam_samples_per_dim);

// trunc((max_range - min_range) / range_resolution) + 1, in float.
int32_t bin_count(const LidarRequest& request);

// Waveform mode's host steps once the raw waveform is complete: convolution with the
// pulse, then peaks, in pulse order, into r.points (r.waveform is replaced by its
// convolution; ranges: active_ranges of the raw waveform). Sets num_returns.
void finish_waveforms(const LidarRequest& request, const std::vector<int32_t>& ranges,
                      LidarResult& r);

}  // namespace vesk::lidar
