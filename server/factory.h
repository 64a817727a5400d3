// The two class factories of the class table, and the factory that stands in for a class
// whose behaviour this build does not have yet.
//
// ClassFactory<T> creates a new ComObject<T> on every call (aggregation allowed for
// IUnknown). SingletonClassFactory<T> keeps one instance per calling thread in a hash
// map of 17 buckets whose chains are sorted by (thread id >> 4), guarded by a critical
// section with spin count 3500; ISingleton drops the calling thread's instance.
#pragma once

#include <array>
#include <atomic>
#include <string_view>
#include <vector>

#include "com/platform.h"
#include "resources/string_table.h"

PW_INTERFACE_ID(ISingleton, IUnknown, "932AB930-A190-11D1-8467-0000F875B9C6") {
  // Drops the calling thread's instance; S_OK also when it has none.
  virtual HRESULT STDMETHODCALLTYPE ReleaseThreadInstance() = 0;
};

namespace pw::server {

// Reference counting of the table's static factories: they start at 1 (the table's own
// reference) and are never destroyed while the table holds it.
class StaticFactoryBase : public IClassFactory {
 public:
  ULONG STDMETHODCALLTYPE AddRef() override { return refs_.fetch_add(1) + 1; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = refs_.fetch_sub(1) - 1;
    if (left == 0) DestroySelf();
    return left;
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    if (lock) {
      ModuleLock();
    } else {
      ModuleUnlock();
    }
    return S_OK;
  }
  ULONG RefCount() const { return refs_.load(); }

 protected:
  virtual void DestroySelf() {}

 private:
  std::atomic<ULONG> refs_{1};
};

template <class T>
class ClassFactory final : public StaticFactoryBase {
 public:
  ClassFactory() = default;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (ppv == nullptr) return E_POINTER;
    if (riid == IidOf<IUnknown>() || riid == IidOf<IClassFactory>()) {
      *ppv = static_cast<IClassFactory*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }

  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
    if (ppv == nullptr) return E_POINTER;
    *ppv = nullptr;
    if (outer != nullptr && riid != IidOf<IUnknown>()) return CLASS_E_NOAGGREGATION;
    return Guard([&] { return CreateObject<T>(outer, riid, ppv); });
  }
};

template <class T>
class SingletonClassFactory final : public StaticFactoryBase, public ISingleton {
 public:
  static constexpr std::size_t kBuckets = 17;
  static constexpr DWORD kSpinCount = 3500;

  SingletonClassFactory() : lock_(kSpinCount) {}
  ~SingletonClassFactory() {
    for (auto& bucket : buckets_)
      for (auto& node : bucket) node.instance->Release();
  }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (ppv == nullptr) return E_POINTER;
    if (riid == IidOf<IUnknown>() || riid == IidOf<IClassFactory>()) {
      *ppv = static_cast<IClassFactory*>(this);
    } else if (riid == IidOf<ISingleton>()) {
      *ppv = static_cast<ISingleton*>(this);
    } else {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    StaticFactoryBase::AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return StaticFactoryBase::AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return StaticFactoryBase::Release(); }

  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
    if (ppv == nullptr) return E_POINTER;
    CriticalSectionLock hold(lock_);
    *ppv = nullptr;
    if (outer != nullptr) return CLASS_E_NOAGGREGATION;
    const DWORD tid = GetCurrentThreadId();
    const DWORD key = tid >> 4;
    auto& chain = buckets_[key % kBuckets];
    auto at = chain.begin();
    for (; at != chain.end(); ++at) {
      if (at->key > key) break;
      if (at->key == key && at->tid == tid) return at->instance->QueryInterface(riid, ppv);
    }
    return Guard([&]() -> HRESULT {
      IUnknown* instance = nullptr;
      PW_RETURN_IF_FAILED(
          CreateObject<T>(nullptr, IidOf<IUnknown>(), reinterpret_cast<void**>(&instance)));
      const HRESULT hr = instance->QueryInterface(riid, ppv);
      if (FAILED(hr)) {
        instance->Release();
        return hr;
      }
      try {
        chain.insert(at, Node{tid, key, instance});
      } catch (...) {
        static_cast<IUnknown*>(*ppv)->Release();
        *ppv = nullptr;
        instance->Release();
        throw;
      }
      return hr;
    });
  }

  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    return StaticFactoryBase::LockServer(lock);
  }

  HRESULT STDMETHODCALLTYPE ReleaseThreadInstance() override {
    IUnknown* dropped = nullptr;
    {
      CriticalSectionLock hold(lock_);
      const DWORD tid = GetCurrentThreadId();
      const DWORD key = tid >> 4;
      auto& chain = buckets_[key % kBuckets];
      for (auto at = chain.begin(); at != chain.end(); ++at) {
        if (at->key > key) break;
        if (at->key == key && at->tid == tid) {
          dropped = at->instance;
          chain.erase(at);
          break;
        }
      }
    }
    // Released outside the lock: the instance's destructor may create other objects.
    if (dropped) dropped->Release();
    return S_OK;
  }

  // The number of threads that hold an instance (for diagnostics and tests).
  std::size_t InstanceCount() {
    CriticalSectionLock hold(lock_);
    std::size_t n = 0;
    for (const auto& bucket : buckets_) n += bucket.size();
    return n;
  }

 private:
  struct Node {
    DWORD tid;
    DWORD key;
    IUnknown* instance;  // one reference, held by the map
  };

  CriticalSection lock_;
  std::array<std::vector<Node>, kBuckets> buckets_;
};

// Stands in for a class whose behaviour is not in this build: the class stays in the
// table and in the registry, and creation fails with E_NOTIMPL and a message naming it.
class UnavailableClassFactory final : public StaticFactoryBase, public ISingleton {
 public:
  constexpr UnavailableClassFactory(const char* className, bool singleton)
      : className_(className), singleton_(singleton) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return StaticFactoryBase::AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return StaticFactoryBase::Release(); }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override;
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    return StaticFactoryBase::LockServer(lock);
  }
  HRESULT STDMETHODCALLTYPE ReleaseThreadInstance() override { return S_OK; }

 private:
  const char* className_;
  bool singleton_;
};

}  // namespace pw::server
