// What users found lost on the way out, case by case, read back through GDAL: values a
// chosen no-data value swallowed, no-data values a requested type could not hold, composite
// types and no-data values, arithmetic with negative constants, inputs in another spatial
// reference, band names, and the chain written into the output.
#include <gtest/gtest.h>

#include <gdal.h>

#include <cmath>
#include <string>
#include <vector>

#include "framework/chain_json.h"
#include "raster/gdal/export.h"
#include "raster/gdal/gdal_dataset.h"
#include "tests/functions/function_test_support.h"
#include "tests/functions/tiff_support.h"
#include "tests/test_support.h"

namespace pw::functions {
namespace {

using raster::gdal::ExportOptions;
using test::Tiff;

// One band of a file as GDAL reads it: values, GDAL's mask and the no-data value.
struct Band {
  std::vector<double> values;
  std::vector<bool> valid;
  std::optional<double> noData;
  std::string type, description;
  std::size_t ValidCount() const {
    return static_cast<std::size_t>(std::count(valid.begin(), valid.end(), true));
  }
};

Band ReadBand(const std::string& path, int number) {
  Band out;
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  EXPECT_NE(ds, nullptr) << path;
  if (ds == nullptr) return out;
  GDALRasterBandH band = GDALGetRasterBand(ds, number);
  const int w = GDALGetRasterXSize(ds), h = GDALGetRasterYSize(ds);
  out.values.resize(static_cast<std::size_t>(w) * h);
  std::vector<std::uint8_t> mask(out.values.size());
  EXPECT_EQ(GDALRasterIO(band, GF_Read, 0, 0, w, h, out.values.data(), w, h, GDT_Float64, 0, 0),
            CE_None);
  EXPECT_EQ(
      GDALRasterIO(GDALGetMaskBand(band), GF_Read, 0, 0, w, h, mask.data(), w, h, GDT_Byte, 0, 0),
      CE_None);
  for (std::uint8_t m : mask) out.valid.push_back(m != 0);
  int has = 0;
  const double noData = GDALGetRasterNoDataValue(band, &has);
  if (has) out.noData = noData;
  out.type = GDALGetDataTypeName(GDALGetRasterDataType(band));
  out.description = GDALGetDescription(band);
  GDALClose(ds);
  return out;
}

class ExportCases : public ::testing::Test {
 protected:
  void SetUp() override { raster::gdal::Initialize(); }

  std::string File(const std::string& name) const { return (dir_ / name).string(); }

  // Binds the chain (file names relative to the test's folder) and exports it.
  HRESULT Export(const std::string& chain, const std::string& out,
                 const ExportOptions& options = {}) {
    ComPtr<IFunctionRasterDataset> dataset;
    HRESULT hr = framework::LoadChainText(chain, dir_.Path(), &dataset);
    if (FAILED(hr)) return hr;
    ComPtr<IRaster> raster;
    PW_RETURN_IF_FAILED(dataset.As<IRasterDataset>()->CreateDefaultRaster(&raster));
    return raster::gdal::ExportRaster(raster.Get(), File(out), options);
  }

  test::TempDir dir_;
};

// A 12 x 9 grid of 30 m cells in UTM zone 33N.
Tiff Grid(GDALDataType type, std::function<double(int, int, int)> value, int bands = 1) {
  return Tiff{500000, 4600270, 30, 12, 9, bands, type, std::move(value), {}, {}, 32633};
}

// 1. A raster without a no-data value gets none: every value of its type stays a value.
TEST_F(ExportCases, RastersWithoutNoDataKeepEveryValueOfTheirType) {
  const struct {
    const char* what;
    GDALDataType type;
    std::string chain;
    double value;  // every valid cell holds it
  } cases[] = {
      {"8-bit identity", GDT_Byte,
       R"({"function": "IdentityFunction", "arguments": {"Raster": "in.tif"}})", 255},
      {"16-bit identity", GDT_UInt16,
       R"({"function": "IdentityFunction", "arguments": {"Raster": "in.tif"}})", 65535},
      {"hillshade lit straight on", GDT_Float32,
       R"({"function": "HillshadeFunction", "arguments": {"DEM": "in.tif", "Altitude": 90}})", 255},
      {"constant 255", GDT_Byte,
       R"({"function": "ConstantFunction", "arguments": {"Constant": 255,
           "RasterInfo": {"Extent": {"XMin": 0, "YMin": 0, "XMax": 40, "YMax": 30},
                          "PixelSizeX": 1, "PixelSizeY": 1, "BandCount": 1,
                          "PixelType": "U8"}}})",
       255},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    test::Write(File("in.tif"), Grid(c.type, [&](int, int, int) {
                  return c.type == GDT_Float32 ? 100.0 : c.value;
                }));
    ASSERT_EQ(Export(c.chain, "out.tif"), S_OK) << test::LastError();
    const Band band = ReadBand(File("out.tif"), 1);
    EXPECT_FALSE(band.noData.has_value());
    // Hillshade has no value on its edge cells: only those may be invalid.
    const bool edges = std::string(c.what).find("hillshade") != std::string::npos;
    EXPECT_EQ(band.ValidCount(), edges ? 10u * 7u : band.values.size());
    for (std::size_t i = 0; i < band.values.size(); ++i)
      if (band.valid[i]) {
        EXPECT_EQ(band.values[i], c.value) << i;
      }
  }
}

// 2. A requested type that cannot hold the input's no-data value: its invalid cells stay
// invalid through a mask, and no foreign no-data value is declared.
TEST_F(ExportCases, ARequestedTypeThatCannotHoldTheNoDataValueKeepsInvalidCellsInvalid) {
  Tiff dem =
      Grid(GDT_Float32, [](int, int c, int r) { return c == 3 && r > 2 ? -9999 : 40.0 + c; });
  dem.noData = -9999;
  test::Write(File("dem.tif"), dem);
  ASSERT_EQ(Export(R"({"function": "IdentityFunction", "arguments": {"Raster": "dem.tif"},
                       "pixelType": "U8"})",
                   "out.tif"),
            S_OK)
      << test::LastError();
  const Band band = ReadBand(File("out.tif"), 1);
  EXPECT_EQ(band.type, "Byte");
  EXPECT_FALSE(band.noData.has_value());
  for (int r = 0; r < 9; ++r)
    for (int c = 0; c < 12; ++c) {
      const std::size_t i = static_cast<std::size_t>(r) * 12 + c;
      EXPECT_EQ(band.valid[i], !(c == 3 && r > 2)) << c << "," << r;
      if (band.valid[i]) {
        EXPECT_EQ(band.values[i], 40.0 + c);
      }
    }
}

// 3 and 4. A composite holds every input band's values and validity: 16-bit unsigned and
// signed bands stack into 32-bit signed ones; bands with different no-data values share one
// that none of their valid cells holds.
TEST_F(ExportCases, CompositesKeepEveryBandsValuesAndValidity) {
  test::Write(File("u16.tif"),
              Grid(GDT_UInt16, [](int, int c, int) { return c < 6 ? 40000 : 65535; }));
  test::Write(File("s16.tif"), Grid(GDT_Int16, [](int, int c, int) { return -32768.0 + c; }));
  ASSERT_EQ(Export(R"({"function": "CompositeBandFunction",
                       "arguments": {"Rasters": ["u16.tif", "s16.tif"]}})",
                   "types.tif"),
            S_OK)
      << test::LastError();
  const Band first = ReadBand(File("types.tif"), 1), second = ReadBand(File("types.tif"), 2);
  EXPECT_EQ(first.type, "Int32");
  for (std::size_t i = 0; i < first.values.size(); ++i) {
    EXPECT_EQ(first.values[i], i % 12 < 6 ? 40000 : 65535) << i;
    EXPECT_EQ(second.values[i], -32768.0 + static_cast<double>(i % 12)) << i;
  }

  // An image with no-data 0 (its first column), a DEM with valid 0 m cells and no-data
  // -9999 (its last column), and the image's NDVI, which is 0 where red equals infrared.
  Tiff image = Grid(
      GDT_UInt16, [](int b, int c, int) { return c == 0 ? 0.0 : 100.0 + b * (c % 2); }, 2);
  image.noData = 0;
  image.names = {"Red", "NIR"};
  test::Write(File("image.tif"), image);
  Tiff dem = Grid(GDT_Float32, [](int, int c, int) {
    return c == 11 ? -9999 : c % 3 == 0 ? 0.0 : 12.5;
  });
  dem.noData = -9999;
  dem.names = {"Elevation"};
  test::Write(File("dem.tif"), dem);
  ASSERT_EQ(Export(R"({"function": "CompositeBandFunction", "arguments": {"Rasters": [
                       "image.tif", "dem.tif",
                       {"function": "NDVIFunction", "arguments": {"Raster": "image.tif",
                        "ScientificOutput": true}}]}})",
                   "stack.tif"),
            S_OK)
      << test::LastError();
  const Band red = ReadBand(File("stack.tif"), 1), height = ReadBand(File("stack.tif"), 3),
             ndvi = ReadBand(File("stack.tif"), 4);
  EXPECT_EQ(red.description, "Red");
  EXPECT_EQ(height.description, "Elevation");
  EXPECT_EQ(ndvi.description, "NDVI");
  for (std::size_t i = 0; i < red.values.size(); ++i) {
    const std::size_t c = i % 12;
    EXPECT_EQ(red.valid[i], c != 0) << i;
    EXPECT_EQ(height.valid[i], c != 11) << i;
    if (c != 11) {
      EXPECT_EQ(height.values[i], c % 3 == 0 ? 0.0 : 12.5) << i;
    }
    EXPECT_EQ(ndvi.valid[i], c != 0) << i;
    if (c != 0 && c % 2 == 0) {
      EXPECT_EQ(ndvi.values[i], 0.0) << i;
    }
  }
}

// 5. Arithmetic with a negative constant and an unsigned raster computes in a type that
// holds both.
TEST_F(ExportCases, NegativeConstantsWithUnsignedRastersComputeExactly) {
  test::Write(File("u16.tif"), Grid(GDT_UInt16, [](int, int c, int r) { return c * 5000.0 + r; }));
  test::Write(File("u8.tif"), Grid(GDT_Byte, [](int, int c, int) { return 200.0 + c; }));
  const struct {
    const char* raster;
    double constant;
    int operation;
    std::function<double(double)> expected;
  } cases[] = {{"u16.tif", -100, 1, [](double a) { return a - 100; }},
               {"u16.tif", -1, 3, [](double a) { return -a; }},
               {"u8.tif", -2, 4, [](double a) { return std::floor(a / -2 + 0.5); }}};
  for (const auto& c : cases) {
    const std::string chain = std::string(R"({"function": "ArithmeticFunction", "arguments": {)") +
                              "\"Raster\": \"" + c.raster + "\", \"Raster2\": [" +
                              std::to_string(c.constant) +
                              "], \"Operation\": " + std::to_string(c.operation) + "}}";
    SCOPED_TRACE(chain);
    ASSERT_EQ(Export(chain, "out.tif"), S_OK) << test::LastError();
    const Band in = ReadBand(File(c.raster), 1), out = ReadBand(File("out.tif"), 1);
    for (std::size_t i = 0; i < in.values.size(); ++i)
      EXPECT_EQ(out.values[i], c.expected(in.values[i])) << i;
  }
}

// 6. Inputs in another spatial reference are read through GDAL's warper onto the output's
// grid; inputs that cannot be reprojected fail the bind naming both references.
TEST_F(ExportCases, InputsInAnotherReferenceAreReprojectedOrRefused) {
  Tiff utm = Grid(GDT_Float32, [](int, int c, int r) { return 100.0 + c + r; });
  test::Write(File("utm.tif"), utm);
  // Around the same area in geographic coordinates (15.0 to 15.0043 E, 41.5517 to 41.5541
  // N), in cells of 0.0003 degrees.
  Tiff geographic{14.995, 41.56, 0.0003, 40, 40, 1, GDT_Float32, [](int, int, int) { return 10.0; },
                  {},     {},    4326};
  test::Write(File("geo.tif"), geographic);
  ASSERT_EQ(Export(R"({"function": "ArithmeticFunction", "arguments": {
                       "Raster": "utm.tif", "Raster2": "geo.tif", "Operation": 2,
                       "CellsizeType": 0}})",
                   "out.tif"),
            S_OK)
      << test::LastError();
  GDALDatasetH ds = GDALOpen(File("out.tif").c_str(), GA_ReadOnly);
  ASSERT_NE(ds, nullptr);
  double t[6] = {};
  GDALGetGeoTransform(ds, t);
  EXPECT_NEAR(t[1], 30, 5);  // metres, not degrees
  EXPECT_EQ(GDALGetRasterXSize(ds), 12);
  GDALClose(ds);
  const Band band = ReadBand(File("out.tif"), 1);
  for (std::size_t i = 0; i < band.values.size(); ++i)
    if (band.valid[i]) {
      EXPECT_EQ(band.values[i], 100.0 + static_cast<double>(i % 12 + i / 12) - 10);
    }
  EXPECT_GT(band.ValidCount(), 0u);

  // A function's output in another reference has no warper.
  const HRESULT hr = Export(R"({"function": "ArithmeticFunction", "arguments": {
      "Raster": "utm.tif", "Operation": 2,
      "Raster2": {"function": "SlopeFunction", "arguments": {"DEM": "geo.tif"}}}})",
                            "refused.tif");
  EXPECT_EQ(hr, E_INVALIDARG);
  const std::string message = test::LastError();
  EXPECT_NE(message.find("EPSG:4326"), std::string::npos) << message;
  EXPECT_NE(message.find("EPSG:32633"), std::string::npos) << message;
}

// 7. Band names travel through the functions that keep bands; computed bands are named
// after what they hold; the chain's name and JSON go into the file's metadata.
TEST_F(ExportCases, BandNamesAndTheChainTravelIntoTheFile) {
  Tiff dem = Grid(GDT_Float32, [](int, int c, int r) { return 100.0 + 3 * c + r; });
  dem.names = {"Elevation"};
  test::Write(File("dem.tif"), dem);
  Tiff image = Grid(
      GDT_UInt16, [](int b, int c, int) { return 10.0 + b + c; }, 2);
  image.names = {"Red", "NIR"};
  test::Write(File("image.tif"), image);
  const struct {
    std::string chain;
    std::vector<std::string> names;
  } cases[] = {
      {R"({"function": "IdentityFunction", "arguments": {"Raster": "dem.tif"}})", {"Elevation"}},
      {R"({"function": "SlopeFunction", "arguments": {"DEM": "dem.tif"}})", {"Slope"}},
      {R"({"function": "AspectFunction", "arguments": {"Raster": "dem.tif"}})", {"Aspect"}},
      {R"({"function": "HillshadeFunction", "arguments": {"DEM": "dem.tif"}})", {"Hillshade"}},
      {R"({"function": "NDVIFunction", "arguments": {"Raster": "image.tif"}})", {"NDVI"}},
      {R"({"function": "ArithmeticFunction", "arguments": {"Raster": "image.tif",
           "Raster2": [100], "Operation": "minus"}})",
       {"Red - 100", "NIR - 100"}},
      {R"({"function": "ExtractBandFunction", "arguments": {"Raster": "image.tif",
           "BandIDs": [1]}})",
       {"NIR"}},
      {R"({"function": "MaskFunction", "arguments": {"Raster": "image.tif",
           "IncludedRanges": [0, 15]}})",
       {"Red", "NIR"}},
      {R"({"function": "StretchFunction", "arguments": {"Raster": "image.tif"}})", {"Red", "NIR"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.chain);
    ASSERT_EQ(Export(c.chain, "out.tif"), S_OK) << test::LastError();
    for (std::size_t b = 0; b < c.names.size(); ++b)
      EXPECT_EQ(ReadBand(File("out.tif"), static_cast<int>(b) + 1).description, c.names[b]);
  }
  ExportOptions options;
  options.metadata = {{"PIXWERK_CHAIN_NAME", "terrain"}, {"PIXWERK_CHAIN", "{\"a\": 1}"}};
  for (const char* format : {"GTiff", "COG"}) {
    options.format = format;
    ASSERT_EQ(Export(cases[1].chain, "meta.tif", options), S_OK) << test::LastError();
    GDALDatasetH ds = GDALOpen(File("meta.tif").c_str(), GA_ReadOnly);
    ASSERT_NE(ds, nullptr);
    EXPECT_STREQ(GDALGetMetadataItem(ds, "PIXWERK_CHAIN_NAME", nullptr), "terrain") << format;
    EXPECT_STREQ(GDALGetMetadataItem(ds, "PIXWERK_CHAIN", nullptr), "{\"a\": 1}") << format;
    GDALClose(ds);
  }
}

// Four 8-bit bands are four bands of values: none of them becomes an alpha band that would
// turn its zero cells invalid in every band.
TEST_F(ExportCases, FourByteBandsKeepEveryCellValid) {
  test::Write(File("in.tif"),
              Grid(
                  GDT_UInt16, [](int b, int c, int) { return b == 3 ? c % 2 : 7.0; }, 4));
  for (const char* format : {"GTiff", "COG"}) {
    SCOPED_TRACE(format);
    ExportOptions options;
    options.format = format;
    ASSERT_EQ(Export(R"({"function": "IdentityFunction", "arguments": {"Raster": "in.tif"},
                         "pixelType": "U8"})",
                     "out.tif", options),
              S_OK)
        << test::LastError();
    for (int b = 1; b <= 4; ++b) {
      const Band band = ReadBand(File("out.tif"), b);
      EXPECT_EQ(band.ValidCount(), band.values.size()) << "band " << b;
    }
    GDALDatasetH ds = GDALOpen(File("out.tif").c_str(), GA_ReadOnly);
    ASSERT_NE(ds, nullptr);
    EXPECT_NE(GDALGetRasterColorInterpretation(GDALGetRasterBand(ds, 4)), GCI_AlphaBand);
    GDALClose(ds);
  }
}

// The user's choice: a no-data value, or a mask; values the type cannot hold or valid cells
// hold are refused with a reason, and nothing is left behind.
TEST_F(ExportCases, AChosenNoDataValueOrMaskIsCheckedAgainstTheCells) {
  Tiff image =
      Grid(GDT_Byte, [](int, int c, int r) { return c == 0 && r == 0 ? 0.0 : 7.0 * c + 1; });
  image.noData = 0;
  test::Write(File("in.tif"), image);
  const std::string chain =
      R"({"function": "IdentityFunction", "arguments": {"Raster": "in.tif"}})";
  ExportOptions options;
  options.validity = ExportOptions::Validity::kNoData;
  options.noDataValue = 250;
  ASSERT_EQ(Export(chain, "chosen.tif", options), S_OK) << test::LastError();
  Band band = ReadBand(File("chosen.tif"), 1);
  EXPECT_EQ(band.noData, 250.0);
  EXPECT_FALSE(band.valid[0]);
  EXPECT_EQ(band.values[0], 250);
  EXPECT_EQ(band.ValidCount(), band.values.size() - 1);

  options.validity = ExportOptions::Validity::kMask;
  ASSERT_EQ(Export(chain, "mask.tif", options), S_OK) << test::LastError();
  band = ReadBand(File("mask.tif"), 1);
  EXPECT_FALSE(band.noData.has_value());
  EXPECT_EQ(band.ValidCount(), band.values.size() - 1);

  const struct {
    double value;
    const char* says;
  } refused[] = {{256, "cannot be held"},
                 {-1, "cannot be held"},
                 {0.5, "cannot be held"},
                 // The counts are of valid cells only: the invalid corner takes the value too.
                 {15, "9 valid cells of band 1 in rows 1 to 9 hold the no-data value 15"},
                 {1, "8 valid cells of band 1 in rows 1 to 9 hold the no-data value 1"}};
  options.validity = ExportOptions::Validity::kNoData;
  for (const auto& r : refused) {
    options.noDataValue = r.value;
    EXPECT_TRUE(FAILED(Export(chain, "refused.tif", options))) << r.value;
    const std::string message = test::LastError();
    EXPECT_NE(message.find(r.says), std::string::npos) << message;
  }
  EXPECT_FALSE(std::filesystem::exists(File("refused.tif")));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.Path()), {}), 3);
  // The input's own no-data value: only the invalid corner holds it.
  options.noDataValue = 0;
  ASSERT_EQ(Export(chain, "own.tif", options), S_OK) << test::LastError();
  band = ReadBand(File("own.tif"), 1);
  EXPECT_FALSE(band.valid[0]);
  EXPECT_EQ(band.ValidCount(), band.values.size() - 1);
}

// Bands whose validity differs cell by cell (a composite of rasters of different extents)
// cannot share one mask: they take a chosen no-data value, and when a valid cell holds it
// the export refuses, saying why.
TEST_F(ExportCases, BandsThatDifferInValidityTakeAChosenValueOrAreRefused) {
  Tiff narrow = Grid(GDT_Byte, [](int, int, int) { return 9.0; });
  narrow.columns = 6;  // half the width: the second band has no value in the other half
  test::Write(File("narrow.tif"), narrow);
  for (const double most : {254.0, 255.0}) {
    SCOPED_TRACE(most);
    test::Write(File("wide.tif"),
                Grid(GDT_Byte, [&](int, int c, int) { return c == 5 ? most : 1.0; }));
    const std::string chain = R"({"function": "CompositeBandFunction",
                                  "arguments": {"Rasters": ["wide.tif", "narrow.tif"]}})";
    for (const char* format : {"GTiff", "COG"}) {
      ExportOptions options;
      options.format = format;
      const HRESULT hr = Export(chain, "mixed.tif", options);
      if (most == 255) {
        EXPECT_EQ(hr, E_FAIL) << format;
        const std::string message = test::LastError();
        EXPECT_NE(message.find("hold the no-data value 255"), std::string::npos) << message;
        continue;
      }
      ASSERT_EQ(hr, S_OK) << test::LastError();
      const Band wide = ReadBand(File("mixed.tif"), 1), half = ReadBand(File("mixed.tif"), 2);
      EXPECT_EQ(wide.noData, 255.0);
      EXPECT_EQ(wide.ValidCount(), wide.values.size());
      for (std::size_t i = 0; i < half.values.size(); ++i)
        EXPECT_EQ(half.valid[i], i % 12 < 6) << i;
    }
  }
}

}  // namespace
}  // namespace pw::functions
