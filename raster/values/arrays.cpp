// Element conversions of the typed arrays.
#include "raster/values/arrays.h"

namespace pw::raster {

PW_REGISTER_VALUE_CLASS(DoubleArray);
PW_REGISTER_VALUE_CLASS(LongArray);
PW_REGISTER_VALUE_CLASS(StringArray);
PW_REGISTER_VALUE_CLASS(VariantArray);
PW_REGISTER_VALUE_CLASS(GeometryArray);
PW_REGISTER_VALUE_CLASS(ObjectArray);

namespace detail {

HRESULT Store(BSTR in, std::u16string* out) {
  out->assign(in ? in : u"", SysStringLen(in));
  return S_OK;
}
HRESULT Store(VARIANT in, Variant* out) {
  return VariantCopy(out, &in);
}
HRESULT Store(IUnknown* in, persist::TypedObject* out) {
  out->p = in;
  return S_OK;
}
HRESULT Hand(const std::u16string& in, BSTR* out) {
  *out = AllocBstr(std::u16string_view(in));
  return S_OK;
}
HRESULT Hand(const Variant& in, VARIANT* out) {
  return in.CopyTo(out);
}
HRESULT Hand(const persist::TypedObject& in, IUnknown** out) {
  return in.p.CopyTo(out);
}

}  // namespace detail
}  // namespace pw::raster
