// EmbreeSceneManager: construction, geometry, build and ray queries.
#include "embree/scene_manager.h"
#include "module/bind_scene_surface.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

void bind_scene(py::module_& m) {
  SceneClass cls(m, "EmbreeSceneManager",
                 "CPU scene on Embree: meshes, instances, materials, spectra, sun, sky, sensor\n"
                 "and per-primitive overrides, traced as a two-level acceleration structure.");
  cls.def(py::init<>());

  bind_scene_geometry_of(cls);
  bind_scene_settings(cls);
  bind_scene_media(cls);
  bind_scene_overrides(cls);
}

}  // namespace vesk::module
