#include "core/scene_checks.h"

#include <cmath>
#include <stdexcept>
#include <string>

#include "core/array_check.h"

namespace vesk {

void check_mesh(const std::vector<float3>& vertices, const std::vector<float3>& normals,
                const std::vector<int3>& indices) {
  if (vertices.empty()) throw std::invalid_argument("mesh must contain at least one vertex");
  if (indices.empty()) throw std::invalid_argument("mesh must contain at least one triangle");
  if (!normals.empty() && normals.size() != vertices.size())
    throw std::invalid_argument("mesh normals must be empty or have one entry per vertex");
  const int64_t n = int64_t(vertices.size());
  for (size_t i = 0; i < indices.size(); ++i) {
    const int3& t = indices[i];
    if (t.x < 0 || t.y < 0 || t.z < 0 || t.x >= n || t.y >= n || t.z >= n)
      throw std::invalid_argument("mesh triangle " + std::to_string(i) +
                                  " references a vertex outside the vertex buffer");
  }
  check_coordinates("vertices", &vertices[0].x, 3 * vertices.size());
  if (!normals.empty()) check_finite("normals", &normals[0].x, 3 * normals.size());
}

void check_instance_placement(float x, float y, float z, float scale) {
  check_coordinates("x", &x, 1);
  check_coordinates("y", &y, 1);
  check_coordinates("z", &z, 1);
  check_coordinates("scale", &scale, 1);
  if (!(std::fabs(scale) >= 1e-10f)) throw std::invalid_argument("scale must be nonzero");
}

void check_spectral_offset(const char* name, int32_t offset) {
  if (offset < -1)
    throw std::invalid_argument(std::string(name) + " must be -1 (absent) or a buffer index");
}

float3 unit_direction(const char* name, float3 d) {
  check_finite(name, &d.x, 3);
  const double l = std::sqrt(double(d.x) * d.x + double(d.y) * d.y + double(d.z) * d.z);
  if (!(l > 0.0)) return {};
  return {float(d.x / l), float(d.y / l), float(d.z / l)};
}

void check_num_bands(int32_t n, int32_t max_bands) {
  if (n < 1 || n > max_bands)
    throw std::invalid_argument("num_bands must lie in [1, " + std::to_string(max_bands) + "]");
}

namespace {

void check_tile_size(const char* name, float size, float min_tile) {
  check_finite(name, &size, 1);
  if (size != 0.0f && !(size >= min_tile && size <= MAX_COORDINATE))
    throw std::invalid_argument(std::string(name) + " must be 0 or lie in [0.01, 1e9]");
}

}  // namespace

void check_repetition(int32_t num_repetitions, float scene_x_size, float scene_y_size,
                      int32_t max_repetitions, float min_tile) {
  if (num_repetitions < 0 || num_repetitions > max_repetitions)
    throw std::invalid_argument("num_repetitions must lie in [0, " +
                                std::to_string(max_repetitions) + "]");
  check_tile_size("scene_x_size", scene_x_size, min_tile);
  check_tile_size("scene_y_size", scene_y_size, min_tile);
}

void check_sensor(const SensorData& sensor) {
  if (sensor.width < 0 || sensor.height < 0)
    throw std::invalid_argument("sensor width and height must not be negative");
  if (sensor.type != SENSOR_ORTHOGRAPHIC && sensor.type != SENSOR_PERSPECTIVE &&
      sensor.type != SENSOR_PUSHBROOM && sensor.type != SENSOR_FISHEYE)
    throw std::invalid_argument(
        "sensor type must be 0 (orthographic), 1 (perspective), 3 (pushbroom) or 4 (fisheye)");
  check_coordinates("ortho_w", &sensor.ortho_width, 1);
  check_coordinates("ortho_h", &sensor.ortho_height, 1);
  check_coordinates("cam_xform", sensor.camera_to_world, 16);
  check_finite("fov", &sensor.fov, 1);
}

}  // namespace vesk
