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

// A closest-hit query whose candidate hits are first put to `reject` (the instance's
// geometry id in the top scene and the distance): a rejected candidate is passed over as
// if it were not there. Only scenes made with FILTER_SCENE_FLAG call it.
using RejectHit = bool (*)(const void* user, unsigned instance, float t);
struct FilteredQuery {
#if VESK_EMBREE_MAJOR >= 4
  RTCRayQueryContext context;  // first, so that the filter finds the rest behind it
#else
  RTCIntersectContext context;
#endif
  RejectHit reject = nullptr;
  const void* user = nullptr;
};

#if VESK_EMBREE_MAJOR >= 4
constexpr RTCSceneFlags FILTER_SCENE_FLAG = RTC_SCENE_FLAG_FILTER_FUNCTION_IN_ARGUMENTS;
#else
constexpr RTCSceneFlags FILTER_SCENE_FLAG = RTC_SCENE_FLAG_CONTEXT_FILTER_FUNCTION;
#endif

inline void reject_filter(const RTCFilterFunctionNArguments* args) {
  const auto* q = reinterpret_cast<const FilteredQuery*>(args->context);
  for (unsigned i = 0; i < args->N; ++i)
    if (args->valid[i] != 0 &&
        q->reject(q->user, RTCHitN_instID(args->hit, args->N, i, 0),
                  RTCRayN_tfar(args->ray, args->N, i)))
      args->valid[i] = 0;
}

inline void intersect1_filtered(RTCScene scene, RTCRayHit& ray_hit, FilteredQuery& q) {
  VESK_COUNT_RAY(closest);
  VESK_RECORD_RAY(false, &ray_hit.ray.org_x, &ray_hit.ray.dir_x);
#if VESK_EMBREE_MAJOR >= 4
  rtcInitRayQueryContext(&q.context);
  RTCIntersectArguments args;
  rtcInitIntersectArguments(&args);
  args.context = &q.context;
  args.filter = reject_filter;
  args.flags = RTCRayQueryFlags(args.flags | RTC_RAY_QUERY_FLAG_INVOKE_ARGUMENT_FILTER);
  rtcIntersect1(scene, &ray_hit, &args);
#else
  rtcInitIntersectContext(&q.context);
  q.context.filter = reject_filter;
  rtcIntersect1(scene, &q.context, &ray_hit);
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
