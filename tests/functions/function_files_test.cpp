// Arithmetic, NDVI and band functions over GeoTIFF files: grids of different extents and
// cell sizes checked cell by cell against values computed here, bands chosen by name and
// wavelength from the files' own band descriptions, and chains run by the command line.
#include <gtest/gtest.h>

#include <cpl_conv.h>
#include <gdal.h>
#include <ogr_srs_api.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <optional>
#include <thread>

#include "framework/chain_json.h"
#include "functions/bands/extract_band_function.h"
#include "functions/elementary/arithmetic_function.h"
#include "functions/elementary/ndvi_function.h"
#include "functions/terrain/hillshade_function.h"
#include "functions/terrain/slope_function.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/mask.h"
#include "tests/functions/function_test_support.h"
#include "tests/functions/tiff_support.h"
#include "tests/test_support.h"

namespace pw::functions {
namespace {

using test::Create;
using test::Output;
using test::ReadOutput;
using test::Tiff;
using test::Write;

class FunctionFiles : public ::testing::Test {
 protected:
  void SetUp() override { raster::gdal::Initialize(); }
  test::TempDir dir_;
};

// A: 10 x 8 cells of 10 from (0, 80); B: 5 x 4 cells of 25 from (40, 105). Both hold
// values that name their cell, so every output cell shows which cells it read.
TEST_F(FunctionFiles, ArithmeticOfTwoGridsFollowsEachExtentAndCellSizeRule) {
  const Tiff a{0, 80, 10, 10, 8, 1, GDT_Float32, [](int, int c, int r) { return c + 10.0 * r; }};
  const Tiff b{40, 105, 25,          5,
               4,  1,   GDT_Float32, [](int, int c, int r) { return 1000 + c + 10.0 * r; }};
  const std::string pa = (dir_ / "a.tif").string(), pb = (dir_ / "b.tif").string();
  Write(pa, a);
  Write(pb, b);
  struct Box {
    double x0, y0, x1, y1;
  };
  const Box boxA{0, 0, 100, 80}, boxB{40, 5, 165, 105};
  for (LONG extentType = 0; extentType <= 3; ++extentType) {
    for (LONG cellType = 0; cellType <= 4; ++cellType) {
      // The expected grid, from the rules.
      Box e = extentType == 0 ? boxA : extentType == 3 ? boxB : boxA;
      if (extentType == 1)
        e = {std::max(boxA.x0, boxB.x0), std::max(boxA.y0, boxB.y0), std::min(boxA.x1, boxB.x1),
             std::min(boxA.y1, boxB.y1)};
      if (extentType == 2)
        e = {std::min(boxA.x0, boxB.x0), std::min(boxA.y0, boxB.y0), std::max(boxA.x1, boxB.x1),
             std::max(boxA.y1, boxB.y1)};
      const double cells[] = {10, 10, 25, 17.5, 25};  // first, smallest, largest, mean, last
      const double cell = cells[cellType];
      const int columns = static_cast<int>(std::floor((e.x1 - e.x0) / cell + 0.5));
      const int rows = static_cast<int>(std::floor((e.y1 - e.y0) / cell + 0.5));

      auto function = Create<IRasterFunction>(u"ArithmeticFunction");
      auto arguments = Create<IArithmeticFunctionArguments2>(u"ArithmeticFunctionArguments");
      arguments->put_Raster(Variant(std::string_view(pa)));
      arguments->put_Raster2(Variant(std::string_view(pb)));
      arguments->put_Operation(arithmetic::kPlus);
      arguments->put_ExtentType(extentType);
      arguments->put_CellsizeType(cellType);
      ASSERT_EQ(function->Bind(arguments.Get()), S_OK) << test::LastError();
      const Output out = ReadOutput(function.Get());
      const std::string where =
          "extent " + std::to_string(extentType) + " cell " + std::to_string(cellType);
      LONG width = 0, height = 0;
      out.block->get_Width(&width);
      out.block->get_Height(&height);
      ASSERT_EQ(width, columns) << where;
      ASSERT_EQ(height, rows) << where;
      EXPECT_EQ(out.type, 10) << where;
      // Nearest cell of a source at an output cell's centre; nullopt off the source.
      auto sample = [](const Tiff& t, double x, double y) -> std::optional<double> {
        const double fc = (x - t.x0) / t.cell - 0.5, fr = (t.top - y) / t.cell - 0.5;
        const long c = std::lround(std::floor(fc + 0.5)), r = std::lround(std::floor(fr + 0.5));
        if (c < 0 || r < 0 || c >= t.columns || r >= t.rows) return std::nullopt;
        return t.value(0, static_cast<int>(c), static_cast<int>(r));
      };
      for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < columns; ++c) {
          const double x = e.x0 + (c + 0.5) * cell, y = e.y1 - (r + 0.5) * cell;
          const auto va = sample(a, x, y), vb = sample(b, x, y);
          const std::size_t i = static_cast<std::size_t>(r) * columns + c;
          ASSERT_EQ(out.Valid(0, i), va && vb) << where << " cell " << c << "," << r;
          if (va && vb) {
            ASSERT_EQ(out.At(0, i), *va + *vb) << where << " cell " << c << "," << r;
          }
        }
      }
    }
  }
}

TEST_F(FunctionFiles, NdviChoosesBandsOfAFourBandFileEachWay) {
  // Bands in an unusual order: NIR, Blue, Red, Green, with names and wavelengths.
  const double values[4] = {80, 10, 20, 15};
  const Tiff image{0,
                   4,
                   1,
                   4,
                   4,
                   4,
                   GDT_UInt16,
                   [&](int b, int, int) { return values[b]; },
                   {"NIR", "Blue", "Red", "Green"},
                   {{850, 880}, {450, 510}, {640, 670}, {530, 590}}};
  const std::string path = (dir_ / "image.tif").string();
  Write(path, image);
  const double expected = (80.0 - 20.0) / (80.0 + 20.0);  // red band 2, infrared band 0
  const struct {
    const char* how;
    std::function<void(INDVIFunctionArguments3*)> set;
    double ndvi;
  } cases[] = {
      {"identifiers", [](auto* a) { a->put_VisibleBandID(2), a->put_InfraredBandID(0); }, expected},
      {"names",
       [](auto* a) {
         a->put_VisibleBandName(Bstr(u"red").Get());
         a->put_InfraredBandName(Bstr(u"nir").Get());
       },
       expected},
      {"wavelengths",
       [](auto* a) {
         a->put_VisibleBandWavelength(650);
         a->put_InfraredBandWavelength(860);
       },
       expected},
      {"the file's wavelengths by default", [](auto*) {}, expected},
      {"band-count defaults when identifiers are usable",
       [](auto* a) { a->put_VisibleBandID(1), a->put_InfraredBandID(3); },
       (15.0 - 10.0) / (15.0 + 10.0)},
  };
  for (const auto& c : cases) {
    auto function = Create<IRasterFunction>(u"NDVIFunction");
    auto arguments = Create<INDVIFunctionArguments3>(u"NDVIFunctionArguments");
    arguments->put_Raster(Variant(std::string_view(path)));
    arguments->put_ScientificOutput(VARIANT_TRUE);
    c.set(arguments.Get());
    ASSERT_EQ(function->Bind(arguments.Get()), S_OK) << c.how << ": " << test::LastError();
    const Output out = ReadOutput(function.Get());
    EXPECT_FLOAT_EQ(out.At(0, 5), c.ndvi) << c.how;
  }
}

std::vector<double> ReadBand(const std::string& path, int band, int* bands = nullptr) {
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  EXPECT_NE(ds, nullptr) << path;
  if (!ds) return {};
  if (bands) *bands = GDALGetRasterCount(ds);
  const int w = GDALGetRasterXSize(ds), h = GDALGetRasterYSize(ds);
  std::vector<double> values(static_cast<std::size_t>(w) * h);
  EXPECT_EQ(GDALRasterIO(GDALGetRasterBand(ds, band), GF_Read, 0, 0, w, h, values.data(), w, h,
                         GDT_Float64, 0, 0),
            CE_None);
  GDALClose(ds);
  return values;
}

TEST_F(FunctionFiles, ChainsRunFromTheCommandLine) {
  const Tiff image{0,
                   3,
                   1,
                   3,
                   3,
                   4,
                   GDT_UInt16,
                   [](int b, int c, int r) { return 10.0 * (b + 1) + c + 3 * r; },
                   {"Blue", "Green", "Red", "NIR"}};
  Write((dir_ / "image.tif").string(), image);
  const struct {
    const char* chain;
    int bands;
    std::function<double(int band, int cell)> expected;
  } cases[] = {
      {R"({"function": "ArithmeticFunction",
           "arguments": {"Raster": "image.tif", "Raster2": 2, "Operation": "times"}})",
       4, [](int b, int i) { return 2 * (10.0 * (b + 1) + i); }},
      {R"({"function": "NDVIFunction", "arguments": {"Raster": "image.tif"}})", 1,
       [](int, int i) {
         const double red = 30 + i, nir = 40 + i;
         return std::trunc((nir - red) / (nir + red) * 100 + 100.5);
       }},
      {R"({"function": "ExtractBandFunction",
           "arguments": {"Raster": "image.tif", "BandNames": ["NIR", "red"]}})",
       2, [](int b, int i) { return (b == 0 ? 40.0 : 30.0) + i; }},
      {R"({"function": "CompositeBandFunction",
           "arguments": {"Rasters": ["image.tif",
             {"function": "ExtractBandFunction",
              "arguments": {"Raster": "image.tif", "BandIDs": [0]}}]}})",
       5, [](int b, int i) { return 10.0 * (b == 4 ? 1 : b + 1) + i; }},
  };
  int n = 0;
  for (const auto& c : cases) {
    const std::string chain = (dir_ / ("chain" + std::to_string(n) + ".json")).string();
    const std::string out = (dir_ / ("out" + std::to_string(n++) + ".tif")).string();
    test::WriteFile(chain, c.chain);
    const test::CliResult run = test::RunCli("run " + chain + " -o " + out + " --quiet");
    ASSERT_EQ(run.status, 0) << c.chain << run.out;
    int bands = 0;
    ReadBand(out, 1, &bands);
    ASSERT_EQ(bands, c.bands) << c.chain;
    for (int b = 0; b < bands; ++b) {
      const std::vector<double> values = ReadBand(out, b + 1);
      for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(values[i], c.expected(b, i)) << c.chain << " " << b;
      }
    }
  }
}

// A read of the whole output as one block, or tile by tile (tiles of `tw` x `th`).
struct Image {
  std::vector<std::uint8_t> values, mask;
  bool operator==(const Image&) const = default;
};

Image ReadTiled(IRasterFunction* f, LONG width, LONG height, LONG tw, LONG th, int threads = 1) {
  ComPtr<IRasterInfo> info;
  f->get_RasterInfo(&info);
  LONG type = 0;
  info->get_PixelType(&type);
  const std::size_t size = raster::PixelSize(type);
  Image image;
  image.values.assign(static_cast<std::size_t>(width) * height * size, 0);
  image.mask.assign(static_cast<std::size_t>(width) * height, 0);
  std::vector<std::pair<LONG, LONG>> tiles;
  for (LONG r = 0; r < height; r += th)
    for (LONG c = 0; c < width; c += tw) tiles.emplace_back(c, r);
  std::atomic<std::size_t> next{0};
  auto work = [&] {
    for (std::size_t k = next++; k < tiles.size(); k = next++) {
      const auto [c0, r0] = tiles[k];
      const LONG w = std::min(tw, width - c0), h = std::min(th, height - r0);
      ComPtr<IPixelBlock> block;
      raster::CreatePixelBlock(w, h, 1, type, &block);
      auto origin = MakeObject<raster::Pnt>();
      origin->PutCoords(c0, r0);
      EXPECT_TRUE(SUCCEEDED(f->Read(origin.As<IPnt>().Get(), nullptr, block.Get())));
      for (LONG r = 0; r < h; ++r)
        for (LONG c = 0; c < w; ++c) {
          const std::size_t from = static_cast<std::size_t>(r) * w + c;
          const std::size_t to = static_cast<std::size_t>(r0 + r) * width + c0 + c;
          std::memcpy(&image.values[to * size],
                      static_cast<std::uint8_t*>(block->Buffer(0)) + from * size, size);
          image.mask[to] = raster::mask::Get(block->Mask(0), from);
        }
    }
  };
  std::vector<std::thread> team;
  for (int t = 0; t < threads; ++t) team.emplace_back(work);
  for (auto& t : team) t.join();
  return image;
}

// A narrow file, and one wide enough that a whole read goes in bands of rows (each band
// read with its own margins), read whole and in blocks of several shapes.
TEST_F(FunctionFiles, TerrainReadsInBlocksEqualTheWholeRead) {
  for (const auto& [width, height] : {std::pair{150, 90}, std::pair{4100, 140}}) {
    // Rolling terrain with a no-data hole, projected.
    const Tiff dem{500000,
                   4650000,
                   30,
                   width,
                   height,
                   1,
                   GDT_Float32,
                   [](int, int c, int r) {
                     if ((c - 40) * (c - 40) + (r - 30) * (r - 30) < 50) return -9999.0;
                     return 300 + 40 * std::sin(c / 9.0) * std::cos(r / 7.0) + 0.37 * c;
                   },
                   {},
                   {},
                   32633,
                   -9999.0};
    Write((dir_ / "dem.tif").string(), dem);
    const char* chains[] = {
        R"({"function": "SlopeFunction", "arguments": {"DEM": "dem.tif"}})",
        R"({"function": "SlopeFunction", "arguments": {"DEM": "dem.tif", "RemoveEdgeEffect": true,
            "SlopeType": 2}, "pixelType": "S16"})",
        R"({"function": "AspectFunction", "arguments": {"Raster": "dem.tif"}, "pixelType": "F32"})",
        R"({"function": "HillshadeFunction", "arguments": {"DEM": "dem.tif", "HillshadeType": 1,
            "RemoveEdgeEffect": true}})",
    };
    for (const char* text : chains) {
      ComPtr<IFunctionRasterDataset> chain;
      ASSERT_EQ(framework::LoadChainText(text, dir_.Path(), &chain), S_OK) << test::LastError();
      ComPtr<IRasterFunction> f;
      chain->get_Function(&f);
      const Image whole = ReadTiled(f.Get(), width, height, width, height);
      EXPECT_GT(std::count(whole.mask.begin(), whole.mask.end(), 1), (width - 2) * (height - 10))
          << text;
      EXPECT_TRUE(ReadTiled(f.Get(), width, height, 37, 23) == whole) << text << " " << width;
      EXPECT_TRUE(ReadTiled(f.Get(), width, height, 64, 1) == whole) << text << " " << width;
      EXPECT_TRUE(ReadTiled(f.Get(), width, height, 16, 16, 4) == whole) << text << " " << width;
    }
  }
}

TEST_F(FunctionFiles, TerrainChainsRunOnProjectedAndGeographicFiles) {
  // A plane rising 3 m a cell eastward and 4 m a cell southward.
  const Tiff utm{
      500000, 4650000, 10,          20,
      20,     1,       GDT_Float32, [](int, int c, int r) { return 100 + 3.0 * c + 4.0 * r; },
      {},     {},      32633};
  // On 0.001 degree cells rising 11.1 m a cell eastward: with z 1 the cell counts as 111 m.
  const Tiff geographic{15, 45, 0.001,       20,
                        20, 1,  GDT_Float32, [](int, int c, int) { return 11.1 * c; },
                        {}, {}, 4326};
  Write((dir_ / "utm.tif").string(), utm);
  Write((dir_ / "geographic.tif").string(), geographic);
  const struct {
    const char* chain;
    double expected;  // at an interior cell
  } cases[] = {
      {R"({"function": "SlopeFunction", "arguments": {"DEM": "utm.tif"}})",
       static_cast<float>(std::atan(0.5) * 57.29578)},
      {R"({"function": "SlopeFunction", "arguments": {"DEM": "geographic.tif", "SlopeType": 2}})",
       static_cast<float>(0.1 * 100)},
      {R"({"function": "AspectFunction", "arguments": {"Raster": "utm.tif"}})",
       std::trunc(90 - std::atan2(3.2, -2.4) * 57.29578 + 360 + 0.5)},
      {R"({"function": "HillshadeFunction", "arguments": {"DEM": "utm.tif", "Azimuth": 0,
          "Altitude": 90}})",
       std::trunc(255 / std::sqrt(1 + 0.25) + 0.5)},
  };
  int n = 0;
  for (const auto& c : cases) {
    const std::string chain = (dir_ / ("terrain" + std::to_string(n) + ".json")).string();
    const std::string out = (dir_ / ("terrain" + std::to_string(n++) + ".tif")).string();
    test::WriteFile(chain, c.chain);
    const test::CliResult run = test::RunCli("run " + chain + " -o " + out + " --quiet");
    ASSERT_EQ(run.status, 0) << c.chain << run.out;
    const std::vector<double> values = ReadBand(out, 1);
    EXPECT_NEAR(values[10 * 20 + 10], c.expected, 1e-4) << c.chain;
  }
}

}  // namespace
}  // namespace pw::functions
