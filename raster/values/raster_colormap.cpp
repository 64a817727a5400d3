// Colormaps and geodata transformations.
#include "raster/values/raster_colormap.h"

#include <algorithm>

namespace pw::raster {

PW_REGISTER_VALUE_CLASS(RasterColormap);
PW_REGISTER_VALUE_CLASS(GeodataXform);

HRESULT RasterColormap::get_Count(LONG* count) {
  PW_CHECK_POINTER(count);
  *count = static_cast<LONG>(values_.size());
  return S_OK;
}

HRESULT RasterColormap::GetEntry(LONG index, LONG* value, LONG* argb) {
  if (value == nullptr || argb == nullptr) return E_POINTER;
  if (index < 0 || index >= static_cast<LONG>(values_.size()) || values_.size() != colors_.size())
    return E_INVALIDARG;
  *value = values_[index];
  *argb = colors_[index];
  return S_OK;
}

HRESULT RasterColormap::SetEntry(LONG value, LONG argb) {
  return Guard([&] {
    if (values_.size() != colors_.size()) colors_.resize(values_.size());
    const auto at = std::lower_bound(values_.begin(), values_.end(), value);
    const auto index = at - values_.begin();
    if (at != values_.end() && *at == value) {
      colors_[index] = argb;
    } else {
      values_.insert(at, value);
      colors_.insert(colors_.begin() + index, argb);
    }
    return S_OK;
  });
}

HRESULT RasterColormap::RemoveAll() {
  values_.clear();
  colors_.clear();
  return S_OK;
}

HRESULT GeodataXform::GetCoefficients(double coefficients[6]) {
  PW_CHECK_POINTER(coefficients);
  if (coefficients_.size() != 6) return E_FAIL;
  std::copy(coefficients_.begin(), coefficients_.end(), coefficients);
  return S_OK;
}

HRESULT GeodataXform::PutCoefficients(const double coefficients[6]) {
  PW_CHECK_POINTER(coefficients);
  coefficients_.assign(coefficients, coefficients + 6);
  return S_OK;
}

HRESULT GeodataXform::get_SpatialReference(ISpatialReference** reference) {
  return reference_.p.CopyTo(reference);
}

HRESULT GeodataXform::putref_SpatialReference(ISpatialReference* reference) {
  reference_.p = reference;
  return S_OK;
}

HRESULT GeodataXform::TransformPoint(double column, double row, double* x, double* y) {
  if (x == nullptr || y == nullptr) return E_POINTER;
  if (coefficients_.size() != 6) return E_FAIL;
  const auto& c = coefficients_;
  *x = c[0] + c[1] * column + c[2] * row;
  *y = c[3] + c[4] * column + c[5] * row;
  return S_OK;
}

}  // namespace pw::raster
