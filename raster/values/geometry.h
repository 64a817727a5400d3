// Points, envelopes and shapes.
#pragma once

#include <limits>
#include <vector>

#include "raster/persist/value_object.h"

namespace pw::raster {

class Pnt : public persist::ValueObject<Pnt, IPnt> {
 public:
  static constexpr std::string_view kTypeName = "Point";
  static constexpr auto Fields() {
    return std::tuple{persist::Field("X", &Pnt::x_), persist::Field("Y", &Pnt::y_)};
  }

  HRESULT STDMETHODCALLTYPE get_X(double* x) override;
  HRESULT STDMETHODCALLTYPE put_X(double x) override;
  HRESULT STDMETHODCALLTYPE get_Y(double* y) override;
  HRESULT STDMETHODCALLTYPE put_Y(double y) override;
  HRESULT STDMETHODCALLTYPE PutCoords(double x, double y) override;
  HRESULT STDMETHODCALLTYPE QueryCoords(double* x, double* y) override;

 private:
  double x_ = 0;
  double y_ = 0;
};

// An envelope is empty while any coordinate is NaN.
class Envelope : public persist::ValueObject<Envelope, IEnvelope> {
 public:
  static constexpr std::string_view kTypeName = "Envelope";
  static constexpr auto Fields() {
    return std::tuple{
        persist::Field("XMin", &Envelope::xmin_), persist::Field("YMin", &Envelope::ymin_),
        persist::Field("XMax", &Envelope::xmax_), persist::Field("YMax", &Envelope::ymax_),
        persist::Field("SpatialReference", &Envelope::reference_, u"SpatialReference")};
  }

  HRESULT STDMETHODCALLTYPE get_XMin(double* v) override;
  HRESULT STDMETHODCALLTYPE put_XMin(double v) override;
  HRESULT STDMETHODCALLTYPE get_YMin(double* v) override;
  HRESULT STDMETHODCALLTYPE put_YMin(double v) override;
  HRESULT STDMETHODCALLTYPE get_XMax(double* v) override;
  HRESULT STDMETHODCALLTYPE put_XMax(double v) override;
  HRESULT STDMETHODCALLTYPE get_YMax(double* v) override;
  HRESULT STDMETHODCALLTYPE put_YMax(double v) override;
  HRESULT STDMETHODCALLTYPE get_Width(double* v) override;
  HRESULT STDMETHODCALLTYPE get_Height(double* v) override;
  HRESULT STDMETHODCALLTYPE PutCoords(double xmin, double ymin, double xmax, double ymax) override;
  HRESULT STDMETHODCALLTYPE QueryCoords(double* xmin, double* ymin, double* xmax,
                                        double* ymax) override;
  HRESULT STDMETHODCALLTYPE get_IsEmpty(VARIANT_BOOL* empty) override;
  HRESULT STDMETHODCALLTYPE SetEmpty() override;
  HRESULT STDMETHODCALLTYPE get_SpatialReference(ISpatialReference** reference) override;
  HRESULT STDMETHODCALLTYPE putref_SpatialReference(ISpatialReference* reference) override;

 private:
  static constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  double xmin_ = kNaN, ymin_ = kNaN, xmax_ = kNaN, ymax_ = kNaN;
  persist::ObjectField<ISpatialReference> reference_;
};

// A shape: its kind and its parts, stored as every part's x, y pairs one after another and
// the number of pairs each part holds.
class Geometry : public persist::ValueObject<Geometry, IGeometry> {
 public:
  static constexpr std::string_view kTypeName = "Geometry";
  static constexpr auto Fields() {
    return std::tuple{persist::Field("GeometryType", &Geometry::type_),
                      persist::Field("Coordinates", &Geometry::coordinates_),
                      persist::Field("PartSizes", &Geometry::sizes_)};
  }

  HRESULT STDMETHODCALLTYPE get_GeometryType(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_GeometryType(LONG type) override;
  HRESULT STDMETHODCALLTYPE get_PartCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE GetPart(LONG index, IDoubleArray** coordinates) override;
  HRESULT STDMETHODCALLTYPE AddPart(IDoubleArray* coordinates) override;

  LONG Type() const { return type_; }
  void SetType(LONG type) { type_ = type; }
  // Part `index` as x, y pairs.
  std::vector<double> Part(std::size_t index) const;
  std::size_t PartCount() const { return sizes_.size(); }
  void Add(const std::vector<double>& xy);

 private:
  LONG type_ = 0;
  std::vector<double> coordinates_;
  std::vector<LONG> sizes_;
};

}  // namespace pw::raster
