// EmbreeSceneManager: materials, spectra, sun, sky, sensor, repetition and modes.
#include "embree/scene_manager.h"
#include "module/bind_scene_surface.h"

namespace vesk::module {

void bind_scene_settings(SceneClass& cls) { bind_scene_settings_of(cls); }

}  // namespace vesk::module
