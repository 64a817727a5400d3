// The slope of a cell from its derivatives: the rise sqrt((fx dz/dx)^2 + (fy dz/dy)^2), times
// the Mercator scale factor of the row on a Mercator grid, in percent (type 2) or as the
// angle in degrees.
#pragma once

#include <cmath>
#include <type_traits>

#include "functions/terrain/surface_engine.h"
#include "raster/algorithms/fast_atan.h"

namespace pw::functions::terrain {

struct SlopeFormula {
  struct Params {
    double fx = 0, fy = 0;       // z-factor over 8 x cell size
    int slopeType = 1;           // 2 percent rise, anything else degrees
    bool mercator = false;       // times the Mercator scale factor of each row
    double topY = 0, cellY = 0;  // the map Y of the raster's top and the row height
  };
  static constexpr double kPeriod = 0;

  // The Mercator scale factor of raster row `row` (1 off a Mercator grid).
  static double Scale(LONG row, const Params& p) {
    constexpr double kEarthRadius = 6378137.0;
    return p.mercator ? std::cosh((p.topY - static_cast<double>(row) * p.cellY) / kEarthRadius)
                      : 1.0;
  }

  template <class O, class D>
  PW_ALWAYS_INLINE static void Row(const D d, LONG width, LONG row, const Params& p,
                                   O* __restrict out) {
    const double scale = Scale(row, p);
    const double fx = p.fx, fy = p.fy;
    if (p.slopeType == 2) {
      for (LONG c = 0; c < width; ++c) {
        const double gx = fx * d.X(c), gy = fy * d.Y(c);
        out[c] = StoreCell<O, false>(std::sqrt(gx * gx + gy * gy) * scale * 100.0);
      }
    } else if constexpr (std::is_same_v<O, float>) {
      // A float output keeps a float's precision: the root and the arctangent in single
      // precision, twice as wide per instruction, the rest in double.
      const double scale2 = scale * scale;
      for (LONG c = 0; c < width; ++c) {
        const double gx = fx * d.X(c), gy = fy * d.Y(c);
        const float rise = std::sqrt(static_cast<float>((gx * gx + gy * gy) * scale2));
        out[c] = raster::fast::AtanNonNegativeF(rise) * static_cast<float>(kDegrees);
      }
    } else {
      for (LONG c = 0; c < width; ++c) {
        const double gx = fx * d.X(c), gy = fy * d.Y(c);
        out[c] =
            StoreCell<O, true>(raster::fast::Atan(std::sqrt(gx * gx + gy * gy) * scale) * kDegrees);
      }
    }
  }

  static double Cell(double dzdx, double dzdy, LONG row, const Params& p) {
    const double rise =
        std::sqrt((p.fx * dzdx) * (p.fx * dzdx) + (p.fy * dzdy) * (p.fy * dzdy)) * Scale(row, p);
    return p.slopeType == 2 ? rise * 100.0 : std::atan(rise) * kDegrees;
  }

  // Float degrees on AVX-512 (slope_avx512.cpp): a SummedRowFn.
  PW_TARGET_AVX512 static void FloatAvx512(const double* columns, const double* upper,
                                           const double* lower, LONG width, LONG row,
                                           const void* params, void* out);
};

}  // namespace pw::functions::terrain
