// Memory and file streams.
#include "com/stream.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "com/com_object.h"
#include "com/guard.h"

namespace pw {
namespace {

// Shared helpers for the seek arithmetic of both stream kinds.
HRESULT NewPosition(std::int64_t base, LARGE_INTEGER move, std::uint64_t* out) {
  const std::int64_t target = base + move.QuadPart;
  if (target < 0) return STG_E_INVALIDFUNCTION;
  *out = static_cast<std::uint64_t>(target);
  return S_OK;
}

HRESULT CopyBetween(IStream* from, IStream* to, ULARGE_INTEGER size, ULARGE_INTEGER* read,
                    ULARGE_INTEGER* written) {
  if (to == nullptr) return STG_E_INVALIDPOINTER;
  std::uint64_t left = size.QuadPart, totalRead = 0, totalWritten = 0;
  std::uint8_t buffer[64 * 1024];
  while (left > 0) {
    const ULONG chunk = static_cast<ULONG>(left < sizeof(buffer) ? left : sizeof(buffer));
    ULONG got = 0;
    PW_RETURN_IF_FAILED(from->Read(buffer, chunk, &got));
    if (got == 0) break;
    totalRead += got;
    ULONG put = 0;
    PW_RETURN_IF_FAILED(to->Write(buffer, got, &put));
    totalWritten += put;
    left -= got;
    if (got < chunk) break;
  }
  if (read) read->QuadPart = totalRead;
  if (written) written->QuadPart = totalWritten;
  return S_OK;
}

void FillStat(STATSTG* stat, std::uint64_t size, DWORD mode) {
  std::memset(stat, 0, sizeof(*stat));
  stat->type = STGTY_STREAM;
  stat->cbSize.QuadPart = size;
  stat->grfMode = mode;
}

// What both stream kinds do alike.
class StreamBase : public IStream {
 public:
  using Interfaces = InterfaceList<IStream>;
  HRESULT STDMETHODCALLTYPE CopyTo(IStream* target, ULARGE_INTEGER size, ULARGE_INTEGER* read,
                                   ULARGE_INTEGER* written) override {
    return CopyBetween(this, target, size, read, written);
  }
  HRESULT STDMETHODCALLTYPE Revert() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
};

class MemoryStream : public StreamBase {
 public:
  explicit MemoryStream(std::shared_ptr<std::vector<std::uint8_t>> bytes)
      : bytes_(std::move(bytes)) {}

  HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override {
    if (buffer == nullptr && size > 0) return STG_E_INVALIDPOINTER;
    const std::uint64_t available = position_ < bytes_->size() ? bytes_->size() - position_ : 0;
    const ULONG n = static_cast<ULONG>(available < size ? available : size);
    if (n > 0) std::memcpy(buffer, bytes_->data() + position_, n);
    position_ += n;
    if (read) *read = n;
    return n < size ? S_FALSE : S_OK;
  }
  HRESULT STDMETHODCALLTYPE Write(const void* buffer, ULONG size, ULONG* written) override {
    return Guard([&]() -> HRESULT {
      if (buffer == nullptr && size > 0) return STG_E_INVALIDPOINTER;
      if (position_ + size > bytes_->size()) bytes_->resize(position_ + size);
      if (size > 0) std::memcpy(bytes_->data() + position_, buffer, size);
      position_ += size;
      if (written) *written = size;
      return S_OK;
    });
  }
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* pos) override {
    std::int64_t base = 0;
    if (origin == STREAM_SEEK_CUR)
      base = static_cast<std::int64_t>(position_);
    else if (origin == STREAM_SEEK_END)
      base = static_cast<std::int64_t>(bytes_->size());
    else if (origin != STREAM_SEEK_SET)
      return STG_E_INVALIDFUNCTION;
    PW_RETURN_IF_FAILED(NewPosition(base, move, &position_));
    if (pos) pos->QuadPart = position_;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) override {
    return Guard([&] {
      bytes_->resize(static_cast<std::size_t>(size.QuadPart));
      return S_OK;
    });
  }
  HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD) override {
    if (stat == nullptr) return STG_E_INVALIDPOINTER;
    FillStat(stat, bytes_->size(), STGM_READWRITE);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Clone(IStream** clone) override {
    if (clone == nullptr) return STG_E_INVALIDPOINTER;
    *clone = nullptr;
    return Guard([&] {
      auto copy = MakeObject<MemoryStream>(bytes_);
      copy->position_ = position_;
      *clone = copy.Detach();
      return S_OK;
    });
  }

  const std::vector<std::uint8_t>& Bytes() const { return *bytes_; }

 private:
  std::shared_ptr<std::vector<std::uint8_t>> bytes_;
  std::uint64_t position_ = 0;
};

class FileStream : public StreamBase {
 public:
  FileStream(std::FILE* file, DWORD mode) : file_(file), mode_(mode) {}
  ~FileStream() { std::fclose(file_); }

  HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override {
    if (buffer == nullptr && size > 0) return STG_E_INVALIDPOINTER;
    if ((mode_ & 3) == STGM_WRITE) return STG_E_ACCESSDENIED;
    const std::size_t n = std::fread(buffer, 1, size, file_);
    if (read) *read = static_cast<ULONG>(n);
    if (n < size && std::ferror(file_)) return STG_E_READFAULT;
    return n < size ? S_FALSE : S_OK;
  }
  HRESULT STDMETHODCALLTYPE Write(const void* buffer, ULONG size, ULONG* written) override {
    if (buffer == nullptr && size > 0) return STG_E_INVALIDPOINTER;
    if ((mode_ & 3) == STGM_READ) return STG_E_ACCESSDENIED;
    const std::size_t n = std::fwrite(buffer, 1, size, file_);
    if (written) *written = static_cast<ULONG>(n);
    return n < size ? STG_E_MEDIUMFULL : S_OK;
  }
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* pos) override {
    const int whence = origin == STREAM_SEEK_SET   ? SEEK_SET
                       : origin == STREAM_SEEK_CUR ? SEEK_CUR
                       : origin == STREAM_SEEK_END ? SEEK_END
                                                   : -1;
    if (whence < 0) return STG_E_INVALIDFUNCTION;
    if (fseeko(file_, static_cast<off_t>(move.QuadPart), whence) != 0) return STG_E_INVALIDFUNCTION;
    if (pos) pos->QuadPart = static_cast<std::uint64_t>(ftello(file_));
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Commit(DWORD) override {
    return std::fflush(file_) == 0 ? S_OK : STG_E_WRITEFAULT;
  }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD) override {
    if (stat == nullptr) return STG_E_INVALIDPOINTER;
    const off_t here = ftello(file_);
    fseeko(file_, 0, SEEK_END);
    const off_t size = ftello(file_);
    fseeko(file_, here, SEEK_SET);
    FillStat(stat, static_cast<std::uint64_t>(size), mode_);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Clone(IStream** clone) override {
    if (clone) *clone = nullptr;
    return E_NOTIMPL;
  }

 private:
  std::FILE* file_;
  DWORD mode_;
};

}  // namespace

HRESULT CreateMemoryStream(IStream** stream) {
  return CreateMemoryStream({}, stream);
}

HRESULT CreateMemoryStream(const std::vector<std::uint8_t>& initial, IStream** stream) {
  PW_CHECK_POINTER(stream);
  *stream = nullptr;
  return Guard([&] {
    auto object = MakeObject<MemoryStream>(std::make_shared<std::vector<std::uint8_t>>(initial));
    *stream = object.Detach();
    return S_OK;
  });
}

std::vector<std::uint8_t> MemoryStreamBytes(IStream* stream) {
  if (auto* memory = dynamic_cast<MemoryStream*>(stream)) return memory->Bytes();
  return {};
}

HRESULT CreateFileStream(const std::filesystem::path& path, DWORD mode, IStream** stream) {
  PW_CHECK_POINTER(stream);
  *stream = nullptr;
  const DWORD access = mode & 3;
  const char* how = nullptr;
  if (mode & STGM_CREATE) {
    how = access == STGM_READWRITE ? "w+b" : "wb";
  } else {
    how = access == STGM_READ ? "rb" : "r+b";
  }
  std::FILE* file = std::fopen(path.c_str(), how);
  if (file == nullptr) {
    return errno == ENOENT ? STG_E_FILENOTFOUND : STG_E_ACCESSDENIED;
  }
  return Guard([&] {
    try {
      auto object = MakeObject<FileStream>(file, mode);
      *stream = object.Detach();
    } catch (...) {
      std::fclose(file);
      throw;
    }
    return S_OK;
  });
}

HRESULT ReadExact(IStream* stream, void* buffer, ULONG size) {
  if (stream == nullptr) return E_POINTER;
  ULONG got = 0;
  PW_RETURN_IF_FAILED(stream->Read(buffer, size, &got));
  return got == size ? S_OK : STG_E_READFAULT;
}

HRESULT WriteExact(IStream* stream, const void* buffer, ULONG size) {
  if (stream == nullptr) return E_POINTER;
  ULONG put = 0;
  PW_RETURN_IF_FAILED(stream->Write(buffer, size, &put));
  return put == size ? S_OK : STG_E_WRITEFAULT;
}

}  // namespace pw
