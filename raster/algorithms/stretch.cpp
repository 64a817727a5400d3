// The raster stretch.
#include "raster/algorithms/stretch.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "raster/algorithms/pixel_loop.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"

namespace pw::raster::stretch {
namespace {

// The value where the cumulative share of the counts first exceeds `percent` from the low
// end (or, with `fromTop`, from the high end), at the bin's outer edge.
double Clip(const Histogram& h, double percent, bool fromTop) {
  double total = 0;
  for (double c : h.counts) total += c;
  const std::size_t n = h.counts.size();
  const double width = (h.high - h.low) / static_cast<double>(n);
  const double cut = total * std::clamp(percent, 0.0, 100.0) / 100.0;
  double seen = 0;
  for (std::size_t k = 0; k < n; ++k) {
    const std::size_t i = fromTop ? n - 1 - k : k;
    seen += h.counts[i];
    if (seen > cut)
      return fromTop ? h.low + width * static_cast<double>(i + 1)
                     : h.low + width * static_cast<double>(i);
  }
  return fromTop ? h.low : h.high;
}

// The output type's conversion of a mapped value.
template <class O>
O Store(double v, const ValueRange& range) {
  bool valid = true;
  return ConvertValue<O>(v, range, &valid);
}

// Integer inputs of up to 16 bits: every value's output once, then a lookup a pixel.
template <class I, class O>
void Table(const BandMapping& m, const I* in, const BYTE* mask, std::size_t n,
           const ValueRange& range, O* out) {
  constexpr auto lowest = static_cast<std::int32_t>(std::numeric_limits<I>::lowest());
  constexpr std::size_t size = std::size_t{1} << (8 * sizeof(I));
  std::vector<O> table(size);
  for (std::size_t k = 0; k < size; ++k)
    table[k] = Store<O>(m(static_cast<double>(lowest + static_cast<std::int32_t>(k))), range);
  const O* __restrict t = table.data();
  const I* __restrict values = in;
  O* __restrict to = out;
  loop::ForEachValid<false>(const_cast<BYTE*>(mask), n, [&](std::size_t i) PW_INLINE_LAMBDA {
    to[i] = t[static_cast<std::int32_t>(values[i]) - lowest];
  });
}

}  // namespace

std::optional<Range> InputRange(const Settings& s, const BandStatistics& st,
                                const Histogram* histogram) {
  switch (s.type) {
    case kNone:
    case kMinimumMaximum:
    case kSigmoid:
      return Range{st.min, st.max};
    case kStandardDeviation:
      return Range{st.mean - s.deviations * st.deviation, st.mean + s.deviations * st.deviation};
    case kPercentClip:
      if (histogram == nullptr || histogram->counts.empty()) return std::nullopt;
      return Range{Clip(*histogram, s.minPercent, false), Clip(*histogram, s.maxPercent, true)};
    default:
      return std::nullopt;
  }
}

std::vector<double> ComputeSigmoidLUT(int level, std::size_t entries) {
  const double k = 4.0 * std::clamp(level, 1, 6);
  auto s = [&](double x) { return 1.0 / (1.0 + std::exp(-k * (x - 0.5))); };
  const double low = s(0), high = s(1);
  std::vector<double> table(std::max<std::size_t>(entries, 2));
  for (std::size_t i = 0; i < table.size(); ++i) {
    const double x = static_cast<double>(i) / static_cast<double>(table.size() - 1);
    table[i] = (s(x) - low) / (high - low);
  }
  return table;
}

double ComputeGamma(const BandStatistics& st, const Range& r) {
  if (!(r.high > r.low)) return 1;
  const double t = (st.mean - r.low) / (r.high - r.low);
  if (!(t > 0)) return 10;
  if (!(t < 1)) return 0.1;
  // t^(1 / gamma) = 0.5.
  return std::clamp(std::log(t) / std::log(0.5), 0.1, 10.0);
}

double BandMapping::operator()(double v) const {
  double t = range.high > range.low ? (v - range.low) / (range.high - range.low) : 0.0;
  t = std::clamp(t, 0.0, 1.0);
  if (sigmoid != nullptr && sigmoid->size() > 1) {
    const double at = t * static_cast<double>(sigmoid->size() - 1);
    const auto i = std::min(static_cast<std::size_t>(at), sigmoid->size() - 2);
    const double f = at - static_cast<double>(i);
    t = (*sigmoid)[i] + f * ((*sigmoid)[i + 1] - (*sigmoid)[i]);
  }
  if (gamma != 1 && gamma > 0) t = std::pow(t, 1 / gamma);
  return min + (max - min) * t;
}

HRESULT ApplyReference(const BandMapping& m, LONG inType, const void* in, const BYTE* mask,
                       std::size_t pixels, LONG outType, void* out) {
  if (in == nullptr || mask == nullptr || out == nullptr) return E_POINTER;
  const ValueRange range = PixelRange(outType);
  const bool done = VisitPixelTypes(inType, outType, [&](auto it, auto ot) {
    using I = typename decltype(it)::type;
    using O = typename decltype(ot)::type;
    for (std::size_t i = 0; i < pixels; ++i)
      if (mask::Get(mask, i))
        static_cast<O*>(out)[i] =
            Store<O>(m(static_cast<double>(static_cast<const I*>(in)[i])), range);
  });
  return done ? S_OK : E_INVALIDARG;
}

HRESULT Apply(const BandMapping& m, LONG inType, const void* in, const BYTE* mask,
              std::size_t pixels, LONG outType, void* out) {
  if (in == nullptr || mask == nullptr || out == nullptr) return E_POINTER;
  const ValueRange range = PixelRange(outType);
  bool table = false;
  const bool known = VisitPixelTypes(inType, outType, [&](auto it, auto ot) {
    using I = typename decltype(it)::type;
    using O = typename decltype(ot)::type;
    if constexpr (std::is_integral_v<I> && sizeof(I) <= 2) {
      Table(m, static_cast<const I*>(in), mask, pixels, range, static_cast<O*>(out));
      table = true;
    }
  });
  if (!known) return E_INVALIDARG;
  // Wider and floating inputs: the mapping a pixel.
  return table ? S_OK : ApplyReference(m, inType, in, mask, pixels, outType, out);
}

}  // namespace pw::raster::stretch
