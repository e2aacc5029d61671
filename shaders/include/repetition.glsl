// Queries through a repeated scene (the CPU scene's shadowed_repetitive and the closest
// hit across tile walls): a ray that leaves the tile [0, w] x [0, h] goes on from the
// opposite wall, at most num_repetitions times. Needs scene.glsl and tile.glsl.

struct Repeat {
  int num_repetitions;
  float w, h, lo, hi;  // the tile, and the scene's height range
};

bool repeat_active(Repeat r) { return r.num_repetitions > 0 && r.w > 0.0 && r.h > 0.0; }

// The walls are crossed inside one loop around a single query, so that the query is
// compiled once.
bool shadowed_repetitive(Repeat r, vec3 o, vec3 d) {
  int crossings = repeat_active(r) ? r.num_repetitions : 0;
  float remaining = 1e16;
  for (int step = 0; step <= crossings; ++step) {
    vec3 from = o;
    if (step > 0) {
      if (beyond_heights(o, d, r.lo, r.hi)) return false;
      float t;
      int axis = tile_exit(r.w, r.h, o, d, t);
      if (axis < 0) return false;
      cross_tile(r.w, r.h, axis, t, d, o);
      remaining -= t;
      if (remaining <= 0.0) return false;
      // From a wall nothing needs skipping: the query starts SURFACE_T_MIN behind it.
      from = o - SURFACE_T_MIN * d;
    }
    if (trace_shadow(from, d, 1e16)) return true;
  }
  return false;
}

// The closest hit from distance 0 on, followed across the tile walls until something is
// hit (the energy balance's queries).
Hit closest_repetitive(Repeat r, vec3 o, vec3 d) {
  int crossings = repeat_active(r) ? r.num_repetitions : 0;
  Hit h;
  for (int k = 0; k <= crossings; ++k) {
    if (k > 0) {
      if (beyond_heights(o, d, r.lo, r.hi)) break;
      float t;
      int axis = tile_exit(r.w, r.h, o, d, t);
      if (axis < 0) break;
      cross_tile(r.w, r.h, axis, t, d, o);
    }
    h = trace_ray(o, d, 0.0, 1e30);
    if (h.hit) break;
  }
  return h;
}
