// The JSON form on nlohmann-json: keys are the XML names passed through AsJSONName, and
// objects nest as JSON objects whose class the reader knows from the key.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "raster/interfaces.h"

namespace pw::persist {

// Objects keep their keys in the order they were written.
using Json = nlohmann::ordered_json;

// "typens:Extent" becomes "Extent": a namespace prefix is dropped, the rest kept.
std::u16string AsJSONName(std::u16string_view xmlName);
std::string AsJSONName(std::string_view xmlName);

// An IJSONObject over a JSON value owned by the caller.
HRESULT CreateJsonData(Json* json, IJSONObject** data);
Json* JsonOf(IJSONObject* data);

// Objects that support IJSONSerialize, to and from JSON values.
HRESULT ObjectToJson(IUnknown* object, Json* json);
HRESULT ObjectFromJson(const Json& json, IUnknown* object);
// Creates an object of `typeName` and reads it from `json`.
HRESULT NewObjectFromJson(const Json& json, std::u16string_view typeName, IUnknown** object);

// Variants: numbers, booleans, strings, null (for VT_NULL and empty), arrays of these,
// objects as their JSON form (read back only where the reader knows their class).
HRESULT VariantToJson(const VARIANT& value, Json* json);
// Integers become VT_I4 (VT_I8 beyond 32 bits), other numbers VT_R8; arrays of numbers
// become VT_ARRAY|VT_R8, any other array VT_ARRAY|VT_VARIANT.
HRESULT VariantFromJson(const Json& json, VARIANT* value);

// Whole texts.
HRESULT SaveJson(IUnknown* object, std::string* text);
HRESULT LoadJson(std::string_view text, IUnknown* object);

// Limits of every JSON text read: how deep arrays and objects nest, and its size. Both are
// checked while the text is parsed, before anything recursive sees the value.
inline constexpr std::size_t kMaxJsonDepth = 256;
inline constexpr std::size_t kMaxJsonBytes = std::size_t{256} << 20;

// Parses `text` within the limits. A syntax error, a member given twice in one object or a
// limit fails with E_INVALIDARG and a message naming `what`, the line and the column.
HRESULT ParseJson(std::string_view text, Json* json, std::string_view what = "the JSON text");

// Typed reads of members: absent leaves the value alone (S_FALSE); present in another
// form is E_INVALIDARG.
HRESULT GetDouble(const Json& json, const char* key, double* value);
HRESULT GetLong(const Json& json, const char* key, LONG* value);
HRESULT GetBool(const Json& json, const char* key, bool* value);
HRESULT GetString(const Json& json, const char* key, std::u16string* value);

}  // namespace pw::persist
