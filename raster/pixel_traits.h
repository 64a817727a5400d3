// Pixel types as traits and the one dispatch helper every kernel uses.
//
//   VisitPixelType(code, [&](auto tag) { using T = typename decltype(tag)::type; ... });
//   VisitPixelTypes(in, out, [&](auto inTag, auto outTag) { ... });
//
// Codes 0 to 3 (1-, 2-, 4- and 8-bit unsigned) share one uint8_t instantiation; their
// value ranges differ and come from PixelRange(code) at run time.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "com/types.h"
#include "raster/pixel_type.h"

namespace pw::raster {

template <class T>
struct StorageTag {
  using type = T;
  static constexpr bool kInteger = std::is_integral_v<T>;
};

struct ValueRange {
  double lowest;
  double highest;
};

// The lowest and highest value of a code (0 to 10); {0, 0} for other codes.
constexpr ValueRange PixelRange(LONG code) {
  switch (code) {
    case 0:
      return {0, 1};
    case 1:
      return {0, 3};
    case 2:
      return {0, 15};
    case 3:
      return {0, 255};
    case 4:
      return {-128, 127};
    case 5:
      return {0, 65535};
    case 6:
      return {-32768, 32767};
    case 7:
      return {0, 4294967295.0};
    case 8:
      return {-2147483648.0, 2147483647.0};
    case 9:
      return {-std::numeric_limits<float>::max(), std::numeric_limits<float>::max()};
    case 10:
      return {-std::numeric_limits<double>::max(), std::numeric_limits<double>::max()};
    default:
      return {0, 0};
  }
}

constexpr bool IsKnownPixelType(LONG code) {
  return code >= 0 && code <= 10;
}
constexpr bool IsIntegerPixelType(LONG code) {
  return code >= 0 && code <= 8;
}

// Bytes a pixel of the code takes in a block (0 for codes without storage).
constexpr std::size_t PixelSize(LONG code) {
  switch (code) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
      return 1;
    case 5:
    case 6:
      return 2;
    case 7:
    case 8:
    case 9:
      return 4;
    case 10:
      return 8;
    default:
      return 0;
  }
}

// Calls f(StorageTag<T>{}) for the storage type of `code`; returns false (without calling)
// for a code above 10 or below 0.
template <class F>
bool VisitPixelType(LONG code, F&& f) {
  switch (code) {
    case 0:
    case 1:
    case 2:
    case 3:
      f(StorageTag<std::uint8_t>{});
      return true;
    case 4:
      f(StorageTag<std::int8_t>{});
      return true;
    case 5:
      f(StorageTag<std::uint16_t>{});
      return true;
    case 6:
      f(StorageTag<std::int16_t>{});
      return true;
    case 7:
      f(StorageTag<std::uint32_t>{});
      return true;
    case 8:
      f(StorageTag<std::int32_t>{});
      return true;
    case 9:
      f(StorageTag<float>{});
      return true;
    case 10:
      f(StorageTag<double>{});
      return true;
    default:
      return false;
  }
}

// Two codes, one instantiation per pair of storage types.
template <class F>
bool VisitPixelTypes(LONG a, LONG b, F&& f) {
  bool done = false;
  VisitPixelType(a, [&](auto ta) { done = VisitPixelType(b, [&](auto tb) { f(ta, tb); }); });
  return done;
}

// The read conversion: to an integer type round half away from zero, then clamp to the
// code's range; to a floating type plain conversion. NaN has no integer value: the result
// is 0 and `valid` is cleared.
template <class T>
inline T ConvertValue(double v, const ValueRange& range, bool* valid) {
  if constexpr (std::is_integral_v<T>) {
    if (std::isnan(v)) {
      *valid = false;
      return T{0};
    }
    double r = std::round(v);  // half away from zero
    if (r < range.lowest) r = range.lowest;
    if (r > range.highest) r = range.highest;
    return static_cast<T>(r);
  } else {
    (void)range;
    (void)valid;
    return static_cast<T>(v);
  }
}

// A value stored by truncation toward zero, as the pixel functions store results they do
// not clamp: an integer type keeps the low bits of the truncated 64-bit integer (values
// beyond the 64-bit range saturate first, NaN stores 0); a floating type converts.
template <class T>
inline T StoreTruncated(double v) {
  if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(v);
  } else {
    constexpr double kLimit = 9223372036854775807.0;
    const double t = std::trunc(v);
    const std::int64_t whole = t >= kLimit    ? std::numeric_limits<std::int64_t>::max()
                               : t <= -kLimit ? std::numeric_limits<std::int64_t>::min()
                               : t == t       ? static_cast<std::int64_t>(t)
                                              : 0;
    return static_cast<T>(static_cast<std::uint64_t>(whole));
  }
}

}  // namespace pw::raster
