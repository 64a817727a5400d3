// Float slope in degrees on AVX-512, sixteen cells a step. The square of the rise goes to
// float as in the portable form; the rise and its reciprocal, the two quotients the
// arctangent's reduction needs, come from one reciprocal square root estimate refined by a
// Newton step in fused multiply-adds, instead of a square root and a division (both long
// and slow on wide vectors). Flat and infinitely steep cells take their limits. The last
// cells of a row go through the same steps under a mask, so that a cell's value never
// depends on where the row it lies in starts.
#include "functions/terrain/slope_formula.h"
#include "raster/algorithms/fast_atan_avx512.h"

namespace pw::functions::terrain {

#if PW_SIMD_X86
PW_AVX512_INTRINSICS_BEGIN
namespace {

// The squared rise of the cells of `m` among eight as the portable form has it, rounded to
// float (0 for the others).
PW_TARGET_AVX512 inline __m256 SquaredRise(const double* columns, const double* upper,
                                           const double* lower, LONG k, __mmask8 m, __m512d fx,
                                           __m512d fy, __m512d scale2) {
  const __m512d gx = _mm512_mul_pd(fx, _mm512_sub_pd(_mm512_maskz_loadu_pd(m, columns + k + 2),
                                                     _mm512_maskz_loadu_pd(m, columns + k)));
  const __m512d gy = _mm512_mul_pd(
      fy, _mm512_sub_pd(_mm512_maskz_loadu_pd(m, lower + k), _mm512_maskz_loadu_pd(m, upper + k)));
  return _mm512_cvtpd_ps(
      _mm512_mul_pd(_mm512_add_pd(_mm512_mul_pd(gx, gx), _mm512_mul_pd(gy, gy)), scale2));
}

}  // namespace

void SlopeFormula::FloatAvx512(const double* columns, const double* upper, const double* lower,
                               LONG width, LONG row, const void* params, void* target) {
  const auto& p = *static_cast<const SlopeFormula::Params*>(params);
  float* const out = static_cast<float*>(target);
  if (p.slopeType == 2) {
    SlopeFormula::Row<float>(SummedDerivatives{columns, upper, lower}, width, row, p, out);
    return;
  }
  const double scale = SlopeFormula::Scale(row, p);
  const __m512d fx = _mm512_set1_pd(p.fx), fy = _mm512_set1_pd(p.fy),
                scale2 = _mm512_set1_pd(scale * scale);
  const __m512 one = _mm512_set1_ps(1.0f), half = _mm512_set1_ps(0.5f);
  const __m512 halfPi = _mm512_set1_ps(1.5707963267948966f);
  const __m512 halfPiLow =
      _mm512_set1_ps(static_cast<float>(1.5707963267948966 - double{1.5707963267948966f}));
  const __m512 degrees = _mm512_set1_ps(static_cast<float>(kDegrees));
  for (LONG c = 0; c < width; c += 16) {
    const __mmask16 cells = raster::fast::CellsFrom(c, width);
    const __m512 s = _mm512_insertf32x8(
        _mm512_castps256_ps512(
            SquaredRise(columns, upper, lower, c, static_cast<__mmask8>(cells), fx, fy, scale2)),
        SquaredRise(columns, upper, lower, c + 8, static_cast<__mmask8>(cells >> 8), fx, fy,
                    scale2),
        1);
    const __m512 r = _mm512_rsqrt14_ps(s);
    const __m512 h = _mm512_mul_ps(s, r);
    const __m512 e = _mm512_mul_ps(half, _mm512_fnmadd_ps(h, r, one));  // (1 - s r^2) / 2
    const __mmask16 steep = _mm512_cmp_ps_mask(s, one, _CMP_GT_OQ);
    // q = min(rise, 1) / max(rise, 1); 0 for a flat or an infinitely steep cell.
    __m512 q = _mm512_mask_blend_ps(steep, _mm512_fmadd_ps(e, h, h), _mm512_fmadd_ps(e, r, r));
    q = _mm512_maskz_mov_ps(static_cast<__mmask16>(~_mm512_fpclass_ps_mask(s, 0x0E)), q);
    const __m512 a = raster::fast::AtanUnitVector(q);
    const __m512 angle =
        _mm512_mask_blend_ps(steep, a, _mm512_add_ps(_mm512_sub_ps(halfPi, a), halfPiLow));
    _mm512_mask_storeu_ps(out + c, cells, _mm512_mul_ps(angle, degrees));
  }
}

PW_AVX512_INTRINSICS_END
#endif

}  // namespace pw::functions::terrain
