// Forward photons: absorption by layer cell, primitive and terrain; escape and BRF.
#include "embree/forward.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <string>

#include "core/grid.h"
#include "core/log.h"
#include "core/memory_limit.h"
#include "core/workers.h"
#include "embree/flux.h"
#include "embree/optical_scene.h"
#include "embree/photon.h"

namespace vesk::embree {
namespace {

// One worker's 64-bit sums; merged in worker order after the run.
struct ForwardSums {
  std::vector<double> grid, direct, diffuse, leaf, terrain, brf, incident_cells;
  std::vector<double> incident, escaped, transmitted, outside, truncated;
  std::vector<double> f;  // scratch: the BRDF per band towards one observer
};

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
  ForwardSums& s;

  int32_t layer_of(float z) const {
    const std::vector<float>& h = *L.layers;
    if (h.empty()) return 0;
    if (!(z >= h.front()) || !(z <= h.back())) return -1;
    const auto it = std::upper_bound(h.begin(), h.end(), z);
    const int32_t k = int32_t(it - h.begin()) - 1;
    return std::min(k, L.nz - 1);  // the top boundary belongs to the top layer
  }

  void entered(const Photon& p) {
    for (int32_t b = 0; b < L.bands; ++b) s.incident[size_t(b)] += p.throughput[size_t(b)] * p.weight;
    if (s.incident_cells.empty()) return;
    double* cell = &s.incident_cells[size_t(entry_cell(p)) * size_t(L.bands)];
    for (int32_t b = 0; b < L.bands; ++b) cell[b] += p.throughput[size_t(b)] * p.weight;
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
      std::vector<double>& f = s.f;
      bool any = false;
      for (int32_t b = 0; b < L.bands; ++b) {
        f[size_t(b)] = evaluate_material(m.type, m.spectral_offset, b, wo, vl, L.spectral, L.bands,
                                 hit.back_face, false);
        any |= f[size_t(b)] > 0.0;
      }
      if (!any) continue;
      const float3 o = offset_origin(hit.position, hit.geometric_normal, v);
      double c = std::fabs(vl.z);
      if (L.media) {
        // Through the media towards the observer; at the photon's first event the way
        // out shares leaves with the way in (the hot spot).
        const FirstOrderPath first{&p.first_order, -p.first_direction};
        c *= shadow_transmittance(*L.media, o, v, p.media, p.scattered ? nullptr : &first);
        if (!(c > 0.0)) continue;
      } else if (L.scene->shadowed_repetitive(o, v)) {
        continue;
      }
      for (int32_t b = 0; b < L.bands; ++b)
        s.brf[d * size_t(L.bands) + size_t(b)] += p.throughput[size_t(b)] * p.weight * f[size_t(b)] * c;
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
        s.leaf[size_t(hit.primitive_id) * size_t(L.bands) + size_t(b)] += a;
      if (cell < 0 || layer < 0) {
        s.outside[size_t(b)] += a;
      } else if (terrain) {
        s.terrain[size_t(cell) * size_t(L.bands) + size_t(b)] += a;
      } else {
        const size_t i = (size_t(layer) * size_t(L.nx) * size_t(L.ny) + size_t(cell)) *
                             size_t(L.bands) + size_t(b);
        s.grid[i] += a;
        (p.is_sun ? s.direct : s.diffuse)[i] += a;
      }
    }
  }

  void escaped(const Photon& p, int32_t) {
    std::vector<double>& to = p.direction.z > 0.0f ? s.escaped : s.transmitted;
    for (int32_t b = 0; b < L.bands; ++b) to[size_t(b)] += p.throughput[size_t(b)] * p.weight;
  }
  void lost(const Photon& p) {
    for (int32_t b = 0; b < L.bands; ++b)
      s.truncated[size_t(b)] += p.throughput[size_t(b)] * p.weight;
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

}  // namespace

ForwardResult render_forward(const EmbreeSceneManager& scene, const ForwardRequest& req,
                             const ProgressFn& progress) {
  validate(scene, req);
  const EmbreeSceneManager::RunGuard read_only(scene);
  const int32_t max_depth = max_depth_from_env(req.max_depth, "[CPU fwd]");
  const int32_t threads = resolve_thread_count(req.threads);
  const int32_t bands = req.num_bands;
  const int32_t nz = req.layer_heights.empty() ? 1 : int32_t(req.layer_heights.size()) - 1;
  {
    // Per worker: three 64-bit grids, the terrain and incident cells, the per-primitive
    // sums and the BRF sums; then the merged and narrowed copies.
    const double grid = req.brf_entry ? 0.0 : double(req.nx) * req.ny * nz * bands;
    const double cells = req.brf_entry || req.terrain_instance_id < 0
                             ? 0.0 : double(req.nx) * req.ny * bands;
    const double leaf = req.per_leaf ? double(scene.n_primitives()) * bands : 0.0;
    const double brf = double(req.brf_directions.size()) * bands;
    const double incident = req.brf_entry ? 0.0 : double(req.nx) * req.ny * bands;
    const double per_worker = 8.0 * (3.0 * grid + cells + incident + leaf + brf);
    check_request_memory(
        req.brf_entry ? std::string("simulate_brf_cpu")
                      : "simulate_forward_cpu: a " + std::to_string(req.nx) + " x " +
                            std::to_string(req.ny) + " x " + std::to_string(nz) + " x " +
                            std::to_string(bands) + " grid",
        per_worker * (threads + 2));
  }
  log_line("Forward fPAR (CPU): %lld photons, grid %dx%dx%d, %d bands, %d threads\n",
           static_cast<long long>(req.num_photons), req.nx, req.ny, nz, bands, threads);

  // The grid covers the tile of a repeated scene, else the scene box.
  const Repetition& rep = scene.repetition();
  const bool tile = rep.scene_x_size > 0.0f && rep.scene_y_size > 0.0f;
  const auto [lo, hi] = scene.aabb();
  const float gx0 = tile ? 0.0f : lo.x, gy0 = tile ? 0.0f : lo.y;
  const float gw = tile ? rep.scene_x_size : hi.x - lo.x, gh = tile ? rep.scene_y_size : hi.y - lo.y;
  // Photons start over the tile, or through the faces of the box (scaled to its top).
  const bool repetitive = rep.num_repetitions > 0 && tile;
  const double area = repetitive ? double(rep.scene_x_size) * double(rep.scene_y_size)
                                 : double(hi.x - lo.x) * double(hi.y - lo.y);
  const EmissionContext emission =
      EmissionContext::from_scene(scene, bands, req.prob_sun, area / double(req.num_photons));

  const MediaScene media = MediaScene::from(scene);
  std::vector<float3> dirs;
  for (const float3& d : req.brf_directions) dirs.push_back(normalize(d));
  const bool grids = !req.brf_entry;
  // Without grids (the BRF entry) no event has a cell, so absorption counts as outside.
  const ForwardLayout layout{grids ? req.nx : 0, req.ny, nz, bands, gx0, gy0, gw, gh, repetitive,
                             repetitive ? scene.measurement_plane_height() : hi.z,
                             &req.layer_heights, req.terrain_instance_id, req.per_leaf, &dirs,
                             &scene, scene.materials().data(), scene.spectral_params().data(),
                             scene.has_optical_media() ? &media : nullptr};
  const size_t n_grid = size_t(req.nx) * size_t(req.ny) * size_t(nz) * size_t(bands);
  const size_t n_cells = size_t(req.nx) * size_t(req.ny) * size_t(bands);
  const size_t n_leaf = req.per_leaf ? scene.n_primitives() * size_t(bands) : 0;

  std::vector<ForwardSums> sums(static_cast<size_t>(threads));
  for (ForwardSums& s : sums) {
    if (grids) s.grid.assign(n_grid, 0.0), s.direct.assign(n_grid, 0.0), s.diffuse.assign(n_grid, 0.0);
    s.leaf.assign(n_leaf, 0.0);
    if (req.terrain_instance_id >= 0 && grids) s.terrain.assign(n_cells, 0.0);
    if (grids) s.incident_cells.assign(n_cells, 0.0);
    s.brf.assign(dirs.size() * size_t(bands), 0.0);
    s.f.assign(size_t(bands), 0.0);
    for (auto* v : {&s.incident, &s.escaped, &s.transmitted, &s.outside, &s.truncated})
      v->assign(size_t(bands), 0.0);
  }
  std::vector<Photon> photons(static_cast<size_t>(threads));
  for (Photon& p : photons) p.throughput.assign(size_t(bands), 0.0);
  std::vector<std::vector<double>> before(static_cast<size_t>(threads), std::vector<double>(size_t(bands)));
  const WalkLimits lim{max_depth, req.rr_depth, bands, rep.scene_x_size, rep.scene_y_size, lo, hi,
                       layout.media, scene.materials().size()};
  const auto start = std::chrono::steady_clock::now();

  run_counted(
      threads, req.num_photons, PHOTON_ROUND, 256,
      [&](int t, int64_t begin, int64_t end) {
        ForwardRecorder rec{layout, sums[size_t(t)]};
        Photon& p = photons[size_t(t)];
        for (int64_t i = begin; i < end; ++i) {
          RNG rng = photon_rng(uint64_t(i));
          if (!emit_photon(emission, rng, p)) continue;
          walk_photon(scene, layout.materials, layout.spectral, lim, rng, p, before[size_t(t)],
                      rec);
        }
      },
      progress ? std::function<void(int64_t)>([&](int64_t done) {
        progress(long(done), long(req.num_photons), elapsed_ms(start));
      })
               : nullptr);

  auto merge = [&](std::vector<double> ForwardSums::*field) {
    std::vector<double> total((sums[0].*field).size(), 0.0);
    for (const ForwardSums& s : sums)
      for (size_t i = 0; i < total.size(); ++i) total[i] += (s.*field)[i];
    return total;
  };
  auto narrow = [](const std::vector<double>& v) { return std::vector<float>(v.begin(), v.end()); };

  ForwardResult r;
  r.nx = req.nx, r.ny = req.ny, r.nz = nz, r.bands = bands, r.n_directions = int32_t(dirs.size());
  r.has_grid = grids;
  r.has_leaf = req.per_leaf;
  r.has_terrain = grids && req.terrain_instance_id >= 0;
  r.has_brf = !dirs.empty();
  const std::vector<double> incident = merge(&ForwardSums::incident);
  const std::vector<double> escaped = merge(&ForwardSums::escaped);
  if (r.has_grid) {
    r.grid = narrow(merge(&ForwardSums::grid));
    r.grid_direct = narrow(merge(&ForwardSums::direct));
    r.grid_diffuse = narrow(merge(&ForwardSums::diffuse));
    r.incident_grid = narrow(merge(&ForwardSums::incident_cells));
  }
  if (r.has_leaf) r.leaf = narrow(merge(&ForwardSums::leaf));
  if (r.has_terrain) r.terrain = narrow(merge(&ForwardSums::terrain));
  r.incident = narrow(incident);
  r.escaped = narrow(escaped);
  r.transmitted = narrow(merge(&ForwardSums::transmitted));
  r.absorbed_outside = narrow(merge(&ForwardSums::outside));
  r.truncated = narrow(merge(&ForwardSums::truncated));
  r.albedo.assign(size_t(bands), 0.0f);
  for (int32_t b = 0; b < bands; ++b)
    if (incident[size_t(b)] > 0.0) r.albedo[size_t(b)] = float(escaped[size_t(b)] / incident[size_t(b)]);
  if (r.has_brf) {
    // BRF = pi * (radiant intensity towards v) / (cos(theta_v) * incident power).
    const std::vector<double> acc = merge(&ForwardSums::brf);
    r.brf.assign(acc.size(), 0.0f);
    for (size_t d = 0; d < dirs.size(); ++d)
      for (int32_t b = 0; b < bands; ++b)
        if (incident[size_t(b)] > 0.0)
          r.brf[d * size_t(bands) + size_t(b)] =
              float(3.141592653589793 * acc[d * size_t(bands) + size_t(b)] /
                    (double(dirs[d].z) * incident[size_t(b)]));
  }
  r.execution = req.brf_entry
                    ? ExecutionRecord{BACKEND_EMBREE, WORKFLOW_OPTICAL_BRF, "embree.cpu.optical_brf", true}
                    : ExecutionRecord{BACKEND_EMBREE, WORKFLOW_OPTICAL_FORWARD,
                                      "embree.cpu.optical_forward", true};
  return r;
}

}  // namespace vesk::embree
