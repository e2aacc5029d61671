#pragma once
// A pulsed laser scanner on the CPU scene: a discrete point cloud (one ray a pulse, first
// surface) or full waveforms (a Gaussian-weighted grid of rays over the beam footprint,
// surface returns and single-scattering volume returns from turbid media, binned by
// range, convolved with the pulse and peak-picked). Deterministic: no random numbers.

#include "core/progress.h"
#include "lidar/lidar_request.h"

namespace vesk::embree {

class EmbreeSceneManager;

using lidar::LidarRequest;
using lidar::LidarResult;
using lidar::validate_lidar_request;

LidarResult simulate_lidar(const EmbreeSceneManager& scene, const LidarRequest& request,
                           const ProgressFn& progress);

}  // namespace vesk::embree
