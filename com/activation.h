// Object creation by class identifier and programmatic identifier, and the registry's
// mapping between the two (ProgIDFromCLSID/CLSIDFromProgID). In-process servers make
// their classes creatable without any registration by installing a class-object
// provider (their DllGetClassObject).
#pragma once

#include "com/unknown.h"

#ifndef _WIN32
constexpr DWORD CLSCTX_INPROC_SERVER = 0x1;
constexpr DWORD CLSCTX_ALL = 0x17;

void* CoTaskMemAlloc(SIZE_T size);
void CoTaskMemFree(void* block);
HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID riid, void** ppv);
HRESULT CoGetClassObject(REFCLSID clsid, DWORD context, void* reserved, REFIID riid, void** ppv);
// Reads HKEY_CLASSES_ROOT\CLSID\{clsid}\ProgID; the text is allocated with CoTaskMemAlloc.
HRESULT ProgIDFromCLSID(REFCLSID clsid, LPOLESTR* progId);
// Reads HKEY_CLASSES_ROOT\<progId>\CLSID, else asks the in-process providers.
HRESULT CLSIDFromProgID(LPCOLESTR progId, LPCLSID clsid);
#endif

namespace pw {

using ClassObjectProvider = HRESULT (*)(REFCLSID clsid, REFIID riid, void** ppv);
using ProgIdResolver = HRESULT (*)(LPCOLESTR progId, LPCLSID clsid);

// Installs an in-process class-object entry point and ProgID resolver; creation asks
// them in the order they were installed. Either may be null.
void AddInProcessServer(ClassObjectProvider provider, ProgIdResolver resolver);

}  // namespace pw
