// UTF-8/UTF-16 conversion and case folding for names.
#include "com/text.h"

#include <cstdint>

namespace pw {

std::u16string ToUtf16(std::string_view in) {
  std::u16string out;
  out.reserve(in.size());
  std::size_t i = 0;
  while (i < in.size()) {
    const auto b0 = static_cast<unsigned char>(in[i]);
    char32_t cp = 0xFFFD;
    std::size_t len = 1;
    if (b0 < 0x80) {
      cp = b0;
    } else if ((b0 & 0xE0) == 0xC0) {
      len = 2;
    } else if ((b0 & 0xF0) == 0xE0) {
      len = 3;
    } else if ((b0 & 0xF8) == 0xF0) {
      len = 4;
    }
    if (len > 1) {
      if (i + len > in.size()) {
        len = 1;
      } else {
        char32_t v = b0 & (0x7F >> len);
        bool ok = true;
        for (std::size_t k = 1; k < len; ++k) {
          const auto b = static_cast<unsigned char>(in[i + k]);
          if ((b & 0xC0) != 0x80) {
            ok = false;
            break;
          }
          v = (v << 6) | (b & 0x3F);
        }
        static constexpr char32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        if (ok && v >= kMin[len] && v <= 0x10FFFF && (v < 0xD800 || v > 0xDFFF)) {
          cp = v;
        } else {
          len = 1;
        }
      }
    }
    i += len;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

std::string ToUtf8(std::u16string_view in) {
  std::string out;
  out.reserve(in.size());
  for (std::size_t i = 0; i < in.size(); ++i) {
    char32_t cp = in[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < in.size() && in[i + 1] >= 0xDC00 &&
        in[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

char16_t FoldCase(char16_t c) {
  if (c >= u'a' && c <= u'z') return static_cast<char16_t>(c - 32);
  if (c < 0x80) return c;
  // Latin-1 and Latin Extended-A.
  if ((c >= 0xE0 && c <= 0xFE && c != 0xF7)) return static_cast<char16_t>(c - 32);
  if (c >= 0x100 && c <= 0x17F && (c & 1) && c != 0x131 && c != 0x138 && c != 0x149 && c != 0x17F)
    return static_cast<char16_t>(c - 1);
  // Greek and Cyrillic small letters.
  if (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) return static_cast<char16_t>(c - 32);
  if (c >= 0x430 && c <= 0x44F) return static_cast<char16_t>(c - 32);
  if (c >= 0x450 && c <= 0x45F) return static_cast<char16_t>(c - 80);
  return c;
}

int CompareNoCase(std::u16string_view a, std::u16string_view b) {
  const std::size_t n = a.size() < b.size() ? a.size() : b.size();
  for (std::size_t i = 0; i < n; ++i) {
    const char16_t x = FoldCase(a[i]);
    const char16_t y = FoldCase(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

bool EqualsNoCase(std::u16string_view a, std::u16string_view b) {
  return a.size() == b.size() && CompareNoCase(a, b) == 0;
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 32);
    if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 32);
    if (x != y) return false;
  }
  return true;
}

}  // namespace pw
