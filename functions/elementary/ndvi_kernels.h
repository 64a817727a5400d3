// The pixel kernels of the NDVI function, one per pair of input and output type and per
// output mode, and the scalar reference they are tested against.
#pragma once

#include <cstddef>

#include "com/types.h"
#include "raster/algorithms/simd_dispatch.h"

namespace pw::functions::ndvi {

// Computes the index of n pixels from the red and near-infrared values (both of the input
// type) into out. Pixels whose bit in `mask` is clear are not written.
using Kernel = void (*)(const void* red, const void* infrared, void* out, BYTE* mask,
                        std::size_t n);

// Null for a type code outside 0 to 10. Every instruction set gives the same values.
Kernel SelectKernel(LONG input, LONG output, bool scientific,
                    raster::simd::Isa isa = raster::simd::Best());

// One pixel straight from the rules, as stored in `output`.
double ReferencePixel(double red, double infrared, LONG output, bool scientific);

}  // namespace pw::functions::ndvi
