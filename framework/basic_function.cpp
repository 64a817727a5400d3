// The function base: binding, reading, inputs, output info, key properties, errors and
// persistence.
#include "framework/basic_function.h"

#include <algorithm>
#include <cmath>

#include "framework/function_raster.h"
#include "framework/relative_path_manager.h"
#include "raster/algorithms/no_data.h"
#include "raster/algorithms/statistics.h"
#include "raster/band_collection.h"
#include "raster/band_indexes.h"
#include "raster/mask.h"
#include "raster/opener.h"
#include "raster/persist/document_version.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/value_object.h"
#include "raster/persist/xml.h"
#include "raster/pixel_block.h"
#include "raster/raster_view.h"
#include "raster/reprojection.h"
#include "raster/values/arrays.h"
#include "raster/values/geometry.h"
#include "raster/values/raster_statistics.h"
#include "resources/raster_names.h"
#include "resources/string_table.h"

namespace pw::framework {
namespace {

using persist::Json;

constexpr std::uint16_t kBaseVersion = 1;

std::u16string_view View(BSTR s) {
  return std::u16string_view(s ? s : u"", SysStringLen(s));
}

HRESULT HandString(std::u16string_view text, BSTR* out) {
  PW_CHECK_POINTER(out);
  *out = nullptr;
  return Guard([&] {
    *out = AllocBstr(text);
    return S_OK;
  });
}

}  // namespace

HRESULT BlockOrigin(IPnt* origin, LONG* column, LONG* row) {
  if (origin == nullptr) {
    *column = *row = 0;
    return S_OK;
  }
  double x = 0, y = 0;
  PW_RETURN_IF_FAILED(origin->QueryCoords(&x, &y));
  *column = static_cast<LONG>(std::lround(x));
  *row = static_cast<LONG>(std::lround(y));
  return S_OK;
}

BasicFunction::BasicFunction(LONG minimumVersion, UINT nameId, UINT descriptionId)
    : name_(res::Load(nameId)),
      description_(res::Load(descriptionId)),
      minimumVersion_(minimumVersion) {}

// --- IRasterFunction ---------------------------------------------------------------------

HRESULT BasicFunction::get_Name(BSTR* name) {
  return HandString(name_, name);
}
HRESULT BasicFunction::put_Name(BSTR name) {
  return Guard([&] {
    name_ = View(name);
    dirty_ = true;
    return S_OK;
  });
}
HRESULT BasicFunction::get_Description(BSTR* description) {
  return HandString(description_, description);
}
HRESULT BasicFunction::put_Description(BSTR description) {
  return Guard([&] {
    description_ = View(description);
    dirty_ = true;
    return S_OK;
  });
}
HRESULT BasicFunction::get_PixelType(LONG* type) {
  return HandOut(pixelType_, type);
}
HRESULT BasicFunction::put_PixelType(LONG type) {
  if (type != -1 && !raster::IsKnownPixelType(type)) return E_INVALIDARG;
  pixelType_ = type;
  dirty_ = true;
  return S_OK;
}

HRESULT BasicFunction::Bind(IUnknown* arguments) {
  return Guard([&]() -> HRESULT {
    // The chain of messages this bind may build starts here: an older error of the thread
    // has nothing to do with it.
    ClearErrorInfo();
    valid_ = false;
    info_.Reset();
    inputs_.clear();
    bandNames_.clear();
    ComPtr<IRasterFunctionArguments> prepared;
    HRESULT hr = PrepareArguments(arguments, &prepared);
    if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);
    hr = BindImpl(prepared.Get());
    if (FAILED(hr)) return hr;  // BindImpl reports through the chain services
    if (!info_)
      return ChainBindError(E_FAIL, res::IDS_FUNCTION_BIND_FAILED, u" (no output was defined)");
    if (pixelType_ != -1) {
      info_->put_PixelType(pixelType_);
      PW_RETURN_IF_FAILED(FitNoDataToType(info_.Get()));
    }
    arguments_ = prepared;
    valid_ = true;
    return S_OK;
  });
}

HRESULT BasicFunction::get_Valid(VARIANT_BOOL* valid) {
  return HandOut(VARIANT_BOOL(valid_ ? VARIANT_TRUE : VARIANT_FALSE), valid);
}

HRESULT BasicFunction::Update() {
  if (!arguments_) return S_FALSE;
  ComPtr<IRasterFunctionArguments> arguments = arguments_;
  return Bind(arguments.Get());
}

HRESULT BasicFunction::get_RasterInfo(IRasterInfo** info) {
  PW_CHECK_POINTER(info);
  *info = nullptr;
  if (!info_) return E_FAIL;
  return info_->QueryInterface(IidOf<IRasterInfo>(), reinterpret_cast<void**>(info));
}

HRESULT BasicFunction::Read(IPnt* origin, IRaster*, IPixelBlock* block) {
  if (block == nullptr) return E_POINTER;
  if (!valid_) {
    return ReportError(E_FAIL,
                       res::Format(res::IDS_FUNCTION_NOT_BOUND, std::u16string(TypeName())));
  }
  LONG column = 0, row = 0;
  PW_RETURN_IF_FAILED(BlockOrigin(origin, &column, &row));
  return Guard([&]() -> HRESULT {
    if (ReadsAnyBlock()) return ReadImpl(column, row, block);
    raster::BlockShape shape;
    PW_RETURN_IF_FAILED(raster::GetShape(block, &shape));
    LONG type = -1, bands = 0;
    info_->get_PixelType(&type);
    info_->get_BandCount(&bands);
    if (shape.pixelType == type && shape.bands == bands) return ReadImpl(column, row, block);
    // Computed once in the output's own shape, then converted and its bands repeated.
    ComPtr<IPixelBlock> own;
    PW_RETURN_IF_FAILED(raster::CreatePixelBlock(shape.width, shape.height, bands, type, &own));
    const HRESULT hr = ReadImpl(column, row, own.Get());
    PW_RETURN_IF_FAILED(hr);
    PW_RETURN_IF_FAILED(raster::ConvertPixelBlock(own.Get(), block));
    return hr;
  });
}

HRESULT BasicFunction::PrepareArguments(IUnknown* arguments, IRasterFunctionArguments** prepared) {
  PW_CHECK_POINTER(prepared);
  *prepared = nullptr;
  if (arguments == nullptr) return E_INVALIDARG;
  return arguments->QueryInterface(IidOf<IRasterFunctionArguments>(),
                                   reinterpret_cast<void**>(prepared));
}

// --- IRasterFunction2/3 ------------------------------------------------------------------

HRESULT BasicFunction::ComputeFootprint(LONG, IUnknown** footprint) {
  PW_CHECK_POINTER(footprint);
  *footprint = nullptr;
  if (!info_) return E_FAIL;
  ComPtr<IEnvelope> extent;
  PW_RETURN_IF_FAILED(info_->get_Extent(&extent));
  if (!extent) return S_FALSE;
  ComPtr<IUnknown> copy;
  PW_RETURN_IF_FAILED(persist::CloneObject(extent.Get(), &copy));
  *footprint = copy.Detach();
  return S_OK;
}

HRESULT BasicFunction::ComputeFootprintAndCenter(LONG level, IUnknown** footprint,
                                                 IUnknown** center) {
  PW_CHECK_POINTER(center);
  *center = nullptr;
  PW_RETURN_IF_FAILED(ComputeFootprint(level, footprint));
  ComPtr<IEnvelope> box = ComPtr<IUnknown>(*footprint).As<IEnvelope>();
  if (!box) return S_FALSE;
  return Guard([&] {
    double xmin = 0, ymin = 0, xmax = 0, ymax = 0;
    box->QueryCoords(&xmin, &ymin, &xmax, &ymax);
    auto point = MakeObject<raster::Pnt>();
    point->PutCoords((xmin + xmax) / 2, (ymin + ymax) / 2);
    *center = point->AsUnknown();
    (*center)->AddRef();
    return S_OK;
  });
}

HRESULT BasicFunction::GetFiles(IUnknown*, IStringArray** files) {
  return get_FileList(files);
}

HRESULT BasicFunction::put_Resampling(VARIANT_BOOL resampling) {
  resampling_ = resampling != VARIANT_FALSE;
  return S_OK;
}

HRESULT BasicFunction::ComputeStatsHistogram() {
  if (!valid_ || !info_) {
    return ReportError(E_FAIL,
                       res::Format(res::IDS_FUNCTION_NOT_BOUND, std::u16string(TypeName())));
  }
  return Guard([&]() -> HRESULT {
    // The output read as a raster of its own, band by band; the results join its record.
    ComPtr<IFunctionRasterDataset> dataset;
    PW_RETURN_IF_FAILED(CreateFunctionRasterDataset(this, arguments_.Get(), false, &dataset));
    ComPtr<IRaster> output;
    PW_RETURN_IF_FAILED(dataset.As<IRasterDataset>()->CreateDefaultRaster(&output));
    LONG bands = 0;
    info_->get_BandCount(&bands);
    for (LONG b = 0; b < bands; ++b) {
      ComPtr<IRasterStatistics> statistics;
      ComPtr<IRasterHistogram> histogram;
      PW_RETURN_IF_FAILED(
          raster::ComputeRasterStatistics(output.Get(), b, &statistics, &histogram));
      PW_RETURN_IF_FAILED(info_->put_Statistics(b, statistics.Get()));
      PW_RETURN_IF_FAILED(info_->put_Histogram(b, histogram.Get()));
    }
    return S_OK;
  });
}

HRESULT BasicFunction::get_WorkingBlockSize(IPnt** size) {
  PW_CHECK_POINTER(size);
  *size = nullptr;
  return Guard([&] {
    LONG width = 2048, height = 256;
    if (info_) {
      info_->get_BlockWidth(&width);
      info_->get_BlockHeight(&height);
    }
    auto point = MakeObject<raster::Pnt>();
    point->PutCoords(width, height);
    return point->QueryInterface(IidOf<IPnt>(), reinterpret_cast<void**>(size));
  });
}

HRESULT BasicFunction::QueryDatasetsForPrecomputingStats(IArray** datasets) {
  PW_CHECK_POINTER(datasets);
  *datasets = nullptr;
  return Guard([&] {
    auto array = MakeObject<raster::ObjectArray>();
    return array->QueryInterface(IidOf<IArray>(), reinterpret_cast<void**>(datasets));
  });
}

HRESULT BasicFunction::get_FileList(IStringArray** files) {
  PW_CHECK_POINTER(files);
  *files = nullptr;
  if (auto args = arguments_.As<IRasterFunctionArguments2>()) return args->get_FileList(files);
  return Guard([&] {
    auto list = MakeObject<raster::StringArray>();
    return list->QueryInterface(IidOf<IStringArray>(), reinterpret_cast<void**>(files));
  });
}

HRESULT BasicFunction::get_TypeName(BSTR* name) {
  return HandString(TypeName(), name);
}

HRESULT BasicFunction::get_MinNamespaceSupported(BSTR* name) {
  return HandString(ToUtf16("urn:pixwerk:raster:" + std::to_string(minimumVersion_)), name);
}

// --- inputs ------------------------------------------------------------------------------

HRESULT BasicFunction::Open(const VARIANT& input, IRaster** raster) {
  PW_CHECK_POINTER(raster);
  *raster = nullptr;
  if (input.vt == VT_BSTR) {
    ComPtr<IRasterDataset> dataset;
    // Relative names are taken from the calling thread's base folder (a chain file's).
    PW_RETURN_IF_FAILED(
        raster::OpenDatasetByName(ResolveDatasetName(View(input.bstrVal)), &dataset));
    return dataset->CreateDefaultRaster(raster);
  }
  if (input.vt == VT_UNKNOWN) return Open(input.punkVal, raster);
  return E_INVALIDARG;
}

HRESULT BasicFunction::Open(IUnknown* input, IRaster** raster) {
  PW_CHECK_POINTER(raster);
  *raster = nullptr;
  if (input == nullptr) return E_INVALIDARG;
  ComPtr<IUnknown> object(input);
  if (auto variable = object.As<IRasterFunctionVariable>()) {
    Variant value;
    PW_RETURN_IF_FAILED(variable->get_Value(&value));
    return Open(value, raster);
  }
  if (auto function = object.As<IFunctionRasterDataset>())
    PW_RETURN_IF_FAILED(function->EnsureBound());
  if (auto view = object.As<IRaster>()) return view.CopyTo(raster);
  if (auto dataset = object.As<IRasterDataset>()) return dataset->CreateDefaultRaster(raster);
  if (auto source = object.As<IRasterSource>()) return raster::CreateRaster(source.Get(), raster);
  if (auto function = object.As<IRasterFunction>()) {
    // A bound function is read through a function raster dataset of its own.
    VARIANT_BOOL valid = VARIANT_FALSE;
    function->get_Valid(&valid);
    if (!valid) return E_INVALIDARG;
    ComPtr<IFunctionRasterDataset> dataset;
    PW_RETURN_IF_FAILED(CreateFunctionRasterDataset(function.Get(), nullptr, false, &dataset));
    return dataset.As<IRasterDataset>()->CreateDefaultRaster(raster);
  }
  return E_INVALIDARG;
}

HRESULT BasicFunction::OpenRaster(IUnknown* input, bool firstBandOnly, IRaster** raster) {
  ComPtr<IRaster> opened;
  PW_RETURN_IF_FAILED(Open(input, &opened));
  if (!firstBandOnly) return opened.CopyTo(raster);
  return raster::CreateFirstBandView(opened.Get(), raster);
}

HRESULT BasicFunction::OpenRasters(const VARIANT& inputs, std::vector<ComPtr<IRaster>>* rasters) {
  rasters->clear();
  if (inputs.vt & VT_ARRAY) {
    return ForEachArrayElement(inputs, [&](const Variant& item) {
      ComPtr<IRaster> raster;
      PW_RETURN_IF_FAILED(Open(item, &raster));
      rasters->push_back(raster);
      return S_OK;
    });
  }
  if (inputs.vt == VT_UNKNOWN && inputs.punkVal != nullptr) {
    ComPtr<IUnknown> object(inputs.punkVal);
    if (auto items = object.As<IVariantArray>()) {
      LONG n = 0;
      items->get_Count(&n);
      for (LONG i = 0; i < n; ++i) {
        Variant item;
        PW_RETURN_IF_FAILED(items->get_Element(i, &item));
        ComPtr<IRaster> raster;
        PW_RETURN_IF_FAILED(Open(item, &raster));
        rasters->push_back(raster);
      }
      return S_OK;
    }
    if (auto array = object.As<IArray>()) {
      LONG n = 0;
      array->get_Count(&n);
      for (LONG i = 0; i < n; ++i) {
        ComPtr<IUnknown> item;
        PW_RETURN_IF_FAILED(array->get_Element(i, &item));
        ComPtr<IRaster> raster;
        PW_RETURN_IF_FAILED(Open(item.Get(), &raster));
        rasters->push_back(raster);
      }
      return S_OK;
    }
  }
  ComPtr<IRaster> single;
  PW_RETURN_IF_FAILED(Open(inputs, &single));
  rasters->push_back(single);
  return S_OK;
}

// --- output description ------------------------------------------------------------------

HRESULT BasicFunction::Define(IRaster* input, LONG pixelType, IRasterInfo3** info) {
  PW_CHECK_POINTER(info);
  *info = nullptr;
  ComPtr<IRasterProps> props = ComPtr<IRaster>(input).As<IRasterProps>();
  if (!props) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    // A function raster describes itself: its record is the starting point.
    ComPtr<IRasterInfo3> record;
    if (auto* view = dynamic_cast<raster::Raster*>(input)) {
      if (auto dataset = view->Source().As<IFunctionRasterDataset>()) {
        ComPtr<IRasterFunction> function;
        ComPtr<IRasterInfo> inner;
        if (SUCCEEDED(dataset->get_Function(&function)) &&
            SUCCEEDED(function->get_RasterInfo(&inner))) {
          ComPtr<IUnknown> copy;
          PW_RETURN_IF_FAILED(persist::CloneObject(inner.Get(), &copy));
          record = copy.As<IRasterInfo3>();
        }
      }
    }
    if (!record) record = MakeObject<RasterInfo>().As<IRasterInfo3>();
    const raster::RasterGrid g = raster::GridOf(input);
    auto extent = MakeObject<raster::Envelope>();
    extent->PutCoords(g.xmin, g.ymin, g.xmax, g.ymax);
    ComPtr<ISpatialReference> reference;
    props->get_SpatialReference(&reference);
    extent->putref_SpatialReference(reference.Get());
    PW_RETURN_IF_FAILED(record->put_Extent(extent.As<IEnvelope>().Get()));
    record->put_NativeSpatialReference(reference.Get());
    record->put_PixelSizeX(g.CellX());
    record->put_PixelSizeY(g.CellY());
    LONG bands = 0, type = -1;
    props->get_BandCount(&bands);
    props->get_PixelType(&type);
    record->put_BandCount(bands);
    const LONG chosen = pixelType != -1 ? pixelType : type;
    PW_RETURN_IF_FAILED(record->put_PixelType(chosen));
    Variant noData;
    props->get_NoDataValue(&noData);
    record->put_NoData(noData);
    PW_RETURN_IF_FAILED(FitNoDataToType(record.Get()));
    PW_RETURN_IF_FAILED(CopyRasterBandInfos(input, record.Get()));
    *info = record.Detach();
    return S_OK;
  });
}

HRESULT BasicFunction::FitNoDataToType(IRasterInfo3* info) {
  if (info == nullptr) return E_INVALIDARG;
  return Guard([&] {
    LONG bands = 0, type = -1;
    info->get_BandCount(&bands);
    info->get_PixelType(&type);
    Variant noData;
    info->get_NoData(&noData);
    if (noData.IsEmpty()) return S_OK;
    raster::BandNoData values = raster::NoDataOfBands(noData, std::max<LONG>(bands, 1));
    raster::KeepHeldNoData(type, &values);
    return info->put_NoData(raster::NoDataVariant(values));
  });
}

HRESULT BasicFunction::CopyRasterBandInfos(IRaster* input, IRasterInfo3* info) {
  auto* view = dynamic_cast<raster::Raster*>(input);
  if (view == nullptr || info == nullptr) return S_FALSE;
  ComPtr<IRasterDataset> dataset = view->Source().As<IRasterDataset>();
  if (!dataset || view->Source().As<IFunctionRasterDataset>()) return S_FALSE;
  LONG bands = 0;
  dataset->get_BandCount(&bands);
  for (LONG b = 0; b < bands; ++b) {
    ComPtr<IRasterBand> band;
    if (FAILED(dataset->GetBand(b, &band))) continue;
    ComPtr<IRasterStatistics> statistics;
    ComPtr<IRasterHistogram> histogram;
    if (SUCCEEDED(band->get_Statistics(&statistics)) && statistics)
      info->put_Statistics(b, statistics.Get());
    if (SUCCEEDED(band->get_Histogram(&histogram)) && histogram)
      info->put_Histogram(b, histogram.Get());
    ComPtr<IRasterColormap> colormap;
    if (b == 0 && SUCCEEDED(band->get_Colormap(&colormap)) && colormap)
      info->put_Colormap(colormap.Get());
  }
  return S_OK;
}

HRESULT BasicFunction::OutputGrids(const std::vector<ComPtr<IRaster>>& rasters,
                                   std::vector<raster::RasterGrid>* grids) {
  grids->clear();
  ComPtr<ISpatialReference> output;
  PW_RETURN_IF_FAILED(ComputeSpatialReference(rasters, &output));
  for (std::size_t i = 0; i < rasters.size(); ++i) {
    raster::RasterGrid grid = raster::GridOf(rasters[i].Get());
    ComPtr<ISpatialReference> own;
    if (auto props = rasters[i].As<IRasterProps>()) props->get_SpatialReference(&own);
    if (!raster::SameReference(own.Get(), output.Get())) {
      // Read through GDAL's warper onto the output's grid: its extent and cells count in
      // the output's reference.
      const ComPtr<IRasterSource> source = raster::ReadingSource(rasters[i].Get());
      HRESULT hr = source && source.As<IRasterWarpSource>() ? S_OK : E_NOTIMPL;
      raster::RasterGrid carried;
      if (SUCCEEDED(hr)) hr = raster::CarryGrid(grid, own.Get(), output.Get(), &carried);
      if (FAILED(hr)) {
        const std::string why = hr == E_NOTIMPL ? std::string("the input is not a GDAL dataset")
                                                : ToUtf8(TakeErrorDescription());
        return ReportError(
            E_INVALIDARG,
            res::Format(res::IDS_REFERENCE_NOT_REPROJECTED, std::u16string(TypeName()),
                        static_cast<long>(i + 1), raster::ReferenceName(own.Get()),
                        raster::ReferenceName(output.Get()), why),
            ClassId());
      }
      grid = carried;
    }
    grids->push_back(grid);
  }
  return S_OK;
}

HRESULT BasicFunction::ComputeExtent(const std::vector<ComPtr<IRaster>>& rasters, LONG extentType,
                                     IEnvelope** extent) {
  PW_CHECK_POINTER(extent);
  *extent = nullptr;
  if (rasters.empty()) return E_INVALIDARG;
  std::vector<raster::RasterGrid> grids;
  PW_RETURN_IF_FAILED(OutputGrids(rasters, &grids));
  raster::RasterGrid result = grids.front();
  switch (extentType) {
    case kFirstExtent:
      break;
    case kLastExtent:
      result = grids.back();
      break;
    case kIntersection:
    case kUnion:
      for (const raster::RasterGrid& g : grids) {
        if (extentType == kIntersection) {
          result.xmin = std::max(result.xmin, g.xmin), result.ymin = std::max(result.ymin, g.ymin);
          result.xmax = std::min(result.xmax, g.xmax), result.ymax = std::min(result.ymax, g.ymax);
        } else {
          result.xmin = std::min(result.xmin, g.xmin), result.ymin = std::min(result.ymin, g.ymin);
          result.xmax = std::max(result.xmax, g.xmax), result.ymax = std::max(result.ymax, g.ymax);
        }
      }
      break;
    default:
      return E_INVALIDARG;
  }
  return Guard([&] {
    auto box = MakeObject<raster::Envelope>();
    if (result.xmax > result.xmin && result.ymax > result.ymin)
      box->PutCoords(result.xmin, result.ymin, result.xmax, result.ymax);
    return box->QueryInterface(IidOf<IEnvelope>(), reinterpret_cast<void**>(extent));
  });
}

HRESULT BasicFunction::ComputeCellsize(const std::vector<ComPtr<IRaster>>& rasters,
                                       LONG cellsizeType, double* x, double* y) {
  if (x == nullptr || y == nullptr) return E_POINTER;
  if (rasters.empty()) return E_INVALIDARG;
  std::vector<raster::RasterGrid> grids;
  PW_RETURN_IF_FAILED(OutputGrids(rasters, &grids));
  std::vector<std::pair<double, double>> cells;
  for (const raster::RasterGrid& g : grids) cells.emplace_back(g.CellX(), g.CellY());
  switch (cellsizeType) {
    case kFirstCell:
      std::tie(*x, *y) = cells.front();
      return S_OK;
    case kLastCell:
      std::tie(*x, *y) = cells.back();
      return S_OK;
    case kSmallestCell:
    case kLargestCell: {
      auto area = [](const auto& c) { return c.first * c.second; };
      const auto it = cellsizeType == kSmallestCell
                          ? std::min_element(cells.begin(), cells.end(),
                                             [&](auto& a, auto& b) { return area(a) < area(b); })
                          : std::max_element(cells.begin(), cells.end(),
                                             [&](auto& a, auto& b) { return area(a) < area(b); });
      std::tie(*x, *y) = *it;
      return S_OK;
    }
    case kMeanCell:
      *x = *y = 0;
      for (const auto& c : cells) *x += c.first, *y += c.second;
      *x /= static_cast<double>(cells.size());
      *y /= static_cast<double>(cells.size());
      return S_OK;
    default:
      return E_INVALIDARG;
  }
}

HRESULT BasicFunction::ComputeSpatialReference(const std::vector<ComPtr<IRaster>>& rasters,
                                               ISpatialReference** reference) {
  PW_CHECK_POINTER(reference);
  *reference = nullptr;
  for (const auto& r : rasters) {
    ComPtr<IRasterProps> props = r.As<IRasterProps>();
    ComPtr<ISpatialReference> sr;
    if (props && SUCCEEDED(props->get_SpatialReference(&sr)) && sr) return sr.CopyTo(reference);
  }
  return S_FALSE;
}

HRESULT BasicFunction::ComputePixelBlockOffset(LONG, LONG, IRaster* input, IRasterInfo* output,
                                               LONG* columnOffset, LONG* rowOffset) {
  if (columnOffset == nullptr || rowOffset == nullptr) return E_POINTER;
  *columnOffset = *rowOffset = 0;
  if (input == nullptr || output == nullptr) return E_INVALIDARG;
  ComPtr<IEnvelope> extent;
  PW_RETURN_IF_FAILED(output->get_Extent(&extent));
  if (!extent) return S_OK;
  double xmin = 0, ymin = 0, xmax = 0, ymax = 0;
  extent->QueryCoords(&xmin, &ymin, &xmax, &ymax);
  const raster::RasterGrid g = raster::GridOf(input);
  if (!g.Valid()) return E_INVALIDARG;
  *columnOffset = static_cast<LONG>(std::lround((xmin - g.xmin) / g.CellX()));
  *rowOffset = static_cast<LONG>(std::lround((g.ymax - ymax) / g.CellY()));
  return S_OK;
}

HRESULT BasicFunction::ReadInput(IRaster* input, LONG column, LONG row, LONG columnOffset,
                                 LONG rowOffset, IPixelBlock* block) {
  if (input == nullptr) return E_INVALIDARG;
  return input->ReadAt(column + columnOffset, row + rowOffset, block);
}

void BasicFunction::UnionMask(BYTE* destination, const BYTE* source, LONG bytes) {
  if (bytes > 0) raster::mask::Union(destination, source, static_cast<std::size_t>(bytes));
}

void BasicFunction::IntersectMask(BYTE* destination, const BYTE* source, LONG bytes) {
  if (bytes > 0) raster::mask::Intersect(destination, source, static_cast<std::size_t>(bytes));
}

HRESULT BasicFunction::PutMinimumMaximum(IRasterInfo3* info, double minimum, double maximum) {
  if (info == nullptr) return E_INVALIDARG;
  LONG bands = 0;
  info->get_BandCount(&bands);
  info->RemoveStatistics();
  for (LONG b = 0; b < bands; ++b) {
    auto statistics = MakeObject<raster::RasterStatistics>();
    statistics->put_Minimum(minimum);
    statistics->put_Maximum(maximum);
    statistics->put_IsValid(VARIANT_TRUE);
    PW_RETURN_IF_FAILED(info->put_Statistics(b, statistics.As<IRasterStatistics>().Get()));
  }
  return S_OK;
}

HRESULT BasicFunction::RemoveColormapStatsHistograms(IRasterInfo3* info) {
  if (info == nullptr) return E_INVALIDARG;
  info->put_Colormap(nullptr);
  info->RemoveStatistics();
  return info->RemoveHistograms();
}

// --- key properties ----------------------------------------------------------------------

HRESULT BasicFunction::DefineRasterKeyProperty(std::u16string_view name, const VARIANT& value) {
  return Guard([&] {
    for (auto& p : keyProperties_.items) {
      if (EqualsNoCase(p.name, name)) {
        p.value = Variant(value);
        return S_OK;
      }
    }
    keyProperties_.items.push_back(raster::Property{std::u16string(name), Variant(value)});
    return S_OK;
  });
}

HRESULT BasicFunction::KeepBandKeyProperties(const std::vector<raster::BandReference>& bands) {
  bandProperties_.clear();
  for (std::size_t b = 0; b < bands.size(); ++b) {
    for (std::u16string_view name :
         {res::c_name_BandName, res::c_name_WavelengthMin, res::c_name_WavelengthMax}) {
      if (auto value = raster::BandKeyProperty(bands[b].raster.Get(), bands[b].band, name))
        PW_RETURN_IF_FAILED(SetBandProperty(Bstr(name).Get(), static_cast<LONG>(b), *value));
    }
  }
  return S_OK;
}

HRESULT BasicFunction::KeepBandKeyProperties(IRaster* input) {
  std::vector<raster::BandReference> bands;
  for (LONG b = 0, n = raster::BandCountOf(input); b < n; ++b)
    bands.push_back(raster::BandReference{ComPtr<IRaster>(input), b});
  return KeepBandKeyProperties(bands);
}

HRESULT BasicFunction::NameBands(LONG count, std::u16string_view name) {
  return Guard([&] {
    bandNames_.assign(static_cast<std::size_t>(std::max<LONG>(count, 0)), std::u16string(name));
    return S_OK;
  });
}

HRESULT BasicFunction::NameBands(std::vector<std::u16string> names) {
  bandNames_ = std::move(names);
  return S_OK;
}

std::u16string BasicFunction::BandName(LONG band) {
  if (band >= 0 && band < static_cast<LONG>(bandNames_.size()))
    return bandNames_[static_cast<std::size_t>(band)];
  Variant value;
  if (GetBandProperty(Bstr(res::c_name_BandName).Get(), band, &value) == S_OK) {
    if (auto text = value.ToString()) return *text;
  }
  return {};
}

void BasicFunction::InvalidateRasterKeyProperty(std::u16string_view name) {
  if (!IsInvalidated(name)) invalidated_.emplace_back(name);
}

bool BasicFunction::IsInvalidated(std::u16string_view name) const {
  return std::any_of(invalidated_.begin(), invalidated_.end(),
                     [&](const auto& n) { return EqualsNoCase(n, name); });
}

HRESULT BasicFunction::GetProperty(BSTR name, VARIANT* value) {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  if (IsInvalidated(View(name))) return S_FALSE;  // reported as not defined
  for (const auto& p : keyProperties_.items)
    if (EqualsNoCase(p.name, View(name))) return VariantCopy(value, &p.value);
  return S_FALSE;
}

HRESULT BasicFunction::SetProperty(BSTR name, VARIANT value) {
  if (SysStringLen(name) == 0) return E_INVALIDARG;
  return DefineRasterKeyProperty(View(name), value);
}

HRESULT BasicFunction::RemoveProperty(BSTR name) {
  auto& items = keyProperties_.items;
  const auto it = std::find_if(items.begin(), items.end(),
                               [&](auto& p) { return EqualsNoCase(p.name, View(name)); });
  if (it == items.end()) return S_FALSE;
  items.erase(it);
  return S_OK;
}

HRESULT BasicFunction::GetAllProperties(IStringArray** names, IVariantArray** values) {
  if (names == nullptr || values == nullptr) return E_POINTER;
  *names = nullptr;
  *values = nullptr;
  return Guard([&] {
    auto n = MakeObject<raster::StringArray>();
    auto v = MakeObject<raster::VariantArray>();
    for (const auto& p : keyProperties_.items) {
      if (IsInvalidated(p.name)) continue;
      n->Items().push_back(p.name);
      v->Items().push_back(p.value);
    }
    PW_RETURN_IF_FAILED(n->QueryInterface(IidOf<IStringArray>(), reinterpret_cast<void**>(names)));
    return v->QueryInterface(IidOf<IVariantArray>(), reinterpret_cast<void**>(values));
  });
}

HRESULT BasicFunction::GetBandProperty(BSTR name, LONG band, VARIANT* value) {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  if (band < 0) return E_INVALIDARG;
  if (IsInvalidated(View(name)) || band >= static_cast<LONG>(bandProperties_.size()))
    return S_FALSE;
  for (const auto& p : bandProperties_[band].items)
    if (EqualsNoCase(p.name, View(name))) return VariantCopy(value, &p.value);
  return S_FALSE;
}

HRESULT BasicFunction::SetBandProperty(BSTR name, LONG band, VARIANT value) {
  if (SysStringLen(name) == 0 || band < 0 || band > 65535) return E_INVALIDARG;
  return Guard([&] {
    if (band >= static_cast<LONG>(bandProperties_.size()))
      bandProperties_.resize(static_cast<std::size_t>(band) + 1);
    for (auto& p : bandProperties_[band].items) {
      if (EqualsNoCase(p.name, View(name))) {
        p.value = Variant(value);
        return S_OK;
      }
    }
    bandProperties_[band].items.push_back(
        raster::Property{std::u16string(View(name)), Variant(value)});
    return S_OK;
  });
}

HRESULT BasicFunction::RemoveBandProperty(BSTR name, LONG band) {
  if (band < 0 || band >= static_cast<LONG>(bandProperties_.size())) return S_FALSE;
  auto& items = bandProperties_[band].items;
  const auto it = std::find_if(items.begin(), items.end(),
                               [&](auto& p) { return EqualsNoCase(p.name, View(name)); });
  if (it == items.end()) return S_FALSE;
  items.erase(it);
  return S_OK;
}

HRESULT BasicFunction::GetAllBandProperties(LONG band, IStringArray** names,
                                            IVariantArray** values) {
  if (names == nullptr || values == nullptr) return E_POINTER;
  *names = nullptr;
  *values = nullptr;
  return Guard([&] {
    auto n = MakeObject<raster::StringArray>();
    auto v = MakeObject<raster::VariantArray>();
    if (band >= 0 && band < static_cast<LONG>(bandProperties_.size())) {
      for (const auto& p : bandProperties_[band].items) {
        if (IsInvalidated(p.name)) continue;
        n->Items().push_back(p.name);
        v->Items().push_back(p.value);
      }
    }
    PW_RETURN_IF_FAILED(n->QueryInterface(IidOf<IStringArray>(), reinterpret_cast<void**>(names)));
    return v->QueryInterface(IidOf<IVariantArray>(), reinterpret_cast<void**>(values));
  });
}

// --- errors ------------------------------------------------------------------------------

HRESULT BasicFunction::ChainBindError(HRESULT hr, UINT messageId, std::u16string_view detail) {
  valid_ = false;
  return ChainError(hr, res::Format(messageId, std::u16string(TypeName()), std::u16string(detail)),
                    ClassId());
}

HRESULT BasicFunction::ChainParamBindError(std::u16string_view argument, HRESULT hr,
                                           LONG expectedType) {
  valid_ = false;
  // The form that knows which kind of dataset was expected says so first.
  if (expectedType != kAnyDataset)
    ChainError(hr,
               res::Format(res::IDS_FAILED_TO_OPEN_RASTER_ITEM, std::u16string(argument),
                           static_cast<long>(expectedType)),
               ClassId());
  return ChainError(
      hr,
      res::Format(res::IDS_ARGUMENT_INVALID, std::u16string(TypeName()), std::u16string(argument)),
      ClassId());
}

HRESULT BasicFunction::InvalidRaster(std::u16string_view argument) {
  ReportError(E_INVALIDARG, res::Format(res::IDS_MISSING_RASTER, std::u16string(argument)),
              ClassId());
  return ChainParamBindError(argument, E_INVALIDARG, kRasterDataset);
}

// --- persistence -------------------------------------------------------------------------

HRESULT BasicFunction::GetClassID(CLSID* clsid) {
  PW_CHECK_POINTER(clsid);
  *clsid = ClassId();
  return S_OK;
}

HRESULT BasicFunction::GetSizeMax(ULARGE_INTEGER* size) {
  return persist::SizeBySaving(this, size);
}

HRESULT BasicFunction::Save(IStream* stream, BOOL clearDirty) {
  if (stream == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    const int ordinal = persist::DocumentOrdinalOf(stream);
    const std::vector<int> versions = OwnVersions();
    const int own = versions.empty()
                        ? 0
                        : versions[std::min<std::size_t>(
                              static_cast<std::size_t>(std::max(ordinal, 0)), versions.size() - 1)];
    if (ordinal < persist::DocumentOrdinal(minimumVersion_) || own < 1) return E_FAIL;
    persist::StreamWriter w(stream);
    PW_RETURN_IF_FAILED(w.Put<std::uint16_t>(kBaseVersion));
    PW_RETURN_IF_FAILED(persist::fields::Write(w, *this, Fields()));
    // The function's own record: its version from the document version.
    PW_RETURN_IF_FAILED(w.Put<std::uint16_t>(static_cast<std::uint16_t>(own)));
    if (clearDirty) dirty_ = false;
    return S_OK;
  });
}

template <class Reader>
HRESULT BasicFunction::ReadFields(Reader&& read, HRESULT invalid) {
  auto saved = persist::fields::Snapshot(*this, Fields());
  HRESULT hr = read();
  if (SUCCEEDED(hr) && pixelType_ != -1 && !raster::IsKnownPixelType(pixelType_)) hr = invalid;
  if (FAILED(hr)) persist::fields::Restore(*this, Fields(), std::move(saved));
  return hr;
}

HRESULT BasicFunction::Load(IStream* stream) {
  if (stream == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    persist::StreamReader r(stream);
    return ReadFields(
        [&]() -> HRESULT {
          std::uint16_t version = 0;
          PW_RETURN_IF_FAILED(r.Get(&version));
          if (version < 1 || version > kBaseVersion) return E_FAIL;
          PW_RETURN_IF_FAILED(persist::fields::Read(r, *this, Fields()));
          std::uint16_t own = 0;
          PW_RETURN_IF_FAILED(r.Get(&own));
          const std::vector<int> versions = OwnVersions();
          if (own < 1 || versions.empty() ||
              own > *std::max_element(versions.begin(), versions.end()))
            return E_FAIL;
          dirty_ = false;
          return S_OK;
        },
        E_FAIL);
  });
}

HRESULT BasicFunction::Serialize(IXMLSerializeData* data) {
  if (data == nullptr) return E_POINTER;
  return Guard([&] { return persist::fields::ToXml(*data->Element(), *this, Fields()); });
}

HRESULT BasicFunction::Deserialize(IXMLSerializeData* data) {
  if (data == nullptr) return E_POINTER;
  return Guard([&] {
    return ReadFields([&] { return persist::fields::FromXml(*data->Element(), *this, Fields()); },
                      E_INVALIDARG);
  });
}

HRESULT BasicFunction::SerializeJSONObject(IUnknown*, IJSONObject* json) {
  Json* j = persist::JsonOf(json);
  if (j == nullptr) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    *j = Json::object();
    (*j)["type"] = ToUtf8(TypeName());
    return persist::fields::ToJson(*j, *this, Fields());
  });
}

HRESULT BasicFunction::DeserializeJSONObject(IUnknown*, IJSONObject* json) {
  const Json* j = persist::JsonOf(json);
  if (j == nullptr || !j->is_object()) return E_INVALIDARG;
  return Guard([&] {
    return ReadFields([&] { return persist::fields::FromJson(*j, *this, Fields()); }, E_INVALIDARG);
  });
}

HRESULT BasicFunction::IsSupportedAtVersion(LONG version, VARIANT_BOOL* supported) {
  PW_CHECK_POINTER(supported);
  const int ordinal = persist::DocumentOrdinal(version);
  *supported = ordinal >= 0 && ordinal >= persist::DocumentOrdinal(minimumVersion_) ? VARIANT_TRUE
                                                                                    : VARIANT_FALSE;
  return S_OK;
}

HRESULT BasicFunction::ConvertToSupportedObject(LONG version, IUnknown** object) {
  PW_CHECK_POINTER(object);
  *object = nullptr;
  VARIANT_BOOL supported = VARIANT_FALSE;
  IsSupportedAtVersion(version, &supported);
  if (!supported) return S_FALSE;
  return static_cast<IRasterFunction*>(this)->QueryInterface(IidOf<IUnknown>(),
                                                             reinterpret_cast<void**>(object));
}

}  // namespace pw::framework
