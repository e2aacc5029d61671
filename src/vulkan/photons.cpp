// The photon processes on the device: simulate_flux, simulate_forward_radiation and
// simulate_brf. One invocation traces one photon with the CPU's per-photon generator;
// contributions are counted in fixed point on the device and widened to the CPU's
// 128-bit exact sums on the host, so totals do not depend on the dispatch size, and the
// CPU's step from sums to results finishes them.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>

#include "core/log.h"
#include "core/memory_limit.h"
#include "core/workers.h"
#include "scene/optical_scene.h"
#include "scene/photon_requests.h"
#include "vulkan/device_scene.h"

namespace vesk::vulkan {

namespace {

// The programs' parameter block (PhotonParams in shaders/include/photon.glsl): 4-byte
// scalars only, so the std430 layout is this one.
struct PhotonParams {
  int32_t bands, max_depth, rr_depth, num_repetitions;
  float tile_w, tile_h;
  float lo_x, lo_y, lo_z, hi_x, hi_y, hi_z;
  float plane, prob_sun;
  float sun_x, sun_y, sun_z;
  int32_t sun_offset;
  int32_t sky_uniform, sky_directional, sky_hw;
  float hw_x, hw_y, hw_z;
  float rep_w, rep_h;
  float min_height, max_height;
  uint32_t scratch_stride;
  int32_t nx, ny, max_bounces, decompose;
  float X, Y;
  uint32_t f_down, f_up, f_direct, f_diffuse;
  int32_t gnx, gny, nz, n_layer_bounds;
  float gx0, gy0, gw, gh;
  int32_t periodic;
  float entry_z;
  int32_t terrain_id, per_leaf, n_dirs;
  uint32_t f_grid, f_gdirect, f_gdiffuse, f_leaf, f_terrain, f_brf, f_incident_cells;
  uint32_t f_incident, f_escaped, f_transmitted, f_outside, f_truncated;
};

struct Push {
  uint32_t first_lo, first_hi, count;
};

constexpr VkDescriptorType SB = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;

// Device units are the CPU's units times 2^32: one photon's emitted bound is below 2^32
// of them, so a dispatch's totals stay far inside 64 bits (see photons_per_dispatch).
constexpr int32_t DEVICE_UNIT_SHIFT = 32;
// Scratch (throughput and its copy, in double) for one dispatch, at most.
constexpr double SCRATCH_BYTES = 64.0 * 1024.0 * 1024.0;

// Photons in one dispatch: a contribution is below 2^40 device units (else the run is
// refused), a photon adds to one element at most max_depth + 2 times, and a dispatch's
// totals must stay below 2^62.
uint32_t photons_per_dispatch(int32_t max_depth, int32_t bands) {
  const double by_range = 4194304.0 / double(std::max(max_depth, 0) + 2);
  const double by_scratch = SCRATCH_BYTES / (16.0 * double(bands));
  const double n = std::min({double(MAX_DISPATCH), by_range, by_scratch});
  return uint32_t(std::max(1.0, n));
}

// The emission, scene and walk parameters every photon program shares.
PhotonParams common_params(const scene::SceneModel& s, const scene::EmissionContext& e,
                           int32_t bands, int32_t max_depth, int32_t rr_depth, float walls_w,
                           float walls_h) {
  PhotonParams p{};
  p.bands = bands, p.max_depth = max_depth, p.rr_depth = rr_depth;
  p.num_repetitions = e.num_repetitions;
  p.tile_w = walls_w, p.tile_h = walls_h;
  p.lo_x = e.x_min, p.lo_y = e.y_min, p.lo_z = e.z_min;
  p.hi_x = e.x_max, p.hi_y = e.y_max, p.hi_z = e.z_max;
  p.plane = e.plane, p.prob_sun = e.prob_sun;
  p.sun_x = e.sun.direction.x, p.sun_y = e.sun.direction.y, p.sun_z = e.sun.direction.z;
  p.sun_offset = e.sun.spectral_offset;
  p.sky_uniform = e.sky.uniform_offset, p.sky_directional = e.sky.directional_offset;
  p.sky_hw = e.sky.hw_offset;
  p.hw_x = e.sky.hw_sun_direction.x, p.hw_y = e.sky.hw_sun_direction.y;
  p.hw_z = e.sky.hw_sun_direction.z;
  p.rep_w = s.repetition().scene_x_size, p.rep_h = s.repetition().scene_y_size;
  p.scratch_stride = uint32_t(2 * bands);
  return p;
}

[[noreturn]] void runaway_energy() {
  throw std::overflow_error(
      "photon energy sums are not finite or exceed their fixed-point range (a material or "
      "spectrum gives NaN, infinite or runaway energy)");
}

}  // namespace

// Everything a photon run needs checked before anything changes; shared by the three
// entries.
void VulkanSceneManager::check_photon_scene(const char* entry) const {
  if (running_ > 0)
    throw std::runtime_error(std::string(entry) +
                             ": a simulation is already running on this scene");
  for (const InstanceInfo& info : instance_info_) {
    const MaterialType t = materials_[size_t(info.material_id)].type;
    if (t != MaterialType::Diffuse && t != MaterialType::Rpv &&
        t != MaterialType::DiffuseTransmitting)
      throw std::invalid_argument("Vulkan: material " + std::to_string(info.material_id) +
                                  " has type " + std::to_string(int(t)) +
                                  ", which the Vulkan tracers do not know (0, 1 or 13)");
  }
  if (!context_.has_shader_int64_float64())
    throw std::runtime_error(
        "Vulkan: the photon tracers need 64-bit integers and floats in shaders (shaderInt64 "
        "and shaderFloat64), which this device lacks");
}

PhotonSums VulkanSceneManager::run_photons(int program, const void* params_block,
                                           size_t fields, const std::vector<int32_t>& units,
                                           const scene::EmissionContext& e,
                                           int64_t first_photon, int64_t num_photons,
                                           int32_t max_depth, const std::vector<float>& layers,
                                           const std::vector<float3>& dirs,
                                           const ProgressFn& progress) {
  // Scenes with media take the programs with the media walk; the BRF entry runs the
  // forward one without grids there.
  static const char* const names[5] = {"flux.spv", "forward.spv", "brf.spv", "flux_media.spv",
                                       "forward_media.spv"};
  const bool with_media = has_optical_media();
  if (with_media) program = program == 0 ? 3 : 4;
  const int32_t bands = e.n_bands;
  const uint32_t batch = photons_per_dispatch(max_depth, bands);
  ++running_;
  struct Idle {
    std::atomic<int>& n;
    ~Idle() { --n; }
  } idle{running_};

  std::vector<uint32_t> mats(materials_.size() * 10);
  for (size_t i = 0; i < materials_.size(); ++i) {
    const int32_t head[2] = {int32_t(materials_[i].type), materials_[i].spectral_offset};
    std::memcpy(&mats[10 * i], head, 8);
    std::memcpy(&mats[10 * i + 2], materials_[i].params, 32);
  }
  // Photon weights as the CPU's emission computes them, then 1 / device unit per band.
  std::vector<double> scales(2 + size_t(bands));
  scales[0] = e.prob_sun > 0.0f ? e.scale / double(e.prob_sun) : 0.0;
  scales[1] = e.prob_sun < 1.0f ? e.scale / (1.0 - double(e.prob_sun)) : 0.0;
  for (int32_t b = 0; b < bands; ++b)
    scales[2 + size_t(b)] = std::ldexp(1.0, -(units[size_t(b)] + DEVICE_UNIT_SHIFT));
  std::vector<float> dir_values;
  for (const float3& d : dirs) dir_values.insert(dir_values.end(), {d.x, d.y, d.z});
  auto filled = [&](const void* data, size_t bytes) {
    Buffer b = storage_buffer(context_, bytes);
    if (bytes > 0) b.upload(data, bytes);
    return b;
  };
  Buffer mat_buf = filled(mats.data(), mats.size() * 4);
  Buffer spectral_buf = filled(spectral_.data(), spectral_.size() * 4);
  Buffer param_buf = filled(params_block, sizeof(PhotonParams));
  Buffer words_buf = storage_buffer(context_, fields * 8);
  Buffer scratch_buf = storage_buffer(context_, size_t(batch) * size_t(bands) * 16);
  Buffer scales_buf = filled(scales.data(), scales.size() * 8);
  Buffer status_buf = storage_buffer(context_, 4);
  Buffer layers_buf = filled(layers.data(), layers.size() * 4);
  Buffer dirs_buf = filled(dir_values.data(), dir_values.size() * 4);

  std::unique_ptr<Program>& slot = dev_->photons[program];
  if (!slot)
    slot = std::make_unique<Program>(
        context_, resolve_program(names[program], program_dir_),
        [&] {
          std::vector<VkDescriptorType> types(with_media ? 17 : 15, SB);
          types[0] = VK_DESCRIPTOR_TYPE_ACCELERATION_STRUCTURE_KHR;
          return types;
        }(),
        uint32_t(sizeof(Push)));
  Program& prog = *slot;
  if (with_media) dev_->prepare_media(*this);
  dev_->bind_scene(prog);
  if (with_media) dev_->bind_media(prog, 15);
  prog.bind(6, mat_buf);
  prog.bind(7, spectral_buf);
  prog.bind(8, param_buf);
  prog.bind(9, words_buf);
  prog.bind(10, scratch_buf);
  prog.bind(11, scales_buf);
  prog.bind(12, status_buf);
  prog.bind(13, layers_buf);
  prog.bind(14, dirs_buf);

  PhotonSums totals;
  totals.values.assign(fields, 0);
  totals.unit_exponents = units;
  totals.first_photon = first_photon;
  totals.photons = num_photons;
  std::vector<uint32_t> words(fields * 2);
  const auto start = std::chrono::steady_clock::now();
  for (int64_t done = 0; done < num_photons;) {
    const uint32_t count = uint32_t(std::min<int64_t>(batch, num_photons - done));
    const uint64_t first = uint64_t(first_photon + done);
    const Push push{uint32_t(first), uint32_t(first >> 32), count};
    context_.immediate_submit([&](VkCommandBuffer cb) {
      prog.clear(cb, {words_buf.handle(), status_buf.handle()});
      prog.dispatch(cb, count, &push);
    });
    uint32_t status = 0;
    status_buf.download(&status, 4);
    if (status != 0) runaway_energy();
    words_buf.download(words.data(), words.size() * 4);
    for (size_t i = 0; i < fields; ++i) {
      const uint64_t u = uint64_t(words[2 * i]) | (uint64_t(words[2 * i + 1]) << 32);
      if (u == 0) continue;
      const int128 add = int128(int64_t(u)) * (int128(1) << DEVICE_UNIT_SHIFT);
      if (__builtin_add_overflow(totals.values[i], add, &totals.values[i])) runaway_energy();
    }
    done += count;
    if (progress) progress(long(done), long(num_photons), elapsed_ms(start));
    poll_interrupt();
  }
  return totals;
}

scene::FluxResult VulkanSceneManager::simulate_flux(const scene::FluxRequest& q,
                                                    const ProgressFn& progress) {
  const scene::FluxSetup setup = scene::setup_flux(*this, q, "simulate_flux");
  check_photon_scene("simulate_flux");
  const int32_t max_depth = scene::max_depth_from_env(q.max_depth, "[Vulkan flux]");
  const scene::FluxFields f(q);
  check_request_memory("simulate_flux: a " + std::to_string(q.nx) + " x " + std::to_string(q.ny) +
                           " x " + std::to_string(q.num_bands) + " grid",
                       double(f.total) * 40.0);
  if (double(f.total) >= 2147483648.0)
    throw std::invalid_argument("simulate_flux: the grids exceed 2^31 values, the device's limit");
  log_line("Forward flux (Vulkan %s): %lld photons, grid %dx%d, %d bands, max_bounces_record=%d\n",
           context_.trace_label(), static_cast<long long>(q.num_photons), q.nx, q.ny, q.num_bands,
           q.max_bounces);
  PhotonParams p = common_params(*this, setup.emission, q.num_bands, max_depth, q.rr_depth,
                                 setup.W, setup.H);
  p.min_height = min_height_, p.max_height = max_height_;
  p.nx = q.nx, p.ny = q.ny, p.max_bounces = q.max_bounces, p.decompose = q.decompose;
  const float cell_w = setup.W / float(q.nx), cell_h = setup.H / float(q.ny);
  p.X = cell_w * float(q.nx), p.Y = cell_h * float(q.ny);
  p.f_down = uint32_t(f.down), p.f_up = uint32_t(f.up);
  p.f_direct = uint32_t(f.direct), p.f_diffuse = uint32_t(f.diffuse);
  const PhotonSums sums = run_photons(0, &p, f.total, setup.unit_exponents, setup.emission,
                                      q.first_photon, q.num_photons, max_depth, {}, {}, progress);
  scene::FluxResult r = scene::finish_flux_sums(*this, q, sums, "simulate_flux");
  r.execution = {BACKEND_VULKAN, WORKFLOW_OPTICAL_FLUX,
                 std::string("vulkan.") + context_.trace_label() + ".optical_flux", true};
  return r;
}

scene::ForwardResult VulkanSceneManager::simulate_forward_radiation(const scene::ForwardRequest& q,
                                                                   const ProgressFn& progress) {
  const char* entry = q.brf_entry ? "simulate_brf" : "simulate_forward_radiation";
  const scene::ForwardSetup setup = scene::setup_forward(*this, q, entry);
  check_photon_scene(entry);
  const int32_t max_depth = scene::max_depth_from_env(q.max_depth, "[Vulkan fwd]");
  const scene::ForwardFields f = scene::forward_fields(*this, q);
  const int32_t nz = q.layer_heights.empty() ? 1 : int32_t(q.layer_heights.size()) - 1;
  check_request_memory(q.brf_entry ? std::string(entry)
                                   : std::string(entry) + ": a " + std::to_string(q.nx) + " x " +
                                         std::to_string(q.ny) + " x " + std::to_string(nz) +
                                         " x " + std::to_string(q.num_bands) + " grid",
                       double(f.total) * 40.0);
  if (double(f.total) >= 2147483648.0)
    throw std::invalid_argument(std::string(entry) +
                                ": the requested products exceed 2^31 values, the device's limit");
  log_line("Forward fPAR (Vulkan %s): %lld photons, grid %dx%dx%d, %d bands\n",
           context_.trace_label(), static_cast<long long>(q.num_photons), q.nx, q.ny, nz,
           q.num_bands);
  PhotonParams p = common_params(*this, setup.emission, q.num_bands, max_depth, q.rr_depth,
                                 repetition_.scene_x_size, repetition_.scene_y_size);
  p.min_height = min_height_, p.max_height = max_height_;
  // Without grids (the BRF entry) no event has a cell, so absorption counts as outside.
  p.gnx = q.brf_entry ? 0 : q.nx, p.gny = q.ny, p.nz = nz;
  p.n_layer_bounds = int32_t(q.layer_heights.size());
  p.gx0 = setup.gx0, p.gy0 = setup.gy0, p.gw = setup.gw, p.gh = setup.gh;
  p.periodic = setup.periodic, p.entry_z = setup.entry_z;
  p.terrain_id = q.terrain_instance_id, p.per_leaf = q.per_leaf;
  p.n_dirs = int32_t(setup.dirs.size());
  p.f_grid = uint32_t(f.grid), p.f_gdirect = uint32_t(f.direct), p.f_gdiffuse = uint32_t(f.diffuse);
  p.f_leaf = uint32_t(f.leaf), p.f_terrain = uint32_t(f.terrain), p.f_brf = uint32_t(f.brf);
  p.f_incident_cells = uint32_t(f.incident_cells), p.f_incident = uint32_t(f.incident);
  p.f_escaped = uint32_t(f.escaped), p.f_transmitted = uint32_t(f.transmitted);
  p.f_outside = uint32_t(f.outside), p.f_truncated = uint32_t(f.truncated);
  const PhotonSums sums =
      run_photons(q.brf_entry ? 2 : 1, &p, f.total, setup.unit_exponents, setup.emission,
                  q.first_photon, q.num_photons, max_depth, q.layer_heights, setup.dirs, progress);
  scene::ForwardResult r = scene::finish_forward_sums(*this, q, sums, entry);
  const std::string label = std::string("vulkan.") + context_.trace_label();
  r.execution = q.brf_entry
                    ? ExecutionRecord{BACKEND_VULKAN, WORKFLOW_OPTICAL_BRF, label + ".optical_brf", true}
                    : ExecutionRecord{BACKEND_VULKAN, WORKFLOW_OPTICAL_FORWARD,
                                      label + ".optical_forward", true};
  return r;
}

}  // namespace vesk::vulkan
