// EmbreeSceneManager: construction, geometry, build and ray queries.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "embree/scene_manager.h"
#include "module/bind_common.h"

namespace vesk::module {

using vesk::embree::EmbreeHit;
using vesk::embree::EmbreeSceneManager;

namespace {

py::dict hits_dict(const std::vector<EmbreeHit>& hits) {
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
    const EmbreeHit& h = hits[size_t(i)];
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

}  // namespace

void bind_scene(py::module_& m) {
  SceneClass cls(m, "EmbreeSceneManager",
                 "CPU scene on Embree: meshes, instances, materials, spectra, sun, sky, sensor\n"
                 "and per-primitive overrides, traced as a two-level acceleration structure.\n"
                 "Scenes pickle (and save() / load() one .npz file): the recipe travels, the\n"
                 "acceleration structure is built again on arrival, and results are the same\n"
                 "bit for bit. Turbid domains (_build_turbid_domain_embree) do not travel: a\n"
                 "copy has none, and needs them built again.");
  cls.def(py::init<>());

  cls.def(
      "add_mesh",
      [](EmbreeSceneManager& s, const FloatArray& vertices, const FloatArray& normals,
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
      [](EmbreeSceneManager& s, int32_t mesh_id, float x, float y, float z, float scale) {
        return s.add_instance(mesh_id, x, y, z, scale);
      },
      py::arg("mesh_id"), py::arg("x") = 0.0f, py::arg("y") = 0.0f, py::arg("z") = 0.0f,
      py::arg("scale") = 1.0f,
      "Place a mesh with a uniform scale, then a translation (x, y, z). Returns the instance "
      "index.");
  cls.def(
      "add_instance_xform",
      [](EmbreeSceneManager& s, int32_t mesh_id, const FloatArray& xform) {
        if (xform.size() != 12) throw py::value_error("transform must contain 12 floats");
        return s.add_instance(mesh_id, xform.data());
      },
      py::arg("mesh_id"), py::arg("xform"),
      "Place a mesh with a 12-float row-major 3x4 affine transform [M3 | t]: p -> M3 p + t.\n"
      "Returns the instance index.");
  cls.def(
      "add_instances_xform",
      [](EmbreeSceneManager& s, int32_t mesh_id, const FloatArray& xforms) {
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
      [](EmbreeSceneManager& s, int32_t id, const FloatArray& xform) {
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
  cls.def("refit_ias", &EmbreeSceneManager::refit_ias, refit_doc);
  cls.def("refit_instances", &EmbreeSceneManager::refit_ias, refit_doc);
  cls.def("geometry_build_revision", &EmbreeSceneManager::geometry_build_revision,
          "Counter raised by build() and refit_ias(); results made from an older revision are "
          "stale.");

  cls.def(
      "build",
      [](EmbreeSceneManager& s) {
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
  cls.def("is_built", &EmbreeSceneManager::is_built);
  cls.def("has_gpu_meshes", &EmbreeSceneManager::has_meshes,
          "Whether any mesh was added (the CPU answer for its own meshes).");
  cls.def("has_meshes", &EmbreeSceneManager::has_meshes);
  cls.def("clear_for_reuse", &EmbreeSceneManager::clear_for_reuse,
          "Drop materials, spectra, sky, emitter, bands and emission modes, keeping meshes,\n"
          "instances and the acceleration structure; follow with build_reuse_gas().");
  cls.def("build_reuse_gas", &EmbreeSceneManager::build_reuse_gas,
          "Mark the scene built again, reusing the acceleration structure.");
  cls.def("build_reuse_geometry", &EmbreeSceneManager::build_reuse_geometry,
          "Mark the scene built again, reusing the acceleration structure.");
  cls.def("total_triangles", &EmbreeSceneManager::total_triangles,
          "Triangles over all instances (a mesh used twice counts twice).");
  cls.def("num_instances", &EmbreeSceneManager::num_instances);
  cls.def("max_height", &EmbreeSceneManager::max_height, "Top of the scene bounds after build.");
  cls.def("min_height", &EmbreeSceneManager::min_height,
          "Bottom of the scene bounds after build.");
  cls.def(
      "aabb",
      [](const EmbreeSceneManager& s) {
        const auto [lo, hi] = s.aabb();
        return py::make_tuple(py::make_tuple(lo.x, lo.y, lo.z), py::make_tuple(hi.x, hi.y, hi.z));
      },
      "((x_min, y_min, z_min), (x_max, y_max, z_max)) from the transformed corner boxes of\n"
      "every instance, as of the last build() or refit_ias().");
  cls.def("n_primitives", &EmbreeSceneManager::n_primitives,
          "Number of primitives in global order (instance-major, triangle-minor).");
  cls.def("is_populate_primitive_soa", &EmbreeSceneManager::is_populate_primitive_soa,
          "Whether the per-primitive SoA will be (or has been) populated on the next build "
          "(true if explicitly enabled or implied by thermal/SIF mode).");
  cls.def("set_populate_primitive_soa", &EmbreeSceneManager::set_populate_primitive_soa,
          "Enable per-primitive SoA + per-instance lookup tables for the next build(). Required "
          "by EB / SIF / RRT-based paths.");
  cls.def(
      "get_primitive_mat_ids",
      [](const EmbreeSceneManager& s) { return to_numpy(s.primitive_material_ids()); },
      "Material id of every primitive: (P,) int32.");
  cls.def(
      "get_primitive_areas",
      [](const EmbreeSceneManager& s) { return to_numpy(s.primitive_areas()); },
      "World-space area of every primitive: (P,) float32, scene units squared.");
  cls.def(
      "get_primitive_normals",
      [](const EmbreeSceneManager& s) { return to_numpy_rows(s.primitive_normals()); },
      "World-space unit normal cross(v1 - v0, v2 - v0) of every primitive: (P, 3) float32.");
  cls.def(
      "primitive_geometry",
      [](const EmbreeSceneManager& s) {
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
  cls.def("instance_triangle_counts", &EmbreeSceneManager::instance_triangle_counts,
          "Triangles of each instance, as a list of int.");
  cls.def("get_instance_primitive_offsets", &EmbreeSceneManager::instance_primitive_offsets,
          "Global id of each instance's first primitive (prefix sum of its triangle counts).");

  cls.def(
      "trace_closest",
      [](const EmbreeSceneManager& s, const FloatArray& origins, const FloatArray& directions,
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

  bind_scene_settings(cls);
  bind_scene_media(cls);
  bind_scene_overrides(cls);
  bind_scene_state(cls);
}

}  // namespace vesk::module
