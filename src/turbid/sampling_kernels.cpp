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

SinCos leaf_zenith(uint32_t w, int32_t type) {
  if (type == LAD_SPHERICAL) {
    const float t = std::acos(unit_float(w));
    return {std::sin(t), std::cos(t)};
  }
  if (type == LAD_UNIFORM) {
    const float u = unit_float(w);
    // At the top of the unit range every backend takes the same pair, whatever its sin
    // and cos do one ulp below pi/2.
    if (u >= UNIT_FLOAT_MAX) return {1.0f, 7.54979e-08f};
    const float t = u * 1.5707964f;
    return {std::sin(t), std::cos(t)};
  }
  const float t = float(de_wit_code(w, type)) * 3.6572953e-10f;
  return {std::sin(t), std::cos(t)};
}

SinCos leaf_azimuth(uint32_t w) {
  const float u = unit_float(w);
  if (u >= UNIT_FLOAT_MAX) return {-3.019916e-07f, 1.0f};
  const float phi = u * 6.2831855f;
  return {std::sin(phi), std::cos(phi)};
}

float3 vertex(const TurbidSamplingFloat4& v) {
  return {v.x, v.y, v.z};
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
bool inside_closed_boundary(const float3& p, const TurbidSamplingFloat4* triangles,
                            size_t n_triangles, int8_t closed_orientation) {
  float sum = 0.0f;
  for (size_t k = 0; k < n_triangles; ++k) {
    const float3 v0 = vertex(triangles[3 * k]), v1 = vertex(triangles[3 * k + 1]),
                 v2 = vertex(triangles[3 * k + 2]);
    const float3 e1 = v1 - v0, e2 = v2 - v0, n = cross(e1, e2);
    const float3 d = p - v0;
    const float nn = dot(n, n), dn = dot(n, d);
    if (nn > 1e-20f && dn * dn <= nn * 1e-12f) {
      const float a11 = dot(e1, e1), a12 = dot(e1, e2), a22 = dot(e2, e2);
      const float gram = a11 * a22 - a12 * a12;
      if (gram > 1e-20f) {
        const float r1 = dot(d, e1), r2 = dot(d, e2);
        const float b1 = (a22 * r1 - a12 * r2) / gram;
        const float b2 = (a11 * r2 - a12 * r1) / gram;
        if (b1 >= -1e-06f && b2 >= -1e-06f && b1 + b2 <= 1.000001f) return true;
      }
    }
    const float3 a = v0 - p, b = v1 - p, c = v2 - p;
    const float la = length(a), lb = length(b), lc = length(c);
    const float num = dot(a, cross(b, c));
    const float den = la * lb * lc + dot(a, b) * lc + dot(a, c) * lb + dot(b, c) * la;
    sum += 2.0f * std::atan2(num, den);
  }
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
