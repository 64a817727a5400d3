// Masks, pixel blocks, statistics, tables and in-memory datasets.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "raster/algorithms/statistics.h"
#include "raster/mask.h"
#include "raster/memory_dataset.h"
#include "raster/pixel_block.h"
#include "raster/table.h"

namespace pw::raster {
namespace {

TEST(Mask, WordOperationsAgreeWithBitByBitOnes) {
  std::mt19937 random(3);
  // Runs that end inside their first byte: a hole just past the run does not count, one at
  // its last pixel does.
  for (std::size_t first : {1, 3, 6})
    for (std::size_t count : {1, 2}) {
      std::uint8_t run[2];
      mask::Fill(run, 16, true);
      mask::Clear(run, first + count);
      EXPECT_TRUE(mask::AllValid(run, first, count)) << first << " + " << count;
      mask::Clear(run, first + count - 1);
      EXPECT_FALSE(mask::AllValid(run, first, count)) << first << " + " << count;
    }
  for (std::size_t pixels : {std::size_t{1}, std::size_t{7}, std::size_t{8}, std::size_t{63},
                             std::size_t{64}, std::size_t{65}, std::size_t{1000}}) {
    std::vector<std::uint8_t> a(mask::Bytes(pixels)), b(mask::Bytes(pixels));
    mask::Fill(a.data(), pixels, false);
    mask::Fill(b.data(), pixels, false);
    std::vector<bool> ea(pixels), eb(pixels);
    for (std::size_t i = 0; i < pixels; ++i) {
      ea[i] = random() % 3 != 0;
      eb[i] = random() % 2 != 0;
      mask::Put(a.data(), i, ea[i]);
      mask::Put(b.data(), i, eb[i]);
    }
    std::size_t expectedCount = 0;
    for (bool v : ea) expectedCount += v;
    EXPECT_EQ(mask::Count(a.data(), pixels), expectedCount) << pixels;
    EXPECT_EQ(mask::AnyValid(a.data(), pixels), expectedCount > 0) << pixels;
    auto u = a, n = a;
    mask::Union(u.data(), b.data(), u.size());
    mask::Intersect(n.data(), b.data(), n.size());
    for (std::size_t i = 0; i < pixels; ++i) {
      EXPECT_EQ(mask::Get(u.data(), i), ea[i] || eb[i]);
      EXPECT_EQ(mask::Get(n.data(), i), ea[i] && eb[i]);
    }
    // Packing validity bytes into any run of bits leaves the bits around the run alone.
    for (std::size_t first : {std::size_t{0}, std::size_t{3}, pixels / 2}) {
      if (first > pixels) continue;
      const std::size_t count = pixels - first;
      std::vector<std::uint8_t> bytes(count);
      for (auto& v : bytes) v = static_cast<std::uint8_t>(random() % 2);
      auto packed = b;
      mask::Pack(packed.data(), first, bytes.data(), count);
      for (std::size_t i = 0; i < pixels; ++i)
        EXPECT_EQ(mask::Get(packed.data(), i), i < first ? bool(eb[i]) : bytes[i - first] != 0)
            << pixels << " from " << first << " at " << i;
      // Reading a run back at the same offset gives the bytes, and the run is all valid
      // exactly when no byte is 0 (with a hole at its first or its last pixel, then none).
      std::vector<std::uint8_t> unpacked(count, 7);
      mask::Unpack(packed.data(), first, count, unpacked.data());
      EXPECT_EQ(unpacked, bytes) << pixels << " from " << first;
      for (int hole : {-1, 0, 1}) {
        auto run = packed;
        for (std::size_t i = first; i < pixels; ++i) mask::Set(run.data(), i);
        if (hole == 0) mask::Clear(run.data(), first);
        if (hole == 1) mask::Clear(run.data(), pixels - 1);
        const bool whole = hole == -1 || count == 0;
        EXPECT_EQ(mask::AllValid(run.data(), first, count), whole)
            << pixels << " from " << first << " hole " << hole;
        if (first > 0) {
          mask::Clear(run.data(), first - 1);  // a hole just before the run does not count
          EXPECT_EQ(mask::AllValid(run.data(), first, count), whole) << pixels;
        }
      }
    }
    // Filling invalid values: sparse holes among whole words of valid pixels, and the
    // random mask.
    for (bool sparse : {true, false}) {
      auto holes = a;
      if (sparse) {
        mask::Fill(holes.data(), pixels, true);
        for (std::size_t i = 5; i < pixels; i += 97) mask::Clear(holes.data(), i);
      }
      std::vector<int> values(pixels, 1);
      mask::FillInvalid(values.data(), holes.data(), pixels, -1);
      for (std::size_t i = 0; i < pixels; ++i)
        EXPECT_EQ(values[i], mask::Get(holes.data(), i) ? 1 : -1) << pixels << " at " << i;
    }
    mask::Fill(a.data(), pixels, true);
    EXPECT_TRUE(mask::AllValid(a.data(), pixels));
    EXPECT_EQ(mask::Count(a.data(), pixels), pixels);  // bits past the end stay clear
    mask::Clear(a.data(), pixels - 1);
    EXPECT_FALSE(mask::AllValid(a.data(), pixels));
    // Only the last pixel valid, and then none: bits past the end do not count.
    auto last = a;
    mask::Fill(last.data(), pixels, false);
    mask::Set(last.data(), pixels - 1);
    EXPECT_TRUE(mask::AnyValid(last.data(), pixels));
    mask::Clear(last.data(), pixels - 1);
    if (pixels % 8 != 0) last.back() |= static_cast<std::uint8_t>(0xFF >> (pixels % 8));
    EXPECT_FALSE(mask::AnyValid(last.data(), pixels));
  }
  std::uint8_t first = 0;
  mask::Set(&first, 0);
  EXPECT_EQ(first, 0x80);  // most significant bit first
}

TEST(PixelBlock, ConvertsBetweenTypesAndRefusesBadShapes) {
  ComPtr<IPixelBlock> floats, bytes, other;
  ASSERT_EQ(CreatePixelBlock(3, 1, 1, 9, &floats), S_OK);
  auto* f = static_cast<float*>(floats->Buffer(0));
  f[0] = -3.5f;
  f[1] = 300.2f;
  f[2] = std::numeric_limits<float>::quiet_NaN();
  ASSERT_EQ(CreatePixelBlock(3, 1, 1, 4, &bytes), S_OK);
  ASSERT_EQ(ConvertPixelBlock(floats.Get(), bytes.Get()), S_OK);
  const auto* b = static_cast<const std::int8_t*>(bytes->Buffer(0));
  EXPECT_EQ(b[0], -4);
  EXPECT_EQ(b[1], 127);
  EXPECT_EQ(mask::Count(bytes->Mask(0), 3), 2u);
  EXPECT_EQ(floats->Buffer(1), nullptr);
  ASSERT_EQ(CreatePixelBlock(2, 1, 1, 4, &other), S_OK);
  EXPECT_EQ(ConvertPixelBlock(floats.Get(), other.Get()), E_INVALIDARG);
  EXPECT_EQ(CreatePixelBlock(2, 2, 1, 11, &other), E_INVALIDARG);
  EXPECT_EQ(CreatePixelBlock(-1, 2, 1, 3, &other), E_INVALIDARG);
}

TEST(PixelBlock, WrappedMemoryStartsLikeANewBlockAndUnfilledBlocksHaveTheirShape) {
  // A wrapped block starts at 0 and all valid whatever the caller's memory held, and a
  // read into it lands in that memory.
  std::vector<std::int16_t> values(6, -7);
  std::vector<BYTE> bits(1, 0);
  ComPtr<IPixelBlock> wrapped;
  ASSERT_EQ(WrapPixelBlock(3, 2, 6, values.data(), bits.data(), &wrapped), S_OK);
  EXPECT_EQ(values, std::vector<std::int16_t>(6, 0));
  EXPECT_TRUE(mask::AllValid(bits.data(), 6));
  static_cast<std::int16_t*>(wrapped->Buffer(0))[4] = 12;
  EXPECT_EQ(values[4], 12);
  EXPECT_EQ(wrapped->Buffer(1), nullptr);
  LONG bands = 0;
  wrapped->get_BandCount(&bands);
  EXPECT_EQ(bands, 1);
  EXPECT_EQ(WrapPixelBlock(3, 2, 6, nullptr, bits.data(), &wrapped), E_INVALIDARG);
  EXPECT_EQ(WrapPixelBlock(3, 2, 42, values.data(), bits.data(), &wrapped), E_INVALIDARG);
  // Unfilled, the memory stays as it was for a read that writes all of it.
  std::fill(values.begin(), values.end(), std::int16_t{-7});
  bits[0] = 0x0F;
  ASSERT_EQ(WrapUnfilledPixelBlock(3, 2, 6, values.data(), bits.data(), &wrapped), S_OK);
  EXPECT_EQ(values, std::vector<std::int16_t>(6, -7));
  EXPECT_EQ(bits[0], 0x0F);
  EXPECT_EQ(wrapped->Buffer(0), values.data());
  EXPECT_EQ(WrapUnfilledPixelBlock(3, 2, 6, values.data(), nullptr, &wrapped), E_INVALIDARG);

  ComPtr<IPixelBlock> unfilled;
  ASSERT_EQ(CreateUnfilledPixelBlock(5, 4, 2, 9, &unfilled), S_OK);
  BlockShape shape;
  ASSERT_EQ(GetShape(unfilled.Get(), &shape), S_OK);
  EXPECT_EQ(shape.Pixels(), 20u);
  EXPECT_EQ(shape.bands, 2);
  EXPECT_NE(unfilled->Buffer(1), nullptr);
  EXPECT_EQ(CreateUnfilledPixelBlock(5, -1, 2, 9, &unfilled), E_INVALIDARG);
}

TEST(PixelTypes, ShareOneInstantiationForTheByteCodes) {
  int visits = 0;
  std::size_t sizes[11] = {};
  for (LONG code = 0; code <= 10; ++code) {
    EXPECT_TRUE(VisitPixelType(code, [&](auto tag) {
      sizes[code] = sizeof(typename decltype(tag)::type);
      ++visits;
    }));
    EXPECT_EQ(sizes[code], PixelSize(code));
  }
  EXPECT_EQ(visits, 11);
  EXPECT_FALSE(VisitPixelType(11, [](auto) {}));
  EXPECT_FALSE(VisitPixelType(-1, [](auto) {}));
  EXPECT_EQ(PixelRange(1).highest, 3);
  EXPECT_EQ(PixelRange(7).highest, 4294967295.0);
}

TEST(Statistics, CountOnlyValidPixelsAndUsePopulationDeviation) {
  const RasterGrid grid{0, 0, 4, 1, 4, 1};
  auto dataset = MakeMemoryDataset(grid, 1, 6, [](LONG, LONG c, LONG) {
    const double v[] = {2, 4, std::nan(""), -9999};
    return v[c];
  });
  dataset->Band(0).SetNoData(-9999.0);
  ComPtr<IRasterBand> band;
  ASSERT_EQ(dataset->GetBand(0, &band), S_OK);
  ASSERT_EQ(band->ComputeStatisticsHistogram(), S_OK);
  ComPtr<IRasterStatistics> s;
  ASSERT_EQ(band->get_Statistics(&s), S_OK);
  double v = 0;
  s->get_Minimum(&v);
  EXPECT_EQ(v, 2);
  s->get_Maximum(&v);
  EXPECT_EQ(v, 4);
  s->get_Mean(&v);
  EXPECT_EQ(v, 3);
  s->get_StandardDeviation(&v);
  EXPECT_EQ(v, 1);
  ComPtr<IRasterHistogram> h;
  ASSERT_EQ(band->get_Histogram(&h), S_OK);
  LONG bins = 0;
  h->get_BinCount(&bins);
  EXPECT_EQ(bins, 256);

  // The same through a raster view read in strips, and through a block.
  ComPtr<IRaster> view;
  ASSERT_EQ(dataset->CreateDefaultRaster(&view), S_OK);
  ComPtr<IRasterStatistics> viaView;
  ComPtr<IRasterHistogram> histogram;
  ASSERT_EQ(ComputeRasterStatistics(view.Get(), 0, &viaView, &histogram, 1), S_OK);
  viaView->get_Mean(&v);
  EXPECT_EQ(v, 3);
  ComPtr<IDoubleArray> counts;
  h->get_Counts(&counts);
  double first = 0, last = 0;
  counts->get_Element(0, &first);
  counts->get_Element(255, &last);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(last, 1);
}

TEST(Statistics, ByteTypesGetOneBinPerValue) {
  auto dataset = MakeMemoryDataset(RasterGrid{0, 0, 3, 1, 3, 1}, 1, 3,
                                   [](LONG, LONG c, LONG) { return c * 100.0; });
  ComPtr<IPixelBlock> block;
  ComPtr<IRaster> view;
  dataset->CreateDefaultRaster(&view);
  view->CreatePixelBlock(3, 1, &block);
  view->ReadAt(0, 0, block.Get());
  ComPtr<IRasterHistogram> h;
  ASSERT_EQ(ComputeBlockStatistics(block.Get(), 0, nullptr, &h), S_OK);
  double lo = 1, hi = 0;
  h->get_Minimum(&lo);
  h->get_Maximum(&hi);
  EXPECT_EQ(lo, 0);
  EXPECT_EQ(hi, 255);
  ComPtr<IDoubleArray> counts;
  h->get_Counts(&counts);
  double at200 = 0;
  counts->get_Element(200, &at200);
  EXPECT_EQ(at200, 1);
}

TEST(Table, LoadsCsvWithTypedFields) {
  ComPtr<ITable> table;
  ASSERT_EQ(LoadTableFromCsv("Value,Name,Weight\r\n1,\"water, deep\",0.5\n2,Forest,1\n", &table),
            S_OK);
  LONG fields = 0, rows = 0, index = -1, type = -1;
  table->get_FieldCount(&fields);
  table->get_RowCount(&rows);
  EXPECT_EQ(fields, 3);
  EXPECT_EQ(rows, 2);
  Bstr name;
  table->GetField(0, &name, &type);
  EXPECT_EQ(type, kFieldLong);
  table->GetField(2, &name, &type);
  EXPECT_EQ(type, kFieldDouble);
  ASSERT_EQ(table->FindField(Bstr(u"NAME").Get(), &index), S_OK);
  EXPECT_EQ(index, 1);
  EXPECT_EQ(table->FindField(Bstr(u"Missing").Get(), &index), S_FALSE);
  ComPtr<IRow> row;
  ASSERT_EQ(table->GetRow(0, &row), S_OK);
  Variant v;
  row->get_Value(1, &v);
  EXPECT_EQ(v.ToString(), u"water, deep");
  EXPECT_EQ(row->put_Value(0, Variant(u"not a number")), E_INVALIDARG);
  ComPtr<ITable> bad;
  EXPECT_EQ(LoadTableFromCsv("a,b\n1\n", &bad), E_INVALIDARG);
  EXPECT_NE(ToUtf8(TakeErrorDescription()).find("line 2"), std::string::npos);
  EXPECT_EQ(LoadTableFromCsv("a\n\"open\n", &bad), E_INVALIDARG);
  ClearErrorInfo();
}

TEST(MemoryDataset, BandsCarryNamesPropertiesColormapsAndTables) {
  auto dataset =
      MakeMemoryDataset(RasterGrid{0, 0, 2, 2, 2, 2}, 2, 3, [](LONG b, LONG, LONG) { return b; });
  LONG count = 0;
  dataset->get_BandCount(&count);
  EXPECT_EQ(count, 2);
  ComPtr<IRasterBand> band;
  ASSERT_EQ(dataset->GetBand(1, &band), S_OK);
  band->put_Name(Bstr(u"NIR").Get());
  Bstr name;
  band->get_Name(&name);
  EXPECT_EQ(name.View(), u"NIR");
  ComPtr<IPropertySet> properties;
  ASSERT_EQ(band->get_Properties(&properties), S_OK);
  properties->SetProperty(Bstr(u"WavelengthMin").Get(), Variant(760.0));
  ComPtr<ITable> table;
  ASSERT_EQ(LoadTableFromCsv("Value,Class\n1,Water\n", &table), S_OK);
  band->put_AttributeTable(table.Get());
  ComPtr<ITable> back;
  band->get_AttributeTable(&back);
  EXPECT_EQ(back.Get(), table.Get());
  EXPECT_EQ(dataset->GetBand(2, &band), E_INVALIDARG);
}

TEST(MemoryDataset, SmallAndLargeBandsStartAtZeroAndKeepTheirCells) {
  // 1500 x 1500 floats (9 MB) come from the large allocations, 16 x 16 from plain ones.
  for (const LONG side : {16, 1500}) {
    const RasterGrid grid{0, 0, static_cast<double>(side), static_cast<double>(side), side, side};
    auto zero = MakeObject<MemoryDataset>(u"zero", grid, 1, kPixelF32, nullptr);
    const float* z = zero->Band(0).Data<float>();
    EXPECT_TRUE(std::all_of(z, z + side * side, [](float v) { return v == 0; })) << side;
    auto dataset = MakeMemoryDataset(grid, 2, kPixelF32, [&](LONG b, LONG c, LONG r) {
      return static_cast<double>(b * 1000000 + r * side + c);
    });
    for (LONG b = 0; b < 2; ++b) {
      const float* v = dataset->Band(b).Data<float>();
      EXPECT_EQ(v[0], static_cast<float>(b * 1000000)) << side;
      EXPECT_EQ(v[side * side - 1], static_cast<float>(b * 1000000 + side * side - 1)) << side;
    }
  }
}

}  // namespace
}  // namespace pw::raster
