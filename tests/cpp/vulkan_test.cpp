#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "test_util.h"
#include "vulkan/buffer.h"
#include "vulkan/context.h"

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
