// Function raster datasets: bound functions read as sources.
#include "framework/function_raster.h"

#include <cstring>

#include "framework/basic_function.h"
#include "raster/algorithms/no_data.h"
#include "raster/mask.h"
#include "raster/memory_dataset.h"
#include "raster/persist/class_registry.h"
#include "raster/persist/document_version.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/value_object.h"
#include "raster/persist/xml.h"
#include "raster/pixel_block.h"
#include "raster/raster_view.h"
#include "raster/values/geometry.h"

namespace pw::framework {

PW_REGISTER_PERSIST_CLASS(FunctionRasterDataset, ClassIdFromName("FunctionRasterDataset"));

namespace {
constexpr std::uint16_t kVersion = 1;
}

HRESULT CreateFunctionRasterDataset(IRasterFunction* function, IUnknown* arguments, bool bind,
                                    IFunctionRasterDataset** dataset) {
  PW_CHECK_POINTER(dataset);
  *dataset = nullptr;
  return Guard([&]() -> HRESULT {
    auto object = MakeObject<FunctionRasterDataset>();
    PW_RETURN_IF_FAILED(bind ? object->Init(function, arguments)
                             : object->Define(function, arguments));
    return object->QueryInterface(IidOf<IFunctionRasterDataset>(),
                                  reinterpret_cast<void**>(dataset));
  });
}

HRESULT FunctionRasterDataset::Define(IRasterFunction* function, IUnknown* arguments) {
  if (function == nullptr) return E_INVALIDARG;
  function_ = function;
  const auto* basic = dynamic_cast<const BasicFunction*>(function);
  writesWholeBlock_ = basic != nullptr && basic->WritesWholeBlock();
  arguments_ = arguments;
  described_ = false;
  return S_OK;
}

HRESULT FunctionRasterDataset::Init(IRasterFunction* function, IUnknown* arguments) {
  PW_RETURN_IF_FAILED(Define(function, arguments));
  PW_RETURN_IF_FAILED(function_->Bind(arguments));
  return Describe();
}

HRESULT FunctionRasterDataset::EnsureBound() {
  if (!function_) return E_FAIL;
  VARIANT_BOOL valid = VARIANT_FALSE;
  function_->get_Valid(&valid);
  if (!valid) {
    if (!arguments_) return E_FAIL;
    PW_RETURN_IF_FAILED(function_->Bind(arguments_.Get()));
  }
  return described_ ? S_OK : Describe();
}

HRESULT FunctionRasterDataset::Describe() {
  ComPtr<IRasterInfo> record;
  PW_RETURN_IF_FAILED(function_->get_RasterInfo(&record));
  return Guard([&]() -> HRESULT {
    raster::SourceInfo info;
    ComPtr<IEnvelope> extent;
    PW_RETURN_IF_FAILED(record->get_Extent(&extent));
    if (!extent) return E_FAIL;
    extent->QueryCoords(&info.grid.xmin, &info.grid.ymin, &info.grid.xmax, &info.grid.ymax);
    PW_RETURN_IF_FAILED(record->get_Width(&info.grid.columns));
    PW_RETURN_IF_FAILED(record->get_Height(&info.grid.rows));
    record->get_BandCount(&info.bandCount);
    record->get_PixelType(&info.pixelType);
    record->get_SpatialReference(&info.reference);
    if (!raster::IsKnownPixelType(info.pixelType) || info.bandCount < 0) return E_FAIL;
    // The grid keeps the extent; the cells follow from the columns and rows.
    Variant noData;
    record->get_NoData(&noData);
    info.noData = raster::NoDataOfBands(noData, info.bandCount);
    info_ = std::move(info);
    described_ = true;
    return S_OK;
  });
}

HRESULT FunctionRasterDataset::get_Function(IRasterFunction** function) {
  return HandOut(function_, function);
}
HRESULT FunctionRasterDataset::get_Arguments(IUnknown** arguments) {
  return HandOut(arguments_, arguments);
}

HRESULT FunctionRasterDataset::get_Name(BSTR* name) {
  PW_CHECK_POINTER(name);
  *name = nullptr;
  return function_ ? function_->get_Name(name) : E_FAIL;
}

HRESULT FunctionRasterDataset::get_BandCount(LONG* count) {
  PW_RETURN_IF_FAILED(EnsureBound());
  return HandOut(info_.bandCount, count);
}

HRESULT FunctionRasterDataset::GetBand(LONG index, IRasterBand** band) {
  PW_CHECK_POINTER(band);
  *band = nullptr;
  PW_RETURN_IF_FAILED(EnsureBound());
  if (index < 0 || index >= info_.bandCount) return E_INVALIDARG;
  // A description of the band: its key properties as the function defines them (pixels and
  // statistics live in the function and its raster info).
  return Guard([&] {
    auto description = MakeObject<raster::MemoryBand>(info_.pixelType, 0);
    ComPtr<IPropertySet> properties;
    description->get_Properties(&properties);
    if (auto keys = function_.As<IRasterKeyProperties>()) {
      ComPtr<IStringArray> names;
      ComPtr<IVariantArray> values;
      LONG count = 0;
      if (SUCCEEDED(keys->GetAllBandProperties(index, &names, &values)) && names && values &&
          SUCCEEDED(names->get_Count(&count))) {
        for (LONG i = 0; i < count; ++i) {
          Bstr name;
          Variant value;
          if (SUCCEEDED(names->get_Element(i, &name)) && SUCCEEDED(values->get_Element(i, &value)))
            properties->SetProperty(name.Get(), value);
        }
      }
    }
    if (auto* basic = dynamic_cast<BasicFunction*>(function_.Get())) {
      const std::u16string bandName = basic->BandName(index);
      if (!bandName.empty()) description->put_Name(Bstr(bandName).Get());
    } else if (auto keys = function_.As<IRasterKeyProperties>()) {
      Variant bandName;
      if (keys->GetBandProperty(Bstr(u"BandName").Get(), index, &bandName) == S_OK &&
          bandName.vt == VT_BSTR)
        description->put_Name(bandName.bstrVal);
    }
    return description->QueryInterface(IidOf<IRasterBand>(), reinterpret_cast<void**>(band));
  });
}

HRESULT FunctionRasterDataset::GetKeyProperty(BSTR name, VARIANT* value) {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  PW_RETURN_IF_FAILED(EnsureBound());
  auto keys = function_.As<IRasterKeyProperties>();
  return keys ? keys->GetProperty(name, value) : S_FALSE;
}

HRESULT FunctionRasterDataset::CreateDefaultRaster(IRaster** raster) {
  PW_RETURN_IF_FAILED(EnsureBound());
  return raster::CreateRaster(static_cast<IRasterSource*>(this), raster);
}

HRESULT FunctionRasterDataset::GetInfo(raster::SourceInfo* info) {
  PW_CHECK_POINTER(info);
  PW_RETURN_IF_FAILED(EnsureBound());
  return Guard([&] {
    *info = info_;
    return S_OK;
  });
}

namespace {

// Cells of a `width` x `height` window at (column, row) that lie beyond a grid of `columns`
// x `rows` are not part of it.
void ClearOutside(LONG column, LONG row, LONG width, LONG height, LONG columns, LONG rows,
                  BYTE* bits) {
  if (column >= 0 && row >= 0 && column + width <= columns && row + height <= rows) return;
  for (LONG r = 0; r < height; ++r)
    for (LONG c = 0; c < width; ++c)
      if (column + c < 0 || row + r < 0 || column + c >= columns || row + r >= rows)
        raster::mask::Clear(bits, static_cast<std::size_t>(r) * static_cast<std::size_t>(width) +
                                      static_cast<std::size_t>(c));
}

}  // namespace

HRESULT FunctionRasterDataset::ReadWindow(LONG band, LONG column, LONG row, LONG width, LONG height,
                                          void* buffer, BYTE* bits) {
  if (!described_) return E_FAIL;
  if (band < 0 || band >= info_.bandCount || buffer == nullptr || bits == nullptr || width < 0 ||
      height < 0)
    return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    ComPtr<IPixelBlock> block;
    // A one-band function reads straight into the caller's memory.
    const bool direct = info_.bandCount == 1;
    if (direct && writesWholeBlock_)
      PW_RETURN_IF_FAILED(
          raster::WrapUnfilledPixelBlock(width, height, info_.pixelType, buffer, bits, &block));
    else if (direct)
      PW_RETURN_IF_FAILED(
          raster::WrapPixelBlock(width, height, info_.pixelType, buffer, bits, &block));
    else
      PW_RETURN_IF_FAILED(
          raster::CreatePixelBlock(width, height, info_.bandCount, info_.pixelType, &block));
    auto origin = MakeObject<raster::Pnt>();
    origin->PutCoords(column, row);
    PW_RETURN_IF_FAILED(function_->Read(origin.As<IPnt>().Get(), nullptr, block.Get()));
    const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (!direct) {
      std::memcpy(buffer, block->Buffer(band), n * raster::PixelSize(info_.pixelType));
      std::memcpy(bits, block->Mask(band), raster::mask::Bytes(n));
    }
    // Cells beyond the function's grid are not part of it.
    ClearOutside(column, row, width, height, info_.grid.columns, info_.grid.rows, bits);
    return S_OK;
  });
}

HRESULT FunctionRasterDataset::ReadBlock(LONG column, LONG row, IPixelBlock* block) {
  if (!described_) return E_FAIL;
  raster::BlockShape shape;
  PW_RETURN_IF_FAILED(raster::GetShape(block, &shape));
  if (shape.bands != info_.bandCount || shape.pixelType != info_.pixelType) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    // A function that does not write every value and bit gets a cleared block.
    if (!writesWholeBlock_) PW_RETURN_IF_FAILED(raster::ClearPixelBlock(block));
    auto origin = MakeObject<raster::Pnt>();
    origin->PutCoords(column, row);
    PW_RETURN_IF_FAILED(function_->Read(origin.As<IPnt>().Get(), nullptr, block));
    for (LONG b = 0; b < shape.bands; ++b)
      ClearOutside(column, row, shape.width, shape.height, info_.grid.columns, info_.grid.rows,
                   block->Mask(b));
    return S_OK;
  });
}

// --- persistence: the function and its arguments -----------------------------------------

HRESULT FunctionRasterDataset::GetClassID(CLSID* clsid) {
  PW_CHECK_POINTER(clsid);
  *clsid = ClassIdFromName("FunctionRasterDataset");
  return S_OK;
}

HRESULT FunctionRasterDataset::GetSizeMax(ULARGE_INTEGER* size) {
  return persist::SizeBySaving(this, size);
}

HRESULT FunctionRasterDataset::Save(IStream* stream, BOOL) {
  if (stream == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    persist::StreamWriter w(stream);
    PW_RETURN_IF_FAILED(w.Put<std::uint16_t>(kVersion));
    PW_RETURN_IF_FAILED(w.PutObject(function_.Get()));
    return w.PutObject(arguments_.Get());
  });
}

HRESULT FunctionRasterDataset::Load(IStream* stream) {
  if (stream == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    persist::StreamReader r(stream);
    std::uint16_t version = 0;
    PW_RETURN_IF_FAILED(r.Get(&version));
    if (version != kVersion) return E_FAIL;
    ComPtr<IRasterFunction> function;
    ComPtr<IUnknown> arguments;
    PW_RETURN_IF_FAILED(r.GetObjectAs<IRasterFunction>(&function));
    PW_RETURN_IF_FAILED(r.GetObject(&arguments));
    if (!function) return E_FAIL;
    return Define(function.Get(), arguments.Get());
  });
}

HRESULT FunctionRasterDataset::Serialize(IXMLSerializeData* data) {
  if (data == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    pugi::xml_node e = *data->Element();
    PW_RETURN_IF_FAILED(persist::WriteObject(e, "Function", function_.Get()));
    return persist::WriteObject(e, "Arguments", arguments_.Get());
  });
}

HRESULT FunctionRasterDataset::Deserialize(IXMLSerializeData* data) {
  if (data == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    const pugi::xml_node e = *data->Element();
    ComPtr<IUnknown> function, arguments;
    PW_RETURN_IF_FAILED(persist::ReadObject(e, "Function", u"", &function));
    PW_RETURN_IF_FAILED(persist::ReadObject(e, "Arguments", u"", &arguments));
    ComPtr<IRasterFunction> typed = function.As<IRasterFunction>();
    if (!typed) return E_INVALIDARG;
    return Define(typed.Get(), arguments.Get());
  });
}

HRESULT FunctionRasterDataset::SerializeJSONObject(IUnknown*, IJSONObject* json) {
  persist::Json* j = persist::JsonOf(json);
  if (j == nullptr) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    *j = persist::Json::object();
    PW_RETURN_IF_FAILED(
        persist::Codec<persist::TypedObject>::ToJson(*j, "function", {function_.As<IUnknown>()}));
    return persist::Codec<persist::TypedObject>::ToJson(*j, "arguments", {arguments_});
  });
}

HRESULT FunctionRasterDataset::DeserializeJSONObject(IUnknown*, IJSONObject* json) {
  const persist::Json* j = persist::JsonOf(json);
  if (j == nullptr || !j->is_object()) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    persist::TypedObject function, arguments;
    PW_RETURN_IF_FAILED(persist::Codec<persist::TypedObject>::FromJson(*j, "function", function));
    PW_RETURN_IF_FAILED(persist::Codec<persist::TypedObject>::FromJson(*j, "arguments", arguments));
    ComPtr<IRasterFunction> typed = function.p.As<IRasterFunction>();
    if (!typed) return E_INVALIDARG;
    return Define(typed.Get(), arguments.p.Get());
  });
}

}  // namespace pw::framework
