// Entry points, first-use initialisation and creation by name.
#include "server/entry_points.h"

#include <atomic>
#include <mutex>
#include <vector>

#include "resources/string_table.h"
#include "server/factory.h"
#include "server/registration.h"

namespace pw::server {
namespace {

std::atomic<bool> g_initialized{false};
std::mutex g_initLock;
ClassIndex g_index;
std::vector<const ClassEntry*> g_singletons;
std::atomic<int> g_indexBuilds{0};

// Builds the index and the singleton list once, under a double-checked lock.
void InitializeOnFirstUse() {
  if (g_initialized.load(std::memory_order_acquire)) return;
  std::lock_guard<std::mutex> hold(g_initLock);
  if (g_initialized.load(std::memory_order_relaxed)) return;
  std::size_t singletons = 0;
  for (const ClassEntry& e : ClassEntries())
    if (e.singleton) ++singletons;
  g_singletons.reserve(singletons);
  g_index.Build(ClassTable());
  g_indexBuilds.fetch_add(1, std::memory_order_relaxed);
  for (const ClassEntry& e : ClassEntries())
    if (e.singleton) g_singletons.push_back(&e);
  std::atomic_thread_fence(std::memory_order_seq_cst);
  g_initialized.store(true, std::memory_order_release);
}

HRESULT ResolveProgId(LPCOLESTR progId, LPCLSID clsid) {
  return ClassIdFromProgId(progId ? std::u16string_view(progId) : std::u16string_view(), clsid);
}

// Makes the classes creatable through CoCreateInstance without registration.
const bool g_installed = [] {
  AddInProcessServer(&DllGetClassObject, &ResolveProgId);
  return true;
}();

}  // namespace

const ClassIndex& Index() {
  InitializeOnFirstUse();
  return g_index;
}

int IndexBuildCount() {
  return g_indexBuilds.load();
}

HRESULT ClassIdFromProgId(std::u16string_view name, CLSID* clsid) {
  if (clsid == nullptr) return E_POINTER;
  const std::u16string prefix = ToUtf16(kProgIdPrefix) + u".";
  if (name.size() > prefix.size() && EqualsNoCase(name.substr(0, prefix.size()), prefix)) {
    name.remove_prefix(prefix.size());
    if (name.size() > 2 && name.substr(name.size() - 2) == u".1") name.remove_suffix(2);
  }
  const ClassEntry* entry = FindClassByName(name);
  if (entry == nullptr) return CO_E_CLASSSTRING;
  *clsid = *entry->clsid;
  return S_OK;
}

HRESULT CreateInstance(std::u16string_view name, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  CLSID clsid;
  const HRESULT hr = ClassIdFromProgId(name, &clsid);
  if (FAILED(hr)) {
    return ReportError(REGDB_E_CLASSNOTREG,
                       res::Format(res::IDS_CLASS_NOT_IN_BUILD, std::u16string(name)));
  }
  ComPtr<IClassFactory> factory;
  PW_RETURN_IF_FAILED(DllGetClassObject(clsid, IidOf<IClassFactory>(), factory.OutVoid()));
  return factory->CreateInstance(nullptr, riid, ppv);
}

}  // namespace pw::server

using namespace pw;
using namespace pw::server;

extern "C" {

HRESULT STDMETHODCALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  InitializeOnFirstUse();
  const ClassEntry* entry = g_index.Find(clsid);
  if (entry == nullptr) return CLASS_E_CLASSNOTAVAILABLE;
  return entry->factory->QueryInterface(riid, ppv);
}

HRESULT STDMETHODCALLTYPE DllCanUnloadNow() {
  InitializeOnFirstUse();
  for (const ClassEntry* entry : g_singletons) {
    ComPtr<ISingleton> singleton;
    if (SUCCEEDED(entry->factory->QueryInterface(IidOf<ISingleton>(), singleton.OutVoid())))
      singleton->ReleaseThreadInstance();
  }
  return S_FALSE;
}

// Both standard self-registration exports lead here.
static HRESULT STDMETHODCALLTYPE NoRegistration() {
  return S_OK;
}
HRESULT STDMETHODCALLTYPE DllRegisterServer() {
  return NoRegistration();
}
HRESULT STDMETHODCALLTYPE DllUnregisterServer() {
  return NoRegistration();
}

HRESULT STDMETHODCALLTYPE quarnDllRegisterServer() {
  return Guard([] { return RegisterEntries(ClassEntries()); });
}

HRESULT STDMETHODCALLTYPE quarnDllUnregisterServer() {
  return Guard([] { return UnregisterEntries(ClassEntries()); });
}

}  // extern "C"
