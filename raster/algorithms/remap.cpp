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
      structure_(ChooseStructure(rules_, inputType)),
      tables_(std::make_unique<ValueTable[]>(11)) {
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
  } else if (structure_ == Structure::kRuleList && rules_.lowest < rules_.highest &&
             std::isfinite(rules_.highest - rules_.lowest)) {
    BuildBuckets();
  } else if (structure_ == Structure::kHash) {
    singles_.reserve(rules_.Size());
    for (std::size_t r = 0; r < rules_.Size(); ++r)
      singles_.emplace(Key(rules_.low[r]), rules_.out[r]);
  }
}

void Remapper::BuildBuckets() {
  // Equal buckets over [lowest, highest): each holds the number of the first rule that
  // matches all of it (0: none), or -1 where a rule's end lies in it or in a neighbour, so
  // that a value whose bucket comes out one off by rounding still finds the right answer.
  const std::size_t count = std::clamp<std::size_t>(64 * rules_.Size(), 1024, 65536);
  bucketScale_ = static_cast<double>(count) / (rules_.highest - rules_.lowest);
  buckets_.assign(count, 0);
  std::vector<std::uint8_t> edge(count, 0);
  const auto mark = [&](double end) {
    const double t = (end - rules_.lowest) * bucketScale_;
    if (!(t > -2 && t < static_cast<double>(count) + 1)) return;
    const auto k = static_cast<std::int64_t>(std::floor(t));
    for (std::int64_t j = k - 1; j <= k + 1; ++j)
      if (j >= 0 && j < static_cast<std::int64_t>(count)) edge[static_cast<std::size_t>(j)] = 1;
  };
  for (std::size_t r = 0; r < rules_.Size(); ++r) {
    mark(rules_.low[r]);
    mark(rules_.high[r]);
  }
  for (std::size_t k = 0; k < count; ++k) {
    if (edge[k]) {
      buckets_[k] = -1;
      continue;
    }
    const double middle = rules_.lowest + (static_cast<double>(k) + 0.5) / bucketScale_;
    std::int32_t code = 0;
    for (std::size_t r = 0; r < rules_.Size() && code == 0; ++r)
      if (middle == rules_.low[r] || (rules_.low[r] < middle && middle < rules_.high[r]))
        code = static_cast<std::int32_t>(r + 1);
    buckets_[k] = code;
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

const Remapper::ValueTable& Remapper::TableFor(LONG outType) const {
  ValueTable& t = tables_[static_cast<std::size_t>(outType)];
  std::call_once(t.once, [&] {
    const ValueRange range = PixelRange(outType);
    VisitPixelTypes(inputType_, outType, [&](auto it, auto ot) {
      using I = typename decltype(it)::type;
      using O = typename decltype(ot)::type;
      if constexpr (std::is_integral_v<I> && sizeof(I) <= 2) {
        constexpr auto lowest = static_cast<std::int32_t>(std::numeric_limits<I>::lowest());
        constexpr std::size_t size = std::size_t{1} << (8 * sizeof(I));
        t.values.assign(size * sizeof(O), 0);
        t.keep.assign(size, 0);
        O* values = reinterpret_cast<O*>(t.values.data());
        for (std::size_t k = 0; k < size; ++k) {
          double mapped = 0;
          bool valid = Map(static_cast<double>(lowest + static_cast<std::int32_t>(k)), &mapped);
          if (valid) values[k] = ConvertValue<O>(mapped, range, &valid);
          t.keep[k] = valid ? 1 : 0;
          t.keepsAll = t.keepsAll && valid;
        }
      }
    });
  });
  return t;
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

// Whole-value tables: one lookup a pixel for the value, and where some values do not stay
// valid, eight lookups a mask byte.
template <class I, class O>
void Lookup(const I* __restrict in, BYTE* __restrict mask, std::size_t n, O* __restrict out,
            const O* __restrict values, const std::uint8_t* __restrict keep, bool keepsAll) {
  constexpr auto lowest = static_cast<std::int32_t>(std::numeric_limits<I>::lowest());
  const auto at = [&](std::size_t i) {
    return static_cast<std::size_t>(static_cast<std::int32_t>(in[i]) - lowest);
  };
  for (std::size_t i = 0; i < n; ++i) out[i] = values[at(i)];
  if (keepsAll) return;
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    unsigned bits = 0;
    for (unsigned k = 0; k < 8; ++k) bits |= static_cast<unsigned>(keep[at(i + k)]) << (7 - k);
    mask[i / 8] = static_cast<BYTE>(mask[i / 8] & bits);
  }
  for (; i < n; ++i)
    if (!keep[at(i)]) mask::Clear(mask, i);
}

}  // namespace

HRESULT Remapper::Apply(LONG inType, const void* in, BYTE* mask, std::size_t pixels, LONG outType,
                        void* out, const std::uint8_t* zones) const {
  if (in == nullptr || mask == nullptr || out == nullptr) return E_POINTER;
  if (outType < 0 || outType > 10) return E_NOTIMPL;
  const ValueRange range = PixelRange(outType);
  const bool known = VisitPixelTypes(inType, outType, [&](auto it, auto ot) {
    using I = typename decltype(it)::type;
    using O = typename decltype(ot)::type;
    const I* values = static_cast<const I*>(in);
    O* to = static_cast<O*>(out);
    if constexpr (std::is_integral_v<I> && sizeof(I) <= 2) {
      if (zones == nullptr && inType == inputType_) {
        const ValueTable& t = TableFor(outType);
        Lookup(values, mask, pixels, to, reinterpret_cast<const O*>(t.values.data()), t.keep.data(),
               t.keepsAll);
        return;
      }
    }
    if (structure_ == Structure::kHash) {
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
    } else if (structure_ == Structure::kRuleList && !buckets_.empty() && zones == nullptr) {
      // Most values find their rule in one bucket lookup; values near a rule's end, and
      // outside every rule, search the list. Each rule's output is converted once.
      const std::size_t count = rules_.Size();
      std::vector<O> ruleValue(count + 1);
      std::vector<std::uint8_t> ruleKeep(count + 1, 0);
      for (std::size_t r = 0; r < count; ++r) {
        bool valid = !IsNoDataOutput(rules_.out[r]);
        if (valid) ruleValue[r + 1] = ConvertValue<O>(rules_.out[r], range, &valid);
        ruleKeep[r + 1] = valid ? 1 : 0;
      }
      const double lowest = rules_.lowest, scale = bucketScale_;
      const auto size = static_cast<double>(buckets_.size());
      const std::int32_t* bucket = buckets_.data();
      std::uint8_t keep[8];
      std::size_t i = 0;
      for (; i < pixels; i += 8) {
        const std::size_t m = std::min<std::size_t>(8, pixels - i);
        for (std::size_t k = 0; k < m; ++k) {
          const double x = static_cast<double>(values[i + k]);
          const double t = (x - lowest) * scale;
          const bool inside = t >= 0 && t < size;
          const std::int32_t code = inside ? bucket[static_cast<std::size_t>(inside ? t : 0)] : -1;
          if (code > 0) {
            to[i + k] = ruleValue[static_cast<std::size_t>(code)];
            keep[k] = ruleKeep[static_cast<std::size_t>(code)];
            continue;
          }
          double found = 0, mapped = x;
          const bool matched = code < 0 && ListSearch(x, &found);
          bool valid = Finish(x, found, matched, &mapped);
          if (valid) to[i + k] = ConvertValue<O>(mapped, range, &valid);
          keep[k] = valid ? 1 : 0;
        }
        unsigned bits = 0;
        for (std::size_t k = 0; k < m; ++k) bits |= static_cast<unsigned>(keep[k]) << (7 - k);
        if (m < 8) bits |= (1u << (8 - m)) - 1;  // bits past the end stay as they are
        mask[i / 8] = static_cast<BYTE>(mask[i / 8] & bits);
      }
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
