// The mask function: its rules case by case through the function, and its kernel against a
// pixel-by-pixel reference on random blocks of every pixel type.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "functions/enhancement/mask_kernels.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"
#include "raster/values/arrays.h"
#include "tests/functions/function_test_support.h"

namespace pw::functions {
namespace {

using test::Doubles;
using test::Texts;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Band {
  std::vector<double> values;  // NaN: invalid
};

struct Case {
  const char* name;
  LONG type;
  std::vector<Band> bands;  // one row of cells each
  std::vector<std::pair<std::u16string, Variant>> arguments;
  std::vector<Band> expected;  // per band; NaN: invalid (and 0 underneath)
};

// Binds the mask to a one-row raster and reads it back.
test::Output Masked(const Case& c, HRESULT* bind) {
  const LONG columns = static_cast<LONG>(c.bands[0].values.size());
  const ComPtr<IRaster> input =
      test::MemoryRaster(test::Row(columns), static_cast<LONG>(c.bands.size()), c.type,
                         [&](LONG b, LONG column, LONG) { return c.bands[b].values[column]; });
  auto function = test::Create<IRasterFunction>(u"MaskFunction");
  auto args = test::Create<IRasterFunctionArguments>(u"MaskFunctionArguments");
  args->PutValue(Bstr(u"Raster").Get(), Variant(static_cast<IUnknown*>(input.Get())));
  for (const auto& [name, value] : c.arguments) args->PutValue(Bstr(name).Get(), value);
  *bind = function->Bind(args.Get());
  if (FAILED(*bind)) return {};
  return test::ReadOutput(function.Get());
}

TEST(MaskFunction, MasksByValueRangeAndBandCombination) {
  const Case cases[] = {
      {"no-data entry with two values, for every band",
       6,
       {{{0, 255, 7}}, {{0, 255, 1}}, {{0, 255, 5}}},
       {{u"NoDataValues", Texts({u"0 255"})}, {u"NoDataInterpretation", Variant(std::int32_t{1})}},
       {{{kNaN, kNaN, 7}}, {{kNaN, kNaN, 1}}, {{kNaN, kNaN, 5}}}},
      {"any band masks the pixel (the default)",
       6,
       {{{0, 9, 7}}, {{5, 255, 6}}},
       {{u"NoDataValues", Texts({u"0 255"})}},
       {{{kNaN, kNaN, 7}}, {{kNaN, kNaN, 6}}}},
      {"a range keeps both ends",
       4,
       {{{9, 10, 15, 20, 21}}},
       {{u"IncludedRanges", Doubles({10, 20})}},
       {{{kNaN, 10, 15, 20, kNaN}}}},
      {"the older key of the ranges",
       4,
       {{{9, 10, 21}}},
       {{u"IncludeRanges", Doubles({10, 20})}},
       {{{kNaN, 10, kNaN}}}},
      {"ranges whose every pair is reversed are dropped",
       4,
       {{{9, 10, 21}}},
       {{u"IncludedRanges", Doubles({20, 10})}},
       {{{9, 10, 21}}}},
      {"a band without a pair has no range",
       4,
       {{{9, 15}}, {{9, 15}}},
       {{u"IncludedRanges", Doubles({10, 20})},
        {u"NoDataInterpretation", Variant(std::int32_t{1})}},
       {{{9, 15}}, {{9, 15}}}},
      {"every band must mask under interpretation 1",
       3,
       {{{1, 2}}, {{2, 2}}},
       {{u"NoDataValues", Texts({u"2"})}, {u"NoDataInterpretation", Variant(std::int32_t{1})}},
       {{{1, kNaN}}, {{2, kNaN}}}},
      {"bands past the entries use the last one",
       3,
       {{{1, 2}}, {{1, 2}}},
       {{u"NoDataValues", Texts({u"1"})}},
       {{{kNaN, 2}}, {{kNaN, 2}}}},
      {"no-data values are truncated to the band's type",
       3,
       {{{4, 5, 6}}},
       {{u"NoDataValues", Texts({u"5.9"})}},
       {{{4, kNaN, 6}}}},
      {"float bands compare at float precision",
       9,
       {{{0.5, 1.25, -3}}},
       {{u"NoDataValues", Texts({u"1.25 -3"})}},
       {{{0.5, kNaN, kNaN}}}},
      {"invalid input stays masked", 9, {{{kNaN, 2}}}, {}, {{{kNaN, 2}}}},
      {"invert with nothing masked leaves nothing valid",
       3,
       {{{1, 2, 3}}},
       {{u"Invert", Variant(true)}},
       {{{kNaN, kNaN, kNaN}}}},
      {"invert makes the masked pixels the valid ones, values kept",
       3,
       {{{1, 2, 3}}},
       {{u"NoDataValues", Texts({u"2"})}, {u"Invert", Variant(true)}},
       {{{kNaN, 2, kNaN}}}},
      {"invert is read only as a boolean",
       3,
       {{{1, 2, 3}}},
       {{u"Invert", Variant(std::int32_t{1})}},
       {{{1, 2, 3}}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    HRESULT bind = E_FAIL;
    const test::Output out = Masked(c, &bind);
    ASSERT_EQ(bind, S_OK);
    ASSERT_EQ(out.bands, static_cast<LONG>(c.bands.size()));
    EXPECT_EQ(out.type, c.type);
    for (LONG b = 0; b < out.bands; ++b) {
      const auto& want = c.expected[static_cast<std::size_t>(b)].values;
      for (std::size_t i = 0; i < want.size(); ++i) {
        SCOPED_TRACE(testing::Message() << "band " << b << " cell " << i);
        EXPECT_EQ(out.Valid(b, i), !std::isnan(want[i]));
        // Masked pixels are 0 unless inversion kept them.
        if (!std::isnan(want[i])) {
          EXPECT_EQ(out.At(b, i), want[i]);
        }
      }
    }
  }
}

TEST(MaskFunction, MaskedPixelsAreZeroAndBadEntriesNameTheArgument) {
  HRESULT bind = E_FAIL;
  const test::Output out =
      Masked({"zero", 6, {{{7, 8}}}, {{u"NoDataValues", Texts({u"8"})}}, {}}, &bind);
  ASSERT_EQ(bind, S_OK);
  EXPECT_EQ(out.At(0, 1), 0);

  Masked({"bad", 6, {{{7}}}, {{u"NoDataValues", Texts({u"8 eight"})}}, {}}, &bind);
  EXPECT_TRUE(FAILED(bind));
  EXPECT_NE(test::LastError().find("NoDataValues"), std::string::npos);
}

TEST(MaskKernels, EqualTheReferenceOnEveryType) {
  std::mt19937 random(17);
  const mask::BandTest tests[] = {
      {},
      {10.0, 120.0, {}},
      {-50.5, 40.7, {3}},
      {std::nullopt, std::nullopt, {0, 255}},
      {5.0, 1e12, {1, 2, 3, 4.9, -7, 1e20}},
      {-1e12, -5.0, {}},
      {300.0, 400.0, {kNaN}},
  };
  constexpr std::size_t n = 301;  // words, and a tail
  for (LONG type = 0; type <= 10; ++type) {
    const LONG load = type <= 3 ? 3 : type;
    std::vector<std::uint8_t> values(n * raster::PixelSize(load));
    raster::VisitPixelType(load, [&](auto tag) {
      using T = typename decltype(tag)::type;
      std::uniform_int_distribution<int> d(-60, 260);
      for (std::size_t i = 0; i < n; ++i) {
        const int v = d(random);
        reinterpret_cast<T*>(values.data())[i] =
            static_cast<T>(std::is_signed_v<T> || v >= 0 ? v : -v);
      }
    });
    for (bool holes : {false, true}) {
      std::vector<BYTE> valid(raster::mask::Bytes(n), 0xFF);
      if (holes)
        for (std::size_t i = 0; i < n; ++i)
          if (random() % 5 == 0) raster::mask::Clear(valid.data(), i);
      for (const auto& t : tests) {
        std::vector<BYTE> got = valid, expected = valid;
        mask::ApplyTest(t, type, values.data(), got.data(), n);
        mask::ApplyTestReference(t, type, values.data(), expected.data(), n);
        ASSERT_EQ(raster::mask::Count(got.data(), n), raster::mask::Count(expected.data(), n))
            << "type " << type;
        for (std::size_t i = 0; i < n; ++i)
          ASSERT_EQ(raster::mask::Get(got.data(), i), raster::mask::Get(expected.data(), i))
              << "type " << type << " cell " << i;
      }
    }
  }
}

}  // namespace
}  // namespace pw::functions
