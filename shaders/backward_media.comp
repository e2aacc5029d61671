#version 460
// Backward path tracing in scenes with optical turbid media.
#define BACKWARD_MEDIA
#include "backward.glsl"
