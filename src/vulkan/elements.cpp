// The element processes on the device: leaf solver, static photosynthesis, SIF
// finalisation and source assembly, and the leaf-area sampler's candidate filler. They
// trace no rays, so each is one plain compute program whatever the trace path; each
// request passes the host form's validator before anything reaches the device.
#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "core/memory_limit.h"
#include "core/sif_field.h"
#include "core/workers.h"
#include "turbid/sampling_kernels.h"
#include "vulkan/device_scene.h"

namespace vesk::vulkan {

namespace {

constexpr VkDescriptorType SB = VK_DESCRIPTOR_TYPE_STORAGE_BUFFER;

std::unique_ptr<Program> ray_free_program(const VulkanContext& c, const std::string& dir,
                                          const char* name, uint32_t bindings, uint32_t push_bytes,
                                          const char* purpose) {
  return std::make_unique<Program>(c, resolve_program(name, dir),
                                   std::vector<VkDescriptorType>(bindings, SB), push_bytes, purpose,
                                   true);
}

template <class T>
Buffer filled(const VulkanContext& c, const T* data, size_t count) {
  Buffer b = storage_buffer(c, count * sizeof(T));
  if (count) b.upload(data, count * sizeof(T));
  return b;
}

template <class T>
Buffer filled(const VulkanContext& c, const std::vector<T>& v) {
  return filled(c, v.data(), v.size());
}

// One dispatch of n invocations, waited for.
void run_once(const VulkanContext& c, const Program& p, uint64_t n, const void* push) {
  c.immediate_submit([&](VkCommandBuffer cb) {
    p.dispatch_wide(cb, n, push);
    compute_barrier(c, cb);
  });
  poll_interrupt();
}

// ---- leaf solver ---------------------------------------------------------------------

struct PhysiologyPush {
  uint32_t count, n_bands;
  int32_t energy_balance, solve_temperature, max_iterations;
  float tolerance;
};

constexpr uint32_t PHYSIOLOGY_BUFFERS = 29;
// Buffers 1..11: the leaf inputs uploaded with the static inputs, except temperature.
constexpr uint32_t FIRST_OUTPUT = 20;

}  // namespace

PhysiologyWorkspace::PhysiologyWorkspace(const VulkanContext& context, const std::string& spv_path,
                                         int32_t n_elements, int32_t n_bands, bool energy_balance)
    : context_(context),
      program_(context, spv_path, std::vector<VkDescriptorType>(PHYSIOLOGY_BUFFERS, SB),
               sizeof(PhysiologyPush), "physiology workspace", true),
      n_elements_(n_elements),
      n_bands_(n_bands),
      energy_balance_(energy_balance) {
  const size_t n = size_t(n_elements);
  buffers_.reserve(PHYSIOLOGY_BUFFERS);
  buffers_.push_back(storage_buffer(context, n * size_t(n_bands) * sizeof(float)));
  for (uint32_t b = 1; b < PHYSIOLOGY_BUFFERS; ++b) {
    const bool eb_only = (b >= 12 && b < FIRST_OUTPUT) || b >= 25;
    buffers_.push_back(storage_buffer(context, eb_only && !energy_balance ? 0 : n * 4));
  }
  for (uint32_t b = 0; b < PHYSIOLOGY_BUFFERS; ++b) program_.bind(b, buffers_[b]);
}

void PhysiologyWorkspace::solve(const backend::PhysiologyRequestView& v, bool static_inputs_changed,
                                backend::PhysiologyResult& r) {
  backend::validate_physiology_request(v);
  if (v.n_elements != n_elements_ || v.n_bands != n_bands_)
    throw std::invalid_argument("physiology workspace shape does not match request");
  if (v.dynamic_energy_balance != energy_balance_)
    throw std::invalid_argument("physiology workspace cannot change energy-balance mode");
  const size_t n = size_t(v.n_elements), bytes = n * sizeof(float);
  buffers_[0].upload(v.apar.data, v.apar.size * sizeof(float));
  buffers_[1].upload(v.temperature.data, bytes);
  if (static_inputs_changed || !static_uploaded_) {
    const backend::FloatSpan* leaf[] = {
        &v.co2,          &v.relative_humidity, &v.pressure,
        &v.wind,         &v.vcmax25,           &v.jmax25,
        &v.rd25,         &v.ball_berry_slope,  &v.ball_berry_intercept,
        &v.quantum_yield};
    for (uint32_t k = 0; k < 10; ++k) buffers_[2 + k].upload(leaf[k]->data, bytes);
    if (energy_balance_) {
      const backend::FloatSpan* eb[] = {&v.air_temperature, &v.vapor_pressure, &v.emissivity,
                                        &v.sidedness,       &v.leaf_width,     &v.stomata_sides};
      for (uint32_t k = 0; k < 6; ++k) buffers_[14 + k].upload(eb[k]->data, bytes);
    }
    static_uploaded_ = true;
  }
  if (energy_balance_) {
    buffers_[12].upload(v.absorbed_shortwave.data, bytes);
    buffers_[13].upload(v.absorbed_longwave.data, bytes);
  }
  const PhysiologyPush push{uint32_t(n),
                            uint32_t(v.n_bands),
                            energy_balance_ ? 1 : 0,
                            v.solve_leaf_temperature ? 1 : 0,
                            v.max_iterations,
                            v.tolerance};
  run_once(context_, program_, n, &push);

  const bool all = v.read_back_outputs;
  r.an.resize(all ? n : 0), r.gs.resize(all ? n : 0), r.ci.resize(all ? n : 0);
  r.phi_f.resize(all ? n : 0);
  r.temperature.resize(energy_balance_ ? n : 0);
  for (auto* f : {&r.net_radiation, &r.sensible_heat, &r.latent_heat})
    f->resize(energy_balance_ && all ? n : 0);
  std::vector<uint32_t> converged(n);
  buffers_[24].download(converged.data(), n * 4);
  r.converged.resize(n);
  for (size_t i = 0; i < n; ++i) r.converged[i] = converged[i] ? 1 : 0;
  if (all) {
    buffers_[20].download(r.an.data(), bytes);
    buffers_[21].download(r.gs.data(), bytes);
    buffers_[22].download(r.ci.data(), bytes);
    buffers_[23].download(r.phi_f.data(), bytes);
  }
  if (energy_balance_) {
    buffers_[25].download(r.temperature.data(), bytes);
    if (all) {
      buffers_[26].download(r.net_radiation.data(), bytes);
      buffers_[27].download(r.sensible_heat.data(), bytes);
      buffers_[28].download(r.latent_heat.data(), bytes);
    }
  }
  r.execution = {BACKEND_VULKAN, WORKFLOW_PHYSIOLOGY_SOLVER, "vulkan.slang.physiology_solver",
                 true};
}

backend::PhysiologyResult VulkanSceneManager::solve_physiology(
    const backend::PhysiologyRequestView& v) const {
  backend::validate_physiology_request(v);
  // The module entry takes any shape: a workspace of another shape or mode is replaced
  // (a coupling loop holds its own workspace, which refuses such a change).
  if (!dev_->physiology || !dev_->physiology->fits(v)) {
    dev_->physiology.reset();
    dev_->physiology = std::make_unique<PhysiologyWorkspace>(
        context_, resolve_program("physiology.spv", program_dir_), v.n_elements, v.n_bands,
        v.dynamic_energy_balance);
  }
  backend::PhysiologyResult r;
  dev_->physiology->solve(v, true, r);
  return r;
}

// ---- static photosynthesis -------------------------------------------------------------

namespace {

struct PhotosynthesisPush {
  uint32_t count, n_bands, n_par;
  float co2, relative_humidity;
  int32_t max_iterations;
  float tolerance;
};

constexpr float MOLAR_PHOTON_ENERGY = 0.11962656f;  // J m mol-1: N_A h c

}  // namespace

backend::PhotosynthesisStaticResult VulkanSceneManager::execute_photosynthesis_process_static(
    const backend::PhotosynthesisProcessRequestView& v) const {
  backend::validate_photosynthesis_static_request(v);
  const size_t n = size_t(v.n_elements), nb = size_t(v.n_bands), nm = size_t(v.n_materials);
  check_request_memory("static photosynthesis on the device",
                       double(n) * (12.0 * double(nb) + 16.0 + 2.0 * 14.0 * 4.0));
  // The PAR bands (400..700 nm, closed) and their W m-2 to umol m-2 s-1 factors, as the
  // host form computes them.
  std::vector<uint32_t> par_bands;
  std::vector<float> par_factor;
  for (size_t b = 0; b < nb; ++b) {
    const float wl = v.wavelengths.data[b];
    if (wl >= 400.0f && wl <= 700.0f) {
      par_bands.push_back(uint32_t(b));
      par_factor.push_back(((wl * 1e-9f) / MOLAR_PHOTON_ENERGY) * 1e+06f);
    }
  }
  std::vector<float> element(3 * n);
  for (size_t i = 0; i < n; ++i) {
    element[3 * i] = v.sunlit_fraction.data[i];
    element[3 * i + 1] = v.element_temperature.data[i];
    element[3 * i + 2] = v.element_temperature_shaded.data[i];
  }
  std::vector<uint32_t> material(8 * nm);
  const backend::FloatSpan* params[] = {
      &v.vcmax25,      &v.jmax25, &v.rd25, &v.ball_berry_slope, &v.ball_berry_intercept,
      &v.quantum_yield};
  for (size_t m = 0; m < nm; ++m) {
    material[8 * m] = v.material_active.data[m];
    material[8 * m + 1] = v.material_fluorescent.data[m];
    for (size_t k = 0; k < 6; ++k) std::memcpy(&material[8 * m + 2 + k], &params[k]->data[m], 4);
  }
  const Buffer b_top = filled(context_, v.absorbed_top.data, n * nb);
  const Buffer b_bottom = filled(context_, v.absorbed_bottom.data, n * nb);
  const Buffer b_direct = filled(context_, v.absorbed_direct.data, n * nb);
  const Buffer b_bands = filled(context_, par_bands), b_factors = filled(context_, par_factor);
  const Buffer b_element = filled(context_, element);
  const Buffer b_ids = filled(context_, v.material_ids.data, n);
  const Buffer b_material = filled(context_, material);
  Buffer b_out = storage_buffer(context_, n * 14 * 4);
  if (!dev_->photosynthesis)
    dev_->photosynthesis = ray_free_program(context_, program_dir_, "photosynthesis_process.spv", 9,
                                            sizeof(PhotosynthesisPush), "photosynthesis");
  Program& p = *dev_->photosynthesis;
  const Buffer* bound[] = {&b_top,     &b_bottom, &b_direct,   &b_bands, &b_factors,
                           &b_element, &b_ids,    &b_material, &b_out};
  for (uint32_t k = 0; k < 9; ++k) p.bind(k, *bound[k]);
  const PhotosynthesisPush push{uint32_t(n), uint32_t(nb),        uint32_t(par_bands.size()),
                                v.co2,       v.relative_humidity, v.max_iterations,
                                v.tolerance};
  run_once(context_, p, n, &push);

  std::vector<uint32_t> out(n * 14);
  b_out.download(out.data(), out.size() * 4);
  backend::PhotosynthesisStaticResult r;
  std::vector<float>* fields[] = {&r.temperature,
                                  &r.an,
                                  &r.gs,
                                  &r.phi_f,
                                  &r.apar,
                                  &r.temperature_sunlit,
                                  &r.temperature_shaded,
                                  &r.sunlit_fraction,
                                  &r.apar_sunlit,
                                  &r.apar_shaded,
                                  &r.an_sunlit,
                                  &r.an_shaded};
  for (auto* f : fields) f->resize(n);
  r.active_mask.resize(n), r.converged.resize(n);
  for (size_t i = 0; i < n; ++i) {
    const uint32_t* o = &out[14 * i];
    for (size_t k = 0; k < 12; ++k) std::memcpy(&(*fields[k])[i], &o[k], 4);
    r.active_mask[i] = o[12] ? 1 : 0;
    r.converged[i] = o[13] ? 1 : 0;
  }
  r.execution = {BACKEND_VULKAN, WORKFLOW_PHOTOSYNTHESIS_PROCESS_STATIC,
                 "vulkan.slang.photosynthesis_process_static", true};
  return r;
}

// ---- SIF finalisation ------------------------------------------------------------------

backend::SifProcessResult VulkanSceneManager::finalize_sif_process(
    const backend::SifProcessRequestView& v) const {
  backend::validate_sif_process_request(v);
  const size_t n = size_t(v.n_elements), nb = size_t(v.n_bands), ns = size_t(v.n_selected);
  check_request_memory("SIF finalisation on the device",
                       4.0 * double(n) * (2.0 * double(nb) + 2.0 * 2.0 * double(ns) + 4.0));
  const bool has_element = v.element_phi_f.data != nullptr;
  const Buffer b_top = filled(context_, v.absorbed_top.data, n * nb);
  const Buffer b_bottom = filled(context_, v.absorbed_bottom.data, n * nb);
  const Buffer b_ids = filled(context_, v.material_ids.data, n);
  const Buffer b_material = filled(context_, v.material_phi_f.data, size_t(v.n_materials));
  const Buffer b_selected = filled(context_, v.selected_band_indices.data, ns);
  const Buffer b_element = filled(context_, v.element_phi_f.data, has_element ? n : 0);
  Buffer b_phi = storage_buffer(context_, n * 4);
  Buffer b_out_top = storage_buffer(context_, n * ns * 4);
  Buffer b_out_bottom = storage_buffer(context_, n * ns * 4);
  if (!dev_->sif_process)
    dev_->sif_process =
        ray_free_program(context_, program_dir_, "sif_process.spv", 9, 16, "SIF process");
  Program& p = *dev_->sif_process;
  const Buffer* bound[] = {&b_top,     &b_bottom, &b_ids,     &b_material,  &b_selected,
                           &b_element, &b_phi,    &b_out_top, &b_out_bottom};
  for (uint32_t k = 0; k < 9; ++k) p.bind(k, *bound[k]);
  const uint32_t push[4] = {uint32_t(n), uint32_t(nb), uint32_t(ns), has_element ? 1u : 0u};
  run_once(context_, p, n, push);
  backend::SifProcessResult r;
  r.phi_f.resize(n);
  r.absorbed_top_selected.resize(n * ns);
  r.absorbed_bottom_selected.resize(n * ns);
  b_phi.download(r.phi_f.data(), n * 4);
  b_out_top.download(r.absorbed_top_selected.data(), n * ns * 4);
  b_out_bottom.download(r.absorbed_bottom_selected.data(), n * ns * 4);
  r.execution = {BACKEND_VULKAN, WORKFLOW_SIF_PROCESS_FINALIZATION,
                 "vulkan.slang.sif_process_finalization", true};
  return r;
}

}  // namespace vesk::vulkan

// ---- SIF source assembly -----------------------------------------------------------------

namespace vesk::vulkan {

namespace {

struct AssemblyPush {
  uint32_t stage, count, n_samples, n_instances, n_bands, cell_stride, bins, theta_bins, phi_bins;
};

constexpr int32_t UNSURE_SLOT = -2;

// The host rule for a sample the device left unsettled: its joint slot, or -1.
int32_t rule_slot(const backend::SifSourceAssemblyRequestView& v, size_t i, size_t bins) {
  const size_t k = size_t(v.instance_ids[i]);
  const int32_t cell =
      sif_cell({v.positions[3 * i], v.positions[3 * i + 1], v.positions[3 * i + 2]},
               v.bounds_min.data + 3 * k, v.bounds_max.data + 3 * k, v.grid_dims.data + 3 * k);
  if (cell < 0) return -1;
  const int32_t bin = sif_orientation_bin(
      {v.normals[3 * i], v.normals[3 * i + 1], v.normals[3 * i + 2]}, v.theta_bins, v.phi_bins);
  if (bin < 0) return -1;
  return int32_t((int64_t(k) * v.cell_stride + cell) * int64_t(bins) + bin);
}

}  // namespace

// The device bins and sums; the host settles the few samples the device cannot bin
// exactly and sorts samples by slot (integers), so that each double sum is added by one
// invocation in the host's order.
backend::SifSourceAssemblyResult VulkanSceneManager::assemble_sif_source(
    const backend::SifSourceAssemblyRequestView& v) const {
  backend::validate_sif_source_assembly_request(v);
  if (!context_.has_shader_int64_float64())
    throw std::runtime_error(
        "Vulkan: SIF source assembly needs 64-bit floats in shaders (shaderFloat64), which "
        "this device lacks");
  const size_t n = size_t(v.n_samples), nb = size_t(v.n_bands);
  const size_t instances = size_t(v.n_instances), stride = size_t(v.cell_stride);
  const size_t bins = size_t(v.theta_bins) * size_t(v.phi_bins);
  const size_t rows = instances * stride, orients = instances * bins, slots = rows * bins;
  // Double sums per slot, row, orientation and instance, the float tables, the counts,
  // and the samples twice (device and host).
  check_request_memory(
      "SIF source assembly on the device",
      16.0 * double(slots) * double(nb) + 8.0 * double(rows + orients) * double(nb) +
          4.0 * double(rows + 2 * slots + orients) * double(nb) +
          8.0 * double(slots + rows + orients) + 2.0 * double(n) * (32.0 + 8.0 * double(nb)));
  if (uint64_t(slots) * nb > 0xffffffffull / 2 ||
      uint64_t(rows + orients + instances) * nb > 0x7fffffffull)
    throw std::invalid_argument("SIF joint field exceeds native device indexing");

  Buffer b_pos = filled(context_, v.positions.data, 3 * n);
  Buffer b_nrm = filled(context_, v.normals.data, 3 * n);
  Buffer b_ids = filled(context_, v.instance_ids.data, n);
  Buffer b_dims = filled(context_, v.grid_dims.data, 3 * instances);
  Buffer b_lo = filled(context_, v.bounds_min.data, 3 * instances);
  Buffer b_hi = filled(context_, v.bounds_max.data, 3 * instances);
  Buffer b_slot = storage_buffer(context_, n * 4);
  Buffer b_source = filled(context_, v.source_band_major.data, n * nb);
  Buffer b_direct = filled(context_, v.direct_source_band_major.data, n * nb);
  Buffer b_order = storage_buffer(context_, n * 4);
  Buffer b_start = storage_buffer(context_, (slots + 1) * 4);
  Buffer b_cell = storage_buffer(context_, slots * nb * 16);
  Buffer b_spatial_sum = storage_buffer(context_, rows * nb * 8);
  Buffer b_orient_sum = storage_buffer(context_, orients * nb * 8);
  Buffer b_instance_sum = storage_buffer(context_, instances * nb * 16);
  Buffer b_jc = storage_buffer(context_, slots * 4), b_sc = storage_buffer(context_, rows * 4);
  Buffer b_oc = storage_buffer(context_, orients * 4),
         b_ic = storage_buffer(context_, instances * 4);
  Buffer b_spatial = storage_buffer(context_, rows * nb * 4);
  Buffer b_orient = storage_buffer(context_, orients * nb * 4);
  Buffer b_joint = storage_buffer(context_, slots * nb * 4);
  Buffer b_direct_joint = storage_buffer(context_, slots * nb * 4);
  if (!dev_->sif_assembly)
    dev_->sif_assembly = ray_free_program(context_, program_dir_, "sif_source_assembly.spv", 23,
                                          sizeof(AssemblyPush), "SIF source assembly");
  Program& p = *dev_->sif_assembly;
  const Buffer* bound[] = {&b_pos,    &b_nrm,   &b_ids,         &b_dims,       &b_lo,
                           &b_hi,     &b_slot,  &b_source,      &b_direct,     &b_order,
                           &b_start,  &b_cell,  &b_spatial_sum, &b_orient_sum, &b_instance_sum,
                           &b_jc,     &b_sc,    &b_oc,          &b_ic,         &b_spatial,
                           &b_orient, &b_joint, &b_direct_joint};
  for (uint32_t k = 0; k < 23; ++k) p.bind(k, *bound[k]);
  AssemblyPush push{0,
                    uint32_t(n),
                    uint32_t(n),
                    uint32_t(instances),
                    uint32_t(nb),
                    uint32_t(stride),
                    uint32_t(bins),
                    uint32_t(v.theta_bins),
                    uint32_t(v.phi_bins)};
  run_once(context_, p, n, &push);

  // Slots, counts and the samples of each slot in sample order (a counting sort).
  std::vector<int32_t> slot(n);
  b_slot.download(slot.data(), n * 4);
  std::vector<uint32_t> jc(slots, 0), sc(rows, 0), oc(orients, 0), ic(instances, 0);
  for (size_t i = 0; i < n; ++i) {
    if (slot[i] == UNSURE_SLOT) slot[i] = rule_slot(v, i, bins);
    if (slot[i] >= 0) ++jc[size_t(slot[i])];
  }
  std::vector<uint32_t> start(slots + 1, 0), order(std::max<size_t>(n, 1));
  for (size_t q = 0; q < slots; ++q) start[q + 1] = start[q] + jc[q];
  {
    std::vector<uint32_t> next(start.begin(), start.end() - 1);
    for (size_t i = 0; i < n; ++i)
      if (slot[i] >= 0) order[next[size_t(slot[i])]++] = uint32_t(i);
  }
  for (size_t row = 0; row < rows; ++row)
    for (size_t o = 0; o < bins; ++o) {
      const uint32_t c = jc[row * bins + o];
      sc[row] += c;
      oc[(row / stride) * bins + o] += c;
      ic[row / stride] += c;
    }
  b_order.upload(order.data(), order.size() * 4);
  b_start.upload(start.data(), start.size() * 4);
  b_jc.upload(jc.data(), slots * 4);
  b_sc.upload(sc.data(), rows * 4);
  b_oc.upload(oc.data(), orients * 4);
  b_ic.upload(ic.data(), instances * 4);

  const uint64_t stage_count[6] = {0,
                                   slots * nb,
                                   (rows + orients + instances) * nb,
                                   instances * nb,
                                   (rows + orients) * nb,
                                   slots * nb};
  AssemblyPush pushes[6];
  for (uint32_t s = 1; s < 6; ++s) {
    pushes[s] = push;
    pushes[s].stage = s;
    pushes[s].count = uint32_t(stage_count[s]);
  }
  context_.immediate_submit([&](VkCommandBuffer cb) {
    for (uint32_t s = 1; s < 6; ++s) {
      p.dispatch_wide(cb, stage_count[s], &pushes[s]);
      compute_barrier(context_, cb);
    }
  });
  poll_interrupt();

  backend::SifSourceAssemblyResult r;
  r.spatial_field.resize(rows * nb);
  r.orientation_field.resize(orients * nb);
  r.joint_field.resize(slots * nb);
  r.direct_joint_field.resize(slots * nb);
  b_spatial.download(r.spatial_field.data(), rows * nb * 4);
  b_orient.download(r.orientation_field.data(), orients * nb * 4);
  b_joint.download(r.joint_field.data(), slots * nb * 4);
  b_direct_joint.download(r.direct_joint_field.data(), slots * nb * 4);
  r.spatial_counts = std::move(sc);
  r.orientation_counts = std::move(oc);
  r.joint_counts = std::move(jc);
  r.execution = {BACKEND_VULKAN, WORKFLOW_SIF_SOURCE_ASSEMBLY, "vulkan.slang.sif_source_assembly",
                 true};
  return r;
}

}  // namespace vesk::vulkan

// ---- leaf-area sampler -------------------------------------------------------------------

namespace vesk::vulkan {

namespace {

struct SamplingPush {
  uint32_t first, count, key, n_triangles;
  int32_t leaf_angle_distribution, closed_orientation;
  float lo[3], hi[3];
};

// Direction words of the rows the sampler draws (dimensions 0, 1, 2, 3, 5): word j of a
// dimension is its raw value at the index whose Gray code is bit j alone, 2^(j+1) - 1.
std::vector<uint32_t> direction_table() {
  std::vector<uint32_t> t;
  for (const int d : {0, 1, 2, 3, 5})
    for (uint32_t j = 0; j < 32; ++j)
      t.push_back(turbid::sobol_raw(j == 31 ? 0xffffffffu : (2u << j) - 1u, d));
  return t;
}

static_assert(sizeof(turbid::TurbidSamplingCandidate) == 32, "8 words per candidate");

}  // namespace

turbid::CandidateFiller VulkanSceneManager::turbid_candidate_filler() const {
  if (!context_.has_shader_int64_float64())
    throw std::runtime_error(
        "Vulkan: the leaf-area sampler needs 64-bit floats in shaders (shaderFloat64), which "
        "this device lacks");
  if (!dev_->turbid_sampling)
    dev_->turbid_sampling = ray_free_program(context_, program_dir_, "turbid_sampling.spv", 3,
                                             sizeof(SamplingPush), "turbid sampling");
  // The direction words, the owner's triangles (kept while the owner's batches follow each
  // other) and the batch buffer live in the filler, shared by its copies.
  struct State {
    Buffer directions, triangles, batch;
    std::vector<turbid::TurbidSamplingFloat4> resident;  // triangles now on the device
  };
  auto state = std::make_shared<State>();
  state->directions = filled(context_, direction_table());
  Program* p = dev_->turbid_sampling.get();
  const VulkanContext* c = &context_;
  return [state, p, c](const turbid::PreparedTurbidSamplingOwner& o, uint32_t first,
                       std::vector<turbid::TurbidSamplingCandidate>& batch) {
    if (batch.empty()) return;
    State& s = *state;
    const bool same = s.resident.size() == o.triangles.size() &&
                      (o.triangles.empty() ||
                       std::memcmp(s.resident.data(), o.triangles.data(),
                                   o.triangles.size() * sizeof(turbid::TurbidSamplingFloat4)) == 0);
    if (!same || s.triangles.empty()) {
      s.triangles = filled(*c, o.triangles.data(), o.triangles.size());
      s.resident = o.triangles;
    }
    const size_t bytes = batch.size() * sizeof(turbid::TurbidSamplingCandidate);
    if (s.batch.empty() || s.batch.size() < bytes) s.batch = storage_buffer(*c, bytes);
    p->bind(0, s.triangles);
    p->bind(1, s.directions);
    p->bind(2, s.batch);
    SamplingPush push{first,
                      uint32_t(batch.size()),
                      o.scramble_key,
                      uint32_t(o.triangles.size() / 3),
                      o.request.leaf_angle_distribution,
                      int32_t(o.request.closed_orientation),
                      {},
                      {}};
    for (int a = 0; a < 3; ++a)
      push.lo[a] = o.boundary.bounds_min[a], push.hi[a] = o.boundary.bounds_max[a];
    run_once(*c, *p, batch.size(), &push);
    s.batch.download(batch.data(), bytes);
  };
}

turbid::TurbidSamplingDebugResult VulkanSceneManager::debug_turbid_samples(
    const turbid::TurbidSamplingDebugRequest& request) const {
  const turbid::PreparedTurbidSamplingRequest prepared = turbid::prepare_request(request);
  return turbid::execute_turbid_sampling_debug(prepared, turbid_candidate_filler());
}

}  // namespace vesk::vulkan
