#include "core/types.h"

#include <sstream>
#include <stdexcept>

namespace vesk {

namespace backend {
void validate_instance_mesh_id(int32_t mesh_id, uint64_t mesh_count) {
  if (mesh_id >= 0 && static_cast<uint64_t>(mesh_id) < mesh_count) return;
  throw std::out_of_range("instance mesh id " + std::to_string(mesh_id) + " is outside [0, " +
                          std::to_string(mesh_count) + ")");
}
}  // namespace backend

void coordinate_system(const float3& n, float3& t, float3& b) {
  if (std::fabs(n.x) > std::fabs(n.y)) {
    const float s = 1.0f / std::sqrt(n.x * n.x + n.z * n.z);
    b = {n.z * s, 0.0f, -n.x * s};
  } else {
    const float s = 1.0f / std::sqrt(n.y * n.y + n.z * n.z);
    b = {0.0f, n.z * s, -n.y * s};
  }
  t.x = b.y * n.z - n.y * b.z;
  t.y = b.z * n.x - n.z * b.x;
  t.z = n.y * b.x - b.y * n.x;
}

void scaled_translation(float x, float y, float z, float scale, float out[12]) {
  const float m[12] = {scale, 0, 0, x, 0, scale, 0, y, 0, 0, scale, z};
  for (int i = 0; i < 12; ++i) out[i] = m[i];
}

std::string SensorData::to_string() const {
  std::ostringstream s;
  s << "SensorData(type=" << type << ", width=" << width << ", height=" << height
    << ", fov=" << fov << ", ortho_width=" << ortho_width << ", ortho_height=" << ortho_height
    << ", projection_type=" << projection_type << ")";
  return s.str();
}

std::string MaterialData::to_string() const {
  std::ostringstream s;
  s << "MaterialData(type=" << static_cast<int>(type) << ", spectral_offset=" << spectral_offset
    << ", params=[";
  for (int i = 0; i < 8; ++i) s << (i ? ", " : "") << params[i];
  s << "])";
  return s.str();
}

}  // namespace vesk
