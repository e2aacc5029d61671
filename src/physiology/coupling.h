#pragma once
// The radiative temperature coupling loop: no element's temperature can be solved alone,
// since the longwave it receives depends on the temperature of everything it sees. The
// loop alternates a longwave transport over the scene with a per-element temperature
// solve, damped, until the temperatures settle. The solver step is a template
// parameter, so the fixed-coefficient energy balance and the leaf physiology solver
// share one loop.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "core/types.h"

namespace vesk::physiology {

// What the coupling needs from a scene: per-primitive temperatures and emissivities to
// set, and the two transports of the energy balance (two-sided, W m-2 per primitive).
// The CPU scene implements it; tests implement it analytically.
class ThermalScene {
 public:
  virtual ~ThermalScene() = default;
  virtual size_t n_primitives() const = 0;
  virtual void set_primitive_temperatures(const std::vector<float>& kelvin) = 0;
  virtual void set_primitive_emissivities(const std::vector<float>& values) = 0;
  // Irradiance from sky and sun with one bounce off primitives of the given albedos.
  virtual void shortwave(int32_t n_samples, float sun_irradiance, float sky_diffuse_radiance,
                         float3 sun_direction, const float* albedos, std::vector<float>& top,
                         std::vector<float>& bottom) = 0;
  // Longwave irradiance from the sky and from the primitives at their set temperatures.
  virtual void longwave(int32_t n_samples, float sky_lw_radiance, std::vector<float>& top,
                        std::vector<float>& bottom) = 0;
};

template <class Result>
struct RadiativeTemperatureCouplingResult {
  std::vector<float> temperature;  // K, the damped iterate
  std::vector<float> absorbed_longwave_top, absorbed_longwave_bottom, absorbed_longwave;
  std::vector<float> history;  // per round: the largest change (or closure value), K
  std::vector<uint8_t> element_converged;
  Result solver;  // the diagnostic solve at the final temperatures
  int32_t iterations = 0;
  bool converged = false;
  float final_max_temperature_change = 0.0f;
};

struct CouplingSettings {
  const uint8_t* active = nullptr;  // per element; inactive ones keep their temperature
  const float* emissivity = nullptr;
  const float* sidedness = nullptr;  // above 1: the underside takes in longwave too
  int32_t n_samples = 64;
  float sky_lw_radiance = 0.0f;
  int32_t max_iterations = 1;
  float tolerance = 0.0f;  // K
  float damping = 1.0f;
};

// The loop's settings from a process request that names them alike.
template <class View>
CouplingSettings coupling_settings(const View& v) {
  CouplingSettings s;
  s.active = v.active.data;
  s.emissivity = v.emissivity.data;
  s.sidedness = v.sidedness.data;
  s.n_samples = v.n_samples;
  s.sky_lw_radiance = v.sky_lw_radiance;
  s.max_iterations = v.max_iterations;
  s.tolerance = v.convergence_tolerance;
  s.damping = v.damping;
  return s;
}

// Steps must provide
//   void solve(const std::vector<float>& T, const std::vector<float>& absorbed_longwave,
//              bool solve_temperature, Result& out);
//   static const std::vector<float>& temperatures(const Result&);
//   static const std::vector<uint8_t>& converged(const Result&);
// The loop owns its arrays; the scene's primitive temperatures follow the iterate.
template <class Result, class Steps>
RadiativeTemperatureCouplingResult<Result> couple_radiative_temperatures(
    ThermalScene& scene, const std::vector<float>& initial_temperature,
    const CouplingSettings& s, Steps& steps) {
  const size_t n = initial_temperature.size();
  RadiativeTemperatureCouplingResult<Result> out;
  std::vector<float>& T = out.temperature;
  T = initial_temperature;
  out.absorbed_longwave_top.assign(n, 0.0f);
  out.absorbed_longwave_bottom.assign(n, 0.0f);
  out.absorbed_longwave.assign(n, 0.0f);
  out.element_converged.assign(n, 0);
  std::vector<float> raw_top, raw_bottom;
  Result solved;

  auto longwave_step = [&] {
    scene.set_primitive_temperatures(T);
    scene.longwave(s.n_samples, s.sky_lw_radiance, raw_top, raw_bottom);
    if (raw_top.size() != n || raw_bottom.size() != n)
      throw std::runtime_error("native longwave result length does not match elements");
    for (size_t i = 0; i < n; ++i) {
      const float top = raw_top[i] * s.emissivity[i];
      const float bottom = s.sidedness[i] > 1.0f ? raw_bottom[i] * s.emissivity[i] : 0.0f;
      out.absorbed_longwave_top[i] = top;
      out.absorbed_longwave_bottom[i] = bottom;
      out.absorbed_longwave[i] = top + bottom;
    }
  };
  auto solve = [&](bool solve_temperature, Result& r, const char* length_error) {
    steps.solve(T, out.absorbed_longwave, solve_temperature, r);
    if (Steps::temperatures(r).size() != n || Steps::converged(r).size() != n)
      throw std::runtime_error(length_error);
  };
  // The largest damped distance to the solved temperatures, and whether every active
  // element's solve converged; the element bytes are taken from this solve.
  auto closure = [&](bool& all_converged) {
    const std::vector<float>& Ts = Steps::temperatures(solved);
    const std::vector<uint8_t>& ok = Steps::converged(solved);
    float worst = 0.0f;
    all_converged = true;
    for (size_t i = 0; i < n; ++i) {
      out.element_converged[i] = ok[i];
      if (!s.active[i]) continue;
      worst = std::max(worst, std::fabs(Ts[i] - T[i]) * s.damping);
      all_converged = all_converged && ok[i] != 0;
    }
    return worst;
  };

  bool flag = false;
  for (int32_t round = 0; round < s.max_iterations; ++round) {
    longwave_step();
    solve(true, solved, "native closure result length does not match elements");
    const std::vector<float>& Ts = Steps::temperatures(solved);
    float change = 0.0f;
    for (size_t i = 0; i < n; ++i) {
      if (!s.active[i]) continue;
      const float next = Ts[i] * s.damping + (1.0f - s.damping) * T[i];
      change = std::max(change, std::fabs(next - T[i]));
      T[i] = next;
    }
    scene.set_primitive_temperatures(T);
    float recorded = change;
    flag = false;
    // Strictly below to try the closure, at most to leave: a small damped step alone
    // does not prove that the solve agrees with the iterate.
    if (change < s.tolerance) {
      longwave_step();
      solve(true, solved, "native closure result length does not match elements");
      recorded = closure(flag);
    }
    ++out.iterations;
    out.history.push_back(recorded);
    if (flag && recorded <= s.tolerance) break;
  }

  // The final block runs however the loop ended; it leaves T as it is.
  longwave_step();
  solve(true, solved, "native closure result length does not match elements");
  out.final_max_temperature_change = closure(flag);
  solve(false, out.solver, "native closure diagnostic length does not match elements");
  if (!out.history.empty()) out.history.back() = out.final_max_temperature_change;
  out.converged = flag && out.final_max_temperature_change < s.tolerance;
  return out;
}

}  // namespace vesk::physiology
