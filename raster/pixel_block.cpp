// Pixel blocks and type conversion.
#include "raster/pixel_block.h"

#include <cstring>
#include <limits>
#include <stdexcept>

#include "raster/mask.h"

namespace pw::raster {

PixelBlock::PixelBlock(LONG width, LONG height, LONG bands, LONG pixelType)
    : width_(width), height_(height), pixelType_(pixelType) {
  if (width < 0 || height < 0 || bands < 0 || PixelSize(pixelType) == 0)
    throw std::invalid_argument("pixel block: negative size or unknown pixel type");
  const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  buffers_.assign(static_cast<std::size_t>(bands),
                  std::vector<std::uint8_t>(pixels * PixelSize(pixelType)));
  masks_.assign(static_cast<std::size_t>(bands), std::vector<std::uint8_t>(mask::Bytes(pixels)));
  for (auto& m : masks_) mask::Fill(m.data(), pixels, true);
}

void* PixelBlock::Buffer(LONG band) {
  if (band < 0 || band >= static_cast<LONG>(buffers_.size())) return nullptr;
  return buffers_[band].data();
}

BYTE* PixelBlock::Mask(LONG band) {
  if (band < 0 || band >= static_cast<LONG>(masks_.size())) return nullptr;
  return masks_[band].data();
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
  if (from.width != to.width || from.height != to.height || from.bands != to.bands)
    return E_INVALIDARG;
  const std::size_t n = from.Pixels();
  const ValueRange range = PixelRange(to.pixelType);
  for (LONG b = 0; b < from.bands; ++b) {
    const void* in = source->Buffer(b);
    void* out = target->Buffer(b);
    BYTE* outMask = target->Mask(b);
    std::memcpy(outMask, source->Mask(b), mask::Bytes(n));
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
