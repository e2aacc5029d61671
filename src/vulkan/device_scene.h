#pragma once
// What a VulkanSceneManager keeps on the device: the geometry tables the programs read,
// one bottom-level acceleration structure per mesh, the top-level structure over the
// instances, and the compute programs loaded from their .spv files.

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "physiology/leaf_solver.h"
#include "scene/scene_model.h"
#include "vulkan/buffer.h"
#include "vulkan/context.h"
#include "vulkan/scene_manager.h"

namespace vesk::vulkan {

// name if it is a path to a file, else name inside dir.
std::string resolve_program(const std::string& name, const std::string& dir);

// One device program in the form the context's trace path takes: for ray queries, the
// compute shader spv_path (<name>.spv); for the ray-tracing pipeline, <name>.rgen.spv with
// hit.rchit.spv and miss.rmiss.spv from the same folder, and its shader binding table.
// Either way a single descriptor set whose bindings are the listed types, in order, plus
// push constants of push_bytes, and dispatch() runs `invocations` one-dimensional
// invocations.
class Program {
 public:
  // purpose, when given, labels the descriptor and pipeline calls' failures, as in
  // "vkCreateDescriptorPool(microwave)".
  // ray_free: a program that traces no rays, always a plain compute shader <name>.spv,
  // whatever the context's trace path.
  Program(const VulkanContext& context, const std::string& spv_path,
          std::vector<VkDescriptorType> bindings, uint32_t push_bytes,
          const std::string& purpose = "", bool ray_free = false);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void bind(uint32_t binding, const Buffer& buffer);
  void bind(uint32_t binding, VkAccelerationStructureKHR tlas);
  void dispatch(VkCommandBuffer cb, uint32_t invocations, const void* push) const;
  // Zero-fills the buffers and makes the writes visible to this program's next dispatch.
  void clear(VkCommandBuffer cb, std::initializer_list<VkBuffer> buffers) const;
  // groups_x * groups_y workgroups of WORKGROUP (compute), or a launch of the same
  // total, WORKGROUP * groups_x wide and groups_y high (pipeline); programs number their
  // invocations with GRID_INVOCATION_ID.
  void dispatch_grid(VkCommandBuffer cb, uint32_t groups_x, uint32_t groups_y,
                     const void* push) const;
  // A one-dimensional dispatch of any length as a grid (at most 65535 groups along x).
  void dispatch_wide(VkCommandBuffer cb, uint64_t invocations, const void* push) const;

 private:
  const VulkanContext& context_;
  uint32_t push_bytes_;
  std::vector<VkDescriptorType> types_;
  std::string suffix_;  // "(purpose)" or empty
  std::string label_(const char* call) const { return call + suffix_; }
  void create_compute_(const std::string& spv_path);
  void release_();
  void create_ray_pipeline_(const std::string& spv_path);

  std::vector<VkShaderModule> modules_;
  uint32_t stage_ = 0;  // VkShaderStageFlagBits of the bindings and push constants
  VkPipelineBindPoint bind_point_ = VK_PIPELINE_BIND_POINT_COMPUTE;
  Buffer binding_table_;  // ray generation, miss and hit records (pipeline path)
  VkStridedDeviceAddressRegionKHR raygen_region_{}, miss_region_{}, hit_region_{};
  VkDescriptorSetLayout set_layout_ = VK_NULL_HANDLE;
  VkPipelineLayout layout_ = VK_NULL_HANDLE;
  VkPipeline pipeline_ = VK_NULL_HANDLE;
  VkDescriptorPool pool_ = VK_NULL_HANDLE;
  VkDescriptorSet set_ = VK_NULL_HANDLE;
};

// Workgroup width of every program (local_size_x in the shaders), and the most
// invocations one dispatch may have on any device (65535 workgroups along x; a ray
// dispatch of that width is within every device's limits too).
constexpr uint32_t WORKGROUP = 64;
constexpr uint32_t MAX_DISPATCH = 65535u * WORKGROUP;

// Makes the storage writes of one compute dispatch visible to the next, and to the host.
void compute_barrier(const VulkanContext& context, VkCommandBuffer cb);

// Storage buffer the host fills and reads; at least 16 bytes, since Vulkan has no empty
// buffers.
Buffer storage_buffer(const VulkanContext& context, size_t bytes, unsigned extra_usage = 0);

// The leaf solver's device workspace, built for one shape (elements, bands) and one mode
// (with or without the energy balance) and reused by repeated calls, so that a coupling
// loop uploads only what changes: a descriptor pool of 29 storage buffers, apar then 28
// element-sized buffers (11 leaf inputs, 8 energy-balance inputs, 9 outputs; vpd enters
// no formula and stays on the host). The energy-balance buffers are sized by the mode of
// the first call.
class PhysiologyWorkspace {
 public:
  PhysiologyWorkspace(const VulkanContext& context, const std::string& spv_path, int32_t n_elements,
                      int32_t n_bands, bool energy_balance);
  bool fits(const backend::PhysiologyRequestView& v) const {
    return v.n_elements == n_elements_ && v.n_bands == n_bands_ &&
           v.dynamic_energy_balance == energy_balance_;
  }
  // Validates v (the shared validator), refuses another shape or mode, uploads apar,
  // temperature and the absorbed radiation, and the other inputs on the first call or
  // when static_inputs_changed; then solves every element and reads back what
  // v.read_back_outputs asks for.
  void solve(const backend::PhysiologyRequestView& v, bool static_inputs_changed,
             backend::PhysiologyResult& r);

 private:
  const VulkanContext& context_;
  Program program_;
  int32_t n_elements_, n_bands_;
  bool energy_balance_, static_uploaded_ = false;
  std::vector<Buffer> buffers_;
};

struct AccelerationStructure {
  VkAccelerationStructureKHR handle = VK_NULL_HANDLE;
  Buffer storage;
  VkDeviceAddress address = 0;
};

struct VulkanSceneManager::Device {
  Device(const VulkanContext& context, const std::string& trace_program);
  ~Device();

  void build(const std::vector<scene::Mesh>& meshes, const std::vector<scene::Instance>& instances,
             const std::vector<InstanceInfo>& info);
  // Set instance_masks first (media_instance_masks): they are built into the structure.
  void rebuild_top_level(const std::vector<scene::Instance>& instances,
                         const std::vector<InstanceInfo>& info);
  // The top-level structure over top_instances as they are.
  void build_top_level();
  // Binds the scene tables at bindings 0 (structure) to 5 of a program.
  void bind_scene(Program& p) const;
  // The scene's optical media for a run (device_media.cpp): the tables of media.glsl
  // uploaded, and the structure's instance masks brought up to date where the media
  // changed since the build. Call before bind_scene and bind_media.
  void prepare_media(const scene::SceneModel& scene);
  // Binds the two tables of media.glsl at `first` (MEDIA_TABLE_BINDING) and first + 1
  // (MEDIA_MATERIAL_BINDING).
  void bind_media(Program& p, uint32_t first) const;
  void release_structures();

  const VulkanContext& context;
  Program trace;
  Buffer vertices, normals, indices, mesh_table, instance_table, instance_records;
  std::vector<AccelerationStructure> bottom;
  AccelerationStructure top;
  std::vector<VkAccelerationStructureInstanceKHR> top_instances;  // as built into `top`
  std::vector<uint8_t> instance_masks;  // MASK_SURFACE or MASK_MEDIUM_BOUNDARY per instance
  Buffer media_table, material_media;   // media.glsl's MediaTable and MaterialMedia
  std::vector<uint32_t> mesh_vertex_counts;
  std::unique_ptr<Program> backward;  // loaded on first use
  std::unique_ptr<Program> backward_media;
  std::unique_ptr<Program> microwave;  // loaded on first use
  // The ray-free element programs, loaded on first use.
  std::unique_ptr<PhysiologyWorkspace> physiology;
  std::unique_ptr<Program> photosynthesis, sif_process, sif_assembly, turbid_sampling;
  // flux, forward, BRF, and flux and forward with media; loaded on first use
  std::unique_ptr<Program> photons[5];
  std::unique_ptr<Program> energy_balance, lidar, lidar_media;  // loaded on first use
};

}  // namespace vesk::vulkan
