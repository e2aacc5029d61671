#pragma once
// SceneModel: the scene every backend holds (meshes, instances, materials, spectra,
// media, light, sensor, modes, overrides) with the setters that check it and the
// per-primitive queries. The backends derive from it and add their ray tracer.

#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "core/illumination.h"
#include "core/optical_media.h"
#include "core/types.h"
#include "scene/overrides.h"
#include "scene/records.h"

namespace vesk::scene {

// Not polymorphic: a backend's scene class derives from it publicly and is used by its
// own type; setters that need more from a backend are wrapped there.
class SceneModel {
 public:
  // The lookup a hit goes through; one per instance, in attach order.
  struct InstanceInfo {
    int32_t mesh_id = -1;
    int32_t material_id = -1;
    int32_t primitive_offset = 0;
  };

  SceneModel(const SceneModel&) = delete;
  SceneModel& operator=(const SceneModel&) = delete;

  // ---- geometry ----
  int32_t add_mesh(std::vector<float3> vertices, std::vector<float3> normals,
                   std::vector<int3> indices, int32_t material_id);
  int32_t add_instance(int32_t mesh_id, const float* transform);
  int32_t add_instance(int32_t mesh_id, float x, float y, float z, float scale);
  int32_t add_instances_xform(int32_t mesh_id, const float* transforms, size_t count);
  // Stores the transform only; the backend's structure sees it at its next refit or build.
  void update_instance_transform(int32_t id, const float* transform);
  // Drops materials, spectra, media, light and modes; the geometry and its acceleration
  // structure stay, and build_reuse_gas() marks the scene usable again.
  void clear_for_reuse();

  bool is_built() const { return built_; }
  bool has_meshes() const { return !meshes_.empty(); }
  uint64_t geometry_build_revision() const { return geometry_build_revision_; }
  const std::vector<Mesh>& meshes() const { return meshes_; }
  const std::vector<Instance>& instances() const { return instances_; }
  const std::vector<InstanceInfo>& instance_info() const { return instance_info_; }
  int32_t num_instances() const { return int32_t(instances_.size()); }
  // One instance's mesh in world space, indexed; a mirroring transform's winding is
  // turned back, so the mesh's own orientation holds.
  void instance_world_mesh(int32_t instance, std::vector<float3>& vertices,
                           std::vector<int3>& triangles) const;

  // ---- materials and spectra ----
  void set_num_bands(int32_t n);
  int32_t num_bands() const { return num_bands_; }
  int32_t add_material(int32_t type, int32_t offset, const float* params, size_t count);
  const std::vector<MaterialData>& materials() const { return materials_; }
  void upload_spectral_params(std::vector<float> values);
  // Overwrites values in place from `offset`; the caller guarantees the range.
  void update_spectral_params(size_t offset, const float* values, size_t count);
  const std::vector<float>& spectral_params() const { return spectral_; }

  // ---- optical turbid media ----
  // Validates and replaces the whole table (nothing is stored on failure).
  void set_optical_turbid_media(const std::vector<float>& leaf_area_densities,
                                const std::vector<int32_t>& leaf_angle_types,
                                const std::vector<int32_t>& orientations,
                                const std::vector<float>& leaf_characteristic_lengths,
                                const std::vector<int32_t>& material_medium_ids);
  const std::vector<OpticalTurbidMediumData>& optical_media() const { return media_.media; }
  const std::vector<int32_t>& material_medium_ids() const { return media_.material_medium_ids; }
  bool has_optical_media() const { return !media_.media.empty(); }
  // The medium a material bounds, -1 for an ordinary material.
  int32_t medium_of_material(int32_t material_id) const {
    const auto& ids = media_.material_medium_ids;
    return material_id >= 0 && size_t(material_id) < ids.size() ? ids[size_t(material_id)] : -1;
  }

  // ---- light, sensor, modes ----
  void set_emitter(int32_t type, float3 direction, int32_t spectral_offset);
  void update_emitter_direction(float3 direction);
  const Emitter& emitter() const { return emitter_; }
  void set_sky(int32_t spectral_offset);
  void set_directional_sky(int32_t spectral_offset);
  void set_hw_sky(int32_t spectral_offset, float3 sun_direction);
  const SkySelection& sky() const { return sky_; }
  void set_sensor(const SensorData& sensor, bool terrain_following);
  const SensorData& sensor() const { return sensor_; }
  bool terrain_following() const { return terrain_following_; }
  void set_repetitive(int32_t num_repetitions, float scene_x_size, float scene_y_size);
  const Repetition& repetition() const { return repetition_; }
  void set_thermal_mode(bool enabled, std::vector<float> wavelengths_nm);
  bool thermal_mode() const { return thermal_mode_; }
  void set_sif_only_mode(bool enabled);
  bool sif_only_mode() const { return sif_only_mode_; }
  EmissionMode emission_mode() const { return EmissionMode(emission_mode_); }
  const std::vector<float>& band_wavelengths() const { return band_wavelengths_; }
  // Until set, the measurement plane is the top of the scene box as of the last build.
  void set_measurement_plane(float height);
  float measurement_plane_height() const {
    return measurement_plane_set_ ? measurement_plane_height_ : max_height_;
  }
  bool measurement_plane_set() const { return measurement_plane_set_; }

  // ---- bounds ----
  // Bounds from the transformed corner boxes of the picked instances; none: +-1e30.
  struct SceneBox {
    float3 lo{1e30f, 1e30f, 1e30f}, hi{-1e30f, -1e30f, -1e30f};
  };
  SceneBox instances_box(const std::function<bool(size_t)>& pick) const;
  float max_height() const { return max_height_; }
  float min_height() const { return min_height_; }
  std::pair<float3, float3> aabb() const;

  // ---- per-primitive queries (global order: instance-major, triangle-minor) ----
  size_t total_triangles() const;
  size_t n_primitives() const { return total_triangles(); }
  std::vector<int32_t> instance_triangle_counts() const;
  std::vector<int32_t> instance_primitive_offsets() const;
  backend::PrimitiveGeometry primitive_geometry() const;
  std::vector<int32_t> primitive_material_ids() const;
  std::vector<float> primitive_areas() const;
  std::vector<float3> primitive_normals() const;

  // ---- overrides read by the thermal and SIF paths ----
  void set_primitive_emissivities(std::vector<float> values);
  void clear_primitive_emissivities();
  const std::vector<float>& primitive_emissivities() const { return primitive_emissivities_; }
  void set_primitive_temperatures(std::vector<float> values);
  void clear_primitive_temperatures();
  const std::vector<float>& primitive_temperatures() const { return primitive_temperatures_; }
  void set_primitive_sif_spectra(std::vector<float> spectra, int32_t n_sif_bands);
  void clear_primitive_sif_spectra();
  const std::vector<float>& primitive_sif_spectra() const { return primitive_sif_spectra_; }
  int32_t n_sif_bands() const { return n_sif_bands_; }

  void set_instance_turbid_thermal_state(InstanceTurbidThermalState state);
  void clear_instance_turbid_thermal_state();
  const InstanceTurbidThermalState& instance_turbid_thermal_state() const {
    return instance_turbid_thermal_;
  }
  void set_instance_sif_spectra(std::vector<float> spectra, int32_t n_sif_bands);
  void clear_instance_sif_spectra();
  const std::vector<float>& instance_sif_spectra() const { return instance_sif_spectra_; }
  int32_t instance_n_sif_bands() const { return instance_n_sif_bands_; }
  void set_instance_sif_source_fields(InstanceSifSourceFields fields);
  void clear_instance_sif_source_fields();
  const InstanceSifSourceFields& instance_sif_source_fields() const {
    return instance_sif_source_fields_;
  }

  // While a simulation runs the scene is read-only: a mutating call (from a progress
  // callback, say) throws std::runtime_error and changes nothing, so the workers never
  // read freed or half-changed memory. Tracers hold one of these for the whole run.
  class RunGuard {
   public:
    explicit RunGuard(const SceneModel& s) : s_(s) { ++s_.running_; }
    ~RunGuard() { --s_.running_; }
    RunGuard(const RunGuard&) = delete;
    RunGuard& operator=(const RunGuard&) = delete;

   private:
    const SceneModel& s_;
  };
  bool running() const { return running_.load() > 0; }

 protected:
  SceneModel() = default;
  ~SceneModel() = default;

  void require_idle_() const;
  // The bounds of every instance, refused beyond MAX_COORDINATE before anything changes.
  SceneBox checked_scene_box_() const;
  void store_aabb_(const SceneBox& box);
  // Rays a ray tracer cannot take, refused before any is traced.
  static void check_rays_(const std::vector<backend::Ray>& rays);

  std::vector<Mesh> meshes_;
  std::vector<Instance> instances_;
  std::vector<MaterialData> materials_;
  std::vector<float> spectral_;
  OpticalMediaTable media_;
  Emitter emitter_;
  SensorData sensor_;
  int32_t num_bands_ = 1;
  SkySelection sky_;
  Repetition repetition_;
  bool built_ = false;
  bool structure_current_ = false;  // the backend's structure matches meshes and instances
  mutable std::atomic<int> running_{0};
  uint64_t geometry_build_revision_ = 0;
  bool terrain_following_ = false;
  bool thermal_mode_ = false;
  bool sif_only_mode_ = false;
  uint8_t emission_mode_ = EMISSION_OPTICAL;
  float max_height_ = 0.0f, min_height_ = 0.0f;
  float x_min_ = 0.0f, x_max_ = 0.0f, y_min_ = 0.0f, y_max_ = 0.0f;
  float measurement_plane_height_ = 0.0f;
  bool measurement_plane_set_ = false;
  std::vector<float> band_wavelengths_;
  std::vector<float> primitive_temperatures_, primitive_emissivities_, primitive_sif_spectra_;
  int32_t n_sif_bands_ = 0;
  InstanceTurbidThermalState instance_turbid_thermal_;
  std::vector<float> instance_sif_spectra_;
  int32_t instance_n_sif_bands_ = 0;
  InstanceSifSourceFields instance_sif_source_fields_;
  std::vector<InstanceInfo> instance_info_;
};

}  // namespace vesk::scene
