// Pixel-wise reads: a function whose output cell depends only on the same cell of its
// inputs (arithmetic, NDVI, stretch, remap, mask) declares its inputs and operands at bind,
// and its read is one call that reads the inputs of the block once, merges the operands'
// masks band by band and runs the kernel chosen at bind on each output band.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "com/com_ptr.h"
#include "raster/model.h"

namespace pw::framework {

inline constexpr std::size_t kMaxPixelwiseOperands = 4;

// One operand of a kernel: band `band` of input `input`; kOwnBand takes the output band's
// own index (the input's last band past its count).
struct PixelwiseOperand {
  static constexpr LONG kOwnBand = -1;
  std::size_t input = 0;
  LONG band = kOwnBand;
};

// How an output cell's validity follows from its operands'.
enum class MaskMerge {
  kIntersect,  // valid where every operand is
  kUnion,      // valid where any operand is
  kKernel,     // left to the kernel, which gets every operand's mask and sets the output's
};

// What a kernel gets for one output band: its operands' values (each of its input's load
// type) and masks, and the output band's values and mask (already merged unless kKernel).
struct PixelwiseBand {
  LONG band = 0;
  std::size_t pixels = 0;
  std::array<const void*, kMaxPixelwiseOperands> in{};
  std::array<const BYTE*, kMaxPixelwiseOperands> inMask{};
  void* out = nullptr;
  BYTE* mask = nullptr;
};

class PixelwiseInputs {
 public:
  // Declared at bind: each input with the pixel type its values are read as.
  void Clear();
  void Add(IRaster* raster, LONG loadType);
  void SetOperands(std::vector<PixelwiseOperand> operands, MaskMerge merge = MaskMerge::kIntersect);
  // A kernel that works in place (each cell read before it is written, nothing kept from
  // a neighbour) may get its operand's values in the output block itself: when the one
  // input is read as the output's type with the output's bands, it is read straight into
  // the block, and the band's `in` is its `out`. Saves a block's copy and allocation.
  void AllowInPlace(bool allow = true) { inPlace_ = allow; }
  bool Ready() const { return !inputs_.empty() && !operands_.empty(); }

  // Reads the inputs for the output block at (column, row) and calls `kernel(const
  // PixelwiseBand&)` for each band of `block`. Re-entrant: the reads' state is the call's.
  template <class Kernel>
  HRESULT Run(LONG column, LONG row, IPixelBlock* block, Kernel&& kernel) const {
    std::vector<ComPtr<IPixelBlock>> blocks;
    HRESULT hr = ReadInputs(column, row, block, &blocks);
    if (FAILED(hr)) return hr;
    LONG bands = 0;
    block->get_BandCount(&bands);
    for (LONG b = 0; b < bands; ++b) kernel(Prepare(blocks, block, b));
    return S_OK;
  }

 private:
  struct Input {
    ComPtr<IRaster> raster;
    LONG type = -1;
    LONG bands = 0;
  };
  HRESULT ReadInputs(LONG column, LONG row, IPixelBlock* block,
                     std::vector<ComPtr<IPixelBlock>>* blocks) const;
  PixelwiseBand Prepare(const std::vector<ComPtr<IPixelBlock>>& blocks, IPixelBlock* block,
                        LONG band) const;

  std::vector<Input> inputs_;
  std::vector<PixelwiseOperand> operands_;
  MaskMerge merge_ = MaskMerge::kIntersect;
  bool inPlace_ = false;
};

}  // namespace pw::framework
