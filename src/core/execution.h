#pragma once
// The `_execution` record that every simulation result carries: which backend,
// which workflow and which executor really ran.

#include <cstdint>
#include <string>

namespace vesk {

enum ExecutionBackend : uint8_t { BACKEND_OPTIX = 0, BACKEND_VULKAN = 1, BACKEND_EMBREE = 2 };

enum ExecutionWorkflow : uint8_t {
  WORKFLOW_OPTICAL_BACKWARD = 0,
  WORKFLOW_OPTICAL_FORWARD = 1,
  WORKFLOW_OPTICAL_FLUX = 2,
  WORKFLOW_OPTICAL_BRF = 3,
  WORKFLOW_RADIATION_FIELD_PROCESS = 4,
  WORKFLOW_PHYSIOLOGY_SOLVER = 5,
  WORKFLOW_PHOTOSYNTHESIS_PROCESS_STATIC = 6,
  WORKFLOW_PHOTOSYNTHESIS_PROCESS_DYNAMIC = 7,
  WORKFLOW_PHOTOSYNTHESIS_PROCESS = 8,
  WORKFLOW_ENERGY_BALANCE_PROCESS = 9,
  WORKFLOW_SIF_PROCESS_FINALIZATION = 11,
  WORKFLOW_SIF_SOURCE_ASSEMBLY = 12,
  WORKFLOW_LIDAR_POINT_CLOUD = 13,
  WORKFLOW_LIDAR_WAVEFORM = 14,
  WORKFLOW_TURBID_STATE = 20,
  WORKFLOW_TURBID_LEAF_RRT = 21,
};

struct ExecutionRecord {
  uint8_t backend = BACKEND_EMBREE;
  uint8_t workflow = WORKFLOW_OPTICAL_BACKWARD;
  std::string executor;
  bool native = true;
  std::string to_string() const;
};

// Host texts of the identities; unknown values throw std::invalid_argument.
const char* backend_name(uint8_t backend);
const char* workflow_name(uint8_t workflow);

}  // namespace vesk
