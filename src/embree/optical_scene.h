#pragma once
// Checks and settings shared by the optical tracers (backward, forward, flux).

#include <cstdint>

namespace vesk::embree {

class EmbreeSceneManager;

// Throws unless the scene is built, every instanced mesh names an existing material,
// and every spectral block a path may read with n_bands bands (materials, sun, the
// selected sky) lies inside the spectral buffer and holds no negative reflectance or
// radiance. After it, tracers index the buffer without checks.
void validate_optical_scene(const EmbreeSceneManager& scene, int32_t n_bands);

// The part of it about the selected sky: its block must hold n_bands bands.
void validate_scene_sky(const EmbreeSceneManager& scene, int32_t n_bands);

// Thermal emission reads one band centre per band: only the tracers that emit
// (backward) call this; photon runs never read wavelengths.
void validate_band_wavelengths(const EmbreeSceneManager& scene, int32_t n_bands);

// Whether a sun is set: a spectrum offset and a non-zero direction.
bool scene_has_sun(const EmbreeSceneManager& scene);

// A positive integer in VESK_MAX_DEPTH replaces max_depth and logs "<prefix> VESK_MAX_DEPTH=d".
int32_t max_depth_from_env(int32_t max_depth, const char* prefix);

}  // namespace vesk::embree
