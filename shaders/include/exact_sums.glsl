// Photon totals that do not depend on how photons fall on invocations or dispatches
// (core/exact_sums.h): every contribution is rounded once to a fixed-point count of its
// band's unit and added as a 64-bit integer, split in two 32-bit atomic words with the
// carry taken by hand. Integer addition is associative, so any dispatch size and any
// order of invocations give the same totals. The host widens them to 128 bits between
// dispatches. Reads `sum_scales` (per band: 1 / unit, a power of two) and writes
// `sum_words` (two words per element, low first) and `sum_status` (1: a contribution
// was not finite or too large to count), all declared by the program.

// A contribution beyond 2^40 units (the photon's emitted bound is below 2^32 of them)
// is runaway energy: the host refuses the run, as the CPU's sums do.
const double SUM_LIMIT = 1099511627776.0LF;

void sums_add(uint element, int band, double energy) {
  double scaled = energy * sum_scales[SCALE_BANDS + band];
  if (!(abs(scaled) < SUM_LIMIT)) {
    sum_status[0] = 1u;
    return;
  }
  int64_t count = int64_t(roundEven(scaled));
  if (count == 0L) return;
  uint lo = uint(uint64_t(count) & 0xFFFFFFFFUL);
  uint hi = uint(uint64_t(count) >> 32);
  uint old = atomicAdd(sum_words[2u * element], lo);
  if (old + lo < old) hi += 1u;  // the low word wrapped
  if (hi != 0u) atomicAdd(sum_words[2u * element + 1u], hi);
}
