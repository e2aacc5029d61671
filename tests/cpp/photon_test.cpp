#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "core/mesh_generators.h"
#include "core/workers.h"
#include "embree/flux.h"
#include "embree/forward.h"
#include "embree/photon.h"
#include "embree/scene_manager.h"
#include "test_util.h"

using namespace vesk;
using namespace vesk::embree;

namespace {

int32_t add(EmbreeSceneManager& s, const backend::MeshGeometry& m) {
  return s.add_mesh(m.vertices, m.normals, m.indices, m.material_id);
}

// A 10 x 10 repeated tile: ground of reflectance 0.3 / 0.6, a leaf crown, a sun
// spectrum and (optionally) a uniform sky, all in two bands.
void build_tile(EmbreeSceneManager& s, bool sky) {
  s.set_num_bands(2);
  s.upload_spectral_params({0.3f, 0.6f, 0.1f, 0.4f, 0.15f, 0.45f, 0.05f, 0.35f, 1000, 800, 20, 30});
  s.add_material(0, 0, nullptr, 0);
  const float leaf[2] = {0.25f, 0.2f};
  s.add_material(13, 2, leaf, 2);
  s.add_instance(add(s, make_ground_plane(5, 5, 0, 10)), 5, 5, 0, 1);
  auto crown = make_sphere(1.5f, {0, 0, 0}, 2);
  crown.material_id = 1;
  const int32_t c = add(s, crown);
  s.add_instance(c, 3, 4, 2.5f, 1);
  s.add_instance(c, 9.5f, 8, 3.0f, 1);  // straddles the tile wall
  s.set_emitter(0, normalize({0.5f, 0.2f, 0.7f}), 8);
  if (sky) s.set_sky(10);
  s.set_repetitive(6, 10, 10);
  s.build();
}

}  // namespace

TEST(Emission, HorizonSunProbSunAndThePlane) {
  EmbreeSceneManager s;
  build_tile(s, true);
  s.set_measurement_plane(7.0f);
  Photon p;
  p.throughput.assign(2, 0.0);
  int sun = 0, sky = 0;
  for (uint64_t i = 0; i < 2000; ++i) {
    RNG r = photon_rng(i);
    EmissionContext e = EmissionContext::from_scene(s, 2, 0.7f, 1.0);
    ASSERT_TRUE(emit_photon(e, r, p));
    EXPECT_FLOAT_EQ(p.origin.z, 7.1f) << "repeated scenes start 0.1 above the plane";
    EXPECT_TRUE(p.repetitive);
    (p.is_sun ? sun : sky)++;
    EXPECT_DOUBLE_EQ(p.weight, p.is_sun ? 1.0 / double(0.7f) : 1.0 / (1.0 - double(0.7f)));
  }
  EXPECT_NEAR(sun / 2000.0, 0.7, 0.04);
  RNG r = photon_rng(1);
  EmissionContext e = EmissionContext::from_scene(s, 2, 0.0f, 1.0);
  ASSERT_TRUE(emit_photon(e, r, p));
  EXPECT_FALSE(p.is_sun) << "prob_sun 0 gives sky photons only";
  EXPECT_LT(p.direction.z, 0.0f);
  EXPECT_NEAR(p.throughput[1], 30.0 * 3.1415927, 1e-3) << "uniform sky radiance times pi";
  // Without a sky, prob_sun 0 emits nothing; with the sun at the horizon nothing at all.
  s.set_sky(-1);
  e = EmissionContext::from_scene(s, 2, 0.0f, 1.0);
  EXPECT_FALSE(emit_photon(e, r, p));
  s.set_sky(10);
  s.update_emitter_direction(normalize({1.0f, 0.0f, 0.005f}));
  e = EmissionContext::from_scene(s, 2, 0.5f, 1.0);
  for (uint64_t i = 0; i < 50; ++i) {
    RNG q = photon_rng(i);
    EXPECT_FALSE(emit_photon(e, q, p));
  }
}

FluxRequest flux(int32_t nx, int32_t ny, int64_t photons, int32_t bands, float prob_sun,
                 int32_t threads, bool decompose = false) {
  FluxRequest q;
  q.nx = nx, q.ny = ny, q.num_photons = photons, q.num_bands = bands, q.prob_sun = prob_sun;
  q.max_depth = 12, q.threads = threads, q.decompose = decompose;
  return q;
}

TEST(Flux, ThreadsAndRangesGiveTheSameBits) {
  EmbreeSceneManager s;
  build_tile(s, true);
  FluxRequest q = flux(5, 4, 60000, 2, 0.6f, 1, true);
  const auto one = render_flux(s, q, {});
  q.threads = 3;
  const auto three = render_flux(s, q, {});
  // The same photons in three ranges, each on its own thread count, appended in order.
  PhotonSums sums;
  const int64_t cuts[] = {0, 2 * PHOTON_CHUNK, 9 * PHOTON_CHUNK, 60000};
  for (int k = 0; k < 3; ++k) {
    FluxRequest part = flux(5, 4, cuts[k + 1] - cuts[k], 2, 0.6f, k + 1, true);
    part.first_photon = cuts[k];
    const PhotonSums p = trace_flux(s, part, {});
    if (k == 0) sums = p; else sums.append(p);
  }
  const auto split = finish_flux(s, q, sums);
  ASSERT_EQ(one.downwelling.size(), 40u);
  for (const auto* r : {&three, &split}) {
    EXPECT_EQ(one.downwelling, r->downwelling);
    EXPECT_EQ(one.upwelling, r->upwelling);
    EXPECT_EQ(one.downwelling_direct, r->downwelling_direct);
    EXPECT_EQ(one.downwelling_diffuse, r->downwelling_diffuse);
  }
  for (size_t i = 0; i < one.downwelling.size(); ++i)
    EXPECT_NEAR(one.downwelling_direct[i] + one.downwelling_diffuse[i], one.downwelling[i],
                1e-5f * one.downwelling[i]);

  // Ranges that would cut a chunk, or sums that do not fit the request, are refused.
  FluxRequest odd = q;
  odd.first_photon = 100;
  expect_throw_text<std::invalid_argument>(
      [&] { render_flux(s, odd, {}); },
      "simulate_flux_cpu: first_photon must be a non-negative multiple of 4096");
  PhotonSums gap = sums;
  gap.first_photon = PHOTON_CHUNK;
  EXPECT_THROW(sums.append(gap), std::invalid_argument);
  FluxRequest fewer = q;
  fewer.num_photons = 50000;
  EXPECT_THROW(finish_flux(s, fewer, sums), std::invalid_argument);
  fewer.decompose = false;
  fewer.num_photons = q.num_photons;
  EXPECT_THROW(finish_flux(s, fewer, sums), std::invalid_argument);
}

TEST(ExactSums, OverflowAndNonFiniteSumsAreRefused) {
  PhotonSums t;
  t.values.assign(2, 0);
  t.unit_exponents = {0};
  std::mutex lock;
  ChunkSums c(2);
  c.add(1, 0x1p119);
  c.add(1, 0x1p119);  // 2^120: more than one chunk may hold
  EXPECT_THROW(c.flush(t, lock), std::overflow_error);
  ChunkSums n(2);
  n.add(0, std::nan(""));
  EXPECT_THROW(n.flush(t, lock), std::overflow_error);
  ChunkSums ok(2);
  ok.add(0, -2.5);  // rounds half to even
  ok.add(1, 3.0);
  ok.flush(t, lock);
  EXPECT_EQ(double(t.values[0]), -2.0);
  EXPECT_EQ(t.energy(1), 3.0);
  // A total past 2^127 units cannot be held.
  PhotonSums big = t;
  big.values[1] = (int128(1) << 126);
  big.photons = 1;
  PhotonSums next = big;
  next.first_photon = 1;
  EXPECT_THROW(big.append(next), std::overflow_error);
  // Units: a bound spans 64 bits, a band without one borrows the largest.
  EXPECT_EQ(unit_exponents_for({1000.0, 0.0, std::nan("")}),
            (std::vector<int32_t>{9 - 63, 9 - 63, 9 - 63}));
  EXPECT_EQ(unit_exponents_for({0.0}), (std::vector<int32_t>{-63}));
}

TEST(Flux, CellsBouncesAndProgress) {
  // A flat ground of reflectance 0.3 and one sun photon per index: each photon hits
  // once, in one cell, then escapes from it.
  EmbreeSceneManager s;
  s.set_num_bands(1);
  s.upload_spectral_params({0.3f, 500.0f});
  s.add_material(0, 0, nullptr, 0);
  s.add_instance(add(s, make_ground_plane(5, 5, 0, 10)), 5, 5, 0, 1);
  s.set_emitter(0, {0, 0, 1}, 1);
  s.set_repetitive(2, 10, 10);
  s.build();
  std::vector<long> calls;
  const auto r = render_flux(s, flux(2, 2, PHOTON_ROUND + 1, 1, 1.0f, 2),
                             [&](long done, long total, float) {
                               calls.push_back(done);
                               EXPECT_EQ(total, PHOTON_ROUND + 1);
                             });
  // Slow machines add reports inside the batches; the ends of the batches always come.
  EXPECT_TRUE(std::is_sorted(calls.begin(), calls.end())) << "progress never goes back";
  EXPECT_NE(std::find(calls.begin(), calls.end(), long(PROGRESS_BATCH)), calls.end())
      << "batch end";
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back(), PHOTON_ROUND + 1) << "the last report is the whole run";
  double down = 0, up = 0;
  for (float v : r.downwelling) down += v;
  for (float v : r.upwelling) up += v;
  EXPECT_NEAR(down, 500.0 * 100.0, 1e-3 * 500 * 100);
  EXPECT_NEAR(up, 0.3 * down, 1e-3 * down) << "escapes after a bounce leave their cell";

  expect_throw_text<std::invalid_argument>(
      [&] { render_flux(s, flux(0, 2, 10, 1, 1, 1), {}); },
      "flux grid dimensions and band count must be positive");
  EXPECT_THROW(render_flux(s, flux(65536, 65536, 10, 1, 1, 1), {}), std::overflow_error);
  expect_throw_text<std::invalid_argument>(
      [&] { render_flux(s, flux(2, 2, 0, 1, 1, 1), {}); },
      "Embree flux photon count must be positive");
  s.set_repetitive(0, 0, 0);  // falls back to the sensor footprint, which is empty
  expect_throw_text<std::invalid_argument>(
      [&] { render_flux(s, flux(2, 2, 10, 1, 1, 1), {}); },
      "flux scene extent must be at least the minimum normalized float");
}

TEST(Forward, ThreadCountChangesNothing) {
  EmbreeSceneManager s;
  build_tile(s, true);
  ForwardRequest q;
  q.nx = 3, q.ny = 2, q.layer_heights = {0.0f, 2.0f, 4.5f}, q.num_photons = 40000;
  q.num_bands = 2, q.per_leaf = true, q.prob_sun = 0.7f, q.terrain_instance_id = 0;
  q.brf_directions = {{0, 0, 1}, {0.5f, 0.1f, 0.8f}};
  q.threads = 1;
  const auto a = render_forward(s, q, {});
  q.threads = 3;
  const auto b = render_forward(s, q, {});
  EXPECT_EQ(a.grid, b.grid);
  EXPECT_EQ(a.grid_direct, b.grid_direct);
  EXPECT_EQ(a.leaf, b.leaf);
  EXPECT_EQ(a.terrain, b.terrain);
  EXPECT_EQ(a.brf, b.brf);
  EXPECT_EQ(a.escaped, b.escaped);
  EXPECT_EQ(a.truncated, b.truncated);
  EXPECT_EQ(a.grid.size(), size_t(2 * 2 * 3 * 2));
}

TEST(Workers, ProgressComesWithinARoundAndChangesNoWork) {
  // One round of 3000 items at about half a millisecond each on two workers: some
  // 0.75 s, so the caller must report inside the round, not only at its end.
  using clock = std::chrono::steady_clock;
  std::vector<std::atomic<int>> seen(3000);
  std::vector<int64_t> reports;
  std::vector<double> gaps_ms;
  auto last = clock::now();
  run_counted(
      2, 0, 3000, 1000000, 10,
      [&](int, int64_t b, int64_t e) {
        for (int64_t i = b; i < e; ++i) ++seen[size_t(i)];
        std::this_thread::sleep_for(std::chrono::microseconds(500 * (e - b)));
      },
      [&](int64_t done) {
        reports.push_back(done);
        gaps_ms.push_back(std::chrono::duration<double, std::milli>(clock::now() - last).count());
        last = clock::now();
      });
  for (const auto& n : seen) ASSERT_EQ(n.load(), 1) << "every item runs exactly once";
  ASSERT_GE(reports.size(), 2u) << "a report inside the round, and one at its end";
  EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
  EXPECT_LT(reports.front(), 3000) << "the first report came while the round ran";
  EXPECT_EQ(reports.back(), 3000);
  EXPECT_LT(*std::min_element(gaps_ms.begin(), gaps_ms.end()), 500.0);
}

// The wall a ray leaves by is the one it moves towards, however close: just before it,
// a rounding error past it, or at the second wall of a corner right after the first.
TEST(TileWalls, TheWallAheadIsCrossedHoweverClose) {
  const float W = 4.0f, H = 4.0f;
  const float3 d = normalize(float3{1.0f, 0.5f, -1.0f});
  float t = -1.0f;
  EXPECT_EQ(tile_exit(W, H, {W - 1e-6f, 2.0f, 1.0f}, d, t), 0);
  EXPECT_GE(t, 0.0f);
  EXPECT_LT(t, 1e-5f);
  EXPECT_EQ(tile_exit(W, H, {W + 1e-6f, 2.0f, 1.0f}, d, t), 0);
  EXPECT_EQ(t, 0.0f);
  float3 o{W + 0.25f, 2.0f, 1.0f};  // a hit on geometry overhanging the wall
  cross_tile(W, H, 0, t, d, o);
  EXPECT_FLOAT_EQ(o.x, 0.25f);
  // A corner: after the x wall the y wall lies 1e-6 ahead.
  EXPECT_EQ(tile_exit(W, H, {0.0f, H - 1e-6f, 1.0f}, d, t), 1);
  EXPECT_LT(t, 1e-5f);
  // Moving away from a wall it stands on, the ray leaves by the far wall.
  EXPECT_EQ(tile_exit(W, H, {0.0f, 1.0f, 1.0f}, float3{1.0f, 0.0f, 0.0f}, t), 0);
  EXPECT_FLOAT_EQ(t, W);
}
