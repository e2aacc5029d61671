// Backward path tracing: sensor paths, sun next-event estimation through the repeated
// tiles, sky at escape, thermal and SIF emission, film in 64-bit sums.
#include "embree/backward.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "core/illumination.h"
#include "core/material.h"
#include "core/memory_limit.h"
#include "core/offset_origin.h"
#include "core/planck.h"
#include "core/rng.h"
#include "core/sif_field.h"
#include "core/sensor.h"
#include "core/tile.h"
#include "core/workers.h"
#include "embree/media_walk.h"
#include "scene/optical_scene.h"
#include "embree/scene_manager.h"

namespace vesk::embree {

using backend::OpticalFilm;
using backend::OpticalProductRequest;

namespace {

// Per worker, sized once and refilled for every sample.
struct BackwardThreadScratch {
  std::vector<double> throughput, radiance, aov, orders;
};

// Everything one path reads, gathered once per render.
struct PathContext {
  const EmbreeSceneManager& scene;
  const float* spectral;
  const MaterialData* materials;
  SensorData sensor;
  Emitter sun;
  SkySelection sky;
  Repetition rep;
  int32_t bands;
  int32_t max_depth, rr_depth;
  EmissionMode mode;
  bool terrain_following;
  float max_height, min_height;
  const float* primitive_temperatures;  // null unless one per primitive
  const float* primitive_sif;           // null unless usable
  size_t n_primitives;
  const float* band_wavelengths;
  bool has_sun;  // a sun spectrum and a non-zero direction
  bool want_aov, want_orders;
  int32_t last_order;  // max_output_order + 1
  size_t n_materials;
  const InstanceSifSourceFields* sif_fields;  // null unless set (and band-matched)
  size_t n_instances;
  // Conditional temperatures of leaves in media, by bounding instance: null unless set
  // for every instance and the render is thermal.
  const InstanceTurbidThermalState* turbid_thermal;
};

struct PathState {
  float3 origin, direction;
  int32_t depth = 0, order = 0, crossings = 0;
  bool from_wall = false;  // the origin lies on the tile wall the ray has just entered by
};

inline float3 to_local(const float3& v, const float3& t, const float3& b, const float3& n) {
  return {dot(v, t), dot(v, b), dot(v, n)};
}

// Every contribution goes through here: radiance, its event slot and its order slot.
inline void contribute(const PathContext& c, BackwardThreadScratch& s, int32_t slot, int32_t order,
                       int32_t b, double value) {
  s.radiance[size_t(b)] += value;
  if (c.want_aov) s.aov[size_t(slot * c.bands + b)] += value;
  if (c.want_orders)
    s.orders[size_t(std::min(order, c.last_order)) * size_t(c.bands) + size_t(b)] += value;
}

void enter_tile(const PathContext& c, PathState& p) {
  vesk::enter_tile(c.rep.scene_x_size, c.rep.scene_y_size, c.max_height, p.origin, p.direction);
}

// Fluorescence of a leaf met inside a medium bounded by `instance`, from the instance's
// source fields: the joint field at the collision's cell and leaf-normal bin, plus the
// direct-joint field times the leaf's sunlit share (its sun visibility, asked for only
// when the cell has a direct part). The point is clamped into the grid's box, so a
// bounding mesh that pokes out of it reads the edge cells. The cell and bin rules are
// the assembly's, so a uniform field is returned exactly.
template <class SunlitShare>
void emit_field_sif(const PathContext& c, BackwardThreadScratch& s, uint32_t instance,
                    const float3& point, const float3& leaf_normal, int32_t order,
                    const SunlitShare& sunlit_share) {
  const InstanceSifSourceFields& f = *c.sif_fields;
  if (size_t(instance) >= c.n_instances) return;
  const size_t k = instance;
  const float* lo = &f.bounds_min[3 * k];
  const float* hi = &f.bounds_max[3 * k];
  const float3 q{std::clamp(point.x, lo[0], hi[0]), std::clamp(point.y, lo[1], hi[1]),
                 std::clamp(point.z, lo[2], hi[2])};
  const int32_t cell = sif_cell(q, lo, hi, &f.grid_dims[3 * k]);
  const int32_t bin =
      sif_orientation_bin(leaf_normal, f.orientation_theta_bins, f.orientation_phi_bins);
  if (cell < 0 || bin < 0) return;
  const size_t bins = size_t(f.orientation_theta_bins) * size_t(f.orientation_phi_bins);
  const size_t base =
      ((k * size_t(f.spatial_cell_stride) + size_t(cell)) * bins + size_t(bin)) * size_t(c.bands);
  double share = -1.0;
  for (int32_t b = 0; b < c.bands; ++b) {
    double value = f.joint_spectra[base + size_t(b)];
    const float direct = f.direct_joint_spectra[base + size_t(b)];
    if (direct != 0.0f) {
      if (share < 0.0) share = sunlit_share();
      value += share * double(direct);
    }
    contribute(c, s, backend::SLOT_EMISSION, order, b, value * s.throughput[size_t(b)]);
  }
}

// Thermal emission of a leaf met inside a medium bounded by `instance` whose leaves have
// a conditional thermal state: the leaf is sunlit with the probability that the sun is
// visible from the collision (its transmittance; the instance's mean sunlit fraction
// when the scene has no sun direction), so its expected radiance is
// eps [v B(T_sunlit) + (1 - v) B(T_shaded)], B the Planck radiance at each band. False
// when the instance has no state (temperatures 0): the material's emission applies.
template <class SunVisibility>
bool emit_turbid_thermal(const PathContext& c, BackwardThreadScratch& s, uint32_t instance,
                         int32_t order, const SunVisibility& sun_visibility) {
  const InstanceTurbidThermalState& t = *c.turbid_thermal;
  if (size_t(instance) >= t.temperature_sunlit.size()) return false;
  const float ts = t.temperature_sunlit[instance], th = t.temperature_shaded[instance];
  if (!(ts > 0.0f) || !(th > 0.0f)) return false;
  const bool sun_set = dot(c.sun.direction, c.sun.direction) > 0.0f;
  const double v = sun_set ? std::clamp(sun_visibility(), 0.0, 1.0)
                           : double(t.sunlit_fraction[instance]);
  const double e = t.emissivity[instance];
  for (int32_t b = 0; b < c.bands; ++b) {
    const double l = v * planck_radiance(c.band_wavelengths[b], ts) +
                     (1.0 - v) * planck_radiance(c.band_wavelengths[b], th);
    contribute(c, s, backend::SLOT_EMISSION, order, b, e * l * s.throughput[size_t(b)]);
  }
  return true;
}

// Thermal or SIF emission of the surface at this hit, weighted by the throughput.
void emit_at_hit(const PathContext& c, BackwardThreadScratch& s, const EmbreeHit& hit,
                 const MaterialData& m, int32_t order) {
  const int32_t id = hit.primitive_id;
  if (c.mode == EMISSION_THERMAL) {
    float T;
    if (id >= 0 && c.primitive_temperatures) {
      T = c.primitive_temperatures[id];
    } else {
      T = m.params[2];
      if (m.params[3] > 0.0f && m.params[4] > 0.0f) {
        const float3 o = offset_origin(hit.position, hit.geometric_normal, c.sun.direction);
        T = c.scene.shadowed_repetitive(o, c.sun.direction) ? m.params[4] : m.params[3];
      }
    }
    if (T <= 0.0f) return;
    for (int32_t b = 0; b < c.bands; ++b) {
      const float e = c.spectral[m.spectral_offset + b];
      const float l = planck_radiance(c.band_wavelengths[b], T) * e;
      contribute(c, s, backend::SLOT_EMISSION, order, b, double(l) * s.throughput[size_t(b)]);
    }
  } else if (c.mode == EMISSION_SIF_ONLY && c.primitive_sif && id >= 0) {
    for (int32_t b = 0; b < c.bands; ++b)
      contribute(c, s, backend::SLOT_EMISSION, order, b,
                 double(c.primitive_sif[size_t(b) * c.n_primitives + size_t(id)]) *
                     s.throughput[size_t(b)]);
  }
}

// Sun next-event estimation at a scattering event, in plain optical mode, to `slot`.
// visibility() is asked only when the sun can contribute: 0 or 1 behind surfaces, a
// transmittance through media.
template <class Visibility>
void sun_at_event(const PathContext& c, BackwardThreadScratch& s, const MaterialData& m,
                  const float3 frame[3], const float3& wo, bool back_face, int32_t order,
                  int32_t slot, const Visibility& visibility) {
  const float3& sun_dir = c.sun.direction;
  const float3 sun_local = to_local(sun_dir, frame[0], frame[1], frame[2]);
  // Only a leaf can be lit from behind; a zero cosine carries nothing.
  if (!(sun_local.z > 0.0f || m.type == MaterialType::DiffuseTransmitting)) return;
  if (!(std::fabs(sun_local.z) > 0.0f)) return;
  const double v = visibility();
  if (!(v > 0.0)) return;
  const double cz = std::fabs(sun_local.z) * v;
  for (int32_t k = 0; k < c.bands; ++k) {
    const float f = evaluate_material(m.type, m.spectral_offset, k, wo, sun_local, c.spectral,
                                      c.bands, back_face, false);
    const double e = c.spectral[c.sun.spectral_offset + k];
    contribute(c, s, slot, order, k, double(f) * s.throughput[size_t(k)] * e * cz);
  }
}

// Samples the next direction at a scattering event and weights the throughput by it,
// with Russian roulette from rr_depth: false when the path ends there. The three draws
// come first; wi is returned in world space.
bool scatter(const PathContext& c, BackwardThreadScratch& s, RNG& rng, const MaterialData& m,
             const float3 frame[3], const float3& wo, bool back_face, int32_t depth,
             float3& wi_world) {
  const float ua = rng.next_float(), ub = rng.next_float(), uc = rng.next_float();
  float3 wi;
  float pdf;
  sample_material(m, {uc, ub, ua}, wi, pdf);
  if (pdf < 1e-8f || std::fabs(wi.z) <= 0.0f) return false;

  const bool thermal = c.mode == EMISSION_THERMAL;
  bool alive = false;
  double largest = 0.0;
  for (int32_t k = 0; k < c.bands; ++k) {
    const float f = evaluate_material(m.type, m.spectral_offset, k, wo, wi, c.spectral, c.bands,
                                      back_face, thermal);
    double& tp = s.throughput[size_t(k)];
    tp *= double(f) * double(std::fabs(wi.z)) / double(pdf);
    alive |= tp > double(1e-6f);
    largest = std::max(largest, tp);
  }
  if (!alive) return false;
  if (depth >= c.rr_depth) {
    const float q = std::min(0.95f, float(largest));
    if (q <= rng.next_float()) return false;
    for (double& tp : s.throughput) tp /= double(q);
  }
  wi_world = normalize(wi.x * frame[0] + wi.y * frame[1] + wi.z * frame[2]);
  return true;
}

// One surface event: emission, the sun by next-event estimation (visibility(from) gives
// the sun's visibility from a point off the surface), and the next direction. False when
// the path ends there.
template <class Visibility>
bool surface_event(const PathContext& c, BackwardThreadScratch& s, RNG& rng, PathState& p,
                   const EmbreeHit& hit, const Visibility& visibility) {
  ++p.order;
  const MaterialData& m = c.materials[hit.material_id];
  float3 frame[3];
  frame[2] = hit.shading_normal;
  coordinate_system(frame[2], frame[0], frame[1]);
  const float3 wo = to_local(-p.direction, frame[0], frame[1], frame[2]);

  if (c.mode != EMISSION_OPTICAL) emit_at_hit(c, s, hit, m, p.order);
  if (c.mode == EMISSION_OPTICAL && c.has_sun)
    sun_at_event(c, s, m, frame, wo, hit.back_face, p.order, backend::SLOT_SURFACE, [&] {
      return visibility(offset_origin(hit.position, hit.geometric_normal, c.sun.direction));
    });
  if (!scatter(c, s, rng, m, frame, wo, hit.back_face, p.depth, p.direction)) return false;
  p.origin = offset_origin(hit.position, hit.geometric_normal, p.direction);
  ++p.depth;
  return true;
}

// Surface events until the path escapes (true) or ends: depth limit, an unusable
// sample, a throughput cut-off or Russian roulette (false).
bool bounce_until_escape(const PathContext& c, BackwardThreadScratch& s, RNG& rng, PathState& p) {
  while (p.depth < c.max_depth) {
    // From a wall nothing is stepped off: a surface that reaches the wall is met however
    // close to it the ray passes.
    const EmbreeHit hit =
        c.scene.trace_ray(p.origin, p.direction, p.from_wall ? 0.0f : SURFACE_T_MIN, 1e30f);
    p.from_wall = false;
    if (!hit.hit) return true;
    if (!surface_event(c, s, rng, p, hit, [&](const float3& from) {
          return c.scene.shadowed_repetitive(from, c.sun.direction) ? 0.0 : 1.0;
        }))
      return false;
  }
  return false;  // the depth limit ends the path without the sky
}

// After an escape: moves the ray through the tile wall it leaves by, into the next
// repetition, while crossings remain. False when the path has left the scene for good.
bool cross_tile_wall(const PathContext& c, PathState& p) {
  if (p.crossings >= c.rep.num_repetitions || !(c.rep.scene_x_size > 0.0f) ||
      !(c.rep.scene_y_size > 0.0f) ||
      beyond_heights(p.origin, p.direction, c.min_height, c.max_height))
    return false;
  float t;
  const int axis = tile_exit(c.rep.scene_x_size, c.rep.scene_y_size, p.origin, p.direction, t);
  if (axis < 0) return false;
  cross_tile(c.rep.scene_x_size, c.rep.scene_y_size, axis, t, p.direction, p.origin);
  ++p.crossings;
  p.from_wall = true;
  return true;
}

// The sun disc (unscattered camera rays only) or the sky, where a path leaves for good.
void environment(const PathContext& c, BackwardThreadScratch& s, const PathState& p) {
  if (p.depth == 0 && c.mode == EMISSION_OPTICAL && c.has_sun &&
      dot(p.direction, c.sun.direction) >= SUN_DISC_COS) {
    for (int32_t k = 0; k < c.bands; ++k)
      contribute(c, s, backend::SLOT_ENVIRONMENT, p.order, k,
                 double(c.spectral[c.sun.spectral_offset + k] / SUN_SOLID_ANGLE_SR) *
                     s.throughput[size_t(k)]);
    return;
  }
  if (c.mode == EMISSION_SIF_ONLY) return;
  for (int32_t k = 0; k < c.bands; ++k)
    contribute(c, s, backend::SLOT_ENVIRONMENT, p.order, k,
               double(sky_radiance(c.sky, c.spectral, p.direction, k)) * s.throughput[size_t(k)]);
}

// The camera ray of one pixel sample, with terrain following and tile entry, and the
// scratch refilled; false when the pixel yields no ray for this sample.
bool start_path(const PathContext& c, BackwardThreadScratch& s, RNG& rng, int32_t x, int32_t y,
                PathState& p) {
  const float dx = rng.next_float(), dy = rng.next_float();
  if (!sensor::generate_primary_ray(c.sensor, x, y, dx, dy, p.origin, p.direction)) return false;

  // Re-aim the ray through the terrain under its z = 0 footprint, from far back (a level
  // camera ray has no footprint and stays as it is).
  if (c.terrain_following && c.sensor.type == SENSOR_ORTHOGRAPHIC &&
      std::fabs(p.direction.z) > 1e-6f) {
    const float3 o = p.origin, d = p.direction;
    const float x0 = o.x - (o.z / d.z) * d.x, y0 = o.y - (o.z / d.z) * d.y;
    const EmbreeHit g = c.scene.trace_ray({x0, y0, o.z}, {0.0f, 0.0f, -1.0f}, 1e-4f, 1e30f);
    if (g.hit) p.origin = {x0 - d.x * 1e5f, y0 - d.y * 1e5f, (o.z - g.t) - d.z * 1e5f};
  }

  std::fill(s.throughput.begin(), s.throughput.end(), 1.0);
  std::fill(s.radiance.begin(), s.radiance.end(), 0.0);
  std::fill(s.aov.begin(), s.aov.end(), 0.0);
  std::fill(s.orders.begin(), s.orders.end(), 0.0);
  if (c.rep.active()) enter_tile(c, p);
  return true;
}

// One path of one pixel sample into the scratch; false when the pixel yields no ray
// for this sample, and then nothing may reach the film.
bool trace_surface_path(const PathContext& c, BackwardThreadScratch& s, int32_t x, int32_t y,
                        int32_t sample) {
  RNG rng = pixel_sample_rng(uint64_t(y) * uint64_t(c.sensor.width) + uint64_t(x),
                             uint64_t(sample));
  PathState p;
  if (!start_path(c, s, rng, x, y, p)) return false;
  while (true) {
    if (!bounce_until_escape(c, s, rng, p)) return true;
    if (!cross_tile_wall(c, p)) break;
  }
  environment(c, s, p);
  return true;
}

// The same path in a scene with optical turbid media: at every segment a free path in
// the media the ray is in competes with the surface hit (and the tile border). A
// collision scatters on a leaf of the medium's angle distribution, with the medium's
// material; bounding surfaces are crossed without scattering. Sun next-event estimates
// see the media's transmittance, with the hot-spot correlation at the first event; the
// ones of collisions go to the medium slot.
bool trace_medium_path(const PathContext& c, const MediaScene& ms, BackwardThreadScratch& s,
                       int32_t x, int32_t y, int32_t sample) {
  RNG rng = pixel_sample_rng(uint64_t(y) * uint64_t(c.sensor.width) + uint64_t(x),
                             uint64_t(sample));
  PathState p;
  if (!start_path(c, s, rng, x, y, p)) return false;
  ActiveMediumList list, first_order;
  media_at_point(ms, p.origin, p.direction, list);
  first_order = list;
  const FirstOrderPath partner{&first_order, -p.direction};
  bool scattered = false;
  int32_t boundary_crossings = 0;
  // Before the first scattering, the length run in each medium feeds the hot spot.
  auto run_unscattered = [&](float length) {
    if (scattered) return;
    for (int32_t k = 0; k < list.count; ++k) {
      const int32_t j = first_order.find(list.medium_id[k], list.instance_key[k]);
      if (j >= 0) first_order.primary_distance[j] += length;
    }
  };
  auto sun_visibility = [&](const float3& from, RayStart start = RayStart::Surface) {
    return shadow_transmittance(ms, from, c.sun.direction, list,
                                p.order == 1 ? &partner : nullptr, start);
  };
  RayStart start = RayStart::Surface;

  while (p.depth < c.max_depth) {
    // The tile border bounds a free path, and is crossed on a miss; outside every medium
    // a hit is taken as it comes, as in the surface path.
    const Segment seg =
        next_segment(ms, p.origin, p.direction, p.crossings, list.count > 0, start);
    start = RayStart::Surface;
    const EmbreeHit& hit = seg.hit;
    const float bound = seg.bound;

    FreePath fp;
    if (list.count > 0)
      fp = sample_combined_free_path(ms.media, ms.n_media, list.medium_id, list.count,
                                     p.direction, rng.next_float(), 0.0f);
    if (fp.sigma_total > 0.0f && fp.distance < bound) {
      // A collision with a leaf of one of the media.
      run_unscattered(fp.distance);
      scattered = true;
      ++p.order;
      const int32_t slot = select_medium_slot(ms.media, ms.n_media, list.medium_id, list.count,
                                              p.direction, fp.sigma_total, rng.next_float());
      const int32_t medium = list.medium_id[slot];
      if (medium < 0 || size_t(medium) >= ms.n_media) return true;
      const int32_t material = ms.media[medium].material_id;
      if (material < 0 || size_t(material) >= c.n_materials) return true;
      const MaterialData& m = c.materials[material];
      const float3 point = p.origin + fp.distance * p.direction;
      bool back = false;
      float3 frame[3];
      frame[2] = sample_leaf_normal(ms.media[medium].leaf_angle_type, p.direction, rng, back);
      coordinate_system(frame[2], frame[0], frame[1]);
      const float3 wo = to_local(-p.direction, frame[0], frame[1], frame[2]);
      if (c.sif_fields)
        emit_field_sif(c, s, ms.instance_of(list.instance_key[slot]), point, frame[2], p.order,
                       [&] { return c.has_sun ? sun_visibility(point, RayStart::Point) : 0.0; });
      if (c.turbid_thermal &&
          emit_turbid_thermal(c, s, ms.instance_of(list.instance_key[slot]), p.order,
                              [&] { return sun_visibility(point, RayStart::Point); })) {
        // The leaves' conditional temperatures stand in for the material's.
      } else if (c.mode != EMISSION_OPTICAL) {
        EmbreeHit leaf;
        leaf.position = point;
        leaf.geometric_normal = leaf.shading_normal = frame[2];
        leaf.back_face = back;
        emit_at_hit(c, s, leaf, m, p.order);
      }
      if (c.mode == EMISSION_OPTICAL && c.has_sun)
        sun_at_event(c, s, m, frame, wo, back, p.order, backend::SLOT_MEDIUM,
                     [&] { return sun_visibility(point, RayStart::Point); });
      if (!scatter(c, s, rng, m, frame, wo, back, p.depth, p.direction)) return true;
      // The next leg starts at the collision itself: a step along it could carry the
      // path over a bounding surface (or the ground) unseen.
      p.origin = point;
      start = RayStart::Point;
      ++p.depth;
      continue;
    }

    run_unscattered(bound);
    if (seg.at_border) {
      cross_tile(c.rep.scene_x_size, c.rep.scene_y_size, seg.axis, seg.border, p.direction,
                 p.origin);
      ++p.crossings;
      start = RayStart::Wall;
      if (!rescan_after_border(ms, p.origin + MEDIUM_STEP * p.direction, p.direction, list,
                               first_order))
        return true;
      continue;
    }
    if (!hit.hit) break;

    const int32_t medium = ms.medium_of(hit);
    if (medium >= 0) {
      // A bounding surface: enter or leave, and go on unchanged.
      if (++boundary_crossings > MAX_MEDIUM_CROSSINGS ||
          !cross_boundary(ms, hit, medium, p.direction, p.origin, list,
                          scattered ? nullptr : &first_order))
        return true;
      start = RayStart::Boundary;
      continue;
    }

    // An ordinary surface, as in the surface path, seeing the media towards the sun.
    scattered = true;
    if (!surface_event(c, s, rng, p, hit, sun_visibility)) return true;
    media_after_surface(ms, hit.position, p.origin, p.direction, list);
    start = RayStart::Point;
  }
  if (p.depth >= c.max_depth) return true;  // the depth limit ends the path without the sky
  environment(c, s, p);
  return true;
}

}  // namespace

backend::OpticalProductResult render_backward(const EmbreeSceneManager& scene, int spp,
                                              int max_depth, int rr_depth, int threads,
                                              const ProgressFn& progress,
                                              const OpticalProductRequest& request,
                                              int32_t first_row, int32_t num_rows) {
  if (spp < 1) throw std::invalid_argument("spp must be positive");
  validate_optical_scene(scene, scene.num_bands());
  validate_band_wavelengths(scene, scene.num_bands());
  const SensorData& sensor = scene.sensor();
  if (sensor.width < 1 || sensor.height < 1)
    throw std::invalid_argument(
        "the sensor has no pixels: call set_sensor() with a positive width and height first");
  const EmbreeSceneManager::RunGuard read_only(scene);
  max_depth = max_depth_from_env(max_depth, "[CPU bwd]");
  threads = resolve_thread_count(threads);

  if (num_rows < 0) num_rows = sensor.height - first_row;
  if (first_row < 0 || num_rows < 1 || first_row > sensor.height - num_rows)
    throw std::invalid_argument("image rows " + std::to_string(first_row) + " .. +" +
                                std::to_string(num_rows) + " are not rows of the " +
                                std::to_string(sensor.height) + "-row sensor");
  const int32_t width = sensor.width, height = num_rows, end_row = first_row + num_rows;
  const int32_t bands = scene.num_bands();
  {
    // The 64-bit film and its float copy, per image plane, plus each worker's orders.
    const double plane_bytes = double(width) * double(height) * double(bands) * 12.0;
    const double planes = 1.0 + (request.standard_error ? 1.0 : 0.0) +
                          (request.event_aov ? double(backend::EVENT_SLOTS) : 0.0) +
                          (request.scattering_order ? double(request.max_output_order) + 2.0 : 0.0);
    const double scratch = request.scattering_order
                               ? double(threads) * (double(request.max_output_order) + 2.0) *
                                     double(bands) * 8.0
                               : 0.0;
    check_request_memory("simulate_cpu: a " + std::to_string(width) + " x " +
                             std::to_string(height) + " x " + std::to_string(bands) + " image",
                         plane_bytes * planes + scratch);
  }
  const size_t n_prims = scene.n_primitives();
  const auto& temps = scene.primitive_temperatures();
  const auto& sif = scene.primitive_sif_spectra();
  const InstanceSifSourceFields& sif_fields = scene.instance_sif_source_fields();
  if (!sif_fields.empty() && scene.emission_mode() != EMISSION_THERMAL &&
      sif_fields.n_sif_bands != bands)
    throw std::invalid_argument("instance SIF source fields: n_sif_bands is " +
                                std::to_string(sif_fields.n_sif_bands) + ", but the scene renders " +
                                std::to_string(bands) + " bands");

  PathContext c{scene,
                scene.spectral_params().data(),
                scene.materials().data(),
                sensor,
                scene.emitter(),
                scene.sky(),
                scene.repetition(),
                bands,
                max_depth,
                rr_depth,
                scene.emission_mode(),
                scene.terrain_following(),
                scene.max_height(),
                scene.min_height(),
                temps.size() == n_prims && n_prims > 0 ? temps.data() : nullptr,
                // Spectra set before instances were added no longer cover every primitive.
                (scene.n_sif_bands() == bands && sif.size() == size_t(bands) * n_prims && n_prims)
                    ? sif.data() : nullptr,
                n_prims,
                scene.band_wavelengths().data(),
                scene_has_sun(scene),
                request.event_aov,
                request.scattering_order,
                request.scattering_order ? request.max_output_order + 1 : 0,
                scene.materials().size(),
                sif_fields.empty() || scene.emission_mode() == EMISSION_THERMAL ? nullptr
                                                                                : &sif_fields,
                size_t(scene.num_instances()),
                scene.emission_mode() == EMISSION_THERMAL &&
                        scene.instance_turbid_thermal_state().temperature_sunlit.size() ==
                            size_t(scene.num_instances())
                    ? &scene.instance_turbid_thermal_state()
                    : nullptr};
  const bool with_media = scene.has_optical_media();
  const MediaScene media = MediaScene::from(scene);

  OpticalFilm film(request, width, height, bands);
  const size_t plane = film.plane();

  // Samples each worker has finished: O(threads) whatever spp is.
  std::vector<int> finished(size_t(threads), 0);
  std::mutex mutex;
  std::condition_variable cv;
  std::atomic<bool> cancel{false};
  const auto start = std::chrono::steady_clock::now();

  auto worker = [&](int t) {
    BackwardThreadScratch s;
    s.throughput.assign(size_t(bands), 1.0);
    s.radiance.assign(size_t(bands), 0.0);
    if (request.event_aov) s.aov.assign(size_t(backend::EVENT_SLOTS * bands), 0.0);
    if (request.scattering_order)
      s.orders.assign(size_t(film.order_count) * size_t(bands), 0.0);
    for (int sample = 0; sample < spp; ++sample) {
      for (int32_t y = first_row + t; y < end_row; y += threads) {
        if (cancel.load(std::memory_order_relaxed)) return;
        for (int32_t x = 0; x < width; ++x) {
          if ((x & 255) == 255 && cancel.load(std::memory_order_relaxed)) return;
          if (!(with_media ? trace_medium_path(c, media, s, x, y, sample)
                           : trace_surface_path(c, s, x, y, sample)))
            continue;
          const size_t px = size_t(y - first_row) * size_t(width) + size_t(x);
          const size_t base = px * size_t(bands);
          for (int32_t b = 0; b < bands; ++b) {
            const double r = s.radiance[size_t(b)];
            film.sum[base + size_t(b)] += r;
            if (request.standard_error) film.sum_sq[base + size_t(b)] += r * r;
          }
          if (request.event_aov)
            for (int32_t k = 0; k < backend::EVENT_SLOTS; ++k)
              for (int32_t b = 0; b < bands; ++b)
                film.aov[size_t(k) * plane + base + size_t(b)] += s.aov[size_t(k * bands + b)];
          if (request.scattering_order)
            for (int32_t k = 0; k < film.order_count; ++k)
              for (int32_t b = 0; b < bands; ++b)
                film.orders[size_t(k) * plane + base + size_t(b)] +=
                    s.orders[size_t(k) * size_t(bands) + size_t(b)];
        }
      }
      if (progress) {
        // Counted under the mutex so the waiting caller cannot miss the last wake-up.
        { std::lock_guard<std::mutex> lock(mutex); finished[size_t(t)] = sample + 1; }
        cv.notify_one();
      }
    }
  };

  // The calling thread reports each sample pass once every worker has finished it, and
  // wakes up regularly to notice a failed worker or an interrupt.
  std::function<void()> report;
  if (progress) {
    report = [&] {
      for (int s = 0; s < spp; ++s) {
        while (true) {
          {
            std::unique_lock<std::mutex> lock(mutex);
            const bool all = cv.wait_for(lock, std::chrono::milliseconds(INTERRUPT_POLL_MS), [&] {
              return cancel.load() ||
                     *std::min_element(finished.begin(), finished.end()) > s;
            });
            if (cancel.load()) return;
            if (all) break;
          }
          poll_interrupt();
        }
        progress(long(s + 1), long(spp), elapsed_ms(start));
        poll_interrupt();
      }
    };
  }
  run_workers(threads, worker, report, cancel);

  backend::OpticalProductResult r = film.finish(spp);
  r.execution = {BACKEND_EMBREE, WORKFLOW_OPTICAL_BACKWARD, "embree.cpu.optical_backward", true};
  return r;
}

}  // namespace vesk::embree
