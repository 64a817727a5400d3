// The aspect of a cell from its derivatives: the compass direction of steepest descent in
// degrees clockwise from north, in [0, 360), -1 on flat cells. Derivatives are divided by the
// cell size first (a no-op on the direction for square cells, which skip it).
#pragma once

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "functions/terrain/surface_engine.h"
#include "raster/algorithms/fast_atan.h"

namespace pw::functions::terrain {

struct AspectFormula {
  struct Params {
    double cellX = 1, cellY = 1;  // the input cell size
  };
  static constexpr double kPeriod = 360;

  template <class O, class D>
  PW_ALWAYS_INLINE static void Row(const D d, LONG width, LONG, const Params& p,
                                   O* __restrict out) {
    const double cx = p.cellX, cy = p.cellY;
    if constexpr (std::is_same_v<O, float>) {
      // Float outputs: one loop, sixteen cells a vector, the reduced angle in single
      // precision (Atan2F). A flat cell is one whose larger derivative is 0.
      auto cells = [&](auto square) PW_INLINE_LAMBDA {
        for (LONG c = 0; c < width; ++c) {
          double x = d.X(c), y = d.Y(c);
          if constexpr (!decltype(square)::value) x /= cx, y /= cy;
          double v = 90.0 - raster::fast::Atan2F(y, -x) * kDegrees;
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
    } else {
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
          double v = 90.0 - raster::fast::Atan2(y, -x) * kDegrees;
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
            const O stored = StoreCell<O, true>(v);  // v lies in [-1, 360]
            to[k] = static_cast<double>(stored) >= 360.0 ? O{0} : stored;
          }
        }
      }
    }
  }

  static double Cell(double dzdx, double dzdy, LONG, const Params& p) {
    const double x = dzdx / p.cellX, y = dzdy / p.cellY;
    if (x == 0 && y == 0) return -1.0;
    const double v = 90.0 - std::atan2(y, -x) * kDegrees;
    return v < 0 ? v + 360.0 : v;
  }

  // Float aspect on AVX-512 (aspect_avx512.cpp): a SummedRowFn.
  PW_TARGET_AVX512 static void FloatAvx512(const double* columns, const double* upper,
                                           const double* lower, LONG width, LONG row,
                                           const void* params, void* out);
};

}  // namespace pw::functions::terrain
