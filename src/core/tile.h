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

// Moves a camera ray that starts outside the home tile into it: wrap by whole tiles (at
// the height `top` where a downward ray starts over the scene), then step to the wall the
// ray enters through, kept 0.001 inside the tile.
inline void enter_tile(float w, float h, float top, float3& o, const float3& d) {
  float px = o.x, py = o.y;
  if (o.z > top && d.z < -1e-8f) {
    const float t = (top - o.z) / d.z;
    px = o.x + t * d.x;
    py = o.y + t * d.y;
  }
  if (px > w) o.x -= float(int(px / w)) * w;
  else if (px < 0.0f) o.x += float(int((w - px) / w)) * w;
  if (py > h) o.y -= float(int(py / h)) * h;
  else if (py < 0.0f) o.y += float(int((h - py) / h)) * h;

  float tx = -1.0f, ty = -1.0f;
  if (o.x > w && d.x < -1e-8f) tx = (w - o.x) / d.x;
  else if (o.x < 0.0f && d.x > 1e-8f) tx = -o.x / d.x;
  if (o.y > h && d.y < -1e-8f) ty = (h - o.y) / d.y;
  else if (o.y < 0.0f && d.y > 1e-8f) ty = -o.y / d.y;
  float step = 0.0f;
  if (tx >= 0.0f && ty >= 0.0f) step = std::fmax(tx, ty);
  else if (tx >= 0.0f) step = tx;
  else if (ty >= 0.0f) step = ty;
  if (step > 0.0f) {
    o = o + step * d;
    o.x = std::fmin(std::fmax(o.x, 0.001f), w - 0.001f);
    o.y = std::fmin(std::fmax(o.y, 0.001f), h - 0.001f);
  }
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
