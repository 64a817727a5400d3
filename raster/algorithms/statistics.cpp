// Statistics and histograms of valid pixels.
#include "raster/algorithms/statistics.h"

#include <cmath>

#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/values/raster_statistics.h"

namespace pw::raster {

void Moments::Add(double v) {
  if (count == 0) {
    minimum = maximum = v;
  } else {
    minimum = std::min(minimum, v);
    maximum = std::max(maximum, v);
  }
  sum += v;
  sumOfSquares += v * v;
  ++count;
}

void Moments::Merge(const Moments& o) {
  if (o.count == 0) return;
  if (count == 0) {
    *this = o;
    return;
  }
  minimum = std::min(minimum, o.minimum);
  maximum = std::max(maximum, o.maximum);
  sum += o.sum;
  sumOfSquares += o.sumOfSquares;
  count += o.count;
}

namespace {
template <class F>
void ForEachValid(LONG pixelType, const void* values, const BYTE* bits, std::size_t count,
                  std::optional<double> noData, F&& f) {
  VisitPixelType(pixelType, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* v = static_cast<const T*>(values);
    const bool all = bits == nullptr || mask::AllValid(bits, count);
    for (std::size_t i = 0; i < count; ++i) {
      if (!all && !mask::Get(bits, i)) continue;
      const double d = static_cast<double>(v[i]);
      if (std::isnan(d) || (noData && d == *noData)) continue;
      f(d);
    }
  });
}
}  // namespace

Moments ComputeMoments(LONG pixelType, const void* values, const BYTE* bits, std::size_t count,
                       std::optional<double> noData) {
  Moments m;
  ForEachValid(pixelType, values, bits, count, noData, [&](double d) { m.Add(d); });
  return m;
}

void HistogramRange(LONG pixelType, const Moments& m, double* lo, double* hi) {
  if (pixelType >= 0 && pixelType <= 3) {
    *lo = 0;
    *hi = PixelRange(pixelType).highest;
  } else {
    *lo = m.minimum;
    *hi = m.maximum;
  }
}

void AccumulateHistogram(LONG pixelType, const void* values, const BYTE* bits, std::size_t count,
                         std::optional<double> noData, double lo, double hi,
                         std::vector<double>* bins) {
  const std::size_t n = pixelType >= 0 && pixelType <= 3
                            ? static_cast<std::size_t>(PixelRange(pixelType).highest) + 1
                            : static_cast<std::size_t>(kHistogramBins);
  if (bins->size() != n) bins->assign(n, 0.0);
  const double width = (hi - lo) / static_cast<double>(n);
  ForEachValid(pixelType, values, bits, count, noData, [&](double d) {
    std::size_t bin = 0;
    if (width > 0) {
      const double k = std::floor((d - lo) / width);
      bin = k < 0 ? 0 : (k >= static_cast<double>(n) ? n - 1 : static_cast<std::size_t>(k));
    }
    (*bins)[bin] += 1;
  });
}

HRESULT MakeStatistics(const Moments& m, IRasterStatistics** statistics) {
  PW_CHECK_POINTER(statistics);
  *statistics = nullptr;
  return Guard([&] {
    auto s = MakeObject<RasterStatistics>();
    if (m.count > 0) {
      const double mean = m.sum / static_cast<double>(m.count);
      const double variance =
          std::max(0.0, m.sumOfSquares / static_cast<double>(m.count) - mean * mean);
      s->put_Minimum(m.minimum);
      s->put_Maximum(m.maximum);
      s->put_Mean(mean);
      s->put_StandardDeviation(std::sqrt(variance));
      s->put_IsValid(VARIANT_TRUE);
    }
    return s->QueryInterface(IidOf<IRasterStatistics>(), reinterpret_cast<void**>(statistics));
  });
}

HRESULT MakeHistogram(double lo, double hi, std::vector<double> bins,
                      IRasterHistogram** histogram) {
  PW_CHECK_POINTER(histogram);
  *histogram = nullptr;
  return Guard([&] {
    auto h = MakeObject<RasterHistogram>();
    h->PutRange(lo, hi);
    h->Counts() = std::move(bins);
    return h->QueryInterface(IidOf<IRasterHistogram>(), reinterpret_cast<void**>(histogram));
  });
}

HRESULT ComputeBlockStatistics(IPixelBlock* block, LONG band, IRasterStatistics** statistics,
                               IRasterHistogram** histogram) {
  BlockShape shape;
  PW_RETURN_IF_FAILED(GetShape(block, &shape));
  if (band < 0 || band >= shape.bands) return E_INVALIDARG;
  const Moments m =
      ComputeMoments(shape.pixelType, block->Buffer(band), block->Mask(band), shape.Pixels(), {});
  if (statistics) PW_RETURN_IF_FAILED(MakeStatistics(m, statistics));
  if (histogram) {
    double lo = 0, hi = 0;
    HistogramRange(shape.pixelType, m, &lo, &hi);
    std::vector<double> bins;
    AccumulateHistogram(shape.pixelType, block->Buffer(band), block->Mask(band), shape.Pixels(), {},
                        lo, hi, &bins);
    PW_RETURN_IF_FAILED(MakeHistogram(lo, hi, std::move(bins), histogram));
  }
  return S_OK;
}

HRESULT ComputeRasterStatistics(IRaster* raster, LONG band, IRasterStatistics** statistics,
                                IRasterHistogram** histogram, LONG blockRows) {
  ComPtr<IRasterProps> props;
  if (raster == nullptr || FAILED(raster->QueryInterface(IidOf<IRasterProps>(), props.OutVoid())))
    return E_INVALIDARG;
  LONG width = 0, height = 0, bands = 0, type = -1;
  props->get_Width(&width);
  props->get_Height(&height);
  props->get_BandCount(&bands);
  props->get_PixelType(&type);
  if (band < 0 || band >= bands || blockRows < 1) return E_INVALIDARG;
  // Reads band `band` row strip by row strip and hands each strip to `visit`.
  auto eachStrip = [&](auto&& visit) -> HRESULT {
    for (LONG row = 0; row < height; row += blockRows) {
      ComPtr<IPixelBlock> block;
      PW_RETURN_IF_FAILED(
          raster->CreatePixelBlock(width, std::min(blockRows, height - row), &block));
      PW_RETURN_IF_FAILED(raster->ReadAt(0, row, block.Get()));
      BlockShape shape;
      PW_RETURN_IF_FAILED(GetShape(block.Get(), &shape));
      visit(block->Buffer(band), block->Mask(band), shape.Pixels());
    }
    return S_OK;
  };
  Moments m;
  PW_RETURN_IF_FAILED(eachStrip([&](const void* v, const BYTE* b, std::size_t n) {
    m.Merge(ComputeMoments(type, v, b, n, {}));
  }));
  if (statistics) PW_RETURN_IF_FAILED(MakeStatistics(m, statistics));
  if (histogram) {
    double lo = 0, hi = 0;
    HistogramRange(type, m, &lo, &hi);
    std::vector<double> bins;
    PW_RETURN_IF_FAILED(eachStrip([&](const void* v, const BYTE* b, std::size_t n) {
      AccumulateHistogram(type, v, b, n, {}, lo, hi, &bins);
    }));
    PW_RETURN_IF_FAILED(MakeHistogram(lo, hi, std::move(bins), histogram));
  }
  return S_OK;
}

}  // namespace pw::raster
