// The slope function and its arguments.
#include "functions/terrain/slope_function.h"
#include "framework/argument_declarations.h"

#include <cmath>

#include "raster/persist/class_registry.h"
#include "resources/raster_names.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(SlopeFunction);
PW_REGISTER_CLASS(SlopeFunctionArguments);

// --- declaration -------------------------------------------------------------------------

namespace {
constexpr framework::Choice kSlopeTypes[] = {
    {1, "degrees"}, {2, "percent rise"}, {3, "degrees with the power-scaled z-factor"}};
constexpr framework::ArgumentDeclaration kArguments[] = {
    terrain::kDem,
    terrain::kZFactor,
    framework::Integer("SlopeType", 1, "the kind of slope").OneOf(kSlopeTypes),
    terrain::kPSPower,
    terrain::kPSZFactor,
    terrain::kRemoveEdgeEffect,
    terrain::kAnalysisTargetDevice,
    terrain::kDeviceId,
};
}  // namespace
PW_DECLARE_ARGUMENTS(SlopeFunction, SlopeFunctionArguments, kArguments);

namespace {
constexpr auto kDevice = static_cast<LONG>(framework::Default(kArguments, "AnalysisTargetDevice"));
constexpr auto kDeviceId = static_cast<LONG>(framework::Default(kArguments, "DeviceId"));
constexpr bool kRemoveEdgeEffect = framework::Default(kArguments, "RemoveEdgeEffect") != 0;
static_assert(framework::Default(kArguments, "SlopeType") == ZFactors{}.slopeType);
}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT SlopeFunctionArguments::get_AnalysisTargetDevice(LONG* device) {
  return HandOut(GetLong(u"AnalysisTargetDevice", kDevice), device);
}
HRESULT SlopeFunctionArguments::put_AnalysisTargetDevice(LONG device) {
  return PutNamedValue(u"AnalysisTargetDevice", Variant(std::int32_t{device}));
}
HRESULT SlopeFunctionArguments::get_DeviceId(LONG* id) {
  return HandOut(GetLong(u"DeviceId", kDeviceId), id);
}
HRESULT SlopeFunctionArguments::put_DeviceId(LONG id) {
  return PutNamedValue(u"DeviceId", Variant(std::int32_t{id}));
}

HRESULT SlopeFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    framework::ResolveDeclared(kArguments, this, row, properties);
    return S_OK;
  });
}

HRESULT SlopeFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<SlopeFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

SlopeFunction::SlopeFunction()
    : SurfaceFunction(res::IDS_SLOPE_FUNCTION_NAME, res::IDS_SLOPE_FUNCTION_DESCRIPTION) {}

HRESULT SlopeFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<SlopeFunctionArguments*>(arguments);
  if (args == nullptr) return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  PW_RETURN_IF_FAILED(BindElevation(
      args->Elevation(), args->GetBool(u"RemoveEdgeEffect", kRemoveEdgeEffect), 9, u"Slope"));
  const ZFactors f = args->Factors();
  terrain::SlopeFormula::Params& p = params_;
  p = {};
  p.fx = f.z / (8 * cellX_);
  p.fy = f.z / (8 * cellY_);
  if (std::fabs(f.z - 1) < 0.0001 && kind_ == kGeographicGrid) {
    // Degrees of latitude to metres, for a DEM in metres on a geographic grid.
    p.fx /= 111000.0;
    p.fy /= 111000.0;
  }
  if (f.slopeType == 3) {
    // The power-scaled factor replaces the plain one (without the degree division).
    p.fx = (f.psZFactor * std::pow(cellX_, f.psPower) + f.z) / (8 * cellX_);
    p.fy = (f.psZFactor * std::pow(cellY_, f.psPower) + f.z) / (8 * cellY_);
  }
  p.slopeType = f.slopeType;
  p.mercator = kind_ == kMercatorGrid;
  p.topY = topY_;
  p.cellY = cellY_;
  ChooseDevice(args->GetLong(u"AnalysisTargetDevice", kDevice),
               args->GetLong(u"DeviceId", kDeviceId));
  return DefineRasterKeyProperty(res::c_name_DataType, Variant(res::c_value_Generic));
}

}  // namespace pw::functions
