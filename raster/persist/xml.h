// The XML form: elements named after fields, typed elements carrying
// xsi:type="typens:<Type>" with typens bound to the raster namespace, and documents
// whose root element is the object itself.
#pragma once

#include <optional>
#include <pugixml.hpp>
#include <string>
#include <string_view>

#include "raster/interfaces.h"

namespace pw::persist {

inline constexpr const char* kXsiNamespace = "http://www.w3.org/2001/XMLSchema-instance";

// An IXMLSerializeData over one element.
HRESULT CreateXmlData(pugi::xml_node element, IXMLSerializeData** data);

// Text of numbers that reads back to the same value.
std::string FormatDouble(double value);
std::optional<double> ParseDouble(std::string_view text);
std::optional<LONG> ParseLong(std::string_view text);

// The type name of a typed element (the part after the prefix), empty when untyped.
std::string ElementType(pugi::xml_node element);
void SetElementType(pugi::xml_node element, std::u16string_view typeName);

// Child elements holding text.
void WriteText(pugi::xml_node parent, const char* name, std::string_view text);
void WriteDouble(pugi::xml_node parent, const char* name, double value);
void WriteLong(pugi::xml_node parent, const char* name, LONG value);
void WriteBool(pugi::xml_node parent, const char* name, bool value);
std::optional<std::string> ReadText(pugi::xml_node parent, const char* name);
// A child that is present but does not hold the expected form is an error (E_INVALIDARG);
// an absent child leaves the value alone.
HRESULT ReadDouble(pugi::xml_node parent, const char* name, double* value);
HRESULT ReadLong(pugi::xml_node parent, const char* name, LONG* value);
HRESULT ReadBool(pugi::xml_node parent, const char* name, bool* value);
HRESULT ReadString(pugi::xml_node parent, const char* name, std::u16string* value);

// A typed child element holding an object that supports IXMLSerialize. A null object
// writes nothing.
HRESULT WriteObject(pugi::xml_node parent, const char* name, IUnknown* object);
// Reads the typed child `name` when present (else leaves *object alone and returns
// S_FALSE). The element's type picks the class; `fallbackType` is used for an untyped one.
HRESULT ReadObject(pugi::xml_node parent, const char* name, std::u16string_view fallbackType,
                   IUnknown** object);
HRESULT ReadObjectElement(pugi::xml_node element, std::u16string_view fallbackType,
                          IUnknown** object);

// A variant as a typed element: xsi:type="xs:double", "xs:int", "xs:string", ...; arrays
// as typens:ArrayOfVariant with one <Value> child per element; objects as their type.
HRESULT WriteVariant(pugi::xml_node parent, const char* name, const VARIANT& value);
HRESULT ReadVariantElement(pugi::xml_node element, VARIANT* value);

// Whole documents: the object as the root element named after its type.
HRESULT SaveXml(IUnknown* object, std::string* text);
HRESULT LoadXml(std::string_view text, IUnknown* object);

}  // namespace pw::persist
