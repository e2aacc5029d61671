#pragma once
// Non-owning arrays of request views: a pointer and an element count. The caller keeps
// the memory alive for the call.

#include <cstddef>
#include <cstdint>

namespace vesk::backend {

template <class T>
struct Span {
  const T* data = nullptr;
  size_t size = 0;
  const T& operator[](size_t i) const { return data[i]; }
};

using FloatSpan = Span<float>;
using IntSpan = Span<int32_t>;
using ByteSpan = Span<uint8_t>;

}  // namespace vesk::backend
