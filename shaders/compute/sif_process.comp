#version 460
// SIF finalisation: each element's fluorescence yield and its absorbed spectra at the
// selected bands, a gather with one invocation per element.
layout(local_size_x = 64) in;

layout(std430, binding = 0) readonly buffer Top { float absorbed_top[]; };
layout(std430, binding = 1) readonly buffer Bottom { float absorbed_bottom[]; };
layout(std430, binding = 2) readonly buffer MaterialIds { int material_ids[]; };
layout(std430, binding = 3) readonly buffer MaterialPhiF { float material_phi_f[]; };
layout(std430, binding = 4) readonly buffer Selected { int selected[]; };
layout(std430, binding = 5) readonly buffer ElementPhiF { float element_phi_f[]; };
layout(std430, binding = 6) writeonly buffer OutPhiF { float out_phi_f[]; };
layout(std430, binding = 7) writeonly buffer OutTop { float out_top[]; };
layout(std430, binding = 8) writeonly buffer OutBottom { float out_bottom[]; };

layout(push_constant) uniform Push { uint count, n_bands, n_selected, has_element_phi_f; } pc;

void main() {
  uint i = gl_GlobalInvocationID.y * gl_NumWorkGroups.x * 64u + gl_GlobalInvocationID.x;
  if (i >= pc.count) return;
  int m = material_ids[i];
  out_phi_f[i] = pc.has_element_phi_f != 0u ? element_phi_f[i] : m >= 0 ? material_phi_f[m] : 0.0;
  for (uint k = 0; k < pc.n_selected; ++k) {
    uint b = i * pc.n_bands + uint(selected[k]);
    out_top[i * pc.n_selected + k] = absorbed_top[b];
    out_bottom[i * pc.n_selected + k] = absorbed_bottom[b];
  }
}
