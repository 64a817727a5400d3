// Creation by identifier and the ProgID/CLSID mapping.
#include "com/activation.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

#include "com/catreg.h"
#include "com/com_ptr.h"
#include "com/registry.h"

namespace pw {
namespace {
std::atomic<ClassObjectProvider> g_provider{nullptr};
std::atomic<ProgIdResolver> g_resolver{nullptr};

}  // namespace

void SetInProcessServer(ClassObjectProvider provider, ProgIdResolver resolver) {
  g_provider.store(provider);
  g_resolver.store(resolver);
}

}  // namespace pw

#ifndef _WIN32
void* CoTaskMemAlloc(SIZE_T size) {
  return std::malloc(size ? size : 1);
}
void CoTaskMemFree(void* block) {
  std::free(block);
}

HRESULT CoGetClassObject(REFCLSID clsid, DWORD, void*, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (const auto provider = pw::g_provider.load()) {
    const HRESULT hr = provider(clsid, riid, ppv);
    if (hr != CLASS_E_CLASSNOTAVAILABLE) return hr;
  }
  return REGDB_E_CLASSNOTREG;
}

HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (clsid == CLSID_StdComponentCategoriesMgr) {
    if (outer != nullptr) return CLASS_E_NOAGGREGATION;
    return pw::CreateCategoriesManager(riid, ppv);
  }
  pw::ComPtr<IClassFactory> factory;
  const HRESULT hr =
      CoGetClassObject(clsid, context, nullptr, pw::IidOf<IClassFactory>(), factory.OutVoid());
  if (FAILED(hr)) return hr;
  return factory->CreateInstance(outer, riid, ppv);
}

HRESULT ProgIDFromCLSID(REFCLSID clsid, LPOLESTR* progId) {
  if (progId == nullptr) return E_INVALIDARG;
  *progId = nullptr;
  std::u16string text;
  if (!pw::RegReadString(HKEY_CLASSES_ROOT, u"CLSID\\" + pw::GuidToU16String(clsid) + u"\\ProgID",
                         u"", &text))
    return REGDB_E_CLASSNOTREG;
  auto* out = static_cast<LPOLESTR>(CoTaskMemAlloc((text.size() + 1) * sizeof(OLECHAR)));
  if (out == nullptr) return E_OUTOFMEMORY;
  std::memcpy(out, text.c_str(), (text.size() + 1) * sizeof(OLECHAR));
  *progId = out;
  return S_OK;
}

HRESULT CLSIDFromProgID(LPCOLESTR progId, LPCLSID clsid) {
  if (progId == nullptr || clsid == nullptr) return E_INVALIDARG;
  std::u16string text;
  if (pw::RegReadString(HKEY_CLASSES_ROOT, std::u16string(progId) + u"\\CLSID", u"", &text) &&
      SUCCEEDED(CLSIDFromString(text.c_str(), clsid)))
    return S_OK;
  if (const auto resolver = pw::g_resolver.load()) return resolver(progId, clsid);
  return CO_E_CLASSSTRING;
}
#endif
