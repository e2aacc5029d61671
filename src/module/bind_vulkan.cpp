// The Vulkan block: device listing, VulkanContext, and VulkanSceneManager.
#include "module/bind_scene_surface.h"
#include "vulkan/context.h"
#include "vulkan/scene_manager.h"

namespace vesk::module {

using vesk::vulkan::DeviceInfo;
using vesk::vulkan::VulkanContext;
using vesk::vulkan::VulkanSceneManager;

namespace {

py::dict device_dict(const DeviceInfo& d) {
  py::dict r;
  r["device_index"] = d.device_index;
  r["physical_index"] = d.physical_index;
  r["name"] = d.name;
  r["vendor_id"] = d.vendor_id;
  r["device_id"] = d.device_id;
  r["device_type"] = d.device_type;
  r["is_discrete"] = d.is_discrete();
  r["api_version"] = d.api_version;
  r["device_local_memory_mb"] = d.device_local_memory_mb;
  r["has_compute_queue"] = d.has_compute_queue;
  r["has_acceleration_structure"] = d.has_acceleration_structure;
  r["has_ray_query"] = d.has_ray_query;
  r["has_buffer_device_address"] = d.has_buffer_device_address;
  r["compatible"] = d.compatible;
  r["unavailable_reason"] = d.unavailable_reason;
  r["has_ray_tracing_pipeline"] = d.has_ray_tracing_pipeline;
  r["trace_path"] = d.trace_path;
  return r;
}

void bind_vulkan_scene(py::module_& m) {
  py::class_<VulkanSceneManager> cls(
      m, "VulkanSceneManager",
      "Vulkan scene: the CPU scene's records and setters, resident on the device as one\n"
      "bottom-level acceleration structure per mesh and a top-level one over the instances,\n"
      "traced by the device programs in the context's trace path: ray-query compute\n"
      "shaders, or ray-tracing pipelines on devices without ray queries.");
  cls.def(py::init([](const VulkanContext& context, const std::string& trace_shader) {
            // The programs lie beside the module.
            const std::string file =
                py::str(py::module_::import("vesk_gpu").attr("__file__")).cast<std::string>();
            const size_t slash = file.find_last_of('/');
            return std::make_unique<VulkanSceneManager>(
                context, trace_shader, slash == std::string::npos ? "." : file.substr(0, slash));
          }),
          py::arg("context"), py::arg("trace_shader") = "trace_closest.spv",
          py::keep_alive<1, 2>(),
          "A scene on the context's device. trace_shader: the closest-hit program, a path or\n"
          "a file name beside the module; the default is the one the build makes. On the\n"
          "ray_pipeline path its ray-generation form '<name>.rgen.spv' is loaded instead, with\n"
          "'hit.rchit.spv' and 'miss.rmiss.spv' from the same folder.");
  bind_scene_geometry_of(cls);
  bind_scene_settings_of(cls);
  cls.def(
      "simulate_backward",
      [](VulkanSceneManager& s, int spp, int max_depth, const py::object& progress,
         const py::object& outputs, int max_output_order) {
        const backend::OpticalProductRequest request = optical_request(outputs, max_output_order);
        return optical_product_dict(
            s.simulate_backward(spp, max_depth, progress_bridge(progress), request));
      },
      py::arg("spp") = 16, py::arg("max_depth") = 16, py::arg("progress") = py::none(),
      py::arg("outputs") = "radiance", py::arg("max_output_order") = 0,
      "Render the sensor image by backward path tracing on the device: the path of\n"
      "simulate_cpu (same seeds and draws, sun next-event estimation through repeated\n"
      "tiles, sky, thermal and SIF emission), one invocation per pixel and sample, summed in\n"
      "64 bits, through optical turbid media as on the CPU. Arguments and the returned\n"
      "dict as simulate_cpu's; '_execution' names the trace path, as\n"
      "'vulkan.ray_query.optical_backward' or 'vulkan.ray_pipeline.optical_backward'.");
  cls.def(
      "update_spectral_params",
      [](VulkanSceneManager& s, size_t offset, const FloatArray& values) {
        s.update_spectral_params(offset, values.data(), size_t(values.size()));
      },
      py::arg("offset"), py::arg("values"),
      "Overwrite values.size floats of the spectral buffer from offset, in place; a range\n"
      "past the end of the buffer is refused.");

  bind_vulkan_scene_media(cls);

  bind_scene_overrides_of(
      cls,
      "Per-instance SIF source tables in the CPU scene's layout. Leaves inside media read\n"
      "them on the CPU; simulate_backward on the device refuses a scene with media that\n"
      "has them (optical and SIF modes): the tables are kept for the host.");
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
      "Every Vulkan device, ranked: compatible ones first (acceleration structures, buffer\n"
      "device addresses, and ray query or ray-tracing pipelines), then discrete, integrated,\n"
      "virtual, CPU; then more\n"
      "device-local memory. Each is a dict with 'device_index' (its index for VulkanContext,\n"
      "-1 when incompatible), 'physical_index', 'name', 'vendor_id', 'device_id',\n"
      "'device_type', 'is_discrete', 'api_version', 'device_local_memory_mb',\n"
      "'has_compute_queue', 'has_acceleration_structure', 'has_ray_query',\n"
      "'has_buffer_device_address', 'compatible', 'unavailable_reason' (empty when\n"
      "compatible; 'ray query unavailable' means neither ray query nor ray-tracing\n"
      "pipelines), 'has_ray_tracing_pipeline' and 'trace_path': 'ray_query' or\n"
      "'ray_pipeline', the path a VulkanContext on it takes (ray query where the device has\n"
      "it, unless the environment variable VESK_VULKAN_TRACE=query|pipeline forces one), or\n"
      "'' when it cannot be opened. An empty list when the machine has no Vulkan loader or\n"
      "driver.");
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
                            "A Vulkan device: instance, logical device, one compute queue, and\n"
                            "the trace path its programs take ('ray_query', else\n"
                            "'ray_pipeline'; VESK_VULKAN_TRACE=query|pipeline forces one, and\n"
                            "forcing a path the device lacks is a RuntimeError).")
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
      .def_property_readonly(
          "trace_path", [](const VulkanContext& c) { return std::string(c.trace_label()); },
          "'ray_query' (compute shaders with ray queries) or 'ray_pipeline' (ray-tracing\n"
          "pipelines, for devices without ray queries).")
      .def("__repr__", [](const VulkanContext& c) {
        return "VulkanContext(device_index=" + std::to_string(c.device_index()) + ", name='" +
               c.device_name() + "', trace_path='" + c.trace_label() + "')";
      });
  bind_vulkan_scene(m);
}

}  // namespace vesk::module
