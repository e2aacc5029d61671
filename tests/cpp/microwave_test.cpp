#include <cmath>
#include <complex>

#include "core/mesh_generators.h"
#include "embree/scene_manager.h"
#include "microwave/cylinder.h"
#include "microwave/dielectric.h"
#include "microwave/evaluators.h"
#include "microwave/transport.h"
#include "test_util.h"

using namespace vesk::microwave;

TEST(Fresnel, LosslessDielectricMatchesTheClosedForms) {
  for (float eps : {2.25f, 5.0f, 25.0f}) {
    const Fresnel nadir = fresnel(1.0f, {eps, 0.0f});
    const float n = std::sqrt(eps);
    const float expected = ((n - 1) / (n + 1)) * ((n - 1) / (n + 1));
    EXPECT_NEAR(nadir.R_h, expected, 1e-6f);
    EXPECT_NEAR(nadir.R_v, expected, 1e-6f);
    // Brewster: no V reflection at tan(theta) = n.
    const float c_b = std::cos(std::atan(n));
    EXPECT_NEAR(fresnel(c_b, {eps, 0.0f}).R_v, 0.0f, 1e-6f);
    for (float deg = 1; deg < 89; deg += 7) {
      const float c = std::cos(deg * 3.14159265f / 180), s2 = 1 - c * c;
      const float root = std::sqrt(eps - s2);
      const float rh = (c - root) / (c + root), rv = (eps * c - root) / (eps * c + root);
      const Fresnel f = fresnel(c, {eps, 0.0f});
      EXPECT_NEAR(f.R_h, rh * rh, 1e-6f);
      EXPECT_NEAR(f.R_v, rv * rv, 1e-6f);
      EXPECT_GE(f.R_h, f.R_v) << "H reflects at least as much as V";
    }
  }
  // Loss does not change the reflectivity's dependence on the sign of Im(e).
  const Fresnel a = fresnel(0.6f, {12.0f, 3.0f}), b = fresnel(0.6f, {12.0f, -3.0f});
  EXPECT_NEAR(a.R_h, b.R_h, 1e-6f);
  EXPECT_NEAR(a.R_v, b.R_v, 1e-6f);
}

TEST(Dielectric, HallikainenFromTheTableByHand) {
  const float S = 40, C = 20, mv = 0.25f;  // sand 0.4, clay 0.2
  auto poly = [&](const float (&c)[9]) {
    return (c[0] + c[1] * S + c[2] * C) + (c[3] + c[4] * S + c[5] * C) * mv +
           (c[6] + c[7] * S + c[8] * C) * mv * mv;
  };
  // 6 GHz is a table row.
  const float re6[9] = {1.993f, 0.002f, 0.015f, 38.086f, -0.176f, -0.633f, 10.72f, 1.256f, 1.522f};
  const float im6[9] = {-0.123f, 0.002f, 0.003f, 7.502f, -0.058f, -0.116f, 2.942f, 0.452f, 0.543f};
  const cfloat e6 = hallikainen_permittivity(6e9f, 0.4f, 0.2f, mv);
  EXPECT_NEAR(e6.real(), poly(re6), 1e-3f);
  EXPECT_NEAR(-e6.imag(), std::fmax(poly(im6), 0.0f), 1e-3f);
  // 1 GHz lies below the table and extrapolates the 1.4 - 4 GHz interval.
  const float re14[9] = {2.862f, -0.012f, 0.001f, 3.803f, 0.462f, -0.341f, 119.006f, -0.5f, 0.633f};
  const float re4[9] = {2.927f, -0.012f, -0.001f, 5.505f, 0.371f, 0.062f, 114.826f, -0.389f,
                        -0.547f};
  const float t = (1.0f - 1.4f) / 2.6f;
  float re1[9];
  for (int j = 0; j < 9; ++j) re1[j] = re14[j] + t * (re4[j] - re14[j]);
  EXPECT_NEAR(hallikainen_permittivity(1e9f, 0.4f, 0.2f, mv).real(), poly(re1), 1e-3f);
  // Wetter soil is more polarisable in every model.
  EXPECT_GT(mironov_permittivity(1.4e9f, 0.2f, 0.3f).real(),
            mironov_permittivity(1.4e9f, 0.2f, 0.1f).real());
  EXPECT_GT(dobson_permittivity(1.4e9f, 0.4f, 0.2f, 0.3f, 293).real(),
            dobson_permittivity(1.4e9f, 0.4f, 0.2f, 0.1f, 293).real());
  EXPECT_GT(wood_permittivity(1.4e9f, 0.8f, 293).real(), wood_permittivity(1.4e9f, 0.2f, 293).real());
}

TEST(Bessel, WronskianHoldsOnBothSidesOfTheAsymptoticSwitch) {
  for (double x : {0.3, 1.0, 7.5, 24.9, 25.1, 60.0, 150.0}) {
    const int N = int(x) + 20;
    const auto J = bessel_j(x, N + 1), Y = bessel_y(x, N + 1);
    for (int n = 0; n <= N; n += 3) {
      const double w = J[n + 1] * Y[n] - J[n] * Y[n + 1];
      EXPECT_NEAR(w * M_PI * x / 2.0, 1.0, 1e-9) << "x " << x << " n " << n;
    }
  }
  // The log-derivative of J agrees with J itself where both are computable.
  const auto J = bessel_j(3.7, 12);
  const auto D = bessel_j_log_derivative({3.7, 0.0}, 10);
  for (int n = 1; n <= 10; ++n)
    EXPECT_NEAR(D[n].real(), (J[n - 1] - n / 3.7 * J[n]) / J[n], 1e-9 * (1 + std::abs(D[n])));
}

TEST(Cylinder, ThinLimitConvergenceEnergyAndSymmetry) {
  // Rayleigh limit at normal incidence: b_0 -> -i pi x^2 (m^2 - 1) / 4.
  const cdouble m2(6.0, 0.8);
  const double x = 0.002;  // next-order terms ~ x^2 ln(x) |m^2| stay below 1e-3
  const auto thin = cylinder_coefficients(x, m2, 0.0);
  const cdouble rayleigh = cdouble(0, -M_PI / 4.0) * x * x * (m2 - 1.0);
  EXPECT_LT(std::abs(thin[0].b1 - rayleigh), 1e-3 * std::abs(rayleigh));
  EXPECT_EQ(thin[1].a1, cdouble(0.0)) << "no cross-polarisation at normal incidence";

  // Converged: adding orders beyond the stopping rule changes nothing that matters.
  for (double size : {0.5, 4.0, 30.0}) {
    const auto c = cylinder_coefficients(size, m2, 0.4);
    ASSERT_GE(double(c.size()), size);
    double last = 0, total = 0;
    for (const auto& k : c) total += std::abs(k.b1) + std::abs(k.a2);
    last = std::abs(c.back().b1) + std::abs(c.back().a2) + std::abs(c.back().a1);
    EXPECT_LT(last, 1e-12 * total) << "size " << size;
  }

  // Lossless cylinder, oblique incidence: extinction equals scattering for each
  // polarisation (optical theorem), which needs the cross-polarised coefficients right.
  for (double elevation : {0.0, 0.3, 0.9}) {
    const cdouble m2l(3.2, 0.0);
    const auto c = cylinder_coefficients(5.0, m2l, elevation);
    cdouble ext1 = c[0].b1, ext2 = c[0].a2;
    double sca1 = std::norm(c[0].b1), sca2 = std::norm(c[0].a2);
    for (size_t n = 1; n < c.size(); ++n) {
      ext1 += 2.0 * c[n].b1;
      ext2 += 2.0 * c[n].a2;
      sca1 += 2.0 * (std::norm(c[n].b1) + std::norm(c[n].a1));
      sca2 += 2.0 * (std::norm(c[n].a2) + std::norm(c[n].b2));
    }
    EXPECT_NEAR(ext1.real(), sca1, 1e-9 * sca1) << "case I at " << elevation;
    EXPECT_NEAR(ext2.real(), sca2, 1e-9 * sca2) << "case II at " << elevation;
    // Reciprocity of the series: the two cross-polarised coefficients are opposite.
    for (const auto& k : c) EXPECT_LT(std::abs(k.a1 + k.b2), 1e-12 + 1e-9 * std::abs(k.a1));
  }
  // Loss absorbs: extinction exceeds scattering.
  const auto lossy = cylinder_coefficients(5.0, cdouble(12.0, 4.0), 0.3);
  cdouble ext = lossy[0].b1;
  double sca = std::norm(lossy[0].b1);
  for (size_t n = 1; n < lossy.size(); ++n) {
    ext += 2.0 * lossy[n].b1;
    sca += 2.0 * (std::norm(lossy[n].b1) + std::norm(lossy[n].a1));
  }
  EXPECT_GT(ext.real(), 1.01 * sca);
  // The amplitude matrix: cross terms vanish in the forward and backward directions.
  const AmplitudeMatrix f = cylinder_amplitude(1.4e9, 0.2, {10.0, 3.0}, 0.4, -0.4, 0.0);
  EXPECT_LT(std::abs(f[0][1]) + std::abs(f[1][0]), 1e-12);
  const AmplitudeMatrix side = cylinder_amplitude(1.4e9, 0.2, {10.0, 3.0}, 0.4, -0.4, 1.1);
  EXPECT_GT(std::abs(side[1][0]), 1e-6) << "oblique incidence couples the polarisations";
  EXPECT_LT(std::abs(side[1][0] + side[0][1]), 1e-9 * std::abs(side[1][0]));
}

// The transport without Python: a bare soil seen at nadir gives the evaluators' own
// nadir row (the table's last, read exactly), whatever the thread count.
TEST(MicrowaveTransport, NadirBareSoilIsTheEvaluatorsRowOnAnyThreadCount) {
  vesk::embree::EmbreeSceneManager s;
  const int32_t soil_mat = s.add_material(0, 0, nullptr, 0);
  const vesk::backend::MeshGeometry g = vesk::make_ground_plane(20, 20, soil_mat, 50);
  s.add_instance(s.add_mesh(g.vertices, g.normals, g.indices, g.material_id), 0.0f, 0.0f, 0.0f,
                 1.0f);
  vesk::SensorData cam;
  cam.type = 0;
  cam.width = 5;
  cam.height = 3;
  cam.ortho_width = cam.ortho_height = 4.0f;
  const float m[16] = {1, 0, 0, 0.3f, 0, 1, 0, 0.2f, 0, 0, 1, 10, 0, 0, 0, 1};
  for (int i = 0; i < 16; ++i) cam.camera_to_world[i] = m[i];
  s.set_sensor(cam, false);
  s.build();
  const float soil[12] = {0.3f, 0.2f, 0.25f, 0, 1, 1.5f, 0, 295, 290, 1, 0.02f, 0};
  const int32_t map[1] = {0};
  MicrowaveRequest q;
  q.frequency = 1.4e9f;
  q.soil_params = soil;
  q.soil_count = 1;
  q.soil_columns = 12;
  q.material_map = map;
  q.material_map_size = 1;
  const float nadir = 1.0f;
  for (const bool active : {false, true}) {
    q.active = active;
    q.n_channels = active ? 4 : 2;
    const std::vector<float> row = evaluate_soil(q.frequency, soil, &nadir, 1, active);
    q.threads = 1;
    const std::vector<float> one = simulate_microwave(s, q);
    q.threads = 2;
    const std::vector<float> two = simulate_microwave(s, q);
    ASSERT_EQ(one.size(), size_t(15 * q.n_channels));
    EXPECT_EQ(one, two) << "results depend on the thread count";
    for (size_t px = 0; px < 15; ++px)
      for (int k = 0; k < q.n_channels; ++k)
        EXPECT_NEAR(one[px * size_t(q.n_channels) + size_t(k)], row[size_t(k)],
                    1e-5f * std::fabs(row[size_t(k)]))
            << (active ? "sigma0 " : "Tb ") << k;
  }
  const MicrowaveTables t = build_tables(q);
  EXPECT_EQ(t.passive_soil.size(), size_t(256 * 4));
  EXPECT_EQ(t.lut_info[0], MW_SOIL);
  EXPECT_EQ(t.lut_info[1], -1) << "a soil carries no Mueller table";
}
