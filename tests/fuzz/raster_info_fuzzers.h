// Shared body of the raster info loader fuzzers: load the input, then check that the
// record is still usable whatever the loader said.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "framework/raster_info.h"
#include "raster/persist/document_version.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/xml.h"
#include "tests/fuzz/loader_fuzzers.h"

namespace pw::fuzz {

template <class Load>
int CheckRasterInfoLoader(Load&& load) {
  auto record = MakeObject<framework::RasterInfo>();
  IUnknown* object = record->AsUnknown();
  (void)load(object);
  return SaveEveryForm(object);
}

}  // namespace pw::fuzz
