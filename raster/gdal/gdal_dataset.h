// Datasets read through GDAL: any raster GDAL can open, by path or /vsi... name, with its
// bands, band names, no-data values and masks, statistics and histograms when the file has
// them, colormap, attribute table, spatial reference and geotransform. GDAL handles are
// never shared between threads: each read borrows one from a small pool of the dataset.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "raster/memory_dataset.h"
#include "raster/model.h"

namespace pw::raster::gdal {

// Registers GDAL's drivers and the dataset opener for names given as text. Call once
// before opening datasets by name (the tools and tests do); calling again is harmless.
void Initialize();

// The pixel type code of a GDAL data type (signed bytes through PIXELTYPE=SIGNEDBYTE), or
// -1 for types Pixwerk does not compute (complex, 64-bit integers).
LONG PixelTypeOfGdal(int gdalType, bool signedByte);
// The GDAL data type of a pixel type code (codes 0 to 3 are Byte).
int GdalTypeOfPixelType(LONG pixelType);

// GDAL's last error message on this thread, or a note that it gave none.
std::string LastGdalError();

// Takes GDAL's reports on the calling thread while it lives: failures become this library's
// error messages (LastGdalError) instead of lines on stderr; warnings and debug messages go
// on to the application's own handler (GDAL's default one prints them on stderr). The
// application's handler is never replaced. Every entry of this layer that calls GDAL holds
// one.
class GdalErrorScope {
 public:
  GdalErrorScope();
  ~GdalErrorScope();
  GdalErrorScope(const GdalErrorScope&) = delete;
  GdalErrorScope& operator=(const GdalErrorScope&) = delete;
  // Whether a failure came with a full disk (the system's error number when it came).
  bool FullDisk() const { return fullDisk_; }
  void NoteFullDisk() { fullDisk_ = true; }

 private:
  void* forward_;  // the application's handler when this scope began
  bool fullDisk_ = false;
  GdalErrorScope* outer_;
};

// Whether a GDAL failure reported on this thread, inside a GdalErrorScope, came with a full
// disk.
bool FullDiskSeen();

class GdalDataset : public IRasterDataset, public IRasterSource, public IRasterWarpSource {
 public:
  using Interfaces = InterfaceList<IRasterDataset, IRasterSource, IRasterWarpSource>;
  GdalDataset() = default;
  ~GdalDataset();

  // Opens `name` and reads its description; failures say why in the error object.
  HRESULT Open(const std::string& name);

  HRESULT STDMETHODCALLTYPE get_Name(BSTR* name) override;
  HRESULT STDMETHODCALLTYPE get_BandCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE GetBand(LONG index, IRasterBand** band) override;
  HRESULT STDMETHODCALLTYPE CreateDefaultRaster(IRaster** raster) override;
  HRESULT STDMETHODCALLTYPE GetInfo(SourceInfo* info) override;
  HRESULT STDMETHODCALLTYPE ReadWindow(LONG band, LONG column, LONG row, LONG width, LONG height,
                                       void* buffer, BYTE* mask) override;
  // Reprojects through GDAL's warper; a cell is valid where the warped density is at least
  // one half.
  HRESULT STDMETHODCALLTYPE ReadWarped(LONG band, const RasterGrid& grid,
                                       ISpatialReference* reference, LONG method, LONG column,
                                       LONG row, LONG width, LONG height, void* buffer,
                                       BYTE* mask) override;

  // The affine geotransform (GDAL's order) and whether the file had one.
  const double* GeoTransform() const { return transform_; }

 private:
  // A handle for the calling thread's read, idle again when the lease ends.
  class Lease {
   public:
    explicit Lease(GdalDataset* owner) : owner_(owner), handle_(owner->Borrow(kAnySlot)) {}
    ~Lease() {
      if (handle_ != nullptr) owner_->Return(kAnySlot, handle_);
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    void* Handle() const { return handle_; }

   private:
    GdalDataset* owner_;
    void* handle_;
  };
  // Handles come from the process's bounded set of open handles: any of the dataset's
  // (kAnySlot), or the one of a row-of-blocks owner (its index).
  static constexpr int kAnySlot = -1;
  void* Borrow(int slot);
  void Return(int slot, void* handle);
  // A lease, or null with the reason in the error object.
  HRESULT Lend(std::optional<Lease>* lease);

  std::string name_;
  SourceInfo info_;
  double transform_[6] = {0, 1, 0, 0, 0, -1};
  std::vector<bool> hasMask_;
  std::vector<ObjectPtr<MemoryBand>> bands_;  // descriptions only (no pixels)
  // Windows of a file stored in blocks of many rows are read one row of blocks at a time,
  // each row of blocks always through the same handle (row index modulo the owners): the
  // blocks go through GDAL's cache of that handle only, so a window that needs one line of a
  // row of blocks (the margin of a neighbourhood) finds the blocks its neighbour read
  // instead of reading them from the file again.
  struct Owner {
    std::mutex lock;
  };
  int blockRows_ = 1;
  std::size_t blockRowBytes_ = 0;  // one row of blocks of every band
  std::unique_ptr<Owner[]> owners_;
  std::size_t ownerCount_ = 0;
};

}  // namespace pw::raster::gdal
