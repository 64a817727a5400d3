// Multidimensional descriptions (variables and the dimensions they span) and levels of
// detail of cached rasters.
#pragma once

#include <vector>

#include "raster/persist/value_object.h"

namespace pw::raster {

class MultidimensionalInfo
    : public persist::ValueObject<MultidimensionalInfo, IMultidimensionalInfo> {
 public:
  static constexpr std::string_view kTypeName = "MultidimensionalInfo";
  static constexpr auto Fields() {
    using M = MultidimensionalInfo;
    return std::tuple{persist::Field("VariableNames", &M::variableNames_),
                      persist::Field("VariableUnits", &M::variableUnits_),
                      persist::Field("VariableDimensions", &M::variableDimensions_),
                      persist::Field("DimensionNames", &M::dimensionNames_),
                      persist::Field("DimensionUnits", &M::dimensionUnits_),
                      persist::Field("DimensionValues", &M::dimensionValues_)};
  }

  HRESULT STDMETHODCALLTYPE get_IsEmpty(VARIANT_BOOL* empty) override;
  HRESULT STDMETHODCALLTYPE get_VariableCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE GetVariable(LONG index, BSTR* name, BSTR* unit,
                                        IStringArray** dimensions) override;
  HRESULT STDMETHODCALLTYPE AddVariable(BSTR name, BSTR unit, IStringArray* dimensions) override;
  HRESULT STDMETHODCALLTYPE get_DimensionCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE GetDimension(LONG index, BSTR* name, BSTR* unit,
                                         IDoubleArray** values) override;
  HRESULT STDMETHODCALLTYPE AddDimension(BSTR name, BSTR unit, IDoubleArray* values) override;

 private:
  std::vector<std::u16string> variableNames_, variableUnits_;
  std::vector<std::vector<std::u16string>> variableDimensions_;
  std::vector<std::u16string> dimensionNames_, dimensionUnits_;
  std::vector<std::vector<double>> dimensionValues_;
};

class LODInfos : public persist::ValueObject<LODInfos, ILODInfos> {
 public:
  static constexpr std::string_view kTypeName = "LODInfos";
  static constexpr auto Fields() {
    return std::tuple{persist::Field("Levels", &LODInfos::levels_),
                      persist::Field("Resolutions", &LODInfos::resolutions_),
                      persist::Field("Scales", &LODInfos::scales_)};
  }

  HRESULT STDMETHODCALLTYPE get_Count(LONG* count) override;
  HRESULT STDMETHODCALLTYPE GetLevel(LONG index, LONG* level, double* resolution,
                                     double* scale) override;
  HRESULT STDMETHODCALLTYPE AddLevel(LONG level, double resolution, double scale) override;

 private:
  std::vector<LONG> levels_;
  std::vector<double> resolutions_, scales_;
};

}  // namespace pw::raster
