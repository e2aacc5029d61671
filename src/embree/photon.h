#pragma once
// Photons of the forward and flux tracers: emission from the sun and the sky (over a
// repeated tile or through the faces of the scene box), and the walk from surface to
// surface that both tracers share. What a walk records is the caller's Recorder.

#include <cmath>
#include <cstdint>
#include <vector>

#include "core/illumination.h"
#include "core/material.h"
#include "core/offset_origin.h"
#include "core/rng.h"
#include "core/tile.h"
#include "embree/scene_manager.h"

namespace vesk::embree {

struct Photon {
  std::vector<double> throughput;  // one per band
  float3 origin, direction;
  bool is_sun = true;
  bool repetitive = false;
  int32_t num_repetitions = 0;
  double weight = 0.0;
};

// Everything emission reads, gathered once per run.
struct EmissionContext {
  const float* spectral = nullptr;
  int32_t n_bands = 0;
  Emitter sun;
  SkySelection sky;
  int32_t num_repetitions = 0;
  float tile_w = 0.0f, tile_h = 0.0f;  // W, H
  float x_min = 0, x_max = 0, y_min = 0, y_max = 0, z_min = 0, z_max = 0;  // scene box
  float plane = 0.0f;  // measurement plane height
  float prob_sun = 1.0f;
  double scale = 0.0;  // energy scale: emitting area / photon count

  static EmissionContext from_scene(const EmbreeSceneManager& scene, int32_t n_bands,
                                    float prob_sun, double scale);
};

// The generator of global photon i, independent of the thread that runs it.
inline RNG photon_rng(uint64_t i) {
  RNG r;
  r.seed(i + 1000003ULL, 1ULL + 7919ULL * i);
  return r;
}

// Fills the photon; false when this index emits nothing (sun near the horizon, no
// sun or no sky for the drawn kind, no bands).
bool emit_photon(const EmissionContext& e, RNG& rng, Photon& p);

struct WalkLimits {
  int32_t max_depth = 16;
  int32_t rr_depth = 3;
  int32_t n_bands = 1;
  float tile_w = 0.0f, tile_h = 0.0f;  // wall positions for tile crossings
  float3 box_lo, box_hi;               // the scene box
};

// Whether a photon that met nothing crossed the floor of the scene box on its way out
// (and so passed through the scene) rather than a side or the top (and so passed by).
inline bool crosses_floor(const float3& o, const float3& d, const float3& lo, const float3& hi) {
  if (!(d.z < 0.0f)) return false;
  const float t = (lo.z - o.z) / d.z;
  const float x = o.x + t * d.x, y = o.y + t * d.y;
  return t >= 0.0f && x > lo.x && x < hi.x && y > lo.y && y < hi.y;
}

// Walks an emitted photon through the scene: surface hits scatter it by the material's
// sampling, Russian roulette (capped at 0.95) starts at rr_depth, misses cross tile
// walls while crossings remain, and a final miss is an escape. The recorder sees:
//   entered(p)                      once the photon is known to enter the scene: at
//                                   emission over a tile; through the faces of a finite
//                                   scene's box, at its first hit or when it leaves
//                                   through the floor untouched. A photon that crosses
//                                   the box and leaves by a side or the top without
//                                   touching anything passes the scene by: it was never
//                                   incident on it, and the recorder sees nothing of it;
//   surface(p, hit, frame, wo)      at each hit, before scattering (p as it arrived);
//   scattered(p, hit, before)       after the throughput update (before: as it arrived);
//   escaped(p, depth)               when it leaves the scene;
//   lost(p)                         when the walk ends with energy left: depth limit,
//                                   a zero pdf or a throughput below 1e-8.
// A roulette kill calls nothing: it is unbiased on average.
template <class Recorder>
void walk_photon(const EmbreeSceneManager& scene, const MaterialData* materials,
                 const float* spectral, const WalkLimits& lim, RNG& rng, Photon& p,
                 std::vector<double>& before, Recorder& rec) {
  int32_t depth = 0, crossings = 0;
  // Emission starts a repeated photon upstream of its tile cell, possibly beyond a wall,
  // and a crossing near a corner leaves the other coordinate at (or a rounding error
  // past) a wall closer than the 1e-4 the wall search ignores, so that wall would never
  // be crossed. Shifting by whole tiles changes nothing in a periodic scene: bring the
  // photon inside, and across any wall it is about to leave through.
  auto settle = [](float& o, float d, float size) {
    if (o < 0.0f || o > size) o -= std::floor(o / size) * size;
    if (d > 1e-8f && (size - o) / d <= 1e-4f) o -= size;
    else if (d < -1e-8f && -o / d <= 1e-4f) o += size;
  };
  auto into_tile = [&](float3& o, const float3& d) {
    settle(o.x, d.x, lim.tile_w);
    settle(o.y, d.y, lim.tile_h);
  };
  bool entered = p.repetitive;
  if (p.repetitive) {
    into_tile(p.origin, p.direction);
    rec.entered(p);
  }
  while (depth < lim.max_depth) {
    const EmbreeHit hit = scene.trace_ray(p.origin, p.direction, 1e-4f, 1e30f);
    if (!entered) {
      if (!hit.hit && !crosses_floor(p.origin, p.direction, lim.box_lo, lim.box_hi)) return;
      rec.entered(p);
      entered = true;
    }
    if (!hit.hit) {
      if (p.repetitive && crossings < p.num_repetitions &&
          !beyond_heights(p.origin, p.direction, lim.box_lo.z, lim.box_hi.z)) {
        float t;
        const int axis = tile_exit(lim.tile_w, lim.tile_h, p.origin, p.direction, t);
        if (axis >= 0) {
          cross_tile(lim.tile_w, lim.tile_h, axis, t, p.direction, p.origin);
          into_tile(p.origin, p.direction);
          ++crossings;
          continue;
        }
      }
      rec.escaped(p, depth);
      return;
    }

    const MaterialData& m = materials[hit.material_id];
    float3 frame[3];
    frame[2] = hit.shading_normal;
    coordinate_system(frame[2], frame[0], frame[1]);
    const float3 wo{-dot(p.direction, frame[0]), -dot(p.direction, frame[1]),
                    -dot(p.direction, frame[2])};
    rec.surface(p, hit, frame, wo);

    const float ua = rng.next_float(), ub = rng.next_float(), uc = rng.next_float();
    float3 wi;
    float pdf;
    sample_material(m, {uc, ub, ua}, wi, pdf);
    if (pdf < 1e-8f) {
      rec.lost(p);
      return;
    }
    bool alive = false;
    double largest = 0.0;
    for (int32_t b = 0; b < lim.n_bands; ++b) {
      const float f = evaluate_material(m.type, m.spectral_offset, b, wo, wi, spectral,
                                        lim.n_bands, hit.back_face, false);
      double& t = p.throughput[size_t(b)];
      before[size_t(b)] = t;
      t = t * double(f) * double(std::fabs(wi.z)) / double(pdf);
      alive |= t > 1e-8;
      largest = std::max(largest, t);
    }
    rec.scattered(p, hit, before);
    if (!alive) {
      rec.lost(p);
      return;
    }
    if (depth >= lim.rr_depth) {
      const float q = std::min(0.95f, float(largest));
      if (q <= rng.next_float()) return;
      const double inv = 1.0 / double(q);
      for (double& t : p.throughput) t *= inv;
    }
    p.direction = normalize(wi.x * frame[0] + wi.y * frame[1] + wi.z * frame[2]);
    p.origin = offset_origin(hit.position, hit.geometric_normal, p.direction);
    ++depth;
  }
  rec.lost(p);
}

}  // namespace vesk::embree
