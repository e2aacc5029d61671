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

using scene::ForwardFields;
using scene::ForwardSetup;
using scene::forward_fields;
using scene::setup_forward;

namespace {

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

}  // namespace

PhotonSums trace_forward(const EmbreeSceneManager& scene, const ForwardRequest& req,
                         const ProgressFn& progress) {
  const ForwardSetup setup =
      setup_forward(scene, req, req.brf_entry ? "simulate_brf_cpu" : "simulate_forward_cpu");
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
  ForwardResult r = scene::finish_forward_sums(
      scene, req, sums, req.brf_entry ? "simulate_brf_cpu" : "simulate_forward_cpu");
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
