// BSTR lengths and the Bstr helper; UTF-8/UTF-16 conversion.
#include <gtest/gtest.h>

#include "com/platform.h"

namespace pw {
namespace {

TEST(Bstr, LengthsCountCharactersAndBytesWithoutTheTerminator) {
  const OLECHAR text[] = {u'a', u'\0', u'b', u'c'};
  BSTR s = SysAllocStringLen(text, 4);  // an embedded NUL is part of the string
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(SysStringLen(s), 4u);
  EXPECT_EQ(SysStringByteLen(s), 8u);
  EXPECT_EQ(s[4], u'\0');
  SysFreeString(s);

  BSTR odd = SysAllocStringByteLen("xyz", 3);
  EXPECT_EQ(SysStringByteLen(odd), 3u);
  EXPECT_EQ(SysStringLen(odd), 1u);
  SysFreeString(odd);

  BSTR empty = SysAllocString(u"");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(SysStringLen(empty), 0u);
  SysFreeString(empty);

  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  EXPECT_EQ(SysStringLen(nullptr), 0u);
  SysFreeString(nullptr);

  BSTR blank = SysAllocStringLen(nullptr, 3);
  EXPECT_EQ(SysStringLen(blank), 3u);
  EXPECT_EQ(blank[0], 0);
  SysFreeString(blank);
}

TEST(Bstr, ReallocationReplacesTheString) {
  BSTR s = SysAllocString(u"first");
  ASSERT_TRUE(SysReAllocString(&s, u"second!"));
  EXPECT_EQ(std::u16string_view(s, SysStringLen(s)), u"second!");
  ASSERT_TRUE(SysReAllocStringLen(&s, u"abcdef", 2));
  EXPECT_EQ(std::u16string_view(s, SysStringLen(s)), u"ab");
  SysFreeString(s);
}

TEST(Bstr, HelperCopiesMovesAndHandsOut) {
  Bstr a("héllo");
  EXPECT_EQ(a.Length(), 5u);
  EXPECT_EQ(a.Utf8(), "héllo");
  Bstr b = a;
  EXPECT_NE(a.Get(), b.Get());
  EXPECT_EQ(a, b);
  Bstr c = std::move(b);
  EXPECT_EQ(b.Get(), nullptr);
  EXPECT_EQ(c.View(), u"héllo");
  BSTR out = nullptr;
  ASSERT_EQ(c.CopyTo(&out), S_OK);
  EXPECT_EQ(SysStringLen(out), 5u);
  SysFreeString(out);
  EXPECT_EQ(Bstr().CopyTo(nullptr), E_POINTER);
}

TEST(Text, Utf8AndUtf16RoundTrip) {
  const std::string samples[] = {"", "plain", "Zürich 東京", "emoji \xF0\x9F\x98\x80 end"};
  for (const auto& s : samples) EXPECT_EQ(ToUtf8(ToUtf16(s)), s);
  EXPECT_EQ(ToUtf16("\xF0\x9F\x98\x80").size(), 2u);  // a surrogate pair
  // Malformed input becomes replacement characters instead of failing.
  EXPECT_EQ(ToUtf16("a\xFF"
                    "b"),
            u"a\uFFFDb");
  EXPECT_EQ(ToUtf16("\xE2\x82"), u"\uFFFD\uFFFD");
  EXPECT_EQ(ToUtf8(std::u16string(1, char16_t(0xD800))), "\xEF\xBF\xBD");
}

TEST(Text, NamesCompareWithoutCase) {
  EXPECT_TRUE(EqualsNoCase(std::u16string_view(u"BandName"), std::u16string_view(u"BANDNAME")));
  EXPECT_TRUE(EqualsNoCase(std::u16string_view(u"Größe"), std::u16string_view(u"GRÖßE")));
  EXPECT_FALSE(EqualsNoCase(std::u16string_view(u"Band"), std::u16string_view(u"Bands")));
  EXPECT_LT(CompareNoCase(u"alpha", u"BETA"), 0);
  EXPECT_EQ(CompareNoCase(u"clsid", u"CLSID"), 0);
}

}  // namespace
}  // namespace pw
