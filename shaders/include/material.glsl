// Surface scattering (core/material.h): evaluation and cosine-weighted sampling of the
// diffuse (0), RPV (1) and two-sided leaf (13) materials in the shading frame. Reads the
// spectral buffer `spectral`, declared by the program.
const float PI = 3.1415927;
const float INV_PI = 0.31830987;
const float TWO_PI = 6.2831855;

struct Material {
  int type, spectral_offset;
  float params[8];
};

float evaluate_material(int type, int offset, int band, vec3 wo, vec3 wi, int n_bands,
                        bool back_face, bool thermal) {
  if (type == 0) {
    float rho = spectral[offset + band];
    if (thermal) rho = 1.0 - rho;
    if (wo.z <= 0.0 || wi.z <= 0.0) return 0.0;
    return rho * INV_PI;
  }
  if (type == 13) {
    if (wo.z <= 0.0) return 0.0;
    if (wi.z > 0.0) return spectral[offset + (back_face ? n_bands : 0) + band] * INV_PI;
    return spectral[offset + 2 * n_bands + band] * INV_PI;
  }
  if (type == 1) {
    if (wo.z <= 0.0 || wi.z <= 0.0) return 0.0;
    float rho0 = spectral[offset + band];
    float k = spectral[offset + n_bands + band];
    float theta = spectral[offset + 2 * n_bands + band];
    float rho_c = spectral[offset + 3 * n_bands + band];
    float m = pow(wo.z, k - 1.0) * pow(wi.z, k - 1.0);
    float c = dot(wo, wi);
    float d = 1.0 + theta * theta + 2.0 * theta * c;
    float f = (1.0 - theta * theta) / (d * sqrt(max(d, 1e-6)));
    float s1 = sqrt(max(1.0 - wo.z * wo.z, 0.0));
    float t1 = abs(wo.z) >= 1e-6 ? s1 / wo.z : 0.0;
    float s2 = sqrt(max(1.0 - wi.z * wi.z, 0.0));
    float t2 = abs(wi.z) >= 1e-6 ? s2 / wi.z : 0.0;
    float cos_phi = 0.0;
    if (s1 > 1e-6 && s2 > 1e-6)
      cos_phi = clamp((wo.x / s1) * (wi.x / s2) + (wo.y / s1) * (wi.y / s2), -1.0, 1.0);
    float g = sqrt(max(t1 * t1 + t2 * t2 - 2.0 * t1 * t2 * cos_phi, 0.0));
    return max(rho0 * m * f * (1.0 + (1.0 - rho_c) / (1.0 + g)), 0.0);
  }
  return 0.0;
}

vec3 cosine_lobe(float ur, float uphi) {
  float r = sqrt(ur), phi = TWO_PI * uphi;
  float x = r * cos(phi), y = r * sin(phi);
  return vec3(x, y, sqrt(max(1.0 - x * x - y * y, 0.0)));
}

// u holds three uniform floats; a leaf picks reflection or transmission by the
// band-averaged params[0] : params[1].
void sample_material(Material m, vec3 u, out vec3 wi, out float pdf) {
  if (m.type == 0 || m.type == 1) {
    wi = cosine_lobe(u.x, u.y);
    pdf = max(wi.z, 0.0) / PI;
    return;
  }
  if (m.type == 13) {
    float sum = m.params[0] + m.params[1];
    if (!(sum < 1e-8)) {
      float p = m.params[0] / sum;
      wi = cosine_lobe(u.y, u.z);
      if (u.x < p) {
        pdf = (max(wi.z, 0.0) / PI) * p;
      } else {
        pdf = (max(wi.z, 0.0) / PI) * (1.0 - p);
        wi.z = -wi.z;
      }
      return;
    }
  }
  wi = vec3(0.0, 0.0, 1.0);
  pdf = 1.0;
}

// Orthonormal frame around the unit normal n (vesk::coordinate_system).
void coordinate_system(vec3 n, out vec3 t, out vec3 b) {
  if (abs(n.x) > abs(n.y)) {
    float s = 1.0 / sqrt(n.x * n.x + n.z * n.z);
    b = vec3(n.z * s, 0.0, -n.x * s);
  } else {
    float s = 1.0 / sqrt(n.y * n.y + n.z * n.z);
    b = vec3(0.0, n.z * s, -n.y * s);
  }
  t = vec3(b.y * n.z - n.y * b.z, b.z * n.x - n.z * b.x, n.y * b.x - b.y * n.x);
}

// Spectral radiance per nanometre of a black body (planck.h); the exponential in float,
// the rest in double (GLSL has no double exp).
float planck_radiance(float wavelength_nm, float temperature) {
  if (temperature <= 0.0) return 0.0;
  double lambda = double(wavelength_nm) * 1e-9LF;
  double x = 0.014387768775039337LF / (double(temperature) * lambda);
  if (x > 500.0LF) return 0.0;
  double h = double(exp(float(-0.5LF * x)));
  double e = h * h;  // exp(-x)
  double l5 = lambda * lambda * lambda * lambda * lambda;
  return float(1.1910429723971884e-16LF * e / (l5 * (1.0LF - e)) * 1e-9LF);
}
