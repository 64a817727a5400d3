// IUnknown and IClassFactory, and the way every interface carries its identifier:
//
//   PW_INTERFACE(IRasterFunction, IUnknown) { ...pure virtual operations... };
//
// declares an interface whose identifier is the name-based identifier of its name, and
//
//   PW_INTERFACE_ID(ISingleton, IUnknown, "932AB930-A190-11D1-8467-0000F875B9C6") { ... };
//
// one whose identifier is fixed from outside. pw::IidOf<I>() gives the identifier (the
// role of __uuidof), and QueryInterface answers an interface's bases through the chain.
#pragma once

#include <type_traits>

#include "com/guid.h"
#include "com/types.h"

#define PW_INTERFACE_ID(Name, BaseName, IdText) \
  struct Name;                                  \
  constexpr GUID PwInterfaceIdOf(const Name*) { \
    return ::pw::MakeGuid(IdText);              \
  }                                             \
  BaseName* PwInterfaceBaseOf(const Name*);     \
  struct Name : public BaseName

#define PW_INTERFACE(Name, BaseName)            \
  struct Name;                                  \
  constexpr GUID PwInterfaceIdOf(const Name*) { \
    return ::pw::NamedId(#Name);                \
  }                                             \
  BaseName* PwInterfaceBaseOf(const Name*);     \
  struct Name : public BaseName

#ifndef _WIN32
struct IUnknown {
  virtual HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) = 0;
  virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
  virtual ULONG STDMETHODCALLTYPE Release() = 0;
};
#endif
constexpr GUID PwInterfaceIdOf(const IUnknown*) {
  return pw::MakeGuid("00000000-0000-0000-C000-000000000046");
}

#ifndef _WIN32
PW_INTERFACE_ID(IClassFactory, IUnknown, "00000001-0000-0000-C000-000000000046") {
  virtual HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown * outer, REFIID riid, void** ppv) = 0;
  virtual HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) = 0;
};
#else
constexpr GUID PwInterfaceIdOf(const IClassFactory*) {
  return __uuidof(IClassFactory);
}
IUnknown* PwInterfaceBaseOf(const IClassFactory*);
#endif

namespace pw {

template <class I>
constexpr GUID IidOf() {
  return PwInterfaceIdOf(static_cast<const I*>(nullptr));
}

template <class I>
concept HasInterfaceBase = requires {
  PwInterfaceBaseOf(static_cast<const I*>(nullptr));
};

template <class I>
using InterfaceBase =
    std::remove_pointer_t<decltype(PwInterfaceBaseOf(static_cast<const I*>(nullptr)))>;

// True when `riid` names I or one of the interfaces it derives from.
template <class I>
constexpr bool InterfaceAnswers(REFIID riid) {
  if (riid == IidOf<I>()) return true;
  if constexpr (HasInterfaceBase<I>) {
    return InterfaceAnswers<InterfaceBase<I>>(riid);
  } else {
    return false;
  }
}

}  // namespace pw

#define PW_IID(I) (::pw::IidOf<I>())
