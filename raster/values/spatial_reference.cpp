// Spatial references.
#include "raster/values/spatial_reference.h"

namespace pw::raster {

PW_REGISTER_VALUE_CLASS(SpatialReference);

HRESULT SpatialReference::get_WKT(BSTR* wkt) {
  PW_CHECK_POINTER(wkt);
  return Guard([&] {
    *wkt = AllocBstr(std::u16string_view(wkt_));
    return S_OK;
  });
}

HRESULT SpatialReference::put_WKT(BSTR wkt) {
  return Guard([&] {
    wkt_.assign(wkt ? wkt : u"", SysStringLen(wkt));
    return S_OK;
  });
}

HRESULT SpatialReference::get_FactoryCode(LONG* code) {
  PW_CHECK_POINTER(code);
  *code = code_;
  return S_OK;
}

HRESULT SpatialReference::put_FactoryCode(LONG code) {
  code_ = code;
  return S_OK;
}

HRESULT SpatialReference::get_Kind(LONG* kind) {
  PW_CHECK_POINTER(kind);
  *kind = kind_;
  return S_OK;
}

HRESULT SpatialReference::put_Kind(LONG kind) {
  if (kind < kUnknownReference || kind > kGeographic) return E_INVALIDARG;
  kind_ = kind;
  return S_OK;
}

}  // namespace pw::raster
