// The tile server behind `pixwerk serve`: a chain evaluated lazily on request over HTTP.
//
//   GET  /api/info                 the raster: size, bands, type, geotransform, CRS (WKT and
//                                  PROJ), no-data, band names, the tile size and zoom levels
//   GET  /api/tiles/Z/X/Y.png      a 256 x 256 PNG tile of the display rendering; level Z runs
//                                  from 0 (the whole raster in one tile) to the native level,
//                                  where a pixel is a cell; X and Y count from the top left
//   GET  /api/identify?x=..&y=..   the cell under a map position and its band values
//   GET  /api/chain                the chain and its functions' declared arguments
//   PUT  /api/chain                a changed chain: bound, and served from then on
//   GET  /                         the viewer page (from the viewer folder, when built)
//
// Bad requests are answered with an HTTP error and the reason (the chain loader's message for a
// chain that does not load), and the server goes on serving. Requests are computed in
// parallel, one a core; each keeps its kernels on its own thread.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <semaphore>
#include <string>

#include "framework/chain_json.h"

namespace httplib {
class Server;
}

namespace pw::tools {

class TileServer {
 public:
  static constexpr int kTileSize = 256;

  TileServer();
  ~TileServer();

  // Binds `chain` (JSON text; relative names from `base`, placeholders from `variables`);
  // on failure the message says why and the chain served before stays.
  bool Load(const std::string& chain, const std::filesystem::path& base,
            const framework::ChainVariables& variables, std::string* message);

  // Where the viewer's built files are; "/" serves index.html from there.
  void SetViewerFolder(const std::filesystem::path& folder) { viewer_ = folder; }

  // Binds to `address`:`port` (0: a free port, returned); -1 when it cannot.
  int Bind(const std::string& address, int port);
  // Serves until Stop (from another thread or a signal).
  void Serve();
  void Stop();

  struct Bound;  // one bound chain, shared by the requests that use it

 private:
  std::shared_ptr<const Bound> Current() const;
  void Routes();

  std::unique_ptr<httplib::Server> http_;
  // Computing requests at once: one a core. Connections have threads of their own (a
  // kept-alive connection holds one while idle), so clients beyond the cores wait here, in
  // turn, rather than for a connection to close.
  std::unique_ptr<std::counting_semaphore<>> cores_;
  mutable std::mutex lock_;
  std::shared_ptr<const Bound> bound_;
  std::filesystem::path base_, viewer_;
  framework::ChainVariables variables_;
};

}  // namespace pw::tools
