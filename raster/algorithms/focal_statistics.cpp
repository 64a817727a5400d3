// Focal statistics of window bands.
#include "raster/algorithms/focal_statistics.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <span>
#include <type_traits>
#include <vector>

#include "raster/mask.h"
#include "raster/pixel_traits.h"

#include "raster/algorithms/simd_dispatch.h"

namespace pw::raster::focal {

// clang-format off
namespace baseline {
#include "raster/algorithms/focal_kernels.inc"
}  // namespace baseline
#if PW_SIMD_X86
#pragma GCC push_options
#pragma GCC target("avx2,fma")
namespace avx2 {
#include "raster/algorithms/focal_kernels.inc"
}  // namespace avx2
#pragma GCC pop_options
#pragma GCC push_options
#pragma GCC target("avx512f,avx512bw,avx512dq,avx512vl,avx2,fma")
namespace avx512 {
#include "raster/algorithms/focal_kernels.inc"
}  // namespace avx512
#pragma GCC pop_options
#endif
// clang-format on

void Compute(const neighbourhood::Window& in, Statistic statistic, bool fillNoDataOnly,
             const neighbourhood::Target& out) {
#if PW_SIMD_X86
  const simd::Isa isa = simd::Best();
  if (isa == simd::Isa::kAvx512) return avx512::ComputeAll(in, statistic, fillNoDataOnly, out);
  if (isa == simd::Isa::kAvx2) return avx2::ComputeAll(in, statistic, fillNoDataOnly, out);
#endif
  baseline::ComputeAll(in, statistic, fillNoDataOnly, out);
}

}  // namespace pw::raster::focal
