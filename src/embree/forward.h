#pragma once
// The forward photon tracer: photons from the sun and sky deposit their absorbed energy
// in layered grid cells, on primitives and on the terrain, and the light they scatter
// towards chosen directions gives the bidirectional reflectance factor (BRF).

#include <cstdint>
#include <vector>

#include "core/exact_sums.h"
#include "core/execution.h"
#include "core/progress.h"
#include "core/types.h"

namespace vesk::embree {

class EmbreeSceneManager;

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

// The exact sums of the request's photons, per band: the grids, leaf, terrain and BRF
// fields the request asks for, then incident, escaped, transmitted, absorbed outside
// and truncated.
PhotonSums trace_forward(const EmbreeSceneManager& scene, const ForwardRequest& request,
                         const ProgressFn& progress);
// The result from sums of the request's photons, which may be the sums of several
// ranges appended in order: the same bits as render_forward. Throws
// std::invalid_argument for sums of another layout, unit or photon range.
ForwardResult finish_forward(const EmbreeSceneManager& scene, const ForwardRequest& request,
                             const PhotonSums& sums);
ForwardResult render_forward(const EmbreeSceneManager& scene, const ForwardRequest& request,
                             const ProgressFn& progress);

}  // namespace vesk::embree
