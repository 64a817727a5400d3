// pixwerk: the command line over the library's entry points, after GDAL's conventions.
//
//   pixwerk run CHAIN.json OUT.tif [options]    bind the chain and write its output
//   pixwerk info CHAIN.json|RASTER [--json]     describe a chain (its tree) or a raster
//   pixwerk functions [--all] [NAME [--markdown]]
//   pixwerk register|unregister [--registry FILE]
//   pixwerk help [COMMAND], pixwerk COMMAND --help, pixwerk --version
//
// Exit status: 0 success, 1 the operation failed (one line on standard error says why),
// 2 bad usage, 130 interrupted.
#include <cpl_conv.h>
#include <gdal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "com/platform.h"
#include "framework/argument_declarations.h"
#include "framework/chain_json.h"
#include "framework/display.h"
#include "framework/function_raster.h"
#include "raster/algorithms/no_data.h"
#include "raster/band_indexes.h"
#include "raster/gdal/export.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/gdal/handle_cache.h"
#include "raster/gdal/picture.h"
#include "raster/opener.h"
#include "raster/persist/json.h"
#include "raster/pixel_type.h"
#include "raster/raster_view.h"
#include "raster/reprojection.h"
#include "resources/string_table.h"
#include "server/class_table.h"
#include "server/display_names.h"
#include "server/entry_points.h"
#include "tools/pixwerk/tile_server.h"

#ifndef PIXWERK_VERSION
#define PIXWERK_VERSION "unknown"
#endif

namespace {

namespace fs = std::filesystem;
using pw::persist::Json;
using Args = std::vector<std::string_view>;

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kInterrupted = 130;
constexpr GIntBig kBlockCacheBytes = GIntBig{32} << 20;

struct Command {
  std::string_view name;
  std::string_view summary;
  std::string_view usage;  // the whole help text of the command
  int (*run)(const Args&);
};

const Command* FindCommand(std::string_view name);

constexpr std::string_view kRunUsage =
    "usage: pixwerk run CHAIN.json OUT.tif [options]\n"
    "       pixwerk run CHAIN.json -o OUT.tif [options]\n"
    "       pixwerk run CHAIN.json OUT.png [--size N] [--ramp NAME]\n"
    "Binds the chain and writes its output as a GeoTIFF or COG, nothing lost: the chain's\n"
    "own no-data value where every band shares one, else a mask band where cells are invalid.\n"
    "A .png or .jpg output is a quicklook instead: one band in grey or a colour ramp, three\n"
    "or more as RGB (the first three), stretched for display unless 8-bit, invalid cells\n"
    "transparent (white in a JPEG).\n"
    "  -o, --output FILE       the output file (.tif, .tiff, .png, .jpg), if not given after\n"
    "                          the chain\n"
    "  --size N                a quicklook's longer side in pixels (default 1024; never\n"
    "                          larger than the raster)\n"
    "  --ramp NAME             a one-band quicklook's colours: grey (default), terrain,\n"
    "                          viridis or spectral\n"
    "  -of, --format FORMAT    GTiff (default) or COG, any case\n"
    "  -co, --co KEY=VALUE     a GDAL creation option, repeatable (-co COMPRESS=DEFLATE)\n"
    "  --nodata V              write invalid cells as V in every band (a number, or nan)\n"
    "  --mask                  write invalid cells into a mask band, with no no-data value\n"
    "  --set NAME=VALUE        fill the chain's ${NAME} placeholders, repeatable\n"
    "  --threads N             worker threads (default: every core)\n"
    "  --cache MB              GDAL's block cache for the inputs (default: a row of blocks of\n"
    "                          every input, from 32 MB to a quarter of the memory)\n"
    "  -q, --quiet             no progress and no summary line\n";
constexpr std::string_view kInfoUsage =
    "usage: pixwerk info CHAIN.json [--set NAME=VALUE]... [--json]\n"
    "       pixwerk info RASTER\n"
    "A chain: the tree of its functions with their arguments (given or default) and the\n"
    "raster it makes. A raster: its size, cells, reference, blocks and bands.\n"
    "  --json                  the chain's output description as JSON instead\n"
    "  --set NAME=VALUE        fill the chain's ${NAME} placeholders, repeatable\n";
constexpr std::string_view kServeUsage =
    "usage: pixwerk serve CHAIN.json [--port P] [--bind ADDRESS] [--set NAME=VALUE]...\n"
    "Serves the chain to a browser: the viewer page, the raster's info, PNG tiles at every\n"
    "zoom level computed on request, the value under a position, and the chain's arguments,\n"
    "which the page may change. Runs until interrupted (Ctrl-C).\n"
    "  --port P                the port (default 8080; 0 takes a free one)\n"
    "  --bind ADDRESS          the address to listen on (default 127.0.0.1, this machine only)\n"
    "  --set NAME=VALUE        fill the chain's ${NAME} placeholders, repeatable\n";
constexpr std::string_view kFunctionsUsage =
    "usage: pixwerk functions [--all]\n"
    "       pixwerk functions NAME [--markdown]\n"
    "The functions this build runs (all the advertised ones with --all); with a NAME (short\n"
    "names and any case will do) its arguments: kind, default, allowed values and meaning.\n";
constexpr std::string_view kRegisterUsage =
    "usage: pixwerk register [--registry FILE]\n"
    "       pixwerk unregister [--registry FILE]\n"
    "Writes (removes) the registry entries of every class, in FILE or PIXWERK_REGISTRY.\n";

void PrintUsage(FILE* to) {
  std::fputs(
      "usage: pixwerk COMMAND [options]      (pixwerk help COMMAND, pixwerk COMMAND --help)\n"
      "  run         bind a chain and write its output to a file\n"
      "  info        describe a chain or a raster\n"
      "  functions   list the functions, or describe one\n"
      "  register    write the registry entries of every class\n"
      "  unregister  remove them\n"
      "  help        this text, or a command's\n"
      "  --version   the version of pixwerk and of GDAL\n",
      to);
}

int Usage(const std::string& problem, std::string_view usage = {}) {
  if (!problem.empty()) std::fprintf(stderr, "pixwerk: %s\n", problem.c_str());
  if (usage.empty()) {
    PrintUsage(stderr);
  } else {
    std::fputs(std::string(usage).c_str(), stderr);
  }
  return kUsage;
}

// The chained message on one line: levels joined outermost first, a level's closing full
// stop dropped before the next.
std::string OneLine(const std::string& message) {
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
  if (message.empty()) message = pw::DescribeResult(hr);
  std::fprintf(stderr, "pixwerk: %s failed: %s\n", what.c_str(), message.c_str());
  return kFailed;
}

// Whether `args` asks for the command's help.
bool WantsHelp(const Args& args) {
  for (std::string_view a : args)
    if (a == "--help" || a == "-h") return true;
  return false;
}

// One "--set NAME=VALUE" into `variables`; false for a malformed one.
bool AddVariable(std::string_view pair, pw::framework::ChainVariables* variables) {
  const auto eq = pair.find('=');
  if (eq == std::string_view::npos || eq == 0) return false;
  (*variables)[std::string(pair.substr(0, eq))] = std::string(pair.substr(eq + 1));
  return true;
}

// --- run -----------------------------------------------------------------------------------

std::atomic<bool> g_interrupted{false};

void OnInterrupt(int) {
  g_interrupted = true;
}

// Progress on standard error: a bar on a terminal, GDAL's "0...10...20" otherwise; it never
// goes back (an export that starts a plan again goes on from where it was).
class Progress {
 public:
  explicit Progress(bool quiet) : quiet_(quiet), terminal_(::isatty(STDERR_FILENO) != 0) {}
  bool operator()(double done) {
    if (quiet_) return !g_interrupted.load();
    if (terminal_) {
      const int filled = static_cast<int>(done * 40);
      if (filled > shown_ || done >= 1) {
        shown_ = std::max(shown_, filled);
        std::fprintf(stderr, "\r[%.*s%*s] %3d%%", shown_,
                     "########################################", 40 - shown_, "",
                     static_cast<int>(shown_ * 2.5));
        std::fflush(stderr);
      }
    } else {
      // A tick each 2.5 %, a number each 10 %, as GDAL's own tools print.
      const int ticks = static_cast<int>(done * 40 + 1e-9);
      for (; printed_ <= std::min(ticks, 40); ++printed_) {
        if (printed_ % 4 == 0) {
          std::fprintf(stderr, "%d", printed_ * 10 / 4);
        } else {
          std::fputc('.', stderr);
        }
      }
      std::fflush(stderr);
    }
    return !g_interrupted.load();
  }
  // Ends the line: " - done." for GDAL's form.
  void Finish(bool done) {
    if (quiet_) return;
    if (terminal_ && shown_ >= 0) std::fputc('\n', stderr);
    if (!terminal_ && printed_ > 0) std::fputs(done ? " - done.\n" : "\n", stderr);
  }

 private:
  bool quiet_, terminal_;
  int shown_ = -1, printed_ = 0;
};

// The format an output name calls for: GeoTIFF for .tif and .tiff (COG when asked); any
// other ending names a format pixwerk does not write.
bool CheckOutputName(const std::string& output, std::string* problem) {
  std::string extension = fs::path(output).extension().string();
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (extension == ".tif" || extension == ".tiff") return true;
  if (pw::raster::gdal::PictureFormat picture; pw::raster::gdal::PictureFormatOf(output, &picture))
    return true;
  *problem = "'" + output + "' ends in '" + fs::path(output).extension().string() +
             "': pixwerk writes GeoTIFF and COG files and quicklooks, named .tif, .tiff, .png "
             "or .jpg";
  if (extension.empty()) *problem = "'" + output + "' has no .tif, .tiff, .png or .jpg ending";
  return false;
}

// GDAL's block cache for a run: `bytes` when the user gave a size; else, unless GDAL_CACHEMAX
// decides, a row of blocks of every input the chain opened, so that a block that two strips
// share (a strip that ends inside a row of blocks, a neighbourhood's margin) is decoded once
// however many inputs there are, from 32 MB up to a quarter of the machine's memory.
void SizeBlockCache(GIntBig bytes) {
  if (bytes > 0) {
    GDALSetCacheMax64(bytes);
    return;
  }
  if (std::getenv("GDAL_CACHEMAX") != nullptr) return;
  const auto work = static_cast<GIntBig>(pw::raster::gdal::OpenBlockRowBytes());
  const GIntBig memory = CPLGetUsablePhysicalRAM();
  const GIntBig most = memory > 0 ? std::max(kBlockCacheBytes, memory / 4) : kBlockCacheBytes;
  GDALSetCacheMax64(std::clamp(work, kBlockCacheBytes, most));
}

// A quicklook of `raster` at most `size` pixels on its longer side.
int Quicklook(IRaster* raster, const std::string& output, pw::raster::gdal::PictureFormat format,
              LONG size, pw::framework::display::Ramp ramp, bool quiet) {
  pw::framework::display::Renderer renderer;
  pw::framework::display::Style style;
  style.ramp = ramp;
  HRESULT hr = renderer.Prepare(raster, style);
  if (FAILED(hr)) return Fail(hr, "the quicklook");
  pw::framework::display::Picture picture;
  hr = renderer.Render(renderer.FittingGrid(size), &picture);
  if (FAILED(hr)) return Fail(hr, "the quicklook");
  hr = pw::raster::gdal::WritePicture(output, picture.width, picture.height, picture.rgba, format);
  if (FAILED(hr)) return Fail(hr, "the quicklook");
  if (!quiet)
    std::printf("wrote %s (%ld x %ld pixels)\n", output.c_str(), static_cast<long>(picture.width),
                static_cast<long>(picture.height));
  return kOk;
}

pw::tools::TileServer* g_server = nullptr;

void OnServeInterrupt(int) {
  g_interrupted = 1;
  if (g_server != nullptr) g_server->Stop();
}

int Serve(const Args& args) {
  std::string chainFile, address = "127.0.0.1";
  int port = 8080;
  pw::framework::ChainVariables variables;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string_view o = args[i];
    const bool hasValue = i + 1 < args.size();
    if (o == "--port") {
      char* end = nullptr;
      const long n = hasValue ? std::strtol(std::string(args[++i]).c_str(), &end, 10) : -1;
      if (!hasValue || *end != '\0' || n < 0 || n > 65535)
        return Usage("--port needs a number from 0 to 65535", kServeUsage);
      port = static_cast<int>(n);
    } else if (o == "--bind") {
      if (!hasValue) return Usage("--bind needs an address", kServeUsage);
      address = std::string(args[++i]);
    } else if (o == "--set") {
      if (!hasValue || !AddVariable(args[++i], &variables))
        return Usage("--set needs NAME=VALUE", kServeUsage);
    } else if (!o.empty() && o[0] == '-') {
      return Usage("unknown option '" + std::string(o) + "'", kServeUsage);
    } else if (chainFile.empty()) {
      chainFile = std::string(o);
    } else {
      return Usage("'serve' takes one chain file", kServeUsage);
    }
  }
  if (chainFile.empty()) return Usage("'serve' needs a chain file", kServeUsage);
  std::ifstream in(chainFile, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "pixwerk: cannot read the chain file '%s'\n", chainFile.c_str());
    return kFailed;
  }
  std::ostringstream text;
  text << in.rdbuf();
  pw::tools::TileServer server;
  server.SetViewerFolder(PIXWERK_VIEWER_DIR);
  std::string message;
  if (!server.Load(text.str(), fs::absolute(chainFile).parent_path(), variables, &message)) {
    std::fprintf(stderr, "pixwerk: the chain failed: %s\n", OneLine(message).c_str());
    return kFailed;
  }
  const int bound = server.Bind(address, port);
  if (bound < 0) {
    std::fprintf(stderr, "pixwerk: cannot listen on %s port %d (in use, or not an address here)\n",
                 address.c_str(), port);
    return kFailed;
  }
  std::printf("serving %s at http://%s:%d/ (Ctrl-C stops)\n", chainFile.c_str(), address.c_str(),
              bound);
  std::fflush(stdout);
  g_server = &server;
  std::signal(SIGINT, OnServeInterrupt);
  std::signal(SIGTERM, OnServeInterrupt);
  server.Serve();
  g_server = nullptr;
  return g_interrupted ? kInterrupted : kOk;
}

int Run(const Args& args) {
  std::string chainFile, output;
  bool quiet = false;
  GIntBig cacheBytes = 0;
  pw::framework::ChainVariables variables;
  pw::raster::gdal::ExportOptions exportOptions;
  bool exportOnly = false;  // an option that only GeoTIFF and COG outputs take
  std::optional<LONG> size;
  std::optional<pw::framework::display::Ramp> ramp;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string_view o = args[i];
    auto value = [&](std::string* out) {
      if (i + 1 >= args.size()) return false;
      *out = std::string(args[++i]);
      return true;
    };
    std::string v;
    if (o == "-o" || o == "--output") {
      if (!value(&output)) return Usage("-o needs a file name", kRunUsage);
    } else if (o == "-of" || o == "--format" || o == "--of") {
      if (!value(&exportOptions.format)) return Usage("-of needs GTiff or COG", kRunUsage);
      exportOnly = true;
      if (!pw::EqualsNoCase(exportOptions.format, "GTiff") &&
          !pw::EqualsNoCase(exportOptions.format, "COG"))
        return Usage("-of is GTiff or COG, not '" + exportOptions.format + "'", kRunUsage);
    } else if (o == "-co" || o == "--co") {
      if (!value(&v) || v.find('=') == std::string::npos)
        return Usage("-co needs KEY=VALUE", kRunUsage);
      exportOptions.creationOptions.push_back(v);
      exportOnly = true;
    } else if (o == "--size") {
      if (!value(&v)) return Usage("--size needs a number of pixels", kRunUsage);
      char* end = nullptr;
      const long n = std::strtol(v.c_str(), &end, 10);
      if (v.empty() || *end != '\0' || n < 1 || n > 65536)
        return Usage("--size needs a number of pixels from 1 to 65536, not '" + v + "'", kRunUsage);
      size = static_cast<LONG>(n);
    } else if (o == "--ramp") {
      if (!value(&v)) return Usage("--ramp needs a name", kRunUsage);
      ramp = pw::framework::display::RampByName(v);
      if (!ramp)
        return Usage(
            "--ramp is one of " + pw::framework::display::RampNames() + ", not '" + v + "'",
            kRunUsage);
    } else if (o == "--set") {
      if (!value(&v) || !AddVariable(v, &variables))
        return Usage("--set needs NAME=VALUE", kRunUsage);
    } else if (o == "--threads") {
      if (!value(&v)) return Usage("--threads needs a number", kRunUsage);
      char* end = nullptr;
      const long n = std::strtol(v.c_str(), &end, 10);
      if (*end != '\0' || n < 1 || n > 1024)
        return Usage("--threads needs a number from 1 to 1024", kRunUsage);
      exportOptions.threads = static_cast<int>(n);
    } else if (o == "--cache") {
      if (!value(&v)) return Usage("--cache needs a size in MB", kRunUsage);
      char* end = nullptr;
      const long long mb = std::strtoll(v.c_str(), &end, 10);
      if (v.empty() || *end != '\0' || mb < 1 || mb > (1LL << 24))
        return Usage("--cache needs a size in MB from 1 to 16777216, not '" + v + "'", kRunUsage);
      cacheBytes = static_cast<GIntBig>(mb) << 20;
    } else if (o == "--nodata") {
      if (!value(&v)) return Usage("--nodata needs a number (or nan)", kRunUsage);
      char* end = nullptr;
      const double number = std::strtod(v.c_str(), &end);
      if (v.empty() || *end != '\0')
        return Usage("--nodata needs a number, not '" + v + "'", kRunUsage);
      if (exportOptions.validity == pw::raster::gdal::ExportOptions::Validity::kMask)
        return Usage("--nodata and --mask exclude each other", kRunUsage);
      exportOptions.validity = pw::raster::gdal::ExportOptions::Validity::kNoData;
      exportOptions.noDataValue = number;
      exportOnly = true;
    } else if (o == "--mask") {
      if (exportOptions.validity == pw::raster::gdal::ExportOptions::Validity::kNoData)
        return Usage("--nodata and --mask exclude each other", kRunUsage);
      exportOptions.validity = pw::raster::gdal::ExportOptions::Validity::kMask;
      exportOnly = true;
    } else if (o == "-q" || o == "--quiet") {
      quiet = true;
    } else if (!o.empty() && o[0] == '-') {
      return Usage("unknown option '" + std::string(o) + "'", kRunUsage);
    } else if (chainFile.empty()) {
      chainFile = std::string(o);
    } else if (output.empty()) {
      output = std::string(o);
    } else {
      return Usage("one chain and one output only ('" + std::string(o) + "' is a third)",
                   kRunUsage);
    }
  }
  if (chainFile.empty() || output.empty())
    return Usage("'run' needs a chain file and an output file", kRunUsage);
  if (std::string problem; !CheckOutputName(output, &problem)) return Usage(problem, kRunUsage);
  pw::raster::gdal::PictureFormat pictureFormat{};
  const bool picture = pw::raster::gdal::PictureFormatOf(output, &pictureFormat);
  if (picture && exportOnly)
    return Usage(
        "-of, -co, --nodata and --mask apply to GeoTIFF and COG outputs, not to the "
        "quicklook '" +
            output + "'",
        kRunUsage);
  if (!picture && (size || ramp))
    return Usage("--size and --ramp apply to .png and .jpg quicklooks, not to '" + output + "'",
                 kRunUsage);

  pw::ComPtr<IFunctionRasterDataset> chain;
  HRESULT hr = pw::framework::LoadChainFile(chainFile, variables, &chain);
  if (FAILED(hr)) return Fail(hr, "the chain");
  pw::ComPtr<IRaster> raster;
  hr = chain.As<IRasterDataset>()->CreateDefaultRaster(&raster);
  if (FAILED(hr)) return Fail(hr, "the chain");
  if (picture)
    return Quicklook(raster.Get(), output, pictureFormat, size.value_or(1024),
                     ramp.value_or(pw::framework::display::Ramp::kGrey), quiet);
  // The output names the chain that made it (placeholders filled).
  {
    std::ifstream in(chainFile, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    Json json;
    if (SUCCEEDED(pw::persist::ParseJson(text.str(), &json)) && json.is_object() &&
        SUCCEEDED(pw::framework::FillVariables(&json, variables))) {
      if (const auto name = json.find("name"); name != json.end() && name->is_string())
        exportOptions.metadata.emplace_back("PIXWERK_CHAIN_NAME", name->get<std::string>());
      exportOptions.metadata.emplace_back("PIXWERK_CHAIN", json.dump());
    }
    pw::ClearErrorInfo();
  }
  SizeBlockCache(cacheBytes);
  std::signal(SIGINT, OnInterrupt);
  std::signal(SIGTERM, OnInterrupt);
  Progress progress(quiet);
  exportOptions.progress = [&](double done) { return progress(done); };
  hr = pw::raster::gdal::ExportRaster(raster.Get(), output, exportOptions);
  progress.Finish(SUCCEEDED(hr));
  if (g_interrupted) {
    pw::ClearErrorInfo();
    std::fprintf(stderr, "pixwerk: interrupted; '%s' was not written\n", output.c_str());
    return kInterrupted;
  }
  if (FAILED(hr)) return Fail(hr, "the export");
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

// --- info ----------------------------------------------------------------------------------

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.10g", v);
  return text;
}

// A raster's size, cells, reference and bands, as `pixwerk info` prints them.
void PrintRaster(IRaster* raster, int blockWidth, int blockHeight) {
  const pw::raster::RasterGrid grid = pw::raster::GridOf(raster);
  pw::ComPtr<IRasterProps> props = pw::ComPtr<IRaster>(raster).As<IRasterProps>();
  pw::ComPtr<ISpatialReference> reference;
  props->get_SpatialReference(&reference);
  LONG bands = 0, type = -1;
  props->get_BandCount(&bands);
  props->get_PixelType(&type);
  std::printf("size: %ld x %ld cells of %s x %s", static_cast<long>(grid.columns),
              static_cast<long>(grid.rows), Number(grid.CellX()).c_str(),
              Number(grid.CellY()).c_str());
  std::printf(" from (%s, %s) to (%s, %s)\n", Number(grid.xmin).c_str(), Number(grid.ymax).c_str(),
              Number(grid.xmax).c_str(), Number(grid.ymin).c_str());
  std::printf("reference: %s\n",
              reference ? pw::raster::ReferenceName(reference.Get()).c_str() : "none");
  if (blockWidth > 0) std::printf("blocks: %d x %d\n", blockWidth, blockHeight);
  pw::raster::SourceInfo info;
  if (auto source = pw::ComPtr<IRaster>(raster).As<IRasterSource>()) source->GetInfo(&info);
  info.noData.resize(static_cast<std::size_t>(std::max<LONG>(bands, 0)));
  std::printf("bands: %ld of %s\n", static_cast<long>(bands),
              std::string(pw::raster::PixelTypeName(type)).c_str());
  for (LONG b = 0; b < bands; ++b) {
    std::string name;
    if (const auto value = pw::raster::BandKeyProperty(raster, b, u"BandName"))
      if (const auto text = value->ToString()) name = pw::ToUtf8(*text);
    const auto& noData = info.noData[static_cast<std::size_t>(b)];
    std::printf("  band %ld%s%s: no-data %s\n", static_cast<long>(b + 1), name.empty() ? "" : " ",
                name.empty() ? "" : ("\"" + name + "\"").c_str(),
                noData ? Number(*noData).c_str() : "none (validity from the cells' mask)");
  }
}

// The tree of a chain's functions with every declared argument, given or default.
void PrintChainTree(const Json& chain, int depth) {
  const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
  const std::string requested = chain.value("function", std::string());
  std::string function = pw::framework::ResolveFunctionName(requested);
  if (function.empty()) function = requested;
  std::printf("%s%s", indent.c_str(), function.c_str());
  if (const auto name = chain.find("name"); name != chain.end() && name->is_string())
    std::printf(" \"%s\"", name->get<std::string>().c_str());
  if (const auto type = chain.find("pixelType"); type != chain.end())
    std::printf(" as %s", type->dump().c_str());
  std::printf("\n");
  static const Json kNone = Json::object();
  const Json& arguments = chain.contains("arguments") ? chain["arguments"] : kNone;
  const pw::framework::FunctionDeclaration* decl = pw::framework::FindFunctionDeclaration(function);
  if (decl == nullptr) return;
  for (const pw::framework::ArgumentDeclaration& item : decl->items) {
    const Json* given = nullptr;
    for (const auto& [key, value] : arguments.items())
      if (decl->Find(std::string_view(key)) == &item) given = &value;
    if (given == nullptr) {
      if (!item.Required())
        std::printf("%s  %s = %s (default)\n", indent.c_str(), std::string(item.name).c_str(),
                    item.Default().c_str());
      continue;
    }
    const auto isChain = [](const Json& v) { return v.is_object() && v.contains("function"); };
    if (isChain(*given)) {
      std::printf("%s  %s =\n", indent.c_str(), std::string(item.name).c_str());
      PrintChainTree(*given, depth + 2);
    } else if (given->is_array() && std::any_of(given->begin(), given->end(), isChain)) {
      std::printf("%s  %s = [\n", indent.c_str(), std::string(item.name).c_str());
      for (const Json& element : *given) {
        if (isChain(element)) {
          PrintChainTree(element, depth + 2);
        } else {
          std::printf("%s    %s\n", indent.c_str(), element.dump().c_str());
        }
      }
      std::printf("%s  ]\n", indent.c_str());
    } else {
      std::printf("%s  %s = %s\n", indent.c_str(), std::string(item.name).c_str(),
                  given->dump().c_str());
    }
  }
}

int Info(const Args& args) {
  std::string target;
  bool json = false;
  pw::framework::ChainVariables variables;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--json") {
      json = true;
    } else if (args[i] == "--set") {
      if (i + 1 >= args.size() || !AddVariable(args[++i], &variables))
        return Usage("--set needs NAME=VALUE", kInfoUsage);
    } else if (!args[i].empty() && args[i][0] == '-') {
      return Usage("unknown option '" + std::string(args[i]) + "'", kInfoUsage);
    } else if (target.empty()) {
      target = std::string(args[i]);
    } else {
      return Usage("'info' takes one chain file or raster", kInfoUsage);
    }
  }
  if (target.empty()) return Usage("'info' needs a chain file or a raster", kInfoUsage);
  std::string extension = fs::path(target).extension().string();
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (extension != ".json") {
    // A raster: described from GDAL.
    pw::ComPtr<IRasterDataset> dataset;
    HRESULT hr = pw::raster::OpenDatasetByName(pw::ToUtf16(target), &dataset);
    if (FAILED(hr)) return Fail(hr, "opening the raster");
    pw::ComPtr<IRaster> raster;
    hr = dataset->CreateDefaultRaster(&raster);
    if (FAILED(hr)) return Fail(hr, "opening the raster");
    int bw = 0, bh = 0;
    if (GDALDatasetH h = GDALOpen(target.c_str(), GA_ReadOnly)) {
      GDALGetBlockSize(GDALGetRasterBand(h, 1), &bw, &bh);
      GDALClose(h);
    }
    std::printf("%s\n", target.c_str());
    PrintRaster(raster.Get(), bw, bh);
    return kOk;
  }
  pw::ComPtr<IFunctionRasterDataset> chain;
  HRESULT hr = pw::framework::LoadChainFile(target, variables, &chain);
  if (FAILED(hr)) return Fail(hr, "the chain");
  if (json) {
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
  std::ifstream in(target, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  Json tree;
  if (SUCCEEDED(pw::persist::ParseJson(text.str(), &tree)) &&
      SUCCEEDED(pw::framework::FillVariables(&tree, variables)))
    PrintChainTree(tree, 0);
  pw::ClearErrorInfo();
  pw::ComPtr<IRaster> raster;
  hr = chain.As<IRasterDataset>()->CreateDefaultRaster(&raster);
  if (FAILED(hr)) return Fail(hr, "the chain");
  std::printf("output\n");
  PrintRaster(raster.Get(), 0, 0);
  return kOk;
}

// --- functions -----------------------------------------------------------------------------

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

std::string DisplayName(std::u16string_view className, bool description = false) {
  if (const auto texts = pw::server::FindFunctionTexts(className))
    return std::string(
        pw::res::Find(description ? texts->descriptionId : texts->nameId).value_or(""));
  return {};
}

int Functions(const Args& args) {
  bool all = false, markdown = false;
  std::string name;
  for (std::string_view a : args) {
    if (a == "--all") {
      all = true;
    } else if (a == "--markdown") {
      markdown = true;
    } else if (!a.empty() && a[0] == '-') {
      return Usage("unknown option '" + std::string(a) + "'", kFunctionsUsage);
    } else if (name.empty()) {
      name = std::string(a);
    } else {
      return Usage("'functions' describes one function at a time", kFunctionsUsage);
    }
  }
  if (!name.empty()) {
    const std::string function = pw::framework::ResolveFunctionName(name);
    const pw::framework::FunctionDeclaration* decl =
        function.empty() ? nullptr : pw::framework::FindFunctionDeclaration(function);
    if (decl == nullptr) {
      const std::string nearest = pw::framework::SuggestFunctionName(name);
      std::fprintf(
          stderr, "pixwerk: no function '%s' in this build%s; `pixwerk functions` lists them\n",
          name.c_str(), nearest.empty() ? "" : (" (did you mean '" + nearest + "'?)").c_str());
      return kFailed;
    }
    if (markdown) {
      std::fputs(pw::framework::ArgumentsTable(*decl).c_str(), stdout);
      return kOk;
    }
    const std::u16string className = pw::ToUtf16(decl->function);
    std::printf("%s (%s)\n%s\n\narguments (%s):\n%s", function.c_str(),
                DisplayName(className).c_str(), DisplayName(className, true).c_str(),
                std::string(decl->arguments).c_str(),
                pw::framework::DescribeArguments(*decl).c_str());
    return kOk;
  }
  using namespace pw::server;
  if (!all) {
    const auto decls = pw::framework::FunctionDeclarations();
    for (const auto* decl : decls) {
      const std::u16string className = pw::ToUtf16(decl->function);
      std::printf("%-28s %-28s %s\n", std::string(decl->function).c_str(),
                  DisplayName(className).c_str(), DisplayName(className, true).c_str());
    }
    std::printf(
        "%zu functions in this build (pixwerk functions --all lists every advertised one)\n",
        decls.size());
    return kOk;
  }
  int advertised = 0, available = 0;
  for (const ClassEntry& entry : ClassEntries()) {
    if (!ImplementsCategory(entry, CATID_RasterFunctions) &&
        !pw::framework::FindFunctionDeclaration(pw::ToUtf8(entry.name)))
      continue;
    ++advertised;
    const bool built = Available(entry);
    if (built) ++available;
    std::printf("%-40s %-28s %s\n", pw::ToUtf8(entry.name).c_str(), DisplayName(entry.name).c_str(),
                built ? "" : "(not in this build)");
  }
  std::printf("%d raster functions advertised, %d available in this build\n", advertised,
              available);
  return kOk;
}

// --- register, help, version ----------------------------------------------------------------

int Register(bool add, const Args& args) {
  std::string registry;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--registry") {
      if (i + 1 >= args.size()) return Usage("--registry needs a file name", kRegisterUsage);
      registry = std::string(args[++i]);
    } else {
      return Usage("unknown option '" + std::string(args[i]) + "'", kRegisterUsage);
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

int Help(const Args& args) {
  if (args.empty()) {
    PrintUsage(stdout);
    return kOk;
  }
  const Command* command = FindCommand(args.front());
  if (command == nullptr || command->usage.empty())
    return Usage("no command '" + std::string(args.front()) + "'");
  std::fputs(std::string(command->usage).c_str(), stdout);
  return kOk;
}

constexpr Command kCommands[] = {
    {"run", "bind a chain and write its output", kRunUsage, Run},
    {"serve", "serve a chain to a browser as tiles", kServeUsage, Serve},
    {"info", "describe a chain or a raster", kInfoUsage, Info},
    {"functions", "list or describe the functions", kFunctionsUsage, Functions},
    {"register", "write the registry entries", kRegisterUsage,
     [](const Args& a) { return Register(true, a); }},
    {"unregister", "remove the registry entries", kRegisterUsage,
     [](const Args& a) { return Register(false, a); }},
    {"help", "this text, or a command's", {}, Help},
};

const Command* FindCommand(std::string_view name) {
  for (const Command& c : kCommands)
    if (c.name == name) return &c;
  return nullptr;
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
  const Args args(argv + 1, argv + argc);
  if (args.empty()) return Usage("");
  const std::string_view name = args.front();
  const Args rest(args.begin() + 1, args.end());
  if (name == "--help" || name == "-h") return Help({});
  if (name == "--version") {
    std::printf("pixwerk %s (GDAL %s)\n", PIXWERK_VERSION, GDALVersionInfo("RELEASE_NAME"));
    return kOk;
  }
  const Command* command = FindCommand(name);
  if (command == nullptr) return Usage("unknown command '" + std::string(name) + "'");
  if (command->name != "help" && WantsHelp(rest)) {
    std::fputs(std::string(command->usage).c_str(), stdout);
    return kOk;
  }
  return command->run(rest);
}
