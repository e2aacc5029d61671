#pragma once
// Microwave permittivity of soil and wood, and Fresnel reflection at a flat surface,
// all in 32-bit float. Soil: Mironov et al. (2009, IEEE TGRS 47(7)) from clay and
// moisture; Dobson et al. (1985, IEEE TGRS 23(1)) with a saline water phase, from sand,
// clay, moisture and temperature; Hallikainen et al. (1985, IEEE TGRS 23(1)) empirical
// polynomials at 1.4 - 18 GHz. Wood: bound and free water mixture after Ulaby and
// El-Rayes (1987). Frequencies in Hz, temperatures in K, moisture volumetric.

#include <complex>

namespace vesk::microwave {

using cfloat = std::complex<float>;

// Soil parameter array: sand, clay, mv, h, V and H cosine exponents, Q, surface and deep
// temperature (K), dielectric model code, RMS height (m), reserved.
struct MwSoilParams {
  float sand = 0, clay = 0, moisture = 0, roughness_h = 0, cos_exponent_v = 0,
        cos_exponent_h = 0, polarisation_mixing = 0, surface_temperature = 0,
        deep_temperature = 0, dielectric_model = 0, rms_height = 0, reserved = 0;
  static MwSoilParams from_array(const float* p);  // reads 12 values
  // Model codes: 0 Mironov, 2 Hallikainen where allowed, anything else Dobson.
  int model() const { return static_cast<int>(dielectric_model); }
};

// Trunk parameter array: radius (m), length (m), moisture, temperature (K), axis.
struct MwTrunkParams {
  float radius = 0, length = 0, moisture = 0, temperature = 0, ax_x = 0, ax_y = 0, ax_z = 0;
  static MwTrunkParams from_array(const float* p);  // reads 7 values
};

struct Fresnel {
  cfloat r_h, r_v;  // amplitude coefficients
  float R_h, R_v;   // reflectivities |r|^2
};

// Reflection at cosine c (already floored) into a medium of relative permittivity e.
Fresnel fresnel(float c, cfloat e);

cfloat mironov_permittivity(float frequency, float clay, float moisture);
// Imaginary part returned negative (e' - i e''), as the Fresnel step receives it.
cfloat dobson_permittivity(float frequency, float sand, float clay, float moisture,
                           float temperature);
cfloat hallikainen_permittivity(float frequency, float sand, float clay, float moisture);
// Positive imaginary part, the sign the cylinder series expects.
cfloat wood_permittivity(float frequency, float moisture, float temperature);

}  // namespace vesk::microwave
