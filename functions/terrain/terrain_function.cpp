// The terrain function base.
#include "functions/terrain/terrain_function.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "raster/algorithms/window.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/raster_view.h"
#include "resources/raster_names.h"
#include "resources/string_table.h"

namespace pw::functions {

namespace {

// The input a band of a block's rows holds at most (beyond eight rows).
constexpr std::size_t kBandBytes = std::size_t{2} << 20;

}  // namespace

TerrainFunction::TerrainFunction(UINT nameId, UINT descriptionId)
    : BasicFunction(4, nameId, descriptionId) {
  // The output is a derived surface: band descriptions of the elevation no longer apply.
  for (std::u16string_view name :
       {res::c_name_BandName, res::c_name_BandProperties, res::c_name_DatasetTag,
        res::c_name_SourceBandIndex, res::c_name_WavelengthMin, res::c_name_WavelengthMax})
    InvalidateRasterKeyProperty(name);
}

HRESULT TerrainFunction::BindElevation(const VARIANT* dem, bool removeEdgeEffect, LONG defaultType,
                                       std::u16string_view bandName) {
  ComPtr<IRaster> opened;
  if (dem == nullptr || dem->vt == VT_EMPTY) return InvalidRaster(u"Raster");
  if (FAILED(Open(*dem, &opened)))
    return ChainParamBindError(u"Raster", E_INVALIDARG, framework::kRasterDataset);
  LONG bands = 0;
  opened.As<IRasterProps>()->get_BandCount(&bands);
  if (bands < 1) return ChainParamBindError(u"Raster", E_INVALIDARG, framework::kRasterDataset);
  // A view of our own, so that setting its resampling code leaves the caller's raster as it
  // was; reads take its band 1 only.
  ComPtr<IRaster> first;
  PW_RETURN_IF_FAILED(raster::CreateDirectView(opened.Get(), &first));
  LONG type = -1;
  first.As<IRasterProps>()->get_PixelType(&type);
  PW_RETURN_IF_FAILED(first->put_ResampleMethod(removeEdgeEffect ? raster::kBilinearEdgeExtended
                                                                 : raster::kBilinear));
  outputType_ = pixelType_ != -1 ? pixelType_ : defaultType;
  ComPtr<IRasterInfo3> info;
  const HRESULT hr = Define(first.Get(), outputType_, &info);
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);
  info->put_BandCount(1);
  info->put_NoData(Variant());
  PW_RETURN_IF_FAILED(RemoveColormapStatsHistograms(info.Get()));
  PW_RETURN_IF_FAILED(NameBands(1, bandName));

  const raster::RasterGrid grid = raster::GridOf(first.Get());
  cellX_ = grid.CellX();
  cellY_ = grid.CellY();
  topY_ = grid.ymax;
  kind_ = kPlanarGrid;
  ComPtr<ISpatialReference> reference;
  first.As<IRasterProps>()->get_SpatialReference(&reference);
  if (reference) {
    LONG code = 0, kind = 0;
    reference->get_FactoryCode(&code);
    reference->get_Kind(&kind);
    if (code == 3857 || code == 54004) {
      kind_ = kMercatorGrid;
    } else if (kind == pw::kGeographic) {
      kind_ = kGeographicGrid;
    }
  }
  dem_ = first;
  inputType_ = type;
  removeEdgeEffect_ = removeEdgeEffect;
  inputs_ = {opened};
  info_ = info;
  return S_OK;
}

void TerrainFunction::ChooseDevice(LONG targetDevice, LONG deviceId) {
  targetDevice_ = targetDevice;
  deviceId_ = deviceId;
  // No device service in this build: target 2 never asks, target 1 falls back at once,
  // and any other target keeps asking and fails each read.
  gpuDisabled_ = targetDevice == 1 || targetDevice == 2;
}

HRESULT TerrainFunction::ReadImpl(LONG column, LONG row, IPixelBlock* block) {
  if (!dem_) return E_FAIL;
  if (!gpuDisabled_) {
    return ReportError(E_NOTIMPL,
                       std::u16string(TypeName()) +
                           u": \"AnalysisTargetDevice\" asks for a GPU, and this build has no "
                           u"GPU device (use 1 or 2 for the CPU).",
                       ClassId());
  }
  raster::BlockShape shape;
  PW_RETURN_IF_FAILED(raster::GetShape(block, &shape));
  if (shape.width < 1 || shape.height < 1) return S_OK;
  // The window engine reads each band of rows with its one-cell margins just before it is
  // computed, so that the input is still in the processor's cache when the engine reads it.
  raster::WindowShape windowShape;
  windowShape.margins = raster::Margins::Radius(1);
  windowShape.edges = removeEdgeEffect_ ? raster::EdgeMode::kExtend : raster::EdgeMode::kInvalid;
  windowShape.pixelType = inputType_;
  windowShape.bands = 1;
  windowShape.bandBytes = kBandBytes;
  const std::size_t outPixel = raster::PixelSize(outputType_);
  const terrain::Surface surface = SurfaceOf();
  return raster::ForEachWindowRows(
      dem_.Get(), column, row, shape.width, shape.height, windowShape,
      [&](const raster::WindowRows& rows) -> HRESULT {
        const std::size_t cells =
            static_cast<std::size_t>(rows.firstRow) * static_cast<std::size_t>(rows.width);
        // S_FALSE when no input cell of the band is valid.
        return terrain::Compute(rows.window->Buffer(0), rows.window->Mask(0), inputType_,
                                rows.width, rows.rows,
                                static_cast<std::uint8_t*>(block->Buffer(0)) + cells * outPixel,
                                block->Mask(0) + cells / 8, outputType_, surface,
                                terrain::RowThreads(), raster::simd::Best(), rows.row);
      });
}

}  // namespace pw::functions
