// GDAL datasets and export: identity chains reproduce GeoTIFFs exactly; bad input fails
// clearly and leaves no file behind.
#include <gtest/gtest.h>

#include <cpl_string.h>
#include <gdal.h>
#include <gdal_rat.h>
#include <ogr_srs_api.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <random>
#include <thread>

#include "framework/function_raster.h"
#include "raster/gdal/export.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/gdal/handle_cache.h"
#include "raster/mask.h"
#include "raster/opener.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "raster/values/geometry.h"
#include "raster/values/spatial_reference.h"
#include "server/entry_points.h"
#include "tests/test_support.h"

namespace pw::raster::gdal {
namespace {

std::string Utm33Wkt() {
  OGRSpatialReferenceH sr = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(sr, 32633);
  char* wkt = nullptr;
  OSRExportToWkt(sr, &wkt);
  std::string out = wkt ? wkt : "";
  CPLFree(wkt);
  OSRDestroySpatialReference(sr);
  return out;
}

// A 37 x 23 GeoTIFF of `type` with two bands of pseudo-random values, some set to no-data.
std::vector<double> WriteTiff(const std::string& path, LONG type, double noData,
                              char** options = nullptr) {
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), 37, 23, 2,
                               static_cast<GDALDataType>(GdalTypeOfPixelType(type)), options);
  EXPECT_NE(ds, nullptr);
  double t[6] = {500000, 30, 0, 4600000, 0, -30};
  GDALSetGeoTransform(ds, t);
  GDALSetProjection(ds, Utm33Wkt().c_str());
  std::mt19937 random(static_cast<unsigned>(type));
  const ValueRange range = PixelRange(type);
  std::vector<double> all;
  for (int b = 1; b <= 2; ++b) {
    std::vector<double> values(37 * 23);
    for (std::size_t i = 0; i < values.size(); ++i) {
      double v =
          range.lowest + (random() % 1000) / 999.0 * std::min(range.highest - range.lowest, 1e6);
      if (IsIntegerPixelType(type)) v = std::round(v);
      if (i % 11 == 0) v = noData;
      values[i] = v;
    }
    GDALRasterBandH band = GDALGetRasterBand(ds, b);
    GDALSetRasterNoDataValue(band, noData);
    EXPECT_EQ(GDALRasterIO(band, GF_Write, 0, 0, 37, 23, values.data(), 37, 23, GDT_Float64, 0, 0),
              CE_None);
    all.insert(all.end(), values.begin(), values.end());
  }
  GDALClose(ds);
  return all;
}

std::vector<double> ReadTiff(const std::string& path, double* noData, double t[6],
                             std::string* wkt) {
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  EXPECT_NE(ds, nullptr) << path;
  if (ds == nullptr) return {};
  GDALGetGeoTransform(ds, t);
  *wkt = GDALGetProjectionRef(ds);
  std::vector<double> all;
  for (int b = 1; b <= GDALGetRasterCount(ds); ++b) {
    std::vector<double> values(
        static_cast<std::size_t>(GDALGetRasterXSize(ds) * GDALGetRasterYSize(ds)));
    GDALRasterBandH band = GDALGetRasterBand(ds, b);
    *noData = GDALGetRasterNoDataValue(band, nullptr);
    EXPECT_EQ(GDALRasterIO(band, GF_Read, 0, 0, GDALGetRasterXSize(ds), GDALGetRasterYSize(ds),
                           values.data(), GDALGetRasterXSize(ds), GDALGetRasterYSize(ds),
                           GDT_Float64, 0, 0),
              CE_None);
    all.insert(all.end(), values.begin(), values.end());
  }
  GDALClose(ds);
  return all;
}

// An identity function over `input` (a dataset name), as a raster to export.
ComPtr<IRaster> IdentityOver(const std::string& input) {
  ComPtr<IRasterFunction> f;
  ComPtr<IRasterFunctionArguments> args;
  EXPECT_EQ(server::CreateInstance(u"IdentityFunction", &f), S_OK);
  EXPECT_EQ(server::CreateInstance(u"RasterFunctionArguments", &args), S_OK);
  args->PutValue(Bstr(u"Raster").Get(), Variant(std::string_view(input)));
  ComPtr<IFunctionRasterDataset> dataset;
  if (FAILED(framework::CreateFunctionRasterDataset(f.Get(), args.Get(), true, &dataset)))
    return nullptr;
  ComPtr<IRaster> raster;
  dataset.As<IRasterDataset>()->CreateDefaultRaster(&raster);
  return raster;
}

class GdalTest : public ::testing::Test {
 protected:
  void SetUp() override { Initialize(); }
  test::TempDir dir_;
};

class IdentityReproduces : public GdalTest, public ::testing::WithParamInterface<LONG> {};

TEST_P(IdentityReproduces, EveryValueNoDataGeotransformAndReference) {
  const LONG type = GetParam();
  const double noData = IsIntegerPixelType(type) ? PixelRange(type).lowest + 1 : -9999.5;
  const std::string in = (dir_ / "in.tif").string(), out = (dir_ / "out.tif").string();
  const auto written = WriteTiff(in, type, noData);
  const ComPtr<IRaster> raster = IdentityOver(in);
  ASSERT_TRUE(raster) << ToUtf8(TakeErrorDescription());
  ExportOptions options;
  options.blockRows = 5;  // several strips, written in order by several threads
  options.threads = 3;
  ASSERT_EQ(ExportRaster(raster.Get(), out, options), S_OK) << ToUtf8(TakeErrorDescription());
  double readNoData = 0, t[6] = {};
  std::string wkt;
  const auto read = ReadTiff(out, &readNoData, t, &wkt);
  EXPECT_EQ(read, written);
  EXPECT_EQ(readNoData, noData);
  const double expected[6] = {500000, 30, 0, 4600000, 0, -30};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(t[i], expected[i]) << i;
  EXPECT_EQ(wkt, Utm33Wkt());
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.Path()), {}),
            2);  // no leftovers
}

INSTANTIATE_TEST_SUITE_P(PixelTypes, IdentityReproduces, ::testing::Values(3, 5, 6, 7, 8, 9, 10),
                         [](const auto& p) { return std::string(PixelTypeName(p.param)); });

TEST_F(GdalTest, DatasetsDescribeTheirBands) {
  const std::string path = (dir_ / "described.tif").string();
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), 4, 3, 1, GDT_Byte, nullptr);
  GDALRasterBandH band = GDALGetRasterBand(ds, 1);
  GDALSetDescription(band, "Red");
  GDALSetRasterStatistics(band, 1, 200, 50, 10);
  GDALColorTableH colors = GDALCreateColorTable(GPI_RGB);
  GDALColorEntry entry{255, 0, 0, 255};
  GDALSetColorEntry(colors, 1, &entry);
  GDALSetRasterColorTable(band, colors);
  GDALDestroyColorTable(colors);
  GDALClose(ds);

  ComPtr<IRasterDataset> dataset;
  ASSERT_EQ(OpenDatasetByName(ToUtf16(path), &dataset), S_OK);
  ComPtr<IRasterBand> b;
  ASSERT_EQ(dataset->GetBand(0, &b), S_OK);
  Bstr name;
  b->get_Name(&name);
  EXPECT_EQ(name.View(), u"Red");
  ComPtr<IRasterStatistics> statistics;
  ASSERT_EQ(b->get_Statistics(&statistics), S_OK);
  ASSERT_TRUE(statistics);
  double max = 0;
  statistics->get_Maximum(&max);
  EXPECT_EQ(max, 200);
  ComPtr<IRasterColormap> colormap;
  b->get_Colormap(&colormap);
  ASSERT_TRUE(colormap);
  LONG value = 0, argb = 0;
  colormap->GetEntry(1, &value, &argb);
  EXPECT_EQ(static_cast<std::uint32_t>(argb), 0xFFFF0000u);
  SourceInfo info;
  dataset.As<IRasterSource>()->GetInfo(&info);
  EXPECT_EQ(info.grid.columns, 4);
  EXPECT_EQ(info.pixelType, 3);
}

// Datasets opened inside a coarser scope: the cells under each coarser cell's centre, on a grid
// with the file's origin and whole coarser cells only; outside any scope (or for a factor
// wider than the file) the file as it is.
TEST_F(GdalTest, ACoarserScopeOpensFilesAtThatCellSize) {
  const std::string path = (dir_ / "fine.tif").string();
  const std::vector<double> values = WriteTiff(path, kPixelF32, -9999);
  auto open = [&](SourceInfo* info, std::vector<float>* cells, std::vector<std::uint8_t>* valid) {
    ComPtr<IRasterDataset> dataset;
    ASSERT_EQ(OpenDatasetByName(ToUtf16(path), &dataset), S_OK);
    auto source = dataset.As<IRasterSource>();
    ASSERT_EQ(source->GetInfo(info), S_OK);
    const auto n = static_cast<std::size_t>(info->grid.columns * info->grid.rows);
    cells->resize(n);
    std::vector<BYTE> bits(mask::Bytes(n));
    ASSERT_EQ(source->ReadWindow(1, 0, 0, info->grid.columns, info->grid.rows, cells->data(),
                                 bits.data()),
              S_OK);
    valid->resize(n);
    mask::Unpack(bits.data(), n, valid->data());
  };
  for (int factor : {2, 3, 5, 64}) {
    SourceInfo info;
    std::vector<float> cells;
    std::vector<std::uint8_t> valid;
    {
      const CoarserOpenScope scope(factor);
      EXPECT_EQ(CoarserOpenScope::Factor(), factor);
      open(&info, &cells, &valid);
    }
    EXPECT_EQ(CoarserOpenScope::Factor(), 1);
    const LONG columns = factor > 23 ? 37 : 37 / factor, rows = factor > 23 ? 23 : 23 / factor;
    const int f = factor > 23 ? 1 : factor;
    ASSERT_EQ(info.grid.columns, columns) << factor;
    ASSERT_EQ(info.grid.rows, rows) << factor;
    EXPECT_DOUBLE_EQ(info.grid.xmin, 500000);
    EXPECT_DOUBLE_EQ(info.grid.ymax, 4600000);
    EXPECT_NEAR(info.grid.CellX(), 30.0 * f, 1e-9);
    ASSERT_TRUE(info.noData[1]);
    EXPECT_EQ(*info.noData[1], -9999);
    for (LONG r = 0; r < rows; ++r)
      for (LONG c = 0; c < columns; ++c) {
        const double expected =
            values[static_cast<std::size_t>(37 * 23 + (r * f + f / 2) * 37 + c * f + f / 2)];
        const auto at = static_cast<std::size_t>(r * columns + c);
        ASSERT_EQ(valid[at] != 0, expected != -9999) << factor << ": " << c << "," << r;
        if (valid[at]) {
          ASSERT_EQ(cells[at], static_cast<float>(expected)) << factor << ": " << c << "," << r;
        }
      }
  }
}

TEST_F(GdalTest, BadInputFailsWithOneClearReason) {
  test::WriteFile(dir_ / "text.tif", "this is not a raster");
  const struct {
    std::string input;
    const char* says;
  } cases[] = {{(dir_ / "missing.tif").string(), "missing.tif"},
               {(dir_ / "text.tif").string(), "text.tif"}};
  for (const auto& c : cases) {
    EXPECT_FALSE(IdentityOver(c.input));
    const std::string message = ToUtf8(TakeErrorDescription());
    EXPECT_NE(message.find("IdentityFunction: the argument [Raster]"), std::string::npos)
        << message;
    EXPECT_NE(message.find(c.says), std::string::npos) << message;
  }
}

TEST_F(GdalTest, FailedOrCancelledExportsLeaveNoFile) {
  const std::string in = (dir_ / "in.tif").string();
  WriteTiff(in, 3, 0);
  const ComPtr<IRaster> raster = IdentityOver(in);
  ASSERT_TRUE(raster);
  test::WriteFile(dir_ / "plain", "x");
  EXPECT_EQ(ExportRaster(raster.Get(), (dir_ / "plain" / "out.tif").string(), {}),
            STG_E_ACCESSDENIED);
  EXPECT_NE(ToUtf8(TakeErrorDescription()).find("does not exist"), std::string::npos);
  ExportOptions cancel;
  cancel.blockRows = 4;
  cancel.progress = [](double done) { return done < 0.5; };
  EXPECT_EQ(ExportRaster(raster.Get(), (dir_ / "cancelled.tif").string(), cancel), E_ABORT);
  ClearErrorInfo();
  ExportOptions wrongFormat;
  wrongFormat.format = "PNG";
  EXPECT_EQ(ExportRaster(raster.Get(), (dir_ / "x.png").string(), wrongFormat), E_INVALIDARG);
  ClearErrorInfo();
  // Only the input and the plain file remain.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.Path()), {}), 2);
}

TEST_F(GdalTest, CogAndMaskBandExports) {
  const std::string in = (dir_ / "in.tif").string();
  WriteTiff(in, 9, -1);
  const ComPtr<IRaster> raster = IdentityOver(in);
  ExportOptions cog;
  cog.format = "COG";
  const std::string out = (dir_ / "out.cog.tif").string();
  ASSERT_EQ(ExportRaster(raster.Get(), out, cog), S_OK) << ToUtf8(TakeErrorDescription());
  GDALDatasetH ds = GDALOpen(out.c_str(), GA_ReadOnly);
  ASSERT_NE(ds, nullptr);
  const char* layout = GDALGetMetadataItem(ds, "LAYOUT", "IMAGE_STRUCTURE");
  EXPECT_STREQ(layout, "COG");
  GDALClose(ds);

  ExportOptions masked;
  masked.validity = ExportOptions::Validity::kMask;
  const std::string maskedOut = (dir_ / "masked.tif").string();
  ASSERT_EQ(ExportRaster(raster.Get(), maskedOut, masked), S_OK) << ToUtf8(TakeErrorDescription());
  ds = GDALOpen(maskedOut.c_str(), GA_ReadOnly);
  GDALRasterBandH band = GDALGetRasterBand(ds, 1);
  EXPECT_EQ(GDALGetMaskFlags(band), GMF_PER_DATASET);
  std::uint8_t first = 1;
  EXPECT_EQ(GDALRasterIO(GDALGetMaskBand(band), GF_Read, 0, 0, 1, 1, &first, 1, 1, GDT_Byte, 0, 0),
            CE_None);
  EXPECT_EQ(first, 0);  // pixel 0 holds no-data in the input
  GDALClose(ds);
}

// An input without a no-data value but with a mask band: the export writes no no-data value
// (every value of the type stays a valid value) and carries the invalid cells in a mask band.
TEST_F(GdalTest, MaskedCellsWithoutNoDataGoToAMaskBand) {
  for (const LONG type : {3, 5, 6, 7, 8, 9, 10}) {
    const std::string in = (dir_ / "masked-in.tif").string(),
                      out = (dir_ / "masked-out.tif").string();
    GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), in.c_str(), 8, 4, 1,
                                 static_cast<GDALDataType>(GdalTypeOfPixelType(type)), nullptr);
    ASSERT_NE(ds, nullptr);
    double t[6] = {0, 1, 0, 4, 0, -1};
    GDALSetGeoTransform(ds, t);
    std::vector<double> values(32, PixelRange(type).highest);
    std::vector<std::uint8_t> validity(32, 255);
    validity[5] = validity[30] = 0;
    GDALRasterBandH band = GDALGetRasterBand(ds, 1);
    ASSERT_EQ(GDALRasterIO(band, GF_Write, 0, 0, 8, 4, values.data(), 8, 4, GDT_Float64, 0, 0),
              CE_None);
    ASSERT_EQ(GDALCreateDatasetMaskBand(ds, GMF_PER_DATASET), CE_None);
    ASSERT_EQ(GDALRasterIO(GDALGetMaskBand(band), GF_Write, 0, 0, 8, 4, validity.data(), 8, 4,
                           GDT_Byte, 0, 0),
              CE_None);
    GDALClose(ds);
    const ComPtr<IRaster> raster = IdentityOver(in);
    ASSERT_TRUE(raster) << ToUtf8(TakeErrorDescription());
    ASSERT_EQ(ExportRaster(raster.Get(), out, {}), S_OK) << ToUtf8(TakeErrorDescription());
    ds = GDALOpen(out.c_str(), GA_ReadOnly);
    ASSERT_NE(ds, nullptr);
    band = GDALGetRasterBand(ds, 1);
    int hasNoData = 1;
    GDALGetRasterNoDataValue(band, &hasNoData);
    EXPECT_FALSE(hasNoData) << type;
    EXPECT_EQ(GDALGetMaskFlags(band), GMF_PER_DATASET) << type;
    std::vector<double> read(32);
    std::vector<std::uint8_t> mask(32);
    ASSERT_EQ(GDALRasterIO(band, GF_Read, 0, 0, 8, 4, read.data(), 8, 4, GDT_Float64, 0, 0),
              CE_None);
    ASSERT_EQ(
        GDALRasterIO(GDALGetMaskBand(band), GF_Read, 0, 0, 8, 4, mask.data(), 8, 4, GDT_Byte, 0, 0),
        CE_None);
    for (std::size_t i = 0; i < 32; ++i) {
      EXPECT_EQ(mask[i] != 0, validity[i] != 0) << type << " cell " << i;
      if (validity[i]) {
        EXPECT_EQ(read[i], values[i]) << type << " cell " << i;
      }
    }
    GDALClose(ds);
    std::filesystem::remove(in);
    std::filesystem::remove(out);
  }
}

// The application's own GDAL error handler stays installed and receives GDAL's warnings;
// the library takes only the failures of its own calls.
std::vector<std::string> g_seen;
void CPL_STDCALL Remember(CPLErr kind, CPLErrorNum, const char* message) {
  g_seen.push_back(std::string(kind == CE_Warning ? "warning: " : "other: ") + message);
}

TEST_F(GdalTest, AnApplicationsErrorHandlerIsLeftAlone) {
  const std::string in = (dir_ / "in.tif").string();
  WriteTiff(in, 3, 0);
  const ComPtr<IRaster> raster = IdentityOver(in);
  ASSERT_TRUE(raster);
  g_seen.clear();
  const CPLErrorHandler before = CPLSetErrorHandler(Remember);
  ExportOptions options;
  options.creationOptions = {"NO_SUCH_OPTION=1"};
  EXPECT_EQ(ExportRaster(raster.Get(), (dir_ / "out.tif").string(), options), S_OK);
  // A failure of the library's own call is its message, not the application's report.
  ComPtr<IRasterDataset> missing;
  EXPECT_TRUE(FAILED(OpenDatasetByName(ToUtf16((dir_ / "absent.tif").string()), &missing)));
  EXPECT_NE(ToUtf8(TakeErrorDescription()).find("absent.tif"), std::string::npos);
  EXPECT_EQ(CPLSetErrorHandler(before), &Remember);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_NE(g_seen[0].find("warning: "), std::string::npos);
  EXPECT_NE(g_seen[0].find("NO_SUCH_OPTION"), std::string::npos) << g_seen[0];
}

// Reads are re-entrant: eight threads reading interleaved windows of one dataset see what
// one thread sees, in a file of strips and in one of 16 x 16 tiles, whose windows cross rows
// of blocks (read one row of blocks at a time).
class ConcurrentReads : public GdalTest, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(StripsAndTiles, ConcurrentReads, testing::Bool());

TEST_P(ConcurrentReads, EqualASingleRead) {
  const std::string in = (dir_ / "in.tif").string();
  char** options = nullptr;
  if (GetParam()) {
    options = CSLSetNameValue(options, "TILED", "YES");
    options = CSLSetNameValue(options, "BLOCKXSIZE", "16");
    options = CSLSetNameValue(options, "BLOCKYSIZE", "16");
  }
  const auto written = WriteTiff(in, 6, -5, options);
  CSLDestroy(options);
  ComPtr<IRasterDataset> dataset;
  ASSERT_EQ(OpenDatasetByName(ToUtf16(in), &dataset), S_OK);
  auto source = dataset.As<IRasterSource>();
  constexpr LONG kWidth = 37, kHeight = 23;
  std::vector<std::int16_t> whole(kWidth * kHeight);
  std::vector<BYTE> wholeMask(mask::Bytes(whole.size()));
  ASSERT_EQ(source->ReadWindow(1, 0, 0, kWidth, kHeight, whole.data(), wholeMask.data()), S_OK);
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      // Windows of three rows, the last ones partly below the raster.
      constexpr LONG kRows = 3;
      for (int repeat = 0; repeat < 20; ++repeat) {
        for (LONG row = t % 3; row < kHeight; row += 3) {
          std::int16_t values[kWidth * kRows];
          BYTE bits[mask::Bytes(kWidth * kRows)];
          if (FAILED(source->ReadWindow(1, 0, row, kWidth, kRows, values, bits))) ++mismatches;
          for (LONG k = 0; k < kWidth * kRows; ++k) {
            const bool valid = mask::Get(bits, static_cast<std::size_t>(k));
            const std::size_t i = static_cast<std::size_t>(row * kWidth + k);
            if (row + k / kWidth >= kHeight) {
              mismatches += valid;
            } else if (valid != mask::Get(wholeMask.data(), i) ||
                       (valid && values[k] != whole[i])) {
              ++mismatches;
            }
          }
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  // And the single read matches the file: band 2 of what was written, -5 as no-data.
  for (std::size_t i = 0; i < whole.size(); ++i) {
    const double value = written[whole.size() + i];
    EXPECT_EQ(mask::Get(wholeMask.data(), i), value != -5) << i;
    if (value != -5) {
      EXPECT_EQ(whole[i], value) << i;
    }
  }
}

TEST_F(GdalTest, ManyDatasetsShareABoundedSetOfOpenHandles) {
  const std::string in = (dir_ / "tiles.tif").string();
  char** options = CSLSetNameValue(nullptr, "TILED", "YES");
  options = CSLSetNameValue(options, "BLOCKXSIZE", "16");
  options = CSLSetNameValue(options, "BLOCKYSIZE", "16");
  WriteTiff(in, 6, -5, options);
  CSLDestroy(options);
  const std::size_t before = OpenHandleCount();
  constexpr std::size_t kLimit = 4;
  SetOpenHandleLimit(kLimit);
  {
    // Twelve datasets of the file, each with a handle of its own and owners of its rows of
    // blocks, read by four threads at once.
    std::vector<ComPtr<IRasterSource>> sources;
    for (int i = 0; i < 12; ++i) {
      ComPtr<IRasterDataset> dataset;
      ASSERT_EQ(OpenDatasetByName(ToUtf16(in), &dataset), S_OK);
      sources.push_back(dataset.As<IRasterSource>());
    }
    EXPECT_LE(OpenHandleCount(), before + kLimit);
    constexpr LONG kWidth = 37, kHeight = 23;
    std::vector<std::int16_t> whole(kWidth * kHeight);
    std::vector<BYTE> wholeMask(mask::Bytes(whole.size()));
    ASSERT_EQ(sources[0]->ReadWindow(1, 0, 0, kWidth, kHeight, whole.data(), wholeMask.data()),
              S_OK);
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&, t] {
        std::vector<std::int16_t> values(whole.size());
        std::vector<BYTE> bits(wholeMask.size());
        for (int repeat = 0; repeat < 5; ++repeat)
          for (std::size_t i = 0; i < sources.size(); ++i) {
            const auto& source = sources[(i + static_cast<std::size_t>(t)) % sources.size()];
            if (FAILED(source->ReadWindow(1, 0, 0, kWidth, kHeight, values.data(), bits.data())) ||
                values != whole || bits != wholeMask)
              ++mismatches;
          }
      });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    // Reads over, only idle handles stay open, within the limit.
    EXPECT_LE(OpenHandleCount(), before + kLimit);
  }
  EXPECT_EQ(OpenHandleCount(), before);
  SetOpenHandleLimit(0);
}

// A view in another spatial reference reads through the warper: each view cell takes the
// source cell under its centre (nearest) or the interpolated value (bilinear), computed
// here with an independent transformation; cells beyond the source are invalid.
TEST_F(GdalTest, ViewsInAnotherReferenceReproject) {
  const std::string in = (dir_ / "utm.tif").string();
  constexpr int kColumns = 100, kRows = 80;
  {
    GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), in.c_str(), kColumns, kRows, 1,
                                 GDT_Float32, nullptr);
    double t[6] = {500000, 30, 0, 4600000, 0, -30};
    GDALSetGeoTransform(ds, t);
    GDALSetProjection(ds, Utm33Wkt().c_str());
    std::vector<float> values(kColumns * kRows);
    for (int r = 0; r < kRows; ++r)
      for (int c = 0; c < kColumns; ++c)
        values[r * kColumns + c] = static_cast<float>(c + 1000 * r);
    ASSERT_EQ(GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, 0, kColumns, kRows, values.data(),
                           kColumns, kRows, GDT_Float32, 0, 0),
              CE_None);
    GDALClose(ds);
  }
  OGRSpatialReferenceH utm = OSRNewSpatialReference(nullptr),
                       geographic = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(utm, 32633);
  OSRImportFromEPSG(geographic, 4326);
  OSRSetAxisMappingStrategy(utm, OAMS_TRADITIONAL_GIS_ORDER);
  OSRSetAxisMappingStrategy(geographic, OAMS_TRADITIONAL_GIS_ORDER);
  OGRCoordinateTransformationH toUtm = OCTNewCoordinateTransformation(geographic, utm);
  char* wkt = nullptr;
  OSRExportToWkt(geographic, &wkt);
  auto reference = MakeObject<SpatialReference>();
  reference->put_WKT(Bstr(std::string_view(wkt)).Get());
  CPLFree(wkt);

  ComPtr<IRasterDataset> dataset;
  ASSERT_EQ(OpenDatasetByName(ToUtf16(in), &dataset), S_OK) << ToUtf8(TakeErrorDescription());
  // Longitude and latitude bounds a little larger than the source: its corners fall outside.
  const double west = 14.99, east = 15.04, south = 41.525, north = 41.555;
  constexpr LONG kViewColumns = 60, kViewRows = 45;
  for (const LONG method : {kNearest, kBilinear}) {
    ComPtr<IRaster> view;
    ASSERT_EQ(dataset->CreateDefaultRaster(&view), S_OK);
    auto props = view.As<IRasterProps>();
    ASSERT_EQ(props->put_SpatialReference(reference.As<ISpatialReference>().Get()), S_OK);
    auto extent = MakeObject<Envelope>();
    extent->PutCoords(west, south, east, north);
    ASSERT_EQ(props->put_Extent(extent.As<IEnvelope>().Get()), S_OK);
    props->put_Width(kViewColumns);
    props->put_Height(kViewRows);
    props->put_PixelType(kPixelF64);
    view->put_ResampleMethod(method);
    ComPtr<IPixelBlock> block;
    ASSERT_EQ(view->CreatePixelBlock(kViewColumns, kViewRows, &block), S_OK);
    ASSERT_EQ(view->ReadAt(0, 0, block.Get()), S_OK) << ToUtf8(TakeErrorDescription());
    int checked = 0, outside = 0;
    for (LONG r = 0; r < kViewRows; ++r) {
      for (LONG c = 0; c < kViewColumns; ++c) {
        double x = west + (c + 0.5) * (east - west) / kViewColumns,
               y = north - (r + 0.5) * (north - south) / kViewRows;
        ASSERT_TRUE(OCTTransform(toUtm, 1, &x, &y, nullptr));
        const double column = (x - 500000) / 30, sourceRow = (4600000 - y) / 30;
        const std::size_t i = static_cast<std::size_t>(r * kViewColumns + c);
        const bool valid = mask::Get(block->Mask(0), i);
        const double value = PixelValue(block.Get(), 0, i);
        const bool farInside = column > 1.01 && column < kColumns - 1.01 && sourceRow > 1.01 &&
                               sourceRow < kRows - 1.01;
        const bool farOutside =
            column < -1 || column > kColumns + 1 || sourceRow < -1 || sourceRow > kRows + 1;
        if (farOutside) {
          EXPECT_FALSE(valid) << c << "," << r;
          ++outside;
        }
        if (!farInside) continue;
        ASSERT_TRUE(valid) << c << "," << r;
        if (method == kNearest) {
          const double fc = column - std::floor(column), fr = sourceRow - std::floor(sourceRow);
          if (fc < 1e-3 || fc > 1 - 1e-3 || fr < 1e-3 || fr > 1 - 1e-3) continue;  // on a cell edge
          EXPECT_EQ(value, std::floor(column) + 1000 * std::floor(sourceRow)) << c << "," << r;
        } else {
          // The values are linear in column and row, so interpolation reproduces them.
          EXPECT_NEAR(value, (column - 0.5) + 1000 * (sourceRow - 0.5), 0.05) << c << "," << r;
        }
        ++checked;
      }
    }
    EXPECT_GT(checked, 1000) << method;
    EXPECT_GT(outside, 10) << method;
  }
  OCTDestroyCoordinateTransformation(toUtm);
  OSRDestroySpatialReference(utm);
  OSRDestroySpatialReference(geographic);
}

}  // namespace
}  // namespace pw::raster::gdal
