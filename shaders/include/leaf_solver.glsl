// The leaf model of src/physiology/leaf_solver: Farquhar photosynthesis, Ball-Berry
// stomata, the fluorescence yield and the Newton leaf temperature, one element per call,
// in 32-bit float with the host's operations in the host's order. Every float is
// `precise`, so no compiler fuses a multiply and an add: where the device rounds +, -, *,
// / and sqrt as IEEE 754 does (lavapipe, most GPUs for + - *), the bits are the host's.
#ifndef VESK_LEAF_SOLVER_GLSL
#define VESK_LEAF_SOLVER_GLSL

#define PF precise float

const float T_REF = 298.15;
const float R_GAS = 8.314;
const float R_T_REF = 2478.819;
const float DEACTIVATION_REF = 1.2068106;
const float GUARD = 1e-12;
const float RHO_CP = 1231.125;  // 1.225 kg m-3 * 1005 J kg-1 K-1, exact in float
const float PSYCHROMETRIC = 66.0;       // Pa K-1
const float SIGMA = 5.670374e-8;        // W m-2 K-4

// std::min and std::max by value, NaN order included.
float vmin(float a, float b) { return b < a ? b : a; }
float vmax(float a, float b) { return a < b ? b : a; }

// The host's exp32: Cody-Waite reduction by ln 2 and Cephes' degree-6 polynomial, the
// argument clamped to where 2^n stays a normal float. Same operations, same bits; the
// device's own exp is far coarser (3 + 2|x| ulp allowed).
float exp32(float x_in) {
  PF x = vmin(vmax(x_in, -87.33654), 88.37626);
  PF n = (x * 1.44269504 + 12582912.0) - 12582912.0;
  PF r = x - n * 0.693359375;
  r = r - n * -2.12194440e-4;
  PF p = 1.9875691500e-4;
  p = p * r + 1.3981999507e-3;
  p = p * r + 8.3334519073e-3;
  p = p * r + 4.1665795894e-2;
  p = p * r + 1.6666665459e-1;
  p = p * r + 5.0000001201e-1;
  p = p * r * r + r + 1.0;
  PF y = p * intBitsToFloat((int(n) + 127) << 23);
  return y;
}

struct LeafInput {
  float apar_sum, temperature, co2, rh, pressure, wind;
  float vcmax25, jmax25, rd25, slope, g0, qy;
  float sw, lw, ta, ea, emis, side, width, stom;
};

struct LeafOutput {
  float an, gs, ci, phi_f, T, rn, h, le;
  bool converged;
};

struct Biochemistry {
  float vcmax, jmax, rd, km, gamma_star, j;
};

Biochemistry biochemistry(float T, LeafInput l) {
  Biochemistry b;
  PF d = T - T_REF;
  PF q = T * R_T_REF;
  PF deactivation = 1.0 + exp32((490.0 * T - 150000.0) / (R_GAS * T));
  PF vcmax = l.vcmax25 * exp32(d * 65330.0 / q) * DEACTIVATION_REF / deactivation;
  PF jmax = l.jmax25 * exp32(d * 43540.0 / q) * DEACTIVATION_REF / deactivation;
  PF rd = l.rd25 * exp32(d * 46390.0 / q);
  PF kc = 404.9 * exp32(d * 79430.0 / q);
  PF ko = 278.4 * exp32(d * 36380.0 / q);
  PF gamma_star = 42.7 * exp32(d * 37830.0 / q);
  PF km = kc * (1.0 + 209.0 / ko);
  PF I = 0.3 * l.apar_sum;
  PF S = I + jmax;
  PF j = (S - sqrt(vmax(0.0, S * S - 2.8 * I * jmax))) / 1.4;
  b.vcmax = vcmax, b.jmax = jmax, b.rd = rd, b.km = km, b.gamma_star = gamma_star, b.j = j;
  return b;
}

// Fixed point of ci = co2 - 1.6 An / gs from 0.7 co2; a round is never cut short.
bool solve_ci(Biochemistry b, LeafInput l, int max_iterations, float tolerance, out float an,
              out float gs, out float ci) {
  PF c = 0.7 * l.co2;
  an = 0.0, gs = 0.0;
  for (int it = 0; it < max_iterations; ++it) {
    PF ac = b.vcmax * (c - b.gamma_star) / (b.km + c + GUARD);
    PF aj = 0.25 * b.j * (c - b.gamma_star) / (2.0 * b.gamma_star + c + GUARD);
    PF a = vmin(ac, aj) - b.rd;
    PF p = vmax(a, 0.0);
    PF g = vmax(l.g0, l.g0 + l.slope * l.rh * p / (l.co2 + GUARD));
    PF next = vmin(l.co2, vmax(10.0, l.co2 - 1.6 * p / (g + GUARD)));
    an = a, gs = g;
    PF step = abs(next - c);
    c = next;
    if (step < tolerance) {
      ci = c;
      return true;
    }
  }
  ci = c;
  return false;
}

// Fluorescence yield from the final an; the saturation term uses jmax25 on purpose.
float fluorescence_yield(float an, float apar_sum, float jmax25, float qy) {
  PF a2 = 0.425 * apar_sum;
  PF x = vmin(4.0 * vmax(an, 0.0) / vmax(a2, 1e-6), 0.8);
  PF r = x / 0.8;
  PF l = jmax25 / 0.8;
  PF e = vmax(0.0, a2 - l);
  PF n = 2.0 * e / (l + e + GUARD);
  PF base = a2 < 1e-6 ? 0.01 : 0.05 / (1.0 + 4.0 * r + n);
  PF y = qy <= 0.0 ? 0.0 : base * (qy / 0.03);
  return y;
}

float saturation_vapour_pressure(float t_celsius) {
  PF e = 610.78 * exp32(17.27 * t_celsius / (t_celsius + 237.3));
  return e;
}

LeafOutput solve_leaf(LeafInput l, bool energy_balance, bool solve_temperature,
                      int max_iterations, float tolerance) {
  LeafOutput o;
  PF T = l.temperature;
  bool newton_ok = true;
  if (energy_balance && solve_temperature) {
    PF rb = 200.0 * sqrt(l.width / vmax(l.wind, 0.1));
    PF gh = l.side * RHO_CP / rb;
    PF ge = l.stom * RHO_CP / PSYCHROMETRIC;
    PF rabs = l.sw + l.lw;
    PF emission = l.emis * l.side * SIGMA;
    newton_ok = false;
    for (int it = 0; it < max_iterations; ++it) {
      float an, gs, ci;
      solve_ci(biochemistry(T, l), l, max_iterations, tolerance, an, gs, ci);
      PF t = T - 273.15;
      PF es = saturation_vapour_pressure(t);
      // Stomatal resistance (s m-1) from the conductance (mol m-2 s-1) at T.
      PF rs = (l.pressure * 1000.0 / (R_GAS * T)) / vmax(gs, GUARD);
      PF cond = ge / (rb + rs);
      PF f = rabs - emission * T * T * T * T - gh * (T - l.ta) - cond * (es - l.ea);
      PF dt = t + 237.3;
      PF df = -4.0 * l.side * l.emis * SIGMA * T * T * T - gh - cond * (es * 17.27 * 237.3 / (dt * dt));
      PF step = abs(df) > 1e-12 ? f / df : 0.0;
      step = vmin(10.0, vmax(-10.0, step));
      PF next = vmin(350.0, vmax(200.0, T - step));
      if (abs(next - T) < tolerance) {
        newton_ok = true;
        break;
      }
      T = next;
    }
  }
  // Closing solve at the final temperature (the given one without Newton).
  float an, gs, ci;
  o.converged = solve_ci(biochemistry(T, l), l, max_iterations, tolerance, an, gs, ci) && newton_ok;
  o.an = an, o.gs = gs, o.ci = ci;
  o.phi_f = fluorescence_yield(an, l.apar_sum, l.jmax25, l.qy);
  o.T = T, o.rn = 0.0, o.h = 0.0, o.le = 0.0;
  if (energy_balance) {
    PF rb = 200.0 * sqrt(l.width / vmax(l.wind, 0.1));
    PF rs = (l.pressure * 1000.0 / (R_GAS * T)) / vmax(gs, GUARD);
    PF rn = l.sw + l.lw - l.emis * l.side * SIGMA * T * T * T * T;
    PF h = l.side * RHO_CP / rb * (T - l.ta);
    PF le = l.stom * RHO_CP / PSYCHROMETRIC * (saturation_vapour_pressure(T - 273.15) - l.ea) / (rb + rs);
    o.rn = rn, o.h = h, o.le = le;
  }
  return o;
}

#endif
