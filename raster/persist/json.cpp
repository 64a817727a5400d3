// JSON reading and writing on nlohmann-json.
#include "raster/persist/json.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "raster/persist/class_registry.h"
#include "raster/persist/nesting.h"

namespace pw::persist {
namespace {

class JsonData : public IJSONObject {
 public:
  using Interfaces = InterfaceList<IJSONObject>;
  explicit JsonData(persist::Json* json) : json_(json) {}
  void* STDMETHODCALLTYPE Json() override { return json_; }

 private:
  persist::Json* json_;
};

// Doubles that JSON cannot hold (NaN, infinities) travel as strings.
Json DoubleJson(double d) {
  if (std::isnan(d)) return "NaN";
  if (std::isinf(d)) return d > 0 ? "Infinity" : "-Infinity";
  return d;
}

std::optional<double> JsonDouble(const Json& j) {
  if (j.is_number()) return j.get<double>();
  if (j.is_string()) {
    const auto& s = j.get_ref<const std::string&>();
    if (s == "NaN") return std::numeric_limits<double>::quiet_NaN();
    if (s == "Infinity") return std::numeric_limits<double>::infinity();
    if (s == "-Infinity") return -std::numeric_limits<double>::infinity();
  }
  return std::nullopt;
}

}  // namespace

std::u16string AsJSONName(std::u16string_view xmlName) {
  const auto colon = xmlName.find(u':');
  return std::u16string(colon == std::u16string_view::npos ? xmlName : xmlName.substr(colon + 1));
}

std::string AsJSONName(std::string_view xmlName) {
  const auto colon = xmlName.find(':');
  return std::string(colon == std::string_view::npos ? xmlName : xmlName.substr(colon + 1));
}

HRESULT CreateJsonData(Json* json, IJSONObject** data) {
  PW_CHECK_POINTER(data);
  *data = nullptr;
  if (json == nullptr) return E_INVALIDARG;
  return Guard([&] {
    auto object = MakeObject<JsonData>(json);
    *data = object.Detach();
    return S_OK;
  });
}

Json* JsonOf(IJSONObject* data) {
  return data ? static_cast<Json*>(data->Json()) : nullptr;
}

HRESULT ObjectToJson(IUnknown* object, Json* json) {
  ComPtr<IJSONSerialize> serializer;
  if (object == nullptr ||
      FAILED(object->QueryInterface(IidOf<IJSONSerialize>(), serializer.OutVoid())))
    return E_INVALIDARG;
  *json = Json::object();
  ComPtr<IJSONObject> data;
  PW_RETURN_IF_FAILED(CreateJsonData(json, &data));
  return serializer->SerializeJSONObject(nullptr, data.Get());
}

HRESULT ObjectFromJson(const Json& json, IUnknown* object) {
  ComPtr<IJSONSerialize> serializer;
  if (object == nullptr ||
      FAILED(object->QueryInterface(IidOf<IJSONSerialize>(), serializer.OutVoid())))
    return E_INVALIDARG;
  if (!json.is_object()) return E_INVALIDARG;
  NestingGuard depth;
  if (depth.TooDeep()) return E_INVALIDARG;
  Json copy = json;  // the reader's interface takes a mutable value
  ComPtr<IJSONObject> data;
  PW_RETURN_IF_FAILED(CreateJsonData(&copy, &data));
  return serializer->DeserializeJSONObject(nullptr, data.Get());
}

HRESULT NewObjectFromJson(const Json& json, std::u16string_view typeName, IUnknown** object) {
  PW_CHECK_POINTER(object);
  *object = nullptr;
  ComPtr<IUnknown> created;
  PW_RETURN_IF_FAILED(CreatePersistObject(typeName, IidOf<IUnknown>(), created.OutVoid()));
  PW_RETURN_IF_FAILED(ObjectFromJson(json, created.Get()));
  *object = created.Detach();
  return S_OK;
}

HRESULT VariantToJson(const VARIANT& v, Json* json) {
  if (v.vt & VT_BYREF) return E_INVALIDARG;
  if (v.vt & VT_ARRAY) {
    *json = Json::array();
    SAFEARRAY* a = v.parray;
    if (a == nullptr) return S_OK;
    if (a->cDims != 1) return E_INVALIDARG;
    const VARTYPE element = static_cast<VARTYPE>(v.vt & VT_TYPEMASK);
    for (ULONG i = 0; i < a->rgsabound[0].cElements; ++i) {
      LONG index = a->rgsabound[0].lLbound + static_cast<LONG>(i);
      Variant item;
      PW_RETURN_IF_FAILED(CopyArrayElement(a, element, index, &item));
      Json itemJson;
      PW_RETURN_IF_FAILED(VariantToJson(item, &itemJson));
      json->push_back(std::move(itemJson));
    }
    return S_OK;
  }
  switch (v.vt) {
    case VT_EMPTY:
    case VT_NULL:
      *json = nullptr;
      return S_OK;
    case VT_BOOL:
      *json = v.boolVal != VARIANT_FALSE;
      return S_OK;
    case VT_BSTR:
      *json = ToUtf8(std::u16string_view(v.bstrVal ? v.bstrVal : u"", SysStringLen(v.bstrVal)));
      return S_OK;
    case VT_R4:
      return *json = DoubleJson(v.fltVal), S_OK;
    case VT_R8:
      return *json = DoubleJson(v.dblVal), S_OK;
    case VT_UI8:
      *json = v.ullVal;
      return S_OK;
    case VT_UNKNOWN:
      if (v.punkVal == nullptr) {
        *json = nullptr;
        return S_OK;
      }
      return ObjectToJson(v.punkVal, json);
    default: {
      Variant wide;
      if (FAILED(VariantChangeType(&wide, &v, 0, VT_I8))) return E_INVALIDARG;
      *json = wide.llVal;
      return S_OK;
    }
  }
}

HRESULT VariantFromJson(const Json& j, VARIANT* value) {
  VariantClear(value);
  if (j.is_null()) return S_OK;
  if (j.is_boolean()) {
    Variant(j.get<bool>()).Detach(value);
    return S_OK;
  }
  if (j.is_number_integer()) {
    const auto n = j.is_number_unsigned() && j.get<std::uint64_t>() > INT64_MAX
                       ? std::optional<std::int64_t>()
                       : std::optional<std::int64_t>(j.get<std::int64_t>());
    if (!n) {
      Variant(static_cast<double>(j.get<std::uint64_t>())).Detach(value);
    } else if (*n >= INT32_MIN && *n <= INT32_MAX) {
      Variant(static_cast<std::int32_t>(*n)).Detach(value);
    } else {
      Variant(*n).Detach(value);
    }
    return S_OK;
  }
  if (j.is_number()) {
    Variant(j.get<double>()).Detach(value);
    return S_OK;
  }
  if (j.is_string()) {
    Variant(std::string_view(j.get_ref<const std::string&>())).Detach(value);
    return S_OK;
  }
  if (j.is_array()) {
    NestingGuard depth;
    if (depth.TooDeep()) return E_INVALIDARG;
    bool numbers = true;
    for (const auto& item : j) numbers = numbers && item.is_number();
    const VARTYPE element = numbers ? VT_R8 : VT_VARIANT;
    SAFEARRAY* a = SafeArrayCreateVector(element, 0, static_cast<ULONG>(j.size()));
    if (a == nullptr) return E_OUTOFMEMORY;
    LONG index = 0;
    for (const auto& item : j) {
      HRESULT hr = S_OK;
      if (numbers) {
        double d = item.get<double>();
        hr = SafeArrayPutElement(a, &index, &d);
      } else {
        Variant v;
        hr = VariantFromJson(item, &v);
        if (SUCCEEDED(hr)) hr = SafeArrayPutElement(a, &index, static_cast<VARIANT*>(&v));
      }
      if (FAILED(hr)) {
        SafeArrayDestroy(a);
        return hr;
      }
      ++index;
    }
    value->vt = static_cast<VARTYPE>(VT_ARRAY | element);
    value->parray = a;
    return S_OK;
  }
  return E_INVALIDARG;  // an object: its class is known only to the reader of its key
}

HRESULT SaveJson(IUnknown* object, std::string* text) {
  PW_CHECK_POINTER(text);
  return Guard([&] {
    Json json;
    PW_RETURN_IF_FAILED(ObjectToJson(object, &json));
    *text = json.dump(2);
    return S_OK;
  });
}

HRESULT LoadJson(std::string_view text, IUnknown* object) {
  return Guard([&]() -> HRESULT {
    Json json;
    PW_RETURN_IF_FAILED(ParseJson(text, &json));
    return ObjectFromJson(json, object);
  });
}

namespace {

// Line and column (from 1) of byte `offset` (from 1, as the parser counts) of `text`.
std::string Position(std::string_view text, std::size_t offset) {
  std::size_t line = 1, column = 1;
  for (std::size_t i = 0; i + 1 < offset && i < text.size(); ++i) {
    if (text[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

// Thrown from the parser's callback to stop at a limit or a repeated member.
struct Refused {
  std::string why;
};

}  // namespace

HRESULT ParseJson(std::string_view text, Json* json, std::string_view what) {
  PW_CHECK_POINTER(json);
  const std::string name(what);
  if (text.size() > kMaxJsonBytes)
    return ReportError(E_INVALIDARG, name + " is " + std::to_string(text.size()) +
                                         " bytes long, more than the " +
                                         std::to_string(kMaxJsonBytes) + " bytes read");
  // The members of the objects being read, one set per open object.
  std::vector<std::vector<std::string>> open;
  const Json::parser_callback_t check = [&](int depth, Json::parse_event_t event, Json& parsed) {
    switch (event) {
      case Json::parse_event_t::object_start:
      case Json::parse_event_t::array_start:
        if (static_cast<std::size_t>(depth) >= kMaxJsonDepth)
          throw Refused{"arrays and objects nest more than " + std::to_string(kMaxJsonDepth) +
                        " deep"};
        if (event == Json::parse_event_t::object_start) open.emplace_back();
        break;
      case Json::parse_event_t::object_end:
        if (!open.empty()) open.pop_back();
        break;
      case Json::parse_event_t::key: {
        const std::string& key = parsed.get_ref<const std::string&>();
        if (!open.empty()) {
          auto& seen = open.back();
          if (std::find(seen.begin(), seen.end(), key) != seen.end())
            throw Refused{"the member \"" + key + "\" is given twice in one object"};
          seen.push_back(key);
        }
        break;
      }
      default:
        break;
    }
    return true;
  };
  try {
    *json = Json::parse(text, check, /*allow_exceptions=*/true);
    return S_OK;
  } catch (const Refused& refused) {
    return ReportError(E_INVALIDARG, name + ": " + refused.why);
  } catch (const nlohmann::json::parse_error& error) {
    std::string reason = error.what();
    // "[json.exception.parse_error.101] parse error at line 1, column 2: syntax error ..."
    const auto colon = reason.find(": ", reason.find("parse error"));
    if (colon != std::string::npos) reason = reason.substr(colon + 2);
    return ReportError(E_INVALIDARG, name + " is not well-formed JSON at " +
                                         Position(text, error.byte) + ": " + reason);
  } catch (const nlohmann::json::out_of_range&) {
    // Raised for a number too large for a double, e.g. 1E400; the parser gives no position.
    return ReportError(E_INVALIDARG, name + " holds a number too large to represent");
  } catch (const nlohmann::json::exception& error) {
    return ReportError(E_INVALIDARG, name + " could not be read: " + error.what());
  }
}

HRESULT GetDouble(const Json& json, const char* key, double* value) {
  const auto it = json.find(key);
  if (it == json.end()) return S_FALSE;
  const auto d = JsonDouble(*it);
  if (!d) return E_INVALIDARG;
  *value = *d;
  return S_OK;
}

HRESULT GetLong(const Json& json, const char* key, LONG* value) {
  const auto it = json.find(key);
  if (it == json.end()) return S_FALSE;
  if (!it->is_number_integer()) return E_INVALIDARG;
  const auto n = it->get<std::int64_t>();
  if (n < INT32_MIN || n > INT32_MAX) return E_INVALIDARG;
  *value = static_cast<LONG>(n);
  return S_OK;
}

HRESULT GetBool(const Json& json, const char* key, bool* value) {
  const auto it = json.find(key);
  if (it == json.end()) return S_FALSE;
  if (!it->is_boolean()) return E_INVALIDARG;
  *value = it->get<bool>();
  return S_OK;
}

HRESULT GetString(const Json& json, const char* key, std::u16string* value) {
  const auto it = json.find(key);
  if (it == json.end()) return S_FALSE;
  if (!it->is_string()) return E_INVALIDARG;
  *value = ToUtf16(it->get_ref<const std::string&>());
  return S_OK;
}

}  // namespace pw::persist
