// The stand-in factory of classes that this build does not have.
#include "server/factory.h"

namespace pw::server {

HRESULT UnavailableClassFactory::QueryInterface(REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  if (riid == IidOf<IUnknown>() || riid == IidOf<IClassFactory>()) {
    *ppv = static_cast<IClassFactory*>(this);
  } else if (singleton_ && riid == IidOf<ISingleton>()) {
    *ppv = static_cast<ISingleton*>(this);
  } else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  StaticFactoryBase::AddRef();
  return S_OK;
}

HRESULT UnavailableClassFactory::CreateInstance(IUnknown* outer, REFIID riid, void** ppv) {
  if (ppv == nullptr) return E_POINTER;
  *ppv = nullptr;
  if (outer != nullptr && (singleton_ || riid != IidOf<IUnknown>())) return CLASS_E_NOAGGREGATION;
  return Guard(
      [&] { return ReportError(E_NOTIMPL, res::Format(res::IDS_CLASS_NOT_IN_BUILD, className_)); });
}

}  // namespace pw::server
