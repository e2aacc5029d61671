// Procedural mesh generators, returning dicts ready for add_mesh(**mesh).
#include "core/mesh_generators.h"
#include "module/bind_common.h"

namespace vesk::module {

void bind_generators(py::module_& m) {
  m.def(
      "make_ground_plane",
      [](float half_w, float half_h, int32_t material_id, float max_tri_edge) {
        py::dict d = mesh_dict(make_ground_plane(half_w, half_h, material_id, max_tri_edge));
        d["material_id"] = material_id;
        return d;
      },
      py::arg("half_w") = 50.0f, py::arg("half_h") = 50.0f, py::arg("material_id") = 0,
      py::arg("max_tri_edge") = 100.0f,
      "Flat ground at z = 0 over [-half_w, half_w] x [-half_h, half_h] (scene units), normal +z,\n"
      "split into a regular grid so that no triangle edge exceeds max_tri_edge.\n"
      "Returns {'vertices': (N, 3) float32, 'normals': (N, 3) float32, 'indices': (M, 3) int32,\n"
      "'material_id': int}, ready for scene.add_mesh(**mesh).");
  m.def(
      "make_sphere",
      [](float radius, const FloatArray& center, int32_t subdivisions) {
        if (center.size() != 3) throw py::value_error("center must contain three values");
        const float* c = center.data();
        return mesh_dict(make_sphere(radius, float3{c[0], c[1], c[2]}, subdivisions));
      },
      py::arg("radius"), py::arg("center"), py::arg("subdivisions") = 2,
      "Closed icosphere of the given radius around center (3 floats): 20 * 4**subdivisions\n"
      "triangles, counter-clockwise seen from outside, outward unit normals.\n"
      "Returns {'vertices': (N, 3) float32, 'normals': (N, 3) float32, 'indices': (M, 3) int32}.");
  m.def(
      "make_cylinder",
      [](float radius, float height, int32_t segments) {
        return mesh_dict(make_cylinder(radius, height, segments));
      },
      py::arg("radius"), py::arg("height"), py::arg("segments") = 8,
      "Closed cylinder on the z axis from z = 0 to z = height with `segments` side quads\n"
      "(smooth radial normals) and two flat caps. Counter-clockwise seen from outside.\n"
      "Returns {'vertices': (N, 3) float32, 'normals': (N, 3) float32, 'indices': (M, 3) int32}.");
}

}  // namespace vesk::module
