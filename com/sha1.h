// SHA-1, usable at compile time; it exists to derive name-based identifiers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace pw {

class Sha1 {
 public:
  constexpr void Update(const std::uint8_t* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) Push(data[i]);
  }
  constexpr void Update(std::string_view text) {
    for (char c : text) Push(static_cast<std::uint8_t>(c));
  }
  constexpr std::array<std::uint8_t, 20> Finish() {
    const std::uint64_t bits = length_ * 8;
    Push(0x80);
    while (fill_ != 56) Push(0);
    for (int i = 7; i >= 0; --i) Push(static_cast<std::uint8_t>(bits >> (i * 8)));
    std::array<std::uint8_t, 20> out{};
    for (int i = 0; i < 5; ++i)
      for (int j = 0; j < 4; ++j) out[i * 4 + j] = static_cast<std::uint8_t>(h_[i] >> (24 - 8 * j));
    return out;
  }

 private:
  static constexpr std::uint32_t Rotl(std::uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

  constexpr void Push(std::uint8_t byte) {
    block_[fill_++] = byte;
    ++length_;
    if (fill_ == 64) {
      Compress();
      fill_ = 0;
    }
  }

  constexpr void Compress() {
    std::uint32_t w[80] = {};
    for (int i = 0; i < 16; ++i)
      w[i] = (std::uint32_t{block_[i * 4]} << 24) | (std::uint32_t{block_[i * 4 + 1]} << 16) |
             (std::uint32_t{block_[i * 4 + 2]} << 8) | block_[i * 4 + 3];
    for (int i = 16; i < 80; ++i) w[i] = Rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    std::uint32_t a = h_[0], b = h_[1], c = h_[2], d = h_[3], e = h_[4];
    for (int i = 0; i < 80; ++i) {
      std::uint32_t f = 0, k = 0;
      if (i < 20) {
        f = (b & c) | (~b & d);
        k = 0x5A827999;
      } else if (i < 40) {
        f = b ^ c ^ d;
        k = 0x6ED9EBA1;
      } else if (i < 60) {
        f = (b & c) | (b & d) | (c & d);
        k = 0x8F1BBCDC;
      } else {
        f = b ^ c ^ d;
        k = 0xCA62C1D6;
      }
      const std::uint32_t t = Rotl(a, 5) + f + e + k + w[i];
      e = d;
      d = c;
      c = Rotl(b, 30);
      b = a;
      a = t;
    }
    h_[0] += a;
    h_[1] += b;
    h_[2] += c;
    h_[3] += d;
    h_[4] += e;
  }

  std::uint32_t h_[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  std::uint8_t block_[64] = {};
  std::size_t fill_ = 0;
  std::uint64_t length_ = 0;
};

}  // namespace pw
