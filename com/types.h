// Fixed-width component-model types and the result codes used across Pixwerk.
// On Windows these come from the SDK; elsewhere this file supplies stand-ins with the
// same names, sizes and values, so that the code above com/ is written once.
#pragma once

#include <cstddef>
#include <cstdint>

#ifdef _WIN32
#include <windows.h>
#else

using BYTE = std::uint8_t;
using CHAR = char;
using SHORT = std::int16_t;
using USHORT = std::uint16_t;
using WORD = std::uint16_t;
using INT = std::int32_t;
using UINT = std::uint32_t;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using DWORD = std::uint32_t;
using BOOL = std::int32_t;
using LONGLONG = std::int64_t;
using ULONGLONG = std::uint64_t;
using LONG64 = std::int64_t;
using ULONG64 = std::uint64_t;
using FLOAT = float;
using DOUBLE = double;
using DATE = double;
using SCODE = std::int32_t;
using HRESULT = std::int32_t;
using LSTATUS = std::int32_t;
using LCID = DWORD;
using REGSAM = DWORD;
using ULONG_PTR = std::uintptr_t;
using SIZE_T = std::size_t;
using OLECHAR = char16_t;
using WCHAR = char16_t;
using LPOLESTR = OLECHAR*;
using LPCOLESTR = const OLECHAR*;
using LPWSTR = WCHAR*;
using LPCWSTR = const WCHAR*;
using BSTR = OLECHAR*;
using VARIANT_BOOL = std::int16_t;
using VARTYPE = std::uint16_t;
using LPVOID = void*;
using LPBYTE = BYTE*;
using LPDWORD = DWORD*;
using HMODULE = void*;

union LARGE_INTEGER {
  struct {
    DWORD LowPart;
    LONG HighPart;
  } u;
  LONGLONG QuadPart;
};
union ULARGE_INTEGER {
  struct {
    DWORD LowPart;
    DWORD HighPart;
  } u;
  ULONGLONG QuadPart;
};

struct CY {
  LONGLONG int64;
};

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

#define STDMETHODCALLTYPE
#define STDAPI extern "C" HRESULT
#define TRUE 1
#define FALSE 0
#define MAX_PATH 260

constexpr VARIANT_BOOL VARIANT_TRUE = -1;
constexpr VARIANT_BOOL VARIANT_FALSE = 0;

static_assert(sizeof(BYTE) == 1 && sizeof(WORD) == 2 && sizeof(DWORD) == 4);
static_assert(sizeof(ULONG) == 4 && sizeof(LONG) == 4 && sizeof(HRESULT) == 4);
static_assert(sizeof(OLECHAR) == 2 && sizeof(VARIANT_BOOL) == 2 && sizeof(VARTYPE) == 2);
static_assert(sizeof(LARGE_INTEGER) == 8 && sizeof(ULARGE_INTEGER) == 8);

// Result codes.
constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001);
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003);
constexpr HRESULT E_ABORT = static_cast<HRESULT>(0x80004004);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005);
constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFF);
constexpr HRESULT E_PENDING = static_cast<HRESULT>(0x8000000A);
constexpr HRESULT E_ACCESSDENIED = static_cast<HRESULT>(0x80070005);
constexpr HRESULT E_HANDLE = static_cast<HRESULT>(0x80070006);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000E);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057);
constexpr HRESULT DISP_E_BADVARTYPE = static_cast<HRESULT>(0x80020008);
constexpr HRESULT DISP_E_TYPEMISMATCH = static_cast<HRESULT>(0x80020005);
constexpr HRESULT DISP_E_OVERFLOW = static_cast<HRESULT>(0x8002000A);
constexpr HRESULT DISP_E_BADINDEX = static_cast<HRESULT>(0x8002000B);
constexpr HRESULT DISP_E_ARRAYISLOCKED = static_cast<HRESULT>(0x8002000D);
constexpr HRESULT STG_E_INVALIDFUNCTION = static_cast<HRESULT>(0x80030001);
constexpr HRESULT STG_E_FILENOTFOUND = static_cast<HRESULT>(0x80030002);
constexpr HRESULT STG_E_ACCESSDENIED = static_cast<HRESULT>(0x80030005);
constexpr HRESULT STG_E_INVALIDPOINTER = static_cast<HRESULT>(0x80030009);
constexpr HRESULT STG_E_WRITEFAULT = static_cast<HRESULT>(0x8003001D);
constexpr HRESULT STG_E_READFAULT = static_cast<HRESULT>(0x8003001E);
constexpr HRESULT STG_E_MEDIUMFULL = static_cast<HRESULT>(0x80030070);
constexpr HRESULT STG_E_INVALIDPARAMETER = static_cast<HRESULT>(0x80030057);
constexpr HRESULT CLASS_E_NOAGGREGATION = static_cast<HRESULT>(0x80040110);
constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = static_cast<HRESULT>(0x80040111);
constexpr HRESULT REGDB_E_READREGDB = static_cast<HRESULT>(0x80040150);
constexpr HRESULT REGDB_E_WRITEREGDB = static_cast<HRESULT>(0x80040151);
constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154);
constexpr HRESULT SELFREG_E_CLASS = static_cast<HRESULT>(0x80040201);
constexpr HRESULT CO_E_CLASSSTRING = static_cast<HRESULT>(0x800401F3);

// Win32 error codes returned by the registry functions.
constexpr LSTATUS ERROR_SUCCESS = 0;
constexpr LSTATUS ERROR_FILE_NOT_FOUND = 2;
constexpr LSTATUS ERROR_ACCESS_DENIED = 5;
constexpr LSTATUS ERROR_INVALID_HANDLE = 6;
constexpr LSTATUS ERROR_OUTOFMEMORY = 14;
constexpr LSTATUS ERROR_WRITE_FAULT = 29;
constexpr LSTATUS ERROR_READ_FAULT = 30;
constexpr LSTATUS ERROR_INVALID_PARAMETER = 87;
constexpr LSTATUS ERROR_MORE_DATA = 234;
constexpr LSTATUS ERROR_NO_MORE_ITEMS = 259;
constexpr LSTATUS ERROR_BADDB = 1009;
constexpr LSTATUS ERROR_KEY_DELETED = 1018;

constexpr bool SUCCEEDED(HRESULT hr) {
  return hr >= 0;
}
constexpr bool FAILED(HRESULT hr) {
  return hr < 0;
}
constexpr HRESULT HRESULT_FROM_WIN32(LSTATUS code) {
  return code <= 0
             ? static_cast<HRESULT>(code)
             : static_cast<HRESULT>((static_cast<std::uint32_t>(code) & 0x0000FFFFu) | 0x80070000u);
}

#endif  // _WIN32
