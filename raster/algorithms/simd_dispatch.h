// Runtime choice of instruction sets for hot kernels. A kernel body is written once as an
// always-inlined template and wrapped in one function per instruction set; the compiler
// vectorizes each wrapper for its set, and the caller picks the best one the processor
// has, once, when it binds.
//
//   template <class T> PW_ALWAYS_INLINE void Body(...) { ... }
//   template <class T> PW_TARGET_AVX512 void BodyAvx512(...) { Body<T>(...); }
//   template <class T> PW_TARGET_AVX2 void BodyAvx2(...) { Body<T>(...); }
//   template <class T> void BodyBaseline(...) { Body<T>(...); }
#pragma once

namespace pw::raster::simd {

enum class Isa { kBaseline, kAvx2, kAvx512 };

// The widest set this processor runs (kBaseline off x86-64 or on other compilers). The
// environment variable PIXWERK_ISA (baseline, avx2, avx512) lowers it, for tests and
// measurements.
Isa Best();

const char* Name(Isa isa);

}  // namespace pw::raster::simd

// PW_INLINE_LAMBDA after a lambda's parameters makes sure a loop body is inlined into the
// wrapper that vectorizes it.
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define PW_SIMD_X86 1
#define PW_ALWAYS_INLINE [[gnu::always_inline]] inline
#define PW_TARGET_AVX2 [[gnu::target("avx2,fma")]]
#define PW_TARGET_AVX512 [[gnu::target("avx512f,avx512bw,avx512dq,avx512vl,avx2,fma")]]
#define PW_INLINE_LAMBDA __attribute__((always_inline))
#else
#define PW_SIMD_X86 0
#define PW_ALWAYS_INLINE inline
#define PW_TARGET_AVX2
#define PW_TARGET_AVX512
#define PW_INLINE_LAMBDA
#endif
