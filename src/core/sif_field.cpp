#include "core/sif_field.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vesk {

int32_t sif_axis_cell(float position, float lo, float hi, int32_t n) {
  float x = position - lo;
  const float e = hi - lo;
  if (n < 1 || !(e >= std::numeric_limits<float>::min()) ||
      !(e <= std::numeric_limits<float>::max()) || !std::isfinite(x))
    return -1;
  const float margin = e * 9.536743e-07f;  // 2^-20 of the extent
  if (x < -margin || x > e + margin) return -1;
  x = std::clamp(x, 0.0f, e);
  int32_t i = std::min(int32_t((x / e) * float(n)), n - 1);
  // Whatever the division rounded to, a boundary point goes to the upper cell.
  if (i >= 1 && x < e * float(i) / float(n))
    --i;
  else if (i < n - 1 && x == e * float(i + 1) / float(n))
    ++i;
  return std::max(i, 0);
}

int32_t sif_cell(const float3& p, const float* lo, const float* hi, const int32_t* dims) {
  const int32_t ix = sif_axis_cell(p.x, lo[0], hi[0], dims[0]);
  const int32_t iy = sif_axis_cell(p.y, lo[1], hi[1], dims[1]);
  const int32_t iz = sif_axis_cell(p.z, lo[2], hi[2], dims[2]);
  if (ix < 0 || iy < 0 || iz < 0) return -1;
  const int64_t cell = (int64_t(iz) * dims[1] + iy) * dims[0] + ix;
  return cell < int64_t(dims[0]) * dims[1] * dims[2] && cell <= INT32_MAX ? int32_t(cell) : -1;
}

int32_t sif_orientation_bin(float3 n, int32_t theta_bins, int32_t phi_bins) {
  const float l = std::sqrt(n.x * n.x + n.y * n.y + n.z * n.z);
  if (!(l > 0.0f) || theta_bins < 1 || phi_bins < 1) return -1;
  n = {n.x / l, n.y / l, n.z / l};
  if (n.z < 0.0f) n = {-n.x, -n.y, -n.z};
  const float theta = std::acos(std::clamp(n.z, 0.0f, 1.0f));
  const int32_t ti = std::min(int32_t((theta / 1.5707964f) * float(theta_bins)), theta_bins - 1);
  float phi = std::atan2(n.y, n.x);
  if (phi < 0.0f) phi += 6.2831855f;
  const int32_t pj = std::min(int32_t((phi / 6.2831855f) * float(phi_bins)), phi_bins - 1);
  return ti * phi_bins + pj;
}

}  // namespace vesk
