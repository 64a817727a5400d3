// ValueObject<Derived, Interfaces...>: equality, deep copy and the three persistence
// forms of a value class, written once over the list of its fields.
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

// One field of a value class: its XML name, the member, and for object fields the type
// read back when the XML element or JSON value does not name one.
template <class C, class T>
struct FieldDef {
  const char* name;
  T C::*member;
  std::u16string_view type;
};

template <class C, class T>
constexpr FieldDef<C, T> Field(const char* name, T C::*member, std::u16string_view type = {}) {
  return FieldDef<C, T>{name, member, type};
}

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
      PW_RETURN_IF_FAILED(EachField([&](const auto& f) {
        using T = std::remove_cvref_t<decltype(Self().*(f.member))>;
        return Codec<T>::Copy(target.*(f.member), Self().*(f.member));
      }));
      *copy = static_cast<IClone*>(fresh.Detach());
      return S_OK;
    });
  }

  HRESULT STDMETHODCALLTYPE IsEqual(IClone* other, VARIANT_BOOL* equal) override {
    PW_CHECK_POINTER(equal);
    *equal = VARIANT_FALSE;
    auto* theirs = dynamic_cast<Derived*>(other);
    if (theirs == nullptr) return S_OK;
    const HRESULT same = EachField([&](const auto& f) {
      using T = std::remove_cvref_t<decltype(Self().*(f.member))>;
      return Codec<T>::Equal(Self().*(f.member), theirs->*(f.member)) ? S_OK : S_FALSE;
    });
    *equal = same == S_OK ? VARIANT_TRUE : VARIANT_FALSE;
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
      return EachField([&](const auto& f) {
        using T = std::remove_cvref_t<decltype(Self().*(f.member))>;
        return Codec<T>::Read(r, Self().*(f.member));
      });
    });
  }
  HRESULT STDMETHODCALLTYPE Save(IStream* stream, BOOL) override {
    if (stream == nullptr) return E_POINTER;
    return Guard([&]() -> HRESULT {
      StreamWriter w(stream);
      PW_RETURN_IF_FAILED(w.Put<std::uint16_t>(Derived::kStreamVersion));
      return EachField([&](const auto& f) {
        using T = std::remove_cvref_t<decltype(Self().*(f.member))>;
        return Codec<T>::Write(w, Self().*(f.member));
      });
    });
  }
  HRESULT STDMETHODCALLTYPE GetSizeMax(ULARGE_INTEGER* size) override {
    PW_CHECK_POINTER(size);
    return E_NOTIMPL;
  }

  HRESULT STDMETHODCALLTYPE Serialize(IXMLSerializeData* data) override {
    if (data == nullptr) return E_POINTER;
    return Guard([&]() -> HRESULT {
      pugi::xml_node element = *data->Element();
      return EachField([&](const auto& f) {
        using T = std::remove_cvref_t<decltype(Self().*(f.member))>;
        return Codec<T>::ToXml(element, f.name, Self().*(f.member));
      });
    });
  }
  HRESULT STDMETHODCALLTYPE Deserialize(IXMLSerializeData* data) override {
    if (data == nullptr) return E_POINTER;
    return Guard([&]() -> HRESULT {
      const pugi::xml_node element = *data->Element();
      return EachField([&](const auto& f) {
        using T = std::remove_cvref_t<decltype(Self().*(f.member))>;
        const HRESULT hr = detail::FromXml<Codec<T>>(element, f.name, Self().*(f.member), f.type);
        return FAILED(hr) ? hr : S_OK;
      });
    });
  }

  HRESULT STDMETHODCALLTYPE SerializeJSONObject(IUnknown*, IJSONObject* json) override {
    Json* j = JsonOf(json);
    if (j == nullptr) return E_INVALIDARG;
    return Guard([&]() -> HRESULT {
      if (!j->is_object()) *j = Json::object();
      return EachField([&](const auto& f) {
        using T = std::remove_cvref_t<decltype(Self().*(f.member))>;
        return Codec<T>::ToJson(*j, AsJSONName(std::string_view(f.name)).c_str(),
                                Self().*(f.member));
      });
    });
  }
  HRESULT STDMETHODCALLTYPE DeserializeJSONObject(IUnknown*, IJSONObject* json) override {
    const Json* j = JsonOf(json);
    if (j == nullptr || !j->is_object()) return E_INVALIDARG;
    return Guard([&]() -> HRESULT {
      return EachField([&](const auto& f) {
        using T = std::remove_cvref_t<decltype(Self().*(f.member))>;
        const HRESULT hr = detail::FromJson<Codec<T>>(
            *j, AsJSONName(std::string_view(f.name)).c_str(), Self().*(f.member), f.type);
        return FAILED(hr) ? hr : S_OK;
      });
    });
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

  // Runs `op` on each field in order until one does not return S_OK; returns that result.
  template <class Op>
  static HRESULT EachField(Op&& op) {
    HRESULT hr = S_OK;
    std::apply([&](const auto&... f) { ((hr == S_OK ? (hr = op(f), 0) : 0), ...); },
               Derived::Fields());
    return hr;
  }
};

}  // namespace pw::persist
