// libFuzzer target: the raster info record's stream loader.
#include "tests/fuzz/raster_info_fuzzers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> bytes(data, data + size);
  return pw::fuzz::CheckRasterInfoLoader(
      [&](IUnknown* record) { return pw::persist::LoadFromBytes(record, bytes); });
}
