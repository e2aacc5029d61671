// The Vulkan block: device listing, VulkanContext, and VulkanSceneManager.
#include "module/bind_common.h"
#include "vulkan/context.h"

namespace vesk::module {

using vesk::vulkan::DeviceInfo;
using vesk::vulkan::VulkanContext;

namespace {

py::dict device_dict(const DeviceInfo& d) {
  py::dict r;
  r["device_index"] = d.device_index;
  r["physical_index"] = d.physical_index;
  r["name"] = d.name;
  r["vendor_id"] = d.vendor_id;
  r["device_id"] = d.device_id;
  r["device_type"] = d.device_type;
  r["is_discrete"] = d.device_type == VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU;
  r["api_version"] = d.api_version;
  r["device_local_memory_mb"] = d.device_local_memory_mb;
  r["has_compute_queue"] = d.has_compute_queue;
  r["has_acceleration_structure"] = d.has_acceleration_structure;
  r["has_ray_query"] = d.has_ray_query;
  r["has_buffer_device_address"] = d.has_buffer_device_address;
  r["compatible"] = d.compatible;
  r["unavailable_reason"] = d.unavailable_reason;
  return r;
}

}  // namespace

void bind_vulkan(py::module_& m) {
  m.def(
      "list_vulkan_devices",
      [] {
        py::list out;
        for (const DeviceInfo& d : VulkanContext::enumerate_devices()) out.append(device_dict(d));
        return out;
      },
      "Every Vulkan device, ranked: compatible ones first (ray query, acceleration structures\n"
      "and buffer device addresses), then discrete, integrated, virtual, CPU; then more\n"
      "device-local memory. Each is a dict with 'device_index' (its index for VulkanContext,\n"
      "-1 when incompatible), 'physical_index', 'name', 'vendor_id', 'device_id',\n"
      "'device_type', 'is_discrete', 'api_version', 'device_local_memory_mb',\n"
      "'has_compute_queue', 'has_acceleration_structure', 'has_ray_query',\n"
      "'has_buffer_device_address', 'compatible' and 'unavailable_reason' (empty when\n"
      "compatible). An empty list when the machine has no Vulkan loader or driver.");
  m.def(
      "device_info",
      [](int device_id) {
        const std::vector<DeviceInfo> devices = VulkanContext::enumerate_devices();
        if (device_id < 0 || size_t(device_id) >= devices.size())
          throw py::index_error("Vulkan device id " + std::to_string(device_id) +
                                " is outside [0, " + std::to_string(devices.size()) + ")");
        return device_dict(devices[size_t(device_id)]);
      },
      py::arg("device_id"),
      "The entry of list_vulkan_devices() at device_id: for a compatible device, the same\n"
      "device that VulkanContext(device_id) opens.");

  m.def("_vulkan_validation_message_count", &vesk::vulkan::validation_message_count,
        "Messages the Khronos validation layer reported in this process (runs with\n"
        "VESK_VULKAN_VALIDATION set); the test suites fail on any.");

  py::class_<VulkanContext>(m, "VulkanContext",
                            "A Vulkan device with ray queries: instance, logical device and one "
                            "compute queue.")
      .def(py::init<int>(), py::arg("device_index") = 0,
           "Open the compatible device at device_index in the ranking of "
           "list_vulkan_devices().")
      .def_property_readonly("device_name", &VulkanContext::device_name)
      .def_property_readonly("device_index", &VulkanContext::device_index)
      .def_property_readonly("physical_device_index", &VulkanContext::physical_device_index)
      .def_property_readonly("total_vram_mb", &VulkanContext::total_vram_mb,
                             "Device-local memory, MiB.")
      .def_property_readonly("api_version", &VulkanContext::api_version,
                             "The device's Vulkan version, packed as VK_MAKE_API_VERSION.")
      .def_property_readonly("queue_family_index", &VulkanContext::queue_family_index)
      .def("__repr__", [](const VulkanContext& c) {
        return "VulkanContext(device_index=" + std::to_string(c.device_index()) + ", name='" +
               c.device_name() + "')";
      });
}

}  // namespace vesk::module
