#version 460
// Closest hits of host rays: one invocation per ray.
#include "scene.glsl"

// origin, t_min, direction, t_max per ray
layout(std430, set = 0, binding = 6) readonly buffer Rays { float rays[]; };
// t, position, shading normal, geometric normal, material, local primitive, primitive,
// instance, flags (1 hit, 2 back face), unused: 16 words per ray
layout(std430, set = 0, binding = 7) writeonly buffer Hits { uint hits[]; };
layout(push_constant) uniform Push { uint count, base; } pc;  // rays, first ray of this dispatch

void main() {
  uint i = pc.base + INVOCATION_ID;
  if (i >= pc.count) return;
  uint b = 8 * i;
  Hit h = trace_ray(vec3(rays[b], rays[b + 1], rays[b + 2]), vec3(rays[b + 4], rays[b + 5], rays[b + 6]),
                    rays[b + 3], rays[b + 7]);
  uint o = 16 * i;
  hits[o] = floatBitsToUint(h.t);
  for (int k = 0; k < 3; ++k) {
    hits[o + 1 + k] = floatBitsToUint(h.position[k]);
    hits[o + 4 + k] = floatBitsToUint(h.shading_normal[k]);
    hits[o + 7 + k] = floatBitsToUint(h.geometric_normal[k]);
  }
  hits[o + 10] = uint(h.material_id);
  hits[o + 11] = uint(h.local_primitive);
  hits[o + 12] = uint(h.primitive_id);
  hits[o + 13] = uint(h.instance_id);
  hits[o + 14] = (h.hit ? 1u : 0u) | (h.back_face ? 2u : 0u);
  hits[o + 15] = 0u;
}
