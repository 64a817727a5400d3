// The stretch function: its bind rules and its mappings case by case through the function,
// statistics taken from the arguments, the input's dataset (GDAL's own included) or computed
// and kept, the output statistics estimated from histograms, and DRA block by block.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <thread>

#include <gdal.h>

#include "framework/chain_json.h"
#include "framework/input_statistics.h"
#include "raster/algorithms/statistics.h"
#include "raster/algorithms/stretch.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/opener.h"
#include "raster/pixel_traits.h"
#include "raster/values/arrays.h"
#include "raster/values/raster_statistics.h"
#include "tests/functions/function_test_support.h"
#include "tests/test_support.h"

namespace pw::functions {
namespace {

using test::Doubles;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Per band [minimum, maximum, mean, standard deviation].
Variant StatisticsArray(const std::vector<std::array<double, 4>>& bands) {
  auto array = MakeObject<raster::ObjectArray>();
  for (const auto& v : bands) {
    auto s = MakeObject<raster::RasterStatistics>();
    s->put_Minimum(v[0]);
    s->put_Maximum(v[1]);
    s->put_Mean(v[2]);
    s->put_StandardDeviation(v[3]);
    s->put_IsValid(VARIANT_TRUE);
    array->Add(s->AsUnknown());
  }
  return Variant(array->AsUnknown());
}

struct HistogramCase {
  double low, high;
  std::vector<double> counts;
};
Variant HistogramArray(const std::vector<HistogramCase>& bands) {
  auto array = MakeObject<raster::ObjectArray>();
  for (const auto& h : bands) {
    auto made = MakeObject<raster::RasterHistogram>();
    made->PutRange(h.low, h.high);
    made->Counts() = h.counts;
    array->Add(made->AsUnknown());
  }
  return Variant(array->AsUnknown());
}

using Arguments = std::vector<std::pair<std::u16string, Variant>>;

struct Bound {
  HRESULT bind = E_FAIL;
  ComPtr<IRasterFunction> function;
  test::Output out;
};

// Binds the stretch to `input` and reads it whole.
Bound Stretch(const ComPtr<IRaster>& input, const Arguments& arguments, bool read = true) {
  Bound b;
  b.function = test::Create<IRasterFunction>(u"StretchFunction");
  auto args = test::Create<IRasterFunctionArguments>(u"StretchFunctionArguments");
  args->PutValue(Bstr(u"Raster").Get(), Variant(static_cast<IUnknown*>(input.Get())));
  for (const auto& [name, value] : arguments) args->PutValue(Bstr(name).Get(), value);
  b.bind = b.function->Bind(args.Get());
  if (SUCCEEDED(b.bind) && read) b.out = test::ReadOutput(b.function.Get());
  return b;
}

ComPtr<IRaster> RowRaster(LONG type, const std::vector<std::vector<double>>& bands,
                          ObjectPtr<raster::MemoryDataset>* dataset = nullptr) {
  return test::MemoryRaster(
      test::Row(static_cast<LONG>(bands[0].size())), static_cast<LONG>(bands.size()), type,
      [&](LONG b, LONG column, LONG) { return bands[b][column]; }, dataset);
}

LONG OutputType(IRasterFunction* function) {
  ComPtr<IRasterInfo> info;
  function->get_RasterInfo(&info);
  LONG type = -1;
  if (info) info->get_PixelType(&type);
  return type;
}

struct ValuesCase {
  const char* name;
  LONG type;
  std::vector<std::vector<double>> bands;  // NaN: invalid
  Arguments arguments;
  std::vector<std::vector<double>> expected;  // NaN: invalid
};

TEST(StretchFunction, MapsEachTypeOntoTheOutputRange) {
  const Variant stats = StatisticsArray({{0, 100, 50, 10}});
  const Variant tenBins = HistogramArray({{0, 100, {10, 10, 10, 10, 10, 10, 10, 10, 10, 10}}});
  const Variant i32_5(std::int32_t{5});
  const ValuesCase cases[] = {
      {"minimum-maximum",
       3,
       {{0, 50, 100, 200, kNaN}},
       {{u"StretchType", Variant(std::int32_t{5})}, {u"Statistics", stats}},
       {{0, 128, 255, 255, kNaN}}},
      {"standard deviations: mean -/+ 2 x 10",
       3,
       {{10, 30, 50, 70, 90}},
       {{u"StretchType", Variant(std::int32_t{3})}, {u"Statistics", stats}},
       {{0, 0, 128, 255, 255}}},
      {"the older key of the number of standard deviations",
       3,
       {{40, 50, 60}},
       {{u"StretchType", Variant(std::int32_t{3})},
        {u"Statistics", stats},
        {u"NumberOfStandardDeviation", Variant(std::int32_t{1})}},
       {{0, 128, 255}}},
      {"the newer key wins over the older one",
       3,
       {{30, 70}},
       {{u"StretchType", Variant(std::int32_t{3})},
        {u"Statistics", stats},
        {u"NumberOfStandardDeviation", Variant(std::int32_t{1})},
        {u"NumberOfStandardDeviations", Variant(2.0)}},
       {{0, 255}}},
      {"percent clip: 10 % off each end of the histogram",
       3,
       {{0, 10, 50, 90, 100}},
       {{u"StretchType", Variant(std::int32_t{6})},
        {u"Statistics", stats},
        {u"Histograms", tenBins},
        {u"MinPercent", Variant(10.0)},
        {u"MaxPercent", Variant(10.0)}},
       {{0, 0, 128, 255, 255}}},
      {"type 4 is the percent clip",
       3,
       {{0, 10, 50, 90, 100}},
       {{u"StretchType", Variant(std::int32_t{4})},
        {u"Statistics", stats},
        {u"Histograms", tenBins},
        {u"MinPercent", Variant(10.0)},
        {u"MaxPercent", Variant(10.0)}},
       {{0, 0, 128, 255, 255}}},
      {"sigmoid: symmetric about the middle",
       3,
       {{0, 50, 100}},
       {{u"StretchType", Variant(std::int32_t{9})}, {u"Statistics", stats}},
       {{0, 128, 255}}},
      {"gamma alone over the band's range",
       3,
       {{0, 25, 100}},
       {{u"StretchType", Variant(std::int32_t{0})},
        {u"Statistics", stats},
        {u"UseGamma", Variant(true)},
        {u"Gamma", Doubles({2})}},
       {{0, 128, 255}}},
      {"computed gamma puts the mean at mid-range",
       3,
       {{0, 25, 100}},
       {{u"StretchType", i32_5},
        {u"Statistics", StatisticsArray({{0, 100, 25, 10}})},
        {u"ComputeGamma", Variant(true)}},
       {{0, 128, 255}}},
      {"an output range of its own, reversed values kept in it",
       3,
       {{0, 50, 100}},
       {{u"StretchType", i32_5},
        {u"Statistics", stats},
        {u"Min", Variant(10.0)},
        {u"Max", Variant(20.0)}},
       {{10, 15, 20}}},
      {"bands past the statistics use the input's own",
       3,
       {{0, 50, 100}, {0, 5, 10}},
       {{u"StretchType", i32_5}, {u"Statistics", stats}},
       {{0, 128, 255}, {0, 128, 255}}},
      {"type 0 without gamma passes the values through",
       5,
       {{0, 700, 65535, kNaN}},
       {{u"StretchType", Variant(std::int32_t{0})}},
       {{0, 700, 65535, kNaN}}},
      {"a gamma of exactly 1 switches gamma off for every band",
       5,
       {{3, 700}, {5, 9}},
       {{u"StretchType", Variant(std::int32_t{0})},
        {u"UseGamma", Variant(true)},
        {u"Gamma", Doubles({2, 1.0})}},
       {{3, 700}, {5, 9}}},
      {"gamma without UseGamma is not applied",
       5,
       {{3, 700}},
       {{u"StretchType", Variant(std::int32_t{0})}, {u"Gamma", Doubles({2})}},
       {{3, 700}}},
  };
  for (const ValuesCase& c : cases) {
    SCOPED_TRACE(c.name);
    const Bound b = Stretch(RowRaster(c.type, c.bands), c.arguments);
    ASSERT_EQ(b.bind, S_OK) << test::LastError();
    ASSERT_EQ(b.out.bands, static_cast<LONG>(c.expected.size()));
    for (LONG band = 0; band < b.out.bands; ++band) {
      const auto& want = c.expected[static_cast<std::size_t>(band)];
      for (std::size_t i = 0; i < want.size(); ++i) {
        SCOPED_TRACE(testing::Message() << "band " << band << " cell " << i);
        EXPECT_EQ(b.out.Valid(band, i), !std::isnan(want[i]));
        if (!std::isnan(want[i])) {
          EXPECT_EQ(b.out.At(band, i), want[i]);
        }
      }
    }
  }
}

TEST(StretchFunction, EveryInputTypeMapsAsTheRasterStretchDoes) {
  // Values each type holds, stretched by their own minimum and maximum onto [0, 255]; the
  // output type is the input's where it holds 255, else the first wider one that does.
  for (LONG type = 0; type <= 10; ++type) {
    SCOPED_TRACE(testing::Message() << "type " << type);
    const raster::ValueRange range = raster::PixelRange(type);
    const double low = std::max(range.lowest, -100.0), high = std::min(range.highest, 300.0);
    const std::vector<double> values = {low, high, std::floor((low + high) / 2), low + 1, kNaN};
    const Bound b =
        Stretch(RowRaster(type, {values}), {{u"StretchType", Variant(std::int32_t{5})},
                                            {u"Statistics", StatisticsArray({{low, high, 0, 1}})}});
    ASSERT_EQ(b.bind, S_OK) << test::LastError();
    const LONG expectedType = type < 3 ? 3 : (type == 4 ? 5 : type);
    EXPECT_EQ(b.out.type, expectedType);
    raster::stretch::BandMapping m;
    m.range = {low, high};
    for (std::size_t i = 0; i + 1 < values.size(); ++i) {
      double want = m(values[i]);
      if (expectedType <= 8) want = std::round(want);
      if (expectedType == 9) want = static_cast<float>(want);
      EXPECT_DOUBLE_EQ(b.out.At(0, i), want) << "cell " << i;
    }
    EXPECT_FALSE(b.out.Valid(0, values.size() - 1));
  }
}

TEST(StretchFunction, OutputTypeAndNoDataFollowTheBindRules) {
  struct Rule {
    const char* name;
    LONG type;
    double noData;  // NaN: none
    Arguments arguments;
    LONG expectedType;
    bool keepsNoData;
  };
  const Variant stats = StatisticsArray({{0, 100, 50, 10}});
  const Variant five(std::int32_t{5});
  const Rule rules[] = {
      {"16-bit signed holds 0 to 255 itself",
       6,
       kNaN,
       {{u"StretchType", five}, {u"Statistics", stats}},
       6,
       false},
      {"1-bit input goes up to 8 bits",
       0,
       kNaN,
       {{u"StretchType", five}, {u"Statistics", stats}},
       3,
       false},
      {"8-bit input with a range to 1000 goes to 16 bits unsigned",
       3,
       kNaN,
       {{u"StretchType", five}, {u"Statistics", stats}, {u"Max", Variant(1000.0)}},
       5,
       false},
      {"-1 to 255 skips 8-bit signed",
       3,
       kNaN,
       {{u"StretchType", five}, {u"Statistics", stats}, {u"Min", Variant(-1.0)}},
       6,
       false},
      {"float input stays float",
       9,
       kNaN,
       {{u"StretchType", five}, {u"Statistics", stats}},
       9,
       false},
      {"a range no type holds keeps the input's type",
       3,
       kNaN,
       {{u"StretchType", five}, {u"Statistics", stats}, {u"Max", Variant(1e308 * 10)}},
       3,
       false},
      {"type 0 keeps the input's type whatever the range",
       3,
       kNaN,
       {{u"StretchType", Variant(std::int32_t{0})}, {u"Max", Variant(1000.0)}},
       3,
       false},
      {"no-data 0 inside [0, 255] is dropped",
       6,
       0,
       {{u"StretchType", five}, {u"Statistics", stats}},
       6,
       false},
      {"no-data -9999 outside the range is kept",
       9,
       -9999,
       {{u"StretchType", five}, {u"Statistics", stats}},
       9,
       true},
      {"a pass-through keeps its no-data",
       6,
       0,
       {{u"StretchType", Variant(std::int32_t{0})}},
       6,
       true},
  };
  for (const Rule& r : rules) {
    SCOPED_TRACE(r.name);
    ObjectPtr<raster::MemoryDataset> dataset;
    const ComPtr<IRaster> input = RowRaster(r.type, {{1, 2, 3}}, std::addressof(dataset));
    if (!std::isnan(r.noData)) input.As<IRasterProps>()->put_NoDataValue(Variant(r.noData));
    const Bound b = Stretch(input, r.arguments, false);
    ASSERT_EQ(b.bind, S_OK) << test::LastError();
    EXPECT_EQ(OutputType(b.function.Get()), r.expectedType);
    ComPtr<IRasterInfo> info;
    b.function->get_RasterInfo(&info);
    Variant noData;
    info.As<IRasterInfo3>()->get_NoData(&noData);
    EXPECT_EQ(!noData.IsEmpty(), r.keepsNoData);
  }
}

TEST(StretchFunction, UnknownTypesAndBadStatisticsFailNamingTheArgument) {
  const ComPtr<IRaster> input = RowRaster(3, {{1, 2, 3}});
  struct Bad {
    Arguments arguments;
    const char* names;
  };
  const Bad bad[] = {
      {{{u"StretchType", Variant(std::int32_t{7})}}, "StretchType"},
      {{{u"StretchType", Variant(std::int32_t{5})}, {u"Statistics", Variant(3.0)}}, "Statistics"},
      {{{u"StretchType", Variant(std::int32_t{6})}, {u"Histograms", Doubles({1, 2})}},
       "Histograms"},
      {{{u"StretchType", Variant(std::int32_t{6})},
        {u"MinPercent", Variant(50.0)},
        {u"MaxPercent", Variant(50.0)}},
       "MinPercent"},
      {{{u"StretchType", Variant(std::int32_t{3})}, {u"NumberOfStandardDeviations", Variant(0.0)}},
       "NumberOfStandardDeviations"},
  };
  for (const Bad& c : bad) {
    SCOPED_TRACE(c.names);
    const Bound b = Stretch(input, c.arguments, false);
    EXPECT_TRUE(FAILED(b.bind));
    EXPECT_NE(test::LastError().find(c.names), std::string::npos);
  }
  auto function = test::Create<IRasterFunction>(u"StretchFunction");
  auto args = test::Create<IRasterFunctionArguments>(u"StretchFunctionArguments");
  EXPECT_EQ(function->Bind(args.Get()), E_INVALIDARG);  // no "Raster"
  EXPECT_TRUE(FAILED(function->Bind(nullptr)));
}

TEST(StretchFunction, OutputStatisticsComeFromTheHistogramsThroughTheStretch) {
  // Bin centres 12.5 and 87.5 of [0, 100] in four bins map to 31.875 and 223.125.
  const ComPtr<IRaster> input = RowRaster(3, {{0, 100}});
  const Bound b = Stretch(input,
                          {{u"StretchType", Variant(std::int32_t{5})},
                           {u"Statistics", StatisticsArray({{0, 100, 50, 50}})},
                           {u"Histograms", HistogramArray({{0, 100, {1, 0, 0, 3}}})}},
                          false);
  ASSERT_EQ(b.bind, S_OK) << test::LastError();
  ComPtr<IRasterInfo> info;
  b.function->get_RasterInfo(&info);
  ComPtr<IRasterStatistics> s;
  ASSERT_EQ(info.As<IRasterInfo3>()->get_Statistics(0, &s), S_OK);
  double mn = 0, mx = 0, mean = 0, sd = 0;
  s->get_Minimum(&mn);
  s->get_Maximum(&mx);
  s->get_Mean(&mean);
  s->get_StandardDeviation(&sd);
  EXPECT_DOUBLE_EQ(mn, 31.875);
  EXPECT_DOUBLE_EQ(mx, 223.125);
  EXPECT_DOUBLE_EQ(mean, (31.875 + 3 * 223.125) / 4);
  EXPECT_NEAR(sd, std::sqrt(3.0) / 4 * (223.125 - 31.875), 1e-9);

  // Histograms for fewer bands than there are: the output range instead.
  const Bound two = Stretch(RowRaster(3, {{0, 100}, {0, 100}}),
                            {{u"StretchType", Variant(std::int32_t{5})},
                             {u"Statistics", StatisticsArray({{0, 100, 50, 50}, {0, 100, 50, 50}})},
                             {u"Histograms", HistogramArray({{0, 100, {1, 0, 0, 3}}})},
                             {u"Max", Variant(200.0)}},
                            false);
  ASSERT_EQ(two.bind, S_OK) << test::LastError();
  two.function->get_RasterInfo(&info);
  ASSERT_EQ(info.As<IRasterInfo3>()->get_Statistics(1, &s), S_OK);
  s->get_Minimum(&mn);
  s->get_Maximum(&mx);
  EXPECT_EQ(mn, 0);
  EXPECT_EQ(mx, 200);
}

TEST(StretchFunction, MissingStatisticsAreComputedAndKeptWithTheDataset) {
  ObjectPtr<raster::MemoryDataset> dataset;
  const ComPtr<IRaster> input = RowRaster(5, {{100, 200, 300, kNaN}}, std::addressof(dataset));
  ComPtr<IRasterBand> band;
  ASSERT_EQ(dataset->GetBand(0, &band), S_OK);
  ComPtr<IRasterStatistics> kept;
  band->get_Statistics(&kept);
  EXPECT_FALSE(kept);
  for (bool estimate : {true, false}) {
    SCOPED_TRACE(estimate ? "estimated" : "exact");
    band->put_Statistics(nullptr);
    band->put_Histogram(nullptr);
    const Bound b = Stretch(input, {{u"StretchType", Variant(std::int32_t{5})},
                                    {u"EstimateStatsHistogram", Variant(estimate)}});
    ASSERT_EQ(b.bind, S_OK) << test::LastError();
    EXPECT_EQ(b.out.At(0, 0), 0);
    EXPECT_EQ(b.out.At(0, 1), 128);
    EXPECT_EQ(b.out.At(0, 2), 255);
    band->get_Statistics(&kept);
    ASSERT_TRUE(kept);
    double mx = 0;
    kept->get_Maximum(&mx);
    EXPECT_EQ(mx, 300);
    ComPtr<IRasterHistogram> histogram;
    band->get_Histogram(&histogram);
    EXPECT_TRUE(histogram);
  }
  // What the dataset keeps is used as it is: here a range it claims.
  auto claimed = MakeObject<raster::RasterStatistics>();
  claimed->put_Minimum(0);
  claimed->put_Maximum(1000);
  claimed->put_IsValid(VARIANT_TRUE);
  band->put_Statistics(claimed.As<IRasterStatistics>().Get());
  const Bound b = Stretch(input, {{u"StretchType", Variant(std::int32_t{5})}});
  ASSERT_EQ(b.bind, S_OK);
  EXPECT_EQ(b.out.At(0, 2), std::round(300 * 255 / 1000.0));
}

TEST(StretchFunction, GdalStatisticsOfAFileAreUsed) {
  raster::gdal::Initialize();
  test::TempDir folder;
  const std::string path = (folder.Path() / "claimed.tif").string();
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("GTiff"), path.c_str(), 4, 1, 1, GDT_UInt16, nullptr);
  ASSERT_NE(ds, nullptr);
  std::uint16_t values[4] = {10, 20, 30, 40};
  ASSERT_EQ(
      GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, 0, 4, 1, values, 4, 1, GDT_UInt16, 0, 0),
      CE_None);
  GDALSetRasterStatistics(GDALGetRasterBand(ds, 1), 0, 80, 40, 10);
  GDALClose(ds);
  ComPtr<IRasterDataset> dataset;
  ASSERT_EQ(raster::OpenDatasetByName(ToUtf16(path), &dataset), S_OK) << test::LastError();
  ComPtr<IRaster> input;
  ASSERT_EQ(dataset->CreateDefaultRaster(&input), S_OK);
  const Bound b = Stretch(input, {{u"StretchType", Variant(std::int32_t{5})}});
  ASSERT_EQ(b.bind, S_OK) << test::LastError();
  EXPECT_EQ(b.out.At(0, 3), 128);  // 40 of [0, 80], not the maximum
}

TEST(StretchFunction, DraStretchesEachBlockByItsOwnStatistics) {
  // Two 4-cell blocks side by side, of very different content.
  const std::vector<double> cells = {0, 10, 20, kNaN, 1000, 1500, 2000, 1250};
  for (LONG type : {5, 9}) {
    SCOPED_TRACE(testing::Message() << "type " << type);
    for (LONG stretchType : {5, 6}) {
      const Bound b = Stretch(RowRaster(type, {cells}),
                              {{u"StretchType", Variant(std::int32_t{stretchType})},
                               {u"DRA", Variant(true)},
                               {u"MinPercent", Variant(0.0)},
                               {u"MaxPercent", Variant(0.0)}},
                              false);
      ASSERT_EQ(b.bind, S_OK) << test::LastError();
      const test::Output left = test::ReadOutput(b.function.Get(), 0, 0, 4, 1);
      const test::Output right = test::ReadOutput(b.function.Get(), 4, 0, 4, 1);
      EXPECT_EQ(left.At(0, 0), 0);
      EXPECT_EQ(left.At(0, 2), 255);
      EXPECT_FALSE(left.Valid(0, 3));
      EXPECT_EQ(right.At(0, 0), 0);
      EXPECT_EQ(right.At(0, 2), 255);
      if (stretchType == 5) {
        EXPECT_EQ(right.At(0, 3), type == 9 ? 63.75 : 64);
      }
      // The record gives the output range.
      ComPtr<IRasterInfo> info;
      b.function->get_RasterInfo(&info);
      ComPtr<IRasterStatistics> s;
      ASSERT_EQ(info.As<IRasterInfo3>()->get_Statistics(0, &s), S_OK);
      double mx = 0;
      s->get_Maximum(&mx);
      EXPECT_EQ(mx, 255);
    }
  }
}

TEST(StretchFunction, ChainsGiveStatisticsAndHistogramsAsPlainJson) {
  raster::gdal::Initialize();
  test::TempDir folder;
  ASSERT_EQ(
      std::system(
          (std::string(PIXWERK_SAMPLE) + " " + folder.Path().string() + " 32 > /dev/null").c_str()),
      0);
  const auto load = [&](const std::string& arguments, IFunctionRasterDataset** dataset) {
    const std::string chain =
        R"({"function": "StretchFunction", "arguments": {"Raster": "dem.tif", )" + arguments + "}}";
    return framework::LoadChainText(chain, folder.Path(), dataset);
  };
  // Given statistics drive the stretch: 600 m of [400, 800] is mid-range.
  ComPtr<IFunctionRasterDataset> dataset;
  ASSERT_EQ(
      load(R"("StretchType": "minimummaximum", "Statistics": [[400, 800, 600, 50]])", &dataset),
      S_OK)
      << test::LastError();
  ComPtr<IRasterFunction> function;
  dataset->get_Function(&function);
  raster::stretch::BandMapping m;
  m.range = {400, 800};
  EXPECT_EQ(m(600), 127.5);
  // The saved form reads back equal.
  ComPtr<IUnknown> arguments;
  dataset->get_Arguments(&arguments);
  Bstr json;
  ASSERT_EQ(arguments.As<IRasterFunctionArguments2>()->ToJSON(&json), S_OK);
  auto again = test::Create<IRasterFunctionArguments>(u"StretchFunctionArguments");
  ASSERT_EQ(again.As<IRasterFunctionArguments2>()->FromJSON(json.Get()), S_OK)
      << ToUtf8(json.View());
  VARIANT_BOOL equal = VARIANT_FALSE;
  ASSERT_EQ(again.As<IClone>()->IsEqual(arguments.As<IClone>().Get(), &equal), S_OK);
  EXPECT_TRUE(equal) << ToUtf8(json.View());

  ASSERT_EQ(load(R"("StretchType": 6, "Histograms": [{"Minimum": 0, "Maximum": 10,
                    "Counts": [1, 2, 3]}], "Statistics": [[0, 10, 5, 1]])",
                 &dataset),
            S_OK)
      << test::LastError();
  // Wrong shapes are refused as the chain loads, naming the argument.
  for (const char* bad : {R"("Statistics": [[1, 2, 3]])", R"("Statistics": [1, 2, 3, 4])",
                          R"("Histograms": [{"Minimum": 0, "Counts": [1]}])", R"("StretchType": 7)",
                          R"("StretchType": "steep")"}) {
    SCOPED_TRACE(bad);
    EXPECT_TRUE(FAILED(load(bad, &dataset)));
    const std::string message = test::LastError();
    const std::string name = std::string(bad).substr(1, std::string(bad).find('"', 1) - 1);
    EXPECT_NE(message.find(name), std::string::npos) << message;
  }
}

TEST(StretchFunction, ConcurrentReadsEqualSerialOnes) {
  // Statistics computed at bind, re-gathered on each read, or taken per block under DRA.
  std::vector<double> cells(64 * 16);
  for (std::size_t i = 0; i < cells.size(); ++i) cells[i] = static_cast<double>((i * 37) % 1000);
  const ComPtr<IRaster> input = test::MemoryRaster(
      test::Row(64, 16), 1, 5, [&](LONG, LONG c, LONG r) { return cells[r * 64 + c]; });
  for (bool dra : {false, true}) {
    SCOPED_TRACE(dra ? "DRA" : "statistics");
    const Bound b = Stretch(input, {{u"DRA", Variant(dra)}}, false);
    ASSERT_EQ(b.bind, S_OK) << test::LastError();
    std::vector<test::Output> serial;
    for (LONG k = 0; k < 8; ++k)
      serial.push_back(test::ReadOutput(b.function.Get(), 8 * k, 0, 8, 16));
    std::vector<std::thread> threads;
    std::vector<int> wrong(8, 0);
    for (LONG k = 0; k < 8; ++k)
      threads.emplace_back([&, k] {
        for (int repeat = 0; repeat < 20; ++repeat) {
          const test::Output o = test::ReadOutput(b.function.Get(), 8 * k, 0, 8, 16);
          for (std::size_t i = 0; i < 8 * 16; ++i)
            wrong[static_cast<std::size_t>(k)] +=
                o.At(0, i) != serial[static_cast<std::size_t>(k)].At(0, i);
        }
      });
    for (auto& t : threads) t.join();
    for (int w : wrong) EXPECT_EQ(w, 0);
  }
}

TEST(RasterStatistics, EstimatesReadABoundedSampleSpreadOverTheRaster) {
  struct Size {
    LONG width, height;
  };
  for (const Size s : {Size{100, 80}, Size{1024, 1024}, Size{1025, 1024}, Size{100000, 20},
                       Size{30, 200000}, Size{50000, 50000}}) {
    SCOPED_TRACE(testing::Message() << s.width << " x " << s.height);
    const auto windows = raster::EstimateWindows(s.width, s.height);
    ASSERT_FALSE(windows.empty());
    std::size_t cells = 0;
    for (const auto& w : windows) {
      EXPECT_GE(w.column, 0);
      EXPECT_GE(w.row, 0);
      EXPECT_LE(w.column + w.width, s.width);
      EXPECT_LE(w.row + w.height, s.height);
      cells += static_cast<std::size_t>(w.width) * static_cast<std::size_t>(w.height);
    }
    const std::size_t all = static_cast<std::size_t>(s.width) * static_cast<std::size_t>(s.height);
    EXPECT_LE(cells, std::max(all <= raster::kEstimateCells ? all : 0, raster::kEstimateCells));
    if (all <= raster::kEstimateCells) {
      EXPECT_EQ(cells, all);  // small rasters are read whole
    } else {
      // Spread: the sample reaches into each quarter of the raster.
      EXPECT_LT(windows.front().column, s.width / 4 + 64);
      EXPECT_GT(windows.back().column + windows.back().width, 3 * s.width / 4 - 64);
      EXPECT_GT(windows.back().row + windows.back().height, 3 * s.height / 4 - 64);
    }
  }
}

// The sample is read on every core: its statistics are those of its windows, whatever order
// the threads read them in.
TEST(RasterStatistics, ASampleReadOnEveryCoreGivesTheStatisticsOfItsWindows) {
  const LONG width = 1300, height = 1100;  // over the bound of rasters read whole
  auto value = [](LONG, LONG c, LONG r) {
    const LONG k = (c * 7 + r * 13) % 1000;
    return k == 5 ? std::numeric_limits<double>::quiet_NaN() : k + (c % 3 == 0 ? 0.25 : 0.0);
  };
  const ComPtr<IRaster> raster = test::MemoryRaster(test::Row(width, height), 1, 9, value);
  double lowest = 1e300, highest = -1e300, sum = 0;
  std::size_t count = 0;
  for (const auto& w : raster::EstimateWindows(width, height))
    for (LONG r = w.row; r < w.row + w.height; ++r)
      for (LONG c = w.column; c < w.column + w.width; ++c)
        if (const double v = value(0, c, r); !std::isnan(v)) {
          lowest = std::min(lowest, v), highest = std::max(highest, v), sum += v, ++count;
        }
  for (int run = 0; run < 3; ++run) {
    std::vector<ComPtr<IRasterStatistics>> statistics;
    std::vector<ComPtr<IRasterHistogram>> histograms;
    ASSERT_EQ(raster::ComputeRasterStatistics(raster.Get(), raster::Accuracy::kEstimate,
                                              &statistics, &histograms),
              S_OK);
    double min = 0, max = 0, mean = 0;
    statistics[0]->get_Minimum(&min);
    statistics[0]->get_Maximum(&max);
    statistics[0]->get_Mean(&mean);
    EXPECT_EQ(min, lowest);
    EXPECT_EQ(max, highest);
    EXPECT_NEAR(mean, sum / static_cast<double>(count), 1e-9);
    ComPtr<IDoubleArray> counts;
    ASSERT_EQ(histograms[0]->get_Counts(&counts), S_OK);
    LONG bins = 0;
    counts->get_Count(&bins);
    double total = 0;
    for (LONG i = 0; i < bins; ++i) {
      double n = 0;
      counts->get_Element(i, &n);
      total += n;
    }
    EXPECT_EQ(total, static_cast<double>(count));
  }
}

}  // namespace
}  // namespace pw::functions
