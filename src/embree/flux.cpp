// Flux grids: downwelling where photons arrive, upwelling where they leave a cell.
#include "embree/flux.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "core/grid.h"
#include "core/log.h"
#include "core/memory_limit.h"
#include "core/workers.h"
#include "embree/optical_scene.h"
#include "embree/photon.h"

namespace vesk::embree {

namespace {

struct FluxGrids {
  std::vector<double> down, up, direct, diffuse;
};

// Charges surface events to the cell under them, per the photon's path state.
struct FluxRecorder {
  FluxGrids& g;
  int32_t nx, ny, bands, max_bounces;
  float X, Y;
  bool decompose;
  int32_t recorded = 0, last_cell = -1;

  void start() { recorded = 0, last_cell = -1; }
  void entered(const Photon&) {}

  void add_positive(std::vector<double>& grid, int32_t cell, const Photon& p) {
    for (int32_t b = 0; b < bands; ++b) {
      const double e = p.throughput[size_t(b)] * p.weight;
      if (e > 0.0) grid[size_t(cell) * size_t(bands) + size_t(b)] += e;
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
      add_positive(g.down, cell, p);
      if (decompose) add_positive(p.is_sun ? g.direct : g.diffuse, cell, p);
      // A bounce inside one cell moves nothing upward.
      if (last_cell >= 0 && cell != last_cell) add_positive(g.up, last_cell, p);
      ++recorded;
    }
    last_cell = cell;
  }
  void scattered(const Photon&, const EmbreeHit&, const std::vector<double>&) {}
  void escaped(const Photon& p, int32_t depth) {
    if (depth > 0 && last_cell >= 0) add_positive(g.up, last_cell, p);
  }
  void lost(const Photon&) {}
};

}  // namespace

FluxResult render_flux(const EmbreeSceneManager& scene, int32_t nx, int32_t ny,
                       int64_t num_photons, int32_t num_bands, float prob_sun,
                       int32_t max_bounces, int32_t max_depth, int32_t rr_depth, int32_t threads,
                       const ProgressFn& progress, bool decompose) {
  if (nx < 1 || ny < 1 || num_bands < 1)
    throw std::invalid_argument("flux grid dimensions and band count must be positive");
  if (int64_t(nx) * ny > 2147483647 || int64_t(nx) * ny * num_bands > 2147483647)
    throw std::overflow_error("flux grid element count exceeds signed device index range");
  if (num_photons < 1) throw std::invalid_argument("Embree flux photon count must be positive");
  if (!(prob_sun >= 0.0f && prob_sun <= 1.0f))
    throw std::invalid_argument("prob_sun must lie in [0, 1]");
  validate_optical_scene(scene, num_bands);
  const EmbreeSceneManager::RunGuard read_only(scene);
  max_depth = max_depth_from_env(max_depth, "[CPU flux]");

  const Repetition& rep = scene.repetition();
  const bool tile = rep.scene_x_size > 0.0f && rep.scene_y_size > 0.0f;
  const float W = tile ? rep.scene_x_size : scene.sensor().ortho_width;
  const float H = tile ? rep.scene_y_size : scene.sensor().ortho_height;
  if (!(W >= 1.1754944e-38f) || !(H >= 1.1754944e-38f) || !std::isfinite(W) || !std::isfinite(H))
    throw std::invalid_argument("flux scene extent must be at least the minimum normalized float");
  const float cell_w = W / float(nx), cell_h = H / float(ny);
  const double scale = (double(W) * double(H)) / double(num_photons);
  threads = resolve_thread_count(threads);
  check_request_memory("simulate_flux_cpu: a " + std::to_string(nx) + " x " + std::to_string(ny) +
                           " x " + std::to_string(num_bands) + " grid",
                       double(nx) * ny * num_bands * 8.0 * (decompose ? 4.0 : 2.0) * (threads + 1));
  log_line("Forward flux (CPU): %lld photons, grid %dx%d, %d bands, max_bounces_record=%d, "
           "%d threads\n",
           static_cast<long long>(num_photons), nx, ny, num_bands, max_bounces, threads);

  const size_t cells = size_t(nx) * size_t(ny) * size_t(num_bands);
  std::vector<FluxGrids> grids(static_cast<size_t>(threads));
  for (FluxGrids& g : grids) {
    g.down.assign(cells, 0.0);
    g.up.assign(cells, 0.0);
    if (decompose) g.direct.assign(cells, 0.0), g.diffuse.assign(cells, 0.0);
  }
  // Per worker scratch, sized once.
  std::vector<Photon> photons(static_cast<size_t>(threads));
  std::vector<std::vector<double>> before(static_cast<size_t>(threads), std::vector<double>(size_t(num_bands)));
  for (Photon& p : photons) p.throughput.assign(size_t(num_bands), 0.0);

  const EmissionContext emission = EmissionContext::from_scene(scene, num_bands, prob_sun, scale);
  const auto [box_lo, box_hi] = scene.aabb();
  const MediaScene media = MediaScene::from(scene);
  const WalkLimits lim{max_depth, rr_depth,   num_bands,
                       W,         H,          box_lo,
                       box_hi,    scene.has_optical_media() ? &media : nullptr,
                       scene.materials().size()};
  const float X = cell_w * float(nx), Y = cell_h * float(ny);
  const MaterialData* materials = scene.materials().data();
  const float* spectral = scene.spectral_params().data();
  const auto start = std::chrono::steady_clock::now();

  run_counted(
      threads, num_photons, PHOTON_ROUND, 256,
      [&](int t, int64_t begin, int64_t end) {
        FluxRecorder rec{grids[size_t(t)], nx, ny, num_bands, max_bounces, X, Y, decompose};
        Photon& p = photons[size_t(t)];
        for (int64_t i = begin; i < end; ++i) {
          RNG rng = photon_rng(uint64_t(i));
          if (!emit_photon(emission, rng, p)) continue;
          rec.start();
          walk_photon(scene, materials, spectral, lim, rng, p, before[size_t(t)], rec);
        }
      },
      progress ? std::function<void(int64_t)>([&](int64_t done) {
        progress(long(done), long(num_photons), elapsed_ms(start));
      })
               : nullptr);

  FluxResult r;
  r.nx = nx, r.ny = ny, r.num_bands = num_bands, r.decompose = decompose;
  auto merge = [&](std::vector<double> FluxGrids::*field) {
    std::vector<float> out(cells);
    for (size_t i = 0; i < cells; ++i) {
      double s = 0.0;
      for (const FluxGrids& g : grids) s += (g.*field)[i];
      out[i] = float(s);
    }
    return out;
  };
  r.downwelling = merge(&FluxGrids::down);
  r.upwelling = merge(&FluxGrids::up);
  if (decompose) {
    r.downwelling_direct = merge(&FluxGrids::direct);
    r.downwelling_diffuse = merge(&FluxGrids::diffuse);
  }
  r.execution = {BACKEND_EMBREE, WORKFLOW_OPTICAL_FLUX, "embree.cpu.optical_flux", true};
  return r;
}

}  // namespace vesk::embree
