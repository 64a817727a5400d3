// ComPtr<T>: an owning reference to a component-model interface.
#pragma once

#include <cstddef>
#include <utility>

#include "com/unknown.h"

namespace pw {

template <class T>
class ComPtr {
 public:
  ComPtr() noexcept = default;
  ComPtr(std::nullptr_t) noexcept {}
  // Takes a new reference to `p`.
  ComPtr(T* p) noexcept : p_(p) {
    if (p_) p_->AddRef();
  }
  ComPtr(const ComPtr& other) noexcept : ComPtr(other.p_) {}
  ComPtr(ComPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> ComPtr(const ComPtr<U>& other)
  noexcept : ComPtr(static_cast<T*>(other.Get())) {}
  ~ComPtr() { Reset(); }

  ComPtr& operator=(const ComPtr& other) noexcept {
    ComPtr(other).Swap(*this);
    return *this;
  }
  ComPtr& operator=(ComPtr&& other) noexcept {
    ComPtr(std::move(other)).Swap(*this);
    return *this;
  }
  ComPtr& operator=(T* p) noexcept {
    ComPtr(p).Swap(*this);
    return *this;
  }
  ComPtr& operator=(std::nullptr_t) noexcept {
    Reset();
    return *this;
  }

  // Adopts an existing reference without adding one.
  static ComPtr Adopt(T* p) noexcept {
    ComPtr r;
    r.p_ = p;
    return r;
  }

  T* Get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  // Releases the current reference and exposes the slot for an out parameter.
  T** ReleaseAndGetAddressOf() noexcept {
    Reset();
    return &p_;
  }
  T** operator&() noexcept { return ReleaseAndGetAddressOf(); }
  // Exposes the slot as void** for QueryInterface-style out parameters.
  void** OutVoid() noexcept { return reinterpret_cast<void**>(ReleaseAndGetAddressOf()); }

  void Reset() noexcept {
    if (T* p = std::exchange(p_, nullptr)) p->Release();
  }
  void Attach(T* p) noexcept {
    Reset();
    p_ = p;
  }
  [[nodiscard]] T* Detach() noexcept { return std::exchange(p_, nullptr); }
  void Swap(ComPtr& other) noexcept { std::swap(p_, other.p_); }

  // Hands out a new reference through an out parameter.
  HRESULT CopyTo(T** out) const noexcept {
    if (out == nullptr) return E_POINTER;
    *out = p_;
    if (p_) p_->AddRef();
    return S_OK;
  }

  // QueryInterface into another smart pointer.
  template <class U>
  HRESULT As(ComPtr<U>* out) const noexcept {
    if (out == nullptr) return E_POINTER;
    if (p_ == nullptr) {
      out->Reset();
      return E_POINTER;
    }
    return p_->QueryInterface(IidOf<U>(), out->OutVoid());
  }
  template <class U>
  ComPtr<U> As() const noexcept {
    ComPtr<U> r;
    if (p_) (void)p_->QueryInterface(IidOf<U>(), r.OutVoid());
    return r;
  }

 private:
  T* p_ = nullptr;
};

template <class T, class U>
bool operator==(const ComPtr<T>& a, const ComPtr<U>& b) noexcept {
  return a.Get() == b.Get();
}
template <class T>
bool operator==(const ComPtr<T>& a, std::nullptr_t) noexcept {
  return a.Get() == nullptr;
}

// Hands out a new reference to the object `field` holds (null when it holds none).
template <class T>
HRESULT HandOut(const ComPtr<T>& field, T** out) {
  return field.CopyTo(out);
}

// True when two interface pointers belong to one object (their IUnknown is the same).
bool SameObject(IUnknown* a, IUnknown* b) noexcept;

}  // namespace pw
