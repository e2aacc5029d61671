#version 460
// The flux tracer in scenes with optical turbid media: flux.comp's photons and grids with
// the media walk, a program of its own since the walk makes it several times larger.
#define PHOTON_MEDIA
#include "flux_photons.glsl"
