// In-memory datasets: a grid and bands of one pixel type whose pixels live in memory,
// with names, key properties, statistics, histograms, colormap and attribute table.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "raster/large_allocator.h"
#include "raster/model.h"

namespace pw::raster {

class MemoryBand : public IRasterBand {
 public:
  using Interfaces = InterfaceList<IRasterBand>;
  MemoryBand(LONG pixelType, std::size_t pixels);

  HRESULT STDMETHODCALLTYPE get_Name(BSTR* name) override;
  HRESULT STDMETHODCALLTYPE put_Name(BSTR name) override;
  HRESULT STDMETHODCALLTYPE get_Properties(IPropertySet** properties) override;
  HRESULT STDMETHODCALLTYPE get_Statistics(IRasterStatistics** statistics) override;
  HRESULT STDMETHODCALLTYPE put_Statistics(IRasterStatistics* statistics) override;
  HRESULT STDMETHODCALLTYPE get_Histogram(IRasterHistogram** histogram) override;
  HRESULT STDMETHODCALLTYPE put_Histogram(IRasterHistogram* histogram) override;
  HRESULT STDMETHODCALLTYPE ComputeStatisticsHistogram() override;
  HRESULT STDMETHODCALLTYPE get_Colormap(IRasterColormap** colormap) override;
  HRESULT STDMETHODCALLTYPE put_Colormap(IRasterColormap* colormap) override;
  HRESULT STDMETHODCALLTYPE get_AttributeTable(ITable** table) override;
  HRESULT STDMETHODCALLTYPE put_AttributeTable(ITable* table) override;

  // Pixels (row-major, the dataset's pixel type) and validity bits, for writers.
  template <class T>
  T* Data() {
    return reinterpret_cast<T*>(data_.data());
  }
  void* Data() { return data_.data(); }
  // The validity bits for a writer, who may clear any: the band is no longer known to be all
  // valid. Readers take the const ones.
  BYTE* Mask() {
    allValid_.store(false, std::memory_order_relaxed);
    return mask_.data();
  }
  const BYTE* Mask() const { return mask_.data(); }
  // Pixel i's bit; a valid one keeps the band known to be all valid.
  void PutValid(std::size_t i, bool valid);
  // Whether every pixel is known to be valid: from creation until a writer asks for the
  // mask or makes a pixel invalid. False says nothing.
  bool KnownAllValid() const { return allValid_.load(std::memory_order_relaxed); }
  std::optional<double> NoData() const { return noData_; }
  void SetNoData(std::optional<double> value) { noData_ = value; }

 private:
  LONG pixelType_;
  std::vector<std::uint8_t, LargeAllocator<std::uint8_t>> data_;
  std::vector<std::uint8_t> mask_;
  std::atomic<bool> allValid_{true};
  std::optional<double> noData_;
  std::u16string name_;
  ComPtr<IPropertySet> properties_;
  ComPtr<IRasterStatistics> statistics_;
  ComPtr<IRasterHistogram> histogram_;
  ComPtr<IRasterColormap> colormap_;
  ComPtr<ITable> table_;
};

class MemoryDataset : public IRasterDataset, public IRasterSource, public IRasterKeyPropertySource {
 public:
  using Interfaces = InterfaceList<IRasterDataset, IRasterSource, IRasterKeyPropertySource>;
  // Pixels start at 0 and valid.
  MemoryDataset(std::u16string name, const RasterGrid& grid, LONG bands, LONG pixelType,
                ISpatialReference* reference);

  HRESULT STDMETHODCALLTYPE get_Name(BSTR* name) override;
  HRESULT STDMETHODCALLTYPE get_BandCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE GetBand(LONG index, IRasterBand** band) override;
  HRESULT STDMETHODCALLTYPE CreateDefaultRaster(IRaster** raster) override;
  HRESULT STDMETHODCALLTYPE GetInfo(SourceInfo* info) override;
  HRESULT STDMETHODCALLTYPE ReadWindow(LONG band, LONG column, LONG row, LONG width, LONG height,
                                       void* buffer, BYTE* mask) override;
  HRESULT STDMETHODCALLTYPE GetKeyProperty(BSTR name, VARIANT* value) override;

  // Key properties of the whole dataset.
  IPropertySet* Properties() const { return properties_.Get(); }
  MemoryBand& Band(LONG index) { return *bands_[static_cast<std::size_t>(index)].Get(); }
  const RasterGrid& Grid() const { return grid_; }
  LONG PixelType() const { return pixelType_; }
  // Sets every band's pixel at (column, row) from a double by the read conversion rule.
  void SetPixel(LONG band, LONG column, LONG row, double value, bool valid = true);

 private:
  std::u16string name_;
  RasterGrid grid_;
  LONG pixelType_;
  ComPtr<ISpatialReference> reference_;
  std::vector<ObjectPtr<MemoryBand>> bands_;
  ComPtr<IPropertySet> properties_;
};

// Cells of a window that a raster in memory lends where they lie: each band's values from
// the window's top-left cell, `pitch` cells from one row to the next, and its mask with the
// top-left cell's bit at `maskFirst`, rows `pitch` bits apart.
struct MemoryCells {
  std::vector<const void*> values;
  std::vector<const BYTE*> masks;
  std::vector<bool> allValid;  // bands known to have no invalid pixel
  std::size_t pitch = 0, maskFirst = 0;
};

// Whether `raster` is a plain view (no filter, resampling, conversion or no-data of its
// own) of a memory dataset without no-data values whose grid holds the window of `width` x
// `height` cells at (column, row) wholly; if so, the first `bands` bands' cells (all when 0)
// of that window. They stay valid while the dataset lives and are only to be read.
bool LendMemoryCells(IRaster* raster, LONG column, LONG row, LONG width, LONG height,
                     LONG pixelType, LONG bands, MemoryCells* cells);

// A dataset whose band b holds fill(b, column, row) (NaN makes the pixel invalid).
template <class Fill>
ObjectPtr<MemoryDataset> MakeMemoryDataset(const RasterGrid& grid, LONG bands, LONG pixelType,
                                           Fill&& fill, ISpatialReference* reference = nullptr) {
  auto dataset = MakeObject<MemoryDataset>(u"memory", grid, bands, pixelType, reference);
  for (LONG b = 0; b < bands; ++b)
    for (LONG r = 0; r < grid.rows; ++r)
      for (LONG c = 0; c < grid.columns; ++c) {
        const double v = fill(b, c, r);
        dataset->SetPixel(b, c, r, v, v == v);
      }
  return dataset;
}

}  // namespace pw::raster
