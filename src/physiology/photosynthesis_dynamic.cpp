#include "physiology/photosynthesis_dynamic.h"

#include <cmath>
#include <stdexcept>

#include "core/array_check.h"
#include "physiology/leaf_solver.h"

namespace vesk::backend {
namespace {

void check_span(const char* name, const FloatSpan& s, size_t n) {
  check_length(name, s.data ? s.size : ~size_t(0), n);
  check_finite(name, s.data, n);
}

}  // namespace

void validate_dynamic_photosynthesis_request(const DynamicPhotosynthesisProcessRequestView& v) {
  if (v.n_elements < 1)
    throw std::invalid_argument("dynamic photosynthesis n_elements must be positive");
  const size_t n = size_t(v.n_elements);
  check_length("active", v.active.data ? v.active.size : ~size_t(0), n);
  check_length("fluorescent", v.fluorescent.data ? v.fluorescent.size : ~size_t(0), n);
  check_span("apar", v.apar, n);
  check_span("absorbed_shortwave", v.absorbed_shortwave, n);
  check_span("initial_temperature", v.initial_temperature, n);
  check_span("emissivity", v.emissivity, n);
  check_span("sidedness", v.sidedness, n);
  check_span("leaf_width", v.leaf_width, n);
  check_span("stomata_sides", v.stomata_sides, n);
  check_span("vcmax25", v.vcmax25, n);
  check_span("jmax25", v.jmax25, n);
  check_span("rd25", v.rd25, n);
  check_span("ball_berry_slope", v.ball_berry_slope, n);
  check_span("ball_berry_intercept", v.ball_berry_intercept, n);
  check_span("quantum_yield", v.quantum_yield, n);
  if (v.conditional) {
    check_span("sunlit_fraction", v.sunlit_fraction, n);
    check_span("apar_sunlit", v.apar_sunlit, n);
    check_span("apar_shaded", v.apar_shaded, n);
    check_span("shortwave_sunlit", v.shortwave_sunlit, n);
    check_span("shortwave_shaded", v.shortwave_shaded, n);
  }
  const float scalars[] = {v.co2,  v.relative_humidity, v.air_temperature,       v.vapor_pressure,
                           v.pressure, v.wind,          v.sky_lw_radiance,       v.convergence_tolerance,
                           v.damping,  v.physiology_tolerance};
  for (float x : scalars)
    if (!std::isfinite(x))
      throw std::invalid_argument("dynamic photosynthesis scalar must be finite");
  if (!(v.co2 > 0.0f) || !(v.air_temperature > 0.0f) || !(v.pressure > 0.0f) ||
      v.relative_humidity < 0.0f || v.relative_humidity > 1.0f || v.vapor_pressure < 0.0f ||
      v.wind < 0.0f || v.sky_lw_radiance < 0.0f || v.n_samples < 1 || v.max_iterations < 1 ||
      v.physiology_max_iterations < 1 || !(v.convergence_tolerance > 0.0f) ||
      !(v.physiology_tolerance > 0.0f) || !(v.damping > 0.0f) || v.damping > 1.0f)
    throw std::invalid_argument("dynamic photosynthesis scalar is outside its domain");
  auto outside01 = [](float x) { return x < 0.0f || x > 1.0f; };
  for (size_t i = 0; i < n; ++i) {
    if (v.active[i] > 1 || v.fluorescent[i] > 1 || v.apar[i] < 0.0f ||
        v.absorbed_shortwave[i] < 0.0f || !(v.initial_temperature[i] > 0.0f) ||
        outside01(v.emissivity[i]) || v.sidedness[i] < 1.0f || v.sidedness[i] > 2.0f ||
        !(v.leaf_width[i] > 0.0f) || !(v.stomata_sides[i] > 0.0f) || v.vcmax25[i] < 0.0f ||
        v.jmax25[i] < 0.0f || v.rd25[i] < 0.0f || v.ball_berry_slope[i] < 0.0f ||
        v.ball_berry_intercept[i] < 0.0f || outside01(v.quantum_yield[i]))
      throw std::invalid_argument("dynamic photosynthesis element is outside its domain");
    if (v.conditional &&
        (outside01(v.sunlit_fraction[i]) || v.apar_sunlit[i] < 0.0f || v.apar_shaded[i] < 0.0f ||
         v.shortwave_sunlit[i] < 0.0f || v.shortwave_shaded[i] < 0.0f))
      throw std::invalid_argument("conditional photosynthesis input is outside its domain");
  }
}

}  // namespace vesk::backend

namespace vesk::physiology {
namespace {

constexpr float SIGMA = 5.6703744e-08f;

// The leaf solver's outputs spread over all elements; inactive elements keep their
// temperature and report zeros.
struct LeafBatch {
  std::vector<float> temperature, an, gs, ci, phi_f, net_radiation, sensible_heat, latent_heat;
  std::vector<uint8_t> converged;
};

// Only active elements go to the leaf solver: an inactive one takes no part in the
// coupling, and its inputs (an emissivity of 0, say) need not suit the solver.
class LeafSolves {
 public:
  LeafSolves(const backend::DynamicPhotosynthesisProcessRequestView& v, LeafBatchSolver* solver)
      : v_(v), solver_(solver) {
    const size_t n = size_t(v.n_elements);
    for (size_t i = 0; i < n; ++i)
      if (v.active[i]) index_.push_back(i);
    const size_t m = index_.size();
    auto gather = [&](const backend::FloatSpan& s) {
      std::vector<float> out(m);
      for (size_t k = 0; k < m; ++k) out[k] = s[index_[k]];
      return out;
    };
    auto repeat = [&](float x) { return std::vector<float>(m, x); };
    co2_ = repeat(v.co2), rh_ = repeat(v.relative_humidity), vpd_ = repeat(0.0f);
    pressure_ = repeat(v.pressure), wind_ = repeat(v.wind);
    air_ = repeat(v.air_temperature), vapor_ = repeat(v.vapor_pressure);
    apar_ = gather(v.apar), sw_ = gather(v.absorbed_shortwave);
    emissivity_ = gather(v.emissivity), sidedness_ = gather(v.sidedness);
    width_ = gather(v.leaf_width), stomata_ = gather(v.stomata_sides);
    vcmax_ = gather(v.vcmax25), jmax_ = gather(v.jmax25), rd_ = gather(v.rd25);
    slope_ = gather(v.ball_berry_slope), intercept_ = gather(v.ball_berry_intercept);
    yield_ = gather(v.quantum_yield);
    for (size_t k = 0; k < m; ++k)
      if (!v.fluorescent[index_[k]]) yield_[k] = 0.0f;
    if (v.conditional) {
      apar_sunlit_ = gather(v.apar_sunlit), apar_shaded_ = gather(v.apar_shaded);
      sw_sunlit_ = gather(v.shortwave_sunlit), sw_shaded_ = gather(v.shortwave_shaded);
    }
    t_.resize(m), lw_.resize(m);
  }

  enum Light { COUPLED, SUNLIT, SHADED };

  void solve(const std::vector<float>& T, const std::vector<float>& longwave,
             bool solve_temperature, Light light, LeafBatch& out) {
    const size_t n = T.size(), m = index_.size();
    for (auto* a : {&out.an, &out.gs, &out.ci, &out.phi_f, &out.net_radiation, &out.sensible_heat,
                    &out.latent_heat})
      a->assign(n, 0.0f);
    out.temperature = T;
    out.converged.assign(n, 0);
    if (m == 0) return;
    for (size_t k = 0; k < m; ++k) t_[k] = T[index_[k]], lw_[k] = longwave[index_[k]];
    const std::vector<float>& apar =
        light == SUNLIT ? apar_sunlit_ : light == SHADED ? apar_shaded_ : apar_;
    const std::vector<float>& sw = light == SUNLIT ? sw_sunlit_ : light == SHADED ? sw_shaded_ : sw_;
    backend::PhysiologyRequestView q;
    q.n_elements = int32_t(m);
    q.n_bands = 1;
    q.apar = span(apar), q.temperature = span(t_), q.co2 = span(co2_);
    q.relative_humidity = span(rh_), q.vpd = span(vpd_), q.pressure = span(pressure_);
    q.wind = span(wind_), q.vcmax25 = span(vcmax_), q.jmax25 = span(jmax_), q.rd25 = span(rd_);
    q.ball_berry_slope = span(slope_), q.ball_berry_intercept = span(intercept_);
    q.quantum_yield = span(yield_);
    q.dynamic_energy_balance = true;
    q.solve_leaf_temperature = solve_temperature;
    q.read_back_outputs = !solve_temperature;
    q.absorbed_shortwave = span(sw), q.absorbed_longwave = span(lw_);
    q.air_temperature = span(air_), q.vapor_pressure = span(vapor_);
    q.emissivity = span(emissivity_), q.sidedness = span(sidedness_);
    q.leaf_width = span(width_), q.stomata_sides = span(stomata_);
    q.max_iterations = v_.physiology_max_iterations;
    q.tolerance = v_.physiology_tolerance;
    if (solver_) solver_->solve(q, result_);
    else backend::solve_physiology(q, result_);
    for (size_t k = 0; k < m; ++k) {
      const size_t i = index_[k];
      out.temperature[i] = result_.temperature[k];
      out.converged[i] = result_.converged[k];
    }
    // A device solver reads back only temperature and convergence from the loop's rounds.
    if (!q.read_back_outputs) return;
    for (size_t k = 0; k < m; ++k) {
      const size_t i = index_[k];
      out.an[i] = result_.an[k], out.gs[i] = result_.gs[k], out.ci[i] = result_.ci[k];
      out.phi_f[i] = result_.phi_f[k];
      out.net_radiation[i] = result_.net_radiation[k];
      out.sensible_heat[i] = result_.sensible_heat[k];
      out.latent_heat[i] = result_.latent_heat[k];
    }
  }

  // The coupling loop's solver step.
  void solve(const std::vector<float>& T, const std::vector<float>& longwave,
             bool solve_temperature, LeafBatch& out) {
    solve(T, longwave, solve_temperature, COUPLED, out);
  }
  static const std::vector<float>& temperatures(const LeafBatch& b) { return b.temperature; }
  static const std::vector<uint8_t>& converged(const LeafBatch& b) { return b.converged; }

 private:
  static backend::FloatSpan span(const std::vector<float>& v) { return {v.data(), v.size()}; }

  const backend::DynamicPhotosynthesisProcessRequestView& v_;
  LeafBatchSolver* solver_;
  std::vector<size_t> index_;
  std::vector<float> co2_, rh_, vpd_, pressure_, wind_, air_, vapor_, apar_, sw_;
  std::vector<float> emissivity_, sidedness_, width_, stomata_, vcmax_, jmax_, rd_;
  std::vector<float> slope_, intercept_, yield_;
  std::vector<float> apar_sunlit_, apar_shaded_, sw_sunlit_, sw_shaded_;
  std::vector<float> t_, lw_;
  backend::PhysiologyResult result_;
};

}  // namespace

backend::DynamicPhotosynthesisResult execute_photosynthesis_process_dynamic(
    ThermalScene& scene, const backend::DynamicPhotosynthesisProcessRequestView& v,
    LeafBatchSolver* solver) {
  backend::validate_dynamic_photosynthesis_request(v);
  const size_t n = size_t(v.n_elements);
  if (scene.n_primitives() != n)
    throw std::invalid_argument("dynamic photosynthesis element count must match the scene");
  backend::DynamicPhotosynthesisResult out;
  out.execution = {BACKEND_EMBREE, WORKFLOW_PHOTOSYNTHESIS_PROCESS_DYNAMIC,
                   "embree.cpu.photosynthesis_process_dynamic", true};
  scene.set_primitive_emissivities(std::vector<float>(v.emissivity.data, v.emissivity.data + n));

  LeafSolves solves(v, solver);
  const CouplingSettings cs = coupling_settings(v);
  RadiativeTemperatureCouplingResult<LeafBatch> c = couple_radiative_temperatures<LeafBatch>(
      scene, std::vector<float>(v.initial_temperature.data, v.initial_temperature.data + n), cs,
      solves);

  LeafBatch& d = c.solver;  // the diagnostic solve at the coupled temperatures
  out.temperature = std::move(c.temperature);
  out.apar.assign(v.apar.data, v.apar.data + n);
  out.active_mask.assign(v.active.data, v.active.data + n);
  out.element_converged.assign(n, 0);
  for (size_t i = 0; i < n; ++i)
    if (v.active[i]) out.element_converged[i] = c.element_converged[i];
  out.emitted_longwave.resize(n);
  for (size_t i = 0; i < n; ++i) {
    const float T = out.temperature[i];
    out.emitted_longwave[i] = v.sidedness[i] * v.emissivity[i] * SIGMA * T * T * T * T;
  }

  if (v.conditional) {
    LeafBatch sun, shade;
    solves.solve(out.temperature, c.absorbed_longwave, false, LeafSolves::SUNLIT, sun);
    solves.solve(out.temperature, c.absorbed_longwave, false, LeafSolves::SHADED, shade);
    out.sunlit_fraction.assign(v.sunlit_fraction.data, v.sunlit_fraction.data + n);
    out.apar_sunlit.assign(v.apar_sunlit.data, v.apar_sunlit.data + n);
    out.apar_shaded.assign(v.apar_shaded.data, v.apar_shaded.data + n);
    out.temperature_sunlit = sun.temperature;
    out.temperature_shaded = shade.temperature;
    out.an_sunlit = sun.an;
    out.an_shaded = shade.an;
    for (size_t i = 0; i < n; ++i) {
      if (!v.active[i]) continue;
      const float f = v.sunlit_fraction[i];
      auto blend = [&](std::vector<float>& into, const std::vector<float>& a,
                       const std::vector<float>& b) { into[i] = f * a[i] + (1.0f - f) * b[i]; };
      blend(d.an, sun.an, shade.an);
      blend(d.gs, sun.gs, shade.gs);
      blend(d.ci, sun.ci, shade.ci);
      blend(d.phi_f, sun.phi_f, shade.phi_f);
      blend(d.net_radiation, sun.net_radiation, shade.net_radiation);
      blend(d.sensible_heat, sun.sensible_heat, shade.sensible_heat);
      blend(d.latent_heat, sun.latent_heat, shade.latent_heat);
      out.element_converged[i] = out.element_converged[i] && sun.converged[i] && shade.converged[i];
    }
  }
  out.an = std::move(d.an), out.gs = std::move(d.gs), out.ci = std::move(d.ci);
  out.phi_f = std::move(d.phi_f);
  out.net_radiation = std::move(d.net_radiation);
  out.sensible_heat = std::move(d.sensible_heat);
  out.latent_heat = std::move(d.latent_heat);
  out.absorbed_longwave_top = std::move(c.absorbed_longwave_top);
  out.absorbed_longwave_bottom = std::move(c.absorbed_longwave_bottom);
  out.absorbed_longwave = std::move(c.absorbed_longwave);
  out.history = std::move(c.history);
  out.iterations = c.iterations;
  out.final_max_temperature_change = c.final_max_temperature_change;
  out.converged = c.converged;
  for (size_t i = 0; i < n; ++i)
    if (v.active[i] && !out.element_converged[i]) out.converged = false;
  return out;
}

}  // namespace vesk::physiology
