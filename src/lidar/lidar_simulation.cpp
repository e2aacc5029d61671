#include "lidar/lidar_simulation.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <string>

#include "core/array_check.h"
#include "core/log.h"
#include "core/memory_limit.h"
#include "core/tile.h"
#include "core/workers.h"
#include "embree/media_walk.h"
#include "embree/scene_manager.h"
#include "lidar/waveform.h"

namespace vesk::embree {

namespace {

constexpr float PI_F = 3.1415927f;
constexpr int32_t MAX_MARCH_STEPS = 128;

using lidar::Beam;
using lidar::beam_pattern;
using lidar::bin_count;

// What one worker reuses from pulse to pulse.
struct LidarScratch {
  std::vector<float> raw, extinction, backscatter, sigma, medium_backscatter;
  int32_t first = 0, last = -1;  // the bins of raw that hold something this pulse
  void touch(int32_t bin) { first = std::min(first, bin), last = std::max(last, bin); }
  std::vector<float> points;  // direct mode
};

struct LidarContext {
  const EmbreeSceneManager& scene;
  const LidarRequest& q;
  const MaterialData* materials;
  const float* spectral;
  int32_t bands;  // the scene's: the stride to a two-sided material's back spectrum
  int32_t num_bins;
  Beam beam;
  float tan_half;
  bool media;
  MediaScene ms;
  // Raised when the run must stop (an interrupt, a failed worker): a pulse of a wide
  // beam or a long range gate looks at it between beam samples and along its bins.
  const std::atomic<bool>* cancel = nullptr;
  bool stopping() const { return cancel->load(std::memory_order_relaxed); }
};

float front_reflectance(const LidarContext& c, const MaterialData& m, int32_t w) {
  return c.spectral[m.spectral_offset + w];
}

// A pulse ray in a repeated scene walks the tiles from the home tile: it is moved along
// itself to 1 m above the scene (the range it skips is returned), then by whole tiles,
// so that the walls it crosses are those of the scene's heights only.
float enter_tile(const LidarContext& c, float3& o, const float3& d) {
  const Repetition& rep = c.ms.rep;
  const float top = c.ms.z_hi + 1.0f;
  float skipped = 0.0f;
  if (o.z > top && d.z < 0.0f) {
    skipped = (top - o.z) / d.z;
    o = {o.x + skipped * d.x, o.y + skipped * d.y, top};
  }
  o.x -= std::floor(o.x / rep.scene_x_size) * rep.scene_x_size;
  o.y -= std::floor(o.y / rep.scene_y_size) * rep.scene_y_size;
  return skipped;
}

// The first surface along the ray from o, across the tile walls of a repeated scene;
// range: its distance from o.
EmbreeHit trace_pulse(const LidarContext& c, float3 o, const float3& d, float& range) {
  if (!c.ms.rep.active()) {
    const EmbreeHit hit = c.scene.trace_ray(o, d, SURFACE_T_MIN, 1e30f);
    range = length(hit.position - o);
    return hit;
  }
  range = enter_tile(c, o, d);
  float t_min = SURFACE_T_MIN;
  for (int32_t crossings = 0;; ++crossings) {
    const EmbreeHit hit = c.scene.trace_ray(o, d, t_min, 1e30f);
    float t = 0.0f;
    const int axis = hit.hit ? -1 : c.ms.border_exit(o, d, crossings, t);
    if (axis < 0) {
      range += hit.t;
      return hit;
    }
    cross_tile(c.ms.rep.scene_x_size, c.ms.rep.scene_y_size, axis, t, d, o);
    range += t;
    t_min = 0.0f;  // from a wall: nothing to step off
  }
}

void direct_pulse(const LidarContext& c, int32_t p, LidarScratch& s) {
  const float* o = c.q.pulse_origins + 3 * size_t(p);
  const float* d = c.q.pulse_directions + 3 * size_t(p);
  const float3 origin{o[0], o[1], o[2]}, dir{d[0], d[1], d[2]};
  float dist = 0.0f;
  EmbreeHit hit = trace_pulse(c, origin, dir, dist);
  if (!hit.hit) return;
  // In a repeated scene the point lies where the pulse meets the copy it hit.
  if (c.ms.rep.active())
    hit.position = origin + dist * dir;
  else
    dist = length(hit.position - origin);
  if (dist < c.q.min_range || dist > c.q.max_range) return;
  const float rho = front_reflectance(c, c.materials[hit.material_id], 0);
  const float intensity =
      (std::fabs(dot(dir, hit.geometric_normal)) * rho * c.q.pulse_energy * c.q.sensor_area) /
      (dist * PI_F * dist);
  const float rec[lidar::POINT_FLOATS] = {hit.position.x, hit.position.y, hit.position.z, intensity,
                                          1.0f,           1.0f,           dist,           float(p)};
  s.points.insert(s.points.end(), rec, rec + lidar::POINT_FLOATS);
}

// The surface return of one beam sample at range rng, seen through transmittance T.
void surface_return(const LidarContext& c, LidarScratch& s, float weight, const EmbreeHit& hit,
                    const float3& r, float rng) {
  const LidarRequest& q = c.q;
  if (!(rng >= q.min_range && rng <= q.max_range)) return;
  const int32_t bin = int32_t((rng - q.min_range) / q.range_resolution);
  if (bin < 0 || bin >= c.num_bins) return;
  float T = 1.0f;
  if (c.media) {
    float tau = 0.0f;
    for (int32_t i = 0; i < bin; ++i) tau += s.extinction[size_t(i)] * q.range_resolution;
    tau += 0.5f * s.extinction[size_t(bin)] * q.range_resolution;
    T = std::exp(-std::max(tau, 0.0f));
  }
  const float cosine = std::fabs(dot(r, hit.geometric_normal));
  if (cosine < 1e-6f) return;
  const float e = (weight * q.pulse_energy * (q.sensor_area / (rng * rng)) * cosine) / PI_F;
  const MaterialData& m = c.materials[hit.material_id];
  const int32_t back = m.type == MaterialType::DiffuseTransmitting && hit.back_face ? c.bands : 0;
  for (int32_t w = 0; w < q.num_wavelengths; ++w) {
    const float value = c.spectral[m.spectral_offset + back + w] * e * T;
    if (value > 0.0f) {
      s.raw[size_t(bin) * size_t(q.num_wavelengths) + size_t(w)] += value;
      s.touch(bin);
    }
  }
}

// The active media's extinction and backscatter over the bins whose centres lie in [a, b).
void deposit(const LidarContext& c, LidarScratch& s, const ActiveMediumList& active, float a,
             float b) {
  if (active.count == 0) return;
  const LidarRequest& q = c.q;
  const int32_t b0 = std::max(0, int32_t(std::ceil((a - q.min_range) / q.range_resolution - 0.5f)));
  const int32_t b1 = std::min(
      c.num_bins - 1, int32_t(std::ceil((b - q.min_range) / q.range_resolution - 0.5f)) - 1);
  const size_t W = size_t(q.num_wavelengths);
  for (int32_t k = 0; k < active.count; ++k) {
    const int32_t m = active.medium_id[k];
    const float sigma = s.sigma[size_t(m)];
    if (!(sigma > 0.0f)) continue;
    for (int32_t i = b0; i <= b1; ++i) {
      s.extinction[size_t(i)] += sigma;
      for (size_t w = 0; w < W; ++w)
        s.backscatter[size_t(i) * W + w] += s.medium_backscatter[size_t(m) * W + w];
    }
  }
}

// One beam sample through the media: the march deposits extinction and backscatter bin
// by bin and stops at the first ordinary surface, then the volume returns follow.
void media_sample(const LidarContext& c, LidarScratch& s, float weight, const float3& origin,
                  const float3& r) {
  const LidarRequest& q = c.q;
  const size_t W = size_t(q.num_wavelengths);
  std::fill(s.extinction.begin(), s.extinction.end(), 0.0f);
  std::fill(s.backscatter.begin(), s.backscatter.end(), 0.0f);
  std::fill(s.medium_backscatter.begin(), s.medium_backscatter.end(), 0.0f);
  // Extinction for this direction, and leaf backscatter by the angular factor of each
  // leaf angle distribution.
  const float cz = std::min(std::fabs(r.z), 1.0f), c2 = cz * cz;
  for (size_t m = 0; m < c.ms.n_media; ++m) {
    const OpticalTurbidMediumData& md = c.ms.media[m];
    s.sigma[m] = projection_g(md, r) * md.leaf_area_density;
    if (!(s.sigma[m] > 0.0f)) continue;
    const float factor = md.leaf_angle_type == LAD_SPHERICAL     ? 0.33333334f
                         : md.leaf_angle_type == LAD_PLANOPHILE  ? c2 * 0.625f + 0.125f
                         : md.leaf_angle_type == LAD_ERECTOPHILE ? 0.375f - c2 * 0.125f
                                                                 : c2 * 0.25f + 0.25f;
    if (md.material_id < 0 || size_t(md.material_id) >= c.scene.materials().size()) continue;
    const MaterialData& mat = c.materials[md.material_id];
    const float q_leaf = factor * md.leaf_area_density * 0.5f;
    const int32_t back = mat.type == MaterialType::DiffuseTransmitting ? c.bands : 0;
    for (size_t w = 0; w < W; ++w)
      s.medium_backscatter[m * W + w] = ((c.spectral[mat.spectral_offset + int32_t(w)] +
                                          c.spectral[mat.spectral_offset + back + int32_t(w)]) *
                                         q_leaf) /
                                        PI_F;
  }

  ActiveMediumList active;
  float3 p = origin;
  float travelled = c.ms.rep.active() ? enter_tile(c, p, r) : 0.0f;
  media_at_point(c.ms, p, r, active);
  // In a repeated scene the march crosses tile walls as the other media walks do, and a
  // layer whose sides lie on the walls goes on across them.
  RayStart from = RayStart::Surface;
  int32_t crossings = 0;
  for (int32_t steps = MAX_MARCH_STEPS; steps > 0; --steps) {
    const Segment seg = next_segment(c.ms, p, r, crossings, active.count > 0, from);
    from = RayStart::Surface;
    const EmbreeHit& hit = seg.hit;
    if (!hit.hit && !seg.at_border) break;
    const float end = (seg.at_border ? seg.border : hit.t) + travelled,
                start = std::fmax(q.min_range, travelled);
    if (end > q.max_range) {
      if (start < q.max_range) deposit(c, s, active, start, q.max_range);
      break;
    }
    const float clipped = std::fmin(q.max_range, end);
    if (start < clipped) deposit(c, s, active, start, clipped);
    if (seg.at_border) {
      cross_tile(c.ms.rep.scene_x_size, c.ms.rep.scene_y_size, seg.axis, seg.border, r, p);
      ++crossings;
      travelled = end;
      media_at_point(c.ms, p + MEDIUM_STEP * r, r, active);
      from = RayStart::Wall;
      continue;
    }
    const int32_t medium = c.ms.medium_of(hit);
    if (medium < 0) {
      surface_return(c, s, weight, hit, r, end);
      break;
    }
    if (!cross_boundary(c.ms, hit, medium, r, p, active, nullptr)) break;
    travelled = hit.t + travelled;
    from = RayStart::Boundary;
  }

  // Single scattering by the leaves of each bin, attenuated on the way out only.
  float C = 0.0f;
  for (int32_t i = 0; i < c.num_bins; ++i) {
    if ((i & 0xfffff) == 0xfffff && c.stopping()) return;
    const float e_i = s.extinction[size_t(i)];
    const float C_prev = C;
    C = C + q.range_resolution * e_i;
    if (!(e_i > 0.0f)) continue;
    const float r_i = std::max(1e-6f, (float(i) + 0.5f) * q.range_resolution + q.min_range);
    const float T = std::exp(-(0.5f * e_i * q.range_resolution + C_prev));
    const float g =
        (weight * q.pulse_energy * q.sensor_area * q.range_resolution * T) / (r_i * r_i);
    if (!(g > 0.0f)) continue;
    for (size_t w = 0; w < W; ++w) {
      const float bs = s.backscatter[size_t(i) * W + w];
      if (bs > 0.0f) {
        s.raw[size_t(i) * W + w] += bs * g;
        s.touch(i);
      }
    }
  }
}

// Traces one pulse into its slab of the waveform (zero beforehand) and returns the
// bins it occupies; raw is left all zero for the next pulse.
void waveform_pulse(const LidarContext& c, int32_t p, LidarScratch& s, float* slab,
                    int32_t* range) {
  const float* o = c.q.pulse_origins + 3 * size_t(p);
  const float* dp = c.q.pulse_directions + 3 * size_t(p);
  const float3 origin{o[0], o[1], o[2]}, d{dp[0], dp[1], dp[2]};
  float3 u;
  if (std::fabs(d.x) <= std::fabs(d.y))
    u = (1.0f / std::sqrt(d.y * d.y + d.z * d.z)) * float3{0.0f, d.z, -d.y};
  else
    u = (1.0f / std::sqrt(d.z * d.z + d.x * d.x)) * float3{d.z, 0.0f, -d.x};
  const float3 v{u.y * d.z - u.z * d.y, u.z * d.x - u.x * d.z, u.x * d.y - u.y * d.x};
  s.first = c.num_bins, s.last = -1;
  for (size_t k = 0; k < c.beam.weights.size(); ++k) {
    if (c.stopping()) break;
    const float a = c.beam.xy[2 * k] * c.tan_half, b = c.beam.xy[2 * k + 1] * c.tan_half;
    const float sc = 1.0f / std::sqrt(a * a + b * b + 1.0f);
    const float3 r = normalize((b * sc) * u + (a * sc) * v + sc * d);
    const float w = c.beam.weights[k];
    if (c.media) {
      media_sample(c, s, w, origin, r);
      continue;
    }
    float range = 0.0f;
    const EmbreeHit hit = trace_pulse(c, origin, r, range);
    if (hit.hit) surface_return(c, s, w, hit, r, range);
  }
  range[0] = s.first, range[1] = s.last;
  if (s.last < s.first) return;
  const size_t W = size_t(c.q.num_wavelengths);
  const auto lo = s.raw.begin() + long(size_t(s.first) * W),
             hi = s.raw.begin() + long(size_t(s.last + 1) * W);
  std::copy(lo, hi, slab + size_t(s.first) * W);
  std::fill(lo, hi, 0.0f);
}

}  // namespace

LidarResult simulate_lidar(const EmbreeSceneManager& scene, const LidarRequest& q,
                           const ProgressFn& progress) {
  validate_lidar_request(scene, q);
  const EmbreeSceneManager::RunGuard read_only(scene);
  const auto start = std::chrono::steady_clock::now();
  std::atomic<bool> cancel{false};
  LidarContext c{scene,
                 q,
                 scene.materials().data(),
                 scene.spectral_params().data(),
                 scene.num_bands(),
                 bin_count(q),
                 beam_pattern(q.beam_samples_per_dim),
                 std::tan(q.beam_half_angle_rad),
                 scene.has_optical_media(),
                 MediaScene::from(scene),
                 &cancel};
  const int threads = resolve_thread_count(q.num_threads);
  log_line("LiDAR (CPU): %d pulses, %d beam samples, %s mode, %d threads\n", q.num_pulses,
           q.direct_mode ? 1 : int(c.beam.weights.size()), q.direct_mode ? "direct" : "waveform",
           threads);

  LidarResult r;
  r.num_bins = c.num_bins;
  const size_t slab = size_t(c.num_bins) * size_t(q.num_wavelengths);
  if (!q.direct_mode) r.waveform.assign(slab * size_t(std::max(q.num_pulses, 0)), 0.0f);
  std::vector<LidarScratch> scratch(static_cast<size_t>(threads));
  for (LidarScratch& s : scratch) {
    if (q.direct_mode) continue;
    s.raw.assign(slab, 0.0f);
    if (c.media) {
      s.extinction.assign(size_t(c.num_bins), 0.0f);
      s.backscatter.assign(slab, 0.0f);
      s.sigma.assign(c.ms.n_media, 0.0f);
      s.medium_backscatter.assign(c.ms.n_media * size_t(q.num_wavelengths), 0.0f);
    }
  }
  std::vector<int32_t> ranges(q.direct_mode ? 0 : 2 * size_t(std::max(q.num_pulses, 0)));
  std::atomic<int64_t> next{0};
  run_workers(
      threads,
      [&](int t) {
        LidarScratch& s = scratch[size_t(t)];
        while (!cancel.load(std::memory_order_relaxed)) {
          const int64_t p = next.fetch_add(1);
          if (p >= q.num_pulses) return;
          if (q.direct_mode)
            direct_pulse(c, int32_t(p), s);
          else
            waveform_pulse(c, int32_t(p), s, r.waveform.data() + size_t(p) * slab,
                           ranges.data() + 2 * size_t(p));
        }
      },
      {}, cancel);

  if (q.direct_mode) {
    for (const LidarScratch& s : scratch)
      r.points.insert(r.points.end(), s.points.begin(), s.points.end());
    r.num_returns = int32_t(r.points.size() / lidar::POINT_FLOATS);
  } else {
    lidar::finish_waveforms(q, ranges, r);
  }
  if (progress) progress(long(q.num_pulses), long(q.num_pulses), elapsed_ms(start));
  r.execution = q.direct_mode ? ExecutionRecord{BACKEND_EMBREE, WORKFLOW_LIDAR_POINT_CLOUD,
                                                "embree.cpu.lidar_point_cloud", true}
                              : ExecutionRecord{BACKEND_EMBREE, WORKFLOW_LIDAR_WAVEFORM,
                                                "embree.cpu.lidar_waveform", true};
  return r;
}

}  // namespace vesk::embree
