// The 3 x 3 surface engine of the terrain functions: derivatives from each cell's window
// (with the seven-valid-neighbour rule), then a surface's per-cell formula, row by row and
// in parallel over rows. The engine knows no formula: a terrain function hands it a Surface,
// made by MakeSurface from a formula struct of its own:
//
//   struct MyFormula {
//     struct Params { ... };                 // the constants the function folds at bind
//     static constexpr double kPeriod = 0;   // 360 for a direction: values from it on are 0
//     // A row of cells from their derivatives d.X(c) (dz/dx) and d.Y(c) (dz/dy), at raster
//     // row `row`, written straight to the output; vectorized per instruction set.
//     template <class O, class D>
//     PW_ALWAYS_INLINE static void Row(const D d, LONG width, LONG row, const Params& p, O* out);
//     // One cell straight from the rules, in double, for the reference and the tests.
//     static double Cell(double dzdx, double dzdy, LONG row, const Params& p);
//     // Optional: a hand-written AVX-512 row of float outputs from the sums (a SummedRowFn).
//     static void FloatAvx512(const double* columns, const double* upper, ...);
//   };
//
// A scalar reference written straight from the rules stays for tests.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "com/types.h"
#include "raster/algorithms/simd_dispatch.h"
#include "raster/pixel_traits.h"

namespace pw::functions::terrain {

// Degrees in a radian, as the terrain functions have always used it.
inline constexpr double kDegrees = 57.29578;

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

// v + 0.5 for integer outputs, then truncation toward zero without clamping. Values known to
// lie in [0, 2^31) (kBounded) take the short conversion.
template <class O, bool kBounded>
PW_ALWAYS_INLINE O StoreCell(double v) {
  if constexpr (std::is_floating_point_v<O>) {
    return static_cast<O>(v);
  } else if constexpr (kBounded) {
    return static_cast<O>(static_cast<std::int32_t>(v + 0.5));
  } else {
    return raster::StoreTruncated<O>(v + 0.5);
  }
}

// A formula over a row of `width` cells at raster row `row`: from the column sums and the
// sums across of the upper and lower rows, or from stored dz/dx and dz/dy.
using SummedRowFn = void (*)(const double* columns, const double* upper, const double* lower,
                             LONG width, LONG row, const void* params, void* out);
using StoredRowFn = void (*)(const double* dx, const double* dy, LONG width, LONG row,
                             const void* params, void* out);

struct RowKernels {
  SummedRowFn summed = nullptr;
  StoredRowFn stored = nullptr;
};

// What a terrain function makes of a cell's derivatives: its row kernels for an output type
// and instruction set, its reference cell, and its constants (which outlive the Surface).
struct Surface {
  const void* params = nullptr;
  RowKernels (*rows)(LONG outType, raster::simd::Isa isa) = nullptr;
  double (*cell)(double dzdx, double dzdy, LONG row, const void* params) = nullptr;
  double period = 0;
};

namespace detail {

template <class F, class O>
struct SummedRow {
  PW_ALWAYS_INLINE static void Run(const double* columns, const double* upper, const double* lower,
                                   LONG width, LONG row, const void* p, void* out) {
    F::template Row<O>(SummedDerivatives{columns, upper, lower}, width, row,
                       *static_cast<const typename F::Params*>(p), static_cast<O*>(out));
  }
};

template <class F, class O>
struct StoredRow {
  PW_ALWAYS_INLINE static void Run(const double* dx, const double* dy, LONG width, LONG row,
                                   const void* p, void* out) {
    F::template Row<O>(StoredDerivatives{dx, dy}, width, row,
                       *static_cast<const typename F::Params*>(p), static_cast<O*>(out));
  }
};

template <class F>
RowKernels Rows(LONG outType, raster::simd::Isa isa) {
  RowKernels k;
  raster::VisitPixelType(outType, [&](auto tag) {
    using O = typename decltype(tag)::type;
    k.summed = raster::simd::Variants<SummedRow<F, O>, SummedRowFn>::For(isa);
    k.stored = raster::simd::Variants<StoredRow<F, O>, StoredRowFn>::For(isa);
  });
#if PW_SIMD_X86
  if constexpr (requires { static_cast<SummedRowFn>(&F::FloatAvx512); }) {
    if (isa == raster::simd::Isa::kAvx512 && outType == 9) k.summed = &F::FloatAvx512;
  }
#endif
  return k;
}

template <class F>
double Cell(double dzdx, double dzdy, LONG row, const void* p) {
  return F::Cell(dzdx, dzdy, row, *static_cast<const typename F::Params*>(p));
}

}  // namespace detail

// The surface of formula F with the constants `params`.
template <class F>
Surface MakeSurface(const typename F::Params& params) {
  return {&params, &detail::Rows<F>, &detail::Cell<F>, F::kPeriod};
}

// Computes a width x height block of `outType` from `in`, a (width + 2) x (height + 2)
// block of `inType` with its validity mask; `firstRow` is the raster row of the block's
// first output row, which formulas that vary by row see. Returns S_FALSE (and an
// all-invalid output of 0s) when no input pixel is valid. `threads` rows run at once (1 runs
// on the caller only).
HRESULT Compute(const void* in, const BYTE* inMask, LONG inType, LONG width, LONG height, void* out,
                BYTE* outMask, LONG outType, const Surface& surface, int threads,
                raster::simd::Isa isa = raster::simd::Best(), LONG firstRow = 0);

// The same block computed cell by cell straight from the rules, with the surface's
// reference cell.
HRESULT ComputeReference(const void* in, const BYTE* inMask, LONG inType, LONG width, LONG height,
                         void* out, BYTE* outMask, LONG outType, const Surface& surface,
                         LONG firstRow = 0);

// Threads for a block's row loop: half the logical processors and at least one, or one
// inside a worker of a parallel export (which already keeps every core busy).
int RowThreads();

}  // namespace pw::functions::terrain
