#include "microwave/dielectric.h"

#include <algorithm>
#include <cmath>

namespace vesk::microwave {

MwSoilParams MwSoilParams::from_array(const float* p) {
  return {p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7], p[8], p[9], p[10], p[11]};
}

MwTrunkParams MwTrunkParams::from_array(const float* p) {
  return {p[0], p[1], p[2], p[3], p[4], p[5], p[6]};
}

Fresnel fresnel(float c, cfloat e) {
  // Principal root: its imaginary part has the sign of Im(e).
  const cfloat w = std::sqrt(e - cfloat(1.0f - c * c, 0.0f));
  Fresnel f;
  f.r_h = (cfloat(c, 0.0f) - w) / (cfloat(c, 0.0f) + w);
  f.r_v = (e * c - w) / (e * c + w);
  f.R_h = std::norm(f.r_h);
  f.R_v = std::norm(f.r_v);
  return f;
}

namespace {

// Refractive index and loss of a permittivity (x, y): n = sqrt((x + m) / 2), k = sqrt((m - x) / 2).
void index_and_loss(float x, float y, float& n, float& k) {
  const float m = std::sqrt(x * x + y * y);
  n = std::sqrt((x + m) * 0.5f);
  k = std::sqrt((m - x) * 0.5f);
}

}  // namespace

cfloat mironov_permittivity(float frequency, float C, float mv) {
  const float w0 = frequency * 6.2831855f;
  const float n_d = (1.634f - 0.539f * C) + 0.2748f * C * C;
  const float k_d = 0.03952f - 0.04038f * C;
  const float mv_t = 0.02863f + 0.30673f * C;
  // Bound water.
  const float D = ((79.8f - 85.4f * C) + 32.7f * C * C) - 4.9f;
  float a = (1.062e-11f + 3.45e-12f * C) * w0;
  float q = a * a + 1.0f;
  const float e1 = D / q + 4.9f;
  const float e2 = (a * D) / q + (0.3112f + 0.467f * C) / (w0 * 8.854e-12f);
  // Free water.
  a = w0 * 8.837e-12f;
  q = a * a + 1.0f;
  const float f1 = 95.1f / q + 4.9f;
  const float f2 = (a * 95.1f) / q;
  float n_b, k_b, n_u, k_u;
  index_and_loss(e1, e2, n_b, k_b);
  index_and_loss(f1, f2, n_u, k_u);
  float n, k;
  if (mv_t < mv) {
    n = n_d + (n_b - 1.0f) * mv_t + (n_u - 1.0f) * (mv - mv_t);
    k = k_d + k_b * mv_t + k_u * (mv - mv_t);
  } else {
    n = n_d + (n_b - 1.0f) * mv;
    k = k_d + k_b * mv;
  }
  return {n * n - k * k, 2.0f * n * k};
}

cfloat dobson_permittivity(float frequency, float S, float C, float mv, float T) {
  const float t = T - 273.15f;
  // Relaxation of saline water (salinity 0.65), times the frequency itself.
  const float x = (1.1109e-10f - 3.824e-12f * t + 6.938e-14f * t * t - 5.096e-16f * t * t * t) *
                  (((t * 2.282e-05f * 0.65f + 1.0f) - 0.00049646996f - 3.2785997e-06f) +
                   3.0346059e-09f) *
                  frequency;
  const float D = (87.134f - 0.1949f * t - 0.01276f * t * t + 0.0002491f * t * t * t) *
                      (((t * 1.613e-05f * 0.65f + 1.0f) - 0.0023764f + 1.35622495e-05f) -
                       1.16221294e-07f) -
                  4.9f;
  const float q = x * x + 1.0f;
  const float e1 = 4.9f + D / q;
  // The effective conductivity is clamped at 0 (S m-1): for sandy, clay-poor soils the
  // regression goes negative, and the loss term with it, which has no physical meaning
  // and would make the permittivity (and every product) NaN. This departs from the
  // published regression only where it would give NaN.
  const float sigma = std::max(0.0f, ((0.83692f - 2.256f * S) + 1.594f * C) * 1.3800001f);
  // Not guarded: mv = 0 divides by zero, as the model does.
  const float e2 = (x * D) / q + sigma / (frequency * 6.2831855f * 8.854e-12f * 2.66f * mv);
  const float b1 = 1.275f - 0.519f * S - 0.152f * C;
  const float b2 = 1.338f - 0.603f * S - 0.166f * C;
  const float re =
      std::pow(std::pow(mv, b1) * (std::pow(e1, 0.65f) - 1.0f) + 1.833173f - mv, 1.53846157f);
  const float im = std::pow(std::pow(mv, b2) * std::pow(e2, 0.65f), 1.53846157f);
  return {re, -im};
}

namespace {

constexpr int HALLIKAINEN_ROWS = 9;
constexpr float HALLIKAINEN_GHZ[HALLIKAINEN_ROWS] = {1.4f, 4, 6, 8, 10, 12, 14, 16, 18};
// a0 a1 a2 b0 b1 b2 c0 c1 c2 per frequency.
constexpr float HALLIKAINEN_REAL[HALLIKAINEN_ROWS][9] = {
    {2.862f, -0.012f, 0.001f, 3.803f, 0.462f, -0.341f, 119.006f, -0.5f, 0.633f},
    {2.927f, -0.012f, -0.001f, 5.505f, 0.371f, 0.062f, 114.826f, -0.389f, -0.547f},
    {1.993f, 0.002f, 0.015f, 38.086f, -0.176f, -0.633f, 10.72f, 1.256f, 1.522f},
    {1.997f, 0.002f, 0.018f, 25.579f, -0.17f, -0.412f, 39.793f, 0.723f, 0.941f},
    {2.502f, -0.003f, -0.003f, 10.101f, 0.221f, -0.004f, 77.482f, -0.061f, -0.135f},
    {2.2f, -0.001f, 0.012f, 26.473f, 0.013f, -0.523f, 34.333f, 0.284f, 1.062f},
    {2.301f, 0.001f, 0.009f, 17.918f, 0.084f, -0.282f, 50.149f, 0.012f, 0.387f},
    {2.237f, 0.002f, 0.009f, 15.505f, 0.076f, -0.217f, 48.26f, 0.168f, 0.289f},
    {1.912f, 0.007f, 0.021f, 29.123f, -0.19f, -0.545f, 6.96f, 0.822f, 1.195f}};
constexpr float HALLIKAINEN_IMAG[HALLIKAINEN_ROWS][9] = {
    {0.356f, -0.003f, -0.008f, 5.507f, 0.044f, -0.002f, 17.753f, -0.313f, 0.206f},
    {0.004f, 0.001f, 0.002f, 0.951f, 0.005f, -0.01f, 16.759f, 0.192f, 0.29f},
    {-0.123f, 0.002f, 0.003f, 7.502f, -0.058f, -0.116f, 2.942f, 0.452f, 0.543f},
    {-0.201f, 0.003f, 0.003f, 11.266f, -0.085f, -0.155f, 0.194f, 0.584f, 0.581f},
    {-0.07f, 0.0f, 0.001f, 6.62f, 0.015f, -0.081f, 21.578f, 0.293f, 0.332f},
    {-0.142f, 0.001f, 0.003f, 11.868f, -0.059f, -0.225f, 7.817f, 0.57f, 0.801f},
    {-0.096f, 0.001f, 0.002f, 8.583f, -0.005f, -0.153f, 28.707f, 0.297f, 0.357f},
    {-0.027f, -0.001f, 0.003f, 6.179f, 0.074f, -0.086f, 34.126f, 0.143f, 0.206f},
    {-0.071f, 0.0f, 0.003f, 6.938f, 0.029f, -0.128f, 29.945f, 0.275f, 0.377f}};

// Coefficients linear in frequency between table rows; below 1.4 GHz the first interval
// is extended on purpose, at and above 18 GHz the last row stands.
void hallikainen_coefficients(const float (&table)[HALLIKAINEN_ROWS][9], float f, float out[9]) {
  if (f >= HALLIKAINEN_GHZ[HALLIKAINEN_ROWS - 1]) {
    for (int j = 0; j < 9; ++j) out[j] = table[HALLIKAINEN_ROWS - 1][j];
    return;
  }
  int i = 0;
  while (i + 2 < HALLIKAINEN_ROWS && f >= HALLIKAINEN_GHZ[i + 1]) ++i;
  const float t = (f - HALLIKAINEN_GHZ[i]) / (HALLIKAINEN_GHZ[i + 1] - HALLIKAINEN_GHZ[i]);
  for (int j = 0; j < 9; ++j) out[j] = table[i][j] + t * (table[i + 1][j] - table[i][j]);
}

float hallikainen_part(const float c[9], float S, float C, float mv) {
  return (c[0] + c[1] * S + c[2] * C) + (c[3] + c[4] * S + c[5] * C) * mv +
         (c[6] + c[7] * S + c[8] * C) * mv * mv;
}

}  // namespace

cfloat hallikainen_permittivity(float frequency, float sand, float clay, float mv) {
  const float f = frequency / 1e9f;
  const float S = sand * 100.0f, C = clay * 100.0f;
  float re[9], im[9];
  hallikainen_coefficients(HALLIKAINEN_REAL, f, re);
  hallikainen_coefficients(HALLIKAINEN_IMAG, f, im);
  return {hallikainen_part(re, S, C, mv), -std::fmax(hallikainen_part(im, S, C, mv), 0.0f)};
}

cfloat wood_permittivity(float frequency, float moisture, float temperature) {
  const float t = temperature - 273.15f;
  const float w0 = frequency * 6.2831855f;
  const float m = 0.5f * moisture;  // the model's own factor
  const float bound = std::fmin(m, 0.12f), free = std::fmax(m - 0.12f, 0.0f);
  const float D = ((88.045f - 0.4147f * t) + 0.0006295f * t * t + 1.075e-05f * t * t * t) - 4.9f;
  // Relaxation of free water, times the angular frequency here.
  const float x = (1.1109e-10f - 3.824e-12f * t + 6.938e-14f * t * t - 5.096e-16f * t * t * t) * w0;
  const float y = w0 * 4e-11f;
  const float A = x * x + 1.0f, B = y * y + 1.0f;
  const float re = ((52.8f / B + 4.9f) - 1.5f) * bound + 1.5f + ((D / A + 4.9f) - 1.0f) * free;
  const float im = ((y * 52.8f) / B) * bound + ((x * D) / A) * free;
  return {re, im};
}

}  // namespace vesk::microwave
