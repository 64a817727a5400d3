// The export's strips: whole-width bands of rows of the raster, read in parallel by worker
// threads a bounded distance ahead of the one consumer that takes them in row order, and
// prepared for writing on the worker: invalid cells filled with the written value, the
// cells checked against the validity rule, the dataset mask formed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "raster/model.h"

namespace pw::raster::gdal {

// How invalid cells are written.
struct ValidityPlan {
  // The value written into every band's invalid cells and declared as the bands' no-data
  // value; none in mask plans.
  std::optional<double> noData;
  // Whether the dataset mask may be written: a per-dataset mask band, added at the first
  // strip with an invalid cell. Without a no-data value and without the mask, an invalid
  // cell fails the plan (kNeedsMask).
  bool mask = true;
  // Whether the no-data value was given by the user (a collision is then the user's to
  // resolve) rather than taken from the raster.
  bool chosenByUser = false;
};

// Plans that cannot write a raster's validity exactly end with one of these codes, so that
// the export can try the next plan.
inline constexpr HRESULT kNeedsMask = static_cast<HRESULT>(0x80048301);      // invalid cells
inline constexpr HRESULT kMixedValidity = static_cast<HRESULT>(0x80048302);  // band masks differ
inline constexpr HRESULT kNoDataTaken = static_cast<HRESULT>(0x80048303);  // a valid cell holds it

struct Strip {
  LONG index = 0, row = 0, rows = 0;
  ComPtr<IPixelBlock> block;
  bool anyInvalid = false;             // a cell invalid in some band
  std::vector<std::uint8_t> validity;  // mask plans with invalid cells: 255 valid, 0 not
};

class StripPipeline {
 public:
  // Strips of `rowsPerStrip` rows from strip `first` on, read by `threads` workers at most
  // `ahead` strips ahead of the consumer (0: two per worker).
  StripPipeline(IRaster* raster, LONG width, LONG height, LONG bands, LONG pixelType,
                LONG rowsPerStrip, int threads, const ValidityPlan& plan, LONG first = 0,
                std::size_t ahead = 0);
  ~StripPipeline();
  StripPipeline(const StripPipeline&) = delete;
  StripPipeline& operator=(const StripPipeline&) = delete;

  LONG StripCount() const { return strips_; }
  LONG RowsPerStrip() const { return rowsPerStrip_; }
  // The next strip in row order; a failure stops the pipeline and says why (the plan
  // codes above, or the read's own failure with its message in the error object).
  HRESULT Next(std::shared_ptr<Strip>* strip);
  // Hands a strip back once written, so that its memory serves a later strip.
  void Done(std::shared_ptr<Strip> strip);

 private:
  void Work();
  HRESULT Prepare(Strip* strip) const;
  void Fail(HRESULT hr);

  IRaster* raster_;
  LONG width_, height_, bands_, type_, rowsPerStrip_, strips_;
  ValidityPlan plan_;
  std::size_t ahead_;
  std::mutex lock_;
  std::condition_variable room_, arrived_;
  std::map<LONG, std::shared_ptr<Strip>> ready_;
  std::vector<std::shared_ptr<Strip>> spare_;
  LONG taken_;  // strips handed to the consumer
  std::atomic<LONG> next_;
  bool stop_ = false;
  HRESULT failure_ = S_OK;
  std::u16string message_;
  std::vector<std::thread> workers_;
};

// Counts the cells holding `value` (NaN counts NaN cells), valid or not.
std::size_t CountHolding(LONG pixelType, const void* values, std::size_t count, double value);

}  // namespace pw::raster::gdal
