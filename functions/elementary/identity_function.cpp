// The identity function.
#include "functions/elementary/identity_function.h"
#include "framework/argument_declarations.h"

#include <cmath>

#include "raster/persist/class_registry.h"
#include "raster/values/geometry.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(IdentityFunction);

namespace {
using framework::ArgumentKind;
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Raster", ArgumentKind::kRaster, "the raster passed through unchanged"),
    framework::Optional("Extent", ArgumentKind::kEnvelope, "the input's",
                        "limits the output to this extent, snapped outward to whole cells"),
    framework::Optional("MultidimensionalInfo", ArgumentKind::kObject, "the input's",
                        "replaces the output's multidimensional description"),
};
}  // namespace
PW_DECLARE_ARGUMENTS(IdentityFunction, RasterFunctionArguments, kArguments);

namespace {
// The same small length in degrees for geographic references.
constexpr double kMinimumCell = 0.001;
constexpr double kMinimumCellDegrees = 8.983152841195215e-9;
}  // namespace

IdentityFunction::IdentityFunction()
    : BasicFunction(4, res::IDS_IDENTITY_FUNCTION_NAME, res::IDS_IDENTITY_FUNCTION_DESCRIPTION) {}

HRESULT IdentityFunction::get_Input(IRaster** raster) {
  PW_CHECK_POINTER(raster);
  *raster = nullptr;
  if (inputs_.empty()) return S_FALSE;
  return inputs_.front().CopyTo(raster);
}

HRESULT IdentityFunction::BindImpl(IRasterFunctionArguments* arguments) {
  Variant value;
  if (FAILED(arguments->GetValue(Bstr(u"Raster").Get(), &value))) return InvalidRaster(u"Raster");
  ComPtr<IRaster> input;
  if (FAILED(Open(value, &input)))
    return ChainParamBindError(u"Raster", E_INVALIDARG, framework::kRasterDataset);
  ComPtr<IRasterInfo3> info;
  const HRESULT hr = Define(input.Get(), -1, &info);
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);

  Variant extentValue;
  if (SUCCEEDED(arguments->GetValue(Bstr(u"Extent").Get(), &extentValue)) &&
      extentValue.vt == VT_UNKNOWN && extentValue.punkVal != nullptr) {
    ComPtr<IEnvelope> wanted = ComPtr<IUnknown>(extentValue.punkVal).As<IEnvelope>();
    if (wanted) {
      // Snap outward to whole input cells.
      double x0 = 0, y0 = 0, x1 = 0, y1 = 0, ix0 = 0, iy0 = 0, ix1 = 0, iy1 = 0, cx = 0, cy = 0;
      wanted->QueryCoords(&x0, &y0, &x1, &y1);
      ComPtr<IEnvelope> inputExtent;
      info->get_Extent(&inputExtent);
      inputExtent->QueryCoords(&ix0, &iy0, &ix1, &iy1);
      info->get_PixelSizeX(&cx);
      info->get_PixelSizeY(&cy);
      if (cx > 0 && cy > 0 && x1 >= x0 && y1 >= y0) {
        double nx0 = ix0 + std::floor((x0 - ix0) / cx + 1e-9) * cx;
        double nx1 = ix0 + std::ceil((x1 - ix0) / cx - 1e-9) * cx;
        double ny1 = iy1 - std::floor((iy1 - y1) / cy + 1e-9) * cy;
        double ny0 = iy1 - std::ceil((iy1 - y0) / cy - 1e-9) * cy;
        if (nx1 <= nx0 || ny1 <= ny0) {
          // A degenerate extent widens by half a cell on each side.
          ComPtr<ISpatialReference> reference;
          info->get_SpatialReference(&reference);
          LONG kind = kUnknownReference;
          if (reference) reference->get_Kind(&kind);
          double cell = std::min(cx, cy);
          if (cell == 0) cell = kind == kGeographic ? kMinimumCellDegrees : kMinimumCell;
          nx0 -= cell / 2, nx1 += cell / 2, ny0 -= cell / 2, ny1 += cell / 2;
        }
        auto snapped = MakeObject<raster::Envelope>();
        snapped->PutCoords(nx0, ny0, nx1, ny1);
        ComPtr<ISpatialReference> reference;
        inputExtent->get_SpatialReference(&reference);
        snapped->putref_SpatialReference(reference.Get());
        info->put_Extent(snapped.As<IEnvelope>().Get());
      }
    }
  }
  Variant md;
  if (SUCCEEDED(arguments->GetValue(Bstr(u"MultidimensionalInfo").Get(), &md)) &&
      md.vt == VT_UNKNOWN && md.punkVal != nullptr) {
    if (auto mdInfo = ComPtr<IUnknown>(md.punkVal).As<IMultidimensionalInfo>())
      info->put_MultidimensionalInfo(mdInfo.Get());
  }
  PW_RETURN_IF_FAILED(
      ComputePixelBlockOffset(0, 0, input.Get(), info.Get(), &columnOffset_, &rowOffset_));
  PW_RETURN_IF_FAILED(KeepBandKeyProperties(input.Get()));
  inputs_ = {input};
  info_ = info;
  return S_OK;
}

HRESULT IdentityFunction::ReadImpl(LONG column, LONG row, IPixelBlock* block) {
  if (inputs_.empty()) return E_FAIL;
  return ReadInput(inputs_.front().Get(), column, row, columnOffset_, rowOffset_, block);
}

}  // namespace pw::functions
