// Float aspect on AVX-512, sixteen cells a step: the steps of the portable form (Atan2F and
// the wrap), the reduced angle's polynomial in fused multiply-adds, under a mask for a row's
// last cells.
#include "functions/terrain/aspect_formula.h"
#include "raster/algorithms/fast_atan_avx512.h"

namespace pw::functions::terrain {

#if PW_SIMD_X86
PW_AVX512_INTRINSICS_BEGIN
namespace {

template <bool kSquare>
PW_TARGET_AVX512 void AspectFloatAvx512(const double* columns, const double* upper,
                                        const double* lower, LONG width,
                                        const AspectFormula::Params& p, float* out) {
  const __m512d cx = _mm512_set1_pd(p.cellX), cy = _mm512_set1_pd(p.cellY);
  const __m512d zero = _mm512_setzero_pd(), sign = _mm512_set1_pd(-0.0), one = _mm512_set1_pd(1.0);
  const __m512d ninety = _mm512_set1_pd(90.0), turn = _mm512_set1_pd(360.0);
  const __m512d degrees = _mm512_set1_pd(kDegrees), flatValue = _mm512_set1_pd(-1.0);
  const __m512d minusDegrees = _mm512_set1_pd(-kDegrees);
  const __m512d quarterTurn = _mm512_set1_pd(raster::fast::kPi / 2 * kDegrees),
                halfTurn = _mm512_set1_pd(raster::fast::kPi * kDegrees);
  for (LONG c = 0; c < width; c += 16) {
    const __mmask16 cells = raster::fast::CellsFrom(c, width);
    __m512d x[2], y[2], ax[2], ay[2], hi[2];
    __m512d q[2];
    for (int h = 0; h < 2; ++h) {
      const __mmask8 m = static_cast<__mmask8>(cells >> (8 * h));
      const LONG k = c + 8 * h;
      x[h] = _mm512_sub_pd(_mm512_maskz_loadu_pd(m, columns + k + 2),
                           _mm512_maskz_loadu_pd(m, columns + k));
      y[h] =
          _mm512_sub_pd(_mm512_maskz_loadu_pd(m, lower + k), _mm512_maskz_loadu_pd(m, upper + k));
      if constexpr (!kSquare) x[h] = _mm512_div_pd(x[h], cx), y[h] = _mm512_div_pd(y[h], cy);
      ax[h] = _mm512_andnot_pd(sign, x[h]);
      ay[h] = _mm512_andnot_pd(sign, y[h]);
      hi[h] = _mm512_max_pd(ax[h], ay[h]);
      const __m512d lo = _mm512_min_pd(ax[h], ay[h]);
      const __mmask8 some = _mm512_cmp_pd_mask(hi[h], zero, _CMP_NEQ_UQ);  // NaN goes on
      // lo / hi to float precision: a reciprocal estimate and one Newton step (28 bits).
      const __m512d r0 = _mm512_rcp14_pd(hi[h]);
      const __m512d r1 = _mm512_fmadd_pd(_mm512_fnmadd_pd(hi[h], r0, one), r0, r0);
      q[h] = _mm512_maskz_mul_pd(some, lo, r1);
      // A subnormal or infinite hi has no usable reciprocal: those cells divide, equal
      // magnitudes lying on the diagonal as in the portable form.
      const __mmask8 rare = _mm512_fpclass_pd_mask(hi[h], 0x28);
      if (rare != 0) {
        q[h] = _mm512_mask_div_pd(q[h], rare, lo, hi[h]);
        q[h] = _mm512_mask_mov_pd(
            q[h], static_cast<__mmask8>(rare & _mm512_cmp_pd_mask(lo, hi[h], _CMP_EQ_OQ)), one);
      }
    }
    __m256 angle[2];
    for (int h = 0; h < 2; ++h) {
      const __m512d a = raster::fast::AtanUnitVector(q[h]);
      // The angle of (-x, y) is s (c + t a): c a multiple of pi/2 and t = +-1 from whether
      // the cell lies past the diagonal and in the left half (x > 0), s = -1 below the axis.
      // 90 - angle x degrees = (90 - s c degrees) + (-s t degrees) a, the first part and the
      // factor formed while the arctangent is being computed.
      const __mmask8 past = _mm512_cmp_pd_mask(ay[h], ax[h], _CMP_GT_OQ);
      const __mmask8 left = _mm512_cmp_pd_mask(x[h], zero, _CMP_GT_OQ);
      const __mmask8 below = _mm512_cmp_pd_mask(y[h], zero, _CMP_LT_OQ);
      __m512d turns = _mm512_maskz_mov_pd(past, quarterTurn);  // c x degrees
      turns = _mm512_mask_mov_pd(turns, static_cast<__mmask8>(left & ~past), halfTurn);
      const __m512d base = _mm512_mask_add_pd(_mm512_sub_pd(ninety, turns), below, ninety, turns);
      const __m512d factor =
          _mm512_mask_mov_pd(minusDegrees, static_cast<__mmask8>(below ^ past ^ left), degrees);
      __m512d v = _mm512_fmadd_pd(factor, a, base);
      v = _mm512_mask_add_pd(v, _mm512_cmp_pd_mask(v, zero, _CMP_LT_OQ), v, turn);
      const __mmask8 flat = static_cast<__mmask8>(_mm512_cmp_pd_mask(x[h], zero, _CMP_EQ_OQ) &
                                                  _mm512_cmp_pd_mask(y[h], zero, _CMP_EQ_OQ));
      v = _mm512_mask_mov_pd(v, flat, flatValue);
      v = _mm512_mask_mov_pd(v, _mm512_cmp_pd_mask(v, turn, _CMP_GE_OQ), zero);
      angle[h] = _mm512_cvtpd_ps(v);
    }
    _mm512_mask_storeu_ps(out + c, cells,
                          _mm512_insertf32x8(_mm512_castps256_ps512(angle[0]), angle[1], 1));
  }
}

}  // namespace

void AspectFormula::FloatAvx512(const double* columns, const double* upper, const double* lower,
                                LONG width, LONG, const void* params, void* target) {
  const auto& p = *static_cast<const AspectFormula::Params*>(params);
  // Square cells need no division by the cell size: the direction is the same.
  if (p.cellX == p.cellY) {
    AspectFloatAvx512<true>(columns, upper, lower, width, p, static_cast<float*>(target));
  } else {
    AspectFloatAvx512<false>(columns, upper, lower, width, p, static_cast<float*>(target));
  }
}

PW_AVX512_INTRINSICS_END
#endif

}  // namespace pw::functions::terrain
