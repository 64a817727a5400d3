// The statistics and histograms of a function's input, band by band: those the input keeps
// (a dataset band's, GDAL's own from the file included, or a bound function's output
// record), and, where it has none, computed from its pixels and kept with it so that the
// next function bound on the same dataset finds them.
#pragma once

#include <optional>
#include <vector>

#include "com/com_ptr.h"
#include "raster/algorithms/statistics.h"
#include "raster/algorithms/stretch.h"
#include "raster/model.h"

namespace pw::framework {

struct BandStatisticsSet {
  std::vector<ComPtr<IRasterStatistics>> statistics;  // one a band; null where none is kept
  std::vector<ComPtr<IRasterHistogram>> histograms;   // one a band; null where none is kept

  bool Complete() const;  // every band has valid statistics and a histogram
};

// What `raster` keeps for its `bands` bands; looks only, computes nothing.
BandStatisticsSet KeptStatistics(IRaster* raster, LONG bands);

// The same, with whatever is missing computed (estimated from a bounded sample, or exactly)
// and kept where the raster's source keeps them.
HRESULT GatherStatistics(IRaster* raster, LONG bands, raster::Accuracy accuracy,
                         BandStatisticsSet* set);

// A statistics object's values as the stretch reads them (none for a null object, or, with
// `requireValid`, for one not marked valid); a histogram's bins likewise.
std::optional<raster::stretch::BandStatistics> StretchStatisticsOf(IRasterStatistics* s,
                                                                   bool requireValid);
std::optional<raster::stretch::Histogram> StretchHistogramOf(IRasterHistogram* h);

}  // namespace pw::framework
