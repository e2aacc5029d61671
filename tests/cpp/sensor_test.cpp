#include <cmath>
#include <limits>
#include <random>

#include "core/grid.h"
#include "core/sensor.h"
#include "test_util.h"

using namespace vesk;

namespace {

SensorData camera(int type, int w, int h, float fov_deg, const float m12[12]) {
  SensorData s;
  s.type = type;
  s.width = w;
  s.height = h;
  s.fov = fov_deg * 3.1415927f / 180.0f;
  for (int i = 0; i < 12; ++i) s.camera_to_world[i] = m12[i];
  s.camera_to_world[15] = 1.0f;
  return s;
}

// Camera 10 units above the origin looking down -z.
const float DOWN[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 10};

float angle_between(float3 a, float3 b) {
  return std::acos(std::min(1.0f, std::max(-1.0f, dot(normalize(a), normalize(b)))));
}

}  // namespace

TEST(PrimaryRay, OrthographicCoversTheFootprint) {
  SensorData s = camera(0, 4, 2, 60, DOWN);
  s.ortho_width = 8.0f;
  s.ortho_height = 2.0f;
  float3 o, d;
  ASSERT_TRUE(sensor::generate_primary_ray(s, 0, 0, 0.5f, 0.5f, o, d));
  expect_near3(o, {-3.0f, -0.5f, 10.0f}, 1e-6f, "first pixel centre");
  expect_near3(d, {0, 0, -1}, 0, "orthographic direction");
  ASSERT_TRUE(sensor::generate_primary_ray(s, 3, 1, 0.5f, 0.5f, o, d));
  expect_near3(o, {3.0f, 0.5f, 10.0f}, 1e-6f, "last pixel centre");
}

TEST(PrimaryRay, PerspectiveScalesOnlyXByAspect) {
  // 200 x 100 pixels, 90 degrees: the vertical half-angle is 45 degrees, the horizontal
  // half-extent is twice as wide, atan(2).
  const SensorData s = camera(1, 200, 100, 90, DOWN);
  float3 o, d;
  ASSERT_TRUE(sensor::generate_primary_ray(s, 200, 50, 0.0f, 0.0f, o, d));
  expect_near3(o, {0, 0, 10}, 0, "pinhole at the camera");
  EXPECT_NEAR(angle_between(d, {0, 0, -1}), std::atan(2.0f), 1e-5f);
  EXPECT_NEAR(d.y, 0.0f, 1e-7f);
  ASSERT_TRUE(sensor::generate_primary_ray(s, 100, 100, 0.0f, 0.0f, o, d));
  EXPECT_NEAR(angle_between(d, {0, 0, -1}), 3.14159265f / 4, 1e-5f);
  EXPECT_NEAR(d.x, 0.0f, 1e-7f);
  EXPECT_GT(d.y, 0.0f) << "image rows run along +y of the camera";
}

TEST(PrimaryRay, CameraMatrixRotatesAndMovesRays) {
  // Camera at (5, 0, 1) whose -z looks along world +x: columns are the camera axes.
  const float m[12] = {0, 0, -1, 5, 1, 0, 0, 0, 0, -1, 0, 1};
  const SensorData s = camera(1, 10, 10, 40, m);
  float3 o, d;
  ASSERT_TRUE(sensor::generate_primary_ray(s, 5, 5, 0.0f, 0.0f, o, d));
  expect_near3(o, {5, 0, 1}, 1e-6f, "camera position");
  expect_near3(d, {1, 0, 0}, 1e-6f, "optical axis");
}

TEST(PrimaryRay, PushbroomTiltsAcrossTrackOnly) {
  SensorData s = camera(3, 10, 4, 30, DOWN);
  s.ortho_height = 4.0f;
  float3 o, d;
  ASSERT_TRUE(sensor::generate_primary_ray(s, 10, 0, 0.0f, 0.5f, o, d));  // u = 0.5
  const float a = 0.5f * s.fov;
  expect_near3(d, normalize({std::tan(a), 0, -1}), 1e-6f, "across-track view angle");
  EXPECT_NEAR(o.y, (0.5f / 4 - 0.5f) * 4.0f, 1e-6f);
  EXPECT_NEAR(o.x, 0.0f, 0.0f);
}

TEST(PrimaryRay, FisheyeImagesADiscWithTheRightZenithAngles) {
  for (int mapping = 0; mapping < 4; ++mapping) {
    const SensorData base = camera(4, 64, 64, 180, DOWN);
    SensorData s = base;
    s.projection_type = mapping;
    float3 o, d;
    // The exact centre: phi = atan2(0, 0) = 0 and the ray is the camera axis.
    ASSERT_TRUE(sensor::generate_primary_ray(s, 32, 32, 0.0f, 0.0f, o, d));
    expect_near3(d, {0, 0, -1}, 1e-7f, "fisheye centre");
    // Corners lie outside the inscribed disc of a 180 degree lens.
    EXPECT_FALSE(sensor::generate_primary_ray(s, 0, 0, 0.0f, 0.0f, o, d)) << mapping;
    expect_near3(o, {0, 0, 0}, 0, "rejected rays are zeroed");
    expect_near3(d, {0, 0, 0}, 0, "rejected rays are zeroed");
    int accepted = 0;
    for (int y = 0; y < 64; ++y)
      for (int x = 0; x < 64; ++x) accepted += sensor::generate_primary_ray(s, x, y, 0.5f, 0.5f, o, d);
    EXPECT_NEAR(accepted / 4096.0, 3.14159265 / 4, 0.02) << "disc fraction, mapping " << mapping;
  }
  // Zenith angle at r = 0.25 (half way to the rim) for each mapping, half = 90 degrees.
  const float half = 3.1415927f / 2, r = 0.25f;
  const float expected[4] = {2 * std::asin(2 * r * std::sin(half / 2)), 2 * r * half,
                             std::asin(2 * r * std::sin(half)),
                             2 * std::atan(2 * r * std::tan(half / 2))};
  for (int mapping = 0; mapping < 4; ++mapping) {
    SensorData s = camera(4, 64, 64, 180, DOWN);
    s.projection_type = mapping == 3 ? 7 : mapping;  // any other value is stereographic
    float3 o, d;
    ASSERT_TRUE(sensor::generate_primary_ray(s, 48, 32, 0.0f, 0.0f, o, d));
    EXPECT_NEAR(angle_between(d, {0, 0, -1}), expected[mapping], 1e-5f) << mapping;
    EXPECT_GT(d.x, 0.0f);
    EXPECT_NEAR(d.y, 0.0f, 1e-6f);
  }
}

TEST(PrimaryRay, UnknownTypesAndDegenerateCamerasGiveNoRay) {
  float3 o, d;
  for (int type : {2, 5, -1}) {
    const SensorData s = camera(type, 8, 8, 60, DOWN);
    EXPECT_FALSE(sensor::generate_primary_ray(s, 3, 3, 0.5f, 0.5f, o, d)) << type;
  }
  const float zero[12] = {};
  const SensorData s = camera(1, 8, 8, 60, zero);
  EXPECT_FALSE(sensor::generate_primary_ray(s, 3, 3, 0.5f, 0.5f, o, d));
}

TEST(WorldToCell, EdgesAndTolerance) {
  using grid::world_to_cell;
  const float e = 3.7f;
  EXPECT_EQ(world_to_cell(e, e, 5), 4);
  EXPECT_EQ(world_to_cell(0.0f, e, 5), 0);
  EXPECT_EQ(world_to_cell(-e * 1e-7f, e, 5), 0);
  EXPECT_EQ(world_to_cell(e + e * 9.5e-7f, e, 5), 4) << "inside the 2^-20 margin";
  EXPECT_EQ(world_to_cell(e + e * 2e-6f, e, 5), -1) << "beyond the margin";
  EXPECT_EQ(world_to_cell(-e * 2e-6f, e, 5), -1);
  EXPECT_EQ(world_to_cell(2 * e, e, 5), -1);
  EXPECT_EQ(world_to_cell(std::nanf(""), e, 5), -1);
  EXPECT_EQ(world_to_cell(1.0f, INFINITY, 5), -1);
  EXPECT_EQ(world_to_cell(0.0f, 0.0f, 5), -1);
  EXPECT_EQ(world_to_cell(1.0f, e, 0), -1);
  EXPECT_EQ(world_to_cell(1.0f, 1e-39f, 5), -1) << "subnormal extent";
  EXPECT_EQ(world_to_cell(e, e, 1), 0);
}

TEST(WorldToCell, EveryWallBelongsToTheCellAboveIt) {
  // Walls are (i * extent) / n in float. Whatever the rounding of p / extent * n, a
  // point on wall i is in cell i and the float just below it is in cell i - 1.
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> extent_dist(0.01f, 1000.0f);
  for (int trial = 0; trial < 300; ++trial) {
    const float extent = extent_dist(rng);
    const int32_t n = 1 + int32_t(rng() % 300);
    for (int32_t i = 0; i < n; ++i) {
      const float wall = (float(i) * extent) / float(n);
      ASSERT_EQ(grid::world_to_cell(wall, extent, n), i)
          << "wall " << i << " of " << n << " over " << extent;
      if (i > 0) {
        const float below = std::nextafter(wall, -INFINITY);
        ASSERT_EQ(grid::world_to_cell(below, extent, n), i - 1)
            << "just below wall " << i << " of " << n << " over " << extent;
      }
    }
  }
}
