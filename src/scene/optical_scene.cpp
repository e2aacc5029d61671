// Checks and settings shared by the optical tracers.
#include "scene/optical_scene.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/log.h"

namespace vesk::scene {

int32_t max_depth_from_env(int32_t max_depth, const char* prefix) {
  const char* v = std::getenv("VESK_MAX_DEPTH");
  if (!v) return max_depth;
  const long d = std::strtol(v, nullptr, 10);
  if (d <= 0 || d > 0x7fffffff) return max_depth;
  log_line("%s VESK_MAX_DEPTH=%d\n", prefix, int(d));
  return int32_t(d);
}

namespace detail {

size_t material_blocks(MaterialType t) {
  switch (t) {
    case MaterialType::Diffuse: return 1;
    case MaterialType::Rpv: return 4;
    case MaterialType::DiffuseTransmitting: return 3;
  }
  return 0;
}

void require_block(int64_t offset, size_t size, size_t buffer, const std::string& what) {
  if (offset < 0 || size_t(offset) + size > buffer)
    throw std::invalid_argument(what + " lies outside the spectral buffer");
}

void require_non_negative(const std::vector<float>& buffer, int64_t offset, size_t size,
                          const std::string& what) {
  for (size_t i = 0; i < size; ++i)
    if (buffer[size_t(offset) + i] < 0.0f)
      throw std::invalid_argument(what + " contains a negative value");
}

}  // namespace detail

}  // namespace vesk::scene
