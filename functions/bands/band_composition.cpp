// Band composition: band collections as function outputs.
#include "functions/bands/band_composition.h"

#include "raster/band_indexes.h"
#include "resources/raster_names.h"
#include "resources/string_table.h"

namespace pw::functions {

HRESULT BandCompositionFunction::BindBands(const std::vector<raster::BandReference>& bands) {
  ComPtr<IRaster> collection;
  HRESULT hr = raster::CreateBandCollection(bands, &collection);
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);
  ComPtr<IRasterInfo3> info;
  hr = Define(collection.Get(), -1, &info);
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);
  PW_RETURN_IF_FAILED(RemoveColormapStatsHistograms(info.Get()));
  PW_RETURN_IF_FAILED(KeepBandKeyProperties(bands));
  PW_RETURN_IF_FAILED(
      DefineRasterKeyProperty(u"BAND_COUNT", Variant(static_cast<std::int32_t>(bands.size()))));
  inputs_ = {collection};
  info_ = info;
  return S_OK;
}

HRESULT BandCompositionFunction::ReadImpl(LONG column, LONG row, IPixelBlock* block) {
  if (inputs_.empty()) return E_FAIL;
  return ReadInput(inputs_.front().Get(), column, row, 0, 0, block);
}

}  // namespace pw::functions
