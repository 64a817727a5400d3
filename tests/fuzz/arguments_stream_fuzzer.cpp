// libFuzzer target: the stream reader of every arguments class (the first byte picks one).
#include "tests/fuzz/loader_fuzzers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const pw::ComPtr<IUnknown> object = pw::fuzz::ArgumentsObject(data[0]);
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  (void)text;
  (void)pw::persist::LoadFromBytes(object.Get(), std::vector<std::uint8_t>(data + 1, data + size));
  return pw::fuzz::SaveEveryForm(object.Get());
}
