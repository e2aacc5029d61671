#pragma once
// The tracers' way of using threads: plain worker threads over native memory, the
// calling thread free to report progress and to notice interrupts, every worker joined
// before anything leaves.

#include <atomic>
#include <cstdint>
#include <functional>

namespace vesk {

// threads >= 1 is taken as given. Otherwise VESK_NUM_THREADS, else OMP_NUM_THREADS (its
// first entry), else the CPUs this process may run on (its affinity mask), else 1.
int resolve_thread_count(int threads);

// The host's interrupt check, run on the calling thread while workers run: it throws
// (the host's own exception) when the user asked to stop. Empty by default; the Python
// module installs one that turns a pending Ctrl-C into KeyboardInterrupt.
using InterruptPoll = void (*)();
void set_interrupt_poll(InterruptPoll poll);
// Runs the installed check, if any. Call it only on the thread that started the run.
void poll_interrupt();
// How often a waiting calling thread wakes up to run the check.
constexpr int INTERRUPT_POLL_MS = 100;

// Runs worker(t) for t = 0 .. threads - 1 on plain threads while the calling thread
// runs `caller`, or, when `caller` is empty, waits for the workers and polls for
// interrupts every INTERRUPT_POLL_MS. A caller that waits itself must poll too. Every
// worker is joined before this returns; the first exception of the caller or of any
// worker is rethrown after the join. `cancel` is raised as soon as anything throws, so
// that long loops can stop early.
void run_workers(int threads, const std::function<void(int)>& worker,
                 const std::function<void()>& caller, std::atomic<bool>& cancel);

// How often, at least, a counted run with a listener tells it how far it got: a user
// watching a progress bar wants to see it move, whatever the size of a round.
constexpr int PROGRESS_INTERVAL_MS = 250;
// Items per batch of a counted run: a listener hears of every batch end, counted from the
// first item of the run, whatever the rounds the work runs in.
constexpr int64_t PROGRESS_BATCH = 1000000;

// Items first .. first + count - 1 in rounds of round_size, in order. Each round starts
// `threads` workers that take chunks [first + k chunk, first + (k + 1) chunk) (the last
// one cut at the end) from one atomic counter and call work(worker, begin, end). With
// first and round_size multiples of chunk, every chunk is aligned to absolute indices,
// whatever the range, so a chunk's work can be the same in any split of the items.
// When `report` is set, the calling thread runs report(items done, in finished chunks)
// every PROGRESS_INTERVAL_MS while a round runs (only when the count moved), once with
// exactly k * PROGRESS_BATCH at each batch end that the run passes (noticed within
// INTERRUPT_POLL_MS), and last with report(count). Reports never go backwards. How often
// anyone is told changes nothing in the work.
void run_counted(int threads, int64_t first, int64_t count, int64_t round_size, int64_t chunk,
                 const std::function<void(int, int64_t, int64_t)>& work,
                 const std::function<void(int64_t)>& report);

}  // namespace vesk
