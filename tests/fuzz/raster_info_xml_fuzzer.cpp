// libFuzzer target: the raster info record's XML loader.
#include "tests/fuzz/raster_info_fuzzers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  return pw::fuzz::CheckRasterInfoLoader(
      [&](IUnknown* record) { return pw::persist::LoadXml(text, record); });
}
