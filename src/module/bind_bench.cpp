// Entries of the benchmark build only (VESK_BENCH_COUNTERS): ray counts and renders
// with an explicit thread count, so benchmarks can relate tracer time to Embree rays.
#include <omp.h>

#include "embree/backward.h"
#include "embree/flux.h"
#include "embree/forward.h"
#include "core/optical_media.h"
#include "core/rng.h"
#include "embree/ray_counters.h"
#include "embree/scene_manager.h"
#include "lidar/lidar_simulation.h"
#include "module/bind_common.h"

namespace vesk::module {

void bind_bench(py::module_& m) {
  m.def("_bench_ray_counts", [] {
    uint64_t closest = 0, occluded = 0;
    embree::rtc::read_ray_counters(closest, occluded);
    return py::make_tuple(closest, occluded);
  });
  m.def("_bench_reset_ray_counts", [] { embree::rtc::reset_ray_counters(); });
  m.def("_bench_set_omp_threads", [](int n) { omp_set_num_threads(n); });
  m.def("_bench_set_ray_recording", [](bool on) { embree::rtc::set_ray_recording(on); });
  m.def("_bench_take_recorded_rays", [] {
    std::vector<float> closest, occluded;
    embree::rtc::take_recorded_rays(closest, occluded);
    return py::make_tuple(to_numpy(closest, {py::ssize_t(closest.size() / 6), 6}),
                          to_numpy(occluded, {py::ssize_t(occluded.size() / 6), 6}));
  });
  m.def(
      "_bench_render_backward",
      [](const embree::EmbreeSceneManager& scene, int spp, int max_depth, int threads) {
        return optical_product_dict(embree::render_backward(scene, spp, max_depth, 3, threads, {},
                                                            backend::OpticalProductRequest{}));
      },
      py::arg("scene"), py::arg("spp"), py::arg("max_depth"), py::arg("threads"));
  m.def(
      "_bench_render_flux",
      [](const embree::EmbreeSceneManager& scene, int32_t nx, int64_t photons, int32_t bands,
         float prob_sun, int32_t threads) {
        embree::FluxRequest q;
        q.nx = q.ny = nx, q.num_photons = photons, q.num_bands = bands, q.prob_sun = prob_sun;
        q.threads = threads;
        const embree::FluxResult r = embree::render_flux(scene, q, {});
        return to_numpy(r.downwelling);
      },
      py::arg("scene"), py::arg("nx"), py::arg("photons"), py::arg("bands"), py::arg("prob_sun"),
      py::arg("threads"));
  m.def(
      "_bench_render_brf",
      [](const embree::EmbreeSceneManager& scene, const FloatArray& dirs, int64_t photons,
         int32_t threads) {
        embree::ForwardRequest q;
        q.brf_entry = true;
        q.num_photons = photons;
        q.num_bands = scene.num_bands();
        q.threads = threads;
        for (py::ssize_t i = 0; i + 2 < dirs.size(); i += 3)
          q.brf_directions.push_back({dirs.data()[i], dirs.data()[i + 1], dirs.data()[i + 2]});
        return to_numpy(embree::render_forward(scene, q, {}).brf);
      },
      py::arg("scene"), py::arg("directions"), py::arg("photons"), py::arg("threads"));
  m.def(
      "_bench_simulate_lidar",
      [](const embree::EmbreeSceneManager& scene, const FloatArray& origins,
         const FloatArray& directions, int32_t samples_per_dim, bool direct, int32_t threads) {
        embree::LidarRequest q;
        q.pulse_origins = origins.data();
        q.pulse_directions = directions.data();
        q.num_pulses = int32_t(origins.size() / 3);
        q.beam_half_angle_rad = 0.002f;
        q.beam_samples_per_dim = samples_per_dim;
        q.max_range = 120.0f;
        q.direct_mode = direct;
        q.num_threads = threads;
        return embree::simulate_lidar(scene, q, {}).num_returns;
      },
      py::arg("scene"), py::arg("origins"), py::arg("directions"), py::arg("samples_per_dim"),
      py::arg("direct"), py::arg("threads"));
  m.def(
      "_bench_free_paths",
      [](const embree::EmbreeSceneManager& scene, const IntArray& ids, int64_t n) {
        // The tracers' sampler in a plain loop over fresh directions: the sum of distances
        // keeps the work from being optimised away.
        RNG rng;
        rng.seed(7, 11);
        const auto& media = scene.optical_media();
        double sum = 0.0;
        for (int64_t i = 0; i < n; ++i) {
          const float z = rng.next_float() * 2.0f - 1.0f, r = std::sqrt(1.0f - z * z);
          const float3 d{r, 0.0f, z};
          sum += sample_combined_free_path(media.data(), media.size(), ids.data(),
                                           int32_t(ids.size()), d, rng.next_float(),
                                           rng.next_float())
                     .distance;
        }
        return sum;
      },
      py::arg("scene"), py::arg("ids"), py::arg("n"));
}

}  // namespace vesk::module
