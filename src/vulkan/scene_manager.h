#pragma once
// VulkanSceneManager: the scene of the Vulkan backend. It holds the shared scene model,
// refused with the same checks and words as the CPU scene, and keeps it resident on the
// device: one bottom-level acceleration structure per mesh, one top-level structure over
// the instances, and the tables the ray-query programs read.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/optical_products.h"
#include "core/progress.h"
#include "core/types.h"
#include "physiology/energy_balance_process.h"
#include "physiology/leaf_solver.h"
#include "physiology/photosynthesis_dynamic.h"
#include "physiology/photosynthesis_static.h"
#include "physiology/sif_assembly.h"
#include "physiology/sif_finalization.h"
#include "scene/photon_requests.h"
#include "lidar/lidar_request.h"
#include "scene/energy_balance_request.h"
#include "scene/scene_model.h"
#include "turbid/domain.h"

namespace vesk::microwave {
struct MicrowaveRequest;
}

namespace vesk::vulkan {

class VulkanContext;

using scene::EmissionMode;
using scene::InstanceSifSourceFields;
using scene::InstanceTurbidThermalState;
using scene::Repetition;

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

class VulkanSceneManager : public scene::SceneModel {
 public:
  // program_dir holds the .spv programs; trace_shader names the closest-hit program
  // (a path, or a file name inside program_dir).
  VulkanSceneManager(const VulkanContext& context, const std::string& trace_shader,
                     const std::string& program_dir);
  ~VulkanSceneManager();
  VulkanSceneManager(const VulkanSceneManager&) = delete;
  VulkanSceneManager& operator=(const VulkanSceneManager&) = delete;

  // ---- geometry: the setters of SceneModel, and the device structures ----
  // Rebuilds the top-level structure over the current transforms.
  void refit_ias();
  void build();
  void build_reuse_gas();
  void build_reuse_geometry() { build_reuse_gas(); }

  // Overwrites count values from offset, on the host and on the device; a range past the
  // end is refused.
  void update_spectral_params(size_t offset, const float* values, size_t count);

  // The per-primitive tables go to the device at every build; the flag is kept for
  // callers that set it.
  bool is_populate_primitive_soa() const {
    return populate_soa_ || thermal_mode_ || emission_mode_ == scene::EMISSION_SIF_ONLY;
  }
  void set_populate_primitive_soa(bool on) { populate_soa_ = on; }

  // Read only by leaves inside optical media, whose fields the device tracers do not read
  // yet (they refuse such runs): the tables are kept for the host and checked for shape.
  void set_instance_sif_source_fields(InstanceSifSourceFields fields);

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

  // ---- element processes: compute programs that trace no rays; each validates with the
  // host form's validator first and computes what the host form computes (elements.cpp).
  backend::PhysiologyResult solve_physiology(const backend::PhysiologyRequestView& v) const;
  backend::PhotosynthesisStaticResult execute_photosynthesis_process_static(
      const backend::PhotosynthesisProcessRequestView& v) const;
  backend::SifProcessResult finalize_sif_process(const backend::SifProcessRequestView& v) const;
  backend::SifSourceAssemblyResult assemble_sif_source(
      const backend::SifSourceAssemblyRequestView& v) const;
  // The coupled processes of the CPU scene (scene_physiology.cpp): the same host loop, with
  // the device energy-balance transport and, for the dynamic photosynthesis, the device
  // leaf solver. The scene keeps the emissivities and the final temperatures; a failure
  // puts both back as they were.
  backend::EnergyBalanceProcessResult execute_energy_balance_process(
      const backend::EnergyBalanceProcessRequestView& v);
  backend::DynamicPhotosynthesisResult execute_photosynthesis_process_dynamic(
      const backend::DynamicPhotosynthesisProcessRequestView& v);
  // The leaf-area sampler's driver with the device as candidate filler.
  turbid::TurbidSamplingDebugResult debug_turbid_samples(
      const turbid::TurbidSamplingDebugRequest& request) const;
  // That filler (turbid_sampling.spv), for drivers of their own; it keeps the owner it
  // saw last on the device, so it must not outlive this scene.
  turbid::CandidateFiller turbid_candidate_filler() const;
  // The photon processes of simulate_flux_cpu, simulate_forward_cpu and (with
  // request.brf_entry) simulate_brf_cpu: the same checks, photons and sums, one device
  // invocation per photon, through optical turbid media where the scene has them.
  scene::FluxResult simulate_flux(const scene::FluxRequest& request, const ProgressFn& progress);
  scene::ForwardResult simulate_forward_radiation(const scene::ForwardRequest& request,
                                                  const ProgressFn& progress);
  // The energy-balance transports of run_energy_balance_cpu and
  // run_energy_balance_multiband_cpu on the device: the CPU kernels' samples and draws,
  // one invocation per primitive, validated by the CPU's validators first.
  void run_energy_balance_gpu(const scene::EnergyBalanceRequest& r, int64_t albedo_size,
                              scene::EnergyBalanceResult& out) const;
  void run_energy_balance_multiband_gpu(const scene::MultibandEnergyBalanceRequest& r,
                                        scene::MultibandEnergyBalanceResult& out) const;
  // The scanner of simulate_lidar_cpu: direct points or raw waveforms on the device, one
  // invocation per pulse; the waveform post-processing runs on the host.
  lidar::LidarResult simulate_lidar(const lidar::LidarRequest& q, const ProgressFn& progress) const;

  struct Device;  // buffers, structures and programs, kept out of this header

 private:
  std::vector<double> energy_balance_sums_(const scene::EnergyBalancePrimitives& prims,
                                           const void* params, size_t params_bytes,
                                           const std::vector<float>& inputs,
                                           const std::vector<float>& spectral, int32_t slots) const;
  void require_energy_balance_device_(const char* what) const;

  const VulkanContext& context_;
  std::string trace_shader_, program_dir_;
  std::unique_ptr<Device> dev_;
  bool populate_soa_ = false;

  void check_photon_scene(const char* entry) const;
  // Runs photons first_photon .. + num_photons of program (0 flux, 1 forward, 2 BRF;
  // the media forms where the scene has media) in dispatches and returns their exact sums in the CPU's units.
  PhotonSums run_photons(int program, const void* params, size_t fields,
                         const std::vector<int32_t>& units, const scene::EmissionContext& e,
                         int64_t first_photon, int64_t num_photons, int32_t max_depth,
                         const std::vector<float>& layers, const std::vector<float3>& dirs,
                         const ProgressFn& progress);
};

}  // namespace vesk::vulkan
