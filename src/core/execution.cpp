#include "core/execution.h"

#include <stdexcept>

namespace vesk {

const char* backend_name(uint8_t backend) {
  switch (backend) {
    case BACKEND_OPTIX: return "optix";
    case BACKEND_VULKAN: return "vulkan";
    case BACKEND_EMBREE: return "embree";
  }
  throw std::invalid_argument("unknown native backend identity");
}

const char* workflow_name(uint8_t workflow) {
  switch (workflow) {
    case WORKFLOW_OPTICAL_BACKWARD: return "optical_backward";
    case WORKFLOW_OPTICAL_FORWARD: return "optical_forward";
    case WORKFLOW_OPTICAL_FLUX: return "optical_flux";
    case WORKFLOW_OPTICAL_BRF: return "optical_brf";
    case WORKFLOW_RADIATION_FIELD_PROCESS: return "radiation_field_process";
    case WORKFLOW_PHYSIOLOGY_SOLVER: return "physiology_solver";
    case WORKFLOW_PHOTOSYNTHESIS_PROCESS_STATIC: return "photosynthesis_process_static";
    case WORKFLOW_PHOTOSYNTHESIS_PROCESS_DYNAMIC: return "photosynthesis_process_dynamic";
    case WORKFLOW_PHOTOSYNTHESIS_PROCESS: return "photosynthesis_process";
    case WORKFLOW_ENERGY_BALANCE_PROCESS: return "energy_balance_process";
    case WORKFLOW_SIF_PROCESS_FINALIZATION: return "sif_process_finalization";
    case WORKFLOW_SIF_SOURCE_ASSEMBLY: return "sif_source_assembly";
    case WORKFLOW_LIDAR_POINT_CLOUD: return "lidar_point_cloud";
    case WORKFLOW_LIDAR_WAVEFORM: return "lidar_waveform";
    case WORKFLOW_TURBID_STATE: return "turbid_state";
    case WORKFLOW_TURBID_LEAF_RRT: return "turbid_leaf_rrt";
  }
  throw std::invalid_argument("unknown native workflow identity");
}

std::string ExecutionRecord::to_string() const {
  return "ExecutionRecord(backend=" + std::to_string(backend) +
         ", workflow=" + std::to_string(workflow) + ", executor='" + executor +
         "', native=" + (native ? "true" : "false") + ")";
}

}  // namespace vesk
