#include "turbid/workflow_state.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "core/array_check.h"
#include "core/sif_field.h"
#include "physiology/leaf_solver.h"

namespace vesk::turbid {

namespace {
// Planck constant x speed of light x Avogadro constant, J m mol-1.
constexpr double H_C_NA = 0.11962656;
}  // namespace

float par_photons_per_joule(float wavelength_nm) {
  if (!(wavelength_nm >= 400.0f && wavelength_nm <= 700.0f)) return 0.0f;
  return ((wavelength_nm * 1e-9f) / 0.11962656f) * 1e+06f;
}

double sif_emission_shape(double wl) {
  auto g = [&](double mu, double s) {
    const double z = (wl - mu) / s;
    return std::exp(-0.5 * z * z) / (s * 2.5066282746310002);
  };
  return (g(685.0, 10.0) + 2.0 * g(740.0, 25.0)) / 3.0;
}

// ---- physiology ------------------------------------------------------------------------

void validate_turbid_physiology_request(const TurbidPhysiologyRequestView& v) {
  if (v.n_samples < 1) throw std::invalid_argument("Turbid physiology n_samples must be positive");
  const size_t n = size_t(v.n_samples);
  const std::pair<const char*, backend::FloatSpan> arrays[] = {
      {"temperature_sunlit", v.temperature_sunlit},
      {"temperature_shaded", v.temperature_shaded},
      {"co2", v.co2},
      {"relative_humidity", v.relative_humidity},
      {"pressure", v.pressure},
      {"wind", v.wind},
      {"vcmax25", v.vcmax25},
      {"jmax25", v.jmax25},
      {"rd25", v.rd25},
      {"ball_berry_slope", v.ball_berry_slope},
      {"ball_berry_intercept", v.ball_berry_intercept},
      {"quantum_yield", v.quantum_yield},
      {"emissivity", v.emissivity}};
  const std::pair<const char*, backend::FloatSpan> energy[] = {
      {"absorbed_longwave", v.absorbed_longwave},
      {"air_temperature", v.air_temperature},
      {"vapor_pressure", v.vapor_pressure},
      {"sidedness", v.sidedness},
      {"leaf_width", v.leaf_width},
      {"stomata_sides", v.stomata_sides}};
  for (const auto& [name, a] : arrays) check_length(name, a.data ? a.size : 0, n);
  if (v.energy_balance)
    for (const auto& [name, a] : energy) check_length(name, a.data ? a.size : 0, n);
  for (const auto& [name, a] : arrays) check_finite(name, a.data, a.size);
  if (v.energy_balance)
    for (const auto& [name, a] : energy) check_finite(name, a.data, a.size);
  for (size_t i = 0; i < n; ++i)
    if (!(v.emissivity[i] > 0.0f && v.emissivity[i] <= 1.0f))
      throw std::invalid_argument("Turbid leaf emissivity must lie in (0, 1]");
  if (v.max_iterations < 1) throw std::invalid_argument("max_iterations must be positive");
  if (!(std::isfinite(v.tolerance) && v.tolerance > 0.0f))
    throw std::invalid_argument("tolerance must be finite and positive");
}

TurbidStateRecord solve_turbid_physiology(const TurbidStateRecord& rad,
                                          const TurbidPhysiologyRequestView& v) {
  validate_turbid_physiology_request(v);
  if (v.n_samples != rad.n_samples)
    throw std::invalid_argument("Turbid physiology arrays must have one value per state sample");
  const size_t n = size_t(v.n_samples), m = 2 * n;
  // Element 2i is sample i's sunlit leaf, 2i + 1 its shaded leaf: both leaves of a
  // sample share its air and parameters, and differ in light (and temperature).
  auto twice = [&](backend::FloatSpan a) {
    std::vector<float> out(m);
    for (size_t i = 0; i < n; ++i) out[2 * i] = out[2 * i + 1] = a[i];
    return out;
  };
  std::vector<float> apar(m), temperature(m), shortwave(m), vpd(m, 0.0f);
  for (size_t i = 0; i < n; ++i) {
    apar[2 * i] = rad.apar_sunlit[i], apar[2 * i + 1] = rad.apar_shaded[i];
    temperature[2 * i] = v.temperature_sunlit[i], temperature[2 * i + 1] = v.temperature_shaded[i];
    shortwave[2 * i] = rad.shortwave_sunlit[i], shortwave[2 * i + 1] = rad.shortwave_shaded[i];
  }
  const std::vector<float> co2 = twice(v.co2), rh = twice(v.relative_humidity),
                           pressure = twice(v.pressure), wind = twice(v.wind),
                           vcmax = twice(v.vcmax25), jmax = twice(v.jmax25), rd = twice(v.rd25),
                           slope = twice(v.ball_berry_slope),
                           intercept = twice(v.ball_berry_intercept), qy = twice(v.quantum_yield),
                           emissivity = twice(v.emissivity);
  std::vector<float> lw, air, vap, sides, width, stomata;
  backend::PhysiologyRequestView p;
  p.n_elements = int32_t(m);
  p.n_bands = 1;
  auto span = [](const std::vector<float>& a) { return backend::FloatSpan{a.data(), a.size()}; };
  p.apar = span(apar), p.temperature = span(temperature), p.co2 = span(co2);
  p.relative_humidity = span(rh), p.vpd = span(vpd), p.pressure = span(pressure);
  p.wind = span(wind), p.vcmax25 = span(vcmax), p.jmax25 = span(jmax), p.rd25 = span(rd);
  p.ball_berry_slope = span(slope), p.ball_berry_intercept = span(intercept);
  p.quantum_yield = span(qy);
  p.max_iterations = v.max_iterations;
  p.tolerance = v.tolerance;
  if (v.energy_balance) {
    lw = twice(v.absorbed_longwave), air = twice(v.air_temperature);
    vap = twice(v.vapor_pressure), sides = twice(v.sidedness), width = twice(v.leaf_width);
    stomata = twice(v.stomata_sides);
    p.dynamic_energy_balance = true;
    p.solve_leaf_temperature = true;
    p.absorbed_shortwave = span(shortwave), p.absorbed_longwave = span(lw);
    p.air_temperature = span(air), p.vapor_pressure = span(vap), p.emissivity = span(emissivity);
    p.sidedness = span(sides), p.leaf_width = span(width), p.stomata_sides = span(stomata);
  }
  // The leaf solver's own validator guards the physical domains before anything runs.
  const backend::PhysiologyResult r = backend::solve_physiology(p);

  TurbidStateRecord s = rad;
  s.token.workflow_stage = v.energy_balance ? STAGE_ENERGY : STAGE_PHYSIOLOGY;
  auto sized = [&](std::vector<float>& a) { a.assign(n, 0.0f); };
  for (auto* a : {&s.an, &s.gs, &s.phi_f, &s.temperature, &s.an_sunlit, &s.an_shaded, &s.gs_sunlit,
                  &s.gs_shaded, &s.phi_f_sunlit, &s.phi_f_shaded, &s.temperature_sunlit,
                  &s.temperature_shaded, &s.emissivity})
    sized(*a);
  s.converged.assign(n, 0);
  if (v.energy_balance)
    for (auto* a : {&s.absorbed_longwave, &s.net_radiation, &s.sensible_heat, &s.latent_heat})
      sized(*a);
  for (size_t i = 0; i < n; ++i) {
    const size_t a = 2 * i, b = 2 * i + 1;
    const float f = rad.sunlit_probability[i];
    auto blend = [f](float sunlit, float shaded) { return f * sunlit + (1.0f - f) * shaded; };
    s.an_sunlit[i] = r.an[a], s.an_shaded[i] = r.an[b];
    s.gs_sunlit[i] = r.gs[a], s.gs_shaded[i] = r.gs[b];
    s.phi_f_sunlit[i] = r.phi_f[a], s.phi_f_shaded[i] = r.phi_f[b];
    s.temperature_sunlit[i] = v.energy_balance ? r.temperature[a] : temperature[a];
    s.temperature_shaded[i] = v.energy_balance ? r.temperature[b] : temperature[b];
    s.an[i] = blend(r.an[a], r.an[b]);
    s.gs[i] = blend(r.gs[a], r.gs[b]);
    s.phi_f[i] = blend(r.phi_f[a], r.phi_f[b]);
    s.temperature[i] = blend(s.temperature_sunlit[i], s.temperature_shaded[i]);
    s.emissivity[i] = v.emissivity[i];
    s.converged[i] = uint8_t(r.converged[a] && r.converged[b]);
    if (v.energy_balance) {
      s.absorbed_longwave[i] = v.absorbed_longwave[i];
      s.net_radiation[i] = blend(r.net_radiation[a], r.net_radiation[b]);
      s.sensible_heat[i] = blend(r.sensible_heat[a], r.sensible_heat[b]);
      s.latent_heat[i] = blend(r.latent_heat[a], r.latent_heat[b]);
    }
  }
  return s;
}

// ---- fields ----------------------------------------------------------------------------

std::vector<const char*> field_quantities(uint8_t stage) {
  std::vector<const char*> q = {"sunlit_probability", "apar", "shortwave"};
  if (stage >= STAGE_PHYSIOLOGY)
    for (const char* name :
         {"an", "gs", "phi_f", "temperature", "temperature_sunlit", "temperature_shaded"})
      q.push_back(name);
  return q;
}

TurbidFieldRecord aggregate_turbid_field(
    const TurbidStateRecord& s, const std::vector<int32_t>& owner_of,
    const std::vector<float>& area, const std::vector<float3>& pos, const std::vector<float3>& nrm,
    int32_t n_owners, const std::vector<int32_t>& dims, const std::vector<float>& lo,
    const std::vector<float>& hi, int32_t theta_bins, int32_t phi_bins) {
  TurbidFieldRecord f;
  f.quantities = field_quantities(s.token.workflow_stage);
  f.n_owners = n_owners;
  f.n_quantities = int32_t(f.quantities.size());
  f.theta_bins = theta_bins, f.phi_bins = phi_bins;
  f.grid_dims = dims, f.bounds_min = lo, f.bounds_max = hi;
  for (int32_t k = 0; k < n_owners; ++k)
    f.cell_stride = std::max(f.cell_stride, dims[3 * k] * dims[3 * k + 1] * dims[3 * k + 2]);
  const size_t Q = size_t(f.n_quantities), C = size_t(f.cell_stride),
               B = size_t(theta_bins) * size_t(phi_bins), K = size_t(n_owners);
  // Leaf-area-weighted sums in double, divided once: the mean leaf of a cell.
  std::vector<double> sp(K * C * Q), orr(K * B * Q), jo(K * C * B * Q);
  std::vector<double> wsp(K * C), wor(K * B), wjo(K * C * B);
  f.spatial_counts.assign(K * C, 0), f.orientation_counts.assign(K * B, 0);
  f.joint_counts.assign(K * C * B, 0);
  std::vector<double> q(Q);
  for (size_t i = 0; i < size_t(s.n_samples); ++i) {
    const size_t k = size_t(owner_of[i]);
    const int32_t cell = sif_cell(pos[i], &lo[3 * k], &hi[3 * k], &dims[3 * k]);
    const int32_t bin = sif_orientation_bin(nrm[i], theta_bins, phi_bins);
    if (cell < 0 || bin < 0) continue;
    size_t j = 0;
    q[j++] = s.sunlit_probability[i], q[j++] = s.apar[i];
    double sw = 0.0;
    for (int32_t b = 0; b < s.n_bands; ++b)
      sw += (double(s.absorbed_top[i * size_t(s.n_bands) + size_t(b)]) +
             s.absorbed_bottom[i * size_t(s.n_bands) + size_t(b)]) *
            (s.band_widths.empty() ? 1.0 : double(s.band_widths[size_t(b)]));
    q[j++] = sw;
    if (Q > 3)
      for (const float v : {s.an[i], s.gs[i], s.phi_f[i], s.temperature[i], s.temperature_sunlit[i],
                            s.temperature_shaded[i]})
        q[j++] = v;
    const double w = area[i];
    const size_t c = k * C + size_t(cell), o = k * B + size_t(bin), jc = c * B + size_t(bin);
    ++f.spatial_counts[c], ++f.orientation_counts[o], ++f.joint_counts[jc];
    wsp[c] += w, wor[o] += w, wjo[jc] += w;
    for (size_t t = 0; t < Q; ++t) {
      sp[c * Q + t] += w * q[t];
      orr[o * Q + t] += w * q[t];
      jo[jc * Q + t] += w * q[t];
    }
  }
  auto finish = [&](const std::vector<double>& sum, const std::vector<double>& weight) {
    std::vector<float> out(sum.size(), 0.0f);
    for (size_t c = 0; c < weight.size(); ++c)
      if (weight[c] > 0.0)
        for (size_t t = 0; t < Q; ++t) out[c * Q + t] = float(sum[c * Q + t] / weight[c]);
    return out;
  };
  f.spatial = finish(sp, wsp), f.orientation = finish(orr, wor), f.joint = finish(jo, wjo);
  f.leaf_area.assign(wsp.begin(), wsp.end());
  return f;
}

// ---- sources ---------------------------------------------------------------------------

OwnerThermalState owner_thermal_state(const TurbidStateRecord& s, const float* area, size_t first,
                                      size_t count) {
  double w_sun = 0.0, w_shade = 0.0, t4_sun = 0.0, t4_shade = 0.0, a = 0.0, e = 0.0;
  for (size_t i = first; i < first + count; ++i) {
    const double f = s.sunlit_probability[i], A = area[i];
    const double ts = s.temperature_sunlit[i], th = s.temperature_shaded[i];
    w_sun += A * f, w_shade += A * (1.0 - f);
    t4_sun += A * f * ts * ts * ts * ts;
    t4_shade += A * (1.0 - f) * th * th * th * th;
    a += A, e += A * s.emissivity[i];
  }
  OwnerThermalState out;
  if (!(a > 0.0)) return out;
  // An owner with no sunlit (or no shaded) leaves takes the other branch's value, so
  // that both temperatures are meaningful wherever the tracer looks them up.
  const double sun =
      w_sun > 0.0 ? std::pow(t4_sun / w_sun, 0.25) : std::pow(t4_shade / w_shade, 0.25);
  const double shade = w_shade > 0.0 ? std::pow(t4_shade / w_shade, 0.25) : sun;
  out.temperature_sunlit = float(sun), out.temperature_shaded = float(shade);
  out.sunlit_fraction = float(std::clamp(w_sun / a, 0.0, 1.0));
  out.emissivity = float(e / a);
  return out;
}

SampleSifSpectra sample_sif_spectra(const TurbidStateRecord& s, const std::vector<float>& wl) {
  const size_t n = size_t(s.n_samples), m = wl.size();
  SampleSifSpectra out;
  out.shaded.assign(m * n, 0.0f), out.extra_sunlit.assign(m * n, 0.0f);
  out.photons.assign(n, 0.0);
  // Radiance of one side per umol m-2 s-1 of photons emitted by the leaf: the shape's
  // photons at the wavelength, in joules there, half through each Lambertian side.
  std::vector<double> per_photon(m);
  for (size_t b = 0; b < m; ++b)
    per_photon[b] = sif_emission_shape(wl[b]) * 1e-6 * H_C_NA / (double(wl[b]) * 1e-9) /
                    (2.0 * 3.14159265358979323846);
  for (size_t i = 0; i < n; ++i) {
    const double sunlit = double(s.phi_f_sunlit[i]) * s.apar_sunlit[i];
    const double shaded = double(s.phi_f_shaded[i]) * s.apar_shaded[i];
    const double f = s.sunlit_probability[i];
    // A sunlit leaf that emits less than a shaded one (a saturated yield) keeps its
    // expected emission in the shaded part, so both parts stay non-negative.
    const double extra = std::max(sunlit - shaded, 0.0);
    const double base = f * sunlit + (1.0 - f) * shaded - f * extra;
    out.photons[i] = f * sunlit + (1.0 - f) * shaded;
    for (size_t b = 0; b < m; ++b) {
      out.shaded[b * n + i] = float(std::max(base, 0.0) * per_photon[b]);
      out.extra_sunlit[b * n + i] = float(extra * per_photon[b]);
    }
  }
  return out;
}

}  // namespace vesk::turbid
