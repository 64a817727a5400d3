// Component categories: ICatRegister and the standard component categories manager,
// which keeps categories and class memberships in the registry as on Windows:
//   HKEY_CLASSES_ROOT\Component Categories\{catid}   value "409" = description
//   HKEY_CLASSES_ROOT\CLSID\{clsid}\Implemented Categories\{catid}
#pragma once

#include "com/unknown.h"

#ifndef _WIN32
struct CATEGORYINFO {
  CATID catid;
  LCID lcid;
  OLECHAR szDescription[128];
};

PW_INTERFACE_ID(ICatRegister, IUnknown, "0002E012-0000-0000-C000-000000000046") {
  virtual HRESULT STDMETHODCALLTYPE RegisterCategories(ULONG count, CATEGORYINFO * infos) = 0;
  virtual HRESULT STDMETHODCALLTYPE UnRegisterCategories(ULONG count, CATID * ids) = 0;
  virtual HRESULT STDMETHODCALLTYPE RegisterClassImplCategories(REFCLSID clsid, ULONG count,
                                                                CATID * ids) = 0;
  virtual HRESULT STDMETHODCALLTYPE UnRegisterClassImplCategories(REFCLSID clsid, ULONG count,
                                                                  CATID * ids) = 0;
  virtual HRESULT STDMETHODCALLTYPE RegisterClassReqCategories(REFCLSID clsid, ULONG count,
                                                               CATID * ids) = 0;
  virtual HRESULT STDMETHODCALLTYPE UnRegisterClassReqCategories(REFCLSID clsid, ULONG count,
                                                                 CATID * ids) = 0;
};

inline constexpr CLSID CLSID_StdComponentCategoriesMgr =
    pw::MakeGuid("0002E005-0000-0000-C000-000000000046");
#endif

namespace pw {

// Creates the registry-backed categories manager.
HRESULT CreateCategoriesManager(REFIID riid, void** ppv);

}  // namespace pw
