// The CPU scene's entries to the leaf solver, the photosynthesis processes, the
// processes that couple leaf temperatures through the scene's longwave exchange, and
// the SIF source steps.
#include <stdexcept>

#include "embree/energy_balance.h"
#include "embree/scene_manager.h"
#include "physiology/energy_balance_process.h"
#include "physiology/leaf_solver.h"
#include "physiology/photosynthesis_dynamic.h"
#include "physiology/photosynthesis_static.h"
#include "physiology/sif_assembly.h"
#include "physiology/sif_finalization.h"

namespace vesk::embree {
namespace {

// The coupling loop's view of the CPU scene: the energy-balance transports, two-sided.
class EmbreeThermalScene final : public physiology::ThermalScene {
 public:
  explicit EmbreeThermalScene(EmbreeSceneManager& scene) : scene_(scene) {}
  size_t n_primitives() const override { return scene_.n_primitives(); }
  void set_primitive_temperatures(const std::vector<float>& kelvin) override {
    scene_.set_primitive_temperatures(kelvin);
  }
  void set_primitive_emissivities(const std::vector<float>& values) override {
    scene_.set_primitive_emissivities(values);
  }
  void shortwave(int32_t n_samples, float sun, float diffuse, float3 sun_dir,
                 const float* albedos, std::vector<float>& top,
                 std::vector<float>& bottom) override {
    EnergyBalanceRequest r;
    r.band_type = 0;
    r.n_samples = n_samples;
    r.sun_irradiance = &sun;
    r.sky_diffuse_radiance = &diffuse;
    r.sun_dir_x = sun_dir.x, r.sun_dir_y = sun_dir.y, r.sun_dir_z = sun_dir.z;
    r.sw_albedos = albedos;
    run(r, top, bottom);
  }
  void longwave(int32_t n_samples, float sky_lw_radiance, std::vector<float>& top,
                std::vector<float>& bottom) override {
    EnergyBalanceRequest r;
    r.band_type = 1;
    r.n_samples = n_samples;
    r.sky_lw_radiance = sky_lw_radiance;
    run(r, top, bottom);
  }

 private:
  // Results swap storage with the scratch, so rounds allocate nothing new.
  void run(EnergyBalanceRequest& r, std::vector<float>& top, std::vector<float>& bottom) {
    r.depth = 8;
    r.two_sided = true;
    render_energy_balance(scene_, r, scratch_);
    top.swap(scratch_.top);
    bottom.swap(scratch_.bot);
  }
  EmbreeSceneManager& scene_;
  EnergyBalanceResult scratch_;
};

// Runs a coupled process; on any failure the scene's per-primitive temperatures and
// emissivities are put back as they were.
template <class Run>
auto restoring_thermal_state(EmbreeSceneManager& scene, const Run& run) {
  if (!scene.is_built())
    throw std::runtime_error("EB RRT: scene has no geometry. Call scene.build() first.");
  const std::vector<float> temperatures = scene.primitive_temperatures();
  const std::vector<float> emissivities = scene.primitive_emissivities();
  try {
    EmbreeThermalScene thermal(scene);
    return run(thermal);
  } catch (...) {
    if (temperatures.empty()) scene.clear_primitive_temperatures();
    else scene.set_primitive_temperatures(temperatures);
    if (emissivities.empty()) scene.clear_primitive_emissivities();
    else scene.set_primitive_emissivities(emissivities);
    throw;
  }
}

}  // namespace

backend::PhysiologyResult EmbreeSceneManager::solve_physiology(
    const backend::PhysiologyRequestView& view) const {
  return backend::solve_physiology(view);
}

backend::EnergyBalanceProcessResult EmbreeSceneManager::execute_energy_balance_process(
    const backend::EnergyBalanceProcessRequestView& view) {
  backend::validate_energy_balance_process_request(view);
  if (size_t(view.n_elements) != n_primitives())
    throw std::invalid_argument("energy balance element count must match the scene");
  return restoring_thermal_state(*this, [&](physiology::ThermalScene& scene) {
    return physiology::execute_energy_balance_process(scene, view);
  });
}

backend::DynamicPhotosynthesisResult EmbreeSceneManager::execute_photosynthesis_process_dynamic(
    const backend::DynamicPhotosynthesisProcessRequestView& view) {
  backend::validate_dynamic_photosynthesis_request(view);
  if (size_t(view.n_elements) != n_primitives())
    throw std::invalid_argument("dynamic photosynthesis element count must match the scene");
  return restoring_thermal_state(*this, [&](physiology::ThermalScene& scene) {
    return physiology::execute_photosynthesis_process_dynamic(scene, view);
  });
}

backend::PhotosynthesisStaticResult EmbreeSceneManager::execute_photosynthesis_process_static(
    const backend::PhotosynthesisProcessRequestView& view) const {
  return backend::execute_photosynthesis_process_static(view);
}

backend::SifProcessResult EmbreeSceneManager::finalize_sif_process(
    const backend::SifProcessRequestView& view) const {
  return backend::finalize_sif_process(view);
}

backend::SifSourceAssemblyResult EmbreeSceneManager::assemble_sif_source(
    const backend::SifSourceAssemblyRequestView& view) const {
  return backend::assemble_sif_source(view);
}

}  // namespace vesk::embree
