#include <cmath>
#include <numeric>
#include <vector>

#include "lidar/waveform.h"
#include "test_util.h"

using namespace vesk::lidar;

TEST(LidarWaveform, KernelSumsToOneAndReachesOneBinPastThreeSigma) {
  // sigma = 4 ns * c / 2 / 2.35482 = 0.2546 m: h = trunc(0.764 / 0.15) = 5, 13 taps.
  const std::vector<float> k = pulse_kernel(4.0f, 0.15f);
  ASSERT_EQ(k.size(), 13u);
  EXPECT_NEAR(std::accumulate(k.begin(), k.end(), 0.0), 1.0, 1e-6);
  for (size_t i = 0; i < k.size() / 2; ++i) EXPECT_EQ(k[i], k[k.size() - 1 - i]) << "symmetric";
  // A coarse gate against a short pulse: h = 0 gives 3 taps, never 1.
  EXPECT_EQ(pulse_kernel(0.5f, 10.0f).size(), 3u);
}

TEST(LidarWaveform, PeaksAreStrictInteriorMaximaAboveTheThresholdNearestFirst) {
  const float origin[6] = {0, 0, 10, 0, 0, 10}, dir[6] = {0, 0, -1, 0, 0, -1};
  // Pulse 0: a flat top (bins 2, 3), a peak exactly at the threshold (6), a true peak
  // (8), and a rise into the last bin (11). Pulse 1: peaks at 1, 4, 7, 10.
  std::vector<float> w = {0, 1, 3, 3, 1, 0, 0.5f, 0, 2, 1, 0, 5,
                          0, 4, 0, 0, 3, 0, 0, 2, 0, 0, 1, 0};
  std::vector<float> pts;
  extract_peaks(w, active_ranges(w, 2, 12, 1), 0, 2, 12, 1, origin, dir, 1.0f, 0.5f, 0.5f, 3,
                pts);
  ASSERT_EQ(pts.size(), 4u * POINT_FLOATS);
  // Pulse 0 keeps bin 8 alone; its range is the bin centre, placed on the pulse axis.
  const float range = (8 + 0.5f) * 0.5f + 1.0f;
  EXPECT_FLOAT_EQ(pts[6], range);
  EXPECT_FLOAT_EQ(pts[2], 10.0f - range);
  EXPECT_EQ(pts[3], 2.0f);
  EXPECT_EQ(pts[4], 1.0f);
  EXPECT_EQ(pts[5], 1.0f);
  // Pulse 1 keeps the three nearest of its four peaks, numbered 1..3 of 3.
  for (int k = 0; k < 3; ++k) {
    const float* p = &pts[size_t(1 + k) * POINT_FLOATS];
    EXPECT_EQ(p[4], float(k + 1));
    EXPECT_EQ(p[5], 3.0f);
    EXPECT_EQ(p[7], 1.0f);
    EXPECT_FLOAT_EQ(p[6], (1 + 3 * k + 0.5f) * 0.5f + 1.0f);
  }
  // Too few bins: no points at all.
  for (int bins : {1, 2}) {
    std::vector<float> small(size_t(bins), 1.0f), none;
    extract_peaks(small, active_ranges(small, 1, bins, 1), 1, 1, bins, 1, origin, dir, 0.0f, 1.0f,
                  0.0f, 5, none);
    EXPECT_TRUE(none.empty());
  }
}

TEST(LidarWaveform, ConvolutionKeepsEnergyAwayFromTheGateAndLosesItAtTheEnds) {
  const std::vector<float> k = pulse_kernel(4.0f, 0.15f);
  std::vector<float> raw(2 * 40 * 2, 0.0f);
  raw[(0 * 40 + 20) * 2 + 1] = 1.0f;  // mid-gate, second wavelength
  raw[(1 * 40 + 0) * 2 + 0] = 1.0f;   // first bin of the second pulse
  std::vector<float> c = raw;
  convolve_waveform(c, 2, 40, 2, k, active_ranges(raw, 2, 40, 2));
  double mid = 0, edge = 0, leak = 0;
  for (int b = 0; b < 40; ++b) {
    mid += c[size_t(b * 2 + 1)];
    edge += c[size_t((40 + b) * 2)];
    leak += c[size_t(b * 2)] + c[size_t((40 + b) * 2 + 1)];
  }
  EXPECT_NEAR(mid, 1.0, 1e-6);
  // A deposit in bin 0 keeps only the kernel's centre tap and right half: the rest falls
  // before the gate and is not renormalised.
  EXPECT_NEAR(edge, std::accumulate(k.begin() + long(k.size() / 2), k.end(), 0.0), 1e-6);
  EXPECT_EQ(leak, 0.0) << "no mixing of wavelengths or pulses";
}
