// Remapping values by rules.
#include "raster/algorithms/remap.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "raster/algorithms/pixel_loop.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"

namespace pw::raster::remap {
namespace {

constexpr std::uint64_t kNoDataBits = 0x7FF8000000000001ull;
constexpr double kDenseLimit = 4194304, kSmallDenseLimit = 65536;
constexpr std::size_t kSmallRuleCount = 8;

// The key of a single value: its bits, with -0 as 0.
std::uint64_t Key(double v) {
  return std::bit_cast<std::uint64_t>(v == 0 ? 0.0 : v);
}

}  // namespace

double NoDataOutput() {
  return std::bit_cast<double>(kNoDataBits);
}

bool IsNoDataOutput(double v) {
  return std::isnan(v);
}

void Rules::Add(double lo, double hi, double value) {
  low.push_back(lo);
  high.push_back(hi);
  out.push_back(value);
  lowest = std::min(lowest, lo);
  highest = std::max(highest, hi);
}

Structure ChooseStructure(const Rules& rules, LONG inputType) {
  const bool integer = inputType >= 0 && inputType <= 8;
  if (integer && rules.Size() > 0 && !(rules.lowest > rules.highest)) {
    const double span = std::trunc(rules.highest - rules.lowest + 0.5);
    if (!(span > kDenseLimit) && !(span > kSmallDenseLimit && rules.Size() < kSmallRuleCount))
      return Structure::kDenseTable;
  }
  bool singles = true;
  for (std::size_t i = 0; i < rules.Size(); ++i) singles = singles && rules.low[i] >= rules.high[i];
  return singles && rules.Size() > 0 ? Structure::kHash : Structure::kRuleList;
}

Remapper::Remapper(Rules rules, LONG inputType, Options options)
    : rules_(std::move(rules)),
      inputType_(inputType),
      options_(options),
      structure_(ChooseStructure(rules_, inputType)) {
  if (structure_ == Structure::kDenseTable) {
    const auto span = static_cast<std::size_t>(std::trunc(rules_.highest - rules_.lowest + 0.5));
    dense_.assign(span + 1, kUnmatched);
    for (std::size_t r = 0; r < rules_.Size(); ++r) {
      const double a = rules_.low[r] - rules_.lowest, b = rules_.high[r] - rules_.lowest;
      if (a != b) {
        for (double k = std::ceil(a); k < b && k <= static_cast<double>(span); ++k)
          if (k >= 0) dense_[static_cast<std::size_t>(k)] = rules_.out[r];
      } else {
        const double k = std::trunc(a + 0.5);
        if (k >= 0 && k <= static_cast<double>(span))
          dense_[static_cast<std::size_t>(k)] = rules_.out[r];
      }
    }
  } else if (structure_ == Structure::kHash) {
    singles_.reserve(rules_.Size());
    for (std::size_t r = 0; r < rules_.Size(); ++r)
      singles_.emplace(Key(rules_.low[r]), rules_.out[r]);
  }
}

bool Remapper::ListSearch(double v, double* out) const {
  for (std::size_t r = 0; r < rules_.Size(); ++r) {
    if (v == rules_.low[r] || (rules_.low[r] < v && v < rules_.high[r])) {
      *out = rules_.out[r];
      return true;
    }
  }
  return false;
}

bool Remapper::Search(double v, double* out) const {
  switch (structure_) {
    case Structure::kDenseTable: {
      const double k = std::floor(v - rules_.lowest + 0.5);
      if (!(k >= 0 && k < static_cast<double>(dense_.size()))) return false;
      *out = dense_[static_cast<std::size_t>(k)];
      return *out != kUnmatched;
    }
    case Structure::kHash: {
      if (std::isnan(v)) return false;
      const auto it = singles_.find(Key(v));
      if (it == singles_.end()) return false;
      *out = it->second;
      return true;
    }
    case Structure::kRuleList:
      return ListSearch(v, out);
  }
  return false;
}

bool Remapper::Finish(double v, double found, bool matched, double* out) const {
  if (matched) {
    *out = found;
    return !IsNoDataOutput(found);
  }
  if (!options_.allowUnmatched) return false;
  *out = std::isnan(options_.replacement) ? v : options_.replacement;
  return true;
}

bool Remapper::Map(double v, double* out) const {
  double found = 0;
  const bool matched = Search(v, &found);
  return Finish(v, found, matched, out);
}

namespace {

// Pixel by pixel through `map(v, &out)`, zones and masks honoured.
template <class I, class O, class MapFn>
void Each(const I* in, BYTE* mask, std::size_t n, O* out, const ValueRange& range,
          const std::uint8_t* zones, MapFn&& map) {
  loop::ForEachValid<true>(mask, n, [&](std::size_t i) {
    const double v = static_cast<double>(in[i]);
    double mapped = v;
    if (zones == nullptr || zones[i] != 0) {
      if (!map(v, &mapped)) return false;
    }
    bool valid = true;
    out[i] = ConvertValue<O>(mapped, range, &valid);
    return valid;
  });
}

}  // namespace

HRESULT Remapper::Apply(LONG inType, const void* in, BYTE* mask, std::size_t pixels, LONG outType,
                        void* out, const std::uint8_t* zones) const {
  if (in == nullptr || mask == nullptr || out == nullptr) return E_POINTER;
  const ValueRange range = PixelRange(outType);
  const bool known = VisitPixelTypes(inType, outType, [&](auto it, auto ot) {
    using I = typename decltype(it)::type;
    using O = typename decltype(ot)::type;
    const I* values = static_cast<const I*>(in);
    O* to = static_cast<O*>(out);
    if constexpr (std::is_integral_v<I> && sizeof(I) <= 2) {
      // Every value's result once, then one lookup a pixel.
      constexpr auto lowest = static_cast<std::int32_t>(std::numeric_limits<I>::lowest());
      constexpr std::size_t size = std::size_t{1} << (8 * sizeof(I));
      std::vector<O> table(size);
      std::vector<std::uint8_t> keeps(size);
      for (std::size_t k = 0; k < size; ++k) {
        double mapped = 0;
        bool valid = Map(static_cast<double>(lowest + static_cast<std::int32_t>(k)), &mapped);
        if (valid) table[k] = ConvertValue<O>(mapped, range, &valid);
        keeps[k] = valid ? 1 : 0;
      }
      const O* __restrict t = table.data();
      const std::uint8_t* __restrict keep = keeps.data();
      if (zones == nullptr) {
        loop::ForEachValid<true>(mask, pixels, [&](std::size_t i) PW_INLINE_LAMBDA {
          const auto k = static_cast<std::size_t>(static_cast<std::int32_t>(values[i]) - lowest);
          to[i] = t[k];
          return keep[k] != 0;
        });
      } else {
        Each(values, mask, pixels, to, range, zones,
             [&](double v, double* o) { return Map(v, o); });
      }
    } else if (structure_ == Structure::kHash) {
      // Runs of equal values skip the lookup.
      double last = std::numeric_limits<double>::quiet_NaN(), lastOut = 0;
      bool lastValid = false;
      Each(values, mask, pixels, to, range, zones, [&](double v, double* o) {
        if (!(v == last)) {
          last = v;
          lastValid = Map(v, &lastOut);
        }
        *o = lastOut;
        return lastValid;
      });
    } else {
      Each(values, mask, pixels, to, range, zones, [&](double v, double* o) { return Map(v, o); });
    }
  });
  return known ? S_OK : E_NOTIMPL;
}

HRESULT Remapper::ApplyReference(LONG inType, const void* in, BYTE* mask, std::size_t pixels,
                                 LONG outType, void* out, const std::uint8_t* zones) const {
  if (in == nullptr || mask == nullptr || out == nullptr) return E_POINTER;
  const ValueRange range = PixelRange(outType);
  const bool known = VisitPixelTypes(inType, outType, [&](auto it, auto ot) {
    using I = typename decltype(it)::type;
    using O = typename decltype(ot)::type;
    for (std::size_t i = 0; i < pixels; ++i) {
      if (!mask::Get(mask, i)) continue;
      const double v = static_cast<double>(static_cast<const I*>(in)[i]);
      double mapped = v;
      bool valid = true;
      if (zones == nullptr || zones[i] != 0) {
        double found = 0;
        const bool matched = ListSearch(v, &found);
        valid = Finish(v, found, matched, &mapped);
      }
      if (valid) static_cast<O*>(out)[i] = ConvertValue<O>(mapped, range, &valid);
      if (!valid) mask::Clear(mask, i);
    }
  });
  return known ? S_OK : E_NOTIMPL;
}

}  // namespace pw::raster::remap
