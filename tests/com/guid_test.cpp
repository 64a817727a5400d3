// GUID text form, parsing and name-based identifiers.
#include <gtest/gtest.h>

#include "com/platform.h"

namespace pw {
namespace {

TEST(Guid, TextRoundTripsThroughEveryForm) {
  const char* texts[] = {
      "{00000000-0000-0000-C000-000000000046}", "{932AB930-A190-11D1-8467-0000F875B9C6}",
      "{FFFFFFFF-FFFF-FFFF-FFFF-FFFFFFFFFFFF}", "{01D1412F-EB0F-4CFB-B9E5-F248BE838131}"};
  for (const char* text : texts) {
    const auto g = ParseGuid(std::string_view(text));
    ASSERT_TRUE(g) << text;
    EXPECT_EQ(GuidToString(*g), text);
    OLECHAR buffer[39];
    ASSERT_EQ(StringFromGUID2(*g, buffer, 39), 39);
    CLSID back{};
    ASSERT_EQ(CLSIDFromString(buffer, &back), S_OK);
    EXPECT_EQ(back, *g);
  }
}

TEST(Guid, FieldsFollowTheTextOrder) {
  const GUID g = MakeGuid("{01234567-89AB-CDEF-0123-456789ABCDEF}");
  EXPECT_EQ(g.Data1, 0x01234567u);
  EXPECT_EQ(g.Data2, 0x89AB);
  EXPECT_EQ(g.Data3, 0xCDEF);
  EXPECT_EQ(g.Data4[0], 0x01);
  EXPECT_EQ(g.Data4[7], 0xEF);
  EXPECT_EQ(MakeGuid("01234567-89ab-cdef-0123-456789abcdef"), g);
}

TEST(Guid, MalformedTextIsRefused) {
  const char* bad[] = {"",
                       "{}",
                       "{01234567-89AB-CDEF-0123-456789ABCDE}",
                       "{01234567-89AB-CDEF-0123-456789ABCDEFF}",
                       "{01234567+89AB-CDEF-0123-456789ABCDEF}",
                       "{0123456G-89AB-CDEF-0123-456789ABCDEF}",
                       "(01234567-89AB-CDEF-0123-456789ABCDEF)",
                       "01234567-89AB-CDEF-0123-456789ABCDEF}"};
  for (const char* text : bad) EXPECT_FALSE(ParseGuid(std::string_view(text))) << text;
  CLSID out{};
  EXPECT_EQ(CLSIDFromString(u"01234567-89AB-CDEF-0123-456789ABCDEF", &out), CO_E_CLASSSTRING);
  EXPECT_EQ(StringFromGUID2(GUID_NULL, nullptr, 39), 0);
  OLECHAR small[10];
  EXPECT_EQ(StringFromGUID2(GUID_NULL, small, 10), 0);
}

// Identifiers derived from names are stable forever: these values are pinned.
TEST(Guid, NameBasedIdentifiersArePinned) {
  struct Case {
    GUID actual;
    const char* expected;
  } cases[] = {
      {ClassIdFromName("TrendFunction"), "{011FF03F-4824-559E-BB08-5532624CB9BF}"},
      {ClassIdFromName("SlopeFunction"), "{A06D7E94-280E-56F6-9CBC-EEAACE7D49EC}"},
      {ClassIdFromName("RasterInfo"), "{B1A786B9-5B82-59B3-BE01-F252F9857A7C}"},
      {ClassIdFromName("IdentityFunction"), "{F6CFF2B8-ED30-5C13-8A03-0EEEC12BA96A}"},
      {NamedId("IRasterFunction"), "{84DF92F9-26D5-5180-A49C-A8F66F1F15B4}"},
  };
  for (const auto& c : cases) EXPECT_EQ(GuidToString(c.actual), c.expected);
}

TEST(Guid, StandardInterfacesKeepTheirPublishedIdentifiers) {
  EXPECT_EQ(GuidToString(IidOf<IUnknown>()), "{00000000-0000-0000-C000-000000000046}");
  EXPECT_EQ(GuidToString(IidOf<IClassFactory>()), "{00000001-0000-0000-C000-000000000046}");
  EXPECT_EQ(GuidToString(IidOf<IStream>()), "{0000000C-0000-0000-C000-000000000046}");
  EXPECT_EQ(GuidToString(IidOf<IPersistStream>()), "{00000109-0000-0000-C000-000000000046}");
  EXPECT_EQ(GuidToString(IidOf<IErrorInfo>()), "{1CF2B120-547D-101B-8E65-08002B2BD119}");
  EXPECT_EQ(GuidToString(IidOf<ICatRegister>()), "{0002E012-0000-0000-C000-000000000046}");
}

TEST(Sha1, MatchesKnownDigests) {
  auto hex = [](std::string_view text) {
    Sha1 sha;
    sha.Update(text);
    std::string out;
    for (auto b : sha.Finish()) {
      char buf[3];
      std::snprintf(buf, sizeof(buf), "%02x", b);
      out += buf;
    }
    return out;
  };
  EXPECT_EQ(hex(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(hex("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  // 56 bytes: the padding spills into a second block.
  EXPECT_EQ(hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
}

}  // namespace
}  // namespace pw
