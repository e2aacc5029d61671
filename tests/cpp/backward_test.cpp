#include <atomic>
#include <chrono>
#include <cmath>
#include <stdexcept>

#include "core/mesh_generators.h"
#include "core/workers.h"
#include "embree/backward.h"
#include "embree/scene_manager.h"
#include "test_util.h"

using namespace vesk;
using vesk::embree::EmbreeSceneManager;
using vesk::embree::render_backward;

namespace {

int32_t add(EmbreeSceneManager& s, const backend::MeshGeometry& m) {
  return s.add_mesh(m.vertices, m.normals, m.indices, m.material_id);
}

// A small canopy: a diffuse ground, leaf spheres and one RPV block, under sun and a
// Hosek-Wilkie sky, in a repeated 6 x 6 tile, seen by a perspective camera.
void build_canopy(EmbreeSceneManager& s) {
  const int nb = 3;
  s.set_num_bands(nb);
  std::vector<float> spectra = {0.10f, 0.20f, 0.30f,                       // 0: ground
                             0.05f, 0.10f, 0.45f, 0.08f, 0.12f, 0.40f,  // 3: leaf front, back
                             0.04f, 0.09f, 0.42f,                       // 9: leaf transmittance
                             0.15f, 0.20f, 0.25f, 0.8f, 0.8f, 0.9f,     // 12: RPV rho0, k
                             -0.1f, -0.1f, 0.0f, 0.3f, 0.3f, 0.3f,      // 18: RPV theta, rho_c
                             1200.0f, 1500.0f, 900.0f};                 // 24: sun
  const float hw[10] = {-1.0f, -0.3f, 1.5f, -2.0f, 0.2f, 0.1f, -1.0f, 0.3f, 0.1f, 40.0f};
  for (int b = 0; b < nb; ++b) spectra.insert(spectra.end(), hw, hw + 10);  // 27: sky
  s.upload_spectral_params(spectra);
  const int ground_mat = s.add_material(0, 0, nullptr, 0);
  const float leaf_params[2] = {0.2f, 0.18f};
  const int leaf_mat = s.add_material(13, 3, leaf_params, 2);
  const int rpv_mat = s.add_material(1, 12, nullptr, 0);
  auto ground = make_ground_plane(3, 3, ground_mat, 2);
  auto crown = make_sphere(0.7f, {0, 0, 0}, 2);
  crown.material_id = leaf_mat;
  auto block = make_cylinder(0.3f, 1.0f, 6);
  block.material_id = rpv_mat;
  s.add_instance(add(s, ground), 3, 3, 0, 1);
  const int c = add(s, crown);
  s.add_instance(c, 1.5f, 2.0f, 1.2f, 1.0f);
  s.add_instance(c, 4.0f, 4.5f, 1.6f, 1.2f);
  s.add_instance(add(s, block), 4.5f, 1.5f, 0.0f, 1.0f);
  s.set_emitter(0, normalize({0.4f, 0.3f, 0.85f}), 24);
  s.set_hw_sky(27, normalize({0.4f, 0.3f, 0.85f}));
  s.set_repetitive(3, 6, 6);
  SensorData cam;
  cam.type = 1;
  cam.width = 24;
  cam.height = 16;
  cam.fov = 0.9f;
  // At (3, -4, 6) looking towards the tile centre, tilted down 45 degrees.
  const float k = std::sqrt(0.5f);
  const float m[16] = {1, 0, 0, 3, 0, k, -k, -4, 0, k, k, 6, 0, 0, 0, 1};
  for (int i = 0; i < 16; ++i) cam.camera_to_world[i] = m[i];
  s.set_sensor(cam, false);
  s.build();
}

backend::OpticalProductRequest everything(int max_order) {
  backend::OpticalProductRequest r;
  r.standard_error = r.event_aov = r.scattering_order = true;
  r.max_output_order = max_order;
  return r;
}

}  // namespace

TEST(Backward, ImagesDoNotDependOnTheThreadCount) {
  EmbreeSceneManager s;
  build_canopy(s);
  const auto one = render_backward(s, 6, 8, 3, 1, {}, everything(2));
  const auto three = render_backward(s, 6, 8, 3, 3, {}, everything(2));
  ASSERT_EQ(one.payload.size(), size_t(24 * 16 * 3));
  EXPECT_EQ(one.payload, three.payload);
  EXPECT_EQ(one.standard_error, three.standard_error);
  EXPECT_EQ(one.event_aov, three.event_aov);
  EXPECT_EQ(one.scattering_order, three.scattering_order);
  double total = 0;
  for (float v : one.payload) total += v;
  EXPECT_GT(total, 0.0) << "the canopy should be lit";
  EXPECT_EQ(one.execution.executor, "embree.cpu.optical_backward");
}

TEST(Backward, RussianRouletteLeavesTheMeanUnbiased) {
  // Against a render where roulette never starts, the mean image agrees within the
  // combined standard error; a biased roulette would darken it systematically.
  EmbreeSceneManager s;
  build_canopy(s);
  const auto rr = render_backward(s, 64, 12, 1, 0, {}, everything(0));
  const auto full = render_backward(s, 64, 12, 1000, 0, {}, everything(0));
  double diff = 0, var = 0, mean = 0;
  for (size_t i = 0; i < rr.payload.size(); ++i) {
    diff += double(rr.payload[i]) - double(full.payload[i]);
    var += double(rr.standard_error[i]) * rr.standard_error[i] +
           double(full.standard_error[i]) * full.standard_error[i];
    mean += full.payload[i];
  }
  EXPECT_LT(std::fabs(diff), 4.0 * std::sqrt(var)) << "summed image difference vs its sigma";
  EXPECT_GT(mean, 0.0);
}

TEST(Backward, ProgressReportsEachSampleAndFailuresJoinCleanly) {
  EmbreeSceneManager s;
  build_canopy(s);
  std::vector<long> seen;
  float last_ms = -1;
  render_backward(s, 5, 4, 3, 3,
                  [&](long done, long total, float ms) {
                    EXPECT_EQ(total, 5);
                    EXPECT_GE(ms, last_ms);
                    last_ms = ms;
                    seen.push_back(done);
                  },
                  everything(0));
  EXPECT_EQ(seen, (std::vector<long>{1, 2, 3, 4, 5}));
  EXPECT_THROW(render_backward(s, 50, 4, 3, 2,
                               [](long done, long, float) {
                                 if (done == 2) throw std::runtime_error("stop");
                               },
                               everything(0)),
               std::runtime_error);
}

TEST(Backward, DepthZeroAndBadScenes) {
  EmbreeSceneManager s;
  build_canopy(s);
  const auto zero = render_backward(s, 2, 0, 3, 2, {}, everything(0));
  for (float v : zero.payload) ASSERT_EQ(v, 0.0f) << "max_depth 0 traces nothing";
  expect_throw_text<std::invalid_argument>(
      [&] { render_backward(s, 0, 4, 3, 1, {}, everything(0)); }, "spp must be positive");
  s.upload_spectral_params(std::vector<float>(20, 0.1f));
  expect_throw_text<std::invalid_argument>(
      [&] { render_backward(s, 1, 4, 3, 1, {}, everything(0)); },
      "the spectral block of material 2 lies outside the spectral buffer");
  EmbreeSceneManager unbuilt;
  EXPECT_THROW(render_backward(unbuilt, 1, 4, 3, 1, {}, everything(0)), std::runtime_error);
}

namespace {
std::atomic<int> polls{0};
struct Interrupted {};
}  // namespace

TEST(Backward, AnInterruptStopsALongRunWithOrWithoutProgress) {
  EmbreeSceneManager s;
  build_canopy(s);
  set_interrupt_poll([] {
    if (++polls >= 3) throw Interrupted{};
  });
  for (const bool with_progress : {false, true}) {
    polls = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(render_backward(s, 1000000, 4, 3, 2,
                                 with_progress ? ProgressFn([](long, long, float) {}) : nullptr,
                                 everything(0)),
                 Interrupted);
    const double s_taken =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(s_taken, 3.0) << "a million samples should have been cut short";
  }
  set_interrupt_poll(nullptr);
  EXPECT_NO_THROW(render_backward(s, 1, 4, 3, 2, {}, everything(0)));
}
