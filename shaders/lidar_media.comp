#version 460
// LiDAR pulses in scenes with optical turbid media.
#define LIDAR_MEDIA
#include "lidar_scan.glsl"
