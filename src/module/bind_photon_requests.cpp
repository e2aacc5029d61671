// The photon entries' arguments and result dicts (bind_photon_requests.h).
#include "module/bind_photon_requests.h"

namespace vesk::module {

namespace {

std::vector<float3> flat_directions(const FloatArray& a, size_t count) {
  std::vector<float3> out(count);
  for (size_t i = 0; i < count; ++i) out[i] = {a.data()[3 * i], a.data()[3 * i + 1], a.data()[3 * i + 2]};
  return out;
}

py::array_t<float> bands_array(const std::vector<float>& v, int32_t rows, int32_t bands) {
  return to_numpy(v, {py::ssize_t(rows), py::ssize_t(bands)});
}

// Exact sums cross the binding as 'hi' (int64) and 'lo' (uint64) halves of each 128-bit
// total, which NumPy adds with a carry; nothing is lost on the way.
}  // namespace

scene::ForwardRequest brf_request(const scene::SceneModel& scene, const FloatArray& directions,
                                   int64_t num_photons, int32_t max_depth, int64_t first_photon) {
  if (directions.ndim() != 1 || directions.size() == 0 || directions.size() % 3 != 0)
    throw py::value_error("directions must be a nonempty flat float3 array");
  scene::ForwardRequest q;
  q.brf_entry = true;
  q.num_photons = num_photons;
  q.first_photon = first_photon;
  q.max_depth = max_depth;
  q.num_bands = scene.num_bands();
  q.brf_directions = flat_directions(directions, size_t(directions.size() / 3));
  return q;
}

py::dict brf_dict(const scene::ForwardResult& r) {
  py::dict d;
  d["brf"] = bands_array(r.brf, r.n_directions, r.bands);
  d["albedo"] = to_numpy(r.albedo);
  d["incident"] = to_numpy(r.incident);
  d["escaped"] = to_numpy(r.escaped);
  d["_execution"] = execution_dict(r.execution);
  return d;
}

scene::ForwardRequest forward_request(int32_t nx, int32_t ny, const py::object& layer_heights,
                                       int64_t num_photons, int32_t num_bands, bool per_leaf,
                                       const py::object& brf_directions, int32_t num_brf_dirs,
                                       float prob_sun, int32_t max_depth,
                                       int32_t terrain_instance_id, int64_t first_photon) {
  scene::ForwardRequest q;
  if (!layer_heights.is_none()) {
    const FloatArray h = py::cast<FloatArray>(layer_heights);
    if (h.ndim() != 1) throw py::value_error("layer_heights must be 1D");
    q.layer_heights = to_vector(h);
  }
  if (!brf_directions.is_none()) {
    const FloatArray d = py::cast<FloatArray>(brf_directions);
    if (d.ndim() != 1 || d.size() % 3 != 0)
      throw py::value_error("directions must be a flat float3 array");
    if (num_brf_dirs < 0 || py::ssize_t(num_brf_dirs) * 3 > d.size())
      throw py::value_error("num_brf_dirs must lie between 0 and the directions given");
    q.brf_directions = flat_directions(d, size_t(num_brf_dirs));
  } else if (num_brf_dirs != 0) {
    throw py::value_error("num_brf_dirs must lie between 0 and the directions given");
  }
  q.nx = nx, q.ny = ny, q.num_photons = num_photons, q.num_bands = num_bands;
  q.per_leaf = per_leaf, q.prob_sun = prob_sun, q.max_depth = max_depth;
  q.terrain_instance_id = terrain_instance_id;
  q.first_photon = first_photon;
  return q;
}

py::dict forward_dict(const scene::ForwardResult& r) {
  py::dict d;
  d["grid"] = to_numpy(r.grid, {r.nz, r.ny, r.nx, r.bands});
  d["grid_direct"] = to_numpy(r.grid_direct, {r.nz, r.ny, r.nx, r.bands});
  d["grid_diffuse"] = to_numpy(r.grid_diffuse, {r.nz, r.ny, r.nx, r.bands});
  if (r.has_leaf) d["leaf"] = bands_array(r.leaf, int32_t(r.leaf.size() / size_t(r.bands)), r.bands);
  if (r.has_terrain) d["terrain"] = to_numpy(r.terrain, {r.ny, r.nx, r.bands});
  d["incident_grid"] = to_numpy(r.incident_grid, {r.ny, r.nx, r.bands});
  d["incident"] = to_numpy(r.incident);
  d["escaped"] = to_numpy(r.escaped);
  d["transmitted"] = to_numpy(r.transmitted);
  d["absorbed_outside"] = to_numpy(r.absorbed_outside);
  d["truncated"] = to_numpy(r.truncated);
  d["albedo"] = to_numpy(r.albedo);
  if (r.has_brf) d["brf"] = bands_array(r.brf, r.n_directions, r.bands);
  d["_execution"] = execution_dict(r.execution);
  return d;
}

scene::FluxRequest flux_request(int32_t nx, int32_t ny, int64_t num_photons, int32_t num_bands,
                                 float prob_sun, int32_t max_bounces, int32_t max_depth,
                                 int32_t rr_depth, bool decompose, int64_t first_photon) {
  scene::FluxRequest q;
  q.nx = nx, q.ny = ny, q.num_photons = num_photons, q.first_photon = first_photon;
  q.num_bands = num_bands, q.prob_sun = prob_sun, q.max_bounces = max_bounces;
  q.max_depth = max_depth, q.rr_depth = rr_depth, q.decompose = decompose;
  return q;
}

py::dict flux_dict(const scene::FluxResult& r) {
  const std::vector<py::ssize_t> shape{r.ny, r.nx, r.num_bands};
  py::dict d;
  d["downwelling"] = to_numpy(r.downwelling, shape);
  d["upwelling"] = to_numpy(r.upwelling, shape);
  if (r.decompose) {
    d["downwelling_direct"] = to_numpy(r.downwelling_direct, shape);
    d["downwelling_diffuse"] = to_numpy(r.downwelling_diffuse, shape);
  }
  d["_execution"] = execution_dict(r.execution);
  return d;
}

}  // namespace vesk::module
