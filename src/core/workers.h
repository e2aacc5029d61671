#pragma once
// The tracers' way of using threads: plain worker threads over native memory, the
// calling thread free to report progress, every worker joined before anything leaves.

#include <atomic>
#include <cstdint>
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

// Items 0 .. total - 1 in rounds of round_size, in order. Each round starts `threads`
// workers that take chunks of consecutive indices from one atomic counter and call
// work(worker, begin, end); after each round's join the calling thread runs
// after_round(items done). Workers keep private accumulators indexed by `worker`,
// merged by the caller in worker order, so sums differ only in addition order.
void run_counted(int threads, int64_t total, int64_t round_size, int64_t chunk,
                 const std::function<void(int, int64_t, int64_t)>& work,
                 const std::function<void(int64_t)>& after_round);

}  // namespace vesk
