#version 460
// Microwave transport, one invocation per ray: the brightness temperature (T_H, T_V) of a
// passive ray or the single-bounce sigma0 (HH, HV, VH, VV) of an active one. The physics
// and its references are those of the CPU reference, src/microwave/transport.cpp, which
// this program follows step by step: tau-omega vegetation (Mo et al. 1982; Jackson &
// Schmugge 1991), specular soil and trunks, an isothermal atmosphere; first-order volume
// backscatter, soil surface scattering and the trunk-ground double bounce in the manner of
// MIMICS (Ulaby et al. 1990).
#extension GL_EXT_control_flow_attributes : enable
#include "scene.glsl"
#include "offset_origin.glsl"

// Bindings 0-5: the scene (scene.glsl).
layout(std430, set = 0, binding = 6) readonly buffer Origins { vec4 origins[]; };
layout(std430, set = 0, binding = 7) readonly buffer Directions { vec4 directions[]; };
layout(std430, set = 0, binding = 8) readonly buffer MaterialMap { int material_map[]; };
// [soil][size][4]: H, V brightness (K), H, V reflectivity
layout(std430, set = 0, binding = 9) readonly buffer PassiveSoil { float passive_soil[]; };
// [soil][size][4]: sigma0 HH, HV, VH, VV
layout(std430, set = 0, binding = 10) readonly buffer ActiveSoil { float active_soil[]; };
// [soil][size][2]: Fresnel H, V reflectivity (carried; the passive table's reflectivity,
// which includes roughness, is the one that balances emission)
layout(std430, set = 0, binding = 11) readonly buffer SmoothSoil { float smooth_soil[]; };
// [veg][4]: kappa_e (1/m), omega, temperature (K), has a Mueller table
layout(std430, set = 0, binding = 12) readonly buffer Vegetation { vec4 vegetation[]; };
// [trunk][size][4]: H, V brightness (K), H, V reflectivity
layout(std430, set = 0, binding = 13) readonly buffer TrunkResponse { float trunk_response[]; };
// trunk specular Mueller tables (n_cos, 4, 4), concatenated
layout(std430, set = 0, binding = 14) readonly buffer TrunkSpecular { float trunk_specular[]; };
// [soil][trunk][size][2]: double bounce H, V
layout(std430, set = 0, binding = 15) readonly buffer DihedralGround { float dihedral_ground[]; };
// per microwave material, 9 ints: type, Mueller offset, n_cti, n_cts, n_dphi, cosine CDF
// offset, azimuth CDF offset, specular offset, n_specular
layout(std430, set = 0, binding = 16) readonly buffer LutInfo { int lut_info[]; };
layout(std430, set = 0, binding = 17) readonly buffer Mueller { float mueller[]; };
// The cosine CDFs, then the azimuth CDFs, of scattered directions: carried for samplers
// of higher orders; a first-order backscatter estimator has its scattered direction fixed
// and reads none.
layout(std430, set = 0, binding = 18) readonly buffer Cdfs { float cdfs[]; };
// Results, 4 floats a ray.
layout(std430, set = 0, binding = 19) writeonly buffer Results { vec4 results[]; };

layout(push_constant) uniform Push {
  uint count;
  int active_mode, max_depth, size;
  int soil_count, veg_count, trunk_count;
  float air_temperature, atmosphere_tau;
  int n_materials;  // the scene's optical materials: ids past them have no response
  int num_repetitions;  // repeated tiles (microwave::MicrowaveTiles)
  float tile_w, tile_h, z_lo, z_hi;
} pc;
#include "tile.glsl"

const float MICROWAVE_WALL_TIE = 0.0005;

const int MAX_CROSSINGS = 4096;
const int VEG_STACK = 8;
const float FOUR_PI = 12.566371;
const int LUT_STRIDE = 9;
const int ESCAPE = 0, SOIL = 1, TRUNK = 2, LOST = 3;

struct Event {
  int kind, index;
  vec3 position, normal;
};

int stack_ids[VEG_STACK];
int stack_n;

int stack_top() { return stack_n > 0 ? stack_ids[stack_n - 1] : -1; }

void stack_enter(int v) {
  if (stack_n < VEG_STACK) stack_ids[stack_n++] = v;
}

void stack_leave(int v) {
  for (int k = stack_n - 1; k >= 0; --k)
    if (stack_ids[k] == v) {
      for (int j = k; j + 1 < stack_n; ++j) stack_ids[j] = stack_ids[j + 1];
      --stack_n;
      return;
    }
}

// Position of a cosine on the tables' grid c_i = i / (size - 1); the lookups below
// interpolate linearly between its two neighbouring rows.
float table_x(float c) { return min(abs(c), 1.0) * float(pc.size - 1); }

vec4 lookup4_passive_soil(int index, float c) {
  float x = table_x(c);
  int i = min(int(x), pc.size - 2);
  float f = x - float(i);
  int a = (index * pc.size + i) * 4;
  vec4 lo = vec4(passive_soil[a], passive_soil[a + 1], passive_soil[a + 2], passive_soil[a + 3]);
  vec4 hi = vec4(passive_soil[a + 4], passive_soil[a + 5], passive_soil[a + 6], passive_soil[a + 7]);
  return lo * (1.0 - f) + hi * f;
}

vec4 lookup4_active_soil(int index, float c) {
  float x = table_x(c);
  int i = min(int(x), pc.size - 2);
  float f = x - float(i);
  int a = (index * pc.size + i) * 4;
  vec4 lo = vec4(active_soil[a], active_soil[a + 1], active_soil[a + 2], active_soil[a + 3]);
  vec4 hi = vec4(active_soil[a + 4], active_soil[a + 5], active_soil[a + 6], active_soil[a + 7]);
  return lo * (1.0 - f) + hi * f;
}

vec4 lookup4_trunk(int index, float c) {
  float x = table_x(c);
  int i = min(int(x), pc.size - 2);
  float f = x - float(i);
  int a = (index * pc.size + i) * 4;
  vec4 lo = vec4(trunk_response[a], trunk_response[a + 1], trunk_response[a + 2], trunk_response[a + 3]);
  vec4 hi = vec4(trunk_response[a + 4], trunk_response[a + 5], trunk_response[a + 6], trunk_response[a + 7]);
  return lo * (1.0 - f) + hi * f;
}

vec2 lookup2_dihedral(int soil, int trunk, float c) {
  float x = table_x(c);
  int i = min(int(x), pc.size - 2);
  float f = x - float(i);
  int a = ((soil * pc.trunk_count + trunk) * pc.size + i) * 2;
  return vec2(dihedral_ground[a], dihedral_ground[a + 1]) * (1.0 - f) +
         vec2(dihedral_ground[a + 2], dihedral_ground[a + 3]) * f;
}

int bin(float x01, int n) { return clamp(int(x01 * float(n)), 0, n - 1); }

// Offset of the 4x4 block for propagation z cosines mu_i, mu_s and azimuth difference dphi.
int mueller_block(int m, float mu_i, float mu_s, float dphi) {
  int b = m * LUT_STRIDE;
  int n_cti = lut_info[b + 2], n_cts = lut_info[b + 3], n_dphi = lut_info[b + 4];
  int i = bin(0.5 * (mu_i + 1.0), n_cti);
  int s = bin(0.5 * (mu_s + 1.0), n_cts);
  int p = bin(dphi * 0.15915494, n_dphi);
  return lut_info[b + 1] + ((i * n_cts + s) * n_dphi + p) * 16;
}

// What a segment did: passive emission added and transmission, or the active sums.
vec2 seg_acc, seg_w;   // passive
vec4 seg_sigma;        // active
float seg_one_way;     // active: one-way transmission so far
float seg_mu;          // active: |cos| of the ray against the vertical
vec3 seg_dir;
int seg_mode;          // 0 passive, 1 active, 2 transmission only
float seg_leg;         // mode 2

void segment(int v, float len) {
  vec4 r = vegetation[v];
  float trans = exp(-r.x * len);
  if (seg_mode == 0) {
    float emitted = r.z * (1.0 - r.y) * (1.0 - trans);
    seg_acc += seg_w * emitted;
    seg_w *= trans;
  } else if (seg_mode == 1) {
    if (lut_info[(pc.soil_count + v) * LUT_STRIDE + 1] >= 0) {
      int o = mueller_block(pc.soil_count + v, seg_dir.z, -seg_dir.z, 3.1415927);
      float depth = r.x > 0.0 ? (1.0 - exp(-2.0 * r.x * len)) / (2.0 * r.x) : len;
      float f = seg_mu * seg_one_way * seg_one_way * FOUR_PI * depth;
      seg_sigma += f * vec4(mueller[o + 5], mueller[o + 4], mueller[o + 1], mueller[o]);
    }
    seg_one_way *= trans;
  } else {
    seg_leg *= trans;
  }
}

// The next soil or trunk surface along the ray, vegetation segments reported on the way.
Event next_event(inout vec3 o, vec3 d) {
  Event e;
  e.kind = ESCAPE;
  e.index = -1;
  e.position = vec3(0.0);
  e.normal = vec3(0.0, 0.0, 1.0);
  int soils = pc.soil_count, vegs = pc.veg_count;
  int walls = 0;
  float skip_veg = -1.0;  // after a wall: the copy's faces on it are passed, up to here
  bool tiles = pc.num_repetitions > 0 && pc.tile_w > 0.0 && pc.tile_h > 0.0;
  for (int crossing = 0; crossing < MAX_CROSSINGS; ++crossing) {
    Hit h = trace_ray(o, d, 0.0, 1e30);
    int m = h.hit && h.material_id >= 0 && h.material_id < pc.n_materials ? material_map[h.material_id] : -1;
    for (int k = 0; k < 8 && h.hit && h.t <= skip_veg && m >= soils && m < soils + vegs; ++k) {
      h = trace_ray(o, d, uintBitsToFloat(floatBitsToUint(h.t) + 1u), 1e30);
      m = h.hit && h.material_id >= 0 && h.material_id < pc.n_materials ? material_map[h.material_id] : -1;
    }
    skip_veg = -1.0;
    // Repeated scenes: on through the wall when nothing is ahead, or when the vegetation
    // the ray is in reaches the wall (microwave/transport.cpp).
    float tw = 0.0;
    int axis = -1;
    if (tiles && walls < pc.num_repetitions && !beyond_heights(o, d, pc.z_lo, pc.z_hi))
      axis = tile_exit(pc.tile_w, pc.tile_h, o, d, tw);
    bool veg_hit = m >= soils && m < soils + vegs;
    if (axis >= 0 &&
        (!h.hit || (stack_n > 0 && (tw < h.t || (h.t >= tw - MICROWAVE_WALL_TIE && veg_hit))))) {
      int vw = stack_top();
      if (vw >= 0) segment(vw, tw);
      cross_tile(pc.tile_w, pc.tile_h, axis, tw, d, o);
      ++walls;
      if (stack_n > 0) skip_veg = MICROWAVE_WALL_TIE;
      continue;
    }
    if (!h.hit) return e;
    int v = stack_top();
    if (v >= 0) segment(v, h.t);
    if (m >= 0 && m < soils) {
      e.kind = SOIL, e.index = m, e.position = h.position, e.normal = h.geometric_normal;
      return e;
    }
    if (m >= soils + vegs) {
      e.kind = TRUNK, e.index = m - soils - vegs, e.position = h.position, e.normal = h.geometric_normal;
      return e;
    }
    if (m >= soils) {
      if (h.back_face) stack_leave(m - soils);
      else stack_enter(m - soils);
    }
    o = offset_origin(h.position, h.geometric_normal, d);
  }
  e.kind = LOST;
  return e;
}

vec3 reflect_dir(vec3 d, vec3 n) { return d - (2.0 * dot(d, n)) * n; }

vec4 passive_ray(vec3 o, vec3 d) {
  float mu0 = abs(d.z);
  seg_mode = 0;
  seg_acc = vec2(0.0);
  seg_w = vec2(1.0);
  stack_n = 0;
  bool atmosphere = pc.atmosphere_tau > 0.0;
  int events = 0;
  for (;;) {
    Event e = next_event(o, d);
    if (e.kind == LOST) break;
    if (e.kind == ESCAPE) {
      if (atmosphere && d.z > 0.0) seg_acc += seg_w * (pc.air_temperature * (1.0 - exp(-pc.atmosphere_tau / d.z)));
      break;
    }
    float cos_local = -dot(d, e.normal);
    vec4 r;
    if (e.kind == SOIL) {
      r = lookup4_passive_soil(e.index, cos_local);
    } else {
      r = lookup4_trunk(e.index, cos_local);
      int b = (pc.soil_count + pc.veg_count + e.index) * LUT_STRIDE;
      if (lut_info[b + 7] >= 0) {
        int m = lut_info[b + 7] + bin(min(abs(cos_local), 1.0), lut_info[b + 8]) * 16;
        // The trunk temperature, recovered from the Fresnel table's own row.
        float temperature = r.z < 1.0 ? r.x / (1.0 - r.z) : 0.0;
        r.z = clamp(trunk_specular[m + 5], 0.0, 1.0);
        r.w = clamp(trunk_specular[m], 0.0, 1.0);
        r.x = (1.0 - r.z) * temperature;
        r.y = (1.0 - r.w) * temperature;
      }
    }
    seg_acc += seg_w * r.xy;
    seg_w *= r.zw;
    if (++events >= pc.max_depth || (seg_w.x < 1e-9 && seg_w.y < 1e-9)) break;
    d = normalize(reflect_dir(d, e.normal));
    o = offset_origin(e.position, e.normal, d);
  }
  if (atmosphere) {
    float g = exp(-pc.atmosphere_tau / max(mu0, 1e-6));
    seg_acc = seg_acc * g + pc.air_temperature * (1.0 - g);
  }
  return vec4(seg_acc, 0.0, 0.0);
}

vec4 active_ray(vec3 o, vec3 d) {
  float mu = abs(d.z);
  if (mu < 1e-6) return vec4(0.0);
  seg_mode = 1;
  seg_sigma = vec4(0.0);
  seg_one_way = 1.0;
  seg_mu = mu;
  seg_dir = d;
  stack_n = 0;
  Event e = next_event(o, d);
  if (e.kind != SOIL && e.kind != TRUNK) return seg_sigma;
  float cos_local = max(-dot(d, e.normal), 1e-3);
  float area = mu / cos_local * seg_one_way * seg_one_way;
  if (e.kind == SOIL) return seg_sigma + area * lookup4_active_soil(e.index, cos_local);
  int m = pc.soil_count + pc.veg_count + e.index;
  if (lut_info[m * LUT_STRIDE + 1] >= 0) {
    int b = mueller_block(m, -cos_local, cos_local, 3.1415927);
    seg_sigma += area * FOUR_PI * vec4(mueller[b + 5], mueller[b + 4], mueller[b + 1], mueller[b]);
  }
  if (pc.soil_count == 0) return seg_sigma;
  vec3 dg = normalize(reflect_dir(d, e.normal));
  if (dg.z >= 0.0) return seg_sigma;
  vec3 o2 = offset_origin(e.position, e.normal, dg);
  float one_way = seg_one_way;
  vec4 sigma = seg_sigma;
  seg_mode = 2;
  seg_leg = 1.0;
  Event g = next_event(o2, dg);
  if (g.kind != SOIL) return sigma;
  vec2 db = lookup2_dihedral(g.index, e.index, -dot(dg, g.normal));
  float path = mu * one_way * one_way * seg_leg * seg_leg;
  return sigma + vec4(path * db.x, 0.0, 0.0, path * db.y);
}

void main() {
  uint i = GRID_INVOCATION_ID;
  if (i >= pc.count) return;
  vec3 o = origins[i].xyz, d = directions[i].xyz;
  results[i] = pc.active_mode != 0 ? active_ray(o, d) : passive_ray(o, d);
}
