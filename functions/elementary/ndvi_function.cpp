// The NDVI function and its arguments.
#include "functions/elementary/ndvi_function.h"
#include "framework/argument_declarations.h"
#include "functions/band_selection_arguments.h"

#include <cstring>

#include "raster/band_collection.h"
#include "raster/band_indexes.h"
#include "raster/mask.h"
#include "raster/persist/class_registry.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "raster/raster_view.h"
#include "resources/raster_names.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(NDVIFunction);
PW_REGISTER_CLASS(NDVIFunctionArguments);

// --- declaration -------------------------------------------------------------------------

namespace {
using framework::ArgumentKind;
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Raster", ArgumentKind::kRaster, "the multiband input"),
    framework::Integer("VisibleBandID", -1, "the red band, from 0 (-1: not given)"),
    framework::Integer("InfraredBandID", -1, "the near-infrared band, from 0 (-1: not given)"),
    framework::Optional("VisibleBandName", ArgumentKind::kText, "none", "the red band's name"),
    framework::Optional("InfraredBandName", ArgumentKind::kText, "none",
                        "the near-infrared band's name"),
    framework::Number("VisibleBandWavelength", -1, "the red band's wavelength in nanometres"),
    framework::Number("InfraredBandWavelength", -1,
                      "the near-infrared band's wavelength in nanometres"),
    kWavelengthMatchTolerance,
    kMissingBandAction,
    framework::Boolean("ScientificOutput", false,
                       "true: the plain index in F32; false: the index scaled to 0..200 in U8"),
};
}  // namespace
PW_DECLARE_ARGUMENTS(NDVIFunction, NDVIFunctionArguments, kArguments);

namespace {
using framework::Default;
constexpr auto kVisibleBandID = static_cast<LONG>(Default(kArguments, "VisibleBandID"));
constexpr auto kInfraredBandID = static_cast<LONG>(Default(kArguments, "InfraredBandID"));
constexpr double kVisibleBandWavelength = Default(kArguments, "VisibleBandWavelength");
constexpr double kInfraredBandWavelength = Default(kArguments, "InfraredBandWavelength");
constexpr double kTolerance = Default(kArguments, "WavelengthMatchTolerance");
constexpr auto kAction = static_cast<LONG>(Default(kArguments, "MissingBandAction"));
constexpr bool kScientificOutput = Default(kArguments, "ScientificOutput") != 0;
}  // namespace

namespace {

// Output pixel types chosen when the host sets none: the plain index as 32-bit float, the
// scaled index (0 to 200) as 8-bit unsigned.
constexpr LONG kScientificOutputType = 9;
constexpr LONG kScaledOutputType = 3;

}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT NDVIFunctionArguments::get_Raster(VARIANT* value) {
  return GetNamedValue(u"Raster", value);
}
HRESULT NDVIFunctionArguments::put_Raster(VARIANT value) {
  return PutNamedValue(u"Raster", value);
}
HRESULT NDVIFunctionArguments::get_VisibleBandID(LONG* band) {
  return HandOut(GetLong(u"VisibleBandID", kVisibleBandID), band);
}
HRESULT NDVIFunctionArguments::put_VisibleBandID(LONG band) {
  return PutNamedValue(u"VisibleBandID", Variant(std::int32_t{band}));
}
HRESULT NDVIFunctionArguments::get_InfraredBandID(LONG* band) {
  return HandOut(GetLong(u"InfraredBandID", kInfraredBandID), band);
}
HRESULT NDVIFunctionArguments::put_InfraredBandID(LONG band) {
  return PutNamedValue(u"InfraredBandID", Variant(std::int32_t{band}));
}
HRESULT NDVIFunctionArguments::get_ScientificOutput(VARIANT_BOOL* scientific) {
  return HandOut(GetBool(u"ScientificOutput", kScientificOutput) ? VARIANT_TRUE : VARIANT_FALSE,
                 scientific);
}
HRESULT NDVIFunctionArguments::put_ScientificOutput(VARIANT_BOOL scientific) {
  return PutNamedValue(u"ScientificOutput", Variant(scientific != VARIANT_FALSE));
}
HRESULT NDVIFunctionArguments::get_VisibleBandName(BSTR* name) {
  PW_CHECK_POINTER(name);
  return Bstr(GetString(u"VisibleBandName", u"")).CopyTo(name);
}
HRESULT NDVIFunctionArguments::put_VisibleBandName(BSTR name) {
  return PutNamedValue(u"VisibleBandName", Variant(std::u16string_view(name, SysStringLen(name))));
}
HRESULT NDVIFunctionArguments::get_InfraredBandName(BSTR* name) {
  PW_CHECK_POINTER(name);
  return Bstr(GetString(u"InfraredBandName", u"")).CopyTo(name);
}
HRESULT NDVIFunctionArguments::put_InfraredBandName(BSTR name) {
  return PutNamedValue(u"InfraredBandName", Variant(std::u16string_view(name, SysStringLen(name))));
}
HRESULT NDVIFunctionArguments::get_VisibleBandWavelength(double* wavelength) {
  return HandOut(GetDouble(u"VisibleBandWavelength", kVisibleBandWavelength), wavelength);
}
HRESULT NDVIFunctionArguments::put_VisibleBandWavelength(double wavelength) {
  return PutNamedValue(u"VisibleBandWavelength", Variant(wavelength));
}
HRESULT NDVIFunctionArguments::get_InfraredBandWavelength(double* wavelength) {
  return HandOut(GetDouble(u"InfraredBandWavelength", kInfraredBandWavelength), wavelength);
}
HRESULT NDVIFunctionArguments::put_InfraredBandWavelength(double wavelength) {
  return PutNamedValue(u"InfraredBandWavelength", Variant(wavelength));
}
HRESULT NDVIFunctionArguments::get_WavelengthMatchTolerance(double* tolerance) {
  return HandOut(GetDouble(u"WavelengthMatchTolerance", kTolerance), tolerance);
}
HRESULT NDVIFunctionArguments::put_WavelengthMatchTolerance(double tolerance) {
  return PutNamedValue(u"WavelengthMatchTolerance", Variant(tolerance));
}
HRESULT NDVIFunctionArguments::get_MissingBandAction(LONG* action) {
  return HandOut(GetLong(u"MissingBandAction", kAction), action);
}
HRESULT NDVIFunctionArguments::put_MissingBandAction(LONG action) {
  return PutNamedValue(u"MissingBandAction", Variant(std::int32_t{action}));
}

HRESULT NDVIFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<NDVIFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

NDVIFunction::NDVIFunction()
    : BasicFunction(4, res::IDS_NDVI_FUNCTION_NAME, res::IDS_NDVI_FUNCTION_DESCRIPTION) {
  InvalidateRasterKeyProperty(res::c_name_ParentRasterType);
  InvalidateRasterKeyProperty(res::c_name_DataType);
}

HRESULT NDVIFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<NDVIFunctionArguments*>(arguments);
  if (args == nullptr) return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  ComPtr<IRaster> input;
  const Variant* value = args->Find(u"Raster");
  if (value == nullptr || value->IsEmpty()) return InvalidRaster(u"Raster");
  if (FAILED(Open(*value, &input)))
    return ChainParamBindError(u"Raster", E_INVALIDARG, framework::kRasterDataset);

  // Names or wavelengths, when both bands have one.
  std::optional<std::vector<std::u16string>> names;
  std::optional<std::vector<double>> wavelengths;
  const std::u16string visibleName = args->GetString(u"VisibleBandName", u"");
  const std::u16string infraredName = args->GetString(u"InfraredBandName", u"");
  if (!visibleName.empty() && !infraredName.empty())
    names = std::vector<std::u16string>{visibleName, infraredName};
  const double visibleWavelength =
      args->GetDouble(u"VisibleBandWavelength", kVisibleBandWavelength);
  const double infraredWavelength =
      args->GetDouble(u"InfraredBandWavelength", kInfraredBandWavelength);
  if (visibleWavelength > 0 && infraredWavelength > 0)
    wavelengths = std::vector<double>{visibleWavelength, infraredWavelength};
  const LONG action = args->GetLong(u"MissingBandAction", kAction);

  // The raster's own band identifiers take precedence over the arguments'.
  for (std::u16string_view name : {res::c_name_InfraredBandID, res::c_name_VisibleBandID}) {
    if (auto own = raster::RasterKeyProperty(input.Get(), name)) {
      if (auto index = own->ToInt32()) args->PutLong(name, *index);
    }
  }
  const LONG n = raster::BandCountOf(input.Get());
  if (!names && !wavelengths && action == 0) {
    const LONG visible = args->GetLong(u"VisibleBandID", kVisibleBandID);
    const LONG infrared = args->GetLong(u"InfraredBandID", kInfraredBandID);
    const bool unusable =
        visible < 0 || infrared < 0 || visible >= n || infrared >= n || visible == infrared;
    const auto wavelength = raster::RasterKeyProperty(input.Get(), res::c_name_WavelengthMin);
    if (unusable && wavelength && wavelength->ToDouble())
      wavelengths = std::vector<double>{res::c_WavelengthMid_Red, res::c_WavelengthMid_Infrared};
  }
  std::vector<LONG> indexes;
  HRESULT hr = raster::ComputeBandIndexes(
      input.Get(), names ? &*names : nullptr, wavelengths ? &*wavelengths : nullptr, nullptr,
      args->GetDouble(u"WavelengthMatchTolerance", kTolerance), action, &indexes);
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);
  if (indexes.size() == 2) {
    visible_ = indexes[0];
    infrared_ = indexes[1];
  } else {
    visible_ = args->GetLong(u"VisibleBandID", kVisibleBandID);
    infrared_ = args->GetLong(u"InfraredBandID", kInfraredBandID);
  }
  if (visible_ == -1 || infrared_ == -1) {
    if (action == 1) {
      const std::u16string_view missing = visible_ == -1 ? u"VisibleBandID" : u"InfraredBandID";
      ReportError(
          raster::kBandNotFound,
          res::Format(res::IDS_BAND_NOT_FOUND, std::u16string(TypeName()), std::u16string(missing)),
          ClassId());
      return ChainParamBindError(missing, raster::kBandNotFound);
    }
    // Defaults by band count: 4 bands (blue, green, red, infrared) use the last two, more
    // than 6 bands the fourth and fifth, anything else the first two.
    visible_ = n == 4 ? 2 : n > 6 ? 3 : 0;
    infrared_ = n == 4 ? 3 : n > 6 ? 4 : 1;
  }
  for (const auto& [index, name] : {std::pair{visible_, std::u16string_view(u"VisibleBandID")},
                                    std::pair{infrared_, std::u16string_view(u"InfraredBandID")}}) {
    if (index < 0 || index >= n) {
      ReportError(raster::kBandIndexOutOfRange,
                  res::Format(res::IDS_BAND_INDEX_OUT_OF_RANGE, std::u16string(TypeName()),
                              std::u16string(name), static_cast<long>(index), static_cast<long>(n)),
                  ClassId());
      return ChainParamBindError(name, raster::kBandIndexOutOfRange);
    }
  }
  ComPtr<IRaster> prepared = input;
  if (!(n == 2 && visible_ == 0 && infrared_ == 1)) {
    prepared = nullptr;
    hr = raster::CreateBandCollection(
        {raster::BandReference{input, visible_}, raster::BandReference{input, infrared_}},
        &prepared);
    if (FAILED(hr) || !prepared) return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  }

  scientific_ = args->GetBool(u"ScientificOutput", kScientificOutput);
  ComPtr<IRasterProps> props = prepared.As<IRasterProps>();
  props->get_PixelType(&inputType_);
  outputType_ =
      pixelType_ != -1 ? pixelType_ : (scientific_ ? kScientificOutputType : kScaledOutputType);
  kernel_ = ndvi::SelectKernel(inputType_, outputType_, scientific_);
  if (kernel_ == nullptr) return ChainParamBindError(u"Raster", E_INVALIDARG);

  ComPtr<IRasterInfo3> info;
  hr = Define(prepared.Get(), outputType_, &info);
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);
  info->put_BandCount(1);
  info->put_NoData(Variant());
  PW_RETURN_IF_FAILED(RemoveColormapStatsHistograms(info.Get()));
  PW_RETURN_IF_FAILED(NameBands(1, u"NDVI"));
  pixelwise_.Clear();
  pixelwise_.Add(prepared.Get(), inputType_);
  pixelwise_.SetOperands({{0, 0}, {0, 1}});  // red, near infrared
  inputs_ = {input};
  info_ = info;
  return S_OK;
}

HRESULT NDVIFunction::ReadImpl(LONG column, LONG row, IPixelBlock* block) {
  if (kernel_ == nullptr) return E_FAIL;
  return pixelwise_.Run(column, row, block, [&](const framework::PixelwiseBand& b) {
    kernel_(b.in[0], b.in[1], b.out, b.mask, b.pixels);
  });
}

}  // namespace pw::functions
