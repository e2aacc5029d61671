#pragma once
// Optical turbid media on the device: the records media.glsl reads (the scene's medium
// table with the CPU's G rows, the media box, the neighbouring copies that reach into a
// repeated tile, and the medium of each material), and the instance masks that let the
// programs query media boundaries apart from ordinary surfaces.

#include <cstdint>
#include <vector>

#include "core/optical_media.h"
#include "scene/scene_model.h"

namespace vesk::vulkan {

// Instance masks of the top-level structure (MASK_* in scene.glsl).
constexpr uint8_t MASK_SURFACE = 0x01, MASK_MEDIUM_BOUNDARY = 0x02;

// One mask per instance, from the medium of its material as the scene stands.
std::vector<uint8_t> media_instance_masks(const scene::SceneModel& scene);

// media.glsl's MediaHeader (std430: 4-byte scalars, then vec4 rows; 448 bytes).
struct DeviceMediaHeader {
  int32_t n_media, n_ghosts, num_repetitions, n_material_ids;
  float tile_w, tile_h, z_lo, z_hi;
  float media_lo[4], media_hi[4];
  float ghost_offset[8][4], ghost_lo[8][4], ghost_hi[8][4];
};
static_assert(sizeof(DeviceMediaHeader) == 448);

// media.glsl's Medium: the CPU record as it is, 96 four-byte words.
struct DeviceMedium {
  float leaf_area_density, leaf_characteristic_length;
  int32_t leaf_angle_type, orientation, material_id;
  float projection_g[G_TABLE_SIZE];
};
static_assert(sizeof(DeviceMedium) == 96 * 4);

// The MediaTable buffer's contents: the header, then one record per medium.
std::vector<uint32_t> media_table_words(const scene::SceneModel& scene);

}  // namespace vesk::vulkan
