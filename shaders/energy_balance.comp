#version 460
// Energy-balance reverse transport, one invocation per primitive: the CPU kernels
// (embree/energy_balance.cpp) sample for sample and draw for draw. mode 0 is the
// single-band kernel (one bounce, shortwave or longwave), mode 1 the multi-band walk
// through reflecting and transmitting leaves with next-event estimation toward the sun.
// Each invocation sums its own primitive's samples in order into 64-bit slots that the
// host narrows as the CPU does, so the sums do not depend on the dispatch.
#extension GL_EXT_shader_explicit_arithmetic_types_int64 : require
#include "scene.glsl"

layout(std430, set = 0, binding = 7) readonly buffer Spectral { float spectral[]; };
#include "rng.glsl"
#include "energy_balance.glsl"
#include "illumination.glsl"
#include "tile.glsl"
#include "repetition.glsl"

// Per primitive: three vertices, the unit normal (zero when degenerate), the centroid.
layout(std430, set = 0, binding = 6) readonly buffer Primitives { float prims[]; };
// The request's arrays, each at its offset in Params (-1: absent).
layout(std430, set = 0, binding = 8) readonly buffer Inputs { float inputs[]; };
// Per primitive, `slots` values: top per band, bot per band (two-sided), then the sun's
// cosine sums of top and bot, and the count of sunlit samples (a single band is a band).
layout(std430, set = 0, binding = 9) buffer Sums { double sums[]; };
struct Params {
  int n_primitives, n_samples, n_bands, max_depth;
  int mode, band_type, two_sided, has_sun;
  float sun_x, sun_y, sun_z, sun;  // unit direction; the single band's irradiance
  float sky_lw, diffuse;           // the single band's sky radiances
  int albedo_offset, reflectance_offset, back_offset, transmittance_offset;
  int exitance_offset, sun_offset, diffuse_offset, table_offset;
  int sky_uniform, sky_directional, sky_hw;
  float hw_x, hw_y, hw_z;
  int num_repetitions;
  float tile_w, tile_h, min_height, max_height;
  int slots;
};
layout(std430, set = 0, binding = 10) readonly buffer ParamBlock { Params P; };
layout(push_constant) uniform Push { uint primitive_base; } pc;

const int MAX_EB_BANDS = 64;

Repeat scene_repeat() {
  Repeat r;
  r.num_repetitions = P.num_repetitions;
  r.w = P.tile_w;
  r.h = P.tile_h;
  r.lo = P.min_height;
  r.hi = P.max_height;
  return r;
}

vec3 prim_vec(int p, int k) { return vec3(prims[15 * p + 3 * k], prims[15 * p + 3 * k + 1], prims[15 * p + 3 * k + 2]); }
vec3 prim_normal(int p) { return prim_vec(p, 3); }
vec3 prim_centroid(int p) { return prim_vec(p, 4); }

// ---- single band ----

// Radiance arriving along a sample ray.
float single_radiance(vec3 o, vec3 d, vec3 sun_dir) {
  Repeat rep = scene_repeat();
  Hit hit = closest_repetitive(rep, o, d);
  int h = hit.primitive_id;
  if (P.band_type == 1) {
    if (!hit.hit) return P.sky_lw;
    return h >= 0 && h < P.n_primitives ? inputs[P.exitance_offset + h] : 0.0;
  }
  if (!hit.hit) return P.diffuse;
  if (P.albedo_offset < 0 || h < 0 || h >= P.n_primitives) return 0.0;
  float a = inputs[P.albedo_offset + h];
  if (!(a > 0.0)) return 0.0;
  float l = a * P.diffuse;
  if (P.sun > 0.0) {
    // Second bounce: the sun on the hit primitive, seen from its centroid.
    vec3 nh = prim_normal(h);
    float c = dot3(sun_dir, nh);
    if (abs(c) > 0.0) {
      vec3 from = prim_centroid(h) + (c >= 0.0 ? EB_SURFACE_OFFSET : -EB_SURFACE_OFFSET) * nh;
      if (!shadowed_repetitive(rep, from, sun_dir)) l += a * EB_INV_PI * P.sun * abs(c);
    }
  }
  return l;
}

// ---- multi-band ----

float L[MAX_EB_BANDS], W[MAX_EB_BANDS];

float sky_at(vec3 d, int b) {
  if (P.table_offset >= 0) return directional_sky_radiance(P.table_offset, d, b);
  if (P.diffuse_offset >= 0) return inputs[P.diffuse_offset + b];
  return sky_radiance(P.sky_uniform, P.sky_directional, P.sky_hw, vec3(P.hw_x, P.hw_y, P.hw_z), d, b);
}

// The leaf's reflectance and transmittance in band b on the arrival side.
void optics(int h, int b, bool back, out float rb, out float tb) {
  int k = b * P.n_primitives + h;
  rb = 0.0;
  tb = 0.0;
  if (P.reflectance_offset >= 0) {
    rb = clamp(inputs[(back ? P.back_offset : P.reflectance_offset) + k], 0.0, 1.0);
    tb = min(1.0 - rb, max(inputs[P.transmittance_offset + k], 0.0));
  } else if (P.albedo_offset >= 0) {
    rb = clamp(inputs[P.albedo_offset + k], 0.0, 1.0);
    tb = min(1.0 - rb, 0.0);  // the albedo route never transmits
  }
}

// One walk from o along d, adding what reaches it to L (per band).
void walk(inout Rng rng, vec3 o, vec3 d, vec3 sun_dir) {
  Repeat rep = scene_repeat();
  int nb = P.n_bands;
  for (int b = 0; b < nb; ++b) {
    L[b] = 0.0;
    W[b] = 1.0;
  }
  int depth = 0;
  for (;;) {
    Hit hit = closest_repetitive(rep, o, d);
    if (!hit.hit) {
      for (int b = 0; b < nb; ++b) L[b] += W[b] * sky_at(d, b);
      return;
    }
    if (depth == P.max_depth) return;
    int h = hit.primitive_id;
    if (h < 0 || h >= P.n_primitives) return;
    vec3 N = prim_normal(h);
    bool back = dot3(-1.0 * d, N) < 0.0;
    if (back) N = -N;
    float c = dot3(sun_dir, N);
    bool lit = P.has_sun != 0 && abs(c) > 0.0 &&
               !shadowed_repetitive(rep, hit.position + EB_WALK_OFFSET * sun_dir, sun_dir);
    float rmax = 0.0, tmax = 0.0;
    for (int b = 0; b < nb; ++b) {
      float rb, tb;
      optics(h, b, back, rb, tb);
      rmax = max(rmax, rb);
      tmax = max(tmax, tb);
      if (lit) L[b] += (c >= 0.0 ? rb : tb) * W[b] * EB_INV_PI * inputs[P.sun_offset + b] * abs(c);
    }
    if (rmax + tmax <= 1e-08) return;
    float qr = rmax / (rmax + tmax);
    bool reflect;
    if (tmax <= 1e-08) reflect = true;
    else if (qr <= 1e-08) reflect = false;
    else reflect = rng_float(rng) < qr;
    float wmax = 0.0;
    for (int b = 0; b < nb; ++b) {
      float rb, tb;
      optics(h, b, back, rb, tb);
      W[b] *= reflect ? rb / qr : tb / (1.0 - qr);
      wmax = max(wmax, W[b]);
    }
    if (!reflect) N = -N;
    if (wmax <= 1e-06) return;
    float az = rng_float(rng), rad = rng_float(rng);
    d = cosine_direction(N, az, rad);
    ++depth;
    o = hit.position + EB_WALK_OFFSET * d;
    if (depth > P.max_depth) return;
  }
}

// The samples of one primitive, both kernels: a point of the triangle, then per side a
// cosine-weighted ray (the single band's radiance or the multi-band walk) and the direct
// sun. Sums: per side the radiance (per band), then the sun's cosine per side and the
// count of sunlit samples.
void primitive_samples(int p, uint base, vec3 N) {
  vec3 v0 = prim_vec(p, 0), v1 = prim_vec(p, 1), v2 = prim_vec(p, 2);
  vec3 sun_dir = vec3(P.sun_x, P.sun_y, P.sun_z);
  Repeat rep = scene_repeat();
  int nb = P.n_bands, sides = P.two_sided != 0 ? 2 : 1;
  uint tail = base + uint(P.slots - 3);
  for (int s = 0; s < P.slots; ++s) sums[base + s] = 0.0LF;
  double sun_sum[2] = double[2](0.0LF, 0.0LF);
  int lit = 0;
  for (int i = 0; i < P.n_samples; ++i) {
    Rng rng = sample_rng(uint64_t(p), uint64_t(i));
    float u = rng_float(rng), v = rng_float(rng);
    vec3 X = point_on(v0, v1, v2, u, v);
    for (int side = 0; side < sides; ++side) {
      float az = rng_float(rng), rad = rng_float(rng);
      vec3 n = side == 0 ? N : -N;
      vec3 o = X + (side == 0 ? EB_SURFACE_OFFSET : -EB_SURFACE_OFFSET) * N;
      vec3 d = cosine_direction(n, az, rad);
      uint at = base + uint(side * nb);
      if (P.mode == 0) {
        sums[at] += double(single_radiance(o, d, sun_dir));
      } else {
        walk(rng, o, d, sun_dir);
        for (int b = 0; b < nb; ++b) sums[at + b] += double(L[b]);
      }
      if (P.has_sun != 0) {
        float c = dot3(n, sun_dir);
        if (c > 0.0 && !shadowed_repetitive(rep, o, sun_dir)) {
          sun_sum[side] += double(c);
          ++lit;
        }
      }
    }
  }
  sums[tail] = sun_sum[0];
  sums[tail + 1] = sun_sum[1];
  sums[tail + 2] = double(lit);
}

void main() {
  uint id = pc.primitive_base + INVOCATION_ID;
  if (id >= uint(P.n_primitives)) return;
  int p = int(id);
  uint base = id * uint(P.slots);
  vec3 N = prim_normal(p);
  if (dot3(N, N) == 0.0) {  // a degenerate triangle receives nothing
    for (int s = 0; s < P.slots; ++s) sums[base + s] = 0.0LF;
    return;
  }
  primitive_samples(p, base, N);
}
