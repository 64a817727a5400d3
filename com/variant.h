// VARIANT and SAFEARRAY with the Variant*/SafeArray* functions, and the RAII helper
// Variant. Conversions follow the Windows rules for numbers, booleans and strings:
// floating values round half to even when they become integers, out-of-range values
// fail with DISP_E_OVERFLOW, true is -1, and text is read and written in the invariant
// locale. DATE and CY convert as numbers (days and ten-thousandths); their calendar
// text forms are not supported.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "com/bstr.h"
#include "com/unknown.h"

#ifndef _WIN32
enum VARENUM : VARTYPE {
  VT_EMPTY = 0,
  VT_NULL = 1,
  VT_I2 = 2,
  VT_I4 = 3,
  VT_R4 = 4,
  VT_R8 = 5,
  VT_CY = 6,
  VT_DATE = 7,
  VT_BSTR = 8,
  VT_DISPATCH = 9,
  VT_ERROR = 10,
  VT_BOOL = 11,
  VT_VARIANT = 12,
  VT_UNKNOWN = 13,
  VT_DECIMAL = 14,
  VT_I1 = 16,
  VT_UI1 = 17,
  VT_UI2 = 18,
  VT_UI4 = 19,
  VT_I8 = 20,
  VT_UI8 = 21,
  VT_INT = 22,
  VT_UINT = 23,
  VT_ARRAY = 0x2000,
  VT_BYREF = 0x4000,
  VT_TYPEMASK = 0x0FFF,
};

// VariantChangeType flags.
constexpr WORD VARIANT_NOVALUEPROP = 0x01;
constexpr WORD VARIANT_ALPHABOOL = 0x02;
constexpr WORD VARIANT_NOUSEROVERRIDE = 0x04;
constexpr WORD VARIANT_LOCALBOOL = 0x10;

struct SAFEARRAYBOUND {
  ULONG cElements;
  LONG lLbound;
};

struct SAFEARRAY {
  USHORT cDims;
  USHORT fFeatures;
  ULONG cbElements;
  ULONG cLocks;
  void* pvData;
  SAFEARRAYBOUND rgsabound[1];  // cDims entries; rgsabound[0] is the rightmost dimension
};

struct tagVARIANT;
using VARIANT = tagVARIANT;
using VARIANTARG = tagVARIANT;

struct VariantRecord {
  void* pvRecord;
  void* pRecInfo;
};

struct tagVARIANT {
  VARTYPE vt;
  WORD wReserved1;
  WORD wReserved2;
  WORD wReserved3;
  union {
    LONGLONG llVal;
    LONG lVal;
    BYTE bVal;
    SHORT iVal;
    FLOAT fltVal;
    DOUBLE dblVal;
    VARIANT_BOOL boolVal;
    SCODE scode;
    CY cyVal;
    DATE date;
    BSTR bstrVal;
    IUnknown* punkVal;
    SAFEARRAY* parray;
    CHAR cVal;
    USHORT uiVal;
    ULONG ulVal;
    ULONGLONG ullVal;
    INT intVal;
    UINT uintVal;
    BYTE* pbVal;
    SHORT* piVal;
    LONG* plVal;
    LONGLONG* pllVal;
    FLOAT* pfltVal;
    DOUBLE* pdblVal;
    VARIANT_BOOL* pboolVal;
    BSTR* pbstrVal;
    IUnknown** ppunkVal;
    VARIANT* pvarVal;
    void* byref;
    VariantRecord brecVal;
  };
};
static_assert(sizeof(VARIANT) == 24);

void VariantInit(VARIANTARG* v);
HRESULT VariantClear(VARIANTARG* v);
HRESULT VariantCopy(VARIANTARG* dest, const VARIANTARG* src);
HRESULT VariantCopyInd(VARIANT* dest, const VARIANTARG* src);
HRESULT VariantChangeType(VARIANTARG* dest, const VARIANTARG* src, WORD flags, VARTYPE vt);
HRESULT VariantChangeTypeEx(VARIANTARG* dest, const VARIANTARG* src, LCID lcid, WORD flags,
                            VARTYPE vt);

SAFEARRAY* SafeArrayCreate(VARTYPE vt, UINT dims, SAFEARRAYBOUND* bounds);
SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, LONG lowerBound, ULONG elements);
HRESULT SafeArrayDestroy(SAFEARRAY* array);
HRESULT SafeArrayCopy(SAFEARRAY* array, SAFEARRAY** copy);
UINT SafeArrayGetDim(SAFEARRAY* array);
UINT SafeArrayGetElemsize(SAFEARRAY* array);
HRESULT SafeArrayGetVartype(SAFEARRAY* array, VARTYPE* vt);
HRESULT SafeArrayGetLBound(SAFEARRAY* array, UINT dim, LONG* bound);
HRESULT SafeArrayGetUBound(SAFEARRAY* array, UINT dim, LONG* bound);
HRESULT SafeArrayLock(SAFEARRAY* array);
HRESULT SafeArrayUnlock(SAFEARRAY* array);
HRESULT SafeArrayAccessData(SAFEARRAY* array, void** data);
HRESULT SafeArrayUnaccessData(SAFEARRAY* array);
HRESULT SafeArrayPtrOfIndex(SAFEARRAY* array, LONG* indices, void** element);
HRESULT SafeArrayGetElement(SAFEARRAY* array, LONG* indices, void* value);
HRESULT SafeArrayPutElement(SAFEARRAY* array, LONG* indices, void* value);
#endif

namespace pw {

// The byte size of a fixed-size variant value (numbers, booleans, dates, currency,
// errors); 0 for strings, objects, variants and unknown types.
std::size_t ScalarByteSize(VARTYPE vt);

// Copies element `index` of a one-dimensional array whose elements are `element`
// (VT_VARIANT or any other array element type) into `out`, which it clears first.
HRESULT CopyArrayElement(SAFEARRAY* array, VARTYPE element, LONG index, VARIANT* out);

// A VARIANT that clears itself. Numbers become VT_I4, VT_I8 or VT_R8, booleans VT_BOOL
// (-1 for true), text VT_BSTR, interfaces VT_UNKNOWN (with a reference of their own).
class Variant : public VARIANT {
 public:
  Variant() noexcept { VariantInit(this); }
  Variant(std::int32_t value) noexcept : Variant() { Set(VT_I4).lVal = value; }
  Variant(std::int64_t value) noexcept : Variant() { Set(VT_I8).llVal = value; }
  Variant(double value) noexcept : Variant() { Set(VT_R8).dblVal = value; }
  Variant(bool value) noexcept : Variant() {
    Set(VT_BOOL).boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
  }
  Variant(std::u16string_view text);
  Variant(std::string_view utf8);
  Variant(const char16_t* text) : Variant(std::u16string_view(text)) {}
  Variant(const char* utf8) : Variant(std::string_view(utf8)) {}
  Variant(IUnknown* object) noexcept;
  Variant(const VARIANT& other);
  Variant(const Variant& other) : Variant(static_cast<const VARIANT&>(other)) {}
  Variant(Variant&& other) noexcept;
  ~Variant() { VariantClear(this); }
  Variant& operator=(const Variant& other);
  Variant& operator=(Variant&& other) noexcept;

  // Takes over the contents of `v`, leaving it empty.
  static Variant Adopt(VARIANT* v) noexcept;

  VARTYPE Type() const noexcept { return vt; }
  bool IsEmpty() const noexcept { return vt == VT_EMPTY; }
  void Clear() noexcept { VariantClear(this); }

  // Converts in place; the value is unchanged when the conversion fails.
  HRESULT ChangeType(VARTYPE type, WORD flags = 0);

  // Conversions that leave the value alone; nullopt when the value does not convert.
  std::optional<std::int32_t> ToInt32() const;
  std::optional<double> ToDouble() const;
  std::optional<bool> ToBool() const;
  std::optional<std::u16string> ToString() const;

  // Copies into an out parameter (which is cleared first).
  HRESULT CopyTo(VARIANT* out) const;
  // Moves the contents into an out parameter, leaving this empty.
  void Detach(VARIANT* out) noexcept;

 private:
  VARIANT& Set(VARTYPE type) noexcept {
    vt = type;
    return *this;
  }
};

// Calls visit(const Variant&) with each element of a one-dimensional array variant, in
// order; stops at the first failure. E_INVALIDARG for a value that is no such array.
template <class Visit>
HRESULT ForEachArrayElement(const VARIANT& array, Visit&& visit) {
  if (!(array.vt & VT_ARRAY) || array.parray == nullptr || array.parray->cDims != 1)
    return E_INVALIDARG;
  const VARTYPE element = static_cast<VARTYPE>(array.vt & VT_TYPEMASK);
  const SAFEARRAYBOUND& bound = array.parray->rgsabound[0];
  for (ULONG i = 0; i < bound.cElements; ++i) {
    Variant item;
    HRESULT hr =
        CopyArrayElement(array.parray, element, bound.lLbound + static_cast<LONG>(i), &item);
    if (SUCCEEDED(hr)) hr = visit(static_cast<const Variant&>(item));
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}

}  // namespace pw
