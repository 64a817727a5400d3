// Points, envelopes and shapes.
#include "raster/values/geometry.h"

#include <algorithm>
#include <cmath>

#include "raster/values/arrays.h"

namespace pw::raster {

PW_REGISTER_VALUE_CLASS(Pnt);
PW_REGISTER_VALUE_CLASS(Envelope);
PW_REGISTER_VALUE_CLASS(Geometry);

HRESULT Pnt::get_X(double* x) {
  return HandOut(x_, x);
}
HRESULT Pnt::put_X(double x) {
  return x_ = x, S_OK;
}
HRESULT Pnt::get_Y(double* y) {
  return HandOut(y_, y);
}
HRESULT Pnt::put_Y(double y) {
  return y_ = y, S_OK;
}
HRESULT Pnt::PutCoords(double x, double y) {
  x_ = x;
  y_ = y;
  return S_OK;
}
HRESULT Pnt::QueryCoords(double* x, double* y) {
  if (x == nullptr || y == nullptr) return E_POINTER;
  *x = x_;
  *y = y_;
  return S_OK;
}

HRESULT Envelope::get_XMin(double* v) {
  return HandOut(xmin_, v);
}
HRESULT Envelope::put_XMin(double v) {
  return xmin_ = v, S_OK;
}
HRESULT Envelope::get_YMin(double* v) {
  return HandOut(ymin_, v);
}
HRESULT Envelope::put_YMin(double v) {
  return ymin_ = v, S_OK;
}
HRESULT Envelope::get_XMax(double* v) {
  return HandOut(xmax_, v);
}
HRESULT Envelope::put_XMax(double v) {
  return xmax_ = v, S_OK;
}
HRESULT Envelope::get_YMax(double* v) {
  return HandOut(ymax_, v);
}
HRESULT Envelope::put_YMax(double v) {
  return ymax_ = v, S_OK;
}
HRESULT Envelope::get_Width(double* v) {
  return HandOut(xmax_ - xmin_, v);
}
HRESULT Envelope::get_Height(double* v) {
  return HandOut(ymax_ - ymin_, v);
}

HRESULT Envelope::PutCoords(double xmin, double ymin, double xmax, double ymax) {
  xmin_ = xmin;
  ymin_ = ymin;
  xmax_ = xmax;
  ymax_ = ymax;
  return S_OK;
}

HRESULT Envelope::QueryCoords(double* xmin, double* ymin, double* xmax, double* ymax) {
  if (!xmin || !ymin || !xmax || !ymax) return E_POINTER;
  *xmin = xmin_;
  *ymin = ymin_;
  *xmax = xmax_;
  *ymax = ymax_;
  return S_OK;
}

HRESULT Envelope::get_IsEmpty(VARIANT_BOOL* empty) {
  PW_CHECK_POINTER(empty);
  const bool isEmpty =
      std::isnan(xmin_) || std::isnan(ymin_) || std::isnan(xmax_) || std::isnan(ymax_);
  *empty = isEmpty ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT Envelope::SetEmpty() {
  xmin_ = ymin_ = xmax_ = ymax_ = kNaN;
  return S_OK;
}

HRESULT Envelope::get_SpatialReference(ISpatialReference** reference) {
  return reference_.p.CopyTo(reference);
}

HRESULT Envelope::putref_SpatialReference(ISpatialReference* reference) {
  reference_.p = reference;
  return S_OK;
}

HRESULT Geometry::get_GeometryType(LONG* type) {
  return HandOut(type_, type);
}
HRESULT Geometry::put_GeometryType(LONG type) {
  return type_ = type, S_OK;
}
HRESULT Geometry::get_PartCount(LONG* count) {
  return HandOut(static_cast<LONG>(sizes_.size()), count);
}

std::vector<double> Geometry::Part(std::size_t index) const {
  // Sizes read from a stream may disagree with the coordinates: a part reaches only as far
  // as the coordinates do, and a negative size counts as none.
  const auto pairs = [&](std::size_t i) {
    return 2 * static_cast<std::size_t>(std::max<LONG>(sizes_[i], 0));
  };
  if (index >= sizes_.size()) return {};
  std::size_t first = 0;
  for (std::size_t i = 0; i < index; ++i) first = std::min(coordinates_.size(), first + pairs(i));
  const std::size_t end = std::min(coordinates_.size(), first + pairs(index));
  return std::vector<double>(coordinates_.begin() + static_cast<std::ptrdiff_t>(first),
                             coordinates_.begin() + static_cast<std::ptrdiff_t>(end));
}

void Geometry::Add(const std::vector<double>& xy) {
  coordinates_.insert(coordinates_.end(), xy.begin(),
                      xy.end() - static_cast<std::ptrdiff_t>(xy.size() % 2));
  sizes_.push_back(static_cast<LONG>(xy.size() / 2));
}

HRESULT Geometry::GetPart(LONG index, IDoubleArray** coordinates) {
  PW_CHECK_POINTER(coordinates);
  *coordinates = nullptr;
  if (index < 0 || static_cast<std::size_t>(index) >= sizes_.size()) return E_INVALIDARG;
  return Guard([&] {
    auto array = MakeObject<DoubleArray>();
    array->Items() = Part(static_cast<std::size_t>(index));
    return array->QueryInterface(IidOf<IDoubleArray>(), reinterpret_cast<void**>(coordinates));
  });
}

HRESULT Geometry::AddPart(IDoubleArray* coordinates) {
  if (coordinates == nullptr) return E_INVALIDARG;
  return Guard([&] {
    LONG n = 0;
    coordinates->get_Count(&n);
    std::vector<double> xy(static_cast<std::size_t>(std::max<LONG>(n, 0)));
    for (LONG i = 0; i < n; ++i) coordinates->get_Element(i, &xy[static_cast<std::size_t>(i)]);
    Add(xy);
    return S_OK;
  });
}

}  // namespace pw::raster
