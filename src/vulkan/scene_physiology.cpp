// The coupled processes on the Vulkan scene: the energy-balance process and the dynamic
// photosynthesis process. The coupling loop stays on the host, as on the CPU scene; each
// round's longwave (and the process's shortwave) runs on the device transport, and the
// dynamic process's leaf solves run on the device leaf solver, one workspace per call
// reused by every round.
#include <memory>
#include <stdexcept>

#include "physiology/energy_balance_process.h"
#include "physiology/photosynthesis_dynamic.h"
#include "scene/thermal_transport.h"
#include "vulkan/device_scene.h"

namespace vesk::vulkan {
namespace {

// The coupling loop runs over the device energy-balance transport.
scene::EnergyBalanceTransport device_transport(const VulkanSceneManager& scene) {
  return [&scene](const scene::EnergyBalanceRequest& r, scene::EnergyBalanceResult& out) {
    scene.run_energy_balance_gpu(r, -1, out);
  };
}

// The leaf solves of one dynamic process on the device. The workspace is made for the
// first request's shape; the leaf parameters go up once, and each later round uploads
// only apar, temperature and the absorbed radiation.
class DeviceLeafSolver final : public physiology::LeafBatchSolver {
 public:
  DeviceLeafSolver(const VulkanContext& context, std::string spv_path)
      : context_(context), spv_path_(std::move(spv_path)) {}
  void solve(const backend::PhysiologyRequestView& v, backend::PhysiologyResult& out) override {
    const bool first = !workspace_;
    if (first)
      workspace_ = std::make_unique<PhysiologyWorkspace>(context_, spv_path_, v.n_elements,
                                                         v.n_bands, v.dynamic_energy_balance);
    workspace_->solve(v, first, out);
  }

 private:
  const VulkanContext& context_;
  std::string spv_path_;
  std::unique_ptr<PhysiologyWorkspace> workspace_;
};

}  // namespace

backend::EnergyBalanceProcessResult VulkanSceneManager::execute_energy_balance_process(
    const backend::EnergyBalanceProcessRequestView& view) {
  backend::validate_energy_balance_process_request(view);
  if (size_t(view.n_elements) != n_primitives())
    throw std::invalid_argument("energy balance element count must match the scene");
  require_energy_balance_device_("execute_energy_balance_process_vulkan");
  backend::EnergyBalanceProcessResult r = scene::restoring_thermal_state(
      *this, device_transport(*this), [&](physiology::ThermalScene& scene) {
        return physiology::execute_energy_balance_process(scene, view);
      });
  r.execution = {BACKEND_VULKAN, WORKFLOW_ENERGY_BALANCE_PROCESS,
                 "vulkan.slang.energy_balance_process", true};
  return r;
}

backend::DynamicPhotosynthesisResult VulkanSceneManager::execute_photosynthesis_process_dynamic(
    const backend::DynamicPhotosynthesisProcessRequestView& view) {
  backend::validate_dynamic_photosynthesis_request(view);
  if (size_t(view.n_elements) != n_primitives())
    throw std::invalid_argument("dynamic photosynthesis element count must match the scene");
  require_energy_balance_device_("execute_photosynthesis_process_dynamic_vulkan");
  DeviceLeafSolver leaves(context_, resolve_program("physiology.spv", program_dir_));
  backend::DynamicPhotosynthesisResult r = scene::restoring_thermal_state(
      *this, device_transport(*this), [&](physiology::ThermalScene& scene) {
        return physiology::execute_photosynthesis_process_dynamic(scene, view, &leaves);
      });
  r.execution = {BACKEND_VULKAN, WORKFLOW_PHOTOSYNTHESIS_PROCESS_DYNAMIC,
                 "vulkan.slang.photosynthesis_process_dynamic", true};
  return r;
}

}  // namespace vesk::vulkan
