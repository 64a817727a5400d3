// The hillshade function and its arguments.
#include "functions/terrain/hillshade_function.h"
#include "framework/argument_declarations.h"

#include <cmath>

#include "raster/persist/class_registry.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(HillshadeFunction);
PW_REGISTER_CLASS(HillshadeFunctionArguments);

// --- declaration -------------------------------------------------------------------------

namespace {
constexpr framework::Choice kSlopeTypes[] = {
    {1, "the plain z-factor"}, {2, "the plain z-factor"}, {3, "the power-scaled z-factor"}};
constexpr framework::Choice kHillshadeTypes[] = {{0, "one sun"}, {1, "six fixed lights"}};
constexpr framework::ArgumentDeclaration kArguments[] = {
    terrain::kDem,
    framework::Number("Azimuth", 315, "the sun's direction in degrees clockwise from north"),
    framework::Number("Altitude", 45, "the sun's angle above the horizon in degrees")
        .Between(-90, 90),
    terrain::kZFactor,
    framework::Integer("SlopeType", 1, "which z-factor").OneOf(kSlopeTypes),
    terrain::kPSPower,
    terrain::kPSZFactor,
    terrain::kRemoveEdgeEffect.Unresolved(),
    framework::Integer("HillshadeType", 0, "the lighting").OneOf(kHillshadeTypes),
};
}  // namespace
PW_DECLARE_ARGUMENTS(HillshadeFunction, HillshadeFunctionArguments, kArguments);

namespace {
constexpr double kAzimuth = framework::Default(kArguments, "Azimuth");
constexpr double kAltitude = framework::Default(kArguments, "Altitude");
constexpr auto kHillshadeType = static_cast<LONG>(framework::Default(kArguments, "HillshadeType"));
constexpr bool kRemoveEdgeEffect = framework::Default(kArguments, "RemoveEdgeEffect") != 0;
static_assert(framework::Default(kArguments, "SlopeType") == ZFactors{}.slopeType);
}  // namespace

namespace {

// The multidirectional lights: azimuth, altitude and weight (in eighteenths).
constexpr struct {
  double azimuth, altitude, weight;
} kLights[6] = {{315, 60, 3}, {270, 60, 5}, {225, 60, 3}, {360, 60, 2}, {180, 60, 1}, {0, 90, 4}};

}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT HillshadeFunctionArguments::get_Azimuth(double* azimuth) {
  return HandOut(GetDouble(u"Azimuth", kAzimuth), azimuth);
}
HRESULT HillshadeFunctionArguments::put_Azimuth(double azimuth) {
  return PutNamedValue(u"Azimuth", Variant(azimuth));
}
HRESULT HillshadeFunctionArguments::get_Altitude(double* altitude) {
  return HandOut(GetDouble(u"Altitude", kAltitude), altitude);
}
HRESULT HillshadeFunctionArguments::put_Altitude(double altitude) {
  if (!(std::fabs(altitude) <= 90.0))
    return ReportError(E_INVALIDARG,
                       u"HillshadeFunctionArguments: \"Altitude\" must lie "
                       u"between -90 and 90 degrees.");
  return PutNamedValue(u"Altitude", Variant(altitude));
}
HRESULT HillshadeFunctionArguments::get_HillshadeType(LONG* type) {
  return HandOut(GetLong(u"HillshadeType", kHillshadeType), type);
}
HRESULT HillshadeFunctionArguments::put_HillshadeType(LONG type) {
  return PutNamedValue(u"HillshadeType", Variant(std::int32_t{type}));
}

HRESULT HillshadeFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    framework::ResolveDeclared(kArguments, this, row, properties);
    return S_OK;
  });
}

HRESULT HillshadeFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<HillshadeFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

HillshadeFunction::HillshadeFunction()
    : SurfaceFunction(res::IDS_HILLSHADE_FUNCTION_NAME, res::IDS_HILLSHADE_FUNCTION_DESCRIPTION) {}

HRESULT HillshadeFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<HillshadeFunctionArguments*>(arguments);
  if (args == nullptr) return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  PW_RETURN_IF_FAILED(BindElevation(
      args->Elevation(), args->GetBool(u"RemoveEdgeEffect", kRemoveEdgeEffect), 3, u"Hillshade"));
  const ZFactors f = args->Factors();
  const LONG hillshadeType = args->GetLong(u"HillshadeType", kHillshadeType);
  if (hillshadeType == 2) {
    ReportError(E_NOTIMPL, u"HillshadeFunction: \"HillshadeType\" 2 is not implemented.",
                ClassId());
    return ChainParamBindError(u"HillshadeType", E_NOTIMPL);
  }
  terrain::HillshadeFormula::Params& p = params_;
  p = {};
  const bool geographic = kind_ == kGeographicGrid;
  const double z = hillshadeType != 0 ? 2 * f.z : f.z;
  double cellX = cellX_, cellY = cellY_;
  p.fx = z / (8 * cellX);
  p.fy = z / (8 * cellY);
  if ((std::fabs(z - 1) < 0.0001 || hillshadeType != 0) && geographic) {
    p.fx /= 111000.0;
    p.fy /= 111000.0;
  }
  if (f.slopeType == 3) {
    if (geographic) cellX *= 111000.0, cellY *= 111000.0;
    p.fx = (f.psZFactor * std::pow(cellX, f.psPower) + z) / (8 * cellX);
    p.fy = (f.psZFactor * std::pow(cellY, f.psPower) + z) / (8 * cellY);
  }
  if (hillshadeType == 1) {
    p.lights = 6;
    for (int k = 0; k < 6; ++k)
      p.light[k] =
          terrain::MakeLight(kLights[k].azimuth, kLights[k].altitude, kLights[k].weight / 18.0);
  } else {
    p.lights = 1;
    p.light[0] = terrain::MakeLight(args->GetDouble(u"Azimuth", kAzimuth),
                                    args->GetDouble(u"Altitude", kAltitude), 1.0);
  }
  ChooseDevice(2, -1);  // no device path
  return S_OK;
}

}  // namespace pw::functions
