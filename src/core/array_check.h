#pragma once
// The one place array checks build their messages: the array's name plus a fixed
// tail, thrown as std::invalid_argument.

#include <cstddef>
#include <string>

namespace vesk {

// "<name> buffer length mismatch" unless actual == expected.
void check_length(const char* name, size_t actual, size_t expected);
// "<name> contains a non-finite value" if any of the n values is NaN or infinite.
void check_finite(const char* name, const float* values, size_t n);

}  // namespace vesk
