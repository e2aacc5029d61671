#pragma once
// Photon totals that come out the same, bit for bit, however the photons were shared
// out: between threads, between processes, between machines. Floating-point addition
// is not associative, so sums in doubles depend on who added what first. Here photons
// are traced in fixed chunks of absolute photon indices, each chunk by one worker in
// photon order into double scratch sums; at the end of the chunk every touched sum is
// rounded once to a 128-bit integer count of a fixed unit and added to the totals.
// Integer addition is associative, so any split gives the same totals.
//
// The unit of band b is 2^unit_exponents[b], chosen from a bound on the energy one
// photon carries in that band (never from the photon count or the traced range, so
// that every range of one run shares it): the bound spans 64 bits, and a total may
// grow to 2^62 times it before the sums refuse to go on.

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace vesk {

using int128 = __int128;

// Photons per chunk; ranges of a run start at a multiple of it.
constexpr int64_t PHOTON_CHUNK = 4096;

// The exponent of the unit for sums bounded (roughly) by `bound` per photon: bound lies
// in [2^63, 2^64) units. A bound that is zero or not finite takes `fallback`.
int32_t unit_exponent_for(double bound, double fallback);

// Exponents for per-band bounds: a band without a usable bound takes the largest
// usable bound of the others (its sums are zero or tiny), and 1 when there is none.
std::vector<int32_t> unit_exponents_for(const std::vector<double>& bounds);

// Totals of one traced range: fixed point, band fastest (element i is in band
// i % unit_exponents.size()).
struct PhotonSums {
  std::vector<int128> values;
  std::vector<int32_t> unit_exponents;
  int64_t first_photon = 0, photons = 0;

  // The total of element i in energy units (un-normalised: not divided by photons).
  double energy(size_t i) const;
  // Adds the totals of the range that follows this one. Throws std::invalid_argument
  // for another layout, other units or a range that does not follow, and
  // std::overflow_error when a total leaves the 128-bit range.
  void append(const PhotonSums& next);
};

// One worker's double sums over the chunk it traces. Only touched elements are
// flushed and cleared, so a chunk costs what it touched, not the array's length.
class ChunkSums {
 public:
  explicit ChunkSums(size_t size);
  void add(size_t i, double x) {
    if (!touched_[i]) {
      touched_[i] = 1;
      list_.push_back(i);
      sum_[i] = x;
    } else {
      sum_[i] += x;
    }
  }
  // Rounds each touched sum once to its unit and adds it to the totals (under `lock`);
  // the scratch is clean afterwards. Throws std::overflow_error for a sum that is not
  // finite or does not fit (the run is lost then: the totals are part-updated).
  void flush(PhotonSums& totals, std::mutex& lock);

 private:
  std::vector<double> sum_;
  std::vector<uint8_t> touched_;
  std::vector<size_t> list_;
  std::vector<int128> fixed_;
};

}  // namespace vesk
