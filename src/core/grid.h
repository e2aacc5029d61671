#pragma once
// Grid cells of the flux and forward recorders: a coordinate along one axis of
// length `extent` becomes one of `cell_count` cells, with exact cell walls.

#include <cstdint>

namespace vesk::grid {

// Relative tolerance 2^-20 beyond both ends of the axis.
constexpr float WORLD_TO_CELL_TOLERANCE = 9.536743e-07f;

// Cell index in [0, cell_count), or -1 when the position is off the axis, not
// finite, or the grid is degenerate. A point on a cell's lower wall belongs to it.
int32_t world_to_cell(float position, float extent, int32_t cell_count);

}  // namespace vesk::grid
