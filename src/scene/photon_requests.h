#pragma once
// The forward and flux photon runs as every backend sees them: requests and results,
// their one validator each, the emission set-up, the layout of the exact sums, and the
// step from sums to results. The tracers that fill the sums live with each backend.

#include <cstdint>
#include <vector>

#include "core/exact_sums.h"
#include "core/execution.h"
#include "core/illumination.h"
#include "core/types.h"
#include "scene/scene_model.h"

namespace vesk::scene {

// Everything emission reads, gathered once per run.
struct EmissionContext {
  const float* spectral = nullptr;
  int32_t n_bands = 0;
  Emitter sun;
  SkySelection sky;
  int32_t num_repetitions = 0;
  float tile_w = 0.0f, tile_h = 0.0f;  // W, H
  float x_min = 0, x_max = 0, y_min = 0, y_max = 0, z_min = 0, z_max = 0;  // scene box
  float plane = 0.0f;  // measurement plane height
  float prob_sun = 1.0f;
  // Energy scale: the emitting area. Photon weights are not divided by the photon
  // count: totals are, once, when a run is finished, so that any range of photons
  // adds to the same exact sums.
  double scale = 0.0;

  static EmissionContext from_scene(const SceneModel& scene, int32_t n_bands, float prob_sun,
                                    double scale);
};

// A bound (up to a small factor) on the energy throughput * weight one photon carries
// in a band when emitted, from the sun or the sky: what the exact sums size their unit
// by. It depends on the scene and the request only, never on which photons run.
double emitted_energy_bound(const EmissionContext& e, int32_t band);

// Checks a photon range against the global numbering: a positive count, a first photon
// at a chunk boundary, and an end that stays in int64. `what` names the entry.
void validate_photon_range(int64_t first_photon, int64_t num_photons, const char* what);

// ---- flux ----

struct FluxRequest {
  int32_t nx = 1, ny = 1;
  // Photons first_photon .. first_photon + num_photons - 1 of the global numbering;
  // first_photon is a multiple of PHOTON_CHUNK.
  int64_t num_photons = 0, first_photon = 0;
  int32_t num_bands = 1;
  float prob_sun = 1.0f;
  int32_t max_bounces = 0, max_depth = 16, rr_depth = 3;
  int32_t threads = 0;
  bool decompose = false;
};

// Grids are [ny][nx][num_bands], 32-bit, in energy units (the sun spectrum times area).
struct FluxResult {
  std::vector<float> downwelling, upwelling, downwelling_direct, downwelling_diffuse;
  int32_t nx = 0, ny = 0, num_bands = 0;
  bool decompose = false;
  ExecutionRecord execution;
};

// Where each grid lies in the flat sums: down, up (and direct, diffuse with decompose),
// each [ny][nx][num_bands], one after the other.
struct FluxFields {
  size_t cells, down, up, direct, diffuse, total;
  explicit FluxFields(const FluxRequest& q)
      : cells(size_t(q.nx) * size_t(q.ny) * size_t(q.num_bands)),
        down(0), up(cells), direct(2 * cells), diffuse(3 * cells),
        total((q.decompose ? 4 : 2) * cells) {}
};

// The checked request: the grid's extent (the tile, else the orthographic footprint),
// the emission and the units of the sums.
struct FluxSetup {
  float W, H;
  EmissionContext emission;
  std::vector<int32_t> unit_exponents;
};

// The validator of every flux entry (entry names it in the photon-range message).
FluxSetup setup_flux(const SceneModel& scene, const FluxRequest& q, const char* entry);
// The grids from sums of the request's photons; the execution record is the caller's.
FluxResult finish_flux_sums(const SceneModel& scene, const FluxRequest& q, const PhotonSums& sums,
                            const char* entry);

// ---- forward and BRF ----

struct ForwardRequest {
  int32_t nx = 1, ny = 1;
  // Layer boundaries in z, strictly increasing: layer k spans [h[k], h[k+1]), the top one
  // includes its upper boundary. Empty: one layer of any height.
  std::vector<float> layer_heights;
  // Photons first_photon .. first_photon + num_photons - 1 of the global numbering;
  // first_photon is a multiple of PHOTON_CHUNK.
  int64_t num_photons = 0, first_photon = 0;
  int32_t num_bands = 1;
  bool per_leaf = false;
  std::vector<float3> brf_directions;  // towards the observer, upward; normalised here
  float prob_sun = 1.0f;
  int32_t max_depth = 16;
  int32_t rr_depth = 3;
  int32_t terrain_instance_id = -1;
  int32_t threads = 0;
  bool brf_entry = false;  // the BRF entry: its own checks and texts, no grids
};

// Energies are absolute: the sun spectrum (irradiance at normal incidence) and sky
// radiance times area, per band. Conservation, up to the zero-mean noise of Russian
// roulette: incident = grid + terrain + absorbed_outside + escaped + transmitted + truncated.
struct ForwardResult {
  std::vector<float> grid, grid_direct, grid_diffuse;  // [nz][ny][nx][bands]
  std::vector<float> leaf;                             // [n_primitives][bands]
  std::vector<float> terrain;                          // [ny][nx][bands]
  // What 'incident' brought into each grid column: [ny][nx][bands]. Absorbed over
  // incident per column is the fraction absorbed there (fAPAR in a PAR band).
  std::vector<float> incident_grid;
  std::vector<float> incident, escaped, transmitted, absorbed_outside, truncated, albedo;
  std::vector<float> brf;  // [n_directions][bands]
  int32_t nx = 0, ny = 0, nz = 0, bands = 0, n_directions = 0;
  bool has_grid = false, has_leaf = false, has_terrain = false, has_brf = false;
  ExecutionRecord execution;
};

// Where each field lies in the flat sums; all are band fastest.
struct ForwardFields {
  size_t grid, direct, diffuse, leaf, terrain, brf, incident_cells, incident, escaped,
      transmitted, outside, truncated, total;
  size_t n_grid, n_cells, n_leaf, n_brf, n_columns;
};
ForwardFields forward_fields(const SceneModel& scene, const ForwardRequest& r);

// What trace and finish share: the grid's placement, the emission and the units.
struct ForwardSetup {
  float gx0, gy0, gw, gh;
  bool periodic = false;  // photons of a repeated scene: the grid is its tile
  float entry_z = 0.0f;   // where photons come in: the measurement plane or the box top
  EmissionContext emission;
  std::vector<int32_t> unit_exponents;
  std::vector<float3> dirs;  // normalised
};

// The validator of every forward and BRF entry (entry names it in the photon-range
// message).
ForwardSetup setup_forward(const SceneModel& scene, const ForwardRequest& req, const char* entry);
// The result from sums of the request's photons; the execution record is the caller's.
ForwardResult finish_forward_sums(const SceneModel& scene, const ForwardRequest& req,
                                  const PhotonSums& sums, const char* entry);

}  // namespace vesk::scene
