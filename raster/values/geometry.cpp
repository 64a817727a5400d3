// Points and envelopes.
#include "raster/values/geometry.h"

#include <cmath>

namespace pw::raster {

PW_REGISTER_VALUE_CLASS(Pnt);
PW_REGISTER_VALUE_CLASS(Envelope);

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

}  // namespace pw::raster
