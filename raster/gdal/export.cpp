// Parallel, ordered, bounded and atomic export of rasters through GDAL.
#include "raster/gdal/export.h"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "raster/algorithms/parallel.h"
#include "raster/band_indexes.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"

namespace pw::raster::gdal {
namespace {

// Creation options as GDAL's string list, freed on scope exit.
struct Options {
  char** list = nullptr;
  ~Options() { CSLDestroy(list); }
  void Set(const std::string& pair) {
    const auto eq = pair.find('=');
    if (eq == std::string::npos) return;
    list = CSLSetNameValue(list, pair.substr(0, eq).c_str(), pair.substr(eq + 1).c_str());
  }
};

// Strips read by the workers, waiting to be written in order.
class StripQueue {
 public:
  explicit StripQueue(std::size_t limit) : limit_(limit) {}
  // Waits until strip `index` may be read (not more than `limit` ahead of the writer).
  bool WaitForRoom(LONG index) {
    std::unique_lock lock(lock_);
    room_.wait(lock, [&] { return stop_ || static_cast<std::size_t>(index - written_) < limit_; });
    return !stop_;
  }
  void Put(LONG index, ComPtr<IPixelBlock> block) {
    std::lock_guard lock(lock_);
    ready_[index] = std::move(block);
    arrived_.notify_all();
  }
  // The next strip in order, or null when stopped.
  ComPtr<IPixelBlock> Next() {
    std::unique_lock lock(lock_);
    arrived_.wait(lock, [&] { return stop_ || ready_.count(written_) > 0; });
    if (stop_) return nullptr;
    ComPtr<IPixelBlock> block = std::move(ready_[written_]);
    ready_.erase(written_);
    return block;
  }
  // The written strip's block, kept for a later strip of the same shape: new memory costs a
  // page fault and a clearing every 4 KiB, and strips are the export's largest allocations.
  void Done(ComPtr<IPixelBlock> block) {
    std::lock_guard lock(lock_);
    ++written_;
    if (block) spare_.push_back(std::move(block));
    room_.notify_all();
  }
  // A spare block of `rows` rows, or null.
  ComPtr<IPixelBlock> Spare(LONG rows) {
    std::lock_guard lock(lock_);
    for (auto it = spare_.begin(); it != spare_.end(); ++it) {
      LONG height = 0;
      (*it)->get_Height(&height);
      if (height != rows) continue;
      ComPtr<IPixelBlock> block = std::move(*it);
      spare_.erase(it);
      return block;
    }
    return nullptr;
  }
  void Stop() {
    std::lock_guard lock(lock_);
    stop_ = true;
    room_.notify_all();
    arrived_.notify_all();
  }

 private:
  std::mutex lock_;
  std::condition_variable room_, arrived_;
  std::map<LONG, ComPtr<IPixelBlock>> ready_;
  std::vector<ComPtr<IPixelBlock>> spare_;
  LONG written_ = 0;
  std::size_t limit_;
  bool stop_ = false;
};

}  // namespace

double ChosenNoData(LONG pixelType) {
  if (!IsIntegerPixelType(pixelType)) return std::numeric_limits<double>::quiet_NaN();
  const ValueRange range = PixelRange(pixelType);
  return range.lowest < 0 ? range.lowest : range.highest;
}

HRESULT ExportRaster(IRaster* raster, const std::string& path, const ExportOptions& options) {
  ComPtr<IRasterProps> props = ComPtr<IRaster>(raster).As<IRasterProps>();
  if (!props) return E_INVALIDARG;
  Initialize();
  return Guard([&]() -> HRESULT {
    LONG width = 0, height = 0, bands = 0, type = -1;
    props->get_Width(&width);
    props->get_Height(&height);
    props->get_BandCount(&bands);
    props->get_PixelType(&type);
    const int gdalType = GdalTypeOfPixelType(type);
    if (width < 1 || height < 1 || bands < 1 || gdalType == GDT_Unknown)
      return ReportError(
          E_INVALIDARG,
          std::string_view("the raster to export has no cells, no bands or no pixel type"));
    const bool cog = options.format == "COG";
    if (!cog && options.format != "GTiff")
      return ReportError(E_INVALIDARG,
                         "unknown output format '" + options.format + "' (GTiff or COG)");

    // The no-data value: the raster's own, else one chosen for the type.
    Variant noDataValue;
    props->get_NoDataValue(&noDataValue);
    const double noData = noDataValue.IsEmpty()
                              ? ChosenNoData(type)
                              : noDataValue.ToDouble().value_or(ChosenNoData(type));

    namespace fs = std::filesystem;
    const fs::path target(path);
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::error_code ec;
    if (!fs::is_directory(folder, ec))
      return ReportError(STG_E_ACCESSDENIED,
                         "output folder '" + folder.string() + "' does not exist");
    std::string stem = ".";  // built by appends: GCC 12 misreports chained string + at -O3
    stem += target.filename().string();
    stem += ".partial-";
    stem += std::to_string(::getpid());
    const fs::path temp = folder / (stem + ".tif");
    const fs::path tempCog = folder / (stem + ".cog.tif");
    auto cleanup = [&] {
      fs::remove(temp, ec);
      fs::remove(tempCog, ec);
    };

    Options create;
    for (const auto& o : (cog ? std::vector<std::string>{"TILED=YES", "COMPRESS=DEFLATE"}
                              : options.creationOptions))
      create.Set(o);
    if (type == kPixelS8) create.Set("PIXELTYPE=SIGNEDBYTE");
    if (type >= 0 && type <= 2)
      create.Set("NBITS=" + std::to_string(type == 0 ? 1 : type == 1 ? 2 : 4));
    if (width > 1 && height > 1 && !CSLFetchNameValue(create.list, "BIGTIFF"))
      create.Set("BIGTIFF=IF_SAFER");
    GDALDriverH driver = GDALGetDriverByName("GTiff");
    CPLErrorReset();
    GDALDatasetH out = GDALCreate(driver, temp.c_str(), width, height, bands,
                                  static_cast<GDALDataType>(gdalType), create.list);
    if (out == nullptr) {
      cleanup();
      return ReportError(STG_E_ACCESSDENIED, "cannot write '" + path + "': " + LastGdalError());
    }
    // Georeferencing from the raster's properties.
    ComPtr<IEnvelope> extent;
    if (SUCCEEDED(props->get_Extent(&extent)) && extent) {
      double x0 = 0, y0 = 0, x1 = 0, y1 = 0;
      extent->QueryCoords(&x0, &y0, &x1, &y1);
      double t[6] = {x0, (x1 - x0) / width, 0, y1, 0, -(y1 - y0) / height};
      GDALSetGeoTransform(out, t);
    }
    ComPtr<ISpatialReference> reference;
    if (SUCCEEDED(props->get_SpatialReference(&reference)) && reference) {
      Bstr wkt;
      reference->get_WKT(&wkt);
      if (!wkt.Empty()) GDALSetProjection(out, wkt.Utf8().c_str());
    }
    // Band names and wavelengths travel as band descriptions and metadata.
    for (LONG b = 0; b < bands; ++b) {
      GDALRasterBandH written = GDALGetRasterBand(out, b + 1);
      if (const auto name = BandKeyProperty(raster, b, u"BandName")) {
        if (const auto text = name->ToString()) GDALSetDescription(written, ToUtf8(*text).c_str());
      }
      for (const char* key : {"WavelengthMin", "WavelengthMax"}) {
        const auto value = BandKeyProperty(raster, b, ToUtf16(key));
        const auto number = value ? value->ToDouble() : std::nullopt;
        if (number) GDALSetMetadataItem(written, key, std::to_string(*number).c_str(), nullptr);
      }
    }
    if (options.maskBand) {
      // Inside the file, so that it travels with the rename.
      CPLSetThreadLocalConfigOption("GDAL_TIFF_INTERNAL_MASK", "YES");
      const CPLErr made = GDALCreateDatasetMaskBand(out, GMF_PER_DATASET);
      CPLSetThreadLocalConfigOption("GDAL_TIFF_INTERNAL_MASK", nullptr);
      if (made != CE_None) {
        const std::string why = LastGdalError();
        GDALClose(out);
        cleanup();
        return ReportError(STG_E_WRITEFAULT, "cannot add a mask band to '" + path + "': " + why);
      }
    } else {
      for (LONG b = 1; b <= bands; ++b) GDALSetRasterNoDataValue(GDALGetRasterBand(out, b), noData);
    }

    const int threads = options.threads > 0
                            ? options.threads
                            : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    // Strips cover whole rows of output blocks, so that each written strip completes its
    // blocks and can leave GDAL's block cache at once: memory stays bounded by the strips
    // in flight whatever the raster's size.
    int blockWidth = 0, blockHeight = 0;
    GDALGetBlockSize(GDALGetRasterBand(out, 1), &blockWidth, &blockHeight);
    LONG rowsPerStrip = std::max<LONG>(1, options.blockRows);
    if (blockHeight > 1)
      rowsPerStrip = (rowsPerStrip + blockHeight - 1) / blockHeight * blockHeight;
    const LONG strips = (height + rowsPerStrip - 1) / rowsPerStrip;
    StripQueue queue(static_cast<std::size_t>(threads) * 2);
    std::atomic<LONG> next{0};
    std::atomic<HRESULT> failure{S_OK};
    std::mutex messageLock;
    std::u16string message;
    auto fail = [&](HRESULT hr) {
      HRESULT expected = S_OK;
      if (failure.compare_exchange_strong(expected, hr)) {
        std::lock_guard hold(messageLock);
        message = TakeErrorDescription();
      }
      queue.Stop();
    };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
      workers.emplace_back([&] {
        // With more than one worker every core is busy: kernels stay on this thread.
        std::optional<ParallelWorkerScope> mark;
        if (threads > 1) mark.emplace();
        for (LONG s = next++; s < strips; s = next++) {
          if (!queue.WaitForRoom(s)) return;
          const LONG row = s * rowsPerStrip, rows = std::min(rowsPerStrip, height - row);
          // The read writes every pixel and bit of the strip, so a spare one serves as it is.
          ComPtr<IPixelBlock> block = queue.Spare(rows);
          HRESULT hr = block ? S_OK : CreateUnfilledPixelBlock(width, rows, bands, type, &block);
          if (SUCCEEDED(hr)) hr = raster->ReadAt(0, row, block.Get());
          if (FAILED(hr)) return fail(hr);
          queue.Put(s, std::move(block));
        }
      });
    }
    std::vector<std::uint8_t> validity, allValid;
    for (LONG s = 0; s < strips && failure.load() == S_OK; ++s) {
      ComPtr<IPixelBlock> block = queue.Next();
      if (!block) break;
      const LONG row = s * rowsPerStrip, rows = std::min(rowsPerStrip, height - row);
      const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(rows);
      for (LONG b = 0; b < bands && failure.load() == S_OK; ++b) {
        const BYTE* bits = block->Mask(b);
        if (!options.maskBand && !mask::AllValid(bits, pixels)) {
          VisitPixelType(type, [&](auto tag) {
            using T = typename decltype(tag)::type;
            T* values = static_cast<T*>(block->Buffer(b));
            bool ignored = true;
            const T fill = ConvertValue<T>(noData, PixelRange(type), &ignored);
            mask::FillInvalid(values, bits, pixels, fill);
          });
        }
        if (GDALRasterIO(GDALGetRasterBand(out, b + 1), GF_Write, 0, row, width, rows,
                         block->Buffer(b), width, rows, static_cast<GDALDataType>(gdalType), 0,
                         0) != CE_None) {
          ReportError(STG_E_WRITEFAULT, "writing '" + path + "' failed: " + LastGdalError());
          fail(STG_E_WRITEFAULT);
        }
      }
      if (options.maskBand && failure.load() == S_OK) {
        // A cell is valid when it is valid in every band.
        const std::size_t bytes = mask::Bytes(pixels);
        allValid.assign(block->Mask(0), block->Mask(0) + bytes);
        for (LONG b = 1; b < bands; ++b) mask::Intersect(allValid.data(), block->Mask(b), bytes);
        validity.resize(pixels);
        for (std::size_t i = 0; i < pixels; ++i)
          validity[i] = mask::Get(allValid.data(), i) ? 255 : 0;
        if (GDALRasterIO(GDALGetMaskBand(GDALGetRasterBand(out, 1)), GF_Write, 0, row, width, rows,
                         validity.data(), width, rows, GDT_Byte, 0, 0) != CE_None) {
          ReportError(STG_E_WRITEFAULT,
                      "writing the mask of '" + path + "' failed: " + LastGdalError());
          fail(STG_E_WRITEFAULT);
        }
      }
      if (failure.load() == S_OK) {
        CPLErrorReset();
        GDALFlushCache(out);
        if (CPLGetLastErrorType() >= CE_Failure) {
          ReportError(STG_E_WRITEFAULT, "writing '" + path + "' failed: " + LastGdalError());
          fail(STG_E_WRITEFAULT);
        }
      }
      queue.Done(std::move(block));
      if (options.progress &&
          !options.progress(static_cast<double>(s + 1) / static_cast<double>(strips))) {
        ReportError(E_ABORT, "export of '" + path + "' cancelled");
        fail(E_ABORT);
      }
    }
    queue.Stop();
    for (auto& w : workers) w.join();
    CPLErrorReset();
    GDALClose(out);
    if (failure.load() == S_OK && CPLGetLastErrorType() >= CE_Failure) {
      ReportError(STG_E_WRITEFAULT, "finishing '" + path + "' failed: " + LastGdalError());
      failure = STG_E_WRITEFAULT;
      message = TakeErrorDescription();
    }
    if (failure.load() != S_OK) {
      cleanup();
      return ReportError(failure.load(), message);
    }
    fs::path finished = temp;
    if (cog) {
      Options copy;
      for (const auto& o : options.creationOptions) copy.Set(o);
      GDALDatasetH source = GDALOpen(temp.c_str(), GA_ReadOnly);
      GDALDatasetH made = source ? GDALCreateCopy(GDALGetDriverByName("COG"), tempCog.c_str(),
                                                  source, FALSE, copy.list, nullptr, nullptr)
                                 : nullptr;
      if (source) GDALClose(source);
      if (made == nullptr) {
        const std::string why = LastGdalError();
        cleanup();
        return ReportError(STG_E_WRITEFAULT, "cannot write the COG '" + path + "': " + why);
      }
      GDALClose(made);
      finished = tempCog;
    }
    fs::rename(finished, target, ec);
    if (ec) {
      cleanup();
      return ReportError(STG_E_WRITEFAULT,
                         "cannot move the result to '" + path + "': " + ec.message());
    }
    cleanup();
    return S_OK;
  });
}

}  // namespace pw::raster::gdal
