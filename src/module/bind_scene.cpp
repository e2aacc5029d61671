// EmbreeSceneManager: construction, geometry, build and ray queries.
#include "embree/scene_manager.h"
#include "module/bind_scene_surface.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

void bind_scene(py::module_& m) {
  SceneClass cls(m, "EmbreeSceneManager",
                 "CPU scene on Embree: meshes, instances, materials, spectra, sun, sky, sensor\n"
                 "and per-primitive overrides, traced as a two-level acceleration structure.\n"
                 "Scenes pickle (and save() / load() one .npz file): the recipe travels, the\n"
                 "acceleration structure is built again on arrival, and results are the same\n"
                 "bit for bit. Turbid domains (_build_turbid_domain_embree) do not travel: a\n"
                 "copy has none, and needs them built again.");
  cls.def(py::init<>());

  bind_scene_geometry_of(cls);
  bind_scene_settings(cls);
  bind_scene_media(cls);
  bind_scene_overrides(cls);
  bind_scene_state(cls);
}

}  // namespace vesk::module
