// Statistics and histograms of valid pixels.
#include "raster/algorithms/statistics.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <type_traits>

#include "com/errorinfo.h"
#include "raster/algorithms/parallel.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
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

// Integers of up to 16 bits are counted value by value into a table, and what is wanted
// (moments, histogram bins) is read off the table: one tight pass over the cells. Small
// runs of 16-bit values would spend more on the table than on the cells.
constexpr std::size_t kCountedMinimum16 = std::size_t{1} << 16;

template <class T>
struct ValueCounts {
  static constexpr std::int32_t kLowest = std::numeric_limits<T>::lowest();
  static constexpr std::size_t kSize = std::size_t{1} << (8 * sizeof(T));
  std::vector<std::uint32_t> counts = std::vector<std::uint32_t>(kSize);

  ValueCounts(const T* v, const BYTE* bits, std::size_t n, std::optional<double> noData) {
    std::uint32_t* __restrict c = counts.data();
    if (bits == nullptr || mask::AllValid(bits, n)) {
      for (std::size_t i = 0; i < n; ++i) ++c[static_cast<std::int32_t>(v[i]) - kLowest];
    } else {
      for (std::size_t i = 0; i < n; ++i)
        c[static_cast<std::int32_t>(v[i]) - kLowest] += mask::Get(bits, i) ? 1u : 0u;
    }
    if (noData && *noData >= kLowest && *noData < kLowest + static_cast<double>(kSize) &&
        *noData == std::floor(*noData))
      counts[static_cast<std::size_t>(static_cast<std::int32_t>(*noData) - kLowest)] = 0;
  }
  static double Value(std::size_t k) {
    return static_cast<double>(kLowest + static_cast<std::int32_t>(k));
  }
};

// Calls `counted(ValueCounts<T>&&)` when the values are counted, else returns false.
template <class F>
bool WithCounts(LONG pixelType, const void* values, const BYTE* bits, std::size_t count,
                std::optional<double> noData, F&& counted) {
  if (count >= (std::size_t{1} << 32)) return false;
  bool done = false;
  VisitPixelType(pixelType, [&](auto tag) {
    using T = typename decltype(tag)::type;
    if constexpr (std::is_integral_v<T> && sizeof(T) <= 2) {
      if (sizeof(T) == 1 || count >= kCountedMinimum16) {
        counted(ValueCounts<T>(static_cast<const T*>(values), bits, count, noData));
        done = true;
      }
    }
  });
  return done;
}

template <class Table>
Moments MomentsOf(const Table& table) {
  Moments m;
  for (std::size_t k = 0; k < table.counts.size(); ++k) {
    const std::uint32_t c = table.counts[k];
    if (c == 0) continue;
    const double v = table.Value(k), n = static_cast<double>(c);
    if (m.count == 0) m.minimum = v;
    m.maximum = v;
    m.sum += n * v;
    m.sumOfSquares += n * v * v;
    m.count += c;
  }
  return m;
}

// The bin of value d among n bins over [lo, lo + n x width]; the ends take what lies beyond.
std::size_t BinOf(double d, double lo, double width, std::size_t n) {
  if (!(width > 0)) return 0;
  const double k = std::floor((d - lo) / width);
  return k < 0 ? 0 : (k >= static_cast<double>(n) ? n - 1 : static_cast<std::size_t>(k));
}

std::size_t BinCount(LONG pixelType) {
  return pixelType >= 0 && pixelType <= 3
             ? static_cast<std::size_t>(PixelRange(pixelType).highest) + 1
             : static_cast<std::size_t>(kHistogramBins);
}

template <class Table>
void AddBins(const Table& table, double lo, double hi, std::vector<double>* bins) {
  const std::size_t n = bins->size();
  const double width = (hi - lo) / static_cast<double>(n);
  for (std::size_t k = 0; k < table.counts.size(); ++k)
    if (table.counts[k] != 0)
      (*bins)[BinOf(table.Value(k), lo, width, n)] += static_cast<double>(table.counts[k]);
}
}  // namespace

Moments ComputeMoments(LONG pixelType, const void* values, const BYTE* bits, std::size_t count,
                       std::optional<double> noData) {
  Moments m;
  const bool counted = WithCounts(pixelType, values, bits, count, noData,
                                  [&](auto&& table) { m = MomentsOf(table); });
  if (!counted) ForEachValid(pixelType, values, bits, count, noData, [&](double d) { m.Add(d); });
  return m;
}

void ComputeMomentsAndHistogram(LONG pixelType, const void* values, const BYTE* bits,
                                std::size_t count, std::optional<double> noData, Moments* moments,
                                double* lo, double* hi, std::vector<double>* bins) {
  bins->assign(BinCount(pixelType), 0.0);
  const bool counted = WithCounts(pixelType, values, bits, count, noData, [&](auto&& table) {
    *moments = MomentsOf(table);
    HistogramRange(pixelType, *moments, lo, hi);
    AddBins(table, *lo, *hi, bins);
  });
  if (counted) return;
  *moments = ComputeMoments(pixelType, values, bits, count, noData);
  HistogramRange(pixelType, *moments, lo, hi);
  AccumulateHistogram(pixelType, values, bits, count, noData, *lo, *hi, bins);
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
  const auto binOf = [&](double d) {
    std::size_t bin = 0;
    if (width > 0) {
      const double k = std::floor((d - lo) / width);
      bin = k < 0 ? 0 : (k >= static_cast<double>(n) ? n - 1 : static_cast<std::size_t>(k));
    }
    return bin;
  };
  const bool counted = WithCounts(pixelType, values, bits, count, noData, [&](auto&& table) {
    for (std::size_t k = 0; k < table.counts.size(); ++k)
      if (table.counts[k] != 0)
        (*bins)[binOf(table.Value(k))] += static_cast<double>(table.counts[k]);
  });
  if (!counted)
    ForEachValid(pixelType, values, bits, count, noData, [&](double d) { (*bins)[binOf(d)] += 1; });
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

std::vector<Window> EstimateWindows(LONG width, LONG height) {
  std::vector<Window> windows;
  if (width < 1 || height < 1) return windows;
  const auto cells = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  if (cells <= kEstimateCells) {
    for (LONG row = 0; row < height; row += 256)
      windows.push_back({0, row, width, std::min<LONG>(256, height - row)});
    return windows;
  }
  constexpr LONG kSide = 64, kWindows = 256;
  const LONG w = std::min(kSide, width), h = std::min(kSide, height);
  const LONG down = std::min<LONG>((height + h - 1) / h, 16);
  const LONG across = std::min<LONG>((width + w - 1) / w, kWindows / down);
  // Window centres at the middles of equal shares of each axis.
  auto start = [](LONG i, LONG count, LONG extent, LONG side) {
    const double centre =
        (static_cast<double>(i) + 0.5) * static_cast<double>(extent) / static_cast<double>(count);
    const auto first = static_cast<LONG>(centre) - side / 2;
    return std::clamp<LONG>(first, 0, extent - side);
  };
  for (LONG j = 0; j < down; ++j)
    for (LONG i = 0; i < across; ++i)
      windows.push_back({start(i, across, width, w), start(j, down, height, h), w, h});
  return windows;
}

namespace {

// Reads the sample's windows of `raster` into `blocks`, on every core unless the calling
// thread is itself one of many workers. The first failure is returned with its message.
HRESULT ReadWindows(IRaster* raster, const std::vector<Window>& windows,
                    std::vector<ComPtr<IPixelBlock>>* blocks) {
  blocks->assign(windows.size(), nullptr);
  const std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
  const std::size_t threads = InParallelWorker() ? 1 : std::min(cores, windows.size());
  // Windows taken column by column: threads at once read different rows of the file's
  // blocks, which its handles serve in parallel.
  std::vector<std::size_t> order(windows.size());
  for (std::size_t k = 0; k < order.size(); ++k) order[k] = k;
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return windows[a].column < windows[b].column;
  });
  std::atomic<std::size_t> next{0};
  std::atomic<bool> failed{false};
  std::vector<HRESULT> results(threads, S_OK);
  std::vector<std::u16string> messages(threads);
  auto work = [&](std::size_t t) {
    const ParallelWorkerScope worker;
    while (!failed) {
      const std::size_t taken = next++;
      if (taken >= windows.size()) return;
      const std::size_t k = order[taken];
      const Window& w = windows[k];
      ComPtr<IPixelBlock> block;
      HRESULT hr = raster->CreatePixelBlock(w.width, w.height, &block);
      if (SUCCEEDED(hr)) hr = raster->ReadAt(w.column, w.row, block.Get());
      if (FAILED(hr)) {
        results[t] = hr;
        messages[t] = TakeErrorDescription();
        failed = true;
        return;
      }
      (*blocks)[k] = std::move(block);
    }
  };
  std::vector<std::thread> team;
  std::size_t started = 1;
  try {
    for (; started < threads; ++started) team.emplace_back(work, started);
  } catch (...) {
    // Windows no thread could take are read here.
  }
  work(0);
  for (std::thread& t : team) t.join();
  for (std::size_t t = 0; t < threads; ++t)
    if (FAILED(results[t]))
      return messages[t].empty() ? results[t] : ReportError(results[t], messages[t]);
  return S_OK;
}

}  // namespace

HRESULT ComputeRasterStatistics(IRaster* raster, Accuracy accuracy,
                                std::vector<ComPtr<IRasterStatistics>>* statistics,
                                std::vector<ComPtr<IRasterHistogram>>* histograms) {
  ComPtr<IRasterProps> props;
  if (raster == nullptr || statistics == nullptr ||
      FAILED(raster->QueryInterface(IidOf<IRasterProps>(), props.OutVoid())))
    return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    LONG width = 0, height = 0, bands = 0, type = -1;
    props->get_Width(&width);
    props->get_Height(&height);
    props->get_BandCount(&bands);
    props->get_PixelType(&type);
    if (bands < 1 || PixelSize(type) == 0) return E_INVALIDARG;
    const auto count = static_cast<std::size_t>(bands);
    std::vector<Window> windows = EstimateWindows(width, height);
    const bool sampled =
        accuracy == Accuracy::kEstimate &&
        static_cast<std::size_t>(width) * static_cast<std::size_t>(height) > kEstimateCells;
    // A sample is read once, on every core, and stays in memory between the passes; an
    // exact pass reads the raster again.
    std::vector<ComPtr<IPixelBlock>> kept;
    if (sampled) PW_RETURN_IF_FAILED(ReadWindows(raster, windows, &kept));
    auto each = [&](auto&& visit) -> HRESULT {
      for (std::size_t k = 0; k < windows.size(); ++k) {
        ComPtr<IPixelBlock> block;
        if (k < kept.size()) {
          block = kept[k];
        } else {
          const Window& w = windows[k];
          PW_RETURN_IF_FAILED(raster->CreatePixelBlock(w.width, w.height, &block));
          PW_RETURN_IF_FAILED(raster->ReadAt(w.column, w.row, block.Get()));
          if (sampled) kept.push_back(block);
        }
        const std::size_t pixels = static_cast<std::size_t>(windows[k].width) *
                                   static_cast<std::size_t>(windows[k].height);
        for (LONG b = 0; b < bands; ++b) visit(b, block->Buffer(b), block->Mask(b), pixels);
      }
      return S_OK;
    };
    std::vector<Moments> moments(count);
    PW_RETURN_IF_FAILED(each([&](LONG b, const void* v, const BYTE* m, std::size_t n) {
      moments[static_cast<std::size_t>(b)].Merge(ComputeMoments(type, v, m, n, {}));
    }));
    statistics->assign(count, nullptr);
    for (std::size_t b = 0; b < count; ++b)
      PW_RETURN_IF_FAILED(MakeStatistics(moments[b], &(*statistics)[b]));
    if (histograms == nullptr) return S_OK;
    std::vector<double> lo(count), hi(count);
    std::vector<std::vector<double>> bins(count);
    for (std::size_t b = 0; b < count; ++b) HistogramRange(type, moments[b], &lo[b], &hi[b]);
    PW_RETURN_IF_FAILED(each([&](LONG b, const void* v, const BYTE* m, std::size_t n) {
      const auto i = static_cast<std::size_t>(b);
      AccumulateHistogram(type, v, m, n, {}, lo[i], hi[i], &bins[i]);
    }));
    histograms->assign(count, nullptr);
    for (std::size_t b = 0; b < count; ++b)
      PW_RETURN_IF_FAILED(MakeHistogram(lo[b], hi[b], std::move(bins[b]), &(*histograms)[b]));
    return S_OK;
  });
}

}  // namespace pw::raster
