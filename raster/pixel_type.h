// Pixel type codes and their names: "U1" "U2" "U4" "U8" "S8" "U16" "S16" "U32" "S32"
// "F32" "F64" for codes 0 to 10; "C64" and "C128" for the complex codes 11 and 12.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "com/types.h"

namespace pw::raster {

enum PixelType : LONG {
  kPixelUnknown = -1,
  kPixelU1 = 0,
  kPixelU2 = 1,
  kPixelU4 = 2,
  kPixelU8 = 3,
  kPixelS8 = 4,
  kPixelU16 = 5,
  kPixelS16 = 6,
  kPixelU32 = 7,
  kPixelS32 = 8,
  kPixelF32 = 9,
  kPixelF64 = 10,
  kPixelC64 = 11,
  kPixelC128 = 12,
};

// The name of a code; empty for codes without one.
std::string_view PixelTypeName(LONG code);
// A code from its name (any case) or its decimal number; nullopt otherwise.
std::optional<LONG> PixelTypeFromText(std::string_view text);

}  // namespace pw::raster
