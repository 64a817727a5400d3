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

template <class I, class O>
void Scientific(const void* rv, const void* iv, void* ov, BYTE* mask, std::size_t n) {
  const I* __restrict red = static_cast<const I*>(rv);
  const I* __restrict infrared = static_cast<const I*>(iv);
  O* __restrict out = static_cast<O*>(ov);
  raster::loop::ForEachValid<false>(mask, n, [&](std::size_t k) {
    if constexpr (kSinglePrecision<I, O>) {
      const float r = static_cast<float>(red[k]), i = static_cast<float>(infrared[k]);
      const float s = i + r;
      const float q = (i - r) / (s == 0.0f ? 1.0f : s);
      out[k] = s == 0.0f ? 0.0f : q;
    } else {
      const double r = static_cast<double>(red[k]), i = static_cast<double>(infrared[k]);
      const double s = i + r;
      const double q = (i - r) / (s == 0.0 ? 1.0 : s);
      const double v = s == 0.0 ? 0.0 : q;
      if constexpr (std::is_integral_v<O>) {
        out[k] = raster::StoreTruncated<O>(std::floor(v + 0.5));
      } else {
        out[k] = static_cast<O>(v);
      }
    }
    return true;
  });
}

template <class I, class O>
void Scaled(const void* rv, const void* iv, void* ov, BYTE* mask, std::size_t n) {
  const I* __restrict red = static_cast<const I*>(rv);
  const I* __restrict infrared = static_cast<const I*>(iv);
  O* __restrict out = static_cast<O*>(ov);
  raster::loop::ForEachValid<false>(mask, n, [&](std::size_t k) {
    const double r = static_cast<double>(red[k]), i = static_cast<double>(infrared[k]);
    const double s = i + r;
    const double q = (i - r) / (s == 0.0 ? 1.0 : s);
    const double v = s == 0.0 ? 0.0 : q * 100.0 + 100.0 + 0.5;
    if constexpr (std::is_unsigned_v<I> && std::is_integral_v<O>) {
      // Non-negative values give an index in [-1, 1], so v lies in [0.5, 200.5].
      out[k] = static_cast<O>(static_cast<std::int32_t>(v));
    } else {
      out[k] = raster::StoreTruncated<O>(std::trunc(v));
    }
    return true;
  });
}

}  // namespace

Kernel SelectKernel(LONG input, LONG output, bool scientific) {
  Kernel kernel = nullptr;
  raster::VisitPixelTypes(input, output, [&](auto it, auto ot) {
    using I = typename decltype(it)::type;
    using O = typename decltype(ot)::type;
    kernel = scientific ? &Scientific<I, O> : &Scaled<I, O>;
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
