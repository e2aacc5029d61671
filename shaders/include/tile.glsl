// Repeated scenes: a ray leaving the tile [0, w] x [0, h] re-enters it through the
// opposite wall (core/tile.h).

// The wall the ray leaves through: 0 for x, 1 for y, -1 for none, and its distance t.
int tile_exit(float w, float h, vec3 o, vec3 d, out float t) {
  float best = 1e16;
  int axis = -1;
  if (abs(d.x) > 1e-8) {
    float t0 = -o.x / d.x, t1 = (w - o.x) / d.x;
    if (t0 > 1e-4 && t0 < best) { best = t0; axis = 0; }
    if (t1 > 1e-4 && t1 < best) { best = t1; axis = 0; }
  }
  if (abs(d.y) > 1e-8) {
    float t0 = -o.y / d.y, t1 = (h - o.y) / d.y;
    if (t0 > 1e-4 && t0 < best) { best = t0; axis = 1; }
    if (t1 > 1e-4 && t1 < best) { best = t1; axis = 1; }
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
