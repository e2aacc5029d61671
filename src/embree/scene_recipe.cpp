// The CPU scene as plain values and back: what pickles and scene files carry.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "core/array_check.h"
#include "embree/scene_manager.h"

namespace vesk::embree {

namespace {

void invalid(const std::string& what) {
  throw std::invalid_argument("scene state: " + what);
}

void check_offset(const char* name, int32_t offset) {
  if (offset < -1) invalid(std::string(name) + " must be -1 (absent) or a buffer index");
}

// An override set for `count` elements of `per` values each, when the scene had at most
// as many elements as now.
void check_override(const char* name, const std::vector<float>& v, size_t per, size_t count) {
  if (per == 0 ? !v.empty() : (v.size() % per != 0 || v.size() / per > count))
    invalid(std::string(name) + " does not fit the scene");
}

// A stored direction: unit length as the setters leave it, or zero (none).
void check_direction(const char* name, const float3& d) {
  check_finite(name, &d.x, 3);
  const float l = length(d);
  if (l != 0.0f && !(std::fabs(l - 1.0f) < 1e-4f)) invalid(std::string(name) + " is not a unit vector");
}

}  // namespace

scene::SceneRecipe EmbreeSceneManager::recipe() const {
  scene::SceneRecipe r;
  r.meshes = meshes_;
  r.instances = instances_;
  for (scene::Instance& i : r.instances) i.geometry_id = -1;
  r.materials = materials_;
  r.spectral = spectral_;
  r.num_bands = num_bands_;
  for (const OpticalTurbidMediumData& m : media_.media) {
    r.media_leaf_area_densities.push_back(m.leaf_area_density);
    r.media_leaf_characteristic_lengths.push_back(m.leaf_characteristic_length);
    r.media_leaf_angle_types.push_back(m.leaf_angle_type);
    r.media_orientations.push_back(m.orientation);
  }
  r.material_medium_ids = media_.material_medium_ids;
  r.emitter = emitter_;
  r.sky = sky_;
  r.sensor = sensor_;
  r.terrain_following = terrain_following_;
  r.repetition = repetition_;
  r.thermal_mode = thermal_mode_;
  r.sif_only_mode = sif_only_mode_;
  r.emission_mode = emission_mode_;
  r.band_wavelengths = band_wavelengths_;
  r.measurement_plane_height = measurement_plane_height_;
  r.measurement_plane_set = measurement_plane_set_;
  r.primitive_temperatures = primitive_temperatures_;
  r.primitive_emissivities = primitive_emissivities_;
  r.primitive_sif_spectra = primitive_sif_spectra_;
  r.n_sif_bands = n_sif_bands_;
  r.instance_turbid_thermal = instance_turbid_thermal_;
  r.instance_sif_spectra = instance_sif_spectra_;
  r.instance_n_sif_bands = instance_n_sif_bands_;
  r.instance_sif_source_fields = instance_sif_source_fields_;
  r.built = built_;
  r.structure_current = structure_current_;
  const float lo[3] = {x_min_, y_min_, min_height_}, hi[3] = {x_max_, y_max_, max_height_};
  for (int k = 0; k < 3; ++k) r.box_lo[k] = lo[k], r.box_hi[k] = hi[k];
  r.geometry_build_revision = geometry_build_revision_;
  return r;
}

std::unique_ptr<EmbreeSceneManager> EmbreeSceneManager::from_recipe(scene::SceneRecipe r) {
  auto s = std::make_unique<EmbreeSceneManager>();
  // Geometry, materials and spectra through the setters, which check them.
  for (scene::Mesh& m : r.meshes)
    s->add_mesh(std::move(m.vertices), std::move(m.normals), std::move(m.indices), m.material_id);
  for (const scene::Instance& i : r.instances) s->add_instance(i.mesh_id, i.transform);
  if (r.num_bands != 0) s->set_num_bands(r.num_bands);
  s->num_bands_ = r.num_bands;  // 0 after clear_for_reuse, which no setter gives
  for (const MaterialData& m : r.materials) {
    s->add_material(int32_t(m.type), m.spectral_offset, m.params, 8);
    std::copy(m.reserved, m.reserved + 4, s->materials_.back().reserved);
  }
  s->upload_spectral_params(std::move(r.spectral));
  if (r.material_medium_ids.size() > r.materials.size())
    invalid("material_medium_ids names more materials than there are");
  s->media_ = validate_optical_turbid_media(
      r.media_leaf_area_densities, r.media_leaf_angle_types, r.media_orientations,
      r.media_leaf_characteristic_lengths, r.material_medium_ids, r.material_medium_ids.size());

  // Light and sensor as stored: a setter would normalise the directions again, and a
  // unit vector need not survive that bit for bit.
  check_offset("emitter offset", r.emitter.spectral_offset);
  check_direction("emitter direction", r.emitter.direction);
  s->emitter_ = r.emitter;
  check_offset("sky offset", r.sky.uniform_offset);
  check_offset("sky offset", r.sky.directional_offset);
  check_offset("sky offset", r.sky.hw_offset);
  check_direction("sky sun direction", r.sky.hw_sun_direction);
  s->sky_ = r.sky;
  s->set_sensor(r.sensor, r.terrain_following);
  s->set_repetitive(r.repetition.num_repetitions, r.repetition.scene_x_size,
                    r.repetition.scene_y_size);
  check_finite("band_wavelengths", r.band_wavelengths.data(), r.band_wavelengths.size());
  if (r.emission_mode > EMISSION_SIF_ONLY) invalid("unknown emission mode");
  s->thermal_mode_ = r.thermal_mode;
  s->sif_only_mode_ = r.sif_only_mode;
  s->emission_mode_ = r.emission_mode;
  s->band_wavelengths_ = std::move(r.band_wavelengths);
  check_coordinates("measurement plane", &r.measurement_plane_height, 1);
  s->measurement_plane_height_ = r.measurement_plane_height;
  s->measurement_plane_set_ = r.measurement_plane_set;

  // Overrides were checked against the scene of their time, which had at most the
  // primitives and instances it has now.
  const size_t prims = s->n_primitives(), insts = s->instances_.size();
  check_override("primitive_temperatures", r.primitive_temperatures, 1, prims);
  check_non_negative("temperatures", r.primitive_temperatures.data(), r.primitive_temperatures.size());
  check_override("primitive_emissivities", r.primitive_emissivities, 1, prims);
  check_non_negative("emissivities", r.primitive_emissivities.data(), r.primitive_emissivities.size());
  if (r.n_sif_bands < 0 || r.instance_n_sif_bands < 0) invalid("SIF band counts must not be negative");
  check_override("primitive_sif_spectra", r.primitive_sif_spectra, size_t(r.n_sif_bands), prims);
  check_finite("spectra", r.primitive_sif_spectra.data(), r.primitive_sif_spectra.size());
  check_override("instance_sif_spectra", r.instance_sif_spectra, size_t(r.instance_n_sif_bands),
                 insts);
  check_finite("spectra", r.instance_sif_spectra.data(), r.instance_sif_spectra.size());
  const size_t thermal = r.instance_turbid_thermal.temperature_sunlit.size();
  if (thermal > insts) invalid("instance turbid thermal state does not fit the scene");
  scene::check_turbid_thermal_state(r.instance_turbid_thermal, thermal);
  const InstanceSifSourceFields& f = r.instance_sif_source_fields;
  if (!f.empty() || !f.spatial_spectra.empty()) {
    if (f.grid_dims.size() % 3 != 0 || f.grid_dims.size() / 3 > insts)
      invalid("instance SIF source fields do not fit the scene");
    scene::check_sif_source_fields(f, f.grid_dims.size() / 3);
  }
  s->primitive_temperatures_ = std::move(r.primitive_temperatures);
  s->primitive_emissivities_ = std::move(r.primitive_emissivities);
  s->primitive_sif_spectra_ = std::move(r.primitive_sif_spectra);
  s->n_sif_bands_ = r.n_sif_bands;
  s->instance_turbid_thermal_ = std::move(r.instance_turbid_thermal);
  s->instance_sif_spectra_ = std::move(r.instance_sif_spectra);
  s->instance_n_sif_bands_ = r.instance_n_sif_bands;
  s->instance_sif_source_fields_ = std::move(r.instance_sif_source_fields);

  // The structure again, where there was one; the bounds are those of its build (an
  // instance moved since, and not refitted, is traced where it is now).
  if (r.built && !r.structure_current) invalid("a built scene must have a current structure");
  if (r.structure_current) s->build_scene();
  s->built_ = r.built;
  check_finite("bounds", r.box_lo, 3);
  check_finite("bounds", r.box_hi, 3);
  s->store_aabb_({{r.box_lo[0], r.box_lo[1], r.box_lo[2]}, {r.box_hi[0], r.box_hi[1], r.box_hi[2]}});
  s->geometry_build_revision_ = r.geometry_build_revision;
  return s;
}

}  // namespace vesk::embree
