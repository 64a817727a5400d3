// Display rendering: what each kind of raster shows as, and where cells are transparent.
#include "framework/display.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "raster/memory_dataset.h"

namespace pw::framework::display {
namespace {

// A dataset of `bands` bands of `type` over 10 x 10 cells, each cell's value from `fill`
// (NaN: invalid).
template <class Fill>
ComPtr<IRaster> Raster(LONG type, LONG bands, Fill fill) {
  const raster::RasterGrid grid{0, 0, 10, 10, 10, 10};
  auto dataset = raster::MakeMemoryDataset(grid, bands, type, fill);
  ComPtr<IRaster> view;
  dataset->CreateDefaultRaster(&view);
  return view;
}

Picture Show(IRaster* raster, Style style = {}) {
  Renderer renderer;
  EXPECT_EQ(renderer.Prepare(raster, style), S_OK);
  Picture picture;
  EXPECT_EQ(renderer.Render(renderer.FittingGrid(1024), &picture), S_OK);
  return picture;
}

const std::uint8_t* Pixel(const Picture& p, int column, int row) {
  return &p.rgba[4 * static_cast<std::size_t>(row * p.width + column)];
}

TEST(Display, EightBitBandsShowTheirValuesAndInvalidCellsAreTransparent) {
  const auto raster = Raster(3, 1, [](LONG, LONG c, LONG r) {
    return r == 4 && c == 4 ? std::nan("") : static_cast<double>(r * 10 + c);
  });
  const Picture p = Show(raster.Get());
  ASSERT_EQ(p.width, 10);
  ASSERT_EQ(p.height, 10);
  for (int r = 0; r < 10; ++r)
    for (int c = 0; c < 10; ++c) {
      const std::uint8_t* px = Pixel(p, c, r);
      if (r == 4 && c == 4) {
        EXPECT_EQ(px[3], 0);
        continue;
      }
      EXPECT_EQ(px[3], 255);
      for (int k = 0; k < 3; ++k) EXPECT_EQ(px[k], r * 10 + c) << c << "," << r;
    }
}

TEST(Display, OtherTypesAreStretchedAcrossTheWholeGreyScale) {
  for (LONG type : {5L, 6L, 9L, 10L}) {
    const auto raster =
        Raster(type, 1, [](LONG, LONG c, LONG r) { return 1000.0 + 7.0 * (r * 10 + c); });
    Style style;
    style.clipPercent = 0;
    const Picture p = Show(raster.Get(), style);
    EXPECT_EQ(Pixel(p, 0, 0)[0], 0) << "type " << type;
    EXPECT_EQ(Pixel(p, 9, 9)[0], 255) << "type " << type;
    int previous = -1;
    for (int i = 0; i < 100; ++i) {
      const int v = Pixel(p, i % 10, i / 10)[0];
      EXPECT_GE(v, previous) << "type " << type << " cell " << i;
      previous = v;
    }
  }
}

TEST(Display, ThreeBandsShowAsRedGreenAndBlue) {
  const auto raster =
      Raster(3, 4, [](LONG b, LONG c, LONG r) { return static_cast<double>(b * 60 + r + c); });
  const Picture p = Show(raster.Get());
  const std::uint8_t* px = Pixel(p, 3, 2);
  EXPECT_EQ(px[0], 5);
  EXPECT_EQ(px[1], 65);
  EXPECT_EQ(px[2], 125);
}

TEST(Display, RampsColourOneBandAndAreNamedInAnyCase) {
  const auto raster = Raster(3, 1, [](LONG, LONG c, LONG) { return c < 5 ? 0.0 : 255.0; });
  Style style;
  style.ramp = *RampByName("Viridis");
  const Picture p = Show(raster.Get(), style);
  EXPECT_EQ(std::vector<int>(Pixel(p, 0, 0), Pixel(p, 0, 0) + 3), (std::vector<int>{68, 1, 84}));
  EXPECT_EQ(std::vector<int>(Pixel(p, 9, 0), Pixel(p, 9, 0) + 3), (std::vector<int>{253, 231, 37}));
  EXPECT_EQ(RampByName("GRAY"), Ramp::kGrey);
  EXPECT_FALSE(RampByName("rainbow"));
}

TEST(Display, FittingGridsKeepTheShapeAndNeverEnlarge) {
  const raster::RasterGrid grid{0, 0, 400, 100, 400, 100};
  auto dataset = raster::MakeMemoryDataset(grid, 1, 3, [](LONG, LONG, LONG) { return 1.0; });
  ComPtr<IRaster> view;
  dataset->CreateDefaultRaster(&view);
  Renderer renderer;
  ASSERT_EQ(renderer.Prepare(view.Get(), {}), S_OK);
  const raster::RasterGrid small = renderer.FittingGrid(200);
  EXPECT_EQ(small.columns, 200);
  EXPECT_EQ(small.rows, 50);
  EXPECT_EQ(renderer.FittingGrid(5000).columns, 400);
  Picture picture;
  ASSERT_EQ(renderer.Render(small, &picture), S_OK);
  EXPECT_EQ(picture.rgba.size(), 4u * 200 * 50);
}

}  // namespace
}  // namespace pw::framework::display
