// ComObject<T>: reference counting, QueryInterface and aggregation, written once.
//
// An implementation class derives from the interfaces it offers (and from any
// implementation bases), leaves IUnknown unimplemented, and names what it answers:
//
//   class Thing : public IThing, public IPersistStream {
//    public:
//     using Interfaces = pw::InterfaceList<IThing, IPersistStream>;
//     ...
//   };
//   pw::ObjectPtr<Thing> thing = pw::MakeObject<Thing>(constructor arguments...);
//
// ComObject<Thing> is the most derived class: it implements the IUnknown of every
// interface, answers each listed interface and its bases, counts itself in the module's
// live-object count, and can be created as an aggregated part of an outer object.
#pragma once

#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

#include "com/com_ptr.h"
#include "com/module.h"
#include "com/unknown.h"

namespace pw {

template <class... Is>
struct InterfaceList {};

template <class... Lists>
struct ConcatInterfaces;
template <class... A>
struct ConcatInterfaces<InterfaceList<A...>> {
  using type = InterfaceList<A...>;
};
template <class... A, class... B, class... Rest>
struct ConcatInterfaces<InterfaceList<A...>, InterfaceList<B...>, Rest...> {
  using type = typename ConcatInterfaces<InterfaceList<A..., B...>, Rest...>::type;
};
template <class... Lists>
using ConcatInterfacesT = typename ConcatInterfaces<Lists...>::type;

namespace detail {
template <class T, class First, class... Rest>
void* FindInterface(T* self, REFIID riid, InterfaceList<First, Rest...>) noexcept {
  if (InterfaceAnswers<First>(riid)) return static_cast<First*>(self);
  if constexpr (sizeof...(Rest) > 0) {
    return FindInterface(self, riid, InterfaceList<Rest...>{});
  } else {
    return nullptr;
  }
}
template <class First, class... Rest>
First* FirstInterface(InterfaceList<First, Rest...>);
}  // namespace detail

template <class T>
class ComObject final : public T {
 public:
  using Primary = std::remove_pointer_t<decltype(detail::FirstInterface(typename T::Interfaces{}))>;

  // `outer` is the controlling unknown of an aggregate, or null.
  template <class... Args>
  explicit ComObject(IUnknown* outer, Args&&... args)
      : T(std::forward<Args>(args)...), inner_(this), outer_(outer ? outer : &inner_) {
    ModuleObjectCreated();
  }
  ~ComObject() { ModuleObjectDestroyed(); }
  ComObject(const ComObject&) = delete;
  ComObject& operator=(const ComObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    return outer_->QueryInterface(riid, ppv);
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return outer_->AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return outer_->Release(); }

  // The object as IUnknown (through its first interface; the controlling unknown
  // answers QueryInterface for it).
  IUnknown* AsUnknown() noexcept { return static_cast<Primary*>(this); }

  // The object's own (non-delegating) IUnknown; for an aggregated object this is what the
  // outer object holds.
  IUnknown* NonDelegatingUnknown() noexcept { return &inner_; }

 private:
  class Inner final : public IUnknown {
   public:
    explicit Inner(ComObject* owner) : owner_(owner) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
      if (ppv == nullptr) return E_POINTER;
      if (riid == IidOf<IUnknown>()) {
        *ppv = static_cast<IUnknown*>(this);
        AddRef();
        return S_OK;
      }
      *ppv = detail::FindInterface(static_cast<T*>(owner_), riid, typename T::Interfaces{});
      if (*ppv == nullptr) return E_NOINTERFACE;
      // Interfaces count on the controlling unknown (the outer object when aggregated).
      owner_->outer_->AddRef();
      return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override {
      return refs_.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    ULONG STDMETHODCALLTYPE Release() override {
      const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
      if (left == 0) delete owner_;
      return left;
    }

   private:
    ComObject* owner_;
    std::atomic<ULONG> refs_{1};
  };

  Inner inner_;
  IUnknown* outer_;
};

// A reference to an implementation object; ComObject<T> resolves the IUnknown that T
// inherits once per interface.
template <class T>
using ObjectPtr = ComPtr<ComObject<T>>;

// Creates an object with one reference held by the returned pointer. Exceptions from
// allocation or construction propagate; use it inside a Guard.
template <class T, class... Args>
ObjectPtr<T> MakeObject(Args&&... args) {
  auto* object = new ComObject<T>(nullptr, std::forward<Args>(args)...);
  return ObjectPtr<T>::Adopt(object);
}

// Creates an object and queries it for `riid`: the construction reference is released
// once the query holds its own, and a failed query destroys the object.
template <class T, class... Args>
HRESULT CreateObject(IUnknown* outer, REFIID riid, void** ppv, Args&&... args) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (outer != nullptr && riid != IidOf<IUnknown>()) return CLASS_E_NOAGGREGATION;
  auto* object = new ComObject<T>(outer, std::forward<Args>(args)...);
  IUnknown* own = object->NonDelegatingUnknown();
  if (outer != nullptr) {
    *ppv = own;  // the construction reference passes to the outer object
    return S_OK;
  }
  const HRESULT hr = own->QueryInterface(riid, ppv);
  own->Release();
  return hr;
}

}  // namespace pw
