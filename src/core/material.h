#pragma once
// Surface scattering: evaluation and cosine-weighted sampling of the diffuse (0),
// RPV (1) and diffuse-transmitting leaf (13) materials, in the local frame of the
// shading normal (+z along it), with wo and wi both pointing away from the surface.
//
// Diffuse: rho / pi. In thermal mode the block holds the emissivity e, and the
//   reflectance is 1 - e (Kirchhoff).
// RPV (Rahman, Pinty and Verstraete 1993, J. Geophys. Res. 98(D11)): rho0, k, theta
//   (Henyey-Greenstein asymmetry), rho_c (hot spot), without the third Minnaert factor
//   and without 1/pi: the value enters the estimators as it stands.
// Leaf: front reflectance, back reflectance and transmittance blocks, each / pi.

#include <cmath>

#include "core/types.h"

namespace vesk {

constexpr float PI = 3.1415927f;
constexpr float INV_PI = 0.31830987f;
constexpr float TWO_PI = 6.2831855f;

inline float evaluate_material(MaterialType type, int32_t offset, int32_t band, const float3& wo,
                               const float3& wi, const float* spectral, int32_t n_bands,
                               bool back_face, bool thermal) {
  switch (type) {
    case MaterialType::Diffuse: {
      float rho = spectral[offset + band];
      if (thermal) rho = 1.0f - rho;
      if (wo.z <= 0.0f || wi.z <= 0.0f) return 0.0f;
      return rho * INV_PI;
    }
    case MaterialType::DiffuseTransmitting: {
      if (wo.z <= 0.0f) return 0.0f;
      if (wi.z > 0.0f)
        return spectral[offset + (back_face ? n_bands : 0) + band] * INV_PI;
      return spectral[offset + 2 * n_bands + band] * INV_PI;
    }
    case MaterialType::Rpv: {
      if (wo.z <= 0.0f || wi.z <= 0.0f) return 0.0f;
      const float rho0 = spectral[offset + band];
      const float k = spectral[offset + n_bands + band];
      const float theta = spectral[offset + 2 * n_bands + band];
      const float rho_c = spectral[offset + 3 * n_bands + band];
      const float m = std::pow(wo.z, k - 1.0f) * std::pow(wi.z, k - 1.0f);
      const float c = dot(wo, wi);
      const float d = 1.0f + theta * theta + 2.0f * theta * c;
      const float f = (1.0f - theta * theta) / (d * std::sqrt(std::max(d, 1e-6f)));
      const float s1 = std::sqrt(std::max(1.0f - wo.z * wo.z, 0.0f));
      const float t1 = std::fabs(wo.z) >= 1e-6f ? s1 / wo.z : 0.0f;
      const float s2 = std::sqrt(std::max(1.0f - wi.z * wi.z, 0.0f));
      const float t2 = std::fabs(wi.z) >= 1e-6f ? s2 / wi.z : 0.0f;
      float cos_phi = 0.0f;
      if (s1 > 1e-6f && s2 > 1e-6f)
        cos_phi = std::min(1.0f, std::max(-1.0f, (wo.x / s1) * (wi.x / s2) +
                                                     (wo.y / s1) * (wi.y / s2)));
      const float g = std::sqrt(std::max(t1 * t1 + t2 * t2 - 2.0f * t1 * t2 * cos_phi, 0.0f));
      return std::max(rho0 * m * f * (1.0f + (1.0f - rho_c) / (1.0f + g)), 0.0f);
    }
  }
  return 0.0f;
}

// u holds three uniform floats. Types 0 and 1 sample the cosine lobe above the surface;
// type 13 picks reflection or transmission by the band-averaged params[0] : params[1].
inline void sample_material(const MaterialData& m, const float3& u, float3& wi, float& pdf) {
  auto cosine = [](float ur, float uphi, float& x, float& y, float& z) {
    const float r = std::sqrt(ur);
    const float phi = TWO_PI * uphi;
    x = r * std::cos(phi);
    y = r * std::sin(phi);
    z = std::sqrt(std::max(1.0f - x * x - y * y, 0.0f));
  };
  float x, y, z;
  switch (m.type) {
    case MaterialType::Diffuse:
    case MaterialType::Rpv:
      cosine(u.x, u.y, x, y, z);
      wi = {x, y, z};
      pdf = std::max(z, 0.0f) / PI;
      return;
    case MaterialType::DiffuseTransmitting: {
      const float sum = m.params[0] + m.params[1];
      if (sum < 1e-8f) break;
      const float p = m.params[0] / sum;
      cosine(u.y, u.z, x, y, z);
      if (u.x < p) {
        wi = {x, y, z};
        pdf = (std::max(z, 0.0f) / PI) * p;
      } else {
        wi = {x, y, -z};
        pdf = (std::max(z, 0.0f) / PI) * (1.0f - p);
      }
      return;
    }
  }
  wi = {0.0f, 0.0f, 1.0f};
  pdf = 1.0f;
}

}  // namespace vesk
