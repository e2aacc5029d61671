#pragma once
// SIF source assembly: per-sample fluorescence source spectra binned, per instance, into
// averaged lookup tables over the instance's voxel grid, over leaf-normal orientation
// bins, and over both, for the backward tracer (set_instance_sif_source_fields).

#include <cstdint>
#include <vector>

#include "core/execution.h"
#include "core/span.h"

namespace vesk::backend {

// positions, normals: 3 floats per sample (instance space, scene units; normals need not
// be unit length). instance_ids: per sample, 0 .. n_instances - 1. grid_dims: nx, ny, nz
// per instance; bounds_min / bounds_max: the instance's grid box, 3 floats per instance.
// source_band_major, direct_source_band_major: the source and its directly sunlit share,
// n_samples values for band 0, then for band 1, ... (units are carried through).
// cell_stride: cell slots reserved per instance in every table (>= nx * ny * nz).
// theta_bins x phi_bins orientation bins over the upper hemisphere.
struct SifSourceAssemblyRequestView {
  int32_t n_instances = 0;
  int32_t n_samples = 0;
  int32_t n_bands = 0;
  int32_t cell_stride = 0;
  int32_t theta_bins = 0, phi_bins = 0;
  FloatSpan positions, normals;
  IntSpan instance_ids;
  IntSpan grid_dims;
  FloatSpan source_band_major, direct_source_band_major;
  FloatSpan bounds_min, bounds_max;
};

// Band fastest throughout; B = theta_bins * phi_bins, bin = theta_bin * phi_bins + phi_bin.
// spatial_field [instance][cell][band], orientation_field [instance][bin][band],
// joint_field and direct_joint_field [instance][cell][bin][band]; the counts are the
// samples behind each mean (spatial [instance][cell], orientation [instance][bin], joint
// [instance][cell][bin]).
struct SifSourceAssemblyResult {
  std::vector<float> spatial_field, orientation_field, joint_field, direct_joint_field;
  std::vector<uint32_t> spatial_counts, orientation_counts, joint_counts;
  ExecutionRecord execution;
};

// The one validator; throws std::invalid_argument with the first failure.
void validate_sif_source_assembly_request(const SifSourceAssemblyRequestView& view);

// Validates, bins every usable sample and finishes the four tables. Results are the same
// bits for any thread count.
SifSourceAssemblyResult assemble_sif_source(const SifSourceAssemblyRequestView& view);

}  // namespace vesk::backend

