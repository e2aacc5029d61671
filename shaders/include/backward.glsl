// Backward path tracing, one invocation per pixel for one sample pass: the CPU tracer's
// path (embree/backward.cpp) draw for draw, with sun next-event estimation through the
// repeated tiles, the sky at escape, thermal and SIF emission, and a 64-bit film. Two
// programs are made of it: backward.comp for scenes without media, and
// backward_media.comp (BACKWARD_MEDIA) for scenes with optical turbid media, whose walk
// would make every scene's program several times larger and slower to build.
#extension GL_EXT_shader_explicit_arithmetic_types_int64 : require
#include "scene.glsl"

layout(std430, set = 0, binding = 7) readonly buffer Spectral { float spectral[]; };
#include "illumination.glsl"
#include "material.glsl"
#include "offset_origin.glsl"
#include "rng.glsl"
#include "sensor.glsl"
#include "tile.glsl"
#ifdef BACKWARD_MEDIA
#define MEDIA_TABLE_BINDING 14
#define MEDIA_MATERIAL_BINDING 15
#include "media.glsl"
#endif

layout(std430, set = 0, binding = 6) readonly buffer Materials { Material materials[]; };
layout(std430, set = 0, binding = 8) readonly buffer Wavelengths { float band_wavelengths[]; };
layout(std430, set = 0, binding = 9) readonly buffer Temperatures { float primitive_temperatures[]; };
layout(std430, set = 0, binding = 10) readonly buffer Sif { float primitive_sif[]; };
// sum, then sum of squares, event planes and order planes where requested
layout(std430, set = 0, binding = 11) buffer Film { double film[]; };
// per pixel: throughput, then this sample's radiance, one value per band each
layout(std430, set = 0, binding = 12) buffer Scratch { double scratch[]; };
struct Params {
  int sensor_type, width, height, projection_type;
  float cam[16];
  float fov, ortho_width, ortho_height;
  int terrain_following;
  float sun_x, sun_y, sun_z;
  int sun_offset, has_sun;
  int sky_uniform, sky_directional, sky_hw;
  float hw_x, hw_y, hw_z;
  int num_repetitions;
  float tile_w, tile_h;
  float max_height, min_height;
  int bands, max_depth, rr_depth, mode;  // mode: 0 optical, 1 thermal, 2 SIF only
  int has_temperatures, has_sif, n_primitives;
  int want_sq, want_aov, want_orders, last_order;
  uint plane, sq_offset, aov_offset, orders_offset;
  int n_materials;
};
layout(std430, set = 0, binding = 13) readonly buffer ParamBlock { Params P; };
layout(push_constant) uniform Push { uint sample_index, pixel_base; } pc;

const int SLOT_SURFACE = 0, SLOT_MEDIUM = 1, SLOT_ENVIRONMENT = 2, SLOT_EMISSION = 3;

uint tp_base, radiance_base, film_base;  // this invocation's slices

void contribute(int slot, int order, int b, double value) {
  scratch[radiance_base + b] += value;
  if (P.want_aov != 0) film[P.aov_offset + uint(slot) * P.plane + film_base + b] += value;
  if (P.want_orders != 0)
    film[P.orders_offset + uint(min(order, P.last_order)) * P.plane + film_base + b] += value;
}

bool tiles_active() { return P.num_repetitions > 0 && P.tile_w > 0.0 && P.tile_h > 0.0; }

// Sun visibility through the repeated tiles, as the CPU scene's shadowed_repetitive.
bool shadowed_repetitive(vec3 o, vec3 d) {
  // One query site: each site of a ray query is a traversal of its own on some drivers.
  vec3 from = o;
  float remaining = 1e16;
  for (int step = 0;; ++step) {
    if (trace_shadow(from, d, 1e16)) return true;
    if (step >= P.num_repetitions || !(P.tile_w > 0.0) || !(P.tile_h > 0.0)) return false;
    if (beyond_heights(o, d, P.min_height, P.max_height)) return false;
    float t;
    int axis = tile_exit(P.tile_w, P.tile_h, o, d, t);
    if (axis < 0) return false;
    cross_tile(P.tile_w, P.tile_h, axis, t, d, o);
    remaining -= t;
    if (remaining <= 0.0) return false;
    // trace_shadow starts SURFACE_T_MIN along the ray; from a wall nothing needs skipping,
    // so the query starts that far behind it and an occluder on the wall is met.
    from = o - SURFACE_T_MIN * d;
  }
  return false;
}

vec3 sun_direction() { return vec3(P.sun_x, P.sun_y, P.sun_z); }

void emit_at_hit(Hit hit, Material m, int order) {
  int id = hit.primitive_id;
  if (P.mode == 1) {
    float T;
    if (id >= 0 && P.has_temperatures != 0) {
      T = primitive_temperatures[id];
    } else {
      T = m.params[2];
      if (m.params[3] > 0.0 && m.params[4] > 0.0) {
        vec3 o = offset_origin(hit.position, hit.geometric_normal, sun_direction());
        T = shadowed_repetitive(o, sun_direction()) ? m.params[4] : m.params[3];
      }
    }
    if (T <= 0.0) return;
    for (int b = 0; b < P.bands; ++b) {
      float l = planck_radiance(band_wavelengths[b], T) * spectral[m.spectral_offset + b];
      contribute(SLOT_EMISSION, order, b, double(l) * scratch[tp_base + b]);
    }
  } else if (P.mode == 2 && P.has_sif != 0 && id >= 0) {
    for (int b = 0; b < P.bands; ++b)
      contribute(SLOT_EMISSION, order, b,
                 double(primitive_sif[b * P.n_primitives + id]) * scratch[tp_base + b]);
  }
}

// Whether the sun can light this event at all: only a leaf can be lit from behind, and a
// zero cosine carries nothing. sl: the sun in the event's frame.
bool sun_can_reach(Material m, vec3 sl) { return (sl.z > 0.0 || m.type == 13) && abs(sl.z) > 0.0; }

// The sun's next-event contribution of an event to `slot`, with visibility v.
void add_sun(Material m, vec3 sl, vec3 wo, bool back_face, int order, int slot, double v) {
  if (!(v > 0.0LF)) return;
  double cz = double(abs(sl.z)) * v;
  for (int k = 0; k < P.bands; ++k) {
    float f = evaluate_material(m.type, m.spectral_offset, k, wo, sl, P.bands, back_face, false);
    contribute(slot, order, k, double(f) * scratch[tp_base + k] * double(spectral[P.sun_offset + k]) * cz);
  }
}

// The next direction at a scattering event (three draws first, u = (third, second,
// first)), the throughput weighted by it, Russian roulette from rr_depth: false when the
// path ends there. wi_world is returned in world space.
bool scatter(inout Rng rng, Material m, vec3 t, vec3 bt, vec3 n, vec3 wo, bool back_face, int depth,
             out vec3 wi_world) {
  wi_world = vec3(0.0);
  float ua = rng_float(rng), ub = rng_float(rng), uc = rng_float(rng);
  vec3 wi;
  float pdf;
  sample_material(m, vec3(uc, ub, ua), wi, pdf);
  if (pdf < 1e-8 || abs(wi.z) <= 0.0) return false;
  bool thermal = P.mode == 1;
  bool carries = false;
  double largest = 0.0LF;
  for (int k = 0; k < P.bands; ++k) {
    float f = evaluate_material(m.type, m.spectral_offset, k, wo, wi, P.bands, back_face, thermal);
    double tp = scratch[tp_base + k] * (double(f) * double(abs(wi.z)) / double(pdf));
    scratch[tp_base + k] = tp;
    carries = carries || tp > double(1e-6);
    largest = max(largest, tp);
  }
  if (!carries) return false;
  if (depth >= P.rr_depth) {
    float q = min(0.95, float(largest));
    if (q <= rng_float(rng)) return false;
    for (int k = 0; k < P.bands; ++k) scratch[tp_base + k] /= double(q);
  }
  wi_world = safe_normalize(wi.x * t + wi.y * bt + wi.z * n);
  return true;
}

// The sun disc (unscattered camera rays only) or the sky, where a path leaves for good.
void environment(int depth, int order, vec3 direction) {
  if (depth == 0 && P.mode == 0 && P.has_sun != 0 && dot(direction, sun_direction()) >= 0.999989) {
    for (int k = 0; k < P.bands; ++k)
      contribute(SLOT_ENVIRONMENT, order, k,
                 double(spectral[P.sun_offset + k] / 6.794e-05) * scratch[tp_base + k]);
  } else if (P.mode != 2) {
    vec3 hw = vec3(P.hw_x, P.hw_y, P.hw_z);
    for (int k = 0; k < P.bands; ++k)
      contribute(SLOT_ENVIRONMENT, order, k,
                 double(sky_radiance(P.sky_uniform, P.sky_directional, P.sky_hw, hw, direction, k)) *
                     scratch[tp_base + k]);
  }
}

#ifdef BACKWARD_MEDIA
// The same path in a scene with optical turbid media (trace_medium_path of the CPU): at
// every segment a free path in the media the ray is in competes with the surface hit and
// the tile border. A collision scatters on a leaf of the medium's angle distribution with
// the medium's material; bounding surfaces are crossed without scattering. Sun estimates
// see the media's transmittance, with the hot spot at the first event; those of
// collisions go to the medium slot.
void trace_medium_path(vec3 origin, vec3 direction, inout Rng rng) {
  // Each walk function below has one call site: a driver may expand every site of a ray
  // query into a traversal of its own. So the media are rescanned at the top of the loop
  // (at the start, after a tile wall, after a boundary where copies reach over the walls),
  // and a surface and a leaf share the event code.
  ActiveMediumList list = empty_medium_list(), first_order = empty_medium_list();
  vec3 observation = -direction;
  bool scattered = false;
  int boundary_crossings = 0, depth = 0, order = 0, crossings = 0;
  int start = START_SURFACE;
  vec3 sun = sun_direction();
  bool escaped = false;
  bool rescan = true;
  vec3 scan_from = origin;
  bool merge = true;  // pairs the rescan finds join the first-order list
  while (depth < P.max_depth) {
    if (rescan) {
      media_at_point(scan_from, direction, list);
      if (merge && !merge_first_order(list, first_order)) return;
      rescan = false;
    }
    Segment seg = next_segment(origin, direction, crossings, list.count > 0, start);
    start = START_SURFACE;
    FreePath fp = FreePath(LARGEST_FLOAT, 0.0, -1, -1);
    if (list.count > 0)
      fp = sample_combined_free_path(list.medium_id, list.count, direction, rng_float(rng), 0.0);
    bool collision = fp.sigma_total > 0.0 && fp.distance < seg.bound;
    // Before the first scattering, the length run in each medium feeds the hot spot.
    float run = collision ? fp.distance : seg.bound;
    if (!scattered)
      for (int k = 0; k < list.count; ++k) {
        int j = list_find(first_order, list.medium_id[k], list.instance_key[k]);
        if (j >= 0) first_order.primary_distance[j] += run;
      }
    Hit event;  // the surface or leaf that scatters
    bool leaf = false;
    if (collision) {
      // A collision with a leaf of one of the media.
      scattered = true;
      int slot = select_medium_slot(list.medium_id, list.count, direction, fp.sigma_total, rng_float(rng));
      int medium = list.medium_id[slot];
      if (medium < 0 || medium >= MS.n_media) return;
      int material = media[medium].material_id;
      if (material < 0 || material >= P.n_materials) return;
      bool back;
      vec3 n = sample_leaf_normal(media[medium].leaf_angle_type, direction, rng, back);
      event.t = fp.distance;
      event.position = origin + fp.distance * direction;
      event.shading_normal = event.geometric_normal = n;
      event.material_id = material;
      event.local_primitive = event.primitive_id = event.instance_id = -1;
      event.hit = true;
      event.back_face = back;
      leaf = true;
    } else {
      if (seg.at_border) {
        cross_tile(P.tile_w, P.tile_h, seg.axis, seg.border, direction, origin);
        ++crossings;
        start = START_WALL;
        rescan = true;
        scan_from = origin + MEDIUM_STEP * direction;
        merge = true;
        continue;
      }
      if (!seg.hit.hit) {
        escaped = true;
        break;
      }
      event = seg.hit;
      int medium = medium_of(event);
      if (medium >= 0) {
        // A bounding surface: enter or leave, and go on unchanged from the boundary.
        if (++boundary_crossings > MAX_MEDIUM_CROSSINGS) return;
        origin = event.position;
        start = START_BOUNDARY;
        if (MS.n_ghosts > 0) {
          rescan = true;
          scan_from = origin + MEDIUM_STEP * direction;
          merge = !scattered;
        } else if (!toggle_boundary(event, medium, list, first_order, !scattered)) {
          return;
        }
        continue;
      }
      scattered = true;
    }
    // The event: emission, the sun through the media (to the medium slot from a leaf),
    // and the next direction.
    ++order;
    Material m = materials[event.material_id];
    vec3 n = event.shading_normal, t, bt;
    coordinate_system(n, t, bt);
    vec3 wo = vec3(dot(-direction, t), dot(-direction, bt), dot(-direction, n));
    if (P.mode != 0) emit_at_hit(event, m, order);
    if (P.mode == 0 && P.has_sun != 0) {
      vec3 sl = vec3(dot(sun, t), dot(sun, bt), dot(sun, n));
      // A shadow ray from a leaf starts at the collision itself: a step off it could
      // carry it over a bounding surface unseen.
      if (sun_can_reach(m, sl))
        add_sun(m, sl, wo, event.back_face, order, leaf ? SLOT_MEDIUM : SLOT_SURFACE,
                shadow_transmittance(leaf ? event.position : offset_origin(event.position, event.geometric_normal, sun),
                                     sun, list, order == 1, first_order, observation,
                                     leaf ? START_POINT : START_SURFACE));
    }
    if (!scatter(rng, m, t, bt, n, wo, event.back_face, depth, direction)) return;
    ++depth;
    if (leaf) {
      // The next leg starts at the collision itself.
      origin = event.position;
    } else {
      origin = offset_origin(event.position, event.geometric_normal, direction);
      media_after_surface(event.position, origin, direction, list);
    }
    start = START_POINT;
  }
  if (escaped) environment(depth, order, direction);
}
#endif

// Moves a camera ray that starts outside the home tile into it.
void enter_tile(inout vec3 o, vec3 d) {
  float W = P.tile_w, H = P.tile_h;
  float px = o.x, py = o.y;
  if (o.z > P.max_height && d.z < -1e-8) {
    float t = (P.max_height - o.z) / d.z;
    px = o.x + t * d.x;
    py = o.y + t * d.y;
  }
  if (px > W) o.x -= float(int(px / W)) * W;
  else if (px < 0.0) o.x += float(int((W - px) / W)) * W;
  if (py > H) o.y -= float(int(py / H)) * H;
  else if (py < 0.0) o.y += float(int((H - py) / H)) * H;
  float tx = -1.0, ty = -1.0;
  if (o.x > W && d.x < -1e-8) tx = (W - o.x) / d.x;
  else if (o.x < 0.0 && d.x > 1e-8) tx = -o.x / d.x;
  if (o.y > H && d.y < -1e-8) ty = (H - o.y) / d.y;
  else if (o.y < 0.0 && d.y > 1e-8) ty = -o.y / d.y;
  float step = 0.0;
  if (tx >= 0.0 && ty >= 0.0) step = max(tx, ty);
  else if (tx >= 0.0) step = tx;
  else if (ty >= 0.0) step = ty;
  if (step > 0.0) {
    o = o + step * d;
    o.x = min(max(o.x, 0.001), W - 0.001);
    o.y = min(max(o.y, 0.001), H - 0.001);
  }
}

#ifndef BACKWARD_MEDIA
// One path of one pixel sample in a scene without media: surface events until the path
// escapes through the last tile wall or ends.
void trace_surface_path(vec3 origin, vec3 direction, inout Rng rng) {
  int depth = 0, order = 0, crossings = 0;
  bool escaped = false, from_wall = false;
  vec3 sun = sun_direction();
  while (true) {
    escaped = false;
    bool alive = true;
    while (depth < P.max_depth) {
      // From a wall nothing is stepped off: a surface that reaches the wall is met however
      // close to it the ray passes.
      Hit hit = trace_ray(origin, direction, from_wall ? 0.0 : SURFACE_T_MIN, 1e30);
      from_wall = false;
      if (!hit.hit) {
        escaped = true;
        break;
      }
      // One surface event: emission, the sun by next-event estimation, the next direction.
      ++order;
      Material m = materials[hit.material_id];
      vec3 n = hit.shading_normal, t, bt;
      coordinate_system(n, t, bt);
      vec3 wo = vec3(dot(-direction, t), dot(-direction, bt), dot(-direction, n));
      if (P.mode != 0) emit_at_hit(hit, m, order);
      if (P.mode == 0 && P.has_sun != 0) {
        vec3 sl = vec3(dot(sun, t), dot(sun, bt), dot(sun, n));
        if (sun_can_reach(m, sl) &&
            !shadowed_repetitive(offset_origin(hit.position, hit.geometric_normal, sun), sun))
          add_sun(m, sl, wo, hit.back_face, order, SLOT_SURFACE, 1.0LF);
      }
      if (!scatter(rng, m, t, bt, n, wo, hit.back_face, depth, direction)) {
        alive = false;
        break;
      }
      origin = offset_origin(hit.position, hit.geometric_normal, direction);
      ++depth;
    }
    if (!escaped || !alive) break;  // the depth limit or an ended path: no sky
    // Through the tile wall it leaves by, into the next repetition.
    if (crossings >= P.num_repetitions || !(P.tile_w > 0.0) || !(P.tile_h > 0.0) ||
        beyond_heights(origin, direction, P.min_height, P.max_height))
      break;
    float tw;
    int axis = tile_exit(P.tile_w, P.tile_h, origin, direction, tw);
    if (axis < 0) break;
    cross_tile(P.tile_w, P.tile_h, axis, tw, direction, origin);
    ++crossings;
    from_wall = true;
  }
  if (escaped) environment(depth, order, direction);
}
#endif

void main() {
  uint pixel = pc.pixel_base + INVOCATION_ID;
  if (pixel >= uint(P.width) * uint(P.height)) return;
  int x = int(pixel % uint(P.width)), y = int(pixel / uint(P.width));
  tp_base = pixel * uint(2 * P.bands);
  radiance_base = tp_base + uint(P.bands);
  film_base = pixel * uint(P.bands);

  Rng rng = pixel_sample_rng(uint64_t(y) * uint64_t(P.width) + uint64_t(x), uint64_t(pc.sample_index));
  float dx = rng_float(rng), dy = rng_float(rng);
  vec3 origin, direction;
  if (!generate_primary_ray(P.sensor_type, P.width, P.height, P.fov, P.ortho_width, P.ortho_height,
                            P.projection_type, P.cam, x, y, dx, dy, origin, direction))
    return;
  // Re-aim the ray through the terrain under its z = 0 footprint, from far back.
  if (P.terrain_following != 0 && P.sensor_type == 0 && abs(direction.z) > 1e-6) {
    float x0 = origin.x - (origin.z / direction.z) * direction.x;
    float y0 = origin.y - (origin.z / direction.z) * direction.y;
    Hit g = trace_ray(vec3(x0, y0, origin.z), vec3(0.0, 0.0, -1.0), 1e-4, 1e30);
    if (g.hit)
      origin = vec3(x0 - direction.x * 1e5, y0 - direction.y * 1e5, (origin.z - g.t) - direction.z * 1e5);
  }
  for (int b = 0; b < P.bands; ++b) {
    scratch[tp_base + b] = 1.0LF;
    scratch[radiance_base + b] = 0.0LF;
  }
  if (tiles_active()) enter_tile(origin, direction);

#ifdef BACKWARD_MEDIA
  trace_medium_path(origin, direction, rng);
#else
  trace_surface_path(origin, direction, rng);
#endif
  for (int b = 0; b < P.bands; ++b) {
    double r = scratch[radiance_base + b];
    film[film_base + b] += r;
    if (P.want_sq != 0) film[P.sq_offset + film_base + b] += r * r;
  }
}
