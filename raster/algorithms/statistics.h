// Statistics (minimum, maximum, mean, population standard deviation) and histograms of
// the valid pixels of a band's values, a block's band or a raster's band.
#pragma once

#include <optional>
#include <vector>

#include "com/com_ptr.h"

#include "raster/model.h"

namespace pw::raster {

// Running sums over valid values; merge blocks by adding.
struct Moments {
  double minimum = 0, maximum = 0, sum = 0, sumOfSquares = 0;
  std::size_t count = 0;
  void Add(double v);
  void Merge(const Moments& other);
};

// Histograms have 256 bins over [minimum, maximum]; 8-bit types get one bin per value
// over [0, 255] (or their narrower range).
inline constexpr LONG kHistogramBins = 256;

// Accumulates the valid pixels of typed values (those equal to `noData` are skipped).
Moments ComputeMoments(LONG pixelType, const void* values, const BYTE* mask, std::size_t count,
                       std::optional<double> noData);
void AccumulateHistogram(LONG pixelType, const void* values, const BYTE* mask, std::size_t count,
                         std::optional<double> noData, double lo, double hi,
                         std::vector<double>* bins);
void HistogramRange(LONG pixelType, const Moments& m, double* lo, double* hi);
// Both at once, the histogram over HistogramRange of the moments: integers of up to 16 bits
// are read once.
void ComputeMomentsAndHistogram(LONG pixelType, const void* values, const BYTE* mask,
                                std::size_t count, std::optional<double> noData, Moments* moments,
                                double* lo, double* hi, std::vector<double>* bins);

HRESULT MakeStatistics(const Moments& m, IRasterStatistics** statistics);
HRESULT MakeHistogram(double lo, double hi, std::vector<double> bins, IRasterHistogram** histogram);

// A block's band.
HRESULT ComputeBlockStatistics(IPixelBlock* block, LONG band, IRasterStatistics** statistics,
                               IRasterHistogram** histogram);
// A raster's band, read in blocks of `blockRows` rows (two passes: range, then bins).
HRESULT ComputeRasterStatistics(IRaster* raster, LONG band, IRasterStatistics** statistics,
                                IRasterHistogram** histogram, LONG blockRows = 256);

// Every band of a raster at once. kExact reads every cell (twice: range, then bins).
// kEstimate reads a fixed sample whatever the raster's size: the whole raster when it has at
// most kEstimateCells cells, else a grid of at most 256 windows of 64 x 64 cells spread
// evenly over it, each touching only the few source blocks under it.
enum class Accuracy { kEstimate, kExact };
inline constexpr std::size_t kEstimateCells = std::size_t{1} << 20;
HRESULT ComputeRasterStatistics(IRaster* raster, Accuracy accuracy,
                                std::vector<ComPtr<IRasterStatistics>>* statistics,
                                std::vector<ComPtr<IRasterHistogram>>* histograms);

// The windows kEstimate reads from a `width` x `height` raster: (column, row, width, height).
struct Window {
  LONG column = 0, row = 0, width = 0, height = 0;
};
std::vector<Window> EstimateWindows(LONG width, LONG height);

}  // namespace pw::raster
