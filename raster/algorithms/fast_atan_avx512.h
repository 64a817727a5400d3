// The single-precision arctangent polynomial of fast_atan.h on AVX-512 vectors (sixteen
// floats or eight doubles) in fused multiply-adds, and the lane mask of a row's last step.
// For kernels written with intrinsics, in functions compiled for AVX-512 (PW_TARGET_AVX512).
#pragma once

#include "raster/algorithms/fast_atan.h"

#if PW_SIMD_X86
#include <immintrin.h>

// Around code with intrinsics: GCC 12 takes the undefined pass-through operands inside the
// intrinsics for uninitialized values.
#if defined(__GNUC__) && !defined(__clang__)
#define PW_AVX512_INTRINSICS_BEGIN \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wmaybe-uninitialized\"")
#define PW_AVX512_INTRINSICS_END _Pragma("GCC diagnostic pop")
#else
#define PW_AVX512_INTRINSICS_BEGIN
#define PW_AVX512_INTRINSICS_END
#endif

namespace pw::raster::fast {

PW_TARGET_AVX512 inline __m512 Broadcast(float v, __m512) {
  return _mm512_set1_ps(v);
}
PW_TARGET_AVX512 inline __m512d Broadcast(float v, __m512d) {
  return _mm512_set1_pd(v);
}
PW_TARGET_AVX512 inline __m512 Mul(__m512 a, __m512 b) {
  return _mm512_mul_ps(a, b);
}
PW_TARGET_AVX512 inline __m512d Mul(__m512d a, __m512d b) {
  return _mm512_mul_pd(a, b);
}
PW_TARGET_AVX512 inline __m512 Fma(__m512 a, __m512 b, __m512 c) {
  return _mm512_fmadd_ps(a, b, c);
}
PW_TARGET_AVX512 inline __m512d Fma(__m512d a, __m512d b, __m512d c) {
  return _mm512_fmadd_pd(a, b, c);
}

// AtanUnitF of each lane of q (in [0, 1]).
template <class V>
PW_TARGET_AVX512 inline V AtanUnitVector(V q) {
  const V z = Mul(q, q), z2 = Mul(z, z), z4 = Mul(z2, z2);
  V pair[4];
  for (int k = 0; k < 4; ++k)
    pair[k] = Fma(Broadcast(kAtanP[2 * k + 1], q), z, Broadcast(kAtanP[2 * k], q));
  const V low = Fma(z2, pair[1], pair[0]), high = Fma(z2, pair[3], pair[2]);
  return Fma(Fma(z4, high, low), Mul(z, q), q);
}

// The cells of a step of sixteen from `c` that lie in a row of `width`.
inline __mmask16 CellsFrom(long c, long width) {
  return width - c >= 16 ? __mmask16{0xFFFF} : static_cast<__mmask16>((1u << (width - c)) - 1);
}

}  // namespace pw::raster::fast
#endif
