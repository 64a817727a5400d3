// libFuzzer target: the chain loader (JSON limits, member and argument checks, nested
// chains, placeholders). No dataset opener is linked, so names fail without touching files.
#include <filesystem>

#include "framework/chain_json.h"
#include "tests/fuzz/loader_fuzzers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  pw::ComPtr<IFunctionRasterDataset> chain;
  (void)pw::framework::LoadChainText(text, "/nonexistent", &chain);
  pw::persist::Json json;
  if (SUCCEEDED(pw::persist::ParseJson(text, &json)))
    (void)pw::framework::FillVariables(&json, {{"A", "1"}, {"B", "${B}"}, {"C", "x.tif"}});
  pw::ClearErrorInfo();
  return 0;
}
