// Energy-balance transport: cosine-weighted rays from random points of each primitive,
// on both sides, gathering sky, sun and the radiation of what they hit.
#include "embree/energy_balance.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <stdexcept>
#include <string>

#include "core/array_check.h"
#include "core/illumination.h"
#include "core/rng.h"
#include "core/tile.h"
#include "core/workers.h"
#include "embree/scene_manager.h"
#include "scene/optical_scene.h"

namespace vesk::embree {
namespace {

constexpr float PI_F = 3.1415927f;
constexpr float INV_PI_F = 0.31830987f;
constexpr float TWO_PI_F = 6.2831855f;
constexpr float SURFACE_OFFSET = 0.0001f;  // start of the sample rays, along the normal
constexpr float WALK_OFFSET = 0.0002f;     // start of walk rays, along the new direction

using Primitives = scene::EnergyBalancePrimitives;

// Ray queries that follow a repeated scene through its tile walls.
struct Queries {
  const EmbreeSceneManager& scene;
  Repetition rep;
  float lo, hi;

  explicit Queries(const EmbreeSceneManager& s)
      : scene(s), rep(s.repetition()), lo(s.min_height()), hi(s.max_height()) {}

  EmbreeHit closest(float3 o, const float3& d) const {
    EmbreeHit h = scene.trace_ray(o, d, 0.0f, 1e30f);
    if (h.hit || !rep.active()) return h;
    for (int32_t k = 0; k < rep.num_repetitions; ++k) {
      if (beyond_heights(o, d, lo, hi)) break;
      float t;
      const int axis = tile_exit(rep.scene_x_size, rep.scene_y_size, o, d, t);
      if (axis < 0) break;
      cross_tile(rep.scene_x_size, rep.scene_y_size, axis, t, d, o);
      h = scene.trace_ray(o, d, 0.0f, 1e30f);
      if (h.hit) break;
    }
    return h;
  }
  bool occluded(const float3& o, const float3& d) const { return scene.shadowed_repetitive(o, d); }
};

// The random stream of one sample of one primitive. The stream increment comes from the
// primitive, so whichever worker takes it draws the same numbers. The first draw is the
// output after one step from the seed.
RNG sample_rng(uint64_t primitive, uint64_t sample) {
  RNG r;
  r.inc = (primitive * 15838ULL + 2ULL) | 1ULL;
  r.state = primitive * 1000003ULL + sample + r.inc;
  r.next();
  return r;
}

// A cosine-weighted direction about the unit normal n from an azimuth and a radius draw.
float3 cosine_direction(const float3& n, float azimuth_draw, float radius_draw) {
  const float phi = TWO_PI_F * azimuth_draw;
  const float r = std::sqrt(radius_draw);
  const float x = r * std::cos(phi), y = r * std::sin(phi);
  const float z = std::sqrt(std::max(1.0f - x * x - y * y, 0.0f));
  float3 t;
  if (std::fabs(n.x) > std::fabs(n.y)) {
    const float l = std::sqrt(n.x * n.x + n.z * n.z);
    t = {n.z / l, 0.0f, -n.x / l};
  } else {
    const float l = std::sqrt(n.y * n.y + n.z * n.z);
    t = {0.0f, n.z / l, -n.y / l};
  }
  return z * n + y * t + x * cross(t, n);
}

// A uniform point of the triangle from two draws.
float3 point_on(const Primitives& prims, size_t p, float u, float v) {
  if (u + v > 1.0f) u = 1.0f - u, v = 1.0f - v;
  const float3* t = &prims.vertices[3 * p];
  return (1.0f - u - v) * t[0] + u * t[1] + v * t[2];
}

float3 unit_sun(float x, float y, float z) {
  const float l = std::sqrt(x * x + y * y + z * z);
  return {x / l, y / l, z / l};
}

// Runs body(p, cancel) for every primitive on the workers, each taking the next primitive
// from one counter. Every primitive writes only its own result slots. A body with many
// samples looks at `cancel` between them (SAMPLES_PER_CANCEL_CHECK), so that an interrupt
// or a failed worker stops the run within a fraction of a second.
template <class Body>
void for_each_primitive(const EmbreeSceneManager& scene, size_t n, int32_t threads,
                        const Body& body) {
  EmbreeSceneManager::RunGuard guard(scene);
  std::atomic<int64_t> next{0};
  std::atomic<bool> cancel{false};
  const int workers = int(std::min<int64_t>(resolve_thread_count(threads), int64_t(n)));
  run_workers(
      workers,
      [&](int) {
        for (;;) {
          const int64_t p = next.fetch_add(1, std::memory_order_relaxed);
          if (p >= int64_t(n) || cancel.load(std::memory_order_relaxed)) return;
          body(size_t(p), cancel);
        }
      },
      {}, cancel);
}

constexpr int32_t SAMPLES_PER_CANCEL_CHECK = 16;
inline bool cancelled(int32_t sample, const std::atomic<bool>& cancel) {
  return sample % SAMPLES_PER_CANCEL_CHECK == 0 && cancel.load(std::memory_order_relaxed);
}

}  // namespace

// ---------------------------------------------------------------- single band

void render_energy_balance(const EmbreeSceneManager& scene, const EnergyBalanceRequest& r,
                           EnergyBalanceResult& out) {
  const bool longwave = r.band_type == 1;
  const size_t n = scene.n_primitives();
  out.top.assign(n, 0.0f);
  out.bot.assign(r.two_sided ? n : 0, 0.0f);
  if (n == 0 || r.n_samples <= 0) return;
  const Primitives prims = scene::gather_energy_balance_primitives(scene, longwave);
  const Queries q(scene);
  const float sun = r.sun_irradiance && !longwave ? *r.sun_irradiance : 0.0f;
  const float3 sun_dir =
      sun > 0.0f ? unit_sun(r.sun_dir_x, r.sun_dir_y, r.sun_dir_z) : float3{0.0f, 0.0f, 1.0f};
  const float diffuse = r.sky_diffuse_radiance ? *r.sky_diffuse_radiance : 0.0f;
  const int32_t n_samples = r.n_samples;

  // Radiance arriving along a sample ray.
  auto radiance = [&](const float3& o, const float3& d) -> float {
    const EmbreeHit hit = q.closest(o, d);
    if (longwave) {
      if (!hit.hit) return r.sky_lw_radiance;
      return hit.primitive_id >= 0 && size_t(hit.primitive_id) < n
                 ? prims.exitance[size_t(hit.primitive_id)]
                 : 0.0f;
    }
    if (!hit.hit) return diffuse;
    const int32_t h = hit.primitive_id;
    if (!r.sw_albedos || h < 0 || size_t(h) >= n) return 0.0f;
    const float a = r.sw_albedos[h];
    if (!(a > 0.0f)) return 0.0f;
    float l = a * diffuse;
    if (sun > 0.0f) {
      // Second bounce: the sun on the hit primitive, seen from its centroid.
      const float3& nh = prims.normals[size_t(h)];
      const float c = dot(sun_dir, nh);
      if (std::fabs(c) > 0.0f) {
        const float3 from =
            prims.centroids[size_t(h)] + (c >= 0.0f ? SURFACE_OFFSET : -SURFACE_OFFSET) * nh;
        if (!q.occluded(from, sun_dir)) l += a * INV_PI_F * sun * std::fabs(c);
      }
    }
    return l;
  };

  for_each_primitive(scene, n, r.threads, [&](size_t p, const std::atomic<bool>& cancel) {
    const float3 N = prims.normals[p];
    if (dot(N, N) == 0.0f) return;  // a degenerate triangle receives nothing
    double top = 0.0, bot = 0.0, top_sun = 0.0, bot_sun = 0.0;
    for (int32_t i = 0; i < n_samples; ++i) {
      if (cancelled(i, cancel)) return;
      RNG rng = sample_rng(p, uint64_t(i));
      const float u = rng.next_float(), v = rng.next_float();
      const float3 P = point_on(prims, p, u, v);
      const float az = rng.next_float(), rad = rng.next_float();
      const float3 o_top = P + SURFACE_OFFSET * N;
      top += radiance(o_top, cosine_direction(N, az, rad));
      if (sun > 0.0f) {
        const float c = dot(N, sun_dir);
        if (c > 0.0f && !q.occluded(o_top, sun_dir)) top_sun += c;
      }
      if (r.two_sided) {
        const float az_b = rng.next_float(), rad_b = rng.next_float();
        const float3 o_bot = P - SURFACE_OFFSET * N;
        bot += radiance(o_bot, cosine_direction(-N, az_b, rad_b));
        if (sun > 0.0f) {
          const float c = -dot(N, sun_dir);
          if (c > 0.0f && !q.occluded(o_bot, sun_dir)) bot_sun += c;
        }
      }
    }
    const double w = double(PI_F) / n_samples;
    out.top[p] = float(top * w + top_sun * sun / n_samples);
    if (r.two_sided) out.bot[p] = float(bot * w + bot_sun * sun / n_samples);
  });
}

// ---------------------------------------------------------------- multi-band

void render_energy_balance_multiband(const EmbreeSceneManager& scene,
                                     const MultibandEnergyBalanceRequest& r,
                                     MultibandEnergyBalanceResult& out) {
  const size_t n = scene.n_primitives();
  const int32_t nb = std::min(std::max(r.n_bands, 0), MAX_EB_BANDS);
  out.top.assign(size_t(nb) * n, 0.0f);
  out.bot.assign(r.two_sided ? size_t(nb) * n : 0, 0.0f);
  out.sunlit_fraction.assign(n, 0.0f);
  if (n == 0 || nb == 0 || r.n_samples <= 0) return;
  const Primitives prims = scene::gather_energy_balance_primitives(scene, false);
  const Queries q(scene);
  const bool has_sun = r.sun_irradiance != nullptr;
  const float3 sun_dir =
      has_sun ? unit_sun(r.sun_dir_x, r.sun_dir_y, r.sun_dir_z) : float3{0.0f, 0.0f, 1.0f};
  const bool split = r.sw_reflectance && r.sw_back_reflectance && r.sw_transmittance;
  const float* spectral = scene.spectral_params().data();
  const SkySelection sky = scene.sky();
  const int32_t max_depth = r.max_depth, n_samples = r.n_samples;

  auto sky_at = [&](const float3& d, int32_t b) -> float {
    if (r.sky_directional_table) return directional_sky_radiance(0, r.sky_directional_table, d, b);
    if (r.sky_diffuse_radiance) return r.sky_diffuse_radiance[b];
    return sky_radiance(sky, spectral, d, b);
  };

  // One walk from origin o along d, adding what reaches it to L (per band).
  auto walk = [&](RNG& rng, float3 o, float3 d, float* L) {
    float W[MAX_EB_BANDS], rr[MAX_EB_BANDS], tt[MAX_EB_BANDS];
    for (int32_t b = 0; b < nb; ++b) L[b] = 0.0f, W[b] = 1.0f;
    int32_t depth = 0;
    for (;;) {
      const EmbreeHit hit = q.closest(o, d);
      if (!hit.hit) {
        for (int32_t b = 0; b < nb; ++b) L[b] += W[b] * sky_at(d, b);
        return;
      }
      if (depth == max_depth) return;
      const int32_t h = hit.primitive_id;
      if (h < 0 || size_t(h) >= n) return;
      float3 N = prims.normals[size_t(h)];
      const bool back = dot(-1.0f * d, N) < 0.0f;
      if (back) N = -N;
      const float c = dot(sun_dir, N);
      const bool lit = has_sun && std::fabs(c) > 0.0f &&
                       !q.occluded(hit.position + WALK_OFFSET * sun_dir, sun_dir);
      float rmax = 0.0f, tmax = 0.0f;
      for (int32_t b = 0; b < nb; ++b) {
        const size_t k = size_t(b) * n + size_t(h);
        float rb = 0.0f, tb = 0.0f;
        if (split) {
          rb = std::clamp(back ? r.sw_back_reflectance[k] : r.sw_reflectance[k], 0.0f, 1.0f);
          tb = std::min(1.0f - rb, std::max(r.sw_transmittance[k], 0.0f));
        } else if (r.sw_albedos) {
          rb = std::clamp(r.sw_albedos[k], 0.0f, 1.0f);
          tb = std::min(1.0f - rb, 0.0f);  // the albedo route never transmits
        }
        rr[b] = rb, tt[b] = tb;
        rmax = std::max(rmax, rb), tmax = std::max(tmax, tb);
        if (lit)
          L[b] += (c >= 0.0f ? rb : tb) * W[b] * INV_PI_F * r.sun_irradiance[b] * std::fabs(c);
      }
      if (rmax + tmax <= 1e-08f) return;
      const float qr = rmax / (rmax + tmax);
      bool reflect;
      if (tmax <= 1e-08f)
        reflect = true;
      else if (qr <= 1e-08f)
        reflect = false;
      else
        reflect = rng.next_float() < qr;
      float wmax = 0.0f;
      for (int32_t b = 0; b < nb; ++b) {
        W[b] *= reflect ? rr[b] / qr : tt[b] / (1.0f - qr);
        wmax = std::max(wmax, W[b]);
      }
      if (!reflect) N = -N;
      if (wmax <= 1e-06f) return;
      const float az = rng.next_float(), rad = rng.next_float();
      d = cosine_direction(N, az, rad);
      ++depth;
      o = hit.position + WALK_OFFSET * d;
      if (depth > max_depth) return;
    }
  };

  for_each_primitive(scene, n, r.threads, [&](size_t p, const std::atomic<bool>& cancel) {
    const float3 N = prims.normals[p];
    if (dot(N, N) == 0.0f) return;
    double top[MAX_EB_BANDS] = {}, bot[MAX_EB_BANDS] = {};
    float L[MAX_EB_BANDS];
    double top_sun = 0.0, bot_sun = 0.0;
    int64_t lit = 0;
    for (int32_t i = 0; i < n_samples; ++i) {
      if (cancelled(i, cancel)) return;
      RNG rng = sample_rng(p, uint64_t(i));
      const float u = rng.next_float(), v = rng.next_float();
      const float3 P = point_on(prims, p, u, v);
      const float az = rng.next_float(), rad = rng.next_float();
      const float3 o_top = P + SURFACE_OFFSET * N;
      walk(rng, o_top, cosine_direction(N, az, rad), L);
      for (int32_t b = 0; b < nb; ++b) top[b] += L[b];
      if (has_sun) {
        const float c = dot(N, sun_dir);
        if (c > 0.0f && !q.occluded(o_top, sun_dir)) top_sun += c, ++lit;
      }
      if (r.two_sided) {
        const float az_b = rng.next_float(), rad_b = rng.next_float();
        const float3 o_bot = P - SURFACE_OFFSET * N;
        walk(rng, o_bot, cosine_direction(-N, az_b, rad_b), L);
        for (int32_t b = 0; b < nb; ++b) bot[b] += L[b];
        if (has_sun) {
          const float c = -dot(N, sun_dir);
          if (c > 0.0f && !q.occluded(o_bot, sun_dir)) bot_sun += c, ++lit;
        }
      }
    }
    const double w = double(PI_F) / n_samples;
    for (int32_t b = 0; b < nb; ++b) {
      const double e = has_sun ? double(r.sun_irradiance[b]) / n_samples : 0.0;
      out.top[size_t(b) * n + p] = float(top[b] * w + top_sun * e);
      if (r.two_sided) out.bot[size_t(b) * n + p] = float(bot[b] * w + bot_sun * e);
    }
    out.sunlit_fraction[p] = float(double(lit) / n_samples);
  });
}

}  // namespace vesk::embree
