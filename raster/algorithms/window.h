// The window engine that neighbourhood functions and filters share. A neighbourhood
// declares its margins (how far its window reaches left, up, right and down of a cell) and
// what lies beyond the raster's edge; the engine reads each output block's grown window,
// fills the cells beyond the edge by the edge mode, cuts wide blocks into bands of rows that
// stay in the processor's cache, and hands the neighbourhood's policy each band with the
// rectangle of cells whose window lies wholly on the raster (no edge treatment reaches them)
// so that the policy can run those unchecked and the rest on its checked path.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "com/com_ptr.h"
#include "raster/model.h"

namespace pw::raster {

// How far a window reaches from its cell. A window of n cells along an axis spans offsets
// -floor((n - 1) / 2) .. floor(n / 2): a 4 x 4 window reaches one cell left and up and two
// right and down.
struct Margins {
  LONG left = 0, top = 0, right = 0, bottom = 0;

  static constexpr Margins Window(LONG columns, LONG rows) {
    return {(columns - 1) / 2, (rows - 1) / 2, columns / 2, rows / 2};
  }
  static constexpr Margins Radius(LONG radius) { return {radius, radius, radius, radius}; }
  constexpr LONG Columns() const { return left + right + 1; }
  constexpr LONG Rows() const { return top + bottom + 1; }
  bool operator==(const Margins&) const = default;
};

// What a window finds beyond the raster's edge.
enum class EdgeMode {
  kInvalid,  // invalid cells
  kExtend,   // the nearest edge cell
  kMirror,   // the raster mirrored at its edge line: -1 is cell 0, -2 cell 1, n cell n - 1
};

// The cell of an axis of `count` cells that position `i` reads under `mode`; -1 when the
// position lies beyond the edge and the mode leaves it invalid.
LONG EdgeIndex(LONG i, LONG count, EdgeMode mode);

// Where each cell of a span of positions reads from along one axis.
struct AxisMap {
  std::vector<LONG> from;     // source cell of each position (-1: invalid), relative to `first`
  LONG first = 0, count = 0;  // the source cells read: first .. first + count - 1
};
AxisMap MapAxis(LONG start, LONG length, LONG cells, EdgeMode mode);

// Spreads a read source window (`columns` wide, of `pixelSize`-byte values) into a target
// window by the maps of its columns and rows.
void SpreadWindow(const void* source, const BYTE* sourceMask, LONG columns, const AxisMap& xs,
                  const AxisMap& ys, std::size_t pixelSize, void* target, BYTE* targetMask);

// The window of the output block of `width` x `height` at (column, row) grown by `margins`:
// (width + left + right) x (height + top + bottom) cells of `pixelType` from the first
// `bands` bands of `raster` (all when 0), cells beyond its edge filled by `mode`.
HRESULT ReadGrownWindow(IRaster* raster, LONG column, LONG row, LONG width, LONG height,
                        const Margins& margins, EdgeMode mode, LONG pixelType, LONG bands,
                        IPixelBlock** grown);

// The same grown by `radius` on every side, beyond the edge invalid or edge-extended.
inline HRESULT ReadGrownWindow(IRaster* raster, LONG column, LONG row, LONG width, LONG height,
                               LONG radius, bool edgeExtend, LONG pixelType, IPixelBlock** grown,
                               LONG bands = 0) {
  return ReadGrownWindow(raster, column, row, width, height, Margins::Radius(radius),
                         edgeExtend ? EdgeMode::kExtend : EdgeMode::kInvalid, pixelType, bands,
                         grown);
}

// What a neighbourhood reads.
struct WindowShape {
  Margins margins;
  EdgeMode edges = EdgeMode::kInvalid;
  LONG pixelType = -1;  // the type the window's values are read as
  LONG bands = 0;       // the input's first bands (all when 0)
  // About how many bytes of grown rows a band of rows holds; bands are a multiple of eight
  // rows, so that each starts on a whole byte of an output block's masks.
  std::size_t bandBytes = std::size_t{2} << 20;
  // The policy reads values through WindowRows::values, so a window lying wholly inside a
  // raster held in memory may be read where it lies instead of copied.
  bool inPlace = false;
};

// One band of rows of an output block and its grown window.
struct WindowRows {
  IPixelBlock* window = nullptr;  // (width + left + right) x (rows + top + bottom) cells
  LONG firstRow = 0;              // the band's first row within the output block
  LONG width = 0, rows = 0;       // output cells of the band
  LONG column = 0, row = 0;       // the band's top-left output cell in raster space
  Margins margins;
  // Output cells of the band (columns interiorLeft .. interiorRight - 1, rows interiorTop ..
  // interiorBottom - 1, relative to the band) whose whole window lies on the raster; the
  // rectangle is empty when none does.
  LONG interiorLeft = 0, interiorTop = 0, interiorRight = 0, interiorBottom = 0;
  // With WindowShape::inPlace, each band's values where the source keeps them (valuesPitch
  // cells from one row to the next) when it could lend them; the window's masks are filled
  // either way, its values only when `values` is empty.
  std::vector<const void*> values;
  std::size_t valuesPitch = 0;
  // With lent values, whether each band's window has no invalid cell (its mask all set);
  // empty when the window was copied and its masks tell.
  std::vector<bool> allValid;
  // The row stride of the window and the offset of output cell (c, r)'s window's top-left.
  std::size_t Stride() const {
    return static_cast<std::size_t>(width + margins.left + margins.right);
  }
};

// The bands of rows of a block of `height` rows for a window `columns` wide.
LONG WindowBandRows(const WindowShape& windowShape, LONG width, LONG height);
// Reads one band's grown window and works out its interior.
HRESULT ReadWindowRows(IRaster* input, LONG column, LONG row, LONG width, LONG rows, LONG firstRow,
                       const WindowShape& windowShape, IPixelBlock** window, WindowRows* band);

// Runs `policy(const WindowRows&)` (returning HRESULT) over the output block of `width` x
// `height` at (column, row), band of rows by band of rows. The first failure stops it;
// S_FALSE from every band gives S_FALSE.
template <class Policy>
HRESULT ForEachWindowRows(IRaster* input, LONG column, LONG row, LONG width, LONG height,
                          const WindowShape& windowShape, Policy&& policy) {
  if (width < 1 || height < 1) return S_OK;
  const LONG step = WindowBandRows(windowShape, width, height);
  HRESULT result = S_FALSE;
  for (LONG first = 0; first < height; first += step) {
    ComPtr<IPixelBlock> window;
    WindowRows band;
    HRESULT hr = ReadWindowRows(input, column, row, width, std::min(step, height - first), first,
                                windowShape, &window, &band);
    if (SUCCEEDED(hr)) hr = policy(static_cast<const WindowRows&>(band));
    if (FAILED(hr)) return hr;
    if (hr == S_OK) result = S_OK;
  }
  return result;
}

}  // namespace pw::raster
