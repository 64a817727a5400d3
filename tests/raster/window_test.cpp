// The window engine: where positions beyond the edge read from, and window sums over every
// window size from 1 x 1 to 7 x 7 (even sizes too), every edge mode and every pixel type,
// read whole, in tiles that cross every border and corner, and in bands of few rows, all
// equal to a sum taken straight from the raster.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "raster/algorithms/window.h"
#include "raster/mask.h"
#include "raster/memory_dataset.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"

namespace pw::raster {
namespace {

TEST(WindowEngine, PositionsBeyondTheEdgeReadByTheMode) {
  const struct {
    LONG i, count;
    LONG invalid, extend, mirror;
  } cases[] = {
      {0, 5, 0, 0, 0},  {4, 5, 4, 4, 4},   {-1, 5, -1, 0, 0}, {-2, 5, -1, 0, 1}, {5, 5, -1, 4, 4},
      {6, 5, -1, 4, 3}, {-5, 5, -1, 0, 4}, {-6, 5, -1, 0, 4}, {10, 5, -1, 4, 0}, {-11, 5, -1, 0, 0},
      {3, 1, -1, 0, 0}, {-4, 1, -1, 0, 0}, {-1, 2, -1, 0, 0}, {2, 2, -1, 1, 1},  {0, 0, -1, -1, -1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(EdgeIndex(c.i, c.count, EdgeMode::kInvalid), c.invalid) << c.i << " of " << c.count;
    EXPECT_EQ(EdgeIndex(c.i, c.count, EdgeMode::kExtend), c.extend) << c.i << " of " << c.count;
    EXPECT_EQ(EdgeIndex(c.i, c.count, EdgeMode::kMirror), c.mirror) << c.i << " of " << c.count;
  }
}

TEST(WindowEngine, EvenWindowsReachFurtherRightAndDown) {
  EXPECT_EQ(Margins::Window(1, 1), (Margins{0, 0, 0, 0}));
  EXPECT_EQ(Margins::Window(2, 2), (Margins{0, 0, 1, 1}));
  EXPECT_EQ(Margins::Window(3, 4), (Margins{1, 1, 1, 2}));
  EXPECT_EQ(Margins::Window(6, 7), (Margins{2, 3, 3, 3}));
  EXPECT_EQ(Margins::Window(6, 7).Columns(), 6);
  EXPECT_EQ(Margins::Window(6, 7).Rows(), 7);
}

constexpr LONG kColumns = 13, kRows = 11;

// Cell values small enough for every type, and a scatter of invalid cells.
double Modulus(LONG type) {
  return type == 0 ? 2 : type == 1 ? 4 : type == 2 ? 16 : 97;
}
bool Valid(LONG c, LONG r) {
  return (c * 7 + r * 11) % 9 != 0;
}
double Value(LONG type, LONG c, LONG r) {
  return std::fmod(c * 5.0 + r * 3.0, Modulus(type)) + (type >= 9 ? 0.25 : 0.0);
}

struct Sums {
  std::vector<double> sum;
  std::vector<int> count;
  bool operator==(const Sums&) const = default;
};

// The window sums of the cells (x0 .. x0 + w - 1, y0 .. y0 + h - 1) straight from the
// raster's cells.
Sums Reference(LONG type, const Margins& m, EdgeMode mode, LONG x0, LONG y0, LONG w, LONG h) {
  Sums s{std::vector<double>(static_cast<std::size_t>(w * h)),
         std::vector<int>(static_cast<std::size_t>(w * h))};
  for (LONG y = y0; y < y0 + h; ++y)
    for (LONG x = x0; x < x0 + w; ++x)
      for (LONG dy = -m.top; dy <= m.bottom; ++dy)
        for (LONG dx = -m.left; dx <= m.right; ++dx) {
          const LONG sx = EdgeIndex(x + dx, kColumns, mode), sy = EdgeIndex(y + dy, kRows, mode);
          if (sx < 0 || sy < 0 || !Valid(sx, sy)) continue;
          const auto i = static_cast<std::size_t>((y - y0) * w + (x - x0));
          s.sum[i] += Value(type, sx, sy);
          ++s.count[i];
        }
  return s;
}

// The same through the engine, in tiles of `tileW` x `tileH` from (x0, y0).
Sums Engine(IRaster* raster, LONG type, const Margins& m, EdgeMode mode, LONG x0, LONG y0, LONG w,
            LONG h, LONG tileW, LONG tileH, std::size_t bandBytes, bool inPlace,
            std::string* fault) {
  Sums s{std::vector<double>(static_cast<std::size_t>(w * h)),
         std::vector<int>(static_cast<std::size_t>(w * h))};
  WindowShape windowShape{m, mode, type, 1, bandBytes, inPlace};
  bool lent = false;
  for (LONG ty = y0; ty < y0 + h; ty += tileH)
    for (LONG tx = x0; tx < x0 + w; tx += tileW) {
      const LONG bw = std::min(tileW, x0 + w - tx), bh = std::min(tileH, y0 + h - ty);
      const HRESULT hr = ForEachWindowRows(
          raster, tx, ty, bw, bh, windowShape, [&](const WindowRows& rows) -> HRESULT {
            if (rows.width != bw || rows.column != tx || rows.row != ty + rows.firstRow)
              *fault = "band placed wrongly";
            const std::size_t stride = rows.Stride();
            // Values lent where they lie are read at their pitch; the mask is the window's.
            lent |= !rows.values.empty();
            auto value = [&](std::size_t row, std::size_t column) {
              if (rows.values.empty()) return PixelValue(rows.window, 0, row * stride + column);
              double v = 0;
              VisitPixelType(type, [&](auto tag) {
                using T = typename decltype(tag)::type;
                v = static_cast<double>(
                    static_cast<const T*>(rows.values[0])[row * rows.valuesPitch + column]);
              });
              return v;
            };
            for (LONG r = 0; r < rows.rows; ++r)
              for (LONG c = 0; c < rows.width; ++c) {
                const bool interior = c >= rows.interiorLeft && c < rows.interiorRight &&
                                      r >= rows.interiorTop && r < rows.interiorBottom;
                const LONG x = tx + c, y = rows.row + r;
                const auto o = static_cast<std::size_t>((y - y0) * w + (x - x0));
                // A cell is interior exactly when its whole window lies on the raster.
                const bool onRaster = x - m.left >= 0 && y - m.top >= 0 && x + m.right < kColumns &&
                                      y + m.bottom < kRows;
                if (interior != onRaster) *fault = "interior wrong";
                for (LONG wy = 0; wy < m.Rows(); ++wy)
                  for (LONG wx = 0; wx < m.Columns(); ++wx) {
                    const std::size_t i = static_cast<std::size_t>(r + wy) * stride +
                                          static_cast<std::size_t>(c + wx);
                    if (!mask::Get(rows.window->Mask(0), i)) continue;
                    s.sum[o] +=
                        value(static_cast<std::size_t>(r + wy), static_cast<std::size_t>(c + wx));
                    ++s.count[o];
                  }
              }
            return S_OK;
          });
      if (FAILED(hr)) *fault = "read failed";
    }
  // Tiles of a few cells on a raster of 13 x 11 have interior windows for windows up to 5 x 5.
  if (inPlace && m.Columns() <= 5 && m.Rows() <= 5 && tileW < kColumns && !lent)
    *fault = "no window lent";
  return s;
}

TEST(WindowEngine, WindowSumsEqualTheRasterSumsForEverySizeModeAndType) {
  const EdgeMode modes[] = {EdgeMode::kInvalid, EdgeMode::kExtend, EdgeMode::kMirror};
  const struct {
    LONG x0, y0, w, h, tileW, tileH;
    std::size_t bandBytes;
    bool inPlace = false;
  } tilings[] = {
      {0, 0, kColumns, kRows, kColumns, kRows, std::size_t{2} << 20},  // whole
      {0, 0, kColumns, kRows, 4, 3, std::size_t{2} << 20},             // tiles at every border
      {0, 0, kColumns, kRows, kColumns, kRows, 1},                     // bands of 8 rows
      {-3, -2, kColumns + 6, kRows + 5, 5, 7, 1},  // tiles reaching beyond the raster
      // Inner tiles' windows read where the raster keeps them, the others copied.
      {0, 0, kColumns, kRows, 3, 2, std::size_t{2} << 20, true},
  };
  for (LONG type = 0; type <= 10; ++type) {
    auto dataset = MakeMemoryDataset(
        RasterGrid{0, 0, kColumns, kRows, kColumns, kRows}, 1, type,
        [&](LONG, LONG c, LONG r) { return Valid(c, r) ? Value(type, c, r) : std::nan(""); });
    ComPtr<IRaster> raster;
    ASSERT_EQ(dataset->CreateDefaultRaster(&raster), S_OK);
    // Every window size on two types; a spread of sizes on the others.
    const bool everySize = type == 3 || type == 10;
    for (LONG columns = 1; columns <= 7; ++columns)
      for (LONG rows = 1; rows <= 7; ++rows) {
        if (!everySize && !(columns == rows || (columns == 2 && rows == 5))) continue;
        const Margins m = Margins::Window(columns, rows);
        for (EdgeMode mode : modes)
          for (const auto& t : tilings) {
            std::string fault;
            const Sums got = Engine(raster.Get(), type, m, mode, t.x0, t.y0, t.w, t.h, t.tileW,
                                    t.tileH, t.bandBytes, t.inPlace, &fault);
            const Sums want = Reference(type, m, mode, t.x0, t.y0, t.w, t.h);
            EXPECT_TRUE(fault.empty() && got == want)
                << fault << ": type " << type << ", window " << columns << " x " << rows
                << ", mode " << static_cast<int>(mode) << ", tiles " << t.tileW << " x " << t.tileH
                << " from (" << t.x0 << ", " << t.y0 << ")";
          }
      }
  }
}

// Cells are lent only where reading them in place gives what a copy would: a plain view of
// a dataset in memory without no-data values, the window wholly on it, in its pixel type.
TEST(WindowEngine, MemoryCellsAreLentOnlyWhereACopyWouldHoldTheSame) {
  const RasterGrid grid{0, 0, kColumns, kRows, kColumns, kRows};
  auto plain = MakeMemoryDataset(grid, 2, 9, [](LONG b, LONG c, LONG r) { return b + c + r; });
  auto noData = MakeMemoryDataset(grid, 1, 9, [](LONG, LONG c, LONG) { return c; });
  noData->Band(0).SetNoData(3.0);
  ComPtr<IRaster> view, withNoData, converted;
  ASSERT_EQ(plain->CreateDefaultRaster(&view), S_OK);
  ASSERT_EQ(noData->CreateDefaultRaster(&withNoData), S_OK);
  ASSERT_EQ(plain->CreateDefaultRaster(&converted), S_OK);
  converted.As<IRasterProps>()->put_PixelType(10);
  const struct {
    const char* what;
    IRaster* raster;
    LONG column, row, width, height, type, bands;
    bool lent;
  } cases[] = {
      {"inside", view.Get(), 2, 3, 5, 4, 9, 0, true},
      {"the whole raster", view.Get(), 0, 0, kColumns, kRows, 9, 1, true},
      {"past the right edge", view.Get(), 9, 0, 5, 4, 9, 0, false},
      {"above the top", view.Get(), 2, -1, 5, 4, 9, 0, false},
      {"another pixel type", view.Get(), 2, 3, 5, 4, 10, 0, false},
      {"a view converting its type", converted.Get(), 2, 3, 5, 4, 10, 0, false},
      {"a band with a no-data value", withNoData.Get(), 2, 3, 5, 4, 9, 0, false},
  };
  for (const auto& c : cases) {
    MemoryCells cells;
    EXPECT_EQ(
        LendMemoryCells(c.raster, c.column, c.row, c.width, c.height, c.type, c.bands, &cells),
        c.lent)
        << c.what;
    if (!c.lent || !cells.values.size()) continue;
    EXPECT_EQ(cells.values.size(), c.bands == 0 ? 2u : 1u) << c.what;
    EXPECT_EQ(cells.pitch, static_cast<std::size_t>(kColumns)) << c.what;
    // Band b's top-left cell holds b + column + row.
    for (std::size_t b = 0; b < cells.values.size(); ++b)
      EXPECT_EQ(static_cast<const float*>(cells.values[b])[cells.pitch + 1],
                static_cast<float>(b) + static_cast<float>(c.column + 1 + c.row + 1))
          << c.what;
    EXPECT_TRUE(mask::Get(cells.masks[0], cells.maskFirst)) << c.what;
  }
}

// A band is taken as all valid, without its bits being read, only until a writer makes a
// pixel invalid or asks for the bits to write; a window lent after either sees the hole.
TEST(WindowEngine, LentWindowsSeeEveryWayOfMakingAPixelInvalid) {
  const RasterGrid grid{0, 0, kColumns, kRows, kColumns, kRows};
  const LONG hx = 4, hy = 5;  // the hole, inside the window of the block below
  const struct {
    const char* what;
    void (*write)(MemoryDataset&);
    bool known, hole;
  } cases[] = {
      {"untouched", [](MemoryDataset&) {}, true, false},
      {"a pixel set valid", [](MemoryDataset& d) { d.SetPixel(0, hx, hy, 7, true); }, true, false},
      {"a pixel set invalid", [](MemoryDataset& d) { d.SetPixel(0, hx, hy, 7, false); }, false,
       true},
      {"a bit cleared through the mask",
       [](MemoryDataset& d) { mask::Clear(d.Band(0).Mask(), hy * kColumns + hx); }, false, true},
      {"the mask asked for, left whole", [](MemoryDataset& d) { d.Band(0).Mask(); }, false, false},
  };
  for (const auto& c : cases) {
    auto dataset = MakeMemoryDataset(grid, 1, 9, [](LONG, LONG x, LONG y) { return x + y; });
    c.write(*dataset);
    ComPtr<IRaster> view;
    ASSERT_EQ(dataset->CreateDefaultRaster(&view), S_OK);
    MemoryCells cells;
    ASSERT_TRUE(LendMemoryCells(view.Get(), 1, 2, 7, 6, 9, 0, &cells)) << c.what;
    EXPECT_EQ(cells.allValid, std::vector<bool>{c.known}) << c.what;
    WindowShape shape;
    shape.margins = Margins::Radius(1);
    shape.pixelType = 9;
    shape.inPlace = true;
    ComPtr<IPixelBlock> window;
    WindowRows rows;
    ASSERT_EQ(ReadWindowRows(view.Get(), 2, 3, 5, 4, 0, shape, &window, &rows), S_OK) << c.what;
    ASSERT_FALSE(rows.values.empty()) << c.what;
    // The window starts at (1, 2) and is 7 cells wide.
    const std::size_t hole = static_cast<std::size_t>((hy - 2) * 7 + (hx - 1));
    EXPECT_EQ(rows.allValid, std::vector<bool>{!c.hole}) << c.what;
    EXPECT_EQ(mask::Count(window->Mask(0), 7 * 6), c.hole ? 41u : 42u) << c.what;
    EXPECT_EQ(mask::Get(window->Mask(0), hole), !c.hole) << c.what;
  }
}

}  // namespace
}  // namespace pw::raster
