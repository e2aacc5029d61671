#include "core/illumination.h"

#include <algorithm>
#include <cmath>

namespace vesk {

float directional_sky_radiance(int32_t offset, const float* spectral, const float3& d,
                               int32_t band) {
  if (offset < 0 || d.z <= 0.0f) return 0.0f;
  const float theta = std::acos(std::min(1.0f, std::max(0.0f, d.z)));
  const float ft = theta * 0.63661975f * 15.0f;
  int32_t row = static_cast<int32_t>(ft);
  if (row > 14) row = 14;
  if (row < 1) row = 0;
  const float wz = ft - static_cast<float>(row);
  // Azimuth from -y towards +x.
  float phi = std::atan2(d.x, -d.y);
  if (phi < 0.0f) phi += 6.2831855f;
  const float fp = phi * 5.092958f;
  const float fl = std::floor(fp);
  const int32_t col = ((static_cast<int32_t>(fl) % 32) + 32) % 32;
  const int32_t next = (col + 1) % 32;
  const float wa = fp - fl;
  const float* t = spectral + offset + band * 512;
  const float v0 = t[row * 32 + col] * (1.0f - wa) + t[row * 32 + next] * wa;
  const float v1 = t[(row + 1) * 32 + col] * (1.0f - wa) + t[(row + 1) * 32 + next] * wa;
  const float v = v0 * (1.0f - wz) + v1 * wz;
  return v < 0.0f ? 0.0f : v;
}

float hosek_wilkie_radiance(int32_t offset, const float* spectral, const float3& d,
                            const float3& sun, int32_t band) {
  const float* c = spectral + offset + band * 10;
  if (c[9] <= 0.0f) return 0.0f;
  const float cos_t = std::max(d.z, 0.001f);
  const float cos_g = std::min(1.0f, std::max(-1.0f, dot(d, sun)));
  const float g = std::acos(cos_g);
  const float f = (1.0f + c[0] * std::exp(c[1] / cos_t)) *
                  (1.0f + c[2] * std::exp(c[3] * g) + c[4] * cos_g * cos_g +
                   c[5] * std::exp(c[6] * g * g) + c[7] * std::sqrt(cos_t) + c[8]);
  const float gz = std::acos(std::min(1.0f, std::max(0.0f, sun.z)));
  const float cz = std::cos(gz);
  const float z = (1.0f + c[0] * std::exp(c[1])) *
                  (1.0f + c[2] * std::exp(c[3] * gz) + c[4] * cz * cz +
                   c[5] * std::exp(c[6] * gz * gz) + c[7] + c[8]);
  const float v = c[9] * f / std::max(z, 0.001f);
  return v < 0.0f ? 0.0f : v;
}

float sky_radiance(const SkySelection& sky, const float* spectral, const float3& d,
                   int32_t band) {
  if (sky.directional_offset >= 0)
    return directional_sky_radiance(sky.directional_offset, spectral, d, band);
  if (sky.hw_offset >= 0)
    return hosek_wilkie_radiance(sky.hw_offset, spectral, d, sky.hw_sun_direction, band);
  if (sky.uniform_offset >= 0) return spectral[sky.uniform_offset + band];
  return 0.0f;
}

}  // namespace vesk
