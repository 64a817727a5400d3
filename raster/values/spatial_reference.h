// Spatial references: the WKT text, the factory code (EPSG) and whether the reference is
// projected or geographic.
#pragma once

#include "raster/persist/value_object.h"

namespace pw::raster {

class SpatialReference : public persist::ValueObject<SpatialReference, ISpatialReference> {
 public:
  static constexpr std::string_view kTypeName = "SpatialReference";
  static constexpr auto Fields() {
    return std::tuple{persist::Field("WKT", &SpatialReference::wkt_),
                      persist::Field("WKID", &SpatialReference::code_),
                      persist::Field("Kind", &SpatialReference::kind_)};
  }

  HRESULT STDMETHODCALLTYPE get_WKT(BSTR* wkt) override;
  HRESULT STDMETHODCALLTYPE put_WKT(BSTR wkt) override;
  HRESULT STDMETHODCALLTYPE get_FactoryCode(LONG* code) override;
  HRESULT STDMETHODCALLTYPE put_FactoryCode(LONG code) override;
  HRESULT STDMETHODCALLTYPE get_Kind(LONG* kind) override;
  HRESULT STDMETHODCALLTYPE put_Kind(LONG kind) override;

 private:
  std::u16string wkt_;
  LONG code_ = 0;
  LONG kind_ = kUnknownReference;
};

}  // namespace pw::raster
