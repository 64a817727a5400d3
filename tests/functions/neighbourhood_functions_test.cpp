// Convolution and focal statistics: the built-in kernels on surfaces whose answers are
// worked out by hand; every kernel size and statistic against a brute-force reference over
// whole rasters of every pixel type with invalid cells (so every border and corner is
// covered); tiled reads equal to one whole read; the functions' bind rules; reads from many
// threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <thread>

#include "framework/chain_json.h"
#include "framework/function_raster.h"
#include "functions/enhancement/convolution_function.h"
#include "functions/enhancement/statistics_function.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "tests/functions/function_test_support.h"
#include "tests/test_support.h"

namespace pw::functions {
namespace {

using test::Doubles;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// A raster as doubles, NaN for invalid cells.
struct Grid {
  LONG columns = 0, rows = 0, type = 9;
  std::vector<double> v;
  double At(LONG c, LONG r) const {
    return v[static_cast<std::size_t>(r) * static_cast<std::size_t>(columns) +
             static_cast<std::size_t>(c)];
  }
};

Grid Surface(LONG columns, LONG rows, LONG type, double (*f)(LONG, LONG)) {
  Grid g{columns, rows, type, {}};
  for (LONG r = 0; r < rows; ++r)
    for (LONG c = 0; c < columns; ++c) g.v.push_back(f(c, r));
  return g;
}

// Random values of a type (a few classes when `classes` is set), about `invalid` of them
// invalid.
Grid Random(LONG type, LONG columns, LONG rows, unsigned seed, double invalid, int classes = 0) {
  std::mt19937 random(seed);
  const raster::ValueRange range = raster::PixelRange(type);
  const double lo = std::max(range.lowest, -1e6), hi = std::min(range.highest, 1e6);
  std::uniform_real_distribution<double> any(lo, hi), share(0, 1);
  std::uniform_int_distribution<int> klass(0, std::max(classes - 1, 0));
  Grid g{columns, rows, type, {}};
  for (LONG i = 0; i < columns * rows; ++i) {
    double x = classes > 0 ? lo + klass(random) * std::max(1.0, std::floor((hi - lo) / classes))
                           : any(random);
    if (raster::IsIntegerPixelType(type)) x = std::round(x);
    if (type == 9) x = static_cast<float>(x);
    g.v.push_back(share(random) < invalid ? kNaN : x);
  }
  return g;
}

ComPtr<IRasterFunction> Bind(const Grid& g, std::u16string_view function,
                             const std::vector<std::pair<std::u16string, Variant>>& arguments,
                             HRESULT* bound = nullptr) {
  ObjectPtr<raster::MemoryDataset> dataset;
  const ComPtr<IRaster> input = test::MemoryRaster(
      test::Row(g.columns, g.rows), 1, g.type, [&](LONG, LONG c, LONG r) { return g.At(c, r); },
      std::addressof(dataset));
  dataset->Band(0).ComputeStatisticsHistogram();
  auto f = test::Create<IRasterFunction>(function);
  auto args = test::Create<IRasterFunctionArguments>(std::u16string(function) + u"Arguments");
  args->PutValue(Bstr(u"Raster").Get(), Variant(static_cast<IUnknown*>(input.Get())));
  for (const auto& [name, value] : arguments) args->PutValue(Bstr(name).Get(), value);
  const HRESULT hr = f->Bind(args.Get());
  if (bound != nullptr) {
    *bound = hr;
  } else {
    EXPECT_EQ(hr, S_OK) << test::LastError();
  }
  return f;
}

Grid ReadAll(IRasterFunction* f, const Grid& like) {
  const test::Output out = test::ReadOutput(f, 0, 0, like.columns, like.rows);
  Grid g{like.columns, like.rows, out.type, {}};
  for (std::size_t i = 0; i < like.v.size(); ++i)
    g.v.push_back(out.Valid(0, i) ? out.At(0, i) : kNaN);
  return g;
}

// Integer results round half up and clamp; a reference within a hair of a half may round
// either way.
void ExpectNear(const Grid& got, const std::vector<double>& expected, LONG type,
                const std::string& what) {
  const raster::ValueRange range = raster::PixelRange(type);
  int failures = 0;
  for (std::size_t i = 0; i < expected.size() && failures < 5; ++i) {
    const double e = expected[i], g = got.v[i];
    bool ok;
    if (std::isnan(e) || std::isnan(g)) {
      ok = std::isnan(e) && std::isnan(g);
    } else if (raster::IsIntegerPixelType(type)) {
      const double scale = 1e-9 * std::max(1.0, std::fabs(e));
      const double low = std::clamp(std::floor(e + 0.5 - scale), range.lowest, range.highest);
      const double high = std::clamp(std::floor(e + 0.5 + scale), range.lowest, range.highest);
      ok = g == low || g == high;
    } else {
      const double tolerance = (type == 9 ? 2e-6 : 1e-9) * std::max(1.0, std::fabs(e));
      ok = std::fabs(g - e) <= tolerance;
    }
    if (!ok) {
      ++failures;
      ADD_FAILURE() << what << ": cell " << i % static_cast<std::size_t>(got.columns) << ","
                    << i / static_cast<std::size_t>(got.columns) << " is " << g << ", expected "
                    << e;
    }
  }
}

// --- convolution ----------------------------------------------------------------------------

// The built-in kernels on linear and quadratic surfaces, worked out by hand at cell (2, 2).
TEST(ConvolutionFunction, BuiltInKernelsGiveHandWorkedValues) {
  auto east = [](LONG c, LONG) { return static_cast<double>(c); };
  auto south = [](LONG, LONG r) { return static_cast<double>(r); };
  auto northEast = [](LONG c, LONG r) { return static_cast<double>(c - r); };
  auto northWest = [](LONG c, LONG r) { return static_cast<double>(-c - r); };
  auto squareAcross = [](LONG c, LONG) { return static_cast<double>(c * c); };
  auto line = [](LONG, LONG r) { return r == 2 ? 1.0 : 0.0; };
  auto impulse = [](LONG c, LONG r) { return c == 2 && r == 2 ? 1.0 : 0.0; };
  const struct {
    LONG type;
    double (*surface)(LONG, LONG);
    double expected;
  } cases[] = {
      {0, line, 6},  // horizontal line detection on a horizontal line
      {1, line, 0},  // vertical line detection does not see it
      {2, line, 0},
      {3, line, 0},
      {0, east, 0},             // line detection ignores a plane
      {4, south, -8},           // north gradient: values fall to the north
      {7, south, 8},            // south gradient
      {5, east, -8},            // west gradient
      {6, east, 8},             // east gradient
      {8, northEast, 12},       // north-east gradient on a surface rising north-east
      {9, northWest, 12},       // north-west gradient
      {10, east, 2},            // the mean keeps a plane
      {11, squareAcross, 4.5},  // smoothing: (1 x 1 + 2 x 4 + 1 x 9) / 4 across
      {12, east, 2},            // smoothing 5 x 5 keeps a plane
      {13, squareAcross, 2},    // sharpening: 5 x 4 - 1 - 9 - 4 - 4
      {14, east, 2},            // sharpening 5 x 5 keeps a plane
      {15, squareAcross, -2},   // Laplacian: 4 c^2 - (c-1)^2 - (c+1)^2 - 2 c^2
      {16, east, 0},            // Laplacian 5 x 5 of a plane
      {17, south, 8},           // Sobel horizontal: rows rising southward
      {18, east, 8},            // Sobel vertical
      {19, squareAcross, -2},   // sharpen: c^2 - 6
      {20, squareAcross, 3.5},  // sharpen II: 2 x 4 - (4 + 4 + 1 + 9) / 4
      {21, impulse, 1 / (1 + 4 * std::exp(-0.5) + 4 * std::exp(-1.0))},
  };
  for (const auto& k : cases) {
    const Grid g = Surface(5, 5, 10, k.surface);
    auto f = Bind(g, u"ConvolutionFunction", {{u"Type", Variant(std::int32_t{k.type})}});
    const Grid out = ReadAll(f.Get(), g);
    EXPECT_NEAR(out.At(2, 2), k.expected, 1e-12) << "type " << k.type;
  }
}

struct KernelCase {
  LONG columns, rows;
  std::vector<double> weights;
};

// The brute-force convolution of a whole raster: beyond the edge mirrored or invalid.
std::vector<double> Convolved(const Grid& g, const KernelCase& k, bool mirror) {
  std::vector<double> out;
  const LONG left = (k.columns - 1) / 2, top = (k.rows - 1) / 2;
  auto reflect = [](LONG i, LONG n) {
    while (i < 0 || i >= n) i = i < 0 ? -1 - i : 2 * n - 1 - i;
    return i;
  };
  for (LONG r = 0; r < g.rows; ++r)
    for (LONG c = 0; c < g.columns; ++c) {
      double s = 0;
      for (LONG i = 0; i < k.rows; ++i)
        for (LONG j = 0; j < k.columns; ++j) {
          LONG x = c - left + j, y = r - top + i;
          if (mirror) x = reflect(x, g.columns), y = reflect(y, g.rows);
          const double v = x < 0 || y < 0 || x >= g.columns || y >= g.rows ? kNaN : g.At(x, y);
          s += k.weights[static_cast<std::size_t>(i * k.columns + j)] * v;
        }
      out.push_back(s);
    }
  return out;
}

// How a kernel's weights are made: each at random, as an outer product, or one weight but at
// a few cells (each shape has its own path through the filter).
enum class Shape { kGeneral, kSeparable, kLevelled };

// Weights in eighths, so that sums of integers stay exact whatever their order.
// Levelled kernels get a few other weights, the centre's among them; `centreOnly` leaves the
// centre's alone (a sharpening kernel's shape).
KernelCase RandomKernel(LONG columns, LONG rows, Shape shape, std::mt19937& random,
                        bool centreOnly = false) {
  std::uniform_int_distribution<int> eighths(-16, 16);
  KernelCase k{columns, rows, {}};
  std::vector<double> down, across;
  for (LONG i = 0; i < rows; ++i) down.push_back(eighths(random) / 8.0 + (i == 0 ? 3 : 0));
  for (LONG j = 0; j < columns; ++j) across.push_back(eighths(random) / 8.0 + (j == 0 ? 3 : 0));
  const double level = eighths(random) / 8.0 + 2.5;
  for (LONG i = 0; i < rows; ++i)
    for (LONG j = 0; j < columns; ++j)
      k.weights.push_back(shape == Shape::kSeparable ? down[static_cast<std::size_t>(i)] *
                                                           across[static_cast<std::size_t>(j)]
                          : shape == Shape::kLevelled ? level
                                                      : eighths(random) / 8.0);
  if (shape == Shape::kLevelled)
    for (std::size_t t = 0; t < (centreOnly ? 1 : k.weights.size() / 10 + 1); ++t)
      k.weights[t == 0 ? k.weights.size() / 2 : random() % k.weights.size()] +=
          eighths(random) / 8.0 + 4;
  return k;
}

TEST(ConvolutionFunction, UserKernelsOfEverySizeMatchTheDefinitionOnEveryType) {
  std::mt19937 random(7);
  for (LONG type : {3, 4, 5, 6, 7, 8, 9, 10}) {
    const Grid g = Random(type, 23, 19, static_cast<unsigned>(type), 0.05);
    for (LONG rows = 1; rows <= 7; ++rows)
      for (LONG columns = 1; columns <= 7; ++columns)
        for (Shape shape : {Shape::kGeneral, Shape::kSeparable, Shape::kLevelled})
          for (bool mirror : {false, true}) {
            if (columns * rows > 1 && (columns + rows) % 3 != type % 3 && shape == Shape::kGeneral)
              continue;
            const KernelCase k = RandomKernel(columns, rows, shape, random);
            auto f = Bind(g, u"ConvolutionFunction",
                          {{u"Type", Variant(std::int32_t{-1})},
                           {u"Columns", Variant(std::int32_t{columns})},
                           {u"Rows", Variant(std::int32_t{rows})},
                           {u"Kernel", Doubles(k.weights)},
                           {u"MirrorEdges", Variant(mirror)}});
            const char* shapes[] = {"", " separable", " levelled"};
            ExpectNear(ReadAll(f.Get(), g), Convolved(g, k, mirror), type,
                       "type " + std::to_string(type) + " " + std::to_string(columns) + "x" +
                           std::to_string(rows) + shapes[static_cast<int>(shape)] +
                           (mirror ? " mirrored" : ""));
          }
  }
}

// Rows longer than the 64 cells whose validity is settled at a time, and kernels wider than
// such a run: invalid cells near every run's edges. Rows of thousands of cells are filtered a
// stretch of columns at a time, and an odd number of rows leaves a pair of rows short.
TEST(ConvolutionFunction, LongRowsAndWideKernelsMatchTheDefinition) {
  std::mt19937 random(9);
  const struct {
    LONG columns, rows;
    Shape shape;
    LONG width = 200;
    bool centreOnly = false;
  } cases[] = {{3, 3, Shape::kGeneral},
               {5, 5, Shape::kSeparable},
               {13, 2, Shape::kGeneral},
               {64, 1, Shape::kGeneral},
               {65, 2, Shape::kLevelled},
               {67, 1, Shape::kGeneral},
               {3, 3, Shape::kLevelled},
               {3, 3, Shape::kLevelled, 2600, true},
               {5, 5, Shape::kLevelled, 2600, true},
               {5, 5, Shape::kSeparable, 2600},
               {3, 3, Shape::kGeneral, 2600}};
  for (LONG type : {3, 9})
    for (double invalid : {0.002, 0.05})
      for (const auto& k : cases) {
        const Grid g = Random(type, k.width, 9, static_cast<unsigned>(k.columns + type), invalid);
        const KernelCase kernel = RandomKernel(k.columns, k.rows, k.shape, random, k.centreOnly);
        auto f = Bind(g, u"ConvolutionFunction",
                      {{u"Type", Variant(std::int32_t{-1})},
                       {u"Columns", Variant(std::int32_t{k.columns})},
                       {u"Rows", Variant(std::int32_t{k.rows})},
                       {u"Kernel", Doubles(kernel.weights)}});
        ExpectNear(ReadAll(f.Get(), g), Convolved(g, kernel, false), type,
                   "type " + std::to_string(type) + " " + std::to_string(k.columns) + "x" +
                       std::to_string(k.rows) + " invalid " + std::to_string(invalid));
      }
}

TEST(ConvolutionFunction, BuiltInKernelsMatchTheDefinitionAtEveryBorder) {
  const Grid g = Random(9, 31, 17, 3, 0.03);
  for (LONG type = 0; type <= 21; ++type) {
    // The impulse response of a kernel gives back its weights, turned half round.
    const Grid pulse =
        Surface(9, 9, 10, [](LONG c, LONG r) { return c == 4 && r == 4 ? 1.0 : 0.0; });
    auto probe = Bind(pulse, u"ConvolutionFunction", {{u"Type", Variant(std::int32_t{type})}});
    const Grid response = ReadAll(probe.Get(), pulse);
    const LONG size = std::isnan(response.At(1, 1)) ? 5 : 3, m = (size - 1) / 2;
    KernelCase k{size, size, {}};
    for (LONG i = 0; i < size; ++i)
      for (LONG j = 0; j < size; ++j) k.weights.push_back(response.At(4 + m - j, 4 + m - i));
    for (bool mirror : {false, true}) {
      auto f = Bind(g, u"ConvolutionFunction",
                    {{u"Type", Variant(std::int32_t{type})}, {u"MirrorEdges", Variant(mirror)}});
      ExpectNear(ReadAll(f.Get(), g), Convolved(g, k, mirror), 9,
                 "built-in type " + std::to_string(type));
    }
  }
}

// --- focal statistics -----------------------------------------------------------------------

// The brute-force statistic of a whole raster's windows.
std::vector<double> Focal(const Grid& g, int statistic, LONG columns, LONG rows, bool fill) {
  std::vector<double> out;
  const LONG left = (columns - 1) / 2, top = (rows - 1) / 2;
  for (LONG r = 0; r < g.rows; ++r)
    for (LONG c = 0; c < g.columns; ++c) {
      if (fill && !std::isnan(g.At(c, r))) {
        out.push_back(g.At(c, r));
        continue;
      }
      std::vector<double> w;
      for (LONG i = 0; i < rows; ++i)
        for (LONG j = 0; j < columns; ++j) {
          const LONG x = c - left + j, y = r - top + i;
          if (x >= 0 && y >= 0 && x < g.columns && y < g.rows && !std::isnan(g.At(x, y)))
            w.push_back(g.At(x, y));
        }
      if (w.empty()) {
        out.push_back(kNaN);
        continue;
      }
      std::sort(w.begin(), w.end());
      double mean = 0;
      for (double x : w) mean += x;
      mean /= static_cast<double>(w.size());
      double squares = 0;
      for (double x : w) squares += (x - mean) * (x - mean);
      // Runs of equal values in order: strictly better counts, so ties keep the smallest.
      double most = w[0], least = w[0];
      std::size_t mostCount = 0, leastCount = SIZE_MAX;
      for (std::size_t i = 0; i < w.size();) {
        std::size_t j = i;
        while (j < w.size() && w[j] == w[i]) ++j;
        if (j - i > mostCount) mostCount = j - i, most = w[i];
        if (j - i < leastCount) leastCount = j - i, least = w[i];
        i = j;
      }
      const double values[] = {0,
                               w.front(),
                               w.back(),
                               mean,
                               std::sqrt(squares / static_cast<double>(w.size())),
                               w[(w.size() - 1) / 2],
                               most,
                               least};
      out.push_back(values[statistic]);
    }
  return out;
}

std::vector<std::pair<std::u16string, Variant>> StatisticArguments(int statistic, LONG columns,
                                                                   LONG rows, bool fill) {
  return {{u"Type", Variant(std::int32_t{statistic})},
          {u"Columns", Variant(std::int32_t{columns})},
          {u"Rows", Variant(std::int32_t{rows})},
          {u"FillNoDataOnly", Variant(fill)}};
}

TEST(StatisticsFunction, EveryStatisticAndWindowMatchesTheDefinitionOnEveryType) {
  const char* names[] = {"", "min", "max", "mean", "std", "median", "majority", "minority"};
  for (LONG type : {3, 4, 5, 6, 7, 8, 9, 10}) {
    for (int statistic = 1; statistic <= 7; ++statistic) {
      // Majority and minority on classes; the others on any values.
      const int classes = statistic >= 6 ? 4 + static_cast<int>(type % 3) : 0;
      const Grid g =
          Random(type, 21, 18, static_cast<unsigned>(type * 10 + statistic), 0.08, classes);
      for (LONG rows = 1; rows <= 7; ++rows)
        for (LONG columns = 1; columns <= 7; ++columns) {
          const bool fill = (columns + rows + statistic) % 4 == 0;
          auto f =
              Bind(g, u"StatisticsFunction", StatisticArguments(statistic, columns, rows, fill));
          ExpectNear(ReadAll(f.Get(), g), Focal(g, statistic, columns, rows, fill), type,
                     std::string(names[statistic]) + " type " + std::to_string(type) + " " +
                         std::to_string(columns) + "x" + std::to_string(rows) +
                         (fill ? " fill" : ""));
        }
    }
  }
}

// Paths taken only by larger windows or many classes: van Herk runs, sliding histograms,
// sorted windows.
TEST(StatisticsFunction, LargeWindowsAndManyClassesMatchTheDefinition) {
  const struct {
    LONG type;
    int statistic;
    LONG columns, rows;
    int classes;
  } cases[] = {
      {9, 1, 9, 11, 0},
      {5, 2, 13, 6, 0},
      {9, 2, 3, 19, 0},  // validity folded down in three runs of rows
      {3, 5, 9, 9, 0},
      {4, 5, 8, 5, 0},
      {6, 5, 9, 9, 0},
      {3, 6, 9, 9, 60},
      {6, 7, 5, 5, 40},
      {9, 6, 5, 5, 6},
      {10, 3, 15, 3, 0},
      {8, 4, 11, 11, 0},
      // More classes than the class scan checks at once, signed and unsigned bytes; windows
      // of 254 and 255 cells on either side of the 8-bit counts.
      {3, 7, 5, 5, 12},
      {4, 6, 7, 7, 10},
      {3, 6, 127, 2, 5},
      {3, 7, 17, 15, 5},
  };
  for (const auto& k : cases) {
    const Grid g =
        Random(k.type, 40, 33, static_cast<unsigned>(k.columns * 7 + k.statistic), 0.1, k.classes);
    auto f =
        Bind(g, u"StatisticsFunction", StatisticArguments(k.statistic, k.columns, k.rows, false));
    ExpectNear(ReadAll(f.Get(), g), Focal(g, k.statistic, k.columns, k.rows, false), k.type,
               "statistic " + std::to_string(k.statistic) + " " + std::to_string(k.columns) + "x" +
                   std::to_string(k.rows));
  }
}

// Tall windows keep running column sums, made afresh every 64 rows: bands of rows well past
// that, with and without invalid cells.
TEST(StatisticsFunction, RowsMixingWholeAndPartWindowsMatchTheDefinition) {
  // Rows of 200 cells, invalid only in columns 70 to 75: runs of whole windows and of part
  // windows (the edges, the invalid columns) in every row; and a block inside the band,
  // whose windows are all whole, gives the cells of the whole read (to the last bits of a
  // double: the sums' reference value is the block's own).
  Grid g = Random(9, 200, 24, 41, 0.0);
  for (LONG r = 0; r < g.rows; ++r)
    for (LONG c = 70; c < 76; ++c) g.v[static_cast<std::size_t>(r * g.columns + c)] = kNaN;
  const struct {
    LONG type;
    int statistic;
    LONG columns, rows;
  } cases[] = {{9, 3, 3, 3},  {9, 4, 5, 7}, {10, 3, 15, 5},
               {10, 4, 3, 3}, {8, 3, 5, 5}, {8, 4, 4, 4}};
  for (const auto& k : cases) {
    Grid typed = g;
    typed.type = k.type;
    if (k.type == 8)
      for (double& x : typed.v) x = std::isnan(x) ? x : std::round(x);
    const std::string what = "statistic " + std::to_string(k.statistic) + " type " +
                             std::to_string(k.type) + " " + std::to_string(k.columns) + "x" +
                             std::to_string(k.rows);
    auto f = Bind(typed, u"StatisticsFunction",
                  StatisticArguments(k.statistic, k.columns, k.rows, false));
    const Grid whole = ReadAll(f.Get(), typed);
    ExpectNear(whole, Focal(typed, k.statistic, k.columns, k.rows, false), k.type, what);
    // Columns 130 to 189, rows 8 to 15: every window inside the band and clear of the
    // invalid columns.
    const test::Output inside = test::ReadOutput(f.Get(), 130, 8, 60, 8);
    for (LONG y = 0; y < 8; ++y)
      for (LONG x = 0; x < 60; ++x) {
        const double expected = whole.At(130 + x, 8 + y);
        ASSERT_NEAR(inside.At(0, static_cast<std::size_t>(y * 60 + x)), expected,
                    (k.type == 9 ? 2e-7 : 1e-12) * std::max(1.0, std::fabs(expected)))
            << what << " at " << 130 + x << "," << 8 + y;
      }
  }
}

TEST(StatisticsFunction, StandardDeviationOfHighElevationsKeepsItsPrecision) {
  // Elevations near 8000 m varying by centimetres, and a flat summit.
  std::mt19937 random(11);
  std::uniform_real_distribution<double> cm(-0.05, 0.05);
  Grid g{64, 40, 9, {}};
  for (LONG r = 0; r < g.rows; ++r)
    for (LONG c = 0; c < g.columns; ++c)
      g.v.push_back(static_cast<float>(c < 20 ? 8000.25 : 8000 + cm(random)));
  auto f = Bind(g, u"StatisticsFunction", StatisticArguments(4, 5, 5, false));
  const Grid out = ReadAll(f.Get(), g);
  const std::vector<double> expected = Focal(g, 4, 5, 5, false);
  for (LONG r = 0; r < g.rows; ++r)
    for (LONG c = 0; c < g.columns; ++c) {
      const std::size_t i = static_cast<std::size_t>(r * g.columns + c);
      if (c < 18) {
        EXPECT_EQ(out.v[i], 0.0) << c << "," << r;
      }
      EXPECT_NEAR(out.v[i], expected[i], 1e-5) << c << "," << r;
    }
}

TEST(StatisticsFunction, TallBandsAndLongRowsMatchTheDefinition) {
  // Bands of 150 rows run their column sums past the 64-row refresh; rows of 2100 cells
  // cross two of the 1024-cell chunks that wide windows sum across. Majority and minority
  // (on classes) of windows up to 8 wide keep their class counts running down the band and
  // weigh a row 512 columns at a time: rows of one longer stretch or crossing several (the
  // last one longer, or just past a stretch), and a window 9 wide, which counts another way.
  const struct {
    LONG type;
    int statistic;
    LONG columns, rows, bandColumns, bandRows;
    int classes;
  } cases[] = {{9, 3, 3, 17, 29, 150, 0},
               {9, 4, 9, 9, 29, 150, 0},
               {5, 3, 1, 23, 29, 150, 0},
               {6, 4, 5, 12, 29, 150, 0},
               {3, 3, 15, 15, 29, 150, 0},
               {9, 3, 15, 3, 2100, 6, 0},
               {9, 4, 11, 5, 2100, 6, 0},
               {10, 3, 9, 2, 2100, 6, 0},
               {6, 3, 17, 3, 2100, 6, 0},
               {5, 4, 33, 1, 2100, 6, 0},
               // Wide windows summed across in pairs (16), and in more parts than one pass
               // takes (511).
               {9, 3, 16, 4, 2100, 6, 0},
               {9, 4, 511, 2, 1100, 4, 0},
               {3, 6, 5, 5, 2100, 7, 4},
               {4, 7, 8, 3, 1800, 6, 9},
               {5, 6, 1, 9, 1290, 5, 5},
               {6, 7, 3, 3, 29, 150, 6},
               {8, 6, 7, 2, 1030, 40, 12},
               {3, 7, 6, 4, 771, 80, 3},
               {3, 6, 2, 6, 1540, 9, 24},
               {5, 7, 9, 3, 1100, 8, 7},
               {6, 6, 4, 5, 1300, 12, 6},
               {5, 6, 3, 3, 700, 10, 5},
               // Windows of 255 and 254 cells, on either side of the 8-bit counts.
               {3, 7, 5, 51, 900, 120, 3},
               {3, 6, 2, 127, 900, 200, 2}};
  for (const auto& k : cases)
    for (double invalid : {0.0, 0.06}) {
      const Grid g = Random(k.type, k.bandColumns, k.bandRows,
                            static_cast<unsigned>(k.columns * 31 + k.rows), invalid, k.classes);
      auto f =
          Bind(g, u"StatisticsFunction", StatisticArguments(k.statistic, k.columns, k.rows, false));
      ExpectNear(ReadAll(f.Get(), g), Focal(g, k.statistic, k.columns, k.rows, false), k.type,
                 "statistic " + std::to_string(k.statistic) + " type " + std::to_string(k.type) +
                     " " + std::to_string(k.columns) + "x" + std::to_string(k.rows) + " on " +
                     std::to_string(k.bandColumns) + " x " + std::to_string(k.bandRows) +
                     " invalid " + std::to_string(invalid));
    }
}

// Long rows go a stretch of 512 columns at a time, and a stretch whose windows hold no invalid
// cell counts none. Rows read away from the band's top and bottom, so that only the raster's
// sides and these holes are invalid: one inside the second stretch, and two just past the
// third (in the windows of its last cells only) on the first and last rows its windows take.
TEST(StatisticsFunction, HolesInOneStretchOfLongRowsCountOnlyThere) {
  constexpr LONG kWidth = 2100, kTop = 3, kRows = 5;
  const struct { LONG column, row; } holes[] = {{700, 5}, {1536, kTop - 1}, {1537, kTop + kRows}};
  for (LONG type : {5, 9})
    for (int statistic : {3, 4})
      for (LONG size : {3, 15}) {
        Grid g = Random(type, kWidth, 12, static_cast<unsigned>(size + statistic), 0.0);
        for (const auto& h : holes) g.v[static_cast<std::size_t>(h.row * kWidth + h.column)] = kNaN;
        auto f = Bind(g, u"StatisticsFunction", StatisticArguments(statistic, size, 3, false));
        const test::Output out = test::ReadOutput(f.Get(), 0, kTop, kWidth, kRows);
        Grid got{kWidth, kRows, out.type, {}};
        for (std::size_t i = 0; i < static_cast<std::size_t>(kWidth * kRows); ++i)
          got.v.push_back(out.Valid(0, i) ? out.At(0, i) : kNaN);
        const std::vector<double> all = Focal(g, statistic, size, 3, false);
        ExpectNear(got, {all.begin() + kTop * kWidth, all.begin() + (kTop + kRows) * kWidth}, type,
                   "statistic " + std::to_string(statistic) + " type " + std::to_string(type) +
                       " " + std::to_string(size) + "x3");
      }
}

TEST(StatisticsFunction, LoneCellsBelowLargeValuesHaveNoDeviation) {
  // Large values of every magnitude pass down the columns first; below them each window
  // holds one valid cell, small or large, whose deviation is exactly 0.
  std::mt19937 random(17);
  std::uniform_real_distribution<double> large(-1e6, 1e6), exponent(-12, 6);
  for (const LONG type : {9, 10}) {
    Grid g{40, 90, type, {}};
    for (LONG r = 0; r < g.rows; ++r)
      for (LONG c = 0; c < g.columns; ++c) {
        double x = kNaN;
        if (r < 30) x = large(random) * std::pow(10.0, exponent(random) - 6);
        if (r >= 30 && r % 6 == 0 && c % 6 == 0) x = std::pow(10.0, exponent(random));
        g.v.push_back(type == 9 ? static_cast<float>(x) : x);
      }
    auto f = Bind(g, u"StatisticsFunction", StatisticArguments(4, 5, 5, false));
    const Grid out = ReadAll(f.Get(), g);
    for (LONG r = 34; r < g.rows; ++r)
      for (LONG c = 0; c < g.columns; ++c) {
        // The window's lone valid cell, if it has one.
        const LONG cr = (r + 2) / 6 * 6, cc = (c + 2) / 6 * 6;
        if (cr < r - 2 || cr >= g.rows || cc < c - 2 || cc >= g.columns) continue;
        ASSERT_EQ(out.At(c, r), 0.0) << "type " << type << " at " << c << "," << r;
      }
  }
}

// --- tiles, threads and the bind rules --------------------------------------------------------

TEST(NeighbourhoodFunctions, TiledAndConcurrentReadsEqualOneWholeRead) {
  const Grid g = Random(6, 70, 45, 5, 0.05, 5);
  const std::pair<std::u16string_view, std::vector<std::pair<std::u16string, Variant>>> cases[] = {
      {u"ConvolutionFunction",
       {{u"Type", Variant(std::int32_t{12})}, {u"MirrorEdges", Variant(true)}}},
      {u"StatisticsFunction", StatisticArguments(5, 4, 6, false)},
      {u"StatisticsFunction", StatisticArguments(6, 5, 5, true)},
  };
  for (const auto& [name, arguments] : cases) {
    auto f = Bind(g, name, arguments);
    const Grid whole = ReadAll(f.Get(), g);
    for (const auto& [w, h] : {std::pair{8, 8}, std::pair{13, 7}, std::pair{70, 1}}) {
      for (LONG r = 0; r < g.rows; r += h)
        for (LONG c = 0; c < g.columns; c += w) {
          const test::Output tile = test::ReadOutput(
              f.Get(), c, r, std::min<LONG>(w, g.columns - c), std::min<LONG>(h, g.rows - r));
          const LONG tw = std::min<LONG>(w, g.columns - c);
          for (LONG y = 0; y < std::min<LONG>(h, g.rows - r); ++y)
            for (LONG x = 0; x < tw; ++x) {
              const std::size_t i = static_cast<std::size_t>(y * tw + x);
              const double got = tile.Valid(0, i) ? tile.At(0, i) : kNaN;
              const double want = whole.At(c + x, r + y);
              ASSERT_TRUE(got == want || (std::isnan(got) && std::isnan(want)))
                  << ToUtf8(name) << " tile " << w << "x" << h << " at " << c + x << "," << r + y;
            }
        }
    }
    std::vector<std::thread> readers;
    std::vector<int> same(4, 0);
    for (std::size_t t = 0; t < same.size(); ++t)
      readers.emplace_back([&, t] {
        const Grid again = ReadAll(f.Get(), g);
        same[t] = std::equal(again.v.begin(), again.v.end(), whole.v.begin(), whole.v.end(),
                             [](double a, double b) { return a == b || (a != a && b != b); });
      });
    for (auto& t : readers) t.join();
    EXPECT_EQ(std::count(same.begin(), same.end(), 1), 4) << ToUtf8(name);
  }
}

// The functions' blocks are not cleared before a read: every value and bit must come from
// the read itself, whatever the block held before (invalid cells included).
TEST(NeighbourhoodFunctions, ReadsWriteEveryValueAndBitOfTheirBlock) {
  using Arguments = std::vector<std::pair<std::u16string, Variant>>;
  const std::pair<std::u16string_view, Arguments> cases[] = {
      {u"ConvolutionFunction", {{u"Type", Variant(std::int32_t{12})}}},
      {u"ConvolutionFunction",
       {{u"Type", Variant(std::int32_t{19})}, {u"MirrorEdges", Variant(true)}}},
      {u"ConvolutionFunction",
       {{u"Type", Variant(std::int32_t{-1})},
        {u"Columns", Variant(std::int32_t{2})},
        {u"Rows", Variant(std::int32_t{3})},
        {u"Kernel", Doubles({1, -2, 3, -4, 5, -6})}}},
      {u"ConvolutionFunction", {{u"Type", Variant(std::int32_t{255})}}},
      {u"StatisticsFunction", StatisticArguments(1, 3, 3, false)},
      {u"StatisticsFunction", StatisticArguments(2, 4, 2, true)},
      {u"StatisticsFunction", StatisticArguments(3, 5, 5, false)},
      {u"StatisticsFunction", StatisticArguments(4, 3, 3, false)},
      {u"StatisticsFunction", StatisticArguments(5, 3, 3, true)},
      {u"StatisticsFunction", StatisticArguments(6, 5, 3, false)},
      {u"StatisticsFunction", StatisticArguments(7, 3, 3, true)},
      {u"IdentityFunction", {}},
  };
  for (const LONG type : {3L, 6L, 9L}) {
    const Grid g = Random(type, 37, 29, 11, 0.08, type == 9 ? 0 : 4);
    ObjectPtr<raster::MemoryDataset> source;
    const ComPtr<IRaster> input = test::MemoryRaster(
        test::Row(g.columns, g.rows), 1, g.type, [&](LONG, LONG c, LONG r) { return g.At(c, r); },
        std::addressof(source));
    for (const auto& [name, arguments] : cases) {
      auto function = test::Create<IRasterFunction>(name);
      auto args = test::Create<IRasterFunctionArguments>(
          name == u"IdentityFunction" ? std::u16string(u"RasterFunctionArguments")
                                      : std::u16string(name) + u"Arguments");
      args->PutValue(Bstr(u"Raster").Get(), Variant(static_cast<IUnknown*>(input.Get())));
      for (const auto& [key, value] : arguments) args->PutValue(Bstr(key).Get(), value);
      ComPtr<IFunctionRasterDataset> dataset;
      ASSERT_EQ(framework::CreateFunctionRasterDataset(function.Get(), args.Get(), true, &dataset),
                S_OK)
          << test::LastError();
      ComPtr<IRaster> raster;
      ASSERT_EQ(dataset.As<IRasterDataset>()->CreateDefaultRaster(&raster), S_OK);
      LONG out = -1;
      raster.As<IRasterProps>()->get_PixelType(&out);
      // A block reaching past the raster's right and bottom sides.
      const LONG w = 24, h = 19, column = 20, row = 16;
      const std::size_t n = static_cast<std::size_t>(w * h);
      const std::size_t bytes = n * raster::PixelSize(out);
      std::vector<std::vector<std::uint8_t>> reads;
      for (const std::uint8_t junk : {0x00, 0xA5}) {
        ComPtr<IPixelBlock> block;
        ASSERT_EQ(raster::CreatePixelBlock(w, h, 1, out, &block), S_OK);
        std::memset(block->Buffer(0), junk, bytes);
        std::memset(block->Mask(0), junk, raster::mask::Bytes(n));
        ASSERT_EQ(raster->ReadAt(column, row, block.Get()), S_OK) << test::LastError();
        const auto* v = static_cast<const std::uint8_t*>(block->Buffer(0));
        reads.emplace_back(v, v + bytes);
        // Padding bits past the last cell are not cells.
        for (std::size_t i = 0; i < n; ++i)
          reads.back().push_back(raster::mask::Get(block->Mask(0), i));
      }
      EXPECT_EQ(reads[0], reads[1]) << ToUtf8(name) << " on type " << type;
    }
  }
}

bool HasStatistics(IRasterFunction* f) {
  ComPtr<IRasterInfo> info;
  f->get_RasterInfo(&info);
  ComPtr<IRasterStatistics> statistics;
  return info && SUCCEEDED(info.As<IRasterInfo3>()->get_Statistics(0, &statistics)) &&
         statistics != nullptr;
}

TEST(NeighbourhoodFunctions, BindRules) {
  const Grid g = Surface(6, 5, 9, [](LONG c, LONG r) { return 1.0 * c + r; });
  const struct {
    const char* what;
    std::u16string_view function;
    std::vector<std::pair<std::u16string, Variant>> arguments;
    HRESULT bind;
    const char* message;  // in the chained error when the bind fails
    int statistics;       // 1 kept, 0 dropped, -1 not checked
  } cases[] = {
      {"255 passes the input through",
       u"ConvolutionFunction",
       {{u"Type", Variant(std::int32_t{255})}},
       S_OK,
       "",
       1},
      {"19 keeps statistics", u"ConvolutionFunction", {}, S_OK, "", 1},
      {"13 keeps statistics",
       u"ConvolutionFunction",
       {{u"Type", Variant(std::int32_t{13})}},
       S_OK,
       "",
       1},
      {"1 drops them", u"ConvolutionFunction", {{u"Type", Variant(std::int32_t{1})}}, S_OK, "", 0},
      {"eight values for 3 x 3",
       u"ConvolutionFunction",
       {{u"Type", Variant(std::int32_t{-1})},
        {u"Columns", Variant(std::int32_t{3})},
        {u"Rows", Variant(std::int32_t{3})},
        {u"Kernel", Doubles({1, 1, 1, 1, 1, 1, 1, 1})}},
       E_INVALIDARG,
       "Kernel",
       -1},
      {"nine values for 3 x 3",
       u"ConvolutionFunction",
       {{u"Type", Variant(std::int32_t{-1})},
        {u"Columns", Variant(std::int32_t{3})},
        {u"Rows", Variant(std::int32_t{3})},
        {u"Kernel", Doubles({0, 0, 0, 0, 1, 0, 0, 0, 0})}},
       S_OK,
       "",
       0},
      {"unread sizes are 3",
       u"ConvolutionFunction",
       {{u"Type", Variant(std::int32_t{-1})}, {u"Kernel", Doubles({0, 0, 0, 0, 1, 0, 0, 0, 0})}},
       S_OK,
       "",
       0},
      {"no kernel type 22",
       u"ConvolutionFunction",
       {{u"Type", Variant(std::int32_t{22})}},
       E_INVALIDARG,
       "Type",
       -1},
      {"mean keeps statistics", u"StatisticsFunction", {}, S_OK, "", 1},
      {"standard deviation drops them",
       u"StatisticsFunction",
       {{u"Type", Variant(std::int32_t{4})}},
       S_OK,
       "",
       0},
      {"no statistic 8",
       u"StatisticsFunction",
       {{u"Type", Variant(std::int32_t{8})}},
       E_INVALIDARG,
       "Type",
       -1},
      {"no empty window",
       u"StatisticsFunction",
       {{u"Columns", Variant(std::int32_t{0})}},
       E_INVALIDARG,
       "Columns",
       -1},
  };
  for (const auto& k : cases) {
    HRESULT bound = S_OK;
    auto f = Bind(g, k.function, k.arguments, &bound);
    EXPECT_EQ(bound, k.bind) << k.what;
    if (FAILED(bound)) {
      EXPECT_NE(test::LastError().find(k.message), std::string::npos) << k.what;
      continue;
    }
    if (k.statistics >= 0) {
      EXPECT_EQ(HasStatistics(f.Get()), k.statistics == 1) << k.what;
    }
  }
  // 255 reads the input as it is.
  auto pass = Bind(g, u"ConvolutionFunction", {{u"Type", Variant(std::int32_t{255})}});
  EXPECT_EQ(ReadAll(pass.Get(), g).v, g.v);
  // A kernel with only its centre set gives back the input, borders invalid.
  auto centre = Bind(
      g, u"ConvolutionFunction",
      {{u"Type", Variant(std::int32_t{-1})}, {u"Kernel", Doubles({0, 0, 0, 0, 1, 0, 0, 0, 0})}});
  const Grid out = ReadAll(centre.Get(), g);
  EXPECT_TRUE(std::isnan(out.At(0, 0)));
  EXPECT_EQ(out.At(2, 2), g.At(2, 2));
}

TEST(NeighbourhoodFunctions, ChainsNameTypesAndSizesAsTheirOlderKeysAndByName) {
  raster::gdal::Initialize();
  test::TempDir folder;
  ASSERT_EQ(
      std::system(
          (std::string(PIXWERK_SAMPLE) + " " + folder.Path().string() + " 32 > /dev/null").c_str()),
      0);
  const struct {
    const char* chain;
    std::u16string_view arguments;
    LONG type, columns, rows;
  } cases[] = {
      {R"({"function": "StatisticsFunction", "arguments": {"Raster": "dem.tif",
           "StatisticsType": "median", "KernelColumns": 5}})",
       u"StatisticsFunctionArguments", 5, 5, 3},
      {R"({"function": "StatisticsFunction", "arguments": {"Raster": "dem.tif",
           "Type": "STANDARDDEVIATION", "Columns": 2, "KernelRows": 4}})",
       u"StatisticsFunctionArguments", 4, 2, 4},
      {R"({"function": "ConvolutionFunction", "arguments": {"Raster": "dem.tif",
           "ConvolutionType": "sobelvertical"}})",
       u"ConvolutionFunctionArguments", 18, 0, 0},
      {R"({"function": "ConvolutionFunction", "arguments": {"Raster": "dem.tif",
           "Type": -1, "Columns": 1, "Rows": 2, "Kernel": [0.5, 0.5], "MirrorEdges": true}})",
       u"ConvolutionFunctionArguments", -1, 1, 2},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.chain);
    ComPtr<IFunctionRasterDataset> dataset;
    ASSERT_EQ(framework::LoadChainText(k.chain, folder.Path(), &dataset), S_OK)
        << test::LastError();
    ComPtr<IUnknown> arguments;
    dataset->get_Arguments(&arguments);
    LONG type = 0, columns = 0, rows = 0;
    if (auto s = arguments.As<IStatisticsFunctionArguments>()) {
      s->get_Type(&type), s->get_Columns(&columns), s->get_Rows(&rows);
    } else {
      auto c = arguments.As<IConvolutionFunctionArguments>();
      c->get_Type(&type), c->get_Columns(&columns), c->get_Rows(&rows);
    }
    EXPECT_EQ(type, k.type);
    EXPECT_EQ(columns, k.columns);
    EXPECT_EQ(rows, k.rows);
    // The saved form reads back equal.
    Bstr json;
    ASSERT_EQ(arguments.As<IRasterFunctionArguments2>()->ToJSON(&json), S_OK);
    auto again = test::Create<IRasterFunctionArguments>(k.arguments);
    ASSERT_EQ(again.As<IRasterFunctionArguments2>()->FromJSON(json.Get()), S_OK)
        << ToUtf8(json.View());
    VARIANT_BOOL equal = VARIANT_FALSE;
    ASSERT_EQ(again.As<IClone>()->IsEqual(arguments.As<IClone>().Get(), &equal), S_OK);
    EXPECT_TRUE(equal) << ToUtf8(json.View());
  }
  // Wrong names and sizes are refused as the chain loads, naming the argument.
  for (
      const char* bad :
      {R"({"function": "StatisticsFunction", "arguments": {"Raster": "dem.tif", "Type": "mode"}})",
       R"({"function": "StatisticsFunction", "arguments": {"Raster": "dem.tif", "KernelRows": 0}})",
       R"({"function": "ConvolutionFunction", "arguments": {"Raster": "dem.tif", "Type": "blur"}})",
       R"({"function": "ConvolutionFunction", "arguments": {"Raster": "dem.tif", "Type": -1,
            "Columns": 2, "Rows": 2, "Kernel": [1, 2, 3]}})",
       R"({"function": "ConvolutionFunction", "arguments": {"Raster": "dem.tif", "Kernal": [1]}})"}) {
    SCOPED_TRACE(bad);
    ComPtr<IFunctionRasterDataset> dataset;
    EXPECT_TRUE(FAILED(framework::LoadChainText(bad, folder.Path(), &dataset)));
    const std::string message = test::LastError();
    EXPECT_TRUE(message.find("Type") != std::string::npos ||
                message.find("KernelRows") != std::string::npos ||
                message.find("Rows") != std::string::npos ||
                message.find("Kernel") != std::string::npos)
        << message;
  }
}

}  // namespace
}  // namespace pw::functions
