#pragma once
// The Vulkan entry points this backend calls, fetched at run time from the loader
// (libvulkan.so.1, opened with dlopen), so the module imports and its CPU backend works
// on machines that have no Vulkan at all. Only src/vulkan includes this header.

#define VK_NO_PROTOTYPES
#include <vulkan/vulkan.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace vesk::vulkan {

// Fetched with vkGetInstanceProcAddr(nullptr, ...).
#define VESK_VK_GLOBAL_FUNCTIONS(X)         \
  X(vkEnumerateInstanceVersion)             \
  X(vkEnumerateInstanceLayerProperties)     \
  X(vkEnumerateInstanceExtensionProperties) \
  X(vkCreateInstance)

#define VESK_VK_INSTANCE_FUNCTIONS(X)         \
  X(vkDestroyInstance)                        \
  X(vkEnumeratePhysicalDevices)               \
  X(vkGetPhysicalDeviceProperties)            \
  X(vkGetPhysicalDeviceFeatures2)             \
  X(vkGetPhysicalDeviceProperties2)           \
  X(vkGetPhysicalDeviceQueueFamilyProperties) \
  X(vkGetPhysicalDeviceMemoryProperties)      \
  X(vkEnumerateDeviceExtensionProperties)     \
  X(vkCreateDevice)                           \
  X(vkGetDeviceProcAddr)

// Present only with the debug-utils extension (validation runs).
#define VESK_VK_DEBUG_FUNCTIONS(X)  \
  X(vkCreateDebugUtilsMessengerEXT) \
  X(vkDestroyDebugUtilsMessengerEXT)

#define VESK_VK_DEVICE_FUNCTIONS(X) \
  X(vkDestroyDevice)                \
  X(vkDeviceWaitIdle)               \
  X(vkGetDeviceQueue)               \
  X(vkCreateCommandPool)            \
  X(vkDestroyCommandPool)           \
  X(vkAllocateCommandBuffers)       \
  X(vkCreateFence)                  \
  X(vkDestroyFence)                 \
  X(vkWaitForFences)                \
  X(vkResetFences)                  \
  X(vkResetCommandBuffer)           \
  X(vkBeginCommandBuffer)           \
  X(vkEndCommandBuffer)             \
  X(vkQueueSubmit)                  \
  X(vkCreateBuffer)                 \
  X(vkDestroyBuffer)                \
  X(vkGetBufferMemoryRequirements)  \
  X(vkAllocateMemory)               \
  X(vkFreeMemory)                   \
  X(vkBindBufferMemory)             \
  X(vkMapMemory)                    \
  X(vkUnmapMemory)                  \
  X(vkFlushMappedMemoryRanges)      \
  X(vkInvalidateMappedMemoryRanges) \
  X(vkGetBufferDeviceAddress)       \
  X(vkCreateShaderModule)           \
  X(vkDestroyShaderModule)          \
  X(vkCreateDescriptorSetLayout)    \
  X(vkDestroyDescriptorSetLayout)   \
  X(vkCreatePipelineLayout)         \
  X(vkDestroyPipelineLayout)        \
  X(vkCreateComputePipelines)       \
  X(vkDestroyPipeline)              \
  X(vkCreateDescriptorPool)         \
  X(vkDestroyDescriptorPool)        \
  X(vkAllocateDescriptorSets)       \
  X(vkUpdateDescriptorSets)         \
  X(vkCmdBindPipeline)              \
  X(vkCmdBindDescriptorSets)        \
  X(vkCmdPushConstants)             \
  X(vkCmdDispatch)                  \
  X(vkCmdPipelineBarrier)           \
  X(vkCmdFillBuffer)

// The ray-tracing entry points; a device that lacks one cannot serve this backend.
#define VESK_VK_RAY_FUNCTIONS(X)             \
  X(vkCreateAccelerationStructureKHR)        \
  X(vkDestroyAccelerationStructureKHR)       \
  X(vkGetAccelerationStructureBuildSizesKHR) \
  X(vkCmdBuildAccelerationStructuresKHR)     \
  X(vkGetAccelerationStructureDeviceAddressKHR)

// The ray-tracing pipeline path's entry points, loaded only on that path.
#define VESK_VK_PIPELINE_FUNCTIONS(X)    \
  X(vkCreateRayTracingPipelinesKHR)       \
  X(vkGetRayTracingShaderGroupHandlesKHR) \
  X(vkCmdTraceRaysKHR)

#define VESK_VK_DECLARE(name) PFN_##name name = nullptr;

struct GlobalFunctions {
  PFN_vkGetInstanceProcAddr vkGetInstanceProcAddr = nullptr;
  VESK_VK_GLOBAL_FUNCTIONS(VESK_VK_DECLARE)
};

struct InstanceFunctions {
  VESK_VK_INSTANCE_FUNCTIONS(VESK_VK_DECLARE)
  VESK_VK_DEBUG_FUNCTIONS(VESK_VK_DECLARE)
};

struct DeviceFunctions {
  VESK_VK_DEVICE_FUNCTIONS(VESK_VK_DECLARE)
  VESK_VK_RAY_FUNCTIONS(VESK_VK_DECLARE)
  VESK_VK_PIPELINE_FUNCTIONS(VESK_VK_DECLARE)
};

// The loader's global functions, opened once per process; null when the machine has no
// Vulkan loader (reason() then says why).
const GlobalFunctions* loader();
const std::string& loader_failure();

// A failed Vulkan call: "<label> failed (<code>)", with the code kept.
struct VulkanError : std::runtime_error {
  VulkanError(const std::string& label, VkResult r);
  VkResult result;
};

// Throws VulkanError unless r is VK_SUCCESS.
void check(VkResult r, const char* label);

// Whether the run asked for the Khronos validation layer (VESK_VULKAN_VALIDATION set to
// anything but "" or "0"); its messages go to standard error and are counted.
bool validation_requested();
uint64_t validation_message_count();

}  // namespace vesk::vulkan
