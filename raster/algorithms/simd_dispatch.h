// Runtime choice of instruction sets for hot kernels. A kernel body is written once, as the
// always-inlined static Run of a struct; Variants<Body, Signature> wraps it in one function
// per instruction set, which the compiler vectorizes for its set, and For(isa) hands out the
// one to call, chosen once when a function binds or a block starts:
//
//   template <class T> struct Scale {
//     PW_ALWAYS_INLINE static void Run(const T* in, std::size_t n, T* out) { ... }
//   };
//   using ScaleFn = void (*)(const T*, std::size_t, T*);
//   const ScaleFn scale = simd::Variants<Scale<T>, ScaleFn>::For(simd::Best());
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
#define PW_TARGET_AVX2 [[gnu::target("avx2,fma,popcnt")]]
#define PW_TARGET_AVX512 [[gnu::target("avx512f,avx512bw,avx512dq,avx512vl,avx2,fma,popcnt")]]
#define PW_INLINE_LAMBDA __attribute__((always_inline))
// Every function defined between PW_BEGIN_TARGET_* and PW_END_TARGET is compiled for that
// instruction set: a whole file of kernels included once a set.
// clang-format off
#if defined(__clang__)
#define PW_BEGIN_TARGET_AVX2 _Pragma("clang attribute push (__attribute__((target(\"avx2,fma,popcnt\"))), apply_to = function)")
#define PW_BEGIN_TARGET_AVX512 _Pragma("clang attribute push (__attribute__((target(\"avx512f,avx512bw,avx512dq,avx512vl,avx2,fma,popcnt\"))), apply_to = function)")
#define PW_END_TARGET _Pragma("clang attribute pop")
#else
#define PW_BEGIN_TARGET_AVX2 _Pragma("GCC push_options") _Pragma("GCC target(\"avx2,fma,popcnt\")")
#define PW_BEGIN_TARGET_AVX512 _Pragma("GCC push_options") _Pragma("GCC target(\"avx512f,avx512bw,avx512dq,avx512vl,avx2,fma,popcnt\")")
#define PW_END_TARGET _Pragma("GCC pop_options")
#endif
// clang-format on
#else
#define PW_SIMD_X86 0
#define PW_ALWAYS_INLINE inline
#define PW_TARGET_AVX2
#define PW_TARGET_AVX512
#define PW_INLINE_LAMBDA
#endif

namespace pw::raster::simd {

template <class Body, class Fn>
struct Variants;

template <class Body, class R, class... A>
struct Variants<Body, R (*)(A...)> {
  using Fn = R (*)(A...);

  static R Baseline(A... a) { return Body::Run(a...); }
#if PW_SIMD_X86
  PW_TARGET_AVX2 static R Avx2(A... a) {
    return Body::Run(a...);
  }
  PW_TARGET_AVX512 static R Avx512(A... a) {
    return Body::Run(a...);
  }
#endif

  // The variant for `isa`.
  static Fn For(Isa isa) {
#if PW_SIMD_X86
    if (isa == Isa::kAvx512) return &Avx512;
    if (isa == Isa::kAvx2) return &Avx2;
#else
    (void)isa;
#endif
    return &Baseline;
  }
};

}  // namespace pw::raster::simd
