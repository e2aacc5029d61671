// Primary rays of the sensor (core/sensor.cpp): orthographic 0, perspective 1,
// pushbroom 3, fisheye 4 with its four mappings; false when the pixel yields no ray.
bool fisheye_theta(int mapping, float r, float half_fov, out float theta) {
  theta = 0.0;
  if (mapping == 0) {
    float s = 2.0 * r * sin(half_fov / 2.0);
    if (s > 1.0) return false;
    theta = 2.0 * asin(s);
  } else if (mapping == 1) {
    theta = 2.0 * r * half_fov;
  } else if (mapping == 2) {
    float s = 2.0 * r * sin(half_fov);
    if (s > 1.0) return false;
    theta = asin(s);
  } else {
    theta = 2.0 * atan(2.0 * r * tan(half_fov / 2.0));
  }
  return theta <= half_fov;
}

bool generate_primary_ray(int type, int width, int height, float fov, float ortho_w, float ortho_h,
                          int mapping, float cam[16], int px, int py, float dx, float dy,
                          out vec3 origin, out vec3 direction) {
  origin = vec3(0.0);
  direction = vec3(0.0);
  float u = (float(px) + dx) / float(width) - 0.5;
  float v = (float(py) + dy) / float(height) - 0.5;
  vec3 lo = vec3(0.0), ld = vec3(0.0);
  if (type == 0) {
    lo = vec3(u * ortho_w, v * ortho_h, 0.0);
    ld = vec3(0.0, 0.0, -1.0);
  } else if (type == 1) {
    float t = tan(fov / 2.0);
    ld = safe_normalize(vec3(2.0 * u * t * (float(width) / float(height)), 2.0 * v * t, -1.0));
  } else if (type == 3) {
    lo = vec3(0.0, v * ortho_h, 0.0);
    ld = safe_normalize(vec3(tan(u * fov), 0.0, -1.0));
  } else if (type == 4) {
    float half_fov = fov / 2.0;
    float r = sqrt(u * u + v * v);
    float theta;
    if (!fisheye_theta(mapping, r, half_fov, theta)) return false;
    float phi = (u == 0.0 && v == 0.0) ? 0.0 : atan(v, u);
    ld = vec3(sin(theta) * cos(phi), sin(theta) * sin(phi), -cos(theta));
  } else {
    return false;
  }
  origin = vec3(cam[0] * lo.x + cam[1] * lo.y + cam[2] * lo.z + cam[3],
                cam[4] * lo.x + cam[5] * lo.y + cam[6] * lo.z + cam[7],
                cam[8] * lo.x + cam[9] * lo.y + cam[10] * lo.z + cam[11]);
  direction = safe_normalize(vec3(cam[0] * ld.x + cam[1] * ld.y + cam[2] * ld.z,
                                  cam[4] * ld.x + cam[5] * ld.y + cam[6] * ld.z,
                                  cam[8] * ld.x + cam[9] * ld.y + cam[10] * ld.z));
  return dot(direction, direction) > 0.5;
}
