// The tile server: routes, the bound chain they share, tiles and identify.
#include "tools/pixwerk/tile_server.h"

#include <cpl_conv.h>
#include <httplib.h>
#include <ogr_srs_api.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "com/errorinfo.h"
#include "framework/argument_declarations.h"
#include "framework/display.h"
#include "framework/function_raster.h"
#include "raster/algorithms/parallel.h"
#include "raster/band_indexes.h"
#include "raster/gdal/picture.h"
#include "raster/opener.h"
#include "raster/pixel_block.h"
#include "raster/pixel_type.h"
#include "raster/raster_view.h"

namespace pw::tools {

using persist::Json;

struct TileServer::Bound {
  std::string chain;  // the chain's JSON, placeholders filled
  ComPtr<IFunctionRasterDataset> dataset;
  ComPtr<IRaster> raster;
  raster::SourceInfo info;
  framework::display::Renderer renderer;
  int maxZoom = 0;  // the native level
  std::filesystem::path base;
  // The chain bound at coarser cell sizes, by factor, as levels first ask for them; null
  // where it did not bind (those levels read the chain itself).
  mutable std::mutex coarseLock;
  mutable std::map<int, ComPtr<IRaster>> coarse;
};

namespace {

std::string Message(HRESULT hr) {
  std::string message = ToUtf8(TakeErrorDescription());
  return message.empty() ? DescribeResult(hr) : message;
}

void Answer(httplib::Response& response, int status, const std::string& message) {
  response.status = status;
  response.set_content(Json{{"error", message}}.dump(), "application/json");
}

std::string Wkt(ISpatialReference* reference) {
  if (reference == nullptr) return {};
  BSTR wkt = nullptr;
  std::string text;
  if (SUCCEEDED(reference->get_WKT(&wkt)) && wkt != nullptr)
    text = ToUtf8(std::u16string_view(wkt, SysStringLen(wkt)));
  SysFreeString(wkt);
  return text;
}

std::string Proj4(const std::string& wkt) {
  if (wkt.empty()) return {};
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  char* proj = nullptr;
  std::string text;
  if (OSRSetFromUserInput(srs, wkt.c_str()) == OGRERR_NONE &&
      OSRExportToProj4(srs, &proj) == OGRERR_NONE && proj != nullptr)
    text = proj;
  CPLFree(proj);
  OSRDestroySpatialReference(srs);
  return text;
}

// The declared arguments of every function the chain names, by class name.
void Declarations(const Json& chain, Json* out) {
  if (chain.is_object()) {
    if (const auto f = chain.find("function"); f != chain.end() && f->is_string()) {
      const std::string name = framework::ResolveFunctionName(f->get<std::string>());
      if (const framework::FunctionDeclaration* decl = framework::FindFunctionDeclaration(name);
          decl != nullptr && !out->contains(name)) {
        Json arguments = Json::array();
        for (const framework::ArgumentDeclaration& item : decl->items) {
          Json a = {{"name", std::string(item.name)},
                    {"kind", std::string(framework::KindText(item.kind))},
                    {"required", item.Required()},
                    {"help", std::string(item.help)}};
          if (!item.Required()) a["default"] = item.Default();
          Json choices = Json::array();
          for (const framework::Choice& c : item.choices)
            choices.push_back({{"value", c.value}, {"name", std::string(c.name)}});
          a["choices"] = choices;
          if (std::isfinite(item.minimum)) a["minimum"] = item.minimum;
          if (std::isfinite(item.maximum)) a["maximum"] = item.maximum;
          arguments.push_back(a);
        }
        (*out)[name] = arguments;
      }
    }
    for (const auto& [key, value] : chain.items()) Declarations(value, out);
  } else if (chain.is_array()) {
    for (const Json& value : chain) Declarations(value, out);
  }
}

// A computing request's turn on a core.
class Turn {
 public:
  explicit Turn(std::counting_semaphore<>& cores) : cores_(cores) { cores_.acquire(); }
  ~Turn() { cores_.release(); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  std::counting_semaphore<>& cores_;
};

// The chain of `bound` with every input opened at `factor` times its cell size, bound once
// per factor.
ComPtr<IRaster> Coarser(const TileServer::Bound& bound, int factor) {
  std::lock_guard hold(bound.coarseLock);
  if (const auto found = bound.coarse.find(factor); found != bound.coarse.end())
    return found->second;
  ComPtr<IRaster> raster;
  Json json;
  HRESULT hr = persist::ParseJson(bound.chain, &json);
  ComPtr<IFunctionRasterDataset> dataset;
  if (SUCCEEDED(hr)) {
    const raster::CoarserOpenScope scope(factor);
    hr = framework::LoadChain(json, bound.base, &dataset);
  }
  if (SUCCEEDED(hr)) hr = dataset.As<IRasterDataset>()->CreateDefaultRaster(&raster);
  if (FAILED(hr)) {
    TakeErrorDescription();  // the level reads the chain itself instead
    raster = nullptr;
  }
  bound.coarse[factor] = raster;
  return raster;
}

constexpr std::string_view kFallbackPage = R"(<!doctype html>
<html><head><meta charset="utf-8"><title>pixwerk serve</title></head>
<body style="font-family: sans-serif">
<h1>pixwerk serve</h1>
<p>The viewer was not built into this installation; the chain is served at
<a href="api/info">api/info</a>, <a href="api/chain">api/chain</a> and as tiles:</p>
<img src="api/tiles/0/0/0.png" alt="the whole raster" style="background: #ccc">
</body></html>
)";

}  // namespace

TileServer::TileServer() : http_(std::make_unique<httplib::Server>()) {
  Routes();
}

TileServer::~TileServer() {
  Stop();
}

std::shared_ptr<const TileServer::Bound> TileServer::Current() const {
  std::lock_guard hold(lock_);
  return bound_;
}

bool TileServer::Load(const std::string& chain, const std::filesystem::path& base,
                      const framework::ChainVariables& variables, std::string* message) {
  Json json;
  HRESULT hr = persist::ParseJson(chain, &json);
  if (SUCCEEDED(hr)) hr = framework::FillVariables(&json, variables);
  auto bound = std::make_shared<Bound>();
  if (SUCCEEDED(hr)) hr = framework::LoadChain(json, base, &bound->dataset);
  if (SUCCEEDED(hr)) hr = bound->dataset.As<IRasterDataset>()->CreateDefaultRaster(&bound->raster);
  if (SUCCEEDED(hr)) {
    auto source = bound->raster.As<IRasterSource>();
    hr = source ? source->GetInfo(&bound->info) : E_NOINTERFACE;
  }
  if (SUCCEEDED(hr)) hr = bound->renderer.Prepare(bound->raster.Get(), {});
  if (FAILED(hr)) {
    *message = Message(hr);
    return false;
  }
  const LONG longer = std::max(bound->info.grid.columns, bound->info.grid.rows);
  while ((static_cast<LONG>(kTileSize) << bound->maxZoom) < longer) ++bound->maxZoom;
  bound->chain = json.dump();
  bound->base = base;
  std::lock_guard hold(lock_);
  bound_ = std::move(bound);
  base_ = base;
  variables_ = variables;
  return true;
}

int TileServer::Bind(const std::string& address, int port) {
  if (port == 0) return http_->bind_to_any_port(address);
  return http_->bind_to_port(address, port) ? port : -1;
}

void TileServer::Serve() {
  http_->listen_after_bind();
}

void TileServer::Stop() {
  if (http_) http_->stop();
}

void TileServer::Routes() {
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  cores_ = std::make_unique<std::counting_semaphore<>>(static_cast<std::ptrdiff_t>(cores));
  const unsigned connections = std::max(16u, 4 * cores);
  http_->new_task_queue = [connections] { return new httplib::ThreadPool(connections); };
  http_->set_keep_alive_max_count(1000);
  // A response goes out as headers and body in two writes: without this, the body would
  // wait for the client's delayed acknowledgement of the headers on kept-alive connections.
  http_->set_tcp_nodelay(true);

  http_->Get("/api/info", [this](const httplib::Request&, httplib::Response& response) {
    const auto bound = Current();
    if (!bound) return Answer(response, 503, "no chain is bound");
    const auto& g = bound->info.grid;
    const std::string wkt = Wkt(bound->info.reference.Get());
    Json noData = Json::array(), names = Json::array();
    for (LONG b = 0; b < bound->info.bandCount; ++b) {
      const auto at = static_cast<std::size_t>(b);
      noData.push_back(at < bound->info.noData.size() && bound->info.noData[at]
                           ? Json(*bound->info.noData[at])
                           : Json(nullptr));
      std::string name;
      if (const auto value = raster::BandKeyProperty(bound->raster.Get(), b, u"BandName"))
        if (const auto text = value->ToString()) name = ToUtf8(*text);
      names.push_back(name);
    }
    const Json info = {{"width", g.columns},
                       {"height", g.rows},
                       {"bandCount", bound->info.bandCount},
                       {"pixelType", std::string(raster::PixelTypeName(bound->info.pixelType))},
                       {"geotransform", {g.xmin, g.CellX(), 0.0, g.ymax, 0.0, -g.CellY()}},
                       {"crs", wkt.empty() ? Json(nullptr) : Json(wkt)},
                       {"proj4", wkt.empty() ? Json(nullptr) : Json(Proj4(wkt))},
                       {"noData", noData},
                       {"bandNames", names},
                       {"tileSize", kTileSize},
                       {"maxZoom", bound->maxZoom}};
    response.set_content(info.dump(), "application/json");
  });

  http_->Get(R"(/api/tiles/(\d{1,2})/(\d{1,9})/(\d{1,9})\.png)",
             [this](const httplib::Request& request, httplib::Response& response) {
               const raster::ParallelWorkerScope worker;
               const Turn turn(*cores_);
               const auto bound = Current();
               if (!bound) return Answer(response, 503, "no chain is bound");
               const int z = std::stoi(request.matches[1]);
               const long x = std::stol(request.matches[2]), y = std::stol(request.matches[3]);
               const auto& g = bound->info.grid;
               if (z > bound->maxZoom)
                 return Answer(response, 404,
                               "level " + std::to_string(z) + " is finer than the native level " +
                                   std::to_string(bound->maxZoom));
               const long factor = 1L << (bound->maxZoom - z);
               const long span = kTileSize * factor;  // cells a tile covers
               if (x * span >= g.columns || y * span >= g.rows)
                 return Answer(response, 404,
                               "tile " + std::to_string(z) + "/" + std::to_string(x) + "/" +
                                   std::to_string(y) + " is off the raster");
               raster::RasterGrid grid;
               grid.xmin = g.xmin + static_cast<double>(x * span) * g.CellX();
               grid.xmax = grid.xmin + static_cast<double>(span) * g.CellX();
               grid.ymax = g.ymax - static_cast<double>(y * span) * g.CellY();
               grid.ymin = grid.ymax - static_cast<double>(span) * g.CellY();
               grid.columns = grid.rows = kTileSize;
               // Coarser levels read the chain bound at their own cell size.
               ComPtr<IRaster> coarser;
               if (factor > 1) coarser = Coarser(*bound, static_cast<int>(factor));
               framework::display::Picture picture;
               HRESULT hr = coarser ? bound->renderer.Render(coarser.Get(), grid, &picture)
                                    : bound->renderer.Render(grid, &picture);
               std::string png;
               if (SUCCEEDED(hr))
                 hr = raster::gdal::EncodePicture(picture.width, picture.height, picture.rgba,
                                                  raster::gdal::PictureFormat::kPng, &png, true);
               if (FAILED(hr)) return Answer(response, 500, Message(hr));
               response.set_content(png, "image/png");
             });

  http_->Get("/api/identify", [this](const httplib::Request& request, httplib::Response& response) {
    const auto bound = Current();
    if (!bound) return Answer(response, 503, "no chain is bound");
    double x = 0, y = 0;
    for (auto [key, out] : {std::pair{"x", &x}, std::pair{"y", &y}}) {
      const std::string text = request.get_param_value(key);
      char* end = nullptr;
      *out = std::strtod(text.c_str(), &end);
      if (text.empty() || *end != '\0' || !std::isfinite(*out))
        return Answer(response, 400,
                      std::string("identify needs the map position as numbers x and y, ") + "not " +
                          key + "='" + text + "'");
    }
    const raster::ParallelWorkerScope worker;
    const Turn turn(*cores_);
    const auto& g = bound->info.grid;
    const double column = std::floor((x - g.xmin) / g.CellX());
    const double row = std::floor((g.ymax - y) / g.CellY());
    if (column < 0 || row < 0 || column >= g.columns || row >= g.rows)
      return Answer(response, 404, "the position is off the raster");
    ComPtr<IPixelBlock> cell, values;
    HRESULT hr = bound->raster->CreatePixelBlock(1, 1, &cell);
    if (SUCCEEDED(hr))
      hr = bound->raster->ReadAt(static_cast<LONG>(column), static_cast<LONG>(row), cell.Get());
    if (SUCCEEDED(hr)) hr = raster::CreatePixelBlock(1, 1, bound->info.bandCount, 10, &values);
    if (SUCCEEDED(hr)) hr = raster::ConvertPixelBlock(cell.Get(), values.Get());
    if (FAILED(hr)) return Answer(response, 500, Message(hr));
    Json bands = Json::array();
    for (LONG b = 0; b < bound->info.bandCount; ++b) {
      const bool valid = (cell->Mask(b)[0] & 0x80) != 0;
      bands.push_back(valid ? Json(static_cast<const double*>(values->Buffer(b))[0])
                            : Json(nullptr));
    }
    response.set_content(Json{{"column", static_cast<long>(column)},
                              {"row", static_cast<long>(row)},
                              {"values", bands}}
                             .dump(),
                         "application/json");
  });

  http_->Get("/api/chain", [this](const httplib::Request&, httplib::Response& response) {
    const auto bound = Current();
    if (!bound) return Answer(response, 503, "no chain is bound");
    const Json chain = Json::parse(bound->chain);
    Json declarations = Json::object();
    Declarations(chain, &declarations);
    response.set_content(Json{{"chain", chain}, {"functions", declarations}}.dump(),
                         "application/json");
  });

  http_->Put("/api/chain", [this](const httplib::Request& request, httplib::Response& response) {
    std::filesystem::path base;
    framework::ChainVariables variables;
    {
      std::lock_guard hold(lock_);
      base = base_;
      variables = variables_;
    }
    std::string message;
    if (!Load(request.body, base, variables, &message))
      return Answer(response, 400, "the changed chain does not load: " + message);
    response.set_content(Json{{"loaded", true}}.dump(), "application/json");
  });

  http_->Get("/", [this](const httplib::Request&, httplib::Response& response) {
    std::ifstream page(viewer_ / "index.html", std::ios::binary);
    if (!page) return response.set_content(std::string(kFallbackPage), "text/html");
    std::ostringstream text;
    text << page.rdbuf();
    response.set_content(text.str(), "text/html");
  });
  http_->Get(R"(/viewer/([A-Za-z0-9_.-]{1,64}))",
             [this](const httplib::Request& request, httplib::Response& response) {
               const std::string name = request.matches[1];
               std::ifstream file(viewer_ / name, std::ios::binary);
               if (name.find("..") != std::string::npos || !file)
                 return Answer(response, 404, "no file '" + name + "' in the viewer");
               std::ostringstream text;
               text << file.rdbuf();
               const bool script = name.size() > 3 && name.substr(name.size() - 3) == ".js";
               const bool style = name.size() > 4 && name.substr(name.size() - 4) == ".css";
               response.set_content(text.str(), script  ? "text/javascript"
                                                : style ? "text/css"
                                                        : "application/octet-stream");
             });
  http_->set_error_handler([](const httplib::Request& request, httplib::Response& response) {
    if (response.body.empty())
      Answer(response, response.status, "no such resource: '" + request.path + "'");
  });
}

}  // namespace pw::tools
