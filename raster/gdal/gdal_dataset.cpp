// GDAL-backed datasets: description on open, pooled handles for reads.
#include "raster/gdal/gdal_dataset.h"
#include "raster/gdal/vector_sources.h"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <gdal.h>
#include <gdal_alg.h>
#include <gdal_rat.h>
#include <gdal_utils.h>
#include <gdalwarper.h>
#include <ogr_srs_api.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <thread>

#include "raster/algorithms/simd_dispatch.h"
#include "raster/gdal/handle_cache.h"
#include "raster/mask.h"
#include "raster/opener.h"
#include "raster/pixel_traits.h"
#include "raster/raster_view.h"
#include "raster/reprojection.h"
#include "raster/table.h"
#include "raster/values/raster_colormap.h"
#include "raster/values/raster_statistics.h"
#include "raster/values/spatial_reference.h"

namespace pw::raster::gdal {
namespace {

// The no-data value as the band's own type, or none when the type cannot hold it.
template <class T>
std::optional<T> NoDataAs(const std::optional<double>& noData) {
  if (!noData || std::isnan(*noData)) return std::nullopt;  // NaN is caught as NaN
  if (*noData < static_cast<double>(std::numeric_limits<T>::lowest()) ||
      *noData > static_cast<double>(std::numeric_limits<T>::max()))
    return std::nullopt;
  const T value = static_cast<T>(*noData);  // floats compare at their own precision
  if (std::is_integral_v<T> && static_cast<double>(value) != *noData) return std::nullopt;
  return value;
}

// Each value's validity as a byte: not the no-data value (when there is one), not NaN.
template <class T>
struct ValidBytes {
  PW_ALWAYS_INLINE static void Run(const T* __restrict v, std::size_t n, bool hasNoData, T none,
                                   std::uint8_t* __restrict valid) {
    for (std::size_t i = 0; i < n; ++i) {
      bool ok = !hasNoData || v[i] != none;
      if constexpr (std::is_floating_point_v<T>) ok = ok && v[i] == v[i];  // not NaN
      valid[i] = static_cast<std::uint8_t>(ok);
    }
  }
};

// Sets the bits first..first+count-1 of `bits` for the valid values: `cover` (a mask or
// the warper's density, when given) at least `threshold`, not the no-data value, not NaN.
template <class T>
void MarkValid(const T* values, const std::uint8_t* cover, std::uint8_t threshold,
               std::optional<T> noData, BYTE* bits, std::size_t first, std::size_t count) {
  // A chunk's validity as bytes in branch-free loops (vectorized for the processor), then
  // packed into the mask.
  static const auto validBytes =
      simd::Variants<ValidBytes<T>, void (*)(const T*, std::size_t, bool, T, std::uint8_t*)>::For(
          simd::Best());
  constexpr std::size_t kChunk = 2048;
  std::uint8_t valid[kChunk];
  const bool hasNoData = noData.has_value();
  const T none = noData.value_or(T{});
  for (std::size_t done = 0; done < count; done += kChunk) {
    const std::size_t n = std::min(kChunk, count - done);
    validBytes(values + done, n, hasNoData, none, valid);
    if (cover != nullptr)
      for (std::size_t i = 0; i < n; ++i)
        valid[i] = static_cast<std::uint8_t>(valid[i] & (cover[done + i] >= threshold));
    mask::Pack(bits, first + done, valid, n);
  }
}

// The source `name` at `factor` times its cell size, as the text of a virtual dataset that
// GDAL opens like a file: its reads sample the source (nearest), from the overview nearest
// the cell size where the source has overviews. The grid keeps the source's origin and
// holds the coarser cells that lie wholly on the source (a last partial row and column are
// left out). Empty when the source does not open, is rotated or is narrower than one cell:
// it then opens as it is.
std::string CoarserName(const std::string& name, int factor) {
  GDALDatasetH source =
      GDALOpenEx(name.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr);
  if (source == nullptr) return {};
  double t[6] = {0, 1, 0, 0, 0, -1};
  const int columns = GDALGetRasterXSize(source), rows = GDALGetRasterYSize(source);
  if (GDALGetGeoTransform(source, t) != CE_None) t[3] = rows;  // pixel space, as Open reads it
  std::string text;
  const int wide = columns / factor, high = rows / factor;
  if (t[2] == 0 && t[4] == 0 && t[1] > 0 && t[5] < 0 && wide > 0 && high > 0) {
    auto number = [](double v) {
      char digits[32];
      std::snprintf(digits, sizeof digits, "%.17g", v);
      return std::string(digits);
    };
    const std::string spans[] = {std::to_string(wide * factor), std::to_string(high * factor),
                                 std::to_string(wide), std::to_string(high)};
    const std::string corners[] = {number(t[0]), number(t[3]),
                                   number(t[0] + static_cast<double>(wide) * factor * t[1]),
                                   number(t[3] + static_cast<double>(high) * factor * t[5])};
    const char* argv[] = {"-of",
                          "VRT",
                          "-r",
                          "nearest",
                          "-srcwin",
                          "0",
                          "0",
                          spans[0].c_str(),
                          spans[1].c_str(),
                          "-outsize",
                          spans[2].c_str(),
                          spans[3].c_str(),
                          "-a_ullr",
                          corners[0].c_str(),
                          corners[1].c_str(),
                          corners[2].c_str(),
                          corners[3].c_str(),
                          nullptr};
    GDALTranslateOptions* options = GDALTranslateOptionsNew(const_cast<char**>(argv), nullptr);
    GDALDatasetH coarse = options ? GDALTranslate("", source, options, nullptr) : nullptr;
    if (coarse != nullptr) {
      if (char** xml = GDALGetMetadata(coarse, "xml:VRT"); xml != nullptr && xml[0] != nullptr)
        text = xml[0];
      GDALClose(coarse);
    }
    GDALTranslateOptionsFree(options);
  }
  GDALClose(source);
  return text;
}

HRESULT OpenByName(std::u16string_view name, IRasterDataset** dataset) {
  const GdalErrorScope scope;
  return Guard([&]() -> HRESULT {
    auto object = MakeObject<GdalDataset>();
    std::string path = ToUtf8(name);
    if (const int factor = CoarserOpenScope::Factor(); factor > 1)
      if (std::string coarser = CoarserName(path, factor); !coarser.empty())
        path = std::move(coarser);
    PW_RETURN_IF_FAILED(object->Open(path));
    return object->QueryInterface(IidOf<IRasterDataset>(), reinterpret_cast<void**>(dataset));
  });
}

ComPtr<ISpatialReference> ReferenceOf(const char* wkt) {
  if (wkt == nullptr || *wkt == '\0') return nullptr;
  auto reference = MakeObject<SpatialReference>();
  reference->put_WKT(Bstr(std::string_view(wkt)).Get());
  OGRSpatialReferenceH sr = OSRNewSpatialReference(wkt);
  if (sr != nullptr) {
    OSRAutoIdentifyEPSG(sr);
    const char* authority = OSRGetAuthorityName(sr, nullptr);
    const char* code = OSRGetAuthorityCode(sr, nullptr);
    if (authority && code && std::strcmp(authority, "EPSG") == 0)
      reference->put_FactoryCode(std::atoi(code));
    reference->put_Kind(OSRIsGeographic(sr)  ? kGeographic
                        : OSRIsProjected(sr) ? kProjected
                                             : kUnknownReference);
    OSRDestroySpatialReference(sr);
  }
  return reference.As<ISpatialReference>();
}

// A reference of ours as GDAL's, or null without WKT.
struct OgrReference {
  OGRSpatialReferenceH h = nullptr;
  explicit OgrReference(ISpatialReference* reference) {
    Bstr wkt;
    if (reference != nullptr) reference->get_WKT(&wkt);
    if (wkt.Empty()) return;
    h = OSRNewSpatialReference(wkt.Utf8().c_str());
    if (h != nullptr) OSRSetAxisMappingStrategy(h, OAMS_TRADITIONAL_GIS_ORDER);
  }
  ~OgrReference() {
    if (h != nullptr) OSRDestroySpatialReference(h);
  }
  OgrReference(const OgrReference&) = delete;
  OgrReference& operator=(const OgrReference&) = delete;
};

bool SameByGdal(ISpatialReference* a, ISpatialReference* b) {
  const GdalErrorScope scope;
  const OgrReference ra(a), rb(b);
  if (ra.h == nullptr || rb.h == nullptr) return false;
  const char* options[] = {"IGNORE_DATA_AXIS_TO_SRS_AXIS_MAPPING=YES", nullptr};
  return OSRIsSameEx(ra.h, rb.h, options) != 0;
}

// The grid GDAL's warper suggests for `grid` in `to`: the whole footprint, cells of about
// the same ground size.
HRESULT CarryByGdal(const RasterGrid& grid, ISpatialReference* from, ISpatialReference* to,
                    RasterGrid* carried) {
  const GdalErrorScope scope;
  if (!grid.Valid()) return E_INVALIDARG;
  Bstr fromWkt, toWkt;
  if (from != nullptr) from->get_WKT(&fromWkt);
  if (to != nullptr) to->get_WKT(&toWkt);
  if (fromWkt.Empty() || toWkt.Empty()) return E_INVALIDARG;
  GDALDatasetH source =
      GDALCreate(GDALGetDriverByName("MEM"), "", grid.columns, grid.rows, 0, GDT_Byte, nullptr);
  if (source == nullptr) return ReportError(E_OUTOFMEMORY, LastGdalError());
  double t[6] = {grid.xmin, grid.CellX(), 0, grid.ymax, 0, -grid.CellY()};
  GDALSetGeoTransform(source, t);
  GDALSetProjection(source, fromWkt.Utf8().c_str());
  const std::string target = "DST_SRS=" + toWkt.Utf8();
  const char* options[] = {target.c_str(), nullptr};
  CPLErrorReset();
  void* transformer =
      GDALCreateGenImgProjTransformer2(source, nullptr, const_cast<char**>(options));
  HRESULT hr = S_OK;
  if (transformer == nullptr) {
    hr = ReportError(E_INVALIDARG, LastGdalError());
  } else {
    double out[6] = {};
    int columns = 0, rows = 0;
    double extent[4] = {};
    if (GDALSuggestedWarpOutput2(source, GDALGenImgProjTransform, transformer, out, &columns, &rows,
                                 extent, 0) != CE_None ||
        columns < 1 || rows < 1) {
      hr = ReportError(E_INVALIDARG, LastGdalError());
    } else {
      carried->xmin = out[0];
      carried->ymax = out[3];
      carried->xmax = out[0] + columns * out[1];
      carried->ymin = out[3] + rows * out[5];
      carried->columns = columns;
      carried->rows = rows;
    }
    GDALDestroyGenImgProjTransformer(transformer);
  }
  GDALClose(source);
  return hr;
}

ComPtr<ITable> TableOf(GDALRasterAttributeTableH rat) {
  auto table = MakeObject<Table>();
  const int columns = GDALRATGetColumnCount(rat);
  for (int c = 0; c < columns; ++c) {
    const GDALRATFieldType type = GDALRATGetTypeOfCol(rat, c);
    const LONG fieldType = type == GFT_Integer ? kFieldLong
                           : type == GFT_Real  ? kFieldDouble
                                               : kFieldString;
    table->AddField(Bstr(std::string_view(GDALRATGetNameOfCol(rat, c))).Get(), fieldType);
  }
  const int rows = GDALRATGetRowCount(rat);
  for (int r = 0; r < rows; ++r) {
    ComPtr<IRow> row;
    table->AddRow(&row);
    for (int c = 0; c < columns; ++c) {
      const GDALRATFieldType type = GDALRATGetTypeOfCol(rat, c);
      if (type == GFT_Integer) {
        row->put_Value(c, Variant(std::int32_t{GDALRATGetValueAsInt(rat, r, c)}));
      } else if (type == GFT_Real) {
        row->put_Value(c, Variant(GDALRATGetValueAsDouble(rat, r, c)));
      } else {
        row->put_Value(c, Variant(std::string_view(GDALRATGetValueAsString(rat, r, c))));
      }
    }
  }
  return table.As<ITable>();
}

}  // namespace

std::string LastGdalError() {
  const char* message = CPLGetLastErrorMsg();
  return message && *message ? message : "GDAL gave no reason";
}

namespace {
thread_local GdalErrorScope* t_scope = nullptr;

}  // namespace

GdalErrorScope::GdalErrorScope() : outer_(t_scope) {
  // The application's handler, to pass warnings on to: set and put back at once.
  const CPLErrorHandler current = CPLSetErrorHandler(nullptr);
  CPLSetErrorHandler(current);
  forward_ = reinterpret_cast<void*>(current);
  t_scope = this;
  CPLPushErrorHandlerEx(
      [](CPLErr kind, CPLErrorNum number, const char* message) {
        const int systemError = errno;
        GdalErrorScope* scope = t_scope;
        if (scope == nullptr) return;
        if (kind >= CE_Failure) {
          if (systemError == ENOSPC || systemError == EDQUOT || systemError == EFBIG)
            scope->NoteFullDisk();
          return;  // becomes the library's own message
        }
        const auto forward = reinterpret_cast<CPLErrorHandler>(scope->forward_);
        if (forward != nullptr) {
          forward(kind, number, message);
        } else {
          CPLDefaultErrorHandler(kind, number, message);
        }
      },
      this);
}

GdalErrorScope::~GdalErrorScope() {
  CPLPopErrorHandler();
  t_scope = outer_;
}

bool FullDiskSeen() {
  return t_scope != nullptr && t_scope->FullDisk();
}

void Initialize() {
  static const bool done = [] {
    GDALAllRegister();
    RegisterDatasetOpener(&OpenByName);
    RegisterReprojection({&SameByGdal, &CarryByGdal});
    RegisterVectorSources();
    return true;
  }();
  (void)done;
}

LONG PixelTypeOfGdal(int gdalType, bool signedByte) {
  switch (gdalType) {
    case GDT_Byte:
      return signedByte ? kPixelS8 : kPixelU8;
    case GDT_UInt16:
      return kPixelU16;
    case GDT_Int16:
      return kPixelS16;
    case GDT_UInt32:
      return kPixelU32;
    case GDT_Int32:
      return kPixelS32;
    case GDT_Float32:
      return kPixelF32;
    case GDT_Float64:
      return kPixelF64;
    default:
      return -1;
  }
}

int GdalTypeOfPixelType(LONG pixelType) {
  switch (pixelType) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4:
      return GDT_Byte;
    case 5:
      return GDT_UInt16;
    case 6:
      return GDT_Int16;
    case 7:
      return GDT_UInt32;
    case 8:
      return GDT_Int32;
    case 9:
      return GDT_Float32;
    case 10:
      return GDT_Float64;
    default:
      return GDT_Unknown;
  }
}

namespace {

// Files stored in blocks of at least this many rows, and more than one row of them, have
// their rows of blocks owned, by at most this many handles.
constexpr int kOwnedBlockRows = 8;
constexpr std::size_t kMostOwners = 8;

}  // namespace

GdalDataset::~GdalDataset() {
  ForgetHandles(this);
  RemoveBlockRowBytes(blockRowBytes_);
}

HRESULT GdalDataset::Open(const std::string& name) {
  name_ = name;
  CPLErrorReset();
  GDALDatasetH h =
      GDALOpenEx(name.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY | GDAL_OF_VERBOSE_ERROR, nullptr,
                 nullptr, nullptr);
  if (h == nullptr)
    return ReportError(STG_E_FILENOTFOUND, "cannot open raster '" + name + "': " + LastGdalError());
  AdoptHandle(this, kAnySlot, h);
  const int columns = GDALGetRasterXSize(h), rows = GDALGetRasterYSize(h),
            bands = GDALGetRasterCount(h);
  if (bands < 1) return ReportError(E_INVALIDARG, "raster '" + name + "' has no bands");
  int blockColumns = 0;
  GDALGetBlockSize(GDALGetRasterBand(h, 1), &blockColumns, &blockRows_);
  blockRowBytes_ = static_cast<std::size_t>(columns) *
                   static_cast<std::size_t>(std::max(blockRows_, 1)) *
                   static_cast<std::size_t>(bands) *
                   static_cast<std::size_t>(
                       GDALGetDataTypeSizeBytes(GDALGetRasterDataType(GDALGetRasterBand(h, 1))));
  AddBlockRowBytes(blockRowBytes_);
  // (A file of one row of blocks gains nothing from owners: its windows would only take
  // turns.)
  if (blockRows_ >= kOwnedBlockRows && blockRows_ < rows) {
    ownerCount_ = std::clamp<std::size_t>(std::thread::hardware_concurrency(), 2, kMostOwners);
    owners_ = std::make_unique<Owner[]>(ownerCount_);
  }
  double t[6];
  if (GDALGetGeoTransform(h, t) == CE_None) {
    if (t[2] != 0 || t[4] != 0 || t[1] <= 0 || t[5] >= 0)
      return ReportError(
          E_NOTIMPL, "raster '" + name + "' is rotated or not north-up, which is not supported");
    std::copy(t, t + 6, transform_);
  } else {
    const double identity[6] = {0, 1, 0, static_cast<double>(rows), 0, -1};
    std::copy(identity, identity + 6, transform_);
  }
  info_.grid = RasterGrid{transform_[0],
                          transform_[3] + rows * transform_[5],
                          transform_[0] + columns * transform_[1],
                          transform_[3],
                          columns,
                          rows};
  info_.bandCount = bands;
  info_.reference = ReferenceOf(GDALGetProjectionRef(h));
  for (int b = 1; b <= bands; ++b) {
    GDALRasterBandH band = GDALGetRasterBand(h, b);
    const char* pixelType = GDALGetMetadataItem(band, "PIXELTYPE", "IMAGE_STRUCTURE");
    const LONG type = PixelTypeOfGdal(GDALGetRasterDataType(band),
                                      pixelType && std::strcmp(pixelType, "SIGNEDBYTE") == 0);
    if (type < 0) {
      return ReportError(E_NOTIMPL, "raster '" + name + "' band " + std::to_string(b) + " holds " +
                                        GDALGetDataTypeName(GDALGetRasterDataType(band)) +
                                        " values, which Pixwerk does not compute");
    }
    if (b == 1) info_.pixelType = type;
    if (type != info_.pixelType)
      return ReportError(E_NOTIMPL, "raster '" + name + "' mixes pixel types between bands");
    int hasNoData = 0;
    const double noData = GDALGetRasterNoDataValue(band, &hasNoData);
    info_.noData.push_back(hasNoData ? std::optional<double>(noData) : std::nullopt);
    // A mask GDAL derives from the no-data value would read every value a second time;
    // the read compares against no-data itself and reads only real masks and alpha.
    const int maskFlags = GDALGetMaskFlags(band);
    hasMask_.push_back((maskFlags & (GMF_ALL_VALID | GMF_NODATA)) == 0);

    auto description = MakeObject<MemoryBand>(type, 0);
    description->SetNoData(info_.noData.back());
    ComPtr<IPropertySet> properties;
    description->get_Properties(&properties);
    const char* bandName = GDALGetDescription(band);
    if (bandName && *bandName) {
      description->put_Name(Bstr(std::string_view(bandName)).Get());
      properties->SetProperty(Bstr(u"BandName").Get(), Variant(std::string_view(bandName)));
    }
    // Wavelengths in nanometres: our own band metadata items, else the imagery domain's
    // centre and width in micrometres.
    auto number = [&](const char* key, const char* domain) -> std::optional<double> {
      const char* text = GDALGetMetadataItem(band, key, domain);
      if (text == nullptr || *text == 0) return std::nullopt;
      char* end = nullptr;
      const double v = std::strtod(text, &end);
      return end != text && std::isfinite(v) ? std::optional<double>(v) : std::nullopt;
    };
    std::optional<double> low = number("WavelengthMin", nullptr);
    std::optional<double> high = number("WavelengthMax", nullptr);
    if (!low && !high) {
      if (const auto centre = number("CENTRAL_WAVELENGTH_UM", "IMAGERY")) {
        const double width = number("FWHM_UM", "IMAGERY").value_or(0.0);
        low = (*centre - width / 2) * 1000.0;
        high = (*centre + width / 2) * 1000.0;
      }
    }
    if (low) properties->SetProperty(Bstr(u"WavelengthMin").Get(), Variant(*low));
    if (high) properties->SetProperty(Bstr(u"WavelengthMax").Get(), Variant(*high));
    double mn = 0, mx = 0, mean = 0, sd = 0;
    if (GDALGetRasterStatistics(band, FALSE, FALSE, &mn, &mx, &mean, &sd) == CE_None) {
      auto statistics = MakeObject<RasterStatistics>();
      statistics->put_Minimum(mn);
      statistics->put_Maximum(mx);
      statistics->put_Mean(mean);
      statistics->put_StandardDeviation(sd);
      statistics->put_IsValid(VARIANT_TRUE);
      description->put_Statistics(statistics.As<IRasterStatistics>().Get());
    }
    int buckets = 0;
    GUIntBig* counts = nullptr;
    if (GDALGetDefaultHistogramEx(band, &mn, &mx, &buckets, &counts, FALSE, nullptr, nullptr) ==
            CE_None &&
        counts) {
      auto histogram = MakeObject<RasterHistogram>();
      histogram->PutRange(mn, mx);
      for (int i = 0; i < buckets; ++i)
        histogram->Counts().push_back(static_cast<double>(counts[i]));
      description->put_Histogram(histogram.As<IRasterHistogram>().Get());
    }
    CPLFree(counts);
    if (GDALColorTableH colors = GDALGetRasterColorTable(band)) {
      auto colormap = MakeObject<RasterColormap>();
      for (int i = 0; i < GDALGetColorEntryCount(colors); ++i) {
        const GDALColorEntry* e = GDALGetColorEntry(colors, i);
        const auto argb =
            (static_cast<std::uint32_t>(e->c4) << 24) | (static_cast<std::uint32_t>(e->c1) << 16) |
            (static_cast<std::uint32_t>(e->c2) << 8) | static_cast<std::uint32_t>(e->c3);
        colormap->SetEntry(i, static_cast<LONG>(argb));
      }
      description->put_Colormap(colormap.As<IRasterColormap>().Get());
    }
    if (GDALRasterAttributeTableH rat = GDALGetDefaultRAT(band))
      description->put_AttributeTable(TableOf(rat).Get());
    bands_.push_back(description);
  }
  return S_OK;
}

void* GdalDataset::Borrow(int slot) {
  return TakeHandle(this, slot, name_);
}

HRESULT GdalDataset::Lend(std::optional<Lease>* lease) {
  lease->emplace(this);
  if ((*lease)->Handle() != nullptr) return S_OK;
  lease->reset();
  return ReportError(E_FAIL, "cannot reopen raster '" + name_ + "': " + LastGdalError());
}

void GdalDataset::Return(int slot, void* handle) {
  GiveHandle(this, slot, handle);
}

HRESULT GdalDataset::get_Name(BSTR* name) {
  PW_CHECK_POINTER(name);
  return Guard([&] {
    *name = AllocBstr(std::string_view(name_));
    return S_OK;
  });
}

HRESULT GdalDataset::get_BandCount(LONG* count) {
  return HandOut(info_.bandCount, count);
}

HRESULT GdalDataset::GetBand(LONG index, IRasterBand** band) {
  PW_CHECK_POINTER(band);
  *band = nullptr;
  if (index < 0 || index >= static_cast<LONG>(bands_.size())) return E_INVALIDARG;
  return bands_[index]->QueryInterface(IidOf<IRasterBand>(), reinterpret_cast<void**>(band));
}

HRESULT GdalDataset::CreateDefaultRaster(IRaster** raster) {
  return CreateRaster(static_cast<IRasterSource*>(this), raster);
}

HRESULT GdalDataset::GetInfo(SourceInfo* info) {
  PW_CHECK_POINTER(info);
  return Guard([&] {
    *info = info_;
    return S_OK;
  });
}

HRESULT GdalDataset::ReadWindow(LONG band, LONG column, LONG row, LONG width, LONG height,
                                void* buffer, BYTE* bits) {
  const GdalErrorScope scope;
  if (band < 0 || band >= info_.bandCount || buffer == nullptr || bits == nullptr || width < 0 ||
      height < 0)
    return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    const std::size_t size = PixelSize(info_.pixelType);
    const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    const LONG c0 = std::max<LONG>(column, 0),
               c1 = std::min<LONG>(column + width, info_.grid.columns);
    const LONG r0 = std::max<LONG>(row, 0), r1 = std::min<LONG>(row + height, info_.grid.rows);
    // Cells beyond the raster read as 0 and invalid; the part inside is written below.
    mask::Fill(bits, pixels, false);
    auto zero = [&](LONG r, LONG from, LONG to) {
      if (from < to)
        std::memset(static_cast<std::uint8_t*>(buffer) +
                        (static_cast<std::size_t>(r) * static_cast<std::size_t>(width) +
                         static_cast<std::size_t>(from)) *
                            size,
                    0, static_cast<std::size_t>(to - from) * size);
    };
    for (LONG r = 0; r < height; ++r) {
      if (row + r < r0 || row + r >= r1 || c0 >= c1) {
        zero(r, 0, width);
      } else {
        zero(r, 0, c0 - column);
        zero(r, c1 - column, width);
      }
    }
    if (c0 >= c1 || r0 >= r1) return S_OK;
    const int cw = c1 - c0, ch = r1 - r0;
    std::vector<std::uint8_t> validity;
    if (hasMask_[band])
      validity.resize(static_cast<std::size_t>(cw) * static_cast<std::size_t>(ch));
    // Rows [from, to) of the window's part inside the raster, through one handle.
    auto readRows = [&](void* handle, LONG from, LONG to) -> HRESULT {
      GDALRasterBandH h = GDALGetRasterBand(static_cast<GDALDatasetH>(handle), band + 1);
      auto* at = static_cast<std::uint8_t*>(buffer) +
                 (static_cast<std::size_t>(from - row) * static_cast<std::size_t>(width) +
                  static_cast<std::size_t>(c0 - column)) *
                     size;
      const int n = to - from;
      if (GDALRasterIOEx(h, GF_Read, c0, from, cw, n, at, cw, n,
                         static_cast<GDALDataType>(GdalTypeOfPixelType(info_.pixelType)),
                         static_cast<GSpacing>(size), static_cast<GSpacing>(size) * width,
                         nullptr) != CE_None)
        return ReportError(STG_E_READFAULT,
                           "reading raster '" + name_ + "' failed: " + LastGdalError());
      if (!validity.empty() &&
          GDALRasterIO(GDALGetMaskBand(h), GF_Read, c0, from, cw, n,
                       validity.data() + static_cast<std::size_t>(from - r0) * cw, cw, n, GDT_Byte,
                       0, 0) != CE_None)
        return ReportError(STG_E_READFAULT,
                           "reading the mask of raster '" + name_ + "' failed: " + LastGdalError());
      return S_OK;
    };
    if (ownerCount_ > 0) {
      // The window's part in each row of blocks, the largest first; a part whose owner is
      // busy (a neighbouring window reading the same row of blocks) waits while another part
      // can be read, and its blocks are then in the owner's cache.
      struct Part {
        LONG from, to;
        Owner* owner;
      };
      std::vector<Part> parts;
      for (LONG from = r0; from < r1;) {
        const LONG blockRow = from / blockRows_;
        const LONG to = std::min<LONG>(r1, (blockRow + 1) * blockRows_);
        parts.push_back({from, to, &owners_[static_cast<std::size_t>(blockRow) % ownerCount_]});
        from = to;
      }
      std::stable_sort(parts.begin(), parts.end(),
                       [](const Part& a, const Part& b) { return a.to - a.from > b.to - b.from; });
      // Under the owner's lock, through the owner's own handle (kept while idle, with its
      // blocks in GDAL's cache, unless the bound on open handles closes it).
      auto read = [&](const Part& part) -> HRESULT {
        const int slot = static_cast<int>(part.owner - owners_.get());
        void* handle = Borrow(slot);
        if (handle == nullptr)
          return ReportError(E_FAIL, "cannot reopen raster '" + name_ + "': " + LastGdalError());
        const HRESULT hr = readRows(handle, part.from, part.to);
        Return(slot, handle);
        return hr;
      };
      while (!parts.empty()) {
        bool progressed = false;
        for (auto it = parts.begin(); it != parts.end();) {
          std::unique_lock hold(it->owner->lock, std::try_to_lock);
          if (!hold.owns_lock()) {
            ++it;
            continue;
          }
          PW_RETURN_IF_FAILED(read(*it));
          it = parts.erase(it);
          progressed = true;
        }
        if (!progressed) {
          std::lock_guard hold(parts.front().owner->lock);
          PW_RETURN_IF_FAILED(read(parts.front()));
          parts.erase(parts.begin());
        }
      }
    } else {
      std::optional<Lease> lease;
      PW_RETURN_IF_FAILED(Lend(&lease));
      PW_RETURN_IF_FAILED(readRows(lease->Handle(), r0, r1));
    }
    VisitPixelType(info_.pixelType, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const std::optional<T> noData = NoDataAs<T>(info_.noData[static_cast<std::size_t>(band)]);
      for (int r = 0; r < ch; ++r) {
        const std::size_t first =
            static_cast<std::size_t>(r0 - row + r) * static_cast<std::size_t>(width) +
            static_cast<std::size_t>(c0 - column);
        MarkValid(static_cast<const T*>(buffer) + first,
                  validity.empty() ? nullptr : validity.data() + static_cast<std::size_t>(r) * cw,
                  1, noData, bits, first, static_cast<std::size_t>(cw));
      }
    });
    return S_OK;
  });
}

}  // namespace pw::raster::gdal

namespace pw::raster::gdal {
namespace {

GDALResampleAlg WarpAlgorithm(LONG method) {
  switch (method) {
    case kBilinear:
    case kBilinearEdgeExtended:
      return GRA_Bilinear;
    case kCubic:
      return GRA_Cubic;
    case kMajority:
      return GRA_Mode;
    default:
      return GRA_NearestNeighbour;
  }
}

}  // namespace

HRESULT GdalDataset::ReadWarped(LONG band, const RasterGrid& grid, ISpatialReference* reference,
                                LONG method, LONG column, LONG row, LONG width, LONG height,
                                void* buffer, BYTE* bits) {
  const GdalErrorScope scope;
  if (band < 0 || band >= info_.bandCount || reference == nullptr || buffer == nullptr ||
      bits == nullptr || width < 0 || height < 0 || !grid.Valid())
    return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    mask::Fill(bits, pixels, false);
    if (pixels == 0) return S_OK;
    Bstr wkt;
    reference->get_WKT(&wkt);
    if (wkt.Empty())
      return ReportError(E_INVALIDARG, std::string_view("the view's spatial reference has no WKT"));
    std::optional<Lease> lease;
    PW_RETURN_IF_FAILED(Lend(&lease));
    void* handle = lease->Handle();
    const auto type = static_cast<GDALDataType>(GdalTypeOfPixelType(info_.pixelType));
    // The window as an in-memory dataset: the values and the warper's density as alpha.
    GDALDatasetH target =
        GDALCreate(GDALGetDriverByName("MEM"), "", width, height, 0, GDT_Byte, nullptr);
    if (target == nullptr)
      return ReportError(E_OUTOFMEMORY, "cannot warp '" + name_ + "': " + LastGdalError());
    struct Closer {
      GDALDatasetH h;
      ~Closer() { GDALClose(h); }
    } closer{target};
    GDALAddBand(target, type, nullptr);
    GDALAddBand(target, GDT_Byte, nullptr);
    const double cx = grid.CellX(), cy = grid.CellY();
    double t[6] = {grid.xmin + column * cx, cx, 0, grid.ymax - row * cy, 0, -cy};
    GDALSetGeoTransform(target, t);
    GDALSetProjection(target, wkt.Utf8().c_str());

    GDALWarpOptions* options = GDALCreateWarpOptions();
    options->hSrcDS = static_cast<GDALDatasetH>(handle);
    options->hDstDS = target;
    options->nBandCount = 1;
    options->panSrcBands = static_cast<int*>(CPLMalloc(sizeof(int)));
    options->panSrcBands[0] = band + 1;
    options->panDstBands = static_cast<int*>(CPLMalloc(sizeof(int)));
    options->panDstBands[0] = 1;
    options->nDstAlphaBand = 2;
    options->eResampleAlg = WarpAlgorithm(method);
    options->eWorkingDataType = GDT_Float64;
    if (const auto& noData = info_.noData[static_cast<std::size_t>(band)]) {
      options->padfSrcNoDataReal = static_cast<double*>(CPLMalloc(sizeof(double)));
      options->padfSrcNoDataReal[0] = *noData;
    }
    options->papszWarpOptions = CSLSetNameValue(options->papszWarpOptions, "INIT_DEST", "0");
    // Kernels at their plain size, as the view's own resampling uses them: no widening
    // when the view's cells are larger than the file's.
    options->papszWarpOptions = CSLSetNameValue(options->papszWarpOptions, "XSCALE", "1");
    options->papszWarpOptions = CSLSetNameValue(options->papszWarpOptions, "YSCALE", "1");
    CPLErrorReset();
    options->pTransformerArg = GDALCreateGenImgProjTransformer2(options->hSrcDS, target, nullptr);
    if (options->pTransformerArg == nullptr) {
      const std::string why = LastGdalError();
      GDALDestroyWarpOptions(options);
      return ReportError(E_INVALIDARG,
                         "cannot reproject '" + name_ + "' to the view's reference: " + why);
    }
    options->pfnTransformer = GDALGenImgProjTransform;
    GDALWarpOperationH operation = GDALCreateWarpOperation(options);
    const CPLErr warped =
        operation ? GDALChunkAndWarpImage(operation, 0, 0, width, height) : CE_Failure;
    const std::string why = LastGdalError();
    if (operation) GDALDestroyWarpOperation(operation);
    GDALDestroyGenImgProjTransformer(options->pTransformerArg);
    GDALDestroyWarpOptions(options);
    if (warped != CE_None)
      return ReportError(STG_E_READFAULT, "warping raster '" + name_ + "' failed: " + why);

    std::vector<std::uint8_t> density(pixels);
    if (GDALRasterIO(GDALGetRasterBand(target, 1), GF_Read, 0, 0, width, height, buffer, width,
                     height, type, 0, 0) != CE_None ||
        GDALRasterIO(GDALGetRasterBand(target, 2), GF_Read, 0, 0, width, height, density.data(),
                     width, height, GDT_Byte, 0, 0) != CE_None)
      return ReportError(STG_E_READFAULT,
                         "warping raster '" + name_ + "' failed: " + LastGdalError());
    VisitPixelType(info_.pixelType, [&](auto tag) {
      using T = typename decltype(tag)::type;
      MarkValid(static_cast<const T*>(buffer), density.data(), 128, std::optional<T>(), bits, 0,
                pixels);
    });
    return S_OK;
  });
}

}  // namespace pw::raster::gdal
