#include "core/memory_limit.h"

#include <unistd.h>

#include <cstdio>

namespace vesk {

namespace {
double physical_memory_bytes() {
  const long pages = sysconf(_SC_PHYS_PAGES), page = sysconf(_SC_PAGESIZE);
  return pages > 0 && page > 0 ? double(pages) * double(page) : 1e18;
}
}  // namespace

void check_request_memory(const std::string& what, double bytes) {
  const double limit = physical_memory_bytes();
  if (!(bytes > limit)) return;
  char text[160];
  std::snprintf(text, sizeof(text),
                " needs %.3g GB of memory, more than the %.3g GB of this machine", bytes / 1e9,
                limit / 1e9);
  throw RequestTooLarge(what + text);
}

}  // namespace vesk
