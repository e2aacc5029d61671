#include <cmath>
#include <stdexcept>

#include "core/array_check.h"
#include "core/execution.h"
#include "core/types.h"
#include "test_util.h"

using namespace vesk;

TEST(CoordinateSystem, GivesRightHandedOrthonormalFrames) {
  float3 t, b;
  coordinate_system({0, 0, 1}, t, b);
  // |n.x| <= |n.y| takes the second branch: b = (0, 1, 0), t = cross(b, n) = (1, 0, 0).
  expect_near3(b, {0, 1, 0}, 0, "bitangent of +z");
  expect_near3(t, {1, 0, 0}, 0, "tangent of +z");

  const float3 normals[] = {{1, 0, 0},           {0, -1, 0}, {0.6f, 0.8f, 0}, {0.8f, 0, -0.6f},
                            normalize({1, 2, 3}), {0, 0, -1}};
  for (const float3& n : normals) {
    coordinate_system(n, t, b);
    EXPECT_NEAR(dot(t, t), 1.0f, 1e-6f);
    EXPECT_NEAR(dot(b, b), 1.0f, 1e-6f);
    EXPECT_NEAR(dot(t, b), 0.0f, 1e-6f);
    EXPECT_NEAR(dot(t, n), 0.0f, 1e-6f);
    EXPECT_NEAR(dot(b, n), 0.0f, 1e-6f);
    // n is the local +z of (t, b, n): cross(t, b) must give n back.
    expect_near3(cross(t, b), n, 1e-6f, "frame handedness");
  }
}

TEST(MeshIdValidation, NamesTheIdAndTheRange) {
  backend::validate_instance_mesh_id(2, 3);
  expect_throw_text<std::out_of_range>([] { backend::validate_instance_mesh_id(3, 3); },
                                       "instance mesh id 3 is outside [0, 3)");
  expect_throw_text<std::out_of_range>([] { backend::validate_instance_mesh_id(-1, 0); },
                                       "instance mesh id -1 is outside [0, 0)");
}

TEST(ExecutionRecord, NamesEveryIdentityAndRejectsGaps) {
  EXPECT_STREQ(backend_name(0), "optix");
  EXPECT_STREQ(backend_name(1), "vulkan");
  EXPECT_STREQ(backend_name(2), "embree");
  expect_throw_text<std::invalid_argument>([] { backend_name(3); },
                                           "unknown native backend identity");
  const char* expected[] = {"optical_backward",
                            "optical_forward",
                            "optical_flux",
                            "optical_brf",
                            "radiation_field_process",
                            "physiology_solver",
                            "photosynthesis_process_static",
                            "photosynthesis_process_dynamic",
                            "photosynthesis_process",
                            "energy_balance_process",
                            nullptr,
                            "sif_process_finalization",
                            "sif_source_assembly",
                            "lidar_point_cloud",
                            "lidar_waveform"};
  for (int w = 0; w < 15; ++w) {
    if (expected[w]) {
      EXPECT_STREQ(workflow_name(uint8_t(w)), expected[w]) << "workflow " << w;
    }
  }
  for (int w : {10, 15, 255})
    expect_throw_text<std::invalid_argument>([w] { workflow_name(uint8_t(w)); },
                                             "unknown native workflow identity");
}

TEST(ArrayChecks, BuildTextFromNameAndTail) {
  check_length("apar", 4, 4);
  expect_throw_text<std::invalid_argument>([] { check_length("apar", 3, 4); },
                                           "apar buffer length mismatch");
  const float good[] = {1.0f, -2.0f};
  check_finite("temperature", good, 2);
  const float bad[] = {1.0f, std::nanf("")};
  expect_throw_text<std::invalid_argument>([&] { check_finite("temperature", bad, 2); },
                                           "temperature contains a non-finite value");
  const float inf[] = {INFINITY};
  EXPECT_THROW(check_finite("x", inf, 1), std::invalid_argument);
}
