// Built-in kernels and the convolution of window bands.
#include "raster/algorithms/convolution.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "raster/mask.h"
#include "raster/pixel_traits.h"

namespace pw::raster::convolution {

std::optional<Kernel> BuiltIn(LONG type) {
  auto k3 = [](std::initializer_list<double> w, double scale = 1.0) {
    Kernel k{3, 3, std::vector<double>(w)};
    for (double& v : k.weights) v /= scale;
    return k;
  };
  auto k5 = [](double centre, double others, double scale = 1.0) {
    Kernel k{5, 5, std::vector<double>(25, others / scale)};
    k.weights[12] = centre / scale;
    return k;
  };
  switch (type) {
    case 0:  // horizontal lines
      return k3({-1, -1, -1, 2, 2, 2, -1, -1, -1});
    case 1:  // vertical lines
      return k3({-1, 2, -1, -1, 2, -1, -1, 2, -1});
    case 2:  // lines from top left to bottom right
      return k3({2, -1, -1, -1, 2, -1, -1, -1, 2});
    case 3:  // lines from top right to bottom left
      return k3({-1, -1, 2, -1, 2, -1, 2, -1, -1});
    // Gradients: positive where values rise towards the named side.
    case 4:  // north
      return k3({1, 2, 1, 0, 0, 0, -1, -2, -1});
    case 5:  // west
      return k3({1, 0, -1, 2, 0, -2, 1, 0, -1});
    case 6:  // east
      return k3({-1, 0, 1, -2, 0, 2, -1, 0, 1});
    case 7:  // south
      return k3({-1, -2, -1, 0, 0, 0, 1, 2, 1});
    case 8:  // north-east
      return k3({0, 1, 2, -1, 0, 1, -2, -1, 0});
    case 9:  // north-west
      return k3({2, 1, 0, 1, 0, -1, 0, -1, -2});
    case 10:  // mean
      return k3({1, 1, 1, 1, 1, 1, 1, 1, 1}, 9);
    case 11:  // smoothing
      return k3({1, 2, 1, 2, 4, 2, 1, 2, 1}, 16);
    case 12: {  // smoothing 5 x 5: the binomial 1 4 6 4 1 both ways
      const double b[] = {1, 4, 6, 4, 1};
      Kernel k{5, 5, std::vector<double>(25)};
      for (int r = 0; r < 5; ++r)
        for (int c = 0; c < 5; ++c)
          k.weights[static_cast<std::size_t>(r * 5 + c)] = b[r] * b[c] / 256;
      return k;
    }
    case 13:  // sharpening
      return k3({0, -1, 0, -1, 5, -1, 0, -1, 0});
    case 14:  // sharpening 5 x 5
      return k5(25, -1);
    case 15:  // Laplacian
      return k3({0, -1, 0, -1, 4, -1, 0, -1, 0});
    case 16:  // Laplacian 5 x 5
      return k5(24, -1);
    case 17:  // Sobel horizontal: horizontal edges
      return k3({-1, -2, -1, 0, 0, 0, 1, 2, 1});
    case 18:  // Sobel vertical: vertical edges
      return k3({-1, 0, 1, -2, 0, 2, -1, 0, 1});
    case 19:  // sharpen
      return k3({-1, -1, -1, -1, 9, -1, -1, -1, -1});
    case 20:  // sharpen II: a gentler sharpen
      return k3({0, -0.25, 0, -0.25, 2, -0.25, 0, -0.25, 0});
    case 21: {  // point spread: a Gaussian of one cell's standard deviation
      Kernel k{3, 3, std::vector<double>(9)};
      double sum = 0;
      for (int r = -1; r <= 1; ++r)
        for (int c = -1; c <= 1; ++c)
          sum += k.weights[static_cast<std::size_t>((r + 1) * 3 + c + 1)] =
              std::exp(-(r * r + c * c) / 2.0);
      for (double& w : k.weights) w /= sum;
      return k;
    }
    default:
      return std::nullopt;
  }
}

Prepared Prepare(Kernel kernel) {
  Prepared p;
  const std::size_t columns = static_cast<std::size_t>(kernel.columns);
  const std::size_t rows = static_cast<std::size_t>(kernel.rows);
  const std::vector<double>& w = kernel.weights;
  // The largest weight's row and column give the factors; the kernel is separable when
  // their products give back every weight to a few units in the last place.
  std::size_t pivot = 0;
  for (std::size_t i = 1; i < w.size(); ++i)
    if (std::fabs(w[i]) > std::fabs(w[pivot])) pivot = i;
  if (columns > 1 && rows > 1 && w.size() == columns * rows && w[pivot] != 0 &&
      std::all_of(w.begin(), w.end(), [](double v) { return std::isfinite(v); })) {
    const std::size_t pr = pivot / columns, pc = pivot % columns;
    std::vector<double> down(rows), across(columns);
    for (std::size_t r = 0; r < rows; ++r) down[r] = w[r * columns + pc];
    for (std::size_t c = 0; c < columns; ++c) across[c] = w[pr * columns + c] / w[pivot];
    bool separable = true;
    for (std::size_t r = 0; r < rows && separable; ++r)
      for (std::size_t c = 0; c < columns && separable; ++c)
        separable =
            std::fabs(down[r] * across[c] - w[r * columns + c]) <= 1e-14 * std::fabs(w[pivot]);
    if (separable) {
      p.separable = true;
      p.down = std::move(down);
      p.across = std::move(across);
    }
  }
  // One weight (not zero) at most cells: the window's sum times it, plus the other cells.
  // Worth it when the two passes and the taps cost less than a pass over every weight.
  if (!p.separable && columns > 1 && rows > 1 && w.size() == columns * rows) {
    double level = 0;
    std::size_t most = 0;
    for (double v : w) {
      const auto count = static_cast<std::size_t>(std::count(w.begin(), w.end(), v));
      if (count > most) most = count, level = v;
    }
    const std::size_t taps = w.size() - most;
    if (level != 0 && std::isfinite(level) && 2 * taps + rows + columns < w.size()) {
      p.levelled = true;
      p.level = level;
      for (std::size_t i = 0; i < w.size(); ++i)
        if (w[i] != level)
          p.taps.push_back(
              {static_cast<LONG>(i / columns), static_cast<LONG>(i % columns), w[i] - level});
    }
  }
  p.kernel = std::move(kernel);
  return p;
}

namespace {

using neighbourhood::Target;
using neighbourhood::Window;

// --- row kernels, one body for every instruction set --------------------------------------

template <class T>
struct LoadRow {
  PW_ALWAYS_INLINE static void Run(const void* in, std::size_t n, double* out) {
    const T* __restrict v = static_cast<const T*>(in);
    for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<double>(v[i]);
  }
};
using LoadFn = void (*)(const void*, std::size_t, double*);

template <class T>
struct StoreRow {
  PW_ALWAYS_INLINE static void Run(const double* in, std::size_t n, void* out) {
    T* __restrict o = static_cast<T*>(out);
    for (std::size_t i = 0; i < n; ++i) o[i] = neighbourhood::RoundHalfUp<T>(in[i]);
  }
};
using StoreFn = void (*)(const double*, std::size_t, void*);

// A whole kernel of fixed size over a row: out[c] = sum of w[i][j] * rows[i][c + j].
template <int KC, int KR>
struct FixedRow {
  PW_ALWAYS_INLINE static void Run(const double* const* rows, const double* w, std::size_t n,
                                   double* out) {
    const double* r[KR];
    double k[KC * KR];
    for (int i = 0; i < KR; ++i) r[i] = rows[i];
    for (int i = 0; i < KC * KR; ++i) k[i] = w[i];
    for (std::size_t c = 0; c < n; ++c) {
      double s = 0;
      for (int i = 0; i < KR; ++i)
        for (int j = 0; j < KC; ++j) s += k[i * KC + j] * r[i][c + static_cast<std::size_t>(j)];
      out[c] = s;
    }
  }
};
using FixedFn = void (*)(const double* const*, const double*, std::size_t, double*);

// Down the columns: out[c] = sum of v[i] * rows[i][c].
template <int K>
struct DownRow {
  PW_ALWAYS_INLINE static void Run(const double* const* rows, const double* v, std::size_t n,
                                   double* out) {
    const double* r[K];
    double k[K];
    for (int i = 0; i < K; ++i) r[i] = rows[i], k[i] = v[i];
    for (std::size_t c = 0; c < n; ++c) {
      double s = 0;
      for (int i = 0; i < K; ++i) s += k[i] * r[i][c];
      out[c] = s;
    }
  }
};

// Across a row: out[c] = sum of h[j] * in[c + j].
template <int K>
struct AcrossRow {
  PW_ALWAYS_INLINE static void Run(const double* in, const double* h, std::size_t n, double* out) {
    double k[K];
    for (int j = 0; j < K; ++j) k[j] = h[j];
    for (std::size_t c = 0; c < n; ++c) {
      double s = 0;
      for (int j = 0; j < K; ++j) s += k[j] * in[c + static_cast<std::size_t>(j)];
      out[c] = s;
    }
  }
};
using AcrossFn = void (*)(const double*, const double*, std::size_t, double*);

// Down the columns, unweighted: out[c] = sum of rows[i][c].
template <int K>
struct SumDown {
  PW_ALWAYS_INLINE static void Run(const double* const* rows, const double*, std::size_t n,
                                   double* out) {
    const double* r[K];
    for (int i = 0; i < K; ++i) r[i] = rows[i];
    for (std::size_t c = 0; c < n; ++c) {
      double s = r[0][c];
      for (int i = 1; i < K; ++i) s += r[i][c];
      out[c] = s;
    }
  }
};

// Across a row, unweighted and then scaled: out[c] = level * (sum of in[c + j]).
template <int K>
struct SumAcross {
  PW_ALWAYS_INLINE static void Run(const double* in, const double* level, std::size_t n,
                                   double* out) {
    const double l = *level;
    for (std::size_t c = 0; c < n; ++c) {
      double s = in[c];
      for (int j = 1; j < K; ++j) s += in[c + static_cast<std::size_t>(j)];
      out[c] = l * s;
    }
  }
};

// The same with the one other cell of a kernel fused in: out[c] = level * (sum of in[c + j])
// + weight * tap[c].
template <int K>
struct SumAcrossTap {
  PW_ALWAYS_INLINE static void Run(const double* in, const double* tap, double level, double weight,
                                   std::size_t n, double* out) {
    for (std::size_t c = 0; c < n; ++c) {
      double s = in[c];
      for (int j = 1; j < K; ++j) s += in[c + static_cast<std::size_t>(j)];
      out[c] = level * s + weight * tap[c];
    }
  }
};
using AcrossTapFn = void (*)(const double*, const double*, double, double, std::size_t, double*);

// acc[c] += w * x[c], for kernels of other sizes.
struct Axpy {
  PW_ALWAYS_INLINE static void Run(const double* x, double w, std::size_t n, double* acc) {
    for (std::size_t c = 0; c < n; ++c) acc[c] += w * x[c];
  }
};
using AxpyFn = void (*)(const double*, double, std::size_t, double*);

// --- the same straight from the window's values and into the output's type -------------
// For 3 x 3 and 5 x 5 kernels: no ring of converted rows and no row of sums, each input row
// is read where the window holds it and each output cell written once.

// Down the columns from rows of T: out[c] = sum of v[i] * rows[i][c], or the plain sum.
template <class T, int K, bool kWeighted>
struct DownFrom {
  PW_ALWAYS_INLINE static void Run(const void* const* rows, const double* v, std::size_t n,
                                   double* out) {
    const T* r[K];
    double k[K] = {};
    for (int i = 0; i < K; ++i) {
      r[i] = static_cast<const T*>(rows[i]);
      if constexpr (kWeighted) k[i] = v[i];
    }
    double* __restrict o = out;
    for (std::size_t c = 0; c < n; ++c) {
      double s;
      if constexpr (kWeighted) {
        s = 0;
        for (int i = 0; i < K; ++i) s += k[i] * static_cast<double>(r[i][c]);
      } else {
        s = static_cast<double>(r[0][c]);
        for (int i = 1; i < K; ++i) s += static_cast<double>(r[i][c]);
      }
      o[c] = s;
    }
  }
};
using DownFromFn = void (*)(const void* const*, const double*, std::size_t, double*);

// Two rows' plain column sums at once, from K + 1 rows of T: the K - 1 rows the two windows
// share are added once. out0[c] = rows[0][c] + shared, out1[c] = shared + rows[K][c].
template <class T, int K>
struct DownPairFrom {
  PW_ALWAYS_INLINE static void Run(const void* const* rows, std::size_t n, double* out0,
                                   double* out1) {
    const T* r[K + 1];
    for (int i = 0; i <= K; ++i) r[i] = static_cast<const T*>(rows[i]);
    double* __restrict a = out0;
    double* __restrict b = out1;
    for (std::size_t c = 0; c < n; ++c) {
      double shared = static_cast<double>(r[1][c]);
      for (int i = 2; i < K; ++i) shared += static_cast<double>(r[i][c]);
      a[c] = static_cast<double>(r[0][c]) + shared;
      b[c] = shared + static_cast<double>(r[K][c]);
    }
  }
};
using DownPairFn = void (*)(const void* const*, std::size_t, double*, double*);

// How a row of column sums becomes output cells.
enum AcrossMode { kWeights, kLevel, kLevelAndTap };

// Across the column sums into T: sum of h[j] * in[c + j] (kWeights), or level (h[0]) times
// the plain sum, plus weight times the one other cell's value (kLevelAndTap).
template <class T, int K, AcrossMode kMode>
struct AcrossInto {
  PW_ALWAYS_INLINE static void Run(const double* in, const double* h, const void* tap,
                                   double weight, std::size_t n, void* out) {
    double k[K] = {};
    for (int j = 0; j < (kMode == kWeights ? K : 1); ++j) k[j] = h[j];
    const T* __restrict t = static_cast<const T*>(tap);
    T* __restrict o = static_cast<T*>(out);
    for (std::size_t c = 0; c < n; ++c) {
      double s;
      if constexpr (kMode == kWeights) {
        s = 0;
        for (int j = 0; j < K; ++j) s += k[j] * in[c + static_cast<std::size_t>(j)];
      } else {
        s = in[c];
        for (int j = 1; j < K; ++j) s += in[c + static_cast<std::size_t>(j)];
        s = k[0] * s;
        if constexpr (kMode == kLevelAndTap) s += weight * static_cast<double>(t[c]);
      }
      o[c] = neighbourhood::RoundHalfUp<T>(s);
    }
  }
};
using AcrossIntoFn = void (*)(const double*, const double*, const void*, double, std::size_t,
                              void*);

// A whole kernel of fixed size from rows of T into T.
template <class T, int KC, int KR>
struct FixedFrom {
  PW_ALWAYS_INLINE static void Run(const void* const* rows, const double* w, std::size_t n,
                                   void* out) {
    const T* r[KR];
    double k[KC * KR];
    for (int i = 0; i < KR; ++i) r[i] = static_cast<const T*>(rows[i]);
    for (int i = 0; i < KC * KR; ++i) k[i] = w[i];
    T* __restrict o = static_cast<T*>(out);
    for (std::size_t c = 0; c < n; ++c) {
      double s = 0;
      for (int i = 0; i < KR; ++i)
        for (int j = 0; j < KC; ++j)
          s += k[i * KC + j] * static_cast<double>(r[i][c + static_cast<std::size_t>(j)]);
      o[c] = neighbourhood::RoundHalfUp<T>(s);
    }
  }
};
using FixedFromFn = void (*)(const void* const*, const double*, std::size_t, void*);

template <class Body, class Fn>
Fn Pick(simd::Isa isa) {
  return simd::Variants<Body, Fn>::For(isa);
}

// Which output cells of a window band are valid: those whose every window cell is. Worked
// out on the packed bits 64 output cells at a time: the AND of the run's window rows, then
// of each cell's kc columns, a word at a time; a run whose window cells are all valid is
// settled whole, and only the cells of other runs are visited one by one.
class Validity {
 public:
  explicit Validity(const Window& in)
      : in_(in),
        bytes_((in.Stride() * static_cast<std::size_t>(in.GrownRows()) + 7) / 8),
        all_(kRun + static_cast<std::size_t>(in.margins.Columns())),
        row_(all_.size()) {
    if (in.allValid) return;
    // Counts of the grown rows before each that are valid whole and valid across the
    // raster's own columns: each row is looked at once, not once for every window it is in.
    const LONG grown = in.GrownRows();
    whole_.assign(static_cast<std::size_t>(grown) + 1, 0);
    own_.assign(whole_.size(), 0);
    for (LONG g = 0; g < grown; ++g) {
      const auto at = static_cast<std::size_t>(g);
      // (A row valid whole is valid across its own columns without a second look.)
      const bool whole = neighbourhood::RowsValid(in, g, 1, 0, in.Stride());
      whole_[at + 1] = whole_[at] + (whole ? 1 : 0);
      own_[at + 1] = own_[at] + (whole || neighbourhood::OwnColumnsValid(in, g, 1) ? 1 : 0);
    }
  }

  // Writes row r's output bits and calls `invalid(c)` for each of its invalid cells.
  template <class Invalid>
  void Row(LONG r, BYTE* mask, Invalid&& invalid) {
    const std::size_t stride = in_.Stride(), width = static_cast<std::size_t>(in_.width);
    const std::size_t first = static_cast<std::size_t>(r) * width;
    const std::size_t top = static_cast<std::size_t>(r) * stride;
    const LONG kr = in_.margins.Rows();
    const std::size_t kc = static_cast<std::size_t>(in_.margins.Columns());
    auto validRows = [&](const std::vector<LONG>& before) {
      const auto at = static_cast<std::size_t>(r);
      return before[at + static_cast<std::size_t>(kr)] - before[at] == kr;
    };
    if (in_.allValid || validRows(whole_)) {
      mask::SetRange(mask, first, width);
      return;
    }
    // Rows valid across the raster's own columns, the cells beyond its sides perhaps not (a
    // whole-width strip): the cells whose windows stay inside are settled whole, the few at
    // either end one by one.
    const std::size_t left = static_cast<std::size_t>(in_.margins.left),
                      right = static_cast<std::size_t>(in_.margins.right);
    if (width > left + right && validRows(own_)) {
      mask::SetRange(mask, first + left, width - left - right);
      auto settle = [&](std::size_t c) {
        bool valid = true;
        for (LONG i = 0; i < kr && valid; ++i)
          valid = mask::AllValid(in_.mask, top + static_cast<std::size_t>(i) * stride + c, kc);
        mask::Put(mask, first + c, valid);
        if (!valid) invalid(c);
      };
      for (std::size_t c = 0; c < left; ++c) settle(c);
      for (std::size_t c = width - right; c < width; ++c) settle(c);
      return;
    }
    for (std::size_t c0 = 0; c0 < width; c0 += kRun) {
      const std::size_t n = std::min(kRun, width - c0);
      const std::uint64_t wanted = n == kRun ? ~std::uint64_t{0} : ~(~std::uint64_t{0} >> n);
      std::uint64_t ok = kc <= kRun ? WordRun(top, c0, kr, kc) : ByteRun(top, c0, n, kr, kc);
      ok &= wanted;
      if (ok == wanted) {
        mask::SetRange(mask, first + c0, n);
        continue;
      }
      for (std::size_t k = 0; k < n; ++k) {
        const bool valid = ((ok >> (kRun - 1 - k)) & 1) != 0;
        mask::Put(mask, first + c0 + k, valid);
        if (!valid) invalid(c0 + k);
      }
    }
  }

 private:
  static constexpr std::size_t kRun = 64;

  // Bits at .. at + 63 of the window's mask as the mask orders them, the first cell's the
  // highest (bit 63 - k for cell at + k); none past the mask's end.
  std::uint64_t Bits(std::size_t at) const {
    const std::size_t byte = at / 8, shift = at % 8;
    std::uint64_t word = 0;
    std::uint8_t next = 0;
    if (byte + 9 <= bytes_) {
      std::memcpy(&word, in_.mask + byte, 8);
      next = in_.mask[byte + 8];
    } else {
      std::uint8_t b[9] = {};
      for (std::size_t i = 0; i < 9 && byte + i < bytes_; ++i) b[i] = in_.mask[byte + i];
      std::memcpy(&word, b, 8);
      next = b[8];
    }
    word = mask::BigEndian(word);
    return shift == 0 ? word : (word << shift) | (std::uint64_t{next} >> (8 - shift));
  }

  // The validity of output cells c0 .. c0 + 63 of the row whose window starts at mask bit
  // `top` (bit 63 - k for cell c0 + k), for windows at most a run wide.
  std::uint64_t WordRun(std::size_t top, std::size_t c0, LONG kr, std::size_t kc) const {
    const std::size_t stride = in_.Stride();
    std::uint64_t low = ~std::uint64_t{0}, high = ~std::uint64_t{0};
    for (LONG i = 0; i < kr; ++i) {
      const std::size_t at = top + static_cast<std::size_t>(i) * stride + c0;
      low &= Bits(at);
      if (kc > 1) high &= Bits(at + kRun);
    }
    std::uint64_t ok = low;
    for (std::size_t j = 1; j < kc; ++j) ok &= (low << j) | (high >> (kRun - j));
    return ok;
  }

  // The same for wider windows, through the cells as bytes.
  std::uint64_t ByteRun(std::size_t top, std::size_t c0, std::size_t n, LONG kr, std::size_t kc) {
    const std::size_t stride = in_.Stride(), span = n + kc - 1;
    std::uint8_t* all = all_.data();
    std::uint8_t* row = row_.data();
    mask::Unpack(in_.mask, top + c0, span, all);
    for (LONG i = 1; i < kr; ++i) {
      mask::Unpack(in_.mask, top + static_cast<std::size_t>(i) * stride + c0, span, row);
      for (std::size_t k = 0; k < span; ++k) all[k] &= row[k];
    }
    std::uint64_t ok = 0;
    for (std::size_t k = 0; k < n; ++k) {
      std::uint8_t valid = all[k];
      for (std::size_t j = 1; j < kc; ++j) valid &= all[k + j];
      ok |= std::uint64_t{valid != 0} << (kRun - 1 - k);
    }
    return ok;
  }

  const Window& in_;
  std::size_t bytes_;
  std::vector<std::uint8_t> all_, row_;
  std::vector<LONG> whole_, own_;  // valid rows before each grown row (none if all valid)
};

// Sets row r's output bits and zeroes the cells whose window holds an invalid cell.
void MarkRow(Validity& validity, LONG r, std::size_t pixel, void* target, const Target& out) {
  auto* t = static_cast<std::uint8_t*>(target);
  validity.Row(r, out.mask, [&](std::size_t c) { std::memset(t + c * pixel, 0, pixel); });
}

// Codes below 3 hold fewer bits than their storage.
void ClampNarrowTypes(const Window& in, const Target& out) {
  if (in.pixelType < 0 || in.pixelType >= 3) return;
  const auto top = static_cast<std::uint8_t>(PixelRange(in.pixelType).highest);
  auto* v = static_cast<std::uint8_t*>(out.values);
  const std::size_t n = static_cast<std::size_t>(in.width) * static_cast<std::size_t>(in.rows);
  for (std::size_t i = 0; i < n; ++i) v[i] = std::min(v[i], top);
}

// The direct path's kernels for one pixel type and kernel, when it has them.
struct Direct {
  DownFromFn down = nullptr;
  DownPairFn pair = nullptr;  // plain sums only
  AcrossIntoFn across = nullptr;
  FixedFromFn fixed = nullptr;
  bool Usable() const { return fixed != nullptr || (down != nullptr && across != nullptr); }
};

template <class T, int K>
void PickSeparable(simd::Isa isa, bool levelled, bool tap, Direct* d) {
  if (levelled) {
    d->down = Pick<DownFrom<T, K, false>, DownFromFn>(isa);
    // Sharing rows changes the order of the additions. Up to 5 integer cells of 32 bits or
    // fewer sum exactly in a double in any order, and float cells do unless a window mixes
    // magnitudes more than 2^28 apart; double cells keep one order, so that an output row
    // gets the same value whichever read computes it.
    if constexpr (sizeof(T) <= 4) d->pair = Pick<DownPairFrom<T, K>, DownPairFn>(isa);
    d->across = tap ? Pick<AcrossInto<T, K, kLevelAndTap>, AcrossIntoFn>(isa)
                    : Pick<AcrossInto<T, K, kLevel>, AcrossIntoFn>(isa);
  } else {
    d->down = Pick<DownFrom<T, K, true>, DownFromFn>(isa);
    d->across = Pick<AcrossInto<T, K, kWeights>, AcrossIntoFn>(isa);
  }
}

template <class T>
Direct PickDirect(const Prepared& p, simd::Isa isa) {
  Direct d;
  const LONG kr = p.kernel.rows, kc = p.kernel.columns;
  if (kr != kc || (kr != 3 && kr != 5)) return d;
  if (p.separable || (p.levelled && p.taps.size() <= 1)) {
    const bool tap = p.levelled && !p.taps.empty();
    if (kr == 3) PickSeparable<T, 3>(isa, p.levelled, tap, &d);
    if (kr == 5) PickSeparable<T, 5>(isa, p.levelled, tap, &d);
  } else if (!p.levelled) {
    if (kr == 3) d.fixed = Pick<FixedFrom<T, 3, 3>, FixedFromFn>(isa);
    if (kr == 5) d.fixed = Pick<FixedFrom<T, 5, 5>, FixedFromFn>(isa);
  }
  return d;
}

// Filters straight from the window into the output; false when the kernel has no direct path.
// Rows go in pairs where the column sums are plain (levelled kernels, separable or not, of
// cells up to 32 bits: the pair shares all but one row of them), and in runs of kChunk
// columns, so that the column sums stay in the nearest cache however long the rows.
bool ConvolveDirect(const Window& in, const Prepared& p, const Target& out) {
  constexpr std::size_t kChunk = 1024;
  const simd::Isa isa = simd::Best();
  Direct d;
  VisitPixelType(in.pixelType,
                 [&](auto tag) { d = PickDirect<typename decltype(tag)::type>(p, isa); });
  if (!d.Usable()) return false;
  const LONG k = p.kernel.rows;
  const std::size_t width = static_cast<std::size_t>(in.width);
  const std::size_t stride = in.Stride();
  const std::size_t pixel = PixelSize(in.pixelType);
  const auto* source = static_cast<const std::uint8_t*>(in.values);
  const std::size_t pitch = in.ValuesPitch();
  const std::size_t span = std::min(width, kChunk) + static_cast<std::size_t>(k) - 1;
  std::vector<double> columns(d.fixed != nullptr ? 0 : 2 * span);
  Validity validity(in);
  const double* level = &p.level;
  const Prepared::Tap* tap = p.levelled && !p.taps.empty() ? &p.taps.front() : nullptr;
  const std::size_t rowBytes = stride * pixel;
  const LONG grown = in.GrownRows();
  auto grownRow = [&](LONG g) { return source + static_cast<std::size_t>(g) * pitch * pixel; };
  auto outRow = [&](LONG r) {
    return static_cast<std::uint8_t*>(out.values) + static_cast<std::size_t>(r) * width * pixel;
  };
  // Output row r's cells from c0 on: n of them, from its column sums `sums`.
  auto across = [&](LONG r, const double* sums, std::size_t c0, std::size_t n) {
    const void* tapRow = tap != nullptr ? grownRow(r + tap->row) +
                                              (c0 + static_cast<std::size_t>(tap->column)) * pixel
                                        : nullptr;
    d.across(sums, p.separable ? p.across.data() : level, tapRow,
             tap != nullptr ? tap->weight : 0.0, n, outRow(r) + c0 * pixel);
  };
  for (LONG r = 0; r < in.rows;) {
    const LONG step = d.pair != nullptr && r + 1 < in.rows ? 2 : 1;
    // Lent rows: the rows two after the newest, fetched ahead.
    for (LONG g = r + k + 1; g < r + k + 1 + step; ++g)
      if (pitch != stride && g < grown) neighbourhood::PrefetchRow(grownRow(g), rowBytes);
    const void* rows[6] = {};
    for (std::size_t c0 = 0; c0 < width; c0 += kChunk) {
      const std::size_t n = std::min(kChunk, width - c0),
                        reach = n + static_cast<std::size_t>(k) - 1;
      for (LONG i = 0; i < k + step - 1; ++i) rows[i] = grownRow(r + i) + c0 * pixel;
      if (d.fixed != nullptr) {
        d.fixed(rows, p.kernel.weights.data(), n, outRow(r) + c0 * pixel);
      } else if (step == 2) {
        d.pair(rows, reach, columns.data(), columns.data() + span);
        across(r, columns.data(), c0, n);
        across(r + 1, columns.data() + span, c0, n);
      } else {
        d.down(rows, p.separable ? p.down.data() : nullptr, reach, columns.data());
        across(r, columns.data(), c0, n);
      }
    }
    if (!in.allValid)
      for (LONG i = 0; i < step; ++i) MarkRow(validity, r + i, pixel, outRow(r + i), out);
    r += step;
  }
  if (in.allValid) mask::Fill(out.mask, width * static_cast<std::size_t>(in.rows), true);
  return true;
}

}  // namespace

void Convolve(const Window& in, const Prepared& prepared, const Target& out) {
  if (ConvolveDirect(in, prepared, out)) {
    ClampNarrowTypes(in, out);
    return;
  }
  const Kernel& kernel = prepared.kernel;
  const LONG kr = kernel.rows, kc = kernel.columns;
  const std::size_t width = static_cast<std::size_t>(in.width);
  const std::size_t stride = in.Stride();
  const std::size_t pixel = PixelSize(in.pixelType);
  const simd::Isa isa = simd::Best();
  LoadFn load = nullptr;
  StoreFn store = nullptr;
  VisitPixelType(in.pixelType, [&](auto tag) {
    using T = typename decltype(tag)::type;
    load = Pick<LoadRow<T>, LoadFn>(isa);
    store = Pick<StoreRow<T>, StoreFn>(isa);
  });
  if (load == nullptr || kr < 1 || kc < 1) return;
  FixedFn fixed = nullptr, down = nullptr;
  AcrossFn across = nullptr;
  AcrossTapFn acrossTap = nullptr;
  if (prepared.levelled) {
    if (prepared.taps.size() == 1 && kc == 3) acrossTap = Pick<SumAcrossTap<3>, AcrossTapFn>(isa);
    if (prepared.taps.size() == 1 && kc == 5) acrossTap = Pick<SumAcrossTap<5>, AcrossTapFn>(isa);
    if (kr == 3) down = Pick<SumDown<3>, FixedFn>(isa);
    if (kr == 5) down = Pick<SumDown<5>, FixedFn>(isa);
    if (kc == 3) across = Pick<SumAcross<3>, AcrossFn>(isa);
    if (kc == 5) across = Pick<SumAcross<5>, AcrossFn>(isa);
  } else if (prepared.separable) {
    if (kr == 3) down = Pick<DownRow<3>, FixedFn>(isa);
    if (kr == 5) down = Pick<DownRow<5>, FixedFn>(isa);
    if (kc == 3) across = Pick<AcrossRow<3>, AcrossFn>(isa);
    if (kc == 5) across = Pick<AcrossRow<5>, AcrossFn>(isa);
  } else {
    if (kc == 3 && kr == 3) fixed = Pick<FixedRow<3, 3>, FixedFn>(isa);
    if (kc == 5 && kr == 5) fixed = Pick<FixedRow<5, 5>, FixedFn>(isa);
  }
  const AxpyFn axpy = Pick<Axpy, AxpyFn>(isa);

  // The input rows as doubles, kept in a ring of kr rows: each is converted once.
  std::vector<double> ring(static_cast<std::size_t>(kr) * stride);
  std::vector<const double*> rows(static_cast<std::size_t>(kr));
  const bool twoPasses = prepared.separable || prepared.levelled;
  std::vector<double> sums(width), columns(twoPasses ? stride : 0);
  Validity validity(in);
  const auto* source = static_cast<const std::uint8_t*>(in.values);
  const std::size_t pitch = in.ValuesPitch();
  auto slot = [&](LONG g) { return ring.data() + static_cast<std::size_t>(g % kr) * stride; };
  for (LONG g = 0; g < kr - 1; ++g)
    load(source + static_cast<std::size_t>(g) * pitch * pixel, stride, slot(g));
  const double* w = kernel.weights.data();
  for (LONG r = 0; r < in.rows; ++r) {
    const LONG newest = r + kr - 1;
    load(source + static_cast<std::size_t>(newest) * pitch * pixel, stride, slot(newest));
    for (LONG i = 0; i < kr; ++i) rows[static_cast<std::size_t>(i)] = slot(r + i);
    if (prepared.levelled) {
      if (down != nullptr) {
        down(rows.data(), nullptr, stride, columns.data());
      } else {
        std::copy_n(rows[0], stride, columns.data());
        for (LONG i = 1; i < kr; ++i)
          axpy(rows[static_cast<std::size_t>(i)], 1.0, stride, columns.data());
      }
      if (acrossTap != nullptr) {  // the one other cell in the same pass
        const Prepared::Tap& t = prepared.taps.front();
        acrossTap(columns.data(), rows[static_cast<std::size_t>(t.row)] + t.column, prepared.level,
                  t.weight, width, sums.data());
      } else {
        if (across != nullptr) {
          across(columns.data(), &prepared.level, width, sums.data());
        } else {
          std::fill(sums.begin(), sums.end(), 0.0);
          for (LONG j = 0; j < kc; ++j)
            axpy(columns.data() + j, prepared.level, width, sums.data());
        }
        for (const Prepared::Tap& t : prepared.taps)
          axpy(rows[static_cast<std::size_t>(t.row)] + t.column, t.weight, width, sums.data());
      }
    } else if (prepared.separable) {
      if (down != nullptr) {
        down(rows.data(), prepared.down.data(), stride, columns.data());
      } else {
        std::fill(columns.begin(), columns.end(), 0.0);
        for (LONG i = 0; i < kr; ++i)
          axpy(rows[static_cast<std::size_t>(i)], prepared.down[static_cast<std::size_t>(i)],
               stride, columns.data());
      }
      if (across != nullptr) {
        across(columns.data(), prepared.across.data(), width, sums.data());
      } else {
        std::fill(sums.begin(), sums.end(), 0.0);
        for (LONG j = 0; j < kc; ++j)
          axpy(columns.data() + j, prepared.across[static_cast<std::size_t>(j)], width,
               sums.data());
      }
    } else if (fixed != nullptr) {
      fixed(rows.data(), w, width, sums.data());
    } else {
      std::fill(sums.begin(), sums.end(), 0.0);
      for (LONG i = 0; i < kr; ++i)
        for (LONG j = 0; j < kc; ++j)
          axpy(rows[static_cast<std::size_t>(i)] + j, w[i * kc + j], width, sums.data());
    }
    void* target =
        static_cast<std::uint8_t*>(out.values) + static_cast<std::size_t>(r) * width * pixel;
    store(sums.data(), width, target);
    if (!in.allValid) MarkRow(validity, r, pixel, target, out);
  }
  if (in.allValid) mask::Fill(out.mask, width * static_cast<std::size_t>(in.rows), true);
  ClampNarrowTypes(in, out);
}

}  // namespace pw::raster::convolution
