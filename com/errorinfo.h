// Error objects: IErrorInfo/ICreateErrorInfo/ISupportErrorInfo, the thread-local current
// error (SetErrorInfo/GetErrorInfo), and helpers that report and chain messages.
#pragma once

#include <string>
#include <string_view>

#include "com/unknown.h"

#ifndef _WIN32
PW_INTERFACE_ID(IErrorInfo, IUnknown, "1CF2B120-547D-101B-8E65-08002B2BD119") {
  virtual HRESULT STDMETHODCALLTYPE GetGUID(GUID * guid) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetSource(BSTR * source) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDescription(BSTR * description) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR * helpFile) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD * helpContext) = 0;
};

PW_INTERFACE_ID(ICreateErrorInfo, IUnknown, "22F03340-547D-101B-8E65-08002B2BD119") {
  virtual HRESULT STDMETHODCALLTYPE SetGUID(REFGUID guid) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetSource(LPOLESTR source) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetDescription(LPOLESTR description) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetHelpFile(LPOLESTR helpFile) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetHelpContext(DWORD helpContext) = 0;
};

PW_INTERFACE_ID(ISupportErrorInfo, IUnknown, "DF0B3D60-548F-101B-8E65-08002B2BD119") {
  virtual HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID riid) = 0;
};

// The calling thread's current error object; GetErrorInfo hands it over and clears it
// (S_FALSE when there is none).
HRESULT SetErrorInfo(ULONG reserved, IErrorInfo* info);
HRESULT GetErrorInfo(ULONG reserved, IErrorInfo** info);
HRESULT CreateErrorInfo(ICreateErrorInfo** info);
#endif

namespace pw {

// Sets the calling thread's error object to `description` (UTF-8 or UTF-16) and returns hr.
HRESULT ReportError(HRESULT hr, std::u16string_view description, const GUID& source = GUID_NULL);
HRESULT ReportError(HRESULT hr, std::string_view description, const GUID& source = GUID_NULL);

// Puts `message` in front of the current error's description, one line per level, so
// that the outermost caller's message comes first and the failing detail last.
HRESULT ChainError(HRESULT hr, std::u16string_view message, const GUID& source = GUID_NULL);

// The current error's description without clearing it; empty when there is none.
std::u16string PeekErrorDescription();
// The current error's description, clearing the error; empty when there is none.
std::u16string TakeErrorDescription();
void ClearErrorInfo();

// What a result code means, with the code: "out of memory (0x8007000E)"; a code without a
// text of its own is shown as "result 0x...".
std::string DescribeResult(HRESULT hr);

}  // namespace pw
