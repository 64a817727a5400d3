// ValueObject<Derived, Interfaces...>: equality, deep copy and the three persistence
// forms of a value class, written once over the list of its fields. The same operations on
// any class's field table are in persist::fields, for classes that persist more than fields.
//
// A value class lists its fields once:
//
//   static constexpr auto Fields() {
//     return std::tuple{Field("X", &Pnt::x_), Field("Y", &Pnt::y_),
//                       Field("Extent", &Thing::extent_, u"Envelope")};  // objects name
//   }                                                                // their default type
//
// and gets IClone (field-by-field equality and deep copies), IPersistStream (a 16-bit
// record version, then the fields in order; a newer version than the class knows is
// refused), IXMLSerialize (one element per field, each optional on reading) and
// IJSONSerialize (one key per field, named through AsJSONName).
#pragma once

#include <cmath>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "raster/persist/class_registry.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/xml.h"

namespace pw::persist {

bool VariantEquals(const VARIANT& a, const VARIANT& b);
bool ObjectEquals(IUnknown* a, IUnknown* b);
// A deep copy through IClone (the same object when it cannot be cloned).
HRESULT CloneObject(IUnknown* object, IUnknown** copy);
// Doubles compare by value, with NaN equal to NaN.
inline bool SameDouble(double a, double b) {
  return a == b || (std::isnan(a) && std::isnan(b));
}

// The codec of each field type.
template <class T>
struct Codec;

template <>
struct Codec<double> {
  static HRESULT Write(StreamWriter& w, const double& v) { return w.Put(v); }
  static HRESULT Read(StreamReader& r, double& v) { return r.Get(&v); }
  static HRESULT ToXml(pugi::xml_node p, const char* n, const double& v) {
    WriteDouble(p, n, v);
    return S_OK;
  }
  static HRESULT FromXml(pugi::xml_node p, const char* n, double& v) {
    return ReadDouble(p, n, &v);
  }
  static HRESULT ToJson(Json& j, const char* k, const double& v) {
    Variant value(v);
    return VariantToJson(value, &j[k]);
  }
  static HRESULT FromJson(const Json& j, const char* k, double& v) { return GetDouble(j, k, &v); }
  static bool Equal(const double& a, const double& b) { return SameDouble(a, b); }
  static HRESULT Copy(double& d, const double& s) { return d = s, S_OK; }
};

template <>
struct Codec<LONG> {
  static HRESULT Write(StreamWriter& w, const LONG& v) { return w.Put(v); }
  static HRESULT Read(StreamReader& r, LONG& v) { return r.Get(&v); }
  static HRESULT ToXml(pugi::xml_node p, const char* n, const LONG& v) {
    WriteLong(p, n, v);
    return S_OK;
  }
  static HRESULT FromXml(pugi::xml_node p, const char* n, LONG& v) { return ReadLong(p, n, &v); }
  static HRESULT ToJson(Json& j, const char* k, const LONG& v) { return j[k] = v, S_OK; }
  static HRESULT FromJson(const Json& j, const char* k, LONG& v) { return GetLong(j, k, &v); }
  static bool Equal(const LONG& a, const LONG& b) { return a == b; }
  static HRESULT Copy(LONG& d, const LONG& s) { return d = s, S_OK; }
};

template <>
struct Codec<bool> {
  static HRESULT Write(StreamWriter& w, const bool& v) {
    return w.Put<std::int16_t>(v ? VARIANT_TRUE : VARIANT_FALSE);
  }
  static HRESULT Read(StreamReader& r, bool& v) {
    std::int16_t b = 0;
    PW_RETURN_IF_FAILED(r.Get(&b));
    v = b != 0;
    return S_OK;
  }
  static HRESULT ToXml(pugi::xml_node p, const char* n, const bool& v) {
    WriteBool(p, n, v);
    return S_OK;
  }
  static HRESULT FromXml(pugi::xml_node p, const char* n, bool& v) { return ReadBool(p, n, &v); }
  static HRESULT ToJson(Json& j, const char* k, const bool& v) { return j[k] = v, S_OK; }
  static HRESULT FromJson(const Json& j, const char* k, bool& v) { return GetBool(j, k, &v); }
  static bool Equal(const bool& a, const bool& b) { return a == b; }
  static HRESULT Copy(bool& d, const bool& s) { return d = s, S_OK; }
};

template <>
struct Codec<std::u16string> {
  static HRESULT Write(StreamWriter& w, const std::u16string& v) { return w.PutString(v); }
  static HRESULT Read(StreamReader& r, std::u16string& v) { return r.GetString(&v); }
  static HRESULT ToXml(pugi::xml_node p, const char* n, const std::u16string& v) {
    WriteText(p, n, ToUtf8(v));
    return S_OK;
  }
  static HRESULT FromXml(pugi::xml_node p, const char* n, std::u16string& v) {
    return ReadString(p, n, &v);
  }
  static HRESULT ToJson(Json& j, const char* k, const std::u16string& v) {
    return j[k] = ToUtf8(v), S_OK;
  }
  static HRESULT FromJson(const Json& j, const char* k, std::u16string& v) {
    return GetString(j, k, &v);
  }
  static bool Equal(const std::u16string& a, const std::u16string& b) { return a == b; }
  static HRESULT Copy(std::u16string& d, const std::u16string& s) { return d = s, S_OK; }
};

template <>
struct Codec<Variant> {
  static HRESULT Write(StreamWriter& w, const Variant& v) { return w.PutVariant(v); }
  static HRESULT Read(StreamReader& r, Variant& v) { return r.GetVariant(&v); }
  static HRESULT ToXml(pugi::xml_node p, const char* n, const Variant& v) {
    return WriteVariant(p, n, v);
  }
  static HRESULT FromXml(pugi::xml_node p, const char* n, Variant& v) {
    const pugi::xml_node e = p.child(n);
    return e ? ReadVariantElement(e, &v) : S_FALSE;
  }
  static HRESULT ToJson(Json& j, const char* k, const Variant& v) {
    return VariantToJson(v, &j[k]);
  }
  static HRESULT FromJson(const Json& j, const char* k, Variant& v) {
    const auto it = j.find(k);
    return it == j.end() ? S_FALSE : VariantFromJson(*it, &v);
  }
  static bool Equal(const Variant& a, const Variant& b) { return VariantEquals(a, b); }
  static HRESULT Copy(Variant& d, const Variant& s) { return VariantCopy(&d, &s); }
};

template <>
struct Codec<USHORT> {
  static HRESULT Write(StreamWriter& w, const USHORT& v) { return w.Put(v); }
  static HRESULT Read(StreamReader& r, USHORT& v) { return r.Get(&v); }
  static bool Equal(const USHORT& a, const USHORT& b) { return a == b; }
  static HRESULT Copy(USHORT& d, const USHORT& s) { return d = s, S_OK; }
};

// A bare object pointer: written with its class identifier, compared and deep-copied through
// IClone (the same object when it cannot be cloned). Classes with their own XML and JSON
// names for objects write those forms themselves.
template <class I>
struct Codec<ComPtr<I>> {
  static HRESULT Write(StreamWriter& w, const ComPtr<I>& v) { return w.PutObject(v.Get()); }
  static HRESULT Read(StreamReader& r, ComPtr<I>& v) {
    ComPtr<I> read;
    PW_RETURN_IF_FAILED(r.GetObjectAs<I>(&read));
    v = std::move(read);
    return S_OK;
  }
  static bool Equal(const ComPtr<I>& a, const ComPtr<I>& b) {
    return ObjectEquals(a.Get(), b.Get());
  }
  static HRESULT Copy(ComPtr<I>& d, const ComPtr<I>& s) {
    ComPtr<IUnknown> copy;
    PW_RETURN_IF_FAILED(CloneObject(s.Get(), &copy));
    d = copy ? copy.template As<I>() : ComPtr<I>();
    return S_OK;
  }
};

// Lists are written as a 32-bit count and the elements (stream), <Item> children (XML)
// and arrays (JSON).
template <class T>
struct Codec<std::vector<T>> {
  using E = Codec<T>;
  static HRESULT Write(StreamWriter& w, const std::vector<T>& v) {
    PW_RETURN_IF_FAILED(w.Put<std::uint32_t>(static_cast<std::uint32_t>(v.size())));
    for (const auto& item : v) PW_RETURN_IF_FAILED(E::Write(w, item));
    return S_OK;
  }
  static HRESULT Read(StreamReader& r, std::vector<T>& v) {
    std::uint32_t n = 0;
    PW_RETURN_IF_FAILED(r.Get(&n));
    std::vector<T> items;
    for (std::uint32_t i = 0; i < n; ++i) {  // grows as the elements arrive
      T item{};
      PW_RETURN_IF_FAILED(E::Read(r, item));
      items.push_back(std::move(item));
    }
    v = std::move(items);
    return S_OK;
  }
  static HRESULT ToXml(pugi::xml_node p, const char* n, const std::vector<T>& v) {
    pugi::xml_node list = p.append_child(n);
    for (const auto& item : v) PW_RETURN_IF_FAILED(E::ToXml(list, "Item", item));
    return S_OK;
  }
  static HRESULT FromXml(pugi::xml_node p, const char* n, std::vector<T>& v) {
    const pugi::xml_node list = p.child(n);
    if (!list) return S_FALSE;
    std::vector<T> items;
    for (pugi::xml_node child = list.first_child(); child; child = child.next_sibling()) {
      if (std::string_view(child.name()) != "Item") continue;
      // Each <Item> is read as the only child of a temporary parent view.
      T item{};
      pugi::xml_document holder;
      holder.append_copy(child);
      if (E::FromXml(holder, "Item", item) != S_OK) return E_INVALIDARG;
      items.push_back(std::move(item));
    }
    v = std::move(items);
    return S_OK;
  }
  static HRESULT ToJson(Json& j, const char* k, const std::vector<T>& v) {
    Json array = Json::array();
    for (const auto& item : v) {
      Json holder = Json::object();
      PW_RETURN_IF_FAILED(E::ToJson(holder, "v", item));
      array.push_back(std::move(holder["v"]));
    }
    j[k] = std::move(array);
    return S_OK;
  }
  static HRESULT FromJson(const Json& j, const char* k, std::vector<T>& v) {
    const auto it = j.find(k);
    if (it == j.end()) return S_FALSE;
    if (!it->is_array()) return E_INVALIDARG;
    std::vector<T> items;
    for (const auto& element : *it) {
      Json holder = Json::object();
      holder["v"] = element;
      T item{};
      if (E::FromJson(holder, "v", item) != S_OK) return E_INVALIDARG;
      items.push_back(std::move(item));
    }
    v = std::move(items);
    return S_OK;
  }
  static bool Equal(const std::vector<T>& a, const std::vector<T>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
      if (!E::Equal(a[i], b[i])) return false;
    return true;
  }
  static HRESULT Copy(std::vector<T>& d, const std::vector<T>& s) {
    std::vector<T> items(s.size());
    for (std::size_t i = 0; i < s.size(); ++i) PW_RETURN_IF_FAILED(E::Copy(items[i], s[i]));
    d = std::move(items);
    return S_OK;
  }
};

// An object field: a reference to a value object, read back as `type` when the XML
// element or the JSON value does not name its class.
template <class I>
struct ObjectField {
  ComPtr<I> p;
};

HRESULT WriteObjectJson(Json& j, const char* k, IUnknown* object);
HRESULT ReadObjectJson(const Json& j, const char* k, std::u16string_view type, IUnknown** object);

template <class I>
struct Codec<ObjectField<I>> {
  static HRESULT Write(StreamWriter& w, const ObjectField<I>& v) { return w.PutObject(v.p.Get()); }
  static HRESULT Read(StreamReader& r, ObjectField<I>& v) {
    ComPtr<I> p;
    PW_RETURN_IF_FAILED(r.GetObjectAs<I>(&p));
    v.p = std::move(p);
    return S_OK;
  }
  static HRESULT ToXml(pugi::xml_node p, const char* n, const ObjectField<I>& v) {
    return WriteObject(p, n, v.p.Get());
  }
  static HRESULT FromXml(pugi::xml_node p, const char* n, ObjectField<I>& v,
                         std::u16string_view type) {
    ComPtr<IUnknown> object;
    const HRESULT hr = ReadObject(p, n, type, &object);
    if (hr != S_OK) return hr;
    v.p = object.template As<I>();
    return v.p ? S_OK : E_NOINTERFACE;
  }
  static HRESULT ToJson(Json& j, const char* k, const ObjectField<I>& v) {
    return WriteObjectJson(j, k, v.p.Get());
  }
  static HRESULT FromJson(const Json& j, const char* k, ObjectField<I>& v,
                          std::u16string_view type) {
    ComPtr<IUnknown> object;
    const HRESULT hr = ReadObjectJson(j, k, type, &object);
    if (hr != S_OK) return hr;
    v.p = object.template As<I>();
    return v.p ? S_OK : E_NOINTERFACE;
  }
  static bool Equal(const ObjectField<I>& a, const ObjectField<I>& b) {
    return ObjectEquals(a.p.Get(), b.p.Get());
  }
  static HRESULT Copy(ObjectField<I>& d, const ObjectField<I>& s) {
    ComPtr<IUnknown> copy;
    PW_RETURN_IF_FAILED(CloneObject(s.p.Get(), &copy));
    d.p = copy ? copy.As<I>() : ComPtr<I>();
    return S_OK;
  }
};

// An object of any persistable class; its JSON form names the class:
// {"type": "Envelope", "value": {...}}.
struct TypedObject {
  ComPtr<IUnknown> p;
};

template <>
struct Codec<TypedObject> {
  static HRESULT Write(StreamWriter& w, const TypedObject& v) { return w.PutObject(v.p.Get()); }
  static HRESULT Read(StreamReader& r, TypedObject& v) {
    ComPtr<IUnknown> p;
    PW_RETURN_IF_FAILED(r.GetObject(&p));
    v.p = std::move(p);
    return S_OK;
  }
  static HRESULT ToXml(pugi::xml_node p, const char* n, const TypedObject& v) {
    if (!v.p) {
      p.append_child(n).append_attribute("xsi:nil") = "true";
      return S_OK;
    }
    return WriteObject(p, n, v.p.Get());
  }
  static HRESULT FromXml(pugi::xml_node p, const char* n, TypedObject& v) {
    const pugi::xml_node e = p.child(n);
    if (!e) return S_FALSE;
    if (std::string_view(e.attribute("xsi:nil").as_string()) == "true") return v.p.Reset(), S_OK;
    ComPtr<IUnknown> object;
    PW_RETURN_IF_FAILED(ReadObjectElement(e, u"", &object));
    v.p = std::move(object);
    return S_OK;
  }
  static HRESULT ToJson(Json& j, const char* k, const TypedObject& v);
  static HRESULT FromJson(const Json& j, const char* k, TypedObject& v);
  static bool Equal(const TypedObject& a, const TypedObject& b) {
    return ObjectEquals(a.p.Get(), b.p.Get());
  }
  static HRESULT Copy(TypedObject& d, const TypedObject& s) {
    ComPtr<IUnknown> copy;
    PW_RETURN_IF_FAILED(CloneObject(s.p.Get(), &copy));
    d.p = std::move(copy);
    return S_OK;
  }
};

namespace detail {
// Calls the XML/JSON readers with a type when the field names one.
template <class C, class T>
HRESULT FromXml(pugi::xml_node p, const char* n, T& v, std::u16string_view type) {
  if constexpr (requires { C::FromXml(p, n, v, type); }) {
    return C::FromXml(p, n, v, type);
  } else {
    return C::FromXml(p, n, v);
  }
}
template <class C, class T>
HRESULT FromJson(const Json& j, const char* k, T& v, std::u16string_view type) {
  if constexpr (requires { C::FromJson(j, k, v, type); }) {
    return C::FromJson(j, k, v, type);
  } else {
    return C::FromJson(j, k, v);
  }
}
}  // namespace detail

// One field of a class: its XML name, the member, for object fields the type read back when
// the XML element or JSON value does not name one, its JSON key (by default the XML name
// through AsJSONName; empty: not in JSON), whether JSON leaves it out while it is empty, and
// the stream record version that added it.
template <class C, class T>
struct FieldDef {
  const char* name;
  T C::*member;
  std::u16string_view type;
  const char* json = nullptr;
  bool jsonWhenSet = false;
  std::uint16_t since = 1;  // the first stream record version with the field; 0: never

  // The field in stream records of version `version` and later (0: in none).
  constexpr FieldDef Since(std::uint16_t version) const {
    FieldDef f = *this;
    f.since = version;
    return f;
  }

  // The field under another JSON key ("" leaves it out of JSON).
  constexpr FieldDef Json(const char* key) const {
    FieldDef f = *this;
    f.json = key;
    return f;
  }
  // JSON writes the field only when it differs from an empty value.
  constexpr FieldDef JsonWhenSet() const {
    FieldDef f = *this;
    f.jsonWhenSet = true;
    return f;
  }
};

template <class C, class T>
constexpr FieldDef<C, T> Field(const char* name, T C::*member, std::u16string_view type = {}) {
  return FieldDef<C, T>{name, member, type};
}

// The operations of a field table (a tuple of FieldDefs over class C), each in the table's
// order, stopping at the first field that does not give S_OK. Classes that persist more than
// their fields (a version, a type name, values of their own shape) call these around it.
namespace fields {

template <class Fields, class Op>
HRESULT Each(const Fields& table, Op&& op) {
  HRESULT hr = S_OK;
  std::apply([&](const auto&... f) { ((hr == S_OK ? (hr = op(f), 0) : 0), ...); }, table);
  return hr;
}

template <class C, class Fields>
HRESULT Copy(C& to, const C& from, const Fields& table) {
  return Each(table, [&](const auto& f) {
    using T = std::remove_cvref_t<decltype(from.*(f.member))>;
    return Codec<T>::Copy(to.*(f.member), from.*(f.member));
  });
}

template <class C, class Fields>
bool Equal(const C& a, const C& b, const Fields& table) {
  return Each(table, [&](const auto& f) {
           using T = std::remove_cvref_t<decltype(a.*(f.member))>;
           return Codec<T>::Equal(a.*(f.member), b.*(f.member)) ? S_OK : S_FALSE;
         }) == S_OK;
}

// The fields of a stream record of `version`. A read keeps each field as soon as it is read.
template <class C, class Fields>
HRESULT Write(StreamWriter& w, const C& o, const Fields& table, int version = 0xFFFF) {
  return Each(table, [&](const auto& f) -> HRESULT {
    using T = std::remove_cvref_t<decltype(o.*(f.member))>;
    if (f.since == 0 || f.since > version) return S_OK;
    return Codec<T>::Write(w, o.*(f.member));
  });
}

template <class C, class Fields>
HRESULT Read(StreamReader& r, C& o, const Fields& table, int version = 0xFFFF) {
  return Each(table, [&](const auto& f) -> HRESULT {
    using T = std::remove_cvref_t<decltype(o.*(f.member))>;
    if (f.since == 0 || f.since > version) return S_OK;
    return Codec<T>::Read(r, o.*(f.member));
  });
}

template <class C, class Fields>
HRESULT ToXml(pugi::xml_node e, const C& o, const Fields& table) {
  return Each(table, [&](const auto& f) {
    using T = std::remove_cvref_t<decltype(o.*(f.member))>;
    return Codec<T>::ToXml(e, f.name, o.*(f.member));
  });
}

// Each field is optional: one whose element is missing keeps its value.
template <class C, class Fields>
HRESULT FromXml(pugi::xml_node e, C& o, const Fields& table) {
  return Each(table, [&](const auto& f) {
    using T = std::remove_cvref_t<decltype(o.*(f.member))>;
    const HRESULT hr = detail::FromXml<Codec<T>>(e, f.name, o.*(f.member), f.type);
    return FAILED(hr) ? hr : S_OK;
  });
}

template <class F>
std::string JsonKey(const F& f) {
  return f.json != nullptr ? std::string(f.json) : AsJSONName(std::string_view(f.name));
}

template <class C, class Fields>
HRESULT ToJson(Json& j, const C& o, const Fields& table) {
  return Each(table, [&](const auto& f) -> HRESULT {
    using T = std::remove_cvref_t<decltype(o.*(f.member))>;
    const std::string key = JsonKey(f);
    if (key.empty()) return S_OK;
    if (f.jsonWhenSet && Codec<T>::Equal(o.*(f.member), T{})) return S_OK;
    return Codec<T>::ToJson(j, key.c_str(), o.*(f.member));
  });
}

// Each key is optional: a field whose key is missing keeps its value.
template <class C, class Fields>
HRESULT FromJson(const Json& j, C& o, const Fields& table) {
  return Each(table, [&](const auto& f) -> HRESULT {
    using T = std::remove_cvref_t<decltype(o.*(f.member))>;
    const std::string key = JsonKey(f);
    if (key.empty()) return S_OK;
    const HRESULT hr = detail::FromJson<Codec<T>>(j, key.c_str(), o.*(f.member), f.type);
    return FAILED(hr) ? hr : S_OK;
  });
}

// The fields' values, to put back with Restore when a read fails halfway.
template <class C, class Fields>
auto Snapshot(const C& o, const Fields& table) {
  return std::apply([&](const auto&... f) { return std::tuple{(o.*(f.member))...}; }, table);
}

template <class C, class Fields, class Saved>
void Restore(C& o, const Fields& table, Saved&& saved) {
  std::apply(
      [&](const auto&... f) {
        std::apply([&](auto&... v) { ((o.*(f.member) = std::move(v)), ...); }, saved);
      },
      table);
}

}  // namespace fields

template <class Derived, class... Itfs>
class ValueObject : public Itfs...,
                    public IClone,
                    public IPersistStream,
                    public IXMLSerialize,
                    public IJSONSerialize {
 public:
  using Interfaces = InterfaceList<Itfs..., IClone, IPersistStream, IXMLSerialize, IJSONSerialize>;
  static constexpr std::uint16_t kStreamVersion = 1;

  HRESULT STDMETHODCALLTYPE Clone(IClone** copy) override {
    PW_CHECK_POINTER(copy);
    *copy = nullptr;
    return Guard([&]() -> HRESULT {
      auto fresh = MakeObject<Derived>();
      Derived& target = *fresh.Get();
      PW_RETURN_IF_FAILED(fields::Copy(target, Self(), Derived::Fields()));
      *copy = static_cast<IClone*>(fresh.Detach());
      return S_OK;
    });
  }

  HRESULT STDMETHODCALLTYPE IsEqual(IClone* other, VARIANT_BOOL* equal) override {
    PW_CHECK_POINTER(equal);
    *equal = VARIANT_FALSE;
    auto* theirs = dynamic_cast<Derived*>(other);
    if (theirs == nullptr) return S_OK;
    *equal = fields::Equal(Self(), *theirs, Derived::Fields()) ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE GetClassID(CLSID* clsid) override {
    PW_CHECK_POINTER(clsid);
    *clsid = ClassId();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE IsDirty() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE Load(IStream* stream) override {
    if (stream == nullptr) return E_POINTER;
    return Guard([&]() -> HRESULT {
      StreamReader r(stream);
      std::uint16_t version = 0;
      PW_RETURN_IF_FAILED(r.Get(&version));
      if (version < 1 || version > Derived::kStreamVersion) return E_FAIL;
      return fields::Read(r, Self(), Derived::Fields());
    });
  }
  HRESULT STDMETHODCALLTYPE Save(IStream* stream, BOOL) override {
    if (stream == nullptr) return E_POINTER;
    return Guard([&]() -> HRESULT {
      StreamWriter w(stream);
      PW_RETURN_IF_FAILED(w.Put<std::uint16_t>(Derived::kStreamVersion));
      return fields::Write(w, Self(), Derived::Fields());
    });
  }
  HRESULT STDMETHODCALLTYPE GetSizeMax(ULARGE_INTEGER* size) override {
    PW_CHECK_POINTER(size);
    return E_NOTIMPL;
  }

  HRESULT STDMETHODCALLTYPE Serialize(IXMLSerializeData* data) override {
    if (data == nullptr) return E_POINTER;
    return Guard([&] { return fields::ToXml(*data->Element(), Self(), Derived::Fields()); });
  }
  HRESULT STDMETHODCALLTYPE Deserialize(IXMLSerializeData* data) override {
    if (data == nullptr) return E_POINTER;
    return Guard([&] { return fields::FromXml(*data->Element(), Self(), Derived::Fields()); });
  }

  HRESULT STDMETHODCALLTYPE SerializeJSONObject(IUnknown*, IJSONObject* json) override {
    Json* j = JsonOf(json);
    if (j == nullptr) return E_INVALIDARG;
    return Guard([&]() -> HRESULT {
      if (!j->is_object()) *j = Json::object();
      return fields::ToJson(*j, Self(), Derived::Fields());
    });
  }
  HRESULT STDMETHODCALLTYPE DeserializeJSONObject(IUnknown*, IJSONObject* json) override {
    const Json* j = JsonOf(json);
    if (j == nullptr || !j->is_object()) return E_INVALIDARG;
    return Guard([&] { return fields::FromJson(*j, Self(), Derived::Fields()); });
  }

 protected:
  static constexpr CLSID ClassId() {
    if constexpr (requires { Derived::kClassId; }) {
      return Derived::kClassId;
    } else {
      return ValueClassId(Derived::kTypeName);
    }
  }

 private:
  Derived& Self() { return static_cast<Derived&>(*this); }
};

}  // namespace pw::persist
