// Microwave transport on the device: the host side of microwave_wavefront.spv (checks,
// tables, one dispatch of one invocation per ray) and the images built on it.
#include <algorithm>
#include <stdexcept>
#include <string>

#include "core/memory_limit.h"
#include "core/workers.h"
#include "microwave/transport.h"
#include "vulkan/device_scene.h"

namespace vesk::vulkan {

namespace {

constexpr VkDescriptorType SB = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;

struct MicrowavePush {
  uint32_t count;
  int32_t active, max_depth, size;
  int32_t soil_count, veg_count, trunk_count;
  float air_temperature, atmosphere_tau;
  int32_t n_materials;
  int32_t num_repetitions;  // repeated tiles, as microwave::MicrowaveTiles
  float tile_w, tile_h, z_lo, z_hi;
};

// Whether [offset, offset + extent) lies inside a table of `size` values.
bool inside(int64_t offset, int64_t extent, size_t size) {
  return offset >= 0 && extent >= 0 && offset + extent <= int64_t(size);
}

}  // namespace

std::vector<float> VulkanSceneManager::run_microwave_wavefront(
    bool active_mode, int max_depth, float air_temperature, float atmosphere_tau, int soil_count,
    int vegetation_count, int trunk_count, int response_table_size,
    const std::vector<float>& origins, const std::vector<float>& directions,
    const std::vector<int32_t>& material_map, const std::vector<float>& passive_soil_table,
    const std::vector<float>& active_soil_table, const std::vector<float>& smooth_soil_table,
    const std::vector<float>& vegetation_parameters, const std::vector<float>& trunk_response_table,
    const std::vector<float>& trunk_dihedral_scattering,
    const std::vector<float>& dihedral_ground_table, const std::vector<int32_t>& lut_info,
    const std::vector<float>& mueller_lut, const std::vector<float>& cosine_cdf,
    const std::vector<float>& azimuth_cdf) const {
  if (!built_) throw std::runtime_error("Vulkan: build the scene before microwave transport");
  if (max_depth < 1 || response_table_size < 2 || soil_count < 0 || vegetation_count < 0 ||
      trunk_count < 0)
    throw std::invalid_argument("Vulkan microwave wavefront received invalid dimensions");
  if (origins.size() % 4 != 0 || directions.size() != origins.size())
    throw std::invalid_argument("Vulkan microwave origins and directions must have shape (N, 4)");
  const size_t rays = origins.size() / 4;
  if (rays == 0) return {};
  const size_t size = size_t(response_table_size);
  const size_t soils = size_t(soil_count), vegs = size_t(vegetation_count),
               trunks = size_t(trunk_count);
  if (passive_soil_table.size() != soils * size * 4 ||
      active_soil_table.size() != soils * size * 4 || smooth_soil_table.size() != soils * size * 2)
    throw std::invalid_argument("Vulkan microwave soil response tables have invalid sizes");
  if (material_map.size() < materials_.size())
    throw std::invalid_argument("Vulkan microwave material map does not cover scene materials");
  const int64_t total = int64_t(soils + vegs + trunks);
  for (const int32_t m : material_map)
    if (m < -1 || m >= total)
      throw std::invalid_argument("Vulkan microwave material map entry " + std::to_string(m) +
                                  " is not -1 or a microwave material below " +
                                  std::to_string(total));

  // The size rule: one 4-float record per vegetation material, a trunk response row per
  // cosine, the double-bounce table complete wherever the active program can reach it,
  // one lut_info record per material of the right type, and every table a record points
  // into long enough for it.
  const size_t dihedral = soils * trunks * size * 2;
  bool ok = vegetation_parameters.size() == vegs * 4 &&
            trunk_response_table.size() == trunks * size * 4 &&
            (dihedral_ground_table.size() == dihedral ||
             (dihedral_ground_table.empty() && !active_mode)) &&
            lut_info.size() == size_t(total) * microwave::LUT_INFO_STRIDE;
  for (int64_t m = 0; ok && m < total; ++m) {
    const int32_t* r = &lut_info[size_t(m) * microwave::LUT_INFO_STRIDE];
    const int32_t type = m < int64_t(soils)          ? microwave::MW_SOIL
                         : m < int64_t(soils + vegs) ? microwave::MW_VEGETATION
                                                     : microwave::MW_TRUNK;
    ok = r[0] == type;
    if (ok && r[1] >= 0) {
      const int64_t cells = int64_t(r[2]) * int64_t(r[3]);
      ok = type != microwave::MW_SOIL && r[2] >= 1 && r[3] >= 1 && r[4] >= 1 &&
           inside(r[1], cells * r[4] * 16, mueller_lut.size()) &&
           inside(r[5], cells, cosine_cdf.size()) && inside(r[6], cells * r[4], azimuth_cdf.size());
    }
    if (ok && r[7] >= 0)
      ok = type == microwave::MW_TRUNK && r[8] >= 1 &&
           inside(r[7], int64_t(r[8]) * 16, trunk_dihedral_scattering.size());
  }
  if (!ok) throw std::invalid_argument("Vulkan microwave vegetation/trunk data has invalid sizes");
  if (rays > (size_t(1) << 30))
    throw std::invalid_argument("Vulkan microwave: at most 2^30 rays per call");

  auto filled = [&](const void* data, size_t bytes) {
    Buffer b = storage_buffer(context_, bytes);
    if (bytes) b.upload(data, bytes);
    return b;
  };
  auto floats = [&](const std::vector<float>& v) { return filled(v.data(), v.size() * 4); };
  auto ints = [&](const std::vector<int32_t>& v) { return filled(v.data(), v.size() * 4); };
  std::vector<float> cdfs(cosine_cdf);
  cdfs.insert(cdfs.end(), azimuth_cdf.begin(), azimuth_cdf.end());
  Buffer b_origins = floats(origins), b_directions = floats(directions);
  Buffer b_map = ints(material_map);
  Buffer b_passive = floats(passive_soil_table), b_active = floats(active_soil_table);
  Buffer b_smooth = floats(smooth_soil_table), b_veg = floats(vegetation_parameters);
  Buffer b_trunk = floats(trunk_response_table), b_spec = floats(trunk_dihedral_scattering);
  Buffer b_dihedral = floats(dihedral_ground_table), b_info = ints(lut_info);
  Buffer b_mueller = floats(mueller_lut), b_cdfs = floats(cdfs);
  Buffer b_out = storage_buffer(context_, rays * 4 * sizeof(float));

  if (!dev_->microwave) {
    std::vector<VkDescriptorType> types(20, SB);
    types[0] = VK_DESCRIPTOR_TYPE_ACCELERATION_STRUCTURE_KHR;
    dev_->microwave = std::make_unique<Program>(
        context_, resolve_program("microwave_wavefront.spv", program_dir_), std::move(types),
        uint32_t(sizeof(MicrowavePush)), "microwave");
  }
  Program& prog = *dev_->microwave;
  dev_->bind_scene(prog);
  const Buffer* bound[] = {&b_origins, &b_directions, &b_map,   &b_passive, &b_active,
                           &b_smooth,  &b_veg,        &b_trunk, &b_spec,    &b_dihedral,
                           &b_info,    &b_mueller,    &b_cdfs,  &b_out};
  for (uint32_t i = 0; i < 14; ++i) prog.bind(6 + i, *bound[i]);

  const MicrowavePush push{
      uint32_t(rays), active_mode ? 1 : 0,       max_depth,   response_table_size,
      soil_count,     vegetation_count,          trunk_count, air_temperature,
      atmosphere_tau, int32_t(materials_.size()), repetition_.num_repetitions,
      repetition_.scene_x_size, repetition_.scene_y_size, min_height_, max_height_};
  // Groups of WORKGROUP invocations, at most 65535 along x and the rest along y.
  const uint64_t groups = (uint64_t(rays) + WORKGROUP - 1) / WORKGROUP;
  const uint32_t gx = uint32_t(std::min<uint64_t>(groups, 65535));
  const uint32_t gy = uint32_t((groups + gx - 1) / gx);
  context_.immediate_submit([&](VkCommandBuffer cb) { prog.dispatch_grid(cb, gx, gy, &push); });
  poll_interrupt();
  std::vector<float> out(rays * 4);
  b_out.download(out.data(), out.size() * sizeof(float));
  return out;
}

std::vector<float> VulkanSceneManager::simulate_microwave(
    const microwave::MicrowaveRequest& q) const {
  if (!built_) throw std::runtime_error("Vulkan: build the scene before microwave transport");
  microwave::validate_request(q, sensor_, materials_.size());
  // The rays twice (host vectors and device buffers), their pixels and results.
  check_request_memory(
      std::string("a ") + std::to_string(sensor_.width) + " x " + std::to_string(sensor_.height) +
          " microwave image of " + std::to_string(q.active ? q.spp : 1) + " rays a pixel",
      double(sensor_.width) * double(sensor_.height) * double(q.active ? q.spp : 1) * 4.0 * 30.0);
  const microwave::MicrowaveTables t = microwave::build_tables(q);
  const microwave::MicrowaveRays rays = microwave::primary_rays(
      sensor_, q,
      {repetition_.num_repetitions, repetition_.scene_x_size, repetition_.scene_y_size,
       min_height_, max_height_});
  const std::vector<int32_t> map(q.material_map, q.material_map + q.material_map_size);
  const std::vector<float> results = run_microwave_wavefront(
      q.active, q.max_depth, q.air_temperature, q.include_atmosphere ? q.atm_tau : 0.0f,
      t.soil_count, t.veg_count, t.trunk_count, t.size, rays.origins, rays.directions, map,
      t.passive_soil, t.active_soil, t.smooth_soil, t.vegetation, t.trunk_response, t.specular,
      t.trunk_ground, t.lut_info, t.mueller, t.cos_cdf, t.azimuth_cdf);
  return microwave::image_from_rays(sensor_, q, rays, results);
}

}  // namespace vesk::vulkan
