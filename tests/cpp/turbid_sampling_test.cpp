#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/mesh_generators.h"
#include "core/optical_media.h"
#include "test_util.h"
#include "turbid/sampling_kernels.h"

using namespace vesk;
using namespace vesk::turbid;

namespace {

constexpr double PI_D = 3.141592653589793;

// A mesh as the sampler stores it; `reversed` flips every winding.
std::vector<TurbidSamplingFloat4> soup(const backend::MeshGeometry& m, bool reversed = false) {
  std::vector<TurbidSamplingFloat4> out;
  for (const int3& t : m.indices)
    for (int32_t i : {t.x, reversed ? t.z : t.y, reversed ? t.y : t.z})
      out.push_back({m.vertices[size_t(i)].x, m.vertices[size_t(i)].y, m.vertices[size_t(i)].z});
  return out;
}

// [0, 1]^3, counter-clockwise seen from outside; vertex i has coordinates (i&1, i&2, i&4).
backend::MeshGeometry unit_cube() {
  backend::MeshGeometry m;
  for (int i = 0; i < 8; ++i)
    m.vertices.push_back({float(i & 1), float(i >> 1 & 1), float(i >> 2)});
  m.indices = {{0, 2, 3}, {0, 3, 1}, {4, 5, 7}, {4, 7, 6}, {0, 1, 5}, {0, 5, 4},
               {2, 6, 7}, {2, 7, 3}, {0, 4, 6}, {0, 6, 2}, {1, 3, 7}, {1, 7, 5}};
  return m;
}

bool inside(const std::vector<TurbidSamplingFloat4>& t, float3 p, int8_t orientation = 1) {
  return inside_closed_boundary(p, t.data(), t.size() / 3, orientation);
}

SamplingOwnerGeometry owner_of(const std::vector<TurbidSamplingFloat4>& t, float lo, float hi,
                               int32_t lad) {
  SamplingOwnerGeometry o;
  o.scramble_key = 0x86ed6df0u;
  o.leaf_angle_distribution = lad;
  std::fill_n(o.bounds_min, 3, lo);
  std::fill_n(o.bounds_max, 3, hi);
  o.triangles = t.data();
  o.n_triangles = t.size() / 3;
  return o;
}

// Leaf zenith distributions integrated by hand from the densities f(t) of the media table.
double zenith_cdf(int32_t lad, double t) {
  switch (lad) {
    case LAD_SPHERICAL:
      return 1.0 - std::cos(t);
    case LAD_PLANOPHILE:
      return (2 * t + std::sin(2 * t)) / PI_D;
    case LAD_ERECTOPHILE:
      return (2 * t - std::sin(2 * t)) / PI_D;
    case LAD_PLAGIOPHILE:
      return (2 * t - 0.5 * std::sin(4 * t)) / PI_D;
    case LAD_EXTREMOPHILE:
      return (2 * t + 0.5 * std::sin(4 * t)) / PI_D;
    default:
      return 2 * t / PI_D;
  }
}

}  // namespace

TEST(TurbidSamplingHash, KnownValuesAndWhatKeyAndTagDependOn) {
  // From an independent Python transcription with every product masked to 32 bits, e.g.
  //   x ^= x >> 16; x = x * 0x7feb352d & M; x ^= x >> 15; x = x * 0x846ca68b & M; x ^ x >> 16
  EXPECT_EQ(lowbias32(0), 0u);
  EXPECT_EQ(lowbias32(1), 0x688990c0u);
  EXPECT_EQ(lowbias32(0x12345678), 0xf5e71c96u);
  const TurbidSampleOwner a{{0x1111222233334444ull, 0x5555666677778888ull, 7}};
  EXPECT_EQ(scramble_key(0x0123456789abcdefull, a), 0x86ed6df0u);
  EXPECT_EQ(owner_tag(a), 0x8db79de2u);
  EXPECT_EQ(owen_scramble(0x12345678u, 0xdeadbeefu, 5), 0x0e391973u);
  EXPECT_EQ(owen_scramble(0, 0, 0), 0x1471905du);

  TurbidSampleOwner third = a, high = a;
  third.words[2] = 99;
  high.words[1] ^= 1ull << 40;
  EXPECT_EQ(scramble_key(5, third), scramble_key(5, a)) << "the third word is no hash input";
  EXPECT_NE(scramble_key(5, high), scramble_key(5, a));
  EXPECT_NE(scramble_key(1, a), scramble_key(1ull << 32, a)) << "both seed halves enter the key";
  EXPECT_EQ(owner_tag(third), owner_tag(a));
  EXPECT_NE(owner_tag(high), owner_tag(a));
}

TEST(TurbidSamplingSobol, UnscrambledDimensionsMatchSciPysJoeKuoTable) {
  // SciPy 1.10 (Debian) ships the published new-joe-kuo-6.21201 table:
  //   x = scipy.stats.qmc.Sobol(d=6, scramble=False, bits=32).random(32)
  //   [int(v * 32) for v in x[:, d]]            first 32 points, top five bits
  //   s = Sobol(d=6, scramble=False, bits=32); s.fast_forward(n); s.random(1) * 2**32
  // SciPy's column k is our dimension k (column 0 is van der Corput's, column 4 our
  // reserved one) and its row n our index n: it walks the points in Gray-code order, so
  // row n is the XOR of the direction words over the set bits of n ^ (n >> 1).
  const int dims[5] = {0, 1, 2, 3, 5};
  const uint32_t top5[5][32] = {{0, 16, 24, 8,  12, 28, 20, 4, 6, 22, 30, 14, 10, 26, 18, 2,
                                 3, 19, 27, 11, 15, 31, 23, 7, 5, 21, 29, 13, 9,  25, 17, 1},
                                {0,  16, 8, 24, 12, 28, 4,  20, 10, 26, 2,  18, 6, 22, 14, 30,
                                 15, 31, 7, 23, 3,  19, 11, 27, 5,  21, 13, 29, 9, 25, 1,  17},
                                {0,  16, 8, 24, 20, 4,  28, 12, 30, 14, 22, 6, 10, 26, 2,  18,
                                 15, 31, 7, 23, 27, 11, 19, 3,  17, 1,  25, 9, 5,  21, 13, 29},
                                {0,  16, 8,  24, 28, 12, 20, 4,  14, 30, 6,  22, 18, 2,  26, 10,
                                 21, 5,  29, 13, 9,  25, 1,  17, 27, 11, 19, 3,  7,  23, 15, 31},
                                {0,  16, 24, 8,  4,  20, 28, 12, 10, 26, 18, 2,  14, 30, 22, 6,
                                 31, 15, 7,  23, 27, 11, 3,  19, 21, 5,  13, 29, 17, 1,  9,  25}};
  // Far indices reach every direction word down to its last bit.
  const uint32_t far_index[4] = {1000, 0x12345678u, 0xdeadbeefu, 0xfffffffeu};
  const uint32_t far[4][5] = {{0x38400000u, 0x18c00000u, 0x84c00000u, 0xad400000u, 0xe8400000u},
                              {0x22be74d8u, 0x50066438u, 0xaec675b8u, 0x6e9404e8u, 0xc8c5ae38u},
                              {0x1986df8du, 0xfbdd9a3bu, 0xba6d6621u, 0x56e9df9fu, 0x53fd6bd7u},
                              {0x80000001u, 0x7fffffffu, 0x45005555u, 0xd0050093u, 0xc0bbbbbbu}};
  for (int k = 0; k < 5; ++k) {
    for (uint32_t i = 0; i < 32; ++i)
      ASSERT_EQ(sobol_raw(i, dims[k]), top5[k][i] << 27) << "dimension " << dims[k] << " i " << i;
    for (int j = 0; j < 4; ++j)
      EXPECT_EQ(sobol_raw(far_index[j], dims[k]), far[j][k]) << "dimension " << dims[k];
  }
}

TEST(TurbidSamplingSobol, ScramblingKeepsTheNetAndUnitFloatsStayOpen) {
  // The first 2^k points put one value in each interval of width 2^-k, per dimension, and
  // dimensions 0 and 1 stay a (0, 10, 2)-net: one point per 2^-a x 2^-(10-a) box.
  const auto top = [](uint32_t v, int bits) { return uint32_t(uint64_t(v) >> (32 - bits)); };
  for (uint32_t key : {0u, 0x86ed6df0u, 0xffffffffu}) {
    for (int d : {0, 1, 2, 3, 5})
      for (int k = 1; k <= 10; ++k) {
        std::vector<int> hits(size_t(1) << k, 0);
        for (uint32_t i = 0; i < (1u << k); ++i)
          ++hits[top(owen_scramble(sobol_raw(i, d), key, d), k)];
        ASSERT_EQ(*std::min_element(hits.begin(), hits.end()), 1) << "dim " << d << " k " << k;
      }
    for (int a = 0; a <= 10; ++a) {
      std::vector<int> hits(1024, 0);
      for (uint32_t i = 0; i < 1024; ++i)
        ++hits[top(owen_scramble(sobol_raw(i, 0), key, 0), a) << (10 - a) |
               top(owen_scramble(sobol_raw(i, 1), key, 1), 10 - a)];
      ASSERT_EQ(*std::min_element(hits.begin(), hits.end()), 1) << "key " << key << " a " << a;
    }
  }
  EXPECT_EQ(unit_float(0), 1.1641532e-10f);
  EXPECT_EQ(unit_float(0x80000000u), 0.5f);
  EXPECT_EQ(unit_float(0xffffffffu), 0.99999994f);
  EXPECT_LT(unit_float(0xfffffe00u), 0.99999994f);
}

TEST(TurbidSamplingInside, CubeAndIcosphereWithEitherWinding) {
  const auto cube = soup(unit_cube()), cube_in = soup(unit_cube(), true);
  for (float3 p : {float3{0.5f, 0.5f, 0.5f}, float3{0.01f, 0.99f, 0.5f}}) {
    EXPECT_TRUE(inside(cube, p) && inside(cube_in, p, -1));
    EXPECT_FALSE(inside(cube, p, -1)) << "an outward mesh declared inward";
  }
  for (float3 p :
       {float3{1.5f, 0.5f, 0.5f}, float3{-0.01f, 0.5f, 0.5f}, float3{0.5f, 0.5f, -1e-3f}})
    EXPECT_FALSE(inside(cube, p) || inside(cube_in, p, -1));
  // On a face, an edge or a corner the point is taken whatever the winding sum says.
  for (float3 p : {float3{0.5f, 0.5f, 0.0f}, float3{0.3f, 1.0f, 0.7f}, float3{1.0f, 0.5f, 0.0f},
                   float3{1, 1, 1}, float3{0.5f, 0.5f, 1.0f + 1e-7f}})
    EXPECT_TRUE(inside(cube, p) && inside(cube, p, -1));
  EXPECT_FALSE(inside_closed_boundary({0.5f, 0.5f, 0.5f}, cube.data(), 0, 1));

  const auto mesh = make_sphere(1.0f, {0, 0, 0}, 2);
  const auto sphere = soup(mesh), sphere_in = soup(mesh, true);
  std::mt19937 g(5);
  std::uniform_real_distribution<float> U(-1.4f, 1.4f);
  for (int i = 0; i < 3000; ++i) {
    const float3 p = {U(g), U(g), U(g)};
    const bool hit = inside(sphere, p);
    EXPECT_TRUE(hit || length(p) > 0.97f) << "radius " << length(p);
    EXPECT_TRUE(!hit || length(p) < 1.01f) << "radius " << length(p);
    EXPECT_EQ(inside(sphere_in, p, -1), hit) << "radius " << length(p);
  }
}

TEST(TurbidSamplingLeafNormal, ZenithFollowsEachDistribution) {
  // The de Wit code's analytic CDF lands on w / 2^32 up to the CORDIC's sine error (near
  // 2^-23) over pi; a wrong fold or sign is off by 0.01 or more.
  for (int32_t lad = LAD_PLANOPHILE; lad <= LAD_EXTREMOPHILE; ++lad)
    for (uint32_t k = 0; k <= 4097; ++k) {
      const uint32_t w = k <= 4096 ? k * 1048573u : 0xffffffffu;
      const double t = double(de_wit_code(w, lad)) * (PI_D / 2) / 4294967296.0;
      ASSERT_NEAR(zenith_cdf(lad, t), double(w) / 4294967296.0, 6e-8) << "type " << lad;
    }
  // Histograms of 2^16 normals from a cube whose every candidate lies inside: zenith in 10
  // bins of 9 degrees times 4 azimuth sectors. The points are low-discrepancy, so a right
  // sampler scores far below the bound for random samples (p < 1e-6 at 39 degrees of
  // freedom); a wrong density scores in the thousands.
  const auto cube = soup(unit_cube());
  const int nz = 10, np = 4, n = 1 << 16;
  std::vector<TurbidSamplingCandidate> out(n);
  for (int32_t lad = 0; lad < LEAF_ANGLE_TYPES; ++lad) {
    fill_candidates(owner_of(cube, 0.0f, 1.0f, lad), 0, out.data(), out.size());
    std::vector<double> counts(nz * np, 0.0);
    for (const auto& c : out) {
      const double x = c.normal[0], y = c.normal[1], z = c.normal[2];
      ASSERT_EQ(c.status, 1u);
      ASSERT_NEAR(x * x + y * y + z * z, 1.0, 1e-6) << "type " << lad;
      ASSERT_GE(z, 0.0) << "type " << lad;
      const double phi = std::atan2(y, x) + (y < 0 ? 2 * PI_D : 0.0);
      counts[size_t(std::min(nz - 1, int(std::acos(std::min(z, 1.0)) / (PI_D / 2) * nz)) * np +
                    std::min(np - 1, int(phi / (2 * PI_D) * np)))] += 1;
    }
    double chi = 0;
    for (int i = 0; i < nz * np; ++i) {
      const double t0 = (i / np) * PI_D / 2 / nz, t1 = t0 + PI_D / 2 / nz;
      const double e = (zenith_cdf(lad, t1) - zenith_cdf(lad, t0)) / np * n;
      chi += (counts[size_t(i)] - e) * (counts[size_t(i)] - e) / e;
    }
    EXPECT_LT(chi, 90.0) << "leaf angle type " << lad;
  }
}

TEST(TurbidSamplingFiller, SameBitsAsOneByOneOnAnyThreadCount) {
  const auto sphere = soup(make_sphere(1.0f, {0, 0, 0}, 2));
  const SamplingOwnerGeometry owner = owner_of(sphere, -1.0f, 1.0f, LAD_PLAGIOPHILE);
  const size_t n = 5001;
  std::vector<TurbidSamplingCandidate> ref(n), out(n);
  for (size_t i = 0; i < n; ++i) {
    ref[i] = sample_candidate(owner, 1000 + uint32_t(i));
    ASSERT_EQ(ref[i].candidate_index, 1000 + i);
    ASSERT_TRUE(ref[i].status == 1 || ref[i].normal[2] == 1.0f) << "a rejected normal is +z";
  }
  const char* env = std::getenv("VESK_NUM_THREADS");
  const std::string saved = env ? env : "";
  for (const char* threads : {"1", "3"}) {
    setenv("VESK_NUM_THREADS", threads, 1);
    fill_candidates(owner, 1000, out.data(), n);
    EXPECT_EQ(std::memcmp(out.data(), ref.data(), n * sizeof(out[0])), 0) << threads << " threads";
  }
  if (env)
    setenv("VESK_NUM_THREADS", saved.c_str(), 1);
  else
    unsetenv("VESK_NUM_THREADS");
}
