// A function with several output bands is computed once per block, whatever reads it: a
// view of its dataset and an export both take every band from one read of the function.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "framework/function_raster.h"
#include "functions/elementary/arithmetic_function.h"
#include "raster/gdal/export.h"
#include "raster/pixel_traits.h"
#include "raster/raster_view.h"
#include "tests/functions/function_test_support.h"
#include "tests/test_support.h"

namespace pw::functions {
namespace {

// Forwards to another source and counts the band windows read from it.
class CountingSource : public IRasterSource {
 public:
  using Interfaces = InterfaceList<IRasterSource>;
  explicit CountingSource(IRasterSource* inner) : inner_(inner) {}
  HRESULT STDMETHODCALLTYPE GetInfo(raster::SourceInfo* info) override {
    return inner_->GetInfo(info);
  }
  HRESULT STDMETHODCALLTYPE ReadWindow(LONG band, LONG column, LONG row, LONG width, LONG height,
                                       void* buffer, BYTE* mask) override {
    ++reads;
    return inner_->ReadWindow(band, column, row, width, height, buffer, mask);
  }
  std::atomic<int> reads{0};

 private:
  ComPtr<IRasterSource> inner_;
};

struct ThreeBandChain {
  ObjectPtr<CountingSource> counter;
  ComPtr<IRasterFunction> function;
  ComPtr<IRaster> output;  // a view of the function's dataset
};

// (a 3-band 16 x 32 raster) + 1, as a function raster dataset's default view.
ThreeBandChain AddOne() {
  ThreeBandChain chain;
  ObjectPtr<raster::MemoryDataset> memory;
  test::MemoryRaster(
      test::Row(16, 32), 3, 9, [](LONG b, LONG c, LONG r) { return b * 1000.0 + r * 16 + c; },
      std::addressof(memory));
  chain.counter = MakeObject<CountingSource>(memory.As<IRasterSource>().Get());
  ComPtr<IRaster> input;
  EXPECT_EQ(raster::CreateRaster(chain.counter.As<IRasterSource>().Get(), &input), S_OK);

  auto function = test::Create<IRasterFunction>(u"ArithmeticFunction");
  auto arguments = test::Create<IRasterFunctionArguments>(u"ArithmeticFunctionArguments");
  auto typed = arguments.As<IArithmeticFunctionArguments>();
  typed->put_Raster(Variant(static_cast<IUnknown*>(input.Get())));
  typed->put_Raster2(Variant(1.0));
  typed->put_Operation(1);
  ComPtr<IFunctionRasterDataset> dataset;
  EXPECT_EQ(framework::CreateFunctionRasterDataset(function.Get(), arguments.Get(), true, &dataset),
            S_OK);
  EXPECT_EQ(dataset.As<IRasterDataset>()->CreateDefaultRaster(&chain.output), S_OK);
  chain.function = function;
  return chain;
}

TEST(BlockReads, AViewReadsEveryBandOfAFunctionInOneCompute) {
  ThreeBandChain chain = AddOne();
  ComPtr<IPixelBlock> block;
  ASSERT_EQ(chain.output.As<IRaster>()->CreatePixelBlock(16, 32, &block), S_OK);
  auto origin = MakeObject<raster::Pnt>();
  origin->PutCoords(0, 0);
  ASSERT_EQ(chain.output->Read(origin.As<IPnt>().Get(), block.Get()), S_OK);
  // One compute reads each of the input's three bands once.
  EXPECT_EQ(chain.counter->reads.load(), 3);
  for (LONG b = 0; b < 3; ++b)
    EXPECT_EQ(raster::PixelValue(block.Get(), b, 17), b * 1000.0 + 17 + 1) << "band " << b;
}

TEST(BlockReads, AnExportComputesEachStripOnce) {
  ThreeBandChain chain = AddOne();
  test::TempDir dir;
  raster::gdal::ExportOptions options;
  options.blockRows = 16;
  options.threads = 1;
  options.creationOptions = {"TILED=YES", "BLOCKXSIZE=16", "BLOCKYSIZE=16"};
  ASSERT_EQ(raster::gdal::ExportRaster(chain.output.Get(), (dir / "out.tif").string(), options),
            S_OK)
      << test::LastError();
  // Two strips of 16 rows, each one compute reading three input bands.
  EXPECT_EQ(chain.counter->reads.load(), 2 * 3);
}

// A caller's block of another pixel type or band count gets the output computed once in its
// own shape, converted, with bands past the output's count repeating its last band.
TEST(BlockReads, BlocksOfAnyShapeTakeTheOutputConverted) {
  ThreeBandChain chain = AddOne();
  const struct { LONG bands, type; } shapes[] = {{3, 9}, {1, 9}, {5, 9}, {3, 3}, {4, 6}, {2, 10}};
  auto reference = test::ReadOutput(chain.function.Get());
  ASSERT_EQ(reference.bands, 3);
  for (const auto& shape : shapes) {
    chain.counter->reads = 0;
    ComPtr<IPixelBlock> block;
    ASSERT_EQ(raster::CreatePixelBlock(16, 32, shape.bands, shape.type, &block), S_OK);
    auto origin = MakeObject<raster::Pnt>();
    origin->PutCoords(0, 0);
    ASSERT_EQ(chain.function->Read(origin.As<IPnt>().Get(), nullptr, block.Get()), S_OK);
    EXPECT_EQ(chain.counter->reads.load(), 3) << shape.bands << " bands of type " << shape.type;
    for (LONG b = 0; b < shape.bands; ++b)
      for (std::size_t i : {std::size_t{0}, std::size_t{17}, std::size_t{511}}) {
        double expected = 0;
        raster::VisitPixelType(shape.type, [&](auto tag) {
          bool valid = true;
          expected = static_cast<double>(raster::ConvertValue<typename decltype(tag)::type>(
              reference.At(std::min<LONG>(b, 2), i), raster::PixelRange(shape.type), &valid));
        });
        EXPECT_EQ(raster::PixelValue(block.Get(), b, i), expected)
            << shape.bands << " bands of type " << shape.type << ", band " << b << ", cell " << i;
      }
  }
}

}  // namespace
}  // namespace pw::functions
