// What a traversal reports of the closest triangle it found: its distance, the instance
// (-1: nothing was hit), the triangle within the instance's mesh and the barycentrics.
// The ray-query form fills it from the committed intersection; the pipeline form gets it
// from hit.rchit and miss.rmiss.
struct TracePayload {
  float t;
  int instance, primitive;
  vec2 barycentrics;
};
