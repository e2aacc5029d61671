// The CPU scene's entry to the leaf physiology solver.
#include "embree/scene_manager.h"
#include "physiology/leaf_solver.h"

namespace vesk::embree {

backend::PhysiologyResult EmbreeSceneManager::solve_physiology(
    const backend::PhysiologyRequestView& view) const {
  return backend::solve_physiology(view);
}

}  // namespace vesk::embree
