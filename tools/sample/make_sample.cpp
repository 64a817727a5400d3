// pixwerk-sample: writes the bundled sample data into a folder: a fractal terrain DEM
// (dem.tif, 32-bit float, 30 m cells, WGS 84 / UTM zone 33N), a four-band image
// (image.tif, 16-bit, bands blue/green/red/nir derived from the terrain), a land-cover
// raster with its legend (landcover.tif, landcover_legend.csv) and a chain that reads the
// DEM (chain.json). Usage: pixwerk-sample FOLDER [SIZE]
#include <cpl_conv.h>
#include <cpl_string.h>
#include <gdal.h>
#include <ogr_srs_api.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

// Diamond-square terrain on a (2^k + 1) grid, in metres.
std::vector<float> Terrain(int size, unsigned seed) {
  int n = 1;
  while (n + 1 < size) n *= 2;
  const int side = n + 1;
  std::vector<float> h(static_cast<std::size_t>(side) * side, 0.0f);
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> jitter(-1.0f, 1.0f);
  auto at = [&](int x, int y) -> float& { return h[static_cast<std::size_t>(y) * side + x]; };
  at(0, 0) = 400, at(n, 0) = 900, at(0, n) = 300, at(n, n) = 1200;
  float amplitude = 600;
  for (int step = n; step > 1; step /= 2, amplitude *= 0.55f) {
    const int half = step / 2;
    for (int y = half; y < n; y += step)
      for (int x = half; x < n; x += step)
        at(x, y) = (at(x - half, y - half) + at(x + half, y - half) + at(x - half, y + half) +
                    at(x + half, y + half)) /
                       4 +
                   amplitude * jitter(random);
    for (int y = 0; y <= n; y += half)
      for (int x = (y / half) % 2 == 0 ? half : 0; x <= n; x += step) {
        float sum = 0;
        int count = 0;
        for (auto [dx, dy] :
             {std::pair{-half, 0}, std::pair{half, 0}, std::pair{0, -half}, std::pair{0, half}}) {
          const int sx = x + dx, sy = y + dy;
          if (sx < 0 || sy < 0 || sx > n || sy > n) continue;
          sum += at(sx, sy);
          ++count;
        }
        at(x, y) = sum / static_cast<float>(count) + amplitude * jitter(random);
      }
  }
  std::vector<float> out(static_cast<std::size_t>(size) * size);
  for (int y = 0; y < size; ++y)
    for (int x = 0; x < size; ++x)
      out[static_cast<std::size_t>(y) * size + x] = std::max(0.0f, at(x, y));
  return out;
}

bool Write(const std::string& path, int size, int bands, GDALDataType type,
           const std::vector<std::vector<double>>& data, const std::vector<const char*>& names,
           double noData) {
  char** options = nullptr;
  options = CSLSetNameValue(options, "TILED", "YES");
  options = CSLSetNameValue(options, "COMPRESS", "DEFLATE");
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), size, size, bands, type, options);
  CSLDestroy(options);
  if (ds == nullptr) return false;
  double t[6] = {500000, 30, 0, 4650000, 0, -30};
  GDALSetGeoTransform(ds, t);
  OGRSpatialReferenceH sr = OSRNewSpatialReference(nullptr);
  OSRImportFromEPSG(sr, 32633);
  char* wkt = nullptr;
  OSRExportToWkt(sr, &wkt);
  GDALSetProjection(ds, wkt);
  CPLFree(wkt);
  OSRDestroySpatialReference(sr);
  bool ok = true;
  for (int b = 0; b < bands; ++b) {
    GDALRasterBandH band = GDALGetRasterBand(ds, b + 1);
    GDALSetDescription(band, names[static_cast<std::size_t>(b)]);
    GDALSetRasterNoDataValue(band, noData);
    ok = ok && GDALRasterIO(band, GF_Write, 0, 0, size, size,
                            const_cast<double*>(data[static_cast<std::size_t>(b)].data()), size,
                            size, GDT_Float64, 0, 0) == CE_None;
  }
  GDALClose(ds);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: pixwerk-sample FOLDER [SIZE]\n");
    return 2;
  }
  const std::string folder = argv[1];
  const int size = argc == 3 ? std::atoi(argv[2]) : 1024;
  if (size < 16 || size > 16384) {
    std::fprintf(stderr, "pixwerk-sample: SIZE must be 16 to 16384\n");
    return 2;
  }
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);
  if (ec) {
    std::fprintf(stderr, "pixwerk-sample: cannot create the folder %s: %s\n", folder.c_str(),
                 ec.message().c_str());
    return 1;
  }
  GDALAllRegister();
  const std::vector<float> terrain = Terrain(size, 20261122);
  std::vector<double> dem(terrain.begin(), terrain.end());
  // A lake below 350 m has no elevation data.
  for (double& v : dem)
    if (v < 350) v = -9999;
  if (!Write(folder + "/dem.tif", size, 1, GDT_Float32, {dem}, {"Elevation"}, -9999)) {
    std::fprintf(stderr, "pixwerk-sample: cannot write %s/dem.tif\n", folder.c_str());
    return 1;
  }
  // Reflectances in ten-thousandths: vegetation on the slopes, water in the lake.
  std::vector<std::vector<double>> image(4, std::vector<double>(dem.size()));
  for (std::size_t i = 0; i < dem.size(); ++i) {
    const bool water = dem[i] == -9999;
    const double height = water ? 0 : std::min(1.0, dem[i] / 1500.0);
    image[0][i] = water ? 600 : 400 + 300 * height;
    image[1][i] = water ? 500 : 700 + 200 * height;
    image[2][i] = water ? 300 : 500 + 900 * height;
    image[3][i] = water ? 100 : 3500 - 1500 * height;
  }
  if (!Write(folder + "/image.tif", size, 4, GDT_UInt16, image, {"Blue", "Green", "Red", "NIR"},
             0)) {
    std::fprintf(stderr, "pixwerk-sample: cannot write %s/image.tif\n", folder.c_str());
    return 1;
  }
  // Land cover codes: 1 water (the lake), 2 forest, 3 grassland (below 700 m), 4 rock (above
  // 1200 m); and the legend that groups them into habitats.
  std::vector<double> cover(dem.size());
  for (std::size_t i = 0; i < dem.size(); ++i)
    cover[i] = dem[i] == -9999 ? 1 : dem[i] < 700 ? 3 : dem[i] < 1200 ? 2 : 4;
  if (!Write(folder + "/landcover.tif", size, 1, GDT_Byte, {cover}, {"LandCover"}, 0)) {
    std::fprintf(stderr, "pixwerk-sample: cannot write %s/landcover.tif\n", folder.c_str());
    return 1;
  }
  std::ofstream(folder + "/landcover_legend.csv")
      << "code,name,habitat\n1,water,10\n2,forest,20\n3,grassland,20\n4,rock,30\n";
  std::ofstream(folder + "/chain.json") << R"({
  "function": "IdentityFunction",
  "arguments": { "Raster": "dem.tif" },
  "pixelType": "F32",
  "name": "Sample elevation"
}
)";
  std::printf(
      "sample written to %s: dem.tif, image.tif, landcover.tif (%d x %d), "
      "landcover_legend.csv, chain.json\n",
      folder.c_str(), size, size);
  return 0;
}
