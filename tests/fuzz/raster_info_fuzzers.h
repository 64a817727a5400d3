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

namespace pw::fuzz {

template <class Load>
int CheckRasterInfoLoader(Load&& load) {
  auto record = MakeObject<framework::RasterInfo>();
  IUnknown* object = record->AsUnknown();
  (void)load(object);
  std::vector<std::uint8_t> bytes;
  std::string text;
  (void)persist::SaveToBytes(object, persist::kCurrentDocumentVersion, &bytes);
  (void)persist::SaveXml(object, &text);
  (void)persist::SaveJson(object, &text);
  ClearErrorInfo();
  return 0;
}

}  // namespace pw::fuzz
