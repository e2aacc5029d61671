#version 460
// The BRF entry of the forward tracer: the same photons and local estimates as the
// forward program, with no grids (gnx = 0), so every absorption counts as outside.
#include "forward_photons.glsl"
