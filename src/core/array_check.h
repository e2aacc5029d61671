#pragma once
// The one place array checks build their messages: the array's name plus a fixed
// tail, thrown as std::invalid_argument.

#include <cstddef>
#include <string>

namespace vesk {

// Coordinates (scene units) and transform entries beyond this are refused: rays made
// from them have no precision left, and the ray tracer's own limits are near.
constexpr float MAX_COORDINATE = 1e9f;

// "<name> buffer length mismatch" unless actual == expected.
void check_length(const char* name, size_t actual, size_t expected);
// "<name> contains a non-finite value" if any of the n values is NaN or infinite.
void check_finite(const char* name, const float* values, size_t n);
inline void check_finite(const char* name, float value) {
  check_finite(name, &value, 1);
}
// check_finite, then "<name> contains a value beyond 1e9 in magnitude".
void check_coordinates(const char* name, const float* values, size_t n);
// check_finite, then "<name> contains a negative value".
void check_non_negative(const char* name, const float* values, size_t n);
// A 12-float row-major [M3 | t] transform: check_coordinates, then "<name> is singular"
// unless M3 has an inverse that floats can hold.
void check_transform(const char* name, const float* m);

}  // namespace vesk
