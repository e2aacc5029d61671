#pragma once
// Benchmark builds (VESK_BENCH_COUNTERS) count every ray handed to Embree, per thread,
// folded into a process total when the thread ends, and can record the rays so a raw
// Embree loop can replay exactly the same work. Normal builds have none of this.

#include <cstdint>
#include <vector>

namespace vesk::embree::rtc {

#ifdef VESK_BENCH_COUNTERS
struct RayCounters {
  uint64_t closest = 0, occluded = 0;
  ~RayCounters();
};
extern thread_local RayCounters ray_counters;
// Totals of finished threads plus the calling thread's own; reset zeroes both.
void read_ray_counters(uint64_t& closest, uint64_t& occluded);
void reset_ray_counters();

// While recording, every ray's origin and direction (6 floats) is appended to a
// per-thread buffer; take_recorded_rays() gathers and clears them (call after joins).
void set_ray_recording(bool on);
void record_ray(bool occluded, const float* org3, const float* dir3);
void take_recorded_rays(std::vector<float>& closest, std::vector<float>& occluded);
extern bool ray_recording;

#define VESK_COUNT_RAY(kind) (++::vesk::embree::rtc::ray_counters.kind)
#define VESK_RECORD_RAY(occluded, org, dir) \
  (::vesk::embree::rtc::ray_recording ? ::vesk::embree::rtc::record_ray(occluded, org, dir) : void())
#else
#define VESK_COUNT_RAY(kind) ((void)0)
#define VESK_RECORD_RAY(occluded, org, dir) ((void)0)
#endif

}  // namespace vesk::embree::rtc
