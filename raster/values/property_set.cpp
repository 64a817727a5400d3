// Property sets and the persistence of their (name, value) list.
#include "raster/values/property_set.h"

#include <algorithm>

#include "raster/values/arrays.h"

namespace pw::raster {

PW_REGISTER_VALUE_CLASS(PropertySet);

const Property* PropertySet::Find(std::u16string_view name) const {
  for (const auto& p : properties_.items)
    if (EqualsNoCase(p.name, name)) return &p;
  return nullptr;
}

void PropertySet::Set(std::u16string_view name, const VARIANT& value) {
  for (auto& p : properties_.items) {
    if (EqualsNoCase(p.name, name)) {
      p.value = Variant(value);
      return;
    }
  }
  properties_.items.push_back(Property{std::u16string(name), Variant(value)});
}

HRESULT PropertySet::get_Count(LONG* count) {
  PW_CHECK_POINTER(count);
  *count = static_cast<LONG>(properties_.items.size());
  return S_OK;
}

HRESULT PropertySet::SetProperty(BSTR name, VARIANT value) {
  if (SysStringLen(name) == 0) return E_INVALIDARG;
  return Guard([&] {
    Set(std::u16string_view(name, SysStringLen(name)), value);
    return S_OK;
  });
}

HRESULT PropertySet::GetProperty(BSTR name, VARIANT* value) {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  const Property* p = Find(std::u16string_view(name ? name : u"", SysStringLen(name)));
  if (p == nullptr) return S_FALSE;
  return VariantCopy(value, &p->value);
}

HRESULT PropertySet::RemoveProperty(BSTR name) {
  const std::u16string_view key(name ? name : u"", SysStringLen(name));
  auto& items = properties_.items;
  for (auto it = items.begin(); it != items.end(); ++it) {
    if (EqualsNoCase(it->name, key)) {
      items.erase(it);
      return S_OK;
    }
  }
  return S_FALSE;
}

HRESULT PropertySet::GetAllProperties(IStringArray** names, IVariantArray** values) {
  if (names == nullptr || values == nullptr) return E_POINTER;
  *names = nullptr;
  *values = nullptr;
  return Guard([&] {
    auto nameArray = MakeObject<StringArray>();
    auto valueArray = MakeObject<VariantArray>();
    for (const auto& p : properties_.items) {
      nameArray->Items().push_back(p.name);
      valueArray->Items().push_back(p.value);
    }
    PW_RETURN_IF_FAILED(
        nameArray->QueryInterface(IidOf<IStringArray>(), reinterpret_cast<void**>(names)));
    return valueArray->QueryInterface(IidOf<IVariantArray>(), reinterpret_cast<void**>(values));
  });
}

}  // namespace pw::raster

namespace pw::persist {

using raster::Property;
using raster::PropertyList;

HRESULT Codec<PropertyList>::Write(StreamWriter& w, const PropertyList& v) {
  PW_RETURN_IF_FAILED(w.Put<std::uint32_t>(static_cast<std::uint32_t>(v.items.size())));
  for (const auto& p : v.items) {
    PW_RETURN_IF_FAILED(w.PutString(p.name));
    PW_RETURN_IF_FAILED(w.PutVariant(p.value));
  }
  return S_OK;
}

HRESULT Codec<PropertyList>::Read(StreamReader& r, PropertyList& v) {
  std::uint32_t n = 0;
  PW_RETURN_IF_FAILED(r.Get(&n));
  PropertyList list;
  for (std::uint32_t i = 0; i < n; ++i) {
    Property p;
    PW_RETURN_IF_FAILED(r.GetString(&p.name));
    PW_RETURN_IF_FAILED(r.GetVariant(&p.value));
    list.items.push_back(std::move(p));
  }
  v = std::move(list);
  return S_OK;
}

HRESULT Codec<PropertyList>::ToXml(pugi::xml_node parent, const char* n, const PropertyList& v) {
  pugi::xml_node list = parent.append_child(n);
  for (const auto& p : v.items) {
    pugi::xml_node item = list.append_child("Property");
    WriteText(item, "Key", ToUtf8(p.name));
    PW_RETURN_IF_FAILED(WriteVariant(item, "Value", p.value));
  }
  return S_OK;
}

HRESULT Codec<PropertyList>::FromXml(pugi::xml_node parent, const char* n, PropertyList& v) {
  const pugi::xml_node list = parent.child(n);
  if (!list) return S_FALSE;
  PropertyList read;
  for (pugi::xml_node item : list.children("Property")) {
    Property p;
    PW_RETURN_IF_FAILED(ReadString(item, "Key", &p.name));
    const pugi::xml_node value = item.child("Value");
    if (value) PW_RETURN_IF_FAILED(ReadVariantElement(value, &p.value));
    read.items.push_back(std::move(p));
  }
  v = std::move(read);
  return S_OK;
}

HRESULT Codec<PropertyList>::ToJson(Json& j, const char* k, const PropertyList& v) {
  Json object = Json::object();
  for (const auto& p : v.items)
    PW_RETURN_IF_FAILED(VariantToJson(p.value, &object[ToUtf8(p.name)]));
  j[k] = std::move(object);
  return S_OK;
}

HRESULT Codec<PropertyList>::FromJson(const Json& j, const char* k, PropertyList& v) {
  const auto it = j.find(k);
  if (it == j.end()) return S_FALSE;
  if (!it->is_object()) return E_INVALIDARG;
  PropertyList read;
  for (const auto& [name, value] : it->items()) {
    Property p;
    p.name = ToUtf16(name);
    PW_RETURN_IF_FAILED(VariantFromJson(value, &p.value));
    read.items.push_back(std::move(p));
  }
  v = std::move(read);
  return S_OK;
}

bool Codec<PropertyList>::Equal(const PropertyList& a, const PropertyList& b) {
  // Named values are equal whatever order they were set in.
  if (a.items.size() != b.items.size()) return false;
  for (const auto& mine : a.items) {
    const auto theirs = std::find_if(b.items.begin(), b.items.end(), [&](const Property& p) {
      return EqualsNoCase(p.name, mine.name);
    });
    if (theirs == b.items.end() || !VariantEquals(mine.value, theirs->value)) return false;
  }
  return true;
}

HRESULT Codec<PropertyList>::Copy(PropertyList& d, const PropertyList& s) {
  PropertyList copy;
  for (const auto& p : s.items) {
    Property item;
    item.name = p.name;
    // Object values are copied deeply, like every other contained object.
    if (p.value.vt == VT_UNKNOWN && p.value.punkVal != nullptr) {
      ComPtr<IUnknown> object;
      PW_RETURN_IF_FAILED(CloneObject(p.value.punkVal, &object));
      item.value = Variant(object.Get());
    } else {
      PW_RETURN_IF_FAILED(VariantCopy(&item.value, &p.value));
    }
    copy.items.push_back(std::move(item));
  }
  d = std::move(copy);
  return S_OK;
}

}  // namespace pw::persist
