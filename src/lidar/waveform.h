#pragma once
// LiDAR waveform post-processing: the raw range-binned waveform is smeared by the
// laser's Gaussian pulse shape, then peaks are picked as returns. Arrays are flat,
// indexed (pulse * num_bins + bin) * num_wavelengths + wavelength.

#include <cstdint>
#include <vector>

namespace vesk::lidar {

constexpr float LIGHT_M_PER_NS = 0.29979247f;
constexpr int32_t POINT_FLOATS = 8;  // x, y, z, intensity, return, returns, range, pulse

// 2h + 3 taps (radius h + 1) of a Gaussian of standard deviation sigma = one-way range of
// half the pulse's full width, sampled every range_resolution out to one bin beyond
// 3 sigma, normalised to sum 1.
std::vector<float> pulse_kernel(float pulse_fwhm_ns, float range_resolution);

// The lowest and highest bin of each pulse holding a value above zero (num_bins and -1
// for an empty pulse), two ints a pulse. Outside them, within the kernel's reach, the
// convolved waveform is exactly zero, so both steps below work inside them only.
std::vector<int32_t> active_ranges(const std::vector<float>& raw, int32_t num_pulses,
                                   int32_t num_bins, int32_t num_wavelengths);

// Replaces the raw waveform by its convolution with the kernel, per pulse and
// wavelength; bins beyond the range gate contribute nothing (no renormalisation at its
// ends).
void convolve_waveform(std::vector<float>& waveform, int32_t num_pulses, int32_t num_bins,
                       int32_t num_wavelengths, const std::vector<float>& kernel,
                       const std::vector<int32_t>& ranges);

// Appends one point record per peak of each pulse, in pulse order: bins 1 .. num_bins - 2
// whose wavelength sum exceeds both neighbours and peak_threshold (all strictly), the
// nearest max_returns_per_pulse of them, placed on the pulse's axis at the bin centre.
void extract_peaks(const std::vector<float>& convolved, const std::vector<int32_t>& ranges,
                   int32_t kernel_radius, int32_t num_pulses, int32_t num_bins,
                   int32_t num_wavelengths, const float* pulse_origins,
                   const float* pulse_directions, float min_range, float range_resolution,
                   float peak_threshold, int32_t max_returns_per_pulse, std::vector<float>& points);

}  // namespace vesk::lidar
