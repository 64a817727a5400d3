// VARIANT conversions, copies and clears; SAFEARRAY layout.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "com/platform.h"

namespace pw {
namespace {

Variant Bool(bool b) {
  return Variant(b);
}
Variant Null() {
  Variant v;
  v.vt = VT_NULL;
  return v;
}
Variant R4(float f) {
  Variant v;
  v.vt = VT_R4;
  v.fltVal = f;
  return v;
}
Variant I8(std::int64_t x) {
  return Variant(x);
}

// "TYPE:value" for the variants these tests produce.
std::string Describe(const VARIANT& v) {
  char buffer[64];
  switch (v.vt) {
    case VT_EMPTY:
      return "EMPTY";
    case VT_NULL:
      return "NULL";
    case VT_I1:
      return "I1:" + std::to_string(v.cVal);
    case VT_UI1:
      return "UI1:" + std::to_string(v.bVal);
    case VT_I2:
      return "I2:" + std::to_string(v.iVal);
    case VT_UI2:
      return "UI2:" + std::to_string(v.uiVal);
    case VT_I4:
      return "I4:" + std::to_string(v.lVal);
    case VT_UI4:
      return "UI4:" + std::to_string(v.ulVal);
    case VT_I8:
      return "I8:" + std::to_string(v.llVal);
    case VT_UI8:
      return "UI8:" + std::to_string(v.ullVal);
    case VT_R4:
      std::snprintf(buffer, sizeof(buffer), "R4:%.9g", v.fltVal);
      return buffer;
    case VT_R8:
      std::snprintf(buffer, sizeof(buffer), "R8:%.17g", v.dblVal);
      return buffer;
    case VT_BOOL:
      return "BOOL:" + std::to_string(v.boolVal);
    case VT_BSTR:
      return "BSTR:" + ToUtf8(std::u16string_view(v.bstrVal, SysStringLen(v.bstrVal)));
    default:
      return "vt " + std::to_string(v.vt);
  }
}

struct Conversion {
  Variant from;
  VARTYPE to;
  WORD flags;
  std::string expected;  // Describe() of the result, or "overflow" / "mismatch"
};

std::string Convert(const Conversion& c) {
  Variant out;
  const HRESULT hr = VariantChangeType(&out, &c.from, c.flags, c.to);
  if (hr == DISP_E_OVERFLOW) return "overflow";
  if (hr == DISP_E_TYPEMISMATCH) return "mismatch";
  if (FAILED(hr)) return "failed";
  return Describe(out);
}

TEST(VariantChangeType, FloatingValuesRoundHalfToEvenIntoIntegers) {
  const Conversion cases[] = {
      {2.5, VT_I4, 0, "I4:2"},
      {3.5, VT_I4, 0, "I4:4"},
      {-2.5, VT_I4, 0, "I4:-2"},
      {-3.5, VT_I4, 0, "I4:-4"},
      {2.4999999, VT_I4, 0, "I4:2"},
      {0.5, VT_I2, 0, "I2:0"},
      {1.5, VT_UI1, 0, "UI1:2"},
      {254.5, VT_UI1, 0, "UI1:254"},
      {R4(6.5f), VT_I4, 0, "I4:6"},
      {2147483647.4, VT_I4, 0, "I4:2147483647"},
      {-2147483648.5, VT_I4, 0, "I4:-2147483648"},
      {-0.5, VT_UI4, 0, "UI4:0"},
  };
  for (const auto& c : cases) EXPECT_EQ(Convert(c), c.expected) << Describe(c.from);
}

TEST(VariantChangeType, OutOfRangeValuesOverflow) {
  const Conversion cases[] = {
      {2147483647.5, VT_I4, 0, "overflow"},
      {255.5, VT_UI1, 0, "overflow"},
      {std::nan(""), VT_I4, 0, "overflow"},
      {1e300, VT_R4, 0, "overflow"},
      {std::numeric_limits<double>::infinity(), VT_R4, 0, "overflow"},
      {-1, VT_UI4, 0, "overflow"},
      {70000, VT_I2, 0, "overflow"},
      {-129, VT_I1, 0, "overflow"},
      {9.3e18, VT_I8, 0, "overflow"},
      {I8(std::numeric_limits<std::int64_t>::min()), VT_I4, 0, "overflow"},
      {Variant(u"99999999999"), VT_I4, 0, "overflow"},
      {Bool(true), VT_UI8, 0, "overflow"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Convert(c), c.expected) << Describe(c.from) << " to " << c.to;
}

TEST(VariantChangeType, BooleansAreMinusOneAndZero) {
  const Conversion cases[] = {
      {Bool(true), VT_I4, 0, "I4:-1"},
      {Bool(true), VT_UI1, 0, "UI1:255"},
      {Bool(true), VT_UI2, 0, "UI2:65535"},
      {Bool(true), VT_R8, 0, "R8:-1"},
      {Bool(false), VT_I4, 0, "I4:0"},
      {Bool(true), VT_BSTR, 0, "BSTR:-1"},
      {Bool(true), VT_BSTR, VARIANT_ALPHABOOL, "BSTR:True"},
      {Bool(false), VT_BSTR, VARIANT_ALPHABOOL, "BSTR:False"},
      {0, VT_BOOL, 0, "BOOL:0"},
      {7, VT_BOOL, 0, "BOOL:-1"},
      {0.1, VT_BOOL, 0, "BOOL:-1"},
      {Variant(u" true "), VT_BOOL, 0, "BOOL:-1"},
      {Variant(u"FALSE"), VT_BOOL, 0, "BOOL:0"},
      {Variant(u"#TRUE#"), VT_BOOL, 0, "BOOL:-1"},
      {Variant(u"0"), VT_BOOL, 0, "BOOL:0"},
      {Variant(u"2.5"), VT_BOOL, 0, "BOOL:-1"},
      {Variant(u"yes"), VT_BOOL, 0, "mismatch"},
  };
  for (const auto& c : cases) EXPECT_EQ(Convert(c), c.expected) << Describe(c.from);
}

TEST(VariantChangeType, TextParsesInTheInvariantLocale) {
  const Conversion cases[] = {
      {Variant(u"  42 "), VT_I4, 0, "I4:42"},
      {Variant(u"1,234"), VT_I4, 0, "I4:1234"},
      {Variant(u"2.5"), VT_I4, 0, "I4:2"},
      {Variant(u"3.5"), VT_I4, 0, "I4:4"},
      {Variant(u"-0.5"), VT_I4, 0, "I4:0"},
      {Variant(u"1e3"), VT_I4, 0, "I4:1000"},
      {Variant(u"-7"), VT_I2, 0, "I2:-7"},
      {Variant(u"+1.25E-1"), VT_R8, 0, "R8:0.125"},
      {Variant(u"&HFF"), VT_I4, 0, "I4:255"},
      {Variant(u"18446744073709551615"), VT_UI8, 0, "UI8:18446744073709551615"},
      {Variant(u"-9223372036854775808"), VT_I8, 0, "I8:-9223372036854775808"},
      {Variant(u"1,5"), VT_R8, 0, "R8:15"},
      {Variant(u"abc"), VT_I4, 0, "mismatch"},
      {Variant(u""), VT_I4, 0, "mismatch"},
      {Variant(u"12abc"), VT_R8, 0, "mismatch"},
      {Variant(u"1e"), VT_R8, 0, "mismatch"},
      {Variant(u",5"), VT_R8, 0, "mismatch"},
  };
  for (const auto& c : cases) EXPECT_EQ(Convert(c), c.expected) << Describe(c.from);
}

TEST(VariantChangeType, NumbersFormatAsText) {
  const Conversion cases[] = {
      {0.1, VT_BSTR, 0, "BSTR:0.1"},
      {1e20, VT_BSTR, 0, "BSTR:1E+20"},
      {1.0 / 3.0, VT_BSTR, 0, "BSTR:0.333333333333333"},
      {1e-5, VT_BSTR, 0, "BSTR:1E-05"},
      {R4(0.1f), VT_BSTR, 0, "BSTR:0.1"},
      {-42, VT_BSTR, 0, "BSTR:-42"},
      {I8(std::numeric_limits<std::int64_t>::min()), VT_BSTR, 0, "BSTR:-9223372036854775808"},
      {Variant(), VT_BSTR, 0, "BSTR:"},
  };
  for (const auto& c : cases) EXPECT_EQ(Convert(c), c.expected) << Describe(c.from);
}

TEST(VariantChangeType, EmptyNullAndObjects) {
  ComPtr<IStream> stream;
  ASSERT_EQ(CreateMemoryStream(&stream), S_OK);
  const Conversion cases[] = {
      {Variant(), VT_I4, 0, "I4:0"},
      {Variant(), VT_R8, 0, "R8:0"},
      {Null(), VT_I4, 0, "mismatch"},
      {Null(), VT_BSTR, 0, "mismatch"},
      {Null(), VT_NULL, 0, "NULL"},
      {Variant(stream.Get()), VT_I4, 0, "mismatch"},
      {Variant(5), VT_UNKNOWN, 0, "mismatch"},
      {Variant(5), VT_EMPTY, 0, "EMPTY"},
  };
  for (const auto& c : cases) EXPECT_EQ(Convert(c), c.expected) << Describe(c.from);
}

TEST(VariantChangeType, InPlaceConversionKeepsTheValueOnFailure) {
  Variant v(u"not a number");
  EXPECT_EQ(v.ChangeType(VT_I4), DISP_E_TYPEMISMATCH);
  EXPECT_EQ(Describe(v), "BSTR:not a number");
  Variant n(u"12");
  EXPECT_EQ(n.ChangeType(VT_R8), S_OK);
  EXPECT_EQ(Describe(n), "R8:12");
  EXPECT_EQ(Variant(u"3").ToInt32(), 3);
  EXPECT_FALSE(Variant(u"x").ToDouble());
  EXPECT_EQ(Variant(true).ToString(), u"True");
}

TEST(VariantChangeType, ByReferenceSourcesAreRead) {
  LONG value = 17;
  VARIANT ref;
  VariantInit(&ref);
  ref.vt = VT_I4 | VT_BYREF;
  ref.plVal = &value;
  Variant out;
  ASSERT_EQ(VariantChangeType(&out, &ref, 0, VT_R8), S_OK);
  EXPECT_EQ(Describe(out), "R8:17");
}

// Counts its references so that copies and clears can be checked.
class Counted : public IStream {
 public:
  using Interfaces = InterfaceList<IStream>;
  HRESULT STDMETHODCALLTYPE Read(void*, ULONG, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Write(const void*, ULONG, ULONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*,
                                   ULARGE_INTEGER*) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Revert() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }
};

ULONG Refs(IUnknown* p) {
  p->AddRef();
  return p->Release();
}

TEST(Variant, CopiesAreDeepAndClearsRelease) {
  auto object = MakeObject<Counted>();
  {
    Variant a(static_cast<IStream*>(object.Get()));
    EXPECT_EQ(Refs(object.Get()), 2u);
    Variant b = a;
    EXPECT_EQ(Refs(object.Get()), 3u);
    b.Clear();
    EXPECT_EQ(Refs(object.Get()), 2u);
  }
  EXPECT_EQ(Refs(object.Get()), 1u);

  Variant text(u"shared?");
  Variant copy(text);
  EXPECT_NE(copy.bstrVal, text.bstrVal);
  EXPECT_EQ(Describe(copy), "BSTR:shared?");
  Variant moved(std::move(copy));
  EXPECT_TRUE(copy.IsEmpty());
  EXPECT_EQ(Describe(moved), "BSTR:shared?");
}

TEST(SafeArray, VectorsOfEveryKindCopyDeeply) {
  SAFEARRAY* numbers = SafeArrayCreateVector(VT_R8, 0, 3);
  ASSERT_NE(numbers, nullptr);
  for (LONG i = 0; i < 3; ++i) {
    double d = i * 1.5;
    ASSERT_EQ(SafeArrayPutElement(numbers, &i, &d), S_OK);
  }
  VARIANT v;
  VariantInit(&v);
  v.vt = VT_ARRAY | VT_R8;
  v.parray = numbers;
  Variant copy(v);
  ASSERT_NE(copy.parray, numbers);
  LONG index = 2;
  double got = 0;
  ASSERT_EQ(SafeArrayGetElement(copy.parray, &index, &got), S_OK);
  EXPECT_EQ(got, 3.0);
  LONG lo = -1, hi = -1;
  EXPECT_EQ(SafeArrayGetLBound(copy.parray, 1, &lo), S_OK);
  EXPECT_EQ(SafeArrayGetUBound(copy.parray, 1, &hi), S_OK);
  EXPECT_EQ(lo, 0);
  EXPECT_EQ(hi, 2);
  index = 3;
  EXPECT_EQ(SafeArrayGetElement(copy.parray, &index, &got), DISP_E_BADINDEX);
  EXPECT_EQ(VariantChangeType(&v, &v, 0, VT_R8), DISP_E_TYPEMISMATCH);
  VariantClear(&v);

  SAFEARRAY* strings = SafeArrayCreateVector(VT_BSTR, 1, 2);
  Bstr hello(u"hello");
  LONG one = 1;
  ASSERT_EQ(SafeArrayPutElement(strings, &one, hello.Get()), S_OK);
  SAFEARRAY* stringsCopy = nullptr;
  ASSERT_EQ(SafeArrayCopy(strings, &stringsCopy), S_OK);
  BSTR out = nullptr;
  ASSERT_EQ(SafeArrayGetElement(stringsCopy, &one, &out), S_OK);
  EXPECT_EQ(std::u16string_view(out, SysStringLen(out)), u"hello");
  SysFreeString(out);
  SafeArrayDestroy(strings);
  SafeArrayDestroy(stringsCopy);
}

TEST(SafeArray, IndicesListTheRightmostDimensionFirst) {
  SAFEARRAYBOUND bounds[2] = {{2, 0}, {3, 10}};  // 2 x 3, second dimension from 10
  SAFEARRAY* a = SafeArrayCreate(VT_I4, 2, bounds);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(SafeArrayGetDim(a), 2u);
  LONG ub = 0;
  ASSERT_EQ(SafeArrayGetUBound(a, 2, &ub), S_OK);
  EXPECT_EQ(ub, 12);
  // Indices run rightmost dimension first.
  LONG at[2] = {11, 1};
  LONG value = 99;
  ASSERT_EQ(SafeArrayPutElement(a, at, &value), S_OK);
  void* data = nullptr;
  ASSERT_EQ(SafeArrayAccessData(a, &data), S_OK);
  EXPECT_EQ(static_cast<LONG*>(data)[1 * 3 + 1], 99);
  EXPECT_EQ(SafeArrayDestroy(a), DISP_E_ARRAYISLOCKED);
  ASSERT_EQ(SafeArrayUnaccessData(a), S_OK);
  EXPECT_EQ(SafeArrayDestroy(a), S_OK);
}

}  // namespace
}  // namespace pw
