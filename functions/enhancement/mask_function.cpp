// The mask function and its arguments.
#include "functions/enhancement/mask_function.h"
#include "framework/argument_declarations.h"

#include <cstring>

#include "raster/mask.h"
#include "raster/persist/class_registry.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(MaskFunction);
PW_REGISTER_CLASS(MaskFunctionArguments);

// --- declaration -------------------------------------------------------------------------

namespace {
using framework::ArgumentKind;
constexpr std::string_view kRangeAliases[] = {"IncludeRanges"};
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Raster", ArgumentKind::kRaster, "the input"),
    framework::Optional("NoDataValues", ArgumentKind::kTexts, "none",
                        "per band, the values to mask separated by blanks (\"0 255\"); later "
                        "bands use the last entry"),
    framework::Optional("IncludedRanges", ArgumentKind::kNumbers, "none",
                        "per band, a pair min, max: values outside it are masked (both ends "
                        "kept)")
        .Also(kRangeAliases),
    framework::Integer("NoDataInterpretation", 0,
                       "1: a pixel is masked when every band masks it; any other value: when "
                       "any band does"),
    framework::Boolean("Invert", false, "true: masked pixels become the valid ones").Unresolved(),
};
}  // namespace
PW_DECLARE_ARGUMENTS(MaskFunction, MaskFunctionArguments, kArguments);

namespace {
constexpr auto kInterpretation =
    static_cast<LONG>(framework::Default(kArguments, "NoDataInterpretation"));
}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT MaskFunctionArguments::get_Raster(VARIANT* value) {
  return GetNamedValue(u"Raster", value);
}
HRESULT MaskFunctionArguments::put_Raster(VARIANT value) {
  return PutNamedValue(u"Raster", value);
}
HRESULT MaskFunctionArguments::get_NoDataValues(VARIANT* value) {
  return GetNamedValue(u"NoDataValues", value);
}
HRESULT MaskFunctionArguments::put_NoDataValues(VARIANT value) {
  return PutNamedValue(u"NoDataValues", value);
}
std::u16string_view MaskFunctionArguments::RangesKey() const {
  return Has(u"IncludedRanges") || !Has(u"IncludeRanges") ? u"IncludedRanges" : u"IncludeRanges";
}
HRESULT MaskFunctionArguments::get_IncludedRanges(VARIANT* value) {
  return GetNamedValue(RangesKey(), value);
}
HRESULT MaskFunctionArguments::put_IncludedRanges(VARIANT value) {
  return PutNamedValue(u"IncludedRanges", value);
}
HRESULT MaskFunctionArguments::get_NoDataInterpretation(LONG* interpretation) {
  return HandOut(GetLong(u"NoDataInterpretation", kInterpretation), interpretation);
}
HRESULT MaskFunctionArguments::put_NoDataInterpretation(LONG interpretation) {
  return PutNamedValue(u"NoDataInterpretation", Variant(std::int32_t{interpretation}));
}

HRESULT MaskFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    framework::ResolveDeclared(kArguments, this, row, properties);
    return S_OK;
  });
}

HRESULT MaskFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<MaskFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

MaskFunction::MaskFunction()
    : BasicFunction(4, res::IDS_MASK_FUNCTION_NAME, res::IDS_MASK_FUNCTION_DESCRIPTION) {}

HRESULT MaskFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<MaskFunctionArguments*>(arguments);
  if (args == nullptr) return E_INVALIDARG;
  const Variant* value = args->Find(u"Raster");
  if (value == nullptr || value->IsEmpty()) return InvalidRaster(u"Raster");
  ComPtr<IRaster> input;
  if (FAILED(Open(*value, &input)))
    return ChainParamBindError(u"Raster", E_INVALIDARG, framework::kRasterDataset);

  const std::vector<std::u16string> noData =
      args->GetStringArray(u"NoDataValues").value_or(std::vector<std::u16string>{});
  const std::vector<double> ranges =
      args->GetDoubleArray(args->RangesKey()).value_or(std::vector<double>{});
  const bool anyBand = args->GetLong(u"NoDataInterpretation", kInterpretation) != 1;
  const Variant* invert = args->Find(u"Invert");
  const bool inverted = invert != nullptr && invert->vt == VT_BOOL && invert->boolVal != 0;

  LONG type = -1, bands = 0;
  input.As<IRasterProps>()->get_PixelType(&type);
  input.As<IRasterProps>()->get_BandCount(&bands);
  ComPtr<IRasterInfo3> info;
  const HRESULT hr = Define(input.Get(), type, &info);
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);

  // Ranges stay only when at least one pair is in order.
  bool rangesKept = false;
  for (std::size_t k = 0; k + 1 < ranges.size(); k += 2) rangesKept |= ranges[k + 1] >= ranges[k];
  std::vector<mask::BandTest> tests(static_cast<std::size_t>(std::max<LONG>(bands, 0)));
  for (std::size_t b = 0; b < tests.size(); ++b) {
    if (rangesKept && 2 * b + 1 < ranges.size() && ranges[2 * b + 1] >= ranges[2 * b]) {
      tests[b].min = ranges[2 * b];
      tests[b].max = ranges[2 * b + 1];
    }
    if (!noData.empty()) {
      std::u16string bad;
      if (!mask::ParseNoData(noData[std::min(b, noData.size() - 1)], &tests[b].noData, &bad)) {
        ReportError(E_INVALIDARG,
                    u"MaskFunction: \"NoDataValues\" holds \"" + bad +
                        u"\", which is not a number (values are separated by blanks).",
                    ClassId());
        return ChainParamBindError(u"NoDataValues", E_INVALIDARG);
      }
    }
  }
  if (rangesKept || inverted) PW_RETURN_IF_FAILED(RemoveColormapStatsHistograms(info.Get()));
  PW_RETURN_IF_FAILED(KeepBandKeyProperties(input.Get()));

  pixelwise_.Clear();
  pixelwise_.Add(input.Get(), type);
  pixelwise_.SetOperands({{0}});
  pixelwise_.AllowInPlace();
  tests_ = std::move(tests);
  type_ = type;
  anyBand_ = anyBand;
  invert_ = inverted;
  inputs_ = {input};
  info_ = info;
  return S_OK;
}

HRESULT MaskFunction::ReadImpl(LONG column, LONG row, IPixelBlock* block) {
  if (!pixelwise_.Ready()) return E_FAIL;
  const std::size_t size = raster::PixelSize(type_);
  // Each band: the input's values, and the pixels its test keeps.
  PW_RETURN_IF_FAILED(pixelwise_.Run(column, row, block, [&](const framework::PixelwiseBand& b) {
    if (b.out != b.in[0]) std::memcpy(b.out, b.in[0], b.pixels * size);
    if (static_cast<std::size_t>(b.band) < tests_.size())
      mask::ApplyTest(tests_[static_cast<std::size_t>(b.band)], type_, b.out, b.mask, b.pixels);
  }));
  LONG bands = 0;
  block->get_BandCount(&bands);
  raster::BlockShape shape;
  PW_RETURN_IF_FAILED(raster::GetShape(block, &shape));
  const std::size_t pixels =
      static_cast<std::size_t>(shape.width) * static_cast<std::size_t>(shape.height);
  const std::size_t bytes = raster::mask::Bytes(pixels);
  if (bands < 1 || pixels == 0) return S_OK;
  // The combined mask: the first band's, merged with each later band's.
  std::vector<BYTE> combined(block->Mask(0), block->Mask(0) + bytes);
  for (LONG b = 1; b < bands; ++b) {
    if (anyBand_) {
      raster::mask::Intersect(combined.data(), block->Mask(b), bytes);
    } else {
      raster::mask::Union(combined.data(), block->Mask(b), bytes);
    }
  }
  if (invert_) {
    for (BYTE& m : combined) m = static_cast<BYTE>(~m);
  }
  for (LONG b = 0; b < bands; ++b) {
    std::memcpy(block->Mask(b), combined.data(), bytes);
    raster::VisitPixelType(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      raster::mask::FillInvalid(static_cast<T*>(block->Buffer(b)), combined.data(), pixels, T{0});
    });
  }
  return S_OK;
}

}  // namespace pw::functions
