// Photon simulations on the CPU scene: simulate_brf_cpu, simulate_forward_cpu and
// simulate_flux_cpu.
#include "embree/flux.h"
#include "embree/forward.h"
#include "embree/scene_manager.h"
#include "module/bind_common.h"
#include "module/bind_photon_requests.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

namespace {

py::dict sums_dict(const PhotonSums& s) {
  const py::ssize_t n = py::ssize_t(s.values.size());
  py::array_t<int64_t> hi(n);
  py::array_t<uint64_t> lo(n);
  int64_t* h = hi.mutable_data();
  uint64_t* l = lo.mutable_data();
  for (py::ssize_t i = 0; i < n; ++i) {
    const auto u = static_cast<unsigned __int128>(s.values[size_t(i)]);
    h[i] = static_cast<int64_t>(static_cast<uint64_t>(u >> 64));
    l[i] = static_cast<uint64_t>(u);
  }
  py::dict d;
  d["hi"] = hi;
  d["lo"] = lo;
  d["unit_exponents"] = to_numpy(s.unit_exponents);
  d["first_photon"] = s.first_photon;
  d["num_photons"] = s.photons;
  return d;
}

PhotonSums sums_from(const py::object& obj) {
  if (!py::isinstance<py::dict>(obj))
    throw py::type_error("sums must be the dict of exact photon sums");
  const py::dict d = obj.cast<py::dict>();
  for (const char* key : {"hi", "lo", "unit_exponents", "first_photon", "num_photons"})
    if (!d.contains(key)) throw py::key_error(std::string("sums is missing the key '") + key + "'");
  auto exact = [&](const char* key, char kind) {
    const py::object v = d[key];
    if (!py::isinstance<py::array>(v) || v.cast<py::array>().dtype().kind() != kind ||
        v.cast<py::array>().dtype().itemsize() != 8 || v.cast<py::array>().ndim() != 1)
      throw py::type_error(std::string("sums['") + key + "'] must be a 1-D " +
                           (kind == 'i' ? "int64" : "uint64") + " array");
    return v.cast<py::array>();
  };
  const auto hi = py::cast<py::array_t<int64_t, py::array::c_style | py::array::forcecast>>(
      exact("hi", 'i'));
  const auto lo = py::cast<py::array_t<uint64_t, py::array::c_style | py::array::forcecast>>(
      exact("lo", 'u'));
  if (hi.size() != lo.size()) throw py::value_error("sums['hi'] and sums['lo'] differ in length");
  PhotonSums s;
  s.values.resize(size_t(hi.size()));
  for (py::ssize_t i = 0; i < hi.size(); ++i) {
    const auto u = (static_cast<unsigned __int128>(static_cast<uint64_t>(hi.data()[i])) << 64) |
                   lo.data()[i];
    s.values[size_t(i)] = static_cast<int128>(u);
  }
  s.unit_exponents = to_vector(py::cast<IntArray>(d["unit_exponents"]));
  s.first_photon = py::cast<int64_t>(d["first_photon"]);
  s.photons = py::cast<int64_t>(d["num_photons"]);
  return s;
}

// The private entries behind distributed runs: without sums they trace the photons and
// return their exact sums; with sums (of ranges that together cover these photons,
// merged) they return what the public entry returns for the same arguments, bit for bit.
template <class Request, class Trace, class Finish, class Dict>
py::dict exact_entry(const EmbreeSceneManager& scene, const Request& q, const py::object& sums,
                     Trace trace, Finish finish, Dict to_dict) {
  if (sums.is_none()) return sums_dict(trace(scene, q, ProgressFn{}));
  return to_dict(finish(scene, q, sums_from(sums)));
}

constexpr const char* EXACT_DOC =
    "Private, for distributed runs (vesk.distributed). Without sums: the exact sums of\n"
    "photons [first_photon, first_photon + num_photons), a dict of 'hi' (int64) and 'lo'\n"
    "(uint64) halves of 128-bit fixed-point totals, 'unit_exponents' (int32, one per band),\n"
    "'first_photon' and 'num_photons'. Sums of consecutive ranges add exactly (hi and lo\n"
    "with a carry). With sums covering the photons of these arguments: the result the\n"
    "public entry gives for them, bit for bit.";

}  // namespace

void bind_forward(py::module_& m) {
  m.def(
      "simulate_brf_cpu",
      [](const EmbreeSceneManager& scene, const FloatArray& directions, int64_t num_photons,
         int32_t max_depth, const py::object& progress, int64_t first_photon) {
        const embree::ForwardRequest q =
            brf_request(scene, directions, num_photons, max_depth, first_photon);
        return brf_dict(embree::render_forward(scene, q, progress_bridge(progress)));
      },
      py::arg("scene"), py::arg("directions"), py::arg("num_photons"), py::arg("max_depth") = 16,
      py::arg("progress") = py::none(), py::arg("first_photon") = 0,
      "Bidirectional reflectance factor of the scene under the sun, by forward photons with\n"
      "the local (next-event) estimate of simulate_forward_cpu, unbiased for any surface.\n"
      "directions: flat float3, towards the observers, upward. Returns 'brf' (n_directions,\n"
      "bands), 'albedo', 'incident', 'escaped' (bands,) and '_execution'.\n"
      "first_photon: see simulate_forward_cpu.");

  m.def(
      "simulate_forward_cpu",
      [](const EmbreeSceneManager& scene, int32_t nx, int32_t ny, const py::object& layer_heights,
         int64_t num_photons, int32_t num_bands, bool per_leaf, const py::object& brf_directions,
         int32_t num_brf_dirs, float prob_sun, int32_t max_depth, int32_t terrain_instance_id,
         const py::object& progress, int64_t first_photon) {
        const embree::ForwardRequest q =
            forward_request(nx, ny, layer_heights, num_photons, num_bands, per_leaf,
                            brf_directions, num_brf_dirs, prob_sun, max_depth,
                            terrain_instance_id, first_photon);
        return forward_dict(embree::render_forward(scene, q, progress_bridge(progress)));
      },
      py::arg("scene"), py::arg("nx") = 1, py::arg("ny") = 1, py::arg("layer_heights") = py::none(),
      py::arg("num_photons") = 10000000, py::arg("num_bands") = 1, py::arg("per_leaf") = false,
      py::arg("brf_directions") = py::none(), py::arg("num_brf_dirs") = 0,
      py::arg("prob_sun") = 1.0f, py::arg("max_depth") = 16, py::arg("terrain_instance_id") = -1,
      py::arg("progress") = py::none(), py::arg("first_photon") = 0,
      "Forward photon tracing of absorbed, escaping and reflected energy (fPAR, BRF, albedo).\n"
      "Photons leave the sun (and, with a sky set, the sky in the share 1 - prob_sun) over the\n"
      "tile of a repeated scene, 0.1 above the measurement plane (set_measurement_plane; by\n"
      "default the top of the scene box, so that they start above every crown), or through\n"
      "the faces of the box of a finite scene. There, a photon that crosses the box and\n"
      "leaves by a side or the top without touching anything passed the scene by: it is not\n"
      "counted at all, so 'incident' is what reaches the scene or its floor. All energies are\n"
      "absolute, per band: the sun spectrum (W m-2 nm-1 at normal incidence) or sky radiance\n"
      "times area; divide by 'incident' for fractions.\n"
      "The nx x ny grid covers the tile [0, W] x [0, H] of a repeated scene, else the scene\n"
      "box; layer_heights (1-D, strictly increasing boundaries) splits it in z into\n"
      "len - 1 layers, [h_k, h_k+1) with the top boundary in the top layer; None: one layer.\n"
      "Absorption at an event is the energy the event takes from the photon, charged to the\n"
      "cell and layer of the hit (unbiased; single samples can be negative where a sampled\n"
      "direction's weight exceeds 1).\n"
      "Keys: 'grid' (nz, ny, nx, bands) absorbed by everything but the terrain instance (by\n"
      "everything, ground included, when terrain_instance_id is -1),\n"
      "split into 'grid_direct' (sun photons, all orders) and 'grid_diffuse' (sky photons);\n"
      "'leaf' (n_primitives, bands) absorbed per primitive, with per_leaf (leaves of turbid\n"
      "media have no primitive: their absorption is in 'grid' only); 'terrain' (ny, nx,\n"
      "bands) absorbed by instance terrain_instance_id, when it is >= 0; 'incident' (bands,)\n"
      "entering the scene, and 'incident_grid' (ny, nx, bands) the same split by the grid\n"
      "column it came in by (where it crossed the measurement plane of a repeated scene or\n"
      "the top of a finite scene's box; through a side of the box: the edge column), so that\n"
      "grid.sum(axis=0) / incident_grid is the fraction absorbed per column (fAPAR per cell\n"
      "in a PAR band); 'escaped' leaving it upward; 'transmitted' leaving it downward;\n"
      "'absorbed_outside' absorbed outside the grid or its layers; 'truncated' still carried\n"
      "by photons stopped by max_depth (or a vanishing weight), reported, not lost; 'albedo'\n"
      "escaped / incident; 'brf' (num_brf_dirs, bands) for the first num_brf_dirs upward\n"
      "directions of brf_directions (flat float3). Conservation, up to Russian-roulette\n"
      "noise: incident = grid + terrain + absorbed_outside + escaped + transmitted + truncated.\n"
      "BRF estimator: the local (next-event) estimate pi * sum(E f(l, v) |cos v| V) /\n"
      "(cos(theta_v) * incident) over all surface events, with each material's own BRDF f\n"
      "and the visibility V of the observer through the repeated tiles: unbiased for any\n"
      "surface.\n"
      "first_photon (a multiple of 4096, default 0): trace photons first_photon ..\n"
      "first_photon + num_photons - 1 of the global numbering (each photon has its own\n"
      "random stream), so that runs over disjoint ranges are independent. Results are the\n"
      "same, bit for bit, whatever the thread count: photons are summed per 4096 in a fixed\n"
      "order, and those sums exactly (in fixed point).");

  m.def(
      "simulate_flux_cpu",
      [](const EmbreeSceneManager& scene, int32_t nx, int32_t ny, int64_t num_photons,
         int32_t num_bands, float prob_sun, int32_t max_bounces, int32_t max_depth,
         int32_t rr_depth, bool decompose, const py::object& progress, int64_t first_photon) {
        const embree::FluxRequest q = flux_request(nx, ny, num_photons, num_bands, prob_sun,
                                                   max_bounces, max_depth, rr_depth, decompose,
                                                   first_photon);
        return flux_dict(embree::render_flux(scene, q, progress_bridge(progress)));
      },
      py::arg("scene"), py::arg("nx"), py::arg("ny"), py::arg("num_photons"),
      py::arg("num_bands"), py::arg("prob_sun") = 1.0f, py::arg("max_bounces") = 0,
      py::arg("max_depth") = 16, py::arg("rr_depth") = 3, py::arg("decompose") = false,
      py::arg("progress") = py::none(), py::arg("first_photon") = 0,
      "Hemispheric flux grids by forward photon tracing.\n"
      "Where the grid lies: the nx x ny grid covers the tile [0, W] x [0, H] of a repeated\n"
      "scene, else [0, ortho_w] x [0, ortho_h] of the sensor (its orthographic extent). It\n"
      "starts at the world origin and does NOT follow the camera: the camera's position\n"
      "and direction are not read, so a scene centred on the origin has only its +x, +y\n"
      "quarter in the grid. Build the scene over [0, W] x [0, H] (or repeat it as a tile).\n"
      "Cell (j, i) is [i W / nx, (i + 1) W / nx) x [j H / ny, (j + 1) H / ny); surfaces\n"
      "outside the grid are not charged. vesk.to_xarray labels the cell centres.\n"
      "Values are energy per cell (divide by the cell area for W m-2 nm-1), not flux\n"
      "densities.\n"
      "Every surface a photon touches is charged to the cell under it: 'downwelling' sums the\n"
      "energy arriving at surfaces, 'upwelling' the energy leaving a cell (to another cell or\n"
      "out of the scene). max_bounces limits the events charged per photon (0: all);\n"
      "decompose adds 'downwelling_direct' (sun photons, all orders) and\n"
      "'downwelling_diffuse' (sky photons). prob_sun: share of sun photons when a sky is set.\n"
      "Grids are (ny, nx, num_bands) float32 in energy units (sun spectrum times area);\n"
      "progress(done, total, elapsed_ms) runs on the calling thread about every quarter of\n"
      "a second while photons run, and after every 1048576. Photons of a\n"
      "repeated scene start over the measurement plane (set_measurement_plane; by default\n"
      "the top of the scene box). first_photon: see simulate_forward_cpu.");

  m.def(
      "_simulate_brf_exact",
      [](const EmbreeSceneManager& scene, const FloatArray& directions, int64_t num_photons,
         int32_t max_depth, int64_t first_photon, const py::object& sums) {
        return exact_entry(scene, brf_request(scene, directions, num_photons, max_depth,
                                              first_photon),
                           sums, embree::trace_forward, embree::finish_forward, brf_dict);
      },
      py::arg("scene"), py::arg("directions"), py::arg("num_photons"), py::arg("max_depth") = 16,
      py::arg("first_photon") = 0, py::arg("sums") = py::none(), EXACT_DOC);
  m.def(
      "_simulate_forward_exact",
      [](const EmbreeSceneManager& scene, int32_t nx, int32_t ny, const py::object& layer_heights,
         int64_t num_photons, int32_t num_bands, bool per_leaf, const py::object& brf_directions,
         int32_t num_brf_dirs, float prob_sun, int32_t max_depth, int32_t terrain_instance_id,
         int64_t first_photon, const py::object& sums) {
        return exact_entry(scene,
                           forward_request(nx, ny, layer_heights, num_photons, num_bands, per_leaf,
                                           brf_directions, num_brf_dirs, prob_sun, max_depth,
                                           terrain_instance_id, first_photon),
                           sums, embree::trace_forward, embree::finish_forward, forward_dict);
      },
      py::arg("scene"), py::arg("nx") = 1, py::arg("ny") = 1, py::arg("layer_heights") = py::none(),
      py::arg("num_photons") = 10000000, py::arg("num_bands") = 1, py::arg("per_leaf") = false,
      py::arg("brf_directions") = py::none(), py::arg("num_brf_dirs") = 0,
      py::arg("prob_sun") = 1.0f, py::arg("max_depth") = 16, py::arg("terrain_instance_id") = -1,
      py::arg("first_photon") = 0, py::arg("sums") = py::none(), EXACT_DOC);
  m.def(
      "_simulate_flux_exact",
      [](const EmbreeSceneManager& scene, int32_t nx, int32_t ny, int64_t num_photons,
         int32_t num_bands, float prob_sun, int32_t max_bounces, int32_t max_depth,
         int32_t rr_depth, bool decompose, int64_t first_photon, const py::object& sums) {
        return exact_entry(scene,
                           flux_request(nx, ny, num_photons, num_bands, prob_sun, max_bounces,
                                        max_depth, rr_depth, decompose, first_photon),
                           sums, embree::trace_flux, embree::finish_flux, flux_dict);
      },
      py::arg("scene"), py::arg("nx"), py::arg("ny"), py::arg("num_photons"),
      py::arg("num_bands"), py::arg("prob_sun") = 1.0f, py::arg("max_bounces") = 0,
      py::arg("max_depth") = 16, py::arg("rr_depth") = 3, py::arg("decompose") = false,
      py::arg("first_photon") = 0, py::arg("sums") = py::none(), EXACT_DOC);
  m.attr("PHOTON_CHUNK") = PHOTON_CHUNK;
}

}  // namespace vesk::module
