// The aspect function.
#include "functions/terrain/aspect_function.h"
#include "framework/argument_declarations.h"
#include "functions/terrain/terrain_arguments.h"

#include "framework/arguments.h"
#include "raster/persist/class_registry.h"
#include "resources/raster_names.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(AspectFunction);

// --- declaration -------------------------------------------------------------------------

namespace {
constexpr std::string_view kRasterAliases[] = {"DEM", "$$RasterValue"};
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Raster", framework::ArgumentKind::kRaster, "the elevation raster")
        .Also(kRasterAliases),
    terrain::kAnalysisTargetDevice,
    terrain::kDeviceId,
};
}  // namespace
PW_DECLARE_ARGUMENTS(AspectFunction, RasterFunctionArguments, kArguments);

AspectFunction::AspectFunction()
    : SurfaceFunction(res::IDS_ASPECT_FUNCTION_NAME, res::IDS_ASPECT_FUNCTION_DESCRIPTION) {}

HRESULT AspectFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<framework::BasicFunctionArguments*>(arguments);
  if (args == nullptr)
    return ChainParamBindError(u"Raster", E_INVALIDARG, framework::kRasterDataset);
  const Variant* dem = nullptr;
  for (std::u16string_view name : {u"$$RasterValue", u"Raster", u"DEM"}) {
    dem = args->Find(name);
    if (dem != nullptr && !dem->IsEmpty()) break;
  }
  LONG target = 1;
  if (const Variant* device = args->Find(u"AnalysisTargetDevice");
      device != nullptr && device->vt == VT_I4) {
    target = device->lVal;
    if (target < 1 || target > 3) {
      ReportError(E_FAIL,
                  u"AspectFunction: \"AnalysisTargetDevice\" must be 1, 2 or 3, not " +
                      ToUtf16(std::to_string(target)) + u".",
                  ClassId());
      return ChainBindError(E_FAIL, res::IDS_FUNCTION_BIND_FAILED);
    }
  }
  LONG deviceId = -1;
  if (const Variant* id = args->Find(u"DeviceId");
      id != nullptr && (id->vt == VT_I4 || id->vt == VT_I2 || id->vt == VT_I8))
    deviceId = id->ToInt32().value_or(-1);
  PW_RETURN_IF_FAILED(BindElevation(dem, false, 6, u"Aspect"));
  if (!(cellX_ > 0) || !(cellY_ > 0))
    return ChainParamBindError(u"Raster", E_INVALIDARG, framework::kRasterDataset);
  params_ = {cellX_, cellY_};
  ChooseDevice(target, deviceId);
  return DefineRasterKeyProperty(res::c_name_DataType, Variant(res::c_value_Generic));
}

}  // namespace pw::functions
