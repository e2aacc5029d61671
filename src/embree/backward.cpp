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
#include "core/sensor.h"
#include "core/tile.h"
#include "core/workers.h"
#include "embree/optical_scene.h"
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
};

struct PathState {
  float3 origin, direction;
  int32_t depth = 0, order = 0, crossings = 0;
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

// Moves a camera ray that starts outside the home tile into it: wrap by whole tiles,
// then step to the wall the ray enters through.
void enter_tile(const PathContext& c, PathState& p) {
  const float W = c.rep.scene_x_size, H = c.rep.scene_y_size;
  float3& o = p.origin;
  const float3& d = p.direction;
  float px = o.x, py = o.y;
  if (o.z > c.max_height && d.z < -1e-8f) {
    const float t = (c.max_height - o.z) / d.z;
    px = o.x + t * d.x;
    py = o.y + t * d.y;
  }
  if (px > W) o.x -= float(int(px / W)) * W;
  else if (px < 0.0f) o.x += float(int((W - px) / W)) * W;
  if (py > H) o.y -= float(int(py / H)) * H;
  else if (py < 0.0f) o.y += float(int((H - py) / H)) * H;

  float tx = -1.0f, ty = -1.0f;
  if (o.x > W && d.x < -1e-8f) tx = (W - o.x) / d.x;
  else if (o.x < 0.0f && d.x > 1e-8f) tx = -o.x / d.x;
  if (o.y > H && d.y < -1e-8f) ty = (H - o.y) / d.y;
  else if (o.y < 0.0f && d.y > 1e-8f) ty = -o.y / d.y;
  float step = 0.0f;
  if (tx >= 0.0f && ty >= 0.0f) step = std::max(tx, ty);
  else if (tx >= 0.0f) step = tx;
  else if (ty >= 0.0f) step = ty;
  if (step > 0.0f) {
    o = o + step * d;
    o.x = std::min(std::max(o.x, 0.001f), W - 0.001f);
    o.y = std::min(std::max(o.y, 0.001f), H - 0.001f);
  }
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

// Sun next-event estimation at a hit, in plain optical mode.
void sun_at_hit(const PathContext& c, BackwardThreadScratch& s, const EmbreeHit& hit,
                const MaterialData& m, const float3 frame[3], const float3& wo, int32_t order) {
  const float3& sun_dir = c.sun.direction;
  const float3 sun_local = to_local(sun_dir, frame[0], frame[1], frame[2]);
  // Only a leaf can be lit from behind; a zero cosine carries nothing.
  if (!(sun_local.z > 0.0f || m.type == MaterialType::DiffuseTransmitting)) return;
  if (!(std::fabs(sun_local.z) > 0.0f)) return;
  const float3 so = offset_origin(hit.position, hit.geometric_normal, sun_dir);
  if (c.scene.shadowed_repetitive(so, sun_dir)) return;
  const double cz = std::fabs(sun_local.z);
  for (int32_t k = 0; k < c.bands; ++k) {
    const float f = evaluate_material(m.type, m.spectral_offset, k, wo, sun_local, c.spectral,
                                      c.bands, hit.back_face, false);
    const double e = c.spectral[c.sun.spectral_offset + k];
    contribute(c, s, backend::SLOT_SURFACE, order, k, double(f) * s.throughput[size_t(k)] * e * cz);
  }
}

// Surface events until the path escapes (true) or ends: depth limit, an unusable
// sample, a throughput cut-off or Russian roulette (false).
bool bounce_until_escape(const PathContext& c, BackwardThreadScratch& s, RNG& rng, PathState& p) {
  while (p.depth < c.max_depth) {
    const EmbreeHit hit = c.scene.trace_ray(p.origin, p.direction, 1e-4f, 1e30f);
    if (!hit.hit) return true;
    ++p.order;
    const MaterialData& m = c.materials[hit.material_id];
    float3 frame[3];
    frame[2] = hit.shading_normal;
    coordinate_system(frame[2], frame[0], frame[1]);
    const float3 wo = to_local(-p.direction, frame[0], frame[1], frame[2]);

    if (c.mode != EMISSION_OPTICAL) emit_at_hit(c, s, hit, m, p.order);
    if (c.mode == EMISSION_OPTICAL && c.has_sun) sun_at_hit(c, s, hit, m, frame, wo, p.order);

    // Three draws; the first becomes u.z and the third u.x.
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
                                        hit.back_face, thermal);
      double& tp = s.throughput[size_t(k)];
      tp *= double(f) * double(std::fabs(wi.z)) / double(pdf);
      alive |= tp > double(1e-6f);
      largest = std::max(largest, tp);
    }
    if (!alive) return false;
    if (p.depth >= c.rr_depth) {
      const float q = std::min(0.95f, float(largest));
      if (q <= rng.next_float()) return false;
      for (double& tp : s.throughput) tp /= double(q);
    }
    p.direction = normalize(wi.x * frame[0] + wi.y * frame[1] + wi.z * frame[2]);
    p.origin = offset_origin(hit.position, hit.geometric_normal, p.direction);
    ++p.depth;
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

// One path of one pixel sample into the scratch; false when the pixel yields no ray
// for this sample, and then nothing may reach the film. The medium-aware variant will
// take the same seed, draws and film, and compete a free path in the media with each
// surface hit.
bool trace_surface_path(const PathContext& c, BackwardThreadScratch& s, int32_t x, int32_t y,
                        int32_t sample) {
  RNG rng = pixel_sample_rng(uint64_t(y) * uint64_t(c.sensor.width) + uint64_t(x),
                             uint64_t(sample));
  const float dx = rng.next_float(), dy = rng.next_float();
  PathState p;
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

  while (true) {
    if (!bounce_until_escape(c, s, rng, p)) return true;
    if (!cross_tile_wall(c, p)) break;
  }
  environment(c, s, p);
  return true;
}

}  // namespace

backend::OpticalProductResult render_backward(const EmbreeSceneManager& scene, int spp,
                                              int max_depth, int rr_depth, int threads,
                                              const ProgressFn& progress,
                                              const OpticalProductRequest& request) {
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

  const int32_t width = sensor.width, height = sensor.height;
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
                (!sif.empty() && scene.n_sif_bands() == bands) ? sif.data() : nullptr,
                n_prims,
                scene.band_wavelengths().data(),
                scene_has_sun(scene),
                request.event_aov,
                request.scattering_order,
                request.scattering_order ? request.max_output_order + 1 : 0};

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
      for (int32_t y = t; y < height; y += threads) {
        if (cancel.load(std::memory_order_relaxed)) return;
        for (int32_t x = 0; x < width; ++x) {
          if (!trace_surface_path(c, s, x, y, sample)) continue;
          const size_t px = size_t(y) * size_t(width) + size_t(x);
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
