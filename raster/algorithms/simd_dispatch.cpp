// Instruction set detection.
#include "raster/algorithms/simd_dispatch.h"

#include <cstdlib>
#include <cstring>

namespace pw::raster::simd {
namespace {

Isa Detect() {
  Isa best = Isa::kBaseline;
#if PW_SIMD_X86
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
      __builtin_cpu_supports("popcnt"))
    best = Isa::kAvx2;
  if (best == Isa::kAvx2 && __builtin_cpu_supports("avx512f") &&
      __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq") &&
      __builtin_cpu_supports("avx512vl"))
    best = Isa::kAvx512;
#endif
  if (const char* wanted = std::getenv("PIXWERK_ISA")) {
    if (std::strcmp(wanted, "baseline") == 0) best = Isa::kBaseline;
    if (std::strcmp(wanted, "avx2") == 0 && best == Isa::kAvx512) best = Isa::kAvx2;
  }
  return best;
}

}  // namespace

Isa Best() {
  static const Isa best = Detect();
  return best;
}

const char* Name(Isa isa) {
  switch (isa) {
    case Isa::kAvx2:
      return "avx2";
    case Isa::kAvx512:
      return "avx512";
    default:
      return "baseline";
  }
}

}  // namespace pw::raster::simd
