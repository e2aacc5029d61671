#version 460
// The flux tracer (embree/flux.cpp), one invocation per photon: every surface a photon
// touches is charged to the horizontal grid cell under it, as downwelling energy on
// arrival and as upwelling energy in the cell it leaves, into exact fixed-point sums.
#include "flux_photons.glsl"
