// The export: the validity plans tried in turn, and the GeoTIFF writer.
#include "raster/gdal/export.h"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <thread>

#include "com/text.h"
#include "raster/algorithms/no_data.h"
#include "raster/band_indexes.h"
#include "raster/gdal/export_job.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/pixel_traits.h"
#include "raster/pixel_type.h"

namespace pw::raster::gdal {
namespace {

namespace fs = std::filesystem;

std::string Describe(double value) {
  if (std::isnan(value)) return "NaN";
  char text[32];
  std::snprintf(text, sizeof(text), "%.17g", value);
  return text;
}

// The job's description of the raster: grid, reference, band names and wavelengths.
HRESULT DescribeJob(IRaster* raster, ExportJob* job) {
  ComPtr<IRasterProps> props = ComPtr<IRaster>(raster).As<IRasterProps>();
  if (!props) return E_INVALIDARG;
  props->get_Width(&job->width);
  props->get_Height(&job->height);
  props->get_BandCount(&job->bands);
  props->get_PixelType(&job->type);
  job->gdalType = GdalTypeOfPixelType(job->type);
  if (job->width < 1 || job->height < 1 || job->bands < 1 || job->gdalType == GDT_Unknown)
    return ReportError(
        E_INVALIDARG,
        std::string_view("the raster to export has no cells, no bands or no pixel type"));
  ComPtr<IEnvelope> extent;
  if (SUCCEEDED(props->get_Extent(&extent)) && extent) {
    double x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    extent->QueryCoords(&x0, &y0, &x1, &y1);
    const double t[6] = {x0, (x1 - x0) / job->width, 0, y1, 0, -(y1 - y0) / job->height};
    std::copy(t, t + 6, job->transform);
    job->hasTransform = true;
  }
  ComPtr<ISpatialReference> reference;
  if (SUCCEEDED(props->get_SpatialReference(&reference)) && reference) {
    Bstr wkt;
    reference->get_WKT(&wkt);
    job->wkt = wkt.Utf8();
  }
  for (LONG b = 0; b < job->bands; ++b) {
    std::string name;
    if (const auto value = BandKeyProperty(raster, b, u"BandName")) {
      if (const auto text = value->ToString()) name = ToUtf8(*text);
    }
    job->bandNames.push_back(name);
    std::vector<std::pair<std::string, std::string>> items;
    for (const char* key : {"WavelengthMin", "WavelengthMax"}) {
      const auto value = BandKeyProperty(raster, b, ToUtf16(key));
      const auto number = value ? value->ToDouble() : std::nullopt;
      if (number) items.emplace_back(key, Describe(*number));
    }
    job->bandMetadata.push_back(std::move(items));
  }
  return S_OK;
}

// The bands' own no-data values, as the raster's source gives them.
BandNoData OwnNoData(IRaster* raster, LONG bands) {
  SourceInfo info;
  if (auto source = ComPtr<IRaster>(raster).As<IRasterSource>();
      source && SUCCEEDED(source->GetInfo(&info)) && !info.noData.empty()) {
    info.noData.resize(static_cast<std::size_t>(bands));
    return info.noData;
  }
  Variant value;
  if (auto props = ComPtr<IRaster>(raster).As<IRasterProps>()) props->get_NoDataValue(&value);
  return NoDataOfBands(value, bands);
}

// Writes `rows` rows from `row` of bands' values (`width` per row, `data[k]` for `bands[k]`)
// block by block, straight to the file: blocks never wait in GDAL's shared block cache, where
// another thread's reads could push them out early and out of order. Each block position
// takes every band before the next, so that a pixel-interleaved file assembles the block
// once instead of reading it back for every band. Rows that do not start on a block
// boundary go through GDAL's cache.
HRESULT WriteRows(const ExportJob& job, const std::vector<GDALRasterBandH>& bands, int gdalType,
                  std::size_t size, const std::vector<const void*>& data, LONG row, LONG rows,
                  std::vector<std::uint8_t>* scratch) {
  if (bands.empty()) return S_OK;
  int bw = 0, bh = 0;
  GDALGetBlockSize(bands.front(), &bw, &bh);
  const LONG height = GDALGetRasterBandYSize(bands.front()),
             width = GDALGetRasterBandXSize(bands.front());
  const bool aligned =
      bw > 0 && bh > 0 && row % bh == 0 && (rows % bh == 0 || row + rows == height);
  if (!aligned) {
    for (std::size_t k = 0; k < bands.size(); ++k)
      if (GDALRasterIO(bands[k], GF_Write, 0, row, width, rows, const_cast<void*>(data[k]), width,
                       rows, static_cast<GDALDataType>(gdalType), 0, 0) != CE_None)
        return WriteFailure(job, "writing rows " + std::to_string(row + 1), 0);
    return S_OK;
  }
  scratch->resize(static_cast<std::size_t>(bw) * static_cast<std::size_t>(bh) * size);
  for (LONG top = row; top < row + rows; top += bh) {
    const LONG h = std::min<LONG>(bh, row + rows - top);
    for (LONG left = 0; left < width; left += bw) {
      const LONG w = std::min<LONG>(bw, width - left);
      for (std::size_t k = 0; k < bands.size(); ++k) {
        const auto* in = static_cast<const std::uint8_t*>(data[k]);
        if (w < bw || h < bh) std::fill(scratch->begin(), scratch->end(), std::uint8_t{0});
        for (LONG r = 0; r < h; ++r)
          std::memcpy(scratch->data() + static_cast<std::size_t>(r) * bw * size,
                      in + (static_cast<std::size_t>(top - row + r) * width + left) * size,
                      static_cast<std::size_t>(w) * size);
        if (GDALWriteBlock(bands[k], left / bw, top / bh, scratch->data()) != CE_None)
          return WriteFailure(job, "writing rows " + std::to_string(top + 1),
                              static_cast<std::int64_t>(scratch->size()));
      }
    }
  }
  return S_OK;
}

}  // namespace

// --- shared pieces -------------------------------------------------------------------------

CreationOptions::~CreationOptions() {
  CSLDestroy(list);
}

void CreationOptions::Set(const std::string& pair) {
  const auto eq = pair.find('=');
  if (eq == std::string::npos) return;
  list = CSLSetNameValue(list, pair.substr(0, eq).c_str(), pair.substr(eq + 1).c_str());
}

bool CreationOptions::Has(const char* key) const {
  return CSLFetchNameValue(list, key) != nullptr;
}

std::size_t ExportJob::PixelBytes() const {
  return PixelSize(type);
}

HRESULT WriteFailure(const ExportJob& job, const std::string& what, std::int64_t needed) {
  return ReportError(STG_E_WRITEFAULT, what + " of '" + job.path + "' failed: " + LastGdalError() +
                                           DiskFullNote(job.files->Folder(), needed));
}

double ChosenNoData(LONG pixelType) {
  if (!IsIntegerPixelType(pixelType)) return std::numeric_limits<double>::quiet_NaN();
  const ValueRange range = PixelRange(pixelType);
  return range.lowest < 0 ? range.lowest : range.highest;
}

// --- GeoTIFF -------------------------------------------------------------------------------

constexpr LONG kMostPixelInterleavedBands = 4;

HRESULT WriteGtiff(const ExportJob& job, const ValidityPlan& plan, fs::path* written) {
  const fs::path temp = job.files->Temporary("tif");
  CreationOptions create;
  for (const auto& o : job.options->creationOptions) create.Set(o);
  if (job.type == kPixelS8) create.Set("PIXELTYPE=SIGNEDBYTE");
  if (job.type >= kPixelU1 && job.type <= kPixelU4)
    create.Set("NBITS=" + std::to_string(job.type == kPixelU1 ? 1 : job.type == kPixelU2 ? 2 : 4));
  if (!create.Has("BIGTIFF")) create.Set("BIGTIFF=IF_SAFER");
  // A stack of many bands is stored band after band: interleaving its cells pixel by pixel
  // makes GDAL gather every band for each band's block, a cost that grows with the square of
  // the band count (a 1000-band composite took twice as long). Images of up to four bands
  // (RGB, RGBA) keep GDAL's pixel interleaving, which viewers expect.
  if (!create.Has("INTERLEAVE") && job.bands > kMostPixelInterleavedBands)
    create.Set("INTERLEAVE=BAND");
  // GDAL would read four 8-bit bands as RGB and alpha, and the fourth band as every band's
  // validity; a user asks for that with PHOTOMETRIC or ALPHA.
  if (!create.Has("PHOTOMETRIC") && !create.Has("ALPHA") && job.bands >= 4)
    create.Set("PHOTOMETRIC=MINISBLACK");
  const std::int64_t rawBytes = static_cast<std::int64_t>(job.width) * job.height * job.bands *
                                static_cast<std::int64_t>(job.PixelBytes());
  if (!create.Has("COMPRESS")) {
    // An uncompressed file's size is known: a disk without room fails now, not at the end.
    const std::int64_t free = FreeBytes(job.files->Folder());
    if (free >= 0 && free < rawBytes)
      return ReportError(STG_E_MEDIUMFULL, "'" + job.path + "' needs " + std::to_string(rawBytes) +
                                               " bytes and the device holding '" +
                                               job.files->Folder().string() + "' has " +
                                               std::to_string(free) + " free");
  }
  CPLErrorReset();
  GDALDatasetH out = GDALCreate(GDALGetDriverByName("GTiff"), temp.c_str(), job.width, job.height,
                                job.bands, static_cast<GDALDataType>(job.gdalType), create.list);
  if (out == nullptr)
    return ReportError(STG_E_ACCESSDENIED, "cannot write '" + job.path + "': " + LastGdalError() +
                                               DiskFullNote(job.files->Folder(), 1 << 20));
  struct Closer {
    GDALDatasetH h;
    ~Closer() {
      if (h) GDALClose(h);
    }
  } closer{out};
  if (job.hasTransform) GDALSetGeoTransform(out, const_cast<double*>(job.transform));
  if (!job.wkt.empty()) GDALSetProjection(out, job.wkt.c_str());
  for (const auto& [key, value] : job.options->metadata)
    GDALSetMetadataItem(out, key.c_str(), value.c_str(), nullptr);
  for (LONG b = 0; b < job.bands; ++b) {
    GDALRasterBandH band = GDALGetRasterBand(out, b + 1);
    if (!job.bandNames[b].empty()) GDALSetDescription(band, job.bandNames[b].c_str());
    for (const auto& [key, value] : job.bandMetadata[b])
      GDALSetMetadataItem(band, key.c_str(), value.c_str(), nullptr);
    if (plan.noData) GDALSetRasterNoDataValue(band, *plan.noData);
  }

  // Strips cover whole rows of blocks, so that each is written block by block at once.
  int blockWidth = 0, blockHeight = 0;
  GDALGetBlockSize(GDALGetRasterBand(out, 1), &blockWidth, &blockHeight);
  LONG rowsPerStrip = std::max<LONG>(1, job.options->blockRows);
  if (blockHeight > 1) rowsPerStrip = (rowsPerStrip + blockHeight - 1) / blockHeight * blockHeight;
  StripPipeline pipeline(job.raster, job.width, job.height, job.bands, job.type, rowsPerStrip,
                         job.threads, plan);
  const std::size_t size = job.PixelBytes();
  std::vector<std::uint8_t> scratch, valid;
  std::vector<GDALRasterBandH> bands;
  for (LONG b = 0; b < job.bands; ++b) bands.push_back(GDALGetRasterBand(out, b + 1));
  std::vector<const void*> data(bands.size());
  GDALRasterBandH maskBand = nullptr;
  for (LONG s = 0; s < pipeline.StripCount(); ++s) {
    std::shared_ptr<Strip> strip;
    PW_RETURN_IF_FAILED(pipeline.Next(&strip));
    if (strip->anyInvalid && !plan.noData && maskBand == nullptr) {
      // The mask joins the file at the first invalid cell; every row before it was valid.
      CPLSetThreadLocalConfigOption("GDAL_TIFF_INTERNAL_MASK", "YES");
      const CPLErr made = GDALCreateDatasetMaskBand(out, GMF_PER_DATASET);
      CPLSetThreadLocalConfigOption("GDAL_TIFF_INTERNAL_MASK", nullptr);
      if (made != CE_None) return WriteFailure(job, "adding the mask band", 1 << 20);
      maskBand = GDALGetMaskBand(GDALGetRasterBand(out, 1));
      for (LONG row = 0; row < strip->row; row += rowsPerStrip) {
        const LONG rows = std::min(rowsPerStrip, strip->row - row);
        valid.assign(static_cast<std::size_t>(job.width) * static_cast<std::size_t>(rows), 255);
        PW_RETURN_IF_FAILED(
            WriteRows(job, {maskBand}, GDT_Byte, 1, {valid.data()}, row, rows, &scratch));
      }
    }
    for (LONG b = 0; b < job.bands; ++b)
      data[static_cast<std::size_t>(b)] = strip->block->Buffer(b);
    PW_RETURN_IF_FAILED(
        WriteRows(job, bands, job.gdalType, size, data, strip->row, strip->rows, &scratch));
    if (maskBand != nullptr) {
      const std::uint8_t* bytes = strip->validity.data();
      if (strip->validity.empty()) {
        valid.assign(static_cast<std::size_t>(job.width) * static_cast<std::size_t>(strip->rows),
                     255);
        bytes = valid.data();
      }
      PW_RETURN_IF_FAILED(
          WriteRows(job, {maskBand}, GDT_Byte, 1, {bytes}, strip->row, strip->rows, &scratch));
    }
    pipeline.Done(std::move(strip));
    if (!job.Progress(static_cast<double>(s + 1) / static_cast<double>(pipeline.StripCount())))
      return ReportError(E_ABORT, "export of '" + job.path + "' cancelled");
  }
  CPLErrorReset();
  GDALClose(out);
  closer.h = nullptr;
  if (CPLGetLastErrorType() >= CE_Failure) return WriteFailure(job, "finishing", 1 << 20);
  *written = temp;
  return S_OK;
}

// --- the plans -----------------------------------------------------------------------------

HRESULT ExportRaster(IRaster* raster, const std::string& path, const ExportOptions& options) {
  if (raster == nullptr) return E_INVALIDARG;
  Initialize();
  return Guard([&]() -> HRESULT {
    ExportJob job;
    job.raster = raster;
    job.options = &options;
    job.path = path;
    PW_RETURN_IF_FAILED(DescribeJob(raster, &job));
    const bool cog = EqualsNoCase(options.format, "COG");
    if (!cog && !EqualsNoCase(options.format, "GTiff"))
      return ReportError(E_INVALIDARG,
                         "unknown output format '" + options.format + "' (GTiff or COG)");
    job.threads = options.threads > 0
                      ? options.threads
                      : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));

    // The plans to try, in order: each later one keeps what the earlier could not.
    std::vector<ValidityPlan> plans;
    switch (options.validity) {
      case ExportOptions::Validity::kNoData:
        if (job.type == kPixelS8)
          return ReportError(E_INVALIDARG,
                             std::string_view("GDAL reads no no-data value of a signed 8-bit band "
                                              "back (it compares it with the unsigned byte): "
                                              "write a mask band instead"));
        if (!HoldsValue(job.type, options.noDataValue))
          return ReportError(E_INVALIDARG, "the no-data value " + Describe(options.noDataValue) +
                                               " cannot be held by a " +
                                               std::string(PixelTypeName(job.type)) + " band");
        plans.push_back({options.noDataValue, false, true});
        break;
      case ExportOptions::Validity::kMask:
        plans.push_back({std::nullopt, true, true});
        break;
      case ExportOptions::Validity::kAuto: {
        // GDAL reads no no-data value of a signed 8-bit band back: those take the mask.
        const bool noDataReadBack = job.type != kPixelS8;
        const BandNoData own = OwnNoData(raster, job.bands);
        if (noDataReadBack && own.front() && UniformNoData(own) &&
            HoldsValue(job.type, *own.front()))
          plans.push_back({own.front(), false, false});
        // A COG decides on its mask before its first pixel: first without one.
        if (cog) plans.push_back({std::nullopt, false, false});
        plans.push_back({std::nullopt, true, false});
        if (noDataReadBack) plans.push_back({ChosenNoData(job.type), false, false});
        break;
      }
    }

    const GdalErrorScope scope;
    ExportFiles files;
    PW_RETURN_IF_FAILED(files.Open(path));
    job.files = &files;
    HRESULT hr = E_FAIL;
    for (std::size_t i = 0; i < plans.size(); ++i) {
      fs::path written;
      hr = cog ? WriteCog(job, plans[i], &written) : WriteGtiff(job, plans[i], &written);
      if (SUCCEEDED(hr)) return files.Publish(written);
      const bool retry =
          i + 1 < plans.size() && (hr == kNoDataTaken || hr == kNeedsMask || hr == kMixedValidity);
      if (!retry) break;
      ClearErrorInfo();
      std::error_code ec;
      fs::remove(written, ec);
    }
    if (hr == kNoDataTaken || hr == kMixedValidity) {
      const std::string why = ToUtf8(TakeErrorDescription());
      return ReportError(E_FAIL, "'" + path + "' cannot keep every cell's validity: " + why +
                                     "; give a no-data value that no valid cell holds, or " +
                                     (hr == kMixedValidity ? "one for each band's own file"
                                                           : "write a mask band"));
    }
    return hr;
  });
}

}  // namespace pw::raster::gdal
