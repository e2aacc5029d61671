// simulate_backward: the backward path tracer on the device, one invocation per pixel
// for each sample pass, into a 64-bit film on the device.
#include <chrono>
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
struct BackwardParams {
  int32_t sensor_type, width, height, projection_type;
  float cam[16];
  float fov, ortho_width, ortho_height;
  int32_t terrain_following;
  float sun_x, sun_y, sun_z;
  int32_t sun_offset, has_sun;
  int32_t sky_uniform, sky_directional, sky_hw;
  float hw_x, hw_y, hw_z;
  int32_t num_repetitions;
  float tile_w, tile_h;
  float max_height, min_height;
  int32_t bands, max_depth, rr_depth, mode;
  int32_t has_temperatures, has_sif, n_primitives;
  int32_t want_sq, want_aov, want_orders, last_order;
  uint32_t plane, sq_offset, aov_offset, orders_offset;
  int32_t n_materials;
};

struct Push {
  uint32_t sample_index, pixel_base;
};

constexpr VkDescriptorType SB = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;

}  // namespace

backend::OpticalProductResult VulkanSceneManager::simulate_backward(
    int spp, int max_depth, const ProgressFn& progress,
    const backend::OpticalProductRequest& request) {
  if (spp < 1) throw std::invalid_argument("spp must be positive");
  // The program's bindings belong to the run in flight (a progress callback may call in).
  if (running_ > 0)
    throw std::runtime_error("simulate_backward: a simulation is already running on this scene");
  scene::validate_optical_scene(*this, num_bands_);
  scene::validate_band_wavelengths(*this, num_bands_);
  if (sensor_.width < 1 || sensor_.height < 1)
    throw std::invalid_argument(
        "the sensor has no pixels: call set_sensor() with a positive width and height first");
  // Leaves in media scatter with their medium's material, which no instance may show.
  std::vector<int32_t> used;
  for (const InstanceInfo& info : instance_info_) used.push_back(info.material_id);
  for (const OpticalTurbidMediumData& m : optical_media())
    if (m.material_id >= 0 && size_t(m.material_id) < materials_.size()) used.push_back(m.material_id);
  for (const int32_t id : used) {
    const MaterialType t = materials_[size_t(id)].type;
    if (t != MaterialType::Diffuse && t != MaterialType::Rpv &&
        t != MaterialType::DiffuseTransmitting)
      throw std::invalid_argument("Vulkan: material " + std::to_string(id) + " has type " +
                                  std::to_string(int(t)) +
                                  ", which the Vulkan tracers do not know (0, 1 or 13)");
  }
  if (has_optical_media() && !instance_sif_source_fields_.empty() &&
      emission_mode_ != scene::EMISSION_THERMAL)
    throw std::invalid_argument(
        "simulate_backward: the Vulkan tracer does not read instance SIF source fields of "
        "leaves in optical turbid media; render such scenes with simulate_cpu");
  // The CPU tracer gives leaves in media the sunlit and shaded temperatures of their
  // instance's thermal state; the device one would silently use the material's instead.
  if (has_optical_media() && emission_mode_ == scene::EMISSION_THERMAL &&
      instance_turbid_thermal_state().temperature_sunlit.size() == size_t(num_instances()))
    throw std::invalid_argument(
        "simulate_backward: the Vulkan tracer does not read instance turbid thermal states of "
        "leaves in optical turbid media; render such scenes with simulate_cpu");
  if (!context_.has_shader_int64_float64())
    throw std::runtime_error(
        "Vulkan: the backward tracer needs 64-bit integers and floats in shaders (shaderInt64 "
        "and shaderFloat64), which this device lacks");
  max_depth = scene::max_depth_from_env(max_depth, "[Vulkan bwd]");

  const int32_t width = sensor_.width, height = sensor_.height, bands = num_bands_;
  const uint64_t pixels = uint64_t(width) * uint64_t(height);
  const uint64_t plane = pixels * uint64_t(bands);
  const int32_t order_count = request.scattering_order ? request.max_output_order + 2 : 0;
  const double planes = 1.0 + (request.standard_error ? 1.0 : 0.0) +
                        (request.event_aov ? double(backend::EVENT_SLOTS) : 0.0) +
                        double(order_count);
  // The film on the device and twice on the host, and the path scratch.
  check_request_memory("simulate_backward: a " + std::to_string(width) + " x " +
                           std::to_string(height) + " x " + std::to_string(bands) + " image",
                       double(plane) * (planes * 20.0 + 16.0));
  if (double(plane) * planes >= 4294967296.0 || double(plane) * 2.0 >= 4294967296.0)
    throw std::invalid_argument(
        "simulate_backward: the image and its requested products exceed 2^32 values, the "
        "device film's limit");

  ++running_;
  struct Idle {
    std::atomic<int>& n;
    ~Idle() { --n; }
  } idle{running_};

  BackwardParams p{};
  p.sensor_type = sensor_.type, p.width = width, p.height = height;
  p.projection_type = sensor_.projection_type;
  std::memcpy(p.cam, sensor_.camera_to_world, sizeof(p.cam));
  p.fov = sensor_.fov, p.ortho_width = sensor_.ortho_width, p.ortho_height = sensor_.ortho_height;
  p.terrain_following = terrain_following_;
  p.sun_x = emitter_.direction.x, p.sun_y = emitter_.direction.y, p.sun_z = emitter_.direction.z;
  p.sun_offset = emitter_.spectral_offset;
  p.has_sun = scene::scene_has_sun(*this);
  p.sky_uniform = sky_.uniform_offset, p.sky_directional = sky_.directional_offset;
  p.sky_hw = sky_.hw_offset;
  p.hw_x = sky_.hw_sun_direction.x, p.hw_y = sky_.hw_sun_direction.y;
  p.hw_z = sky_.hw_sun_direction.z;
  p.num_repetitions = repetition_.num_repetitions;
  p.tile_w = repetition_.scene_x_size, p.tile_h = repetition_.scene_y_size;
  p.max_height = max_height_, p.min_height = min_height_;
  p.bands = bands, p.max_depth = max_depth, p.rr_depth = 3, p.mode = emission_mode_;
  const size_t n_prims = n_primitives();
  p.has_temperatures = primitive_temperatures_.size() == n_prims && n_prims > 0;
  p.has_sif = !primitive_sif_spectra_.empty() && n_sif_bands_ == bands;
  p.n_primitives = int32_t(n_prims);
  p.want_sq = request.standard_error, p.want_aov = request.event_aov;
  p.want_orders = request.scattering_order;
  p.last_order = request.scattering_order ? request.max_output_order + 1 : 0;
  p.plane = uint32_t(plane);
  p.n_materials = int32_t(materials_.size());
  uint32_t next = uint32_t(plane);
  if (request.standard_error) p.sq_offset = next, next += uint32_t(plane);
  if (request.event_aov) p.aov_offset = next, next += uint32_t(backend::EVENT_SLOTS * plane);
  if (request.scattering_order) p.orders_offset = next, next += uint32_t(order_count * plane);
  const size_t film_values = next;

  // Materials as the program reads them: type, offset, eight parameters.
  std::vector<uint32_t> mats(materials_.size() * 10);
  for (size_t i = 0; i < materials_.size(); ++i) {
    const int32_t head[2] = {int32_t(materials_[i].type), materials_[i].spectral_offset};
    std::memcpy(&mats[10 * i], head, 8);
    std::memcpy(&mats[10 * i + 2], materials_[i].params, 32);
  }
  auto filled = [&](const void* data, size_t bytes) {
    Buffer b = storage_buffer(context_, bytes);
    b.upload(data, bytes);
    return b;
  };
  Buffer mat_buf = filled(mats.data(), mats.size() * 4);
  Buffer spectral_buf = filled(spectral_.data(), spectral_.size() * 4);
  Buffer wl_buf = filled(band_wavelengths_.data(), band_wavelengths_.size() * 4);
  Buffer temp_buf = p.has_temperatures ? filled(primitive_temperatures_.data(), n_prims * 4)
                                       : storage_buffer(context_, 0);
  Buffer sif_buf = p.has_sif
                       ? filled(primitive_sif_spectra_.data(), primitive_sif_spectra_.size() * 4)
                       : storage_buffer(context_, 0);
  Buffer param_buf = filled(&p, sizeof(p));
  Buffer film_buf = storage_buffer(context_, film_values * sizeof(double));
  Buffer scratch_buf = storage_buffer(context_, size_t(plane) * 2 * sizeof(double));

  // Scenes with media take the program with the media walk (backward_media.spv).
  const bool with_media = has_optical_media();
  std::unique_ptr<Program>& slot = with_media ? dev_->backward_media : dev_->backward;
  if (!slot)
    slot = std::make_unique<Program>(
        context_, resolve_program(with_media ? "backward_media.spv" : "backward.spv", program_dir_),
        std::vector<VkDescriptorType>{VK_DESCRIPTOR_TYPE_ACCELERATION_STRUCTURE_KHR, SB, SB, SB, SB,
                                      SB, SB, SB, SB, SB, SB, SB, SB, SB, SB, SB},
        uint32_t(sizeof(Push)));
  Program& prog = *slot;
  dev_->prepare_media(*this);
  dev_->bind_scene(prog);
  dev_->bind_media(prog, 14);
  prog.bind(6, mat_buf);
  prog.bind(7, spectral_buf);
  prog.bind(8, wl_buf);
  prog.bind(9, temp_buf);
  prog.bind(10, sif_buf);
  prog.bind(11, film_buf);
  prog.bind(12, scratch_buf);
  prog.bind(13, param_buf);

  const auto start = std::chrono::steady_clock::now();
  for (int s = 0; s < spp; ++s) {
    // One submission per sample pass: passes run in order, so each pixel's sums add up in
    // sample order, as on the CPU, and progress is reported between them.
    context_.immediate_submit([&](VkCommandBuffer cb) {
      if (s == 0) {
        prog.clear(cb, {film_buf.handle()});
      }
      for (uint64_t base = 0; base < pixels; base += MAX_DISPATCH) {
        const Push push{uint32_t(s), uint32_t(base)};
        prog.dispatch(cb, uint32_t(std::min<uint64_t>(MAX_DISPATCH, pixels - base)), &push);
      }
    });
    if (progress) progress(long(s + 1), long(spp), elapsed_ms(start));
    poll_interrupt();
  }

  std::vector<double> film(film_values);
  film_buf.download(film.data(), film.size() * sizeof(double));
  backend::OpticalFilm f(request, width, height, bands);
  auto take = [&](std::vector<double>& dst, size_t offset) {
    std::copy(film.begin() + std::ptrdiff_t(offset),
              film.begin() + std::ptrdiff_t(offset + dst.size()), dst.begin());
  };
  take(f.sum, 0);
  if (request.standard_error) take(f.sum_sq, p.sq_offset);
  if (request.event_aov) take(f.aov, p.aov_offset);
  if (request.scattering_order) take(f.orders, p.orders_offset);
  backend::OpticalProductResult r = f.finish(spp);
  r.execution = {BACKEND_VULKAN, WORKFLOW_OPTICAL_BACKWARD,
                 std::string("vulkan.") + context_.trace_label() + ".optical_backward", true};
  return r;
}

}  // namespace vesk::vulkan
