#version 460
// Forward photons: absorption by layered grid cell, primitive and terrain, escape,
// and the BRF towards chosen directions (embree/forward.cpp), one invocation per photon.
#include "forward_photons.glsl"
