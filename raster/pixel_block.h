// Pixel blocks and conversion between pixel types.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "raster/model.h"
#include "raster/pixel_traits.h"

namespace pw::raster {

class PixelBlock : public IPixelBlock {
 public:
  using Interfaces = InterfaceList<IPixelBlock>;
  // Buffers start at 0 and every mask bit valid, unless `filled` is false: then both hold
  // whatever the memory had, for a read that writes every pixel and bit.
  PixelBlock(LONG width, LONG height, LONG bands, LONG pixelType, bool filled = true);

  HRESULT STDMETHODCALLTYPE get_Width(LONG* width) override { return HandOut(width_, width); }
  HRESULT STDMETHODCALLTYPE get_Height(LONG* height) override { return HandOut(height_, height); }
  HRESULT STDMETHODCALLTYPE get_BandCount(LONG* count) override {
    return HandOut(static_cast<LONG>(buffers_.size()), count);
  }
  HRESULT STDMETHODCALLTYPE get_PixelType(LONG* type) override { return HandOut(pixelType_, type); }
  void* STDMETHODCALLTYPE Buffer(LONG band) override;
  BYTE* STDMETHODCALLTYPE Mask(LONG band) override;

 private:
  LONG width_, height_, pixelType_;
  std::vector<std::unique_ptr<std::uint8_t[]>> buffers_;
  std::vector<std::unique_ptr<std::uint8_t[]>> masks_;
};

HRESULT CreatePixelBlock(LONG width, LONG height, LONG bands, LONG pixelType, IPixelBlock** block);

// A block whose values and mask are left as the memory had them: only for a read that writes
// every pixel and bit (a raster's ReadAt does), where filling first would be wasted.
HRESULT CreateUnfilledPixelBlock(LONG width, LONG height, LONG bands, LONG pixelType,
                                 IPixelBlock** block);

// A one-band block over the caller's memory (`buffer` of width x height pixels and its
// mask), set to 0 and every bit valid like a new block, so that a read lands where the caller
// wants it without a copy. The memory must outlive the block.
HRESULT WrapPixelBlock(LONG width, LONG height, LONG pixelType, void* buffer, BYTE* mask,
                       IPixelBlock** block);
// The same over memory left as it is: only for a read that writes every pixel and bit (after
// a failed read the memory holds what it held before, or part of the read).
HRESULT WrapUnfilledPixelBlock(LONG width, LONG height, LONG pixelType, void* buffer, BYTE* mask,
                               IPixelBlock** block);

// The shape of a block, read once.
struct BlockShape {
  LONG width = 0, height = 0, bands = 0, pixelType = -1;
  std::size_t Pixels() const {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  }
};
HRESULT GetShape(IPixelBlock* block, BlockShape* shape);

// Sets every value of every band to 0 and every cell invalid.
HRESULT ClearPixelBlock(IPixelBlock* block);

// Copies `source` into `target` (same size) converting each value by the read conversion
// rule; NaN into an integer type makes the pixel invalid. Target band b takes source band b,
// or the source's last band past its count.
HRESULT ConvertPixelBlock(IPixelBlock* source, IPixelBlock* target);

// One pixel as a double, for tests and diagnostics.
double PixelValue(IPixelBlock* block, LONG band, std::size_t index);

}  // namespace pw::raster
