#include "microwave/cylinder.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace vesk::microwave {
namespace {

constexpr double PI = 3.141592653589793;
constexpr double EULER_GAMMA = 0.5772156649015329;
constexpr double C_LIGHT = 2.998e8;

// Hankel's asymptotic expansion of J_nu and Y_nu (nu = 0, 1) for large x.
void hankel_asymptotic(double x, int nu, double& J, double& Y) {
  double P = 0.0, Q = 0.0, a = 1.0, term_prev = 1e300;
  const double mu = 4.0 * nu * nu;
  for (int k = 0; k < 200; ++k) {
    if (k > 0) a *= (mu - double((2 * k - 1) * (2 * k - 1))) / (double(k) * 8.0);
    const double term = a / std::pow(x, k);
    if (std::fabs(term) > term_prev) break;  // asymptotic: stop where terms grow again
    term_prev = std::fabs(term);
    const double sign = ((k / 2) % 2 == 0) ? 1.0 : -1.0;
    if (k % 2 == 0)
      P += sign * term;
    else
      Q += sign * term;
    if (std::fabs(term) < 1e-17) break;
  }
  const double chi = x - (0.5 * nu + 0.25) * PI;
  const double s = std::sqrt(2.0 / (PI * x));
  J = s * (P * std::cos(chi) - Q * std::sin(chi));
  Y = s * (P * std::sin(chi) + Q * std::cos(chi));
}

// Start index of the backward recurrences: well beyond both the order and the argument.
int recurrence_start(double magnitude, int N) {
  const double m = std::max(double(N), magnitude);
  return 2 * ((int(m) + 20 + int(std::sqrt(160.0 * (m + 1.0)))) / 2);
}

}  // namespace

std::vector<double> bessel_j(double x, int N) {
  const int M = recurrence_start(x, N);
  std::vector<double> j(size_t(M) + 2, 0.0);
  j[size_t(M) + 1] = 0.0;
  j[size_t(M)] = 1e-300;
  for (int k = M; k >= 1; --k) {
    j[size_t(k) - 1] = (2.0 * k / x) * j[size_t(k)] - j[size_t(k) + 1];
    if (std::fabs(j[size_t(k) - 1]) > 1e250)  // rescale all computed values
      for (int i = k - 1; i <= M; ++i) j[size_t(i)] *= 1e-250;
  }
  double norm = j[0];
  for (int k = 2; k <= M; k += 2) norm += 2.0 * j[size_t(k)];
  std::vector<double> out(size_t(N) + 1);
  for (int n = 0; n <= N; ++n) out[size_t(n)] = j[size_t(n)] / norm;
  return out;
}

std::vector<double> bessel_y(double x, int N) {
  double y0, y1;
  if (x > 25.0) {
    double j;
    hankel_asymptotic(x, 0, j, y0);
    hankel_asymptotic(x, 1, j, y1);
  } else {
    const std::vector<double> J = bessel_j(x, recurrence_start(x, 2));
    const double l = std::log(x / 2.0) + EULER_GAMMA;
    double s0 = 0.0, s1 = 0.0;
    for (size_t k = 1; 2 * k + 1 < J.size(); ++k) {
      const double sign = (k % 2 == 0) ? 1.0 : -1.0;  // (-1)^k
      s0 += sign * J[2 * k] / double(k);
      s1 -= sign * double(2 * k + 1) / (double(k) * double(k + 1)) * J[2 * k + 1];
    }
    // (pi/2) Y0 = (ln(x/2) + gamma) J0 - 2 sum (-1)^k J_2k / k;
    // (pi/2) Y1 = (ln(x/2) + gamma - 1) J1 - J0 / x + sum (-1)^(k+1) (2k+1) / (k(k+1)) J_2k+1.
    y0 = (2.0 / PI) * (l * J[0] - 2.0 * s0);
    y1 = (2.0 / PI) * ((l - 1.0) * J[1] - J[0] / x + s1);
  }
  std::vector<double> y(size_t(N) + 1);
  y[0] = y0;
  if (N >= 1) y[1] = y1;
  for (int n = 1; n < N; ++n) y[size_t(n) + 1] = (2.0 * n / x) * y[size_t(n)] - y[size_t(n) - 1];
  return y;
}

std::vector<cdouble> bessel_j_log_derivative(cdouble z, int N) {
  const int M = recurrence_start(std::abs(z), N) + 20;
  // r_k = J_k / J_(k-1), from r_(M+1) = 0 downwards.
  std::vector<cdouble> r(size_t(M) + 2, cdouble(0.0));
  for (int k = M; k >= 1; --k) r[size_t(k)] = 1.0 / (2.0 * k / z - r[size_t(k) + 1]);
  std::vector<cdouble> d(size_t(N) + 1);
  d[0] = -r[1];  // J_0' = -J_1
  for (int n = 1; n <= N; ++n) d[size_t(n)] = 1.0 / r[size_t(n)] - double(n) / z;
  return d;
}

std::vector<CylinderCoefficients> cylinder_coefficients(double x, cdouble m2, double elevation) {
  // Bohren and Huffman use zeta, the angle to the axis: sin(zeta) = cos(elevation).
  const double sin_z = std::cos(elevation), cos_z = std::sin(elevation);
  const double xi = x * sin_z;
  // Along the axis itself (xi -> 0) the infinite cylinder scatters nothing.
  if (!(xi > 1e-9)) return {CylinderCoefficients{}};
  const cdouble eta = x * std::sqrt(m2 - cos_z * cos_z);
  // The series needs about xi orders and the interior recurrence about |eta| steps, in
  // memory and time; past these sizes the cylinder is no longer a trunk at microwave
  // wavelengths, and the work would be unbounded.
  if (!std::isfinite(xi) || !std::isfinite(std::abs(eta)))
    throw std::invalid_argument("trunk size parameter and permittivity must be finite");
  if (xi > MAX_SIZE_PARAMETER || std::abs(eta) > 50.0 * MAX_SIZE_PARAMETER)
    throw std::invalid_argument(
        "trunk too large for the frequency: k * radius above 3200, or |k * radius * "
        "sqrt(permittivity)| above 160000");
  const int n_min = int(xi + 4.0 * std::cbrt(xi) + 2.0);
  const int n_max = n_min + 60;
  const std::vector<double> J = bessel_j(xi, n_max + 1), Y = bessel_y(xi, n_max + 1);
  const std::vector<cdouble> D = bessel_j_log_derivative(eta, n_max);
  const cdouble I(0.0, 1.0);
  const cdouble ratio = xi * xi / (eta * eta) - 1.0;

  std::vector<CylinderCoefficients> c;
  double largest = 0.0;
  int quiet = 0;
  for (int n = 0; n <= n_max; ++n) {
    const double jn = J[size_t(n)];
    const double jp = n == 0 ? -J[1] : J[size_t(n) - 1] - n / xi * jn;
    const double yp = n == 0 ? -Y[1] : Y[size_t(n) - 1] - n / xi * Y[size_t(n)];
    const cdouble hn(jn, Y[size_t(n)]), hp(jp, yp);
    const cdouble dn = D[size_t(n)];
    // Bohren and Huffman's A_n .. W_n, each divided by J_n(eta), which cancels.
    const cdouble A = I * xi * (xi * dn * jn - eta * jp);
    const cdouble B = xi * (m2 * xi * dn * jn - eta * jp);
    const cdouble C = double(n) * cos_z * eta * jn * ratio;
    const cdouble Dn = double(n) * cos_z * eta * hn * ratio;
    const cdouble V = xi * (m2 * xi * dn * hn - eta * hp);
    const cdouble W = I * xi * (eta * hp - xi * dn * hn);
    const cdouble den = W * V + I * Dn * Dn;
    CylinderCoefficients k;
    k.a1 = (C * V - B * Dn) / den;
    k.b1 = (W * B + I * Dn * C) / den;
    k.a2 = -(A * V - I * C * Dn) / den;
    k.b2 = -I * (C * W + A * Dn) / den;
    c.push_back(k);
    const double size = std::max({std::abs(k.a1), std::abs(k.b1), std::abs(k.a2), std::abs(k.b2)});
    largest = std::max(largest, size);
    quiet = size < 1e-14 * largest ? quiet + 1 : 0;
    if (n >= n_min && quiet >= 2) break;
  }
  return c;
}

AmplitudeMatrix cylinder_amplitude(double frequency_hz, double radius_m, cdouble permittivity,
                                   double elevation_incident, double /*elevation_scattered*/,
                                   double phi) {
  // The infinite cylinder scatters on the cone of the incident elevation; the finite
  // length and the scattered elevation enter through the caller's sinc and scale.
  const double k = 2.0 * PI * frequency_hz / C_LIGHT;
  const std::vector<CylinderCoefficients> c =
      cylinder_coefficients(k * radius_m, permittivity, elevation_incident);
  const cdouble I(0.0, 1.0);
  cdouble t1 = c[0].b1, t2 = c[0].a2, t3 = 0.0, t4 = 0.0;
  for (size_t n = 1; n < c.size(); ++n) {
    const double cn = std::cos(double(n) * phi), sn = std::sin(double(n) * phi);
    t1 += 2.0 * c[n].b1 * cn;
    t2 += 2.0 * c[n].a2 * cn;
    t3 += -2.0 * I * c[n].a1 * sn;
    t4 += -2.0 * I * c[n].b2 * sn;
  }
  return {{{t1, t4}, {t3, t2}}};
}

}  // namespace vesk::microwave
