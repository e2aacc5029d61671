// The coupled processes on the Vulkan scene: the energy-balance process and the dynamic
// photosynthesis process. The coupling loop stays on the host, as on the CPU scene; each
// round's longwave (and the process's shortwave) runs on the device transport, and the
// dynamic process's leaf solves run on the device leaf solver, one workspace per call
// reused by every round.
#include <memory>
#include <stdexcept>

#include "physiology/energy_balance_process.h"
#include "physiology/photosynthesis_dynamic.h"
#include "vulkan/device_scene.h"

namespace vesk::vulkan {
namespace {

// The coupling loop's view of the device scene: the energy-balance transports,
// two-sided, depth 8, as the CPU scene's view has them.
class VulkanThermalScene final : public physiology::ThermalScene {
 public:
  explicit VulkanThermalScene(VulkanSceneManager& scene) : scene_(scene) {}
  size_t n_primitives() const override { return scene_.n_primitives(); }
  void set_primitive_temperatures(const std::vector<float>& kelvin) override {
    scene_.set_primitive_temperatures(kelvin);
  }
  void set_primitive_emissivities(const std::vector<float>& values) override {
    scene_.set_primitive_emissivities(values);
  }
  void shortwave(int32_t n_samples, float sun, float diffuse, float3 sun_dir, const float* albedos,
                 std::vector<float>& top, std::vector<float>& bottom) override {
    scene::EnergyBalanceRequest r;
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
    scene::EnergyBalanceRequest r;
    r.band_type = 1;
    r.n_samples = n_samples;
    r.sky_lw_radiance = sky_lw_radiance;
    run(r, top, bottom);
  }

 private:
  void run(scene::EnergyBalanceRequest& r, std::vector<float>& top, std::vector<float>& bottom) {
    r.depth = 8;
    r.two_sided = true;
    scene_.run_energy_balance_gpu(r, -1, scratch_);
    top.swap(scratch_.top);
    bottom.swap(scratch_.bot);
  }
  VulkanSceneManager& scene_;
  scene::EnergyBalanceResult scratch_;
};

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

// Runs a coupled process; on any failure the scene's per-primitive temperatures and
// emissivities are put back as they were.
template <class Run>
auto restoring_thermal_state(VulkanSceneManager& scene, const Run& run) {
  if (!scene.is_built())
    throw std::runtime_error("EB RRT: scene has no geometry. Call scene.build() first.");
  const std::vector<float> temperatures = scene.primitive_temperatures();
  const std::vector<float> emissivities = scene.primitive_emissivities();
  try {
    VulkanThermalScene thermal(scene);
    return run(thermal);
  } catch (...) {
    if (temperatures.empty())
      scene.clear_primitive_temperatures();
    else
      scene.set_primitive_temperatures(temperatures);
    if (emissivities.empty())
      scene.clear_primitive_emissivities();
    else
      scene.set_primitive_emissivities(emissivities);
    throw;
  }
}

}  // namespace

backend::EnergyBalanceProcessResult VulkanSceneManager::execute_energy_balance_process(
    const backend::EnergyBalanceProcessRequestView& view) {
  backend::validate_energy_balance_process_request(view);
  if (size_t(view.n_elements) != n_primitives())
    throw std::invalid_argument("energy balance element count must match the scene");
  require_energy_balance_device_("execute_energy_balance_process_vulkan");
  backend::EnergyBalanceProcessResult r =
      restoring_thermal_state(*this, [&](physiology::ThermalScene& scene) {
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
  backend::DynamicPhotosynthesisResult r =
      restoring_thermal_state(*this, [&](physiology::ThermalScene& scene) {
        return physiology::execute_photosynthesis_process_dynamic(scene, view, &leaves);
      });
  r.execution = {BACKEND_VULKAN, WORKFLOW_PHOTOSYNTHESIS_PROCESS_DYNAMIC,
                 "vulkan.slang.photosynthesis_process_dynamic", true};
  return r;
}

}  // namespace vesk::vulkan
