// Repeated scenes: a ray leaving the tile [0, w] x [0, h] re-enters it through the
// opposite wall (core/tile.h).

// How far along a ray a query from a surface point starts (SURFACE_T_MIN).
const float SURFACE_T_MIN = 1e-4;

// The wall the ray leaves through: 0 for x, 1 for y, -1 for none, and its distance t. On
// each axis only the wall the ray moves towards counts, and a ray already a rounding
// error past it leaves at t = 0 (a wall is never skipped for being close: see tile.h).
int tile_exit(float w, float h, vec3 o, vec3 d, out float t) {
  float best = 1e16;
  int axis = -1;
  if (abs(d.x) > 1e-8) {
    float tx = max((d.x > 0.0 ? w - o.x : -o.x) / d.x, 0.0);
    if (tx < best) { best = tx; axis = 0; }
  }
  if (abs(d.y) > 1e-8) {
    float ty = max((d.y > 0.0 ? h - o.y : -o.y) / d.y, 0.0);
    if (ty < best) { best = ty; axis = 1; }
  }
  t = best;
  return axis;
}

// Above the scene's heights and rising, or below and falling: nothing left to hit.
bool beyond_heights(vec3 o, vec3 d, float lo, float hi) {
  return (d.z > 0.0 && o.z > hi) || (d.z < 0.0 && o.z < lo);
}

void cross_tile(float w, float h, int axis, float t, vec3 d, inout vec3 o) {
  o = o + t * d;
  if (axis == 0) o.x += d.x > 0.0 ? -w : w;
  else o.y += d.y > 0.0 ? -h : h;
}
