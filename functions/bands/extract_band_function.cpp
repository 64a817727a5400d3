// The extract band function and its arguments.
#include "functions/bands/extract_band_function.h"
#include "framework/argument_declarations.h"
#include "functions/band_selection_arguments.h"

#include "raster/band_indexes.h"
#include "raster/persist/class_registry.h"
#include "raster/raster_view.h"
#include "raster/values/arrays.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(ExtractBandFunction);
PW_REGISTER_CLASS(ExtractBandFunctionArguments);

// --- declaration -------------------------------------------------------------------------

namespace {
using framework::ArgumentKind;
constexpr std::string_view kBandIdAliases[] = {"_BANDID_"};
constexpr framework::Choice kMethods[] = {
    {-1, "automatic"}, {0, "names"}, {1, "wavelengths"}, {2, "band positions"}};
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Raster", ArgumentKind::kRaster, "the input"),
    framework::Optional("BandIDs", ArgumentKind::kIntegers, "every band",
                        "the bands to keep, from 0, in output order")
        .Also(kBandIdAliases),
    framework::Optional("BandNames", ArgumentKind::kTexts, "none",
                        "the bands to keep by name, in output order"),
    framework::Optional("BandWavelengths", ArgumentKind::kNumbers, "none",
                        "the bands to keep by centre wavelength (nanometres), in output order"),
    kWavelengthMatchTolerance,
    kMissingBandAction,
    framework::Integer("Method", -1, "which list selects the bands").OneOf(kMethods).Unresolved(),
};
}  // namespace
PW_DECLARE_ARGUMENTS(ExtractBandFunction, ExtractBandFunctionArguments, kArguments);

namespace {
constexpr auto kAction = static_cast<LONG>(framework::Default(kArguments, "MissingBandAction"));
constexpr double kTolerance = framework::Default(kArguments, "WavelengthMatchTolerance");
}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT ExtractBandFunctionArguments::get_Raster(VARIANT* value) {
  return GetNamedValue(u"Raster", value);
}
HRESULT ExtractBandFunctionArguments::put_Raster(VARIANT value) {
  return PutNamedValue(u"Raster", value);
}
HRESULT ExtractBandFunctionArguments::get_BandIDs(VARIANT* value) {
  return Has(u"BandIDs") ? GetNamedValue(u"BandIDs", value) : GetNamedValue(u"_BANDID_", value);
}
HRESULT ExtractBandFunctionArguments::put_BandIDs(VARIANT value) {
  return PutNamedValue(u"BandIDs", value);
}
HRESULT ExtractBandFunctionArguments::get_Selection(VARIANT* value) {
  const LONG method = Method();
  if (method < 1 && GetStringArray(u"BandNames").value_or(std::vector<std::u16string>{}).size())
    return GetNamedValue(u"BandNames", value);
  if ((method < 0 || method == 1) &&
      GetDoubleArray(u"BandWavelengths").value_or(std::vector<double>{}).size())
    return GetNamedValue(u"BandWavelengths", value);
  return get_BandIDs(value);
}
HRESULT ExtractBandFunctionArguments::get_MissingBandAction(LONG* action) {
  return HandOut(GetLong(u"MissingBandAction", kAction), action);
}
HRESULT ExtractBandFunctionArguments::put_MissingBandAction(LONG action) {
  return PutNamedValue(u"MissingBandAction", Variant(std::int32_t{action}));
}
HRESULT ExtractBandFunctionArguments::get_WavelengthMatchTolerance(double* tolerance) {
  return HandOut(GetDouble(u"WavelengthMatchTolerance", kTolerance), tolerance);
}
HRESULT ExtractBandFunctionArguments::put_WavelengthMatchTolerance(double tolerance) {
  return PutNamedValue(u"WavelengthMatchTolerance", Variant(tolerance));
}
HRESULT ExtractBandFunctionArguments::get_BandWavelengths(VARIANT* value) {
  return GetNamedValue(u"BandWavelengths", value);
}
HRESULT ExtractBandFunctionArguments::put_BandWavelengths(VARIANT value) {
  return PutNamedValue(u"BandWavelengths", value);
}
HRESULT ExtractBandFunctionArguments::get_BandNames(VARIANT* value) {
  return GetNamedValue(u"BandNames", value);
}
HRESULT ExtractBandFunctionArguments::put_BandNames(VARIANT value) {
  return PutNamedValue(u"BandNames", value);
}

LONG ExtractBandFunctionArguments::Method() const {
  const Variant* value = Find(u"Method");
  if (value == nullptr) return -1;
  return value->ToInt32().value_or(-1);
}

std::optional<std::vector<LONG>> ExtractBandFunctionArguments::BandIds() const {
  auto numbers = GetDoubleArray(Has(u"BandIDs") ? u"BandIDs" : u"_BANDID_");
  if (!numbers) return std::nullopt;
  std::vector<LONG> ids;
  for (double v : *numbers)
    ids.push_back(v >= -2147483648.0 && v <= 2147483647.0 ? static_cast<LONG>(v) : -1);
  return ids;
}

HRESULT ExtractBandFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    framework::ResolveDeclared(kArguments, this, row, properties);
    return S_OK;
  });
}

HRESULT ExtractBandFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<ExtractBandFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

ExtractBandFunction::ExtractBandFunction()
    : BandCompositionFunction(4, res::IDS_EXTRACT_BAND_FUNCTION_NAME,
                              res::IDS_EXTRACT_BAND_FUNCTION_DESCRIPTION) {}

HRESULT ExtractBandFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<ExtractBandFunctionArguments*>(arguments);
  if (args == nullptr) return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  const Variant* value = args->Find(u"Raster");
  if (value == nullptr || value->IsEmpty()) return InvalidRaster(u"Raster");
  ComPtr<IRaster> input;
  if (FAILED(Open(*value, &input)))
    return ChainParamBindError(u"Raster", E_INVALIDARG, framework::kRasterDataset);
  const LONG action = args->GetLong(u"MissingBandAction", kAction);
  const double tolerance = args->GetDouble(u"WavelengthMatchTolerance", kTolerance);
  const LONG method = args->Method();

  // The selecting list: names unless "Method" says otherwise, then wavelengths, then
  // positions.
  std::optional<std::vector<std::u16string>> names;
  std::optional<std::vector<double>> wavelengths;
  std::optional<std::vector<LONG>> positions;
  if (method < 1) {
    names = args->GetStringArray(u"BandNames");
    if (names && names->empty()) names.reset();
  }
  if (method < 0 || method == 1) {
    wavelengths = args->GetDoubleArray(u"BandWavelengths");
    if (wavelengths && wavelengths->empty()) wavelengths.reset();
  }
  if (method == 2 || (!names && !wavelengths)) {
    names.reset();
    wavelengths.reset();
    positions = args->BandIds();
    if (positions && positions->empty()) positions.reset();
    if (!positions && action == 1) {
      ReportError(raster::kBandNotFound,
                  res::Format(res::IDS_BAND_NOT_FOUND, std::u16string(TypeName()),
                              std::u16string(u"BandIDs")),
                  ClassId());
      return ChainParamBindError(u"BandIDs", raster::kBandNotFound);
    }
  }
  const std::u16string_view list = names         ? u"BandNames"
                                   : wavelengths ? u"BandWavelengths"
                                                 : u"BandIDs";
  std::vector<LONG> indexes;
  if (names || wavelengths || positions) {
    const HRESULT hr = raster::ComputeBandIndexes(
        input.Get(), names ? &*names : nullptr, wavelengths ? &*wavelengths : nullptr,
        positions ? &*positions : nullptr, tolerance, action, &indexes);
    if (FAILED(hr)) return ChainParamBindError(list, hr);
    if (indexes.empty()) {
      // Every requested band was missing and left out: nothing would remain.
      ReportError(raster::kBandNotFound,
                  res::Format(res::IDS_NO_BAND_SELECTED, std::u16string(TypeName())), ClassId());
      return ChainParamBindError(list, raster::kBandNotFound);
    }
  } else {
    // No selection at all keeps every band.
    for (LONG b = 0, n = raster::BandCountOf(input.Get()); b < n; ++b) indexes.push_back(b);
  }
  std::vector<raster::BandReference> bands;
  for (LONG index : indexes) bands.push_back(raster::BandReference{input, index});
  return BindBands(bands);
}

}  // namespace pw::functions
