// Base-folder bookkeeping for relative dataset paths.
#include "framework/relative_path_manager.h"

#include <filesystem>

namespace pw::framework {
namespace {

namespace fs = std::filesystem;

// Dataset names such as "/vsizip/..." or "NETCDF:..." are not file paths to rebase.
bool IsPlainRelativePath(const std::string& path) {
  if (path.empty() || path.rfind("/vsi", 0) == 0) return false;
  if (path.find(':') != std::string::npos) return false;
  return fs::path(path).is_relative();
}

}  // namespace

HRESULT RelativePathManager::get_BasePath(BSTR* path) {
  PW_CHECK_POINTER(path);
  *path = nullptr;
  return Guard([&] {
    *path = AllocBstr(std::string_view(base_));
    return S_OK;
  });
}

HRESULT RelativePathManager::put_BasePath(BSTR path) {
  return Guard([&] {
    base_ = Bstr(std::u16string_view(path ? path : u"", SysStringLen(path))).Utf8();
    return S_OK;
  });
}

HRESULT RelativePathManager::MakeAbsolute(BSTR path, BSTR* absolute) {
  return Rewrite(path, absolute, [this](const std::string& text) {
    if (base_.empty() || !IsPlainRelativePath(text)) return text;
    return (fs::path(base_) / fs::path(text)).lexically_normal().string();
  });
}

HRESULT RelativePathManager::MakeRelative(BSTR path, BSTR* relative) {
  return Rewrite(path, relative, [this](const std::string& text) {
    if (base_.empty() || !fs::path(text).is_absolute()) return text;
    const fs::path rel =
        fs::path(text).lexically_normal().lexically_relative(fs::path(base_).lexically_normal());
    return !rel.empty() && *rel.begin() != ".." ? rel.string() : text;
  });
}

template <class Change>
HRESULT RelativePathManager::Rewrite(BSTR path, BSTR* out, Change change) const {
  PW_CHECK_POINTER(out);
  *out = nullptr;
  return Guard([&] {
    const std::string text = ToUtf8(std::u16string_view(path ? path : u"", SysStringLen(path)));
    *out = AllocBstr(std::string_view(change(text)));
    return S_OK;
  });
}

ComPtr<IRelativePathManager> ThreadRelativePathManager() {
  static constexpr CLSID kClass = ClassIdFromName("RelativePathManager");
  ComPtr<IRelativePathManager> manager;
  if (FAILED(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER, IidOf<IRelativePathManager>(),
                              manager.OutVoid())))
    manager = nullptr;
  ClearErrorInfo();
  return manager;
}

std::u16string ResolveDatasetName(std::u16string_view name) {
  const ComPtr<IRelativePathManager> manager = ThreadRelativePathManager();
  Bstr absolute;
  if (!manager || FAILED(manager->MakeAbsolute(Bstr(name).Get(), &absolute)))
    return std::u16string(name);
  return absolute.Str();
}

ScopedBasePath::ScopedBasePath(const std::string& folder) : manager_(ThreadRelativePathManager()) {
  if (!manager_) return;
  manager_->get_BasePath(&previous_);
  manager_->put_BasePath(Bstr(std::string_view(folder)).Get());
}

ScopedBasePath::~ScopedBasePath() {
  if (manager_) manager_->put_BasePath(previous_.Get());
}

}  // namespace pw::framework
