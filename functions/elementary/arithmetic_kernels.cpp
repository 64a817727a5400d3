// Arithmetic kernels: templates over the loaded, computing and stored C++ types and the
// operation, instantiated once per combination and picked from a table at bind.
#include "functions/elementary/arithmetic_kernels.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "com/text.h"
#include "raster/algorithms/pixel_loop.h"

namespace pw::functions::arithmetic {

LONG PromotePixelType(LONG common, LONG operation) {
  LONG code = common;
  if (code >= 7) {
    code = 10;
  } else if (operation == kPower) {
    code = 8;
  } else if (operation == kPlus || operation == kTimes) {
    code += 2;
  } else if (operation == kMinus) {
    if (code == 4 || code == 6) code += 2;
    if (code == 3 || code == 5) code += 3;
  }
  if (operation == kMode && code >= 9) code = 8;
  return code;
}

LONG OperationFromText(std::u16string_view text) {
  static constexpr struct {
    std::u16string_view name;
    LONG code;
  } kNames[] = {{u"plus", kPlus},
                {u"+", kPlus},
                {u"add", kPlus},
                {u"minus", kMinus},
                {u"-", kMinus},
                {u"subtract", kMinus},
                {u"times", kTimes},
                {u"*", kTimes},
                {u"multiply", kTimes},
                {u"divide", kDivide},
                {u"/", kDivide},
                {u"power", kPower},
                {u"^", kPower},
                {u"**", kPower},
                {u"mode", kMode},
                {u"%", kMode},
                {u"mod", kMode},
                {u"modulo", kMode},
                {u"fractiondifference", kFractionDifference},
                {u"fraction difference", kFractionDifference}};
  while (!text.empty() && text.front() == u' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == u' ') text.remove_suffix(1);
  for (const auto& n : kNames)
    if (EqualsNoCase(text, n.name)) return n.code;
  LONG code = 0;
  for (char16_t c : text) {
    if (c < u'0' || c > u'9' || code > 1000) return 0;
    code = code * 10 + (c - u'0');
  }
  return code;
}

namespace {

using raster::ValueRange;

// Integer arithmetic of a computing type: wide enough that the operation cannot overflow.
template <class C, LONG kOp>
using Accum = std::conditional_t<
    (sizeof(C) == 1 || (sizeof(C) == 2 && (kOp != kTimes || std::is_signed_v<C>))), std::int32_t,
    std::conditional_t<
        sizeof(C) == 2, std::uint32_t,
        std::conditional_t<(kOp == kTimes && std::is_unsigned_v<C>), std::uint64_t, std::int64_t>>>;

template <LONG kOp, class A>
inline A Apply(A a, A b) {
  if constexpr (kOp == kPlus) return a + b;
  if constexpr (kOp == kMinus) return a - b;
  if constexpr (kOp == kTimes) return a * b;
}

// An output bound as a value of the integer type A (every A value lies in A's range, so
// clamping with the bound cut to that range is the same clamp).
template <class A>
inline A Bound(double v) {
  constexpr double lo = static_cast<double>(std::numeric_limits<A>::lowest());
  constexpr double hi = static_cast<double>(std::numeric_limits<A>::max());
  if (v <= lo) return std::numeric_limits<A>::lowest();
  if (v >= hi) return std::numeric_limits<A>::max();
  return static_cast<A>(v);
}

// Clamping and rounding of a result: below the range gives its minimum, else the smaller
// of the maximum and v (so NaN gives the maximum); integer outputs round half up.
template <class O>
inline O ClampRound(double v, double lo, double hi) {
  const double c = lo > v ? lo : (v < hi ? v : hi);
  if constexpr (std::is_integral_v<O>) {
    return static_cast<O>(std::floor(c + 0.5));
  } else {
    return static_cast<O>(c);
  }
}

// Truncation to a 64-bit integer for the remainder of float operands (saturating; NaN 0).
inline std::int64_t TruncateToInt64(double v) {
  constexpr double kLimit = 9223372036854775807.0;
  if (!(v == v)) return 0;
  if (v >= kLimit) return std::numeric_limits<std::int64_t>::max();
  if (v <= -kLimit) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(v);
}

inline std::int64_t Remainder(std::int64_t a, std::int64_t b) {
  return b == -1 ? 0 : a % (b == 0 ? 1 : b);
}

// Plus, minus and times in the arithmetic of the computing type, as a double.
template <LONG kOp, class C>
inline double Evaluate(C a, C b) {
  if constexpr (std::is_floating_point_v<C>) {
    return static_cast<double>(Apply<kOp, C>(a, b));
  } else {
    using A = Accum<C, kOp>;
    return static_cast<double>(Apply<kOp, A>(static_cast<A>(a), static_cast<A>(b)));
  }
}

template <class L, class C, class O, LONG kOp>
void Run(const void* av, const void* bv, void* ov, BYTE* mask, std::size_t n, const Params& p) {
  const L* __restrict a = static_cast<const L*>(av);
  const L* __restrict b = static_cast<const L*>(bv);
  O* __restrict out = static_cast<O*>(ov);
  const double lo = p.output.lowest, hi = p.output.highest;
  if constexpr (kOp == kPlus || kOp == kMinus || kOp == kTimes) {
    if constexpr (std::is_integral_v<C> && std::is_integral_v<O>) {
      // Exact in the integer type, clamped there: the same result as through a double.
      using A = Accum<C, kOp>;
      const A low = Bound<A>(lo), high = Bound<A>(hi);
      raster::loop::ForEachValid<false>(mask, n, [&](std::size_t i) {
        A v = Apply<kOp, A>(static_cast<A>(static_cast<C>(a[i])),
                            static_cast<A>(static_cast<C>(b[i])));
        v = v < low ? low : (v > high ? high : v);
        out[i] = static_cast<O>(v);
        return true;
      });
    } else {
      raster::loop::ForEachValid<false>(mask, n, [&](std::size_t i) {
        out[i] =
            ClampRound<O>(Evaluate<kOp, C>(static_cast<C>(a[i]), static_cast<C>(b[i])), lo, hi);
        return true;
      });
    }
  } else if constexpr (kOp == kDivide) {
    raster::loop::ForEachValid<true>(mask, n, [&](std::size_t i) {
      const double d = static_cast<double>(static_cast<C>(b[i]));
      out[i] = ClampRound<O>(static_cast<double>(static_cast<C>(a[i])) / d, lo, hi);
      return d != 0;
    });
  } else if constexpr (kOp == kPower) {
    raster::loop::ForEachValid<true>(mask, n, [&](std::size_t i) {
      const double v = std::pow(static_cast<double>(static_cast<C>(a[i])),
                                static_cast<double>(static_cast<C>(b[i])));
      out[i] = ClampRound<O>(v, lo, hi);
      return v == v;
    });
  } else if constexpr (kOp == kMode) {
    raster::loop::ForEachValid<true>(mask, n, [&](std::size_t i) {
      std::int64_t x, y;
      bool ok;
      if constexpr (std::is_floating_point_v<C>) {
        const C bb = static_cast<C>(b[i]);
        x = TruncateToInt64(static_cast<double>(static_cast<C>(a[i])));
        y = TruncateToInt64(static_cast<double>(bb));
        ok = bb != 0 && y != 0;
      } else {
        x = static_cast<std::int64_t>(static_cast<C>(a[i]));
        y = static_cast<std::int64_t>(static_cast<C>(b[i]));
        ok = y != 0;
      }
      const std::int64_t r = Remainder(x, y);
      if constexpr (std::is_integral_v<O>) {
        out[i] = static_cast<O>(r);
      } else {
        out[i] = static_cast<O>(static_cast<double>(r));
      }
      return ok;
    });
  } else {
    static_assert(kOp == kFractionDifference);
    const bool absolute = p.absoluteTolerance;
    const double tolerance = p.tolerance;
    raster::loop::ForEachValid<true>(mask, n, [&](std::size_t i) {
      const double x = static_cast<double>(static_cast<C>(a[i]));
      const double y = static_cast<double>(static_cast<C>(b[i]));
      const double d = std::fabs(x - y);
      const double test = absolute ? d : d / y;
      const double v = tolerance > test ? 0.0 : d;
      if constexpr (std::is_integral_v<O>) {
        out[i] = raster::StoreTruncated<O>(std::floor(v + 0.5));
      } else {
        out[i] = static_cast<O>(v);
      }
      return absolute || y != 0;
    });
  }
}

template <class L, class C, class O>
Kernel ForOperation(LONG operation) {
  switch (operation) {
    case kPlus:
      return &Run<L, C, O, kPlus>;
    case kMinus:
      return &Run<L, C, O, kMinus>;
    case kTimes:
      return &Run<L, C, O, kTimes>;
    case kDivide:
      return &Run<L, C, O, kDivide>;
    case kPower:
      return &Run<L, C, O, kPower>;
    case kMode:
      return &Run<L, C, O, kMode>;
    case kFractionDifference:
      return &Run<L, C, O, kFractionDifference>;
    default:
      return nullptr;
  }
}

// Storage types whose every value the wider type holds exactly.
template <class L, class C>
constexpr bool kWidens =
    !std::is_same_v<L, C> &&
    ((std::is_integral_v<L> && std::is_integral_v<C> && sizeof(L) < sizeof(C) &&
      (std::is_signed_v<C> || std::is_unsigned_v<L>)) ||
     (std::is_integral_v<L> && std::is_same_v<C, float> && sizeof(L) <= 2) ||
     (std::is_integral_v<L> && std::is_same_v<C, double> && sizeof(L) <= 4) ||
     (std::is_same_v<L, float> && std::is_same_v<C, double>));

bool SameStorage(LONG a, LONG b) {
  return a == b || (a >= 0 && a <= 3 && b >= 0 && b <= 3);
}

}  // namespace

bool LoadsDirectly(LONG load, LONG calc) {
  if (!raster::IsKnownPixelType(load) || !raster::IsKnownPixelType(calc)) return false;
  if (SameStorage(load, calc)) return true;
  const ValueRange l = raster::PixelRange(load), c = raster::PixelRange(calc);
  if (l.lowest < c.lowest || l.highest > c.highest) return false;
  bool widens = false;
  raster::VisitPixelTypes(load, calc, [&](auto lt, auto ct) {
    widens = kWidens<typename decltype(lt)::type, typename decltype(ct)::type>;
  });
  return widens;
}

Kernel SelectKernel(LONG load, LONG calc, LONG out, LONG operation) {
  if (!IsOperation(operation)) return nullptr;
  Kernel kernel = nullptr;
  if (SameStorage(load, calc)) {
    raster::VisitPixelTypes(calc, out, [&](auto ct, auto ot) {
      using C = typename decltype(ct)::type;
      kernel = ForOperation<C, C, typename decltype(ot)::type>(operation);
    });
    return kernel;
  }
  if (!SameStorage(out, calc) || !LoadsDirectly(load, calc)) return nullptr;
  raster::VisitPixelTypes(load, calc, [&](auto lt, auto ct) {
    using L = typename decltype(lt)::type;
    using C = typename decltype(ct)::type;
    if constexpr (kWidens<L, C>) kernel = ForOperation<L, C, C>(operation);
  });
  return kernel;
}

bool ReferencePixel(double a, double b, LONG calc, LONG out, const Params& p, double* stored) {
  const ValueRange range = p.output;
  const bool floatCalc = calc == 9 || calc == 10;
  const bool integerOut = raster::IsIntegerPixelType(out);
  double v = 0;
  bool clamp = true, round = integerOut;
  switch (p.operation) {
    case kPlus:
    case kMinus:
    case kTimes: {
      if (calc == 9) {
        const float x = static_cast<float>(a), y = static_cast<float>(b);
        v = p.operation == kPlus ? x + y : p.operation == kMinus ? x - y : x * y;
      } else if (p.operation == kTimes && !floatCalc) {
        // A product of 32-bit integers may need 64 bits: exact, then rounded once.
        const auto x = static_cast<long double>(a), y = static_cast<long double>(b);
        v = static_cast<double>(x * y);
      } else {
        v = p.operation == kPlus ? a + b : p.operation == kMinus ? a - b : a * b;
      }
      break;
    }
    case kDivide:
      if (b == 0) return false;
      v = a / b;
      break;
    case kPower:
      v = std::pow(a, b);
      if (std::isnan(v)) return false;
      break;
    case kMode: {
      // Remainder of the operands truncated to 64-bit integers (saturating), stored without
      // clamping: integer outputs keep the low bits.
      if (b == 0) return false;
      auto whole = [](double x) -> std::int64_t {
        if (std::isnan(x)) return 0;
        if (x >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
        if (x <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
        return static_cast<std::int64_t>(std::trunc(x));
      };
      const std::int64_t x = whole(a), y = whole(b);
      if (y == 0) return false;
      const std::int64_t r = y == -1 ? 0 : x % y;
      raster::VisitPixelType(out, [&](auto tag) {
        using O = typename decltype(tag)::type;
        if constexpr (std::is_integral_v<O>) {
          *stored = static_cast<double>(static_cast<O>(r));
        } else {
          *stored = static_cast<double>(static_cast<O>(static_cast<double>(r)));
        }
      });
      (void)floatCalc;
      return true;
    }
    case kFractionDifference: {
      const double d = std::fabs(a - b);
      double test = d;
      if (!p.absoluteTolerance) {
        if (b == 0) return false;
        test = d / b;
      }
      v = p.tolerance > test ? 0 : d;
      clamp = false;
      if (integerOut) v = std::floor(v + 0.5);
      round = false;
      break;
    }
    default:
      return false;
  }
  if (clamp) {
    if (v < range.lowest) {
      v = range.lowest;
    } else if (!(v <= range.highest)) {
      v = range.highest;
    }
  }
  if (round) v = std::floor(v + 0.5);
  raster::VisitPixelType(out, [&](auto tag) {
    *stored = static_cast<double>(raster::StoreTruncated<typename decltype(tag)::type>(v));
  });
  return true;
}

}  // namespace pw::functions::arithmetic
