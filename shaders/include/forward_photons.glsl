// The forward recorder (embree/forward.cpp) and the program around it, shared by the
// forward program (absorption grids, per-leaf, terrain, BRF) and the BRF program (no
// grids: every absorption counts as outside). One invocation per photon.
#extension GL_EXT_shader_explicit_arithmetic_types_int64 : require
#include "scene.glsl"
#include "photon.glsl"

// Layer boundaries in z, strictly increasing (none: one layer of any height).
layout(std430, set = 0, binding = 13) readonly buffer Layers { float layer_heights[]; };
// Observer directions, normalised, three floats each.
layout(std430, set = 0, binding = 14) readonly buffer Directions { float brf_dirs[]; };

int layer_of(float z) {
  int n = P.n_layer_bounds;
  if (n == 0) return 0;
  if (!(z >= layer_heights[0]) || !(z <= layer_heights[n - 1])) return -1;
  // upper_bound: the first boundary above z
  int lo = 0, hi = n;
  while (lo < hi) {
    int mid = (lo + hi) / 2;
    if (layer_heights[mid] <= z) lo = mid + 1;
    else hi = mid;
  }
  return min(lo - 1, P.nz - 1);  // the top boundary belongs to the top layer
}

float settle_column(float c, float size) {
  if (P.periodic != 0) c -= floor(c / size) * size;
  return min(max(c, 0.0), size);
}

// The column a photon comes in by (ForwardRecorder::entry_cell).
int entry_cell(Photon p) {
  float x = p.origin.x, y = p.origin.y;
  if (p.direction.z < 0.0 && p.origin.z > P.entry_z) {
    float t = (P.entry_z - p.origin.z) / p.direction.z;
    x += t * p.direction.x;
    y += t * p.direction.y;
  }
  x -= P.gx0;
  y -= P.gy0;
  int cx = world_to_cell(settle_column(x, P.gw), P.gw, P.gnx);
  int cy = world_to_cell(settle_column(y, P.gh), P.gh, P.gny);
  return max(cy, 0) * P.gnx + max(cx, 0);
}

void rec_entered(Photon p) {
  for (int b = 0; b < P.bands; ++b) sums_add(P.f_incident + uint(b), b, tp(b) * p.weight);
  if (P.gnx == 0) return;
  uint cell = P.f_incident_cells + uint(entry_cell(p)) * uint(P.bands);
  for (int b = 0; b < P.bands; ++b) sums_add(cell + uint(b), b, tp(b) * p.weight);
}

// Local estimate of the BRF: the light this event scatters towards each observer, with
// the material's own BRDF, if the way out is clear.
void rec_surface(Photon p, Hit hit, vec3 f0, vec3 f1, vec3 f2, vec3 wo) {
  if (P.n_dirs == 0) return;
  Material m = materials[hit.material_id];
  for (int d = 0; d < P.n_dirs; ++d) {
    vec3 v = vec3(brf_dirs[3 * d], brf_dirs[3 * d + 1], brf_dirs[3 * d + 2]);
    vec3 vl = vec3(dot(v, f0), dot(v, f1), dot(v, f2));
    bool any = false;
    for (int b = 0; b < P.bands && !any; ++b)
      any = evaluate_material(m.type, m.spectral_offset, b, wo, vl, P.bands, hit.back_face, false) > 0.0;
    if (!any) continue;
    double c = double(abs(vl.z));
#ifdef PHOTON_MEDIA
    // Through the media towards the observer; at the photon's first event the way out
    // shares leaves with the way in (the hot spot). A leaf collision (no primitive) is on
    // no surface: its ray starts at the point itself.
    bool leaf_in_medium = hit.primitive_id < 0;
    vec3 o = leaf_in_medium ? hit.position : offset_origin(hit.position, hit.geometric_normal, v);
    c *= shadow_transmittance(o, v, ph_media, !ph_scattered, ph_first, -ph_first_direction,
                              leaf_in_medium ? START_POINT : START_SURFACE);
    if (!(c > 0.0LF)) continue;
#else
    vec3 o = offset_origin(hit.position, hit.geometric_normal, v);
    if (shadowed_repetitive(o, v)) continue;
#endif
    for (int b = 0; b < P.bands; ++b) {
      float f = evaluate_material(m.type, m.spectral_offset, b, wo, vl, P.bands, hit.back_face, false);
      sums_add(P.f_brf + uint(d * P.bands + b), b, tp(b) * p.weight * double(f) * c);
    }
  }
}

// What the event took from the photon is what the surface absorbed.
void rec_scattered(Photon p, Hit hit) {
  int cx = world_to_cell(hit.position.x - P.gx0, P.gw, P.gnx);
  int cy = world_to_cell(hit.position.y - P.gy0, P.gh, P.gny);
  int cell = (cx < 0 || cy < 0) ? -1 : cy * P.gnx + cx;
  bool terrain = hit.instance_id == P.terrain_id && P.terrain_id >= 0;
  int layer = terrain ? 0 : layer_of(hit.position.z);
  for (int b = 0; b < P.bands; ++b) {
    double a = (tp_before(b) - tp(b)) * p.weight;
    if (P.per_leaf != 0 && hit.primitive_id >= 0)
      sums_add(P.f_leaf + uint(hit.primitive_id) * uint(P.bands) + uint(b), b, a);
    if (cell < 0 || layer < 0) {
      sums_add(P.f_outside + uint(b), b, a);
    } else if (terrain) {
      sums_add(P.f_terrain + uint(cell) * uint(P.bands) + uint(b), b, a);
    } else {
      uint i = (uint(layer) * uint(P.gnx) * uint(P.gny) + uint(cell)) * uint(P.bands) + uint(b);
      sums_add(P.f_grid + i, b, a);
      sums_add((p.is_sun ? P.f_gdirect : P.f_gdiffuse) + i, b, a);
    }
  }
}

void rec_escaped(Photon p, int depth) {
  uint to = p.direction.z > 0.0 ? P.f_escaped : P.f_transmitted;
  for (int b = 0; b < P.bands; ++b) sums_add(to + uint(b), b, tp(b) * p.weight);
}

void rec_lost(Photon p) {
  for (int b = 0; b < P.bands; ++b) sums_add(P.f_truncated + uint(b), b, tp(b) * p.weight);
}

void main() {
  Rng rng;
  if (!begin_photon(rng)) return;
  Photon p;
  if (!emit_photon(rng, p)) return;
  walk_photon(rng, p);
}
