// pixwerk: the command line over the library's entry points.
//
//   pixwerk functions                      the advertised raster functions
//   pixwerk register   [--registry FILE]   write the registry entries of every class
//   pixwerk unregister [--registry FILE]   remove them again
//
// Exit status: 0 success, 1 the operation failed (the message on standard error),
// 2 bad usage.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "com/platform.h"
#include "resources/string_table.h"
#include "server/class_table.h"
#include "server/display_names.h"
#include "server/entry_points.h"

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

constexpr const char* kUsageText =
    "usage: pixwerk functions\n"
    "       pixwerk register [--registry FILE]\n"
    "       pixwerk unregister [--registry FILE]\n";

int Usage(const std::string& problem) {
  if (!problem.empty()) std::fprintf(stderr, "pixwerk: %s\n", problem.c_str());
  std::fputs(kUsageText, stderr);
  return kUsage;
}

int Fail(HRESULT hr, const std::string& what) {
  std::string message = pw::ToUtf8(pw::TakeErrorDescription());
  if (message.empty()) {
    char code[32];
    std::snprintf(code, sizeof(code), "0x%08X", static_cast<unsigned>(hr));
    message = std::string("result ") + code;
  }
  std::fprintf(stderr, "pixwerk: %s failed: %s\n", what.c_str(), message.c_str());
  return kFailed;
}

// Whether creating the class gives an object (the class is in this build).
bool Available(const pw::server::ClassEntry& entry) {
  pw::ComPtr<IClassFactory> factory;
  if (FAILED(DllGetClassObject(*entry.clsid, pw::IidOf<IClassFactory>(), factory.OutVoid())))
    return false;
  pw::ComPtr<IUnknown> object;
  const HRESULT hr = factory->CreateInstance(nullptr, pw::IidOf<IUnknown>(), object.OutVoid());
  pw::ClearErrorInfo();
  return SUCCEEDED(hr);
}

int ListFunctions() {
  using namespace pw::server;
  int advertised = 0, available = 0;
  for (const ClassEntry& entry : ClassEntries()) {
    if (!ImplementsCategory(entry, CATID_RasterFunctions)) continue;
    ++advertised;
    const std::string name = pw::ToUtf8(entry.name);
    std::string display;
    if (const auto texts = FindFunctionTexts(entry.name))
      display = std::string(pw::res::Find(texts->nameId).value_or(""));
    const bool built = Available(entry);
    if (built) ++available;
    std::printf("%-40s %-28s %s\n", name.c_str(), display.c_str(),
                built ? "" : "(not in this build)");
  }
  std::printf("%d raster functions advertised, %d available in this build\n", advertised,
              available);
  return kOk;
}

int Register(bool add, const std::vector<std::string_view>& options) {
  std::string registry;
  for (std::size_t i = 0; i < options.size(); ++i) {
    if (options[i] == "--registry") {
      if (i + 1 >= options.size()) return Usage("--registry needs a file name");
      registry = std::string(options[++i]);
    } else {
      return Usage("unknown option '" + std::string(options[i]) + "'");
    }
  }
  if (!registry.empty()) setenv("PIXWERK_REGISTRY", registry.c_str(), 1);
  const std::string file = pw::RegistryFilePath().string();
  const HRESULT hr = add ? quarnDllRegisterServer() : quarnDllUnregisterServer();
  if (FAILED(hr)) return Fail(hr, add ? "registration" : "unregistration");
  std::printf("%s %zu class entries %s %s\n", add ? "Registered" : "Unregistered",
              pw::server::kClassEntryCount, add ? "in" : "from", file.c_str());
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string_view> args(argv + 1, argv + argc);
  if (args.empty()) return Usage("");
  const std::string_view command = args.front();
  const std::vector<std::string_view> rest(args.begin() + 1, args.end());
  if (command == "--help" || command == "-h" || command == "help") {
    std::fputs(kUsageText, stdout);
    return kOk;
  }
  if (command == "functions") {
    if (!rest.empty()) return Usage("'functions' takes no arguments");
    return ListFunctions();
  }
  if (command == "register") return Register(true, rest);
  if (command == "unregister") return Register(false, rest);
  return Usage("unknown command '" + std::string(command) + "'");
}
