#version 460
// Forward photons and the BRF in scenes with optical turbid media: forward.comp's
// recorder with the media walk and the shadow transmittance (with the hot spot) of the
// local estimates. The BRF entry runs it without grids, as brf.spv does.
#define PHOTON_MEDIA
#include "forward_photons.glsl"
