#include "core/workers.h"

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

}  // namespace vesk
