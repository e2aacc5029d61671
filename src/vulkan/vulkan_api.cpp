// Opening the Vulkan loader at run time and the error convention of the backend.
#include "vulkan/vulkan_api.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <stdexcept>

namespace vesk::vulkan {

namespace {

struct Loader {
  GlobalFunctions fn;
  bool ok = false;
  std::string failure;
};

const Loader& the_loader() {
  static Loader l;
  static std::once_flag once;
  std::call_once(once, [] {
    // Never closed: drivers keep threads and atexit handlers inside it.
    void* lib = dlopen("libvulkan.so.1", RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
      const char* e = dlerror();
      l.failure = std::string("Vulkan: the Vulkan loader libvulkan.so.1 could not be opened: ") +
                  (e ? e : "unknown reason");
      return;
    }
    l.fn.vkGetInstanceProcAddr =
        reinterpret_cast<PFN_vkGetInstanceProcAddr>(dlsym(lib, "vkGetInstanceProcAddr"));
    if (!l.fn.vkGetInstanceProcAddr) {
      l.failure = "Vulkan: the Vulkan loader has no vkGetInstanceProcAddr";
      return;
    }
#define VESK_VK_LOAD_GLOBAL(name) \
  l.fn.name = reinterpret_cast<PFN_##name>(l.fn.vkGetInstanceProcAddr(nullptr, #name));
    VESK_VK_GLOBAL_FUNCTIONS(VESK_VK_LOAD_GLOBAL)
#undef VESK_VK_LOAD_GLOBAL
    // vkEnumerateInstanceVersion is absent from 1.0 loaders; the rest must be there.
    if (!l.fn.vkCreateInstance || !l.fn.vkEnumerateInstanceExtensionProperties ||
        !l.fn.vkEnumerateInstanceLayerProperties) {
      l.failure = "Vulkan: the Vulkan loader lacks its global entry points";
      return;
    }
    l.ok = true;
  });
  return l;
}

std::atomic<uint64_t> validation_messages{0};

}  // namespace

const GlobalFunctions* loader() {
  const Loader& l = the_loader();
  return l.ok ? &l.fn : nullptr;
}

const std::string& loader_failure() {
  return the_loader().failure;
}

VulkanError::VulkanError(const std::string& label, VkResult r)
    : std::runtime_error(label + " failed (" + std::to_string(int(r)) + ")"), result(r) {}

void check(VkResult r, const char* label) {
  if (r != VK_SUCCESS) throw VulkanError(label, r);
}

bool validation_requested() {
  const char* v = std::getenv("VESK_VULKAN_VALIDATION");
  return v && *v && std::string(v) != "0";
}

uint64_t validation_message_count() {
  return validation_messages.load();
}

// Called by the messenger (context.cpp).
void count_validation_message() {
  ++validation_messages;
}

}  // namespace vesk::vulkan
