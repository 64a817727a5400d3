// The registry of persistable classes and its class-object provider.
#include "raster/persist/class_registry.h"

#include <deque>
#include <mutex>

namespace pw::persist {
namespace {

struct Registry {
  std::mutex lock;
  std::deque<PersistClass> classes;  // stable addresses as classes are added
};

Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

// A class factory over a creator function.
class CreatorFactory : public IClassFactory {
 public:
  using Interfaces = InterfaceList<IClassFactory>;
  explicit CreatorFactory(Creator create) : create_(create) {}
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
    PW_CHECK_POINTER(ppv);
    *ppv = nullptr;
    return create_(outer, riid, ppv);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    if (lock) {
      ModuleLock();
    } else {
      ModuleUnlock();
    }
    return S_OK;
  }

 private:
  Creator create_;
};

HRESULT ProvideClassObject(REFCLSID clsid, REFIID riid, void** ppv) {
  const PersistClass* c = FindPersistClass(clsid);
  if (c == nullptr) return CLASS_E_CLASSNOTAVAILABLE;
  return Guard([&] { return CreateObject<CreatorFactory>(nullptr, riid, ppv, c->create); });
}

HRESULT ResolveProgId(LPCOLESTR progId, LPCLSID clsid) {
  if (progId == nullptr) return CO_E_CLASSSTRING;
  std::u16string_view name(progId);
  const std::u16string prefix = ToUtf16(kValueProgIdPrefix) + u".";
  if (name.substr(0, prefix.size()) != prefix) return CO_E_CLASSSTRING;
  const PersistClass* c = FindPersistClass(name.substr(prefix.size()));
  if (c == nullptr) return CO_E_CLASSSTRING;
  *clsid = c->clsid;
  return S_OK;
}

}  // namespace

bool RegisterPersistClass(std::u16string_view typeName, const CLSID& clsid, Creator create) {
  static const bool installed = [] {
    AddInProcessServer(&ProvideClassObject, &ResolveProgId);
    return true;
  }();
  (void)installed;
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> hold(r.lock);
  r.classes.push_back(PersistClass{std::u16string(typeName), clsid, create});
  return true;
}

const PersistClass* FindPersistClass(const CLSID& clsid) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> hold(r.lock);
  for (const auto& c : r.classes)
    if (c.clsid == clsid) return &c;
  return nullptr;
}

const PersistClass* FindPersistClass(std::u16string_view typeName) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> hold(r.lock);
  for (const auto& c : r.classes)
    if (c.typeName == typeName) return &c;
  return nullptr;
}

HRESULT CreatePersistObject(const CLSID& clsid, REFIID riid, void** ppv) {
  PW_CHECK_POINTER(ppv);
  *ppv = nullptr;
  if (const PersistClass* c = FindPersistClass(clsid)) return c->create(nullptr, riid, ppv);
  return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, riid, ppv);
}

HRESULT CreatePersistObject(std::u16string_view typeName, REFIID riid, void** ppv) {
  PW_CHECK_POINTER(ppv);
  *ppv = nullptr;
  const PersistClass* c = FindPersistClass(typeName);
  if (c == nullptr) return REGDB_E_CLASSNOTREG;
  return c->create(nullptr, riid, ppv);
}

std::u16string_view TypeNameOf(IUnknown* object) {
  ComPtr<IPersist> persist;
  if (object == nullptr || FAILED(object->QueryInterface(IidOf<IPersist>(), persist.OutVoid())))
    return {};
  CLSID clsid;
  if (FAILED(persist->GetClassID(&clsid))) return {};
  const PersistClass* c = FindPersistClass(clsid);
  return c ? c->typeName : std::u16string_view();
}

}  // namespace pw::persist
