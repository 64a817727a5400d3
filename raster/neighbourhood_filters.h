// The neighbourhood filters a raster view can carry: the convolution filter and the focal
// statistics filter. Configured once, then read from many threads: a read never changes
// them. Each reads the window it needs through the window engine and fills the block.
#pragma once

#include "raster/model.h"

namespace pw::raster {

// Unconfigured: type 19 (sharpen), no mirroring.
HRESULT CreateConvolutionFilter(IRasterConvolutionFilter** filter);
// Unconfigured: the 3 x 3 mean.
HRESULT CreateFocalStatisticsFilter(IFocalStatisticsFilter** filter);

}  // namespace pw::raster
