#pragma once
// The Turbid workflow on the CPU scene: radiation states of a committed domain's
// leaf-area samples, physiology on them, fields, the per-instance thermal and SIF
// sources the backward tracer reads, and the leaf longwave transport; every result named
// by a revision-checked token and refused, never recomputed, once stale.

#include <cstdint>
#include <vector>

#include "core/execution.h"
#include "core/span.h"
#include "scene/overrides.h"
#include "turbid/workflow_state.h"

namespace vesk::backend {
struct SifSourceAssemblyResult;
}

namespace vesk::embree {

class EmbreeSceneManager;

// ---- kernels ---------------------------------------------------------------------------

// Samples of a domain as the tracing kernels read them; owner_instance: the scene
// instance whose medium holds the sample's leaves, -1 when none.
struct TurbidSampleView {
  int32_t n_samples = 0;
  backend::FloatSpan positions, normals;  // 3 per sample, world space; normals unit
  backend::FloatSpan leaf_area;           // m2 per sample
  backend::IntSpan owner_instance;
};

// Radiation of the samples under the scene's sun and sky.
struct TurbidRadiationRequestView {
  int32_t rays_per_side = 0;  // diffuse rays per leaf side
  int32_t max_depth = 0;      // scattering events per diffuse ray
  uint64_t seed = 0;
  int32_t threads = 0;  // < 1: resolve_thread_count
  // nm per band, or empty: the scene's spectra are then energies per band. With widths
  // they are spectral densities (per nm), and the band sums (PAR, shortwave) take each
  // band's value times its width.
  backend::FloatSpan band_widths;
};
void validate_turbid_radiation_request(const TurbidSampleView& samples,
                                       const TurbidRadiationRequestView& view);
// Fills the radiation arrays of a record (no token). See the estimator in the .cpp.
turbid::TurbidStateRecord compute_turbid_radiation(const EmbreeSceneManager& scene,
                                                   const TurbidSampleView& samples,
                                                   const TurbidRadiationRequestView& view);

// Longwave exchange of leaf samples, mesh primitives, terrain and sky.
struct TurbidLeafRrtRequestView {
  backend::FloatSpan temperature, emissivity;  // K and 0..1, per sample
  // Per primitive (n_primitives), or empty: the scene's overrides, else the material's
  // uniform temperature and emissivity 1.
  backend::FloatSpan primitive_temperature, primitive_emissivity;
  float sky_lw_radiance = 0.0f;  // W m-2 sr-1, isotropic
  int32_t emission_cells = 4;    // per axis, of the grid of each instance's leaf emission
  int32_t rays_per_side = 0;     // per leaf side and per primitive face
  int32_t max_depth = 0;
  bool two_sided = true;  // primitives absorb on both faces
  uint64_t seed = 0;
  int32_t threads = 0;
};
struct TurbidLeafRrtResult {
  // W m-2 of one-sided leaf area, per sample: each side's absorbed longwave, and what
  // the leaf emits from one side (emissivity sigma T^4).
  std::vector<float> absorbed_top, absorbed_bottom, emitted;
  // W m-2 per primitive face; back is 0 unless two_sided. Bounding surfaces of media
  // are no matter and absorb nothing.
  std::vector<float> absorbed_front, absorbed_back;
  ExecutionRecord execution;
};
void validate_turbid_leaf_rrt_request(const EmbreeSceneManager& scene,
                                      const TurbidSampleView& samples,
                                      const TurbidLeafRrtRequestView& view);
TurbidLeafRrtResult run_turbid_leaf_rrt(const EmbreeSceneManager& scene,
                                        const TurbidSampleView& samples,
                                        const TurbidLeafRrtRequestView& view);

// ---- tokens and the manager's workflow entries ---------------------------------------

// The samples of a held domain as a kernel view over `storage` (which it fills).
struct DomainSamples {
  std::vector<float> positions, normals, leaf_area;
  std::vector<int32_t> owner_instance, owner_of_sample;
  int32_t n_owners = 0;
  TurbidSampleView view() const;
};
DomainSamples domain_samples(const EmbreeSceneManager& scene, uint64_t domain_id);

// The held state that a token names, after every rule: fields non-zero and the stage
// known; the domain held; every revision current (domain, workflow, sampling, property,
// microclimate of the domain; the scene's geometry, transport and illumination); a held
// state with that revision and exactly that token; then the stage in [min_stage,
// max_stage], else "Turbid workflow stage mismatch".
const turbid::TurbidStateRecord& check_turbid_state(EmbreeSceneManager& scene,
                                                    const turbid::TurbidStateToken& token,
                                                    uint8_t min_stage, uint8_t max_stage);
const turbid::TurbidFieldRecord& check_turbid_field(EmbreeSceneManager& scene,
                                                    const backend::TurbidFieldToken& token);

// Stores a finished state computed from a current one (record.token: the revisions it
// came from, its stage): a new state revision, token_id = lineage (the radiation state it
// descends from; 0: its own revision). States whose revisions are no longer current are
// dropped on the way. The record's revisions must still be current (else the stale
// text) and its stage 1..3; this is how later stages (a joint thermo-physiology loop)
// publish their states.
turbid::TurbidStateToken publish_turbid_state(EmbreeSceneManager& scene,
                                              turbid::TurbidStateRecord&& record, uint64_t lineage);

turbid::TurbidStateToken build_turbid_state(EmbreeSceneManager& scene, uint64_t domain_id,
                                            const TurbidRadiationRequestView& view);
turbid::TurbidStateToken build_turbid_physiology_state(
    EmbreeSceneManager& scene, const turbid::TurbidStateToken& radiation,
    const turbid::TurbidPhysiologyRequestView& view);
backend::TurbidFieldToken build_turbid_field(EmbreeSceneManager& scene,
                                             const turbid::TurbidStateToken& state,
                                             const int32_t grid_dims[3], int32_t theta_bins,
                                             int32_t phi_bins);
// Per instance; instances that hold no owner stay 0. With apply, set on the scene.
scene::InstanceTurbidThermalState build_turbid_thermal_source(EmbreeSceneManager& scene,
                                                              const turbid::TurbidStateToken& state,
                                                              bool apply);
struct TurbidSifSource {
  turbid::SampleSifSpectra samples;  // at the scene's band wavelengths
  scene::InstanceSifSourceFields fields;
  std::vector<uint32_t> joint_counts;
  std::vector<double> emitted_power;  // W per band nm-1 of all samples, both sides
};
TurbidSifSource build_turbid_sif_source(EmbreeSceneManager& scene,
                                        const turbid::TurbidStateToken& state,
                                        const int32_t grid_dims[3], int32_t theta_bins,
                                        int32_t phi_bins, bool apply);
TurbidLeafRrtResult run_turbid_leaf_rrt_on_domain(EmbreeSceneManager& scene, uint64_t domain_id,
                                                  const TurbidLeafRrtRequestView& view);

}  // namespace vesk::embree
