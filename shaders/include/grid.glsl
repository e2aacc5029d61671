// Grid cells of the flux and forward recorders (core/grid.h): a coordinate along an axis
// of length `extent` becomes one of `cell_count` cells with exact cell walls, or -1.
const float WORLD_TO_CELL_TOLERANCE = 9.536743e-07;

int world_to_cell(float position, float extent, int cell_count) {
  if (cell_count <= 0) return -1;
  if (!(extent >= 1.1754944e-38) || isinf(extent) || isnan(extent)) return -1;
  if (isinf(position) || isnan(position)) return -1;
  float tol = extent * WORLD_TO_CELL_TOLERANCE;
  if (position < -tol || position > extent + tol) return -1;
  float p = position < 0.0 ? 0.0 : (position > extent ? extent : position);
  float n = float(cell_count);
  int cell = int((p / extent) * n);
  // The division can round across a wall; walls computed as left(i) decide.
  if (cell >= cell_count) {
    cell = cell_count - 1;
    if (cell != 0 && p < (float(cell) * extent) / n) cell = cell_count - 2;
  } else if (cell >= 1 && (float(cell) * extent) / n > p) {
    cell = cell - 1;
  } else if (cell + 1 < cell_count && p == (float(cell + 1) * extent) / n) {
    cell = cell + 1;
  }
  return cell < 0 ? 0 : cell;
}
