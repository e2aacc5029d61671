#version 460
// LiDAR pulses, one invocation per pulse: the CPU scanner's direct mode (one ray, a point
// at the first surface) and its raw waveforms (a Gaussian-weighted grid of rays over the
// footprint, surface returns binned by range), ray for ray. The host convolves the raw
// waveforms with the pulse and picks the peaks, with the CPU's own code.
#include "scene.glsl"
#include "tile.glsl"
#include "lidar.glsl"

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

// The surface return of one beam sample at range rng.
void surface_return(uint slab, float weight, Hit hit, vec3 r, float rng) {
  if (!(rng >= P.min_range && rng <= P.max_range)) return;
  int bin = int((rng - P.min_range) / P.range_resolution);
  if (bin < 0 || bin >= P.num_bins) return;
  float T = 1.0;
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

void waveform_pulse(uint slot, vec3 origin, vec3 d) {
  vec3 u;
  if (abs(d.x) <= abs(d.y)) u = (1.0 / sqrt(d.y * d.y + d.z * d.z)) * vec3(0.0, d.z, -d.y);
  else u = (1.0 / sqrt(d.z * d.z + d.x * d.x)) * vec3(d.z, 0.0, -d.x);
  vec3 v = vec3(u.y * d.z - u.z * d.y, u.z * d.x - u.x * d.z, u.x * d.y - u.y * d.x);
  uint slab = slot * uint(P.num_bins) * uint(P.num_wavelengths);
  PulseScene s = pulse_scene();
  for (int k = 0; k < P.n_beam; ++k) {
    float a = beam[3 * k] * P.tan_half, b = beam[3 * k + 1] * P.tan_half;
    float sc = 1.0 / sqrt(a * a + b * b + 1.0);
    vec3 r = normalize3((b * sc) * u + (a * sc) * v + sc * d);
    float range = 0.0;
    Hit hit = trace_pulse(s, origin, r, range);
    if (hit.hit) surface_return(slab, beam[3 * k + 2], hit, r, range);
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
