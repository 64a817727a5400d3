// UTF-8 and UTF-16 conversions and case-insensitive comparison of ASCII-cased names.
#pragma once

#include <string>
#include <string_view>

namespace pw {

// Malformed input is replaced by U+FFFD rather than rejected.
std::u16string ToUtf16(std::string_view utf8);
std::string ToUtf8(std::u16string_view utf16);

// Case-insensitive equality and ordering for names (registry keys, property names).
// Letters are folded with simple case mapping of the Latin, Greek and Cyrillic ranges.
char16_t FoldCase(char16_t c);
bool EqualsNoCase(std::u16string_view a, std::u16string_view b);
int CompareNoCase(std::u16string_view a, std::u16string_view b);
bool EqualsNoCase(std::string_view a, std::string_view b);

}  // namespace pw
