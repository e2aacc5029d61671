// VulkanSceneManager: the device structures over the shared scene model, and the few
// setters whose checks differ on the device.
#include "vulkan/scene_manager.h"

#include <algorithm>
#include <stdexcept>

#include "core/array_check.h"
#include "vulkan/context.h"
#include "vulkan/device_media.h"
#include "vulkan/device_scene.h"

namespace vesk::vulkan {

VulkanSceneManager::VulkanSceneManager(const VulkanContext& context,
                                       const std::string& trace_shader,
                                       const std::string& program_dir)
    : context_(context), trace_shader_(trace_shader), program_dir_(program_dir) {
  dev_ = std::make_unique<Device>(context, resolve_program(trace_shader, program_dir));
}

VulkanSceneManager::~VulkanSceneManager() = default;

void VulkanSceneManager::build() {
  require_idle_();
  const SceneBox b = checked_scene_box_();
  built_ = structure_current_ = false;
  instance_info_.clear();
  int32_t offset = 0;
  for (const scene::Instance& inst : instances_) {
    const scene::Mesh& mesh = meshes_[size_t(inst.mesh_id)];
    instance_info_.push_back({inst.mesh_id, mesh.material_id, offset});
    offset += int32_t(mesh.indices.size());
  }
  dev_->instance_masks = media_instance_masks(*this);
  dev_->build(meshes_, instances_, instance_info_);
  store_aabb_(b);
  built_ = structure_current_ = true;
  ++geometry_build_revision_;
}

void VulkanSceneManager::refit_ias() {
  if (!built_) throw std::runtime_error("refit_ias: scene not built. Call build() first.");
  require_idle_();
  const SceneBox b = checked_scene_box_();
  dev_->instance_masks = media_instance_masks(*this);
  dev_->rebuild_top_level(instances_, instance_info_);
  store_aabb_(b);
  ++geometry_build_revision_;
}

void VulkanSceneManager::build_reuse_gas() {
  require_idle_();
  if (!structure_current_)
    throw std::runtime_error(
        "build_reuse_gas: no acceleration structure of the current geometry to reuse. Call "
        "build() first.");
  built_ = true;
}

void VulkanSceneManager::update_spectral_params(size_t offset, const float* values, size_t count) {
  require_idle_();
  if (offset > spectral_.size() || count > spectral_.size() - offset)
    throw std::out_of_range("Vulkan spectral update is outside the buffer");
  check_finite("values", values, count);
  SceneModel::update_spectral_params(offset, values, count);
}

void VulkanSceneManager::set_instance_sif_source_fields(InstanceSifSourceFields f) {
  require_idle_();
  const size_t n = instances_.size();
  if (f.n_sif_bands < 1 || f.spatial_cell_stride < 1 || f.orientation_theta_bins < 1 ||
      f.orientation_phi_bins < 1)
    throw std::invalid_argument("set_instance_sif_source_fields: dimensions must be positive");
  const double bands = f.n_sif_bands, cells = f.spatial_cell_stride,
               bins = double(f.orientation_theta_bins) * f.orientation_phi_bins;
  if (f.grid_dims.size() != 3 * n || f.bounds_min.size() != 3 * n || f.bounds_max.size() != 3 * n ||
      double(f.spatial_spectra.size()) != double(n) * cells * bands ||
      double(f.orientation_spectra.size()) != double(n) * bins * bands ||
      double(f.joint_spectra.size()) != double(n) * cells * bins * bands ||
      double(f.direct_joint_spectra.size()) != double(n) * cells * bins * bands)
    throw std::invalid_argument("set_instance_sif_source_fields: array length mismatch");
  for (const auto* v : {&f.spatial_spectra, &f.orientation_spectra, &f.joint_spectra,
                        &f.direct_joint_spectra, &f.bounds_min, &f.bounds_max})
    check_finite("set_instance_sif_source_fields", v->data(), v->size());
  instance_sif_source_fields_ = std::move(f);
}

}  // namespace vesk::vulkan
