// Statistics and histograms of inputs.
#include "framework/input_statistics.h"

#include "framework/function_interfaces.h"
#include "framework/raster_info.h"
#include "raster/raster_view.h"

namespace pw::framework {
namespace {

// Where a raster's band statistics are kept: the bands of the dataset under a plain view,
// or the output record of the bound function under one.
struct Keeper {
  ComPtr<IRasterDataset> dataset;
  ComPtr<IRasterInfo3> record;
};

Keeper KeeperOf(IRaster* raster) {
  Keeper keeper;
  auto* view = dynamic_cast<raster::Raster*>(raster);
  if (view == nullptr) return keeper;
  if (auto functionDataset = view->Source().As<IFunctionRasterDataset>()) {
    ComPtr<IRasterFunction> function;
    ComPtr<IRasterInfo> info;
    if (SUCCEEDED(functionDataset->get_Function(&function)) && function &&
        SUCCEEDED(function->get_RasterInfo(&info)) && info)
      keeper.record = info.As<IRasterInfo3>();
    return keeper;
  }
  keeper.dataset = view->Source().As<IRasterDataset>();
  return keeper;
}

bool Valid(IRasterStatistics* statistics) {
  VARIANT_BOOL valid = VARIANT_FALSE;
  return statistics != nullptr && SUCCEEDED(statistics->get_IsValid(&valid)) && valid;
}

bool Usable(IRasterHistogram* histogram) {
  LONG bins = 0;
  return histogram != nullptr && SUCCEEDED(histogram->get_BinCount(&bins)) && bins > 0;
}

}  // namespace

bool BandStatisticsSet::Complete() const {
  for (const auto& s : statistics)
    if (!Valid(s.Get())) return false;
  for (const auto& h : histograms)
    if (!Usable(h.Get())) return false;
  return !statistics.empty() && statistics.size() == histograms.size();
}

BandStatisticsSet KeptStatistics(IRaster* raster, LONG bands) {
  BandStatisticsSet set;
  const auto count = static_cast<std::size_t>(std::max<LONG>(bands, 0));
  set.statistics.resize(count);
  set.histograms.resize(count);
  const Keeper keeper = KeeperOf(raster);
  for (LONG b = 0; b < bands; ++b) {
    ComPtr<IRasterStatistics> statistics;
    ComPtr<IRasterHistogram> histogram;
    if (keeper.dataset) {
      ComPtr<IRasterBand> band;
      if (SUCCEEDED(keeper.dataset->GetBand(b, &band)) && band) {
        band->get_Statistics(&statistics);
        band->get_Histogram(&histogram);
      }
    } else if (keeper.record) {
      LONG kept = 0;
      if (SUCCEEDED(keeper.record->get_StatisticsCount(&kept)) && b < kept)
        keeper.record->get_Statistics(b, &statistics);
      if (SUCCEEDED(keeper.record->get_HistogramCount(&kept)) && b < kept)
        keeper.record->get_Histogram(b, &histogram);
    }
    const auto i = static_cast<std::size_t>(b);
    if (Valid(statistics.Get())) set.statistics[i] = statistics;
    if (Usable(histogram.Get())) set.histograms[i] = histogram;
  }
  return set;
}

HRESULT GatherStatistics(IRaster* raster, LONG bands, raster::Accuracy accuracy,
                         BandStatisticsSet* set) {
  if (raster == nullptr || set == nullptr || bands < 1) return E_INVALIDARG;
  *set = KeptStatistics(raster, bands);
  if (set->Complete()) return S_OK;
  BandStatisticsSet computed;
  PW_RETURN_IF_FAILED(raster::ComputeRasterStatistics(raster, accuracy, &computed.statistics,
                                                      &computed.histograms));
  const Keeper keeper = KeeperOf(raster);
  for (LONG b = 0; b < bands && static_cast<std::size_t>(b) < computed.statistics.size(); ++b) {
    const auto i = static_cast<std::size_t>(b);
    // What the raster kept stays; only the missing parts are taken from the computation.
    if (!Valid(set->statistics[i].Get())) set->statistics[i] = computed.statistics[i];
    if (!Usable(set->histograms[i].Get())) set->histograms[i] = computed.histograms[i];
    if (keeper.dataset) {
      ComPtr<IRasterBand> band;
      if (SUCCEEDED(keeper.dataset->GetBand(b, &band)) && band) {
        band->put_Statistics(set->statistics[i].Get());
        band->put_Histogram(set->histograms[i].Get());
      }
    } else if (keeper.record) {
      keeper.record->put_Statistics(b, set->statistics[i].Get());
      keeper.record->put_Histogram(b, set->histograms[i].Get());
    }
  }
  return S_OK;
}

std::optional<raster::stretch::BandStatistics> StretchStatisticsOf(IRasterStatistics* s,
                                                                   bool requireValid) {
  if (s == nullptr) return std::nullopt;
  VARIANT_BOOL valid = VARIANT_FALSE;
  s->get_IsValid(&valid);
  if (requireValid && !valid) return std::nullopt;
  raster::stretch::BandStatistics out;
  s->get_Minimum(&out.min);
  s->get_Maximum(&out.max);
  s->get_Mean(&out.mean);
  s->get_StandardDeviation(&out.deviation);
  return out;
}

std::optional<raster::stretch::Histogram> StretchHistogramOf(IRasterHistogram* h) {
  if (h == nullptr) return std::nullopt;
  raster::stretch::Histogram out;
  h->get_Minimum(&out.low);
  h->get_Maximum(&out.high);
  ComPtr<IDoubleArray> counts;
  LONG n = 0;
  if (FAILED(h->get_Counts(&counts)) || !counts || FAILED(counts->get_Count(&n)) || n < 1)
    return std::nullopt;
  out.counts.resize(static_cast<std::size_t>(n));
  for (LONG i = 0; i < n; ++i) counts->get_Element(i, &out.counts[static_cast<std::size_t>(i)]);
  return out;
}

}  // namespace pw::framework
