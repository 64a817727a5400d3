// The typed arrays: doubles, longs, strings, variants, objects and geometries.
#pragma once

#include <vector>

#include "raster/persist/value_object.h"

namespace pw::raster {

namespace detail {
// Conversions between an interface's element type and the stored element.
inline HRESULT Store(double in, double* out) {
  return *out = in, S_OK;
}
inline HRESULT Store(LONG in, LONG* out) {
  return *out = in, S_OK;
}
HRESULT Store(BSTR in, std::u16string* out);
HRESULT Store(VARIANT in, Variant* out);
HRESULT Store(IUnknown* in, persist::TypedObject* out);
inline HRESULT Hand(const double& in, double* out) {
  return *out = in, S_OK;
}
inline HRESULT Hand(const LONG& in, LONG* out) {
  return *out = in, S_OK;
}
HRESULT Hand(const std::u16string& in, BSTR* out);
HRESULT Hand(const Variant& in, VARIANT* out);
HRESULT Hand(const persist::TypedObject& in, IUnknown** out);
// Arrays of a particular interface hold objects that answer it.
template <class I>
HRESULT Store(I* in, persist::TypedObject* out) {
  if (in == nullptr) return out->p.Reset(), S_OK;
  return in->QueryInterface(IidOf<IUnknown>(), out->p.OutVoid());
}
template <class I>
HRESULT Hand(const persist::TypedObject& in, I** out) {
  *out = nullptr;
  if (!in.p) return S_OK;
  return in.p->QueryInterface(IidOf<I>(), reinterpret_cast<void**>(out));
}
}  // namespace detail

template <class Derived, class Itf, class Element, class Stored>
class ArrayObject : public persist::ValueObject<Derived, Itf> {
 public:
  HRESULT STDMETHODCALLTYPE get_Count(LONG* count) override {
    PW_CHECK_POINTER(count);
    *count = static_cast<LONG>(items_.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_Element(LONG index, Element* value) override {
    PW_CHECK_POINTER(value);
    if (!InRange(index)) return E_INVALIDARG;
    return Guard([&] { return detail::Hand(items_[index], value); });
  }
  HRESULT STDMETHODCALLTYPE put_Element(LONG index, Element value) override {
    if (!InRange(index)) return E_INVALIDARG;
    return Guard([&] { return detail::Store(value, &items_[index]); });
  }
  HRESULT STDMETHODCALLTYPE Add(Element value) override {
    return Insert(static_cast<LONG>(items_.size()), value);
  }
  HRESULT STDMETHODCALLTYPE Insert(LONG index, Element value) override {
    if (index < 0 || index > static_cast<LONG>(items_.size())) return E_INVALIDARG;
    return Guard([&] {
      Stored item{};
      PW_RETURN_IF_FAILED(detail::Store(value, &item));
      items_.insert(items_.begin() + index, std::move(item));
      return S_OK;
    });
  }
  HRESULT STDMETHODCALLTYPE Remove(LONG index) override {
    if (!InRange(index)) return E_INVALIDARG;
    items_.erase(items_.begin() + index);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE RemoveAll() override {
    items_.clear();
    return S_OK;
  }

  const std::vector<Stored>& Items() const { return items_; }
  std::vector<Stored>& Items() { return items_; }

 protected:
  bool InRange(LONG index) const { return index >= 0 && index < static_cast<LONG>(items_.size()); }
  std::vector<Stored> items_;
};

#define PW_ARRAY_CLASS(Name, Itf, Element, Stored, Type)                                           \
  class Name : public ::pw::raster::ArrayObject<Name, Itf, Element, Stored> {                      \
   public:                                                                                         \
    static constexpr std::string_view kTypeName = Type;                                            \
    static constexpr auto Fields() { return std::tuple{persist::Field("Values", &Name::items_)}; } \
  }

PW_ARRAY_CLASS(DoubleArray, IDoubleArray, double, double, "DoubleArray");
PW_ARRAY_CLASS(LongArray, ILongArray, LONG, LONG, "LongArray");
PW_ARRAY_CLASS(StringArray, IStringArray, BSTR, std::u16string, "StringArray");
PW_ARRAY_CLASS(VariantArray, IVariantArray, VARIANT, Variant, "VariantArray");
PW_ARRAY_CLASS(GeometryArray, IGeometryArray, IUnknown*, persist::TypedObject, "GeometryArray");

// An array of objects of any class; it also reports its size as a 64-bit count.
class ObjectArray : public ArrayObject<ObjectArray, IArray, IUnknown*, persist::TypedObject>,
                    public IItemCount {
 public:
  using Interfaces = ConcatInterfacesT<
      ArrayObject<ObjectArray, IArray, IUnknown*, persist::TypedObject>::Interfaces,
      InterfaceList<IItemCount>>;
  static constexpr std::string_view kTypeName = "Array";
  static constexpr auto Fields() {
    return std::tuple{persist::Field("Values", &ObjectArray::items_)};
  }
  HRESULT STDMETHODCALLTYPE get_ItemCount(LONGLONG* count) override {
    PW_CHECK_POINTER(count);
    *count = static_cast<LONGLONG>(items_.size());
    return S_OK;
  }
};

}  // namespace pw::raster
