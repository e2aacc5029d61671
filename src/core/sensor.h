#pragma once
// Primary rays: a pixel and a subpixel offset become a world-space ray, for the
// orthographic, perspective, pushbroom and fisheye projections.

#include "core/types.h"

namespace vesk::sensor {

// Zeroes both outputs first. False means the pixel yields no ray (unknown type,
// outside the fisheye disc, or a camera matrix that collapses the direction).
bool generate_primary_ray(const SensorData& sensor, int32_t px, int32_t py, float dx, float dy,
                          float3& origin, float3& direction);

}  // namespace vesk::sensor
