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

std::vector<TurbidSamplingFloat4> triangle_soup(const std::vector<float3>& v,
                                                const std::vector<int3>& tris, bool reversed) {
  std::vector<TurbidSamplingFloat4> out;
  for (const int3& t : tris) {
    for (int32_t i : {t.x, reversed ? t.z : t.y, reversed ? t.y : t.z}) {
      const float3 p = v[size_t(i)];
      out.push_back({p.x, p.y, p.z, 0.0f});
    }
  }
  return out;
}

// The unit cube [0, 1]^3, counter-clockwise seen from outside; vertex i = (x, y, z) bits.
std::vector<TurbidSamplingFloat4> unit_cube(bool reversed = false) {
  std::vector<float3> v;
  for (int i = 0; i < 8; ++i) v.push_back({float(i & 1), float((i >> 1) & 1), float(i >> 2)});
  const std::vector<int3> t = {{0, 2, 3}, {0, 3, 1}, {4, 5, 7}, {4, 7, 6}, {0, 1, 5}, {0, 5, 4},
                               {2, 6, 7}, {2, 7, 3}, {0, 4, 6}, {0, 6, 2}, {1, 3, 7}, {1, 7, 5}};
  return triangle_soup(v, t, reversed);
}

std::vector<TurbidSamplingFloat4> unit_icosphere(bool reversed = false) {
  const backend::MeshGeometry m = make_sphere(1.0f, {0, 0, 0}, 2);
  return triangle_soup(m.vertices, m.indices, reversed);
}

bool inside(const std::vector<TurbidSamplingFloat4>& t, float3 p, int8_t orientation = 1) {
  return inside_closed_boundary(p, t.data(), t.size() / 3, orientation);
}

SamplingOwnerGeometry owner_of(const std::vector<TurbidSamplingFloat4>& t, float lo, float hi,
                               int32_t lad = LAD_SPHERICAL) {
  SamplingOwnerGeometry o;
  o.scramble_key = 0x86ed6df0u;
  o.leaf_angle_distribution = lad;
  for (int k = 0; k < 3; ++k) o.bounds_min[k] = lo, o.bounds_max[k] = hi;
  o.triangles = t.data();
  o.n_triangles = t.size() / 3;
  return o;
}

// Normalised cumulative distributions of the leaf zenith, integrated by hand from the
// densities of the medium table.
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

struct EnvThreads {
  explicit EnvThreads(const char* n) {
    if (const char* v = std::getenv("VESK_NUM_THREADS")) saved = v, had = true;
    setenv("VESK_NUM_THREADS", n, 1);
  }
  ~EnvThreads() {
    if (had)
      setenv("VESK_NUM_THREADS", saved.c_str(), 1);
    else
      unsetenv("VESK_NUM_THREADS");
  }
  std::string saved;
  bool had = false;
};

}  // namespace

TEST(TurbidSamplingHash, KnownValuesAndWhatTheKeyAndTagDependOn) {
  // Golden values from an independent Python transcription (integers masked to 32 bits):
  //   def lowbias32(x):
  //       x ^= x >> 16; x = x * 0x7feb352d & M; x ^= x >> 15; x = x * 0x846ca68b & M
  //       return x ^ x >> 16
  // with the key chain, the tag and the scramble written out the same way.
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
  for (uint64_t seed : {0ull, 1ull, 1ull << 32}) {
    EXPECT_EQ(scramble_key(seed, third), scramble_key(seed, a))
        << "the third word is no hash input";
    EXPECT_NE(scramble_key(seed, high), scramble_key(seed, a));
  }
  EXPECT_NE(scramble_key(1, a), scramble_key(1ull << 32, a)) << "both seed halves enter the key";
  EXPECT_EQ(owner_tag(third), owner_tag(a));
  EXPECT_NE(owner_tag(high), owner_tag(a));
}

TEST(TurbidSamplingSobol, UnscrambledDimensionsMatchTheJoeKuoTable) {
  // From SciPy 1.10 (Debian), whose table is the published new-joe-kuo-6.21201 one:
  //   x = scipy.stats.qmc.Sobol(d=6, scramble=False, bits=32).random(32)
  //   [int(v * 32) for v in x[:, d]]                      (first 32 points, top 5 bits)
  //   s = Sobol(d=6, scramble=False, bits=32); s.fast_forward(n); s.random(1) * 2**32
  // SciPy's column k is our dimension k, its column 0 being van der Corput's, and its row
  // n is our candidate index n: SciPy walks the points in Gray-code order, so row n is the
  // XOR of the direction words over the set bits of n ^ (n >> 1), as here. Column 4 is
  // our reserved dimension.
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
  // Far indices reach every direction word, down to the last bit.
  const uint32_t far_index[4] = {1000, 0x12345678u, 0xdeadbeefu, 0xfffffffeu};
  const uint32_t far[4][5] = {{0x38400000u, 0x18c00000u, 0x84c00000u, 0xad400000u, 0xe8400000u},
                              {0x22be74d8u, 0x50066438u, 0xaec675b8u, 0x6e9404e8u, 0xc8c5ae38u},
                              {0x1986df8du, 0xfbdd9a3bu, 0xba6d6621u, 0x56e9df9fu, 0x53fd6bd7u},
                              {0x80000001u, 0x7fffffffu, 0x45005555u, 0xd0050093u, 0xc0bbbbbbu}};
  for (int k = 0; k < 5; ++k) {
    for (uint32_t i = 0; i < 32; ++i)
      ASSERT_EQ(sobol_raw(i, dims[k]), top5[k][i] << 27) << "dimension " << dims[k] << " i " << i;
    for (int j = 0; j < 4; ++j)
      EXPECT_EQ(sobol_raw(far_index[j], dims[k]), far[j][k])
          << "dimension " << dims[k] << " index " << far_index[j];
  }
}

TEST(TurbidSamplingSobol, OwenScramblingKeepsTheNetStructure) {
  // The first 2^k points put one value in every interval of width 2^-k, per dimension,
  // and dimensions 0 and 1 stay a (0, m, 2)-net: one point per 2^-a x 2^-(m-a) box.
  for (uint32_t key : {0u, 0x86ed6df0u, 0xffffffffu}) {
    for (int d : {0, 1, 2, 3, 5}) {
      int moved = 0;
      for (int k = 1; k <= 10; ++k) {
        std::vector<int> hits(size_t(1) << k, 0);
        for (uint32_t i = 0; i < (1u << k); ++i) {
          const uint32_t raw = sobol_raw(i, d), out = owen_scramble(raw, key, d);
          moved += out != raw;
          ++hits[out >> (32 - k)];
        }
        ASSERT_EQ(*std::min_element(hits.begin(), hits.end()), 1)
            << "key " << key << " dimension " << d << " k " << k;
      }
      EXPECT_GT(moved, 1000) << "the scramble left dimension " << d << " nearly unchanged";
    }
    const int m = 10;
    for (int a = 0; a <= m; ++a) {
      std::vector<int> hits(size_t(1) << m, 0);
      for (uint32_t i = 0; i < (1u << m); ++i) {
        const uint64_t x = uint64_t(owen_scramble(sobol_raw(i, 0), key, 0)) >> (32 - a);
        const uint64_t y = uint64_t(owen_scramble(sobol_raw(i, 1), key, 1)) >> (32 - (m - a));
        ++hits[(x << (m - a)) | y];
      }
      ASSERT_EQ(*std::min_element(hits.begin(), hits.end()), 1) << "key " << key << " a " << a;
    }
  }
  EXPECT_NE(owen_scramble(sobol_raw(7, 3), 1, 3), owen_scramble(sobol_raw(7, 3), 2, 3));
  EXPECT_NE(owen_scramble(sobol_raw(7, 3), 1, 3), owen_scramble(sobol_raw(7, 3), 1, 2));
}

TEST(TurbidSamplingSobol, UnitFloatStaysInsideTheOpenInterval) {
  EXPECT_EQ(unit_float(0), 1.1641532e-10f);
  EXPECT_EQ(unit_float(0xffffffffu), 0.99999994f);
  EXPECT_EQ(unit_float(0xffffff00u), 0.99999994f);
  EXPECT_EQ(unit_float(0x80000000u), 0.5f);
  EXPECT_LT(unit_float(0xfffffe00u), 0.99999994f);
}

TEST(TurbidSamplingInside, CubeInteriorExteriorAndSurface) {
  const auto cube = unit_cube(), reversed = unit_cube(true);
  for (float3 p : {float3{0.5f, 0.5f, 0.5f}, float3{0.01f, 0.99f, 0.5f}}) {
    EXPECT_TRUE(inside(cube, p));
    EXPECT_TRUE(inside(reversed, p, -1));
    EXPECT_FALSE(inside(cube, p, -1)) << "inward orientation on an outward mesh";
  }
  for (float3 p : {float3{1.5f, 0.5f, 0.5f}, float3{-0.01f, 0.5f, 0.5f}, float3{0.5f, 0.5f, -1e-3f},
                   float3{3, 3, 3}}) {
    EXPECT_FALSE(inside(cube, p));
    EXPECT_FALSE(inside(reversed, p, -1));
  }
  // On a face, an edge or a corner the point is taken whatever the sum would say.
  for (float3 p : {float3{0.5f, 0.5f, 0.0f}, float3{0.3f, 1.0f, 0.7f}, float3{1.0f, 0.5f, 0.0f},
                   float3{1, 1, 1}, float3{0.5f, 0.5f, 1.0f + 1e-7f}}) {
    EXPECT_TRUE(inside(cube, p));
    EXPECT_TRUE(inside(cube, p, -1));
  }
  EXPECT_FALSE(inside_closed_boundary({0.5f, 0.5f, 0.5f}, cube.data(), 0, 1));
}

TEST(TurbidSamplingInside, IcosphereAgreesWithRadiusAndWinding) {
  const auto sphere = unit_icosphere(), reversed = unit_icosphere(true);
  std::mt19937 g(5);
  std::uniform_real_distribution<float> U(-1.4f, 1.4f);
  int in = 0;
  for (int i = 0; i < 3000; ++i) {
    const float3 p = {U(g), U(g), U(g)};
    const float r = length(p);
    const bool hit = inside(sphere, p);
    if (r < 0.97f) {
      EXPECT_TRUE(hit) << "radius " << r;
    }
    if (r > 1.01f) {
      EXPECT_FALSE(hit) << "radius " << r;
    }
    EXPECT_EQ(inside(reversed, p, -1), hit) << "radius " << r;
    in += hit;
  }
  EXPECT_GT(in, 500);
}

TEST(TurbidSamplingLeafNormal, DeWitCodeInvertsTheCumulativeDistribution) {
  // The code's analytic CDF must land on w / 2^32, up to the CORDIC's sine error (near
  // 2^-23) over pi; a wrong fold or sign is off by 0.01 or more.
  for (int32_t lad : {LAD_PLANOPHILE, LAD_ERECTOPHILE, LAD_PLAGIOPHILE, LAD_EXTREMOPHILE}) {
    double worst = 0;
    for (uint32_t k = 0; k <= 4097; ++k) {
      const uint32_t w = k <= 4096 ? k * 1048573u : 0xffffffffu;
      const double t = double(de_wit_code(w, lad)) * (PI_D / 2) / 4294967296.0;
      worst = std::max(worst, std::abs(zenith_cdf(lad, t) - double(w) / 4294967296.0));
    }
    EXPECT_LT(worst, 6e-8) << "leaf angle type " << lad;
  }
}

TEST(TurbidSamplingLeafNormal, HistogramsFollowEachDistribution) {
  // Every candidate of the cube lies inside, so all carry normals. Zenith in 10 bins of
  // 9 degrees times azimuth in 4 sectors, against the integrated densities. The points
  // are low-discrepancy, so a right sampler scores far below the random-sample bound
  // (p < 1e-6 with 39 degrees of freedom); a wrong density scores in the thousands.
  const auto cube = unit_cube();
  const int nz = 10, np = 4, n = 1 << 16;
  std::vector<TurbidSamplingCandidate> out(n);
  for (int32_t lad = 0; lad < LEAF_ANGLE_TYPES; ++lad) {
    fill_candidates(owner_of(cube, 0.0f, 1.0f, lad), 0, out.data(), out.size());
    std::vector<double> counts(nz * np, 0.0);
    for (const auto& c : out) {
      ASSERT_EQ(c.status, 1u);
      const double z = c.normal[2], len2 = z * z + double(c.normal[0]) * c.normal[0] +
                                           double(c.normal[1]) * c.normal[1];
      ASSERT_NEAR(len2, 1.0, 1e-6) << "normal not unit, type " << lad;
      ASSERT_GE(z, 0.0) << "leaf normals point up";
      double phi = std::atan2(double(c.normal[1]), double(c.normal[0]));
      if (phi < 0) phi += 2 * PI_D;
      const int iz = std::min(nz - 1, int(std::acos(std::min(z, 1.0)) / (PI_D / 2) * nz));
      const int ip = std::min(np - 1, int(phi / (2 * PI_D) * np));
      counts[size_t(iz * np + ip)] += 1;
    }
    double chi = 0;
    for (int iz = 0; iz < nz; ++iz) {
      const double p =
          zenith_cdf(lad, (iz + 1) * PI_D / 2 / nz) - zenith_cdf(lad, iz * PI_D / 2 / nz);
      for (int ip = 0; ip < np; ++ip) {
        const double e = p / np * n, o = counts[size_t(iz * np + ip)];
        chi += (o - e) * (o - e) / e;
      }
    }
    EXPECT_LT(chi, 90.0) << "leaf angle type " << lad;
  }
}

TEST(TurbidSamplingFiller, SameBitsAsOneByOneOnAnyThreadCount) {
  const auto sphere = unit_icosphere();
  const SamplingOwnerGeometry owner = owner_of(sphere, -1.0f, 1.0f, LAD_PLAGIOPHILE);
  const uint32_t first = 1000;
  const size_t n = 1 << 14;
  std::vector<TurbidSamplingCandidate> ref(n);
  for (size_t i = 0; i < n; ++i) ref[i] = sample_candidate(owner, first + uint32_t(i));
  for (const char* threads : {"1", "3"}) {
    EnvThreads env(threads);
    std::vector<TurbidSamplingCandidate> out(n);
    fill_candidates(owner, first, out.data(), n);
    EXPECT_EQ(std::memcmp(out.data(), ref.data(), n * sizeof(out[0])), 0) << threads << " threads";
  }
  // Accepted share = mesh volume / box volume (divergence theorem over the faces).
  double volume = 0;
  for (size_t k = 0; k < sphere.size(); k += 3) {
    const auto& a = sphere[k];
    const auto& b = sphere[k + 1];
    const auto& c = sphere[k + 2];
    volume += (a.x * (double(b.y) * c.z - double(b.z) * c.y) +
               a.y * (double(b.z) * c.x - double(b.x) * c.z) +
               a.z * (double(b.x) * c.y - double(b.y) * c.x)) /
              6.0;
  }
  size_t accepted = 0;
  for (size_t i = 0; i < n; ++i) {
    ASSERT_EQ(ref[i].candidate_index, first + i);
    accepted += ref[i].status;
    if (ref[i].status == 0) {
      EXPECT_EQ(ref[i].normal[2], 1.0f);
      EXPECT_GT(length({ref[i].position[0], ref[i].position[1], ref[i].position[2]}), 0.97f);
    }
  }
  EXPECT_NEAR(double(accepted) / n, volume / 8.0, 0.005);
}
