#pragma once
// The tracers' log lines: plain lines on standard output with a fixed prefix, flushed at
// once so they interleave with the host's own prints. VESK_QUIET silences them.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vesk {

// Read at every line rather than once, so a host that sets the variable after import
// (os.environ in Python) is obeyed. Any value but empty or "0" means quiet.
inline bool log_quiet() {
  const char* v = std::getenv("VESK_QUIET");
  return v && *v && std::strcmp(v, "0") != 0;
}

__attribute__((format(printf, 1, 2))) inline void log_line(const char* format, ...) {
  if (log_quiet()) return;
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
  std::fflush(stdout);
}

}  // namespace vesk
