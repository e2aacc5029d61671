#include "turbid/sampling_kernels.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "core/optical_media.h"
#include "core/workers.h"

namespace vesk::turbid {

namespace {

// ---- Sobol direction words ----------------------------------------------------------
// Sobol (1967) with the Joe and Kuo (2008) primitive polynomials and initial direction
// numbers. A line is (degree s, inner coefficients a, initial m_1..m_s); the words follow
// v_j = a_1 v_{j-1} ^ ... ^ a_{s-1} v_{j-s+1} ^ v_{j-s} ^ (v_{j-s} >> s), with
// v_j = m_{j+1} << (31 - j) for the first s. The table is built at compile time, so a
// candidate reads words and shares no state.
struct JoeKuoLine {
  int degree;
  uint32_t inner;  // a_1 is the highest of the degree - 1 bits
  uint32_t m[4];
};

constexpr int SOBOL_BITS = 32;
constexpr int SOBOL_ROWS = 5;  // dimensions 0, 1, 2, 3 and 5; 4 is reserved

struct DirectionWords {
  uint32_t v[SOBOL_ROWS][SOBOL_BITS];
};

constexpr void fill_words(uint32_t* v, const JoeKuoLine& line) {
  const int s = line.degree;
  for (int j = 0; j < s; ++j) v[j] = line.m[j] << (31 - j);
  for (int j = s; j < SOBOL_BITS; ++j) {
    uint32_t w = v[j - s] ^ (v[j - s] >> s);
    for (int k = 1; k < s; ++k)
      if ((line.inner >> (s - 1 - k)) & 1u) w ^= v[j - k];
    v[j] = w;
  }
}

constexpr DirectionWords build_direction_words() {
  DirectionWords d{};
  // The first dimension is van der Corput's: the bit reversal of the Gray code.
  for (int j = 0; j < SOBOL_BITS; ++j) d.v[0][j] = 0x80000000u >> j;
  fill_words(d.v[1], {1, 0, {1, 0, 0, 0}});  // x + 1
  fill_words(d.v[2], {2, 1, {1, 3, 0, 0}});  // x^2 + x + 1
  fill_words(d.v[3], {3, 1, {1, 3, 1, 0}});  // x^3 + x + 1
  fill_words(d.v[4], {4, 1, {1, 1, 3, 3}});  // x^4 + x + 1: the sixth Joe-Kuo dimension
  return d;
}

constexpr DirectionWords DIRECTION_WORDS = build_direction_words();

static_assert(DIRECTION_WORDS.v[3][2] == 0x20000000u && DIRECTION_WORDS.v[4][3] == 0x30000000u);

int sobol_row(int dimension) {
  return dimension >= 0 && dimension <= 3 ? dimension : dimension == 5 ? 4 : -1;
}

// ---- fixed-point leaf zenith (de Wit 1965 distributions) ------------------------------
// sin of an angle in [0, pi/2] in Q30 by CORDIC rotation (Volder 1959). The gain is
// folded into the start vector, x = K * 2^30; 24 steps leave an error near 2^-23, and
// the residual angle's sign picks each rotation. Shifts of negative values are
// arithmetic in C++20, as on every device.
constexpr int CORDIC_STEPS = 24;

struct CordicAngles {
  int32_t a[CORDIC_STEPS];
};

// atan(2^-step) in Q30; from step 10 on it equals 2^-step to the last bit kept.
constexpr CordicAngles build_cordic_angles() {
  CordicAngles t{{0x3243f6a9, 0x1dac6705, 0x0fadbafd, 0x07f56ea7, 0x03feab77, 0x01ffd55c,
                  0x00fffaab, 0x007fff55, 0x003fffeb, 0x001ffffd}};
  for (int step = 10; step < CORDIC_STEPS; ++step) t.a[step] = int32_t(1) << (30 - step);
  return t;
}

constexpr CordicAngles CORDIC_ATAN_Q30 = build_cordic_angles();

uint32_t cordic_sin_magnitude_q30(int32_t angle_q30) {
  if (angle_q30 == 0) return 0;
  int32_t x = 0x26dd3b6a, y = 0, z = angle_q30;
  for (int step = 0; step < CORDIC_STEPS; ++step) {
    // The rotation direction as a mask (0 for z >= 0, -1 below): (v ^ m) - m is v or -v.
    // The sign is data, so a branch here would mispredict half the time.
    const int32_t m = z >> 31;
    const int32_t dx = y >> step, dy = x >> step;
    x -= (dx ^ m) - m;
    y += (dy ^ m) - m;
    z -= (CORDIC_ATAN_Q30.a[step] ^ m) - m;
  }
  // Near a zero angle the rotation can overshoot below zero by a few units.
  return y < 0 ? uint32_t(-int64_t(y)) : uint32_t(y);
}

// s (Q30) times a Q32 constant, in Q32: the high word of the 32x32 product shifted left
// by two, with the top two bits of the low word.
uint32_t mul_q30_q32(uint32_t s, uint32_t k) {
  return uint32_t((uint64_t(s) * k) >> 30);
}

constexpr uint32_t INV_PI_Q32 = 0x517cc1b7u;
constexpr uint32_t INV_TWO_PI_Q32 = 0x28be60dcu;

// The cumulative distribution of the leaf zenith at code c (t = c / 2^32 of pi/2), on the
// same 32-bit scale, saturated. With 2t/pi = c / 2^32:
//   planophile   2t/pi + sin 2t / pi        erectophile  2t/pi - sin 2t / pi
//   plagiophile  2t/pi - sin 4t / (2 pi)    extremophile 2t/pi + sin 4t / (2 pi)
// Other codes give c itself, the uniform distribution.
uint32_t de_wit_cdf(uint32_t c, int32_t type) {
  int64_t f = c;
  if (type == LAD_PLANOPHILE || type == LAD_ERECTOPHILE) {
    // 2t = pi c / 2^32 lies in [0, pi): reflect the upper half onto the lower.
    const uint32_t folded = c <= 0x80000000u ? c : 0u - c;
    const int32_t angle = int32_t((uint64_t(folded) * 0xc90fdaa2u) >> 32);  // * pi/4
    const int64_t q = mul_q30_q32(cordic_sin_magnitude_q30(angle), INV_PI_Q32);
    f += type == LAD_PLANOPHILE ? q : -q;
  } else if (type == LAD_PLAGIOPHILE || type == LAD_EXTREMOPHILE) {
    // 4t = 2 pi c / 2^32 covers a full turn: fold each quadrant onto the first; sin 4t is
    // negative over the upper half.
    uint32_t folded;
    bool negative;
    if (c <= 0x40000000u) {
      folded = c;
      negative = false;
    } else if (c <= 0x80000000u) {
      folded = 0x80000000u - c;
      negative = false;
    } else if (c <= 0xc0000000u) {
      folded = c - 0x80000000u;
      negative = true;
    } else {
      folded = 0u - c;
      negative = true;
    }
    // folded * pi/2 as folded + folded * (pi/2 - 1), so that the constant fits Q32.
    const int32_t angle = int32_t(folded + uint32_t((uint64_t(folded) * 0x921fb544u) >> 32));
    int64_t q = mul_q30_q32(cordic_sin_magnitude_q30(angle), INV_TWO_PI_Q32);
    if (negative) q = -q;
    f += type == LAD_EXTREMOPHILE ? q : -q;
  }
  return uint32_t(std::clamp<int64_t>(f, 0, 0xffffffff));
}

// ---- scrambled points -----------------------------------------------------------------
// Nested uniform scrambling (Owen 1995) driven by a hash instead of stored permutations:
// each bit is flipped by a hash of the key, the dimension, its position and every output
// bit above it, so that values sharing a k-bit prefix still share one afterwards and the
// (t, m, s)-net structure survives. Within a dimension every bit waits for the hash of
// the bit above it, a chain of multiplies, so several dimensions of one candidate run
// side by side. XOR is associative: key and salt are combined once.
template <int K>
void owen_scramble_dimensions(const uint32_t (&raw)[K], uint32_t key, const int (&dims)[K],
                              uint32_t (&out)[K]) {
  uint32_t mixed[K], prefix[K];
  for (int k = 0; k < K; ++k) {
    mixed[k] = key ^ (uint32_t(dims[k]) * 0x9e3779b9u);
    prefix[k] = 0;
  }
  uint32_t counter = 0x378d82f5u;
  for (int p = 31; p >= 0; --p) {
    for (int k = 0; k < K; ++k) {
      const uint32_t bit = (lowbias32(counter ^ mixed[k] ^ prefix[k]) ^ (raw[k] >> p)) & 1u;
      prefix[k] = 2u * prefix[k] + bit;
    }
    counter += 0x7a143595u;
  }
  for (int k = 0; k < K; ++k) out[k] = prefix[k];  // after 32 bits the prefix is the value
}

template <int K>
void scrambled_point(uint32_t index, uint32_t key, const int (&dims)[K], uint32_t (&out)[K]) {
  uint32_t raw[K];
  for (int k = 0; k < K; ++k) raw[k] = sobol_raw(index, dims[k]);
  owen_scramble_dimensions(raw, key, dims, out);
}

// ---- the leaf normal ----------------------------------------------------------------
constexpr float UNIT_FLOAT_MAX = 0.99999994f;

struct SinCos {
  float s, c;
};

// sin and cos of x in [0, 6.2831855] by Cephes' sinf and cosf (Moshier): reduction to
// |z| <= pi/4 by octants with pi/4 in three parts, and their float polynomials (about
// 1 ulp). Written in plain float operations, so that a device repeating them (no fused
// multiply-adds) gets the same bits; libm's sin and cos differ between libraries.
SinCos sincos_float(float x) {
  int32_t j = int32_t(x * 1.27323954f);  // x / (pi / 4), truncated
  float y = float(j);
  if (j & 1) j += 1, y += 1.0f;  // to the even octant: |z| <= pi/4
  j &= 7;
  const float z =
      ((x - y * 0.78515625f) - y * 2.4187564849853515625e-4f) - y * 3.77489497744594108e-8f;
  const float zz = z * z;
  const float sin_z =
      ((-1.9515295891e-4f * zz + 8.3321608736e-3f) * zz - 1.6666654611e-1f) * zz * z + z;
  const float cos_z =
      ((2.443315711809948e-5f * zz - 1.388731625493765e-3f) * zz + 4.166664568298827e-2f) * zz *
          zz -
      0.5f * zz + 1.0f;
  // Octant j of the circle: sin and cos of x from those of z.
  const bool swap = j == 2 || j == 6;
  const float s = swap ? cos_z : sin_z, c = swap ? sin_z : cos_z;
  const bool sin_negative = j >= 4, cos_negative = j == 2 || j == 4;
  return {sin_negative ? -s : s, cos_negative ? -c : c};
}

SinCos leaf_zenith(uint32_t w, int32_t type) {
  if (type == LAD_SPHERICAL) {
    // t = acos(u): its cosine is u itself, its sine follows without an angle.
    const float u = unit_float(w);
    return {std::sqrt((1.0f - u) * (1.0f + u)), u};
  }
  if (type == LAD_UNIFORM) {
    const float u = unit_float(w);
    // At the top of the unit range every backend takes the same pair.
    if (u >= UNIT_FLOAT_MAX) return {1.0f, 7.54979e-08f};
    return sincos_float(u * 1.5707964f);
  }
  return sincos_float(float(de_wit_code(w, type)) * 3.6572953e-10f);
}

SinCos leaf_azimuth(uint32_t w) {
  const float u = unit_float(w);
  if (u >= UNIT_FLOAT_MAX) return {-3.019916e-07f, 1.0f};
  return sincos_float(u * 6.2831855f);
}

}  // namespace

uint32_t lowbias32(uint32_t x) {
  x ^= x >> 16;
  x *= 0x7feb352du;
  x ^= x >> 15;
  x *= 0x846ca68bu;
  x ^= x >> 16;
  return x;
}

uint32_t scramble_key(uint64_t seed, const TurbidSampleOwner& owner) {
  const uint64_t a = owner.words[0], b = owner.words[1];
  uint32_t k = lowbias32(uint32_t(seed) ^ 0x243f6a88u);
  k = lowbias32(k ^ uint32_t(seed >> 32) ^ 0x85a308d3u);
  k = lowbias32(k ^ uint32_t(a) ^ 0x13198a2eu);
  k = lowbias32(k ^ uint32_t(a >> 32) ^ 0x03707344u);
  k = lowbias32(k ^ uint32_t(b) ^ 0xa4093822u);
  return lowbias32(k ^ uint32_t(b >> 32) ^ 0x299f31d0u);
}

uint32_t owner_tag(const TurbidSampleOwner& owner) {
  const uint64_t a = owner.words[0], b = owner.words[1];
  const uint32_t ha = lowbias32(uint32_t(a) ^ (uint32_t(a >> 32) + 0x632be59bu));
  const uint32_t hb = lowbias32(uint32_t(b) ^ (uint32_t(b >> 32) + 0x85157af5u));
  return lowbias32(ha ^ hb);
}

uint32_t sobol_raw(uint32_t index, int dimension) {
  const int row = sobol_row(dimension);
  if (row < 0) return 0;
  const uint32_t* v = DIRECTION_WORDS.v[row];
  uint32_t g = index ^ (index >> 1), out = 0;
  while (g != 0) {
    out ^= v[std::countr_zero(g)];
    g &= g - 1;
  }
  return out;
}

uint32_t owen_scramble(uint32_t raw, uint32_t key, int dimension) {
  uint32_t out[1];
  owen_scramble_dimensions<1>({raw}, key, {dimension}, out);
  return out[0];
}

float unit_float(uint32_t v) {
  return std::min(float(v) * 2.3283064e-10f + 1.1641532e-10f, UNIT_FLOAT_MAX);
}

// Winding by solid angles (van Oosterom and Strackee 1983): the signed solid angles of a
// closed shell sum to 4 pi inside and 0 outside. A point on a face has no well-defined
// angle there, so it is accepted as soon as a face holds it.
namespace {

// atan2 in float without branches, so that a lane loop vectorises: reduction to [0, 1]
// by the larger magnitude, to |r| <= tan(pi/8) by the pi/4 shift, and Cephes' atanf
// polynomial (within about 2 ulp); the quadrant and the sign of y (of -0 too) as libm's.
inline __attribute__((always_inline)) float atan2_lane(float y, float x) {
  const float ax = std::fabs(x), ay = std::fabs(y);
  const float hi = ax > ay ? ax : ay, lo = ax > ay ? ay : ax;
  // One division: (a - 1) / (a + 1) with a = lo / hi is (lo - hi) / (lo + hi).
  const bool shift = lo > 0.41421356f * hi;
  const float q_num = shift ? lo - hi : lo, q_den = shift ? lo + hi : hi;
  const float r = q_den > 0.0f ? q_num / q_den : 0.0f;
  const float z = r * r;
  float t = (((8.05374449538e-2f * z - 1.38776856032e-1f) * z + 1.99777106478e-1f) * z -
             3.33329491539e-1f) *
                z * r +
            r;
  t = shift ? t + 0.78539816f : t;
  t = ay > ax ? 1.5707964f - t : t;
  t = x < 0.0f ? 3.1415927f - t : t;
  return std::signbit(y) ? -t : t;
}

constexpr int INSIDE_LANES = 16;

}  // namespace

// The triangles are taken in blocks of INSIDE_LANES, each lane adding its own partial sum
// of solid angles, the partial sums added in lane order at the end: the same for every
// thread count and backend that follows it. The sum is near 0 or 4 pi for any point off
// the surface, so the threshold 6 does not see the rounding of the order or of atan2; a
// point on the surface is accepted as soon as its block is done.
__attribute__((target_clones("avx512f", "avx2", "default"))) bool inside_closed_boundary(
    const float3& p, const TurbidSamplingFloat4* triangles, size_t n_triangles,
    int8_t closed_orientation) {
  float partial[INSIDE_LANES] = {};
  for (size_t base = 0; base < n_triangles; base += INSIDE_LANES) {
    const int lanes = int(std::min<size_t>(INSIDE_LANES, n_triangles - base));
    float ax[INSIDE_LANES], ay[INSIDE_LANES], az[INSIDE_LANES], bx[INSIDE_LANES], by[INSIDE_LANES],
        bz[INSIDE_LANES], cx[INSIDE_LANES], cy[INSIDE_LANES], cz[INSIDE_LANES];
    for (int l = 0; l < INSIDE_LANES; ++l) {
      // Lanes past the end repeat the block's first triangle and are masked out below.
      const TurbidSamplingFloat4* t = &triangles[3 * (base + size_t(l < lanes ? l : 0))];
      ax[l] = t[0].x - p.x, ay[l] = t[0].y - p.y, az[l] = t[0].z - p.z;
      bx[l] = t[1].x - p.x, by[l] = t[1].y - p.y, bz[l] = t[1].z - p.z;
      cx[l] = t[2].x - p.x, cy[l] = t[2].y - p.y, cz[l] = t[2].z - p.z;
    }
    int on_surface = 0;
#pragma omp simd reduction(| : on_surface)
    for (int l = 0; l < INSIDE_LANES; ++l) {
      // On the surface: within 1e-6 of the plane (relative to |n|) and inside the triangle.
      const float e1x = bx[l] - ax[l], e1y = by[l] - ay[l], e1z = bz[l] - az[l];
      const float e2x = cx[l] - ax[l], e2y = cy[l] - ay[l], e2z = cz[l] - az[l];
      const float nx = e1y * e2z - e1z * e2y, ny = e1z * e2x - e1x * e2z,
                  nz = e1x * e2y - e1y * e2x;
      const float dx = -ax[l], dy = -ay[l], dz = -az[l];  // p - v0
      const float nn = nx * nx + ny * ny + nz * nz, dn = nx * dx + ny * dy + nz * dz;
      const float a11 = e1x * e1x + e1y * e1y + e1z * e1z, a12 = e1x * e2x + e1y * e2y + e1z * e2z;
      const float a22 = e2x * e2x + e2y * e2y + e2z * e2z;
      const float gram = a11 * a22 - a12 * a12;
      const float r1 = dx * e1x + dy * e1y + dz * e1z, r2 = dx * e2x + dy * e2y + dz * e2z;
      // The barycentric bounds times the (positive) Gram determinant: no division.
      const float g1 = a22 * r1 - a12 * r2, g2 = a11 * r2 - a12 * r1;
      const bool live = l < lanes;
      on_surface |= (live && nn > 1e-20f && dn * dn <= nn * 1e-12f && gram > 1e-20f &&
                     g1 >= -1e-06f * gram && g2 >= -1e-06f * gram && g1 + g2 <= 1.000001f * gram)
                        ? 1
                        : 0;
      // Van Oosterom and Strackee (1983): the triangle's solid angle seen from p.
      const float la = std::sqrt(ax[l] * ax[l] + ay[l] * ay[l] + az[l] * az[l]);
      const float lb = std::sqrt(bx[l] * bx[l] + by[l] * by[l] + bz[l] * bz[l]);
      const float lc = std::sqrt(cx[l] * cx[l] + cy[l] * cy[l] + cz[l] * cz[l]);
      const float num = ax[l] * (by[l] * cz[l] - bz[l] * cy[l]) +
                        ay[l] * (bz[l] * cx[l] - bx[l] * cz[l]) +
                        az[l] * (bx[l] * cy[l] - by[l] * cx[l]);
      const float den = la * lb * lc + (ax[l] * bx[l] + ay[l] * by[l] + az[l] * bz[l]) * lc +
                        (ax[l] * cx[l] + ay[l] * cy[l] + az[l] * cz[l]) * lb +
                        (bx[l] * cx[l] + by[l] * cy[l] + bz[l] * cz[l]) * la;
      partial[l] += live ? 2.0f * atan2_lane(num, den) : 0.0f;
    }
    if (on_surface) return true;
  }
  float sum = 0.0f;
  for (int l = 0; l < INSIDE_LANES; ++l) sum += partial[l];
  return float(closed_orientation) * sum > 6.0f;
}

// Inverts the cumulative distribution by bisection over all 2^32 codes. Always 32 rounds,
// so the cost and the answer do not depend on where the root lies, on any backend.
uint32_t de_wit_code(uint32_t w, int32_t leaf_angle_distribution) {
  uint32_t lo = 0, hi = 0xffffffffu;
  for (int round = 0; round < 32; ++round) {
    const uint32_t mid = lo + (hi - lo) / 2;
    if (de_wit_cdf(mid, leaf_angle_distribution) < w)
      lo = mid + 1;
    else
      hi = mid;
  }
  return lo;
}

// The position is written for every candidate, so a debug dump shows the rejected ones
// too; only an accepted one gets a leaf normal and draws its two angle dimensions.
TurbidSamplingCandidate sample_candidate(const SamplingOwnerGeometry& owner, uint32_t index) {
  TurbidSamplingCandidate rec;
  rec.candidate_index = index;
  uint32_t xyz[3];
  scrambled_point<3>(index, owner.scramble_key, {0, 1, 2}, xyz);
  for (int k = 0; k < 3; ++k)
    rec.position[k] =
        unit_float(xyz[k]) * (owner.bounds_max[k] - owner.bounds_min[k]) + owner.bounds_min[k];
  const float3 p = {rec.position[0], rec.position[1], rec.position[2]};
  if (!inside_closed_boundary(p, owner.triangles, owner.n_triangles, owner.closed_orientation))
    return rec;
  uint32_t angles[2];
  scrambled_point<2>(index, owner.scramble_key, {3, 5}, angles);
  const SinCos zenith = leaf_zenith(angles[0], owner.leaf_angle_distribution);
  const SinCos azimuth = leaf_azimuth(angles[1]);
  rec.normal[0] = zenith.s * azimuth.c;
  rec.normal[1] = zenith.s * azimuth.s;
  rec.normal[2] = zenith.c;
  rec.status = 1;
  return rec;
}

void fill_candidates(const SamplingOwnerGeometry& owner, uint32_t first,
                     TurbidSamplingCandidate* out, size_t n) {
  const int64_t count = int64_t(n);
#pragma omp parallel for schedule(static) num_threads(resolve_thread_count(0))
  for (int64_t i = 0; i < count; ++i) out[i] = sample_candidate(owner, first + uint32_t(i));
}

}  // namespace vesk::turbid
