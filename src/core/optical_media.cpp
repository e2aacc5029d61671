#include "core/optical_media.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <stdexcept>

namespace vesk {

namespace {

constexpr double PI_D = 3.141592653589793;

// Leaf zenith densities f(t) on [0, pi/2], each integrating to 1.
double leaf_zenith_density(int32_t type, double t) {
  constexpr double k = 2.0 / PI_D;
  switch (type) {
    case LAD_SPHERICAL: return std::sin(t);
    case LAD_PLANOPHILE: return k * (1.0 + std::cos(2.0 * t));
    case LAD_ERECTOPHILE: return k * (1.0 - std::cos(2.0 * t));
    case LAD_PLAGIOPHILE: return k * (1.0 - std::cos(4.0 * t));
    case LAD_EXTREMOPHILE: return k * (1.0 + std::cos(4.0 * t));
    default: return 0.6366197723675814;
  }
}

struct ProjectionTables {
  float rows[LEAF_ANGLE_TYPES][G_TABLE_SIZE];
};

// G(v) = integral over leaf zenith t of f(t) A(t, v), with A the mean |cos| between a
// direction of zenith v and a leaf of zenith t over uniform leaf azimuth; midpoint rule.
void build_tables(ProjectionTables& tables) {
  constexpr int STEPS = 4096;
  const double dt = (PI_D / 2.0) / STEPS;
  for (int32_t type = 0; type < LEAF_ANGLE_TYPES; ++type) {
    for (int32_t v = 0; v < G_TABLE_SIZE; ++v) {
      const double angle = double(v) * (PI_D / 180.0);
      const double cv = v == 0 ? 1.0 : std::cos(angle), sv = v == 0 ? 0.0 : std::sin(angle);
      double sum = 0.0;
      for (int i = 0; i < STEPS; ++i) {
        const double t = (i + 0.5) * dt;
        const double a = std::cos(t) * cv, b = std::sin(t) * sv;
        double A = a;
        if (a < b) {
          const double r = std::min(a / b, 1.0);
          const double q = b * b - a * a;
          const double s = q > 0.0 ? std::sqrt(q) : 0.0;
          A = (std::asin(r) * a + s) * (2.0 / PI_D);
        }
        sum += A * leaf_zenith_density(type, t);
      }
      tables.rows[type][v] = float(sum * dt);
    }
  }
}

const ProjectionTables& tables() {
  static ProjectionTables t;
  static std::once_flag once;
  std::call_once(once, [] { build_tables(t); });
  return t;
}

[[noreturn]] void invalid(const char* text) { throw std::invalid_argument(text); }

}  // namespace

const float* projection_table(int32_t leaf_angle_type) {
  return tables().rows[std::clamp(leaf_angle_type, 0, LEAF_ANGLE_TYPES - 1)];
}

OpticalMediaTable validate_optical_turbid_media(const std::vector<float>& densities,
                                                const std::vector<int32_t>& types,
                                                const std::vector<int32_t>& orientations,
                                                const std::vector<float>& lengths,
                                                const std::vector<int32_t>& material_medium_ids,
                                                size_t material_count) {
  const size_t n = densities.size();
  if (types.size() != n || orientations.size() != n || lengths.size() != n)
    invalid("Optical turbid-medium parameter arrays must have equal length.");
  if (material_medium_ids.size() != material_count)
    invalid("material_medium_ids length must equal the material count.");
  OpticalMediaTable table;
  table.media.resize(n);
  for (size_t i = 0; i < n; ++i) {
    if (!std::isfinite(densities[i]) || densities[i] < 0.0f)
      invalid("Optical turbid-medium leaf area density must be finite and >= 0.");
    if (!std::isfinite(lengths[i]) || lengths[i] < 0.0f)
      invalid("Optical turbid-medium leaf characteristic length must be finite and >= 0.");
    if (types[i] < 0 || types[i] >= LEAF_ANGLE_TYPES)
      invalid("Optical turbid-medium leaf angle type must be in [0, 5].");
    if (orientations[i] != -1 && orientations[i] != 1)
      invalid("Optical turbid-medium orientation must be -1 or 1.");
    OpticalTurbidMediumData& m = table.media[i];
    m.leaf_area_density = densities[i];
    m.leaf_characteristic_length = lengths[i];
    m.leaf_angle_type = types[i];
    m.orientation = orientations[i];
    std::memcpy(m.projection_g, projection_table(types[i]), sizeof(m.projection_g));
  }
  for (size_t k = 0; k < material_count; ++k) {
    const int32_t id = material_medium_ids[k];
    if (id < -1 || (id >= 0 && size_t(id) >= n))
      invalid("material_medium_ids contains an invalid medium index.");
    if (id >= 0) table.media[size_t(id)].material_id = int32_t(k);
  }
  table.material_medium_ids = material_medium_ids;
  return table;
}

float projection_g(const OpticalTurbidMediumData& m, const float3& d) {
  const float mu = std::min(std::fabs(d.z), 1.0f);
  const float degrees = std::acos(mu) * 57.29578f;
  // A NaN direction must give NaN, not an index before the table.
  const int32_t i = degrees >= 0.0f ? std::min(int32_t(degrees), G_TABLE_SIZE - 1) : 0;
  const float frac = degrees - float(i);
  const int32_t j = i < G_TABLE_SIZE - 1 ? i + 1 : i;
  return (1.0f - frac) * m.projection_g[i] + frac * m.projection_g[j];
}

namespace {
inline float slot_sigma(const OpticalTurbidMediumData* media, size_t n_media, int32_t id,
                        const float3& d) {
  return id >= 0 && size_t(id) < n_media ? medium_sigma(media[id], d) : 0.0f;
}
}  // namespace

int32_t select_medium_slot(const OpticalTurbidMediumData* media, size_t n_media,
                           const int32_t* ids, int32_t n, const float3& d, float sigma_total,
                           float selection_sample) {
  float target = std::clamp(selection_sample, 0.0f, 0.99999994f) * sigma_total;
  for (int32_t k = 0; k < n; ++k) {
    target -= slot_sigma(media, n_media, ids[k], d);
    if (target <= 0.0f) return k;
  }
  return n - 1;
}

FreePath sample_combined_free_path(const OpticalTurbidMediumData* media, size_t n_media,
                                   const int32_t* ids, int32_t n, const float3& d,
                                   float distance_sample, float selection_sample) {
  FreePath r;
  if (n < 1 || n > MAX_ACTIVE_MEDIA) return r;
  for (int32_t k = 0; k < n; ++k) r.sigma_total += slot_sigma(media, n_media, ids[k], d);
  if (!(r.sigma_total > 0.0f)) return r;
  r.distance = -std::log(std::max(1.0f - distance_sample, 1e-7f)) / r.sigma_total;
  r.selected_slot = select_medium_slot(media, n_media, ids, n, d, r.sigma_total, selection_sample);
  r.medium_id = ids[r.selected_slot];
  return r;
}

float conditional_hotspot_transmittance(const OpticalTurbidMediumData& m, float tau, float a,
                                        float b, const float3& s, const float3& o) {
  const float L = m.leaf_characteristic_length;
  if (!(a > 0.0f) || !(b > 0.0f) || !(L > 0.0f)) return std::exp(std::min(-tau, 0.0f));
  const float sigma_s = medium_sigma(m, s), sigma_o = medium_sigma(m, o);
  const float3 diff = s - o;
  const float d = length(diff);
  if (d <= 1e-6f) return std::exp(-sigma_s * std::max(a - b, 0.0f));
  const float span = std::min(a, b), k = d / L;
  float correlated = (-std::expm1(-k * span) / k) * std::sqrt(std::max(sigma_s * sigma_o, 0.0f));
  correlated = std::min(correlated, std::min(sigma_s * a, b * sigma_o));
  return std::exp(std::min(correlated - tau, 0.0f));
}

float3 sample_leaf_normal(int32_t type, const float3& omega, RNG& rng, bool& back) {
  float3 n{0.0f, 0.0f, 1.0f};
  for (int round = 0; round < 64; ++round) {
    float t = 0.0f;
    if (type == LAD_SPHERICAL) {
      t = std::acos(rng.next_float());
    } else if (type == LAD_UNIFORM) {
      t = rng.next_float() * 1.5707964f;
    } else {
      // Rejection from (1 + s cos(k t)) / 2, the shape of the density.
      const float k = (type == LAD_PLANOPHILE || type == LAD_ERECTOPHILE) ? 2.0f : 4.0f;
      const float sign = (type == LAD_PLANOPHILE || type == LAD_EXTREMOPHILE) ? 1.0f : -1.0f;
      for (int p = 0; p < 64; ++p) {
        const float c = rng.next_float() * 1.5707964f;
        if (rng.next_float() <= (1.0f + sign * std::cos(k * c)) * 0.5f) {
          t = c;
          break;
        }
      }
    }
    const float phi = rng.next_float() * 6.2831855f;
    const float st = std::sin(t);
    const float3 candidate{st * std::cos(phi), st * std::sin(phi), std::cos(t)};
    if (rng.next_float() <= std::fabs(dot(omega, candidate))) {
      n = candidate;
      break;
    }
  }
  back = dot(n, -omega) < 0.0f;
  return back ? -n : n;
}

}  // namespace vesk
