// Grown-window reads with invalid or edge-extended borders.
#include "raster/algorithms/grown_window.h"

#include <algorithm>
#include <cstring>

#include "raster/mask.h"
#include "raster/pixel_block.h"

namespace pw::raster {

HRESULT ReadGrownWindow(IRaster* raster, LONG column, LONG row, LONG width, LONG height,
                        LONG radius, bool edgeExtend, LONG pixelType, IPixelBlock** block,
                        LONG wanted) {
  PW_CHECK_POINTER(block);
  *block = nullptr;
  ComPtr<IRasterProps> props;
  if (raster == nullptr || FAILED(raster->QueryInterface(IidOf<IRasterProps>(), props.OutVoid())))
    return E_INVALIDARG;
  if (radius < 0 || width < 1 || height < 1) return E_INVALIDARG;
  LONG columns = 0, rows = 0, bands = 0;
  props->get_Width(&columns);
  props->get_Height(&rows);
  props->get_BandCount(&bands);
  if (wanted > 0) bands = std::min(bands, wanted);
  const LONG gw = width + 2 * radius, gh = height + 2 * radius;
  const LONG x0 = column - radius, y0 = row - radius;
  ComPtr<IPixelBlock> grown;
  PW_RETURN_IF_FAILED(CreateUnfilledPixelBlock(gw, gh, bands, pixelType, &grown));
  PW_RETURN_IF_FAILED(raster->ReadAt(x0, y0, grown.Get()));
  const bool inside = x0 >= 0 && y0 >= 0 && x0 + gw <= columns && y0 + gh <= rows;
  if (edgeExtend && !inside) {
    // Cells beyond the raster copy the nearest edge cell; it lies in the block whenever
    // the block overlaps the raster, else it is read on its own.
    const std::size_t size = PixelSize(pixelType);
    ComPtr<IPixelBlock> single;
    PW_RETURN_IF_FAILED(CreatePixelBlock(1, 1, bands, pixelType, &single));
    auto extend = [&](LONG r, LONG c) -> HRESULT {
      const LONG x = x0 + c, y = y0 + r;
      const LONG cx = std::clamp<LONG>(x, 0, columns - 1), cy = std::clamp<LONG>(y, 0, rows - 1);
      const LONG bc = cx - x0, br = cy - y0;
      const bool inBlock = bc >= 0 && br >= 0 && bc < gw && br < gh;
      if (!inBlock) PW_RETURN_IF_FAILED(raster->ReadAt(cx, cy, single.Get()));
      for (LONG b = 0; b < bands; ++b) {
        const std::size_t to = static_cast<std::size_t>(r) * gw + static_cast<std::size_t>(c);
        auto* buffer = static_cast<std::uint8_t*>(grown->Buffer(b));
        if (inBlock) {
          const std::size_t from = static_cast<std::size_t>(br) * gw + static_cast<std::size_t>(bc);
          std::memcpy(buffer + to * size, buffer + from * size, size);
          mask::Put(grown->Mask(b), to, mask::Get(grown->Mask(b), from));
        } else {
          std::memcpy(buffer + to * size, single->Buffer(b), size);
          mask::Put(grown->Mask(b), to, mask::Get(single->Mask(b), 0));
        }
      }
      return S_OK;
    };
    // Only the cells beyond the raster: whole rows above and below it, and the columns left
    // and right of it in the rows between.
    const LONG left = std::clamp<LONG>(-x0, 0, gw), right = std::clamp<LONG>(columns - x0, 0, gw);
    for (LONG r = 0; r < gh; ++r) {
      const LONG y = y0 + r;
      const bool outside = y < 0 || y >= rows || left >= right;
      for (LONG c = 0; c < gw; ++c) {
        if (!outside && c == left) c = right;  // skip the cells inside
        if (c >= gw) break;
        PW_RETURN_IF_FAILED(extend(r, c));
      }
    }
  }
  *block = grown.Detach();
  return S_OK;
}

}  // namespace pw::raster
