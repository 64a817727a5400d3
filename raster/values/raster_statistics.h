// Per-band statistics and histograms.
#pragma once

#include <vector>

#include "raster/persist/value_object.h"

namespace pw::raster {

class RasterStatistics : public persist::ValueObject<RasterStatistics, IRasterStatistics> {
 public:
  static constexpr std::string_view kTypeName = "RasterStatistics";
  static constexpr auto Fields() {
    return std::tuple{persist::Field("Minimum", &RasterStatistics::min_),
                      persist::Field("Maximum", &RasterStatistics::max_),
                      persist::Field("Mean", &RasterStatistics::mean_),
                      persist::Field("StandardDeviation", &RasterStatistics::stddev_),
                      persist::Field("IsValid", &RasterStatistics::valid_)};
  }

  HRESULT STDMETHODCALLTYPE get_Minimum(double* v) override;
  HRESULT STDMETHODCALLTYPE put_Minimum(double v) override;
  HRESULT STDMETHODCALLTYPE get_Maximum(double* v) override;
  HRESULT STDMETHODCALLTYPE put_Maximum(double v) override;
  HRESULT STDMETHODCALLTYPE get_Mean(double* v) override;
  HRESULT STDMETHODCALLTYPE put_Mean(double v) override;
  HRESULT STDMETHODCALLTYPE get_StandardDeviation(double* v) override;
  HRESULT STDMETHODCALLTYPE put_StandardDeviation(double v) override;
  HRESULT STDMETHODCALLTYPE get_IsValid(VARIANT_BOOL* valid) override;
  HRESULT STDMETHODCALLTYPE put_IsValid(VARIANT_BOOL valid) override;

 private:
  double min_ = 0, max_ = 0, mean_ = 0, stddev_ = 0;
  bool valid_ = false;
};

class RasterHistogram : public persist::ValueObject<RasterHistogram, IRasterHistogram> {
 public:
  static constexpr std::string_view kTypeName = "RasterHistogram";
  static constexpr auto Fields() {
    return std::tuple{persist::Field("Minimum", &RasterHistogram::min_),
                      persist::Field("Maximum", &RasterHistogram::max_),
                      persist::Field("Counts", &RasterHistogram::counts_)};
  }

  HRESULT STDMETHODCALLTYPE get_Minimum(double* v) override;
  HRESULT STDMETHODCALLTYPE get_Maximum(double* v) override;
  HRESULT STDMETHODCALLTYPE PutRange(double minimum, double maximum) override;
  HRESULT STDMETHODCALLTYPE get_BinCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE get_Counts(IDoubleArray** counts) override;
  HRESULT STDMETHODCALLTYPE putref_Counts(IDoubleArray* counts) override;

  std::vector<double>& Counts() { return counts_; }

 private:
  double min_ = 0, max_ = 0;
  std::vector<double> counts_;
};

}  // namespace pw::raster
