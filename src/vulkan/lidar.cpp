// simulate_lidar on the device: one invocation per pulse traces the direct-mode point or
// the raw waveform (through optical turbid media with lidar_media.spv); the convolution with the
// pulse and the peak picking run on the host with the CPU's own code, so both backends give the
// same points from the same waveforms.
#include <chrono>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>

#include "core/log.h"
#include "core/workers.h"
#include "lidar/waveform.h"
#include "vulkan/device_scene.h"

namespace vesk::vulkan {

namespace {

// The program's parameter block: 4-byte scalars only, so the std430 layout is this one.
struct LidarParams {
  int32_t num_pulses, num_bins, num_wavelengths, bands;
  int32_t n_beam, direct;
  float tan_half, pulse_energy, sensor_area;
  float range_resolution, min_range, max_range;
  int32_t num_repetitions;
  float tile_w, tile_h, z_lo, z_hi;
  int32_t n_materials;
};

constexpr VkDescriptorType SB = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;

// Values of the output buffer per dispatch: raw waveforms of this many floats at most
// (a slab of one pulse at least), so a long scan never holds all its raw waveforms on
// the device at once.
constexpr size_t CHUNK_VALUES = size_t(1) << 24;

}  // namespace

lidar::LidarResult VulkanSceneManager::simulate_lidar(const lidar::LidarRequest& q,
                                                      const ProgressFn& progress) const {
  lidar::validate_lidar_request(*this, q, "simulate_lidar");
  // Direct mode meets a medium's boundary like any surface, as on the CPU.
  const bool media = !q.direct_mode && has_optical_media();
  if (media && !context_.has_shader_int64_float64())
    throw std::runtime_error(
        "Vulkan: the LiDAR waveforms through optical turbid media need 64-bit integers and "
        "floats in shaders (shaderInt64 and shaderFloat64), which this device lacks");
  const lidar::Beam beam = lidar::beam_pattern(q.beam_samples_per_dim);
  const int32_t num_bins = lidar::bin_count(q);
  const size_t W = size_t(q.num_wavelengths);
  const size_t slab = q.direct_mode ? lidar::POINT_FLOATS : size_t(num_bins) * W;
  if (slab >= (size_t(1) << 30))
    throw std::invalid_argument(
        "simulate_lidar: a waveform of more than 2^30 bins and wavelengths exceeds the device "
        "buffer");
  const RunGuard read_only(*this);
  const auto start = std::chrono::steady_clock::now();
  const int32_t n_beam = q.direct_mode ? 1 : int32_t(beam.weights.size());
  log_line("LiDAR (Vulkan %s): %d pulses, %d beam samples, %s mode\n", context_.trace_label(),
           q.num_pulses, n_beam, q.direct_mode ? "direct" : "waveform");

  lidar::LidarResult r;
  r.num_bins = num_bins;
  const size_t pulses = size_t(std::max(q.num_pulses, 0));
  if (!q.direct_mode) r.waveform.assign(slab * pulses, 0.0f);

  if (pulses > 0) {
    LidarParams p{};
    p.num_pulses = q.num_pulses, p.num_bins = num_bins, p.num_wavelengths = q.num_wavelengths;
    p.bands = num_bands_, p.n_beam = n_beam, p.direct = q.direct_mode;
    p.tan_half = std::tan(q.beam_half_angle_rad);
    p.pulse_energy = q.pulse_energy, p.sensor_area = q.sensor_area;
    p.range_resolution = q.range_resolution, p.min_range = q.min_range, p.max_range = q.max_range;
    p.num_repetitions = repetition_.num_repetitions;
    p.tile_w = repetition_.scene_x_size, p.tile_h = repetition_.scene_y_size;
    p.z_lo = min_height_, p.z_hi = max_height_;
    p.n_materials = int32_t(materials_.size());

    std::vector<int32_t> mats(materials_.size() * 2);
    for (size_t i = 0; i < materials_.size(); ++i)
      mats[2 * i] = int32_t(materials_[i].type), mats[2 * i + 1] = materials_[i].spectral_offset;
    std::vector<float> pulse_table(pulses * 6);
    for (size_t i = 0; i < pulses; ++i) {
      std::memcpy(&pulse_table[6 * i], q.pulse_origins + 3 * i, 12);
      std::memcpy(&pulse_table[6 * i + 3], q.pulse_directions + 3 * i, 12);
    }
    std::vector<float> beam_table(size_t(n_beam) * 3);
    for (size_t k = 0; k < size_t(n_beam); ++k)
      beam_table[3 * k] = beam.xy[2 * k], beam_table[3 * k + 1] = beam.xy[2 * k + 1],
                     beam_table[3 * k + 2] = beam.weights[k];
    auto filled = [&](const void* data, size_t bytes) {
      Buffer b = storage_buffer(context_, bytes);
      if (bytes) b.upload(data, bytes);
      return b;
    };
    Buffer mat_buf = filled(mats.data(), mats.size() * 4);
    Buffer spectral_buf = filled(spectral_.data(), spectral_.size() * 4);
    Buffer pulse_buf = filled(pulse_table.data(), pulse_table.size() * 4);
    Buffer beam_buf = filled(beam_table.data(), beam_table.size() * 4);
    Buffer param_buf = filled(&p, sizeof(p));
    const size_t chunk =
        std::min<size_t>({pulses, size_t(MAX_DISPATCH), std::max<size_t>(1, CHUNK_VALUES / slab)});
    Buffer out_buf = storage_buffer(context_, chunk * slab * 4);
    // Through media, each pulse's extinction and backscatter per bin (lidar_media.spv).
    Buffer scratch_buf =
        storage_buffer(context_, media ? chunk * size_t(num_bins) * (W + 1) * 4 : 0);

    std::unique_ptr<Program>& slot = media ? dev_->lidar_media : dev_->lidar;
    if (!slot) {
      std::vector<VkDescriptorType> types(media ? 15 : 12, SB);
      types[0] = VK_DESCRIPTOR_TYPE_ACCELERATION_STRUCTURE_KHR;
      slot = std::make_unique<Program>(
          context_, resolve_program(media ? "lidar_media.spv" : "lidar.spv", program_dir_), types,
          uint32_t(sizeof(uint32_t)), "lidar");
    }
    Program& prog = *slot;
    if (media) {
      dev_->prepare_media(*this);
      dev_->bind_media(prog, 13);
      prog.bind(12, scratch_buf);
    }
    dev_->bind_scene(prog);
    prog.bind(6, mat_buf);
    prog.bind(7, spectral_buf);
    prog.bind(8, pulse_buf);
    prog.bind(9, beam_buf);
    prog.bind(10, out_buf);
    prog.bind(11, param_buf);

    std::vector<float> records(q.direct_mode ? chunk * slab : 0);
    for (size_t base = 0; base < pulses; base += chunk) {
      const size_t count = std::min(chunk, pulses - base);
      const uint32_t push = uint32_t(base);
      context_.immediate_submit([&](VkCommandBuffer cb) {
        prog.clear(cb, {out_buf.handle()});
        prog.dispatch(cb, uint32_t(count), &push);
      });
      if (q.direct_mode) {
        // Points in pulse order: the slots of the pulses that gave one.
        out_buf.download(records.data(), count * slab * 4);
        for (size_t i = 0; i < count; ++i)
          if (records[i * slab + 4] != 0.0f)
            r.points.insert(r.points.end(), records.begin() + long(i * slab),
                            records.begin() + long((i + 1) * slab));
      } else {
        out_buf.download(r.waveform.data() + base * slab, count * slab * 4);
      }
      poll_interrupt();
    }
  }

  if (q.direct_mode) {
    r.num_returns = int32_t(r.points.size() / lidar::POINT_FLOATS);
  } else {
    const std::vector<int32_t> ranges = lidar::active_ranges(
        r.waveform, q.num_pulses < 0 ? 0 : q.num_pulses, num_bins, q.num_wavelengths);
    lidar::finish_waveforms(q, ranges, r);
  }
  if (progress) progress(long(q.num_pulses), long(q.num_pulses), elapsed_ms(start));
  const std::string label = std::string("vulkan.") + context_.trace_label();
  r.execution = q.direct_mode ? ExecutionRecord{BACKEND_VULKAN, WORKFLOW_LIDAR_POINT_CLOUD,
                                                label + ".lidar_point_cloud", true}
                              : ExecutionRecord{BACKEND_VULKAN, WORKFLOW_LIDAR_WAVEFORM,
                                                label + ".lidar_waveform", true};
  return r;
}

}  // namespace vesk::vulkan
