// The CPU scene's entries to the leaf physiology solver and the photosynthesis processes.
#include "embree/scene_manager.h"
#include "physiology/leaf_solver.h"
#include "physiology/photosynthesis_static.h"

namespace vesk::embree {

backend::PhysiologyResult EmbreeSceneManager::solve_physiology(
    const backend::PhysiologyRequestView& view) const {
  return backend::solve_physiology(view);
}

backend::PhotosynthesisStaticResult EmbreeSceneManager::execute_photosynthesis_process_static(
    const backend::PhotosynthesisProcessRequestView& view) const {
  return backend::execute_photosynthesis_process_static(view);
}

}  // namespace vesk::embree
