#include "physiology/photosynthesis_static.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "core/array_check.h"
#include "core/workers.h"
#include "physiology/leaf_solver.h"

namespace vesk::backend {
namespace {

// Avogadro's number times Planck's constant times the speed of light, J m mol-1: the
// energy of a mole of photons is this divided by the wavelength.
constexpr float MOLAR_PHOTON_ENERGY = 0.11962656f;

// Elements gathered per call of the leaf model; two leaves each.
constexpr size_t CHUNK = 256;

// A null array counts as a wrong length, whatever its stated size.
template <class T>
size_t length_of(const Span<T>& s) {
  return s.data ? s.size : ~size_t(0);
}

[[noreturn]] void refuse(const char* message) {
  throw std::invalid_argument(message);
}

bool any_negative(const FloatSpan& s) {
  const float* x = s.data;
  const size_t n = s.size;
  int32_t bad = 0;
#pragma omp simd reduction(| : bad)
  for (size_t i = 0; i < n; ++i) bad |= x[i] < 0.0f ? 1 : 0;
  return bad != 0;
}

}  // namespace

void validate_photosynthesis_static_request(const PhotosynthesisProcessRequestView& v) {
  if (v.n_elements < 1) refuse("photosynthesis n_elements must be positive");
  if (v.n_bands < 1) refuse("photosynthesis n_bands must be positive");
  if (v.n_materials < 1) refuse("photosynthesis n_materials must be positive");
  size_t spectrum = 0;
  if (__builtin_mul_overflow(size_t(v.n_elements), size_t(v.n_bands), &spectrum))
    refuse("photosynthesis spectrum size overflows size_t");
  const size_t n = size_t(v.n_elements), nb = size_t(v.n_bands), nm = size_t(v.n_materials);

  check_length("absorbed_top", length_of(v.absorbed_top), spectrum);
  check_length("absorbed_bottom", length_of(v.absorbed_bottom), spectrum);
  check_length("absorbed_direct", length_of(v.absorbed_direct), spectrum);
  check_length("wavelengths", length_of(v.wavelengths), nb);
  check_length("sunlit_fraction", length_of(v.sunlit_fraction), n);
  check_length("material_ids", length_of(v.material_ids), n);
  check_length("material_active", length_of(v.material_active), nm);
  check_length("material_fluorescent", length_of(v.material_fluorescent), nm);
  check_length("element_temperature", length_of(v.element_temperature), n);
  check_length("element_temperature_shaded", length_of(v.element_temperature_shaded), n);
  const struct {
    const char* name;
    const FloatSpan& span;
  } materials[] = {{"vcmax25", v.vcmax25},
                   {"jmax25", v.jmax25},
                   {"rd25", v.rd25},
                   {"ball_berry_slope", v.ball_berry_slope},
                   {"ball_berry_intercept", v.ball_berry_intercept},
                   {"quantum_yield", v.quantum_yield}};
  for (const auto& m : materials) {
    check_length(m.name, length_of(m.span), nm);
    check_finite(m.name, m.span.data, nm);
  }

  check_finite("absorbed_top", v.absorbed_top.data, spectrum);
  check_finite("absorbed_bottom", v.absorbed_bottom.data, spectrum);
  check_finite("absorbed_direct", v.absorbed_direct.data, spectrum);
  check_finite("wavelengths", v.wavelengths.data, nb);
  check_finite("sunlit_fraction", v.sunlit_fraction.data, n);
  check_finite("element_temperature", v.element_temperature.data, n);
  check_finite("element_temperature_shaded", v.element_temperature_shaded.data, n);

  // Written so that NaN fails every test.
  if (!(std::isfinite(v.co2) && v.co2 > 0.0f) ||
      !(std::isfinite(v.relative_humidity) && v.relative_humidity >= 0.0f &&
        v.relative_humidity <= 1.0f) ||
      v.max_iterations < 1 || !(std::isfinite(v.tolerance) && v.tolerance > 0.0f))
    refuse("photosynthesis scalar input is outside its physical domain");

  if (any_negative(v.absorbed_top) || any_negative(v.absorbed_bottom) ||
      any_negative(v.absorbed_direct))
    refuse("photosynthesis absorbed spectra cannot be negative");

  int32_t bad = 0;
#pragma omp simd reduction(| : bad)
  for (size_t i = 0; i < n; ++i) {
    const int32_t id = v.material_ids.data[i];
    const float f = v.sunlit_fraction.data[i];
    bad |= (id < -1) | (id >= v.n_materials) | (f < 0.0f) | (f > 1.0f) |
           (v.element_temperature.data[i] <= 0.0f) | (v.element_temperature_shaded.data[i] <= 0.0f);
  }
  if (bad) refuse("photosynthesis element input is outside its domain");

  int32_t bad_material = 0;
  for (size_t m = 0; m < nm; ++m)
    bad_material |= (v.material_active.data[m] > 1) | (v.material_fluorescent.data[m] > 1) |
                    (v.vcmax25.data[m] < 0.0f) | (v.jmax25.data[m] < 0.0f) |
                    (v.rd25.data[m] < 0.0f) | (v.ball_berry_slope.data[m] < 0.0f) |
                    (v.ball_berry_intercept.data[m] < 0.0f) | (v.quantum_yield.data[m] < 0.0f) |
                    (v.quantum_yield.data[m] > 1.0f);
  if (bad_material) refuse("photosynthesis material input is outside its domain");
}

PhotosynthesisStaticResult execute_photosynthesis_process_static(
    const PhotosynthesisProcessRequestView& v) {
  validate_photosynthesis_static_request(v);
  const size_t n = size_t(v.n_elements), nb = size_t(v.n_bands);

  // Bands outside 400..700 nm (closed) are skipped rather than weighted by zero, so that
  // no sum of two huge finite values can turn into inf * 0.
  std::vector<size_t> par_bands;
  std::vector<float> par_factor;  // W m-2 to umol m-2 s-1
  for (size_t b = 0; b < nb; ++b) {
    const float wl = v.wavelengths.data[b];
    if (wl >= 400.0f && wl <= 700.0f) {
      par_bands.push_back(b);
      par_factor.push_back(((wl * 1e-9f) / MOLAR_PHOTON_ENERGY) * 1e+06f);
    }
  }

  PhotosynthesisStaticResult r;
  // Zero-filled: inactive elements leave everything but their temperatures as it is.
  for (auto* a : {&r.temperature, &r.an, &r.gs, &r.phi_f, &r.apar, &r.temperature_sunlit,
                  &r.temperature_shaded, &r.sunlit_fraction, &r.apar_sunlit, &r.apar_shaded,
                  &r.an_sunlit, &r.an_shaded})
    a->assign(n, 0.0f);
  r.active_mask.assign(n, 0);
  r.converged.assign(n, 0);
  r.execution = {BACKEND_EMBREE, WORKFLOW_PHOTOSYNTHESIS_PROCESS_STATIC,
                 "embree.cpu.photosynthesis_process_static", true};

  const physiology::LeafSettings settings{false, false, v.max_iterations, v.tolerance};
  const size_t n_par = par_bands.size();
  // Active elements are gathered CHUNK at a time, their two leaves side by side, and solved
  // in the leaf model's lane blocks. Per-thread scratch is sized here, once.
  const int threads = resolve_thread_count(0);
  std::vector<physiology::LeafInput> leaves(size_t(threads) * 2 * CHUNK);
  std::vector<physiology::LeafOutput> solved(leaves.size());
  std::vector<size_t> gathered(size_t(threads) * CHUNK);

#pragma omp parallel num_threads(threads)
  {
    // Equal contiguous ranges, the first (n % team) threads taking one element more.
    // Elements share nothing and each has its own slots, so any split gives the same bits.
    const size_t team = size_t(omp_get_num_threads()), t = size_t(omp_get_thread_num());
    const size_t base = n / team, extra = n % team;
    const size_t begin = t * base + std::min(t, extra);
    const size_t end = begin + base + (t < extra ? 1 : 0);
    physiology::LeafInput* leaf = leaves.data() + t * 2 * CHUNK;
    physiology::LeafOutput* out = solved.data() + t * 2 * CHUNK;
    size_t* element = gathered.data() + t * CHUNK;

    for (size_t first = begin; first < end; first += CHUNK) {
      const size_t last = std::min(end, first + CHUNK);
      size_t k = 0;
      for (size_t i = first; i < last; ++i) {
        const float f = v.sunlit_fraction.data[i];
        const float t_sun = v.element_temperature.data[i];
        const float t_shade = v.element_temperature_shaded.data[i];
        r.temperature[i] = f * t_sun + (1.0f - f) * t_shade;
        r.temperature_sunlit[i] = t_sun;
        r.temperature_shaded[i] = t_shade;
        r.sunlit_fraction[i] = f;
        const int32_t m = v.material_ids.data[i];
        if (m < 0 || v.material_active.data[m] == 0) continue;

        const float* top = v.absorbed_top.data + i * nb;
        const float* bottom = v.absorbed_bottom.data + i * nb;
        const float* direct = v.absorbed_direct.data + i * nb;
        float apar = 0.0f, apar_direct = 0.0f;
        for (size_t j = 0; j < n_par; ++j) {
          const size_t b = par_bands[j];
          apar += (top[b] + bottom[b]) * par_factor[j];
          apar_direct += direct[b] * par_factor[j];
        }
        // The shaded leaf sees the diffuse light alone: the sunlit share of the direct
        // beam is taken out of the total (never below zero); the sunlit leaf gets it all.
        const float apar_shaded = std::max(apar - f * apar_direct, 0.0f);
        const float apar_sunlit = apar_direct + apar_shaded;
        r.apar[i] = apar;
        r.apar_sunlit[i] = apar_sunlit;
        r.apar_shaded[i] = apar_shaded;
        r.active_mask[i] = 1;

        physiology::LeafInput& sun = leaf[2 * k];
        sun = {};
        sun.co2 = v.co2;
        sun.relative_humidity = v.relative_humidity;
        sun.vcmax25 = v.vcmax25.data[m];
        sun.jmax25 = v.jmax25.data[m];
        sun.rd25 = v.rd25.data[m];
        sun.ball_berry_slope = v.ball_berry_slope.data[m];
        sun.ball_berry_intercept = v.ball_berry_intercept.data[m];
        sun.quantum_yield = v.material_fluorescent.data[m] ? v.quantum_yield.data[m] : 0.0f;
        sun.apar_sum = apar_sunlit;
        sun.temperature = t_sun;
        physiology::LeafInput& shade = leaf[2 * k + 1];
        shade = sun;
        shade.apar_sum = apar_shaded;
        shade.temperature = t_shade;
        element[k++] = i;
      }

      physiology::solve_leaves(leaf, out, 2 * k, settings);
      for (size_t j = 0; j < k; ++j) {
        const size_t i = element[j];
        const physiology::LeafOutput& sun = out[2 * j];
        const physiology::LeafOutput& shade = out[2 * j + 1];
        const float f = v.sunlit_fraction.data[i];
        r.an[i] = f * sun.an + (1.0f - f) * shade.an;
        r.gs[i] = f * sun.gs + (1.0f - f) * shade.gs;
        r.phi_f[i] = v.material_fluorescent.data[v.material_ids.data[i]]
                         ? f * sun.phi_f + (1.0f - f) * shade.phi_f
                         : 0.0f;
        r.an_sunlit[i] = sun.an;
        r.an_shaded[i] = shade.an;
        r.converged[i] = sun.converged && shade.converged ? 1 : 0;
      }
    }
  }
  return r;
}

}  // namespace vesk::backend
