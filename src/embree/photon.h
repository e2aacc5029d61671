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
#include "embree/media_walk.h"
#include "embree/scene_manager.h"
#include "scene/photon_requests.h"

namespace vesk::embree {

struct Photon {
  std::vector<double> throughput;  // one per band
  float3 origin, direction;
  bool is_sun = true;
  bool repetitive = false;
  int32_t num_repetitions = 0;
  double weight = 0.0;
  // In scenes with media: the media it is in, those of its first leg with the length run
  // in each, that leg's direction, and whether it has scattered yet.
  ActiveMediumList media, first_order;
  float3 first_direction;
  bool scattered = false;
};

using scene::EmissionContext;
using scene::emitted_energy_bound;

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
  const MediaScene* media = nullptr;   // set when the scene has optical turbid media
  size_t n_materials = 0;
};

// Whether a photon that met nothing crossed the floor of the scene box on its way out
// (and so passed through the scene) rather than a side or the top (and so passed by).
inline bool crosses_floor(const float3& o, const float3& d, const float3& lo, const float3& hi) {
  if (!(d.z < 0.0f)) return false;
  const float t = (lo.z - o.z) / d.z;
  const float x = o.x + t * d.x, y = o.y + t * d.y;
  return t >= 0.0f && x > lo.x && x < hi.x && y > lo.y && y < hi.y;
}

// Brings a repeated photon into the home tile by whole tiles: emission starts it upstream
// of its tile cell, possibly beyond a wall. Shifting by whole tiles changes nothing in a
// periodic scene; a photon left on (or a rounding error past) the wall it moves towards
// crosses it at once (tile_exit).
inline void into_tile(const WalkLimits& lim, float3& o) {
  auto settle = [](float& c, float size) {
    if (c < 0.0f || c > size) c -= std::floor(c / size) * size;
  };
  settle(o.x, lim.tile_w);
  settle(o.y, lim.tile_h);
}

// One scattering event of a photon (a surface hit, or a leaf collision in a medium):
// the recorder's surface and scattered calls, the sampled direction, the throughput
// update and roulette. False when the photon ends here (lost() already called where
// energy is left). On true, p.direction is the new direction.
template <class Recorder>
bool scatter_photon(const MaterialData& m, const EmbreeHit& hit, const float* spectral,
                    const WalkLimits& lim, int32_t depth, RNG& rng, Photon& p,
                    std::vector<double>& before, Recorder& rec) {
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
    return false;
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
    return false;
  }
  if (depth >= lim.rr_depth) {
    const float q = std::min(0.95f, float(largest));
    if (q <= rng.next_float()) return false;
    const double inv = 1.0 / double(q);
    for (double& t : p.throughput) t *= inv;
  }
  p.direction = normalize(wi.x * frame[0] + wi.y * frame[1] + wi.z * frame[2]);
  return true;
}

template <class Recorder>
void walk_photon_in_media(const MaterialData* materials, const float* spectral,
                          const WalkLimits& lim, RNG& rng, Photon& p, std::vector<double>& before,
                          Recorder& rec);

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
//   surface(p, hit, frame, wo)      at each event, before scattering (p as it arrived);
//   scattered(p, hit, before)       after the throughput update (before: as it arrived);
//   escaped(p, depth)               when it leaves the scene;
//   lost(p)                         when the walk ends with energy left: depth limit,
//                                   a zero pdf or a throughput below 1e-8.
// A roulette kill calls nothing: it is unbiased on average. With media (lim.media),
// leaf collisions are events too: their hit has primitive_id -1 and the bounding
// instance's id, and the photon carries its media lists for the recorder.
template <class Recorder>
void walk_photon(const EmbreeSceneManager& scene, const MaterialData* materials,
                 const float* spectral, const WalkLimits& lim, RNG& rng, Photon& p,
                 std::vector<double>& before, Recorder& rec) {
  if (lim.media) {
    walk_photon_in_media(materials, spectral, lim, rng, p, before, rec);
    return;
  }
  int32_t depth = 0, crossings = 0;
  bool entered = p.repetitive;
  if (p.repetitive) {
    into_tile(lim, p.origin);
    rec.entered(p);
  }
  // After a wall the ray starts on it, where no surface needs stepping off: a ground
  // that reaches the wall is met however close to the wall the ray passes over its edge.
  float t_min = SURFACE_T_MIN;
  while (depth < lim.max_depth) {
    const EmbreeHit hit = scene.trace_ray(p.origin, p.direction, t_min, 1e30f);
    t_min = SURFACE_T_MIN;
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
          ++crossings;
          t_min = 0.0f;
          continue;
        }
      }
      rec.escaped(p, depth);
      return;
    }
    if (!scatter_photon(materials[hit.material_id], hit, spectral, lim, depth, rng, p, before, rec))
      return;
    p.origin = offset_origin(hit.position, hit.geometric_normal, p.direction);
    ++depth;
  }
  rec.lost(p);
}

// The walk in a scene with optical turbid media: a free path in the media the photon is
// in competes with the surface hit and the tile border at every segment; bounding
// surfaces are crossed without scattering. The photon starts with the media around its
// origin, and its first-order list records the length run in each before the first
// event, for the hot spot of the recorder's local estimates.
template <class Recorder>
void walk_photon_in_media(const MaterialData* materials, const float* spectral,
                          const WalkLimits& lim, RNG& rng, Photon& p, std::vector<double>& before,
                          Recorder& rec) {
  const MediaScene& ms = *lim.media;
  int32_t depth = 0, crossings = 0, boundary_crossings = 0;
  bool entered = p.repetitive;
  if (p.repetitive) {
    into_tile(lim, p.origin);
    rec.entered(p);
  }
  p.media.count = 0;
  const float3& o = p.origin;
  if (o.z <= lim.box_hi.z && o.z >= lim.box_lo.z &&
      (p.repetitive ||
       (o.x >= lim.box_lo.x && o.x <= lim.box_hi.x && o.y >= lim.box_lo.y && o.y <= lim.box_hi.y)))
    media_at_point(ms, p.origin, p.direction, p.media);
  p.first_order = p.media;
  p.first_direction = p.direction;
  p.scattered = false;
  auto run_unscattered = [&](float length) {
    if (p.scattered) return;
    for (int32_t k = 0; k < p.media.count; ++k) {
      const int32_t j = p.first_order.find(p.media.medium_id[k], p.media.instance_key[k]);
      if (j >= 0) p.first_order.primary_distance[j] += length;
    }
  };

  RayStart start = RayStart::Surface;
  while (depth < lim.max_depth) {
    const Segment seg =
        next_segment(ms, p.origin, p.direction, crossings, p.media.count > 0, start);
    start = RayStart::Surface;
    const EmbreeHit& hit = seg.hit;
    const bool at_border = seg.at_border;
    const float bound = seg.bound;
    FreePath fp;
    if (p.media.count > 0)
      fp = sample_combined_free_path(ms.media, ms.n_media, p.media.medium_id, p.media.count,
                                     p.direction, rng.next_float(), 0.0f);
    const bool collides = fp.sigma_total > 0.0f && fp.distance < bound;
    if (!entered) {
      if (!collides && !hit.hit && !crosses_floor(p.origin, p.direction, lim.box_lo, lim.box_hi))
        return;
      rec.entered(p);
      entered = true;
    }

    if (collides) {
      run_unscattered(fp.distance);
      const int32_t slot =
          select_medium_slot(ms.media, ms.n_media, p.media.medium_id, p.media.count, p.direction,
                             fp.sigma_total, rng.next_float());
      const int32_t medium = p.media.medium_id[slot];
      const int32_t material =
          medium >= 0 && size_t(medium) < ms.n_media ? ms.media[medium].material_id : -1;
      if (material < 0 || size_t(material) >= lim.n_materials) {
        rec.lost(p);
        return;
      }
      EmbreeHit leaf;
      leaf.hit = true;
      leaf.t = fp.distance;
      leaf.position = p.origin + fp.distance * p.direction;
      leaf.shading_normal = leaf.geometric_normal =
          sample_leaf_normal(ms.media[medium].leaf_angle_type, p.direction, rng, leaf.back_face);
      leaf.material_id = material;
      leaf.instance_id = int32_t(ms.instance_of(p.media.instance_key[slot]));
      if (!scatter_photon(materials[material], leaf, spectral, lim, depth, rng, p, before, rec))
        return;
      p.scattered = true;
      // The next leg starts at the collision itself: a step along it could carry the
      // photon over a bounding surface (or the ground) unseen.
      p.origin = leaf.position;
      start = RayStart::Point;
      ++depth;
      continue;
    }
    run_unscattered(bound);
    if (at_border) {
      cross_tile(lim.tile_w, lim.tile_h, seg.axis, seg.border, p.direction, p.origin);
      ++crossings;
      start = RayStart::Wall;
      if (!rescan_after_border(ms, p.origin + MEDIUM_STEP * p.direction, p.direction, p.media,
                               p.first_order)) {
        rec.lost(p);
        return;
      }
      continue;
    }
    if (!hit.hit) {
      rec.escaped(p, depth);
      return;
    }
    const int32_t medium = ms.medium_of(hit);
    if (medium >= 0) {
      if (++boundary_crossings > MAX_MEDIUM_CROSSINGS ||
          !cross_boundary(ms, hit, medium, p.direction, p.origin, p.media,
                          p.scattered ? nullptr : &p.first_order)) {
        rec.lost(p);
        return;
      }
      start = RayStart::Boundary;
      continue;
    }
    if (!scatter_photon(materials[hit.material_id], hit, spectral, lim, depth, rng, p, before, rec))
      return;
    p.scattered = true;
    p.origin = offset_origin(hit.position, hit.geometric_normal, p.direction);
    media_after_surface(ms, hit.position, p.origin, p.direction, p.media);
    start = RayStart::Point;
    ++depth;
  }
  rec.lost(p);
}

}  // namespace vesk::embree
