// The setters of the shared scene, each checking its whole input before it stores
// anything, and the per-primitive queries every backend answers alike.
#include "scene/scene_model.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "core/array_check.h"
#include "core/scene_checks.h"

namespace vesk::scene {

void SceneModel::require_idle_() const {
  if (running_.load() > 0)
    throw std::runtime_error("the scene cannot be changed while a simulation is running on it");
}

// ---- geometry ----

int32_t SceneModel::add_mesh(std::vector<float3> vertices, std::vector<float3> normals,
                             std::vector<int3> indices, int32_t material_id) {
  require_idle_();
  check_mesh(vertices, normals, indices);
  meshes_.push_back(Mesh{std::move(vertices), std::move(normals), std::move(indices), material_id});
  return int32_t(meshes_.size() - 1);
}

int32_t SceneModel::add_instance(int32_t mesh_id, const float* transform) {
  require_idle_();
  backend::validate_instance_mesh_id(mesh_id, meshes_.size());
  if (!transform) throw std::invalid_argument("instance transform must not be null");
  check_transform("xform", transform);
  // A new instance is not in the acceleration structure until the next build().
  built_ = structure_current_ = false;
  Instance inst;
  inst.mesh_id = mesh_id;
  std::memcpy(inst.transform, transform, sizeof(inst.transform));
  instances_.push_back(inst);
  return int32_t(instances_.size() - 1);
}

int32_t SceneModel::add_instance(int32_t mesh_id, float x, float y, float z, float scale) {
  check_instance_placement(x, y, z, scale);
  float m[12];
  scaled_translation(x, y, z, scale, m);
  return add_instance(mesh_id, m);
}

int32_t SceneModel::add_instances_xform(int32_t mesh_id, const float* transforms, size_t count) {
  if (count == 0) return int32_t(instances_.size());
  backend::validate_instance_mesh_id(mesh_id, meshes_.size());
  if (!transforms) throw std::invalid_argument("instance transforms must not be null");
  require_idle_();
  for (size_t i = 0; i < count; ++i) check_transform("xforms", transforms + 12 * i);
  built_ = structure_current_ = false;
  const int32_t first = int32_t(instances_.size());
  instances_.reserve(instances_.size() + count);
  for (size_t i = 0; i < count; ++i) {
    Instance inst;
    inst.mesh_id = mesh_id;
    std::memcpy(inst.transform, transforms + 12 * i, sizeof(inst.transform));
    instances_.push_back(inst);
  }
  return first;
}

void SceneModel::update_instance_transform(int32_t id, const float* transform) {
  if (id < 0 || size_t(id) >= instances_.size())
    throw std::out_of_range("update_instance_transform: id out of range");
  require_idle_();
  check_transform("xform", transform);
  // The stored transform changes first: a rebuild picks it up even if the backend refuses.
  std::memcpy(instances_[size_t(id)].transform, transform, sizeof(Instance::transform));
}

void SceneModel::clear_for_reuse() {
  require_idle_();
  materials_.clear();
  spectral_.clear();
  media_ = {};
  sky_ = SkySelection{};
  thermal_mode_ = false;
  sif_only_mode_ = false;
  emission_mode_ = EMISSION_OPTICAL;
  emitter_ = Emitter{};
  band_wavelengths_.clear();
  num_bands_ = 0;
  built_ = false;
}

// ---- bounds ----

SceneModel::SceneBox SceneModel::checked_scene_box_() const {
  const SceneBox b = instances_box([](size_t) { return true; });
  for (const float v : {b.lo.x, b.lo.y, b.lo.z, b.hi.x, b.hi.y, b.hi.z})
    if (!(std::fabs(v) <= MAX_COORDINATE) && !instances_.empty())
      throw std::invalid_argument(
          "the scene reaches beyond 1e9 scene units from the origin; move or scale it closer");
  return b;
}

void SceneModel::store_aabb_(const SceneBox& b) {
  x_min_ = b.lo.x, y_min_ = b.lo.y, min_height_ = b.lo.z;
  x_max_ = b.hi.x, y_max_ = b.hi.y, max_height_ = b.hi.z;
}

SceneModel::SceneBox SceneModel::instances_box(const std::function<bool(size_t)>& pick) const {
  SceneBox b;
  std::vector<std::array<float3, 2>> mesh_box(meshes_.size());
  for (size_t m = 0; m < meshes_.size(); ++m) {
    float3 lo{1e30f, 1e30f, 1e30f}, hi{-1e30f, -1e30f, -1e30f};
    for (const float3& v : meshes_[m].vertices) {
      lo = {std::min(lo.x, v.x), std::min(lo.y, v.y), std::min(lo.z, v.z)};
      hi = {std::max(hi.x, v.x), std::max(hi.y, v.y), std::max(hi.z, v.z)};
    }
    mesh_box[m] = {lo, hi};
  }
  for (size_t i = 0; i < instances_.size(); ++i) {
    if (!pick(i)) continue;
    const Instance& inst = instances_[i];
    const auto& box = mesh_box.at(size_t(inst.mesh_id));
    for (int c = 0; c < 8; ++c) {
      const float3 corner{(c & 1) ? box[1].x : box[0].x, (c & 2) ? box[1].y : box[0].y,
                          (c & 4) ? box[1].z : box[0].z};
      const float3 p = transform_point(inst.transform, corner);
      b.lo = {std::min(b.lo.x, p.x), std::min(b.lo.y, p.y), std::min(b.lo.z, p.z)};
      b.hi = {std::max(b.hi.x, p.x), std::max(b.hi.y, p.y), std::max(b.hi.z, p.z)};
    }
  }
  return b;
}

std::pair<float3, float3> SceneModel::aabb() const {
  // A scene with nothing in it has the empty box that a build would give it.
  if (!built_ && instances_.empty()) return {SceneBox{}.lo, SceneBox{}.hi};
  return {float3{x_min_, y_min_, min_height_}, float3{x_max_, y_max_, max_height_}};
}

void SceneModel::check_rays_(const std::vector<backend::Ray>& rays) {
  for (const backend::Ray& r : rays) {
    check_coordinates("origins", &r.origin.x, 3);
    check_coordinates("directions", &r.direction.x, 3);
    if (r.direction.x == 0.0f && r.direction.y == 0.0f && r.direction.z == 0.0f)
      throw std::invalid_argument("directions contains a zero direction");
    if (!(r.t_min >= 0.0f) || !std::isfinite(r.t_min))
      throw std::invalid_argument("t_min must be finite and non-negative");
    if (std::isnan(r.t_max)) throw std::invalid_argument("t_max must not be NaN");
  }
}

// ---- per-primitive queries ----

size_t SceneModel::total_triangles() const {
  size_t n = 0;
  for (const Instance& inst : instances_) n += meshes_.at(size_t(inst.mesh_id)).indices.size();
  return n;
}

std::vector<int32_t> SceneModel::instance_triangle_counts() const {
  std::vector<int32_t> counts;
  counts.reserve(instances_.size());
  for (const Instance& inst : instances_)
    counts.push_back(int32_t(meshes_.at(size_t(inst.mesh_id)).indices.size()));
  return counts;
}

std::vector<int32_t> SceneModel::instance_primitive_offsets() const {
  std::vector<int32_t> offsets = instance_triangle_counts();
  int32_t running = 0;
  for (int32_t& o : offsets) {
    const int32_t count = o;
    o = running;
    running += count;
  }
  return offsets;
}

backend::PrimitiveGeometry SceneModel::primitive_geometry() const {
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
    const Instance& inst = instances_[i];
    const Mesh& mesh = meshes_.at(size_t(inst.mesh_id));
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

std::vector<int32_t> SceneModel::primitive_material_ids() const {
  std::vector<int32_t> ids;
  ids.reserve(total_triangles());
  for (const Instance& inst : instances_) {
    const Mesh& mesh = meshes_.at(size_t(inst.mesh_id));
    ids.insert(ids.end(), mesh.indices.size(), mesh.material_id);
  }
  return ids;
}

std::vector<float> SceneModel::primitive_areas() const {
  return primitive_geometry().areas;
}

std::vector<float3> SceneModel::primitive_normals() const {
  return primitive_geometry().normals;
}

// ---- materials, spectra, media ----

void SceneModel::set_num_bands(int32_t n) {
  require_idle_();
  check_num_bands(n, MAX_BANDS);
  num_bands_ = n;
}

int32_t SceneModel::add_material(int32_t type, int32_t offset, const float* params, size_t count) {
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

void SceneModel::set_optical_turbid_media(const std::vector<float>& densities,
                                          const std::vector<int32_t>& types,
                                          const std::vector<int32_t>& orientations,
                                          const std::vector<float>& lengths,
                                          const std::vector<int32_t>& material_medium_ids) {
  require_idle_();
  media_ = validate_optical_turbid_media(densities, types, orientations, lengths,
                                         material_medium_ids, materials_.size());
}

void SceneModel::upload_spectral_params(std::vector<float> values) {
  require_idle_();
  check_finite("values", values.data(), values.size());
  spectral_ = std::move(values);
}

void SceneModel::update_spectral_params(size_t offset, const float* values, size_t count) {
  require_idle_();
  for (size_t i = 0; i < count; ++i) spectral_[offset + i] = values[i];
}

// ---- light, sensor, modes ----

void SceneModel::set_emitter(int32_t type, float3 direction, int32_t spectral_offset) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  emitter_ = Emitter{type, unit_direction("direction", direction), spectral_offset};
}

void SceneModel::update_emitter_direction(float3 direction) {
  require_idle_();
  emitter_.direction = unit_direction("direction", direction);
}

void SceneModel::set_sky(int32_t spectral_offset) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  sky_.uniform_offset = spectral_offset;
  sky_.directional_offset = -1;
  sky_.hw_offset = -1;
}

void SceneModel::set_directional_sky(int32_t spectral_offset) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  sky_.directional_offset = spectral_offset;
  sky_.hw_offset = -1;
}

void SceneModel::set_hw_sky(int32_t spectral_offset, float3 sun_direction) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  const float3 sun = unit_direction("sun direction", sun_direction);
  sky_.hw_offset = spectral_offset;
  sky_.hw_sun_direction = sun;
  sky_.uniform_offset = -1;
  sky_.directional_offset = -1;
}

void SceneModel::set_sensor(const SensorData& sensor, bool terrain_following) {
  require_idle_();
  check_sensor(sensor);
  sensor_ = sensor;
  terrain_following_ = terrain_following;
}

void SceneModel::set_repetitive(int32_t num_repetitions, float scene_x_size, float scene_y_size) {
  require_idle_();
  check_repetition(num_repetitions, scene_x_size, scene_y_size, MAX_REPETITIONS, MIN_TILE_SIZE);
  repetition_ = Repetition{num_repetitions, scene_x_size, scene_y_size};
}

void SceneModel::set_measurement_plane(float height) {
  require_idle_();
  check_coordinates("height", &height, 1);
  measurement_plane_height_ = height;
  measurement_plane_set_ = true;
}

void SceneModel::set_thermal_mode(bool enabled, std::vector<float> wavelengths_nm) {
  require_idle_();
  check_finite("wavelengths", wavelengths_nm.data(), wavelengths_nm.size());
  thermal_mode_ = enabled;
  if (enabled && !sif_only_mode_) emission_mode_ = EMISSION_THERMAL;
  if (!enabled && emission_mode_ == EMISSION_THERMAL) emission_mode_ = EMISSION_OPTICAL;
  band_wavelengths_ = std::move(wavelengths_nm);
}

void SceneModel::set_sif_only_mode(bool enabled) {
  require_idle_();
  sif_only_mode_ = enabled;
  emission_mode_ =
      enabled ? EMISSION_SIF_ONLY : (thermal_mode_ ? EMISSION_THERMAL : EMISSION_OPTICAL);
}

void SceneModel::instance_world_mesh(int32_t instance, std::vector<float3>& v,
                                     std::vector<int3>& t) const {
  if (instance < 0 || size_t(instance) >= instances_.size())
    throw std::out_of_range("instance_id out of range");
  const Instance& inst = instances_[size_t(instance)];
  const Mesh& mesh = meshes_.at(size_t(inst.mesh_id));
  const float* m = inst.transform;
  const double det = double(m[0]) * (double(m[5]) * m[10] - double(m[6]) * m[9]) -
                     double(m[1]) * (double(m[4]) * m[10] - double(m[6]) * m[8]) +
                     double(m[2]) * (double(m[4]) * m[9] - double(m[5]) * m[8]);
  v.clear();
  for (const float3& p : mesh.vertices) v.push_back(transform_point(m, p));
  t = mesh.indices;
  if (det < 0.0)
    for (int3& tri : t) std::swap(tri.y, tri.z);
}

}  // namespace vesk::scene
