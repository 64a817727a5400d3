// GDAL-backed reads and export: window reads of a tiled file with and without a no-data
// value, a reprojected view, and a whole export, in cells per second.
#include <benchmark/benchmark.h>

#include <cpl_conv.h>
#include <cpl_string.h>
#include <gdal.h>
#include <ogr_srs_api.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "raster/gdal/export.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/opener.h"
#include "raster/pixel_block.h"
#include "raster/values/geometry.h"
#include "raster/values/spatial_reference.h"

namespace {

using namespace pw;
using namespace pw::raster;

constexpr int kSize = 2048;

std::string WktOfEpsg(int code) {
  OGRSpatialReferenceH sr = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(sr, code);
  char* wkt = nullptr;
  OSRExportToWkt(sr, &wkt);
  std::string text = wkt ? wkt : "";
  CPLFree(wkt);
  OSRDestroySpatialReference(sr);
  return text;
}

// A tiled F32 terrain in GDAL's in-memory file system, with or without a no-data value.
std::string Terrain(bool noData) {
  const std::string name = noData ? "/vsimem/bench-nodata.tif" : "/vsimem/bench.tif";
  static bool made[2] = {false, false};
  if (made[noData]) return name;
  gdal::Initialize();
  char** options = nullptr;
  options = CSLSetNameValue(options, "TILED", "YES");
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("GTiff"), name.c_str(), kSize, kSize, 1, GDT_Float32, options);
  CSLDestroy(options);
  double t[6] = {500000, 30, 0, 4600000 + 30.0 * kSize, 0, -30};
  GDALSetGeoTransform(ds, t);
  GDALSetProjection(ds, WktOfEpsg(32633).c_str());
  std::vector<float> row(kSize);
  GDALRasterBandH band = GDALGetRasterBand(ds, 1);
  if (noData) GDALSetRasterNoDataValue(band, -9999);
  for (int r = 0; r < kSize; ++r) {
    for (int c = 0; c < kSize; ++c)
      row[c] = (noData && (c * 7 + r) % 13 == 0)
                   ? -9999.0f
                   : static_cast<float>(std::sin(c / 50.0) * 100 + r * 0.1);
    if (GDALRasterIO(band, GF_Write, 0, r, kSize, 1, row.data(), kSize, 1, GDT_Float32, 0, 0) !=
        CE_None)
      break;
  }
  GDALClose(ds);
  made[noData] = true;
  return name;
}

ComPtr<IRaster> View(bool noData) {
  ComPtr<IRasterDataset> dataset;
  OpenDatasetByName(ToUtf16(Terrain(noData)), &dataset);
  ComPtr<IRaster> view;
  dataset->CreateDefaultRaster(&view);
  return view;
}

void ReadBlocks(benchmark::State& state, IRaster* view) {
  const LONG size = 256;
  ComPtr<IPixelBlock> block;
  view->CreatePixelBlock(size, size, &block);
  LONG r = 0;
  for (auto _ : state) {
    view->ReadAt(512, r, block.Get());
    r = (r + size) % 1536;
  }
  state.counters["cells/s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * size * size, benchmark::Counter::kIsRate);
}

void BM_GdalRead(benchmark::State& state) {
  const ComPtr<IRaster> view = View(state.range(0) != 0);
  ReadBlocks(state, view.Get());
}
BENCHMARK(BM_GdalRead)->ArgName("nodata")->Arg(0)->Arg(1);

// A view in geographic coordinates over the UTM file: every read goes through the warper.
void BM_GdalReadReprojected(benchmark::State& state) {
  const ComPtr<IRaster> view = View(false);
  auto props = view.As<IRasterProps>();
  auto reference = MakeObject<SpatialReference>();
  reference->put_WKT(Bstr(std::string_view(WktOfEpsg(4326))).Get());
  props->put_SpatialReference(reference.As<ISpatialReference>().Get());
  auto extent = MakeObject<Envelope>();
  extent->PutCoords(15.0, 41.55, 15.7, 42.1);
  props->put_Extent(extent.As<IEnvelope>().Get());
  props->put_Width(kSize);
  props->put_Height(kSize);
  view->put_ResampleMethod(static_cast<LONG>(state.range(0)));
  ReadBlocks(state, view.Get());
}
BENCHMARK(BM_GdalReadReprojected)->ArgName("method")->Arg(kNearest)->Arg(kBilinear);

// The whole file exported to a GeoTIFF in the temporary folder.
void BM_GdalExport(benchmark::State& state) {
  const ComPtr<IRaster> view = View(true);
  gdal::ExportOptions options;
  options.threads = static_cast<int>(state.range(0));
  const std::filesystem::path out =
      std::filesystem::temp_directory_path() / "pixwerk-bench-export.tif";
  for (auto _ : state) gdal::ExportRaster(view.Get(), out.string(), options);
  std::error_code ec;
  std::filesystem::remove(out, ec);
  state.counters["cells/s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kSize * kSize, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_GdalExport)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
