// PCG32 (XSH-RR output on a 64-bit LCG), the generator of every optical path, with the
// per-pixel, per-sample seeding of the CPU tracers (core/rng.h), draw for draw.
#extension GL_EXT_shader_explicit_arithmetic_types_int64 : require

struct Rng {
  uint64_t state, inc;
};

uint rng_next(inout Rng r) {
  uint64_t old = r.state;
  r.state = old * 6364136223846793005UL + r.inc;
  uint x = uint(((old >> 18) ^ old) >> 27);
  uint rot = uint(old >> 59);
  return (x >> rot) | (x << ((32u - rot) & 31u));
}

// The conversion rounds, so 1.0 can occur.
float rng_float(inout Rng r) { return float(rng_next(r)) * 2.3283064e-10; }

Rng pixel_sample_rng(uint64_t pixel_index, uint64_t sample_number) {
  Rng r;
  r.state = 0UL;
  r.inc = ((1UL + 7919UL * sample_number) << 1) | 1UL;
  rng_next(r);
  r.state += pixel_index + 1000003UL * sample_number;
  rng_next(r);
  return r;
}
