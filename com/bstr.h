// BSTR: length-prefixed UTF-16 strings (Sys* functions), and the RAII helper Bstr.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "com/types.h"

#ifndef _WIN32
// The 32-bit byte length sits just before the first character; the text is followed by
// a NUL that the length does not count. A null BSTR is an empty string.
BSTR SysAllocString(const OLECHAR* text);
BSTR SysAllocStringLen(const OLECHAR* text, UINT length);
BSTR SysAllocStringByteLen(const char* bytes, UINT byteLength);
INT SysReAllocString(BSTR* target, const OLECHAR* text);
INT SysReAllocStringLen(BSTR* target, const OLECHAR* text, UINT length);
UINT SysStringLen(BSTR text);
UINT SysStringByteLen(BSTR text);
void SysFreeString(BSTR text);
#endif

namespace pw {

class Bstr {
 public:
  Bstr() noexcept = default;
  explicit Bstr(std::u16string_view text);
  explicit Bstr(std::string_view utf8);
  explicit Bstr(const char16_t* text) : Bstr(std::u16string_view(text ? text : u"")) {}
  explicit Bstr(const char* utf8) : Bstr(std::string_view(utf8 ? utf8 : "")) {}
  Bstr(const Bstr& other);
  Bstr(Bstr&& other) noexcept : s_(std::exchange(other.s_, nullptr)) {}
  ~Bstr() { SysFreeString(s_); }
  Bstr& operator=(const Bstr& other);
  Bstr& operator=(Bstr&& other) noexcept;

  // Takes ownership of an allocated BSTR.
  static Bstr Adopt(BSTR s) noexcept {
    Bstr b;
    b.s_ = s;
    return b;
  }
  // A new BSTR copy of `text` for an out parameter (null when text is null).
  static BSTR Copy(BSTR text);

  BSTR Get() const noexcept { return s_; }
  UINT Length() const noexcept { return SysStringLen(s_); }
  bool Empty() const noexcept { return Length() == 0; }
  std::u16string_view View() const noexcept {
    return s_ ? std::u16string_view(s_, SysStringLen(s_)) : std::u16string_view();
  }
  std::u16string Str() const { return std::u16string(View()); }
  std::string Utf8() const;

  BSTR* operator&() noexcept {
    Reset();
    return &s_;
  }
  void Reset() noexcept { SysFreeString(std::exchange(s_, nullptr)); }
  [[nodiscard]] BSTR Detach() noexcept { return std::exchange(s_, nullptr); }
  // Hands a copy out through an out parameter.
  HRESULT CopyTo(BSTR* out) const;

  friend bool operator==(const Bstr& a, const Bstr& b) { return a.View() == b.View(); }
  friend bool operator==(const Bstr& a, std::u16string_view b) { return a.View() == b; }

 private:
  BSTR s_ = nullptr;
};

// Allocates a BSTR from text; throws std::bad_alloc on failure.
BSTR AllocBstr(std::u16string_view text);
BSTR AllocBstr(std::string_view utf8);

}  // namespace pw
