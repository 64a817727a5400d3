// In-memory datasets and bands.
#include "raster/memory_dataset.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "raster/algorithms/statistics.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"
#include "raster/raster_view.h"
#include "raster/values/property_set.h"

namespace pw::raster {

MemoryBand::MemoryBand(LONG pixelType, std::size_t pixels)
    : pixelType_(pixelType), data_(pixels * PixelSize(pixelType)), mask_(mask::Bytes(pixels)) {
  mask::Fill(mask_.data(), pixels, true);
  properties_ = MakeObject<PropertySet>().As<IPropertySet>();
}

void MemoryBand::PutValid(std::size_t i, bool valid) {
  if (!valid) allValid_.store(false, std::memory_order_relaxed);
  mask::Put(mask_.data(), i, valid);
}

HRESULT MemoryBand::get_Name(BSTR* name) {
  PW_CHECK_POINTER(name);
  return Guard([&] {
    *name = AllocBstr(std::u16string_view(name_));
    return S_OK;
  });
}

HRESULT MemoryBand::put_Name(BSTR name) {
  return Guard([&] {
    name_.assign(name ? name : u"", SysStringLen(name));
    return S_OK;
  });
}

HRESULT MemoryBand::get_Properties(IPropertySet** properties) {
  return HandOut(properties_, properties);
}
HRESULT MemoryBand::get_Statistics(IRasterStatistics** statistics) {
  return HandOut(statistics_, statistics);
}
HRESULT MemoryBand::put_Statistics(IRasterStatistics* statistics) {
  statistics_ = statistics;
  return S_OK;
}
HRESULT MemoryBand::get_Histogram(IRasterHistogram** histogram) {
  return HandOut(histogram_, histogram);
}
HRESULT MemoryBand::put_Histogram(IRasterHistogram* histogram) {
  histogram_ = histogram;
  return S_OK;
}
HRESULT MemoryBand::get_Colormap(IRasterColormap** colormap) {
  return HandOut(colormap_, colormap);
}
HRESULT MemoryBand::put_Colormap(IRasterColormap* colormap) {
  colormap_ = colormap;
  return S_OK;
}
HRESULT MemoryBand::get_AttributeTable(ITable** table) {
  return HandOut(table_, table);
}
HRESULT MemoryBand::put_AttributeTable(ITable* table) {
  table_ = table;
  return S_OK;
}

HRESULT MemoryBand::ComputeStatisticsHistogram() {
  return Guard([&]() -> HRESULT {
    const std::size_t pixels = data_.size() / PixelSize(pixelType_);
    const Moments m = ComputeMoments(pixelType_, data_.data(), mask_.data(), pixels, noData_);
    double lo = 0, hi = 0;
    HistogramRange(pixelType_, m, &lo, &hi);
    std::vector<double> bins;
    AccumulateHistogram(pixelType_, data_.data(), mask_.data(), pixels, noData_, lo, hi, &bins);
    ComPtr<IRasterStatistics> statistics;
    ComPtr<IRasterHistogram> histogram;
    PW_RETURN_IF_FAILED(MakeStatistics(m, &statistics));
    PW_RETURN_IF_FAILED(MakeHistogram(lo, hi, std::move(bins), &histogram));
    statistics_ = statistics;
    histogram_ = histogram;
    return S_OK;
  });
}

MemoryDataset::MemoryDataset(std::u16string name, const RasterGrid& grid, LONG bands,
                             LONG pixelType, ISpatialReference* reference)
    : name_(std::move(name)), grid_(grid), pixelType_(pixelType), reference_(reference) {
  if (!grid.Valid() || bands < 0 || PixelSize(pixelType) == 0)
    throw std::invalid_argument(
        "memory dataset: empty grid, negative band count or unknown pixel type");
  const std::size_t pixels =
      static_cast<std::size_t>(grid.columns) * static_cast<std::size_t>(grid.rows);
  for (LONG b = 0; b < bands; ++b) bands_.push_back(MakeObject<MemoryBand>(pixelType, pixels));
  properties_ = MakeObject<PropertySet>().As<IPropertySet>();
}

HRESULT MemoryDataset::GetKeyProperty(BSTR name, VARIANT* value) {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  return properties_->GetProperty(name, value);
}

HRESULT MemoryDataset::get_Name(BSTR* name) {
  PW_CHECK_POINTER(name);
  return Guard([&] {
    *name = AllocBstr(std::u16string_view(name_));
    return S_OK;
  });
}

HRESULT MemoryDataset::get_BandCount(LONG* count) {
  return HandOut(static_cast<LONG>(bands_.size()), count);
}

HRESULT MemoryDataset::GetBand(LONG index, IRasterBand** band) {
  PW_CHECK_POINTER(band);
  *band = nullptr;
  if (index < 0 || index >= static_cast<LONG>(bands_.size())) return E_INVALIDARG;
  return bands_[index]->QueryInterface(IidOf<IRasterBand>(), reinterpret_cast<void**>(band));
}

HRESULT MemoryDataset::CreateDefaultRaster(IRaster** raster) {
  return CreateRaster(static_cast<IRasterSource*>(this), raster);
}

HRESULT MemoryDataset::GetInfo(SourceInfo* info) {
  PW_CHECK_POINTER(info);
  return Guard([&] {
    info->grid = grid_;
    info->bandCount = static_cast<LONG>(bands_.size());
    info->pixelType = pixelType_;
    info->reference = reference_;
    info->noData.clear();
    for (const auto& band : bands_) info->noData.push_back(band->NoData());
    return S_OK;
  });
}

HRESULT MemoryDataset::ReadWindow(LONG band, LONG column, LONG row, LONG width, LONG height,
                                  void* buffer, BYTE* bits) {
  if (band < 0 || band >= static_cast<LONG>(bands_.size()) || buffer == nullptr || bits == nullptr)
    return E_INVALIDARG;
  if (width < 0 || height < 0) return E_INVALIDARG;
  MemoryBand& b = *bands_[band].Get();
  const std::size_t size = PixelSize(pixelType_);
  const auto* data = static_cast<const std::uint8_t*>(b.Data());
  auto* out = static_cast<std::uint8_t*>(buffer);
  const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  mask::Fill(bits, pixels, false);
  // The part of the window inside the grid, copied row by row; cells outside it are 0.
  const LONG c0 = std::max<LONG>(column, 0), c1 = std::min<LONG>(column + width, grid_.columns);
  const LONG r0 = std::max<LONG>(row, 0), r1 = std::min<LONG>(row + height, grid_.rows);
  const std::optional<double> noData = b.NoData();
  const bool allValid = b.KnownAllValid();
  const std::size_t rowBytes = static_cast<std::size_t>(width) * size;
  const std::size_t before = static_cast<std::size_t>(std::max<LONG>(c0 - column, 0)) * size;
  const std::size_t inside = static_cast<std::size_t>(std::max<LONG>(c1 - c0, 0)) * size;
  for (LONG r = row; r < row + height; ++r) {
    std::uint8_t* to = out + static_cast<std::size_t>(r - row) * rowBytes;
    if (r < r0 || r >= r1 || inside == 0) {
      std::memset(to, 0, rowBytes);
      continue;
    }
    const std::size_t src = static_cast<std::size_t>(r) * static_cast<std::size_t>(grid_.columns) +
                            static_cast<std::size_t>(c0);
    std::memset(to, 0, before);
    std::memcpy(to + before, data + src * size, inside);
    std::memset(to + before + inside, 0, rowBytes - before - inside);
    const std::size_t at = static_cast<std::size_t>(r - row) * static_cast<std::size_t>(width) +
                           static_cast<std::size_t>(c0 - column);
    if (allValid) {
      mask::SetRange(bits, at, static_cast<std::size_t>(c1 - c0));
    } else {
      mask::CopyRange(std::as_const(b).Mask(), src, bits, at, static_cast<std::size_t>(c1 - c0));
    }
  }
  if (noData) {
    VisitPixelType(pixelType_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* v = reinterpret_cast<const T*>(out);
      for (std::size_t i = 0; i < pixels; ++i)
        if (static_cast<double>(v[i]) == *noData) mask::Clear(bits, i);
    });
  }
  return S_OK;
}

void MemoryDataset::SetPixel(LONG band, LONG column, LONG row, double value, bool valid) {
  MemoryBand& b = *bands_[static_cast<std::size_t>(band)].Get();
  const std::size_t i = static_cast<std::size_t>(row) * static_cast<std::size_t>(grid_.columns) +
                        static_cast<std::size_t>(column);
  const ValueRange range = PixelRange(pixelType_);
  VisitPixelType(pixelType_, [&](auto tag) {
    using T = typename decltype(tag)::type;
    bool converted = true;
    b.Data<T>()[i] = valid ? ConvertValue<T>(value, range, &converted) : T{0};
    b.PutValid(i, valid && converted);
  });
}

bool LendMemoryCells(IRaster* raster, LONG column, LONG row, LONG width, LONG height,
                     LONG pixelType, LONG bands, MemoryCells* cells) {
  auto* view = dynamic_cast<Raster*>(raster);
  if (view == nullptr || !view->PlainView()) return false;
  auto* memory = dynamic_cast<MemoryDataset*>(view->Source().Get());
  if (memory == nullptr || memory->PixelType() != pixelType) return false;
  const RasterGrid& grid = memory->Grid();
  if (column < 0 || row < 0 || width < 1 || height < 1 || column + width > grid.columns ||
      row + height > grid.rows)
    return false;
  LONG count = 0;
  memory->get_BandCount(&count);
  if (bands > 0) count = std::min(count, bands);
  const std::size_t first = static_cast<std::size_t>(row) * static_cast<std::size_t>(grid.columns) +
                            static_cast<std::size_t>(column);
  const std::size_t size = PixelSize(pixelType);
  cells->values.clear();
  cells->masks.clear();
  cells->allValid.clear();
  for (LONG b = 0; b < count; ++b) {
    MemoryBand& band = memory->Band(b);
    // Values equal to a no-data value are invalid without their bit saying so.
    if (band.NoData()) return false;
    cells->values.push_back(static_cast<const std::uint8_t*>(band.Data()) + first * size);
    cells->masks.push_back(std::as_const(band).Mask());
    cells->allValid.push_back(band.KnownAllValid());
  }
  cells->pitch = static_cast<std::size_t>(grid.columns);
  cells->maskFirst = first;
  return count > 0;
}

}  // namespace pw::raster
