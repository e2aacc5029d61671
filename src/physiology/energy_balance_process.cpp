#include "physiology/energy_balance_process.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "core/array_check.h"
#include "core/workers.h"

namespace vesk::backend {
namespace {

void check_span(const char* name, const FloatSpan& s, size_t n) {
  check_length(name, s.data ? s.size : ~size_t(0), n);
  check_finite(name, s.data, n);
}

}  // namespace

void validate_energy_balance_process_request(const EnergyBalanceProcessRequestView& v) {
  if (v.n_elements < 1) throw std::invalid_argument("energy balance n_elements must be positive");
  size_t bytes = 0;
  if (__builtin_mul_overflow(size_t(v.n_elements), sizeof(float) * 16, &bytes))
    throw std::invalid_argument("energy balance elements size overflows size_t");
  const size_t n = size_t(v.n_elements);
  check_length("active", v.active.data ? v.active.size : ~size_t(0), n);
  check_span("initial_temperature", v.initial_temperature, n);
  check_span("emissivity", v.emissivity, n);
  check_span("sidedness", v.sidedness, n);
  check_span("sensible_derivative", v.sensible_derivative, n);
  check_span("latent_coefficient", v.latent_coefficient, n);
  check_span("ground_heat", v.ground_heat, n);
  check_span("sw_albedo", v.sw_albedo, n);
  if (v.precomputed_shortwave) {
    check_length("absorbed_shortwave_top",
                 v.absorbed_shortwave_top.data ? v.absorbed_shortwave_top.size : ~size_t(0), n);
    check_length("absorbed_shortwave_bottom",
                 v.absorbed_shortwave_bottom.data ? v.absorbed_shortwave_bottom.size : ~size_t(0),
                 n);
    check_finite("absorbed_shortwave_top", v.absorbed_shortwave_top.data, n);
    check_finite("absorbed_shortwave_bottom", v.absorbed_shortwave_bottom.data, n);
  }
  const float scalars[] = {v.air_temperature, v.vapor_pressure, v.sky_lw_radiance,
                           v.sw_direct,       v.sw_diffuse_radiance, v.sun_dir_x,
                           v.sun_dir_y,       v.sun_dir_z,        v.convergence_tolerance,
                           v.damping,         v.newton_tolerance};
  for (float x : scalars)
    if (!std::isfinite(x)) throw std::invalid_argument("energy balance scalar must be finite");
  const float sun2 = v.sun_dir_x * v.sun_dir_x + v.sun_dir_y * v.sun_dir_y + v.sun_dir_z * v.sun_dir_z;
  if (!(v.air_temperature > 0.0f) || v.vapor_pressure < 0.0f || v.sky_lw_radiance < 0.0f ||
      v.sw_direct < 0.0f || v.sw_diffuse_radiance < 0.0f || v.n_samples < 1 ||
      v.max_iterations < 1 || sun2 <= 1e-12f || !(v.convergence_tolerance > 0.0f) ||
      !(v.damping > 0.0f) || v.damping > 1.0f || v.newton_max_iterations < 1 ||
      !(v.newton_tolerance > 0.0f))
    throw std::invalid_argument("energy balance scalar is outside its domain");
  for (size_t i = 0; i < n; ++i) {
    const bool bad =
        v.active[i] > 1 || !(v.initial_temperature[i] > 0.0f) || v.emissivity[i] < 0.0f ||
        v.emissivity[i] > 1.0f || v.sidedness[i] < 1.0f || v.sidedness[i] > 2.0f ||
        v.sensible_derivative[i] < 0.0f || v.latent_coefficient[i] < 0.0f ||
        v.sw_albedo[i] < 0.0f || v.sw_albedo[i] > 1.0f ||
        (v.precomputed_shortwave &&
         (v.absorbed_shortwave_top[i] < 0.0f || v.absorbed_shortwave_bottom[i] < 0.0f));
    if (bad) throw std::invalid_argument("energy balance element is outside its domain");
  }
}

}  // namespace vesk::backend

namespace vesk::physiology {

namespace {
constexpr float SIGMA = 5.6703744e-08f;
constexpr float STEP_BOUND_K = 20.0f;  // the physiology solver's bound is 10 K; both are meant
constexpr float T_MIN = 200.0f, T_MAX = 350.0f;

float saturation_vapor_pressure(float t_celsius) {
  return 610.78f * std::exp(17.27f * t_celsius / (t_celsius + 237.3f));
}
}  // namespace

backend::EnergyBalanceElementResult solve_fixed_energy(const FixedEnergyInput& in,
                                                       const FixedEnergySettings& s) {
  backend::EnergyBalanceElementResult r;
  r.temperature = in.temperature;
  if (!in.active) return r;
  const float e = in.emissivity, sd = in.sidedness, gh = in.sensible_derivative;
  const float c = in.latent_coefficient;
  float T = in.temperature;
  if (s.solve_temperature) {
    for (int32_t k = 0; k < s.max_iterations; ++k) {
      const float t = T - 273.15f;
      const float es = saturation_vapor_pressure(t);
      const float slope = es * 17.27f * 237.3f / ((t + 237.3f) * (t + 237.3f));
      const float dF = -4.0f * sd * e * SIGMA * T * T * T - gh - c * slope;
      float step = 0.0f;
      if (std::fabs(dF) > 1e-12f) {
        const float F = in.absorbed - e * sd * SIGMA * T * T * T * T - gh * (T - s.air_temperature) -
                        c * (es - s.vapor_pressure) - in.ground_heat;
        step = std::clamp(F / dF, -STEP_BOUND_K, STEP_BOUND_K);
      }
      const float next = std::clamp(T - step, T_MIN, T_MAX);
      const bool done = std::fabs(next - T) < s.tolerance;
      T = next;
      if (done) {
        r.converged = 1;
        break;
      }
    }
  }
  r.temperature = T;
  r.emitted_longwave = e * sd * SIGMA * T * T * T * T;
  r.net_radiation = in.absorbed - r.emitted_longwave;
  r.sensible_heat = gh * (T - s.air_temperature);
  r.latent_heat = c * (saturation_vapor_pressure(T - 273.15f) - s.vapor_pressure);
  return r;
}

namespace {

// All elements' fixed-coefficient solves, as the coupling loop's solver step.
struct FixedEnergyBatch {
  std::vector<float> temperature, net_radiation, sensible_heat, latent_heat, emitted_longwave;
  std::vector<uint8_t> converged;
};

struct FixedEnergySteps {
  const backend::EnergyBalanceProcessRequestView& v;
  const std::vector<float>& absorbed_shortwave;

  void solve(const std::vector<float>& T, const std::vector<float>& longwave,
             bool solve_temperature, FixedEnergyBatch& out) const {
    const size_t n = T.size();
    for (auto* a : {&out.temperature, &out.net_radiation, &out.sensible_heat, &out.latent_heat,
                    &out.emitted_longwave})
      a->resize(n);
    out.converged.resize(n);
    const FixedEnergySettings s{v.air_temperature, v.vapor_pressure, solve_temperature,
                                v.newton_max_iterations, v.newton_tolerance};
    const int64_t count = int64_t(n);
#pragma omp parallel for schedule(static) num_threads(resolve_thread_count(0))
    for (int64_t i = 0; i < count; ++i) {
      FixedEnergyInput in;
      in.active = v.active[size_t(i)] != 0;
      in.temperature = T[size_t(i)];
      in.absorbed = absorbed_shortwave[size_t(i)] + longwave[size_t(i)];
      in.emissivity = v.emissivity[size_t(i)];
      in.sidedness = v.sidedness[size_t(i)];
      in.sensible_derivative = v.sensible_derivative[size_t(i)];
      in.latent_coefficient = v.latent_coefficient[size_t(i)];
      in.ground_heat = v.ground_heat[size_t(i)];
      const backend::EnergyBalanceElementResult r = solve_fixed_energy(in, s);
      out.temperature[size_t(i)] = r.temperature;
      out.net_radiation[size_t(i)] = r.net_radiation;
      out.sensible_heat[size_t(i)] = r.sensible_heat;
      out.latent_heat[size_t(i)] = r.latent_heat;
      out.emitted_longwave[size_t(i)] = r.emitted_longwave;
      out.converged[size_t(i)] = r.converged;
    }
  }
  static const std::vector<float>& temperatures(const FixedEnergyBatch& b) { return b.temperature; }
  static const std::vector<uint8_t>& converged(const FixedEnergyBatch& b) { return b.converged; }
};

}  // namespace

backend::EnergyBalanceProcessResult execute_energy_balance_process(
    ThermalScene& scene, const backend::EnergyBalanceProcessRequestView& v) {
  backend::validate_energy_balance_process_request(v);
  const size_t n = size_t(v.n_elements);
  if (scene.n_primitives() != n)
    throw std::invalid_argument("energy balance element count must match the scene");
  backend::EnergyBalanceProcessResult out;
  out.execution = {BACKEND_EMBREE, WORKFLOW_ENERGY_BALANCE_PROCESS,
                   "embree.cpu.energy_balance_process", true};
  scene.set_primitive_emissivities(std::vector<float>(v.emissivity.data, v.emissivity.data + n));

  std::vector<float>& top = out.absorbed_shortwave_top;
  std::vector<float>& bottom = out.absorbed_shortwave_bottom;
  if (v.precomputed_shortwave) {
    top.assign(v.absorbed_shortwave_top.data, v.absorbed_shortwave_top.data + n);
    bottom.assign(v.absorbed_shortwave_bottom.data, v.absorbed_shortwave_bottom.data + n);
  } else {
    scene.shortwave(v.n_samples, v.sw_direct, v.sw_diffuse_radiance,
                    {v.sun_dir_x, v.sun_dir_y, v.sun_dir_z}, v.sw_albedo.data, top, bottom);
    if (top.size() != n || bottom.size() != n)
      throw std::runtime_error("native shortwave result length does not match elements");
    for (size_t i = 0; i < n; ++i) {
      top[i] *= 1.0f - v.sw_albedo[i];
      bottom[i] *= 1.0f - v.sw_albedo[i];
    }
  }
  out.absorbed_shortwave.resize(n);
  for (size_t i = 0; i < n; ++i) {
    if (v.sidedness[i] <= 1.0f) bottom[i] = 0.0f;
    out.absorbed_shortwave[i] = top[i] + bottom[i];
  }

  const CouplingSettings cs = coupling_settings(v);
  FixedEnergySteps steps{v, out.absorbed_shortwave};
  RadiativeTemperatureCouplingResult<FixedEnergyBatch> c = couple_radiative_temperatures<FixedEnergyBatch>(
      scene, std::vector<float>(v.initial_temperature.data, v.initial_temperature.data + n), cs,
      steps);

  out.temperature = std::move(c.temperature);
  out.absorbed_longwave_top = std::move(c.absorbed_longwave_top);
  out.absorbed_longwave_bottom = std::move(c.absorbed_longwave_bottom);
  out.absorbed_longwave = std::move(c.absorbed_longwave);
  out.emitted_longwave = std::move(c.solver.emitted_longwave);
  out.net_radiation = std::move(c.solver.net_radiation);
  out.sensible_heat = std::move(c.solver.sensible_heat);
  out.latent_heat = std::move(c.solver.latent_heat);
  out.history = std::move(c.history);
  out.iterations = c.iterations;
  out.final_max_temperature_change = c.final_max_temperature_change;
  out.converged = c.converged;
  out.ground_heat.assign(n, 0.0f);
  out.active_mask.assign(n, 0);
  out.element_converged.assign(n, 0);
  for (size_t i = 0; i < n; ++i) {
    if (!v.active[i]) {
      out.net_radiation[i] = out.sensible_heat[i] = out.latent_heat[i] = 0.0f;
      continue;
    }
    out.active_mask[i] = 1;
    out.ground_heat[i] = v.ground_heat[i];
    out.element_converged[i] = c.element_converged[i];
    out.converged = out.converged && c.element_converged[i] != 0;
  }
  return out;
}

}  // namespace vesk::physiology
