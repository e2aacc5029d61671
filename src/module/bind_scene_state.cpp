// EmbreeSceneManager as a value: pickling and .npz scene files.
#include <cstring>
#include <string>

#include "embree/scene_manager.h"
#include "module/bind_common.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;
using vesk::scene::SceneRecipe;

namespace {

// Raised when the layout of the state changes; older states are refused by name.
constexpr int64_t STATE_VERSION = 1;
constexpr const char* STATE_FORMAT = "vesk.EmbreeSceneManager";

template <class T>
py::array_t<T> array_of(const T* data, std::vector<py::ssize_t> shape) {
  py::array_t<T> a(shape);
  if (a.size()) std::memcpy(a.mutable_data(), data, size_t(a.size()) * sizeof(T));
  return a;
}
template <class T>
py::array_t<T> array_of(const std::vector<T>& v) {
  return array_of(v.data(), {py::ssize_t(v.size())});
}

// Reads a state dict (or the arrays of a .npz file, where scalars are 0-d arrays) with
// exact types: a float64 where float32 was written is an error, not a silent rounding.
struct StateReader {
  const py::dict& d;

  py::object at(const char* key) const {
    if (!d.contains(key))
      throw py::key_error(std::string("scene state is missing the key '") + key + "'");
    return d[key];
  }
  template <class T>
  std::vector<T> array(const char* key, py::ssize_t cols = 0) const {
    const py::object v = at(key);
    const py::dtype want = py::dtype::of<T>();
    if (!py::isinstance<py::array>(v) || v.cast<py::array>().dtype().kind() != want.kind() ||
        v.cast<py::array>().dtype().itemsize() != want.itemsize())
      throw py::type_error(std::string("scene state '") + key + "' must be a " +
                           want.attr("name").cast<std::string>() + " array");
    const py::array a = v.cast<py::array>();
    if (cols ? (a.ndim() != 2 || a.shape(1) != cols) : a.ndim() != 1)
      throw py::value_error(std::string("scene state '") + key + "' has the wrong shape");
    const auto c = py::cast<py::array_t<T, py::array::c_style | py::array::forcecast>>(a);
    return std::vector<T>(c.data(), c.data() + c.size());
  }
  template <class T>
  void fixed(const char* key, T* out, size_t n) const {
    const std::vector<T> v = array<T>(key);
    if (v.size() != n) throw py::value_error(std::string("scene state '") + key + "' must hold " +
                                             std::to_string(n) + " values");
    std::copy(v.begin(), v.end(), out);
  }
  // Scalars: Python values, or 0-d arrays of the right kind.
  py::object scalar(const char* key, const char* kinds) const {
    py::object v = at(key);
    if (py::isinstance<py::array>(v)) {
      const py::array a = v.cast<py::array>();
      if (a.ndim() != 0 || !std::strchr(kinds, a.dtype().kind()))
        throw py::type_error(std::string("scene state '") + key + "' must be a scalar");
      v = a.attr("item")();
    }
    return v;
  }
  int64_t integer(const char* key) const {
    const py::object v = scalar(key, "iu");
    if (!py::isinstance<py::int_>(v) || py::isinstance<py::bool_>(v))
      throw py::type_error(std::string("scene state '") + key + "' must be an int");
    return v.cast<int64_t>();
  }
  int32_t int32(const char* key) const {
    const int64_t v = integer(key);
    if (v < INT32_MIN || v > INT32_MAX)
      throw py::value_error(std::string("scene state '") + key + "' is out of range");
    return int32_t(v);
  }
  float real(const char* key) const {
    const py::object v = scalar(key, "f");
    if (!py::isinstance<py::float_>(v))
      throw py::type_error(std::string("scene state '") + key + "' must be a float");
    return float(v.cast<double>());
  }
  bool flag(const char* key) const {
    const py::object v = scalar(key, "b");
    if (!py::isinstance<py::bool_>(v))
      throw py::type_error(std::string("scene state '") + key + "' must be a bool");
    return v.cast<bool>();
  }
};

py::dict state_of(const EmbreeSceneManager& s) {
  const SceneRecipe r = s.recipe();
  py::dict d;
  d["format"] = STATE_FORMAT;
  d["version"] = STATE_VERSION;

  // Meshes, concatenated, with their vertex, normal and triangle counts.
  std::vector<float3> vertices, normals;
  std::vector<int3> indices;
  std::vector<int64_t> sizes;
  std::vector<int32_t> mesh_materials;
  for (const scene::Mesh& m : r.meshes) {
    vertices.insert(vertices.end(), m.vertices.begin(), m.vertices.end());
    normals.insert(normals.end(), m.normals.begin(), m.normals.end());
    indices.insert(indices.end(), m.indices.begin(), m.indices.end());
    sizes.insert(sizes.end(), {int64_t(m.vertices.size()), int64_t(m.normals.size()),
                               int64_t(m.indices.size())});
    mesh_materials.push_back(m.material_id);
  }
  d["mesh_vertices"] = to_numpy_rows(vertices);
  d["mesh_normals"] = to_numpy_rows(normals);
  d["mesh_indices"] = to_numpy_rows(indices);
  d["mesh_sizes"] = array_of(sizes.data(), {py::ssize_t(r.meshes.size()), 3});
  d["mesh_material_ids"] = array_of(mesh_materials);

  std::vector<int32_t> inst_mesh;
  std::vector<float> xforms;
  for (const scene::Instance& i : r.instances) {
    inst_mesh.push_back(i.mesh_id);
    xforms.insert(xforms.end(), i.transform, i.transform + 12);
  }
  d["instance_mesh_ids"] = array_of(inst_mesh);
  d["instance_transforms"] = array_of(xforms.data(), {py::ssize_t(r.instances.size()), 12});

  std::vector<int32_t> types, offsets, reserved;
  std::vector<float> params;
  for (const MaterialData& m : r.materials) {
    types.push_back(int32_t(m.type));
    offsets.push_back(m.spectral_offset);
    params.insert(params.end(), m.params, m.params + 8);
    reserved.insert(reserved.end(), m.reserved, m.reserved + 4);
  }
  const py::ssize_t k = py::ssize_t(r.materials.size());
  d["material_types"] = array_of(types);
  d["material_offsets"] = array_of(offsets);
  d["material_params"] = array_of(params.data(), {k, 8});
  d["material_reserved"] = array_of(reserved.data(), {k, 4});
  d["spectral"] = array_of(r.spectral);
  d["num_bands"] = r.num_bands;

  d["media_leaf_area_density"] = array_of(r.media_leaf_area_densities);
  d["media_leaf_characteristic_length"] = array_of(r.media_leaf_characteristic_lengths);
  d["media_leaf_angle_type"] = array_of(r.media_leaf_angle_types);
  d["media_orientation"] = array_of(r.media_orientations);
  d["material_medium_ids"] = array_of(r.material_medium_ids);

  d["emitter_type"] = r.emitter.type;
  d["emitter_direction"] = array_of(&r.emitter.direction.x, {3});
  d["emitter_offset"] = r.emitter.spectral_offset;
  const int32_t sky[3] = {r.sky.uniform_offset, r.sky.directional_offset, r.sky.hw_offset};
  d["sky_offsets"] = array_of(sky, {3});
  d["sky_hw_sun_direction"] = array_of(&r.sky.hw_sun_direction.x, {3});

  d["sensor_type"] = r.sensor.type;
  d["sensor_width"] = r.sensor.width;
  d["sensor_height"] = r.sensor.height;
  d["sensor_camera_to_world"] = array_of(r.sensor.camera_to_world, {16});
  d["sensor_fov"] = double(r.sensor.fov);
  const float ortho[2] = {r.sensor.ortho_width, r.sensor.ortho_height};
  d["sensor_ortho"] = array_of(ortho, {2});
  d["sensor_projection_type"] = r.sensor.projection_type;
  d["terrain_following"] = r.terrain_following;
  d["repetitions"] = r.repetition.num_repetitions;
  const float tile[2] = {r.repetition.scene_x_size, r.repetition.scene_y_size};
  d["tile_size"] = array_of(tile, {2});

  d["thermal_mode"] = r.thermal_mode;
  d["sif_only_mode"] = r.sif_only_mode;
  d["emission_mode"] = int32_t(r.emission_mode);
  d["band_wavelengths"] = array_of(r.band_wavelengths);
  d["measurement_plane_height"] = double(r.measurement_plane_height);
  d["measurement_plane_set"] = r.measurement_plane_set;

  d["primitive_temperatures"] = array_of(r.primitive_temperatures);
  d["primitive_emissivities"] = array_of(r.primitive_emissivities);
  d["primitive_sif_spectra"] = array_of(r.primitive_sif_spectra);
  d["n_sif_bands"] = r.n_sif_bands;
  const embree::InstanceTurbidThermalState& th = r.instance_turbid_thermal;
  d["turbid_temperature_sunlit"] = array_of(th.temperature_sunlit);
  d["turbid_temperature_shaded"] = array_of(th.temperature_shaded);
  d["turbid_sunlit_fraction"] = array_of(th.sunlit_fraction);
  d["turbid_emissivity"] = array_of(th.emissivity);
  d["instance_sif_spectra"] = array_of(r.instance_sif_spectra);
  d["instance_n_sif_bands"] = r.instance_n_sif_bands;
  const embree::InstanceSifSourceFields& f = r.instance_sif_source_fields;
  d["sif_spatial_spectra"] = array_of(f.spatial_spectra);
  d["sif_orientation_spectra"] = array_of(f.orientation_spectra);
  d["sif_joint_spectra"] = array_of(f.joint_spectra);
  d["sif_direct_joint_spectra"] = array_of(f.direct_joint_spectra);
  d["sif_bounds_min"] = array_of(f.bounds_min);
  d["sif_bounds_max"] = array_of(f.bounds_max);
  d["sif_grid_dims"] = array_of(f.grid_dims);
  d["sif_n_bands"] = f.n_sif_bands;
  d["sif_spatial_cell_stride"] = f.spatial_cell_stride;
  d["sif_theta_bins"] = f.orientation_theta_bins;
  d["sif_phi_bins"] = f.orientation_phi_bins;

  d["built"] = r.built;
  d["structure_current"] = r.structure_current;
  const float box[6] = {r.box_lo[0], r.box_lo[1], r.box_lo[2],
                        r.box_hi[0], r.box_hi[1], r.box_hi[2]};
  d["box"] = array_of(box, {6});
  d["geometry_build_revision"] = py::int_(r.geometry_build_revision);
  return d;
}

std::unique_ptr<EmbreeSceneManager> scene_from(const py::dict& d) {
  const StateReader in{d};
  const py::object format = in.scalar("format", "U");
  if (!py::isinstance<py::str>(format) || format.cast<std::string>() != STATE_FORMAT)
    throw py::value_error("not a scene state");
  if (in.integer("version") != STATE_VERSION)
    throw py::value_error("scene state version " + std::to_string(in.integer("version")) +
                          " is not version " + std::to_string(STATE_VERSION) + " of this build");
  SceneRecipe r;

  const std::vector<float> vertices = in.array<float>("mesh_vertices", 3);
  const std::vector<float> normals = in.array<float>("mesh_normals", 3);
  const std::vector<int32_t> indices = in.array<int32_t>("mesh_indices", 3);
  const std::vector<int64_t> sizes = in.array<int64_t>("mesh_sizes", 3);
  const std::vector<int32_t> mesh_materials = in.array<int32_t>("mesh_material_ids");
  if (mesh_materials.size() * 3 != sizes.size())
    throw py::value_error("scene state: mesh counts do not match");
  size_t at[3] = {0, 0, 0};
  const size_t total[3] = {vertices.size() / 3, normals.size() / 3, indices.size() / 3};
  for (size_t m = 0; m < mesh_materials.size(); ++m) {
    for (int c = 0; c < 3; ++c)
      if (sizes[3 * m + size_t(c)] < 0 || size_t(sizes[3 * m + size_t(c)]) > total[c] - at[c])
        throw py::value_error("scene state: mesh sizes exceed the mesh arrays");
    scene::Mesh mesh;
    auto rows3 = [](const auto& flat, size_t first, size_t n, auto& out) {
      out.resize(n);
      for (size_t i = 0; i < n; ++i)
        out[i] = {flat[3 * (first + i)], flat[3 * (first + i) + 1], flat[3 * (first + i) + 2]};
    };
    rows3(vertices, at[0], size_t(sizes[3 * m]), mesh.vertices);
    rows3(normals, at[1], size_t(sizes[3 * m + 1]), mesh.normals);
    rows3(indices, at[2], size_t(sizes[3 * m + 2]), mesh.indices);
    for (int c = 0; c < 3; ++c) at[c] += size_t(sizes[3 * m + size_t(c)]);
    mesh.material_id = mesh_materials[m];
    r.meshes.push_back(std::move(mesh));
  }
  if (at[0] != total[0] || at[1] != total[1] || at[2] != total[2])
    throw py::value_error("scene state: mesh arrays hold more than the meshes");

  const std::vector<int32_t> inst_mesh = in.array<int32_t>("instance_mesh_ids");
  const std::vector<float> xforms = in.array<float>("instance_transforms", 12);
  if (xforms.size() != 12 * inst_mesh.size())
    throw py::value_error("scene state: instance counts do not match");
  for (size_t i = 0; i < inst_mesh.size(); ++i) {
    scene::Instance inst;
    inst.mesh_id = inst_mesh[i];
    std::copy(xforms.begin() + std::ptrdiff_t(12 * i), xforms.begin() + std::ptrdiff_t(12 * i + 12),
              inst.transform);
    r.instances.push_back(inst);
  }

  const std::vector<int32_t> types = in.array<int32_t>("material_types");
  const std::vector<int32_t> offsets = in.array<int32_t>("material_offsets");
  const std::vector<float> params = in.array<float>("material_params", 8);
  const std::vector<int32_t> reserved = in.array<int32_t>("material_reserved", 4);
  if (offsets.size() != types.size() || params.size() != 8 * types.size() ||
      reserved.size() != 4 * types.size())
    throw py::value_error("scene state: material counts do not match");
  for (size_t i = 0; i < types.size(); ++i) {
    MaterialData m;
    m.type = MaterialType(types[i]);
    m.spectral_offset = offsets[i];
    std::copy(params.begin() + std::ptrdiff_t(8 * i), params.begin() + std::ptrdiff_t(8 * i + 8),
              m.params);
    std::copy(reserved.begin() + std::ptrdiff_t(4 * i),
              reserved.begin() + std::ptrdiff_t(4 * i + 4), m.reserved);
    r.materials.push_back(m);
  }
  r.spectral = in.array<float>("spectral");
  r.num_bands = in.int32("num_bands");

  r.media_leaf_area_densities = in.array<float>("media_leaf_area_density");
  r.media_leaf_characteristic_lengths = in.array<float>("media_leaf_characteristic_length");
  r.media_leaf_angle_types = in.array<int32_t>("media_leaf_angle_type");
  r.media_orientations = in.array<int32_t>("media_orientation");
  r.material_medium_ids = in.array<int32_t>("material_medium_ids");

  r.emitter.type = in.int32("emitter_type");
  in.fixed("emitter_direction", &r.emitter.direction.x, 3);
  r.emitter.spectral_offset = in.int32("emitter_offset");
  int32_t sky[3];
  in.fixed("sky_offsets", sky, 3);
  r.sky.uniform_offset = sky[0], r.sky.directional_offset = sky[1], r.sky.hw_offset = sky[2];
  in.fixed("sky_hw_sun_direction", &r.sky.hw_sun_direction.x, 3);

  r.sensor.type = in.int32("sensor_type");
  r.sensor.width = in.int32("sensor_width");
  r.sensor.height = in.int32("sensor_height");
  in.fixed("sensor_camera_to_world", r.sensor.camera_to_world, 16);
  r.sensor.fov = in.real("sensor_fov");
  float pair[2];
  in.fixed("sensor_ortho", pair, 2);
  r.sensor.ortho_width = pair[0], r.sensor.ortho_height = pair[1];
  r.sensor.projection_type = in.int32("sensor_projection_type");
  r.terrain_following = in.flag("terrain_following");
  r.repetition.num_repetitions = in.int32("repetitions");
  in.fixed("tile_size", pair, 2);
  r.repetition.scene_x_size = pair[0], r.repetition.scene_y_size = pair[1];

  r.thermal_mode = in.flag("thermal_mode");
  r.sif_only_mode = in.flag("sif_only_mode");
  const int32_t mode = in.int32("emission_mode");
  if (mode < 0 || mode > 255) throw py::value_error("scene state: unknown emission mode");
  r.emission_mode = uint8_t(mode);
  r.band_wavelengths = in.array<float>("band_wavelengths");
  r.measurement_plane_height = in.real("measurement_plane_height");
  r.measurement_plane_set = in.flag("measurement_plane_set");

  r.primitive_temperatures = in.array<float>("primitive_temperatures");
  r.primitive_emissivities = in.array<float>("primitive_emissivities");
  r.primitive_sif_spectra = in.array<float>("primitive_sif_spectra");
  r.n_sif_bands = in.int32("n_sif_bands");
  r.instance_turbid_thermal = {in.array<float>("turbid_temperature_sunlit"),
                               in.array<float>("turbid_temperature_shaded"),
                               in.array<float>("turbid_sunlit_fraction"),
                               in.array<float>("turbid_emissivity")};
  r.instance_sif_spectra = in.array<float>("instance_sif_spectra");
  r.instance_n_sif_bands = in.int32("instance_n_sif_bands");
  embree::InstanceSifSourceFields& f = r.instance_sif_source_fields;
  f.spatial_spectra = in.array<float>("sif_spatial_spectra");
  f.orientation_spectra = in.array<float>("sif_orientation_spectra");
  f.joint_spectra = in.array<float>("sif_joint_spectra");
  f.direct_joint_spectra = in.array<float>("sif_direct_joint_spectra");
  f.bounds_min = in.array<float>("sif_bounds_min");
  f.bounds_max = in.array<float>("sif_bounds_max");
  f.grid_dims = in.array<int32_t>("sif_grid_dims");
  f.n_sif_bands = in.int32("sif_n_bands");
  f.spatial_cell_stride = in.int32("sif_spatial_cell_stride");
  f.orientation_theta_bins = in.int32("sif_theta_bins");
  f.orientation_phi_bins = in.int32("sif_phi_bins");

  r.built = in.flag("built");
  r.structure_current = in.flag("structure_current");
  float box[6];
  in.fixed("box", box, 6);
  std::copy(box, box + 3, r.box_lo);
  std::copy(box + 3, box + 6, r.box_hi);
  const int64_t revision = in.integer("geometry_build_revision");
  if (revision < 0) throw py::value_error("scene state: negative build revision");
  r.geometry_build_revision = uint64_t(revision);
  return EmbreeSceneManager::from_recipe(std::move(r));
}

// A path as open() takes it; an int (a file descriptor) or bytes would be taken too, and
// silently, so they are refused.
py::object checked_path(const py::object& path) {
  const py::object p = py::module_::import("os").attr("fspath")(path);
  if (!py::isinstance<py::str>(p)) throw py::type_error("path must be a str or os.PathLike");
  return p;
}

}  // namespace

void bind_scene_state(SceneClass& cls) {
  cls.def(py::pickle([](const EmbreeSceneManager& s) { return state_of(s); },
                     [](const py::dict& state) { return scene_from(state); }));
  cls.def(
      "save",
      [](const EmbreeSceneManager& s, const py::object& path) {
        const py::dict state = state_of(s);
        const py::object file = py::module_::import("io").attr("open")(checked_path(path), "wb");
        try {
          py::module_::import("numpy").attr("savez")(file, **state);
        } catch (...) {
          file.attr("close")();
          throw;
        }
        file.attr("close")();
      },
      py::arg("path"),
      "Write the scene to one .npz file at path, exactly as given (no suffix is added):\n"
      "what pickling carries, as NumPy arrays and scalars. Read it with\n"
      "EmbreeSceneManager.load(path).");
  cls.def_static(
      "load",
      [](const py::object& path) {
        const py::object npz =
            py::module_::import("numpy").attr("load")(checked_path(path), py::arg("allow_pickle") = false);
        if (!py::hasattr(npz, "files")) throw py::value_error("not a scene file (.npz)");
        py::dict state;
        try {
          for (const py::handle& key : npz.attr("files")) state[key] = npz[key];
        } catch (...) {
          npz.attr("close")();
          throw;
        }
        npz.attr("close")();
        return scene_from(state);
      },
      py::arg("path"),
      "A new scene from a file written by save(): the same recipe, and the same results\n"
      "bit for bit. The acceleration structure is built again where the saved scene had one.");
}

}  // namespace vesk::module
