// XML reading and writing on pugixml.
#include "raster/persist/xml.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "raster/persist/class_registry.h"
#include "raster/persist/nesting.h"
#include "resources/raster_names.h"

namespace pw::persist {
namespace {

class XmlData : public IXMLSerializeData {
 public:
  using Interfaces = InterfaceList<IXMLSerializeData>;
  explicit XmlData(pugi::xml_node element) : element_(element) {}
  pugi::xml_node* STDMETHODCALLTYPE Element() override { return &element_; }

 private:
  pugi::xml_node element_;
};

struct ScalarType {
  VARTYPE vt;
  const char* name;
};

constexpr ScalarType kScalarTypes[] = {
    {VT_I1, "xs:byte"},           {VT_UI1, "xs:unsignedByte"}, {VT_I2, "xs:short"},
    {VT_UI2, "xs:unsignedShort"}, {VT_I4, "xs:int"},           {VT_INT, "xs:int"},
    {VT_UI4, "xs:unsignedInt"},   {VT_UINT, "xs:unsignedInt"}, {VT_I8, "xs:long"},
    {VT_UI8, "xs:unsignedLong"},  {VT_R4, "xs:float"},         {VT_R8, "xs:double"},
    {VT_BOOL, "xs:boolean"},      {VT_BSTR, "xs:string"},
};

const char* ScalarTypeName(VARTYPE vt) {
  for (const auto& t : kScalarTypes)
    if (t.vt == vt) return t.name;
  return nullptr;
}

std::optional<VARTYPE> ScalarTypeOf(std::string_view name) {
  for (const auto& t : kScalarTypes)
    if (name == t.name) return t.vt;
  return std::nullopt;
}

std::string RawType(pugi::xml_node element) {
  return element.attribute("xsi:type").as_string();
}

std::string Utf8(std::u16string_view s) {
  return ToUtf8(s);
}

// Writes the text of a scalar variant.
HRESULT ScalarText(const VARIANT& v, std::string* text) {
  if (v.vt == VT_BSTR) {
    *text = Utf8(std::u16string_view(v.bstrVal ? v.bstrVal : u"", SysStringLen(v.bstrVal)));
    return S_OK;
  }
  if (v.vt == VT_BOOL) {
    *text = v.boolVal ? "true" : "false";
    return S_OK;
  }
  if (v.vt == VT_R8) {
    *text = FormatDouble(v.dblVal);
    return S_OK;
  }
  if (v.vt == VT_R4) {
    *text = FormatDouble(v.fltVal);
    return S_OK;
  }
  Variant converted;
  PW_RETURN_IF_FAILED(VariantChangeType(&converted, &v, 0, VT_BSTR));
  *text = Utf8(std::u16string_view(converted.bstrVal, SysStringLen(converted.bstrVal)));
  return S_OK;
}

HRESULT ScalarFromText(VARTYPE vt, std::string_view text, VARIANT* out) {
  if (vt == VT_BSTR) {
    Variant v(text);
    v.Detach(out);
    return S_OK;
  }
  if (vt == VT_BOOL) {
    if (text == "true" || text == "1") {
      Variant(true).Detach(out);
    } else if (text == "false" || text == "0") {
      Variant(false).Detach(out);
    } else {
      return E_INVALIDARG;
    }
    return S_OK;
  }
  if (vt == VT_R8 || vt == VT_R4) {
    const auto d = ParseDouble(text);
    if (!d) return E_INVALIDARG;
    Variant v(*d);
    if (vt == VT_R4) PW_RETURN_IF_FAILED(v.ChangeType(VT_R4));
    v.Detach(out);
    return S_OK;
  }
  Variant v(text);
  if (FAILED(v.ChangeType(vt))) return E_INVALIDARG;
  v.Detach(out);
  return S_OK;
}

}  // namespace

HRESULT CreateXmlData(pugi::xml_node element, IXMLSerializeData** data) {
  PW_CHECK_POINTER(data);
  *data = nullptr;
  return Guard([&] {
    auto object = MakeObject<XmlData>(element);
    *data = object.Detach();
    return S_OK;
  });
}

std::string FormatDouble(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "INF" : "-INF";
  char buffer[40];
  for (int digits = 15; digits <= 17; ++digits) {
    std::snprintf(buffer, sizeof(buffer), "%.*g", digits, value);
    if (std::strtod(buffer, nullptr) == value) break;
  }
  return buffer;
}

std::optional<double> ParseDouble(std::string_view text) {
  std::string s(text);
  const auto b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return std::nullopt;
  s = s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
  if (s == "NaN") return std::nan("");
  if (s == "INF") return HUGE_VAL;
  if (s == "-INF") return -HUGE_VAL;
  char* end = nullptr;
  errno = 0;
  const double d = std::strtod(s.c_str(), &end);
  if (end == s.c_str() || *end != '\0') return std::nullopt;
  return d;
}

std::optional<LONG> ParseLong(std::string_view text) {
  const std::string s(text);
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(s.c_str(), &end, 10);
  if (s.empty() || end == s.c_str() || *end != '\0' || errno != 0 || v < INT32_MIN || v > INT32_MAX)
    return std::nullopt;
  return static_cast<LONG>(v);
}

std::string ElementType(pugi::xml_node element) {
  const std::string type = RawType(element);
  const auto colon = type.find(':');
  return colon == std::string::npos ? type : type.substr(colon + 1);
}

void SetElementType(pugi::xml_node element, std::u16string_view typeName) {
  element.append_attribute("xsi:type") = ("typens:" + Utf8(typeName)).c_str();
}

void WriteText(pugi::xml_node parent, const char* name, std::string_view text) {
  parent.append_child(name).text().set(std::string(text).c_str());
}
void WriteDouble(pugi::xml_node parent, const char* name, double value) {
  WriteText(parent, name, FormatDouble(value));
}
void WriteLong(pugi::xml_node parent, const char* name, LONG value) {
  WriteText(parent, name, std::to_string(value));
}
void WriteBool(pugi::xml_node parent, const char* name, bool value) {
  WriteText(parent, name, value ? "true" : "false");
}

std::optional<std::string> ReadText(pugi::xml_node parent, const char* name) {
  const pugi::xml_node child = parent.child(name);
  if (!child) return std::nullopt;
  return std::string(child.text().as_string());
}

HRESULT ReadDouble(pugi::xml_node parent, const char* name, double* value) {
  const auto text = ReadText(parent, name);
  if (!text) return S_FALSE;
  const auto d = ParseDouble(*text);
  if (!d) return E_INVALIDARG;
  *value = *d;
  return S_OK;
}

HRESULT ReadLong(pugi::xml_node parent, const char* name, LONG* value) {
  const auto text = ReadText(parent, name);
  if (!text) return S_FALSE;
  const auto v = ParseLong(*text);
  if (!v) return E_INVALIDARG;
  *value = *v;
  return S_OK;
}

HRESULT ReadBool(pugi::xml_node parent, const char* name, bool* value) {
  const auto text = ReadText(parent, name);
  if (!text) return S_FALSE;
  if (*text == "true" || *text == "1") {
    *value = true;
  } else if (*text == "false" || *text == "0") {
    *value = false;
  } else {
    return E_INVALIDARG;
  }
  return S_OK;
}

HRESULT ReadString(pugi::xml_node parent, const char* name, std::u16string* value) {
  const auto text = ReadText(parent, name);
  if (!text) return S_FALSE;
  *value = ToUtf16(*text);
  return S_OK;
}

HRESULT WriteObject(pugi::xml_node parent, const char* name, IUnknown* object) {
  if (object == nullptr) return S_OK;
  ComPtr<IXMLSerialize> xml;
  if (FAILED(object->QueryInterface(IidOf<IXMLSerialize>(), xml.OutVoid()))) return E_INVALIDARG;
  pugi::xml_node element = parent.append_child(name);
  const std::u16string_view type = TypeNameOf(object);
  if (!type.empty()) SetElementType(element, type);
  ComPtr<IXMLSerializeData> data;
  PW_RETURN_IF_FAILED(CreateXmlData(element, &data));
  return xml->Serialize(data.Get());
}

HRESULT ReadObjectElement(pugi::xml_node element, std::u16string_view fallbackType,
                          IUnknown** object) {
  PW_CHECK_POINTER(object);
  *object = nullptr;
  NestingGuard depth;
  if (depth.TooDeep()) return E_INVALIDARG;
  const std::string type = ElementType(element);
  const std::u16string typeName = type.empty() ? std::u16string(fallbackType) : ToUtf16(type);
  ComPtr<IXMLSerialize> xml;
  if (FAILED(CreatePersistObject(std::u16string_view(typeName), IidOf<IXMLSerialize>(),
                                 xml.OutVoid())))
    return E_INVALIDARG;
  ComPtr<IXMLSerializeData> data;
  PW_RETURN_IF_FAILED(CreateXmlData(element, &data));
  PW_RETURN_IF_FAILED(xml->Deserialize(data.Get()));
  return xml->QueryInterface(IidOf<IUnknown>(), reinterpret_cast<void**>(object));
}

HRESULT ReadObject(pugi::xml_node parent, const char* name, std::u16string_view fallbackType,
                   IUnknown** object) {
  const pugi::xml_node element = parent.child(name);
  if (!element) return S_FALSE;
  return ReadObjectElement(element, fallbackType, object);
}

HRESULT WriteVariant(pugi::xml_node parent, const char* name, const VARIANT& v) {
  if (v.vt & VT_BYREF) return E_INVALIDARG;
  if (v.vt == VT_UNKNOWN) {
    if (v.punkVal == nullptr) {
      parent.append_child(name).append_attribute("xsi:nil") = "true";
      return S_OK;
    }
    return WriteObject(parent, name, v.punkVal);
  }
  pugi::xml_node element = parent.append_child(name);
  if (v.vt == VT_EMPTY) return S_OK;
  if (v.vt == VT_NULL) {
    element.append_attribute("xsi:nil") = "true";
    return S_OK;
  }
  if (v.vt & VT_ARRAY) {
    SetElementType(element, res::c_bstr_xml_type_ArrayOfVariant);
    const VARTYPE elementType = static_cast<VARTYPE>(v.vt & VT_TYPEMASK);
    if (elementType != VT_VARIANT)
      element.append_attribute("vt") = static_cast<unsigned>(elementType);
    SAFEARRAY* a = v.parray;
    if (a == nullptr) return S_OK;
    if (a->cDims != 1) return E_INVALIDARG;
    element.append_attribute("lowerBound") = static_cast<int>(a->rgsabound[0].lLbound);
    for (ULONG i = 0; i < a->rgsabound[0].cElements; ++i) {
      LONG index = a->rgsabound[0].lLbound + static_cast<LONG>(i);
      Variant item;
      PW_RETURN_IF_FAILED(CopyArrayElement(a, elementType, index, &item));
      PW_RETURN_IF_FAILED(WriteVariant(element, "Value", item));
    }
    return S_OK;
  }
  const char* type = ScalarTypeName(v.vt);
  if (type == nullptr) return E_INVALIDARG;
  element.append_attribute("xsi:type") = type;
  std::string text;
  PW_RETURN_IF_FAILED(ScalarText(v, &text));
  element.text().set(text.c_str());
  return S_OK;
}

HRESULT ReadVariantElement(pugi::xml_node element, VARIANT* value) {
  VariantClear(value);
  if (std::string_view(element.attribute("xsi:nil").as_string()) == "true") {
    value->vt = VT_NULL;
    return S_OK;
  }
  const std::string raw = RawType(element);
  if (raw.empty()) return S_OK;  // empty
  if (const auto vt = ScalarTypeOf(raw))
    return ScalarFromText(*vt, element.text().as_string(), value);
  const std::string type = ElementType(element);
  if (ToUtf16(type) == res::c_bstr_xml_type_ArrayOfVariant) {
    NestingGuard depth;
    if (depth.TooDeep()) return E_INVALIDARG;
    const unsigned vtAttr = element.attribute("vt").as_uint(VT_VARIANT);
    const VARTYPE elementType = static_cast<VARTYPE>(vtAttr);
    if (elementType != VT_VARIANT && elementType != VT_UNKNOWN &&
        ScalarTypeName(elementType) == nullptr)
      return E_INVALIDARG;
    std::vector<Variant> items;
    for (pugi::xml_node child : element.children("Value")) {
      Variant item;
      PW_RETURN_IF_FAILED(ReadVariantElement(child, &item));
      if (elementType != VT_VARIANT && item.vt != elementType) return E_INVALIDARG;
      items.push_back(std::move(item));
    }
    // Every index must be a LONG: a lower bound near the maximum cannot hold the elements.
    const long long lower = element.attribute("lowerBound").as_llong(0);
    if (lower < INT32_MIN ||
        lower + static_cast<long long>(items.size()) - 1 > static_cast<long long>(INT32_MAX))
      return E_INVALIDARG;
    SAFEARRAY* a = SafeArrayCreateVector(elementType, static_cast<LONG>(lower),
                                         static_cast<ULONG>(items.size()));
    if (a == nullptr) return E_OUTOFMEMORY;
    for (std::size_t i = 0; i < items.size(); ++i) {
      LONG index = a->rgsabound[0].lLbound + static_cast<LONG>(i);
      void* slot = nullptr;
      SafeArrayPtrOfIndex(a, &index, &slot);
      if (elementType == VT_VARIANT) {
        items[i].Detach(static_cast<VARIANT*>(slot));
      } else {
        // Move the payload (a string or an interface keeps its one owner).
        std::memcpy(slot, &items[i].llVal, a->cbElements);
        VariantInit(&items[i]);
      }
    }
    value->vt = static_cast<VARTYPE>(VT_ARRAY | elementType);
    value->parray = a;
    return S_OK;
  }
  IUnknown* object = nullptr;
  PW_RETURN_IF_FAILED(ReadObjectElement(element, u"", &object));
  value->vt = VT_UNKNOWN;
  value->punkVal = object;
  return S_OK;
}

HRESULT SaveXml(IUnknown* object, std::string* text) {
  PW_CHECK_POINTER(text);
  return Guard([&]() -> HRESULT {
    const std::u16string_view type = TypeNameOf(object);
    if (type.empty()) return E_INVALIDARG;
    pugi::xml_document doc;
    const std::string name = Utf8(type);
    pugi::xml_node root = doc.append_child(name.c_str());
    root.append_attribute("xmlns:xsi") = kXsiNamespace;
    root.append_attribute("xmlns:xs") = "http://www.w3.org/2001/XMLSchema";
    root.append_attribute("xmlns:typens") = Utf8(res::c_bstr_xml_ns_quarn).c_str();
    SetElementType(root, type);
    ComPtr<IXMLSerialize> xml;
    if (FAILED(object->QueryInterface(IidOf<IXMLSerialize>(), xml.OutVoid()))) return E_INVALIDARG;
    ComPtr<IXMLSerializeData> data;
    PW_RETURN_IF_FAILED(CreateXmlData(root, &data));
    PW_RETURN_IF_FAILED(xml->Serialize(data.Get()));
    std::ostringstream out;
    doc.save(out, "  ");
    *text = out.str();
    return S_OK;
  });
}

HRESULT LoadXml(std::string_view text, IUnknown* object) {
  return Guard([&]() -> HRESULT {
    ComPtr<IXMLSerialize> xml;
    if (object == nullptr || FAILED(object->QueryInterface(IidOf<IXMLSerialize>(), xml.OutVoid())))
      return E_INVALIDARG;
    pugi::xml_document doc;
    const pugi::xml_parse_result parsed = doc.load_buffer(text.data(), text.size());
    if (!parsed) {
      return ReportError(E_INVALIDARG, "XML is not well formed at offset " +
                                           std::to_string(parsed.offset) + ": " +
                                           parsed.description());
    }
    pugi::xml_node root = doc.document_element();
    if (!root) return E_INVALIDARG;
    ComPtr<IXMLSerializeData> data;
    PW_RETURN_IF_FAILED(CreateXmlData(root, &data));
    return xml->Deserialize(data.Get());
  });
}

}  // namespace pw::persist
