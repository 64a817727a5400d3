// VARIANT life cycle, conversions, SAFEARRAY storage, and the Variant helper.
#include "com/variant.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "com/guard.h"
#include "com/text.h"

#ifndef _WIN32
namespace {

// ---------------------------------------------------------------------------------------
// SAFEARRAY storage: a header with the element type sits before the public structure.

struct ArrayHeader {
  VARTYPE vt;
  std::uint16_t pad[3];
};

ArrayHeader* HeaderOf(SAFEARRAY* a) {
  return reinterpret_cast<ArrayHeader*>(reinterpret_cast<unsigned char*>(a) - sizeof(ArrayHeader));
}

ULONG ElementSize(VARTYPE vt) {
  switch (vt) {
    case VT_BSTR:
    case VT_UNKNOWN:
      return sizeof(void*);
    case VT_VARIANT:
      return sizeof(VARIANT);
    default:
      return static_cast<ULONG>(pw::ScalarByteSize(vt));
  }
}

std::size_t ElementCount(const SAFEARRAY* a) {
  std::size_t n = 1;
  for (USHORT d = 0; d < a->cDims; ++d) n *= a->rgsabound[d].cElements;
  return n;
}

void ReleaseElements(SAFEARRAY* a, VARTYPE vt) {
  const std::size_t n = ElementCount(a);
  if (vt == VT_BSTR) {
    auto* p = static_cast<BSTR*>(a->pvData);
    for (std::size_t i = 0; i < n; ++i) SysFreeString(p[i]);
  } else if (vt == VT_UNKNOWN) {
    auto* p = static_cast<IUnknown**>(a->pvData);
    for (std::size_t i = 0; i < n; ++i)
      if (p[i]) p[i]->Release();
  } else if (vt == VT_VARIANT) {
    auto* p = static_cast<VARIANT*>(a->pvData);
    for (std::size_t i = 0; i < n; ++i) VariantClear(&p[i]);
  }
}

// ---------------------------------------------------------------------------------------
// Numbers in flight between the source and the destination type.

struct Number {
  enum Kind { kSigned, kUnsigned, kReal } kind = kSigned;
  std::int64_t i = 0;
  std::uint64_t u = 0;
  double d = 0;
  bool fromBool = false;
};

Number Signed(std::int64_t v) {
  Number n;
  n.kind = Number::kSigned;
  n.i = v;
  return n;
}
Number Unsigned(std::uint64_t v) {
  Number n;
  n.kind = Number::kUnsigned;
  n.u = v;
  return n;
}
Number Real(double v) {
  Number n;
  n.kind = Number::kReal;
  n.d = v;
  return n;
}

double AsDouble(const Number& n) {
  switch (n.kind) {
    case Number::kSigned:
      return static_cast<double>(n.i);
    case Number::kUnsigned:
      return static_cast<double>(n.u);
    default:
      return n.d;
  }
}

// Round half to even, as the Windows conversions do.
double RoundHalfEven(double x) {
  const double f = std::floor(x);
  const double diff = x - f;
  if (diff > 0.5) return f + 1.0;
  if (diff < 0.5) return f;
  return std::fmod(f, 2.0) == 0.0 ? f : f + 1.0;
}

// Converts to an integer within [lo, hi] (as signed 64-bit) or reports overflow.
HRESULT ToSignedRange(const Number& n, std::int64_t lo, std::int64_t hi, std::int64_t* out) {
  switch (n.kind) {
    case Number::kSigned:
      if (n.i < lo || n.i > hi) return DISP_E_OVERFLOW;
      *out = n.i;
      return S_OK;
    case Number::kUnsigned:
      if (n.u > static_cast<std::uint64_t>(hi)) return DISP_E_OVERFLOW;
      *out = static_cast<std::int64_t>(n.u);
      return S_OK;
    default: {
      if (std::isnan(n.d)) return DISP_E_OVERFLOW;
      const double r = RoundHalfEven(n.d);
      // 2^63 is the first double beyond the signed 64-bit range.
      if (r < -9223372036854775808.0 || r >= 9223372036854775808.0) return DISP_E_OVERFLOW;
      const auto v = static_cast<std::int64_t>(r);
      if (v < lo || v > hi) return DISP_E_OVERFLOW;
      *out = v;
      return S_OK;
    }
  }
}

HRESULT ToUnsignedRange(const Number& n, std::uint64_t hi, std::uint64_t* out) {
  switch (n.kind) {
    case Number::kSigned:
      if (n.fromBool && hi < std::numeric_limits<std::uint64_t>::max()) {
        // True (-1) becomes all bits set of the narrower unsigned types.
        *out = static_cast<std::uint64_t>(n.i) & hi;
        return S_OK;
      }
      if (n.i < 0 || static_cast<std::uint64_t>(n.i) > hi) return DISP_E_OVERFLOW;
      *out = static_cast<std::uint64_t>(n.i);
      return S_OK;
    case Number::kUnsigned:
      if (n.u > hi) return DISP_E_OVERFLOW;
      *out = n.u;
      return S_OK;
    default: {
      if (std::isnan(n.d)) return DISP_E_OVERFLOW;
      const double r = RoundHalfEven(n.d);
      if (r < 0.0 || r >= 18446744073709551616.0) return DISP_E_OVERFLOW;
      const auto v = static_cast<std::uint64_t>(r);
      if (v > hi) return DISP_E_OVERFLOW;
      *out = v;
      return S_OK;
    }
  }
}

// Parses a number written in the invariant locale: blanks around it, a sign, digits with
// optional thousands separators, a decimal point, an exponent; or &H/&O for hex/octal.
std::optional<Number> ParseNumber(std::u16string_view text) {
  std::string s;
  for (char16_t c : text) {
    if (c > 0x7F) return std::nullopt;
    s.push_back(static_cast<char>(c));
  }
  std::size_t b = 0, e = s.size();
  while (b < e && (s[b] == ' ' || s[b] == '\t')) ++b;
  while (e > b && (s[e - 1] == ' ' || s[e - 1] == '\t')) --e;
  s = s.substr(b, e - b);
  if (s.empty()) return std::nullopt;
  if (s.size() > 2 && s[0] == '&' && (s[1] == 'H' || s[1] == 'h' || s[1] == 'O' || s[1] == 'o')) {
    const int base = (s[1] == 'H' || s[1] == 'h') ? 16 : 8;
    std::uint64_t v = 0;
    for (std::size_t i = 2; i < s.size(); ++i) {
      const char c = s[i];
      int digit = -1;
      if (c >= '0' && c <= '9') digit = c - '0';
      if (base == 16 && c >= 'a' && c <= 'f') digit = c - 'a' + 10;
      if (base == 16 && c >= 'A' && c <= 'F') digit = c - 'A' + 10;
      if (digit < 0 || digit >= base) return std::nullopt;
      if (v > (std::numeric_limits<std::uint64_t>::max() - digit) / base) return std::nullopt;
      v = v * base + digit;
    }
    return Unsigned(v);
  }
  std::string clean;
  std::size_t i = 0;
  bool negative = false;
  if (s[i] == '+' || s[i] == '-') {
    negative = s[i] == '-';
    ++i;
  }
  bool digits = false, integral = true;
  for (; i < s.size() && ((s[i] >= '0' && s[i] <= '9') || s[i] == ','); ++i) {
    if (s[i] == ',') {
      if (!digits) return std::nullopt;
      continue;
    }
    clean.push_back(s[i]);
    digits = true;
  }
  if (i < s.size() && s[i] == '.') {
    clean.push_back('.');
    integral = false;
    for (++i; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
      clean.push_back(s[i]);
      digits = true;
    }
  }
  if (!digits) return std::nullopt;
  if (i < s.size() && (s[i] == 'e' || s[i] == 'E' || s[i] == 'd' || s[i] == 'D')) {
    integral = false;
    clean.push_back('e');
    ++i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) clean.push_back(s[i++]);
    bool expDigits = false;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
      clean.push_back(s[i]);
      expDigits = true;
    }
    if (!expDigits) return std::nullopt;
  }
  if (i != s.size()) return std::nullopt;
  if (integral) {
    errno = 0;
    char* end = nullptr;
    const unsigned long long mag = std::strtoull(clean.c_str(), &end, 10);
    if (errno == 0) {
      if (!negative) return Unsigned(mag);
      if (mag <= 9223372036854775808ull)
        return Signed(mag == 9223372036854775808ull ? std::numeric_limits<std::int64_t>::min()
                                                    : -static_cast<std::int64_t>(mag));
    }
  }
  char* end = nullptr;
  const double d = std::strtod(clean.c_str(), &end);  // '.' only: the C locale is never changed
  return Real(negative ? -d : d);
}

std::u16string FormatReal(double v, int digits) {
  if (std::isnan(v)) return u"NaN";
  if (std::isinf(v)) return v > 0 ? u"Infinity" : u"-Infinity";
  char buffer[64];
  std::snprintf(buffer, sizeof(buffer), "%.*G", digits, v);
  return pw::ToUtf16(buffer);
}

// Reads the numeric value of a variant that holds a number, a boolean or nothing.
HRESULT ReadNumber(const VARIANT& v, Number* n) {
  switch (v.vt) {
    case VT_EMPTY:
      *n = Signed(0);
      return S_OK;
    case VT_I1:
      *n = Signed(v.cVal);
      return S_OK;
    case VT_UI1:
      *n = Unsigned(v.bVal);
      return S_OK;
    case VT_I2:
      *n = Signed(v.iVal);
      return S_OK;
    case VT_UI2:
      *n = Unsigned(v.uiVal);
      return S_OK;
    case VT_I4:
      *n = Signed(v.lVal);
      return S_OK;
    case VT_INT:
      *n = Signed(v.intVal);
      return S_OK;
    case VT_UI4:
      *n = Unsigned(v.ulVal);
      return S_OK;
    case VT_UINT:
      *n = Unsigned(v.uintVal);
      return S_OK;
    case VT_I8:
      *n = Signed(v.llVal);
      return S_OK;
    case VT_UI8:
      *n = Unsigned(v.ullVal);
      return S_OK;
    case VT_R4:
      *n = Real(v.fltVal);
      return S_OK;
    case VT_R8:
    case VT_DATE:
      *n = Real(v.dblVal);
      return S_OK;
    case VT_CY:
      *n = Real(static_cast<double>(v.cyVal.int64) / 10000.0);
      return S_OK;
    case VT_BOOL:
      *n = Signed(v.boolVal ? -1 : 0);
      n->fromBool = true;
      return S_OK;
    case VT_BSTR: {
      const auto parsed = ParseNumber(std::u16string_view(v.bstrVal, SysStringLen(v.bstrVal)));
      if (!parsed) return DISP_E_TYPEMISMATCH;
      *n = *parsed;
      return S_OK;
    }
    default:
      return DISP_E_TYPEMISMATCH;
  }
}

bool IsTextTrue(std::u16string_view t, bool* value) {
  while (!t.empty() && t.front() == u' ') t.remove_prefix(1);
  while (!t.empty() && t.back() == u' ') t.remove_suffix(1);
  if (pw::EqualsNoCase(t, u"True") || pw::EqualsNoCase(t, u"#TRUE#")) {
    *value = true;
    return true;
  }
  if (pw::EqualsNoCase(t, u"False") || pw::EqualsNoCase(t, u"#FALSE#")) {
    *value = false;
    return true;
  }
  return false;
}

bool IsNumericType(VARTYPE vt) {
  switch (vt) {
    case VT_I1:
    case VT_UI1:
    case VT_I2:
    case VT_UI2:
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_I8:
    case VT_UI8:
    case VT_R4:
    case VT_R8:
    case VT_DATE:
    case VT_CY:
      return true;
    default:
      return false;
  }
}

// Converts a plain (not by-reference) value into a fresh destination variant.
HRESULT Convert(const VARIANT& src, WORD flags, VARTYPE vt, VARIANT* out) {
  VariantInit(out);
  if (vt == src.vt) return VariantCopy(out, &src);
  if (src.vt == VT_NULL) return DISP_E_TYPEMISMATCH;
  if (vt == VT_EMPTY) return S_OK;
  if (vt == VT_NULL) return DISP_E_TYPEMISMATCH;
  if ((src.vt & VT_ARRAY) || (vt & VT_ARRAY)) return DISP_E_TYPEMISMATCH;

  if (vt == VT_BSTR) {
    std::u16string text;
    switch (src.vt) {
      case VT_EMPTY:
        break;
      case VT_BOOL:
        if (flags & VARIANT_ALPHABOOL) {
          text = src.boolVal ? u"True" : u"False";
        } else {
          text = src.boolVal ? u"-1" : u"0";
        }
        break;
      case VT_R4:
        text = FormatReal(src.fltVal, 7);
        break;
      case VT_R8:
      case VT_DATE:
        text = FormatReal(src.dblVal, 15);
        break;
      case VT_CY:
        text = FormatReal(static_cast<double>(src.cyVal.int64) / 10000.0, 19);
        break;
      default: {
        Number n;
        if (FAILED(ReadNumber(src, &n))) return DISP_E_TYPEMISMATCH;
        text = pw::ToUtf16(n.kind == Number::kUnsigned ? std::to_string(n.u) : std::to_string(n.i));
      }
    }
    out->bstrVal = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    if (out->bstrVal == nullptr) return E_OUTOFMEMORY;
    out->vt = VT_BSTR;
    return S_OK;
  }

  if (vt == VT_UNKNOWN || vt == VT_DISPATCH || src.vt == VT_UNKNOWN || src.vt == VT_DISPATCH ||
      src.vt == VT_ERROR || vt == VT_ERROR)
    return DISP_E_TYPEMISMATCH;

  if (vt == VT_BOOL) {
    if (src.vt == VT_BSTR) {
      bool b = false;
      if (IsTextTrue(std::u16string_view(src.bstrVal, SysStringLen(src.bstrVal)), &b)) {
        out->boolVal = b ? VARIANT_TRUE : VARIANT_FALSE;
        out->vt = VT_BOOL;
        return S_OK;
      }
    }
    Number n;
    const HRESULT hr = ReadNumber(src, &n);
    if (FAILED(hr)) return hr;
    const bool nonzero = n.kind == Number::kReal ? n.d != 0.0 : (n.i != 0 || n.u != 0);
    out->boolVal = nonzero ? VARIANT_TRUE : VARIANT_FALSE;
    out->vt = VT_BOOL;
    return S_OK;
  }

  if (!IsNumericType(vt)) return DISP_E_BADVARTYPE;
  Number n;
  HRESULT hr = ReadNumber(src, &n);
  if (FAILED(hr)) return hr;
  std::int64_t si = 0;
  std::uint64_t ui = 0;
  switch (vt) {
    case VT_I1:
      hr = ToSignedRange(n, -128, 127, &si);
      out->cVal = static_cast<CHAR>(si);
      break;
    case VT_I2:
      hr = ToSignedRange(n, -32768, 32767, &si);
      out->iVal = static_cast<SHORT>(si);
      break;
    case VT_I4:
    case VT_INT:
      hr = ToSignedRange(n, std::numeric_limits<std::int32_t>::min(),
                         std::numeric_limits<std::int32_t>::max(), &si);
      out->lVal = static_cast<LONG>(si);
      break;
    case VT_I8:
      hr = ToSignedRange(n, std::numeric_limits<std::int64_t>::min(),
                         std::numeric_limits<std::int64_t>::max(), &si);
      out->llVal = si;
      break;
    case VT_UI1:
      hr = ToUnsignedRange(n, 0xFF, &ui);
      out->bVal = static_cast<BYTE>(ui);
      break;
    case VT_UI2:
      hr = ToUnsignedRange(n, 0xFFFF, &ui);
      out->uiVal = static_cast<USHORT>(ui);
      break;
    case VT_UI4:
    case VT_UINT:
      hr = ToUnsignedRange(n, 0xFFFFFFFFu, &ui);
      out->ulVal = static_cast<ULONG>(ui);
      break;
    case VT_UI8:
      if (n.fromBool && n.i < 0) return DISP_E_OVERFLOW;
      hr = ToUnsignedRange(n, std::numeric_limits<std::uint64_t>::max(), &ui);
      out->ullVal = ui;
      break;
    case VT_R4: {
      const double d = AsDouble(n);
      if (d < -std::numeric_limits<float>::max() || d > std::numeric_limits<float>::max())
        return DISP_E_OVERFLOW;
      out->fltVal = static_cast<float>(d);
      break;
    }
    case VT_R8:
    case VT_DATE:
      out->dblVal = AsDouble(n);
      break;
    case VT_CY: {
      const double scaled = RoundHalfEven(AsDouble(n) * 10000.0);
      if (!(scaled >= -9223372036854775808.0 && scaled < 9223372036854775808.0))
        return DISP_E_OVERFLOW;
      out->cyVal.int64 = static_cast<std::int64_t>(scaled);
      break;
    }
    default:
      return DISP_E_BADVARTYPE;
  }
  if (FAILED(hr)) return hr;
  out->vt = vt;
  return S_OK;
}

}  // namespace

void VariantInit(VARIANTARG* v) {
  if (v == nullptr) return;
  std::memset(v, 0, sizeof(VARIANT));
  v->vt = VT_EMPTY;
}

HRESULT VariantClear(VARIANTARG* v) {
  if (v == nullptr) return E_INVALIDARG;
  if (!(v->vt & VT_BYREF)) {
    if (v->vt & VT_ARRAY) {
      if (v->parray) SafeArrayDestroy(v->parray);
    } else if (v->vt == VT_BSTR) {
      SysFreeString(v->bstrVal);
    } else if (v->vt == VT_UNKNOWN || v->vt == VT_DISPATCH) {
      if (v->punkVal) v->punkVal->Release();
    }
  }
  VariantInit(v);
  return S_OK;
}

HRESULT VariantCopy(VARIANTARG* dest, const VARIANTARG* src) {
  if (dest == nullptr || src == nullptr) return E_INVALIDARG;
  if (dest == src) return S_OK;
  VARIANT copy;
  std::memcpy(&copy, src, sizeof(VARIANT));
  if (!(src->vt & VT_BYREF)) {
    if (src->vt & VT_ARRAY) {
      copy.parray = nullptr;
      if (src->parray) {
        const HRESULT hr = SafeArrayCopy(src->parray, &copy.parray);
        if (FAILED(hr)) return hr;
      }
    } else if (src->vt == VT_BSTR) {
      if (src->bstrVal) {
        copy.bstrVal = SysAllocStringByteLen(reinterpret_cast<const char*>(src->bstrVal),
                                             SysStringByteLen(src->bstrVal));
        if (copy.bstrVal == nullptr) return E_OUTOFMEMORY;
      }
    } else if (src->vt == VT_UNKNOWN || src->vt == VT_DISPATCH) {
      if (src->punkVal) src->punkVal->AddRef();
    } else if ((src->vt & VT_TYPEMASK) > VT_UINT) {
      return DISP_E_BADVARTYPE;
    }
  }
  VariantClear(dest);
  std::memcpy(dest, &copy, sizeof(VARIANT));
  return S_OK;
}

HRESULT VariantCopyInd(VARIANT* dest, const VARIANTARG* src) {
  if (dest == nullptr || src == nullptr) return E_INVALIDARG;
  if (!(src->vt & VT_BYREF)) return VariantCopy(dest, src);
  VARIANT plain;
  VariantInit(&plain);
  const VARTYPE base = static_cast<VARTYPE>(src->vt & ~VT_BYREF);
  if (src->byref == nullptr) return E_INVALIDARG;
  if (base == VT_VARIANT) return VariantCopyInd(dest, src->pvarVal);
  plain.vt = base;
  if (base & VT_ARRAY) {
    plain.parray = *static_cast<SAFEARRAY**>(src->byref);
  } else {
    const ULONG size = ElementSize(base);
    if (size == 0) return DISP_E_BADVARTYPE;
    std::memcpy(&plain.llVal, src->byref, size);
  }
  return VariantCopy(dest, &plain);  // plain borrows; VariantCopy makes the deep copy
}

HRESULT VariantChangeTypeEx(VARIANTARG* dest, const VARIANTARG* src, LCID, WORD flags, VARTYPE vt) {
  if (dest == nullptr || src == nullptr) return E_INVALIDARG;
  VARIANT plain;
  VariantInit(&plain);
  HRESULT hr = VariantCopyInd(&plain, src);
  if (FAILED(hr)) return hr;
  VARIANT result;
  VariantInit(&result);
  hr = Convert(plain, flags, vt, &result);
  VariantClear(&plain);
  if (FAILED(hr)) {
    VariantClear(&result);
    return hr;
  }
  VariantClear(dest);
  std::memcpy(dest, &result, sizeof(VARIANT));
  return S_OK;
}

HRESULT VariantChangeType(VARIANTARG* dest, const VARIANTARG* src, WORD flags, VARTYPE vt) {
  return VariantChangeTypeEx(dest, src, 0x0409, flags, vt);
}

// ---------------------------------------------------------------------------------------
// SAFEARRAY

SAFEARRAY* SafeArrayCreate(VARTYPE vt, UINT dims, SAFEARRAYBOUND* bounds) {
  const ULONG size = ElementSize(vt);
  if (size == 0 || dims == 0 || dims > 64 || bounds == nullptr) return nullptr;
  // Every index of every dimension must be a LONG: lower bound + count - 1 may not overflow.
  for (UINT d = 0; d < dims; ++d)
    if (std::int64_t{bounds[d].lLbound} + std::int64_t{bounds[d].cElements} - 1 >
        std::int64_t{std::numeric_limits<LONG>::max()})
      return nullptr;
  const std::size_t structBytes = sizeof(SAFEARRAY) + (dims - 1) * sizeof(SAFEARRAYBOUND);
  auto* block = static_cast<unsigned char*>(std::calloc(1, sizeof(ArrayHeader) + structBytes));
  if (block == nullptr) return nullptr;
  auto* a = reinterpret_cast<SAFEARRAY*>(block + sizeof(ArrayHeader));
  reinterpret_cast<ArrayHeader*>(block)->vt = vt;
  a->cDims = static_cast<USHORT>(dims);
  a->cbElements = size;
  // Stored rightmost dimension first.
  for (UINT d = 0; d < dims; ++d) a->rgsabound[d] = bounds[dims - 1 - d];
  const std::size_t count = ElementCount(a);
  if (count > 0 && count > std::numeric_limits<std::size_t>::max() / size) {
    std::free(block);
    return nullptr;
  }
  a->pvData = std::calloc(count == 0 ? 1 : count, size);
  if (a->pvData == nullptr) {
    std::free(block);
    return nullptr;
  }
  return a;
}

SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, LONG lowerBound, ULONG elements) {
  SAFEARRAYBOUND bound{elements, lowerBound};
  return SafeArrayCreate(vt, 1, &bound);
}

HRESULT SafeArrayDestroy(SAFEARRAY* a) {
  if (a == nullptr) return S_OK;
  if (a->cLocks > 0) return DISP_E_ARRAYISLOCKED;
  ReleaseElements(a, HeaderOf(a)->vt);
  std::free(a->pvData);
  std::free(HeaderOf(a));
  return S_OK;
}

HRESULT SafeArrayCopy(SAFEARRAY* a, SAFEARRAY** copy) {
  if (copy == nullptr) return E_INVALIDARG;
  *copy = nullptr;
  if (a == nullptr) return S_OK;
  const VARTYPE vt = HeaderOf(a)->vt;
  SAFEARRAYBOUND bounds[64];
  for (USHORT d = 0; d < a->cDims; ++d) bounds[d] = a->rgsabound[a->cDims - 1 - d];
  SAFEARRAY* c = SafeArrayCreate(vt, a->cDims, bounds);
  if (c == nullptr) return E_OUTOFMEMORY;
  const std::size_t n = ElementCount(a);
  if (vt == VT_BSTR) {
    auto* from = static_cast<BSTR*>(a->pvData);
    auto* to = static_cast<BSTR*>(c->pvData);
    for (std::size_t i = 0; i < n; ++i) {
      if (from[i] == nullptr) continue;
      to[i] =
          SysAllocStringByteLen(reinterpret_cast<const char*>(from[i]), SysStringByteLen(from[i]));
      if (to[i] == nullptr) {
        SafeArrayDestroy(c);
        return E_OUTOFMEMORY;
      }
    }
  } else if (vt == VT_VARIANT) {
    auto* from = static_cast<VARIANT*>(a->pvData);
    auto* to = static_cast<VARIANT*>(c->pvData);
    for (std::size_t i = 0; i < n; ++i) {
      const HRESULT hr = VariantCopy(&to[i], &from[i]);
      if (FAILED(hr)) {
        SafeArrayDestroy(c);
        return hr;
      }
    }
  } else {
    std::memcpy(c->pvData, a->pvData, n * a->cbElements);
    if (vt == VT_UNKNOWN) {
      auto* to = static_cast<IUnknown**>(c->pvData);
      for (std::size_t i = 0; i < n; ++i)
        if (to[i]) to[i]->AddRef();
    }
  }
  *copy = c;
  return S_OK;
}

UINT SafeArrayGetDim(SAFEARRAY* a) {
  return a ? a->cDims : 0;
}
UINT SafeArrayGetElemsize(SAFEARRAY* a) {
  return a ? a->cbElements : 0;
}

HRESULT SafeArrayGetVartype(SAFEARRAY* a, VARTYPE* vt) {
  if (a == nullptr || vt == nullptr) return E_INVALIDARG;
  *vt = HeaderOf(a)->vt;
  return S_OK;
}

HRESULT SafeArrayGetLBound(SAFEARRAY* a, UINT dim, LONG* bound) {
  if (a == nullptr || bound == nullptr) return E_INVALIDARG;
  if (dim < 1 || dim > a->cDims) return DISP_E_BADINDEX;
  *bound = a->rgsabound[a->cDims - dim].lLbound;
  return S_OK;
}

HRESULT SafeArrayGetUBound(SAFEARRAY* a, UINT dim, LONG* bound) {
  if (a == nullptr || bound == nullptr) return E_INVALIDARG;
  if (dim < 1 || dim > a->cDims) return DISP_E_BADINDEX;
  const SAFEARRAYBOUND& b = a->rgsabound[a->cDims - dim];
  *bound = static_cast<LONG>(b.lLbound + static_cast<LONG>(b.cElements) - 1);
  return S_OK;
}

HRESULT SafeArrayLock(SAFEARRAY* a) {
  if (a == nullptr) return E_INVALIDARG;
  ++a->cLocks;
  return S_OK;
}

HRESULT SafeArrayUnlock(SAFEARRAY* a) {
  if (a == nullptr) return E_INVALIDARG;
  if (a->cLocks == 0) return E_UNEXPECTED;
  --a->cLocks;
  return S_OK;
}

HRESULT SafeArrayAccessData(SAFEARRAY* a, void** data) {
  if (a == nullptr || data == nullptr) return E_INVALIDARG;
  ++a->cLocks;
  *data = a->pvData;
  return S_OK;
}

HRESULT SafeArrayUnaccessData(SAFEARRAY* a) {
  return SafeArrayUnlock(a);
}

HRESULT SafeArrayPtrOfIndex(SAFEARRAY* a, LONG* indices, void** element) {
  if (a == nullptr || indices == nullptr || element == nullptr) return E_INVALIDARG;
  std::size_t offset = 0, stride = 1;
  for (USHORT d = 0; d < a->cDims; ++d) {
    const SAFEARRAYBOUND& b = a->rgsabound[d];
    const std::int64_t i = std::int64_t{indices[d]} - b.lLbound;
    if (i < 0 || i >= static_cast<std::int64_t>(b.cElements)) return DISP_E_BADINDEX;
    offset += static_cast<std::size_t>(i) * stride;
    stride *= b.cElements;
  }
  *element = static_cast<unsigned char*>(a->pvData) + offset * a->cbElements;
  return S_OK;
}

HRESULT SafeArrayGetElement(SAFEARRAY* a, LONG* indices, void* value) {
  if (value == nullptr) return E_INVALIDARG;
  void* slot = nullptr;
  const HRESULT hr = SafeArrayPtrOfIndex(a, indices, &slot);
  if (FAILED(hr)) return hr;
  const VARTYPE vt = HeaderOf(a)->vt;
  if (vt == VT_BSTR) {
    BSTR s = *static_cast<BSTR*>(slot);
    BSTR copy = nullptr;
    if (s != nullptr) {
      copy = SysAllocStringByteLen(reinterpret_cast<const char*>(s), SysStringByteLen(s));
      if (copy == nullptr) return E_OUTOFMEMORY;
    }
    *static_cast<BSTR*>(value) = copy;
  } else if (vt == VT_VARIANT) {
    auto* out = static_cast<VARIANT*>(value);
    VariantInit(out);
    return VariantCopy(out, static_cast<VARIANT*>(slot));
  } else {
    std::memcpy(value, slot, a->cbElements);
    if (vt == VT_UNKNOWN && *static_cast<IUnknown**>(value))
      (*static_cast<IUnknown**>(value))->AddRef();
  }
  return S_OK;
}

HRESULT SafeArrayPutElement(SAFEARRAY* a, LONG* indices, void* value) {
  void* slot = nullptr;
  const HRESULT hr = SafeArrayPtrOfIndex(a, indices, &slot);
  if (FAILED(hr)) return hr;
  const VARTYPE vt = HeaderOf(a)->vt;
  if (vt == VT_BSTR) {
    // For BSTR arrays the value is the string itself, which is copied.
    auto s = static_cast<BSTR>(value);
    BSTR copy = nullptr;
    if (s != nullptr) {
      copy = SysAllocStringByteLen(reinterpret_cast<const char*>(s), SysStringByteLen(s));
      if (copy == nullptr) return E_OUTOFMEMORY;
    }
    SysFreeString(*static_cast<BSTR*>(slot));
    *static_cast<BSTR*>(slot) = copy;
  } else if (vt == VT_VARIANT) {
    if (value == nullptr) return E_INVALIDARG;
    return VariantCopy(static_cast<VARIANT*>(slot), static_cast<VARIANT*>(value));
  } else if (vt == VT_UNKNOWN) {
    // For interface arrays the value is the interface pointer itself.
    auto* p = static_cast<IUnknown*>(value);
    if (p) p->AddRef();
    IUnknown*& current = *static_cast<IUnknown**>(slot);
    if (current) current->Release();
    current = p;
  } else {
    if (value == nullptr) return E_INVALIDARG;
    std::memcpy(slot, value, a->cbElements);
  }
  return S_OK;
}
#endif  // !_WIN32

namespace pw {

std::size_t ScalarByteSize(VARTYPE vt) {
  switch (vt) {
    case VT_I1:
    case VT_UI1:
      return 1;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
      return 2;
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_R4:
    case VT_ERROR:
      return 4;
    case VT_I8:
    case VT_UI8:
    case VT_R8:
    case VT_DATE:
    case VT_CY:
      return 8;
    default:
      return 0;
  }
}

HRESULT CopyArrayElement(SAFEARRAY* array, VARTYPE element, LONG index, VARIANT* out) {
  if (out == nullptr) return E_POINTER;
  VariantClear(out);
  if (element == VT_VARIANT) return SafeArrayGetElement(array, &index, out);
  void* slot = nullptr;
  PW_RETURN_IF_FAILED(SafeArrayPtrOfIndex(array, &index, &slot));
  VARIANT view;  // borrows the element; VariantCopy makes the owned copy
  VariantInit(&view);
  view.vt = element;
  std::memcpy(&view.llVal, slot, array->cbElements);
  return VariantCopy(out, &view);
}

Variant::Variant(std::u16string_view text) : Variant() {
  bstrVal = AllocBstr(text);
  vt = VT_BSTR;
}

Variant::Variant(std::string_view utf8) : Variant() {
  bstrVal = AllocBstr(utf8);
  vt = VT_BSTR;
}

Variant::Variant(IUnknown* object) noexcept : Variant() {
  punkVal = object;
  if (object) object->AddRef();
  vt = VT_UNKNOWN;
}

Variant::Variant(const VARIANT& other) : Variant() {
  const HRESULT hr = VariantCopy(this, &other);
  if (hr == E_OUTOFMEMORY) throw std::bad_alloc();
}

Variant::Variant(Variant&& other) noexcept {
  std::memcpy(static_cast<VARIANT*>(this), static_cast<VARIANT*>(&other), sizeof(VARIANT));
  VariantInit(&other);
}

Variant& Variant::operator=(const Variant& other) {
  if (this != &other) {
    const HRESULT hr = VariantCopy(this, &other);
    if (hr == E_OUTOFMEMORY) throw std::bad_alloc();
  }
  return *this;
}

Variant& Variant::operator=(Variant&& other) noexcept {
  if (this != &other) {
    VariantClear(this);
    std::memcpy(static_cast<VARIANT*>(this), static_cast<VARIANT*>(&other), sizeof(VARIANT));
    VariantInit(&other);
  }
  return *this;
}

Variant Variant::Adopt(VARIANT* v) noexcept {
  Variant r;
  if (v != nullptr) {
    std::memcpy(static_cast<VARIANT*>(&r), v, sizeof(VARIANT));
    VariantInit(v);
  }
  return r;
}

HRESULT Variant::ChangeType(VARTYPE type, WORD flags) {
  return VariantChangeType(this, this, flags, type);
}

std::optional<std::int32_t> Variant::ToInt32() const {
  Variant v;
  if (FAILED(VariantChangeType(&v, this, 0, VT_I4))) return std::nullopt;
  return v.lVal;
}

std::optional<double> Variant::ToDouble() const {
  Variant v;
  if (FAILED(VariantChangeType(&v, this, 0, VT_R8))) return std::nullopt;
  return v.dblVal;
}

std::optional<bool> Variant::ToBool() const {
  Variant v;
  if (FAILED(VariantChangeType(&v, this, 0, VT_BOOL))) return std::nullopt;
  return v.boolVal != VARIANT_FALSE;
}

std::optional<std::u16string> Variant::ToString() const {
  Variant v;
  if (FAILED(VariantChangeType(&v, this, VARIANT_ALPHABOOL, VT_BSTR))) return std::nullopt;
  return std::u16string(v.bstrVal ? v.bstrVal : u"", SysStringLen(v.bstrVal));
}

HRESULT Variant::CopyTo(VARIANT* out) const {
  if (out == nullptr) return E_POINTER;
  VariantInit(out);
  return VariantCopy(out, this);
}

void Variant::Detach(VARIANT* out) noexcept {
  if (out == nullptr) return;
  VariantClear(out);
  std::memcpy(out, static_cast<VARIANT*>(this), sizeof(VARIANT));
  VariantInit(this);
}

}  // namespace pw
