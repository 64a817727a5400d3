// The COG writer: GDAL's COG driver copies the raster, seen as a GDAL dataset whose blocks
// are the export's strips. No temporary copy of the full-resolution data is made, so a COG
// that fits its disk is written (the driver keeps only its overviews in a temporary); the
// driver reads the raster twice, once for the overviews and once for the copy.
#include <cpl_conv.h>
#include <cpl_error.h>
#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "com/text.h"
#include "raster/gdal/export_job.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/pixel_type.h"

namespace pw::raster::gdal {
namespace {

namespace fs = std::filesystem;

class RasterDataset;

// A band whose blocks are the export's strips: one block a strip, the whole width.
class StripBand : public GDALRasterBand {
 public:
  StripBand(RasterDataset* owner, int number, GDALDataType type, int stripRows);
  CPLErr IReadBlock(int blockX, int blockY, void* data) final;

 protected:
  // Fills the strip's cells of the block; returns the bytes written.
  virtual std::size_t CopyStrip(const Strip& strip, void* data) = 0;
  RasterDataset* Owner() const;
};

// One band of the raster.
class RasterBand final : public StripBand {
 public:
  using StripBand::StripBand;
  double GetNoDataValue(int* success) override;
  int GetMaskFlags() override;
  GDALRasterBand* GetMaskBand() override;

 private:
  std::size_t CopyStrip(const Strip& strip, void* data) override;
};

// The dataset's mask: 255 where every band is valid, 0 elsewhere.
class MaskBand final : public StripBand {
 public:
  MaskBand(RasterDataset* owner, int stripRows) : StripBand(owner, 0, GDT_Byte, stripRows) {}

 private:
  std::size_t CopyStrip(const Strip& strip, void* data) override;
};

class RasterDataset final : public GDALDataset {
 public:
  // Strips of `stripRows` rows; the last `keep` strips stay at hand, as the driver reads a
  // span of rows band after band.
  RasterDataset(const ExportJob& job, const ValidityPlan& plan, LONG stripRows, std::size_t keep)
      : job_(job), plan_(plan), stripRows_(stripRows), keep_(keep) {
    nRasterXSize = job.width;
    nRasterYSize = job.height;
    mask_ = std::make_unique<MaskBand>(this, stripRows);
    eAccess = GA_ReadOnly;
    for (int b = 1; b <= job.bands; ++b) {
      auto* band = new RasterBand(this, b, static_cast<GDALDataType>(job.gdalType), stripRows);
      SetBand(b, band);
      if (!job.bandNames[b - 1].empty()) band->SetDescription(job.bandNames[b - 1].c_str());
      for (const auto& [key, value] : job.bandMetadata[b - 1])
        band->SetMetadataItem(key.c_str(), value.c_str());
      if (job.type == kPixelS8) band->SetMetadataItem("PIXELTYPE", "SIGNEDBYTE", "IMAGE_STRUCTURE");
      if (job.type >= kPixelU1 && job.type <= kPixelU4)
        band->SetMetadataItem("NBITS",
                              job.type == kPixelU1   ? "1"
                              : job.type == kPixelU2 ? "2"
                                                     : "4",
                              "IMAGE_STRUCTURE");
    }
    for (const auto& [key, value] : job.options->metadata)
      SetMetadataItem(key.c_str(), value.c_str());
    if (!job.wkt.empty()) {
      reference_.SetFromUserInput(job.wkt.c_str());
      reference_.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    }
  }

  CPLErr GetGeoTransform(double* transform) override {
    if (!job_.hasTransform) return CE_Failure;
    std::memcpy(transform, job_.transform, sizeof(job_.transform));
    return CE_None;
  }
  const OGRSpatialReference* GetSpatialRef() const override {
    return job_.wkt.empty() ? nullptr : &reference_;
  }

  const ExportJob& Job() const { return job_; }
  const ValidityPlan& Plan() const { return plan_; }
  MaskBand* Mask() { return mask_.get(); }

  // Strip `s`: from the ones kept, else from the pipeline, which restarts when the driver
  // goes back (its second pass) or jumps ahead.
  CPLErr Fetch(LONG s, std::shared_ptr<Strip>* strip) {
    std::lock_guard hold(lock_);
    if (failure_ != S_OK) return CE_Failure;
    if (auto it = kept_.find(s); it != kept_.end()) {
      *strip = it->second;
      return CE_None;
    }
    if (!pipeline_ || s < next_ || s > next_ + 8) {
      pipeline_.reset();
      kept_.clear();
      pipeline_ = std::make_unique<StripPipeline>(job_.raster, job_.width, job_.height, job_.bands,
                                                  job_.type, stripRows_, job_.threads, plan_, s,
                                                  static_cast<std::size_t>(job_.threads));
      next_ = s;
    }
    while (next_ <= s) {
      std::shared_ptr<Strip> got;
      const HRESULT hr = pipeline_->Next(&got);
      if (FAILED(hr)) {
        failure_ = hr;
        message_ = TakeErrorDescription();
        CPLError(CE_Failure, CPLE_AppDefined, "%s", ToUtf8(message_).c_str());
        return CE_Failure;
      }
      ++next_;
      kept_[got->index] = got;
    }
    while (kept_.size() > keep_) kept_.erase(kept_.begin());
    *strip = kept_.at(s);
    return CE_None;
  }

  HRESULT Failure(std::u16string* message) const {
    *message = message_;
    return failure_;
  }

 private:
  const ExportJob& job_;
  ValidityPlan plan_;
  LONG stripRows_;
  std::size_t keep_;
  std::unique_ptr<MaskBand> mask_;
  OGRSpatialReference reference_;
  std::mutex lock_;
  std::unique_ptr<StripPipeline> pipeline_;
  LONG next_ = 0;
  std::map<LONG, std::shared_ptr<Strip>> kept_;
  HRESULT failure_ = S_OK;
  std::u16string message_;
};

StripBand::StripBand(RasterDataset* owner, int number, GDALDataType type, int stripRows) {
  poDS = owner;
  nBand = number;
  eDataType = type;
  nRasterXSize = owner->GetRasterXSize();
  nRasterYSize = owner->GetRasterYSize();
  nBlockXSize = nRasterXSize;
  nBlockYSize = stripRows;
}

RasterDataset* StripBand::Owner() const {
  return static_cast<RasterDataset*>(poDS);
}

CPLErr StripBand::IReadBlock(int, int blockY, void* data) {
  std::shared_ptr<Strip> strip;
  if (Owner()->Fetch(blockY, &strip) != CE_None) return CE_Failure;
  const std::size_t written = CopyStrip(*strip, data);
  const std::size_t size = static_cast<std::size_t>(GDALGetDataTypeSizeBytes(eDataType));
  std::memset(static_cast<std::uint8_t*>(data) + written, 0,
              static_cast<std::size_t>(nBlockXSize) * nBlockYSize * size - written);
  return CE_None;
}

std::size_t RasterBand::CopyStrip(const Strip& strip, void* data) {
  const std::size_t bytes =
      static_cast<std::size_t>(nBlockXSize) * strip.rows * Owner()->Job().PixelBytes();
  std::memcpy(data, strip.block->Buffer(nBand - 1), bytes);
  return bytes;
}

double RasterBand::GetNoDataValue(int* success) {
  const auto& plan = Owner()->Plan();
  if (success != nullptr) *success = plan.noData.has_value();
  return plan.noData.value_or(0.0);
}

int RasterBand::GetMaskFlags() {
  const auto& plan = Owner()->Plan();
  if (plan.noData) return GMF_NODATA;
  return plan.mask ? GMF_PER_DATASET : GMF_ALL_VALID;
}

GDALRasterBand* RasterBand::GetMaskBand() {
  if (GetMaskFlags() == GMF_PER_DATASET) return Owner()->Mask();
  return GDALRasterBand::GetMaskBand();
}

std::size_t MaskBand::CopyStrip(const Strip& strip, void* data) {
  const std::size_t cells = static_cast<std::size_t>(nBlockXSize) * strip.rows;
  if (strip.validity.empty())
    std::memset(data, 255, cells);
  else
    std::memcpy(data, strip.validity.data(), cells);
  return cells;
}

struct ProgressTarget {
  const ExportJob* job;
};

int CPL_STDCALL ReportProgress(double done, const char*, void* target) {
  return static_cast<ProgressTarget*>(target)->job->Progress(done) ? TRUE : FALSE;
}

}  // namespace

HRESULT WriteCog(const ExportJob& job, const ValidityPlan& plan, fs::path* written) {
  const fs::path temp = job.files->Temporary("tif");
  CreationOptions copy;
  for (const auto& o : job.options->creationOptions) copy.Set(o);
  // Strips as tall as the COG's tiles (512 rows unless BLOCKSIZE says), within 16 MB. The
  // driver reads rows of tiles, and two of them at a time for the first overview, one band
  // after the other: the strips of two rows of tiles stay at hand.
  LONG tileRows = 512;
  if (const char* size = CSLFetchNameValue(copy.list, "BLOCKSIZE"))
    tileRows = std::max(16, std::atoi(size));
  const std::size_t rowBytes =
      static_cast<std::size_t>(job.width) * static_cast<std::size_t>(job.bands) * job.PixelBytes();
  const auto rows = static_cast<LONG>(
      std::clamp<std::size_t>((std::size_t{16} << 20) / std::max<std::size_t>(rowBytes, 1), 16,
                              static_cast<std::size_t>(tileRows)));
  const auto keep = static_cast<std::size_t>((2 * tileRows + rows - 1) / rows + 1);
  RasterDataset source(job, plan, rows, keep);
  ProgressTarget target{&job};
  CPLErrorReset();
  GDALDriver* driver = GetGDALDriverManager()->GetDriverByName("COG");
  GDALDataset* made = driver == nullptr ? nullptr
                                        : driver->CreateCopy(temp.c_str(), &source, FALSE,
                                                             copy.list, ReportProgress, &target);
  std::u16string message;
  const HRESULT failure = source.Failure(&message);
  if (made == nullptr || failure != S_OK) {
    if (made != nullptr) GDALClose(made);
    *written = temp;
    if (failure != S_OK) return ReportError(failure, message);
    if (CPLGetLastErrorNo() == CPLE_UserInterrupt)
      return ReportError(E_ABORT, "export of '" + job.path + "' cancelled");
    return WriteFailure(job, "writing the COG", 1 << 20);
  }
  CPLErrorReset();
  GDALClose(made);
  *written = temp;
  if (CPLGetLastErrorType() >= CE_Failure) return WriteFailure(job, "finishing the COG", 1 << 20);
  return S_OK;
}

}  // namespace pw::raster::gdal
