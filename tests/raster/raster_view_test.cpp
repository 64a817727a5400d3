// Raster views: resampling on known grids, edges and corners, type conversion, the
// streaming invariant, band collections, filters and grown windows.
#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "raster/algorithms/window.h"
#include "raster/band_collection.h"
#include "raster/mask.h"
#include "raster/memory_dataset.h"
#include "raster/pixel_block.h"
#include "raster/raster_view.h"
#include "raster/values/geometry.h"

namespace pw::raster {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// 4 x 4 cells of 10 x 10 map units over (0, 0)-(40, 40); cell (c, r) holds 10 r + c.
RasterGrid Grid4() {
  return RasterGrid{0, 0, 40, 40, 4, 4};
}
double Ramp(LONG, LONG c, LONG r) {
  return 10.0 * r + c;
}

ComPtr<IRaster> View(IRasterDataset* dataset) {
  ComPtr<IRaster> raster;
  EXPECT_EQ(dataset->CreateDefaultRaster(&raster), S_OK);
  return raster;
}

void SetGrid(IRaster* raster, double xmin, double ymin, double xmax, double ymax, LONG columns,
             LONG rows) {
  ComPtr<IRasterProps> props = ComPtr<IRaster>(raster).As<IRasterProps>();
  auto extent = MakeObject<Envelope>();
  extent->PutCoords(xmin, ymin, xmax, ymax);
  ASSERT_EQ(props->put_Extent(extent.As<IEnvelope>().Get()), S_OK);
  ASSERT_EQ(props->put_Width(columns), S_OK);
  ASSERT_EQ(props->put_Height(rows), S_OK);
}

// One row of a band read from a view: values, NaN where invalid.
std::vector<double> ReadRow(IRaster* raster, LONG column, LONG row, LONG width, LONG type = 10) {
  ComPtr<IPixelBlock> block;
  EXPECT_EQ(CreatePixelBlock(width, 1, 1, type, &block), S_OK);
  EXPECT_EQ(raster->ReadAt(column, row, block.Get()), S_OK);
  std::vector<double> out;
  for (LONG i = 0; i < width; ++i)
    out.push_back(mask::Get(block->Mask(0), static_cast<std::size_t>(i))
                      ? PixelValue(block.Get(), 0, i)
                      : kNaN);
  return out;
}

void ExpectRow(const std::vector<double>& actual, const std::vector<double>& expected,
               const char* what) {
  ASSERT_EQ(actual.size(), expected.size()) << what;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (std::isnan(expected[i])) {
      EXPECT_TRUE(std::isnan(actual[i]))
          << what << " cell " << i << " should be invalid, is " << actual[i];
    } else {
      EXPECT_NEAR(actual[i], expected[i], 1e-9) << what << " cell " << i;
    }
  }
}

struct ResampleCase {
  const char* name;
  LONG method;
  double xmin,
      cell;  // the view covers rows like the source but starts at xmin with this cell width
  LONG columns;
  LONG row;  // view row read (cell height stays 10)
  std::vector<double> expected;
};

void PrintTo(const ResampleCase& c, std::ostream* os) {
  *os << c.name;
}

class Resampling : public ::testing::TestWithParam<ResampleCase> {};

TEST_P(Resampling, GivesHandComputedValuesAndMasks) {
  const ResampleCase& c = GetParam();
  auto dataset = MakeMemoryDataset(Grid4(), 1, 9, Ramp);
  const ComPtr<IRaster> view = View(dataset.Get());
  SetGrid(view.Get(), c.xmin, 0, c.xmin + c.cell * c.columns, 40, c.columns, 4);
  ASSERT_EQ(view->put_ResampleMethod(c.method), S_OK);
  ExpectRow(ReadRow(view.Get(), 0, c.row, c.columns), c.expected, c.name);
}

const ResampleCase kResampleCases[] = {
    // Same grid: every code reads the cells as they are.
    {"SameGridNearest", kNearest, 0, 10, 4, 1, {10, 11, 12, 13}},
    {"SameGridBilinear", kBilinear, 0, 10, 4, 1, {10, 11, 12, 13}},
    {"SameGridCubic", kCubic, 0, 10, 4, 1, {10, 11, 12, 13}},
    // Shifted by a quarter cell: centres at source positions c + 0.25.
    {"QuarterShiftNearest", kNearest, 2.5, 10, 4, 2, {20, 21, 22, 23}},
    {"QuarterShiftBilinear", kBilinear, 2.5, 10, 4, 2, {20.25, 21.25, 22.25, kNaN}},
    {"QuarterShiftEdgeExtended", kBilinearEdgeExtended, 2.5, 10, 4, 2, {20.25, 21.25, 22.25, 23}},
    // Cubic convolution reproduces a linear ramp, but needs two cells on each side.
    {"QuarterShiftCubic", kCubic, 2.5, 10, 4, 2, {kNaN, 21.25, kNaN, kNaN}},
    // Shifted by half a cell to the left: the first centre lies on the source's left edge.
    {"HalfShiftLeftNearest", kNearest, -5, 10, 4, 0, {0, 1, 2, 3}},
    {"HalfShiftLeftBilinear", kBilinear, -5, 10, 4, 0, {kNaN, 0.5, 1.5, 2.5}},
    {"HalfShiftLeftEdgeExtended", kBilinearEdgeExtended, -5, 10, 4, 0, {0, 0.5, 1.5, 2.5}},
    // Twice as coarse across: centres midway between two source cells.
    {"CoarserBilinear", kBilinear, 0, 20, 2, 0, {0.5, 2.5}},
    {"CoarserNearest", kNearest, 0, 20, 2, 0, {1, 3}},
    // Twice as fine: centres a quarter cell inside each source cell.
    {"FinerNearest", kNearest, 0, 5, 8, 1, {10, 10, 11, 11, 12, 12, 13, 13}},
    {"FinerBilinear",
     kBilinear,
     0,
     5,
     8,
     1,
     {kNaN, 10.25, 10.75, 11.25, 11.75, 12.25, 12.75, kNaN}},
    {"FinerEdgeExtended",
     kBilinearEdgeExtended,
     0,
     5,
     8,
     1,
     {10, 10.25, 10.75, 11.25, 11.75, 12.25, 12.75, 13}},
    // Hanging over the right edge by two cells.
    {"BeyondRightNearest", kNearest, 20, 10, 4, 3, {32, 33, kNaN, kNaN}},
    {"BeyondRightEdgeExtended", kBilinearEdgeExtended, 20, 10, 4, 3, {32, 33, 33, 33}},
};

INSTANTIATE_TEST_SUITE_P(KnownGrids, Resampling, ::testing::ValuesIn(kResampleCases),
                         [](const auto& p) { return std::string(p.param.name); });

TEST(Resampling, CoarserCellsAverageOrVoteOverTheirFootprint) {
  // Rows 0-1 of the view are 20 units high: bilinear at the centre of 4 source cells.
  auto dataset = MakeMemoryDataset(Grid4(), 1, 9, Ramp);
  const ComPtr<IRaster> view = View(dataset.Get());
  SetGrid(view.Get(), 0, 0, 40, 40, 2, 2);
  ASSERT_EQ(view->put_ResampleMethod(kBilinear), S_OK);
  ExpectRow(ReadRow(view.Get(), 0, 0, 2), {5.5, 7.5}, "bilinear 2x2");
  ExpectRow(ReadRow(view.Get(), 0, 1, 2), {25.5, 27.5}, "bilinear 2x2 second row");

  // Majority over the four source cells of each view cell; ties take the smallest value.
  const double classes[4][4] = {{1, 1, 2, 3}, {1, 2, 3, 3}, {5, 5, 7, 7}, {6, 6, 8, 7}};
  auto categorical =
      MakeMemoryDataset(Grid4(), 1, 3, [&](LONG, LONG c, LONG r) { return classes[r][c]; });
  const ComPtr<IRaster> votes = View(categorical.Get());
  SetGrid(votes.Get(), 0, 0, 40, 40, 2, 2);
  ASSERT_EQ(votes->put_ResampleMethod(kMajority), S_OK);
  ExpectRow(ReadRow(votes.Get(), 0, 0, 2), {1, 3}, "majority top");
  ExpectRow(ReadRow(votes.Get(), 0, 1, 2), {5, 7}, "majority bottom (5 and 6 tie: smallest)");
}

TEST(Resampling, InvalidSourceCellsInvalidateWhatTheyTouch) {
  auto dataset = MakeMemoryDataset(
      Grid4(), 1, 9, [](LONG, LONG c, LONG r) { return c == 1 && r == 1 ? kNaN : Ramp(0, c, r); });
  const ComPtr<IRaster> view = View(dataset.Get());
  ExpectRow(ReadRow(view.Get(), 0, 1, 4), {10, kNaN, 12, 13}, "same grid");
  SetGrid(view.Get(), 2.5, 0, 42.5, 40, 4, 4);
  ASSERT_EQ(view->put_ResampleMethod(kBilinear), S_OK);
  ExpectRow(ReadRow(view.Get(), 0, 1, 4), {kNaN, kNaN, 12.25, kNaN}, "bilinear");
  ASSERT_EQ(view->put_ResampleMethod(kNearest), S_OK);
  ExpectRow(ReadRow(view.Get(), 0, 1, 4), {10, kNaN, 12, 13}, "nearest");
}

TEST(RasterView, WindowsOverEveryEdgeAndCornerAreInvalidOrEdgeExtended) {
  auto dataset = MakeMemoryDataset(Grid4(), 1, 9, Ramp);
  const ComPtr<IRaster> view = View(dataset.Get());
  // A 6 x 6 read from (-1, -1) covers the whole raster with a one-cell ring outside.
  for (LONG method : {LONG{kNearest}, LONG{kBilinear}, LONG{kBilinearEdgeExtended}}) {
    ASSERT_EQ(view->put_ResampleMethod(method), S_OK);
    ComPtr<IPixelBlock> block;
    ASSERT_EQ(CreatePixelBlock(6, 6, 1, 9, &block), S_OK);
    ASSERT_EQ(view->ReadAt(-1, -1, block.Get()), S_OK);
    for (LONG r = 0; r < 6; ++r) {
      for (LONG c = 0; c < 6; ++c) {
        const std::size_t i = static_cast<std::size_t>(r * 6 + c);
        const bool outside = r == 0 || c == 0 || r == 5 || c == 5;
        const LONG sc = std::clamp<LONG>(c - 1, 0, 3), sr = std::clamp<LONG>(r - 1, 0, 3);
        if (outside && method != kBilinearEdgeExtended) {
          EXPECT_FALSE(mask::Get(block->Mask(0), i)) << method << " (" << c << "," << r << ")";
          EXPECT_EQ(PixelValue(block.Get(), 0, i), 0);
        } else {
          EXPECT_TRUE(mask::Get(block->Mask(0), i)) << method << " (" << c << "," << r << ")";
          EXPECT_EQ(PixelValue(block.Get(), 0, i), Ramp(0, sc, sr))
              << method << " (" << c << "," << r << ")";
        }
      }
    }
  }
}

TEST(RasterView, InvalidPixelsTakeTheViewsNoDataValue) {
  auto dataset = MakeMemoryDataset(Grid4(), 1, 5, Ramp);
  dataset->Band(0).SetNoData(11.0);  // cells holding 11 read as invalid
  const ComPtr<IRaster> view = View(dataset.Get());
  ComPtr<IRasterProps> props = view.As<IRasterProps>();
  props->put_NoDataValue(Variant(65535.0));
  ComPtr<IPixelBlock> block;
  ASSERT_EQ(CreatePixelBlock(5, 1, 1, 5, &block), S_OK);
  ASSERT_EQ(view->ReadAt(0, 1, block.Get()), S_OK);
  const double expected[] = {10, 65535, 12, 13, 65535};
  for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(PixelValue(block.Get(), 0, i), expected[i]) << i;
  EXPECT_EQ(mask::Count(block->Mask(0), 5), 3u);
}

TEST(RasterView, PropertiesChangeTheGridAsDocumented) {
  auto dataset = MakeMemoryDataset(Grid4(), 2, 3, Ramp);
  const ComPtr<IRaster> view = View(dataset.Get());
  ComPtr<IRasterProps> props = view.As<IRasterProps>();
  LONG bands = 0, type = 0;
  props->get_BandCount(&bands);
  props->get_PixelType(&type);
  EXPECT_EQ(bands, 2);
  EXPECT_EQ(type, 3);
  props->put_Width(8);
  ComPtr<IPnt> cell;
  props->get_MeanCellSize(&cell);
  double x = 0, y = 0;
  cell->QueryCoords(&x, &y);
  EXPECT_EQ(x, 5);
  EXPECT_EQ(y, 10);
  auto size = MakeObject<Pnt>();
  size->PutCoords(20, 20);
  ASSERT_EQ(props->put_MeanCellSize(size.As<IPnt>().Get()), S_OK);
  LONG w = 0, h = 0;
  props->get_Width(&w);
  props->get_Height(&h);
  EXPECT_EQ(w, 2);
  EXPECT_EQ(h, 2);
  EXPECT_EQ(props->put_PixelType(11), E_INVALIDARG);
  EXPECT_EQ(view->put_ResampleMethod(5), E_INVALIDARG);
  ComPtr<IPixelBlock> block;
  ASSERT_EQ(CreatePixelBlock(2, 2, 3, 3, &block), S_OK);
  EXPECT_EQ(view->ReadAt(0, 0, block.Get()), E_INVALIDARG);  // more bands than the view
}

// ------------------------------------------------------------------------------------------
// Conversion at the edges of every type's range.

TEST(ReadConversion, RoundsHalfAwayFromZeroThenClampsOrPassesFloatsThrough) {
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    LONG type;
    double in;
    double out;  // NaN: invalid
  } cases[] = {
      {0, -0.5, 0},
      {0, 0.5, 1},
      {0, 7, 1},
      {1, 3.49, 3},
      {1, 3.5, 3},
      {2, 15.5, 15},
      {2, -inf, 0},
      {3, 254.5, 255},
      {3, 255.5, 255},
      {3, -1, 0},
      {3, inf, 255},
      {3, kNaN, kNaN},
      {4, -128.5, -128},
      {4, -127.5, -128},
      {4, 127.4, 127},
      {4, 2.5, 3},
      {4, -2.5, -3},
      {5, 65535.5, 65535},
      {5, -0.4, 0},
      {6, -32768.6, -32768},
      {6, 32767.5, 32767},
      {6, kNaN, kNaN},
      {7, 4294967295.7, 4294967295.0},
      {7, -inf, 0},
      {8, -2147483648.9, -2147483648.0},
      {8, 2147483647.5, 2147483647.0},
      {8, inf, 2147483647.0},
      {9, 0.1, static_cast<double>(0.1f)},
      {9, 1e300, inf},
      {9, -inf, -inf},
      {9, kNaN, kNaN},
      {10, 1e300, 1e300},
      {10, -0.5, -0.5},
  };
  for (const auto& c : cases) {
    double got = 0;
    bool valid = true;
    VisitPixelType(c.type, [&](auto tag) {
      using T = typename decltype(tag)::type;
      got = static_cast<double>(ConvertValue<T>(c.in, PixelRange(c.type), &valid));
    });
    if (std::isnan(c.out)) {
      if (IsIntegerPixelType(c.type)) {
        EXPECT_FALSE(valid) << "type " << c.type;
      } else {
        EXPECT_TRUE(std::isnan(got)) << "type " << c.type;
      }
    } else {
      EXPECT_TRUE(valid) << "type " << c.type << " in " << c.in;
      EXPECT_EQ(got, c.out) << "type " << c.type << " in " << c.in;
    }
  }
}

TEST(ReadConversion, ViewsConvertToTheirPixelType) {
  auto dataset = MakeMemoryDataset(RasterGrid{0, 0, 4, 1, 4, 1}, 1, 10, [](LONG, LONG c, LONG) {
    const double values[] = {-1.5, 255.5, kNaN, 100.49};
    return values[c];
  });
  const ComPtr<IRaster> view = View(dataset.Get());
  view.As<IRasterProps>()->put_PixelType(3);
  ComPtr<IPixelBlock> block;
  ASSERT_EQ(view->CreatePixelBlock(4, 1, &block), S_OK);
  ASSERT_EQ(view->ReadAt(0, 0, block.Get()), S_OK);
  const auto* bytes = static_cast<const std::uint8_t*>(block->Buffer(0));
  EXPECT_EQ(bytes[0], 0);
  EXPECT_EQ(bytes[1], 255);
  EXPECT_EQ(bytes[3], 100);
  EXPECT_FALSE(mask::Get(block->Mask(0), 2));
}

// ------------------------------------------------------------------------------------------
// Streaming invariant: any tiling and concurrent reads give the whole read.

std::vector<double> ReadTiled(IRaster* raster, LONG width, LONG height, LONG tileW, LONG tileH) {
  std::vector<double> out(static_cast<std::size_t>(width * height));
  for (LONG r = 0; r < height; r += tileH) {
    for (LONG c = 0; c < width; c += tileW) {
      const LONG w = std::min(tileW, width - c), h = std::min(tileH, height - r);
      ComPtr<IPixelBlock> block;
      EXPECT_EQ(CreatePixelBlock(w, h, 1, 9, &block), S_OK);
      EXPECT_EQ(raster->ReadAt(c, r, block.Get()), S_OK);
      for (LONG y = 0; y < h; ++y)
        for (LONG x = 0; x < w; ++x) {
          const std::size_t i = static_cast<std::size_t>(y * w + x);
          out[static_cast<std::size_t>((r + y) * width + c + x)] =
              mask::Get(block->Mask(0), i) ? PixelValue(block.Get(), 0, i) : -12345.0;
        }
    }
  }
  return out;
}

TEST(StreamingInvariant, TilingsAndThreadsGiveTheWholeRead) {
  // A terrain-like surface with holes, viewed on a shifted, finer grid with every method.
  const RasterGrid grid{1000, 2000, 1000 + 30 * 97, 2000 + 30 * 61, 97, 61};
  auto dataset = MakeMemoryDataset(grid, 1, 6, [](LONG, LONG c, LONG r) {
    if ((c * 7 + r * 3) % 41 == 0) return kNaN;
    return 500 + 40 * std::sin(c / 9.0) + 30 * std::cos(r / 7.0) + (c % 5);
  });
  for (LONG method = kNearest; method <= kBilinearEdgeExtended; ++method) {
    const ComPtr<IRaster> view = View(dataset.Get());
    SetGrid(view.Get(), 1000 - 37, 2000 + 11, 1000 - 37 + 22.5 * 140, 2000 + 11 + 22.5 * 90, 140,
            90);
    view->put_ResampleMethod(method);
    view.As<IRasterProps>()->put_PixelType(9);
    const auto whole = ReadTiled(view.Get(), 140, 90, 140, 90);
    EXPECT_EQ(ReadTiled(view.Get(), 140, 90, 1, 1), whole) << "1x1, method " << method;
    EXPECT_EQ(ReadTiled(view.Get(), 140, 90, 7, 13), whole) << "7x13, method " << method;
    EXPECT_EQ(ReadTiled(view.Get(), 140, 90, 256, 256), whole) << "256x256, method " << method;
    std::vector<std::vector<double>> results(8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
      threads.emplace_back(
          [&, t] { results[t] = ReadTiled(view.Get(), 140, 90, 5 + t, 3 + 2 * t); });
    for (auto& t : threads) t.join();
    for (int t = 0; t < 8; ++t)
      EXPECT_EQ(results[t], whole) << "thread " << t << ", method " << method;
  }
}

// ------------------------------------------------------------------------------------------
// Band collections.

LONG BandValueAt(IRaster* raster, LONG band) {
  ComPtr<IRasterProps> props = ComPtr<IRaster>(raster).As<IRasterProps>();
  LONG bands = 0;
  props->get_BandCount(&bands);
  ComPtr<IPixelBlock> block;
  EXPECT_EQ(raster->CreatePixelBlock(1, 1, &block), S_OK);
  EXPECT_EQ(raster->ReadAt(0, 0, block.Get()), S_OK);
  return static_cast<LONG>(PixelValue(block.Get(), band, 0));
}

// Band b of dataset k holds 100 k + b everywhere.
ComPtr<IRaster> Constant(LONG k, LONG bands, LONG type = 5) {
  auto d =
      MakeMemoryDataset(Grid4(), bands, type, [k](LONG b, LONG, LONG) { return 100.0 * k + b; });
  return View(d.Get());
}

TEST(BandCollection, StacksTheChosenBandsInOrder) {
  const ComPtr<IRaster> three = Constant(1, 3), one = Constant(2, 1);
  std::vector<BandReference> bands;
  ASSERT_EQ(AppendBands(three.Get(), &bands), S_OK);
  ASSERT_EQ(AppendBands(one.Get(), &bands), S_OK);
  bands.push_back(BandReference{three, 0});
  ComPtr<IRaster> stack;
  ASSERT_EQ(CreateBandCollection(bands, &stack), S_OK);
  const LONG expected[] = {100, 101, 102, 200, 100};
  for (LONG b = 0; b < 5; ++b) EXPECT_EQ(BandValueAt(stack.Get(), b), expected[b]) << b;
  ComPtr<IRaster> none;
  EXPECT_EQ(CreateBandCollection({BandReference{three, 3}}, &none), E_FAIL);  // no band 3
}

TEST(BandCollection, TakesTheLargestPixelTypeAndTheFirstGrid) {
  const ComPtr<IRaster> bytes = Constant(1, 1, 3), floats = Constant(2, 1, 9);
  SetGrid(floats.Get(), 0, 0, 40, 40, 8, 8);  // another grid: resampled onto the first
  ComPtr<IRaster> stack;
  ASSERT_EQ(CreateBandCollection({BandReference{bytes, 0}, BandReference{floats, 0}}, &stack),
            S_OK);
  ComPtr<IRasterProps> props = stack.As<IRasterProps>();
  LONG type = 0, width = 0;
  props->get_PixelType(&type);
  props->get_Width(&width);
  EXPECT_EQ(type, 9);
  EXPECT_EQ(width, 4);
  EXPECT_EQ(BandValueAt(stack.Get(), 1), 200);
}

TEST(BandCollection, FirstBandAndBandMatchedViewsRepeatTheRightBands) {
  const ComPtr<IRaster> three = Constant(1, 3), one = Constant(2, 1), two = Constant(3, 2);
  ComPtr<IRaster> first;
  ASSERT_EQ(CreateFirstBandView(three.Get(), &first), S_OK);
  LONG bands = 0;
  first.As<IRasterProps>()->get_BandCount(&bands);
  EXPECT_EQ(bands, 1);
  EXPECT_EQ(BandValueAt(first.Get(), 0), 100);

  ComPtr<IRaster> matchedOne, matchedTwo, same;
  ASSERT_EQ(CreateBandMatchedView(one.Get(), 3, &matchedOne), S_OK);
  ASSERT_EQ(CreateBandMatchedView(two.Get(), 4, &matchedTwo), S_OK);
  ASSERT_EQ(CreateBandMatchedView(three.Get(), 2, &same), S_OK);
  for (LONG b = 0; b < 3; ++b) EXPECT_EQ(BandValueAt(matchedOne.Get(), b), 200) << b;
  const LONG expectedTwo[] = {300, 301, 301, 301};
  for (LONG b = 0; b < 4; ++b) EXPECT_EQ(BandValueAt(matchedTwo.Get(), b), expectedTwo[b]) << b;
  EXPECT_EQ(same.Get(), three.Get());
}

// ------------------------------------------------------------------------------------------
// Filters and grown windows.

// Sums each cell's 3 x 3 neighbourhood; invalid if any of the nine is invalid.
class BoxSum : public IRasterFilter {
 public:
  using Interfaces = InterfaceList<IRasterFilter>;
  HRESULT STDMETHODCALLTYPE Filter(IRaster* source, LONG column, LONG row,
                                   IPixelBlock* out) override {
    BlockShape s;
    GetShape(out, &s);
    // Reading the view the filter is attached to would filter again: the source is plain.
    ComPtr<IRasterFilter> attached;
    source->get_Filter(&attached);
    if (attached) return E_UNEXPECTED;
    ComPtr<IPixelBlock> in;
    PW_RETURN_IF_FAILED(
        ReadGrownWindow(source, column, row, s.width, s.height, 1, false, s.pixelType, &in));
    const auto* src = static_cast<const double*>(in->Buffer(0));
    auto* dst = static_cast<double*>(out->Buffer(0));
    for (LONG r = 0; r < s.height; ++r)
      for (LONG c = 0; c < s.width; ++c) {
        double sum = 0;
        bool valid = true;
        for (LONG dy = 0; dy < 3; ++dy)
          for (LONG dx = 0; dx < 3; ++dx) {
            const std::size_t i = static_cast<std::size_t>((r + dy) * (s.width + 2) + c + dx);
            valid = valid && mask::Get(in->Mask(0), i);
            sum += src[i];
          }
        dst[r * s.width + c] = sum;
        mask::Put(out->Mask(0), static_cast<std::size_t>(r * s.width + c), valid);
      }
    return S_OK;
  }
};

TEST(RasterView, AnAttachedFilterReadsItsMargin) {
  auto dataset = MakeMemoryDataset(Grid4(), 1, 10, Ramp);
  const ComPtr<IRaster> view = View(dataset.Get());
  ASSERT_EQ(view->putref_Filter(MakeObject<BoxSum>().As<IRasterFilter>().Get()), S_OK);
  // Cell (1, 1)'s neighbourhood holds 0 1 2 / 10 11 12 / 20 21 22: the sum is 99.
  ExpectRow(ReadRow(view.Get(), 0, 1, 4), {kNaN, 99, 108, kNaN}, "box sum");
}

TEST(GrownWindow, BordersAreInvalidOrEdgeExtended) {
  auto dataset = MakeMemoryDataset(Grid4(), 1, 10, Ramp);
  const ComPtr<IRaster> view = View(dataset.Get());
  for (bool extend : {false, true}) {
    ComPtr<IPixelBlock> block;
    ASSERT_EQ(ReadGrownWindow(view.Get(), 0, 0, 2, 2, 1, extend, 10, &block), S_OK);
    // 4 x 4 from (-1, -1): row 0 and column 0 lie outside.
    for (LONG r = 0; r < 4; ++r)
      for (LONG c = 0; c < 4; ++c) {
        const std::size_t i = static_cast<std::size_t>(r * 4 + c);
        const bool outside = r == 0 || c == 0;
        EXPECT_EQ(mask::Get(block->Mask(0), i), extend || !outside) << r << "," << c;
        if (extend || !outside) {
          EXPECT_EQ(PixelValue(block.Get(), 0, i),
                    Ramp(0, std::max<LONG>(c - 1, 0), std::max<LONG>(r - 1, 0)));
        }
      }
  }
}

}  // namespace
}  // namespace pw::raster
