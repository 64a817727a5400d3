// Display rendering of rasters into RGBA pictures.
#include "framework/display.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>

#include "com/errorinfo.h"
#include "framework/input_statistics.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/raster_view.h"

namespace pw::framework::display {
namespace {

struct Stop {
  double at;
  std::uint8_t r, g, b;
};

struct RampEntry {
  Ramp ramp;
  std::string_view name;
  std::vector<Stop> stops;
};

const std::vector<RampEntry>& Ramps() {
  static const std::vector<RampEntry> ramps = {
      {Ramp::kGrey, "grey", {{0, 0, 0, 0}, {1, 255, 255, 255}}},
      {Ramp::kTerrain,
       "terrain",
       {{0, 0, 97, 71},
        {0.25, 16, 122, 47},
        {0.5, 232, 215, 125},
        {0.75, 161, 67, 0},
        {1, 255, 255, 255}}},
      {Ramp::kViridis,
       "viridis",
       {{0, 68, 1, 84},
        {0.25, 59, 82, 139},
        {0.5, 33, 145, 140},
        {0.75, 94, 201, 98},
        {1, 253, 231, 37}}},
      {Ramp::kSpectral,
       "spectral",
       {{0, 158, 1, 66},
        {0.25, 244, 109, 67},
        {0.5, 255, 255, 191},
        {0.75, 102, 194, 165},
        {1, 94, 79, 162}}},
  };
  return ramps;
}

bool SameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::uint8_t Blend(std::uint8_t a, std::uint8_t b, double t) {
  return static_cast<std::uint8_t>(std::lround(a + (b - a) * t));
}

}  // namespace

std::optional<Ramp> RampByName(std::string_view name) {
  if (SameText(name, "gray")) return Ramp::kGrey;
  for (const RampEntry& entry : Ramps())
    if (SameText(name, entry.name)) return entry.ramp;
  return std::nullopt;
}

std::string RampNames() {
  std::string names;
  for (const RampEntry& entry : Ramps()) {
    if (!names.empty()) names += ", ";
    names += entry.name;
  }
  return names;
}

HRESULT Renderer::Prepare(IRaster* raster, const Style& style) {
  if (raster == nullptr) return E_POINTER;
  raster_ = ComPtr<IRaster>(raster);
  grid_ = raster::GridOf(raster);
  type_ = raster::PixelTypeOf(raster);
  const LONG bands = raster::BandCountOf(raster);
  if (bands < 1 || !grid_.Valid())
    return ReportError(E_INVALIDARG, std::string_view("the raster has no cells to show"));
  if (type_ > 10)
    return ReportError(E_INVALIDARG, std::string_view("complex values have no display"));
  shown_ = bands >= 3 ? std::vector<LONG>{0, 1, 2} : std::vector<LONG>{0};
  direct_ = type_ == 3;  // 8-bit already
  mappings_.clear();
  if (!direct_) {
    BandStatisticsSet set;
    PW_RETURN_IF_FAILED(GatherStatistics(raster, bands, raster::Accuracy::kEstimate, &set));
    for (LONG b : shown_) {
      const auto at = static_cast<std::size_t>(b);
      const auto statistics = at < set.statistics.size()
                                  ? StretchStatisticsOf(set.statistics[at].Get(), true)
                                  : std::nullopt;
      const auto histogram =
          at < set.histograms.size() ? StretchHistogramOf(set.histograms[at].Get()) : std::nullopt;
      raster::stretch::Settings settings;
      settings.type = raster::stretch::kPercentClip;
      settings.minPercent = settings.maxPercent = style.clipPercent;
      std::optional<raster::stretch::Range> range;
      if (statistics) {
        range =
            raster::stretch::InputRange(settings, *statistics, histogram ? &*histogram : nullptr);
        if (!range || !(range->high > range->low)) {
          settings.type = raster::stretch::kMinimumMaximum;
          range = raster::stretch::InputRange(settings, *statistics, nullptr);
        }
      }
      raster::stretch::BandMapping mapping;
      mapping.range = range && range->high > range->low ? *range
                      : range ? raster::stretch::Range{range->low, range->low + 1}
                              : raster::stretch::Range{0, 1};
      mappings_.push_back(mapping);
    }
  }
  // The colours of the one-band ramp, 256 of them.
  const std::vector<Stop>* stops = &Ramps().front().stops;
  for (const RampEntry& entry : Ramps())
    if (entry.ramp == style.ramp) stops = &entry.stops;
  for (int v = 0; v < 256; ++v) {
    const double t = v / 255.0;
    std::size_t k = 1;
    while (k + 1 < stops->size() && (*stops)[k].at < t) ++k;
    const Stop& lo = (*stops)[k - 1];
    const Stop& hi = (*stops)[k];
    const double f = hi.at > lo.at ? std::clamp((t - lo.at) / (hi.at - lo.at), 0.0, 1.0) : 0.0;
    colours_[static_cast<std::size_t>(v)] = {Blend(lo.r, hi.r, f), Blend(lo.g, hi.g, f),
                                             Blend(lo.b, hi.b, f)};
  }
  return S_OK;
}

raster::RasterGrid Renderer::FittingGrid(LONG size) const {
  raster::RasterGrid grid = grid_;
  const double longer = static_cast<double>(std::max(grid_.columns, grid_.rows));
  const double scale = std::min(1.0, static_cast<double>(std::max<LONG>(size, 1)) / longer);
  grid.columns = std::max<LONG>(1, std::lround(grid_.columns * scale));
  grid.rows = std::max<LONG>(1, std::lround(grid_.rows * scale));
  return grid;
}

HRESULT Renderer::Render(const raster::RasterGrid& grid, Picture* picture) const {
  return Render(raster_.Get(), grid, picture);
}

HRESULT Renderer::Render(IRaster* raster, const raster::RasterGrid& grid, Picture* picture) const {
  PW_CHECK_POINTER(picture);
  if (!raster_ || raster == nullptr) return E_UNEXPECTED;
  if (raster::BandCountOf(raster) != raster::BandCountOf(raster_.Get()))
    return ReportError(E_INVALIDARG, std::string_view("the raster shown has other bands"));
  ComPtr<IRaster> view;
  PW_RETURN_IF_FAILED(raster::CreateRasterOnGrid(raster, grid, nullptr, type_, &view));
  ComPtr<IPixelBlock> block;
  PW_RETURN_IF_FAILED(view->CreatePixelBlock(grid.columns, grid.rows, &block));
  PW_RETURN_IF_FAILED(view->ReadAt(0, 0, block.Get()));
  return RenderBlock(block.Get(), picture);
}

HRESULT Renderer::RenderBlock(IPixelBlock* block, Picture* picture) const {
  PW_CHECK_POINTER(block);
  PW_CHECK_POINTER(picture);
  LONG width = 0, height = 0, type = -1;
  block->get_Width(&width);
  block->get_Height(&height);
  block->get_PixelType(&type);
  if (type != type_) return E_INVALIDARG;
  const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  std::vector<std::vector<std::uint8_t>> bytes(shown_.size(), std::vector<std::uint8_t>(n, 0));
  std::vector<std::uint8_t> alpha(n, 1), valid(n);
  for (std::size_t i = 0; i < shown_.size(); ++i) {
    const void* values = block->Buffer(shown_[i]);
    const BYTE* mask = block->Mask(shown_[i]);
    if (values == nullptr || mask == nullptr) return E_INVALIDARG;
    if (direct_) {
      std::memcpy(bytes[i].data(), values, n);
    } else {
      PW_RETURN_IF_FAILED(
          raster::stretch::Apply(mappings_[i], type_, values, mask, n, 3, bytes[i].data()));
    }
    raster::mask::Unpack(mask, n, valid.data());
    for (std::size_t k = 0; k < n; ++k) alpha[k] &= valid[k];
  }
  picture->width = width;
  picture->height = height;
  picture->rgba.resize(4 * n);
  std::uint8_t* out = picture->rgba.data();
  for (std::size_t k = 0; k < n; ++k, out += 4) {
    if (shown_.size() == 3) {
      out[0] = bytes[0][k], out[1] = bytes[1][k], out[2] = bytes[2][k];
    } else {
      const auto& colour = colours_[bytes[0][k]];
      out[0] = colour[0], out[1] = colour[1], out[2] = colour[2];
    }
    out[3] = alpha[k] ? 255 : 0;
  }
  return S_OK;
}

}  // namespace pw::framework::display
