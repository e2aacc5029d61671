// Moving a hit point off its surface by a few units in the last place of each
// coordinate, scaled by the normal (core/offset_origin.h); near zero a fixed 2^-16.
float offset_coordinate(float p, float n) {
  if (abs(p) < 0.03125) return p + 1.52587890625e-05 * n;
  int i = int(256.0 * n);
  if (p < 0.0) i = -i;
  return intBitsToFloat(floatBitsToInt(p) + i);
}

vec3 offset_origin(vec3 p, vec3 ng, vec3 dir) {
  vec3 n = dot(dir, ng) < 0.0 ? -ng : ng;
  return vec3(offset_coordinate(p.x, n.x), offset_coordinate(p.y, n.y), offset_coordinate(p.z, n.z));
}
