// Interfaces of the raster object model: pixel blocks, raster sources, raster views and
// their properties, filters, datasets and bands, tables and rows.
#pragma once

#include <optional>
#include <vector>

#include "raster/interfaces.h"

namespace pw::raster {

// A raster's grid: its extent in map units and its columns and rows (cell sizes follow).
struct RasterGrid {
  double xmin = 0, ymin = 0, xmax = 0, ymax = 0;
  LONG columns = 0, rows = 0;

  double CellX() const { return columns > 0 ? (xmax - xmin) / columns : 0; }
  double CellY() const { return rows > 0 ? (ymax - ymin) / rows : 0; }
  bool Valid() const { return columns > 0 && rows > 0 && xmax > xmin && ymax > ymin; }
};

// What a source offers: its grid, bands, pixel type, spatial reference and each band's
// no-data value (cells holding it read as invalid).
struct SourceInfo {
  RasterGrid grid;
  LONG bandCount = 0;
  LONG pixelType = -1;
  ComPtr<ISpatialReference> reference;
  std::vector<std::optional<double>> noData;  // one entry per band
};

}  // namespace pw::raster

// A block of pixels: width x height pixels of one pixel type, one row-major buffer and one
// validity mask (one bit per pixel, most significant first, set = valid) per band.
PW_INTERFACE(IPixelBlock, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Width(LONG * width) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Height(LONG * height) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BandCount(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PixelType(LONG * type) = 0;
  // Direct access for kernels; null for a band outside the block.
  virtual void* STDMETHODCALLTYPE Buffer(LONG band) = 0;
  virtual BYTE* STDMETHODCALLTYPE Mask(LONG band) = 0;
};

// Anything a raster view can read from: datasets, band collections, other views and
// (later) bound functions. Windows are in the source's own grid and pixel type; cells
// outside the grid are invalid. Reads may come from many threads at once.
PW_INTERFACE(IRasterSource, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE GetInfo(pw::raster::SourceInfo * info) = 0;
  // `buffer` holds width x height values of the source's pixel type, `mask` as many bits.
  virtual HRESULT STDMETHODCALLTYPE ReadWindow(LONG band, LONG column, LONG row, LONG width,
                                               LONG height, void* buffer, BYTE* mask) = 0;
};

// A source whose bands are made together (a bound function computes all its bands in one
// read): a view reads a block of it in one call instead of band by band, so an N-band
// function is computed once per block, not N times.
PW_INTERFACE(IRasterBlockSource, IUnknown) {
  // Fills every band of `block` (the source's pixel type and band count) for the window of
  // the block's size at (column, row) of the source's grid; cells outside it are invalid.
  virtual HRESULT STDMETHODCALLTYPE ReadBlock(LONG column, LONG row, IPixelBlock * block) = 0;
};

// A source that can reproject: fills a window of `grid` (a grid in another spatial
// reference) with values of the source's pixel type, resampled with a view's resampling
// code. Raster views use it when their spatial reference differs from the source's.
PW_INTERFACE(IRasterWarpSource, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE ReadWarped(
      LONG band, const pw::raster::RasterGrid& grid, ISpatialReference* reference, LONG method,
      LONG column, LONG row, LONG width, LONG height, void* buffer, BYTE* mask) = 0;
};

// A source that carries key properties of the whole raster ("VisibleBandID",
// "WavelengthMin", ...): function rasters and in-memory datasets.
PW_INTERFACE(IRasterKeyPropertySource, IUnknown) {
  // S_FALSE and an empty value when the raster does not carry the property.
  virtual HRESULT STDMETHODCALLTYPE GetKeyProperty(BSTR name, VARIANT * value) = 0;
};

struct IRaster;

// A filter attached to a raster view. The view hands it a view of its own grid, type and
// bands without the filter (`source`) and the block to fill at (column, row); the filter
// reads the window it needs from `source` itself.
PW_INTERFACE(IRasterFilter, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE Filter(IRaster * source, LONG column, LONG row,
                                           IPixelBlock * output) = 0;
};

// A kernel filter: a built-in kernel by type code, or a user kernel of a given size (type
// -1); with MirrorEdges the raster is mirrored at its edges, otherwise cells whose window
// reaches beyond them are invalid.
PW_INTERFACE(IRasterConvolutionFilter, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Type(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Type(LONG type) = 0;
  // The user kernel's size; its weights row by row, columns x rows of them.
  virtual HRESULT STDMETHODCALLTYPE PutSize(LONG columns, LONG rows) = 0;
  virtual HRESULT STDMETHODCALLTYPE PutKernel(IDoubleArray * weights) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MirrorEdges(VARIANT_BOOL * mirror) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MirrorEdges(VARIANT_BOOL mirror) = 0;
};

// A focal statistics filter: a statistic (1 minimum, 2 maximum, 3 mean, 4 standard
// deviation, 5 median, 6 majority, 7 minority) of the valid cells of a window around each
// cell, or, with FillNoDataOnly, only for invalid cells.
PW_INTERFACE(IFocalStatisticsFilter, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE PutSize(LONG columns, LONG rows) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Statistic(LONG * statistic) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Statistic(LONG statistic) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_FillNoDataOnly(VARIANT_BOOL fill) = 0;
};

namespace pw::raster {
// Resampling codes of raster views.
enum ResampleMethod : LONG {
  kNearest = 0,
  kBilinear = 1,
  kCubic = 2,
  kMajority = 3,
  kBilinearEdgeExtended = 4,  // beyond the edge the nearest edge cell repeats
};
}  // namespace pw::raster

// A raster view: a read at a top-left pixel of the view's own pixel space fills a block,
// converting from the source's grid and pixel type. Pixels outside the source are invalid
// (or, with resampling code 4, take the nearest edge cell).
PW_INTERFACE(IRaster, IUnknown) {
  // A block of the view's pixel type and band count.
  virtual HRESULT STDMETHODCALLTYPE CreatePixelBlock(LONG width, LONG height,
                                                     IPixelBlock * *block) = 0;
  virtual HRESULT STDMETHODCALLTYPE Read(IPnt * topLeft, IPixelBlock * block) = 0;
  virtual HRESULT STDMETHODCALLTYPE ReadAt(LONG column, LONG row, IPixelBlock * block) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ResampleMethod(LONG * method) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ResampleMethod(LONG method) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Filter(IRasterFilter * *filter) = 0;
  virtual HRESULT STDMETHODCALLTYPE putref_Filter(IRasterFilter * filter) = 0;
};

// The settable properties of a view. Putting the extent keeps the columns and rows;
// putting the width or height keeps the extent; putting the cell size keeps the extent
// and recomputes the columns and rows (rounded, at least 1).
PW_INTERFACE(IRasterProps, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Extent(IEnvelope * *extent) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Extent(IEnvelope * extent) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Width(LONG * width) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Width(LONG width) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Height(LONG * height) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Height(LONG height) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MeanCellSize(IPnt * *size) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MeanCellSize(IPnt * size) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_SpatialReference(ISpatialReference * *reference) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_SpatialReference(ISpatialReference * reference) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PixelType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_PixelType(LONG type) = 0;
  // The value written into invalid pixels: a number, or empty for none (0 is written).
  virtual HRESULT STDMETHODCALLTYPE get_NoDataValue(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_NoDataValue(VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BandCount(LONG * count) = 0;
};

// Field types of tables.
namespace pw::raster {
enum FieldType : LONG {
  kFieldShort = 0,
  kFieldLong = 1,
  kFieldSingle = 2,
  kFieldDouble = 3,
  kFieldString = 4
};
}

PW_INTERFACE(IRow, IUnknown) {
  // The field's index (names compare without case), or -1 with S_FALSE.
  virtual HRESULT STDMETHODCALLTYPE FindField(BSTR name, LONG * index) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Value(LONG field, VARIANT * value) = 0;
  // Converts to the field's type; E_INVALIDARG when the value does not convert.
  virtual HRESULT STDMETHODCALLTYPE put_Value(LONG field, VARIANT value) = 0;
};

PW_INTERFACE(ITable, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_FieldCount(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetField(LONG index, BSTR * name, LONG * type) = 0;
  // The field's index (names compare without case), or -1 with S_FALSE.
  virtual HRESULT STDMETHODCALLTYPE FindField(BSTR name, LONG * index) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddField(BSTR name, LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_RowCount(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetRow(LONG index, IRow * *row) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddRow(IRow * *row) = 0;
};

PW_INTERFACE(IRasterBand, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Name(BSTR * name) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Name(BSTR name) = 0;
  // Key properties of the band ("BandName", "WavelengthMin", "WavelengthMax", ...).
  virtual HRESULT STDMETHODCALLTYPE get_Properties(IPropertySet * *properties) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Statistics(IRasterStatistics * *statistics) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Statistics(IRasterStatistics * statistics) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Histogram(IRasterHistogram * *histogram) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Histogram(IRasterHistogram * histogram) = 0;
  // Computes statistics and a histogram from the pixels and keeps them.
  virtual HRESULT STDMETHODCALLTYPE ComputeStatisticsHistogram() = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Colormap(IRasterColormap * *colormap) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Colormap(IRasterColormap * colormap) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_AttributeTable(ITable * *table) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_AttributeTable(ITable * table) = 0;
};

PW_INTERFACE(IRasterDataset, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Name(BSTR * name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BandCount(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetBand(LONG index, IRasterBand * *band) = 0;
  // A view over every band with the dataset's own grid and pixel type.
  virtual HRESULT STDMETHODCALLTYPE CreateDefaultRaster(IRaster * *raster) = 0;
};
