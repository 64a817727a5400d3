// Reading and writing records in streams: little-endian numbers, strings, variants and
// contained objects (class identifier followed by the object's own record).
//
// Every operation returns the stream's failure at once; a short read is STG_E_READFAULT.
// Lengths read from a stream are never trusted for allocation: strings and arrays grow
// as their elements actually arrive. Contained objects nest at most kMaxNesting deep.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "raster/interfaces.h"

namespace pw::persist {

class StreamWriter {
 public:
  explicit StreamWriter(IStream* stream) : stream_(stream) {}

  template <class T>
  requires std::is_arithmetic_v<T> HRESULT Put(T value) {
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));  // the platforms we build for are little-endian
    return WriteExact(stream_, bytes, sizeof(T));
  }
  HRESULT PutGuid(const GUID& guid);
  // A 32-bit character count (0xFFFFFFFF for a null string) and the UTF-16 characters.
  HRESULT PutString(std::u16string_view text);
  HRESULT PutNullString() { return Put<std::uint32_t>(0xFFFFFFFFu); }
  HRESULT PutBstr(BSTR text);
  // The variant type and the value; arrays carry their bounds; objects their record.
  HRESULT PutVariant(const VARIANT& value);
  // The object's class identifier and its record; GUID_NULL for no object.
  HRESULT PutObject(IUnknown* object);

  IStream* Stream() const { return stream_; }

 private:
  HRESULT PutArrayElement(VARTYPE vt, const void* element);

  IStream* stream_;
};

class StreamReader {
 public:
  explicit StreamReader(IStream* stream) : stream_(stream) {}

  template <class T>
  requires std::is_arithmetic_v<T> HRESULT Get(T* value) {
    unsigned char bytes[sizeof(T)];
    const HRESULT hr = ReadExact(stream_, bytes, sizeof(T));
    if (SUCCEEDED(hr)) std::memcpy(value, bytes, sizeof(T));
    return hr;
  }
  HRESULT GetGuid(GUID* guid);
  // `isNull` (optional) tells a null string from an empty one.
  HRESULT GetString(std::u16string* text, bool* isNull = nullptr);
  HRESULT GetBstr(BSTR* text);
  HRESULT GetVariant(VARIANT* value);
  HRESULT GetObject(IUnknown** object);
  template <class I>
  HRESULT GetObjectAs(I** object) {
    *object = nullptr;
    ComPtr<IUnknown> any;
    PW_RETURN_IF_FAILED(GetObject(&any));
    if (!any) return S_OK;
    return any->QueryInterface(IidOf<I>(), reinterpret_cast<void**>(object));
  }

  IStream* Stream() const { return stream_; }

 private:
  HRESULT GetArray(VARTYPE vt, VARIANT* value);

  IStream* stream_;
};

// Saves `object` (through IPersistStream) into a new memory stream carrying `version`.
HRESULT SaveToBytes(IUnknown* object, LONG version, std::vector<std::uint8_t>* bytes);
// Loads `object` from bytes.
HRESULT LoadFromBytes(IUnknown* object, const std::vector<std::uint8_t>& bytes);

// GetSizeMax by saving: the bytes `object` writes into a memory stream now (its dirty flag
// left as it was).
HRESULT SizeBySaving(IPersistStream* object, ULARGE_INTEGER* size);

}  // namespace pw::persist
