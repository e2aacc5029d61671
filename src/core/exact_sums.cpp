#include "core/exact_sums.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace vesk {

namespace {

// Sums stop well short of the 128-bit limit, so a total can always take one more chunk
// of the largest size that converts.
constexpr double CHUNK_LIMIT = 0x1p120;

[[noreturn]] void too_large() {
  throw std::overflow_error(
      "photon energy sums are not finite or exceed their fixed-point range (a material or "
      "spectrum gives NaN, infinite or runaway energy)");
}

}  // namespace

int32_t unit_exponent_for(double bound, double fallback) {
  const double b = std::isfinite(bound) && bound > 0.0 ? bound : fallback;
  return int32_t(std::ilogb(b)) - 63;
}

std::vector<int32_t> unit_exponents_for(const std::vector<double>& bounds) {
  double largest = 0.0;
  for (const double b : bounds)
    if (std::isfinite(b)) largest = std::max(largest, b);
  if (!(largest > 0.0)) largest = 1.0;
  std::vector<int32_t> out;
  out.reserve(bounds.size());
  for (const double b : bounds) out.push_back(unit_exponent_for(b, largest));
  return out;
}

double PhotonSums::energy(size_t i) const {
  return std::ldexp(double(values[i]), unit_exponents[i % unit_exponents.size()]);
}

void PhotonSums::append(const PhotonSums& next) {
  if (next.values.size() != values.size() || next.unit_exponents != unit_exponents)
    throw std::invalid_argument("photon sums of different layouts or units cannot be added");
  if (next.first_photon != first_photon + photons)
    throw std::invalid_argument("photon sums must be added in photon order, without gaps");
  for (size_t i = 0; i < values.size(); ++i)
    if (__builtin_add_overflow(values[i], next.values[i], &values[i])) too_large();
  photons += next.photons;
}

ChunkSums::ChunkSums(size_t size) : sum_(size, 0.0), touched_(size, 0) {}

void ChunkSums::flush(PhotonSums& totals, std::mutex& lock) {
  // Converted outside the lock: the lock is held only for the integer additions.
  const std::vector<int32_t>& exps = totals.unit_exponents;
  const size_t bands = exps.size();
  fixed_.resize(list_.size());
  for (size_t k = 0; k < list_.size(); ++k) {
    const size_t i = list_[k];
    const double scaled = std::ldexp(sum_[i], -exps[i % bands]);
    if (!(std::fabs(scaled) < CHUNK_LIMIT)) too_large();
    fixed_[k] = int128(std::nearbyint(scaled));
    touched_[i] = 0;
  }
  {
    std::lock_guard<std::mutex> hold(lock);
    for (size_t k = 0; k < list_.size(); ++k) {
      int128& t = totals.values[list_[k]];
      if (__builtin_add_overflow(t, fixed_[k], &t)) too_large();
    }
  }
  list_.clear();
}

}  // namespace vesk
