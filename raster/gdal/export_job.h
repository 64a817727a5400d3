// What the export's writers share: the raster and its description, the options and the
// files of one export, and the two writers (GeoTIFF written block by block, COG copied by
// GDAL's COG driver from the raster seen as a GDAL dataset).
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "raster/gdal/export.h"
#include "raster/gdal/export_files.h"
#include "raster/gdal/export_strips.h"

namespace pw::raster::gdal {

struct ExportJob {
  IRaster* raster = nullptr;
  LONG width = 0, height = 0, bands = 0, type = -1;
  int gdalType = 0;
  int threads = 1;
  bool hasTransform = false;
  double transform[6] = {0, 1, 0, 0, 0, -1};
  std::string wkt;
  std::vector<std::string> bandNames;  // empty for a band without a name
  std::vector<std::vector<std::pair<std::string, std::string>>> bandMetadata;
  const ExportOptions* options = nullptr;
  ExportFiles* files = nullptr;
  std::string path;  // as the caller gave it, for messages

  std::size_t PixelBytes() const;
  // The fraction done, to the caller's callback; false cancels.
  bool Progress(double done) const { return !options->progress || options->progress(done); }
};

// Each writes the whole raster into a temporary of `job.files` by `plan` and says which;
// the plan codes of export_strips.h tell the caller to try the next plan.
HRESULT WriteGtiff(const ExportJob& job, const ValidityPlan& plan, std::filesystem::path* written);
HRESULT WriteCog(const ExportJob& job, const ValidityPlan& plan, std::filesystem::path* written);

// GDAL's creation options as a string list, freed on scope exit.
struct CreationOptions {
  char** list = nullptr;
  CreationOptions() = default;
  CreationOptions(const CreationOptions&) = delete;
  CreationOptions& operator=(const CreationOptions&) = delete;
  ~CreationOptions();
  void Set(const std::string& pair);
  bool Has(const char* key) const;
};

// A failed write, with GDAL's reason and what the disk has to do with it.
HRESULT WriteFailure(const ExportJob& job, const std::string& what, std::int64_t needed);

}  // namespace pw::raster::gdal
