// The framework's promises to hosts: bind error chains that hold only the bind's own
// messages, arguments objects that support error info and know their oldest document
// version, sizes of every persistable record, statistics of a bound function, programmatic
// identifiers in any case, and readers that refuse what the setters refuse.
#include <gtest/gtest.h>

#include "com/stream.h"
#include "framework/raster_info.h"
#include "raster/persist/document_version.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/xml.h"
#include "tests/functions/function_test_support.h"

namespace pw::framework {
namespace {

using test::Create;

// A bound slope over a small tilted plane (values 10 x column + row).
struct Slope {
  ComPtr<IRasterFunction> function = Create<IRasterFunction>(u"SlopeFunction");
  ComPtr<IRasterFunctionArguments> arguments =
      Create<IRasterFunctionArguments>(u"SlopeFunctionArguments");
  // The same arguments naming a file, as a saved document holds them.
  ComPtr<IRasterFunctionArguments> named =
      Create<IRasterFunctionArguments>(u"SlopeFunctionArguments");
  Slope() {
    ComPtr<IRaster> dem = test::MemoryRaster(test::Row(8, 6), 1, raster::kPixelF32,
                                             [](LONG, LONG c, LONG r) { return 10.0 * c + r; });
    arguments->PutValue(Bstr(u"DEM").Get(), Variant(static_cast<IUnknown*>(dem.Get())));
    named->PutValue(Bstr(u"DEM").Get(), Variant(std::string_view("dem.tif")));
    named->PutValue(Bstr(u"ZFactor").Get(), Variant(2.0));
  }
};

TEST(Conformance, ABindFailureCarriesOnlyItsOwnMessages) {
  ReportError(E_FAIL, std::string_view("an older failure of this thread"));
  auto function = Create<IRasterFunction>(u"SlopeFunction");
  auto arguments = Create<IRasterFunctionArguments>(u"SlopeFunctionArguments");
  EXPECT_TRUE(FAILED(function->Bind(arguments.Get())));
  const std::string message = test::LastError();
  EXPECT_EQ(message.find("older failure"), std::string::npos) << message;
  EXPECT_NE(message.find("SlopeFunction"), std::string::npos) << message;
}

TEST(Conformance, ArgumentsSupportErrorInfoAndKnowTheirOldestDocument) {
  Slope slope;
  ComPtr<ISupportErrorInfo> support = slope.arguments.As<ISupportErrorInfo>();
  ASSERT_TRUE(support);
  EXPECT_EQ(support->InterfaceSupportsErrorInfo(IidOf<IRasterFunctionArguments>()), S_OK);
  Bstr name;
  ASSERT_EQ(slope.arguments->get_MinNamespaceSupported(&name), S_OK);
  EXPECT_EQ(name.Utf8(), "urn:pixwerk:raster:4");
  // A document older than the class refuses it; one as old holds it.
  for (const auto& [version, expected] : {std::pair{3, E_FAIL}, std::pair{4, S_OK}}) {
    std::vector<std::uint8_t> bytes;
    EXPECT_EQ(persist::SaveToBytes(slope.named.Get(), version, &bytes), expected) << version;
  }
}

TEST(Conformance, SizesOfRecordsAreWhatSavingWrites) {
  Slope slope;
  ASSERT_EQ(slope.function->Bind(slope.arguments.Get()), S_OK) << test::LastError();
  ComPtr<IRasterInfo> info;
  slope.function->get_RasterInfo(&info);
  const std::pair<const char*, IUnknown*> records[] = {
      {"function", slope.function.Get()}, {"arguments", slope.named.Get()}, {"info", info.Get()}};
  for (const auto& [what, object] : records) {
    SCOPED_TRACE(what);
    ComPtr<IPersistStream> persist = ComPtr<IUnknown>(object).As<IPersistStream>();
    ASSERT_TRUE(persist);
    ULARGE_INTEGER size{};
    ASSERT_EQ(persist->GetSizeMax(&size), S_OK) << test::LastError();
    ComPtr<IStream> memory;
    ASSERT_EQ(CreateMemoryStream(&memory), S_OK);
    ASSERT_EQ(persist->Save(memory.Get(), FALSE), S_OK);
    EXPECT_EQ(size.QuadPart, MemoryStreamBytes(memory.Get()).size());
    EXPECT_GT(size.QuadPart, 0u);
  }
}

TEST(Conformance, ABoundFunctionComputesItsStatisticsAndHistograms) {
  Slope slope;
  ComPtr<IRasterFunction3> function = slope.function.As<IRasterFunction3>();
  EXPECT_TRUE(FAILED(function->ComputeStatsHistogram()));  // not bound yet
  ClearErrorInfo();
  ASSERT_EQ(slope.function->Bind(slope.arguments.Get()), S_OK);
  ASSERT_EQ(function->ComputeStatsHistogram(), S_OK) << test::LastError();
  ComPtr<IRasterInfo> info;
  slope.function->get_RasterInfo(&info);
  ComPtr<IRasterStatistics> statistics;
  ASSERT_EQ(info.As<IRasterInfo3>()->get_Statistics(0, &statistics), S_OK);
  ASSERT_TRUE(statistics);
  VARIANT_BOOL valid = VARIANT_FALSE;
  statistics->get_IsValid(&valid);
  EXPECT_TRUE(valid);
  double low = 0, high = 0;
  statistics->get_Minimum(&low);
  statistics->get_Maximum(&high);
  // A plane: one slope everywhere it has a whole neighbourhood.
  EXPECT_NEAR(low, high, 1e-4);
  EXPECT_GT(low, 0);
}

TEST(Conformance, ProgrammaticIdentifiersMatchInAnyCase) {
  CLSID exact{}, other{};
  ASSERT_EQ(CLSIDFromProgID(u"quarnDataSourcesRaster.SlopeFunction", &exact), S_OK);
  for (const char16_t* name : {u"QUARNDATASOURCESRASTER.SLOPEFUNCTION",
                               u"quarndatasourcesraster.slopefunction", u"slopefunction"}) {
    ASSERT_EQ(CLSIDFromProgID(name, &other), S_OK) << ToUtf8(name);
    EXPECT_TRUE(exact == other);
  }
}

TEST(Conformance, ReadersRefuseWhatTheSettersRefuse) {
  auto info = MakeObject<RasterInfo>();
  EXPECT_EQ(info->put_PixelType(99), E_INVALIDARG);
  EXPECT_TRUE(FAILED(persist::LoadJson(R"({"PixelType": 99})", info->AsUnknown())));
  ClearErrorInfo();
  EXPECT_TRUE(FAILED(persist::LoadJson(R"({"PixelType": -2})", info->AsUnknown())));
  ClearErrorInfo();
  std::string xml;
  ASSERT_EQ(persist::SaveXml(info->AsUnknown(), &xml), S_OK);
  const auto at = xml.find("</PixelType>");
  ASSERT_NE(at, std::string::npos) << xml;
  const auto open = xml.rfind('>', at);
  xml.replace(open + 1, at - open - 1, "99");
  EXPECT_TRUE(FAILED(persist::LoadXml(xml, info->AsUnknown()))) << xml;
  ClearErrorInfo();
  // What the setters take, the readers take.
  EXPECT_EQ(persist::LoadJson(R"({"PixelType": "U16"})", info->AsUnknown()), S_OK);
  LONG type = 0;
  info->get_PixelType(&type);
  EXPECT_EQ(type, 5);
  EXPECT_EQ(persist::LoadJson(R"({"PixelType": 256})", info->AsUnknown()), S_OK);
}

// The identity function's own record: none before document ordinal 4, version 1 at ordinal
// 4 (version 4 documents), the current version 5 in newer ones; the base's part comes first.
TEST(Conformance, TheIdentityFunctionWritesItsOwnRecordVersion) {
  auto identity = Create<IRasterFunction>(u"IdentityFunction");
  const struct {
    LONG document;
    HRESULT result;
    std::uint16_t own;
  } cases[] = {{3, E_FAIL, 0}, {4, S_OK, 1}, {5, S_OK, 5}, {370, S_OK, 5}};
  for (const auto& c : cases) {
    std::vector<std::uint8_t> bytes;
    ASSERT_EQ(persist::SaveToBytes(identity.Get(), c.document, &bytes), c.result) << c.document;
    if (FAILED(c.result)) continue;
    ASSERT_GE(bytes.size(), 2u);
    const std::uint16_t own =
        static_cast<std::uint16_t>(bytes[bytes.size() - 2] | (bytes[bytes.size() - 1] << 8));
    EXPECT_EQ(own, c.own) << c.document;
    auto again = Create<IRasterFunction>(u"IdentityFunction");
    EXPECT_EQ(persist::LoadFromBytes(again.Get(), bytes), S_OK) << c.document;
  }
}

TEST(Conformance, ResultCodesWithoutAMessageSayWhatTheyMean) {
  EXPECT_EQ(DescribeResult(E_OUTOFMEMORY), "out of memory (0x8007000E)");
  EXPECT_EQ(DescribeResult(E_INVALIDARG), "invalid argument (0x80070057)");
  EXPECT_EQ(DescribeResult(static_cast<HRESULT>(0x80041234)), "result 0x80041234");
}

}  // namespace
}  // namespace pw::framework
