// The masked per-pixel loop every pixel-wise kernel runs on. Masks hold one bit a pixel,
// the most significant bit of each byte first. Pixels go 64 at a time: a word whose bits
// are all set runs the kernel's branch-free body over the 64 pixels, a clear word is
// skipped, and a mixed word goes pixel by pixel. A pixel whose bit is clear is never
// written.
//
//   ForEachValid<false>(mask, n, [&](std::size_t i) { out[i] = a[i] + b[i]; return true; });
//
// With kFallible the body's result says whether pixel i got a valid value; a false result
// clears its bit (division by zero and the like).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "com/types.h"
#include "raster/algorithms/simd_dispatch.h"
#include "raster/mask.h"

namespace pw::raster::loop {

template <bool kFallible, class Body>
PW_ALWAYS_INLINE void ForEachValid(BYTE* mask, std::size_t n, Body&& body) {
  constexpr std::size_t kWord = 64;
  auto one = [&](std::size_t i) {
    const BYTE bit = static_cast<BYTE>(0x80u >> (i & 7u));
    if ((mask[i >> 3] & bit) == 0) return;
    if constexpr (kFallible) {
      if (!body(i)) mask[i >> 3] = static_cast<BYTE>(mask[i >> 3] & ~bit);
    } else {
      body(i);
    }
  };
  if constexpr (!kFallible) {
    // Every pixel valid: one flat loop, the easiest for the vectorizer.
    if (mask::AllValid(mask, n)) {
      for (std::size_t k = 0; k < n; ++k) body(k);
      return;
    }
  }
  std::size_t i = 0;
  for (; i + kWord <= n; i += kWord) {
    BYTE* m = mask + i / 8;
    std::uint64_t word;
    std::memcpy(&word, m, sizeof word);
    if (word == ~std::uint64_t{0}) {
      if constexpr (kFallible) {
        bool ok[kWord];
        for (std::size_t k = 0; k < kWord; ++k) ok[k] = body(i + k);
        for (std::size_t byte = 0; byte < kWord / 8; ++byte) {
          unsigned bits = 0;
          for (unsigned bit = 0; bit < 8; ++bit)
            bits |= static_cast<unsigned>(ok[byte * 8 + bit]) << (7 - bit);
          m[byte] = static_cast<BYTE>(bits);
        }
      } else {
        for (std::size_t k = 0; k < kWord; ++k) body(i + k);
      }
    } else if (word != 0) {
      for (std::size_t k = 0; k < kWord; ++k) one(i + k);
    }
  }
  for (; i < n; ++i) one(i);
}

}  // namespace pw::raster::loop
