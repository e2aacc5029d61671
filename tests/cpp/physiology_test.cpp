#include <omp.h>

#include <bit>
#include <cmath>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "physiology/leaf_solver.h"
#include "test_util.h"

using namespace vesk::backend;

namespace {

// Owned arrays for a request of n elements, with a typical sunlit leaf in every slot.
struct Request {
  int n, bands;
  std::map<std::string, std::vector<float>> a;
  bool eb = false;
  int max_iterations = 100;
  float tolerance = 1e-4f;

  explicit Request(int n_, int bands_ = 2) : n(n_), bands(bands_) {
    a["apar"].assign(size_t(n * bands), 300.0f);
    auto fill = [&](const char* k, float v) { a[k].assign(size_t(n), v); };
    fill("temperature", 298.15f), fill("co2", 400.0f), fill("relative_humidity", 0.7f);
    fill("vpd", 1.2f), fill("pressure", 101.3f), fill("wind", 1.5f), fill("vcmax25", 60.0f);
    fill("jmax25", 120.0f), fill("rd25", 1.2f), fill("ball_berry_slope", 9.0f);
    fill("ball_berry_intercept", 0.01f), fill("quantum_yield", 0.03f);
    fill("absorbed_shortwave", 350.0f), fill("absorbed_longwave", 380.0f);
    fill("air_temperature", 298.0f), fill("vapor_pressure", 1800.0f), fill("emissivity", 0.97f);
    fill("sidedness", 2.0f), fill("leaf_width", 0.05f), fill("stomata_sides", 1.0f);
  }
  FloatSpan span(const char* k) const { return {a.at(k).data(), a.at(k).size()}; }
  PhysiologyRequestView view() const {
    PhysiologyRequestView v;
    v.n_elements = n, v.n_bands = bands;
    v.apar = span("apar"), v.temperature = span("temperature"), v.co2 = span("co2");
    v.relative_humidity = span("relative_humidity"), v.vpd = span("vpd");
    v.pressure = span("pressure"), v.wind = span("wind"), v.vcmax25 = span("vcmax25");
    v.jmax25 = span("jmax25"), v.rd25 = span("rd25");
    v.ball_berry_slope = span("ball_berry_slope");
    v.ball_berry_intercept = span("ball_berry_intercept");
    v.quantum_yield = span("quantum_yield");
    v.dynamic_energy_balance = eb;
    v.absorbed_shortwave = span("absorbed_shortwave");
    v.absorbed_longwave = span("absorbed_longwave");
    v.air_temperature = span("air_temperature"), v.vapor_pressure = span("vapor_pressure");
    v.emissivity = span("emissivity"), v.sidedness = span("sidedness");
    v.leaf_width = span("leaf_width"), v.stomata_sides = span("stomata_sides");
    v.max_iterations = max_iterations, v.tolerance = tolerance;
    return v;
  }
  PhysiologyResult solve() const { return solve_physiology(view()); }
};

}  // namespace

TEST(LeafPhysiology, DarkLeafRespiresWithClosedStomataAndBaseYield) {
  Request q(3);
  q.a["apar"].assign(6, 0.0f);
  q.a["quantum_yield"] = {0.03f, 0.06f, 0.0f};
  const auto r = q.solve();
  for (int i = 0; i < 3; ++i) {
    EXPECT_FLOAT_EQ(r.an[i], -1.2f) << "at 25 C dark respiration is rd25";
    EXPECT_FLOAT_EQ(r.ci[i], 400.0f);
    EXPECT_FLOAT_EQ(r.gs[i], 0.01f);
    EXPECT_TRUE(r.converged[i]);
  }
  EXPECT_FLOAT_EQ(r.phi_f[0], 0.01f);
  EXPECT_FLOAT_EQ(r.phi_f[1], 0.02f) << "yield scales with quantum_yield / 0.03";
  EXPECT_EQ(r.phi_f[2], 0.0f);
  EXPECT_TRUE(r.temperature.empty() && r.latent_heat.empty()) << "no fluxes without the balance";
  EXPECT_EQ(r.execution.executor, "embree.cpu.physiology_solver");
}

TEST(LeafPhysiology, LightResponseRisesAndSaturates) {
  const std::vector<float> light = {25, 50, 100, 200, 400, 800, 1600, 3200};
  Request q(int(light.size()), 1);
  q.a["apar"] = light;
  const auto r = q.solve();
  for (size_t i = 1; i < light.size(); ++i) {
    EXPECT_GE(r.an[i], r.an[i - 1]) << "more light never lowers assimilation";
    EXPECT_LE(r.ci[i], r.ci[i - 1] + 1e-3f) << "faster uptake draws ci down";
  }
  // Diminishing returns: the gain of the last doubling is a small share of the first.
  EXPECT_LT(r.an[7] - r.an[6], 0.2f * (r.an[1] - r.an[0]) + 0.5f);
  EXPECT_GT(r.an[0], -1.2f);
  for (size_t i = 0; i < light.size(); ++i) EXPECT_TRUE(r.converged[i]);
}

TEST(LeafPhysiology, EnergyBalanceClosesAndFollowsTheAir) {
  Request q(4);
  q.eb = true;
  q.a["air_temperature"] = {280.0f, 290.0f, 300.0f, 310.0f};
  q.a["temperature"] = {300.0f, 300.0f, 300.0f, 300.0f};
  const auto r = q.solve();
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(r.converged[i]);
    const float closure = r.net_radiation[i] - r.sensible_heat[i] - r.latent_heat[i];
    EXPECT_NEAR(closure, 0.0f, 0.05f) << "Rn - H - LE for a converged leaf";
    if (i > 0) {
      EXPECT_GT(r.temperature[i], r.temperature[i - 1]) << "warmer air, warmer leaf";
    }
    EXPECT_LT(std::fabs(r.temperature[i] - q.a["air_temperature"][size_t(i)]), 15.0f);
  }
  // Still air (0 m/s) is legal and behaves as the 0.1 m/s floor.
  Request still = q, floor = q;
  still.a["wind"].assign(4, 0.0f);
  floor.a["wind"].assign(4, 0.1f);
  EXPECT_EQ(still.solve().temperature, floor.solve().temperature);
}

TEST(LeafPhysiology, ClosedStomataAndTemperatureClamps) {
  // No intercept, no light: gs = 0 without division trouble, and no transpiration.
  Request q(3);
  q.eb = true;
  q.a["apar"].assign(6, 0.0f);
  q.a["ball_berry_intercept"].assign(3, 0.0f);
  // A furnace, an ordinary leaf, and a leaf in the dark of space.
  q.a["absorbed_shortwave"] = {50000.0f, 300.0f, 0.0f};
  q.a["absorbed_longwave"] = {0.0f, 350.0f, 0.0f};
  q.a["air_temperature"] = {340.0f, 295.0f, 150.0f};
  const auto r = q.solve();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(r.gs[i], 0.0f);
    EXPECT_FLOAT_EQ(r.ci[i], 400.0f);
    EXPECT_TRUE(std::isfinite(r.latent_heat[i]));
    EXPECT_NEAR(r.latent_heat[i], 0.0f, 1e-6f) << "closed stomata give no latent heat";
  }
  EXPECT_EQ(r.temperature[0], 350.0f) << "pressed against the upper clamp";
  EXPECT_EQ(r.temperature[2], 200.0f) << "pressed against the lower clamp";
  EXPECT_TRUE(r.converged[0] && r.converged[2]) << "a clamped step of zero counts as converged";
  EXPECT_GT(std::fabs(r.net_radiation[0] - r.sensible_heat[0]), 100.0f)
      << "the residual at the clamp is not zero";
}

TEST(LeafPhysiology, NonConvergenceIsReportedNotRaisedAndThreadsDoNotMatter) {
  Request q(1000);
  q.eb = true;
  for (int i = 0; i < 1000; ++i) {
    q.a["apar"][size_t(2 * i)] = float(i % 37) * 40.0f;
    q.a["air_temperature"][size_t(i)] = 280.0f + float(i % 23);
  }
  q.max_iterations = 1;
  const auto once = q.solve();
  int converged = 0;
  for (uint8_t c : once.converged) converged += c;
  EXPECT_LT(converged, 100) << "one round rarely settles a leaf";
  q.max_iterations = 100;
  omp_set_num_threads(1);
  const auto one = q.solve();
  omp_set_num_threads(3);
  const auto three = q.solve();
  EXPECT_EQ(one.an, three.an);
  EXPECT_EQ(one.temperature, three.temperature);
  EXPECT_EQ(one.converged, three.converged);
}

TEST(LeafPhysiology, ValidatorReportsTheFirstFailureInItsOrder) {
  auto fails = [](const Request& q, const std::string& text) {
    expect_throw_text<std::invalid_argument>([&] { q.solve(); }, text);
  };
  {
    Request q(2);
    q.n = 0;
    q.tolerance = -1;
    fails(q, "n_elements must be positive");
  }
  {
    Request q(2);
    q.bands = 0;
    fails(q, "n_bands must be positive");
  }
  {
    Request q(2);
    q.max_iterations = 0;
    q.tolerance = NAN;
    fails(q, "max_iterations must be positive");
  }
  {
    Request q(2);
    q.tolerance = INFINITY;
    fails(q, "tolerance must be finite and positive");
  }
  {
    // A short array late in the order beats a NaN early on: lengths come first.
    Request q(2);
    q.a["apar"][0] = NAN;
    q.a["quantum_yield"].pop_back();
    fails(q, "quantum_yield buffer length mismatch");
  }
  {
    Request q(2);
    q.a["apar"].pop_back();
    fails(q, "apar buffer length mismatch");
  }
  {
    Request q(2);
    q.a["rd25"][1] = INFINITY;
    q.a["apar"][0] = -5.0f;
    fails(q, "rd25 contains a non-finite value");
  }
  {
    // Energy-balance arrays are ignored without the balance, checked with it.
    Request q(2);
    q.a["leaf_width"].clear();
    EXPECT_NO_THROW(q.solve());
    q.eb = true;
    fails(q, "leaf_width buffer length mismatch");
  }
  {
    Request q(2);
    q.a["apar"][3] = -1.0f;
    q.a["co2"][0] = -4.0f;
    fails(q, "apar cannot be negative");
  }
  {
    // Element 0's dynamic test comes before element 1's static test.
    Request q(2);
    q.eb = true;
    q.a["emissivity"][0] = 1.5f;
    q.a["relative_humidity"][1] = 1.5f;
    fails(q, "dynamic physiology input is outside its physical domain");
    q.a["pressure"][0] = 0.0f;
    fails(q, "physiology input is outside its physical domain");
  }
}

TEST(LeafPhysiology, BatchKernelEqualsTheSingleElementSolveAndExpIsAccurate) {
  // 131 elements: two full 64-lane blocks and a short one, in varied conditions.
  Request q(131, 3);
  q.eb = true;
  for (int i = 0; i < 131; ++i) {
    for (int b = 0; b < 3; ++b) q.a["apar"][size_t(3 * i + b)] = float((i * 37 + b * 11) % 500);
    q.a["temperature"][size_t(i)] = 280.0f + float(i % 40);
    q.a["air_temperature"][size_t(i)] = 275.0f + float((i * 7) % 45);
    q.a["co2"][size_t(i)] = 300.0f + float(i % 9) * 20.0f;
    q.a["ball_berry_intercept"][size_t(i)] = float(i % 4) * 0.01f;
    q.a["wind"][size_t(i)] = float(i % 5) * 0.7f;
  }
  for (bool eb : {false, true}) {
    q.eb = eb;
    const auto batch = q.solve();
    std::vector<vesk::physiology::LeafInput> leaves;
    for (int i = 0; i < 131; ++i) {
      vesk::physiology::LeafInput in;
      const size_t k = size_t(i);
      in.apar_sum = q.a["apar"][3 * k] + q.a["apar"][3 * k + 1] + q.a["apar"][3 * k + 2];
      in.temperature = q.a["temperature"][k], in.co2 = q.a["co2"][k];
      in.relative_humidity = q.a["relative_humidity"][k], in.pressure = q.a["pressure"][k];
      in.wind = q.a["wind"][k], in.vcmax25 = q.a["vcmax25"][k], in.jmax25 = q.a["jmax25"][k];
      in.rd25 = q.a["rd25"][k], in.ball_berry_slope = q.a["ball_berry_slope"][k];
      in.ball_berry_intercept = q.a["ball_berry_intercept"][k];
      in.quantum_yield = q.a["quantum_yield"][k];
      in.absorbed_shortwave = q.a["absorbed_shortwave"][k];
      in.absorbed_longwave = q.a["absorbed_longwave"][k];
      in.air_temperature = q.a["air_temperature"][k], in.vapor_pressure = q.a["vapor_pressure"][k];
      in.emissivity = q.a["emissivity"][k], in.sidedness = q.a["sidedness"][k];
      in.leaf_width = q.a["leaf_width"][k], in.stomata_sides = q.a["stomata_sides"][k];
      leaves.push_back(in);
      const auto one = vesk::physiology::solve_leaf(in, {eb, true, q.max_iterations, q.tolerance});
      ASSERT_EQ(one.an, batch.an[k]) << "element " << i;
      ASSERT_EQ(one.ci, batch.ci[k]);
      ASSERT_EQ(one.phi_f, batch.phi_f[k]);
      ASSERT_EQ(one.converged, batch.converged[k] != 0);
      if (eb) {
        ASSERT_EQ(one.temperature, batch.temperature[k]);
        ASSERT_EQ(one.latent_heat, batch.latent_heat[k]);
      }
    }
    // The same leaves gathered by a driver: lane blocks of its own making, same bits.
    std::vector<vesk::physiology::LeafOutput> gathered(leaves.size());
    vesk::physiology::solve_leaves(leaves.data(), gathered.data(), leaves.size(),
                                   {eb, true, q.max_iterations, q.tolerance});
    for (size_t k = 0; k < leaves.size(); ++k) {
      ASSERT_EQ(gathered[k].an, batch.an[k]) << "gathered leaf " << k;
      ASSERT_EQ(gathered[k].gs, batch.gs[k]);
      ASSERT_EQ(gathered[k].phi_f, batch.phi_f[k]);
      ASSERT_EQ(gathered[k].converged, batch.converged[k] != 0);
      if (eb) {
        ASSERT_EQ(gathered[k].temperature, batch.temperature[k]);
      }
    }
  }
  // The solver's exp stays within 2 ulp of the library's over the range the model uses.
  int worst = 0;
  for (float x = -80.0f; x < 80.0f; x += 0.0137f) {
    const float a = vesk::physiology::exp_float(x), b = std::exp(x);
    worst = std::max(worst, std::abs(std::bit_cast<int32_t>(a) - std::bit_cast<int32_t>(b)));
  }
  EXPECT_LE(worst, 2) << "ulp distance from std::exp";
  EXPECT_GT(vesk::physiology::exp_float(1000.0f), 1e38f) << "clamped, not infinite";
  EXPECT_EQ(vesk::physiology::exp_float(-1000.0f), vesk::physiology::exp_float(-87.33654f));
}
