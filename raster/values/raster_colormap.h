// Colormaps: pixel values mapped to colours (0xAARRGGBB), kept sorted by value.
#pragma once

#include <vector>

#include "raster/persist/value_object.h"

namespace pw::raster {

class RasterColormap : public persist::ValueObject<RasterColormap, IRasterColormap> {
 public:
  static constexpr std::string_view kTypeName = "RasterColormap";
  static constexpr auto Fields() {
    return std::tuple{persist::Field("Values", &RasterColormap::values_),
                      persist::Field("Colors", &RasterColormap::colors_)};
  }

  HRESULT STDMETHODCALLTYPE get_Count(LONG* count) override;
  HRESULT STDMETHODCALLTYPE GetEntry(LONG index, LONG* value, LONG* argb) override;
  HRESULT STDMETHODCALLTYPE SetEntry(LONG value, LONG argb) override;
  HRESULT STDMETHODCALLTYPE RemoveAll() override;

 private:
  std::vector<LONG> values_;
  std::vector<LONG> colors_;
};

// An affine transformation from raster space to map space with its spatial reference.
class GeodataXform : public persist::ValueObject<GeodataXform, IGeodataXform> {
 public:
  static constexpr std::string_view kTypeName = "GeodataXform";
  static constexpr auto Fields() {
    return std::tuple{
        persist::Field("Coefficients", &GeodataXform::coefficients_),
        persist::Field("SpatialReference", &GeodataXform::reference_, u"SpatialReference")};
  }

  HRESULT STDMETHODCALLTYPE GetCoefficients(double coefficients[6]) override;
  HRESULT STDMETHODCALLTYPE PutCoefficients(const double coefficients[6]) override;
  HRESULT STDMETHODCALLTYPE get_SpatialReference(ISpatialReference** reference) override;
  HRESULT STDMETHODCALLTYPE putref_SpatialReference(ISpatialReference* reference) override;
  HRESULT STDMETHODCALLTYPE TransformPoint(double column, double row, double* x,
                                           double* y) override;

 private:
  std::vector<double> coefficients_{0, 1, 0, 0, 0, 1};
  persist::ObjectField<ISpatialReference> reference_;
};

}  // namespace pw::raster
