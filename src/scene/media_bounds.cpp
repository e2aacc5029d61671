#include "scene/media_bounds.h"

#include <algorithm>

#include "core/optical_media.h"

namespace vesk::scene {

MediaBounds media_bounds(const SceneModel& scene) {
  MediaBounds mb;
  if (!scene.has_optical_media()) return mb;
  const auto& info = scene.instance_info();
  const auto box = scene.instances_box([&](size_t i) {
    return i < info.size() && scene.medium_of_material(info[i].material_id) >= 0;
  });
  mb.media_lo = box.lo, mb.media_hi = box.hi;
  // Neighbours whose copies reach into the tile by more than the tie of a wall: media
  // that end on the walls (within BORDER_TIE) meet their copies there and overlap none.
  const Repetition& rep = scene.repetition();
  const float W = rep.scene_x_size, H = rep.scene_y_size;
  if (rep.active() && scene.num_instances() <= int32_t(MediaBounds::INSTANCE_MASK))
    for (int32_t i = -1; i <= 1; ++i)
      for (int32_t j = -1; j <= 1; ++j) {
        if (i == 0 && j == 0) continue;
        const float3 off{float(i) * W, float(j) * H, 0.0f};
        const float3 lo = box.lo + off, hi = box.hi + off;
        if (!(lo.x < W - BORDER_TIE && hi.x > BORDER_TIE && lo.y < H - BORDER_TIE &&
              hi.y > BORDER_TIE))
          continue;
        const int32_t g = mb.n_ghosts++;
        mb.ghost_offset[g] = off;
        mb.ghost_lo[g] = {std::max(lo.x, 0.0f), std::max(lo.y, 0.0f), lo.z};
        mb.ghost_hi[g] = {std::min(hi.x, W), std::min(hi.y, H), hi.z};
      }
  // A margin for the steps off surfaces and rounding in the transforms.
  const float3 pad{1e-3f, 1e-3f, 1e-3f};
  for (int32_t g = 0; g < mb.n_ghosts; ++g) {
    mb.ghost_lo[g] = mb.ghost_lo[g] - pad, mb.ghost_hi[g] = mb.ghost_hi[g] + pad;
    const float3 &glo = mb.ghost_lo[g], &ghi = mb.ghost_hi[g];
    mb.media_lo = {std::min(mb.media_lo.x, glo.x), std::min(mb.media_lo.y, glo.y),
                   std::min(mb.media_lo.z, glo.z)};
    mb.media_hi = {std::max(mb.media_hi.x, ghi.x), std::max(mb.media_hi.y, ghi.y),
                   std::max(mb.media_hi.z, ghi.z)};
  }
  mb.media_lo = mb.media_lo - pad;
  mb.media_hi = mb.media_hi + pad;
  return mb;
}

}  // namespace vesk::scene
