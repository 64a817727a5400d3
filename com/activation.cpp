// Creation by identifier and the ProgID/CLSID mapping.
#include "com/activation.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

#include "com/catreg.h"
#include "com/com_ptr.h"
#include "com/registry.h"

namespace pw {
namespace {
constexpr int kMaxServers = 8;
std::atomic<ClassObjectProvider> g_providers[kMaxServers];
std::atomic<ProgIdResolver> g_resolvers[kMaxServers];
std::atomic<int> g_serverCount{0};

}  // namespace

void AddInProcessServer(ClassObjectProvider provider, ProgIdResolver resolver) {
  const int slot = g_serverCount.fetch_add(1);
  if (slot >= kMaxServers) std::abort();  // a build-time mistake: raise kMaxServers
  g_providers[slot].store(provider);
  g_resolvers[slot].store(resolver);
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
  const int servers = std::min(pw::g_serverCount.load(), pw::kMaxServers);
  for (int i = 0; i < servers; ++i) {
    const auto provider = pw::g_providers[i].load();
    if (provider == nullptr) continue;
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
  const int servers = std::min(pw::g_serverCount.load(), pw::kMaxServers);
  for (int i = 0; i < servers; ++i) {
    const auto resolver = pw::g_resolvers[i].load();
    if (resolver != nullptr && SUCCEEDED(resolver(progId, clsid))) return S_OK;
  }
  return CO_E_CLASSSTRING;
}
#endif
