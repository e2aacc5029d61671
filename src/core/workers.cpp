#include "core/workers.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace vesk {

int resolve_thread_count(int threads) {
  if (threads >= 1) return threads;
  const unsigned hw = std::thread::hardware_concurrency();
  return hw < 1 ? 1 : int(hw);
}

void run_workers(int threads, const std::function<void(int)>& worker,
                 const std::function<void()>& caller, std::atomic<bool>& cancel) {
  std::exception_ptr first;
  std::mutex first_mutex;
  auto record = [&](std::exception_ptr e) {
    cancel.store(true);
    std::lock_guard<std::mutex> lock(first_mutex);
    if (!first) first = e;
  };
  std::vector<std::thread> pool;
  pool.reserve(size_t(threads));
  try {
    for (int t = 0; t < threads; ++t) {
      pool.emplace_back([&, t] {
        try {
          worker(t);
        } catch (...) {
          record(std::current_exception());
        }
      });
    }
    if (caller) caller();
  } catch (...) {
    record(std::current_exception());
  }
  for (std::thread& th : pool) th.join();
  if (first) std::rethrow_exception(first);
}

void run_counted(int threads, int64_t total, int64_t round_size, int64_t chunk,
                 const std::function<void(int, int64_t, int64_t)>& work,
                 const std::function<void(int64_t)>& after_round) {
  std::atomic<bool> cancel{false};
  for (int64_t start = 0; start < total; start += round_size) {
    const int64_t end = std::min(total, start + round_size);
    std::atomic<int64_t> next{start};
    run_workers(
        threads,
        [&](int t) {
          while (!cancel.load(std::memory_order_relaxed)) {
            const int64_t b = next.fetch_add(chunk);
            if (b >= end) return;
            work(t, b, std::min(end, b + chunk));
          }
        },
        {}, cancel);
    if (after_round) after_round(end);
  }
}

}  // namespace vesk
