// Focal statistics of window bands.
#include "raster/algorithms/focal_statistics.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

#include "raster/mask.h"
#include "raster/pixel_traits.h"

namespace pw::raster::focal {
namespace {

using neighbourhood::Target;
using neighbourhood::Window;

__extension__ typedef __int128 Wide;

// Sums of a window sliding down a band: Row(r) gives, for output row r (taken in order),
// the sums over the window of every output cell, from `row(g, values)`, which fills grown
// row g; each grown row is made once and kept in a ring of the window's rows. Windows up
// to eight rows add their rows afresh for every output row, taller ones keep running
// column sums (one add and one subtract a cell, made afresh every 64 rows so that rounding
// cannot drift); across, windows up to eight wide add their columns, wider ones run.
template <class A>
class SlidingSums {
 public:
  SlidingSums(std::size_t stride, std::size_t width, LONG columns, LONG rows)
      : stride_(stride),
        width_(width),
        kc_(static_cast<std::size_t>(columns)),
        kr_(static_cast<std::size_t>(rows)),
        col_(stride),
        ring_(stride * kr_) {}

  template <class RowFn>
  void Row(LONG r, RowFn&& row, A* out) {
    const std::size_t at = static_cast<std::size_t>(r);
    A* __restrict col = col_.data();
    auto slot = [&](std::size_t g) { return ring_.data() + (g % kr_) * stride_; };
    if (at == 0) {
      for (std::size_t g = 0; g < kr_; ++g) row(static_cast<LONG>(g), slot(g));
    } else if (kr_ > kDirect && at % kRefresh != 0) {
      A* __restrict old = slot(at - 1);
      for (std::size_t c = 0; c < stride_; ++c) col[c] = static_cast<A>(col[c] - old[c]);
      row(static_cast<LONG>(at + kr_ - 1), old);
      for (std::size_t c = 0; c < stride_; ++c) col[c] = static_cast<A>(col[c] + old[c]);
    } else {
      row(static_cast<LONG>(at + kr_ - 1), slot(at + kr_ - 1));
    }
    if (at == 0 || kr_ <= kDirect || at % kRefresh == 0) {
      std::fill(col_.begin(), col_.end(), A{0});
      for (std::size_t g = at; g < at + kr_; ++g) {
        const A* __restrict v = slot(g);
        for (std::size_t c = 0; c < stride_; ++c) col[c] = static_cast<A>(col[c] + v[c]);
      }
    }
    if (kc_ <= kDirect) {
      for (std::size_t c = 0; c < width_; ++c) out[c] = col[c];
      for (std::size_t j = 1; j < kc_; ++j)
        for (std::size_t c = 0; c < width_; ++c) out[c] = static_cast<A>(out[c] + col[c + j]);
    } else {
      A s{0};
      for (std::size_t j = 0; j < kc_; ++j) s = static_cast<A>(s + col[j]);
      out[0] = s;
      for (std::size_t c = 1; c < width_; ++c) {
        s = static_cast<A>(s + col[c + kc_ - 1] - col[c - 1]);
        out[c] = s;
      }
    }
  }

 private:
  static constexpr std::size_t kDirect = 8, kRefresh = 64;
  std::size_t stride_, width_, kc_, kr_;
  std::vector<A> col_, ring_;
};

// The band's cells as bytes (1 valid), all grown rows.
std::vector<std::uint8_t> Validity(const Window& in) {
  const std::size_t n = in.Stride() * static_cast<std::size_t>(in.GrownRows());
  std::vector<std::uint8_t> valid(n, 1);
  if (!in.allValid) mask::Unpack(in.mask, n, valid.data());
  return valid;
}

// Valid cells in each window of an output row.
class Counts {
 public:
  Counts(const Window& in, const std::vector<std::uint8_t>& valid)
      : valid_(valid),
        stride_(in.Stride()),
        sums_(in.Stride(), static_cast<std::size_t>(in.width), in.margins.Columns(),
              in.margins.Rows()) {}
  void Row(LONG r, std::int32_t* out) {
    sums_.Row(
        r,
        [&](LONG g, std::int32_t* row) {
          const std::uint8_t* v = valid_.data() + static_cast<std::size_t>(g) * stride_;
          for (std::size_t c = 0; c < stride_; ++c) row[c] = v[c];
        },
        out);
  }

 private:
  const std::vector<std::uint8_t>& valid_;
  std::size_t stride_;
  SlidingSums<std::int32_t> sums_;
};

template <class T>
struct Band {
  const Window& in;
  const T* v;
  std::size_t stride, width;
  LONG kc, kr;
  T* out;
  std::vector<std::uint8_t> outValid;  // rows x width
  explicit Band(const Window& w, const Target& t)
      : in(w),
        v(static_cast<const T*>(w.values)),
        stride(w.Stride()),
        width(static_cast<std::size_t>(w.width)),
        kc(w.margins.Columns()),
        kr(w.margins.Rows()),
        out(static_cast<T*>(t.values)),
        outValid(static_cast<std::size_t>(w.rows) * static_cast<std::size_t>(w.width), 1) {}
  const T* GrownRow(LONG g) const { return v + static_cast<std::size_t>(g) * stride; }
  T* OutRow(LONG r) { return out + static_cast<std::size_t>(r) * width; }
  std::uint8_t* ValidRow(LONG r) { return outValid.data() + static_cast<std::size_t>(r) * width; }
};

// --- mean and standard deviation ----------------------------------------------------------

template <class T>
void Moments(Band<T>& b, const std::vector<std::uint8_t>& valid, bool deviation) {
  // Exact integer sums up to 16-bit types; doubles around the band's first valid value
  // otherwise.
  constexpr bool kExact = std::is_integral_v<T> && sizeof(T) <= 2;
  using A = std::conditional_t<kExact, std::int64_t, double>;
  // The reference: the band's first valid value, so that the sums stay small where the
  // values vary little.
  double shift = 0;
  if constexpr (!kExact) {
    const std::size_t n = valid.size();
    for (std::size_t i = 0; i < n; ++i)
      if (valid[i]) {
        shift = static_cast<double>(b.v[i]);
        break;
      }
  }
  const std::size_t stride = b.stride, width = b.width;
  SlidingSums<A> sums(stride, width, b.kc, b.kr), squares(stride, width, b.kc, b.kr);
  Counts counts(b.in, valid);
  std::vector<A> s(width), q(width);
  std::vector<std::int32_t> n(width);
  const auto fullCount = static_cast<std::int32_t>(b.kc * b.kr);
  auto value = [&](LONG g, A* row) {
    const T* x = b.GrownRow(g);
    const std::uint8_t* ok = valid.data() + static_cast<std::size_t>(g) * stride;
    if constexpr (kExact) {
      for (std::size_t c = 0; c < stride; ++c) row[c] = ok[c] ? static_cast<A>(x[c]) : A{0};
    } else {
      for (std::size_t c = 0; c < stride; ++c)
        row[c] = ok[c] ? static_cast<double>(x[c]) - shift : 0.0;
    }
  };
  auto square = [&](LONG g, A* row) {
    value(g, row);
    for (std::size_t c = 0; c < stride; ++c) row[c] = row[c] * row[c];
  };
  for (LONG r = 0; r < b.in.rows; ++r) {
    sums.Row(r, value, s.data());
    if (deviation) squares.Row(r, square, q.data());
    if (b.in.allValid) {
      std::fill(n.begin(), n.end(), fullCount);
    } else {
      counts.Row(r, n.data());
    }
    T* o = b.OutRow(r);
    std::uint8_t* ok = b.ValidRow(r);
    for (std::size_t c = 0; c < width; ++c) {
      const std::int32_t k = n[c];
      ok[c] = k > 0;
      if (k <= 0) {
        o[c] = T{0};
        continue;
      }
      double result;
      if constexpr (kExact) {
        if (deviation) {
          const Wide spread = static_cast<Wide>(k) * q[c] - static_cast<Wide>(s[c]) * s[c];
          result = std::sqrt(static_cast<double>(spread) / (static_cast<double>(k) * k));
        } else {
          result = static_cast<double>(s[c]) / k;
        }
      } else {
        const double mean = s[c] / k;
        result = deviation ? std::sqrt(std::max(0.0, q[c] / k - mean * mean)) : mean + shift;
      }
      o[c] = neighbourhood::RoundHalfUp<T>(result);
    }
  }
}

// --- minimum and maximum ------------------------------------------------------------------

template <class T, bool kMin>
PW_ALWAYS_INLINE T Pick(T a, T b) {
  if constexpr (kMin) {
    return b < a ? b : a;
  } else {
    return a < b ? b : a;
  }
}

// out[c] = the extreme of in[c .. c + k - 1] for c < n: direct for short runs, else van
// Herk and Gil-Werman's runs in blocks of k.
template <class T, bool kMin>
void RunExtreme(const T* in, std::size_t n, std::size_t k, T* out, std::vector<T>* scratch) {
  if (k <= 4) {
    for (std::size_t c = 0; c < n; ++c) out[c] = in[c];
    for (std::size_t j = 1; j < k; ++j)
      for (std::size_t c = 0; c < n; ++c) out[c] = Pick<T, kMin>(out[c], in[c + j]);
    return;
  }
  const std::size_t total = n + k - 1;
  scratch->resize(2 * total);
  T* g = scratch->data();  // from each block's start
  T* h = g + total;        // to each block's end
  for (std::size_t start = 0; start < total; start += k) {
    const std::size_t end = std::min(total, start + k);
    g[start] = in[start];
    for (std::size_t i = start + 1; i < end; ++i) g[i] = Pick<T, kMin>(g[i - 1], in[i]);
    h[end - 1] = in[end - 1];
    for (std::size_t i = end - 1; i > start; --i) h[i - 1] = Pick<T, kMin>(h[i], in[i - 1]);
  }
  for (std::size_t c = 0; c < n; ++c) out[c] = Pick<T, kMin>(h[c], g[c + k - 1]);
}

template <class T, bool kMin>
void Extreme(Band<T>& b, const std::vector<std::uint8_t>& valid) {
  constexpr T kNeutral =
      kMin ? std::numeric_limits<T>::has_infinity ? std::numeric_limits<T>::infinity()
                                                  : std::numeric_limits<T>::max()
      : std::numeric_limits<T>::has_infinity ? -std::numeric_limits<T>::infinity()
                                             : std::numeric_limits<T>::lowest();
  const std::size_t stride = b.stride, width = b.width;
  const LONG grown = b.in.GrownRows();
  // Invalid cells take the neutral value.
  std::vector<T> cells;
  const T* x = b.v;
  if (!b.in.allValid) {
    cells.assign(b.v, b.v + stride * static_cast<std::size_t>(grown));
    for (std::size_t i = 0; i < cells.size(); ++i)
      if (!valid[i]) cells[i] = kNeutral;
    x = cells.data();
  }
  const std::size_t kr = static_cast<std::size_t>(b.kr), kc = static_cast<std::size_t>(b.kc);
  std::vector<T> column(stride), scratch, g, h;
  if (kr > 4) {
    // Down the columns in blocks of kr rows, whole rows at a time.
    const std::size_t total = static_cast<std::size_t>(grown);
    g.resize(total * stride);
    h.resize(total * stride);
    for (std::size_t start = 0; start < total; start += kr) {
      const std::size_t end = std::min(total, start + kr);
      std::memcpy(&g[start * stride], x + start * stride, stride * sizeof(T));
      for (std::size_t i = start + 1; i < end; ++i)
        for (std::size_t c = 0; c < stride; ++c)
          g[i * stride + c] = Pick<T, kMin>(g[(i - 1) * stride + c], x[i * stride + c]);
      std::memcpy(&h[(end - 1) * stride], x + (end - 1) * stride, stride * sizeof(T));
      for (std::size_t i = end - 1; i > start; --i)
        for (std::size_t c = 0; c < stride; ++c)
          h[(i - 1) * stride + c] = Pick<T, kMin>(h[i * stride + c], x[(i - 1) * stride + c]);
    }
  }
  std::vector<std::int32_t> n(width);
  Counts counts(b.in, valid);
  for (LONG r = 0; r < b.in.rows; ++r) {
    const std::size_t top = static_cast<std::size_t>(r);
    if (kr <= 4) {
      std::memcpy(column.data(), x + top * stride, stride * sizeof(T));
      for (std::size_t i = 1; i < kr; ++i) {
        const T* row = x + (top + i) * stride;
        for (std::size_t c = 0; c < stride; ++c) column[c] = Pick<T, kMin>(column[c], row[c]);
      }
    } else {
      const T* hs = &h[top * stride];
      const T* gs = &g[(top + kr - 1) * stride];
      for (std::size_t c = 0; c < stride; ++c) column[c] = Pick<T, kMin>(hs[c], gs[c]);
    }
    T* o = b.OutRow(r);
    RunExtreme<T, kMin>(column.data(), width, kc, o, &scratch);
    if (!b.in.allValid) {
      counts.Row(r, n.data());
      std::uint8_t* ok = b.ValidRow(r);
      for (std::size_t c = 0; c < width; ++c) {
        ok[c] = n[c] > 0;
        if (!ok[c]) o[c] = T{0};
      }
    }
  }
}

// --- median, majority and minority of gathered windows -------------------------------------

// The valid values of the window of output cell (r, c).
template <class T>
std::size_t Gather(const Band<T>& b, const std::vector<std::uint8_t>& valid, LONG r, std::size_t c,
                   T* into) {
  std::size_t n = 0;
  for (LONG i = 0; i < b.kr; ++i) {
    const std::size_t at = static_cast<std::size_t>(r + i) * b.stride + c;
    for (LONG j = 0; j < b.kc; ++j) {
      const std::size_t k = at + static_cast<std::size_t>(j);
      if (valid[k]) into[n++] = b.v[k];
    }
  }
  return n;
}

template <class T>
T LowerMiddle(T* values, std::size_t n) {
  T* middle = values + (n - 1) / 2;
  std::nth_element(values, middle, values + n);
  return *middle;
}

// The most (or least) frequent of sorted values, ties to the smallest.
template <class T, bool kMost>
T Mode(const T* sorted, std::size_t n) {
  T best = sorted[0];
  std::size_t bestCount = 0;
  for (std::size_t i = 0; i < n;) {
    std::size_t j = i + 1;
    while (j < n && sorted[j] == sorted[i]) ++j;
    const std::size_t count = j - i;
    if (bestCount == 0 || (kMost ? count > bestCount : count < bestCount)) {
      best = sorted[i];
      bestCount = count;
    }
    i = j;
  }
  return best;
}

template <class T, class Cell>
void EachWindow(Band<T>& b, const std::vector<std::uint8_t>& valid, Cell&& cell) {
  std::vector<T> values(static_cast<std::size_t>(b.kc * b.kr));
  for (LONG r = 0; r < b.in.rows; ++r) {
    T* o = b.OutRow(r);
    std::uint8_t* ok = b.ValidRow(r);
    for (std::size_t c = 0; c < b.width; ++c) {
      const std::size_t n = Gather(b, valid, r, c, values.data());
      ok[c] = n > 0;
      o[c] = n > 0 ? cell(values.data(), n) : T{0};
    }
  }
}

template <class T>
PW_ALWAYS_INLINE void Sort2(T& a, T& b) {
  const T lo = a < b ? a : b;
  b = a < b ? b : a;
  a = lo;
}

template <class T>
PW_ALWAYS_INLINE T Median3(T a, T b, T c) {
  Sort2(a, b);
  return std::max(a, std::min(b, c));
}

// The 3 x 3 median of whole windows: each column's three cells sorted once, then the
// median of the largest lows, the middle mids and the smallest highs.
template <class T>
void Median3x3(Band<T>& b) {
  const std::size_t stride = b.stride, width = b.width;
  std::vector<T> lo(stride), mid(stride), hi(stride);
  for (LONG r = 0; r < b.in.rows; ++r) {
    const T* r0 = b.GrownRow(r);
    const T* r1 = b.GrownRow(r + 1);
    const T* r2 = b.GrownRow(r + 2);
    for (std::size_t c = 0; c < stride; ++c) {
      T x = r0[c], y = r1[c], z = r2[c];
      Sort2(x, y);
      Sort2(y, z);
      Sort2(x, y);
      lo[c] = x, mid[c] = y, hi[c] = z;
    }
    T* o = b.OutRow(r);
    for (std::size_t c = 0; c < width; ++c) {
      const T maxLo = std::max(std::max(lo[c], lo[c + 1]), lo[c + 2]);
      const T minHi = std::min(std::min(hi[c], hi[c + 1]), hi[c + 2]);
      const T midMid = Median3(mid[c], mid[c + 1], mid[c + 2]);
      o[c] = Median3(maxLo, midMid, minHi);
    }
  }
}

// 8-bit medians from a histogram sliding across each row; the median is tracked from the
// previous cell's, so each step moves a few bins.
template <class T>
void MedianByHistogram(Band<T>& b, const std::vector<std::uint8_t>& valid) {
  constexpr int kOffset = std::is_signed_v<T> ? 128 : 0;
  std::int32_t hist[256];
  for (LONG r = 0; r < b.in.rows; ++r) {
    std::fill(std::begin(hist), std::end(hist), 0);
    std::int32_t n = 0;
    auto update = [&](std::size_t column, std::int32_t delta, int median, std::int32_t* below) {
      for (LONG i = 0; i < b.kr; ++i) {
        const std::size_t k = static_cast<std::size_t>(r + i) * b.stride + column;
        if (!valid[k]) continue;
        const int bin = static_cast<int>(b.v[k]) + kOffset;
        hist[bin] += delta;
        n += delta;
        if (bin < median) *below += delta;
      }
    };
    int median = 0;
    std::int32_t below = 0;  // values below `median`
    for (LONG j = 0; j < b.kc; ++j) update(static_cast<std::size_t>(j), 1, median, &below);
    T* o = b.OutRow(r);
    std::uint8_t* ok = b.ValidRow(r);
    for (std::size_t c = 0; c < b.width; ++c) {
      if (c > 0) {
        update(c - 1, -1, median, &below);
        update(c + static_cast<std::size_t>(b.kc) - 1, 1, median, &below);
      }
      ok[c] = n > 0;
      if (n == 0) {
        o[c] = T{0};
        continue;
      }
      const std::int32_t target = (n - 1) / 2;  // the lower middle's rank
      while (below > target) below -= hist[--median];
      while (below + hist[median] <= target) below += hist[median++];
      o[c] = static_cast<T>(median - kOffset);
    }
  }
}

template <class T>
void Median(Band<T>& b, const std::vector<std::uint8_t>& valid) {
  if (b.kc == 3 && b.kr == 3) {
    Median3x3(b);
    if (b.in.allValid) return;
    // Windows with invalid cells take the general path.
    Counts counts(b.in, valid);
    std::vector<std::int32_t> n(b.width);
    T values[9];
    for (LONG r = 0; r < b.in.rows; ++r) {
      counts.Row(r, n.data());
      T* o = b.OutRow(r);
      std::uint8_t* ok = b.ValidRow(r);
      for (std::size_t c = 0; c < b.width; ++c) {
        if (n[c] == 9) continue;
        const std::size_t k = Gather(b, valid, r, c, values);
        ok[c] = k > 0;
        o[c] = k > 0 ? LowerMiddle(values, k) : T{0};
      }
    }
    return;
  }
  if constexpr (sizeof(T) == 1) {
    MedianByHistogram(b, valid);
  } else {
    EachWindow(b, valid, [](T* v, std::size_t n) { return LowerMiddle(v, n); });
  }
}

// Majority and minority by class counts: each class present in the band gets sliding sums
// of its cells, and each cell keeps the class with the most (fewest, but present) cells,
// classes taken from the smallest so that ties keep the smallest. Nullopt-like false when
// the band holds too many classes for it to pay.
template <class T, bool kMost>
bool ModeByClasses(Band<T>& b, const std::vector<std::uint8_t>& valid) {
  constexpr std::size_t kMaxClasses = 24;
  std::vector<T> classes;
  const std::size_t cells = b.stride * static_cast<std::size_t>(b.in.GrownRows());
  if constexpr (sizeof(T) == 1) {
    bool seen[256] = {};
    constexpr int kOffset = std::is_signed_v<T> ? 128 : 0;
    for (std::size_t i = 0; i < cells; ++i)
      seen[static_cast<int>(b.v[i]) + kOffset] |= valid[i] != 0;
    for (int v = 0; v < 256; ++v)
      if (seen[v]) classes.push_back(static_cast<T>(v - kOffset));
  } else {
    for (std::size_t i = 0; i < cells; ++i) {
      if (!valid[i]) continue;
      const T v = b.v[i];
      auto at = std::lower_bound(classes.begin(), classes.end(), v);
      if (at != classes.end() && *at == v) continue;
      if (classes.size() == kMaxClasses) return false;
      classes.insert(at, v);
    }
  }
  if (classes.size() > kMaxClasses) return false;
  const std::size_t width = b.width, stride = b.stride;
  const std::size_t rows = static_cast<std::size_t>(b.in.rows);
  std::vector<std::int32_t> best(rows * width,
                                 kMost ? 0 : std::numeric_limits<std::int32_t>::max());
  std::fill(b.outValid.begin(), b.outValid.end(), 0);
  std::fill(b.out, b.out + rows * width, T{0});
  std::vector<std::int32_t> count(width);
  for (const T value : classes) {
    SlidingSums<std::int32_t> sums(stride, width, b.kc, b.kr);
    auto indicator = [&](LONG g, std::int32_t* row) {
      const T* x = b.GrownRow(g);
      const std::uint8_t* ok = valid.data() + static_cast<std::size_t>(g) * stride;
      for (std::size_t c = 0; c < stride; ++c) row[c] = (x[c] == value) & ok[c];
    };
    for (LONG r = 0; r < b.in.rows; ++r) {
      sums.Row(r, indicator, count.data());
      std::int32_t* kept = &best[static_cast<std::size_t>(r) * width];
      T* o = b.OutRow(r);
      std::uint8_t* ok = b.ValidRow(r);
      for (std::size_t c = 0; c < width; ++c) {
        const std::int32_t k = count[c];
        const bool better = kMost ? k > kept[c] : (k > 0 && k < kept[c]);
        kept[c] = better ? k : kept[c];
        o[c] = better ? value : o[c];
        ok[c] = static_cast<std::uint8_t>(ok[c] | (k > 0));
      }
    }
  }
  return true;
}

template <class T, bool kMost>
void Mode(Band<T>& b, const std::vector<std::uint8_t>& valid) {
  if constexpr (std::is_integral_v<T>) {
    if (ModeByClasses<T, kMost>(b, valid)) return;
  }
  EachWindow(b, valid, [](T* v, std::size_t n) {
    std::sort(v, v + n);
    return Mode<T, kMost>(v, n);
  });
}

template <class T>
void ComputeTyped(const Window& in, Statistic statistic, bool fillNoDataOnly, const Target& out) {
  Band<T> b(in, out);
  const std::vector<std::uint8_t> valid = Validity(in);
  switch (statistic) {
    case kMinimum:
      Extreme<T, true>(b, valid);
      break;
    case kMaximum:
      Extreme<T, false>(b, valid);
      break;
    case kMean:
      Moments(b, valid, false);
      break;
    case kStandardDeviation:
      Moments(b, valid, true);
      break;
    case kMedian:
      Median(b, valid);
      break;
    case kMajority:
      Mode<T, true>(b, valid);
      break;
    case kMinority:
      Mode<T, false>(b, valid);
      break;
  }
  if (fillNoDataOnly) {
    // Valid centres keep their values.
    for (LONG r = 0; r < in.rows; ++r) {
      const std::size_t centre = static_cast<std::size_t>(r + in.margins.top) * b.stride +
                                 static_cast<std::size_t>(in.margins.left);
      T* o = b.OutRow(r);
      std::uint8_t* ok = b.ValidRow(r);
      for (std::size_t c = 0; c < b.width; ++c)
        if (valid[centre + c]) o[c] = b.v[centre + c], ok[c] = 1;
    }
  }
  const std::size_t n = b.outValid.size();
  if (std::all_of(b.outValid.begin(), b.outValid.end(), [](std::uint8_t v) { return v != 0; })) {
    mask::Fill(out.mask, n, true);
  } else {
    mask::Pack(out.mask, 0, b.outValid.data(), n);
  }
}

}  // namespace

void Compute(const Window& in, Statistic statistic, bool fillNoDataOnly, const Target& out) {
  VisitPixelType(in.pixelType, [&](auto tag) {
    ComputeTyped<typename decltype(tag)::type>(in, statistic, fillNoDataOnly, out);
  });
}

}  // namespace pw::raster::focal
