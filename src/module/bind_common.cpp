#include "module/bind_common.h"

#include <cstring>

namespace vesk::module {

bool has_rows_of(const py::array& a, py::ssize_t cols) {
  return a.ndim() == 2 && a.shape(1) == cols;
}

std::vector<float3> to_float3_rows(const FloatArray& a) {
  std::vector<float3> out(size_t(a.shape(0)));
  auto r = a.unchecked<2>();
  for (py::ssize_t i = 0; i < a.shape(0); ++i) out[size_t(i)] = {r(i, 0), r(i, 1), r(i, 2)};
  return out;
}

std::vector<int3> to_int3_rows(const IntArray& a) {
  std::vector<int3> out(size_t(a.shape(0)));
  auto r = a.unchecked<2>();
  for (py::ssize_t i = 0; i < a.shape(0); ++i) out[size_t(i)] = {r(i, 0), r(i, 1), r(i, 2)};
  return out;
}

std::vector<float> to_vector(const FloatArray& a) {
  return std::vector<float>(a.data(), a.data() + a.size());
}

std::vector<int32_t> to_vector(const IntArray& a) {
  return std::vector<int32_t>(a.data(), a.data() + a.size());
}

py::array_t<float> to_numpy(const std::vector<float>& v) {
  return to_numpy(v, {py::ssize_t(v.size())});
}

py::array_t<float> to_numpy(const std::vector<float>& v, std::vector<py::ssize_t> shape) {
  py::array_t<float> a(shape);
  if (!v.empty()) std::memcpy(a.mutable_data(), v.data(), v.size() * sizeof(float));
  return a;
}

py::array_t<int32_t> to_numpy(const std::vector<int32_t>& v) {
  py::array_t<int32_t> a(py::ssize_t(v.size()));
  if (!v.empty()) std::memcpy(a.mutable_data(), v.data(), v.size() * sizeof(int32_t));
  return a;
}

py::array_t<float> to_numpy_rows(const std::vector<float3>& v) {
  py::array_t<float> a({py::ssize_t(v.size()), py::ssize_t(3)});
  if (!v.empty()) std::memcpy(a.mutable_data(), v.data(), v.size() * sizeof(float3));
  return a;
}

py::array_t<int32_t> to_numpy_rows(const std::vector<int3>& v) {
  py::array_t<int32_t> a({py::ssize_t(v.size()), py::ssize_t(3)});
  if (!v.empty()) std::memcpy(a.mutable_data(), v.data(), v.size() * sizeof(int3));
  return a;
}

py::dict execution_dict(const ExecutionRecord& record) {
  py::dict d;
  d["backend"] = backend_name(record.backend);
  d["workflow"] = workflow_name(record.workflow);
  d["executor"] = record.executor;
  d["native"] = record.native;
  return d;
}

py::dict wrap_payload(py::object payload, const ExecutionRecord& record) {
  py::dict d;
  d["payload"] = std::move(payload);
  d["_execution"] = execution_dict(record);
  return d;
}

ProgressFn progress_bridge(const py::object& progress) {
  if (progress.is_none()) return {};
  return [progress](long done, long total, float elapsed_ms) {
    py::gil_scoped_acquire gil;
    progress(done, total, elapsed_ms);
  };
}

py::dict optical_product_dict(const backend::OpticalProductResult& r) {
  const std::vector<py::ssize_t> image{r.height, r.width, r.bands};
  const size_t plane = size_t(r.height) * size_t(r.width) * size_t(r.bands);
  py::dict d;
  d["payload"] = to_numpy(r.payload, image);
  if (r.request.standard_error) d["standard_error"] = to_numpy(r.standard_error, image);
  if (r.request.event_aov) {
    py::dict aov;
    const char* names[backend::EVENT_SLOTS] = {"surface", "medium", "environment", "emission"};
    for (int k = 0; k < backend::EVENT_SLOTS; ++k)
      aov[names[k]] = to_numpy(std::vector<float>(r.event_aov.begin() + k * plane,
                                                  r.event_aov.begin() + (k + 1) * plane),
                               image);
    d["event_aov"] = aov;
  }
  if (r.request.scattering_order)
    d["scattering_order"] =
        to_numpy(r.scattering_order, {r.order_count, r.height, r.width, r.bands});
  d["_execution"] = execution_dict(r.execution);
  return d;
}

py::dict mesh_dict(const backend::MeshGeometry& mesh) {
  py::dict d;
  d["vertices"] = to_numpy_rows(mesh.vertices);
  d["normals"] = to_numpy_rows(mesh.normals);
  d["indices"] = to_numpy_rows(mesh.indices);
  return d;
}

}  // namespace vesk::module
