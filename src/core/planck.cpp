#include <cmath>

#include "core/planck.h"

namespace vesk {

float planck_radiance(float wavelength_nm, float temperature_K) {
  if (temperature_K <= 0.0f) return 0.0f;
  const double lambda = double(wavelength_nm) * 1e-9;
  const double x = 0.014387768775039337 / (double(temperature_K) * lambda);
  if (x > 500.0) return 0.0f;
  const double l = 1.1910429723971884e-16 / (std::pow(lambda, 5) * (std::exp(x) - 1.0));
  return static_cast<float>(l * 1e-9);
}

}  // namespace vesk
