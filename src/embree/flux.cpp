// Flux grids: downwelling where photons arrive, upwelling where they leave a cell.
#include "embree/flux.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>

#include "core/grid.h"
#include "core/log.h"
#include "core/memory_limit.h"
#include "core/workers.h"
#include "scene/optical_scene.h"
#include "embree/photon.h"

namespace vesk::embree {

using scene::FluxFields;
using scene::FluxSetup;
using scene::setup_flux;

namespace {

// Charges surface events to the cell under them, per the photon's path state.
struct FluxRecorder {
  ChunkSums& g;
  const FluxFields& f;
  int32_t nx, ny, bands, max_bounces;
  float X, Y;
  bool decompose;
  int32_t recorded = 0, last_cell = -1;

  void start() { recorded = 0, last_cell = -1; }
  void entered(const Photon&) {}

  void add_positive(size_t field, int32_t cell, const Photon& p) {
    for (int32_t b = 0; b < bands; ++b) {
      const double e = p.throughput[size_t(b)] * p.weight;
      if (e > 0.0) g.add(field + size_t(cell) * size_t(bands) + size_t(b), e);
    }
  }

  void surface(const Photon& p, const EmbreeHit& hit, const float3*, const float3&) {
    const int32_t cx = grid::world_to_cell(hit.position.x, X, nx);
    const int32_t cy = grid::world_to_cell(hit.position.y, Y, ny);
    if (cx < 0 || cy < 0) {
      last_cell = -1;
      return;
    }
    const int32_t cell = cy * nx + cx;
    if (max_bounces == 0 || recorded < max_bounces) {
      add_positive(f.down, cell, p);
      if (decompose) add_positive(p.is_sun ? f.direct : f.diffuse, cell, p);
      // A bounce inside one cell moves nothing upward.
      if (last_cell >= 0 && cell != last_cell) add_positive(f.up, last_cell, p);
      ++recorded;
    }
    last_cell = cell;
  }
  void scattered(const Photon&, const EmbreeHit&, const std::vector<double>&) {}
  void escaped(const Photon& p, int32_t depth) {
    if (depth > 0 && last_cell >= 0) add_positive(f.up, last_cell, p);
  }
  void lost(const Photon&) {}
};

}  // namespace

PhotonSums trace_flux(const EmbreeSceneManager& scene, const FluxRequest& q,
                      const ProgressFn& progress) {
  const FluxSetup setup = setup_flux(scene, q, "simulate_flux_cpu");
  const EmbreeSceneManager::RunGuard read_only(scene);
  const int32_t max_depth = max_depth_from_env(q.max_depth, "[CPU flux]");
  const int32_t nx = q.nx, ny = q.ny, num_bands = q.num_bands;
  const int32_t threads = resolve_thread_count(q.threads);
  const FluxFields fields(q);
  // Per worker a double, a flag and at worst an index per element; the totals, and
  // the narrowed grids.
  check_request_memory("simulate_flux_cpu: a " + std::to_string(nx) + " x " + std::to_string(ny) +
                           " x " + std::to_string(num_bands) + " grid",
                       double(fields.total) * (17.0 * threads + 20.0));
  log_line("Forward flux (CPU): %lld photons, grid %dx%d, %d bands, max_bounces_record=%d, "
           "%d threads\n",
           static_cast<long long>(q.num_photons), nx, ny, num_bands, q.max_bounces, threads);

  PhotonSums totals;
  totals.values.assign(fields.total, 0);
  totals.unit_exponents = setup.unit_exponents;
  totals.first_photon = q.first_photon;
  totals.photons = q.num_photons;
  std::mutex totals_lock;
  // Per worker scratch, sized once.
  std::vector<ChunkSums> sums(static_cast<size_t>(threads), ChunkSums(fields.total));
  std::vector<Photon> photons(static_cast<size_t>(threads));
  std::vector<std::vector<double>> before(static_cast<size_t>(threads), std::vector<double>(size_t(num_bands)));
  for (Photon& p : photons) p.throughput.assign(size_t(num_bands), 0.0);

  const auto [box_lo, box_hi] = scene.aabb();
  const MediaScene media = MediaScene::from(scene);
  const WalkLimits lim{max_depth, q.rr_depth, num_bands,
                       setup.W,   setup.H,    box_lo,
                       box_hi,    scene.has_optical_media() ? &media : nullptr,
                       scene.materials().size()};
  const float cell_w = setup.W / float(nx), cell_h = setup.H / float(ny);
  const float X = cell_w * float(nx), Y = cell_h * float(ny);
  const MaterialData* materials = scene.materials().data();
  const float* spectral = scene.spectral_params().data();
  const auto start = std::chrono::steady_clock::now();

  run_counted(
      threads, q.first_photon, q.num_photons, PHOTON_ROUND, PHOTON_CHUNK,
      [&](int t, int64_t begin, int64_t end) {
        ChunkSums& chunk = sums[size_t(t)];
        FluxRecorder rec{chunk, fields, nx, ny, num_bands, q.max_bounces, X, Y, q.decompose};
        Photon& p = photons[size_t(t)];
        for (int64_t i = begin; i < end; ++i) {
          RNG rng = photon_rng(uint64_t(i));
          if (!emit_photon(setup.emission, rng, p)) continue;
          rec.start();
          walk_photon(scene, materials, spectral, lim, rng, p, before[size_t(t)], rec);
        }
        chunk.flush(totals, totals_lock);
      },
      progress ? std::function<void(int64_t)>([&](int64_t done) {
        progress(long(done), long(q.num_photons), elapsed_ms(start));
      })
               : nullptr);
  return totals;
}

FluxResult finish_flux(const EmbreeSceneManager& scene, const FluxRequest& q,
                       const PhotonSums& sums) {
  FluxResult r = scene::finish_flux_sums(scene, q, sums, "simulate_flux_cpu");
  r.execution = {BACKEND_EMBREE, WORKFLOW_OPTICAL_FLUX, "embree.cpu.optical_flux", true};
  return r;
}

FluxResult render_flux(const EmbreeSceneManager& scene, const FluxRequest& q,
                       const ProgressFn& progress) {
  return finish_flux(scene, q, trace_flux(scene, q, progress));
}

}  // namespace vesk::embree
