// Validity masks: one bit per pixel over a whole block, most significant bit of each byte
// first, set = valid; (pixels + 7) / 8 bytes. Bulk operations work a 64-bit word at a time.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace pw::raster::mask {

constexpr std::size_t Bytes(std::size_t pixels) {
  return (pixels + 7) / 8;
}

inline bool Get(const std::uint8_t* m, std::size_t i) {
  return (m[i >> 3] >> (7 - (i & 7))) & 1;
}
inline void Set(std::uint8_t* m, std::size_t i) {
  m[i >> 3] |= static_cast<std::uint8_t>(0x80u >> (i & 7));
}
inline void Clear(std::uint8_t* m, std::size_t i) {
  m[i >> 3] &= static_cast<std::uint8_t>(~(0x80u >> (i & 7)));
}
inline void Put(std::uint8_t* m, std::size_t i, bool valid) {
  if (valid) {
    Set(m, i);
  } else {
    Clear(m, i);
  }
}

// The word with its eight bytes in reverse order.
constexpr std::uint64_t SwapBytes(std::uint64_t word) {
  word = (word << 32) | (word >> 32);
  word = ((word & 0x0000FFFF0000FFFFull) << 16) | ((word >> 16) & 0x0000FFFF0000FFFFull);
  return ((word & 0x00FF00FF00FF00FFull) << 8) | ((word >> 8) & 0x00FF00FF00FF00FFull);
}

// A word loaded from memory as the little-endian machine sees it: byte k in bits 8k to 8k + 7.
constexpr std::uint64_t LittleEndian(std::uint64_t word) {
  return std::endian::native == std::endian::little ? word : SwapBytes(word);
}

// A word loaded from memory with byte 0 in its highest bits: the mask's first pixel of the
// eight bytes is bit 63, its last bit 0.
constexpr std::uint64_t BigEndian(std::uint64_t word) {
  return std::endian::native == std::endian::big ? word : SwapBytes(word);
}

// Every pixel valid (or invalid); bits past the last pixel are cleared.
void Fill(std::uint8_t* m, std::size_t pixels, bool valid);
// The number of valid pixels.
std::size_t Count(const std::uint8_t* m, std::size_t pixels);
bool AllValid(const std::uint8_t* m, std::size_t pixels);
// Whether pixels first .. first + count - 1 are all valid, at any bit offset.
bool AllValid(const std::uint8_t* m, std::size_t first, std::size_t count);
// Marks pixels first .. first + count - 1 valid, whole bytes at a time where it can.
void SetRange(std::uint8_t* m, std::size_t first, std::size_t count);
// Copies the bits of `count` pixels from source pixel `from` to target pixel `to`, at any bit
// offsets; runs that are all valid or all invalid go whole bytes at a time.
void CopyRange(const std::uint8_t* source, std::size_t from, std::uint8_t* target, std::size_t to,
               std::size_t count);
// Whether any pixel is valid; stops at the first.
bool AnyValid(const std::uint8_t* m, std::size_t pixels);
// destination |= source, or destination &= source, over `bytes` bytes.
// Writes `fill` into every value whose bit is clear, 64 pixels a word: only the clear bits
// are visited.
template <class T>
void FillInvalid(T* values, const std::uint8_t* m, std::size_t pixels, T fill) {
  const std::size_t words = pixels / 64;
  for (std::size_t w = 0; w < words; ++w) {
    std::uint64_t word;
    std::memcpy(&word, m + w * 8, 8);
    if (word == 0) {  // a run of invalid cells: one flat store loop
      std::fill_n(values + w * 64, 64, fill);
      continue;
    }
    // Byte k of the word in bits 8k to 8k + 7, its first pixel in the top one.
    for (std::uint64_t clear = ~LittleEndian(word); clear != 0; clear &= clear - 1) {
      const unsigned bit = static_cast<unsigned>(std::countr_zero(clear));
      values[w * 64 + (bit & ~7u) + (7 - (bit & 7u))] = fill;
    }
  }
  for (std::size_t i = words * 64; i < pixels; ++i)
    if (!Get(m, i)) values[i] = fill;
}

// Each pixel's validity as a byte (1 valid, 0 not).
void Unpack(const std::uint8_t* m, std::size_t pixels, std::uint8_t* bytes);
// The same for pixels first .. first + count - 1, at any bit offset.
void Unpack(const std::uint8_t* m, std::size_t first, std::size_t count, std::uint8_t* bytes);
// Sets the bits of pixels first .. first + count - 1 from their bytes (0 invalid, 1 valid, as
// Unpack gives them), whole mask bytes at a time where the run covers them.
void Pack(std::uint8_t* m, std::size_t first, const std::uint8_t* bytes, std::size_t count);

void Union(std::uint8_t* destination, const std::uint8_t* source, std::size_t bytes);
void Intersect(std::uint8_t* destination, const std::uint8_t* source, std::size_t bytes);

}  // namespace pw::raster::mask
