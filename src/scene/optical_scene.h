#pragma once
// Checks and settings shared by the optical tracers (backward, forward, flux) of every
// backend, written against the accessors of SceneModel.

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/illumination.h"
#include "core/types.h"

namespace vesk::scene {

// A positive integer in VESK_MAX_DEPTH replaces max_depth and logs "<prefix> VESK_MAX_DEPTH=d".
int32_t max_depth_from_env(int32_t max_depth, const char* prefix);

namespace detail {
size_t material_blocks(MaterialType t);
void require_block(int64_t offset, size_t size, size_t buffer, const std::string& what);
// Reflectances, transmittances, sun and sky radiances are never negative; a negative
// one would turn images and budgets negative without a word.
void require_non_negative(const std::vector<float>& buffer, int64_t offset, size_t size,
                          const std::string& what);
}  // namespace detail

// Whether a sun is set: a spectrum offset and a non-zero direction.
template <class Scene>
bool scene_has_sun(const Scene& scene) {
  const Emitter& e = scene.emitter();
  return e.spectral_offset >= 0 && dot(e.direction, e.direction) > 0.0f;
}

// The part of validate_optical_scene about the selected sky: its block must hold n_bands
// bands.
template <class Scene>
void validate_scene_sky(const Scene& scene, int32_t n_bands) {
  using namespace detail;
  const size_t nb = size_t(std::max(n_bands, 0));
  const std::vector<float>& spectral = scene.spectral_params();
  const size_t size = spectral.size();
  const SkySelection& sky = scene.sky();
  if (sky.directional_offset >= 0) {
    require_block(sky.directional_offset, nb * 512, size, "the directional sky table");
    require_non_negative(spectral, sky.directional_offset, nb * 512, "the directional sky table");
  } else if (sky.hw_offset >= 0) {
    require_block(sky.hw_offset, nb * 10, size, "the Hosek-Wilkie sky coefficients");
  } else if (sky.uniform_offset >= 0) {
    require_block(sky.uniform_offset, nb, size, "the uniform sky radiance");
    require_non_negative(spectral, sky.uniform_offset, nb, "the uniform sky radiance");
  }
}

// Throws unless the scene is built, every instanced mesh names an existing material,
// and every spectral block a path may read with n_bands bands (materials, sun, the
// selected sky) lies inside the spectral buffer and holds no negative reflectance or
// radiance. After it, tracers index the buffer without checks.
template <class Scene>
void validate_optical_scene(const Scene& scene, int32_t n_bands) {
  using namespace detail;
  if (!scene.is_built()) throw std::runtime_error("scene not built. Call build() first.");
  if (n_bands < 1) throw std::invalid_argument("num_bands must be positive");
  const size_t nb = size_t(n_bands);
  const std::vector<float>& spectral = scene.spectral_params();
  const size_t size = spectral.size();
  const bool thermal = scene.emission_mode() == 1;
  const auto& mats = scene.materials();
  std::vector<bool> used(mats.size(), false);
  for (const auto& info : scene.instance_info()) {
    if (info.material_id < 0 || size_t(info.material_id) >= mats.size())
      throw std::invalid_argument("mesh " + std::to_string(info.mesh_id) + " uses material " +
                                  std::to_string(info.material_id) + ", but the scene has " +
                                  std::to_string(mats.size()) + " materials");
    used[size_t(info.material_id)] = true;
  }
  // The leaves of a medium scatter with its material, instanced or not.
  for (const auto& m : scene.optical_media())
    if (m.material_id >= 0 && size_t(m.material_id) < mats.size()) used[size_t(m.material_id)] = true;
  for (size_t i = 0; i < mats.size(); ++i) {
    if (!used[i]) continue;
    // Thermal emission reads block 0 of every material, whatever its type.
    const size_t blocks = std::max(material_blocks(mats[i].type), thermal ? size_t(1) : size_t(0));
    if (blocks == 0) continue;
    const std::string what = "the spectral block of material " + std::to_string(i);
    require_block(mats[i].spectral_offset, blocks * nb, size, what);
    // RPV's k and Theta may be negative; its rho0 may not.
    const bool rpv = mats[i].type == MaterialType::Rpv;
    require_non_negative(spectral, mats[i].spectral_offset, (rpv ? 1 : blocks) * nb, what);
  }
  if (scene_has_sun(scene)) {
    require_block(scene.emitter().spectral_offset, nb, size, "the sun spectrum");
    require_non_negative(spectral, scene.emitter().spectral_offset, nb, "the sun spectrum");
  }
  validate_scene_sky(scene, n_bands);
}

// Thermal emission reads one band centre per band: only the tracers that emit
// (backward) call this; photon runs never read wavelengths.
template <class Scene>
void validate_band_wavelengths(const Scene& scene, int32_t n_bands) {
  if (scene.emission_mode() == 1 && scene.band_wavelengths().size() < size_t(std::max(n_bands, 0)))
    throw std::invalid_argument("thermal mode needs one band wavelength per band");
}

}  // namespace vesk::scene
