// The error object, the calling thread's current error, and message chaining.
#include "com/errorinfo.h"

#include <cstdio>

#include "com/bstr.h"
#include "com/com_object.h"
#include "com/guard.h"
#include "com/text.h"

namespace pw {
namespace {

class ErrorObject : public IErrorInfo, public ICreateErrorInfo {
 public:
  using Interfaces = InterfaceList<IErrorInfo, ICreateErrorInfo>;

  HRESULT STDMETHODCALLTYPE GetGUID(GUID* guid) override {
    PW_CHECK_POINTER(guid);
    *guid = guid_;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetSource(BSTR* out) override { return source_.CopyTo(out); }
  HRESULT STDMETHODCALLTYPE GetDescription(BSTR* out) override { return description_.CopyTo(out); }
  HRESULT STDMETHODCALLTYPE GetHelpFile(BSTR* out) override { return helpFile_.CopyTo(out); }
  HRESULT STDMETHODCALLTYPE GetHelpContext(DWORD* out) override {
    PW_CHECK_POINTER(out);
    *out = helpContext_;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetGUID(REFGUID guid) override {
    guid_ = guid;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetSource(LPOLESTR text) override { return Assign(source_, text); }
  HRESULT STDMETHODCALLTYPE SetDescription(LPOLESTR text) override {
    return Assign(description_, text);
  }
  HRESULT STDMETHODCALLTYPE SetHelpFile(LPOLESTR text) override { return Assign(helpFile_, text); }
  HRESULT STDMETHODCALLTYPE SetHelpContext(DWORD context) override {
    helpContext_ = context;
    return S_OK;
  }

 private:
  static HRESULT Assign(Bstr& target, LPOLESTR text) {
    try {
      target = Bstr(text ? std::u16string_view(text) : std::u16string_view());
      return S_OK;
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
  }

  GUID guid_ = GUID_NULL;
  Bstr source_, description_, helpFile_;
  DWORD helpContext_ = 0;
};

#ifndef _WIN32
thread_local ComPtr<IErrorInfo> t_current;
#endif

}  // namespace

HRESULT ReportError(HRESULT hr, std::u16string_view description, const GUID& source) {
  ComPtr<ICreateErrorInfo> create;
  if (FAILED(::CreateErrorInfo(&create))) return hr;
  create->SetGUID(source);
  std::u16string text(description);
  create->SetDescription(text.data());
  ComPtr<IErrorInfo> info = create.As<IErrorInfo>();
  ::SetErrorInfo(0, info.Get());
  return hr;
}

HRESULT ReportError(HRESULT hr, std::string_view description, const GUID& source) {
  return ReportError(hr, std::u16string_view(ToUtf16(description)), source);
}

std::u16string TakeErrorDescription() {
  ComPtr<IErrorInfo> info;
  if (::GetErrorInfo(0, &info) != S_OK || !info) return {};
  Bstr text;
  info->GetDescription(&text);
  return text.Str();
}

std::u16string PeekErrorDescription() {
  ComPtr<IErrorInfo> info;
  if (::GetErrorInfo(0, &info) != S_OK || !info) return {};
  Bstr text;
  info->GetDescription(&text);
  ::SetErrorInfo(0, info.Get());
  return text.Str();
}

void ClearErrorInfo() {
  ::SetErrorInfo(0, nullptr);
}

std::string DescribeResult(HRESULT hr) {
  static constexpr struct {
    HRESULT code;
    const char* text;
  } kTexts[] = {
      {S_OK, "success"},
      {E_NOTIMPL, "not implemented"},
      {E_NOINTERFACE, "the object lacks the interface"},
      {E_POINTER, "a null pointer was given"},
      {E_ABORT, "cancelled"},
      {E_FAIL, "unspecified failure"},
      {E_UNEXPECTED, "unexpected failure"},
      {E_ACCESSDENIED, "access denied"},
      {E_OUTOFMEMORY, "out of memory"},
      {E_INVALIDARG, "invalid argument"},
      {STG_E_FILENOTFOUND, "file not found"},
      {STG_E_ACCESSDENIED, "file access denied"},
      {STG_E_WRITEFAULT, "write failure"},
      {STG_E_READFAULT, "read failure"},
      {STG_E_MEDIUMFULL, "the disk is full"},
      {REGDB_E_CLASSNOTREG, "class not registered"},
      {CO_E_CLASSSTRING, "unknown programmatic identifier"},
  };
  char code[16];
  std::snprintf(code, sizeof(code), "0x%08X", static_cast<unsigned>(hr));
  for (const auto& t : kTexts)
    if (t.code == hr) return std::string(t.text) + " (" + code + ")";
  return std::string("result ") + code;
}

HRESULT ChainError(HRESULT hr, std::u16string_view message, const GUID& source) {
  std::u16string text(message);
  const std::u16string inner = TakeErrorDescription();
  if (!inner.empty()) {
    text += u'\n';
    text += inner;
  }
  return ReportError(hr, std::u16string_view(text), source);
}

}  // namespace pw

#ifndef _WIN32
HRESULT SetErrorInfo(ULONG, IErrorInfo* info) {
  pw::t_current = info;
  return S_OK;
}

HRESULT GetErrorInfo(ULONG, IErrorInfo** info) {
  if (info == nullptr) return E_INVALIDARG;
  *info = pw::t_current.Detach();
  return *info ? S_OK : S_FALSE;
}

HRESULT CreateErrorInfo(ICreateErrorInfo** info) {
  if (info == nullptr) return E_INVALIDARG;
  *info = nullptr;
  return pw::Guard([&] {
    auto object = pw::MakeObject<pw::ErrorObject>();
    return object->QueryInterface(pw::IidOf<ICreateErrorInfo>(), reinterpret_cast<void**>(info));
  });
}
#endif
