#pragma once
// The leaf-area sampler's pure kernels: scrambled Sobol points, the inside test of a
// closed triangle boundary, and leaf normals by leaf angle distribution. Every result is
// a pure function of (seed, owner identity, candidate index, owner geometry), in 32-bit
// integers where backends must agree to the last bit.

#include <cstddef>
#include <cstdint>

#include "core/types.h"

namespace vesk::turbid {

// Stable identity of a sample owner: three 64-bit words, the first two enter the hashes.
struct TurbidSampleOwner {
  uint64_t words[3] = {0, 0, 0};
  bool operator==(const TurbidSampleOwner& o) const {
    return words[0] == o.words[0] && words[1] == o.words[1] && words[2] == o.words[2];
  }
};

// One vertex of a boundary triangle as the sampler stores it (w unused, 0).
struct TurbidSamplingFloat4 {
  float x = 0.0f, y = 0.0f, z = 0.0f, w = 0.0f;
};

// What a batch returns per candidate; status 0 rejected, 1 accepted, 2 leaf-normal
// transform failure (device fillers only). A fresh record is all zero with normal z 1.
struct TurbidSamplingCandidate {
  float position[3] = {0.0f, 0.0f, 0.0f};
  float normal[3] = {0.0f, 0.0f, 1.0f};
  uint32_t candidate_index = 0;
  uint32_t status = 0;
};

// What a filler needs of one owner (the rest of the prepared owner lives with the driver).
struct SamplingOwnerGeometry {
  uint32_t scramble_key = 0;
  int32_t leaf_angle_distribution = 0;  // 0 spherical, 1 planophile, 2 erectophile,
                                        // 3 plagiophile, 4 extremophile, 5 uniform
  int8_t closed_orientation = 1;        // +1 outward winding, -1 inward
  float bounds_min[3] = {0, 0, 0}, bounds_max[3] = {0, 0, 0};
  const TurbidSamplingFloat4* triangles = nullptr;  // three vertices per triangle
  size_t n_triangles = 0;
};

uint32_t lowbias32(uint32_t x);
// The owner's stream key (depends on the seed) and its tag (does not).
uint32_t scramble_key(uint64_t seed, const TurbidSampleOwner& owner);
uint32_t owner_tag(const TurbidSampleOwner& owner);

// The unscrambled 32-bit Sobol value of dimension d (0, 1, 2, 3 or 5) at index i, by its
// Gray code; dimension 4 is reserved and never drawn.
uint32_t sobol_raw(uint32_t index, int dimension);
// Nested uniform (Owen) scrambling by hash, equal on every backend.
uint32_t owen_scramble(uint32_t raw, uint32_t key, int dimension);
// (float)v * 2^-32 + half a step, at most 0.99999994.
float unit_float(uint32_t v);

// Inside (or on) the closed boundary: the solid-angle sum, times the orientation, above 6.
bool inside_closed_boundary(const float3& p, const TurbidSamplingFloat4* triangles,
                            size_t n_triangles, int8_t closed_orientation);

// The fixed-point inverse CDF of the leaf zenith for the de Wit types (1..4): the 32-bit
// code c, zenith c * 3.6572953e-10 rad, from the scrambled dimension-3 value w.
uint32_t de_wit_code(uint32_t w, int32_t leaf_angle_distribution);

// One candidate: position in the bounds, inside test, and for an inside point its leaf
// normal and status 1. Pure; the record's candidate_index is set to `index`.
TurbidSamplingCandidate sample_candidate(const SamplingOwnerGeometry& owner, uint32_t index);

// The CPU filler: candidates first .. first + n - 1 into out, one OpenMP static loop.
void fill_candidates(const SamplingOwnerGeometry& owner, uint32_t first,
                     TurbidSamplingCandidate* out, size_t n);

}  // namespace vesk::turbid
