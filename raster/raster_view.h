// Raster views: a grid, pixel type and no-data values of their own over a source, read
// block by block with resampling (codes 0 to 4) and type conversion. A view is itself a
// source, so views of views, band collections of views and filters compose.
#pragma once

#include "raster/algorithms/no_data.h"
#include "raster/model.h"

namespace pw::raster {

class Raster : public IRaster, public IRasterProps, public IRasterSource {
 public:
  using Interfaces = InterfaceList<IRaster, IRasterProps, IRasterSource>;
  // The view starts with the source's grid, pixel type, spatial reference and each band's
  // no-data value; it reads every band of the source.
  explicit Raster(IRasterSource* source);

  // IRaster
  HRESULT STDMETHODCALLTYPE CreatePixelBlock(LONG width, LONG height, IPixelBlock** block) override;
  HRESULT STDMETHODCALLTYPE Read(IPnt* topLeft, IPixelBlock* block) override;
  HRESULT STDMETHODCALLTYPE ReadAt(LONG column, LONG row, IPixelBlock* block) override;
  HRESULT STDMETHODCALLTYPE get_ResampleMethod(LONG* method) override;
  HRESULT STDMETHODCALLTYPE put_ResampleMethod(LONG method) override;
  HRESULT STDMETHODCALLTYPE get_Filter(IRasterFilter** filter) override;
  HRESULT STDMETHODCALLTYPE putref_Filter(IRasterFilter* filter) override;

  // IRasterProps
  HRESULT STDMETHODCALLTYPE get_Extent(IEnvelope** extent) override;
  HRESULT STDMETHODCALLTYPE put_Extent(IEnvelope* extent) override;
  HRESULT STDMETHODCALLTYPE get_Width(LONG* width) override;
  HRESULT STDMETHODCALLTYPE put_Width(LONG width) override;
  HRESULT STDMETHODCALLTYPE get_Height(LONG* height) override;
  HRESULT STDMETHODCALLTYPE put_Height(LONG height) override;
  HRESULT STDMETHODCALLTYPE get_MeanCellSize(IPnt** size) override;
  HRESULT STDMETHODCALLTYPE put_MeanCellSize(IPnt* size) override;
  HRESULT STDMETHODCALLTYPE get_SpatialReference(ISpatialReference** reference) override;
  HRESULT STDMETHODCALLTYPE put_SpatialReference(ISpatialReference* reference) override;
  HRESULT STDMETHODCALLTYPE get_PixelType(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_PixelType(LONG type) override;
  HRESULT STDMETHODCALLTYPE get_NoDataValue(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_NoDataValue(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_BandCount(LONG* count) override;

  // IRasterSource
  HRESULT STDMETHODCALLTYPE GetInfo(SourceInfo* info) override;
  HRESULT STDMETHODCALLTYPE ReadWindow(LONG band, LONG column, LONG row, LONG width, LONG height,
                                       void* buffer, BYTE* mask) override;

  const RasterGrid& Grid() const { return grid_; }
  // True when the view reads its source as it is: the same grid, pixel type, reference and
  // no-data values, no filter.
  bool PlainView() const;
  const ComPtr<IRasterSource>& Source() const { return source_; }
  void SetGrid(const RasterGrid& grid) { grid_ = grid; }

 private:
  HRESULT ReadBands(LONG column, LONG row, IPixelBlock* block);
  HRESULT ReadBand(LONG band, LONG column, LONG row, LONG width, LONG height, LONG type, void* out,
                   BYTE* mask) const;
  HRESULT ReadAligned(LONG band, LONG column, LONG row, LONG width, LONG height, LONG type,
                      void* out, BYTE* mask, LONG dx, LONG dy) const;
  // Same grid with edge extension, for a window reaching beyond the source.
  HRESULT ReadEdgeExtended(LONG band, LONG column, LONG row, LONG width, LONG height, LONG type,
                           void* out, BYTE* mask, LONG dx, LONG dy) const;
  // Fills `out` from `fetch`, which gives source-typed values and their mask.
  template <class Fetch>
  HRESULT ReadConverted(LONG band, std::size_t pixels, LONG type, void* out, BYTE* mask,
                        Fetch&& fetch) const;
  HRESULT ReadResampled(LONG band, LONG column, LONG row, LONG width, LONG height, LONG type,
                        void* out, BYTE* mask) const;
  // Invalid cells take the band's no-data value (0 without one).
  void FillInvalid(LONG band, std::size_t pixels, LONG type, void* out, const BYTE* mask) const;
  void FillInvalidCells(LONG band, std::size_t pixels, LONG type, IPixelBlock* block) const;

  ComPtr<IRasterSource> source_;
  SourceInfo sourceInfo_;
  RasterGrid grid_;
  LONG pixelType_;
  ComPtr<ISpatialReference> reference_;
  BandNoData noData_;  // one entry per band of the source
  LONG method_ = kNearest;
  ComPtr<IRasterFilter> filter_;
  // Set when the view's spatial reference differs from the source's and the source can
  // reproject.
  ComPtr<IRasterWarpSource> warp_;
};

// The grid of a raster (its extent and size); an empty grid for a raster without them.
RasterGrid GridOf(IRaster* raster);
// A raster's band count (0) and pixel type (-1 when it has no properties).
LONG BandCountOf(IRaster* raster);
LONG PixelTypeOf(IRaster* raster);

// A view over every band of a source.
HRESULT CreateRaster(IRasterSource* source, IRaster** raster);

// What a new view over `raster` reads: the raster's own source when the raster is a plain
// view of it (one layer fewer, and a source that can reproject is asked directly), else the
// raster itself.
ComPtr<IRasterSource> ReadingSource(IRaster* raster);

// A new view with the raster's grid, pixel type and reference over its reading source.
HRESULT CreateDirectView(IRaster* raster, IRaster** view);

// A view of `raster` (through its reading source) on `grid`, in `reference` (null keeps the
// raster's) and `pixelType`, resampled with the raster's own resampling code.
HRESULT CreateRasterOnGrid(IRaster* raster, const RasterGrid& grid, ISpatialReference* reference,
                           LONG pixelType, IRaster** view);

}  // namespace pw::raster
