#pragma once
// Private to the scene manager's translation units: the Embree device and scenes
// behind EmbreeSceneManager's opaque pointer.

#include <string>
#include <vector>

#include "embree/embree_adapter.h"
#include "embree/scene_manager.h"

namespace vesk::embree {

struct EmbreeSceneManager::Handles {
  RTCDevice device = nullptr;
  RTCScene top = nullptr;
  std::vector<RTCScene> mesh_scenes;
  std::string last_error;  // filled by the device's error callback
};

}  // namespace vesk::embree
