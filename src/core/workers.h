#pragma once
// The tracers' way of using threads: plain worker threads over native memory, the
// calling thread free to report progress, every worker joined before anything leaves.

#include <atomic>
#include <functional>

namespace vesk {

// threads < 1 means one per hardware thread (and 1 if that is unknown).
int resolve_thread_count(int threads);

// Runs worker(t) for t = 0 .. threads - 1 on plain threads while the calling thread
// runs `caller` (it may be empty). Every worker is joined before this returns; the
// first exception of the caller or of any worker is rethrown after the join. `cancel`
// is raised as soon as anything throws, so that long loops can stop early.
void run_workers(int threads, const std::function<void(int)>& worker,
                 const std::function<void()>& caller, std::atomic<bool>& cancel);

}  // namespace vesk
