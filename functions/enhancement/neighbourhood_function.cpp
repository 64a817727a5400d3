// The bind and read steps shared by the neighbourhood functions.
#include "functions/enhancement/neighbourhood_function.h"

#include <memory>

#include "com/guard.h"
#include "raster/raster_view.h"
#include "resources/string_table.h"

namespace pw::functions {

HRESULT OwnView(const VARIANT& value, ComPtr<IRaster>* opened) {
  if (value.vt != VT_UNKNOWN || value.punkVal == nullptr) return S_OK;
  auto source = ComPtr<IUnknown>(value.punkVal).As<IRaster>();
  if (!source) return S_OK;
  ComPtr<IRasterFilter> carried;
  source->get_Filter(&carried);
  if (auto* plain = dynamic_cast<raster::Raster*>(source.Get()); plain && !carried) {
    // A copy of the caller's view reads the same source with the same properties.
    return Guard([&] {
      return MakeObject<raster::Raster>(static_cast<const raster::Raster&>(*plain))
          .As<IRaster>()
          .CopyTo(opened->ReleaseAndGetAddressOf());
    });
  }
  ComPtr<IRaster> view;
  PW_RETURN_IF_FAILED(raster::CreateRaster((*opened).As<IRasterSource>().Get(), &view));
  *opened = view;
  return S_OK;
}

HRESULT NeighbourhoodFunction::OpenInput(framework::BasicFunctionArguments* args,
                                         ComPtr<IRaster>* input, ComPtr<IRasterInfo3>* info) {
  const Variant* value = args->Find(u"Raster");
  if (value == nullptr || value->IsEmpty()) return InvalidRaster(u"Raster");
  if (FAILED(Open(*value, input->ReleaseAndGetAddressOf())) || FAILED(OwnView(*value, input)))
    return ChainParamBindError(u"Raster", E_INVALIDARG, framework::kRasterDataset);
  const HRESULT defined = Define(input->Get(), -1, info->ReleaseAndGetAddressOf());
  if (FAILED(defined)) return ChainBindError(defined, res::IDS_FUNCTION_BIND_FAILED);
  return S_OK;
}

HRESULT NeighbourhoodFunction::Finish(const ComPtr<IRaster>& input,
                                      const ComPtr<IRasterInfo3>& info, IRasterFilter* filter,
                                      bool keepStatistics) {
  if (filter != nullptr) {
    const HRESULT attached = input->putref_Filter(filter);
    if (FAILED(attached)) return ChainBindError(attached, res::IDS_FUNCTION_BIND_FAILED);
  }
  if (!keepStatistics) PW_RETURN_IF_FAILED(RemoveColormapStatsHistograms(info.Get()));
  PW_RETURN_IF_FAILED(KeepBandKeyProperties(input.Get()));
  inputs_ = {input};
  info_ = info;
  return S_OK;
}

HRESULT NeighbourhoodFunction::Fail(std::u16string_view argument, const std::string& why) {
  ReportError(E_INVALIDARG, std::u16string(TypeName()) + u": " + ToUtf16(why), ClassId());
  return ChainParamBindError(argument, E_INVALIDARG);
}

HRESULT NeighbourhoodFunction::ReadImpl(LONG column, LONG row, IPixelBlock* block) {
  if (inputs_.empty()) return E_FAIL;
  return ReadInput(inputs_.front().Get(), column, row, 0, 0, block);
}

}  // namespace pw::functions
