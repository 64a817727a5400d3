// Focal statistics of window bands.
#include "raster/algorithms/focal_statistics.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <type_traits>
#include <utility>
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
PW_BEGIN_TARGET_AVX2
namespace avx2 {
#include "raster/algorithms/focal_kernels.inc"
}  // namespace avx2
PW_END_TARGET
PW_BEGIN_TARGET_AVX512
namespace avx512 {
#include "raster/algorithms/focal_kernels.inc"
}  // namespace avx512
PW_END_TARGET
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
