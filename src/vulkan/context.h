#pragma once
// The Vulkan device this backend runs on: device listing and ranking, the instance, the
// logical device with one compute queue, a one-shot command path and memory type choice,
// and the trace path its programs take (ray queries, or a ray-tracing pipeline).

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// Vulkan's handles, declared as vulkan_core.h declares them on 64-bit targets, so that
// this header (which the bindings include) needs no Vulkan header.
typedef struct VkInstance_T* VkInstance;
typedef struct VkPhysicalDevice_T* VkPhysicalDevice;
typedef struct VkDevice_T* VkDevice;
typedef struct VkQueue_T* VkQueue;
typedef struct VkCommandBuffer_T* VkCommandBuffer;
typedef struct VkCommandPool_T* VkCommandPool;
typedef struct VkFence_T* VkFence;

namespace vesk::vulkan {

struct DeviceFunctions;  // vulkan_api.h
struct Instance;         // context.cpp

// Messages the validation layer reported in this process (see vulkan_api.h).
uint64_t validation_message_count();

struct DeviceInfo {
  int32_t device_index = -1;    // place among compatible devices after ranking, else -1
  int32_t physical_index = -1;  // place in vkEnumeratePhysicalDevices order
  std::string name;
  uint32_t vendor_id = 0, device_id = 0;
  int32_t device_type = 0;  // VkPhysicalDeviceType
  uint32_t api_version = 0;
  uint64_t device_local_memory_mb = 0;
  bool has_compute_queue = false, has_acceleration_structure = false, has_ray_query = false,
       has_buffer_device_address = false, compatible = false;
  std::string unavailable_reason;  // empty for a compatible device
  bool has_ray_tracing_pipeline = false;
  // The path a context on this device traces with under the current VESK_VULKAN_TRACE:
  // "ray_query", "ray_pipeline", or "" when it cannot be opened so.
  std::string trace_path;
  bool is_discrete() const;
};

// Sets `compatible` and `unavailable_reason` from the other fields: the first missing
// requirement, in the order API version, compute queue, acceleration structures, a way to
// trace (ray query or a ray-tracing pipeline; "ray query unavailable" when neither),
// buffer device address, names the reason.
void judge_compatibility(DeviceInfo& d);

// How the programs traverse the scene: ray queries in compute shaders where the device
// has them, else traceRayEXT in a ray-tracing pipeline (GPUs without RT cores offer only
// the latter).
enum class TracePath { RayQuery, RayPipeline };
const char* trace_path_name(TracePath p);  // "ray_query", "ray_pipeline"

// The path VESK_VULKAN_TRACE forces ("query" or "pipeline"), none when it is unset or
// empty; any other value is std::invalid_argument.
std::optional<TracePath> forced_trace_path();
// The path a context on d takes: the forced one, else ray query where d has it. Throws
// std::runtime_error, naming the path and the device, when d lacks the forced path.
TracePath choose_trace_path(const DeviceInfo& d, std::optional<TracePath> forced);

// Stable ranking: compatible first, then discrete, integrated, virtual, CPU, other; then
// more device-local memory, lower vendor id, lower device id, name bytewise. Compatible
// devices get device_index in that order.
std::vector<DeviceInfo> rank_devices(std::vector<DeviceInfo> devices);

class VulkanContext {
 public:
  // Opens the compatible device at device_index in ranking order.
  explicit VulkanContext(int device_index);
  ~VulkanContext();
  VulkanContext(const VulkanContext&) = delete;
  VulkanContext& operator=(const VulkanContext&) = delete;

  // All devices, ranked. Empty when the machine has no Vulkan loader or no driver.
  static std::vector<DeviceInfo> enumerate_devices();

  uint32_t find_memory_type(unsigned type_bits, unsigned properties) const;
  // Records one command buffer, submits it and returns when the device has finished it.
  // Not re-entrant: one thread per context.
  void immediate_submit(const std::function<void(VkCommandBuffer)>& record) const;

  const DeviceInfo& info() const { return info_; }
  const std::string& device_name() const { return info_.name; }
  int32_t device_index() const { return info_.device_index; }
  int32_t physical_device_index() const { return info_.physical_index; }
  uint64_t total_vram_mb() const { return info_.device_local_memory_mb; }
  uint32_t api_version() const { return info_.api_version; }
  uint32_t queue_family_index() const { return queue_family_; }
  // 64-bit integers and floats in shaders (PCG32 state and the film's sums).
  bool has_shader_int64_float64() const { return int64_float64_; }
  uint32_t min_scratch_alignment() const { return min_scratch_alignment_; }

  TracePath trace_path() const { return trace_path_; }
  // "ray_query" or "ray_pipeline", as the executor labels name it.
  const char* trace_label() const { return trace_path_name(trace_path_); }
  // The shader stage the programs run in (VkShaderStageFlagBits) and its pipeline stage
  // (VkPipelineStageFlagBits): compute, or ray generation in a ray-tracing pipeline.
  uint32_t program_stage() const;
  uint32_t program_pipeline_stage() const;
  // Shader binding table layout of the pipeline path, in bytes.
  uint32_t group_handle_size() const { return group_handle_size_; }
  uint32_t group_handle_alignment() const { return group_handle_alignment_; }
  uint32_t group_base_alignment() const { return group_base_alignment_; }

  VkDevice device() const { return device_; }
  const DeviceFunctions& fn() const { return *fn_; }

 private:
  std::unique_ptr<Instance> instance_;
  VkPhysicalDevice physical_ = nullptr;
  VkDevice device_ = nullptr;
  VkQueue queue_ = nullptr;
  uint32_t queue_family_ = 0;
  std::vector<uint32_t> memory_type_flags_;  // property flags of each memory type
  DeviceInfo info_;
  std::unique_ptr<DeviceFunctions> fn_;
  VkCommandPool pool_ = nullptr;
  VkCommandBuffer command_buffer_ = nullptr;
  VkFence fence_ = nullptr;
  bool int64_float64_ = false;
  uint32_t min_scratch_alignment_ = 256;
  TracePath trace_path_ = TracePath::RayQuery;
  uint32_t group_handle_size_ = 32, group_handle_alignment_ = 32, group_base_alignment_ = 64;
};

}  // namespace vesk::vulkan
