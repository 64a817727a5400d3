// Multidimensional descriptions and levels of detail.
#include "raster/values/multidimensional_info.h"

#include "raster/values/arrays.h"

namespace pw::raster {

PW_REGISTER_VALUE_CLASS(MultidimensionalInfo);
PW_REGISTER_VALUE_CLASS(LODInfos);

namespace {

std::u16string Text(BSTR s) {
  return std::u16string(s ? s : u"", SysStringLen(s));
}

template <class ArrayClass, class Itf, class T>
HRESULT HandArray(const std::vector<T>& items, Itf** out) {
  auto array = MakeObject<ArrayClass>();
  array->Items() = items;
  return array->QueryInterface(IidOf<Itf>(), reinterpret_cast<void**>(out));
}

template <class Itf, class T>
HRESULT ReadArray(Itf* array, std::vector<T>* items) {
  items->clear();
  if (array == nullptr) return S_OK;
  LONG n = 0;
  PW_RETURN_IF_FAILED(array->get_Count(&n));
  for (LONG i = 0; i < n; ++i) {
    if constexpr (std::is_same_v<T, std::u16string>) {
      Bstr s;
      PW_RETURN_IF_FAILED(array->get_Element(i, &s));
      items->push_back(s.Str());
    } else {
      T v{};
      PW_RETURN_IF_FAILED(array->get_Element(i, &v));
      items->push_back(v);
    }
  }
  return S_OK;
}

}  // namespace

HRESULT MultidimensionalInfo::get_IsEmpty(VARIANT_BOOL* empty) {
  PW_CHECK_POINTER(empty);
  *empty = variableNames_.empty() && dimensionNames_.empty() ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT MultidimensionalInfo::get_VariableCount(LONG* count) {
  PW_CHECK_POINTER(count);
  *count = static_cast<LONG>(variableNames_.size());
  return S_OK;
}

HRESULT MultidimensionalInfo::GetVariable(LONG index, BSTR* name, BSTR* unit,
                                          IStringArray** dimensions) {
  if (!name || !unit || !dimensions) return E_POINTER;
  *name = *unit = nullptr;
  *dimensions = nullptr;
  if (index < 0 || index >= static_cast<LONG>(variableNames_.size())) return E_INVALIDARG;
  return Guard([&] {
    *name = AllocBstr(std::u16string_view(variableNames_[index]));
    *unit = AllocBstr(std::u16string_view(index < static_cast<LONG>(variableUnits_.size())
                                              ? variableUnits_[index]
                                              : std::u16string()));
    const auto dims = index < static_cast<LONG>(variableDimensions_.size())
                          ? variableDimensions_[index]
                          : std::vector<std::u16string>();
    return HandArray<StringArray>(dims, dimensions);
  });
}

HRESULT MultidimensionalInfo::AddVariable(BSTR name, BSTR unit, IStringArray* dimensions) {
  if (SysStringLen(name) == 0) return E_INVALIDARG;
  return Guard([&] {
    std::vector<std::u16string> dims;
    PW_RETURN_IF_FAILED(ReadArray(dimensions, &dims));
    variableNames_.push_back(Text(name));
    variableUnits_.push_back(Text(unit));
    variableDimensions_.push_back(std::move(dims));
    return S_OK;
  });
}

HRESULT MultidimensionalInfo::get_DimensionCount(LONG* count) {
  PW_CHECK_POINTER(count);
  *count = static_cast<LONG>(dimensionNames_.size());
  return S_OK;
}

HRESULT MultidimensionalInfo::GetDimension(LONG index, BSTR* name, BSTR* unit,
                                           IDoubleArray** values) {
  if (!name || !unit || !values) return E_POINTER;
  *name = *unit = nullptr;
  *values = nullptr;
  if (index < 0 || index >= static_cast<LONG>(dimensionNames_.size())) return E_INVALIDARG;
  return Guard([&] {
    *name = AllocBstr(std::u16string_view(dimensionNames_[index]));
    *unit = AllocBstr(std::u16string_view(index < static_cast<LONG>(dimensionUnits_.size())
                                              ? dimensionUnits_[index]
                                              : std::u16string()));
    const auto v = index < static_cast<LONG>(dimensionValues_.size()) ? dimensionValues_[index]
                                                                      : std::vector<double>();
    return HandArray<DoubleArray>(v, values);
  });
}

HRESULT MultidimensionalInfo::AddDimension(BSTR name, BSTR unit, IDoubleArray* values) {
  if (SysStringLen(name) == 0) return E_INVALIDARG;
  return Guard([&] {
    std::vector<double> v;
    PW_RETURN_IF_FAILED(ReadArray(values, &v));
    dimensionNames_.push_back(Text(name));
    dimensionUnits_.push_back(Text(unit));
    dimensionValues_.push_back(std::move(v));
    return S_OK;
  });
}

HRESULT LODInfos::get_Count(LONG* count) {
  PW_CHECK_POINTER(count);
  *count = static_cast<LONG>(levels_.size());
  return S_OK;
}

HRESULT LODInfos::GetLevel(LONG index, LONG* level, double* resolution, double* scale) {
  if (!level || !resolution || !scale) return E_POINTER;
  if (index < 0 || index >= static_cast<LONG>(levels_.size()) ||
      resolutions_.size() != levels_.size() || scales_.size() != levels_.size())
    return E_INVALIDARG;
  *level = levels_[index];
  *resolution = resolutions_[index];
  *scale = scales_[index];
  return S_OK;
}

HRESULT LODInfos::AddLevel(LONG level, double resolution, double scale) {
  return Guard([&] {
    levels_.push_back(level);
    resolutions_.push_back(resolution);
    scales_.push_back(scale);
    return S_OK;
  });
}

}  // namespace pw::raster
