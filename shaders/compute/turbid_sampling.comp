#version 460
// The leaf-area sampler's candidate filler: one invocation per candidate, the host's
// sample_candidate in the same 32-bit integer and float operations (src/turbid/
// sampling_kernels): stream key, Sobol words by Gray code, Owen scrambling by hash, the
// inside test in 16 lanes of partial solid-angle sums, and the leaf normal (fixed-point de
// Wit inverse, Cephes sin and cos). The host verifies every candidate that comes back.
#extension GL_EXT_shader_explicit_arithmetic_types_float64 : require
layout(local_size_x = 64) in;

#define PF precise float

layout(std430, binding = 0) readonly buffer Triangles { vec4 vertices[]; };  // 3 per triangle
layout(std430, binding = 1) readonly buffer Directions { uint direction[]; };  // [row][32]
// Per candidate: position (3 floats), normal (3 floats), index, status.
layout(std430, binding = 2) writeonly buffer Candidates { uint candidates[]; };

layout(push_constant) uniform Push {
  uint first, count, key, n_triangles;
  int leaf_angle_distribution, closed_orientation;
  float lo_x, lo_y, lo_z, hi_x, hi_y, hi_z;
} pc;

uint lowbias32(uint x) {
  x ^= x >> 16;
  x *= 0x7feb352du;
  x ^= x >> 15;
  x *= 0x846ca68bu;
  x ^= x >> 16;
  return x;
}

// Rows of the direction table: dimensions 0, 1, 2, 3 and 5.
uint sobol_raw(uint index, uint row) {
  uint g = index ^ (index >> 1), v = 0u;
  while (g != 0u) {
    v ^= direction[32u * row + uint(findLSB(g))];
    g &= g - 1u;
  }
  return v;
}

uint owen_scramble(uint raw, uint dimension) {
  uint mixed = pc.key ^ (dimension * 0x9e3779b9u), prefix = 0u, counter = 0x378d82f5u;
  for (int p = 31; p >= 0; --p) {
    prefix = 2u * prefix + ((lowbias32(counter ^ mixed ^ prefix) ^ (raw >> uint(p))) & 1u);
    counter += 0x7a143595u;
  }
  return prefix;
}

float unit_float(uint v) {
  PF u = float(v) * 2.3283064e-10 + 1.1641532e-10;
  return min(u, 0.99999994);
}

// The host's branch-free atan2: Cephes' atanf polynomial after reduction to [0, 1] and
// the pi/4 shift; quadrant and the sign of y (of -0 too) as libm's.
float atan2_lane(float y, float x) {
  PF ax = abs(x), ay = abs(y);
  PF hi = ax > ay ? ax : ay, lo = ax > ay ? ay : ax;
  bool shift = lo > 0.41421356 * hi;
  PF q_num = shift ? lo - hi : lo, q_den = shift ? lo + hi : hi;
  PF r = q_den > 0.0 ? q_num / q_den : 0.0;
  PF z = r * r;
  PF t = (((8.05374449538e-2 * z - 1.38776856032e-1) * z + 1.99777106478e-1) * z -
          3.33329491539e-1) * z * r + r;
  t = shift ? t + 0.78539816 : t;
  t = ay > ax ? 1.5707964 - t : t;
  t = x < 0.0 ? 3.1415927 - t : t;
  PF signed_t = (floatBitsToUint(y) & 0x80000000u) != 0u ? -t : t;
  return signed_t;
}

// Inside or on the closed boundary: 16 lanes of partial sums over the triangles in blocks,
// added in lane order, as on the host.
bool inside_closed_boundary(vec3 p) {
  PF partial[16];
  for (int l = 0; l < 16; ++l) partial[l] = 0.0;
  for (uint base = 0u; base < pc.n_triangles; base += 16u) {
    uint lanes = min(16u, pc.n_triangles - base);
    bool on_surface = false;
    for (uint l = 0u; l < lanes; ++l) {
      uint t = 3u * (base + l);
      PF ax = vertices[t].x - p.x, ay = vertices[t].y - p.y, az = vertices[t].z - p.z;
      PF bx = vertices[t + 1u].x - p.x, by = vertices[t + 1u].y - p.y, bz = vertices[t + 1u].z - p.z;
      PF cx = vertices[t + 2u].x - p.x, cy = vertices[t + 2u].y - p.y, cz = vertices[t + 2u].z - p.z;
      PF e1x = bx - ax, e1y = by - ay, e1z = bz - az;
      PF e2x = cx - ax, e2y = cy - ay, e2z = cz - az;
      PF nx = e1y * e2z - e1z * e2y, ny = e1z * e2x - e1x * e2z, nz = e1x * e2y - e1y * e2x;
      PF dx = -ax, dy = -ay, dz = -az;
      PF nn = nx * nx + ny * ny + nz * nz, dn = nx * dx + ny * dy + nz * dz;
      PF a11 = e1x * e1x + e1y * e1y + e1z * e1z, a12 = e1x * e2x + e1y * e2y + e1z * e2z;
      PF a22 = e2x * e2x + e2y * e2y + e2z * e2z;
      PF gram = a11 * a22 - a12 * a12;
      PF r1 = dx * e1x + dy * e1y + dz * e1z, r2 = dx * e2x + dy * e2y + dz * e2z;
      PF g1 = a22 * r1 - a12 * r2, g2 = a11 * r2 - a12 * r1;
      on_surface = on_surface || (nn > 1e-20 && dn * dn <= nn * 1e-12 && gram > 1e-20 &&
                                  g1 >= -1e-06 * gram && g2 >= -1e-06 * gram &&
                                  g1 + g2 <= 1.000001 * gram);
      PF la = sqrt(ax * ax + ay * ay + az * az);
      PF lb = sqrt(bx * bx + by * by + bz * bz);
      PF lc = sqrt(cx * cx + cy * cy + cz * cz);
      PF num = ax * (by * cz - bz * cy) + ay * (bz * cx - bx * cz) + az * (bx * cy - by * cx);
      PF den = la * lb * lc + (ax * bx + ay * by + az * bz) * lc + (ax * cx + ay * cy + az * cz) * lb +
               (bx * cx + by * cy + bz * cz) * la;
      partial[l] += 2.0 * atan2_lane(num, den);
    }
    if (on_surface) return true;
  }
  PF sum = 0.0;
  for (int l = 0; l < 16; ++l) sum += partial[l];
  PF signed_sum = float(pc.closed_orientation) * sum;
  return signed_sum > 6.0;
}

// ---- the de Wit leaf zenith in fixed point ----
const int CORDIC_ATAN_Q30[10] = int[10](0x3243f6a9, 0x1dac6705, 0x0fadbafd, 0x07f56ea7, 0x03feab77,
                                        0x01ffd55c, 0x00fffaab, 0x007fff55, 0x003fffeb, 0x001ffffd);

uint cordic_sin_magnitude_q30(int angle_q30) {
  if (angle_q30 == 0) return 0u;
  int x = 0x26dd3b6a, y = 0, z = angle_q30;
  for (int step = 0; step < 24; ++step) {
    int m = z >> 31;
    int dx = y >> step, dy = x >> step;
    int a = step < 10 ? CORDIC_ATAN_Q30[step] : 1 << (30 - step);
    x -= (dx ^ m) - m;
    y += (dy ^ m) - m;
    z -= (a ^ m) - m;
  }
  return y < 0 ? uint(-y) : uint(y);
}

uint high_word(uint a, uint b) {
  uint hi, lo;
  umulExtended(a, b, hi, lo);
  return hi;
}

// (s * k) >> 30 of the 64-bit product, in 32 bits.
uint mul_q30_q32(uint s, uint k) {
  uint hi, lo;
  umulExtended(s, k, hi, lo);
  return (hi << 2) | (lo >> 30);
}

uint de_wit_cdf(uint c, int type) {
  uint q;
  bool add;
  if (type == 1 || type == 2) {
    uint folded = c <= 0x80000000u ? c : 0u - c;
    int angle = int(high_word(folded, 0xc90fdaa2u));
    q = mul_q30_q32(cordic_sin_magnitude_q30(angle), 0x517cc1b7u);
    add = type == 1;
  } else if (type == 3 || type == 4) {
    uint folded;
    bool negative;
    if (c <= 0x40000000u) {
      folded = c, negative = false;
    } else if (c <= 0x80000000u) {
      folded = 0x80000000u - c, negative = false;
    } else if (c <= 0xc0000000u) {
      folded = c - 0x80000000u, negative = true;
    } else {
      folded = 0u - c, negative = true;
    }
    int angle = int(folded + high_word(folded, 0x921fb544u));
    q = mul_q30_q32(cordic_sin_magnitude_q30(angle), 0x28be60dcu);
    // c + q for extremophile, c - q for plagiophile, each negated on the upper half.
    add = (type == 4) != negative;
  } else {
    return c;
  }
  if (add) {
    uint carry;
    uint f = uaddCarry(c, q, carry);
    return carry != 0u ? 0xffffffffu : f;
  }
  return q > c ? 0u : c - q;
}

uint de_wit_code(uint w, int type) {
  uint lo = 0u, hi = 0xffffffffu;
  for (int round = 0; round < 32; ++round) {
    uint mid = lo + (hi - lo) / 2u;
    if (de_wit_cdf(mid, type) < w)
      lo = mid + 1u;
    else
      hi = mid;
  }
  return lo;
}

// sqrt rounded to nearest, as the host's: a device may round its sqrt within a few ulp.
// Each step compares x with the square of the midpoint to the neighbouring float, exact
// in double (25 bits squared fit 53).
float sqrt_rn(float x) {
  float s = sqrt(x);
  if (!(x > 0.0)) return s;
  double X = double(x);
  for (int k = 0; k < 8; ++k) {
    float up = uintBitsToFloat(floatBitsToUint(s) + 1u);
    precise double mid_up = (double(s) + double(up)) * 0.5lf;
    if (X > mid_up * mid_up) {
      s = up;
      continue;
    }
    float down = uintBitsToFloat(floatBitsToUint(s) - 1u);
    precise double mid_down = (double(down) + double(s)) * 0.5lf;
    if (X < mid_down * mid_down) {
      s = down;
      continue;
    }
    break;
  }
  return s;
}

// Cephes' sinf and cosf for x in [0, 6.2831855], as the host's sincos_float.
vec2 sincos_float(float x) {
  int j = int(x * 1.27323954);
  PF y = float(j);
  if ((j & 1) != 0) {
    j += 1;
    y += 1.0;
  }
  j &= 7;
  PF z = ((x - y * 0.78515625) - y * 2.4187564849853515625e-4) - y * 3.77489497744594108e-8;
  PF zz = z * z;
  PF sin_z = ((-1.9515295891e-4 * zz + 8.3321608736e-3) * zz - 1.6666654611e-1) * zz * z + z;
  PF cos_z = ((2.443315711809948e-5 * zz - 1.388731625493765e-3) * zz + 4.166664568298827e-2) *
                 zz * zz - 0.5 * zz + 1.0;
  bool swap = j == 2 || j == 6;
  PF s = swap ? cos_z : sin_z;
  PF c = swap ? sin_z : cos_z;
  return vec2(j >= 4 ? -s : s, (j == 2 || j == 4) ? -c : c);
}

void main() {
  uint id = gl_GlobalInvocationID.y * gl_NumWorkGroups.x * 64u + gl_GlobalInvocationID.x;
  if (id >= pc.count) return;
  uint index = pc.first + id;
  PF px = unit_float(owen_scramble(sobol_raw(index, 0u), 0u)) * (pc.hi_x - pc.lo_x) + pc.lo_x;
  PF py = unit_float(owen_scramble(sobol_raw(index, 1u), 1u)) * (pc.hi_y - pc.lo_y) + pc.lo_y;
  PF pz = unit_float(owen_scramble(sobol_raw(index, 2u), 2u)) * (pc.hi_z - pc.lo_z) + pc.lo_z;
  vec3 normal = vec3(0.0, 0.0, 1.0);
  uint status = 0u;
  if (inside_closed_boundary(vec3(px, py, pz))) {
    uint w_zenith = owen_scramble(sobol_raw(index, 3u), 3u);
    uint w_azimuth = owen_scramble(sobol_raw(index, 4u), 5u);
    vec2 zenith;  // (sin, cos)
    int type = pc.leaf_angle_distribution;
    if (type == 0) {
      PF u = unit_float(w_zenith);
      PF s = sqrt_rn((1.0 - u) * (1.0 + u));
      zenith = vec2(s, u);
    } else if (type == 5) {
      PF u = unit_float(w_zenith);
      zenith = u >= 0.99999994 ? vec2(1.0, 7.54979e-08) : sincos_float(u * 1.5707964);
    } else {
      zenith = sincos_float(float(de_wit_code(w_zenith, type)) * 3.6572953e-10);
    }
    PF ua = unit_float(w_azimuth);
    vec2 azimuth = ua >= 0.99999994 ? vec2(-3.019916e-07, 1.0) : sincos_float(ua * 6.2831855);
    PF nx = zenith.x * azimuth.y;
    PF ny = zenith.x * azimuth.x;
    normal = vec3(nx, ny, zenith.y);
    status = 1u;
  }
  uint o = 8u * id;
  candidates[o] = floatBitsToUint(px);
  candidates[o + 1u] = floatBitsToUint(py);
  candidates[o + 2u] = floatBitsToUint(pz);
  candidates[o + 3u] = floatBitsToUint(normal.x);
  candidates[o + 4u] = floatBitsToUint(normal.y);
  candidates[o + 5u] = floatBitsToUint(normal.z);
  candidates[o + 6u] = index;
  candidates[o + 7u] = status;
}
