// Class factories, entry points and creation by name.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "framework/relative_path_manager.h"
#include "server/entry_points.h"
#include "server/factory.h"
#include "tests/test_support.h"

namespace pw::server {
namespace {

class Probe : public IPersist {
 public:
  using Interfaces = InterfaceList<IPersist>;
  HRESULT STDMETHODCALLTYPE GetClassID(CLSID* clsid) override {
    *clsid = NamedId("Probe");
    return S_OK;
  }
};

class OutOfMemoryOnBuild : public Probe {
 public:
  OutOfMemoryOnBuild() { throw std::bad_alloc(); }
};

class FailsOnBuild : public Probe {
 public:
  FailsOnBuild() { throw std::runtime_error("constructor failed"); }
};

ULONG Refs(IUnknown* p) {
  p->AddRef();
  return p->Release();
}

template <class Factory>
void ExpectFactoryInterfaces(Factory& factory, bool singleton) {
  const IID answered[] = {IidOf<IUnknown>(), IidOf<IClassFactory>()};
  for (const IID& iid : answered) {
    void* p = nullptr;
    EXPECT_EQ(factory.QueryInterface(iid, &p), S_OK);
    static_cast<IUnknown*>(p)->Release();
  }
  void* p = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(factory.QueryInterface(IidOf<IStream>(), &p), E_NOINTERFACE);
  EXPECT_EQ(p, nullptr);
  p = nullptr;
  EXPECT_EQ(factory.QueryInterface(IidOf<ISingleton>(), &p), singleton ? S_OK : E_NOINTERFACE);
  if (p) static_cast<ISingleton*>(p)->Release();
  EXPECT_EQ(factory.RefCount(), 1u);
}

TEST(ClassFactory, AnswersItsInterfacesAndRefusesOthers) {
  ClassFactory<Probe> plain;
  SingletonClassFactory<Probe> singleton;
  ExpectFactoryInterfaces(plain, false);
  ExpectFactoryInterfaces(singleton, true);
}

TEST(ClassFactory, CreatesQueriesAndCleansUpFailedQueries) {
  const LONG before = ModuleLiveObjectCount();
  ClassFactory<Probe> factory;
  ComPtr<IPersist> persist;
  ASSERT_EQ(factory.CreateInstance(nullptr, IidOf<IPersist>(), persist.OutVoid()), S_OK);
  EXPECT_EQ(Refs(persist.Get()), 1u);  // the construction reference was released
  void* p = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(factory.CreateInstance(nullptr, IidOf<IStream>(), &p), E_NOINTERFACE);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(factory.CreateInstance(nullptr, IidOf<IPersist>(), nullptr), E_POINTER);
  persist.Reset();
  EXPECT_EQ(ModuleLiveObjectCount(), before);
}

TEST(ClassFactory, AcceptsAggregationOnlyForIUnknown) {
  ClassFactory<Probe> factory;
  auto outer = MakeObject<framework::RelativePathManager>();
  IUnknown* controlling = static_cast<IRelativePathManager*>(outer.Get());
  void* p = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(factory.CreateInstance(controlling, IidOf<IPersist>(), &p), CLASS_E_NOAGGREGATION);
  EXPECT_EQ(p, nullptr);
  ASSERT_EQ(factory.CreateInstance(controlling, IidOf<IUnknown>(), &p), S_OK);
  static_cast<IUnknown*>(p)->Release();
  SingletonClassFactory<Probe> singleton;
  EXPECT_EQ(singleton.CreateInstance(controlling, IidOf<IUnknown>(), &p), CLASS_E_NOAGGREGATION);
}

TEST(ClassFactory, MapsConstructorExceptions) {
  ClearErrorInfo();
  const LONG before = ModuleLiveObjectCount();
  ClassFactory<OutOfMemoryOnBuild> oom;
  ClassFactory<FailsOnBuild> fails;
  SingletonClassFactory<FailsOnBuild> singletonFails;
  void* p = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(oom.CreateInstance(nullptr, IidOf<IUnknown>(), &p), E_OUTOFMEMORY);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(fails.CreateInstance(nullptr, IidOf<IUnknown>(), &p), E_FAIL);
  EXPECT_EQ(singletonFails.CreateInstance(nullptr, IidOf<IUnknown>(), &p), E_FAIL);
  EXPECT_EQ(singletonFails.InstanceCount(), 0u);
  ClearErrorInfo();  // the error object describing the failure is alive until then
  EXPECT_EQ(ModuleLiveObjectCount(), before);
}

ComPtr<IPersist> MakeFrom(IClassFactory& factory) {
  ComPtr<IPersist> object;
  EXPECT_EQ(factory.CreateInstance(nullptr, IidOf<IPersist>(), object.OutVoid()), S_OK);
  return object;
}

TEST(SingletonClassFactory, KeepsOneInstancePerThreadAndDropsOnlyTheCallers) {
  SingletonClassFactory<Probe> factory;
  ComPtr<IPersist> mine = MakeFrom(factory);
  EXPECT_EQ(MakeFrom(factory).Get(), mine.Get());
  ComPtr<IPersist> theirs;
  std::thread([&] { theirs = MakeFrom(factory); }).join();
  EXPECT_NE(theirs.Get(), mine.Get());
  EXPECT_EQ(factory.InstanceCount(), 2u);
  EXPECT_EQ(Refs(mine.Get()), 2u);  // ours and the factory's

  EXPECT_EQ(factory.ReleaseThreadInstance(), S_OK);
  EXPECT_EQ(factory.InstanceCount(), 1u);
  EXPECT_EQ(Refs(mine.Get()), 1u);
  EXPECT_EQ(Refs(theirs.Get()), 2u);                 // the other thread's instance is kept
  EXPECT_EQ(factory.ReleaseThreadInstance(), S_OK);  // nothing left to drop: still S_OK
  EXPECT_NE(MakeFrom(factory).Get(), mine.Get());    // a fresh instance for this thread
}

TEST(EntryPoints, GiveFactoriesForKnownClassesOnly) {
  ComPtr<IClassFactory> factory;
  EXPECT_EQ(DllGetClassObject(ClassIdFromName("SlopeFunction"), IidOf<IClassFactory>(),
                              factory.OutVoid()),
            S_OK);
  void* p = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(DllGetClassObject(ClassIdFromName("SlopeFunction"), IidOf<IStream>(), &p),
            E_NOINTERFACE);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(DllGetClassObject(NamedId("NoSuchClass"), IidOf<IUnknown>(), &p),
            CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(DllGetClassObject(ClassIdFromName("SlopeFunction"), IidOf<IUnknown>(), nullptr),
            E_POINTER);
}

TEST(EntryPoints, ClassesNotInThisBuildFailWithANamedMessage) {
  ComPtr<IUnknown> object;
  ClearErrorInfo();
  EXPECT_EQ(CreateInstance(u"quarnDataSourcesRaster.MosaicFunction", &object), E_NOTIMPL);
  EXPECT_EQ(object.Get(), nullptr);
  const std::string message = ToUtf8(TakeErrorDescription());
  EXPECT_NE(message.find("MosaicFunction"), std::string::npos) << message;
  EXPECT_NE(message.find("not available in this build"), std::string::npos) << message;
}

TEST(EntryPoints, CreateByNameAndProgIdWithoutRegistration) {
  test::TempDir dir;
  test::ScopedEnv env("PIXWERK_REGISTRY", (dir / "empty.reg").string());
  ComPtr<IRelativePathManager> a, b;
  EXPECT_EQ(CreateInstance(u"RelativePathManager", &a), S_OK);
  EXPECT_EQ(CreateInstance(u"quarnDataSourcesRaster.RelativePathManager.1", &b), S_OK);
  EXPECT_EQ(a.Get(), b.Get());  // one per thread
  CLSID clsid;
  ASSERT_EQ(CLSIDFromProgID(u"quarnDataSourcesRaster.RelativePathManager", &clsid), S_OK);
  EXPECT_EQ(clsid, ClassIdFromName("RelativePathManager"));
  ComPtr<IRelativePathManager> c;
  EXPECT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IidOf<IRelativePathManager>(),
                             c.OutVoid()),
            S_OK);
  EXPECT_EQ(CreateInstance(u"NoSuchClass", &c), REGDB_E_CLASSNOTREG);
  EXPECT_FALSE(std::filesystem::exists(dir / "empty.reg"));
  DllCanUnloadNow();
}

TEST(EntryPoints, CanUnloadNowSaysNoAndDropsOnlyTheCallersSingletons) {
  ComPtr<IRelativePathManager> first, again;
  ASSERT_EQ(CreateInstance(u"RelativePathManager", &first), S_OK);
  ComPtr<IRelativePathManager> otherBefore, otherAfter;
  std::mutex m;
  std::condition_variable cv;
  int stage = 0;
  std::thread other;
  {
    other = std::thread([&] {
      CreateInstance(u"RelativePathManager", &otherBefore);
      std::unique_lock lock(m);
      stage = 1;
      cv.notify_all();
      cv.wait(lock, [&] { return stage == 2; });
      CreateInstance(u"RelativePathManager", &otherAfter);
      DllCanUnloadNow();
    });
    std::unique_lock lock(m);
    cv.wait(lock, [&] { return stage == 1; });
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    stage = 2;
    cv.notify_all();
  }
  other.join();
  EXPECT_EQ(otherAfter.Get(), otherBefore.Get());  // the other thread kept its instance
  EXPECT_EQ(Refs(first.Get()), 1u);                // ours was dropped by the factory
  ASSERT_EQ(CreateInstance(u"RelativePathManager", &again), S_OK);
  EXPECT_NE(again.Get(), first.Get());
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
}

TEST(EntryPoints, CanUnloadNowSaysNoEvenWithNothingAliveAndNoLocks) {
  ASSERT_EQ(ModuleLockCount(), 0);
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
}

TEST(EntryPoints, LockServerCountsLocks) {
  ComPtr<IClassFactory> factory;
  ASSERT_EQ(
      DllGetClassObject(ClassIdFromName("RasterInfo"), IidOf<IClassFactory>(), factory.OutVoid()),
      S_OK);
  const LONG before = ModuleLockCount();
  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  EXPECT_EQ(ModuleLockCount(), before + 2);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  EXPECT_EQ(ModuleLockCount(), before);
}

TEST(EntryPoints, StandardSelfRegistrationChangesNothing) {
  test::TempDir dir;
  test::ScopedEnv env("PIXWERK_REGISTRY", (dir / "registry.reg").string());
  EXPECT_EQ(DllRegisterServer(), S_OK);
  EXPECT_EQ(DllUnregisterServer(), S_OK);
  EXPECT_FALSE(std::filesystem::exists(dir / "registry.reg"));
}

}  // namespace
}  // namespace pw::server
