// The Turbid workflow on the CPU: reverse-ray estimators of shortwave and longwave at
// leaf-area samples, and the token bookkeeping of states and fields.
//
// Shortwave estimator (one state per domain, sun and sky of the scene). A sample is a
// small leaf of normal n (its "top" side faces n) at a point inside its crown.
//   Direct beam: the sunlit probability P is the transmittance from the sample to the
//   sun through every medium and past every surface, exp(-sum sigma l) (Beer-Lambert
//   with sigma = LAD G of Part "optical media"), computed, not sampled. A sunlit leaf
//   absorbs E_sun |n.s| alpha_side on the side facing the sun (alpha = 1 - R - T of the
//   leaf material on that side); the state's expected direct absorption is P times that.
//   No hot spot applies here: the state has no observer, and the transmittance towards
//   the sun is unconditional.
//   Diffuse light (sky and all scattered sun): for each side, rays_per_side directions
//   w drawn cosine-weighted about the side's normal; along each, the radiance arriving
//   at the sample is estimated by a reverse path that collides with leaves by the
//   combined free path of the media it is in, scatters on them and on surfaces with the
//   materials' BSDFs, adds the sun by next-event estimation (transmittance through the
//   media; at the path's first event with the conditional hot-spot transmittance, the
//   reverse ray from the sample being the "observation" leg) and the sky at escape.
//   Irradiance on a side is pi times the mean radiance; absorbed = alpha_side times it.
//   Russian roulette from the third event on keeps it unbiased.
//   PAR and the branch light follow the photosynthesis process: apar = sum_b absorbed_b
//   c(lambda_b), c in umol J-1 inside 400..700 nm; apar_shaded = max(apar - P Adir, 0),
//   apar_sunlit = Adir + apar_shaded, Adir the direct PAR of a sunlit leaf.
//
// Longwave estimator. Leaves, mesh faces and the sky exchange thermal radiation; every
// sample is a leaf of its weight's area emitting eps sigma T^4 / pi from each side.
//   Rays leave each sample side (and each primitive face, from points uniform on it)
//   cosine-weighted; the radiance arriving along them is the emission met first: at a
//   leaf collision in a medium, the mean exitance of the samples of the instance that
//   bounds it in the cell of an emission_cells^3 grid over their box where the collision
//   falls (leaf-area weighted; the instance's mean in an empty cell, the domain's where
//   the instance holds no samples) over pi; at a surface, eps_p sigma T_p^4 / pi; at escape, the
//   sky's. A collision or surface then reflects Lambertianly (leaf: back towards the ray's side)
//   with probability 1 - eps, so every event adds the emission and the path ends with
//   probability eps: unbiased for any number of reflections, and in an isothermal closed
//   box every element absorbs exactly eps sigma T^4 per face in expectation.
//   Absorbed per side = eps pi mean(L).
//
// Random streams: sample i (primitive j) draws from PCG32 stream i + 1 (j + 1 + number of
// samples) seeded with the request's seed, so results do not depend on the thread count.
#include "embree/turbid_workflow.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <unordered_map>

#include "core/array_check.h"
#include "core/illumination.h"
#include "core/material.h"
#include "core/memory_limit.h"
#include "core/offset_origin.h"
#include "core/rng.h"
#include "core/tile.h"
#include "core/workers.h"
#include "embree/media_walk.h"
#include "embree/scene_manager.h"
#include "physiology/sif_assembly.h"
#include "scene/optical_scene.h"
#include "turbid/domain.h"

namespace vesk::embree {

namespace tb = vesk::turbid;

namespace {

constexpr float STEFAN_BOLTZMANN = 5.670374e-8f;  // W m-2 K-4
constexpr int32_t RR_DEPTH = 3;
constexpr int32_t MAX_RAYS_PER_SIDE = 65536;
constexpr int32_t MAX_WALK_DEPTH = 4096;

// Grid and orientation bins of a field or a SIF source: positive, and tables that fit
// the machine (`values` floats per cell and bin, per owner).
void check_grid(const char* what, const int32_t dims[3], int32_t theta_bins, int32_t phi_bins,
                size_t owners, size_t values) {
  if (dims[0] < 1 || dims[1] < 1 || dims[2] < 1)
    throw std::invalid_argument(std::string(what) + " grid_dims must be positive");
  if (theta_bins < 1 || phi_bins < 1)
    throw std::invalid_argument("Turbid orientation dimensions must be positive");
  const double cells = double(dims[0]) * dims[1] * dims[2];
  if (cells > double(1 << 24))
    throw std::invalid_argument(std::string(what) + " grid_dims exceed 2^24 cells");
  const double bins = double(theta_bins) * double(phi_bins);
  if (bins > double(1 << 16)) throw std::invalid_argument("Turbid orientation exceeds 2^16 bins");
  check_request_memory(std::string(what) + " tables", 12.0 * double(owners) * cells * (bins + 1.0) *
                                                          double(std::max<size_t>(values, 1)));
}

// A cosine-weighted direction about n.
float3 cosine_direction(const float3& n, float u1, float u2) {
  float3 t, b;
  coordinate_system(n, t, b);
  const float r = std::sqrt(u1), phi = TWO_PI * u2;
  const float x = r * std::cos(phi), y = r * std::sin(phi);
  const float z = std::sqrt(std::max(1.0f - x * x - y * y, 0.0f));
  return normalize(x * t + y * b + z * n);
}

float3 load3(const backend::FloatSpan& a, size_t i) {
  return {a[3 * i], a[3 * i + 1], a[3 * i + 2]};
}

// What a reverse path meets, told to its policy: a leaf collision or a surface (return
// false to end the path, else the next direction), and the escape.
struct WalkEvent {
  float3 point, normal;            // the struck face's normal, facing the arriving ray
  bool back = false;               // the leaf's back (or a surface's back face) was struck
  int32_t medium = -1;             // a leaf collision: its medium
  uint32_t instance = 0;           // the bounding instance of the collision's medium
  const EmbreeHit* hit = nullptr;  // a surface
  int32_t order = 0;               // events so far, this one included
  const ActiveMediumList* list = nullptr;
  const FirstOrderPath* partner = nullptr;  // the first leg, at the first event only
};

// A reverse path from o along d (Part "optical media"'s walk, as the backward tracer
// follows it): free paths in the media it is in against the surface and the tile wall
// ahead, boundary crossings without scattering, tile walls with a rescan.
template <class Policy>
void reverse_walk(const MediaScene& ms, float3 o, float3 d, ActiveMediumList list, RayStart start,
                  int32_t max_depth, RNG& rng, Policy& policy) {
  ActiveMediumList first_order = list;
  const FirstOrderPath partner{&first_order, -d};
  bool scattered = false;
  int32_t depth = 0, order = 0, crossings = 0, boundary_crossings = 0;
  const Repetition& rep = ms.rep;
  auto run_unscattered = [&](float length) {
    if (scattered) return;
    for (int32_t k = 0; k < list.count; ++k) {
      const int32_t j = first_order.find(list.medium_id[k], list.instance_key[k]);
      if (j >= 0) first_order.primary_distance[j] += length;
    }
  };
  while (depth < max_depth) {
    const Segment seg = next_segment(ms, o, d, crossings, list.count > 0, start);
    start = RayStart::Surface;
    FreePath fp;
    if (list.count > 0)
      fp = sample_combined_free_path(ms.media, ms.n_media, list.medium_id, list.count, d,
                                     rng.next_float(), 0.0f);
    if (fp.sigma_total > 0.0f && fp.distance < seg.bound) {
      run_unscattered(fp.distance);
      scattered = true;
      const int32_t slot = select_medium_slot(ms.media, ms.n_media, list.medium_id, list.count, d,
                                              fp.sigma_total, rng.next_float());
      const int32_t medium = list.medium_id[slot];
      if (medium < 0 || size_t(medium) >= ms.n_media) return;
      WalkEvent e;
      e.point = o + fp.distance * d;
      e.normal = sample_leaf_normal(ms.media[medium].leaf_angle_type, d, rng, e.back);
      e.medium = medium;
      e.instance = ms.instance_of(list.instance_key[slot]);
      e.order = ++order;
      e.list = &list;
      e.partner = order == 1 ? &partner : nullptr;
      float3 next;
      if (!policy.event(e, d, depth, rng, next)) return;
      o = e.point, d = next;
      start = RayStart::Point;
      ++depth;
      continue;
    }
    run_unscattered(seg.bound);
    if (seg.at_border) {
      cross_tile(rep.scene_x_size, rep.scene_y_size, seg.axis, seg.border, d, o);
      ++crossings;
      start = RayStart::Wall;
      if (!rescan_after_border(ms, o + MEDIUM_STEP * d, d, list, first_order)) return;
      continue;
    }
    if (!seg.hit.hit) break;
    const int32_t medium = ms.medium_of(seg.hit);
    if (medium >= 0) {
      if (++boundary_crossings > MAX_MEDIUM_CROSSINGS ||
          !cross_boundary(ms, seg.hit, medium, d, o, list, scattered ? nullptr : &first_order))
        return;
      start = RayStart::Boundary;
      continue;
    }
    scattered = true;
    WalkEvent e;
    e.point = seg.hit.position;
    e.normal = seg.hit.shading_normal;
    e.back = seg.hit.back_face;
    e.hit = &seg.hit;
    e.order = ++order;
    e.list = &list;
    e.partner = order == 1 ? &partner : nullptr;
    float3 next;
    if (!policy.event(e, d, depth, rng, next)) return;
    d = next;
    o = offset_origin(seg.hit.position, seg.hit.geometric_normal, d);
    ++depth;
    media_after_surface(ms, seg.hit.position, o, d, list);
    start = RayStart::Point;
  }
  if (depth >= max_depth) return;
  policy.escape(d);
}

// ---- shortwave -------------------------------------------------------------------------

struct ShortwaveContext {
  const MediaScene* ms;
  const float* spectral;
  const MaterialData* materials;
  size_t n_materials;
  Emitter sun;
  bool has_sun;
  SkySelection sky;
  int32_t bands;
};

// Radiance arriving along one reverse path, per band, into `radiance`.
struct ShortwavePolicy {
  const ShortwaveContext& c;
  std::vector<double>& throughput;
  std::vector<double>& radiance;

  bool event(const WalkEvent& e, const float3& d, int32_t depth, RNG& rng, float3& next) {
    int32_t material = -1;
    if (e.medium >= 0)
      material = c.ms->media[e.medium].material_id;
    else
      material = e.hit->material_id;
    if (material < 0 || size_t(material) >= c.n_materials) return false;
    const MaterialData& m = c.materials[material];
    float3 frame[3];
    frame[2] = e.normal;
    coordinate_system(frame[2], frame[0], frame[1]);
    auto local = [&](const float3& v) {
      return float3{dot(v, frame[0]), dot(v, frame[1]), dot(v, frame[2])};
    };
    const float3 wo = local(-d);
    if (c.has_sun) {
      const float3 s = local(c.sun.direction);
      if ((s.z > 0.0f || m.type == MaterialType::DiffuseTransmitting) && std::fabs(s.z) > 0.0f) {
        const RayStart from = e.medium >= 0 ? RayStart::Point : RayStart::Surface;
        const float3 o = e.medium >= 0
                             ? e.point
                             : offset_origin(e.point, e.hit->geometric_normal, c.sun.direction);
        const double v = shadow_transmittance(*c.ms, o, c.sun.direction, *e.list, e.partner, from);
        if (v > 0.0)
          for (int32_t b = 0; b < c.bands; ++b) {
            const float f = evaluate_material(m.type, m.spectral_offset, b, wo, s, c.spectral,
                                              c.bands, e.back, false);
            radiance[size_t(b)] += double(f) * throughput[size_t(b)] *
                                   c.spectral[c.sun.spectral_offset + b] * std::fabs(s.z) * v;
          }
      }
    }
    const float ua = rng.next_float(), ub = rng.next_float(), uc = rng.next_float();
    float3 wi;
    float pdf;
    sample_material(m, {uc, ub, ua}, wi, pdf);
    if (pdf < 1e-8f || std::fabs(wi.z) <= 0.0f) return false;
    bool alive = false;
    double largest = 0.0;
    for (int32_t b = 0; b < c.bands; ++b) {
      const float f = evaluate_material(m.type, m.spectral_offset, b, wo, wi, c.spectral, c.bands,
                                        e.back, false);
      double& t = throughput[size_t(b)];
      t *= double(f) * double(std::fabs(wi.z)) / double(pdf);
      alive |= t > 1e-8;
      largest = std::max(largest, t);
    }
    if (!alive) return false;
    if (depth >= RR_DEPTH) {
      const double q = std::min(0.95, largest);
      if (q <= double(rng.next_float())) return false;
      for (double& t : throughput) t /= q;
    }
    next = normalize(wi.x * frame[0] + wi.y * frame[1] + wi.z * frame[2]);
    return true;
  }
  void escape(const float3& d) {
    for (int32_t b = 0; b < c.bands; ++b)
      radiance[size_t(b)] += throughput[size_t(b)] * sky_radiance(c.sky, c.spectral, d, b);
  }
};

// Absorptance of a leaf side per band: 1 - R - T of a leaf, 1 - rho of an opaque one.
float absorptance(const MaterialData& m, const float* spectral, int32_t bands, int32_t b,
                  bool back) {
  const int32_t o = m.spectral_offset;
  if (m.type == MaterialType::DiffuseTransmitting)
    return std::clamp(1.0f - spectral[o + (back ? bands : 0) + b] - spectral[o + 2 * bands + b],
                      0.0f, 1.0f);
  return std::clamp(1.0f - spectral[o + b], 0.0f, 1.0f);
}

// ---- longwave --------------------------------------------------------------------------

// The leaves of one bounding instance as emitters: leaf-area means of the samples'
// exitance (eps sigma T^4) and emissivity over a cells^3 grid of their box, each empty cell
// holding the instance's mean. A collision reads the cell it falls in (clamped into the
// box), so sunlit and shaded parts of a crown emit as their samples do.
struct LeafEmitters {
  float lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
  int32_t cells = 1;
  std::vector<float> exitance, emissivity;
  size_t cell_of(const float3& p) const {
    const float q[3] = {p.x, p.y, p.z};
    size_t index = 0;
    for (int a = 2; a >= 0; --a) {
      const float e = hi[a] - lo[a];
      int32_t i = e > 0.0f ? int32_t(std::floor((q[a] - lo[a]) / e * float(cells))) : 0;
      index = index * size_t(cells) + size_t(std::clamp(i, 0, cells - 1));
    }
    return index;
  }
};

struct LongwaveContext {
  const EmbreeSceneManager* scene;
  const MediaScene* ms;
  std::unordered_map<uint32_t, LeafEmitters> instance_leaves;
  float mean_exitance = 0.0f, mean_emissivity = 1.0f;
  std::vector<float> prim_exitance, prim_emissivity;  // per primitive
  float sky = 0.0f;
};

struct LongwavePolicy {
  const LongwaveContext& c;
  double radiance = 0.0;

  bool event(const WalkEvent& e, const float3&, int32_t, RNG& rng, float3& next) {
    float exitance, eps;
    if (e.medium >= 0) {
      const auto it = c.instance_leaves.find(e.instance);
      if (it != c.instance_leaves.end()) {
        const size_t k = it->second.cell_of(e.point);
        exitance = it->second.exitance[k], eps = it->second.emissivity[k];
      } else {
        exitance = c.mean_exitance, eps = c.mean_emissivity;
      }
    } else {
      const int32_t p = e.hit->primitive_id;
      if (p < 0 || size_t(p) >= c.prim_exitance.size()) return false;
      exitance = c.prim_exitance[size_t(p)], eps = c.prim_emissivity[size_t(p)];
    }
    radiance += double(exitance) * INV_PI;
    // Reflected with probability 1 - eps, back into the side the ray came from.
    if (rng.next_float() >= 1.0f - eps) return false;
    const float u1 = rng.next_float(), u2 = rng.next_float();
    next = cosine_direction(e.normal, u1, u2);
    return true;
  }
  void escape(const float3&) { radiance += double(c.sky); }
};

}  // namespace

// ---- radiation -------------------------------------------------------------------------

void validate_turbid_radiation_request(const TurbidSampleView& s,
                                       const TurbidRadiationRequestView& v) {
  if (s.n_samples < 1) throw std::invalid_argument("Turbid state needs at least one sample");
  const size_t n = size_t(s.n_samples);
  check_length("positions", s.positions.size, 3 * n);
  check_length("normals", s.normals.size, 3 * n);
  check_length("leaf_area", s.leaf_area.size, n);
  check_length("owner_instance", s.owner_instance.size, n);
  check_finite("positions", s.positions.data, s.positions.size);
  check_finite("normals", s.normals.data, s.normals.size);
  check_finite("leaf_area", s.leaf_area.data, s.leaf_area.size);
  if (v.rays_per_side < 1 || v.rays_per_side > MAX_RAYS_PER_SIDE)
    throw std::invalid_argument("Turbid rays_per_side must lie in [1, 65536]");
  if (v.max_depth < 1 || v.max_depth > MAX_WALK_DEPTH)
    throw std::invalid_argument("Turbid max_depth must lie in [1, 4096]");
  if (v.band_widths.size) {
    check_finite("band_widths", v.band_widths.data, v.band_widths.size);
    for (size_t b = 0; b < v.band_widths.size; ++b)
      if (!(v.band_widths[b] > 0.0f))
        throw std::invalid_argument("band_widths must be positive (nm)");
  }
}

tb::TurbidStateRecord compute_turbid_radiation(const EmbreeSceneManager& scene,
                                               const TurbidSampleView& s,
                                               const TurbidRadiationRequestView& v) {
  validate_turbid_radiation_request(s, v);
  if (!scene.is_built())
    throw std::runtime_error("Turbid state needs a built scene: call build() first");
  const int32_t bands = scene.num_bands();
  validate_optical_scene(scene, bands);
  const std::vector<float>& wl = scene.band_wavelengths();
  if (wl.size() != size_t(bands))
    throw std::invalid_argument("Turbid state needs one band wavelength (nm) per scene band");
  if (v.band_widths.size) check_length("band_widths", v.band_widths.size, size_t(bands));
  const EmbreeSceneManager::RunGuard read_only(scene);
  const MediaScene ms = MediaScene::from(scene);
  ShortwaveContext c{&ms,
                     scene.spectral_params().data(),
                     scene.materials().data(),
                     scene.materials().size(),
                     scene.emitter(),
                     scene_has_sun(scene),
                     scene.sky(),
                     bands};
  const size_t n = size_t(s.n_samples), nb = size_t(bands);

  tb::TurbidStateRecord r;
  r.n_samples = s.n_samples, r.n_bands = bands;
  r.band_wavelengths = wl;
  r.absorbed_top.assign(n * nb, 0.0f), r.absorbed_bottom.assign(n * nb, 0.0f);
  r.absorbed_direct_sunlit.assign(n * nb, 0.0f);
  for (auto* a : {&r.sunlit_probability, &r.direct_share, &r.apar, &r.apar_sunlit, &r.apar_shaded,
                  &r.shortwave_sunlit, &r.shortwave_shaded})
    a->assign(n, 0.0f);
  // Per band: the width that turns a spectral value into energy, and that energy's PAR.
  std::vector<double> width(nb, 1.0), par(nb);
  for (size_t b = 0; b < nb; ++b) {
    if (v.band_widths.size) width[b] = v.band_widths[b];
    par[b] = double(tb::par_photons_per_joule(wl[b])) * width[b];
  }
  r.band_widths.assign(width.begin(), width.end());

  const int threads = resolve_thread_count(v.threads);
  const std::vector<double> zeros(nb, 0.0), zeros2(2 * nb, 0.0);
  std::vector<std::vector<double>> tp(size_t(threads), zeros), rad(size_t(threads), zeros),
      side(size_t(threads), zeros2);
  const int64_t chunk = 16, round = ((int64_t(n) + chunk - 1) / chunk) * chunk;
  run_counted(
      threads, 0, int64_t(n), round, chunk,
      [&](int w, int64_t begin, int64_t end) {
        std::vector<double>& throughput = tp[size_t(w)];
        std::vector<double>& radiance = rad[size_t(w)];
        std::vector<double>& irradiance = side[size_t(w)];  // diffuse, top then bottom
        for (int64_t ii = begin; ii < end; ++ii) {
          const size_t i = size_t(ii);
          const float3 p = load3(s.positions, i), nrm = normalize(load3(s.normals, i));
          RNG rng;
          rng.seed(v.seed, uint64_t(i) + 1);
          // The medium at the sample gives the leaves' material.
          ActiveMediumList here;
          media_at_point(ms, p, {0.0f, 0.0f, 1.0f}, here);
          int32_t material = -1;
          for (int32_t k = 0; k < here.count && material < 0; ++k) {
            const int32_t m = here.medium_id[k];
            if (m >= 0 && size_t(m) < ms.n_media &&
                (s.owner_instance[i] < 0 ||
                 ms.instance_of(here.instance_key[k]) == uint32_t(s.owner_instance[i])))
              material = ms.media[m].material_id;
          }
          if (material < 0 || size_t(material) >= c.n_materials)
            continue;  // no leaves here: nothing absorbed
          const MaterialData& m = c.materials[material];

          // Direct beam, by the transmittance towards the sun.
          float P = 0.0f;
          if (c.has_sun) {
            ActiveMediumList to_sun;
            media_at_point(ms, p, c.sun.direction, to_sun);
            P = float(std::clamp(
                shadow_transmittance(ms, p, c.sun.direction, to_sun, nullptr, RayStart::Point), 0.0,
                1.0));
          }
          r.sunlit_probability[i] = P;
          const float mu = c.has_sun ? dot(nrm, c.sun.direction) : 0.0f;
          // Diffuse, per side.
          std::fill(irradiance.begin(), irradiance.end(), 0.0);
          for (int sd = 0; sd < 2; ++sd) {
            const float3 axis = sd == 0 ? nrm : -nrm;
            for (int32_t k = 0; k < v.rays_per_side; ++k) {
              const float u1 = rng.next_float(), u2 = rng.next_float();
              const float3 d = cosine_direction(axis, u1, u2);
              ActiveMediumList list;
              media_at_point(ms, p, d, list);
              std::fill(throughput.begin(), throughput.end(), 1.0);
              std::fill(radiance.begin(), radiance.end(), 0.0);
              ShortwavePolicy policy{c, throughput, radiance};
              reverse_walk(ms, p, d, list, RayStart::Point, v.max_depth, rng, policy);
              for (size_t b = 0; b < nb; ++b) irradiance[size_t(sd) * nb + b] += radiance[b];
            }
          }
          double apar = 0.0, adir = 0.0, sw = 0.0, swdir = 0.0;
          for (size_t b = 0; b < nb; ++b) {
            const double scale = double(PI) / v.rays_per_side;
            const double top =
                irradiance[b] * scale * absorptance(m, c.spectral, bands, int32_t(b), false);
            const double bottom =
                irradiance[nb + b] * scale * absorptance(m, c.spectral, bands, int32_t(b), true);
            double direct = 0.0;
            if (c.has_sun)
              direct = double(c.spectral[c.sun.spectral_offset + int32_t(b)]) * std::fabs(mu) *
                       absorptance(m, c.spectral, bands, int32_t(b), mu < 0.0f);
            r.absorbed_direct_sunlit[i * nb + b] = float(direct);
            const double t = top + (mu >= 0.0f ? P * direct : 0.0);
            const double bo = bottom + (mu < 0.0f ? P * direct : 0.0);
            r.absorbed_top[i * nb + b] = float(t), r.absorbed_bottom[i * nb + b] = float(bo);
            apar += (t + bo) * par[b], adir += direct * par[b];
            sw += (t + bo) * width[b], swdir += direct * width[b];
          }
          r.direct_share[i] = sw > 0.0 ? float(std::clamp(P * swdir / sw, 0.0, 1.0)) : 0.0f;
          r.apar[i] = float(apar);
          r.apar_shaded[i] = float(std::max(apar - P * adir, 0.0));
          r.apar_sunlit[i] = float(adir + r.apar_shaded[i]);
          r.shortwave_shaded[i] = float(std::max(sw - P * swdir, 0.0));
          r.shortwave_sunlit[i] = float(swdir + r.shortwave_shaded[i]);
        }
      },
      {});
  return r;
}

// ---- leaf longwave ---------------------------------------------------------------------

void validate_turbid_leaf_rrt_request(const EmbreeSceneManager& scene, const TurbidSampleView& s,
                                      const TurbidLeafRrtRequestView& v) {
  TurbidRadiationRequestView r;
  r.rays_per_side = v.rays_per_side, r.max_depth = v.max_depth;
  validate_turbid_radiation_request(s, r);
  const size_t n = size_t(s.n_samples), np = scene.n_primitives();
  check_length("temperature", v.temperature.data ? v.temperature.size : 0, n);
  check_length("emissivity", v.emissivity.data ? v.emissivity.size : 0, n);
  if (v.primitive_temperature.size)
    check_length("primitive_temperature", v.primitive_temperature.size, np);
  if (v.primitive_emissivity.size)
    check_length("primitive_emissivity", v.primitive_emissivity.size, np);
  check_finite("temperature", v.temperature.data, n);
  check_finite("emissivity", v.emissivity.data, n);
  check_finite("primitive_temperature", v.primitive_temperature.data, v.primitive_temperature.size);
  check_finite("primitive_emissivity", v.primitive_emissivity.data, v.primitive_emissivity.size);
  check_finite("sky_lw_radiance", v.sky_lw_radiance);
  for (size_t i = 0; i < n; ++i)
    if (!(v.temperature[i] > 0.0f) || !(v.emissivity[i] > 0.0f && v.emissivity[i] <= 1.0f))
      throw std::invalid_argument(
          "Turbid leaf temperature must be positive and emissivity in (0, 1]");
  for (size_t j = 0; j < v.primitive_temperature.size; ++j)
    if (v.primitive_temperature[j] < 0.0f)
      throw std::invalid_argument("primitive_temperature cannot be negative");
  for (size_t j = 0; j < v.primitive_emissivity.size; ++j)
    if (!(v.primitive_emissivity[j] >= 0.0f && v.primitive_emissivity[j] <= 1.0f))
      throw std::invalid_argument("primitive_emissivity must lie in [0, 1]");
  if (v.sky_lw_radiance < 0.0f) throw std::invalid_argument("sky_lw_radiance cannot be negative");
  if (v.emission_cells < 1 || v.emission_cells > 64)
    throw std::invalid_argument("Turbid emission_cells must lie in [1, 64]");
}

TurbidLeafRrtResult run_turbid_leaf_rrt(const EmbreeSceneManager& scene, const TurbidSampleView& s,
                                        const TurbidLeafRrtRequestView& v) {
  validate_turbid_leaf_rrt_request(scene, s, v);
  if (!scene.is_built())
    throw std::runtime_error("Turbid leaf longwave needs a built scene: call build() first");
  const EmbreeSceneManager::RunGuard read_only(scene);
  const MediaScene ms = MediaScene::from(scene);
  const size_t n = size_t(s.n_samples);
  LongwaveContext c;
  c.scene = &scene, c.ms = &ms, c.sky = v.sky_lw_radiance;
  // Leaf exitance per bounding instance, on its grid, and over the domain: leaf-area means.
  TurbidLeafRrtResult out;
  out.emitted.resize(n);
  double all[3] = {0, 0, 0};  // area, area eps sigma T^4, area eps
  const int32_t cells = v.emission_cells;
  const size_t n_cells = size_t(cells) * size_t(cells) * size_t(cells);
  std::unordered_map<uint32_t, std::vector<double>> sums;  // per cell: area, area M, area eps
  for (size_t i = 0; i < n; ++i) {
    const double T = v.temperature[i], e = v.emissivity[i];
    out.emitted[i] = float(e * STEFAN_BOLTZMANN * T * T * T * T);
    all[0] += s.leaf_area[i], all[1] += s.leaf_area[i] * out.emitted[i];
    all[2] += s.leaf_area[i] * e;
    if (s.owner_instance[i] < 0) continue;
    LeafEmitters& g = c.instance_leaves[uint32_t(s.owner_instance[i])];
    if (g.exitance.empty()) {  // first sample: open the box
      g.cells = cells;
      g.exitance.assign(n_cells, 0.0f), g.emissivity.assign(n_cells, 0.0f);
      for (int a = 0; a < 3; ++a) g.lo[a] = 1e30f, g.hi[a] = -1e30f;
    }
    for (int a = 0; a < 3; ++a) {
      g.lo[a] = std::min(g.lo[a], s.positions[3 * i + size_t(a)]);
      g.hi[a] = std::max(g.hi[a], s.positions[3 * i + size_t(a)]);
    }
  }
  if (all[0] > 0.0)
    c.mean_exitance = float(all[1] / all[0]), c.mean_emissivity = float(all[2] / all[0]);
  for (size_t i = 0; i < n; ++i) {
    if (s.owner_instance[i] < 0) continue;
    const LeafEmitters& g = c.instance_leaves[uint32_t(s.owner_instance[i])];
    std::vector<double>& x = sums[uint32_t(s.owner_instance[i])];
    if (x.empty()) x.assign(3 * (n_cells + 1), 0.0);  // the cells, then the whole instance
    const size_t k = g.cell_of(load3(s.positions, i));
    const double A = s.leaf_area[i], M = out.emitted[i], e = v.emissivity[i];
    for (size_t slot : {k, n_cells}) {
      x[3 * slot] += A, x[3 * slot + 1] += A * M, x[3 * slot + 2] += A * e;
    }
  }
  for (auto& [key, g] : c.instance_leaves) {
    const std::vector<double>& x = sums[key];
    const double* whole = &x[3 * n_cells];
    for (size_t k = 0; k <= n_cells; ++k) {
      const double* cell = x[3 * k] > 0.0 ? &x[3 * k] : whole;
      if (k < n_cells)
        g.exitance[k] = float(cell[1] / cell[0]), g.emissivity[k] = float(cell[2] / cell[0]);
    }
  }
  // Primitives: request, scene override, material.
  const backend::PrimitiveGeometry geo = scene.primitive_geometry();
  const size_t np = geo.areas.size();
  const std::vector<float>& st = scene.primitive_temperatures();
  const std::vector<float>& se = scene.primitive_emissivities();
  c.prim_exitance.resize(np), c.prim_emissivity.resize(np);
  std::vector<uint8_t> is_matter(np, 1);
  for (size_t j = 0; j < np; ++j) {
    const int32_t mat = geo.material_ids[j];
    float T = v.primitive_temperature.size ? v.primitive_temperature[j]
              : st.size() == np            ? st[j]
              : (mat >= 0 && size_t(mat) < scene.materials().size())
                  ? scene.materials()[size_t(mat)].params[2]
                  : 0.0f;
    const float e = v.primitive_emissivity.size ? v.primitive_emissivity[j]
                    : se.size() == np           ? se[j]
                                                : 1.0f;
    T = std::max(T, 0.0f);
    c.prim_emissivity[j] = e;
    c.prim_exitance[j] = e * STEFAN_BOLTZMANN * T * T * T * T;
    is_matter[j] = scene.medium_of_material(mat) < 0;
  }
  out.absorbed_top.assign(n, 0.0f), out.absorbed_bottom.assign(n, 0.0f);
  out.absorbed_front.assign(np, 0.0f), out.absorbed_back.assign(np, 0.0f);

  const int threads = resolve_thread_count(v.threads);
  const int64_t total = int64_t(n + np), chunk = 16, round = ((total + chunk - 1) / chunk) * chunk;
  run_counted(threads, 0, total, round, chunk,
              [&](int, int64_t begin, int64_t end) {
                for (int64_t ii = begin; ii < end; ++ii) {
                  RNG rng;
                  rng.seed(v.seed, uint64_t(ii) + 1);
                  double mean[2] = {0.0, 0.0};
                  if (size_t(ii) < n) {
                    const size_t i = size_t(ii);
                    const float3 p = load3(s.positions, i), nrm = normalize(load3(s.normals, i));
                    for (int sd = 0; sd < 2; ++sd)
                      for (int32_t k = 0; k < v.rays_per_side; ++k) {
                        const float u1 = rng.next_float(), u2 = rng.next_float();
                        const float3 d = cosine_direction(sd == 0 ? nrm : -nrm, u1, u2);
                        ActiveMediumList list;
                        media_at_point(ms, p, d, list);
                        LongwavePolicy policy{c};
                        reverse_walk(ms, p, d, list, RayStart::Point, v.max_depth, rng, policy);
                        mean[sd] += policy.radiance;
                      }
                    const double scale = double(PI) * v.emissivity[i] / v.rays_per_side;
                    out.absorbed_top[i] = float(mean[0] * scale),
                    out.absorbed_bottom[i] = float(mean[1] * scale);
                    continue;
                  }
                  const size_t j = size_t(ii) - n;
                  if (!is_matter[j] || !(geo.areas[j] > 0.0f)) continue;
                  const float3 a = geo.vertices[3 * j], b = geo.vertices[3 * j + 1],
                               cc = geo.vertices[3 * j + 2];
                  const float3 nf = geo.normals[j];
                  for (int sd = 0; sd < (v.two_sided ? 2 : 1); ++sd) {
                    const float3 axis = sd == 0 ? nf : -nf;
                    for (int32_t k = 0; k < v.rays_per_side; ++k) {
                      // A point uniform on the triangle, then a cosine-weighted direction off it.
                      float s1 = rng.next_float(), s2 = rng.next_float();
                      if (s1 + s2 > 1.0f) s1 = 1.0f - s1, s2 = 1.0f - s2;
                      const float3 q = a + s1 * (b - a) + s2 * (cc - a);
                      const float u1 = rng.next_float(), u2 = rng.next_float();
                      const float3 d = cosine_direction(axis, u1, u2);
                      const float3 o = offset_origin(q, axis, d);
                      ActiveMediumList list;
                      media_at_point(ms, o, d, list);
                      LongwavePolicy policy{c};
                      reverse_walk(ms, o, d, list, RayStart::Point, v.max_depth, rng, policy);
                      mean[sd] += policy.radiance;
                    }
                  }
                  const double scale = double(PI) * c.prim_emissivity[j] / v.rays_per_side;
                  out.absorbed_front[j] = float(mean[0] * scale),
                  out.absorbed_back[j] = float(mean[1] * scale);
                }
              },
              {});
  out.execution.backend = BACKEND_EMBREE;
  out.execution.workflow = WORKFLOW_TURBID_LEAF_RRT;
  out.execution.executor = "embree.cpu.turbid_leaf_rrt";
  return out;
}

// ---- tokens ----------------------------------------------------------------------------

namespace {

// FNV-1a over the bytes of what a result depends on.
struct Fingerprint {
  uint64_t h = 1469598103934665603ULL;
  void bytes(const void* p, size_t n) {
    const auto* c = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) h = (h ^ c[i]) * 1099511628211ULL;
  }
  template <class T>
  void value(const T& v) {
    bytes(&v, sizeof(T));
  }
  template <class T>
  void vec(const std::vector<T>& v) {
    value(v.size());
    if (!v.empty()) bytes(v.data(), v.size() * sizeof(T));
  }
};

// The scene's light and optics as fingerprints; a change raises the revision that
// tokens carry, so a token made before it is stale after it (a change back is a new
// revision all the same).
void refresh_revisions(EmbreeSceneManager& scene) {
  tb::TurbidHolding& h = scene.turbid();
  Fingerprint light, optics;
  const Emitter& e = scene.emitter();
  light.value(e.type), light.value(e.direction), light.value(e.spectral_offset);
  const SkySelection& sky = scene.sky();
  light.value(sky.uniform_offset), light.value(sky.directional_offset), light.value(sky.hw_offset);
  light.value(sky.hw_sun_direction);
  light.vec(scene.spectral_params());
  for (const MaterialData& m : scene.materials()) {
    optics.value(m.type), optics.value(m.spectral_offset);
    optics.bytes(m.params, sizeof(m.params));
  }
  for (const OpticalTurbidMediumData& m : scene.optical_media()) {
    optics.value(m.leaf_area_density), optics.value(m.leaf_characteristic_length);
    optics.value(m.leaf_angle_type), optics.value(m.orientation), optics.value(m.material_id);
  }
  optics.vec(scene.material_medium_ids());
  optics.vec(scene.spectral_params());
  optics.vec(scene.band_wavelengths());
  optics.value(scene.num_bands());
  const Repetition& rep = scene.repetition();
  optics.value(rep.num_repetitions), optics.value(rep.scene_x_size), optics.value(rep.scene_y_size);
  if (!h.fingerprints_seen) {
    h.fingerprints_seen = true;
  } else {
    if (light.h != h.illumination_fingerprint)
      h.illumination_revision =
          tb::next_revision(h.illumination_revision, "Turbid state revision overflow");
    if (optics.h != h.transport_fingerprint)
      h.transport_revision =
          tb::next_revision(h.transport_revision, "Turbid state revision overflow");
  }
  h.illumination_fingerprint = light.h, h.transport_fingerprint = optics.h;
}

// The token a new result of `domain_id` gets now, but for stage and state revision.
tb::TurbidStateToken current_token(EmbreeSceneManager& scene, uint64_t domain_id) {
  tb::TurbidHolding& h = scene.turbid();
  const auto it = h.storage.residents.find(domain_id);
  if (it == h.storage.residents.end()) throw std::runtime_error(tb::STALE_DOMAIN);
  const tb::TurbidDomainRevisions& r = it->second.revisions;
  tb::TurbidStateToken t;
  t.domain_id = domain_id;
  t.workflow_revision = r.workflow, t.domain_revision = r.domain;
  t.transport_revision = h.transport_revision;
  t.geometry_revision = std::max<uint64_t>(scene.geometry_build_revision(), 1);
  t.property_revision = r.property, t.illumination_revision = h.illumination_revision;
  t.microclimate_revision = r.microclimate, t.sampling_revision = r.sampling;
  return t;
}

bool same_revisions(const tb::TurbidStateToken& a, const tb::TurbidStateToken& b) {
  return a.domain_id == b.domain_id && a.workflow_revision == b.workflow_revision &&
         a.domain_revision == b.domain_revision && a.transport_revision == b.transport_revision &&
         a.geometry_revision == b.geometry_revision && a.property_revision == b.property_revision &&
         a.illumination_revision == b.illumination_revision &&
         a.microclimate_revision == b.microclimate_revision &&
         a.sampling_revision == b.sampling_revision;
}

}  // namespace

tb::TurbidStateToken publish_turbid_state(EmbreeSceneManager& scene, tb::TurbidStateRecord&& record,
                                          uint64_t lineage) {
  refresh_revisions(scene);
  if (!same_revisions(record.token, current_token(scene, record.token.domain_id)))
    throw std::runtime_error(tb::STALE_STATE);
  if (record.token.workflow_stage < tb::STAGE_RADIATION ||
      record.token.workflow_stage > tb::STAGE_LAST)
    throw std::invalid_argument(tb::STAGE_MISMATCH);
  tb::TurbidHolding& h = scene.turbid();
  const uint64_t revision = tb::next_revision(h.state_revision, "Turbid state revision overflow");
  record.token.state_revision = revision;
  record.token.token_id = lineage ? lineage : revision;
  auto shared = std::make_shared<const tb::TurbidStateRecord>(std::move(record));
  const tb::TurbidStateToken token = shared->token;
  backend::TurbidDomainStorage& st = h.storage;
  std::vector<tb::TurbidStateToken> states;
  std::vector<backend::TurbidFieldToken> fields;
  states.reserve(st.states.size() + 1);
  for (const tb::TurbidStateToken& s : st.states)
    if (st.residents.count(s.domain_id) && same_revisions(s, current_token(scene, s.domain_id)))
      states.push_back(s);
  for (const backend::TurbidFieldToken& f : st.fields)
    if (st.residents.count(f.state.domain_id) &&
        same_revisions(f.state, current_token(scene, f.state.domain_id)))
      fields.push_back(f);
  states.push_back(token);
  std::map<uint64_t, std::shared_ptr<const tb::TurbidStateRecord>> records;
  for (const tb::TurbidStateToken& s : states)
    if (auto it = st.state_records.find(s.state_revision); it != st.state_records.end())
      records.insert(*it);
  records[revision] = std::move(shared);
  std::map<uint64_t, std::shared_ptr<const tb::TurbidFieldRecord>> field_records;
  for (const backend::TurbidFieldToken& f : fields)
    if (auto it = st.field_records.find(f.field_revision); it != st.field_records.end())
      field_records.insert(*it);
  // Nothing below throws: the holding changes as a whole.
  st.states = std::move(states), st.fields = std::move(fields);
  st.state_records = std::move(records), st.field_records = std::move(field_records);
  h.state_revision = revision;
  return token;
}

TurbidSampleView DomainSamples::view() const {
  TurbidSampleView v;
  v.n_samples = int32_t(leaf_area.size());
  v.positions = {positions.data(), positions.size()};
  v.normals = {normals.data(), normals.size()};
  v.leaf_area = {leaf_area.data(), leaf_area.size()};
  v.owner_instance = {owner_instance.data(), owner_instance.size()};
  return v;
}

DomainSamples domain_samples(const EmbreeSceneManager& scene, uint64_t domain_id) {
  const auto& res = scene.turbid().storage.residents;
  const auto it = res.find(domain_id);
  if (it == res.end()) throw std::runtime_error(tb::STALE_DOMAIN);
  const backend::TurbidDomainStorage::Resident& d = it->second;
  if (d.samples.size() > size_t(INT32_MAX))
    throw std::invalid_argument("Turbid sample count exceeds native device indexing");
  DomainSamples out;
  out.n_owners = int32_t(d.owners.size());
  const size_t n = d.samples.size();
  out.positions.resize(3 * n), out.normals.resize(3 * n), out.leaf_area.resize(n);
  out.owner_instance.resize(n), out.owner_of_sample.resize(n);
  for (size_t k = 0; k < d.owners.size(); ++k) {
    const int64_t inst = k < d.request.owners.size() ? d.request.owners[k].instance_id : -1;
    for (uint64_t i = d.sample_offsets[k]; i < d.sample_offsets[k + 1]; ++i) {
      const tb::TurbidLeafAreaSample& s = d.samples[i];
      std::copy(s.position, s.position + 3, &out.positions[3 * i]);
      std::copy(s.normal, s.normal + 3, &out.normals[3 * i]);
      out.leaf_area[i] = s.leaf_area;
      out.owner_instance[i] = inst >= 0 && inst < scene.num_instances() ? int32_t(inst) : -1;
      out.owner_of_sample[i] = int32_t(k);
    }
  }
  return out;
}

const tb::TurbidStateRecord& check_turbid_state(EmbreeSceneManager& scene,
                                                const tb::TurbidStateToken& token,
                                                uint8_t min_stage, uint8_t max_stage) {
  tb::check_state_token(token);
  refresh_revisions(scene);
  const backend::TurbidDomainStorage& st = scene.turbid().storage;
  if (!st.residents.count(token.domain_id)) throw std::runtime_error(tb::STALE_STATE);
  const auto it = st.state_records.find(token.state_revision);
  if (!same_revisions(token, current_token(scene, token.domain_id)) ||
      it == st.state_records.end() || !(it->second->token == token))
    throw std::runtime_error(tb::STALE_STATE);
  if (token.workflow_stage < min_stage || token.workflow_stage > max_stage)
    throw std::invalid_argument(tb::STAGE_MISMATCH);
  return *it->second;
}

const tb::TurbidFieldRecord& check_turbid_field(EmbreeSceneManager& scene,
                                                const backend::TurbidFieldToken& token) {
  tb::check_state_token(token.state);
  if (token.field_revision == 0) throw std::invalid_argument("field revision must be non-zero");
  const backend::TurbidDomainStorage& st = scene.turbid().storage;
  const auto it = st.field_records.find(token.field_revision);
  if (it == st.field_records.end() || !(it->second->token == token))
    throw std::runtime_error(tb::STALE_FIELD);
  try {
    check_turbid_state(scene, token.state, tb::STAGE_RADIATION, tb::STAGE_LAST);
  } catch (const std::runtime_error&) {
    throw std::runtime_error(tb::STALE_FIELD);
  }
  return *it->second;
}

tb::TurbidStateToken build_turbid_state(EmbreeSceneManager& scene, uint64_t domain_id,
                                        const TurbidRadiationRequestView& view) {
  refresh_revisions(scene);
  tb::TurbidStateToken token = current_token(scene, domain_id);
  const DomainSamples samples = domain_samples(scene, domain_id);
  tb::TurbidStateRecord record = compute_turbid_radiation(scene, samples.view(), view);
  token.workflow_stage = tb::STAGE_RADIATION;
  record.token = token;
  return publish_turbid_state(scene, std::move(record), 0);
}

tb::TurbidStateToken build_turbid_physiology_state(EmbreeSceneManager& scene,
                                                   const tb::TurbidStateToken& radiation,
                                                   const tb::TurbidPhysiologyRequestView& view) {
  const tb::TurbidStateRecord& rad =
      check_turbid_state(scene, radiation, tb::STAGE_RADIATION, tb::STAGE_RADIATION);
  tb::TurbidStateRecord next = tb::solve_turbid_physiology(rad, view);
  return publish_turbid_state(scene, std::move(next), radiation.token_id);
}

backend::TurbidFieldToken build_turbid_field(EmbreeSceneManager& scene,
                                             const tb::TurbidStateToken& state,
                                             const int32_t dims[3], int32_t theta_bins,
                                             int32_t phi_bins) {
  const tb::TurbidStateRecord& s =
      check_turbid_state(scene, state, tb::STAGE_RADIATION, tb::STAGE_LAST);
  const DomainSamples d = domain_samples(scene, state.domain_id);
  check_grid("Turbid field", dims, theta_bins, phi_bins, size_t(d.n_owners),
             tb::field_quantities(s.token.workflow_stage).size());
  const size_t n = d.leaf_area.size();
  std::vector<float3> pos(n), nrm(n);
  std::vector<float> lo(3 * size_t(d.n_owners), 1e30f), hi(3 * size_t(d.n_owners), -1e30f);
  for (size_t i = 0; i < n; ++i) {
    pos[i] = {d.positions[3 * i], d.positions[3 * i + 1], d.positions[3 * i + 2]};
    nrm[i] = {d.normals[3 * i], d.normals[3 * i + 1], d.normals[3 * i + 2]};
    const size_t k = size_t(d.owner_of_sample[i]);
    for (int a = 0; a < 3; ++a) {
      lo[3 * k + a] = std::min(lo[3 * k + a], d.positions[3 * i + a]);
      hi[3 * k + a] = std::max(hi[3 * k + a], d.positions[3 * i + a]);
    }
  }
  // The owners' sample boxes, opened a little so that no sample sits on the far wall.
  for (size_t a = 0; a < lo.size(); ++a) {
    if (!(hi[a] >= lo[a])) lo[a] = 0.0f, hi[a] = 1.0f;
    const float pad = 1e-4f * std::max(hi[a] - lo[a], 1.0f);
    lo[a] -= pad, hi[a] += pad;
  }
  std::vector<int32_t> grid(3 * size_t(d.n_owners));
  for (size_t k = 0; k < size_t(d.n_owners); ++k) std::copy(dims, dims + 3, &grid[3 * k]);
  auto record = std::make_shared<tb::TurbidFieldRecord>(tb::aggregate_turbid_field(
      s, d.owner_of_sample, d.leaf_area, pos, nrm, d.n_owners, grid, lo, hi, theta_bins, phi_bins));
  tb::TurbidHolding& h = scene.turbid();
  const uint64_t revision = tb::next_revision(h.field_revision, "Turbid field revision overflow");
  record->token = {state, revision};
  const backend::TurbidFieldToken token = record->token;
  h.storage.fields.push_back(token);
  h.storage.field_records[revision] = std::move(record);
  h.field_revision = revision;
  return token;
}

scene::InstanceTurbidThermalState build_turbid_thermal_source(EmbreeSceneManager& scene,
                                                              const tb::TurbidStateToken& state,
                                                              bool apply) {
  const tb::TurbidStateRecord& s =
      check_turbid_state(scene, state, tb::STAGE_PHYSIOLOGY, tb::STAGE_LAST);
  const backend::TurbidDomainStorage::Resident& d =
      scene.turbid().storage.residents.at(state.domain_id);
  const size_t ni = size_t(scene.num_instances());
  scene::InstanceTurbidThermalState out;
  out.temperature_sunlit.assign(ni, 0.0f), out.temperature_shaded.assign(ni, 0.0f);
  out.sunlit_fraction.assign(ni, 0.0f), out.emissivity.assign(ni, 0.0f);
  std::vector<float> area(d.samples.size());
  for (size_t i = 0; i < area.size(); ++i) area[i] = d.samples[i].leaf_area;
  for (size_t k = 0; k < d.owners.size(); ++k) {
    const int64_t inst = k < d.request.owners.size() ? d.request.owners[k].instance_id : -1;
    if (inst < 0 || size_t(inst) >= ni)
      throw std::invalid_argument(
          "Turbid thermal source needs every owner placed as a scene instance (owner "
          "instance_id)." +
          std::string(tb::NO_FALLBACK));
    const tb::OwnerThermalState t = tb::owner_thermal_state(
        s, area.data(), d.sample_offsets[k], d.sample_offsets[k + 1] - d.sample_offsets[k]);
    out.temperature_sunlit[size_t(inst)] = t.temperature_sunlit;
    out.temperature_shaded[size_t(inst)] = t.temperature_shaded;
    out.sunlit_fraction[size_t(inst)] = t.sunlit_fraction;
    out.emissivity[size_t(inst)] = t.emissivity;
  }
  if (apply) scene.set_instance_turbid_thermal_state(out);
  return out;
}

TurbidSifSource build_turbid_sif_source(EmbreeSceneManager& scene,
                                        const tb::TurbidStateToken& state, const int32_t dims[3],
                                        int32_t theta_bins, int32_t phi_bins, bool apply) {
  const tb::TurbidStateRecord& s =
      check_turbid_state(scene, state, tb::STAGE_PHYSIOLOGY, tb::STAGE_LAST);
  const backend::TurbidDomainStorage::Resident& d =
      scene.turbid().storage.residents.at(state.domain_id);
  const DomainSamples ds = domain_samples(scene, state.domain_id);
  const int32_t ni = scene.num_instances();
  check_grid("Turbid SIF source", dims, theta_bins, phi_bins, size_t(ni), size_t(s.n_bands));
  const size_t n = ds.leaf_area.size();
  for (size_t k = 0; k < d.owners.size(); ++k) {
    const int64_t inst = k < d.request.owners.size() ? d.request.owners[k].instance_id : -1;
    if (inst < 0 || inst >= ni)
      throw std::invalid_argument(
          "Turbid SIF source needs every owner placed as a scene instance (owner "
          "instance_id)." +
          std::string(tb::NO_FALLBACK));
  }
  TurbidSifSource out;
  out.samples = tb::sample_sif_spectra(s, s.band_wavelengths);
  // The grid of each owner's instance is its world box; other instances get a unit box
  // and no samples (zero tables).
  std::vector<int32_t> grid(3 * size_t(ni), 1);
  std::vector<float> lo(3 * size_t(ni), 0.0f), hi(3 * size_t(ni), 1.0f);
  std::vector<float3> v;
  std::vector<int3> t;
  for (size_t k = 0; k < d.owners.size(); ++k) {
    const int32_t inst = int32_t(d.request.owners[k].instance_id);
    scene.instance_world_mesh(inst, v, t);
    float3 a{1e30f, 1e30f, 1e30f}, b{-1e30f, -1e30f, -1e30f};
    for (const float3& p : v)
      a = {std::min(a.x, p.x), std::min(a.y, p.y), std::min(a.z, p.z)},
      b = {std::max(b.x, p.x), std::max(b.y, p.y), std::max(b.z, p.z)};
    const float ax[3] = {a.x, a.y, a.z}, bx[3] = {b.x, b.y, b.z};
    for (int c = 0; c < 3; ++c) {
      lo[3 * size_t(inst) + c] = ax[c], hi[3 * size_t(inst) + c] = bx[c];
      grid[3 * size_t(inst) + c] = dims[c];
    }
  }
  int32_t stride = 1;
  for (int32_t k = 0; k < ni; ++k)
    stride =
        std::max(stride, grid[3 * size_t(k)] * grid[3 * size_t(k) + 1] * grid[3 * size_t(k) + 2]);
  backend::SifSourceAssemblyRequestView a;
  a.n_instances = ni, a.n_samples = int32_t(n), a.n_bands = s.n_bands;
  a.cell_stride = stride, a.theta_bins = theta_bins, a.phi_bins = phi_bins;
  a.positions = {ds.positions.data(), ds.positions.size()};
  a.normals = {ds.normals.data(), ds.normals.size()};
  a.instance_ids = {ds.owner_instance.data(), ds.owner_instance.size()};
  a.grid_dims = {grid.data(), grid.size()};
  a.source_band_major = {out.samples.shaded.data(), out.samples.shaded.size()};
  a.direct_source_band_major = {out.samples.extra_sunlit.data(), out.samples.extra_sunlit.size()};
  a.bounds_min = {lo.data(), lo.size()}, a.bounds_max = {hi.data(), hi.size()};
  backend::SifSourceAssemblyResult r = backend::assemble_sif_source(a);
  scene::InstanceSifSourceFields& f = out.fields;
  f.spatial_spectra = std::move(r.spatial_field),
  f.orientation_spectra = std::move(r.orientation_field);
  f.joint_spectra = std::move(r.joint_field),
  f.direct_joint_spectra = std::move(r.direct_joint_field);
  f.bounds_min = lo, f.bounds_max = hi, f.grid_dims = grid;
  f.n_sif_bands = s.n_bands, f.spatial_cell_stride = stride;
  f.orientation_theta_bins = theta_bins, f.orientation_phi_bins = phi_bins;
  out.joint_counts = std::move(r.joint_counts);
  // Power of all samples per band: both Lambertian sides, pi L each, over the leaf area.
  out.emitted_power.assign(size_t(s.n_bands), 0.0);
  for (size_t b = 0; b < size_t(s.n_bands); ++b)
    for (size_t i = 0; i < n; ++i)
      out.emitted_power[b] +=
          2.0 * double(PI) * ds.leaf_area[i] *
          (double(out.samples.shaded[b * n + i]) +
           double(s.sunlit_probability[i]) * out.samples.extra_sunlit[b * n + i]);
  if (apply) scene.set_instance_sif_source_fields(out.fields);
  return out;
}

TurbidLeafRrtResult run_turbid_leaf_rrt_on_domain(EmbreeSceneManager& scene, uint64_t domain_id,
                                                  const TurbidLeafRrtRequestView& view) {
  const DomainSamples d = domain_samples(scene, domain_id);
  return run_turbid_leaf_rrt(scene, d.view(), view);
}

}  // namespace vesk::embree
