// Sky radiance by the fixed priority of core/illumination.h: the directional table
// [bands][16][32], then Hosek-Wilkie (normalised by its own zenith value), then uniform.
// Reads the spectral buffer `spectral`.
float directional_sky_radiance(int offset, vec3 d, int band) {
  if (offset < 0 || d.z <= 0.0) return 0.0;
  float theta = acos(clamp(d.z, 0.0, 1.0));
  float ft = theta * 0.63661975 * 15.0;
  int row = int(ft);
  if (row > 14) row = 14;
  if (row < 1) row = 0;
  float wz = ft - float(row);
  float phi = atan(d.x, -d.y);  // from -y towards +x
  if (phi < 0.0) phi += 6.2831855;
  float fp = phi * 5.092958;
  float fl = floor(fp);
  int col = ((int(fl) % 32) + 32) % 32;
  int next = (col + 1) % 32;
  float wa = fp - fl;
  int t = offset + band * 512;
  float v0 = spectral[t + row * 32 + col] * (1.0 - wa) + spectral[t + row * 32 + next] * wa;
  float v1 = spectral[t + (row + 1) * 32 + col] * (1.0 - wa) + spectral[t + (row + 1) * 32 + next] * wa;
  float v = v0 * (1.0 - wz) + v1 * wz;
  return v < 0.0 ? 0.0 : v;
}

float hosek_wilkie_radiance(int offset, vec3 d, vec3 sun, int band) {
  int c = offset + band * 10;
  float c9 = spectral[c + 9];
  if (c9 <= 0.0) return 0.0;
  float cos_t = max(d.z, 0.001);
  float cos_g = clamp(dot(d, sun), -1.0, 1.0);
  float g = acos(cos_g);
  float f = (1.0 + spectral[c] * exp(spectral[c + 1] / cos_t)) *
            (1.0 + spectral[c + 2] * exp(spectral[c + 3] * g) + spectral[c + 4] * cos_g * cos_g +
             spectral[c + 5] * exp(spectral[c + 6] * g * g) + spectral[c + 7] * sqrt(cos_t) +
             spectral[c + 8]);
  float gz = acos(clamp(sun.z, 0.0, 1.0));
  float cz = cos(gz);
  float z = (1.0 + spectral[c] * exp(spectral[c + 1])) *
            (1.0 + spectral[c + 2] * exp(spectral[c + 3] * gz) + spectral[c + 4] * cz * cz +
             spectral[c + 5] * exp(spectral[c + 6] * gz * gz) + spectral[c + 7] + spectral[c + 8]);
  float v = c9 * f / max(z, 0.001);
  return v < 0.0 ? 0.0 : v;
}

float sky_radiance(int uniform_offset, int directional_offset, int hw_offset, vec3 hw_sun, vec3 d,
                   int band) {
  if (directional_offset >= 0) return directional_sky_radiance(directional_offset, d, band);
  if (hw_offset >= 0) return hosek_wilkie_radiance(hw_offset, d, hw_sun, band);
  if (uniform_offset >= 0) return spectral[uniform_offset + band];
  return 0.0;
}
