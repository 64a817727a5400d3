// pixwerk: the command line over the library's entry points.
//
//   pixwerk run CHAIN.json -o OUT.tif [--format GTiff|COG] [--co KEY=VALUE]... [--threads N]
//               [--nodata V | --mask] [--quiet]
//   pixwerk info CHAIN.json                bind and print the output raster info as JSON
//   pixwerk functions                      the advertised raster functions
//   pixwerk register   [--registry FILE]   write the registry entries of every class
//   pixwerk unregister [--registry FILE]   remove them again
//
// Exit status: 0 success, 1 the operation failed (one line on standard error says why),
// 2 bad usage.
#include <gdal.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "com/platform.h"
#include "framework/chain_json.h"
#include "framework/function_raster.h"
#include "raster/gdal/export.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/persist/json.h"
#include "raster/pixel_type.h"
#include "resources/string_table.h"
#include "server/class_table.h"
#include "server/display_names.h"
#include "server/entry_points.h"

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr GIntBig kBlockCacheBytes = GIntBig{32} << 20;

constexpr const char* kUsageText =
    "usage: pixwerk run CHAIN.json -o OUT.tif [--format GTiff|COG] [--co KEY=VALUE]... [--threads "
    "N]\n"
    "                   [--nodata V | --mask] [--quiet]\n"
    "       pixwerk info CHAIN.json|RASTER\n"
    "       pixwerk functions\n"
    "       pixwerk register [--registry FILE]\n"
    "       pixwerk unregister [--registry FILE]\n";

int Usage(const std::string& problem) {
  if (!problem.empty()) std::fprintf(stderr, "pixwerk: %s\n", problem.c_str());
  std::fputs(kUsageText, stderr);
  return kUsage;
}

// The chained message on one line: levels joined outermost first, a level's closing full
// stop dropped before the next.
std::string OneLine(std::string message) {
  std::string out;
  for (char c : message) {
    if (c == '\n') {
      if (!out.empty() && out.back() == '.') out.pop_back();
      out += ": ";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

int Fail(HRESULT hr, const std::string& what) {
  std::string message = OneLine(pw::ToUtf8(pw::TakeErrorDescription()));
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

std::atomic<bool> g_interrupted{false};

void OnInterrupt(int) {
  g_interrupted = true;
}

// A chain file, or any other name as the identity chain over that raster.
HRESULT LoadChainOrRaster(const std::string& name, IFunctionRasterDataset** chain) {
  const std::filesystem::path path(name);
  if (path.extension() == ".json") return pw::framework::LoadChainFile(path, chain);
  pw::persist::Json identity = {{"function", "IdentityFunction"},
                                {"arguments", {{"Raster", name}}}};
  return pw::framework::LoadChain(identity, std::filesystem::current_path(), chain);
}

int Info(const std::vector<std::string_view>& options) {
  if (options.size() != 1) return Usage("'info' takes one chain file or raster");
  pw::ComPtr<IFunctionRasterDataset> chain;
  HRESULT hr = LoadChainOrRaster(std::string(options[0]), &chain);
  if (FAILED(hr)) return Fail(hr, "the chain");
  pw::ComPtr<IRasterFunction> function;
  pw::ComPtr<IRasterInfo> info;
  chain->get_Function(&function);
  function->get_RasterInfo(&info);
  std::string text;
  hr = pw::persist::SaveJson(info.Get(), &text);
  if (FAILED(hr)) return Fail(hr, "describing the output");
  std::printf("%s\n", text.c_str());
  return kOk;
}

int Run(const std::vector<std::string_view>& options) {
  std::string chainFile, output;
  bool quiet = false;
  pw::raster::gdal::ExportOptions exportOptions;
  for (std::size_t i = 0; i < options.size(); ++i) {
    const std::string_view o = options[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= options.size()) return false;
      *out = std::string(options[++i]);
      return true;
    };
    std::string v;
    if (o == "-o" || o == "--output") {
      if (!value(&output)) return Usage("-o needs a file name");
    } else if (o == "--format") {
      if (!value(&exportOptions.format)) return Usage("--format needs GTiff or COG");
      if (!pw::EqualsNoCase(exportOptions.format, "GTiff") &&
          !pw::EqualsNoCase(exportOptions.format, "COG"))
        return Usage("--format is GTiff or COG, not '" + exportOptions.format + "'");
    } else if (o == "--nodata") {
      if (!value(&v)) return Usage("--nodata needs a number (or nan)");
      char* end = nullptr;
      const double number = std::strtod(v.c_str(), &end);
      if (v.empty() || *end != '\0') return Usage("--nodata needs a number, not '" + v + "'");
      if (exportOptions.validity == pw::raster::gdal::ExportOptions::Validity::kMask)
        return Usage("--nodata and --mask exclude each other");
      exportOptions.validity = pw::raster::gdal::ExportOptions::Validity::kNoData;
      exportOptions.noDataValue = number;
    } else if (o == "--mask") {
      if (exportOptions.validity == pw::raster::gdal::ExportOptions::Validity::kNoData)
        return Usage("--nodata and --mask exclude each other");
      exportOptions.validity = pw::raster::gdal::ExportOptions::Validity::kMask;
    } else if (o == "--co") {
      if (!value(&v) || v.find('=') == std::string::npos) return Usage("--co needs KEY=VALUE");
      exportOptions.creationOptions.push_back(v);
    } else if (o == "--threads") {
      if (!value(&v)) return Usage("--threads needs a number");
      char* end = nullptr;
      const long n = std::strtol(v.c_str(), &end, 10);
      if (*end != '\0' || n < 1 || n > 1024)
        return Usage("--threads needs a number from 1 to 1024");
      exportOptions.threads = static_cast<int>(n);
    } else if (o == "--quiet") {
      quiet = true;
    } else if (!o.empty() && o[0] == '-') {
      return Usage("unknown option '" + std::string(o) + "'");
    } else if (chainFile.empty()) {
      chainFile = std::string(o);
    } else {
      return Usage("one chain file only");
    }
  }
  if (chainFile.empty() || output.empty()) return Usage("'run' needs a chain file and -o OUT.tif");
  pw::ComPtr<IFunctionRasterDataset> chain;
  HRESULT hr = pw::framework::LoadChainFile(chainFile, &chain);
  if (FAILED(hr)) return Fail(hr, "the chain");
  // The output names the chain that made it.
  {
    std::ifstream in(chainFile, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    const pw::persist::Json json = pw::persist::Json::parse(text.str(), nullptr, false);
    if (json.is_object()) {
      if (const auto name = json.find("name"); name != json.end() && name->is_string())
        exportOptions.metadata.emplace_back("PIXWERK_CHAIN_NAME", name->get<std::string>());
      exportOptions.metadata.emplace_back("PIXWERK_CHAIN", json.dump());
    }
  }
  pw::ComPtr<IRaster> raster;
  hr = chain.As<IRasterDataset>()->CreateDefaultRaster(&raster);
  if (FAILED(hr)) return Fail(hr, "the chain");
  std::signal(SIGINT, OnInterrupt);
  std::signal(SIGTERM, OnInterrupt);
  const bool bar = !quiet && ::isatty(STDERR_FILENO);
  exportOptions.progress = [&](double done) {
    if (bar) {
      const int filled = static_cast<int>(done * 40);
      std::fprintf(stderr, "\r[%.*s%*s] %3d%%", filled, "########################################",
                   40 - filled, "", static_cast<int>(done * 100));
      std::fflush(stderr);
    }
    return !g_interrupted.load();
  };
  hr = pw::raster::gdal::ExportRaster(raster.Get(), output, exportOptions);
  if (bar) std::fprintf(stderr, "\n");
  if (FAILED(hr)) return Fail(hr, g_interrupted ? "the export (interrupted)" : "the export");
  pw::ComPtr<IRasterProps> props = raster.As<IRasterProps>();
  LONG width = 0, height = 0, bands = 0, type = -1;
  props->get_Width(&width);
  props->get_Height(&height);
  props->get_BandCount(&bands);
  props->get_PixelType(&type);
  if (!quiet)
    std::printf("wrote %s (%ld x %ld, %ld band%s, %s)\n", output.c_str(), static_cast<long>(width),
                static_cast<long>(height), static_cast<long>(bands), bands == 1 ? "" : "s",
                std::string(pw::raster::PixelTypeName(type)).c_str());
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
#ifdef __GLIBC__
  // Strip buffers are large and short-lived: keep them on the heap for reuse rather than
  // mapping fresh zeroed pages for every strip.
  mallopt(M_MMAP_THRESHOLD, 256 << 20);
  mallopt(M_TRIM_THRESHOLD, 512 << 20);
#endif
  pw::raster::gdal::Initialize();
  // Reads go block by block, so a small block cache suffices and keeps the peak memory of
  // a run flat; GDAL_CACHEMAX in the environment still decides when set.
  if (std::getenv("GDAL_CACHEMAX") == nullptr) GDALSetCacheMax64(kBlockCacheBytes);
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
  if (command == "run") return Run(rest);
  if (command == "info") return Info(rest);
  if (command == "register") return Register(true, rest);
  if (command == "unregister") return Register(false, rest);
  return Usage("unknown command '" + std::string(command) + "'");
}
