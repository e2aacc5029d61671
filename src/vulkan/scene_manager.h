#pragma once
// VulkanSceneManager: the scene of the Vulkan backend. It holds the same records as the
// CPU scene, refused with the same checks and words, and keeps them resident on the
// device: one bottom-level acceleration structure per mesh, one top-level structure over
// the instances, and the tables the ray-query programs read.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/illumination.h"
#include "core/optical_media.h"
#include "core/optical_products.h"
#include "core/progress.h"
#include "core/types.h"
#include "embree/scene_manager.h"  // the scene records all backends share (no Embree)

namespace vesk::microwave {
struct MicrowaveRequest;
}

namespace vesk::vulkan {

class VulkanContext;

using embree::EmissionMode;
using embree::InstanceSifSourceFields;
using embree::InstanceTurbidThermalState;
using embree::Repetition;

struct VulkanHit {
  float t = 0.0f;  // FLT_MAX on a miss
  float3 position;
  float3 shading_normal{0.0f, 0.0f, 1.0f};
  float3 geometric_normal{0.0f, 0.0f, 1.0f};  // always faces the ray
  int32_t material_id = -1;
  int32_t local_primitive = -1;
  int32_t primitive_id = -1;  // global
  int32_t instance_id = -1;
  bool hit = false;
  bool back_face = false;
};

class VulkanSceneManager {
 public:
  struct InstanceInfo {
    int32_t mesh_id = -1;
    int32_t material_id = -1;
    int32_t primitive_offset = 0;
  };

  // program_dir holds the .spv programs; trace_shader names the closest-hit program
  // (a path, or a file name inside program_dir).
  VulkanSceneManager(const VulkanContext& context, const std::string& trace_shader,
                     const std::string& program_dir);
  ~VulkanSceneManager();
  VulkanSceneManager(const VulkanSceneManager&) = delete;
  VulkanSceneManager& operator=(const VulkanSceneManager&) = delete;

  // ---- geometry ----
  int32_t add_mesh(std::vector<float3> vertices, std::vector<float3> normals,
                   std::vector<int3> indices, int32_t material_id);
  int32_t add_instance(int32_t mesh_id, const float* transform);
  int32_t add_instance(int32_t mesh_id, float x, float y, float z, float scale);
  int32_t add_instances_xform(int32_t mesh_id, const float* transforms, size_t count);
  void update_instance_transform(int32_t id, const float* transform);
  // Rebuilds the top-level structure over the current transforms.
  void refit_ias();
  void build();
  void build_reuse_gas();
  void build_reuse_geometry() { build_reuse_gas(); }
  void clear_for_reuse();

  bool is_built() const { return built_; }
  bool has_meshes() const { return !meshes_.empty(); }
  uint64_t geometry_build_revision() const { return geometry_build_revision_; }
  int32_t num_instances() const { return int32_t(instances_.size()); }
  const std::vector<InstanceInfo>& instance_info() const { return instance_info_; }

  // ---- materials and spectra ----
  void set_num_bands(int32_t n);
  int32_t num_bands() const { return num_bands_; }
  int32_t add_material(int32_t type, int32_t offset, const float* params, size_t count);
  const std::vector<MaterialData>& materials() const { return materials_; }
  void upload_spectral_params(std::vector<float> values);
  // Overwrites count values from offset, on the host and on the device; a range past the
  // end is refused.
  void update_spectral_params(size_t offset, const float* values, size_t count);
  const std::vector<float>& spectral_params() const { return spectral_; }

  // ---- optical turbid media (kept and checked; the device tracers refuse them) ----
  void set_optical_turbid_media(const std::vector<float>& leaf_area_densities,
                                const std::vector<int32_t>& leaf_angle_types,
                                const std::vector<int32_t>& orientations,
                                const std::vector<float>& leaf_characteristic_lengths,
                                const std::vector<int32_t>& material_medium_ids);
  const std::vector<OpticalTurbidMediumData>& optical_media() const { return media_.media; }
  const std::vector<int32_t>& material_medium_ids() const { return media_.material_medium_ids; }
  bool has_optical_media() const { return !media_.media.empty(); }

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
  EmissionMode emission_mode() const { return EmissionMode(emission_mode_); }
  const std::vector<float>& band_wavelengths() const { return band_wavelengths_; }
  void set_measurement_plane(float height);

  // ---- bounds ----
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
  // The per-primitive tables go to the device at every build; the flag is kept for
  // callers that set it.
  bool is_populate_primitive_soa() const {
    return populate_soa_ || thermal_mode_ || emission_mode_ == embree::EMISSION_SIF_ONLY;
  }
  void set_populate_primitive_soa(bool on) { populate_soa_ = on; }

  // ---- overrides read by the thermal and SIF paths ----
  void set_primitive_emissivities(std::vector<float> values);
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
  void set_instance_sif_spectra(std::vector<float> spectra, int32_t n_sif_bands);
  void clear_instance_sif_spectra();
  void set_instance_sif_source_fields(InstanceSifSourceFields fields);
  void clear_instance_sif_source_fields();

  // ---- device work ----
  std::vector<VulkanHit> trace_closest(const std::vector<backend::Ray>& rays) const;
  // The backward path tracer of simulate_cpu, one invocation per pixel sample.
  backend::OpticalProductResult simulate_backward(int spp, int max_depth,
                                                  const ProgressFn& progress,
                                                  const backend::OpticalProductRequest& request);

  // Microwave transport, one invocation per ray (4-float records): per ray (T_H, T_V, 0, 0)
  // in kelvin, or sigma0 (HH, HV, VH, VV) when active_mode. The tables are those of
  // microwave::MicrowaveTables; trunk_dihedral_scattering holds the trunks' specular
  // Mueller tables and dihedral_ground_table the trunk-ground double bounce.
  std::vector<float> run_microwave_wavefront(
      bool active_mode, int max_depth, float air_temperature, float atmosphere_tau, int soil_count,
      int vegetation_count, int trunk_count, int response_table_size,
      const std::vector<float>& origins, const std::vector<float>& directions,
      const std::vector<int32_t>& material_map, const std::vector<float>& passive_soil_table,
      const std::vector<float>& active_soil_table, const std::vector<float>& smooth_soil_table,
      const std::vector<float>& vegetation_parameters,
      const std::vector<float>& trunk_response_table,
      const std::vector<float>& trunk_dihedral_scattering,
      const std::vector<float>& dihedral_ground_table, const std::vector<int32_t>& lut_info,
      const std::vector<float>& mueller_lut, const std::vector<float>& cosine_cdf,
      const std::vector<float>& azimuth_cdf) const;
  // The image of simulate_microwave_cpu / simulate_active_microwave_cpu on the device:
  // [height][width][n_channels].
  std::vector<float> simulate_microwave(const microwave::MicrowaveRequest& q) const;

  struct Device;  // buffers, structures and programs, kept out of this header

 private:
  void require_idle_() const;
  void upload_geometry_();
  void build_top_level_();

  const VulkanContext& context_;
  std::string trace_shader_, program_dir_;
  std::unique_ptr<Device> dev_;

  std::vector<embree::EmbreeMesh> meshes_;
  std::vector<embree::EmbreeInstance> instances_;
  std::vector<MaterialData> materials_;
  std::vector<float> spectral_;
  OpticalMediaTable media_;
  Emitter emitter_;
  SensorData sensor_;
  int32_t num_bands_ = 1;
  SkySelection sky_;
  Repetition repetition_;
  bool built_ = false;
  bool structure_current_ = false;
  bool populate_soa_ = false;
  mutable int running_ = 0;
  uint64_t geometry_build_revision_ = 0;
  bool terrain_following_ = false;
  bool thermal_mode_ = false;
  bool sif_only_mode_ = false;
  uint8_t emission_mode_ = embree::EMISSION_OPTICAL;
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

}  // namespace vesk::vulkan
