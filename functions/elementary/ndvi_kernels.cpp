// NDVI kernels: (i - r) / (i + r), stored plain ("scientific") or scaled to 0..200.
#include "functions/elementary/ndvi_kernels.h"

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "raster/algorithms/pixel_loop.h"
#include "raster/pixel_traits.h"

namespace pw::functions::ndvi {
namespace {

// Integer inputs of up to 16 bits give exact sums and differences in single precision, and
// their quotient rounded once to float equals the double quotient rounded to float (the
// double is never close enough to a float rounding boundary to round differently), so a
// float output is computed in single precision, twice as wide per instruction.
template <class I, class O>
constexpr bool kSinglePrecision = std::is_same_v<O, float>&& std::is_integral_v<I> &&
                                  sizeof(I) <= 2;

// v, or 0 when the sum is 0. For integer inputs v is then finite (a difference over 1), so
// a multiplication by 0 (plus 0, so the zero is never negative) keeps the loop free of
// branches, which the vectorizer needs; float inputs may be huge and take the select.
template <class I>
PW_ALWAYS_INLINE double ZeroWhenNoSum(double v, double sum) {
  if constexpr (std::is_integral_v<I>) {
    return v * static_cast<double>(sum != 0.0) + 0.0;
  } else {
    return sum == 0.0 ? 0.0 : v;
  }
}

// out = cell(red, infrared) over the valid pixels of a block.
template <class I, class O, class Cell>
PW_ALWAYS_INLINE void EachValid(const void* rv, const void* iv, void* ov, BYTE* mask, std::size_t n,
                                Cell cell) {
  const I* __restrict red = static_cast<const I*>(rv);
  const I* __restrict infrared = static_cast<const I*>(iv);
  O* __restrict out = static_cast<O*>(ov);
  raster::loop::ForEachValid<false>(mask, n, [&](std::size_t k) PW_INLINE_LAMBDA {
    out[k] = cell(red[k], infrared[k]);
    return true;
  });
}

template <class I, class O>
struct Scientific {
  PW_ALWAYS_INLINE static void Run(const void* rv, const void* iv, void* ov, BYTE* mask,
                                   std::size_t n) {
    EachValid<I, O>(rv, iv, ov, mask, n, [](I red, I infrared) PW_INLINE_LAMBDA -> O {
      if constexpr (kSinglePrecision<I, O>) {
        const float r = static_cast<float>(red), i = static_cast<float>(infrared);
        const float s = i + r;
        const float q = (i - r) / (s == 0.0f ? 1.0f : s);
        return s == 0.0f ? 0.0f : q;
      } else {
        const double r = static_cast<double>(red), i = static_cast<double>(infrared);
        const double s = i + r;
        const double q = (i - r) / (s == 0.0 ? 1.0 : s);
        const double v = ZeroWhenNoSum<I>(q, s);
        if constexpr (std::is_integral_v<O>) {
          return raster::StoreTruncated<O>(std::floor(v + 0.5));
        } else {
          return static_cast<O>(v);
        }
      }
    });
  }
};

template <class I, class O>
struct Scaled {
  PW_ALWAYS_INLINE static void Run(const void* rv, const void* iv, void* ov, BYTE* mask,
                                   std::size_t n) {
    EachValid<I, O>(rv, iv, ov, mask, n, [](I red, I infrared) PW_INLINE_LAMBDA -> O {
      const double r = static_cast<double>(red), i = static_cast<double>(infrared);
      const double s = i + r;
      const double q = (i - r) / (s == 0.0 ? 1.0 : s);
      const double v = ZeroWhenNoSum<I>(q * 100.0 + 100.0 + 0.5, s);
      if constexpr (std::is_unsigned_v<I> && std::is_integral_v<O>) {
        // Non-negative values give an index in [-1, 1], so v lies in [0.5, 200.5].
        return static_cast<O>(static_cast<std::int32_t>(v));
      } else {
        return raster::StoreTruncated<O>(std::trunc(v));
      }
    });
  }
};

}  // namespace

Kernel SelectKernel(LONG input, LONG output, bool scientific, raster::simd::Isa isa) {
  Kernel kernel = nullptr;
  raster::VisitPixelTypes(input, output, [&](auto it, auto ot) {
    using I = typename decltype(it)::type;
    using O = typename decltype(ot)::type;
    kernel = scientific ? raster::simd::Variants<Scientific<I, O>, Kernel>::For(isa)
                        : raster::simd::Variants<Scaled<I, O>, Kernel>::For(isa);
  });
  return kernel;
}

double ReferencePixel(double red, double infrared, LONG output, bool scientific) {
  const double sum = infrared + red;
  double v = sum == 0 ? 0 : (infrared - red) / sum;
  if (scientific) {
    if (raster::IsIntegerPixelType(output)) v = std::floor(v + 0.5);
  } else {
    v = sum == 0 ? 0 : std::trunc(v * 100.0 + 100.0 + 0.5);
  }
  double stored = 0;
  raster::VisitPixelType(output, [&](auto tag) {
    using O = typename decltype(tag)::type;
    stored = static_cast<double>(raster::StoreTruncated<O>(v));
  });
  return stored;
}

}  // namespace pw::functions::ndvi
