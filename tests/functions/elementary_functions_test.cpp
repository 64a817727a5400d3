// Identity and constant functions end to end: creation by programmatic identifier, bind,
// raster info, blocks, chains, errors, persistence and the live-object count.
#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "framework/arguments.h"
#include "framework/function_raster.h"
#include "functions/elementary/constant_function.h"
#include "raster/mask.h"
#include "raster/memory_dataset.h"
#include "raster/persist/document_version.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/xml.h"
#include "raster/pixel_block.h"
#include "raster/values/arrays.h"
#include "raster/values/geometry.h"
#include "server/entry_points.h"

namespace pw::functions {
namespace {

using raster::PixelValue;

template <class I>
ComPtr<I> Create(std::u16string_view progId) {
  ComPtr<I> object;
  EXPECT_EQ(server::CreateInstance(progId, &object), S_OK) << ToUtf8(progId);
  return object;
}

ComPtr<IRasterInfo> Describe(double width, double height, LONG bands, LONG type) {
  auto info = Create<IRasterInfo>(u"quarnDataSourcesRaster.RasterInfo");
  auto extent = MakeObject<raster::Envelope>();
  extent->PutCoords(0, 0, width, height);
  info->put_Extent(extent.As<IEnvelope>().Get());
  info->put_PixelSizeX(1);
  info->put_PixelSizeY(1);
  info->put_BandCount(bands);
  info->put_PixelType(type);
  return info;
}

Variant Numbers(std::vector<double> values) {
  auto array = MakeObject<raster::DoubleArray>();
  array->Items() = std::move(values);
  return Variant(array->AsUnknown());
}

struct Bound {
  ComPtr<IRasterFunction> function;
  ComPtr<IRasterFunctionArguments> arguments;
};

Bound Constant(std::vector<double> constants, double width, double height, LONG bands, LONG type,
               LONG method = 0) {
  Bound b{Create<IRasterFunction>(u"quarnDataSourcesRaster.ConstantFunction"),
          Create<IRasterFunctionArguments>(u"quarnDataSourcesRaster.ConstantFunctionArguments")};
  auto typed = b.arguments.As<IConstantFunctionArguments>();
  typed->put_RasterInfo(Describe(width, height, bands, type).Get());
  if (method == 0) typed->put_Constant(Numbers(constants));
  typed->put_Method(method);
  return b;
}

ComPtr<IPixelBlock> ReadFunction(IRasterFunction* f, LONG column, LONG row, LONG width, LONG height,
                                 HRESULT* hr = nullptr) {
  ComPtr<IRasterInfo> info;
  f->get_RasterInfo(&info);
  LONG bands = 0, type = 0;
  info->get_BandCount(&bands);
  info->get_PixelType(&type);
  ComPtr<IPixelBlock> block;
  raster::CreatePixelBlock(width, height, bands, type, &block);
  auto origin = MakeObject<raster::Pnt>();
  origin->PutCoords(column, row);
  const HRESULT result = f->Read(origin.As<IPnt>().Get(), nullptr, block.Get());
  if (hr) {
    *hr = result;
  } else {
    EXPECT_EQ(result, S_OK);
  }
  return block;
}

ComPtr<IRaster> RasterOf(IRasterFunction* f, IUnknown* args) {
  ComPtr<IFunctionRasterDataset> dataset;
  EXPECT_EQ(framework::CreateFunctionRasterDataset(f, args, true, &dataset), S_OK);
  ComPtr<IRaster> raster;
  EXPECT_EQ(dataset.As<IRasterDataset>()->CreateDefaultRaster(&raster), S_OK);
  return raster;
}

TEST(ConstantFunction, FillsEveryBandRepeatingTheLastConstant) {
  const struct {
    std::vector<double> constants;
    LONG type;
    std::vector<double> expected;  // bands 0, 1, 2
  } cases[] = {{{5}, 3, {5, 5, 5}},
               {{1, 2}, 3, {1, 2, 2}},
               {{300}, 3, {44, 44, 44}},
               {{-1.7}, 6, {-1, -1, -1}},
               {{2.9, -2.9}, 4, {2, -2, -2}},
               {{70000}, 5, {4464, 4464, 4464}},
               {{0.1}, 9, {0.1f, 0.1f, 0.1f}},
               {{-5e9}, 7, {3589934592.0, 3589934592.0, 3589934592.0}}};
  for (const auto& c : cases) {
    Bound b = Constant(c.constants, 4, 3, 3, c.type);
    ASSERT_EQ(b.function->Bind(b.arguments.Get()), S_OK);
    VARIANT_BOOL valid = VARIANT_FALSE;
    b.function->get_Valid(&valid);
    EXPECT_TRUE(valid);
    const ComPtr<IPixelBlock> block = ReadFunction(b.function.Get(), 0, 0, 4, 3);
    for (LONG band = 0; band < 3; ++band) {
      EXPECT_EQ(PixelValue(block.Get(), band, 11), c.expected[band])
          << "type " << c.type << " band " << band;
      EXPECT_TRUE(raster::mask::AllValid(block->Mask(band), 12));
    }
  }
}

TEST(ConstantFunction, DrawsTheCheckerboardWithItsWideFirstSquare) {
  Bound b = Constant({}, 70, 64, 1, 3, 1);
  auto typed = b.arguments.As<IConstantFunctionArguments>();
  typed->put_MinColor(Numbers({10}));
  typed->put_MaxColor(Numbers({200}));
  ASSERT_EQ(b.function->Bind(b.arguments.Get()), S_OK);
  const ComPtr<IPixelBlock> block = ReadFunction(b.function.Get(), 0, 0, 70, 64);
  auto at = [&](LONG c, LONG r) {
    return PixelValue(block.Get(), 0, static_cast<std::size_t>(r * 70 + c));
  };
  for (LONG c = 0; c <= 32; ++c) EXPECT_EQ(at(c, 0), 200) << c;
  for (LONG c = 33; c <= 64; ++c) EXPECT_EQ(at(c, 0), 10) << c;
  for (LONG c = 65; c < 70; ++c) EXPECT_EQ(at(c, 0), 200) << c;
  EXPECT_EQ(at(0, 31), 200);
  EXPECT_EQ(at(0, 32), 10);  // the row phase flips every 32 rows
  EXPECT_EQ(at(40, 32), 200);
}

TEST(ConstantFunction, ArgumentErrorsNameTheArgumentAndUnknownMethodsFailOnRead) {
  Bound noConstant = Constant({}, 4, 4, 1, 3);
  EXPECT_EQ(noConstant.function->Bind(noConstant.arguments.Get()), E_INVALIDARG);
  EXPECT_NE(ToUtf8(TakeErrorDescription()).find("[Constant]"), std::string::npos);
  Bound checker = Constant({}, 4, 4, 1, 3, 1);
  checker.arguments.As<IConstantFunctionArguments>()->put_MinColor(Numbers({1}));
  EXPECT_EQ(checker.function->Bind(checker.arguments.Get()), E_INVALIDARG);
  EXPECT_NE(ToUtf8(TakeErrorDescription()).find("[MaxColor]"), std::string::npos);
  Bound noInfo = Constant({1}, 4, 4, 1, 3);
  noInfo.arguments->PutValue(Bstr(u"RasterInfo").Get(), Variant(5));
  EXPECT_EQ(noInfo.function->Bind(noInfo.arguments.Get()), E_INVALIDARG);
  EXPECT_NE(ToUtf8(TakeErrorDescription()).find("[RasterInfo]"), std::string::npos);

  Bound method2 = Constant({1}, 4, 4, 1, 3);
  method2.arguments.As<IConstantFunctionArguments>()->put_Method(2);
  ASSERT_EQ(method2.function->Bind(method2.arguments.Get()), S_OK);  // binds...
  HRESULT hr = S_OK;
  ReadFunction(method2.function.Get(), 0, 0, 2, 2, &hr);
  EXPECT_EQ(hr, E_INVALIDARG);  // ...and fails on reading
  ComPtr<IRasterInfo> info;
  EXPECT_EQ(method2.arguments.As<IConstantFunctionArguments>()->CreateRasterInfo(nullptr, &info),
            E_INVALIDARG);
}

ObjectPtr<raster::MemoryDataset> Terrain(LONG columns, LONG rows) {
  return raster::MakeMemoryDataset(
      raster::RasterGrid{0, 0, double(columns), double(rows), columns, rows}, 2, 6,
      [](LONG b, LONG c, LONG r) {
        if ((c + 3 * r) % 17 == 0) return std::nan("");
        return b * 1000.0 + c * 7 - r * 3;
      });
}

Bound Identity(IUnknown* input) {
  Bound b{Create<IRasterFunction>(u"quarnDataSourcesRaster.IdentityFunction"),
          Create<IRasterFunctionArguments>(u"quarnDataSourcesRaster.RasterFunctionArguments")};
  b.arguments->PutValue(Bstr(u"Raster").Get(), Variant(input));
  return b;
}

TEST(IdentityFunction, PassesPixelsThroughAndReportsTheInputsDescription) {
  auto dataset = Terrain(20, 10);
  Bound id = Identity(dataset->AsUnknown());
  ASSERT_EQ(id.function->Bind(id.arguments.Get()), S_OK);
  ComPtr<IRasterInfo> info;
  ASSERT_EQ(id.function->get_RasterInfo(&info), S_OK);
  LONG width = 0, height = 0, bands = 0, type = 0;
  info->get_Width(&width);
  info->get_Height(&height);
  info->get_BandCount(&bands);
  info->get_PixelType(&type);
  EXPECT_EQ(width, 20);
  EXPECT_EQ(height, 10);
  EXPECT_EQ(bands, 2);
  EXPECT_EQ(type, 6);
  Bstr typeName;
  id.function.As<IRasterFunction3>()->get_TypeName(&typeName);
  EXPECT_EQ(typeName.View(), u"IdentityFunction");
  Bstr name;
  id.function->get_Name(&name);
  EXPECT_EQ(name.View(), u"Identity Function");
  const ComPtr<IPixelBlock> block = ReadFunction(id.function.Get(), 3, 2, 5, 4);
  for (LONG r = 0; r < 4; ++r)
    for (LONG c = 0; c < 5; ++c) {
      const std::size_t i = static_cast<std::size_t>(r * 5 + c);
      const LONG sc = 3 + c, sr = 2 + r;
      const bool valid = (sc + 3 * sr) % 17 != 0;
      EXPECT_EQ(raster::mask::Get(block->Mask(1), i), valid);
      if (valid) {
        EXPECT_EQ(PixelValue(block.Get(), 1, i), 1000 + sc * 7 - sr * 3);
      }
    }
}

TEST(IdentityFunction, SnapsAGivenExtentOutwardToTheInputCells) {
  auto dataset = Terrain(20, 10);
  Bound id = Identity(dataset->AsUnknown());
  auto extent = MakeObject<raster::Envelope>();
  extent->PutCoords(2.5, 1.2, 7.1, 6.9);
  id.arguments->PutValue(Bstr(u"Extent").Get(), Variant(extent->AsUnknown()));
  ASSERT_EQ(id.function->Bind(id.arguments.Get()), S_OK);
  ComPtr<IRasterInfo> info;
  id.function->get_RasterInfo(&info);
  ComPtr<IEnvelope> snapped;
  info->get_Extent(&snapped);
  double x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  snapped->QueryCoords(&x0, &y0, &x1, &y1);
  EXPECT_EQ(x0, 2);
  EXPECT_EQ(y0, 1);
  EXPECT_EQ(x1, 8);
  EXPECT_EQ(y1, 7);
  // The output's pixel (0, 0) is the input's (2, 3).
  const ComPtr<IPixelBlock> block = ReadFunction(id.function.Get(), 0, 0, 1, 1);
  EXPECT_EQ(PixelValue(block.Get(), 0, 0), 2 * 7 - 3 * 3);
}

TEST(Chains, IdentityOverConstantOverIdentityConvertsAndKeepsTheGrid) {
  const LONG before = ModuleLiveObjectCount();
  {
    auto dataset = Terrain(30, 12);
    Bound inner = Identity(dataset->AsUnknown());
    ASSERT_EQ(inner.function->Bind(inner.arguments.Get()), S_OK);
    ComPtr<IRaster> innerRaster = RasterOf(inner.function.Get(), inner.arguments.Get());

    // The constant takes its description from the inner identity's output.
    Bound constant{
        Create<IRasterFunction>(u"quarnDataSourcesRaster.ConstantFunction"),
        Create<IRasterFunctionArguments>(u"quarnDataSourcesRaster.ConstantFunctionArguments")};
    auto typed = constant.arguments.As<IConstantFunctionArguments>();
    ComPtr<IRasterInfo> described;
    ASSERT_EQ(typed->CreateRasterInfo(innerRaster.Get(), &described), S_OK);
    typed->put_RasterInfo(described.Get());
    typed->put_Constant(Numbers({-7.8, 42.6}));
    ComPtr<IFunctionRasterDataset> constantRaster;
    ASSERT_EQ(framework::CreateFunctionRasterDataset(
                  constant.function.Get(), constant.arguments.Get(), true, &constantRaster),
              S_OK);

    Bound outer = Identity(constantRaster.Get());
    outer.function->put_PixelType(3);  // read back as bytes: clamped and rounded
    ASSERT_EQ(outer.function->Bind(outer.arguments.Get()), S_OK);
    ComPtr<IRasterInfo> info;
    outer.function->get_RasterInfo(&info);
    LONG width = 0, height = 0, type = 0, bands = 0;
    info->get_Width(&width);
    info->get_Height(&height);
    info->get_PixelType(&type);
    info->get_BandCount(&bands);
    EXPECT_EQ(width, 30);
    EXPECT_EQ(height, 12);
    EXPECT_EQ(type, 3);
    EXPECT_EQ(bands, 2);
    const ComPtr<IPixelBlock> block = ReadFunction(outer.function.Get(), 28, 10, 4, 4);
    // The constant is stored as S16 (-7, 42), converted to U8 (0, 42); beyond the grid
    // the pixels are invalid.
    EXPECT_EQ(PixelValue(block.Get(), 0, 0), 0);
    EXPECT_EQ(PixelValue(block.Get(), 1, 0), 42);
    EXPECT_TRUE(raster::mask::Get(block->Mask(1), 5));
    EXPECT_FALSE(raster::mask::Get(block->Mask(1), 2));  // column 30
    EXPECT_FALSE(raster::mask::Get(block->Mask(0), 8));  // row 12
  }
  ClearErrorInfo();
  EXPECT_EQ(ModuleLiveObjectCount(), before);
}

std::vector<double> ReadTiled(IRasterFunction* f, LONG width, LONG height, LONG tileW, LONG tileH) {
  std::vector<double> out(static_cast<std::size_t>(width * height));
  for (LONG r = 0; r < height; r += tileH)
    for (LONG c = 0; c < width; c += tileW) {
      const LONG w = std::min(tileW, width - c), h = std::min(tileH, height - r);
      const ComPtr<IPixelBlock> block = ReadFunction(f, c, r, w, h);
      for (LONG y = 0; y < h; ++y)
        for (LONG x = 0; x < w; ++x) {
          const std::size_t i = static_cast<std::size_t>(y * w + x);
          out[static_cast<std::size_t>((r + y) * width + c + x)] =
              raster::mask::Get(block->Mask(1), i) ? PixelValue(block.Get(), 1, i) : -1e9;
        }
    }
  return out;
}

TEST(Chains, AnyTilingAndEightThreadsGiveTheWholeRead) {
  auto dataset = Terrain(97, 61);
  Bound inner = Identity(dataset->AsUnknown());
  ASSERT_EQ(inner.function->Bind(inner.arguments.Get()), S_OK);
  ComPtr<IFunctionRasterDataset> innerRaster;
  ASSERT_EQ(framework::CreateFunctionRasterDataset(inner.function.Get(), inner.arguments.Get(),
                                                   true, &innerRaster),
            S_OK);
  Bound outer = Identity(innerRaster.Get());
  outer.function->put_PixelType(9);
  ASSERT_EQ(outer.function->Bind(outer.arguments.Get()), S_OK);
  const auto whole = ReadTiled(outer.function.Get(), 97, 61, 97, 61);
  EXPECT_EQ(ReadTiled(outer.function.Get(), 97, 61, 1, 1), whole);
  EXPECT_EQ(ReadTiled(outer.function.Get(), 97, 61, 7, 13), whole);
  EXPECT_EQ(ReadTiled(outer.function.Get(), 97, 61, 256, 256), whole);
  std::vector<std::vector<double>> results(8);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back(
        [&, t] { results[t] = ReadTiled(outer.function.Get(), 97, 61, 3 + t, 11 - t); });
  for (auto& t : threads) t.join();
  for (int t = 0; t < 8; ++t) EXPECT_EQ(results[t], whole) << t;
}

TEST(Chains, BindFailuresCarryEveryLevelFromTheOutermostFunction) {
  Bound broken = Constant({}, 4, 4, 1, 3);  // no "Constant"
  ComPtr<IFunctionRasterDataset> brokenRaster;
  ASSERT_EQ(framework::CreateFunctionRasterDataset(broken.function.Get(), broken.arguments.Get(),
                                                   false, &brokenRaster),
            S_OK);
  Bound middle = Identity(brokenRaster.Get());
  ComPtr<IFunctionRasterDataset> middleRaster;
  ASSERT_EQ(framework::CreateFunctionRasterDataset(middle.function.Get(), middle.arguments.Get(),
                                                   false, &middleRaster),
            S_OK);
  Bound outer = Identity(middleRaster.Get());
  ClearErrorInfo();
  EXPECT_EQ(outer.function->Bind(outer.arguments.Get()), E_INVALIDARG);
  // Each level names its argument and, where a dataset was expected, which kind (12).
  EXPECT_EQ(ToUtf8(TakeErrorDescription()),
            "IdentityFunction: the argument [Raster] is missing or of the wrong kind.\n"
            "Failed to open raster item: [Raster 12]\n"
            "IdentityFunction: the argument [Raster] is missing or of the wrong kind.\n"
            "Failed to open raster item: [Raster 12]\n"
            "ConstantFunction: the argument [Constant] is missing or of the wrong kind.");
  for (const Bound* b : {&outer, &middle, &broken}) {
    VARIANT_BOOL valid = VARIANT_TRUE;
    b->function->get_Valid(&valid);
    EXPECT_FALSE(valid);
  }
  HRESULT hr = S_OK;
  ComPtr<IPixelBlock> block;
  raster::CreatePixelBlock(1, 1, 1, 3, &block);
  hr = outer.function->Read(nullptr, nullptr, block.Get());
  EXPECT_EQ(hr, E_FAIL);
  EXPECT_NE(ToUtf8(TakeErrorDescription()).find("not bound"), std::string::npos);

  Bound missing{
      Create<IRasterFunction>(u"quarnDataSourcesRaster.IdentityFunction"),
      Create<IRasterFunctionArguments>(u"quarnDataSourcesRaster.RasterFunctionArguments")};
  EXPECT_EQ(missing.function->Bind(missing.arguments.Get()), E_INVALIDARG);
  EXPECT_EQ(ToUtf8(TakeErrorDescription()),
            "IdentityFunction: the argument [Raster] is missing or of the wrong kind.\n"
            "Failed to open raster item: [Raster 12]\nMissing "
            "raster: [Raster]");
  missing.arguments->PutValue(Bstr(u"Raster").Get(), Variant(u"no-such-file.tif"));
  EXPECT_EQ(missing.function->Bind(missing.arguments.Get()), E_INVALIDARG);
  EXPECT_NE(ToUtf8(TakeErrorDescription()).find("no-such-file.tif"), std::string::npos);
}

// ------------------------------------------------------------------------------------------
// Persistence: functions and arguments round-trip and bind again to the same output.

enum class Form { kStream, kXml, kJson };

ComPtr<IUnknown> RoundTrip(IUnknown* object, Form form, std::u16string_view progId) {
  ComPtr<IUnknown> fresh;
  EXPECT_EQ(server::CreateInstance(progId, &fresh), S_OK);
  if (form == Form::kStream) {
    std::vector<std::uint8_t> bytes;
    EXPECT_EQ(persist::SaveToBytes(object, persist::kCurrentDocumentVersion, &bytes), S_OK);
    EXPECT_EQ(persist::LoadFromBytes(fresh.Get(), bytes), S_OK);
  } else if (form == Form::kXml) {
    std::string text;
    EXPECT_EQ(persist::SaveXml(object, &text), S_OK);
    EXPECT_EQ(persist::LoadXml(text, fresh.Get()), S_OK) << text;
  } else {
    std::string text;
    EXPECT_EQ(persist::SaveJson(object, &text), S_OK);
    EXPECT_EQ(persist::LoadJson(text, fresh.Get()), S_OK) << text;
  }
  return fresh;
}

std::vector<double> AllPixels(IRasterFunction* f, LONG width, LONG height, LONG band) {
  const ComPtr<IPixelBlock> block = ReadFunction(f, 0, 0, width, height);
  std::vector<double> out;
  for (std::size_t i = 0; i < static_cast<std::size_t>(width * height); ++i)
    out.push_back(raster::mask::Get(block->Mask(band), i) ? PixelValue(block.Get(), band, i)
                                                          : -1e9);
  return out;
}

class FunctionPersistence : public ::testing::TestWithParam<Form> {};

TEST_P(FunctionPersistence, ConstantFunctionAndArgumentsBindAgainToTheSameOutput) {
  Bound original = Constant({3.5, -2}, 6, 5, 2, 6);
  original.function->put_Name(Bstr(u"My constant").Get());
  ASSERT_EQ(original.function->Bind(original.arguments.Get()), S_OK);
  const ComPtr<IUnknown> function =
      RoundTrip(original.function.Get(), GetParam(), u"quarnDataSourcesRaster.ConstantFunction");
  const ComPtr<IUnknown> arguments = RoundTrip(original.arguments.Get(), GetParam(),
                                               u"quarnDataSourcesRaster.ConstantFunctionArguments");
  ComPtr<IRasterFunction> f = function.As<IRasterFunction>();
  ASSERT_EQ(f->Bind(arguments.Get()), S_OK) << ToUtf8(TakeErrorDescription());
  Bstr name;
  f->get_Name(&name);
  EXPECT_EQ(name.View(), u"My constant");
  EXPECT_TRUE(persist::ObjectEquals(arguments.Get(), original.arguments.Get()));
  for (LONG band = 0; band < 2; ++band)
    EXPECT_EQ(AllPixels(f.Get(), 6, 5, band), AllPixels(original.function.Get(), 6, 5, band));
}

TEST_P(FunctionPersistence, ChainsTravelAsFunctionRasterDatasets) {
  Bound constant = Constant({12}, 8, 4, 1, 3);
  ComPtr<IFunctionRasterDataset> inner;
  ASSERT_EQ(framework::CreateFunctionRasterDataset(constant.function.Get(),
                                                   constant.arguments.Get(), true, &inner),
            S_OK);
  Bound outer = Identity(inner.Get());
  outer.function->put_PixelType(10);
  ComPtr<IFunctionRasterDataset> chain;
  ASSERT_EQ(framework::CreateFunctionRasterDataset(outer.function.Get(), outer.arguments.Get(),
                                                   true, &chain),
            S_OK);
  const ComPtr<IUnknown> back =
      RoundTrip(chain.Get(), GetParam(), u"quarnDataSourcesRaster.FunctionRasterDataset");
  ComPtr<IFunctionRasterDataset> loaded = back.As<IFunctionRasterDataset>();
  ASSERT_EQ(loaded->EnsureBound(), S_OK) << ToUtf8(TakeErrorDescription());
  ComPtr<IRasterFunction> f;
  loaded->get_Function(&f);
  EXPECT_EQ(AllPixels(f.Get(), 8, 4, 0), AllPixels(outer.function.Get(), 8, 4, 0));
  ComPtr<IRasterInfo> info;
  f->get_RasterInfo(&info);
  LONG type = 0;
  info->get_PixelType(&type);
  EXPECT_EQ(type, 10);
}

INSTANTIATE_TEST_SUITE_P(EveryForm, FunctionPersistence,
                         ::testing::Values(Form::kStream, Form::kXml, Form::kJson),
                         [](const auto& p) {
                           return std::string(p.param == Form::kStream ? "Stream"
                                              : p.param == Form::kXml  ? "Xml"
                                                                       : "Json");
                         });

TEST(FunctionPersistence, OldDocumentVersionsCannotHoldFunctions) {
  Bound b = Constant({1}, 2, 2, 1, 3);
  for (int ordinal = 0; ordinal < persist::kDocumentVersionCount; ++ordinal) {
    std::vector<std::uint8_t> bytes;
    const HRESULT hr =
        persist::SaveToBytes(b.function.Get(), persist::kDocumentVersions[ordinal], &bytes);
    EXPECT_EQ(SUCCEEDED(hr), ordinal >= 4) << ordinal;
  }
}

TEST(ConstantFunctionArguments, JsonReadsOneNumberAsTheConstant) {
  auto args =
      Create<IRasterFunctionArguments2>(u"quarnDataSourcesRaster.ConstantFunctionArguments");
  const std::string json =
      R"({"RasterInfo": {"BandCount": 1, "PixelType": "U8", "PixelSizeX": 1, "PixelSizeY": 1,
      "Extent": {"XMin": 0, "YMin": 0, "XMax": 3, "YMax": 2}}, "Constant": 9, "Method": 0, "Note": "kept"})";
  ASSERT_EQ(args->FromJSON(Bstr(std::string_view(json)).Get()), S_OK)
      << ToUtf8(TakeErrorDescription());
  auto f = Create<IRasterFunction>(u"quarnDataSourcesRaster.ConstantFunction");
  ASSERT_EQ(f->Bind(args.Get()), S_OK);
  EXPECT_EQ(AllPixels(f.Get(), 3, 2, 0), std::vector<double>(6, 9));
  Variant note;
  ASSERT_EQ(args->GetValue(Bstr(u"Note").Get(), &note), S_OK);
  EXPECT_EQ(note.ToString(), u"kept");
  Bstr text;
  ASSERT_EQ(args->ToJSON(&text), S_OK);
  EXPECT_NE(text.Utf8().find("quarnDataSourcesRaster.ConstantFunctionArguments"),
            std::string::npos);
}

}  // namespace
}  // namespace pw::functions
