// Display rendering, shared by quicklooks and the tile server: a raster's cells as RGBA
// pictures. One band shows in grey or through a colour ramp, three or more bands as RGB (the
// first three); values go through a display stretch (a percent clip of each band's
// statistics, gathered once when the raster keeps none) unless the raster is 8-bit; invalid
// cells are transparent.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "com/com_ptr.h"
#include "raster/algorithms/stretch.h"
#include "raster/model.h"

namespace pw::framework::display {

enum class Ramp { kGrey, kTerrain, kViridis, kSpectral };

// A ramp by name, any case ("grey" or "gray", "terrain", "viridis", "spectral").
std::optional<Ramp> RampByName(std::string_view name);
// The names, for messages.
std::string RampNames();

struct Style {
  Ramp ramp = Ramp::kGrey;   // for one band
  double clipPercent = 0.5;  // cut at each end of a band's histogram
};

// A picture: width x height pixels, row by row, four bytes (red, green, blue, alpha) each.
struct Picture {
  LONG width = 0, height = 0;
  std::vector<std::uint8_t> rgba;
};

class Renderer {
 public:
  // Chooses the bands shown and each one's mapping to 0..255, once.
  HRESULT Prepare(IRaster* raster, const Style& style);

  // The raster resampled (nearest) onto `grid`, a grid over its own reference.
  HRESULT Render(const raster::RasterGrid& grid, Picture* picture) const;
  // `raster`, another binding of the same chain (at a coarser cell size), resampled onto
  // `grid` and shown with this renderer's bands and mappings, so that every level of a
  // display looks alike.
  HRESULT Render(IRaster* raster, const raster::RasterGrid& grid, Picture* picture) const;
  // A block read already, of the raster's pixel type and bands.
  HRESULT RenderBlock(IPixelBlock* block, Picture* picture) const;

  // The whole raster at most `size` pixels on its longer side (never enlarged).
  raster::RasterGrid FittingGrid(LONG size) const;

 private:
  ComPtr<IRaster> raster_;
  raster::RasterGrid grid_;
  LONG type_ = -1;
  std::vector<LONG> shown_;                             // one band or three
  std::vector<raster::stretch::BandMapping> mappings_;  // one a shown band, unless direct_
  bool direct_ = false;                                 // 8-bit values shown as they are
  std::array<std::array<std::uint8_t, 3>, 256> colours_{};
};

}  // namespace pw::framework::display
