#pragma once
// vesk::vulkan::Buffer: one VkBuffer and its memory, move-only. Host-visible memory is
// reached by upload and download; other memory needs a transfer path of its own.

#include <cstdint>
#include <optional>

#include "vulkan/context.h"
#include "vulkan/vulkan_api.h"

namespace vesk::vulkan {

class Buffer {
 public:
  Buffer() = default;
  // Takes a memory type with `preferred` properties, else with `fallback` (recorded as
  // the flags received). Throws std::invalid_argument for size 0.
  Buffer(const VulkanContext& context, unsigned long size, unsigned usage, unsigned preferred,
         std::optional<unsigned> fallback = std::nullopt);
  ~Buffer() { release(); }
  Buffer(Buffer&& other) noexcept { *this = std::move(other); }
  Buffer& operator=(Buffer&& other) noexcept;
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  void upload(const void* data, unsigned long size, unsigned long offset = 0);
  void download(void* data, unsigned long size, unsigned long offset = 0) const;
  VkDeviceAddress device_address() const;
  void release();

  VkBuffer handle() const { return buffer_; }
  uint64_t size() const { return size_; }
  uint32_t memory_flags() const { return flags_; }
  bool empty() const { return buffer_ == VK_NULL_HANDLE; }

 private:
  const VulkanContext* context_ = nullptr;
  VkBuffer buffer_ = VK_NULL_HANDLE;
  VkDeviceMemory memory_ = VK_NULL_HANDLE;
  uint64_t size_ = 0;
  uint32_t flags_ = 0;
};

// Memory the host writes and reads directly: device-local where the device offers it
// host-visible, else plain host memory.
constexpr unsigned HOST_SHARED = VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT |
                                 VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT |
                                 VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;
constexpr unsigned HOST_ONLY =
    VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;

}  // namespace vesk::vulkan
