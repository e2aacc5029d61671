#pragma once
// The checks every scene class runs in its setters, so that the CPU and GPU scenes refuse
// the same input with the same words, before anything is stored.

#include <cstdint>
#include <vector>

#include "core/types.h"

namespace vesk {

// add_mesh: at least one vertex and one triangle, normals empty or one per vertex,
// indices inside the vertex buffer, finite coordinates within range.
void check_mesh(const std::vector<float3>& vertices, const std::vector<float3>& normals,
                const std::vector<int3>& indices);
// add_instance(mesh, x, y, z, scale): coordinates within range and a non-zero scale.
void check_instance_placement(float x, float y, float z, float scale);
// -1 (absent) or an index into the spectral buffer; whether the block fits is checked
// when a simulation starts, since the buffer may be uploaded later.
void check_spectral_offset(const char* name, int32_t offset);
// Towards the sun, made unit length (in double, so huge components do not overflow); a
// zero vector stays zero and means no sun.
float3 unit_direction(const char* name, float3 d);
void check_num_bands(int32_t n, int32_t max_bands);
// Repetitions within [0, max_repetitions], tile sizes 0 or within [min_tile, 1e9].
void check_repetition(int32_t num_repetitions, float scene_x_size, float scene_y_size,
                      int32_t max_repetitions, float min_tile);
void check_sensor(const SensorData& sensor);

}  // namespace vesk
