#pragma once
// The coupling loop's view of a scene through its backend's energy-balance transport
// (two-sided, depth 8), and the guard that puts the scene's temperatures and
// emissivities back when a coupled process fails. Shared by every backend.

#include <functional>
#include <stdexcept>
#include <vector>

#include "physiology/coupling.h"
#include "scene/energy_balance_request.h"
#include "scene/scene_model.h"

namespace vesk::scene {

// One run of the backend's single-band energy-balance transport.
using EnergyBalanceTransport =
    std::function<void(const EnergyBalanceRequest&, EnergyBalanceResult&)>;

class TransportThermalScene final : public physiology::ThermalScene {
 public:
  TransportThermalScene(SceneModel& scene, EnergyBalanceTransport transport)
      : scene_(scene), transport_(std::move(transport)) {}
  size_t n_primitives() const override { return scene_.n_primitives(); }
  void set_primitive_temperatures(const std::vector<float>& kelvin) override {
    scene_.set_primitive_temperatures(kelvin);
  }
  void set_primitive_emissivities(const std::vector<float>& values) override {
    scene_.set_primitive_emissivities(values);
  }
  void shortwave(int32_t n_samples, float sun, float diffuse, float3 sun_dir, const float* albedos,
                 std::vector<float>& top, std::vector<float>& bottom) override {
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
    transport_(r, scratch_);
    top.swap(scratch_.top);
    bottom.swap(scratch_.bot);
  }
  SceneModel& scene_;
  EnergyBalanceTransport transport_;
  EnergyBalanceResult scratch_;
};

// Runs a coupled process over the scene's transport; on any failure the scene's
// per-primitive temperatures and emissivities are put back as they were.
template <class Run>
auto restoring_thermal_state(SceneModel& scene, EnergyBalanceTransport transport, const Run& run) {
  if (!scene.is_built())
    throw std::runtime_error("EB RRT: scene has no geometry. Call scene.build() first.");
  const std::vector<float> temperatures = scene.primitive_temperatures();
  const std::vector<float> emissivities = scene.primitive_emissivities();
  try {
    TransportThermalScene thermal(scene, std::move(transport));
    return run(static_cast<physiology::ThermalScene&>(thermal));
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

}  // namespace vesk::scene
