// The slope function and its arguments.
#include "functions/terrain/slope_function.h"

#include <cmath>

#include "raster/persist/class_registry.h"
#include "resources/raster_names.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_PERSIST_CLASS(SlopeFunction, ClassIdFromName("SlopeFunction"));
PW_REGISTER_PERSIST_CLASS(SlopeFunctionArguments, ClassIdFromName("SlopeFunctionArguments"));

// --- arguments ---------------------------------------------------------------------------

HRESULT SlopeFunctionArguments::get_AnalysisTargetDevice(LONG* device) {
  return HandOut(GetLong(u"AnalysisTargetDevice", 1), device);
}
HRESULT SlopeFunctionArguments::put_AnalysisTargetDevice(LONG device) {
  return PutNamedValue(u"AnalysisTargetDevice", Variant(std::int32_t{device}));
}
HRESULT SlopeFunctionArguments::get_DeviceId(LONG* id) {
  return HandOut(GetLong(u"DeviceId", -1), id);
}
HRESULT SlopeFunctionArguments::put_DeviceId(LONG id) {
  return PutNamedValue(u"DeviceId", Variant(std::int32_t{id}));
}

HRESULT SlopeFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    ResolveElevation(row, properties);
    framework::ResolveAndUpdate_ValueTypeBoolean(this, Bstr(u"RemoveEdgeEffect").Get(), row,
                                                 properties);
    return S_OK;
  });
}

HRESULT SlopeFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<SlopeFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

SlopeFunction::SlopeFunction()
    : TerrainFunction(res::IDS_SLOPE_FUNCTION_NAME, res::IDS_SLOPE_FUNCTION_DESCRIPTION) {}

HRESULT SlopeFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<SlopeFunctionArguments*>(arguments);
  if (args == nullptr) return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  const Variant* dem = args->Find(u"DEM");
  if (dem == nullptr || dem->IsEmpty()) dem = args->Find(u"Raster");
  PW_RETURN_IF_FAILED(BindElevation(dem, args->GetBool(u"RemoveEdgeEffect", false), 9));
  zFactor_ = args->GetDouble(u"ZFactor", 1.0);
  psZFactor_ = args->GetDouble(u"PSZFactor", 0.024);
  psPower_ = args->GetDouble(u"PSPower", 0.664);
  slopeType_ = args->GetLong(u"SlopeType", 1);
  ChooseDevice(args->GetLong(u"AnalysisTargetDevice", 1), args->GetLong(u"DeviceId", -1));
  return DefineRasterKeyProperty(res::c_name_DataType, Variant(res::c_value_Generic));
}

terrain::Params SlopeFunction::BlockParams(LONG row) const {
  terrain::Params p;
  p.surface = terrain::Surface::kSlope;
  const double z = zFactor_;
  p.fx = z / (8 * cellX_);
  p.fy = z / (8 * cellY_);
  if (std::fabs(z - 1) < 0.0001 && kind_ == kGeographicGrid) {
    // Degrees of latitude to metres, for a DEM in metres on a geographic grid.
    p.fx /= 111000.0;
    p.fy /= 111000.0;
  }
  if (slopeType_ == 3) {
    // The power-scaled factor replaces the plain one (without the degree division).
    p.fx = (psZFactor_ * std::pow(cellX_, psPower_) + z) / (8 * cellX_);
    p.fy = (psZFactor_ * std::pow(cellY_, psPower_) + z) / (8 * cellY_);
  }
  p.slopeType = slopeType_;
  p.mercator = kind_ == kMercatorGrid;
  p.topY = topY_ - static_cast<double>(row) * cellY_;
  p.cellY = cellY_;
  return p;
}

}  // namespace pw::functions
