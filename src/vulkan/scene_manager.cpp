// VulkanSceneManager: the host records, refused with the checks the CPU scene uses.
#include "vulkan/scene_manager.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include "core/array_check.h"
#include "core/scene_checks.h"
#include "vulkan/context.h"
#include "vulkan/device_scene.h"

namespace vesk::vulkan {

using embree::EmbreeInstance;
using embree::EmbreeMesh;

VulkanSceneManager::VulkanSceneManager(const VulkanContext& context,
                                       const std::string& trace_shader,
                                       const std::string& program_dir)
    : context_(context), trace_shader_(trace_shader), program_dir_(program_dir) {
  dev_ = std::make_unique<Device>(context, resolve_program(trace_shader, program_dir));
}

VulkanSceneManager::~VulkanSceneManager() = default;

void VulkanSceneManager::require_idle_() const {
  if (running_ > 0)
    throw std::runtime_error("the scene cannot be changed while a simulation is running on it");
}

int32_t VulkanSceneManager::add_mesh(std::vector<float3> vertices, std::vector<float3> normals,
                                     std::vector<int3> indices, int32_t material_id) {
  require_idle_();
  check_mesh(vertices, normals, indices);
  meshes_.push_back(
      EmbreeMesh{std::move(vertices), std::move(normals), std::move(indices), material_id});
  return int32_t(meshes_.size() - 1);
}

int32_t VulkanSceneManager::add_instance(int32_t mesh_id, const float* transform) {
  require_idle_();
  backend::validate_instance_mesh_id(mesh_id, meshes_.size());
  if (!transform) throw std::invalid_argument("instance transform must not be null");
  check_transform("xform", transform);
  built_ = structure_current_ = false;
  EmbreeInstance inst;
  inst.mesh_id = mesh_id;
  std::memcpy(inst.transform, transform, sizeof(inst.transform));
  instances_.push_back(inst);
  return int32_t(instances_.size() - 1);
}

int32_t VulkanSceneManager::add_instance(int32_t mesh_id, float x, float y, float z, float scale) {
  check_instance_placement(x, y, z, scale);
  float m[12];
  scaled_translation(x, y, z, scale, m);
  return add_instance(mesh_id, m);
}

int32_t VulkanSceneManager::add_instances_xform(int32_t mesh_id, const float* transforms,
                                                size_t count) {
  if (count == 0) return int32_t(instances_.size());
  backend::validate_instance_mesh_id(mesh_id, meshes_.size());
  if (!transforms) throw std::invalid_argument("instance transforms must not be null");
  require_idle_();
  for (size_t i = 0; i < count; ++i) check_transform("xforms", transforms + 12 * i);
  built_ = structure_current_ = false;
  const int32_t first = int32_t(instances_.size());
  instances_.reserve(instances_.size() + count);
  for (size_t i = 0; i < count; ++i) {
    EmbreeInstance inst;
    inst.mesh_id = mesh_id;
    std::memcpy(inst.transform, transforms + 12 * i, sizeof(inst.transform));
    instances_.push_back(inst);
  }
  return first;
}

void VulkanSceneManager::update_instance_transform(int32_t id, const float* transform) {
  if (id < 0 || size_t(id) >= instances_.size())
    throw std::out_of_range("update_instance_transform: id out of range");
  require_idle_();
  check_transform("xform", transform);
  // The device sees the new transform at the next refit_ias() or build().
  std::memcpy(instances_[size_t(id)].transform, transform, 12 * sizeof(float));
}

namespace {

struct Box {
  float3 lo{1e30f, 1e30f, 1e30f}, hi{-1e30f, -1e30f, -1e30f};
};

// Transformed corner boxes of every instance, refused beyond 1e9 before anything changes.
Box checked_box(const std::vector<EmbreeMesh>& meshes, const std::vector<EmbreeInstance>& insts) {
  std::vector<std::array<float3, 2>> mesh_box(meshes.size());
  for (size_t m = 0; m < meshes.size(); ++m) {
    float3 lo{1e30f, 1e30f, 1e30f}, hi{-1e30f, -1e30f, -1e30f};
    for (const float3& v : meshes[m].vertices) {
      lo = {std::min(lo.x, v.x), std::min(lo.y, v.y), std::min(lo.z, v.z)};
      hi = {std::max(hi.x, v.x), std::max(hi.y, v.y), std::max(hi.z, v.z)};
    }
    mesh_box[m] = {lo, hi};
  }
  Box b;
  for (const EmbreeInstance& inst : insts) {
    const auto& box = mesh_box.at(size_t(inst.mesh_id));
    for (int c = 0; c < 8; ++c) {
      const float3 corner{(c & 1) ? box[1].x : box[0].x, (c & 2) ? box[1].y : box[0].y,
                          (c & 4) ? box[1].z : box[0].z};
      const float3 p = transform_point(inst.transform, corner);
      b.lo = {std::min(b.lo.x, p.x), std::min(b.lo.y, p.y), std::min(b.lo.z, p.z)};
      b.hi = {std::max(b.hi.x, p.x), std::max(b.hi.y, p.y), std::max(b.hi.z, p.z)};
    }
  }
  for (const float v : {b.lo.x, b.lo.y, b.lo.z, b.hi.x, b.hi.y, b.hi.z})
    if (!(std::fabs(v) <= MAX_COORDINATE) && !insts.empty())
      throw std::invalid_argument(
          "the scene reaches beyond 1e9 scene units from the origin; move or scale it closer");
  return b;
}

}  // namespace

void VulkanSceneManager::build() {
  require_idle_();
  const Box b = checked_box(meshes_, instances_);
  built_ = structure_current_ = false;
  instance_info_.clear();
  int32_t offset = 0;
  for (const EmbreeInstance& inst : instances_) {
    const EmbreeMesh& mesh = meshes_[size_t(inst.mesh_id)];
    instance_info_.push_back({inst.mesh_id, mesh.material_id, offset});
    offset += int32_t(mesh.indices.size());
  }
  dev_->build(meshes_, instances_, instance_info_);
  x_min_ = b.lo.x, y_min_ = b.lo.y, min_height_ = b.lo.z;
  x_max_ = b.hi.x, y_max_ = b.hi.y, max_height_ = b.hi.z;
  built_ = structure_current_ = true;
  ++geometry_build_revision_;
}

void VulkanSceneManager::refit_ias() {
  if (!built_) throw std::runtime_error("refit_ias: scene not built. Call build() first.");
  require_idle_();
  const Box b = checked_box(meshes_, instances_);
  dev_->rebuild_top_level(instances_, instance_info_);
  x_min_ = b.lo.x, y_min_ = b.lo.y, min_height_ = b.lo.z;
  x_max_ = b.hi.x, y_max_ = b.hi.y, max_height_ = b.hi.z;
  ++geometry_build_revision_;
}

void VulkanSceneManager::build_reuse_gas() {
  require_idle_();
  if (!structure_current_)
    throw std::runtime_error(
        "build_reuse_gas: no acceleration structure of the current geometry to reuse. Call "
        "build() first.");
  built_ = true;
}

void VulkanSceneManager::clear_for_reuse() {
  require_idle_();
  materials_.clear();
  spectral_.clear();
  media_ = {};
  sky_ = SkySelection{};
  thermal_mode_ = false;
  sif_only_mode_ = false;
  emission_mode_ = embree::EMISSION_OPTICAL;
  emitter_ = Emitter{};
  band_wavelengths_.clear();
  num_bands_ = 0;
  built_ = false;
}

std::pair<float3, float3> VulkanSceneManager::aabb() const {
  return {float3{x_min_, y_min_, min_height_}, float3{x_max_, y_max_, max_height_}};
}

// ---- materials, spectra, settings ----

void VulkanSceneManager::set_num_bands(int32_t n) {
  require_idle_();
  check_num_bands(n, embree::MAX_BANDS);
  num_bands_ = n;
}

int32_t VulkanSceneManager::add_material(int32_t type, int32_t offset, const float* params,
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

void VulkanSceneManager::upload_spectral_params(std::vector<float> values) {
  require_idle_();
  check_finite("values", values.data(), values.size());
  spectral_ = std::move(values);
}

void VulkanSceneManager::update_spectral_params(size_t offset, const float* values, size_t count) {
  require_idle_();
  if (offset > spectral_.size() || count > spectral_.size() - offset)
    throw std::out_of_range("Vulkan spectral update is outside the buffer");
  check_finite("values", values, count);
  std::copy(values, values + count, spectral_.begin() + std::ptrdiff_t(offset));
}

void VulkanSceneManager::set_optical_turbid_media(const std::vector<float>& densities,
                                                  const std::vector<int32_t>& types,
                                                  const std::vector<int32_t>& orientations,
                                                  const std::vector<float>& lengths,
                                                  const std::vector<int32_t>& material_medium_ids) {
  require_idle_();
  media_ = validate_optical_turbid_media(densities, types, orientations, lengths,
                                         material_medium_ids, materials_.size());
}

void VulkanSceneManager::set_emitter(int32_t type, float3 direction, int32_t spectral_offset) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  emitter_ = Emitter{type, unit_direction("direction", direction), spectral_offset};
}

void VulkanSceneManager::update_emitter_direction(float3 direction) {
  require_idle_();
  emitter_.direction = unit_direction("direction", direction);
}

void VulkanSceneManager::set_sky(int32_t spectral_offset) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  sky_.uniform_offset = spectral_offset;
  sky_.directional_offset = -1;
  sky_.hw_offset = -1;
}

void VulkanSceneManager::set_directional_sky(int32_t spectral_offset) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  sky_.directional_offset = spectral_offset;
  sky_.hw_offset = -1;
}

void VulkanSceneManager::set_hw_sky(int32_t spectral_offset, float3 sun_direction) {
  require_idle_();
  check_spectral_offset("spectral_offset", spectral_offset);
  const float3 sun = unit_direction("sun direction", sun_direction);
  sky_.hw_offset = spectral_offset;
  sky_.hw_sun_direction = sun;
  sky_.uniform_offset = -1;
  sky_.directional_offset = -1;
}

void VulkanSceneManager::set_sensor(const SensorData& sensor, bool terrain_following) {
  require_idle_();
  check_sensor(sensor);
  sensor_ = sensor;
  terrain_following_ = terrain_following;
}

void VulkanSceneManager::set_repetitive(int32_t num_repetitions, float scene_x_size,
                                        float scene_y_size) {
  require_idle_();
  check_repetition(num_repetitions, scene_x_size, scene_y_size, embree::MAX_REPETITIONS,
                   embree::MIN_TILE_SIZE);
  repetition_ = Repetition{num_repetitions, scene_x_size, scene_y_size};
}

void VulkanSceneManager::set_measurement_plane(float height) {
  require_idle_();
  check_coordinates("height", &height, 1);
  measurement_plane_height_ = height;
  measurement_plane_set_ = true;
}

void VulkanSceneManager::set_thermal_mode(bool enabled, std::vector<float> wavelengths_nm) {
  require_idle_();
  check_finite("wavelengths", wavelengths_nm.data(), wavelengths_nm.size());
  thermal_mode_ = enabled;
  if (enabled && !sif_only_mode_) emission_mode_ = embree::EMISSION_THERMAL;
  if (!enabled && emission_mode_ == embree::EMISSION_THERMAL)
    emission_mode_ = embree::EMISSION_OPTICAL;
  band_wavelengths_ = std::move(wavelengths_nm);
}

void VulkanSceneManager::set_sif_only_mode(bool enabled) {
  require_idle_();
  sif_only_mode_ = enabled;
  emission_mode_ = enabled ? embree::EMISSION_SIF_ONLY
                           : (thermal_mode_ ? embree::EMISSION_THERMAL : embree::EMISSION_OPTICAL);
}

// ---- per-primitive queries ----

size_t VulkanSceneManager::total_triangles() const {
  size_t n = 0;
  for (const EmbreeInstance& inst : instances_)
    n += meshes_.at(size_t(inst.mesh_id)).indices.size();
  return n;
}

std::vector<int32_t> VulkanSceneManager::instance_triangle_counts() const {
  std::vector<int32_t> counts;
  for (const EmbreeInstance& inst : instances_)
    counts.push_back(int32_t(meshes_.at(size_t(inst.mesh_id)).indices.size()));
  return counts;
}

std::vector<int32_t> VulkanSceneManager::instance_primitive_offsets() const {
  std::vector<int32_t> offsets = instance_triangle_counts();
  int32_t running = 0;
  for (int32_t& o : offsets) std::swap(o, running), running += o;
  return offsets;
}

backend::PrimitiveGeometry VulkanSceneManager::primitive_geometry() const {
  backend::PrimitiveGeometry g;
  int32_t prim = 0;
  for (size_t i = 0; i < instances_.size(); ++i) {
    const EmbreeInstance& inst = instances_[i];
    const EmbreeMesh& mesh = meshes_.at(size_t(inst.mesh_id));
    for (const int3& t : mesh.indices) {
      const float3 a = transform_point(inst.transform, mesh.vertices[size_t(t.x)]);
      const float3 b = transform_point(inst.transform, mesh.vertices[size_t(t.y)]);
      const float3 c = transform_point(inst.transform, mesh.vertices[size_t(t.z)]);
      const float3 n3 = cross(b - a, c - a);
      g.vertices.insert(g.vertices.end(), {a, b, c});
      g.normals.push_back(normalize(n3));
      g.areas.push_back(0.5f * length(n3));
      g.material_ids.push_back(mesh.material_id);
      g.instance_ids.push_back(int32_t(i));
      g.primitive_ids.push_back(prim++);
    }
  }
  return g;
}

std::vector<int32_t> VulkanSceneManager::primitive_material_ids() const {
  return primitive_geometry().material_ids;
}
std::vector<float> VulkanSceneManager::primitive_areas() const {
  return primitive_geometry().areas;
}
std::vector<float3> VulkanSceneManager::primitive_normals() const {
  return primitive_geometry().normals;
}

// ---- overrides ----
// The texts are the CPU scene's, word for word (its backend's name included), so that a
// caller sees one set of refusals whichever scene it fills.

void VulkanSceneManager::set_primitive_emissivities(std::vector<float> values) {
  require_idle_();
  if (values.size() != n_primitives())
    throw std::invalid_argument("Embree primitive emissivity count must equal n_primitives()");
  check_non_negative("emissivities", values.data(), values.size());
  primitive_emissivities_ = std::move(values);
}

void VulkanSceneManager::set_primitive_temperatures(std::vector<float> values) {
  require_idle_();
  if (values.size() != n_primitives())
    throw std::invalid_argument("Embree primitive temperature count must equal n_primitives()");
  check_non_negative("temperatures", values.data(), values.size());
  primitive_temperatures_ = std::move(values);
}

void VulkanSceneManager::clear_primitive_temperatures() {
  require_idle_();
  primitive_temperatures_.clear();
}

void VulkanSceneManager::set_primitive_sif_spectra(std::vector<float> spectra,
                                                   int32_t n_sif_bands) {
  require_idle_();
  if (n_sif_bands < 1) throw std::invalid_argument("Embree SIF band count must be positive");
  if (spectra.size() != size_t(n_sif_bands) * n_primitives())
    throw std::invalid_argument(
        "Embree primitive SIF spectrum size must equal bands * n_primitives()");
  check_finite("spectra", spectra.data(), spectra.size());
  primitive_sif_spectra_ = std::move(spectra);
  n_sif_bands_ = n_sif_bands;
}

void VulkanSceneManager::clear_primitive_sif_spectra() {
  require_idle_();
  primitive_sif_spectra_.clear();
  n_sif_bands_ = 0;
}

void VulkanSceneManager::set_instance_turbid_thermal_state(InstanceTurbidThermalState s) {
  require_idle_();
  const size_t n = instances_.size();
  check_length("temperature_sunlit", s.temperature_sunlit.size(), n);
  check_length("temperature_shaded", s.temperature_shaded.size(), n);
  check_length("sunlit_fraction", s.sunlit_fraction.size(), n);
  check_length("emissivity", s.emissivity.size(), n);
  check_finite("temperature_sunlit", s.temperature_sunlit.data(), n);
  check_finite("temperature_shaded", s.temperature_shaded.data(), n);
  check_finite("sunlit_fraction", s.sunlit_fraction.data(), n);
  check_finite("emissivity", s.emissivity.data(), n);
  for (size_t i = 0; i < n; ++i) {
    // A temperature of 0 marks an instance without turbid thermal state.
    if (s.temperature_sunlit[i] < 0.0f || s.temperature_shaded[i] < 0.0f ||
        s.sunlit_fraction[i] < 0.0f || s.sunlit_fraction[i] > 1.0f || s.emissivity[i] < 0.0f ||
        s.emissivity[i] > 1.0f)
      throw std::invalid_argument("instance turbid thermal state is outside its domain");
  }
  instance_turbid_thermal_ = std::move(s);
}

void VulkanSceneManager::clear_instance_turbid_thermal_state() {
  require_idle_();
  instance_turbid_thermal_ = {};
}

void VulkanSceneManager::set_instance_sif_spectra(std::vector<float> spectra, int32_t n_sif_bands) {
  require_idle_();
  if (n_sif_bands < 1) throw std::invalid_argument("Embree SIF band count must be positive");
  if (spectra.size() != size_t(n_sif_bands) * instances_.size())
    throw std::invalid_argument(
        "Embree instance SIF spectrum size must equal bands * num_instances()");
  check_finite("spectra", spectra.data(), spectra.size());
  instance_sif_spectra_ = std::move(spectra);
  instance_n_sif_bands_ = n_sif_bands;
}

void VulkanSceneManager::clear_instance_sif_spectra() {
  require_idle_();
  instance_sif_spectra_.clear();
  instance_n_sif_bands_ = 0;
}

void VulkanSceneManager::set_instance_sif_source_fields(InstanceSifSourceFields f) {
  require_idle_();
  // Read only by leaves inside optical media, which the device tracers refuse: the
  // tables are kept for the host and checked for shape alone.
  const size_t n = instances_.size();
  if (f.n_sif_bands < 1 || f.spatial_cell_stride < 1 || f.orientation_theta_bins < 1 ||
      f.orientation_phi_bins < 1)
    throw std::invalid_argument("set_instance_sif_source_fields: dimensions must be positive");
  const double bands = f.n_sif_bands, cells = f.spatial_cell_stride,
               bins = double(f.orientation_theta_bins) * f.orientation_phi_bins;
  if (f.grid_dims.size() != 3 * n || f.bounds_min.size() != 3 * n || f.bounds_max.size() != 3 * n ||
      double(f.spatial_spectra.size()) != double(n) * cells * bands ||
      double(f.orientation_spectra.size()) != double(n) * bins * bands ||
      double(f.joint_spectra.size()) != double(n) * cells * bins * bands ||
      double(f.direct_joint_spectra.size()) != double(n) * cells * bins * bands)
    throw std::invalid_argument("set_instance_sif_source_fields: array length mismatch");
  for (const auto* v : {&f.spatial_spectra, &f.orientation_spectra, &f.joint_spectra,
                        &f.direct_joint_spectra, &f.bounds_min, &f.bounds_max})
    check_finite("set_instance_sif_source_fields", v->data(), v->size());
  instance_sif_source_fields_ = std::move(f);
}

void VulkanSceneManager::clear_instance_sif_source_fields() {
  require_idle_();
  instance_sif_source_fields_ = {};
}

}  // namespace vesk::vulkan
