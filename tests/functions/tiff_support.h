// GeoTIFF files made by the tests: a grid, bands of values given by a function, names,
// wavelengths, a reference by EPSG code and a no-data value.
#pragma once

#include <gtest/gtest.h>

#include <cpl_conv.h>
#include <gdal.h>
#include <ogr_srs_api.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pw::test {

struct Tiff {
  double x0, top, cell;
  int columns, rows, bands;
  GDALDataType type;
  std::function<double(int band, int column, int row)> value;
  std::vector<std::string> names = {};
  std::vector<std::pair<double, double>> wavelengths = {};
  int epsg = 0;
  std::optional<double> noData = {};
};

inline void Write(const std::string& path, const Tiff& t) {
  GDALAllRegister();
  GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), t.columns, t.rows,
                               t.bands, t.type, nullptr);
  ASSERT_NE(ds, nullptr);
  double transform[6] = {t.x0, t.cell, 0, t.top, 0, -t.cell};
  GDALSetGeoTransform(ds, transform);
  if (t.epsg != 0) {
    OGRSpatialReferenceH sr = OSRNewSpatialReference(nullptr);
    OSRImportFromEPSG(sr, t.epsg);
    char* wkt = nullptr;
    OSRExportToWkt(sr, &wkt);
    GDALSetProjection(ds, wkt);
    CPLFree(wkt);
    OSRDestroySpatialReference(sr);
  }
  for (int b = 0; b < t.bands; ++b) {
    std::vector<double> values(static_cast<std::size_t>(t.columns) * t.rows);
    for (int r = 0; r < t.rows; ++r)
      for (int c = 0; c < t.columns; ++c) values[r * t.columns + c] = t.value(b, c, r);
    GDALRasterBandH band = GDALGetRasterBand(ds, b + 1);
    if (t.noData) GDALSetRasterNoDataValue(band, *t.noData);
    ASSERT_EQ(GDALRasterIO(band, GF_Write, 0, 0, t.columns, t.rows, values.data(), t.columns,
                           t.rows, GDT_Float64, 0, 0),
              CE_None);
    if (b < static_cast<int>(t.names.size())) GDALSetDescription(band, t.names[b].c_str());
    if (b < static_cast<int>(t.wavelengths.size())) {
      GDALSetMetadataItem(band, "WavelengthMin", std::to_string(t.wavelengths[b].first).c_str(),
                          nullptr);
      GDALSetMetadataItem(band, "WavelengthMax", std::to_string(t.wavelengths[b].second).c_str(),
                          nullptr);
    }
  }
  GDALClose(ds);
}

}  // namespace pw::test
