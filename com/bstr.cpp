// BSTR allocation and the Bstr helper.
#include "com/bstr.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "com/text.h"

#ifndef _WIN32
namespace {
constexpr std::size_t kPrefix = sizeof(std::uint32_t);

BSTR AllocBytes(const void* data, std::size_t byteLength) {
  if (byteLength > std::numeric_limits<std::uint32_t>::max() - 16) return nullptr;
  // Two NUL bytes end the text even when its byte length is odd.
  auto* block = static_cast<unsigned char*>(std::malloc(kPrefix + byteLength + 2));
  if (block == nullptr) return nullptr;
  const auto len32 = static_cast<std::uint32_t>(byteLength);
  std::memcpy(block, &len32, kPrefix);
  if (data != nullptr) {
    std::memcpy(block + kPrefix, data, byteLength);
  } else {
    std::memset(block + kPrefix, 0, byteLength);
  }
  block[kPrefix + byteLength] = 0;
  block[kPrefix + byteLength + 1] = 0;
  return reinterpret_cast<BSTR>(block + kPrefix);
}
}  // namespace

BSTR SysAllocString(const OLECHAR* text) {
  if (text == nullptr) return nullptr;
  return SysAllocStringLen(text, static_cast<UINT>(std::char_traits<char16_t>::length(text)));
}

BSTR SysAllocStringLen(const OLECHAR* text, UINT length) {
  return AllocBytes(text, std::size_t{length} * sizeof(OLECHAR));
}

BSTR SysAllocStringByteLen(const char* bytes, UINT byteLength) {
  return AllocBytes(bytes, byteLength);
}

INT SysReAllocString(BSTR* target, const OLECHAR* text) {
  if (target == nullptr) return FALSE;
  BSTR fresh = SysAllocString(text);
  if (fresh == nullptr && text != nullptr) return FALSE;
  SysFreeString(*target);
  *target = fresh;
  return TRUE;
}

INT SysReAllocStringLen(BSTR* target, const OLECHAR* text, UINT length) {
  if (target == nullptr) return FALSE;
  BSTR fresh = SysAllocStringLen(text, length);
  if (fresh == nullptr) return FALSE;
  SysFreeString(*target);
  *target = fresh;
  return TRUE;
}

UINT SysStringByteLen(BSTR text) {
  if (text == nullptr) return 0;
  std::uint32_t len = 0;
  std::memcpy(&len, reinterpret_cast<unsigned char*>(text) - kPrefix, kPrefix);
  return len;
}

UINT SysStringLen(BSTR text) {
  return SysStringByteLen(text) / sizeof(OLECHAR);
}

void SysFreeString(BSTR text) {
  if (text != nullptr) std::free(reinterpret_cast<unsigned char*>(text) - kPrefix);
}
#endif

namespace pw {

BSTR AllocBstr(std::u16string_view text) {
  BSTR s = SysAllocStringLen(reinterpret_cast<const OLECHAR*>(text.data()),
                             static_cast<UINT>(text.size()));
  if (s == nullptr) throw std::bad_alloc();
  return s;
}

BSTR AllocBstr(std::string_view utf8) {
  return AllocBstr(ToUtf16(utf8));
}

Bstr::Bstr(std::u16string_view text) : s_(AllocBstr(text)) {}
Bstr::Bstr(std::string_view utf8) : s_(AllocBstr(utf8)) {}
Bstr::Bstr(const Bstr& other) : s_(Copy(other.s_)) {}

Bstr& Bstr::operator=(const Bstr& other) {
  if (this != std::addressof(other)) {
    BSTR fresh = Copy(other.s_);
    Reset();
    s_ = fresh;
  }
  return *this;
}

Bstr& Bstr::operator=(Bstr&& other) noexcept {
  if (this != std::addressof(other)) {
    Reset();
    s_ = std::exchange(other.s_, nullptr);
  }
  return *this;
}

BSTR Bstr::Copy(BSTR text) {
  if (text == nullptr) return nullptr;
  BSTR s = SysAllocStringByteLen(reinterpret_cast<const char*>(text), SysStringByteLen(text));
  if (s == nullptr) throw std::bad_alloc();
  return s;
}

std::string Bstr::Utf8() const {
  return ToUtf8(View());
}

HRESULT Bstr::CopyTo(BSTR* out) const {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  if (s_ == nullptr) return S_OK;
  *out = SysAllocStringByteLen(reinterpret_cast<const char*>(s_), SysStringByteLen(s_));
  return *out ? S_OK : E_OUTOFMEMORY;
}

}  // namespace pw
