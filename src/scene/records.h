#pragma once
// The plain records of a scene that every backend holds alike: meshes, their instances,
// tile repetition, the emission mode, and the limits the setters hold them to.

#include <cstdint>
#include <vector>

#include "core/types.h"

namespace vesk::scene {

struct Mesh {
  std::vector<float3> vertices;
  std::vector<float3> normals;  // empty, or one per vertex
  std::vector<int3> indices;
  int32_t material_id = 0;
};

struct Instance {
  int32_t mesh_id = -1;
  float transform[12] = {};  // row-major 3x4
  int32_t geometry_id = -1;  // the CPU ray tracer's id once built
};

struct Repetition {
  int32_t num_repetitions = 0;
  float scene_x_size = 0.0f, scene_y_size = 0.0f;
  bool active() const { return num_repetitions > 0 && scene_x_size > 0.0f && scene_y_size > 0.0f; }
};

enum EmissionMode : uint8_t { EMISSION_OPTICAL = 0, EMISSION_THERMAL = 1, EMISSION_SIF_ONLY = 2 };

// Limits of the settings: tile walls a ray may cross, the smallest tile (the tile
// walk steps 1e-3 inside walls), and bands (so per-band index products fit in int32).
constexpr int32_t MAX_REPETITIONS = 100000;
constexpr float MIN_TILE_SIZE = 0.01f;
constexpr int32_t MAX_BANDS = 100000;

}  // namespace vesk::scene
