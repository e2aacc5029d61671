// The scene as the programs see it: the top-level structure, every mesh's vertices,
// normals and triangles, and the instance records; and closest-hit and shadow queries
// that give what the CPU scene's trace_ray and trace_shadow give.
//
// Every program is compiled twice from one text. By default it is a compute shader that
// traverses with ray queries; with VESK_RAY_PIPELINE defined it is the ray-generation
// shader of a ray-tracing pipeline, for devices without ray queries, and traverses with
// traceRayEXT (hit.rchit and miss.rmiss report the raw hit). Only the traversal below and
// INVOCATION_ID differ between the two forms; everything a program does with a hit is
// the same code.
#ifdef VESK_RAY_PIPELINE
#extension GL_EXT_ray_tracing : require
#define INVOCATION_ID gl_LaunchIDEXT.x
#define GRID_INVOCATION_ID (gl_LaunchIDEXT.y * gl_LaunchSizeEXT.x + gl_LaunchIDEXT.x)
#else
#extension GL_EXT_ray_query : require
layout(local_size_x = 64) in;
#define INVOCATION_ID gl_GlobalInvocationID.x
// Invocations of a two-dimensional dispatch (Program::dispatch_grid), row by row.
#define GRID_INVOCATION_ID (gl_GlobalInvocationID.y * gl_NumWorkGroups.x * 64u + gl_GlobalInvocationID.x)
#endif
#include "trace_payload.glsl"

layout(set = 0, binding = 0) uniform accelerationStructureEXT scene_top;
layout(std430, set = 0, binding = 1) readonly buffer Vertices { float vertices[]; };
layout(std430, set = 0, binding = 2) readonly buffer Normals { float normals[]; };
layout(std430, set = 0, binding = 3) readonly buffer Triangles { int triangles[]; };
// vertex offset, normal offset (-1: flat-shaded), triangle offset, triangle count
layout(std430, set = 0, binding = 4) readonly buffer Meshes { ivec4 meshes[]; };
struct InstanceRecord {
  vec4 row0, row1, row2;  // the row-major 3x4 transform [M3 | t]
  int mesh_id, material_id, primitive_offset, pad;
};
layout(std430, set = 0, binding = 5) readonly buffer Instances { InstanceRecord instances[]; };

struct Hit {
  float t;
  vec3 position, shading_normal, geometric_normal;  // normals face the ray
  int material_id, local_primitive, primitive_id, instance_id;
  bool hit, back_face;
};

// A zero vector stays zero rather than turning into NaNs.
vec3 safe_normalize(vec3 a) {
  float l = length(a);
  return l > 0.0 ? a * (1.0 / l) : a;
}

vec3 fetch3(int i, bool normal) {
  return normal ? vec3(normals[3 * i], normals[3 * i + 1], normals[3 * i + 2])
                : vec3(vertices[3 * i], vertices[3 * i + 1], vertices[3 * i + 2]);
}

// The linear part M3 (not its inverse transpose), as on the CPU: non-uniform scales
// skew normals.
vec3 linear_part(InstanceRecord r, vec3 v) {
  return vec3(r.row0.x * v.x + r.row0.y * v.y + r.row0.z * v.z,
              r.row1.x * v.x + r.row1.y * v.y + r.row1.z * v.z,
              r.row2.x * v.x + r.row2.y * v.y + r.row2.z * v.z);
}

// The traversal itself: the closest committed triangle between t_min and t_max, as the
// raw facts the hit is made from, or instance -1 for none.
#ifdef VESK_RAY_PIPELINE
layout(location = 0) rayPayloadEXT TracePayload trace_payload;

TracePayload closest_triangle_masked(vec3 o, vec3 d, float t_min, float t_max, uint mask) {
  trace_payload.instance = -1;
  traceRayEXT(scene_top, gl_RayFlagsOpaqueEXT, mask, 0, 0, 0, o, t_min, d, t_max, 0);
  return trace_payload;
}

bool any_triangle(vec3 o, vec3 d, float t_min, float t_max) {
  // With the closest-hit shader skipped, only the miss shader writes the payload: an
  // instance left at 0 means something was hit.
  trace_payload.instance = 0;
  traceRayEXT(scene_top,
              gl_RayFlagsOpaqueEXT | gl_RayFlagsTerminateOnFirstHitEXT | gl_RayFlagsSkipClosestHitShaderEXT,
              0xFF, 0, 0, 0, o, t_min, d, t_max, 0);
  return trace_payload.instance >= 0;
}
#else
TracePayload closest_triangle_masked(vec3 o, vec3 d, float t_min, float t_max, uint mask) {
  TracePayload p;
  p.instance = -1;
  rayQueryEXT q;
  rayQueryInitializeEXT(q, scene_top, gl_RayFlagsOpaqueEXT, mask, o, t_min, d, t_max);
  while (rayQueryProceedEXT(q)) {
  }
  if (rayQueryGetIntersectionTypeEXT(q, true) != gl_RayQueryCommittedIntersectionTriangleEXT) return p;
  p.t = rayQueryGetIntersectionTEXT(q, true);
  p.instance = rayQueryGetIntersectionInstanceIdEXT(q, true);
  p.primitive = rayQueryGetIntersectionPrimitiveIndexEXT(q, true);
  p.barycentrics = rayQueryGetIntersectionBarycentricsEXT(q, true);
  return p;
}

bool any_triangle(vec3 o, vec3 d, float t_min, float t_max) {
  rayQueryEXT q;
  rayQueryInitializeEXT(q, scene_top, gl_RayFlagsOpaqueEXT | gl_RayFlagsTerminateOnFirstHitEXT,
                        0xFF, o, t_min, d, t_max);
  while (rayQueryProceedEXT(q)) {
  }
  return rayQueryGetIntersectionTypeEXT(q, true) == gl_RayQueryCommittedIntersectionTriangleEXT;
}
#endif

// Instance masks of the top-level structure: ordinary surfaces, and the bounding surfaces
// of optical turbid media, which the media walks query apart (media.glsl).
const uint MASK_SURFACE = 0x01u, MASK_MEDIUM_BOUNDARY = 0x02u, MASK_ALL = 0xFFu;

// The closest hit among the instances whose mask shares a bit with `mask`.
Hit trace_ray_masked(vec3 o, vec3 d, float t_min, float t_max, uint mask) {
  Hit h;
  h.t = t_max;
  h.position = vec3(0.0);
  h.shading_normal = h.geometric_normal = vec3(0.0, 0.0, 1.0);
  h.material_id = h.local_primitive = h.primitive_id = h.instance_id = -1;
  h.hit = h.back_face = false;
  if (!(t_max >= t_min) || dot(d, d) == 0.0) return h;
  TracePayload raw = closest_triangle_masked(o, d, t_min, t_max, mask);
  if (raw.instance < 0) return h;
  h.hit = true;
  h.t = raw.t;
  h.position = o + h.t * d;
  int inst = raw.instance;
  int prim = raw.primitive;
  vec2 uv = raw.barycentrics;
  InstanceRecord r = instances[inst];
  ivec4 mesh = meshes[r.mesh_id];
  h.instance_id = inst;
  h.local_primitive = prim;
  h.primitive_id = r.primitive_offset + prim;
  h.material_id = r.material_id;
  int tri = 3 * (mesh.z + prim);
  ivec3 idx = ivec3(triangles[tri], triangles[tri + 1], triangles[tri + 2]);
  vec3 v0 = fetch3(mesh.x + idx.x, false), v1 = fetch3(mesh.x + idx.y, false),
       v2 = fetch3(mesh.x + idx.z, false);
  vec3 ng = safe_normalize(linear_part(r, cross(v1 - v0, v2 - v0)));
  vec3 ns = ng;
  if (mesh.y >= 0) {
    vec3 n = (1.0 - uv.x - uv.y) * fetch3(mesh.y + idx.x, true) + uv.x * fetch3(mesh.y + idx.y, true) +
             uv.y * fetch3(mesh.y + idx.z, true);
    ns = safe_normalize(linear_part(r, n));
  }
  h.back_face = dot(d, ng) > 0.0;
  if (h.back_face) ng = -ng;
  if (dot(ng, ns) < 0.0) ns = -ns;
  h.geometric_normal = ng;
  h.shading_normal = ns;
  return h;
}

Hit trace_ray(vec3 o, vec3 d, float t_min, float t_max) {
  return trace_ray_masked(o, d, t_min, t_max, MASK_ALL);
}

// Whether anything lies along the ray between 1e-4 and t_max.
bool trace_shadow(vec3 o, vec3 d, float t_max) {
  if (!(t_max >= 1e-4) || dot(d, d) == 0.0) return false;
  return any_triangle(o, d, 1e-4, t_max);
}
