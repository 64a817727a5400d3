// libFuzzer targets: the JSON, XML and stream readers of every arguments class (the first
// byte picks the class). Built once per form: PIXWERK_FUZZ_FORM is json, xml or stream.
#include "tests/fuzz/loader_fuzzers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const pw::ComPtr<IUnknown> object = pw::fuzz::ArgumentsObject(data[0]);
  if (!object) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::string_view form = PIXWERK_FUZZ_FORM;
  if (form == "json") (void)pw::persist::LoadJson(text, object.Get());
  if (form == "xml") (void)pw::persist::LoadXml(text, object.Get());
  if (form == "stream")
    (void)pw::persist::LoadFromBytes(object.Get(),
                                     std::vector<std::uint8_t>(data + 1, data + size));
  return pw::fuzz::SaveEveryForm(object.Get());
}
