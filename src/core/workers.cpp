#include "core/workers.h"

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace vesk {

namespace {

// A positive count at the start of the variable's value ("4", or "4,2" for OpenMP's
// nested form); 0 when unset or unreadable.
int count_from_env(const char* name) {
  const char* v = std::getenv(name);
  if (!v) return 0;
  char* end = nullptr;
  const long n = std::strtol(v, &end, 10);
  if (end == v || n < 1) return 0;
  return int(std::min<long>(n, 4096));
}

std::atomic<InterruptPoll> installed_poll{nullptr};

}  // namespace

int resolve_thread_count(int threads) {
  if (threads >= 1) return threads;
  if (const int n = count_from_env("VESK_NUM_THREADS")) return n;
  if (const int n = count_from_env("OMP_NUM_THREADS")) return n;
  cpu_set_t mask;
  if (sched_getaffinity(0, sizeof(mask), &mask) == 0) {
    const int n = CPU_COUNT(&mask);
    if (n >= 1) return n;
  }
  const unsigned hw = std::thread::hardware_concurrency();
  return hw < 1 ? 1 : int(hw);
}

void set_interrupt_poll(InterruptPoll poll) {
  installed_poll.store(poll);
}

void poll_interrupt() {
  if (const InterruptPoll p = installed_poll.load()) p();
}

void run_workers(int threads, const std::function<void(int)>& worker,
                 const std::function<void()>& caller, std::atomic<bool>& cancel) {
  std::exception_ptr first;
  std::mutex mutex;  // guards `first` and `running`
  std::condition_variable finished;
  int running = threads;
  auto record = [&](std::exception_ptr e) {
    cancel.store(true);
    std::lock_guard<std::mutex> lock(mutex);
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
        {
          std::lock_guard<std::mutex> lock(mutex);
          --running;
        }
        finished.notify_one();
      });
    }
    if (caller) {
      caller();
    } else {
      std::unique_lock<std::mutex> lock(mutex);
      while (running > 0) {
        finished.wait_for(lock, std::chrono::milliseconds(INTERRUPT_POLL_MS));
        if (running == 0) break;
        lock.unlock();
        poll_interrupt();
        lock.lock();
      }
    }
  } catch (...) {
    record(std::current_exception());
  }
  for (std::thread& th : pool) th.join();
  if (first) std::rethrow_exception(first);
}

void run_counted(int threads, int64_t first, int64_t count, int64_t round_size, int64_t chunk,
                 const std::function<void(int, int64_t, int64_t)>& work,
                 const std::function<void(int64_t)>& report) {
  using clock = std::chrono::steady_clock;
  const auto interval = std::chrono::milliseconds(PROGRESS_INTERVAL_MS);
  std::atomic<bool> cancel{false};
  auto last_report = clock::now();
  int64_t reported = 0, next_batch = PROGRESS_BATCH;
  auto tell = [&](int64_t n) {
    if (n > reported) report(n), reported = n;
  };
  // Every batch end that `done` items have passed, in order; the last one is the run's end.
  auto batch_ends = [&](int64_t done) {
    for (; next_batch <= done && next_batch < count; next_batch += PROGRESS_BATCH) {
      tell(next_batch);
      last_report = clock::now();
    }
  };
  const int64_t stop = first + count;
  for (int64_t start = first; start < stop; start += round_size) {
    const int64_t end = std::min(stop, start + round_size);
    std::atomic<int64_t> next{start}, finished{start - first};
    std::mutex mutex;  // guards `running`
    std::condition_variable stopped;
    int running = threads;
    // Decrements `running` however the worker leaves, so the waiting caller wakes up.
    struct Leaving {
      std::mutex& m;
      std::condition_variable& cv;
      int& running;
      ~Leaving() {
        {
          std::lock_guard<std::mutex> lock(m);
          --running;
        }
        cv.notify_one();
      }
    };
    auto worker = [&](int t) {
      Leaving leaving{mutex, stopped, running};
      while (!cancel.load(std::memory_order_relaxed)) {
        const int64_t b = next.fetch_add(chunk);
        if (b >= end) return;
        const int64_t e = std::min(end, b + chunk);
        work(t, b, e);
        finished.fetch_add(e - b, std::memory_order_relaxed);
      }
    };
    std::function<void()> caller;
    if (report) {
      caller = [&] {
        std::unique_lock<std::mutex> lock(mutex);
        while (running > 0) {
          const auto wake = std::min(last_report + interval,
                                     clock::now() + std::chrono::milliseconds(INTERRUPT_POLL_MS));
          stopped.wait_until(lock, wake);
          if (running == 0) break;
          lock.unlock();
          poll_interrupt();
          const int64_t n = finished.load(std::memory_order_relaxed);
          batch_ends(n);
          if (clock::now() >= last_report + interval) {
            tell(n);
            last_report = clock::now();
          }
          lock.lock();
        }
      };
    }
    run_workers(threads, worker, caller, cancel);
    if (report) {
      batch_ends(end - first);
      if (end == stop) report(count), reported = count;
    }
  }
}

}  // namespace vesk
