// Focal statistics: a statistic of the valid cells of the window around each cell.
//
// Invalid cells and cells beyond the edge are skipped; a window without a valid cell gives
// an invalid cell. With FillNoDataOnly a valid centre keeps its value. Majority and
// minority ties take the smallest value; the median of an even count is the lower middle;
// the standard deviation is the population one; integer outputs of the mean and the
// standard deviation round half up and clamp.
//
// Every statistic costs the same per cell whatever the window's size, except the median of
// types wider than 8 bits: sums and counts slide down the columns and across the rows
// (exact 64-bit integers for types up to 16 bits; doubles around a reference value for the
// others, so that elevations near 8000 m lose no precision to cancellation); minimum and
// maximum take van Herk and Gil-Werman's prefix and suffix runs (small windows the direct
// vectorized minimum); the 3 x 3 median of whole windows a sorting network across the
// columns, the 8-bit median a sliding histogram; majority and minority count each class
// present in a band through sliding sums when there are few, else sort each window.
#pragma once

#include <cstdint>

#include "com/types.h"
#include "raster/algorithms/neighbourhood.h"

namespace pw::raster::focal {

enum Statistic : LONG {
  kMinimum = 1,
  kMaximum = 2,
  kMean = 3,
  kStandardDeviation = 4,
  kMedian = 5,
  kMajority = 6,
  kMinority = 7,
};

// Fills `out` from a window band whose margins are those of the window's size.
void Compute(const neighbourhood::Window& in, Statistic statistic, bool fillNoDataOnly,
             const neighbourhood::Target& out);

}  // namespace pw::raster::focal
