// run_energy_balance_gpu and run_energy_balance_multiband_gpu: the energy-balance reverse
// transports on the device, one invocation per primitive, each summing its own samples
// in 64 bits in the CPU kernel's order; the host narrows the sums as the CPU does.
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>

#include "core/memory_limit.h"
#include "core/workers.h"
#include "scene/optical_scene.h"
#include "vulkan/device_scene.h"

namespace vesk::vulkan {

namespace {

// The program's parameter block: 4-byte scalars only, so the std430 layout is this one.
struct EnergyBalanceParams {
  int32_t n_primitives, n_samples, n_bands, max_depth;
  int32_t mode, band_type, two_sided, has_sun;
  float sun_x, sun_y, sun_z, sun;
  float sky_lw, diffuse;
  int32_t albedo_offset, reflectance_offset, back_offset, transmittance_offset;
  int32_t exitance_offset, sun_offset, diffuse_offset, table_offset;
  int32_t sky_uniform, sky_directional, sky_hw;
  float hw_x, hw_y, hw_z;
  int32_t num_repetitions;
  float tile_w, tile_h, min_height, max_height;
  int32_t slots;
};

constexpr VkDescriptorType SB = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;
constexpr float PI_F = 3.1415927f;

float3 unit_sun(float x, float y, float z) {
  const float l = std::sqrt(x * x + y * y + z * z);
  return {x / l, y / l, z / l};
}

// Appends n values (none when data is null) to the program's input table and returns
// their offset, -1 for none.
int32_t append(std::vector<float>& table, const float* data, size_t n) {
  if (!data) return -1;
  const size_t at = table.size();
  if (at + n >= size_t(INT32_MAX))
    throw std::invalid_argument("Vulkan energy balance: the inputs exceed 2^31 values");
  table.insert(table.end(), data, data + n);
  return int32_t(at);
}

}  // namespace

// Runs the program over every primitive and returns `slots` sums per primitive.
std::vector<double> VulkanSceneManager::energy_balance_sums_(
    const scene::EnergyBalancePrimitives& prims, const void* params_data, size_t params_bytes,
    const std::vector<float>& inputs, const std::vector<float>& spectral, int32_t slots) const {
  const size_t n = prims.count;
  std::vector<float> table(n * 15);
  for (size_t p = 0; p < n; ++p) {
    const float3 rows[5] = {prims.vertices[3 * p], prims.vertices[3 * p + 1],
                            prims.vertices[3 * p + 2], prims.normals[p], prims.centroids[p]};
    std::memcpy(&table[15 * p], rows, sizeof(rows));
  }
  auto filled = [&](const void* data, size_t bytes) {
    Buffer b = storage_buffer(context_, bytes);
    if (bytes) b.upload(data, bytes);
    return b;
  };
  Buffer prim_buf = filled(table.data(), table.size() * 4);
  Buffer spectral_buf = filled(spectral.data(), spectral.size() * 4);
  Buffer input_buf = filled(inputs.data(), inputs.size() * 4);
  Buffer param_buf = filled(params_data, params_bytes);
  const size_t values = n * size_t(slots);
  Buffer sum_buf = storage_buffer(context_, values * sizeof(double));

  if (!dev_->energy_balance)
    dev_->energy_balance = std::make_unique<Program>(
        context_, resolve_program("energy_balance.spv", program_dir_),
        std::vector<VkDescriptorType>{VK_DESCRIPTOR_TYPE_ACCELERATION_STRUCTURE_KHR, SB, SB, SB, SB,
                                      SB, SB, SB, SB, SB, SB},
        uint32_t(sizeof(uint32_t)), "energy balance");
  Program& prog = *dev_->energy_balance;
  dev_->bind_scene(prog);
  prog.bind(6, prim_buf);
  prog.bind(7, spectral_buf);
  prog.bind(8, input_buf);
  prog.bind(9, sum_buf);
  prog.bind(10, param_buf);
  // Every invocation writes all its slots, so the buffer needs no clearing; one
  // submission per dispatch lets an interrupt stop a long run between them.
  for (uint64_t base = 0; base < n; base += MAX_DISPATCH) {
    const uint32_t push = uint32_t(base);
    context_.immediate_submit([&](VkCommandBuffer cb) {
      prog.dispatch(cb, uint32_t(std::min<uint64_t>(MAX_DISPATCH, n - base)), &push);
    });
    poll_interrupt();
  }
  std::vector<double> sums(values);
  sum_buf.download(sums.data(), values * sizeof(double));
  return sums;
}

void VulkanSceneManager::require_energy_balance_device_(const char* what) const {
  if (!context_.has_shader_int64_float64())
    throw std::runtime_error(std::string("Vulkan: ") + what +
                             " needs 64-bit integers and floats in shaders (shaderInt64 and "
                             "shaderFloat64), which this device lacks");
  if (double(n_primitives()) * 15.0 >= double(INT32_MAX))
    throw std::invalid_argument(std::string(what) +
                                ": more primitives than the device tables hold");
}

void VulkanSceneManager::run_energy_balance_gpu(const scene::EnergyBalanceRequest& r,
                                                int64_t albedo_size,
                                                scene::EnergyBalanceResult& out) const {
  if (r.band_type != 0 && r.band_type != 1)
    throw std::invalid_argument("Vulkan energy balance band_type must be 0 or 1");
  scene::validate_energy_balance(*this, r, albedo_size);
  require_energy_balance_device_("run_energy_balance_gpu");
  const size_t n = n_primitives();
  check_request_memory("run_energy_balance_gpu: " + std::to_string(n) + " primitives",
                       double(n) * (5.0 * 16.0 + 15.0 * 4.0 + 8.0));
  const RunGuard read_only(*this);
  const bool longwave = r.band_type == 1;
  const float sun = r.sun_irradiance && !longwave ? *r.sun_irradiance : 0.0f;
  const float3 sun_dir =
      sun > 0.0f ? unit_sun(r.sun_dir_x, r.sun_dir_y, r.sun_dir_z) : float3{0.0f, 0.0f, 1.0f};

  EnergyBalanceParams p{};
  p.n_primitives = int32_t(n), p.n_samples = r.n_samples, p.n_bands = 1, p.max_depth = r.depth;
  p.mode = 0, p.band_type = r.band_type, p.two_sided = r.two_sided, p.has_sun = sun > 0.0f;
  p.sun_x = sun_dir.x, p.sun_y = sun_dir.y, p.sun_z = sun_dir.z, p.sun = sun;
  p.sky_lw = r.sky_lw_radiance;
  p.diffuse = r.sky_diffuse_radiance ? *r.sky_diffuse_radiance : 0.0f;
  std::vector<float> inputs;
  p.albedo_offset = append(inputs, r.sw_albedos, n);
  p.reflectance_offset = p.back_offset = p.transmittance_offset = -1;
  p.sun_offset = p.diffuse_offset = p.table_offset = -1;
  p.exitance_offset = -1;
  const scene::EnergyBalancePrimitives prims =
      scene::gather_energy_balance_primitives(*this, longwave);
  if (longwave) p.exitance_offset = append(inputs, prims.exitance.data(), n);
  p.sky_uniform = p.sky_directional = p.sky_hw = -1;
  p.num_repetitions = repetition_.num_repetitions;
  p.tile_w = repetition_.scene_x_size, p.tile_h = repetition_.scene_y_size;
  p.min_height = min_height_, p.max_height = max_height_;
  p.slots = (r.two_sided ? 2 : 1) + 3;

  const std::vector<double> s =
      energy_balance_sums_(prims, &p, sizeof(p), inputs, spectral_, p.slots);
  out.top.assign(n, 0.0f);
  out.bot.assign(r.two_sided ? n : 0, 0.0f);
  const double w = double(PI_F) / r.n_samples;
  for (size_t i = 0; i < n; ++i) {
    const double* v = &s[size_t(p.slots) * i];
    const double top_sun = v[p.slots - 3], bot_sun = v[p.slots - 2];
    out.top[i] = float(v[0] * w + top_sun * sun / r.n_samples);
    if (r.two_sided) out.bot[i] = float(v[1] * w + bot_sun * sun / r.n_samples);
  }
}

void VulkanSceneManager::run_energy_balance_multiband_gpu(
    const scene::MultibandEnergyBalanceRequest& r, scene::MultibandEnergyBalanceResult& out) const {
  scene::validate_energy_balance_multiband(*this, r);
  require_energy_balance_device_("run_energy_balance_multiband_gpu");
  const size_t n = n_primitives();
  const int32_t nb = r.n_bands;
  const int32_t slots = nb * (r.two_sided ? 2 : 1) + 3;
  const size_t spectral_n = size_t(nb) * n;
  const int split = r.sw_reflectance && r.sw_back_reflectance && r.sw_transmittance;
  check_request_memory("run_energy_balance_multiband_gpu: " + std::to_string(n) +
                           " primitives of " + std::to_string(nb) + " bands",
                       double(n) * (double(slots) * 16.0 + 15.0 * 4.0) +
                           double(spectral_n) * 4.0 * (split ? 3.0 : 1.0));
  if (double(n) * slots >= 4294967296.0 || double(spectral_n) * 4.0 >= double(INT32_MAX))
    throw std::invalid_argument(
        "run_energy_balance_multiband_gpu: the primitives and bands exceed the device tables");
  const RunGuard read_only(*this);
  const bool has_sun = r.sun_irradiance != nullptr;
  const float3 sun_dir =
      has_sun ? unit_sun(r.sun_dir_x, r.sun_dir_y, r.sun_dir_z) : float3{0.0f, 0.0f, 1.0f};

  EnergyBalanceParams p{};
  p.n_primitives = int32_t(n), p.n_samples = r.n_samples, p.n_bands = nb;
  p.max_depth = r.max_depth, p.mode = 1, p.band_type = 0, p.two_sided = r.two_sided;
  p.has_sun = has_sun;
  p.sun_x = sun_dir.x, p.sun_y = sun_dir.y, p.sun_z = sun_dir.z;
  std::vector<float> inputs;
  p.albedo_offset = split ? -1 : append(inputs, r.sw_albedos, spectral_n);
  p.reflectance_offset = split ? append(inputs, r.sw_reflectance, spectral_n) : -1;
  p.back_offset = split ? append(inputs, r.sw_back_reflectance, spectral_n) : -1;
  p.transmittance_offset = split ? append(inputs, r.sw_transmittance, spectral_n) : -1;
  p.exitance_offset = -1;
  p.sun_offset = append(inputs, r.sun_irradiance, size_t(nb));
  p.diffuse_offset = append(inputs, r.sky_diffuse_radiance, size_t(nb));
  // The request's directional table is read like the scene's, from the spectral buffer.
  std::vector<float> spectral = spectral_;
  p.table_offset = -1;
  if (r.sky_directional_table) {
    p.table_offset = int32_t(spectral.size());
    spectral.insert(spectral.end(), r.sky_directional_table,
                    r.sky_directional_table + size_t(nb) * 512);
  }
  p.sky_uniform = sky_.uniform_offset, p.sky_directional = sky_.directional_offset;
  p.sky_hw = sky_.hw_offset;
  p.hw_x = sky_.hw_sun_direction.x, p.hw_y = sky_.hw_sun_direction.y;
  p.hw_z = sky_.hw_sun_direction.z;
  p.num_repetitions = repetition_.num_repetitions;
  p.tile_w = repetition_.scene_x_size, p.tile_h = repetition_.scene_y_size;
  p.min_height = min_height_, p.max_height = max_height_;
  p.slots = slots;

  const std::vector<double> s =
      energy_balance_sums_(scene::gather_energy_balance_primitives(*this, false), &p, sizeof(p),
                           inputs, spectral, slots);
  out.top.assign(spectral_n, 0.0f);
  out.bot.assign(r.two_sided ? spectral_n : 0, 0.0f);
  out.sunlit_fraction.assign(n, 0.0f);
  const double w = double(PI_F) / r.n_samples;
  for (size_t i = 0; i < n; ++i) {
    const double* v = &s[size_t(slots) * i];
    const double top_sun = v[slots - 3], bot_sun = v[slots - 2], lit = v[slots - 1];
    for (int32_t b = 0; b < nb; ++b) {
      const double e = has_sun ? double(r.sun_irradiance[b]) / r.n_samples : 0.0;
      out.top[size_t(b) * n + i] = float(v[b] * w + top_sun * e);
      if (r.two_sided) out.bot[size_t(b) * n + i] = float(v[nb + b] * w + bot_sun * e);
    }
    out.sunlit_fraction[i] = float(lit / r.n_samples);
  }
}

}  // namespace vesk::vulkan
