#pragma once
// Optical turbid media: volumes of statistically described leaves bounded by ordinary
// mesh surfaces. The medium table and its validation, the projection function G of six
// leaf angle distributions, the combined free-path sampler of overlapping media, the
// correlated (hot-spot) transmittance of first-order paths, the leaf-normal sampler, and
// the fixed-capacity list of media a ray is in.
//
// G(mu) is the mean projection of unit leaf area onto the plane normal to a direction
// of zenith cosine mu (Ross 1981, The Radiation Regime and Architecture of Plant
// Stands); the extinction of a medium is leaf_area_density * G (m-1).

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/rng.h"
#include "core/types.h"

namespace vesk {

constexpr int32_t MAX_ACTIVE_MEDIA = 8;
constexpr int32_t G_TABLE_SIZE = 91;  // view zenith 0, 1, ... 90 degrees
constexpr int32_t LEAF_ANGLE_TYPES = 6;

// The walk through media, the same on every backend.
// Step off a bounding surface or a collision point, along the ray.
constexpr float MEDIUM_STEP = 0.0002f;
// Bounding-surface crossings (and scan intersections) allowed to one ray.
constexpr int32_t MAX_MEDIUM_CROSSINGS = 128;
// A tile border and a surface hit this close count as one event.
constexpr float BORDER_TIE = 0.0005f;
// After a tile wall the media are scanned MEDIUM_STEP past it, by a scan that starts
// SURFACE_T_MIN (1e-4) further on: bounding surfaces within this distance of the wall are
// already counted in the scan's list, and are passed without being crossed again.
constexpr float WALL_REACH = MEDIUM_STEP + 1e-4f;

// 0 spherical, 1 planophile, 2 erectophile, 3 plagiophile, 4 extremophile, 5 uniform.
enum LeafAngleType : int32_t {
  LAD_SPHERICAL = 0,
  LAD_PLANOPHILE = 1,
  LAD_ERECTOPHILE = 2,
  LAD_PLAGIOPHILE = 3,
  LAD_EXTREMOPHILE = 4,
  LAD_UNIFORM = 5,
};

struct OpticalTurbidMediumData {
  float leaf_area_density = 0.0f;           // m2 of leaf per m3
  float leaf_characteristic_length = 0.0f;  // m; 0 disables the hot-spot correlation
  int32_t leaf_angle_type = 0;
  int32_t orientation = 1;  // which side of the bounding faces looks into the medium
  int32_t material_id = -1;  // whose scattering the leaves have; -1: none refers to it
  float projection_g[G_TABLE_SIZE] = {};
};

struct OpticalMediaTable {
  std::vector<OpticalTurbidMediumData> media;
  std::vector<int32_t> material_medium_ids;  // one per material, -1: ordinary material
};

// Checks every array (std::invalid_argument with fixed texts, medium by medium) and
// returns the table to store; G rows are copied in, material_id is the last material
// that refers to each medium.
OpticalMediaTable validate_optical_turbid_media(const std::vector<float>& leaf_area_densities,
                                                const std::vector<int32_t>& leaf_angle_types,
                                                const std::vector<int32_t>& orientations,
                                                const std::vector<float>& characteristic_lengths,
                                                const std::vector<int32_t>& material_medium_ids,
                                                size_t material_count);

// The 91-value G row of a leaf angle type (0..5), built once for the process.
const float* projection_table(int32_t leaf_angle_type);

// G of the medium for a direction: linear in the zenith angle between whole degrees.
// Only |d.z| matters.
float projection_g(const OpticalTurbidMediumData& m, const float3& d);
inline float medium_sigma(const OpticalTurbidMediumData& m, const float3& d) {
  return m.leaf_area_density * projection_g(m, d);
}

struct FreePath {
  float distance = 3.4028235e+38f;  // the largest float when nothing can collide
  float sigma_total = 0.0f;
  int32_t selected_slot = -1;
  int32_t medium_id = -1;
};

// One exponential free path for all n overlapping media (ids into media[0..n_media)),
// and the medium of the collision chosen in proportion to its extinction. Ids out of
// range count zero.
FreePath sample_combined_free_path(const OpticalTurbidMediumData* media, size_t n_media,
                                   const int32_t* ids, int32_t n, const float3& direction,
                                   float distance_sample, float selection_sample);
// The slot whose share of sigma_total holds selection_sample (step 5 of the sampler).
int32_t select_medium_slot(const OpticalTurbidMediumData* media, size_t n_media,
                           const int32_t* ids, int32_t n, const float3& direction,
                           float sigma_total, float selection_sample);

// Transmittance of a shadow ray of optical depth tau and length a inside one medium,
// given that the first-order path already ran b inside it: the two paths see the same
// leaves over a correlation length (leaf_characteristic_length) that shrinks with the
// angle between them. source: the shadow ray's direction; observation: the reverse of
// the path's first leg. Never above 1.
float conditional_hotspot_transmittance(const OpticalTurbidMediumData& m, float optical_depth,
                                        float initial_medium_distance,
                                        float observation_distance,
                                        const float3& source_direction,
                                        const float3& observation_direction);

// A leaf normal for a collision of a ray of direction omega: zenith from the leaf angle
// distribution, uniform azimuth, accepted in proportion to |omega . n| (leaves are
// struck by their projected area). Faces the ray; back is set when it had to be flipped.
float3 sample_leaf_normal(int32_t leaf_angle_type, const float3& omega, RNG& rng, bool& back);

// The media a ray is in, keyed by (medium, bounding instance). primary_distance: the
// length the path ran in the slot before its first scattering (for the hot spot).
struct ActiveMediumList {
  int32_t count = 0;
  int32_t medium_id[MAX_ACTIVE_MEDIA] = {};
  uint32_t instance_key[MAX_ACTIVE_MEDIA] = {};
  float primary_distance[MAX_ACTIVE_MEDIA] = {};

  int32_t find(int32_t medium, uint32_t instance) const {
    for (int32_t i = 0; i < count; ++i)
      if (medium_id[i] == medium && instance_key[i] == instance) return i;
    return -1;
  }
  // Appends with primary_distance 0; false when the list is full.
  bool add(int32_t medium, uint32_t instance) {
    if (count >= MAX_ACTIVE_MEDIA) return false;
    medium_id[count] = medium, instance_key[count] = instance, primary_distance[count] = 0.0f;
    ++count;
    return true;
  }
  void remove(int32_t slot) {
    for (int32_t i = slot; i + 1 < count; ++i) {
      medium_id[i] = medium_id[i + 1];
      instance_key[i] = instance_key[i + 1];
      primary_distance[i] = primary_distance[i + 1];
    }
    --count;
  }
};

}  // namespace vesk
