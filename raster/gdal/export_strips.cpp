// The export's strip pipeline and the validity checks made on each strip.
#include "raster/gdal/export_strips.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include "com/errorinfo.h"
#include "raster/algorithms/parallel.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "raster/pixel_type.h"

namespace pw::raster::gdal {
namespace {

template <class T>
std::size_t CountHolding(const T* values, const BYTE* bits, std::size_t n, T value, bool nan) {
  std::size_t hits = 0;
  const std::size_t whole = n / 8;
  for (std::size_t byte = 0; byte < whole; ++byte) {
    const T* v = values + byte * 8;
    unsigned equal = 0;
    for (unsigned k = 0; k < 8; ++k) {
      const bool same = nan ? v[k] != v[k] : v[k] == value;
      equal |= static_cast<unsigned>(same) << (7 - k);
    }
    hits += static_cast<std::size_t>(std::popcount(equal & bits[byte]));
  }
  for (std::size_t i = whole * 8; i < n; ++i) {
    const bool same = nan ? values[i] != values[i] : values[i] == value;
    hits += static_cast<std::size_t>(same && mask::Get(bits, i));
  }
  return hits;
}

std::string Describe(double value) {
  if (std::isnan(value)) return "NaN";
  char text[32];
  std::snprintf(text, sizeof(text), "%.17g", value);
  return text;
}

}  // namespace

std::size_t CountValidHolding(LONG pixelType, const void* values, const BYTE* mask,
                              std::size_t count, double value) {
  std::size_t hits = 0;
  VisitPixelType(pixelType, [&](auto tag) {
    using T = typename decltype(tag)::type;
    const bool nan = std::isnan(value);
    if (!nan && !HoldsValue(pixelType, value)) return;  // no cell can hold it
    hits = CountHolding(static_cast<const T*>(values), mask, count,
                        nan ? T{} : static_cast<T>(value), nan);
  });
  return hits;
}

StripPipeline::StripPipeline(IRaster* raster, LONG width, LONG height, LONG bands, LONG pixelType,
                             LONG rowsPerStrip, int threads, const ValidityPlan& plan, LONG first,
                             std::size_t ahead)
    : raster_(raster),
      width_(width),
      height_(height),
      bands_(bands),
      type_(pixelType),
      rowsPerStrip_(std::max<LONG>(1, rowsPerStrip)),
      strips_((height + rowsPerStrip_ - 1) / rowsPerStrip_),
      plan_(plan),
      ahead_(ahead > 0 ? ahead : static_cast<std::size_t>(std::max(threads, 1)) * 2),
      taken_(std::clamp<LONG>(first, 0, strips_)),
      next_(taken_) {
  const int count = std::max(threads, 1);
  workers_.reserve(static_cast<std::size_t>(count));
  for (int t = 0; t < count; ++t)
    workers_.emplace_back([this] {
      // The workers are the export's threads: kernels stay on their own thread, so that
      // N threads asked for are N busy cores (and one is one, inside a task of a scheduler
      // that runs tasks on the other cores).
      const ParallelWorkerScope mark;
      Work();
    });
}

StripPipeline::~StripPipeline() {
  {
    std::lock_guard hold(lock_);
    stop_ = true;
  }
  room_.notify_all();
  arrived_.notify_all();
  for (auto& w : workers_) w.join();
}

void StripPipeline::Fail(HRESULT hr) {
  std::lock_guard hold(lock_);
  if (failure_ == S_OK) {
    failure_ = hr;
    message_ = TakeErrorDescription();
  }
  stop_ = true;
  room_.notify_all();
  arrived_.notify_all();
}

void StripPipeline::Work() {
  for (LONG s = next_++; s < strips_; s = next_++) {
    std::shared_ptr<Strip> strip;
    const LONG row = s * rowsPerStrip_, rows = std::min(rowsPerStrip_, height_ - row);
    {
      std::unique_lock hold(lock_);
      room_.wait(hold, [&] { return stop_ || static_cast<std::size_t>(s - taken_) < ahead_; });
      if (stop_) return;
      for (auto it = spare_.begin(); it != spare_.end(); ++it) {
        if ((*it)->rows != rows) continue;
        strip = std::move(*it);
        spare_.erase(it);
        break;
      }
    }
    const HRESULT hr = Guard([&]() -> HRESULT {
      if (!strip) {
        strip = std::make_shared<Strip>();
        // The read writes every value and bit of the strip, so it needs no clearing.
        PW_RETURN_IF_FAILED(CreateUnfilledPixelBlock(width_, rows, bands_, type_, &strip->block));
      }
      strip->index = s;
      strip->row = row;
      strip->rows = rows;
      PW_RETURN_IF_FAILED(raster_->ReadAt(0, row, strip->block.Get()));
      return Prepare(strip.get());
    });
    if (FAILED(hr)) return Fail(hr);
    std::lock_guard hold(lock_);
    ready_[s] = std::move(strip);
    arrived_.notify_all();
  }
}

HRESULT StripPipeline::Next(std::shared_ptr<Strip>* strip) {
  std::unique_lock hold(lock_);
  arrived_.wait(hold, [&] { return stop_ || ready_.count(taken_) > 0; });
  if (ready_.count(taken_) == 0) {
    if (failure_ == S_OK) return E_ABORT;
    // The message goes back on this thread's error object.
    return ReportError(failure_, message_);
  }
  *strip = std::move(ready_[taken_]);
  ready_.erase(taken_);
  ++taken_;
  room_.notify_all();
  return S_OK;
}

void StripPipeline::Done(std::shared_ptr<Strip> strip) {
  std::lock_guard hold(lock_);
  if (strip && spare_.size() < ahead_) spare_.push_back(std::move(strip));
}

HRESULT StripPipeline::Prepare(Strip* strip) const {
  const std::size_t n = static_cast<std::size_t>(width_) * static_cast<std::size_t>(strip->rows);
  IPixelBlock* block = strip->block.Get();
  const ValueRange range = PixelRange(type_);
  // A band's invalid cells take the written value (0 without one), so that the file's bytes
  // depend only on the chain: a kernel may leave anything in the cells it does not compute.
  const double fill = plan_.noData.value_or(0.0);
  strip->anyInvalid = false;
  std::vector<bool> whole(static_cast<std::size_t>(bands_));
  for (LONG b = 0; b < bands_; ++b) {
    const BYTE* bits = block->Mask(b);
    whole[static_cast<std::size_t>(b)] = mask::AllValid(bits, n);
    if (whole[static_cast<std::size_t>(b)]) continue;
    strip->anyInvalid = true;
    VisitPixelType(type_, [&](auto tag) {
      using T = typename decltype(tag)::type;
      bool ignored = true;
      mask::FillInvalid(static_cast<T*>(block->Buffer(b)), bits, n,
                        ConvertValue<T>(fill, range, &ignored));
    });
  }
  if (plan_.noData) {
    for (LONG b = 0; b < bands_; ++b) {
      const std::size_t hits =
          CountValidHolding(type_, block->Buffer(b), block->Mask(b), n, *plan_.noData);
      if (hits == 0) continue;
      return ReportError(kNoDataTaken,
                         std::to_string(hits) + " valid cells of band " + std::to_string(b + 1) +
                             " in rows " + std::to_string(strip->row + 1) + " to " +
                             std::to_string(strip->row + strip->rows) + " hold the no-data value " +
                             Describe(*plan_.noData) + " and would read back as no-data");
    }
    strip->validity.clear();
    return S_OK;
  }
  strip->validity.clear();
  if (!strip->anyInvalid) return S_OK;
  if (!plan_.mask) return kNeedsMask;
  // One mask for the dataset: it is exact only where the bands agree on every cell.
  const std::size_t bytes = mask::Bytes(n);
  std::vector<std::uint8_t> all(block->Mask(0), block->Mask(0) + bytes), any = all;
  for (LONG b = 1; b < bands_; ++b) {
    const BYTE* bits = block->Mask(b);
    for (std::size_t i = 0; i < bytes; ++i) all[i] &= bits[i], any[i] |= bits[i];
  }
  if (n % 8 != 0) {
    const auto used = static_cast<std::uint8_t>(0xFF << (8 - n % 8));
    all.back() &= used;
    any.back() &= used;
  }
  if (all != any) {
    std::size_t first = 0;
    while (mask::Get(all.data(), first) == mask::Get(any.data(), first)) ++first;
    return ReportError(
        kMixedValidity,
        "cell (" + std::to_string(first % static_cast<std::size_t>(width_) + 1) + ", " +
            std::to_string(strip->row + first / static_cast<std::size_t>(width_) + 1) +
            ") is valid in some bands and invalid in others");
  }
  strip->validity.resize(n);
  mask::Unpack(all.data(), n, strip->validity.data());
  for (auto& v : strip->validity) v = static_cast<std::uint8_t>(v ? 255 : 0);
  return S_OK;
}

}  // namespace pw::raster::gdal
