#version 460
// The leaf solver over elements: one invocation per element, the host's batch kernel
// lane for lane. Bindings: 0 apar (element-major, band fastest); 1-11 the element inputs;
// 12-19 the energy-balance inputs; 20-28 the outputs (converged as one uint).
#include "leaf_solver.glsl"

layout(local_size_x = 64) in;

layout(std430, binding = 0) readonly buffer Apar { float apar[]; };
layout(std430, binding = 1) readonly buffer In1 { float temperature[]; };
layout(std430, binding = 2) readonly buffer In2 { float co2[]; };
layout(std430, binding = 3) readonly buffer In3 { float relative_humidity[]; };
layout(std430, binding = 4) readonly buffer In4 { float pressure[]; };
layout(std430, binding = 5) readonly buffer In5 { float wind[]; };
layout(std430, binding = 6) readonly buffer In6 { float vcmax25[]; };
layout(std430, binding = 7) readonly buffer In7 { float jmax25[]; };
layout(std430, binding = 8) readonly buffer In8 { float rd25[]; };
layout(std430, binding = 9) readonly buffer In9 { float ball_berry_slope[]; };
layout(std430, binding = 10) readonly buffer In10 { float ball_berry_intercept[]; };
layout(std430, binding = 11) readonly buffer In11 { float quantum_yield[]; };
layout(std430, binding = 12) readonly buffer Eb1 { float absorbed_shortwave[]; };
layout(std430, binding = 13) readonly buffer Eb2 { float absorbed_longwave[]; };
layout(std430, binding = 14) readonly buffer Eb3 { float air_temperature[]; };
layout(std430, binding = 15) readonly buffer Eb4 { float vapor_pressure[]; };
layout(std430, binding = 16) readonly buffer Eb5 { float emissivity[]; };
layout(std430, binding = 17) readonly buffer Eb6 { float sidedness[]; };
layout(std430, binding = 18) readonly buffer Eb7 { float leaf_width[]; };
layout(std430, binding = 19) readonly buffer Eb8 { float stomata_sides[]; };
layout(std430, binding = 20) writeonly buffer Out1 { float out_an[]; };
layout(std430, binding = 21) writeonly buffer Out2 { float out_gs[]; };
layout(std430, binding = 22) writeonly buffer Out3 { float out_ci[]; };
layout(std430, binding = 23) writeonly buffer Out4 { float out_phi_f[]; };
layout(std430, binding = 24) writeonly buffer Out5 { uint out_converged[]; };
layout(std430, binding = 25) writeonly buffer Out6 { float out_temperature[]; };
layout(std430, binding = 26) writeonly buffer Out7 { float out_net_radiation[]; };
layout(std430, binding = 27) writeonly buffer Out8 { float out_sensible_heat[]; };
layout(std430, binding = 28) writeonly buffer Out9 { float out_latent_heat[]; };

layout(push_constant) uniform Push {
  uint count, n_bands;
  int energy_balance, solve_temperature, max_iterations;
  float tolerance;
} pc;

void main() {
  uint i = gl_GlobalInvocationID.y * gl_NumWorkGroups.x * 64u + gl_GlobalInvocationID.x;
  if (i >= pc.count) return;
  LeafInput l;
  PF sum = 0.0;
  for (uint b = 0; b < pc.n_bands; ++b) sum += apar[i * pc.n_bands + b];
  l.apar_sum = sum;
  l.temperature = temperature[i], l.co2 = co2[i], l.rh = relative_humidity[i];
  l.pressure = pressure[i], l.wind = wind[i];
  l.vcmax25 = vcmax25[i], l.jmax25 = jmax25[i], l.rd25 = rd25[i];
  l.slope = ball_berry_slope[i], l.g0 = ball_berry_intercept[i], l.qy = quantum_yield[i];
  bool eb = pc.energy_balance != 0;
  if (eb) {
    l.sw = absorbed_shortwave[i], l.lw = absorbed_longwave[i], l.ta = air_temperature[i];
    l.ea = vapor_pressure[i], l.emis = emissivity[i], l.side = sidedness[i];
    l.width = leaf_width[i], l.stom = stomata_sides[i];
  } else {
    l.sw = 0.0, l.lw = 0.0, l.ta = 0.0, l.ea = 0.0, l.emis = 0.0, l.side = 0.0, l.width = 0.0;
    l.stom = 0.0;
  }
  LeafOutput o = solve_leaf(l, eb, pc.solve_temperature != 0, pc.max_iterations, pc.tolerance);
  out_an[i] = o.an, out_gs[i] = o.gs, out_ci[i] = o.ci, out_phi_f[i] = o.phi_f;
  out_converged[i] = o.converged ? 1u : 0u;
  if (eb) {
    out_temperature[i] = o.T, out_net_radiation[i] = o.rn;
    out_sensible_heat[i] = o.h, out_latent_heat[i] = o.le;
  }
}
