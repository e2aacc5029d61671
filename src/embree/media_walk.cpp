#include "embree/media_walk.h"

#include <algorithm>
#include <cmath>

#include "core/tile.h"

namespace vesk::embree {

MediaScene MediaScene::from(const EmbreeSceneManager& scene) {
  MediaScene ms;
  ms.scene = &scene;
  ms.media = scene.optical_media().data();
  ms.n_media = scene.optical_media().size();
  ms.rep = scene.repetition();
  ms.z_lo = scene.min_height();
  ms.z_hi = scene.max_height();
  const scene::MediaBounds mb = scene::media_bounds(scene);
  ms.media_lo = mb.media_lo, ms.media_hi = mb.media_hi;
  ms.n_ghosts = mb.n_ghosts;
  for (int32_t g = 0; g < mb.n_ghosts; ++g) {
    ms.ghost_offset[g] = mb.ghost_offset[g];
    ms.ghost_lo[g] = mb.ghost_lo[g], ms.ghost_hi[g] = mb.ghost_hi[g];
  }
  return ms;
}

namespace {

bool ray_meets_box(const float3& o, const float3& d, float t_max, const float3& box_lo,
                   const float3& box_hi) {
  float t0 = 0.0f, t1 = t_max;
  const float os[3] = {o.x, o.y, o.z}, ds[3] = {d.x, d.y, d.z};
  const float lo[3] = {box_lo.x, box_lo.y, box_lo.z}, hi[3] = {box_hi.x, box_hi.y, box_hi.z};
  for (int a = 0; a < 3; ++a) {
    if (std::fabs(ds[a]) < 1e-12f) {
      if (os[a] < lo[a] || os[a] > hi[a]) return false;
      continue;
    }
    float ta = (lo[a] - os[a]) / ds[a], tb = (hi[a] - os[a]) / ds[a];
    if (ta > tb) std::swap(ta, tb);
    t0 = std::max(t0, ta);
    t1 = std::min(t1, tb);
    if (t0 > t1) return false;
  }
  return true;
}

}  // namespace

bool MediaScene::meets_media_box(const float3& o, const float3& d, float t_max) const {
  return ray_meets_box(o, d, t_max, media_lo, media_hi);
}

int MediaScene::border_exit(const float3& o, const float3& d, int32_t crossings, float& t) const {
  if (!rep.active() || crossings >= rep.num_repetitions || beyond_heights(o, d, z_lo, z_hi))
    return -1;
  return tile_exit(rep.scene_x_size, rep.scene_y_size, o, d, t);
}

// Far above the rounding error of a point on a wall or a boundary a few hundred metres
// from the origin, far below any feature of a scene.
constexpr float BACK_OFF = 1e-5f;

Segment next_segment(const MediaScene& ms, const float3& o, const float3& d, int32_t crossings,
                     bool in_media, RayStart start) {
  Segment s;
  if (start == RayStart::Wall || start == RayStart::Boundary) {
    // Nothing to step off: surfaces on the wall or the boundary are met, and bounding
    // surfaces the rescan has counted (or the one just crossed) are passed, even where
    // another surface lies at the very same distance.
    // The query starts a rounding error behind the point, so that a surface through it
    // (a ground under a layer that rests on it) is not missed for lying at -1e-7.
    s.hit = ms.scene->trace_ray_past_media(o - BACK_OFF * d, d, WALL_REACH + BACK_OFF, 1e30f);
    if (s.hit.hit) s.hit.t = std::fmax(s.hit.t - BACK_OFF, 0.0f);
  } else {
    s.hit = ms.scene->trace_ray_surface_first(o, d, start == RayStart::Point ? 0.0f : SURFACE_T_MIN, 1e30f);
  }
  const EmbreeHit& hit = s.hit;
  if (in_media || !hit.hit || ms.n_ghosts > 0) s.axis = ms.border_exit(o, d, crossings, s.border);
  if (ms.n_ghosts > 0) {
    // The neighbours' copies that reach into the tile: their bounding surfaces within
    // the tile, before the hit, from the ray moved into the instance's own frame.
    float reach = hit.hit ? hit.t : 1e30f;
    if (s.axis >= 0) reach = std::min(reach, s.border + BORDER_TIE);
    for (int32_t g = 0; g < ms.n_ghosts; ++g) {
      if (!ray_meets_box(o, d, reach, ms.ghost_lo[g], ms.ghost_hi[g])) continue;
      const float3 og = o - ms.ghost_offset[g];
      float t_min = start == RayStart::Surface    ? SURFACE_T_MIN
                    : start == RayStart::Boundary ? WALL_REACH
                                                  : 0.0f;
      for (int32_t k = 0; k < MAX_MEDIUM_CROSSINGS; ++k) {
        EmbreeHit h = ms.scene->trace_ray_surface_first(og, d, t_min, reach);
        if (!h.hit || !(h.t < reach)) break;
        t_min = std::nextafter(h.t, INFINITY);
        if (ms.medium_of(h) < 0 || (start == RayStart::Wall && h.t <= WALL_REACH)) continue;
        h.position = h.position + ms.ghost_offset[g];
        h.instance_id =
            int32_t(uint32_t(h.instance_id) | (uint32_t(g + 1) << MediaScene::GHOST_SHIFT));
        s.hit = h;
        reach = h.t;
        break;
      }
    }
    if (!in_media && hit.hit) s.axis = -1;  // out of media a hit is taken as it comes
  }
  s.at_border = s.axis >= 0 && (!hit.hit || hit.t > s.border + BORDER_TIE ||
                                (hit.t >= s.border - BORDER_TIE && ms.medium_of(hit) >= 0));
  // A boundary just short of the wall gives way to it, unless another surface lies
  // between them (the ground under a layer's floor, near a wall): crossing the wall
  // would pass under it, so the boundary is crossed first.
  if (s.at_border && hit.hit && hit.t < s.border && ms.medium_of(hit) >= 0) {
    const EmbreeHit behind = ms.scene->trace_ray_past_media(
        hit.position - BACK_OFF * d, d, WALL_REACH + BACK_OFF, s.border - hit.t + BACK_OFF);
    if (behind.hit && ms.medium_of(behind) < 0) s.at_border = false;
  }
  s.bound = s.at_border ? s.border : (hit.hit ? hit.t : 1e16f);
  return s;
}

namespace {

// Adds to `out` the media of the instances around p that contain it, by the forward scan,
// with `tag` in their keys; false when the list is full.
bool scan_media(const MediaScene& ms, const float3& p, const float3& d, uint32_t tag,
                ActiveMediumList& out) {
  if (!ms.in_media_box(p)) return true;
  uint32_t seen[MAX_MEDIUM_CROSSINGS];
  int32_t n_seen = 0;
  float3 o = p;
  for (int32_t step = 0; step < MAX_MEDIUM_CROSSINGS; ++step) {
    const EmbreeHit hit = ms.scene->trace_ray_surface_first(o, d, SURFACE_T_MIN, 1e30f);
    if (!hit.hit) return true;
    o = hit.position + MEDIUM_STEP * d;
    // Past the media box nothing ahead can bound a medium.
    if (!ms.in_media_box(o) && !ms.meets_media_box(o, d, 1e30f)) return true;
    const int32_t medium = ms.medium_of(hit);
    if (medium < 0) continue;
    const uint32_t key = uint32_t(hit.instance_id) | tag;
    bool known = false;
    for (int32_t i = 0; i < n_seen; ++i) known |= seen[i] == key;
    if (known) continue;
    if (n_seen == MAX_MEDIUM_CROSSINGS) return true;
    seen[n_seen++] = key;
    // Leaving through a face whose side matches the medium's orientation: p is inside.
    const int32_t side = hit.back_face ? 1 : -1;
    if (size_t(medium) < ms.n_media && ms.media[medium].orientation == side &&
        out.find(medium, key) < 0 && !out.add(medium, key))
      return false;
  }
  return true;
}

}  // namespace

void media_at_point(const MediaScene& ms, const float3& p, const float3& d, ActiveMediumList& out) {
  out.count = 0;
  if (!scan_media(ms, p, d, 0u, out)) return;
  // The neighbours' copies reaching into the tile overlap these as further media.
  for (int32_t g = 0; g < ms.n_ghosts; ++g)
    if (!scan_media(ms, p - ms.ghost_offset[g], d, uint32_t(g + 1) << MediaScene::GHOST_SHIFT, out))
      return;
}

void media_after_surface(const MediaScene& ms, const float3& surface, const float3& o,
                         const float3& d, ActiveMediumList& list) {
  if (!ms.in_media_box(o)) return;
  // From a rounding error behind the surface point, so that a boundary through it counts.
  const float3 from = surface - BACK_OFF * d;
  const float reach = BACK_OFF + 4.0f * length(o - surface);
  float t_min = 0.0f;
  for (int32_t k = 0; k < MAX_ACTIVE_MEDIA; ++k) {
    const EmbreeHit b = ms.scene->trace_media_boundary(from, d, t_min, reach);
    // A boundary that o has not passed (its normal faces the ray) is met from o.
    if (!b.hit || dot(o - b.position, b.geometric_normal) >= 0.0f) return;
    const int32_t medium = ms.medium_of(b);
    const uint32_t key = uint32_t(b.instance_id);
    // Through a face whose side matches the medium's orientation the ray leaves it.
    const bool leaving =
        size_t(medium) < ms.n_media && ms.media[medium].orientation == (b.back_face ? 1 : -1);
    const int32_t slot = list.find(medium, key);
    if (leaving && slot >= 0) list.remove(slot);
    if (!leaving && slot < 0 && !list.add(medium, key)) return;
    t_min = std::nextafter(b.t, INFINITY);
  }
}

bool toggle_medium(ActiveMediumList& list, int32_t medium, uint32_t instance) {
  const int32_t slot = list.find(medium, instance);
  if (slot >= 0) {
    list.remove(slot);
    return true;
  }
  return list.add(medium, instance);
}

bool cross_boundary(const MediaScene& ms, const EmbreeHit& hit, int32_t medium, const float3& d,
                    float3& o, ActiveMediumList& list, ActiveMediumList* first_order) {
  // The walk goes on from the boundary itself (RayStart::Boundary), not a step past it:
  // a step would carry it through a surface that lies on the boundary or just behind it.
  o = hit.position;
  if (ms.n_ghosts > 0) {
    media_at_point(ms, o + MEDIUM_STEP * d, d, list);
    if (first_order)
      for (int32_t k = 0; k < list.count; ++k)
        if (first_order->find(list.medium_id[k], list.instance_key[k]) < 0 &&
            !first_order->add(list.medium_id[k], list.instance_key[k]))
          return false;
    return true;
  }
  const uint32_t key = uint32_t(hit.instance_id);
  const bool entering = list.find(medium, key) < 0;
  if (!toggle_medium(list, medium, key)) return false;
  return !(first_order && entering && first_order->find(medium, key) < 0 &&
           !first_order->add(medium, key));
}

bool rescan_after_border(const MediaScene& ms, const float3& p, const float3& d,
                         ActiveMediumList& list, ActiveMediumList& first_order) {
  media_at_point(ms, p, d, list);
  for (int32_t k = 0; k < list.count; ++k)
    if (first_order.find(list.medium_id[k], list.instance_key[k]) < 0 &&
        !first_order.add(list.medium_id[k], list.instance_key[k]))
      return false;
  return true;
}

double shadow_transmittance(const MediaScene& ms, float3 o, const float3& d, ActiveMediumList list,
                            const FirstOrderPath* first, RayStart start) {
  double depth = 0.0;
  // Per slot of the first-order list: shadow length and optical depth inside it.
  float shared_length[MAX_ACTIVE_MEDIA] = {}, shared_depth[MAX_ACTIVE_MEDIA] = {};
  int32_t crossings = 0, borders = 0;
  while (true) {
    if (list.count == 0 && !ms.meets_media_box(o, d, 1e30f)) {
      // Outside every medium and never meeting one in this tile: plain occlusion. A
      // query from a wall or a collision starts there, not a step past it.
      const bool off_surface = start == RayStart::Surface || start == RayStart::Boundary;
      if (ms.scene->trace_shadow(off_surface ? o : o - SURFACE_T_MIN * d, d, 1e16f))
        return 0.0;
      float border = 0.0f;
      const int axis = ms.border_exit(o, d, borders, border);
      if (axis < 0) break;
      cross_tile(ms.rep.scene_x_size, ms.rep.scene_y_size, axis, border, d, o);
      ++borders;
      media_at_point(ms, o + MEDIUM_STEP * d, d, list);
      start = RayStart::Wall;
      continue;
    }
    const Segment seg = next_segment(ms, o, d, borders, true, start);
    const EmbreeHit& hit = seg.hit;
    const float segment = seg.at_border ? seg.border : (hit.hit ? hit.t : INFINITY);
    for (int32_t k = 0; k < list.count; ++k) {
      const float sigma = ms.sigma(list.medium_id[k], d);
      if (!(sigma > 0.0f)) continue;
      const double tau = double(sigma) * double(segment);
      depth += tau;
      if (first) {
        const int32_t j = first->list->find(list.medium_id[k], list.instance_key[k]);
        if (j >= 0) shared_length[j] += segment, shared_depth[j] += float(tau);
      }
    }
    if (!(depth < 80.0)) return 0.0;  // exp(-80) is nothing in any band
    if (seg.at_border) {
      cross_tile(ms.rep.scene_x_size, ms.rep.scene_y_size, seg.axis, seg.border, d, o);
      ++borders;
      media_at_point(ms, o + MEDIUM_STEP * d, d, list);
      start = RayStart::Wall;
      continue;
    }
    if (!hit.hit) break;
    const int32_t medium = ms.medium_of(hit);
    if (medium < 0) return 0.0;  // an ordinary surface blocks the ray
    if (++crossings > MAX_MEDIUM_CROSSINGS || !cross_boundary(ms, hit, medium, d, o, list, nullptr))
      return 0.0;
    start = RayStart::Boundary;
  }
  if (!first) return std::exp(-depth);
  double correction = 1.0, shared = 0.0;
  const ActiveMediumList& fl = *first->list;
  for (int32_t j = 0; j < fl.count; ++j) {
    const int32_t m = fl.medium_id[j];
    if (m < 0 || size_t(m) >= ms.n_media || !(shared_length[j] > 0.0f) || !(shared_depth[j] > 0.0f))
      continue;
    correction *= conditional_hotspot_transmittance(ms.media[m], shared_depth[j], shared_length[j],
                                                    fl.primary_distance[j], d, first->observation);
    shared += shared_depth[j];
  }
  return std::exp(-std::max(depth - shared, 0.0)) * correction;
}

}  // namespace vesk::embree
