// Equality, copies and JSON object fields shared by the value classes.
#include "raster/persist/value_object.h"

#include <cstring>

namespace pw::persist {
namespace {

// A borrowed view of one array element as a variant (no ownership taken).
VARIANT ElementView(SAFEARRAY* a, VARTYPE element, std::size_t i) {
  VARIANT view;
  VariantInit(&view);
  const auto* slot = static_cast<const unsigned char*>(a->pvData) + i * a->cbElements;
  if (element == VT_VARIANT) {
    std::memcpy(&view, slot, sizeof(VARIANT));
  } else {
    view.vt = element;
    std::memcpy(&view.llVal, slot, a->cbElements);
  }
  return view;
}

}  // namespace

bool VariantEquals(const VARIANT& a, const VARIANT& b) {
  if (a.vt != b.vt) return false;
  if (a.vt & VT_ARRAY) {
    if (a.parray == nullptr || b.parray == nullptr) return a.parray == b.parray;
    if (a.parray->cDims != b.parray->cDims) return false;
    std::size_t count = 1;
    for (USHORT d = 0; d < a.parray->cDims; ++d) {
      if (a.parray->rgsabound[d].cElements != b.parray->rgsabound[d].cElements ||
          a.parray->rgsabound[d].lLbound != b.parray->rgsabound[d].lLbound)
        return false;
      count *= a.parray->rgsabound[d].cElements;
    }
    const VARTYPE element = static_cast<VARTYPE>(a.vt & VT_TYPEMASK);
    for (std::size_t i = 0; i < count; ++i)
      if (!VariantEquals(ElementView(a.parray, element, i), ElementView(b.parray, element, i)))
        return false;
    return true;
  }
  switch (a.vt) {
    case VT_EMPTY:
    case VT_NULL:
      return true;
    case VT_BSTR:
      return std::u16string_view(a.bstrVal ? a.bstrVal : u"", SysStringLen(a.bstrVal)) ==
             std::u16string_view(b.bstrVal ? b.bstrVal : u"", SysStringLen(b.bstrVal));
    case VT_UNKNOWN:
    case VT_DISPATCH:
      return ObjectEquals(a.punkVal, b.punkVal);
    case VT_R4:
      return SameDouble(a.fltVal, b.fltVal);
    case VT_R8:
    case VT_DATE:
      return SameDouble(a.dblVal, b.dblVal);
    case VT_BOOL:
      return (a.boolVal != 0) == (b.boolVal != 0);
    case VT_I1:
    case VT_UI1:
      return a.bVal == b.bVal;
    case VT_I2:
    case VT_UI2:
      return a.uiVal == b.uiVal;
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_ERROR:
      return a.ulVal == b.ulVal;
    default:
      return a.ullVal == b.ullVal;
  }
}

bool ObjectEquals(IUnknown* a, IUnknown* b) {
  if (a == nullptr || b == nullptr) return a == b;
  if (SameObject(a, b)) return true;
  ComPtr<IClone> ca, cb;
  if (FAILED(a->QueryInterface(IidOf<IClone>(), ca.OutVoid())) ||
      FAILED(b->QueryInterface(IidOf<IClone>(), cb.OutVoid())))
    return false;
  VARIANT_BOOL equal = VARIANT_FALSE;
  return SUCCEEDED(ca->IsEqual(cb.Get(), &equal)) && equal != VARIANT_FALSE;
}

HRESULT CloneObject(IUnknown* object, IUnknown** copy) {
  PW_CHECK_POINTER(copy);
  *copy = nullptr;
  if (object == nullptr) return S_OK;
  ComPtr<IClone> clone;
  if (FAILED(object->QueryInterface(IidOf<IClone>(), clone.OutVoid()))) {
    object->AddRef();  // objects without value semantics are shared
    *copy = object;
    return S_OK;
  }
  ComPtr<IClone> fresh;
  PW_RETURN_IF_FAILED(clone->Clone(&fresh));
  return fresh->QueryInterface(IidOf<IUnknown>(), reinterpret_cast<void**>(copy));
}

HRESULT WriteObjectJson(Json& j, const char* k, IUnknown* object) {
  if (object == nullptr) return S_OK;
  Json value;
  PW_RETURN_IF_FAILED(ObjectToJson(object, &value));
  j[k] = std::move(value);
  return S_OK;
}

HRESULT ReadObjectJson(const Json& j, const char* k, std::u16string_view type, IUnknown** object) {
  *object = nullptr;
  const auto it = j.find(k);
  if (it == j.end() || it->is_null()) return S_FALSE;
  if (!it->is_object() || type.empty()) return E_INVALIDARG;
  return NewObjectFromJson(*it, type, object);
}

HRESULT Codec<TypedObject>::ToJson(Json& j, const char* k, const TypedObject& v) {
  if (!v.p) {
    j[k] = nullptr;
    return S_OK;
  }
  const std::u16string_view type = TypeNameOf(v.p.Get());
  if (type.empty()) return E_INVALIDARG;
  Json value;
  PW_RETURN_IF_FAILED(ObjectToJson(v.p.Get(), &value));
  j[k] = Json{{"type", ToUtf8(type)}, {"value", std::move(value)}};
  return S_OK;
}

HRESULT Codec<TypedObject>::FromJson(const Json& j, const char* k, TypedObject& v) {
  const auto it = j.find(k);
  if (it == j.end()) return S_FALSE;
  if (it->is_null()) return v.p.Reset(), S_OK;
  if (!it->is_object()) return E_INVALIDARG;
  const auto type = it->find("type");
  const auto value = it->find("value");
  if (type == it->end() || !type->is_string() || value == it->end()) return E_INVALIDARG;
  ComPtr<IUnknown> object;
  PW_RETURN_IF_FAILED(
      NewObjectFromJson(*value, ToUtf16(type->get_ref<const std::string&>()), &object));
  v.p = std::move(object);
  return S_OK;
}

}  // namespace pw::persist
