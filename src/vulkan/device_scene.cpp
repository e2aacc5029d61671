// The scene on the device: tables, acceleration structures, programs, closest hits.
#include "vulkan/device_scene.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "core/array_check.h"
#include "vulkan/device_media.h"

namespace vesk::vulkan {

std::string resolve_program(const std::string& name, const std::string& dir) {
  if (name.find('/') != std::string::npos || dir.empty()) return name;
  return dir + "/" + name;
}

namespace {

std::vector<uint32_t> read_spirv(const std::string& path) {
  std::ifstream f(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = f ? std::streamoff(f.tellg()) : -1;
  if (size <= 0 || size % 4 != 0)
    throw std::runtime_error("Vulkan: cannot read the device program " + path);
  std::vector<uint32_t> words(size_t(size) / 4);
  f.seekg(0);
  f.read(reinterpret_cast<char*>(words.data()), size);
  if (!f || words[0] != 0x07230203u)
    throw std::runtime_error("Vulkan: " + path + " is not a SPIR-V program");
  return words;
}

constexpr unsigned AS_INPUT = VK_BUFFER_USAGE_ACCELERATION_STRUCTURE_BUILD_INPUT_READ_ONLY_BIT_KHR |
                              VK_BUFFER_USAGE_SHADER_DEVICE_ADDRESS_BIT;

// Every build waits for the previous one: they share one scratch buffer, and the top
// level reads the bottom levels.
void build_barrier(const VulkanContext& c, VkCommandBuffer cb) {
  VkMemoryBarrier b{};
  b.sType = VK_STRUCTURE_TYPE_MEMORY_BARRIER;
  b.srcAccessMask = VK_ACCESS_ACCELERATION_STRUCTURE_WRITE_BIT_KHR;
  b.dstAccessMask = VK_ACCESS_ACCELERATION_STRUCTURE_READ_BIT_KHR |
                    VK_ACCESS_ACCELERATION_STRUCTURE_WRITE_BIT_KHR;
  c.fn().vkCmdPipelineBarrier(
      cb, VK_PIPELINE_STAGE_ACCELERATION_STRUCTURE_BUILD_BIT_KHR,
      VK_PIPELINE_STAGE_ACCELERATION_STRUCTURE_BUILD_BIT_KHR | c.program_pipeline_stage(),
      0, 1, &b, 0, nullptr, 0, nullptr);
}

// Creates the structure for one geometry and records its build into cb.
struct PendingBuild {
  VkAccelerationStructureGeometryKHR geometry{};
  VkAccelerationStructureBuildGeometryInfoKHR info{};
  VkAccelerationStructureBuildRangeInfoKHR range{};
};

AccelerationStructure create_structure(const VulkanContext& c, PendingBuild& pb,
                                       VkAccelerationStructureTypeKHR type, uint32_t primitives,
                                       VkDeviceSize& scratch_needed) {
  pb.info.sType = VK_STRUCTURE_TYPE_ACCELERATION_STRUCTURE_BUILD_GEOMETRY_INFO_KHR;
  pb.info.type = type;
  pb.info.flags = VK_BUILD_ACCELERATION_STRUCTURE_PREFER_FAST_TRACE_BIT_KHR;
  pb.info.mode = VK_BUILD_ACCELERATION_STRUCTURE_MODE_BUILD_KHR;
  pb.info.geometryCount = 1;
  pb.info.pGeometries = &pb.geometry;
  VkAccelerationStructureBuildSizesInfoKHR sizes{};
  sizes.sType = VK_STRUCTURE_TYPE_ACCELERATION_STRUCTURE_BUILD_SIZES_INFO_KHR;
  c.fn().vkGetAccelerationStructureBuildSizesKHR(
      c.device(), VK_ACCELERATION_STRUCTURE_BUILD_TYPE_DEVICE_KHR, &pb.info, &primitives, &sizes);
  AccelerationStructure as;
  as.storage = Buffer(c, std::max<VkDeviceSize>(sizes.accelerationStructureSize, 256),
                      VK_BUFFER_USAGE_ACCELERATION_STRUCTURE_STORAGE_BIT_KHR |
                          VK_BUFFER_USAGE_SHADER_DEVICE_ADDRESS_BIT,
                      VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT, HOST_ONLY);
  VkAccelerationStructureCreateInfoKHR ci{};
  ci.sType = VK_STRUCTURE_TYPE_ACCELERATION_STRUCTURE_CREATE_INFO_KHR;
  ci.buffer = as.storage.handle();
  ci.size = sizes.accelerationStructureSize;
  ci.type = type;
  check(c.fn().vkCreateAccelerationStructureKHR(c.device(), &ci, nullptr, &as.handle),
        "vkCreateAccelerationStructureKHR");
  VkAccelerationStructureDeviceAddressInfoKHR ai{};
  ai.sType = VK_STRUCTURE_TYPE_ACCELERATION_STRUCTURE_DEVICE_ADDRESS_INFO_KHR;
  ai.accelerationStructure = as.handle;
  as.address = c.fn().vkGetAccelerationStructureDeviceAddressKHR(c.device(), &ai);
  pb.info.dstAccelerationStructure = as.handle;
  pb.range.primitiveCount = primitives;
  scratch_needed = std::max(scratch_needed, sizes.buildScratchSize);
  return as;
}

void destroy(const VulkanContext& c, AccelerationStructure& as) {
  if (as.handle) c.fn().vkDestroyAccelerationStructureKHR(c.device(), as.handle, nullptr);
  as.handle = VK_NULL_HANDLE;
  as.storage.release();
}

// Runs the builds one after another through one scratch buffer.
void run_builds(const VulkanContext& c, std::vector<PendingBuild>& builds, VkDeviceSize scratch) {
  if (builds.empty()) return;
  const VkDeviceSize align = c.min_scratch_alignment();
  Buffer buf(c, scratch + align,
             VK_BUFFER_USAGE_STORAGE_BUFFER_BIT | VK_BUFFER_USAGE_SHADER_DEVICE_ADDRESS_BIT,
             VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT, HOST_ONLY);
  const VkDeviceAddress base = (buf.device_address() + align - 1) / align * align;
  c.immediate_submit([&](VkCommandBuffer cb) {
    for (PendingBuild& b : builds) {
      b.info.pGeometries = &b.geometry;
      b.info.scratchData.deviceAddress = base;
      const VkAccelerationStructureBuildRangeInfoKHR* range = &b.range;
      c.fn().vkCmdBuildAccelerationStructuresKHR(cb, 1, &b.info, &range);
      build_barrier(c, cb);
    }
  });
}

}  // namespace

Buffer storage_buffer(const VulkanContext& context, size_t bytes, unsigned extra_usage) {
  return Buffer(context, std::max<size_t>(bytes, 16),
                VK_BUFFER_USAGE_STORAGE_BUFFER_BIT | VK_BUFFER_USAGE_TRANSFER_DST_BIT | extra_usage,
                HOST_SHARED, HOST_ONLY);
}

// ---- programs ----

Program::Program(const VulkanContext& context, const std::string& spv_path,
                 std::vector<VkDescriptorType> bindings, uint32_t push_bytes,
                 const std::string& purpose, bool ray_free)
    : context_(context),
      push_bytes_(push_bytes),
      types_(std::move(bindings)),
      suffix_(purpose.empty() ? "" : "(" + purpose + ")") {
  const DeviceFunctions& fn = context.fn();
  const VkDevice dev = context.device();
  const bool pipeline = !ray_free && context.trace_path() == TracePath::RayPipeline;
  stage_ = ray_free ? uint32_t(VK_SHADER_STAGE_COMPUTE_BIT) : context.program_stage();
  bind_point_ = pipeline ? VK_PIPELINE_BIND_POINT_RAY_TRACING_KHR : VK_PIPELINE_BIND_POINT_COMPUTE;
  try {
    std::vector<VkDescriptorSetLayoutBinding> b(types_.size());
    std::vector<VkDescriptorPoolSize> sizes;
    for (uint32_t i = 0; i < types_.size(); ++i) {
      b[i].binding = i;
      b[i].descriptorType = types_[i];
      b[i].descriptorCount = 1;
      b[i].stageFlags = stage_;
      sizes.push_back({types_[i], 1});
    }
    VkDescriptorSetLayoutCreateInfo li{};
    li.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_SET_LAYOUT_CREATE_INFO;
    li.bindingCount = uint32_t(b.size());
    li.pBindings = b.data();
    check(fn.vkCreateDescriptorSetLayout(dev, &li, nullptr, &set_layout_),
          label_("vkCreateDescriptorSetLayout").c_str());
    VkPushConstantRange pr{stage_, 0, push_bytes};
    VkPipelineLayoutCreateInfo pli{};
    pli.sType = VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO;
    pli.setLayoutCount = 1;
    pli.pSetLayouts = &set_layout_;
    pli.pushConstantRangeCount = push_bytes ? 1 : 0;
    pli.pPushConstantRanges = &pr;
    check(fn.vkCreatePipelineLayout(dev, &pli, nullptr, &layout_),
          label_("vkCreatePipelineLayout").c_str());
    if (pipeline)
      create_ray_pipeline_(spv_path);
    else
      create_compute_(spv_path);
    VkDescriptorPoolCreateInfo poi{};
    poi.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_POOL_CREATE_INFO;
    poi.maxSets = 1;
    poi.poolSizeCount = uint32_t(sizes.size());
    poi.pPoolSizes = sizes.data();
    check(fn.vkCreateDescriptorPool(dev, &poi, nullptr, &pool_),
          label_("vkCreateDescriptorPool").c_str());
    VkDescriptorSetAllocateInfo ai{};
    ai.sType = VK_STRUCTURE_TYPE_DESCRIPTOR_SET_ALLOCATE_INFO;
    ai.descriptorPool = pool_;
    ai.descriptorSetCount = 1;
    ai.pSetLayouts = &set_layout_;
    check(fn.vkAllocateDescriptorSets(dev, &ai, &set_),
          label_("vkAllocateDescriptorSets").c_str());
  } catch (...) {
    release_();
    throw;
  }
}

namespace {

VkShaderModule create_module(const VulkanContext& c, const std::string& spv_path) {
  const std::vector<uint32_t> code = read_spirv(spv_path);
  VkShaderModuleCreateInfo mi{};
  mi.sType = VK_STRUCTURE_TYPE_SHADER_MODULE_CREATE_INFO;
  mi.codeSize = code.size() * 4;
  mi.pCode = code.data();
  VkShaderModule m = VK_NULL_HANDLE;
  check(c.fn().vkCreateShaderModule(c.device(), &mi, nullptr, &m), "vkCreateShaderModule");
  return m;
}

VkDeviceSize round_up(VkDeviceSize v, VkDeviceSize a) {
  return (v + a - 1) / a * a;
}

}  // namespace

void Program::create_compute_(const std::string& spv_path) {
  modules_.push_back(create_module(context_, spv_path));
  VkComputePipelineCreateInfo ci{};
  ci.sType = VK_STRUCTURE_TYPE_COMPUTE_PIPELINE_CREATE_INFO;
  ci.stage.sType = VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO;
  ci.stage.stage = VK_SHADER_STAGE_COMPUTE_BIT;
  ci.stage.module = modules_[0];
  ci.stage.pName = "main";
  ci.layout = layout_;
  check(context_.fn().vkCreateComputePipelines(context_.device(), VK_NULL_HANDLE, 1, &ci, nullptr,
                                               &pipeline_),
        "vkCreateComputePipelines");
}

void Program::create_ray_pipeline_(const std::string& spv_path) {
  // backward.spv -> backward.rgen.spv; the hit and miss stages lie beside it.
  std::string rgen = spv_path;
  if (rgen.size() >= 4 && rgen.compare(rgen.size() - 4, 4, ".spv") == 0) rgen.resize(rgen.size() - 4);
  rgen += ".rgen.spv";
  const size_t slash = spv_path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "" : spv_path.substr(0, slash + 1);
  for (const std::string& path : {rgen, dir + "miss.rmiss.spv", dir + "hit.rchit.spv"})
    modules_.push_back(create_module(context_, path));

  const VkShaderStageFlagBits stages[3] = {VK_SHADER_STAGE_RAYGEN_BIT_KHR,
                                           VK_SHADER_STAGE_MISS_BIT_KHR,
                                           VK_SHADER_STAGE_CLOSEST_HIT_BIT_KHR};
  VkPipelineShaderStageCreateInfo si[3]{};
  VkRayTracingShaderGroupCreateInfoKHR groups[3]{};
  for (uint32_t i = 0; i < 3; ++i) {
    si[i].sType = VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO;
    si[i].stage = stages[i];
    si[i].module = modules_[i];
    si[i].pName = "main";
    groups[i].sType = VK_STRUCTURE_TYPE_RAY_TRACING_SHADER_GROUP_CREATE_INFO_KHR;
    groups[i].type = i < 2 ? VK_RAY_TRACING_SHADER_GROUP_TYPE_GENERAL_KHR
                           : VK_RAY_TRACING_SHADER_GROUP_TYPE_TRIANGLES_HIT_GROUP_KHR;
    groups[i].generalShader = i < 2 ? i : VK_SHADER_UNUSED_KHR;
    groups[i].closestHitShader = i == 2 ? 2 : VK_SHADER_UNUSED_KHR;
    groups[i].anyHitShader = VK_SHADER_UNUSED_KHR;
    groups[i].intersectionShader = VK_SHADER_UNUSED_KHR;
  }
  VkRayTracingPipelineCreateInfoKHR ci{};
  ci.sType = VK_STRUCTURE_TYPE_RAY_TRACING_PIPELINE_CREATE_INFO_KHR;
  ci.stageCount = 3;
  ci.pStages = si;
  ci.groupCount = 3;
  ci.pGroups = groups;
  ci.maxPipelineRayRecursionDepth = 1;  // rays are cast from ray generation only
  ci.layout = layout_;
  const DeviceFunctions& fn = context_.fn();
  check(fn.vkCreateRayTracingPipelinesKHR(context_.device(), VK_NULL_HANDLE, VK_NULL_HANDLE, 1,
                                          &ci, nullptr, &pipeline_),
        "vkCreateRayTracingPipelinesKHR");

  // The binding table: one record per group, each region starting on the base alignment.
  const uint32_t handle = context_.group_handle_size();
  std::vector<uint8_t> handles(size_t(handle) * 3);
  check(fn.vkGetRayTracingShaderGroupHandlesKHR(context_.device(), pipeline_, 0, 3, handles.size(),
                                                handles.data()),
        "vkGetRayTracingShaderGroupHandlesKHR");
  const VkDeviceSize stride = round_up(handle, context_.group_handle_alignment());
  const VkDeviceSize region = round_up(stride, context_.group_base_alignment());
  const VkDeviceSize base_align = context_.group_base_alignment();
  binding_table_ = Buffer(context_, region * 3 + base_align,
                          VK_BUFFER_USAGE_SHADER_BINDING_TABLE_BIT_KHR |
                              VK_BUFFER_USAGE_SHADER_DEVICE_ADDRESS_BIT,
                          HOST_SHARED, HOST_ONLY);
  const VkDeviceAddress address = binding_table_.device_address();
  const VkDeviceAddress start = round_up(address, base_align);
  std::vector<uint8_t> table(size_t(region * 3), 0);
  for (size_t g = 0; g < 3; ++g)
    std::memcpy(&table[g * region], &handles[g * handle], handle);
  binding_table_.upload(table.data(), table.size(), start - address);
  raygen_region_ = {start, stride, stride};  // a ray generation region is one record
  miss_region_ = {start + region, stride, stride};
  hit_region_ = {start + 2 * region, stride, stride};
}

Program::~Program() {
  release_();
}

void Program::release_() {
  const DeviceFunctions& fn = context_.fn();
  const VkDevice dev = context_.device();
  if (pool_) fn.vkDestroyDescriptorPool(dev, pool_, nullptr);
  if (pipeline_) fn.vkDestroyPipeline(dev, pipeline_, nullptr);
  if (layout_) fn.vkDestroyPipelineLayout(dev, layout_, nullptr);
  if (set_layout_) fn.vkDestroyDescriptorSetLayout(dev, set_layout_, nullptr);
  for (VkShaderModule m : modules_) fn.vkDestroyShaderModule(dev, m, nullptr);
  binding_table_.release();
  modules_.clear();
  pool_ = VK_NULL_HANDLE, pipeline_ = VK_NULL_HANDLE, layout_ = VK_NULL_HANDLE;
  set_layout_ = VK_NULL_HANDLE;
}

void Program::bind(uint32_t binding, const Buffer& buffer) {
  VkDescriptorBufferInfo bi{buffer.handle(), 0, VK_WHOLE_SIZE};
  VkWriteDescriptorSet w{};
  w.sType = VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET;
  w.dstSet = set_;
  w.dstBinding = binding;
  w.descriptorCount = 1;
  w.descriptorType = types_.at(binding);
  w.pBufferInfo = &bi;
  context_.fn().vkUpdateDescriptorSets(context_.device(), 1, &w, 0, nullptr);
}

void Program::bind(uint32_t binding, VkAccelerationStructureKHR tlas) {
  VkWriteDescriptorSetAccelerationStructureKHR as{};
  as.sType = VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET_ACCELERATION_STRUCTURE_KHR;
  as.accelerationStructureCount = 1;
  as.pAccelerationStructures = &tlas;
  VkWriteDescriptorSet w{};
  w.sType = VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET;
  w.pNext = &as;
  w.dstSet = set_;
  w.dstBinding = binding;
  w.descriptorCount = 1;
  w.descriptorType = VK_DESCRIPTOR_TYPE_ACCELERATION_STRUCTURE_KHR;
  context_.fn().vkUpdateDescriptorSets(context_.device(), 1, &w, 0, nullptr);
}

void Program::clear(VkCommandBuffer cb, std::initializer_list<VkBuffer> buffers) const {
  for (VkBuffer b : buffers) context_.fn().vkCmdFillBuffer(cb, b, 0, VK_WHOLE_SIZE, 0);
  VkMemoryBarrier mb{};
  mb.sType = VK_STRUCTURE_TYPE_MEMORY_BARRIER;
  mb.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
  mb.dstAccessMask = VK_ACCESS_SHADER_READ_BIT | VK_ACCESS_SHADER_WRITE_BIT;
  context_.fn().vkCmdPipelineBarrier(cb, VK_PIPELINE_STAGE_TRANSFER_BIT,
                                     context_.program_pipeline_stage(), 0, 1, &mb, 0, nullptr, 0,
                                     nullptr);
}

void Program::dispatch(VkCommandBuffer cb, uint32_t invocations, const void* push) const {
  // Whole workgroups on either path: the programs return past their count.
  dispatch_grid(cb, (invocations + WORKGROUP - 1) / WORKGROUP, 1, push);
}

void Program::dispatch_grid(VkCommandBuffer cb, uint32_t groups_x, uint32_t groups_y,
                            const void* push) const {
  const DeviceFunctions& fn = context_.fn();
  fn.vkCmdBindPipeline(cb, bind_point_, pipeline_);
  fn.vkCmdBindDescriptorSets(cb, bind_point_, layout_, 0, 1, &set_, 0, nullptr);
  if (push_bytes_) fn.vkCmdPushConstants(cb, layout_, stage_, 0, push_bytes_, push);
  if (bind_point_ == VK_PIPELINE_BIND_POINT_RAY_TRACING_KHR) {
    const VkStridedDeviceAddressRegionKHR none{};
    fn.vkCmdTraceRaysKHR(cb, &raygen_region_, &miss_region_, &hit_region_, &none,
                         groups_x * WORKGROUP, groups_y, 1);
  } else {
    fn.vkCmdDispatch(cb, groups_x, groups_y, 1);
  }
}

void Program::dispatch_wide(VkCommandBuffer cb, uint64_t invocations, const void* push) const {
  const uint64_t groups = std::max<uint64_t>((invocations + WORKGROUP - 1) / WORKGROUP, 1);
  const uint32_t gx = uint32_t(std::min<uint64_t>(groups, 65535));
  dispatch_grid(cb, gx, uint32_t((groups + gx - 1) / gx), push);
}

void compute_barrier(const VulkanContext& c, VkCommandBuffer cb) {
  VkMemoryBarrier b{};
  b.sType = VK_STRUCTURE_TYPE_MEMORY_BARRIER;
  b.srcAccessMask = VK_ACCESS_SHADER_WRITE_BIT;
  b.dstAccessMask = VK_ACCESS_SHADER_READ_BIT | VK_ACCESS_SHADER_WRITE_BIT | VK_ACCESS_HOST_READ_BIT;
  c.fn().vkCmdPipelineBarrier(cb, VK_PIPELINE_STAGE_COMPUTE_SHADER_BIT,
                              VK_PIPELINE_STAGE_COMPUTE_SHADER_BIT | VK_PIPELINE_STAGE_HOST_BIT, 0,
                              1, &b, 0, nullptr, 0, nullptr);
}

// ---- the scene ----

namespace {

constexpr VkDescriptorType SB = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;
constexpr VkDescriptorType AS = VK_DESCRIPTOR_TYPE_ACCELERATION_STRUCTURE_KHR;

// Instance record of the programs: three transform rows, then mesh, material and
// primitive offset (64 bytes).
struct InstanceRecord {
  float rows[12];
  int32_t mesh_id, material_id, primitive_offset, pad;
};

std::vector<InstanceRecord> make_instance_records(
    const std::vector<scene::Instance>& instances,
    const std::vector<VulkanSceneManager::InstanceInfo>& info) {
  std::vector<InstanceRecord> r(instances.size());
  for (size_t i = 0; i < instances.size(); ++i) {
    std::memcpy(r[i].rows, instances[i].transform, sizeof(r[i].rows));
    r[i].mesh_id = info[i].mesh_id;
    r[i].material_id = info[i].material_id;
    r[i].primitive_offset = info[i].primitive_offset;
    r[i].pad = 0;
  }
  return r;
}

}  // namespace

VulkanSceneManager::Device::Device(const VulkanContext& c, const std::string& trace_program)
    : context(c), trace(c, trace_program, {AS, SB, SB, SB, SB, SB, SB, SB}, 8) {}

VulkanSceneManager::Device::~Device() {
  release_structures();
}

void VulkanSceneManager::Device::release_structures() {
  destroy(context, top);
  for (AccelerationStructure& as : bottom) destroy(context, as);
  bottom.clear();
}

void VulkanSceneManager::Device::build(const std::vector<scene::Mesh>& meshes,
                                       const std::vector<scene::Instance>& instances,
                                       const std::vector<InstanceInfo>& info) {
  // Every mesh's vertices, normals and triangles in one table each, with a record of
  // where each mesh starts (in vertices and triangles; -1: no normals).
  std::vector<float3> v, n;
  std::vector<int3> t;
  std::vector<int32_t> table;
  for (const scene::Mesh& m : meshes) {
    table.insert(table.end(), {int32_t(v.size()), m.normals.empty() ? -1 : int32_t(n.size()),
                               int32_t(t.size()), int32_t(m.indices.size())});
    v.insert(v.end(), m.vertices.begin(), m.vertices.end());
    n.insert(n.end(), m.normals.begin(), m.normals.end());
    t.insert(t.end(), m.indices.begin(), m.indices.end());
  }
  release_structures();
  vertices = storage_buffer(context, v.size() * sizeof(float3), AS_INPUT);
  vertices.upload(v.data(), v.size() * sizeof(float3));
  normals = storage_buffer(context, n.size() * sizeof(float3));
  normals.upload(n.data(), n.size() * sizeof(float3));
  indices = storage_buffer(context, t.size() * sizeof(int3), AS_INPUT);
  indices.upload(t.data(), t.size() * sizeof(int3));
  mesh_table = storage_buffer(context, table.size() * sizeof(int32_t));
  mesh_table.upload(table.data(), table.size() * sizeof(int32_t));

  std::vector<PendingBuild> builds(meshes.size());
  VkDeviceSize scratch = 0;
  const VkDeviceAddress va = vertices.device_address(), ia = indices.device_address();
  for (size_t m = 0; m < meshes.size(); ++m) {
    PendingBuild& pb = builds[m];
    pb.geometry.sType = VK_STRUCTURE_TYPE_ACCELERATION_STRUCTURE_GEOMETRY_KHR;
    pb.geometry.geometryType = VK_GEOMETRY_TYPE_TRIANGLES_KHR;
    pb.geometry.flags = VK_GEOMETRY_OPAQUE_BIT_KHR;
    auto& tri = pb.geometry.geometry.triangles;
    tri.sType = VK_STRUCTURE_TYPE_ACCELERATION_STRUCTURE_GEOMETRY_TRIANGLES_DATA_KHR;
    tri.vertexFormat = VK_FORMAT_R32G32B32_SFLOAT;
    tri.vertexData.deviceAddress = va + VkDeviceAddress(table[4 * m]) * sizeof(float3);
    tri.vertexStride = sizeof(float3);
    tri.maxVertex = uint32_t(meshes[m].vertices.size() - 1);
    tri.indexType = VK_INDEX_TYPE_UINT32;
    tri.indexData.deviceAddress = ia + VkDeviceAddress(table[4 * m + 2]) * sizeof(int3);
    bottom.push_back(create_structure(context, pb, VK_ACCELERATION_STRUCTURE_TYPE_BOTTOM_LEVEL_KHR,
                                      uint32_t(meshes[m].indices.size()), scratch));
  }
  run_builds(context, builds, scratch);
  rebuild_top_level(instances, info);
}

void VulkanSceneManager::Device::rebuild_top_level(const std::vector<scene::Instance>& instances,
                                                   const std::vector<InstanceInfo>& info) {
  const std::vector<InstanceRecord> records = make_instance_records(instances, info);
  instance_records = storage_buffer(context, records.size() * sizeof(InstanceRecord));
  instance_records.upload(records.data(), records.size() * sizeof(InstanceRecord));

  top_instances.assign(instances.size(), VkAccelerationStructureInstanceKHR{});
  for (size_t i = 0; i < instances.size(); ++i) {
    VkAccelerationStructureInstanceKHR& tl = top_instances[i];
    // Both are row-major 3x4.
    std::memcpy(&tl.transform, instances[i].transform, 12 * sizeof(float));
    tl.instanceCustomIndex = 0;
    tl.mask = i < instance_masks.size() ? instance_masks[i] : MASK_SURFACE;
    tl.instanceShaderBindingTableRecordOffset = 0;
    // Hits on both faces, as on the CPU; back faces are told apart in the program.
    tl.flags = VK_GEOMETRY_INSTANCE_TRIANGLE_FACING_CULL_DISABLE_BIT_KHR;
    tl.accelerationStructureReference = bottom.at(size_t(instances[i].mesh_id)).address;
  }
  build_top_level();
}

void VulkanSceneManager::Device::build_top_level() {
  destroy(context, top);
  const size_t bytes = top_instances.size() * sizeof(top_instances[0]);
  instance_table = storage_buffer(context, bytes, AS_INPUT);
  instance_table.upload(top_instances.data(), bytes);

  std::vector<PendingBuild> builds(1);
  PendingBuild& pb = builds[0];
  pb.geometry.sType = VK_STRUCTURE_TYPE_ACCELERATION_STRUCTURE_GEOMETRY_KHR;
  pb.geometry.geometryType = VK_GEOMETRY_TYPE_INSTANCES_KHR;
  pb.geometry.flags = VK_GEOMETRY_OPAQUE_BIT_KHR;
  pb.geometry.geometry.instances.sType =
      VK_STRUCTURE_TYPE_ACCELERATION_STRUCTURE_GEOMETRY_INSTANCES_DATA_KHR;
  pb.geometry.geometry.instances.arrayOfPointers = VK_FALSE;
  pb.geometry.geometry.instances.data.deviceAddress = instance_table.device_address();
  VkDeviceSize scratch = 0;
  top = create_structure(context, pb, VK_ACCELERATION_STRUCTURE_TYPE_TOP_LEVEL_KHR,
                         uint32_t(top_instances.size()), scratch);
  run_builds(context, builds, scratch);
}

void VulkanSceneManager::Device::bind_scene(Program& p) const {
  p.bind(0, top.handle);
  p.bind(1, vertices);
  p.bind(2, normals);
  p.bind(3, indices);
  p.bind(4, mesh_table);
  p.bind(5, instance_records);
}

std::vector<VulkanHit> VulkanSceneManager::trace_closest(
    const std::vector<backend::Ray>& rays) const {
  if (!built_) throw std::runtime_error("trace_closest: scene not built. Call build() first.");
  check_rays_(rays);
  std::vector<VulkanHit> hits(rays.size());
  if (rays.empty()) return hits;
  static_assert(sizeof(backend::Ray) == 36);
  std::vector<float> in(rays.size() * 8);
  for (size_t i = 0; i < rays.size(); ++i) {
    const backend::Ray& r = rays[i];
    const float row[8] = {r.origin.x,    r.origin.y,    r.origin.z,    r.t_min,
                          r.direction.x, r.direction.y, r.direction.z, r.t_max};
    std::memcpy(&in[8 * i], row, sizeof(row));
  }
  Buffer ray_buf = storage_buffer(context_, in.size() * sizeof(float));
  ray_buf.upload(in.data(), in.size() * sizeof(float));
  Buffer hit_buf = storage_buffer(context_, rays.size() * 16 * sizeof(uint32_t));
  dev_->bind_scene(dev_->trace);
  dev_->trace.bind(6, ray_buf);
  dev_->trace.bind(7, hit_buf);
  if (rays.size() >= (size_t(1) << 32) / 16)
    throw std::invalid_argument("trace_closest: at most 2^28 rays per call on Vulkan");
  const uint32_t count = uint32_t(rays.size());
  context_.immediate_submit([&](VkCommandBuffer cb) {
    for (uint32_t base = 0; base < count; base += std::min(count - base, MAX_DISPATCH)) {
      const uint32_t push[2] = {count, base};
      dev_->trace.dispatch(cb, std::min(count - base, MAX_DISPATCH), push);
    }
  });

  std::vector<uint32_t> out(rays.size() * 16);
  hit_buf.download(out.data(), out.size() * sizeof(uint32_t));
  auto f = [&](size_t i, int k) {
    float x;
    std::memcpy(&x, &out[16 * i + size_t(k)], 4);
    return x;
  };
  for (size_t i = 0; i < rays.size(); ++i) {
    VulkanHit& h = hits[i];
    const uint32_t flags = out[16 * i + 14];
    h.hit = flags & 1u;
    h.back_face = flags & 2u;
    h.t = h.hit ? f(i, 0) : FLT_MAX;
    h.position = {f(i, 1), f(i, 2), f(i, 3)};
    h.shading_normal = {f(i, 4), f(i, 5), f(i, 6)};
    h.geometric_normal = {f(i, 7), f(i, 8), f(i, 9)};
    h.material_id = int32_t(out[16 * i + 10]);
    h.local_primitive = int32_t(out[16 * i + 11]);
    h.primitive_id = int32_t(out[16 * i + 12]);
    h.instance_id = int32_t(out[16 * i + 13]);
  }
  return hits;
}

}  // namespace vesk::vulkan
