// Function chains as JSON: loading binds, saving gives back a chain that loads to the same
// raster, and every malformed chain fails with a message naming what was wrong.
#include <gtest/gtest.h>

#include <gdal.h>

#include "framework/chain_json.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "tests/test_support.h"

namespace pw::framework {
namespace {

using persist::Json;

class ChainJson : public ::testing::Test {
 protected:
  void SetUp() override {
    raster::gdal::Initialize();
    std::filesystem::create_directories(dir_ / "data");
    // A 9 x 7 single-band byte raster whose values are their index; 0 is no-data.
    GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), (dir_ / "data" / "in.tif").c_str(),
                                 9, 7, 1, GDT_Byte, nullptr);
    ASSERT_NE(ds, nullptr);
    double t[6] = {1000, 2, 0, 2000, 0, -2};
    GDALSetGeoTransform(ds, t);
    std::vector<unsigned char> values(63);
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<unsigned char>(i);
    GDALRasterBandH band = GDALGetRasterBand(ds, 1);
    GDALSetRasterNoDataValue(band, 0);
    ASSERT_EQ(GDALRasterIO(band, GF_Write, 0, 0, 9, 7, values.data(), 9, 7, GDT_Byte, 0, 0),
              CE_None);
    GDALClose(ds);
  }

  // All pixels of the chain's output as doubles, no-data as -1.
  static std::vector<double> Pixels(IFunctionRasterDataset* chain) {
    ComPtr<IRaster> raster;
    EXPECT_EQ(
        ComPtr<IFunctionRasterDataset>(chain).As<IRasterDataset>()->CreateDefaultRaster(&raster),
        S_OK);
    ComPtr<IPixelBlock> block;
    EXPECT_EQ(raster->CreatePixelBlock(9, 7, &block), S_OK);
    EXPECT_EQ(raster->ReadAt(0, 0, block.Get()), S_OK);
    std::vector<double> out;
    for (std::size_t i = 0; i < 63; ++i)
      out.push_back(raster::mask::Get(block->Mask(0), i) ? raster::PixelValue(block.Get(), 0, i)
                                                         : -1);
    return out;
  }

  std::string Failure(const std::string& text) {
    ComPtr<IFunctionRasterDataset> chain;
    const HRESULT hr = LoadChainText(text, dir_.Path(), &chain);
    EXPECT_TRUE(FAILED(hr)) << text;
    EXPECT_FALSE(chain);
    return ToUtf8(TakeErrorDescription());
  }

  test::TempDir dir_;
};

TEST_F(ChainJson, NestedChainsResolveRelativeNamesAndSaveBackToAnEquivalentChain) {
  test::WriteFile(dir_ / "chain.json", R"({
    "function": "quarnDataSourcesRaster.IdentityFunction",
    "arguments": { "Raster": { "function": "IdentityFunction",
                               "arguments": { "Raster": "data/in.tif" },
                               "pixelType": "F32", "name": "inner" } },
    "name": "outer" })");
  ComPtr<IFunctionRasterDataset> chain;
  ASSERT_EQ(LoadChainFile(dir_ / "chain.json", &chain), S_OK) << ToUtf8(TakeErrorDescription());
  const std::vector<double> pixels = Pixels(chain.Get());
  ASSERT_EQ(pixels.size(), 63u);
  EXPECT_EQ(pixels[0], -1);
  EXPECT_EQ(pixels[62], 62);

  Json saved;
  ASSERT_EQ(SaveChain(chain.Get(), &saved), S_OK) << ToUtf8(TakeErrorDescription());
  EXPECT_EQ(saved["function"], "IdentityFunction");
  EXPECT_EQ(saved["name"], "outer");
  EXPECT_EQ(saved["arguments"]["Raster"]["name"], "inner");
  // Names are kept as written, relative to the chain's folder, so a chain folder can move.
  EXPECT_EQ(saved["arguments"]["Raster"]["arguments"]["Raster"], "data/in.tif");
  ComPtr<IFunctionRasterDataset> again;
  ASSERT_EQ(LoadChain(saved, dir_.Path(), &again), S_OK) << ToUtf8(TakeErrorDescription());
  EXPECT_EQ(Pixels(again.Get()), pixels);
}

TEST_F(ChainJson, MalformedChainsNameWhatIsWrong) {
  const struct {
    const char* chain;
    const char* expected;
  } cases[] = {
      {"{ \"function\": ", "not well-formed JSON"},
      {R"({ "function": "SlopeFunction", "arguments": { "DEM": 2E2222222 } })",
       "a number too large to represent"},
      {"[1, 2]", "\"function\""},
      {R"({ "arguments": {} })", "\"function\""},
      {R"({ "function": "NoSuchFunction" })", "unknown function 'NoSuchFunction'"},
      {R"({ "function": "IdentityFunction", "arguments": [] })", "\"arguments\" must be an object"},
      {R"({ "function": "IdentityFunction", "arguments": { "Raster": 5 } })", "Raster"},
      {R"({ "function": "IdentityFunction", "arguments": { "Raster": "data/missing.tif" } })",
       "missing.tif"},
      {R"({ "function": "IdentityFunction", "arguments": { "Raster": "data/in.tif" }, "pixelType": "F99" })",
       "pixelType"},
      {R"({ "function": "IdentityFunction",
            "arguments": { "type": "NoSuchArguments", "Raster": "data/in.tif" } })",
       "NoSuchArguments"},
      {R"({ "function": "IdentityFunction", "arguments": { "Raster": { "function": "Nope" } } })",
       "unknown function 'Nope'"},
  };
  for (const auto& c : cases) {
    const std::string message = Failure(c.chain);
    EXPECT_NE(message.find(c.expected), std::string::npos) << c.chain << "\n-> " << message;
  }
}

TEST_F(ChainJson, MissingChainFileIsNamed) {
  ComPtr<IFunctionRasterDataset> chain;
  EXPECT_TRUE(FAILED(LoadChainFile(dir_ / "absent.json", &chain)));
  EXPECT_NE(ToUtf8(TakeErrorDescription()).find("absent.json"), std::string::npos);
}

}  // namespace
}  // namespace pw::framework
