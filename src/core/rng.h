#pragma once
// vesk::RNG: the PCG32 generator (O'Neill's XSH-RR output on a 64-bit LCG) used by every
// optical path, with the per-pixel, per-sample seeding that makes images independent
// of the thread count.

#include <cstdint>

namespace vesk {

struct RNG {
  uint64_t state = 0;
  uint64_t inc = 1;

  static constexpr uint64_t MULTIPLIER = 6364136223846793005ULL;

  // The generator's reference seeding: state 0, one step, add the seed, one step.
  void seed(uint64_t initstate, uint64_t stream) {
    state = 0;
    inc = (stream << 1u) | 1u;
    next();
    state += initstate;
    next();
  }

  uint32_t next() {
    const uint64_t old = state;
    state = old * MULTIPLIER + inc;
    const uint32_t x = static_cast<uint32_t>(((old >> 18u) ^ old) >> 27u);
    const uint32_t rot = static_cast<uint32_t>(old >> 59u);
    return (x >> rot) | (x << ((32u - rot) & 31u));
  }

  // The conversion to float rounds, so 1.0 can occur.
  float next_float() { return static_cast<float>(next()) * 2.3283064e-10f; }
};

// Seed of the path for one pixel (y * width + x) and one sample.
inline RNG pixel_sample_rng(uint64_t pixel_index, uint64_t sample) {
  RNG r;
  r.seed(pixel_index + 1000003ULL * sample, 1ULL + 7919ULL * sample);
  return r;
}

}  // namespace vesk
