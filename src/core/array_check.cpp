#include "core/array_check.h"

#include <cmath>
#include <stdexcept>

namespace vesk {

void check_length(const char* name, size_t actual, size_t expected) {
  if (actual != expected) throw std::invalid_argument(std::string(name) + " buffer length mismatch");
}

void check_finite(const char* name, const float* values, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (!std::isfinite(values[i]))
      throw std::invalid_argument(std::string(name) + " contains a non-finite value");
  }
}

}  // namespace vesk
