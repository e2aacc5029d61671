#pragma once
// Procedural meshes for quick scenes: a flat ground, an icosphere and a capped
// cylinder. All are counter-clockwise seen from outside, with outward vertex normals.

#include "core/types.h"

namespace vesk {

// The rectangle [-half_w, half_w] x [-half_h, half_h] at z = 0, normal +z, split into
// a regular grid so that no triangle edge (diagonals included) exceeds max_tri_edge.
backend::MeshGeometry make_ground_plane(float half_w, float half_h, int32_t material_id,
                                        float max_tri_edge);

// Closed icosphere: 20 * 4^subdivisions triangles, vertices on the exact sphere.
backend::MeshGeometry make_sphere(float radius, float3 center, int32_t subdivisions);

// Closed cylinder on the z axis from z = 0 to z = height: `segments` side quads with
// smooth radial normals, and two flat caps with their own vertices.
backend::MeshGeometry make_cylinder(float radius, float height, int32_t segments);

}  // namespace vesk
