#include "core/array_check.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <stdexcept>

namespace vesk {

void check_length(const char* name, size_t actual, size_t expected) {
  if (actual != expected) throw std::invalid_argument(std::string(name) + " buffer length mismatch");
}

void check_finite(const char* name, const float* values, size_t n) {
  // An all-ones exponent marks NaN and infinity; one pass without branches vectorises.
  uint32_t bad = 0;
#pragma omp simd reduction(| : bad)
  for (size_t i = 0; i < n; ++i)
    bad |= (std::bit_cast<uint32_t>(values[i]) & 0x7f800000u) == 0x7f800000u;
  if (bad) throw std::invalid_argument(std::string(name) + " contains a non-finite value");
}

}  // namespace vesk
