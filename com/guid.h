// GUIDs: the 16-byte identifier of classes, interfaces and categories, its text form
// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", compile-time parsing, and name-based
// (version 5, SHA-1) identifiers derived from a name in Pixwerk's fixed namespace.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "com/sha1.h"
#include "com/types.h"

#ifndef _WIN32
struct GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};
using IID = GUID;
using CLSID = GUID;
using CATID = GUID;
using REFGUID = const GUID&;
using REFIID = const IID&;
using REFCLSID = const CLSID&;
using REFCATID = const CATID&;
using LPCLSID = CLSID*;
static_assert(sizeof(GUID) == 16);

constexpr bool operator==(const GUID& a, const GUID& b) {
  if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
  for (int i = 0; i < 8; ++i)
    if (a.Data4[i] != b.Data4[i]) return false;
  return true;
}
constexpr bool IsEqualGUID(const GUID& a, const GUID& b) {
  return a == b;
}
constexpr bool IsEqualIID(const IID& a, const IID& b) {
  return a == b;
}
constexpr bool IsEqualCLSID(const CLSID& a, const CLSID& b) {
  return a == b;
}
constexpr GUID GUID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};

// Windows-named text conversions. StringFromGUID2 writes 39 characters with the NUL.
int StringFromGUID2(REFGUID guid, LPOLESTR buffer, int capacity);
HRESULT CLSIDFromString(LPCOLESTR text, LPCLSID clsid);
HRESULT IIDFromString(LPCOLESTR text, IID* iid);
#endif

namespace pw {

// Orders GUIDs byte-wise; used by sorted containers.
bool GuidLess(const GUID& a, const GUID& b);

namespace detail {
constexpr int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Parses "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", optionally in braces.
template <class Char>
constexpr std::optional<GUID> ParseGuidText(std::basic_string_view<Char> text) {
  if (text.size() == 38) {
    if (text.front() != Char('{') || text.back() != Char('}')) return std::nullopt;
    text = text.substr(1, 36);
  }
  if (text.size() != 36) return std::nullopt;
  std::uint8_t bytes[16] = {};
  int n = 0;
  for (std::size_t i = 0; i < 36; ++i) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != Char('-')) return std::nullopt;
      continue;
    }
    const auto c = text[i];
    if (c < 0 || c > 0x7F) return std::nullopt;
    const int v = HexValue(static_cast<char>(c));
    if (v < 0) return std::nullopt;
    bytes[n / 2] = static_cast<std::uint8_t>(bytes[n / 2] * 16 + v);
    ++n;
  }
  GUID g{};
  g.Data1 = (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
            (std::uint32_t{bytes[2]} << 8) | bytes[3];
  g.Data2 = static_cast<std::uint16_t>((bytes[4] << 8) | bytes[5]);
  g.Data3 = static_cast<std::uint16_t>((bytes[6] << 8) | bytes[7]);
  for (int i = 0; i < 8; ++i) g.Data4[i] = bytes[8 + i];
  return g;
}
}  // namespace detail

// A GUID from its text at compile time; a malformed literal does not compile.
consteval GUID MakeGuid(std::string_view text) {
  const auto g = detail::ParseGuidText(text);
  if (!g) throw "malformed GUID literal";
  return *g;
}

// Parses text with or without braces; nullopt when malformed.
std::optional<GUID> ParseGuid(std::string_view text);
std::optional<GUID> ParseGuid(std::u16string_view text);

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" in upper-case hexadecimal.
std::string GuidToString(const GUID& guid);
std::u16string GuidToU16String(const GUID& guid);

// Version 5 (SHA-1) name-based UUID of the name (UTF-8 bytes, given in parts) in `space`.
template <class... Parts>
constexpr GUID NameBasedGuid(const GUID& space, Parts... nameParts) {
  std::uint8_t ns[16] = {};
  ns[0] = static_cast<std::uint8_t>(space.Data1 >> 24);
  ns[1] = static_cast<std::uint8_t>(space.Data1 >> 16);
  ns[2] = static_cast<std::uint8_t>(space.Data1 >> 8);
  ns[3] = static_cast<std::uint8_t>(space.Data1);
  ns[4] = static_cast<std::uint8_t>(space.Data2 >> 8);
  ns[5] = static_cast<std::uint8_t>(space.Data2);
  ns[6] = static_cast<std::uint8_t>(space.Data3 >> 8);
  ns[7] = static_cast<std::uint8_t>(space.Data3);
  for (int i = 0; i < 8; ++i) ns[8 + i] = space.Data4[i];
  Sha1 sha;
  sha.Update(ns, 16);
  (sha.Update(std::string_view(nameParts)), ...);
  const auto digest = sha.Finish();
  GUID g{};
  g.Data1 = (std::uint32_t{digest[0]} << 24) | (std::uint32_t{digest[1]} << 16) |
            (std::uint32_t{digest[2]} << 8) | digest[3];
  g.Data2 = static_cast<std::uint16_t>((digest[4] << 8) | digest[5]);
  g.Data3 = static_cast<std::uint16_t>((((digest[6] & 0x0F) | 0x50) << 8) | digest[7]);
  g.Data4[0] = static_cast<std::uint8_t>((digest[8] & 0x3F) | 0x80);
  for (int i = 1; i < 8; ++i) g.Data4[i] = digest[8 + i];
  return g;
}

// The one namespace of every name-based identifier of Pixwerk. Never change it: class
// and interface identifiers derived from it are stable forever.
inline constexpr GUID kPixwerkNamespace = MakeGuid("d8f949b6-928f-43c3-8353-4ffefce18bee");

// The programmatic identifier prefix shared by every creatable class.
inline constexpr std::string_view kProgIdPrefix = "quarnDataSourcesRaster";

// Identifier of an interface (or anything else named) from its name.
constexpr GUID NamedId(std::string_view name) {
  return NameBasedGuid(kPixwerkNamespace, name);
}

// Class identifier of a creatable class from its bare class name: the name-based
// identifier of "quarnDataSourcesRaster.<className>".
constexpr GUID ClassIdFromName(std::string_view className) {
  return NameBasedGuid(kPixwerkNamespace, kProgIdPrefix, ".", className);
}

}  // namespace pw
