#pragma once
// What an energy-balance transport run is asked for and gives back, its validators, and
// the per-primitive facts its kernels read: shared by the CPU and the device forms, so
// both refuse the same input with the same words and trace from the same floats.

#include <cstdint>
#include <vector>

#include "core/types.h"

namespace vesk::scene {

class SceneModel;

// One band. Pointers may be null (absent); sun_irradiance and sky_diffuse_radiance point
// at one float, sw_albedos at one float per primitive.
struct EnergyBalanceRequest {
  int32_t n_samples = 64;  // rays per primitive and side
  int32_t depth = 8;       // accepted for symmetry with the multi-band kernel, never read
  int32_t band_type = 0;   // 0 shortwave, 1 longwave
  const float* sun_irradiance = nullptr;                       // W m-2 at normal incidence
  const float* sky_diffuse_radiance = nullptr;                 // W m-2 sr-1
  float sky_lw_radiance = 0.0f;                                // W m-2 sr-1
  float sun_dir_x = 0.0f, sun_dir_y = 0.0f, sun_dir_z = 1.0f;  // toward the sun
  bool two_sided = true;
  const float* sw_albedos = nullptr;
  int32_t threads = 0;  // below 1: the resolved default thread count
};

struct EnergyBalanceResult {
  std::vector<float> top, bot;  // per primitive; bot empty unless two_sided
};

// Any number of bands up to MAX_EB_BANDS; spectral arrays are band-major,
// [band * n_primitives + primitive]. Pointers may be null (absent).
struct MultibandEnergyBalanceRequest {
  int32_t n_bands = 1;
  int32_t n_samples = 64;
  int32_t max_depth = 8;
  const float* sun_irradiance = nullptr;         // per band
  const float* sky_diffuse_radiance = nullptr;   // per band
  const float* sky_directional_table = nullptr;  // n_bands * 16 * 32
  float sun_dir_x = 0.0f, sun_dir_y = 0.0f, sun_dir_z = 1.0f;
  bool two_sided = true;
  const float* sw_albedos = nullptr;
  const float* sw_reflectance = nullptr;       // front side
  const float* sw_back_reflectance = nullptr;  // back side
  const float* sw_transmittance = nullptr;
  int32_t threads = 0;
  // Lengths of the arrays above as the caller has them, for the validator; -1 when the
  // caller vouches for them (native callers).
  int64_t sun_irradiance_size = -1, sky_diffuse_size = -1, sky_table_size = -1;
  int64_t albedo_size = -1, reflectance_size = -1, back_reflectance_size = -1,
          transmittance_size = -1;
};

struct MultibandEnergyBalanceResult {
  std::vector<float> top, bot;         // [band * n_primitives + primitive]
  std::vector<float> sunlit_fraction;  // per primitive, both sides added
};

constexpr int32_t MAX_EB_BANDS = 64;

// Throw with the first failure; they change nothing.
void validate_energy_balance(const SceneModel& scene, const EnergyBalanceRequest& r,
                             int64_t albedo_size = -1);
void validate_energy_balance_multiband(const SceneModel& scene,
                                       const MultibandEnergyBalanceRequest& r);

// The per-primitive facts the kernels read, gathered once per call.
struct EnergyBalancePrimitives {
  std::vector<float3> vertices;  // three per primitive
  std::vector<float3> normals;   // unit; zero for a degenerate triangle
  std::vector<float3> centroids;
  std::vector<float> exitance;  // longwave radiance leaving the surface, W m-2 sr-1
  size_t count = 0;
};

// exitance is filled only when longwave: e sigma T^4 / pi from the per-primitive
// temperatures (else the material's) and emissivities (else 0.97).
EnergyBalancePrimitives gather_energy_balance_primitives(const SceneModel& scene, bool longwave);

}  // namespace vesk::scene
