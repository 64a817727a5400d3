// Pixel type names.
#include "raster/pixel_type.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "com/text.h"
#include "raster/pixel_traits.h"

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

LONG CommonPixelType(LONG a, LONG b) {
  if (!IsKnownPixelType(a) || !IsKnownPixelType(b)) return kPixelUnknown;
  if (a > b) std::swap(a, b);
  const auto isSigned = [](LONG c) { return c == kPixelS8 || c == kPixelS16 || c == kPixelS32; };
  if (b >= kPixelF32) {
    // F32 holds every integer of up to 24 bits; the 32-bit integers need F64.
    if (b == kPixelF64 || a == kPixelU32 || a == kPixelS32) return kPixelF64;
    return kPixelF32;
  }
  if (isSigned(a) == isSigned(b) || a <= kPixelU4) return b;  // nested ranges
  // One signed, one unsigned: the signed code wide enough for the unsigned one.
  const LONG unsignedCode = isSigned(a) ? b : a, signedCode = isSigned(a) ? a : b;
  const LONG wide = unsignedCode <= kPixelU4    ? kPixelS8
                    : unsignedCode == kPixelU8  ? kPixelS16
                    : unsignedCode == kPixelU16 ? kPixelS32
                                                : kPixelF64;
  return std::max(wide, signedCode);
}

bool HoldsValue(LONG code, double value) {
  if (!IsKnownPixelType(code)) return false;
  if (std::isnan(value)) return !IsIntegerPixelType(code);
  if (code == kPixelF64) return true;
  if (code == kPixelF32)
    return static_cast<double>(static_cast<float>(value)) == value || std::isinf(value);
  const ValueRange range = PixelRange(code);
  return value == std::trunc(value) && value >= range.lowest && value <= range.highest;
}

}  // namespace pw::raster
