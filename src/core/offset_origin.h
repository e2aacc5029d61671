#pragma once
// Moving a hit point off its surface before the next ray: a few units in the last
// place of each coordinate, scaled by the normal, so the step grows with the
// coordinate's magnitude and no fixed epsilon has to suit every scene size.

#include <bit>
#include <cmath>
#include <cstdint>

#include "core/types.h"

namespace vesk {

// One coordinate p moved along the normal component n. Near zero, where ulps are
// tiny, a fixed step of 2^-16 scene units serves instead.
inline float offset_coordinate(float p, float n) {
  if (std::fabs(p) < 0.03125f) return p + 1.52587890625e-05f * n;
  int32_t i = static_cast<int32_t>(256.0f * n);
  if (p < 0.0f) i = -i;
  return std::bit_cast<float>(std::bit_cast<int32_t>(p) + i);
}

// p moved to the side of the surface (geometric normal ng) that dir leaves towards.
inline float3 offset_origin(const float3& p, const float3& ng, const float3& dir) {
  const float3 n = dot(dir, ng) < 0.0f ? -ng : ng;
  return {offset_coordinate(p.x, n.x), offset_coordinate(p.y, n.y), offset_coordinate(p.z, n.z)};
}

}  // namespace vesk
