// The library's exported entry points, and the in-process helpers built on them.
#pragma once

#include <string_view>

#include "com/platform.h"
#include "server/class_table.h"

#ifdef _WIN32
#define PW_EXPORT __declspec(dllexport)
#else
#define PW_EXPORT __attribute__((visibility("default")))
#endif

extern "C" {
// The class's factory queried for riid; CLASS_E_CLASSNOTAVAILABLE for an unknown class.
PW_EXPORT HRESULT STDMETHODCALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv);
// Always S_FALSE; first drops the calling thread's instance from every singleton factory.
PW_EXPORT HRESULT STDMETHODCALLTYPE DllCanUnloadNow();
// The standard self-registration entry points do nothing and return S_OK.
PW_EXPORT HRESULT STDMETHODCALLTYPE DllRegisterServer();
PW_EXPORT HRESULT STDMETHODCALLTYPE DllUnregisterServer();
// Writes (removes) the registry entries of every table entry.
PW_EXPORT HRESULT STDMETHODCALLTYPE quarnDllRegisterServer();
PW_EXPORT HRESULT STDMETHODCALLTYPE quarnDllUnregisterServer();
}

namespace pw::server {

// The index built at first use (building it when needed).
const ClassIndex& Index();
// How many times the index has been built in this process (once, whatever the threads).
int IndexBuildCount();

// The class identifier of a programmatic identifier ("quarnDataSourcesRaster.Name",
// optionally with a ".1" version) or of a bare class name.
HRESULT ClassIdFromProgId(std::u16string_view name, CLSID* clsid);

// Creates an object by programmatic identifier or bare class name, without registration.
HRESULT CreateInstance(std::u16string_view name, REFIID riid, void** ppv);

template <class I>
HRESULT CreateInstance(std::u16string_view name, I** out) {
  return CreateInstance(name, IidOf<I>(), reinterpret_cast<void**>(out));
}

}  // namespace pw::server
