// Writing a raster (usually a view over a bound function) to a file through GDAL, with
// nothing lost: every valid cell is written with its exact value and reads back valid, every
// invalid cell reads back invalid, in the file's no-data value or its mask band. Strips are
// read in parallel on all cores and written in row order with memory bounded by threads x
// strip size; the file's bytes depend only on the raster and the options; the result
// appears under its name only when it is complete.
//
// The validity rule (ExportOptions::Validity::kAuto):
// - every band has the same no-data value of its own, which the pixel type holds: it is
//   written, and invalid cells hold it;
// - otherwise (or when a valid cell holds that value) the file has no no-data value, and a
//   per-dataset mask band where some cell is invalid (GDAL's internal mask, which QGIS
//   reads); a raster without invalid cells gets neither;
// - a raster whose bands differ in validity cell by cell cannot keep that in one mask: its
//   bands get a chosen no-data value (NaN for floats, the far end of integer types) that no
//   valid cell may hold.
// A plan that cannot hold the raster exactly fails, saying which cells and what to choose.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "raster/model.h"

namespace pw::raster::gdal {

struct ExportOptions {
  enum class Validity {
    kAuto,    // the rule above
    kNoData,  // `noDataValue` in every band; refused when the type cannot hold it or a valid
              // cell holds it
    kMask,    // a per-dataset mask band, no no-data value; refused when bands differ cell by cell
  };

  std::string format = "GTiff";              // "GTiff" or "COG" (any case)
  std::vector<std::string> creationOptions;  // KEY=VALUE pairs for the driver
  int threads = 0;                           // 0: every logical processor
  LONG blockRows = 256;                      // rows read and written at a time
  Validity validity = Validity::kAuto;
  double noDataValue = 0;
  // Dataset metadata items written into the file (the chain that made it, for example).
  std::vector<std::pair<std::string, std::string>> metadata;
  // Told the fraction done after each strip; returning false cancels the export (E_ABORT).
  std::function<bool(double)> progress;
};

// The no-data value chosen when the bands' own values cannot serve: NaN for floating
// types, the lowest value of signed types, the highest of unsigned types.
double ChosenNoData(LONG pixelType);

HRESULT ExportRaster(IRaster* raster, const std::string& path, const ExportOptions& options);

}  // namespace pw::raster::gdal
