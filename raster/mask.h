// Validity masks: one bit per pixel over a whole block, most significant bit of each byte
// first, set = valid; (pixels + 7) / 8 bytes. Bulk operations work a 64-bit word at a time.
#pragma once

#include <cstddef>
#include <cstdint>

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

// Every pixel valid (or invalid); bits past the last pixel are cleared.
void Fill(std::uint8_t* m, std::size_t pixels, bool valid);
// The number of valid pixels.
std::size_t Count(const std::uint8_t* m, std::size_t pixels);
bool AllValid(const std::uint8_t* m, std::size_t pixels);
// destination |= source, or destination &= source, over `bytes` bytes.
void Union(std::uint8_t* destination, const std::uint8_t* source, std::size_t bytes);
void Intersect(std::uint8_t* destination, const std::uint8_t* source, std::size_t bytes);

}  // namespace pw::raster::mask
