// Device listing, ranking and opening; the one-shot command path.
#include "vulkan/context.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "vulkan/vulkan_api.h"

namespace vesk::vulkan {

void count_validation_message();

// An instance with its entry points (and the validation messenger when asked for).
struct Instance {
  VkInstance handle = VK_NULL_HANDLE;
  InstanceFunctions fn;
  VkDebugUtilsMessengerEXT messenger = VK_NULL_HANDLE;
  Instance();  // throws when there is no loader or no usable instance
  ~Instance();
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;
  // Every physical device with its facts, in enumeration order (not yet ranked).
  std::vector<std::pair<VkPhysicalDevice, DeviceInfo>> probe_devices() const;
};

namespace {

constexpr const char* VALIDATION_LAYER = "VK_LAYER_KHRONOS_validation";

VKAPI_ATTR VkBool32 VKAPI_CALL
on_validation_message(VkDebugUtilsMessageSeverityFlagBitsEXT, VkDebugUtilsMessageTypeFlagsEXT,
                      const VkDebugUtilsMessengerCallbackDataEXT* data, void*) {
  count_validation_message();
  std::fprintf(stderr, "[Vulkan validation] %s\n", data && data->pMessage ? data->pMessage : "");
  std::fflush(stderr);
  return VK_FALSE;
}

VkDebugUtilsMessengerCreateInfoEXT messenger_info() {
  VkDebugUtilsMessengerCreateInfoEXT m{};
  m.sType = VK_STRUCTURE_TYPE_DEBUG_UTILS_MESSENGER_CREATE_INFO_EXT;
  m.messageSeverity = VK_DEBUG_UTILS_MESSAGE_SEVERITY_WARNING_BIT_EXT |
                      VK_DEBUG_UTILS_MESSAGE_SEVERITY_ERROR_BIT_EXT;
  m.messageType =
      VK_DEBUG_UTILS_MESSAGE_TYPE_GENERAL_BIT_EXT | VK_DEBUG_UTILS_MESSAGE_TYPE_VALIDATION_BIT_EXT;
  m.pfnUserCallback = on_validation_message;
  return m;
}

int type_rank(int32_t type) {
  switch (type) {
    case VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU:
      return 0;
    case VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU:
      return 1;
    case VK_PHYSICAL_DEVICE_TYPE_VIRTUAL_GPU:
      return 2;
    case VK_PHYSICAL_DEVICE_TYPE_CPU:
      return 3;
    default:
      return 4;
  }
}

}  // namespace

bool DeviceInfo::is_discrete() const {
  return device_type == VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU;
}

void judge_compatibility(DeviceInfo& d) {
  const char* reason = nullptr;
  if (d.api_version < VK_API_VERSION_1_2)
    reason = "requires Vulkan 1.2";
  else if (!d.has_compute_queue)
    reason = "no compute queue";
  else if (!d.has_acceleration_structure)
    reason = "acceleration structures unavailable";
  else if (!d.has_ray_query && !d.has_ray_tracing_pipeline)
    reason = "ray query unavailable";
  else if (!d.has_buffer_device_address)
    reason = "buffer device address unavailable";
  d.compatible = reason == nullptr;
  d.unavailable_reason = reason ? reason : "";
}

const char* trace_path_name(TracePath p) {
  return p == TracePath::RayQuery ? "ray_query" : "ray_pipeline";
}

std::optional<TracePath> forced_trace_path() {
  const char* v = std::getenv("VESK_VULKAN_TRACE");
  if (!v || !*v) return std::nullopt;
  if (std::strcmp(v, "query") == 0) return TracePath::RayQuery;
  if (std::strcmp(v, "pipeline") == 0) return TracePath::RayPipeline;
  throw std::invalid_argument(std::string("VESK_VULKAN_TRACE must be 'query' or 'pipeline' (or unset), not '") + v + "'");
}

TracePath choose_trace_path(const DeviceInfo& d, std::optional<TracePath> forced) {
  if (forced == TracePath::RayQuery && !d.has_ray_query)
    throw std::runtime_error("Vulkan: VESK_VULKAN_TRACE=query asks for the ray_query path, but device '" +
                             d.name + "' has no ray query");
  if (forced == TracePath::RayPipeline && !d.has_ray_tracing_pipeline)
    throw std::runtime_error(
        "Vulkan: VESK_VULKAN_TRACE=pipeline asks for the ray_pipeline path, but device '" + d.name +
        "' has no ray-tracing pipelines");
  if (forced) return *forced;
  return d.has_ray_query ? TracePath::RayQuery : TracePath::RayPipeline;
}

std::vector<DeviceInfo> rank_devices(std::vector<DeviceInfo> devices) {
  std::stable_sort(devices.begin(), devices.end(), [](const DeviceInfo& a, const DeviceInfo& b) {
    if (a.compatible != b.compatible) return a.compatible;
    if (type_rank(a.device_type) != type_rank(b.device_type))
      return type_rank(a.device_type) < type_rank(b.device_type);
    if (a.device_local_memory_mb != b.device_local_memory_mb)
      return a.device_local_memory_mb > b.device_local_memory_mb;
    if (a.vendor_id != b.vendor_id) return a.vendor_id < b.vendor_id;
    if (a.device_id != b.device_id) return a.device_id < b.device_id;
    return a.name < b.name;  // std::string compares bytewise
  });
  int32_t next = 0;
  for (DeviceInfo& d : devices) d.device_index = d.compatible ? next++ : -1;
  return devices;
}

Instance::Instance() {
  const GlobalFunctions* g = loader();
  if (!g) throw std::runtime_error(loader_failure());
  uint32_t version = VK_API_VERSION_1_0;
  if (g->vkEnumerateInstanceVersion)
    check(g->vkEnumerateInstanceVersion(&version), "vkEnumerateInstanceVersion");
  if (version < VK_API_VERSION_1_2)
    throw std::runtime_error("Vulkan 1.2 or newer is required for the VESK Ray Query backend");

  std::vector<const char*> layers, extensions;
  const bool validate = validation_requested();
  VkDebugUtilsMessengerCreateInfoEXT mi = messenger_info();
  if (validate) {
    uint32_t n = 0;
    check(g->vkEnumerateInstanceLayerProperties(&n, nullptr),
          "vkEnumerateInstanceLayerProperties(count)");
    std::vector<VkLayerProperties> have(n);
    check(g->vkEnumerateInstanceLayerProperties(&n, have.data()),
          "vkEnumerateInstanceLayerProperties");
    const bool found = std::any_of(have.begin(), have.end(), [](const VkLayerProperties& p) {
      return std::strcmp(p.layerName, VALIDATION_LAYER) == 0;
    });
    if (!found)
      throw std::runtime_error(
          "Vulkan: VESK_VULKAN_VALIDATION is set, but the layer VK_LAYER_KHRONOS_validation is "
          "not installed");
    layers.push_back(VALIDATION_LAYER);
    extensions.push_back(VK_EXT_DEBUG_UTILS_EXTENSION_NAME);
  }

  VkApplicationInfo app{};
  app.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
  app.pApplicationName = "VESKPRO";
  app.applicationVersion = VK_MAKE_API_VERSION(0, 3, 0, 0);
  app.pEngineName = "vesk";
  app.engineVersion = VK_MAKE_API_VERSION(0, 3, 0, 0);
  app.apiVersion = VK_API_VERSION_1_2;
  VkInstanceCreateInfo ci{};
  ci.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
  ci.pApplicationInfo = &app;
  ci.enabledLayerCount = uint32_t(layers.size());
  ci.ppEnabledLayerNames = layers.data();
  ci.enabledExtensionCount = uint32_t(extensions.size());
  ci.ppEnabledExtensionNames = extensions.data();
  if (validate) ci.pNext = &mi;  // also reports on instance creation and destruction
  check(g->vkCreateInstance(&ci, nullptr, &handle), "vkCreateInstance");

#define VESK_VK_LOAD_INSTANCE(name) \
  fn.name = reinterpret_cast<PFN_##name>(g->vkGetInstanceProcAddr(handle, #name));
  VESK_VK_INSTANCE_FUNCTIONS(VESK_VK_LOAD_INSTANCE)
  VESK_VK_DEBUG_FUNCTIONS(VESK_VK_LOAD_INSTANCE)
#undef VESK_VK_LOAD_INSTANCE
#define VESK_VK_REQUIRE(name) \
  if (!fn.name) missing = #name;
  const char* missing = nullptr;
  VESK_VK_INSTANCE_FUNCTIONS(VESK_VK_REQUIRE)
#undef VESK_VK_REQUIRE
  if (missing) {
    if (fn.vkDestroyInstance) fn.vkDestroyInstance(handle, nullptr);
    throw std::runtime_error(std::string("Vulkan: failed to load ") + missing);
  }
  if (validate && fn.vkCreateDebugUtilsMessengerEXT) {
    const VkResult r = fn.vkCreateDebugUtilsMessengerEXT(handle, &mi, nullptr, &messenger);
    if (r != VK_SUCCESS) {
      fn.vkDestroyInstance(handle, nullptr);
      check(r, "vkCreateDebugUtilsMessengerEXT");
    }
  }
}

Instance::~Instance() {
  if (messenger && fn.vkDestroyDebugUtilsMessengerEXT)
    fn.vkDestroyDebugUtilsMessengerEXT(handle, messenger, nullptr);
  if (handle) fn.vkDestroyInstance(handle, nullptr);
}

std::vector<std::pair<VkPhysicalDevice, DeviceInfo>> Instance::probe_devices() const {
  const std::optional<TracePath> forced = forced_trace_path();
  uint32_t n = 0;
  check(fn.vkEnumeratePhysicalDevices(handle, &n, nullptr), "vkEnumeratePhysicalDevices(count)");
  std::vector<VkPhysicalDevice> physical(n);
  if (n)
    check(fn.vkEnumeratePhysicalDevices(handle, &n, physical.data()), "vkEnumeratePhysicalDevices");
  physical.resize(n);

  std::vector<std::pair<VkPhysicalDevice, DeviceInfo>> out;
  for (uint32_t i = 0; i < n; ++i) {
    VkPhysicalDevice pd = physical[i];
    DeviceInfo d;
    d.physical_index = int32_t(i);
    VkPhysicalDeviceProperties p{};
    fn.vkGetPhysicalDeviceProperties(pd, &p);
    d.name = p.deviceName;
    d.vendor_id = p.vendorID;
    d.device_id = p.deviceID;
    d.device_type = int32_t(p.deviceType);
    d.api_version = p.apiVersion;

    VkPhysicalDeviceMemoryProperties mem{};
    fn.vkGetPhysicalDeviceMemoryProperties(pd, &mem);
    uint64_t local = 0;
    for (uint32_t h = 0; h < mem.memoryHeapCount; ++h)
      if (mem.memoryHeaps[h].flags & VK_MEMORY_HEAP_DEVICE_LOCAL_BIT)
        local += mem.memoryHeaps[h].size;
    d.device_local_memory_mb = local / (1024u * 1024u);

    uint32_t nq = 0;
    fn.vkGetPhysicalDeviceQueueFamilyProperties(pd, &nq, nullptr);
    std::vector<VkQueueFamilyProperties> families(nq);
    fn.vkGetPhysicalDeviceQueueFamilyProperties(pd, &nq, families.data());
    for (const VkQueueFamilyProperties& f : families)
      d.has_compute_queue |= (f.queueFlags & VK_QUEUE_COMPUTE_BIT) && f.queueCount > 0;

    uint32_t ne = 0;
    check(fn.vkEnumerateDeviceExtensionProperties(pd, nullptr, &ne, nullptr),
          "vkEnumerateDeviceExtensionProperties(count)");
    std::vector<VkExtensionProperties> exts(ne);
    if (ne)
      check(fn.vkEnumerateDeviceExtensionProperties(pd, nullptr, &ne, exts.data()),
            "vkEnumerateDeviceExtensionProperties");
    auto has = [&](const char* name) {
      for (uint32_t k = 0; k < ne; ++k)
        if (std::strcmp(exts[k].extensionName, name) == 0) return true;
      return false;
    };
    const bool as_ext = has(VK_KHR_ACCELERATION_STRUCTURE_EXTENSION_NAME) &&
                        has(VK_KHR_DEFERRED_HOST_OPERATIONS_EXTENSION_NAME);
    const bool rq_ext = has(VK_KHR_RAY_QUERY_EXTENSION_NAME);
    const bool rtp_ext = has(VK_KHR_RAY_TRACING_PIPELINE_EXTENSION_NAME);

    // Feature structures of extensions the device lacks may not be chained.
    if (d.api_version >= VK_API_VERSION_1_2) {
      VkPhysicalDeviceVulkan12Features v12{};
      v12.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_2_FEATURES;
      VkPhysicalDeviceAccelerationStructureFeaturesKHR as{};
      as.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_ACCELERATION_STRUCTURE_FEATURES_KHR;
      VkPhysicalDeviceRayQueryFeaturesKHR rq{};
      rq.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_RAY_QUERY_FEATURES_KHR;
      VkPhysicalDeviceRayTracingPipelineFeaturesKHR rtp{};
      rtp.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_RAY_TRACING_PIPELINE_FEATURES_KHR;
      VkPhysicalDeviceFeatures2 f2{};
      f2.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2;
      f2.pNext = &v12;
      void** tail = &v12.pNext;
      if (as_ext) *tail = &as, tail = &as.pNext;
      if (rq_ext) *tail = &rq, tail = &rq.pNext;
      if (rtp_ext) *tail = &rtp, tail = &rtp.pNext;
      fn.vkGetPhysicalDeviceFeatures2(pd, &f2);
      d.has_acceleration_structure = as_ext && as.accelerationStructure;
      d.has_ray_query = rq_ext && rq.rayQuery;
      d.has_ray_tracing_pipeline = rtp_ext && rtp.rayTracingPipeline;
      d.has_buffer_device_address = v12.bufferDeviceAddress;
    }
    judge_compatibility(d);
    if (d.compatible) {
      try {
        d.trace_path = trace_path_name(choose_trace_path(d, forced));
      } catch (const std::runtime_error&) {
        d.trace_path.clear();  // a forced path it lacks: opening it would fail
      }
    }
    out.emplace_back(pd, d);
  }
  return out;
}

std::vector<DeviceInfo> VulkanContext::enumerate_devices() {
  forced_trace_path();  // a bad setting is refused even where nothing can be listed
  if (!loader()) return {};
  std::vector<DeviceInfo> devices;
  try {
    Instance instance;
    for (auto& [pd, d] : instance.probe_devices()) devices.push_back(d);
  } catch (const VulkanError& e) {
    // A loader without a usable driver refuses the instance, or the enumeration: there
    // is nothing to list.
    if (e.result != VK_ERROR_INCOMPATIBLE_DRIVER && e.result != VK_ERROR_INITIALIZATION_FAILED)
      throw;
    return {};
  }
  return rank_devices(std::move(devices));
}

VulkanContext::VulkanContext(int device_index) : fn_(std::make_unique<DeviceFunctions>()) {
  if (device_index < 0) throw std::out_of_range("Vulkan device index must be non-negative");
  const std::optional<TracePath> forced = forced_trace_path();
  instance_ = std::make_unique<Instance>();
  const InstanceFunctions& ifn = instance_->fn;

  auto probed = instance_->probe_devices();
  std::vector<DeviceInfo> infos;
  for (auto& [pd, d] : probed) infos.push_back(d);
  infos = rank_devices(std::move(infos));
  const int32_t compatible = int32_t(
      std::count_if(infos.begin(), infos.end(), [](const DeviceInfo& d) { return d.compatible; }));
  if (compatible == 0)
    throw std::runtime_error("Vulkan: no device supports acceleration structures and ray query");
  if (device_index >= compatible)
    throw std::out_of_range("Vulkan compatible device index " + std::to_string(device_index) +
                            " is outside [0, " + std::to_string(compatible));
  info_ = infos[size_t(device_index)];
  physical_ = probed[size_t(info_.physical_index)].first;
  trace_path_ = choose_trace_path(info_, forced);
  const bool pipeline = trace_path_ == TracePath::RayPipeline;

  uint32_t nq = 0;
  ifn.vkGetPhysicalDeviceQueueFamilyProperties(physical_, &nq, nullptr);
  std::vector<VkQueueFamilyProperties> families(nq);
  ifn.vkGetPhysicalDeviceQueueFamilyProperties(physical_, &nq, families.data());
  int64_t family = -1;
  // A compute-only family, where there is one, leaves the graphics queue to others.
  for (uint32_t i = 0; i < nq && family < 0; ++i)
    if ((families[i].queueFlags & VK_QUEUE_COMPUTE_BIT) && families[i].queueCount > 0 &&
        !(families[i].queueFlags & VK_QUEUE_GRAPHICS_BIT))
      family = i;
  for (uint32_t i = 0; i < nq && family < 0; ++i)
    if (families[i].queueFlags & VK_QUEUE_COMPUTE_BIT) family = i;
  if (family < 0) throw std::runtime_error("Vulkan: selected device has no compute queue");
  queue_family_ = uint32_t(family);

  VkPhysicalDeviceFeatures2 have{};
  have.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2;
  ifn.vkGetPhysicalDeviceFeatures2(physical_, &have);
  int64_float64_ = have.features.shaderInt64 && have.features.shaderFloat64;

  VkPhysicalDeviceRayTracingPipelinePropertiesKHR rtp_props{};
  rtp_props.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_RAY_TRACING_PIPELINE_PROPERTIES_KHR;
  VkPhysicalDeviceAccelerationStructurePropertiesKHR asp{};
  asp.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_ACCELERATION_STRUCTURE_PROPERTIES_KHR;
  if (pipeline) asp.pNext = &rtp_props;
  VkPhysicalDeviceProperties2 p2{};
  p2.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_PROPERTIES_2;
  p2.pNext = &asp;
  ifn.vkGetPhysicalDeviceProperties2(physical_, &p2);
  min_scratch_alignment_ =
      std::max<uint32_t>(asp.minAccelerationStructureScratchOffsetAlignment, 1);
  if (pipeline) {
    group_handle_size_ = rtp_props.shaderGroupHandleSize;
    group_handle_alignment_ = std::max<uint32_t>(rtp_props.shaderGroupHandleAlignment, 1);
    group_base_alignment_ = std::max<uint32_t>(rtp_props.shaderGroupBaseAlignment, 1);
  }

  const float priority = 1.0f;
  VkDeviceQueueCreateInfo qi{};
  qi.sType = VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO;
  qi.queueFamilyIndex = queue_family_;
  qi.queueCount = 1;
  qi.pQueuePriorities = &priority;

  // One way to trace is switched on: ray queries, or the ray-tracing pipeline.
  VkPhysicalDeviceRayQueryFeaturesKHR rq{};
  rq.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_RAY_QUERY_FEATURES_KHR;
  rq.rayQuery = VK_TRUE;
  VkPhysicalDeviceRayTracingPipelineFeaturesKHR rtp{};
  rtp.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_RAY_TRACING_PIPELINE_FEATURES_KHR;
  rtp.rayTracingPipeline = VK_TRUE;
  VkPhysicalDeviceAccelerationStructureFeaturesKHR as{};
  as.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_ACCELERATION_STRUCTURE_FEATURES_KHR;
  as.accelerationStructure = VK_TRUE;
  as.pNext = pipeline ? static_cast<void*>(&rtp) : static_cast<void*>(&rq);
  const char* const extensions[] = {VK_KHR_ACCELERATION_STRUCTURE_EXTENSION_NAME,
                                    VK_KHR_DEFERRED_HOST_OPERATIONS_EXTENSION_NAME,
                                    pipeline ? VK_KHR_RAY_TRACING_PIPELINE_EXTENSION_NAME
                                             : VK_KHR_RAY_QUERY_EXTENSION_NAME};
  VkPhysicalDeviceVulkan12Features v12{};
  v12.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_VULKAN_1_2_FEATURES;
  v12.bufferDeviceAddress = VK_TRUE;
  v12.pNext = &as;
  VkPhysicalDeviceFeatures2 want{};
  want.sType = VK_STRUCTURE_TYPE_PHYSICAL_DEVICE_FEATURES_2;
  want.pNext = &v12;
  want.features.shaderInt64 = int64_float64_ ? VK_TRUE : VK_FALSE;
  want.features.shaderFloat64 = int64_float64_ ? VK_TRUE : VK_FALSE;

  VkDeviceCreateInfo di{};
  di.sType = VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO;
  di.pNext = &want;
  di.queueCreateInfoCount = 1;
  di.pQueueCreateInfos = &qi;
  di.enabledExtensionCount = uint32_t(std::size(extensions));
  di.ppEnabledExtensionNames = extensions;
  check(ifn.vkCreateDevice(physical_, &di, nullptr, &device_), "vkCreateDevice");

  {
    const VkDevice dev = device_;
    const char* missing = nullptr;
#define VESK_VK_LOAD_DEVICE(name)                                                \
  fn_->name = reinterpret_cast<PFN_##name>(ifn.vkGetDeviceProcAddr(dev, #name)); \
  if (!fn_->name && !missing) missing = #name;
    VESK_VK_RAY_FUNCTIONS(VESK_VK_LOAD_DEVICE)
    VESK_VK_DEVICE_FUNCTIONS(VESK_VK_LOAD_DEVICE)
    if (pipeline) {
      VESK_VK_PIPELINE_FUNCTIONS(VESK_VK_LOAD_DEVICE)
    }
#undef VESK_VK_LOAD_DEVICE
    if (missing) {
      auto destroy =
          reinterpret_cast<PFN_vkDestroyDevice>(ifn.vkGetDeviceProcAddr(dev, "vkDestroyDevice"));
      if (destroy) destroy(dev, nullptr);
      device_ = VK_NULL_HANDLE;
      throw std::runtime_error(std::string("Vulkan: failed to load ") + missing);
    }
  }
  VkPhysicalDeviceMemoryProperties memory{};
  ifn.vkGetPhysicalDeviceMemoryProperties(physical_, &memory);
  for (uint32_t i = 0; i < memory.memoryTypeCount; ++i)
    memory_type_flags_.push_back(memory.memoryTypes[i].propertyFlags);
  fn_->vkGetDeviceQueue(device_, queue_family_, 0, &queue_);

  try {
    VkCommandPoolCreateInfo pi{};
    pi.sType = VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO;
    pi.flags = VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;
    pi.queueFamilyIndex = queue_family_;
    check(fn_->vkCreateCommandPool(device_, &pi, nullptr, &pool_),
          "vkCreateCommandPool(immediate)");
    VkCommandBufferAllocateInfo ai{};
    ai.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO;
    ai.commandPool = pool_;
    ai.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
    ai.commandBufferCount = 1;
    check(fn_->vkAllocateCommandBuffers(device_, &ai, &command_buffer_),
          "vkAllocateCommandBuffers(immediate)");
    VkFenceCreateInfo fi{};
    fi.sType = VK_STRUCTURE_TYPE_FENCE_CREATE_INFO;
    fi.flags = VK_FENCE_CREATE_SIGNALED_BIT;
    check(fn_->vkCreateFence(device_, &fi, nullptr, &fence_), "vkCreateFence(immediate)");
  } catch (...) {
    if (pool_) fn_->vkDestroyCommandPool(device_, pool_, nullptr);
    fn_->vkDestroyDevice(device_, nullptr);
    device_ = VK_NULL_HANDLE;
    throw;
  }
}

VulkanContext::~VulkanContext() {
  if (!device_) return;
  fn_->vkDeviceWaitIdle(device_);
  if (fence_) fn_->vkDestroyFence(device_, fence_, nullptr);
  if (pool_) fn_->vkDestroyCommandPool(device_, pool_, nullptr);
  fn_->vkDestroyDevice(device_, nullptr);
}

uint32_t VulkanContext::program_stage() const {
  return trace_path_ == TracePath::RayPipeline ? VK_SHADER_STAGE_RAYGEN_BIT_KHR
                                               : VK_SHADER_STAGE_COMPUTE_BIT;
}

uint32_t VulkanContext::program_pipeline_stage() const {
  return trace_path_ == TracePath::RayPipeline ? VK_PIPELINE_STAGE_RAY_TRACING_SHADER_BIT_KHR
                                               : VK_PIPELINE_STAGE_COMPUTE_SHADER_BIT;
}

uint32_t VulkanContext::find_memory_type(unsigned type_bits, unsigned properties) const {
  for (uint32_t i = 0; i < memory_type_flags_.size(); ++i)
    if ((type_bits & (1u << i)) && (memory_type_flags_[i] & properties) == properties) return i;
  throw std::runtime_error("Vulkan: no compatible memory type");
}

void VulkanContext::immediate_submit(const std::function<void(VkCommandBuffer)>& record) const {
  check(fn_->vkWaitForFences(device_, 1, &fence_, VK_TRUE, UINT64_MAX),
        "vkWaitForFences(immediate)");
  check(fn_->vkResetFences(device_, 1, &fence_), "vkResetFences(immediate)");
  check(fn_->vkResetCommandBuffer(command_buffer_, 0), "vkResetCommandBuffer(immediate)");
  VkCommandBufferBeginInfo bi{};
  bi.sType = VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO;
  bi.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
  check(fn_->vkBeginCommandBuffer(command_buffer_, &bi), "vkBeginCommandBuffer(immediate)");
  try {
    record(command_buffer_);
  } catch (...) {
    // Leave the fence signalled, so the next call does not wait for ever.
    fn_->vkEndCommandBuffer(command_buffer_);
    fn_->vkQueueSubmit(queue_, 0, nullptr, fence_);
    throw;
  }
  check(fn_->vkEndCommandBuffer(command_buffer_), "vkEndCommandBuffer(immediate)");
  VkSubmitInfo si{};
  si.sType = VK_STRUCTURE_TYPE_SUBMIT_INFO;
  si.commandBufferCount = 1;
  si.pCommandBuffers = &command_buffer_;
  check(fn_->vkQueueSubmit(queue_, 1, &si, fence_), "vkQueueSubmit(immediate)");
  check(fn_->vkWaitForFences(device_, 1, &fence_, VK_TRUE, UINT64_MAX),
        "vkWaitForFences(immediate completion)");
}

}  // namespace vesk::vulkan
