// The terrain engine. A block goes row by row: each input row is summed across once (in
// double), the column sums of an output row are formed once, and the function's
// formula forms dz/dx and dz/dy from those sums as it goes; cells whose window holds an
// invalid cell get their derivatives by the validity rules instead. Rows run in parallel
// with OpenMP.
//
// Derivatives: dz/dx = (c + 2f + i) - (a + 2d + g), dz/dy = (g + 2h + i) - (a + 2b + c)
// over the window a b c / d e f / g h i. With exactly seven valid neighbours each side is
// the weighted sum of its valid cells times 4 over their weights; fewer than seven, or an
// invalid centre, gives no value.
#include "functions/terrain/terrain_kernels.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "raster/algorithms/parallel.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"

#ifdef _OPENMP
#include <omp.h>
#endif

namespace pw::functions::terrain {

namespace {

constexpr double kDegrees = 57.29578;
constexpr double kPi = 3.141592653589793;
constexpr double kEarthRadius = 6378137.0;

// --- arctangents the compiler can vectorize --------------------------------------------
// Rational approximation after range reduction (the Cephes scheme), within an ulp or two
// of the C library's over the whole range; selects instead of branches.

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

constexpr double kMoreBits = 6.123233995736765886130e-17;  // pi/2 - (double) pi/2

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

// The arctangent of q in [0, 1] in single precision by a minimax polynomial (relative error
// below 2e-8): q + q z P(z), z = q^2, P's coefficients lowest first, evaluated in pairs.
constexpr float kAtanP[8] = {-3.3333152532577515e-1f, 1.9993773102760315e-1f,
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

// The arctangent of x >= 0 in single precision, for 32-bit float outputs: atan(q) of
// q = min(x, 1) / max(x, 1), and pi/2 - atan(1 / x) above 1. Within two units in the last
// place of a float; one division and one select, so the loop stays short.
PW_ALWAYS_INLINE float AtanNonNegativeF(float x) {
  const float a = AtanUnitF(std::min(x, 1.0f) / std::max(x, 1.0f));
  constexpr float kHalfPi = 1.5707963267948966f;
  constexpr float kHalfPiLow =
      static_cast<float>(1.5707963267948966 - static_cast<double>(kHalfPi));
  return x > 1.0f ? (kHalfPi - a) + kHalfPiLow : a;
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

// atan2 for 32-bit float outputs: the reduced angle atan(lo / hi) in [0, pi/4] in single
// precision, the quarter turns added in double, so that the error stays a float's relative
// error of the reduced angle wherever the result lies (an angle near a quarter turn keeps
// the precision of its small part).
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

// --- storing -------------------------------------------------------------------------------

// v + 0.5 for integer outputs, then truncation toward zero without clamping. Values known to
// lie in [0, 2^31) take the short conversion.
template <class O, bool kBounded>
PW_ALWAYS_INLINE O Store(double v) {
  if constexpr (std::is_floating_point_v<O>) {
    return static_cast<O>(v);
  } else if constexpr (kBounded) {
    return static_cast<O>(static_cast<std::int32_t>(v + 0.5));
  } else {
    return raster::StoreTruncated<O>(v + 0.5);
  }
}

// --- the formulas ----------------------------------------------------------------------

// Where a row's derivatives come from: arrays written by the checked path, or formed on the
// fly from the column sums and the sums across of the upper and lower input rows (the fast
// path, which so never stores them).
struct StoredDerivatives {
  const double* __restrict dx;
  const double* __restrict dy;
  PW_ALWAYS_INLINE double X(LONG c) const { return dx[c]; }
  PW_ALWAYS_INLINE double Y(LONG c) const { return dy[c]; }
};

struct SummedDerivatives {
  const double* __restrict columns;
  const double* __restrict upper;
  const double* __restrict lower;
  PW_ALWAYS_INLINE double X(LONG c) const { return columns[c + 2] - columns[c]; }
  PW_ALWAYS_INLINE double Y(LONG c) const { return lower[c] - upper[c]; }
};

template <Surface kSurface, class O, class D>
PW_ALWAYS_INLINE void FormulaBody(const D d, LONG width, LONG row, const Params& p,
                                  O* __restrict out) {
  if constexpr (kSurface == Surface::kSlope) {
    const double scale =
        p.mercator ? std::cosh((p.topY - static_cast<double>(row) * p.cellY) / kEarthRadius) : 1.0;
    const double fx = p.fx, fy = p.fy;
    if (p.slopeType == 2) {
      for (LONG c = 0; c < width; ++c) {
        const double gx = fx * d.X(c), gy = fy * d.Y(c);
        out[c] = Store<O, false>(std::sqrt(gx * gx + gy * gy) * scale * 100.0);
      }
    } else if constexpr (std::is_same_v<O, float>) {
      // A float output keeps a float's precision: the root and the arctangent in single
      // precision, twice as wide per instruction, the rest in double.
      const double scale2 = scale * scale;
      for (LONG c = 0; c < width; ++c) {
        const double gx = fx * d.X(c), gy = fy * d.Y(c);
        const float rise = std::sqrt(static_cast<float>((gx * gx + gy * gy) * scale2));
        out[c] = AtanNonNegativeF(rise) * static_cast<float>(kDegrees);
      }
    } else {
      for (LONG c = 0; c < width; ++c) {
        const double gx = fx * d.X(c), gy = fy * d.Y(c);
        out[c] = Store<O, true>(Atan(std::sqrt(gx * gx + gy * gy) * scale) * kDegrees);
      }
    }
  } else if constexpr (kSurface == Surface::kAspect && std::is_same_v<O, float>) {
    // Float outputs: one loop, sixteen cells a vector, the reduced angle in single precision
    // (Atan2F). A flat cell is one whose larger derivative is 0.
    const double cx = p.cellX, cy = p.cellYAspect;
    auto cells = [&](auto square) PW_INLINE_LAMBDA {
      for (LONG c = 0; c < width; ++c) {
        double x = d.X(c), y = d.Y(c);
        if constexpr (!decltype(square)::value) x /= cx, y /= cy;
        double v = 90.0 - Atan2F(y, -x) * kDegrees;
        v = v < 0 ? v + 360.0 : v;
        v = ((x == 0) & (y == 0)) ? -1.0 : v;
        out[c] = static_cast<float>(v >= 360.0 ? 0.0 : v);
      }
    };
    if (cx == cy) {
      cells(std::true_type{});
    } else {
      cells(std::false_type{});
    }
  } else if constexpr (kSurface == Surface::kAspect) {
    const double cx = p.cellX, cy = p.cellYAspect;
    // The angles of a chunk of cells first, eight doubles a vector, then the stores: one
    // loop over both would carry as many doubles as the output type has lanes (32 for
    // 16-bit outputs) through the arctangent and run out of registers.
    constexpr LONG kChunk = 256;
    alignas(64) double angle[kChunk];
    // With square cells the division by the cell size scales both derivatives alike and
    // leaves the direction as it is, so it is skipped: two divisions a cell fewer.
    auto angles = [&](LONG first, LONG n, auto square) PW_INLINE_LAMBDA {
      for (LONG k = 0; k < n; ++k) {
        double x = d.X(first + k), y = d.Y(first + k);
        if constexpr (!decltype(square)::value) x /= cx, y /= cy;
        double v = 90.0 - Atan2(y, -x) * kDegrees;
        v = v < 0 ? v + 360.0 : v;
        // Flat when the larger magnitude is 0 (a NaN angle has no integer value either way).
        angle[k] = std::max(std::fabs(x), std::fabs(y)) == 0 ? -1.0 : v;
      }
    };
    for (LONG first = 0; first < width; first += kChunk) {
      const LONG n = std::min(kChunk, width - first);
      if (cx == cy) {
        angles(first, n, std::true_type{});
      } else {
        angles(first, n, std::false_type{});
      }
      O* const to = out + first;
      for (LONG k = 0; k < n; ++k) {
        const double v = angle[k];
        if constexpr (std::is_floating_point_v<O>) {
          // For float outputs the value itself is tested against 360.
          to[k] = static_cast<O>(v * static_cast<double>(v < 360.0));
        } else {
          const O stored = Store<O, true>(v);  // v lies in [-1, 360]
          to[k] = static_cast<double>(stored) >= 360.0 ? O{0} : stored;
        }
      }
    }
  } else {
    const double fx = p.fx, fy = p.fy;
    if (p.lights == 1) {
      const Light l = p.light[0];
      for (LONG c = 0; c < width; ++c) {
        const double px = fx * d.X(c), qy = fy * d.Y(c);
        const double n = std::sqrt(1.0 + px * px + qy * qy);
        const double v = (qy * l.s - px * l.c + l.cosZenith) * 255.0 / n;
        out[c] = Store<O, true>(v > 0 ? v : 0.0);
      }
    } else {
      Light l[6];
      for (int k = 0; k < 6; ++k) l[k] = p.light[k];
      for (LONG c = 0; c < width; ++c) {
        const double px = fx * d.X(c), qy = fy * d.Y(c);
        const double n = std::sqrt(1.0 + px * px + qy * qy);
        double sum = 0;
        for (int k = 0; k < 6; ++k) {
          const double v = (qy * l[k].s - px * l[k].c + l[k].cosZenith) * 255.0 / n;
          sum += (v > 0 ? v : 0.0) * l[k].weight;
        }
        out[c] = Store<O, true>(sum);
      }
    }
  }
}

// The weighted sums across of an input row of width + 2 cells, (x[c] + 2 x[c + 1]) + x[c + 2],
// for the width cells, in double straight from the input. Each input row is summed once and
// serves as the lower side of one output row and the upper side of another.
template <class I>
PW_ALWAYS_INLINE void AcrossBody(const I* __restrict in, LONG width, double* __restrict across) {
  for (LONG c = 0; c < width; ++c)
    across[c] = (static_cast<double>(in[c]) + 2 * static_cast<double>(in[c + 1])) +
                static_cast<double>(in[c + 2]);
}

// The column sums top + 2 mid + bottom of a row's window (width + 2 of them), formed once per
// column: each serves dz/dx of two cells. The association is the definition's, so the
// derivatives are the same. The sums across of the bottom row, which is new to the row loop,
// are formed in the same pass, while it is in the cache.
template <class I>
PW_ALWAYS_INLINE void ColumnsBody(const I* __restrict top, const I* __restrict mid,
                                  const I* __restrict bottom, LONG width,
                                  double* __restrict columns, double* __restrict across) {
  for (LONG c = 0; c < width; ++c) {
    const double b0 = static_cast<double>(bottom[c]), b1 = static_cast<double>(bottom[c + 1]),
                 b2 = static_cast<double>(bottom[c + 2]);
    columns[c] = (static_cast<double>(top[c]) + 2 * static_cast<double>(mid[c])) + b0;
    across[c] = (b0 + 2 * b1) + b2;
  }
  for (LONG c = width; c < width + 2; ++c)
    columns[c] = (static_cast<double>(top[c]) + 2 * static_cast<double>(mid[c])) +
                 static_cast<double>(bottom[c]);
}

using AcrossFn = void (*)(const void*, LONG, double*);
using ColumnsFn = void (*)(const void*, const void*, const void*, LONG, double*, double*);
// The formula over a row: from the column sums and the sums across of the upper and lower
// rows, or from stored dz/dx and dz/dy.
using SummedFormulaFn = void (*)(const double*, const double*, const double*, LONG, LONG,
                                 const Params&, void*);
using StoredFormulaFn = void (*)(const double*, const double*, LONG, LONG, const Params&, void*);

#define PW_TERRAIN_WRAPPERS(Suffix, Target)                                                     \
  template <Surface kSurface, class O>                                                          \
  Target void SummedFormula##Suffix(const double* columns, const double* upper,                 \
                                    const double* lower, LONG width, LONG row, const Params& p, \
                                    void* out) {                                                \
    FormulaBody<kSurface, O>(SummedDerivatives{columns, upper, lower}, width, row, p,           \
                             static_cast<O*>(out));                                             \
  }                                                                                             \
  template <Surface kSurface, class O>                                                          \
  Target void StoredFormula##Suffix(const double* dx, const double* dy, LONG width, LONG row,   \
                                    const Params& p, void* out) {                               \
    FormulaBody<kSurface, O>(StoredDerivatives{dx, dy}, width, row, p, static_cast<O*>(out));   \
  }                                                                                             \
  template <class I>                                                                            \
  Target void Across##Suffix(const void* in, LONG width, double* across) {                      \
    AcrossBody<I>(static_cast<const I*>(in), width, across);                                    \
  }                                                                                             \
  template <class I>                                                                            \
  Target void Columns##Suffix(const void* top, const void* mid, const void* bottom, LONG width, \
                              double* columns, double* across) {                                \
    ColumnsBody<I>(static_cast<const I*>(top), static_cast<const I*>(mid),                      \
                   static_cast<const I*>(bottom), width, columns, across);                      \
  }
PW_TERRAIN_WRAPPERS(Baseline, )
#if PW_SIMD_X86
PW_TERRAIN_WRAPPERS(Avx2, PW_TARGET_AVX2)
PW_TERRAIN_WRAPPERS(Avx512, PW_TARGET_AVX512)
#endif
#undef PW_TERRAIN_WRAPPERS

#if PW_SIMD_X86
// GCC 12 takes the undefined pass-through operands inside the intrinsics for uninitialized
// values.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// The squared rise of the cells of `m` among eight as the portable form has it, rounded to
// float (0 for the others).
PW_TARGET_AVX512 inline __m256 SquaredRise(const double* columns, const double* upper,
                                           const double* lower, LONG k, __mmask8 m, __m512d fx,
                                           __m512d fy, __m512d scale2) {
  const __m512d gx = _mm512_mul_pd(fx, _mm512_sub_pd(_mm512_maskz_loadu_pd(m, columns + k + 2),
                                                     _mm512_maskz_loadu_pd(m, columns + k)));
  const __m512d gy = _mm512_mul_pd(
      fy, _mm512_sub_pd(_mm512_maskz_loadu_pd(m, lower + k), _mm512_maskz_loadu_pd(m, upper + k)));
  return _mm512_cvtpd_ps(
      _mm512_mul_pd(_mm512_add_pd(_mm512_mul_pd(gx, gx), _mm512_mul_pd(gy, gy)), scale2));
}

// AtanUnitF on sixteen floats and on eight doubles, in fused multiply-adds.
PW_TARGET_AVX512 inline __m512 Broadcast(float v, __m512) {
  return _mm512_set1_ps(v);
}
PW_TARGET_AVX512 inline __m512d Broadcast(float v, __m512d) {
  return _mm512_set1_pd(v);
}
PW_TARGET_AVX512 inline __m512 Mul(__m512 a, __m512 b) {
  return _mm512_mul_ps(a, b);
}
PW_TARGET_AVX512 inline __m512d Mul(__m512d a, __m512d b) {
  return _mm512_mul_pd(a, b);
}
PW_TARGET_AVX512 inline __m512 Fma(__m512 a, __m512 b, __m512 c) {
  return _mm512_fmadd_ps(a, b, c);
}
PW_TARGET_AVX512 inline __m512d Fma(__m512d a, __m512d b, __m512d c) {
  return _mm512_fmadd_pd(a, b, c);
}
template <class V>
PW_TARGET_AVX512 inline V AtanUnitVector(V q) {
  const V z = Mul(q, q), z2 = Mul(z, z), z4 = Mul(z2, z2);
  V pair[4];
  for (int k = 0; k < 4; ++k)
    pair[k] = Fma(Broadcast(kAtanP[2 * k + 1], q), z, Broadcast(kAtanP[2 * k], q));
  const V low = Fma(z2, pair[1], pair[0]), high = Fma(z2, pair[3], pair[2]);
  return Fma(Fma(z4, high, low), Mul(z, q), q);
}

// The cells of a step of sixteen from `c` that lie in a row of `width`.
inline __mmask16 CellsFrom(LONG c, LONG width) {
  return width - c >= 16 ? __mmask16{0xFFFF} : static_cast<__mmask16>((1u << (width - c)) - 1);
}

// Float slope in degrees on AVX-512, sixteen cells a step. The square of the rise goes to
// float as in the portable form; the rise and its reciprocal, the two quotients the
// arctangent's reduction needs, come from one reciprocal square root estimate refined by a
// Newton step in fused multiply-adds, instead of a square root and a division (both long
// and slow on wide vectors). Flat and infinitely steep cells take their limits. The last
// cells of a row go through the same steps under a mask, so that a cell's value never
// depends on where the row it lies in starts.
template <>
PW_TARGET_AVX512 void SummedFormulaAvx512<Surface::kSlope, float>(const double* columns,
                                                                  const double* upper,
                                                                  const double* lower, LONG width,
                                                                  LONG row, const Params& p,
                                                                  void* target) {
  float* const out = static_cast<float*>(target);
  if (p.slopeType == 2) {
    FormulaBody<Surface::kSlope, float>(SummedDerivatives{columns, upper, lower}, width, row, p,
                                        out);
    return;
  }
  const double scale =
      p.mercator ? std::cosh((p.topY - static_cast<double>(row) * p.cellY) / kEarthRadius) : 1.0;
  {
    const __m512d fx = _mm512_set1_pd(p.fx), fy = _mm512_set1_pd(p.fy),
                  scale2 = _mm512_set1_pd(scale * scale);
    const __m512 one = _mm512_set1_ps(1.0f), half = _mm512_set1_ps(0.5f);
    const __m512 halfPi = _mm512_set1_ps(1.5707963267948966f);
    const __m512 halfPiLow =
        _mm512_set1_ps(static_cast<float>(1.5707963267948966 - double{1.5707963267948966f}));
    const __m512 degrees = _mm512_set1_ps(static_cast<float>(kDegrees));
    for (LONG c = 0; c < width; c += 16) {
      const __mmask16 cells = CellsFrom(c, width);
      const __m512 s = _mm512_insertf32x8(
          _mm512_castps256_ps512(
              SquaredRise(columns, upper, lower, c, static_cast<__mmask8>(cells), fx, fy, scale2)),
          SquaredRise(columns, upper, lower, c + 8, static_cast<__mmask8>(cells >> 8), fx, fy,
                      scale2),
          1);
      const __m512 r = _mm512_rsqrt14_ps(s);
      const __m512 h = _mm512_mul_ps(s, r);
      const __m512 e = _mm512_mul_ps(half, _mm512_fnmadd_ps(h, r, one));  // (1 - s r^2) / 2
      const __mmask16 steep = _mm512_cmp_ps_mask(s, one, _CMP_GT_OQ);
      // q = min(rise, 1) / max(rise, 1); 0 for a flat or an infinitely steep cell.
      __m512 q = _mm512_mask_blend_ps(steep, _mm512_fmadd_ps(e, h, h), _mm512_fmadd_ps(e, r, r));
      q = _mm512_maskz_mov_ps(static_cast<__mmask16>(~_mm512_fpclass_ps_mask(s, 0x0E)), q);
      const __m512 a = AtanUnitVector(q);
      const __m512 angle =
          _mm512_mask_blend_ps(steep, a, _mm512_add_ps(_mm512_sub_ps(halfPi, a), halfPiLow));
      _mm512_mask_storeu_ps(out + c, cells, _mm512_mul_ps(angle, degrees));
    }
  }
}

// Float aspect on AVX-512, sixteen cells a step: the steps of the portable form (Atan2F and
// the wrap), the reduced angle's polynomial in fused multiply-adds, under a mask for a row's
// last cells.
template <bool kSquare>
PW_TARGET_AVX512 void AspectFloatAvx512(const double* columns, const double* upper,
                                        const double* lower, LONG width, const Params& p,
                                        float* out) {
  const __m512d cx = _mm512_set1_pd(p.cellX), cy = _mm512_set1_pd(p.cellYAspect);
  const __m512d zero = _mm512_setzero_pd(), sign = _mm512_set1_pd(-0.0), one = _mm512_set1_pd(1.0);
  const __m512d ninety = _mm512_set1_pd(90.0), turn = _mm512_set1_pd(360.0);
  const __m512d degrees = _mm512_set1_pd(kDegrees), flatValue = _mm512_set1_pd(-1.0);
  const __m512d minusDegrees = _mm512_set1_pd(-kDegrees);
  const __m512d quarterTurn = _mm512_set1_pd(kPi / 2 * kDegrees),
                halfTurn = _mm512_set1_pd(kPi * kDegrees);
  for (LONG c = 0; c < width; c += 16) {
    const __mmask16 cells = CellsFrom(c, width);
    __m512d x[2], y[2], ax[2], ay[2], hi[2];
    __m512d q[2];
    for (int h = 0; h < 2; ++h) {
      const __mmask8 m = static_cast<__mmask8>(cells >> (8 * h));
      const LONG k = c + 8 * h;
      x[h] = _mm512_sub_pd(_mm512_maskz_loadu_pd(m, columns + k + 2),
                           _mm512_maskz_loadu_pd(m, columns + k));
      y[h] =
          _mm512_sub_pd(_mm512_maskz_loadu_pd(m, lower + k), _mm512_maskz_loadu_pd(m, upper + k));
      if constexpr (!kSquare) x[h] = _mm512_div_pd(x[h], cx), y[h] = _mm512_div_pd(y[h], cy);
      ax[h] = _mm512_andnot_pd(sign, x[h]);
      ay[h] = _mm512_andnot_pd(sign, y[h]);
      hi[h] = _mm512_max_pd(ax[h], ay[h]);
      const __m512d lo = _mm512_min_pd(ax[h], ay[h]);
      const __mmask8 some = _mm512_cmp_pd_mask(hi[h], zero, _CMP_NEQ_UQ);  // NaN goes on
      // lo / hi to float precision: a reciprocal estimate and one Newton step (28 bits).
      const __m512d r0 = _mm512_rcp14_pd(hi[h]);
      const __m512d r1 = _mm512_fmadd_pd(_mm512_fnmadd_pd(hi[h], r0, one), r0, r0);
      q[h] = _mm512_maskz_mul_pd(some, lo, r1);
      // A subnormal or infinite hi has no usable reciprocal: those cells divide, equal
      // magnitudes lying on the diagonal as in the portable form.
      const __mmask8 rare = _mm512_fpclass_pd_mask(hi[h], 0x28);
      if (rare != 0) {
        q[h] = _mm512_mask_div_pd(q[h], rare, lo, hi[h]);
        q[h] = _mm512_mask_mov_pd(
            q[h], static_cast<__mmask8>(rare & _mm512_cmp_pd_mask(lo, hi[h], _CMP_EQ_OQ)), one);
      }
    }
    __m256 angle[2];
    for (int h = 0; h < 2; ++h) {
      const __m512d a = AtanUnitVector(q[h]);
      // The angle of (-x, y) is s (c + t a): c a multiple of pi/2 and t = +-1 from whether
      // the cell lies past the diagonal and in the left half (x > 0), s = -1 below the axis.
      // 90 - angle x degrees = (90 - s c degrees) + (-s t degrees) a, the first part and the
      // factor formed while the arctangent is being computed.
      const __mmask8 past = _mm512_cmp_pd_mask(ay[h], ax[h], _CMP_GT_OQ);
      const __mmask8 left = _mm512_cmp_pd_mask(x[h], zero, _CMP_GT_OQ);
      const __mmask8 below = _mm512_cmp_pd_mask(y[h], zero, _CMP_LT_OQ);
      __m512d turns = _mm512_maskz_mov_pd(past, quarterTurn);  // c x degrees
      turns = _mm512_mask_mov_pd(turns, static_cast<__mmask8>(left & ~past), halfTurn);
      const __m512d base = _mm512_mask_add_pd(_mm512_sub_pd(ninety, turns), below, ninety, turns);
      const __m512d factor =
          _mm512_mask_mov_pd(minusDegrees, static_cast<__mmask8>(below ^ past ^ left), degrees);
      __m512d v = _mm512_fmadd_pd(factor, a, base);
      v = _mm512_mask_add_pd(v, _mm512_cmp_pd_mask(v, zero, _CMP_LT_OQ), v, turn);
      const __mmask8 flat = static_cast<__mmask8>(_mm512_cmp_pd_mask(x[h], zero, _CMP_EQ_OQ) &
                                                  _mm512_cmp_pd_mask(y[h], zero, _CMP_EQ_OQ));
      v = _mm512_mask_mov_pd(v, flat, flatValue);
      v = _mm512_mask_mov_pd(v, _mm512_cmp_pd_mask(v, turn, _CMP_GE_OQ), zero);
      angle[h] = _mm512_cvtpd_ps(v);
    }
    _mm512_mask_storeu_ps(out + c, cells,
                          _mm512_insertf32x8(_mm512_castps256_ps512(angle[0]), angle[1], 1));
  }
}

template <>
PW_TARGET_AVX512 void SummedFormulaAvx512<Surface::kAspect, float>(const double* columns,
                                                                   const double* upper,
                                                                   const double* lower, LONG width,
                                                                   LONG, const Params& p,
                                                                   void* target) {
  // Square cells need no division by the cell size: the direction is the same.
  if (p.cellX == p.cellYAspect) {
    AspectFloatAvx512<true>(columns, upper, lower, width, p, static_cast<float*>(target));
  } else {
    AspectFloatAvx512<false>(columns, upper, lower, width, p, static_cast<float*>(target));
  }
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

// The summed and the stored form of one formula for one output type and instruction set.
struct Formulas {
  SummedFormulaFn summed = nullptr;
  StoredFormulaFn stored = nullptr;
};

template <Surface kSurface>
Formulas PickFormulas(LONG outType, raster::simd::Isa isa) {
  Formulas f;
  raster::VisitPixelType(outType, [&](auto tag) {
    using O = typename decltype(tag)::type;
    f = {&SummedFormulaBaseline<kSurface, O>, &StoredFormulaBaseline<kSurface, O>};
#if PW_SIMD_X86
    if (isa == raster::simd::Isa::kAvx2)
      f = {&SummedFormulaAvx2<kSurface, O>, &StoredFormulaAvx2<kSurface, O>};
    if (isa == raster::simd::Isa::kAvx512)
      f = {&SummedFormulaAvx512<kSurface, O>, &StoredFormulaAvx512<kSurface, O>};
#else
    (void)isa;
#endif
  });
  return f;
}

Formulas SelectFormulas(Surface surface, LONG outType, raster::simd::Isa isa) {
  switch (surface) {
    case Surface::kSlope:
      return PickFormulas<Surface::kSlope>(outType, isa);
    case Surface::kAspect:
      return PickFormulas<Surface::kAspect>(outType, isa);
    default:
      return PickFormulas<Surface::kHillshade>(outType, isa);
  }
}

// The two sums of an input type for an instruction set.
struct Sums {
  AcrossFn across = nullptr;
  ColumnsFn columns = nullptr;
};

Sums SelectSums(LONG inType, raster::simd::Isa isa) {
  Sums f;
  raster::VisitPixelType(inType, [&](auto tag) {
    using I = typename decltype(tag)::type;
    f = {&AcrossBaseline<I>, &ColumnsBaseline<I>};
#if PW_SIMD_X86
    if (isa == raster::simd::Isa::kAvx2) f = {&AcrossAvx2<I>, &ColumnsAvx2<I>};
    if (isa == raster::simd::Isa::kAvx512) f = {&AcrossAvx512<I>, &ColumnsAvx512<I>};
#else
    (void)isa;
#endif
  });
  return f;
}

// Derivatives of one cell by the validity rules; false when the cell has no value.
template <class I>
bool CheckedDerivatives(const I* const rows[3], const BYTE* mask, std::size_t stride,
                        std::size_t firstRow, LONG c, double* dx, double* dy) {
  auto valid = [&](int r, int k) {
    return raster::mask::Get(
        mask, (firstRow + static_cast<std::size_t>(r)) * stride + static_cast<std::size_t>(c + k));
  };
  if (!valid(1, 1)) return false;
  double v[3][3];
  bool ok[3][3];
  int count = 0;
  for (int r = 0; r < 3; ++r)
    for (int k = 0; k < 3; ++k) {
      ok[r][k] = valid(r, k);
      v[r][k] = static_cast<double>(rows[r][c + k]);
      if (!(r == 1 && k == 1)) count += ok[r][k];
    }
  if (count == 8) {
    *dx = (v[0][2] + 2 * v[1][2] + v[2][2]) - (v[0][0] + 2 * v[1][0] + v[2][0]);
    *dy = (v[2][0] + 2 * v[2][1] + v[2][2]) - (v[0][0] + 2 * v[0][1] + v[0][2]);
    return true;
  }
  if (count < 7) return false;
  // One neighbour missing: each side over its valid cells, rescaled to weight 4.
  auto side = [&](int r0, int k0, int dr, int dk) {
    const double weights[3] = {1, 2, 1};
    double sum = 0, weight = 0;
    for (int j = 0; j < 3; ++j) {
      const int r = r0 + dr * j, k = k0 + dk * j;
      if (!ok[r][k]) continue;
      sum += weights[j] * v[r][k];
      weight += weights[j];
    }
    return weight > 0 ? sum * 4 / weight : 0.0;
  };
  const double right = side(0, 2, 1, 0), left = side(0, 0, 1, 0);
  const double bottom = side(2, 0, 0, 1), top = side(0, 0, 0, 1);
  *dx = right - left;
  *dy = bottom - top;
  return true;
}

// 1 for each cell of a row whose 3 x 3 window is wholly valid, from the validity bytes of
// the three input rows.
void WholeWindows(const std::uint8_t* __restrict v0, const std::uint8_t* __restrict v1,
                  const std::uint8_t* __restrict v2, LONG width, std::uint8_t* __restrict full) {
  for (LONG c = 0; c < width; ++c)
    full[c] = v0[c] & v0[c + 1] & v0[c + 2] & v1[c] & v1[c + 1] & v1[c + 2] & v2[c] & v2[c + 1] &
              v2[c + 2];
}

// The derivatives of cells [first, last) of a row by the validity rules, with whether each
// has a value (`ok`); cells without one get zeros.
template <class I>
void CheckedCells(const void* in, const BYTE* mask, LONG width, LONG row, LONG first, LONG last,
                  double* dx, double* dy, std::uint8_t* ok) {
  const std::size_t stride = static_cast<std::size_t>(width) + 2;
  const I* base = static_cast<const I*>(in);
  const I* rows[3] = {base + static_cast<std::size_t>(row) * stride,
                      base + (static_cast<std::size_t>(row) + 1) * stride,
                      base + (static_cast<std::size_t>(row) + 2) * stride};
  for (LONG c = first; c < last; ++c) {
    ok[c] =
        CheckedDerivatives<I>(rows, mask, stride, static_cast<std::size_t>(row), c, &dx[c], &dy[c]);
    if (!ok[c]) dx[c] = dy[c] = 0;
  }
}

// Clears the mask bit of cell i; rows on other threads may write the same mask byte.
void ClearShared(BYTE* mask, std::size_t i) {
  std::atomic_ref<BYTE>(mask[i >> 3])
      .fetch_and(static_cast<BYTE>(~(0x80u >> (i & 7))), std::memory_order_relaxed);
}

using CheckedFn = void (*)(const void*, const BYTE*, LONG, LONG, LONG, LONG, double*, double*,
                           std::uint8_t*);

// n values of T left as the memory had them.
template <class T>
std::unique_ptr<T[]> Uninitialized(std::size_t n) {
  return std::unique_ptr<T[]>(new T[n]);
}

// The end of the run of equal bytes that starts at `first`.
LONG RunEnd(const std::uint8_t* bytes, LONG first, LONG width) {
  const void* next =
      std::memchr(bytes + first, bytes[first] ^ 1, static_cast<std::size_t>(width - first));
  return next == nullptr ? width
                         : static_cast<LONG>(static_cast<const std::uint8_t*>(next) - bytes);
}

CheckedFn SelectChecked(LONG inType) {
  CheckedFn f = nullptr;
  raster::VisitPixelType(inType,
                         [&](auto tag) { f = &CheckedCells<typename decltype(tag)::type>; });
  return f;
}

}  // namespace

Light MakeLight(double azimuth, double altitude, double weight) {
  const double zenith = (90.0 - altitude) * kPi / 180.0;
  const double direction = (360.0 - azimuth + 90.0) * kPi / 180.0;
  Light l;
  l.cosZenith = std::cos(zenith);
  l.c = std::cos(direction) * std::sin(zenith);
  l.s = std::sin(direction) * std::sin(zenith);
  l.weight = weight;
  return l;
}

int RowThreads() {
  if (raster::InParallelWorker()) return 1;
  const unsigned logical = std::max(1u, std::thread::hardware_concurrency());
  return static_cast<int>(std::max(1u, logical / 2));
}

HRESULT Compute(const void* in, const BYTE* inMask, LONG inType, LONG width, LONG height, void* out,
                BYTE* outMask, LONG outType, const Params& params, int threads,
                raster::simd::Isa isa) {
  if (in == nullptr || inMask == nullptr || out == nullptr || outMask == nullptr || width < 0 ||
      height < 0)
    return E_INVALIDARG;
  const std::size_t cells = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  const std::size_t inCells =
      (static_cast<std::size_t>(width) + 2) * (static_cast<std::size_t>(height) + 2);
  if (cells == 0) return S_OK;
  const bool allValid = raster::mask::AllValid(inMask, inCells);
  if (!allValid && !raster::mask::AnyValid(inMask, inCells)) {
    std::memset(out, 0, cells * raster::PixelSize(outType));
    raster::mask::Fill(outMask, cells, false);
    return S_FALSE;
  }
  const Sums sum = SelectSums(inType, isa);
  const CheckedFn checked = SelectChecked(inType);
  const Formulas formula = SelectFormulas(params.surface, outType, isa);
  if (sum.across == nullptr || formula.summed == nullptr) return E_INVALIDARG;
  raster::mask::Fill(outMask, cells, true);
  const std::size_t inPixel = raster::PixelSize(inType), outPixel = raster::PixelSize(outType);
  const std::size_t stride = (static_cast<std::size_t>(width) + 2) * inPixel;
  const auto* inBytes = static_cast<const std::uint8_t*>(in);
  auto* outBytes = static_cast<std::uint8_t*>(out);

  // What each input row holds, read from the mask bits: kWhole without an invalid cell,
  // kInterior with invalid cells only in its first and last column (a block at the raster's
  // left and right edges), else kHoles. Windows over three whole rows need no checks; over
  // whole and interior rows, only the first and last cell of the output row do.
  const std::size_t columns = static_cast<std::size_t>(width) + 2;
  enum RowState : std::uint8_t { kHoles, kInterior, kWhole };
  std::vector<std::uint8_t> rowState(allValid ? 0 : static_cast<std::size_t>(height) + 2);
  for (std::size_t r = 0; r < rowState.size(); ++r) {
    const std::size_t at = r * columns;
    const bool interior = raster::mask::AllValid(inMask, at + 1, columns - 2);
    rowState[r] = !interior ? kHoles
                  : raster::mask::Get(inMask, at) && raster::mask::Get(inMask, at + columns - 1)
                      ? kWhole
                      : kInterior;
  }

  auto rows = [&](LONG first, LONG last) {
    // Working memory, written before it is read (so never cleared).
    const auto dx = Uninitialized<double>(static_cast<std::size_t>(width));
    const auto dy = Uninitialized<double>(static_cast<std::size_t>(width));
    // Whether each checked cell of the row has a value; rows with holes also get their three
    // input rows' validity as bytes and the cells whose windows are whole.
    const auto ok = Uninitialized<std::uint8_t>(allValid ? 0 : static_cast<std::size_t>(width));
    const auto cellValid = Uninitialized<std::uint8_t>(allValid ? 0 : 3 * columns);
    const auto full = Uninitialized<std::uint8_t>(allValid ? 0 : static_cast<std::size_t>(width));
    // The sums across of the last three input rows, in turn, and the column sums: four rows
    // in one buffer, each starting 640 bytes further into a 4 KiB page than the one before,
    // so that a store to one row never looks to the processor like a store to the cells
    // another row loads next (rows a multiple of 4 KiB apart stall on that).
    const std::size_t span = (static_cast<std::size_t>(width) + 2 + 511) / 512 * 512 + 80;
    const auto ring = Uninitialized<double>(4 * span);
    auto across = [&](LONG i) { return ring.get() + static_cast<std::size_t>(i % 3) * span; };
    double* const sums = ring.get() + 3 * span;
    auto inputRow = [&](LONG i) { return inBytes + static_cast<std::size_t>(i) * stride; };
    LONG loaded = first;
    for (LONG r = first; r < last; ++r) {
      // The first two rows of a band get their sums across alone; each next row with the
      // column sums of the output row it completes.
      for (; loaded < r + 2; ++loaded) sum.across(inputRow(loaded), width, across(loaded));
      sum.columns(inputRow(r), inputRow(r + 1), inputRow(r + 2), width, sums, across(r + 2));
      loaded = r + 3;
      void* const target =
          outBytes + static_cast<std::size_t>(r) * static_cast<std::size_t>(width) * outPixel;
      const std::size_t firstCell = static_cast<std::size_t>(r) * static_cast<std::size_t>(width);
      // A run of cells [c, end): the fast path when every window is whole, else the
      // derivatives by the validity rules, and the cells without a value leave the mask.
      auto run = [&](LONG c, LONG end, bool whole) {
        auto* at = static_cast<std::uint8_t*>(target) + static_cast<std::size_t>(c) * outPixel;
        if (whole) {
          formula.summed(sums + c, across(r) + c, across(r + 2) + c, end - c, r, params, at);
          return;
        }
        checked(in, inMask, width, r, c, end, dx.get(), dy.get(), ok.get());
        formula.stored(dx.get() + c, dy.get() + c, end - c, r, params, at);
        for (LONG k = c; k < end; ++k)
          if (!ok[static_cast<std::size_t>(k)])
            ClearShared(outMask, firstCell + static_cast<std::size_t>(k));
      };
      if (allValid) {
        run(0, width, true);
        continue;
      }
      const std::uint8_t state = std::min({rowState[r], rowState[r + 1], rowState[r + 2]});
      if (state == kWhole) {
        run(0, width, true);
      } else if (state == kInterior && width > 2) {
        // Only an end whose column is invalid in one of the three rows is checked: a cell
        // with a whole window always takes the fast path, so that its value never depends on
        // the block it is read in (the two paths' float arithmetic may differ in the last
        // place).
        auto wholeColumn = [&](std::size_t k) {
          const std::size_t at = static_cast<std::size_t>(r) * columns + k;
          return raster::mask::Get(inMask, at) && raster::mask::Get(inMask, at + columns) &&
                 raster::mask::Get(inMask, at + 2 * columns);
        };
        const LONG from = wholeColumn(0) ? 0 : 1;
        const LONG to = wholeColumn(columns - 1) ? width : width - 1;
        if (from > 0) run(0, 1, false);
        run(from, to, true);
        if (to < width) run(width - 1, width, false);
      } else {
        // Runs of cells whose windows are whole take the fast path; cells near a hole are the
        // only ones that pay.
        raster::mask::Unpack(inMask, static_cast<std::size_t>(r) * columns, 3 * columns,
                             cellValid.get());
        const std::uint8_t* v0 = cellValid.get();
        WholeWindows(v0, v0 + columns, v0 + 2 * columns, width, full.get());
        for (LONG c = 0, end = 0; c < width; c = end) {
          end = RunEnd(full.get(), c, width);
          run(c, end, full[static_cast<std::size_t>(c)] != 0);
        }
      }
    }
  };
  // An exception (working memory that cannot be had) must not leave a parallel region.
  std::atomic<bool> failed{false};
  auto guarded = [&](LONG first, LONG last) {
    try {
      rows(first, last);
    } catch (...) {
      failed = true;
    }
  };
#ifdef _OPENMP
  if (threads > 1 && height > 1) {
#pragma omp parallel num_threads(threads)
    {
      // Static schedule: each thread takes one contiguous band of rows.
      const int team = omp_get_num_threads(), me = omp_get_thread_num();
      const LONG per = (height + team - 1) / team;
      const LONG first = std::min<LONG>(height, per * me);
      guarded(first, std::min<LONG>(height, first + per));
    }
  } else {
    guarded(0, height);
  }
#else
  (void)threads;
  guarded(0, height);
#endif
  return failed ? E_OUTOFMEMORY : S_OK;
}

HRESULT ComputeReference(const void* in, const BYTE* inMask, LONG inType, LONG width, LONG height,
                         void* out, BYTE* outMask, LONG outType, const Params& p) {
  const std::size_t cells = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  const std::size_t stride = static_cast<std::size_t>(width) + 2;
  if (raster::mask::Count(inMask, stride * (static_cast<std::size_t>(height) + 2)) == 0) {
    raster::mask::Fill(outMask, cells, false);
    return S_FALSE;
  }
  raster::mask::Fill(outMask, cells, true);
  auto value = [&](LONG r, LONG c) {
    double v = 0;
    raster::VisitPixelType(inType, [&](auto tag) {
      using I = typename decltype(tag)::type;
      v = static_cast<double>(static_cast<const I*>(
          in)[static_cast<std::size_t>(r) * stride + static_cast<std::size_t>(c)]);
    });
    return v;
  };
  auto valid = [&](LONG r, LONG c) {
    return raster::mask::Get(inMask,
                             static_cast<std::size_t>(r) * stride + static_cast<std::size_t>(c));
  };
  for (LONG r = 0; r < height; ++r) {
    for (LONG c = 0; c < width; ++c) {
      const std::size_t o = static_cast<std::size_t>(r) * static_cast<std::size_t>(width) +
                            static_cast<std::size_t>(c);
      // The window around input cell (r + 1, c + 1).
      double w[3][3];
      bool ok[3][3];
      int neighbours = 0;
      for (int j = 0; j < 3; ++j)
        for (int k = 0; k < 3; ++k) {
          w[j][k] = value(r + j, c + k);
          ok[j][k] = valid(r + j, c + k);
          if (j != 1 || k != 1) neighbours += ok[j][k];
        }
      if (!ok[1][1] || neighbours < 7) {
        raster::mask::Clear(outMask, o);
        continue;
      }
      double dzdx = 0, dzdy = 0;
      if (neighbours == 8) {
        dzdx = (w[0][2] + 2 * w[1][2] + w[2][2]) - (w[0][0] + 2 * w[1][0] + w[2][0]);
        dzdy = (w[2][0] + 2 * w[2][1] + w[2][2]) - (w[0][0] + 2 * w[0][1] + w[0][2]);
      } else {
        auto side = [&](double v0, bool o0, double v1, bool o1, double v2, bool o2) {
          const double sum = (o0 ? v0 : 0) + (o1 ? 2 * v1 : 0) + (o2 ? v2 : 0);
          const double weight = (o0 ? 1 : 0) + (o1 ? 2 : 0) + (o2 ? 1 : 0);
          return weight > 0 ? sum * 4 / weight : 0.0;
        };
        const double right = side(w[0][2], ok[0][2], w[1][2], ok[1][2], w[2][2], ok[2][2]);
        const double left = side(w[0][0], ok[0][0], w[1][0], ok[1][0], w[2][0], ok[2][0]);
        const double bottom = side(w[2][0], ok[2][0], w[2][1], ok[2][1], w[2][2], ok[2][2]);
        const double top = side(w[0][0], ok[0][0], w[0][1], ok[0][1], w[0][2], ok[0][2]);
        dzdx = right - left;
        dzdy = bottom - top;
      }
      double v = 0;
      bool aspectWrap = false;
      switch (p.surface) {
        case Surface::kSlope: {
          double rise = std::sqrt((p.fx * dzdx) * (p.fx * dzdx) + (p.fy * dzdy) * (p.fy * dzdy));
          if (p.mercator) rise *= std::cosh((p.topY - r * p.cellY) / kEarthRadius);
          v = p.slopeType == 2 ? rise * 100.0 : std::atan(rise) * kDegrees;
          break;
        }
        case Surface::kAspect: {
          const double x = dzdx / p.cellX, y = dzdy / p.cellYAspect;
          if (x == 0 && y == 0) {
            v = -1.0;
          } else {
            v = 90.0 - std::atan2(y, -x) * kDegrees;
            if (v < 0) v += 360.0;
          }
          aspectWrap = true;
          break;
        }
        case Surface::kHillshade: {
          const double px = p.fx * dzdx, qy = p.fy * dzdy;
          const double n = std::sqrt(1 + px * px + qy * qy);
          for (int k = 0; k < p.lights; ++k) {
            const Light& l = p.light[k];
            v += std::max(0.0, (qy * l.s - px * l.c + l.cosZenith) * 255.0 / n) *
                 (p.lights == 1 ? 1.0 : l.weight);
          }
          break;
        }
      }
      raster::VisitPixelType(outType, [&](auto tag) {
        using O = typename decltype(tag)::type;
        if (aspectWrap && std::is_floating_point_v<O> && v >= 360.0) v = 0;
        O stored = raster::StoreTruncated<O>(std::is_integral_v<O> ? v + 0.5 : v);
        if (aspectWrap && std::is_integral_v<O> && static_cast<double>(stored) >= 360.0)
          stored = O{0};
        static_cast<O*>(out)[o] = stored;
      });
    }
  }
  return S_OK;
}

}  // namespace pw::functions::terrain
