#include "vulkan/buffer.h"

#include <cstring>
#include <stdexcept>

namespace vesk::vulkan {

Buffer::Buffer(const VulkanContext& context, unsigned long size, unsigned usage, unsigned preferred,
               std::optional<unsigned> fallback)
    : context_(&context) {
  if (size == 0) throw std::invalid_argument("Vulkan buffer size must be non-zero");
  const DeviceFunctions& fn = context.fn();
  const VkDevice dev = context.device();
  VkBufferCreateInfo bi{};
  bi.sType = VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO;
  bi.size = size;
  bi.usage = usage;
  bi.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
  check(fn.vkCreateBuffer(dev, &bi, nullptr, &buffer_), "vkCreateBuffer");
  size_ = size;
  try {
    VkMemoryRequirements req{};
    fn.vkGetBufferMemoryRequirements(dev, buffer_, &req);
    VkMemoryAllocateFlagsInfo flags{};
    flags.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_FLAGS_INFO;
    flags.flags = VK_MEMORY_ALLOCATE_DEVICE_ADDRESS_BIT;
    VkMemoryAllocateInfo ai{};
    ai.sType = VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO;
    if (usage & VK_BUFFER_USAGE_SHADER_DEVICE_ADDRESS_BIT) ai.pNext = &flags;
    ai.allocationSize = req.size;
    flags_ = preferred;
    try {
      ai.memoryTypeIndex = context.find_memory_type(req.memoryTypeBits, preferred);
    } catch (const std::runtime_error&) {
      if (!fallback) throw;
      ai.memoryTypeIndex = context.find_memory_type(req.memoryTypeBits, *fallback);
      flags_ = *fallback;
    }
    check(fn.vkAllocateMemory(dev, &ai, nullptr, &memory_), "vkAllocateMemory");
    check(fn.vkBindBufferMemory(dev, buffer_, memory_, 0), "vkBindBufferMemory");
  } catch (...) {
    release();
    throw;
  }
}

Buffer& Buffer::operator=(Buffer&& other) noexcept {
  if (this != &other) {
    release();
    context_ = other.context_;
    buffer_ = other.buffer_;
    memory_ = other.memory_;
    size_ = other.size_;
    flags_ = other.flags_;
    other.buffer_ = VK_NULL_HANDLE;
    other.memory_ = VK_NULL_HANDLE;
    other.size_ = 0;
    other.flags_ = 0;
  }
  return *this;
}

void Buffer::release() {
  if (!context_) return;
  const DeviceFunctions& fn = context_->fn();
  if (buffer_) fn.vkDestroyBuffer(context_->device(), buffer_, nullptr);
  if (memory_) fn.vkFreeMemory(context_->device(), memory_, nullptr);
  buffer_ = VK_NULL_HANDLE;
  memory_ = VK_NULL_HANDLE;
  size_ = 0;
  flags_ = 0;
}

void Buffer::upload(const void* data, unsigned long size, unsigned long offset) {
  if (!(flags_ & VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT))
    throw std::runtime_error("Vulkan: buffer memory is not host visible");
  if (offset > size_ || size > size_ - offset)
    throw std::out_of_range("Vulkan: buffer upload is outside allocation");
  if (size == 0) return;
  const DeviceFunctions& fn = context_->fn();
  void* p = nullptr;
  check(fn.vkMapMemory(context_->device(), memory_, 0, VK_WHOLE_SIZE, 0, &p),
        "vkMapMemory(upload)");
  std::memcpy(static_cast<char*>(p) + offset, data, size);
  if (!(flags_ & VK_MEMORY_PROPERTY_HOST_COHERENT_BIT)) {
    VkMappedMemoryRange r{VK_STRUCTURE_TYPE_MAPPED_MEMORY_RANGE, nullptr, memory_, 0,
                          VK_WHOLE_SIZE};
    const VkResult res = fn.vkFlushMappedMemoryRanges(context_->device(), 1, &r);
    fn.vkUnmapMemory(context_->device(), memory_);
    check(res, "vkFlushMappedMemoryRanges(upload)");
    return;
  }
  fn.vkUnmapMemory(context_->device(), memory_);
}

void Buffer::download(void* data, unsigned long size, unsigned long offset) const {
  if (!(flags_ & VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT))
    throw std::runtime_error("Vulkan: buffer memory is not host visible");
  if (offset > size_ || size > size_ - offset)
    throw std::out_of_range("Vulkan: buffer download is outside allocation");
  if (size == 0) return;
  const DeviceFunctions& fn = context_->fn();
  void* p = nullptr;
  check(fn.vkMapMemory(context_->device(), memory_, 0, VK_WHOLE_SIZE, 0, &p),
        "vkMapMemory(download)");
  if (!(flags_ & VK_MEMORY_PROPERTY_HOST_COHERENT_BIT)) {
    VkMappedMemoryRange r{VK_STRUCTURE_TYPE_MAPPED_MEMORY_RANGE, nullptr, memory_, 0,
                          VK_WHOLE_SIZE};
    const VkResult res = fn.vkInvalidateMappedMemoryRanges(context_->device(), 1, &r);
    if (res != VK_SUCCESS) {
      fn.vkUnmapMemory(context_->device(), memory_);
      check(res, "vkInvalidateMappedMemoryRanges(download)");
    }
  }
  std::memcpy(data, static_cast<const char*>(p) + offset, size);
  fn.vkUnmapMemory(context_->device(), memory_);
}

VkDeviceAddress Buffer::device_address() const {
  VkBufferDeviceAddressInfo ai{};
  ai.sType = VK_STRUCTURE_TYPE_BUFFER_DEVICE_ADDRESS_INFO;
  ai.buffer = buffer_;
  return context_->fn().vkGetBufferDeviceAddress(context_->device(), &ai);
}

}  // namespace vesk::vulkan
