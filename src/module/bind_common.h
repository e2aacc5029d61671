#pragma once
// The binding layer's shared header: array conversion at the edge, result packaging,
// the `_execution` dict and the progress bridge. Only src/module includes pybind11.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <string>
#include <vector>

#include "core/execution.h"
#include "core/optical_products.h"
#include "core/progress.h"
#include "core/types.h"

namespace py = pybind11;

namespace vesk::vulkan {
class VulkanSceneManager;
}
namespace vesk::embree {
class EmbreeSceneManager;
}
namespace vesk::scene {
struct InstanceSifSourceFields;
}

namespace vesk::module {

// Any array-like converts; float64 narrows, non-contiguous input is copied.
using FloatArray = py::array_t<float, py::array::c_style | py::array::forcecast>;
using IntArray = py::array_t<int32_t, py::array::c_style | py::array::forcecast>;
using SceneClass = py::class_<vesk::embree::EmbreeSceneManager>;

// True when the array is 2-D with a last dimension of `cols`.
bool has_rows_of(const py::array& a, py::ssize_t cols);
std::vector<float3> to_float3_rows(const FloatArray& a);
std::vector<int3> to_int3_rows(const IntArray& a);
std::vector<float> to_vector(const FloatArray& a);
std::vector<int32_t> to_vector(const IntArray& a);

// Hands a result vector's buffer to a fresh NumPy array without copying: the array
// owns it from then on, and nothing native keeps a reference.
template <class T, class As = T>
py::array_t<As> move_to_numpy(std::vector<T>&& v, std::vector<py::ssize_t> shape) {
  static_assert(sizeof(T) == sizeof(As));
  auto* owned = new std::vector<T>(std::move(v));
  py::capsule free_when_done(owned, [](void* p) { delete static_cast<std::vector<T>*>(p); });
  return py::array_t<As>(shape, reinterpret_cast<const As*>(owned->data()), free_when_done);
}

// Fresh NumPy arrays that own a copy; nothing aliases native memory.
py::array_t<float> to_numpy(const std::vector<float>& v);
py::array_t<float> to_numpy(const std::vector<float>& v, std::vector<py::ssize_t> shape);
py::array_t<int32_t> to_numpy(const std::vector<int32_t>& v);
py::array_t<float> to_numpy_rows(const std::vector<float3>& v);
py::array_t<int32_t> to_numpy_rows(const std::vector<int3>& v);

// {"backend", "workflow", "executor", "native"}; unknown identities raise ValueError.
py::dict execution_dict(const ExecutionRecord& record);
// {"payload": payload, "_execution": record}
py::dict wrap_payload(py::object payload, const ExecutionRecord& record);

// None stays an empty function, so tracers skip reporting. Otherwise every call takes
// the interpreter lock and calls the host object with (done, total, elapsed_ms).
ProgressFn progress_bridge(const py::object& progress);

// The backward product dict: payload, the requested extras and "_execution".
py::dict optical_product_dict(const backend::OpticalProductResult& result);

// {"vertices", "normals", "indices"} ready for add_mesh(**mesh).
py::dict mesh_dict(const backend::MeshGeometry& mesh);

void bind_microwave(py::module_& m);
void bind_vulkan(py::module_& m);
// The photon methods of VulkanSceneManager; after bind_vulkan, which makes the class.
void bind_vulkan_photons(py::module_& m);
void bind_vulkan_transport(py::module_& m);
void bind_generators(py::module_& m);
void bind_scene(py::module_& m);
void bind_optical(py::module_& m);
void bind_forward(py::module_& m);
void bind_processes(py::module_& m);
void bind_photosynthesis_static(py::module_& m);
void bind_lidar(py::module_& m);
void bind_microwave_transport(py::module_& m);
void bind_turbid(py::module_& m);
void bind_turbid_workflow(py::module_& m);
void bind_turbid_leaf_rrt(py::module_& m);
void bind_energy_balance_transport(py::module_& m);
void bind_energy_balance_processes(py::module_& m);
void bind_sif_processes(py::module_& m);
// The Vulkan forms of the element processes and of the leaf-area sampler.
void bind_processes_vulkan(py::module_& m);
void bind_photosynthesis_static_vulkan(py::module_& m);
void bind_energy_balance_processes_vulkan(py::module_& m);
void bind_sif_processes_vulkan(py::module_& m);
void bind_turbid_vulkan(py::module_& m);
void bind_bench(py::module_& m);
void bind_scene_settings(SceneClass& cls);

// set_instance_sif_source_fields' checks and texts, for both scene classes.
vesk::scene::InstanceSifSourceFields sif_source_fields(
    const FloatArray& spatial_spectra, const FloatArray& orientation_spectra,
    const FloatArray& joint_spectra, const FloatArray& direct_joint_spectra,
    const FloatArray& bounds_min, const FloatArray& bounds_max, const IntArray& grid_dims,
    int32_t n_sif_bands, int32_t spatial_cell_stride, int32_t orientation_theta_bins,
    int32_t orientation_phi_bins, size_t num_instances);
void bind_scene_overrides(SceneClass& cls);
void bind_scene_media(SceneClass& cls);
// The same media methods on the Vulkan scene.
void bind_vulkan_scene_media(py::class_<vesk::vulkan::VulkanSceneManager>& cls);
void bind_scene_state(SceneClass& cls);

}  // namespace vesk::module
