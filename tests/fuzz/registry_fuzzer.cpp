// libFuzzer target: the registry file parser, and formatting what it read.
#include "com/registry_hive.h"
#include "tests/fuzz/loader_fuzzers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  pw::reg::Hive hive;
  std::string error;
  if (pw::reg::Hive::Parse(text, &hive, &error)) {
    pw::reg::Hive again;
    (void)pw::reg::Hive::Parse(hive.Format(), &again, &error);
  }
  return 0;
}
