// The remap function: its bind and pixel rules case by case through the function, tables
// from every source, zones, and each search structure against the rule list on random
// blocks of every type.
#include <gtest/gtest.h>

#include <gdal.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <memory>
#include <random>
#include <thread>

#include "framework/chain_json.h"
#include "functions/enhancement/remap_function.h"
#include "raster/algorithms/remap.h"
#include "raster/algorithms/zones.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"
#include "raster/table.h"
#include "tests/functions/function_test_support.h"
#include "tests/test_support.h"

namespace pw::functions {
namespace {

using raster::remap::Structure;
using test::Doubles;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
using Arguments = std::vector<std::pair<std::u16string, Variant>>;

struct Bound {
  HRESULT bind = E_FAIL;
  ComPtr<IRasterFunction> function;
  test::Output out;
};

Bound Remap(const ComPtr<IRaster>& input, const Arguments& arguments, bool read = true) {
  Bound b;
  b.function = test::Create<IRasterFunction>(u"RemapFunction");
  auto args = test::Create<IRasterFunctionArguments>(u"RemapFunctionArguments");
  args->PutValue(Bstr(u"Raster").Get(), Variant(static_cast<IUnknown*>(input.Get())));
  for (const auto& [name, value] : arguments) args->PutValue(Bstr(name).Get(), value);
  b.bind = b.function->Bind(args.Get());
  if (SUCCEEDED(b.bind) && read) b.out = test::ReadOutput(b.function.Get());
  return b;
}

ComPtr<IRaster> RowRaster(LONG type, const std::vector<double>& values,
                          ObjectPtr<raster::MemoryDataset>* dataset = nullptr) {
  return test::MemoryRaster(
      test::Row(static_cast<LONG>(values.size())), 1, type,
      [&](LONG, LONG column, LONG) { return values[column]; }, dataset);
}

void ExpectCells(const test::Output& out, const std::vector<double>& want) {
  for (std::size_t i = 0; i < want.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "cell " << i);
    EXPECT_EQ(out.Valid(0, i), !std::isnan(want[i]));
    if (!std::isnan(want[i])) {
      EXPECT_EQ(out.At(0, i), want[i]);
    }
  }
}

Structure StructureOf(const ComPtr<IRasterFunction>& function) {
  return dynamic_cast<RemapFunction*>(function.Get())->Structure();
}

struct RangeCase {
  const char* name;
  LONG type;
  std::vector<double> cells;  // NaN: invalid
  Arguments arguments;
  LONG expectedType;
  Structure structure;
  std::vector<double> expected;  // NaN: invalid
};

TEST(RemapFunction, RangesMatchByTheirRules) {
  const Variant two = Doubles({0, 10, 10, 20});
  const RangeCase cases[] = {
      {"a range holds its low end, not its high end",
       3,
       {0, 5, 10, 19, 20, kNaN},
       {{u"InputRanges", two}, {u"OutputValues", Doubles({1, 2})}},
       3,
       Structure::kDenseTable,
       {1, 1, 2, 2, kNaN, kNaN}},
      {"the same through the rule list on float input",
       9,
       {0, 5, 10, 19.5, 20, kNaN},
       {{u"InputRanges", two}, {u"OutputValues", Doubles({1, 2})}},
       9,
       Structure::kRuleList,
       {1, 1, 2, 2, kNaN, kNaN}},
      {"overlaps: the first rule wins in the rule list",
       9,
       {7, 12},
       {{u"InputRanges", Doubles({0, 10, 5, 15})}, {u"OutputValues", Doubles({1, 2})}},
       9,
       Structure::kRuleList,
       {1, 2}},
      {"overlaps: the last rule wins in the dense table",
       3,
       {7, 12},
       {{u"InputRanges", Doubles({0, 10, 5, 15})}, {u"OutputValues", Doubles({1, 2})}},
       3,
       Structure::kDenseTable,
       {2, 2}},
      {"a fractional output makes the output float",
       3,
       {1, 2},
       {{u"InputRanges", Doubles({0, 2, 2, 3})}, {u"OutputValues", Doubles({1.5, 2})}},
       9,
       Structure::kDenseTable,
       {1.5, 2}},
      {"outputs 0 and 300 on 8-bit input give 16 bits unsigned",
       3,
       {1, 2},
       {{u"InputRanges", Doubles({0, 2, 2, 3})}, {u"OutputValues", Doubles({0, 300})}},
       5,
       Structure::kDenseTable,
       {0, 300}},
      {"negative outputs on 8-bit input give 8 bits signed",
       3,
       {1, 2},
       {{u"InputRanges", Doubles({0, 2, 2, 3})}, {u"OutputValues", Doubles({-5, 100})}},
       4,
       Structure::kDenseTable,
       {-5, 100}},
      {"outputs past 16 bits give 32 bits signed",
       3,
       {1, 2},
       {{u"InputRanges", Doubles({0, 2, 2, 3})}, {u"OutputValues", Doubles({-1, 70000})}},
       8,
       Structure::kDenseTable,
       {-1, 70000}},
      {"unmatched values kept with an empty replacement",
       5,
       {5, 50},
       {{u"InputRanges", Doubles({0, 10})},
        {u"OutputValues", Doubles({1})},
        {u"AllowUnmatched", Variant(true)}},
       5,
       Structure::kDenseTable,
       {1, 50}},
      {"unmatched values replaced",
       9,
       {5, 50},
       {{u"InputRanges", Doubles({0, 10})},
        {u"OutputValues", Doubles({1})},
        {u"AllowUnmatched", Variant(true)},
        {u"ReplacementValue", Variant(99.0)}},
       9,
       Structure::kRuleList,
       {1, 99}},
      {"a replacement that is not a number keeps the value",
       9,
       {50},
       {{u"InputRanges", Doubles({0, 10})},
        {u"OutputValues", Doubles({1})},
        {u"AllowUnmatched", Variant(true)},
        {u"ReplacementValue", Variant(u"none")}},
       9,
       Structure::kRuleList,
       {50}},
      {"no-data ranges",
       6,
       {-5, 3, 7},
       {{u"InputRanges", Doubles({-10, 10})},
        {u"OutputValues", Doubles({1})},
        {u"NoDataRanges", Doubles({0, 5})}},
       6,
       Structure::kDenseTable,
       {1, kNaN, 1}},
      {"single values on float input go through the hash",
       10,
       {0.5, -0.0, 2, 3},
       {{u"InputRanges", Doubles({0.5, 0.5, 0, 0, 3, 3})}, {u"OutputValues", Doubles({7, 8, 9})}},
       10,
       Structure::kHash,
       {7, 8, kNaN, 9}},
      {"a wide span with few rules is no dense table",
       8,
       {0, 100000, 5},
       {{u"InputRanges", Doubles({0, 0, 100000, 100000})}, {u"OutputValues", Doubles({1, 2})}},
       8,
       Structure::kHash,
       {1, 2, kNaN}},
      {"a wide span of ranges is searched in order",
       8,
       {0, 99999, 5000000},
       {{u"InputRanges", Doubles({0, 10, 99990, 5000001})}, {u"OutputValues", Doubles({1, 2})}},
       8,
       Structure::kRuleList,
       {1, 2, 2}},
  };
  for (const RangeCase& c : cases) {
    SCOPED_TRACE(c.name);
    const Bound b = Remap(RowRaster(c.type, c.cells), c.arguments);
    ASSERT_EQ(b.bind, S_OK) << test::LastError();
    EXPECT_EQ(b.out.type, c.expectedType);
    EXPECT_EQ(StructureOf(b.function), c.structure);
    ExpectCells(b.out, c.expected);
  }
}

TEST(RemapFunction, BindFailuresNameTheArgument) {
  const ComPtr<IRaster> input = RowRaster(3, {1, 2});
  const struct {
    Arguments arguments;
    const char* named;
  } cases[] = {
      {{{u"InputRanges", Doubles({0, 1, 2, 3, 4})}, {u"OutputValues", Doubles({1, 2})}},
       "InputRanges"},
      {{{u"InputRanges", Doubles({0, 1})},
        {u"OutputValues", Doubles({1})},
        {u"NoDataRanges", Doubles({5})}},
       "NoDataRanges"},
      {{{u"UseTable", Variant(true)}}, "Table"},
      {{{u"Geometries", Variant(3.0)}}, "Geometries"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.named);
    const Bound b = Remap(input, c.arguments, false);
    EXPECT_EQ(b.bind, E_INVALIDARG);
    EXPECT_NE(test::LastError().find(c.named), std::string::npos) << test::LastError();
  }
}

TEST(RemapFunction, OutputStatisticsFollowTheOutputs) {
  const ComPtr<IRaster> input = RowRaster(3, {1, 2});
  for (bool allow : {false, true}) {
    const Bound b = Remap(input,
                          {{u"InputRanges", Doubles({0, 2, 2, 3})},
                           {u"OutputValues", Doubles({4, 9})},
                           {u"AllowUnmatched", Variant(allow)}},
                          false);
    ASSERT_EQ(b.bind, S_OK);
    ComPtr<IRasterInfo> info;
    b.function->get_RasterInfo(&info);
    LONG count = 0;
    info.As<IRasterInfo3>()->get_StatisticsCount(&count);
    if (allow) {
      EXPECT_EQ(count, 0);
    } else {
      ComPtr<IRasterStatistics> s;
      ASSERT_EQ(info.As<IRasterInfo3>()->get_Statistics(0, &s), S_OK);
      double mn = 0, mx = 0;
      s->get_Minimum(&mn);
      s->get_Maximum(&mx);
      EXPECT_EQ(mn, 4);
      EXPECT_EQ(mx, 9);
    }
  }
}

// A table with an integer code, a float value, a text and a short and single field.
ComPtr<ITable> Legend() {
  auto table = MakeObject<raster::Table>();
  table->AddField(Bstr(u"Code").Get(), raster::kFieldLong);
  table->AddField(Bstr(u"Top").Get(), raster::kFieldLong);
  table->AddField(Bstr(u"Class").Get(), raster::kFieldString);
  table->AddField(Bstr(u"Small").Get(), raster::kFieldShort);
  table->AddField(Bstr(u"Weight").Get(), raster::kFieldSingle);
  table->AddField(Bstr(u"Exact").Get(), raster::kFieldDouble);
  const struct {
    int code, top;
    const char16_t* name;
    double weight;
  } rows[] = {{1, 5, u"water", 0.5}, {2, 8, u"forest", 1.5}, {3, 9, u"town", 2.5}};
  for (const auto& r : rows) {
    ComPtr<IRow> row;
    table->AddRow(&row);
    row->put_Value(0, Variant(std::int32_t{r.code}));
    row->put_Value(1, Variant(std::int32_t{r.top}));
    row->put_Value(2, Variant(std::u16string_view(r.name)));
    row->put_Value(3, Variant(std::int32_t{r.code * 10}));
    row->put_Value(4, Variant(r.weight));
    row->put_Value(5, Variant(r.weight * 2));
  }
  return table.As<ITable>();
}

TEST(RemapFunction, TablesGiveRulesTypesAndFilters) {
  raster::gdal::Initialize();  // the filters go through OGR
  const ComPtr<IRaster> input = RowRaster(3, {1, 2, 3, 4, 6});
  const Variant legend(static_cast<IUnknown*>(Legend().Get()));
  const auto use = [&](Arguments more) {
    Arguments a = {{u"UseTable", Variant(true)}, {u"Table", legend}};
    a.insert(a.end(), more.begin(), more.end());
    return a;
  };
  const struct {
    const char* name;
    Arguments arguments;
    LONG expectedType;
    std::vector<double> expected;
  } cases[] = {
      {"short outputs: 16-bit signed",
       use({{u"InputField", Variant(u"Code")}, {u"OutputField", Variant(u"Small")}}),
       6,
       {10, 20, 30, kNaN, kNaN}},
      {"single outputs: 16-bit signed, rounded",
       use({{u"InputField", Variant(u"Code")}, {u"OutputField", Variant(u"Weight")}}),
       6,
       {1, 2, 3, kNaN, kNaN}},
      {"double outputs: 64-bit float",
       use({{u"InputField", Variant(u"Code")}, {u"OutputField", Variant(u"Exact")}}),
       10,
       {1, 3, 5, kNaN, kNaN}},
      {"long outputs: 32-bit signed; no output field is the input field",
       use({{u"InputField", Variant(u"Code")}}),
       8,
       {1, 2, 3, kNaN, kNaN}},
      {"text outputs keep the input type and make no-data",
       use({{u"InputField", Variant(u"Code")}, {u"OutputField", Variant(u"Class")}}),
       3,
       {kNaN, kNaN, kNaN, kNaN, kNaN}},
      {"ranges from a high-end field",
       use({{u"InputField", Variant(u"Code")},
            {u"InputMaxField", Variant(u"Top")},
            {u"OutputField", Variant(u"Small")}}),
       6,
       {10, 20, 30, 30, 30}},  // a dense table: later rows win
      {"a filter keeps some rows",
       use({{u"InputField", Variant(u"Code")},
            {u"OutputField", Variant(u"Small")},
            {u"DefinitionExpression", Variant(u"Class <> 'forest'")}}),
       6,
       {10, kNaN, 30, kNaN, kNaN}},
      {"\"#\" is no filter",
       use({{u"InputField", Variant(u"Code")},
            {u"OutputField", Variant(u"Small")},
            {u"DefinitionExpression", Variant(u"#")}}),
       6,
       {10, 20, 30, kNaN, kNaN}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Bound b = Remap(input, c.arguments);
    ASSERT_EQ(b.bind, S_OK) << test::LastError();
    EXPECT_EQ(b.out.type, c.expectedType);
    ExpectCells(b.out, c.expected);
  }
  // Fields are checked in order and named.
  const struct {
    Arguments arguments;
    const char* named;
  } bad[] = {
      {use({}), "InputField"},
      {use({{u"InputField", Variant(u"Cod")}}), "InputField"},
      {use({{u"InputField", Variant(u"Code")}, {u"OutputField", Variant(u"Nope")}}), "OutputField"},
      {use({{u"InputField", Variant(u"Code")}, {u"InputMaxField", Variant(u"Nope")}}),
       "InputMaxField"},
      {use({{u"InputField", Variant(u"Code")}, {u"DefinitionExpression", Variant(u"Class = ")}}),
       "DefinitionExpression"},
      {use({{u"InputField", Variant(u"Code")}, {u"RemapTableType", Variant(std::int32_t{4})}}),
       "Table"},
  };
  for (const auto& c : bad) {
    SCOPED_TRACE(c.named);
    const Bound b = Remap(input, c.arguments, false);
    EXPECT_EQ(b.bind, E_INVALIDARG);
    EXPECT_NE(test::LastError().find(c.named), std::string::npos) << test::LastError();
  }
}

TEST(RemapFunction, TableModeBuildsItsRulesOnceUnderConcurrentReads) {
  std::vector<double> cells(64 * 8);
  for (std::size_t i = 0; i < cells.size(); ++i) cells[i] = static_cast<double>(i % 5);
  const ComPtr<IRaster> input = test::MemoryRaster(
      test::Row(64, 8), 1, 3, [&](LONG, LONG c, LONG r) { return cells[r * 64 + c]; });
  for (int round = 0; round < 5; ++round) {
    const Bound b = Remap(input,
                          {{u"UseTable", Variant(true)},
                           {u"Table", Variant(static_cast<IUnknown*>(Legend().Get()))},
                           {u"InputField", Variant(u"Code")},
                           {u"OutputField", Variant(u"Small")}},
                          false);
    ASSERT_EQ(b.bind, S_OK);
    std::vector<std::thread> threads;
    std::vector<int> wrong(8, 0);
    for (LONG k = 0; k < 8; ++k)
      threads.emplace_back([&, k] {
        const test::Output o = test::ReadOutput(b.function.Get(), 8 * k, 0, 8, 8);
        for (LONG r = 0; r < 8; ++r)
          for (LONG c = 0; c < 8; ++c) {
            const double v = cells[static_cast<std::size_t>(r * 64 + 8 * k + c)];
            const std::size_t i = static_cast<std::size_t>(r * 8 + c);
            const bool matched = v >= 1 && v <= 3;
            wrong[static_cast<std::size_t>(k)] +=
                o.Valid(0, i) != matched || (matched && o.At(0, i) != v * 10);
          }
      });
    for (auto& t : threads) t.join();
    for (int w : wrong) EXPECT_EQ(w, 0);
  }
}

class RemapSources : public ::testing::Test {
 protected:
  void SetUp() override { raster::gdal::Initialize(); }
  std::string File(const std::string& name) const { return (dir_ / name).string(); }
  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(File(name)) << text;
  }
  // Loads a chain whose names are relative to the test's folder and reads it whole.
  HRESULT Run(const std::string& chain, test::Output* out) {
    ComPtr<IFunctionRasterDataset> dataset;
    PW_RETURN_IF_FAILED(framework::LoadChainText(chain, dir_.Path(), &dataset));
    ComPtr<IRasterFunction> function;
    dataset->get_Function(&function);
    *out = test::ReadOutput(function.Get());
    return S_OK;
  }
  // A 4 x 2 8-bit raster of codes 1 2 3 4 / 4 3 2 1 on a grid of 10 m cells at (0, 20).
  void Codes(bool withTable = false) {
    GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), File("codes.tif").c_str(), 4, 2, 1,
                                 GDT_Byte, nullptr);
    double transform[6] = {0, 10, 0, 20, 0, -10};
    GDALSetGeoTransform(ds, transform);
    std::uint8_t v[8] = {1, 2, 3, 4, 4, 3, 2, 1};
    ASSERT_EQ(GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, 0, 4, 2, v, 4, 2, GDT_Byte, 0, 0),
              CE_None);
    if (withTable) {
      GDALRasterAttributeTableH rat = GDALCreateRasterAttributeTable();
      GDALRATCreateColumn(rat, "Value", GFT_Integer, GFU_MinMax);
      GDALRATCreateColumn(rat, "Group", GFT_Integer, GFU_Generic);
      for (int r = 0; r < 4; ++r) {
        GDALRATSetValueAsInt(rat, r, 0, r + 1);
        GDALRATSetValueAsInt(rat, r, 1, 100 + (r + 1) % 2);
      }
      GDALSetDefaultRAT(GDALGetRasterBand(ds, 1), rat);
      GDALDestroyRasterAttributeTable(rat);
    }
    GDALClose(ds);
  }
  test::TempDir dir_;
};

TEST_F(RemapSources, TablesFromCsvVectorFilesAndAttributeTables) {
  Codes(true);
  Write("legend.csv", "code,label,out\n1,water,10\n2,forest,20\n3,town,30\n");
  Write("legend.geojson",
        R"({"type": "FeatureCollection", "features": [
            {"type": "Feature", "properties": {"code": 2, "out": 200}, "geometry": null},
            {"type": "Feature", "properties": {"code": 4, "out": 400}, "geometry": null}]})");
  const struct {
    const char* name;
    std::string arguments;
    std::vector<double> expected;
  } cases[] = {
      {"a CSV file",
       R"("Table": "legend.csv", "InputField": "code", "OutputField": "out")",
       {10, 20, 30, kNaN, kNaN, 30, 20, 10}},
      {"a CSV file, filtered",
       R"x("Table": "legend.csv", "InputField": "code", "OutputField": "out",
          "DefinitionExpression": "label IN ('water', 'town')")x",
       {10, kNaN, 30, kNaN, kNaN, 30, kNaN, 10}},
      {"a vector dataset's layer",
       R"("Table": "legend.geojson", "InputField": "code", "OutputField": "out")",
       {kNaN, 200, kNaN, 400, 400, kNaN, 200, kNaN}},
      {"another raster's attribute table",
       R"("Table": "codes.tif", "InputField": "Value", "OutputField": "Group")",
       {101, 100, 101, 100, 100, 101, 100, 101}},
      {"the input's own attribute table",
       R"("InputField": "Value", "OutputField": "Group")",
       {101, 100, 101, 100, 100, 101, 100, 101}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::Output out;
    ASSERT_EQ(Run(R"({"function": "RemapFunction", "arguments": {"Raster": "codes.tif",
                        "UseTable": true, )" +
                      c.arguments + "}}",
                  &out),
              S_OK)
        << test::LastError();
    ExpectCells(out, c.expected);
  }
  test::Output out;
  EXPECT_TRUE(FAILED(Run(R"({"function": "RemapFunction", "arguments": {"Raster": "codes.tif",
                          "UseTable": true, "Table": "missing.csv", "InputField": "code"}})",
                         &out)));
  EXPECT_NE(test::LastError().find("Table"), std::string::npos) << test::LastError();
}

TEST_F(RemapSources, ZonesLimitTheRemapAndMayNotOverlap) {
  Codes();
  // The left half of the raster (x < 20): cells 0, 1, 4, 5.
  const std::string left =
      R"({"type": "Polygon", "coordinates": [[[0, 0], [20, 0], [20, 20], [0, 20], [0, 0]]]})";
  Write("left.geojson", R"({"type": "FeatureCollection", "features": [{"type": "Feature",
        "properties": {}, "geometry": )" +
                            left + "}]}");
  const std::string ranges = R"("InputRanges": [0, 10], "OutputValues": [9])";
  const struct {
    const char* name;
    std::string geometries;
    std::vector<double> expected;
  } cases[] = {
      {"GeoJSON in the chain", left, {9, 9, 3, 4, 9, 9, 2, 1}},
      {"a vector file", R"("left.geojson")", {9, 9, 3, 4, 9, 9, 2, 1}},
      {"a point and a line",
       R"({"type": "GeometryCollection", "geometries": [
            {"type": "Point", "coordinates": [35, 15]},
            {"type": "LineString", "coordinates": [[1, 5], [29, 5]]}]})",
       {1, 2, 3, 9, 9, 9, 9, 1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    test::Output out;
    ASSERT_EQ(Run(R"({"function": "RemapFunction", "arguments": {"Raster": "codes.tif", )" +
                      ranges + R"(, "Geometries": )" + c.geometries + "}}",
                  &out),
              S_OK)
        << test::LastError();
    ExpectCells(out, c.expected);
  }
  // Two zones over one cell fail the read, naming both.
  ComPtr<IFunctionRasterDataset> dataset;
  ASSERT_EQ(
      framework::LoadChainText(R"({"function": "RemapFunction", "arguments": {
                "Raster": "codes.tif", )" +
                                   ranges + R"(, "Geometries": [)" + left + ", " + left + "]}}",
                               dir_.Path(), &dataset),
      S_OK);
  ComPtr<IRasterFunction> function;
  dataset->get_Function(&function);
  ComPtr<IPixelBlock> block;
  ASSERT_EQ(raster::CreatePixelBlock(4, 2, 1, 3, &block), S_OK);
  auto origin = MakeObject<raster::Pnt>();
  EXPECT_TRUE(FAILED(function->Read(origin.As<IPnt>().Get(), nullptr, block.Get())));
  EXPECT_NE(test::LastError().find("geometries 1 and 2"), std::string::npos);
  // A kind other than the one named.
  test::Output out;
  EXPECT_TRUE(FAILED(Run(R"({"function": "RemapFunction", "arguments": {"Raster": "codes.tif", )" +
                             ranges + R"(, "Geometries": )" + left +
                             R"(, "GeometryType": "quarnGeometryPolyline"}})",
                         &out)));
  EXPECT_NE(test::LastError().find("GeometryType"), std::string::npos);
}

TEST(RemapFunction, ZonesGivenAsGeoJsonSaveAndLoadBackEqual) {
  auto args = test::Create<IRasterFunctionArguments>(u"RemapFunctionArguments");
  const Bstr json(
      u"{\"Raster\": \"dem.tif\", \"InputRanges\": [0, 10], \"OutputValues\": [1], "
      u"\"Geometries\": {\"type\": \"MultiPolygon\", \"coordinates\": [[[[0, 0], [4, 0], "
      u"[4, 4], [0, 0]]], [[[5, 5], [6, 5], [6, 6], [5, 5]]]]}}");
  ASSERT_EQ(args.As<IRasterFunctionArguments2>()->FromJSON(json.Get()), S_OK) << test::LastError();
  ComPtr<IGeometryArray> geometries;
  ASSERT_EQ(args.As<IRemapFunctionArguments>()->get_Geometries(&geometries), S_OK);
  std::vector<raster::zones::Shape> shapes;
  ASSERT_EQ(raster::zones::ShapesOf(geometries.Get(), &shapes), S_OK);
  ASSERT_EQ(shapes.size(), 1u);
  EXPECT_EQ(shapes[0].kind, raster::zones::kPolygon);
  EXPECT_EQ(shapes[0].parts.size(), 2u);
  Bstr saved;
  ASSERT_EQ(args.As<IRasterFunctionArguments2>()->ToJSON(&saved), S_OK);
  auto again = test::Create<IRasterFunctionArguments>(u"RemapFunctionArguments");
  ASSERT_EQ(again.As<IRasterFunctionArguments2>()->FromJSON(saved.Get()), S_OK)
      << ToUtf8(saved.View());
  VARIANT_BOOL equal = VARIANT_FALSE;
  ASSERT_EQ(again.As<IClone>()->IsEqual(args.As<IClone>().Get(), &equal), S_OK);
  EXPECT_TRUE(equal) << ToUtf8(saved.View());
  // Malformed GeoJSON says what is wrong.
  const Bstr bad(
      u"{\"Raster\": \"dem.tif\", \"Geometries\": {\"type\": \"Polygon\", "
      u"\"coordinates\": [[[0, 0], [1, 1]]]}}");
  EXPECT_TRUE(FAILED(again.As<IRasterFunctionArguments2>()->FromJSON(bad.Get())));
  EXPECT_NE(test::LastError().find("three positions"), std::string::npos) << test::LastError();
}

TEST(Zones, CellsAreCoveredByTheirCentresEdgesAndPoints) {
  using raster::zones::Shape;
  const raster::zones::BlockGrid grid{0, 6, 1, 1, 6, 6};
  const struct {
    const char* name;
    std::vector<Shape> shapes;
    std::vector<int> covered;  // row-major cell indexes
  } cases[] = {
      {"a square with a hole",
       {{raster::zones::kPolygon,
         {{0.5, 0.5, 5.5, 0.5, 5.5, 5.5, 0.5, 5.5}, {2, 2, 4, 2, 4, 4, 2, 4}}}},
       // Centres from 0.5 up to (not at) 5.5 on each axis, less the hole's four.
       {6, 7, 8, 9, 10, 12, 13, 16, 18, 19, 22, 24, 25, 26, 27, 28, 30, 31, 32, 33, 34}},
      {"an envelope", {{raster::zones::kEnvelope, {{1, 4, 3, 6}}}}, {1, 2, 7, 8}},
      {"a diagonal line", {{raster::zones::kPolyline, {{0.5, 5.5, 2.5, 3.5}}}}, {0, 7, 14}},
      {"points", {{raster::zones::kMultipoint, {{0.2, 5.8, 5.9, 0.1, 9, 9}}}}, {0, 35}},
      // Coordinates far off the block or not numbers cost nothing and cover nothing wrong.
      {"a line reaching far beyond the block",
       {{raster::zones::kPolyline, {{-1e15, 0.5, 1e15, 0.5}}}},
       {30, 31, 32, 33, 34, 35}},
      {"shapes with coordinates that are not numbers",
       {{raster::zones::kPolygon, {{kNaN, 0, 1, 1, 0, 1}}},
        {raster::zones::kPolyline, {{0, kNaN, 1, 1}}},
        {raster::zones::kPoint, {{kNaN, 1e300}}}},
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::uint8_t> zones;
    ASSERT_EQ(raster::zones::Rasterize(c.shapes, grid, &zones), S_OK);
    std::vector<int> got;
    for (std::size_t i = 0; i < zones.size(); ++i)
      if (zones[i]) got.push_back(static_cast<int>(i));
    EXPECT_EQ(got, c.covered);
  }
}

TEST(RemapStructures, EachEqualsTheRuleListOnRandomBlocksOfEveryType) {
  std::mt19937 random(11);
  constexpr std::size_t n = 517;
  for (LONG type = 0; type <= 10; ++type) {
    const raster::ValueRange range = raster::PixelRange(type);
    const double low = std::max(range.lowest, -200.0), high = std::min(range.highest, 200.0);
    // Disjoint rules with whole ends: ranges, or single values; and rules that make no-data.
    for (int kind = 0; kind < 3; ++kind) {
      raster::remap::Rules rules;
      double at = low;
      for (int r = 0; r < 12 && at < high; ++r) {
        const double width = kind == 1 ? 0 : static_cast<double>(1 + random() % 20);
        const double out = r == 5 && kind == 2 ? raster::remap::NoDataOutput()
                                               : static_cast<double>(random() % 250);
        rules.Add(at, at + width, out);
        at += width + static_cast<double>(random() % 7) + (kind == 1 ? 1 : 0);
      }
      std::vector<std::uint8_t> values(n * raster::PixelSize(type));
      raster::VisitPixelType(type, [&](auto tag) {
        using T = typename decltype(tag)::type;
        std::uniform_int_distribution<int> d(static_cast<int>(low), static_cast<int>(high));
        for (std::size_t i = 0; i < n; ++i)
          reinterpret_cast<T*>(values.data())[i] = static_cast<T>(d(random));
      });
      std::vector<std::uint8_t> zones(n);
      for (auto& z : zones) z = static_cast<std::uint8_t>(random() % 3);
      for (bool allow : {false, true})
        for (bool zoned : {false, true})
          for (LONG outType : {LONG{3}, LONG{6}, LONG{9}}) {
            raster::remap::Remapper::Options options;
            options.allowUnmatched = allow;
            options.replacement = allow && type % 2 ? 77 : kNaN;
            const raster::remap::Remapper remapper(rules, type, options);
            SCOPED_TRACE(testing::Message() << "type " << type << " rules " << kind << " structure "
                                            << static_cast<int>(remapper.Chosen()) << " allow "
                                            << allow << " zoned " << zoned << " out " << outType);
            std::vector<BYTE> valid(raster::mask::Bytes(n), 0xFF);
            for (std::size_t i = 0; i < n; ++i)
              if (random() % 6 == 0) raster::mask::Clear(valid.data(), i);
            std::vector<BYTE> gotMask = valid, wantMask = valid;
            std::vector<std::uint8_t> got(n * 8, 0), want(n * 8, 0);
            const std::uint8_t* z = zoned ? zones.data() : nullptr;
            ASSERT_EQ(
                remapper.Apply(type, values.data(), gotMask.data(), n, outType, got.data(), z),
                S_OK);
            ASSERT_EQ(remapper.ApplyReference(type, values.data(), wantMask.data(), n, outType,
                                              want.data(), z),
                      S_OK);
            for (std::size_t i = 0; i < n; ++i) {
              ASSERT_EQ(raster::mask::Get(gotMask.data(), i), raster::mask::Get(wantMask.data(), i))
                  << i;
              if (raster::mask::Get(gotMask.data(), i)) {
                ASSERT_EQ(std::memcmp(got.data() + i * raster::PixelSize(outType),
                                      want.data() + i * raster::PixelSize(outType),
                                      raster::PixelSize(outType)),
                          0)
                    << i;
              }
            }
          }
    }
  }
}

}  // namespace
}  // namespace pw::functions
