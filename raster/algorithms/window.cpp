// Grown windows with their edges, and the bands of rows of the window engine.
#include "raster/algorithms/window.h"

#include <cstring>

#include "raster/mask.h"
#include "raster/memory_dataset.h"
#include "raster/pixel_block.h"

namespace pw::raster {

LONG EdgeIndex(LONG i, LONG count, EdgeMode mode) {
  if (i >= 0 && i < count) return i;
  if (count <= 0) return -1;
  switch (mode) {
    case EdgeMode::kExtend:
      return std::clamp<LONG>(i, 0, count - 1);
    case EdgeMode::kMirror: {
      // The mirrored raster repeats every 2 x count cells: n .. 2n - 1 run back down to 0.
      const long long period = 2LL * count;
      long long m = static_cast<long long>(i) % period;
      if (m < 0) m += period;
      return static_cast<LONG>(m < count ? m : period - 1 - m);
    }
    case EdgeMode::kInvalid:
      break;
  }
  return -1;
}

AxisMap MapAxis(LONG start, LONG length, LONG cells, EdgeMode mode) {
  AxisMap map;
  map.from.resize(static_cast<std::size_t>(std::max<LONG>(length, 0)));
  LONG low = 0, high = -1;
  for (LONG i = 0; i < length; ++i) {
    const LONG s = EdgeIndex(start + i, cells, mode);
    map.from[static_cast<std::size_t>(i)] = s;
    if (s < 0) continue;
    if (high < low) {
      low = high = s;
    } else {
      low = std::min(low, s);
      high = std::max(high, s);
    }
  }
  map.first = high < low ? 0 : low;
  map.count = high < low ? 0 : high - low + 1;
  for (LONG& s : map.from)
    if (s >= 0) s -= map.first;
  return map;
}

void SpreadWindow(const void* source, const BYTE* sourceMask, LONG columns, const AxisMap& xs,
                  const AxisMap& ys, std::size_t pixelSize, void* target, BYTE* targetMask) {
  const auto* from = static_cast<const std::uint8_t*>(source);
  auto* to = static_cast<std::uint8_t*>(target);
  const std::size_t width = xs.from.size();
  for (std::size_t r = 0; r < ys.from.size(); ++r) {
    const LONG sy = ys.from[r];
    for (std::size_t c = 0; c < width; ++c) {
      const std::size_t o = r * width + c;
      const LONG sx = xs.from[c];
      if (sy < 0 || sx < 0) {
        std::memset(to + o * pixelSize, 0, pixelSize);
        mask::Clear(targetMask, o);
        continue;
      }
      const std::size_t i = static_cast<std::size_t>(sy) * static_cast<std::size_t>(columns) +
                            static_cast<std::size_t>(sx);
      std::memcpy(to + o * pixelSize, from + i * pixelSize, pixelSize);
      mask::Put(targetMask, o, mask::Get(sourceMask, i));
    }
  }
}

namespace {

struct Extent {
  LONG columns = 0, rows = 0, bands = 0;
};

HRESULT ExtentOf(IRaster* raster, Extent* extent) {
  ComPtr<IRasterProps> props;
  if (raster == nullptr || FAILED(raster->QueryInterface(IidOf<IRasterProps>(), props.OutVoid())))
    return E_INVALIDARG;
  props->get_Width(&extent->columns);
  props->get_Height(&extent->rows);
  props->get_BandCount(&extent->bands);
  return S_OK;
}

}  // namespace

HRESULT ReadGrownWindow(IRaster* raster, LONG column, LONG row, LONG width, LONG height,
                        const Margins& margins, EdgeMode mode, LONG pixelType, LONG wanted,
                        IPixelBlock** block) {
  PW_CHECK_POINTER(block);
  *block = nullptr;
  Extent extent;
  PW_RETURN_IF_FAILED(ExtentOf(raster, &extent));
  if (margins.left < 0 || margins.top < 0 || margins.right < 0 || margins.bottom < 0 || width < 1 ||
      height < 1)
    return E_INVALIDARG;
  const LONG bands = wanted > 0 ? std::min(extent.bands, wanted) : extent.bands;
  const LONG gw = width + margins.left + margins.right, gh = height + margins.top + margins.bottom;
  const LONG x0 = column - margins.left, y0 = row - margins.top;
  ComPtr<IPixelBlock> grown;
  PW_RETURN_IF_FAILED(CreateUnfilledPixelBlock(gw, gh, bands, pixelType, &grown));
  const bool inside = x0 >= 0 && y0 >= 0 && x0 + gw <= extent.columns && y0 + gh <= extent.rows;
  if (inside || mode == EdgeMode::kInvalid) {
    // The view itself makes the cells beyond the raster invalid.
    PW_RETURN_IF_FAILED(raster->ReadAt(x0, y0, grown.Get()));
    *block = grown.Detach();
    return S_OK;
  }
  // The source cells the window takes are read once and spread by the edge mode.
  const AxisMap xs = MapAxis(x0, gw, extent.columns, mode);
  const AxisMap ys = MapAxis(y0, gh, extent.rows, mode);
  if (xs.count == 0 || ys.count == 0) {
    PW_RETURN_IF_FAILED(ClearPixelBlock(grown.Get()));
    *block = grown.Detach();
    return S_OK;
  }
  ComPtr<IPixelBlock> source;
  PW_RETURN_IF_FAILED(CreateUnfilledPixelBlock(xs.count, ys.count, bands, pixelType, &source));
  PW_RETURN_IF_FAILED(raster->ReadAt(xs.first, ys.first, source.Get()));
  for (LONG b = 0; b < bands; ++b)
    SpreadWindow(source->Buffer(b), source->Mask(b), xs.count, xs, ys, PixelSize(pixelType),
                 grown->Buffer(b), grown->Mask(b));
  *block = grown.Detach();
  return S_OK;
}

LONG WindowBandRows(const WindowShape& windowShape, LONG width, LONG height) {
  const std::size_t rowBytes =
      static_cast<std::size_t>(width + windowShape.margins.left + windowShape.margins.right) *
      PixelSize(windowShape.pixelType) *
      static_cast<std::size_t>(std::max<LONG>(windowShape.bands, 1));
  const std::size_t rows =
      std::max<std::size_t>(8, windowShape.bandBytes / std::max<std::size_t>(rowBytes, 1) / 8 * 8);
  return static_cast<LONG>(
      std::min<std::size_t>(rows, static_cast<std::size_t>(std::max<LONG>(height, 1))));
}

// Rows of a lent window's mask asked for ahead of the one being checked.
constexpr LONG kMaskAhead = 16;

HRESULT ReadWindowRows(IRaster* input, LONG column, LONG row, LONG width, LONG rows, LONG firstRow,
                       const WindowShape& windowShape, IPixelBlock** window, WindowRows* band) {
  Extent extent;
  PW_RETURN_IF_FAILED(ExtentOf(input, &extent));
  const Margins& m = windowShape.margins;
  const LONG top = row + firstRow;
  band->values.clear();
  band->valuesPitch = 0;
  band->allValid.clear();
  const LONG gw = width + m.left + m.right, gh = rows + m.top + m.bottom;
  MemoryCells cells;
  if (windowShape.inPlace && LendMemoryCells(input, column - m.left, top - m.top, gw, gh,
                                             windowShape.pixelType, windowShape.bands, &cells)) {
    // The values stay where they are; the masks are gathered into the window's, in one go
    // when the band is known to be all valid or every row is (the common cases, and then the
    // filters need not look again).
    const LONG bands = static_cast<LONG>(cells.values.size());
    PW_RETURN_IF_FAILED(CreateUnfilledPixelBlock(gw, gh, bands, windowShape.pixelType, window));
    const auto span = static_cast<std::size_t>(gw);
    for (LONG b = 0; b < bands; ++b) {
      const BYTE* from = cells.masks[static_cast<std::size_t>(b)];
      auto at = [&](LONG r) { return cells.maskFirst + static_cast<std::size_t>(r) * cells.pitch; };
      // The rows' bits are short runs far apart: asked for well ahead of their check.
      auto fetch = [&](LONG r) {
        if (r >= gh) return;
        const BYTE* bits = from + at(r) / 8;
        __builtin_prefetch(bits);
        __builtin_prefetch(bits + span / 8);
      };
      const bool known = cells.allValid[static_cast<std::size_t>(b)];
      for (LONG r = 0; r < kMaskAhead && !known; ++r) fetch(r);
      LONG r = known ? gh : 0;
      while (r < gh && mask::AllValid(from, at(r), span)) fetch(++r + kMaskAhead - 1);
      band->allValid.push_back(r == gh);
      BYTE* bits = (*window)->Mask(b);
      if (r == gh) {
        mask::Fill(bits, span * static_cast<std::size_t>(gh), true);
        continue;
      }
      // The rows checked valid are set whole; the rest, from the first with a hole, copied.
      mask::SetRange(bits, 0, static_cast<std::size_t>(r) * span);
      for (; r < gh; ++r)
        mask::CopyRange(from, at(r), bits, static_cast<std::size_t>(r) * span, span);
    }
    band->values = std::move(cells.values);
    band->valuesPitch = cells.pitch;
  } else {
    PW_RETURN_IF_FAILED(ReadGrownWindow(input, column, top, width, rows, m, windowShape.edges,
                                        windowShape.pixelType, windowShape.bands, window));
  }
  band->window = *window;
  band->firstRow = firstRow;
  band->width = width;
  band->rows = rows;
  band->column = column;
  band->row = top;
  band->margins = m;
  // Cell c's window covers columns column + c - left .. column + c + right.
  band->interiorLeft = std::clamp<LONG>(m.left - column, 0, width);
  band->interiorRight = std::clamp<LONG>(extent.columns - m.right - column, 0, width);
  band->interiorTop = std::clamp<LONG>(m.top - top, 0, rows);
  band->interiorBottom = std::clamp<LONG>(extent.rows - m.bottom - top, 0, rows);
  if (band->interiorRight <= band->interiorLeft || band->interiorBottom <= band->interiorTop)
    band->interiorLeft = band->interiorRight = band->interiorTop = band->interiorBottom = 0;
  return S_OK;
}

}  // namespace pw::raster
