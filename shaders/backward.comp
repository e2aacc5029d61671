#version 460
// Backward path tracing in scenes without optical turbid media.
#include "backward.glsl"
