#version 460
// Backward path tracing, one invocation per pixel for one sample pass: the CPU tracer's
// path (embree/backward.cpp) draw for draw, with sun next-event estimation through the
// repeated tiles, the sky at escape, thermal and SIF emission, and a 64-bit film.
#extension GL_EXT_shader_explicit_arithmetic_types_int64 : require
#include "scene.glsl"

layout(std430, set = 0, binding = 7) readonly buffer Spectral { float spectral[]; };
#include "illumination.glsl"
#include "material.glsl"
#include "offset_origin.glsl"
#include "rng.glsl"
#include "sensor.glsl"
#include "tile.glsl"

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
};
layout(std430, set = 0, binding = 13) readonly buffer ParamBlock { Params P; };
layout(push_constant) uniform Push { uint sample_index, pixel_base; } pc;

const int SLOT_SURFACE = 0, SLOT_ENVIRONMENT = 2, SLOT_EMISSION = 3;

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
  if (trace_shadow(o, d, 1e16)) return true;
  if (P.num_repetitions < 1 || !(P.tile_w > 0.0) || !(P.tile_h > 0.0)) return false;
  float remaining = 1e16;
  for (int step = 0; step < P.num_repetitions; ++step) {
    if (beyond_heights(o, d, P.min_height, P.max_height)) return false;
    float t;
    int axis = tile_exit(P.tile_w, P.tile_h, o, d, t);
    if (axis < 0) return false;
    cross_tile(P.tile_w, P.tile_h, axis, t, d, o);
    remaining -= t;
    if (remaining <= 0.0) return false;
    // trace_shadow starts SURFACE_T_MIN along the ray; from a wall nothing needs skipping,
    // so the query starts that far behind it and an occluder on the wall is met.
    if (trace_shadow(o - SURFACE_T_MIN * d, d, 1e16)) return true;
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

  int depth = 0, order = 0, crossings = 0;
  bool escaped = false, from_wall = false;
  vec3 sun = sun_direction();
  bool thermal = P.mode == 1;
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
        // Only a leaf can be lit from behind; a zero cosine carries nothing.
        if ((sl.z > 0.0 || m.type == 13) && abs(sl.z) > 0.0 &&
            !shadowed_repetitive(offset_origin(hit.position, hit.geometric_normal, sun), sun)) {
          double cz = double(abs(sl.z));
          for (int k = 0; k < P.bands; ++k) {
            float f = evaluate_material(m.type, m.spectral_offset, k, wo, sl, P.bands, hit.back_face, false);
            contribute(SLOT_SURFACE, order, k,
                       double(f) * scratch[tp_base + k] * double(spectral[P.sun_offset + k]) * cz);
          }
        }
      }
      // The next direction: three draws first, u = (third, second, first).
      float ua = rng_float(rng), ub = rng_float(rng), uc = rng_float(rng);
      vec3 wi;
      float pdf;
      sample_material(m, vec3(uc, ub, ua), wi, pdf);
      if (pdf < 1e-8 || abs(wi.z) <= 0.0) {
        alive = false;
        break;
      }
      bool carries = false;
      double largest = 0.0LF;
      for (int k = 0; k < P.bands; ++k) {
        float f = evaluate_material(m.type, m.spectral_offset, k, wo, wi, P.bands, hit.back_face, thermal);
        double tp = scratch[tp_base + k] * (double(f) * double(abs(wi.z)) / double(pdf));
        scratch[tp_base + k] = tp;
        carries = carries || tp > double(1e-6);
        largest = max(largest, tp);
      }
      if (!carries) {
        alive = false;
        break;
      }
      if (depth >= P.rr_depth) {
        float q = min(0.95, float(largest));
        if (q <= rng_float(rng)) {
          alive = false;
          break;
        }
        for (int k = 0; k < P.bands; ++k) scratch[tp_base + k] /= double(q);
      }
      direction = safe_normalize(wi.x * t + wi.y * bt + wi.z * n);
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

  if (escaped) {
    if (depth == 0 && P.mode == 0 && P.has_sun != 0 && dot(direction, sun) >= 0.999989) {
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
  for (int b = 0; b < P.bands; ++b) {
    double r = scratch[radiance_base + b];
    film[film_base + b] += r;
    if (P.want_sq != 0) film[P.sq_offset + film_base + b] += r * r;
  }
}
