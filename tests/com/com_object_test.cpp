// ComObject: QueryInterface, reference counting, aggregation and the live-object count;
// the boundary guard, error objects and critical sections.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "com/platform.h"

PW_INTERFACE(ITestShape, IUnknown) {
  virtual int STDMETHODCALLTYPE Sides() = 0;
};
PW_INTERFACE(ITestShape2, ITestShape) {
  virtual int STDMETHODCALLTYPE Corners() = 0;
};

namespace pw {
namespace {

class Square : public ITestShape2, public IPersistStream {
 public:
  using Interfaces = InterfaceList<ITestShape2, IPersistStream>;
  int STDMETHODCALLTYPE Sides() override { return 4; }
  int STDMETHODCALLTYPE Corners() override { return 4; }
  HRESULT STDMETHODCALLTYPE GetClassID(CLSID* clsid) override {
    *clsid = NamedId("Square");
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE IsDirty() override { return S_FALSE; }
  HRESULT STDMETHODCALLTYPE Load(IStream*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE Save(IStream*, BOOL) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE GetSizeMax(ULARGE_INTEGER*) override { return E_NOTIMPL; }
};

ULONG Refs(IUnknown* p) {
  p->AddRef();
  return p->Release();
}

TEST(ComObject, AnswersItsInterfacesAndTheirBases) {
  const LONG before = ModuleLiveObjectCount();
  {
    auto square = MakeObject<Square>();
    EXPECT_EQ(ModuleLiveObjectCount(), before + 1);
    const IID answered[] = {IidOf<IUnknown>(), IidOf<ITestShape>(), IidOf<ITestShape2>(),
                            IidOf<IPersist>(), IidOf<IPersistStream>()};
    for (const IID& iid : answered) {
      void* p = nullptr;
      EXPECT_EQ(square->QueryInterface(iid, &p), S_OK) << GuidToString(iid);
      ASSERT_NE(p, nullptr);
      static_cast<IUnknown*>(static_cast<ITestShape*>(p))->Release();
    }
    void* p = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(square->QueryInterface(IidOf<IStream>(), &p), E_NOINTERFACE);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(square->QueryInterface(IidOf<IUnknown>(), nullptr), E_POINTER);
    EXPECT_EQ(Refs(square->AsUnknown()), 1u);
    // Every route to IUnknown gives the same pointer: the object's identity.
    ComPtr<ITestShape> shape = square.As<ITestShape>();
    ComPtr<IPersist> persist = square.As<IPersist>();
    EXPECT_TRUE(SameObject(shape.Get(), persist.Get()));
  }
  EXPECT_EQ(ModuleLiveObjectCount(), before);
}

// An outer object that aggregates a Square and hands out its ITestShape.
class Outer : public IPersist {
 public:
  using Interfaces = InterfaceList<IPersist>;
  HRESULT STDMETHODCALLTYPE GetClassID(CLSID* clsid) override {
    *clsid = NamedId("Outer");
    return S_OK;
  }
  ComPtr<IUnknown> inner;
};

TEST(ComObject, AggregatedObjectsDelegateToTheirOuterObject) {
  const LONG before = ModuleLiveObjectCount();
  {
    auto outer = MakeObject<Outer>();
    IUnknown* controlling = static_cast<IPersist*>(outer.Get());
    void* raw = nullptr;
    EXPECT_EQ(CreateObject<Square>(controlling, IidOf<ITestShape>(), &raw), CLASS_E_NOAGGREGATION);
    EXPECT_EQ(raw, nullptr);
    ASSERT_EQ(CreateObject<Square>(controlling, IidOf<IUnknown>(), &raw), S_OK);
    outer->inner = ComPtr<IUnknown>::Adopt(static_cast<IUnknown*>(raw));

    ComPtr<ITestShape> shape;
    ASSERT_EQ(outer->inner->QueryInterface(IidOf<ITestShape>(), shape.OutVoid()), S_OK);
    EXPECT_EQ(shape->Sides(), 4);
    // The inner object's interfaces count references on the outer object and answer
    // with the outer object's identity.
    EXPECT_EQ(Refs(controlling), 2u);
    ComPtr<IPersist> persist;
    ASSERT_EQ(shape->QueryInterface(IidOf<IPersist>(), persist.OutVoid()), S_OK);
    CLSID clsid;
    persist->GetClassID(&clsid);
    EXPECT_EQ(clsid, NamedId("Outer"));
    EXPECT_EQ(ModuleLiveObjectCount(), before + 2);
  }
  EXPECT_EQ(ModuleLiveObjectCount(), before);
}

TEST(Guard, MapsExceptionsToResultCodes) {
  EXPECT_EQ(Guard([] { return S_FALSE; }), S_FALSE);
  EXPECT_EQ(Guard([]() -> HRESULT { throw std::bad_alloc(); }), E_OUTOFMEMORY);
  EXPECT_EQ(Guard([]() -> HRESULT { throw std::runtime_error("disk on fire"); }), E_FAIL);
  EXPECT_EQ(TakeErrorDescription(), u"disk on fire");
  EXPECT_EQ(Guard([]() -> HRESULT { throw 42; }), E_FAIL);
}

TEST(ErrorInfo, ChainsPutTheOutermostMessageFirst) {
  ClearErrorInfo();
  EXPECT_EQ(ReportError(E_INVALIDARG, std::string_view("Missing raster: [DEM]")), E_INVALIDARG);
  EXPECT_EQ(ChainError(E_FAIL, u"SlopeFunction: bind failed"), E_FAIL);
  EXPECT_EQ(ChainError(E_FAIL, u"HillshadeFunction: bind failed"), E_FAIL);
  EXPECT_EQ(PeekErrorDescription(),
            u"HillshadeFunction: bind failed\nSlopeFunction: bind failed\nMissing raster: [DEM]");
  ComPtr<IErrorInfo> info;
  ASSERT_EQ(GetErrorInfo(0, &info), S_OK);
  EXPECT_EQ(GetErrorInfo(0, &info), S_FALSE);  // taken, so now there is none
  EXPECT_EQ(TakeErrorDescription(), u"");
}

TEST(ErrorInfo, IsKeptPerThread) {
  ReportError(E_FAIL, std::string_view("main thread"));
  std::u16string seen = u"unset";
  std::thread([&] { seen = TakeErrorDescription(); }).join();
  EXPECT_EQ(seen, u"");
  EXPECT_EQ(TakeErrorDescription(), u"main thread");
}

TEST(CriticalSection, ExcludesOtherThreadsAndAllowsReentry) {
  CriticalSection section(3500);
  EXPECT_EQ(section.SpinCount(), 3500u);
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        CriticalSectionLock outer(section);
        CriticalSectionLock inner(section);  // the owner may enter again
        ++counter;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 80000);
}

TEST(Platform, ThreadIdsDifferAndProcessorsAreCounted) {
  const DWORD mine = GetCurrentThreadId();
  DWORD other = mine;
  std::thread([&] { other = GetCurrentThreadId(); }).join();
  EXPECT_NE(mine, other);
  EXPECT_EQ(GetCurrentThreadId(), mine);
  EXPECT_GE(ProcessorCount(), 1u);
}

}  // namespace
}  // namespace pw
