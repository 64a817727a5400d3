// The raster stretch: each band's input range (from its statistics or histogram, by stretch
// type) mapped linearly onto [min, max] of the output and clamped, shaped by the sigmoid
// table for the sigmoid type, then by the band's gamma as min + (max - min) x t^(1 / gamma),
// t the position in [0, 1]. Integer outputs round half away from zero and clamp.
//
// Types: 0 none (gamma alone, over the minimum-maximum range), 3 standard deviation (mean
// -/+ n x std), 5 minimum-maximum, 6 percent clip (from the histogram: MinPercent cut at the
// low end, MaxPercent at the high end), 9 sigmoid (the sigmoid table over the minimum-maximum
// range). Other types are refused with E_INVALIDARG.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "com/types.h"

namespace pw::raster::stretch {

enum Type : LONG {
  kNone = 0,
  kStandardDeviation = 3,
  kMinimumMaximum = 5,
  kPercentClip = 6,
  kSigmoid = 9,
};

struct BandStatistics {
  double min = 0, max = 0, mean = 0, deviation = 0;
};

// Counts of `counts.size()` equal bins over [low, high].
struct Histogram {
  double low = 0, high = 0;
  std::vector<double> counts;
};

struct Settings {
  LONG type = kNone;
  double min = 0, max = 255;  // the output range
  double deviations = 2;      // standard deviation: n
  double minPercent = 0.25, maxPercent = 0.25;
  int sigmoidLevel = 2;  // 1 to 6, higher is steeper
};

// The input range of one band mapped onto [min, max].
struct Range {
  double low = 0, high = 0;
};

// The input range of a band for `s.type`; nullopt when the type needs a histogram the band
// does not have, or the type is not one of the above.
std::optional<Range> InputRange(const Settings& s, const BandStatistics& statistics,
                                const Histogram* histogram);

// The sigmoid table: `entries` values of the curve over [0, 1], rising from 0 to 1, steeper
// around 0.5 for higher levels (1 to 6; others are clamped to that).
std::vector<double> ComputeSigmoidLUT(int level, std::size_t entries = 1024);

// The gamma that puts the band's stretched mean at mid-range, clamped to [0.1, 10].
double ComputeGamma(const BandStatistics& statistics, const Range& range);

// One band's mapping, configured once and applied to blocks.
struct BandMapping {
  Range range;
  double gamma = 1;
  const std::vector<double>* sigmoid = nullptr;  // the table, when the type is sigmoid
  double min = 0, max = 255;

  // The output value of input value v, before conversion to the output type.
  double operator()(double v) const;
};

// Maps `pixels` values of `inType` to `outType` through `mapping`; only pixels whose mask
// bit is set are written. Integer inputs of up to 16 bits go through a table of every value.
HRESULT Apply(const BandMapping& mapping, LONG inType, const void* in, const BYTE* mask,
              std::size_t pixels, LONG outType, void* out);

// The same, pixel by pixel through operator() and the read conversion, for tests.
HRESULT ApplyReference(const BandMapping& mapping, LONG inType, const void* in, const BYTE* mask,
                       std::size_t pixels, LONG outType, void* out);

}  // namespace pw::raster::stretch
