// Photon simulations on the CPU scene: simulate_brf_cpu, simulate_forward_cpu and
// simulate_flux_cpu.
#include "embree/flux.h"
#include "embree/forward.h"
#include "embree/scene_manager.h"
#include "module/bind_common.h"

namespace vesk::module {

using vesk::embree::EmbreeSceneManager;

namespace {

std::vector<float3> flat_directions(const FloatArray& a, size_t count) {
  std::vector<float3> out(count);
  for (size_t i = 0; i < count; ++i) out[i] = {a.data()[3 * i], a.data()[3 * i + 1], a.data()[3 * i + 2]};
  return out;
}

py::array_t<float> bands_array(const std::vector<float>& v, int32_t rows, int32_t bands) {
  return to_numpy(v, {py::ssize_t(rows), py::ssize_t(bands)});
}

}  // namespace

void bind_forward(py::module_& m) {
  m.def(
      "simulate_brf_cpu",
      [](const EmbreeSceneManager& scene, const FloatArray& directions, int64_t num_photons,
         int32_t max_depth, const py::object& progress) {
        if (directions.ndim() != 1 || directions.size() == 0 || directions.size() % 3 != 0)
          throw py::value_error("directions must be a nonempty flat float3 array");
        embree::ForwardRequest q;
        q.brf_entry = true;
        q.num_photons = num_photons;
        q.max_depth = max_depth;
        q.num_bands = scene.num_bands();
        q.brf_directions = flat_directions(directions, size_t(directions.size() / 3));
        const embree::ForwardResult r = embree::render_forward(scene, q, progress_bridge(progress));
        py::dict d;
        d["brf"] = bands_array(r.brf, r.n_directions, r.bands);
        d["albedo"] = to_numpy(r.albedo);
        d["incident"] = to_numpy(r.incident);
        d["escaped"] = to_numpy(r.escaped);
        d["_execution"] = execution_dict(r.execution);
        return d;
      },
      py::arg("scene"), py::arg("directions"), py::arg("num_photons"), py::arg("max_depth") = 16,
      py::arg("progress") = py::none(),
      "Bidirectional reflectance factor of the scene under the sun, by forward photons with\n"
      "the local (next-event) estimate of simulate_forward_cpu, unbiased for any surface.\n"
      "directions: flat float3, towards the observers, upward. Returns 'brf' (n_directions,\n"
      "bands), 'albedo', 'incident', 'escaped' (bands,) and '_execution'.\n"
      "progress(done, total, elapsed_ms) as in simulate_forward_cpu.");

  m.def(
      "simulate_forward_cpu",
      [](const EmbreeSceneManager& scene, int32_t nx, int32_t ny, const py::object& layer_heights,
         int64_t num_photons, int32_t num_bands, bool per_leaf, const py::object& brf_directions,
         int32_t num_brf_dirs, float prob_sun, int32_t max_depth, int32_t terrain_instance_id,
         const py::object& progress) {
        embree::ForwardRequest q;
        if (!layer_heights.is_none()) {
          const FloatArray h = py::cast<FloatArray>(layer_heights);
          if (h.ndim() != 1) throw py::value_error("layer_heights must be 1D");
          q.layer_heights = to_vector(h);
        }
        if (!brf_directions.is_none()) {
          const FloatArray d = py::cast<FloatArray>(brf_directions);
          if (d.ndim() != 1 || d.size() % 3 != 0)
            throw py::value_error("directions must be a flat float3 array");
          if (num_brf_dirs < 0 || py::ssize_t(num_brf_dirs) * 3 > d.size())
            throw py::value_error("num_brf_dirs must lie between 0 and the directions given");
          q.brf_directions = flat_directions(d, size_t(num_brf_dirs));
        } else if (num_brf_dirs != 0) {
          throw py::value_error("num_brf_dirs must lie between 0 and the directions given");
        }
        q.nx = nx, q.ny = ny, q.num_photons = num_photons, q.num_bands = num_bands;
        q.per_leaf = per_leaf, q.prob_sun = prob_sun, q.max_depth = max_depth;
        q.terrain_instance_id = terrain_instance_id;
        const embree::ForwardResult r = embree::render_forward(scene, q, progress_bridge(progress));
        py::dict d;
        d["grid"] = to_numpy(r.grid, {r.nz, r.ny, r.nx, r.bands});
        d["grid_direct"] = to_numpy(r.grid_direct, {r.nz, r.ny, r.nx, r.bands});
        d["grid_diffuse"] = to_numpy(r.grid_diffuse, {r.nz, r.ny, r.nx, r.bands});
        if (r.has_leaf) d["leaf"] = bands_array(r.leaf, int32_t(r.leaf.size() / size_t(r.bands)), r.bands);
        if (r.has_terrain) d["terrain"] = to_numpy(r.terrain, {r.ny, r.nx, r.bands});
        d["incident_grid"] = to_numpy(r.incident_grid, {r.ny, r.nx, r.bands});
        d["incident"] = to_numpy(r.incident);
        d["escaped"] = to_numpy(r.escaped);
        d["transmitted"] = to_numpy(r.transmitted);
        d["absorbed_outside"] = to_numpy(r.absorbed_outside);
        d["truncated"] = to_numpy(r.truncated);
        d["albedo"] = to_numpy(r.albedo);
        if (r.has_brf) d["brf"] = bands_array(r.brf, r.n_directions, r.bands);
        d["_execution"] = execution_dict(r.execution);
        return d;
      },
      py::arg("scene"), py::arg("nx") = 1, py::arg("ny") = 1, py::arg("layer_heights") = py::none(),
      py::arg("num_photons") = 10000000, py::arg("num_bands") = 1, py::arg("per_leaf") = false,
      py::arg("brf_directions") = py::none(), py::arg("num_brf_dirs") = 0,
      py::arg("prob_sun") = 1.0f, py::arg("max_depth") = 16, py::arg("terrain_instance_id") = -1,
      py::arg("progress") = py::none(),
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
      "progress(done, total, elapsed_ms) runs on the calling thread about every quarter of\n"
      "a second while photons run, and after every million.");

  m.def(
      "simulate_flux_cpu",
      [](const EmbreeSceneManager& scene, int32_t nx, int32_t ny, int64_t num_photons,
         int32_t num_bands, float prob_sun, int32_t max_bounces, int32_t max_depth,
         int32_t rr_depth, bool decompose, const py::object& progress) {
        const embree::FluxResult r =
            embree::render_flux(scene, nx, ny, num_photons, num_bands, prob_sun, max_bounces,
                                max_depth, rr_depth, 0, progress_bridge(progress), decompose);
        const std::vector<py::ssize_t> shape{r.ny, r.nx, r.num_bands};
        py::dict d;
        d["downwelling"] = to_numpy(r.downwelling, shape);
        d["upwelling"] = to_numpy(r.upwelling, shape);
        if (r.decompose) {
          d["downwelling_direct"] = to_numpy(r.downwelling_direct, shape);
          d["downwelling_diffuse"] = to_numpy(r.downwelling_diffuse, shape);
        }
        d["_execution"] = execution_dict(r.execution);
        return d;
      },
      py::arg("scene"), py::arg("nx"), py::arg("ny"), py::arg("num_photons"),
      py::arg("num_bands"), py::arg("prob_sun") = 1.0f, py::arg("max_bounces") = 0,
      py::arg("max_depth") = 16, py::arg("rr_depth") = 3, py::arg("decompose") = false,
      py::arg("progress") = py::none(),
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
      "a second while photons run, and after every million. Photons of a\n"
      "repeated scene start over the measurement plane (set_measurement_plane; by default\n"
      "the top of the scene box).");
}

}  // namespace vesk::module
