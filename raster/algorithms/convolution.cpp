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

template <class Body, class Fn>
Fn Pick(simd::Isa isa) {
  return simd::Variants<Body, Fn>::For(isa);
}

// The validity of each output cell of row r: every cell of its window valid.
void RowValidity(const Window& in, LONG r, std::vector<std::uint8_t>* column,
                 std::vector<std::uint8_t>* cells, std::uint8_t* valid) {
  const std::size_t stride = in.Stride();
  const LONG kr = in.margins.Rows(), kc = in.margins.Columns();
  std::uint8_t* all = column->data();
  mask::Unpack(in.mask, static_cast<std::size_t>(r) * stride, stride, all);
  for (LONG i = 1; i < kr; ++i) {
    mask::Unpack(in.mask, static_cast<std::size_t>(r + i) * stride, stride, cells->data());
    for (std::size_t c = 0; c < stride; ++c) all[c] &= (*cells)[c];
  }
  const std::size_t width = static_cast<std::size_t>(in.width);
  for (std::size_t c = 0; c < width; ++c) valid[c] = all[c];
  for (LONG j = 1; j < kc; ++j)
    for (std::size_t c = 0; c < width; ++c) valid[c] &= all[c + static_cast<std::size_t>(j)];
}

}  // namespace

void Convolve(const Window& in, const Prepared& prepared, const Target& out) {
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
  std::vector<std::uint8_t> columnValid, cellValid, valid;
  if (!in.allValid) columnValid.resize(stride), cellValid.resize(stride), valid.resize(width);
  const auto* source = static_cast<const std::uint8_t*>(in.values);
  auto slot = [&](LONG g) { return ring.data() + static_cast<std::size_t>(g % kr) * stride; };
  for (LONG g = 0; g < kr - 1; ++g)
    load(source + static_cast<std::size_t>(g) * stride * pixel, stride, slot(g));
  const double* w = kernel.weights.data();
  for (LONG r = 0; r < in.rows; ++r) {
    const LONG newest = r + kr - 1;
    load(source + static_cast<std::size_t>(newest) * stride * pixel, stride, slot(newest));
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
    const std::size_t first = static_cast<std::size_t>(r) * width;
    if (in.allValid) {
      store(sums.data(), width, target);
      continue;
    }
    RowValidity(in, r, &columnValid, &cellValid, valid.data());
    for (std::size_t c = 0; c < width; ++c)
      if (!valid[c]) sums[c] = 0;
    store(sums.data(), width, target);
    mask::Pack(out.mask, first, valid.data(), width);
  }
  if (in.allValid) mask::Fill(out.mask, width * static_cast<std::size_t>(in.rows), true);
  // Codes below 3 hold fewer bits than their storage.
  if (in.pixelType >= 0 && in.pixelType < 3) {
    const auto top = static_cast<std::uint8_t>(PixelRange(in.pixelType).highest);
    auto* v = static_cast<std::uint8_t*>(out.values);
    for (std::size_t i = 0; i < width * static_cast<std::size_t>(in.rows); ++i)
      v[i] = std::min(v[i], top);
  }
}

}  // namespace pw::raster::convolution
