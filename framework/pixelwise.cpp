#include "framework/pixelwise.h"

#include <algorithm>
#include <cstring>

#include "com/errorinfo.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/raster_view.h"

namespace pw::framework {

void PixelwiseInputs::Clear() {
  inputs_.clear();
  operands_.clear();
  merge_ = MaskMerge::kIntersect;
  inPlace_ = false;
}

void PixelwiseInputs::Add(IRaster* raster, LONG loadType) {
  inputs_.push_back(Input{ComPtr<IRaster>(raster), loadType, raster::BandCountOf(raster)});
}

void PixelwiseInputs::SetOperands(std::vector<PixelwiseOperand> operands, MaskMerge merge) {
  operands_ = std::move(operands);
  merge_ = merge;
}

HRESULT PixelwiseInputs::ReadInputs(LONG column, LONG row, IPixelBlock* block,
                                    std::vector<ComPtr<IPixelBlock>>* blocks) const {
  if (!Ready() || operands_.size() > kMaxPixelwiseOperands) return E_FAIL;
  raster::BlockShape shape;
  PW_RETURN_IF_FAILED(raster::GetShape(block, &shape));
  blocks->resize(inputs_.size());
  for (std::size_t i = 0; i < inputs_.size(); ++i) {
    const Input& input = inputs_[i];
    // Only the bands the output reads: all of them when operands follow the output's band.
    LONG bands = 0;
    for (const PixelwiseOperand& o : operands_)
      if (o.input == i)
        bands = std::max(bands, o.band == PixelwiseOperand::kOwnBand
                                    ? std::min(shape.bands, input.bands)
                                    : o.band + 1);
    if (bands == 0) continue;
    if (inPlace_ && inputs_.size() == 1 && input.type == shape.pixelType && bands == shape.bands) {
      (*blocks)[i] = ComPtr<IPixelBlock>(block);
      PW_RETURN_IF_FAILED(input.raster->ReadAt(column, row, block));
      continue;
    }
    PW_RETURN_IF_FAILED(
        raster::CreatePixelBlock(shape.width, shape.height, bands, input.type, &(*blocks)[i]));
    PW_RETURN_IF_FAILED(input.raster->ReadAt(column, row, (*blocks)[i].Get()));
  }
  return S_OK;
}

PixelwiseBand PixelwiseInputs::Prepare(const std::vector<ComPtr<IPixelBlock>>& blocks,
                                       IPixelBlock* block, LONG band) const {
  PixelwiseBand out;
  LONG width = 0, height = 0;
  block->get_Width(&width);
  block->get_Height(&height);
  out.band = band;
  out.pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  out.out = block->Buffer(band);
  out.mask = block->Mask(band);
  for (std::size_t k = 0; k < operands_.size(); ++k) {
    const PixelwiseOperand& o = operands_[k];
    IPixelBlock* source = blocks[o.input].Get();
    LONG available = 0;
    source->get_BandCount(&available);
    const LONG b = o.band == PixelwiseOperand::kOwnBand ? std::min(band, available - 1) : o.band;
    out.in[k] = source->Buffer(b);
    out.inMask[k] = source->Mask(b);
  }
  const std::size_t bytes = raster::mask::Bytes(out.pixels);
  if (merge_ == MaskMerge::kKernel) return out;
  if (out.mask != out.inMask[0]) std::memcpy(out.mask, out.inMask[0], bytes);
  for (std::size_t k = 1; k < operands_.size(); ++k) {
    if (merge_ == MaskMerge::kIntersect)
      raster::mask::Intersect(out.mask, out.inMask[k], bytes);
    else
      raster::mask::Union(out.mask, out.inMask[k], bytes);
  }
  return out;
}

}  // namespace pw::framework
