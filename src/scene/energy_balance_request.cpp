// The energy-balance request's validators and the per-primitive facts of its kernels.
#include "scene/energy_balance_request.h"

#include <cmath>
#include <stdexcept>
#include <string>

#include "core/array_check.h"
#include "scene/optical_scene.h"
#include "scene/scene_model.h"

namespace vesk::scene {
namespace {

constexpr float INV_PI_F = 0.31830987f;
constexpr float STEFAN_BOLTZMANN = 5.6703744e-08f;
constexpr float DEFAULT_EMISSIVITY = 0.97f;

// Every component must be finite, whether or not a sun is given: a NaN is a mistake
// even where it goes unread. Zero only matters when the sun is used.
void check_sun_direction(const char* prefix, float x, float y, float z, bool used) {
  check_finite("sun_dir_x", x);
  check_finite("sun_dir_y", y);
  check_finite("sun_dir_z", z);
  if (used && !(double(x) * x + double(y) * y + double(z) * z > 0.0))
    throw std::invalid_argument(std::string(prefix) + ": the sun direction must not be zero");
}

}  // namespace

EnergyBalancePrimitives gather_energy_balance_primitives(const SceneModel& scene, bool longwave) {
  backend::PrimitiveGeometry g = scene.primitive_geometry();
  EnergyBalancePrimitives p;
  p.count = g.normals.size();
  p.vertices = std::move(g.vertices);
  p.normals = std::move(g.normals);
  p.centroids.resize(p.count);
  for (size_t i = 0; i < p.count; ++i) {
    const float3& a = p.vertices[3 * i];
    const float3& b = p.vertices[3 * i + 1];
    const float3& c = p.vertices[3 * i + 2];
    p.centroids[i] = {(a.x + b.x + c.x) / 3.0f, (a.y + b.y + c.y) / 3.0f, (a.z + b.z + c.z) / 3.0f};
    const float3& n = p.normals[i];
    if (!(std::isfinite(n.x) && std::isfinite(n.y) && std::isfinite(n.z)) || !(g.areas[i] > 0.0f))
      p.normals[i] = {};
  }
  if (longwave) {
    const auto& temps = scene.primitive_temperatures();
    const auto& emis = scene.primitive_emissivities();
    const auto& mats = scene.materials();
    p.exitance.resize(p.count);
    for (size_t i = 0; i < p.count; ++i) {
      float T = 0.0f;
      if (temps.size() == p.count)
        T = temps[i];
      else if (g.material_ids[i] >= 0 && size_t(g.material_ids[i]) < mats.size())
        T = mats[size_t(g.material_ids[i])].params[2];
      const float e = emis.size() == p.count ? emis[i] : DEFAULT_EMISSIVITY;
      p.exitance[i] = T > 0.0f ? e * STEFAN_BOLTZMANN * T * T * T * T * INV_PI_F : 0.0f;
    }
  }
  return p;
}

void validate_energy_balance(const SceneModel& scene, const EnergyBalanceRequest& r,
                             int64_t albedo_size) {
  if (r.n_samples <= 0) throw std::invalid_argument("run_energy_balance: n_samples must be > 0");
  if (r.band_type != 0 && r.band_type != 1)
    throw std::invalid_argument(
        "run_energy_balance: band_type must be 0 (shortwave) or 1 (longwave)");
  const size_t n = scene.n_primitives();
  if (n == 0) throw std::runtime_error("run_energy_balance: scene has 0 primitives");
  if (r.sw_albedos && albedo_size >= 0 && size_t(albedo_size) != n)
    throw std::invalid_argument("run_energy_balance: sw_albedos must have n_primitives values");
  if (r.sw_albedos) check_finite("sw_albedos", r.sw_albedos, n);
  if (r.sun_irradiance) check_finite("sun_irradiance", r.sun_irradiance, 1);
  if (r.sky_diffuse_radiance) check_non_negative("sky_diffuse_radiance", r.sky_diffuse_radiance, 1);
  check_non_negative("sky_lw_radiance", &r.sky_lw_radiance, 1);
  check_sun_direction("run_energy_balance", r.sun_dir_x, r.sun_dir_y, r.sun_dir_z,
                      r.band_type == 0 && r.sun_irradiance && *r.sun_irradiance > 0.0f);
  if (!scene.is_built())
    throw std::runtime_error("EB RRT: scene has no geometry. Call scene.build() first.");
}

void validate_energy_balance_multiband(const SceneModel& scene,
                                       const MultibandEnergyBalanceRequest& r) {
  const char* P = "run_energy_balance_multiband";
  auto fail = [&](const std::string& what) {
    throw std::invalid_argument(std::string(P) + ": " + what);
  };
  if (r.max_depth <= 0) fail("max_depth must be > 0");
  if (r.n_samples <= 0) fail("n_samples must be > 0");
  if (r.n_bands <= 0) fail("n_bands must be > 0");
  if (r.n_bands > MAX_EB_BANDS) fail("n_bands must be <= " + std::to_string(MAX_EB_BANDS));
  const size_t n = scene.n_primitives();
  if (n == 0) throw std::runtime_error(std::string(P) + ": scene has 0 primitives");
  const size_t spectral = size_t(r.n_bands) * n;
  auto wrong = [](const float* data, int64_t size, size_t want) {
    return data && size >= 0 && size_t(size) != want;
  };
  if (wrong(r.sw_reflectance, r.reflectance_size, spectral) ||
      wrong(r.sw_back_reflectance, r.back_reflectance_size, spectral) ||
      wrong(r.sw_transmittance, r.transmittance_size, spectral))
    fail(
        "sw_reflectance, sw_back_reflectance and sw_transmittance must have n_bands * "
        "n_primitives values");
  if (wrong(r.sw_albedos, r.albedo_size, spectral))
    fail("sw_albedos must have n_bands * n_primitives values");
  if (wrong(r.sky_directional_table, r.sky_table_size, size_t(r.n_bands) * 512))
    fail("directional sky must have n_bands * 16 * 32 values");
  if (wrong(r.sun_irradiance, r.sun_irradiance_size, size_t(r.n_bands)))
    fail("sun_irradiance must have n_bands values");
  if (wrong(r.sky_diffuse_radiance, r.sky_diffuse_size, size_t(r.n_bands)))
    fail("sky_diffuse_radiance must have n_bands values");
  if (r.sw_reflectance) check_finite("sw_reflectance", r.sw_reflectance, spectral);
  if (r.sw_back_reflectance) check_finite("sw_back_reflectance", r.sw_back_reflectance, spectral);
  if (r.sw_transmittance) check_finite("sw_transmittance", r.sw_transmittance, spectral);
  if (r.sw_albedos) check_finite("sw_albedos", r.sw_albedos, spectral);
  if (r.sky_directional_table)
    check_non_negative("sky_directional_table", r.sky_directional_table, size_t(r.n_bands) * 512);
  if (r.sun_irradiance) check_non_negative("sun_irradiance", r.sun_irradiance, size_t(r.n_bands));
  if (r.sky_diffuse_radiance)
    check_non_negative("sky_diffuse_radiance", r.sky_diffuse_radiance, size_t(r.n_bands));
  check_sun_direction(P, r.sun_dir_x, r.sun_dir_y, r.sun_dir_z, r.sun_irradiance != nullptr);
  if (!scene.is_built())
    throw std::runtime_error("EB multiband RRT: scene has no geometry. Call scene.build() first.");
  // Without a sky of its own, a walk that escapes reads the scene's sky.
  if (!r.sky_directional_table && !r.sky_diffuse_radiance) validate_scene_sky(scene, r.n_bands);
}

}  // namespace vesk::scene
