#pragma once
// The host-side microwave responses of bare soil and tree trunks, evaluated for lists of
// angles to fill the tables the transport programs read. Rows are computed in order on
// the calling thread; whatever does not depend on the row is computed once per call.

#include <cstddef>
#include <vector>

namespace vesk::microwave {

// Passive: per cosine H and V brightness (K) and H and V reflectivity; active: sigma0
// HH, HV, VH, VV. [n][4], row-major.
std::vector<float> evaluate_soil(float frequency, const float* soil, const float* cosines,
                                 size_t n, bool active);
// [n][2]: H and V Fresnel reflectivity, no roughness.
std::vector<float> evaluate_soil_reflectivity(float frequency, const float* soil,
                                              const float* cosines, size_t n,
                                              bool allow_hallikainen);
// [n][4]: H and V brightness (K), H and V reflectivity of the trunk surface.
std::vector<float> evaluate_trunk(float frequency, const float* trunk, const float* cosines,
                                  size_t n);
// [n][2]: H and V power of the trunk-ground double bounce; the direction and normal
// arrays hold n rows of 3.
std::vector<float> evaluate_trunk_ground(float frequency, const float* soil, const float* trunk,
                                         const float* to_trunk, const float* to_ground,
                                         const float* normals, size_t n);

}  // namespace vesk::microwave
