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
  if (!scene.has_optical_media()) return ms;
  const auto& info = scene.instance_info();
  const auto box = scene.instances_box([&](size_t i) {
    return i < info.size() && scene.medium_of_material(info[i].material_id) >= 0;
  });
  ms.media_lo = box.lo, ms.media_hi = box.hi;
  // A margin for the steps off surfaces and rounding in the transforms.
  const float pad = 1e-3f;
  ms.media_lo = ms.media_lo - float3{pad, pad, pad};
  ms.media_hi = ms.media_hi + float3{pad, pad, pad};
  return ms;
}

bool MediaScene::meets_media_box(const float3& o, const float3& d, float t_max) const {
  float t0 = 0.0f, t1 = t_max;
  const float os[3] = {o.x, o.y, o.z}, ds[3] = {d.x, d.y, d.z};
  const float lo[3] = {media_lo.x, media_lo.y, media_lo.z},
              hi[3] = {media_hi.x, media_hi.y, media_hi.z};
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

int MediaScene::border_exit(const float3& o, const float3& d, int32_t crossings, float& t) const {
  if (!rep.active() || crossings >= rep.num_repetitions || beyond_heights(o, d, z_lo, z_hi))
    return -1;
  return tile_exit(rep.scene_x_size, rep.scene_y_size, o, d, t);
}

Segment next_segment(const MediaScene& ms, const float3& o, const float3& d, int32_t crossings,
                     bool in_media, RayStart start) {
  Segment s;
  if (start == RayStart::Wall) {
    // Nothing to step off on a wall: surfaces on it are met, bounding surfaces the
    // rescan has counted are passed.
    float t_min = 0.0f;
    for (int32_t k = 0; k < MAX_MEDIUM_CROSSINGS; ++k) {
      s.hit = ms.scene->trace_ray(o, d, t_min, 1e30f);
      if (!s.hit.hit || s.hit.t > WALL_REACH || ms.medium_of(s.hit) < 0) break;
      t_min = std::nextafter(s.hit.t, INFINITY);
    }
  } else {
    s.hit = ms.scene->trace_ray(o, d, start == RayStart::Point ? 0.0f : SURFACE_T_MIN, 1e30f);
  }
  const EmbreeHit& hit = s.hit;
  if (in_media || !hit.hit) s.axis = ms.border_exit(o, d, crossings, s.border);
  s.at_border = s.axis >= 0 && (!hit.hit || hit.t > s.border + BORDER_TIE ||
                                (hit.t >= s.border - BORDER_TIE && ms.medium_of(hit) >= 0));
  s.bound = s.at_border ? s.border : (hit.hit ? hit.t : 1e16f);
  return s;
}

void media_at_point(const MediaScene& ms, const float3& p, const float3& d, ActiveMediumList& out) {
  out.count = 0;
  if (!ms.in_media_box(p)) return;
  uint32_t seen[MAX_MEDIUM_CROSSINGS];
  int32_t n_seen = 0;
  float3 o = p;
  for (int32_t step = 0; step < MAX_MEDIUM_CROSSINGS; ++step) {
    const EmbreeHit hit = ms.scene->trace_ray(o, d, SURFACE_T_MIN, 1e30f);
    if (!hit.hit) return;
    o = hit.position + MEDIUM_STEP * d;
    // Past the media box nothing ahead can bound a medium.
    if (!ms.in_media_box(o) && !ms.meets_media_box(o, d, 1e30f)) return;
    const int32_t medium = ms.medium_of(hit);
    if (medium < 0) continue;
    const uint32_t key = uint32_t(hit.instance_id);
    bool known = false;
    for (int32_t i = 0; i < n_seen; ++i) known |= seen[i] == key;
    if (known) continue;
    if (n_seen == MAX_MEDIUM_CROSSINGS) return;
    seen[n_seen++] = key;
    // Leaving through a face whose side matches the medium's orientation: p is inside.
    const int32_t side = hit.back_face ? 1 : -1;
    if (size_t(medium) < ms.n_media && ms.media[medium].orientation == side &&
        out.find(medium, key) < 0 && !out.add(medium, key))
      return;
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
      if (ms.scene->trace_shadow(start == RayStart::Surface ? o : o - SURFACE_T_MIN * d, d, 1e16f))
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
    if (++crossings > MAX_MEDIUM_CROSSINGS ||
        !toggle_medium(list, medium, uint32_t(hit.instance_id)))
      return 0.0;
    o = hit.position + MEDIUM_STEP * d;
    start = RayStart::Surface;
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
