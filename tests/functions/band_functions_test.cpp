// NDVI, extract band and composite band: band selection by identifier, name, wavelength,
// key properties and defaults; NDVI's two output modes; every NDVI kernel against the
// scalar reference.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>

#include "functions/bands/composite_band_function.h"
#include "functions/bands/extract_band_function.h"
#include "functions/elementary/ndvi_function.h"
#include "raster/band_indexes.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"
#include "raster/values/arrays.h"
#include "tests/functions/function_test_support.h"

#pragma GCC diagnostic ignored "-Wmissing-field-initializers"  // tables list what matters

namespace pw::functions {
namespace {

using test::Create;
using test::Output;
using test::ReadOutput;
using test::Row;

// A one-pixel raster of `bands` bands where band b holds 10 * (b + 1), with optional band
// names, wavelength ranges and raster key properties.
struct Bands {
  LONG count = 4;
  std::vector<const char16_t*> names;
  std::vector<std::pair<double, double>> wavelengths;
  std::vector<std::pair<std::u16string, LONG>> rasterProperties;
};

ComPtr<IRaster> Multiband(const Bands& wanted, LONG type = 5) {
  ObjectPtr<raster::MemoryDataset> dataset;
  ComPtr<IRaster> raster = test::MemoryRaster(
      Row(1), wanted.count, type, [](LONG b, LONG, LONG) { return 10.0 * (b + 1); },
      std::addressof(dataset));
  for (std::size_t b = 0; b < wanted.names.size(); ++b) {
    ComPtr<IPropertySet> properties;
    dataset->Band(static_cast<LONG>(b)).get_Properties(&properties);
    properties->SetProperty(Bstr(u"BandName").Get(), Variant(wanted.names[b]));
  }
  for (std::size_t b = 0; b < wanted.wavelengths.size(); ++b) {
    ComPtr<IPropertySet> properties;
    dataset->Band(static_cast<LONG>(b)).get_Properties(&properties);
    properties->SetProperty(Bstr(u"WavelengthMin").Get(), Variant(wanted.wavelengths[b].first));
    properties->SetProperty(Bstr(u"WavelengthMax").Get(), Variant(wanted.wavelengths[b].second));
  }
  for (const auto& [name, value] : wanted.rasterProperties)
    dataset->Properties()->SetProperty(Bstr(name).Get(), Variant(std::int32_t{value}));
  return raster;
}

Variant Holding(IUnknown* object) {
  return Variant(object);
}

// --- NDVI band selection ----------------------------------------------------------------

struct Selection {
  const char* what;
  Bands bands;
  std::function<void(INDVIFunctionArguments3*)> arguments;
  LONG visible, infrared;  // expected 0-based bands; -1: the bind fails
  HRESULT failure = S_OK;
  const char* named = "";
};

const std::pair<double, double> kBlue{450, 510}, kGreen{530, 590}, kRed{640, 670}, kNir{850, 880};

class NdviSelection : public ::testing::TestWithParam<Selection> {};

TEST_P(NdviSelection, PicksTheRedAndInfraredBands) {
  const Selection& c = GetParam();
  ComPtr<IRaster> input = Multiband(c.bands);
  auto function = Create<IRasterFunction>(u"NDVIFunction");
  auto arguments = Create<INDVIFunctionArguments3>(u"NDVIFunctionArguments");
  arguments->put_Raster(Holding(input.Get()));
  if (c.arguments) c.arguments(arguments.Get());
  const HRESULT hr = function->Bind(arguments.Get());
  if (c.visible < 0) {
    EXPECT_EQ(hr, c.failure) << c.what;
    EXPECT_NE(test::LastError().find(c.named), std::string::npos) << c.what;
    return;
  }
  ASSERT_EQ(hr, S_OK) << c.what << ": " << test::LastError();
  auto* ndvi = dynamic_cast<NDVIFunction*>(function.Get());
  EXPECT_EQ(ndvi->VisibleBand(), c.visible) << c.what;
  EXPECT_EQ(ndvi->InfraredBand(), c.infrared) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Defaults, NdviSelection,
    ::testing::Values(
        Selection{"four bands", {4}, {}, 2, 3}, Selection{"eight bands", {8}, {}, 3, 4},
        Selection{"seven bands", {7}, {}, 3, 4}, Selection{"six bands", {6}, {}, 0, 1},
        Selection{"three bands", {3}, {}, 0, 1}, Selection{"two bands", {2}, {}, 0, 1},
        Selection{"one band", {1}, {}, -1, -1, raster::kBandIndexOutOfRange, "[InfraredBandID]"}));

INSTANTIATE_TEST_SUITE_P(
    Identifiers, NdviSelection,
    ::testing::Values(Selection{"given identifiers",
                                {5},
                                [](auto* a) { a->put_VisibleBandID(4), a->put_InfraredBandID(1); },
                                4,
                                1},
                      Selection{"an identifier beyond the bands",
                                {3},
                                [](auto* a) { a->put_VisibleBandID(5), a->put_InfraredBandID(1); },
                                -1,
                                -1,
                                raster::kBandIndexOutOfRange,
                                "[VisibleBandID]"},
                      Selection{"only one identifier falls back to defaults",
                                {4},
                                [](auto* a) { a->put_VisibleBandID(1); },
                                2,
                                3},
                      Selection{"the raster's own identifiers win",
                                {5, {}, {}, {{u"VisibleBandID", 1}, {u"InfraredBandID", 4}}},
                                [](auto* a) { a->put_VisibleBandID(0), a->put_InfraredBandID(2); },
                                1,
                                4},
                      Selection{
                          "a missing identifier fails with action 1",
                          {4},
                          [](auto* a) { a->put_VisibleBandID(1), a->put_MissingBandAction(1); },
                          -1,
                          -1,
                          raster::kBandNotFound,
                          "[InfraredBandID]"}));

INSTANTIATE_TEST_SUITE_P(
    NamesAndWavelengths, NdviSelection,
    ::testing::Values(Selection{"names without case",
                                {4, {u"Blue", u"Green", u"NIR", u"Red"}},
                                [](auto* a) {
                                  a->put_VisibleBandName(Bstr(u"red").Get());
                                  a->put_InfraredBandName(Bstr(u"nir").Get());
                                },
                                3,
                                2},
                      Selection{"a name not found falls back",
                                {4, {u"Blue", u"Green", u"Red", u"NIR"}},
                                [](auto* a) {
                                  a->put_VisibleBandName(Bstr(u"Red").Get());
                                  a->put_InfraredBandName(Bstr(u"SWIR").Get());
                                },
                                2,
                                3},
                      Selection{"a name not found fails with action 1",
                                {4, {u"Blue", u"Green", u"Red", u"NIR"}},
                                [](auto* a) {
                                  a->put_VisibleBandName(Bstr(u"Red").Get());
                                  a->put_InfraredBandName(Bstr(u"SWIR").Get());
                                  a->put_MissingBandAction(1);
                                },
                                -1,
                                -1,
                                raster::kBandNotFound,
                                "[SWIR]"},
                      Selection{"wavelengths within the tolerance",
                                {5, {}, {kNir, kBlue, kGreen, kRed, kNir}},
                                [](auto* a) {
                                  a->put_VisibleBandWavelength(650);
                                  a->put_InfraredBandWavelength(870);
                                },
                                3,
                                0},
                      Selection{"wavelengths beyond the tolerance fall back",
                                {4, {}, {kBlue, kGreen, kRed, kNir}},
                                [](auto* a) {
                                  a->put_VisibleBandWavelength(650);
                                  a->put_InfraredBandWavelength(1600);
                                  a->put_WavelengthMatchTolerance(100);
                                },
                                2,
                                3},
                      Selection{"equal identifiers switch to the mid wavelengths",
                                {5, {}, {kRed, kBlue, kNir, kGreen, kBlue}},
                                [](auto* a) { a->put_VisibleBandID(1), a->put_InfraredBandID(1); },
                                0,
                                2},
                      Selection{"no arguments on a raster with wavelengths uses them",
                                {4, {}, {kNir, kRed, kGreen, kBlue}},
                                {},
                                1,
                                0}));

// --- NDVI values -------------------------------------------------------------------------

TEST(NdviFunction, ScientificAndScaledOutputsKeepTheirAsymmetries) {
  const struct {
    double red, infrared;
    bool scientific;
    LONG type;  // -1: the function's choice
    double expected;
  } cases[] = {{0, 0, true, -1, 0},           {0, 0, false, -1, 0},       {0, 50, true, -1, 1},
               {0, 50, false, -1, 200},       {50, 0, false, -1, 0},      {30, 10, true, -1, -0.5},
               {30, 10, false, -1, 50},       {251, 249, false, -1, 100},  // -0.004 stores 100
               {10, 30, true, 6, 1},          {30, 10, true, 6, 0},        // floor(-0.5 + 0.5) = 0
               {10, 20, true, 10, 1.0 / 3.0}, {10, 20, false, 9, 133}};
  for (const auto& c : cases) {
    ComPtr<IRaster> input = test::MemoryRaster(
        Row(1), 2, 10, [&](LONG b, LONG, LONG) { return b == 0 ? c.red : c.infrared; });
    auto function = Create<IRasterFunction>(u"NDVIFunction");
    auto arguments = Create<INDVIFunctionArguments3>(u"NDVIFunctionArguments");
    arguments->put_Raster(Holding(input.Get()));
    arguments->put_ScientificOutput(c.scientific ? VARIANT_TRUE : VARIANT_FALSE);
    if (c.type >= 0) function->put_PixelType(c.type);
    ASSERT_EQ(function->Bind(arguments.Get()), S_OK) << test::LastError();
    const Output out = ReadOutput(function.Get());
    EXPECT_EQ(out.type, c.type >= 0 ? c.type : c.scientific ? 9 : 3);
    EXPECT_FLOAT_EQ(out.At(0, 0), c.expected)
        << c.red << " " << c.infrared << " scientific " << c.scientific;
  }
}

TEST(NdviFunction, InvalidRedOrInfraredLeavesThePixelUnwritten) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  ComPtr<IRaster> input = test::MemoryRaster(Row(3), 2, 9, [&](LONG b, LONG c, LONG) {
    return (b == 0 && c == 0) || (b == 1 && c == 1) ? nan : 5.0;
  });
  auto function = Create<IRasterFunction>(u"NDVIFunction");
  auto arguments = Create<INDVIFunctionArguments3>(u"NDVIFunctionArguments");
  arguments->put_Raster(Holding(input.Get()));
  ASSERT_EQ(function->Bind(arguments.Get()), S_OK);
  const Output out = ReadOutput(function.Get());
  EXPECT_FALSE(out.Valid(0, 0));
  EXPECT_FALSE(out.Valid(0, 1));
  EXPECT_TRUE(out.Valid(0, 2));
  EXPECT_EQ(out.At(0, 2), 100);
}

TEST(NdviKernels, EqualTheReferenceForEveryTypePairAndInstructionSet) {
  std::mt19937 random(5);
  constexpr std::size_t n = 200;
  for (LONG in = 0; in <= 10; ++in) {
    const raster::ValueRange range = raster::PixelRange(in);
    for (LONG out = 0; out <= 10; ++out) {
      for (bool scientific : {false, true}) {
        for (bool invalid : {false, true}) {
          std::vector<double> red(n), nir(n);
          std::uniform_real_distribution<double> unit(0, 1);
          for (std::size_t i = 0; i < n; ++i) {
            auto pick = [&] {
              const double u = unit(random);
              if (u < 0.1) return 0.0;
              if (u < 0.15) return range.highest;
              double v = range.lowest + unit(random) * std::min(range.highest - range.lowest, 1e6);
              return raster::IsIntegerPixelType(in) ? std::floor(v) : v;
            };
            red[i] = pick();
            nir[i] = pick();
          }
          std::vector<std::uint8_t> rb(n * raster::PixelSize(in)), ib(rb.size());
          raster::VisitPixelType(in, [&](auto tag) {
            using T = typename decltype(tag)::type;
            for (std::size_t i = 0; i < n; ++i) {
              reinterpret_cast<T*>(rb.data())[i] = static_cast<T>(red[i]);
              reinterpret_cast<T*>(ib.data())[i] = static_cast<T>(nir[i]);
              red[i] = static_cast<double>(static_cast<T>(red[i]));
              nir[i] = static_cast<double>(static_cast<T>(nir[i]));
            }
          });
          std::vector<std::uint8_t> mask(raster::mask::Bytes(n), 0xFF);
          if (invalid)
            for (auto& m : mask) m = static_cast<std::uint8_t>(random());
          const std::vector<std::uint8_t> before = mask;
          const std::size_t size = raster::PixelSize(out);
          std::vector<std::uint8_t> result(n * size, 0x5A);
          for (auto isa : test::Isas()) {
            std::fill(result.begin(), result.end(), std::uint8_t{0x5A});
            ndvi::Kernel kernel = ndvi::SelectKernel(in, out, scientific, isa);
            ASSERT_NE(kernel, nullptr);
            kernel(rb.data(), ib.data(), result.data(), mask.data(), n);
            ASSERT_EQ(mask, before);
            for (std::size_t i = 0; i < n; ++i) {
              const std::string where = "in " + std::to_string(in) + " out " + std::to_string(out) +
                                        " scientific " + std::to_string(scientific) + " " +
                                        raster::simd::Name(isa) + " pixel " + std::to_string(i);
              if (!((mask[i / 8] >> (7 - i % 8)) & 1)) {
                for (std::size_t j = 0; j < size; ++j)
                  ASSERT_EQ(result[i * size + j], 0x5A) << where;
                continue;
              }
              double got = 0;
              raster::VisitPixelType(out, [&](auto tag) {
                using T = typename decltype(tag)::type;
                T v;
                std::memcpy(&v, result.data() + i * sizeof(T), sizeof(T));
                got = static_cast<double>(v);
              });
              ASSERT_EQ(got, ndvi::ReferencePixel(red[i], nir[i], out, scientific)) << where;
            }
          }
        }
      }
    }
  }
}

// --- extract band ----------------------------------------------------------------------

struct Extraction {
  const char* what;
  std::function<void(IExtractBandFunctionArguments2*)> arguments;
  std::vector<double> values;  // expected band values (10 x band position); empty: fails
  const char* named = "";
};

class ExtractBand : public ::testing::TestWithParam<Extraction> {};

TEST_P(ExtractBand, SelectsAndOrdersBands) {
  const Extraction& c = GetParam();
  ComPtr<IRaster> input = Multiband({3, {u"Red", u"Green", u"Blue"}, {kRed, kGreen, kBlue}}, 5);
  auto function = Create<IRasterFunction>(u"ExtractBandFunction");
  auto arguments = Create<IExtractBandFunctionArguments2>(u"ExtractBandFunctionArguments");
  arguments->put_Raster(Holding(input.Get()));
  c.arguments(arguments.Get());
  const HRESULT hr = function->Bind(arguments.Get());
  if (c.values.empty()) {
    EXPECT_TRUE(FAILED(hr)) << c.what;
    EXPECT_NE(test::LastError().find(c.named), std::string::npos) << c.what;
    return;
  }
  ASSERT_EQ(hr, S_OK) << c.what << ": " << test::LastError();
  const Output out = ReadOutput(function.Get());
  ASSERT_EQ(out.bands, static_cast<LONG>(c.values.size())) << c.what;
  for (LONG b = 0; b < out.bands; ++b) EXPECT_EQ(out.At(b, 0), c.values[b]) << c.what;
  Variant count;
  EXPECT_EQ(function.As<IRasterKeyProperties>()->GetProperty(Bstr(u"BAND_COUNT").Get(), &count),
            S_OK);
  EXPECT_EQ(count.ToInt32(), out.bands);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, ExtractBand,
    ::testing::Values(
        Extraction{"positions in output order",
                   [](auto* a) {
                     a->put_BandIDs(test::Doubles({2, 0}));
                   },
                   {30, 10}},
        Extraction{"names before positions when no method",
                   [](auto* a) {
                     a->put_BandIDs(test::Doubles({0}));
                     a->put_BandNames(test::Texts({u"blue", u"RED"}));
                   },
                   {30, 10}},
        Extraction{
            "method 2 takes positions",
            [](auto* a) {
              a->put_BandIDs(test::Doubles({1}));
              a->put_BandNames(test::Texts({u"blue"}));
              ComPtr<IExtractBandFunctionArguments2>(a).As<IRasterFunctionArguments>()->PutValue(
                  Bstr(u"Method").Get(), Variant(std::int32_t{2}));
            },
            {20}},
        Extraction{"wavelengths",
                   [](auto* a) {
                     a->put_BandWavelengths(test::Doubles({480, 560}));
                   },
                   {30, 20}},
        Extraction{
            "the older position key",
            [](auto* a) {
              ComPtr<IExtractBandFunctionArguments2>(a).As<IRasterFunctionArguments>()->PutValue(
                  Bstr(u"_BANDID_").Get(), test::Doubles({1, 1}));
            },
            {20, 20}},
        Extraction{"missing bands are left out",
                   [](auto* a) {
                     a->put_BandIDs(test::Doubles({0, 7}));
                   },
                   {10}},
        Extraction{"no selection keeps every band", [](auto*) {}, {10, 20, 30}}));

INSTANTIATE_TEST_SUITE_P(
    Failures, ExtractBand,
    ::testing::Values(Extraction{"a missing band with action 1",
                                 [](auto* a) {
                                   a->put_BandIDs(test::Doubles({0, 7}));
                                   a->put_MissingBandAction(1);
                                 },
                                 {},
                                 "[BandIDs]"},
                      Extraction{"method 2 with no positions and action 1",
                                 [](auto* a) {
                                   a->put_MissingBandAction(1);
                                   ComPtr<IExtractBandFunctionArguments2>(a)
                                       .As<IRasterFunctionArguments>()
                                       ->PutValue(Bstr(u"Method").Get(), Variant(std::int32_t{2}));
                                 },
                                 {},
                                 "[BandIDs]"},
                      Extraction{"nothing found",
                                 [](auto* a) { a->put_BandNames(test::Texts({u"NIR"})); },
                                 {},
                                 "chose no band"}));

TEST(ExtractBandFunction, OutputBandsKeepTheirNamesForTheNextFunction) {
  ComPtr<IRaster> input = Multiband({4, {u"Blue", u"Green", u"Red", u"NIR"}}, 5);
  auto extract = Create<IRasterFunction>(u"ExtractBandFunction");
  auto extractArgs = Create<IExtractBandFunctionArguments2>(u"ExtractBandFunctionArguments");
  extractArgs->put_Raster(Holding(input.Get()));
  extractArgs->put_BandIDs(test::Doubles({3, 0, 2}));
  ASSERT_EQ(extract->Bind(extractArgs.Get()), S_OK);
  // NDVI over the extracted bands finds red and NIR by name.
  auto ndvi = Create<IRasterFunction>(u"NDVIFunction");
  auto ndviArgs = Create<INDVIFunctionArguments3>(u"NDVIFunctionArguments");
  ndviArgs->put_Raster(Holding(extract.Get()));
  ndviArgs->put_VisibleBandName(Bstr(u"red").Get());
  ndviArgs->put_InfraredBandName(Bstr(u"nir").Get());
  ASSERT_EQ(ndvi->Bind(ndviArgs.Get()), S_OK) << test::LastError();
  EXPECT_EQ(dynamic_cast<NDVIFunction*>(ndvi.Get())->VisibleBand(), 2);
  EXPECT_EQ(dynamic_cast<NDVIFunction*>(ndvi.Get())->InfraredBand(), 0);
}

// --- composite band ----------------------------------------------------------------------

TEST(CompositeBandFunction, StacksEveryBandInOrder) {
  ComPtr<IRaster> three = Multiband({3}, 3), one = Multiband({1}, 6);
  auto array = MakeObject<raster::VariantArray>();
  array->Items() = {Holding(three.Get()), Holding(one.Get())};
  auto function = Create<IRasterFunction>(u"CompositeBandFunction");
  auto arguments = Create<ICompositeBandFunctionArguments>(u"CompositeBandFunctionArguments");
  arguments->put_Rasters(Variant(array->AsUnknown()));
  ASSERT_EQ(function->Bind(arguments.Get()), S_OK) << test::LastError();
  const Output out = ReadOutput(function.Get());
  ASSERT_EQ(out.bands, 4);
  EXPECT_EQ(out.type, 6);  // the largest input type
  const double expected[] = {10, 20, 30, 10};
  for (LONG b = 0; b < 4; ++b) EXPECT_EQ(out.At(b, 0), expected[b]);
  Variant count;
  EXPECT_EQ(function.As<IRasterKeyProperties>()->GetProperty(Bstr(u"BAND_COUNT").Get(), &count),
            S_FALSE);
}

TEST(CompositeBandFunction, BadInputsNameRasters) {
  for (Variant value : {Variant(), Variant(u"/no/such/file.tif")}) {
    auto function = Create<IRasterFunction>(u"CompositeBandFunction");
    auto arguments = Create<ICompositeBandFunctionArguments>(u"CompositeBandFunctionArguments");
    arguments->put_Rasters(value);
    EXPECT_EQ(function->Bind(arguments.Get()), E_INVALIDARG);
    EXPECT_NE(test::LastError().find("[Rasters]"), std::string::npos);
  }
}

}  // namespace
}  // namespace pw::functions
