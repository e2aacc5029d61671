#pragma once
// The Turbid workflow on a domain's leaf-area samples: the records behind state and
// field tokens, and the pure steps that run on them (physiology of sunlit and shaded
// leaves, aggregation into fields, per-instance thermal state, per-sample fluorescence).
// The steps that trace rays (radiation, leaf longwave) live in embree/turbid_workflow.

#include <cstdint>
#include <vector>

#include "core/span.h"
#include "turbid/contract.h"

namespace vesk::turbid {

// Everything a state holds, per sample in the domain's sample order. Units: absorbed
// shortwave per m2 of one-sided leaf area in the units of the scene's sun spectrum (W m-2
// per band, or W m-2 nm-1 with band widths), PAR umol m-2 s-1, shortwave sums W m-2, temperatures
// K, an umol m-2 s-1, gs mol m-2 s-1. Arrays of later stages are empty until the state reaches
// them.
struct TurbidStateRecord {
  TurbidStateToken token;
  int32_t n_samples = 0, n_bands = 0;
  std::vector<float> band_wavelengths;  // nm, n_bands
  std::vector<float> band_widths;       // nm per band; 1 when the spectra are per band
  // Radiation (stage 1 on).
  std::vector<float> absorbed_top, absorbed_bottom;  // expected, n_samples * n_bands
  std::vector<float> absorbed_direct_sunlit;  // direct beam absorbed by a sunlit leaf, per band
  std::vector<float> sunlit_probability;      // n_samples
  std::vector<float> direct_share;            // of the expected absorbed shortwave, 0..1
  std::vector<float> apar, apar_sunlit, apar_shaded;      // umol m-2 s-1
  std::vector<float> shortwave_sunlit, shortwave_shaded;  // W m-2, summed over bands
  // Physiology (stage 2 on): branch values and their sunlit-probability blend.
  std::vector<float> an, gs, phi_f, temperature;
  std::vector<float> an_sunlit, an_shaded, gs_sunlit, gs_shaded, phi_f_sunlit, phi_f_shaded;
  std::vector<float> temperature_sunlit, temperature_shaded, emissivity;
  std::vector<uint8_t> converged;
  // Energy (stage 3): the branch energy balances at the solved temperatures, W m-2.
  std::vector<float> absorbed_longwave, net_radiation, sensible_heat, latent_heat;
};

// A field: state quantities averaged per owner over a voxel grid of its box, over
// leaf-normal bins, and over both (the grids and bin rules of the SIF source tables).
struct TurbidFieldRecord {
  backend::TurbidFieldToken token;
  std::vector<const char*> quantities;  // names, in the order of the value axis
  int32_t n_owners = 0, n_quantities = 0, cell_stride = 0, theta_bins = 0, phi_bins = 0;
  std::vector<int32_t> grid_dims;             // 3 per owner
  std::vector<float> bounds_min, bounds_max;  // 3 per owner
  // Leaf-area-weighted means, value fastest: spatial [owner][cell][q],
  // orientation [owner][bin][q], joint [owner][cell][bin][q]; empty slots are 0 and
  // their counts 0. leaf_area m2 per [owner][cell].
  std::vector<float> spatial, orientation, joint, leaf_area;
  std::vector<uint32_t> spatial_counts, orientation_counts, joint_counts;
};

// ---- physiology on a state -------------------------------------------------------------

// Per-sample leaf parameters and air, all arrays of n_samples (a binding broadcasts
// scalars). Without energy_balance the branch temperatures are given; with it they are
// solved per branch from the branch's absorbed shortwave plus absorbed_longwave.
struct TurbidPhysiologyRequestView {
  int32_t n_samples = 0;
  backend::FloatSpan temperature_sunlit, temperature_shaded;  // K (first guess with energy)
  backend::FloatSpan co2, relative_humidity, pressure, wind;  // umol mol-1, 0..1, kPa, m s-1
  backend::FloatSpan vcmax25, jmax25, rd25, ball_berry_slope, ball_berry_intercept, quantum_yield;
  bool energy_balance = false;
  backend::FloatSpan absorbed_longwave, air_temperature, vapor_pressure;  // W m-2, K, Pa
  backend::FloatSpan emissivity, sidedness, leaf_width, stomata_sides;
  int32_t max_iterations = 0;
  float tolerance = 0.0f;
};
// The one validator: lengths, then finiteness, then the physical domains of the leaf
// solver, all before anything runs.
void validate_turbid_physiology_request(const TurbidPhysiologyRequestView& view);
// The next state: every sample is two leaves, a sunlit and a shaded one (the leaf solver
// on each, weighted by the sunlit probability), stage 2, or 3 with the energy balance.
// The token is left for the caller to fill.
TurbidStateRecord solve_turbid_physiology(const TurbidStateRecord& radiation,
                                          const TurbidPhysiologyRequestView& view);

// ---- fields ----------------------------------------------------------------------------

// The quantities a field can average, by stage: the radiation ones, then the physiology.
std::vector<const char*> field_quantities(uint8_t stage);
// owner_of_sample: per sample its owner 0..n_owners - 1; grid_dims, bounds: 3 per owner.
TurbidFieldRecord aggregate_turbid_field(
    const TurbidStateRecord& state, const std::vector<int32_t>& owner_of_sample,
    const std::vector<float>& leaf_area, const std::vector<float3>& positions,
    const std::vector<float3>& normals, int32_t n_owners, const std::vector<int32_t>& grid_dims,
    const std::vector<float>& bounds_min, const std::vector<float>& bounds_max, int32_t theta_bins,
    int32_t phi_bins);

// ---- sources for images ----------------------------------------------------------------

// Conditional thermal state of one leaf volume: the radiometric means
// (sum w T^4 / sum w)^(1/4) of its sunlit leaves (weight leaf area x sunlit probability)
// and shaded leaves (leaf area x the rest), so that the owner's emitted total is kept;
// the leaf-area mean emissivity and sunlit fraction.
struct OwnerThermalState {
  float temperature_sunlit = 0.0f, temperature_shaded = 0.0f;
  float sunlit_fraction = 0.0f, emissivity = 0.0f;
};
OwnerThermalState owner_thermal_state(const TurbidStateRecord& state, const float* leaf_area,
                                      size_t first, size_t count);

// Leaf fluorescence per sample, as Lambertian radiance of each leaf side, W m-2 sr-1
// nm-1, at the emission wavelengths: the photons emitted (phi_f x absorbed PAR photons,
// per branch) spread over wavelength by the leaf emission shape and taken back to energy
// at each wavelength, half through each side. shaded: the shaded leaf's emission;
// extra_sunlit: what a sunlit leaf emits more (0 when it does not), so that the expected
// emission is shaded + sunlit_probability x extra_sunlit. Band-major, n_bands x n_samples.
struct SampleSifSpectra {
  std::vector<float> shaded, extra_sunlit;
  std::vector<double> photons;  // umol m-2 s-1 emitted per sample (expected)
};
SampleSifSpectra sample_sif_spectra(const TurbidStateRecord& state,
                                    const std::vector<float>& emission_wavelengths_nm);
// The photon spectrum of leaf fluorescence, nm-1, unit area: red (685 nm, 10 nm) and
// far-red (740 nm, 25 nm) Gaussians, two thirds of the photons far-red (Zarco-Tejada et
// al. 2000, Remote Sens. Environ. 74).
double sif_emission_shape(double wavelength_nm);

// umol of photons per joule at a wavelength in 400..700 nm (inclusive), 0 outside:
// the PAR integral of the photosynthesis process.
float par_photons_per_joule(float wavelength_nm);

}  // namespace vesk::turbid
