// The export's strip pipeline and the validity checks made on each strip.
#include "raster/gdal/export_strips.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "com/errorinfo.h"
#include "raster/algorithms/parallel.h"
#include "raster/algorithms/simd_dispatch.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "raster/pixel_type.h"

namespace pw::raster::gdal {
namespace {

// Cells equal to `value` (or NaN ones), counted in runs short enough for a 32-bit count, so
// that the compare-and-add loop vectorizes at the type's width.
template <class T, bool kNan>
struct Holding {
  PW_ALWAYS_INLINE static std::size_t Run(const void* from, std::size_t n, T value) {
    const T* __restrict values = static_cast<const T*>(from);
    constexpr std::size_t kRun = std::size_t{1} << 16;
    std::size_t hits = 0;
    for (std::size_t at = 0; at < n; at += kRun) {
      const std::size_t end = std::min(n, at + kRun);
      std::uint32_t run = 0;
      for (std::size_t i = at; i < end; ++i) {
        const T v = values[i];
        run += static_cast<std::uint32_t>(kNan ? v != v : v == value);
      }
      hits += run;
    }
    return hits;
  }
};

template <class T, bool kNan>
std::size_t CountIn(const void* values, std::size_t n, T value) {
  using Fn = std::size_t (*)(const void*, std::size_t, T);
  return simd::Variants<Holding<T, kNan>, Fn>::For(simd::Best())(values, n, value);
}

std::string Describe(double value) {
  if (std::isnan(value)) return "NaN";
  char text[32];
  std::snprintf(text, sizeof(text), "%.17g", value);
  return text;
}

}  // namespace

std::size_t CountHolding(LONG pixelType, const void* values, std::size_t count, double value) {
  std::size_t hits = 0;
  VisitPixelType(pixelType, [&](auto tag) {
    using T = typename decltype(tag)::type;
    if constexpr (std::is_floating_point_v<T>) {
      if (std::isnan(value)) {
        hits = CountIn<T, true>(values, count, T{});
        return;
      }
    }
    if (!HoldsValue(pixelType, value)) return;  // no cell can hold it
    hits = CountIn<T, false>(values, count, static_cast<T>(value));
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
      // Invalid cells hold the no-data value now (filled above), so the valid ones holding
      // it are all that hold it less the invalid ones.
      const std::size_t all = CountHolding(type_, block->Buffer(b), n, *plan_.noData);
      const std::size_t invalid =
          whole[static_cast<std::size_t>(b)] ? 0 : n - mask::Count(block->Mask(b), n);
      const std::size_t hits = all >= invalid ? all - invalid : 0;
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
