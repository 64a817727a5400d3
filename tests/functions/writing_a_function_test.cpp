// The worked example of docs/writing-functions.md, compiled and run: a fourth 3 x 3 surface,
// the steepness of the gradient in elevation units per map unit, added as a formula and a
// SurfaceFunction without touching a shared file.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "framework/arguments.h"
#include "functions/terrain/surface_engine.h"
#include "functions/terrain/terrain_function.h"
#include "resources/string_table.h"
#include "tests/functions/function_test_support.h"

namespace pw::functions {
namespace {

// --- the example, as the page shows it ---------------------------------------------------

struct GradientFormula {
  struct Params {
    double fx = 0, fy = 0;  // 1 over 8 x cell size
  };
  static constexpr double kPeriod = 0;

  template <class O, class D>
  PW_ALWAYS_INLINE static void Row(const D d, LONG width, LONG, const Params& p,
                                   O* __restrict out) {
    for (LONG c = 0; c < width; ++c) {
      const double gx = p.fx * d.X(c), gy = p.fy * d.Y(c);
      out[c] = terrain::StoreCell<O, false>(std::sqrt(gx * gx + gy * gy));
    }
  }
  static double Cell(double dzdx, double dzdy, LONG, const Params& p) {
    return std::hypot(p.fx * dzdx, p.fy * dzdy);
  }
};

class GradientFunction : public SurfaceFunction<GradientFormula> {
 public:
  PW_CLASS_IDENTITY(GradientFunction)
  GradientFunction()
      : SurfaceFunction(res::IDS_SLOPE_FUNCTION_NAME, res::IDS_SLOPE_FUNCTION_DESCRIPTION) {}

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override {
    auto* args = dynamic_cast<framework::BasicFunctionArguments*>(arguments);
    if (args == nullptr) return InvalidRaster(u"Raster");
    PW_RETURN_IF_FAILED(BindElevation(args->Find(u"Raster"), false, 9, u"Gradient"));
    params_ = {1 / (8 * cellX_), 1 / (8 * cellY_)};
    ChooseDevice(2, -1);
    return S_OK;
  }
};

// --- its test --------------------------------------------------------------------------------

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(WritingAFunction, AFourthSurfaceIsAFormulaAndABind) {
  // Planes z = a x + b y over cells 2 wide and 0.5 high: every cell with a window has the
  // gradient's length, sqrt(a^2 + b^2). The outer ring has no window (edges invalid), and a
  // hole has no value while its neighbours, with seven valid cells, still have theirs.
  const struct {
    double a, b;
    bool hole;
  } planes[] = {{0, 0, false}, {3, 0, false}, {0, -4, false}, {3, 4, false}, {3, 4, true}};
  for (const auto& plane : planes) {
    constexpr LONG kColumns = 7, kRows = 6;
    const raster::RasterGrid grid{0, 0, kColumns * 2.0, kRows * 0.5, kColumns, kRows};
    const ComPtr<IRaster> dem = test::MemoryRaster(grid, 1, 9, [&](LONG, LONG c, LONG r) {
      if (plane.hole && c == 3 && r == 2) return kNaN;
      return plane.a * (c * 2.0) - plane.b * (r * 0.5);
    });
    auto function = MakeObject<GradientFunction>();
    auto args = MakeObject<framework::RasterFunctionArguments>();
    args->PutValue(Bstr(u"Raster").Get(), Variant(static_cast<IUnknown*>(dem.Get())));
    ASSERT_EQ(function->Bind(args.As<IUnknown>().Get()), S_OK);
    const test::Output out = test::ReadOutput(function.As<IRasterFunction>().Get());
    ASSERT_EQ(out.type, 9);
    for (LONG r = 0; r < kRows; ++r) {
      for (LONG c = 0; c < kColumns; ++c) {
        const std::size_t i = static_cast<std::size_t>(r * kColumns + c);
        const bool ring = r == 0 || c == 0 || r == kRows - 1 || c == kColumns - 1;
        const bool centre = plane.hole && c == 3 && r == 2;
        SCOPED_TRACE(testing::Message()
                     << plane.a << "x + " << plane.b << "y cell " << c << "," << r);
        EXPECT_EQ(out.Valid(0, i), !ring && !centre);
        // A hole's diagonal neighbours lose a corner: their sides are rescaled from three
        // cells, which a tilted plane does not survive exactly; the others lose a side's
        // middle cell, which it does.
        const bool diagonal = plane.hole && std::abs(c - 3) == 1 && std::abs(r - 2) == 1;
        if (out.Valid(0, i) && !diagonal) {
          EXPECT_NEAR(out.At(0, i), std::hypot(plane.a, plane.b), 1e-5);
        }
      }
    }
  }
}

}  // namespace
}  // namespace pw::functions
