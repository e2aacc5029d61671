// Photon emission from the sun and the sky, shared by the forward and flux tracers.
#include "embree/photon.h"

#include <algorithm>
#include <cmath>

namespace vesk::embree {

namespace {

// Cosine-weighted local direction: the first draw sets the radius, the second the angle.
float3 cosine_direction(float u_radius, float u_angle) {
  const float r = std::sqrt(u_radius), phi = TWO_PI * u_angle;
  const float x = r * std::cos(phi), y = r * std::sin(phi);
  return {x, y, std::sqrt(std::max(1.0f - x * x - y * y, 0.0f))};
}

}  // namespace

bool emit_photon(const EmissionContext& e, RNG& rng, Photon& p) {
  const float3 s = e.sun.direction;
  if (std::fabs(s.z) < 0.01f || e.n_bands < 1) return false;
  p.repetitive = e.num_repetitions > 0 && e.tile_w > 0.0f && e.tile_h > 0.0f;
  p.num_repetitions = e.num_repetitions;
  p.is_sun = true;
  const bool any_sky = e.sky.uniform_offset >= 0 || e.sky.directional_offset >= 0 ||
                       e.sky.hw_offset >= 0;
  if (any_sky) {
    const float u = rng.next_float();
    if (e.prob_sun <= u) {
      p.is_sun = false;
      if (e.prob_sun >= 1.0f) return false;
    }
  }
  const float X = e.x_max - e.x_min, Y = e.y_max - e.y_min, Z = e.z_max - e.z_min;

  if (!p.is_sun) {
    const float ur = rng.next_float(), ua = rng.next_float();
    const float3 l = cosine_direction(ur, ua);
    const float r1 = rng.next_float(), r2 = rng.next_float();
    double ratio = 1.0;
    if (p.repetitive) {
      p.direction = {l.x, l.y, -l.z};
      const float z0 = e.plane + 0.1f;
      const float t = (z0 - e.plane) / l.z;
      p.origin = {r1 * e.tile_w - l.x * t, r2 * e.tile_h - l.y * t, z0};
    } else {
      const float r3 = rng.next_float();
      const float top = X * Y, side_x = Y * Z, side_y = X * Z;
      const float total = top + 2.0f * side_x + 2.0f * side_y;
      ratio = top > 0.0f ? double(total / top) : 0.0;
      const float t = r3 * total;
      float3 n;
      if (t < top || total <= 0.0f) {
        n = {0, 0, -1};
        p.origin = {e.x_min + X * r2, e.y_min + Y * r1, e.z_max + 0.1f};
      } else if (t < top + side_x) {
        n = {1, 0, 0};
        p.origin = {e.x_min - 0.1f, e.y_min + Y * r2, e.z_min + Z * r1};
      } else if (t < top + 2.0f * side_x) {
        n = {-1, 0, 0};
        p.origin = {e.x_max + 0.1f, e.y_min + Y * r2, e.z_min + Z * r1};
      } else if (t < top + 2.0f * side_x + side_y) {
        n = {0, 1, 0};
        p.origin = {e.x_min + X * r2, e.y_min - 0.1f, e.z_min + Z * r1};
      } else {
        n = {0, -1, 0};
        p.origin = {e.x_min + X * r2, e.y_max + 0.1f, e.z_min + Z * r1};
      }
      float3 tt, bb;
      coordinate_system(n, tt, bb);
      p.direction = normalize(l.x * tt + l.y * bb + l.z * n);
    }
    const float3 toward_sky = -p.direction;
    for (int32_t b = 0; b < e.n_bands; ++b)
      p.throughput[size_t(b)] =
          double(sky_radiance(e.sky, e.spectral, toward_sky, b)) * double(PI) * ratio;
    p.weight = e.scale / (1.0 - double(e.prob_sun));
    return true;
  }

  // A sun needs a spectrum: offset -1 means there is none to read.
  if (s.z <= 0.0f || e.prob_sun <= 0.0f || e.sun.spectral_offset < 0) return false;
  p.direction = -s;
  const float r1 = rng.next_float(), r2 = rng.next_float();
  const float* sun_e = e.spectral + e.sun.spectral_offset;
  if (p.repetitive) {
    const float z0 = e.plane + 0.1f;
    const float t = (z0 - e.plane) / s.z;
    p.origin = {e.tile_w * r1 + t * s.x, e.tile_h * r2 + t * s.y, z0};
    for (int32_t b = 0; b < e.n_bands; ++b)
      p.throughput[size_t(b)] = double(sun_e[b]) * double(std::fabs(s.z));
  } else {
    const float r3 = rng.next_float();
    const float a_top = std::fabs(s.z) * X * Y, a_x = std::fabs(s.x) * Y * Z,
                a_y = std::fabs(s.y) * X * Z;
    const float total = a_top + a_x + a_y;
    const double ratio = X * Y > 0.0f ? double(total / (X * Y)) : 0.0;
    const float t = r3 * total;
    if (t < a_top || total <= 0.0f)
      p.origin = {e.x_min + X * r2, e.y_min + Y * r1, e.z_max + 0.1f};
    else if (t >= a_top + a_x)
      p.origin = {e.x_min + X * r2, s.y > 0.0f ? e.y_max + 0.1f : e.y_min - 0.1f,
                  e.z_min + Z * r1};
    else
      p.origin = {s.x > 0.0f ? e.x_max + 0.1f : e.x_min - 0.1f, e.y_min + Y * r2,
                  e.z_min + Z * r1};
    for (int32_t b = 0; b < e.n_bands; ++b) p.throughput[size_t(b)] = double(sun_e[b]) * ratio;
  }
  p.weight = e.scale / double(e.prob_sun);
  return true;
}

}  // namespace vesk::embree
