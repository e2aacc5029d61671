// LiDAR pulses, one invocation per pulse: the CPU scanner's direct mode (one ray, a point
// at the first surface) and its raw waveforms (a Gaussian-weighted grid of rays over the
// footprint, surface returns binned by range; with LIDAR_MEDIA defined, the march through
// optical turbid media with their extinction and single-scattering volume returns), ray
// for ray. The host convolves the raw waveforms with the pulse and picks the peaks, with
// the CPU's own code.
#include "scene.glsl"
#include "tile.glsl"
#include "lidar.glsl"
#ifdef LIDAR_MEDIA
#extension GL_EXT_shader_explicit_arithmetic_types_int64 : require
#include "rng.glsl"
#define MEDIA_TABLE_BINDING 13
#define MEDIA_MATERIAL_BINDING 14
#include "media.glsl"
#endif

// Per material: type, spectral offset.
layout(std430, set = 0, binding = 6) readonly buffer Materials { ivec2 materials[]; };
layout(std430, set = 0, binding = 7) readonly buffer Spectral { float spectral[]; };
// Per pulse: origin, then unit direction.
layout(std430, set = 0, binding = 8) readonly buffer Pulses { float pulses[]; };
// Per beam sample: x, y in the unit disc, then its weight.
layout(std430, set = 0, binding = 9) readonly buffer Beam { float beam[]; };
// Direct mode: 8 floats per pulse, a point record whose return number is 0 when the
// pulse gives no point. Waveform mode: the pulse's raw slab [bin][wavelength], zeroed by
// the host.
layout(std430, set = 0, binding = 10) buffer Out { float outputs[]; };
struct Params {
  int num_pulses, num_bins, num_wavelengths, bands;
  int n_beam, direct;
  float tan_half, pulse_energy, sensor_area;
  float range_resolution, min_range, max_range;
  int num_repetitions;
  float tile_w, tile_h, z_lo, z_hi;
  int n_materials;
};
layout(std430, set = 0, binding = 11) readonly buffer ParamBlock { Params P; };
layout(push_constant) uniform Push { uint pulse_base; } pc;

const float LIDAR_PI = 3.1415927;
const int MATERIAL_DIFFUSE_TRANSMITTING = 13;

PulseScene pulse_scene() {
  PulseScene s;
  s.num_repetitions = P.num_repetitions;
  s.w = P.tile_w;
  s.h = P.tile_h;
  s.z_lo = P.z_lo;
  s.z_hi = P.z_hi;
  return s;
}

float dot3(vec3 a, vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

vec3 normalize3(vec3 a) {
  float l = length3(a);
  return l > 0.0 ? (1.0 / l) * a : a;
}

void direct_pulse(uint slot, vec3 origin, vec3 dir, float index) {
  PulseScene s = pulse_scene();
  float dist = 0.0;
  Hit hit = trace_pulse(s, origin, dir, dist);
  if (!hit.hit) return;
  // In a repeated scene the point lies where the pulse meets the copy it hit.
  if (pulse_repeat_active(s)) hit.position = origin + dist * dir;
  else dist = length3(hit.position - origin);
  if (dist < P.min_range || dist > P.max_range) return;
  float rho = spectral[materials[hit.material_id].y];
  float intensity = (abs(dot3(dir, hit.geometric_normal)) * rho * P.pulse_energy * P.sensor_area) /
                    (dist * LIDAR_PI * dist);
  uint o = slot * 8u;
  outputs[o] = hit.position.x;
  outputs[o + 1] = hit.position.y;
  outputs[o + 2] = hit.position.z;
  outputs[o + 3] = intensity;
  outputs[o + 4] = 1.0;
  outputs[o + 5] = 1.0;
  outputs[o + 6] = dist;
  outputs[o + 7] = index;
}

#ifdef LIDAR_MEDIA
// Per invocation: the extinction of each bin (m-1), then the backscatter of each bin and
// wavelength, rebuilt for every beam sample.
layout(std430, set = 0, binding = 12) buffer MediaScratch { float media_scratch[]; };
uint extinction_base, backscatter_base;

// The leaves' backscatter of medium m toward the sensor in wavelength w, by the angular
// factor of its leaf angle distribution (0 where the medium does not extinguish along r).
float medium_backscatter(int m, vec3 r, int w) {
  if (!(medium_sigma(m, r) > 0.0)) return 0.0;
  float cz = min(abs(r.z), 1.0), c2 = cz * cz;
  int type = media[m].leaf_angle_type;
  float factor = type == 0 ? 0.33333334 : type == 1 ? c2 * 0.625 + 0.125
                                        : type == 2 ? 0.375 - c2 * 0.125 : c2 * 0.25 + 0.25;
  int mat = media[m].material_id;
  if (mat < 0 || mat >= P.n_materials) return 0.0;
  ivec2 md = materials[mat];
  float q_leaf = factor * media[m].leaf_area_density * 0.5;
  int back = md.x == MATERIAL_DIFFUSE_TRANSMITTING ? P.bands : 0;
  return ((spectral[md.y + w] + spectral[md.y + back + w]) * q_leaf) / LIDAR_PI;
}

// The active media's extinction and backscatter over the bins whose centres lie in [a, b).
void deposit(ActiveMediumList walk_media, vec3 r, float a, float b) {
  if (walk_media.count == 0) return;
  int b0 = max(0, int(ceil((a - P.min_range) / P.range_resolution - 0.5)));
  int b1 = min(P.num_bins - 1, int(ceil((b - P.min_range) / P.range_resolution - 0.5)) - 1);
  int W = P.num_wavelengths;
  // Each bin and wavelength takes the media in list order, as on the CPU.
  for (int k = 0; k < walk_media.count; ++k) {
    int m = walk_media.medium_id[k];
    float sigma = medium_sigma(m, r);
    if (!(sigma > 0.0)) continue;
    for (int i = b0; i <= b1; ++i) media_scratch[extinction_base + uint(i)] += sigma;
    for (int w = 0; w < W; ++w) {
      float bs = medium_backscatter(m, r, w);
      for (int i = b0; i <= b1; ++i) media_scratch[backscatter_base + uint(i * W + w)] += bs;
    }
  }
}

// The surface return seen through the extinction of the bins before it (half its own).
float outward_transmittance(int bin) {
  float tau = 0.0;
  for (int i = 0; i < bin; ++i) tau += media_scratch[extinction_base + uint(i)] * P.range_resolution;
  tau += 0.5 * media_scratch[extinction_base + uint(bin)] * P.range_resolution;
  return exp(-max(tau, 0.0));
}
#endif

// The surface return of one beam sample at range rng.
void surface_return(uint slab, float weight, Hit hit, vec3 r, float rng) {
  if (!(rng >= P.min_range && rng <= P.max_range)) return;
  int bin = int((rng - P.min_range) / P.range_resolution);
  if (bin < 0 || bin >= P.num_bins) return;
  float T = 1.0;
#ifdef LIDAR_MEDIA
  T = outward_transmittance(bin);
#endif
  float cosine = abs(dot3(r, hit.geometric_normal));
  if (cosine < 1e-6) return;
  float e = (weight * P.pulse_energy * (P.sensor_area / (rng * rng)) * cosine) / LIDAR_PI;
  ivec2 m = materials[hit.material_id];
  int back = m.x == MATERIAL_DIFFUSE_TRANSMITTING && hit.back_face ? P.bands : 0;
  for (int w = 0; w < P.num_wavelengths; ++w) {
    float value = spectral[m.y + back + w] * e * T;
    if (value > 0.0) outputs[slab + uint(bin * P.num_wavelengths + w)] += value;
  }
}

#ifdef LIDAR_MEDIA
// One beam sample through the media: the march deposits extinction and backscatter bin
// by bin and stops at the first ordinary surface, then the volume returns follow.
void media_sample(uint slab, float weight, vec3 origin, vec3 r) {
  int W = P.num_wavelengths;
  for (int i = 0; i < P.num_bins; ++i) media_scratch[extinction_base + uint(i)] = 0.0;
  for (int i = 0; i < P.num_bins * W; ++i) media_scratch[backscatter_base + uint(i)] = 0.0;
  PulseScene s = pulse_scene();
  vec3 p = origin;
  float travelled = pulse_repeat_active(s) ? enter_tile(s, p, r) : 0.0;
  ActiveMediumList walk_media, unused = empty_medium_list();
  // One site each for the scan of the media around a point and for the next segment:
  // the rescan after a tile wall (or a boundary shared with copies over the walls) waits
  // for the top of the next step.
  bool rescan = true;
  vec3 scan_from = p;
  int from = START_SURFACE, crossings = 0;
  for (int steps = 128; steps > 0; --steps) {
    if (rescan) {
      media_at_point(scan_from, r, walk_media);
      rescan = false;
    }
    Segment seg = next_segment(p, r, crossings, walk_media.count > 0, from);
    from = START_SURFACE;
    Hit hit = seg.hit;
    if (!hit.hit && !seg.at_border) break;
    float end = (seg.at_border ? seg.border : hit.t) + travelled, start = max(P.min_range, travelled);
    if (end > P.max_range) {
      if (start < P.max_range) deposit(walk_media, r, start, P.max_range);
      break;
    }
    float clipped = min(P.max_range, end);
    if (start < clipped) deposit(walk_media, r, start, clipped);
    if (seg.at_border) {
      cross_tile(s.w, s.h, seg.axis, seg.border, r, p);
      ++crossings;
      travelled = end;
      scan_from = p + MEDIUM_STEP * r;
      rescan = true;
      from = START_WALL;
      continue;
    }
    int medium = medium_of(hit);
    if (medium < 0) {
      surface_return(slab, weight, hit, r, end);
      break;
    }
    if (MS.n_ghosts > 0) {  // cross_boundary's rescan, done above
      p = hit.position;
      scan_from = p + MEDIUM_STEP * r;
      rescan = true;
    } else {
      p = hit.position;
      if (!toggle_boundary(hit, medium, walk_media, unused, false)) break;
    }
    travelled = hit.t + travelled;
    from = START_BOUNDARY;
  }

  // Single scattering by the leaves of each bin, attenuated on the way out only.
  float C = 0.0;
  for (int i = 0; i < P.num_bins; ++i) {
    float e_i = media_scratch[extinction_base + uint(i)];
    float C_prev = C;
    C = C + P.range_resolution * e_i;
    if (!(e_i > 0.0)) continue;
    float r_i = max(1e-6, (float(i) + 0.5) * P.range_resolution + P.min_range);
    float T = exp(-(0.5 * e_i * P.range_resolution + C_prev));
    float g = (weight * P.pulse_energy * P.sensor_area * P.range_resolution * T) / (r_i * r_i);
    if (!(g > 0.0)) continue;
    for (int w = 0; w < W; ++w) {
      float bs = media_scratch[backscatter_base + uint(i * W + w)];
      if (bs > 0.0) outputs[slab + uint(i * W + w)] += bs * g;
    }
  }
}
#endif

void waveform_pulse(uint slot, vec3 origin, vec3 d) {
  vec3 u;
  if (abs(d.x) <= abs(d.y)) u = (1.0 / sqrt(d.y * d.y + d.z * d.z)) * vec3(0.0, d.z, -d.y);
  else u = (1.0 / sqrt(d.z * d.z + d.x * d.x)) * vec3(d.z, 0.0, -d.x);
  vec3 v = vec3(u.y * d.z - u.z * d.y, u.z * d.x - u.x * d.z, u.x * d.y - u.y * d.x);
  uint slab = slot * uint(P.num_bins) * uint(P.num_wavelengths);
  PulseScene s = pulse_scene();
#ifdef LIDAR_MEDIA
  extinction_base = slot * uint(P.num_bins) * uint(P.num_wavelengths + 1);
  backscatter_base = extinction_base + uint(P.num_bins);
#endif
  for (int k = 0; k < P.n_beam; ++k) {
    float a = beam[3 * k] * P.tan_half, b = beam[3 * k + 1] * P.tan_half;
    float sc = 1.0 / sqrt(a * a + b * b + 1.0);
    vec3 r = normalize3((b * sc) * u + (a * sc) * v + sc * d);
#ifdef LIDAR_MEDIA
    media_sample(slab, beam[3 * k + 2], origin, r);
#else
    float range = 0.0;
    Hit hit = trace_pulse(s, origin, r, range);
    if (hit.hit) surface_return(slab, beam[3 * k + 2], hit, r, range);
#endif
  }
}

void main() {
  uint slot = INVOCATION_ID;
  uint pulse = pc.pulse_base + slot;
  if (pulse >= uint(P.num_pulses)) return;
  vec3 o = vec3(pulses[6 * pulse], pulses[6 * pulse + 1], pulses[6 * pulse + 2]);
  vec3 d = vec3(pulses[6 * pulse + 3], pulses[6 * pulse + 4], pulses[6 * pulse + 5]);
  if (P.direct != 0) direct_pulse(slot, o, d, float(pulse));
  else waveform_pulse(slot, o, d);
}
