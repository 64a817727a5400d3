// RelativePathManager: the calling thread's base folder for relative dataset paths (a
// chain file's folder while the chain loads). Its factory keeps one instance per thread.
#pragma once

#include <string>

#include "com/platform.h"

PW_INTERFACE(IRelativePathManager, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_BasePath(BSTR * path) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_BasePath(BSTR path) = 0;
  // `path` joined to the base folder when it is relative; unchanged when it is absolute
  // or when no base folder is set.
  virtual HRESULT STDMETHODCALLTYPE MakeAbsolute(BSTR path, BSTR * absolute) = 0;
  // `path` relative to the base folder when it lies below it; unchanged otherwise.
  virtual HRESULT STDMETHODCALLTYPE MakeRelative(BSTR path, BSTR * relative) = 0;
};

namespace pw::framework {

class RelativePathManager : public IRelativePathManager {
 public:
  using Interfaces = InterfaceList<IRelativePathManager>;

  HRESULT STDMETHODCALLTYPE get_BasePath(BSTR* path) override;
  HRESULT STDMETHODCALLTYPE put_BasePath(BSTR path) override;
  HRESULT STDMETHODCALLTYPE MakeAbsolute(BSTR path, BSTR* absolute) override;
  HRESULT STDMETHODCALLTYPE MakeRelative(BSTR path, BSTR* relative) override;

 private:
  // Hands out `change` applied to the UTF-8 text of `path`.
  template <class Change>
  HRESULT Rewrite(BSTR path, BSTR* out, Change change) const;

  std::string base_;  // UTF-8, empty when not set
};

// The calling thread's manager (its class factory keeps one per thread), or null when the
// class is not available in this process.
ComPtr<IRelativePathManager> ThreadRelativePathManager();

// A dataset name as the calling thread's base folder makes it absolute; unchanged when no
// manager or no base folder is set.
std::u16string ResolveDatasetName(std::u16string_view name);

// Sets the calling thread's base folder for the life of the object, then restores the
// previous one.
class ScopedBasePath {
 public:
  explicit ScopedBasePath(const std::string& folder);
  ~ScopedBasePath();
  ScopedBasePath(const ScopedBasePath&) = delete;
  ScopedBasePath& operator=(const ScopedBasePath&) = delete;

 private:
  ComPtr<IRelativePathManager> manager_;
  Bstr previous_;
};

}  // namespace pw::framework
