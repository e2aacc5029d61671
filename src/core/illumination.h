#pragma once
// Sun and sky. The sun is a directional source whose spectrum is an irradiance at
// normal incidence; at most one sky is read, by a fixed priority: the directional
// table [bands][16 zenith rows][32 azimuth columns], then the Hosek-Wilkie model
// (Hosek and Wilkie 2012, ACM TOG 31(4), in this system's coefficient arrangement,
// normalised by its own zenith value), then a uniform radiance.

#include <cstdint>

#include "core/types.h"

namespace vesk {

constexpr float SUN_SOLID_ANGLE_SR = 6.794e-05f;
constexpr float SUN_DISC_COS = 0.999989f;

struct Emitter {
  int32_t type = 0;
  float3 direction;  // unit, towards the sun
  int32_t spectral_offset = 0;
};

struct SkySelection {
  int32_t uniform_offset = -1;
  int32_t directional_offset = -1;
  int32_t hw_offset = -1;
  float3 hw_sun_direction{0.0f, 0.0f, 1.0f};  // set with the HW sky, not the emitter's
};

// Sky radiance seen along the world direction d in one band; 0 with no sky.
float sky_radiance(const SkySelection& sky, const float* spectral, const float3& d, int32_t band);

float directional_sky_radiance(int32_t offset, const float* spectral, const float3& d,
                               int32_t band);
float hosek_wilkie_radiance(int32_t offset, const float* spectral, const float3& d,
                            const float3& sun, int32_t band);

}  // namespace vesk
