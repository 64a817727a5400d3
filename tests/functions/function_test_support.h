// Helpers for function tests: creation by programmatic identifier, in-memory inputs, reads.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <string_view>
#include <vector>

#include "com/errorinfo.h"
#include "framework/function_raster.h"
#include "raster/algorithms/simd_dispatch.h"
#include "raster/memory_dataset.h"
#include "raster/pixel_block.h"
#include "raster/values/arrays.h"
#include "raster/values/geometry.h"
#include "server/entry_points.h"

namespace pw::test {

// Array arguments: numbers and texts.
inline Variant Doubles(std::vector<double> values) {
  auto array = MakeObject<raster::DoubleArray>();
  array->Items() = std::move(values);
  return Variant(array->AsUnknown());
}
inline Variant Texts(std::vector<std::u16string> values) {
  auto array = MakeObject<raster::StringArray>();
  array->Items() = std::move(values);
  return Variant(array->AsUnknown());
}

template <class I>
ComPtr<I> Create(std::u16string_view name) {
  ComPtr<I> object;
  EXPECT_EQ(server::CreateInstance(
                std::u16string(u"quarnDataSourcesRaster.") + std::u16string(name), &object),
            S_OK)
      << ToUtf8(name);
  return object;
}

// A raster over an in-memory dataset whose band b holds fill(b, column, row) (NaN: invalid).
template <class Fill>
ComPtr<IRaster> MemoryRaster(const raster::RasterGrid& grid, LONG bands, LONG type, Fill&& fill,
                             ObjectPtr<raster::MemoryDataset>* dataset = nullptr) {
  auto made = raster::MakeMemoryDataset(grid, bands, type, fill);
  ComPtr<IRaster> raster;
  EXPECT_EQ(made->CreateDefaultRaster(&raster), S_OK);
  if (dataset) *dataset = made;
  return raster;
}

// One row of cells of width 1 starting at x = 0.
inline raster::RasterGrid Row(LONG columns, LONG rows = 1) {
  return raster::RasterGrid{0,       0,   static_cast<double>(columns), static_cast<double>(rows),
                            columns, rows};
}

struct Output {
  LONG type = -1, bands = 0;
  ComPtr<IPixelBlock> block;
  double At(LONG band, std::size_t i) const { return raster::PixelValue(block.Get(), band, i); }
  bool Valid(LONG band, std::size_t i) const {
    return (block->Mask(band)[i / 8] >> (7 - i % 8)) & 1;
  }
};

// Reads a bound function's whole output (or a window of it).
inline Output ReadOutput(IRasterFunction* function, LONG column = 0, LONG row = 0, LONG width = -1,
                         LONG height = -1) {
  Output out;
  ComPtr<IRasterInfo> info;
  EXPECT_EQ(function->get_RasterInfo(&info), S_OK);
  if (!info) return out;
  info->get_BandCount(&out.bands);
  info->get_PixelType(&out.type);
  if (width < 0 || height < 0) {
    ComPtr<IEnvelope> extent;
    info->get_Extent(&extent);
    double x0 = 0, y0 = 0, x1 = 0, y1 = 0, cx = 0, cy = 0;
    extent->QueryCoords(&x0, &y0, &x1, &y1);
    info->get_PixelSizeX(&cx);
    info->get_PixelSizeY(&cy);
    width = static_cast<LONG>(std::lround((x1 - x0) / cx));
    height = static_cast<LONG>(std::lround((y1 - y0) / cy));
  }
  EXPECT_EQ(raster::CreatePixelBlock(width, height, out.bands, out.type, &out.block), S_OK);
  auto origin = MakeObject<raster::Pnt>();
  origin->PutCoords(column, row);
  EXPECT_EQ(function->Read(origin.As<IPnt>().Get(), nullptr, out.block.Get()), S_OK);
  return out;
}

// Every instruction set this processor runs, for checking each kernel variant.
inline std::vector<raster::simd::Isa> Isas() {
  std::vector<raster::simd::Isa> isas{raster::simd::Isa::kBaseline};
  if (raster::simd::Best() != raster::simd::Isa::kBaseline)
    isas.push_back(raster::simd::Isa::kAvx2);
  if (raster::simd::Best() == raster::simd::Isa::kAvx512)
    isas.push_back(raster::simd::Isa::kAvx512);
  return isas;
}

// The chained error text of the last failure on this thread.
inline std::string LastError() {
  return ToUtf8(TakeErrorDescription());
}

}  // namespace pw::test
