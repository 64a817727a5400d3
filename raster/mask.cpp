// Word-at-a-time mask operations.
#include "raster/mask.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace pw::raster::mask {
namespace {

template <class Op>
void Combine(std::uint8_t* d, const std::uint8_t* s, std::size_t bytes, Op op) {
  std::size_t i = 0;
  for (; i + 8 <= bytes; i += 8) {
    std::uint64_t a, b;
    std::memcpy(&a, d + i, 8);
    std::memcpy(&b, s + i, 8);
    a = op(a, b);
    std::memcpy(d + i, &a, 8);
  }
  for (; i < bytes; ++i) d[i] = static_cast<std::uint8_t>(op(d[i], s[i]));
}

// The bits of the last byte that belong to pixels.
std::uint8_t TailBits(std::size_t pixels) {
  const std::size_t used = pixels & 7;
  return used == 0 ? 0xFF : static_cast<std::uint8_t>(0xFF << (8 - used));
}

}  // namespace

void Fill(std::uint8_t* m, std::size_t pixels, bool valid) {
  const std::size_t bytes = Bytes(pixels);
  if (bytes == 0) return;
  std::memset(m, valid ? 0xFF : 0x00, bytes);
  if (valid) m[bytes - 1] &= TailBits(pixels);
}

std::size_t Count(const std::uint8_t* m, std::size_t pixels) {
  const std::size_t full = pixels / 8;
  std::size_t n = 0, i = 0;
  for (; i + 8 <= full; i += 8) {
    std::uint64_t w;
    std::memcpy(&w, m + i, 8);
    n += static_cast<std::size_t>(std::popcount(w));
  }
  for (; i < full; ++i) n += static_cast<std::size_t>(std::popcount(static_cast<unsigned>(m[i])));
  if (pixels & 7)
    n += static_cast<std::size_t>(std::popcount(static_cast<unsigned>(m[full] & TailBits(pixels))));
  return n;
}

namespace {

// Whether any pixel's bit differs from `bit`; bits past the last pixel are ignored.
bool AnyDiffers(const std::uint8_t* m, std::size_t pixels, bool bit) {
  const std::size_t full = pixels / 8;
  const std::uint8_t same = bit ? 0xFF : 0x00;
  const std::uint64_t sameWord = bit ? ~std::uint64_t{0} : 0;
  std::size_t i = 0;
  for (; i + 8 <= full; i += 8) {
    std::uint64_t w;
    std::memcpy(&w, m + i, 8);
    if (w != sameWord) return true;
  }
  for (; i < full; ++i)
    if (m[i] != same) return true;
  return (pixels & 7) != 0 && ((m[full] ^ same) & TailBits(pixels)) != 0;
}

}  // namespace

bool AllValid(const std::uint8_t* m, std::size_t pixels) {
  return !AnyDiffers(m, pixels, true);
}

bool AllValid(const std::uint8_t* m, std::size_t first, std::size_t count) {
  if (count == 0) return true;
  m += first / 8;
  if (const unsigned shift = first % 8; shift != 0) {
    // The first byte's pixels shift .. shift + head - 1, bit 7 - shift downwards.
    const unsigned head = static_cast<unsigned>(std::min<std::size_t>(8 - shift, count));
    const unsigned wanted = (0xFFu >> shift) & ~(0xFFu >> (shift + head));
    if ((*m & wanted) != wanted) return false;
    ++m;
    count -= head;
  }
  return !AnyDiffers(m, count, true);
}

void SetRange(std::uint8_t* m, std::size_t first, std::size_t count) {
  for (; count > 0 && first % 8 != 0; ++first, --count) Set(m, first);
  std::memset(m + first / 8, 0xFF, count / 8);
  for (std::size_t i = first + count / 8 * 8; i < first + count; ++i) Set(m, i);
}

void CopyRange(const std::uint8_t* source, std::size_t from, std::uint8_t* target, std::size_t to,
               std::size_t count) {
  if (AllValid(source, from, count)) {
    SetRange(target, to, count);
    return;
  }
  for (std::size_t k = 0; k < count; ++k) Put(target, to + k, Get(source, from + k));
}

bool AnyValid(const std::uint8_t* m, std::size_t pixels) {
  return AnyDiffers(m, pixels, false);
}

void Union(std::uint8_t* d, const std::uint8_t* s, std::size_t bytes) {
  Combine(d, s, bytes, [](auto a, auto b) { return a | b; });
}

void Intersect(std::uint8_t* d, const std::uint8_t* s, std::size_t bytes) {
  Combine(d, s, bytes, [](auto a, auto b) { return a & b; });
}

void Unpack(const std::uint8_t* m, std::size_t pixels, std::uint8_t* bytes) {
  const std::size_t whole = pixels / 8;
  for (std::size_t b = 0; b < whole; ++b) {
    const unsigned byte = m[b];
    for (unsigned k = 0; k < 8; ++k)
      bytes[b * 8 + k] = static_cast<std::uint8_t>((byte >> (7 - k)) & 1u);
  }
  for (std::size_t i = whole * 8; i < pixels; ++i) bytes[i] = Get(m, i) ? 1 : 0;
}

void Unpack(const std::uint8_t* m, std::size_t first, std::size_t count, std::uint8_t* bytes) {
  std::size_t i = 0;
  for (; i < count && (first + i) % 8 != 0; ++i) bytes[i] = Get(m, first + i) ? 1 : 0;
  Unpack(m + (first + i) / 8, count - i, bytes + i);
}

void Pack(std::uint8_t* m, std::size_t first, const std::uint8_t* bytes, std::size_t count) {
  std::size_t i = 0;
  for (; i < count && (first + i) % 8 != 0; ++i) Put(m, first + i, bytes[i] != 0);
  for (; i + 8 <= count; i += 8) {
    // Eight 0/1 bytes gathered into one, the first pixel in the top bit, by one multiply.
    std::uint64_t x = 0;
    std::memcpy(&x, bytes + i, 8);
    m[(first + i) / 8] = static_cast<std::uint8_t>((LittleEndian(x) * 0x8040201008040201ull) >> 56);
  }
  for (; i < count; ++i) Put(m, first + i, bytes[i] != 0);
}

}  // namespace pw::raster::mask
