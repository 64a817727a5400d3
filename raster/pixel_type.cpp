// Pixel type names.
#include "raster/pixel_type.h"

#include <cstdlib>

#include "com/text.h"

namespace pw::raster {
namespace {
constexpr std::string_view kNames[] = {"U1",  "U2",  "U4",  "U8",  "S8",  "U16", "S16",
                                       "U32", "S32", "F32", "F64", "C64", "C128"};
}

std::string_view PixelTypeName(LONG code) {
  if (code < 0 || code >= static_cast<LONG>(std::size(kNames))) return {};
  return kNames[code];
}

std::optional<LONG> PixelTypeFromText(std::string_view text) {
  for (std::size_t i = 0; i < std::size(kNames); ++i)
    if (EqualsNoCase(text, kNames[i])) return static_cast<LONG>(i);
  const std::string s(text);
  char* end = nullptr;
  const long v = std::strtol(s.c_str(), &end, 10);
  if (s.empty() || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return std::nullopt;
  return static_cast<LONG>(v);
}

}  // namespace pw::raster
