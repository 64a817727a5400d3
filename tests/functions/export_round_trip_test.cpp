// Nothing lost on the way out: every function that exists, over inputs of every pixel type
// whose values span the type's whole range (its extremes included), exported to GeoTIFF
// and COG and read back with GDAL. Every valid cell comes back valid with its value, every
// invalid cell comes back invalid, through GDAL's mask band (which follows the no-data
// value or the file's own mask).
#include <gtest/gtest.h>

#include <cpl_conv.h>
#include <gdal.h>
#include <ogr_srs_api.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "functions/elementary/constant_function.h"
#include "raster/gdal/export.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/pixel_traits.h"
#include "raster/values/arrays.h"
#include "raster/values/spatial_reference.h"
#include "tests/functions/function_test_support.h"
#include "tests/test_support.h"

namespace pw::functions {
namespace {

using raster::gdal::ExportOptions;

constexpr LONG kColumns = 67, kRows = 41;

// How the input's invalid cells are marked.
enum class Invalid { kNone, kMask, kNoData };

ComPtr<ISpatialReference> Utm33() {
  OGRSpatialReferenceH sr = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(sr, 32633);
  char* wkt = nullptr;
  OSRExportToWkt(sr, &wkt);
  auto reference = MakeObject<raster::SpatialReference>();
  reference->put_WKT(Bstr(std::string_view(wkt)).Get());
  reference->put_FactoryCode(32633);
  reference->put_Kind(kProjected);
  CPLFree(wkt);
  OSRDestroySpatialReference(sr);
  return reference.As<ISpatialReference>();
}

// A value of `type` drawn from its whole range: integers uniformly, floats from random bit
// patterns (every exponent, subnormals and both zeros), and the extremes at fixed cells.
double RandomValue(LONG type, std::mt19937_64& random, std::size_t cell) {
  const raster::ValueRange range = raster::PixelRange(type);
  if (cell % 97 == 0) return range.lowest;
  if (cell % 97 == 1) return range.highest;
  if (raster::IsIntegerPixelType(type)) {
    std::uniform_int_distribution<std::int64_t> pick(static_cast<std::int64_t>(range.lowest),
                                                     static_cast<std::int64_t>(range.highest));
    return static_cast<double>(pick(random));
  }
  for (;;) {
    const std::uint64_t bits = random();
    double v = 0;
    if (type == raster::kPixelF32) {
      float f = 0;
      const auto low = static_cast<std::uint32_t>(bits);
      std::memcpy(&f, &low, sizeof(f));
      v = f;
    } else {
      std::memcpy(&v, &bits, sizeof(v));
    }
    if (std::isfinite(v)) return v;
  }
}

// An input of `bands` bands of `type`: random values, and invalid cells from row 10 on
// (the same cells in every band), marked by a mask or by the bands' no-data value.
ComPtr<IRaster> Input(LONG type, LONG bands, Invalid invalid, unsigned seed) {
  std::mt19937_64 random(seed * 1000 + static_cast<unsigned>(type));
  const raster::ValueRange range = raster::PixelRange(type);
  // A no-data value inside the range that no random value is given.
  const double noData = raster::IsIntegerPixelType(type) ? range.lowest + 1 : -12345.5;
  const raster::RasterGrid grid{
      500000, 4600000 - 30.0 * kRows, 500000 + 30.0 * kColumns, 4600000, kColumns, kRows};
  std::vector<double> values(static_cast<std::size_t>(bands) * kColumns * kRows);
  for (std::size_t i = 0; i < values.size(); ++i) {
    double v = RandomValue(type, random, i % (kColumns * kRows));
    if (v == noData) v = range.highest;
    values[i] = v;
  }
  auto isInvalid = [&](LONG c, LONG r) {
    return invalid != Invalid::kNone && r >= 10 && (c * 7 + r * 3) % 11 == 0;
  };
  auto dataset = raster::MakeMemoryDataset(
      grid, bands, type,
      [&](LONG b, LONG c, LONG r) {
        const double v = values[(static_cast<std::size_t>(b) * kRows + r) * kColumns + c];
        if (!isInvalid(c, r)) return v;
        return invalid == Invalid::kNoData ? noData : std::numeric_limits<double>::quiet_NaN();
      },
      Utm33().Get());
  if (invalid == Invalid::kNoData)
    for (LONG b = 0; b < bands; ++b) dataset->Band(b).SetNoData(noData);
  ComPtr<IRaster> raster;
  EXPECT_EQ(dataset->CreateDefaultRaster(&raster), S_OK);
  return raster;
}

Variant Holding(IRaster* raster) {
  return Variant(static_cast<IUnknown*>(raster));
}

struct Case {
  const char* function;
  LONG type;
};

// The function of the case bound over its inputs, seen as a raster (what the export reads).
ComPtr<IRaster> Chain(const Case& c, Invalid invalid) {
  const std::u16string name = ToUtf16(c.function);
  ComPtr<IRasterFunction> function = test::Create<IRasterFunction>(name);
  ComPtr<IRasterFunctionArguments> args = test::Create<IRasterFunctionArguments>(
      name == u"IdentityFunction" || name == u"AspectFunction" ? u"RasterFunctionArguments"
                                                               : name + u"Arguments");
  auto put = [&](std::u16string_view key, const Variant& value) {
    EXPECT_EQ(args->PutValue(Bstr(key).Get(), value), S_OK) << c.function;
  };
  const std::string f = c.function;
  if (f == "IdentityFunction") {
    put(u"Raster", Holding(Input(c.type, 2, invalid, 1).Get()));
  } else if (f == "ConstantFunction") {
    // Every cell holds the type's highest value; with a no-data value that is that value.
    ComPtr<IRaster> shape = Input(c.type, 2, Invalid::kNone, 2);
    ComPtr<IRasterInfo> info;
    EXPECT_EQ(args.As<IConstantFunctionArguments>()->CreateRasterInfo(shape.Get(), &info), S_OK);
    if (invalid == Invalid::kNoData)
      info.As<IRasterInfo3>()->put_NoData(Variant(raster::PixelRange(c.type).highest));
    put(u"RasterInfo", Variant(static_cast<IUnknown*>(info.Get())));
    put(u"Constant",
        test::Doubles({raster::PixelRange(c.type).highest, raster::PixelRange(c.type).lowest}));
  } else if (f == "ArithmeticFunction") {
    put(u"Raster", Holding(Input(c.type, 2, invalid, 3).Get()));
    put(u"Raster2", test::Doubles({-1}));
    put(u"Operation", Variant(std::int32_t{2}));
  } else if (f == "NDVIFunction") {
    put(u"Raster", Holding(Input(c.type, 2, invalid, 4).Get()));
    put(u"ScientificOutput", Variant(true));
  } else if (f == "ExtractBandFunction") {
    put(u"Raster", Holding(Input(c.type, 3, invalid, 5).Get()));
    put(u"BandIDs", test::Doubles({2, 0}));
    put(u"Method", Variant(std::int32_t{2}));
  } else if (f == "CompositeBandFunction") {
    // Two inputs whose bands agree on validity (bands that disagree, each spanning its whole
    // range, are what no one-mask file can keep: their own test expects the refusal).
    auto array = MakeObject<raster::VariantArray>();
    array->Items() = {Holding(Input(c.type, 1, invalid, 6).Get()),
                      Holding(Input(c.type, 2, invalid, 7).Get())};
    put(u"Rasters", Variant(array->AsUnknown()));
  } else if (f == "MaskFunction") {
    put(u"Raster", Holding(Input(c.type, 2, invalid, 9).Get()));
    put(u"IncludedRanges", test::Doubles({0, 100, 0, 100}));
  } else if (f == "RemapFunction") {
    // Low values to one class, the rest kept: both kinds of output in one file.
    put(u"Raster", Holding(Input(c.type, 2, invalid, 11).Get()));
    put(u"InputRanges", test::Doubles({0, 50}));
    put(u"OutputValues", test::Doubles({7}));
    put(u"AllowUnmatched", Variant(true));
  } else if (f == "StretchFunction") {
    // Percent clip onto [0, 255]: a no-data value of the input inside it is dropped, and its
    // cells must stay invalid through the mask.
    put(u"Raster", Holding(Input(c.type, 2, invalid, 10).Get()));
    put(u"StretchType", Variant(std::int32_t{6}));
  } else {  // the terrain functions: "DEM" falls back to "Raster"
    put(u"Raster", Holding(Input(c.type, 1, invalid, 8).Get()));
  }
  ComPtr<IFunctionRasterDataset> dataset;
  EXPECT_EQ(framework::CreateFunctionRasterDataset(function.Get(), args.Get(), true, &dataset),
            S_OK)
      << c.function << ": " << test::LastError();
  ComPtr<IRaster> raster;
  if (dataset) {
    EXPECT_EQ(dataset.As<IRasterDataset>()->CreateDefaultRaster(&raster), S_OK);
  }
  return raster;
}

bool SameValue(double a, double b) {
  return a == b || (std::isnan(a) && std::isnan(b));
}

class ExportRoundTrip : public ::testing::TestWithParam<Case> {
 protected:
  void SetUp() override { raster::gdal::Initialize(); }
  test::TempDir dir_;
};

TEST_P(ExportRoundTrip, EveryValidCellComesBackValidWithItsValueAndEveryInvalidCellInvalid) {
  const Case c = GetParam();
  for (const Invalid invalid : {Invalid::kNone, Invalid::kMask, Invalid::kNoData}) {
    const ComPtr<IRaster> chain = Chain(c, invalid);
    ASSERT_TRUE(chain) << c.function;
    // What the chain computes: the truth the file has to keep.
    LONG bands = 0, type = -1;
    chain.As<IRasterProps>()->get_BandCount(&bands);
    chain.As<IRasterProps>()->get_PixelType(&type);
    ComPtr<IPixelBlock> truth;
    ASSERT_EQ(raster::CreatePixelBlock(kColumns, kRows, bands, type, &truth), S_OK);
    ASSERT_EQ(chain->ReadAt(0, 0, truth.Get()), S_OK) << test::LastError();

    for (const char* format : {"GTiff", "COG"}) {
      SCOPED_TRACE(std::string(c.function) + " over " + std::string(raster::PixelTypeName(c.type)) +
                   ", invalid cells " + std::to_string(static_cast<int>(invalid)) + ", " + format);
      const std::string out = (dir_ / (std::string(format) + ".tif")).string();
      ExportOptions options;
      options.format = format;
      options.blockRows = 8;  // several strips: the mask joins the file after the first
      options.threads = 2;
      if (std::string(format) == "COG") options.creationOptions = {"BLOCKSIZE=32"};
      ASSERT_EQ(raster::gdal::ExportRaster(chain.Get(), out, options), S_OK) << test::LastError();
      GDALDatasetH ds = GDALOpen(out.c_str(), GA_ReadOnly);
      ASSERT_NE(ds, nullptr);
      ASSERT_EQ(GDALGetRasterCount(ds), bands);
      for (LONG b = 0; b < bands; ++b) {
        GDALRasterBandH band = GDALGetRasterBand(ds, b + 1);
        std::vector<double> values(kColumns * kRows);
        std::vector<std::uint8_t> mask(kColumns * kRows);
        ASSERT_EQ(GDALRasterIO(band, GF_Read, 0, 0, kColumns, kRows, values.data(), kColumns, kRows,
                               GDT_Float64, 0, 0),
                  CE_None);
        ASSERT_EQ(GDALRasterIO(GDALGetMaskBand(band), GF_Read, 0, 0, kColumns, kRows, mask.data(),
                               kColumns, kRows, GDT_Byte, 0, 0),
                  CE_None);
        // Signed bytes are bytes to GDAL 3.6, marked as signed in their metadata.
        const char* pixelType = GDALGetMetadataItem(band, "PIXELTYPE", "IMAGE_STRUCTURE");
        if (pixelType != nullptr && std::string(pixelType) == "SIGNEDBYTE")
          for (double& v : values) v = v > 127 ? v - 256 : v;
        std::size_t wrong = 0;
        for (std::size_t i = 0; i < values.size(); ++i) {
          const bool valid = (truth->Mask(b)[i / 8] >> (7 - i % 8)) & 1;
          if (valid != (mask[i] != 0) ||
              (valid && !SameValue(values[i], raster::PixelValue(truth.Get(), b, i)))) {
            if (++wrong <= 3)
              ADD_FAILURE() << "band " << b + 1 << " cell " << i << ": valid " << valid << " value "
                            << raster::PixelValue(truth.Get(), b, i) << ", file mask "
                            << int(mask[i]) << " value " << values[i];
          }
        }
        EXPECT_EQ(wrong, 0u) << "band " << b + 1;
      }
      GDALClose(ds);
    }
  }
}

std::vector<Case> Cases() {
  std::vector<Case> cases;
  for (const char* function : {"IdentityFunction", "ConstantFunction", "ArithmeticFunction",
                               "ExtractBandFunction", "CompositeBandFunction"})
    for (LONG type = 0; type <= 10; ++type) cases.push_back({function, type});
  // The computed outputs over inputs of a few types.
  for (const char* function :
       {"NDVIFunction", "SlopeFunction", "AspectFunction", "HillshadeFunction", "MaskFunction",
        "RemapFunction", "StretchFunction"})
    for (const LONG type : {raster::kPixelU8, raster::kPixelS16, raster::kPixelU32,
                            raster::kPixelF32, raster::kPixelF64})
      cases.push_back({function, type});
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Functions, ExportRoundTrip, ::testing::ValuesIn(Cases()),
                         [](const auto& p) {
                           return std::string(p.param.function) + "_" +
                                  std::string(raster::PixelTypeName(p.param.type));
                         });

}  // namespace
}  // namespace pw::functions
