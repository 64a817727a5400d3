// libFuzzer target: the json reader of every arguments class (the first byte picks one).
#include "tests/fuzz/loader_fuzzers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const pw::ComPtr<IUnknown> object = pw::fuzz::ArgumentsObject(data[0]);
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  (void)text;
  (void)pw::persist::LoadJson(text, object.Get());
  return pw::fuzz::SaveEveryForm(object.Get());
}
