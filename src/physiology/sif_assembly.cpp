#include "physiology/sif_assembly.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

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

int64_t sif_axis_cell(float position, float lo, float hi, int32_t n) {
  float x = position - lo;
  const float e = hi - lo;
  // The negated tests also refuse NaN.
  if (n < 1 || !(e >= std::numeric_limits<float>::min()) ||
      !(e <= std::numeric_limits<float>::max()) || !std::isfinite(x))
    return -1;
  const float margin = e * BOX_TOLERANCE;
  if (x < -margin || x > e + margin) return -1;
  x = std::min(std::max(x, 0.0f), e);
  const float fn = float(n);
  int64_t i = std::min<int64_t>(int64_t((x / e) * fn), int64_t(n) - 1);
  // The division above may round across a boundary either way; these comparisons with
  // the boundary itself put a point on it in the upper cell.
  if (i >= 1 && x < e * float(i) / fn)
    --i;
  else if (i < int64_t(n) - 1 && x == e * float(i + 1) / fn)
    ++i;
  return std::max<int64_t>(i, 0);
}

int64_t sif_orientation_bin(float nx, float ny, float nz, int32_t theta_bins, int32_t phi_bins) {
  const float length = std::sqrt(nx * nx + ny * ny + nz * nz);
  if (!(length > 0.0f)) return -1;
  float x = nx / length, y = ny / length, z = nz / length;
  // A leaf has two faces: a normal and its opposite are the same orientation.
  if (z < 0.0f) x = -x, y = -y, z = -z;
  const float theta = std::acos(std::min(std::max(z, 0.0f), 1.0f));
  const int64_t ti =
      std::min<int64_t>(int64_t((theta / HALF_PI) * float(theta_bins)), int64_t(theta_bins) - 1);
  float phi = std::atan2(y, x);
  if (phi < 0.0f) phi += TWO_PI;
  const int64_t pj =
      std::min<int64_t>(int64_t((phi / TWO_PI) * float(phi_bins)), int64_t(phi_bins) - 1);
  return ti * phi_bins + pj;
}

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

void validate_sif_source_assembly_request(const SifSourceAssemblyRequestView& v) {
  if (v.n_instances < 1) throw std::invalid_argument("n_instances must be positive");
  if (v.n_samples < 1) throw std::invalid_argument("n_samples must be positive");
  if (v.n_bands < 1) throw std::invalid_argument("n_bands must be positive");
  if (v.cell_stride < 1) throw std::invalid_argument("SIF cell_stride must be positive");
  if (v.theta_bins < 1 || v.phi_bins < 1)
    throw std::invalid_argument("SIF orientation dimensions must be positive");

  const size_t instances = size_t(v.n_instances), samples = size_t(v.n_samples);
  const size_t bands = size_t(v.n_bands), stride = size_t(v.cell_stride);
  const size_t bins = checked_size("SIF orientation", {size_t(v.theta_bins), size_t(v.phi_bins)});
  checked_size("SIF joint field", {instances, stride, bins, bands});
  const size_t sample_xyz = checked_size("sample xyz", {samples, 3});
  const size_t bounds_xyz = checked_size("bounds xyz", {instances, 3});
  const size_t source = checked_size("SIF source", {samples, bands});
  checked_size("SIF spatial field", {instances, stride, bands});
  checked_size("SIF orientation field", {instances, bins, bands});

  check_length("positions", length_of(v.positions), sample_xyz);
  check_length("normals", length_of(v.normals), sample_xyz);
  check_length("instance_ids", length_of(v.instance_ids), samples);
  check_length("grid_dims", length_of(v.grid_dims), bounds_xyz);
  check_length("source_band_major", length_of(v.source_band_major), source);
  check_length("direct_source_band_major", length_of(v.direct_source_band_major), source);
  check_length("bounds_min", length_of(v.bounds_min), bounds_xyz);
  check_length("bounds_max", length_of(v.bounds_max), bounds_xyz);
  check_finite("positions", v.positions.data, sample_xyz);
  check_finite("normals", v.normals.data, sample_xyz);
  check_finite("source_band_major", v.source_band_major.data, source);
  check_finite("direct_source_band_major", v.direct_source_band_major.data, source);
  check_finite("bounds_min", v.bounds_min.data, bounds_xyz);
  check_finite("bounds_max", v.bounds_max.data, bounds_xyz);

  int32_t bad_id = 0;
#pragma omp simd reduction(| : bad_id)
  for (size_t i = 0; i < samples; ++i)
    bad_id |= (v.instance_ids.data[i] < 0) | (v.instance_ids.data[i] >= v.n_instances);
  if (bad_id) throw std::invalid_argument("instance_ids is out of range");
  // The direct share is a part of the source, so it cannot be negative either.
  if (any_negative(v.source_band_major.data, source) ||
      any_negative(v.direct_source_band_major.data, source))
    throw std::invalid_argument("SIF source cannot be negative");

  for (size_t k = 0; k < instances; ++k) {
    const int32_t* dims = v.grid_dims.data + 3 * k;
    if (dims[0] < 1 || dims[1] < 1 || dims[2] < 1)
      throw std::invalid_argument("SIF grid_dims must be positive");
    const size_t cells =
        checked_size("SIF instance cell", {size_t(dims[0]), size_t(dims[1]), size_t(dims[2])});
    if (cells > stride)
      throw std::invalid_argument("SIF grid_dims must be positive and fit cell_stride");
    for (size_t a = 0; a < 3; ++a)
      if (!(v.bounds_max[3 * k + a] > v.bounds_min[3 * k + a]))
        throw std::invalid_argument("SIF instance bounds must have positive extent");
  }
}

namespace {

// The joint slot (instance, cell, bin) of a sample, or -1 when it cannot be binned.
// Slots fit int32: the validator holds the joint table below 2^31 entries.
int32_t sample_slot(const SifSourceAssemblyRequestView& v, size_t i, size_t bins) {
  const size_t k = size_t(v.instance_ids[i]);
  const int32_t* dims = v.grid_dims.data + 3 * k;
  int64_t axis[3];
  for (size_t a = 0; a < 3; ++a) {
    axis[a] = physiology::sif_axis_cell(v.positions[3 * i + a], v.bounds_min[3 * k + a],
                                        v.bounds_max[3 * k + a], dims[a]);
    if (axis[a] < 0) return -1;
  }
  const int64_t cell = (axis[2] * dims[1] + axis[1]) * dims[0] + axis[0];
  if (cell >= int64_t(dims[0]) * dims[1] * dims[2]) return -1;
  const int64_t bin = physiology::sif_orientation_bin(
      v.normals[3 * i], v.normals[3 * i + 1], v.normals[3 * i + 2], v.theta_bins, v.phi_bins);
  if (bin < 0) return -1;
  return int32_t((int64_t(k) * v.cell_stride + cell) * int64_t(bins) + bin);
}

// Band-major double sums of one block of bands, reused from block to block.
struct BandSums {
  std::unique_ptr<double[]> joint, direct;              // [band][slot]
  std::unique_ptr<double[]> spatial, orientation;       // [band][instance][cell or bin]
  std::unique_ptr<double[]> instance, instance_direct;  // [band][instance]
};

}  // namespace

// Threads and determinism. Every double sum is built by one thread in a fixed order, so
// the bits never depend on the thread count:
//  1. each sample's joint slot is a pure function of the sample (parallel over samples);
//  2. bands are independent tasks: a band's joint and direct sums are added in sample
//     order by whichever thread takes the band, and its spatial, orientation and instance
//     sums are then reduced from its joint sums in slot order (the counts, integers, are
//     one more task);
//  3. the means are written in parallel over table rows, each value from those sums.
// Bands go through in blocks so that the double scratch stays a few times the size of a
// block of the float tables rather than of all bands.
SifSourceAssemblyResult assemble_sif_source(const SifSourceAssemblyRequestView& v) {
  validate_sif_source_assembly_request(v);
  const Sizes z = sizes_of(v);
  const size_t n = size_t(v.n_samples), nb = size_t(v.n_bands);
  const size_t instances = size_t(v.n_instances), stride = size_t(v.cell_stride);
  const size_t bins = z.bins, slots = z.slots;
  const size_t rows = instances * stride;  // spatial rows (instance, cell)
  const int threads = resolve_thread_count(0);
  const size_t block = std::min(nb, std::max<size_t>(16, 2 * size_t(threads)));

  // Refused up front rather than failing half-way: the float tables and counts, the
  // slot per sample, and the double sums of one block of bands.
  const double table_bytes =
      4.0 * double(z.spatial + z.orientation + 2 * z.joint + rows + instances * bins + slots + n);
  const double sum_bytes =
      8.0 * double(block) * double(2 * slots + rows + instances * bins + 2 * instances);
  check_request_memory("SIF source assembly", table_bytes + sum_bytes);

  SifSourceAssemblyResult r;
  r.spatial_field.resize(z.spatial);
  r.orientation_field.resize(z.orientation);
  r.joint_field.resize(z.joint);
  r.direct_joint_field.resize(z.joint);
  r.spatial_counts.resize(rows);
  r.orientation_counts.resize(instances * bins);
  r.joint_counts.resize(slots);
  r.execution = {BACKEND_EMBREE, WORKFLOW_SIF_SOURCE_ASSEMBLY, "embree.cpu.sif_source_assembly",
                 true};
  std::vector<int32_t> slot_of(n);
  std::vector<uint32_t> instance_count(instances);
  // Left uninitialised: every entry is written before it is read.
  BandSums sums{std::make_unique_for_overwrite<double[]>(block * slots),
                std::make_unique_for_overwrite<double[]>(block * slots),
                std::make_unique_for_overwrite<double[]>(block * rows),
                std::make_unique_for_overwrite<double[]>(block * instances * bins),
                std::make_unique_for_overwrite<double[]>(block * instances),
                std::make_unique_for_overwrite<double[]>(block * instances)};

  const float* source = v.source_band_major.data;
  const float* direct = v.direct_source_band_major.data;
  const int32_t* slot = slot_of.data();
  uint32_t* jc = r.joint_counts.data();
  uint32_t* sc = r.spatial_counts.data();
  uint32_t* oc = r.orientation_counts.data();

  // The integer tables, one task: order does not matter for integers.
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

  // Band b's sums into block position j.
  auto accumulate = [&](size_t b, size_t j) {
    double* joint = sums.joint.get() + j * slots;
    double* direct_joint = sums.direct.get() + j * slots;
    std::fill(joint, joint + slots, 0.0);
    std::fill(direct_joint, direct_joint + slots, 0.0);
    const float* s = source + b * n;
    const float* d = direct + b * n;
    for (size_t i = 0; i < n; ++i) {
      const int32_t q = slot[i];
      if (q < 0) continue;
      joint[q] += double(s[i]);
      direct_joint[q] += double(d[i]);
    }
    double* spatial = sums.spatial.get() + j * rows;
    double* orientation = sums.orientation.get() + j * instances * bins;
    double* instance = sums.instance.get() + j * instances;
    double* instance_direct = sums.instance_direct.get() + j * instances;
    std::fill(orientation, orientation + instances * bins, 0.0);
    for (size_t k = 0; k < instances; ++k) {
      double total = 0.0, total_direct = 0.0;
      for (size_t c = 0; c < stride; ++c) {
        const size_t row = k * stride + c;
        const double* cell = joint + row * bins;
        const double* cell_direct = direct_joint + row * bins;
        double in_cell = 0.0;
        for (size_t o = 0; o < bins; ++o) {
          in_cell += cell[o];
          orientation[k * bins + o] += cell[o];
          total_direct += cell_direct[o];
        }
        spatial[row] = in_cell;
        total += in_cell;
      }
      instance[k] = total;
      instance_direct[k] = total_direct;
    }
  };

  // A mean from its sum, else the instance mean, else 0.
  auto mean_or_instance = [&](double sum, uint32_t count, size_t k, size_t j) {
    if (count > 0) return float(sum / double(count));
    const uint32_t nk = instance_count[k];
    return nk > 0 ? float(sums.instance[j * instances + k] / double(nk)) : 0.0f;
  };

#pragma omp parallel num_threads(threads)
  {
#pragma omp for schedule(static)
    for (size_t i = 0; i < n; ++i) slot_of[i] = sample_slot(v, i, bins);

    for (size_t b0 = 0; b0 < nb; b0 += block) {
      const size_t nbc = std::min(block, nb - b0);
      const size_t first = b0 == 0 ? 0 : 1;  // task 0, the counts, only in the first block
#pragma omp for schedule(dynamic, 1)
      for (size_t t = first; t < nbc + 1; ++t) {
        if (t == 0)
          count();
        else
          accumulate(b0 + t - 1, t - 1);
      }

#pragma omp for schedule(static) nowait
      for (size_t row = 0; row < rows; ++row) {
        const size_t k = row / stride;
        for (size_t j = 0; j < nbc; ++j)
          r.spatial_field[row * nb + b0 + j] =
              mean_or_instance(sums.spatial[j * rows + row], sc[row], k, j);
      }
#pragma omp for schedule(static)
      for (size_t q = 0; q < instances * bins; ++q) {
        const size_t k = q / bins;
        for (size_t j = 0; j < nbc; ++j)
          r.orientation_field[q * nb + b0 + j] =
              mean_or_instance(sums.orientation[j * instances * bins + q], oc[q], k, j);
      }

      // The empty joint cells read the finished spatial and orientation values above.
#pragma omp for schedule(static)
      for (size_t q = 0; q < slots; ++q) {
        const size_t row = q / bins, o = q % bins, k = row / stride;
        const uint32_t count_q = jc[q];
        const uint32_t nk = instance_count[k];
        for (size_t j = 0; j < nbc; ++j) {
          const size_t b = b0 + j;
          if (count_q > 0) {
            r.joint_field[q * nb + b] = float(sums.joint[j * slots + q] / double(count_q));
            r.direct_joint_field[q * nb + b] = float(sums.direct[j * slots + q] / double(count_q));
            continue;
          }
          // Additive estimate: the instance mean moved by the departures of this cell and
          // of this orientation from it; a dim bin in a bright cell can push it below 0.
          const double mean = nk > 0 ? sums.instance[j * instances + k] / double(nk) : 0.0;
          const double estimate = double(r.spatial_field[row * nb + b]) +
                                  double(r.orientation_field[(k * bins + o) * nb + b]) - mean;
          r.joint_field[q * nb + b] = float(std::max(estimate, 0.0));
          r.direct_joint_field[q * nb + b] =
              nk > 0 ? float(sums.instance_direct[j * instances + k] / double(nk)) : 0.0f;
        }
      }
    }
  }
  return r;
}

}  // namespace vesk::backend
