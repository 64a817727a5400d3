// Writing a raster (usually a view over a bound function) to a file through GDAL: blocks
// are read in parallel on all cores and written in order with memory bounded by threads x
// block size; invalid pixels become the output's no-data value (or a mask band); the result
// appears under its name only when it is complete.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "raster/model.h"

namespace pw::raster::gdal {

struct ExportOptions {
  std::string format = "GTiff";              // "GTiff" or "COG"
  std::vector<std::string> creationOptions;  // KEY=VALUE pairs for the driver
  int threads = 0;                           // 0: every logical processor
  LONG blockRows = 256;                      // rows read and written at a time
  bool maskBand = false;                     // invalid pixels in a mask band instead of no-data
  // Told the fraction done after each block; returning false cancels the export (E_ABORT).
  std::function<bool(double)> progress;
};

// The no-data value written for invalid pixels when the raster has none: the highest value
// of unsigned types, the lowest of signed types, NaN for floating types.
double ChosenNoData(LONG pixelType);

HRESULT ExportRaster(IRaster* raster, const std::string& path, const ExportOptions& options);

}  // namespace pw::raster::gdal
