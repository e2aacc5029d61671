#include <unistd.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/mesh_generators.h"
#include "test_util.h"
#include "turbid/domain.h"
#include "vulkan/buffer.h"
#include "vulkan/context.h"
#include "vulkan/device_scene.h"
#include "vulkan/scene_manager.h"

using namespace vesk::vulkan;

namespace {

DeviceInfo device(const char* name, int32_t type, uint64_t mb, bool compatible,
                  uint32_t vendor = 0x10de, uint32_t id = 1) {
  DeviceInfo d;
  d.name = name;
  d.device_type = type;
  d.device_local_memory_mb = mb;
  d.vendor_id = vendor;
  d.device_id = id;
  d.api_version = VK_API_VERSION_1_3;
  d.has_compute_queue = d.has_acceleration_structure = d.has_ray_query =
      d.has_buffer_device_address = compatible;
  judge_compatibility(d);
  return d;
}

std::vector<std::string> names(const std::vector<DeviceInfo>& ds) {
  std::vector<std::string> n;
  for (const DeviceInfo& d : ds) n.push_back(d.name);
  return n;
}

constexpr int32_t DISCRETE = VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU;
constexpr int32_t INTEGRATED = VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU;
constexpr int32_t CPU = VK_PHYSICAL_DEVICE_TYPE_CPU;

}  // namespace

TEST(VulkanRanking, CompatibilityComesFirstThenTypeThenMemory) {
  const auto r = rank_devices({device("cpu", CPU, 1 << 20, true),
                               device("big discrete, no ray query", DISCRETE, 1 << 16, false),
                               device("integrated", INTEGRATED, 512, true),
                               device("small discrete", DISCRETE, 4096, true),
                               device("large discrete", DISCRETE, 8192, true)});
  EXPECT_EQ(names(r), (std::vector<std::string>{"large discrete", "small discrete", "integrated",
                                                "cpu", "big discrete, no ray query"}));
  // Only compatible devices are numbered, in ranking order.
  EXPECT_EQ(r[0].device_index, 0);
  EXPECT_EQ(r[3].device_index, 3);
  EXPECT_EQ(r[4].device_index, -1);
}

TEST(VulkanRanking, TiesFallToVendorDeviceNameAndThenEnumerationOrder) {
  std::vector<DeviceInfo> in = {device("b", DISCRETE, 8192, true, 0x1002, 7),
                                device("a", DISCRETE, 8192, true, 0x1002, 7),
                                device("z", DISCRETE, 8192, true, 0x1002, 3),
                                device("y", DISCRETE, 8192, true, 0x10de, 1),
                                device("twin", DISCRETE, 8192, true, 0x8086, 9),
                                device("twin", DISCRETE, 8192, true, 0x8086, 9)};
  for (size_t i = 0; i < in.size(); ++i) in[i].physical_index = int32_t(i);
  const auto r = rank_devices(in);
  EXPECT_EQ(names(r), (std::vector<std::string>{"z", "a", "b", "y", "twin", "twin"}));
  EXPECT_EQ(r[4].physical_index, 4) << "identical GPUs must keep their enumeration order";
  EXPECT_EQ(r[5].physical_index, 5);
}

TEST(VulkanRanking, TheFirstMissingRequirementNamesTheReason) {
  struct Case {
    uint32_t api;
    bool queue, as, rq, bda;
    const char* reason;
  } cases[] = {
      {VK_API_VERSION_1_1, false, false, false, false, "requires Vulkan 1.2"},
      {VK_API_VERSION_1_2, false, false, false, false, "no compute queue"},
      {VK_API_VERSION_1_2, true, false, false, false, "acceleration structures unavailable"},
      {VK_API_VERSION_1_2, true, true, false, false, "ray query unavailable"},
      {VK_API_VERSION_1_2, true, true, true, false, "buffer device address unavailable"},
      {VK_API_VERSION_1_2, true, true, true, true, ""},
  };
  for (const Case& c : cases) {
    DeviceInfo d;
    d.api_version = c.api;
    d.has_compute_queue = c.queue, d.has_acceleration_structure = c.as;
    d.has_ray_query = c.rq, d.has_buffer_device_address = c.bda;
    judge_compatibility(d);
    EXPECT_EQ(d.unavailable_reason, c.reason);
    EXPECT_EQ(d.compatible, std::string(c.reason).empty());
  }
}

TEST(VulkanTracePath, PipelinesAloneMakeADeviceCompatibleAndForcingAMissingPathNamesIt) {
  DeviceInfo h100 = device("NVIDIA H100 80GB HBM3", DISCRETE, 81559, true);
  h100.has_ray_query = false;  // GPUs without RT cores: pipelines, no ray query
  h100.has_ray_tracing_pipeline = true;
  judge_compatibility(h100);
  EXPECT_TRUE(h100.compatible);
  EXPECT_EQ(choose_trace_path(h100, std::nullopt), TracePath::RayPipeline);
  EXPECT_EQ(choose_trace_path(h100, TracePath::RayPipeline), TracePath::RayPipeline);
  try {
    choose_trace_path(h100, TracePath::RayQuery);
    ADD_FAILURE() << "forcing ray query on a device without it must fail";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(),
                 "Vulkan: VESK_VULKAN_TRACE=query asks for the ray_query path, but device "
                 "'NVIDIA H100 80GB HBM3' has no ray query");
  }
  DeviceInfo both = device("both", DISCRETE, 8192, true);
  both.has_ray_tracing_pipeline = true;
  EXPECT_EQ(choose_trace_path(both, std::nullopt), TracePath::RayQuery) << "ray query is preferred";
  DeviceInfo query_only = device("query only", DISCRETE, 8192, true);
  EXPECT_THROW(choose_trace_path(query_only, TracePath::RayPipeline), std::runtime_error);
  h100.has_ray_tracing_pipeline = false;
  judge_compatibility(h100);
  EXPECT_EQ(h100.unavailable_reason, "ray query unavailable");
}

// On a machine with a compatible device (lavapipe in CI): the buffer contract.
class VulkanDevice : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const DeviceInfo& d : VulkanContext::enumerate_devices())
      if (d.compatible) context = std::make_unique<VulkanContext>(0);
  }
  static void TearDownTestSuite() {
    context.reset();
    EXPECT_EQ(validation_message_count(), 0u) << "the validation layer reported messages";
  }
  void SetUp() override {
    if (!context) GTEST_SKIP() << "no Vulkan device with ray queries on this machine";
  }
  static std::unique_ptr<VulkanContext> context;
};
std::unique_ptr<VulkanContext> VulkanDevice::context;

TEST_F(VulkanDevice, BuffersRoundTripAndRefuseOutsideTheirAllocation) {
  Buffer b(*context, 64, VK_BUFFER_USAGE_STORAGE_BUFFER_BIT | VK_BUFFER_USAGE_TRANSFER_DST_BIT,
           HOST_SHARED, HOST_ONLY);
  const float in[4] = {1.5f, -2.0f, 3.25f, 1e30f};
  b.upload(in, sizeof(in), 16);
  float out[4] = {};
  b.download(out, sizeof(out), 16);
  EXPECT_EQ(std::memcmp(in, out, sizeof(in)), 0);
  expect_throw_text<std::out_of_range>([&] { b.upload(in, sizeof(in), 49); },
                                       "Vulkan: buffer upload is outside allocation");
  expect_throw_text<std::out_of_range>([&] { b.download(out, 8, 60); },
                                       "Vulkan: buffer download is outside allocation");
  expect_throw_text<std::invalid_argument>(
      [&] { Buffer(*context, 0, VK_BUFFER_USAGE_STORAGE_BUFFER_BIT, HOST_ONLY); },
      "Vulkan buffer size must be non-zero");

  // The device fills it; the host then sees the device's writes.
  context->immediate_submit([&](VkCommandBuffer cb) {
    context->fn().vkCmdFillBuffer(cb, b.handle(), 0, 64, 0x3f800000u);
  });
  b.download(out, sizeof(out), 0);
  EXPECT_EQ(out[0], 1.0f);
  EXPECT_EQ(out[3], 1.0f);

  Buffer moved = std::move(b);
  EXPECT_TRUE(b.empty());
  EXPECT_EQ(moved.size(), 64u);
  moved.release();
  moved.release();  // a second release does nothing
  EXPECT_TRUE(moved.empty());
}

TEST_F(VulkanDevice, AFallbackThatIsNotHostVisibleShowsInTheFlagsAndRefusesUploads) {
  // Protected memory is not offered to this context: the fallback is taken.
  Buffer b(*context, 16, VK_BUFFER_USAGE_STORAGE_BUFFER_BIT, VK_MEMORY_PROPERTY_PROTECTED_BIT,
           VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT);
  EXPECT_EQ(b.memory_flags(), unsigned(VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT));
  const float x = 1.0f;
  expect_throw_text<std::runtime_error>([&] { b.upload(&x, 4, 0); },
                                        "Vulkan: buffer memory is not host visible");
  expect_throw_text<std::runtime_error>(
      [&] {
        Buffer(*context, 16, VK_BUFFER_USAGE_STORAGE_BUFFER_BIT, VK_MEMORY_PROPERTY_PROTECTED_BIT);
      },
      "Vulkan: no compatible memory type");
}

TEST_F(VulkanDevice, AFailedRecordingLeavesTheCommandPathUsable) {
  EXPECT_THROW(context->immediate_submit([](VkCommandBuffer) { throw std::runtime_error("x"); }),
               std::runtime_error);
  bool ran = false;
  context->immediate_submit([&](VkCommandBuffer) { ran = true; });
  EXPECT_TRUE(ran);
}

namespace {

// The device programs: build/python, beside this binary's folder.
std::string program_dir() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  std::string exe(path, n > 0 ? size_t(n) : 0);
  return exe.substr(0, exe.find_last_of('/')) + "/python";
}

}  // namespace

TEST_F(VulkanDevice, SamplerCandidatesRejectedOnesIncludedAreTheCpuFillersBits) {
  VulkanSceneManager scene(*context, "trace_closest.spv", program_dir());
  const vesk::backend::MeshGeometry sphere = vesk::make_sphere(1.0f, {0.5f, -2.0f, 3.0f}, 2);
  vesk::turbid::PreparedTurbidSamplingOwner o;
  for (const auto& t : sphere.indices)
    for (int32_t i : {t.x, t.y, t.z})
      o.triangles.push_back({sphere.vertices[size_t(i)].x, sphere.vertices[size_t(i)].y,
                             sphere.vertices[size_t(i)].z, 0.0f});
  const float lo[3] = {-0.5f, -3.0f, 2.0f}, hi[3] = {1.5f, -1.0f, 4.0f};
  std::copy(lo, lo + 3, o.boundary.bounds_min);
  std::copy(hi, hi + 3, o.boundary.bounds_max);
  const vesk::turbid::CandidateFiller device = scene.turbid_candidate_filler();
  const vesk::turbid::CandidateFiller host = vesk::turbid::cpu_candidate_filler();
  for (int32_t lad = 0; lad <= 5; ++lad) {
    o.request.leaf_angle_distribution = lad;
    o.scramble_key = 0x9e3779b9u * uint32_t(lad + 1);
    for (const uint32_t first : {0u, 4000000000u}) {
      std::vector<vesk::turbid::TurbidSamplingCandidate> a(3000), b(3000);
      host(o, first, a);
      device(o, first, b);
      size_t accepted = 0;
      for (const auto& c : a) accepted += c.status == 1;
      EXPECT_GT(accepted, 1000u);
      EXPECT_LT(accepted, 2000u) << "the bounds hold the sphere with room to reject";
      EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])), 0)
          << "leaf angle distribution " << lad << ", first candidate " << first;
    }
  }
}

// Net assimilation as the host solves it, to float rounding (umol m-2 s-1).
static void expect_an_close(const std::vector<float>& device,
                            const vesk::backend::PhysiologyRequestView& v) {
  const std::vector<float> host = vesk::backend::solve_physiology(v).an;
  ASSERT_EQ(device.size(), host.size());
  for (size_t i = 0; i < host.size(); ++i)
    EXPECT_NEAR(device[i], host[i], 1e-3f) << "element " << i;
}

TEST_F(VulkanDevice, PhysiologyWorkspaceKeepsItsShapeAndUploadsStaticInputsOnRequest) {
  const size_t n = 3;
  std::vector<float> apar(n, 400.0f), temperature(n, 298.0f), co2(n, 400.0f), rh(n, 0.6f),
      vpd(n, 1.0f), pressure(n, 100.0f), wind(n, 1.0f), vcmax(n, 60.0f), jmax(n, 120.0f),
      rd(n, 1.0f), slope(n, 9.0f), g0(n, 0.01f), qy(n, 0.03f);
  vesk::backend::PhysiologyRequestView v;
  v.n_elements = int32_t(n), v.n_bands = 1, v.max_iterations = 50, v.tolerance = 1e-4f;
  auto span = [&](std::vector<float>& x) { return vesk::backend::FloatSpan{x.data(), x.size()}; };
  v.apar = span(apar), v.temperature = span(temperature), v.co2 = span(co2);
  v.relative_humidity = span(rh), v.vpd = span(vpd), v.pressure = span(pressure);
  v.wind = span(wind), v.vcmax25 = span(vcmax), v.jmax25 = span(jmax), v.rd25 = span(rd);
  v.ball_berry_slope = span(slope), v.ball_berry_intercept = span(g0), v.quantum_yield = span(qy);
  PhysiologyWorkspace w(*context, program_dir() + "/physiology.spv", int32_t(n), 1, false);
  vesk::backend::PhysiologyResult first, kept, fresh;
  w.solve(v, false, first);
  EXPECT_EQ(first.execution.executor, "vulkan.slang.physiology_solver");
  expect_an_close(first.an, v);
  // A coupling loop's call: the biochemistry stays as first uploaded, the light is new.
  std::fill(vcmax.begin(), vcmax.end(), 20.0f);
  apar[1] = 0.0f;
  w.solve(v, false, kept);
  std::fill(vcmax.begin(), vcmax.end(), 60.0f);
  expect_an_close(kept.an, v);
  std::fill(vcmax.begin(), vcmax.end(), 20.0f);
  w.solve(v, true, fresh);
  expect_an_close(fresh.an, v);
  EXPECT_LT(fresh.an[0], kept.an[0]) << "a lower Vcmax must lower assimilation";

  v.read_back_outputs = false;
  w.solve(v, false, kept);
  EXPECT_TRUE(kept.an.empty() && kept.temperature.empty());
  EXPECT_EQ(kept.converged, fresh.converged);
  v.n_bands = 3;
  std::vector<float> wide(3 * n, 100.0f);
  v.apar = span(wide);
  expect_throw_text<std::invalid_argument>([&] { w.solve(v, false, kept); },
                                           "physiology workspace shape does not match request");
  v.n_bands = 1, v.apar = span(apar), v.dynamic_energy_balance = true;
  std::vector<float> sw(n, 300.0f), lw(n, 350.0f), ta(n, 297.0f), ea(n, 1500.0f), em(n, 0.95f),
      side(n, 2.0f), width(n, 0.05f), stom(n, 1.0f);
  v.absorbed_shortwave = span(sw), v.absorbed_longwave = span(lw), v.air_temperature = span(ta);
  v.vapor_pressure = span(ea), v.emissivity = span(em), v.sidedness = span(side);
  v.leaf_width = span(width), v.stomata_sides = span(stom);
  expect_throw_text<std::invalid_argument>(
      [&] { w.solve(v, false, kept); }, "physiology workspace cannot change energy-balance mode");
}
