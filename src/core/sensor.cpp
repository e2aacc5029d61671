#include "core/sensor.h"

#include <cmath>

namespace vesk::sensor {
namespace {

// Fisheye zenith-from-axis angle for r in [0, ~0.707]; false rejects the pixel.
bool fisheye_theta(int32_t mapping, float r, float half, float& theta) {
  switch (mapping) {
    case 0: {  // equisolid
      const float s = 2.0f * r * std::sin(half / 2.0f);
      if (s > 1.0f) return false;
      theta = 2.0f * std::asin(s);
      break;
    }
    case 1:  // equidistant
      theta = 2.0f * r * half;
      break;
    case 2: {  // orthographic
      const float s = 2.0f * r * std::sin(half);
      if (s > 1.0f) return false;
      theta = std::asin(s);
      break;
    }
    default:  // stereographic
      theta = 2.0f * std::atan(2.0f * r * std::tan(half / 2.0f));
      break;
  }
  return theta <= half;
}

}  // namespace

bool generate_primary_ray(const SensorData& s, int32_t px, int32_t py, float dx, float dy,
                          float3& origin, float3& direction) {
  origin = float3{};
  direction = float3{};
  const float u = (static_cast<float>(px) + dx) / static_cast<float>(s.width) - 0.5f;
  const float v = (static_cast<float>(py) + dy) / static_cast<float>(s.height) - 0.5f;

  float3 local_origin{}, local_dir{};
  switch (s.type) {
    case SENSOR_ORTHOGRAPHIC:
      local_origin = {u * s.ortho_width, v * s.ortho_height, 0.0f};
      local_dir = {0.0f, 0.0f, -1.0f};
      break;
    case SENSOR_PERSPECTIVE: {
      const float t = std::tan(s.fov / 2.0f);
      const float y = 2.0f * v * t;
      const float x = 2.0f * u * t * (static_cast<float>(s.width) / static_cast<float>(s.height));
      local_dir = normalize(float3{x, y, -1.0f});
      break;
    }
    case SENSOR_PUSHBROOM:
      local_origin = {0.0f, v * s.ortho_height, 0.0f};
      local_dir = normalize(float3{std::tan(u * s.fov), 0.0f, -1.0f});
      break;
    case SENSOR_FISHEYE: {
      const float half = s.fov / 2.0f;
      const float r = std::sqrt(u * u + v * v);
      float theta = 0.0f;
      if (!fisheye_theta(s.projection_type, r, half, theta)) return false;
      const float phi = std::atan2(v, u);
      local_dir = {std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi),
                   -std::cos(theta)};
      break;
    }
    default:
      return false;
  }

  const float* m = s.camera_to_world;
  const float m12[12] = {m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], m[8], m[9], m[10], m[11]};
  origin = transform_point(m12, local_origin);
  direction = normalize(transform_vector(m12, local_dir));
  return dot(direction, direction) > 0.5f;
}

}  // namespace vesk::sensor
