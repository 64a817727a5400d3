// The composite band function and its arguments.
#include "functions/bands/composite_band_function.h"
#include "framework/argument_declarations.h"

#include "raster/persist/class_registry.h"
#include "raster/persist/json.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(CompositeBandFunction);
PW_REGISTER_CLASS(CompositeBandFunctionArguments);

// --- declaration -------------------------------------------------------------------------

namespace {
constexpr std::string_view kRastersAliases[] = {"Raster[]"};
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Rasters", framework::ArgumentKind::kRasters,
                        "the inputs, whose bands are stacked in order")
        .Also(kRastersAliases),
};
}  // namespace
PW_DECLARE_ARGUMENTS(CompositeBandFunction, CompositeBandFunctionArguments, kArguments);

// --- arguments ---------------------------------------------------------------------------

HRESULT CompositeBandFunctionArguments::get_Rasters(VARIANT* value) {
  return Has(u"Rasters") ? GetNamedValue(u"Rasters", value) : GetNamedValue(u"Raster[]", value);
}
HRESULT CompositeBandFunctionArguments::put_Rasters(VARIANT value) {
  return PutNamedValue(u"Rasters", value);
}

HRESULT CompositeBandFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    framework::ResolveDeclared(kArguments, this, row, properties);
    return S_OK;
  });
}

HRESULT CompositeBandFunctionArguments::ReadJson(const persist::Json& json) {
  if (!json.is_object()) return E_INVALIDARG;
  if (!json.contains("Rasters") && json.contains("Raster[]")) {
    persist::Json renamed = json;
    renamed["Rasters"] = renamed["Raster[]"];
    renamed.erase("Raster[]");
    return ReadRemainingJson(renamed, {});
  }
  return ReadRemainingJson(json, {});
}

HRESULT CompositeBandFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<CompositeBandFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

CompositeBandFunction::CompositeBandFunction()
    : BandCompositionFunction(4, res::IDS_COMPOSITE_BAND_FUNCTION_NAME,
                              res::IDS_COMPOSITE_BAND_FUNCTION_DESCRIPTION) {
  // The band count is the sum of the inputs'; hosts asking for it get "not defined".
  InvalidateRasterKeyProperty(u"BAND_COUNT");
}

HRESULT CompositeBandFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<CompositeBandFunctionArguments*>(arguments);
  if (args == nullptr) return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  const Variant* value = args->Find(args->Has(u"Rasters") ? u"Rasters" : u"Raster[]");
  if (value == nullptr || value->IsEmpty()) return InvalidRaster(u"Rasters");
  std::vector<ComPtr<IRaster>> rasters;
  if (FAILED(OpenRasters(*value, &rasters)))
    return ChainParamBindError(u"Rasters", E_INVALIDARG, framework::kRasterDataset);
  if (rasters.empty()) return InvalidRaster(u"Rasters");
  std::vector<raster::BandReference> bands;
  for (const auto& r : rasters) {
    if (FAILED(raster::AppendBands(r.Get(), &bands)))
      return ChainParamBindError(u"Rasters", E_INVALIDARG, framework::kRasterDataset);
  }
  return BindBands(bands);
}

}  // namespace pw::functions
