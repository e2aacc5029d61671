#pragma once
// Where a scene's optical media can be met: the box around every bounding instance, and
// the neighbouring tiles whose copies of the media reach into the home tile. Both
// backends' media walks read it, so they skip and scan the same regions.

#include <cstdint>

#include "core/types.h"
#include "scene/scene_model.h"

namespace vesk::scene {

struct MediaBounds {
  // No medium starts or is met outside this box (padded for the steps off surfaces).
  float3 media_lo{1e30f, 1e30f, 1e30f}, media_hi{-1e30f, -1e30f, -1e30f};
  // Media that reach over a tile wall (a layer wider than its tile) overlap their copies
  // of the neighbouring tiles, which reach into this tile from the other side. Each such
  // neighbour, by the offset of its copies, with the part of the tile they can reach: a
  // point p lies in a neighbour's copy where p - offset lies in the instance here.
  // Pairs of a neighbour's copies carry its number (1..8) in the instance key's top bits.
  int32_t n_ghosts = 0;
  float3 ghost_offset[8], ghost_lo[8], ghost_hi[8];
  static constexpr int GHOST_SHIFT = 27;
  static constexpr uint32_t INSTANCE_MASK = (1u << GHOST_SHIFT) - 1u;
};

// The bounds of the scene's media as it stands (empty without media).
MediaBounds media_bounds(const SceneModel& scene);

}  // namespace vesk::scene
