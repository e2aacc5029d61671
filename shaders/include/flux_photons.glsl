// The flux recorder (embree/flux.cpp) and the program around it, shared by flux.comp
// and flux_media.comp (PHOTON_MEDIA: the walk through optical turbid media). One
// invocation per photon.
#extension GL_EXT_shader_explicit_arithmetic_types_int64 : require
#include "scene.glsl"
#include "photon.glsl"

int recorded = 0, last_cell = -1;

void add_positive(uint field, int cell, Photon p) {
  for (int b = 0; b < P.bands; ++b) {
    double e = tp(b) * p.weight;
    if (e > 0.0LF) sums_add(field + uint(cell) * uint(P.bands) + uint(b), b, e);
  }
}

void rec_entered(Photon p) {}

void rec_surface(Photon p, Hit hit, vec3 f0, vec3 f1, vec3 f2, vec3 wo) {
  int cx = world_to_cell(hit.position.x, P.X, P.nx);
  int cy = world_to_cell(hit.position.y, P.Y, P.ny);
  if (cx < 0 || cy < 0) {
    last_cell = -1;
    return;
  }
  int cell = cy * P.nx + cx;
  if (P.max_bounces == 0 || recorded < P.max_bounces) {
    add_positive(P.f_down, cell, p);
    if (P.decompose != 0) add_positive(p.is_sun ? P.f_direct : P.f_diffuse, cell, p);
    // A bounce inside one cell moves nothing upward.
    if (last_cell >= 0 && cell != last_cell) add_positive(P.f_up, last_cell, p);
    ++recorded;
  }
  last_cell = cell;
}

void rec_scattered(Photon p, Hit hit) {}

void rec_escaped(Photon p, int depth) {
  if (depth > 0 && last_cell >= 0) add_positive(P.f_up, last_cell, p);
}

void rec_lost(Photon p) {}

void main() {
  Rng rng;
  if (!begin_photon(rng)) return;
  Photon p;
  if (!emit_photon(rng, p)) return;
  walk_photon(rng, p);
}
