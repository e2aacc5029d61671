#version 460
// Closest hit of the ray-tracing pipeline form: the raw facts of the triangle, which the
// ray-generation program turns into a hit exactly as the ray-query form does.
#extension GL_EXT_ray_tracing : require
#include "trace_payload.glsl"

layout(location = 0) rayPayloadInEXT TracePayload payload;
hitAttributeEXT vec2 barycentrics;

void main() {
  payload.t = gl_HitTEXT;
  payload.instance = gl_InstanceID;
  payload.primitive = gl_PrimitiveID;
  payload.barycentrics = barycentrics;
}
