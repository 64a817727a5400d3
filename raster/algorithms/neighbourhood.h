// What the neighbourhood filters (convolution, focal statistics) share: one band of a grown
// window as the window engine reads it, the output cells it fills, and the driver that
// runs a filter over an output block in bands of rows, on every core unless the caller is
// already one of many workers.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <type_traits>

#include "com/types.h"
#include "raster/algorithms/simd_dispatch.h"
#include "raster/algorithms/window.h"
#include "raster/mask.h"
#include "raster/model.h"

namespace pw::raster::neighbourhood {

// One band of a grown window: `rows` output rows of `width` cells, each reading the cells
// from -margins.left .. +margins.right and -margins.top .. +margins.bottom around it. The
// values are row-major with Stride() cells a row; mask bit i is cell i's validity.
struct Window {
  const void* values = nullptr;
  const BYTE* mask = nullptr;
  LONG pixelType = -1;
  LONG width = 0, rows = 0;
  Margins margins;
  bool allValid = false;  // every cell of the window is valid
  // Cells from one row of values to the next when they lie in their source's memory (0: the
  // window's own Stride()). The mask is always the window's own, Stride() bits a row.
  std::size_t valuesPitch = 0;

  std::size_t Stride() const {
    return static_cast<std::size_t>(width + margins.left + margins.right);
  }
  std::size_t ValuesPitch() const { return valuesPitch != 0 ? valuesPitch : Stride(); }
  LONG GrownRows() const { return rows + margins.top + margins.bottom; }
};

// The output cells of a window: rows x width values of the window's pixel type and their
// mask, from bit 0.
struct Target {
  void* values = nullptr;
  BYTE* mask = nullptr;
};

// Runs `band(window, target)` for every band of the output block at (column, row) of
// `source`, reading each band of rows' grown window by `windowShape` (its pixel type is the
// block's). Blocks of more than a few rows are cut into strips that run on all cores,
// unless the calling thread is itself a parallel worker.
using BandFn = std::function<void(const Window&, const Target&)>;
HRESULT FilterBlock(IRaster* source, LONG column, LONG row, IPixelBlock* output,
                    WindowShape windowShape, const BandFn& band);

// Whether `count` grown rows of the window from `first` are valid in the `columns` grown
// columns from `from`.
inline bool RowsValid(const Window& in, LONG first, LONG count, std::size_t from,
                      std::size_t columns) {
  if (in.allValid) return true;
  const std::size_t stride = in.Stride();
  for (LONG g = first; g < first + count; ++g)
    if (!mask::AllValid(in.mask, static_cast<std::size_t>(g) * stride + from, columns))
      return false;
  return true;
}

// Whether `count` grown rows from `first` are valid across the raster's own columns (those of
// the output cells, not the margins beyond them). A whole-width strip's windows reach past
// the raster's sides, so their rows are never all valid; rows valid here give every window
// inside them only valid cells, and every window its own cell valid.
inline bool OwnColumnsValid(const Window& in, LONG first, LONG count) {
  return RowsValid(in, first, count, static_cast<std::size_t>(in.margins.left),
                   static_cast<std::size_t>(in.width));
}

// Asks the processor for `bytes` of a row ahead of their use: rows of a window lent by a
// raster in memory are short runs far apart, which it does not fetch ahead by itself.
inline void PrefetchRow(const void* row, std::size_t bytes) {
  const auto* at = static_cast<const char*>(row);
  for (std::size_t offset = 0; offset < bytes; offset += 64) __builtin_prefetch(at + offset);
}

// Integer results round half up (floor(v + 0.5)) and clamp to the type's range; floating
// results convert.
template <class T>
PW_ALWAYS_INLINE T RoundHalfUp(double v) {
  if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(v);
  } else {
    constexpr double lo = static_cast<double>(std::numeric_limits<T>::lowest());
    constexpr double hi = static_cast<double>(std::numeric_limits<T>::max());
    const double r = std::floor(v + 0.5);
    return static_cast<T>(r < lo ? lo : r > hi ? hi : r);
  }
}

}  // namespace pw::raster::neighbourhood
