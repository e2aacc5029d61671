#include "physiology/sif_finalization.h"

#include <omp.h>

#include <algorithm>
#include <stdexcept>

#include "core/array_check.h"
#include "core/workers.h"

namespace vesk::backend {
namespace {

// A null pointer never matches a length, so a missing array is reported as a mismatch.
size_t length_of(const FloatSpan& s) {
  return s.data ? s.size : ~size_t(0);
}
size_t length_of(const IntSpan& s) {
  return s.data ? s.size : ~size_t(0);
}

bool any_negative(const float* x, size_t n) {
  int32_t bad = 0;
#pragma omp simd reduction(| : bad)
  for (size_t i = 0; i < n; ++i) bad |= x[i] < 0.0f;
  return bad != 0;
}

bool any_outside01(const float* x, size_t n) {
  int32_t bad = 0;
#pragma omp simd reduction(| : bad)
  for (size_t i = 0; i < n; ++i) bad |= (x[i] < 0.0f) | (x[i] > 1.0f);
  return bad != 0;
}

}  // namespace

void validate_sif_process_request(const SifProcessRequestView& v) {
  if (v.n_elements < 1) throw std::invalid_argument("SIF n_elements must be positive");
  if (v.n_bands < 1) throw std::invalid_argument("SIF n_bands must be positive");
  if (v.n_selected < 1 || v.n_selected > v.n_bands)
    throw std::invalid_argument("SIF selected-band count must be in [1, n_bands]");
  if (v.n_materials < 1) throw std::invalid_argument("SIF n_materials must be positive");
  const size_t n = size_t(v.n_elements);
  size_t spectrum = 0, selected = 0;
  if (__builtin_mul_overflow(n, size_t(v.n_bands), &spectrum))
    throw std::invalid_argument("SIF process spectrum size overflows size_t");
  if (__builtin_mul_overflow(n, size_t(v.n_selected), &selected))
    throw std::invalid_argument("SIF selected spectrum size overflows size_t");

  check_length("absorbed_top", length_of(v.absorbed_top), spectrum);
  check_length("absorbed_bottom", length_of(v.absorbed_bottom), spectrum);
  check_length("material_ids", length_of(v.material_ids), n);
  check_length("material_phi_f", length_of(v.material_phi_f), size_t(v.n_materials));
  check_length("selected_band_indices", length_of(v.selected_band_indices), size_t(v.n_selected));
  check_finite("absorbed_top", v.absorbed_top.data, spectrum);
  check_finite("absorbed_bottom", v.absorbed_bottom.data, spectrum);
  check_finite("material_phi_f", v.material_phi_f.data, size_t(v.n_materials));
  // Either half of a pointer and a count makes the override present: a count without
  // storage is a caller's mistake to report, not a reason to fall back to the materials.
  const bool has_element_phi_f = v.element_phi_f.data != nullptr || v.element_phi_f.size != 0;
  if (has_element_phi_f) {
    check_length("element_phi_f", length_of(v.element_phi_f), n);
    check_finite("element_phi_f", v.element_phi_f.data, n);
  }

  if (any_negative(v.absorbed_top.data, spectrum) || any_negative(v.absorbed_bottom.data, spectrum))
    throw std::invalid_argument("SIF absorbed spectra cannot be negative");
  if (any_outside01(v.material_phi_f.data, size_t(v.n_materials)))
    throw std::invalid_argument("material_phi_f must be in [0, 1]");
  for (size_t i = 0; i < n; ++i) {
    const int32_t id = v.material_ids[i];
    if (id < -1 || id >= v.n_materials) throw std::invalid_argument("material_ids is out of range");
    if (has_element_phi_f && (v.element_phi_f[i] < 0.0f || v.element_phi_f[i] > 1.0f))
      throw std::invalid_argument("element_phi_f must be in [0, 1]");
  }
  for (int32_t k = 0; k < v.n_selected; ++k) {
    const int32_t b = v.selected_band_indices[size_t(k)];
    if (b < 0 || b >= v.n_bands || (k > 0 && b <= v.selected_band_indices[size_t(k - 1)]))
      throw std::invalid_argument("selected_band_indices must be strictly increasing and in range");
  }
}

SifProcessResult finalize_sif_process(const SifProcessRequestView& v) {
  validate_sif_process_request(v);
  const size_t n = size_t(v.n_elements), nb = size_t(v.n_bands), ns = size_t(v.n_selected);
  SifProcessResult r;
  r.phi_f.resize(n);
  r.absorbed_top_selected.resize(n * ns);
  r.absorbed_bottom_selected.resize(n * ns);
  r.execution = {BACKEND_EMBREE, WORKFLOW_SIF_PROCESS_FINALIZATION,
                 "embree.cpu.sif_process_finalization", true};
  const bool override_phi_f = v.element_phi_f.data != nullptr;
  const int32_t* bands = v.selected_band_indices.data;

#pragma omp parallel num_threads(resolve_thread_count(0))
  {
    // Equal contiguous ranges; the first (n % threads) threads take one element more.
    const size_t threads = size_t(omp_get_num_threads()), t = size_t(omp_get_thread_num());
    const size_t base = n / threads, extra = n % threads;
    const size_t begin = t * base + std::min(t, extra);
    const size_t end = begin + base + (t < extra ? 1 : 0);
    for (size_t i = begin; i < end; ++i) {
      // A material -1 element keeps its spectra; only its yield falls to 0.
      const int32_t id = v.material_ids[i];
      r.phi_f[i] = override_phi_f ? v.element_phi_f[i]
                   : id >= 0      ? v.material_phi_f[size_t(id)]
                                  : 0.0f;
      const float* top = v.absorbed_top.data + i * nb;
      const float* bottom = v.absorbed_bottom.data + i * nb;
      float* top_out = r.absorbed_top_selected.data() + i * ns;
      float* bottom_out = r.absorbed_bottom_selected.data() + i * ns;
      for (size_t k = 0; k < ns; ++k) {
        top_out[k] = top[bands[k]];
        bottom_out[k] = bottom[bands[k]];
      }
    }
  }
  return r;
}

}  // namespace vesk::backend
