// The constant function and its arguments.
#include "functions/elementary/constant_function.h"
#include "framework/argument_declarations.h"

#include <cmath>
#include <cstring>

#include "raster/mask.h"
#include "raster/persist/class_registry.h"
#include "raster/persist/json.h"
#include "raster/persist/value_object.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "raster/raster_view.h"
#include "raster/values/arrays.h"
#include "raster/values/geometry.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(ConstantFunction);
PW_REGISTER_CLASS(ConstantFunctionArguments);

namespace {
using framework::ArgumentKind;
constexpr framework::Choice kMethods[] = {{0, "constant"}, {1, "checkerboard"}};
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("RasterInfo", ArgumentKind::kRasterInfo,
                        "the raster to make: extent, cell size, pixel type, band count, no-data"),
    framework::Optional("Constant", ArgumentKind::kNumberOrNumbers, "none",
                        "the value of each band (the last repeats); method 0 needs it"),
    framework::Optional("MinColor", ArgumentKind::kNumbers, "none",
                        "the checkerboard's first value of each band; method 1 needs it"),
    framework::Optional("MaxColor", ArgumentKind::kNumbers, "none",
                        "the checkerboard's second value of each band; method 1 needs it"),
    framework::Integer("Method", 0, "how the raster is filled").OneOf(kMethods),
};
}  // namespace
PW_DECLARE_ARGUMENTS(ConstantFunction, ConstantFunctionArguments, kArguments);

namespace {

double Pick(const std::vector<double>& values, LONG band) {
  return values[static_cast<std::size_t>(
      std::min<LONG>(band, static_cast<LONG>(values.size()) - 1))];
}

}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT ConstantFunctionArguments::get_RasterInfo(IRasterInfo** info) {
  PW_CHECK_POINTER(info);
  *info = nullptr;
  ComPtr<IUnknown> object = GetObject(u"RasterInfo");
  if (!object) return S_FALSE;
  return object->QueryInterface(IidOf<IRasterInfo>(), reinterpret_cast<void**>(info));
}

HRESULT ConstantFunctionArguments::put_RasterInfo(IRasterInfo* info) {
  return PutNamedValue(u"RasterInfo", Variant(static_cast<IUnknown*>(info)));
}

HRESULT ConstantFunctionArguments::get_Constant(VARIANT* value) {
  return GetNamedValue(u"Constant", value);
}
HRESULT ConstantFunctionArguments::put_Constant(VARIANT value) {
  return PutNamedValue(u"Constant", value);
}
HRESULT ConstantFunctionArguments::get_MinColor(VARIANT* value) {
  return GetNamedValue(u"MinColor", value);
}
HRESULT ConstantFunctionArguments::put_MinColor(VARIANT value) {
  return PutNamedValue(u"MinColor", value);
}
HRESULT ConstantFunctionArguments::get_MaxColor(VARIANT* value) {
  return GetNamedValue(u"MaxColor", value);
}
HRESULT ConstantFunctionArguments::put_MaxColor(VARIANT value) {
  return PutNamedValue(u"MaxColor", value);
}
HRESULT ConstantFunctionArguments::get_Method(LONG* method) {
  return HandOut(GetLong(u"Method", 0), method);
}
HRESULT ConstantFunctionArguments::put_Method(LONG method) {
  return PutNamedValue(u"Method", Variant(std::int32_t{method}));
}

HRESULT ConstantFunctionArguments::CreateRasterInfo(IRaster* raster, IRasterInfo** info) {
  PW_CHECK_POINTER(info);
  *info = nullptr;
  ComPtr<IRasterProps> props = ComPtr<IRaster>(raster).As<IRasterProps>();
  if (!props) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    auto record = MakeObject<framework::RasterInfo>();
    ComPtr<IEnvelope> extent;
    PW_RETURN_IF_FAILED(props->get_Extent(&extent));
    record->put_Extent(extent.Get());
    ComPtr<IPnt> cell;
    PW_RETURN_IF_FAILED(props->get_MeanCellSize(&cell));
    record->put_CellSize(cell.Get());
    LONG bands = 0, type = -1;
    props->get_BandCount(&bands);
    props->get_PixelType(&type);
    record->put_BandCount(bands);
    record->put_PixelType(type);
    ComPtr<ISpatialReference> reference;
    props->get_SpatialReference(&reference);
    record->put_NativeSpatialReference(reference.Get());
    Variant noData;
    props->get_NoDataValue(&noData);
    if (!noData.IsEmpty()) record->put_NoData(noData);
    return record->QueryInterface(IidOf<IRasterInfo>(), reinterpret_cast<void**>(info));
  });
}

HRESULT ConstantFunctionArguments::ReadJson(const persist::Json& json) {
  // "RasterInfo" as an object; "Constant" as an array of numbers or one number;
  // "MinColor", "MaxColor" and "Method" as values. Anything read otherwise goes through
  // the generic update.
  std::vector<std::u16string_view> done;
  if (const auto it = json.find("RasterInfo");
      it != json.end() && it->is_object() && !it->contains("value")) {
    ComPtr<IUnknown> record;
    PW_RETURN_IF_FAILED(persist::NewObjectFromJson(*it, u"RasterInfo", &record));
    PutObject(u"RasterInfo", record.Get());
    done.push_back(u"RasterInfo");
  }
  if (const auto it = json.find("Constant");
      it != json.end() && (it->is_array() || it->is_number())) {
    std::vector<double> values;
    if (it->is_number()) {
      values.push_back(it->get<double>());
    } else {
      for (const auto& v : *it) {
        if (!v.is_number()) return E_INVALIDARG;
        values.push_back(v.get<double>());
      }
    }
    PutDoubleArray(u"Constant", values);
    done.push_back(u"Constant");
  }
  for (std::u16string_view name :
       {std::u16string_view(u"MinColor"), std::u16string_view(u"MaxColor"),
        std::u16string_view(u"Method")}) {
    if (TryUpdateValueFromJSON(name, json, name == u"Method" ? VT_I4 : VT_EMPTY) == S_OK)
      done.push_back(name);
  }
  return ReadRemainingJson(json, done);
}

HRESULT ConstantFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<ConstantFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

ConstantFunction::ConstantFunction()
    : BasicFunction(4, res::IDS_CONSTANT_FUNCTION_NAME, res::IDS_CONSTANT_FUNCTION_DESCRIPTION) {}

HRESULT ConstantFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<framework::BasicFunctionArguments*>(arguments);
  if (args == nullptr) return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  method_ = args->GetLong(u"Method", 0);
  constants_.clear();
  minColors_.clear();
  maxColors_.clear();
  if (method_ != 1) {
    const auto constants = args->GetDoubleArray(u"Constant");
    if (!constants || constants->empty()) return ChainParamBindError(u"Constant", E_INVALIDARG);
    constants_ = *constants;
  } else {
    const auto low = args->GetDoubleArray(u"MinColor");
    if (!low) return ChainParamBindError(u"MinColor", E_INVALIDARG);
    const auto high = args->GetDoubleArray(u"MaxColor");
    if (!high) return ChainParamBindError(u"MaxColor", E_INVALIDARG);
    minColors_ = *low;
    maxColors_ = *high;
  }
  ComPtr<IRasterInfo3> record = args->GetObject(u"RasterInfo").As<IRasterInfo3>();
  if (!record) return ChainParamBindError(u"RasterInfo", E_INVALIDARG);
  ComPtr<IUnknown> copy;
  PW_RETURN_IF_FAILED(persist::CloneObject(record.Get(), &copy));
  ComPtr<IRasterInfo3> info = copy.As<IRasterInfo3>();
  PW_RETURN_IF_FAILED(RemoveColormapStatsHistograms(info.Get()));
  info_ = info;
  return S_OK;
}

HRESULT ConstantFunction::ReadImpl(LONG, LONG, IPixelBlock* block) {
  raster::BlockShape shape;
  PW_RETURN_IF_FAILED(raster::GetShape(block, &shape));
  if (method_ != 0 && method_ != 1) return E_INVALIDARG;
  if (method_ == 1 && (minColors_.empty() || maxColors_.empty())) return E_INVALIDARG;
  const std::size_t pixels = shape.Pixels();
  for (LONG b = 0; b < shape.bands; ++b) {
    raster::mask::Fill(block->Mask(b), pixels, true);
    raster::VisitPixelType(shape.pixelType, [&](auto tag) {
      using T = typename decltype(tag)::type;
      T* out = static_cast<T*>(block->Buffer(b));
      if (method_ == 0) {
        const T v = raster::StoreTruncated<T>(Pick(constants_, b));
        std::fill(out, out + pixels, v);
        return;
      }
      // Squares of 32: rows 0-31 start with the second value, rows 32-63 with the first,
      // and each row flips after every column whose index is a nonzero multiple of 32.
      const T a = raster::StoreTruncated<T>(Pick(minColors_, b)),
              c = raster::StoreTruncated<T>(Pick(maxColors_, b));
      bool rowStartsWithA = true;
      for (LONG r = 0; r < shape.height; ++r) {
        if (r % 32 == 0) rowStartsWithA = !rowStartsWithA;
        bool useA = rowStartsWithA;
        T* line = out + static_cast<std::size_t>(r) * static_cast<std::size_t>(shape.width);
        for (LONG col = 0; col < shape.width; ++col) {
          line[col] = useA ? a : c;
          if (col != 0 && col % 32 == 0) useA = !useA;
        }
      }
    });
  }
  return S_OK;
}

}  // namespace pw::functions
