#pragma once
// The one door to Embree. Builds against Embree 3 (Debian) or Embree 4, chosen at
// configure time through VESK_EMBREE_MAJOR; no other file includes Embree.

#if VESK_EMBREE_MAJOR >= 4
#include <embree4/rtcore.h>
#else
#include <embree3/rtcore.h>
#endif

#include <cstdint>
#include "embree/ray_counters.h"

namespace vesk::embree::rtc {

// Closest hit along the ray, with no intersection arguments of our own.
inline void intersect1(RTCScene scene, RTCRayHit& ray_hit) {
  VESK_COUNT_RAY(closest);
  VESK_RECORD_RAY(false, &ray_hit.ray.org_x, &ray_hit.ray.dir_x);
#if VESK_EMBREE_MAJOR >= 4
  rtcIntersect1(scene, &ray_hit, nullptr);
#else
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  rtcIntersect1(scene, &context, &ray_hit);
#endif
}

// Any hit; Embree sets tfar to -inf when the ray is occluded.
inline void occluded1(RTCScene scene, RTCRay& ray) {
  VESK_COUNT_RAY(occluded);
  VESK_RECORD_RAY(true, &ray.org_x, &ray.dir_x);
#if VESK_EMBREE_MAJOR >= 4
  rtcOccluded1(scene, &ray, nullptr);
#else
  RTCIntersectContext context;
  rtcInitIntersectContext(&context);
  rtcOccluded1(scene, &context, &ray);
#endif
}

inline const char* error_text(RTCError code) {
  switch (code) {
    case RTC_ERROR_NONE: return "no error";
    case RTC_ERROR_INVALID_ARGUMENT: return "invalid argument";
    case RTC_ERROR_INVALID_OPERATION: return "invalid operation";
    case RTC_ERROR_OUT_OF_MEMORY: return "out of memory";
    case RTC_ERROR_UNSUPPORTED_CPU: return "unsupported CPU";
    case RTC_ERROR_CANCELLED: return "cancelled";
    default: return "unknown error";
  }
}

}  // namespace vesk::embree::rtc
