// LiDAR pulse tracing (lidar/lidar_simulation.cpp): the first surface along a pulse ray,
// across the tile walls of a repeated scene. Needs scene.glsl and tile.glsl.

struct PulseScene {
  int num_repetitions;
  float w, h, z_lo, z_hi;  // the tile, and the scene's height range
};

bool pulse_repeat_active(PulseScene s) { return s.num_repetitions > 0 && s.w > 0.0 && s.h > 0.0; }

// A pulse ray in a repeated scene walks the tiles from the home tile: it is moved along
// itself to 1 m above the scene (the range it skips is returned), then by whole tiles.
float enter_tile(PulseScene s, inout vec3 o, vec3 d) {
  float top = s.z_hi + 1.0;
  float skipped = 0.0;
  if (o.z > top && d.z < 0.0) {
    skipped = (top - o.z) / d.z;
    o = vec3(o.x + skipped * d.x, o.y + skipped * d.y, top);
  }
  o.x -= floor(o.x / s.w) * s.w;
  o.y -= floor(o.y / s.h) * s.h;
  return skipped;
}

// The tile wall the ray leaves by, or -1: no repetition, crossings used up, or past the
// scene's heights (MediaScene::border_exit).
int border_exit(PulseScene s, vec3 o, vec3 d, int crossings, out float t) {
  t = 0.0;
  if (!pulse_repeat_active(s) || crossings >= s.num_repetitions || beyond_heights(o, d, s.z_lo, s.z_hi))
    return -1;
  return tile_exit(s.w, s.h, o, d, t);
}

float length3(vec3 a) { return sqrt(a.x * a.x + a.y * a.y + a.z * a.z); }

// The first surface along the ray from o; range: its distance from o.
Hit trace_pulse(PulseScene s, vec3 o, vec3 d, out float range) {
  if (!pulse_repeat_active(s)) {
    Hit hit = trace_ray(o, d, SURFACE_T_MIN, 1e30);
    range = length3(hit.position - o);
    return hit;
  }
  range = enter_tile(s, o, d);
  float t_min = SURFACE_T_MIN;
  for (int crossings = 0;; ++crossings) {
    Hit hit = trace_ray(o, d, t_min, 1e30);
    float t = 0.0;
    int axis = hit.hit ? -1 : border_exit(s, o, d, crossings, t);
    if (axis < 0) {
      range += hit.t;
      return hit;
    }
    cross_tile(s.w, s.h, axis, t, d, o);
    range += t;
    t_min = 0.0;  // from a wall: nothing to step off
  }
  return trace_ray(o, d, t_min, 1e30);  // not reached
}
