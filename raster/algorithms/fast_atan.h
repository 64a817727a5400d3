// Arctangents the compiler can vectorize: selects instead of branches, one division each.
// In double, a rational approximation after range reduction (the Cephes scheme), within an
// ulp or two of the C library's over the whole range; in single precision, a minimax
// polynomial on [0, 1], for float outputs.
#pragma once

#include <algorithm>
#include <cmath>

#include "raster/algorithms/simd_dispatch.h"

namespace pw::raster::fast {

inline constexpr double kPi = 3.141592653589793;
inline constexpr double kMoreBits = 6.123233995736765886130e-17;  // pi/2 - (double) pi/2

// The arctangent of num / den after the range reduction, plus base (and the low bits of
// base in extra).
PW_ALWAYS_INLINE double AtanReduced(double num, double den, double base, double extra) {
  const double r = num / den;
  const double z = r * r;
  const double p = (((-8.750608600031904122785e-1 * z - 1.615753718733365076637e1) * z -
                     7.500855792314704667340e1) *
                        z -
                    1.228866684490136173410e2) *
                       z -
                   6.485021904942025371773e1;
  const double q = ((((z + 2.485846490142306297962e1) * z + 1.650270098316988542046e2) * z +
                     4.328810604912902668951e2) *
                        z +
                    4.853903996359136964868e2) *
                       z +
                   1.945506571482613964425e2;
  return base + (r * (z * p / q) + r + extra);
}

PW_ALWAYS_INLINE double Atan(double x) {
  constexpr double kTan3Pi8 = 2.41421356237309504880;
  const double ax = std::fabs(x);
  const bool big = ax > kTan3Pi8, mid = ax > 0.66;
  const double num = big ? -1.0 : (mid ? ax - 1.0 : ax);
  const double den = big ? ax : (mid ? ax + 1.0 : 1.0);
  const double base = big ? kPi / 2 : (mid ? kPi / 4 : 0.0);
  const double extra = big ? kMoreBits : (mid ? 0.5 * kMoreBits : 0.0);
  const double y = AtanReduced(num, den, base, extra);
  return x < 0 ? -y : y;
}

PW_ALWAYS_INLINE double Atan2(double y, double x) {
  // The reduction straight from the two magnitudes: lo / hi, or (lo - hi) / (lo + hi)
  // above 0.66, one division in all.
  const double ax = std::fabs(x), ay = std::fabs(y);
  const double hi = std::max(ax, ay), lo = std::min(ax, ay);
  const bool mid = lo > 0.66 * hi;
  const double num = mid ? lo - hi : lo;
  const double den = mid ? lo + hi : (hi == 0 ? 1.0 : hi);
  double a = AtanReduced(num, den, mid ? kPi / 4 : 0.0, mid ? 0.5 * kMoreBits : 0.0);
  a = ay > ax ? kPi / 2 - a : a;
  a = x < 0 ? kPi - a : a;
  return y < 0 ? -a : a;
}

// The arctangent of q in [0, 1] in single precision by a minimax polynomial (relative error
// below 2e-8): q + q z P(z), z = q^2, P's coefficients lowest first, evaluated in pairs.
inline constexpr float kAtanP[8] = {-3.3333152532577515e-1f, 1.9993773102760315e-1f,
                                    -1.4211052656173706e-1f, 1.0665992647409439e-1f,
                                    -7.552188634872437e-2f,  4.321155324578285e-2f,
                                    -1.636773720383644e-2f,  2.9206445906311274e-3f};

PW_ALWAYS_INLINE float AtanUnitF(float q) {
  const float z = q * q;
  const float z2 = z * z, z4 = z2 * z2;
  const float p = ((kAtanP[0] + kAtanP[1] * z) + z2 * (kAtanP[2] + kAtanP[3] * z)) +
                  z4 * ((kAtanP[4] + kAtanP[5] * z) + z2 * (kAtanP[6] + kAtanP[7] * z));
  return p * (z * q) + q;
}

// The arctangent of x >= 0 in single precision: atan(q) of q = min(x, 1) / max(x, 1), and
// pi/2 - atan(1 / x) above 1. Within two units in the last place of a float; one division
// and one select, so the loop stays short.
PW_ALWAYS_INLINE float AtanNonNegativeF(float x) {
  const float a = AtanUnitF(std::min(x, 1.0f) / std::max(x, 1.0f));
  constexpr float kHalfPi = 1.5707963267948966f;
  constexpr float kHalfPiLow =
      static_cast<float>(1.5707963267948966 - static_cast<double>(kHalfPi));
  return x > 1.0f ? (kHalfPi - a) + kHalfPiLow : a;
}

// atan2 for float results: the reduced angle atan(lo / hi) in [0, pi/4] in single precision,
// the quarter turns added in double, so that the error stays a float's relative error of the
// reduced angle wherever the result lies (an angle near a quarter turn keeps the precision of
// its small part).
PW_ALWAYS_INLINE double Atan2F(double y, double x) {
  const double ax = std::fabs(x), ay = std::fabs(y);
  const double hi = std::max(ax, ay), lo = std::min(ax, ay);
  // Equal magnitudes (infinite ones included) lie on the diagonal; 0 / 0 is left to the
  // caller's flat test.
  double a = static_cast<double>(AtanUnitF(static_cast<float>(lo == hi ? 1.0 : lo / hi)));
  a = ay > ax ? kPi / 2 - a : a;
  a = x < 0 ? kPi - a : a;
  return y < 0 ? -a : a;
}

}  // namespace pw::raster::fast
