// The surface engine. A block goes row by row: each input row is summed across once (in
// double), the column sums of an output row are formed once, and the surface's formula
// forms dz/dx and dz/dy from those sums as it goes; cells whose window holds an invalid cell
// get their derivatives by the validity rules instead. Rows run in parallel with OpenMP.
//
// Derivatives: dz/dx = (c + 2f + i) - (a + 2d + g), dz/dy = (g + 2h + i) - (a + 2b + c)
// over the window a b c / d e f / g h i. With exactly seven valid neighbours each side is
// the weighted sum of its valid cells times 4 over their weights; fewer than seven, or an
// invalid centre, gives no value.
#include "functions/terrain/surface_engine.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "raster/algorithms/parallel.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"

#ifdef _OPENMP
#include <omp.h>
#endif

namespace pw::functions::terrain {

namespace {

// The weighted sums across of an input row of width + 2 cells, (x[c] + 2 x[c + 1]) + x[c + 2],
// for the width cells, in double straight from the input. Each input row is summed once and
// serves as the lower side of one output row and the upper side of another.
template <class I>
struct Across {
  PW_ALWAYS_INLINE static void Run(const void* from, LONG width, double* __restrict across) {
    const I* __restrict in = static_cast<const I*>(from);
    for (LONG c = 0; c < width; ++c)
      across[c] = (static_cast<double>(in[c]) + 2 * static_cast<double>(in[c + 1])) +
                  static_cast<double>(in[c + 2]);
  }
};

// The column sums top + 2 mid + bottom of a row's window (width + 2 of them), formed once per
// column: each serves dz/dx of two cells. The association is the definition's, so the
// derivatives are the same. The sums across of the bottom row, which is new to the row loop,
// are formed in the same pass, while it is in the cache.
template <class I>
struct Columns {
  PW_ALWAYS_INLINE static void Run(const void* topRow, const void* midRow, const void* bottomRow,
                                   LONG width, double* __restrict columns,
                                   double* __restrict across) {
    const I* __restrict top = static_cast<const I*>(topRow);
    const I* __restrict mid = static_cast<const I*>(midRow);
    const I* __restrict bottom = static_cast<const I*>(bottomRow);
    for (LONG c = 0; c < width; ++c) {
      const double b0 = static_cast<double>(bottom[c]), b1 = static_cast<double>(bottom[c + 1]),
                   b2 = static_cast<double>(bottom[c + 2]);
      columns[c] = (static_cast<double>(top[c]) + 2 * static_cast<double>(mid[c])) + b0;
      across[c] = (b0 + 2 * b1) + b2;
    }
    for (LONG c = width; c < width + 2; ++c)
      columns[c] = (static_cast<double>(top[c]) + 2 * static_cast<double>(mid[c])) +
                   static_cast<double>(bottom[c]);
  }
};

using AcrossFn = void (*)(const void*, LONG, double*);
using ColumnsFn = void (*)(const void*, const void*, const void*, LONG, double*, double*);

// The two sums of an input type for an instruction set.
struct Sums {
  AcrossFn across = nullptr;
  ColumnsFn columns = nullptr;
};

Sums SelectSums(LONG inType, raster::simd::Isa isa) {
  Sums f;
  raster::VisitPixelType(inType, [&](auto tag) {
    using I = typename decltype(tag)::type;
    f = {raster::simd::Variants<Across<I>, AcrossFn>::For(isa),
         raster::simd::Variants<Columns<I>, ColumnsFn>::For(isa)};
  });
  return f;
}

// Derivatives of one cell by the validity rules; false when the cell has no value.
template <class I>
bool CheckedDerivatives(const I* const rows[3], const BYTE* mask, std::size_t stride,
                        std::size_t firstRow, LONG c, double* dx, double* dy) {
  auto valid = [&](int r, int k) {
    return raster::mask::Get(
        mask, (firstRow + static_cast<std::size_t>(r)) * stride + static_cast<std::size_t>(c + k));
  };
  if (!valid(1, 1)) return false;
  double v[3][3];
  bool ok[3][3];
  int count = 0;
  for (int r = 0; r < 3; ++r)
    for (int k = 0; k < 3; ++k) {
      ok[r][k] = valid(r, k);
      v[r][k] = static_cast<double>(rows[r][c + k]);
      if (!(r == 1 && k == 1)) count += ok[r][k];
    }
  if (count == 8) {
    *dx = (v[0][2] + 2 * v[1][2] + v[2][2]) - (v[0][0] + 2 * v[1][0] + v[2][0]);
    *dy = (v[2][0] + 2 * v[2][1] + v[2][2]) - (v[0][0] + 2 * v[0][1] + v[0][2]);
    return true;
  }
  if (count < 7) return false;
  // One neighbour missing: each side over its valid cells, rescaled to weight 4.
  auto side = [&](int r0, int k0, int dr, int dk) {
    const double weights[3] = {1, 2, 1};
    double sum = 0, weight = 0;
    for (int j = 0; j < 3; ++j) {
      const int r = r0 + dr * j, k = k0 + dk * j;
      if (!ok[r][k]) continue;
      sum += weights[j] * v[r][k];
      weight += weights[j];
    }
    return weight > 0 ? sum * 4 / weight : 0.0;
  };
  const double right = side(0, 2, 1, 0), left = side(0, 0, 1, 0);
  const double bottom = side(2, 0, 0, 1), top = side(0, 0, 0, 1);
  *dx = right - left;
  *dy = bottom - top;
  return true;
}

// 1 for each cell of a row whose 3 x 3 window is wholly valid, from the validity bytes of
// the three input rows.
void WholeWindows(const std::uint8_t* __restrict v0, const std::uint8_t* __restrict v1,
                  const std::uint8_t* __restrict v2, LONG width, std::uint8_t* __restrict full) {
  for (LONG c = 0; c < width; ++c)
    full[c] = v0[c] & v0[c + 1] & v0[c + 2] & v1[c] & v1[c + 1] & v1[c + 2] & v2[c] & v2[c + 1] &
              v2[c + 2];
}

// The derivatives of cells [first, last) of a row by the validity rules, with whether each
// has a value (`ok`); cells without one get zeros.
template <class I>
void CheckedCells(const void* in, const BYTE* mask, LONG width, LONG row, LONG first, LONG last,
                  double* dx, double* dy, std::uint8_t* ok) {
  const std::size_t stride = static_cast<std::size_t>(width) + 2;
  const I* base = static_cast<const I*>(in);
  const I* rows[3] = {base + static_cast<std::size_t>(row) * stride,
                      base + (static_cast<std::size_t>(row) + 1) * stride,
                      base + (static_cast<std::size_t>(row) + 2) * stride};
  for (LONG c = first; c < last; ++c) {
    ok[c] =
        CheckedDerivatives<I>(rows, mask, stride, static_cast<std::size_t>(row), c, &dx[c], &dy[c]);
    if (!ok[c]) dx[c] = dy[c] = 0;
  }
}

// Clears the mask bit of cell i; rows on other threads may write the same mask byte.
void ClearShared(BYTE* mask, std::size_t i) {
  std::atomic_ref<BYTE>(mask[i >> 3])
      .fetch_and(static_cast<BYTE>(~(0x80u >> (i & 7))), std::memory_order_relaxed);
}

using CheckedFn = void (*)(const void*, const BYTE*, LONG, LONG, LONG, LONG, double*, double*,
                           std::uint8_t*);

// n values of T left as the memory had them.
template <class T>
std::unique_ptr<T[]> Uninitialized(std::size_t n) {
  return std::unique_ptr<T[]>(new T[n]);
}

// The end of the run of equal bytes that starts at `first`.
LONG RunEnd(const std::uint8_t* bytes, LONG first, LONG width) {
  const void* next =
      std::memchr(bytes + first, bytes[first] ^ 1, static_cast<std::size_t>(width - first));
  return next == nullptr ? width
                         : static_cast<LONG>(static_cast<const std::uint8_t*>(next) - bytes);
}

CheckedFn SelectChecked(LONG inType) {
  CheckedFn f = nullptr;
  raster::VisitPixelType(inType,
                         [&](auto tag) { f = &CheckedCells<typename decltype(tag)::type>; });
  return f;
}

}  // namespace

int RowThreads() {
  if (raster::InParallelWorker()) return 1;
  const unsigned logical = std::max(1u, std::thread::hardware_concurrency());
  return static_cast<int>(std::max(1u, logical / 2));
}

HRESULT Compute(const void* in, const BYTE* inMask, LONG inType, LONG width, LONG height, void* out,
                BYTE* outMask, LONG outType, const Surface& surface, int threads,
                raster::simd::Isa isa, LONG firstRow) {
  if (in == nullptr || inMask == nullptr || out == nullptr || outMask == nullptr || width < 0 ||
      height < 0)
    return E_INVALIDARG;
  const std::size_t cells = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  const std::size_t inCells =
      (static_cast<std::size_t>(width) + 2) * (static_cast<std::size_t>(height) + 2);
  if (cells == 0) return S_OK;
  const bool allValid = raster::mask::AllValid(inMask, inCells);
  if (!allValid && !raster::mask::AnyValid(inMask, inCells)) {
    std::memset(out, 0, cells * raster::PixelSize(outType));
    raster::mask::Fill(outMask, cells, false);
    return S_FALSE;
  }
  const Sums sum = SelectSums(inType, isa);
  const CheckedFn checked = SelectChecked(inType);
  if (surface.rows == nullptr) return E_INVALIDARG;
  const RowKernels formula = surface.rows(outType, isa);
  if (sum.across == nullptr || formula.summed == nullptr) return E_INVALIDARG;
  raster::mask::Fill(outMask, cells, true);
  const std::size_t inPixel = raster::PixelSize(inType), outPixel = raster::PixelSize(outType);
  const std::size_t stride = (static_cast<std::size_t>(width) + 2) * inPixel;
  const auto* inBytes = static_cast<const std::uint8_t*>(in);
  auto* outBytes = static_cast<std::uint8_t*>(out);

  // What each input row holds, read from the mask bits: kWhole without an invalid cell,
  // kInterior with invalid cells only in its first and last column (a block at the raster's
  // left and right edges), else kHoles. Windows over three whole rows need no checks; over
  // whole and interior rows, only the first and last cell of the output row do.
  const std::size_t columns = static_cast<std::size_t>(width) + 2;
  enum RowState : std::uint8_t { kHoles, kInterior, kWhole };
  std::vector<std::uint8_t> rowState(allValid ? 0 : static_cast<std::size_t>(height) + 2);
  for (std::size_t r = 0; r < rowState.size(); ++r) {
    const std::size_t at = r * columns;
    const bool interior = raster::mask::AllValid(inMask, at + 1, columns - 2);
    rowState[r] = !interior ? kHoles
                  : raster::mask::Get(inMask, at) && raster::mask::Get(inMask, at + columns - 1)
                      ? kWhole
                      : kInterior;
  }

  auto rows = [&](LONG first, LONG last) {
    // Working memory, written before it is read (so never cleared).
    const auto dx = Uninitialized<double>(static_cast<std::size_t>(width));
    const auto dy = Uninitialized<double>(static_cast<std::size_t>(width));
    // Whether each checked cell of the row has a value; rows with holes also get their three
    // input rows' validity as bytes and the cells whose windows are whole.
    const auto ok = Uninitialized<std::uint8_t>(allValid ? 0 : static_cast<std::size_t>(width));
    const auto cellValid = Uninitialized<std::uint8_t>(allValid ? 0 : 3 * columns);
    const auto full = Uninitialized<std::uint8_t>(allValid ? 0 : static_cast<std::size_t>(width));
    // The sums across of the last three input rows, in turn, and the column sums: four rows
    // in one buffer, each starting 640 bytes further into a 4 KiB page than the one before,
    // so that a store to one row never looks to the processor like a store to the cells
    // another row loads next (rows a multiple of 4 KiB apart stall on that).
    const std::size_t span = (static_cast<std::size_t>(width) + 2 + 511) / 512 * 512 + 80;
    const auto ring = Uninitialized<double>(4 * span);
    auto across = [&](LONG i) { return ring.get() + static_cast<std::size_t>(i % 3) * span; };
    double* const sums = ring.get() + 3 * span;
    auto inputRow = [&](LONG i) { return inBytes + static_cast<std::size_t>(i) * stride; };
    LONG loaded = first;
    for (LONG r = first; r < last; ++r) {
      // The first two rows of a band get their sums across alone; each next row with the
      // column sums of the output row it completes.
      for (; loaded < r + 2; ++loaded) sum.across(inputRow(loaded), width, across(loaded));
      sum.columns(inputRow(r), inputRow(r + 1), inputRow(r + 2), width, sums, across(r + 2));
      loaded = r + 3;
      void* const target =
          outBytes + static_cast<std::size_t>(r) * static_cast<std::size_t>(width) * outPixel;
      const std::size_t firstCell = static_cast<std::size_t>(r) * static_cast<std::size_t>(width);
      // A run of cells [c, end): the fast path when every window is whole, else the
      // derivatives by the validity rules, and the cells without a value leave the mask.
      auto run = [&](LONG c, LONG end, bool whole) {
        auto* at = static_cast<std::uint8_t*>(target) + static_cast<std::size_t>(c) * outPixel;
        if (whole) {
          formula.summed(sums + c, across(r) + c, across(r + 2) + c, end - c, firstRow + r,
                         surface.params, at);
          return;
        }
        checked(in, inMask, width, r, c, end, dx.get(), dy.get(), ok.get());
        formula.stored(dx.get() + c, dy.get() + c, end - c, firstRow + r, surface.params, at);
        for (LONG k = c; k < end; ++k)
          if (!ok[static_cast<std::size_t>(k)])
            ClearShared(outMask, firstCell + static_cast<std::size_t>(k));
      };
      if (allValid) {
        run(0, width, true);
        continue;
      }
      const std::uint8_t state = std::min({rowState[r], rowState[r + 1], rowState[r + 2]});
      if (state == kWhole) {
        run(0, width, true);
      } else if (state == kInterior && width > 2) {
        // Only an end whose column is invalid in one of the three rows is checked: a cell
        // with a whole window always takes the fast path, so that its value never depends on
        // the block it is read in (the two paths' float arithmetic may differ in the last
        // place).
        auto wholeColumn = [&](std::size_t k) {
          const std::size_t at = static_cast<std::size_t>(r) * columns + k;
          return raster::mask::Get(inMask, at) && raster::mask::Get(inMask, at + columns) &&
                 raster::mask::Get(inMask, at + 2 * columns);
        };
        const LONG from = wholeColumn(0) ? 0 : 1;
        const LONG to = wholeColumn(columns - 1) ? width : width - 1;
        if (from > 0) run(0, 1, false);
        run(from, to, true);
        if (to < width) run(width - 1, width, false);
      } else {
        // Runs of cells whose windows are whole take the fast path; cells near a hole are the
        // only ones that pay.
        raster::mask::Unpack(inMask, static_cast<std::size_t>(r) * columns, 3 * columns,
                             cellValid.get());
        const std::uint8_t* v0 = cellValid.get();
        WholeWindows(v0, v0 + columns, v0 + 2 * columns, width, full.get());
        for (LONG c = 0, end = 0; c < width; c = end) {
          end = RunEnd(full.get(), c, width);
          run(c, end, full[static_cast<std::size_t>(c)] != 0);
        }
      }
    }
  };
  // An exception (working memory that cannot be had) must not leave a parallel region.
  std::atomic<bool> failed{false};
  auto guarded = [&](LONG first, LONG last) {
    try {
      rows(first, last);
    } catch (...) {
      failed = true;
    }
  };
#ifdef _OPENMP
  if (threads > 1 && height > 1) {
#pragma omp parallel num_threads(threads)
    {
      // Static schedule: each thread takes one contiguous band of rows.
      const int team = omp_get_num_threads(), me = omp_get_thread_num();
      const LONG per = (height + team - 1) / team;
      const LONG first = std::min<LONG>(height, per * me);
      guarded(first, std::min<LONG>(height, first + per));
    }
  } else {
    guarded(0, height);
  }
#else
  (void)threads;
  guarded(0, height);
#endif
  return failed ? E_OUTOFMEMORY : S_OK;
}

HRESULT ComputeReference(const void* in, const BYTE* inMask, LONG inType, LONG width, LONG height,
                         void* out, BYTE* outMask, LONG outType, const Surface& surface,
                         LONG firstRow) {
  if (surface.cell == nullptr) return E_INVALIDARG;
  const std::size_t cells = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  const std::size_t stride = static_cast<std::size_t>(width) + 2;
  if (raster::mask::Count(inMask, stride * (static_cast<std::size_t>(height) + 2)) == 0) {
    raster::mask::Fill(outMask, cells, false);
    return S_FALSE;
  }
  raster::mask::Fill(outMask, cells, true);
  auto value = [&](LONG r, LONG c) {
    double v = 0;
    raster::VisitPixelType(inType, [&](auto tag) {
      using I = typename decltype(tag)::type;
      v = static_cast<double>(static_cast<const I*>(
          in)[static_cast<std::size_t>(r) * stride + static_cast<std::size_t>(c)]);
    });
    return v;
  };
  auto valid = [&](LONG r, LONG c) {
    return raster::mask::Get(inMask,
                             static_cast<std::size_t>(r) * stride + static_cast<std::size_t>(c));
  };
  for (LONG r = 0; r < height; ++r) {
    for (LONG c = 0; c < width; ++c) {
      const std::size_t o = static_cast<std::size_t>(r) * static_cast<std::size_t>(width) +
                            static_cast<std::size_t>(c);
      // The window around input cell (r + 1, c + 1).
      double w[3][3];
      bool ok[3][3];
      int neighbours = 0;
      for (int j = 0; j < 3; ++j)
        for (int k = 0; k < 3; ++k) {
          w[j][k] = value(r + j, c + k);
          ok[j][k] = valid(r + j, c + k);
          if (j != 1 || k != 1) neighbours += ok[j][k];
        }
      if (!ok[1][1] || neighbours < 7) {
        raster::mask::Clear(outMask, o);
        continue;
      }
      double dzdx = 0, dzdy = 0;
      if (neighbours == 8) {
        dzdx = (w[0][2] + 2 * w[1][2] + w[2][2]) - (w[0][0] + 2 * w[1][0] + w[2][0]);
        dzdy = (w[2][0] + 2 * w[2][1] + w[2][2]) - (w[0][0] + 2 * w[0][1] + w[0][2]);
      } else {
        auto side = [&](double v0, bool o0, double v1, bool o1, double v2, bool o2) {
          const double sum = (o0 ? v0 : 0) + (o1 ? 2 * v1 : 0) + (o2 ? v2 : 0);
          const double weight = (o0 ? 1 : 0) + (o1 ? 2 : 0) + (o2 ? 1 : 0);
          return weight > 0 ? sum * 4 / weight : 0.0;
        };
        const double right = side(w[0][2], ok[0][2], w[1][2], ok[1][2], w[2][2], ok[2][2]);
        const double left = side(w[0][0], ok[0][0], w[1][0], ok[1][0], w[2][0], ok[2][0]);
        const double bottom = side(w[2][0], ok[2][0], w[2][1], ok[2][1], w[2][2], ok[2][2]);
        const double top = side(w[0][0], ok[0][0], w[0][1], ok[0][1], w[0][2], ok[0][2]);
        dzdx = right - left;
        dzdy = bottom - top;
      }
      double v = surface.cell(dzdx, dzdy, firstRow + r, surface.params);
      const bool cyclic = surface.period > 0;
      raster::VisitPixelType(outType, [&](auto tag) {
        using O = typename decltype(tag)::type;
        if (cyclic && std::is_floating_point_v<O> && v >= surface.period) v = 0;
        O stored = raster::StoreTruncated<O>(std::is_integral_v<O> ? v + 0.5 : v);
        if (cyclic && std::is_integral_v<O> && static_cast<double>(stored) >= surface.period)
          stored = O{0};
        static_cast<O*>(out)[o] = stored;
      });
    }
  }
  return S_OK;
}

}  // namespace pw::functions::terrain
