#pragma once
// A pulsed laser scanner on the CPU scene: a discrete point cloud (one ray a pulse, first
// surface) or full waveforms (a Gaussian-weighted grid of rays over the beam footprint,
// surface returns and single-scattering volume returns from turbid media, binned by
// range, convolved with the pulse and peak-picked). Deterministic: no random numbers.

#include <cstdint>
#include <vector>

#include "core/execution.h"
#include "core/progress.h"

namespace vesk::embree {

class EmbreeSceneManager;

struct LidarRequest {
  const float* pulse_origins = nullptr;     // 3 per pulse
  const float* pulse_directions = nullptr;  // 3 per pulse, unit
  int32_t num_pulses = 0;
  float beam_half_angle_rad = 0.0005f;
  int32_t beam_samples_per_dim = 10;
  float pulse_energy = 1.0f;   // J
  float sensor_area = 0.1f;    // m2
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
// spectra that hold num_wavelengths bands for every material a ray may read, and memory.
void validate_lidar_request(const EmbreeSceneManager& scene, const LidarRequest& request);

LidarResult simulate_lidar(const EmbreeSceneManager& scene, const LidarRequest& request,
                           const ProgressFn& progress);

}  // namespace vesk::embree
