// Mask kernels: one branch-free test a pixel type, ranges and no-data values converted to
// the type once per block.
#include "functions/enhancement/mask_kernels.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>

#include "com/text.h"
#include "raster/algorithms/pixel_loop.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"

namespace pw::functions::mask {
namespace {

// The pixel types as the test reads them: 0 to 3 share the 8-bit unsigned loop.
LONG LoadType(LONG pixelType) {
  return pixelType >= 0 && pixelType <= 3 ? 3 : pixelType;
}

// A value converted to T by truncation; nullopt when T cannot hold it.
template <class T>
std::optional<T> InType(double v) {
  if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(v);
  } else {
    const double t = std::trunc(v);
    if (!(t >= static_cast<double>(std::numeric_limits<T>::lowest()) &&
          t <= static_cast<double>(std::numeric_limits<T>::max())))
      return std::nullopt;
    return static_cast<T>(t);
  }
}

// The test in T: the range's ends (the whole type when there is no range) and up to
// kListed no-data values (kListed < 0: any number of them).
template <class T, int kListed>
struct Test {
  PW_ALWAYS_INLINE static void Run(const void* from, BYTE* mask, std::size_t n, T lo, T hi,
                                   const T* noData, std::size_t count) {
    const T* __restrict values = static_cast<const T*>(from);
    T listed[kListed > 0 ? kListed : 1] = {};
    if constexpr (kListed > 0)
      for (int k = 0; k < kListed; ++k) listed[k] = noData[k];
    raster::loop::ForEachValid<true>(mask, n, [&](std::size_t i) PW_INLINE_LAMBDA {
      const T v = values[i];
      bool keep = (v >= lo) & (v <= hi);
      if constexpr (kListed > 0) {
        for (int k = 0; k < kListed; ++k) keep &= v != listed[k];
      } else if constexpr (kListed < 0) {
        for (std::size_t k = 0; k < count; ++k) keep &= v != noData[k];
      }
      return keep;
    });
  }
};

template <class T>
using TestFn = void (*)(const void*, BYTE*, std::size_t, T, T, const T*, std::size_t);

template <class T>
void Apply(const BandTest& test, const void* values, BYTE* mask, std::size_t pixels) {
  T lo = std::numeric_limits<T>::lowest(), hi = std::numeric_limits<T>::max();
  if (test.min && test.max) {
    // A range wholly outside the type keeps nothing; one that reaches past it keeps the
    // type's end.
    const double top = static_cast<double>(hi), bottom = static_cast<double>(lo);
    if (*test.min > top || *test.max < bottom) {
      raster::mask::Fill(mask, pixels, false);
      return;
    }
    if (*test.min > bottom) lo = *InType<T>(*test.min);
    if (*test.max < top) hi = *InType<T>(*test.max);
  }
  std::vector<T> noData;
  for (double v : test.noData)
    if (const auto t = InType<T>(v)) noData.push_back(*t);
  const raster::simd::Isa isa = raster::simd::Best();
  TestFn<T> run = nullptr;
  switch (noData.size()) {
    case 0:
      run = raster::simd::Variants<Test<T, 0>, TestFn<T>>::For(isa);
      break;
    case 1:
      run = raster::simd::Variants<Test<T, 1>, TestFn<T>>::For(isa);
      break;
    case 2:
      run = raster::simd::Variants<Test<T, 2>, TestFn<T>>::For(isa);
      break;
    default:
      run = raster::simd::Variants<Test<T, -1>, TestFn<T>>::For(isa);
  }
  run(values, mask, pixels, lo, hi, noData.data(), noData.size());
}

}  // namespace

bool ParseNoData(std::u16string_view entry, std::vector<double>* values, std::u16string* bad) {
  const std::string text = ToUtf8(entry);
  std::size_t at = 0;
  while (at < text.size()) {
    if (text[at] == ' ' || text[at] == '\t') {
      ++at;
      continue;
    }
    std::size_t end = text.find_first_of(" \t", at);
    if (end == std::string::npos) end = text.size();
    const std::string item = text.substr(at, end - at);
    char* stop = nullptr;
    const double v = std::strtod(item.c_str(), &stop);
    if (stop != item.c_str() + item.size()) {
      if (bad) *bad = ToUtf16(item);
      return false;
    }
    values->push_back(v);
    at = end;
  }
  return true;
}

void ApplyTest(const BandTest& test, LONG pixelType, const void* values, BYTE* mask,
               std::size_t pixels) {
  if (pixelType > 10) return;
  raster::VisitPixelType(LoadType(pixelType), [&](auto tag) {
    Apply<typename decltype(tag)::type>(test, values, mask, pixels);
  });
}

void ApplyTestReference(const BandTest& test, LONG pixelType, const void* values, BYTE* mask,
                        std::size_t pixels) {
  if (pixelType > 10) return;
  raster::VisitPixelType(LoadType(pixelType), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const T* v = static_cast<const T*>(values);
    for (std::size_t i = 0; i < pixels; ++i) {
      if (!raster::mask::Get(mask, i)) continue;
      const double value = static_cast<double>(v[i]);
      bool masked = false;
      if (test.min && test.max) {
        // The ends as the type holds them (truncated), or beyond it.
        auto end = [](double e) {
          const auto t = InType<T>(e);
          return t ? static_cast<double>(*t) : e;
        };
        masked = value < end(*test.min) || value > end(*test.max);
      }
      for (double nd : test.noData)
        if (const auto t = InType<T>(nd); t && v[i] == *t) masked = true;
      if (masked) raster::mask::Clear(mask, i);
    }
  });
}

}  // namespace pw::functions::mask
