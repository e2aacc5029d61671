#pragma once
// Progress reporting of the tracers: (done, total, elapsed milliseconds). An empty
// function means nobody listens, and the tracers then skip all reporting.

#include <functional>

namespace vesk {
using ProgressFn = std::function<void(long, long, float)>;
}  // namespace vesk
