// The arguments base: named values, references, typed reads and persistence.
#include "framework/arguments.h"

#include <filesystem>

#include "raster/persist/class_registry.h"
#include "raster/persist/document_version.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/value_object.h"
#include "raster/persist/xml.h"
#include "raster/values/arrays.h"

namespace pw::framework {

PW_REGISTER_CLASS(RasterFunctionArguments);

namespace {

using persist::Json;
using raster::Property;
using raster::PropertyList;

constexpr std::uint16_t kArgumentsVersion = 1;
// Arguments need a document of at least version 4 (ordinal 4).
constexpr int kSaveVersions[] = {0, 0, 0, 0, 1};

std::u16string_view View(BSTR s) {
  return std::u16string_view(s ? s : u"", SysStringLen(s));
}

Property* FindIn(PropertyList& list, std::u16string_view name) {
  for (auto& p : list.items)
    if (EqualsNoCase(p.name, name)) return &p;
  return nullptr;
}

void SetIn(PropertyList& list, std::u16string_view name, const VARIANT& value) {
  if (Property* p = FindIn(list, name)) {
    p->value = Variant(value);
  } else {
    list.items.push_back(Property{std::u16string(name), Variant(value)});
  }
}

bool RemoveFrom(PropertyList& list, std::u16string_view name) {
  for (auto it = list.items.begin(); it != list.items.end(); ++it) {
    if (EqualsNoCase(it->name, name)) {
      list.items.erase(it);
      return true;
    }
  }
  return false;
}

// A template variable's current value, or the value itself.
Variant Dereference(const VARIANT& value) {
  if (value.vt == VT_UNKNOWN && value.punkVal != nullptr) {
    ComPtr<IRasterFunctionVariable> variable;
    if (SUCCEEDED(
            value.punkVal->QueryInterface(IidOf<IRasterFunctionVariable>(), variable.OutVoid()))) {
      Variant current;
      variable->get_Value(&current);
      return current;
    }
  }
  return Variant(value);
}

HRESULT HandOutList(const PropertyList& list, IStringArray** names, IVariantArray** values) {
  return Guard([&] {
    if (names) {
      auto a = MakeObject<raster::StringArray>();
      for (const auto& p : list.items) a->Items().push_back(p.name);
      PW_RETURN_IF_FAILED(
          a->QueryInterface(IidOf<IStringArray>(), reinterpret_cast<void**>(names)));
    }
    if (values) {
      auto a = MakeObject<raster::VariantArray>();
      for (const auto& p : list.items) a->Items().push_back(p.value);
      PW_RETURN_IF_FAILED(
          a->QueryInterface(IidOf<IVariantArray>(), reinterpret_cast<void**>(values)));
    }
    return S_OK;
  });
}

bool ListMatchesSet(const PropertyList& list, IPropertySet* set, bool noCase) {
  LONG count = 0;
  if (set == nullptr || FAILED(set->get_Count(&count)) ||
      count != static_cast<LONG>(list.items.size()))
    return false;
  ComPtr<IStringArray> names;
  ComPtr<IVariantArray> values;
  if (FAILED(set->GetAllProperties(&names, &values))) return false;
  for (LONG i = 0; i < count; ++i) {
    Bstr name;
    Variant theirs;
    names->get_Element(i, &name);
    values->get_Element(i, &theirs);
    const Property* mine = nullptr;
    for (const auto& p : list.items)
      if (noCase ? EqualsNoCase(p.name, name.View()) : p.name == name.View()) mine = &p;
    if (mine == nullptr || !persist::VariantEquals(mine->value, theirs)) return false;
  }
  return true;
}

}  // namespace

// --- references ---------------------------------------------------------------------------

std::optional<Variant> ResolveReference(const VARIANT& value, IRow* row, IPropertySet* set) {
  if (value.vt != VT_BSTR) return std::nullopt;
  const std::u16string_view text = View(value.bstrVal);
  if (text.size() < 4 || text.substr(0, 2) != u"${" || text.back() != u'}') return std::nullopt;
  const Bstr name(text.substr(2, text.size() - 3));
  if (row != nullptr) {
    LONG index = -1;
    if (row->FindField(name.Get(), &index) == S_OK && index >= 0) {
      Variant v;
      if (SUCCEEDED(row->get_Value(index, &v))) return v;
    }
  }
  if (set != nullptr) {
    Variant v;
    if (set->GetProperty(name.Get(), &v) == S_OK) return v;
  }
  return std::nullopt;
}

namespace {

// Resolves the value of `name` and stores it when `accept` turns it into the wanted kind.
template <class Accept>
void ResolveAs(IRasterFunctionArguments* args, BSTR name, IRow* row, IPropertySet* set,
               Accept accept) {
  if (args == nullptr) return;
  Variant current;
  if (FAILED(args->GetValue(name, &current))) return;
  const std::optional<Variant> resolved = ResolveReference(current, row, set);
  Variant candidate = resolved ? *resolved : current;
  if (accept(candidate)) args->PutValue(name, candidate);
}

bool AsType(Variant& v, VARTYPE type) {
  return v.vt == type || SUCCEEDED(v.ChangeType(type));
}

bool IsObject(const Variant& v) {
  return v.vt == VT_UNKNOWN && v.punkVal != nullptr;
}

}  // namespace

void ResolveAndUpdate_ValueTypeDataset(IRasterFunctionArguments* a, BSTR n, IRow* r,
                                       IPropertySet* s) {
  // A property set holding "acceptsScalar" (true) lets numbers and arrays stand for a
  // dataset: the caller makes constant rasters of them.
  Variant scalars;
  const bool acceptsScalar = s != nullptr &&
                             s->GetProperty(Bstr(u"acceptsScalar").Get(), &scalars) == S_OK &&
                             scalars.ToBool().value_or(false);
  ResolveAs(a, n, r, s, [&](Variant& v) {
    return IsObject(v) || v.vt == VT_BSTR ||
           (acceptsScalar && ((v.vt & VT_ARRAY) || AsType(v, VT_R8)));
  });
}
void ResolveAndUpdate_ValueTypeDatasets(IRasterFunctionArguments* a, BSTR n, IRow* r,
                                        IPropertySet* s) {
  ResolveAs(a, n, r, s,
            [](Variant& v) { return IsObject(v) || v.vt == VT_BSTR || (v.vt & VT_ARRAY); });
}
void ResolveAndUpdate_ValueTypeLong(IRasterFunctionArguments* a, BSTR n, IRow* r, IPropertySet* s) {
  ResolveAs(a, n, r, s, [](Variant& v) { return AsType(v, VT_I4); });
}
void ResolveAndUpdate_ValueTypeDouble(IRasterFunctionArguments* a, BSTR n, IRow* r,
                                      IPropertySet* s) {
  ResolveAs(a, n, r, s, [](Variant& v) { return AsType(v, VT_R8); });
}
void ResolveAndUpdate_ValueTypeBoolean(IRasterFunctionArguments* a, BSTR n, IRow* r,
                                       IPropertySet* s) {
  ResolveAs(a, n, r, s, [](Variant& v) { return AsType(v, VT_BOOL); });
}
void ResolveAndUpdate_ValueTypeDoubleArray(IRasterFunctionArguments* a, BSTR n, IRow* r,
                                           IPropertySet* s) {
  ResolveAs(a, n, r, s,
            [](Variant& v) { return IsObject(v) || (v.vt & VT_ARRAY) || AsType(v, VT_R8); });
}
void ResolveAndUpdate_ValueTypeString(IRasterFunctionArguments* a, BSTR n, IRow* r,
                                      IPropertySet* s) {
  ResolveAs(a, n, r, s, [](Variant& v) { return AsType(v, VT_BSTR); });
}
void ResolveAndUpdate_ValueTypeStringArray(IRasterFunctionArguments* a, BSTR n, IRow* r,
                                           IPropertySet* s) {
  ResolveAs(a, n, r, s,
            [](Variant& v) { return IsObject(v) || (v.vt & VT_ARRAY) || v.vt == VT_BSTR; });
}
void ResolveAndUpdate_ValueTypeGeometry(IRasterFunctionArguments* a, BSTR n, IRow* r,
                                        IPropertySet* s, LONG) {
  ResolveAs(a, n, r, s, [](Variant& v) { return IsObject(v); });
}
void ResolveAndUpdate_ValueTypeCacheWorkspaceName(IRasterFunctionArguments* a, BSTR n, IRow* r,
                                                  IPropertySet* s) {
  ResolveAs(a, n, r, s, [](Variant& v) { return v.vt == VT_BSTR; });
}

// --- named values ------------------------------------------------------------------------

const Variant* BasicFunctionArguments::Find(std::u16string_view name) const {
  for (const auto& p : values_.items)
    if (EqualsNoCase(p.name, name)) return &p.value;
  return nullptr;
}

void BasicFunctionArguments::Put(std::u16string_view name, const VARIANT& value) {
  SetIn(values_, name, value);
  dirty_ = true;
}

void BasicFunctionArguments::PutDoubleArray(std::u16string_view name,
                                            const std::vector<double>& values) {
  auto array = MakeObject<raster::DoubleArray>();
  array->Items() = values;
  PutObject(name, array->AsUnknown());
}

HRESULT BasicFunctionArguments::GetNamedValue(std::u16string_view name, VARIANT* value) const {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  const Variant* v = Find(name);
  return v ? VariantCopy(value, v) : S_FALSE;
}

HRESULT BasicFunctionArguments::PutNamedValue(std::u16string_view name, const VARIANT& value) {
  return Guard([&] {
    Put(name, value);
    return S_OK;
  });
}

bool BasicFunctionArguments::GetBool(std::u16string_view name, bool fallback) const {
  const Variant* v = Find(name);
  if (v == nullptr) return fallback;
  return Dereference(*v).ToBool().value_or(fallback);
}

LONG BasicFunctionArguments::GetLong(std::u16string_view name, LONG fallback) const {
  const Variant* v = Find(name);
  if (v == nullptr) return fallback;
  return Dereference(*v).ToInt32().value_or(fallback);
}

double BasicFunctionArguments::GetDouble(std::u16string_view name, double fallback) const {
  const Variant* v = Find(name);
  if (v == nullptr) return fallback;
  return Dereference(*v).ToDouble().value_or(fallback);
}

std::u16string BasicFunctionArguments::GetString(std::u16string_view name,
                                                 std::u16string_view fallback) const {
  const Variant* v = Find(name);
  if (v == nullptr) return std::u16string(fallback);
  return Dereference(*v).ToString().value_or(std::u16string(fallback));
}

std::optional<std::vector<std::u16string>> BasicFunctionArguments::GetStringArray(
    std::u16string_view name) const {
  const Variant* found = Find(name);
  if (found == nullptr) return std::nullopt;
  const Variant v = Dereference(*found);
  std::vector<std::u16string> out;
  if (v.vt == VT_BSTR) return std::vector<std::u16string>{*v.ToString()};
  if (v.vt & VT_ARRAY) {
    const HRESULT hr = ForEachArrayElement(v, [&](const Variant& item) {
      if (item.vt != VT_BSTR) return E_INVALIDARG;
      out.push_back(*item.ToString());
      return S_OK;
    });
    if (FAILED(hr)) return std::nullopt;
    return out;
  }
  if (v.vt == VT_UNKNOWN && v.punkVal != nullptr) {
    if (auto texts = ComPtr<IUnknown>(v.punkVal).As<IStringArray>()) {
      LONG n = 0;
      texts->get_Count(&n);
      for (LONG i = 0; i < n; ++i) {
        Bstr text;
        texts->get_Element(i, &text);
        out.push_back(text.Str());
      }
      return out;
    }
    if (auto items = ComPtr<IUnknown>(v.punkVal).As<IVariantArray>()) {
      LONG n = 0;
      items->get_Count(&n);
      for (LONG i = 0; i < n; ++i) {
        Variant item;
        items->get_Element(i, &item);
        if (item.vt != VT_BSTR) return std::nullopt;
        out.push_back(*item.ToString());
      }
      return out;
    }
  }
  return std::nullopt;
}

std::optional<std::vector<double>> BasicFunctionArguments::GetDoubleArray(
    std::u16string_view name) const {
  const Variant* found = Find(name);
  if (found == nullptr) return std::nullopt;
  const Variant v = Dereference(*found);
  std::vector<double> out;
  if (v.vt & VT_ARRAY) {
    const HRESULT hr = ForEachArrayElement(v, [&](const Variant& item) {
      const auto d = item.ToDouble();
      if (!d) return E_INVALIDARG;
      out.push_back(*d);
      return S_OK;
    });
    if (FAILED(hr)) return std::nullopt;
    return out;
  }
  if (v.vt == VT_UNKNOWN && v.punkVal != nullptr) {
    ComPtr<IUnknown> object(v.punkVal);
    if (auto doubles = object.As<IDoubleArray>()) {
      LONG n = 0;
      doubles->get_Count(&n);
      for (LONG i = 0; i < n; ++i) {
        double d = 0;
        doubles->get_Element(i, &d);
        out.push_back(d);
      }
      return out;
    }
    if (auto longs = object.As<ILongArray>()) {
      LONG n = 0;
      longs->get_Count(&n);
      for (LONG i = 0; i < n; ++i) {
        LONG l = 0;
        longs->get_Element(i, &l);
        out.push_back(l);
      }
      return out;
    }
    if (auto variants = object.As<IVariantArray>()) {
      LONG n = 0;
      variants->get_Count(&n);
      for (LONG i = 0; i < n; ++i) {
        Variant item;
        variants->get_Element(i, &item);
        const auto d = item.ToDouble();
        if (!d) return std::nullopt;
        out.push_back(*d);
      }
      return out;
    }
    return std::nullopt;
  }
  if (v.vt == VT_BSTR) return std::nullopt;  // text is not a list of numbers
  const auto d = v.ToDouble();
  if (!d || v.vt == VT_EMPTY) return std::nullopt;
  return std::vector<double>{*d};
}

ComPtr<IUnknown> BasicFunctionArguments::GetObject(std::u16string_view name) const {
  const Variant* v = Find(name);
  if (v == nullptr) return nullptr;
  const Variant d = Dereference(*v);
  return d.vt == VT_UNKNOWN ? ComPtr<IUnknown>(d.punkVal) : nullptr;
}

HRESULT BasicFunctionArguments::PutValue(BSTR name, VARIANT value) {
  if (SysStringLen(name) == 0) return E_INVALIDARG;
  return Guard([&] {
    Put(View(name), value);
    return S_OK;
  });
}

HRESULT BasicFunctionArguments::GetValue(BSTR name, VARIANT* value) {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  const Variant* v = Find(View(name));
  if (v == nullptr) return E_INVALIDARG;
  return VariantCopy(value, v);
}

HRESULT BasicFunctionArguments::GetDereferencedValue(BSTR name, VARIANT* value) {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  const Variant* v = Find(View(name));
  if (v == nullptr) return E_INVALIDARG;
  return Guard([&] {
    Dereference(*v).Detach(value);
    return S_OK;
  });
}

HRESULT BasicFunctionArguments::Remove(BSTR name) {
  dirty_ = true;
  return RemoveFrom(values_, View(name)) ? S_OK : S_FALSE;
}

HRESULT BasicFunctionArguments::RemoveAll() {
  values_.items.clear();
  dirty_ = true;
  return S_OK;
}

HRESULT BasicFunctionArguments::get_Count(LONG* count) {
  return HandOut(static_cast<LONG>(values_.items.size()), count);
}

HRESULT BasicFunctionArguments::get_Names(IStringArray** names) {
  PW_CHECK_POINTER(names);
  *names = nullptr;
  return HandOutList(values_, names, nullptr);
}

HRESULT BasicFunctionArguments::get_Values(IVariantArray** values) {
  PW_CHECK_POINTER(values);
  *values = nullptr;
  return HandOutList(values_, nullptr, values);
}

HRESULT BasicFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Update(row, properties, nullptr);
}

HRESULT BasicFunctionArguments::Update(IRow* row, IPropertySet* properties,
                                       IRasterFunctionArguments* other) {
  return Guard([&] {
    for (auto& p : values_.items) {
      std::optional<Variant> resolved = ResolveReference(p.value, row, properties);
      if (!resolved && other != nullptr && p.value.vt == VT_BSTR) {
        const std::u16string_view text = View(p.value.bstrVal);
        if (text.size() >= 4 && text.substr(0, 2) == u"${" && text.back() == u'}') {
          Variant v;
          if (other->GetValue(Bstr(text.substr(2, text.size() - 3)).Get(), &v) == S_OK)
            resolved = v;
        }
      }
      if (resolved) {
        p.value = std::move(*resolved);
        dirty_ = true;
      }
    }
    return S_OK;
  });
}

HRESULT BasicFunctionArguments::IsEqual(IPropertySet* values, VARIANT_BOOL* equal) {
  PW_CHECK_POINTER(equal);
  *equal = ListMatchesSet(values_, values, false) ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT BasicFunctionArguments::IsEqualNoCase(IPropertySet* values, VARIANT_BOOL* equal) {
  PW_CHECK_POINTER(equal);
  *equal = ListMatchesSet(values_, values, true) ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

HRESULT BasicFunctionArguments::get_TypeName(BSTR* name) {
  PW_CHECK_POINTER(name);
  return Guard([&] {
    *name = AllocBstr(TypeName());
    return S_OK;
  });
}

HRESULT BasicFunctionArguments::get_MinNamespaceSupported(BSTR* name) {
  PW_CHECK_POINTER(name);
  return Guard([&] {
    *name = AllocBstr(ToUtf16("urn:pixwerk:raster:" + std::to_string(MinimumVersion())));
    return S_OK;
  });
}

// --- properties and files ----------------------------------------------------------------

HRESULT BasicFunctionArguments::GetProperty(BSTR name, VARIANT* value) {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  const Property* p = FindIn(properties_, View(name));
  if (p == nullptr) return S_FALSE;
  return VariantCopy(value, &p->value);
}

HRESULT BasicFunctionArguments::SetProperty(BSTR name, VARIANT value) {
  if (SysStringLen(name) == 0) return E_INVALIDARG;
  return Guard([&] {
    SetIn(properties_, View(name), value);
    return S_OK;
  });
}

HRESULT BasicFunctionArguments::RemoveProperty(BSTR name) {
  return RemoveFrom(properties_, View(name)) ? S_OK : S_FALSE;
}

HRESULT BasicFunctionArguments::GetProperties(IPropertySet** properties) {
  PW_CHECK_POINTER(properties);
  *properties = nullptr;
  return Guard([&] {
    auto set = MakeObject<raster::PropertySet>();
    for (const auto& p : properties_.items) set->Set(p.name, p.value);
    return set->QueryInterface(IidOf<IPropertySet>(), reinterpret_cast<void**>(properties));
  });
}

HRESULT BasicFunctionArguments::SetProperties(IPropertySet* properties) {
  return Guard([&] {
    PropertyList list;
    if (properties != nullptr) {
      ComPtr<IStringArray> names;
      ComPtr<IVariantArray> values;
      PW_RETURN_IF_FAILED(properties->GetAllProperties(&names, &values));
      LONG n = 0;
      names->get_Count(&n);
      for (LONG i = 0; i < n; ++i) {
        Bstr name;
        Variant value;
        names->get_Element(i, &name);
        values->get_Element(i, &value);
        list.items.push_back(Property{name.Str(), std::move(value)});
      }
    }
    properties_ = std::move(list);
    return S_OK;
  });
}

HRESULT BasicFunctionArguments::get_FileList(IStringArray** files) {
  PW_CHECK_POINTER(files);
  *files = nullptr;
  return Guard([&] {
    auto list = MakeObject<raster::StringArray>();
    for (const auto& p : values_.items) {
      const Variant v = Dereference(p.value);
      if (v.vt == VT_BSTR) {
        std::error_code ec;
        const std::u16string text(View(v.bstrVal));
        if (std::filesystem::is_regular_file(ToUtf8(text), ec)) list->Items().push_back(text);
      } else if (v.vt == VT_UNKNOWN && v.punkVal != nullptr) {
        // Inputs that know their own files (function rasters) add them.
        ComPtr<IUnknown> object(v.punkVal);
        if (auto dataset = object.As<IFunctionRasterDataset>()) {
          ComPtr<IUnknown> nested;
          dataset->get_Arguments(&nested);
          if (auto args = nested.As<IRasterFunctionArguments2>()) {
            ComPtr<IStringArray> inner;
            if (SUCCEEDED(args->get_FileList(&inner))) {
              LONG n = 0;
              inner->get_Count(&n);
              for (LONG i = 0; i < n; ++i) {
                Bstr f;
                inner->get_Element(i, &f);
                list->Items().push_back(f.Str());
              }
            }
          }
        }
      }
    }
    return list->QueryInterface(IidOf<IStringArray>(), reinterpret_cast<void**>(files));
  });
}

// --- persistence -------------------------------------------------------------------------

HRESULT BasicFunctionArguments::GetClassID(CLSID* clsid) {
  PW_CHECK_POINTER(clsid);
  *clsid = ClassId();
  return S_OK;
}

HRESULT BasicFunctionArguments::IsDirty() {
  return dirty_ ? S_OK : S_FALSE;
}

HRESULT BasicFunctionArguments::GetSizeMax(ULARGE_INTEGER* size) {
  return persist::SizeBySaving(this, size);
}

HRESULT BasicFunctionArguments::Save(IStream* stream, BOOL clearDirty) {
  if (stream == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    const int ordinal = persist::DocumentOrdinalOf(stream);
    const int version = persist::VersionFromTable(kSaveVersions, ordinal);
    if (version < 1 || ordinal < persist::DocumentOrdinal(MinimumVersion())) return E_FAIL;
    persist::StreamWriter w(stream);
    PW_RETURN_IF_FAILED(w.Put<std::uint16_t>(static_cast<std::uint16_t>(version)));
    PW_RETURN_IF_FAILED(persist::fields::Write(w, *this, Fields()));
    if (clearDirty) dirty_ = false;
    return S_OK;
  });
}

HRESULT BasicFunctionArguments::Load(IStream* stream) {
  if (stream == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    persist::StreamReader r(stream);
    std::uint16_t version = 0;
    PW_RETURN_IF_FAILED(r.Get(&version));
    if (version < 1 || version > kArgumentsVersion) return E_FAIL;
    auto saved = persist::fields::Snapshot(*this, Fields());
    if (const HRESULT hr = persist::fields::Read(r, *this, Fields()); FAILED(hr)) {
      persist::fields::Restore(*this, Fields(), std::move(saved));
      return hr;
    }
    dirty_ = false;
    return S_OK;
  });
}

HRESULT BasicFunctionArguments::Serialize(IXMLSerializeData* data) {
  if (data == nullptr) return E_POINTER;
  return Guard(
      [&]() -> HRESULT { return persist::fields::ToXml(*data->Element(), *this, Fields()); });
}

HRESULT BasicFunctionArguments::Deserialize(IXMLSerializeData* data) {
  if (data == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    auto saved = persist::fields::Snapshot(*this, Fields());
    const HRESULT hr = persist::fields::FromXml(*data->Element(), *this, Fields());
    if (FAILED(hr)) persist::fields::Restore(*this, Fields(), std::move(saved));
    return hr;
  });
}

HRESULT BasicFunctionArguments::SerializeJSONObject(IUnknown*, IJSONObject* json) {
  Json* j = persist::JsonOf(json);
  if (j == nullptr) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    *j = Json::object();
    (*j)["type"] = "quarnDataSourcesRaster." + ToUtf8(TypeName());
    for (const auto& p : values_.items) {
      const std::string key = ToUtf8(p.name);
      if (p.value.vt == VT_UNKNOWN && p.value.punkVal != nullptr) {
        persist::TypedObject object{ComPtr<IUnknown>(p.value.punkVal)};
        PW_RETURN_IF_FAILED(persist::Codec<persist::TypedObject>::ToJson(*j, key.c_str(), object));
      } else {
        PW_RETURN_IF_FAILED(persist::VariantToJson(p.value, &(*j)[key]));
      }
    }
    return persist::fields::ToJson(*j, *this, Fields());
  });
}

HRESULT BasicFunctionArguments::DeserializeJSONObject(IUnknown*, IJSONObject* json) {
  const Json* j = persist::JsonOf(json);
  if (j == nullptr || !j->is_object()) return E_INVALIDARG;
  return Guard([&] { return ReadJson(*j); });
}

HRESULT BasicFunctionArguments::ToJSON(BSTR* json) {
  PW_CHECK_POINTER(json);
  *json = nullptr;
  return Guard([&]() -> HRESULT {
    std::string text;
    PW_RETURN_IF_FAILED(persist::SaveJson(static_cast<IRasterFunctionArguments*>(this), &text));
    *json = AllocBstr(std::string_view(text));
    return S_OK;
  });
}

HRESULT BasicFunctionArguments::FromJSON(BSTR json) {
  if (json == nullptr) return E_INVALIDARG;
  return persist::LoadJson(ToUtf8(View(json)), static_cast<IRasterFunctionArguments*>(this));
}

// --- JSON reading ------------------------------------------------------------------------

HRESULT BasicFunctionArguments::TryGetValue(std::u16string_view name, const Json& json,
                                            Variant* value) const {
  const auto it = json.find(ToUtf8(name));
  if (it == json.end()) return S_FALSE;
  if (it->is_object() && it->contains("type") && it->contains("value")) {
    Json holder = Json::object();
    holder["v"] = *it;
    persist::TypedObject object;
    PW_RETURN_IF_FAILED(persist::Codec<persist::TypedObject>::FromJson(holder, "v", object));
    *value = Variant(object.p.Get());
    return S_OK;
  }
  return persist::VariantFromJson(*it, value);
}

HRESULT BasicFunctionArguments::ReadRemainingJson(const Json& json,
                                                  const std::vector<std::u16string_view>& skip) {
  for (const auto& [key, member] : json.items()) {
    const std::u16string name = ToUtf16(key);
    if (key == "type" || key == "properties") continue;
    if (std::find_if(skip.begin(), skip.end(), [&](auto s) { return EqualsNoCase(s, name); }) !=
        skip.end())
      continue;
    Variant v;
    PW_RETURN_IF_FAILED(TryGetValue(name, json, &v));
    Put(name, v);
  }
  auto saved = persist::fields::Snapshot(*this, Fields());
  const HRESULT hr = persist::fields::FromJson(json, *this, Fields());
  if (FAILED(hr)) persist::fields::Restore(*this, Fields(), std::move(saved));
  return hr;
}

HRESULT BasicFunctionArguments::ReadJson(const Json& json) {
  return ReadRemainingJson(json, {});
}

HRESULT BasicFunctionArguments::UpdateValue(std::u16string_view name, const Json& json,
                                            VARTYPE type) {
  const HRESULT hr = TryUpdateValueFromJSON(name, json, type);
  return hr == S_FALSE ? E_INVALIDARG : hr;
}

HRESULT BasicFunctionArguments::TryUpdateValueFromJSON(std::u16string_view name, const Json& json,
                                                       VARTYPE type) {
  Variant v;
  const HRESULT hr = TryGetValue(name, json, &v);
  if (hr != S_OK) return hr;
  if (type != VT_EMPTY && type != VT_VARIANT && v.vt != type && FAILED(v.ChangeType(type)))
    return E_INVALIDARG;
  Put(name, v);
  return S_OK;
}

HRESULT BasicFunctionArguments::UpdateDouble(std::u16string_view name, const Json& json) {
  return TryUpdateValueFromJSON(name, json, VT_R8);
}

HRESULT BasicFunctionArguments::UpdateLong(std::u16string_view name, const Json& json) {
  return TryUpdateValueFromJSON(name, json, VT_I4);
}

HRESULT BasicFunctionArguments::UpdateRasterValue(std::u16string_view name, const Json& json) {
  const auto it = json.find(ToUtf8(name));
  if (it == json.end()) return S_FALSE;
  if (it->is_string() || (it->is_object() && it->contains("type")))
    return TryUpdateValueFromJSON(name, json, VT_EMPTY);
  return E_INVALIDARG;
}

// --- IClone ------------------------------------------------------------------------------

HRESULT BasicFunctionArguments::Clone(IClone** copy) {
  PW_CHECK_POINTER(copy);
  *copy = nullptr;
  return Guard([&]() -> HRESULT {
    BasicFunctionArguments* fresh = nullptr;
    PW_RETURN_IF_FAILED(CreateEmpty(&fresh));
    ComPtr<IClone> holder = ComPtr<IClone>::Adopt(static_cast<IClone*>(fresh));
    PW_RETURN_IF_FAILED(persist::fields::Copy(*fresh, *this, Fields()));
    *copy = holder.Detach();
    return S_OK;
  });
}

HRESULT BasicFunctionArguments::IsEqual(IClone* other, VARIANT_BOOL* equal) {
  PW_CHECK_POINTER(equal);
  auto* theirs = dynamic_cast<BasicFunctionArguments*>(other);
  *equal = theirs != nullptr && theirs->TypeName() == TypeName() &&
                   persist::fields::Equal(*this, *theirs, Fields())
               ? VARIANT_TRUE
               : VARIANT_FALSE;
  return S_OK;
}

HRESULT RasterFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<RasterFunctionArguments>().Detach();
  return S_OK;
}

// --- accessor helpers --------------------------------------------------------------------

HRESULT HandOutBool(bool value, VARIANT_BOOL* out) {
  return HandOut(VARIANT_BOOL(value ? VARIANT_TRUE : VARIANT_FALSE), out);
}

HRESULT HandOutText(std::u16string_view value, BSTR* out) {
  PW_CHECK_POINTER(out);
  *out = AllocBstr(value);
  return *out != nullptr || value.empty() ? S_OK : E_OUTOFMEMORY;
}

HRESULT HandOutDoubles(const std::optional<std::vector<double>>& values, IDoubleArray** out) {
  PW_CHECK_POINTER(out);
  *out = nullptr;
  if (!values) return S_FALSE;
  return Guard([&] {
    auto array = MakeObject<raster::DoubleArray>();
    array->Items() = *values;
    return array->QueryInterface(IidOf<IDoubleArray>(), reinterpret_cast<void**>(out));
  });
}

}  // namespace pw::framework
