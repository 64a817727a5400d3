// Slope, aspect and hillshade: hand-computed surfaces grouped by rule, the validity rules
// in and around the window, borders with and without edge removal, coordinate kinds,
// device choices, and every kernel and instruction set against the scalar reference.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <random>

#include "framework/function_raster.h"
#include "functions/terrain/aspect_formula.h"
#include "functions/terrain/hillshade_formula.h"
#include "functions/terrain/hillshade_function.h"
#include "functions/terrain/slope_formula.h"
#include "functions/terrain/slope_function.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "raster/values/spatial_reference.h"
#include "tests/functions/function_test_support.h"

namespace pw::functions {
namespace {

using test::Create;
using test::Output;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Surface {
  LONG columns = 5, rows = 5;
  double cell = 1;
  std::function<double(LONG c, LONG r)> z;
  LONG type = 10;           // input pixel type
  LONG wkid = 0, kind = 0;  // spatial reference: factory code and kind (2 geographic)
  double top = 5;           // map Y of the top edge
  LONG bands = 1;
};

ComPtr<IRaster> Dem(const Surface& s) {
  ComPtr<ISpatialReference> reference;
  if (s.wkid != 0 || s.kind != 0) {
    auto sr = MakeObject<raster::SpatialReference>();
    sr->put_FactoryCode(s.wkid);
    sr->put_Kind(s.kind);
    reference = sr.As<ISpatialReference>();
  }
  const raster::RasterGrid grid{
      0, s.top - s.rows * s.cell, s.columns * s.cell, s.top, s.columns, s.rows};
  auto dataset = raster::MakeMemoryDataset(
      grid, s.bands, s.type, [&](LONG b, LONG c, LONG r) { return b == 0 ? s.z(c, r) : 7.0; },
      reference.Get());
  ComPtr<IRaster> raster;
  dataset->CreateDefaultRaster(&raster);
  return raster;
}

struct TerrainRun {
  HRESULT bind = E_FAIL;
  Output out;
  HRESULT read = E_FAIL;
};

// Binds a terrain function to named values and reads its whole output.
TerrainRun Terrain(std::u16string_view function, std::u16string_view argumentsClass,
                   const Surface& s, std::vector<std::pair<std::u16string, Variant>> values,
                   LONG pixelType = -1) {
  TerrainRun run;
  auto f = Create<IRasterFunction>(function);
  auto args = Create<IRasterFunctionArguments>(argumentsClass);
  args->PutValue(Bstr(argumentsClass == u"RasterFunctionArguments" ? u"Raster" : u"DEM").Get(),
                 Variant(static_cast<IUnknown*>(Dem(s).Get())));
  for (auto& [name, value] : values) args->PutValue(Bstr(name).Get(), value);
  if (pixelType >= 0) f->put_PixelType(pixelType);
  run.bind = f->Bind(args.Get());
  if (FAILED(run.bind)) return run;
  ComPtr<IRasterInfo> info;
  f->get_RasterInfo(&info);
  info->get_PixelType(&run.out.type);
  run.out.bands = 1;
  raster::CreatePixelBlock(s.columns, s.rows, 1, run.out.type, &run.out.block);
  auto origin = MakeObject<raster::Pnt>();
  run.read = f->Read(origin.As<IPnt>().Get(), nullptr, run.out.block.Get());
  return run;
}

TerrainRun Slope(const Surface& s, std::vector<std::pair<std::u16string, Variant>> values = {},
                 LONG pixelType = -1) {
  return Terrain(u"SlopeFunction", u"SlopeFunctionArguments", s, std::move(values), pixelType);
}
TerrainRun Aspect(const Surface& s, std::vector<std::pair<std::u16string, Variant>> values = {},
                  LONG pixelType = -1) {
  return Terrain(u"AspectFunction", u"RasterFunctionArguments", s, std::move(values), pixelType);
}
TerrainRun Hillshade(const Surface& s, std::vector<std::pair<std::u16string, Variant>> values = {},
                     LONG pixelType = -1) {
  return Terrain(u"HillshadeFunction", u"HillshadeFunctionArguments", s, std::move(values),
                 pixelType);
}

std::size_t Centre(const Surface& s) {
  return static_cast<std::size_t>(s.rows / 2) * s.columns + s.columns / 2;
}

Variant Long(LONG v) {
  return Variant(std::int32_t{v});
}

const Surface kEastward{5, 5, 1, [](LONG c, LONG) { return double(c); }};
const Surface kFlat{5, 5, 1, [](LONG, LONG) { return 100.0; }};

// A surface, the function's named values and output type, and the centre cell's value.
struct SurfaceCase {
  const char* what;
  Surface surface;
  std::vector<std::pair<std::u16string, Variant>> values;
  LONG pixelType;
  double expected;
};

// --- slope -------------------------------------------------------------------------------

TEST(SlopeFunction, PlanesGiveTheirSlopeInEveryType) {
  const SurfaceCase cases[] = {
      {"degrees, float", kEastward, {}, -1, static_cast<float>(std::atan(1.0) * 57.29578)},
      {"degrees, 16-bit", kEastward, {}, 6, 45},
      {"degrees, 8-bit", kEastward, {}, 3, 45},
      {"degrees, double", kEastward, {}, 10, std::atan(1.0) * 57.29578},
      {"percent", kEastward, {{u"SlopeType", Long(2)}}, -1, 100},
      {"percent, z 3", kEastward, {{u"SlopeType", Long(2)}, {u"ZFactor", Variant(3.0)}}, 6, 300},
      {"flat degrees", kFlat, {}, -1, 0},
      {"flat percent", kFlat, {{u"SlopeType", Long(2)}}, -1, 0},
      {"flat scaled", kFlat, {{u"SlopeType", Long(3)}}, -1, 0},
      {"scaled factor",
       kEastward,
       {{u"SlopeType", Long(3)}},
       10,
       std::atan((0.024 + 1) / 8 * 8) * 57.29578},
      {"a 44.6 degree plane rounds up in integers",
       {5, 5, 1, [](LONG c, LONG) { return c * std::tan(44.6 / 57.29578); }},
       {},
       6,
       45},
      {"integers into 8 bits wrap, not clamp",
       kEastward,
       {{u"SlopeType", Long(2)}, {u"ZFactor", Variant(3.0)}},
       3,
       300 - 256},
  };
  for (const auto& c : cases) {
    const TerrainRun run = Slope(c.surface, c.values, c.pixelType);
    ASSERT_EQ(run.bind, S_OK) << c.what << test::LastError();
    ASSERT_EQ(run.read, S_OK) << c.what;
    EXPECT_EQ(run.out.type, c.pixelType >= 0 ? c.pixelType : 9) << c.what;
    EXPECT_DOUBLE_EQ(run.out.At(0, Centre(c.surface)), c.expected) << c.what;
  }
}

TEST(SlopeFunction, GeographicAndMercatorGridsScaleTheRise) {
  // 1-degree cells rising 111 m a cell eastward: with z = 1 the rise is 111 / 111000 per
  // degree, i.e. 0.001.
  Surface geographic{5, 5, 1, [](LONG c, LONG) { return 111.0 * c; }, 10, 4326, pw::kGeographic};
  const struct {
    const char* what;
    double z;
    LONG slopeType;
    double rise;
  } cases[] = {{"z 1 divides", 1.0, 1, 0.001},
               {"z 1.00001 divides", 1.00001, 1, 1.00001 * 0.001},
               {"z 2 does not", 2.0, 1, 222},
               {"scaled type ignores it", 1.0, 3, (0.024 + 1) * 111}};
  for (const auto& c : cases) {
    const TerrainRun run =
        Slope(geographic, {{u"ZFactor", Variant(c.z)}, {u"SlopeType", Long(c.slopeType)}}, 10);
    ASSERT_EQ(run.read, S_OK) << c.what;
    EXPECT_NEAR(run.out.At(0, 12), std::atan(c.rise) * 57.29578, 1e-9) << c.what;
  }
  // Mercator: the rise of each row grows with cosh(y / 6378137).
  Surface mercator{5, 5, 1000, [](LONG c, LONG) { return 100.0 * c; }, 10, 3857, 1, 5e6};
  const TerrainRun run = Slope(mercator, {{u"SlopeType", Long(2)}}, 10);
  ASSERT_EQ(run.read, S_OK);
  for (LONG r = 1; r < 4; ++r) {
    const double rowY = 5e6 - r * 1000.0;
    EXPECT_NEAR(run.out.At(0, r * 5 + 2), 0.1 * std::cosh(rowY / 6378137.0) * 100.0, 1e-9) << r;
  }
  // The same grid in another projected reference is not scaled.
  Surface utm = mercator;
  utm.wkid = 32633;
  EXPECT_NEAR(Slope(utm, {{u"SlopeType", Long(2)}}, 10).out.At(0, 12), 10.0, 1e-12);
}

TEST(SlopeFunction, ValidityRulesInAndAroundTheWindow) {
  // A plane rising 2 a cell eastward and 1 a cell southward; the centre is (2, 2).
  auto plane = [](std::vector<std::pair<LONG, LONG>> holes) {
    return Surface{5, 5, 1, [holes](LONG c, LONG r) {
                     for (auto [hc, hr] : holes)
                       if (hc == c && hr == r) return kNaN;
                     return 2.0 * c + r;
                   }};
  };
  const double full = std::atan(std::hypot(2.0, 1.0)) * 57.29578;
  // One missing neighbour: sides rescaled. With (3, 1) missing the right side is
  // (2 * f + i) * 4 / 3 and the top (a + 2b) * 4 / 3.
  const double right = (2 * (2 * 3 + 2) + (2 * 3 + 3)) * 4.0 / 3,
               left = (2 * 1 + 1) + 2 * (2 * 1 + 2) + (2 * 1 + 3);
  const double top = ((2 * 1 + 1) + 2 * (2 * 2 + 1)) * 4.0 / 3,
               bottom = (2 * 1 + 3) + 2 * (2 * 2 + 3) + (2 * 3 + 3);
  const double rescaled = std::atan(std::hypot((right - left) / 8, (bottom - top) / 8)) * 57.29578;
  const struct {
    const char* what;
    Surface surface;
    double expected;  // NaN: no-data
  } cases[] = {{"all valid", plane({}), full},
               {"one neighbour missing", plane({{3, 1}}), rescaled},
               {"two neighbours missing", plane({{3, 1}, {1, 3}}), kNaN},
               {"the centre missing", plane({{2, 2}}), kNaN},
               {"a hole beyond the window", plane({{0, 0}, {4, 4}}), full}};
  for (const auto& c : cases) {
    const TerrainRun run = Slope(c.surface, {}, 10);
    ASSERT_EQ(run.read, S_OK) << c.what;
    const std::size_t i = Centre(c.surface);
    if (std::isnan(c.expected)) {
      EXPECT_FALSE(run.out.Valid(0, i)) << c.what;
    } else {
      ASSERT_TRUE(run.out.Valid(0, i)) << c.what;
      EXPECT_NEAR(run.out.At(0, i), c.expected, 1e-12) << c.what;
    }
  }
  // No valid input: all invalid and S_FALSE.
  const TerrainRun empty = Slope(Surface{5, 5, 1, [](LONG, LONG) { return kNaN; }});
  EXPECT_EQ(empty.read, S_FALSE);
  EXPECT_EQ(raster::mask::Count(empty.out.block->Mask(0), 25), 0u);
}

// A function raster reads a terrain function straight into the caller's memory without
// clearing it first: whatever the memory held, every value and bit comes out the same.
TEST(TerrainFunctions, ReadsThroughARasterWriteEveryValueAndBit) {
  const Surface holed{9, 7, 1, [](LONG c, LONG r) {
                        return (c == 4 && r == 3) || (c == 0 && r == 6) ? kNaN : 3.0 * c - r;
                      }};
  const Surface empty{9, 7, 1, [](LONG, LONG) { return kNaN; }};
  const struct {
    const char* function;
    const char* arguments;
    const char* input;
  } functions[] = {{"SlopeFunction", "SlopeFunctionArguments", "DEM"},
                   {"AspectFunction", "RasterFunctionArguments", "Raster"},
                   {"HillshadeFunction", "HillshadeFunctionArguments", "DEM"}};
  for (const auto& f : functions) {
    for (const Surface* s : {&holed, &empty}) {
      auto function = Create<IRasterFunction>(ToUtf16(f.function));
      auto args = Create<IRasterFunctionArguments>(ToUtf16(f.arguments));
      args->PutValue(Bstr(ToUtf16(f.input)).Get(), Variant(static_cast<IUnknown*>(Dem(*s).Get())));
      ComPtr<IFunctionRasterDataset> dataset;
      ASSERT_EQ(framework::CreateFunctionRasterDataset(function.Get(), args.Get(), true, &dataset),
                S_OK);
      ComPtr<IRaster> raster;
      ASSERT_EQ(dataset.As<IRasterDataset>()->CreateDefaultRaster(&raster), S_OK);
      LONG type = -1;
      raster.As<IRasterProps>()->get_PixelType(&type);
      const std::size_t n = static_cast<std::size_t>(s->columns * s->rows);
      std::vector<std::vector<std::uint8_t>> values, masks;
      for (std::uint8_t junk : {0x00, 0xA5}) {
        ComPtr<IPixelBlock> block;
        ASSERT_EQ(raster::CreatePixelBlock(s->columns, s->rows, 1, type, &block), S_OK);
        const std::size_t bytes = n * raster::PixelSize(type);
        std::memset(block->Buffer(0), junk, bytes);
        std::memset(block->Mask(0), junk, raster::mask::Bytes(n));
        ASSERT_TRUE(SUCCEEDED(raster->ReadAt(0, 0, block.Get()))) << f.function;
        const auto* v = static_cast<const std::uint8_t*>(block->Buffer(0));
        values.emplace_back(v, v + bytes);
        masks.emplace_back(block->Mask(0), block->Mask(0) + raster::mask::Bytes(n));
      }
      EXPECT_EQ(values[0], values[1]) << f.function << (s == &empty ? " empty" : " holed");
      EXPECT_EQ(masks[0], masks[1]) << f.function << (s == &empty ? " empty" : " holed");
    }
  }
}

TEST(SlopeFunction, BordersNeedEdgeRemovalAndOnlyBandOneCounts) {
  Surface three = kEastward;
  three.bands = 3;
  const TerrainRun kept = Slope(three, {}, 10);
  ASSERT_EQ(kept.read, S_OK);
  // Border cells have at most five neighbours inside: no value without edge removal.
  for (LONG c = 0; c < 5; ++c) {
    EXPECT_FALSE(kept.out.Valid(0, c)) << c;
    EXPECT_FALSE(kept.out.Valid(0, 20 + c)) << c;
  }
  EXPECT_NEAR(kept.out.At(0, 12), 45.00000038, 1e-7);
  // With edge removal the border repeats its edge cells: the first column sees (0, 0, 1),
  // so half the rise.
  const TerrainRun removed = Slope(three, {{u"RemoveEdgeEffect", Variant(true)}}, 10);
  EXPECT_EQ(raster::mask::Count(removed.out.block->Mask(0), 25), 25u);
  EXPECT_NEAR(removed.out.At(0, 0), std::atan(0.5) * 57.29578, 1e-12);
  EXPECT_NEAR(removed.out.At(0, 2), std::atan(1.0) * 57.29578, 1e-12);
}

TEST(TerrainFunctions, DeviceChoicesOfABuildWithoutAGpu) {
  const struct {
    bool slope;
    LONG target;
    HRESULT bind, read;
  } cases[] = {{true, 1, S_OK, S_OK},       {true, 2, S_OK, S_OK},      {true, 0, S_OK, E_NOTIMPL},
               {true, 3, S_OK, E_NOTIMPL},  {false, 1, S_OK, S_OK},     {false, 2, S_OK, S_OK},
               {false, 3, S_OK, E_NOTIMPL}, {false, 0, E_FAIL, E_FAIL}, {false, 4, E_FAIL, E_FAIL}};
  for (const auto& c : cases) {
    const std::vector<std::pair<std::u16string, Variant>> values{
        {u"AnalysisTargetDevice", Long(c.target)}};
    const TerrainRun run = c.slope ? Slope(kEastward, values) : Aspect(kEastward, values);
    EXPECT_EQ(run.bind, c.bind) << c.slope << " " << c.target;
    if (SUCCEEDED(run.bind)) {
      EXPECT_EQ(run.read, c.read) << c.slope << " " << c.target;
    }
  }
}

// --- aspect ------------------------------------------------------------------------------

TEST(AspectFunction, DirectionsFlatCellsAndWraps) {
  // 90 - atan2(y, -x) x 57.29578, plus 360 below 0: the constant makes a quarter turn
  // 90.0000053 degrees.
  auto formula = [](double east, double south) {
    double v = 90.0 - std::atan2(south, -east) * 57.29578;
    return v < 0 ? v + 360.0 : v;
  };
  auto rising = [](double east, double south) {
    return Surface{5, 5, 1, [=](LONG c, LONG r) { return east * c + south * r; }};
  };
  const struct {
    const char* what;
    Surface surface;
    LONG pixelType;
    double expected;
  } cases[] = {
      {"rising east faces west", rising(1, 0), 10, formula(1, 0)},
      {"rising east faces west, 16 bits", rising(1, 0), -1, 270},
      {"rising south faces north", rising(0, 1), 10, formula(0, 1)},
      {"rising south faces north, 16 bits", rising(0, 1), -1, 0},
      {"rising north faces south", rising(0, -1), 6, 180},
      {"rising west faces east", rising(-1, 0), 6, 90},
      {"rising north-east faces south-west", rising(1, -1), 6, 225},
      {"flat in float", kFlat, 9, -1},
      {"flat in the default 16 bits", kFlat, -1, 0},
      {"359.6 rounds to 360 and wraps to 0",
       rising(std::sin(0.4 / 57.29578), std::cos(0.4 / 57.29578)), 6, 0},
      {"8 bits wrap at 256", rising(1, 0), 3, 270 - 256},
  };
  for (const auto& c : cases) {
    const TerrainRun run = Aspect(c.surface, {}, c.pixelType);
    ASSERT_EQ(run.read, S_OK) << c.what << test::LastError();
    EXPECT_EQ(run.out.type, c.pixelType >= 0 ? c.pixelType : 6) << c.what;
    EXPECT_NEAR(run.out.At(0, Centre(c.surface)), c.expected, 1e-9) << c.what;
  }
}

// --- hillshade ---------------------------------------------------------------------------

TEST(HillshadeFunction, LightsAndFactors) {
  const SurfaceCase cases[] = {
      {"flat under the default sun", kFlat, {}, -1, 180},
      {"flat in float", kFlat, {}, 10, 255 * std::cos(45 / 57.29577951308232)},
      {"flat, multidirectional", kFlat, {{u"HillshadeType", Long(1)}}, -1, 228},
      {"a steep slope facing away",
       {5, 5, 1, [](LONG c, LONG r) { return -50.0 * (c + r); }},
       {},
       -1,
       0},
      {"lit by a sun at the zenith",
       kEastward,
       {{u"Altitude", Variant(90.0)}},
       10,
       255 / std::sqrt(1 + 1.0)},
  };
  for (const auto& c : cases) {
    const TerrainRun run = Hillshade(c.surface, c.values, c.pixelType);
    ASSERT_EQ(run.read, S_OK) << c.what << test::LastError();
    EXPECT_EQ(run.out.type, c.pixelType >= 0 ? c.pixelType : 3) << c.what;
    EXPECT_NEAR(run.out.At(0, Centre(c.surface)), c.expected, 1e-9) << c.what;
  }
  // Geographic grids: z 1 divides the factors by 111000; z 2 does not, unless
  // multidirectional (which also doubles z). Expected values from the lights directly.
  auto shade = [](double p, double azimuth, double altitude) {
    const double rad = 3.141592653589793 / 180, zenith = (90 - altitude) * rad,
                 direction = (360 - azimuth + 90) * rad;
    return std::max(0.0, (-p * std::cos(direction) * std::sin(zenith) + std::cos(zenith)) * 255 /
                             std::sqrt(1 + p * p));
  };
  const double lights[6][3] = {{315, 60, 3}, {270, 60, 5}, {225, 60, 3},
                               {360, 60, 2}, {180, 60, 1}, {0, 90, 4}};
  double multidirectional = 0;
  for (const auto& l : lights) multidirectional += shade(4, l[0], l[1]) * l[2] / 18;
  Surface geographic{5, 5, 1, [](LONG c, LONG) { return 111000.0 * c; }, 10, 4326, pw::kGeographic};
  const struct {
    double z;
    LONG type;
    double expected;
  } geo[] = {{1, 0, shade(1, 315, 45)}, {2, 0, shade(222000, 315, 45)}, {2, 1, multidirectional}};
  for (const auto& g : geo) {
    const TerrainRun run =
        Hillshade(geographic, {{u"ZFactor", Variant(g.z)}, {u"HillshadeType", Long(g.type)}}, 10);
    ASSERT_EQ(run.read, S_OK);
    EXPECT_NEAR(run.out.At(0, 12), g.expected, 1e-9) << g.z << " " << g.type;
  }
  // The altitude setter refuses more than 90 degrees and keeps the old value.
  auto args = Create<IHillshadeFunctionArguments>(u"HillshadeFunctionArguments");
  EXPECT_EQ(args->put_Altitude(30), S_OK);
  EXPECT_EQ(args->put_Altitude(91), E_INVALIDARG);
  double altitude = 0;
  args->get_Altitude(&altitude);
  EXPECT_EQ(altitude, 30);
  // Hillshade type 2 does not bind.
  const TerrainRun two = Hillshade(kFlat, {{u"HillshadeType", Long(2)}});
  EXPECT_EQ(two.bind, E_NOTIMPL);
}

// --- kernels against the reference -------------------------------------------------------

// Distance in units of the last place of the output type. For 64-bit outputs the unit is
// taken at no less than 360: angles come from 90 - atan2(...) x 57.29578 and similar
// differences, where the last place of the arctangent is what stays meaningful.
double Ulps(double a, double b, LONG type) {
  if (a == b || (std::isnan(a) && std::isnan(b))) return 0;
  if (type == 9) return std::fabs(a - b) / (std::max(std::fabs(a), std::fabs(b)) * 0x1p-23);
  return std::fabs(a - b) / (std::max({std::fabs(a), std::fabs(b), 360.0}) * 0x1p-52);
}

// Whether a computed block equals the reference's where the reference has values: integer
// outputs exactly, float outputs within four units in the last place.
testing::AssertionResult MatchesReference(const std::vector<std::uint8_t>& got,
                                          const std::vector<std::uint8_t>& expected,
                                          const std::vector<std::uint8_t>& expectedMask,
                                          std::size_t n, LONG outType) {
  const std::size_t size = raster::PixelSize(outType);
  for (std::size_t i = 0; i < n; ++i) {
    if (!raster::mask::Get(expectedMask.data(), i)) continue;
    double a = 0, b = 0;
    raster::VisitPixelType(outType, [&](auto tag) {
      using T = typename decltype(tag)::type;
      T x, y;
      std::memcpy(&x, got.data() + i * size, size);
      std::memcpy(&y, expected.data() + i * size, size);
      a = static_cast<double>(x), b = static_cast<double>(y);
    });
    const bool same = raster::IsIntegerPixelType(outType) ? a == b : Ulps(a, b, outType) <= 4;
    if (!same)
      return testing::AssertionFailure()
             << "out " << outType << " cell " << i << ": " << a << " against " << b;
  }
  return testing::AssertionSuccess();
}

TEST(TerrainKernels, EqualTheReferenceForEveryTypeAndInstructionSet) {
  std::mt19937 random(3);
  constexpr LONG w = 37, h = 9;
  constexpr std::size_t in = (w + 2) * (h + 2), n = w * h;
  terrain::SlopeFormula::Params degrees;
  degrees.fx = 0.3, degrees.fy = 0.2;
  terrain::SlopeFormula::Params percent = degrees;
  percent.slopeType = 2, percent.mercator = true, percent.topY = 4e6, percent.cellY = 30;
  const terrain::AspectFormula::Params aspect{30, 25};
  terrain::HillshadeFormula::Params shade;
  shade.fx = 0.05, shade.fy = 0.04, shade.lights = 6;
  for (int k = 0; k < 6; ++k) shade.light[k] = terrain::MakeLight(60.0 * k, 30 + 10 * k, 1 / 6.0);
  const struct {
    const char* name;
    terrain::Surface surface;
  } surfaces[] = {
      {"slope", terrain::MakeSurface<terrain::SlopeFormula>(degrees)},
      {"percent slope on Mercator", terrain::MakeSurface<terrain::SlopeFormula>(percent)},
      {"aspect", terrain::MakeSurface<terrain::AspectFormula>(aspect)},
      {"multidirectional hillshade", terrain::MakeSurface<terrain::HillshadeFormula>(shade)}};
  for (LONG inType = 3; inType <= 10; ++inType) {
    const raster::ValueRange range = raster::PixelRange(inType);
    std::vector<std::uint8_t> values(in * raster::PixelSize(inType));
    raster::VisitPixelType(inType, [&](auto tag) {
      using T = typename decltype(tag)::type;
      std::uniform_real_distribution<double> d(std::max(range.lowest, -1000.0),
                                               std::min(range.highest, 3000.0));
      for (std::size_t i = 0; i < in; ++i)
        reinterpret_cast<T*>(values.data())[i] = static_cast<T>(d(random));
    });
    for (bool holes : {false, true}) {
      std::vector<std::uint8_t> mask(raster::mask::Bytes(in), 0xFF);
      if (holes)
        for (std::size_t i = 0; i < in; ++i)
          if (random() % 9 == 0) raster::mask::Clear(mask.data(), i);
      for (const auto& [name, surface] : surfaces) {
        for (LONG outType : {3L, 4L, 5L, 6L, 8L, 9L, 10L}) {
          const std::size_t size = raster::PixelSize(outType);
          std::vector<std::uint8_t> expected(n * size), expectedMask(raster::mask::Bytes(n));
          ASSERT_EQ(
              terrain::ComputeReference(values.data(), mask.data(), inType, w, h, expected.data(),
                                        expectedMask.data(), outType, surface),
              S_OK);
          for (auto isa : test::Isas()) {
            for (int threads : {1, 2}) {
              std::vector<std::uint8_t> got(n * size), gotMask(raster::mask::Bytes(n));
              ASSERT_EQ(terrain::Compute(values.data(), mask.data(), inType, w, h, got.data(),
                                         gotMask.data(), outType, surface, threads, isa),
                        S_OK);
              ASSERT_EQ(gotMask, expectedMask);
              ASSERT_TRUE(MatchesReference(got, expected, expectedMask, n, outType))
                  << "in " << inType << " " << name << " " << raster::simd::Name(isa) << " threads "
                  << threads;
            }
          }
        }
      }
    }
  }
}

// Extreme double surfaces in float outputs, where the vector paths' shortcuts (reciprocal
// estimates, the arctangent's reduction) meet their limits: differences too small for a
// reciprocal, rises that overflow a float, flat planes, and exact compass directions (whose
// aspect falls on the wrap at 360).
TEST(TerrainKernels, ExtremeSurfacesInFloatOutputsEqualTheReference) {
  constexpr LONG w = 35, h = 3;  // two full vectors and a masked tail per row
  constexpr std::size_t in = (w + 2) * (h + 2), n = w * h;
  std::mt19937 random(5);
  std::uniform_real_distribution<double> unit(-1, 1);
  const struct {
    const char* what;
    std::function<double(LONG c, LONG r)> z;
  } surfaces[] = {
      {"subnormal differences", [&](LONG, LONG) { return 1e-300 * (1 + 1e-9 * unit(random)); }},
      {"subnormal slopes", [&](LONG c, LONG r) { return 3e-310 * c + 2e-310 * r; }},
      {"huge rises", [&](LONG c, LONG r) { return 1e300 * unit(random) + 1e290 * (c + r); }},
      {"flat", [](LONG, LONG) { return 1234.5; }},
      {"an infinite cell",
       [](LONG c, LONG r) {
         return c == 17 && r == 2 ? std::numeric_limits<double>::infinity() : 5.0 * c - r;
       }},
      {"due north", [](LONG, LONG r) { return -3.0 * r; }},
      {"due east", [](LONG c, LONG) { return -2.0 * c; }},
      {"due south", [](LONG, LONG r) { return 3.0 * r; }},
      {"due west", [](LONG c, LONG) { return 2.0 * c; }},
  };
  for (const auto& s : surfaces) {
    std::vector<double> dem(in);
    for (LONG r = 0; r < h + 2; ++r)
      for (LONG c = 0; c < w + 2; ++c) dem[static_cast<std::size_t>(r * (w + 2) + c)] = s.z(c, r);
    std::vector<std::uint8_t> mask(raster::mask::Bytes(in), 0xFF);
    terrain::SlopeFormula::Params slope;
    slope.fx = 1.0 / 240, slope.fy = 1.0 / 240;
    const terrain::AspectFormula::Params aspect{30, 30};
    const std::pair<const char*, terrain::Surface> kinds[] = {
        {"slope", terrain::MakeSurface<terrain::SlopeFormula>(slope)},
        {"aspect", terrain::MakeSurface<terrain::AspectFormula>(aspect)}};
    for (const auto& [name, surface] : kinds) {
      std::vector<std::uint8_t> expected(n * 4), expectedMask(raster::mask::Bytes(n));
      ASSERT_EQ(terrain::ComputeReference(dem.data(), mask.data(), 10, w, h, expected.data(),
                                          expectedMask.data(), 9, surface),
                S_OK);
      for (auto isa : test::Isas()) {
        std::vector<std::uint8_t> got(n * 4), gotMask(raster::mask::Bytes(n));
        ASSERT_EQ(terrain::Compute(dem.data(), mask.data(), 10, w, h, got.data(), gotMask.data(), 9,
                                   surface, 1, isa),
                  S_OK);
        EXPECT_EQ(gotMask, expectedMask) << s.what;
        EXPECT_TRUE(MatchesReference(got, expected, expectedMask, n, 9))
            << s.what << " " << name << " " << raster::simd::Name(isa);
      }
    }
  }
}

// Wide blocks, smooth surfaces from nearly flat to steep, and holes sparse enough that runs
// of whole windows and checked cells alternate in a row, or only in the first and last
// column (a strip at the raster's left and right edges).
TEST(TerrainKernels, WideBlocksWithSparseHolesEqualTheReference) {
  std::mt19937 random(11);
  enum Kind { kSlope, kAspect, kHillshade };
  struct Case {
    LONG width;
    double factor;  // z-factor over 8 x cell size: the steepness
    Kind surface;
    LONG outType;
    bool edgesOnly = false;
  };
  const Case cases[] = {{1100, 1e-4, kSlope, 9},      {1100, 0.01, kSlope, 9},
                        {600, 0.3, kSlope, 6},        {1100, 0.02, kAspect, 6},
                        {513, 0.05, kHillshade, 3},   {1021, 0.01, kSlope, 9, true},
                        {777, 0.02, kAspect, 9, true}};
  constexpr LONG h = 6;
  for (const Case& k : cases) {
    const std::size_t in = static_cast<std::size_t>(k.width + 2) * (h + 2);
    const std::size_t n = static_cast<std::size_t>(k.width) * h;
    std::vector<float> dem(in);
    std::normal_distribution<double> noise(0, 0.5);
    for (std::size_t i = 0; i < in; ++i)
      dem[i] = static_cast<float>(800 + 40 * std::sin(static_cast<double>(i % (k.width + 2)) / 9) +
                                  3 * static_cast<double>(i / (k.width + 2)) + noise(random));
    std::vector<std::uint8_t> mask(raster::mask::Bytes(in), 0xFF);
    for (std::size_t i = 0; i < in; ++i) {
      const std::size_t column = i % static_cast<std::size_t>(k.width + 2);
      const bool edge = column == 0 || column == static_cast<std::size_t>(k.width) + 1;
      if (k.edgesOnly ? edge : random() % 400 == 0) raster::mask::Clear(mask.data(), i);
    }
    terrain::SlopeFormula::Params slope;
    slope.fx = k.factor, slope.fy = 0.8 * k.factor;
    const terrain::AspectFormula::Params aspect{30, 30};
    terrain::HillshadeFormula::Params shade;
    shade.fx = slope.fx, shade.fy = slope.fy;
    shade.light[0] = terrain::MakeLight(315, 45, 1);
    const terrain::Surface p =
        k.surface == kSlope    ? terrain::MakeSurface<terrain::SlopeFormula>(slope)
        : k.surface == kAspect ? terrain::MakeSurface<terrain::AspectFormula>(aspect)
                               : terrain::MakeSurface<terrain::HillshadeFormula>(shade);
    const std::size_t size = raster::PixelSize(k.outType);
    std::vector<std::uint8_t> expected(n * size), expectedMask(raster::mask::Bytes(n));
    ASSERT_EQ(terrain::ComputeReference(dem.data(), mask.data(), 9, k.width, h, expected.data(),
                                        expectedMask.data(), k.outType, p),
              S_OK);
    for (auto isa : test::Isas()) {
      for (int threads : {1, 2}) {
        std::vector<std::uint8_t> got(n * size), gotMask(raster::mask::Bytes(n));
        ASSERT_EQ(terrain::Compute(dem.data(), mask.data(), 9, k.width, h, got.data(),
                                   gotMask.data(), k.outType, p, threads, isa),
                  S_OK);
        ASSERT_EQ(gotMask, expectedMask);
        ASSERT_TRUE(MatchesReference(got, expected, expectedMask, n, k.outType))
            << "width " << k.width << " " << raster::simd::Name(isa) << " threads " << threads;
      }
    }
  }
}

}  // namespace
}  // namespace pw::functions
