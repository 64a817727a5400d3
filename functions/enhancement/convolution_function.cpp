// The convolution function and its arguments.
#include "functions/enhancement/convolution_function.h"
#include "framework/argument_declarations.h"

#include <memory>
#include <string>

#include "com/guard.h"
#include "raster/neighbourhood_filters.h"
#include "raster/persist/class_registry.h"
#include "raster/raster_view.h"
#include "raster/values/arrays.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(ConvolutionFunction);
PW_REGISTER_CLASS(ConvolutionFunctionArguments);

// --- declaration -------------------------------------------------------------------------

namespace {
using framework::ArgumentKind;
constexpr std::string_view kTypeAliases[] = {"ConvolutionType"};
constexpr framework::Choice kTypes[] = {{-1, "UserDefined"},
                                        {0, "LineDetectionHorizontal"},
                                        {1, "LineDetectionVertical"},
                                        {2, "LineDetectionLeftDiagonal"},
                                        {3, "LineDetectionRightDiagonal"},
                                        {4, "GradientNorth"},
                                        {5, "GradientWest"},
                                        {6, "GradientEast"},
                                        {7, "GradientSouth"},
                                        {8, "GradientNorthEast"},
                                        {9, "GradientNorthWest"},
                                        {10, "SmoothArithmeticMean"},
                                        {11, "Smoothing3x3"},
                                        {12, "Smoothing5x5"},
                                        {13, "Sharpening3x3"},
                                        {14, "Sharpening5x5"},
                                        {15, "Laplacian3x3"},
                                        {16, "Laplacian5x5"},
                                        {17, "SobelHorizontal"},
                                        {18, "SobelVertical"},
                                        {19, "Sharpen"},
                                        {20, "Sharpen2"},
                                        {21, "PointSpread"},
                                        {255, "None"}};
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Raster", ArgumentKind::kRaster, "the input"),
    framework::Integer("Type", 19,
                       "the kernel, by code or name: a built-in one (docs/functions.md lists "
                       "their weights), -1 the user kernel, 255 none")
        .OneOf(kTypes, true)
        .Also(kTypeAliases),
    framework::Integer("Columns", 0, "the user kernel's width (3 when not given)").Between(1, 1025),
    framework::Integer("Rows", 0, "the user kernel's height (3 when not given)").Between(1, 1025),
    framework::Optional("Kernel", ArgumentKind::kNumbers, "none",
                        "the user kernel's weights row by row, Columns x Rows of them"),
    framework::Boolean("MirrorEdges", false,
                       "true: the raster is mirrored at its edges; false: cells whose window "
                       "reaches beyond them are no-data"),
};
}  // namespace
PW_DECLARE_ARGUMENTS(ConvolutionFunction, ConvolutionFunctionArguments, kArguments);

namespace {
constexpr auto kType = static_cast<LONG>(framework::Default(kArguments, "Type"));
constexpr LONG kUnreadSize = 3;
constexpr LONG kUserKernel = -1, kNoFilter = 255;

// "Type", else the older "ConvolutionType".
std::u16string_view TypeKey(const framework::BasicFunctionArguments& args) {
  return args.Has(u"Type") || !args.Has(u"ConvolutionType") ? u"Type" : u"ConvolutionType";
}
static_assert(kArguments[1].name == "Type");
}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT ConvolutionFunctionArguments::get_Raster(VARIANT* value) {
  return GetNamedValue(u"Raster", value);
}
HRESULT ConvolutionFunctionArguments::put_Raster(VARIANT value) {
  return PutNamedValue(u"Raster", value);
}
HRESULT ConvolutionFunctionArguments::get_Type(LONG* type) {
  return HandOut(GetLong(TypeKey(*this), kType), type);
}
HRESULT ConvolutionFunctionArguments::put_Type(LONG type) {
  return PutNamedValue(u"Type", Variant(std::int32_t{type}));
}
HRESULT ConvolutionFunctionArguments::get_Columns(LONG* columns) {
  return HandOut(GetLong(u"Columns", 0), columns);
}
HRESULT ConvolutionFunctionArguments::put_Columns(LONG columns) {
  return PutNamedValue(u"Columns", Variant(std::int32_t{columns}));
}
HRESULT ConvolutionFunctionArguments::get_Rows(LONG* rows) {
  return HandOut(GetLong(u"Rows", 0), rows);
}
HRESULT ConvolutionFunctionArguments::put_Rows(LONG rows) {
  return PutNamedValue(u"Rows", Variant(std::int32_t{rows}));
}
HRESULT ConvolutionFunctionArguments::get_Kernel(IDoubleArray** kernel) {
  PW_CHECK_POINTER(kernel);
  return framework::HandOutDoubles(GetDoubleArray(u"Kernel").value_or(std::vector<double>{}),
                                   kernel);
}
HRESULT ConvolutionFunctionArguments::put_Kernel(IDoubleArray* kernel) {
  return PutNamedValue(u"Kernel", Variant(static_cast<IUnknown*>(kernel)));
}
HRESULT ConvolutionFunctionArguments::get_MirrorEdges(VARIANT_BOOL* mirror) {
  return framework::HandOutBool(GetBool(u"MirrorEdges", false), mirror);
}
HRESULT ConvolutionFunctionArguments::put_MirrorEdges(VARIANT_BOOL mirror) {
  return PutNamedValue(u"MirrorEdges", Variant(mirror != VARIANT_FALSE));
}

HRESULT ConvolutionFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    framework::ResolveDeclared(kArguments, this, row, properties);
    return S_OK;
  });
}

HRESULT ConvolutionFunctionArguments::ReadJson(const persist::Json& json) {
  // The type from "Type", else the older "ConvolutionType", as a code or a kernel's name.
  auto it = json.find("Type");
  if (it == json.end()) it = json.find("ConvolutionType");
  const std::optional<LONG> type =
      it == json.end() ? std::nullopt : framework::ChoiceValue(kArguments[1], *it);
  // Anything else (a "${NAME}" reference) is read as it stands.
  if (!type) return ReadRemainingJson(json, {});
  PutLong(u"Type", *type);
  return ReadRemainingJson(json, {u"Type", u"ConvolutionType"});
}

HRESULT ConvolutionFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<ConvolutionFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

ConvolutionFunction::ConvolutionFunction()
    : NeighbourhoodFunction(4, res::IDS_CONVOLUTION_FUNCTION_NAME,
                            res::IDS_CONVOLUTION_FUNCTION_DESCRIPTION) {}

HRESULT ConvolutionFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<ConvolutionFunctionArguments*>(arguments);
  if (args == nullptr) return E_INVALIDARG;
  ComPtr<IRaster> input;
  ComPtr<IRasterInfo3> info;
  PW_RETURN_IF_FAILED(OpenInput(args, std::addressof(input), std::addressof(info)));

  const LONG type = args->GetLong(TypeKey(*args), kType);
  const LONG columns = args->GetLong(u"Columns", kUnreadSize);
  const LONG rows = args->GetLong(u"Rows", kUnreadSize);
  const std::vector<double> kernel =
      args->GetDoubleArray(u"Kernel").value_or(std::vector<double>{});
  const bool mirror = args->GetBool(u"MirrorEdges", false);

  ComPtr<IRasterConvolutionFilter> filter;
  if (type != kNoFilter) {
    PW_RETURN_IF_FAILED(raster::CreateConvolutionFilter(&filter));
    if (type == kUserKernel) {
      if (kernel.size() != static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows) ||
          columns < 1 || rows < 1)
        return Fail(u"Kernel",
                    "\"Kernel\" holds " + std::to_string(kernel.size()) +
                        " values; a user kernel of " + std::to_string(columns) + " columns and " +
                        std::to_string(rows) + " rows needs " +
                        std::to_string(std::max<LONG>(columns, 0) * std::max<LONG>(rows, 0)) + ".");
      if (FAILED(filter->PutSize(columns, rows)))
        return Fail(columns > rows ? u"Columns" : u"Rows",
                    "a user kernel of " + std::to_string(columns) + " x " + std::to_string(rows) +
                        " cells is larger than 1025 x 1025.");
      auto weights = MakeObject<raster::DoubleArray>();
      for (double w : kernel) weights->Add(w);
      PW_RETURN_IF_FAILED(filter->put_Type(kUserKernel));
      PW_RETURN_IF_FAILED(filter->PutKernel(weights.As<IDoubleArray>().Get()));
    } else if (FAILED(filter->put_Type(type))) {
      return Fail(u"Type", "\"Type\" " + std::to_string(type) +
                               " is not a kernel type (0 to 21, -1 for the user kernel, 255 "
                               "for none).");
    }
    filter->put_MirrorEdges(mirror ? VARIANT_TRUE : VARIANT_FALSE);
  }
  // Only the sharpening kernels, whose weights sum to one, keep the input's value range.
  const bool keep = type == kNoFilter || type == 13 || type == 14 || type == 19 || type == 20;
  return Finish(input, info, filter ? filter.As<IRasterFilter>().Get() : nullptr, keep);
}

}  // namespace pw::functions
