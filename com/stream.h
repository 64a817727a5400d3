// IStream (memory and file streams) and the persistence interfaces that use it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "com/unknown.h"

#ifndef _WIN32
struct STATSTG {
  LPOLESTR pwcsName;
  DWORD type;
  ULARGE_INTEGER cbSize;
  FILETIME mtime;
  FILETIME ctime;
  FILETIME atime;
  DWORD grfMode;
  DWORD grfLocksSupported;
  CLSID clsid;
  DWORD grfStateBits;
  DWORD reserved;
};

constexpr DWORD STREAM_SEEK_SET = 0;
constexpr DWORD STREAM_SEEK_CUR = 1;
constexpr DWORD STREAM_SEEK_END = 2;
constexpr DWORD STGM_READ = 0x0;
constexpr DWORD STGM_WRITE = 0x1;
constexpr DWORD STGM_READWRITE = 0x2;
constexpr DWORD STGM_CREATE = 0x1000;
constexpr DWORD STATFLAG_DEFAULT = 0;
constexpr DWORD STATFLAG_NONAME = 1;
constexpr DWORD STGTY_STREAM = 2;

PW_INTERFACE_ID(ISequentialStream, IUnknown, "0C733A30-2A1C-11CE-ADE5-00AA0044773D") {
  virtual HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) = 0;
  virtual HRESULT STDMETHODCALLTYPE Write(const void* buffer, ULONG size, ULONG* written) = 0;
};

PW_INTERFACE_ID(IStream, ISequentialStream, "0000000C-0000-0000-C000-000000000046") {
  virtual HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin,
                                         ULARGE_INTEGER * position) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) = 0;
  virtual HRESULT STDMETHODCALLTYPE CopyTo(IStream * target, ULARGE_INTEGER size,
                                           ULARGE_INTEGER * read, ULARGE_INTEGER * written) = 0;
  virtual HRESULT STDMETHODCALLTYPE Commit(DWORD flags) = 0;
  virtual HRESULT STDMETHODCALLTYPE Revert() = 0;
  virtual HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size,
                                               DWORD type) = 0;
  virtual HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size,
                                                 DWORD type) = 0;
  virtual HRESULT STDMETHODCALLTYPE Stat(STATSTG * stat, DWORD flags) = 0;
  virtual HRESULT STDMETHODCALLTYPE Clone(IStream * *clone) = 0;
};

PW_INTERFACE_ID(IPersist, IUnknown, "0000010C-0000-0000-C000-000000000046") {
  virtual HRESULT STDMETHODCALLTYPE GetClassID(CLSID * clsid) = 0;
};

PW_INTERFACE_ID(IPersistStream, IPersist, "00000109-0000-0000-C000-000000000046") {
  virtual HRESULT STDMETHODCALLTYPE IsDirty() = 0;
  virtual HRESULT STDMETHODCALLTYPE Load(IStream * stream) = 0;
  virtual HRESULT STDMETHODCALLTYPE Save(IStream * stream, BOOL clearDirty) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetSizeMax(ULARGE_INTEGER * size) = 0;
};
#endif

namespace pw {

// A growable in-memory stream; clones share the bytes and keep their own position.
HRESULT CreateMemoryStream(IStream** stream);
HRESULT CreateMemoryStream(const std::vector<std::uint8_t>& initial, IStream** stream);

// The bytes of a memory stream made by CreateMemoryStream (empty for other streams).
std::vector<std::uint8_t> MemoryStreamBytes(IStream* stream);

// A stream over a file. `mode` is STGM_READ, STGM_WRITE or STGM_READWRITE, with
// STGM_CREATE to create or truncate the file.
HRESULT CreateFileStream(const std::filesystem::path& path, DWORD mode, IStream** stream);

// Reads exactly `size` bytes; a short read is STG_E_READFAULT.
HRESULT ReadExact(IStream* stream, void* buffer, ULONG size);
// Writes exactly `size` bytes; a short write is STG_E_WRITEFAULT.
HRESULT WriteExact(IStream* stream, const void* buffer, ULONG size);

}  // namespace pw
