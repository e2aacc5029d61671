#version 460
// Miss of the ray-tracing pipeline form: nothing along the ray.
#extension GL_EXT_ray_tracing : require
#include "trace_payload.glsl"

layout(location = 0) rayPayloadInEXT TracePayload payload;

void main() {
  payload.instance = -1;
}
