#pragma once
// Fluorescence source fields of leaf-filled instances: a voxel grid over the instance's
// box and bins of the leaf normal over the upper hemisphere. The same cell and bin rules
// serve the assembly of the fields from samples and their lookup by the tracer, so a
// sample and a collision at the same place and orientation meet in the same slot.

#include <cstdint>

#include "core/types.h"

namespace vesk {

// The cell along one axis of n cells over [lo, hi]; -1 when refused: no cells, an extent
// that is not a normal finite float, a non-finite position, or one outside the box by
// more than 2^-20 of its extent. A point on a cell boundary belongs to the upper cell.
int32_t sif_axis_cell(float position, float lo, float hi, int32_t n);

// (iz * ny + iy) * nx + ix, or -1 when any axis refuses. lo, hi and dims hold 3 values.
int32_t sif_cell(const float3& p, const float* lo, const float* hi, const int32_t* dims);

// The bin ti * phi_bins + pj of a normal folded into the upper hemisphere (theta from
// the zenith over [0, pi/2], phi = atan2(y, x) over [0, 2 pi)); -1 for a zero normal.
int32_t sif_orientation_bin(float3 normal, int32_t theta_bins, int32_t phi_bins);

}  // namespace vesk
