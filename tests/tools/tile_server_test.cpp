// The tile server over HTTP: every endpoint, tiles against the display rendering of an
// exported file, changed chains, bad requests and many clients at once.
#include "tools/pixwerk/tile_server.h"

#include <cpl_vsi.h>
#include <gdal.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <thread>
#include <vector>

#include "framework/display.h"
#include "raster/gdal/export.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/mask.h"
#include "raster/opener.h"
#include "raster/raster_view.h"
#include "tests/test_support.h"

namespace pw::tools {
namespace {

using persist::Json;

// A decoded PNG: width x height pixels of four bytes.
struct Png {
  int width = 0, height = 0;
  std::vector<std::uint8_t> rgba;
};

Png Decode(const std::string& bytes) {
  static std::atomic<int> counter{0};
  const std::string name = "/vsimem/tile_test_" + std::to_string(++counter) + ".png";
  VSILFILE* file = VSIFileFromMemBuffer(
      name.c_str(), reinterpret_cast<GByte*>(const_cast<char*>(bytes.data())), bytes.size(), FALSE);
  VSIFCloseL(file);
  Png png;
  GDALDatasetH ds = GDALOpen(name.c_str(), GA_ReadOnly);
  if (ds != nullptr && GDALGetRasterCount(ds) == 4) {
    png.width = GDALGetRasterXSize(ds);
    png.height = GDALGetRasterYSize(ds);
    png.rgba.resize(static_cast<std::size_t>(4 * png.width * png.height));
    if (GDALDatasetRasterIO(ds, GF_Read, 0, 0, png.width, png.height, png.rgba.data(), png.width,
                            png.height, GDT_Byte, 4, nullptr, 4, 4 * png.width, 1) != CE_None)
      png.width = 0;
  }
  if (ds != nullptr) GDALClose(ds);
  VSIUnlink(name.c_str());
  return png;
}

class TileServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    raster::gdal::Initialize();
    const std::string make =
        std::string(PIXWERK_SAMPLE) + " " + dir_.Path().string() + " 600 > /dev/null";
    ASSERT_EQ(std::system(make.c_str()), 0);
    std::string message;
    ASSERT_TRUE(server_.Load(Chain(315), dir_.Path(), {}, &message)) << message;
    port_ = server_.Bind("127.0.0.1", 0);
    ASSERT_GT(port_, 0);
    serving_ = std::thread([this] { server_.Serve(); });
    httplib::Client probe("127.0.0.1", port_);
    for (int i = 0; i < 100 && !probe.Get("/api/info"); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  void TearDown() override {
    server_.Stop();
    if (serving_.joinable()) serving_.join();
  }

  static std::string Chain(int azimuth, const std::string& dem = "dem.tif") {
    return R"({"function": "HillshadeFunction", "arguments": {"DEM": ")" + dem +
           R"(", "Azimuth": )" + std::to_string(azimuth) + "}}";
  }

  httplib::Result Get(const std::string& path) const {
    httplib::Client client("127.0.0.1", port_);
    return client.Get(path);
  }

  // The chain exported to a GeoTIFF and opened again, with its cells in memory.
  struct Exported {
    ComPtr<IRaster> raster;
    int width = 0, height = 0;
    std::vector<std::uint8_t> cells, valid;
  };
  Exported Export(int azimuth, const std::string& dem = "dem.tif") const {
    Exported e;
    ComPtr<IFunctionRasterDataset> chain;
    EXPECT_EQ(framework::LoadChainText(Chain(azimuth, dem), dir_.Path(), &chain), S_OK);
    ComPtr<IRaster> raster;
    chain.As<IRasterDataset>()->CreateDefaultRaster(&raster);
    const std::string path = (dir_ / ("export" + std::to_string(azimuth) + "_" + dem)).string();
    EXPECT_EQ(raster::gdal::ExportRaster(raster.Get(), path, {}), S_OK);
    ComPtr<IRasterDataset> file;
    EXPECT_EQ(raster::OpenDatasetByName(ToUtf16(path), &file), S_OK);
    file->CreateDefaultRaster(&e.raster);
    const raster::RasterGrid g = raster::GridOf(e.raster.Get());
    e.width = g.columns;
    e.height = g.rows;
    ComPtr<IPixelBlock> block;
    e.raster->CreatePixelBlock(g.columns, g.rows, &block);
    EXPECT_EQ(e.raster->ReadAt(0, 0, block.Get()), S_OK);
    const auto n = static_cast<std::size_t>(g.columns * g.rows);
    const auto* v = static_cast<const std::uint8_t*>(block->Buffer(0));
    e.cells.assign(v, v + n);
    e.valid.resize(n);
    raster::mask::Unpack(block->Mask(0), n, e.valid.data());
    return e;
  }

  // The DEM at `factor` times its cell size, written beside it: the cell under each coarser
  // cell's centre, or the DEM's own overview of that factor. Coarser cells reaching beyond
  // the DEM are left out.
  std::string CoarseDem(const std::string& dem, int factor, bool overview) const {
    GDALDatasetH source = GDALOpen((dir_ / dem).string().c_str(), GA_ReadOnly);
    EXPECT_NE(source, nullptr);
    GDALRasterBandH band = GDALGetRasterBand(source, 1);
    const int width = GDALGetRasterXSize(source), height = GDALGetRasterYSize(source);
    const int w = width / factor, h = height / factor;
    std::vector<double> cells(static_cast<std::size_t>(w * h));
    if (overview) {
      GDALRasterBandH level = nullptr;
      for (int k = 0; k < GDALGetOverviewCount(band); ++k)
        if (GDALGetRasterBandXSize(GDALGetOverview(band, k)) == (width + factor - 1) / factor)
          level = GDALGetOverview(band, k);
      EXPECT_NE(level, nullptr);
      EXPECT_EQ(GDALRasterIO(level, GF_Read, 0, 0, w, h, cells.data(), w, h, GDT_Float64, 0, 0),
                CE_None);
    } else {
      std::vector<double> all(static_cast<std::size_t>(width * height));
      EXPECT_EQ(GDALRasterIO(band, GF_Read, 0, 0, width, height, all.data(), width, height,
                             GDT_Float64, 0, 0),
                CE_None);
      for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c)
          cells[static_cast<std::size_t>(r * w + c)] = all[static_cast<std::size_t>(
              (r * factor + factor / 2) * width + c * factor + factor / 2)];
    }
    double t[6];
    GDALGetGeoTransform(source, t);
    t[1] *= factor;
    t[5] *= factor;
    const std::string name = "coarse" + std::to_string(factor) + (overview ? "o_" : "_") + dem;
    GDALDatasetH out = GDALCreate(GDALGetDriverByName("GTiff"), (dir_ / name).string().c_str(), w,
                                  h, 1, GDALGetRasterDataType(band), nullptr);
    GDALSetGeoTransform(out, t);
    GDALSetProjection(out, GDALGetProjectionRef(source));
    int hasNoData = 0;
    const double noData = GDALGetRasterNoDataValue(band, &hasNoData);
    if (hasNoData) GDALSetRasterNoDataValue(GDALGetRasterBand(out, 1), noData);
    EXPECT_EQ(GDALRasterIO(GDALGetRasterBand(out, 1), GF_Write, 0, 0, w, h, cells.data(), w, h,
                           GDT_Float64, 0, 0),
              CE_None);
    GDALClose(out);
    GDALClose(source);
    return name;
  }

  // A whole-raster tile at `z` against `reference`, the chain exported at that level's cell
  // size: equal where its cells lie, transparent beyond them. Returns the pixels compared.
  int ExpectTileEquals(int z, const Exported& reference) const {
    const auto tile = Get("/api/tiles/" + std::to_string(z) + "/0/0.png");
    EXPECT_TRUE(tile);
    if (!tile) return 0;
    EXPECT_EQ(tile->status, 200);
    const Png png = Decode(tile->body);
    EXPECT_EQ(png.width, 256);
    if (png.width != 256) return 0;
    int compared = 0;
    for (int r = 0; r < 256; ++r)
      for (int c = 0; c < 256; ++c) {
        const std::uint8_t* px = &png.rgba[static_cast<std::size_t>(4 * (r * 256 + c))];
        if (c >= reference.width || r >= reference.height) {
          EXPECT_EQ(px[3], 0) << "level " << z << " beyond the raster at " << c << "," << r;
          if (px[3] != 0) return compared;
          continue;
        }
        const auto at = static_cast<std::size_t>(r * reference.width + c);
        const bool valid = reference.valid[at] != 0;
        if (px[3] != (valid ? 255 : 0) || (valid && px[0] != reference.cells[at])) {
          ADD_FAILURE() << "level " << z << " pixel " << c << "," << r << " shows " << int(px[0])
                        << "/" << int(px[3]) << ", the reference " << int(reference.cells[at])
                        << "/" << valid;
          return compared;
        }
        ++compared;
      }
    return compared;
  }

  // The cells of a raster that its first tile shows.
  static int Shown(const Exported& e) { return std::min(e.width, 256) * std::min(e.height, 256); }

  test::TempDir dir_;
  TileServer server_;
  int port_ = -1;
  std::thread serving_;
};

TEST_F(TileServerTest, InfoChainAndPageDescribeWhatIsServed) {
  const auto info = Get("/api/info");
  ASSERT_TRUE(info);
  ASSERT_EQ(info->status, 200);
  const Json j = Json::parse(info->body);
  EXPECT_EQ(j["width"], 600);
  EXPECT_EQ(j["height"], 600);
  EXPECT_EQ(j["pixelType"], "U8");
  EXPECT_EQ(j["tileSize"], 256);
  EXPECT_EQ(j["maxZoom"], 2);  // 600 cells: 3 tiles across at the native level, 1 at level 0
  EXPECT_NE(j["proj4"].get<std::string>().find("+proj=utm"), std::string::npos);
  EXPECT_EQ(j["geotransform"][1], 30.0);
  const auto chain = Get("/api/chain");
  ASSERT_TRUE(chain);
  const Json c = Json::parse(chain->body);
  EXPECT_EQ(c["chain"]["arguments"]["Azimuth"], 315);
  bool azimuth = false;
  for (const Json& a : c["functions"]["HillshadeFunction"])
    azimuth |= a["name"] == "Azimuth" && a["default"] == "315";
  EXPECT_TRUE(azimuth) << chain->body;
  const auto page = Get("/");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_NE(page->body.find("<html"), std::string::npos);
}

TEST_F(TileServerTest, NativeTilesEqualTheDisplayRenderingOfTheExportedFile) {
  const Exported file = Export(315);
  for (const auto& [x, y] : {std::pair{0, 0}, std::pair{1, 1}, std::pair{2, 2}}) {
    const auto tile = Get("/api/tiles/2/" + std::to_string(x) + "/" + std::to_string(y) + ".png");
    ASSERT_TRUE(tile);
    ASSERT_EQ(tile->status, 200);
    EXPECT_EQ(tile->get_header_value("Content-Type"), "image/png");
    const Png png = Decode(tile->body);
    ASSERT_EQ(png.width, 256);
    int checked = 0;
    for (int r = 0; r < 256; ++r)
      for (int c = 0; c < 256; ++c) {
        const int column = x * 256 + c, row = y * 256 + r;
        const std::uint8_t* px = &png.rgba[static_cast<std::size_t>(4 * (r * 256 + c))];
        if (column >= file.width || row >= file.height) {
          ASSERT_EQ(px[3], 0) << "beyond the raster at " << column << "," << row;
          continue;
        }
        const auto at = static_cast<std::size_t>(row * file.width + column);
        ASSERT_EQ(px[3], file.valid[at] ? 255 : 0) << column << "," << row;
        if (file.valid[at]) {
          ASSERT_EQ(px[0], file.cells[at]) << column << "," << row;
        }
        ++checked;
      }
    EXPECT_GT(checked, 0);
  }
}

// Coarser levels compute the chain at their own cell size: the hillshade of the DEM
// sampled at that size, not a sample of the native hillshade.
TEST_F(TileServerTest, CoarserLevelsComputeTheChainOnTheSampledInputs) {
  for (int z : {0, 1}) {
    const int factor = 1 << (2 - z);
    const Exported reference = Export(315, CoarseDem("dem.tif", factor, false));
    EXPECT_EQ(ExpectTileEquals(z, reference), Shown(reference)) << z;
  }
}

TEST_F(TileServerTest, CoarserLevelsReadTheInputsOverviews) {
  {
    GDALDatasetH dem = GDALOpen((dir_ / "dem.tif").string().c_str(), GA_ReadOnly);
    GDALDatasetH copy =
        GDALCreateCopy(GDALGetDriverByName("GTiff"), (dir_ / "dem_ov.tif").string().c_str(), dem,
                       FALSE, nullptr, nullptr, nullptr);
    GDALClose(dem);
    ASSERT_NE(copy, nullptr);
    int levels[] = {2, 4};
    ASSERT_EQ(GDALBuildOverviews(copy, "AVERAGE", 2, levels, 0, nullptr, nullptr, nullptr),
              CE_None);
    GDALClose(copy);
  }
  std::string message;
  ASSERT_TRUE(server_.Load(Chain(315, "dem_ov.tif"), dir_.Path(), {}, &message)) << message;
  for (int z : {0, 1}) {
    const int factor = 1 << (2 - z);
    const Exported overview = Export(315, CoarseDem("dem_ov.tif", factor, true));
    EXPECT_EQ(ExpectTileEquals(z, overview), Shown(overview)) << z;
  }
}

TEST_F(TileServerTest, IdentifyGivesTheValueOfTheCellUnderThePosition) {
  const Exported file = Export(315);
  for (const auto& [column, row] : {std::pair{0, 0}, std::pair{123, 456}, std::pair{599, 599}}) {
    const double x = 500000 + (column + 0.5) * 30, y = 4650000 - (row + 0.5) * 30;
    const auto answer = Get("/api/identify?x=" + std::to_string(x) + "&y=" + std::to_string(y));
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->status, 200);
    const Json j = Json::parse(answer->body);
    EXPECT_EQ(j["column"], column);
    EXPECT_EQ(j["row"], row);
    const auto at = static_cast<std::size_t>(row * file.width + column);
    if (file.valid[at]) {
      EXPECT_EQ(j["values"][0], static_cast<double>(file.cells[at]));
    } else {
      EXPECT_TRUE(j["values"][0].is_null());
    }
  }
}

TEST_F(TileServerTest, BadRequestsAreAnsweredAndTheServerGoesOnServing) {
  const struct {
    std::string path;
    int status;
    std::string message;
  } cases[] = {
      {"/api/tiles/2/3/0.png", 404, "off the raster"},
      {"/api/tiles/0/0/1.png", 404, "off the raster"},
      {"/api/tiles/3/0/0.png", 404, "finer than the native level 2"},
      {"/api/tiles/a/0/0.png", 404, "no such resource"},
      {"/api/tiles/1/1.png", 404, "no such resource"},
      {"/api/identify?x=1&y=2", 404, "off the raster"},
      {"/api/identify?x=500100", 400, "not y=''"},
      {"/api/identify?x=abc&y=4649000", 400, "not x='abc'"},
      {"/viewer/..%2Fsecret", 404, "no such resource"},
  };
  for (const auto& c : cases) {
    const auto answer = Get(c.path);
    ASSERT_TRUE(answer) << c.path;
    EXPECT_EQ(answer->status, c.status) << c.path;
    EXPECT_NE(answer->body.find(c.message), std::string::npos) << c.path << ": " << answer->body;
  }
  httplib::Client client("127.0.0.1", port_);
  const auto bad = client.Put("/api/chain", R"({"function": "HillshadeFunction",
      "arguments": {"DEM": "dem.tif", "Azimth": 90}})",
                              "application/json");
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 400);
  EXPECT_NE(bad->body.find("Azimuth"), std::string::npos) << bad->body;  // the nearest name
  const auto broken = client.Put("/api/chain", "{not json", "application/json");
  ASSERT_TRUE(broken);
  EXPECT_EQ(broken->status, 400);
  const auto tile = Get("/api/tiles/0/0/0.png");
  ASSERT_TRUE(tile);
  EXPECT_EQ(tile->status, 200);
}

TEST_F(TileServerTest, AChangedChainIsServedAfterTheChangeAndNotBefore) {
  const auto before = Get("/api/tiles/2/1/1.png");
  ASSERT_TRUE(before);
  const auto again = Get("/api/tiles/2/1/1.png");
  ASSERT_TRUE(again);
  EXPECT_EQ(before->body, again->body);
  httplib::Client client("127.0.0.1", port_);
  const auto changed = client.Put("/api/chain", Chain(90), "application/json");
  ASSERT_TRUE(changed);
  ASSERT_EQ(changed->status, 200) << changed->body;
  const auto after = Get("/api/tiles/2/1/1.png");
  ASSERT_TRUE(after);
  EXPECT_NE(before->body, after->body);
  const Exported file = Export(90);
  const Png png = Decode(after->body);
  const auto at = static_cast<std::size_t>(300 * file.width + 300);
  ASSERT_TRUE(file.valid[at]);
  EXPECT_EQ(png.rgba[static_cast<std::size_t>(4 * (44 * 256 + 44))], file.cells[at]);
  EXPECT_EQ(Json::parse(Get("/api/chain")->body)["chain"]["arguments"]["Azimuth"], 90);
}

TEST_F(TileServerTest, EightClientsAtOnceGetEveryTileRight) {
  std::vector<std::string> paths;
  for (int z = 0; z <= 2; ++z)
    for (int x = 0; x < (z == 2 ? 3 : z == 1 ? 2 : 1); ++x)
      for (int y = 0; y < (z == 2 ? 3 : z == 1 ? 2 : 1); ++y)
        paths.push_back("/api/tiles/" + std::to_string(z) + "/" + std::to_string(x) + "/" +
                        std::to_string(y) + ".png");
  std::map<std::string, std::string> expected;
  for (const std::string& p : paths) expected[p] = Get(p)->body;
  std::atomic<int> right{0}, wrong{0};
  std::vector<std::thread> clients;
  for (int t = 0; t < 8; ++t)
    clients.emplace_back([&, t] {
      httplib::Client client("127.0.0.1", port_);
      for (int i = 0; i < 50; ++i) {
        const std::string& p = paths[static_cast<std::size_t>(t * 7 + i) % paths.size()];
        const auto answer = client.Get(p);
        (answer && answer->status == 200 && answer->body == expected[p] ? right : wrong)++;
      }
    });
  for (std::thread& c : clients) c.join();
  EXPECT_EQ(right, 400);
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace pw::tools
