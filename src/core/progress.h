#pragma once
// Progress reporting of the tracers: (done, total, elapsed milliseconds). An empty
// function means nobody listens, and the tracers then skip all reporting.

#include <chrono>
#include <functional>

namespace vesk {

using ProgressFn = std::function<void(long, long, float)>;

// Milliseconds of wall-clock time since start, from nanoseconds, as progress reports it.
inline float elapsed_ms(std::chrono::steady_clock::time_point start) {
  return float(std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
                   .count() /
               1e6);
}

}  // namespace vesk
