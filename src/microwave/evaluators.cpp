#include "microwave/evaluators.h"

#include <algorithm>
#include <cmath>

#include "core/types.h"
#include "microwave/cylinder.h"
#include "microwave/dielectric.h"

namespace vesk::microwave {
namespace {

constexpr float TWO_PI = 6.2831855f;

inline float input_cosine(float c) { return std::fmax(std::fabs(c), 0.001f); }

// Effective soil temperature between surface and depth, weighted by moisture.
float effective_temperature(const MwSoilParams& s) {
  const float wt = std::fmin(std::pow(std::fmin(s.moisture / 0.3f, 10.0f), 0.3f), 1.0f);
  return (s.surface_temperature - s.deep_temperature) * wt + s.deep_temperature;
}

cfloat soil_permittivity(float frequency, const MwSoilParams& s, bool hallikainen_allowed,
                         float temperature) {
  if (s.model() == 0) return mironov_permittivity(frequency, s.clay, s.moisture);
  if (s.model() == 2 && hallikainen_allowed)
    return hallikainen_permittivity(frequency, s.sand, s.clay, s.moisture);
  return dobson_permittivity(frequency, s.sand, s.clay, s.moisture, temperature);
}

}  // namespace

std::vector<float> evaluate_soil(float frequency, const float* soil, const float* cosines,
                                 size_t n, bool active) {
  const MwSoilParams s = MwSoilParams::from_array(soil);
  const float t_eff = effective_temperature(s);
  const cfloat e = soil_permittivity(frequency, s, active, t_eff);
  std::vector<float> out(4 * n);
  if (!active) {
    const float Q = s.polarisation_mixing;
    for (size_t i = 0; i < n; ++i) {
      const float c = input_cosine(cosines[i]);
      const Fresnel f = fresnel(c, e);
      const float cr = std::fmax(c, 0.01f);
      const float loss_h = std::exp(-s.roughness_h * std::pow(cr, s.cos_exponent_h));
      const float loss_v = std::exp(-s.roughness_h * std::pow(cr, s.cos_exponent_v));
      const float h = std::clamp(((1.0f - Q) * f.R_h + Q * f.R_v) * loss_h, 0.0f, 1.0f);
      const float v = std::clamp(((1.0f - Q) * f.R_v + Q * f.R_h) * loss_v, 0.0f, 1.0f);
      float* row = &out[4 * i];
      row[0] = (1.0f - h) * t_eff, row[1] = (1.0f - v) * t_eff, row[2] = h, row[3] = v;
    }
    return out;
  }
  // Active: a semi-empirical rough-surface backscatter with G0 the nadir reflectivity.
  const Fresnel nadir = fresnel(1.0f, e);
  const float g0 = std::fmax(0.5f * (nadir.R_h + nadir.R_v), 0.001f);
  const float ks = std::clamp(((frequency * TWO_PI) / 2.998e8f) * s.rms_height, 0.1f, 6.0f);
  const float q = std::clamp(std::sqrt(g0) * 0.23f * (1.0f - std::exp(-ks)), 0.0f, 0.5f);
  const float g = 0.7f * (1.0f - std::exp(-0.65f * std::pow(ks, 1.8f)));
  for (size_t i = 0; i < n; ++i) {
    const float c = input_cosine(cosines[i]);
    const float theta = std::acos(c);
    const Fresnel f = fresnel(c, e);
    const float p = std::clamp(
        1.0f - std::pow((theta + theta) / 3.1415927f, 1.0f / (g0 * 3.0f)) * std::exp(-ks), 0.05f,
        0.99f);
    const float vv = std::fmax(((c * c * c * c * g) / p) * (f.R_h + f.R_v), 0.0f);
    float* row = &out[4 * i];
    row[0] = p * p * vv, row[1] = q * vv, row[2] = q * vv, row[3] = vv;
  }
  return out;
}

std::vector<float> evaluate_soil_reflectivity(float frequency, const float* soil,
                                              const float* cosines, size_t n,
                                              bool allow_hallikainen) {
  const MwSoilParams s = MwSoilParams::from_array(soil);
  const cfloat e = soil_permittivity(frequency, s, allow_hallikainen, s.surface_temperature);
  std::vector<float> out(2 * n);
  for (size_t i = 0; i < n; ++i) {
    const Fresnel f = fresnel(input_cosine(cosines[i]), e);
    out[2 * i] = f.R_h, out[2 * i + 1] = f.R_v;
  }
  return out;
}

std::vector<float> evaluate_trunk(float frequency, const float* trunk, const float* cosines,
                                  size_t n) {
  const MwTrunkParams t = MwTrunkParams::from_array(trunk);
  const cfloat e = wood_permittivity(frequency, t.moisture, t.temperature);
  std::vector<float> out(4 * n);
  for (size_t i = 0; i < n; ++i) {
    const Fresnel f = fresnel(input_cosine(cosines[i]), e);
    float* row = &out[4 * i];
    row[0] = (1.0f - f.R_h) * t.temperature, row[1] = (1.0f - f.R_v) * t.temperature;
    row[2] = f.R_h, row[3] = f.R_v;
  }
  return out;
}

namespace {

// Propagation direction k with its horizontal and vertical polarisation vectors.
struct PolarBasis {
  float3 k, h, v;
};

PolarBasis polar_basis(const float3& d) {
  const float theta = std::acos(std::clamp(d.z, -1.0f, 1.0f));
  const float phi = std::atan2(d.y, d.x);
  PolarBasis b;
  b.k = {std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta)};
  b.h = {-std::sin(phi), std::cos(phi), 0.0f};
  b.v = normalize(cross(b.h, b.k));
  return b;
}

// The cylinder's local basis of a direction: "par" along the projection of the axis on
// the plane normal to k, "perp" = par x k.
void cylinder_basis(const float3& k, const float3& axis, const float3& x_axis, float3& par,
                    float3& perp) {
  float3 p = axis - dot(axis, k) * k;
  if (length(p) < 1e-6f) p = x_axis - dot(x_axis, k) * k;  // along the axis itself
  par = normalize(p);
  perp = normalize(cross(par, k));
}

}  // namespace

std::vector<float> evaluate_trunk_ground(float frequency, const float* soil, const float* trunk,
                                         const float* to_trunk, const float* to_ground,
                                         const float* normals, size_t n) {
  const MwSoilParams s = MwSoilParams::from_array(soil);
  const MwTrunkParams t = MwTrunkParams::from_array(trunk);
  // Row-independent: both permittivities, the wave number and the axis frame.
  const cfloat e_soil = soil_permittivity(frequency, s, true, s.surface_temperature);
  const cfloat e_wood = wood_permittivity(frequency, t.moisture, t.temperature);
  const float k = (frequency * TWO_PI) / 2.998e8f;
  const float theta_a = std::acos(std::clamp(t.ax_z, -1.0f, 1.0f));
  const float phi_a =
      std::sqrt(1.0f - t.ax_z * t.ax_z) >= 1e-6f ? std::atan2(t.ax_y, t.ax_x) : 0.0f;
  const float3 z_axis{std::sin(theta_a) * std::cos(phi_a), std::sin(theta_a) * std::sin(phi_a),
                      std::cos(theta_a)};
  const float3 x_axis{std::cos(theta_a) * std::cos(phi_a), std::cos(theta_a) * std::sin(phi_a),
                      -std::sin(theta_a)};
  const float3 y_axis = normalize(cross(z_axis, x_axis));

  std::vector<float> out(2 * n);
  for (size_t i = 0; i < n; ++i) {
    const float3 ti{to_trunk[3 * i], to_trunk[3 * i + 1], to_trunk[3 * i + 2]};
    const float3 di{to_ground[3 * i], to_ground[3 * i + 1], to_ground[3 * i + 2]};
    const float3 ni{normals[3 * i], normals[3 * i + 1], normals[3 * i + 2]};
    // Ground: coherent Fresnel reflection with the roughness loss.
    const float c = std::fmax(std::fabs(dot(di, ni)), 0.001f);
    const float sn = std::sqrt(std::fmax(1.0f - c * c, 0.0f));
    const Fresnel f = fresnel(c, e_soil);
    const float rough = (k + k) * s.rms_height * c;
    const float loss = std::exp(-(rough * rough));
    const float ground_h = f.R_h * loss, ground_v = f.R_v * loss;

    const PolarBasis inc = polar_basis(ti), sca = polar_basis(di);
    const float c_i = std::clamp(dot(inc.k, z_axis), -1.0f, 1.0f);
    const float c_s = std::clamp(dot(sca.k, z_axis), -1.0f, 1.0f);
    const float beta_i = 1.5707963f - std::acos(-c_i);
    const float beta_s = 1.5707963f - std::acos(c_s);
    // Azimuth from the incident to the scattered direction around the axis.
    const float3 pi_ = normalize(dot(inc.k, x_axis) * x_axis + dot(inc.k, y_axis) * y_axis);
    const float3 ps = normalize(dot(sca.k, x_axis) * x_axis + dot(sca.k, y_axis) * y_axis);
    float phi = std::acos(std::clamp(dot(pi_, ps), -1.0f, 1.0f));
    if (dot(cross(pi_, ps), z_axis) < 0.0f) phi = -phi;

    const AmplitudeMatrix T = cylinder_amplitude(double(frequency), double(t.radius),
                                                 cdouble(e_wood.real(), e_wood.imag()),
                                                 double(beta_i), double(beta_s), double(phi));
    const float sum_sin = std::sin(beta_i) + std::sin(beta_s);
    const float u = sum_sin * k * t.length * 0.5f;
    const float sinc = std::fabs(sum_sin) < 0.01f ? 1.0f : std::sin(u) / u;
    const float A = -((std::cos(beta_s) * t.length) / (std::cos(beta_i) * 3.1415927f)) * sinc;

    // From the local (par, perp) bases to the global H and V of each direction.
    float3 par_i, perp_i, par_s, perp_s;
    cylinder_basis(inc.k, z_axis, x_axis, par_i, perp_i);
    cylinder_basis(sca.k, z_axis, x_axis, par_s, perp_s);
    const float3 loc_i[2] = {par_i, perp_i}, loc_s[2] = {par_s, perp_s};
    cdouble s_h = 0.0, s_v = 0.0;
    for (int a = 0; a < 2; ++a)
      for (int b = 0; b < 2; ++b) {
        s_h += double(dot(sca.h, loc_s[a])) * T[a][b] * double(dot(loc_i[b], inc.h));
        s_v += double(dot(sca.v, loc_s[a])) * T[a][b] * double(dot(loc_i[b], inc.v));
      }
    s_h *= double(A);
    s_v *= double(A);
    const float area =
        std::fmax(4.0f * t.radius * t.radius * c + 2.0f * t.radius * t.length * sn, 1e-6f);
    const float gain = 25.132742f / area;
    out[2 * i] = float(std::norm(s_h)) * ground_h * gain;
    out[2 * i + 1] = float(std::norm(s_v)) * ground_v * gain;
  }
  return out;
}

}  // namespace vesk::microwave
