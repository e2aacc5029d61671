#pragma once
// Vocabulary shared by every backend: small value types, the material, sensor, ray
// and mesh records, and the 12-float row-major instance transform.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct float3 {
  float x = 0.0f, y = 0.0f, z = 0.0f;
};
struct int3 {
  int32_t x = 0, y = 0, z = 0;
};

inline float3 operator+(float3 a, float3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline float3 operator-(float3 a, float3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline float3 operator-(float3 a) { return {-a.x, -a.y, -a.z}; }
inline float3 operator*(float s, float3 a) { return {s * a.x, s * a.y, s * a.z}; }
inline float3 operator*(float3 a, float s) { return {s * a.x, s * a.y, s * a.z}; }
inline float dot(float3 a, float3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline float3 cross(float3 a, float3 b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float length(float3 a) { return std::sqrt(dot(a, a)); }
// A zero vector stays zero rather than turning into NaNs.
inline float3 normalize(float3 a) {
  const float l = length(a);
  return l > 0.0f ? (1.0f / l) * a : a;
}

namespace vesk {

// The 12 floats [m00 m01 m02 tx, m10 m11 m12 ty, m20 m21 m22 tz]: p -> M3 p + t.
inline float3 transform_point(const float* m, float3 p) {
  return {m[0] * p.x + m[1] * p.y + m[2] * p.z + m[3], m[4] * p.x + m[5] * p.y + m[6] * p.z + m[7],
          m[8] * p.x + m[9] * p.y + m[10] * p.z + m[11]};
}
inline float3 transform_vector(const float* m, float3 v) {
  return {m[0] * v.x + m[1] * v.y + m[2] * v.z, m[4] * v.x + m[5] * v.y + m[6] * v.z,
          m[8] * v.x + m[9] * v.y + m[10] * v.z};
}

// Projection kinds of the sensor; 2 and unknown values produce no ray.
enum SensorType : int32_t {
  SENSOR_ORTHOGRAPHIC = 0,
  SENSOR_PERSPECTIVE = 1,
  SENSOR_PUSHBROOM = 3,
  SENSOR_FISHEYE = 4,
};

struct SensorData {
  int32_t type = 0;
  int32_t width = 0, height = 0;
  float camera_to_world[16] = {};  // row-major 4x4
  float fov = 0.0f;                // radians
  float ortho_width = 0.0f, ortho_height = 0.0f;  // scene units
  int32_t projection_type = 0;                    // fisheye mapping
  std::string to_string() const;
};

// The CPU tracers treat every emitter as a directional sun; the value travels as given.
enum class EmitterType : int32_t { Directional = 0 };

// Material kinds with behaviour; any other value evaluates to zero.
enum class MaterialType : int32_t {
  Diffuse = 0,
  Rpv = 1,
  DiffuseTransmitting = 13,
};

struct MaterialData {
  MaterialType type = MaterialType::Diffuse;
  int32_t spectral_offset = 0;
  // [0] band-mean reflectance, [1] band-mean transmittance (branch choice of type 13),
  // [2] uniform temperature K, [3] sunlit K, [4] shaded K, [5..7] carried, unread.
  float params[8] = {};
  int32_t reserved[4] = {};
  std::string to_string() const;
};

namespace backend {

struct Ray {
  float3 origin;
  float t_min = 1e-4f;
  float3 direction;
  float t_max = 1e30f;
  uint32_t user = 0;  // carried for the GPU layouts, unread on the CPU
};

struct MeshGeometry {
  std::vector<float3> vertices;
  std::vector<float3> normals;  // empty: flat-shaded
  std::vector<int3> indices;
  int32_t material_id = 0;
};

struct SceneInstance {
  int32_t mesh_id = -1;
  float transform[12] = {};
};

// World-space triangles in global primitive order (instance-major, triangle-minor).
struct PrimitiveGeometry {
  std::vector<float3> vertices;  // three per primitive
  std::vector<float3> normals;   // normalised cross(v1 - v0, v2 - v0)
  std::vector<float> areas;
  std::vector<int32_t> material_ids, instance_ids, primitive_ids;
};

// Throws std::out_of_range "instance mesh id <id> is outside [0, <count>)".
void validate_instance_mesh_id(int32_t mesh_id, uint64_t mesh_count);

}  // namespace backend

// Orthonormal frame around the unit normal n: t is the tangent, b the bitangent.
void coordinate_system(const float3& n, float3& t, float3& b);

// Identity-rotation transform with uniform scale and a translation.
void scaled_translation(float x, float y, float z, float scale, float out[12]);

}  // namespace vesk
