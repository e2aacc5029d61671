#include <cmath>
#include <random>
#include <vector>

#include "core/illumination.h"
#include "core/material.h"
#include "core/offset_origin.h"
#include "core/planck.h"
#include "core/rng.h"
#include "test_util.h"

using namespace vesk;

TEST(Pcg32, MatchesTheReferenceDemoOutputs) {
  RNG r;
  r.seed(42, 54);
  const uint32_t expected[] = {0xa15c02b7, 0x7b47f409, 0xba1d3330,
                               0x83d2f293, 0xbfa4784b, 0xcbed606e};
  for (uint32_t e : expected) EXPECT_EQ(r.next(), e);
  // The float conversion rounds: the largest output maps to exactly 1.0.
  EXPECT_EQ(float(0xffffffffu) * 2.3283064e-10f, 1.0f);
  // Pixel and sample seeds differ in both state and stream.
  const RNG a = pixel_sample_rng(5, 0), b = pixel_sample_rng(5, 1), c = pixel_sample_rng(6, 0);
  EXPECT_NE(a.state, b.state);
  EXPECT_NE(a.inc, b.inc);
  EXPECT_NE(a.state, c.state);
  EXPECT_EQ(a.inc, c.inc);
}

namespace {

// Pearson chi-square of observed counts against expected probabilities; with k bins the
// statistic has k - 1 degrees of freedom. The bound is far in the tail (p < 1e-6) for
// the bin counts used here, so a fair sampler essentially never fails.
double chi_square(const std::vector<double>& observed, const std::vector<double>& prob,
                  double n) {
  double chi = 0;
  for (size_t i = 0; i < observed.size(); ++i) {
    const double e = prob[i] * n;
    chi += (observed[i] - e) * (observed[i] - e) / e;
  }
  return chi;
}

MaterialData material(MaterialType t, float p0 = 0, float p1 = 0) {
  MaterialData m;
  m.type = t;
  m.params[0] = p0;
  m.params[1] = p1;
  return m;
}

}  // namespace

TEST(SampleMaterial, DrawsTheCosineLobeItsPdfClaims) {
  // Under a cosine pdf, z^2 is uniform on [0, 1] and the azimuth uniform on [0, 2 pi):
  // a 10 x 8 grid of equally likely cells.
  for (MaterialType t : {MaterialType::Diffuse, MaterialType::Rpv}) {
    std::mt19937 g(11);
    std::uniform_real_distribution<float> U(0.0f, 1.0f);
    const int n = 200000, kz = 10, kp = 8;
    std::vector<double> counts(kz * kp, 0.0);
    for (int i = 0; i < n; ++i) {
      float3 wi;
      float pdf;
      sample_material(material(t), {U(g), U(g), U(g)}, wi, pdf);
      ASSERT_NEAR(length(wi), 1.0f, 1e-5f);
      ASSERT_NEAR(pdf, wi.z / PI, 1e-6f) << "pdf must be the cosine density of the sample";
      float phi = std::atan2(wi.y, wi.x);
      if (phi < 0) phi += TWO_PI;
      const int iz = std::min(kz - 1, int(wi.z * wi.z * kz));
      const int ip = std::min(kp - 1, int(phi / TWO_PI * kp));
      counts[size_t(iz * kp + ip)] += 1;
    }
    EXPECT_LT(chi_square(counts, std::vector<double>(kz * kp, 1.0 / (kz * kp)), n), 150.0)
        << "type " << int(t);
  }
}

TEST(SampleMaterial, LeafSplitsHemispheresByMeanReflectanceAndTransmittance) {
  std::mt19937 g(5);
  std::uniform_real_distribution<float> U(0.0f, 1.0f);
  const MaterialData leaf = material(MaterialType::DiffuseTransmitting, 0.3f, 0.1f);
  const int n = 100000;
  std::vector<double> counts(2, 0.0);
  for (int i = 0; i < n; ++i) {
    float3 wi;
    float pdf;
    sample_material(leaf, {U(g), U(g), U(g)}, wi, pdf);
    const float share = wi.z > 0 ? 0.75f : 0.25f;
    ASSERT_NEAR(pdf, std::fabs(wi.z) / PI * share, 1e-6f);
    counts[wi.z > 0 ? 0 : 1] += 1;
  }
  EXPECT_LT(chi_square(counts, {0.75, 0.25}, n), 25.0);
  // With nothing to choose by, the leaf samples straight up with pdf 1.
  float3 wi;
  float pdf;
  sample_material(material(MaterialType::DiffuseTransmitting), {0.5f, 0.5f, 0.5f}, wi, pdf);
  expect_near3(wi, {0, 0, 1}, 0, "degenerate leaf");
  EXPECT_EQ(pdf, 1.0f);
  sample_material(material(MaterialType(7)), {0.5f, 0.5f, 0.5f}, wi, pdf);
  EXPECT_EQ(pdf, 1.0f);
}

TEST(EvaluateMaterial, BlocksSidesAndReciprocity) {
  const int nb = 2;
  // Diffuse {0.2, 0.6}; leaf front {0.1, 0.2}, back {0.4, 0.5}, transmittance {0.3, 0.35}.
  const std::vector<float> spec = {0.2f, 0.6f, 0.1f, 0.2f, 0.4f, 0.5f, 0.3f, 0.35f};
  const float3 up = normalize({0.2f, 0.1f, 0.9f}), up2 = normalize({-0.5f, 0.3f, 0.6f});
  const float3 down = normalize({0.1f, -0.2f, -0.8f});
  using MT = MaterialType;
  EXPECT_FLOAT_EQ(evaluate_material(MT::Diffuse, 0, 1, up, up2, spec.data(), nb, false, false),
                  0.6f / PI);
  EXPECT_FLOAT_EQ(evaluate_material(MT::Diffuse, 0, 1, up, up2, spec.data(), nb, false, true),
                  (1 - 0.6f) / PI)
      << "thermal mode reads an emissivity and reflects its complement";
  EXPECT_EQ(evaluate_material(MT::Diffuse, 0, 0, up, down, spec.data(), nb, false, false), 0.0f);
  EXPECT_FLOAT_EQ(evaluate_material(MT::DiffuseTransmitting, 2, 0, up, up2, spec.data(), nb,
                                    false, false),
                  0.1f / PI);
  EXPECT_FLOAT_EQ(evaluate_material(MT::DiffuseTransmitting, 2, 0, up, up2, spec.data(), nb,
                                    true, false),
                  0.4f / PI);
  EXPECT_FLOAT_EQ(evaluate_material(MT::DiffuseTransmitting, 2, 1, up, down, spec.data(), nb,
                                    true, false),
                  0.35f / PI);
  EXPECT_EQ(evaluate_material(MT::DiffuseTransmitting, 2, 1, down, up, spec.data(), nb, false,
                              false),
            0.0f);
  EXPECT_EQ(evaluate_material(MT(5), 0, 0, up, up2, spec.data(), nb, false, false), 0.0f);

  // RPV blocks rho0, k, theta, rho_c. Helmholtz reciprocity holds for every pair.
  const std::vector<float> rpv = {0.12f, 0.7f, -0.15f, 0.3f};
  std::mt19937 g(3);
  std::uniform_real_distribution<float> U(-1.0f, 1.0f);
  for (int i = 0; i < 500; ++i) {
    float3 a = normalize({U(g), U(g), std::fabs(U(g)) + 0.01f});
    float3 b = normalize({U(g), U(g), std::fabs(U(g)) + 0.01f});
    const float fab = evaluate_material(MT::Rpv, 0, 0, a, b, rpv.data(), 1, false, false);
    const float fba = evaluate_material(MT::Rpv, 0, 0, b, a, rpv.data(), 1, false, false);
    ASSERT_GT(fab, 0.0f);
    ASSERT_NEAR(fab, fba, 1e-6f * fab) << "RPV must be reciprocal";
  }
  // k = 1 drops the Minnaert term; theta = 0 makes Henyey-Greenstein 1; the hot spot
  // (wo == wi, g = 0) then gives rho0 * (2 - rho_c).
  const std::vector<float> flat = {0.2f, 1.0f, 0.0f, 0.25f};
  EXPECT_FLOAT_EQ(evaluate_material(MT::Rpv, 0, 0, up, up, flat.data(), 1, false, false),
                  0.2f * (2.0f - 0.25f));
  // A grazing view below 1e-6 must not divide by zero.
  const float3 grazing{std::sqrt(1.0f - 1e-14f), 0.0f, 1e-7f};
  const float v = evaluate_material(MT::Rpv, 0, 0, grazing, up, rpv.data(), 1, false, false);
  EXPECT_TRUE(std::isfinite(v));
}

TEST(Planck, ObeysWienAndStefanBoltzmann) {
  EXPECT_EQ(planck_radiance(100.0f, 100.0f), 0.0f) << "x above 500";
  EXPECT_EQ(planck_radiance(10000.0f, 0.0f), 0.0f);
  const float tiny = planck_radiance(500.0f, 300.0f);
  EXPECT_GT(tiny, 0.0f);
  EXPECT_LT(tiny, 1e-30f);
  for (float T : {300.0f, 1000.0f, 5800.0f}) {
    // Wien: the peak lies at 2.897771955e6 nm K / T.
    float best = 0, peak = 0;
    for (float l = 100.0f; l < 50000.0f; l += 1.0f) {
      const float b = planck_radiance(l, T);
      if (b > best) best = b, peak = l;
    }
    const float wien = 2.897771955e6f / T;
    EXPECT_NEAR(peak, wien, std::max(1.0f, 1e-3f * wien)) << T;
    // Stefan-Boltzmann: pi * integral of B over wavelength = sigma T^4.
    double integral = 0;
    for (double l = 50.0; l < 2e6; l *= 1.0005)
      integral += double(planck_radiance(float(l), T)) * l * (1.0005 - 1.0);
    EXPECT_NEAR(M_PI * integral / (5.670374419e-8 * std::pow(double(T), 4)), 1.0, 2e-3) << T;
  }
}

TEST(Sky, TablePriorityAndNormalisation) {
  // Table for 1 band: value = row + 100 * column, so interpolation is easy to check.
  std::vector<float> spec(512 + 10 + 1);
  for (int r = 0; r < 16; ++r)
    for (int c = 0; c < 32; ++c) spec[size_t(r * 32 + c)] = float(r + 100 * c);
  const float3 zenith{0, 0, 1};
  EXPECT_EQ(directional_sky_radiance(0, spec.data(), {1, 0, 0}, 0), 0.0f) << "horizon";
  EXPECT_EQ(directional_sky_radiance(0, spec.data(), normalize({1, 0, -0.1f}), 0), 0.0f);
  // Azimuth runs from -y towards +x; +x is a quarter turn, column 8.
  const float3 east = normalize({1, 0, 1});  // 45 degrees from zenith: row 7.5
  EXPECT_NEAR(directional_sky_radiance(0, spec.data(), east, 0), 7.5f + 800.0f, 2e-3f);
  // Just short of a full turn the lookup blends column 31 into column 0.
  const float a = 6.2831855f - 0.05f;  // azimuth measured from -y
  const float3 d = normalize({std::sin(a), -std::cos(a), 1.0f});
  const float fp = a * 5.092958f, wa = fp - std::floor(fp);
  EXPECT_NEAR(directional_sky_radiance(0, spec.data(), d, 0), 7.5f + 3100.0f * (1 - wa), 0.05f);

  // Hosek-Wilkie is normalised so that the zenith with the sun overhead gives c9.
  const float c[10] = {-1.1f, -0.3f, 2.0f, -2.5f, 0.3f, 0.1f, -1.5f, 0.4f, 0.2f, 7.0f};
  for (int i = 0; i < 10; ++i) spec[size_t(512 + i)] = c[i];
  EXPECT_NEAR(hosek_wilkie_radiance(512, spec.data(), zenith, zenith, 0), 7.0f, 1e-5f);
  // Below the horizon the model reads cos_t = 0.001: two such directions at the same
  // angle from a sun on the horizon see the same value.
  const float3 sun_h{0, 1, 0};
  const float3 d1{std::sqrt(1 - 0.36f - 0.25f), 0.6f, -0.5f}, d2{std::sqrt(1 - 0.36f - 0.04f),
                                                                   0.6f, -0.2f};
  EXPECT_FLOAT_EQ(hosek_wilkie_radiance(512, spec.data(), d1, sun_h, 0),
                  hosek_wilkie_radiance(512, spec.data(), d2, sun_h, 0));
  EXPECT_GT(hosek_wilkie_radiance(512, spec.data(), d1, sun_h, 0), 0.0f);

  spec[522] = 3.0f;
  SkySelection sky;
  EXPECT_EQ(sky_radiance(sky, spec.data(), east, 0), 0.0f);
  sky.uniform_offset = 522;
  EXPECT_EQ(sky_radiance(sky, spec.data(), {0, 0, -1}, 0), 3.0f) << "uniform also below";
  sky.hw_offset = 512;
  EXPECT_NEAR(sky_radiance(sky, spec.data(), zenith, 0), 7.0f, 1e-5f);
  sky.directional_offset = 0;
  EXPECT_NEAR(sky_radiance(sky, spec.data(), east, 0), 807.5f, 2e-3f);
}

TEST(OffsetOrigin, StepsToTheSideOfTheOutgoingRay) {
  std::mt19937 g(9);
  std::uniform_real_distribution<float> U(-1.0f, 1.0f);
  for (int i = 0; i < 2000; ++i) {
    const float scale = std::pow(10.0f, 3 * U(g));
    const float3 p{scale * U(g), scale * U(g), scale * U(g)};
    const float3 n = normalize({U(g), U(g), U(g)});
    const float3 dir = normalize({U(g), U(g), U(g)});
    const float3 q = offset_origin(p, n, dir);
    const float side = dot(q - p, dot(dir, n) < 0 ? -n : n);
    EXPECT_GT(side, 0.0f) << "the offset must leave the surface on the ray's side";
    EXPECT_LT(length(q - p), 1e-3f * std::max(1.0f, length(p)));
  }
}
