// Band collections and the views built from them.
#include "raster/band_collection.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "raster/mask.h"
#include "raster/pixel_traits.h"
#include "raster/raster_view.h"
#include "raster/reprojection.h"

namespace pw::raster {
namespace {

struct Element {
  ComPtr<IRasterSource> source;  // on the collection's grid
  ComPtr<IRaster> original;
  LONG band;
  LONG pixelType;
  std::optional<double> noData;
};

class BandCollection : public IRasterSource, public IBandCollection {
 public:
  using Interfaces = InterfaceList<IRasterSource, IBandCollection>;

  explicit BandCollection(const std::vector<BandReference>& bands) {
    if (bands.empty()) throw std::invalid_argument("band collection: no bands");
    for (std::size_t i = 0; i < bands.size(); ++i) {
      ComPtr<IRasterSource> source = ReadingSource(bands[i].raster.Get());
      SourceInfo info;
      if (!source || FAILED(source->GetInfo(&info)) || bands[i].band < 0 ||
          bands[i].band >= info.bandCount)
        throw std::invalid_argument("band collection: element " + std::to_string(i) +
                                    " has no band " + std::to_string(bands[i].band));
      if (i == 0) {
        info_.grid = info.grid;
        info_.reference = info.reference;
      }
      Element e{source, bands[i].raster, bands[i].band, info.pixelType, info.noData[bands[i].band]};
      const RasterGrid& g = info.grid;
      const bool sameReference = SameReference(info.reference.Get(), info_.reference.Get());
      if (g.columns != info_.grid.columns || g.rows != info_.grid.rows ||
          g.xmin != info_.grid.xmin || g.xmax != info_.grid.xmax || g.ymin != info_.grid.ymin ||
          g.ymax != info_.grid.ymax || !sameReference) {
        // Resampled onto the collection's grid with the element's own resampling code, and
        // reprojected when it is in another reference.
        auto regridded = MakeObject<Raster>(source.Get());
        regridded->SetGrid(info_.grid);
        if (!sameReference) regridded->put_SpatialReference(info_.reference.Get());
        LONG method = kNearest;
        bands[i].raster->get_ResampleMethod(&method);
        regridded->put_ResampleMethod(method);
        e.source = regridded.As<IRasterSource>();
      }
      info_.pixelType = i == 0 ? info.pixelType : CommonPixelType(info_.pixelType, info.pixelType);
      info_.noData.push_back(e.noData);
      elements_.push_back(std::move(e));
    }
    info_.bandCount = static_cast<LONG>(elements_.size());
    if (!UniformNoData(info_.noData)) UnifyNoData();
  }

  HRESULT STDMETHODCALLTYPE GetInfo(SourceInfo* info) override {
    PW_CHECK_POINTER(info);
    return Guard([&] {
      *info = info_;
      return S_OK;
    });
  }

  HRESULT STDMETHODCALLTYPE ReadWindow(LONG band, LONG column, LONG row, LONG width, LONG height,
                                       void* buffer, BYTE* bits) override {
    if (band < 0 || band >= info_.bandCount) return E_INVALIDARG;
    const Element& e = elements_[static_cast<std::size_t>(band)];
    if (e.pixelType == info_.pixelType)
      return e.source->ReadWindow(e.band, column, row, width, height, buffer, bits);
    return Guard([&]() -> HRESULT {
      const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
      std::vector<std::uint8_t> raw(n * PixelSize(e.pixelType));
      PW_RETURN_IF_FAILED(
          e.source->ReadWindow(e.band, column, row, width, height, raw.data(), bits));
      const ValueRange range = PixelRange(info_.pixelType);
      VisitPixelTypes(e.pixelType, info_.pixelType, [&](auto ti, auto to) {
        using I = typename decltype(ti)::type;
        using O = typename decltype(to)::type;
        const I* in = reinterpret_cast<const I*>(raw.data());
        O* out = static_cast<O*>(buffer);
        for (std::size_t i = 0; i < n; ++i) {
          bool valid = true;
          out[i] = ConvertValue<O>(static_cast<double>(in[i]), range, &valid);
          if (!valid) mask::Clear(bits, i);
        }
      });
      return S_OK;
    });
  }

  // One no-data value for every band, when one exists that no band's valid cell can hold:
  // a band's own value marks only its invalid cells, and a value outside a band's own type
  // can never be one of its values. Candidates: the bands' own values in band order, then
  // NaN and the far ends of the collection's type.
  void UnifyNoData() {
    std::vector<double> candidates;
    for (const auto& v : info_.noData)
      if (v) candidates.push_back(*v);
    candidates.push_back(std::numeric_limits<double>::quiet_NaN());
    const ValueRange range = PixelRange(info_.pixelType);
    candidates.push_back(range.lowest);
    candidates.push_back(range.highest);
    for (double v : candidates) {
      if (!HoldsValue(info_.pixelType, v)) continue;
      const bool safe = std::all_of(elements_.begin(), elements_.end(), [&](const Element& e) {
        if (SameNoData(e.noData, v)) return true;
        const ValueRange own = PixelRange(e.pixelType);
        return std::isnan(v) || v < own.lowest || v > own.highest;
      });
      if (!safe) continue;
      std::fill(info_.noData.begin(), info_.noData.end(), std::optional<double>(v));
      return;
    }
  }

  HRESULT STDMETHODCALLTYPE get_Count(LONG* count) override {
    return HandOut(static_cast<LONG>(elements_.size()), count);
  }
  HRESULT STDMETHODCALLTYPE GetElement(LONG index, IRaster** raster, LONG* band) override {
    if (raster == nullptr || band == nullptr) return E_POINTER;
    *raster = nullptr;
    if (index < 0 || index >= static_cast<LONG>(elements_.size())) return E_INVALIDARG;
    *band = elements_[index].band;
    return elements_[index].original.CopyTo(raster);
  }

 private:
  SourceInfo info_;
  std::vector<Element> elements_;
};

}  // namespace

HRESULT CreateBandCollection(const std::vector<BandReference>& bands, IRaster** raster) {
  PW_CHECK_POINTER(raster);
  *raster = nullptr;
  if (bands.empty()) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    // Elements in another reference than the first are reprojected, which only sources that
    // can warp do.
    ComPtr<ISpatialReference> first;
    for (std::size_t i = 0; i < bands.size(); ++i) {
      ComPtr<ISpatialReference> own;
      if (auto props = bands[i].raster.As<IRasterProps>()) props->get_SpatialReference(&own);
      if (i == 0) first = own;
      const ComPtr<IRasterSource> source = ReadingSource(bands[i].raster.Get());
      if (i > 0 && !SameReference(own.Get(), first.Get()) &&
          !(source && source.As<IRasterWarpSource>()))
        return ReportError(E_INVALIDARG, "band " + std::to_string(i + 1) + " is in " +
                                             ReferenceName(own.Get()) + ", the first in " +
                                             ReferenceName(first.Get()) +
                                             ", and it cannot be reprojected (it is not a GDAL "
                                             "dataset)");
    }
    auto collection = MakeObject<BandCollection>(bands);
    return CreateRaster(static_cast<IRasterSource*>(collection.Get()), raster);
  });
}

HRESULT AppendBands(IRaster* raster, std::vector<BandReference>* bands) {
  if (raster == nullptr || bands == nullptr) return E_POINTER;
  const LONG n = BandCountOf(raster);
  for (LONG b = 0; b < n; ++b) bands->push_back(BandReference{ComPtr<IRaster>(raster), b});
  return n > 0 ? S_OK : E_INVALIDARG;
}

HRESULT CreateFirstBandView(IRaster* raster, IRaster** view) {
  if (raster == nullptr) return E_INVALIDARG;
  return CreateBandCollection({BandReference{ComPtr<IRaster>(raster), 0}}, view);
}

HRESULT CreateBandMatchedView(IRaster* raster, LONG bands, IRaster** view) {
  PW_CHECK_POINTER(view);
  *view = nullptr;
  if (raster == nullptr || bands < 1) return E_INVALIDARG;
  const LONG have = BandCountOf(raster);
  if (have < 1) return E_INVALIDARG;
  if (have >= bands) {
    raster->AddRef();
    *view = raster;
    return S_OK;
  }
  std::vector<BandReference> matched;
  for (LONG b = 0; b < bands; ++b)
    matched.push_back(
        BandReference{ComPtr<IRaster>(raster), have == 1 ? 0 : std::min(b, have - 1)});
  return CreateBandCollection(matched, view);
}

}  // namespace pw::raster
