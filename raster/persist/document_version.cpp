// The version-carrying stream: forwards every stream operation to the stream it wraps.
#include "raster/persist/document_version.h"

namespace pw::persist {
namespace {

class VersionedStream : public IStream, public IDocumentVersion {
 public:
  using Interfaces = InterfaceList<IStream, IDocumentVersion>;
  VersionedStream(IStream* inner, LONG version) : inner_(inner), version_(version) {}

  HRESULT STDMETHODCALLTYPE get_DocumentVersion(LONG* version) override {
    PW_CHECK_POINTER(version);
    *version = version_;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override {
    return inner_->Read(buffer, size, read);
  }
  HRESULT STDMETHODCALLTYPE Write(const void* buffer, ULONG size, ULONG* written) override {
    return inner_->Write(buffer, size, written);
  }
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* pos) override {
    return inner_->Seek(move, origin, pos);
  }
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) override { return inner_->SetSize(size); }
  HRESULT STDMETHODCALLTYPE CopyTo(IStream* target, ULARGE_INTEGER size, ULARGE_INTEGER* read,
                                   ULARGE_INTEGER* written) override {
    return inner_->CopyTo(target, size, read, written);
  }
  HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override { return inner_->Commit(flags); }
  HRESULT STDMETHODCALLTYPE Revert() override { return inner_->Revert(); }
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size,
                                       DWORD type) override {
    return inner_->LockRegion(offset, size, type);
  }
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size,
                                         DWORD type) override {
    return inner_->UnlockRegion(offset, size, type);
  }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override {
    return inner_->Stat(stat, flags);
  }
  HRESULT STDMETHODCALLTYPE Clone(IStream** clone) override {
    PW_CHECK_POINTER(clone);
    *clone = nullptr;
    ComPtr<IStream> innerClone;
    PW_RETURN_IF_FAILED(inner_->Clone(&innerClone));
    return CreateVersionedStream(innerClone.Get(), version_, clone);
  }

 private:
  ComPtr<IStream> inner_;
  LONG version_;
};

}  // namespace

HRESULT CreateVersionedStream(IStream* inner, LONG version, IStream** stream) {
  PW_CHECK_POINTER(stream);
  *stream = nullptr;
  if (inner == nullptr) return E_INVALIDARG;
  return Guard([&] {
    auto object = MakeObject<VersionedStream>(inner, version);
    return object->QueryInterface(IidOf<IStream>(), reinterpret_cast<void**>(stream));
  });
}

int DocumentOrdinalOf(IStream* stream) {
  ComPtr<IDocumentVersion> carried;
  LONG version = kCurrentDocumentVersion;
  if (stream != nullptr &&
      SUCCEEDED(stream->QueryInterface(IidOf<IDocumentVersion>(), carried.OutVoid())))
    carried->get_DocumentVersion(&version);
  return DocumentOrdinal(version);
}

}  // namespace pw::persist
