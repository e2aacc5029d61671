#pragma once
// Everything that defines a scene, as plain values: what pickles and scene files carry.

#include <cstdint>
#include <vector>

#include "core/illumination.h"
#include "core/types.h"
#include "scene/overrides.h"
#include "scene/records.h"

namespace vesk::scene {

// Not carried: the ray tracer's structures (rebuilt from this) and Turbid domains.
struct SceneRecipe {
  std::vector<Mesh> meshes;
  std::vector<Instance> instances;  // geometry_id is not carried
  std::vector<MaterialData> materials;
  std::vector<float> spectral;
  int32_t num_bands = 1;
  // The optical turbid media as given (the table is rebuilt from them); the material ids
  // may be fewer than the materials, which may have been added later.
  std::vector<float> media_leaf_area_densities, media_leaf_characteristic_lengths;
  std::vector<int32_t> media_leaf_angle_types, media_orientations, material_medium_ids;
  Emitter emitter;
  SkySelection sky;
  SensorData sensor;
  bool terrain_following = false;
  Repetition repetition;
  bool thermal_mode = false, sif_only_mode = false;
  uint8_t emission_mode = EMISSION_OPTICAL;
  std::vector<float> band_wavelengths;
  float measurement_plane_height = 0.0f;
  bool measurement_plane_set = false;
  // Overrides as set; any of them may be shorter than the scene now is, when instances
  // were added after it was set.
  std::vector<float> primitive_temperatures, primitive_emissivities, primitive_sif_spectra;
  int32_t n_sif_bands = 0;
  InstanceTurbidThermalState instance_turbid_thermal;
  std::vector<float> instance_sif_spectra;
  int32_t instance_n_sif_bands = 0;
  InstanceSifSourceFields instance_sif_source_fields;
  // Whether the scene may be traced, whether the structure matches the instances (what
  // build_reuse_gas needs), and the bounds and revision as of the last build or refit.
  bool built = false, structure_current = false;
  float box_lo[3] = {}, box_hi[3] = {};
  uint64_t geometry_build_revision = 0;
};

}  // namespace vesk::scene
