// Photons of the forward, BRF and flux programs (embree/photon.h): emission from the sun
// and the sky over a repeated tile or through the faces of the scene box, and the walk
// from surface to surface, draw for draw as on the CPU with the generator of the global
// photon index. What a walk records is the program's: it defines the recorder functions
// declared below (rec_entered, rec_surface, rec_scattered, rec_escaped, rec_lost) with
// the meaning of the CPU Recorder's members. One invocation traces one photon.
//
// Include after scene.glsl. Bindings 6 to 12 are the same in every photon program.
#extension GL_EXT_shader_explicit_arithmetic_types_int64 : require

layout(std430, set = 0, binding = 7) readonly buffer Spectral { float spectral[]; };
#include "illumination.glsl"
#include "material.glsl"
#include "offset_origin.glsl"
#include "rng.glsl"
#include "tile.glsl"
#include "grid.glsl"
#ifdef PHOTON_MEDIA
// Bindings 13 and 14 are the forward program's layers and directions.
#define MEDIA_TABLE_BINDING 15
#define MEDIA_MATERIAL_BINDING 16
#include "media.glsl"
#endif

layout(std430, set = 0, binding = 6) readonly buffer Materials { Material materials[]; };
struct PhotonParams {
  int bands, max_depth, rr_depth, num_repetitions;
  float tile_w, tile_h;  // the walls photons cross
  float lo_x, lo_y, lo_z, hi_x, hi_y, hi_z;  // the scene box
  float plane, prob_sun;
  float sun_x, sun_y, sun_z;
  int sun_offset;
  int sky_uniform, sky_directional, sky_hw;
  float hw_x, hw_y, hw_z;
  float rep_w, rep_h;  // the scene's repetition, for shadow rays
  float min_height, max_height;
  uint scratch_stride;  // doubles per invocation
  // flux
  int nx, ny, max_bounces, decompose;
  float X, Y;
  uint f_down, f_up, f_direct, f_diffuse;
  // forward and BRF
  int gnx, gny, nz, n_layer_bounds;
  float gx0, gy0, gw, gh;
  int periodic;
  float entry_z;
  int terrain_id, per_leaf, n_dirs;
  uint f_grid, f_gdirect, f_gdiffuse, f_leaf, f_terrain, f_brf, f_incident_cells;
  uint f_incident, f_escaped, f_transmitted, f_outside, f_truncated;
};
layout(std430, set = 0, binding = 8) readonly buffer ParamBlock { PhotonParams P; };
layout(std430, set = 0, binding = 9) buffer SumWords { uint sum_words[]; };
// per invocation: throughput, then throughput before the last event, one per band each
layout(std430, set = 0, binding = 10) buffer Scratch { double scratch[]; };
// sun photon weight, sky photon weight, then 1 / unit per band
layout(std430, set = 0, binding = 11) readonly buffer SumScales { double sum_scales[]; };
layout(std430, set = 0, binding = 12) buffer SumStatus { uint sum_status[]; };
// The global index of this dispatch's first photon, and how many photons it runs.
layout(push_constant) uniform Push { uint first_lo, first_hi, count; } pc;

const int SCALE_BANDS = 2;
#include "exact_sums.glsl"

struct Photon {
  vec3 origin, direction;
  bool is_sun, repetitive;
  int num_repetitions;
  double weight;
};

uint tp_base, before_base;  // this invocation's throughput slices in scratch
#ifdef PHOTON_MEDIA
// The photon's media (Photon::media, first_order, first_direction, scattered): the media
// it is in, those of its first leg with the length run in each, that leg's direction,
// and whether it has scattered yet.
ActiveMediumList ph_media, ph_first;
vec3 ph_first_direction;
bool ph_scattered;
#endif

void rec_entered(Photon p);
void rec_surface(Photon p, Hit hit, vec3 f0, vec3 f1, vec3 f2, vec3 wo);
void rec_scattered(Photon p, Hit hit);
void rec_escaped(Photon p, int depth);
void rec_lost(Photon p);

// The generator of global photon i (embree::photon_rng).
Rng photon_rng(uint64_t i) {
  Rng r;
  r.state = 0UL;
  r.inc = ((1UL + 7919UL * i) << 1) | 1UL;
  rng_next(r);
  r.state += i + 1000003UL;
  rng_next(r);
  return r;
}

bool any_sky() { return P.sky_uniform >= 0 || P.sky_directional >= 0 || P.sky_hw >= 0; }

// Fills the photon; false when this index emits nothing (embree::emit_photon).
bool emit_photon(inout Rng rng, out Photon p) {
  vec3 s = vec3(P.sun_x, P.sun_y, P.sun_z);
  p.origin = vec3(0.0);
  p.direction = vec3(0.0, 0.0, -1.0);
  p.weight = 0.0LF;
  p.repetitive = P.num_repetitions > 0 && P.tile_w > 0.0 && P.tile_h > 0.0;
  p.num_repetitions = P.num_repetitions;
  p.is_sun = true;
  if (abs(s.z) < 0.01 || P.bands < 1) return false;
  if (any_sky()) {
    float u = rng_float(rng);
    if (P.prob_sun <= u) {
      p.is_sun = false;
      if (P.prob_sun >= 1.0) return false;
    }
  }
  float X = P.hi_x - P.lo_x, Y = P.hi_y - P.lo_y, Z = P.hi_z - P.lo_z;

  if (!p.is_sun) {
    float ur = rng_float(rng), ua = rng_float(rng);
    vec3 l = cosine_lobe(ur, ua);
    float r1 = rng_float(rng), r2 = rng_float(rng);
    double ratio = 1.0LF;
    if (p.repetitive) {
      p.direction = vec3(l.x, l.y, -l.z);
      float z0 = P.plane + 0.1;
      float t = (z0 - P.plane) / l.z;
      p.origin = vec3(r1 * P.tile_w - l.x * t, r2 * P.tile_h - l.y * t, z0);
    } else {
      float r3 = rng_float(rng);
      float top = X * Y, side_x = Y * Z, side_y = X * Z;
      float total = top + 2.0 * side_x + 2.0 * side_y;
      ratio = top > 0.0 ? double(total / top) : 0.0LF;
      float t = r3 * total;
      vec3 n;
      if (t < top || total <= 0.0) {
        n = vec3(0, 0, -1);
        p.origin = vec3(P.lo_x + X * r2, P.lo_y + Y * r1, P.hi_z + 0.1);
      } else if (t < top + side_x) {
        n = vec3(1, 0, 0);
        p.origin = vec3(P.lo_x - 0.1, P.lo_y + Y * r2, P.lo_z + Z * r1);
      } else if (t < top + 2.0 * side_x) {
        n = vec3(-1, 0, 0);
        p.origin = vec3(P.hi_x + 0.1, P.lo_y + Y * r2, P.lo_z + Z * r1);
      } else if (t < top + 2.0 * side_x + side_y) {
        n = vec3(0, 1, 0);
        p.origin = vec3(P.lo_x + X * r2, P.lo_y - 0.1, P.lo_z + Z * r1);
      } else {
        n = vec3(0, -1, 0);
        p.origin = vec3(P.lo_x + X * r2, P.hi_y + 0.1, P.lo_z + Z * r1);
      }
      vec3 tt, bb;
      coordinate_system(n, tt, bb);
      p.direction = safe_normalize(l.x * tt + l.y * bb + l.z * n);
    }
    vec3 toward_sky = -p.direction;
    vec3 hw = vec3(P.hw_x, P.hw_y, P.hw_z);
    for (int b = 0; b < P.bands; ++b)
      scratch[tp_base + b] =
          double(sky_radiance(P.sky_uniform, P.sky_directional, P.sky_hw, hw, toward_sky, b)) *
          double(PI) * ratio;
    p.weight = sum_scales[1];
    return true;
  }

  // A sun needs a spectrum: offset -1 means there is none to read.
  if (s.z <= 0.0 || P.prob_sun <= 0.0 || P.sun_offset < 0) return false;
  p.direction = -s;
  float r1 = rng_float(rng), r2 = rng_float(rng);
  if (p.repetitive) {
    float z0 = P.plane + 0.1;
    float t = (z0 - P.plane) / s.z;
    p.origin = vec3(P.tile_w * r1 + t * s.x, P.tile_h * r2 + t * s.y, z0);
    for (int b = 0; b < P.bands; ++b)
      scratch[tp_base + b] = double(spectral[P.sun_offset + b]) * double(abs(s.z));
  } else {
    float r3 = rng_float(rng);
    float a_top = abs(s.z) * X * Y, a_x = abs(s.x) * Y * Z, a_y = abs(s.y) * X * Z;
    float total = a_top + a_x + a_y;
    double ratio = X * Y > 0.0 ? double(total / (X * Y)) : 0.0LF;
    float t = r3 * total;
    if (t < a_top || total <= 0.0)
      p.origin = vec3(P.lo_x + X * r2, P.lo_y + Y * r1, P.hi_z + 0.1);
    else if (t >= a_top + a_x)
      p.origin = vec3(P.lo_x + X * r2, s.y > 0.0 ? P.hi_y + 0.1 : P.lo_y - 0.1, P.lo_z + Z * r1);
    else
      p.origin = vec3(s.x > 0.0 ? P.hi_x + 0.1 : P.lo_x - 0.1, P.lo_y + Y * r2, P.lo_z + Z * r1);
    for (int b = 0; b < P.bands; ++b) scratch[tp_base + b] = double(spectral[P.sun_offset + b]) * ratio;
  }
  p.weight = sum_scales[0];
  return true;
}

// Whether a photon that met nothing crossed the floor of the scene box on its way out.
bool crosses_floor(vec3 o, vec3 d) {
  if (!(d.z < 0.0)) return false;
  float t = (P.lo_z - o.z) / d.z;
  float x = o.x + t * d.x, y = o.y + t * d.y;
  return t >= 0.0 && x > P.lo_x && x < P.hi_x && y > P.lo_y && y < P.hi_y;
}

// Brings a repeated photon into the home tile by whole tiles (embree::into_tile).
float settle_into(float c, float size) {
  if (c < 0.0 || c > size) c -= floor(c / size) * size;
  return c;
}

// Sun or observer visibility through the repeated tiles (the CPU scene's
// shadowed_repetitive).
bool shadowed_repetitive(vec3 o, vec3 d) {
  if (trace_shadow(o, d, 1e16)) return true;
  if (P.num_repetitions < 1 || !(P.rep_w > 0.0) || !(P.rep_h > 0.0)) return false;
  float remaining = 1e16;
  for (int step = 0; step < P.num_repetitions; ++step) {
    if (beyond_heights(o, d, P.min_height, P.max_height)) return false;
    float t;
    int axis = tile_exit(P.rep_w, P.rep_h, o, d, t);
    if (axis < 0) return false;
    cross_tile(P.rep_w, P.rep_h, axis, t, d, o);
    remaining -= t;
    if (remaining <= 0.0) return false;
    if (trace_shadow(o - SURFACE_T_MIN * d, d, 1e16)) return true;
  }
  return false;
}

// One surface event (embree::scatter_photon): the recorder's surface and scattered
// calls, the sampled direction, the throughput update and roulette.
bool scatter_photon(Material m, Hit hit, int depth, inout Rng rng, inout Photon p) {
  vec3 f0, f1, f2 = hit.shading_normal;
  coordinate_system(f2, f0, f1);
  vec3 wo = vec3(-dot(p.direction, f0), -dot(p.direction, f1), -dot(p.direction, f2));
  rec_surface(p, hit, f0, f1, f2, wo);

  float ua = rng_float(rng), ub = rng_float(rng), uc = rng_float(rng);
  vec3 wi;
  float pdf;
  sample_material(m, vec3(uc, ub, ua), wi, pdf);
  if (pdf < 1e-8) {
    rec_lost(p);
    return false;
  }
  bool alive = false;
  double largest = 0.0LF;
  for (int b = 0; b < P.bands; ++b) {
    float f = evaluate_material(m.type, m.spectral_offset, b, wo, wi, P.bands, hit.back_face, false);
    double t = scratch[tp_base + b];
    scratch[before_base + b] = t;
    t = t * double(f) * double(abs(wi.z)) / double(pdf);
    scratch[tp_base + b] = t;
    alive = alive || t > 1e-8LF;
    largest = max(largest, t);
  }
  rec_scattered(p, hit);
  if (!alive) {
    rec_lost(p);
    return false;
  }
  if (depth >= P.rr_depth) {
    float q = min(0.95, float(largest));
    if (q <= rng_float(rng)) return false;
    double inv = 1.0LF / double(q);
    for (int b = 0; b < P.bands; ++b) scratch[tp_base + b] *= inv;
  }
  p.direction = safe_normalize(wi.x * f0 + wi.y * f1 + wi.z * f2);
  return true;
}

#ifdef PHOTON_MEDIA
// The walk in a scene with optical turbid media (embree::walk_photon_in_media): a free
// path in the media the photon is in competes with the surface hit and the tile border at
// every segment; bounding surfaces are crossed without scattering. Each walk function has
// one call site (a driver may expand every ray query site into a traversal of its own), so
// the media are rescanned at the top of the loop and a surface and a leaf share the event.
void walk_photon(inout Rng rng, inout Photon p) {
  int depth = 0, crossings = 0, boundary_crossings = 0;
  bool entered = p.repetitive;
  if (p.repetitive) {
    p.origin.x = settle_into(p.origin.x, P.tile_w);
    p.origin.y = settle_into(p.origin.y, P.tile_h);
    rec_entered(p);
  }
  vec3 o = p.origin;
  ph_media = empty_medium_list();
  ph_first = empty_medium_list();
  ph_first_direction = p.direction;
  ph_scattered = false;
  // The media around the origin, when it lies in the scene box; the first leg starts with
  // all of them.
  bool rescan = o.z <= P.hi_z && o.z >= P.lo_z &&
                (p.repetitive || (o.x >= P.lo_x && o.x <= P.hi_x && o.y >= P.lo_y && o.y <= P.hi_y));
  vec3 scan_from = o;
  bool merge = true;
  int start = START_SURFACE;
  while (depth < P.max_depth) {
    if (rescan) {
      media_at_point(scan_from, p.direction, ph_media);
      rescan = false;
      if (merge && !merge_first_order(ph_media, ph_first)) {
        rec_lost(p);
        return;
      }
    }
    Segment seg = next_segment(p.origin, p.direction, crossings, ph_media.count > 0, start);
    start = START_SURFACE;
    FreePath fp = FreePath(LARGEST_FLOAT, 0.0, -1, -1);
    if (ph_media.count > 0)
      fp = sample_combined_free_path(ph_media.medium_id, ph_media.count, p.direction,
                                     rng_float(rng), 0.0);
    bool collides = fp.sigma_total > 0.0 && fp.distance < seg.bound;
    if (!entered) {
      if (!collides && !seg.hit.hit && !crosses_floor(p.origin, p.direction)) return;
      rec_entered(p);
      entered = true;
    }
    // Before the first scattering, the length run in each medium feeds the hot spot.
    float run = collides ? fp.distance : seg.bound;
    if (!ph_scattered)
      for (int k = 0; k < ph_media.count; ++k) {
        int j = list_find(ph_first, ph_media.medium_id[k], ph_media.instance_key[k]);
        if (j >= 0) ph_first.primary_distance[j] += run;
      }
    Hit event;
    bool leaf = false;
    if (collides) {
      int slot = select_medium_slot(ph_media.medium_id, ph_media.count, p.direction,
                                    fp.sigma_total, rng_float(rng));
      int medium = ph_media.medium_id[slot];
      int material = medium >= 0 && medium < MS.n_media ? media[medium].material_id : -1;
      if (material < 0 || material >= materials.length()) {
        rec_lost(p);
        return;
      }
      bool back;
      vec3 n = sample_leaf_normal(media[medium].leaf_angle_type, p.direction, rng, back);
      event.t = fp.distance;
      event.position = p.origin + fp.distance * p.direction;
      event.shading_normal = event.geometric_normal = n;
      event.material_id = material;
      event.local_primitive = event.primitive_id = -1;
      event.instance_id = int(instance_of_key(ph_media.instance_key[slot]));
      event.hit = true;
      event.back_face = back;
      leaf = true;
    } else {
      if (seg.at_border) {
        cross_tile(P.tile_w, P.tile_h, seg.axis, seg.border, p.direction, p.origin);
        ++crossings;
        start = START_WALL;
        rescan = true;
        scan_from = p.origin + MEDIUM_STEP * p.direction;
        merge = true;
        continue;
      }
      if (!seg.hit.hit) {
        rec_escaped(p, depth);
        return;
      }
      event = seg.hit;
      int medium = medium_of(event);
      if (medium >= 0) {
        // A bounding surface: enter or leave, and go on unchanged from the boundary.
        if (++boundary_crossings > MAX_MEDIUM_CROSSINGS) {
          rec_lost(p);
          return;
        }
        p.origin = event.position;
        start = START_BOUNDARY;
        if (MS.n_ghosts > 0) {
          rescan = true;
          scan_from = p.origin + MEDIUM_STEP * p.direction;
          merge = !ph_scattered;
        } else if (!toggle_boundary(event, medium, ph_media, ph_first, !ph_scattered)) {
          rec_lost(p);
          return;
        }
        continue;
      }
    }
    if (!scatter_photon(materials[event.material_id], event, depth, rng, p)) return;
    ph_scattered = true;
    ++depth;
    if (leaf) {
      // The next leg starts at the collision itself: a step along it could carry the
      // photon over a bounding surface (or the ground) unseen.
      p.origin = event.position;
    } else {
      p.origin = offset_origin(event.position, event.geometric_normal, p.direction);
      media_after_surface(event.position, p.origin, p.direction, ph_media);
    }
    start = START_POINT;
  }
  rec_lost(p);
}
#else
// The walk of an emitted photon (embree::walk_photon, without media).
void walk_photon(inout Rng rng, inout Photon p) {
  int depth = 0, crossings = 0;
  bool entered = p.repetitive;
  if (p.repetitive) {
    p.origin.x = settle_into(p.origin.x, P.tile_w);
    p.origin.y = settle_into(p.origin.y, P.tile_h);
    rec_entered(p);
  }
  float t_min = SURFACE_T_MIN;
  vec3 lo = vec3(P.lo_x, P.lo_y, P.lo_z), hi = vec3(P.hi_x, P.hi_y, P.hi_z);
  while (depth < P.max_depth) {
    Hit hit = trace_ray(p.origin, p.direction, t_min, 1e30);
    t_min = SURFACE_T_MIN;
    if (!entered) {
      if (!hit.hit && !crosses_floor(p.origin, p.direction)) return;
      rec_entered(p);
      entered = true;
    }
    if (!hit.hit) {
      if (p.repetitive && crossings < p.num_repetitions &&
          !beyond_heights(p.origin, p.direction, lo.z, hi.z)) {
        float t;
        int axis = tile_exit(P.tile_w, P.tile_h, p.origin, p.direction, t);
        if (axis >= 0) {
          cross_tile(P.tile_w, P.tile_h, axis, t, p.direction, p.origin);
          ++crossings;
          t_min = 0.0;
          continue;
        }
      }
      rec_escaped(p, depth);
      return;
    }
    if (!scatter_photon(materials[hit.material_id], hit, depth, rng, p)) return;
    p.origin = offset_origin(hit.position, hit.geometric_normal, p.direction);
    ++depth;
  }
  rec_lost(p);
}

#endif

// This invocation's photon: false past the end of the dispatch. Sets up the scratch
// slices and the generator of the global index.
bool begin_photon(out Rng rng) {
  uint k = INVOCATION_ID;
  if (k >= pc.count) return false;
  tp_base = k * P.scratch_stride;
  before_base = tp_base + uint(P.bands);
  uint64_t i = (uint64_t(pc.first_hi) << 32) + uint64_t(pc.first_lo) + uint64_t(k);
  rng = photon_rng(i);
  return true;
}

double tp(int b) { return scratch[tp_base + b]; }
double tp_before(int b) { return scratch[before_base + b]; }
