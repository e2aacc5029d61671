#pragma once
// Closed leaf volumes: the proof that a triangle boundary encloses a volume before any
// sample is drawn in it. Closed, manifold, consistently oriented, free of
// self-intersection, with shells nested as outer surfaces and cavities; nothing is
// repaired. Each failure throws std::invalid_argument with its fixed text.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/types.h"

namespace vesk::turbid {

struct ClosedBoundary {
  double volume = 0.0;  // m3, positive: signed volume times the orientation
  double error_bound = 0.0;
  size_t n_shells = 0;
  float bounds_min[3] = {0, 0, 0}, bounds_max[3] = {0, 0, 0};
};

// vertices in world space; triangles index them. closed_orientation +1: the outer shell
// winds outward (counter-clockwise seen from outside); -1: inward. transform_factor is
// the determinant of the owner's transform when the vertices are local (1 for world).
ClosedBoundary validate_closed_triangle_boundary(const std::vector<float3>& vertices,
                                                 const std::vector<int3>& triangles,
                                                 int8_t closed_orientation,
                                                 double transform_factor = 1.0);

// Candidate pairs of a sorted interval list whose intervals overlap: the broad phase's
// count, refused when it would not fit size_t.
size_t interval_overlap_count(const std::vector<std::pair<double, double>>& sorted_intervals);

}  // namespace vesk::turbid
