#pragma once
// Scattering by an infinite dielectric cylinder at oblique incidence: the series in
// cylindrical Bessel functions of Bohren and Huffman (1983), "Absorption and Scattering of
// Light by Small Particles", section 8.4, in double precision. A reusable kernel: the soil
// and trunk evaluators and the transport programs call it.

#include <array>
#include <complex>
#include <vector>

namespace vesk::microwave {

// Largest size parameter k * radius * sin(zeta) the series is evaluated for: a 0.5 m
// trunk at 300 GHz; anything larger is refused rather than run for minutes.
constexpr double MAX_SIZE_PARAMETER = 3200.0;

using cdouble = std::complex<double>;

// Series coefficients of one order n: case I (incident E in the plane of the axis and the
// incident direction) and case II (incident E perpendicular to it).
struct CylinderCoefficients {
  cdouble a1, b1, a2, b2;  // a_nI, b_nI, a_nII, b_nII
};

// Coefficients for n = 0 .. returned size - 1, summed until converged: beyond
// n >= xi + 4 xi^(1/3) + 2 (xi = k a cos(beta)), terms stop once two successive orders add
// less than 1e-14 of the largest coefficient so far, or at a hard limit 60 orders later.
// m2: relative permittivity (positive imaginary part for loss, time factor exp(-i w t)).
// elevation: angle between the incident direction and the plane normal to the axis.
std::vector<CylinderCoefficients> cylinder_coefficients(double size_parameter, cdouble m2,
                                                        double elevation);

// 2x2 amplitude matrix of the infinite cylinder, acting on (E_par, E_perp) of the incident
// wave and giving those of the scattered wave: T = [[T1, T4], [T3, T2]]. "par" lies in the
// plane of the axis and the propagation direction, along the projection of the axis;
// "perp" = par x k. phi is the azimuth of the scattered direction around the axis,
// measured from the forward direction (phi = 0 forward).
using AmplitudeMatrix = std::array<std::array<cdouble, 2>, 2>;
AmplitudeMatrix cylinder_amplitude(double frequency_hz, double radius_m, cdouble permittivity,
                                   double elevation_incident, double elevation_scattered,
                                   double phi);

// Bessel functions used by the series, exposed for tests.
// J_n(x), n = 0..N, real x > 0: Miller's backward recurrence, normalised by
// J_0 + 2 sum J_2k = 1.
std::vector<double> bessel_j(double x, int N);
// Y_n(x), n = 0..N, real x > 0: Y_0 and Y_1 from the Neumann series in J_2k (x <= 25) or
// Hankel's asymptotic expansions (x > 25), then upward recurrence.
std::vector<double> bessel_y(double x, int N);
// J_n'(z) / J_n(z), n = 0..N, complex z: downward recurrence of J_n / J_(n-1), which
// stays stable where J_n itself grows like exp|Im z|.
std::vector<cdouble> bessel_j_log_derivative(cdouble z, int N);

}  // namespace vesk::microwave
