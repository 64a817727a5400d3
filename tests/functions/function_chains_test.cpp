// Every new function as a chain: saved and loaded again it gives the same pixels, and its
// stream form restores a function that binds to the same output. Template references of the
// arithmetic arguments and the band index computation, rule by rule.
#include <gtest/gtest.h>

#include "framework/chain_json.h"
#include "framework/relative_path_manager.h"
#include "functions/elementary/arithmetic_function.h"
#include "raster/band_indexes.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/mask.h"
#include "raster/persist/document_version.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/xml.h"
#include "raster/values/property_set.h"
#include "tests/functions/function_test_support.h"
#include "tests/test_support.h"

namespace pw::functions {
namespace {

struct Pixels {
  std::vector<double> values;
  std::vector<bool> valid;
  bool operator==(const Pixels&) const = default;
};

Pixels ReadAll(IFunctionRasterDataset* chain) {
  ComPtr<IRasterFunction> f;
  chain->get_Function(&f);
  const test::Output out = test::ReadOutput(f.Get());
  Pixels p;
  LONG width = 0, height = 0;
  out.block->get_Width(&width);
  out.block->get_Height(&height);
  for (LONG b = 0; b < out.bands; ++b)
    for (std::size_t i = 0; i < static_cast<std::size_t>(width) * height; ++i) {
      p.valid.push_back(out.Valid(b, i));
      p.values.push_back(out.Valid(b, i) ? out.At(b, i) : 0);
    }
  return p;
}

class FunctionChains : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    raster::gdal::Initialize();
    // The generated sample: a small elevation model and a four-band image with named bands.
    const std::string command =
        std::string(PIXWERK_SAMPLE) + " " + dir_.Path().string() + " 48 > /dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }
  test::TempDir dir_;
};

TEST_P(FunctionChains, SaveAndLoadAgainToTheSamePixels) {
  ComPtr<IFunctionRasterDataset> chain;
  ASSERT_EQ(framework::LoadChainText(GetParam(), dir_.Path(), &chain), S_OK) << test::LastError();
  const Pixels first = ReadAll(chain.Get());
  ASSERT_FALSE(first.values.empty());
  // JSON: the saved chain loads to the same pixels.
  persist::Json saved;
  ASSERT_EQ(framework::SaveChain(chain.Get(), &saved), S_OK);
  ComPtr<IFunctionRasterDataset> again;
  ASSERT_EQ(framework::LoadChainText(saved.dump(), dir_.Path(), &again), S_OK)
      << saved.dump() << test::LastError();
  EXPECT_TRUE(ReadAll(again.Get()) == first) << saved.dump();
  // Stream, XML and JSON forms of the dataset (function and arguments) bind again to the
  // same pixels; relative names resolve against the folder the host sets.
  const framework::ScopedBasePath base(dir_.Path().string());
  for (int form = 0; form < 3; ++form) {
    ComPtr<IUnknown> fresh;
    ASSERT_EQ(server::CreateInstance(u"quarnDataSourcesRaster.FunctionRasterDataset", &fresh),
              S_OK);
    if (form == 0) {
      std::vector<std::uint8_t> bytes;
      ASSERT_EQ(persist::SaveToBytes(chain.Get(), persist::kCurrentDocumentVersion, &bytes), S_OK);
      ASSERT_EQ(persist::LoadFromBytes(fresh.Get(), bytes), S_OK) << test::LastError();
    } else if (form == 1) {
      std::string text;
      ASSERT_EQ(persist::SaveXml(chain.Get(), &text), S_OK);
      ASSERT_EQ(persist::LoadXml(text, fresh.Get()), S_OK) << test::LastError();
    } else {
      std::string text;
      ASSERT_EQ(persist::SaveJson(chain.Get(), &text), S_OK);
      ASSERT_EQ(persist::LoadJson(text, fresh.Get()), S_OK) << test::LastError();
    }
    auto restored = fresh.As<IFunctionRasterDataset>();
    ASSERT_EQ(restored->EnsureBound(), S_OK) << form << " " << test::LastError();
    EXPECT_TRUE(ReadAll(restored.Get()) == first) << "form " << form;
  }
}

INSTANTIATE_TEST_SUITE_P(
    NewFunctions, FunctionChains,
    ::testing::Values(
        R"({"function": "ArithmeticFunction",
            "arguments": {"Raster": "dem.tif", "Raster2": [2.5], "Operation": "times"}})",
        R"({"function": "ArithmeticFunction",
            "arguments": {"Raster": "image.tif", "Raster2": "dem.tif", "Operation": 7,
                          "ToleranceType": 1, "ToleranceSize": 100, "ExtentType": 1}})",
        R"({"function": "NDVIFunction",
            "arguments": {"Raster": "image.tif", "VisibleBandName": "Red",
                          "InfraredBandName": "NIR", "ScientificOutput": true}})",
        R"({"function": "ExtractBandFunction",
            "arguments": {"Raster": "image.tif", "BandIDs": [3, 1], "Method": 2}})",
        R"({"function": "CompositeBandFunction",
            "arguments": {"Raster[]": ["dem.tif", "image.tif"]}})",
        R"({"function": "SlopeFunction",
            "arguments": {"DEM": "dem.tif", "SlopeType": 2, "RemoveEdgeEffect": true}})",
        R"({"function": "AspectFunction", "arguments": {"Raster": "dem.tif"}})",
        R"({"function": "HillshadeFunction",
            "arguments": {"DEM": "dem.tif", "HillshadeType": 1, "ZFactor": 2}})"));

TEST(ArithmeticArguments, ResolveTurnsReferencesIntoDatasetsOrConstants) {
  auto properties = MakeObject<raster::PropertySet>();
  properties->SetProperty(Bstr(u"OTHER").Get(), Variant(2.5));
  properties->SetProperty(Bstr(u"OP").Get(), Variant(u"4"));
  const struct {
    LONG generate;
    VARTYPE raster2;  // what "Raster2" holds after resolving "${OTHER}"
  } cases[] = {{-1, VT_R8}, {2, VT_R8}, {0, VT_BSTR}};  // a number is no dataset
  for (const auto& c : cases) {
    auto args = test::Create<IRasterFunctionArguments>(u"ArithmeticFunctionArguments");
    args->PutValue(Bstr(u"Raster2").Get(), Variant(u"${OTHER}"));
    args->PutValue(Bstr(u"Operation").Get(), Variant(u"${OP}"));
    args->PutValue(Bstr(u"RasterToGenerate").Get(), Variant(std::int32_t{c.generate}));
    ASSERT_EQ(args->Resolve(nullptr, properties.As<IPropertySet>().Get()), S_OK);
    Variant value;
    args->GetValue(Bstr(u"Raster2").Get(), &value);
    EXPECT_EQ(value.vt, c.raster2) << c.generate;
    LONG operation = 0;
    args.As<IArithmeticFunctionArguments>()->get_Operation(&operation);
    EXPECT_EQ(operation, 4);
    // The scalar permission does not outlive the resolve.
    Variant left;
    EXPECT_EQ(properties->GetProperty(Bstr(u"acceptsScalar").Get(), &left), S_FALSE);
  }
}

TEST(BandIndexes, ChooseByNameWavelengthOrPosition) {
  ObjectPtr<raster::MemoryDataset> dataset;
  ComPtr<IRaster> raster = test::MemoryRaster(
      test::Row(1), 4, 5, [](LONG, LONG, LONG) { return 1.0; }, std::addressof(dataset));
  const std::pair<const char16_t*, double> bands[4] = {
      {u"Blue", 480}, {u"Green", 560}, {u"Red", 655}, {u"NIR", 865}};
  for (LONG b = 0; b < 4; ++b) {
    ComPtr<IPropertySet> properties;
    dataset->Band(b).get_Properties(&properties);
    properties->SetProperty(Bstr(u"BandName").Get(), Variant(bands[b].first));
    properties->SetProperty(Bstr(u"WavelengthMin").Get(), Variant(bands[b].second - 10));
    properties->SetProperty(Bstr(u"WavelengthMax").Get(), Variant(bands[b].second + 10));
  }
  using Names = std::vector<std::u16string>;
  using Numbers = std::vector<double>;
  using Positions = std::vector<LONG>;
  const struct {
    const char* what;
    std::optional<Names> names;
    std::optional<Numbers> wavelengths;
    std::optional<Positions> positions;
    LONG action;
    HRESULT hr;
    std::vector<LONG> expected;
  } cases[] = {
      {"names without case", Names{u"nir", u"RED"}, {}, {}, 0, S_OK, {3, 2}},
      {"names first", Names{u"Green"}, Numbers{480}, Positions{0}, 0, S_OK, {1}},
      {"a missing name left out", Names{u"SWIR", u"Blue"}, {}, {}, 0, S_OK, {0}},
      {"a missing name fails", Names{u"SWIR"}, {}, {}, 1, raster::kBandNotFound, {}},
      {"nearest centre", {}, Numbers{600, 850}, {}, 0, S_OK, {1, 3}},
      {"beyond the tolerance", {}, Numbers{1600}, {}, 0, S_OK, {}},
      {"positions validated", {}, {}, Positions{3, 4, -1, 0}, 0, S_OK, {3, 0}},
      {"a bad position fails", {}, {}, Positions{4}, 1, raster::kBandNotFound, {}},
      {"no list", {}, {}, {}, 1, S_OK, {}},
  };
  for (const auto& c : cases) {
    std::vector<LONG> indexes;
    EXPECT_EQ(
        raster::ComputeBandIndexes(raster.Get(), c.names ? &*c.names : nullptr,
                                   c.wavelengths ? &*c.wavelengths : nullptr,
                                   c.positions ? &*c.positions : nullptr, 60.0, c.action, &indexes),
        c.hr)
        << c.what;
    if (SUCCEEDED(c.hr)) {
      EXPECT_EQ(indexes, c.expected) << c.what;
    }
  }
  // The raster's wavelength range comes from its bands.
  EXPECT_EQ(raster::RasterKeyProperty(raster.Get(), u"WavelengthMin")->ToDouble(), 470.0);
  EXPECT_EQ(raster::RasterKeyProperty(raster.Get(), u"WavelengthMax")->ToDouble(), 875.0);
  EXPECT_FALSE(raster::RasterKeyProperty(raster.Get(), u"VisibleBandID"));
}

}  // namespace
}  // namespace pw::functions
