// Stream records: strings, variants and contained objects.
#include "raster/persist/stream_io.h"

#include <bit>
#include <vector>

#include "raster/persist/class_registry.h"
#include "raster/persist/document_version.h"
#include "raster/persist/nesting.h"

namespace pw::persist {
namespace {

static_assert(std::endian::native == std::endian::little,
              "stream records are written in little-endian byte order");

constexpr std::uint32_t kNullString = 0xFFFFFFFFu;
constexpr std::size_t kChunk = 4096;

std::size_t ScalarSize(VARTYPE vt) {
  return ScalarByteSize(vt);
}

}  // namespace

HRESULT StreamWriter::PutGuid(const GUID& g) {
  PW_RETURN_IF_FAILED(Put<std::uint32_t>(g.Data1));
  PW_RETURN_IF_FAILED(Put<std::uint16_t>(g.Data2));
  PW_RETURN_IF_FAILED(Put<std::uint16_t>(g.Data3));
  return WriteExact(stream_, g.Data4, 8);
}

HRESULT StreamWriter::PutString(std::u16string_view text) {
  if (text.size() >= kNullString) return E_INVALIDARG;
  PW_RETURN_IF_FAILED(Put<std::uint32_t>(static_cast<std::uint32_t>(text.size())));
  if (text.empty()) return S_OK;
  return WriteExact(stream_, text.data(), static_cast<ULONG>(text.size() * sizeof(char16_t)));
}

HRESULT StreamWriter::PutBstr(BSTR text) {
  if (text == nullptr) return PutNullString();
  return PutString(std::u16string_view(text, SysStringLen(text)));
}

HRESULT StreamWriter::PutArrayElement(VARTYPE vt, const void* element) {
  if (vt == VT_BSTR) return PutBstr(*static_cast<const BSTR*>(element));
  if (vt == VT_VARIANT) return PutVariant(*static_cast<const VARIANT*>(element));
  if (vt == VT_UNKNOWN) return PutObject(*static_cast<IUnknown* const*>(element));
  const std::size_t size = ScalarSize(vt);
  if (size == 0) return E_INVALIDARG;
  return WriteExact(stream_, element, static_cast<ULONG>(size));
}

HRESULT StreamWriter::PutVariant(const VARIANT& v) {
  if (v.vt & VT_BYREF) return E_INVALIDARG;
  PW_RETURN_IF_FAILED(Put<std::uint16_t>(v.vt));
  if (v.vt & VT_ARRAY) {
    const VARTYPE element = static_cast<VARTYPE>(v.vt & VT_TYPEMASK);
    SAFEARRAY* a = v.parray;
    if (a == nullptr) return Put<std::uint16_t>(0);
    PW_RETURN_IF_FAILED(Put<std::uint16_t>(a->cDims));
    std::size_t count = 1;
    for (USHORT d = 0; d < a->cDims; ++d) {
      PW_RETURN_IF_FAILED(Put<std::uint32_t>(a->rgsabound[d].cElements));
      PW_RETURN_IF_FAILED(Put<std::int32_t>(a->rgsabound[d].lLbound));
      count *= a->rgsabound[d].cElements;
    }
    const auto* data = static_cast<const unsigned char*>(a->pvData);
    for (std::size_t i = 0; i < count; ++i)
      PW_RETURN_IF_FAILED(PutArrayElement(element, data + i * a->cbElements));
    return S_OK;
  }
  switch (v.vt) {
    case VT_EMPTY:
    case VT_NULL:
      return S_OK;
    case VT_BSTR:
      return PutBstr(v.bstrVal);
    case VT_UNKNOWN:
      return PutObject(v.punkVal);
    default: {
      const std::size_t size = ScalarSize(v.vt);
      if (size == 0) return E_INVALIDARG;
      return WriteExact(stream_, &v.llVal, static_cast<ULONG>(size));
    }
  }
}

HRESULT StreamWriter::PutObject(IUnknown* object) {
  if (object == nullptr) return PutGuid(GUID_NULL);
  ComPtr<IPersistStream> persist;
  if (FAILED(object->QueryInterface(IidOf<IPersistStream>(), persist.OutVoid())))
    return E_INVALIDARG;
  CLSID clsid;
  PW_RETURN_IF_FAILED(persist->GetClassID(&clsid));
  PW_RETURN_IF_FAILED(PutGuid(clsid));
  return persist->Save(stream_, FALSE);
}

HRESULT StreamReader::GetGuid(GUID* g) {
  PW_RETURN_IF_FAILED(Get(&g->Data1));
  PW_RETURN_IF_FAILED(Get(&g->Data2));
  PW_RETURN_IF_FAILED(Get(&g->Data3));
  return ReadExact(stream_, g->Data4, 8);
}

HRESULT StreamReader::GetString(std::u16string* text, bool* isNull) {
  std::uint32_t count = 0;
  PW_RETURN_IF_FAILED(Get(&count));
  if (isNull) *isNull = count == kNullString;
  text->clear();
  if (count == kNullString) return S_OK;
  std::size_t left = count;
  while (left > 0) {
    const std::size_t n = left < kChunk ? left : kChunk;
    const std::size_t at = text->size();
    text->resize(at + n);
    PW_RETURN_IF_FAILED(
        ReadExact(stream_, text->data() + at, static_cast<ULONG>(n * sizeof(char16_t))));
    left -= n;
  }
  return S_OK;
}

HRESULT StreamReader::GetBstr(BSTR* out) {
  *out = nullptr;
  std::u16string text;
  bool isNull = false;
  PW_RETURN_IF_FAILED(GetString(&text, &isNull));
  if (isNull) return S_OK;
  return Guard([&] {
    *out = AllocBstr(std::u16string_view(text));
    return S_OK;
  });
}

HRESULT StreamReader::GetArray(VARTYPE vt, VARIANT* value) {
  const VARTYPE element = static_cast<VARTYPE>(vt & VT_TYPEMASK);
  if (element != VT_BSTR && element != VT_VARIANT && element != VT_UNKNOWN &&
      ScalarSize(element) == 0)
    return E_FAIL;
  std::uint16_t dims = 0;
  PW_RETURN_IF_FAILED(Get(&dims));
  if (dims == 0) {
    value->vt = vt;
    value->parray = nullptr;
    return S_OK;
  }
  if (dims > 8) return E_FAIL;
  SAFEARRAYBOUND bounds[8];
  std::uint64_t count = 1;
  for (std::uint16_t d = 0; d < dims; ++d) {
    std::uint32_t n = 0;
    std::int32_t lower = 0;
    PW_RETURN_IF_FAILED(Get(&n));
    PW_RETURN_IF_FAILED(Get(&lower));
    // Every index must be a LONG: a lower bound near the maximum cannot hold the elements.
    if (std::int64_t{lower} + std::int64_t{n} - 1 > std::int64_t{INT32_MAX}) return E_FAIL;
    // Stored rightmost dimension first; SafeArrayCreate takes them leftmost first.
    bounds[dims - 1 - d] = SAFEARRAYBOUND{n, lower};
    count *= n;
  }
  // Every element takes at least one byte, so a count beyond what the stream still holds
  // is malformed; checking first keeps a corrupt count from allocating.
  STATSTG stat{};
  ULARGE_INTEGER here{};
  LARGE_INTEGER zero{};
  if (SUCCEEDED(stream_->Stat(&stat, STATFLAG_NONAME)) &&
      SUCCEEDED(stream_->Seek(zero, STREAM_SEEK_CUR, &here)) &&
      count > stat.cbSize.QuadPart - std::min(here.QuadPart, stat.cbSize.QuadPart))
    return STG_E_READFAULT;
  if (count > (1u << 26)) return E_FAIL;
  SAFEARRAY* array = SafeArrayCreate(element, dims, bounds);
  if (array == nullptr) return E_OUTOFMEMORY;
  for (std::uint64_t i = 0; i < count; ++i) {
    // Elements are stored in memory order.
    void* slot = static_cast<unsigned char*>(array->pvData) + i * array->cbElements;
    HRESULT hr = S_OK;
    if (element == VT_BSTR) {
      hr = GetBstr(static_cast<BSTR*>(slot));
    } else if (element == VT_VARIANT) {
      hr = GetVariant(static_cast<VARIANT*>(slot));
    } else if (element == VT_UNKNOWN) {
      hr = GetObject(static_cast<IUnknown**>(slot));
    } else {
      hr = ReadExact(stream_, slot, static_cast<ULONG>(ScalarSize(element)));
    }
    if (FAILED(hr)) {
      SafeArrayDestroy(array);
      return hr;
    }
  }
  value->vt = vt;
  value->parray = array;
  return S_OK;
}

HRESULT StreamReader::GetVariant(VARIANT* value) {
  VariantClear(value);
  std::uint16_t vt = 0;
  PW_RETURN_IF_FAILED(Get(&vt));
  if (vt & VT_BYREF) return E_FAIL;
  if (vt & VT_ARRAY) {
    NestingGuard depth;
    if (depth.TooDeep()) return E_FAIL;
    return GetArray(vt, value);
  }
  switch (vt) {
    case VT_EMPTY:
    case VT_NULL:
      value->vt = vt;
      return S_OK;
    case VT_BSTR: {
      BSTR s = nullptr;
      PW_RETURN_IF_FAILED(GetBstr(&s));
      value->vt = VT_BSTR;
      value->bstrVal = s;
      return S_OK;
    }
    case VT_UNKNOWN: {
      IUnknown* object = nullptr;
      PW_RETURN_IF_FAILED(GetObject(&object));
      value->vt = VT_UNKNOWN;
      value->punkVal = object;
      return S_OK;
    }
    default: {
      const std::size_t size = ScalarSize(vt);
      if (size == 0) return E_FAIL;
      VARIANT read;
      VariantInit(&read);
      PW_RETURN_IF_FAILED(ReadExact(stream_, &read.llVal, static_cast<ULONG>(size)));
      read.vt = vt;
      *value = read;
      return S_OK;
    }
  }
}

HRESULT StreamReader::GetObject(IUnknown** object) {
  *object = nullptr;
  CLSID clsid;
  PW_RETURN_IF_FAILED(GetGuid(&clsid));
  if (clsid == GUID_NULL) return S_OK;
  NestingGuard depth;
  if (depth.TooDeep()) return E_FAIL;
  ComPtr<IPersistStream> persist;
  if (FAILED(CreatePersistObject(clsid, IidOf<IPersistStream>(), persist.OutVoid())))
    return E_FAIL;  // not a class whose records streams can hold
  PW_RETURN_IF_FAILED(persist->Load(stream_));
  return persist->QueryInterface(IidOf<IUnknown>(), reinterpret_cast<void**>(object));
}

HRESULT SaveToBytes(IUnknown* object, LONG version, std::vector<std::uint8_t>* bytes) {
  ComPtr<IPersistStream> persist;
  if (object == nullptr ||
      FAILED(object->QueryInterface(IidOf<IPersistStream>(), persist.OutVoid())))
    return E_INVALIDARG;
  ComPtr<IStream> memory, versioned;
  PW_RETURN_IF_FAILED(CreateMemoryStream(&memory));
  PW_RETURN_IF_FAILED(CreateVersionedStream(memory.Get(), version, &versioned));
  PW_RETURN_IF_FAILED(persist->Save(versioned.Get(), TRUE));
  *bytes = MemoryStreamBytes(memory.Get());
  return S_OK;
}

HRESULT SizeBySaving(IPersistStream* object, ULARGE_INTEGER* size) {
  PW_CHECK_POINTER(size);
  if (object == nullptr) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    ComPtr<IStream> memory;
    PW_RETURN_IF_FAILED(CreateMemoryStream(&memory));
    PW_RETURN_IF_FAILED(object->Save(memory.Get(), FALSE));
    size->QuadPart = MemoryStreamBytes(memory.Get()).size();
    return S_OK;
  });
}

HRESULT LoadFromBytes(IUnknown* object, const std::vector<std::uint8_t>& bytes) {
  ComPtr<IPersistStream> persist;
  if (object == nullptr ||
      FAILED(object->QueryInterface(IidOf<IPersistStream>(), persist.OutVoid())))
    return E_INVALIDARG;
  ComPtr<IStream> memory;
  PW_RETURN_IF_FAILED(CreateMemoryStream(bytes, &memory));
  return persist->Load(memory.Get());
}

}  // namespace pw::persist
