// Rays through optical turbid media on the device: the medium table, the projection G,
// the combined free path, the hot-spot transmittance and the leaf normal
// (core/optical_media), and the walk of embree/media_walk: which media a point lies in,
// crossing bounding surfaces and tile walls, and shadow transmittance. Same names, same
// constants, same order of draws as the CPU.
//
// How a program uses it:
// - Include after scene.glsl, rng.glsl and tile.glsl. Doubles must be available
//   (shaderFloat64): shadow depths add up in double, as on the CPU.
// - Two storage buffers, bound on the host by Device::prepare_media(scene) then
//   Device::bind_media(program, MEDIA_TABLE_BINDING): MediaTable at MEDIA_TABLE_BINDING and
//   MaterialMedia at MEDIA_MATERIAL_BINDING (default 14 and 15; #define them before the
//   include to move them). They carry the repetition and the scene's heights themselves.
// - Photon loop, for a ray at o along d with an ActiveMediumList `list` (and, for a path
//   from the sensor, a first-order list for the hot spot):
//     media_at_point(o, d, list) where a ray starts (camera, source, emitted photon);
//     Segment seg = next_segment(o, d, crossings, list.count > 0, start);
//     FreePath fp = sample_combined_free_path(list.medium_id, list.count, d, rng_float(rng), 0.0)
//     if fp.sigma_total > 0 and fp.distance < seg.bound: a collision at o + fp.distance * d;
//       slot = select_medium_slot(list.medium_id, list.count, d, fp.sigma_total, rng_float(rng));
//       medium = list.medium_id[slot], material media[medium].material_id (-1: the path
//       ends); n = sample_leaf_normal(media[medium].leaf_angle_type, d, rng, back); scatter
//       with n as the surface normal; the next leg starts at the point with START_POINT.
//     else if seg.at_border: cross_tile(...) with seg.axis, seg.border; ++crossings;
//       rescan_after_border(o + MEDIUM_STEP * d, d, list, first_order); start = START_WALL.
//     else if seg.hit.hit and medium_of(seg.hit) >= 0: cross_boundary(seg.hit, medium, d, o,
//       list, first_order, unscattered) (at most MAX_MEDIUM_CROSSINGS per path);
//       start = START_BOUNDARY.
//     else an ordinary surface (or an escape); after its event
//       media_after_surface(hit.position, o_new, d_new, list), start = START_POINT.
//   Sun or source visibility: shadow_transmittance(from, dir, list, with_first,
//   first_order, observation, start), 0 behind ordinary surfaces.
//   Outside the media box (in_media_box, meets_media_box) a program may take its plain way.
// - Build cost: every call site of next_segment, media_at_point, media_after_surface and
//   shadow_transmittance expands ray traversals inline, and lavapipe needs minutes for a
//   program with many. Keep one site of each in the loop: rescan at the top of the loop
//   (media_at_point, then merge_first_order) instead of calling rescan_after_border or
//   cross_boundary in several branches (toggle_boundary is the crossing without copies
//   over the walls), and share one shadow_transmittance between surfaces and leaves, as
//   trace_medium_path in backward.glsl does.

#ifndef MEDIA_TABLE_BINDING
#define MEDIA_TABLE_BINDING 14
#endif
#ifndef MEDIA_MATERIAL_BINDING
#define MEDIA_MATERIAL_BINDING 15
#endif

const int MAX_ACTIVE_MEDIA = 8;
const int G_TABLE_SIZE = 91;
const float MEDIUM_STEP = 0.0002;
const int MAX_MEDIUM_CROSSINGS = 128;
const float BORDER_TIE = 0.0005;
const float WALL_REACH = MEDIUM_STEP + 1e-4;
// A rounding error behind a point on a wall or a boundary (embree/media_walk.cpp).
const float BACK_OFF = 1e-5;
const int GHOST_SHIFT = 27;
const uint INSTANCE_MASK = (1u << 27) - 1u;
const float LARGEST_FLOAT = 3.4028235e+38;

// Where a ray of a media walk starts (RayStart).
const int START_SURFACE = 0;   // off a surface: hits from SURFACE_T_MIN on
const int START_POINT = 1;     // at a leaf collision: hits from 0 on
const int START_WALL = 2;      // on a tile wall, media rescanned there
const int START_BOUNDARY = 3;  // on the medium boundary just crossed

struct MediaHeader {
  int n_media, n_ghosts, num_repetitions, n_material_ids;
  float tile_w, tile_h, z_lo, z_hi;
  vec4 media_lo, media_hi;
  vec4 ghost_offset[8], ghost_lo[8], ghost_hi[8];
};
struct Medium {
  float leaf_area_density, leaf_characteristic_length;
  int leaf_angle_type, orientation, material_id;
  float projection_g[91];
};
layout(std430, set = 0, binding = MEDIA_TABLE_BINDING) readonly buffer MediaTable {
  MediaHeader MS;
  Medium media[];
};
layout(std430, set = 0, binding = MEDIA_MATERIAL_BINDING) readonly buffer MaterialMedia {
  int material_medium_ids[];
};

// ---- the medium model (core/optical_media) ----

float projection_g(int m, vec3 d) {
  float mu = min(abs(d.z), 1.0);
  float degrees = acos(mu) * 57.29578;
  int i = degrees >= 0.0 ? min(int(degrees), G_TABLE_SIZE - 1) : 0;
  float frac = degrees - float(i);
  int j = i < G_TABLE_SIZE - 1 ? i + 1 : i;
  return (1.0 - frac) * media[m].projection_g[i] + frac * media[m].projection_g[j];
}

float medium_sigma(int m, vec3 d) { return media[m].leaf_area_density * projection_g(m, d); }

// Ids outside the table count zero.
float slot_sigma(int id, vec3 d) { return id >= 0 && id < MS.n_media ? medium_sigma(id, d) : 0.0; }

struct FreePath {
  float distance, sigma_total;
  int selected_slot, medium_id;
};

int select_medium_slot(int ids[MAX_ACTIVE_MEDIA], int n, vec3 d, float sigma_total,
                       float selection_sample) {
  float target = clamp(selection_sample, 0.0, 0.99999994) * sigma_total;
  for (int k = 0; k < n; ++k) {
    target -= slot_sigma(ids[k], d);
    if (target <= 0.0) return k;
  }
  return n - 1;
}

FreePath sample_combined_free_path(int ids[MAX_ACTIVE_MEDIA], int n, vec3 d,
                                   float distance_sample, float selection_sample) {
  FreePath r = FreePath(LARGEST_FLOAT, 0.0, -1, -1);
  if (n < 1 || n > MAX_ACTIVE_MEDIA) return r;
  for (int k = 0; k < n; ++k) r.sigma_total += slot_sigma(ids[k], d);
  if (!(r.sigma_total > 0.0)) return r;
  r.distance = -log(max(1.0 - distance_sample, 1e-7)) / r.sigma_total;
  r.selected_slot = select_medium_slot(ids, n, d, r.sigma_total, selection_sample);
  r.medium_id = ids[r.selected_slot];
  return r;
}

// exp(x) - 1 without the cancellation near 0 (Kahan's correction).
float expm1_accurate(float x) {
  float u = exp(x);
  if (u == 1.0) return x;
  float um1 = u - 1.0;
  if (um1 == -1.0) return -1.0;
  return um1 * x / log(u);
}

float conditional_hotspot_transmittance(int m, float tau, float a, float b, vec3 s, vec3 o) {
  float L = media[m].leaf_characteristic_length;
  if (!(a > 0.0) || !(b > 0.0) || !(L > 0.0)) return exp(min(-tau, 0.0));
  float sigma_s = medium_sigma(m, s), sigma_o = medium_sigma(m, o);
  float d = length(s - o);
  if (d <= 1e-6) return exp(-sigma_s * max(a - b, 0.0));
  float span = min(a, b), k = d / L;
  float correlated = (-expm1_accurate(-k * span) / k) * sqrt(max(sigma_s * sigma_o, 0.0));
  correlated = min(correlated, min(sigma_s * a, b * sigma_o));
  return exp(min(correlated - tau, 0.0));
}

vec3 sample_leaf_normal(int type, vec3 omega, inout Rng rng, out bool back) {
  vec3 n = vec3(0.0, 0.0, 1.0);
  for (int round = 0; round < 64; ++round) {
    float t = 0.0;
    if (type == 0) {
      t = acos(rng_float(rng));
    } else if (type == 5) {
      t = rng_float(rng) * 1.5707964;
    } else {
      // Rejection from (1 + s cos(k t)) / 2, the shape of the density.
      float k = (type == 1 || type == 2) ? 2.0 : 4.0;
      float sgn = (type == 1 || type == 4) ? 1.0 : -1.0;
      for (int p = 0; p < 64; ++p) {
        float c = rng_float(rng) * 1.5707964;
        if (rng_float(rng) <= (1.0 + sgn * cos(k * c)) * 0.5) {
          t = c;
          break;
        }
      }
    }
    float phi = rng_float(rng) * 6.2831855;
    float st = sin(t);
    vec3 candidate = vec3(st * cos(phi), st * sin(phi), cos(t));
    if (rng_float(rng) <= abs(dot(omega, candidate))) {
      n = candidate;
      break;
    }
  }
  back = dot(n, -omega) < 0.0;
  return back ? -n : n;
}

// The media a ray is in, keyed by (medium, bounding instance); primary_distance: the
// length the path ran in the slot before its first scattering.
struct ActiveMediumList {
  int count;
  int medium_id[MAX_ACTIVE_MEDIA];
  uint instance_key[MAX_ACTIVE_MEDIA];
  float primary_distance[MAX_ACTIVE_MEDIA];
};

ActiveMediumList empty_medium_list() {
  ActiveMediumList l;
  l.count = 0;
  for (int i = 0; i < MAX_ACTIVE_MEDIA; ++i) {
    l.medium_id[i] = 0;
    l.instance_key[i] = 0u;
    l.primary_distance[i] = 0.0;
  }
  return l;
}

int list_find(ActiveMediumList l, int medium, uint instance) {
  for (int i = 0; i < l.count; ++i)
    if (l.medium_id[i] == medium && l.instance_key[i] == instance) return i;
  return -1;
}

// Appends with primary_distance 0; false when the list is full.
bool list_add(inout ActiveMediumList l, int medium, uint instance) {
  if (l.count >= MAX_ACTIVE_MEDIA) return false;
  l.medium_id[l.count] = medium;
  l.instance_key[l.count] = instance;
  l.primary_distance[l.count] = 0.0;
  ++l.count;
  return true;
}

void list_remove(inout ActiveMediumList l, int slot) {
  for (int i = slot; i + 1 < l.count; ++i) {
    l.medium_id[i] = l.medium_id[i + 1];
    l.instance_key[i] = l.instance_key[i + 1];
    l.primary_distance[i] = l.primary_distance[i + 1];
  }
  --l.count;
}

// ---- the walk (embree/media_walk) ----

// The medium a hit's surface bounds, -1 for an ordinary surface.
int medium_of(Hit h) {
  return h.material_id >= 0 && h.material_id < MS.n_material_ids ? material_medium_ids[h.material_id]
                                                                  : -1;
}

float media_sigma(int medium, vec3 d) {
  return medium >= 0 && medium < MS.n_media ? medium_sigma(medium, d) : 0.0;
}

uint instance_of_key(uint key) { return MS.n_ghosts > 0 ? key & INSTANCE_MASK : key; }

bool repetition_active() { return MS.num_repetitions > 0 && MS.tile_w > 0.0 && MS.tile_h > 0.0; }

int border_exit(vec3 o, vec3 d, int crossings, out float t) {
  t = 0.0;
  if (!repetition_active() || crossings >= MS.num_repetitions || beyond_heights(o, d, MS.z_lo, MS.z_hi))
    return -1;
  return tile_exit(MS.tile_w, MS.tile_h, o, d, t);
}

bool in_media_box(vec3 p) {
  vec3 lo = MS.media_lo.xyz, hi = MS.media_hi.xyz;
  return p.x >= lo.x && p.x <= hi.x && p.y >= lo.y && p.y <= hi.y && p.z >= lo.z && p.z <= hi.z;
}

bool ray_meets_box(vec3 o, vec3 d, float t_max, vec3 box_lo, vec3 box_hi) {
  float t0 = 0.0, t1 = t_max;
  for (int a = 0; a < 3; ++a) {
    if (abs(d[a]) < 1e-12) {
      if (o[a] < box_lo[a] || o[a] > box_hi[a]) return false;
      continue;
    }
    float ta = (box_lo[a] - o[a]) / d[a], tb = (box_hi[a] - o[a]) / d[a];
    if (ta > tb) {
      float sw = ta;
      ta = tb;
      tb = sw;
    }
    t0 = max(t0, ta);
    t1 = min(t1, tb);
    if (t0 > t1) return false;
  }
  return true;
}

bool meets_media_box(vec3 o, vec3 d, float t_max) {
  return ray_meets_box(o, d, t_max, MS.media_lo.xyz, MS.media_hi.xyz);
}

float next_float_up(float x) { return x >= 0.0 ? uintBitsToFloat(floatBitsToUint(x) + 1u) : x; }

// The closest hit among ordinary surfaces from t_surface on and medium boundaries from
// t_boundary on (a query whose start lies past t_max is skipped). Where a boundary and an
// ordinary surface coincide (a layer's floor on the ground) the surface is taken: the
// ray meets it inside the medium, and the list the event sees says so. Every query of the
// walk goes through the one site here: lavapipe and drivers like it expand each call site
// of a ray query into a traversal of its own.
Hit closest_split(vec3 o, vec3 d, float t_surface, float t_boundary, float t_max) {
  Hit best;
  best.t = t_max;
  best.position = vec3(0.0);
  best.shading_normal = best.geometric_normal = vec3(0.0, 0.0, 1.0);
  best.material_id = best.local_primitive = best.primitive_id = best.instance_id = -1;
  best.hit = best.back_face = false;
  bool same = t_surface == t_boundary;
  for (int q = 0; q < 2; ++q) {
    float t_min = q == 0 ? t_surface : t_boundary;
    float t_end = t_max;
    uint mask = same ? MASK_ALL : (q == 0 ? MASK_SURFACE : MASK_MEDIUM_BOUNDARY);
    if (same && q == 1) {
      // Only after a boundary: an ordinary surface at the same distance, within rounding.
      if (!best.hit || medium_of(best) < 0) break;
      t_end = min(best.t * (1.0 + 1e-6) + 1e-7, t_max);
      mask = MASK_SURFACE;
    }
    if (!(t_min <= t_end)) continue;
    Hit h = trace_ray_masked(o, d, t_min, t_end, mask);
    // A boundary found after the surface query comes first only when it lies before the
    // surface by more than rounding: the margin the host walk uses too.
    bool before = !best.hit || (same || q == 0 ? h.t < best.t : h.t * (1.0 + 1e-6) + 1e-7 < best.t);
    if (h.hit && (before || (h.t <= t_end && medium_of(best) >= 0 && medium_of(h) < 0)))
      best = h;
  }
  return best;
}

// The closest hit from distance 0 on, passing the medium boundaries within `within` and
// only those.
Hit trace_ray_past_media(vec3 o, vec3 d, float within, float t_max) {
  return closest_split(o, d, 0.0, next_float_up(max(within, 0.0)), t_max);
}

// The closest bounding surface of a medium; every other surface is passed.
Hit trace_media_boundary(vec3 o, vec3 d, float t_min, float t_max) {
  return closest_split(o, d, uintBitsToFloat(0x7f800000u), t_min, t_max);
}

// The next event of a ray through a scene with media: the surface ahead, and the tile
// wall where the ray leaves its tile before it.
struct Segment {
  Hit hit;
  int axis;
  float border;
  bool at_border;
  float bound;
};

// The ghost after g whose box the ray meets within reach, or n_ghosts.
int next_ghost(int g, vec3 o, vec3 d, float reach) {
  for (++g; g < MS.n_ghosts; ++g)
    if (ray_meets_box(o, d, reach, MS.ghost_lo[g].xyz, MS.ghost_hi[g].xyz)) break;
  return g;
}

// One query site for the three kinds of query: the surface ahead (phase 0), the
// neighbours' copies (phase 1) and the surface behind a boundary at a wall (phase 2).
Segment next_segment(vec3 o, vec3 d, int crossings, bool in_media, int start) {
  Segment s;
  s.axis = -1;
  s.border = 0.0;
  s.at_border = false;
  s.bound = 1e16;
  const float PASS = next_float_up(WALL_REACH + BACK_OFF);
  const float ghost_t_min =
      start == START_SURFACE ? SURFACE_T_MIN : (start == START_BOUNDARY ? WALL_REACH : 0.0);
  int phase = 0, g = -1;
  float reach = 1e30, t_min = 0.0;
  for (int q = 0; q < 2 + 8 * MAX_MEDIUM_CROSSINGS; ++q) {
    vec3 qo;
    float ts, tb, t_max;
    if (phase == 0) {
      bool on_wall = start == START_WALL || start == START_BOUNDARY;
      qo = on_wall ? o - BACK_OFF * d : o;
      ts = on_wall ? 0.0 : (start == START_POINT ? 0.0 : SURFACE_T_MIN);
      tb = on_wall ? PASS : ts;
      t_max = 1e30;
    } else if (phase == 1) {
      qo = o - MS.ghost_offset[g].xyz;
      ts = tb = t_min;
      t_max = reach;
    } else {
      qo = s.hit.position - BACK_OFF * d;
      ts = 0.0;
      tb = PASS;
      t_max = s.border - s.hit.t + BACK_OFF;
    }
    Hit h = closest_split(qo, d, ts, tb, t_max);
    if (phase == 0) {
      s.hit = h;
      if (start == START_WALL || start == START_BOUNDARY) {
        // Nothing to step off: surfaces on the wall or the boundary are met, and the
        // bounding surfaces the rescan has counted (or the one crossed) are passed. The
        // query starts a rounding error behind the point, so that a surface through it
        // is not missed for lying at -1e-7.
        if (s.hit.hit) s.hit.t = max(s.hit.t - BACK_OFF, 0.0);
      }
      if (in_media || !s.hit.hit || MS.n_ghosts > 0) s.axis = border_exit(o, d, crossings, s.border);
      if (MS.n_ghosts > 0) {
        // The neighbours' copies that reach into the tile: their bounding surfaces
        // within the tile, before the hit, from the ray moved into the instance's frame.
        reach = s.hit.hit ? s.hit.t : 1e30;
        if (s.axis >= 0) reach = min(reach, s.border + BORDER_TIE);
        g = next_ghost(-1, o, d, reach);
        t_min = ghost_t_min;
        if (g < MS.n_ghosts) {
          phase = 1;
          continue;
        }
      }
    } else if (phase == 1) {
      bool next = true;
      if (h.hit && h.t < reach) {
        t_min = next_float_up(h.t);
        if (medium_of(h) < 0 || (start == START_WALL && h.t <= WALL_REACH)) {
          next = false;  // passed: the same copy again, further on
        } else {
          h.position = h.position + MS.ghost_offset[g].xyz;
          h.instance_id = int(uint(h.instance_id) | (uint(g + 1) << GHOST_SHIFT));
          s.hit = h;
          reach = h.t;
        }
      }
      if (next) {
        g = next_ghost(g, o, d, reach);
        t_min = ghost_t_min;
      }
      if (g < MS.n_ghosts) continue;
    } else {
      if (h.hit && medium_of(h) < 0) s.at_border = false;
      break;
    }
    // Phases 0 and 1 done.
    if (MS.n_ghosts > 0 && !in_media && s.hit.hit) s.axis = -1;  // out of media a hit is taken as it comes
    s.at_border = s.axis >= 0 && (!s.hit.hit || s.hit.t > s.border + BORDER_TIE ||
                                  (s.hit.t >= s.border - BORDER_TIE && medium_of(s.hit) >= 0));
    // A boundary just short of the wall gives way to it, unless another surface lies
    // between them: crossing the wall would pass under it, so the boundary is crossed first.
    if (s.at_border && s.hit.hit && s.hit.t < s.border && medium_of(s.hit) >= 0) {
      phase = 2;
      continue;
    }
    break;
  }
  s.bound = s.at_border ? s.border : (s.hit.hit ? s.hit.t : 1e16);
  return s;
}

// Adds to `l` the media of the instances around p that contain it, by the forward scan
// (the first hit on each bounding instance decides), with `tag` in their keys; false
// when the list is full.
bool scan_media(vec3 p, vec3 d, uint tag, inout ActiveMediumList l) {
  if (!in_media_box(p)) return true;
  uint seen[MAX_MEDIUM_CROSSINGS];
  int n_seen = 0;
  vec3 o = p;
  for (int step = 0; step < MAX_MEDIUM_CROSSINGS; ++step) {
    Hit hit = closest_split(o, d, SURFACE_T_MIN, SURFACE_T_MIN, 1e30);
    if (!hit.hit) return true;
    o = hit.position + MEDIUM_STEP * d;
    // Past the media box nothing ahead can bound a medium.
    if (!in_media_box(o) && !meets_media_box(o, d, 1e30)) return true;
    int medium = medium_of(hit);
    if (medium < 0) continue;
    uint key = uint(hit.instance_id) | tag;
    bool known = false;
    for (int i = 0; i < n_seen; ++i) known = known || seen[i] == key;
    if (known) continue;
    if (n_seen == MAX_MEDIUM_CROSSINGS) return true;
    seen[n_seen++] = key;
    // Leaving through a face whose side matches the medium's orientation: p is inside.
    int side = hit.back_face ? 1 : -1;
    if (medium < MS.n_media && media[medium].orientation == side && list_find(l, medium, key) < 0 &&
        !list_add(l, medium, key))
      return false;
  }
  return true;
}

// The media containing p, by a forward scan along d.
void media_at_point(vec3 p, vec3 d, out ActiveMediumList l) {
  l = empty_medium_list();
  // The home tile's instances, then the neighbours' copies reaching into the tile, which
  // overlap these as further media.
  for (int g = -1; g < MS.n_ghosts; ++g) {
    vec3 q = g < 0 ? p : p - MS.ghost_offset[g].xyz;
    if (!scan_media(q, d, g < 0 ? 0u : uint(g + 1) << GHOST_SHIFT, l)) return;
  }
}

// After a surface event at `surface`, leaving from o along d with START_POINT: a medium
// boundary between the surface and o is behind o; the list is set as it says.
void media_after_surface(vec3 surface, vec3 o, vec3 d, inout ActiveMediumList l) {
  if (!in_media_box(o)) return;
  vec3 from = surface - BACK_OFF * d;
  float reach = BACK_OFF + 4.0 * length(o - surface);
  float t_min = 0.0;
  for (int k = 0; k < MAX_ACTIVE_MEDIA; ++k) {
    Hit b = trace_media_boundary(from, d, t_min, reach);
    // A boundary that o has not passed (its normal faces the ray) is met from o.
    if (!b.hit || dot(o - b.position, b.geometric_normal) >= 0.0) return;
    int medium = medium_of(b);
    uint key = uint(b.instance_id);
    bool leaving = medium >= 0 && medium < MS.n_media && media[medium].orientation == (b.back_face ? 1 : -1);
    int slot = list_find(l, medium, key);
    if (leaving && slot >= 0) list_remove(l, slot);
    if (!leaving && slot < 0 && !list_add(l, medium, key)) return;
    t_min = next_float_up(b.t);
  }
}

// Enters or leaves (medium, instance); false when a ninth medium would be entered.
bool toggle_medium(inout ActiveMediumList l, int medium, uint instance) {
  int slot = list_find(l, medium, instance);
  if (slot >= 0) {
    list_remove(l, slot);
    return true;
  }
  return list_add(l, medium, instance);
}

// Adds the pairs of `l` that `first_order` lacks to it, with primary_distance 0; false
// when it overflows.
bool merge_first_order(ActiveMediumList l, inout ActiveMediumList first_order) {
  for (int k = 0; k < l.count; ++k)
    if (list_find(first_order, l.medium_id[k], l.instance_key[k]) < 0 &&
        !list_add(first_order, l.medium_id[k], l.instance_key[k]))
      return false;
  return true;
}

// Crossing the bounding surface `hit` of `medium` where no copies reach over the walls
// (MS.n_ghosts == 0): the pair is toggled, and a pair entered joins `first_order` when
// `unscattered`. False when a ninth medium would be entered.
bool toggle_boundary(Hit hit, int medium, inout ActiveMediumList l, inout ActiveMediumList first_order,
                     bool unscattered) {
  uint key = uint(hit.instance_id);
  bool entering = list_find(l, medium, key) < 0;
  if (!toggle_medium(l, medium, key)) return false;
  return !(unscattered && entering && list_find(first_order, medium, key) < 0 &&
           !list_add(first_order, medium, key));
}

// Crosses the bounding surface `hit` of `medium`, moving o onto it (the walk goes on with
// START_BOUNDARY). With copies reaching over the walls, surfaces of a medium and of its
// copies coincide, so the media are rescanned past it instead of toggled; pairs entered
// join `first_order` when `unscattered`. False when a ninth medium would be entered.
// A program that also rescans elsewhere in its loop saves a traversal by doing the
// ghost case there: toggle_boundary, or media_at_point(o + MEDIUM_STEP * d, d, l) and
// merge_first_order.
bool cross_boundary(Hit hit, int medium, vec3 d, inout vec3 o, inout ActiveMediumList l,
                    inout ActiveMediumList first_order, bool unscattered) {
  o = hit.position;
  if (MS.n_ghosts > 0) {
    media_at_point(o + MEDIUM_STEP * d, d, l);
    return !unscattered || merge_first_order(l, first_order);
  }
  return toggle_boundary(hit, medium, l, first_order, unscattered);
}

// After a tile crossing: the media at the wrapped point replace the list, and pairs new
// to the first-order list are added to it; false when that list overflows.
bool rescan_after_border(vec3 p, vec3 d, inout ActiveMediumList l, inout ActiveMediumList first_order) {
  media_at_point(p, d, l);
  return merge_first_order(l, first_order);
}

// Transmittance of the ray from o along d through the media of `l` (the media o lies in),
// across bounding surfaces and tile borders; 0 when an ordinary surface blocks it. With
// `with_first`, depth shared with the path's first leg (first_order, observation: unit,
// back along that leg) is corrected by the hot spot of each shared medium.
double shadow_transmittance(vec3 o, vec3 d, ActiveMediumList l, bool with_first,
                            ActiveMediumList first_order, vec3 observation, int start) {
  double depth = 0.0LF;
  float shared_length[MAX_ACTIVE_MEDIA], shared_depth[MAX_ACTIVE_MEDIA];
  for (int j = 0; j < MAX_ACTIVE_MEDIA; ++j) shared_length[j] = shared_depth[j] = 0.0;
  int crossings = 0, borders = 0;
  bool rescan = false;  // the media at o + MEDIUM_STEP * d replace the list first
  while (true) {
    if (rescan) {
      media_at_point(o + MEDIUM_STEP * d, d, l);
      rescan = false;
    }
    if (l.count == 0 && !meets_media_box(o, d, 1e30)) {
      // Outside every medium and never meeting one in this tile: plain occlusion.
      bool off_surface = start == START_SURFACE || start == START_BOUNDARY;
      if (trace_shadow(off_surface ? o : o - SURFACE_T_MIN * d, d, 1e16)) return 0.0LF;
      float border;
      int axis = border_exit(o, d, borders, border);
      if (axis < 0) break;
      cross_tile(MS.tile_w, MS.tile_h, axis, border, d, o);
      ++borders;
      rescan = true;
      start = START_WALL;
      continue;
    }
    Segment seg = next_segment(o, d, borders, true, start);
    float segment = seg.at_border ? seg.border : (seg.hit.hit ? seg.hit.t : uintBitsToFloat(0x7f800000u));
    for (int k = 0; k < l.count; ++k) {
      float sigma = media_sigma(l.medium_id[k], d);
      if (!(sigma > 0.0)) continue;
      double tau = double(sigma) * double(segment);
      depth += tau;
      if (with_first) {
        int j = list_find(first_order, l.medium_id[k], l.instance_key[k]);
        if (j >= 0) {
          shared_length[j] += segment;
          shared_depth[j] += float(tau);
        }
      }
    }
    if (!(depth < 80.0LF)) return 0.0LF;  // exp(-80) is nothing in any band
    if (seg.at_border) {
      cross_tile(MS.tile_w, MS.tile_h, seg.axis, seg.border, d, o);
      ++borders;
      rescan = true;
      start = START_WALL;
      continue;
    }
    if (!seg.hit.hit) break;
    int medium = medium_of(seg.hit);
    if (medium < 0) return 0.0LF;  // an ordinary surface blocks the ray
    if (++crossings > MAX_MEDIUM_CROSSINGS) return 0.0LF;
    o = seg.hit.position;
    start = START_BOUNDARY;
    if (MS.n_ghosts > 0) {
      rescan = true;
    } else {
      ActiveMediumList none = empty_medium_list();
      if (!toggle_boundary(seg.hit, medium, l, none, false)) return 0.0LF;
    }
  }
  if (!with_first) return double(exp(float(-depth)));
  double correction = 1.0LF, shared_depth_sum = 0.0LF;
  for (int j = 0; j < first_order.count; ++j) {
    int m = first_order.medium_id[j];
    if (m < 0 || m >= MS.n_media || !(shared_length[j] > 0.0) || !(shared_depth[j] > 0.0)) continue;
    correction *= double(conditional_hotspot_transmittance(m, shared_depth[j], shared_length[j],
                                                    first_order.primary_distance[j], d, observation));
    shared_depth_sum += double(shared_depth[j]);
  }
  return double(exp(float(-max(depth - shared_depth_sum, 0.0LF)))) * correction;
}
