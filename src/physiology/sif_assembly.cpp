#include "physiology/sif_assembly.h"

#include "core/sif_field.h"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/array_check.h"
#include "core/memory_limit.h"
#include "core/workers.h"

namespace vesk::physiology {

namespace {
// 2^-20: how far outside its box, relative to the extent, a sample still counts as
// inside, so that points written by float transforms onto a face are not lost.
constexpr float BOX_TOLERANCE = 9.536743e-07f;
constexpr float HALF_PI = 1.5707964f;
constexpr float TWO_PI = 6.2831855f;

}  // namespace

}  // namespace vesk::physiology

namespace vesk::backend {
namespace {

constexpr size_t DEVICE_INDEX_LIMIT = 0x7FFFFFFF;

// The product of the factors, refused by name when it wraps size_t or would not fit the
// signed 32-bit index the device kernels use.
size_t checked_size(const char* name, std::initializer_list<size_t> factors) {
  size_t p = 1;
  for (const size_t f : factors)
    if (__builtin_mul_overflow(p, f, &p))
      throw std::invalid_argument(std::string(name) + " size overflows size_t");
  if (p > DEVICE_INDEX_LIMIT)
    throw std::invalid_argument(std::string(name) + " exceeds native device indexing");
  return p;
}

size_t length_of(const FloatSpan& s) {
  return s.data ? s.size : ~size_t(0);
}
size_t length_of(const IntSpan& s) {
  return s.data ? s.size : ~size_t(0);
}

// Whether all n values are finite and, with non_negative, none is below 0. One
// branch-free pass; long arrays are split over the threads (an OR does not care about
// order).
bool all_clear(const float* x, size_t n, bool non_negative) {
  constexpr size_t CHUNK = size_t(1) << 16;
  const size_t chunks = (n + CHUNK - 1) / CHUNK;
  // As unsigned bits, every value below 0 (but not -0) lies above 0x80000000.
  const uint32_t limit = non_negative ? 0x80000000u : 0xffffffffu;
  uint32_t bad = 0;
  const int threads = chunks > 16 ? resolve_thread_count(0) : 1;
#pragma omp parallel for reduction(| : bad) schedule(static) num_threads(threads)
  for (size_t c = 0; c < chunks; ++c) {
    const size_t end = std::min(n, (c + 1) * CHUNK);
    uint32_t chunk_bad = 0;
#pragma omp simd reduction(| : chunk_bad)
    for (size_t i = c * CHUNK; i < end; ++i) {
      const uint32_t bits = std::bit_cast<uint32_t>(x[i]);
      // An all-ones exponent is NaN or infinity.
      chunk_bad |= uint32_t((bits & 0x7f800000u) == 0x7f800000u) | uint32_t(bits > limit);
    }
    bad |= chunk_bad;
  }
  return bad == 0;
}

// A source value the validator refuses: NaN, infinite, or below 0 (-0 is allowed).
inline uint32_t not_clear(float x) {
  const uint32_t bits = std::bit_cast<uint32_t>(x);
  return uint32_t((bits & 0x7f800000u) == 0x7f800000u) | uint32_t(bits > 0x80000000u);
}

bool any_negative(const float* x, size_t n) {
  int32_t bad = 0;
#pragma omp simd reduction(| : bad)
  for (size_t i = 0; i < n; ++i) bad |= x[i] < 0.0f;
  return bad != 0;
}

struct Sizes {
  size_t bins, slots, joint, spatial, orientation;
};

Sizes sizes_of(const SifSourceAssemblyRequestView& v) {
  const size_t bins = size_t(v.theta_bins) * size_t(v.phi_bins);
  const size_t slots = size_t(v.n_instances) * size_t(v.cell_stride) * bins;
  return {bins, slots, slots * size_t(v.n_bands),
          size_t(v.n_instances) * size_t(v.cell_stride) * size_t(v.n_bands),
          size_t(v.n_instances) * bins * size_t(v.n_bands)};
}

}  // namespace

namespace {

// A request's counts and sizes, once the checks that read no values passed.
struct Shape {
  size_t instances, samples, bands, stride, bins, sample_xyz, bounds_xyz, source;
};

// The validator's first steps: counts, table sizes, array lengths.
Shape checked_shape(const SifSourceAssemblyRequestView& v) {
  if (v.n_instances < 1) throw std::invalid_argument("n_instances must be positive");
  if (v.n_samples < 1) throw std::invalid_argument("n_samples must be positive");
  if (v.n_bands < 1) throw std::invalid_argument("n_bands must be positive");
  if (v.cell_stride < 1) throw std::invalid_argument("SIF cell_stride must be positive");
  if (v.theta_bins < 1 || v.phi_bins < 1)
    throw std::invalid_argument("SIF orientation dimensions must be positive");

  Shape s;
  s.instances = size_t(v.n_instances), s.samples = size_t(v.n_samples);
  s.bands = size_t(v.n_bands), s.stride = size_t(v.cell_stride);
  s.bins = checked_size("SIF orientation", {size_t(v.theta_bins), size_t(v.phi_bins)});
  checked_size("SIF joint field", {s.instances, s.stride, s.bins, s.bands});
  s.sample_xyz = checked_size("sample xyz", {s.samples, 3});
  s.bounds_xyz = checked_size("bounds xyz", {s.instances, 3});
  s.source = checked_size("SIF source", {s.samples, s.bands});
  checked_size("SIF spatial field", {s.instances, s.stride, s.bands});
  checked_size("SIF orientation field", {s.instances, s.bins, s.bands});

  check_length("positions", length_of(v.positions), s.sample_xyz);
  check_length("normals", length_of(v.normals), s.sample_xyz);
  check_length("instance_ids", length_of(v.instance_ids), s.samples);
  check_length("grid_dims", length_of(v.grid_dims), s.bounds_xyz);
  check_length("source_band_major", length_of(v.source_band_major), s.source);
  check_length("direct_source_band_major", length_of(v.direct_source_band_major), s.source);
  check_length("bounds_min", length_of(v.bounds_min), s.bounds_xyz);
  check_length("bounds_max", length_of(v.bounds_max), s.bounds_xyz);
  return s;
}

// Whether every check after the shape passes, the source values aside: finite
// positions, normals and bounds, instance ids in range, usable grids.
bool clear_but_sources(const SifSourceAssemblyRequestView& v, const Shape& s) {
  int32_t bad_id = 0;
#pragma omp simd reduction(| : bad_id)
  for (size_t i = 0; i < s.samples; ++i)
    bad_id |= (v.instance_ids.data[i] < 0) | (v.instance_ids.data[i] >= v.n_instances);
  if (bad_id || !all_clear(v.positions.data, s.sample_xyz, false) ||
      !all_clear(v.normals.data, s.sample_xyz, false) ||
      !all_clear(v.bounds_min.data, s.bounds_xyz, false) ||
      !all_clear(v.bounds_max.data, s.bounds_xyz, false))
    return false;
  for (size_t k = 0; k < s.instances; ++k) {
    const int32_t* dims = v.grid_dims.data + 3 * k;
    size_t cells = 1;
    for (size_t a = 0; a < 3; ++a)
      if (dims[a] < 1 || __builtin_mul_overflow(cells, size_t(dims[a]), &cells) ||
          !(v.bounds_max[3 * k + a] > v.bounds_min[3 * k + a]))
        return false;
    // Within the stride, the count also fits the device index.
    if (cells > s.stride) return false;
  }
  return true;
}

// Throws the validator's answer for a request found faulty by other means.
[[noreturn]] void refuse(const SifSourceAssemblyRequestView& v) {
  validate_sif_source_assembly_request(v);
  throw std::logic_error("SIF source assembly: a check disagrees with the validator");
}

bool sources_clear(const SifSourceAssemblyRequestView& v, const Shape& s) {
  return all_clear(v.source_band_major.data, s.source, true) &&
         all_clear(v.direct_source_band_major.data, s.source, true);
}

}  // namespace

void validate_sif_source_assembly_request(const SifSourceAssemblyRequestView& v) {
  const Shape s = checked_shape(v);
  // Valid input, the common case, is cleared by one pass over each array; anything else
  // goes through the checks in their order to name its first fault.
  if (clear_but_sources(v, s) && sources_clear(v, s)) return;
  check_finite("positions", v.positions.data, s.sample_xyz);
  check_finite("normals", v.normals.data, s.sample_xyz);
  check_finite("source_band_major", v.source_band_major.data, s.source);
  check_finite("direct_source_band_major", v.direct_source_band_major.data, s.source);
  check_finite("bounds_min", v.bounds_min.data, s.bounds_xyz);
  check_finite("bounds_max", v.bounds_max.data, s.bounds_xyz);
  for (size_t i = 0; i < s.samples; ++i)
    if (v.instance_ids[i] < 0 || v.instance_ids[i] >= v.n_instances)
      throw std::invalid_argument("instance_ids is out of range");
  // The direct share is a part of the source, so it cannot be negative either.
  if (any_negative(v.source_band_major.data, s.source) ||
      any_negative(v.direct_source_band_major.data, s.source))
    throw std::invalid_argument("SIF source cannot be negative");

  for (size_t k = 0; k < s.instances; ++k) {
    const int32_t* dims = v.grid_dims.data + 3 * k;
    if (dims[0] < 1 || dims[1] < 1 || dims[2] < 1)
      throw std::invalid_argument("SIF grid_dims must be positive");
    const size_t cells =
        checked_size("SIF instance cell", {size_t(dims[0]), size_t(dims[1]), size_t(dims[2])});
    if (cells > s.stride)
      throw std::invalid_argument("SIF grid_dims must be positive and fit cell_stride");
    for (size_t a = 0; a < 3; ++a)
      if (!(v.bounds_max[3 * k + a] > v.bounds_min[3 * k + a]))
        throw std::invalid_argument("SIF instance bounds must have positive extent");
  }
}

namespace {

// ---- binning: the rule's results, 16 samples at a time ---------------------------------

// The joint slot (instance, cell, bin) of a sample by the rule itself, or -1 when it
// cannot be binned. Slots fit int32: the validator holds the joint table below 2^31.
int32_t rule_slot(const SifSourceAssemblyRequestView& v, size_t i, size_t bins) {
  const size_t k = size_t(v.instance_ids[i]);
  const int32_t* dims = v.grid_dims.data + 3 * k;
  int64_t axis[3];
  for (size_t a = 0; a < 3; ++a) {
    axis[a] = vesk::sif_axis_cell(v.positions[3 * i + a], v.bounds_min[3 * k + a],
                                        v.bounds_max[3 * k + a], dims[a]);
    if (axis[a] < 0) return -1;
  }
  const int64_t cell = (axis[2] * dims[1] + axis[1]) * dims[0] + axis[0];
  if (cell >= int64_t(dims[0]) * dims[1] * dims[2]) return -1;
  const int64_t bin = vesk::sif_orientation_bin(
      {v.normals[3 * i], v.normals[3 * i + 1], v.normals[3 * i + 2]}, v.theta_bins, v.phi_bins);
  if (bin < 0) return -1;
  return int32_t((int64_t(k) * v.cell_stride + cell) * int64_t(bins) + bin);
}

// The rule costs two divisions per axis and an acos and an atan2 per normal, in long
// dependent chains. The block version below runs the same float arithmetic in vector
// lanes, but settles a coordinate or an angle only where the rule's own roundings cannot
// change the answer, and hands every other sample to rule_slot:
//  - an axis: the scaled position t = (x / e) * n is 4e-6 relative clear of both faces
//    of its cell (t and the faces carry a few 1e-7 of rounding), so neither face test
//    of the rule can fire;
//  - an angle: cheap estimates (within 1e-4 rad) propose a bin, and the normal is
//    compared in double with directions ANGLE_GAP rad inside the bin's edges. The rule's
//    float acos and atan2 are within 1e-6 rad of the true angles and their scaling adds
//    a few 1e-7 relative, so inside those directions the rule gives that bin too.
// Normals on the axes and points on faces thus always take the rule.
constexpr double ANGLE_GAP = 4e-6;
constexpr float FACE_GAP = 4e-6f;
constexpr int32_t MAX_TABLED_BINS = 65536;
constexpr int32_t MAX_FAST_CELLS = 1 << 24;  // cell indices exact in float
constexpr int LANES = 16;

// Edge directions of the orientation bins, in double.
struct OrientationEdges {
  bool tabled = false;
  std::vector<double> theta_z;  // per zenith edge j: cos(edge + gap), cos(edge - gap)
  std::vector<double> phi_cs;   // per azimuth edge j: cos(edge), sin(edge)

  OrientationEdges(int32_t theta_bins, int32_t phi_bins) {
    if (theta_bins > MAX_TABLED_BINS || phi_bins > MAX_TABLED_BINS) return;
    tabled = true;
    constexpr double HALF_PI = 1.5707963267948966, TWO_PI = 6.283185307179586;
    theta_z.resize(2 * size_t(theta_bins) + 2);
    for (int32_t j = 0; j <= theta_bins; ++j) {
      const double edge = HALF_PI * double(j) / double(theta_bins);
      theta_z[2 * size_t(j)] = std::cos(edge + ANGLE_GAP);
      theta_z[2 * size_t(j) + 1] = std::cos(edge - ANGLE_GAP);
    }
    phi_cs.resize(2 * size_t(phi_bins) + 2);
    for (int32_t j = 0; j <= phi_bins; ++j) {
      const double edge = TWO_PI * double(j) / double(phi_bins);
      phi_cs[2 * size_t(j)] = std::cos(edge);
      phi_cs[2 * size_t(j) + 1] = std::sin(edge);
    }
  }
};

#define VESK_INLINE inline __attribute__((always_inline))
// By value, so that lane loops can turn them into vector selects.
VESK_INLINE float vmin(float a, float b) {
  return b < a ? b : a;
}
VESK_INLINE float vmax(float a, float b) {
  return a < b ? b : a;
}

// Samples [begin, end) into slot_of. Compiled for AVX-512, AVX2 and the baseline, chosen
// at run time; each gives the rule's slots.
__attribute__((target_clones("avx512f", "avx2", "default"))) void classify_range(
    const SifSourceAssemblyRequestView& v, size_t bins, const OrientationEdges& edges, size_t begin,
    size_t end, int32_t* slot_of) {
  if (!edges.tabled) {
    for (size_t i = begin; i < end; ++i) slot_of[i] = rule_slot(v, i, bins);
    return;
  }
  const int32_t T = v.theta_bins, P = v.phi_bins, stride = v.cell_stride, B = int32_t(bins);
  const float fT = float(T), fP = float(P);
  const double* theta_z = edges.theta_z.data();
  const double* phi_cs = edges.phi_cs.data();
  constexpr float FMIN = std::numeric_limits<float>::min();
  constexpr float FMAX = std::numeric_limits<float>::max();
  alignas(64) float pos[3][LANES], lo[3][LANES], hi[3][LANES], nrm[3][LANES];
  alignas(64) int32_t dims[3][LANES], inst[LANES], cell[3][LANES];
  alignas(64) int32_t good[LANES], rule[LANES], slot[LANES], tj[LANES], pj[LANES];
  alignas(64) float ux[LANES], uy[LANES], uz[LANES];

  for (size_t first = begin; first < end; first += LANES) {
    const size_t count = std::min(size_t(LANES), end - first);
    for (size_t l = 0; l < size_t(LANES); ++l) {
      // A short last block repeats its first sample in the spare lanes.
      const size_t i = first + (l < count ? l : 0);
      const size_t k = size_t(v.instance_ids[i]);
      inst[l] = int32_t(k);
      for (size_t a = 0; a < 3; ++a) {
        pos[a][l] = v.positions[3 * i + a];
        nrm[a][l] = v.normals[3 * i + a];
        lo[a][l] = v.bounds_min[3 * k + a];
        hi[a][l] = v.bounds_max[3 * k + a];
        dims[a][l] = v.grid_dims[3 * k + a];
      }
    }
#pragma omp simd
    for (int l = 0; l < LANES; ++l) {
      good[l] = 1;
      rule[l] = 0;
    }
    for (int a = 0; a < 3; ++a) {
#pragma omp simd
      for (int l = 0; l < LANES; ++l) {
        const float x = pos[a][l] - lo[a][l], e = hi[a][l] - lo[a][l];
        const int32_t n = dims[a][l];
        const float margin = e * physiology::BOX_TOLERANCE;
        const int32_t inside =
            (e >= FMIN) & (e <= FMAX) & (std::fabs(x) <= FMAX) & !(x < -margin) & !(x > e + margin);
        const float xs = inside ? x : 0.0f, es = inside ? e : 1.0f;
        const float t = vmin((vmin(vmax(xs, 0.0f), es) / es) * float(n), float(MAX_FAST_CELLS));
        const int32_t i = std::min(int32_t(t), n - 1);
        const float fi = float(i);
        const int32_t clear = (t >= fi * (1.0f + FACE_GAP)) &
                              ((i == n - 1) | (t <= (fi + 1.0f) * (1.0f - FACE_GAP))) &
                              (n <= MAX_FAST_CELLS);
        cell[a][l] = i;
        rule[l] |= inside & !clear;
        good[l] &= inside;
      }
    }
#pragma omp simd
    for (int l = 0; l < LANES; ++l) {
      const float length =
          std::sqrt(nrm[0][l] * nrm[0][l] + nrm[1][l] * nrm[1][l] + nrm[2][l] * nrm[2][l]);
      const int32_t nonzero = length > 0.0f;
      const float ls = nonzero ? length : 1.0f;
      const float z = nrm[2][l] / ls;
      // A leaf has two faces: a normal and its opposite are the same orientation.
      const float flip = z < 0.0f ? -1.0f : 1.0f;
      const float x = flip * (nrm[0][l] / ls), y = flip * (nrm[1][l] / ls), zc = flip * z;
      ux[l] = x, uy[l] = y, uz[l] = vmin(vmax(zc, 0.0f), 1.0f);
      // acos by Abramowitz and Stegun 4.4.45, within 7e-5 rad.
      const float zu = uz[l];
      const float theta = std::sqrt(1.0f - zu) *
                          (1.5707288f + zu * (-0.2121144f + zu * (0.0742610f - 0.0187293f * zu)));
      tj[l] = std::min(int32_t(theta * (fT / 1.5707964f)), T - 1);
      // atan on [0, 1] by a short odd polynomial, then placed in its octant.
      const float ax = std::fabs(x), ay = std::fabs(y);
      const float big = vmax(ax, ay), small = vmin(ax, ay);
      const float r = big > 0.0f ? small / (big > 0.0f ? big : 1.0f) : 0.0f;
      const float s = r * r;
      float phi = ((-0.0464964749f * s + 0.15931422f) * s - 0.327622764f) * s * r + r;
      phi = ay > ax ? 1.5707964f - phi : phi;
      phi = x < 0.0f ? 3.1415927f - phi : phi;
      phi = y < 0.0f ? 6.2831855f - phi : phi;
      pj[l] = std::min(int32_t(phi * (fP / 6.2831855f)), P - 1);
      good[l] &= nonzero;
    }
#pragma omp simd
    for (int l = 0; l < LANES; ++l) {
      const int32_t j = tj[l], m = pj[l];
      const double dz = uz[l], dx = ux[l], dy = uy[l];
      const int32_t theta_clear = (T == 1) | (((j == 0) | (dz < theta_z[2 * j])) &
                                              ((j == T - 1) | (dz > theta_z[2 * j + 3])));
      // r sin(angle - edge m) and r sin(edge m+1 - angle), both above r sin(ANGLE_GAP).
      const double gap = ANGLE_GAP * std::sqrt(dx * dx + dy * dy);
      const int32_t phi_clear =
          (P == 1) | ((dy * phi_cs[2 * m] - dx * phi_cs[2 * m + 1] > gap) &
                      (dx * phi_cs[2 * m + 3] - dy * phi_cs[2 * m + 2] > gap));
      rule[l] = good[l] & (rule[l] | !theta_clear | !phi_clear);
      // Unsigned: lanes that are not good may hold anything, and must not overflow.
      const uint32_t c = (uint32_t(cell[2][l]) * uint32_t(dims[1][l]) + uint32_t(cell[1][l])) *
                             uint32_t(dims[0][l]) +
                         uint32_t(cell[0][l]);
      const uint32_t q = (uint32_t(inst[l]) * uint32_t(stride) + c) * uint32_t(B) +
                         uint32_t(j) * uint32_t(P) + uint32_t(m);
      slot[l] = good[l] ? int32_t(q) : -1;
    }
    for (size_t l = 0; l < count; ++l)
      slot_of[first + l] = rule[l] ? rule_slot(v, first + l, bins) : slot[l];
  }
}

// ---- accumulation ---------------------------------------------------------------------

// Bands go through in groups of up to 8, each group one task. A group's sums are kept
// per slot with its bands side by side, source and direct interleaved, so that a sample
// updates one or two cache lines.
constexpr size_t MAX_GROUP = 8;
constexpr size_t GROUP_CACHE_BYTES = size_t(1) << 20;
constexpr size_t ROUND_BYTES = size_t(64) << 20;
// Samples per tile: a tile's source values are checked, then added while still in cache.
constexpr size_t TILE = 256;
// Samples per classification chunk and table rows per finishing chunk.
constexpr size_t CLASSIFY_CHUNK = 8192;
constexpr size_t FINISH_CHUNK = 256;

// Whether any of n values is one the validator refuses; branch-free, so it vectorises.
uint32_t any_not_clear(const float* x, size_t n) {
  uint32_t bad = 0;
#pragma omp simd reduction(| : bad)
  for (size_t i = 0; i < n; ++i) bad |= not_clear(x[i]);
  return bad;
}

// Samples [start, end) into the sums of W bands, in sample order. An unusable sample
// (slot -1) adds to the spare row `spare`, which nothing reads: no branch in the loop.
template <size_t W>
void add_tile(const int32_t* slot, size_t start, size_t end, const float* const* source,
              const float* const* direct, double* sums, size_t spare) {
  for (size_t i = start; i < end; ++i) {
    const int32_t q = slot[i];
    double* cell = sums + (q >= 0 ? size_t(q) : spare) * (2 * W);
    for (size_t j = 0; j < W; ++j) {
      cell[2 * j] += double(source[j][i]);
      cell[2 * j + 1] += double(direct[j][i]);
    }
  }
}

using TileAdder = void (*)(const int32_t*, size_t, size_t, const float* const*, const float* const*,
                           double*, size_t);
constexpr TileAdder TILE_ADDERS[MAX_GROUP + 1] = {nullptr,     add_tile<1>, add_tile<2>,
                                                  add_tile<3>, add_tile<4>, add_tile<5>,
                                                  add_tile<6>, add_tile<7>, add_tile<8>};

struct GroupSums {
  double* sums;         // [slot, then a spare row][band][source, direct]
  double* spatial;      // [instance][cell][band]
  double* orientation;  // [instance][bin][band]
  double* instance;     // [instance][band][source, direct]
};

}  // namespace

// Checks. The validator's answer, always, but valid sources are read once: the shape and
// everything else are checked first, and the source values, the bulk of a request, in
// the pass that adds them up. A request found faulty is handed to the validator to name
// its first fault, and nothing computed leaves.
//
// Threads and determinism. Every double sum is built by one thread in a fixed order, so
// the bits never depend on the thread count or on which thread runs what:
//  1. each sample's joint slot is a pure function of the sample (chunks of samples);
//  2. groups of bands are independent tasks: a band's joint and direct sums are added in
//     sample order, then its spatial, orientation and instance sums are reduced from its
//     joint sums in slot order (the counts, integers, are one more task);
//  3. the means are written by chunks of table rows, each value from those sums.
// Rounds of groups bound the double scratch (to ROUND_BYTES, or a group per thread).
SifSourceAssemblyResult assemble_sif_source(const SifSourceAssemblyRequestView& v) {
  const Shape shape = checked_shape(v);
  if (!clear_but_sources(v, shape)) refuse(v);
  const Sizes z = sizes_of(v);
  const size_t n = size_t(v.n_samples), nb = size_t(v.n_bands);
  const size_t instances = size_t(v.n_instances), stride = size_t(v.cell_stride);
  const size_t bins = z.bins, slots = z.slots;
  const size_t rows = instances * stride;   // (instance, cell)
  const size_t orients = instances * bins;  // (instance, bin)
  const int threads = resolve_thread_count(0);
  // Four times as many groups as threads when bands allow, so that the tasks even out,
  // and few enough bands that a group's sums stay in a core's cache.
  const size_t cached = GROUP_CACHE_BYTES / (2 * sizeof(double) * slots);
  const size_t group = std::clamp<size_t>(
      std::min((nb + 4 * size_t(threads) - 1) / (4 * size_t(threads)), cached), 1, MAX_GROUP);
  const size_t chunks = (n + CLASSIFY_CHUNK - 1) / CLASSIFY_CHUNK;
  const size_t groups = (nb + group - 1) / group;
  const size_t group_doubles = group * (2 * (slots + 1) + rows + orients + 2 * instances);
  // As many groups per round as ROUND_BYTES of sums hold (at least one per thread): each
  // round ends in barriers, which cost most when the machine is shared.
  const size_t per_round =
      std::min(groups, std::max(size_t(threads), ROUND_BYTES / (sizeof(double) * group_doubles)));

  // Refused up front rather than failing half-way: the float tables and counts, a slot
  // per sample, and the double sums of one round.
  const double table_bytes = 4.0 * double(z.spatial + z.orientation + 2 * z.joint + rows + orients +
                                          slots + n + instances);
  try {
    check_request_memory("SIF source assembly",
                         table_bytes + 8.0 * double(per_round) * double(group_doubles));
  } catch (const RequestTooLarge&) {
    if (!sources_clear(v, shape)) refuse(v);  // a fault in the request comes first
    throw;
  }

  SifSourceAssemblyResult r;
  r.spatial_field.resize(z.spatial);
  r.orientation_field.resize(z.orientation);
  r.joint_field.resize(z.joint);
  r.direct_joint_field.resize(z.joint);
  r.spatial_counts.resize(rows);
  r.orientation_counts.resize(orients);
  r.joint_counts.resize(slots);
  r.execution = {BACKEND_EMBREE, WORKFLOW_SIF_SOURCE_ASSEMBLY, "embree.cpu.sif_source_assembly",
                 true};
  // Left uninitialised: every entry is written before it is read.
  const auto slot_of = std::make_unique_for_overwrite<int32_t[]>(n);
  const auto scratch = std::make_unique_for_overwrite<double[]>(per_round * group_doubles);
  std::vector<uint32_t> instance_count(instances);
  const OrientationEdges edges(v.theta_bins, v.phi_bins);

  const float* source = v.source_band_major.data;
  const float* direct = v.direct_source_band_major.data;
  const int32_t* slot = slot_of.get();
  uint32_t* jc = r.joint_counts.data();
  uint32_t* sc = r.spatial_counts.data();
  uint32_t* oc = r.orientation_counts.data();

  auto sums_of = [&](size_t position) {
    double* base = scratch.get() + position * group_doubles;
    double* spatial = base + 2 * group * (slots + 1);
    return GroupSums{base, spatial, spatial + group * rows, spatial + group * (rows + orients)};
  };

  // Bands [b0, b0 + w) into a group's sums. Every value read, of usable samples or not,
  // is checked on the way, while it is in cache.
  std::atomic<uint32_t> source_fault{0};
  auto accumulate = [&](size_t b0, size_t w, const GroupSums& g) {
    const size_t row_width = 2 * w;
    std::fill(g.sums, g.sums + row_width * (slots + 1), 0.0);
    const float* s[MAX_GROUP];
    const float* d[MAX_GROUP];
    for (size_t j = 0; j < w; ++j) s[j] = source + (b0 + j) * n, d[j] = direct + (b0 + j) * n;
    uint32_t fault = 0;
    for (size_t start = 0; start < n; start += TILE) {
      const size_t end = std::min(n, start + TILE);
      for (size_t j = 0; j < w; ++j)
        fault |=
            any_not_clear(s[j] + start, end - start) | any_not_clear(d[j] + start, end - start);
      TILE_ADDERS[w](slot, start, end, s, d, g.sums, slots);
    }
    if (fault) source_fault.fetch_or(1, std::memory_order_relaxed);
    std::fill(g.orientation, g.orientation + orients * w, 0.0);
    std::fill(g.instance, g.instance + instances * row_width, 0.0);
    for (size_t k = 0; k < instances; ++k) {
      for (size_t c = 0; c < stride; ++c) {
        const size_t row = k * stride + c;
        double* spatial = g.spatial + row * w;
        std::fill(spatial, spatial + w, 0.0);
        for (size_t o = 0; o < bins; ++o) {
          const double* cell = g.sums + (row * bins + o) * row_width;
          double* orientation = g.orientation + (k * bins + o) * w;
          for (size_t j = 0; j < w; ++j) {
            spatial[j] += cell[2 * j];
            orientation[j] += cell[2 * j];
          }
        }
        double* instance = g.instance + k * row_width;
        for (size_t j = 0; j < w; ++j) instance[2 * j] += spatial[j];
        for (size_t o = 0; o < bins; ++o) {
          const double* cell = g.sums + (row * bins + o) * row_width;
          for (size_t j = 0; j < w; ++j) instance[2 * j + 1] += cell[2 * j + 1];
        }
      }
    }
  };

  // The integer tables, one task: integers add up the same in any order.
  auto count = [&] {
    for (size_t i = 0; i < n; ++i)
      if (slot[i] >= 0) ++jc[slot[i]];
    for (size_t k = 0; k < instances; ++k) {
      uint32_t total = 0;
      for (size_t c = 0; c < stride; ++c) {
        const size_t row = k * stride + c;
        uint32_t in_cell = 0;
        for (size_t o = 0; o < bins; ++o) {
          in_cell += jc[row * bins + o];
          oc[k * bins + o] += jc[row * bins + o];
        }
        sc[row] = in_cell;
        total += in_cell;
      }
      instance_count[k] = total;
    }
  };

  // A mean from its sum, else the instance mean, else 0.
  auto mean_or_instance = [&](double sum, uint32_t count, size_t k, double instance_sum) {
    if (count > 0) return float(sum / double(count));
    const uint32_t nk = instance_count[k];
    return nk > 0 ? float(instance_sum / double(nk)) : 0.0f;
  };

#pragma omp parallel num_threads(threads)
  {
    // Chunks handed out as threads come free: a thread slowed by other work on its core
    // takes fewer. Each sample's slot is its own, so the split changes nothing.
#pragma omp for schedule(dynamic, 1)
    for (size_t chunk = 0; chunk < chunks; ++chunk)
      classify_range(v, bins, edges, chunk * CLASSIFY_CHUNK,
                     std::min(n, (chunk + 1) * CLASSIFY_CHUNK), slot_of.get());

    for (size_t first = 0; first < groups; first += per_round) {
      const size_t in_round = std::min(per_round, groups - first);
      // The first round has one more task, the counts.
      const size_t counting = first == 0 ? 1 : 0;
#pragma omp for schedule(dynamic, 1)
      for (size_t t = 0; t < in_round + counting; ++t) {
        if (t < counting) {
          count();
          continue;
        }
        const size_t b0 = (first + t - counting) * group;
        accumulate(b0, std::min(group, nb - b0), sums_of(t - counting));
      }

      const size_t round_b0 = first * group;
#pragma omp for schedule(dynamic, FINISH_CHUNK) nowait
      for (size_t row = 0; row < rows; ++row) {
        const size_t k = row / stride;
        for (size_t t = 0; t < in_round; ++t) {
          const GroupSums g = sums_of(t);
          const size_t b0 = round_b0 + t * group, w = std::min(group, nb - b0);
          for (size_t j = 0; j < w; ++j)
            r.spatial_field[row * nb + b0 + j] =
                mean_or_instance(g.spatial[row * w + j], sc[row], k, g.instance[k * 2 * w + 2 * j]);
        }
      }
#pragma omp for schedule(dynamic, FINISH_CHUNK)
      for (size_t q = 0; q < orients; ++q) {
        const size_t k = q / bins;
        for (size_t t = 0; t < in_round; ++t) {
          const GroupSums g = sums_of(t);
          const size_t b0 = round_b0 + t * group, w = std::min(group, nb - b0);
          for (size_t j = 0; j < w; ++j)
            r.orientation_field[q * nb + b0 + j] =
                mean_or_instance(g.orientation[q * w + j], oc[q], k, g.instance[k * 2 * w + 2 * j]);
        }
      }

      // The empty joint slots read the finished spatial and orientation values above.
#pragma omp for schedule(dynamic, FINISH_CHUNK)
      for (size_t q = 0; q < slots; ++q) {
        const size_t row = q / bins, o = q % bins, k = row / stride;
        const uint32_t count = jc[q], nk = instance_count[k];
        for (size_t t = 0; t < in_round; ++t) {
          const GroupSums g = sums_of(t);
          const size_t b0 = round_b0 + t * group, w = std::min(group, nb - b0);
          const double* cell = g.sums + q * 2 * w;
          const double* instance = g.instance + k * 2 * w;
          for (size_t j = 0; j < w; ++j) {
            const size_t b = b0 + j;
            if (count > 0) {
              r.joint_field[q * nb + b] = float(cell[2 * j] / double(count));
              r.direct_joint_field[q * nb + b] = float(cell[2 * j + 1] / double(count));
              continue;
            }
            // Additive estimate: the instance mean moved by the departures of this cell
            // and of this orientation from it; a dim bin in a bright cell can push it
            // below 0.
            const double mean = nk > 0 ? instance[2 * j] / double(nk) : 0.0;
            const double estimate = double(r.spatial_field[row * nb + b]) +
                                    double(r.orientation_field[(k * bins + o) * nb + b]) - mean;
            r.joint_field[q * nb + b] = float(std::max(estimate, 0.0));
            r.direct_joint_field[q * nb + b] =
                nk > 0 ? float(instance[2 * j + 1] / double(nk)) : 0.0f;
          }
        }
      }
    }
  }
  if (source_fault.load()) refuse(v);
  return r;
}

}  // namespace vesk::backend
