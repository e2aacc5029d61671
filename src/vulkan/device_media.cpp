// Optical turbid media uploaded for the device programs: the same records, G rows and
// bounds as the CPU walk reads, so media.glsl follows the same law.
#include "vulkan/device_media.h"

#include <cstring>

#include "scene/media_bounds.h"
#include "vulkan/device_scene.h"

namespace vesk::vulkan {

std::vector<uint8_t> media_instance_masks(const scene::SceneModel& scene) {
  const auto& info = scene.instance_info();
  std::vector<uint8_t> masks(info.size(), MASK_SURFACE);
  for (size_t i = 0; i < info.size(); ++i)
    if (scene.medium_of_material(info[i].material_id) >= 0) masks[i] = MASK_MEDIUM_BOUNDARY;
  return masks;
}

std::vector<uint32_t> media_table_words(const scene::SceneModel& scene) {
  const auto& media = scene.optical_media();
  const scene::MediaBounds mb = scene::media_bounds(scene);
  const scene::Repetition& rep = scene.repetition();
  DeviceMediaHeader h{};
  h.n_media = int32_t(media.size());
  h.n_ghosts = mb.n_ghosts;
  h.num_repetitions = rep.num_repetitions;
  h.n_material_ids = int32_t(scene.material_medium_ids().size());
  h.tile_w = rep.scene_x_size, h.tile_h = rep.scene_y_size;
  h.z_lo = scene.min_height(), h.z_hi = scene.max_height();
  auto put = [](float* dst, const float3& v) { dst[0] = v.x, dst[1] = v.y, dst[2] = v.z, dst[3] = 0; };
  put(h.media_lo, mb.media_lo);
  put(h.media_hi, mb.media_hi);
  for (int32_t g = 0; g < mb.n_ghosts; ++g) {
    put(h.ghost_offset[g], mb.ghost_offset[g]);
    put(h.ghost_lo[g], mb.ghost_lo[g]);
    put(h.ghost_hi[g], mb.ghost_hi[g]);
  }
  std::vector<uint32_t> words((sizeof(h) + media.size() * sizeof(DeviceMedium)) / 4);
  std::memcpy(words.data(), &h, sizeof(h));
  for (size_t k = 0; k < media.size(); ++k) {
    const OpticalTurbidMediumData& m = media[k];
    DeviceMedium d{m.leaf_area_density, m.leaf_characteristic_length, m.leaf_angle_type,
                   m.orientation, m.material_id, {}};
    // The stored rows, never recomputed: the device extinction is the CPU's.
    std::memcpy(d.projection_g, m.projection_g, sizeof(d.projection_g));
    std::memcpy(reinterpret_cast<char*>(words.data()) + sizeof(h) + k * sizeof(d), &d, sizeof(d));
  }
  return words;
}

void VulkanSceneManager::Device::prepare_media(const scene::SceneModel& scene) {
  // Media set after the build change which instances bound them: the masks in the
  // structure follow, over the same transforms as built.
  std::vector<uint8_t> masks = media_instance_masks(scene);
  if (masks.size() == top_instances.size() && masks != instance_masks) {
    for (size_t i = 0; i < masks.size(); ++i) top_instances[i].mask = masks[i];
    instance_masks = std::move(masks);
    build_top_level();
  }
  const std::vector<uint32_t> words = media_table_words(scene);
  media_table = storage_buffer(context, words.size() * 4);
  media_table.upload(words.data(), words.size() * 4);
  const std::vector<int32_t>& ids = scene.material_medium_ids();
  material_media = storage_buffer(context, ids.size() * 4);
  if (!ids.empty()) material_media.upload(ids.data(), ids.size() * 4);
}

void VulkanSceneManager::Device::bind_media(Program& p, uint32_t first) const {
  p.bind(first, media_table);
  p.bind(first + 1, material_media);
}

}  // namespace vesk::vulkan
