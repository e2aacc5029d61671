#include "core/array_check.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <stdexcept>

namespace vesk {

namespace {
[[noreturn]] void fail(const char* name, const char* tail) {
  throw std::invalid_argument(std::string(name) + tail);
}
}  // namespace

void check_length(const char* name, size_t actual, size_t expected) {
  if (actual != expected) fail(name, " buffer length mismatch");
}

void check_finite(const char* name, const float* values, size_t n) {
  // An all-ones exponent marks NaN and infinity; one pass without branches vectorises.
  uint32_t bad = 0;
#pragma omp simd reduction(| : bad)
  for (size_t i = 0; i < n; ++i)
    bad |= (std::bit_cast<uint32_t>(values[i]) & 0x7f800000u) == 0x7f800000u;
  if (bad) fail(name, " contains a non-finite value");
}

void check_coordinates(const char* name, const float* values, size_t n) {
  check_finite(name, values, n);
  uint32_t bad = 0;
#pragma omp simd reduction(| : bad)
  for (size_t i = 0; i < n; ++i) bad |= std::fabs(values[i]) > MAX_COORDINATE;
  if (bad) fail(name, " contains a value beyond 1e9 in magnitude");
}

void check_non_negative(const char* name, const float* values, size_t n) {
  check_finite(name, values, n);
  uint32_t bad = 0;
#pragma omp simd reduction(| : bad)
  for (size_t i = 0; i < n; ++i) bad |= values[i] < 0.0f;
  if (bad) fail(name, " contains a negative value");
}

void check_transform(const char* name, const float* m) {
  check_coordinates(name, m, 12);
  const double det = double(m[0]) * (double(m[5]) * m[10] - double(m[6]) * m[9]) -
                     double(m[1]) * (double(m[4]) * m[10] - double(m[6]) * m[8]) +
                     double(m[2]) * (double(m[4]) * m[9] - double(m[5]) * m[8]);
  // The inverse's entries scale like 1/det times products of two entries.
  if (!(std::fabs(det) > 1e-30)) fail(name, " is singular");
}

}  // namespace vesk
