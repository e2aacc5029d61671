#pragma once
// The scene surface that every scene class binds under the same names, arguments and
// texts: geometry, build and ray queries, then materials, spectra, sun, sky, sensor,
// repetition and modes. Each class's binding file instantiates these for its class.

#include <Python.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "module/bind_common.h"

namespace vesk::module {

// The outputs argument of the backward simulations: one name, or an iterable of names.
inline backend::OpticalProductRequest optical_request(const py::object& outputs,
                                                      int max_output_order) {
  // One string is one name; otherwise an iterable of strings.
  std::vector<std::string> names;
  if (py::isinstance<py::str>(outputs)) {
    names.push_back(outputs.cast<std::string>());
  } else {
    if (!py::isinstance<py::iterable>(outputs))
      throw py::type_error("outputs must be a string or an iterable of strings, not " +
                           std::string(py::str(outputs.get_type().attr("__name__"))));
    for (const py::handle& h : outputs) {
      if (!py::isinstance<py::str>(h))
        throw py::type_error("outputs must hold strings, not " +
                             std::string(py::str(h.get_type().attr("__name__"))));
      names.push_back(h.cast<std::string>());
    }
  }
  return backend::parse_optical_outputs(names, max_output_order);
}

template <class Hit>
py::dict hits_dict(const std::vector<Hit>& hits) {
  const py::ssize_t n = py::ssize_t(hits.size());
  py::array_t<float> t(n), pos({n, py::ssize_t(3)}), ns({n, py::ssize_t(3)}),
      ng({n, py::ssize_t(3)});
  py::array_t<int32_t> mat(n), inst(n), prim(n);
  py::array_t<bool> hit(n);
  auto rt = t.mutable_unchecked<1>();
  auto rp = pos.mutable_unchecked<2>();
  auto rs = ns.mutable_unchecked<2>();
  auto rg = ng.mutable_unchecked<2>();
  auto rm = mat.mutable_unchecked<1>();
  auto ri = inst.mutable_unchecked<1>();
  auto rq = prim.mutable_unchecked<1>();
  auto rh = hit.mutable_unchecked<1>();
  for (py::ssize_t i = 0; i < n; ++i) {
    const Hit& h = hits[size_t(i)];
    rt(i) = h.t;
    rp(i, 0) = h.position.x, rp(i, 1) = h.position.y, rp(i, 2) = h.position.z;
    rs(i, 0) = h.shading_normal.x, rs(i, 1) = h.shading_normal.y, rs(i, 2) = h.shading_normal.z;
    rg(i, 0) = h.geometric_normal.x, rg(i, 1) = h.geometric_normal.y,
          rg(i, 2) = h.geometric_normal.z;
    rm(i) = h.material_id;
    ri(i) = h.instance_id;
    rq(i) = h.primitive_id;
    rh(i) = h.hit;
  }
  py::dict d;
  d["t"] = t;
  d["position"] = pos;
  d["shading_normal"] = ns;
  d["geometric_normal"] = ng;
  d["material_id"] = mat;
  d["instance_id"] = inst;
  d["primitive_id"] = prim;
  d["hit"] = hit;
  return d;
}

template <class Scene>
void bind_scene_geometry_of(py::class_<Scene>& cls) {
  cls.def(
      "add_mesh",
      [](Scene& s, const FloatArray& vertices, const FloatArray& normals,
         const IntArray& indices, int32_t material_id) {
        if (!has_rows_of(vertices, 3) || !has_rows_of(normals, 3) || !has_rows_of(indices, 3))
          throw py::value_error("vertices, normals, and indices must have shape (N, 3)");
        return s.add_mesh(to_float3_rows(vertices), to_float3_rows(normals),
                          to_int3_rows(indices), material_id);
      },
      py::arg("vertices"), py::arg("normals"), py::arg("indices"), py::arg("material_id") = 0,
      "Add a triangle mesh. vertices: (N, 3) float32 in scene units; normals: (N, 3) float32\n"
      "per-vertex normals, or (0, 3) for a flat-shaded mesh; indices: (M, 3) int32 vertex\n"
      "indices, counter-clockwise seen from the front. Returns the mesh index.");
  cls.def(
      "add_instance",
      [](Scene& s, int32_t mesh_id, float x, float y, float z, float scale) {
        return s.add_instance(mesh_id, x, y, z, scale);
      },
      py::arg("mesh_id"), py::arg("x") = 0.0f, py::arg("y") = 0.0f, py::arg("z") = 0.0f,
      py::arg("scale") = 1.0f,
      "Place a mesh with a uniform scale, then a translation (x, y, z). Returns the instance "
      "index.");
  cls.def(
      "add_instance_xform",
      [](Scene& s, int32_t mesh_id, const FloatArray& xform) {
        if (xform.size() != 12) throw py::value_error("transform must contain 12 floats");
        return s.add_instance(mesh_id, xform.data());
      },
      py::arg("mesh_id"), py::arg("xform"),
      "Place a mesh with a 12-float row-major 3x4 affine transform [M3 | t]: p -> M3 p + t.\n"
      "Returns the instance index.");
  cls.def(
      "add_instances_xform",
      [](Scene& s, int32_t mesh_id, const FloatArray& xforms) {
        if (xforms.ndim() != 2)
          throw py::value_error("add_instances_xform: expected (N, 12) float32 array");
        if (xforms.shape(1) != 12) throw py::value_error("transforms must have shape (N, 12)");
        return s.add_instances_xform(mesh_id, xforms.data(), size_t(xforms.shape(0)));
      },
      py::arg("mesh_id"), py::arg("xforms"),
      "Batch-add N instances of one mesh from a (N, 12) row-major float32 array. Returns the "
      "index of the FIRST added instance.");
  cls.def(
      "update_instance_transform",
      [](Scene& s, int32_t id, const FloatArray& xform) {
        if (xform.ndim() != 1 || xform.shape(0) != 12)
          throw py::value_error("xform must have shape (12,)");
        s.update_instance_transform(id, xform.data());
      },
      py::arg("id"), py::arg("xform"),
      "Replace an instance's 12-float row-major transform. On a built scene the change reaches\n"
      "the acceleration structure after refit_ias().");
  const char* refit_doc =
      "Recommit the top-level structure after update_instance_transform(); recomputes the\n"
      "bounds and raises geometry_build_revision by one.";
  cls.def("refit_ias", &Scene::refit_ias, refit_doc);
  cls.def("refit_instances", &Scene::refit_ias, refit_doc);
  cls.def("geometry_build_revision", &Scene::geometry_build_revision,
          "Counter raised by build() and refit_ias(); results made from an older revision are "
          "stale.");

  cls.def(
      "build",
      [](Scene& s) {
        s.build();
        // Ray origins step off surfaces by a number of float steps, and a float step grows
        // with the coordinate: far from the origin that offset biases the answer.
        const auto [lo, hi] = s.aabb();
        float reach = 0.0f;
        for (const float v : {lo.x, lo.y, lo.z, hi.x, hi.y, hi.z})
          if (s.num_instances() > 0) reach = std::max(reach, std::fabs(v));
        if (reach > 100.0f &&
            PyErr_WarnEx(PyExc_UserWarning,
                       ("the scene box reaches " + std::to_string(int64_t(reach)) +
                        " scene units from the origin; float precision there biases results "
                        "(centre the scene near the origin)")
                             .c_str(),
                         1) < 0)
          throw py::error_already_set();
      },
      "Build the acceleration structure (one scene per mesh, one instance per placement),\n"
      "compute the bounds and raise geometry_build_revision. Instances added later are not\n"
      "traced until the next build() (is_built() is False until then).\n"
      "Precision: ray origins step off a surface by a number of float steps, and a float\n"
      "step grows with the coordinate, so a scene far from the origin is biased (a 4 cm leaf\n"
      "canopy loses 3 % of its hot-spot BRF with the ground at 100 m, 10 % at 500 m).\n"
      "build() warns (UserWarning) when the box reaches beyond 100 scene units from the\n"
      "origin: centre your scene there.");
  cls.def("is_built", &Scene::is_built);
  cls.def("has_gpu_meshes", &Scene::has_meshes,
          "Whether any mesh was added (the CPU answer for its own meshes).");
  cls.def("has_meshes", &Scene::has_meshes);
  cls.def("clear_for_reuse", &Scene::clear_for_reuse,
          "Drop materials, spectra, sky, emitter, bands and emission modes, keeping meshes,\n"
          "instances and the acceleration structure; follow with build_reuse_gas().");
  cls.def("build_reuse_gas", &Scene::build_reuse_gas,
          "Mark the scene built again, reusing the acceleration structure.");
  cls.def("build_reuse_geometry", &Scene::build_reuse_geometry,
          "Mark the scene built again, reusing the acceleration structure.");
  cls.def("total_triangles", &Scene::total_triangles,
          "Triangles over all instances (a mesh used twice counts twice).");
  cls.def("num_instances", &Scene::num_instances);
  cls.def("max_height", &Scene::max_height, "Top of the scene bounds after build.");
  cls.def("min_height", &Scene::min_height,
          "Bottom of the scene bounds after build.");
  cls.def(
      "aabb",
      [](const Scene& s) {
        const auto [lo, hi] = s.aabb();
        return py::make_tuple(py::make_tuple(lo.x, lo.y, lo.z), py::make_tuple(hi.x, hi.y, hi.z));
      },
      "((x_min, y_min, z_min), (x_max, y_max, z_max)) from the transformed corner boxes of\n"
      "every instance, as of the last build() or refit_ias().");
  cls.def("n_primitives", &Scene::n_primitives,
          "Number of primitives in global order (instance-major, triangle-minor).");
  cls.def("is_populate_primitive_soa", &Scene::is_populate_primitive_soa,
          "Whether the per-primitive SoA will be (or has been) populated on the next build "
          "(true if explicitly enabled or implied by thermal/SIF mode).");
  cls.def("set_populate_primitive_soa", &Scene::set_populate_primitive_soa,
          "Enable per-primitive SoA + per-instance lookup tables for the next build(). Required "
          "by EB / SIF / RRT-based paths.");
  cls.def(
      "get_primitive_mat_ids",
      [](const Scene& s) { return to_numpy(s.primitive_material_ids()); },
      "Material id of every primitive: (P,) int32.");
  cls.def(
      "get_primitive_areas",
      [](const Scene& s) { return to_numpy(s.primitive_areas()); },
      "World-space area of every primitive: (P,) float32, scene units squared.");
  cls.def(
      "get_primitive_normals",
      [](const Scene& s) { return to_numpy_rows(s.primitive_normals()); },
      "World-space unit normal cross(v1 - v0, v2 - v0) of every primitive: (P, 3) float32.");
  cls.def(
      "primitive_geometry",
      [](const Scene& s) {
        const backend::PrimitiveGeometry g = s.primitive_geometry();
        const py::ssize_t n = py::ssize_t(g.areas.size());
        py::array_t<float> vertices({n, py::ssize_t(3), py::ssize_t(3)});
        if (n) std::memcpy(vertices.mutable_data(), g.vertices.data(), g.vertices.size() * 12);
        py::dict d;
        d["vertices"] = vertices;
        d["normals"] = to_numpy_rows(g.normals);
        d["areas"] = to_numpy(g.areas);
        d["material_ids"] = to_numpy(g.material_ids);
        d["instance_ids"] = to_numpy(g.instance_ids);
        d["primitive_ids"] = to_numpy(g.primitive_ids);
        return d;
      },
      "World-space primitives in global order: 'vertices' (P, 3, 3) float32, 'normals' (P, 3),\n"
      "'areas' (P,), 'material_ids', 'instance_ids', 'primitive_ids' (P,) int32.");
  cls.def("instance_triangle_counts", &Scene::instance_triangle_counts,
          "Triangles of each instance, as a list of int.");
  cls.def("get_instance_primitive_offsets", &Scene::instance_primitive_offsets,
          "Global id of each instance's first primitive (prefix sum of its triangle counts).");

  cls.def(
      "trace_closest",
      [](const Scene& s, const FloatArray& origins, const FloatArray& directions,
         float t_min, float t_max) {
        if (!has_rows_of(origins, 3) || !has_rows_of(directions, 3) ||
            origins.shape(0) != directions.shape(0))
          throw py::value_error("origins and directions must have matching shape (N, 3)");
        const std::vector<float3> o = to_float3_rows(origins), d = to_float3_rows(directions);
        std::vector<backend::Ray> rays(o.size());
        for (size_t i = 0; i < rays.size(); ++i) {
          rays[i].origin = o[i];
          rays[i].direction = d[i];
          rays[i].t_min = t_min;
          rays[i].t_max = t_max;
        }
        return hits_dict(s.trace_closest(rays));
      },
      py::arg("origins"), py::arg("directions"), py::arg("t_min") = 1e-4f,
      py::arg("t_max") = 1e30f,
      "Closest hit of each ray on the built scene. origins, directions: (N, 3) float32.\n"
      "Returns 't' (N,) float32 (FLT_MAX on a miss), 'position', 'shading_normal',\n"
      "'geometric_normal' (N, 3) float32 (normals face the ray; (0, 0, 1) on a miss),\n"
      "'material_id', 'instance_id', 'primitive_id' (N,) int32 (-1 on a miss; primitive ids\n"
      "are global) and 'hit' (N,) bool.");
}

inline float3 direction3(const FloatArray& a) {
  if (a.size() != 3) throw py::value_error("direction must contain three values");
  return {a.data()[0], a.data()[1], a.data()[2]};
}

template <class Scene>
void bind_scene_settings_of(py::class_<Scene>& cls) {
  cls.def("set_num_bands", &Scene::set_num_bands,
          "Number of spectral bands, 1 to 100000; fixes the block length (n floats) of every\n"
          "spectral entry.");
  cls.def(
      "add_material",
      [](Scene& s, int32_t type, int32_t offset, const py::list& scalar_params) {
        // At most eight parameters are read; later entries are ignored.
        float params[8] = {};
        const size_t n = std::min<size_t>(8, py::len(scalar_params));
        for (size_t i = 0; i < n; ++i) {
          const double v = PyFloat_AsDouble(scalar_params[i].ptr());
          if (v == -1.0 && PyErr_Occurred()) throw py::error_already_set();
          params[i] = float(v);
        }
        return s.add_material(type, offset, params, n);
      },
      py::arg("type"), py::arg("offset"), py::arg("scalar_params"),
      "Append a material; returns its index. offset: index of its first float in the\n"
      "spectral buffer, where it reads blocks of n_bands floats each:\n"
      "  0 Lambertian: one block, the reflectance r (0..1); BRDF r / pi.\n"
      "  1 RPV: four blocks rho0, k, Theta (-1..1), rho_c. rho0 enters the estimators as it\n"
      "    stands, NOT divided by pi: a Lambertian limit of BRF r needs rho0 = r / pi\n"
      "    (with k = 1, Theta = 0, rho_c = 1).\n"
      "  13 leaf: three consecutive blocks, front reflectance, back reflectance and\n"
      "    transmittance (each / pi as a BRDF / BTDF).\n"
      "In thermal mode block 0 holds the emissivity of every type. scalar_params: up to 8\n"
      "floats: [0] band-mean reflectance and [1] band-mean transmittance (a leaf chooses\n"
      "reflection or transmission in this ratio), [2] temperature K, [3] sunlit K and [4]\n"
      "shaded K for thermal emission; the rest are carried unread."
      );
  cls.def(
      "upload_spectral_params",
      [](Scene& s, const FloatArray& values) {
        s.upload_spectral_params(to_vector(values));
      },
      "Replace the whole spectral parameter buffer (flat float32): reflectances, sun\n"
      "spectrum and sky tables, each addressed by its offset.");
  cls.def(
      "set_emitter",
      [](Scene& s, int32_t type, const FloatArray& direction, int32_t offset) {
        s.set_emitter(type, direction3(direction), offset);
      },
      "Set the sun. type: 0, a directional sun (the only kind the CPU tracers know; other\n"
      "values are kept and treated alike); direction: 3 floats towards the sun, made unit\n"
      "length here (a zero vector means no sun); spectral_offset: index of its spectrum,\n"
      "n_bands floats of irradiance at normal incidence (W m-2 nm-1), or -1 for no sun.",
      py::arg("type"), py::arg("direction"), py::arg("spectral_offset"));
  cls.def(
      "update_emitter_direction",
      [](Scene& s, const FloatArray& direction) {
        s.update_emitter_direction(direction3(direction));
      },
      "Re-aim the sun (a vector towards it, made unit length); the spectrum stays.",
      py::arg("direction"));
  cls.def(
      "set_sensor",
      [](Scene& s, int32_t type, int32_t width, int32_t height, float ortho_w,
         float ortho_h, const FloatArray& cam_xform, float fov, int32_t projection_type,
         bool terrain_following) {
        SensorData d;
        d.type = type;
        d.width = width;
        d.height = height;
        d.ortho_width = ortho_w;
        d.ortho_height = ortho_h;
        const py::ssize_t n = std::min<py::ssize_t>(16, cam_xform.size());
        for (py::ssize_t i = 0; i < n; ++i) d.camera_to_world[i] = cam_xform.data()[i];
        d.fov = fov * 3.1415927f / 180.0f;
        d.projection_type = projection_type;
        s.set_sensor(d, terrain_following);
      },
      py::arg("type"), py::arg("width"), py::arg("height"), py::arg("ortho_w"),
      py::arg("ortho_h"), py::arg("cam_xform"), py::arg("fov") = 60.0f,
      py::arg("projection_type") = 0, py::arg("terrain_following") = false,
      "Set the sensor. type: 0 orthographic, 1 perspective, 3 pushbroom, 4 fisheye; width,\n"
      "height in pixels; ortho_w, ortho_h: orthographic (and pushbroom along-track) extent in\n"
      "scene units; cam_xform: row-major 4x4 camera-to-world (up to 16 floats, the camera\n"
      "looks down its -z); fov in degrees; projection_type: fisheye mapping (0 equisolid,\n"
      "1 equidistant, 2 orthographic, other stereographic). Any other type is refused.\n"
      "Image row 0 is the bottom of the picture (camera -y), the last row its top.");
  cls.def("set_sky", &Scene::set_sky, py::arg("spectral_offset"),
          "Uniform sky radiance, n_bands floats at spectral_offset; clears the other skies.");
  cls.def("set_directional_sky", &Scene::set_directional_sky,
          py::arg("spectral_offset"),
          "Directional sky table [n_bands, 16 zenith rows, 32 azimuth columns] at "
          "spectral_offset.");
  cls.def(
      "set_hw_sky",
      [](Scene& s, int32_t offset, float x, float y, float z) {
        s.set_hw_sky(offset, float3{x, y, z});
      },
      py::arg("spectral_offset"), py::arg("sun_x"), py::arg("sun_y"), py::arg("sun_z"),
      "Hosek-Wilkie sky: 10 coefficients per band at spectral_offset, with its own sun\n"
      "direction; clears the other skies.");
  cls.def("set_thermal_mode", &Scene::set_thermal_mode, py::arg("enabled"),
          py::arg("wavelengths"),
          "Switch thermal emission on or off; wavelengths: band centres in nm, one per band.");
  cls.def("thermal_mode", &Scene::thermal_mode);
  cls.def("band_wavelengths", &Scene::band_wavelengths,
          "Band centre wavelengths in nm, as given to set_thermal_mode().");
  cls.def("set_sif_only_mode", &Scene::set_sif_only_mode, py::arg("enabled"),
          "Enable/disable SIF-only mode. When true the backward kernel returns pure SIF emission "
          "and suppresses optical reflectance (BSDF/NEE/sky).");
  cls.def("set_repetitive", &Scene::set_repetitive, py::arg("num_repetitions"),
          py::arg("scene_x_size"), py::arg("scene_y_size"),
          "Repeat the scene as a tile [0, scene_x_size] x [0, scene_y_size]; rays cross up to\n"
          "num_repetitions tile walls.");
  cls.def(
      "repetitive_config",
      [](const Scene& s) {
        const auto& r = s.repetition();
        return py::make_tuple(r.num_repetitions, r.scene_x_size, r.scene_y_size);
      },
      "(num_repetitions, scene_x_size, scene_y_size)");
  cls.def("set_measurement_plane", &Scene::set_measurement_plane, py::arg("height"),
          "Height (scene units) of the plane over which photons of a repeated scene start (0.1\n"
          "above it) in the flux, forward and BRF runs. Until it is set, the plane is the top\n"
          "of the scene box as of the last build(), so photons start above every crown; set\n"
          "it lower only on purpose (photons born under a crown make no shadow).");
  cls.def(
      "sensor_config",
      [](const Scene& s) {
        const SensorData& d = s.sensor();
        py::dict r;
        r["type"] = d.type;
        r["width"] = d.width;
        r["height"] = d.height;
        r["ortho_width"] = d.ortho_width;
        r["ortho_height"] = d.ortho_height;
        r["fov"] = d.fov;
        r["projection_type"] = d.projection_type;
        r["camera_to_world"] =
            std::vector<float>(d.camera_to_world, d.camera_to_world + 16);
        return r;
      },
      "The sensor record: 'type', 'width', 'height', 'ortho_width', 'ortho_height', 'fov'\n"
      "(radians), 'projection_type' and 'camera_to_world' (16 floats, row-major).");
}

// The per-primitive and per-instance overrides, bound alike on both scene classes;
// sif_fields_doc is the one text that differs.
template <class Scene>
void bind_scene_overrides_of(py::class_<Scene>& cls, const char* sif_fields_doc) {
  cls.def(
      "set_primitive_emissivities",
      [](Scene& s, const FloatArray& emissivities) {
        if (emissivities.ndim() != 1) throw py::value_error("emissivities must be 1D");
        s.set_primitive_emissivities(to_vector(emissivities));
      },
      py::arg("emissivities"),
      "Upload per-primitive emissivities: (n_primitives(),) float32, 0..1.");
  cls.def(
      "get_primitive_emissivities",
      [](const Scene& s) { return to_numpy(s.primitive_emissivities()); },
      "Per-primitive emissivities as uploaded (empty when none).");
  cls.def(
      "set_primitive_temperatures",
      [](Scene& s, const FloatArray& temperatures) {
        if (temperatures.ndim() != 1) throw py::value_error("temperatures must be 1D");
        s.set_primitive_temperatures(to_vector(temperatures));
      },
      py::arg("temperatures"),
      "Upload per-primitive temperatures (K). Length must equal n_primitives(). Closesthit "
      "thermal mode reads these in preference to mat.params[2..4] when set.");
  cls.def("clear_primitive_temperatures", &Scene::clear_primitive_temperatures,
          "Clear the per-primitive temperature override (kernel reverts to mat.params[2..4]).");
  cls.def(
      "get_primitive_temperatures",
      [](const Scene& s) { return to_numpy(s.primitive_temperatures()); },
      "Return host-side per-primitive temperatures (mostly for testing).");
  cls.def(
      "set_primitive_sif_spectra",
      [](Scene& s, const FloatArray& spectra, int32_t n_sif_bands) {
        s.set_primitive_sif_spectra(to_vector(spectra), n_sif_bands);
      },
      py::arg("spectra"), py::arg("n_sif_bands"),
      "Upload per-primitive SIF emission spectra. spectra: float32[n_sif_bands * n_primitives] "
      "SoA (band-major). After upload, the backward kernel emits SIF from each hit primitive.");
  cls.def("clear_primitive_sif_spectra", &Scene::clear_primitive_sif_spectra,
          "Remove the per-primitive SIF spectra.");

  cls.def(
      "set_instance_turbid_thermal_state",
      [](Scene& s, const FloatArray& temperature_sunlit,
         const FloatArray& temperature_shaded, const FloatArray& sunlit_fraction,
         const FloatArray& emissivity) {
        s.set_instance_turbid_thermal_state({to_vector(temperature_sunlit),
                                             to_vector(temperature_shaded),
                                             to_vector(sunlit_fraction), to_vector(emissivity)});
      },
      py::arg("temperature_sunlit"), py::arg("temperature_shaded"), py::arg("sunlit_fraction"),
      py::arg("emissivity"), "Upload conditional TurbidBoundary thermal state by instance.");
  cls.def("clear_instance_turbid_thermal_state",
          &Scene::clear_instance_turbid_thermal_state,
          "Remove the per-instance TurbidBoundary thermal state.");
  cls.def(
      "set_instance_sif_spectra",
      [](Scene& s, const FloatArray& spectra, int32_t n_sif_bands) {
        s.set_instance_sif_spectra(to_vector(spectra), n_sif_bands);
      },
      py::arg("spectra"), py::arg("n_sif_bands"),
      "Upload per-instance TurbidBoundary SIF spectra in band-major layout [n_sif_bands * "
      "num_instances].");
  cls.def("clear_instance_sif_spectra", &Scene::clear_instance_sif_spectra,
          "Remove the per-instance TurbidBoundary SIF spectra.");
  cls.def(
      "set_instance_sif_source_fields",
      [](Scene& s, const FloatArray& spatial_spectra,
         const FloatArray& orientation_spectra, const FloatArray& joint_spectra,
         const FloatArray& direct_joint_spectra, const FloatArray& bounds_min,
         const FloatArray& bounds_max, const IntArray& grid_dims, int32_t n_sif_bands,
         int32_t spatial_cell_stride, int32_t orientation_theta_bins,
         int32_t orientation_phi_bins) {
        s.set_instance_sif_source_fields(sif_source_fields(
            spatial_spectra, orientation_spectra, joint_spectra, direct_joint_spectra, bounds_min,
            bounds_max, grid_dims, n_sif_bands, spatial_cell_stride, orientation_theta_bins,
            orientation_phi_bins, size_t(s.num_instances())));
      },
      py::arg("spatial_spectra"), py::arg("orientation_spectra"), py::arg("joint_spectra"),
      py::arg("direct_joint_spectra"), py::arg("bounds_min"), py::arg("bounds_max"),
      py::arg("grid_dims"), py::arg("n_sif_bands"), py::arg("spatial_cell_stride"),
      py::arg("orientation_theta_bins"), py::arg("orientation_phi_bins"),
      sif_fields_doc);
  cls.def("clear_instance_sif_source_fields",
          &Scene::clear_instance_sif_source_fields,
          "Remove the per-instance SIF source tables.");
}

}  // namespace vesk::module
