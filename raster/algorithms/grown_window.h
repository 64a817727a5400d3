// The grown-window read that neighbourhood functions share: the block at (column, row)
// grown by `radius` cells on every side, with cells beyond the raster invalid or, with
// edge extension, repeating the nearest edge cell.
#pragma once

#include "raster/model.h"

namespace pw::raster {

// `block` receives (width + 2 radius) x (height + 2 radius) pixels of `pixelType`, of the
// first `bands` bands (every band when `bands` is 0).
HRESULT ReadGrownWindow(IRaster* raster, LONG column, LONG row, LONG width, LONG height,
                        LONG radius, bool edgeExtend, LONG pixelType, IPixelBlock** block,
                        LONG bands = 0);

}  // namespace pw::raster
