#pragma once
// The CPU scene: the shared scene model held in a two-level Embree structure that
// answers every CPU ray query, plus the CPU processes and Turbid domains on it.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/types.h"
#include "scene/optical_scene.h"
#include "scene/recipe.h"
#include "scene/scene_model.h"

namespace vesk::backend {
struct PhysiologyRequestView;
struct PhysiologyResult;
struct EnergyBalanceProcessRequestView;
struct EnergyBalanceProcessResult;
struct DynamicPhotosynthesisProcessRequestView;
struct DynamicPhotosynthesisResult;
struct PhotosynthesisProcessRequestView;
struct PhotosynthesisStaticResult;
struct SifProcessRequestView;
struct SifProcessResult;
struct SifSourceAssemblyRequestView;
struct SifSourceAssemblyResult;
}  // namespace vesk::backend

namespace vesk::turbid {
struct TurbidHolding;
struct TurbidSamplingDebugRequest;
struct TurbidSamplingDebugResult;
struct TurbidRelationTable;
}  // namespace vesk::turbid

namespace vesk::embree {

// The shared records and checks the CPU tracers name unqualified.
using scene::EMISSION_OPTICAL;
using scene::EMISSION_SIF_ONLY;
using scene::EMISSION_THERMAL;
using scene::EmissionMode;
using scene::InstanceSifSourceFields;
using scene::InstanceTurbidThermalState;
using scene::max_depth_from_env;
using scene::Repetition;
using scene::scene_has_sun;
using scene::validate_band_wavelengths;
using scene::validate_optical_scene;
using scene::validate_scene_sky;

struct EmbreeHit {
  float t = 0.0f;  // t_max on a miss (FLT_MAX in trace_closest)
  float3 position;
  float3 shading_normal{0.0f, 0.0f, 1.0f};
  float3 geometric_normal{0.0f, 0.0f, 1.0f};  // always faces the ray
  int32_t material_id = -1;
  int32_t local_primitive = -1;
  int32_t primitive_id = -1;  // global: instance offset + local primitive
  int32_t instance_id = -1;
  bool hit = false;
  bool back_face = false;
  std::string to_string() const;
};

class EmbreeSceneManager : public scene::SceneModel {
 public:
  EmbreeSceneManager();
  ~EmbreeSceneManager();
  EmbreeSceneManager(const EmbreeSceneManager&) = delete;
  EmbreeSceneManager& operator=(const EmbreeSceneManager&) = delete;

  // ---- the scene as values ----
  scene::SceneRecipe recipe() const;
  // A new scene from a recipe, checked as the setters check their input (the media and
  // the overrides against the counts they were set for); a scene whose structure was
  // current is built again, with the bounds it had. Same recipe, same traced results.
  static std::unique_ptr<EmbreeSceneManager> from_recipe(scene::SceneRecipe recipe);

  // ---- geometry: the setters of SceneModel, and the Embree structure ----
  // Also moves the instance in the built structure, so a refit_ias() sees it.
  void update_instance_transform(int32_t id, const float* transform);
  void refit_ias();

  void build();
  void build_scene();
  void build_reuse_gas();
  void build_reuse_geometry();

  // Per-primitive data is materialised on demand on the CPU, so it is always "on".
  bool is_populate_primitive_soa() const { return true; }
  void set_populate_primitive_soa(bool) {}

  // ---- processes on the scene's elements ----
  // The leaf physiology solver; it reads nothing from the scene.
  backend::PhysiologyResult solve_physiology(const backend::PhysiologyRequestView& view) const;
  // Temperatures coupled through the longwave the primitives trade; they set the scene's
  // per-primitive emissivities and leave its temperatures at the result. A failed run
  // (bad input, an interrupt) leaves both as they were.
  backend::EnergyBalanceProcessResult execute_energy_balance_process(
      const backend::EnergyBalanceProcessRequestView& view);
  backend::DynamicPhotosynthesisResult execute_photosynthesis_process_dynamic(
      const backend::DynamicPhotosynthesisProcessRequestView& view);
  // Sunlit and shaded leaves at given temperatures; it reads nothing from the scene either.
  backend::PhotosynthesisStaticResult execute_photosynthesis_process_static(
      const backend::PhotosynthesisProcessRequestView& view) const;

  // ---- Turbid domains: leaf-area samples of closed leaf volumes ----
  // What the manager holds: domains, relation table, derived tokens, the armed failure.
  turbid::TurbidHolding& turbid();
  const turbid::TurbidHolding& turbid() const;
  // Builds every request into a domain and commits them together (one relation table
  // per request, or one synthesized from its owners); returns the new domain ids. A
  // failure anywhere leaves the manager as it was.
  std::vector<uint64_t> build_turbid_domains(
      const std::vector<turbid::TurbidSamplingDebugRequest>& requests,
      const std::vector<const turbid::TurbidRelationTable*>& relations,
      const std::vector<std::pair<uint64_t, uint64_t>>& global_overlaps);
  // Raises a domain's budget; its accepted samples stay a prefix of the new ones.
  void extend_turbid_samples(uint64_t domain_id, uint32_t sample_budget);
  // The sampler alone, on the CPU; nothing is stored.
  turbid::TurbidSamplingDebugResult debug_turbid_samples(
      const turbid::TurbidSamplingDebugRequest& request) const;
  // The SIF steps read nothing from the scene and need no build: per-element yields and
  // selected absorbed spectra, then the per-instance source tables that
  // set_instance_sif_source_fields takes.
  backend::SifProcessResult finalize_sif_process(const backend::SifProcessRequestView& view) const;
  backend::SifSourceAssemblyResult assemble_sif_source(
      const backend::SifSourceAssemblyRequestView& view) const;

  // ---- ray queries (const and re-entrant once built) ----
  EmbreeHit trace_ray(const float3& origin, const float3& direction, float t_min,
                      float t_max) const;
  bool trace_shadow(const float3& origin, const float3& direction, float t_max) const;
  // The closest hit from distance 0 on, passing over the bounding surfaces of optical
  // media that lie within `within` (and only those): a ray that has just crossed a
  // medium boundary leaves it behind without stepping over a surface that coincides
  // with it, such as the ground under a layer that rests on it.
  EmbreeHit trace_ray_past_media(const float3& origin, const float3& direction, float within,
                                 float t_max) const;
  // trace_ray for the walks through media: where a medium boundary and an ordinary surface
  // lie at the same distance within rounding (a layer's floor on the ground), the surface
  // is taken, since the ray meets it inside the medium. trace_ray_past_media does the same.
  EmbreeHit trace_ray_surface_first(const float3& origin, const float3& direction, float t_min,
                                    float t_max) const;
  // The closest bounding surface of an optical medium; every other surface is passed.
  EmbreeHit trace_media_boundary(const float3& origin, const float3& direction, float t_min,
                                 float t_max) const;
  std::vector<EmbreeHit> trace_closest(const std::vector<backend::Ray>& rays) const;
  // Sun visibility through the repeated tiles: the ray is followed across up to
  // num_repetitions tile walls, wrapping into the tile each time.
  bool shadowed_repetitive(float3 origin, const float3& direction) const;

 private:
  void release_embree_scenes_();
  // A plain query from t_min, unless skip_media >= 0 (medium boundaries within it are
  // passed) or media_only (only medium boundaries count).
  // The closest ordinary surface from t_min up to the boundary `hit` within rounding, in
  // place of it; `hit` itself when there is none or it bounds no medium.
  EmbreeHit surface_first_(const float3& origin, const float3& direction, float t_min,
                           const EmbreeHit& hit) const;
  EmbreeHit trace_ray_(const float3& origin, const float3& direction, float t_min, float t_max,
                       float skip_media, bool media_only) const;

  struct Handles;  // the Embree device and scenes, kept out of this header
  std::unique_ptr<Handles> rtc_;
  std::unique_ptr<turbid::TurbidHolding> turbid_;
};

}  // namespace vesk::embree
