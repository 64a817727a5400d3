// Every loader keeps its limits before any recursive work: JSON nested tens of thousands
// deep, array bounds at the integer maximum in the XML and stream forms, registry keys
// nested a hundred thousand deep. Each input fails cleanly, with a reason.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "com/errorinfo.h"
#include "com/registry_hive.h"
#include "com/stream.h"
#include "framework/chain_json.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/xml.h"
#include "server/entry_points.h"

namespace pw {
namespace {

std::string Nested(std::size_t depth, const std::string& open, const std::string& inner,
                   const std::string& close) {
  std::string out;
  for (std::size_t i = 0; i < depth; ++i) out += open;
  out += inner;
  for (std::size_t i = 0; i < depth; ++i) out += close;
  return out;
}

ComPtr<IRasterFunctionArguments> Arguments() {
  ComPtr<IRasterFunctionArguments> args;
  EXPECT_EQ(server::CreateInstance(u"SlopeFunctionArguments", &args), S_OK);
  return args;
}

TEST(LoaderLimits, DeepJsonIsRefusedBeforeAnythingRecurses) {
  const struct {
    const char* what;
    std::string text;
  } cases[] = {
      {"arrays", Nested(80000, "[", "1", "]")},
      {"objects", Nested(80000, "{\"a\": ", "1", "}")},
      {"an argument", R"({"DEM": )" + Nested(80000, "[", "1", "]") + "}"},
  };
  for (const auto& c : cases) {
    ComPtr<IRasterFunctionArguments> args = Arguments();
    EXPECT_EQ(persist::LoadJson(c.text, args.Get()), E_INVALIDARG) << c.what;
    EXPECT_NE(ToUtf8(TakeErrorDescription()).find("nest more than 256 deep"), std::string::npos)
        << c.what;
    ComPtr<IFunctionRasterDataset> chain;
    EXPECT_EQ(framework::LoadChainText(c.text, ".", &chain), E_INVALIDARG) << c.what;
    ClearErrorInfo();
  }
}

TEST(LoaderLimits, ArrayBoundsAtTheIntegerMaximumAreRefused) {
  ComPtr<IRasterFunctionArguments> args = Arguments();
  Variant numbers;
  ASSERT_EQ(persist::VariantFromJson(persist::Json::array({1.5, 2.5}), &numbers), S_OK);
  ASSERT_EQ(args->PutValue(Bstr(u"Numbers").Get(), numbers), S_OK);

  std::string xml;
  ASSERT_EQ(persist::SaveXml(args.Get(), &xml), S_OK);
  const auto at = xml.find("lowerBound=\"0\"");
  ASSERT_NE(at, std::string::npos) << xml;
  for (const char* bound : {"2147483647", "-2147483649"}) {
    std::string text = xml;
    text.replace(at, 14, std::string("lowerBound=\"") + bound + "\"");
    EXPECT_TRUE(FAILED(persist::LoadXml(text, Arguments().Get()))) << bound;
    ClearErrorInfo();
  }
  // Bounds that leave room for both elements are fine.
  for (const char* bound : {"2147483646", "-5"}) {
    std::string fits = xml;
    fits.replace(at, 14, std::string("lowerBound=\"") + bound + "\"");
    EXPECT_EQ(persist::LoadXml(fits, Arguments().Get()), S_OK) << bound;
  }

  std::vector<std::uint8_t> bytes;
  ASSERT_EQ(persist::SaveToBytes(args.Get(), 370, &bytes), S_OK);
  const std::uint8_t pattern[8] = {2, 0, 0, 0, 0, 0, 0, 0};  // two elements from 0
  const auto it = std::search(bytes.begin(), bytes.end(), std::begin(pattern), std::end(pattern));
  ASSERT_NE(it, bytes.end());
  std::fill(it + 4, it + 7, std::uint8_t{0xFF});
  *(it + 7) = 0x7F;
  EXPECT_TRUE(FAILED(persist::LoadFromBytes(Arguments().Get(), bytes)));
  ClearErrorInfo();
  // The integer maximum itself is refused where arrays are made.
  EXPECT_EQ(SafeArrayCreateVector(VT_R8, 2147483647, 2), nullptr);
  SAFEARRAY* last = SafeArrayCreateVector(VT_R8, 2147483647, 1);
  EXPECT_NE(last, nullptr);
  SafeArrayDestroy(last);
}

TEST(LoaderLimits, RegistryKeysKeepWindowsLimits) {
  const std::string header = "Windows Registry Editor Version 5.00\n\n";
  std::string deep = header + "[k";
  for (int i = 0; i < 100000; ++i) deep += "\\k";
  deep += "]\n";
  const struct {
    const char* what;
    std::string text;
    bool parses;
  } cases[] = {
      {"100000 levels", deep, false},
      {"513 levels", header + "[" + Nested(512, "k\\", "k", "") + "]\n", false},
      {"512 levels", header + "[" + Nested(511, "k\\", "k", "") + "]\n", true},
      {"a name of 256 characters", header + "[" + std::string(256, 'n') + "]\n", false},
      {"a name of 255 characters", header + "[" + std::string(255, 'n') + "]\n", true},
  };
  for (const auto& c : cases) {
    reg::Hive hive;
    std::string error;
    EXPECT_EQ(reg::Hive::Parse(c.text, &hive, &error), c.parses) << c.what;
    if (!c.parses) {
      EXPECT_NE(error.find("nests more than 512 deep"), std::string::npos) << error;
    }
  }
}

}  // namespace
}  // namespace pw
