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
#include "scene/thermal_transport.h"

namespace vesk::embree {
namespace {

// The coupling loop runs over the CPU energy-balance transport.
scene::EnergyBalanceTransport cpu_transport(const EmbreeSceneManager& scene) {
  return [&scene](const EnergyBalanceRequest& r, EnergyBalanceResult& out) {
    render_energy_balance(scene, r, out);
  };
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
  return scene::restoring_thermal_state(
      *this, cpu_transport(*this), [&](physiology::ThermalScene& scene) {
        return physiology::execute_energy_balance_process(scene, view);
      });
}

backend::DynamicPhotosynthesisResult EmbreeSceneManager::execute_photosynthesis_process_dynamic(
    const backend::DynamicPhotosynthesisProcessRequestView& view) {
  backend::validate_dynamic_photosynthesis_request(view);
  if (size_t(view.n_elements) != n_primitives())
    throw std::invalid_argument("dynamic photosynthesis element count must match the scene");
  return scene::restoring_thermal_state(
      *this, cpu_transport(*this), [&](physiology::ThermalScene& scene) {
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
