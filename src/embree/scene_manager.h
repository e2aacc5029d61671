#pragma once
// The CPU scene: meshes, instances, materials, spectra, settings and per-primitive
// overrides, held in a two-level Embree structure that answers every CPU ray query.

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/illumination.h"
#include "core/optical_media.h"
#include "core/types.h"

namespace vesk::backend {
struct PhysiologyRequestView;
struct PhysiologyResult;
struct EnergyBalanceProcessRequestView;
struct EnergyBalanceProcessResult;
struct DynamicPhotosynthesisProcessRequestView;
struct DynamicPhotosynthesisResult;
struct PhotosynthesisProcessRequestView;
struct PhotosynthesisStaticResult;
struct SifProcessRequestView;
struct SifProcessResult;
struct SifSourceAssemblyRequestView;
struct SifSourceAssemblyResult;
}  // namespace vesk::backend

namespace vesk::turbid {
struct TurbidHolding;
struct TurbidSamplingDebugRequest;
struct TurbidSamplingDebugResult;
struct TurbidRelationTable;
}  // namespace vesk::turbid

namespace vesk::embree {

struct EmbreeMesh {
  std::vector<float3> vertices;
  std::vector<float3> normals;  // empty, or one per vertex
  std::vector<int3> indices;
  int32_t material_id = 0;
};

struct EmbreeInstance {
  int32_t mesh_id = -1;
  float transform[12] = {};  // row-major 3x4
  int32_t geometry_id = -1;  // Embree's id once built
};

struct EmbreeHit {
  float t = 0.0f;  // t_max on a miss (FLT_MAX in trace_closest)
  float3 position;
  float3 shading_normal{0.0f, 0.0f, 1.0f};
  float3 geometric_normal{0.0f, 0.0f, 1.0f};  // always faces the ray
  int32_t material_id = -1;
  int32_t local_primitive = -1;
  int32_t primitive_id = -1;  // global: instance offset + local primitive
  int32_t instance_id = -1;
  bool hit = false;
  bool back_face = false;
  std::string to_string() const;
};

struct Repetition {
  int32_t num_repetitions = 0;
  float scene_x_size = 0.0f, scene_y_size = 0.0f;
  bool active() const { return num_repetitions > 0 && scene_x_size > 0.0f && scene_y_size > 0.0f; }
};

enum EmissionMode : uint8_t { EMISSION_OPTICAL = 0, EMISSION_THERMAL = 1, EMISSION_SIF_ONLY = 2 };

// Conditional thermal state of TurbidBoundary instances, one entry per instance.
struct InstanceTurbidThermalState {
  std::vector<float> temperature_sunlit, temperature_shaded;  // K, 0 where absent
  std::vector<float> sunlit_fraction, emissivity;             // 0..1
};

// Per-instance SIF source tables, band fastest: spatial [instance][cell][band],
// orientation [instance][bin][band], joint and direct joint [instance][cell][bin][band].
struct InstanceSifSourceFields {
  std::vector<float> spatial_spectra, orientation_spectra, joint_spectra, direct_joint_spectra;
  std::vector<float> bounds_min, bounds_max;  // 3 per instance
  std::vector<int32_t> grid_dims;             // nx, ny, nz per instance
  int32_t n_sif_bands = 0;
  int32_t spatial_cell_stride = 0;
  int32_t orientation_theta_bins = 0, orientation_phi_bins = 0;
  bool empty() const { return grid_dims.empty(); }
};

// Whether every instance's grid can be looked up: dimensions of at least 1 whose cell
// count fits spatial_cell_stride, and finite bounds with an extent above 0 that a float
// holds. grid_dims, bounds_min and bounds_max must hold 3 values per instance.
bool sif_source_grids_valid(const InstanceSifSourceFields& fields);

// The checks of the setters, for n instances; std::invalid_argument on failure.
void check_turbid_thermal_state(const InstanceTurbidThermalState& state, size_t n);
void check_sif_source_fields(const InstanceSifSourceFields& fields, size_t n);

// Everything that defines a scene, as plain values: what pickles and scene files carry.
// Not carried: the Embree structures (rebuilt from this) and Turbid domains.
struct SceneRecipe {
  std::vector<EmbreeMesh> meshes;
  std::vector<EmbreeInstance> instances;  // geometry_id is not carried
  std::vector<MaterialData> materials;
  std::vector<float> spectral;
  int32_t num_bands = 1;
  // The optical turbid media as given (the table is rebuilt from them); the material ids
  // may be fewer than the materials, which may have been added later.
  std::vector<float> media_leaf_area_densities, media_leaf_characteristic_lengths;
  std::vector<int32_t> media_leaf_angle_types, media_orientations, material_medium_ids;
  Emitter emitter;
  SkySelection sky;
  SensorData sensor;
  bool terrain_following = false;
  Repetition repetition;
  bool thermal_mode = false, sif_only_mode = false;
  uint8_t emission_mode = EMISSION_OPTICAL;
  std::vector<float> band_wavelengths;
  float measurement_plane_height = 0.0f;
  bool measurement_plane_set = false;
  // Overrides as set; any of them may be shorter than the scene now is, when instances
  // were added after it was set.
  std::vector<float> primitive_temperatures, primitive_emissivities, primitive_sif_spectra;
  int32_t n_sif_bands = 0;
  InstanceTurbidThermalState instance_turbid_thermal;
  std::vector<float> instance_sif_spectra;
  int32_t instance_n_sif_bands = 0;
  InstanceSifSourceFields instance_sif_source_fields;
  // Whether the scene may be traced, whether the structure matches the instances (what
  // build_reuse_gas needs), and the bounds and revision as of the last build or refit.
  bool built = false, structure_current = false;
  float box_lo[3] = {}, box_hi[3] = {};
  uint64_t geometry_build_revision = 0;
};

// Limits of the settings: tile walls a ray may cross, the smallest tile (the tile
// walk steps 1e-3 inside walls), and bands (so per-band index products fit in int32).
constexpr int32_t MAX_REPETITIONS = 100000;
constexpr float MIN_TILE_SIZE = 0.01f;
constexpr int32_t MAX_BANDS = 100000;

class EmbreeSceneManager {
 public:
  // The lookup a hit goes through; one per instance, in attach order.
  struct InstanceInfo {
    int32_t mesh_id = -1;
    int32_t material_id = -1;
    int32_t primitive_offset = 0;
  };

  EmbreeSceneManager();
  ~EmbreeSceneManager();
  EmbreeSceneManager(const EmbreeSceneManager&) = delete;
  EmbreeSceneManager& operator=(const EmbreeSceneManager&) = delete;

  // ---- the scene as values ----
  SceneRecipe recipe() const;
  // A new scene from a recipe, checked as the setters check their input (the media and
  // the overrides against the counts they were set for); a scene whose structure was
  // current is built again, with the bounds it had. Same recipe, same traced results.
  static std::unique_ptr<EmbreeSceneManager> from_recipe(SceneRecipe recipe);

  // ---- geometry ----
  int32_t add_mesh(std::vector<float3> vertices, std::vector<float3> normals,
                   std::vector<int3> indices, int32_t material_id);
  int32_t add_instance(int32_t mesh_id, const float* transform);
  int32_t add_instance(int32_t mesh_id, float x, float y, float z, float scale);
  int32_t add_instances_xform(int32_t mesh_id, const float* transforms, size_t count);
  void update_instance_transform(int32_t id, const float* transform);
  void refit_ias();

  void build();
  void build_scene();
  void build_reuse_gas();
  void build_reuse_geometry();
  void clear_for_reuse();

  bool is_built() const { return built_; }
  bool has_meshes() const { return !meshes_.empty(); }
  uint64_t geometry_build_revision() const { return geometry_build_revision_; }
  const std::vector<EmbreeMesh>& meshes() const { return meshes_; }
  const std::vector<EmbreeInstance>& instances() const { return instances_; }
  const std::vector<InstanceInfo>& instance_info() const { return instance_info_; }
  int32_t num_instances() const { return int32_t(instances_.size()); }

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
  // Per-primitive data is materialised on demand on the CPU, so it is always "on".
  bool is_populate_primitive_soa() const { return true; }
  void set_populate_primitive_soa(bool) {}

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
    explicit RunGuard(const EmbreeSceneManager& s) : s_(s) { ++s_.running_; }
    ~RunGuard() { --s_.running_; }
    RunGuard(const RunGuard&) = delete;
    RunGuard& operator=(const RunGuard&) = delete;

   private:
    const EmbreeSceneManager& s_;
  };
  bool running() const { return running_.load() > 0; }

  // ---- processes on the scene's elements ----
  // The leaf physiology solver; it reads nothing from the scene.
  backend::PhysiologyResult solve_physiology(const backend::PhysiologyRequestView& view) const;
  // Temperatures coupled through the longwave the primitives trade; they set the scene's
  // per-primitive emissivities and leave its temperatures at the result. A failed run
  // (bad input, an interrupt) leaves both as they were.
  backend::EnergyBalanceProcessResult execute_energy_balance_process(
      const backend::EnergyBalanceProcessRequestView& view);
  backend::DynamicPhotosynthesisResult execute_photosynthesis_process_dynamic(
      const backend::DynamicPhotosynthesisProcessRequestView& view);
  // Sunlit and shaded leaves at given temperatures; it reads nothing from the scene either.
  backend::PhotosynthesisStaticResult execute_photosynthesis_process_static(
      const backend::PhotosynthesisProcessRequestView& view) const;

  // ---- Turbid domains: leaf-area samples of closed leaf volumes ----
  // What the manager holds: domains, relation table, derived tokens, the armed failure.
  turbid::TurbidHolding& turbid();
  const turbid::TurbidHolding& turbid() const;
  // Builds every request into a domain and commits them together (one relation table
  // per request, or one synthesized from its owners); returns the new domain ids. A
  // failure anywhere leaves the manager as it was.
  std::vector<uint64_t> build_turbid_domains(
      const std::vector<turbid::TurbidSamplingDebugRequest>& requests,
      const std::vector<const turbid::TurbidRelationTable*>& relations,
      const std::vector<std::pair<uint64_t, uint64_t>>& global_overlaps);
  // Raises a domain's budget; its accepted samples stay a prefix of the new ones.
  void extend_turbid_samples(uint64_t domain_id, uint32_t sample_budget);
  // The sampler alone, on the CPU; nothing is stored.
  turbid::TurbidSamplingDebugResult debug_turbid_samples(
      const turbid::TurbidSamplingDebugRequest& request) const;
  // One instance's mesh in world space, indexed; a mirroring transform's winding is
  // turned back, so the mesh's own orientation holds.
  void instance_world_mesh(int32_t instance, std::vector<float3>& vertices,
                           std::vector<int3>& triangles) const;
  // The SIF steps read nothing from the scene and need no build: per-element yields and
  // selected absorbed spectra, then the per-instance source tables that
  // set_instance_sif_source_fields takes.
  backend::SifProcessResult finalize_sif_process(const backend::SifProcessRequestView& view) const;
  backend::SifSourceAssemblyResult assemble_sif_source(
      const backend::SifSourceAssemblyRequestView& view) const;

  // ---- ray queries (const and re-entrant once built) ----
  EmbreeHit trace_ray(const float3& origin, const float3& direction, float t_min,
                      float t_max) const;
  bool trace_shadow(const float3& origin, const float3& direction, float t_max) const;
  std::vector<EmbreeHit> trace_closest(const std::vector<backend::Ray>& rays) const;
  // Sun visibility through the repeated tiles: the ray is followed across up to
  // num_repetitions tile walls, wrapping into the tile each time.
  bool shadowed_repetitive(float3 origin, const float3& direction) const;

 private:
  // The bounds of every instance, refused beyond MAX_COORDINATE before anything changes.
  SceneBox checked_scene_box_() const;
  void store_aabb_(const SceneBox& box);
  void require_idle_() const;
  void release_embree_scenes_();

  struct Handles;  // the Embree device and scenes, kept out of this header
  std::unique_ptr<Handles> rtc_;
  std::unique_ptr<turbid::TurbidHolding> turbid_;

  std::vector<EmbreeMesh> meshes_;
  std::vector<EmbreeInstance> instances_;
  std::vector<MaterialData> materials_;
  std::vector<float> spectral_;
  OpticalMediaTable media_;
  Emitter emitter_;
  SensorData sensor_;
  int32_t num_bands_ = 1;
  SkySelection sky_;
  Repetition repetition_;
  bool built_ = false;
  bool structure_current_ = false;  // the Embree structure matches meshes and instances
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

}  // namespace vesk::embree
