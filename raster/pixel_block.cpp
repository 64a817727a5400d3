// Pixel blocks and type conversion.
#include "raster/pixel_block.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "raster/mask.h"

namespace pw::raster {

PixelBlock::PixelBlock(LONG width, LONG height, LONG bands, LONG pixelType, bool filled)
    : width_(width), height_(height), pixelType_(pixelType) {
  if (width < 0 || height < 0 || bands < 0 || PixelSize(pixelType) == 0)
    throw std::invalid_argument("pixel block: negative size or unknown pixel type");
  const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  const std::size_t bytes = pixels * PixelSize(pixelType);
  for (LONG b = 0; b < bands; ++b) {
    // Made without value-initialization: one pass over the memory when filled, none when not.
    buffers_.emplace_back(new std::uint8_t[std::max<std::size_t>(bytes, 1)]);
    masks_.emplace_back(new std::uint8_t[std::max<std::size_t>(mask::Bytes(pixels), 1)]);
    if (filled) {
      std::memset(buffers_.back().get(), 0, bytes);
      mask::Fill(masks_.back().get(), pixels, true);
    }
  }
}

namespace {

class BorrowedPixelBlock : public IPixelBlock {
 public:
  using Interfaces = InterfaceList<IPixelBlock>;
  BorrowedPixelBlock(LONG width, LONG height, LONG pixelType, void* buffer, BYTE* mask, bool fill)
      : width_(width), height_(height), pixelType_(pixelType), buffer_(buffer), mask_(mask) {
    if (!fill) return;
    const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::memset(buffer, 0, pixels * PixelSize(pixelType));
    mask::Fill(mask, pixels, true);
  }
  HRESULT STDMETHODCALLTYPE get_Width(LONG* width) override { return HandOut(width_, width); }
  HRESULT STDMETHODCALLTYPE get_Height(LONG* height) override { return HandOut(height_, height); }
  HRESULT STDMETHODCALLTYPE get_BandCount(LONG* count) override { return HandOut(1, count); }
  HRESULT STDMETHODCALLTYPE get_PixelType(LONG* type) override { return HandOut(pixelType_, type); }
  void* STDMETHODCALLTYPE Buffer(LONG band) override { return band == 0 ? buffer_ : nullptr; }
  BYTE* STDMETHODCALLTYPE Mask(LONG band) override { return band == 0 ? mask_ : nullptr; }

 private:
  LONG width_, height_, pixelType_;
  void* buffer_;
  BYTE* mask_;
};

}  // namespace

void* PixelBlock::Buffer(LONG band) {
  if (band < 0 || band >= static_cast<LONG>(buffers_.size())) return nullptr;
  return buffers_[band].get();
}

BYTE* PixelBlock::Mask(LONG band) {
  if (band < 0 || band >= static_cast<LONG>(masks_.size())) return nullptr;
  return masks_[band].get();
}

HRESULT CreatePixelBlock(LONG width, LONG height, LONG bands, LONG pixelType, IPixelBlock** block) {
  PW_CHECK_POINTER(block);
  *block = nullptr;
  if (width < 0 || height < 0 || bands < 0 || PixelSize(pixelType) == 0) return E_INVALIDARG;
  return Guard([&] {
    *block = MakeObject<PixelBlock>(width, height, bands, pixelType).Detach();
    return S_OK;
  });
}

HRESULT CreateUnfilledPixelBlock(LONG width, LONG height, LONG bands, LONG pixelType,
                                 IPixelBlock** block) {
  PW_CHECK_POINTER(block);
  *block = nullptr;
  if (width < 0 || height < 0 || bands < 0 || PixelSize(pixelType) == 0) return E_INVALIDARG;
  return Guard([&] {
    *block = MakeObject<PixelBlock>(width, height, bands, pixelType, false).Detach();
    return S_OK;
  });
}

namespace {

HRESULT Wrap(LONG width, LONG height, LONG pixelType, void* buffer, BYTE* mask, bool fill,
             IPixelBlock** block) {
  PW_CHECK_POINTER(block);
  *block = nullptr;
  if (width < 0 || height < 0 || PixelSize(pixelType) == 0 || buffer == nullptr || mask == nullptr)
    return E_INVALIDARG;
  return Guard([&] {
    *block = MakeObject<BorrowedPixelBlock>(width, height, pixelType, buffer, mask, fill).Detach();
    return S_OK;
  });
}

}  // namespace

HRESULT WrapPixelBlock(LONG width, LONG height, LONG pixelType, void* buffer, BYTE* mask,
                       IPixelBlock** block) {
  return Wrap(width, height, pixelType, buffer, mask, true, block);
}

HRESULT WrapUnfilledPixelBlock(LONG width, LONG height, LONG pixelType, void* buffer, BYTE* mask,
                               IPixelBlock** block) {
  return Wrap(width, height, pixelType, buffer, mask, false, block);
}

HRESULT ClearPixelBlock(IPixelBlock* block) {
  BlockShape shape;
  PW_RETURN_IF_FAILED(GetShape(block, &shape));
  const std::size_t n =
      static_cast<std::size_t>(shape.width) * static_cast<std::size_t>(shape.height);
  for (LONG b = 0; b < shape.bands; ++b) {
    std::memset(block->Buffer(b), 0, n * PixelSize(shape.pixelType));
    std::memset(block->Mask(b), 0, mask::Bytes(n));
  }
  return S_OK;
}

HRESULT GetShape(IPixelBlock* block, BlockShape* shape) {
  if (block == nullptr) return E_POINTER;
  PW_RETURN_IF_FAILED(block->get_Width(&shape->width));
  PW_RETURN_IF_FAILED(block->get_Height(&shape->height));
  PW_RETURN_IF_FAILED(block->get_BandCount(&shape->bands));
  return block->get_PixelType(&shape->pixelType);
}

HRESULT ConvertPixelBlock(IPixelBlock* source, IPixelBlock* target) {
  BlockShape from, to;
  PW_RETURN_IF_FAILED(GetShape(source, &from));
  PW_RETURN_IF_FAILED(GetShape(target, &to));
  if (from.width != to.width || from.height != to.height || from.bands < 1) return E_INVALIDARG;
  const std::size_t n = from.Pixels();
  const ValueRange range = PixelRange(to.pixelType);
  for (LONG b = 0; b < to.bands; ++b) {
    const LONG s = std::min(b, from.bands - 1);
    const void* in = source->Buffer(s);
    void* out = target->Buffer(b);
    BYTE* outMask = target->Mask(b);
    std::memcpy(outMask, source->Mask(s), mask::Bytes(n));
    const bool ok = VisitPixelTypes(from.pixelType, to.pixelType, [&](auto ti, auto to_) {
      using I = typename decltype(ti)::type;
      using O = typename decltype(to_)::type;
      const I* src = static_cast<const I*>(in);
      O* dst = static_cast<O*>(out);
      if constexpr (std::is_same_v<I, O>) {
        if (from.pixelType == to.pixelType || !std::is_integral_v<O>) {
          std::memcpy(dst, src, n * sizeof(O));
          return;
        }
      }
      for (std::size_t i = 0; i < n; ++i) {
        bool valid = true;
        dst[i] = ConvertValue<O>(static_cast<double>(src[i]), range, &valid);
        if (!valid) mask::Clear(outMask, i);
      }
    });
    if (!ok) return E_INVALIDARG;
  }
  return S_OK;
}

double PixelValue(IPixelBlock* block, LONG band, std::size_t index) {
  LONG type = -1;
  block->get_PixelType(&type);
  double v = std::numeric_limits<double>::quiet_NaN();
  VisitPixelType(type, [&](auto tag) {
    using T = typename decltype(tag)::type;
    v = static_cast<double>(static_cast<const T*>(block->Buffer(band))[index]);
  });
  return v;
}

}  // namespace pw::raster
