// Forward and flux runs shared by the backends: validation, emission bounds, sums to results.
#include "scene/photon_requests.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "core/material.h"
#include "scene/optical_scene.h"

namespace vesk::scene {


EmissionContext EmissionContext::from_scene(const SceneModel& scene, int32_t n_bands,
                                            float prob_sun, double scale) {
  EmissionContext e;
  e.spectral = scene.spectral_params().data();
  e.n_bands = n_bands;
  e.sun = scene.emitter();
  e.sky = scene.sky();
  e.num_repetitions = scene.repetition().num_repetitions;
  e.tile_w = scene.repetition().scene_x_size;
  e.tile_h = scene.repetition().scene_y_size;
  const auto [lo, hi] = scene.aabb();
  e.x_min = lo.x, e.y_min = lo.y, e.z_min = lo.z;
  e.x_max = hi.x, e.y_max = hi.y, e.z_max = hi.z;
  e.plane = scene.measurement_plane_height();
  e.prob_sun = prob_sun;
  e.scale = scale;
  return e;
}

namespace {

// Areas of the faces photons enter by, over the top face, as emit_photon weighs them.
double sun_face_ratio(const EmissionContext& e, float X, float Y, float Z) {
  const float3 s = e.sun.direction;
  const float total = std::fabs(s.z) * X * Y + std::fabs(s.x) * Y * Z + std::fabs(s.y) * X * Z;
  return X * Y > 0.0f ? double(total / (X * Y)) : 0.0;
}
double sky_face_ratio(float X, float Y, float Z) {
  const float top = X * Y, total = top + 2.0f * (Y * Z) + 2.0f * (X * Z);
  return top > 0.0f ? double(total / top) : 0.0;
}

// The largest sky radiance of a band, for the bound: the table's largest entry (its
// interpolation cannot exceed it), or the Hosek-Wilkie model sampled over the sky and
// at its sun, with a margin for the peaks between samples.
double sky_radiance_bound(const EmissionContext& e, int32_t band) {
  const SkySelection& sky = e.sky;
  double m = 0.0;
  if (sky.directional_offset >= 0) {
    const float* t = e.spectral + sky.directional_offset + size_t(band) * 512;
    for (int32_t i = 0; i < 512; ++i) m = std::max(m, double(std::fabs(t[i])));
    return m;
  }
  if (sky.hw_offset >= 0) {
    constexpr int32_t ROWS = 32, COLS = 64;
    auto at = [&](const float3& d) {
      m = std::max(m, double(hosek_wilkie_radiance(sky.hw_offset, e.spectral, d,
                                                   sky.hw_sun_direction, band)));
    };
    at(sky.hw_sun_direction);
    for (int32_t r = 0; r <= ROWS; ++r)
      for (int32_t c = 0; c < COLS; ++c) {
        const float theta = 0.5f * PI * float(r) / float(ROWS), phi = TWO_PI * float(c) / COLS;
        at({std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta)});
      }
    return 4.0 * m;
  }
  if (sky.uniform_offset >= 0) return std::fabs(double(e.spectral[sky.uniform_offset + band]));
  return 0.0;
}

// Forward: the checks of both entries.
void validate(const SceneModel& scene, const ForwardRequest& r) {
  if (r.brf_entry) {
    if (r.num_photons < 1 || r.max_depth < 1)
      throw std::invalid_argument("BRF photon count and maximum depth must be positive");
  } else {
    if (r.nx < 1 || r.ny < 1 || r.num_bands < 1)
      throw std::invalid_argument("forward grid dimensions and band count must be positive");
    if (r.num_photons < 1) throw std::invalid_argument("forward photon count must be positive");
  }
  const std::vector<float>& h = r.layer_heights;
  bool layers_ok = h.size() != 1;
  for (size_t i = 0; i < h.size(); ++i)
    layers_ok &= std::isfinite(h[i]) && (i == 0 || h[i] > h[i - 1]);
  if (!layers_ok)
    throw std::invalid_argument(
        "layer_heights must hold at least two finite, strictly increasing boundaries");
  const int64_t nz = h.empty() ? 1 : int64_t(h.size()) - 1;
  if (int64_t(r.nx) * r.ny * nz * r.num_bands > 2147483647)
    throw std::overflow_error("forward grid element count exceeds signed device index range");
  if (!(r.prob_sun >= 0.0f && r.prob_sun <= 1.0f))
    throw std::invalid_argument("prob_sun must lie in [0, 1]");
  if (r.terrain_instance_id < -1 || r.terrain_instance_id >= scene.num_instances())
    throw std::out_of_range("terrain_instance_id " + std::to_string(r.terrain_instance_id) +
                            " is outside [-1, " + std::to_string(scene.num_instances()) + ")");
  for (const float3& d : r.brf_directions) {
    if (!(dot(d, d) > 0.0f) || !std::isfinite(dot(d, d)))
      throw std::invalid_argument("BRF observation directions must be nonzero");
    if (!(d.z > 0.0f)) throw std::invalid_argument("BRF observation directions must point upward");
  }
  validate_optical_scene(scene, r.num_bands);
}

}  // namespace

double emitted_energy_bound(const EmissionContext& e, int32_t band) {
  // The cases of emit_photon: what it cannot emit needs no room.
  const float3 s = e.sun.direction;
  if (std::fabs(s.z) < 0.01f || e.n_bands < 1) return 0.0;
  const bool repetitive = e.num_repetitions > 0 && e.tile_w > 0.0f && e.tile_h > 0.0f;
  const float X = e.x_max - e.x_min, Y = e.y_max - e.y_min, Z = e.z_max - e.z_min;
  double bound = 0.0;
  if (s.z > 0.0f && e.prob_sun > 0.0f && e.sun.spectral_offset >= 0) {
    const double ratio = repetitive ? double(std::fabs(s.z)) : sun_face_ratio(e, X, Y, Z);
    bound = std::fabs(double(e.spectral[e.sun.spectral_offset + band])) * ratio * e.scale /
            double(e.prob_sun);
  }
  const bool any_sky = e.sky.uniform_offset >= 0 || e.sky.directional_offset >= 0 ||
                       e.sky.hw_offset >= 0;
  if (any_sky && e.prob_sun < 1.0f) {
    const double ratio = repetitive ? 1.0 : sky_face_ratio(X, Y, Z);
    bound = std::max(bound, sky_radiance_bound(e, band) * double(PI) * ratio * e.scale /
                                (1.0 - double(e.prob_sun)));
  }
  return bound;
}

void validate_photon_range(int64_t first, int64_t n, const char* what) {
  if (first < 0 || first % PHOTON_CHUNK != 0)
    throw std::invalid_argument(std::string(what) + ": first_photon must be a non-negative "
                                "multiple of " + std::to_string(PHOTON_CHUNK));
  if (n > std::numeric_limits<int64_t>::max() - first)
    throw std::invalid_argument(std::string(what) +
                                ": first_photon + num_photons must not exceed 2^63 - 1");
}

FluxSetup setup_flux(const SceneModel& scene, const FluxRequest& q, const char* entry) {
  const int32_t nx = q.nx, ny = q.ny, num_bands = q.num_bands;
  if (nx < 1 || ny < 1 || num_bands < 1)
    throw std::invalid_argument("flux grid dimensions and band count must be positive");
  if (int64_t(nx) * ny > 2147483647 || int64_t(nx) * ny * num_bands > 2147483647)
    throw std::overflow_error("flux grid element count exceeds signed device index range");
  if (q.num_photons < 1) throw std::invalid_argument("Embree flux photon count must be positive");
  validate_photon_range(q.first_photon, q.num_photons, entry);
  if (!(q.prob_sun >= 0.0f && q.prob_sun <= 1.0f))
    throw std::invalid_argument("prob_sun must lie in [0, 1]");
  validate_optical_scene(scene, num_bands);

  const Repetition& rep = scene.repetition();
  const bool tile = rep.scene_x_size > 0.0f && rep.scene_y_size > 0.0f;
  FluxSetup s;
  s.W = tile ? rep.scene_x_size : scene.sensor().ortho_width;
  s.H = tile ? rep.scene_y_size : scene.sensor().ortho_height;
  if (!(s.W >= 1.1754944e-38f) || !(s.H >= 1.1754944e-38f) || !std::isfinite(s.W) ||
      !std::isfinite(s.H))
    throw std::invalid_argument("flux scene extent must be at least the minimum normalized float");
  s.emission = EmissionContext::from_scene(scene, num_bands, q.prob_sun,
                                           double(s.W) * double(s.H));
  std::vector<double> bounds(static_cast<size_t>(num_bands));
  for (int32_t b = 0; b < num_bands; ++b) bounds[size_t(b)] = emitted_energy_bound(s.emission, b);
  s.unit_exponents = unit_exponents_for(bounds);
  return s;
}

FluxResult finish_flux_sums(const SceneModel& scene, const FluxRequest& q, const PhotonSums& sums,
                            const char* entry) {
  const FluxSetup setup = setup_flux(scene, q, entry);
  const FluxFields fields(q);
  if (sums.values.size() != fields.total || sums.unit_exponents != setup.unit_exponents)
    throw std::invalid_argument("photon sums of another request or scene cannot finish this one");
  if (sums.first_photon != q.first_photon || sums.photons != q.num_photons)
    throw std::invalid_argument("photon sums must cover the photons of the request");
  FluxResult r;
  r.nx = q.nx, r.ny = q.ny, r.num_bands = q.num_bands, r.decompose = q.decompose;
  const double n = double(q.num_photons);
  auto grid = [&](size_t field) {
    std::vector<float> out(fields.cells);
    for (size_t i = 0; i < fields.cells; ++i) out[i] = float(sums.energy(field + i) / n);
    return out;
  };
  r.downwelling = grid(fields.down);
  r.upwelling = grid(fields.up);
  if (q.decompose) {
    r.downwelling_direct = grid(fields.direct);
    r.downwelling_diffuse = grid(fields.diffuse);
  }
  return r;
}

ForwardFields forward_fields(const SceneModel& scene, const ForwardRequest& r) {
  const bool grids = !r.brf_entry;
  const size_t bands = size_t(r.num_bands);
  const size_t nz = r.layer_heights.empty() ? 1 : r.layer_heights.size() - 1;
  ForwardFields f{};
  f.n_grid = grids ? size_t(r.nx) * size_t(r.ny) * nz * bands : 0;
  f.n_cells = grids && r.terrain_instance_id >= 0 ? size_t(r.nx) * size_t(r.ny) * bands : 0;
  f.n_leaf = r.per_leaf ? scene.n_primitives() * bands : 0;
  f.n_brf = r.brf_directions.size() * bands;
  f.n_columns = grids ? size_t(r.nx) * size_t(r.ny) * bands : 0;
  size_t at = 0;
  auto take = [&](size_t n) { const size_t here = at; at += n; return here; };
  f.grid = take(f.n_grid), f.direct = take(f.n_grid), f.diffuse = take(f.n_grid);
  f.leaf = take(f.n_leaf), f.terrain = take(f.n_cells), f.brf = take(f.n_brf);
  f.incident_cells = take(f.n_columns);
  f.incident = take(bands), f.escaped = take(bands), f.transmitted = take(bands);
  f.outside = take(bands), f.truncated = take(bands);
  f.total = at;
  return f;
}

ForwardSetup setup_forward(const SceneModel& scene, const ForwardRequest& req, const char* entry) {
  validate(scene, req);
  validate_photon_range(req.first_photon, req.num_photons, entry);
  ForwardSetup s;
  // The grid covers the tile of a repeated scene, else the scene box.
  const Repetition& rep = scene.repetition();
  const bool tile = rep.scene_x_size > 0.0f && rep.scene_y_size > 0.0f;
  const auto [lo, hi] = scene.aabb();
  s.gx0 = tile ? 0.0f : lo.x, s.gy0 = tile ? 0.0f : lo.y;
  s.gw = tile ? rep.scene_x_size : hi.x - lo.x, s.gh = tile ? rep.scene_y_size : hi.y - lo.y;
  // Photons start over the tile, or through the faces of the box (scaled to its top).
  const bool repetitive = rep.num_repetitions > 0 && tile;
  s.periodic = repetitive;
  s.entry_z = repetitive ? scene.measurement_plane_height() : hi.z;
  const double area = repetitive ? double(rep.scene_x_size) * double(rep.scene_y_size)
                                 : double(hi.x - lo.x) * double(hi.y - lo.y);
  s.emission = EmissionContext::from_scene(scene, req.num_bands, req.prob_sun, area);
  std::vector<double> bounds(static_cast<size_t>(req.num_bands));
  for (int32_t b = 0; b < req.num_bands; ++b) bounds[size_t(b)] = emitted_energy_bound(s.emission, b);
  s.unit_exponents = unit_exponents_for(bounds);
  for (const float3& d : req.brf_directions) s.dirs.push_back(normalize(d));
  return s;
}

ForwardResult finish_forward_sums(const SceneModel& scene, const ForwardRequest& req,
                                  const PhotonSums& sums, const char* entry) {
  const ForwardSetup setup = setup_forward(scene, req, entry);
  const ForwardFields F = forward_fields(scene, req);
  if (sums.values.size() != F.total || sums.unit_exponents != setup.unit_exponents)
    throw std::invalid_argument("photon sums of another request or scene cannot finish this one");
  if (sums.first_photon != req.first_photon || sums.photons != req.num_photons)
    throw std::invalid_argument("photon sums must cover the photons of the request");
  const int32_t bands = req.num_bands;
  const double n = double(req.num_photons);
  // Totals per photon, in double; outputs are narrowed once from these.
  auto field = [&](size_t at, size_t count) {
    std::vector<double> out(count);
    for (size_t i = 0; i < count; ++i) out[i] = sums.energy(at + i) / n;
    return out;
  };
  auto narrow = [](const std::vector<double>& v) { return std::vector<float>(v.begin(), v.end()); };

  ForwardResult r;
  r.nx = req.nx, r.ny = req.ny, r.bands = bands;
  r.nz = req.layer_heights.empty() ? 1 : int32_t(req.layer_heights.size()) - 1;
  r.n_directions = int32_t(setup.dirs.size());
  r.has_grid = !req.brf_entry;
  r.has_leaf = req.per_leaf;
  r.has_terrain = r.has_grid && req.terrain_instance_id >= 0;
  r.has_brf = !setup.dirs.empty();
  const std::vector<double> incident = field(F.incident, size_t(bands));
  const std::vector<double> escaped = field(F.escaped, size_t(bands));
  if (r.has_grid) {
    r.grid = narrow(field(F.grid, F.n_grid));
    r.grid_direct = narrow(field(F.direct, F.n_grid));
    r.grid_diffuse = narrow(field(F.diffuse, F.n_grid));
    r.incident_grid = narrow(field(F.incident_cells, F.n_columns));
  }
  if (r.has_leaf) r.leaf = narrow(field(F.leaf, F.n_leaf));
  if (r.has_terrain) r.terrain = narrow(field(F.terrain, F.n_cells));
  r.incident = narrow(incident);
  r.escaped = narrow(escaped);
  r.transmitted = narrow(field(F.transmitted, size_t(bands)));
  r.absorbed_outside = narrow(field(F.outside, size_t(bands)));
  r.truncated = narrow(field(F.truncated, size_t(bands)));
  r.albedo.assign(size_t(bands), 0.0f);
  for (int32_t b = 0; b < bands; ++b)
    if (incident[size_t(b)] > 0.0) r.albedo[size_t(b)] = float(escaped[size_t(b)] / incident[size_t(b)]);
  if (r.has_brf) {
    // BRF = pi * (radiant intensity towards v) / (cos(theta_v) * incident power).
    const std::vector<double> acc = field(F.brf, F.n_brf);
    r.brf.assign(acc.size(), 0.0f);
    for (size_t d = 0; d < setup.dirs.size(); ++d)
      for (int32_t b = 0; b < bands; ++b)
        if (incident[size_t(b)] > 0.0)
          r.brf[d * size_t(bands) + size_t(b)] =
              float(3.141592653589793 * acc[d * size_t(bands) + size_t(b)] /
                    (double(setup.dirs[d].z) * incident[size_t(b)]));
  }
  return r;
}

}  // namespace vesk::scene
