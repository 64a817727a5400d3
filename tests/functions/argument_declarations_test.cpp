// Every declared argument of every function, tried in a chain misspelt, of the wrong kind
// and outside its set: each fails to load with a message naming the function and the
// argument, while the correct chain loads.
#include <gtest/gtest.h>
#include <algorithm>

#include <cmath>
#include <cstdlib>
#include <map>

#include "framework/argument_declarations.h"
#include "framework/chain_json.h"
#include "raster/gdal/gdal_dataset.h"
#include "tests/functions/function_test_support.h"
#include "tests/test_support.h"

namespace pw::framework {
namespace {

using persist::Json;

// A chain of each declared function that loads on the generated sample.
const std::map<std::string, Json>& Correct() {
  static const std::map<std::string, Json> chains = {
      {"IdentityFunction", {{"Raster", "dem.tif"}}},
      {"ConstantFunction",
       {{"Constant", 3},
        {"RasterInfo",
         {{"Extent", {{"XMin", 0}, {"YMin", 0}, {"XMax", 8}, {"YMax", 8}}},
          {"PixelSizeX", 1},
          {"PixelSizeY", 1},
          {"BandCount", 1},
          {"PixelType", "U8"}}}}},
      {"ArithmeticFunction", {{"Raster", "dem.tif"}, {"Raster2", 2}}},
      {"NDVIFunction", {{"Raster", "image.tif"}}},
      {"SlopeFunction", {{"DEM", "dem.tif"}}},
      {"AspectFunction", {{"Raster", "dem.tif"}}},
      {"HillshadeFunction", {{"DEM", "dem.tif"}}},
      {"ExtractBandFunction", {{"Raster", "image.tif"}}},
      {"CompositeBandFunction", {{"Rasters", {"dem.tif", "image.tif"}}}},
      {"MaskFunction", {{"Raster", "dem.tif"}}},
      {"StretchFunction", {{"Raster", "image.tif"}}},
      {"RemapFunction", {{"Raster", "dem.tif"}, {"InputRanges", {0, 500}}, {"OutputValues", {1}}}},
      {"ConvolutionFunction", {{"Raster", "dem.tif"}}},
      {"StatisticsFunction", {{"Raster", "dem.tif"}}},
  };
  return chains;
}

// A value of another kind than `kind` wants.
Json WrongKind(ArgumentKind kind) {
  switch (kind) {
    case ArgumentKind::kRaster:
    case ArgumentKind::kRasterOrNumbers:
    case ArgumentKind::kText:
      return true;
    case ArgumentKind::kRasters:
    case ArgumentKind::kIntegers:
    case ArgumentKind::kNumbers:
    case ArgumentKind::kTexts:
    case ArgumentKind::kStatistics:
    case ArgumentKind::kHistograms:
      return "3";
    case ArgumentKind::kTable:
    case ArgumentKind::kGeometries:
      return 3;  // one text where an array is wanted
    case ArgumentKind::kInteger:
      return 2.5;
    case ArgumentKind::kNumber:
    case ArgumentKind::kNumberOrNumbers:
      return "two";
    case ArgumentKind::kBoolean:
      return "yes";
    case ArgumentKind::kRasterInfo:
    case ArgumentKind::kObject:
    case ArgumentKind::kEnvelope:
      return Json::array({1, 2, 3, 4});
  }
  return nullptr;
}

class ArgumentDeclarations : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    raster::gdal::Initialize();
    folder_ = new test::TempDir;
    const std::string command =
        std::string(PIXWERK_SAMPLE) + " " + folder_->Path().string() + " 32 > /dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }
  static void TearDownTestSuite() { delete folder_; }

  // The message of a failed load, or "" when the chain loaded.
  static std::string Load(const std::string& function, const Json& arguments) {
    const Json chain = {{"function", function}, {"arguments", arguments}};
    ComPtr<IFunctionRasterDataset> dataset;
    if (SUCCEEDED(LoadChain(chain, folder_->Path(), &dataset))) return "";
    const std::string message = test::LastError();
    return message.empty() ? "(failed without a message)" : message;
  }

  static inline test::TempDir* folder_ = nullptr;
};

TEST_F(ArgumentDeclarations, EveryFunctionOfThisBuildIsDeclared) {
  for (const auto& [function, arguments] : Correct())
    EXPECT_NE(FindFunctionDeclaration(function), nullptr) << function;
  EXPECT_EQ(FunctionDeclarations().size(), Correct().size());
}

TEST_F(ArgumentDeclarations, MisspeltWrongKindAndOutOfSetArgumentsFailToLoad) {
  for (const FunctionDeclaration* decl : FunctionDeclarations()) {
    const std::string function(decl->function);
    SCOPED_TRACE(function);
    ASSERT_EQ(Correct().count(function), 1u);
    const Json& correct = Correct().at(function);
    EXPECT_EQ(Load(function, correct), "");
    for (const ArgumentDeclaration& item : decl->items) {
      const std::string name(item.name);
      SCOPED_TRACE(name);
      const auto mentions = [&](const std::string& message, const std::string& what) {
        EXPECT_NE(message.find(function), std::string::npos) << message;
        EXPECT_NE(message.find("\"" + what + "\""), std::string::npos) << message;
      };
      // Misspelt: a letter dropped (the one after, where that makes an older name, as
      // "IncludedRanges" gives "IncludeRanges"); the message suggests the argument.
      Json misspelt = correct;
      auto dropped = [&](std::size_t at) { return name.substr(0, at) + name.substr(at + 1); };
      std::string typo = dropped(name.size() / 2);
      if (std::find(item.aliases.begin(), item.aliases.end(), typo) != item.aliases.end())
        typo = dropped(name.size() / 2 + 1);
      misspelt[typo] = correct.contains(name) ? correct[name] : Json(1);
      const std::string unknown = Load(function, misspelt);
      mentions(unknown, typo);
      if (name.size() > 3) {
        EXPECT_NE(unknown.find("did you mean \"" + name + "\""), std::string::npos) << unknown;
      }

      Json wrong = correct;
      wrong[name] = WrongKind(item.kind);
      const std::string kind = Load(function, wrong);
      mentions(kind, name);
      EXPECT_NE(kind.find(std::string(KindText(item.kind))), std::string::npos) << kind;

      if (!item.choices.empty() || std::isfinite(item.maximum)) {
        Json outside = correct;
        double value = std::isfinite(item.maximum) ? item.maximum + 1 : 0;
        for (const Choice& c : item.choices) value = std::max(value, c.value + 100.0);
        outside[name] = value;
        const std::string message = Load(function, outside);
        mentions(message, name);
        EXPECT_NE(message.find("given " + Json(value).dump()), std::string::npos) << message;
      }
      if (item.Required()) {
        Json missing = correct;
        missing.erase(name);
        for (std::string_view alias : item.aliases) missing.erase(std::string(alias));
        mentions(Load(function, missing), name);
      }
    }
  }
}

TEST_F(ArgumentDeclarations, AliasesNamesAndShortFunctionNamesAreRead) {
  const struct {
    const char* function;
    Json arguments;
  } loads[] = {
      {"slope", {{"Raster", "dem.tif"}, {"SlopeType", 2}}},
      {"HILLSHADE", {{"DEM", "dem.tif"}, {"Altitude", -90}, {"HillshadeType", 1}}},
      {"quarnDataSourcesRaster.AspectFunction", {{"DEM", "dem.tif"}}},
      {"ArithmeticFunction", {{"Raster", "dem.tif"}, {"Raster2", {1, 2}}, {"Operation", "Minus"}}},
      {"ArithmeticFunction", {{"Raster", "dem.tif"}, {"Raster2", 2}, {"Operation", "%"}}},
      {"ExtractBand", {{"Raster", "image.tif"}, {"_BANDID_", {1}}}},
      {"compositeband", {{"Raster[]", {"dem.tif"}}}},
  };
  for (const auto& l : loads) EXPECT_EQ(Load(l.function, l.arguments), "") << l.function;
}

TEST_F(ArgumentDeclarations, DescriptionsListEveryArgumentWithItsDefaultAndSet) {
  const FunctionDeclaration* slope = FindFunctionDeclaration("SlopeFunction");
  ASSERT_NE(slope, nullptr);
  const std::string text = DescribeArguments(*slope);
  for (const char* expected : {"DEM", "a raster", "required", "ZFactor", "default 1",
                               "one of 1 (degrees), 2 (percent rise)", "also read as Raster"})
    EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
  const std::string table = ArgumentsTable(*FindFunctionDeclaration("HillshadeFunction"));
  EXPECT_NE(table.find("| \"Altitude\" | a number | 45 | -90 to 90 |"), std::string::npos) << table;
}

TEST(NearestName, SuggestsOnlyCloseNames) {
  const std::vector<std::string_view> known = {"ZFactor", "SlopeType", "pixelType"};
  EXPECT_EQ(NearestName("ZFactr", known), "ZFactor");
  EXPECT_EQ(NearestName("pixeltype", known), "pixelType");
  EXPECT_EQ(NearestName("SlopType", known), "SlopeType");
  EXPECT_EQ(NearestName("Colour", known), "");
}

}  // namespace
}  // namespace pw::framework
