// The arithmetic function: promotion, rounding and clamping, no-data, band matching,
// constants, grids, and every kernel against the scalar reference.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "com/errorinfo.h"
#include "functions/elementary/arithmetic_function.h"
#include "raster/band_indexes.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"
#include "raster/raster_view.h"
#include "raster/values/arrays.h"
#include "tests/functions/function_test_support.h"

namespace pw::functions {
namespace {

using namespace arithmetic;
using test::Create;
using test::MemoryRaster;
using test::Output;
using test::ReadOutput;
using test::Row;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Bound {
  ComPtr<IRasterFunction> function;
  ComPtr<IRasterFunctionArguments> arguments;
  HRESULT hr = E_FAIL;
};

Variant Numbers(std::vector<double> values) {
  auto array = MakeObject<raster::DoubleArray>();
  array->Items() = std::move(values);
  return Variant(array->AsUnknown());
}

// Binds a + b (or another operation) on one-row in-memory rasters.
Bound Arithmetic(const VARIANT& a, const VARIANT& b, LONG operation,
                 const std::function<void(IRasterFunctionArguments*)>& more = {}) {
  Bound bound{Create<IRasterFunction>(u"ArithmeticFunction"),
              Create<IRasterFunctionArguments>(u"ArithmeticFunctionArguments")};
  auto typed = bound.arguments.As<IArithmeticFunctionArguments>();
  typed->put_Raster(a);
  typed->put_Raster2(b);
  typed->put_Operation(operation);
  if (more) more(bound.arguments.Get());
  bound.hr = bound.function->Bind(bound.arguments.Get());
  return bound;
}

Variant RowOf(const std::vector<double>& values, LONG type, LONG bands = 1) {
  ComPtr<IRaster> raster =
      MemoryRaster(Row(static_cast<LONG>(values.size())), bands, type,
                   [&](LONG b, LONG c, LONG) { return values[c] + 1000.0 * b * (type >= 5); });
  return Variant(static_cast<IUnknown*>(raster.Get()));
}

// --- promotion ---------------------------------------------------------------------------

TEST(ArithmeticPromotion, FollowsTheCodeTable) {
  const struct {
    LONG common, operation, expected;
  } cases[] = {
      {3, kPlus, 5},    {0, kPlus, 2},    {1, kPlus, 3},   {2, kPlus, 4},
      {4, kPlus, 6},    {5, kTimes, 7},   {6, kTimes, 8},  {7, kPlus, 10},
      {9, kDivide, 10}, {10, kMinus, 10}, {3, kMinus, 6},  {5, kMinus, 8},
      {4, kMinus, 6},   {6, kMinus, 8},   {0, kMinus, 0},  {2, kMinus, 2},
      {3, kPower, 8},   {6, kPower, 8},   {9, kPower, 10}, {3, kDivide, 3},
      {6, kMode, 6},    {9, kMode, 8},    {7, kMode, 8},   {5, kFractionDifference, 5},
  };
  for (const auto& c : cases)
    EXPECT_EQ(PromotePixelType(c.common, c.operation), c.expected)
        << "common " << c.common << " operation " << c.operation;
}

TEST(ArithmeticPromotion, OutputTypesFollowTheInputs) {
  const struct {
    LONG typeA, typeB, operation;
    bool adjust;
    LONG expected;
  } cases[] = {{3, 3, kPlus, true, 5},    {3, 3, kMinus, true, 6}, {2, 2, kPlus, true, 4},
               {0, 0, kPlus, true, 2},    {9, 9, kPlus, true, 10}, {9, 9, kMode, true, 8},
               {9, 9, kDivide, true, 10}, {3, 3, kPlus, false, 3}, {3, 6, kTimes, true, 8},
               {5, 4, kMinus, true, 8}};
  for (const auto& c : cases) {
    Bound b = Arithmetic(
        RowOf({1, 2}, c.typeA), RowOf({1, 1}, c.typeB), c.operation,
        [&](IRasterFunctionArguments* args) {
          if (!c.adjust)
            ComPtr<IRasterFunctionArguments>(args).As<IRasterFunctionArguments2>()->SetProperty(
                Bstr(u"AdjustPixelType").Get(), Variant(false));
        });
    ASSERT_EQ(b.hr, S_OK);
    ComPtr<IRasterInfo> info;
    b.function->get_RasterInfo(&info);
    LONG type = -1;
    info->get_PixelType(&type);
    EXPECT_EQ(type, c.expected) << c.typeA << " op " << c.operation << " " << c.typeB;
  }
}

// --- evaluation, clamping and rounding --------------------------------------------------

struct PixelCase {
  const char* what;
  double a, b;
  LONG typeA, typeB, operation;
  double expected;  // NaN: no-data
  bool adjust = true;
  SHORT toleranceType = 0;
  double tolerance = 0;
};

class ArithmeticPixels : public ::testing::TestWithParam<PixelCase> {};

TEST_P(ArithmeticPixels, GiveTheValueTheRulesDefine) {
  const PixelCase& c = GetParam();
  Bound b = Arithmetic(
      RowOf({c.a}, c.typeA), RowOf({c.b}, c.typeB), c.operation,
      [&](IRasterFunctionArguments* args) {
        if (!c.adjust)
          ComPtr<IRasterFunctionArguments>(args).As<IRasterFunctionArguments2>()->SetProperty(
              Bstr(u"AdjustPixelType").Get(), Variant(false));
        auto fraction = ComPtr<IRasterFunctionArguments>(args).As<IFractionDifferenceArguments>();
        fraction->put_ToleranceType(c.toleranceType);
        fraction->put_ToleranceSize(c.tolerance);
      });
  ASSERT_EQ(b.hr, S_OK) << test::LastError();
  const Output out = ReadOutput(b.function.Get());
  if (std::isnan(c.expected)) {
    EXPECT_FALSE(out.Valid(0, 0)) << c.what;
  } else {
    ASSERT_TRUE(out.Valid(0, 0)) << c.what;
    EXPECT_EQ(out.At(0, 0), c.expected) << c.what;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Promotion, ArithmeticPixels,
    ::testing::Values(PixelCase{"u8 plus widens", 200, 100, 3, 3, kPlus, 300},
                      PixelCase{"u8 minus goes signed", 10, 20, 3, 3, kMinus, -10},
                      PixelCase{"u16 times fits u32", 65535, 65535, 5, 5, kTimes, 4294836225.0},
                      PixelCase{"s8 minus widens", -128, 127, 4, 4, kMinus, -255},
                      PixelCase{"f32 plus in double", 0.1, 0.2, 9, 9, kPlus,
                                static_cast<double>(0.1f) + static_cast<double>(0.2f)}));

INSTANTIATE_TEST_SUITE_P(
    Rounding, ArithmeticPixels,
    ::testing::Values(PixelCase{"no adjustment clamps", 200, 100, 3, 3, kPlus, 255, false},
                      PixelCase{"no adjustment clamps below", 10, 20, 3, 3, kMinus, 0, false},
                      PixelCase{"divide rounds half up", 7, 2, 6, 6, kDivide, 4},
                      PixelCase{"negative half rounds up", -7, 2, 6, 6, kDivide, -3},
                      PixelCase{"divide in double", 1, 3, 9, 9, kDivide, 1.0 / 3.0},
                      PixelCase{"power to s32", 2, 10, 3, 3, kPower, 1024},
                      PixelCase{"power clamps to s32", 10, 12, 3, 3, kPower, 2147483647.0},
                      PixelCase{"mode keeps the dividend's sign", -7, 3, 6, 6, kMode, -1},
                      PixelCase{"promoted float mode reads rounded integers", 7.9, 2.5, 9, 9, kMode,
                                2},
                      PixelCase{"float mode truncates", 7.9, 2.5, 9, 9, kMode, 1, false},
                      PixelCase{"float mode of large values", 1e10, 7, 10, 10, kMode, 4, false}));

INSTANTIATE_TEST_SUITE_P(NoData, ArithmeticPixels,
                         ::testing::Values(PixelCase{"divide by zero", 5, 0, 3, 3, kDivide, kNaN},
                                           PixelCase{"mode by zero", 5, 0, 3, 3, kMode, kNaN},
                                           PixelCase{"root of a negative", -8, 0.5, 9, 9, kPower,
                                                     kNaN},
                                           PixelCase{"float mode by a divisor truncating to 0", 5.5,
                                                     0.5, 9, 9, kMode, kNaN, false},
                                           PixelCase{"relative tolerance with b = 0", 5, 0, 6, 6,
                                                     kFractionDifference, kNaN, true, 0, 0.1}));

INSTANTIATE_TEST_SUITE_P(
    FractionDifference, ArithmeticPixels,
    ::testing::Values(
        PixelCase{"within a relative tolerance", 105, 100, 6, 6, kFractionDifference, 0, true, 0,
                  0.1},
        PixelCase{"at a relative tolerance", 105, 100, 6, 6, kFractionDifference, 5, true, 0, 0.05},
        PixelCase{"beyond a relative tolerance", 105, 100, 6, 6, kFractionDifference, 5, true, 0,
                  0.01},
        PixelCase{"negative b gives a negative ratio", 105, -100, 6, 6, kFractionDifference, 0,
                  true, 0, 0.01},
        PixelCase{"absolute tolerance", 105, 100, 6, 6, kFractionDifference, 5, true, 1, 3},
        PixelCase{"absolute tolerance met", 105, 100, 6, 6, kFractionDifference, 0, true, 1, 6},
        PixelCase{"a float difference stays unrounded", 10.6, 10, 9, 9, kFractionDifference,
                  static_cast<double>(10.6f) - 10.0, true, 1, 0}));

TEST(ArithmeticFunction, OperationsAcceptTheirNames) {
  const struct {
    const char16_t* text;
    LONG code;
  } cases[] = {{u"plus", kPlus},
               {u"Minus", kMinus},
               {u" times ", kTimes},
               {u"/", kDivide},
               {u"POWER", kPower},
               {u"%", kMode},
               {u"FractionDifference", kFractionDifference},
               {u"4", kDivide},
               {u"nonsense", 0}};
  for (const auto& c : cases) {
    auto args = Create<IRasterFunctionArguments>(u"ArithmeticFunctionArguments");
    args->PutValue(Bstr(u"Operation").Get(), Variant(c.text));
    LONG code = -1;
    ComPtr<IRasterFunctionArguments>(args).As<IArithmeticFunctionArguments>()->get_Operation(&code);
    EXPECT_EQ(code, c.code) << ToUtf8(c.text);
  }
  auto args = Create<IRasterFunctionArguments>(u"ArithmeticFunctionArguments");
  LONG code = -1;
  ComPtr<IRasterFunctionArguments>(args).As<IArithmeticFunctionArguments>()->get_Operation(&code);
  EXPECT_EQ(code, kPlus);
}

TEST(ArithmeticFunction, AnUnknownOperationBindsButFailsEachRead) {
  Bound b = Arithmetic(RowOf({1}, 3), RowOf({1}, 3), 9);
  ASSERT_EQ(b.hr, S_OK);
  ComPtr<IPixelBlock> block;
  raster::CreatePixelBlock(1, 1, 1, 3, &block);
  auto origin = MakeObject<raster::Pnt>();
  EXPECT_EQ(b.function->Read(origin.As<IPnt>().Get(), nullptr, block.Get()), E_NOTIMPL);
  EXPECT_NE(test::LastError().find("operation 9"), std::string::npos);
}

// --- no-data and bands ---------------------------------------------------------------------

TEST(ArithmeticFunction, APixelInvalidInEitherInputIsInvalid) {
  Bound b = Arithmetic(RowOf({1, kNaN, 3, 4}, 9), RowOf({1, 2, kNaN, 4}, 9), kPlus);
  ASSERT_EQ(b.hr, S_OK);
  const Output out = ReadOutput(b.function.Get());
  EXPECT_TRUE(out.Valid(0, 0));
  EXPECT_FALSE(out.Valid(0, 1));
  EXPECT_FALSE(out.Valid(0, 2));
  EXPECT_EQ(out.At(0, 3), 8);
}

TEST(ArithmeticFunction, FewerBandsRepeatToTheLargerCount) {
  // Three bands of 10, 1010, 2010 and one band of 1: the single band repeats.
  Bound b = Arithmetic(RowOf({10}, 6, 3), RowOf({1}, 6, 1), kMinus);
  ASSERT_EQ(b.hr, S_OK);
  const Output out = ReadOutput(b.function.Get());
  ASSERT_EQ(out.bands, 3);
  EXPECT_EQ(out.At(0, 0), 9);
  EXPECT_EQ(out.At(1, 0), 1009);
  EXPECT_EQ(out.At(2, 0), 2009);
  // Two bands against three: the second band repeats.
  Bound c = Arithmetic(RowOf({10}, 6, 3), RowOf({0}, 6, 2), kPlus);
  const Output two = ReadOutput(c.function.Get());
  ASSERT_EQ(two.bands, 3);
  EXPECT_EQ(two.At(2, 0), 2010 + 1000);
}

TEST(ArithmeticFunction, ConstantsTakeTheOtherOperandsGrid) {
  // One constant per band, the last repeated; a fractional constant is not truncated.
  Bound b = Arithmetic(RowOf({10, 20}, 3, 2), Numbers({2, 0.5, 7}), kTimes);
  ASSERT_EQ(b.hr, S_OK) << test::LastError();
  const Output out = ReadOutput(b.function.Get());
  ASSERT_EQ(out.bands, 3);
  EXPECT_EQ(out.type, 10);
  EXPECT_EQ(out.At(0, 1), 40);
  EXPECT_EQ(out.At(1, 1), 10);
  EXPECT_EQ(out.At(2, 0), 70);  // band 2 of the raster repeats its last band (10)
  // A constant first operand; an integer constant keeps integer promotion.
  Bound c = Arithmetic(Variant(100.0), RowOf({1, 2}, 3), kMinus);
  ASSERT_EQ(c.hr, S_OK) << test::LastError();
  const Output minus = ReadOutput(c.function.Get());
  EXPECT_EQ(minus.type, 6);
  EXPECT_EQ(minus.At(0, 1), 98);
}

TEST(ArithmeticFunction, TwoConstantsNeedARasterInfoTemplate) {
  Bound b = Arithmetic(Variant(1.0), Variant(2.0), kPlus);
  EXPECT_EQ(b.hr, E_INVALIDARG);
  EXPECT_NE(test::LastError().find("[Raster]"), std::string::npos);
  Bound c = Arithmetic(Variant(1.0), Variant(2.0), kPlus, [](IRasterFunctionArguments* args) {
    auto info = Create<IRasterInfo>(u"RasterInfo");
    auto extent = MakeObject<raster::Envelope>();
    extent->PutCoords(0, 0, 4, 2);
    info->put_Extent(extent.As<IEnvelope>().Get());
    info->put_PixelSizeX(1);
    info->put_PixelSizeY(1);
    info->put_BandCount(1);
    info->put_PixelType(3);
    ComPtr<IRasterFunctionArguments>(args).As<IRasterFunctionArguments2>()->SetProperty(
        Bstr(u"RasterInfo").Get(), Variant(static_cast<IUnknown*>(info.Get())));
  });
  ASSERT_EQ(c.hr, S_OK) << test::LastError();
  const Output out = ReadOutput(c.function.Get());
  EXPECT_EQ(out.At(0, 7), 3);
}

TEST(ArithmeticFunction, BadOperandsNameTheArgument) {
  const struct {
    Variant a, b;
    const char* named;
    HRESULT hr;
  } cases[] = {
      {Variant(u"/no/such/file.tif"), RowOf({1}, 3), "[Raster]", E_INVALIDARG},
      {RowOf({1}, 3), Variant(), "[Raster2]", E_INVALIDARG},
      {RowOf({1}, 3), Variant(u"/no/such/file.tif"), "[Raster2]", E_INVALIDARG},
      {RowOf({1}, 3), RowOf({1}, 3, 0), "[Raster2]", raster::kNoBands},
  };
  for (const auto& c : cases) {
    Bound b = Arithmetic(c.a, c.b, kPlus);
    EXPECT_EQ(b.hr, c.hr) << c.named;
    EXPECT_NE(test::LastError().find(c.named), std::string::npos) << c.named;
  }
}

TEST(ArithmeticFunction, DisjointInputsDoNotOverlap) {
  ComPtr<IRaster> far = MemoryRaster(raster::RasterGrid{100, 100, 102, 101, 2, 1}, 1, 3,
                                     [](LONG, LONG, LONG) { return 1.0; });
  Bound b = Arithmetic(
      RowOf({1, 2}, 3), Variant(static_cast<IUnknown*>(far.Get())), kPlus,
      [](IRasterFunctionArguments* args) {
        ComPtr<IRasterFunctionArguments>(args).As<IArithmeticFunctionArguments2>()->put_ExtentType(
            1);
      });
  EXPECT_EQ(b.hr, E_INVALIDARG);
  EXPECT_NE(test::LastError().find("do not overlap"), std::string::npos);
}

// --- kernels against the reference -------------------------------------------------------

// Values of a type, with zeros, extremes and (for floats) fractions and huge magnitudes.
std::vector<double> RandomValues(LONG type, std::size_t n, std::mt19937& random) {
  const raster::ValueRange range = raster::PixelRange(type);
  std::vector<double> values(n);
  std::uniform_real_distribution<double> unit(0, 1);
  for (auto& v : values) {
    const double pick = unit(random);
    if (pick < 0.1) {
      v = 0;
    } else if (pick < 0.15) {
      v = unit(random) < 0.5 ? range.lowest : range.highest;
    } else if (raster::IsIntegerPixelType(type)) {
      const double span = std::min(range.highest - range.lowest, pick < 0.6 ? 40.0 : 1e300);
      const double low = std::max(range.lowest, pick < 0.6 ? -20.0 : range.lowest);
      v = std::min(range.highest, std::floor(low + unit(random) * (span + 1)));
    } else {
      v = (unit(random) - 0.5) * (pick < 0.6 ? 20.0 : pick < 0.9 ? 2e6 : 1e30);
      if (type == 9) v = static_cast<float>(v);
    }
  }
  return values;
}

void Store(LONG type, const std::vector<double>& values, std::vector<std::uint8_t>* bytes) {
  bytes->assign(values.size() * raster::PixelSize(type), 0);
  raster::VisitPixelType(type, [&](auto tag) {
    using T = typename decltype(tag)::type;
    auto* p = reinterpret_cast<T*>(bytes->data());
    for (std::size_t i = 0; i < values.size(); ++i) p[i] = static_cast<T>(values[i]);
  });
}

double Load(LONG type, const std::vector<std::uint8_t>& bytes, std::size_t i) {
  double v = 0;
  raster::VisitPixelType(type, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T x;
    std::memcpy(&x, bytes.data() + i * sizeof(T), sizeof(T));
    v = static_cast<double>(x);
  });
  return v;
}

struct KernelRun {
  LONG load, calc, out, operation;
  bool invalid;
};

void CheckKernel(const KernelRun& k, std::mt19937& random) {
  constexpr std::size_t n = 333;  // five whole mask words and a tail
  Kernel kernel = SelectKernel(k.load, k.calc, k.out, k.operation);
  ASSERT_NE(kernel, nullptr);
  std::vector<double> a = RandomValues(k.load, n, random), b = RandomValues(k.load, n, random);
  if (k.operation == kPower)
    for (auto& v : b) v = std::fmod(v, 7.0);  // exponents that keep results in reach
  std::vector<std::uint8_t> ab, bb;
  Store(k.load, a, &ab);
  Store(k.load, b, &bb);
  std::vector<std::uint8_t> mask(raster::mask::Bytes(n), 0);
  std::vector<bool> valid(n, true);
  std::bernoulli_distribution keep(0.7);
  for (std::size_t i = 0; i < n; ++i) {
    valid[i] = !k.invalid || keep(random);
    if (valid[i]) mask[i / 8] |= static_cast<std::uint8_t>(0x80 >> (i % 8));
  }
  const std::size_t size = raster::PixelSize(k.out);
  std::vector<std::uint8_t> out(n * size, 0xA5);
  Params params;
  params.operation = k.operation;
  params.output = raster::PixelRange(k.out);
  params.absoluteTolerance = (k.out + k.calc) % 2 == 0;
  params.tolerance = 0.25;
  kernel(ab.data(), bb.data(), out.data(), mask.data(), n, params);
  for (std::size_t i = 0; i < n; ++i) {
    const bool bit = (mask[i / 8] >> (7 - i % 8)) & 1;
    const std::string where = "load " + std::to_string(k.load) + " calc " + std::to_string(k.calc) +
                              " out " + std::to_string(k.out) + " op " +
                              std::to_string(k.operation) + " pixel " + std::to_string(i) + " a " +
                              std::to_string(a[i]) + " b " + std::to_string(b[i]);
    if (!valid[i]) {
      ASSERT_FALSE(bit) << where;
      for (std::size_t j = 0; j < size; ++j) ASSERT_EQ(out[i * size + j], 0xA5) << where;
      continue;
    }
    double expected = 0;
    const bool ok =
        ReferencePixel(Load(k.load, ab, i), Load(k.load, bb, i), k.calc, k.out, params, &expected);
    ASSERT_EQ(bit, ok) << where;
    if (ok) {
      ASSERT_EQ(Load(k.out, out, i), expected) << where;
    }
  }
}

TEST(ArithmeticKernels, EqualTheReferenceForEveryTypePairWithAndWithoutInvalidPixels) {
  std::mt19937 random(7);
  for (LONG operation = kPlus; operation <= kFractionDifference; ++operation)
    for (LONG calc = 0; calc <= 10; ++calc)
      for (LONG out = 0; out <= 10; ++out)
        for (bool invalid : {false, true})
          CheckKernel(KernelRun{calc, calc, out, operation, invalid}, random);
}

TEST(ArithmeticKernels, WideningLoadsEqualTheReference) {
  std::mt19937 random(11);
  int pairs = 0;
  for (LONG load = 3; load <= 9; ++load)
    for (LONG calc = load + 1; calc <= 10; ++calc) {
      if (!LoadsDirectly(load, calc)) continue;
      ++pairs;
      for (LONG operation = kPlus; operation <= kFractionDifference; ++operation)
        for (bool invalid : {false, true})
          CheckKernel(KernelRun{load, calc, calc, operation, invalid}, random);
    }
  EXPECT_GE(pairs, 15);
  EXPECT_FALSE(LoadsDirectly(7, 9));                 // 32-bit integers do not fit a float exactly
  EXPECT_FALSE(LoadsDirectly(4, 5));                 // negative values do not fit unsigned
  EXPECT_EQ(SelectKernel(3, 5, 6, kPlus), nullptr);  // widening loads keep the calc type
}

}  // namespace
}  // namespace pw::functions
