#include "core/grid.h"

#include <cmath>

namespace vesk::grid {

int32_t world_to_cell(float position, float extent, int32_t cell_count) {
  if (cell_count <= 0) return -1;
  if (!(extent >= 1.1754944e-38f) || !std::isfinite(extent)) return -1;
  if (!std::isfinite(position)) return -1;
  const float tol = extent * WORLD_TO_CELL_TOLERANCE;
  if (position < -tol || position > extent + tol) return -1;

  const float p = position < 0.0f ? 0.0f : (position > extent ? extent : position);
  const float n = static_cast<float>(cell_count);
  auto left = [&](int32_t i) { return (static_cast<float>(i) * extent) / n; };
  int32_t cell = static_cast<int32_t>((p / extent) * n);
  // The division above can round across a wall; walls computed as left(i) decide.
  if (cell >= cell_count) {
    cell = cell_count - 1;
    if (cell != 0 && p < left(cell)) cell = cell_count - 2;
  } else if (cell >= 1 && left(cell) > p) {
    cell = cell - 1;
  } else if (cell + 1 < cell_count && p == left(cell + 1)) {
    cell = cell + 1;
  }
  return cell < 0 ? 0 : cell;
}

}  // namespace vesk::grid
