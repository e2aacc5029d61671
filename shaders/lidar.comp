#version 460
// LiDAR pulses in scenes without optical turbid media.
#include "lidar_scan.glsl"
