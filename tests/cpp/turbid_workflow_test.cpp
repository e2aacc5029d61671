#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "turbid/workflow_state.h"

using namespace vesk;
using namespace vesk::turbid;

namespace {

// A state of n samples whose leaves absorbed the given PAR, with yields per branch.
TurbidStateRecord fluorescent_state(size_t n) {
  TurbidStateRecord s;
  s.n_samples = int32_t(n);
  for (auto* a :
       {&s.sunlit_probability, &s.apar_sunlit, &s.apar_shaded, &s.phi_f_sunlit, &s.phi_f_shaded})
    a->resize(n);
  for (size_t i = 0; i < n; ++i) {
    s.sunlit_probability[i] = float(i) / float(n - 1);
    s.apar_sunlit[i] = 900.0f + 50.0f * float(i), s.apar_shaded[i] = 150.0f;
    // The last sample's sunlit leaf is saturated: it emits less than its shaded one.
    s.phi_f_sunlit[i] = i + 1 == n ? 0.001f : 0.012f, s.phi_f_shaded[i] = 0.02f;
  }
  return s;
}

}  // namespace

// Emitted photons are conserved from yield x absorbed PAR to the spectra: both sides'
// Lambertian radiance, pi L each, taken back to photons at each wavelength and summed over
// a fine grid, gives the sample's expected emission (the shape holds about 99.9 % of its
// photons in 600..900 nm).
TEST(TurbidWorkflow, SifSpectraConservePhotons) {
  const size_t n = 5;
  const TurbidStateRecord s = fluorescent_state(n);
  std::vector<float> wl;
  for (float w = 600.0f; w <= 900.0f; w += 0.5f) wl.push_back(w);
  const SampleSifSpectra spectra = sample_sif_spectra(s, wl);
  for (size_t i = 0; i < n; ++i) {
    double photons = 0.0;
    const double f = s.sunlit_probability[i];
    for (size_t b = 0; b < wl.size(); ++b) {
      const double radiance = spectra.shaded[b * n + i] + f * spectra.extra_sunlit[b * n + i];
      EXPECT_GE(spectra.shaded[b * n + i], 0.0f);
      EXPECT_GE(spectra.extra_sunlit[b * n + i], 0.0f);
      // W m-2 nm-1 of both sides over 0.5 nm, in umol of photons.
      photons += 2.0 * M_PI * radiance * 0.5 * (wl[b] * 1e-9 / 0.11962656) * 1e6;
    }
    const double expected =
        f * s.phi_f_sunlit[i] * s.apar_sunlit[i] + (1.0 - f) * s.phi_f_shaded[i] * s.apar_shaded[i];
    EXPECT_NEAR(photons, expected, 2e-3 * expected) << "sample " << i;
    EXPECT_NEAR(spectra.photons[i], expected, 1e-9 * expected);
  }
}

// The owner's conditional temperatures keep its emitted total: sum A f eps sigma T^4 over
// the sunlit leaves equals the sunlit area times eps sigma T_sunlit^4, likewise shaded.
TEST(TurbidWorkflow, OwnerThermalStateKeepsTheEmittedTotal) {
  TurbidStateRecord s;
  const size_t n = 6;
  s.n_samples = int32_t(n);
  for (auto* a :
       {&s.sunlit_probability, &s.temperature_sunlit, &s.temperature_shaded, &s.emissivity})
    a->resize(n);
  std::vector<float> area(n);
  double sun4 = 0.0, shade4 = 0.0, sun_area = 0.0, shade_area = 0.0;
  for (size_t i = 0; i < n; ++i) {
    s.sunlit_probability[i] = 0.1f + 0.15f * float(i);
    s.temperature_sunlit[i] = 300.0f + 2.0f * float(i), s.temperature_shaded[i] = 290.0f + float(i);
    s.emissivity[i] = 0.97f, area[i] = 0.01f * float(i + 1);
    const double f = s.sunlit_probability[i];
    sun4 += area[i] * f * std::pow(double(s.temperature_sunlit[i]), 4);
    shade4 += area[i] * (1 - f) * std::pow(double(s.temperature_shaded[i]), 4);
    sun_area += area[i] * f, shade_area += area[i] * (1 - f);
  }
  const OwnerThermalState t = owner_thermal_state(s, area.data(), 0, n);
  EXPECT_NEAR(sun_area * std::pow(double(t.temperature_sunlit), 4), sun4, 1e-5 * sun4);
  EXPECT_NEAR(shade_area * std::pow(double(t.temperature_shaded), 4), shade4, 1e-5 * shade4);
  EXPECT_NEAR(t.sunlit_fraction, sun_area / (sun_area + shade_area), 1e-6);
  EXPECT_FLOAT_EQ(t.emissivity, 0.97f);
}
