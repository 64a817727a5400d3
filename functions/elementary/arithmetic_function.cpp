// The arithmetic function and its arguments.
#include "functions/elementary/arithmetic_function.h"
#include "framework/argument_declarations.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "functions/elementary/constant_function.h"
#include "raster/band_collection.h"
#include "raster/band_indexes.h"
#include "raster/mask.h"
#include "raster/persist/class_registry.h"
#include "raster/persist/json.h"
#include "raster/persist/value_object.h"
#include "raster/pixel_block.h"
#include "raster/raster_view.h"
#include "raster/values/geometry.h"
#include "resources/raster_names.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(ArithmeticFunction);
PW_REGISTER_CLASS(ArithmeticFunctionArguments);

// --- declaration -------------------------------------------------------------------------

namespace {
using framework::ArgumentKind;
constexpr framework::Choice kOperations[] = {{1, "plus"},
                                             {1, "+"},
                                             {1, "add"},
                                             {2, "minus"},
                                             {2, "-"},
                                             {2, "subtract"},
                                             {3, "times"},
                                             {3, "*"},
                                             {3, "multiply"},
                                             {4, "divide"},
                                             {4, "/"},
                                             {5, "power"},
                                             {5, "^"},
                                             {5, "**"},
                                             {6, "mode"},
                                             {6, "%"},
                                             {6, "mod"},
                                             {6, "modulo"},
                                             {7, "fractiondifference"},
                                             {7, "fraction difference"}};
constexpr framework::Choice kExtentTypes[] = {
    {0, "first input"}, {1, "intersection"}, {2, "union"}, {3, "last input"}};
constexpr framework::Choice kCellsizeTypes[] = {
    {0, "first input"}, {1, "smallest"}, {2, "largest"}, {3, "mean"}, {4, "last input"}};
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Raster", ArgumentKind::kRasterOrNumbers,
                        "the first operand: a raster, or constants (one per band, the last "
                        "repeats)"),
    framework::Required("Raster2", ArgumentKind::kRasterOrNumbers,
                        "the second operand: a raster, or constants"),
    framework::Integer("Operation", 1, "the operation, by code or name").OneOf(kOperations, true),
    framework::Integer("ExtentType", 0, "the output extent from the inputs'").OneOf(kExtentTypes),
    framework::Integer("CellsizeType", 1, "the output cell size from the inputs'")
        .OneOf(kCellsizeTypes),
    framework::Integer("RasterToGenerate", 0,
                       "1: \"Raster\" holds constants, 2: \"Raster2\" does, other values: "
                       "as given"),
    framework::Integer("ToleranceType", 0,
                       "fraction difference: 0 a tolerance relative to the second operand, "
                       "other values an absolute one"),
    framework::Number("ToleranceSize", 0, "fraction difference: the tolerance"),
};
}  // namespace
PW_DECLARE_ARGUMENTS(ArithmeticFunction, ArithmeticFunctionArguments, kArguments);

namespace {
using framework::Default;
constexpr auto kExtentType = static_cast<LONG>(Default(kArguments, "ExtentType"));
constexpr auto kCellsizeType = static_cast<LONG>(Default(kArguments, "CellsizeType"));
constexpr auto kToleranceType = static_cast<LONG>(Default(kArguments, "ToleranceType"));
constexpr double kToleranceSize = Default(kArguments, "ToleranceSize");
static_assert(kExtentType == framework::kFirstExtent && kCellsizeType == framework::kSmallestCell);
}  // namespace

namespace {

Variant Short(SHORT value) {
  Variant v;
  v.vt = VT_I2;
  v.iVal = value;
  return v;
}

// The smallest pixel type that holds every constant exactly: the integer codes from 1-bit
// up to 32-bit signed, then 32-bit float, then 64-bit float.
LONG ConstantPixelType(const std::vector<double>& constants) {
  const auto [low, high] = std::minmax_element(constants.begin(), constants.end());
  const bool integral = std::all_of(constants.begin(), constants.end(), [](double v) {
    return std::isfinite(v) && v == std::trunc(v);
  });
  if (integral) {
    for (LONG code = 0; code <= 8; ++code) {
      const raster::ValueRange r = raster::PixelRange(code);
      if (*low >= r.lowest && *high <= r.highest) return code;
    }
  }
  const bool single = std::all_of(constants.begin(), constants.end(), [](double v) {
    return std::isnan(v) || static_cast<double>(static_cast<float>(v)) == v;
  });
  return single ? 9 : 10;
}

// A constant as a band name: its shortest decimal form ("100", "0.5", "-2.25").
std::u16string ConstantText(double value) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof(text), value).ptr;
  return ToUtf16(std::string_view(text, static_cast<std::size_t>(end - text)));
}

// What an output band holds: "<a> <operator> <b>" from the operands' band names (a constant
// by its value, an unnamed band by its argument's name).
std::u16string OperationText(LONG operation, const std::u16string& a, const std::u16string& b) {
  static constexpr std::u16string_view kSymbols[] = {u"+", u"-", u"*", u"/", u"^", u"%"};
  if (operation >= arithmetic::kPlus && operation <= arithmetic::kMode)
    return a + u" " + std::u16string(kSymbols[operation - arithmetic::kPlus]) + u" " + b;
  return u"FractionDifference(" + a + u", " + b + u")";
}

bool IsNumberArray(const persist::Json& value) {
  if (value.is_number()) return true;
  if (!value.is_array() || value.empty()) return false;
  return std::all_of(value.begin(), value.end(), [](const auto& v) { return v.is_number(); });
}

}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT ArithmeticFunctionArguments::get_Raster(VARIANT* value) {
  return GetNamedValue(u"Raster", value);
}
HRESULT ArithmeticFunctionArguments::put_Raster(VARIANT value) {
  return PutNamedValue(u"Raster", value);
}
HRESULT ArithmeticFunctionArguments::get_Raster2(VARIANT* value) {
  return GetNamedValue(u"Raster2", value);
}
HRESULT ArithmeticFunctionArguments::put_Raster2(VARIANT value) {
  return PutNamedValue(u"Raster2", value);
}
HRESULT ArithmeticFunctionArguments::get_Operation(LONG* operation) {
  return HandOut(Operation(), operation);
}
HRESULT ArithmeticFunctionArguments::put_Operation(LONG operation) {
  return PutNamedValue(u"Operation", Variant(std::int32_t{operation}));
}
HRESULT ArithmeticFunctionArguments::get_ExtentType(LONG* type) {
  return HandOut(GetLong(u"ExtentType", kExtentType), type);
}
HRESULT ArithmeticFunctionArguments::put_ExtentType(LONG type) {
  return PutNamedValue(u"ExtentType", Variant(std::int32_t{type}));
}
HRESULT ArithmeticFunctionArguments::get_CellsizeType(LONG* type) {
  return HandOut(GetLong(u"CellsizeType", kCellsizeType), type);
}
HRESULT ArithmeticFunctionArguments::put_CellsizeType(LONG type) {
  return PutNamedValue(u"CellsizeType", Variant(std::int32_t{type}));
}
HRESULT ArithmeticFunctionArguments::get_ToleranceType(SHORT* type) {
  return HandOut(static_cast<SHORT>(GetLong(u"ToleranceType", kToleranceType)), type);
}
HRESULT ArithmeticFunctionArguments::put_ToleranceType(SHORT type) {
  return PutNamedValue(u"ToleranceType", Short(type));
}
HRESULT ArithmeticFunctionArguments::get_ToleranceSize(double* size) {
  return HandOut(GetDouble(u"ToleranceSize", kToleranceSize), size);
}
HRESULT ArithmeticFunctionArguments::put_ToleranceSize(double size) {
  return PutNamedValue(u"ToleranceSize", Variant(size));
}

LONG ArithmeticFunctionArguments::Operation() const {
  const Variant* value = Find(u"Operation");
  if (value == nullptr || value->IsEmpty()) return arithmetic::kPlus;
  if (value->vt == VT_BSTR)
    return arithmetic::OperationFromText(
        std::u16string_view(value->bstrVal, SysStringLen(value->bstrVal)));
  return value->ToInt32().value_or(0);
}

HRESULT ArithmeticFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    using framework::ResolveAndUpdate_ValueTypeDataset;
    using framework::ResolveAndUpdate_ValueTypeDoubleArray;
    using framework::ResolveAndUpdate_ValueTypeLong;
    const Bstr raster(u"Raster"), raster2(u"Raster2"), which(u"RasterToGenerate");
    ResolveAndUpdate_ValueTypeLong(this, which.Get(), row, properties);
    const LONG generate = GetLong(u"RasterToGenerate", -1);
    if (generate < 0) {
      const Bstr accepts(u"acceptsScalar");
      if (properties != nullptr) properties->SetProperty(accepts.Get(), Variant(true));
      ResolveAndUpdate_ValueTypeDataset(this, raster.Get(), row, properties);
      ResolveAndUpdate_ValueTypeDataset(this, raster2.Get(), row, properties);
      if (properties != nullptr) properties->RemoveProperty(accepts.Get());
    } else {
      (generate == 1 ? ResolveAndUpdate_ValueTypeDoubleArray : ResolveAndUpdate_ValueTypeDataset)(
          this, raster.Get(), row, properties);
      (generate == 2 ? ResolveAndUpdate_ValueTypeDoubleArray : ResolveAndUpdate_ValueTypeDataset)(
          this, raster2.Get(), row, properties);
    }
    for (std::u16string_view name : {u"Operation", u"ExtentType", u"CellsizeType"})
      ResolveAndUpdate_ValueTypeLong(this, Bstr(name).Get(), row, properties);
    return S_OK;
  });
}

HRESULT ArithmeticFunctionArguments::ReadJson(const persist::Json& json) {
  if (!json.is_object()) return E_INVALIDARG;
  std::vector<std::u16string_view> done{u"RasterToGenerate"};
  PutLong(u"RasterToGenerate", 0);
  PW_RETURN_IF_FAILED(TryUpdateValueFromJSON(u"RasterToGenerate", json, VT_I4));
  const LONG generate = GetLong(u"RasterToGenerate", 0);
  for (const auto& [name, index] : {std::pair{std::u16string_view(u"Raster"), 1},
                                    std::pair{std::u16string_view(u"Raster2"), 2}}) {
    const auto it = json.find(ToUtf8(name));
    if (it == json.end()) continue;
    done.push_back(name);
    // Numbers are constants whatever "RasterToGenerate" says: no raster is a number.
    if (generate == index || IsNumberArray(*it)) {
      if (!IsNumberArray(*it)) return E_INVALIDARG;
      std::vector<double> values;
      if (it->is_number()) {
        values.push_back(it->get<double>());
      } else {
        for (const auto& v : *it) values.push_back(v.get<double>());
      }
      PutDoubleArray(name, values);
    } else {
      PW_RETURN_IF_FAILED(UpdateRasterValue(name, json));
    }
  }
  if (TryUpdateValueFromJSON(u"Operation", json, VT_EMPTY) == S_OK) done.push_back(u"Operation");
  for (std::u16string_view name : {u"ExtentType", u"CellsizeType"}) {
    const HRESULT hr = UpdateLong(name, json);
    PW_RETURN_IF_FAILED(hr);
    if (hr == S_OK) done.push_back(name);
  }
  return ReadRemainingJson(json, done);
}

HRESULT ArithmeticFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<ArithmeticFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

ArithmeticFunction::ArithmeticFunction()
    : BasicFunction(4, res::IDS_ARITHMETIC_FUNCTION_NAME,
                    res::IDS_ARITHMETIC_FUNCTION_DESCRIPTION) {
  // Arithmetic on calibrated values makes their calibration wrong.
  for (std::u16string_view name :
       {res::c_name_RadianceGain, res::c_name_RadianceBias, res::c_name_SolarIrradiance,
        res::c_name_ReflectanceGain, res::c_name_ReflectanceBias, res::c_name_ThermalConstant_K1,
        res::c_name_ThermalConstant_K2})
    InvalidateRasterKeyProperty(name);
}

HRESULT ArithmeticFunction::OpenConstant(const std::vector<double>& constants, IRaster* model,
                                         IRasterInfo* template_, IRaster** raster) {
  ComPtr<IRasterInfo> info;
  auto arguments = MakeObject<ConstantFunctionArguments>();
  if (model != nullptr) {
    PW_RETURN_IF_FAILED(arguments->CreateRasterInfo(model, &info));
  } else if (template_ != nullptr) {
    ComPtr<IUnknown> copy;
    PW_RETURN_IF_FAILED(persist::CloneObject(template_, &copy));
    info = copy.As<IRasterInfo>();
  }
  ComPtr<IRasterInfo3> record = info.As<IRasterInfo3>();
  if (!record) return E_INVALIDARG;
  LONG bands = 0;
  record->get_BandCount(&bands);
  record->put_BandCount(std::max<LONG>(bands, static_cast<LONG>(constants.size())));
  PW_RETURN_IF_FAILED(record->put_PixelType(ConstantPixelType(constants)));
  record->put_NoData(Variant());
  arguments->put_RasterInfo(record.As<IRasterInfo>().Get());
  arguments->PutDoubleArray(u"Constant", constants);
  auto function = MakeObject<ConstantFunction>();
  PW_RETURN_IF_FAILED(function->Bind(arguments.As<IRasterFunctionArguments>().Get()));
  return Open(function.As<IRasterFunction>().Get(), raster);
}

HRESULT ArithmeticFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<ArithmeticFunctionArguments*>(arguments);
  if (args == nullptr) return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  const Bstr rasterTemplate(u"RasterInfo");
  Variant templateValue;
  args->GetProperty(rasterTemplate.Get(), &templateValue);
  ComPtr<IRasterInfo> template_;
  if (templateValue.vt == VT_UNKNOWN && templateValue.punkVal != nullptr)
    template_ = ComPtr<IUnknown>(templateValue.punkVal).As<IRasterInfo>();

  // Operands that are rasters open first; constants then take the other operand's grid.
  const std::u16string_view names[2] = {u"Raster", u"Raster2"};
  ComPtr<IRaster> operands[2];
  std::optional<std::vector<double>> constants[2];
  for (int k = 0; k < 2; ++k) {
    constants[k] = args->GetDoubleArray(names[k]);
    if (constants[k] && constants[k]->empty()) constants[k].reset();
    const Variant* value = args->Find(names[k]);
    if (constants[k] || value == nullptr || value->IsEmpty()) continue;
    if (FAILED(Open(*value, &operands[k])))
      return ChainParamBindError(names[k], E_INVALIDARG, framework::kRasterDataset);
  }
  for (int k = 0; k < 2; ++k) {
    if (operands[k] || !constants[k]) continue;
    if (FAILED(OpenConstant(*constants[k], operands[1 - k].Get(), template_.Get(), &operands[k])))
      operands[k] = nullptr;
  }
  if (!operands[0] || !operands[1]) {
    const std::u16string_view missing = operands[0] ? names[1] : names[0];
    ReportError(E_INVALIDARG, res::Format(res::IDS_MISSING_RASTER, std::u16string(missing)),
                ClassId());
    return ChainParamBindError(missing, E_INVALIDARG, framework::kRasterDataset);
  }

  // Band matching: the operand with fewer bands repeats its bands up to the other's count.
  LONG bands[2];
  for (int k = 0; k < 2; ++k) {
    bands[k] = raster::BandCountOf(operands[k].Get());
    if (bands[k] <= 0) {
      ReportError(raster::kNoBands,
                  res::Format(res::IDS_INPUT_HAS_NO_BANDS, std::u16string(TypeName()),
                              std::u16string(names[k])),
                  ClassId());
      return ChainParamBindError(names[k], raster::kNoBands, framework::kRasterDataset);
    }
  }
  const LONG bandCount = std::max(bands[0], bands[1]);
  for (int k = 0; k < 2; ++k) {
    if (bands[k] == bandCount) continue;
    ComPtr<IRaster> matched;
    PW_RETURN_IF_FAILED(raster::CreateBandMatchedView(operands[k].Get(), bandCount, &matched));
    operands[k] = matched;
  }

  operation_ = args->Operation();
  params_ = arithmetic::Params{};
  params_.operation = operation_;
  if (operation_ == arithmetic::kFractionDifference) {
    params_.absoluteTolerance =
        static_cast<SHORT>(args->GetLong(u"ToleranceType", kToleranceType)) != 0;
    params_.tolerance = args->GetDouble(u"ToleranceSize", kToleranceSize);
  }

  // The output grid: reference, extent and cell size from the two inputs, snapped to whole
  // cells from the top left corner.
  const std::vector<ComPtr<IRaster>> both{operands[0], operands[1]};
  ComPtr<ISpatialReference> reference;
  PW_RETURN_IF_FAILED(ComputeSpatialReference(both, &reference));
  ComPtr<IEnvelope> extent;
  if (FAILED(ComputeExtent(both, args->GetLong(u"ExtentType", kExtentType), &extent)))
    return ChainParamBindError(u"ExtentType", E_INVALIDARG);
  double cellX = 0, cellY = 0;
  if (FAILED(
          ComputeCellsize(both, args->GetLong(u"CellsizeType", kCellsizeType), &cellX, &cellY)) ||
      !(cellX > 0) || !(cellY > 0))
    return ChainParamBindError(u"CellsizeType", E_INVALIDARG);
  raster::RasterGrid grid;
  extent->QueryCoords(&grid.xmin, &grid.ymin, &grid.xmax, &grid.ymax);
  const double columns = std::floor((grid.xmax - grid.xmin) / cellX + 0.5);
  const double rows = std::floor((grid.ymax - grid.ymin) / cellY + 0.5);
  if (!(columns >= 1) || !(rows >= 1) || columns > 2147483647.0 || rows > 2147483647.0) {
    ReportError(E_INVALIDARG,
                res::Format(res::IDS_INPUTS_DO_NOT_OVERLAP, std::u16string(TypeName()),
                            std::u16string(names[0]), std::u16string(names[1])),
                ClassId());
    return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  }
  grid.columns = static_cast<LONG>(columns);
  grid.rows = static_cast<LONG>(rows);
  grid.xmax = grid.xmin + columns * cellX;
  grid.ymin = grid.ymax - rows * cellY;

  // Pixel types: the common input type, promoted unless "AdjustPixelType" is false.
  const LONG native[2] = {raster::PixelTypeOf(operands[0].Get()),
                          raster::PixelTypeOf(operands[1].Get())};
  Variant adjust;
  args->GetProperty(Bstr(u"AdjustPixelType").Get(), &adjust);
  const bool promote = !(adjust.vt == VT_BOOL && adjust.boolVal == VARIANT_FALSE);
  const auto chosen = [&](LONG common) {
    return promote ? arithmetic::PromotePixelType(common, operation_) : common;
  };
  commonType_ = chosen(std::max(native[0], native[1]));
  // Both operands are read as the common type: when it cannot hold one of them (mixed
  // signs: an unsigned raster with a negative constant, U16 divided by S16), it grows from
  // the smallest code holding both instead, so no operand changes before it is computed.
  const auto holds = [](LONG wide, LONG narrow) {
    return raster::CommonPixelType(wide, narrow) == wide;
  };
  if (!holds(commonType_, native[0]) || !holds(commonType_, native[1])) {
    const LONG holding = raster::CommonPixelType(native[0], native[1]);
    if (holding != raster::kPixelUnknown) commonType_ = chosen(holding);
  }
  if (!raster::IsKnownPixelType(commonType_)) return ChainParamBindError(u"Raster", E_INVALIDARG);
  outputType_ = pixelType_ != -1 ? pixelType_ : commonType_;

  // Operands of one type that widen to the common type without loss are read as they are
  // and widened in the kernel, saving a conversion pass.
  loadType_ = commonType_;
  const bool sameStorage = native[0] == native[1] || (native[0] <= 3 && native[1] <= 3);
  const LONG narrow = std::max(native[0], native[1]);
  if (sameStorage && narrow != commonType_ && arithmetic::LoadsDirectly(narrow, commonType_) &&
      arithmetic::SelectKernel(narrow, commonType_, outputType_, operation_) != nullptr)
    loadType_ = narrow;
  kernel_ = arithmetic::SelectKernel(loadType_, commonType_, outputType_, operation_);
  params_.output = raster::PixelRange(outputType_);

  ComPtr<IRaster> views[2];
  for (int k = 0; k < 2; ++k)
    PW_RETURN_IF_FAILED(
        raster::CreateRasterOnGrid(operands[k].Get(), grid, reference.Get(), loadType_, &views[k]));

  ComPtr<IRasterInfo3> info;
  HRESULT hr = Define(operands[0].Get(), outputType_, &info);
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);
  auto box = MakeObject<raster::Envelope>();
  box->PutCoords(grid.xmin, grid.ymin, grid.xmax, grid.ymax);
  box->putref_SpatialReference(reference.Get());
  PW_RETURN_IF_FAILED(info->put_Extent(box.As<IEnvelope>().Get()));
  info->put_NativeSpatialReference(reference.Get());
  info->put_PixelSizeX(cellX);
  info->put_PixelSizeY(cellY);
  info->put_BandCount(bandCount);
  info->put_NoData(Variant());
  PW_RETURN_IF_FAILED(RemoveColormapStatsHistograms(info.Get()));
  std::vector<std::u16string> bandNames;
  for (LONG b = 0; b < bandCount; ++b) {
    std::u16string sides[2];
    for (int k = 0; k < 2; ++k) {
      if (constants[k]) {
        sides[k] = ConstantText((*constants[k])[std::min<std::size_t>(static_cast<std::size_t>(b),
                                                                      constants[k]->size() - 1)]);
      } else {
        const auto name = raster::BandKeyProperty(operands[k].Get(), b, res::c_name_BandName);
        const auto text = name ? name->ToString() : std::nullopt;
        sides[k] = text && !text->empty() ? *text : std::u16string(names[k]);
      }
    }
    bandNames.push_back(OperationText(operation_, sides[0], sides[1]));
  }
  PW_RETURN_IF_FAILED(NameBands(std::move(bandNames)));
  pixelwise_.Clear();
  for (const ComPtr<IRaster>& view : views) pixelwise_.Add(view.Get(), loadType_);
  pixelwise_.SetOperands({{0}, {1}});
  inputs_ = {operands[0], operands[1]};
  info_ = info;
  return S_OK;
}

HRESULT ArithmeticFunction::ReadImpl(LONG column, LONG row, IPixelBlock* block) {
  if (kernel_ == nullptr) {
    return ReportError(E_NOTIMPL,
                       res::Format(res::IDS_OPERATION_NOT_SUPPORTED, std::u16string(TypeName()),
                                   static_cast<long>(operation_)),
                       ClassId());
  }
  return pixelwise_.Run(column, row, block, [&](const framework::PixelwiseBand& b) {
    kernel_(b.in[0], b.in[1], b.out, b.mask, b.pixels, params_);
  });
}

}  // namespace pw::functions
