// The neighbourhood engine of the terrain functions: derivatives from the 3 x 3 window
// (with the seven-valid-neighbour rule), then each function's per-cell formula, row by row
// and in parallel over rows. The all-valid path and the formulas are vectorized per
// instruction set; a scalar reference written straight from the rules stays for tests.
#pragma once

#include <cstddef>

#include "com/types.h"
#include "raster/algorithms/simd_dispatch.h"

namespace pw::functions::terrain {

enum class Surface { kSlope, kAspect, kHillshade };

// One light of a hillshade: cos of the zenith, cos D x sin Z, sin D x sin Z and its weight.
struct Light {
  double cosZenith = 0, c = 0, s = 0, weight = 1;
};

// The light of a sun at `azimuth` and `altitude` degrees.
Light MakeLight(double azimuth, double altitude, double weight);

// Constants of one block, folded at bind and read time.
struct Params {
  Surface surface = Surface::kSlope;
  double fx = 0, fy = 0;              // slope and hillshade: z-factor over 8 x cell size
  int slopeType = 1;                  // slope: 2 percent rise, anything else degrees
  bool mercator = false;              // slope: times the Mercator scale factor of each row
  double topY = 0, cellY = 0;         // slope: map Y of the block's top and the row height
  double cellX = 1, cellYAspect = 1;  // aspect: the input cell size
  int lights = 1;                     // hillshade: 1 traditional, 6 multidirectional
  Light light[6];
};

// Computes a width x height block of `outType` from `in`, a (width + 2) x (height + 2)
// block of `inType` with its validity mask. Returns S_FALSE (and an all-invalid output of 0s)
// when no input pixel is valid. `threads` rows run at once (1 runs on the caller only).
HRESULT Compute(const void* in, const BYTE* inMask, LONG inType, LONG width, LONG height, void* out,
                BYTE* outMask, LONG outType, const Params& params, int threads,
                raster::simd::Isa isa = raster::simd::Best());

// The same block computed cell by cell straight from the rules, with the C library's
// trigonometry.
HRESULT ComputeReference(const void* in, const BYTE* inMask, LONG inType, LONG width, LONG height,
                         void* out, BYTE* outMask, LONG outType, const Params& params);

// Threads for a block's row loop: half the logical processors and at least one, or one
// inside a worker of a parallel export (which already keeps every core busy).
int RowThreads();

}  // namespace pw::functions::terrain
