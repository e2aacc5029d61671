// Microwave transport on the CPU scene: the reference the device program is compared with.
//
// Passive (brightness temperature, K). Vegetation is a zeroth-order radiative transfer
// medium, the tau-omega model (Mo et al. 1982, J. Geophys. Res. 87(C13); Jackson &
// Schmugge 1991, Remote Sens. Environ. 36): a segment of optical depth tau = kappa_e * L
// emits T_c (1 - omega)(1 - exp(-tau)) and transmits exp(-tau); scattering only removes
// energy (no source term). Soil and trunk surfaces emit e_p T and reflect specularly with
// reflectivity R_p = 1 - e_p; the reflected ray is followed up to max_depth surface events.
// Over a uniform layer on smooth soil this gives, with g = exp(-tau / cos theta),
//   Tb_p = Ts (1 - R_p) g + Tc (1 - omega)(1 - g)(1 + R_p g).
// The soil's reflectivity for the reflected ray is the passive table's (roughness-reduced,
// h-Q model) so that emission and reflection sum to one (Kirchhoff); on a smooth soil it is
// the Fresnel reflectivity. H and V are those of each event's own plane of incidence: the
// rotation of the polarisation basis between events is neglected, exact for a ray that
// stays in one vertical plane (flat soil under any layer), approximate after trunks.
// In a repeated scene (set_repetitive) rays cross the tile walls as the optical tracers
// do, and a canopy layer whose sides lie on the walls is horizontally infinite.
// Escaping rays see 0 K (the 2.7 K cosmic background is neglected) or, with an
// atmosphere, one isothermal layer at air_temperature of slant optical depth
// atm_tau / |cos|: downwelling T_a (1 - exp(-atm_tau / mu)) for rays leaving upwards, and
// the sensor, above the atmosphere, sees Tb exp(-atm_tau / mu0) + T_a (1 - exp(-atm_tau / mu0)).
//
// Active (linear sigma0, single bounce, in the style of MIMICS: Ulaby et al. 1990, Int. J.
// Remote Sens. 11(7)): per sample ray, with T = the one-way transmission to a point and
// mu = |cos| of the ray against the vertical (sigma0 refers to horizontal ground area):
//   - volume: a vegetation segment of length L with backscattering cross-section per unit
//     volume sigma_v = 4 pi P(-d, d) from its Mueller table adds
//     mu T^2 sigma_v (1 - exp(-2 kappa L)) / (2 kappa), the exact depth integral of
//     sigma_v exp(-2 kappa s) along the segment (the expectation of sampling the depth with
//     pdf proportional to exp(-2 kappa s), at zero variance);
//   - soil: sigma0 of the active table at the local cosine, T^2 mu / cos_local;
//   - trunk-ground double bounce: where a ray meets a trunk whose specular ray reaches the
//     soil, mu times the double-bounce table (trunk-ground evaluator, normalised per unit
//     projected trunk area) at the soil's local cosine, attenuated both ways on both legs;
//   - trunk surface: 4 pi times its Mueller table at the backscatter geometry; with the
//     Fresnel fallback (no table) a specular trunk returns nothing to the sensor.
// The only randomness is the sample's position in the pixel (jittered, PCG32 seeded per
// pixel and sample), so the estimate is an unbiased footprint average of the above and does
// not depend on the thread count. The backscatter direction is fixed by the ray, so the
// Mueller table is read at that geometry; its cosine and azimuth CDFs serve samplers of
// scattered directions, which this first-order estimator does not need.
#include "microwave/transport.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "core/memory_limit.h"
#include "core/offset_origin.h"
#include "core/rng.h"
#include "core/sensor.h"
#include "core/tile.h"
#include "core/workers.h"
#include "embree/scene_manager.h"
#include "microwave/evaluators.h"

namespace vesk::microwave {
namespace {

using embree::EmbreeHit;
using embree::EmbreeSceneManager;

constexpr float FOUR_PI = 12.566371f;
constexpr int32_t MAX_CROSSINGS = 4096;  // pass-through surfaces per leg, against open loops
constexpr int32_t VEG_STACK = 8;

void fail(const std::string& what) {
  throw std::invalid_argument(what);
}

bool finite(float v) {
  return std::isfinite(v);
}

void check_mueller(const MuellerTableView& t, const std::string& name) {
  if (!t.values) return;
  if (t.n_cti < 1 || t.n_cts < 1 || t.n_dphi < 1)
    fail(name + ": the Mueller table needs at least one bin in every angle");
  const size_t cells = size_t(t.n_cti) * size_t(t.n_cts);
  if (t.cos_cdf_size != cells)
    fail(name + ": the cosine CDF must hold n_cti * n_cts = " + std::to_string(cells) +
         " values, got " + std::to_string(t.cos_cdf_size));
  if (t.azimuth_cdf_size != cells * size_t(t.n_dphi))
    fail(name + ": the azimuth CDF must hold n_cti * n_cts * n_dphi = " +
         std::to_string(cells * size_t(t.n_dphi)) + " values, got " +
         std::to_string(t.azimuth_cdf_size));
  const size_t n = cells * size_t(t.n_dphi) * 16;
  for (size_t i = 0; i < n; ++i)
    if (!finite(t.values[i])) fail(name + " contains a non-finite value");
  if (t.specular && t.n_specular < 1) fail(name + ": the specular table has no rows");
}

// Linear interpolation in |cosine| of a table with `size` rows at c_i = i / (size - 1).
inline void lookup(const float* table, int32_t size, int32_t cols, float c, float* out) {
  const float x = std::min(std::fabs(c), 1.0f) * float(size - 1);
  const int32_t i = std::min(int32_t(x), size - 2);
  const float f = x - float(i);
  const float* a = table + size_t(i) * size_t(cols);
  const float* b = a + cols;
  for (int32_t k = 0; k < cols; ++k) out[k] = a[k] * (1.0f - f) + b[k] * f;
}

inline int32_t bin(float x01, int32_t n) {
  return std::clamp(int32_t(x01 * float(n)), 0, n - 1);
}

// The 4x4 block of a Mueller table for propagation z cosines mu_i (incident), mu_s
// (scattered) and the azimuth difference dphi (radians, [0, 2 pi)).
inline const float* mueller_block(const float* lut, const int32_t* info, float mu_i, float mu_s,
                                  float dphi) {
  const int32_t n_cti = info[2], n_cts = info[3], n_dphi = info[4];
  const int32_t i = bin(0.5f * (mu_i + 1.0f), n_cti);
  const int32_t s = bin(0.5f * (mu_s + 1.0f), n_cts);
  const int32_t p = bin(dphi * 0.15915494f, n_dphi);
  return lut + size_t(info[1]) +
         ((size_t(i) * size_t(n_cts) + size_t(s)) * size_t(n_dphi) + size_t(p)) * 16;
}

struct VegStack {
  int32_t ids[VEG_STACK] = {};
  int32_t n = 0;
  int32_t top() const { return n > 0 ? ids[n - 1] : -1; }
  void enter(int32_t v) {
    if (n < VEG_STACK) ids[n++] = v;
  }
  void leave(int32_t v) {
    for (int32_t k = n - 1; k >= 0; --k)
      if (ids[k] == v) {
        for (int32_t j = k; j + 1 < n; ++j) ids[j] = ids[j + 1];
        --n;
        return;
      }
  }
};

enum class EventKind { Escape, Soil, Trunk, Lost };

struct Event {
  EventKind kind = EventKind::Escape;
  int32_t index = -1;  // soil or trunk row
  float3 position{};
  float3 normal{};  // geometric, facing the ray
};

struct Context {
  const EmbreeSceneManager& scene;
  const MicrowaveRequest& q;
  const MicrowaveTables& t;
  size_t n_materials;
  MicrowaveTiles tiles;
};

// Follows the ray to its next soil or trunk surface, reporting every vegetation segment
// (vegetation row, length) on the way. Surfaces without a microwave material are crossed
// as if absent; vegetation surfaces are crossed, a front face entering the volume and a
// back face leaving it. In a repeated scene the ray crosses tile walls as the optical
// tracers do, keeping the vegetation it is in.
template <class OnSegment>
Event next_event(const Context& c, float3& o, const float3& d, VegStack& veg, OnSegment&& seg) {
  const int32_t soils = c.t.soil_count, vegs = c.t.veg_count;
  int32_t walls = 0;
  float skip_veg = -1.0f;  // after a wall: the copy's faces on it are passed, up to here
  for (int32_t crossing = 0; crossing < MAX_CROSSINGS; ++crossing) {
    EmbreeHit h = c.scene.trace_ray(o, d, 0.0f, 1e30f);
    auto mw_material = [&](const EmbreeHit& x) {
      return (x.material_id >= 0 && size_t(x.material_id) < c.n_materials)
                 ? c.q.material_map[x.material_id]
                 : -1;
    };
    auto is_veg = [&](int32_t mm) { return mm >= soils && mm < soils + vegs; };
    for (int32_t k = 0; k < 8 && h.hit && h.t <= skip_veg && is_veg(mw_material(h)); ++k)
      h = c.scene.trace_ray(o, d, std::nextafter(h.t, INFINITY), 1e30f);
    skip_veg = -1.0f;
    float tw = 0.0f;
    int axis = -1;
    if (c.tiles.active() && walls < c.tiles.num_repetitions &&
        !beyond_heights(o, d, c.tiles.z_lo, c.tiles.z_hi))
      axis = tile_exit(c.tiles.w, c.tiles.h, o, d, tw);
    if (axis >= 0 &&
        (!h.hit || (veg.n > 0 && (tw < h.t || (h.t >= tw - MICROWAVE_WALL_TIE &&
                                               is_veg(mw_material(h))))))) {
      if (const int32_t v = veg.top(); v >= 0) seg(v, tw);
      cross_tile(c.tiles.w, c.tiles.h, axis, tw, d, o);
      ++walls;
      if (veg.n > 0) skip_veg = MICROWAVE_WALL_TIE;
      continue;
    }
    // A ray leaving an open vegetation mesh has no bounded segment: nothing is counted.
    if (!h.hit) return Event{};
    if (const int32_t v = veg.top(); v >= 0) seg(v, h.t);
    const int32_t m = mw_material(h);
    if (m >= 0 && m < soils) return {EventKind::Soil, m, h.position, h.geometric_normal};
    if (m >= soils + vegs)
      return {EventKind::Trunk, m - soils - vegs, h.position, h.geometric_normal};
    if (m >= soils) {
      if (h.back_face)
        veg.leave(m - soils);
      else
        veg.enter(m - soils);
    }
    o = offset_origin(h.position, h.geometric_normal, d);
  }
  return Event{EventKind::Lost, -1, {}, {}};
}

inline float3 reflect(const float3& d, const float3& n) {
  return d - (2.0f * dot(d, n)) * n;
}

inline float clamp_jitter(float u) {
  return std::min(u, 0.99999994f);
}

// Brightness temperature (H, V) seen along one primary ray.
void passive_ray(const Context& c, float3 o, float3 d, double out[2]) {
  const MicrowaveTables& t = c.t;
  const MicrowaveRequest& q = c.q;
  const float mu0 = std::fabs(d.z);
  double acc[2] = {0.0, 0.0}, w[2] = {1.0, 1.0};
  VegStack veg;
  auto segment = [&](int32_t v, float length) {
    const float* r = &t.vegetation[size_t(v) * VEG_RECORD];
    const float trans = std::exp(-r[0] * length);
    const double emitted = double(r[2]) * (1.0 - double(r[1])) * (1.0 - double(trans));
    for (int p = 0; p < 2; ++p) {
      acc[p] += w[p] * emitted;
      w[p] *= trans;
    }
  };
  const bool atmosphere = q.include_atmosphere && q.atm_tau > 0.0f;
  for (int32_t events = 0;;) {
    const Event e = next_event(c, o, d, veg, segment);
    if (e.kind == EventKind::Lost) break;
    if (e.kind == EventKind::Escape) {
      if (atmosphere && d.z > 0.0f) {
        const double sky =
            double(q.air_temperature) * (1.0 - std::exp(-double(q.atm_tau) / double(d.z)));
        acc[0] += w[0] * sky;
        acc[1] += w[1] * sky;
      }
      break;
    }
    const float cos_local = -dot(d, e.normal);
    float r[4];
    if (e.kind == EventKind::Soil) {
      lookup(&t.passive_soil[size_t(e.index) * size_t(t.size) * 4], t.size, 4, cos_local, r);
    } else {
      lookup(&t.trunk_response[size_t(e.index) * size_t(t.size) * 4], t.size, 4, cos_local, r);
      const int32_t* info =
          &t.lut_info[size_t(t.soil_count + t.veg_count + e.index) * LUT_INFO_STRIDE];
      if (info[7] >= 0) {
        // A specular Mueller table replaces the Fresnel reflectivity; emission keeps
        // e = 1 - R at the trunk temperature.
        const int32_t n = info[8];
        const float* m = &t.specular[size_t(info[7]) +
                                     size_t(bin(std::min(std::fabs(cos_local), 1.0f), n)) * 16];
        const float temperature = c.q.trunk_params[size_t(e.index) * TRUNK_FIELDS + 3];
        r[2] = std::clamp(m[5], 0.0f, 1.0f);  // I_h -> I_h
        r[3] = std::clamp(m[0], 0.0f, 1.0f);  // I_v -> I_v
        r[0] = (1.0f - r[2]) * temperature;
        r[1] = (1.0f - r[3]) * temperature;
      }
    }
    acc[0] += w[0] * double(r[0]);
    acc[1] += w[1] * double(r[1]);
    w[0] *= double(r[2]);
    w[1] *= double(r[3]);
    if (++events >= q.max_depth || (w[0] < 1e-9 && w[1] < 1e-9)) break;
    d = normalize(reflect(d, e.normal));
    o = offset_origin(e.position, e.normal, d);
  }
  if (atmosphere) {
    const double g = std::exp(-double(q.atm_tau) / std::max(double(mu0), 1e-6));
    for (int p = 0; p < 2; ++p) acc[p] = acc[p] * g + double(q.air_temperature) * (1.0 - g);
  }
  out[0] = acc[0];
  out[1] = acc[1];
}

// sigma0 HH, HV, VH, VV of one sample ray (added to out).
void active_ray(const Context& c, float3 o, float3 d, double out[4]) {
  const MicrowaveTables& t = c.t;
  const float mu = std::fabs(d.z);
  if (mu < 1e-6f) return;  // a horizontal ray has no ground footprint
  double one_way = 1.0;
  VegStack veg;
  const float* mueller = t.mueller.data();
  auto segment = [&](int32_t v, float length) {
    const float* r = &t.vegetation[size_t(v) * VEG_RECORD];
    const double kappa = r[0];
    const int32_t* info = &t.lut_info[size_t(t.soil_count + v) * LUT_INFO_STRIDE];
    if (info[1] >= 0) {
      // Backscatter: scattered direction -d, azimuth difference pi.
      const float* m = mueller_block(mueller, info, d.z, -d.z, 3.1415927f);
      const double depth =
          kappa > 0.0 ? -std::expm1(-2.0 * kappa * double(length)) / (2.0 * kappa) : double(length);
      const double f = double(mu) * one_way * one_way * double(FOUR_PI) * depth;
      out[0] += f * m[5];  // HH: I_h from I_h
      out[1] += f * m[4];  // HV: received H from transmitted V
      out[2] += f * m[1];  // VH: received V from transmitted H
      out[3] += f * m[0];  // VV
    }
    one_way *= std::exp(-kappa * double(length));
  };
  const Event e = next_event(c, o, d, veg, segment);
  if (e.kind != EventKind::Soil && e.kind != EventKind::Trunk) return;
  const float cos_local = std::max(-dot(d, e.normal), 1e-3f);
  const double area = double(mu) / double(cos_local) * one_way * one_way;
  if (e.kind == EventKind::Soil) {
    float s[4];
    lookup(&t.active_soil[size_t(e.index) * size_t(t.size) * 4], t.size, 4, cos_local, s);
    for (int k = 0; k < 4; ++k) out[k] += area * double(s[k]);
    return;
  }
  const int32_t* info = &t.lut_info[size_t(t.soil_count + t.veg_count + e.index) * LUT_INFO_STRIDE];
  if (info[1] >= 0) {  // without a table (Fresnel fallback) a specular trunk returns nothing
    const float* m = mueller_block(mueller, info, -cos_local, cos_local, 3.1415927f);
    out[0] += area * FOUR_PI * m[5];
    out[1] += area * FOUR_PI * m[4];
    out[2] += area * FOUR_PI * m[1];
    out[3] += area * FOUR_PI * m[0];
  }
  // Trunk-ground double bounce, counted on the rays that meet the trunk: the evaluator's
  // value is per unit trunk area projected across the beam, so a ray hitting the trunk
  // carries it times mu. The trunk's specular ray must reach a soil; the way back is taken
  // as the way in (reciprocity, exact under a horizontally uniform canopy).
  if (t.soil_count == 0) return;
  const float3 dg = normalize(reflect(d, e.normal));
  if (dg.z >= 0.0f) return;
  float3 o2 = offset_origin(e.position, e.normal, dg);
  double leg = 1.0;
  VegStack veg2 = veg;
  const Event g = next_event(c, o2, dg, veg2, [&](int32_t v, float length) {
    leg *= std::exp(-double(t.vegetation[size_t(v) * VEG_RECORD]) * double(length));
  });
  if (g.kind != EventKind::Soil) return;
  float db[2];
  lookup(&t.trunk_ground[(size_t(g.index) * size_t(t.trunk_count) + size_t(e.index)) *
                         size_t(t.size) * 2],
         t.size, 2, -dot(dg, g.normal), db);
  const double path = double(mu) * one_way * one_way * leg * leg;
  out[0] += path * double(db[0]);
  out[3] += path * double(db[1]);
}

}  // namespace

void validate_request(const MicrowaveRequest& q, const SensorData& sensor, size_t n_mats) {
  if (sensor.width < 1 || sensor.height < 1)
    fail("the sensor has no pixels: call set_sensor() with a positive width and height first");
  if (!(q.frequency > 0.0f) || !finite(q.frequency)) fail("frequency must be positive (Hz)");
  if (q.active ? (q.n_channels != 1 && q.n_channels != 4)
               : (q.n_channels != 1 && q.n_channels != 2 && q.n_channels != 4))
    fail(q.active ? "n_channels must be 1 (total) or 4 (HH, HV, VH, VV)"
                  : "n_channels must be 1 (total), 2 (H, V) or 4 (Stokes)");
  if (q.max_depth < 1) fail("max_depth must be at least 1");
  if (q.response_table_size < 2 || q.response_table_size > 65536)
    fail("response_table_size must be at least 2 and at most 65536");
  if (q.spp < 1) fail("spp must be positive");
  if (!finite(q.atm_tau) || q.atm_tau < 0.0f) fail("atm_tau must be finite and not negative");
  if (!finite(q.air_temperature) || q.air_temperature < 0.0f)
    fail("air_temperature must be finite and not negative (K)");
  if (q.soil_count < 0 || q.veg_count < 0 || q.trunk_count < 0)
    fail("microwave material counts must not be negative");
  if (q.soil_count > 0 && q.soil_columns < 10)
    fail("mw_soil_params must have at least 10 columns, got " + std::to_string(q.soil_columns));
  if (q.veg_count > 0 && q.veg_columns < VEG_FIELDS)
    fail("mw_veg_params must have at least 3 columns (kappa_e 1/m, omega, temperature K), got " +
         std::to_string(q.veg_columns));
  for (size_t i = 0; i < size_t(q.soil_count) * size_t(q.soil_columns); ++i)
    if (!finite(q.soil_params[i])) fail("mw_soil_params contains a non-finite value");
  for (int32_t v = 0; v < q.veg_count; ++v) {
    const float* r = q.veg_params + size_t(v) * size_t(q.veg_columns);
    if (!finite(r[0]) || !finite(r[1]) || !finite(r[2]) || r[0] < 0.0f || r[1] < 0.0f ||
        r[1] > 1.0f || r[2] < 0.0f)
      fail("mw_veg_params row " + std::to_string(v) +
           ": kappa_e must be >= 0, omega in [0, 1] and the temperature >= 0 K");
  }
  for (size_t i = 0; i < size_t(q.trunk_count) * TRUNK_FIELDS; ++i)
    if (!finite(q.trunk_params[i])) fail("mw_trunk_params contains a non-finite value");
  for (int32_t k = 0; k < q.trunk_count; ++k) {
    const float* r = q.trunk_params + size_t(k) * TRUNK_FIELDS;
    if (!(r[0] > 0.0f) || !(r[1] > 0.0f) || r[2] < 0.0f || r[3] < 0.0f ||
        r[4] * r[4] + r[5] * r[5] + r[6] * r[6] < 1e-12f)
      fail("mw_trunk_params row " + std::to_string(k) +
           ": radius and length must be positive (m), moisture and temperature not negative, "
           "and the axis non-zero");
  }
  if (q.material_map_size < n_mats)
    fail("material_map has " + std::to_string(q.material_map_size) + " entries but the scene has " +
         std::to_string(n_mats) + " materials");
  const int32_t total = q.soil_count + q.veg_count + q.trunk_count;
  for (size_t i = 0; i < q.material_map_size; ++i)
    if (q.material_map[i] < -1 || q.material_map[i] >= total)
      fail("material_map[" + std::to_string(i) + "] = " + std::to_string(q.material_map[i]) +
           " is not -1 or a microwave material below " + std::to_string(total));
  if (!q.veg_luts.empty() && q.veg_luts.size() != size_t(q.veg_count))
    fail("mw_veg_mueller_luts must hold one entry per vegetation material (" +
         std::to_string(q.veg_count) + "), got " + std::to_string(q.veg_luts.size()));
  if (!q.trunk_luts.empty() && q.trunk_luts.size() != size_t(q.trunk_count))
    fail("mw_trunk_mueller_luts must hold one entry per trunk material (" +
         std::to_string(q.trunk_count) + "), got " + std::to_string(q.trunk_luts.size()));
  for (size_t i = 0; i < q.veg_luts.size(); ++i)
    check_mueller(q.veg_luts[i], "mw_veg_mueller_luts[" + std::to_string(i) + "]");
  for (size_t i = 0; i < q.trunk_luts.size(); ++i)
    check_mueller(q.trunk_luts[i], "mw_trunk_mueller_luts[" + std::to_string(i) + "]");
}

MicrowaveTables build_tables(const MicrowaveRequest& q) {
  MicrowaveTables t;
  const int32_t n = q.response_table_size;
  t.size = n;
  t.soil_count = q.soil_count;
  t.veg_count = q.veg_count;
  t.trunk_count = q.trunk_count;
  std::vector<float> cosines(static_cast<size_t>(n));
  for (int32_t i = 0; i < n; ++i) cosines[size_t(i)] = float(i) / float(n - 1);
  std::vector<std::vector<float>> soils(size_t(q.soil_count));
  for (int32_t s = 0; s < q.soil_count; ++s) {
    std::vector<float>& row = soils[size_t(s)];
    row.assign(SOIL_FIELDS, 0.0f);
    const float* src = q.soil_params + size_t(s) * size_t(q.soil_columns);
    std::copy(src, src + std::min(q.soil_columns, SOIL_FIELDS), row.begin());
    auto append = [](std::vector<float>& dst, const std::vector<float>& v) {
      dst.insert(dst.end(), v.begin(), v.end());
    };
    append(t.passive_soil,
           evaluate_soil(q.frequency, row.data(), cosines.data(), size_t(n), false));
    append(t.active_soil, evaluate_soil(q.frequency, row.data(), cosines.data(), size_t(n), true));
    append(t.smooth_soil,
           evaluate_soil_reflectivity(q.frequency, row.data(), cosines.data(), size_t(n), false));
  }
  // A dielectric model may be undefined for a row (Dobson's at zero moisture divides by
  // zero): refused here rather than rendered as NaN.
  auto require_finite = [&](const std::vector<float>& table, size_t from, const char* what,
                            int32_t row) {
    for (size_t i = from; i < table.size(); ++i)
      if (!finite(table[i]))
        fail(std::string(what) + " row " + std::to_string(row) +
             " gives non-finite responses at this frequency (is its dielectric model defined "
             "there?)");
  };
  for (int32_t s = 0; s < q.soil_count; ++s) {
    const size_t rows = size_t(n) * size_t(s);
    require_finite(t.passive_soil, rows * 4, "mw_soil_params", s);
    require_finite(t.active_soil, rows * 4, "mw_soil_params", s);
    require_finite(t.smooth_soil, rows * 2, "mw_soil_params", s);
  }
  for (int32_t k = 0; k < q.trunk_count; ++k) {
    const size_t from = t.trunk_response.size();
    const std::vector<float> v = evaluate_trunk(
        q.frequency, q.trunk_params + size_t(k) * TRUNK_FIELDS, cosines.data(), size_t(n));
    t.trunk_response.insert(t.trunk_response.end(), v.begin(), v.end());
    require_finite(t.trunk_response, from, "mw_trunk_params", k);
  }
  // The double bounce for a ground normal (0, 0, 1) and the plane of incidence at azimuth
  // 0, with the trunk axis as given in that frame: exact for vertical trunks on flat
  // ground, an approximation for leaning ones. Only the active path reads it.
  if (q.active && q.trunk_count > 0 && q.soil_count > 0) {
    std::vector<float> to_trunk(size_t(n) * 3), to_ground(size_t(n) * 3), normals(size_t(n) * 3);
    for (int32_t i = 0; i < n; ++i) {
      const float c = std::max(cosines[size_t(i)], 1e-3f);
      const float s = std::sqrt(std::max(1.0f - c * c, 0.0f));
      const size_t r = size_t(i) * 3;
      to_ground[r] = s, to_ground[r + 1] = 0.0f, to_ground[r + 2] = -c;
      to_trunk[r] = s, to_trunk[r + 1] = 0.0f, to_trunk[r + 2] = c;
      normals[r] = 0.0f, normals[r + 1] = 0.0f, normals[r + 2] = 1.0f;
    }
    for (int32_t s = 0; s < q.soil_count; ++s)
      for (int32_t k = 0; k < q.trunk_count; ++k) {
        const std::vector<float> v = evaluate_trunk_ground(
            q.frequency, soils[size_t(s)].data(), q.trunk_params + size_t(k) * TRUNK_FIELDS,
            to_trunk.data(), to_ground.data(), normals.data(), size_t(n));
        const size_t from = t.trunk_ground.size();
        t.trunk_ground.insert(t.trunk_ground.end(), v.begin(), v.end());
        require_finite(t.trunk_ground, from, "mw_trunk_params", k);
      }
  }
  for (int32_t v = 0; v < q.veg_count; ++v) {
    const float* r = q.veg_params + size_t(v) * size_t(q.veg_columns);
    const bool lut = !q.veg_luts.empty() && q.veg_luts[size_t(v)].values != nullptr;
    t.vegetation.insert(t.vegetation.end(), {r[0], r[1], r[2], lut ? 1.0f : 0.0f});
  }
  const int32_t total = q.soil_count + q.veg_count + q.trunk_count;
  t.lut_info.assign(size_t(total) * LUT_INFO_STRIDE, -1);
  for (int32_t m = 0; m < total; ++m) {
    int32_t* info = &t.lut_info[size_t(m) * LUT_INFO_STRIDE];
    const MuellerTableView* lut = nullptr;
    if (m < q.soil_count) {
      info[0] = MW_SOIL;
    } else if (m < q.soil_count + q.veg_count) {
      info[0] = MW_VEGETATION;
      if (!q.veg_luts.empty()) lut = &q.veg_luts[size_t(m - q.soil_count)];
    } else {
      info[0] = MW_TRUNK;
      if (!q.trunk_luts.empty()) lut = &q.trunk_luts[size_t(m - q.soil_count - q.veg_count)];
    }
    info[2] = info[3] = info[4] = info[8] = 0;
    if (!lut) continue;
    if (lut->values) {
      const size_t cells = size_t(lut->n_cti) * size_t(lut->n_cts);
      info[1] = int32_t(t.mueller.size());
      info[2] = lut->n_cti, info[3] = lut->n_cts, info[4] = lut->n_dphi;
      info[5] = int32_t(t.cos_cdf.size());
      info[6] = int32_t(t.azimuth_cdf.size());
      t.mueller.insert(t.mueller.end(), lut->values,
                       lut->values + cells * size_t(lut->n_dphi) * 16);
      t.cos_cdf.insert(t.cos_cdf.end(), lut->cos_cdf, lut->cos_cdf + lut->cos_cdf_size);
      t.azimuth_cdf.insert(t.azimuth_cdf.end(), lut->azimuth_cdf,
                           lut->azimuth_cdf + lut->azimuth_cdf_size);
    }
    if (lut->specular) {
      info[7] = int32_t(t.specular.size());
      info[8] = lut->n_specular;
      t.specular.insert(t.specular.end(), lut->specular,
                        lut->specular + size_t(lut->n_specular) * 16);
    }
  }
  return t;
}

void write_channels(const MicrowaveRequest& q, const double v[4], float* out) {
  if (q.active) {
    if (q.n_channels == 1)
      out[0] = float(0.5 * (v[0] + v[3]));
    else
      for (int k = 0; k < 4; ++k) out[k] = float(v[k]);
    return;
  }
  const double h = v[0], vv = v[1];
  if (q.n_channels == 1)
    out[0] = float(0.5 * (h + vv));
  else if (q.n_channels == 2)
    out[0] = float(h), out[1] = float(vv);
  else
    out[0] = float(vv + h), out[1] = float(vv - h), out[2] = 0.0f, out[3] = 0.0f;
}

namespace {

// The sample ray of one pixel: the centre (passive) or a PCG32 jitter (active).
bool sample_ray(const SensorData& sensor, const MicrowaveRequest& q, int64_t px, int32_t sample,
                float3& o, float3& d) {
  const int32_t x = int32_t(px % sensor.width), y = int32_t(px / sensor.width);
  if (!q.active) return sensor::generate_primary_ray(sensor, x, y, 0.5f, 0.5f, o, d);
  RNG rng = pixel_sample_rng(uint64_t(px), uint64_t(sample));
  const float dx = clamp_jitter(rng.next_float());
  const float dy = clamp_jitter(rng.next_float());
  return sensor::generate_primary_ray(sensor, x, y, dx, dy, o, d);
}

}  // namespace

MicrowaveRays primary_rays(const SensorData& sensor, const MicrowaveRequest& q,
                           const MicrowaveTiles& tiles) {
  MicrowaveRays r;
  const int64_t pixels = int64_t(sensor.width) * int64_t(sensor.height);
  const int32_t spp = q.active ? q.spp : 1;
  for (int64_t px = 0; px < pixels; ++px)
    for (int32_t s = 0; s < spp; ++s) {
      float3 o, d;
      if (!sample_ray(sensor, q, px, s, o, d)) continue;
      if (tiles.active()) enter_tile(tiles.w, tiles.h, tiles.z_hi, o, d);
      r.origins.insert(r.origins.end(), {o.x, o.y, o.z, 0.0f});
      r.directions.insert(r.directions.end(), {d.x, d.y, d.z, 0.0f});
      r.pixel.push_back(uint32_t(px));
    }
  return r;
}

std::vector<float> image_from_rays(const SensorData& sensor, const MicrowaveRequest& q,
                                   const MicrowaveRays& rays, const std::vector<float>& results) {
  const size_t pixels = size_t(sensor.width) * size_t(sensor.height);
  std::vector<double> sums(pixels * 4, 0.0);
  for (size_t i = 0; i < rays.pixel.size(); ++i)
    for (size_t k = 0; k < 4; ++k)
      sums[size_t(rays.pixel[i]) * 4 + k] += double(results[i * 4 + k]);
  const double n = q.active ? double(q.spp) : 1.0;
  std::vector<float> image(pixels * size_t(q.n_channels), 0.0f);
  for (size_t px = 0; px < pixels; ++px) {
    double v[4];
    for (size_t k = 0; k < 4; ++k) v[k] = sums[px * 4 + k] / n;
    write_channels(q, v, &image[px * size_t(q.n_channels)]);
  }
  return image;
}

std::vector<float> simulate_microwave(const EmbreeSceneManager& scene, const MicrowaveRequest& q) {
  if (!scene.is_built())
    throw std::runtime_error(
        std::string(q.active ? "simulate_active_microwave_cpu" : "simulate_microwave_cpu") +
        ": scene not built. Call build() first.");
  validate_request(q, scene.sensor(), scene.materials().size());
  check_request_memory(
      std::string("a ") + std::to_string(scene.sensor().width) + " x " +
          std::to_string(scene.sensor().height) + " microwave image",
      double(scene.sensor().width) * double(scene.sensor().height) * double(q.n_channels) * 8.0);
  const MicrowaveTables tables = build_tables(q);
  const SensorData& sensor = scene.sensor();
  const int64_t pixels = int64_t(sensor.width) * int64_t(sensor.height);
  const int32_t channels = q.n_channels;
  std::vector<float> image(size_t(pixels) * size_t(channels), 0.0f);
  const scene::Repetition& rep = scene.repetition();
  const auto [lo, hi] = scene.aabb();
  const MicrowaveTiles tiles{rep.num_repetitions, rep.scene_x_size, rep.scene_y_size, lo.z, hi.z};
  const Context c{scene, q, tables, scene.materials().size(), tiles};
  constexpr int64_t CHUNK = 64;
  const int64_t round = ((pixels + CHUNK - 1) / CHUNK) * CHUNK;
  const int threads = int(std::min<int64_t>(resolve_thread_count(q.threads), round / CHUNK));
  run_counted(
      std::max(threads, 1), 0, pixels, round, CHUNK,
      [&](int, int64_t begin, int64_t end) {
        for (int64_t px = begin; px < end; ++px) {
          double v[4] = {0.0, 0.0, 0.0, 0.0};
          float3 o, d;
          auto ray = [&](int32_t sample) {
            if (!sample_ray(sensor, q, px, sample, o, d)) return false;
            if (tiles.active()) enter_tile(tiles.w, tiles.h, tiles.z_hi, o, d);
            return true;
          };
          if (!q.active) {
            if (ray(0)) passive_ray(c, o, d, v);
          } else {
            for (int32_t sample = 0; sample < q.spp; ++sample)
              if (ray(sample)) active_ray(c, o, d, v);
            for (double& s : v) s /= double(q.spp);
          }
          write_channels(q, v, &image[size_t(px) * size_t(channels)]);
        }
      },
      nullptr);
  return image;
}

}  // namespace vesk::microwave
