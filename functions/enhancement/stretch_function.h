// StretchFunction: each band's input range (from statistics or a histogram, by stretch
// type) mapped onto [Min, Max], shaped by the sigmoid table and by gamma, through the raster
// stretch; with DRA the range comes from each block read. And its arguments class.
#pragma once

#include "framework/class_identity.h"

#include <memory>
#include <optional>
#include <vector>

#include "framework/arguments.h"
#include "framework/basic_function.h"
#include "framework/pixelwise.h"
#include "raster/algorithms/stretch.h"

PW_INTERFACE(IStretchFunctionArguments, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Raster(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_StretchType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_StretchType(LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Gamma(IDoubleArray * *gamma) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Gamma(IDoubleArray * gamma) = 0;
  // Arrays of IRasterStatistics and IRasterHistogram, one a band.
  virtual HRESULT STDMETHODCALLTYPE get_Statistics(IArray * *statistics) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Statistics(IArray * statistics) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Histograms(IArray * *histograms) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Histograms(IArray * histograms) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_NumberOfStandardDeviations(double* count) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_NumberOfStandardDeviations(double count) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_UseGamma(VARIANT_BOOL * use) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_UseGamma(VARIANT_BOOL use) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Min(double* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Min(double value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Max(double* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Max(double value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MinPercent(double* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MinPercent(double value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MaxPercent(double* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MaxPercent(double value) = 0;
};

PW_INTERFACE(IStretchFunctionArguments2, IStretchFunctionArguments) {
  virtual HRESULT STDMETHODCALLTYPE get_DRA(VARIANT_BOOL * dra) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_DRA(VARIANT_BOOL dra) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_EstimateStatsHistogram(VARIANT_BOOL * estimate) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_EstimateStatsHistogram(VARIANT_BOOL estimate) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ComputeGamma(VARIANT_BOOL * compute) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ComputeGamma(VARIANT_BOOL compute) = 0;
};

namespace pw::functions {

class StretchFunctionArguments : public framework::BasicFunctionArguments,
                                 public IStretchFunctionArguments2 {
 public:
  using Interfaces = ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces,
                                       InterfaceList<IStretchFunctionArguments2>>;
  PW_CLASS_IDENTITY(StretchFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_Raster(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_StretchType(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_StretchType(LONG type) override;
  HRESULT STDMETHODCALLTYPE get_Gamma(IDoubleArray** gamma) override;
  HRESULT STDMETHODCALLTYPE put_Gamma(IDoubleArray* gamma) override;
  HRESULT STDMETHODCALLTYPE get_Statistics(IArray** statistics) override;
  HRESULT STDMETHODCALLTYPE put_Statistics(IArray* statistics) override;
  HRESULT STDMETHODCALLTYPE get_Histograms(IArray** histograms) override;
  HRESULT STDMETHODCALLTYPE put_Histograms(IArray* histograms) override;
  HRESULT STDMETHODCALLTYPE get_NumberOfStandardDeviations(double* count) override;
  HRESULT STDMETHODCALLTYPE put_NumberOfStandardDeviations(double count) override;
  HRESULT STDMETHODCALLTYPE get_UseGamma(VARIANT_BOOL* use) override;
  HRESULT STDMETHODCALLTYPE put_UseGamma(VARIANT_BOOL use) override;
  HRESULT STDMETHODCALLTYPE get_Min(double* value) override;
  HRESULT STDMETHODCALLTYPE put_Min(double value) override;
  HRESULT STDMETHODCALLTYPE get_Max(double* value) override;
  HRESULT STDMETHODCALLTYPE put_Max(double value) override;
  HRESULT STDMETHODCALLTYPE get_MinPercent(double* value) override;
  HRESULT STDMETHODCALLTYPE put_MinPercent(double value) override;
  HRESULT STDMETHODCALLTYPE get_MaxPercent(double* value) override;
  HRESULT STDMETHODCALLTYPE put_MaxPercent(double value) override;
  HRESULT STDMETHODCALLTYPE get_DRA(VARIANT_BOOL* dra) override;
  HRESULT STDMETHODCALLTYPE put_DRA(VARIANT_BOOL dra) override;
  HRESULT STDMETHODCALLTYPE get_EstimateStatsHistogram(VARIANT_BOOL* estimate) override;
  HRESULT STDMETHODCALLTYPE put_EstimateStatsHistogram(VARIANT_BOOL estimate) override;
  HRESULT STDMETHODCALLTYPE get_ComputeGamma(VARIANT_BOOL* compute) override;
  HRESULT STDMETHODCALLTYPE put_ComputeGamma(VARIANT_BOOL compute) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

  // The number of standard deviations: "NumberOfStandardDeviations", else the older
  // "NumberOfStandardDeviation".
  double Deviations() const;

 protected:
  HRESULT ReadJson(const persist::Json& json) override;
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class StretchFunction : public framework::BasicFunction {
 public:
  PW_CLASS_IDENTITY(StretchFunction)
  StretchFunction();

  // Per band: statistics and histogram, where known.
  using Statistics = std::vector<std::optional<raster::stretch::BandStatistics>>;
  using Histograms = std::vector<std::optional<raster::stretch::Histogram>>;

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
  HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) override;

 private:
  // Band `band`'s mapping from its statistics and histogram (either may be absent).
  HRESULT ConfigureBand(LONG band, const std::optional<raster::stretch::BandStatistics>& statistics,
                        const raster::stretch::Histogram* histogram,
                        raster::stretch::BandMapping* mapping) const;
  HRESULT Configure(const Statistics& statistics, const Histograms& histograms,
                    std::vector<raster::stretch::BandMapping>* mappings) const;
  // The output statistics: the histograms' bin centres through the mappings, weighted by
  // the counts. S_FALSE when the histograms do not allow it.
  HRESULT EstimateOutputStatistics(IRasterInfo3* info) const;
  // The per-band statistics and histograms of the arguments, with the input's for the bands
  // the arguments leave out.
  void Merge(const Statistics& given, const Histograms& givenHistograms,
             const std::vector<ComPtr<IRasterStatistics>>& kept,
             const std::vector<ComPtr<IRasterHistogram>>& keptHistograms, Statistics* statistics,
             Histograms* histograms) const;

  framework::PixelwiseInputs pixelwise_;
  ComPtr<IRaster> input_;
  LONG bands_ = 0;
  raster::stretch::Settings settings_;
  bool dra_ = false, estimate_ = true, computeGamma_ = false;
  bool gammaActive_ = false, passThrough_ = false;
  std::vector<double> gamma_;
  LONG inType_ = -1, outType_ = -1;
  Statistics givenStatistics_, statistics_;
  Histograms givenHistograms_, histograms_;
  std::shared_ptr<const std::vector<double>> sigmoid_;
  std::vector<raster::stretch::BandMapping> mappings_;
};

}  // namespace pw::functions
