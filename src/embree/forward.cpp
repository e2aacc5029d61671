// Forward photons: absorption by layer cell, primitive and terrain; escape and BRF.
#include "embree/forward.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <mutex>
#include <stdexcept>
#include <string>

#include "core/grid.h"
#include "core/log.h"
#include "core/memory_limit.h"
#include "core/workers.h"
#include "embree/flux.h"
#include "scene/optical_scene.h"
#include "embree/photon.h"

namespace vesk::embree {
namespace {

// Where each field lies in the flat sums; all are band fastest.
struct ForwardFields {
  size_t grid, direct, diffuse, leaf, terrain, brf, incident_cells, incident, escaped,
      transmitted, outside, truncated, total;
  size_t n_grid, n_cells, n_leaf, n_brf, n_columns;
};

ForwardFields forward_fields(const EmbreeSceneManager& scene, const ForwardRequest& r) {
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

struct ForwardLayout {
  int32_t nx, ny, nz, bands;
  float gx0, gy0, gw, gh;  // grid origin and extent in x, y
  bool periodic;           // photons of a repeated scene: the grid is its tile
  float entry_z;           // where photons come in: the measurement plane or the box top
  const std::vector<float>* layers;
  int32_t terrain_id;
  bool per_leaf;
  const std::vector<float3>* dirs;
  const EmbreeSceneManager* scene;
  const MaterialData* materials;
  const float* spectral;
  const MediaScene* media;  // null without optical turbid media
};

struct ForwardRecorder {
  const ForwardLayout& L;
  const ForwardFields& F;
  ChunkSums& s;
  std::vector<double>& f;  // scratch: the BRDF per band towards one observer

  int32_t layer_of(float z) const {
    const std::vector<float>& h = *L.layers;
    if (h.empty()) return 0;
    if (!(z >= h.front()) || !(z <= h.back())) return -1;
    const auto it = std::upper_bound(h.begin(), h.end(), z);
    const int32_t k = int32_t(it - h.begin()) - 1;
    return std::min(k, L.nz - 1);  // the top boundary belongs to the top layer
  }

  void entered(const Photon& p) {
    for (int32_t b = 0; b < L.bands; ++b)
      s.add(F.incident + size_t(b), p.throughput[size_t(b)] * p.weight);
    if (F.n_columns == 0) return;
    const size_t cell = F.incident_cells + size_t(entry_cell(p)) * size_t(L.bands);
    for (int32_t b = 0; b < L.bands; ++b)
      s.add(cell + size_t(b), p.throughput[size_t(b)] * p.weight);
  }

  // The column a photon comes in by: where it crosses the plane it enters through (it
  // starts 0.1 above), folded into the tile of a repeated scene; a photon that enters a
  // finite scene through a side of its box belongs to the edge column there. Every
  // incident photon has a column, so the cells add up to 'incident'.
  int32_t entry_cell(const Photon& p) const {
    float x = p.origin.x, y = p.origin.y;
    if (p.direction.z < 0.0f && p.origin.z > L.entry_z) {
      const float t = (L.entry_z - p.origin.z) / p.direction.z;
      x += t * p.direction.x;
      y += t * p.direction.y;
    }
    x -= L.gx0, y -= L.gy0;
    auto settle = [&](float c, float size) {
      if (L.periodic) c -= std::floor(c / size) * size;
      return std::min(std::max(c, 0.0f), size);
    };
    const int32_t cx = grid::world_to_cell(settle(x, L.gw), L.gw, L.nx);
    const int32_t cy = grid::world_to_cell(settle(y, L.gh), L.gh, L.ny);
    return std::max(cy, 0) * L.nx + std::max(cx, 0);
  }

  // Local estimate of the BRF: the light this event scatters towards each observer,
  // with the material's own BRDF (by reciprocity f(light, view)), if the way out is clear.
  void surface(const Photon& p, const EmbreeHit& hit, const float3* frame, const float3& wo) {
    if (L.dirs->empty()) return;
    const MaterialData& m = L.materials[hit.material_id];
    for (size_t d = 0; d < L.dirs->size(); ++d) {
      const float3& v = (*L.dirs)[d];
      const float3 vl{dot(v, frame[0]), dot(v, frame[1]), dot(v, frame[2])};
      bool any = false;
      for (int32_t b = 0; b < L.bands; ++b) {
        f[size_t(b)] = evaluate_material(m.type, m.spectral_offset, b, wo, vl, L.spectral, L.bands,
                                 hit.back_face, false);
        any |= f[size_t(b)] > 0.0;
      }
      if (!any) continue;
      // A leaf collision in a medium (no primitive) is on no surface: its ray starts
      // at the point itself.
      const bool leaf_in_medium = L.media && hit.primitive_id < 0;
      const float3 o =
          leaf_in_medium ? hit.position : offset_origin(hit.position, hit.geometric_normal, v);
      double c = std::fabs(vl.z);
      if (L.media) {
        // Through the media towards the observer; at the photon's first event the way
        // out shares leaves with the way in (the hot spot).
        const FirstOrderPath first{&p.first_order, -p.first_direction};
        c *= shadow_transmittance(*L.media, o, v, p.media, p.scattered ? nullptr : &first,
                                  leaf_in_medium ? RayStart::Point : RayStart::Surface);
        if (!(c > 0.0)) continue;
      } else if (L.scene->shadowed_repetitive(o, v)) {
        continue;
      }
      for (int32_t b = 0; b < L.bands; ++b)
        s.add(F.brf + d * size_t(L.bands) + size_t(b),
              p.throughput[size_t(b)] * p.weight * f[size_t(b)] * c);
    }
  }

  // What the event took from the photon is what the surface absorbed.
  void scattered(const Photon& p, const EmbreeHit& hit, const std::vector<double>& before) {
    const int32_t cx = grid::world_to_cell(hit.position.x - L.gx0, L.gw, L.nx);
    const int32_t cy = grid::world_to_cell(hit.position.y - L.gy0, L.gh, L.ny);
    const int32_t cell = (cx < 0 || cy < 0) ? -1 : cy * L.nx + cx;
    const bool terrain = hit.instance_id == L.terrain_id && L.terrain_id >= 0;
    const int32_t layer = terrain ? 0 : layer_of(hit.position.z);
    for (int32_t b = 0; b < L.bands; ++b) {
      const double a = (before[size_t(b)] - p.throughput[size_t(b)]) * p.weight;
      if (L.per_leaf && hit.primitive_id >= 0)
        s.add(F.leaf + size_t(hit.primitive_id) * size_t(L.bands) + size_t(b), a);
      if (cell < 0 || layer < 0) {
        s.add(F.outside + size_t(b), a);
      } else if (terrain) {
        s.add(F.terrain + size_t(cell) * size_t(L.bands) + size_t(b), a);
      } else {
        const size_t i = (size_t(layer) * size_t(L.nx) * size_t(L.ny) + size_t(cell)) *
                             size_t(L.bands) + size_t(b);
        s.add(F.grid + i, a);
        s.add((p.is_sun ? F.direct : F.diffuse) + i, a);
      }
    }
  }

  void escaped(const Photon& p, int32_t) {
    const size_t to = p.direction.z > 0.0f ? F.escaped : F.transmitted;
    for (int32_t b = 0; b < L.bands; ++b) s.add(to + size_t(b), p.throughput[size_t(b)] * p.weight);
  }
  void lost(const Photon& p) {
    for (int32_t b = 0; b < L.bands; ++b)
      s.add(F.truncated + size_t(b), p.throughput[size_t(b)] * p.weight);
  }
};

void validate(const EmbreeSceneManager& scene, const ForwardRequest& r) {
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

// What trace and finish share: the grid's placement, the emission and the units.
struct ForwardSetup {
  float gx0, gy0, gw, gh;
  bool periodic = false;
  float entry_z = 0.0f;
  EmissionContext emission;
  std::vector<int32_t> unit_exponents;
  std::vector<float3> dirs;  // normalised
};

ForwardSetup setup_forward(const EmbreeSceneManager& scene, const ForwardRequest& req) {
  validate(scene, req);
  validate_photon_range(req.first_photon, req.num_photons,
                        req.brf_entry ? "simulate_brf_cpu" : "simulate_forward_cpu");
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

}  // namespace

PhotonSums trace_forward(const EmbreeSceneManager& scene, const ForwardRequest& req,
                         const ProgressFn& progress) {
  const ForwardSetup setup = setup_forward(scene, req);
  const EmbreeSceneManager::RunGuard read_only(scene);
  const int32_t max_depth = max_depth_from_env(req.max_depth, "[CPU fwd]");
  const int32_t threads = resolve_thread_count(req.threads);
  const int32_t bands = req.num_bands;
  const int32_t nz = req.layer_heights.empty() ? 1 : int32_t(req.layer_heights.size()) - 1;
  const ForwardFields fields = forward_fields(scene, req);
  // Per worker a double, a flag and at worst an index per element; the totals, and the
  // narrowed results.
  check_request_memory(
      req.brf_entry ? std::string("simulate_brf_cpu")
                    : "simulate_forward_cpu: a " + std::to_string(req.nx) + " x " +
                          std::to_string(req.ny) + " x " + std::to_string(nz) + " x " +
                          std::to_string(bands) + " grid",
      double(fields.total) * (17.0 * threads + 20.0));
  log_line("Forward fPAR (CPU): %lld photons, grid %dx%dx%d, %d bands, %d threads\n",
           static_cast<long long>(req.num_photons), req.nx, req.ny, nz, bands, threads);

  const MediaScene media = MediaScene::from(scene);
  // Without grids (the BRF entry) no event has a cell, so absorption counts as outside.
  const ForwardLayout layout{req.brf_entry ? 0 : req.nx, req.ny, nz, bands, setup.gx0, setup.gy0,
                             setup.gw, setup.gh, setup.periodic, setup.entry_z, &req.layer_heights, req.terrain_instance_id,
                             req.per_leaf, &setup.dirs, &scene, scene.materials().data(),
                             scene.spectral_params().data(),
                             scene.has_optical_media() ? &media : nullptr};

  PhotonSums totals;
  totals.values.assign(fields.total, 0);
  totals.unit_exponents = setup.unit_exponents;
  totals.first_photon = req.first_photon;
  totals.photons = req.num_photons;
  std::mutex totals_lock;
  std::vector<ChunkSums> sums(static_cast<size_t>(threads), ChunkSums(fields.total));
  std::vector<std::vector<double>> brdf(static_cast<size_t>(threads), std::vector<double>(size_t(bands)));
  std::vector<Photon> photons(static_cast<size_t>(threads));
  for (Photon& p : photons) p.throughput.assign(size_t(bands), 0.0);
  std::vector<std::vector<double>> before(static_cast<size_t>(threads), std::vector<double>(size_t(bands)));
  const Repetition& rep = scene.repetition();
  const auto [lo, hi] = scene.aabb();
  const WalkLimits lim{max_depth, req.rr_depth, bands, rep.scene_x_size, rep.scene_y_size, lo, hi,
                       layout.media, scene.materials().size()};
  const auto start = std::chrono::steady_clock::now();

  run_counted(
      threads, req.first_photon, req.num_photons, PHOTON_ROUND, PHOTON_CHUNK,
      [&](int t, int64_t begin, int64_t end) {
        ChunkSums& chunk = sums[size_t(t)];
        ForwardRecorder rec{layout, fields, chunk, brdf[size_t(t)]};
        Photon& p = photons[size_t(t)];
        for (int64_t i = begin; i < end; ++i) {
          RNG rng = photon_rng(uint64_t(i));
          if (!emit_photon(setup.emission, rng, p)) continue;
          walk_photon(scene, layout.materials, layout.spectral, lim, rng, p, before[size_t(t)],
                      rec);
        }
        chunk.flush(totals, totals_lock);
      },
      progress ? std::function<void(int64_t)>([&](int64_t done) {
        progress(long(done), long(req.num_photons), elapsed_ms(start));
      })
               : nullptr);
  return totals;
}

ForwardResult finish_forward(const EmbreeSceneManager& scene, const ForwardRequest& req,
                             const PhotonSums& sums) {
  const ForwardSetup setup = setup_forward(scene, req);
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
  r.execution = req.brf_entry
                    ? ExecutionRecord{BACKEND_EMBREE, WORKFLOW_OPTICAL_BRF, "embree.cpu.optical_brf", true}
                    : ExecutionRecord{BACKEND_EMBREE, WORKFLOW_OPTICAL_FORWARD,
                                      "embree.cpu.optical_forward", true};
  return r;
}

ForwardResult render_forward(const EmbreeSceneManager& scene, const ForwardRequest& req,
                             const ProgressFn& progress) {
  return finish_forward(scene, req, trace_forward(scene, req, progress));
}

}  // namespace vesk::embree
