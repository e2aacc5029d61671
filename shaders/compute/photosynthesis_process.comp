#version 460
// The static photosynthesis process: one invocation per element, a sunlit and a shaded
// leaf by the leaf model, weighed by the sunlit fraction. The PAR bands and their factors
// (W m-2 to umol m-2 s-1) come from the host, computed there once.
#include "leaf_solver.glsl"

layout(local_size_x = 64) in;

layout(std430, binding = 0) readonly buffer Top { float absorbed_top[]; };
layout(std430, binding = 1) readonly buffer Bottom { float absorbed_bottom[]; };
layout(std430, binding = 2) readonly buffer Direct { float absorbed_direct[]; };
layout(std430, binding = 3) readonly buffer ParBands { uint par_band[]; };
layout(std430, binding = 4) readonly buffer ParFactors { float par_factor[]; };
layout(std430, binding = 5) readonly buffer Elements { float element[]; };  // f, T sunlit, T shaded
layout(std430, binding = 6) readonly buffer MaterialIds { int material_ids[]; };
// Per material: active, fluorescent (0/1), then the six leaf parameters as float bits.
layout(std430, binding = 7) readonly buffer Materials { uint material[]; };
// Per element, 14 words: temperature, an, gs, phi_f, apar, temperature_sunlit,
// temperature_shaded, sunlit_fraction, apar_sunlit, apar_shaded, an_sunlit, an_shaded,
// active_mask, converged.
layout(std430, binding = 8) writeonly buffer Outputs { uint outputs[]; };

layout(push_constant) uniform Push {
  uint count, n_bands, n_par;
  float co2, relative_humidity;
  int max_iterations;
  float tolerance;
} pc;

void main() {
  uint i = gl_GlobalInvocationID.y * gl_NumWorkGroups.x * 64u + gl_GlobalInvocationID.x;
  if (i >= pc.count) return;
  PF f = element[3 * i];
  PF t_sun = element[3 * i + 1];
  PF t_shade = element[3 * i + 2];
  float o[14];
  for (int k = 0; k < 14; ++k) o[k] = 0.0;
  PF temperature = f * t_sun + (1.0 - f) * t_shade;
  o[0] = temperature, o[5] = t_sun, o[6] = t_shade, o[7] = f;
  int m = material_ids[i];
  bool converged = false, is_active = m >= 0 && material[8 * m] != 0u;
  if (is_active) {
    PF apar = 0.0, apar_direct = 0.0;
    for (uint j = 0; j < pc.n_par; ++j) {
      uint b = i * pc.n_bands + par_band[j];
      apar += (absorbed_top[b] + absorbed_bottom[b]) * par_factor[j];
      apar_direct += absorbed_direct[b] * par_factor[j];
    }
    PF apar_shaded = vmax(apar - f * apar_direct, 0.0);
    PF apar_sunlit = apar_direct + apar_shaded;
    bool fluorescent = material[8 * m + 1] != 0u;
    LeafInput l;
    l.co2 = pc.co2, l.rh = pc.relative_humidity, l.pressure = 0.0, l.wind = 0.0;
    l.vcmax25 = uintBitsToFloat(material[8 * m + 2]);
    l.jmax25 = uintBitsToFloat(material[8 * m + 3]);
    l.rd25 = uintBitsToFloat(material[8 * m + 4]);
    l.slope = uintBitsToFloat(material[8 * m + 5]);
    l.g0 = uintBitsToFloat(material[8 * m + 6]);
    l.qy = fluorescent ? uintBitsToFloat(material[8 * m + 7]) : 0.0;
    l.sw = 0.0, l.lw = 0.0, l.ta = 0.0, l.ea = 0.0, l.emis = 0.0, l.side = 0.0, l.width = 0.0;
    l.stom = 0.0;
    l.apar_sum = apar_sunlit, l.temperature = t_sun;
    LeafOutput sun = solve_leaf(l, false, false, pc.max_iterations, pc.tolerance);
    l.apar_sum = apar_shaded, l.temperature = t_shade;
    LeafOutput shade = solve_leaf(l, false, false, pc.max_iterations, pc.tolerance);
    PF an = f * sun.an + (1.0 - f) * shade.an;
    PF gs = f * sun.gs + (1.0 - f) * shade.gs;
    PF phi_f = fluorescent ? f * sun.phi_f + (1.0 - f) * shade.phi_f : 0.0;
    o[1] = an, o[2] = gs, o[3] = phi_f, o[4] = apar;
    o[8] = apar_sunlit, o[9] = apar_shaded, o[10] = sun.an, o[11] = shade.an;
    converged = sun.converged && shade.converged;
  }
  for (int k = 0; k < 12; ++k) outputs[14 * i + k] = floatBitsToUint(o[k]);
  outputs[14 * i + 12] = is_active ? 1u : 0u;
  outputs[14 * i + 13] = converged ? 1u : 0u;
}
