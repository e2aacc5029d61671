#pragma once
// Repeated scenes: a ray leaving the tile [0, w] x [0, h] re-enters it through the
// opposite wall. Shared by the shadow walk and every tracer that crosses tile walls.

#include <cmath>

#include "core/types.h"

namespace vesk {

// The wall the ray from o along d leaves through: returns the axis (0 for x, 1 for y, -1
// for none) and its distance t. Candidates must lie above 1e-4 and below 1e16; a y wall
// wins only when it is nearer than the x wall.
inline int tile_exit(float w, float h, const float3& o, const float3& d, float& t) {
  float best = 1e16f;
  int axis = -1;
  if (std::fabs(d.x) > 1e-8f) {
    const float t0 = -o.x / d.x, t1 = (w - o.x) / d.x;
    if (t0 > 1e-4f && t0 < best) best = t0, axis = 0;
    if (t1 > 1e-4f && t1 < best) best = t1, axis = 0;
  }
  if (std::fabs(d.y) > 1e-8f) {
    const float t0 = -o.y / d.y, t1 = (h - o.y) / d.y;
    if (t0 > 1e-4f && t0 < best) best = t0, axis = 1;
    if (t1 > 1e-4f && t1 < best) best = t1, axis = 1;
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
inline void cross_tile(float w, float h, int axis, float t, const float3& d, float3& o) {
  o = o + t * d;
  if (axis == 0)
    o.x += d.x > 0.0f ? -w : w;
  else
    o.y += d.y > 0.0f ? -h : h;
}

}  // namespace vesk
