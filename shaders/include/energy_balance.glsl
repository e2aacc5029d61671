// Energy-balance sampling (embree/energy_balance.cpp): the random stream of one sample
// of one primitive, uniform points on its triangle, cosine-weighted directions about its
// normal. Needs rng.glsl.

const float EB_PI = 3.1415927;
const float EB_INV_PI = 0.31830987;
const float EB_TWO_PI = 6.2831855;
const float EB_SURFACE_OFFSET = 0.0001;  // start of the sample rays, along the normal
const float EB_WALK_OFFSET = 0.0002;     // start of walk rays, along the new direction

// The stream increment comes from the primitive, so the numbers do not depend on who
// traces it; the first draw is the output after one step from the seed.
Rng sample_rng(uint64_t primitive, uint64_t sample_index) {
  Rng r;
  r.inc = (primitive * 15838UL + 2UL) | 1UL;
  r.state = primitive * 1000003UL + sample_index + r.inc;
  rng_next(r);
  return r;
}

// The float3 dot of core/types.h, in its order.
float dot3(vec3 a, vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

// A cosine-weighted direction about the unit normal n from an azimuth and a radius draw.
vec3 cosine_direction(vec3 n, float azimuth_draw, float radius_draw) {
  float phi = EB_TWO_PI * azimuth_draw;
  float r = sqrt(radius_draw);
  float x = r * cos(phi), y = r * sin(phi);
  float z = sqrt(max(1.0 - x * x - y * y, 0.0));
  vec3 t;
  if (abs(n.x) > abs(n.y)) {
    float l = sqrt(n.x * n.x + n.z * n.z);
    t = vec3(n.z / l, 0.0, -n.x / l);
  } else {
    float l = sqrt(n.y * n.y + n.z * n.z);
    t = vec3(0.0, n.z / l, -n.y / l);
  }
  vec3 b = vec3(t.y * n.z - t.z * n.y, t.z * n.x - t.x * n.z, t.x * n.y - t.y * n.x);
  return z * n + y * t + x * b;
}

// A uniform point of the triangle (v0, v1, v2) from two draws.
vec3 point_on(vec3 v0, vec3 v1, vec3 v2, float u, float v) {
  if (u + v > 1.0) {
    u = 1.0 - u;
    v = 1.0 - v;
  }
  return (1.0 - u - v) * v0 + u * v1 + v * v2;
}
