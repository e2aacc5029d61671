// Per-primitive queries and the plain settings of the CPU scene.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "core/array_check.h"
#include "core/scene_checks.h"

#include "embree/scene_manager.h"

namespace vesk::embree {

size_t EmbreeSceneManager::total_triangles() const {
  size_t n = 0;
  for (const EmbreeInstance& inst : instances_) n += meshes_.at(size_t(inst.mesh_id)).indices.size();
  return n;
}

std::vector<int32_t> EmbreeSceneManager::instance_triangle_counts() const {
  std::vector<int32_t> counts;
  counts.reserve(instances_.size());
  for (const EmbreeInstance& inst : instances_)
    counts.push_back(int32_t(meshes_.at(size_t(inst.mesh_id)).indices.size()));
  return counts;
}

std::vector<int32_t> EmbreeSceneManager::instance_primitive_offsets() const {
  std::vector<int32_t> offsets = instance_triangle_counts();
  int32_t running = 0;
  for (int32_t& o : offsets) {
    const int32_t count = o;
    o = running;
    running += count;
  }
  return offsets;
}

backend::PrimitiveGeometry EmbreeSceneManager::primitive_geometry() const {
  backend::PrimitiveGeometry g;
  const size_t n = total_triangles();
  g.vertices.reserve(3 * n);
  g.normals.reserve(n);
  g.areas.reserve(n);
  g.material_ids.reserve(n);
  g.instance_ids.reserve(n);
  g.primitive_ids.reserve(n);
  int32_t prim = 0;
  for (size_t i = 0; i < instances_.size(); ++i) {
    const EmbreeInstance& inst = instances_[i];
    const EmbreeMesh& mesh = meshes_.at(size_t(inst.mesh_id));
    for (const int3& t : mesh.indices) {
      const float3 a = transform_point(inst.transform, mesh.vertices[size_t(t.x)]);
      const float3 b = transform_point(inst.transform, mesh.vertices[size_t(t.y)]);
      const float3 c = transform_point(inst.transform, mesh.vertices[size_t(t.z)]);
      const float3 n3 = cross(b - a, c - a);
      g.vertices.push_back(a);
      g.vertices.push_back(b);
      g.vertices.push_back(c);
      g.normals.push_back(normalize(n3));
      g.areas.push_back(0.5f * length(n3));
      g.material_ids.push_back(mesh.material_id);
      g.instance_ids.push_back(int32_t(i));
      g.primitive_ids.push_back(prim++);
    }
  }
  return g;
}

std::vector<int32_t> EmbreeSceneManager::primitive_material_ids() const {
  std::vector<int32_t> ids;
  ids.reserve(total_triangles());
  for (const EmbreeInstance& inst : instances_) {
    const EmbreeMesh& mesh = meshes_.at(size_t(inst.mesh_id));
    ids.insert(ids.end(), mesh.indices.size(), mesh.material_id);
  }
  return ids;
}

std::vector<float> EmbreeSceneManager::primitive_areas() const {
  return primitive_geometry().areas;
}

std::vector<float3> EmbreeSceneManager::primitive_normals() const {
  return primitive_geometry().normals;
}

void EmbreeSceneManager::set_num_bands(int32_t n) {
  require_idle_();
  check_num_bands(n, MAX_BANDS);
  num_bands_ = n;
}

int32_t EmbreeSceneManager::add_material(int32_t type, int32_t offset, const float* params,
                                         size_t count) {
  require_idle_();
  check_spectral_offset("offset", offset);
  check_finite("scalar_params", params, std::min<size_t>(count, 8));
  MaterialData m;
  m.type = MaterialType(type);
  m.spectral_offset = offset;
  for (size_t i = 0; i < count && i < 8; ++i) m.params[i] = params[i];
  materials_.push_back(m);
  return int32_t(materials_.size() - 1);
}

void EmbreeSceneManager::set_optical_turbid_media(const std::vector<float>& densities,
                                                  const std::vector<int32_t>& types,
                                                  const std::vector<int32_t>& orientations,
                                                  const std::vector<float>& lengths,
                                                  const std::vector<int32_t>& material_medium_ids) {
  require_idle_();
  media_ = validate_optical_turbid_media(densities, types, orientations, lengths,
                                         material_medium_ids, materials_.size());
}

void EmbreeSceneManager::upload_spectral_params(std::vector<float> values) {
  require_idle_();
  check_finite("values", values.data(), values.size());
  spectral_ = std::move(values);
}

void EmbreeSceneManager::update_spectral_params(size_t offset, const float* values, size_t count) {
  require_idle_();
  for (size_t i = 0; i < count; ++i) spectral_[offset + i] = values[i];
}

void EmbreeSceneManager::set_emitter(int32_t type, float3 direction, int32_t spectral_offset) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  emitter_ = Emitter{type, unit_direction("direction", direction), spectral_offset};
}

void EmbreeSceneManager::update_emitter_direction(float3 direction) {
  require_idle_();
  emitter_.direction = unit_direction("direction", direction);
}

void EmbreeSceneManager::set_sky(int32_t spectral_offset) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  sky_.uniform_offset = spectral_offset;
  sky_.directional_offset = -1;
  sky_.hw_offset = -1;
}

void EmbreeSceneManager::set_directional_sky(int32_t spectral_offset) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  sky_.directional_offset = spectral_offset;
  sky_.hw_offset = -1;
}

void EmbreeSceneManager::set_hw_sky(int32_t spectral_offset, float3 sun_direction) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  const float3 sun = unit_direction("sun direction", sun_direction);
  sky_.hw_offset = spectral_offset;
  sky_.hw_sun_direction = sun;
  sky_.uniform_offset = -1;
  sky_.directional_offset = -1;
}

void EmbreeSceneManager::set_sensor(const SensorData& sensor, bool terrain_following) {
  require_idle_();
  check_sensor(sensor);
  sensor_ = sensor;
  terrain_following_ = terrain_following;
}

void EmbreeSceneManager::set_repetitive(int32_t num_repetitions, float scene_x_size,
                                        float scene_y_size) {
  require_idle_();
  check_repetition(num_repetitions, scene_x_size, scene_y_size, MAX_REPETITIONS, MIN_TILE_SIZE);
  repetition_ = Repetition{num_repetitions, scene_x_size, scene_y_size};
}

void EmbreeSceneManager::set_measurement_plane(float height) {
  require_idle_();
  check_coordinates("height", &height, 1);
  measurement_plane_height_ = height;
  measurement_plane_set_ = true;
}

void EmbreeSceneManager::set_thermal_mode(bool enabled, std::vector<float> wavelengths_nm) {
  require_idle_();
  check_finite("wavelengths", wavelengths_nm.data(), wavelengths_nm.size());
  thermal_mode_ = enabled;
  if (enabled && !sif_only_mode_) emission_mode_ = EMISSION_THERMAL;
  if (!enabled && emission_mode_ == EMISSION_THERMAL) emission_mode_ = EMISSION_OPTICAL;
  band_wavelengths_ = std::move(wavelengths_nm);
}

void EmbreeSceneManager::set_sif_only_mode(bool enabled) {
  require_idle_();
  sif_only_mode_ = enabled;
  emission_mode_ = enabled ? EMISSION_SIF_ONLY : (thermal_mode_ ? EMISSION_THERMAL : EMISSION_OPTICAL);
}

}  // namespace vesk::embree
