// Pixel types that hold other types' values, no-data values per band, and band collections
// that keep every element's values and validity.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "raster/algorithms/no_data.h"
#include "raster/band_collection.h"
#include "raster/memory_dataset.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "raster/pixel_type.h"
#include "raster/raster_view.h"

namespace pw::raster {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(CommonPixelType, HoldsEveryValueOfBothTypes) {
  const struct {
    LONG a, b, common;
  } cases[] = {
      {kPixelU8, kPixelU8, kPixelU8},    {kPixelU1, kPixelU8, kPixelU8},
      {kPixelU8, kPixelU16, kPixelU16},  {kPixelS8, kPixelS32, kPixelS32},
      {kPixelU1, kPixelS8, kPixelS8},    {kPixelU4, kPixelS8, kPixelS8},
      {kPixelU8, kPixelS8, kPixelS16},   {kPixelU16, kPixelS8, kPixelS32},
      {kPixelU16, kPixelS16, kPixelS32}, {kPixelS16, kPixelU32, kPixelF64},
      {kPixelU32, kPixelS32, kPixelF64}, {kPixelU16, kPixelF32, kPixelF32},
      {kPixelS32, kPixelF32, kPixelF64}, {kPixelF32, kPixelF64, kPixelF64},
      {kPixelU8, -1, kPixelUnknown},     {kPixelC64, kPixelU8, kPixelUnknown},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CommonPixelType(c.a, c.b), c.common) << c.a << " " << c.b;
    EXPECT_EQ(CommonPixelType(c.b, c.a), c.common) << c.b << " " << c.a;
  }
  // The rule itself: every extreme of both types is held by the common one.
  for (LONG a = 0; a <= 10; ++a)
    for (LONG b = 0; b <= 10; ++b) {
      const LONG common = CommonPixelType(a, b);
      for (LONG t : {a, b})
        for (double v : {PixelRange(t).lowest, PixelRange(t).highest})
          EXPECT_TRUE(HoldsValue(common, v)) << a << " " << b << " " << v;
    }
}

TEST(HoldsValue, ExactValuesInsideTheRangeOnly) {
  const struct {
    LONG type;
    double value;
    bool held;
  } cases[] = {
      {kPixelU8, 255, true},           {kPixelU8, 256, false},   {kPixelU8, -1, false},
      {kPixelU8, 0.5, false},          {kPixelU8, kNaN, false},  {kPixelU1, 2, false},
      {kPixelS16, -32768, true},       {kPixelS16, -9999, true}, {kPixelU16, -9999, false},
      {kPixelF32, 0.1, false},         {kPixelF32, 0.5, true},   {kPixelF32, kNaN, true},
      {kPixelF32, 1e300, false},       {kPixelF64, 1e300, true}, {kPixelU32, 4294967295.0, true},
      {kPixelS32, 2147483648.0, false}};
  for (const auto& c : cases)
    EXPECT_EQ(HoldsValue(c.type, c.value), c.held) << c.type << " " << c.value;
}

TEST(NoDataOfBands, ReadsEveryFormAndWritesTheShortestBack) {
  EXPECT_EQ(NoDataOfBands(Variant(), 2), (BandNoData{std::nullopt, std::nullopt}));
  EXPECT_EQ(NoDataOfBands(Variant(-9999.0), 3), (BandNoData{-9999.0, -9999.0, -9999.0}));
  const BandNoData mixed{0.0, std::nullopt, -9999.0};
  const Variant array = NoDataVariant(mixed);
  EXPECT_TRUE(array.vt & VT_ARRAY);
  EXPECT_EQ(NoDataOfBands(array, 3), mixed);
  EXPECT_EQ(NoDataOfBands(array, 4), (BandNoData{0.0, std::nullopt, -9999.0, std::nullopt}));
  EXPECT_EQ(NoDataVariant({5.0, 5.0}).ToDouble(), 5.0);
  EXPECT_TRUE(NoDataVariant({std::nullopt, std::nullopt}).IsEmpty());
  const BandNoData nans = NoDataOfBands(NoDataVariant({kNaN, kNaN}), 2);
  EXPECT_TRUE(nans[0] && std::isnan(*nans[0]) && nans[1] && std::isnan(*nans[1]));
  BandNoData fitted{-9999.0, 255.0, kNaN};
  KeepHeldNoData(kPixelU8, &fitted);
  EXPECT_EQ(fitted, (BandNoData{std::nullopt, 255.0, std::nullopt}));
}

// A one-band raster of `type` holding `values`, with no-data `noData` (which marks cells).
ComPtr<IRaster> Band(LONG type, std::vector<double> values, std::optional<double> noData) {
  const RasterGrid grid{
      0, 0, static_cast<double>(values.size()), 1, static_cast<LONG>(values.size()), 1};
  auto dataset = MakeMemoryDataset(grid, 1, type, [&](LONG, LONG c, LONG) { return values[c]; });
  dataset->Band(0).SetNoData(noData);
  ComPtr<IRaster> raster;
  EXPECT_EQ(dataset->CreateDefaultRaster(&raster), S_OK);
  return raster;
}

TEST(BandCollection, KeepsEveryElementsValuesAndValidity) {
  const struct {
    const char* what;
    LONG typeA;
    std::optional<double> noDataA;
    LONG typeB;
    std::optional<double> noDataB;
    LONG type;                     // of the collection
    std::optional<double> shared;  // the no-data value of every band, when one is safe
  } cases[] = {
      {"same no-data", kPixelU8, 0, kPixelU8, 0, kPixelU8, 0.0},
      {"an image's 0 and a DEM's -9999", kPixelU16, 0, kPixelF32, -9999, kPixelF32, -9999.0},
      {"8-bit 0 and 16-bit -9999", kPixelU8, 0, kPixelS16, -9999, kPixelS16, -9999.0},
      {"unsigned and signed 16 bits", kPixelU16, std::nullopt, kPixelS16, std::nullopt, kPixelS32,
       std::nullopt},
      {"full-range band beside one with no-data", kPixelS16, std::nullopt, kPixelS16, -5.0,
       kPixelS16, std::nullopt},
      {"floats without no-data beside one with", kPixelF32, std::nullopt, kPixelF32, -1.0,
       kPixelF32, kNaN},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const ValueRange a = PixelRange(c.typeA), b = PixelRange(c.typeB);
    // The far ends of each type, but for a no-data value at one of them.
    const double lowA = c.noDataA == a.lowest ? a.lowest + 1 : a.lowest;
    const double lowB = c.noDataB == b.lowest ? b.lowest + 1 : b.lowest;
    ComPtr<IRaster> first = Band(c.typeA, {a.highest, lowA, c.noDataA.value_or(lowA)}, c.noDataA);
    ComPtr<IRaster> second =
        Band(c.typeB, {lowB, c.noDataB.value_or(b.highest), b.highest}, c.noDataB);
    ComPtr<IRaster> collection;
    ASSERT_EQ(CreateBandCollection({{first, 0}, {second, 0}}, &collection), S_OK);
    EXPECT_EQ(PixelTypeOf(collection.Get()), c.type);
    SourceInfo info;
    ASSERT_EQ(collection.As<IRasterSource>()->GetInfo(&info), S_OK);
    if (c.shared) {
      EXPECT_TRUE(SameNoData(info.noData[0], c.shared) && SameNoData(info.noData[1], c.shared));
    } else {
      EXPECT_TRUE(SameNoData(info.noData[0], c.noDataA) && SameNoData(info.noData[1], c.noDataB));
    }
    ComPtr<IPixelBlock> block;
    ASSERT_EQ(CreatePixelBlock(3, 1, 2, c.type, &block), S_OK);
    ASSERT_EQ(collection->ReadAt(0, 0, block.Get()), S_OK);
    const double expected[2][3] = {{a.highest, lowA, c.noDataA.value_or(lowA)},
                                   {lowB, c.noDataB.value_or(b.highest), b.highest}};
    const bool valid[2][3] = {{true, true, !c.noDataA}, {true, !c.noDataB, true}};
    for (LONG band = 0; band < 2; ++band)
      for (std::size_t i = 0; i < 3; ++i) {
        const bool isValid = (block->Mask(band)[0] >> (7 - i)) & 1;
        EXPECT_EQ(isValid, valid[band][i]) << band << " " << i;
        if (isValid) {
          EXPECT_EQ(PixelValue(block.Get(), band, i), expected[band][i]) << band << " " << i;
        } else if (info.noData[band]) {
          // Invalid cells hold the band's no-data value.
          EXPECT_TRUE(SameNoData(PixelValue(block.Get(), band, i), info.noData[band]));
        }
      }
  }
}

}  // namespace
}  // namespace pw::raster
