// Per-band statistics and histograms.
#include "raster/values/raster_statistics.h"

#include "raster/values/arrays.h"

namespace pw::raster {

PW_REGISTER_VALUE_CLASS(RasterStatistics);
PW_REGISTER_VALUE_CLASS(RasterHistogram);

HRESULT RasterStatistics::get_Minimum(double* v) {
  return HandOut(min_, v);
}
HRESULT RasterStatistics::put_Minimum(double v) {
  return min_ = v, S_OK;
}
HRESULT RasterStatistics::get_Maximum(double* v) {
  return HandOut(max_, v);
}
HRESULT RasterStatistics::put_Maximum(double v) {
  return max_ = v, S_OK;
}
HRESULT RasterStatistics::get_Mean(double* v) {
  return HandOut(mean_, v);
}
HRESULT RasterStatistics::put_Mean(double v) {
  return mean_ = v, S_OK;
}
HRESULT RasterStatistics::get_StandardDeviation(double* v) {
  return HandOut(stddev_, v);
}
HRESULT RasterStatistics::put_StandardDeviation(double v) {
  return stddev_ = v, S_OK;
}
HRESULT RasterStatistics::get_IsValid(VARIANT_BOOL* valid) {
  PW_CHECK_POINTER(valid);
  *valid = valid_ ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}
HRESULT RasterStatistics::put_IsValid(VARIANT_BOOL valid) {
  return valid_ = valid != 0, S_OK;
}

HRESULT RasterHistogram::get_Minimum(double* v) {
  return HandOut(min_, v);
}
HRESULT RasterHistogram::get_Maximum(double* v) {
  return HandOut(max_, v);
}
HRESULT RasterHistogram::PutRange(double minimum, double maximum) {
  if (!(minimum <= maximum)) return E_INVALIDARG;
  min_ = minimum;
  max_ = maximum;
  return S_OK;
}
HRESULT RasterHistogram::get_BinCount(LONG* count) {
  PW_CHECK_POINTER(count);
  *count = static_cast<LONG>(counts_.size());
  return S_OK;
}
HRESULT RasterHistogram::get_Counts(IDoubleArray** counts) {
  PW_CHECK_POINTER(counts);
  *counts = nullptr;
  return Guard([&] {
    auto array = MakeObject<DoubleArray>();
    array->Items() = counts_;
    return array->QueryInterface(IidOf<IDoubleArray>(), reinterpret_cast<void**>(counts));
  });
}
HRESULT RasterHistogram::putref_Counts(IDoubleArray* counts) {
  return Guard([&] {
    std::vector<double> values;
    LONG n = 0;
    if (counts != nullptr) PW_RETURN_IF_FAILED(counts->get_Count(&n));
    for (LONG i = 0; i < n; ++i) {
      double v = 0;
      PW_RETURN_IF_FAILED(counts->get_Element(i, &v));
      values.push_back(v);
    }
    counts_ = std::move(values);
    return S_OK;
  });
}

}  // namespace pw::raster
