// GUID text conversions.
#include "com/guid.h"

#include <cstdio>
#include <cstring>

#include "com/text.h"

namespace pw {

bool GuidLess(const GUID& a, const GUID& b) {
  return std::memcmp(&a, &b, sizeof(GUID)) < 0;
}

std::optional<GUID> ParseGuid(std::string_view text) {
  return detail::ParseGuidText(text);
}
std::optional<GUID> ParseGuid(std::u16string_view text) {
  return detail::ParseGuidText(text);
}

std::string GuidToString(const GUID& g) {
  char buffer[40];
  std::snprintf(buffer, sizeof(buffer), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                static_cast<unsigned>(g.Data1), static_cast<unsigned>(g.Data2),
                static_cast<unsigned>(g.Data3), g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3],
                g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return buffer;
}

std::u16string GuidToU16String(const GUID& g) {
  return ToUtf16(GuidToString(g));
}

}  // namespace pw

#ifndef _WIN32
int StringFromGUID2(REFGUID guid, LPOLESTR buffer, int capacity) {
  if (buffer == nullptr || capacity < 39) return 0;
  const std::string text = pw::GuidToString(guid);
  for (std::size_t i = 0; i < text.size(); ++i) buffer[i] = static_cast<OLECHAR>(text[i]);
  buffer[text.size()] = 0;
  return static_cast<int>(text.size() + 1);
}

HRESULT CLSIDFromString(LPCOLESTR text, LPCLSID clsid) {
  if (clsid == nullptr || text == nullptr) return E_INVALIDARG;
  std::u16string_view view(text);
  // The registry form always carries braces.
  if (view.size() != 38) return CO_E_CLASSSTRING;
  const auto g = pw::ParseGuid(view);
  if (!g) return CO_E_CLASSSTRING;
  *clsid = *g;
  return S_OK;
}

HRESULT IIDFromString(LPCOLESTR text, IID* iid) {
  const HRESULT hr = CLSIDFromString(text, iid);
  return hr == CO_E_CLASSSTRING ? E_INVALIDARG : hr;
}
#endif
