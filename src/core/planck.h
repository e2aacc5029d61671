#pragma once
// Thermal emission: Planck's law for blackbody spectral radiance.

namespace vesk {

// W m-2 sr-1 nm-1 at a wavelength in nm and a temperature in K (c1L = 2 h c^2 and
// c2 = h c / k_B from CODATA 2018), computed in double and narrowed once. 0 for
// T <= 0, and 0 where h c / (lambda k T) > 500 (the value underflows anyway).
float planck_radiance(float wavelength_nm, float temperature_K);

}  // namespace vesk
