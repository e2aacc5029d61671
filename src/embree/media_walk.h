#pragma once
// Rays through optical turbid media on the CPU scene: which media a point lies in,
// crossing a bounding surface, and the transmittance of shadow rays (with the hot-spot
// correlation of first-order vertices). Shared by the backward and photon tracers.

#include <cstdint>

#include "core/optical_media.h"
#include "core/tile.h"
#include "embree/scene_manager.h"
#include "scene/media_bounds.h"

namespace vesk::embree {

// Everything a media-aware walk reads, gathered once per run.
struct MediaScene {
  const EmbreeSceneManager* scene = nullptr;
  const OpticalTurbidMediumData* media = nullptr;
  size_t n_media = 0;
  Repetition rep;
  float z_lo = 0.0f, z_hi = 0.0f;  // the scene's height range
  // The box around every instance that bounds a medium: no medium starts or is met
  // outside it, so scans and shadow rays that stay out of it take the plain way.
  float3 media_lo{1e30f, 1e30f, 1e30f}, media_hi{-1e30f, -1e30f, -1e30f};
  // Media that reach over a tile wall (a layer wider than its tile) overlap their copies
  // of the neighbouring tiles, which reach into this tile from the other side. Each such
  // neighbour, by the offset of its copies, with the part of the tile they can reach: a
  // point p lies in a neighbour's copy where p - offset lies in the instance here.
  // Pairs of a neighbour's copies carry its number (1..8) in the instance key's top bits.
  int32_t n_ghosts = 0;
  float3 ghost_offset[8], ghost_lo[8], ghost_hi[8];
  static constexpr int GHOST_SHIFT = scene::MediaBounds::GHOST_SHIFT;
  static constexpr uint32_t INSTANCE_MASK = scene::MediaBounds::INSTANCE_MASK;

  static MediaScene from(const EmbreeSceneManager& scene);
  // The bounding instance of an active-list key.
  uint32_t instance_of(uint32_t key) const { return n_ghosts > 0 ? key & INSTANCE_MASK : key; }
  int32_t medium_of(const EmbreeHit& hit) const {
    return scene->medium_of_material(hit.material_id);
  }
  float sigma(int32_t medium, const float3& d) const {
    return medium >= 0 && size_t(medium) < n_media ? medium_sigma(media[medium], d) : 0.0f;
  }
  // The tile border the ray leaves by (axis 0 or 1, distance t), or -1 when none
  // applies: no repetition, crossings used up, or past the scene's heights.
  int border_exit(const float3& o, const float3& d, int32_t crossings, float& t) const;
  bool in_media_box(const float3& p) const {
    return p.x >= media_lo.x && p.x <= media_hi.x && p.y >= media_lo.y && p.y <= media_hi.y &&
           p.z >= media_lo.z && p.z <= media_hi.z;
  }
  // Whether the ray from o along d meets the media box within distance t_max.
  bool meets_media_box(const float3& o, const float3& d, float t_max) const;
};

// The next event of a ray through a scene with media: the surface ahead, and the tile
// wall where the ray leaves its tile before it.
struct Segment {
  EmbreeHit hit;
  int axis = -1;        // the wall crossed at the end, or -1
  float border = 0.0f;  // distance to that wall
  bool at_border = false;
  float bound = 1e16f;  // where the segment ends: the wall, the hit or far away
};

// Where a ray of a media walk starts, which decides what it may meet first.
enum class RayStart {
  Surface,  // off a surface it has stepped away from: hits from SURFACE_T_MIN on
  Point,    // at a leaf collision, on no surface: hits from 0 on
  Wall,     // on the tile wall it has just entered by, with its media rescanned there:
            // hits from 0 on, passing the bounding surfaces the rescan has counted
  Boundary,  // on the medium boundary it has just crossed: hits from 0 on, passing the
             // bounding surfaces within WALL_REACH (the one crossed among them) but no
             // other surface, so a ground that coincides with the boundary is met
};

// The segment from o along d. The tile wall is looked for when in_media or when nothing
// is hit, within `crossings`. A medium's bounding surface that meets the wall (within
// BORDER_TIE) is the wall's event: a layer whose side lies on the wall goes on in the
// next tile, and the rescan there says so, where crossing the side would leave it.
Segment next_segment(const MediaScene& ms, const float3& o, const float3& d, int32_t crossings,
                     bool in_media, RayStart start);

// After a surface event at `surface`, leaving from o (moved off it along its normal) along
// d, for a walk that goes on from o with RayStart::Point: a medium boundary between the
// surface and o (a layer's floor on the ground, or a hair above it) is behind o and would
// never be crossed. The list is set as such a boundary says the ray's side is beyond it:
// set, not toggled, so that it holds however the walk reached the surface.
void media_after_surface(const MediaScene& ms, const float3& surface, const float3& o,
                         const float3& d, ActiveMediumList& list);

// The media containing p, by a forward scan along d: the first hit on each bounding
// instance decides whether p is inside it.
void media_at_point(const MediaScene& ms, const float3& p, const float3& d, ActiveMediumList& out);

// Enters or leaves (medium, instance); false when a ninth medium would be entered.
bool toggle_medium(ActiveMediumList& list, int32_t medium, uint32_t instance);

// Crosses the bounding surface `hit` of `medium`, moving o past it. Without copies
// reaching over the walls the pair is toggled. With them, surfaces of a medium and of its
// copies coincide (a layer's top here and in the copy reaching in from the next tile) and
// one toggle would leave the others out, so the media are rescanned past the surface
// instead. Pairs entered join `first_order` when given (a path that has not scattered).
// False when a ninth medium would be entered.
bool cross_boundary(const MediaScene& ms, const EmbreeHit& hit, int32_t medium, const float3& d,
                    float3& o, ActiveMediumList& list, ActiveMediumList* first_order);

// After a tile crossing: the media at the wrapped point replace the list, and pairs new
// to the first-order list are added to it; false when that list overflows.
bool rescan_after_border(const MediaScene& ms, const float3& p, const float3& d,
                         ActiveMediumList& list, ActiveMediumList& first_order);

// The shadow ray's hot-spot partner: the path's first-order list and the direction back
// along its first leg.
struct FirstOrderPath {
  const ActiveMediumList* list = nullptr;
  float3 observation;  // unit, back towards where the path came from
};

// Transmittance of the ray from o along d through the media of `list` (the media o lies
// in), across bounding surfaces and tile borders; 0 when an ordinary surface blocks it.
// With a first-order partner, depth shared with the path's first leg is corrected by
// the conditional hot-spot transmittance of each shared medium. A ray from a leaf
// collision starts at the collision point itself (RayStart::Point): a step off it could
// carry the ray over a bounding surface unseen, and its list would then be wrong.
double shadow_transmittance(const MediaScene& ms, float3 o, const float3& d, ActiveMediumList list,
                            const FirstOrderPath* first_order, RayStart start = RayStart::Surface);

}  // namespace vesk::embree
