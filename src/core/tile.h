#pragma once
// Repeated scenes: a ray leaving the tile [0, w] x [0, h] re-enters it through the
// opposite wall. Shared by the shadow walks and every tracer that crosses tile walls.

#include <cmath>

#include "core/types.h"

namespace vesk {

// How far along a ray a query from a surface point starts, so that the surface it leaves
// is not met again.
constexpr float SURFACE_T_MIN = 1e-4f;

// The wall the ray from o along d leaves through: returns the axis (0 for x, 1 for y, -1
// for none) and its distance t, below 1e16. On each axis only the wall the ray moves
// towards counts (x = w when d.x > 1e-8, x = 0 when d.x < -1e-8), and a ray already a
// rounding error past it leaves at t = 0; a y wall wins only when it is nearer.
//
// Walls are chosen by direction, not by a least distance of 1e-4 as for surfaces: a ray
// that has just wrapped lies on a wall, a ray near a corner meets the second wall within
// any small distance of the first, and a ray leaving a surface that touches a wall starts
// closer to it than 1e-4. Skipping such a wall sends the ray on outside the tile, where
// nothing is: it would pass under a ground that covers the tile, or out of a layer that
// fills it.
inline int tile_exit(float w, float h, const float3& o, const float3& d, float& t) {
  float best = 1e16f;
  int axis = -1;
  if (std::fabs(d.x) > 1e-8f) {
    const float tx = std::fmax((d.x > 0.0f ? w - o.x : -o.x) / d.x, 0.0f);
    if (tx < best) best = tx, axis = 0;
  }
  if (std::fabs(d.y) > 1e-8f) {
    const float ty = std::fmax((d.y > 0.0f ? h - o.y : -o.y) / d.y, 0.0f);
    if (ty < best) best = ty, axis = 1;
  }
  t = best;
  return axis;
}

// True when the ray has passed the scene's height range [lo, hi] for good: above it and
// rising, or below it and falling. Nothing is left to hit in any tile, so walks stop
// there rather than crossing the remaining walls; only the direction matters after it.
inline bool beyond_heights(const float3& o, const float3& d, float lo, float hi) {
  return (d.z > 0.0f && o.z > hi) || (d.z < 0.0f && o.z < lo);
}

// Moves o to the exit point at distance t and wraps the crossed axis into the next tile.
// A ray that ends a rounding error outside the new tile is still on its wall: the wall
// search above takes it across the wall it moves towards, and the walks look from
// distance 0 after a wall, so nothing at the wall is skipped.
inline void cross_tile(float w, float h, int axis, float t, const float3& d, float3& o) {
  o = o + t * d;
  if (axis == 0)
    o.x += d.x > 0.0f ? -w : w;
  else
    o.y += d.y > 0.0f ? -h : h;
}

}  // namespace vesk
