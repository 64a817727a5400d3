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

// The smallest code whose values include every value of both `a` and `b` (codes 0 to 10),
// so that a band of either type converts to it without any change: two unsigned (or two
// signed) integer codes give the larger; mixed signs give the signed code wide enough for
// the unsigned one (U8 with S8 gives S16, U16 with S16 gives S32, U32 with any signed code
// gives F64); a float code holds integers up to 16 bits (F32) or all (F64). -1 for a code
// outside 0 to 10.
LONG CommonPixelType(LONG a, LONG b);

// Whether a band of `code` holds `value` exactly (NaN only in the float codes).
bool HoldsValue(LONG code, double value);

}  // namespace pw::raster
